// Isosurfaces of a smooth field of 256^3 vertices, of whose cells the level cuts between 1 and 2 %, beside a pass that
// only compares every value with the level and counts the cut cells: compare the times with those of `CountCutCells` of
// the same element type.
//
// Surfaces of single blocks as grids, first ones of a field and further ones, beside a sweep that was written for them:
// compare `FirstSurface` and `FurtherSurface` with `HandWrittenSweep`, and where a range is found with `Range`. Planes
// through such blocks, the first one and moved ones: compare `PlaneCut` with `HandWrittenPlane`.

#include "Settings.hpp"

#include <baseop/DataRange.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>
#include <model/Model.hpp>

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <malloc.h>
#include <map>
#include <random>

namespace {

using namespace Vantle;
using Orvix::PhysicalSpace;
using point = PhysicalSpace::point;

constexpr index_t kSide = 256;
constexpr std::size_t kWords = kSide / 64;
const MultiIndex<3> kSize(kSide, kSide, kSide);

/// A rippled ball around the centre: at most 1 in size, 0.5 at the surface.
double field(double x, double y, double z) {
    const double r = std::sqrt(x * x + y * y + z * z);
    return 1.0 - r / 1.7 * (1.0 + 0.03 * std::sin(7 * x) * std::sin(6 * y) * std::sin(5 * z));
}

template<class T>
constexpr double kLevel = 0.5;
template<>
constexpr double kLevel<unsigned char> = 127.5;

template<class T>
const MemArray<3, T>& data() {
    static const auto array = [] {
        auto made = MemArray<3, T>::create(kSize);
        const auto at = [](index_t i) { return 2.0 * double(i) / double(kSide - 1) - 1.0; };
        for (index_t k = 0; k < kSide; ++k)
            for (index_t j = 0; j < kSide; ++j)
                for (index_t i = 0; i < kSide; ++i) (*made)(i, j, k) = T(field(at(i), at(j), at(k)) * kLevel<T> / 0.5);
        return made;
    }();
    return *array;
}

const UniformCartesianArray& uniform() {
    static const auto array =
        Hestra::makeRef<UniformCartesianArray>(Orvix::BoundingBox(point(-1, -1, -1), point(1, 1, 1)), kSize);
    return *array;
}

const MemArray<3, point>& curvilinear() {
    static const auto array = [] {
        auto made = MemArray<3, point>::create(kSize);
        for (index_t k = 0; k < kSide; ++k)
            for (index_t j = 0; j < kSide; ++j)
                for (index_t i = 0; i < kSide; ++i) {
                    const point p = uniform()(i, j, k);
                    (*made)(i, j, k) = point(p[0] + 0.1 * p[1] * p[2], p[1] - 0.2 * p[0] * p[2], p[2] + 0.1 * p[0]);
                }
        return made;
    }();
    return *array;
}

// ---- The plain pass -------------------------------------------------------------------------------------------------

template<class T>
std::uint64_t below64(const T* v, double level) {
    std::uint64_t mask = 0;
    if constexpr (sizeof(T) == 8) {
        const __m128d bound = _mm_set1_pd(level);
        for (int i = 0; i < 64; i += 8) {
            const int a = _mm_movemask_pd(_mm_cmplt_pd(_mm_loadu_pd(v + i), bound));
            const int b = _mm_movemask_pd(_mm_cmplt_pd(_mm_loadu_pd(v + i + 2), bound));
            const int c = _mm_movemask_pd(_mm_cmplt_pd(_mm_loadu_pd(v + i + 4), bound));
            const int d = _mm_movemask_pd(_mm_cmplt_pd(_mm_loadu_pd(v + i + 6), bound));
            mask |= std::uint64_t(unsigned(a | b << 2 | c << 4 | d << 6)) << i;
        }
    } else {
        const __m128i bound = _mm_set1_epi8(char(int(level)));
        for (int i = 0; i < 64; i += 16) {
            const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + i));
            const __m128i below = _mm_cmpeq_epi8(_mm_min_epu8(values, bound), values);
            mask |= std::uint64_t(unsigned(_mm_movemask_epi8(below))) << i;
        }
    }
    return mask;
}

