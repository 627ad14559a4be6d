#pragma once
/// Grids of the model whose positions and fields are read from PLOT3D files when they are needed.

#include <dataset/io/Plot3D.hpp>
#include <model/vantle/GridKinds.hpp>

#include <string>
#include <vector>

namespace Vantle {

/// What becomes of numbers that a file has as float32. Those that it has as float64, and those of texts, stay so.
enum class Plot3DPrecision {
    AsStored,        ///< Scalars are `float`, points and vectors those of single precision.
    ScalarsAsStored, ///< Scalars are `float`, points and vectors in double precision, which operations compute with.
    Doubles,         ///< All are in double precision.
};

/// How what is read is kept, and what is made of it.
struct Plot3DReading {
    /// Keeps what was read, and drops what was not used for longest when its budget is exceeded; without one everything
    /// stays.
    Hestra::StrongPtr<Hestra::Cache> cache = Hestra::Cache::MemCache();
    Plot3DPrecision precision = Plot3DPrecision::ScalarsAsStored;
    /// Of the gas: that of the heat capacities at constant pressure and at constant volume.
    double heatRatio = 1.4;
};

/// Adds the blocks of a grid file to `grid` as fragments "block1", "block2", ... (`FileArray`). Nothing is read. With
/// blanking there is a mask of the vertices (`VertexMaskName`): the integers as they stand there, 0 masks out.
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
/// What is made of several fields is computed in double precision, and stored as `reading` says. Fields of these names
/// are replaced.
/// Failure      FileError when it is a grid file, or the grid lacks its blocks: nothing changed.
/// Memory       what is made of several fields takes 64 KiB for each beside the result.
VANTLE_DATASET_API std::vector<std::string> addPlot3DFields(RegularGrid3D& grid, const Plot3DFile& file,
                                                            const Plot3DReading& reading = {});

} // namespace Vantle
