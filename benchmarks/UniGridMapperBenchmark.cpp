// Point location in one curvilinear block: building the search structures beside a pass that only computes the box of
// all vertices, and a million positions beside the same solve in cells that are known already.
//
// The blunt fin takes part when the environment variable VANTLE_TEST_DATA names the folder of real data.

#include <baseop/ExactCellLocator.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>

#include <benchmark/benchmark.h>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

using Point = Orvix::PhysicalSpace::point;
using Vector = Orvix::PhysicalSpace::vector;
using Block = Vantle::MemArray<3, Point>;
using BlockPtr = Hestra::StrongPtr<Block>;
using Index = Vantle::MultiIndex<3>;

constexpr double Epsilon = 0.02, Resolution = 1.0, Precision = 0.01;

/// n cells an axis, moderately distorted: grid lines bend by up to 0.3 cells a cell.
BlockPtr distorted(Vantle::index_t n) {
    const auto block = Block::create({n + 1, n + 1, n + 1});
    const double s = static_cast<double>(n);
    Index i;
    do {
        const double x = static_cast<double>(i[0]) / s, y = static_cast<double>(i[1]) / s,
                     z = static_cast<double>(i[2]) / s;
        (*block)[i] =
            Point(s * (x + 0.05 * std::sin(6 * y + 4 * z)), s * (y + 0.05 * std::sin(5 * x + 7 * z) + 0.1 * x * y),
                  s * (z + 0.05 * std::sin(6 * x - 3 * y)));
    } while (i.advance(block->Size()));
    return block;
}

BlockPtr bluntFin() {
    const char* const folder = std::getenv("VANTLE_TEST_DATA");
    std::ifstream file(std::string(folder ? folder : "") + "/bluntfinxyz.bin", std::ios::binary);
    const auto word = [&] {
        unsigned char bytes[4] = {};
        file.read(reinterpret_cast<char*>(bytes), 4);
        return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
    };
    Index n;
    for (int d = 0; d < 3; ++d) n[d] = word();
    if (!file || n.product() > 1000000) return nullptr;
    const auto block = Block::create(n);
    for (int d = 0; d < 3; ++d)
        for (Vantle::index_t i = 0; i < n.product(); ++i)
            block->element(i)[d] = static_cast<double>(std::bit_cast<float>(word()));
    return block;
}

/// A block, what searches in it, and random positions in random cells, known beforehand.
struct Fixture {
    BlockPtr block;
    Index last;
    UniGridMapper mapper;
    Vantle::ExactCellLocator exact;
    std::vector<Point> positions;
    std::vector<Index> cells;

    Fixture(const BlockPtr& b, std::size_t count)
        : block(b), last(b->Size() - 1), mapper(b, Resolution, Precision), exact(b) {
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        for (std::size_t n = 0; n < count; ++n) {
            const Index cell(random() % last[0], random() % last[1], random() % last[2]);
            const double at[3] = {unit(random), unit(random), unit(random)};
            Point p;
            for (unsigned q = 0; q < 8; ++q) {
                double weight = 1.0;
                for (unsigned d = 0; d < 3; ++d) weight *= q >> d & 1 ? at[d] : 1.0 - at[d];
                const Point corner = (*block)[cell + Index(q & 1, q >> 1 & 1, q >> 2)];
                for (int d = 0; d < 3; ++d) p[d] += weight * corner[d];
            }
            positions.push_back(p);
            cells.push_back(cell);
        }
    }
};

/// 0 is the blunt fin, other numbers are cells an axis.
const Fixture* fixture(benchmark::State& state) {
    static std::map<std::int64_t, std::unique_ptr<Fixture>> all;
    auto& made = all[state.range(0)];
    if (!made) {
        const BlockPtr block =
            state.range(0) == 0 ? bluntFin() : distorted(static_cast<Vantle::index_t>(state.range(0)));
        if (block) made = std::make_unique<Fixture>(block, 1000000);
    }
    if (!made) state.SkipWithError("VANTLE_TEST_DATA names no folder with the blunt fin");
    return made.get();
}

