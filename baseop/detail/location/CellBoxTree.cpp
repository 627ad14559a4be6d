#include <baseop/detail/location/CellBoxTree.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/hestra/Pulse.hpp>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <omp.h>
#include <stdexcept>

namespace Vantle::detail {

namespace {

constexpr float infinite = std::numeric_limits<float>::infinity();

// That of a difference of two numbers, a little more than half a unit in the last place.
constexpr float DifferenceRounding = 8e-8F;

} // namespace

CellBoxTree::Shapes::~Shapes() = default;

/// The boxes of all groups of a level, by bound: low and high ones on each axis. Not cleared: each is set by the thread
/// that makes its group.
struct CellBoxTree::LevelBoxes {
    std::unique_ptr<float[]> memory;
    float* low[3];
    float* high[3];

    explicit LevelBoxes(std::size_t count) : memory(std::make_unique_for_overwrite<float[]>(6 * count)) {
        Hestra::adviseLargeArray(memory.get(), 6 * count * sizeof(float));
        for (std::size_t d = 0; d < 3; ++d) {
            low[d] = memory.get() + 2 * d * count;
            high[d] = low[d] + count;
        }
    }
};

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
        if (myTop > 0) level.members = 16 * static_cast<int>(std::min<std::size_t>(below[2], 4));
        if (myTop > 0) first += level.total(); // the groups of cells have numbers of their own
        below = level.size;
    } while (below[0] > 1 || below[1] > 1 || below[2] > 1);
}

void CellBoxTree::Upper::assign(const Boxes<Members>& members, std::size_t count) noexcept {
    for (int d = 0; d < 3; ++d) {
        const float* const lows = members.low[d];
        const float* const highs = members.high[d];
        float low = infinite, high = -infinite;
        for (std::size_t m = 0; m < count; ++m) {
            const bool isThere = lows[m] <= highs[m];
            low = std::min(low, isThere ? lows[m] : infinite);
            high = std::max(high, isThere ? highs[m] : -infinite);
        }
        // The largest power of two that keeps the whole within 256 steps; whatever does not fit is clamped.
        const float extent = std::max(high - low, std::numeric_limits<float>::min());
        const std::uint32_t bits = std::bit_cast<std::uint32_t>(256.0F / extent) >> 23;
        exponent[d] = static_cast<std::uint8_t>(std::min(std::max(bits, 1U), 254U));
        const float from = low <= high ? low : 0.0F;
        origin[d] = from;
        const float s = scale(exponent[d]);
        const auto quantize = [&](float x) {
            return static_cast<std::uint8_t>(static_cast<int>(std::min(std::max(0.0F, (x - from) * s), 255.0F)));
        };
        for (std::size_t m = 0; m < count; ++m) {
            const bool isThere = lows[m] <= highs[m];
            bounds[d][0][m] = quantize(isThere ? lows[m] : infinite);
            bounds[d][1][m] = quantize(isThere ? highs[m] : -infinite);
        }
        for (std::size_t m = count; m < Members; ++m) {
            bounds[d][0][m] = 255;
            bounds[d][1][m] = 0;
        }
    }
    exponent[3] = 63; // makes a number of these four bytes that is no denormal, for the processor's sake
}

void CellBoxTree::Upper::boxOf(int member, float (&low)[3], float (&high)[3]) const noexcept {
    for (int d = 0; d < 3; ++d) {
        const float step = 1.0F / scale(exponent[d]);
        const float from = origin[d] + (static_cast<float>(bounds[d][0][member]) - 0.1F) * step;
        const float to = origin[d] + (static_cast<float>(bounds[d][1][member]) + 1.1F) * step;
        low[d] = from - PositionRounding * std::fabs(from);
        high[d] = to + PositionRounding * std::fabs(to);
    }
}

/// The cells of one group, as they lie in rows.
struct CellBoxTree::Members {
    const Row* rows; // those of the group: along j, then along k
    std::size_t first;
    const float* least;

    [[nodiscard]] std::size_t at(int m) const noexcept { return first + static_cast<std::size_t>(m & 1); }
    [[nodiscard]] bool exists(int m) const noexcept {
        const float c = rows[m >> 1].centre[0][at(m)];
        return c == c;
    }

