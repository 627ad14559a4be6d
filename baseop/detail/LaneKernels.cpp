#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/LaneKernels.cpp"
#include <baseop/detail/LaneKernels.hpp>
#include <baseop/detail/Lanes.hpp>

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

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(measure);
HWY_EXPORT(interleave);

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

} // namespace Vantle::detail

#endif
