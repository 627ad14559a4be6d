#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/location/RowKernels.cpp"
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/location/RowKernels.hpp>

#include <cmath>
#include <limits>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

using Wide = hn::CappedTag<double, CellBoxTree::RowLanes>;
using Narrow = hn::Rebind<float, Wide>;
using Vector = hn::Vec<Wide>;

/// From `begin` on as long as there are whole vectors: calls `put(d, n, a, b, c, e)` with component d of vertex n, and
/// those that follow, of four rows. Where it has ended.
template<class Lanes, class Put>
HWY_INLINE std::size_t alongRows(Lanes lanes, const double* const (&vertices)[4], std::size_t begin, std::size_t count,
                                 const Put& put) {
    for (; begin + hn::Lanes(lanes) <= count; begin += hn::Lanes(lanes)) {
        hn::Vec<Lanes> a0, a1, a2, b0, b1, b2, c0, c1, c2, e0, e1, e2;
        hn::LoadInterleaved3(lanes, vertices[0] + 3 * begin, a0, a1, a2);
        hn::LoadInterleaved3(lanes, vertices[1] + 3 * begin, b0, b1, b2);
        hn::LoadInterleaved3(lanes, vertices[2] + 3 * begin, c0, c1, c2);
        hn::LoadInterleaved3(lanes, vertices[3] + 3 * begin, e0, e1, e2);
        put(0, begin, a0, b0, c0, e0);
        put(1, begin, a1, b1, c1, e1);
        put(2, begin, a2, b2, c2, e2);
    }
    return begin;
}

template<bool Both, class Lanes>
HWY_INLINE std::size_t sum(Lanes lanes, const double* const (&vertices)[4], std::size_t begin, std::size_t count,
                           double* sums, std::size_t pitch) {
    constexpr std::size_t Each = Both ? 4 : 3;
    return alongRows(lanes, vertices, begin, count,
                     [&](std::size_t d, std::size_t n, auto a, auto b, auto c, auto e) HWY_ATTR {
                         double* const to = sums + d * Each * pitch + n;
                         hn::StoreU(hn::Add(hn::Add(a, b), hn::Add(c, e)), lanes, to);
                         hn::StoreU(hn::Add(hn::Sub(b, a), hn::Sub(e, c)), lanes, to + pitch);
                         hn::StoreU(hn::Add(hn::Sub(c, a), hn::Sub(e, b)), lanes, to + 2 * pitch);
                         if constexpr (Both) hn::StoreU(hn::Sub(hn::Sub(e, c), hn::Sub(b, a)), lanes, to + 3 * pitch);
                     });
}

template<bool Both>
void sumRow(const double* const (&vertices)[4], std::size_t count, double* sums, std::size_t pitch) {
    const std::size_t whole = sum<Both>(Wide(), vertices, 0, count, sums, pitch);
    sum<Both>(hn::CappedTag<double, 1>(), vertices, whole, count, sums, pitch);
}
void sumRowOf3(const double* const (&vertices)[4], std::size_t count, double* sums, std::size_t pitch) {
    sumRow<false>(vertices, count, sums, pitch);
}
void sumRowOf4(const double* const (&vertices)[4], std::size_t count, double* sums, std::size_t pitch) {
    sumRow<true>(vertices, count, sums, pitch);
}

/// `CellBoxTree::toFloat`.
HWY_INLINE hn::Vec<Narrow> toFloat(Vector x, const CellBoxTree& tree, int axis) {
    const Wide lanes;
    const Vector least = hn::Set(lanes, -CellBoxTree::Farthest), most = hn::Set(lanes, CellBoxTree::Farthest);
    Vector scaled = hn::Mul(hn::Sub(x, hn::Set(lanes, tree.origin(axis))), hn::Set(lanes, tree.scale(axis)));
    scaled = hn::IfThenElse(hn::Lt(scaled, least), least, scaled);
    return hn::DemoteTo(Narrow(), hn::IfThenElse(hn::Lt(most, scaled), most, scaled));
}