    /// Sets the group from these cells, whose boxes along the axes have the bounds given.
    template<int Edges>
    void assignTo(Bottom& group, const float (&low)[3], const float (&high)[3]) const noexcept;
};

template<int Edges>
void CellBoxTree::Members::assignTo(Bottom& group, const float (&low)[3], const float (&high)[3]) const noexcept {
    // The frame: the sums of the cells' edges, unless they are nearly in a plane.
    double side[3][3] = {};
    float reference[4] = {};
    bool isAny = false;
    for (int m = 0; m < Bottom::Members; ++m) {
        if (!exists(m)) continue;
        const Row& row = rows[m >> 1];
        for (int v = 0; v < 3; ++v)
            for (int d = 0; d < 3; ++d) side[v][d] += row.edge[v][d][at(m)];
        for (int d = 0; d < 3 && !isAny; ++d) reference[d] = row.centre[d][at(m)];
        isAny = true;
    }
    const auto cross = [](const double(&a)[3], const double(&b)[3], double(&c)[3]) {
        for (int d = 0; d < 3; ++d) c[d] = a[(d + 1) % 3] * b[(d + 2) % 3] - a[(d + 2) % 3] * b[(d + 1) % 3];
    };
    const auto squared = [](const double(&a)[3]) { return a[0] * a[0] + a[1] * a[1] + a[2] * a[2]; };
    double toFrame[3][3];
    for (int v = 0; v < 3; ++v) cross(side[(v + 1) % 3], side[(v + 2) % 3], toFrame[v]);
    const double det = side[0][0] * toFrame[0][0] + side[0][1] * toFrame[0][1] + side[0][2] * toFrame[0][2];
    constexpr double smallestPart = 1e-5;
    const bool hasFrame =
        det * det > smallestPart * smallestPart * (squared(side[0]) * squared(side[1]) * squared(side[2]));
    for (int v = 0; v < 3; ++v) {
        for (int d = 0; d < 3; ++d) {
            if (hasFrame) {
                toFrame[v][d] /= det;
            } else {
                side[v][d] = v == d ? static_cast<double>(high[d]) - low[d] : 0.0;
                toFrame[v][d] = v == d ? 1.0 / side[v][d] : 0.0;
            }
        }
    }

    // All boxes in the frame, relative to the reference: those of all cells at once.
    float c[3][Bottom::Members], s[3][Bottom::Members], e[Edges][3][Bottom::Members];
    bool isThere[Bottom::Members];
    for (int r = 0; r < 4; ++r) {
        const auto take = [&](float(&to)[Bottom::Members], const float* row) {
            std::memcpy(&to[2 * r], row + first, 2 * sizeof(float));
        };
        for (int d = 0; d < 3; ++d) {
            take(c[d], rows[r].centre[d]);
            take(s[d], rows[r].slack[d]);
            for (int g = 0; g < Edges; ++g) take(e[g][d], rows[r].edge[g][d]);
        }
    }
    for (int m = 0; m < Bottom::Members; ++m) isThere[m] = c[0][m] == c[0][m];
    float from[3][Bottom::Members], to[3][Bottom::Members], lowest[3], highest[3];
    bool areNumbers = true;
    for (int v = 0; v < 3; ++v) {
        float map[3], absolute[3], least1 = 0.0F, margin = 0.0F;
        for (int d = 0; d < 3; ++d) {
            map[d] = static_cast<float>(toFrame[v][d]);
            absolute[d] = std::fabs(map[d]);
            least1 += absolute[d] * least[d];
            margin += absolute[d] * (ProductRounding * (high[d] - low[d]) +
                                     PositionRounding * std::max(std::fabs(low[d]), std::fabs(high[d])));
        }
        float half[Bottom::Members] = {};
        for (int g = 0; g < Edges; ++g)
            for (int m = 0; m < Bottom::Members; ++m)
                half[m] += std::fabs(map[0] * e[g][0][m] + map[1] * e[g][1][m] + map[2] * e[g][2][m]);
        for (int m = 0; m < Bottom::Members; ++m) {
            const float centre = map[0] * (c[0][m] - reference[0]) + map[1] * (c[1][m] - reference[1]) +
                                 map[2] * (c[2][m] - reference[2]);
            const float slack = margin + (absolute[0] * s[0][m] + absolute[1] * s[1][m] + absolute[2] * s[2][m]);
            const float width = (half[m] < least1 ? least1 : half[m]) + slack;
            from[v][m] = centre - width;
            to[v][m] = centre + width;
        }
        lowest[v] = infinite;
        highest[v] = -infinite;
        for (int m = 0; m < Bottom::Members; ++m) {
            lowest[v] = isThere[m] ? std::min(lowest[v], from[v][m]) : lowest[v];
            highest[v] = isThere[m] ? std::max(highest[v], to[v][m]) : highest[v];
            areNumbers &= (!isThere[m]) | ((from[v][m] == from[v][m]) & (to[v][m] == to[v][m]));
        }
    }

    // Steps along the frame, from an origin that is rounded first.
    double perUnit[3], corner[3] = {};
    bool isFinite = isAny && areNumbers;
    for (int v = 0; v < 3; ++v) {
        perUnit[v] = static_cast<double>(Bottom::StepCount) / (static_cast<double>(highest[v]) - lowest[v]);
        isFinite = isFinite && perUnit[v] > 0.0 && perUnit[v] < 1e30;
        for (int d = 0; d < 3; ++d)
            corner[d] += side[v][d] * (static_cast<double>(lowest[v]) - Bottom::FirstStep / perUnit[v]);
    }
    for (int d = 0; d < 3; ++d) {
        group.origin[d] = static_cast<float>(reference[d] + corner[d]);
        isFinite = isFinite && std::fabs(group.origin[d]) < 1e30F;
        // Differences to a far origin would be rounded by more than the margin: of a group with some far vertices the
        // frame may begin far away from all of its cells.
        const float reach = std::max(std::fabs(low[d]), std::fabs(high[d]));
        isFinite = isFinite && DifferenceRounding * (std::fabs(group.origin[d]) + reach) <=
                                   PositionRounding * reach + 0.5F * ProductRounding * (high[d] - low[d]);
    }
    double shift[3] = {};
    for (int v = 0; v < 3; ++v)
        for (int d = 0; d < 3; ++d) {
            group.column[d][v] = static_cast<float>(toFrame[v][d] * perUnit[v]);
            isFinite = isFinite && std::fabs(group.column[d][v]) < 1e30F;
            shift[v] += toFrame[v][d] * (static_cast<double>(group.origin[d]) - reference[d]);
            isFinite = isFinite && std::fabs(shift[v]) < 1e30;
        }
    if (!isFinite) {
        // Out of the range of numbers: the cells may be anywhere.
        for (int d = 0; d < 3; ++d) {
            group.origin[d] = 0.0F;
            for (int v = 0; v < 3; ++v) group.column[d][v] = 0.0F;
            for (int m = 0; m < Bottom::Members; ++m) {
                group.bounds[d][0][m] = isThere[m] ? 0 : 255;
                group.bounds[d][1][m] = isThere[m] ? 255 : 0;
            }
        }
        return;
    }
    for (int v = 0; v < 3; ++v) {
        const auto scale = static_cast<float>(perUnit[v]), offset = static_cast<float>(shift[v]);
        constexpr float Widening = 0.05F;
        int steps[2][Bottom::Members];
        for (int m = 0; m < Bottom::Members; ++m) {
            const float lower = (from[v][m] - offset) * scale - Widening,
                        upper = (to[v][m] - offset) * scale + Widening;
            // Cells that are not there may have any numbers, or none.
            steps[0][m] = static_cast<int>(isThere[m] ? std::min(lower > 0.0F ? lower : 0.0F, 255.0F) : 255.0F);
            steps[1][m] = static_cast<int>(isThere[m] ? std::min(upper > 0.0F ? upper : 0.0F, 255.0F) : 0.0F);
        }
        for (int bound = 0; bound < 2; ++bound)
            for (int m = 0; m < Bottom::Members; ++m)
                group.bounds[v][bound][m] = static_cast<std::uint8_t>(steps[bound][m]);
    }
}

template<int Edges>
void CellBoxTree::buildGroups(const Shapes& shapes, Detail detail, LevelBoxes& boxes) {
    // One filler, and four rows of cells filled up to whole groups, for each thread.
    constexpr std::size_t Arrays = 6 + 3 * Edges;
    struct Worker {
        std::unique_ptr<Shapes> shapes;
        std::vector<float> memory, bounds;
        Row rows[4];
    };
    const Level& bottom = myLevels[0];
    const std::size_t width = 2 * bottom.size[0];
    std::vector<Worker> workers(static_cast<std::size_t>(std::max(omp_get_max_threads(), 1)));
    for (Worker& worker : workers) {
        worker.shapes = shapes.clone();
        worker.memory.resize(4 * roomFor(width) * Arrays);
        worker.bounds.resize(2 * width); // low and high ones of one axis
        float* next = worker.memory.data();
        const auto take = [&](float*(&vector)[3]) {
            for (float*& component : vector) {
                component = next;
                next += roomFor(width);
            }
        };
        for (Row& row : worker.rows) {
            take(row.centre);
            take(row.slack);
            for (int g = 0; g < Edges; ++g) take(row.edge[g]);
        }
    }
    float least[3];
    for (int d = 0; d < 3; ++d)
        least[d] = static_cast<float>(std::min(std::fabs(shapes.leastHalfWidth()[d]) * myScale[d], Farthest));

    const auto planes = static_cast<std::ptrdiff_t>(bottom.size[2]);
    // Whole large pages of fresh memory for each: two threads that reach one at the same time both clear it.
    constexpr std::size_t LargePage = std::size_t{1} << 21;
    const std::size_t perPage = LargePage / (bottom.size[0] * bottom.size[1] * sizeof(Bottom)) + 1;
    const auto together =
        static_cast<std::ptrdiff_t>(std::clamp<std::size_t>(bottom.size[2] / (2 * workers.size()), 1, perPage));
    std::atomic<bool> isEnded{false};
#pragma omp parallel for schedule(dynamic, together) num_threads(static_cast <int>(workers.size()))
    for (std::ptrdiff_t plane = 0; plane < planes; ++plane) {
        if (isEnded.load(std::memory_order_relaxed)) continue;
        try {
            Hestra::Pulse::beat(static_cast<double>(plane) / static_cast<double>(planes));
        } catch (const Hestra::Interruption&) { // which may not leave the region
            isEnded = true;
            continue;
        }
        Worker& worker = workers[static_cast<std::size_t>(omp_get_thread_num())];
        const auto z = static_cast<std::size_t>(plane);
        for (std::size_t y = 0; y < bottom.size[1]; ++y) {
            for (std::size_t r = 0; r < 4; ++r) {
                const Row& row = worker.rows[r];
                const std::size_t j = 2 * y + (r & 1), k = 2 * z + (r >> 1);
                const bool exists = j < myCells[1] && k < myCells[2];
                if (exists) worker.shapes->fill(j, k, row);
                constexpr float nan = std::numeric_limits<float>::quiet_NaN();
                for (int d = 0; d < 3; ++d)
                    std::fill(row.centre[d] + (exists ? myCells[0] : 0), row.centre[d] + width, nan);
            }
            const std::size_t first = bottom.size[0] * (y + bottom.size[1] * z);
            for (int d = 0; d < 3; ++d) {
                float* const lows = worker.bounds.data();
                float* const highs = lows + width;
                std::fill(lows, highs, infinite);
                std::fill(highs, highs + width, -infinite);
                for (const Row& row : worker.rows) {
                    for (std::size_t i = 0; i < width; ++i) {
                        float half = 0.0F;
                        for (int g = 0; g < Edges; ++g) half += std::fabs(row.edge[g][d][i]);
                        const float centre = row.centre[d][i];
                        half = std::max(half, least[d]) * (1.0F + ProductRounding) + row.slack[d][i];
                        half += PositionRounding * (std::fabs(centre) + half);
                        constexpr auto farthest = static_cast<float>(Farthest);
                        // A NaN is on the right, where it has no effect.
                        lows[i] = std::min(lows[i], std::max(centre - half, -farthest));
                        highs[i] = std::max(highs[i], std::min(centre + half, farthest));
                    }
                }
                for (std::size_t g = 0; g < bottom.size[0]; ++g) {
                    boxes.low[d][first + g] = std::min(lows[2 * g], lows[2 * g + 1]);
                    boxes.high[d][first + g] = std::max(highs[2 * g], highs[2 * g + 1]);
                }
            }
            if (detail == Detail::Groups) continue;
            for (std::size_t g = 0; g < bottom.size[0]; ++g) {
                const float low[3] = {boxes.low[0][first + g], boxes.low[1][first + g], boxes.low[2][first + g]};
                const float high[3] = {boxes.high[0][first + g], boxes.high[1][first + g], boxes.high[2][first + g]};
                Members{worker.rows, 2 * g, least}.assignTo<Edges>(myBottom[first + g], low, high);
            }
        }
    }
    if (isEnded) throw Hestra::Interruption();
}

