#include "Tour.hpp"
#include "io/Picture.hpp"
#include "io/Progress.hpp"

#include <model/vantle/GridKinds.hpp>

#include <algorithm>

namespace tour {

using namespace Vantle;

namespace {

constexpr Colour kWallColour = 0xb8b8b8;

Surface wallsOf(const Flow& flow, const Surface& hull) {
    const auto isWall = [&](unsigned int n) { return flow.isWall(hull.points()[n], hull.values("speed")[n]); };
    std::vector<Triangle> triangles;
    for (const Triangle& t : hull.triangles())
        if (std::all_of(t.begin(), t.end(), isWall)) triangles.push_back(t);
    const auto grid = Hestra::makeRef<Grid>();
    TriangularSurface::create(*grid, {hull.points().begin(), hull.points().end()}, std::move(triangles));
    return Surface(grid);
}

void draw(const Tour& tour, const Surface& surface, const std::string& title) {
    const Flow& flow = tour.flow;
    Picture picture(flow.data.bounds(), {flow.viewDirection});
    if (!surface.isEmpty()) picture.add(surface, surface.values(flow.colourField));
    if (const Surface walls = flow.isWall ? wallsOf(flow, tour.hull) : Surface(); !walls.isEmpty()) {
        picture.add(walls, kWallColour);
        picture.addKey(kWallColour, flow.wallName);
    }
    const std::vector<BlockInfo> blocks = flow.data.blocks();
    if (blocks.size() <= kBlocksDrawn) {
        for (const BlockInfo& block : blocks)
            for (const auto& edge : flow.data.edges(block.name)) picture.addLine(edge, kEdgeColour);
        picture.addKey(kEdgeColour, "edges of the blocks");
    }
    picture.addAxes();
    picture.save(tour.file("surface.png"), title, flow.colourField);
}

} // namespace

void extractSurface(const Tour& tour) {
    const Flow& flow = tour.flow;
    Report& report = tour.report;
    const auto [least, greatest] = flow.range;
    const double level = flow.level.value_or(0.5 * least + 0.5 * greatest);
    const std::string what = flow.field + " = " + number(level, 6);
    report.section("Isosurface " + what);

    Progress progress("isosurface");
    Stopwatch watch;
    const Surface surface =
        flow.data.contour(flow.field, level, {.values = {flow.colourField}, .progress = std::ref(progress)});
    report.row("triangles", count(surface.triangles().size()) + ", " + borderText(surface), watch);
    if (surface.isEmpty())
        report.line("  nowhere: " + flow.field +
                    (least < greatest ? " goes from " + number(least, 6) + " to " + number(greatest, 6)
                                      : " is " + number(least, 6) + " everywhere"));
    report.row("vertices", count(surface.points().size()));
    report.row("coloured by", flow.colourField);
    const DataSet part = flow.data.threshold(flow.field, level);
    report.row("threshold",
               count(countCells(part).valid) +
                   " cells are there or above; their hull: " + borderText(part.boundary({}, std::ref(progress))),
               watch);
    surface.write(tour.file("surface.vtp"), {.compress = false});
    report.row("surface.vtp", "the surface", watch);
    if (!tour.pictures) return;
    draw(tour, surface, what + (surface.isEmpty() ? ", nowhere" : ""));
    report.row("surface.png", "a picture of it", watch);
}

} // namespace tour
