// Tables and flags of a million triangles, each beside a plain loop. That for the edge table sorts the triangles' sides
// by their smaller vertex and knows neither degenerate triangles nor sparse vertex numbers; those for flags check no
// index. And what it costs to look at a surface.

#include "Settings.hpp"

#include <baseop/SurfaceRefinement.hpp>
#include <model/hestra/Console.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <numeric>
#include <random>

using namespace Vantle;

namespace {

using Point = Orvix::PhysicalSpace::point;

/// A torus of n by n vertices: closed, 2 n n triangles, 3 n n edges. Shuffled, as after many refinements, its vertices
/// are numbered without order.
struct Mesh {
    Mesh(unsigned n, bool shuffled) : vertexCount(n * n) {
        std::vector<unsigned> number(vertexCount);
        std::iota(number.begin(), number.end(), 0U);
        std::mt19937 random(7);
        if (shuffled) std::shuffle(number.begin(), number.end(), random);
        const auto vertex = [&](unsigned i, unsigned j) { return number[i % n + n * (j % n)]; };
        std::vector<Triangle> faces;
        std::vector<Edge> sides;
        for (unsigned j = 0; j < n; ++j)
            for (unsigned i = 0; i < n; ++i) {
                const unsigned a = vertex(i, j), b = vertex(i + 1, j), c = vertex(i + 1, j + 1), d = vertex(i, j + 1);
                faces.emplace_back(a, b, c);
                faces.emplace_back(a, c, d);
                for (const unsigned other : {b, c, d}) sides.emplace_back(std::min(a, other), std::max(a, other));
            }
        triangles = makeMemArray1D(std::move(faces));
        edges = makeMemArray1D(std::move(sides));
        table = MemArray<1, Edge>::create(edges->Size());
        faceTable = MemArray<1, Triangle>::create(triangles->Size());
        GenerateEdge2FacesTable(*table, *triangles, *edges, faceCount(), edgeCount());
        points = MemArray<1, Point>::create(vertexCount);
        for (index_t v = 0; v < vertexCount; ++v)
            for (double& x : points->element(v)) x = static_cast<double>(random() % 1000);
        GridWithCartesianVertices(grid, 2).positions()->setPersistentData(points);
        const auto vertices = grid->findVertices(2);
        (*(*grid)[SkeletonID(2, 1)])[*vertices]->setPositions(Hestra::makeRef<Field>(triangles, nullptr));
        (*(*grid)[SkeletonID(1, 1)])[*vertices]->setPositions(Hestra::makeRef<Field>(edges, nullptr));
    }
    [[nodiscard]] int faceCount() const { return static_cast<int>(triangles->nElements()); }
    [[nodiscard]] int edgeCount() const { return static_cast<int>(edges->nElements()); }

