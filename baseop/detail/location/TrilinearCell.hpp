#pragma once
/// The trilinear map of one hexahedral cell, and its inverse.

#include <baseop/detail/location/BlockVertices.hpp>
#include <model/orvix/Quadratic.hpp>

namespace Vantle::detail {

/// The map x(d) = c + sum a_i d_i + sum b_ij d_i d_j + t d_0 d_1 d_2 of the cube |d_i| <= 1/2 to a cell, relative to
/// the position that is asked for: x(d) = 0 there.
class TrilinearCell {
public:
    using vector = Orvix::PhysicalSpace::vector;
    using point = Orvix::PhysicalSpace::point;

    /// Largest |x(d)| of a result, as a part of the cell's largest diagonal.
    static constexpr double Tolerance = 1e-11;

    /// The cell whose lowest vertex is at `lowest`.
    TrilinearCell(const BlockVertices& vertices, const double* lowest) noexcept;
    /// Seen from `P`.
    TrilinearCell(const BlockVertices& vertices, const double* lowest, const point& P) noexcept
        : TrilinearCell(vertices, lowest) {
        lookFrom(P);
    }
    void lookFrom(const point& P) noexcept { myC = myMiddle - (P - myOrigin) * myFactor; }

    /// Finds the d of the cube with x(d) = 0; false, with `d` untouched, when there is none.
    ///
    /// Newton's method from the solution of the linear part, the map and its derivatives evaluated anew each step.
    /// Where it does not converge into the cube, and it is not certain that the cube has no solution, the cube is
    /// bisected.
    /// Degenerate  in a degenerate cell a solution may be missed. The work is limited.
    [[nodiscard]] bool solve(vector& d) const noexcept;
    /// The same as fractional indices of a cell of a block.
    [[nodiscard]] bool solveAt(const MultiIndex<3>& cell, point& uvw) const noexcept {
        vector d;
        if (!solve(d)) return false;
        for (int i = 0; i < 3; ++i) uvw[i] = static_cast<double>(cell[i]) + (d[i] + 0.5);
        return true;
    }

private:
    /// A part of the cube: centre and half width on each axis.
    struct Part {
        vector centre, half;
    };
    /// What is known of the solutions in a part.
    enum class Verdict { Found, None, Unknown };

    TrilinearCell() noexcept = default;

    [[nodiscard]] vector at(const vector& d) const noexcept {
        return myC + myA[0] * d[0] + myA[1] * d[1] + myA[2] * d[2] + myB[0] * (d[1] * d[2]) + myB[1] * (d[0] * d[2]) +
               myB[2] * (d[0] * d[1]) + myT * (d[0] * d[1] * d[2]);
    }
    void derivatives(const vector& d, vector (&column)[3]) const noexcept {
        column[0] = myA[0] + myB[2] * d[1] + myB[1] * d[2] + myT * (d[1] * d[2]);
        column[1] = myA[1] + myB[2] * d[0] + myB[0] * d[2] + myT * (d[0] * d[2]);
        column[2] = myA[2] + myB[1] * d[0] + myB[0] * d[1] + myT * (d[0] * d[1]);
    }
    /// The map of a part, as a map of the whole cube.
    [[nodiscard]] TrilinearCell restrictedTo(const Part& part) const noexcept;
    /// Moves `d` into the cube; false if it is not a solution there.
    [[nodiscard]] bool accept(vector& d) const noexcept;
    [[nodiscard]] Verdict judge(vector& d) const noexcept;
    [[nodiscard]] bool bisect(vector& d) const noexcept;

    point myOrigin;
    double myFactor = 1.0; // makes lengths numbers of which products can be made
    vector myMiddle;       // c, seen from the origin
    vector myC, myA[3];
    vector myB[3]; // of d1 d2, d0 d2, d0 d1
    vector myT;
    double mySquaredTolerance = 0.0;
};

} // namespace Vantle::detail
