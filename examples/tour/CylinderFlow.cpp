#include "CylinderFlow.hpp"

#include <cmath>
#include <complex>
#include <numbers>

namespace tour {

using namespace Vantle;

namespace CylinderFlow {

namespace {

// Without the parts of the strain, u - i v is an analytic function of x + i y.
using Complex = std::complex<double>;
Complex planeVelocity(const Complex& at) { return 1.0 - 1.0 / (at * at) + kStrain / at; }
Complex planeDerivative(const Complex& at) { return 2.0 / (at * at * at) - kStrain / (at * at); }

} // namespace

Space::vector velocity(const Space::point& p) {
    const Complex plane = planeVelocity({p[0], p[1]});
    return {plane.real() - kStrain * p[0], -plane.imag() - kStrain * p[1], 2.0 * kStrain * p[2]};
}

Gradient velocityGradient(const Space::point& p) {
    const Complex plane = planeDerivative({p[0], p[1]});
    Gradient gradient;
    gradient(0, 0) = plane.real() - kStrain;
    gradient(0, 1) = gradient(1, 0) = -plane.imag();
    gradient(1, 1) = -plane.real() - kStrain;
    gradient(2, 2) = 2.0 * kStrain;
    return gradient;
}

double potential(const Space::point& p) {
    const double squared = p[0] * p[0] + p[1] * p[1];
    return p[0] + p[0] / squared + kStrain * (p[2] * p[2] - 0.5 * squared + 0.5 * std::log(squared));
}

double speed(const Space::point& p) { return length(velocity(p)); }
double pressure(const Space::point& p) { return 1.0 - normSquared(velocity(p)); }

} // namespace CylinderFlow

Space::point Ring::vertex(index_t i, index_t j, index_t k) const {
    using namespace CylinderFlow;
    const index_t count = cells_.blocks * cells_.around;
    const double across = double(j) / double(cells_.across), along = double(k) / double(cells_.along);
    // The last vertices around are the first ones: the angle is that of the same number, not of 2 pi.
    double angle = 2.0 * std::numbers::pi * double(i % count) / double(count);
    double height = along;
    if (j > 0 && j < cells_.across) {
        const double middle = std::sin(std::numbers::pi * across);
        angle += 0.12 * middle * std::cos(std::numbers::pi * along);
        height += 0.06 * middle * std::sin(2.0 * std::numbers::pi * along);
    }
    if (k == 0) height = 0.0;
    if (k == cells_.along) height = 1.0;
    const double radius = kInnerRadius * std::pow(kOuterRadius / kInnerRadius, across);
    return {radius * std::cos(angle), radius * std::sin(angle), kHeight * height};
}

bool Ring::isInside(const Space::point& p) const {
    using namespace CylinderFlow;
    if (!(p[2] >= 0.0 && p[2] <= kHeight)) return false;
    // The distance from the axis, measured towards the middle of the polygon's side that p looks at.
    const double side = 2.0 * std::numbers::pi / double(cells_.blocks * cells_.around);
    const double angle = std::atan2(p[1], p[0]);
    const double towards = (std::floor(angle / side) + 0.5) * side;
    const double distance = p[0] * std::cos(towards) + p[1] * std::sin(towards);
    const double shrink = std::cos(0.5 * side);
    return distance >= kInnerRadius * shrink && distance <= kOuterRadius * shrink;
}

namespace {

// The cylinder as the blocks have it: their faces of least radius.
Mesh makeWall(const Ring& ring) {
    const RingCells& cells = ring.cells();
    const index_t around = cells.blocks * cells.around;
    Mesh wall;
    for (index_t k = 0; k <= cells.along; ++k)
        for (index_t i = 0; i <= around; ++i) {
            const Space::point p = ring.vertex(i, 0, k);
            wall.points.push_back({p[0], p[1], p[2]});
        }
    for (index_t k = 0; k < cells.along; ++k)
        for (index_t i = 0; i < around; ++i) {
            const index_t corner = k * (around + 1) + i, above = corner + around + 1;
            wall.triangles.push_back({corner, corner + 1, above + 1});
            wall.triangles.push_back({corner, above + 1, above});
        }
    return wall;
}

// Circles and the faces between blocks, halfway up.
std::vector<std::vector<Point2>> makeOutlines(const Ring& ring) {
    const RingCells& cells = ring.cells();
    const index_t middle = cells.along / 2;
    std::vector<std::vector<Point2>> lines;
    const auto add = [&](index_t i, index_t j) {
        const Space::point p = ring.vertex(i, j, middle);
        lines.back().push_back({p[0], p[1]});
    };
    for (const index_t j : {index_t{0}, cells.across}) {
        lines.emplace_back();
        for (index_t i = 0; i <= cells.blocks * cells.around; ++i) add(i, j);
    }
    for (index_t block = 0; block < cells.blocks; ++block) {
        lines.emplace_back();
        for (index_t j = 0; j <= cells.across; ++j) add(block * cells.around, j);
    }
    return lines;
}

} // namespace

DataSet makeCylinderFlow(const RingCells& cells) {
    const Ring ring(cells);
    DataSet data;
    data.title = "Potential flow past a cylinder, stretched along its axis (exact values are known)";
    data.bundle = BundlePtr::create();
    data.slice = data.bundle[0.0];
    data.grid = RegularGrid3D((*data.slice)["flow"]);

    const MultiIndex<3> size{cells.around + 1, cells.across + 1, cells.along + 1};
    for (index_t block = 0; block < cells.blocks; ++block) {
        const index_t first = block * cells.around;
        const auto positions = MemArray<3, Space::point>::create(size);
        const auto velocity = MemArray<3, Space::vector>::create(size);
        const auto speed = MemArray<3, double>::create(size);
        const auto pressure = MemArray<3, double>::create(size);
        const auto potential = MemArray<3, double>::create(size);
        MultiIndex<3> at;
        do {
            const Space::point p = ring.vertex(first + at[0], at[1], at[2]);
            (*positions)[at] = p;
            (*velocity)[at] = CylinderFlow::velocity(p);
            (*speed)[at] = CylinderFlow::speed(p);
            (*pressure)[at] = CylinderFlow::pressure(p);
            (*potential)[at] = CylinderFlow::potential(p);
        } while (at.advance(size));
        std::string name = "sector";
        name += std::to_string(block + 1);
        const auto fragment = data.grid.addBlock(name, positions, MultiIndex<3>{first, 0, 0});
        data.grid.setField(kVelocity, velocity, fragment);
        data.grid.setField("speed", speed, fragment);
        data.grid.setField("pressure", pressure, fragment);
        data.grid.setField("potential", potential, fragment);
    }
    data.scalars = {"speed", "pressure", "potential"};
    data.field = "pressure";
    data.level = -0.6;
    data.colourField = "potential";
    data.hasVelocity = true;
    data.remarks = {"neighbouring blocks share vertices, also where the ring closes"};

    const auto scalar = [](const std::string& name, const Space::point& p) {
        if (name == "speed") return CylinderFlow::speed(p);
        return name == "pressure" ? CylinderFlow::pressure(p) : CylinderFlow::potential(p);
    };
    data.exact =
        ExactFlow{scalar, CylinderFlow::velocityGradient, [ring](const Space::point& p) { return ring.isInside(p); }};
    data.refined = [cells] { return makeCylinderFlow(cells.refined()); };
    data.walls = {makeWall(ring)};
    data.view = {{0.5, 0.62, -0.6}, {0.0, 0.0, 1.0}};
    data.sliceOutlines = makeOutlines(ring);
    return data;
}

} // namespace tour
