#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/CellCandidates.hpp>
#include <baseop/detail/LinearReach.hpp>
#include <baseop/detail/Unigrid.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/orvix/CellMap.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>

using Hestra::Console;
using Hestra::Profiler;
using Orvix::PhysicalSpace;
using Vantle::index_t;
using Vantle::MultiArrayBase;
using Vantle::MultiIndex;
using Vantle::detail::BlockVertices;
using Vantle::detail::CellBoxTree;
using Vantle::detail::CellCandidates;
using Vantle::detail::CentreFrame;
using Vantle::detail::LinearReach;
using Vantle::detail::UnicellLists;

#define VANTLE_SOURCE "baseop/UniGridMapper"
#define VANTLE_SCOPE(signature) const Profiler profiler(VANTLE_SOURCE, __LINE__, signature, __PRETTY_FUNCTION__)

namespace {

using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;

bool isFinite(const Orvix::FixedArray<double, 3>& v) noexcept {
    // Zero times infinity or NaN is NaN.
    return v[0] * 0.0 + v[1] * 0.0 + v[2] * 0.0 == 0.0;
}

/// The vertices of an array that may be missing.
MultiArrayBase<3, point> viewOf(const Hestra::StrongPtr<UniGridMapper::CoordsArray_t>& coordinates) noexcept {
    return coordinates ? *coordinates : MultiArrayBase<3, point>();
}

/// How a solve in one cell ended.
enum class Outcome {
    Found,
    Left,      // the iterate is outside of the cell
    NotFinite, // the iterate, or its image, is no number
    Limit,     // the iterate still is in the cell
};

/// A solve in one cell, step by step.
class Solve {
public:
    Solve(const point& target, const vector& cell, double precision) noexcept
        : myTarget(target), myLow(cell), myAt(myLow[0] + 0.5, myLow[1] + 0.5, myLow[2] + 0.5),
          myEnough(precision * precision) {}

