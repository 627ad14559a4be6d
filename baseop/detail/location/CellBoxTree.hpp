#pragma once
/// Which cells of a block may have a point: a hierarchy over the cells' indices.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Index.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Vantle::detail {

/// A cell by its place in the block.
struct CellOfBlock {
    index_t number; // i fastest
    std::uint32_t i, j, k;
    [[nodiscard]] MultiIndex<3> index() const noexcept { return {i, j, k}; }
};

/// Sets of points that belong to the cells of a block, one a cell, found by point.
///
/// Cells are gathered in groups of 2 x 2 x 2 neighbours, groups in groups of 4 x 4 x 4, and so on: what are neighbours
/// in the block mostly are so in space, and nothing is sorted. A group of cells has their boxes in a frame of its own,
/// along its edges, where the boxes of skewed and thin cells hardly overlap; groups of groups have boxes along the
/// axes. All of them are in bytes, so that a few vector operations test them all.
///
/// A search reports every cell whose set has the point, and some whose set nearly has it.
///
/// Concurrency  searches may come from any number of threads once the tree is built.
/// Cost         about 13 bytes a cell, or one without the groups of cells. A search looks at one to three groups a
///              level, all groups of a level at the same time, and there are few levels: four for a hundred cells an
///              axis.
class CellBoxTree {
public:
    using point = Orvix::PhysicalSpace::point;

    /// Rows may be read and written in vectors of up to so many numbers.
    static constexpr std::size_t RowLanes = 8;
    /// The room that `count` numbers need, and one more behind them, when they are.
    [[nodiscard]] static constexpr std::size_t roomFor(std::size_t count) noexcept {
        return (count + 2 * RowLanes - 1) / RowLanes * RowLanes;
    }
    /// Whatever is farther away counts as so far: all bounds are numbers.
    static constexpr double Farthest = 1e30;

    /// The sets of the cells of one row: centre + sum over g of t_g edge_g, |t_g| <= 1, widened by `slack` along each
    /// axis; all relative to the tree's scale. A centre of NaN makes an empty set. There is `roomFor` them.
    struct Row {
        static constexpr int MaximalEdges = 7;
        float* centre[3];
        float* edge[MaximalEdges][3]; // of which the first three span the cell
        float* slack[3];
    };

    /// Says what the sets are, one row of cells after the other.
    class Shapes {
    public:
        Shapes() = default;
        virtual ~Shapes();
        /// How many edges there are, 3 or 7.
        [[nodiscard]] virtual int edges() const noexcept = 0;
        /// Every set has the points that are so near to its centre along all axes.
        [[nodiscard]] virtual Orvix::PhysicalSpace::vector leastHalfWidth() const noexcept { return {}; }
        /// Writes the sets of the cells (0, j, k), (1, j, k) ...
        virtual void fill(std::size_t j, std::size_t k, const Row& row) = 0;
        /// A copy for another thread.
        [[nodiscard]] virtual std::unique_ptr<Shapes> clone() const = 0;

    protected:
        Shapes(const Shapes&) = default;
        Shapes& operator=(const Shapes&) = default;
    };

    /// Whether searches tell cells, or groups of cells only.
    enum class Detail { Cells, Groups };

    /// The points centre + sum over g of t_g edge_g, |t_g| <= 1.
    struct Part {
        point centre;
        Orvix::PhysicalSpace::vector edge[3];
    };
    /// The same relative to the tree's scale.
    struct Region {
        float centre[3];
        float edge[3][3];
    };
    [[nodiscard]] Region regionOf(const Part& part) const noexcept {
        Region region;
        for (int d = 0; d < 3; ++d) {
            region.centre[d] = toFloat(part.centre[d], d);
            for (int g = 0; g < 3; ++g) region.edge[g][d] = static_cast<float>(part.edge[g][d] * myScale[d]);
        }
        return region;
    }

    /// Several times the rounding of a number of the tree to float, and that of sums of three products.
    static constexpr float PositionRounding = 3e-7F, ProductRounding = 2e-6F;

