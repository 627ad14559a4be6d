#include <baseop/detail/location/RowKernels.hpp>
#include <baseop/detail/location/Unigrid.hpp>
#include <model/hestra/Chunk.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <omp.h>
#include <stdexcept>

namespace Vantle::detail {

namespace {

using point = Orvix::PhysicalSpace::point;

/// The unicells that the boxes of the cells of one row touch.
class RowRanges {
public:
    RowRanges(const BlockVertices& vertices, const Unigrid& unigrid)
        : myVertices(vertices), myUnigrid(unigrid), myLength(static_cast<std::size_t>(vertices.cells()[0])),
          myPitch(CellBoxTree::roomFor(myLength + 1)), myBounds(6 * myPitch), myRanges(6 * myPitch) {
        for (int d = 0; d < 3; ++d) {
            // Without extent, all coordinates are the greatest one.
            const bool isFlat = !(unigrid.unicellSize[d] > 0.0);
            myAxes[d] = {unigrid.lowest[d], isFlat ? -std::numeric_limits<double>::infinity() : unigrid.highest[d],
                         isFlat ? 1.0 : unigrid.unicellSize[d], static_cast<int>(unigrid.size[d]) - 1};
        }
    }

    /// First and last unicell of cell i on an axis. A cell without any has a first one beyond the last.
    [[nodiscard]] int first(std::size_t i, std::size_t axis) const noexcept { return firsts(axis)[i]; }
    [[nodiscard]] int last(std::size_t i, std::size_t axis) const noexcept { return lasts(axis)[i]; }
    [[nodiscard]] const int* firsts(std::size_t axis) const noexcept { return myRanges.data() + axis * myPitch; }
    [[nodiscard]] const int* lasts(std::size_t axis) const noexcept { return myRanges.data() + (3 + axis) * myPitch; }
    [[nodiscard]] bool isListed(std::size_t i) const noexcept { return first(i, 0) <= last(i, 0); }

    void find(index_t j, index_t k) {
        if (myUnigrid.isFinite)
            fillRanges(myVertices.rowsAround(j, k, myRows).of, myLength, myAxes, myBounds.data(),
                       myBounds.data() + 3 * myPitch, myRanges.data(), myPitch);
        else
            findAny(j, k);
    }

private:
    void findAny(index_t j, index_t k) {
        for (std::size_t i = 0; i < myLength; ++i) {
            const Orvix::BoundingBox box = boxOfCell(myVertices, MultiIndex<3>(i, j, k));
            int first[3] = {}, last[3] = {};
            const bool isListed = myUnigrid.inside(box.minCoord()) && myUnigrid.map(box.minCoord(), first) &&
                                  myUnigrid.inside(box.maxCoord()) && myUnigrid.map(box.maxCoord(), last);
            for (std::size_t d = 0; d < 3; ++d) {
                myRanges[d * myPitch + i] = isListed ? first[d] : 0;
                myRanges[(3 + d) * myPitch + i] = isListed ? last[d] : -1;
            }
        }
    }