    unsigned vertexCount;
    Hestra::StrongPtr<MemArray<1, Triangle>> triangles;
    Hestra::StrongPtr<MemArray<1, Triangle>> faceTable;
    Hestra::StrongPtr<MemArray<1, Edge>> edges, table;
    Hestra::StrongPtr<MemArray<1, Point>> points;
    Hestra::StrongPtr<Grid> grid{new Grid};
};

Mesh& mesh(bool shuffled) {
    static Mesh ordered(708, false), mixed(708, true);
    return shuffled ? mixed : ordered;
}

void EdgeTable(benchmark::State& state) {
    Mesh& m = mesh(state.range(0) != 0);
    const TeamOf team(state.range(1));
    const Memory memory(state.range(2) != 0);
    for (auto _ : state) {
        GenerateEdge2FacesTable(*m.table, *m.triangles, *m.edges, m.faceCount(), m.edgeCount());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(m.triangles->nElements()));
}
BENCHMARK(EdgeTable)
    ->ArgNames({"shuffled", "threads", "kept"})
    ->ArgsProduct({{0, 1}, {1, 2}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void Buckets(benchmark::State& state) {
    struct Side {
        unsigned other, face;
    };
    Mesh& m = mesh(state.range(0) != 0);
    const Triangle* const triangles = m.triangles->data();
    const Edge* const edges = m.edges->data();
    Edge* const table = m.table->data();
    const auto faceCount = static_cast<unsigned>(m.triangles->nElements());
    const Memory memory(state.range(1) != 0);
    for (auto _ : state) {
        std::vector<unsigned> begin(m.vertexCount + 1, 0);
        for (unsigned f = 0; f < faceCount; ++f)
            for (unsigned s = 0; s < 3; ++s) ++begin[std::min(triangles[f][s], triangles[f][(s + 1) % 3]) + 1];
        std::partial_sum(begin.begin(), begin.end(), begin.begin());
        std::vector<Side> sides(begin.back());
        std::vector<unsigned> next(begin.begin(), begin.end() - 1);
        for (unsigned f = 0; f < faceCount; ++f)
            for (unsigned s = 0; s < 3; ++s) {
                const auto [low, high] = std::minmax(triangles[f][s], triangles[f][(s + 1) % 3]);
                sides[next[low]++] = {high, f};
            }
        for (index_t e = 0; e < m.edges->nElements(); ++e) {
            const auto [low, high] = std::minmax(edges[e][0], edges[e][1]);
            unsigned hits = 0;
            for (unsigned s = begin[low]; s < begin[low + 1] && hits < 2; ++s)
                if (sides[s].other == high) table[e][hits++] = sides[s].face;
            if (hits == 1) table[e][1] = table[e][0];
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(faceCount));
}
BENCHMARK(Buckets)
    ->ArgNames({"shuffled", "kept"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void FaceTable(benchmark::State& state) {
    Mesh& m = mesh(state.range(0) != 0);
    const TeamOf team(state.range(1));
    for (auto _ : state) {
        GenerateFace2EdgesTable(*m.faceTable, *m.table, *m.triangles, *m.edges, m.edgeCount(), m.faceCount());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * m.faceCount());
}
BENCHMARK(FaceTable)
    ->ArgNames({"shuffled", "threads"})
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void PlainFaceTable(benchmark::State& state) {
    Mesh& m = mesh(state.range(0) != 0);
    const Edge* const table = m.table->data();
    Triangle* const result = m.faceTable->data();
    for (auto _ : state) {
        std::vector<unsigned char> filled(m.triangles->nElements(), 0);
        for (unsigned e = 0; e < m.edges->nElements(); ++e)
            for (const unsigned face : table[e])
                if (filled[face] < 3) result[face][filled[face]++] = e;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * m.faceCount());
}
BENCHMARK(PlainFaceTable)->ArgName("shuffled")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

template<class Criterion>
void flags(benchmark::State& state, Criterion criterion) {
    Mesh& m = mesh(state.range(0) != 0);
    const TeamOf team(state.range(1));
    const Hestra::ScopedListener nobody{{}};
    for (auto _ : state) benchmark::DoNotOptimize(criterion.DetectEdges(m.grid));
    state.SetItemsProcessed(state.iterations() * m.edgeCount());
}
// Lengths above a threshold that few, half and all edges exceed.
void LengthFlags(benchmark::State& state) { flags(state, EdgeLengthCriterion(static_cast<double>(state.range(2)))); }
BENCHMARK(LengthFlags)
    ->ArgNames({"shuffled", "threads", "threshold"})
    ->ArgsProduct({{0, 1}, {1, 2}, {1200, 660, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void PlainLengthFlags(benchmark::State& state) {
    Mesh& m = mesh(state.range(0) != 0);
    const Point* const points = m.points->data();
    const Edge* const edges = m.edges->data();
    const double limit = static_cast<double>(state.range(1) * state.range(1));
    for (auto _ : state) {
        std::vector<bool> result(m.edges->nElements());
        unsigned count = 0;
        for (std::size_t e = 0; e < result.size(); ++e) {
            const auto d = points[edges[e][0]] - points[edges[e][1]];
            const bool isLong = d[0] * d[0] + d[1] * d[1] + d[2] * d[2] > limit;
            result[e] = isLong;
            count += isLong;
        }
        benchmark::DoNotOptimize(result);
        benchmark::DoNotOptimize(count);
    }
    state.SetItemsProcessed(state.iterations() * m.edgeCount());
}
BENCHMARK(PlainLengthFlags)
    ->ArgNames({"shuffled", "threshold"})
    ->ArgsProduct({{0, 1}, {1200, 660, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void FlipFlags(benchmark::State& state) { flags(state, EdgeFlipCriterion(1e-3)); }
BENCHMARK(FlipFlags)
    ->ArgNames({"shuffled", "threads"})
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void View(benchmark::State& state) {
    Mesh& m = mesh(false);
    for (auto _ : state) benchmark::DoNotOptimize(TriangularSurface(m.grid));
}
BENCHMARK(View);

} // namespace
