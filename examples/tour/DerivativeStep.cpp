#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/PartialDerivative.hpp>
#include <baseop/WorldDerivative.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

namespace tour {

using namespace Vantle;

namespace {

using Tensors = MemArray<3, Gradient>;
using Block = MemArray<3, Space::point>;

double magnitude(const Gradient& g) {
    double squares = 0.0;
    for (const double component : g) squares += component * component;
    return std::sqrt(squares);
}

Space::vector vorticity(const Gradient& g) { return {g(1, 2) - g(2, 1), g(2, 0) - g(0, 2), g(0, 1) - g(1, 0)}; }

Space::vector rowOf(const Gradient& g, int r) { return {g(r, 0), g(r, 1), g(r, 2)}; }

// One vertex of one block.
struct Node {
    Space::point position;
    Gradient gradient; // of the velocity
    double volume;     // of the box that the derivatives of the positions along the indices span
    bool atBorder;     // of the grid, where differences are one-sided
    bool isFlat;       // the edges of the grid do not span space: there is no gradient
};

// What the library derives, or the reason why it does not.
template<class Derive>
Hestra::StrongPtr<Field> derived(const std::string& field, const Derive& derive) {
    std::string errors;
    const Hestra::StrongPtr<Field> derivative = derive("derivative of " + field, errors);
    if (!derivative) throw std::runtime_error("no derivative of " + field + ": " + errors);
    return derivative;
}

// Whether a vertex lies on a face that is joined to nothing, as its owner sees it.
bool isAtBorder(const BlockJoins& joins, const BlockVertex& vertex) {
    const BlockVertex owner = joins.owner(vertex);
    for (int axis = 0; axis < 3; ++axis)
        if (!joins.step(owner, axis, 1) || !joins.step(owner, axis, -1)) return true;
    return false;
}

// Calls take(node) for every vertex that counts.
void forNodes(const DataSet& data, const std::function<void(const Node&)>& take) {
    const auto positions = data.grid.positions();
    const Blanking masks(*data.grid.grid());
    WorldDerivativeOptions options;
    options.joinBlocks = true;
    const auto joins = BlockJoins::of(*data.grid.grid(), options.joins);
    const auto alongIndices = derived(PositionsName, [&](const std::string& name, std::string& errors) {
        Representation& representation = *data.grid.representation();
        return PartialDerivative(*positions, name, representation, representation, errors);
    });
    const auto inSpace = data.hasVelocity
                             ? derived(kVelocity,
                                       [&](const std::string& name, std::string& errors) {
                                           return WorldDerivative(*data.grid.grid(), kVelocity, name, errors, options);
                                       })
                             : nullptr;
    positions->iterate([&](const Hestra::StrongPtr<FragmentID>& fragment, const auto&) {
        const auto points = Hestra::dynamicCast<Block>(positions->getData(fragment));
        const auto edges = Hestra::dynamicCast<Tensors>(alongIndices->getData(fragment));
        const auto gradients = inSpace ? Hestra::dynamicCast<Tensors>(inSpace->getData(fragment)) : nullptr;
        if (!points || !edges) return true;
        const MultiIndex<3> size = points->Size();
        const unsigned int block = joins->find(fragment);
        const auto mask = masks.of(fragment, size);
        MultiIndex<3> at;
        do {
            if (mask && !mask->isVertexValid(at)) continue;
            Node node{(*points)[at], gradients ? (*gradients)[at] : Gradient(), 0.0, false, false};
            const Gradient& tensor = (*edges)[at];
            node.volume = dot(rowOf(tensor, 0), cross(rowOf(tensor, 1), rowOf(tensor, 2)));
            node.isFlat = std::isnan(node.gradient[0]);
            node.atBorder = isAtBorder(*joins, {block, at.linear(size)});
            take(node);
        } while (at.advance(size));
        return true;
    });
}

struct Statistics {
    double least = std::numeric_limits<double>::infinity();
    double largest = -std::numeric_limits<double>::infinity();
    double sum = 0.0;
    index_t number = 0;

    void add(double value) {
        least = std::min(least, value);
        largest = std::max(largest, value);
        sum += value;
        ++number;
    }
    [[nodiscard]] double mean() const { return number > 0 ? sum / double(number) : 0.0; }
};

// Distances from the exact gradient and from no vorticity.
struct Deviation {
    Statistics gradient, vorticity, gradientAtBorder;
    double seconds = 0.0;
};

Deviation deviationOf(const DataSet& data) {
    Deviation deviation;
    const Stopwatch watch;
    forNodes(data, [&](const Node& node) {
        const double error = magnitude(node.gradient - data.exact->velocityGradient(node.position));
        if (node.atBorder) return deviation.gradientAtBorder.add(error);
        deviation.gradient.add(error);
        deviation.vorticity.add(length(vorticity(node.gradient)));
    });
    deviation.seconds = watch.seconds();
    return deviation;
}

void compareWithRefined(const Tour& tour) {
    const Progress progress("derivatives");
    const Deviation coarse = deviationOf(tour.data);
    const Deviation fine = deviationOf(tour.data.refined());
    Report& report = tour.report;
    const auto compare = [&](const std::string& what, const auto& value) {
        const double before = value(coarse), after = value(fine);
        report.columns({what, number(before, 3), number(after, 3), number(before / after, 3)});
    };
    report.columns({"", "blocks as above", "twice as many cells", "falls by a factor"});
    report.columns({"velocity gradient"});
    compare("  largest error", [](const Deviation& d) { return d.gradient.largest; });
    compare("  mean error", [](const Deviation& d) { return d.gradient.mean(); });
    compare("  at the border", [](const Deviation& d) { return d.gradientAtBorder.largest; });
    report.columns({"vorticity (exact: 0)"});
    compare("  largest", [](const Deviation& d) { return d.vorticity.largest; });
    compare("  mean", [](const Deviation& d) { return d.vorticity.mean(); });
    report.columns({"  time", duration(coarse.seconds), duration(fine.seconds)});
    report.line("  differences are central inside and across joined faces, one-sided outside: order two and one");
}

void describeDerivatives(const Tour& tour) {
    Statistics gradient, vortices, divergence, volume;
    index_t flat = 0;
    const Stopwatch watch;
    {
        const Progress progress("derivatives");
        forNodes(tour.data, [&](const Node& node) {
            volume.add(node.volume);
            if (node.isFlat) {
                ++flat;
                return;
            }
            gradient.add(magnitude(node.gradient));
            vortices.add(length(vorticity(node.gradient)));
            divergence.add(node.gradient(0, 0) + node.gradient(1, 1) + node.gradient(2, 2));
        });
    }
    Report& report = tour.report;
    report.columns({"", "least", "mean", "largest"});
    const auto row = [&](const std::string& what, const Statistics& s) {
        if (s.number > 0) report.columns({what, number(s.least, 3), number(s.mean(), 3), number(s.largest, 3)});
    };
    if (tour.data.hasVelocity) {
        row("velocity gradient", gradient);
        row("vorticity", vortices);
        row("divergence", divergence);
    }
    row("volume of a cell", volume);
    if (flat > 0) report.row("without gradient", count(flat) + " vertices, where the edges do not span space");
    report.row("time", duration(watch.seconds()));
}

} // namespace

void takeDerivatives(const Tour& tour) {
    tour.report.section(tour.data.hasVelocity ? "Derivatives of the velocity in space"
                                              : "Derivatives of the positions");
    if (tour.data.exact)
        compareWithRefined(tour);
    else
        describeDerivatives(tour);
}

} // namespace tour
