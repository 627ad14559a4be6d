#pragma once

/// PLOT3D files wholly in memory, in double precision.

#include "io/Geometry.hpp"

#include <dataset/io/Plot3D.hpp>

#include <array>
#include <filesystem>
#include <optional>
#include <vector>

namespace tour {

struct Plot3DBlock {
    Extents extents{};
    std::vector<double> x, y, z;
    std::optional<std::vector<int>> blanking; ///< 0 marks a vertex that does not count.
};

struct Plot3DGrid {
    Vantle::Plot3DFile file;
    std::vector<Plot3DBlock> blocks;
};

struct Plot3DField {
    std::vector<double> values;
};

struct Plot3DSolutionBlock {
    double time = 0.0;
    std::array<Plot3DField, 5> fields; ///< density, momentum x, momentum y, momentum z, energy
};

struct Plot3DSolution {
    Vantle::Plot3DForm form;
    std::vector<Plot3DSolutionBlock> blocks;
};

/// Failure      FileError.
Plot3DGrid readPlot3DGrid(const std::filesystem::path& file, const Vantle::Plot3DOptions& options);
Plot3DSolution readPlot3DSolution(const std::filesystem::path& file, const Plot3DGrid& grid,
                                  const Vantle::Plot3DOptions& options);

} // namespace tour
