#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/location/CellCandidates.hpp>
#include <baseop/detail/location/CellTrail.hpp>
#include <baseop/detail/location/FirstSteps.hpp>
#include <baseop/detail/location/HomeCell.hpp>
#include <baseop/detail/location/LinearReach.hpp>
#include <baseop/detail/location/LinearSolve.hpp>
#include <baseop/detail/location/Narrator.hpp>
#include <baseop/detail/location/SpatialOrder.hpp>
#include <baseop/detail/location/Unigrid.hpp>
#include <baseop/detail/location/ValidPlace.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>

using Hestra::Console;
using Hestra::Profiler;
using Orvix::PhysicalSpace;
using Vantle::CellLocation;
using Vantle::index_t;
using Vantle::LocationResult;
using Vantle::MultiArrayBase;
using Vantle::MultiIndex;
using Vantle::detail::BlockVertices;
using Vantle::detail::CellBoxTree;
using Vantle::detail::CellCandidates;
using Vantle::detail::CellOfBlock;
using Vantle::detail::HomeCell;
using Vantle::detail::LinearReach;
using Vantle::detail::UnicellLists;

namespace linear = Vantle::detail::linear;
namespace tell = Vantle::detail::tell;

#define VANTLE_SCOPE(signature)                                                                                        \
    const Profiler profiler("baseop/UniGridMapper", __LINE__, signature, __PRETTY_FUNCTION__)

static_assert(UniGridMapper::MaximalIterations == linear::MaximalIterations);

namespace {

using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;

/// The vertices of an array that may be missing.
MultiArrayBase<3, point> viewOf(const Hestra::StrongPtr<UniGridMapper::CoordsArray_t>& coordinates) noexcept {
    return coordinates ? *coordinates : MultiArrayBase<3, point>();
}

} // namespace

/// What queries search in.
struct UniGridMapper::Search {
    BlockVertices vertices;
    Vantle::detail::Unigrid unigrid;
    /// Which cells can have an effect on a query, and which can be near misses, by groups. Without them lists are
    /// walked.
    bool hasReach = false;
    CellBoxTree effects, nearMisses;

    explicit Search(const MultiArrayBase<3, point>& view) : vertices(view) {}

    [[nodiscard]] bool answersByTrees(double epsilon) const noexcept { return hasReach && epsilon <= LinearReach::Rim; }

    /// Calls `f(number)` for the cells in the list of a unicell, in order, as long as it returns true.
    template<class F>
    void forEachListed(const int (&unicell)[3], F&& f) const {
        std::call_once(myListsOnce,
                       [this] { myLists = UnicellLists::make(vertices, unigrid, UniGridMapper::MaximalListEntries); });
        if (!myLists) {
            Vantle::detail::forEachListed(vertices, unigrid, unicell, f);
            return;
        }
        for (const std::uint32_t number : myLists->at(unigrid.linear(unicell)))
            if (!f(index_t{number})) return;
    }
    /// The unicell of a point; false outside of the box, and where a box that is not finite maps it nowhere.
    [[nodiscard]] bool map(const point& p, int (&unicell)[3]) const noexcept {
        return unigrid.inside(p) && unigrid.map(p, unicell);
    }
    [[nodiscard]] MultiIndex3 cellOf(index_t number) const noexcept {
        return MultiIndex3::fromLinear(number, vertices.cells());
    }

    const std::uint64_t identity = Vantle::detail::CellTrail::newNumber();
    mutable std::once_flag longestOnce;
    mutable int longest = 0;

private:
    mutable std::once_flag myListsOnce;
    mutable std::unique_ptr<const UnicellLists> myLists;
};

/// One query.
///
/// Its answer is that of a walk through the list of the unicell, in which every cell is solved in and every iterate
/// judged. Most cells of a list leave at their first step with an iterate of no interest, which the trees tell
/// beforehand; the others are tried in their order, and the first near miss at a first step is looked for by groups.
/// Only where a solve gives up, so that the iterate of the cell before is judged in its place, the walk itself is gone.
class UniGridMapper::Query {
public:
    Query(const UniGridMapper& mapper, const point& P, double epsilon, const point& start,
          const Vantle::BlockMask* mask) noexcept
        : myMapper(mapper), mySearch(*mapper.mySearch), myP(P), myEpsilon(epsilon), myStart(start), myMask(mask),
          myLast(mySearch.vertices.size() - 1) {}

