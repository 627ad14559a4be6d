// The interpolation kernel at random positions, beside a loop that does the arithmetic with the same rounding and
// looks at nothing else: no borders, no exact nodes.
#include "ScatteredFixture.hpp"

#include <baseop/Interpolate.hpp>

#include <benchmark/benchmark.h>

namespace {

using namespace Vantle;
using Fixtures::Scattered;

double trilinear(const double* elements, index_t n, const Orvix::PhysicalSpace::point& p) {
    const auto i = static_cast<long long>(p[0]), j = static_cast<long long>(p[1]), k = static_cast<long long>(p[2]);
    const auto floorX = static_cast<double>(i), floorY = static_cast<double>(j), floorZ = static_cast<double>(k);
    const double fx = p[0] - floorX, fy = p[1] - floorY, fz = p[2] - floorZ;
    const double gx = (1.0 - p[0]) + floorX, gy = (1.0 - p[1]) + floorY, gz = (1.0 - p[2]) + floorZ;
    const index_t plane = n * n;
    const double* e =
        elements + static_cast<index_t>(k) * plane + static_cast<index_t>(j) * n + static_cast<index_t>(i);
    const double lower = (e[0] * gx + e[1] * fx) * gy + (e[n] * gx + e[n + 1] * fx) * fy;
    e += plane;
    const double upper = (e[0] * gx + e[1] * fx) * gy + (e[n] * gx + e[n + 1] * fx) * fy;
    return lower * gz + upper * fz;
}

template<class Evaluate>
void run(benchmark::State& state, const Evaluate& evaluate) {
    Scattered& data = Scattered::get(static_cast<index_t>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    const MultiArrayBase<3, double> view = *data.array;
    const std::size_t count = data.positions.size();
    const auto* positions = data.positions.data();
    double* values = data.values.data();
    for (auto _ : state) {
        for (std::size_t k = 0; k < count; ++k) values[k] = evaluate(view, positions[k]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(1));
}

void HandWrittenTrilinear(benchmark::State& state) {
    run(state, [](const auto& view, const auto& p) { return trilinear(view.storage(), view.Size()[0], p); });
}
void Kernel(benchmark::State& state) {
    run(state, [](const auto& view, const auto& p) { return interpolateAt(view, p); });
}
void Derivative(benchmark::State& state) {
    run(state, [](const auto& view, const auto& p) { return differentiateAt<0>(view, p); });
}

// All on one set of data before the next one is made.
#define AT_SIZE(NODES)                                                                                                 \
    BENCHMARK(HandWrittenTrilinear)->ArgNames({"nodes", "positions"})->Args({NODES, 10000000});                        \
    BENCHMARK(Kernel)->ArgNames({"nodes", "positions"})->Args({NODES, 10000000});                                      \
    BENCHMARK(Derivative)->ArgNames({"nodes", "positions"})->Args({NODES, 10000000});
AT_SIZE(32)
AT_SIZE(256)

} // namespace
