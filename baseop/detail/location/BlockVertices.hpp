#pragma once
/// How the searches in curvilinear blocks reach the vertices: plain addresses, and the linear map at a cell's centre.

#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/orvix/CellMap.hpp>
#include <model/vantle/MultiArray.hpp>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <vector>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Vantle::detail {

/// The vertices of a block by address, and its numbers of cells. Owns nothing.
class BlockVertices {
public:
    explicit BlockVertices(const MultiArrayBase<3, Orvix::PhysicalSpace::point>& vertices) noexcept
        : myFirst(vertices.storage() ? vertices.storage()->data() : nullptr), mySize(vertices.Size()) {
        myStep[0] = static_cast<std::size_t>(vertices.stride()) * 3;
        myStep[1] = myStep[0] * static_cast<std::size_t>(mySize[0]);
        myStep[2] = myStep[1] * static_cast<std::size_t>(mySize[1]);
        for (int axis = 0; axis < 3; ++axis) myCells[axis] = mySize[axis] < 2 ? 0 : mySize[axis] - 1;
        constexpr std::size_t NearCaches = std::size_t{1} << 20;
        myIsLarge = myStep[2] * static_cast<std::size_t>(mySize[2]) * sizeof(double) > NearCaches;
    }

    /// Number of vertices on each axis.
    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    /// Number of cells on each axis; 0 where there is one vertex only.
    [[nodiscard]] const MultiIndex<3>& cells() const noexcept { return myCells; }
    /// Distance of neighbours along an axis, in coordinates.
    [[nodiscard]] std::size_t step(int axis) const noexcept { return myStep[axis]; }
    /// Whether the rows of vertices lie in memory without gaps.
    [[nodiscard]] bool contiguous() const noexcept { return myStep[0] == 3; }

