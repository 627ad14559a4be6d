#include "Inside.hpp"
#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/EvalGrid.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/ValidData.hpp>
#include <dataset/io/Vtk.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace tour {

using namespace Vantle;

namespace {

using Positions = DirectProductMemArray<Space::point, LinearCoordinateAxisArray, 3>;
using Block = MemArray<3, Space::point>;

// What became of a position.
enum Outcome : unsigned char { NotFound = 0, Exactly = 1, Approximately = 2 };

// One way to look for positions, and what came of it.
struct Way {
    const char* name;
    CellLocator locator;
    // A slice of its own keeps what is built for the search: each way starts with nothing.
    Hestra::StrongPtr<Vantle::Slice> slice = Hestra::makeRef<Vantle::Slice>().strong();
    double firstTime = 0.0, again = 0.0, evaluating = 0.0; // seconds
    std::vector<Outcome> outcomes = {};
    double largestMiss = 0.0;        // distance between a position and the place found for it
    std::vector<double> values = {}; // NaN where there is none
};

// A little wider than the blocks, and not symmetric: no line of the lattice runs along the border of a block. Where the
// blocks are too thin for a layer between the outermost two, there is one in their middle.
Lattice makeLattice(const DataSet& data, int resolution) {
    constexpr double kMarginBelow = 0.0123, kMarginAbove = 0.0171, kMiddle = 0.4877;
    const auto box = getValidBoundingBox(*data.grid.grid());
    const Space::vector extent = box->maxCoord() - box->minCoord();
    const double longest = std::max({extent[0], extent[1], extent[2]});
    Lattice lattice;
    for (int axis = 0; axis < 3; ++axis) {
        const double cells = longest > 0.0 ? std::round((resolution - 1) * extent[axis] / longest) : 0.0;
        lattice.size[axis] = cells >= 2.0 ? static_cast<index_t>(cells) + 1 : 1;
        lattice.origin[axis] = box->minCoord()[axis] + (cells >= 2.0 ? -kMarginBelow : kMiddle) * extent[axis];
        const double width = (1.0 + kMarginBelow + kMarginAbove) * extent[axis];
        lattice.spacing[axis] = lattice.size[axis] > 1 ? width / double(lattice.size[axis] - 1) : 0.0;
    }
    return lattice;
}

UniformGrid3D makeUniformGrid(Vantle::Slice& slice, const Lattice& lattice) {
    Space::point last = lattice.origin;
    for (int axis = 0; axis < 3; ++axis) last[axis] += double(lattice.size[axis] - 1) * lattice.spacing[axis];
    return UniformGrid3D::create(*slice.newGrid("uniform"), Orvix::BoundingBox(lattice.origin, last), lattice.size);
}

// The cell that holds a fractional index along one axis of n vertices.
index_t cellOf(double index, index_t n) {
    return std::min(static_cast<index_t>(std::max(index, 0.0)), std::max<index_t>(n, 2) - 2);
}

// Calls take(vertex, weight) for the corners of the cell around a place given in fractional indices.
template<class Take>
void forCorners(const Space::point& local, const MultiIndex<3>& size, const Take& take) {
    MultiIndex<3> cell;
    for (int axis = 0; axis < 3; ++axis) cell[axis] = cellOf(local[axis], size[axis]);
    for (unsigned corner = 0; corner < 8; ++corner) {
        MultiIndex<3> vertex = cell;
        double weight = 1.0;
        bool exists = true;
        for (int axis = 0; axis < 3; ++axis) {
            const bool upper = (corner >> axis & 1u) != 0;
            const double f = local[axis] - double(cell[axis]);
            vertex[axis] += upper;
            weight *= upper ? f : 1.0 - f;
            exists = exists && vertex[axis] < size[axis];
        }
        if (exists) take(vertex, weight);
    }
}

// The fragments as the locator numbers them.
struct Blocks {
    explicit Blocks(const DataSet& data) {
        const auto positions = data.grid.positions();
        positions->iterate([&](const Hestra::StrongPtr<FragmentID>& fragment, const auto&) {
            coordinates.push_back(Hestra::dynamicCast<Block>(positions->getData(fragment)));
            return true;
        });
    }
    [[nodiscard]] Space::point place(const LocalFromWorldPoint::Location& at) const {
        const Block& block = *coordinates[at.fragment];
        Space::vector sum;
        forCorners(at.localCoordinates, block.Size(),
                   [&](const MultiIndex<3>& vertex, double weight) { sum += weight * Space::vector(block[vertex]); });
        return Space::point(sum);
    }

