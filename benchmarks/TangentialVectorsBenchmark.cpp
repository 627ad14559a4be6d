// Tangents and lengths along many curves, and lengths alone, beside a plain loop: no check of indices, the plain root
// of the sum of squares for lengths, results in new memory that is not cleared before.

#include "Settings.hpp"

#include <baseop/TangentialVectors.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <memory>
#include <random>

using namespace Vantle;
using Orvix::PhysicalSpace;

namespace {

using Computer = TangentialVectorsAndCurveParameter;

struct Input {
    Input(std::int64_t curveCount, std::int64_t length) {
        std::mt19937_64 random(7);
        std::normal_distribution<double> step;
        std::vector<PhysicalSpace::point> walk;
        std::vector<std::vector<index_t>> lists;
        for (std::int64_t c = 0; c < curveCount; ++c) {
            PhysicalSpace::point at(step(random), step(random), step(random));
            std::vector<index_t>& list = lists.emplace_back();
            for (std::int64_t i = 0; i < length; ++i) {
                list.push_back(walk.size());
                walk.push_back(at);
                at += PhysicalSpace::vector(1.0, step(random), step(random));
            }
        }
        points = makeMemArray1D(std::move(walk));
        curves = makeMemArray1D(std::move(lists));
    }
    Hestra::StrongPtr<Computer::Points> points;
    Hestra::StrongPtr<Computer::Curves> curves;
};

const Input& input(const benchmark::State& state) {
    static const Input made(state.range(0), state.range(1));
    return made;
}

void Tangents(benchmark::State& state) {
    const Input& in = input(state);
    const Memory memory(state.range(2) != 0);
    const TeamOf team(state.range(3));
    for (auto _ : state) {
        Computer result;
        result.compute(*in.points, *in.curves);
        benchmark::DoNotOptimize(result.maximalLength());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}
void Lengths(benchmark::State& state) {
    const Input& in = input(state);
    const Memory memory(state.range(2) != 0);
    const TeamOf team(state.range(3));
    for (auto _ : state) benchmark::DoNotOptimize(ComputeArcLengths(*in.points, *in.curves).maximalLength);
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}

template<bool WithTangents, class Length>
void plainLoop(benchmark::State& state, const Length& lengthOf) {
    const Input& in = input(state);
    const Memory memory(state.range(2) != 0);
    const auto count = in.points->nElements();
    for (auto _ : state) {
        const std::unique_ptr<double[]> tangents(new double[WithTangents ? 3 * count : 0]),
            parameters(new double[count]);
        Hestra::adviseLargeArray(tangents.get(), (WithTangents ? 3 * count : 0) * sizeof(double));
        Hestra::adviseLargeArray(parameters.get(), count * sizeof(double)); // as our own results have it
        const PhysicalSpace::point* const points = in.points->data();
        double* const t = tangents.get();
        double* const s = parameters.get();
        double longest = 0.0;
        for (const auto& curve : in.curves->getChunk()->base_vector()) {
            double along = 0.0;
            for (std::size_t i = 1; i < curve.size(); ++i) {
                const PhysicalSpace::vector d = points[curve[i]] - points[curve[i - 1]];
                const double length = lengthOf(d);
                along += length;
                if constexpr (WithTangents)
                    for (std::size_t c = 0; c < 3; ++c) t[3 * curve[i] + c] = d[static_cast<int>(c)] * (1.0 / length);
                s[curve[i]] = along;
            }
            if constexpr (WithTangents) std::copy_n(t + 3 * curve[1], 3, t + 3 * curve[0]);
            s[curve[0]] = 0.0;
            longest = std::max(longest, along);
        }
        benchmark::DoNotOptimize(longest);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}
double plainRoot(const PhysicalSpace::vector& d) { return std::sqrt(dot(d, d)); }
void PlainTangents(benchmark::State& state) { plainLoop<true>(state, plainRoot); }
void SafePlainTangents(benchmark::State& state) {
    plainLoop<true>(state, [](const PhysicalSpace::vector& d) { return length(d); });
}
void PlainLengths(benchmark::State& state) { plainLoop<false>(state, plainRoot); }

#define ON_MANY_CURVES(function)                                                                                       \
    BENCHMARK(function)->ArgNames({"curves", "points", "kept", "threads"})->Unit(benchmark::kMillisecond)->UseRealTime()
ON_MANY_CURVES(Tangents)->ArgsProduct({{100'000}, {100}, {0, 1}, {1, 2}});
ON_MANY_CURVES(PlainTangents)->ArgsProduct({{100'000}, {100}, {0, 1}, {1}});
ON_MANY_CURVES(SafePlainTangents)->ArgsProduct({{100'000}, {100}, {0, 1}, {1}});
ON_MANY_CURVES(Lengths)->ArgsProduct({{100'000}, {100}, {0, 1}, {1, 2}});
ON_MANY_CURVES(PlainLengths)->ArgsProduct({{100'000}, {100}, {0, 1}, {1}});

} // namespace