    /// Address of the three coordinates of a vertex.
    [[nodiscard]] const double* address(index_t i, index_t j, index_t k) const noexcept {
        return myFirst + i * myStep[0] + j * myStep[1] + k * myStep[2];
    }
    [[nodiscard]] const double* address(const MultiIndex<3>& vertex) const noexcept {
        return address(vertex[0], vertex[1], vertex[2]);
    }
    /// Corner number `corner` of the cell whose lowest vertex is at `lowest`: bit d of the number is the step on axis
    /// d.
    [[nodiscard]] const double* corner(const double* lowest, int corner) const noexcept {
        return lowest + (corner & 1 ? myStep[0] : 0) + (corner & 2 ? myStep[1] : 0) + (corner & 4 ? myStep[2] : 0);
    }
    /// Whether the box of the corners of the cell whose lowest vertex is at `lowest` has a point. Corners are numbers.
    [[nodiscard]] bool isInBox(const double* lowest, const Orvix::PhysicalSpace::point& P) const noexcept {
#if defined(__SSE2__)
        // The first two axes of each corner; the third of two corners at once.
        __m128d low = _mm_loadu_pd(lowest), high = low;
        const auto third = [&](int q) {
            return _mm_loadh_pd(_mm_load_sd(corner(lowest, q) + 2), corner(lowest, q + 1) + 2);
        };
        __m128d lowThird = third(0), highThird = lowThird;
        for (int q = 1; q < 8; ++q) {
            const __m128d c = _mm_loadu_pd(corner(lowest, q));
            low = _mm_min_pd(low, c);
            high = _mm_max_pd(high, c);
        }
        for (int q = 2; q < 8; q += 2) {
            const __m128d c = third(q);
            lowThird = _mm_min_pd(lowThird, c);
            highThird = _mm_max_pd(highThird, c);
        }
        const __m128d p = _mm_set_pd(P[1], P[0]), z = _mm_set1_pd(P[2]);
        const int isInside = _mm_movemask_pd(_mm_and_pd(_mm_cmpge_pd(p, low), _mm_cmple_pd(p, high)));
        const int isAbove = _mm_movemask_pd(_mm_cmpge_pd(z, lowThird));
        const int isBelow = _mm_movemask_pd(_mm_cmple_pd(z, highThird));
        return isInside == 3 && isAbove != 0 && isBelow != 0;
#else
        bool isInside = true;
        for (int d = 0; d < 3; ++d) {
            double low = lowest[d], high = low;
            for (int q = 1; q < 8; ++q) {
                const double c = corner(lowest, q)[d];
                low = std::min(low, c);
                high = std::max(high, c);
            }
            isInside &= P[d] >= low && P[d] <= high;
        }
        return isInside;
#endif
    }
    /// Sends for most of the corners of 2 x 2 x 2 cells, or of those of them that there are.
    void prefetchGroup([[maybe_unused]] index_t i, [[maybe_unused]] index_t j,
                       [[maybe_unused]] index_t k) const noexcept {
#if defined(__GNUC__)
        if (!myIsLarge) return;
        const std::size_t middle = i + 1 < mySize[0] ? myStep[0] : 0;
        for (index_t z = k; z < std::min(k + 3, mySize[2]); ++z)
            for (index_t y = j; y < std::min(j + 3, mySize[1]); ++y) __builtin_prefetch(address(i, y, z) + middle);
#endif
    }
    /// Sends for the corners of a cell.
    void prefetchCell([[maybe_unused]] const double* lowest) const noexcept {
#if defined(__GNUC__)
        if (!myIsLarge) return;
        for (int row = 0; row < 8; row += 2) {
            __builtin_prefetch(corner(lowest, row));
            __builtin_prefetch(corner(lowest, row + 1) + 2);
        }
#endif
    }
    /// The extremes of all coordinates that are numbers; false if some are not. Of zeros of both signs the first.
    bool findExtremes(Orvix::PhysicalSpace::point& lowest, Orvix::PhysicalSpace::point& highest) const {
        constexpr double infinite = std::numeric_limits<double>::infinity();
        struct Slab {
            double low[3] = {infinite, infinite, infinite}, high[3] = {-infinite, -infinite, -infinite}, check[3] = {};
            void take(int d, double least, double greatest, double zero) noexcept {
                low[d] = std::min(low[d], least);
                high[d] = std::max(high[d], greatest);
                check[d] += zero; // NaN where something is no number
            }
        };
        const auto planes = static_cast<std::size_t>(mySize[2]);
        const std::size_t piece = planes / (4 * teamSize()) + 1;
        std::vector<Slab> slabs(planes / piece + 1);
        inParallel(planes, piece, static_cast<std::size_t>(mySize.product()) * 3 * sizeof(double),
                   [&](std::size_t begin, std::size_t end) {
                       Slab slab;
                       const auto take = [&](const double* at, std::size_t count) {
                           for (; count > 0; --count, at += myStep[0])
                               for (int d = 0; d < 3; ++d) {
                                   const double zero = at[d] * 0.0;
                                   slab.take(d, zero == 0.0 ? at[d] : infinite, zero == 0.0 ? at[d] : -infinite, zero);
                               }
                       };
                       // What the vectors tell of so many numbers is not enough where some are none, nor where the
                       // first zero is met.
                       const auto takeTogether = [&](const double* at, std::size_t count) {
                           const auto found = detail::findExtremes<double, 3>(at, 3 * count);
                           bool isEnough = !found.hasNaN;
                           for (int d = 0; d < 3; ++d) {
                               isEnough &= (found.max[d] - found.min[d]) * 0.0 == 0.0;
                               isEnough &= found.min[d] != 0.0 || slab.low[d] <= 0.0;
                               isEnough &= found.max[d] != 0.0 || slab.high[d] >= 0.0;
                           }
                           if (!isEnough) return take(at, count);
                           for (int d = 0; d < 3; ++d) slab.take(d, found.min[d], found.max[d], 0.0);
                       };
                       constexpr std::size_t Together = ExtremesPieceBytes / (3 * sizeof(double));
                       const auto plane = static_cast<std::size_t>(mySize[0] * mySize[1]);
                       for (std::size_t n = begin * plane; n < end * plane; n += Together) {
                           const std::size_t count = std::min(Together, end * plane - n);
                           if (contiguous())
                               takeTogether(myFirst + 3 * n, count);
                           else
                               take(myFirst + myStep[0] * n, count);
                       }
                       slabs[begin / piece] = slab;
                   });
        Slab all;
        for (const Slab& slab : slabs)
            for (int d = 0; d < 3; ++d) all.take(d, slab.low[d], slab.high[d], slab.check[d]);
        lowest = point(all.low);
        highest = point(all.high);
        return all.check[0] + all.check[1] + all.check[2] == 0.0;
    }
    /// The rows of vertices around the cells (0, j, k), (1, j, k) ..., without gaps: copied into `room` if they have
    /// any.
    struct Rows {
        const double* of[4];
    };
    [[nodiscard]] Rows rowsAround(index_t j, index_t k, std::vector<double>& room) const {
        Rows rows{{address(0, j, k), address(0, j + 1, k), address(0, j, k + 1), address(0, j + 1, k + 1)}};
        if (contiguous()) return rows;
        const auto n = static_cast<std::size_t>(mySize[0]);
        room.resize(12 * n);
        for (std::size_t r = 0; r < 4; ++r) {
            for (std::size_t i = 0; i < n; ++i) std::copy_n(rows.of[r] + i * myStep[0], 3, &room[3 * (r * n + i)]);
            rows.of[r] = &room[3 * r * n];
        }
        return rows;
    }
    [[nodiscard]] static Orvix::PhysicalSpace::point point(const double* at) noexcept { return {at[0], at[1], at[2]}; }

private:
    const double* myFirst;
    std::size_t myStep[3];
    MultiIndex<3> mySize, myCells;
    bool myIsLarge; // more than caches near the core hold
};