    CellBoxTree() = default;

    /// For points between the corners of a box. `cells` is how many on each axis, less than 2^32 - 1.
    CellBoxTree(const MultiIndex<3>& cells, const point& lowest, const point& highest);

    /// A world coordinate as the tree sees it; monotonic.
    [[nodiscard]] float toFloat(double x, int axis) const noexcept {
        const double scaled = (x - myOrigin[axis]) * myScale[axis];
        return static_cast<float>(std::min(std::max(scaled, -Farthest), Farthest));
    }
    /// The world coordinate that it sees as 0.
    [[nodiscard]] double origin(int axis) const noexcept { return myOrigin[axis]; }
    /// Factor from world lengths to those of the tree.
    [[nodiscard]] double scale(int axis) const noexcept { return myScale[axis]; }

    /// Builds the tree, once, in parallel.
    void build(const Shapes& shapes, Detail detail = Detail::Cells);

    /// Calls `f(i, j, k)` for the cells that may have `P`, which has no NaN; in no particular order. Before that, and
    /// as soon as may be, `prepare(i, j, k)` for the lowest cell of each group of 2 x 2 x 2 that is looked into.
    template<class F, class Prepare>
    void forEachAt(const point& P, F&& f, Prepare&& prepare) const;
    /// Calls `f(i, j, k)` for the lowest cell of groups of up to 2 x 2 x 2 cells that may have `P`.
    template<class F>
    void forEachGroupAt(const point& P, F&& f) const;

private:
    /// Boxes by axis, of which those with bounds the wrong way round are empty.
    template<std::size_t N>
    struct Boxes {
        float low[3][N], high[3][N];
    };

    /// A point in steps of a group, on three axes.
    struct Steps;

    /// The boxes of up to 4 x 4 x 4 members, the first axis fastest, along the axes.
    struct alignas(64) Upper {
        static constexpr int Members = 64;

        float origin[3];
        std::uint8_t exponent[4]; // of the scale, a power of two, biased as in a float
        /// By axis: lower bounds of all members, then upper bounds.
        std::uint8_t bounds[3][2][Members];

        [[nodiscard]] static float scale(std::uint8_t biased) noexcept {
            return std::bit_cast<float>(std::uint32_t{biased} << 23);
        }
        /// Sets the group from boxes of the first `count` members; others are empty.
        void assign(const Boxes<Members>& members, std::size_t count = Members) noexcept;
        /// Bit m is set when member m, one of the first `count`, may meet the box between two points.
        [[nodiscard]] std::uint64_t membersIn(const float (&low)[4], const float (&high)[4], int count) const noexcept;
        /// A box around that of a member.
        void boxOf(int member, float (&low)[3], float (&high)[3]) const noexcept;
    };

    /// The sets of up to 2 x 2 x 2 cells, in boxes along the edges of the group.
    struct alignas(32) Bottom {
        static constexpr int Members = 8;

        float origin[3];
        float column[3][3]; // of the map from points relative to the origin to steps
        std::uint8_t bounds[3][2][Members];

        /// Bit m is set when cell m may have the point.
        [[nodiscard]] unsigned membersAt(const float (&x)[4]) const noexcept;
        /// Bit m is set when cell m may have a point of the region.
        [[nodiscard]] unsigned membersIn(const Region& region) const noexcept;

    private:
        // A region reaches a little farther than its steps, by more than rounding makes of them.
        static constexpr float RegionFactor = 1.0F + ProductRounding, RegionWidening = 0.25F;
        [[nodiscard]] float regionRounding(const Region& region, int axis) const noexcept {
            return 2.0F * PositionRounding * (std::fabs(region.centre[axis]) + std::fabs(origin[axis]));
        }
    };
    static_assert(sizeof(Bottom) == 96);

