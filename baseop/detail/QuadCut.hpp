#pragma once
/// How a quad between four vertices becomes two triangles.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Simplex.hpp>

#include <algorithm>
#include <array>
#include <span>

namespace Vantle::detail {

/// Cuts a quad along its shorter diagonal, or that through the corner that is least by x, y and z: wherever a quad is
/// met, in whatever order of its corners, it is cut the same way.
template<class Take>
void cutQuad(const std::array<unsigned int, 4>& quad, std::span<const Orvix::PhysicalSpace::point> points,
             const Take& take) {
    using point = Orvix::PhysicalSpace::point;
    const point &a = points[quad[0]], &b = points[quad[1]], &c = points[quad[2]], &d = points[quad[3]];
    const double ac = normSquared(c - a), bd = normSquared(d - b);
    const auto least = [](const point& p, const point& q) {
        return std::lexicographical_compare(q.begin(), q.end(), p.begin(), p.end()) ? q : p;
    };
    const point ofAC = least(a, c), ofBD = least(b, d);
    const bool isFirst =
        ac < bd || (ac == bd && !std::lexicographical_compare(ofBD.begin(), ofBD.end(), ofAC.begin(), ofAC.end()));
    const auto add = [&](unsigned int p, unsigned int q, unsigned int r) {
        if (p != q && q != r && r != p) take(TriangleCell(p, q, r));
    };
    if (isFirst) {
        add(quad[0], quad[1], quad[2]);
        add(quad[0], quad[2], quad[3]);
    } else {
        add(quad[1], quad[2], quad[3]);
        add(quad[1], quad[3], quad[0]);
    }
}

} // namespace Vantle::detail
