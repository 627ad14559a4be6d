// Samples a volume along a line, as a probe does.
//
// Prints eleven values from 0 to 200 in equal steps.

#include <baseop/UniformInterpolation.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>

using namespace Vantle;

int main() {
    const auto volume = MemArray<3, double>::create({5, 5, 5});
    for (index_t k = 0; k < 5; ++k)
        for (index_t j = 0; j < 5; ++j)
            for (index_t i = 0; i < 5; ++i) (*volume)(i, j, k) = 50.0 * double(i);
    const UniformCartesianArray grid(Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), {5, 5, 5});

    std::vector<Orvix::PhysicalSpace::point> probe;
    for (int n = 0; n <= 10; ++n) probe.emplace_back(0.1 * n, 0.3, 0.7);
    Hestra::StrongPtr<Hestra::ChunkBase> output;
    if (!InterpolateUniformData(output, probe, grid, volume)) return 1;
    const auto& values = dynamic_cast<Hestra::TypedChunk<double>&>(*output).base_vector();
    double largestError = 0;
    for (std::size_t n = 0; n < values.size(); ++n) {
        std::cout << values[n] << (n + 1 < values.size() ? " " : "\n");
        largestError = std::max(largestError, std::abs(values[n] - 20.0 * double(n)));
    }
    return largestError < 1e-12 ? 0 : 1;
}