void reach(const RowSums& sums, const LinearRow& about, const CellBoxTree& tree, const CellBoxTree::Row& row,
           float* trusted) {
    const Wide lanes;
    const Narrow floats;
    const auto number = [&](double x) HWY_ATTR { return hn::Set(lanes, x); };
    const auto plus = [](Vector a, Vector b, Vector c) HWY_ATTR { return hn::Add(hn::Add(a, b), c); };
    const auto larger = [](Vector a, Vector b) HWY_ATTR { return hn::IfThenElse(hn::Lt(a, b), b, a); };
    const auto smaller = [](Vector a, Vector b) HWY_ATTR { return hn::IfThenElse(hn::Lt(b, a), b, a); };
    const auto halfOf = [](double end) { return 0.5 * end + 0.25; };
    for (std::size_t i = 0; i < about.cells; i += hn::Lanes(lanes)) {
        const auto low = [&](int d, int q) HWY_ATTR { return hn::LoadU(lanes, sums.of[d][q] + i); };
        const auto high = [&](int d, int q) HWY_ATTR { return hn::LoadU(lanes, sums.of[d][q] + i + 1); };
        const auto centre = [&](int d) HWY_ATTR { return hn::Mul(hn::Add(low(d, 0), high(d, 0)), number(0.125)); };
        const auto along = [&](int d) HWY_ATTR { return hn::Mul(hn::Sub(high(d, 0), low(d, 0)), number(0.25)); };
        const auto across = [&](int d, int q)
                                HWY_ATTR { return hn::Mul(hn::Add(low(d, q), high(d, q)), number(0.25)); };
        const Vector a0 = along(0), a1 = along(1), a2 = along(2);
        const Vector b0 = across(0, 1), b1 = across(1, 1), b2 = across(2, 1);
        const Vector c0 = across(0, 2), c1 = across(1, 2), c2 = across(2, 2);
        const auto minor = [](Vector p, Vector q, Vector r, Vector s)
                               HWY_ATTR { return hn::Sub(hn::Mul(p, q), hn::Mul(r, s)); };
        const Vector det = plus(hn::Mul(a0, minor(b1, c2, b2, c1)), hn::Mul(a1, minor(b2, c0, b0, c2)),
                                hn::Mul(a2, minor(b0, c1, b1, c0)));
        const auto norm = [&](Vector x, Vector y, Vector z)
                              HWY_ATTR { return plus(hn::Mul(x, x), hn::Mul(y, y), hn::Mul(z, z)); };
        const Vector aa = norm(a0, a1, a2), bb = norm(b0, b1, b2), cc = norm(c0, c1, c2);
        const Vector product = hn::Mul(hn::Mul(aa, bb), cc), squared = hn::Mul(det, det);
        const Vector shortest = smaller(smaller(aa, bb), cc);
        const auto isTrusted =
            hn::And(hn::And(hn::Ge(squared, number(about.leastSquared)), hn::Lt(product, number(1e300))),
                    hn::And(hn::Le(product, hn::Mul(number(about.skewness), squared)),
                            hn::Le(hn::Mul(number(about.rounding), product), hn::Mul(shortest, squared))));
        hn::StoreU(hn::DemoteTo(floats, hn::IfThenElseZero(isTrusted, number(1.0))), floats, trusted + i);

        Vector largest = hn::Zero(lanes);
        const auto take = [&](Vector a, Vector b, Vector c)
                              HWY_ATTR { largest = larger(largest, plus(hn::Abs(a), hn::Abs(b), hn::Abs(c))); };
        take(a0, b0, c0);
        take(a1, b1, c1);
        take(a2, b2, c2);
        const Vector slack = hn::Add(hn::Mul(number(about.relativeSlack), largest), number(about.slack));
        const auto isLast =
            hn::Ge(hn::Iota(lanes, static_cast<double>(i)), number(static_cast<double>(about.cells - 1)));
        const Vector half0 = hn::IfThenElse(isLast, number(halfOf(about.last)), number(halfOf(about.inside)));
        const Vector half1 = number(halfOf(about.endJ)), half2 = number(halfOf(about.endK)), middle = number(0.5);
        const auto put = [&](int d, Vector a, Vector b, Vector c) HWY_ATTR {
            const Vector scale = number(tree.scale(d));
            const Vector shift = plus(hn::Mul(hn::Sub(half0, middle), a), hn::Mul(hn::Sub(half1, middle), b),
                                      hn::Mul(hn::Sub(half2, middle), c));
            hn::StoreU(toFloat(hn::Add(centre(d), shift), tree, d), floats, row.centre[d] + i);
            const auto edge = [&](int g, Vector half, Vector e) HWY_ATTR {
                hn::StoreU(hn::DemoteTo(floats, hn::Mul(hn::Mul(half, scale), e)), floats, row.edge[g][d] + i);
            };
            edge(0, half0, a);
            edge(1, half1, b);
            edge(2, half2, c);
            hn::StoreU(hn::DemoteTo(floats, hn::Mul(scale, slack)), floats, row.slack[d] + i);
        };
        put(0, a0, b0, c0);
        put(1, a1, b1, c1);
        put(2, a2, b2, c2);
    }
}

