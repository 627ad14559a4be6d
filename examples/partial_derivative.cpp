// The gradient of a scalar field in the coordinates of a curvilinear grid: derivatives along the index axes, of the
// field and of the positions, and the chain rule.
//
// Prints: gradient (2, -1, 3) at every vertex of the block, largest error below 1e-12

#include <baseop/PartialDerivative.hpp>
#include <model/Model.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>

using namespace Vantle;
using Orvix::PhysicalSpace;
using Tensor = Orvix::Quadratic<3, double>;

namespace {

PhysicalSpace::vector row(const Tensor& t, int r) { return {t(r, 0), t(r, 1), t(r, 2)}; }

// The vector g with (d position / d axis) . g = slopes[axis] for each index axis, by Cramer's rule.
PhysicalSpace::vector worldGradient(const Tensor& positions, const PhysicalSpace::vector& slopes) {
    const auto a = row(positions, 0), b = row(positions, 1), c = row(positions, 2);
    const double volume = dot(a, cross(b, c));
    return (cross(b, c) * slopes[0] + cross(c, a) * slopes[1] + cross(a, b) * slopes[2]) / volume;
}

} // namespace

int main() {
    // A twisted block, and on it 2x - y + 3z.
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["twisted"];
    const MultiIndex<3> size(8, 7, 6);
    const auto block = MemArray<3, PhysicalSpace::point>::create(size);
    const auto values = MemArray<3, double>::create(size);
    for (index_t n = 0; n < block->nElements(); ++n) {
        const auto at = MultiIndex<3>::fromLinear(n, size);
        const double i = double(at[0]), j = double(at[1]), k = double(at[2]);
        const PhysicalSpace::point p(i + 0.05 * j * k, j - 0.05 * i * k, k + 0.02 * i * j);
        block->element(n) = p;
        values->element(n) = 2 * p[0] - p[1] + 3 * p[2];
    }
    RegularGrid3D twisted = RegularGrid3D::create(*grid, block);
    const auto field = twisted.setField("values", values);

    std::string errors;
    auto& vertices = *twisted.representation();
    const auto slopes = PartialDerivative(*field, "slopes", vertices, vertices, errors);
    const auto tangents = PartialDerivative(*twisted.positions(), "tangents", vertices, vertices, errors);
    if (!slopes || !tangents) {
        std::cerr << errors;
        return 1;
    }
    const auto slopeArray = Hestra::dynamicCast<MemArray<3, PhysicalSpace::vector>>(slopes->getData());
    const auto tangentArray = Hestra::dynamicCast<MemArray<3, Tensor>>(tangents->getData());
    double error = 0.0;
    for (index_t n = 0; n < values->nElements(); ++n) {
        const auto found = worldGradient(tangentArray->element(n), slopeArray->element(n));
        error = std::max(error, length(found - PhysicalSpace::vector(2, -1, 3)));
    }
    const bool right = error < 1e-12;
    std::cout << "gradient (2, -1, 3) at every vertex of the block, largest error "
              << (right ? "below 1e-12" : "too large") << '\n';
    return right ? 0 : 1;
}
