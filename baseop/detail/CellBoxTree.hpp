#pragma once
/// Which cells of a block have a point in their boxes: a hierarchy over the cells' indices.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Index.hpp>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Vantle::detail {

/// Boxes of the cells of a block, one a cell, found by point.
///
/// Cells are gathered in groups of 2 x 2 x 2 neighbours, groups in groups of 4 x 4 x 4, and so on: what are neighbours
/// in the block mostly are so in space, and nothing is sorted. A group has the boxes of its members in bytes, so that a
/// few vector operations test all of them.
///
/// A search reports every cell whose box has the point, and some whose box nearly has it: all roundings on the way are
/// monotonic functions that are applied to bounds and point alike, and thus never separate a point from its box.
///
/// Concurrency  searches may come from any number of threads once the tree is built.
/// Cost         a little less than 9 bytes a cell. A search looks at one to three groups a level, all groups of a level
///              at the same time, and there are few levels: four for a hundred cells an axis.
class CellBoxTree {
public:
    using point = Orvix::PhysicalSpace::point;

    /// Lower and upper bounds of the cells of a row, by axis, as `toFloat` makes them.
    struct Row {
        float *low[3], *high[3];
    };

    /// Says what the boxes are, one row of cells after the other.
    class Boxes {
    public:
        Boxes() = default;
        virtual ~Boxes();
        /// Writes the boxes of the cells (0, j, k), (1, j, k) ...; one that has a NaN, or bounds the wrong way round,
        /// holds no point.
        virtual void fill(std::size_t j, std::size_t k, const Row& row) = 0;
        /// A copy for another thread.
        [[nodiscard]] virtual std::unique_ptr<Boxes> clone() const = 0;

    protected:
        Boxes(const Boxes&) = default;
        Boxes& operator=(const Boxes&) = default;
    };

    CellBoxTree() = default;

    /// For coordinates between the corners of a box. `cells` is how many on each axis, less than 2^32 - 1.
    CellBoxTree(const MultiIndex<3>& cells, const point& lowest, const point& highest);

    /// A world coordinate as the tree sees it; monotonic.
    [[nodiscard]] float toFloat(double x, int axis) const noexcept {
        const double scaled = (x - myOrigin[axis]) * myScale[axis];
        return static_cast<float>(std::min(std::max(scaled, -Farthest), Farthest));
    }

    /// Builds the tree, once, in parallel.
    void build(const Boxes& boxes);

    /// Calls `f(i, j, k)` for the cells that may have `P`, which has no NaN, in their box; in no particular order.
    template<class F>
    void forEachAt(const point& P, F&& f) const;

private:
    /// Whatever is farther away counts as so far: all bounds are numbers.
    static constexpr double Farthest = 1e30;

    struct Box {
        float low[3], high[3];
    };

    /// The boxes of `Side` x `Side` x `Side` members, the first axis fastest, quantized in steps of a power of two.
    template<int Side>
    struct alignas(64) Group {
        static constexpr int Members = Side * Side * Side;
        using Mask = std::conditional_t<Members <= 32, std::uint32_t, std::uint64_t>;

        float origin[3];
        std::uint8_t exponent[4]; // of the scale, biased as in a float
        /// By axis: lower bounds of all members, then upper bounds.
        std::uint8_t bounds[3][2][Members];

        [[nodiscard]] static float scale(std::uint8_t biased) noexcept {
            return std::bit_cast<float>(std::uint32_t{biased} << 23);
        }
        [[nodiscard]] static std::uint8_t quantize(float x, float from, float scale) noexcept {
            return static_cast<std::uint8_t>(static_cast<int>(std::min(std::max((x - from) * scale, 0.0F), 255.0F)));
        }
        /// Sets the group from boxes of the members, and returns the box of all.
        Box assign(const Box* members) noexcept;
        /// Bit m is set when member m may have the point.
        [[nodiscard]] Mask membersAt(const float (&x)[4]) const noexcept;
    };
    using Bottom = Group<2>;
    using Upper = Group<4>;
    static_assert(sizeof(Bottom) == 64);

    /// Groups of one level: 0 is that of the groups of cells.
    struct Level {
        std::size_t first = 0; // number of its first group
        std::size_t size[3] = {};
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
    [[nodiscard]] std::size_t number(int level, const Place& place) const noexcept {
        const Level& l = myLevels[level];
        return l.first + place.at[0] + l.size[0] * (place.at[1] + l.size[1] * place.at[2]);
    }
    void prefetch([[maybe_unused]] int level, [[maybe_unused]] const Place& place) const noexcept {
#if defined(__GNUC__)
        if (level == 0) {
            __builtin_prefetch(&myBottom[number(0, place)]);
        } else {
            const auto* const bytes = reinterpret_cast<const char*>(&myUpper[number(level, place)]);
            for (std::size_t line = 0; line < sizeof(Upper); line += 64) __builtin_prefetch(bytes + line);
        }
#endif
    }
    /// Calls `f` for cells of a group of cells.
    template<class F>
    void visit(const Place& place, const float (&x)[4], F& f) const {
        for (auto mask = myBottom[number(0, place)].membersAt(x); mask; mask &= mask - 1) {
            const Place cell = place.member<2>(std::countr_zero(mask));
            f(cell.at[0], cell.at[1], cell.at[2]);
        }
    }
    /// Goes through a group and all below, one after the other.
    template<class F>
    void descend(int top, const Place& start, const float (&x)[4], F& f) const;

