#include <baseop/detail/Extremes.hpp>

#include <cstring>
#include <type_traits>

namespace Vantle::detail {

namespace {

template<class T, int Period>
[[gnu::always_inline]] inline void widen(Extremes<T, Period>& result, int component, T x) noexcept {
    result.min[component] = x < result.min[component] ? x : result.min[component];
    result.max[component] = x > result.max[component] ? x : result.max[component];
    if constexpr (std::is_floating_point_v<T>) result.hasNaN |= x != x;
}

// Bytes is the width of one vector register. Six of them at a time hide the latency of the comparisons, hold whole
// points whatever their width, and fit, with two extremes each, into sixteen. Integers are read in two streams, which
// keeps more of the memory's requests in flight; floating point numbers come in pieces too short for that to pay.
template<class T, int Period, int Bytes>
[[gnu::always_inline]] inline void findInLanes(const T* numbers, std::size_t count,
                                               Extremes<T, Period>& result) noexcept {
    typedef T Vector __attribute__((vector_size(Bytes)));
    constexpr bool TwoStreams = std::is_integral_v<T>;
    constexpr int Each = 3, Vectors = 2 * Each;
    constexpr int Lanes = Bytes / static_cast<int>(sizeof(T));
    constexpr std::size_t Step = Each * Lanes;
    static_assert(Step % Period == 0 && Each % Period == 0);

    for (int c = 0; c < Period; ++c) result.min[c] = result.max[c] = numbers[c];
    result.hasNaN = false;
    const std::size_t rounds = count / (2 * Step);
    if (rounds) {
        const T* const other = numbers + (TwoStreams ? rounds * Step : Step);
        Vector least[Vectors], greatest[Vectors];
        std::memcpy(least, numbers, sizeof least / 2);
        std::memcpy(least + Each, other, sizeof least / 2);
        std::memcpy(greatest, least, sizeof greatest);
        auto nan = least[0] != least[0]; // integer lanes of the same width, all bits set for true
        for (std::size_t round = 0; round < rounds; ++round) {
            const std::size_t done = round * (TwoStreams ? Step : 2 * Step);
#pragma GCC unroll 6
            for (int v = 0; v < Vectors; ++v) {
                Vector x;
                std::memcpy(&x, (v < Each ? numbers : other) + done + v % Each * Lanes, sizeof x);
                least[v] = x < least[v] ? x : least[v];
                greatest[v] = x > greatest[v] ? x : greatest[v];
                if constexpr (std::is_floating_point_v<T>) nan |= x != x;
            }
        }
        // Registers whose numbers differ by a multiple of the period hold the same components.
        for (int v = Period; v < Vectors; ++v) {
            least[v % Period] = least[v] < least[v % Period] ? least[v] : least[v % Period];
            greatest[v % Period] = greatest[v] > greatest[v % Period] ? greatest[v] : greatest[v % Period];
        }
        for (int i = 0; i < Period * Lanes; ++i) {
            widen(result, i % Period, least[i / Lanes][i % Lanes]);
            widen(result, i % Period, greatest[i / Lanes][i % Lanes]);
        }
        for (int i = 0; i < Lanes; ++i) result.hasNaN |= nan[i] != 0;
    }
    for (std::size_t i = 2 * Step * rounds; i < count; ++i) widen(result, static_cast<int>(i % Period), numbers[i]);
}

template<class T, int Period>
void findNarrow(const T* numbers, std::size_t count, Extremes<T, Period>& result) noexcept {
    findInLanes<T, Period, 16>(numbers, count, result);
}

#if defined(__x86_64__) || defined(__i386__)
template<class T, int Period>
[[gnu::target("avx2")]] void findWide(const T* numbers, std::size_t count, Extremes<T, Period>& result) noexcept {
    findInLanes<T, Period, 32>(numbers, count, result);
}

template<class T, int Period>
auto chooseSearch() noexcept {
    return __builtin_cpu_supports("avx2") ? &findWide<T, Period> : &findNarrow<T, Period>;
}
#else
template<class T, int Period>
auto chooseSearch() noexcept {
    return &findNarrow<T, Period>;
}
#endif

} // namespace

template<class T, int Period>
Extremes<T, Period> findExtremes(const T* numbers, std::size_t count) noexcept {
    static const auto search = chooseSearch<T, Period>();
    Extremes<T, Period> result;
    search(numbers, count, result);
    return result;
}

template Extremes<double, 1> findExtremes(const double*, std::size_t) noexcept;
template Extremes<float, 1> findExtremes(const float*, std::size_t) noexcept;
template Extremes<unsigned char, 1> findExtremes(const unsigned char*, std::size_t) noexcept;
template Extremes<unsigned short, 1> findExtremes(const unsigned short*, std::size_t) noexcept;
template Extremes<short, 1> findExtremes(const short*, std::size_t) noexcept;
template Extremes<double, 3> findExtremes(const double*, std::size_t) noexcept;
template Extremes<float, 3> findExtremes(const float*, std::size_t) noexcept;

} // namespace Vantle::detail
