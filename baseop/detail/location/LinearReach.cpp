#include <baseop/detail/location/LinearReach.hpp>
#include <baseop/detail/location/RowKernels.hpp>
#include <model/orvix/CellMap.hpp>

#include <cmath>
#include <limits>

namespace Vantle::detail {

namespace {

// Columns of lengths |a|, |b|, |c| with |a||b||c| <= MaximalSkewness |det| are inverted with errors of at most about
// 20 * 2.2e-16 * MaximalSkewness in each coordinate, measured in the lengths of the columns. RelativeSlack, by which
// boxes are widened in terms of their largest side, is ten times what such errors amount to.
constexpr double MaximalSkewness = 1e6;
constexpr double RelativeSlack = 1e-6;
// Roundings of positions, in units of the largest coordinate: the kernels', and those of the sums used here instead.
constexpr double PositionRounding = 128 * 2.220446049250313e-16;
// Rounding moves the derivatives themselves, in proportion to the length of the shortest column.
constexpr double DerivativeRounding = 16 * 2.220446049250313e-16;
// Twice the bound, since the determinant used here is rounded differently.
constexpr double SmallestDeterminant = 2.0 * Orvix::DegenerateDeterminant;

} // namespace

LinearReach::LinearReach(const BlockVertices& vertices, const CellBoxTree& tree, Effect effect,
                         const LinearReachParameters& parameters)
    : myVertices(vertices), myTree(&tree), myEffect(effect), myParameters(parameters),
      myRounding(PositionRounding * parameters.farthest), myPitch(CellBoxTree::roomFor(vertices.size()[0])),
      mySums(9 * myPitch), myTrusted(myPitch) {}

void LinearReach::fill(std::size_t j, std::size_t k, const CellBoxTree::Row& row) {
    const bool isNearMiss = myEffect == Effect::NearMiss;
    constexpr double RimMargin = 1e-3;
    const double inside = isNearMiss ? 1.5 : 0.5, last = isNearMiss ? 0.5 + Rim + RimMargin : 0.5;
    const double derivative = DerivativeRounding * myParameters.farthest;
    const auto cells = static_cast<std::size_t>(myVertices.cells()[0]);
    const LinearRow about{cells,
                          inside,
                          last,
                          j + 1 < static_cast<std::size_t>(myVertices.cells()[1]) ? inside : last,
                          k + 1 < static_cast<std::size_t>(myVertices.cells()[2]) ? inside : last,
                          SmallestDeterminant * SmallestDeterminant,
                          MaximalSkewness * MaximalSkewness,
                          100.0 * derivative * derivative,
                          RelativeSlack * 4.0,
                          myRounding};
    const RowSums sums = sumAcrossRow<false>(myVertices.rowsAround(j, k, myRows).of, cells + 1, mySums.data(), myPitch);
    fillReach(sums, about, *myTree, row, myTrusted.data());
    if (isNearMiss && j == 0 && k == 0) myTrusted[0] = 0.0F;
    for (std::size_t i = 0; i < cells; ++i)
        if (myTrusted[i] == 0.0F) fillFromUnicells(i, j, k, row);
}

void LinearReach::fillFromUnicells(std::size_t i, std::size_t j, std::size_t k, const CellBoxTree::Row& row) const {
    const double* const lowest = myVertices.address(i, j, k);
    bool isFinite = true;
    for (int d = 0; d < 3; ++d) {
        double low = lowest[d], high = lowest[d];
        for (int q = 0; q < 8; ++q) {
            const double c = myVertices.corner(lowest, q)[d];
            isFinite &= std::isfinite(c);
            low = std::min(low, c);
            high = std::max(high, c);
        }
        const double slack = myParameters.unicellSize[d] * (1.0 + RelativeSlack) + myRounding;
        row.centre[d][i] = myTree->toFloat(0.5 * low + 0.5 * high, d);
        for (int edge = 0; edge < 3; ++edge) row.edge[edge][d][i] = 0.0F;
        row.slack[d][i] = static_cast<float>(myTree->scale(d) * (0.5 * high - 0.5 * low + slack));
    }
    if (isFinite) return;
    for (int d = 0; d < 3; ++d) row.centre[d][i] = std::numeric_limits<float>::quiet_NaN();
}

} // namespace Vantle::detail
