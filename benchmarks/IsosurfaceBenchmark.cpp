// Isosurfaces of a smooth field of 256^3 vertices, of whose cells the level cuts between 1 and 2 %, beside a pass that
// only compares every value with the level and counts the cut cells.
//
// Run it whole and compare the times with those of `CountCutCells` of the same element type.

#include <baseop/Isosurface.hpp>
#include <model/Model.hpp>

#include <benchmark/benchmark.h>
#include <bit>
#include <cmath>
#include <cstdint>
#include <emmintrin.h>
#include <malloc.h>
#include <omp.h>

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

class Threads {
public:
    explicit Threads(benchmark::State& state) : myBefore(omp_get_max_threads()) {
        omp_set_num_threads(static_cast<int>(state.range(0)));
    }
    ~Threads() { omp_set_num_threads(myBefore); }

private:
    int myBefore;
};

template<class T>
void Curvilinear(benchmark::State& state) {
    const Threads threads(state);
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
    const Threads threads(state);
    const FieldExplorer explorer(data<T>(), kLevel<T>);
    const UniformCartesianArray& positions = uniform();
    index_t triangles = 0;
    for (auto _ : state) triangles = ComputeIsosurfaceT(explorer, positions, 0.0).second->nElements();
    state.counters["triangles"] = double(triangles);
}
BENCHMARK(Uniform<double>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Uniform<unsigned char>)->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

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
    const Threads threads(state);
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