    /// Sets the image of the start, the cell's centre; true when it is near enough.
    bool start(const point& image) noexcept {
        myImage = image;
        return normSquared(myTarget - myImage) <= myEnough;
    }
    /// One step with these derivatives. False when they are degenerate and the former inverse matrix was used.
    bool step(const vector (&column)[3]) noexcept {
        const bool isRegular = Orvix::tryInvert3x3(myInverse, column[0], column[1], column[2]);
        const vector move = myInverse * (myTarget - myImage);
        myAt += move;
        // Predicted, not evaluated again, on purpose: a good cell takes a single step.
        myImage += vector(column[0][0] * move[0] + column[1][0] * move[1] + column[2][0] * move[2],
                          column[0][1] * move[0] + column[1][1] * move[1] + column[2][1] * move[2],
                          column[0][2] * move[0] + column[1][2] * move[1] + column[2][2] * move[2]);
        return isRegular;
    }
    [[nodiscard]] bool isNumber() const noexcept { return isFinite(myAt) && isFinite(myImage); }
    [[nodiscard]] bool hasLeft() const noexcept {
        return myAt[0] < myLow[0] || myAt[0] > myLow[0] + 1.0 || myAt[1] < myLow[1] || myAt[1] > myLow[1] + 1.0 ||
               myAt[2] < myLow[2] || myAt[2] > myLow[2] + 1.0;
    }
    /// Whether another step is due.
    [[nodiscard]] bool isFar() const noexcept { return normSquared(myTarget - myImage) > myEnough; }
    [[nodiscard]] const point& at() const noexcept { return myAt; }

private:
    point myTarget;
    vector myLow;
    point myAt, myImage;
    double myEnough;
    Orvix::Quadratic<3, double> myInverse;
};

/// The whole solve, as `localCellCoordinatesFromCell` says.
template<bool Prints>
Outcome solveInCell(point& uvw, const point& P, const MultiIndex<3>& cell, const MultiArrayBase<3, point>& vertices,
                    double precision) {
    Solve solve(P, vector(static_cast<double>(cell[0]), static_cast<double>(cell[1]), static_cast<double>(cell[2])),
                precision);
    if (solve.start(Vantle::interpolateAt(vertices, solve.at()))) {
        uvw = solve.at();
        return Outcome::Found;
    }
    const auto vectors = Vantle::asVectors(vertices);
    int iterations = 0;
    do {
        const vector column[3] = {Vantle::differentiateAt<0>(vectors, solve.at()),
                                  Vantle::differentiateAt<1>(vectors, solve.at()),
                                  Vantle::differentiateAt<2>(vectors, solve.at())};
        const bool isRegular = solve.step(column);
        if (Prints && !isRegular) Console::puts("WHAT?");
        if (!solve.isNumber()) {
            constexpr double nan = std::numeric_limits<double>::quiet_NaN();
            uvw = point(nan, nan, nan);
            return Outcome::NotFinite;
        }
        if (solve.hasLeft()) {
            uvw = solve.at();
            return Outcome::Left;
        }
        if (++iterations == UniGridMapper::MaximalIterations) {
            if (Prints) Console::print("getLocalCoordinates3D(): Prevented endless loop BREAK!\n");
            return Outcome::Limit;
        }
        // Without any inverse matrix so far the step was zero, and all others are.
        if (!Prints && !isRegular && iterations == 1) return Outcome::Limit;
    } while (solve.isFar());
    uvw = solve.at();
    return Outcome::Found;
}

/// What the first step of a solve comes to, where it is all there is to the solve or to its effect.
enum class FirstStep {
    Found,
    Left,
    NotFinite,
    Unfinished, // more steps, or messages
    Far,        // left, or not finite, and beyond what matters
};

/// How far from the centre of a cell a step may end to matter, along each axis and in cells.
struct StepRange {
    double below, above;
};
constexpr double unlimited = std::numeric_limits<double>::infinity();
constexpr StepRange Everywhere{unlimited, unlimited}, InNextCell{0.5, 1.5};

/// Whether the first step surely ends out of a range; without a division.
bool isOutside(const CentreFrame& frame, const point& P, const StepRange& range) noexcept {
    const vector offset = P - frame.centre;
    const vector normal[3] = {cross(frame.column[1], frame.column[2]), cross(frame.column[2], frame.column[0]),
                              cross(frame.column[0], frame.column[1])};
    const double det = dot(frame.column[0], normal[0]), size = std::fabs(det);
    if (size < Orvix::DegenerateDeterminant) return false;
    // The step times the determinant. Margins are far larger than rounding, also that of the sum with the index.
    constexpr double IndexMargin = 1e-5, ProductMargin = 1e-14;
    bool isOut = false;
    for (int d = 0; d < 3; ++d) {
        const double x = normal[d][0] * offset[0], y = normal[d][1] * offset[1], z = normal[d][2] * offset[2];
        const double error = ProductMargin * (std::fabs(x) + std::fabs(y) + std::fabs(z));
        const double step = std::copysign(1.0, det) * (x + y + z);
        isOut |=
            (step < -(range.below + IndexMargin) * size - error) | (step > (range.above + IndexMargin) * size + error);
    }
    return isOut;
}

/// The first step in a cell of the block, bit for bit that of `solveInCell`. Most of those that end out of the range
/// cost no division.
FirstStep firstStep(point& uvw, const point& P, const MultiIndex<3>& cell, const BlockVertices& vertices,
                    double precision, const StepRange& range) noexcept {
    // Signed numbers are converted in one instruction.
    const auto number = [](index_t i) { return static_cast<double>(static_cast<std::int64_t>(i)); };
    Solve solve(P, vector(number(cell[0]), number(cell[1]), number(cell[2])), precision);
    const CentreFrame frame(vertices, vertices.address(cell));
    if (solve.start(frame.centre)) {
        uvw = solve.at();
        return FirstStep::Found;
    }
    if (range.below < unlimited && isOutside(frame, P, range)) return FirstStep::Far;
    if (!solve.step(frame.column)) return FirstStep::Unfinished;
    if (!solve.isNumber()) return FirstStep::NotFinite;
    uvw = solve.at();
    if (solve.hasLeft()) return FirstStep::Left;
    return solve.isFar() ? FirstStep::Unfinished : FirstStep::Found;
}

/// Whether the iterate of a solve that did not succeed counts as a near miss, in a block with this last vertex.
bool isNearMiss(const point& uvw, const MultiIndex<3>& cell, const MultiIndex<3>& last, double epsilon) noexcept {
    const bool isNegative = uvw[0] < 0.0 || uvw[1] < 0.0 || uvw[2] < 0.0;
    for (int d = 0; d < 3; ++d) {
        if (!(uvw[d] > -epsilon && uvw[d] < static_cast<double>(last[d]) + epsilon)) return false;
        const double distance = (isNegative ? 0.0 : std::floor(uvw[d])) - static_cast<double>(cell[d]);
        if (distance != 0.0 && distance != 1.0) return false;
    }
    return true;
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

    /// The lists, made when they are asked for first: hardly a query looks into them.
    [[nodiscard]] const UnicellLists& lists() const {
        if (const UnicellLists* const ready = myReadyLists.load(std::memory_order_acquire)) return *ready;
        const std::lock_guard lock(myMutex);
        if (!myLists) {
            myLists = std::make_unique<const UnicellLists>(vertices, unigrid);
            myReadyLists.store(myLists.get(), std::memory_order_release);
        }
        return *myLists;
    }

    /// Whether it is time to make them rather than to look for the last cells of one among all cells of the block:
    /// when they are there, or that has been done so often that it took about as long.
    [[nodiscard]] bool areListsWorthMaking() const noexcept {
        constexpr int Few = 16;
        return myReadyLists.load(std::memory_order_acquire) || mySearches.load(std::memory_order_relaxed) >= Few ||
               mySearches.fetch_add(1, std::memory_order_relaxed) >= Few;
    }

private:
    mutable std::atomic<int> mySearches{0};
    mutable std::atomic<const UnicellLists*> myReadyLists{nullptr};
    mutable std::unique_ptr<const UnicellLists> myLists;
    mutable std::mutex myMutex;
};

/// One query.
class UniGridMapper::Query {
public:
    Query(const UniGridMapper& mapper, const point& P, double epsilon) noexcept
        : myMapper(mapper), mySearch(*mapper.mySearch), myP(P), myEpsilon(epsilon),
          myLast(mySearch.vertices.size() - 1) {}

