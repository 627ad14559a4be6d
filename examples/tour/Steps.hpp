#pragma once

/// The stations of the tour. Each prints its section of the table and leaves its files in the output folder.

#include "DataSet.hpp"
#include "Report.hpp"

#include <filesystem>

namespace tour {

struct Tour {
    const DataSet& data;
    const Options& options;
    Report& report;
    bool pictures = true; ///< Whether there is a gnuplot to draw them.

    [[nodiscard]] std::filesystem::path file(const std::string& name) const { return options.output / name; }
};

/// Boxes, ranges, fragments.
void survey(const Tour& tour);
/// The isosurface of the chosen field: surface.vtp, surface.png.
void extractSurface(const Tour& tour);

/// The field at the positions of a uniform grid, which are looked for in both ways that the library offers:
/// uniform.vti, slice.png. What was found is held against what is inside by a test of its own.
void evaluateUniformly(const Tour& tour);

/// The gradient and the vorticity of the velocity in space, across the joined faces of the blocks.
void takeDerivatives(const Tour& tour);

} // namespace tour
