#pragma once
/// Which values of rows lie below a level, as words of 64 bits.

#include <baseop/detail/ValueBricks.hpp>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

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

    /// The greatest value that is below, or for floating point the least that is not, unless none is below.
    [[nodiscard]] T bound() const noexcept { return myBound; }
    [[nodiscard]] bool isNoneBelow() const noexcept { return myNone; }

private:
    T myBound{};
    bool myNone = false;
};

/// What is known of 64 neighbouring values of a row before they are read, in groups of 8: a byte of ones or zeros each.
struct KnownWord {
    std::uint64_t toRead = ~std::uint64_t{0}; ///< Groups of which nothing is known.
    std::uint64_t below = 0;                  ///< Of the others, those that are below.
};

/// Bit i % 64 of word i / 64 of each row tells whether value i lies below; bits behind the last are clear.
///
/// `known` has the words of one row, which stand for all rows, or is null. It must be true. Words of rows are
/// `wordStep` apart. Cost  at the speed of memory, in the widest vectors that the processor has; the same bits in each.
template<class T>
void classifyRows(const LevelTest<T>& test, const ValueRows<T>& values, const KnownWord* known, std::uint64_t* words,
                  std::size_t wordStep, std::size_t ahead = 0) noexcept;

} // namespace Vantle::detail
