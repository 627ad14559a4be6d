#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/LinearReach.hpp>
#include <baseop/detail/Unigrid.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/orvix/CellMap.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
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
using Vantle::detail::CentreFrame;
using Vantle::detail::LinearReach;

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
    Solve(const point& target, const MultiIndex<3>& cell, double precision) noexcept
        : myTarget(target),
          myLow(static_cast<double>(cell[0]), static_cast<double>(cell[1]), static_cast<double>(cell[2])),
          myAt(myLow[0] + 0.5, myLow[1] + 0.5, myLow[2] + 0.5), myEnough(precision * precision) {}

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
    Solve solve(P, cell, precision);
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
};

/// The first step in a cell of the block, bit for bit that of `solveInCell`.
FirstStep firstStep(point& uvw, const point& P, const MultiIndex<3>& cell, const BlockVertices& vertices,
                    double precision) noexcept {
    Solve solve(P, cell, precision);
    const CentreFrame frame(vertices, vertices.address(cell));
    if (!solve.start(frame.centre)) {
        if (!solve.step(frame.column)) return FirstStep::Unfinished;
        if (!solve.isNumber()) return FirstStep::NotFinite;
        uvw = solve.at();
        if (solve.hasLeft()) return FirstStep::Left;
        return solve.isFar() ? FirstStep::Unfinished : FirstStep::Found;
    }
    uvw = solve.at();
    return FirstStep::Found;
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
    Vantle::detail::UnicellLists lists;
    /// Which cells can have an effect on a query, and which can be near misses. Without them lists are walked.
    bool hasReach = false;
    CellBoxTree effects, nearMisses;

    explicit Search(const MultiArrayBase<3, point>& view) : vertices(view) {}
};

/// One query that goes through a list.
class UniGridMapper::Walk {
public:
    Walk(const UniGridMapper& mapper, std::size_t unicell, const point& P, point& uvw, double epsilon) noexcept
        : myMapper(mapper), mySearch(*mapper.mySearch), myUnicell(unicell), myP(P), myUvw(uvw), myEpsilon(epsilon),
          myLast(mySearch.vertices.size() - 1) {}

    /// As if all cells of the list were tried, while only those are that may have an effect.
    unsigned int few() {
        Candidate candidates[Capacity];
        std::size_t count = 0;
        mySearch.effects.forEachAt(myP, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) {
            mySearch.vertices.prefetchCell(mySearch.vertices.address(i, j, k));
            if (count < Capacity) {
                // Inserted in the order of the list; there are few.
                const Candidate next = candidateAt(i, j, k);
                std::size_t at = count;
                for (; at > 0 && candidates[at - 1].number > next.number; --at) candidates[at] = candidates[at - 1];
                candidates[at] = next;
            }
            ++count;
        });
        if (count > Capacity) return all();
        for (std::size_t c = 0; c < count; ++c) {
            const Candidate& candidate = candidates[c];
            point at;
            switch (firstStep(at, myP, candidate.cell(), mySearch.vertices, myMapper.myPrecision)) {
            case FirstStep::Found:
                if (!isListed(candidate)) break;
                myUvw = at;
                return 1;
            case FirstStep::Unfinished: {
                const std::size_t place = find(candidate.number);
                if (place == list().size()) break;
                catchUp(place);
                if (attempt(candidate.cell())) return 1;
                break;
            }
            case FirstStep::Left:
            case FirstStep::NotFinite:
                break;
            }
        }
        // Not found. The first near miss is that of an attempt above, or of a cell left at the first step.
        std::uint32_t nearest = myHasNearMiss ? myNearMissNumber : std::numeric_limits<std::uint32_t>::max();
        mySearch.nearMisses.forEachAt(myP, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) {
            const Candidate candidate = candidateAt(i, j, k);
            point at;
            if (candidate.number >= nearest ||
                firstStep(at, myP, candidate.cell(), mySearch.vertices, myMapper.myPrecision) != FirstStep::Left ||
                !isNearMiss(at, candidate.cell(), myLast, myEpsilon) || !isListed(candidate))
                return;
            nearest = candidate.number;
            myHasNearMiss = true;
            myNearMiss = at;
        });
        if (!myHasNearMiss) catchUp(list().size());
        return conclude();
    }

    /// Tries one cell of the list after the other.
    unsigned int all() {
        for (const std::uint32_t entry : list())
            if (attempt(cellOf(entry))) return 1;
        return conclude();
    }

