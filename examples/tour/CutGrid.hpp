#pragma once

/// A PLOT3D data set in more blocks, as another program might have written it.

#include "Plot3DBlocks.hpp"

namespace tour {

/// Cuts the blocks until there are `count`, always the largest along its longest axis, and turns and mirrors each by
/// chance, always the same. Vertices on cuts are in the blocks on both sides, with equal coordinates and values.
///
/// Degenerate   grids that have as many blocks are only turned; blocks of one cell are not cut further.
///
/// @param solution  of the grid; may be null.
void cutGrid(Plot3DGrid& grid, Plot3DSolution* solution, std::size_t count);

} // namespace tour