template<class T>
index_t countCutCells(const T* values, double level) {
    static std::uint64_t planes[2][kSide][kWords];
    const auto classify = [&](index_t k) {
        for (index_t j = 0; j < kSide; ++j)
            for (std::size_t w = 0; w < kWords; ++w)
                planes[k % 2][j][w] = below64(values + (k * kSide + j) * kSide + 64 * w, level);
    };
    index_t cut = 0;
    classify(0);
    for (index_t k = 1; k < kSide; ++k) {
        classify(k);
        for (index_t j = 0; j + 1 < kSide; ++j) {
            const std::uint64_t *const a = planes[0][j], *const b = planes[0][j + 1];
            const std::uint64_t *const c = planes[1][j], *const d = planes[1][j + 1];
            std::uint64_t some = a[0] | b[0] | c[0] | d[0], all = a[0] & b[0] & c[0] & d[0];
            for (std::size_t w = 0; w < kWords; ++w) {
                const bool last = w + 1 == kWords;
                const std::uint64_t someNext = last ? 0 : a[w + 1] | b[w + 1] | c[w + 1] | d[w + 1];
                const std::uint64_t allNext = last ? 0 : a[w + 1] & b[w + 1] & c[w + 1] & d[w + 1];
                std::uint64_t cells = (some | some >> 1 | someNext << 63) & ~(all & (all >> 1 | allNext << 63));
                if (last) cells &= ~std::uint64_t{0} >> 1;
                if (cells) cut += static_cast<index_t>(std::popcount(cells));
                some = someNext;
                all = allNext;
            }
        }
    }
    return cut;
}

