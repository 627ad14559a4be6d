#pragma once
/// The cell of the last position, for those that follow it.

#include <baseop/detail/location/CellBoxTree.hpp>
#include <baseop/detail/location/LinearSolve.hpp>
#include <baseop/detail/location/TrilinearCell.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace Vantle::detail {

/// A cell, and the part of it that no cell before it in order reaches: a position there that the cell has needs no
/// search. The part is all of the cell but a rim along its lower faces, where curved neighbours overlap.
///
/// Whether the part is free is for the searches to say, by what their trees know of the cells: that holds in blocks
/// that fold, too.
class HomeCell {
public:
    using point = Orvix::PhysicalSpace::point;
    using vector = Orvix::PhysicalSpace::vector;

    /// Moves to a cell of a block; false when it is degenerate, or so nearly that rounding matters. Solves are
    /// linear ones that end at this distance, or exact.
    [[nodiscard]] bool moveTo(const BlockVertices& vertices, const MultiIndex<3>& cell,
                              std::optional<double> precision = {}) {
        const double* const lowest = vertices.address(cell);
        myCell = cell;
        myPrecision = precision;
        myFrame.emplace(vertices, lowest);
        if (!precision) myExact.emplace(vertices, lowest);
        myCorners[0] = myCorners[1] = vertices.point(lowest);
        for (int q = 1; q < 8; ++q)
            for (int d = 0; d < 3; ++d) {
                myCorners[0][d] = std::min(myCorners[0][d], vertices.corner(lowest, q)[d]);
                myCorners[1][d] = std::max(myCorners[1][d], vertices.corner(lowest, q)[d]);
            }
        const vector(&column)[3] = myFrame->column;
        if (!Orvix::tryInvert3x3(myInverse, column[0], column[1], column[2])) return false;
        const double squares[3] = {normSquared(column[0]), normSquared(column[1]), normSquared(column[2])};
        const double det = dot(column[0], cross(column[1], column[2]));
        const double skewness = squares[0] * squares[1] * squares[2] / (det * det); // squared, 1 for a box
        double farthest = 0.0;
        for (int d = 0; d < 3; ++d)
            farthest = std::max({farthest, std::fabs(myCorners[0][d]), std::fabs(myCorners[1][d])});
        const double error = 256.0 * std::numeric_limits<double>::epsilon() * farthest;
        return error * error * skewness < Margin * Margin * *std::min_element(squares, squares + 3);
    }
    /// Leaves out the narrowest rim with which `isFree()` is true of the part; false if there is none.
    template<class F>
    [[nodiscard]] bool findRim(const F& isFree) {
        for (const double rim : {NarrowRim, WideRim}) {
            myLeast = rim - 0.5;
            if (isFree()) return true;
        }
        return false;
    }
    /// Keeps to a box; false if nothing is left.
    bool cutTo(const point& lowest, const point& highest) noexcept {
        bool isAny = true;
        for (int d = 0; d < 3; ++d) {
            myCorners[0][d] = std::max(myCorners[0][d], lowest[d]);
            myCorners[1][d] = std::min(myCorners[1][d], highest[d]);
            isAny &= myCorners[0][d] <= myCorners[1][d];
        }
        return isAny;
    }
    /// The box that all of the part is in.
    [[nodiscard]] const point& lowest() const noexcept { return myCorners[0]; }
    [[nodiscard]] const point& highest() const noexcept { return myCorners[1]; }
    [[nodiscard]] const MultiIndex<3>& cell() const noexcept { return myCell; }

    /// Whether a position is in the part; false for NaN.
    [[nodiscard]] bool has(const point& P) const noexcept {
        for (int d = 0; d < 3; ++d)
            if (!(P[d] >= myCorners[0][d] && P[d] <= myCorners[1][d])) return false;
        const vector at = myInverse * (P - myFrame->centre);
        return at[0] >= myLeast && at[1] >= myLeast && at[2] >= myLeast && at[0] <= Most && at[1] <= Most &&
               at[2] <= Most;
    }
    /// Whether a tree's cells before number `end` leave the part free.
    [[nodiscard]] bool isFreeOf(const CellBoxTree& tree, index_t end) const {
        CellBoxTree::Region region;
        const double half = 0.5 * (Most - myLeast) * (1.0 + Margin), middle = 0.5 * (Most + myLeast);
        for (int d = 0; d < 3; ++d) {
            double centre = myFrame->centre[d];
            for (int g = 0; g < 3; ++g) {
                centre += middle * myFrame->column[g][d];
                region.edge[g][d] = static_cast<float>(half * myFrame->column[g][d] * tree.scale(d));
            }
            region.centre[d] = tree.toFloat(centre, d);
        }
        return tree.isFree(region, end);
    }
    /// Solves in the cell for a position of the part; false if a search has to.
    [[nodiscard]] bool solve(const point& P, point& uvw) noexcept {
        // The list of its unicell has the cell, since that has the position in its box.
        if (myPrecision)
            return linear::firstStep(uvw, P, myCell, *myFrame, myInverse, *myPrecision) == linear::FirstStep::Found;
        myExact->lookFrom(P);
        return myExact->solveAt(myCell, uvw);
    }
    /// The cell that has a position near this one, if cells go on like this one; it may be beyond the block.
    [[nodiscard]] MultiIndex<3> neighbourTowards(const point& P) const noexcept {
        const vector at = myInverse * (P - myFrame->centre);
        MultiIndex<3> cell = myCell;
        for (int d = 0; d < 3; ++d) cell[d] += at[d] < -0.5 ? ~index_t{0} : at[d] > 0.5 ? 1 : 0;
        return cell;
    }

private:
    /// What is worth trying, in cells: the narrow one will do where cells are nearly parallelepipeds.
    static constexpr double NarrowRim = 1.0 / 32.0, WideRim = 1.0 / 8.0;
    /// Ends of the part from the cell's centre, in cells, beyond the upper faces: what bends has some corners there.
    static constexpr double Most = 0.5 + NarrowRim;
    /// More than rounding in `has`, of a cell that is not nearly degenerate, amounts to.
    static constexpr double Margin = 1e-6;

    MultiIndex<3> myCell;
    std::optional<double> myPrecision; // of linear solves
    std::optional<CentreFrame> myFrame;
    std::optional<TrilinearCell> myExact;
    Orvix::Quadratic<3, double> myInverse;
    double myLeast = 0.0;
    point myCorners[2];
};

} // namespace Vantle::detail