    /// As if all cells of the list were tried, while only `cells` are, among them all that may have an effect, in
    /// order. `stepIn(cell, at)` makes the first step in a cell; `forEachNearGroup(f)` calls `f(i, j, k)` for the
    /// lowest cells of groups that may have near misses. Undecided, with nothing printed, where a solve has several
    /// steps, or messages. `uvw` is set when there is something to set it to.
    template<class Cells, class StepIn, class ForEachNearGroup>
    [[nodiscard]] Answer inFirstSteps(point& uvw, const Cells& cells, const StepIn& stepIn,
                                      const ForEachNearGroup& forEachNearGroup) const {
        for (const auto& cell : cells) {
            point at;
            switch (stepIn(cell, at)) {
            case FirstStep::Found:
                if (!isListed(cell.index())) break;
                uvw = at;
                return Answer::Found;
            case FirstStep::Unfinished:
                if (isListed(cell.index())) return Answer::Undecided;
                break;
            case FirstStep::Left:
            case FirstStep::NotFinite:
            case FirstStep::Far:
                break;
            }
        }
        return findNearMiss(uvw, std::numeric_limits<index_t>::max(), forEachNearGroup) ? Answer::NearMiss
                                                                                        : Answer::Missing;
    }
    [[nodiscard]] Answer inFirstSteps(point& uvw) const {
        CellCandidates candidates(mySearch.vertices);
        mySearch.effects.forEachAt(
            myP, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { candidates.add(i, j, k); },
            [&](index_t i, index_t j, index_t k) { mySearch.vertices.prefetchGroup(i, j, k); });
        if (!candidates.areAll()) return Answer::Undecided;
        return inFirstSteps(
            uvw, candidates,
            [&](const CellCandidates::Cell& cell, point& at) { return first(at, cell.index(), Everywhere); },
            [&](auto&& f) { mySearch.nearMisses.forEachGroupAt(myP, f); });
    }

