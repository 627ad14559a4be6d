#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/LaneKernels.cpp"
#include <baseop/Interpolate.hpp>
#include <baseop/detail/LaneKernels.hpp>
#include <baseop/detail/Lanes.hpp>

#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

void measure(const double* x, const double* y, const double* z, std::size_t count, double* lengths,
             double* reciprocals) {
    const hn::CappedTag<double, MostLanes> lanes;
    const auto zero = hn::Zero(lanes), one = hn::Set(lanes, 1.0);
    for (std::size_t i = 0; i < count; i += hn::Lanes(lanes)) {
        const auto vx = hn::LoadU(lanes, x + i), vy = hn::LoadU(lanes, y + i), vz = hn::LoadU(lanes, z + i);
        const auto ax = hn::Abs(vx), ay = hn::Abs(vy), az = hn::Abs(vz);
        const auto axy = hn::IfThenElse(hn::Gt(ax, ay), ax, ay);
        const auto m = hn::IfThenElse(hn::Gt(axy, az), axy, az);
        const auto qx = hn::Div(vx, m), qy = hn::Div(vy, m), qz = hn::Div(vz, m);
        const auto squares = hn::Add(hn::Add(hn::Mul(qx, qx), hn::Mul(qy, qy)), hn::Mul(qz, qz));
        // Not m: that is 0 for (NaN, 0, 0) as well.
        const auto isNull = hn::Eq(hn::Add(hn::Add(ax, ay), az), zero);
        const auto size = hn::IfThenZeroElse(isNull, hn::Mul(m, hn::Sqrt(squares)));
        hn::StoreU(size, lanes, lengths + i);
        if (reciprocals) hn::StoreU(hn::Div(one, size), lanes, reciprocals + i);
    }
}

// The last row comes from memory, when rows are taken in order: it is asked for before, across the end of the row.
void interleave(const RowDifference (&rows)[3], std::size_t count, double* target) {
    constexpr std::size_t Ahead = 384;
    const hn::ScalableTag<double> lanes;
    const auto take = [&](std::size_t i) HWY_ATTR {
        __builtin_prefetch(rows[2].high + i + Ahead);
        const auto of = [&](const RowDifference& row) HWY_ATTR {
            return hn::Mul(hn::Sub(hn::LoadU(lanes, row.high + i), hn::LoadU(lanes, row.low + i)),
                           hn::Set(lanes, row.factor));
        };
        hn::StoreInterleaved3(of(rows[0]), of(rows[1]), of(rows[2]), lanes, target + 3 * i);
    };
    std::size_t i = 0;
    for (; i + hn::Lanes(lanes) <= count; i += hn::Lanes(lanes)) take(i);
    if (i == count) return;
    if (count >= hn::Lanes(lanes)) return take(count - hn::Lanes(lanes)); // some a second time
    for (; i < count; ++i)
        for (std::size_t d = 0; d < 3; ++d) target[3 * i + d] = (rows[d].high[i] - rows[d].low[i]) * rows[d].factor;
}

void divide(const double* x, std::size_t count, const double (&origin)[3], const double (&spacing)[3], double* target) {
    const hn::CappedTag<double, MostLanes> lanes;
    double origins[3 * MostLanes], spacings[3 * MostLanes];
    for (std::size_t n = 0; n < 3 * MostLanes; ++n) origins[n] = origin[n % 3], spacings[n] = spacing[n % 3];
    const std::size_t width = hn::Lanes(lanes);
    std::size_t n = 0;
    for (; n + 3 * width <= count; n += 3 * width)
        for (std::size_t v = 0; v < 3 * width; v += width) {
            const auto difference = hn::Sub(hn::LoadU(lanes, x + n + v), hn::LoadU(lanes, origins + v));
            hn::StoreU(hn::Div(difference, hn::LoadU(lanes, spacings + v)), lanes, target + n + v);
        }
    for (; n < count; ++n) target[n] = (x[n] - origin[n % 3]) / spacing[n % 3];
}

