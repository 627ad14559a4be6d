#pragma once
/// What the cells of one row are like, in vector lanes of the widest kind that the processor has; the bits are the same
/// in each.

#include <baseop/detail/location/CellBoxTree.hpp>

#include <cstddef>
#include <cstdint>

namespace Vantle::detail {

/// Of one coordinate d of the four vertices at each i of a row of cells: the sum, and the differences along j, along k
/// and along both.
struct RowSums {
    const double* of[3][4];
};

/// What `LinearReach` is about, for one row.
struct LinearRow {
    std::size_t cells;
    /// Ends of what matters, from the centre of a cell: on axis i in all cells but the last, in the last; on j, on k.
    double inside, last, endJ, endK;
    /// A cell is trusted if squared >= leastSquared, product < 1e300, product <= skewness * squared,
    /// rounding * product <= shortest * squared: of its determinant and of its edges.
    double leastSquared, skewness, rounding;
    double relativeSlack, slack;
};

/// Numbers of unicells along one axis.
struct UnicellAxis {
    double lowest, highest, size; // the size is positive
    int last;
};

/// The first and the last unicell, by axis, that the boxes of a row of `cells` cells touch, from the rows of vertices
/// around it, which are within the unigrid. `lows` and `highs` have room for `CellBoxTree::roomFor(cells + 1)` numbers;
/// each of six pieces of `ranges`, `pitch` apart, for `CellBoxTree::roomFor(cells)`: first ones by axis, then last
/// ones.
void fillRanges(const double* const (&vertices)[4], std::size_t cells, const UnicellAxis (&axes)[3], double* lows,
                double* highs, int* ranges, std::size_t pitch);

/// Adds to sums, and keeps the greatest of each so far.
void addUp(const std::uint32_t* added, std::size_t count, std::uint32_t* sums, std::uint32_t* most);

/// Sums of rows of vertices without gaps; `Both` with the last difference. `sums` has room for 12 arrays, `pitch`
/// numbers apart, and `pitch` is at least `CellBoxTree::roomFor(vertices)`.
template<bool Both>
RowSums sumAcrossRow(const double* const (&vertices)[4], std::size_t count, double* sums, std::size_t pitch);

/// The parallelepipeds at the centres of the cells, and 1 or 0 in `trusted` for each.
void fillReach(const RowSums& sums, const LinearRow& about, const CellBoxTree& tree, const CellBoxTree::Row& row,
               float* trusted);
/// The sets that the images of the cells lie in, widened by `slack` of the lengths of their edges, and by rounding
/// where cells are far from 0. Those with a corner that is no number are empty.
void fillImages(const RowSums& sums, std::size_t cells, double slack, const CellBoxTree& tree,
                const CellBoxTree::Row& row);

} // namespace Vantle::detail