    double myOrigin[3] = {}, myScale[3] = {1.0, 1.0, 1.0};
    std::size_t myCells[3] = {};
    int myTop = -1; // number of the last level
    Level myLevels[MaximalLevels];
    std::vector<Bottom> myBottom;
    std::vector<Upper> myUpper;
};

template<int Side>
inline typename CellBoxTree::Group<Side>::Mask CellBoxTree::Group<Side>::membersAt(const float (&x)[4]) const noexcept {
#if defined(__SSE2__)
    const auto load = [](const void* from) { return _mm_load_si128(static_cast<const __m128i*>(from)); };
    const __m128i header = load(this);
    const __m128i zero = _mm_setzero_si128();
    const __m128i exponents = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_srli_si128(header, 12), zero), zero);
    const __m128 scales = _mm_castsi128_ps(_mm_slli_epi32(exponents, 23));
    __m128 steps = _mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(x), _mm_castsi128_ps(header)), scales);
    steps = _mm_min_ps(_mm_max_ps(steps, _mm_setzero_ps()), _mm_set1_ps(255.0F));
    const __m128i words = _mm_packs_epi32(_mm_cvttps_epi32(steps), zero);
    const __m128i bytes = _mm_packus_epi16(words, zero);
    const __m128i pairs = _mm_unpacklo_epi8(bytes, bytes);
    const __m128i fours = _mm_unpacklo_epi16(pairs, pairs);
    const __m128i at[3] = {_mm_shuffle_epi32(fours, 0x00), _mm_shuffle_epi32(fours, 0x55),
                           _mm_shuffle_epi32(fours, 0xAA)};
    if constexpr (Members == 8) {
        // Lower bounds in the lower half, upper bounds in the upper one, both kinds compared as complements there.
        const __m128i upper = _mm_set_epi64x(-1, 0);
        __m128i inside = _mm_set1_epi8(-1);
        for (int d = 0; d < 3; ++d) {
            const __m128i bound = _mm_xor_si128(load(bounds[d]), upper);
            const __m128i point = _mm_xor_si128(at[d], upper);
            inside = _mm_and_si128(inside, _mm_cmpeq_epi8(_mm_min_epu8(bound, point), bound));
        }
        const auto mask = static_cast<unsigned>(_mm_movemask_epi8(inside));
        return mask & (mask >> 8);
    } else {
        Mask mask = 0;
        for (int m = 0; m < Members; m += 16) {
            __m128i inside = _mm_set1_epi8(-1);
            for (int d = 0; d < 3; ++d) {
                const __m128i low = load(&bounds[d][0][m]), high = load(&bounds[d][1][m]);
                inside = _mm_and_si128(inside, _mm_cmpeq_epi8(_mm_min_epu8(low, at[d]), low));
                inside = _mm_and_si128(inside, _mm_cmpeq_epi8(_mm_max_epu8(high, at[d]), high));
            }
            mask |= static_cast<Mask>(_mm_movemask_epi8(inside)) << m;
        }
        return mask;
    }
#else
    Mask mask = 0;
    std::uint8_t q[3];
    for (int d = 0; d < 3; ++d) q[d] = quantize(x[d], origin[d], scale(exponent[d]));
    for (int m = 0; m < Members; ++m) {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && bounds[d][0][m] <= q[d] && q[d] <= bounds[d][1][m];
        mask |= static_cast<Mask>(isInside) << m;
    }
    return mask;
#endif
}

template<class F>
void CellBoxTree::forEachAt(const point& P, F&& f) const {
    if (myTop < 0) return;
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    // Level by level rather than depth first: all groups of a level are on their way from memory at the same time.
    constexpr std::size_t Capacity = 128;
    Place places[2][Capacity];
    Place* now = places[0];
    Place* below = places[1];
    now[0] = {{0, 0, 0}};
    std::size_t count = 1;
    for (int level = myTop; level > 0; --level) {
        std::size_t members = 0;
        for (std::size_t g = 0; g < count; ++g) {
            if (members + Upper::Members > Capacity) [[unlikely]] {
                // So many boxes at one point are seldom; what remains is gone through group by group.
                for (std::size_t m = 0; m < members; ++m) descend(level - 1, below[m], x, f);
                for (; g < count; ++g) descend(level, now[g], x, f);
                return;
            }
            for (auto mask = myUpper[number(level, now[g])].membersAt(x); mask; mask &= mask - 1) {
                below[members] = now[g].template member<4>(std::countr_zero(mask));
                prefetch(level - 1, below[members++]);
            }
        }
        std::swap(now, below);
        count = members;
    }
    for (std::size_t g = 0; g < count; ++g) visit(now[g], x, f);
}

template<class F>
void CellBoxTree::descend(int top, const Place& start, const float (&x)[4], F& f) const {
    if (top == 0) {
        visit(start, x, f);
        return;
    }
    struct Step {
        Place place;
        Upper::Mask members; // still to be visited
    };
    Step steps[MaximalLevels];
    int level = top;
    steps[level] = {start, myUpper[number(level, start)].membersAt(x)};
    for (;;) {
        Step& step = steps[level];
        if (step.members == 0) {
            if (level == top) return;
            ++level;
            continue;
        }
        const Place member = step.place.template member<4>(std::countr_zero(step.members));
        step.members &= step.members - 1;
        if (level == 1) {
            visit(member, x, f);
        } else {
            --level;
            steps[level] = {member, myUpper[number(level, member)].membersAt(x)};
        }
    }
}

} // namespace Vantle::detail
