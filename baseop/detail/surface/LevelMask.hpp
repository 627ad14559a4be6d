#pragma once
/// Which values of rows lie below a level, as words of 64 bits.

#include <baseop/detail/ValueBricks.hpp>
#include <model/orvix/PhysicalSpace.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

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

/// What bricks tell of the values of a block, row of bricks by row of bricks.
class KnownBlock {
public:
    /// Nothing is known.
    KnownBlock() = default;
    /// `sidesOf(brick)` tells whether any, and whether all, of its values are below; true and false if it does not
    /// know. Nothing is known, either, where most would have to be read anyway.
    template<class T, class F>
    KnownBlock(const ValueBricks<T>& bricks, const F& sidesOf);

    [[nodiscard]] explicit operator bool() const noexcept { return !myKnown.empty(); }
    /// The words of row (j, k) of vertices.
    [[nodiscard]] const KnownWord* row(std::size_t j, std::size_t k) const noexcept {
        return myKnown.data() + brickRow(std::min(j / Side, myRows - 1), std::min(k / Side, myLayers - 1)) * myWords;
    }
    /// Whether it is known that no cell of row (j, k) is cut.
    [[nodiscard]] bool isUncut(std::size_t j, std::size_t k) const noexcept {
        return !myKnown.empty() && !myIsCut[brickRow(j / Side, k / Side)];
    }
    /// Rows of bricks in a layer.
    [[nodiscard]] std::size_t rows() const noexcept { return myRows; }
    /// How many cells may well be cut, or 0 if nothing is known.
    [[nodiscard]] std::size_t likelyCutCells() const noexcept { return myLikelyCutCells; }

    static constexpr std::size_t Side = 8;

private:
    [[nodiscard]] std::size_t brickRow(std::size_t row, std::size_t layer) const noexcept {
        return layer * myRows + row;
    }

    std::size_t myWords = 0; // of 64 vertices in a row
    std::size_t myRows = 0, myLayers = 0;
    std::vector<KnownWord> myKnown;     // of rows of bricks, along axes 1 and 2, or none
    std::vector<unsigned char> myIsCut; // of these rows: whether some are to be read
    std::size_t myLikelyCutCells = 0;
};

template<class T, class F>
KnownBlock::KnownBlock(const ValueBricks<T>& bricks, const F& sidesOf)
    : myWords(static_cast<std::size_t>(bricks.block()[0] + 63) / 64),
      myRows(static_cast<std::size_t>(bricks.Size()[1])), myLayers(static_cast<std::size_t>(bricks.Size()[2])) {
    static_assert(ValueBricks<T>::Side == Side);
    constexpr std::size_t InWord = 64 / Side;
    const auto row = static_cast<std::size_t>(bricks.block()[0]), inRow = static_cast<std::size_t>(bricks.Size()[0]);
    const std::size_t rows = myRows * myLayers;
    const std::size_t groups = (row + Side - 1) / Side; // the last vertex of a brick may be all of a group
    std::size_t cut = 0;
    myKnown.assign(rows * myWords, KnownWord{0, 0});
    myIsCut.assign(rows, 0);
    for (std::size_t r = 0; r < rows; ++r) {
        KnownWord* const words = myKnown.data() + r * myWords;
        const std::size_t before = cut;
        for (std::size_t g = 0; g < groups; ++g) {
            const auto [isSomeBelow, isAllBelow] = sidesOf(r * inRow + std::min(g, inRow - 1));
            const std::uint64_t ones = std::uint64_t{0xff} << (Side * (g % InWord));
            if (isSomeBelow != isAllBelow) words[g / InWord].toRead |= ones, ++cut;
            if (isAllBelow) words[g / InWord].below |= ones;
        }
        if (row % 64 != 0) words[myWords - 1].below &= ~(~std::uint64_t{0} << (row % 64));
        myIsCut[r] = cut != before;
    }
    if (2 * cut > rows * groups)
        myKnown.clear();
    else
        myLikelyCutCells = 2 * Side * Side * cut; // two layers of each brick
}

/// Bit i % 64 of word i / 64 of each row tells whether value i lies below; bits behind the last are clear.
///
/// `known` has the words of one row, which stand for all rows, or is null. It must be true. Words of rows are
/// `wordStep` apart. Cost  at the speed of memory, in the widest vectors that the processor has; the same bits in each.
template<class T>
void classifyRows(const LevelTest<T>& test, const ValueRows<T>& values, const KnownWord* known, std::uint64_t* words,
                  std::size_t wordStep, std::size_t ahead = 0) noexcept;

/// A plane in space, and the distances of positions from it: positive where the normal shows.
struct PlaneDistance {
    Orvix::PhysicalSpace::point origin;
    Orvix::PhysicalSpace::vector unit; ///< the normal, of length 1

    [[nodiscard]] double operator()(const Orvix::PhysicalSpace::point& p) const noexcept {
        return dot(p - origin, unit);
    }
};

/// Bit i tells whether position i of up to 64 has a negative distance. Groups that are not to be read have no bits.
using DistanceClassifier = std::uint64_t (*)(const PlaneDistance& plane, const Orvix::PhysicalSpace::point* positions,
                                             std::size_t count, std::uint64_t toRead) noexcept;
/// In the widest vectors that the processor has; the same bits in each.
[[nodiscard]] DistanceClassifier distanceClassifier() noexcept;

} // namespace Vantle::detail
