#include <baseop/ExactCellLocator.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>
#include <baseop/detail/location/CellCandidates.hpp>
#include <baseop/detail/location/CellTrail.hpp>
#include <baseop/detail/location/HomeCell.hpp>
#include <baseop/detail/location/RowKernels.hpp>
#include <baseop/detail/location/SpatialOrder.hpp>
#include <baseop/detail/location/TrilinearCell.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#define VANTLE_SCOPE(signature)                                                                                        \
    const Hestra::Profiler profiler("baseop/ExactCellLocator", __LINE__, signature, __PRETTY_FUNCTION__)

namespace Vantle {

namespace {

using detail::BlockVertices;
using detail::CellBoxTree;
using detail::CellCandidates;
using detail::CellOfBlock;
using detail::TrilinearCell;

/// The images of the cells, widened by more than the tolerance of a solution. None for cells with a corner that is no
/// number.
///
/// The image x(d) = c + sum a_i d_i + sum b_ij d_i d_j + t d_0 d_1 d_2, |d_i| <= 1/2, lies in the set of the edges
/// a_i / 2, b_ij / 4 and t / 8.
class CellImages final : public CellBoxTree::Shapes {
public:
    CellImages(const BlockVertices& vertices, const CellBoxTree& tree)
        : myVertices(vertices), myTree(&tree), myPitch(CellBoxTree::roomFor(vertices.size()[0])), mySums(12 * myPitch) {
    }

    [[nodiscard]] int edges() const noexcept override { return 7; }
    void fill(std::size_t j, std::size_t k, const CellBoxTree::Row& row) override {
        const auto n = static_cast<std::size_t>(myVertices.size()[0]);
        const detail::RowSums sums =
            detail::sumAcrossRow<true>(myVertices.rowsAround(j, k, myRows).of, n, mySums.data(), myPitch);
        detail::fillImages(sums, n - 1, 16.0 * TrilinearCell::Tolerance, *myTree, row);
    }
    [[nodiscard]] std::unique_ptr<Shapes> clone() const override { return std::make_unique<CellImages>(*this); }

private:
    const BlockVertices myVertices;
    const CellBoxTree* myTree;
    std::size_t myPitch;
    std::vector<double> mySums, myRows;
};

/// Solves in one cell; false, with `uvw` untouched, when it has no such point.
bool solve(const BlockVertices& vertices, const MultiIndex<3>& cell, const Orvix::PhysicalSpace::point& P,
           Orvix::PhysicalSpace::point& uvw) noexcept {
    return TrilinearCell(vertices, vertices.address(cell), P).solveAt(cell, uvw);
}

} // namespace

struct ExactCellLocator::Search {
    BlockVertices vertices;
    point lowest, highest; // of all positions that may be found
    CellBoxTree tree;
    const std::uint64_t identity = detail::CellTrail::newNumber();

