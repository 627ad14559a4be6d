#pragma once
/// The solve that `UniGridMapper` promises: from the centre of a cell in linear steps, and the first of them by itself.
///
/// On purpose it is no Newton method: the trilinear map is evaluated at the centre only, and its image is predicted
/// linearly from then on. So a good cell takes one step, which is exact to first order in the cell's distortion, and
/// nearly all that queries do can be told from the first step in closed form.

#include <baseop/Interpolate.hpp>
#include <baseop/detail/location/BlockVertices.hpp>
#include <model/orvix/CellMap.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace Vantle::detail::linear {

using point = Orvix::PhysicalSpace::point;
using vector = Orvix::PhysicalSpace::vector;

inline bool isFinite(const Orvix::FixedArray<double, 3>& v) noexcept {
    // Zero times infinity or NaN is NaN.
    return v[0] * 0.0 + v[1] * 0.0 + v[2] * 0.0 == 0.0;
}

/// How a solve in one cell ended.
enum class Outcome {
    Found,
    Left,      // the iterate is outside of the cell
    NotFinite, // the iterate, or its image, is no number
    Limit,     // the iterate still is in the cell
};

/// A solve in one cell, step by step.
class LinearSolve {
public:
    LinearSolve(const point& target, const vector& cell, double precision) noexcept
        : myTarget(target), myLow(cell), myAt(myLow[0] + 0.5, myLow[1] + 0.5, myLow[2] + 0.5),
          myEnough(precision * precision) {}

    /// Sets the image of the start, the cell's centre; true when it is near enough.
    bool start(const point& image) noexcept {
        myImage = image;
        return normSquared(myTarget - myImage) <= myEnough;
    }
    /// One step with these derivatives. False when they are degenerate and the former inverse matrix was used.
    bool step(const vector (&column)[3]) noexcept {
        const bool isRegular = Orvix::tryInvert3x3(myInverse, column[0], column[1], column[2]);
        step(column, myInverse * (myTarget - myImage));
        return isRegular;
    }
    /// The same where the step is known.
    void step(const vector (&column)[3], const vector& move) noexcept {
        myAt += move;
        // Predicted, not evaluated again, on purpose: a good cell takes a single step.
        myImage += vector(column[0][0] * move[0] + column[1][0] * move[1] + column[2][0] * move[2],
                          column[0][1] * move[0] + column[1][1] * move[1] + column[2][1] * move[2],
                          column[0][2] * move[0] + column[1][2] * move[1] + column[2][2] * move[2]);
    }
    [[nodiscard]] bool isNumber() const noexcept { return isFinite(myAt) && isFinite(myImage); }
    [[nodiscard]] bool hasLeft() const noexcept {
        return myAt[0] < myLow[0] || myAt[0] > myLow[0] + 1.0 || myAt[1] < myLow[1] || myAt[1] > myLow[1] + 1.0 ||
               myAt[2] < myLow[2] || myAt[2] > myLow[2] + 1.0;
    }
    /// Whether another step is due.
    [[nodiscard]] bool isFar() const noexcept { return normSquared(myTarget - myImage) > myEnough; }
    [[nodiscard]] const point& at() const noexcept { return myAt; }

private:
    point myTarget;
    vector myLow;
    point myAt, myImage;
    double myEnough;
    Orvix::Quadratic<3, double> myInverse;
};

/// Steps after which a solve gives up.
inline constexpr int MaximalIterations = 102;

/// The whole solve, as `UniGridMapper::localCellCoordinatesFromCell` says. `tell` hears of it.
template<class Tell>
Outcome solveInCell(point& uvw, const point& P, const MultiIndex<3>& cell, const MultiArrayBase<3, point>& vertices,
                    double precision, Tell& tell) {
    LinearSolve solve(
        P, vector(static_cast<double>(cell[0]), static_cast<double>(cell[1]), static_cast<double>(cell[2])), precision);
    if (solve.start(interpolateAt(vertices, solve.at()))) {
        uvw = solve.at();
        return Outcome::Found;
    }
    const auto vectors = asVectors(vertices);
    int iterations = 0;
    do {
        const vector column[3] = {differentiateAt<0>(vectors, solve.at()), differentiateAt<1>(vectors, solve.at()),
                                  differentiateAt<2>(vectors, solve.at())};
        const bool isRegular = solve.step(column);
        if (!isRegular) tell.singularStep();
        if (!solve.isNumber()) {
            constexpr double nan = std::numeric_limits<double>::quiet_NaN();
            uvw = point(nan, nan, nan);
            return Outcome::NotFinite;
        }
        if (solve.hasLeft()) {
            uvw = solve.at();
            return Outcome::Left;
        }
        if (++iterations == MaximalIterations) {
            tell.gaveUp();
            return Outcome::Limit;
        }
        // Without any inverse matrix so far the step was zero, and all others are.
        if (!Tell::isHeard && !isRegular && iterations == 1) return Outcome::Limit;
    } while (solve.isFar());
    uvw = solve.at();
    return Outcome::Found;
}

/// What the first step of a solve comes to, where it is all there is to the solve or to its effect.
enum class FirstStep {
    Found,
    Left,
    NotFinite,
    Unfinished, // more steps, or messages
    Far,        // left, or not finite, and beyond what matters
};

/// How far from the centre of a cell a step may end to matter, along each axis and in cells.
struct StepRange {
    double below, above;
};
inline constexpr double unlimited = std::numeric_limits<double>::infinity();
inline constexpr StepRange Everywhere{unlimited, unlimited}, InNextCell{0.5, 1.5};

