#pragma once
/// The cell of the last position, for those that follow it.

#include <baseop/detail/location/CellBoxTree.hpp>
#include <baseop/detail/location/CellCandidates.hpp>
#include <baseop/detail/location/LinearSolve.hpp>
#include <baseop/detail/location/TrilinearCell.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace Vantle::detail {

/// A cell, its rivals, which are the cells before it in order that reach into it, and the part of it that none of them
/// reaches: a position there that the cell has needs no search. The part is all of the cell but a rim along its lower
/// faces, where curved neighbours overlap. In the rim, rivals are asked first.
///
/// Which these are is for the searches to say, by what their trees know of the cells: that holds in blocks that fold,
/// too.
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
        myMost = 0.5 + (precision ? Margin : Bend);
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
    /// Gathers the rivals among a tree's cells, and leaves out the narrowest rim that they keep to; false if there is
    /// none. Surroundings are those of the cell's box, if known.
    [[nodiscard]] bool findRivals(const CellBoxTree& tree, const MultiIndex<3>& cells,
                                  const CellBoxTree::Surroundings* surroundings) {
        if (!tree.gather(myRivals, regionIn(tree, -myMost), myCell.linear(cells), surroundings)) return false;
        for (const double rim : Rims) {
            myLeast = rim - 0.5;
            if (myRivals.leaveFree(regionIn(tree, myLeast))) return true;
        }
        return false;
    }
    /// Whether `isFree(least)`, which is about cells elsewhere, is true of all of the cell, or at least of the part or
    /// less.
    template<class F>
    [[nodiscard]] bool keepFree(const F& isFree) {
        myHasRim = isFree(-myMost);
        if (myHasRim) return true;
        for (const double rim : Rims) {
            if (rim - 0.5 < myLeast) continue;
            myLeast = rim - 0.5;
            if (isFree(myLeast)) return true;
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
    /// The box that all of it is in.
    [[nodiscard]] const point& lowest() const noexcept { return myCorners[0]; }
    [[nodiscard]] const point& highest() const noexcept { return myCorners[1]; }
    [[nodiscard]] const MultiIndex<3>& cell() const noexcept { return myCell; }

    /// Solves in the cell for a position of the part; false if there or elsewhere a search has to. So for NaN.
    [[nodiscard]] bool solveInPart(const point& P, point& uvw) noexcept {
        if (!isInBox(P)) return false;
        const vector at = myInverse * (P - myFrame->centre);
        if (!isFrom(myLeast, at)) return false;
        // The list of its unicell has the cell, since that has the position in its box.
        return myPrecision ? stepBy(at, P, uvw) == linear::FirstStep::Found : solve(P, uvw);
    }
    /// Whether the cell may have a position, and none but it and its rivals before it.
    [[nodiscard]] bool mayHave(const point& P) const noexcept {
        return myHasRim && isInBox(P) && isFrom(-myMost, myInverse * (P - myFrame->centre));
    }
    /// The cells that may have such a position, in their order, up to this one; false when there are too many.
    [[nodiscard]] bool addCandidates(const CellBoxTree& tree, const point& P,
                                     CellCandidates& candidates) const noexcept {
        tree.forEachAt(myRivals, P,
                       [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { candidates.add(i, j, k); });
        const auto at = [&](int d) { return static_cast<std::uint32_t>(myCell[d]); };
        candidates.add(at(0), at(1), at(2));
        return candidates.areAll();
    }
    /// The first step of the linear solve in the cell.
    [[nodiscard]] linear::FirstStep firstStep(const point& P, point& uvw) const noexcept {
        return stepBy(myInverse * (P - myFrame->centre), P, uvw);
    }
    /// The exact solve in the cell.
    [[nodiscard]] bool solve(const point& P, point& uvw) noexcept {
        myExact->lookFrom(P);
        return myExact->solveAt(myCell, uvw);
    }
    /// What of it is from there on along all axes.
    [[nodiscard]] CellBoxTree::Part partFrom(double least) const noexcept {
        const double half = 0.5 * (myMost - least) * (1.0 + Margin), middle = 0.5 * (myMost + least);
        CellBoxTree::Part part{myFrame->centre, {}};
        for (int g = 0; g < 3; ++g) {
            part.centre += myFrame->column[g] * middle;
            part.edge[g] = myFrame->column[g] * half;
        }
        return part;
    }
    /// The cell that has a position near this one, if cells go on like this one; it may be beyond the block.
    [[nodiscard]] MultiIndex<3> neighbourTowards(const point& P) const noexcept {
        const vector at = myInverse * (P - myFrame->centre);
        MultiIndex<3> cell = myCell;
        for (int d = 0; d < 3; ++d) cell[d] += at[d] < -0.5 ? ~index_t{0} : at[d] > 0.5 ? 1 : 0;
        return cell;
    }

private:
    /// What is worth trying, in cells: the narrow ones will do where cells are nearly parallelepipeds.
    static constexpr double Rims[] = {1.0 / 32.0, 1.0 / 8.0};
    /// How far beyond the faces some of a cell is, as exact solves see it: what bends has some corners there.
    static constexpr double Bend = 1.0 / 32.0;
    /// More than rounding of steps, in a cell that is not nearly degenerate, amounts to.
    static constexpr double Margin = 1e-6;

    [[nodiscard]] bool isInBox(const point& P) const noexcept {
        for (int d = 0; d < 3; ++d)
            if (!(P[d] >= myCorners[0][d] && P[d] <= myCorners[1][d])) return false;
        return true;
    }
    [[nodiscard]] bool isFrom(double least, const vector& at) const noexcept {
        return at[0] >= least && at[1] >= least && at[2] >= least && at[0] <= myMost && at[1] <= myMost &&
               at[2] <= myMost;
    }
    [[nodiscard]] linear::FirstStep stepBy(const vector& move, const point& P, point& uvw) const noexcept {
        return linear::firstStep(uvw, P, myCell, *myFrame, move, *myPrecision);
    }
    /// The same, as a tree sees it.
    [[nodiscard]] CellBoxTree::Region regionIn(const CellBoxTree& tree, double least) const noexcept {
        return tree.regionOf(partFrom(least));
    }

    MultiIndex<3> myCell;
    std::optional<double> myPrecision; // of linear solves
    std::optional<CentreFrame> myFrame;
    std::optional<TrilinearCell> myExact;
    Orvix::Quadratic<3, double> myInverse;
    double myLeast = 0.0, myMost = 0.0; // ends from the centre, in cells
    bool myHasRim = false;
    CellBoxTree::Rivals myRivals;
    point myCorners[2];
};

} // namespace Vantle::detail
