// Joins of blocks beside hashing and sorting the coordinates of all vertices of their faces, which any way of finding
// them has to do.

#include <baseop/BlockJoins.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <bit>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <omp.h>
#include <random>
#include <string>
#include <vector>

namespace {

using Point = Orvix::PhysicalSpace::point;
using Block = Vantle::MemArray<3, Point>;
using Index = Vantle::MultiIndex<3>;

/// Blocks of n^3 vertices in a row of rows of rows, each with its axes permuted and flipped at random.
struct Fixture {
    Hestra::StrongPtr<Vantle::Grid> grid = Hestra::makeRef<Vantle::Grid>();
    std::vector<Hestra::StrongPtr<Block>> blocks;
    std::size_t slots = 0;

    Fixture(Vantle::index_t perAxis, Vantle::index_t n) {
        Vantle::RegularGrid3D made(grid);
        std::mt19937_64 random(7);
        Index place;
        do {
            std::array<int, 3> axis{0, 1, 2};
            std::shuffle(axis.begin(), axis.end(), random);
            const auto flips = random();
            const auto block = Block::create(Index::filled(n));
            Index i;
            do {
                double x[3];
                for (int d = 0; d < 3; ++d) {
                    const int own = axis[static_cast<std::size_t>(d)];
                    const auto along = flips >> d & 1 ? n - 1 - i[own] : i[own];
                    x[d] = 0.01 * static_cast<double>(place[d] * (n - 1) + along);
                }
                (*block)[i] =
                    Point(x[0] + 0.1 * std::sin(x[1]), x[1] + 0.1 * std::sin(x[2]), x[2] + 0.1 * std::sin(x[0]));
            } while (i.advance(block->Size()));
            made.addBlock(std::to_string(blocks.size()), block);
            blocks.push_back(block);
        } while (place.advance(Index::filled(perAxis)));
        slots = blocks.size() * 6 * n * n;
    }
};

Fixture& fixture(const benchmark::State& state) {
    static std::map<std::pair<std::int64_t, std::int64_t>, std::unique_ptr<Fixture>> all;
    auto& made = all[{state.range(0), state.range(1)}];
    if (!made)
        made = std::make_unique<Fixture>(static_cast<Vantle::index_t>(state.range(0)),
                                         static_cast<Vantle::index_t>(state.range(1)));
    return *made;
}

void FindJoins(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(2)));
    Fixture& f = fixture(state);
    const auto positions = f.grid->CartesianPositions();
    Hestra::StrongPtr<Vantle::BlockJoins> joins;
    for (auto _ : state) {
        positions->touch();
        joins = Vantle::BlockJoins::of(*f.grid);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(f.slots));
    state.counters["joins"] = static_cast<double>(joins->joins().size());
}

/// What a plain program does: takes the vertices of the six faces of every block, hashes their coordinates, and sorts.
void HashAndSort(benchmark::State& state) {
    const Fixture& f = fixture(state);
    std::size_t twice = 0;
    for (auto _ : state) {
        std::vector<std::pair<std::uint64_t, std::uint32_t>> hashes;
        hashes.reserve(f.slots);
        for (const auto& block : f.blocks) {
            const Index size = block->Size();
            for (int face = 0; face < 6; ++face) {
                Index i, n = size;
                n[face / 2] = 1;
                do {
                    Index at = i;
                    if (face % 2) at[face / 2] = size[face / 2] - 1;
                    const Point& p = (*block)[at];
                    std::uint64_t h = 0;
                    for (int d = 0; d < 3; ++d) {
                        h = (h ^ std::bit_cast<std::uint64_t>(p[d] + 0.0)) * 0x9e3779b97f4a7c15;
                        h ^= h >> 32;
                    }
                    hashes.emplace_back(h, static_cast<std::uint32_t>(hashes.size()));
                } while (i.advance(n));
            }
        }
        std::sort(hashes.begin(), hashes.end());
        twice = 0;
        for (std::size_t n = 1; n < hashes.size(); ++n) twice += hashes[n].first == hashes[n - 1].first;
        benchmark::DoNotOptimize(twice);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(f.slots));
}

/// Looking up what was found before.
void KnownJoins(benchmark::State& state) {
    Fixture& f = fixture(state);
    for (auto _ : state) benchmark::DoNotOptimize(Vantle::BlockJoins::of(*f.grid));
}

// 8 blocks of 97^3 vertices; 1,000 of 19^3, with two million vertices on faces; one block.
BENCHMARK(HashAndSort)
    ->ArgNames({"blocks_an_axis", "vertices_an_axis"})
    ->Args({2, 97})
    ->Args({10, 19})
    ->Args({1, 97})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(FindJoins)
    ->ArgNames({"blocks_an_axis", "vertices_an_axis", "threads"})
    ->Args({2, 97, 1})
    ->Args({2, 97, 2})
    ->Args({10, 19, 1})
    ->Args({10, 19, 2})
    ->Args({1, 97, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(KnownJoins)->ArgNames({"blocks_an_axis", "vertices_an_axis"})->Args({2, 97})->UseRealTime();

} // namespace