void CellBoxTree::buildUpper(LevelBoxes& boxes) {
    for (int l = 1; l <= myTop; ++l) {
        const Level& below = myLevels[l - 1];
        const Level& level = myLevels[l];
        LevelBoxes unions(level.total());
        const auto total = static_cast<std::ptrdiff_t>(level.total());
#pragma omp parallel for if (total > 256)
        for (std::ptrdiff_t g = 0; g < total; ++g) {
            const auto group = static_cast<std::size_t>(g);
            const std::size_t x = group % level.size[0], y = group / level.size[0] % level.size[1],
                              z = group / (level.size[0] * level.size[1]);
            Boxes<Upper::Members> members;
            for (int d = 0; d < 3; ++d) {
                float low = infinite, high = -infinite;
                for (std::size_t m = 0; m < Upper::Members; ++m) {
                    const std::size_t i = 4 * x + m % 4, j = 4 * y + m / 4 % 4, k = 4 * z + m / 16;
                    const bool exists = i < below.size[0] && j < below.size[1] && k < below.size[2];
                    const std::size_t number = exists ? i + below.size[0] * (j + below.size[1] * k) : 0;
                    members.low[d][m] = exists ? boxes.low[d][number] : infinite;
                    members.high[d][m] = exists ? boxes.high[d][number] : -infinite;
                    low = std::min(low, members.low[d][m]);
                    high = std::max(high, members.high[d][m]);
                }
                unions.low[d][group] = low;
                unions.high[d][group] = high;
            }
            myUpper[level.first + group].assign(members);
        }
        boxes = std::move(unions);
    }
}