template<class T>
void CountCutCells(benchmark::State& state) {
    const T* const values = data<T>().data();
    index_t cut = 0;
    for (auto _ : state) benchmark::DoNotOptimize(cut = countCutCells(values, kLevel<T>));
    state.counters["cut%"] = 100.0 * double(cut) / double((kSide - 1) * (kSide - 1) * (kSide - 1));
}
BENCHMARK(CountCutCells<double>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(CountCutCells<unsigned char>)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- Surfaces -------------------------------------------------------------------------------------------------------

template<class T>
void Curvilinear(benchmark::State& state) {
    const TeamOf team(state.range(0));
    const MemArray<3, T>& values = data<T>();
    const MemArray<3, point>& positions = curvilinear();
    index_t triangles = 0;
    for (auto _ : state) triangles = ComputeIsosurface<T>(kLevel<T>, values, positions, 0.0).second->nElements();
    state.counters["triangles"] = double(triangles);
}
BENCHMARK(Curvilinear<double>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Curvilinear<unsigned char>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

template<class T>
void Uniform(benchmark::State& state) {
    const TeamOf team(state.range(0));
    const FieldExplorer explorer(data<T>(), kLevel<T>);
    const UniformCartesianArray& positions = uniform();
    index_t triangles = 0;
    for (auto _ : state) triangles = ComputeIsosurfaceT(explorer, positions, 0.0).second->nElements();
    state.counters["triangles"] = double(triangles);
}
BENCHMARK(Uniform<double>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Uniform<unsigned char>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- Single blocks --------------------------------------------------------------------------------------------------

/// Blocks in bent coordinates: a small one, two with a ball each, and one of noise, of which half of the cells are cut.
enum Kind { Small, Ball, LargeBall, Noise };

struct Block {
    explicit Block(Kind kind) {
        const MultiIndex<3> sizes[] = {{38, 76, 38}, {128, 128, 128}, kSize, {128, 128, 128}};
        const MultiIndex<3>& size = sizes[kind];
        values = MemArray<3, double>::create(size);
        positions = MemArray<3, point>::create(size);
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> noise(0.0, 1.0);
        MultiIndex<3> at;
        index_t n = 0;
        do {
            point p;
            for (int d = 0; d < 3; ++d) p[d] = 2.0 * double(at[d]) / double(size[d] - 1) - 1.0;
            values->element(n) = kind == Noise ? noise(random) : field(p[0], p[1], p[2]);
            positions->element(n++) = point(p[0] + 0.1 * p[1] * p[2], p[1] - 0.2 * p[0] * p[2], p[2] + 0.1 * p[0]);
        } while (at.advance(size));
        grid.setField("f", values, grid.addBlock("block", positions));
        creator = (*grid.grid())("f")->getCreator((*grid.grid())("f")->getFragmentID("block"));
    }
    static Block& of(std::int64_t kind) {
        static std::map<std::int64_t, Block> made;
        return made.try_emplace(kind, static_cast<Kind>(kind)).first->second;
    }
    void touch() {
        creator->touch();
        (*grid.grid())("f")->touch();
    }
    index_t surface(double level) {
        const auto made = ComputeIsosurface(level, Hestra::Ageable(), *grid.grid(), "f", *slice, "surface", 0.0);
        const index_t triangles = TriangularSurface(made).triangles()->nElements();
        slice->remove("surface");
        return triangles;
    }

    Hestra::StrongPtr<MemArray<3, double>> values;
    Hestra::StrongPtr<MemArray<3, point>> positions;
    Hestra::StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    RegularGrid3D grid{slice->newGrid("grid")};
    Hestra::StrongPtr<CreativeArrayBase> creator;
};

/// The sweep as one would write it for this case: planes of flags, cases of a row at once, eight of them passed over at
/// a time, and planes of indices.
struct HandWritten {
    std::vector<point> points;
    std::vector<TriangleCell> triangles;
    std::vector<unsigned> indices;
    std::vector<unsigned char> flags, cases;

    /// The edges that no earlier cell has, by the axes at whose lower border a cell is.
    static constexpr std::array<unsigned, 8> New = [] {
        std::array<unsigned, 8> found{};
        for (unsigned border = 0; border < 8; ++border)
            for (unsigned e = 0; e < 12; ++e) {
                const detail::EdgeGeometry& edge = detail::edgeGeometry[e];
                bool isNew = true;
                for (int d = 0; d < 3; ++d)
                    if (d != edge.axis && detail::CornerOffset[edge.lower][d] == 0 && !(border >> d & 1)) isNew = false;
                if (isNew) found[border] |= 1U << e;
            }
        return found;
    }();

    void sweep(const double* values, const MultiIndex<3>& size, const point* positions, double level) {
        const std::size_t nx = size[0], ny = size[1], nz = size[2], plane = nx * ny;
        indices.resize(5 * plane + 1);
        flags.resize(2 * plane);
        cases.resize(nx);
        unsigned *lowX = indices.data(), *lowY = lowX + plane, *highX = lowY + plane, *highY = highX + plane;
        unsigned* const z = highY + plane;
        unsigned char *low = flags.data(), *high = low + plane;
        const auto classify = [&](std::size_t k, unsigned char* below) {
            for (std::size_t n = 0; n < plane; ++n) below[n] = values[k * plane + n] < level;
        };
        classify(0, low);
        for (std::size_t k = 0; k + 1 < nz; ++k) {
            classify(k + 1, high);
            for (std::size_t j = 0; j + 1 < ny; ++j) {
                const unsigned char *const a = low + j * nx, *const b = a + nx, *const c = high + j * nx, *d = c + nx;
                for (std::size_t i = 0; i + 1 < nx; ++i)
                    cases[i] = static_cast<unsigned char>(a[i] | a[i + 1] << 1 | b[i + 1] << 2 | b[i] << 3 | c[i] << 4 |
                                                          c[i + 1] << 5 | d[i + 1] << 6 | d[i] << 7);
                const std::size_t row = j * nx;
                unsigned* const at[12] = {lowX + row,  lowY + row + 1,  lowX + row + nx,  lowY + row,
                                          highX + row, highY + row + 1, highX + row + nx, highY + row,
                                          z + row,     z + row + 1,     z + row + nx + 1, z + row + nx};
                const unsigned border = (j == 0 ? 2U : 0U) | (k == 0 ? 4U : 0U);
                for (std::size_t i = 0; i + 1 < nx; ++i) {
                    std::uint64_t eight = 1;
                    if (i + 8 < nx) std::memcpy(&eight, cases.data() + i, 8);
                    if (eight == 0 || eight == ~std::uint64_t{0}) {
                        i += 7;
                        continue;
                    }
                    const unsigned cell = cases[i];
                    if (cell == 0 || cell == 255) continue;
                    for (unsigned edges = static_cast<unsigned>(detail::edgeTable[cell]) & New[border | (i == 0)];
                         edges; edges &= edges - 1) {
                        const auto e = static_cast<std::size_t>(std::countr_zero(edges));
                        const detail::EdgeGeometry& edge = detail::edgeGeometry[e];
                        const int* const corner = detail::CornerOffset[edge.lower];
                        const std::size_t lower = k * plane + row + i + static_cast<std::size_t>(corner[0]) +
                                                  static_cast<std::size_t>(corner[1]) * nx +
                                                  static_cast<std::size_t>(corner[2]) * plane;
                        const std::size_t upper = lower + (edge.axis == 0 ? 1 : edge.axis == 1 ? nx : plane);
                        const double weight = (level - values[lower]) / (values[upper] - values[lower]);
                        at[e][i] = static_cast<unsigned>(points.size());
                        points.push_back(positions[lower] + weight * (positions[upper] - positions[lower]));
                    }
                    for (const int* t = detail::triTable[cell]; *t >= 0; t += 3)
                        triangles.emplace_back(at[t[0]][i], at[t[1]][i], at[t[2]][i]);
                }
            }
            std::swap(low, high);
            std::swap(lowX, highX);
            std::swap(lowY, highY);
        }
    }
};

void HandWrittenSweep(benchmark::State& state) {
    const Block& block = Block::of(state.range(0));
    const bool isKept = state.range(1) != 0;
    const Memory memory(isKept);
    HandWritten made;
    for (auto _ : state) {
        if (!isKept) made = {};
        made.points.clear();
        made.triangles.clear();
        made.sweep(block.values->data(), block.values->Size(), block.positions->data(), 0.5);
        state.counters["triangles"] = double(made.triangles.size());
    }
}
BENCHMARK(HandWrittenSweep)
    ->ArgNames({"block", "kept"})
    ->ArgsProduct({{Small, Ball, LargeBall, Noise}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// A range as one would write a pass for it. The library's also finds bricks.
void PlainRange(benchmark::State& state) {
    const Block& block = Block::of(state.range(0));
    const double* const values = block.values->data();
    for (auto _ : state) {
        double least[8], greatest[8];
        std::copy_n(values, 8, least);
        std::copy_n(values, 8, greatest);
        for (index_t n = 0; n + 8 <= block.values->nElements(); n += 8)
            for (index_t i = 0; i < 8; ++i) {
                least[i] = std::min(least[i], values[n + i]);
                greatest[i] = std::max(greatest[i], values[n + i]);
            }
        benchmark::DoNotOptimize(least);
        benchmark::DoNotOptimize(greatest);
    }
}
BENCHMARK(PlainRange)->ArgName("block")->DenseRange(Small, LargeBall)->UseRealTime()->Unit(benchmark::kMillisecond);

void Range(benchmark::State& state) {
    Block& block = Block::of(state.range(0));
    const TeamOf team(state.range(1));
    for (auto _ : state) benchmark::DoNotOptimize(DataRange<double>::compute(*block.creator, false, false));
}
BENCHMARK(Range)
    ->ArgNames({"block", "threads"})
    ->ArgsProduct({{Small, Ball, LargeBall}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void ArraySurface(benchmark::State& state) {
    const Block& block = Block::of(state.range(0));
    const Memory memory(state.range(1) != 0);
    const TeamOf team(state.range(2));
    for (auto _ : state) benchmark::DoNotOptimize(ComputeIsosurface<double>(0.5, *block.values, *block.positions, 0.0));
}

void FirstSurface(benchmark::State& state) {
    Block& block = Block::of(state.range(0));
    const Memory memory(state.range(1) != 0);
    const TeamOf team(state.range(2));
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    for (auto _ : state) {
        block.touch();
        state.counters["triangles"] = double(block.surface(0.5));
    }
}

/// Of a field of which there was one at another level.
void FurtherSurface(benchmark::State& state) {
    Block& block = Block::of(state.range(0));
    const Memory memory(state.range(1) != 0);
    const TeamOf team(state.range(2));
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    (void)block.surface(0.4);
    for (auto _ : state) state.counters["triangles"] = double(block.surface(0.5));
}

void surfaces(benchmark::internal::Benchmark* one) {
    one->ArgNames({"block", "kept", "threads"})
        ->ArgsProduct({{Small, Ball, LargeBall, Noise}, {0, 1}, {1, 2}})
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}
BENCHMARK(ArraySurface)->Apply(surfaces);
BENCHMARK(FirstSurface)->Apply(surfaces);
BENCHMARK(FurtherSurface)->Apply(surfaces);

point movedOrigin() {
    static int moves = 0;
    const double at = 0.1 + 0.001 * (moves++ % 50);
    return {at, at, at};
}
PhysicalSpace::vector normalOf(std::int64_t isTilted) {
    return isTilted != 0 ? PhysicalSpace::vector(0.3, 0.5, 0.8) : PhysicalSpace::vector(0, 0, 1);
}

void PlaneCut(benchmark::State& state) {
    Block& block = Block::of(state.range(0));
    const Memory memory(true);
    const TeamOf team(state.range(3));
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    const auto cut = [&] {
        const auto made = ComputePlaneCut(movedOrigin(), normalOf(state.range(1)), Hestra::Ageable(),
                                          *block.grid.grid(), *block.slice, "cut");
        state.counters["triangles"] = double(TriangularSurface(made).triangles()->nElements());
        block.slice->remove("cut");
    };
    cut();
    cut();
    for (auto _ : state) {
        if (state.range(2) != 0) block.grid.positions()->touch();
        cut();
    }
}
BENCHMARK(PlaneCut)
    ->ArgNames({"block", "tilted", "first", "threads"})
    ->ArgsProduct({{Ball, LargeBall}, {0, 1}, {0, 1}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// Distances of all vertices, and the sweep of these.
void HandWrittenPlane(benchmark::State& state) {
    const Block& block = Block::of(state.range(0));
    const Memory memory(true);
    HandWritten made;
    std::vector<double> distances(static_cast<std::size_t>(block.positions->nElements()));
    for (auto _ : state) {
        const point origin = movedOrigin();
        const PhysicalSpace::vector unit = normalOf(state.range(1)) * (1.0 / length(normalOf(state.range(1))));
        for (std::size_t n = 0; n < distances.size(); ++n)
            distances[n] = dot(block.positions->data()[n] - origin, unit);
        made.points.clear();
        made.triangles.clear();
        made.sweep(distances.data(), block.positions->Size(), block.positions->data(), 0.0);
        state.counters["triangles"] = double(made.triangles.size());
    }
}
BENCHMARK(HandWrittenPlane)
    ->ArgNames({"block", "tilted"})
    ->ArgsProduct({{Ball, LargeBall}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// ---- Grids of blocks ------------------------------------------------------------------------------------------------

/// How eight blocks of 97^3 vertices, pieces of one ball in bent coordinates, are known to belong together.
enum Knowledge { None, Offsets, Joins, JoinsToBeFound };

struct Blocks {
    explicit Blocks(bool haveOffsets) {
        constexpr index_t cells = 96;
        const MultiIndex<3> size = MultiIndex<3>::filled(cells + 1);
        const auto at = [](index_t i) { return double(i) / double(cells) - 1.0; };
        for (index_t block = 0; block < 8; ++block) {
            const MultiIndex<3> place(cells * (block % 2), cells * (block / 2 % 2), cells * (block / 4));
            const auto points = MemArray<3, point>::create(size);
            const auto values = MemArray<3, double>::create(size);
            MultiIndex<3> n;
            do {
                const point p(at(place[0] + n[0]), at(place[1] + n[1]), at(place[2] + n[2]));
                (*points)[n] = point(p[0] + 0.1 * p[1] * p[2], p[1] - 0.2 * p[0] * p[2], p[2] + 0.1 * p[0]);
                (*values)[n] = field(p[0], p[1], p[2]);
            } while (n.advance(size));
            const auto name = "block" + std::to_string(block);
            regular.setField("f", values,
                             haveOffsets ? regular.addBlock(name, points, place) : regular.addBlock(name, points));
        }
    }
    Hestra::StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    RegularGrid3D regular{slice->newGrid("blocks")};
};

void EightBlocks(benchmark::State& state) {
    const TeamOf team(state.range(0));
    const auto knowledge = static_cast<Knowledge>(state.range(1));
    static const Blocks without(false), with(true);
    const Blocks& blocks = knowledge == Offsets ? with : without;
    SurfaceOptions options;
    options.joinBlocks = knowledge == Joins || knowledge == JoinsToBeFound;
    Hestra::Ageable request;
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    index_t vertices = 0;
    const auto memory = [] { return double(mallinfo2().uordblks + mallinfo2().hblkhd); };
    blocks.slice->remove("surface");
    blocks.regular.positions()->removeInterface(typeid(BlockJoins));
    const double before = memory();
    if (knowledge == Joins) benchmark::DoNotOptimize(BlockJoins::of(*blocks.regular.grid()));
    for (auto _ : state) {
        if (knowledge == JoinsToBeFound) blocks.regular.positions()->touch();
        request.touch();
        const auto surface =
            ComputeIsosurface(0.5, request, *blocks.regular.grid(), "f", *blocks.slice, "surface", 0.0, options);
        vertices = surface->CartesianPositions()->getData()->nElements();
    }
    state.counters["vertices"] = double(vertices);
    state.counters["keptMB"] = (memory() - before) / 1e6; // the surface, and what is newly known of the blocks
}
BENCHMARK(EightBlocks)
    ->ArgNames({"threads", "known"})
    ->ArgsProduct({{1, 2}, {None, Offsets, Joins, JoinsToBeFound}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
