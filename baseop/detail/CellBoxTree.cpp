#include <baseop/detail/CellBoxTree.hpp>

#include <cmath>
#include <limits>
#include <omp.h>
#include <stdexcept>

namespace Vantle::detail {

namespace {

constexpr float infinite = std::numeric_limits<float>::infinity();

} // namespace

CellBoxTree::Boxes::~Boxes() = default;

CellBoxTree::CellBoxTree(const MultiIndex<3>& cells, const point& lowest, const point& highest) {
    for (int d = 0; d < 3; ++d) {
        if (cells[d] >= std::numeric_limits<std::uint32_t>::max())
            throw std::length_error("CellBoxTree: too many cells");
        myCells[d] = static_cast<std::size_t>(cells[d]);
        myOrigin[d] = std::isfinite(lowest[d]) ? lowest[d] : 0.0;
        const double scale = 1.0 / (highest[d] - lowest[d]);
        myScale[d] = scale > 0.0 && std::isfinite(scale) ? scale : 1.0;
    }
    if (cells.product() == 0) return;
    std::size_t first = 0;
    const std::size_t* below = myCells;
    do {
        Level& level = myLevels[++myTop];
        const std::size_t side = myTop == 0 ? 2 : 4;
        for (int d = 0; d < 3; ++d) level.size[d] = (below[d] + side - 1) / side;
        level.first = first;
        if (myTop > 0) first += level.total(); // the groups of cells have numbers of their own
        below = level.size;
    } while (below[0] > 1 || below[1] > 1 || below[2] > 1);
}

template<int Side>
CellBoxTree::Box CellBoxTree::Group<Side>::assign(const Box* members) noexcept {
    Box whole;
    for (int d = 0; d < 3; ++d) {
        float low = infinite, high = -infinite;
        for (int m = 0; m < Members; ++m) {
            const bool isThere = members[m].low[d] <= members[m].high[d];
            low = isThere ? std::min(low, members[m].low[d]) : low;
            high = isThere ? std::max(high, members[m].high[d]) : high;
        }
        whole.low[d] = low;
        whole.high[d] = high;
        // The largest power of two that keeps the whole within 256 steps; whatever does not fit is clamped.
        const float extent = std::max(high - low, std::numeric_limits<float>::min());
        const std::uint32_t bits = std::bit_cast<std::uint32_t>(256.0F / extent) >> 23;
        exponent[d] = static_cast<std::uint8_t>(std::min(std::max(bits, 1U), 254U));
        const float from = low <= high ? low : 0.0F;
        origin[d] = from;
        const float s = scale(exponent[d]);
        for (int m = 0; m < Members; ++m) {
            const bool isThere = members[m].low[d] <= members[m].high[d];
            bounds[d][0][m] = quantize(isThere ? members[m].low[d] : infinite, from, s);
            bounds[d][1][m] = quantize(isThere ? members[m].high[d] : -infinite, from, s);
        }
    }
    exponent[3] = 63; // makes a number of these four bytes that is no denormal, for the processor's sake
    return whole;
}

void CellBoxTree::build(const Boxes& source) {
    if (myTop < 0) return;
    const Level& bottom = myLevels[0];
    myBottom.resize(bottom.total());
    if (myTop > 0) myUpper.resize(myLevels[myTop].first + 1);
    std::vector<Box> boxes(bottom.total());

    // One filler, and four rows of cells filled up to whole groups, for each thread.
    struct Worker {
        std::unique_ptr<Boxes> source;
        std::vector<float> memory;
        Row rows[4];
    };
    const std::size_t width = 2 * bottom.size[0];
    std::vector<Worker> workers(static_cast<std::size_t>(std::max(omp_get_max_threads(), 1)));
    for (Worker& worker : workers) {
        worker.source = source.clone();
        worker.memory.resize(width * 24);
        float* next = worker.memory.data();
        for (Row& row : worker.rows)
            for (int d = 0; d < 3; ++d) {
                row.low[d] = next;
                row.high[d] = next + width;
                next += 2 * width;
            }
    }
    const auto planes = static_cast<std::ptrdiff_t>(bottom.size[2]);
#pragma omp parallel for schedule(dynamic) num_threads(static_cast <int>(workers.size()))
    for (std::ptrdiff_t plane = 0; plane < planes; ++plane) {
        Worker& worker = workers[static_cast<std::size_t>(omp_get_thread_num())];
        const auto z = static_cast<std::size_t>(plane);
        for (std::size_t y = 0; y < bottom.size[1]; ++y) {
            for (std::size_t r = 0; r < 4; ++r) {
                const Row& row = worker.rows[r];
                const std::size_t j = 2 * y + (r & 1), k = 2 * z + (r >> 1);
                const bool exists = j < myCells[1] && k < myCells[2];
                if (exists) worker.source->fill(j, k, row);
                for (std::size_t i = exists ? myCells[0] : 0; i < width; ++i)
                    for (int d = 0; d < 3; ++d) {
                        row.low[d][i] = infinite;
                        row.high[d][i] = -infinite;
                    }
            }
            const std::size_t first = bottom.size[0] * (y + bottom.size[1] * z);
            for (std::size_t i = 0; i < bottom.size[0]; ++i) {
                Box members[8];
                for (std::size_t m = 0; m < 8; ++m)
                    for (int d = 0; d < 3; ++d) {
                        members[m].low[d] = worker.rows[m >> 1].low[d][2 * i + (m & 1)];
                        members[m].high[d] = worker.rows[m >> 1].high[d][2 * i + (m & 1)];
                    }
                boxes[first + i] = myBottom[first + i].assign(members);
            }
        }
    }

    for (int l = 1; l <= myTop; ++l) {
        const Level& below = myLevels[l - 1];
        const Level& level = myLevels[l];
        std::vector<Box> unions(level.total());
        const auto total = static_cast<std::ptrdiff_t>(level.total());
#pragma omp parallel for if (total > 256)
        for (std::ptrdiff_t g = 0; g < total; ++g) {
            const auto group = static_cast<std::size_t>(g);
            const std::size_t x = group % level.size[0], y = group / level.size[0] % level.size[1],
                              z = group / (level.size[0] * level.size[1]);
            Box members[Upper::Members];
            for (std::size_t m = 0; m < Upper::Members; ++m) {
                const std::size_t i = 4 * x + m % 4, j = 4 * y + m / 4 % 4, k = 4 * z + m / 16;
                if (i < below.size[0] && j < below.size[1] && k < below.size[2])
                    members[m] = boxes[i + below.size[0] * (j + below.size[1] * k)];
                else
                    members[m] = {{infinite, infinite, infinite}, {-infinite, -infinite, -infinite}};
            }
            unions[group] = myUpper[level.first + group].assign(members);
        }
        boxes.swap(unions);
    }
}

} // namespace Vantle::detail