void CellBoxTree::build(const Shapes& shapes, Detail detail) {
    if (myTop < 0) return;
    if (detail == Detail::Cells) {
        // Not cleared: each group is set by the thread that makes it.
        myBottom = std::make_unique_for_overwrite<Bottom[]>(myLevels[0].total());
        Hestra::adviseLargeArray(myBottom.get(), myLevels[0].total() * sizeof(Bottom));
    }
    if (myTop > 0) myUpper.resize(myLevels[myTop].first + 1);
    constexpr std::size_t NearCaches = std::size_t{1} << 20;
    myIsLarge = myLevels[0].total() * sizeof(Bottom) + myUpper.size() * sizeof(Upper) > NearCaches;
    LevelBoxes boxes(myLevels[0].total());
    if (shapes.edges() == 3)
        buildGroups<3>(shapes, detail, boxes);
    else
        buildGroups<7>(shapes, detail, boxes);
    buildUpper(boxes);
}

bool CellBoxTree::gather(Surroundings& surroundings, std::span<const point> points, Reach reach) const {
    surroundings.myCount = 0;
    if (myTop < 0) return true;
    point lowest = points[0], highest = points[0];
    for (const point& p : points)
        for (int d = 0; d < 3; ++d) {
            lowest[d] = std::min(lowest[d], p[d]);
            highest[d] = std::max(highest[d], p[d]);
        }
    float low[4] = {}, high[4] = {};
    for (int d = 0; d < 3; ++d) {
        low[d] = toFloat(lowest[d], d);
        high[d] = toFloat(highest[d], d);
    }
    const int level = surroundings.myLevel = reach == Reach::Groups ? 0 : std::min(1, myTop);
    Boxes<Upper::Members> boxes;
    int count = 0;
    const auto take = [&](const Place& place) {
        if (count == Surroundings::Capacity) return false;
        float from[3] = {-static_cast<float>(Farthest), -static_cast<float>(Farthest), -static_cast<float>(Farthest)};
        float to[3] = {static_cast<float>(Farthest), static_cast<float>(Farthest), static_cast<float>(Farthest)};
        if (myTop > level) {
            const auto member = static_cast<int>(place.at[0] % 4 + 4 * (place.at[1] % 4) + 16 * (place.at[2] % 4));
            const Place parent{{place.at[0] / 4, place.at[1] / 4, place.at[2] / 4}};
            myUpper[number(level + 1, parent)].boxOf(member, from, to);
        }
        for (int d = 0; d < 3; ++d) {
            // Bounds outside of the box are all the same; steps are finer without them.
            boxes.low[d][count] = std::max(from[d], low[d]);
            boxes.high[d][count] = std::min(to[d], high[d]);
        }
        const bool hasCells = level == 0 && myBottom;
        surroundings.myGroups[count++] = {hasCells ? &myBottom[number(0, place)] : nullptr, place};
        return true;
    };
    const bool isAll = forEachGroupBelow(myTop, {{0, 0, 0}}, level, low, high, take);
    surroundings.myCount = count;
    if (isAll) surroundings.myBoxes.assign(boxes, static_cast<std::size_t>(count));
    return isAll;
}