    /// The whole query.
    [[nodiscard]] CellLocation find() {
        int unicell[3];
        if (mySearch.unigrid.isFinite ? !mySearch.unigrid.inside(myP) : !mySearch.map(myP, unicell))
            return {{}, LocationResult::NotFound, false};
        if (!canUseTrees()) return walk();
        const auto stepIn = [&](const CellOfBlock& cell, point& at) {
            return firstStep(at, cell.index(), linear::Everywhere);
        };
        if (Vantle::detail::offerCandidates(mySearch.vertices, mySearch.effects, myP,
                                            [&](const CellCandidates& cells) { return tryCells(cells, stepIn); }))
            return myAnswer;
        return nearMiss([&](auto&& f) { mySearch.nearMisses.forEachGroupAt(myP, f); });
    }
    /// Of a point in the box: `cells` are all that may have an effect, in order. `stepIn(cell, at)` makes the first
    /// step in a cell; `forEachNearGroup(f)` calls `f(i, j, k)` for the lowest cells of groups that may have near
    /// misses.
    template<class Cells, class StepIn, class ForEachNearGroup>
    [[nodiscard]] CellLocation find(const Cells& cells, const StepIn& stepIn,
                                    const ForEachNearGroup& forEachNearGroup) {
        return tryCells(cells, stepIn) ? myAnswer : nearMiss(forEachNearGroup);
    }
    /// Of a point in the box: `cells` are the first that may have an effect, in order. Not found when they do not tell.
    template<class Cells, class StepIn>
    [[nodiscard]] CellLocation findAmongFirst(const Cells& cells, const StepIn& stepIn) {
        return tryCells(cells, stepIn) ? myAnswer : CellLocation();
    }
    [[nodiscard]] bool canUseTrees() const noexcept { return mySearch.answersByTrees(myEpsilon); }

    /// The walk, of a point that has a unicell; `told` hears of its solves.
    template<class Tell>
    [[nodiscard]] CellLocation walk(Tell& told) const {
        int unicell[3] = {};
        (void)mySearch.unigrid.map(myP, unicell);
        CellLocation answer;
        point at = myStart;
        bool isInBlanked = false;
        mySearch.forEachListed(unicell, [&](index_t number) {
            const MultiIndex3 cell = mySearch.cellOf(number);
            if (!isValid(cell)) {
                point place;
                tell::Silently unheard;
                isInBlanked |= solve(place, cell, unheard) == linear::Outcome::Found && isDeepIn(cell, place);
                return true;
            }
            if (solve(at, cell, told) == linear::Outcome::Found) {
                answer = {at, LocationResult::Found};
                return false;
            }
            if (point place = at; !answer && isNearMiss(place, cell)) answer = {place, LocationResult::Approximate};
            return true;
        });
        if (isInBlanked && answer.result == LocationResult::Approximate) answer.result = LocationResult::NotFound;
        return answer;
    }

private:
    [[nodiscard]] CellLocation walk() const {
        tell::Silently said;
        CellLocation answer = walk(said);
        answer.isSilent = !said.hasSpoken;
        return answer;
    }
    template<class Tell>
    [[nodiscard]] linear::Outcome solve(point& at, const MultiIndex3& cell, Tell& told) const {
        return linear::solveInCell(at, myP, cell, *myMapper.myCoordinates, myMapper.myPrecision, told);
    }
    [[nodiscard]] linear::FirstStep firstStep(point& at, const MultiIndex3& cell,
                                              const linear::StepRange& range) const noexcept {
        return linear::firstStep(at, myP, cell, mySearch.vertices, myMapper.myPrecision, range);
    }

    [[nodiscard]] bool isValid(const MultiIndex3& cell) const noexcept { return !myMask || myMask->isCellValid(cell); }
    /// Whether the iterate of a cell that has not the point is accepted.
    [[nodiscard]] bool isNearMiss(point& at, const MultiIndex3& cell) const noexcept {
        return linear::isNearMiss(at, cell, myLast, myEpsilon) &&
               (!myMask || Vantle::detail::keepValid(at, cell, *myMask, myEpsilon));
    }

