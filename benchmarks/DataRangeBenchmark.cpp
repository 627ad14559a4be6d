// The range of 64 million elements, beside a plain vectorised read of the same bytes by the same threads, which is as
// fast as memory allows; and what it costs to ask for a range that is there.

#include <baseop/DataRange.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/MemArray.hpp>

#include <benchmark/benchmark.h>
#include <cstring>
#include <omp.h>
#include <random>

using namespace Vantle;
using Hestra::StrongPtr;

namespace {

constexpr index_t kElements = index_t{1} << 26;

#if defined(__x86_64__)
#    define WIDE [[gnu::target("avx2")]]
#else
#    define WIDE
#endif

/// Or-s all bits together, 128 bytes at a time.
WIDE unsigned long long readAll(const char* bytes, std::size_t count) {
    typedef unsigned long long Vector __attribute__((vector_size(32)));
    Vector all[4] = {};
    for (std::size_t i = 0; i + sizeof all <= count; i += sizeof all)
        for (std::size_t v = 0; v < 4; ++v) {
            Vector x;
            std::memcpy(&x, bytes + i + v * sizeof x, sizeof x);
            all[v] |= x;
        }
    unsigned long long result = 0;
    for (const Vector& v : all) result |= v[0] | v[1] | v[2] | v[3];
    return result;
}

/// 64 million random values; every `1 / nanEvery`-th is NaN.
template<class T>
const StrongPtr<ReferencingMemArray<1, T>>& values(std::size_t nanEvery = 0) {
    static StrongPtr<ReferencingMemArray<1, T>> array;
    static std::size_t made = ~std::size_t{0};
    if (made == nanEvery) return array;
    array = nullptr;
    array = MemArray<1, T>::create(MultiIndex<1>(kElements));
    std::minstd_rand random(7);
    for (index_t i = 0; i < kElements; ++i) array->element(i) = static_cast<T>(random() % 65000 + 1);
    if constexpr (std::is_floating_point_v<T>)
        for (index_t i = 0; nanEvery && i < kElements; i += nanEvery)
            array->element(i) = std::numeric_limits<T>::quiet_NaN();
    made = nanEvery;
    return array;
}

template<class T>
void PlainRead(benchmark::State& state) {
    const auto& array = values<T>();
    const char* const bytes = reinterpret_cast<const char*>(array->data());
    const std::size_t count = kElements * sizeof(T);
    for (auto _ : state) {
        unsigned long long result = 0;
#pragma omp parallel reduction(| : result)
        {
            const auto threads = static_cast<std::size_t>(omp_get_num_threads());
            const auto thread = static_cast<std::size_t>(omp_get_thread_num());
            const std::size_t begin = count / threads * thread;
            result |= readAll(bytes + begin, count / threads);
        }
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

template<class T>
void RangeScan(benchmark::State& state) {
    const auto& array = values<T>(static_cast<std::size_t>(state.range(0)));
    CreativeArray creator{StrongPtr<MemBase>(array)};
    for (auto _ : state) benchmark::DoNotOptimize(DataRange<T>::compute(creator, false, false));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kElements * sizeof(T)));
}

void AskForRange(benchmark::State& state) {
    CreativeArray creator{StrongPtr<MemBase>(makeMemArray1D(std::vector<double>{1, 2, 3}))};
    if (!DataRange<double>::compute(creator, false, false)) state.SkipWithError("no range");
    for (auto _ : state) benchmark::DoNotOptimize(DataRange<double>::get(creator));
}

} // namespace

BENCHMARK(PlainRead<double>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RangeScan<double>)->ArgName("nanEvery")->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PlainRead<float>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RangeScan<float>)->ArgName("nanEvery")->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PlainRead<unsigned char>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RangeScan<unsigned char>)->ArgName("nanEvery")->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PlainRead<unsigned short>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RangeScan<unsigned short>)->ArgName("nanEvery")->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
// A NaN in every piece that the scan works on.
BENCHMARK(RangeScan<double>)->ArgName("nanEvery")->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(AskForRange);
