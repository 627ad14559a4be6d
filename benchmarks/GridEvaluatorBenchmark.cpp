// A scalar of eight distorted curvilinear blocks, evaluated at the vertices of a uniform grid: location, location and
// interpolation, beside the solve and interpolation that remain when the cells are known beforehand.
//
// A scalar of a uniform grid at a million positions and more, beside a plain loop.
//
// Messages of the searches go to a temporary file, or to nobody.

#include "Settings.hpp"

#include <baseop/EvalGrid.hpp>
#include <baseop/ExactCellLocator.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <model/hestra/Console.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>

namespace {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using namespace Vantle;
using Point = PhysicalSpace::point;
using Block = MemArray<3, Point>;

constexpr index_t blockVertices = 65; // eight blocks of 64^3 cells
constexpr index_t lattice = 128;

/// Standard output goes to a temporary file as long as this lives.
class ToFile {
public:
    ToFile() {
        std::fflush(stdout);
        mySaved = dup(STDOUT_FILENO);
        myFile = std::tmpfile();
        if (mySaved < 0 || !myFile || dup2(fileno(myFile), STDOUT_FILENO) < 0) std::abort();
    }
    ToFile(const ToFile&) = delete;
    ToFile& operator=(const ToFile&) = delete;
    ~ToFile() {
        std::fflush(stdout);
        (void)dup2(mySaved, STDOUT_FILENO);
        close(mySaved);
        std::fclose(myFile);
    }
    /// Forgets what was written.
    void rewind() {
        std::fflush(stdout);
        if (ftruncate(fileno(myFile), 0) != 0 || lseek(STDOUT_FILENO, 0, SEEK_SET) != 0) std::abort();
    }

private:
    int mySaved;
    std::FILE* myFile;
};

Point bend(double u, double v, double w) {
    constexpr double pi = 3.14159265358979323846;
    const double wave = 0.04 * std::sin(2 * pi * u) * std::sin(2 * pi * v) * std::sin(2 * pi * w);
    return {u + wave + 0.2 * v * w, v - wave + 0.1 * u * u, w + wave + 0.1 * std::sin(2 * u + v)};
}

struct Fixture {
    StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    StrongPtr<Grid> source = slice->newGrid("source");
    StrongPtr<Field> values;
    StrongPtr<UniformCartesianArray> positions;
    GridEvaluator::Context context;

    Fixture() {
        RegularGrid3D blocks(source);
        for (int b = 0; b < 8; ++b) {
            const auto block = Block::create(MultiIndex<3>::filled(blockVertices));
            const auto scalar = MemArray<3, double>::create(MultiIndex<3>::filled(blockVertices));
            MultiIndex<3> i;
            do {
                const auto part = [&](int d) {
                    return 0.5 * ((b >> d & 1) + static_cast<double>(i[d]) / static_cast<double>(blockVertices - 1));
                };
                const Point p = bend(part(0), part(1), part(2));
                (*block)[i] = p;
                (*scalar)[i] = std::sin(3 * p[0]) + p[1] * p[2];
            } while (i.advance(MultiIndex<3>::filled(blockVertices)));
            const auto id = blocks.addBlock("block " + std::to_string(b), block);
            blocks.setField("scalar", scalar, id);
        }
        values = blocks.field("scalar");
        positions = Hestra::makeRef<UniformCartesianArray>(Orvix::BoundingBox({0.25, 0.1, 0.2}, {0.95, 0.95, 0.95}),
                                                           MultiIndex<3>::filled(lattice));
        context.slice = slice;
        context.grid = source;
    }
};

const Fixture& fixture() {
    static const Fixture made;
    return made;
}

GridEvaluator::Context contextOf(bool exact) {
    GridEvaluator::Context context = fixture().context;
    if (exact) context.cellLocator = CellLocator::Exact;
    return context;
}

LocatorOptions optionsOf(bool exact) {
    LocatorOptions options;
    if (exact) options.cellLocator = CellLocator::Exact;
    return options;
}

/// Location through the evaluator, its messages included unless nobody listens.
void Find(benchmark::State& state, bool isHeard) {
    const Fixture& data = fixture();
    const GridEvaluator::Context context = contextOf(state.range(0) != 0);
    ToFile file;
    std::optional<Hestra::ScopedListener> nobody;
    if (!isHeard) nobody.emplace(Hestra::Console::Listener());
    GridEvaluator evaluator;
    evaluator.find(data.positions, *data.source->CartesianPositions(), context);
    for (auto _ : state) {
        state.PauseTiming();
        file.rewind();
        state.ResumeTiming();
        evaluator.find(data.positions, *data.source->CartesianPositions(), context);
    }
    std::size_t found = 0;
    for (std::size_t k = 0; k < data.positions->nElements(); ++k)
        found += evaluator.resultCode(k) != LocationResult::NotFound;
    state.counters["found"] = static_cast<double>(found) / static_cast<double>(data.positions->nElements());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.positions->nElements()));
}