template<class Query>
void run(benchmark::State& state, Query&& query) {
    const Fixture* const f = fixture(state);
    if (!f) return;
    const auto count = static_cast<std::ptrdiff_t>(f->positions.size());
    long found = 0;
    for (auto _ : state) {
        found = 0;
#pragma omp parallel for num_threads(static_cast <int>(state.range(1))) reduction(+ : found)
        for (std::ptrdiff_t k = 0; k < count; ++k) found += query(*f, static_cast<std::size_t>(k));
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.counters["found"] = static_cast<double>(found) / static_cast<double>(count);
}

void BoxOfVertices(benchmark::State& state) {
    const BlockPtr block = distorted(static_cast<Vantle::index_t>(state.range(0)));
    for (auto _ : state) {
        double low[3], high[3];
        for (int d = 0; d < 3; ++d) low[d] = high[d] = block->element(0)[d];
        const double* at = block->data()->data();
        for (Vantle::index_t i = 0; i < block->nElements(); ++i, at += 3)
            for (int d = 0; d < 3; ++d) {
                low[d] = std::min(low[d], at[d]);
                high[d] = std::max(high[d], at[d]);
            }
        benchmark::DoNotOptimize(low);
        benchmark::DoNotOptimize(high);
    }
}
void BuildUniGridMapper(benchmark::State& state) {
    const BlockPtr block = distorted(static_cast<Vantle::index_t>(state.range(0)));
    for (auto _ : state) UniGridMapper(block, Resolution, Precision);
}
void BuildExactCellLocator(benchmark::State& state) {
    const BlockPtr block = distorted(static_cast<Vantle::index_t>(state.range(0)));
    for (auto _ : state) Vantle::ExactCellLocator{block};
}
void BuildTreeCellMapper(benchmark::State& state) {
    const BlockPtr block = distorted(static_cast<Vantle::index_t>(state.range(0)));
    for (auto _ : state) TreeCellMapper(block, Vector(1.5, 1.5, 1.5), 0.02, 13);
}

void SolveInKnownCell(benchmark::State& state) {
    run(state, [](const Fixture& f, std::size_t k) {
        Point uvw;
        return UniGridMapper::localCellCoordinatesFromCell(uvw, f.positions[k], f.cells[k], *f.block, f.last,
                                                           f.mapper.precision());
    });
}
void UniGridQuery(benchmark::State& state) {
    run(state, [](const Fixture& f, std::size_t k) {
        Point uvw;
        return f.mapper.localCellCoordinatesFromCurviGrid(f.positions[k], uvw, Epsilon) != 0;
    });
}
void ExactSolveInKnownCell(benchmark::State& state) {
    run(state, [](const Fixture& f, std::size_t k) {
        Point uvw;
        return f.exact.localInCell(f.positions[k], f.cells[k], uvw);
    });
}
void ExactQuery(benchmark::State& state) {
    run(state, [](const Fixture& f, std::size_t k) { return bool(f.exact.locate(f.positions[k])); });
}

/// The same, many positions at once.
template<class Locate>
void runTogether(benchmark::State& state, const Locate& locate) {
    const Fixture* const f = fixture(state);
    if (!f) return;
    const auto count = static_cast<std::ptrdiff_t>(f->positions.size());
    constexpr std::ptrdiff_t Piece = 1 << 18;
    long found = 0;
    for (auto _ : state) {
        found = 0;
#pragma omp parallel for num_threads(static_cast <int>(state.range(1))) reduction(+ : found)
        for (std::ptrdiff_t begin = 0; begin < count; begin += Piece) {
            const auto n = static_cast<std::size_t>(std::min(Piece, count - begin));
            std::vector<Vantle::CellLocation> places(n);
            locate(*f, std::span(f->positions).subspan(static_cast<std::size_t>(begin), n), places);
            for (std::size_t k = 0; k < n; ++k) found += bool(places[k]);
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.counters["found"] = static_cast<double>(found) / static_cast<double>(count);
}
void UniGridQueryTogether(benchmark::State& state) {
    runTogether(state, [](const Fixture& f, std::span<const Point> points, std::span<Vantle::CellLocation> found) {
        f.mapper.locate(points, found, Epsilon);
    });
}
void ExactQueryTogether(benchmark::State& state) {
    runTogether(state, [](const Fixture& f, std::span<const Point> points, std::span<Vantle::CellLocation> found) {
        f.exact.locate(points, found);
    });
}

BENCHMARK(BoxOfVertices)->ArgName("cells")->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BuildUniGridMapper)->ArgName("cells")->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BuildExactCellLocator)->ArgName("cells")->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BuildTreeCellMapper)->ArgName("cells")->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();
#define VANTLE_QUERY(name)                                                                                             \
    BENCHMARK(name)                                                                                                    \
        ->ArgNames({"cells", "threads"})                                                                               \
        ->Args({128, 1})                                                                                               \
        ->Args({128, 2})                                                                                               \
        ->Args({0, 1})                                                                                                 \
        ->Unit(benchmark::kMillisecond)                                                                                \
        ->UseRealTime()
VANTLE_QUERY(SolveInKnownCell);
VANTLE_QUERY(UniGridQuery);
VANTLE_QUERY(UniGridQueryTogether);
VANTLE_QUERY(ExactSolveInKnownCell);
VANTLE_QUERY(ExactQuery);
VANTLE_QUERY(ExactQueryTogether);

} // namespace
