#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/surface/LevelMask.cpp"
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/surface/LevelMask.hpp>

#include <algorithm>
#include <bit>
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

constexpr std::size_t Group = 8;

// The bits of a group of a row, whose `left` values, from `first` on, are the last of `count`.
template<class T>
HWY_INLINE std::uint64_t bitsOfGroup(const T* first, std::size_t left, std::size_t count, T bound) noexcept {
    const hn::CappedTag<T, Group> lanes;
    if (left >= Group) return bitsOf(lanes, first, Group, bound);
    if (count >= Group)
        return bitsOf(lanes, first + left - Group, Group, bound) >> (Group - left); // some of them again
    std::uint64_t bits = 0;
    for (std::size_t n = 0; n < left; ++n) {
        const bool isBelow = std::is_floating_point_v<T> ? first[n] < bound : first[n] <= bound;
        bits |= std::uint64_t{isBelow} << n;
    }
    return bits;
}

template<class T>
void classify(const ValueRows<T>& values, T bound, const KnownWord* known, std::uint64_t* words, std::size_t wordStep,
              std::size_t ahead) noexcept {
    // A whole word of small values is as near as a part of it.
    constexpr bool IsReadInParts = sizeof(T) >= 4;
    const hn::ScalableTag<T> lanes;
    if (!known) {
        for (std::size_t r = 0; r < values.rows; ++r)
            for (std::size_t begin = 0; begin < values.count; begin += 64) {
                const T* const first = values.first + r * values.step + begin;
                const std::size_t left = values.count - begin;
                std::uint64_t bits = 0;
                if (left >= 64)
                    bits = bitsOf(lanes, first, 64, bound);
                else
                    for (std::size_t i = 0; i < left; i += Group)
                        bits |= bitsOfGroup(first + i, left - i, values.count, bound) << i;
                words[r * wordStep + begin / 64] = bits;
            }
        return;
    }
    // The same is known of all rows: what is to be read is read of one after the other.
    for (std::size_t begin = 0; begin < values.count; begin += 64, ++known, ++words) {
        const std::size_t left = values.count - begin;
        const bool isWhole =
            left >= 64 && (known->toRead == ~std::uint64_t{0} || (!IsReadInParts && known->toRead != 0));
        const T* const first = values.first + begin;
        for (std::size_t r = 0; r < values.rows; ++r)
            words[r * wordStep] = isWhole ? bitsOf(lanes, first + r * values.step, 64, bound) : known->below;
        if (isWhole) continue;
        for (std::uint64_t toRead = known->toRead; toRead != 0;) {
            const auto i = static_cast<std::size_t>(std::countr_zero(toRead));
            toRead &= ~(std::uint64_t{0xff} << i);
            for (std::size_t r = 0; r < values.rows; ++r) {
                const T* const at = first + r * values.step + i;
                words[r * wordStep] |= bitsOfGroup(at, left - i, values.count, bound) << i;
                __builtin_prefetch(at + ahead);
                __builtin_prefetch(at + Group - 1 + ahead);
            }
        }
    }
}

std::uint64_t classifyDistances(const PlaneDistance& plane, const Orvix::PhysicalSpace::point* positions,
                                std::size_t count, std::uint64_t toRead) noexcept {
    const hn::CappedTag<double, Group> lanes;
    const auto origin = [&](int d) { return hn::Set(lanes, plane.origin[d]); };
    const auto unit = [&](int d) { return hn::Set(lanes, plane.unit[d]); };
    const auto ox = origin(0), oy = origin(1), oz = origin(2), ux = unit(0), uy = unit(1), uz = unit(2);
    std::uint64_t below = 0;
    while (toRead != 0) {
        auto i = static_cast<std::size_t>(std::countr_zero(toRead));
        toRead &= ~(std::uint64_t{0xff} << i);
        const std::size_t end = std::min(i + Group, count);
        for (; i + hn::Lanes(lanes) <= end; i += hn::Lanes(lanes)) {
            auto x = ox, y = oy, z = oz;
            hn::LoadInterleaved3(lanes, &positions[i][0], x, y, z);
            // Rounded as the distance of one position is.
            const auto xy = hn::Add(hn::Mul(hn::Sub(x, ox), ux), hn::Mul(hn::Sub(y, oy), uy));
            const auto distance = hn::Add(xy, hn::Mul(hn::Sub(z, oz), uz));
            std::uint8_t bytes[8] = {};
            hn::StoreMaskBits(lanes, hn::Lt(distance, hn::Zero(lanes)), bytes);
            below |= std::uint64_t{bytes[0]} << i;
        }
        for (; i < end; ++i) below |= std::uint64_t{plane(positions[i]) < 0.0} << i;
    }
    return below;
}
auto distanceClassifiers() { return &classifyDistances; }

auto classifiers() {
    return std::make_tuple(&classify<double>, &classify<float>, &classify<unsigned char>, &classify<short>,
                           &classify<unsigned short>);
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(classifiers);
HWY_EXPORT(distanceClassifiers);

DistanceClassifier distanceClassifier() noexcept { return HWY_DYNAMIC_DISPATCH(distanceClassifiers)(); }

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