    /// Groups of one level: 0 is that of the groups of cells.
    struct Level {
        std::size_t first = 0; // number of its first group
        std::size_t size[3] = {};
        int members = 0; // of a group above the groups of cells: none is beyond
        [[nodiscard]] std::size_t total() const noexcept { return size[0] * size[1] * size[2]; }
    };
    static constexpr int MaximalLevels = 17;

    /// Where a group, or a cell, is on its level.
    struct Place {
        std::uint32_t at[3];
        template<int Side>
        [[nodiscard]] Place member(int m) const noexcept {
            constexpr int bits = Side == 2 ? 1 : 2;
            const auto number = static_cast<std::uint32_t>(m);
            return {{at[0] * Side + number % Side, at[1] * Side + (number >> bits) % Side,
                     at[2] * Side + (number >> (2 * bits))}};
        }
    };

public:
    /// The groups of one level near a box, gathered once for many points in it.
    class Surroundings {
    private:
        friend class CellBoxTree;
        static constexpr int Capacity = Upper::Members;
        Upper myBoxes;
        int myCount = 0, myLevel = 0;
        struct {
            const Bottom* group; // null but for groups of cells, where searches tell cells
            Place place;
        } myGroups[Capacity];
    };
    /// The cells before a number that may have a point of a region: groups of cells, and which of each.
    class Rivals {
    public:
        /// Whether none of them has a point of a part of the region.
        [[nodiscard]] bool leaveFree(const Region& part) const noexcept;

    private:
        friend class CellBoxTree;
        static constexpr int Capacity = 16;
        struct {
            const Bottom* group;
            Place place;
            unsigned members;
        } myGroups[Capacity];
        int myCount = 0;
    };
    /// The cells that may have each of a few points.
    class Matches {
    public:
        static constexpr std::size_t MaximalPoints = 64;
        struct Cell : CellOfBlock {
            std::uint32_t point; // number of the point
        };
        /// Those of point number n, in order.
        [[nodiscard]] std::span<const Cell> of(std::size_t n) const noexcept {
            return {myCells + myFirst[n], static_cast<std::size_t>(myFirst[n + 1] - myFirst[n])};
        }
        /// Those of all points, one after the other.
        [[nodiscard]] std::span<const Cell> all() const noexcept { return {myCells, myCount}; }
        /// Whether the points were far from each other, and so are the cells in memory.
        [[nodiscard]] bool areScattered() const noexcept { return myAreScattered; }
        static constexpr std::size_t Capacity = 256;