    /// Whether a place in a cell is farther from its faces than what near misses of its neighbours are accepted at.
    [[nodiscard]] bool isDeepIn(const MultiIndex3& cell, const point& place) const noexcept {
        for (int d = 0; d < 3; ++d) {
            const double low = static_cast<double>(cell[d]);
            if (!(place[d] > low + myEpsilon && place[d] < low + 1.0 - myEpsilon)) return false;
        }
        return true;
    }
    /// Notes whether a blanked cell, after the first step in it, has the point: then no other one misses it narrowly.
    void noteBlanked(const MultiIndex3& cell, linear::FirstStep step, point& at) {
        if (step == linear::FirstStep::Unfinished) {
            tell::Silently unheard;
            if (solve(at, cell, unheard) == linear::Outcome::Found) step = linear::FirstStep::Found;
        }
        if (step == linear::FirstStep::Found && isDeepIn(cell, at) && isListed(cell)) myIsInBlanked = true;
    }

    /// True when that is the answer, which need not be a hit.
    template<class Cells, class StepIn>
    [[nodiscard]] bool tryCells(const Cells& cells, const StepIn& stepIn) {
        for (const auto& cell : cells) {
            point at;
            const linear::FirstStep step = stepIn(cell, at);
            if (!isValid(cell.index())) {
                noteBlanked(cell.index(), step, at);
                continue;
            }
            if (step != linear::FirstStep::Found && step != linear::FirstStep::Unfinished) continue;
            if (!isListed(cell.index())) continue;
            if (step == linear::FirstStep::Unfinished) {
                tell::Silently said;
                const linear::Outcome outcome = solve(at, cell.index(), said);
                myAnswer.isSilent = myAnswer.isSilent && !said.hasSpoken;
                if (outcome == linear::Outcome::Limit) {
                    myAnswer = walk();
                    return true;
                }
                if (outcome != linear::Outcome::Found) {
                    if (!myAnswer && isNearMiss(at, cell.index())) {
                        myAnswer.local = at;
                        myAnswer.result = LocationResult::Approximate;
                        myNearMiss = cell.number;
                    }
                    continue;
                }
            }
            myAnswer.local = at;
            myAnswer.result = LocationResult::Found;
            return true;
        }
        return false;
    }
    /// The answer when no cell has the point: the first near miss, at a first step or of the cells tried.
    template<class ForEachGroup>
    [[nodiscard]] CellLocation nearMiss(const ForEachGroup& forEachGroup) {
        if (myIsInBlanked) {
            myAnswer.result = LocationResult::NotFound;
            return myAnswer;
        }
        const MultiIndex3& cells = mySearch.vertices.cells();
        forEachGroup([&](index_t i, index_t j, index_t k) {
            for (int m = 0; m < 8; ++m) {
                const MultiIndex3 cell(i + (m & 1 ? 1 : 0), j + (m & 2 ? 1 : 0), k + (m & 4 ? 1 : 0));
                if (!cell.inside(cells)) continue;
                const index_t number = cell.linear(cells);
                // Near misses of the lowest cell have no bound below.
                const linear::StepRange& range = number == 0 ? linear::Everywhere : linear::InNextCell;
                point at;
                if (number >= myNearMiss || !isValid(cell) || firstStep(at, cell, range) != linear::FirstStep::Left ||
                    !isNearMiss(at, cell) || !isListed(cell))
                    continue;
                myNearMiss = number;
                myAnswer.local = at;
                myAnswer.result = LocationResult::Approximate;
            }
        });
        return myAnswer;
    }
    [[nodiscard]] bool isListed(const MultiIndex3& cell) const noexcept {
        // A point in a cell's box is in one of the cell's unicells.
        const BlockVertices& vertices = mySearch.vertices;
        if (mySearch.unigrid.isFinite && vertices.isInBox(vertices.address(cell), myP)) return true;
        int unicell[3];
        return mySearch.unigrid.map(myP, unicell) &&
               Vantle::detail::isListed(vertices, mySearch.unigrid, cell, unicell);
    }

    const UniGridMapper& myMapper;
    const Search& mySearch;
    const point& myP;
    double myEpsilon;
    point myStart;
    const Vantle::BlockMask* myMask;
    bool myIsInBlanked = false;
    MultiIndex3 myLast;
    CellLocation myAnswer;
    index_t myNearMiss = std::numeric_limits<index_t>::max(); // number of its cell
};

UniGridMapper::UniGridMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, double resolution, double precision)
    : myCoordinates(coordinates) {
    VANTLE_SCOPE("UniGridMapper::UniGridMapper()");
    mySearch = std::make_unique<Search>(viewOf(coordinates));
    measure(resolution, precision);
    addReach();
    if (Console::isHeard()) tell::longestList(longestList(true));
}

