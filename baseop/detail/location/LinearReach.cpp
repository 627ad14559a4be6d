#include <baseop/detail/location/LinearReach.hpp>
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
      myRounding(PositionRounding * parameters.farthest), mySums(static_cast<std::size_t>(vertices.size()[0]) * 9),
      myIsTrusted(static_cast<std::size_t>(vertices.cells()[0])) {}

void LinearReach::fill(std::size_t j, std::size_t k, const CellBoxTree::Row& row) {
    const auto n = static_cast<std::size_t>(myVertices.size()[0]);
    // Over the four vertices at each i: their sum, and the differences along j and k.
    double* const sums = mySums.data();
    for (int d = 0; d < 3; ++d) myVertices.sumAcrossRow<false>(j, k, d, sums + static_cast<std::size_t>(3 * d) * n);

    const bool isNearMiss = myEffect == Effect::NearMiss;
    constexpr double RimMargin = 1e-3;
    const double inside = isNearMiss ? 1.5 : 0.5, atEnd = isNearMiss ? 0.5 + Rim + RimMargin : 0.5;
    const double endJ = j + 1 < static_cast<std::size_t>(myVertices.cells()[1]) ? inside : atEnd;
    const double endK = k + 1 < static_cast<std::size_t>(myVertices.cells()[2]) ? inside : atEnd;
    unsigned char areTrusted = 1;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        double x[3], a[3], b[3], c[3];
        for (std::size_t d = 0; d < 3; ++d) {
            const double* const sum = sums + (3 * d) * n + i;
            x[d] = (sum[0] + sum[1]) * 0.125;
            a[d] = (sum[1] - sum[0]) * 0.25;
            b[d] = (sum[n] + sum[n + 1]) * 0.25;
            c[d] = (sum[2 * n] + sum[2 * n + 1]) * 0.25;
        }
        const double det = a[0] * (b[1] * c[2] - b[2] * c[1]) + a[1] * (b[2] * c[0] - b[0] * c[2]) +
                           a[2] * (b[0] * c[1] - b[1] * c[0]);
        const double aa = a[0] * a[0] + a[1] * a[1] + a[2] * a[2];
        const double bb = b[0] * b[0] + b[1] * b[1] + b[2] * b[2];
        const double cc = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
        const double product = aa * bb * cc, squared = det * det;
        const double shortest = std::min(std::min(aa, bb), cc);
        const double derivative = DerivativeRounding * myParameters.farthest;
        const bool isTrusted = (squared >= SmallestDeterminant * SmallestDeterminant) & (product < 1e300) &
                               (product <= MaximalSkewness * MaximalSkewness * squared) &
                               (100.0 * derivative * derivative * product <= shortest * squared);
        myIsTrusted[i] = isTrusted;
        areTrusted &= myIsTrusted[i];

        double largest = 0.0;
        for (std::size_t d = 0; d < 3; ++d)
            largest = std::max(largest, std::fabs(a[d]) + std::fabs(b[d]) + std::fabs(c[d]));
        const double slack = RelativeSlack * 4.0 * largest + myRounding;
        // From -1/2 to where near misses end, or the cell does.
        const double end[3] = {i + 2 < n ? inside : atEnd, endJ, endK};
        double half[3];
        for (std::size_t axis = 0; axis < 3; ++axis) half[axis] = 0.5 * end[axis] + 0.25;
        for (int d = 0; d < 3; ++d) {
            const double scale = myTree->scale(d);
            row.centre[d][i] =
                myTree->toFloat(x[d] + ((half[0] - 0.5) * a[d] + (half[1] - 0.5) * b[d] + (half[2] - 0.5) * c[d]), d);
            row.edge[0][d][i] = static_cast<float>(half[0] * scale * a[d]);
            row.edge[1][d][i] = static_cast<float>(half[1] * scale * b[d]);
            row.edge[2][d][i] = static_cast<float>(half[2] * scale * c[d]);
            row.slack[d][i] = static_cast<float>(scale * slack);
        }
    }
    if (isNearMiss && j == 0 && k == 0) {
        myIsTrusted[0] = 0;
        areTrusted = 0;
    }
    if (areTrusted) return;
    for (std::size_t i = 0; i + 1 < n; ++i)
        if (!myIsTrusted[i]) fillFromUnicells(i, j, k, row);
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