    std::vector<Hestra::StrongPtr<Block>> coordinates;
};

// Looks for all positions twice: the first search builds what the second then uses.
void locate(Way& way, const DataSet& data, const Positions& positions) {
    LocalFromWorldPoint::Options options;
    options.cellLocator = way.locator;
    const LocalFromWorldPoint locator(way.slice, data.grid.grid(), PositionsName, options);
    const auto total = static_cast<long long>(positions.nElements());
    const auto positionOf = [&](long long n) {
        Space::point p;
        positions.retrieve(p, MultiIndex<3>::fromLinear(static_cast<index_t>(n), positions.getSize()));
        return p;
    };
    std::vector<LocalFromWorldPoint::Location> found(positions.nElements());
    Stopwatch watch;
    for (double* const seconds : {&way.firstTime, &way.again}) {
#pragma omp parallel for schedule(dynamic, 256)
        for (long long n = 0; n < total; ++n) found[static_cast<std::size_t>(n)] = locator.locate(positionOf(n));
        *seconds = watch.lap();
    }

    const Blocks blocks(data);
    way.outcomes.resize(found.size());
    for (std::size_t n = 0; n < found.size(); ++n) {
        if (!found[n]) continue;
        way.outcomes[n] = found[n].code == LocationResult::Found ? Exactly : Approximately;
        way.largestMiss =
            std::max(way.largestMiss, distance(blocks.place(found[n]), positionOf(static_cast<long long>(n))));
    }
}

void evaluate(Way& way, const DataSet& data, const UniformGrid3D& grid) {
    Stopwatch watch;
    EvaluationOptions options;
    options.label = way.name;
    options.cellLocator = way.locator;
    const auto field = EvalGrid(*grid.grid(), *data.grid.grid(), data.field, *way.slice, options);
    way.evaluating = watch.lap();
    way.values.assign(way.outcomes.size(), std::numeric_limits<double>::quiet_NaN());
    const auto values = field ? Hestra::dynamicCast<MemArray<3, double>>(field->getFirstData()) : nullptr;
    if (!values) return;
    for (std::size_t n = 0; n < way.values.size(); ++n)
        if (way.outcomes[n] != NotFound) way.values[n] = values->element(n);
}

struct Errors {
    double largest = 0.0, mean = 0.0;
};

Errors errorsOf(const Way& way, const DataSet& data, const Lattice& lattice) {
    Errors errors;
    index_t compared = 0;
    for (std::size_t n = 0; n < way.values.size(); ++n) {
        if (std::isnan(way.values[n])) continue;
        const double error = std::abs(way.values[n] - data.exact->scalar(data.field, lattice.position(n)));
        errors.largest = std::max(errors.largest, error);
        errors.mean += error;
        ++compared;
    }
    if (compared > 0) errors.mean /= double(compared);
    return errors;
}

// Normal to z; where the blocks are too thin along x or y to show anything across that, normal to it.
void drawMiddleSlice(const Tour& tour, const Lattice& lattice, const std::vector<double>& values) {
    constexpr const char* kAxes[] = {"x", "y", "z"};
    const int normal = lattice.size[2] == 1 ? 2 : lattice.size[0] == 1 ? 0 : lattice.size[1] == 1 ? 1 : 2;
    const int across = normal == 0 ? 1 : 0, up = normal == 2 ? 1 : 2;
    std::vector<double> layer;
    MultiIndex<3> at;
    at[normal] = lattice.size[normal] / 2;
    for (at[up] = 0; at[up] < lattice.size[up]; ++at[up])
        for (at[across] = 0; at[across] < lattice.size[across]; ++at[across])
            layer.push_back(values[at.linear(lattice.size)]);
    // A single row or column is as wide as can be seen beside the other way.
    const auto width = [&](int axis, int other) {
        const double own = lattice.spacing[axis], its = lattice.spacing[other];
        return own > 0.0 ? own : its > 0.0 ? 0.125 * its * double(lattice.size[other]) : 1.0;
    };
    const auto label = [&](int axis) {
        return std::string(kAxes[axis]) + (lattice.size[axis] > 1 ? "" : " (not to scale)");
    };
    Slice slice;
    slice.columns = lattice.size[across];
    slice.rows = lattice.size[up];
    slice.origin = {lattice.origin[across], lattice.origin[up]};
    slice.spacing = {width(across, up), width(up, across)};
    slice.values = layer;
    SliceStyle style;
    style.text.title = tour.data.field + " at " + kAxes[normal] + " = " +
                       number(lattice.origin[normal] + double(at[normal]) * lattice.spacing[normal], 3);
    style.text.valueLabel = tour.data.field;
    style.xLabel = label(across);
    style.yLabel = label(up);
    if (normal == 2) style.outlines = tour.data.sliceOutlines;
    drawSlice(tour.file("slice.png"), slice, style);
}

} // namespace

