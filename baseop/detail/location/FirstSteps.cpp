#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/location/FirstSteps.cpp"
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/location/FirstSteps.hpp>

#include <algorithm>

#ifndef VANTLE_FIRST_STEPS_ROWS
#    define VANTLE_FIRST_STEPS_ROWS

namespace Vantle::detail::linear {

namespace {

/// Numbers of some steps, one beside the other.
struct StepRows {
    static constexpr std::size_t Most = 32, Lanes = 8;
    double corner[8][3][Most]; // by number; of the first four, in the end, the image of the centre and the derivatives
    double target[3][Most];
    double lowest[3][Most]; // index of the cell
    double at[3][Most], outcome[Most];
};

constexpr double Found = 0.0, Left = 1.0, Unfinished = 2.0;

} // namespace

} // namespace Vantle::detail::linear

#endif

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

using Wide = hn::CappedTag<double, linear::StepRows::Lanes>;
using Vector = hn::Vec<Wide>;

/// `CentreFrame`.
HWY_INLINE void frame(linear::StepRows& rows, std::size_t i) {
    const Wide lanes;
    const Vector half = hn::Set(lanes, 0.5);
    for (int d = 0; d < 3; ++d) {
        const auto corner = [&](int q) HWY_ATTR { return hn::LoadU(lanes, rows.corner[q][d] + i); };
        const auto put = [&](int q, Vector v) HWY_ATTR { hn::StoreU(v, lanes, rows.corner[q][d] + i); };
        const auto between = [&](Vector p, Vector difference)
                                 HWY_ATTR { return hn::Add(p, hn::Mul(difference, half)); };
        const auto mean = [&](Vector p, Vector q) HWY_ATTR { return hn::Add(hn::Mul(p, half), hn::Mul(q, half)); };
        const auto halved = [&](Vector p, Vector q) HWY_ATTR { return hn::Mul(hn::Add(p, q), half); };
        const Vector a = corner(0), b = corner(1), c = corner(2), e = corner(3);
        const Vector f = corner(4), g = corner(5), h = corner(6), k = corner(7);
        const Vector ba = hn::Sub(b, a), ec = hn::Sub(e, c), gf = hn::Sub(g, f), kh = hn::Sub(k, h);
        const Vector ab = between(a, ba), fg = between(f, gf);
        const Vector low = between(ab, hn::Sub(between(c, ec), ab)), high = between(fg, hn::Sub(between(h, kh), fg));
        const Vector mab = mean(a, b), mce = mean(c, e), mfg = mean(f, g), mhk = mean(h, k);
        put(0, between(low, hn::Sub(high, low)));
        put(1, hn::Add(halved(hn::Mul(ba, half), hn::Mul(ec, half)), halved(hn::Mul(gf, half), hn::Mul(kh, half))));
        put(2, hn::Add(hn::Mul(hn::Sub(mce, mab), half), hn::Mul(hn::Sub(mhk, mfg), half)));
        put(3, hn::Sub(mean(mfg, mhk), mean(mab, mce)));
    }
}

