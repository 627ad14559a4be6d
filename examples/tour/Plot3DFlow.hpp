#pragma once

/// A PLOT3D data set as blocks of a grid with fields.

#include "DataSet.hpp"

namespace tour {

inline constexpr double kFarthest = 1e100; ///< From the origin, along each axis: squares and cubes stay finite.

/// Reads the grid and, if there is one, the solution.
///
/// Coordinates  finite, and not farther than kFarthest.
/// Fields       of a solution: density, energy, pressure, speed (scalars) and velocity (vector); of a grid alone: x,
///              y, z. Blocks have no common index space: where they touch, joins tell.
/// Blanking     vertices that do not count, blanked or with a value that is not finite, keep their place. Fields have
///              the least value of the others there, so that ranges are those of the others; `blanked` names them. A
///              block of nothing else is left out.
/// Degenerate   where the density is not positive there is no velocity, and it is set to 0.
/// Failure      FileError, also when no block has cells or no vertex counts.
DataSet readPlot3DFlow(const Options& options);

} // namespace tour
