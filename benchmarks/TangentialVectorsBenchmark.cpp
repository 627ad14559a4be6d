// Tangents and lengths along many curves, beside a plain loop: no check of indices, the plain root of the sum of
// squares for lengths. Both write into new arrays of the library's kind in each iteration.

#include <baseop/TangentialVectors.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
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
    for (auto _ : state) {
        Computer result;
        result.compute(*in.points, *in.curves);
        benchmark::DoNotOptimize(result.maximalLength());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}
BENCHMARK(Tangents)->ArgNames({"curves", "points"})->Args({100'000, 100})->Unit(benchmark::kMillisecond);

template<class Length>
void plainLoop(benchmark::State& state, const Length& lengthOf) {
    const Input& in = input(state);
    for (auto _ : state) {
        const auto tangents = Computer::Tangents::create(in.points->Size());
        const auto parameters = Computer::Parameters::create(in.points->Size());
        const PhysicalSpace::point* const points = in.points->data();
        PhysicalSpace::vector* const t = tangents->data();
        double* const s = parameters->data();
        double longest = 0.0;
        for (const auto& curve : in.curves->getChunk()->base_vector()) {
            double along = 0.0;
            for (std::size_t i = 1; i < curve.size(); ++i) {
                const PhysicalSpace::vector d = points[curve[i]] - points[curve[i - 1]];
                const double length = lengthOf(d);
                along += length;
                t[curve[i]] = d * (1.0 / length);
                s[curve[i]] = along;
            }
            t[curve[0]] = t[curve[1]];
            s[curve[0]] = 0.0;
            longest = std::max(longest, along);
        }
        benchmark::DoNotOptimize(longest);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}
void SameArithmetic(benchmark::State& state) {
    plainLoop(state, [](const PhysicalSpace::vector& d) { return length(d); });
}
BENCHMARK(SameArithmetic)->ArgNames({"curves", "points"})->Args({100'000, 100})->Unit(benchmark::kMillisecond);

void PlainRoot(benchmark::State& state) {
    plainLoop(state, [](const PhysicalSpace::vector& d) { return std::sqrt(dot(d, d)); });
}
BENCHMARK(PlainRoot)->ArgNames({"curves", "points"})->Args({100'000, 100})->Unit(benchmark::kMillisecond);

} // namespace
