// Rescaling an array, beside a loop written for it that interpolates rows once and combines them, with the same
// rounding, and does not clear the result before it fills it.

#include "Settings.hpp"

#include <baseop/ResampleRegularGrid.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace Vantle;
using Array = MemArray<3, double>;

Hestra::StrongPtr<Array> randomCube(index_t n) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    Hestra::StrongPtr<Array> array = Array::create({n, n, n});
    for (index_t k = 0; k < array->nElements(); ++k) array->element(k) = value(random);
    return array;
}

struct Axis {
    std::vector<std::size_t> node;
    std::vector<double> lower, upper;
    Axis(std::size_t source, std::size_t destination, double scale) {
        for (std::size_t i = 0; i < destination; ++i) {
            const double x = static_cast<double>(i) * scale;
            const bool isLast = x + 1.0 >= static_cast<double>(source);
            const auto n = isLast ? source - 1 : static_cast<std::size_t>(x);
            const double f = isLast ? 0.0 : x - static_cast<double>(n);
            node.push_back(n);
            lower.push_back(isLast ? 1.0 : (1.0 - x) + static_cast<double>(n));
            upper.push_back(f);
        }
    }
};

void mix(double* __restrict out, const double* __restrict a, const double* __restrict b, double wa, double wb,
         std::size_t count) {
    if (wb == 0.0)
        std::copy_n(a, count, out);
    else
        for (std::size_t i = 0; i < count; ++i) out[i] = a[i] * wa + b[i] * wb;
}

/// Rows of the whole source along x, then planes along y, then the result along z; two rolling planes.
std::unique_ptr<double[]> handWritten(const double* source, std::size_t n, std::size_t m, double factor) {
    const Axis axis(n, m, 1.0 / factor);
    std::unique_ptr<double[]> result(new double[m * m * m]);
    Hestra::adviseLargeArray(result.get(), m * m * m * sizeof(double)); // as our own result has it
    std::vector<double> rows(n * m), planes[2] = {std::vector<double>(m * m), std::vector<double>(m * m)};
    std::size_t held[2] = {n, n};
    const auto plane = [&](std::size_t k) -> const double* {
        if (held[k & 1] == k) return planes[k & 1].data();
        held[k & 1] = k;
        for (std::size_t j = 0; j < n; ++j) {
            const double* row = source + (k * n + j) * n;
            for (std::size_t i = 0; i < m; ++i) {
                const double* e = row + axis.node[i];
                rows[j * m + i] = axis.upper[i] == 0.0 ? e[0] : e[0] * axis.lower[i] + e[1] * axis.upper[i];
            }
        }
        for (std::size_t j = 0; j < m; ++j) {
            const double* row = rows.data() + axis.node[j] * m;
            mix(planes[k & 1].data() + j * m, row, row + m, axis.lower[j], axis.upper[j], m);
        }
        return planes[k & 1].data();
    };
    for (std::size_t k = 0; k < m; ++k) {
        const double* lower = plane(axis.node[k]);
        const double* upper = axis.upper[k] == 0.0 ? lower : plane(axis.node[k] + 1);
        mix(result.get() + k * m * m, lower, upper, axis.lower[k], axis.upper[k], m * m);
    }
    return result;
}

void HandWrittenRescale(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto source = randomCube(n);
    const Memory memory(state.range(1) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(handWritten(source->data(), n, 2 * n, 2.0));
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0) * state.range(0) * 8);
}
BENCHMARK(HandWrittenRescale)
    ->ArgNames({"nodes", "kept"})
    ->ArgsProduct({{128}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void Rescale(benchmark::State& state) {
    const auto source = randomCube(static_cast<index_t>(state.range(0)));
    const TeamOf team(state.range(2));
    const Memory memory(state.range(1) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(ResampleArray<3, double>::rescale(2.0, source));
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0) * state.range(0) * 8);
}
BENCHMARK(Rescale)
    ->ArgNames({"nodes", "kept", "threads"})
    ->ArgsProduct({{128}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Whole fragments, each by one thread, as a caller does who asks for several at a time and keeps them.
void RescaleFragments(benchmark::State& state) {
    constexpr int fragments = 4;
    const auto source = randomCube(96);
    const TeamOf team(state.range(0)); // of one thread also within each fragment
    std::vector<Hestra::StrongPtr<MemBase>> results(fragments);
    for (auto _ : state) {
#pragma omp parallel for schedule(dynamic)
        for (int f = 0; f < fragments; ++f)
            results[static_cast<std::size_t>(f)] = ResampleArray<3, double>::rescale(2.0, source);
        state.PauseTiming();
        for (auto& result : results) result = nullptr;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * fragments * 192 * 192 * 192);
}
BENCHMARK(RescaleFragments)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