    private:
        friend class CellBoxTree;
        std::size_t myCount = 0;
        bool myAreScattered = false;
        std::uint16_t myFirst[MaximalPoints + 1];
        Cell myCells[Capacity];
    };
    /// What is gathered: groups of cells, or groups of those, for a box of many cells.
    enum class Reach { Groups, GroupsOfGroups };
    /// Gathers the groups near the box of some points, which have no NaN. False when there are too many of them: points
    /// are then looked for one by one.
    [[nodiscard]] bool gather(Surroundings& surroundings, std::span<const point> points,
                              Reach reach = Reach::Groups) const;
    /// Finds the cells for up to `MaximalPoints` such points; false when there are too many. Each stage is done for all
    /// points before the next, since searches one by one spend their time waiting for their own results.
    [[nodiscard]] bool match(std::span<const point> points, Matches& matches) const;
    /// Whether no cell has a point of a region, in a tree that tells cells.
    [[nodiscard]] bool isFree(const Region& region) const;
    /// Calls `f(i, j, k)` for the lowest cell of groups of up to 2 x 2 x 2 cells that may have a point of a region, as
    /// long as it returns true; false if it does not, or if it cannot be said.
    template<class F>
    bool forEachGroupNear(const Region& region, F&& f) const;
    /// Gathers the rivals with numbers below `end`, in a tree that tells cells; false when there are too many. Of a
    /// region that surroundings are given for, the points in the box that these were gathered for count.
    [[nodiscard]] bool gather(Rivals& rivals, const Region& region, index_t end,
                              const Surroundings* surroundings) const;
    /// Sends for the groups that the cells next to one, and that one, are in.
    void prefetchAbout(const MultiIndex<3>& cell) const noexcept {
        std::uint32_t from[3], to[3];
        for (int d = 0; d < 3; ++d) {
            from[d] = static_cast<std::uint32_t>((std::max<index_t>(cell[d], 1) - 1) / 2);
            to[d] = static_cast<std::uint32_t>(std::min<std::size_t>((cell[d] + 1) / 2, myLevels[0].size[d] - 1));
        }
        for (std::uint32_t k = from[2]; k <= to[2]; ++k)
            for (std::uint32_t j = from[1]; j <= to[1]; ++j)
                for (std::uint32_t i = from[0]; i <= to[0]; ++i) prefetch(0, {{i, j, k}});
    }
    /// As `forEachAt`, of rivals and for points of their region.
    template<class F>
    void forEachAt(const Rivals& rivals, const point& P, F&& f) const;
    /// As `forEachAt` and `forEachGroupAt`, for points in the box that the surroundings were gathered for.
    template<class F>
    void forEachAt(const Surroundings& surroundings, const point& P, F&& f) const;
    template<class F>
    void forEachGroupAt(const Surroundings& surroundings, const point& P, F&& f) const;

private:
    [[nodiscard]] std::size_t number(int level, const Place& place) const noexcept {
        const Level& l = myLevels[level];
        return l.first + place.at[0] + l.size[0] * (place.at[1] + l.size[1] * place.at[2]);
    }
    [[nodiscard]] bool isThere(int level, const Place& place) const noexcept {
        const std::size_t(&size)[3] = myLevels[level].size;
        return place.at[0] < size[0] && place.at[1] < size[1] && place.at[2] < size[2];
    }
    [[nodiscard]] std::uint64_t membersIn(int level, const Place& place, const float (&low)[4],
                                          const float (&high)[4]) const noexcept {
        return myUpper[number(level, place)].membersIn(low, high, myLevels[level].members);
    }
    void prefetch([[maybe_unused]] int level, [[maybe_unused]] const Place& place) const noexcept {
#if defined(__GNUC__)
        if (!myIsLarge) return;
        const auto send = [](const void* object, std::size_t size) {
            for (std::size_t byte = 0; byte < size; byte += 64)
                __builtin_prefetch(static_cast<const char*>(object) + byte);
        };
        if (level != 0)
            send(&myUpper[number(level, place)], sizeof(Upper));
        else if (myBottom)
            send(&myBottom[number(0, place)], sizeof(Bottom));
#endif
    }
    /// Calls `f` for cells of a group of cells.
    template<class F>
    void visit(const Place& place, const float (&x)[4], F& f) const {
        visit(myBottom[number(0, place)].membersAt(x), place, f);
    }
    template<class F>
    static void visit(unsigned members, const Place& place, F& f) {
        const Place lowestCell = place.member<2>(0);
        for (unsigned mask = members; mask; mask &= mask - 1) {
            const auto m = static_cast<std::uint32_t>(std::countr_zero(mask));
            f(lowestCell.at[0] + (m & 1), lowestCell.at[1] + (m >> 1 & 1), lowestCell.at[2] + (m >> 2));
        }
    }
    /// Calls `f(place)` for the groups of cells that may meet a box, as long as it returns true; false if it does not.
    template<class F>
    bool forEachGroupIn(const float (&low)[4], const float (&high)[4], F&& f) const {
        return myTop < 0 || forEachGroupBelow(myTop, {{0, 0, 0}}, 0, low, high, f);
    }
    /// The same for those among surroundings.
    template<class F>
    bool forEachGroupIn(const Surroundings& surroundings, const float (&low)[4], const float (&high)[4], F&& f) const;
    /// The same below a group of level `top`, or for that group itself: for the groups of level `last`.
    template<class F>
    bool forEachGroupBelow(int top, const Place& start, int last, const float (&low)[4], const float (&high)[4],
                           F& f) const;
    /// The same for those that may meet a region; false, too, when that is too far away to say.
    template<class F>
    bool forEachGroupMeeting(const Region& region, const Surroundings* surroundings, const F& f) const;
    struct Pairs;
    [[nodiscard]] bool areNear(const float (*x)[4], std::size_t count) const noexcept;
    [[nodiscard]] bool pairNeighbours(std::span<const point> points, const float (*x)[4], Pairs& pairs) const;
    [[nodiscard]] bool pairScattered(std::size_t count, const float (*x)[4], Pairs& pairs) const;
    struct LevelBoxes;
    template<int Edges>
    void buildGroups(const Shapes& shapes, Detail detail, LevelBoxes& unions);
    template<class BoxOf>
    void setUpper(const Level& level, std::size_t group, LevelBoxes& unions, const BoxOf& boxOf);
    void buildUpper(LevelBoxes& boxes);

