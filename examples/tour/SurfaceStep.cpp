#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/Isosurface.hpp>
#include <dataset/io/Vtk.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace tour {

using namespace Vantle;

namespace {

// Points and triangles, for files and pictures.
Mesh meshOf(const TriangularSurface& surface) {
    Mesh mesh;
    for (index_t n = 0; n < surface.points()->nElements(); ++n) {
        const Space::point& p = surface.points()->element(n);
        mesh.points.push_back({p[0], p[1], p[2]});
    }
    for (index_t t = 0; t < surface.triangles()->nElements(); ++t) {
        const auto& corners = surface.triangles()->element(t);
        mesh.triangles.push_back({corners[0], corners[1], corners[2]});
    }
    return mesh;
}

// Another field of the flow on the points of a surface: between the vertices that each point lies between.
std::vector<double> valuesOn(const TriangularSurface& grid, const DataSet& data, const std::string& name) {
    const auto known =
        Hestra::dynamicCast<MemArray<1, double>>(EvalFieldOnIsosurface(*grid.grid(), *data.grid.field(name)));
    std::vector<double> values(grid.points()->nElements(), std::numeric_limits<double>::quiet_NaN());
    for (std::size_t n = 0; known && n < values.size(); ++n) values[n] = known->element(n);
    return values;
}

index_t placesOf(std::vector<Point3> points) {
    std::sort(points.begin(), points.end());
    return static_cast<index_t>(std::unique(points.begin(), points.end()) - points.begin());
}

} // namespace

void extractSurface(const Tour& tour) {
    const DataSet& data = tour.data;
    Report& report = tour.report;
    const auto [least, greatest] = data.range;
    const double level = data.level.value_or(0.5 * least + 0.5 * greatest);
    const std::string what = data.field + " = " + number(level, 6);
    report.section("Isosurface " + what);

    SurfaceOptions options;
    options.joinBlocks = true;
    options.keepEdges = true;
    Stopwatch watch;
    TriangularSurface grid;
    {
        const Progress progress("isosurface");
        grid = TriangularSurface(ComputeIsosurface(level, Hestra::Ageable(), *data.grid.grid(), data.field, *data.slice,
                                                   "isosurface", 0.0, options));
    }
    const double seconds = watch.lap();
    const Mesh mesh = meshOf(grid);
    report.row("triangles", count(mesh.triangles.size()), seconds);
    if (mesh.triangles.empty())
        report.line("  nowhere: " + data.field +
                    (least < greatest ? " goes from " + number(least, 6) + " to " + number(greatest, 6)
                                      : " is " + number(least, 6) + " everywhere"));
    report.row("vertices", count(mesh.points.size()) + ", at " + count(placesOf(mesh.points)) + " places");

    std::vector<double> values;
    {
        const Progress progress("values on the isosurface");
        watch.lap();
        values = valuesOn(grid, data, data.colourField);
    }
    report.row("coloured by", data.colourField, watch.lap());

    const std::array<VtkArray, 1> arrays = {VtkArray{data.colourField, std::span<const double>(values)}};
    writeVtp(tour.file("surface.vtp"), mesh.points, mesh.triangles, arrays, {.compress = false});
    report.row("surface.vtp", "the surface", watch.lap());
    if (!tour.pictures) return;

    const Progress progress("picture of the surface");
    std::vector<SurfacePart> parts;
    for (const Mesh& wall : data.walls) parts.push_back({wall.points, wall.triangles, {}, 0xb8b8b8});
    parts.push_back({mesh.points, mesh.triangles, values});
    SurfaceStyle style;
    style.text.title = what + (mesh.triangles.empty() ? ", nowhere" : "");
    style.text.valueLabel = data.colourField;
    drawSurface(tour.file("surface.png"), parts, data.view, style);
    report.row("surface.png", "a picture of it", watch.lap());
}

} // namespace tour