/// Location and interpolation.
void FindAndEvaluate(benchmark::State& state) {
    const Fixture& data = fixture();
    const GridEvaluator::Context context = contextOf(state.range(0) != 0);
    ToFile file;
    GridEvaluator evaluator;
    evaluator.find(data.positions, *data.source->CartesianPositions(), context);
    for (auto _ : state) {
        state.PauseTiming();
        file.rewind();
        state.ResumeTiming();
        evaluator.find(data.positions, *data.source->CartesianPositions(), context);
        benchmark::DoNotOptimize(evaluator.evalKnownDataTypes(data.positions, *data.values));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.positions->nElements()));
}

/// The same location, each position by itself.
void Locate(benchmark::State& state) {
    const Fixture& data = fixture();
    ToFile file;
    const LocalFromWorldPoint locator(data.slice, data.source, "Positions", optionsOf(state.range(0) != 0));
    const auto n = static_cast<long long>(data.positions->nElements());
    for (auto _ : state) {
        long long found = 0;
#pragma omp parallel for schedule(dynamic, 2048) reduction(+ : found)
        for (long long k = 0; k < n; ++k)
            found += bool(locator.locate(data.positions->create(static_cast<index_t>(k))));
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * n);
}

/// The same, of 4 x 4 x 4 neighbours at a time.
void LocateNeighbours(benchmark::State& state) {
    const Fixture& data = fixture();
    ToFile file;
    const LocalFromWorldPoint locator(data.slice, data.source, "Positions", optionsOf(state.range(0) != 0));
    for (index_t k = 0; k < data.positions->nElements(); k += 97) (void)locator.locate(data.positions->create(k));
    constexpr long long side = lattice / 4;
    for (auto _ : state) {
        long long found = 0;
#pragma omp parallel for schedule(dynamic, 16) reduction(+ : found)
        for (long long tile = 0; tile < side * side * side; ++tile) {
            Point positions[64];
            LocalFromWorldPoint::Location locations[64];
            const MultiIndex<3> place = MultiIndex<3>::fromLinear(static_cast<index_t>(tile), {side, side, side});
            const MultiIndex<3> first(4 * place[0], 4 * place[1], 4 * place[2]);
            MultiIndex<3> offset;
            std::size_t n = 0;
            do positions[n++] = (*data.positions)[first + offset];
            while (offset.advance({4, 4, 4}));
            locator.locate(positions, locations);
            for (const auto& location : locations) found += bool(location);
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.positions->nElements()));
}