int UniGridMapper::maximalListLength() const { return longestList(false); }

int UniGridMapper::longestList(bool aloud) const {
    std::call_once(mySearch->longestOnce, [&] {
        // What cannot be recorded has its message.
        const auto reject = [&](const MultiIndex3& cell) {
            if (aloud) (void)isRecorded(cell);
        };
        mySearch->longest =
            static_cast<int>(Vantle::detail::longestList(mySearch->vertices, mySearch->unigrid, reject));
    });
    return mySearch->longest;
}

UniGridMapper::~UniGridMapper() = default;

namespace {

/// The running average of the squared edge lengths, from `start` on, over the cells from number `first` on.
double runningAverage(const BlockVertices& vertices, double start, index_t first) noexcept {
    const MultiIndex<3>& cells = vertices.cells();
    double average = start;
    if (first >= cells.product()) return average;
    MultiIndex<3> cell = MultiIndex<3>::fromLinear(first, cells);
    do {
        const double* const at = vertices.address(cell);
        const point p = vertices.point(at);
        for (int axis = 0; axis < 3; ++axis)
            average = (normSquared(p - vertices.point(at + vertices.step(axis))) + average) * 0.5;
    } while (cell.advance(cells));
    return average;
}

/// The average over all cells.
double meanSquaredEdge(const BlockVertices& vertices, double extent) noexcept {
    const index_t total = vertices.cells().product();
    // Every edge halves the weight of all before. A step is monotonic in what it starts from, so the last cells alone
    // tell the average, to the last bit, if they come to the same from zero and from more than any square.
    constexpr index_t Few = 512;
    if (total > Few) {
        const double low = runningAverage(vertices, 0.0, total - Few);
        if (low == runningAverage(vertices, 4.0 * extent * extent, total - Few)) return low;
    }
    const double* const at = vertices.address(0, 0, 0);
    const bool hasEdge = vertices.size()[0] > 1;
    return runningAverage(vertices,
                          hasEdge ? normSquared(vertices.point(at) - vertices.point(at + vertices.step(0))) : 0.0, 0);
}

} // namespace

void UniGridMapper::measure(double resolution, double precision) {
    Search& search = *mySearch;
    const BlockVertices& vertices = search.vertices;
    double meanSquare = 0.0;
    bool areFinite = false;
    if (vertices.size().product() != 0) {
        point lowest, highest;
        areFinite = vertices.findExtremes(lowest, highest);
        if (areFinite) {
            myBox = Orvix::BoundingBox(lowest, highest);
        } else {
            MultiIndex3 vertex;
            do {
                myBox.embrace(vertices.point(vertices.address(vertex)));
            } while (vertex.advance(vertices.size()));
        }
        const vector diagonal = myBox.maxCoord() - myBox.minCoord();
        const double extent = areFinite ? length(diagonal) : std::numeric_limits<double>::infinity();
        meanSquare = meanSquaredEdge(vertices, extent);
    }
    myBox.updateBall();

    const double edge = std::sqrt(meanSquare);
    const double scale = resolution * 1.2 / edge;
    myPrecision = precision * 0.01 * edge;
    const vector extent = myBox.maxCoord() - myBox.minCoord();
    for (int axis = 0; axis < 3; ++axis) {
        const double unicells = extent[axis] * scale;
        if (!(unicells >= 2.0)) {
            Console::puts(tell::coarseResolution);
            myUnigridSize[axis] = 2;
        } else {
            // Whatever is too much is all the same; casts of it are undefined.
            myUnigridSize[axis] = static_cast<index_t>(std::min(unicells, 2.0 * MaximalUnicells));
        }
        myUnicellSize[axis] = extent[axis] / static_cast<double>(myUnigridSize[axis] - 1);
    }
    const auto total = myUnigridSize.checkedProduct();
    if (!total || *total > MaximalUnicells) {
        if (vertices.cells().product() != 0) throw std::length_error("UniGridMapper: too many unicells");
        // Of the single edge that there may be, the length tells nothing about cells that are not there.
        myUnigridSize = MultiIndex3::filled(2);
        myUnicellSize = extent;
    }
    search.unigrid = {myBox.minCoord(), myBox.maxCoord(), myUnicellSize, myUnigridSize,
                      areFinite && linear::isFinite(extent)};
}

