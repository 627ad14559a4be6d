#pragma once

/// A walk over a flow: what there is to look at, and the stations, each of which prints its section of the table and
/// leaves its files in the output folder.

#include "Options.hpp"
#include "Report.hpp"

#include <dataset/DataSet.hpp>
#include <model/vantle/Blanking.hpp>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tour {

using Vantle::Point;
using Vantle::Vector;
using Gradient = Orvix::Quadratic<3, double>; ///< Row m holds the derivatives of all components along axis m.

/// A data set, and what is known of it.
struct Flow {
    std::string title;
    std::vector<std::string> remarks; ///< Lines about what was read, and how.
    Vantle::DataSet data;             ///< With a vector "velocity", unless it is a grid alone, or has functions.
    bool hasVelocity = false;

    std::vector<std::string> scalars; ///< Those that are looked at.
    std::string field;                ///< The one that has an isosurface.
    Vantle::NumberRange range;        ///< Of its values.
    std::optional<double> level;      ///< Of its isosurface; by default in the middle of its range.
    std::string colourField;          ///< The scalar that colours the isosurface.

    /// What is known exactly: fields by name, the gradient of the velocity, the same flow on twice as many cells.
    struct Exact {
        std::function<double(const std::string& scalar, const Point&)> scalar;
        std::function<Gradient(const Point&)> velocityGradient;
        std::function<Flow()> refined;
    };
    std::optional<Exact> exact;

    /// Whether a point of the hull belongs to something solid, by its place and the speed there; null when that is
    /// unknown.
    std::function<bool(const Point&, double speed)> isWall;
    std::string wallName;
    Vector viewDirection{0.7, -0.75, -0.45};
};

/// Reads the files that the options name, or makes the flow past a cylinder.
///
/// Coordinates  have to be finite, and not farther than 1e100.
/// Blanking     vertices that files blank, and those with a value that is not finite, belong to no cell.
/// Fields       a solution has density, pressure, speed, energy; a grid alone has x, y, z. Unless the options name one,
///              it is one that is not constant, if there is one; the surface is coloured by another.
/// Memory       data of files are read block by block when they are needed, and dropped beyond the budget.
/// Failure      FileError, also when no cell counts; UsageError for a field that there is not.
Flow makeFlow(const Options& options);

/// Cuts the blocks until there are `count`, always the largest along its longest axis, and turns and mirrors each by
/// chance, always the same: data as another program might have written them. Vertices on cuts are in the blocks on both
/// sides, with equal coordinates and values. What the pieces have is taken from the whole when it is needed.
///
/// Degenerate   data sets that have as many blocks are only turned; blocks of one cell are not cut further.
Vantle::DataSet cutBlocks(const Vantle::DataSet& whole, std::size_t count);

/// What is valid in a block; null where everything is.
Hestra::StrongPtr<const Vantle::BlockMask> maskOf(const Vantle::DataSet& data, const Vantle::BlockInfo& block);
struct CellCount {
    Vantle::index_t all = 0, valid = 0;
};
CellCount countCells(const Vantle::DataSet& data);
Vantle::index_t countCells(const Vantle::MultiIndex<3>& block);

/// "17 x 33 x 25".
std::string sizeText(const Vantle::MultiIndex<3>& size);
/// "(0.5, -1, 0)".
std::string placeText(const Point& place);
/// "closed", or how long the border of a surface is.
std::string borderText(const Vantle::Surface& surface);

struct Tour {
    const Flow& flow;
    const Options& options;
    Report& report;
    bool pictures = true;   ///< Whether there is a gnuplot to draw them.
    Vantle::Surface hull{}; ///< Of all blocks, with the speed if the flow knows walls.

    [[nodiscard]] std::filesystem::path file(const std::string& name) const { return options.output / name; }
};

/// Boxes, ranges, blocks, their joins and their hull, which it adds to the tour.
void survey(Tour& tour);
/// The isosurface of the chosen field: surface.vtp, surface.png.
void extractSurface(const Tour& tour);
/// The field at the positions of a uniform grid, held against what is known of it and against the hull: uniform.vti; a
/// slice through the middle: slice.png.
void evaluateUniformly(const Tour& tour);
/// The gradient and the vorticity of the velocity in space, across the joined faces of the blocks.
void takeDerivatives(const Tour& tour);

} // namespace tour