    /// The whole query in a unicell, for the solves that `inFirstSteps` is no match for. What a solve leaves in `uvw`
    /// is what the next one finds there.
    [[nodiscard]] Answer inFull(point& uvw, std::size_t unicell) const {
        CellCandidates candidates(mySearch.vertices);
        if (mySearch.hasReach)
            mySearch.effects.forEachAt(
                myP, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { candidates.add(i, j, k); },
                [](index_t, index_t, index_t) {});
        Walk walk(uvw, mySearch.lists().at(unicell));
        if (!mySearch.hasReach || !candidates.areAll()) {
            for (const std::uint32_t number : walk.list)
                if (attempt(walk, cellOf(number))) return Answer::Found;
        } else {
            for (const CellCandidates::Cell& candidate : candidates) {
                point at;
                const FirstStep step = first(at, candidate.index(), Everywhere);
                if (step != FirstStep::Found && step != FirstStep::Unfinished) continue;
                const std::size_t place = placeOf(walk.list, candidate.number);
                if (place == walk.list.size()) continue;
                catchUp(walk, place);
                if (attempt(walk, candidate.index())) return Answer::Found;
            }
            // The first near miss is that of an attempt above, or of a cell left at the first step.
            if (findNearMiss(walk.nearMiss,
                             walk.hasNearMiss ? walk.nearMissNumber : std::numeric_limits<index_t>::max(),
                             [&](auto&& f) { mySearch.nearMisses.forEachGroupAt(myP, f); }))
                walk.hasNearMiss = true;
            if (!walk.hasNearMiss) catchUp(walk, walk.list.size());
        }
        if (!walk.hasNearMiss) return Answer::Missing;
        uvw = walk.nearMiss;
        return Answer::NearMiss;
    }

    /// What `uvw` holds after a query that missed: the value that the last solve of the list left that left any.
    void leaveLast(point& uvw, const MultiIndex3& unicell) const {
        if (mySearch.areListsWorthMaking()) {
            Walk walk(uvw, mySearch.lists().at(unicell.linear(myMapper.myUnigridSize)));
            catchUp(walk, walk.list.size());
            return;
        }
        const int at[3] = {static_cast<int>(unicell[0]), static_cast<int>(unicell[1]), static_cast<int>(unicell[2])};
        Vantle::detail::forEachListedBackwards(mySearch.vertices, mySearch.unigrid, at, [&](const MultiIndex3& cell) {
            return solveSilently(uvw, cell) == Outcome::Limit;
        });
    }

private:
    /// The walk through a list, with what it has found.
    struct Walk {
        Walk(point& start, std::span<const std::uint32_t> cells) noexcept : uvw(start), list(cells) {}

        point& uvw;
        std::span<const std::uint32_t> list;
        std::size_t next = 0; // all places before have had their effect on `uvw`
        bool hasNearMiss = false;
        point nearMiss;
        index_t nearMissNumber = 0;
    };

