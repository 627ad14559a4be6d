#pragma once
/// What a search for positions in the cells of one block answers.

#include <model/orvix/PhysicalSpace.hpp>

namespace Vantle {

/// Whether a position was found. The numbers are those that queries return.
enum class LocationResult : unsigned char {
    NotFound = 0,
    Found = 1,
    Approximate = 2, ///< no cell has it, and one missed it narrowly
};

/// Where a position is in one block.
struct CellLocation {
    /// Fractional indices of the block: vertex (i, j, k) has coordinates (i, j, k). Unspecified when not found.
    Orvix::PhysicalSpace::point local;
    LocationResult result = LocationResult::NotFound;
    /// Whether the query that reports has nothing to say about this position.
    bool isSilent = true;

    [[nodiscard]] explicit operator bool() const noexcept { return result != LocationResult::NotFound; }
};

} // namespace Vantle