// More than rounding of the sums of a cell's corners amounts to, as a part of how far from 0 they are.
constexpr double SumRounding = 4.0 * std::numeric_limits<double>::epsilon();

void images(const RowSums& sums, std::size_t cells, double slack, const CellBoxTree& tree,
            const CellBoxTree::Row& row) {
    const Wide lanes;
    const Narrow floats;
    const Vector zero = hn::Zero(lanes), eighth = hn::Set(lanes, 0.125);
    const Vector nan = hn::Set(lanes, std::numeric_limits<double>::quiet_NaN());
    double rounding[3]; // in the tree; cells that reach farther have more slack
    for (int d = 0; d < 3; ++d) rounding[d] = SumRounding * (std::fabs(tree.origin(d)) * tree.scale(d) + 1.0);
    for (std::size_t i = 0; i < cells; i += hn::Lanes(lanes)) {
        Vector sides = zero;
        auto check = hn::Zero(floats);
        for (int d = 0; d < 3; ++d) {
            const Vector scale = hn::Set(lanes, tree.scale(d));
            const auto low = [&](int q) HWY_ATTR { return hn::LoadU(lanes, sums.of[d][q] + i); };
            const auto high = [&](int q) HWY_ATTR { return hn::LoadU(lanes, sums.of[d][q] + i + 1); };
            // A sum of numbers may be too large for one; differences of corners that are numbers hardly are.
            const Vector centre = hn::Mul(hn::Add(low(0), high(0)), eighth);
            const auto isNumber = hn::Eq(hn::Mul(centre, zero), zero);
            const auto at = toFloat(hn::IfThenElse(isNumber, centre, nan), tree, d);
            hn::StoreU(at, floats, row.centre[d] + i);
            const auto finite = hn::Mul(at, hn::Zero(floats));
            check = d == 0 ? finite : hn::Add(check, finite);
            const auto put = [&](int g, Vector edge) HWY_ATTR {
                const auto scaled = hn::DemoteTo(floats, hn::Mul(hn::Mul(edge, eighth), scale));
                hn::StoreU(scaled, floats, row.edge[g][d] + i);
                if (g < 3) sides = hn::Add(sides, hn::Div(hn::Abs(hn::PromoteTo(lanes, scaled)), scale));
            };
            put(0, hn::Sub(high(0), low(0)));
            put(1, hn::Add(low(1), high(1)));
            put(2, hn::Add(low(2), high(2)));
            put(3, hn::Sub(high(1), low(1)));
            put(4, hn::Sub(high(2), low(2)));
            put(5, hn::Add(low(3), high(3)));
            put(6, hn::Sub(high(3), low(3)));
        }
        for (int d = 0; d < 3; ++d) {
            const Vector width = hn::Add(hn::Mul(hn::Mul(hn::Set(lanes, slack), sides), hn::Set(lanes, tree.scale(d))),
                                         hn::Set(lanes, rounding[d]));
            hn::StoreU(hn::DemoteTo(floats, width), floats, row.slack[d] + i);
            hn::StoreU(hn::Add(hn::LoadU(floats, row.centre[d] + i), check), floats, row.centre[d] + i);
        }
    }
}

/// Bounds by axis, `pitch` apart.
template<class Lanes>
HWY_INLINE std::size_t bound(Lanes lanes, const double* const (&vertices)[4], std::size_t begin, std::size_t count,
                             double* lows, double* highs, std::size_t pitch) {
    return alongRows(lanes, vertices, begin, count,
                     [&](std::size_t d, std::size_t n, auto a, auto b, auto c, auto e) HWY_ATTR {
                         // All are numbers, and zeros of both signs have the same unicell.
                         hn::StoreU(hn::Min(hn::Min(a, b), hn::Min(c, e)), lanes, lows + d * pitch + n);
                         hn::StoreU(hn::Max(hn::Max(a, b), hn::Max(c, e)), lanes, highs + d * pitch + n);
                     });
}