    double myOrigin[3] = {}, myScale[3] = {1.0, 1.0, 1.0};
    std::size_t myCells[3] = {};
    int myTop = -1;         // number of the last level
    bool myIsLarge = false; // more than caches near the core hold
    Level myLevels[MaximalLevels];
    std::unique_ptr<Bottom[]> myBottom; // null where searches tell groups only
    std::unique_ptr<Upper[]> myUpper;
};

#if defined(__SSE2__)

/// Each step in all bytes of a vector.
struct CellBoxTree::Steps {
    __m128i at[3];

    /// From steps in the three lower lanes, of any size.
    explicit Steps(__m128 steps) noexcept {
        const __m128 clamped = _mm_min_ps(_mm_max_ps(steps, _mm_setzero_ps()), _mm_set1_ps(255.0F));
        const __m128i words = _mm_packs_epi32(_mm_cvttps_epi32(clamped), _mm_setzero_si128());
        const __m128i bytes = _mm_packus_epi16(words, words);
        const __m128i pairs = _mm_unpacklo_epi8(bytes, bytes);
        const __m128i fours = _mm_unpacklo_epi16(pairs, pairs);
        at[0] = _mm_shuffle_epi32(fours, 0x00);
        at[1] = _mm_shuffle_epi32(fours, 0x55);
        at[2] = _mm_shuffle_epi32(fours, 0xAA);
    }
};

inline std::uint64_t CellBoxTree::Upper::membersIn(const float (&low)[4], const float (&high)[4],
                                                   int count) const noexcept {
    const auto load = [](const void* from) { return _mm_load_si128(static_cast<const __m128i*>(from)); };
    const __m128i header = load(this);
    const __m128i zero = _mm_setzero_si128();
    const __m128i exponents = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_srli_si128(header, 12), zero), zero);
    const __m128 scales = _mm_castsi128_ps(_mm_slli_epi32(exponents, 23));
    const auto stepsOf = [&](const float(&x)[4]) {
        return Steps(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(x), _mm_castsi128_ps(header)), scales));
    };
    const Steps from = stepsOf(low);
    const Steps to = &low == &high ? from : stepsOf(high);
    std::uint64_t mask = 0;
    for (int m = 0; m < count; m += 16) {
        __m128i meets = _mm_set1_epi8(-1);
        for (int d = 0; d < 3; ++d) {
            const __m128i lower = load(&bounds[d][0][m]), upper = load(&bounds[d][1][m]);
            meets = _mm_and_si128(meets, _mm_cmpeq_epi8(_mm_min_epu8(lower, to.at[d]), lower));
            meets = _mm_and_si128(meets, _mm_cmpeq_epi8(_mm_max_epu8(upper, from.at[d]), upper));
        }
        mask |= static_cast<std::uint64_t>(_mm_movemask_epi8(meets)) << m;
    }
    return mask;
}

