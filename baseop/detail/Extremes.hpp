#pragma once
/// Vectorised search for the extremes of plain memory, on which exact folds are built.

#include <cstddef>
#include <limits>

namespace Vantle::detail {

/// Greater than all other values of the type, or less.
template<class T>
inline constexpr T Beyond = std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity()
                                                                 : std::numeric_limits<T>::max();
template<class T>
inline constexpr T Below = std::numeric_limits<T>::has_infinity ? static_cast<T>(-Beyond<T>)
                                                                : std::numeric_limits<T>::lowest();

/// What `findExtremes` finds of each of `Period` interleaved components.
template<class T, int Period>
struct Extremes {
    T min[Period];
    T max[Period];
    /// Whether a NaN was met; the extremes mean nothing then.
    bool hasNaN;
};

/// Least and greatest values of `count` numbers; component c of a point is every `Period`-th from number c on.
///
/// `count` is a positive multiple of `Period`. Of zeros of both signs any may be returned.
/// Cost  one pass at the speed of memory, in the widest vectors that the processor has and the compiler offers.
template<class T, int Period>
[[nodiscard]] Extremes<T, Period> findExtremes(const T* numbers, std::size_t count) noexcept;

/// Pieces of about this many bytes are searched, and searched again where the exact fold asks for it, from cache.
inline constexpr std::size_t ExtremesPieceBytes = 32768;

} // namespace Vantle::detail