    [[nodiscard]] FirstStep first(point& uvw, const MultiIndex3& cell, const StepRange& range) const noexcept {
        return firstStep(uvw, myP, cell, mySearch.vertices, myMapper.myPrecision, range);
    }
    /// Finds the near miss at a first step in the first cell of all that `forEachGroup(f)` calls `f(i, j, k)` for,
    /// among groups of 2 x 2 x 2, if its number is less than `before`.
    template<class ForEachGroup>
    bool findNearMiss(point& nearMiss, index_t before, const ForEachGroup& forEachGroup) const {
        const MultiIndex3& cells = mySearch.vertices.cells();
        index_t nearest = before;
        const auto look = [&](const MultiIndex3& cell, const StepRange& range) {
            const index_t number = cell.linear(cells);
            point at;
            if (number >= nearest || first(at, cell, range) != FirstStep::Left ||
                !isNearMiss(at, cell, myLast, myEpsilon) || !isListed(cell))
                return;
            nearest = number;
            nearMiss = at;
        };
        if (!(myEpsilon <= LinearReach::Rim)) {
            // Farther out than boxes tell.
            int unicell[3];
            if (mySearch.unigrid.map(myP, unicell))
                for (const std::uint32_t number : mySearch.lists().at(mySearch.unigrid.linear(unicell)))
                    look(cellOf(number), Everywhere);
            return nearest != before;
        }
        forEachGroup([&](index_t i, index_t j, index_t k) {
            for (int m = 0; m < 8; ++m) {
                const MultiIndex3 cell(i + (m & 1 ? 1 : 0), j + (m & 2 ? 1 : 0), k + (m & 4 ? 1 : 0));
                // Near misses of the lowest cell have no bound below.
                if (cell.inside(cells)) look(cell, cell == MultiIndex3() ? Everywhere : InNextCell);
            }
        });
        return nearest != before;
    }
    [[nodiscard]] MultiIndex3 cellOf(std::uint32_t number) const noexcept {
        return MultiIndex3::fromLinear(number, mySearch.vertices.cells());
    }
    /// The place of a cell in a list; the list's length if it is not there.
    [[nodiscard]] static std::size_t placeOf(std::span<const std::uint32_t> list, index_t number) noexcept {
        const auto entry = std::lower_bound(list.begin(), list.end(), number);
        return entry != list.end() && *entry == number ? static_cast<std::size_t>(entry - list.begin()) : list.size();
    }
    [[nodiscard]] bool isListed(const MultiIndex3& cell) const noexcept {
        // A point in a cell's box is in one of the cell's unicells.
        const BlockVertices& vertices = mySearch.vertices;
        if (mySearch.unigrid.isFinite && vertices.isInBox(vertices.address(cell), myP)) return true;
        int unicell[3];
        return mySearch.unigrid.map(myP, unicell) &&
               Vantle::detail::isListed(vertices, mySearch.unigrid, cell, unicell);
    }

    /// Tries a cell, for all to see; true when it has the point.
    bool attempt(Walk& walk, const MultiIndex3& cell) const {
        if (solveInCell<true>(walk.uvw, myP, cell, *myMapper.myCoordinates, myMapper.myPrecision) == Outcome::Found)
            return true;
        if (!walk.hasNearMiss && isNearMiss(walk.uvw, cell, myLast, myEpsilon)) {
            walk.hasNearMiss = true;
            walk.nearMiss = walk.uvw;
            walk.nearMissNumber = cell.linear(mySearch.vertices.cells());
        }
        return false;
    }
    /// Gives `uvw` the value that it would have before the attempt at a place of the list, had all before been tried:
    /// that of the last solve that did not give up. Solves that give up leave the value, which may be a near miss then.
    void catchUp(Walk& walk, std::size_t place) const {
        for (std::size_t before = place; before != walk.next;)
            if (solveSilently(walk.uvw, cellOf(walk.list[--before])) != Outcome::Limit) break;
        walk.next = place + 1;
    }
    [[nodiscard]] Outcome solveSilently(point& uvw, const MultiIndex3& cell) const {
        return solveInCell<false>(uvw, myP, cell, *myMapper.myCoordinates, myMapper.myPrecision);
    }

