// The box of ten million points, beside a plain vectorised loop that only takes minima and maxima; and what it costs to
// ask for a box that is there.

#include "Settings.hpp"

#include <baseop/ExpandBBox.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <benchmark/benchmark.h>
#include <cstring>
#include <limits>
#include <random>

using namespace Vantle;
using Hestra::StrongPtr;
using Orvix::BoundingBox;

namespace {

using point = Orvix::PhysicalSpace::point;

constexpr index_t kPoints = 10'000'000;

#if defined(__x86_64__)
#    define WIDE [[gnu::target("avx2")]]
#else
#    define WIDE
#endif

/// Ten million random points; every `nanEvery`-th has a NaN.
const StrongPtr<ReferencingMemArray<1, point>>& points(index_t nanEvery = 0) {
    static const StrongPtr<ReferencingMemArray<1, point>> array = MemArray<1, point>::create(MultiIndex<1>(kPoints));
    std::minstd_rand random(7);
    for (index_t i = 0; i < kPoints; ++i)
        for (double& x : array->element(i)) x = static_cast<double>(random() % 1000000 + 1);
    for (index_t i = 0; nanEvery && i < kPoints; i += nanEvery)
        array->element(i)[1] = std::numeric_limits<double>::quiet_NaN();
    return array;
}

/// Minima and maxima of four points at a time, with no regard for NaN.
WIDE void plainMinMax(const double* numbers, std::size_t count, double (&result)[24]) {
    typedef double Vector __attribute__((vector_size(32)));
    Vector least[3], greatest[3];
    std::memcpy(least, numbers, sizeof least);
    std::memcpy(greatest, numbers, sizeof greatest);
    for (std::size_t i = 0; i + 12 <= count; i += 12)
        for (std::size_t v = 0; v < 3; ++v) {
            Vector x;
            std::memcpy(&x, numbers + i + 4 * v, sizeof x);
            least[v] = x < least[v] ? x : least[v];
            greatest[v] = x > greatest[v] ? x : greatest[v];
        }
    std::memcpy(result, least, sizeof least);
    std::memcpy(result + 12, greatest, sizeof greatest);
}

void PlainMinMax(benchmark::State& state) {
    const auto& array = points();
    for (auto _ : state) {
        double result[24];
        plainMinMax(array->data()->data(), 3 * kPoints, result);
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kPoints * sizeof(point)));
}

void BoxScan(benchmark::State& state) {
    const StrongPtr<MemBase> array(points(static_cast<index_t>(state.range(0))));
    const TeamOf team(state.range(1));
    for (auto _ : state) benchmark::DoNotOptimize(ComputeBBox(array));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kPoints * sizeof(point)));
}

/// The same points as somebody else's memory: all of them, or every other one.
void BoxScanAdopted(benchmark::State& state) {
    const auto stride = static_cast<std::ptrdiff_t>(sizeof(point)) * state.range(0);
    const index_t count = kPoints / static_cast<index_t>(state.range(0));
    const StrongPtr<MemBase> array =
        adopt<1, point>({.elements = points()->data(), .strides = {stride}}, {count}, nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(ComputeBBox(array));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(count * sizeof(point)));
}

void WidenByAttachedBox(benchmark::State& state) {
    CreativeArray creator{StrongPtr<MemBase>(makeMemArray1D(std::vector<point>{{1, 2, 3}, {4, 5, 6}}))};
    StrongPtr<BoundingBox> box = Hestra::makeRef<BoundingBox>();
    for (auto _ : state) benchmark::DoNotOptimize(ExpandBBox(box, creator));
}

void AskForBoxOfField(benchmark::State& state) {
    Field field;
    field.setPersistentData(makeMemArray1D(std::vector<point>{{1, 2, 3}, {4, 5, 6}}));
    for (auto _ : state) benchmark::DoNotOptimize(getBoundingBox(field));
}

} // namespace

BENCHMARK(PlainMinMax)->Unit(benchmark::kMillisecond);
// Without NaN, and with one in every piece that the scan works on.
BENCHMARK(BoxScan)
    ->ArgNames({"nanEvery", "threads"})
    ->ArgsProduct({{0, 1000}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BoxScanAdopted)->ArgName("stride")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(WidenByAttachedBox);
BENCHMARK(AskForBoxOfField);