bool CellBoxTree::isFree(const Region& region) const {
    return forEachGroupMeeting(region, nullptr,
                               [&](const Place& place) { return myBottom[number(0, place)].membersIn(region) == 0; });
}

bool CellBoxTree::gather(Rivals& rivals, const Region& region, index_t end, const Surroundings* surroundings) const {
    rivals.myCount = 0;
    return forEachGroupMeeting(region, surroundings, [&](const Place& place) {
        const Place lowest = place.member<2>(0);
        const auto numberOf = [&](unsigned m) {
            return lowest.at[0] + (m & 1U) +
                   myCells[0] * (lowest.at[1] + (m >> 1 & 1U) + myCells[1] * (lowest.at[2] + (m >> 2)));
        };
        if (numberOf(0) >= end) return true;
        const Bottom& group = myBottom[number(0, place)];
        unsigned members = 0;
        for (unsigned mask = group.membersIn(region); mask; mask &= mask - 1)
            if (numberOf(static_cast<unsigned>(std::countr_zero(mask))) < end) members |= mask & -mask;
        if (members == 0) return true;
        if (rivals.myCount == Rivals::Capacity) return false;
        rivals.myGroups[rivals.myCount++] = {&group, place, members};
        return true;
    });
}

bool CellBoxTree::Rivals::leaveFree(const Region& part) const noexcept {
    for (int r = 0; r < myCount; ++r)
        if ((myGroups[r].members & myGroups[r].group->membersIn(part)) != 0) return false;
    return true;
}

/// Which points are to be looked for in which groups, in the order of the points.
struct CellBoxTree::Pairs {
    static constexpr std::size_t Capacity = 512;
    struct Pair {
        std::uint32_t point;
        Place lowestCell;
        const Bottom* group;
    };
    Pair all[Capacity];
    std::size_t count = 0;
};

bool CellBoxTree::pairNeighbours(std::span<const point> points, const float (*x)[4], Pairs& pairs) const {
    Surroundings surroundings;
    if (!gather(surroundings, points)) return false;
    for (std::size_t n = 0; n < points.size(); ++n) {
        if (pairs.count + Surroundings::Capacity + 2 > Pairs::Capacity) return false;
        auto mask = surroundings.myBoxes.membersIn(x[n], x[n], surroundings.myCount);
        // Mostly there are one or two: both are written anyhow, and counted if they are there.
        do {
            for (int g = 0; g < 2; ++g) {
                const auto& near = surroundings.myGroups[std::countr_zero(mask) % Surroundings::Capacity];
                pairs.all[pairs.count] = {static_cast<std::uint32_t>(n), near.place.member<2>(0), near.group};
                pairs.count += mask != 0 ? 1 : 0;
                mask &= mask - 1;
            }
        } while (mask);
    }
    return true;
}