    const UniGridMapper& myMapper;
    const Search& mySearch;
    const point& myP;
    double myEpsilon;
    MultiIndex3 myLast;
};

UniGridMapper::UniGridMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, double resolution, double precision)
    : myCoordinates(coordinates) {
    VANTLE_SCOPE("UniGridMapper::UniGridMapper()");
    mySearch = std::make_unique<Search>(viewOf(coordinates));
    measure(resolution, precision);
    // What cannot be recorded has its message.
    const Vantle::detail::UnicellCensus census(mySearch->vertices, mySearch->unigrid, MaximalListEntries,
                                               [this](const MultiIndex3& cell) { (void)add(cell); });
    myMaximalListLength = static_cast<int>(census.longest);
    addReach();
    Console::print("Added the curvi cells into the unigrid, Maximal %d curvicells per unicell\n", myMaximalListLength);
}

UniGridMapper::~UniGridMapper() = default;

namespace {

/// Extremes of all coordinates.
struct Extremes {
    point lowest, highest;
    bool areFinite = true;
};

/// The box of a block with at least one vertex, when all its coordinates are numbers.
Extremes extremesOf(const BlockVertices& vertices) noexcept {
    const MultiIndex<3>& n = vertices.size();
    const std::size_t step = vertices.step(0);
    double low[3], high[3], check[3] = {};
    for (int d = 0; d < 3; ++d) low[d] = high[d] = vertices.address(0, 0, 0)[d];
    for (index_t k = 0; k < n[2]; ++k)
        for (index_t j = 0; j < n[1]; ++j) {
            const double* at = vertices.address(0, j, k);
            for (index_t i = 0; i < n[0]; ++i, at += step)
                for (int d = 0; d < 3; ++d) {
                    low[d] = std::min(low[d], at[d]);
                    high[d] = std::max(high[d], at[d]);
                    check[d] += at[d] * 0.0; // NaN from the first coordinate on that is no number
                }
        }
    return {point(low[0], low[1], low[2]), point(high[0], high[1], high[2]), check[0] + check[1] + check[2] == 0.0};
}

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
        const Extremes extremes = extremesOf(vertices);
        areFinite = extremes.areFinite;
        if (areFinite) {
            myBox = Orvix::BoundingBox(extremes.lowest, extremes.highest);
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
            Console::print(VANTLE_SOURCE "UNIGRIDMAPPER WARNING: Resolution too coarse\n");
            myUnigridSize[axis] = 2;
        } else {
            // Whatever is too much is all the same; casts of it are undefined.
            myUnigridSize[axis] = static_cast<index_t>(std::min(unicells, 2.0 * MaximalUnicells));
        }
        myUnicellSize[axis] = extent[axis] / static_cast<double>(myUnigridSize[axis] - 1);
    }
    const auto total = myUnigridSize.checkedProduct();
    if (!total || *total > MaximalUnicells) throw std::length_error("UniGridMapper: too many unicells");
    search.unigrid = {myBox.minCoord(), myBox.maxCoord(), myUnicellSize, myUnigridSize, areFinite && isFinite(extent)};
}

void UniGridMapper::addReach() {
    Search& search = *mySearch;
    const double square = myPrecision * myPrecision;
    if (search.vertices.cells().product() == 0 || !isFinite(myUnicellSize) || !isFinite(search.unigrid.lowest) ||
        square > std::numeric_limits<double>::max())
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
        Console::print("UniGridMapper::inUniCell() point of of bounds!\n");
        return false;
    }
    int found[3];
    if (mySearch->unigrid.map(p, found)) {
        index = MultiIndex3(found[0], found[1], found[2]);
        return true;
    }
    const auto line = [](const char* title, const auto&... values) {
        std::ostringstream text;
        text << "                           " << title;
        (text << ... << values) << '\n';
        Console::print("%s", text.str().c_str());
    };
    Console::print("UniGridMapper::inUniCell() mapped index <%d,%d,%d> out of bounds!\n", found[0], found[1], found[2]);
    line("BoundingBox Min:", myBox.minCoord());
    line("BoundingBox Max:", myBox.maxCoord());
    line("cell_len: ", "(", myUnicellSize[0], " ,", myUnicellSize[1], " ,", myUnicellSize[2], ")");
    return false;
}

