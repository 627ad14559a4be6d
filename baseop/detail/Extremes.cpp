#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/Extremes.cpp"
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/Lanes.hpp>

#include <tuple>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

template<class T, int Period>
HWY_INLINE void widen(Extremes<T, Period>& result, int component, T x) noexcept {
    result.min[component] = x < result.min[component] ? x : result.min[component];
    result.max[component] = x > result.max[component] ? x : result.max[component];
    if constexpr (std::is_floating_point_v<T>) result.hasNaN |= x != x;
}

// Six registers at a time hide the latency of the comparisons, hold whole points whatever their width, and fit, with
// two extremes each, into sixteen. Integers are read in two streams, which keeps more of the memory's requests in
// flight; floating point numbers come in pieces too short for that to pay. Minima and maxima follow the processor where
// a NaN or zeros of both signs meet: what they give then, the contract leaves open.
template<class T, int Period>
void find(const T* numbers, std::size_t count, Extremes<T, Period>& result) noexcept {
    const hn::ScalableTag<T> lanes;
    using Vector = hn::Vec<decltype(lanes)>;
    constexpr bool TwoStreams = std::is_integral_v<T>;
    constexpr std::size_t Each = 3;
    const std::size_t width = hn::Lanes(lanes), step = Each * width;
    static_assert(Each % Period == 0);

    for (int c = 0; c < Period; ++c) result.min[c] = result.max[c] = numbers[c];
    result.hasNaN = false;
    const std::size_t rounds = count / (2 * step);
    if (rounds) {
        const T* near = numbers;
        const T* far = numbers + (TwoStreams ? rounds * step : step);
        const auto load = [&](const T* from, std::size_t v) HWY_ATTR { return hn::LoadU(lanes, from + v * width); };
        Vector least0 = load(near, 0), least1 = load(near, 1), least2 = load(near, 2);
        Vector least3 = load(far, 0), least4 = load(far, 1), least5 = load(far, 2);
        Vector most0 = least0, most1 = least1, most2 = least2, most3 = least3, most4 = least4, most5 = least5;
        auto isNumber = hn::Eq(least0, least0);
        const auto take = [&](Vector& least, Vector& most, const T* from, std::size_t v) HWY_ATTR {
            const Vector x = load(from, v);
            least = hn::Min(x, least);
            most = hn::Max(x, most);
            if constexpr (std::is_floating_point_v<T>) isNumber = hn::And(isNumber, hn::Eq(x, x));
        };
        for (std::size_t round = 0; round < rounds; ++round) {
            take(least0, most0, near, 0);
            take(least1, most1, near, 1);
            take(least2, most2, near, 2);
            take(least3, most3, far, 0);
            take(least4, most4, far, 1);
            take(least5, most5, far, 2);
            near += TwoStreams ? step : 2 * step;
            far += TwoStreams ? step : 2 * step;
        }
        // Registers whose numbers differ by a multiple of the period hold the same components.
        const auto fold = [&](Vector least, Vector most, std::size_t v) HWY_ATTR {
            HWY_ALIGN T low[HWY_MAX_BYTES / sizeof(T)], high[HWY_MAX_BYTES / sizeof(T)];
            hn::Store(least, lanes, low);
            hn::Store(most, lanes, high);
            for (std::size_t i = 0; i < width; ++i) {
                const int component = static_cast<int>((v * width + i) % Period);
                widen(result, component, low[i]);
                widen(result, component, high[i]);
            }
        };
        fold(hn::Min(least0, least3), hn::Max(most0, most3), 0);
        fold(hn::Min(least1, least4), hn::Max(most1, most4), 1);
        fold(hn::Min(least2, least5), hn::Max(most2, most5), 2);
        result.hasNaN |= !hn::AllTrue(lanes, isNumber);
    }
    for (std::size_t i = 2 * step * rounds; i < count; ++i) widen(result, static_cast<int>(i % Period), numbers[i]);
}

auto searches() {
    return std::make_tuple(&find<double, 1>, &find<float, 1>, &find<unsigned char, 1>, &find<unsigned short, 1>,
                           &find<short, 1>, &find<double, 3>, &find<float, 3>);
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(searches);

template<class T, int Period>
Extremes<T, Period> findExtremes(const T* numbers, std::size_t count) noexcept {
    using Search = void (*)(const T*, std::size_t, Extremes<T, Period>&) noexcept;
    Extremes<T, Period> result;
    std::get<Search>(HWY_DYNAMIC_DISPATCH(searches)())(numbers, count, result);
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

#endif
