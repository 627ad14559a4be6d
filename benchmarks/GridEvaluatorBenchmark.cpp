// A scalar of eight distorted curvilinear blocks, evaluated at the vertices of a uniform grid: location, location and
// interpolation, beside the solve and interpolation that remain when the cells are known beforehand.
//
// Messages of the searches go to a temporary file, or to nobody.

#include <baseop/EvalGrid.hpp>
#include <baseop/ExactCellLocator.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <model/hestra/Console.hpp>
#include <model/vantle/GridKinds.hpp>

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * data.positions->nElements()));
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * data.positions->nElements()));
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * data.positions->nElements()));
}

/// What remains when the cell of each position is known: a solve, and an interpolation.
void KnownCells(benchmark::State& state) {
    const Fixture& data = fixture();
    const auto n = static_cast<long long>(data.positions->nElements());
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
        const Point p = data.positions->create(static_cast<index_t>(k));
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
            const Known& at = known[static_cast<std::size_t>(k)];
            Point uvw;
            if (isExact)
                at.exact->localInCell(at.position, at.cell, uvw);
            else
                UniGridMapper::localCellCoordinatesFromCell(uvw, at.position, at.cell, *at.block, last, precision);
            out[static_cast<std::size_t>(k)] = Interpolate<3, double>(*at.values, uvw).evaluate();
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lattice * lattice * lattice));
}

BENCHMARK(KnownCells)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Locate)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LocateNeighbours)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Find, heard, true)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Find, unheard, false)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FindAndEvaluate)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(EvaluateGrid)->ArgName("exact")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
