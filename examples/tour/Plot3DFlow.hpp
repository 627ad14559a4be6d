#pragma once

/// A PLOT3D data set as blocks of a grid with fields.

#include "DataSet.hpp"

namespace tour {

/// Reads the grid and, if there is one, the solution.
///
/// Fields       of a solution: density, energy, pressure, speed (scalars) and velocity (vector); of a grid alone: x,
///              y, z. Blocks have no common index space; they share no vertices, even where they touch.
/// Blanking     vertices that do not count keep their place. In fields they have the least value of the others, so that
///              ranges are those of the others; `blanked` names them. A block of nothing else is left out.
/// Degenerate   where the density is not positive there is no velocity, and it is set to 0.
/// Failure      FileError.
DataSet readPlot3DFlow(const Options& options);

} // namespace tour