void UniGridMapper::addReach() {
    Search& search = *mySearch;
    const double square = myPrecision * myPrecision;
    if (search.vertices.cells().product() == 0 || !linear::isFinite(myUnicellSize) ||
        !linear::isFinite(search.unigrid.lowest) || square > std::numeric_limits<double>::max())
        return;
    double farthest = 0.0;
    for (int d = 0; d < 3; ++d)
        farthest = std::max({farthest, std::fabs(search.unigrid.lowest[d]), std::fabs(search.unigrid.highest[d])});
    const Vantle::detail::LinearReachParameters parameters{myPrecision, farthest, myUnicellSize};
    const auto makeTree = [&](LinearReach::Effect effect, CellBoxTree::Detail detail) {
        CellBoxTree tree(search.vertices.cells(), search.unigrid.lowest, search.unigrid.highest);
        tree.build(LinearReach(search.vertices, tree, effect, parameters), detail);
        return tree;
    };
    search.effects = makeTree(LinearReach::Effect::Any, CellBoxTree::Detail::Cells);
    search.nearMisses = makeTree(LinearReach::Effect::NearMiss, CellBoxTree::Detail::Groups);
    search.hasReach = true;
}

bool UniGridMapper::inUniCell(const point& p, MultiIndex3& index) const {
    VANTLE_SCOPE("UniGridMapper::inUniCell(p, index)");
    if (!myBox.inside(p)) {
        Console::puts(tell::outOfBounds);
        return false;
    }
    int found[3];
    if (!mySearch->unigrid.map(p, found)) {
        tell::unmapped(found, myBox, myUnicellSize);
        return false;
    }
    index = MultiIndex3(static_cast<index_t>(found[0]), static_cast<index_t>(found[1]), static_cast<index_t>(found[2]));
    return true;
}

bool UniGridMapper::curviCells(const point& p, IndexList_t& list) const {
    VANTLE_SCOPE("UniGridMapper::curviCells(p, list)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return false;
    int at[3];
    (void)mySearch->unigrid.map(p, at);
    IndexList_t cells;
    mySearch->forEachListed(at, [&](index_t number) {
        cells.push_back(mySearch->cellOf(number));
        return true;
    });
    list.swap(cells);
    return !list.empty();
}

bool UniGridMapper::add(const MultiIndex3& curvi_i) {
    VANTLE_SCOPE("UniGridMapper::add(curvi_i)");
    return curvi_i.inside(mySearch->vertices.cells()) && isRecorded(curvi_i);
}

bool UniGridMapper::isRecorded(const MultiIndex3& cell) const {
    const Orvix::BoundingBox box = Vantle::detail::boxOfCell(mySearch->vertices, cell);
    MultiIndex3 low, high;
    return inUniCell(box.minCoord(), low) && inUniCell(box.maxCoord(), high);
}

bool UniGridMapper::localCellCoordinatesFromCell(point& uvw, const point& P, const MultiIndex3& it,
                                                 const CoordsArray_t& Data, const MultiIndex3&, double prec) {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCell(uvw, P, it, Data, max, prec)");
    const BlockVertices vertices(Data);
    if (it.inside(vertices.cells())) {
        point at;
        const linear::FirstStep step = linear::firstStep(at, P, it, vertices, prec, linear::Everywhere);
        if (step == linear::FirstStep::Found || step == linear::FirstStep::Left) {
            uvw = at;
            return step == linear::FirstStep::Found;
        }
    } else if (vertices.size().product() == 0) {
        return false;
    }
    const tell::Speaking aloud;
    return linear::solveInCell(uvw, P, it, Data, prec, aloud) == linear::Outcome::Found;
}

CellLocation UniGridMapper::locate(const point& p, double grid_epsilon, const point& start,
                                   const Vantle::BlockMask* mask) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(p)");
    return Query(*this, p, grid_epsilon, start, mask).find();
}