/// What remains when the cell of each position is known: a solve, and an interpolation if asked for.
template<class At>
void inKnownCells(benchmark::State& state, long long n, const At& at, bool isEvaluated) {
    const Fixture& data = fixture();
    struct Known {
        const Block* block;
        const ExactCellLocator* exact;
        const MemArray<3, double>* values;
        MultiIndex<3> cell;
        Point position;
    };
    std::vector<Known> known;
    ToFile file;
    const LocalFromWorldPoint locator(data.slice, data.source);
    const bool isExact = state.range(0) != 0;
    const double precision =
        UniGridMapper(Hestra::dynamicCast<Block>(data.source->CartesianPositions()->getFirstData()), 1.0, 0.01)
            .precision();
    std::vector<StrongPtr<MemBase>> keptAlive;
    std::vector<std::pair<const Block*, const MemArray<3, double>*>> blocks;
    std::vector<StrongPtr<ExactCellLocator>> exactLocators;
    for (unsigned int b = 0; b < locator.nFragments(); ++b) {
        keptAlive.push_back(locator.coordinateField()->getData(locator.fragmentID(b)));
        keptAlive.push_back(data.values->getData(locator.fragmentID(b)));
        blocks.emplace_back(dynamic_cast<const Block*>(keptAlive[2 * b].rawptr()),
                            dynamic_cast<const MemArray<3, double>*>(keptAlive[2 * b + 1].rawptr()));
        exactLocators.push_back(Hestra::makeRef<ExactCellLocator>(Hestra::dynamicCast<Block>(keptAlive[2 * b])));
    }
    for (long long k = 0; k < n; ++k) {
        const Point p = at(static_cast<std::size_t>(k));
        const auto found = locator.locate(p);
        if (!found) continue;
        MultiIndex<3> cell;
        for (int d = 0; d < 3; ++d)
            cell[d] = std::min(static_cast<index_t>(std::max(0.0, found.localCoordinates[d])), blockVertices - 2);
        known.push_back({blocks[found.fragment].first, exactLocators[found.fragment].rawptr(),
                         blocks[found.fragment].second, cell, p});
    }
    const auto count = static_cast<long long>(known.size());
    std::vector<double> out(known.size());
    const MultiIndex<3> last = MultiIndex<3>::filled(blockVertices - 1);
    for (auto _ : state) {
#pragma omp parallel for schedule(dynamic, 2048)
        for (long long k = 0; k < count; ++k) {
            const Known& it = known[static_cast<std::size_t>(k)];
            Point uvw;
            if (isExact)
                it.exact->localInCell(it.position, it.cell, uvw);
            else
                UniGridMapper::localCellCoordinatesFromCell(uvw, it.position, it.cell, *it.block, last, precision);
            out[static_cast<std::size_t>(k)] =
                isEvaluated ? Interpolate<3, double>(*it.values, uvw).evaluate() : uvw[0] + uvw[1] + uvw[2];
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void KnownCells(benchmark::State& state) {
    const Fixture& data = fixture();
    inKnownCells(
        state, static_cast<long long>(data.positions->nElements()),
        [&](std::size_t k) { return data.positions->create(k); }, true);
}

/// Positions on the path of a particle, some ten a cell, through all blocks.
const std::vector<Point>& path() {
    static const std::vector<Point> made = [] {
        std::vector<Point> points;
        for (int k = 0; k < 1000000; ++k) {
            const double t = 1e-3 * k;
            points.push_back(
                {0.6 + 0.3 * std::sin(0.7 * t), 0.5 + 0.3 * std::cos(1.1 * t), 0.5 + 0.2 * std::sin(0.3 * t)});
        }
        return points;
    }();
    return made;
}
void PathInKnownCells(benchmark::State& state) {
    inKnownCells(
        state, static_cast<long long>(path().size()), [](std::size_t k) { return path()[k]; }, false);
}
template<class Locate>
void alongPath(benchmark::State& state, const Locate& locate) {
    const Fixture& data = fixture();
    ToFile file;
    const LocalFromWorldPoint locator(data.slice, data.source, "Positions", optionsOf(state.range(0) != 0));
    std::vector<LocalFromWorldPoint::Location> found(path().size());
    for (auto _ : state) locate(locator, found);
    const auto count = std::count_if(found.begin(), found.end(), [](const auto& each) { return bool(each); });
    state.counters["found"] = static_cast<double>(count) / static_cast<double>(found.size());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(found.size()));
}
void PathOneByOne(benchmark::State& state) {
    alongPath(state, [](const LocalFromWorldPoint& locator, std::span<LocalFromWorldPoint::Location> found) {
        for (std::size_t k = 0; k < found.size(); ++k) found[k] = locator.locate(path()[k]);
    });
}
void PathTogether(benchmark::State& state) {
    alongPath(state, [](const LocalFromWorldPoint& locator, std::span<LocalFromWorldPoint::Location> found) {
        locator.locate(path(), found);
    });
}
void PathWithHint(benchmark::State& state) {
    alongPath(state, [](const LocalFromWorldPoint& locator, std::span<LocalFromWorldPoint::Location> found) {
        LocationHint hint;
        locator.locate(path(), found, hint);
    });
}
/// Particles that are eight times as fast, and pass a cell in two or three steps.
template<bool HasHint>
void FastPath(benchmark::State& state) {
    alongPath(state, [](const LocalFromWorldPoint& locator, std::span<LocalFromWorldPoint::Location> found) {
        LocationHint hint;
        for (std::size_t k = 0; k < found.size(); k += 8)
            found[k] = HasHint ? locator.locate(path()[k], hint) : locator.locate(path()[k]);
    });
}

/// The whole request, its new field included.
void EvaluateGrid(benchmark::State& state) {
    const Fixture& data = fixture();
    const StrongPtr<Grid> destination = data.slice->newGrid("destination");
    const auto box = Orvix::BoundingBox({0.25, 0.1, 0.2}, {0.95, 0.95, 0.95});
    UniformGrid3D::create(*destination, box, MultiIndex<3>::filled(lattice));
    ToFile file;
    for (auto _ : state) {
        state.PauseTiming();
        file.rewind();
        state.ResumeTiming();
        destination->getCartesianRepresentation()->setField("scalar", {});
        if (!EvalGrid(*destination, *data.source, "scalar", *data.slice, {}, state.range(0) != 0)) std::abort();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lattice * lattice * lattice));
}

/// How much of the process is in memory, in bytes: now, or at most since it was forgotten.
double bytesInMemory(const char* entry) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(entry)) return 1024.0 * std::strtod(line.c_str() + line.find(':') + 1, nullptr);
    return 0.0;
}

