#include "CylinderFlow.hpp"

#include <cmath>
#include <complex>
#include <numbers>

namespace tour {

using namespace Vantle;

namespace CylinderFlow {

using Complex = std::complex<double>; // without the parts of the strain, u - i v is an analytic function of x + i y

Vector velocity(const Point& p) {
    const Complex at(p[0], p[1]), plane = 1.0 - 1.0 / (at * at) + kStrain / at;
    return {plane.real() - kStrain * p[0], -plane.imag() - kStrain * p[1], 2.0 * kStrain * p[2]};
}

Gradient velocityGradient(const Point& p) {
    const Complex at(p[0], p[1]), plane = 2.0 / (at * at * at) - kStrain / (at * at);
    Gradient gradient;
    gradient(0, 0) = plane.real() - kStrain;
    gradient(0, 1) = gradient(1, 0) = -plane.imag();
    gradient(1, 1) = -plane.real() - kStrain;
    gradient(2, 2) = 2.0 * kStrain;
    return gradient;
}

double potential(const Point& p) {
    const double squared = p[0] * p[0] + p[1] * p[1];
    return p[0] + p[0] / squared + kStrain * (p[2] * p[2] - 0.5 * squared + 0.5 * std::log(squared));
}

double speed(const Point& p) { return length(velocity(p)); }
double pressure(const Point& p) { return 1.0 - normSquared(velocity(p)); }

} // namespace CylinderFlow

namespace {

constexpr double kOuterRadius = 4.0, kHeight = 2.5; // the cylinder has the radius 1

// Vertex (i, j, k) of all blocks together.
Point vertex(const RingCells& cells, index_t i, index_t j, index_t k) {
    const index_t around = cells.blocks * cells.around;
    const double across = double(j) / double(cells.across), along = double(k) / double(cells.along);
    // The last vertices around are the first ones: the angle is that of the same number, not of 2 pi.
    double angle = 2.0 * std::numbers::pi * double(i % around) / double(around);
    double height = along;
    if (j > 0 && j < cells.across && k > 0 && k < cells.along)
        height += 0.06 * std::sin(std::numbers::pi * across) * std::sin(2.0 * std::numbers::pi * along);
    if (j > 0 && j < cells.across)
        angle += 0.12 * std::sin(std::numbers::pi * across) * std::cos(std::numbers::pi * along);
    const double radius = std::pow(kOuterRadius, across);
    return {radius * std::cos(angle), radius * std::sin(angle), kHeight * height};
}

} // namespace

Flow makeCylinderFlow(const RingCells& cells) {
    Flow flow;
    flow.title = "Potential flow past a cylinder, stretched along its axis (exact values are known)";
    flow.remarks = {"neighbouring blocks share vertices, also where the ring closes"};
    const MultiIndex<3> size{cells.around + 1, cells.across + 1, cells.along + 1};
    for (index_t block = 0; block < cells.blocks; ++block) {
        std::vector<Point> points;
        MultiIndex<3> at;
        do points.push_back(vertex(cells, block * cells.around + at[0], at[1], at[2]));
        while (at.advance(size));
        flow.data.addBlock("sector" + std::to_string(block + 1), size, std::move(points));
    }
    flow.data.setField("velocity", CylinderFlow::velocity);
    flow.data.setField("speed", CylinderFlow::speed);
    flow.data.setField("pressure", CylinderFlow::pressure);
    flow.data.setField("potential", CylinderFlow::potential);
    flow.scalars = {"speed", "pressure", "potential"};
    flow.field = "pressure";
    flow.level = -0.6;
    flow.colourField = "potential";
    flow.hasVelocity = true;
    const auto scalar = [](const std::string& name, const Point& p) {
        return name == "speed"      ? CylinderFlow::speed(p)
               : name == "pressure" ? CylinderFlow::pressure(p)
                                    : CylinderFlow::potential(p);
    };
    flow.exact =
        Flow::Exact{scalar, CylinderFlow::velocityGradient, [cells] { return makeCylinderFlow(cells.refined()); }};
    flow.wallName = "the cylinder";
    flow.isWall = [](const Point& p, double) { return std::hypot(p[0], p[1]) < 1.0 + 1e-9; };
    flow.viewDirection = {0.5, 0.62, -0.6};
    return flow;
}

} // namespace tour
