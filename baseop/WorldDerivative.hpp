#pragma once
/// Derivatives of fields on the vertices of regular grids with respect to x, y and z, by finite differences.
///
/// A scalar field has a field of vectors as derivative, its gradient. A field of vectors has a field of tensors, row m
/// of which (values 3m, 3m+1, 3m+2) is the derivative along axis m of space: the transpose of the usual Jacobian, as
/// with `PartialDerivative`. Units are those of the values by those of the positions.
///
/// At each vertex positions and values are subtracted along the three index axes, centrally inside of a block and to
/// the only neighbour at its ends; the derivative is what agrees with all three differences.
/// Blanking     on grids with masks, differences are one-sided next to what is blanked: only edges of valid cells
/// count.
///              Vertices of blanked cells alone have a derivative of zero, as with `PartialDerivative`.
/// Laws         exact for values that are linear in space, whatever the shape of the cells, to rounding. Of order two
///              inside smooth grids, of order one at ends.
/// Degenerate   NaN where the cells are degenerate: where the differences of the positions span less than 1e-12 of the
///              volume that they would at right angles. A block with one vertex along an axis is a sheet, with one
///              along two a curve: it has the derivative within the sheet or along the curve, with no component across;
///              a single vertex has zero. NaN and infinities spread to the neighbours.
/// Concurrency  different fragments from any number of threads. One fragment is computed by all OpenMP threads of the
///              caller's settings, with the same result as by one.
/// Cost         one pass over memory with some arithmetic; vertices of joined faces some 250 ns each.

#include <baseop/BaseOpExport.hpp>
#include <baseop/BlockJoins.hpp>
#include <model/hestra/Cache.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/Grid.hpp>

#include <string>

namespace Vantle {

/// How derivatives see the blocks of a grid.
struct VANTLE_BASEOP_API WorldDerivativeOptions {
    /// Off: each block by itself, one-sided on its faces. On: differences cross joined faces, where they are central as
    /// inside of a block; a joined vertex has its owner's position and value in all of them, and each copy of it has
    /// its owner's derivative, to the last bit. Where a periodic pair is crossed, positions and vectors are moved
    /// along.
    bool joinBlocks = false;
    /// How joins are looked for.
    JoinOptions joins;
};

/// A new array with the derivative of one block: numbers, `double` or `float`, give `MemArray<3,
/// PhysicalSpace::vector>`, vectors in either precision `MemArray<3, Quadratic<3, double>>`. Null for everything else.
///
/// @param positions  of the vertices, with the same extents: curvilinear, rectilinear or uniform.
/// @param mask       what is valid, with the same extents; null where everything is.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<MemBase> WorldDerivative(const Hestra::StrongPtr<MemBase>& values,
                                                                           const Hestra::StrongPtr<MemBase>& positions,
                                                                           const BlockMask* mask = nullptr);

/// The derivative of a field of the grid's vertices, in the Cartesian chart, stored there under `name`, which it
/// replaces.
///
/// Nothing is computed here: the derivative of a fragment is made when it is first asked for, may be dropped by the
/// cache, and is made again. With a null cache it is kept. It follows the field and the positions that the grid has
/// now, which live as long as it does, and the grid's masks: when a fragment of these has new data or was touched, the
/// derivative is as new at once, and joins are looked for again. Fragments that the field gets later are not in it.
///
/// Degenerate   with joined blocks, a vertex with several copies has the derivative along the axes of its owner's
///              block, and where that has no edge by those of the blocks that it is joined with there. At
///              poles, where an edge of the owner's has no length, it is what explains the differences at all copies
///              best, by least squares: the limit from all sides. Blocks are joined as long as the grid lives and has
///              these positions: without it no derivative is made for positions that have become newer.
/// Failure      fragments that cannot be derived have no data; for each that is known to be one, a line is added to
///              `errors`: "No creator for fragment ", "No creator element type unsupported for fragment " or "No
///              positions for fragment ", and its name. Others turn out to have none when they are asked for: where
///              extents differ from those of the positions, and where a joined block has no values, or of another type,
///              which standard error is told of.
///              Null, and nothing stored, when that leaves none, and without such a field.
///              std::invalid_argument for unusable options, and for masks that do not fit.
VANTLE_BASEOP_API Hestra::StrongPtr<Field>
WorldDerivative(Grid& grid, const std::string& field, const std::string& name, std::string& errors,
                const WorldDerivativeOptions& options = {},
                const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

} // namespace Vantle