inline unsigned CellBoxTree::Bottom::membersAt(const float (&x)[4]) const noexcept {
    const auto load = [](const void* from) { return _mm_load_si128(static_cast<const __m128i*>(from)); };
    const auto lane = []<int Lane>(__m128 v) { return _mm_shuffle_ps(v, v, Lane * 0x55); };
    const __m128 relative = _mm_sub_ps(_mm_loadu_ps(x), _mm_load_ps(origin));
    // The fourth lane of each load is the next number; the last load starts one earlier, as none follows it.
    const __m128 last = _mm_loadu_ps(&column[1][2]);
    const __m128 steps =
        _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_loadu_ps(column[0]), lane.template operator()<0>(relative)),
                              _mm_mul_ps(_mm_loadu_ps(column[1]), lane.template operator()<1>(relative))),
                   _mm_mul_ps(_mm_shuffle_ps(last, last, 0x39), lane.template operator()<2>(relative)));
    const Steps point(steps);
    // Lower bounds in the lower half, upper bounds in the upper one, both kinds compared as complements there.
    const __m128i complement = _mm_set_epi64x(-1, 0);
    __m128i inside = _mm_set1_epi8(-1);
    for (int d = 0; d < 3; ++d) {
        const __m128i bound = _mm_xor_si128(load(bounds[d]), complement);
        const __m128i at = _mm_xor_si128(point.at[d], complement);
        inside = _mm_and_si128(inside, _mm_cmpeq_epi8(_mm_min_epu8(bound, at), bound));
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(inside));
    return mask & (mask >> 8);
}

inline unsigned CellBoxTree::Bottom::membersIn(const Region& region) const noexcept {
    const auto load = [](const void* from) { return _mm_load_si128(static_cast<const __m128i*>(from)); };
    const auto absolute = [](__m128 v) { return _mm_andnot_ps(_mm_set1_ps(-0.0F), v); };
    // The fourth lane of each is the next number; the last load starts one earlier, as none follows it.
    const __m128 last = _mm_loadu_ps(&column[1][2]);
    const __m128 axes[3] = {_mm_loadu_ps(column[0]), _mm_loadu_ps(column[1]), _mm_shuffle_ps(last, last, 0x39)};
    const auto map = [&](float x, float y, float z) {
        return _mm_add_ps(_mm_add_ps(_mm_mul_ps(axes[0], _mm_set1_ps(x)), _mm_mul_ps(axes[1], _mm_set1_ps(y))),
                          _mm_mul_ps(axes[2], _mm_set1_ps(z)));
    };
    const __m128 at = map(region.centre[0] - origin[0], region.centre[1] - origin[1], region.centre[2] - origin[2]);
    __m128 half = _mm_setzero_ps();
    for (int d = 0; d < 3; ++d)
        half = _mm_add_ps(half, _mm_mul_ps(absolute(axes[d]), _mm_set1_ps(regionRounding(region, d))));
    for (const float(&edge)[3] : region.edge) half = _mm_add_ps(half, absolute(map(edge[0], edge[1], edge[2])));
    const __m128 reach = _mm_add_ps(_mm_mul_ps(half, _mm_set1_ps(RegionFactor)), _mm_set1_ps(RegionWidening));
    // What is no number meets all: it counts as 0 there, as 255 here.
    const Steps from(_mm_sub_ps(at, reach));
    const Steps to(_mm_min_ps(_mm_add_ps(at, reach), _mm_set1_ps(255.0F)));
    const __m128i complement = _mm_set_epi64x(-1, 0);
    __m128i meets = _mm_set1_epi8(-1);
    for (int d = 0; d < 3; ++d) {
        const __m128i bound = _mm_xor_si128(load(bounds[d]), complement);
        const __m128i end = _mm_xor_si128(_mm_unpacklo_epi64(to.at[d], from.at[d]), complement);
        meets = _mm_and_si128(meets, _mm_cmpeq_epi8(_mm_min_epu8(bound, end), bound));
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(meets));
    return mask & (mask >> 8) & 0xFFU;
}

#else

