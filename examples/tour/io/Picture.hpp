#pragma once

/// Leaves PNG pictures: shaded triangle surfaces and colour-mapped slices. gnuplot draws them, in a process of its own.
///
/// Failure      FileError, one line, when gnuplot is missing or fails, or the file cannot be written; then a picture
///              that was there before stays as it was. std::invalid_argument when sizes do not agree. Texts may hold
///              anything: they reach gnuplot quoted, paths do not reach it at all, and no shell is involved.
/// Concurrency  any number of pictures at once.

#include "io/Geometry.hpp"
#include "io/Gnuplot.hpp"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tour {

using Point2 = std::array<double, 2>;
using Colour = std::uint32_t; ///< 0xRRGGBB
using ValueRange = std::pair<double, double>;

struct PictureText {
    std::string title;
    std::string valueLabel; ///< Beside the colour bar.
};

struct PictureSize {
    int width = 1000;
    int height = 750;
};

/// One surface of a picture, in its own colour or coloured by one value per point.
struct SurfacePart {
    std::span<const Point3> points;
    std::span<const Triangle> triangles;
    std::span<const double> values = {}; ///< Empty, or one per point.
    Colour colour = 0x8fb3d9;            ///< Where there are no values, or a value is NaN.
};

struct SurfaceView {
    Point3 direction = {-1.0, 1.0, -0.6}; ///< From the eye to the scene; parallel projection.
    Point3 up = {0.0, 0.0, 1.0};          ///< Shown upwards; need not be normal to the direction.
};

struct SurfaceStyle {
    PictureText text;
    std::optional<ValueRange> range; ///< Of the colours; by default that of the values.
    PictureSize size;
};

/// Draws surfaces, farther triangles first, lit from the eye's upper left on both sides.
///
/// Degenerate   triangles with a coordinate that is not finite are left out; nothing to draw gives a picture that says
///              so. Triangles that pierce each other show wrongly, as always when triangles are sorted.
/// Cost         about a second per 100 000 triangles; from 250 000 on, points nearer to each other than about a pixel
/// are
///              merged first.
void drawSurface(const std::filesystem::path& png, std::span<const SurfacePart> parts, const SurfaceView& view = {},
                 const SurfaceStyle& style = {});

/// Values on a uniform lattice of `columns` × `rows`, row by row from the lowest, each the colour of one cell around
/// its point. Where it is not finite, the cell stays white; where none is, the picture says that there is nothing.
struct Slice {
    std::size_t columns = 0;
    std::size_t rows = 0;
    Point2 origin{};
    Point2 spacing{1.0, 1.0};
    std::span<const double> values;
};

struct SliceStyle {
    PictureText text;
    std::string xLabel = "x";
    std::string yLabel = "y";
    std::optional<ValueRange> range;           ///< Of the colours; by default that of the values.
    std::vector<std::vector<Point2>> outlines; ///< Drawn over the slice as thin dark lines.
    PictureSize size;
};

void drawSlice(const std::filesystem::path& png, const Slice& slice, const SliceStyle& style = {});

} // namespace tour
