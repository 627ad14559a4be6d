#pragma once
/// The inverse of a frame of three vectors, and the projective map of a hexahedral cell to the unit cube.

#include <model/ModelExport.hpp>
#include <model/orvix/Quadratic.hpp>

#include <exception>
#include <limits>

namespace Orvix {

/// Thrown when a matrix cannot be inverted.
class VANTLE_MODEL_API DegeneratedMatrix : public std::exception {
public:
    explicit DegeneratedMatrix(int dimension) noexcept : myDimension(dimension) {}
    [[nodiscard]] const char* what() const noexcept override;
    /// Number of rows of the matrix.
    [[nodiscard]] int dimension() const noexcept { return myDimension; }

private:
    int myDimension;
};

/// Frames whose determinant is smaller in absolute value count as degenerate. Absolute, not relative to the
/// frame's size: cells with edges below about 5e-4 are degenerate too.
inline constexpr double DegenerateDeterminant = 1e-10;

/// Inverts the matrix of the columns `a`, `b`, `c`: false, with `inverse` untouched, when it is degenerate.
///
/// Each entry of the adjugate, a row of cross(b, c), cross(c, a), cross(a, b), is divided by
/// det = dot(a, cross(b, c)), each rounded as written there. A NaN is no degeneracy and goes through.
[[nodiscard]] constexpr bool tryInvert3x3(Quadratic<3, double>& inverse, const PhysicalSpace::vector& a,
                                          const PhysicalSpace::vector& b, const PhysicalSpace::vector& c) noexcept {
    const PhysicalSpace::vector bc = cross(b, c);
    const double det = dot(a, bc);
    if (det < DegenerateDeterminant && det > -DegenerateDeterminant) return false;
    const PhysicalSpace::vector ca = cross(c, a);
    const PhysicalSpace::vector ab = cross(a, b);
    inverse = Quadratic<3, double>(bc[0] / det, bc[1] / det, bc[2] / det, ca[0] / det, ca[1] / det, ca[2] / det,
                                   ab[0] / det, ab[1] / det, ab[2] / det);
    return true;
}

/// The inverse of the matrix of the columns `a`, `b`, `c`, bit for bit that of `tryInvert3x3`; throws
/// `DegeneratedMatrix` of dimension 3 when it is degenerate.
[[nodiscard]] inline Quadratic<3, double> invert3x3(const PhysicalSpace::vector& a, const PhysicalSpace::vector& b,
                                                    const PhysicalSpace::vector& c) {
    Quadratic<3, double> inverse;
    if (!tryInvert3x3(inverse, a, b, c)) throw DegeneratedMatrix(3);
    return inverse;
}

/// The projective map of one hexahedral cell to the unit cube, in its parts; `cuboidToUnitCube` says what it is.
class CuboidMap {
public:
    /// Takes the corners, in the order of `cuboidToUnitCube`; false when their frame is degenerate.
    [[nodiscard]] constexpr bool setCorners(const PhysicalSpace::point& p000, const PhysicalSpace::point& p001,
                                            const PhysicalSpace::point& p010, const PhysicalSpace::point& p100,
                                            const PhysicalSpace::point& p111) noexcept {
        myOrigin = p000;
        if (!tryInvert3x3(myInverse, p100 - p000, p010 - p000, p001 - p000)) return false;
        myVertexFactors = relative(p111);
        return true;
    }
    /// Finds the factors of the projective map; false when it would not keep to the cell.
    [[nodiscard]] constexpr bool setProjection() noexcept {
        const PhysicalSpace::vector& q = myVertexFactors;
        const double D = (q[0] + q[1] + q[2] - 1.0) / 2.0;
        if (q[0] == 0.0 || q[1] == 0.0 || q[2] == 0.0 || !(D > 0.0)) return false;
        myFactors = PhysicalSpace::vector(D / q[0], D / q[1], D / q[2]);
        return true;
    }

    /// The affine coordinates x of a point.
    [[nodiscard]] constexpr PhysicalSpace::vector relative(const PhysicalSpace::point& p) const noexcept {
        return myInverse * (p - myOrigin);
    }
    /// 1 + (a_1 - 1) x_1 + (a_2 - 1) x_2 + (a_3 - 1) x_3.
    [[nodiscard]] constexpr double denominator(const PhysicalSpace::vector& x) const noexcept {
        const PhysicalSpace::vector& a = myFactors;
        return 1.0 + (a[0] - 1.0) * x[0] + (a[1] - 1.0) * x[1] + (a[2] - 1.0) * x[2];
    }
    /// a_i x_i / denom: the coordinates in the cell, if `denom`, the denominator of `x`, is positive.
    [[nodiscard]] constexpr PhysicalSpace::point coordinates(const PhysicalSpace::vector& x,
                                                             double denom) const noexcept {
        const PhysicalSpace::vector& a = myFactors;
        return {a[0] * x[0] / denom, a[1] * x[1] / denom, a[2] * x[2] / denom};
    }

    /// q, the affine coordinates of the corner `p111`.
    [[nodiscard]] constexpr const PhysicalSpace::vector& vertexFactors() const noexcept { return myVertexFactors; }
    /// a, the factors of the map; zero before `setProjection`.
    [[nodiscard]] constexpr const PhysicalSpace::vector& factors() const noexcept { return myFactors; }

private:
    PhysicalSpace::point myOrigin;
    Quadratic<3, double> myInverse;
    PhysicalSpace::vector myVertexFactors, myFactors;
};

/// Maps the point `P` to its coordinates `uvw` in a hexahedral cell, by the projective map that takes five corners
/// to those of the unit cube: the corner `p000`, its neighbours along the third, second and first coordinate
/// (`p001`, `p010`, `p100`, in this order), and the opposite corner `p111`.
///
/// With A, B, C the edges from `p000` along the first, second and third coordinate, q and x the affine
/// coordinates of `p111` and `P` in the frame (p000; A, B, C), D = (q1 + q2 + q3 - 1) / 2 and a_i = D / q_i:
/// u_i = a_i x_i / (1 + (a_1 - 1) x_1 + (a_2 - 1) x_2 + (a_3 - 1) x_3). Without `projective`, u_i = x_i.
///
/// Laws         the five corners are mapped to theirs, up to rounding; all eight of a cell that is the image of a
///              cube under a projective map, as parallelepipeds and frusta are. The map does not see the other
///              corners of other cells.
/// Degenerate   NaN in all of `uvw`, which no test of the form `>= 0 && <= 1` accepts: for a degenerate frame (see
///              `DegenerateDeterminant`), and in the projective form for q_i == 0, D <= 0 and a denominator <= 0,
///              where the map would take points outside the cell into the cube.
/// Failure      nothing is thrown.
/// Cost         fifteen divisions, no branch but the tests above.
inline void cuboidToUnitCube(PhysicalSpace::point& uvw, const PhysicalSpace::point& P, const PhysicalSpace::point& p000,
                             const PhysicalSpace::point& p001, const PhysicalSpace::point& p010,
                             const PhysicalSpace::point& p100, const PhysicalSpace::point& p111,
                             bool projective) noexcept {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    uvw = PhysicalSpace::point(nan, nan, nan);
    CuboidMap map;
    if (!map.setCorners(p000, p001, p010, p100, p111)) return;
    const PhysicalSpace::vector x = map.relative(P);
    if (!projective) {
        uvw = PhysicalSpace::point(x[0], x[1], x[2]);
        return;
    }
    if (!map.setProjection()) return;
    const double denominator = map.denominator(x);
    if (denominator > 0.0) uvw = map.coordinates(x, denominator);
}

} // namespace Orvix