struct CellBoxTree::Steps {
    [[nodiscard]] static std::uint8_t of(float steps) noexcept {
        return static_cast<std::uint8_t>(static_cast<int>(std::min(std::max(steps, 0.0F), 255.0F)));
    }
};

inline std::uint64_t CellBoxTree::Upper::membersIn(const float (&low)[4], const float (&high)[4],
                                                   int count) const noexcept {
    std::uint8_t from[3], to[3];
    for (int d = 0; d < 3; ++d) {
        from[d] = Steps::of((low[d] - origin[d]) * scale(exponent[d]));
        to[d] = Steps::of((high[d] - origin[d]) * scale(exponent[d]));
    }
    std::uint64_t mask = 0;
    for (int m = 0; m < count; ++m) {
        bool meets = true;
        for (int d = 0; d < 3; ++d) meets = meets && bounds[d][0][m] <= to[d] && from[d] <= bounds[d][1][m];
        mask |= static_cast<std::uint64_t>(meets) << m;
    }
    return mask;
}

inline unsigned CellBoxTree::Bottom::membersAt(const float (&x)[4]) const noexcept {
    std::uint8_t at[3];
    for (int d = 0; d < 3; ++d)
        at[d] = CellBoxTree::Steps::of((column[0][d] * (x[0] - origin[0]) + column[1][d] * (x[1] - origin[1])) +
                                       column[2][d] * (x[2] - origin[2]));
    unsigned mask = 0;
    for (int m = 0; m < Members; ++m) {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && bounds[d][0][m] <= at[d] && at[d] <= bounds[d][1][m];
        mask |= static_cast<unsigned>(isInside) << m;
    }
    return mask;
}

inline unsigned CellBoxTree::Bottom::membersIn(const Region& region) const noexcept {
    unsigned mask = (1U << Members) - 1;
    for (int v = 0; v < 3; ++v) {
        float at = 0.0F, half = 0.0F;
        for (int d = 0; d < 3; ++d) {
            at += column[d][v] * (region.centre[d] - origin[d]);
            half += std::fabs(column[d][v]) * regionRounding(region, d);
        }
        for (const float(&edge)[3] : region.edge)
            half += std::fabs(column[0][v] * edge[0] + column[1][v] * edge[1] + column[2][v] * edge[2]);
        const float reach = half * RegionFactor + RegionWidening, most = at + reach;
        const std::uint8_t from = Steps::of(at - reach), to = Steps::of(most == most ? most : 255.0F);
        for (unsigned m = 0; m < Members; ++m)
            if (!(bounds[v][0][m] <= to && from <= bounds[v][1][m])) mask &= ~(1U << m);
    }
    return mask;
}

#endif

template<class F>
bool CellBoxTree::forEachGroupIn(const Surroundings& surroundings, const float (&low)[4], const float (&high)[4],
                                 F&& f) const {
    if (surroundings.myCount == 0) return true;
    for (auto mask = surroundings.myBoxes.membersIn(low, high, surroundings.myCount); mask; mask &= mask - 1) {
        const Place& place = surroundings.myGroups[std::countr_zero(mask)].place;
        if (surroundings.myLevel == 0) {
            if (!f(place)) return false;
            continue;
        }
        for (auto below = membersIn(1, place, low, high); below; below &= below - 1) {
            const Place group = place.member<4>(std::countr_zero(below));
            if ((&low == &high || isThere(0, group)) && !f(group)) return false;
        }
    }
    return true;
}