/// `LinearSolve`, as far as the end of its first step.
HWY_INLINE void step(linear::StepRows& rows, std::size_t i, double enough) {
    const Wide lanes;
    const auto number = [&](double x) HWY_ATTR { return hn::Set(lanes, x); };
    const auto load = [&](const double* row) HWY_ATTR { return hn::LoadU(lanes, row + i); };
    const auto plus = [](Vector a, Vector b, Vector c) HWY_ATTR { return hn::Add(hn::Add(a, b), c); };
    const auto dot = [&](Vector a, Vector p, Vector b, Vector q, Vector c, Vector r)
                         HWY_ATTR { return plus(hn::Mul(a, p), hn::Mul(b, q), hn::Mul(c, r)); };
    const auto minor = [](Vector p, Vector q, Vector r, Vector s)
                           HWY_ATTR { return hn::Sub(hn::Mul(p, q), hn::Mul(r, s)); };
    const auto distance = [&](Vector x, Vector y, Vector z) HWY_ATTR { return dot(x, x, y, y, z, z); };
    const Vector x = hn::Sub(load(rows.target[0]), load(rows.corner[0][0])),
                 y = hn::Sub(load(rows.target[1]), load(rows.corner[0][1])),
                 z = hn::Sub(load(rows.target[2]), load(rows.corner[0][2]));
    const Vector a0 = load(rows.corner[1][0]), a1 = load(rows.corner[1][1]), a2 = load(rows.corner[1][2]);
    const Vector b0 = load(rows.corner[2][0]), b1 = load(rows.corner[2][1]), b2 = load(rows.corner[2][2]);
    const Vector c0 = load(rows.corner[3][0]), c1 = load(rows.corner[3][1]), c2 = load(rows.corner[3][2]);
    const Vector bc0 = minor(b1, c2, b2, c1), bc1 = minor(b2, c0, b0, c2), bc2 = minor(b0, c1, b1, c0);
    const Vector det = dot(a0, bc0, a1, bc1, a2, bc2);
    const auto along = [&](Vector p, Vector q, Vector r)
                           HWY_ATTR { return dot(hn::Div(p, det), x, hn::Div(q, det), y, hn::Div(r, det), z); };
    const Vector move0 = along(bc0, bc1, bc2),
                 move1 = along(minor(c1, a2, c2, a1), minor(c2, a0, c0, a2), minor(c0, a1, c1, a0)),
                 move2 = along(minor(a1, b2, a2, b1), minor(a2, b0, a0, b2), minor(a0, b1, a1, b0));
    const auto image = [&](int d, Vector a, Vector b, Vector c)
                           HWY_ATTR { return hn::Add(load(rows.corner[0][d]), dot(a, move0, b, move1, c, move2)); };
    const Vector image0 = image(0, a0, b0, c0), image1 = image(1, a1, b1, c1), image2 = image(2, a2, b2, c2);

    const auto isNear = hn::Le(distance(x, y, z), number(enough));
    auto isOut = hn::Lt(number(0.0), number(0.0));
    const auto end = [&](int d, Vector move) HWY_ATTR {
        const Vector low = load(rows.lowest[d]), centre = hn::Add(low, number(0.5)), at = hn::Add(centre, move);
        isOut = hn::Or(isOut, hn::Or(hn::Lt(at, low), hn::Gt(at, hn::Add(low, number(1.0)))));
        hn::StoreU(hn::IfThenElse(isNear, centre, at), lanes, rows.at[d] + i);
        return hn::Mul(at, number(0.0));
    };
    const Vector zero = plus(end(0, move0), end(1, move1), end(2, move2)),
                 imageZero =
                     plus(hn::Mul(image0, number(0.0)), hn::Mul(image1, number(0.0)), hn::Mul(image2, number(0.0)));
    const auto isNumber = hn::And(hn::Eq(zero, number(0.0)), hn::Eq(imageZero, number(0.0)));
    const auto isFar = hn::Gt(distance(hn::Sub(load(rows.target[0]), image0), hn::Sub(load(rows.target[1]), image1),
                                       hn::Sub(load(rows.target[2]), image2)),
                              number(enough));
    const auto isDegenerate =
        hn::And(hn::Lt(det, number(Orvix::DegenerateDeterminant)), hn::Gt(det, number(-Orvix::DegenerateDeterminant)));
    Vector outcome = hn::IfThenElse(isFar, number(linear::Unfinished), number(linear::Found));
    outcome = hn::IfThenElse(hn::AndNot(isOut, isNumber), outcome, number(linear::Left));
    outcome = hn::IfThenElse(isDegenerate, number(linear::Unfinished), outcome);
    hn::StoreU(hn::IfThenElse(isNear, number(linear::Found), outcome), lanes, rows.outcome + i);
}

void makeSteps(linear::StepRows& rows, std::size_t count, double enough) {
    for (std::size_t i = 0; i < count; i += hn::Lanes(Wide())) {
        frame(rows, i);
        step(rows, i, enough);
    }
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(makeSteps);

void linear::makeFirstSteps(const BlockVertices& vertices, std::span<const CellBoxTree::Matches::Cell> cells,
                            std::span<const point> points, double precision, std::span<StepEnd> ends) {
    StepRows rows;
    for (std::size_t begin = 0; begin < cells.size(); begin += StepRows::Most) {
        const std::size_t count = std::min(StepRows::Most, cells.size() - begin);
        const std::size_t whole = (count + StepRows::Lanes - 1) / StepRows::Lanes * StepRows::Lanes;
        for (std::size_t s = 0; s < whole; ++s) { // lanes that are left over make the last step, too
            const CellBoxTree::Matches::Cell& cell = cells[begin + std::min(s, count - 1)];
            const double* const lowest = vertices.address(cell.i, cell.j, cell.k);
            const point& target = points[cell.point];
            const double index[3] = {static_cast<double>(cell.i), static_cast<double>(cell.j),
                                     static_cast<double>(cell.k)};
            for (int q = 0; q < 8; ++q)
                for (int d = 0; d < 3; ++d) rows.corner[q][d][s] = vertices.corner(lowest, q)[d];
            for (int d = 0; d < 3; ++d) {
                rows.target[d][s] = target[d];
                rows.lowest[d][s] = index[d];
            }
        }
        HWY_DYNAMIC_DISPATCH(makeSteps)(rows, whole, precision * precision);
        for (std::size_t s = 0; s < count; ++s)
            ends[begin + s] = {{rows.at[0][s], rows.at[1][s], rows.at[2][s]},
                               rows.outcome[s] == Found  ? FirstStep::Found
                               : rows.outcome[s] == Left ? FirstStep::Left
                                                         : FirstStep::Unfinished};
    }
}

} // namespace Vantle::detail

#endif
