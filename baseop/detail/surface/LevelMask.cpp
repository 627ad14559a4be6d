#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/surface/LevelMask.cpp"
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/surface/LevelMask.hpp>

#include <algorithm>
#include <cstring>
#include <tuple>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Bit i for value i, of so many as there are lanes.
template<class Lanes, class T>
HWY_INLINE std::uint64_t bitsOf(Lanes lanes, const T* values, T bound) noexcept {
    const auto x = hn::LoadU(lanes, values), limit = hn::Set(lanes, bound);
    std::uint8_t bytes[8] = {};
    if constexpr (std::is_floating_point_v<T>)
        hn::StoreMaskBits(lanes, hn::Lt(x, limit), bytes);
    else
        hn::StoreMaskBits(lanes, hn::Eq(hn::Min(x, limit), x), bytes);
    std::uint64_t bits;
    std::memcpy(&bits, bytes, sizeof bits);
    return bits;
}

template<class Lanes, class T>
HWY_INLINE std::uint64_t bitsOf(Lanes lanes, const T* values, std::size_t count, T bound) noexcept {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < count; i += hn::Lanes(lanes)) bits |= bitsOf(lanes, values + i, bound) << i;
    return bits;
}

template<class T>
void classify(const ValueRows<T>& values, T bound, const KnownWord* known, std::uint64_t* words, std::size_t wordStep,
              std::size_t ahead) noexcept {
    constexpr std::size_t Group = 8;
    // A whole word of small values is as near as a part of it.
    constexpr bool IsReadInParts = sizeof(T) >= 4;
    const hn::ScalableTag<T> lanes;
    const hn::CappedTag<T, Group> ofGroup;
    for (std::size_t r = 0; r < values.rows; ++r, words += wordStep) {
        const T* const row = values.first + r * values.step;
        for (std::size_t word = 0; 64 * word < values.count; ++word) {
            const std::size_t count = std::min<std::size_t>(64, values.count - 64 * word);
            const T* const first = row + 64 * word;
            const KnownWord before = known ? known[word] : KnownWord();
            std::uint64_t bits = before.below;
            if (before.toRead != 0 && count == 64 && (!IsReadInParts || before.toRead == ~std::uint64_t{0})) {
                bits = bitsOf(lanes, first, 64, bound);
            } else if (before.toRead != 0) {
                for (std::size_t i = 0; i < count; i += Group) {
                    if (!(before.toRead >> i & 1)) continue;
                    if (i + Group <= count) {
                        bits |= bitsOf(ofGroup, first + i, Group, bound) << i;
                        __builtin_prefetch(first + i + ahead);
                        __builtin_prefetch(first + i + Group - 1 + ahead);
                        continue;
                    }
                    if (values.count >= Group) { // the last of the row, some of them again
                        const std::uint64_t last = bitsOf(ofGroup, first + count - Group, Group, bound);
                        bits |= count >= Group ? last << (count - Group) : last >> (Group - count);
                        continue;
                    }
                    for (std::size_t n = i; n < count; ++n) {
                        const bool isBelow = std::is_floating_point_v<T> ? first[n] < bound : first[n] <= bound;
                        bits |= std::uint64_t{isBelow} << n;
                    }
                }
            }
            words[word] = bits;
        }
    }
}

auto classifiers() {
    return std::make_tuple(&classify<double>, &classify<float>, &classify<unsigned char>, &classify<short>,
                           &classify<unsigned short>);
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(classifiers);

template<class T>
void classifyRows(const LevelTest<T>& test, const ValueRows<T>& values, const KnownWord* known, std::uint64_t* words,
                  std::size_t wordStep, std::size_t ahead) noexcept {
    if (test.isNoneBelow()) {
        for (std::size_t r = 0; r < values.rows; ++r)
            std::fill_n(words + r * wordStep, (values.count + 63) / 64, std::uint64_t{0});
        return;
    }
    using Classifier =
        void (*)(const ValueRows<T>&, T, const KnownWord*, std::uint64_t*, std::size_t, std::size_t) noexcept;
    std::get<Classifier>(HWY_DYNAMIC_DISPATCH(classifiers)())(values, test.bound(), known, words, wordStep, ahead);
}

#    define VANTLE_INSTANTIATE_CLASSIFIER(T)                                                                           \
        template void classifyRows(const LevelTest<T>&, const ValueRows<T>&, const KnownWord*, std::uint64_t*,         \
                                   std::size_t, std::size_t) noexcept;
VANTLE_INSTANTIATE_CLASSIFIER(double)
VANTLE_INSTANTIATE_CLASSIFIER(float)
VANTLE_INSTANTIATE_CLASSIFIER(unsigned char)
VANTLE_INSTANTIATE_CLASSIFIER(short)
VANTLE_INSTANTIATE_CLASSIFIER(unsigned short)
#    undef VANTLE_INSTANTIATE_CLASSIFIER

} // namespace Vantle::detail

#endif