/// Whether the first step surely ends out of a range; without a division.
inline bool isOutside(const CentreFrame& frame, const point& P, const StepRange& range) noexcept {
    const vector offset = P - frame.centre;
    const vector normal[3] = {cross(frame.column[1], frame.column[2]), cross(frame.column[2], frame.column[0]),
                              cross(frame.column[0], frame.column[1])};
    const double det = dot(frame.column[0], normal[0]), size = std::fabs(det);
    if (size < Orvix::DegenerateDeterminant) return false;
    // The step times the determinant. Margins are far larger than rounding, also that of the sum with the index.
    constexpr double IndexMargin = 1e-5, ProductMargin = 1e-14;
    bool isOut = false;
    for (int d = 0; d < 3; ++d) {
        const double x = normal[d][0] * offset[0], y = normal[d][1] * offset[1], z = normal[d][2] * offset[2];
        const double error = ProductMargin * (std::fabs(x) + std::fabs(y) + std::fabs(z));
        const double step = std::copysign(1.0, det) * (x + y + z);
        isOut |=
            (step < -(range.below + IndexMargin) * size - error) | (step > (range.above + IndexMargin) * size + error);
    }
    return isOut;
}

/// What a first step that was made comes to.
inline FirstStep judgeStep(const LinearSolve& solve, point& uvw) noexcept {
    if (!solve.isNumber()) return FirstStep::NotFinite;
    uvw = solve.at();
    if (solve.hasLeft()) return FirstStep::Left;
    return solve.isFar() ? FirstStep::Unfinished : FirstStep::Found;
}

/// An index as a number. Signed ones are converted in one instruction.
inline vector numbersOf(const MultiIndex<3>& cell) noexcept {
    const auto number = [](index_t i) { return static_cast<double>(static_cast<std::int64_t>(i)); };
    return {number(cell[0]), number(cell[1]), number(cell[2])};
}

/// The first step in a cell of the block, bit for bit that of `solveInCell`. Most of those that end out of the range
/// cost no division.
[[gnu::flatten]] inline FirstStep firstStep(point& uvw, const point& P, const MultiIndex<3>& cell,
                                            const BlockVertices& vertices, double precision,
                                            const StepRange& range) noexcept {
    LinearSolve solve(P, numbersOf(cell), precision);
    const CentreFrame frame(vertices, vertices.address(cell));
    if (solve.start(frame.centre)) {
        uvw = solve.at();
        return FirstStep::Found;
    }
    if (range.below < unlimited && isOutside(frame, P, range)) return FirstStep::Far;
    if (!solve.step(frame.column)) return FirstStep::Unfinished;
    return judgeStep(solve, uvw);
}

/// The same in a cell that is regular, where the step is known: the inverse of the frame's columns times the way from
/// its centre.
inline FirstStep firstStep(point& uvw, const point& P, const MultiIndex<3>& cell, const CentreFrame& frame,
                           const vector& move, double precision) noexcept {
    LinearSolve solve(P, numbersOf(cell), precision);
    if (solve.start(frame.centre)) {
        uvw = solve.at();
        return FirstStep::Found;
    }
    solve.step(frame.column, move);
    return judgeStep(solve, uvw);
}

/// Whether the iterate of a solve that did not succeed counts as a near miss, in a block with this last vertex.
inline bool isNearMiss(const point& uvw, const MultiIndex<3>& cell, const MultiIndex<3>& last,
                       double epsilon) noexcept {
    const bool isNegative = uvw[0] < 0.0 || uvw[1] < 0.0 || uvw[2] < 0.0;
    for (int d = 0; d < 3; ++d) {
        if (!(uvw[d] > -epsilon && uvw[d] < static_cast<double>(last[d]) + epsilon)) return false;
        const double distance = (isNegative ? 0.0 : std::floor(uvw[d])) - static_cast<double>(cell[d]);
        if (distance != 0.0 && distance != 1.0) return false;
    }
    return true;
}

/// Whether a first step in a cell may end in a near miss, in a block with this last vertex, for some point
/// centre + sum of t_g edge_g, |t_g| <= 1.
inline bool mayMissNarrowly(const point& centre, const vector (&edge)[3], const MultiIndex<3>& cell,
                            const MultiIndex<3>& last, const BlockVertices& vertices, double epsilon) noexcept {
    const CentreFrame frame(vertices, vertices.address(cell));
    Orvix::Quadratic<3, double> inverse;
    // There is no first step in a degenerate cell.
    if (!Orvix::tryInvert3x3(inverse, frame.column[0], frame.column[1], frame.column[2])) return false;
    const vector middle = inverse * (centre - frame.centre);
    const vector sides[3] = {inverse * edge[0], inverse * edge[1], inverse * edge[2]};
    const bool isLowest = cell[0] + cell[1] + cell[2] == 0; // whose near misses are as far away as may be
    // Margins are far larger than rounding, also that of the sum with the index.
    constexpr double IndexMargin = 1e-5, ProductMargin = 1e-13;
    bool isOut = false;
    for (int d = 0; d < 3; ++d) {
        double half = IndexMargin + std::fabs(sides[0][d]) + std::fabs(sides[1][d]) + std::fabs(sides[2][d]);
        for (int e = 0; e < 3; ++e)
            half += ProductMargin * std::fabs(inverse(d, e)) *
                    (std::fabs(centre[e]) + std::fabs(frame.centre[e]) + std::fabs(edge[0][e]) + std::fabs(edge[1][e]) +
                     std::fabs(edge[2][e]));
        const double end = static_cast<double>(last[d] - cell[d]) - 0.5 + epsilon;
        const double below = isLowest ? 0.5 + epsilon : 0.5, above = isLowest ? end : std::min(1.5, end);
        isOut = isOut || middle[d] + half < -below || middle[d] - half > above;
    }
    return !isOut;
}

} // namespace Vantle::detail::linear
