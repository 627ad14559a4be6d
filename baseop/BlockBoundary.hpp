#pragma once
/// The outer hull of a multi-block grid: all faces of its blocks that are joined to nothing, as a surface with fields.

#include <baseop/BaseOpExport.hpp>
#include <baseop/BlockJoins.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/Grid.hpp>

#include <string>
#include <vector>

namespace Vantle {

/// What goes into a hull.
struct VANTLE_BASEOP_API BlockBoundaryOptions {
    /// How joins are looked for.
    JoinOptions joins;
    /// Names of fields of the grid's vertices, in its Cartesian chart, that the hull is to have, too.
    std::vector<std::string> fields;
};

/// The hull of `grid`, as the grid `outputName` of `slice`.
///
/// Each quad of a block's face that is joined to no other gives two triangles, cut along the shorter diagonal. The
/// points are the positions of the hull's vertices (dimension 2) in the Cartesian chart, the triangles those of its
/// skeleton (2, 1) relative to the vertices, as with isosurfaces. A vertex that several blocks have is one, with the
/// position and the values of its owner; vertices ascend by owner. All arrays are discardable.
/// Blanking     on grids with masks, the hull is that of the valid cells: blanked ones are nothing, inside of blocks,
///              too.
/// Orientation  triangles show outward: those of blocks that hang together agree, whatever their handedness, and what
///              they enclose is positive. Where handedness cannot be agreed on (`BlockJoins::isOrientable`) each block
///              is wound as its index space is.
/// Laws         closed: each edge is used as often in the one direction as in the other. That of a grid which is cut,
///              with its pieces turned and flipped, has the same points, and as many triangles, as that of the uncut
///              grid.
/// Degenerate   triangles with two vertices that are one, as on faces that are collapsed to a line or a point, are left
///              out. Periodic pairs are part of the hull, and so are both sides of doubtful faces. A grid whose blocks
///              have no cells has an empty hull.
/// Reuse        a grid of this name that was made here, from these joins, masks and fields while none of them has
///              become newer, and whose data exist, is returned as it is. Otherwise the whole is made anew, in a new
///              grid.
/// Failure      std::invalid_argument, with the reason and before anything is changed: without Cartesian positions, for
///              unusable options and masks that do not fit, for the name of the grid itself, and for a field that is
///              missing, or has no data, other extents than the positions, or elements of another type than elsewhere
///              in a block of the hull. std::length_error for more than 2^32 vertices.
/// Concurrency  changes the slice: one thread.
/// Cost         two walks over the faces, some 200 ns a quad, beside finding the joins. With masks over all cells.
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> ComputeBlockBoundary(const Grid& grid, Slice& slice,
                                                               const std::string& outputName,
                                                               const BlockBoundaryOptions& options = {});

} // namespace Vantle
