#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>
#include <baseop/detail/location/GroupKernels.hpp>
#include <model/hestra/Chunk.hpp>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Vantle::detail {

namespace {

constexpr float infinite = std::numeric_limits<float>::infinity();

} // namespace

CellBoxTree::Shapes::~Shapes() = default;

/// The boxes of groups of a level, by bound: low and high ones on each axis. Not cleared: each is set by the thread
/// that makes its group.
struct CellBoxTree::LevelBoxes {
    std::unique_ptr<float[]> memory;
    float* low[3];
    float* high[3];

    explicit LevelBoxes(std::size_t count) : memory(std::make_unique_for_overwrite<float[]>(6 * count)) {
        Hestra::adviseLargeArray(memory.get(), 6 * count * sizeof(float));
        divide(memory.get(), count);
    }
    /// In memory of another.
    LevelBoxes(float* room, std::size_t count) { divide(room, count); }

private:
    void divide(float* room, std::size_t count) noexcept {
        for (std::size_t d = 0; d < 3; ++d) {
            low[d] = room + 2 * d * count;
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

template<int Edges>
void CellBoxTree::buildGroups(const Shapes& shapes, Detail detail, LevelBoxes& unions) {
    // A piece is what a row of groups of groups has below it: up to four by four rows of groups.
    constexpr std::size_t Side = 4, Arrays = 6 + 3 * Edges;
    const Level& bottom = myLevels[0];
    const std::size_t groups = bottom.size[0], width = 2 * groups, padded = (groups + Side - 1) / Side * Side;
    // Short lines of groups that follow each other in memory are made together.
    const std::size_t mostLines = std::max<std::size_t>(GroupRow::Lanes / groups, 1);
    const std::size_t room = GroupRow::roomForCells(mostLines * groups),
                      boxRoom = GroupRow::roomForBoxes(mostLines * groups);
    const std::size_t perPlane = (bottom.size[1] + Side - 1) / Side,
                      pieces = perPlane * ((bottom.size[2] + Side - 1) / Side);
    // Not much more than a large page of fresh memory at a time: two threads that come to one together both clear it.
    constexpr std::size_t LargePage = std::size_t{1} << 21;
    const std::size_t together =
        std::clamp<std::size_t>(pieces / (8 * teamSize()), 1, LargePage / (Side * Side * groups * sizeof(Bottom)) + 1);
    // What the work amounts to in bytes that are merely read.
    constexpr std::size_t BytesPerGroup = 8 * 512;
    inParallel(pieces, together, bottom.total() * BytesPerGroup, [&](std::size_t begin, std::size_t end) {
        const std::unique_ptr<Shapes> filler = shapes.clone();
        std::vector<float> memory(4 * Arrays * room + 6 * boxRoom + 6 * Side * Side * padded);
        float* next = memory.data();
        Row rows[4] = {};
        for (Row& row : rows) {
            const auto take = [&](float*(&vector)[3]) {
                for (float*& component : vector) component = std::exchange(next, next + room);
            };
            take(row.centre);
            take(row.slack);
            for (int g = 0; g < Edges; ++g) take(row.edge[g]);
        }
        GroupRow made = {rows, 0, {}, {}, {}, nullptr};
        for (std::size_t d = 0; d < 3; ++d) {
            made.least[d] = static_cast<float>(std::min(std::fabs(shapes.leastHalfWidth()[d]) * myScale[d], Farthest));
            made.low[d] = std::exchange(next, next + boxRoom);
            made.high[d] = std::exchange(next, next + boxRoom);
        }
        LevelBoxes boxes(next, Side * Side * padded);
        const auto fromCell = [](Row row, std::size_t cell) {
            for (int d = 0; d < 3; ++d) {
                row.centre[d] += cell;
                row.slack[d] += cell;
                for (int g = 0; g < Edges; ++g) row.edge[g][d] += cell;
            }
            return row;
        };
        unsigned existingBefore = 0;
        for (std::size_t piece = begin; piece < end; ++piece) {
            const auto y = [&](std::size_t line) { return Side * (piece % perPlane) + line % Side; };
            const auto z = [&](std::size_t line) { return Side * (piece / perPlane) + line / Side; };
            const auto number = [&](std::size_t line) { return groups * (y(line) + bottom.size[1] * z(line)); };
            std::size_t lines[Side * Side], count = 0;
            unsigned existing = 0;
            for (std::size_t line = 0; line < Side * Side; ++line) {
                if (y(line) >= bottom.size[1] || z(line) >= bottom.size[2]) continue;
                lines[count++] = line;
                existing |= 1U << line;
            }
            if (existing != std::exchange(existingBefore, existing))
                for (int d = 0; d < 3; ++d) {
                    std::fill_n(boxes.low[d], Side * Side * padded, infinite);
                    std::fill_n(boxes.high[d], Side * Side * padded, -infinite);
                }
            for (std::size_t l = 0; l < count;) {
                const std::size_t* const taken = lines + l;
                std::size_t n = 0;
                for (; l < count && n < mostLines && number(lines[l]) == number(*taken) + n * groups; ++l, ++n)
                    for (std::size_t r = 0; r < 4; ++r) {
                        const std::size_t j = 2 * y(lines[l]) + (r & 1), k = 2 * z(lines[l]) + (r >> 1);
                        const bool exists = j < myCells[1] && k < myCells[2];
                        const Row row = fromCell(rows[r], n * width);
                        if (exists) filler->fill(j, k, row);
                        for (float* const centre : row.centre)
                            std::fill(centre + (exists ? myCells[0] : 0), centre + width,
                                      std::numeric_limits<float>::quiet_NaN());
                    }
                made.groups = n * groups;
                if (detail == Detail::Cells) made.to = reinterpret_cast<unsigned char*>(&myBottom[number(*taken)]);
                makeGroups<Edges>(made);
                for (std::size_t t = 0; t < n; ++t)
                    for (int d = 0; d < 3; ++d) {
                        std::copy_n(made.low[d] + t * groups, groups, boxes.low[d] + taken[t] * padded);
                        std::copy_n(made.high[d] + t * groups, groups, boxes.high[d] + taken[t] * padded);
                    }
            }
            if (myTop == 0) continue;
            const Level& level = myLevels[1];
            for (std::size_t x = 0; x < level.size[0]; ++x)
                setUpper(level, x + level.size[0] * piece, unions, [&](int d, std::size_t m, float& low, float& high) {
                    const std::size_t at = m / Side * padded + Side * x + m % Side;
                    low = boxes.low[d][at];
                    high = boxes.high[d][at];
                });
        }
    });
}

template<class BoxOf>
void CellBoxTree::setUpper(const Level& level, std::size_t group, LevelBoxes& unions, const BoxOf& boxOf) {
    Boxes<Upper::Members> members;
    for (int d = 0; d < 3; ++d) {
        float low = infinite, high = -infinite;
        for (std::size_t m = 0; m < Upper::Members; ++m) {
            boxOf(d, m, members.low[d][m], members.high[d][m]);
            low = std::min(low, members.low[d][m]);
            high = std::max(high, members.high[d][m]);
        }
        unions.low[d][group] = low;
        unions.high[d][group] = high;
    }
    myUpper[level.first + group].assign(members);
}

void CellBoxTree::buildUpper(LevelBoxes& boxes) {
    for (int l = 2; l <= myTop; ++l) {
        const Level& below = myLevels[l - 1];
        const Level& level = myLevels[l];
        LevelBoxes unions(level.total());
        const auto total = static_cast<std::ptrdiff_t>(level.total());
#pragma omp parallel for if (total > 256)
        for (std::ptrdiff_t g = 0; g < total; ++g) {
            const auto group = static_cast<std::size_t>(g);
            const std::size_t x = group % level.size[0], y = group / level.size[0] % level.size[1],
                              z = group / (level.size[0] * level.size[1]);
            setUpper(level, group, unions, [&](int d, std::size_t m, float& low, float& high) {
                const std::size_t i = 4 * x + m % 4, j = 4 * y + m / 4 % 4, k = 4 * z + m / 16;
                const bool exists = i < below.size[0] && j < below.size[1] && k < below.size[2];
                const std::size_t number = exists ? i + below.size[0] * (j + below.size[1] * k) : 0;
                low = exists ? boxes.low[d][number] : infinite;
                high = exists ? boxes.high[d][number] : -infinite;
            });
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
    const std::size_t upper = myTop > 0 ? myLevels[myTop].first + 1 : 0;
    myUpper = std::make_unique_for_overwrite<Upper[]>(upper);
    Hestra::adviseLargeArray(myUpper.get(), upper * sizeof(Upper));
    constexpr std::size_t NearCaches = std::size_t{1} << 20;
    myIsLarge = myLevels[0].total() * sizeof(Bottom) + upper * sizeof(Upper) > NearCaches;
    LevelBoxes boxes(myTop > 0 ? myLevels[1].total() : 0);
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
