#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/Isosurface.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <dataset/io/Vtk.hpp>
#include <limits>

namespace tour {

using namespace Vantle;

namespace {

// The grid to extract the surface from. Where vertices are blanked, a copy of the field's grid on which these have no
// coordinates: whatever of the surface touches them has none either, and is dropped afterwards.
Hestra::StrongPtr<Grid> surfaceInput(const DataSet& data) {
    if (data.blanked.empty()) return data.grid.grid();
    RegularGrid3D copy(data.slice->newGrid("flow without blanked vertices"));
    const auto field = data.grid.field(data.field);
    data.grid.positions()->iterate([&](const Hestra::StrongPtr<FragmentID>& fragment, const auto& creator) {
        auto positions = creator->getData();
        if (const auto blanked = data.blanked.find(FragmentID::Name(fragment, "")); blanked != data.blanked.end()) {
            constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
            const auto masked = dynamic_cast<const MemArray<3, Space::point>&>(*positions).copy();
            for (std::size_t n = 0; n < blanked->second.size(); ++n)
                if (blanked->second[n]) masked->element(n) = Space::point(kNone, kNone, kNone);
            positions = masked;
        }
        const auto copied = copy.addBlock(FragmentID::Name(fragment, ""), positions);
        copy.setField(data.field, field->getData(fragment), copied);
        return true;
    });
    return copy.grid();
}

struct Surface {
    Mesh mesh;
    std::vector<index_t> vertices; // of the grid that the library made, one for each point of the mesh
};

// Points and triangles, without triangles that have a corner nowhere, and points that are left over then.
Surface surfaceOf(const TriangularSurfaceWithEdges& grid) {
    Surface surface;
    Mesh& mesh = surface.mesh;
    const auto& points = *grid.points();
    const auto& triangles = *grid.triangles();
    constexpr index_t kUnused = ~index_t{0};
    std::vector<index_t> number(points.nElements(), kUnused);
    const auto isSomewhere = [&](index_t n) {
        const Space::point& p = points.element(n);
        return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
    };
    for (index_t t = 0; t < triangles.nElements(); ++t) {
        const auto& corners = triangles.element(t);
        if (!isSomewhere(corners[0]) || !isSomewhere(corners[1]) || !isSomewhere(corners[2])) continue;
        mesh.triangles.emplace_back();
        for (std::size_t c = 0; c < 3; ++c) {
            const index_t vertex = corners[static_cast<int>(c)];
            index_t& n = number[vertex];
            if (n == kUnused) {
                const Space::point& p = points.element(vertex);
                n = mesh.points.size();
                mesh.points.push_back({p[0], p[1], p[2]});
                surface.vertices.push_back(vertex);
            }
            mesh.triangles.back()[c] = n;
        }
    }
    return surface;
}

// Another field of the flow on the points of a surface: between the vertices that each point lies between.
std::vector<double> valuesOn(const Surface& surface, const TriangularSurfaceWithEdges& grid, const DataSet& data,
                             const std::string& name) {
    const auto known =
        Hestra::dynamicCast<MemArray<1, double>>(EvalFieldOnIsosurface(*grid.grid(), *data.grid.field(name)));
    std::vector<double> values(surface.vertices.size(), std::numeric_limits<double>::quiet_NaN());
    for (std::size_t n = 0; known && n < values.size(); ++n) values[n] = known->element(surface.vertices[n]);
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
    const auto input = surfaceInput(data);
    Stopwatch watch;
    TriangularSurfaceWithEdges grid;
    {
        const Progress progress("isosurface");
        grid = TriangularSurfaceWithEdges(
            ComputeIsosurface(level, Hestra::Ageable(), *input, data.field, *data.slice, "isosurface", 0.0, options));
    }
    const double seconds = watch.lap();
    const Surface surface = surfaceOf(grid);
    const Mesh& mesh = surface.mesh;
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
        values = valuesOn(surface, grid, data, data.colourField);
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
