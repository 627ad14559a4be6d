#pragma once
/// Groups of 2 x 2 x 2 cells, made from rows of cells in vector lanes of the widest kind that the processor has; the
/// bits are the same in each.

#include <baseop/detail/location/CellBoxTree.hpp>

#include <cstddef>

namespace Vantle::detail {

/// Several times the rounding of a number of a tree to float, and that of sums of three products.
inline constexpr float PositionRounding = CellBoxTree::PositionRounding;
inline constexpr float ProductRounding = CellBoxTree::ProductRounding;

/// Groups along four rows of cells.
struct GroupRow {
    /// Boxes along the axes are written in vectors of up to so many.
    static constexpr std::size_t Lanes = 16;
    [[nodiscard]] static constexpr std::size_t roomForBoxes(std::size_t groups) noexcept {
        return (groups + Lanes - 1) / Lanes * Lanes;
    }
    /// The room of a row of cells that is read in such vectors, and written as `CellBoxTree::roomFor` says.
    [[nodiscard]] static constexpr std::size_t roomForCells(std::size_t groups) noexcept {
        return 2 * roomForBoxes(groups) + 2 * CellBoxTree::RowLanes;
    }
    /// Bytes of a group: the origin and the three columns of its frame, then the bounds, in the order of
    /// `CellBoxTree::Bottom`.
    static constexpr std::size_t GroupBytes = 96;

    const CellBoxTree::Row* rows; // those of the groups: along j, then along k; filled up with empty sets
    std::size_t groups;
    float least[3]; // half widths that all sets have
    float *low[3], *high[3];
    unsigned char* to; // null where boxes are all that is asked for
};

/// Makes the boxes along the axes, and the groups.
template<int Edges>
void makeGroups(const GroupRow& row);

} // namespace Vantle::detail
