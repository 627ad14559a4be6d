#include "Tour.hpp"
#include "io/Progress.hpp"

#include <algorithm>
#include <cmath>
#include <span>

namespace tour {

using namespace Vantle;

namespace {

struct Statistics {
    double least = HUGE_VAL, largest = -HUGE_VAL, sum = 0.0;
    index_t number = 0;

    void add(double value) {
        least = std::min(least, value);
        largest = std::max(largest, value);
        sum += value;
        ++number;
    }
    [[nodiscard]] double mean() const { return number > 0 ? sum / double(number) : 0.0; }
};

double magnitude(std::span<const double> components) {
    double squares = 0.0;
    for (const double component : components) squares += component * component;
    return std::sqrt(squares);
}

// Of a flow that is known exactly, the gradient is how far it is from that.
struct Derivatives {
    Statistics gradient, vorticity, divergence;
    double atBorder = 0.0; // the largest gradient there, where differences are one-sided
    index_t flat = 0;
    double seconds = 0.0;
};

// Of all vertices that count, block by block; those of a known flow at the border of all blocks are apart.
Derivatives derive(const Flow& flow) {
    const DataSet& data = flow.data;
    const std::string gradient = data.gradient("velocity"), vorticity = data.vorticity("velocity"),
                      divergence = data.divergence("velocity");
    Progress progress("derivatives");
    Stopwatch watch;
    const auto joins = data.joins();
    const std::vector<BlockInfo> blocks = data.blocks();
    Derivatives all;
    for (unsigned int b = 0; b < blocks.size(); ++b) {
        progress(double(b) / double(blocks.size()));
        const std::string& name = blocks[b].name;
        const std::vector<Point> positions = data.positions(name);
        const Values gradients(data.array(gradient, name)), vorticities(data.array(vorticity, name)),
            divergences(data.array(divergence, name));
        const auto mask = maskOf(data, blocks[b]);
        for (std::size_t n = 0; n < positions.size(); ++n) {
            if (mask && !mask->isVertexValid(MultiIndex<3>::fromLinear(n, blocks[b].size))) continue;
            Gradient here;
            std::copy_n(&gradients.numbers()[9 * n], 9, here.begin());
            if (std::isnan(here[0])) {
                ++all.flat;
                continue;
            }
            if (flow.exact) {
                here = here - flow.exact->velocityGradient(positions[n]);
                const BlockVertex owner = joins->owner({b, n});
                bool atBorder = false;
                for (int axis = 0; axis < 3; ++axis)
                    atBorder = atBorder || !joins->step(owner, axis, 1) || !joins->step(owner, axis, -1);
                if (atBorder) all.atBorder = std::max(all.atBorder, magnitude(here));
                if (atBorder) continue;
            }
            all.gradient.add(magnitude(here));
            all.vorticity.add(length(vorticities.vector(n)));
            all.divergence.add(divergences[n]);
        }
    }
    all.seconds = watch.lap();
    return all;
}

void compareWithRefined(const Flow& flow, Report& report) {
    const Derivatives coarse = derive(flow), fine = derive(flow.exact->refined());
    const auto compare = [&](const std::string& what, double before, double after) {
        report.columns({what, number(before, 3), number(after, 3), number(before / after, 3)});
    };
    report.columns({"", "blocks as above", "twice as many cells", "falls by a factor"});
    report.columns({"velocity gradient"});
    compare("  largest error", coarse.gradient.largest, fine.gradient.largest);
    compare("  mean error", coarse.gradient.mean(), fine.gradient.mean());
    compare("  at the border", coarse.atBorder, fine.atBorder);
    report.columns({"vorticity (exact: 0)"});
    compare("  largest", coarse.vorticity.largest, fine.vorticity.largest);
    compare("  mean", coarse.vorticity.mean(), fine.vorticity.mean());
    report.columns({"  time", duration(coarse.seconds), duration(fine.seconds)});
    report.line("  differences are central inside and across joined faces, one-sided outside: order two and one");
}

// Volumes of the valid cells, whose faces are bilinear. Indices of mirrored blocks run the other way: their cells are
// no less than others.
Statistics volumesOf(const DataSet& data) {
    Statistics volumes;
    for (const BlockInfo& block : data.blocks()) {
        if (countCells(block.size) == 0) continue;
        const std::vector<Point> points = data.positions(block.name);
        const auto mask = maskOf(data, block);
        const index_t row = block.size[0], layer = row * block.size[1];
        const index_t corners[] = {0, 1, row, row + 1, layer, layer + 1, layer + row, layer + row + 1};
        std::vector<double> all;
        double sum = 0.0;
        MultiIndex<3> cell;
        do {
            if (mask && !mask->isCellValid(cell)) continue;
            const Point* const first = &points[cell.linear(block.size)];
            const auto d = [&](int to, int from) { return first[corners[to]] - first[corners[from]]; };
            all.push_back((dot(d(2, 1) + d(6, 3), cross(d(7, 2), d(3, 0))) +
                           dot(d(4, 2) + d(5, 6), cross(d(7, 4), d(6, 0))) +
                           dot(d(1, 4) + d(3, 5), cross(d(7, 1), d(5, 0)))) /
                          12.0);
            sum += all.back();
        } while (cell.advance(block.size - 1));
        for (const double volume : all) volumes.add(sum < 0.0 ? -volume : volume);
    }
    return volumes;
}

void describe(const Flow& flow, Report& report) {
    const Derivatives all = flow.hasVelocity ? derive(flow) : Derivatives();
    Stopwatch watch;
    report.columns({"", "least", "mean", "largest"});
    const auto row = [&](const std::string& what, const Statistics& s) {
        if (s.number > 0) report.columns({what, number(s.least, 3), number(s.mean(), 3), number(s.largest, 3)});
    };
    row("velocity gradient", all.gradient);
    row("vorticity", all.vorticity);
    row("divergence", all.divergence);
    row("volume of a cell", volumesOf(flow.data));
    if (all.flat > 0) report.row("without gradient", count(all.flat) + " vertices, where the edges do not span space");
    report.row("time", duration(all.seconds + watch.lap()));
}

} // namespace

void takeDerivatives(const Tour& tour) {
    tour.report.section(tour.flow.hasVelocity ? "Derivatives of the velocity in space" : "Cells");
    tour.flow.exact ? compareWithRefined(tour.flow, tour.report) : describe(tour.flow, tour.report);
}

} // namespace tour
