#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/GridEvaluator.hpp>
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
Mesh meshOf(const TriangularSurfaceWithEdges& surface) {
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

// Another field of the flow on the points of a surface; NaN where they are not found.
std::vector<double> valuesOn(const TriangularSurfaceWithEdges& grid, const DataSet& data, const std::string& name) {
    std::vector<double> values(grid.points()->nElements(), std::numeric_limits<double>::quiet_NaN());
    GridEvaluator evaluator;
    GridEvaluator::Context context;
    context.slice = data.slice;
    context.grid = data.grid.grid();
    context.cellLocator = CellLocator::Exact; // the points lie on the edges of cells
    if (values.empty() || !evaluator.find(grid.points(), *data.grid.positions(), context)) return values;
    const auto found =
        Hestra::dynamicCast<MemArray<1, double>>(evaluator.evalKnownDataTypes(grid.points(), *data.grid.field(name)));
    if (!found) return values;
    for (std::size_t n = 0; n < values.size(); ++n)
        if (evaluator.statuses()->element(n) == GridEvaluator::Located) values[n] = found->element(n);
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

    Stopwatch watch;
    TriangularSurfaceWithEdges grid;
    {
        const Progress progress("isosurface");
        grid = TriangularSurfaceWithEdges(
            ComputeIsosurface(level, Hestra::Ageable(), *data.grid.grid(), data.field, *data.slice, "isosurface", 0.0));
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
    const auto lost = std::count_if(values.begin(), values.end(), [](double value) { return std::isnan(value); });
    report.row("coloured by", data.colourField + (lost > 0 ? ", unknown at " + count(static_cast<index_t>(lost)) : ""),
               watch.lap());

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