/// The projective map of a cell: whether it takes a point to the unit cube, widened by `epsilon`, and to where.
inline bool projectIntoCell(Orvix::PhysicalSpace::point& local, const Orvix::PhysicalSpace::point& P,
                            const BlockVertices& vertices, const MultiIndex<3>& cell, double epsilon) {
    const double* const lowest = vertices.address(cell);
    const auto corner = [&](int number) { return vertices.point(vertices.corner(lowest, number)); };
    Orvix::cuboidToUnitCube(local, P, corner(0), corner(4), corner(2), corner(1), corner(7), true);
    for (int d = 0; d < 3; ++d)
        if (!(local[d] >= -epsilon && local[d] <= 1.0 + epsilon)) return false;
    return true;
}

/// The image of a cell's centre and the derivatives there along the three index axes: bit for bit what the
/// interpolation kernels give at (0.5, 0.5, 0.5) of the cell.
struct CentreFrame {
    Orvix::PhysicalSpace::point centre;
    Orvix::PhysicalSpace::vector column[3];

    /// The frame of the cell whose lowest vertex is at `lowest`.
    CentreFrame(const BlockVertices& vertices, const double* lowest) noexcept {
        const std::size_t s0 = vertices.step(0), s1 = vertices.step(1), s2 = vertices.step(2);
        for (int d = 0; d < 3; ++d) {
            const double* const p = lowest + d;
            const double a = p[0], b = p[s0], c = p[s1], e = p[s0 + s1];
            const double f = p[s2], g = p[s0 + s2], h = p[s1 + s2], i = p[s0 + s1 + s2];
            // Points: base point plus scaled difference. Derivatives: weighted sums.
            const double ab = a + (b - a) * 0.5, ce = c + (e - c) * 0.5;
            const double fg = f + (g - f) * 0.5, hi = h + (i - h) * 0.5;
            const double low = ab + (ce - ab) * 0.5, high = fg + (hi - fg) * 0.5;
            centre[d] = low + (high - low) * 0.5;

            column[0][d] = ((b - a) * 0.5 + (e - c) * 0.5) * 0.5 + ((g - f) * 0.5 + (i - h) * 0.5) * 0.5;
            const double mab = a * 0.5 + b * 0.5, mce = c * 0.5 + e * 0.5;
            const double mfg = f * 0.5 + g * 0.5, mhi = h * 0.5 + i * 0.5;
            column[1][d] = (mce - mab) * 0.5 + (mhi - mfg) * 0.5;
            column[2][d] = (mfg * 0.5 + mhi * 0.5) - (mab * 0.5 + mce * 0.5);
        }
    }
};

} // namespace Vantle::detail