bool UniGridMapper::curviCells(const point& p, IndexList_t& list) const {
    VANTLE_SCOPE("UniGridMapper::curviCells(p, list)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return false;
    IndexList_t cells;
    for (const std::uint32_t number : mySearch->lists().at(unicell.linear(myUnigridSize)))
        cells.push_back(MultiIndex3::fromLinear(number, mySearch->vertices.cells()));
    list.swap(cells);
    return !list.empty();
}

bool UniGridMapper::add(const MultiIndex3& curvi_i) {
    VANTLE_SCOPE("UniGridMapper::add(curvi_i)");
    if (!curvi_i.inside(mySearch->vertices.cells())) return false;
    const Orvix::BoundingBox box = Vantle::detail::boxOfCell(mySearch->vertices, curvi_i);
    MultiIndex3 low, high;
    return inUniCell(box.minCoord(), low) && inUniCell(box.maxCoord(), high);
}

bool UniGridMapper::localCellCoordinatesFromCell(point& uvw, const point& P, const MultiIndex3& it,
                                                 const CoordsArray_t& Data, const MultiIndex3&, double prec) {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCell(uvw, P, it, Data, max, prec)");
    const BlockVertices vertices(Data);
    if (it.inside(vertices.cells())) {
        point at;
        switch (firstStep(at, P, it, vertices, prec, Everywhere)) {
        case FirstStep::Found:
            uvw = at;
            return true;
        case FirstStep::Left:
            uvw = at;
            return false;
        case FirstStep::NotFinite:
        case FirstStep::Unfinished:
        case FirstStep::Far:
            break;
        }
    } else if (vertices.size().product() == 0) {
        return false;
    }
    return solveInCell<true>(uvw, P, it, Data, prec) == Outcome::Found;
}

unsigned char UniGridMapper::codeOf(Answer answer) noexcept {
    switch (answer) {
    case Answer::Found:
        return 1;
    case Answer::NearMiss:
        return 2;
    case Answer::Undecided:
        return Undecided;
    case Answer::Missing:
        break;
    }
    return 0;
}

template<bool LeavesLast>
unsigned int UniGridMapper::query(const point& p, point& uvw, double grid_epsilon) const {
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 0;
    const Query query(*this, p, grid_epsilon);
    Answer answer = mySearch->hasReach ? query.inFirstSteps(uvw) : Answer::Undecided;
    if (answer == Answer::Undecided) {
        point at = uvw;
        answer = query.inFull(at, unicell.linear(myUnigridSize));
        if (LeavesLast || answer != Answer::Missing) uvw = at;
    } else if (LeavesLast && answer == Answer::Missing) {
        query.leaveLast(uvw, unicell);
    }
    return codeOf(answer);
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGrid(const point& p, point& uvw, double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(p, uvw, grid_epsilon)");
    return query<true>(p, uvw, grid_epsilon);
}

unsigned int UniGridMapper::locate(const point& p, point& uvw, double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::locate(p, uvw, grid_epsilon)");
    return query<false>(p, uvw, grid_epsilon);
}

void UniGridMapper::locateSilently(std::span<const point> points, std::span<point> uvw, std::span<unsigned char> codes,
                                   double grid_epsilon) const {
    constexpr std::size_t most = CellBoxTree::Matches::MaximalPoints;
    for (std::size_t begin = 0; begin < points.size(); begin += most) {
        const std::size_t count = std::min(most, points.size() - begin);
        locateNeighbours(points.subspan(begin, count), uvw.subspan(begin, count), codes.subspan(begin, count),
                         grid_epsilon);
    }
}

void UniGridMapper::locateNeighbours(std::span<const point> points, std::span<point> uvw,
                                     std::span<unsigned char> codes, double grid_epsilon) const {
    const Search& search = *mySearch;
    point low = search.unigrid.highest, high = search.unigrid.lowest;
    bool areInBox = search.hasReach && search.unigrid.isFinite;
    for (const point& p : points) {
        areInBox = areInBox && search.unigrid.inside(p);
        for (int d = 0; d < 3; ++d) {
            low[d] = std::min(low[d], p[d]);
            high[d] = std::max(high[d], p[d]);
        }
    }
    CellBoxTree::Surroundings effects;
    CellBoxTree::Matches matches;
    if (!areInBox || !search.effects.gather(effects, low, high) || !search.effects.match(effects, points, matches)) {
        for (std::size_t n = 0; n < points.size(); ++n) codes[n] = locateSilently(points[n], uvw[n], grid_epsilon);
        return;
    }

    struct Step {
        point at;
        FirstStep outcome;
    };
    Step steps[CellBoxTree::Matches::Capacity];
    const std::span<const CellBoxTree::Matches::Cell> cells = matches.all();
    for (std::size_t c = 0; c < cells.size(); ++c)
        steps[c].outcome =
            firstStep(steps[c].at, points[cells[c].point], cells[c].index(), search.vertices, myPrecision, Everywhere);

    CellBoxTree::Surroundings nearMisses;
    std::optional<bool> areFewNear; // known once somebody asks, which hardly anybody does
    for (std::size_t n = 0; n < points.size(); ++n) {
        const point& p = points[n];
        codes[n] = codeOf(Query(*this, p, grid_epsilon)
                              .inFirstSteps(
                                  uvw[n], matches.of(n),
                                  [&](const CellBoxTree::Matches::Cell& cell, point& at) {
                                      const Step& step = steps[&cell - cells.data()];
                                      at = step.at;
                                      return step.outcome;
                                  },
                                  [&](auto&& f) {
                                      if (!areFewNear) areFewNear = search.nearMisses.gather(nearMisses, low, high);
                                      if (!*areFewNear)
                                          search.nearMisses.forEachGroupAt(p, f);
                                      else if (!nearMisses.empty())
                                          search.nearMisses.forEachGroupAt(nearMisses, p, f);
                                  }));
    }
}

unsigned char UniGridMapper::locateSilently(const point& p, point& uvw, double grid_epsilon) const {
    const Search& search = *mySearch;
    if (!search.hasReach || !search.unigrid.isFinite || !search.unigrid.inside(p)) return Undecided;
    return codeOf(Query(*this, p, grid_epsilon).inFirstSteps(uvw));
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGridProjective(const point& p, point& uvw,
                                                                        double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGridProjective(p, uvw, grid_epsilon)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 1;
    const BlockVertices& vertices = mySearch->vertices;
    const std::span<const std::uint32_t> list = mySearch->lists().at(unicell.linear(myUnigridSize));
    if (list.empty()) return 1;
    for (const std::uint32_t entry : list) {
        const MultiIndex3 cell = MultiIndex3::fromLinear(entry, vertices.cells());
        const double* const lowest = vertices.address(cell);
        const auto corner = [&](int number) { return vertices.point(vertices.corner(lowest, number)); };
        Orvix::cuboidToUnitCube(uvw, p, corner(0), corner(4), corner(2), corner(1), corner(7), true);
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && uvw[d] >= -grid_epsilon && uvw[d] <= 1.0 + grid_epsilon;
        if (!isInside) continue;
        for (int d = 0; d < 3; ++d) uvw[d] += static_cast<double>(cell[d]);
        return 1;
    }
    return 0;
}
