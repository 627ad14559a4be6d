// The edge-to-faces table of a million triangles, beside a pass written by hand that sorts the triangles' sides by
// their smaller vertex and knows neither degenerate triangles nor sparse vertex numbers.

#include <baseop/SurfaceRefinement.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <numeric>
#include <random>

using namespace Vantle;

namespace {

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
    }

    unsigned vertexCount;
    Hestra::StrongPtr<MemArray<1, Triangle>> triangles;
    Hestra::StrongPtr<MemArray<1, Edge>> edges, table;
};

Mesh& mesh(bool shuffled) {
    static Mesh ordered(708, false), mixed(708, true);
    return shuffled ? mixed : ordered;
}

void EdgeTable(benchmark::State& state) {
    Mesh& m = mesh(state.range(0) != 0);
    for (auto _ : state) {
        GenerateEdge2FacesTable(*m.table, *m.triangles, *m.edges, static_cast<int>(m.triangles->nElements()),
                                static_cast<int>(m.edges->nElements()));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(m.triangles->nElements()));
}
BENCHMARK(EdgeTable)->ArgName("shuffled")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void Buckets(benchmark::State& state) {
    struct Side {
        unsigned other, face;
    };
    Mesh& m = mesh(state.range(0) != 0);
    const Triangle* const triangles = m.triangles->data();
    const Edge* const edges = m.edges->data();
    Edge* const table = m.table->data();
    const auto faceCount = static_cast<unsigned>(m.triangles->nElements());
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
BENCHMARK(Buckets)->ArgName("shuffled")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace
