// Data sets beside the operations below, with nobody listening: ratios of shortest times, both taken in turn.

#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <dataset/DataSet.hpp>
#include <model/hestra/Console.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <omp.h>

namespace {

using namespace Vantle;
using Hestra::StrongPtr;

constexpr int vertices = 65; // eight blocks of 64^3 cells
constexpr int lattice = 100;

Point bend(double u, double v, double w) {
    constexpr double pi = 3.14159265358979323846;
    const double wave = 0.04 * std::sin(2 * pi * u) * std::sin(2 * pi * v) * std::sin(2 * pi * w);
    return {u + wave + 0.2 * v * w, v - wave + 0.1 * u * u, w + wave + 0.1 * std::sin(2 * u + v)};
}

struct Fixture {
    DataSet flow;
    std::vector<Point> positions; // in tiles of neighbours, as both like it best
    StrongPtr<MemBase> array;

    Fixture() {
        for (int b = 0; b < 8; ++b) {
            std::vector<Point> points;
            const auto at = [&](int bit, int n) { return 0.5 * ((b >> bit & 1) + double(n) / (vertices - 1)); };
            for (int k = 0; k < vertices; ++k)
                for (int j = 0; j < vertices; ++j)
                    for (int i = 0; i < vertices; ++i) points.push_back(bend(at(0, i), at(1, j), at(2, k)));
            flow.addBlock(std::to_string(b), {vertices, vertices, vertices}, std::move(points));
        }
        flow.setField("f", [](const Point& p) { return std::sin(5 * p[0]) + p[1] * p[2]; });
        for (int t = 0; t < lattice * lattice * lattice / 64; ++t)
            for (int n = 0; n < 64; ++n) {
                const auto at = [&](int tile, int within) { return 0.1 + 0.9 * (4 * tile + within) / lattice; };
                const int tiles = lattice / 4;
                positions.push_back(
                    {at(t % tiles, n % 4), at(t / tiles % tiles, n / 4 % 4), at(t / tiles / tiles, n / 16)});
            }
        array = makeMemArray1D(positions);
        if (flow.locate(positions).found() == 0) std::abort();
    }
};
const Fixture& fixture() {
    static const Fixture made;
    return made;
}

double processorSeconds() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// The shortest times that something took, real and of all processors.
struct Shortest {
    double real = HUGE_VAL, processor = HUGE_VAL;

    template<class F>
    void take(const F& f) {
        const double before = processorSeconds();
        const auto start = std::chrono::steady_clock::now();
        f();
        real = std::min(real, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        processor = std::min(processor, processorSeconds() - before);
    }
};

/// Both in turn, by so many threads: the ratios of their shortest times.
template<class F, class G>
void compare(benchmark::State& state, const F& ours, const G& below) {
    const Hestra::ScopedListener nobody({});
    omp_set_num_threads(static_cast<int>(state.range(0)));
    ours(); // ranges, joins and structures are known
    below();
    Shortest a, b;
    for (auto _ : state) {
        a.take(ours);
        b.take(below);
    }
    state.counters["ms"] = 1e3 * a.real;
    state.counters["ms below"] = 1e3 * b.real;
    state.counters["ratio"] = a.real / b.real;
    state.counters["processor ratio"] = a.processor / b.processor;
    omp_set_num_threads(omp_get_num_procs());
}

void LocateAndSample(benchmark::State& state) {
    const Fixture& f = fixture();
    compare(
        state, [&] { benchmark::DoNotOptimize(f.flow.locate(f.positions).sample("f").size()); },
        [&] {
            GridEvaluator::Context context;
            context.slice = f.flow.bundle()[0.0];
            context.grid = f.flow.grid();
            context.cellLocator = CellLocator::Exact;
            GridEvaluator evaluator;
            if (!evaluator.find(f.array, *f.flow.grid()->CartesianPositions(), context)) std::abort();
            benchmark::DoNotOptimize(evaluator.evalKnownDataTypes(f.array, *(*f.flow.grid())("f")));
        });
}

StrongPtr<Grid> surfaceBelow(const std::string& field, double level) {
    Slice slice;
    SurfaceOptions options;
    options.joinBlocks = true;
    return ComputeIsosurface(level, Hestra::Ageable(), *fixture().flow.grid(), field, slice, "s", 0.0, options);
}

void Contour(benchmark::State& state) {
    compare(
        state, [] { benchmark::DoNotOptimize(fixture().flow.contour("f", 0.6).points().size()); },
        [] { benchmark::DoNotOptimize(surfaceBelow("f", 0.6)); });
}

/// Beside the surface of distances that are there already.
void PlaneCut(benchmark::State& state) {
    const Plane plane{{0.5, 0.5, 0.5}, {1, 1, 1}};
    DataSet distances = fixture().flow;
    const Vector unit = plane.normal * (1 / length(plane.normal));
    distances.setField("distance", [&](const Point& p) { return dot(p - plane.origin, unit); });
    compare(
        state, [&] { benchmark::DoNotOptimize(distances.slice(plane).points().size()); },
        [&] { benchmark::DoNotOptimize(distances.contour("distance", 0.0).points().size()); });
}

BENCHMARK(LocateAndSample)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Contour)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PlaneCut)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
