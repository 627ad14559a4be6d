#include "Tour.hpp"
#include "io/Progress.hpp"

#include <algorithm>
#include <cmath>

namespace tour {

using namespace Vantle;

namespace {

constexpr std::size_t kBlocksListed = 12, kDoubtsListed = 5;

std::string text(const Box& box) {
    return std::isnan(box.low[0]) ? "none" : placeText(box.low) + " - " + placeText(box.high);
}
std::string text(const NumberRange& range) {
    return std::isnan(range.least) ? "none" : number(range.least) + " to " + number(range.greatest);
}

} // namespace

void survey(Tour& tour) {
    const Flow& flow = tour.flow;
    const DataSet& data = flow.data;
    Report& report = tour.report;
    report.section("Boxes, ranges, blocks");

    Progress progress("boxes, ranges, joins, hull");
    Stopwatch watch;
    report.row("box", text(data.bounds(std::ref(progress))), watch);
    for (const std::string& name : flow.scalars) report.row(name, text(data.range(name, std::ref(progress))), watch);
    const std::vector<BlockInfo> blocks = data.blocks();
    const CellCount cells = countCells(data);
    report.row("blocks", count(blocks.size()) + ", of " + count(cells.all) + " cells");
    report.row("blanked", count(cells.all - cells.valid) + " cells");
    const auto joins = data.joins();
    report.row("joins",
               count(joins->joins().size()) + " found in " + count(joins->blocks()) + " blocks, " +
                   count(joins->doubtful().size()) + " doubtful faces",
               watch);
    for (std::size_t n = 0; n < std::min(joins->doubtful().size(), kDoubtsListed); ++n)
        report.line("    " + joins->doubtful()[n].reason);
    tour.hull = data.boundary(flow.isWall ? DataSet::Fields{"speed"} : DataSet::Fields{}, std::ref(progress));
    report.row("hull", count(tour.hull.triangles().size()) + " triangles, " + borderText(tour.hull), watch);

    report.columns({"  name", "vertices", flow.field, "box"});
    for (std::size_t n = 0; n < std::min(blocks.size(), kBlocksListed); ++n) {
        const DataSet block = data.block(blocks[n].name);
        report.columns(
            {"  " + blocks[n].name, sizeText(blocks[n].size), text(block.range(flow.field)), text(block.bounds())});
    }
    if (blocks.size() > kBlocksListed) report.line("    ... and " + count(blocks.size() - kBlocksListed) + " more");
}

} // namespace tour
