#pragma once
/// The first steps of linear solves, many at a time in vector lanes of the widest kind that the processor has; the bits
/// are the same in each.

#include <baseop/detail/location/CellBoxTree.hpp>
#include <baseop/detail/location/LinearSolve.hpp>

#include <span>

namespace Vantle::detail::linear {

/// Where a first step ended, if it has found the point, and what it comes to.
struct StepEnd {
    double at[3]; // many of these are made and few are used
    FirstStep outcome;
};

/// Makes the first step in each cell for its point: `ends[c]` is, to the bit, what `firstStep` says of `cells[c]`, but
/// that what is not finite counts as left, and that `at` is of no meaning where nothing is found.
void makeFirstSteps(const BlockVertices& vertices, std::span<const CellBoxTree::Matches::Cell> cells,
                    std::span<const point> points, double precision, std::span<StepEnd> ends);

} // namespace Vantle::detail::linear