private:
    /// More boxes at one point than this are walked.
    static constexpr std::size_t Capacity = 64;
    struct Candidate {
        std::uint32_t number, i, j, k;
        [[nodiscard]] MultiIndex3 cell() const noexcept { return {i, j, k}; }
    };
    [[nodiscard]] Candidate candidateAt(std::uint32_t i, std::uint32_t j, std::uint32_t k) const noexcept {
        const MultiIndex3& cells = mySearch.vertices.cells();
        return {static_cast<std::uint32_t>(i + cells[0] * (j + cells[1] * k)), i, j, k};
    }

    [[nodiscard]] MultiIndex3 cellOf(std::uint32_t number) const noexcept {
        return MultiIndex3::fromLinear(number, mySearch.vertices.cells());
    }
    /// The list, which the simple cases do not touch.
    [[nodiscard]] std::span<const std::uint32_t> list() const noexcept {
        const std::uint32_t begin = mySearch.lists.offsets[myUnicell], end = mySearch.lists.offsets[myUnicell + 1];
        return {mySearch.lists.cells.data() + begin, end - begin};
    }
    /// The place of a cell in the list; the list's length if it is not there.
    [[nodiscard]] std::size_t find(std::uint32_t number) const noexcept {
        const auto cells = list();
        const auto entry = std::lower_bound(cells.begin(), cells.end(), number);
        return entry != cells.end() && *entry == number ? static_cast<std::size_t>(entry - cells.begin())
                                                        : cells.size();
    }
    [[nodiscard]] bool isListed(const Candidate& candidate) const noexcept {
        // A point in a cell's box is in one of the cell's unicells: no need to look into the list.
        const double* const lowest = mySearch.vertices.address(candidate.i, candidate.j, candidate.k);
        bool isInBox = true;
        for (int d = 0; d < 3; ++d) {
            double low = lowest[d], high = low;
            for (int q = 1; q < 8; ++q) {
                const double c = mySearch.vertices.corner(lowest, q)[d];
                low = std::min(low, c);
                high = std::max(high, c);
            }
            isInBox &= myP[d] >= low && myP[d] <= high;
        }
        return (isInBox && mySearch.unigrid.isFinite) || find(candidate.number) != list().size();
    }

    /// Tries a cell, for all to see. What it leaves in `uvw` is what the next one finds there.
    bool attempt(const MultiIndex3& cell) {
        if (solveInCell<true>(myUvw, myP, cell, *myMapper.myCoordinates, myMapper.myPrecision) == Outcome::Found)
            return true;
        if (!myHasNearMiss && isNearMiss(myUvw, cell, myLast, myEpsilon)) {
            myHasNearMiss = true;
            myNearMiss = myUvw;
            myNearMissNumber = static_cast<std::uint32_t>(cell.linear(mySearch.vertices.cells()));
        }
        return false;
    }
    /// Gives `uvw` the value that it would have before the attempt at a place of the list, had all before been tried:
    /// that of the last solve that did not give up. Solves that give up leave the value, which may be a near miss then.
    void catchUp(std::size_t place) {
        const auto cells = list();
        for (std::size_t before = place; before != myNext;)
            if (solveInCell<false>(myUvw, myP, cellOf(cells[--before]), *myMapper.myCoordinates,
                                   myMapper.myPrecision) != Outcome::Limit)
                break;
        myNext = place + 1;
    }
    unsigned int conclude() {
        if (!myHasNearMiss) return 0;
        myUvw = myNearMiss;
        return 2;
    }

    const UniGridMapper& myMapper;
    const Search& mySearch;
    std::size_t myUnicell;
    const point& myP;
    point& myUvw;
    double myEpsilon;
    MultiIndex3 myLast;
    std::size_t myNext = 0; // all places before have had their effect on `uvw`
    bool myHasNearMiss = false;
    point myNearMiss;
    std::uint32_t myNearMissNumber = 0;
};

UniGridMapper::UniGridMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, double resolution, double precision)
    : myCoordinates(coordinates) {
    VANTLE_SCOPE("UniGridMapper::UniGridMapper()");
    mySearch = std::make_unique<Search>(viewOf(coordinates));
    measure(resolution, precision);
    // What cannot be recorded has its message.
    mySearch->lists.build(mySearch->vertices, mySearch->unigrid, MaximalListEntries,
                          [this](const MultiIndex3& cell) { (void)add(cell); });
    myMaximalListLength = static_cast<int>(mySearch->lists.longest);
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
    const auto makeTree = [&](LinearReach::Effect effect) {
        CellBoxTree tree(search.vertices.cells(), search.unigrid.lowest, search.unigrid.highest);
        tree.build(LinearReach(search.vertices, tree, effect, parameters));
        return tree;
    };
    search.effects = makeTree(LinearReach::Effect::Any);
    search.nearMisses = makeTree(LinearReach::Effect::NearMiss);
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
    const Vantle::detail::UnicellLists& lists = mySearch->lists;
    const index_t u = unicell.linear(myUnigridSize);
    IndexList_t cells;
    for (std::uint32_t entry = lists.offsets[u]; entry < lists.offsets[u + 1]; ++entry)
        cells.push_back(MultiIndex3::fromLinear(lists.cells[entry], mySearch->vertices.cells()));
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
        switch (firstStep(at, P, it, vertices, prec)) {
        case FirstStep::Found:
            uvw = at;
            return true;
        case FirstStep::Left:
            uvw = at;
            return false;
        case FirstStep::NotFinite:
        case FirstStep::Unfinished:
            break;
        }
    } else if (vertices.size().product() == 0) {
        return false;
    }
    return solveInCell<true>(uvw, P, it, Data, prec) == Outcome::Found;
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGrid(const point& p, point& uvw, double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(p, uvw, grid_epsilon)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 0;
    Walk walk(*this, unicell.linear(myUnigridSize), p, uvw, grid_epsilon);
    return mySearch->hasReach ? walk.few() : walk.all();
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGridProjective(const point& p, point& uvw,
                                                                        double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGridProjective(p, uvw, grid_epsilon)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 1;
    const Vantle::detail::UnicellLists& lists = mySearch->lists;
    const BlockVertices& vertices = mySearch->vertices;
    const index_t u = unicell.linear(myUnigridSize);
    const std::uint32_t begin = lists.offsets[u], end = lists.offsets[u + 1];
    if (begin == end) return 1;
    for (std::uint32_t entry = begin; entry < end; ++entry) {
        const MultiIndex3 cell = MultiIndex3::fromLinear(lists.cells[entry], vertices.cells());
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
