// Gradient of a scalar field, beside loops that read the field once and write three values a node.
//
// Every loop makes a fresh result in each iteration, from the same kind of storage (a std::vector, advised to use huge
// pages), so that all pay alike for memory that the system hands out. `TwoPasses` makes the elements first and writes
// them then, as `std::vector(n)` and a loop do; `OnePass` appends each element once, the least that such a vector
// allows. Neither computes differences: they are the memory traffic alone.

#include <baseop/PartialDerivative.hpp>

#include <benchmark/benchmark.h>
#include <omp.h>
#include <random>

using namespace Vantle;
using Orvix::PhysicalSpace;

namespace {

Hestra::StrongPtr<MemBase> randomField(index_t n) {
    const auto field = MemArray<3, double>::create({n, n, n});
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> values(-1.0, 1.0);
    for (index_t k = 0; k < field->nElements(); ++k) field->element(k) = values(random);
    return field.strong();
}

const Hestra::StrongPtr<MemBase>& field(index_t n) {
    static const Hestra::StrongPtr<MemBase> made = randomField(n);
    return made;
}

void countBytes(benchmark::State& state) {
    const auto n = static_cast<std::int64_t>(state.range(0));
    state.SetBytesProcessed(state.iterations() * n * n * n * static_cast<std::int64_t>(4 * sizeof(double)));
}

void Gradient(benchmark::State& state) {
    const auto& source = field(static_cast<index_t>(state.range(0)));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) benchmark::DoNotOptimize(PartialDerivative(source));
    countBytes(state);
}
BENCHMARK(Gradient)
    ->ArgNames({"n", "threads"})
    ->Args({256, 1})
    ->Args({256, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void OnePass(benchmark::State& state) {
    const auto* const source = dynamic_cast<MemArray<3, double>*>(field(static_cast<index_t>(state.range(0))).rawptr());
    for (auto _ : state) {
        std::vector<PhysicalSpace::vector> result;
        Hestra::reserveLargeArray(result, source->nElements());
        const double* const values = source->data();
        for (index_t k = 0; k < source->nElements(); ++k) result.emplace_back(values[k], values[k], values[k]);
        benchmark::DoNotOptimize(result.data());
    }
    countBytes(state);
}
BENCHMARK(OnePass)->ArgName("n")->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

void TwoPasses(benchmark::State& state) {
    const auto* const source = dynamic_cast<MemArray<3, double>*>(field(static_cast<index_t>(state.range(0))).rawptr());
    for (auto _ : state) {
        std::vector<PhysicalSpace::vector> result;
        Hestra::reserveLargeArray(result, source->nElements());
        result.resize(source->nElements());
        const double* const values = source->data();
        PhysicalSpace::vector* const out = result.data();
        for (index_t k = 0; k < source->nElements(); ++k) out[k] = {values[k], values[k], values[k]};
        benchmark::DoNotOptimize(result.data());
    }
    countBytes(state);
}
BENCHMARK(TwoPasses)->ArgName("n")->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
