#include "Tour.hpp"
#include "io/Picture.hpp"
#include "io/Progress.hpp"

#include <algorithm>
#include <cmath>

namespace tour {

using namespace Vantle;

namespace {

// Positions at equal distances in a box, at least two along each axis, the first one fastest.
struct Lattice {
    MultiIndex<3> size;
    Box box;

    [[nodiscard]] Point position(std::size_t n) const {
        const auto at = MultiIndex<3>::fromLinear(n, size);
        Point p;
        for (int d = 0; d < 3; ++d)
            p[d] = box.low[d] + double(at[d]) / double(size[d] - 1) * (box.high[d] - box.low[d]);
        return p;
    }
};

// A little wider than the blocks, and not symmetric: no line of the lattice runs along the border of a block. Where the
// blocks are too thin for a layer between the outermost two, there are two within.
Lattice makeLattice(const Box& bounds, int resolution) {
    const Vector extent = bounds.high - bounds.low;
    const double longest = std::max({extent[0], extent[1], extent[2]});
    Lattice lattice;
    for (int d = 0; d < 3; ++d) {
        const double cells = std::round((resolution - 1) * extent[d] / longest),
                     width = std::max(extent[d], 1e-9 * longest);
        const bool isThin = !(cells >= 2.0);
        lattice.size[d] = isThin ? 2 : static_cast<index_t>(cells) + 1;
        lattice.box.low[d] = bounds.low[d] + (isThin ? 0.4123 : -0.0123) * width;
        lattice.box.high[d] = bounds.low[d] + (isThin ? 0.5877 : 1.0171) * width;
    }
    return lattice;
}

double twiceArea(const Point& a, const Point& b, const Point& p) {
    return (b[0] - a[0]) * (p[1] - a[1]) - (b[1] - a[1]) * (p[0] - a[0]);
}

// On which side of an edge, seen along z, a point is: on exactly one as seen from the two triangles at the edge.
bool isLeft(const Point& a, const Point& b, const Point& p) {
    return std::pair(a[0], a[1]) < std::pair(b[0], b[1]) ? twiceArea(a, b, p) >= 0.0 : twiceArea(b, a, p) < 0.0;
}

// For every position whether it lies inside of the hull, found without looking for cells: whether a line along z enters
// the hull more often than it leaves it on its way there. Cells whose outer faces are not plane reach a little beyond
// the hull's triangles, or not quite to them.
std::vector<bool> positionsInside(const Surface& hull, const Lattice& lattice) {
    const MultiIndex<3>& size = lattice.size;
    struct Crossing {
        double z;
        int turns; // enters or leaves, going up
    };
    std::vector<std::vector<Crossing>> columns(size[0] * size[1]);
    // How many numbers along an axis lie surely before a coordinate.
    const auto before = [&](int axis, double at) {
        const double share = (at - lattice.box.low[axis]) / (lattice.box.high[axis] - lattice.box.low[axis]);
        return static_cast<index_t>(std::clamp(share * double(size[axis] - 1), 0.0, double(size[axis])));
    };
    for (const Triangle& t : hull.triangles()) {
        const Point &a = hull.points()[t[0]], &b = hull.points()[t[1]], &c = hull.points()[t[2]];
        const double area = twiceArea(a, b, c);
        if (area == 0.0) continue;
        const auto [left, right] = std::minmax({a[0], b[0], c[0]});
        const auto [low, high] = std::minmax({a[1], b[1], c[1]});
        for (index_t j = before(1, low); j < std::min(before(1, high) + 2, size[1]); ++j)
            for (index_t i = before(0, left); i < std::min(before(0, right) + 2, size[0]); ++i) {
                const Point p = lattice.position(i + size[0] * j);
                const bool side = isLeft(a, b, p);
                if (isLeft(b, c, p) != side || isLeft(c, a, p) != side) continue;
                const double ofA = twiceArea(b, c, p) / area, ofB = twiceArea(c, a, p) / area;
                columns[i + size[0] * j].push_back({ofA * a[2] + ofB * b[2] + (1.0 - ofA - ofB) * c[2], side ? -1 : 1});
            }
    }
    std::vector<bool> inside(size.product(), false);
    for (std::size_t column = 0; column < columns.size(); ++column)
        for (index_t k = 0; k < size[2]; ++k) {
            const std::size_t n = column + columns.size() * k;
            int turns = 0;
            for (const Crossing& crossing : columns[column])
                if (crossing.z <= lattice.position(n)[2]) turns += crossing.turns;
            inside[n] = turns > 0;
        }
    return inside;
}

// Normal to z, or across the axis along which the blocks are thin.
void drawSlice(const Tour& tour, const Lattice& lattice) {
    const DataSet& data = tour.flow.data;
    const int normal = lattice.size[2] == 2 ? 2 : lattice.size[0] == 2 ? 0 : lattice.size[1] == 2 ? 1 : 2;
    Progress progress("picture of a slice");
    Box box = data.bounds();
    Plane plane{box.low + 0.5 * (box.high - box.low), {}};
    plane.normal[normal] = normal == 1 ? -1.0 : 1.0; // towards the eye
    const double at = box.low[normal] = box.high[normal] = plane.origin[normal];
    const Surface slice = data.slice(plane, {tour.flow.field}, std::ref(progress));

    Picture picture(box, {-plane.normal, normal == 2 ? Vector(0, 1, 0) : Vector(0, 0, 1), false});
    if (!slice.isEmpty()) picture.add(slice, slice.values(tour.flow.field));
    picture.addAxes();
    const std::vector<BlockInfo> blocks = data.blocks();
    for (std::size_t b = 0; blocks.size() <= kBlocksDrawn && b < blocks.size(); ++b) {
        const Surface hull = data.block(blocks[b].name).boundary();
        for (const Triangle& t : hull.triangles()) { // where the plane cuts it
            std::vector<Point> cut;
            for (int n = 0; n < 3; ++n) {
                const Point &p = hull.points()[t[n]], &q = hull.points()[t[(n + 1) % 3]];
                if ((p[normal] < at) != (q[normal] < at))
                    cut.push_back(p + (at - p[normal]) / (q[normal] - p[normal]) * (q - p));
            }
            picture.addLine(cut, kEdgeColour);
        }
    }
    picture.addKey(kEdgeColour, "borders of the blocks");
    picture.save(tour.file("slice.png"), tour.flow.field + " at " + "xyz"[normal] + " = " + number(at, 3),
                 tour.flow.field);
}

} // namespace

void evaluateUniformly(const Tour& tour) {
    const Flow& flow = tour.flow;
    Report& report = tour.report;
    const Lattice lattice = makeLattice(flow.data.bounds(), tour.options.resolution);
    report.section("Evaluation of " + flow.field + " on a uniform grid");
    report.row("positions", sizeText(lattice.size) + " = " + count(lattice.size.product()));
    Stopwatch watch;
    const std::vector<bool> inside = positionsInside(tour.hull, lattice);
    const long several = std::count(inside.begin(), inside.end(), true);
    report.row("inside the blocks", count(std::size_t(several)) + ", by lines that cross their hull", watch);

    // Positions as a field say how far a place is from where it should be.
    flow.data.grid()->getCartesianRepresentation()->setField("position", flow.data.grid()->CartesianPositions());
    Progress progress("evaluation");
    DataSet image = flow.data.resample(lattice.size, lattice.box, {flow.field, "position"}, std::ref(progress));
    const double seconds = watch.lap();
    const Values values(image.array(flow.field, "image")), places(image.array("position", "image"));
    std::vector<unsigned char> outcome;
    index_t found = 0, lost = 0, surplus = 0;
    double farthest = 0.0, largest = 0.0, sum = 0.0;
    for (std::size_t n = 0; n < inside.size(); ++n) {
        const bool isFound = !std::isnan(places.vector(n)[0]);
        outcome.push_back(isFound);
        found += isFound;
        lost += inside[n] && !isFound;
        surplus += !inside[n] && isFound;
        if (!isFound) continue;
        const Point p = lattice.position(n);
        farthest = std::max(farthest, length(Point() + places.vector(n) - p));
        if (!flow.exact) continue;
        const double error = std::abs(values[n] - flow.exact->scalar(flow.field, p));
        largest = std::max(largest, error);
        sum += error;
    }
    report.row("found in cells", count(found));
    report.row("  inside, not found", count(lost));
    report.row("  outside, but found", count(surplus));
    report.row("  farthest off", number(farthest, 3) + ", a position from the place found for it");
    if (flow.exact) {
        report.row("  largest error", number(largest, 3));
        report.row("  mean error", number(sum / double(std::max<index_t>(1, found)), 3));
    }
    report.row("  values", "with search structures, which are kept", seconds);

    watch.lap();
    image.setField("outcome", "image", std::move(outcome));
    image.write(tour.file("uniform.vti"), {flow.field, "outcome"}, {.compress = false});
    report.row("uniform.vti", flow.field + "; outcome: 1 found, 0 not", watch);
    if (!tour.pictures) return;
    drawSlice(tour, lattice);
    report.row("slice.png", "a picture of the slice through the middle", watch);
}

} // namespace tour
