#pragma once
/// Exact point location in one curvilinear block.

#include <baseop/BaseOpExport.hpp>
#include <baseop/CellLocation.hpp>
#include <model/hestra/Reference.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MemArray.hpp>

#include <memory>
#include <span>

namespace Vantle {

class LocalFromWorldPoint;
namespace detail {
class CellTrail;
class HomeCell;
} // namespace detail

/// Finds the cell of a curvilinear block that contains a point, and inverts the trilinear map of that cell.
///
/// Every position within the block is found, whatever the shape of its cells, as long as they are not degenerate. A
/// position on a common face belongs to the cell that comes first, i fastest.
///
/// Degenerate   cells with a corner that is not finite contain nothing. In cells that are flat, folded or turned
///              inside out a position may be found at any of the places that are mapped to it, or not at all. Vertices
///              that are far away from all others, as those that stand for none, do no harm to cells without them.
/// Failure      silent.
/// Concurrency  immutable once constructed: queries may come from any number of threads.
/// Cost         about 13 bytes a cell, built in a few passes over the vertices. A query tests the boxes of some cells,
///              and solves in the one or two that remain; nothing is allocated.
class VANTLE_BASEOP_API ExactCellLocator : public Hestra::ReferenceBase<ExactCellLocator> {
public:
    using point = Orvix::PhysicalSpace::point;
    using MultiIndex3 = MultiIndex<3>;
    using CoordsArray_t = MemArray<3, point>;

    /// Bound of |x(uvw) - P| for a result, as a part of the cell's diagonal (of the largest of the four); or, where
    /// that is larger, so many units in the last place of the largest coordinate of the cell.
    static constexpr double RelativeResidual = 1e-10;
    static constexpr double ResidualUnits = 4.0;

    /// Builds the search structure. The array is shared with the caller, and must not change while the locator lives.
    /// Null coordinates are an empty block. Failure: std::length_error beyond 2^32 - 2 cells.
    explicit ExactCellLocator(const Hestra::StrongPtr<CoordsArray_t>& coordinates);
    ~ExactCellLocator() override;
    ExactCellLocator(const ExactCellLocator&) = delete;
    ExactCellLocator& operator=(const ExactCellLocator&) = delete;

    /// Finds the position, and tells the cell if asked for it: `Found`, or `NotFound` when it is outside, with `cell`
    /// untouched. A component of the result is within the closed range of the cell.
    ///
    /// @param mask  of the same extents: cells that are not valid contain nothing.
    [[nodiscard]] CellLocation locate(const point& P, MultiIndex3* cell = nullptr,
                                      const BlockMask* mask = nullptr) const;

    /// The same for many positions at once, whose searches share much if they lie within a few cells of each other.
    /// Both sequences have the same length.
    void locate(std::span<const point> points, std::span<CellLocation> found, const BlockMask* mask = nullptr) const;

    /// Whether a cell has the position, and if so, the fractional index of it in `uvw`. On common faces each cell does.
    /// False for cells that the block does not have.
    bool localInCell(const point& P, const MultiIndex3& cell, point& uvw) const;

    [[nodiscard]] const Hestra::StrongPtr<CoordsArray_t>& coordinates() const noexcept { return myCoordinates; }

private:
    friend class LocalFromWorldPoint;
    struct Search;

    [[nodiscard]] CellLocation locate(const point& P, detail::CellTrail& trail, const BlockMask* mask) const;
    /// Moves to a cell, if queries without a mask find positions in a part of it without looking at another one.
    [[nodiscard]] bool moveHome(detail::HomeCell& home, const MultiIndex3& cell, detail::CellTrail* trail) const;
    /// The answer for a position that the home may have, if it or its rivals have it.
    [[nodiscard]] CellLocation locateAtHome(const point& P, detail::HomeCell& home, const BlockMask* mask) const;
    /// Whether queries find no position of a home in another block, from there on along its axes, in this one.
    [[nodiscard]] bool leavesFree(const detail::HomeCell& home, double from) const;
    void locateNeighbours(std::span<const point> points, std::span<CellLocation> found, const BlockMask* mask) const;

    Hestra::StrongPtr<CoordsArray_t> myCoordinates;
    std::unique_ptr<const Search> mySearch;
};

} // namespace Vantle