void ranges(const double* const (&vertices)[4], std::size_t cells, const UnicellAxis (&axes)[3], double* lows,
            double* highs, int* result, std::size_t pitch) {
    const Wide lanes;
    const hn::Rebind<int, Wide> integers;
    const std::size_t whole = bound(lanes, vertices, 0, cells + 1, lows, highs, pitch);
    bound(hn::CappedTag<double, 1>(), vertices, whole, cells + 1, lows, highs, pitch);
    for (std::size_t d = 0; d < 3; ++d) {
        const UnicellAxis& axis = axes[d];
        const Vector lowest = hn::Set(lanes, axis.lowest), highest = hn::Set(lanes, axis.highest),
                     size = hn::Set(lanes, axis.size), last = hn::Set(lanes, static_cast<double>(axis.last));
        // What `Unigrid::indexOf` gives for coordinates within the box, whose quotients are neither negative nor larger
        // than the last unicell by more than rounding.
        const auto put = [&](std::size_t piece, std::size_t i, Vector x) HWY_ATTR {
            const Vector quotient = hn::Min(hn::Div(hn::Sub(x, lowest), size), last);
            const Vector unicell = hn::IfThenElse(hn::Ge(x, highest), last, quotient);
            hn::StoreU(hn::DemoteTo(integers, unicell), integers, result + piece * pitch + i);
        };
        const double* const low = lows + d * pitch;
        const double* const high = highs + d * pitch;
        for (std::size_t i = 0; i < cells; i += hn::Lanes(lanes)) {
            put(d, i, hn::Min(hn::LoadU(lanes, low + i), hn::LoadU(lanes, low + i + 1)));
            put(3 + d, i, hn::Max(hn::LoadU(lanes, high + i), hn::LoadU(lanes, high + i + 1)));
        }
    }
}

template<class Lanes>
HWY_INLINE std::size_t addUpFrom(Lanes lanes, std::size_t begin, const std::uint32_t* added, std::size_t count,
                                 std::uint32_t* sums, std::uint32_t* most) {
    for (; begin + hn::Lanes(lanes) <= count; begin += hn::Lanes(lanes)) {
        const auto sum = hn::Add(hn::LoadU(lanes, sums + begin), hn::LoadU(lanes, added + begin));
        hn::StoreU(sum, lanes, sums + begin);
        hn::StoreU(hn::Max(hn::LoadU(lanes, most + begin), sum), lanes, most + begin);
    }
    return begin;
}

void addLine(const std::uint32_t* added, std::size_t count, std::uint32_t* sums, std::uint32_t* most) {
    const std::size_t whole = addUpFrom(hn::ScalableTag<std::uint32_t>(), 0, added, count, sums, most);
    addUpFrom(hn::CappedTag<std::uint32_t, 1>(), whole, added, count, sums, most);
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(sumRowOf3);
HWY_EXPORT(sumRowOf4);
HWY_EXPORT(reach);
HWY_EXPORT(images);
HWY_EXPORT(ranges);
HWY_EXPORT(addLine);

template<bool Both>
RowSums sumAcrossRow(const double* const (&vertices)[4], std::size_t count, double* sums, std::size_t pitch) {
    if constexpr (Both)
        HWY_DYNAMIC_DISPATCH(sumRowOf4)(vertices, count, sums, pitch);
    else
        HWY_DYNAMIC_DISPATCH(sumRowOf3)(vertices, count, sums, pitch);
    RowSums result = {};
    constexpr std::size_t Each = Both ? 4 : 3;
    for (std::size_t d = 0; d < 3; ++d)
        for (std::size_t q = 0; q < Each; ++q) result.of[d][q] = sums + (d * Each + q) * pitch;
    return result;
}
template RowSums sumAcrossRow<false>(const double* const (&)[4], std::size_t, double*, std::size_t);
template RowSums sumAcrossRow<true>(const double* const (&)[4], std::size_t, double*, std::size_t);

void fillReach(const RowSums& sums, const LinearRow& about, const CellBoxTree& tree, const CellBoxTree::Row& row,
               float* trusted) {
    HWY_DYNAMIC_DISPATCH(reach)(sums, about, tree, row, trusted);
}

void fillImages(const RowSums& sums, std::size_t cells, double slack, const CellBoxTree& tree,
                const CellBoxTree::Row& row) {
    HWY_DYNAMIC_DISPATCH(images)(sums, cells, slack, tree, row);
}

void fillRanges(const double* const (&vertices)[4], std::size_t cells, const UnicellAxis (&axes)[3], double* lows,
                double* highs, int* result, std::size_t pitch) {
    HWY_DYNAMIC_DISPATCH(ranges)(vertices, cells, axes, lows, highs, result, pitch);
}

void addUp(const std::uint32_t* added, std::size_t count, std::uint32_t* sums, std::uint32_t* most) {
    HWY_DYNAMIC_DISPATCH(addLine)(added, count, sums, most);
}

} // namespace Vantle::detail

#endif
