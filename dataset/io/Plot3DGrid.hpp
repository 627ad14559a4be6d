#pragma once
/// Grids of the model whose positions and fields are read from PLOT3D files when they are needed.

#include <model/vantle/GridKinds.hpp>

#include <dataset/io/Plot3D.hpp>
#include <string>
#include <vector>

namespace Vantle {

/// How what is read is kept, and what is made of it.
struct Plot3DReading {
    /// Keeps what was read, and drops what was not used for longest when its budget is exceeded; without one everything
    /// stays.
    Hestra::StrongPtr<Hestra::Cache> cache = Hestra::Cache::MemCache();
    /// Scalars become `double`, also those that the file has as float32, which stay `float` otherwise.
    bool doubles = false;
    /// Of the gas: that of the heat capacities at constant pressure and at constant volume.
    double heatRatio = 1.4;
};

/// Adds the blocks of a grid file to `grid` as fragments "block1", "block2", ... (`FileArray`). Nothing is read. With
/// blanking there is a field `Plot3DBlankingName` beside the positions: integers, 0 at vertices that do not count.
///
/// Degenerate   a block of one layer has no cells, and is a fragment like any other.
/// Failure      FileError when it is no grid file, or the grid has a fragment of such a name already: nothing changed.
/// Concurrency  as of changing a grid; the arrays are read by any number of threads.
VANTLE_DATASET_API RegularGrid3D addPlot3DGrid(Grid& grid, const Plot3DFile& file, const Plot3DReading& reading = {});

/// Adds the fields of a solution or function file to the blocks of its grid, and returns their names. Nothing is read.
///
/// - Of a solution: "density", "energy" and "momentum" (a vector) as they stand there; made of them when they are asked
///   for, "velocity" (momentum / density; 0 where the density is not positive), "speed", and "pressure", which is
///   (heatRatio - 1) (energy - density speed^2 / 2).
/// - Of functions: each by its name, and the vectors that the names announce, for blocks that have them.
///
/// Vectors are double precision. Fields of these names are replaced.
/// Failure      FileError when it is a grid file, or the grid lacks its blocks: nothing changed.
/// Memory       what is made of several fields takes 64 KiB for each beside the result.
VANTLE_DATASET_API std::vector<std::string> addPlot3DFields(RegularGrid3D& grid, const Plot3DFile& file,
                                                            const Plot3DReading& reading = {});

inline constexpr const char* Plot3DBlankingName = "VertexMask";

} // namespace Vantle
