// Locating and sampling by a data set, beside an evaluator with nobody listening; a contour, beside the operation
// below.

#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <dataset/DataSet.hpp>
#include <model/hestra/Console.hpp>

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>

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

void Evaluator(benchmark::State& state) {
    const Fixture& f = fixture();
    const Hestra::ScopedListener nobody({});
    GridEvaluator::Context context;
    context.slice = f.flow.bundle()[0.0];
    context.grid = f.flow.grid();
    context.cellLocator = CellLocator::Exact;
    for (auto _ : state) {
        GridEvaluator evaluator;
        if (!evaluator.find(f.array, *f.flow.grid()->CartesianPositions(), context)) std::abort();
        benchmark::DoNotOptimize(evaluator.evalKnownDataTypes(f.array, *(*f.flow.grid())("f")));
    }
}
void LocateAndSample(benchmark::State& state) {
    const Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(f.flow.locate(f.positions).sample("f").size());
}
void Surface_(benchmark::State& state) {
    const Fixture& f = fixture();
    const Hestra::ScopedListener nobody({});
    for (auto _ : state) {
        Slice slice;
        SurfaceOptions options;
        options.joinBlocks = true;
        benchmark::DoNotOptimize(
            ComputeIsosurface(0.6, Hestra::Ageable(), *f.flow.grid(), "f", slice, "s", 0.0, options));
    }
}
void Contour(benchmark::State& state) {
    const Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(f.flow.contour("f", 0.6).points().size());
}

BENCHMARK(Evaluator)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LocateAndSample)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Surface_)->Name("ComputeIsosurface")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Contour)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