/// The same with search structures made by it, or the memory that it needs beyond what was there.
void EvaluateGridOnce(benchmark::State& state) {
    double peak = 0.0;
    ToFile file;
    for (auto _ : state) {
        state.PauseTiming();
        file.rewind();
        {
            Fixture data;
            const auto destination = [&](const char* name) {
                const StrongPtr<Grid> made = data.slice->newGrid(name);
                UniformGrid3D::create(*made, Orvix::BoundingBox({0.25, 0.1, 0.2}, {0.95, 0.95, 0.95}),
                                      MultiIndex<3>::filled(lattice));
                return made;
            };
            const StrongPtr<Grid> first = destination("first"), second = destination("second");
            state.ResumeTiming();
            if (!EvalGrid(*first, *data.source, "scalar", *data.slice, {}, state.range(0) != 0)) std::abort();
            state.PauseTiming();
            malloc_trim(0);
            std::ofstream("/proc/self/clear_refs") << "5";
            const double before = bytesInMemory("VmRSS");
            if (!EvalGrid(*second, *data.source, "scalar", *data.slice, {}, state.range(0) != 0)) std::abort();
            peak = std::max(peak, bytesInMemory("VmHWM") - before);
        }
        state.ResumeTiming();
    }
    state.counters["peak_MiB"] = peak / (1 << 20);
}

/// A scalar on a uniform grid, and positions in it, in any order or along the rows of a lattice.
struct UniformFixture {
    StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    StrongPtr<Grid> grid = slice->newGrid("uniform");
    StrongPtr<MemArray<3, double>> values = MemArray<3, double>::create(MultiIndex<3>::filled(lattice));
    StrongPtr<Field> positionsOfSource, field;
    StrongPtr<MemArray<1, Point>> positions;

    UniformFixture(std::size_t count, bool isInOrder) {
        const UniformGrid3D source =
            UniformGrid3D::create(*grid, Orvix::BoundingBox({-1, 0, 2}, {3, 1, 7}), MultiIndex<3>::filled(lattice));
        for (index_t k = 0; k < values->nElements(); ++k) values->element(k) = std::sin(0.1 * static_cast<double>(k));
        RegularGrid3D(grid).setField("scalar", values);
        positionsOfSource = grid->CartesianPositions();
        field = RegularGrid3D(grid).field("scalar");
        std::vector<Point> points(count);
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        const auto side = static_cast<std::size_t>(std::cbrt(static_cast<double>(count)) + 0.5);
        for (std::size_t k = 0; k < count; ++k) {
            const double s = 1.0 / static_cast<double>(side);
            double u = s * static_cast<double>(k % side), v = s * static_cast<double>(k / side % side),
                   w = s * static_cast<double>(k / side / side);
            if (!isInOrder) {
                u = unit(random);
                v = unit(random);
                w = unit(random);
            }
            points[k] = Point(-1 + 4 * u, v, 2 + 5 * w);
        }
        positions = makeMemArray1D(std::move(points));
    }
};

