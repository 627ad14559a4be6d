#include "Steps.hpp"
#include "io/Progress.hpp"

#include <baseop/BlockJoins.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/ValidData.hpp>

#include <algorithm>
#include <optional>

namespace tour {

using namespace Vantle;

namespace {

constexpr index_t kFragmentsListed = 12;
constexpr std::size_t kDoubtsListed = 5;

std::string text(const Space::point& p) {
    std::string numbers("(");
    return numbers + number(p[0]) + ", " + number(p[1]) + ", " + number(p[2]) + ")";
}

std::string text(const Hestra::StrongPtr<Orvix::BoundingBox>& box) {
    return box ? text(box->minCoord()) + " - " + text(box->maxCoord()) : "none";
}

std::string text(const MultiIndex<3>& size) {
    return std::to_string(size[0]) + " x " + std::to_string(size[1]) + " x " + std::to_string(size[2]);
}

std::string text(const std::optional<ValueRange>& range) {
    return range ? number(range->first) + " to " + number(range->second) : "none";
}

// One fragment of a field.
struct Only : FragmentSelector {
    explicit Only(const Hestra::StrongPtr<FragmentID>& one) : fragment(one) {}
    bool isSelected(const Hestra::StrongPtr<FragmentID>& id) const override { return id == fragment; }

    Hestra::StrongPtr<FragmentID> fragment;
};

} // namespace

void survey(const Tour& tour) {
    const DataSet& data = tour.data;
    Report& report = tour.report;
    report.section("Boxes, ranges, fragments");

    const Progress progress("boxes and ranges");
    Stopwatch watch;
    const auto box = getValidBoundingBox(*data.grid.grid());
    report.row("box", text(box), watch.lap());
    for (const std::string& name : data.scalars) {
        const auto range = ComputeValidRange(*data.grid.grid(), name);
        report.row(name, text(range), watch.lap());
    }
    CartesianFragments fragments(data.grid.grid());
    fragments.buildFragmentCoordinates();
    const index_t total = data.grid.positions()->nFragments();
    report.row("fragments", count(total), watch.lap());

    const auto joins = BlockJoins::of(*data.grid.grid());
    report.row("joins",
               count(joins->joins().size()) + " found in " + count(joins->blocks()) + " blocks, " +
                   count(joins->doubtful().size()) + " doubtful faces",
               watch.lap());
    for (std::size_t n = 0; n < std::min<std::size_t>(joins->doubtful().size(), kDoubtsListed); ++n)
        report.line("    " + joins->doubtful()[n].reason);

    report.columns({"  name", "vertices", data.field, "box"});
    for (index_t n = 0; n < std::min(total, kFragmentsListed); ++n) {
        const auto fragment = fragments.getFragmentID(n);
        const auto size = getSize(*data.grid.positions()->getCreator(fragment)).as<3>();
        report.columns({"  " + fragments.getFragmentName(n), size ? text(*size) : "?",
                        text(ComputeValidRange(*data.grid.grid(), data.field, Hestra::makeRef<Only>(fragment))),
                        text(fragments.getBBox(n))});
    }
    if (total > kFragmentsListed) report.line("    ... and " + count(total - kFragmentsListed) + " more");
}

} // namespace tour