CellLocation UniGridMapper::locate(const point& p, double grid_epsilon, Vantle::detail::CellTrail& trail,
                                   const Vantle::BlockMask* mask) const {
    const Search& search = *mySearch;
    const point start(-1.0, -1.0, -1.0);
    Query query(*this, p, grid_epsilon, start, mask);
    CellLocation found;
    CellCandidates cells(search.vertices.cells(), 0);
    const CellBoxTree::Surroundings* const near =
        search.unigrid.isFinite && query.canUseTrees() && search.unigrid.inside(p)
            ? trail.about(search.identity, search.effects, p, p)
            : nullptr;
    if (near)
        search.effects.forEachAt(*near, p,
                                 [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { cells.add(i, j, k); });
    if (!near || !cells.areAll()) {
        found = query.find();
    } else {
        found = query.find(
            cells,
            [&](const CellOfBlock& cell, point& at) {
                return linear::firstStep(at, p, cell.index(), search.vertices, myPrecision, linear::Everywhere);
            },
            [&](auto&& f) {
                if (const auto* const groups = trail.nearMisses(search.nearMisses))
                    search.nearMisses.forEachGroupAt(*groups, p, f);
                else
                    search.nearMisses.forEachGroupAt(p, f);
            });
    }
    if (found) trail.note(search.identity, search.vertices, found.local);
    return found;
}

bool UniGridMapper::moveHome(HomeCell& home, const MultiIndex3& cell, double grid_epsilon,
                             Vantle::detail::CellTrail* trail) const {
    const Search& search = *mySearch;
    search.effects.prefetchAbout(cell);
    if (!search.unigrid.isFinite || !search.answersByTrees(grid_epsilon) ||
        !home.moveTo(search.vertices, cell, myPrecision))
        return false;
    return home.findRivals(search.effects, search.vertices.cells(),
                           trail ? trail->about(search.identity, search.effects, home.lowest(), home.highest())
                                 : nullptr);
}

CellLocation UniGridMapper::locateAtHome(const point& p, double grid_epsilon, const HomeCell& home,
                                         const Vantle::BlockMask* mask) const {
    const Search& search = *mySearch;
    CellCandidates cells(search.vertices.cells(), 0);
    if (!home.addCandidates(search.effects, p, cells)) return {};
    const CellOfBlock* const last = cells.end() - 1;
    return Query(*this, p, grid_epsilon, point(-1.0, -1.0, -1.0), mask)
        .findAmongFirst(cells, [&](const CellOfBlock& cell, point& at) {
            return &cell == last
                       ? home.firstStep(p, at)
                       : linear::firstStep(at, p, cell.index(), search.vertices, myPrecision, linear::Everywhere);
        });
}

bool UniGridMapper::leavesFree(const HomeCell& home, const point& least, const point& greatest, double grid_epsilon,
                               double from) const {
    const Search& search = *mySearch;
    if (!search.unigrid.isFinite || !search.answersByTrees(grid_epsilon) || !search.unigrid.inside(least) ||
        !search.unigrid.inside(greatest))
        return false;
    const CellBoxTree::Part part = home.partFrom(from);
    if (!search.effects.isFree(search.effects.regionOf(part))) return false;
    // That groups are near says little.
    const BlockVertices& vertices = search.vertices;
    return search.nearMisses.forEachGroupNear(search.nearMisses.regionOf(part), [&](index_t i, index_t j, index_t k) {
        for (int m = 0; m < 8; ++m) {
            const MultiIndex3 cell(i + (m & 1 ? 1 : 0), j + (m & 2 ? 1 : 0), k + (m & 4 ? 1 : 0));
            if (cell.inside(vertices.cells()) &&
                linear::mayMissNarrowly(part.centre, part.edge, cell, vertices.size() - 1, vertices, grid_epsilon))
                return false;
        }
        return true;
    });
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGrid(const point& p, point& uvw, double grid_epsilon,
                                                              const Vantle::BlockMask* mask) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(p, uvw, grid_epsilon)");
    Query query(*this, p, grid_epsilon, uvw, mask);
    const CellLocation found = query.find();
    if (!found.isSilent && Console::isHeard()) {
        const tell::Speaking aloud;
        if (MultiIndex3 unicell; inUniCell(p, unicell)) (void)query.walk(aloud);
    }
    if (found) uvw = found.local;
    return static_cast<unsigned int>(found.result);
}

void UniGridMapper::locate(std::span<const point> points, std::span<CellLocation> found, double grid_epsilon,
                           const Vantle::BlockMask* mask) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(points)");
    Vantle::detail::locateNeighbours<CellBoxTree::Matches::MaximalPoints>(
        points, found, [&](std::span<const point> now, std::span<CellLocation> theirs, const auto&) {
            locateNeighbours(now, theirs, grid_epsilon, mask);
        });
}

