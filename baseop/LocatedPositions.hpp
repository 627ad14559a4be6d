#pragma once
/// Positions that were located in a grid, in little memory, and the values of its fields there.

#include <baseop/BaseOpExport.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/NumberRange.hpp>
#include <model/vantle/Field.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace Vantle {

/// Where positions are: 28 bytes each.
///
/// Positions belong to the fragments that the locator says: all of them claim only what they contain.
/// Concurrency  immutable: any number of threads. Positions are located, and values taken, by the OpenMP team of the
///              caller's settings.
/// Cost         locating: that of the locator. Values: one interpolation each; the arrays of a field are asked for once
///              each. Those that do not exist yet are held some 32 MB at a time, so that a cache can drop the others;
///              where that is not all of them, another 4 bytes a position are needed meanwhile.
class VANTLE_BASEOP_API LocatedPositions {
public:
    using point = Orvix::PhysicalSpace::point;
    /// The number of the fragment of a position that is in none.
    static constexpr std::uint32_t Nowhere = ~std::uint32_t{0};

    LocatedPositions() = default;
    /// Neighbours in the order of the positions should be neighbours in space: they share searches.
    LocatedPositions(const LocalFromWorldPoint& locator, std::span<const point> positions);
    /// The same where the structures of all fragments are too much at once: `locatorOf(n)` gives the locator of a grid
    /// that has fragment `n` alone. It is asked for those whose box has positions that no fragment before has, one by
    /// one, and what it gives is dropped before the next one is asked for.
    ///
    /// @param boxes  of the fragments, in the order of the coordinate field: nothing is outside, with a rim for what is
    ///               rounded. Nothing is in a fragment without box.
    using LocatorOf = std::function<std::shared_ptr<const LocalFromWorldPoint>(std::uint32_t fragment)>;
    LocatedPositions(std::span<const std::optional<BlockBox>> boxes, const LocatorOf& locatorOf,
                     std::span<const point> positions);

    [[nodiscard]] std::size_t size() const noexcept { return mySize; }
    /// How many are in a fragment.
    [[nodiscard]] std::size_t found() const noexcept { return myFound; }
    /// The fragment, in the order of the coordinate field, or `Nowhere`.
    [[nodiscard]] std::span<const std::uint32_t> fragments() const noexcept { return {myFragments.get(), mySize}; }
    /// The fractional index there; NaN where there is no fragment.
    [[nodiscard]] std::span<const point> places() const noexcept { return {myPlaces.get(), mySize}; }

    /// Number of components of a field's elements: 1 for numbers, 3 for vectors of either precision, 9 for tensors; 0
    /// for all others, and when that cannot be known.
    [[nodiscard]] static int components(const VantleTypeIndex& elementType) noexcept;

    /// The values of a field over the fragments of the locator, interpolated in double precision. Where there is no
    /// fragment, or the field has no data there, values and mask (if there is one) stay as they are; elsewhere the mask
    /// becomes 1.
    ///
    /// Failure  std::invalid_argument for elements without components, or with others than `components`, for arrays
    ///          that are not of rank 3, for data that cannot be made, and for sequences of wrong lengths; some values
    ///          may have been written by then.
    ///
    /// @param values  as many as there are positions, times the components: those of a position follow each other.
    /// @param sizes   extents of the fragments, if they are known: data of others are a failure, too.
    void sample(const Field& field, std::span<const Hestra::StrongPtr<FragmentID>> fragments, int components,
                std::span<double> values, std::span<unsigned char> mask, std::span<const DynamicSize> sizes = {}) const;

private:
    std::size_t mySize = 0, myFound = 0;
    std::unique_ptr<point[]> myPlaces;
    std::unique_ptr<std::uint32_t[]> myFragments;
};

} // namespace Vantle