template<class F>
bool CellBoxTree::forEachGroupBelow(int top, const Place& start, int last, const float (&low)[4],
                                    const float (&high)[4], F& f) const {
    // Level by level rather than depth first: all groups of a level are on their way from memory at the same time.
    constexpr std::size_t Capacity = 128;
    Place places[2][Capacity];
    Place* now = places[0];
    Place* below = places[1];
    now[0] = start;
    std::size_t count = 1;
    for (int level = top; level > last; --level) {
        std::size_t members = 0;
        for (std::size_t g = 0; g < count; ++g) {
            if (members + Upper::Members > Capacity) [[unlikely]] {
                // So many boxes at one place are seldom; what remains is gone through group by group. There is room
                // for the members of one, so each is lower than `start`.
                for (std::size_t m = 0; m < members; ++m)
                    if (!forEachGroupBelow(level - 1, below[m], last, low, high, f)) return false;
                for (; g < count; ++g)
                    if (!forEachGroupBelow(level, now[g], last, low, high, f)) return false;
                return true;
            }
            for (auto mask = membersIn(level, now[g], low, high); mask; mask &= mask - 1) {
                below[members] = now[g].template member<4>(std::countr_zero(mask));
                // A box around all steps meets the empty bounds of members that are not there.
                if (&low != &high && !isThere(level - 1, below[members])) continue;
                prefetch(level - 1, below[members++]);
            }
        }
        std::swap(now, below);
        count = members;
    }
    for (std::size_t g = 0; g < count; ++g)
        if (!f(now[g])) return false;
    return true;
}

template<class F, class Prepare>
void CellBoxTree::forEachAt(const point& P, F&& f, Prepare&& prepare) const {
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    // Groups are collected first, so that what they and their cells need is on its way all at once.
    constexpr int Capacity = 16;
    Place groups[Capacity];
    int count = 0;
    forEachGroupIn(x, x, [&](const Place& place) {
        prepare(2 * place.at[0], 2 * place.at[1], 2 * place.at[2]);
        if (count == Capacity)
            visit(place, x, f);
        else
            groups[count++] = place;
        return true;
    });
    for (int g = 0; g < count; ++g) visit(groups[g], x, f);
}

template<class F>
void CellBoxTree::forEachGroupAt(const point& P, F&& f) const {
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    forEachGroupIn(x, x, [&](const Place& place) {
        f(2 * place.at[0], 2 * place.at[1], 2 * place.at[2]);
        return true;
    });
}

template<class F>
void CellBoxTree::forEachAt(const Surroundings& surroundings, const point& P, F&& f) const {
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    forEachGroupIn(surroundings, x, x, [&](const Place& place) {
        visit(place, x, f);
        return true;
    });
}

template<class F>
void CellBoxTree::forEachGroupAt(const Surroundings& surroundings, const point& P, F&& f) const {
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    forEachGroupIn(surroundings, x, x, [&](const Place& place) {
        f(2 * place.at[0], 2 * place.at[1], 2 * place.at[2]);
        return true;
    });
}

template<class F>
bool CellBoxTree::forEachGroupMeeting(const Region& region, const Surroundings* surroundings, const F& f) const {
    float low[4] = {}, high[4] = {};
    for (int d = 0; d < 3; ++d) {
        const float half = std::fabs(region.edge[0][d]) + std::fabs(region.edge[1][d]) + std::fabs(region.edge[2][d]);
        const float reach = std::fabs(region.centre[d]) + half;
        if (!(reach < static_cast<float>(Farthest))) return false;
        low[d] = region.centre[d] - half - 2.0F * PositionRounding * reach;
        high[d] = region.centre[d] + half + 2.0F * PositionRounding * reach;
    }
    return surroundings ? forEachGroupIn(*surroundings, low, high, f) : forEachGroupIn(low, high, f);
}

template<class F>
bool CellBoxTree::forEachGroupNear(const Region& region, F&& f) const {
    return forEachGroupMeeting(
        region, nullptr, [&](const Place& place) { return f(2 * place.at[0], 2 * place.at[1], 2 * place.at[2]); });
}

template<class F>
void CellBoxTree::forEachAt(const Rivals& rivals, const point& P, F&& f) const {
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    for (int r = 0; r < rivals.myCount; ++r) {
        const auto& rival = rivals.myGroups[r];
        visit(rival.members & rival.group->membersAt(x), rival.place, f);
    }
}

} // namespace Vantle::detail
