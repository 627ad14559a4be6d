#pragma once
/// Places that searches accept although they are a little outside of the cell that was asked.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>

namespace Vantle::detail {

/// Whether a place that a valid cell gave, in fractional indices of the block, is in a valid cell. If not, it is moved
/// into its own cell when it is at most `epsilon` outside of that, as at the border of a block; else false.
inline bool keepValid(Orvix::PhysicalSpace::point& place, const MultiIndex<3>& cell, const BlockMask& mask,
                      double epsilon) noexcept {
    if (mask.has(place)) return true;
    Orvix::PhysicalSpace::point inside;
    for (int d = 0; d < 3; ++d) {
        const auto low = static_cast<double>(cell[d]);
        if (!(place[d] >= low - epsilon && place[d] <= low + 1.0 + epsilon)) return false;
        inside[d] = std::clamp(place[d], low, low + 1.0);
    }
    place = inside;
    return true;
}

} // namespace Vantle::detail
