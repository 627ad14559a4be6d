// Tangents and arc lengths along a helix.
//
// Prints, after the lines of the computation itself: length 36.09 of 36.09, every tangent climbs by 0.1741

#include <baseop/TangentialVectors.hpp>
#include <model/Model.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <numbers>

using namespace Vantle;
using Orvix::PhysicalSpace;

int main() {
    // Four windings of radius sqrt(2), in steps of an 80th of a winding.
    const int count = 320;
    const double step = 2 * std::numbers::pi / 80, radius = std::sqrt(2.0), slope = 0.25;
    std::vector<PhysicalSpace::point> points;
    std::vector<index_t> curve;
    for (int i = 0; i <= count; ++i) {
        curve.push_back(points.size());
        points.emplace_back(radius * std::cos(i * step), radius * std::sin(i * step), slope * i * step);
    }
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["helix"];
    const Hestra::StrongPtr<LineSet::Points> vertices = makeMemArray1D(std::move(points));
    const Hestra::StrongPtr<MemArray<1, std::vector<index_t>>> curves =
        makeMemArray1D(std::vector<std::vector<index_t>>{std::move(curve)});
    const LineSet lines(grid, vertices, curves);

    const TangentialVectorsAndCurveParameter helix(*grid);
    const double exact = count * step * std::hypot(radius, slope);
    bool right = std::fabs(helix.maximalLength() - exact) < 1e-3 * exact;
    const double climb = helix.tangents()->element(0)[2];
    for (index_t i = 0; i < helix.tangents()->nElements(); ++i)
        right = right && std::fabs(helix.tangents()->element(i)[2] - climb) < 1e-12;
    std::cout.precision(4);
    std::cout << "length " << helix.maximalLength() << " of " << exact << ", every tangent climbs by " << climb << '\n';
    return right ? 0 : 1;
}