    explicit Search(const MultiArrayBase<3, point>& view) : vertices(view) {
        if (vertices.cells().product() == 0) return;
        vertices.findExtremes(lowest, highest);
        double sides = 0.0;
        point from, to;
        for (int d = 0; d < 3; ++d) {
            sides += std::max(highest[d] - lowest[d], 0.0);
            const auto [low, high] = rangeOfMost(d);
            from[d] = std::max(low, lowest[d]);
            to[d] = std::min(high, highest[d]);
        }
        tree = CellBoxTree(vertices.cells(), from, to);
        tree.build(CellImages(vertices, tree));
        for (int d = 0; d < 3; ++d) {
            lowest[d] -= 4.0 * TrilinearCell::Tolerance * sides;
            highest[d] += 4.0 * TrilinearCell::Tolerance * sides;
        }
    }
    /// Where the vertices are along an axis, leaving out the few that are so much farther away than all others that
    /// the tree's numbers could not tell the others apart: coordinates that stand for none.
    [[nodiscard]] std::pair<double, double> rangeOfMost(int axis) const {
        constexpr index_t Most = 1024;
        const index_t count = vertices.size().product(), step = count / Most + 1;
        std::vector<double> sample;
        for (index_t n = 0; n < count; n += step) {
            const double x = vertices.address(MultiIndex<3>::fromLinear(n, vertices.size()))[axis];
            if (x * 0.0 == 0.0) sample.push_back(x);
        }
        if (sample.empty()) return {lowest[axis], highest[axis]};
        std::sort(sample.begin(), sample.end());
        const double low = sample[sample.size() / 8], high = sample[sample.size() - 1 - sample.size() / 8];
        constexpr double MuchFarther = 1e6;
        if (!(high > low) || highest[axis] - lowest[axis] < MuchFarther * (high - low))
            return {lowest[axis], highest[axis]};
        return {low - 8.0 * (high - low), high + 8.0 * (high - low)};
    }
    [[nodiscard]] bool canHave(const point& P) const noexcept {
        return P[0] >= lowest[0] && P[0] <= highest[0] && P[1] >= lowest[1] && P[1] <= highest[1] &&
               P[2] >= lowest[2] && P[2] <= highest[2];
    }
};

ExactCellLocator::ExactCellLocator(const Hestra::StrongPtr<CoordsArray_t>& coordinates) : myCoordinates(coordinates) {
    VANTLE_SCOPE("ExactCellLocator::ExactCellLocator()");
    mySearch = std::make_unique<const Search>(coordinates ? *coordinates : MultiArrayBase<3, point>());
}

ExactCellLocator::~ExactCellLocator() = default;

CellLocation ExactCellLocator::locate(const point& P, MultiIndex3* cell, const BlockMask* mask) const {
    VANTLE_SCOPE("ExactCellLocator::locate(P)");
    const Search& search = *mySearch;
    CellLocation found;
    if (!search.canHave(P)) return found;
    // The first cell in order that has the point is the one.
    (void)detail::offerCandidates(search.vertices, search.tree, P, [&](const CellCandidates& cells) {
        for (const CellOfBlock& candidate : cells) {
            if (mask && !mask->isCellValid(candidate.index())) continue;
            if (!solve(search.vertices, candidate.index(), P, found.local)) continue;
            if (cell) *cell = candidate.index();
            found.result = LocationResult::Found;
            return true;
        }
        return false;
    });
    return found;
}

CellLocation ExactCellLocator::locate(const point& P, detail::CellTrail& trail, const BlockMask* mask) const {
    const Search& search = *mySearch;
    CellLocation found;
    if (!search.canHave(P)) return found;
    CellCandidates cells(search.vertices.cells(), 0);
    const CellBoxTree::Surroundings* const near = trail.about(search.identity, search.tree, P, P);
    if (near)
        search.tree.forEachAt(*near, P, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { cells.add(i, j, k); });
    if (!near || !cells.areAll()) {
        found = locate(P, nullptr, mask);
    } else {
        for (const CellOfBlock& cell : cells) {
            if ((mask && !mask->isCellValid(cell.index())) || !solve(search.vertices, cell.index(), P, found.local))
                continue;
            found.result = LocationResult::Found;
            break;
        }
    }
    if (found) trail.note(search.identity, search.vertices, found.local);
    return found;
}

bool ExactCellLocator::moveHome(detail::HomeCell& home, const MultiIndex3& cell, detail::CellTrail* trail) const {
    const Search& search = *mySearch;
    search.tree.prefetchAbout(cell);
    if (!home.moveTo(search.vertices, cell)) return false;
    return home.findRivals(search.tree, search.vertices.cells(),
                           trail ? trail->about(search.identity, search.tree, home.lowest(), home.highest()) : nullptr);
}

CellLocation ExactCellLocator::locateAtHome(const point& P, detail::HomeCell& home, const BlockMask* mask) const {
    const Search& search = *mySearch;
    CellLocation found;
    CellCandidates cells(search.vertices.cells(), 0);
    if (!home.addCandidates(search.tree, P, cells)) return found;
    for (const CellOfBlock& cell : cells) {
        if (mask && !mask->isCellValid(cell.index())) continue;
        if (!(&cell == cells.end() - 1 ? home.solve(P, found.local)
                                       : solve(search.vertices, cell.index(), P, found.local)))
            continue;
        found.result = LocationResult::Found;
        break;
    }
    return found;
}

bool ExactCellLocator::leavesFree(const detail::HomeCell& home, double from) const {
    return mySearch->tree.isFree(mySearch->tree.regionOf(home.partFrom(from)));
}

void ExactCellLocator::locate(std::span<const point> points, std::span<CellLocation> found,
                              const BlockMask* mask) const {
    detail::locateNeighbours<CellBoxTree::Matches::MaximalPoints>(
        points, found, [&](std::span<const point> now, std::span<CellLocation> theirs, const auto&) {
            locateNeighbours(now, theirs, mask);
        });
}

void ExactCellLocator::locateNeighbours(std::span<const point> points, std::span<CellLocation> found,
                                        const BlockMask* mask) const {
    const Search& search = *mySearch;
    CellBoxTree::Matches matches;
    const bool areMatched =
        std::all_of(points.begin(), points.end(), [&](const point& p) { return search.canHave(p); }) &&
        search.tree.match(points, matches);
    if (areMatched && matches.areScattered())
        for (const CellOfBlock& cell : matches.all())
            search.vertices.prefetchCell(search.vertices.address(cell.index()));
    for (std::size_t n = 0; n < points.size(); ++n) {
        if (!areMatched) {
            found[n] = locate(points[n], nullptr, mask);
            continue;
        }
        found[n].result = LocationResult::NotFound;
        found[n].isSilent = true;
        for (const CellOfBlock& cell : matches.of(n)) {
            if (mask && !mask->isCellValid(cell.index())) continue;
            if (!solve(search.vertices, cell.index(), points[n], found[n].local)) continue;
            found[n].result = LocationResult::Found;
            break;
        }
    }
}

bool ExactCellLocator::localInCell(const point& P, const MultiIndex3& cell, point& uvw) const {
    return cell.inside(mySearch->vertices.cells()) && solve(mySearch->vertices, cell, P, uvw);
}

} // namespace Vantle
