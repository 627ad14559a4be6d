#pragma once
/// Point location in one curvilinear block, through a k-d tree of cells.

#include <baseop/BaseOpExport.hpp>
#include <model/hestra/Reference.hpp>
#include <model/orvix/KDTree.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MemArray.hpp>

#include <memory>

/// Finds the cell of a curvilinear block that contains a point, nearest cells first, by the projective map of cells.
///
/// A k-d tree holds the cells by the midpoints of their main diagonals; it is attached to the array of the vertices as
/// `Orvix::KDInterface<3, MultiIndex<3>>`. The nearest cell in the Manhattan distance whose unit cube, slightly
/// widened, has the point answers; of cells at equal distances the earlier in the tree's pre-order.
///
/// Degenerate   cells whose keys have a NaN, and cells whose frame is degenerate, are never found.
/// Concurrency  immutable once constructed: queries may come from any number of threads.
/// Cost         56 bytes a cell for the tree. A query maps the cells whose keys are within reach until a nearer one has
///              the point: a few dozen where cells are of one size, most of the block where they differ by orders of
///              magnitude. Nothing is allocated as long as the tree is shallow.
class VANTLE_BASEOP_API TreeCellMapper : public Hestra::ReferenceBase<TreeCellMapper> {
public:
    using point = Orvix::PhysicalSpace::point;
    using vector = Orvix::PhysicalSpace::vector;
    using tvector = Orvix::PhysicalSpace::tvector;
    using MultiIndex3 = Vantle::MultiIndex<3>;
    using CoordsArray_t = Vantle::MemArray<3, point>;
    using Tree = Orvix::KDTree<3, MultiIndex3>;

    /// Stands for an insertion stride of 0.
    static constexpr unsigned int DefaultStride = 13;

    /// Builds the tree and attaches it to the array, in place of an earlier one.
    ///
    /// `scale` times the largest extents of cell edges gives the half widths of the box in which keys are searched; 1
    /// may miss strongly skewed cells, which need up to 1.5. `epsilon` widens the unit cube. Cells are inserted with
    /// interleaved numbers, every `stride`-th, which keeps the unbalanced tree shallow; 0 means `DefaultStride`.
    /// The array is shared with the caller, and must not change while the mapper lives.
    TreeCellMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, const tvector& scale, double epsilon,
                   unsigned int stride);
    ~TreeCellMapper() override;
    TreeCellMapper(const TreeCellMapper&) = delete;
    TreeCellMapper& operator=(const TreeCellMapper&) = delete;

    /// Folds a cell edge into the maxima: the extents component by component, and the length.
    static void maxVec(double& maximalLength, vector& maximalExtents, const vector& edge);

    /// 1 when a cell has `P`, 2 when the coordinates were moved onto the border of the block, 0 when no cell has it.
    ///
    /// `uvw` gets the coordinates in the block, except in a cell of the last layer of an axis, where that component is
    /// the one in the cell, from 0 to 1: this is on purpose. Add the index of the cell, which `foundCell` gets, for
    /// the fractional index. `extent` gets the extents of the cell's main diagonal. Without result `extent` and
    /// `foundCell` stay as they are, and `uvw` means nothing.
    ///
    /// @param mask  of the same extents: cells that are not valid are not found, and coordinates within the rim that
    ///              would be in one are moved onto its border, for a result of 2.
    unsigned int localCoordinates(point& uvw, tvector& extent, const point& P, MultiIndex3* foundCell = nullptr,
                                  const Vantle::BlockMask* mask = nullptr) const;

    [[nodiscard]] const Hestra::StrongPtr<CoordsArray_t>& coordinates() const noexcept { return myCoordinates; }
    /// The tree of the cells.
    [[nodiscard]] const Hestra::StrongPtr<Tree>& tree() const noexcept { return myTree; }
    /// The largest absolute component of a cell edge on each axis, and the length of the longest edge. Edges on the
    /// upper faces of the block are not among them.
    [[nodiscard]] const vector& maximalEdgeExtents() const noexcept { return myMaximalExtents; }
    [[nodiscard]] double maximalEdgeLength() const noexcept { return myMaximalLength; }

private:
    unsigned int accept(point& uvw, tvector& extent, const MultiIndex3& cell, MultiIndex3* foundCell) const;

    Hestra::StrongPtr<CoordsArray_t> myCoordinates;
    Hestra::StrongPtr<Tree> myTree;
    double myEpsilon;
    unsigned int myStride;
    tvector myScale;
    vector myMaximalExtents;
    double myMaximalLength = 0.0;
    MultiIndex3 myLastCell;
};

namespace Vantle {
using ::TreeCellMapper;
}
