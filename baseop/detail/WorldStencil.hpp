#pragma once
/// From differences along the index axes to derivatives along x, y and z.

#include <model/orvix/PhysicalSpace.hpp>

#include <cmath>
#include <limits>

namespace Vantle::detail {

/// Derivatives of `C` components at several vertices side by side, so that all are computed in vector lanes.
///
/// Each vertex has three edges, the differences of the positions of two vertices along each index axis, and the changes
/// of the values along them. Since change = edge * derivative, the derivative is the inverse of the edges' matrix times
/// the changes; the inverse has cross products in its columns. How long the edges are does not matter.
///
/// Degenerate  NaN where the edges do not span space: where the box that they span has less than 1e-12 of the volume
///             of one with right angles, or its squared volume underflows, which edges do that are shorter than 1e-50.
template<int C, int Lanes>
struct WorldStencil {
    static constexpr double FlatSquared = 1e-24;

    double edges[9][Lanes];       // component m of edge d in row 3d + m
    double changes[3 * C][Lanes]; // of component c along edge d in row C d + c
    double result[3 * C][Lanes];  // derivative of component c along axis m in row C m + c

    /// Supplies the edges along axes with one vertex, whose numbers have a bit set in `absent`: normal to the others,
    /// with no change along them. What comes out is the derivative within the sheet or the curve that is there.
    void completeEdges(unsigned absent, int count) noexcept;

    /// Of the first `count` vertices. Inlined into callers that choose the width of the lanes.
    [[gnu::always_inline]] void solve(int count) noexcept {
        constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
        for (int n = 0; n < count; ++n) {
            const double ax = edges[0][n], ay = edges[1][n], az = edges[2][n];
            const double bx = edges[3][n], by = edges[4][n], bz = edges[5][n];
            const double cx = edges[6][n], cy = edges[7][n], cz = edges[8][n];
            const double ux = by * cz - bz * cy, uy = bz * cx - bx * cz, uz = bx * cy - by * cx;
            const double vx = cy * az - cz * ay, vy = cz * ax - cx * az, vz = cx * ay - cy * ax;
            const double wx = ay * bz - az * by, wy = az * bx - ax * bz, wz = ax * by - ay * bx;
            const double volume = ax * ux + ay * uy + az * uz;
            const double right =
                (ax * ax + ay * ay + az * az) * (bx * bx + by * by + bz * bz) * (cx * cx + cy * cy + cz * cz);
            const double inverse = 1.0 / volume;
            const double scale = volume * volume > FlatSquared * right ? inverse : NaN;
            for (int c = 0; c < C; ++c) {
                const double a = changes[c][n] * scale, b = changes[C + c][n] * scale,
                             d = changes[2 * C + c][n] * scale;
                result[c][n] = ux * a + vx * b + wx * d;
                result[C + c][n] = uy * a + vy * b + wy * d;
                result[2 * C + c][n] = uz * a + vz * b + wz * d;
            }
        }
    }
};

template<int C, int Lanes>
void WorldStencil<C, Lanes>::completeEdges(unsigned absent, int count) noexcept {
    using vector = Orvix::PhysicalSpace::vector;
    const auto get = [&](int d, int n) { return vector(edges[3 * d][n], edges[3 * d + 1][n], edges[3 * d + 2][n]); };
    const auto set = [&](int d, int n, const vector& edge) {
        for (int m = 0; m < 3; ++m) edges[3 * d + m][n] = edge[m];
        for (int c = 0; c < C; ++c) changes[C * d + c][n] = 0.0;
    };
    const auto next = [](int d) { return (d + 1) % 3; };
    if (absent == 0) return;
    for (int n = 0; n < count; ++n) {
        if (absent == 7) { // a point: any three
            for (int d = 0; d < 3; ++d) set(d, n, vector(d == 0, d == 1, d == 2));
            continue;
        }
        if ((absent & (absent - 1)) != 0) { // a curve: something across it
            const int along = absent == 6 ? 0 : absent == 5 ? 1 : 2;
            const vector edge = get(along, n);
            int least = 0;
            for (int m = 1; m < 3; ++m)
                if (std::fabs(edge[m]) < std::fabs(edge[least])) least = m;
            set(next(along), n, cross(edge, vector(least == 0, least == 1, least == 2)));
            set(next(next(along)), n, cross(edge, get(next(along), n)));
        } else {
            const int across = absent == 1 ? 0 : absent == 2 ? 1 : 2;
            set(across, n, cross(get(next(across), n), get(next(next(across)), n)));
        }
    }
}

} // namespace Vantle::detail
