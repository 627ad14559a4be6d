// Gradient of a scalar field, beside loops that read the field once and write three values a node.
//
// Every loop makes a fresh result in each iteration, from the same kind of storage (a std::vector, advised to use huge
// pages), so that all pay alike for memory that the system hands out. `TwoPasses` makes the elements first and writes
// them then, as `std::vector(n)` and a loop do; `OnePass` appends each element once, the least that such a vector
// allows. Neither computes differences: they are the memory traffic alone. `PlainGradient` and `PlainJacobian` compute
// them, and write each element once to memory that nobody has cleared.

#include "Settings.hpp"

#include <baseop/PartialDerivative.hpp>

#include <benchmark/benchmark.h>
#include <memory>
#include <random>

using namespace Vantle;
using Orvix::PhysicalSpace;

namespace {

template<class T>
const Hestra::StrongPtr<MemBase>& field(index_t n) {
    static const Hestra::StrongPtr<MemBase> made = [n] {
        const auto values = MemArray<3, T>::create({n, n, n});
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> any(-1.0, 1.0);
        for (index_t k = 0; k < values->nElements(); ++k)
            if constexpr (std::is_same_v<T, double>)
                values->element(k) = any(random);
            else
                values->element(k) = {any(random), any(random), any(random)};
        return values.strong();
    }();
    return made;
}

template<class T>
void countBytes(benchmark::State& state) {
    const auto n = static_cast<std::int64_t>(state.range(0));
    state.SetBytesProcessed(state.iterations() * n * n * n * static_cast<std::int64_t>(4 * sizeof(T)));
}

template<class T>
void derive(benchmark::State& state) {
    const auto& source = field<T>(static_cast<index_t>(state.range(0)));
    const Memory memory(state.range(1) != 0);
    const TeamOf team(state.range(2));
    for (auto _ : state) benchmark::DoNotOptimize(PartialDerivative(source));
    countBytes<T>(state);
}
void Gradient(benchmark::State& state) { derive<double>(state); }
BENCHMARK(Gradient)
    ->ArgNames({"n", "kept", "threads"})
    ->ArgsProduct({{256}, {0, 1}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
void Jacobian(benchmark::State& state) { derive<PhysicalSpace::vector>(state); }
BENCHMARK(Jacobian)
    ->ArgNames({"n", "kept", "threads"})
    ->ArgsProduct({{128}, {0, 1}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

template<class T>
void derivePlainly(benchmark::State& state) {
    constexpr std::size_t C = sizeof(T) / sizeof(double);
    const auto n = static_cast<std::size_t>(state.range(0)), row = C * n, plane = row * n;
    const auto* const source =
        dynamic_cast<const MemArray<3, T>*>(field<T>(static_cast<index_t>(state.range(0))).rawptr());
    const double* const values = reinterpret_cast<const double*>(source->data());
    const Memory memory(state.range(1) != 0);
    for (auto _ : state) {
        const std::unique_ptr<double[]> result(new double[3 * n * plane]);
        Hestra::adviseLargeArray(result.get(), 3 * n * plane * sizeof(double));
        double* out = result.get();
        for (std::size_t k = 0; k < n; ++k)
            for (std::size_t j = 0; j < n; ++j) {
                const double* const at = values + k * plane + j * row;
                const double *const lowY = j > 0 ? at - row : at, *const highY = j + 1 < n ? at + row : at;
                const double *const lowZ = k > 0 ? at - plane : at, *const highZ = k + 1 < n ? at + plane : at;
                const double perY = j > 0 && j + 1 < n ? 0.5 : 1.0, perZ = k > 0 && k + 1 < n ? 0.5 : 1.0;
                const auto write = [&](std::size_t i, std::size_t low, std::size_t high, double perX) {
                    for (std::size_t c = 0; c < C; ++c) {
                        out[3 * C * i + c] = (at[C * high + c] - at[C * low + c]) * perX;
                        out[3 * C * i + C + c] = (highY[C * i + c] - lowY[C * i + c]) * perY;
                        out[3 * C * i + 2 * C + c] = (highZ[C * i + c] - lowZ[C * i + c]) * perZ;
                    }
                };
                write(0, 0, 1, 1.0);
                for (std::size_t i = 1; i + 1 < n; ++i) write(i, i - 1, i + 1, 0.5);
                write(n - 1, n - 2, n - 1, 1.0);
                out += 3 * row;
            }
        benchmark::DoNotOptimize(result.get());
    }
    countBytes<T>(state);
}
void PlainGradient(benchmark::State& state) { derivePlainly<double>(state); }
BENCHMARK(PlainGradient)
    ->ArgNames({"n", "kept"})
    ->ArgsProduct({{256}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
void PlainJacobian(benchmark::State& state) { derivePlainly<PhysicalSpace::vector>(state); }
BENCHMARK(PlainJacobian)
    ->ArgNames({"n", "kept"})
    ->ArgsProduct({{128}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void OnePass(benchmark::State& state) {
    const auto* const source =
        dynamic_cast<MemArray<3, double>*>(field<double>(static_cast<index_t>(state.range(0))).rawptr());
    for (auto _ : state) {
        std::vector<PhysicalSpace::vector> result;
        Hestra::reserveLargeArray(result, source->nElements());
        const double* const values = source->data();
        for (index_t k = 0; k < source->nElements(); ++k) result.emplace_back(values[k], values[k], values[k]);
        benchmark::DoNotOptimize(result.data());
    }
    countBytes<double>(state);
}
BENCHMARK(OnePass)->ArgName("n")->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

void TwoPasses(benchmark::State& state) {
    const auto* const source =
        dynamic_cast<MemArray<3, double>*>(field<double>(static_cast<index_t>(state.range(0))).rawptr());
    for (auto _ : state) {
        std::vector<PhysicalSpace::vector> result;
        Hestra::reserveLargeArray(result, source->nElements());
        result.resize(source->nElements());
        const double* const values = source->data();
        PhysicalSpace::vector* const out = result.data();
        for (index_t k = 0; k < source->nElements(); ++k) out[k] = {values[k], values[k], values[k]};
        benchmark::DoNotOptimize(result.data());
    }
    countBytes<double>(state);
}
BENCHMARK(TwoPasses)->ArgName("n")->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