// Weights and sums in lanes; corners are read one by one, which is faster than gathering them.
void interpolate(const MultiArrayBase<3, double>& view, const Orvix::FixedArray<double, 3>* at, std::size_t count,
                 double* values) {
    const hn::CappedTag<double, MostLanes> lanes;
    const hn::Rebind<std::int32_t, decltype(lanes)> offsets;
    using Vector = hn::Vec<decltype(lanes)>;
    const MultiIndex<3>& size = view.Size();
    const double* const elements = view.storage();
    const index_t stepI = view.stride(), stepJ = stepI * size[0], stepK = stepJ * size[1];
    const auto number = [&](double x) HWY_ATTR { return hn::Set(lanes, x); };
    struct Weights {
        Vector node, lower, upper;
    };
    std::size_t m = 0;
    for (; m + hn::Lanes(lanes) <= count; m += hn::Lanes(lanes)) {
        Vector x = hn::Zero(lanes), y = x, z = x;
        hn::LoadInterleaved3(lanes, &at[m][0], x, y, z);
        // As `InterpolationStep::above`.
        const auto weigh = [&](Vector index) HWY_ATTR {
            const Vector node = hn::Trunc(index);
            return Weights{node, hn::Add(hn::Sub(number(1.0), index), node), hn::Sub(index, node)};
        };
        const Weights i = weigh(x), j = weigh(y), k = weigh(z);
        const auto isBetween = [&](const Weights& w, int d) HWY_ATTR {
            const Vector safe = number(InterpolationStep::SafeWeight);
            return hn::And(hn::And(hn::Gt(w.lower, safe), hn::Gt(w.upper, safe)),
                           hn::And(hn::Ge(w.node, hn::Zero(lanes)), hn::Lt(w.node, number(double(size[d]) - 1.0))));
        };
        const auto areSafe = hn::And(hn::And(isBetween(i, 0), isBetween(j, 1)), isBetween(k, 2));
        const auto along = [&](const Weights& w, index_t step)
                               HWY_ATTR { return hn::Mul(w.node, number(static_cast<double>(step))); };
        const Vector offset =
            hn::IfThenElseZero(areSafe, hn::Add(hn::Add(along(i, stepI), along(j, stepJ)), along(k, stepK)));
        std::int32_t first[MostLanes];
        hn::StoreU(hn::DemoteTo(offsets, offset), offsets, first);
        double corners[8][MostLanes];
        for (std::size_t lane = 0; lane < hn::Lanes(lanes); ++lane) {
            const double *const a = elements + first[lane], *const b = a + stepJ, *const c = a + stepK,
                                *const d = b + stepK;
            corners[0][lane] = a[0], corners[1][lane] = a[stepI];
            corners[2][lane] = b[0], corners[3][lane] = b[stepI];
            corners[4][lane] = c[0], corners[5][lane] = c[stepI];
            corners[6][lane] = d[0], corners[7][lane] = d[stepI];
        }
        const auto between = [](Vector lower, Vector upper, const Weights& w)
                                 HWY_ATTR { return hn::Add(hn::Mul(lower, w.lower), hn::Mul(upper, w.upper)); };
        const auto row = [&](std::size_t c) HWY_ATTR {
            return between(hn::LoadU(lanes, corners[c]), hn::LoadU(lanes, corners[c + 1]), i);
        };
        const Vector low = between(row(0), row(2), j), high = between(row(4), row(6), j);
        hn::StoreU(between(low, high, k), lanes, values + m);
        if (!hn::AllTrue(lanes, areSafe)) [[unlikely]] {
            std::uint8_t safe[MostLanes] = {};
            hn::StoreMaskBits(lanes, areSafe, safe);
            for (std::size_t lane = 0; lane < hn::Lanes(lanes); ++lane)
                if ((safe[0] >> lane & 1) == 0)
                    values[m + lane] = Interpolate<3, double>(view, at[m + lane]).evaluate();
        }
    }
    for (; m < count; ++m) values[m] = Interpolate<3, double>(view, at[m]).evaluate();
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(measure);
HWY_EXPORT(interleave);
HWY_EXPORT(divide);
HWY_EXPORT(interpolate);

void lengthsOf(const double* x, const double* y, const double* z, std::size_t count, double* lengths) {
    HWY_DYNAMIC_DISPATCH(measure)(x, y, z, count, lengths, nullptr);
}

void lengthsOf(const double* x, const double* y, const double* z, std::size_t count, double* lengths,
               double* reciprocals) {
    HWY_DYNAMIC_DISPATCH(measure)(x, y, z, count, lengths, reciprocals);
}

void interleaveDifferences(const RowDifference (&rows)[3], std::size_t count, double* target) {
    HWY_DYNAMIC_DISPATCH(interleave)(rows, count, target);
}

void divideByThrees(const double* x, std::size_t count, const double (&origin)[3], const double (&spacing)[3],
                    double* target) {
    HWY_DYNAMIC_DISPATCH(divide)(x, count, origin, spacing, target);
}

void interpolateAll(const MultiArrayBase<3, double>& view, const Orvix::FixedArray<double, 3>* at, std::size_t count,
                    double* values) {
    // Offsets of elements are numbers of 32 bits there, and a cell has eight corners.
    const MultiIndex<3>& size = view.Size();
    bool isPlain = !view.dataCreator() && size[0] > 1 && size[1] > 1 && size[2] > 1;
    index_t most = view.stride();
    for (int d = 0; isPlain && d < 3; ++d) {
        isPlain = size[d] <= (index_t{1} << 31) / most;
        most *= size[d];
    }
    if (isPlain) return HWY_DYNAMIC_DISPATCH(interpolate)(view, at, count, values);
    for (std::size_t m = 0; m < count; ++m) values[m] = Interpolate<3, double>(view, at[m]).evaluate();
}

} // namespace Vantle::detail

#endif
