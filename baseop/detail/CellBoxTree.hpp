#pragma once
/// Which cells of a block have a point in their boxes: a hierarchy over the cells' indices.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Index.hpp>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Vantle::detail {

/// Boxes of the cells of a block, one a cell, found by point.
///
/// Cells are gathered in groups of 2 x 2 x 2 neighbours, these again, and so on: cells that are neighbours in the block
/// mostly are so in space, and nothing is sorted. A group takes 64 bytes, in which the boxes of its eight members have
/// bytes for bounds, so that one comparison of 16 bytes an axis tests all eight.
///
/// A search reports every cell whose box has the point, and some whose box nearly has it: all roundings on the way are
/// monotonic functions that are applied to bounds and point alike, and thus never separate a point from its box.
///
/// Concurrency  searches may come from any number of threads once the tree is built.
/// Cost         a little more than 9 bytes a cell. A search looks at one to two groups a level.
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

    /// The boxes of up to eight members, quantized in steps of a power of two from `origin`.
    struct alignas(64) Group {
        float origin[3];
        std::uint8_t exponent[4]; // of the scale, biased as in a float
        /// By axis: lower bounds of the eight, then 255 - upper bounds.
        std::uint8_t bounds[3][16];

        [[nodiscard]] static float scale(std::uint8_t exponent) noexcept {
            return std::bit_cast<float>(std::uint32_t{exponent} << 23);
        }
        [[nodiscard]] static std::uint8_t quantize(float x, float from, float scale) noexcept {
            const float steps = (x - from) * scale;
            return static_cast<std::uint8_t>(static_cast<int>(std::min(std::max(steps, 0.0F), 255.0F)));
        }
        Box assign(const Box (&members)[8]) noexcept;
        /// Bit m is set when member m may have the point.
        [[nodiscard]] unsigned members(const float (&x)[4]) const noexcept;
    };
    static_assert(sizeof(Group) == 64);

    struct Level {
        std::size_t first = 0; // number of its first group
        std::size_t size[3] = {};
    };
    static constexpr int MaximalLevels = 33;

    /// Where a group, or a cell, is on its level.
    struct Place {
        std::uint32_t at[3];
        /// Member number `m` of the group.
        [[nodiscard]] Place member(int m) const noexcept {
            const auto bits = static_cast<std::uint32_t>(m);
            return {{2 * at[0] + (bits & 1), 2 * at[1] + (bits >> 1 & 1), 2 * at[2] + (bits >> 2)}};
        }
    };
    [[nodiscard]] const Group& group(int level, const Place& place) const noexcept {
        const Level& l = myLevels[level];
        return myGroups[l.first + place.at[0] + l.size[0] * (place.at[1] + l.size[1] * place.at[2])];
    }
    static void prefetch([[maybe_unused]] const void* where) noexcept {
#if defined(__GNUC__)
        __builtin_prefetch(where);
#endif
    }
    /// Goes through one group and all below.
    template<class F>
    void descend(int top, const Place& start, const float (&x)[4], F& f) const;

    double myOrigin[3] = {}, myScale[3] = {1.0, 1.0, 1.0};
    std::size_t myCells[3] = {};
    int myTop = -1; // number of the last level
    Level myLevels[MaximalLevels];
    std::vector<Group> myGroups;
};

inline unsigned CellBoxTree::Group::members(const float (&x)[4]) const noexcept {
#if defined(__SSE2__)
    const __m128i header = _mm_load_si128(reinterpret_cast<const __m128i*>(this));
    const __m128i zero = _mm_setzero_si128();
    const __m128i exponents = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_srli_si128(header, 12), zero), zero);
    const __m128 scales = _mm_castsi128_ps(_mm_slli_epi32(exponents, 23));
    __m128 steps = _mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(x), _mm_castsi128_ps(header)), scales);
    steps = _mm_min_ps(_mm_max_ps(steps, _mm_setzero_ps()), _mm_set1_ps(255.0F));
    alignas(16) std::uint32_t q[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(q), _mm_cvttps_epi32(steps));
    __m128i inside = _mm_set1_epi8(-1);
    for (int d = 0; d < 3; ++d) {
        const std::uint64_t all = q[d] * std::uint64_t{0x0101010101010101};
        const __m128i at = _mm_set_epi64x(static_cast<long long>(~all), static_cast<long long>(all));
        const __m128i bound = _mm_load_si128(reinterpret_cast<const __m128i*>(bounds[d]));
        inside = _mm_and_si128(inside, _mm_cmpeq_epi8(_mm_min_epu8(bound, at), bound));
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(inside));
    return mask & (mask >> 8);
#else
    unsigned mask = 255;
    for (int d = 0; d < 3; ++d) {
        const std::uint8_t q = quantize(x[d], origin[d], scale(exponent[d]));
        for (int m = 0; m < 8; ++m)
            if (!(bounds[d][m] <= q && bounds[d][8 + m] <= 255 - q)) mask &= ~(1U << m);
    }
    return mask;
#endif
}

template<class F>
void CellBoxTree::forEachAt(const point& P, F&& f) const {
    if (myTop < 0) return;
    const float x[4] = {toFloat(P[0], 0), toFloat(P[1], 1), toFloat(P[2], 2), 0.0F};
    // Level by level rather than depth first: all groups of a level are on their way from memory at the same time.
    constexpr std::size_t Capacity = 64;
    Place places[2][Capacity];
    Place* now = places[0];
    Place* below = places[1];
    now[0] = {{0, 0, 0}};
    std::size_t count = 1;
    for (int level = myTop; level > 0; --level) {
        std::size_t members = 0;
        for (std::size_t g = 0; g < count; ++g) {
            unsigned mask = group(level, now[g]).members(x);
            if (members + 8 > Capacity) [[unlikely]] {
                // So many boxes at one point are seldom; what remains is gone through group by group.
                for (std::size_t m = 0; m < members; ++m) descend(level - 1, below[m], x, f);
                for (; g < count; ++g) descend(level, now[g], x, f);
                return;
            }
            for (; mask; mask &= mask - 1) {
                below[members] = now[g].member(std::countr_zero(mask));
                prefetch(&group(level - 1, below[members++]));
            }
        }
        std::swap(now, below);
        count = members;
    }
    for (std::size_t g = 0; g < count; ++g) descend(0, now[g], x, f);
}

template<class F>
void CellBoxTree::descend(int top, const Place& start, const float (&x)[4], F& f) const {
    struct Step {
        Place place;
        unsigned members; // still to be visited
    };
    Step steps[MaximalLevels];
    int level = top;
    steps[level] = {start, group(level, start).members(x)};
    for (;;) {
        Step& step = steps[level];
        if (step.members == 0) {
            if (level == top) return;
            ++level;
            continue;
        }
        const Place member = step.place.member(std::countr_zero(step.members));
        step.members &= step.members - 1;
        if (level == 0) {
            f(member.at[0], member.at[1], member.at[2]);
        } else {
            --level;
            steps[level] = {member, group(level, member).members(x)};
        }
    }
}

} // namespace Vantle::detail