    const BlockVertices& myVertices;
    const Unigrid& myUnigrid;
    std::size_t myLength, myPitch;
    UnicellAxis myAxes[3];
    std::vector<double> myRows, myBounds;
    std::vector<int> myRanges; // by axis: first ones, then last ones
};

} // namespace

Orvix::BoundingBox boxOfCell(const BlockVertices& vertices, const MultiIndex<3>& cell) {
    const double* const lowest = vertices.address(cell);
    Orvix::BoundingBox box;
    for (const int corner : {0, 1, 3, 2, 5, 7, 6, 4}) box.embrace(vertices.point(vertices.corner(lowest, corner)));
    return box;
}

bool isListed(const BlockVertices& vertices, const Unigrid& unigrid, const MultiIndex<3>& cell,
              const int (&unicell)[3]) noexcept {
    const Orvix::BoundingBox box = boxOfCell(vertices, cell);
    int first[3], last[3];
    if (!unigrid.inside(box.minCoord()) || !unigrid.map(box.minCoord(), first) || !unigrid.inside(box.maxCoord()) ||
        !unigrid.map(box.maxCoord(), last))
        return false;
    for (int d = 0; d < 3; ++d)
        if (unicell[d] < first[d] || unicell[d] > last[d]) return false;
    return true;
}

void forEachListed(const BlockVertices& vertices, const Unigrid& unigrid, const int (&unicell)[3],
                   const std::function<bool(index_t)>& f) {
    const MultiIndex<3>& count = vertices.cells();
    if (count.product() == 0) return;
    RowRanges ranges(vertices, unigrid);
    for (index_t k = 0; k < count[2]; ++k)
        for (index_t j = 0; j < count[1]; ++j) {
            ranges.find(j, k);
            for (std::size_t i = 0; i < count[0]; ++i) {
                bool isHere = ranges.isListed(i);
                for (std::size_t d = 0; d < 3; ++d)
                    isHere &= unicell[d] >= ranges.first(i, d) && unicell[d] <= ranges.last(i, d);
                if (isHere && !f(i + count[0] * (j + count[1] * k))) return;
            }
        }
}

std::uint32_t longestList(const BlockVertices& vertices, const Unigrid& unigrid,
                          const std::function<void(const MultiIndex<3>&)>& reject) {
    const MultiIndex<3>& count = vertices.cells();
    if (count.product() == 0) return 0;

    // The number of cells a unicell lists is the sum of differences up to it: each cell adds to eight of them.
    const auto width = static_cast<std::size_t>(unigrid.size[0]), height = static_cast<std::size_t>(unigrid.size[1]),
               depth = static_cast<std::size_t>(unigrid.size[2]);
    const std::size_t line = width + 1, plane = line * (height + 1), total = plane * (depth + 1);
    // Cells that are rejected print, in order. More threads than a few would spend their time in adding up.
    struct Part {
        RowRanges ranges;
        std::unique_ptr<std::uint32_t[]> differences; // modulo 2^32, as partial sums may overflow
        std::vector<std::uint32_t> row, most;         // sums along one line, and the greatest ones by place in it
    };
    constexpr std::size_t MostThreads = 8, MostDifferences = std::size_t{1} << 26;
    const auto cores = static_cast<std::size_t>(std::max(omp_get_max_threads(), 1));
    const bool isParallel = unigrid.isFinite && count.product() > 4096;
    const std::size_t threads = isParallel ? std::min({cores, MostThreads, MostDifferences / total + 1}) : 1;
    std::vector<Part> parts;
    for (std::size_t t = 0; t < threads; ++t) {
        parts.push_back({RowRanges(vertices, unigrid), std::make_unique_for_overwrite<std::uint32_t[]>(total),
                         std::vector<std::uint32_t>(width), std::vector<std::uint32_t>(width)});
        Hestra::adviseLargeArray(parts.back().differences.get(), total * sizeof(std::uint32_t));
    }
    const auto layers = static_cast<std::ptrdiff_t>(count[2]), elements = static_cast<std::ptrdiff_t>(total),
               planes = static_cast<std::ptrdiff_t>(depth), lines = static_cast<std::ptrdiff_t>(height);
#pragma omp parallel num_threads(static_cast <int>(threads))
    {
        // Given fewer threads than asked for, each has several parts to clear.
#pragma omp for schedule(static)
        for (std::ptrdiff_t t = 0; t < static_cast<std::ptrdiff_t>(threads); ++t)
            std::fill_n(parts[static_cast<std::size_t>(t)].differences.get(), elements, 0U);
        Part& part = parts[static_cast<std::size_t>(omp_get_thread_num())];
        RowRanges& ranges = part.ranges;
        std::uint32_t* const differences = part.differences.get();
#pragma omp for schedule(static)
        for (std::ptrdiff_t layer = 0; layer < layers; ++layer) {
            const auto k = static_cast<index_t>(layer);
            for (index_t j = 0; j < count[1]; ++j) {
                ranges.find(j, k);
                for (std::size_t i = 0; i < count[0]; ++i) {
                    if (!ranges.isListed(i)) {
                        reject(MultiIndex<3>(i, j, k));
                        continue;
                    }
                    std::size_t from[3], to[3];
                    for (std::size_t d = 0; d < 3; ++d) {
                        from[d] = static_cast<std::size_t>(ranges.first(i, d));
                        to[d] = static_cast<std::size_t>(ranges.last(i, d)) + 1;
                    }
                    for (int corner = 0; corner < 4; ++corner) {
                        std::uint32_t* const row = differences + line * (corner & 1 ? to[1] : from[1]) +
                                                   plane * (corner & 2 ? to[2] : from[2]);
                        const std::uint32_t sign = corner == 0 || corner == 3 ? 1U : ~0U;
                        row[from[0]] += sign;
                        row[to[0]] -= sign;
                    }
                }
            }
        }

        // Sums along two axes, in the planes of the first part, then along the third.
        std::uint32_t* const sums = parts[0].differences.get();
        std::uint32_t* const row = part.row.data();
#pragma omp for schedule(static)
        for (std::ptrdiff_t z = 0; z < planes; ++z) {
            std::fill_n(row, width, 0U);
            for (std::size_t y = 0; y < height; ++y) {
                const std::size_t first = line * y + plane * static_cast<std::size_t>(z);
                for (const Part& some : parts)
                    for (std::size_t x = 0; x < width; ++x) row[x] += some.differences[first + x];
                std::uint32_t along = 0;
                for (std::size_t x = 0; x < width; ++x) sums[first + x] = along += row[x];
            }
        }
#pragma omp for schedule(static)
        for (std::ptrdiff_t y = 0; y < lines; ++y) {
            std::fill_n(row, width, 0U);
            for (std::size_t z = 0; z < depth; ++z)
                addUp(sums + line * static_cast<std::size_t>(y) + plane * z, width, row, part.most.data());
        }
    }
    std::uint32_t longest = 0;
    for (const Part& part : parts) longest = std::max(longest, *std::max_element(part.most.begin(), part.most.end()));
    return longest;
}

std::unique_ptr<const UnicellLists> UnicellLists::make(const BlockVertices& vertices, const Unigrid& unigrid,
                                                       index_t limit) {
    const MultiIndex<3>& count = vertices.cells();
    if (count.product() > limit) return nullptr; // each is in one list at least
    RowRanges ranges(vertices, unigrid);
    // Calls f(number, i) for every listed cell, the i-th of the row of the ranges, as long as it returns true.
    const auto forEachCell = [&](auto&& f) {
        if (count.product() == 0) return true;
        for (index_t k = 0; k < count[2]; ++k)
            for (index_t j = 0; j < count[1]; ++j) {
                ranges.find(j, k);
                for (std::size_t i = 0; i < count[0]; ++i)
                    if (ranges.isListed(i) && !f(i + count[0] * (j + count[1] * k), i)) return false;
            }
        return true;
    };
    const auto width = static_cast<std::size_t>(unigrid.size[0]), height = static_cast<std::size_t>(unigrid.size[1]);
    const auto forEachEntry = [&](auto&& f) {
        forEachCell([&](index_t number, std::size_t cell) {
            std::size_t from[3], to[3];
            for (std::size_t d = 0; d < 3; ++d) {
                from[d] = static_cast<std::size_t>(ranges.first(cell, d));
                to[d] = static_cast<std::size_t>(ranges.last(cell, d));
            }
            for (std::size_t z = from[2]; z <= to[2]; ++z)
                for (std::size_t y = from[1]; y <= to[1]; ++y) {
                    const std::size_t line = width * (y + height * z);
                    for (std::size_t u = line + from[0]; u <= line + to[0]; ++u) f(number, u);
                }
            return true;
        });
    };
    index_t entries = 0;
    const bool areFew = forEachCell([&](index_t, std::size_t cell) {
        index_t unicells = 1;
        for (std::size_t d = 0; d < 3; ++d)
            unicells *= static_cast<index_t>(ranges.last(cell, d) - ranges.first(cell, d)) + 1;
        return (entries += unicells) <= limit;
    });
    if (!areFew) return nullptr;

    // The count of unicell u goes two places further; sums then make it the beginning of u + 1's list one place
    // further, which filling the list of u turns into its own.
    auto lists = std::make_unique<UnicellLists>();
    const auto unicells = static_cast<std::size_t>(unigrid.size.product());
    lists->offsets.assign(unicells + 2, 0);
    std::uint32_t* const counts = lists->offsets.data() + 2;
    forEachEntry([&](index_t, std::size_t u) { ++counts[u]; });
    for (std::size_t u = 0; u < unicells; ++u) counts[u] += lists->offsets[u + 1];
    lists->cells.resize(lists->offsets.back());
    std::uint32_t* const next = lists->offsets.data() + 1;
    std::uint32_t* const entry = lists->cells.data();
    forEachEntry([&](index_t number, std::size_t u) { entry[next[u]++] = static_cast<std::uint32_t>(number); });
    lists->offsets.pop_back();
    return lists;
}

} // namespace Vantle::detail