UniformFixture& uniformFixture(benchmark::State& state) {
    static std::unique_ptr<UniformFixture> kept;
    static std::pair<std::int64_t, std::int64_t> which;
    if (const auto wanted = std::make_pair(state.range(0), state.range(1)); !kept || which != wanted) {
        kept.reset();
        kept = std::make_unique<UniformFixture>(static_cast<std::size_t>(wanted.first), wanted.second != 0);
        which = wanted;
    }
    return *kept;
}

/// What remains to be done at the least: an index, a trilinear interpolation and a store.
void UniformPlainLoop(benchmark::State& state) {
    UniformFixture& data = uniformFixture(state);
    const auto n = static_cast<long long>(data.positions->nElements());
    const Point* const positions = data.positions->data();
    const double* const values = data.values->data();
    const Memory memory(state.range(2) != 0);
    for (auto _ : state) {
        std::vector<double> out(static_cast<std::size_t>(n));
        const double origin[3] = {-1, 0, 2},
                     spacing[3] = {4.0 / (lattice - 1), 1.0 / (lattice - 1), 5.0 / (lattice - 1)};
#pragma omp parallel for num_threads(static_cast <int>(state.range(3)))
        for (long long k = 0; k < n; ++k) {
            double t[3];
            std::size_t i[3], step[3] = {1, lattice, lattice * lattice};
            for (int d = 0; d < 3; ++d) {
                const double x = std::min(std::max((positions[k][d] - origin[d]) / spacing[d], 0.0), lattice - 1.0);
                i[d] = static_cast<std::size_t>(static_cast<long long>(x));
                t[d] = x - static_cast<double>(i[d]);
                if (i[d] + 1 == lattice) step[d] = 0;
            }
            const double* const at = values + i[0] + lattice * (i[1] + lattice * i[2]);
            const auto row = [&](std::size_t o) { return at[o] * (1 - t[0]) + at[o + step[0]] * t[0]; };
            const auto plane = [&](std::size_t o) { return row(o) * (1 - t[1]) + row(o + step[1]) * t[1]; };
            out[static_cast<std::size_t>(k)] = plane(0) * (1 - t[2]) + plane(step[2]) * t[2];
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

/// `find` and the values, of an evaluator that is made for it.
void UniformEvaluator(benchmark::State& state) {
    UniformFixture& data = uniformFixture(state);
    const TeamOf team(state.range(3));
    const Memory memory(state.range(2) != 0);
    GridEvaluator::Context context;
    context.slice = data.slice;
    context.grid = data.grid;
    for (auto _ : state) {
        GridEvaluator evaluator;
        evaluator.find(data.positions, *data.positionsOfSource, context);
        benchmark::DoNotOptimize(evaluator.evalKnownDataTypes(data.positions, *data.field));
    }
    const auto before = mallinfo2();
    GridEvaluator evaluator;
    evaluator.find(data.positions, *data.positionsOfSource, context);
    const auto after = mallinfo2();
    const auto n = static_cast<double>(data.positions->nElements());
    state.counters["bytes_a_position"] =
        (static_cast<double>(after.uordblks + after.hblkhd) - static_cast<double>(before.uordblks + before.hblkhd)) / n;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.positions->nElements()));
}

BENCHMARK(PathInKnownCells)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PathOneByOne)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PathTogether)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PathWithHint)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FastPath<false>)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FastPath<true>)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(KnownCells)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Locate)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LocateNeighbours)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Find, heard, true)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Find, unheard, false)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FindAndEvaluate)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(EvaluateGrid)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(EvaluateGridOnce)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#define VANTLE_UNIFORM(name)                                                                                           \
    BENCHMARK(name)                                                                                                    \
        ->ArgNames({"positions", "in_order", "kept", "threads"})                                                       \
        ->ArgsProduct({{1000000, 10000000}, {0, 1}, {0, 1}, {1, 2}})                                                   \
        ->Unit(benchmark::kMillisecond)                                                                                \
        ->UseRealTime()
VANTLE_UNIFORM(UniformPlainLoop);
VANTLE_UNIFORM(UniformEvaluator);

} // namespace
