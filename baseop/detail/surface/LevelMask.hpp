#pragma once
/// Which of 64 neighbouring values lie below a level, as one word of bits.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#ifdef __SSE2__
#    include <emmintrin.h>
#endif

namespace Vantle::detail {

/// The set of values `v` of type `T` with level > double(v), as a test in `T` itself.
///
/// Law         below(v) == (level > static_cast<double>(v)) for every value and every level, NaN and infinities
///             included.
template<class T>
class LevelTest {
public:
    explicit LevelTest(double level) noexcept {
        if constexpr (std::is_same_v<T, double>) {
            myBound = level;
        } else if constexpr (std::is_same_v<T, float>) {
            // The smallest float that is not below the level: smaller floats are below both, others below neither.
            using Limits = std::numeric_limits<float>;
            if (level > static_cast<double>(Limits::max())) {
                myBound = Limits::infinity();
            } else if (level < static_cast<double>(Limits::lowest())) {
                myBound = std::isinf(level) ? -Limits::infinity() : Limits::lowest();
            } else {
                myBound = static_cast<float>(level);
                if (static_cast<double>(myBound) < level) myBound = std::nextafter(myBound, Limits::infinity());
            }
        } else {
            // The largest integer below the level, if `T` has one.
            using Limits = std::numeric_limits<T>;
            if (!(level > static_cast<double>(Limits::lowest())))
                myNone = true;
            else if (level > static_cast<double>(Limits::max()))
                myBound = Limits::max();
            else
                myBound = static_cast<T>(std::ceil(level) - 1.0);
        }
    }

    [[nodiscard]] bool below(T value) const noexcept {
        if constexpr (std::is_floating_point_v<T>)
            return value < myBound;
        else
            return !myNone && value <= myBound;
    }

    /// Bit i is set when values[i] is below, for 64 values.
    [[nodiscard]] std::uint64_t below64(const T* values) const noexcept {
#ifdef __SSE2__
        std::uint64_t mask = 0;
        for (int step = 0; step < 64; step += lanes)
            mask |= static_cast<std::uint64_t>(belowLanes(values + step)) << step;
        return mask;
#else
        std::uint64_t mask = 0;
        for (int i = 0; i < 64; ++i) mask |= static_cast<std::uint64_t>(below(values[i])) << i;
        return mask;
#endif
    }

    /// The same for the first `count` (at most 64) of the values that lie `stride` apart; other bits are clear.
    [[nodiscard]] std::uint64_t below(const T* values, std::size_t count, std::size_t stride) const noexcept {
        if (count == 64 && stride == 1) return below64(values);
        T gathered[64] = {};
        for (std::size_t i = 0; i < count; ++i) gathered[i] = values[i * stride];
        const std::uint64_t mask = below64(gathered);
        return count < 64 ? mask & ((std::uint64_t{1} << count) - 1) : mask;
    }

private:
#ifdef __SSE2__
    static constexpr int lanes = sizeof(T) <= 2 ? 16 : 16 / static_cast<int>(sizeof(T));

    [[nodiscard]] static __m128i load(const T* values) noexcept {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(values));
    }
    /// Bit i for values[i], for as many values as `lanes`.
    [[nodiscard]] unsigned belowLanes(const T* values) const noexcept {
        if constexpr (std::is_same_v<T, double>) {
            return static_cast<unsigned>(_mm_movemask_pd(_mm_cmplt_pd(_mm_loadu_pd(values), _mm_set1_pd(myBound))));
        } else if constexpr (std::is_same_v<T, float>) {
            return static_cast<unsigned>(_mm_movemask_ps(_mm_cmplt_ps(_mm_loadu_ps(values), _mm_set1_ps(myBound))));
        } else {
            if (myNone) return 0;
            if constexpr (std::is_same_v<T, unsigned char>) {
                const __m128i v = load(values);
                const __m128i bound = _mm_set1_epi8(static_cast<char>(myBound));
                return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(v, bound), v)));
            } else if constexpr (std::is_same_v<T, short>) {
                const __m128i bound = _mm_set1_epi16(myBound);
                const __m128i above =
                    _mm_packs_epi16(_mm_cmpgt_epi16(load(values), bound), _mm_cmpgt_epi16(load(values + 8), bound));
                return static_cast<unsigned>(_mm_movemask_epi8(above)) ^ 0xffffU;
            } else {
                static_assert(std::is_same_v<T, unsigned short>);
                const __m128i bound = _mm_set1_epi16(static_cast<short>(myBound)), zero = _mm_setzero_si128();
                const __m128i first = _mm_cmpeq_epi16(_mm_subs_epu16(load(values), bound), zero);
                const __m128i second = _mm_cmpeq_epi16(_mm_subs_epu16(load(values + 8), bound), zero);
                return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(first, second)));
            }
        }
    }
#endif

    T myBound{};
    bool myNone = false;
};

} // namespace Vantle::detail