void UniGridMapper::locateNeighbours(std::span<const point> points, std::span<CellLocation> found, double grid_epsilon,
                                     const Vantle::BlockMask* mask) const {
    const Search& search = *mySearch;
    const point start(-1.0, -1.0, -1.0);
    const bool areInBox =
        search.unigrid.isFinite && Query(*this, start, grid_epsilon, start, mask).canUseTrees() &&
        std::all_of(points.begin(), points.end(), [&](const point& p) { return search.unigrid.inside(p); });
    CellBoxTree::Matches matches;
    if (!areInBox || !search.effects.match(points, matches)) {
        for (std::size_t n = 0; n < points.size(); ++n)
            found[n] = Query(*this, points[n], grid_epsilon, start, mask).find();
        return;
    }

    linear::StepEnd steps[CellBoxTree::Matches::Capacity];
    const std::span<const CellBoxTree::Matches::Cell> cells = matches.all();
    if (matches.areScattered())
        for (const CellOfBlock& cell : cells) search.vertices.prefetchCell(search.vertices.address(cell.index()));
    linear::makeFirstSteps(search.vertices, cells, points, myPrecision, steps);

    CellBoxTree::Surroundings nearMisses;
    std::optional<bool> areFewNear; // known once somebody asks, which hardly anybody does
    for (std::size_t n = 0; n < points.size(); ++n) {
        const point& p = points[n];
        const std::span<const CellBoxTree::Matches::Cell> theirs = matches.of(n);
        // Mostly a first step is the answer.
        const auto first = std::find_if(theirs.begin(), theirs.end(), [&](const CellBoxTree::Matches::Cell& cell) {
            return steps[&cell - cells.data()].outcome != linear::FirstStep::Left;
        });
        if (!mask && first != theirs.end())
            if (const linear::StepEnd& step = steps[&*first - cells.data()];
                step.outcome == linear::FirstStep::Found &&
                search.vertices.isInBox(search.vertices.address(first->i, first->j, first->k), p)) {
                found[n].local = point(step.at[0], step.at[1], step.at[2]);
                found[n].result = LocationResult::Found;
                found[n].isSilent = true;
                continue;
            }
        found[n] = Query(*this, p, grid_epsilon, start, mask)
                       .find(
                           theirs,
                           [&](const CellBoxTree::Matches::Cell& cell, point& at) {
                               const linear::StepEnd& step = steps[&cell - cells.data()];
                               at = point(step.at[0], step.at[1], step.at[2]);
                               return step.outcome;
                           },
                           [&](auto&& f) {
                               if (!areFewNear) areFewNear = search.nearMisses.gather(nearMisses, points);
                               if (*areFewNear)
                                   search.nearMisses.forEachGroupAt(nearMisses, p, f);
                               else
                                   search.nearMisses.forEachGroupAt(p, f);
                           });
    }
}

CellLocation UniGridMapper::locateProjectively(const point& p, double grid_epsilon,
                                               const Vantle::BlockMask* mask) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGridProjective(p)");
    int unicell[3];
    if (!mySearch->map(p, unicell)) return {{}, LocationResult::NotFound, false};
    const BlockVertices& vertices = mySearch->vertices;
    CellLocation answer;
    mySearch->forEachListed(unicell, [&](index_t number) {
        const MultiIndex3 cell = mySearch->cellOf(number);
        if (mask && !mask->isCellValid(cell)) return true;
        if (!Vantle::detail::projectIntoCell(answer.local, p, vertices, cell, grid_epsilon)) return true;
        for (int d = 0; d < 3; ++d) answer.local[d] += static_cast<double>(cell[d]);
        if (mask && !Vantle::detail::keepValid(answer.local, cell, *mask, grid_epsilon)) return true;
        answer.result = LocationResult::Found;
        return false;
    });
    return answer;
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGridProjective(const point& p, point& uvw,
                                                                        double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGridProjective(p, uvw, grid_epsilon)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 1;
    int at[3];
    (void)mySearch->unigrid.map(p, at);
    bool isEmpty = true;
    mySearch->forEachListed(at, [&](index_t) { return isEmpty = false; });
    if (isEmpty) return 1;
    const CellLocation found = locateProjectively(p, grid_epsilon);
    if (found) uvw = found.local;
    return static_cast<unsigned int>(found.result);
}
