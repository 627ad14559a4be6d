#pragma once
/// How the searches in curvilinear blocks reach the vertices: plain addresses, and the linear map at a cell's centre.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/MultiArray.hpp>

#include <cstddef>

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
    /// Sends for the corners of a cell.
    void prefetchCell([[maybe_unused]] const double* lowest) const noexcept {
#if defined(__GNUC__)
        for (int row = 0; row < 8; row += 2) {
            __builtin_prefetch(corner(lowest, row));
            __builtin_prefetch(corner(lowest, row + 1) + 2);
        }
#endif
    }
    [[nodiscard]] static Orvix::PhysicalSpace::point point(const double* at) noexcept { return {at[0], at[1], at[2]}; }

private:
    const double* myFirst;
    std::size_t myStep[3];
    MultiIndex<3> mySize, myCells;
};

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