bool CellBoxTree::pairScattered(std::size_t count, const float (*x)[4], Pairs& pairs) const {
    // All points go down together, so that what each needs next is on its way while the others are looked at.
    struct Visit {
        std::uint32_t point;
        Place place;
    };
    Visit visits[2][Pairs::Capacity];
    Visit* now = visits[0];
    Visit* below = visits[1];
    for (std::size_t n = 0; n < count; ++n) now[n] = {static_cast<std::uint32_t>(n), {{0, 0, 0}}};
    for (int level = myTop; level > 0; --level) {
        std::size_t found = 0;
        for (std::size_t v = 0; v < count; ++v) {
            const auto& at = x[now[v].point];
            for (auto mask = membersIn(level, now[v].place, at, at); mask; mask &= mask - 1) {
                if (found == Pairs::Capacity) return false;
                below[found] = {now[v].point, now[v].place.template member<4>(std::countr_zero(mask))};
                prefetch(level - 1, below[found++].place);
            }
        }
        std::swap(now, below);
        count = found;
    }
    for (std::size_t v = 0; v < count; ++v)
        pairs.all[v] = {now[v].point, now[v].place.template member<2>(0), &myBottom[number(0, now[v].place)]};
    pairs.count = count;
    return true;
}

bool CellBoxTree::areNear(const float (*x)[4], std::size_t count) const noexcept {
    // Groups are about as large as if they were spread evenly.
    float groups = static_cast<float>(myLevels[0].total());
    for (int d = 0; d < 3; ++d) {
        float low = x[0][d], high = low;
        for (std::size_t n = 1; n < count; ++n) {
            low = std::min(low, x[n][d]);
            high = std::max(high, x[n][d]);
        }
        groups *= high - low;
    }
    return groups < static_cast<float>(4 * Surroundings::Capacity);
}

bool CellBoxTree::match(std::span<const point> points, Matches& matches) const {
    if (myTop < 0) return false;
    float x[Matches::MaximalPoints][4];
    for (std::size_t n = 0; n < points.size(); ++n) {
        for (int d = 0; d < 3; ++d) x[n][d] = toFloat(points[n][d], d);
        x[n][3] = 0.0F;
    }
    Pairs pairs;
    matches.myAreScattered = !areNear(x, points.size()) || !pairNeighbours(points, x, pairs);
    if (matches.myAreScattered && !pairScattered(points.size(), x, pairs)) return false;

    unsigned char cells[Pairs::Capacity];
    for (std::size_t p = 0; p < pairs.count; ++p)
        cells[p] = static_cast<unsigned char>(pairs.all[p].group->membersAt(x[pairs.all[p].point]));

    std::size_t count = 0, pair = 0;
    for (std::size_t n = 0; n < points.size(); ++n) {
        const std::size_t first = count;
        matches.myFirst[n] = static_cast<std::uint16_t>(count);
        for (; pair < pairs.count && pairs.all[pair].point == n; ++pair) {
            if (count + Bottom::Members > Matches::Capacity) return false;
            const Place& lowest = pairs.all[pair].lowestCell;
            // Mostly there is one or none: written anyhow, and counted if it is there.
            unsigned mask = cells[pair];
            do {
                const auto m = static_cast<std::uint32_t>(std::countr_zero(mask | 0x100U));
                const std::uint32_t i = lowest.at[0] + (m & 1), j = lowest.at[1] + (m >> 1 & 1),
                                    k = lowest.at[2] + (m >> 2 & 1);
                matches.myCells[count] = {{i + myCells[0] * (j + myCells[1] * k), i, j, k},
                                          static_cast<std::uint32_t>(n)};
                count += mask != 0 ? 1 : 0;
                mask &= mask - 1;
            } while (mask);
        }
        for (std::size_t c = first + 1; c < count; ++c)
            for (std::size_t at = c; at > first && matches.myCells[at - 1].number > matches.myCells[at].number; --at)
                std::swap(matches.myCells[at - 1], matches.myCells[at]);
    }
    matches.myFirst[points.size()] = static_cast<std::uint16_t>(count);
    matches.myCount = count;
    return true;
}

} // namespace Vantle::detail