void evaluateUniformly(const Tour& tour) {
    const DataSet& data = tour.data;
    Report& report = tour.report;
    const Lattice lattice = makeLattice(data, tour.options.resolution);
    report.section("Evaluation of " + data.field + " on a uniform grid");

    Stopwatch watch;
    std::vector<bool> inside;
    {
        const Progress progress("which positions are inside");
        if (data.exact)
            for (index_t n = 0; n < lattice.positions(); ++n)
                inside.push_back(data.exact->isInside(lattice.position(n)));
        else
            inside = positionsInside(*data.grid.grid(), lattice);
    }
    const auto insideCount = static_cast<index_t>(std::count(inside.begin(), inside.end(), true));
    report.row("positions", count(lattice.size[0]) + " x " + count(lattice.size[1]) + " x " + count(lattice.size[2]) +
                                " = " + count(lattice.positions()));
    report.row("inside the blocks",
               count(insideCount) + (data.exact ? ", known exactly" : ", by lines that cross the blocks' borders"),
               watch.lap());

    std::array<Way, 2> ways{{{"linear steps", CellLocator::Newton}, {"exact", CellLocator::Exact}}};
    for (Way& way : ways) {
        const Progress progress(std::string("evaluation, ") + way.name);
        const UniformGrid3D grid = makeUniformGrid(*way.slice, lattice);
        locate(way, data, dynamic_cast<const Positions&>(*grid.positions()->getFirstData()));
        evaluate(way, data, grid);
    }

    const auto compare = [&](const std::string& what, const auto& value) {
        report.columns({what, value(ways[0]), value(ways[1])});
    };
    const auto counted = [&](const auto& condition) {
        return [&, condition](const Way& way) {
            index_t total = 0;
            for (std::size_t n = 0; n < inside.size(); ++n) total += condition(way.outcomes[n], inside[n]);
            return count(total);
        };
    };
    compare("found by", [](const Way& way) { return std::string(way.name); });
    compare("  exactly", counted([](Outcome outcome, bool) { return outcome == Exactly; }));
    compare("  approximately", counted([](Outcome outcome, bool) { return outcome == Approximately; }));
    compare("  inside, not found", counted([](Outcome outcome, bool in) { return in && outcome == NotFound; }));
    compare("  outside, but found", counted([](Outcome outcome, bool in) { return !in && outcome != NotFound; }));
    compare("  farthest off", [](const Way& way) { return number(way.largestMiss, 3); });
    if (data.exact) {
        const std::array<Errors, 2> errors = {errorsOf(ways[0], data, lattice), errorsOf(ways[1], data, lattice)};
        report.columns({"  largest error", number(errors[0].largest, 3), number(errors[1].largest, 3)});
        report.columns({"  mean error", number(errors[0].mean, 3), number(errors[1].mean, 3)});
    }
    compare("  finding, first", [](const Way& way) { return duration(way.firstTime); });
    compare("  finding, again", [](const Way& way) { return duration(way.again); });
    compare("  finding, values", [](const Way& way) { return duration(way.evaluating); });

    const Way& best = ways[1];
    if (std::count(best.outcomes.begin(), best.outcomes.end(), NotFound) == std::ssize(best.outcomes))
        report.line("  no position was found in a block: there are no values");
    watch.lap();
    const std::vector<double> outcomes(best.outcomes.begin(), best.outcomes.end());
    const Point3 origin = {lattice.origin[0], lattice.origin[1], lattice.origin[2]};
    const Point3 spacing = {lattice.spacing[0], lattice.spacing[1], lattice.spacing[2]};
    const Extents extents = {static_cast<int>(lattice.size[0]), static_cast<int>(lattice.size[1]),
                             static_cast<int>(lattice.size[2])};
    const std::array<VtkArray, 2> arrays = {VtkArray{data.field, std::span<const double>(best.values)},
                                            VtkArray{"outcome", std::span<const double>(outcomes)}};
    writeVti(tour.file("uniform.vti"), {extents, origin, spacing}, arrays, {.compress = false});
    report.row("uniform.vti", data.field + "; outcome: 0 not found, 1 exactly, 2 approximately", watch.lap());
    if (!tour.pictures) return;
    const Progress progress("picture of a slice");
    drawMiddleSlice(tour, lattice, best.values);
    report.row("slice.png", "a picture of its middle layer", watch.lap());
}

} // namespace tour
