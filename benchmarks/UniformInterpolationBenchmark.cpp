// Uniform data at scattered world coordinates, beside the bare kernel at the same positions in index units.

#include "Settings.hpp"

#include <baseop/Interpolate.hpp>
#include <baseop/UniformInterpolation.hpp>

#include <benchmark/benchmark.h>
#include <random>

namespace {

using namespace Vantle;
using Orvix::PhysicalSpace;

struct UniformData {
    static constexpr index_t n = 256;
    Hestra::StrongPtr<MemArray<3, double>> data = MemArray<3, double>::create({n, n, n});
    UniformCartesianArray grid{{n, n, n}, PhysicalSpace::point(-1, 2, 0.5), PhysicalSpace::vector(0.01, 0.02, 0.03)};
    std::vector<PhysicalSpace::point> coordinates, indices;

    explicit UniformData(std::size_t count) : coordinates(count), indices(count) {
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> value(-1, 1), index(0, n - 1);
        for (index_t k = 0; k < data->nElements(); ++k) data->element(k) = value(random);
        for (std::size_t c = 0; c < count; ++c)
            for (int d = 0; d < 3; ++d) {
                indices[c][d] = index(random);
                coordinates[c][d] = grid.origin()[d] + indices[c][d] * grid.spacing()[d];
            }
    }
    static const UniformData& get(std::size_t count) {
        static const UniformData made(count);
        return made;
    }
};

void KernelInIndexUnits(benchmark::State& state) {
    const auto& fixture = UniformData::get(static_cast<std::size_t>(state.range(0)));
    const MultiArrayBase<3, double> view = *fixture.data;
    std::vector<double> values(fixture.indices.size());
    for (auto _ : state) {
        for (std::size_t k = 0; k < values.size(); ++k) values[k] = interpolateAt(view, fixture.indices[k]);
        benchmark::DoNotOptimize(values.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(KernelInIndexUnits)->ArgName("positions")->Arg(10'000'000)->Unit(benchmark::kMillisecond);

void UniformInterpolation(benchmark::State& state) {
    const auto& fixture = UniformData::get(static_cast<std::size_t>(state.range(0)));
    const TeamOf team(state.range(1));
    Hestra::StrongPtr<Hestra::ChunkBase> output; // kept
    for (auto _ : state)
        benchmark::DoNotOptimize(InterpolateUniformData(output, fixture.coordinates, fixture.grid, fixture.data));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(UniformInterpolation)
    ->ArgNames({"positions", "threads"})
    ->ArgsProduct({{10'000'000}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
