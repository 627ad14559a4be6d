#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/BlockVertices.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/orvix/CellMap.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

using Hestra::Console;
using Hestra::Profiler;
using Orvix::PhysicalSpace;
using Vantle::index_t;
using Vantle::MultiArrayBase;
using Vantle::MultiIndex;
using Vantle::detail::BlockVertices;
using Vantle::detail::CentreFrame;

#define VANTLE_SOURCE "baseop/UniGridMapper"
#define VANTLE_SCOPE(signature) const Profiler profiler(VANTLE_SOURCE, __LINE__, signature, __PRETTY_FUNCTION__)

namespace {

using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;

/// How a solve in one cell ended.
enum class Outcome {
    Found,
    Left,      // the iterate is outside of the cell
    NotFinite, // the iterate, or its position, is no number
    Limit,     // the iterate still is in the cell
};

bool isFinite(double x, double y, double z) noexcept {
    // A sum of infinities or with a NaN times zero is NaN; finite numbers give zero.
    return x * 0.0 + y * 0.0 + z * 0.0 == 0.0;
}

/// The derivatives of the cell map at a position.
void differentiate(vector (&column)[3], const MultiArrayBase<3, point>& vertices, const point& at) {
    const auto vectors = Vantle::asVectors(vertices);
    column[0] = Vantle::differentiateAt<0>(vectors, at);
    column[1] = Vantle::differentiateAt<1>(vectors, at);
    column[2] = Vantle::differentiateAt<2>(vectors, at);
}

template<bool Prints>
Outcome solve(point& uvw, const point& P, const MultiIndex<3>& cell, const MultiArrayBase<3, point>& vertices,
              double precision) {
    const double low[3] = {static_cast<double>(cell[0]), static_cast<double>(cell[1]), static_cast<double>(cell[2])};
    point at(low[0] + 0.5, low[1] + 0.5, low[2] + 0.5);
    point X = Vantle::interpolateAt(vertices, at);
    const double enough = precision * precision;
    if (normSquared(P - X) <= enough) {
        uvw = at;
        return Outcome::Found;
    }
    vector column[3];
    Orvix::Quadratic<3, double> inverse;
    int iterations = 0;
    do {
        differentiate(column, vertices, at);
        if (!Orvix::tryInvert3x3(inverse, column[0], column[1], column[2])) {
            if constexpr (Prints) Console::puts("WHAT?");
        }
        const vector step = inverse * (P - X);
        at += step;
        X += vector(column[0][0] * step[0] + column[1][0] * step[1] + column[2][0] * step[2],
                    column[0][1] * step[0] + column[1][1] * step[1] + column[2][1] * step[2],
                    column[0][2] * step[0] + column[1][2] * step[1] + column[2][2] * step[2]);
        if (!isFinite(at[0], at[1], at[2]) || !isFinite(X[0], X[1], X[2])) {
            constexpr double nan = std::numeric_limits<double>::quiet_NaN();
            uvw = point(nan, nan, nan);
            return Outcome::NotFinite;
        }
        for (int d = 0; d < 3; ++d)
            if (at[d] < low[d] || at[d] > low[d] + 1.0) {
                uvw = at;
                return Outcome::Left;
            }
        if (++iterations == UniGridMapper::MaximalIterations) {
            if constexpr (Prints) Console::print("getLocalCoordinates3D(): Prevented endless loop BREAK!\n");
            return Outcome::Limit;
        }
    } while (normSquared(P - X) > enough);
    uvw = at;
    return Outcome::Found;
}

} // namespace

/// The cells of every unicell: those of unicell U are numbers offsets[U] to offsets[U + 1] of `cells`, ascending.
struct UniGridMapper::Lists {
    std::vector<std::uint32_t> offsets, cells;
};

UniGridMapper::UniGridMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, double resolution, double precision)
    : myCoordinates(coordinates) {
    VANTLE_SCOPE("UniGridMapper::UniGridMapper()");
    measure(resolution, precision);
    fillLists();
    Console::print("Added the curvi cells into the unigrid, Maximal %d curvicells per unicell\n", myMaximalListLength);
}

UniGridMapper::~UniGridMapper() = default;

void UniGridMapper::measure(double resolution, double precision) {
    const BlockVertices vertices(myCoordinates ? *myCoordinates : MultiArrayBase<3, point>());
    const MultiIndex3& n = vertices.size();
    double meanSquare = 0.0;
    if (n.product() != 0) {
        myBox.embrace(vertices.point(vertices.address(0, 0, 0)));
        if (n[0] > 1)
            meanSquare =
                normSquared(vertices.point(vertices.address(0, 0, 0)) - vertices.point(vertices.address(1, 0, 0)));
    }
    for (index_t k = 0; k < n[2]; ++k)
        for (index_t j = 0; j < n[1]; ++j)
            for (index_t i = 0; i < n[0]; ++i) {
                const double* const at = vertices.address(i, j, k);
                const point p = vertices.point(at);
                myBox.embrace(p);
                if (i + 1 >= n[0] || j + 1 >= n[1] || k + 1 >= n[2]) continue;
                for (int axis = 0; axis < 3; ++axis)
                    meanSquare = (normSquared(p - vertices.point(at + vertices.step(axis))) + meanSquare) * 0.5;
            }
    myBox.updateBall();

    const double length = std::sqrt(meanSquare);
    const double scale = resolution * 1.2 / length;
    myPrecision = precision * 0.01 * length;
    const vector extent = myBox.maxCoord() - myBox.minCoord();
    for (int axis = 0; axis < 3; ++axis) {
        const double unicells = extent[axis] * scale;
        if (!(unicells >= 2.0)) {
            Console::print(VANTLE_SOURCE "UNIGRIDMAPPER WARNING: Resolution too coarse\n");
            myUnigridSize[axis] = 2;
        } else {
            // Whatever is too much is all the same, and casts of it are undefined.
            myUnigridSize[axis] = static_cast<index_t>(std::min(unicells, 2.0 * MaximalUnicells));
        }
        myUnicellSize[axis] = extent[axis] / static_cast<double>(myUnigridSize[axis] - 1);
    }
    const auto total = myUnigridSize.checkedProduct();
    if (!total || *total > MaximalUnicells) throw std::length_error("UniGridMapper: too many unicells");
}

void UniGridMapper::fillLists() {
    const BlockVertices vertices(myCoordinates ? *myCoordinates : MultiArrayBase<3, point>());
    const MultiIndex3 cells = vertices.cells();
    const auto forEachCell = [&](auto&& f) {
        MultiIndex3 cell, low, high;
        if (cells.product() == 0) return;
        std::uint32_t number = 0;
        do {
            if (cellRange(cell, low, high, false)) f(number, low, high);
            ++number;
        } while (cell.advance(cells));
    };
    index_t entries = 0;
    forEachCell(
        [&](std::uint32_t, const MultiIndex3& low, const MultiIndex3& high) { entries += (high - low + 1).product(); });
    if (entries > MaximalListEntries) throw std::length_error("UniGridMapper: too many entries in the lists of cells");

    auto lists = std::make_unique<Lists>();
    lists->offsets.assign(static_cast<std::size_t>(myUnigridSize.product()) + 1, 0);
    lists->cells.resize(static_cast<std::size_t>(entries));
    const auto forEachUnicell = [&](const MultiIndex3& low, const MultiIndex3& high, auto&& f) {
        for (index_t z = low[2]; z <= high[2]; ++z)
            for (index_t y = low[1]; y <= high[1]; ++y)
                for (index_t x = low[0]; x <= high[0]; ++x) f(MultiIndex3(x, y, z).linear(myUnigridSize));
    };
    forEachCell([&](std::uint32_t, const MultiIndex3& low, const MultiIndex3& high) {
        forEachUnicell(low, high, [&](index_t unicell) { ++lists->offsets[unicell + 1]; });
    });
    std::uint32_t longest = 0;
    for (std::size_t u = 1; u < lists->offsets.size(); ++u) {
        longest = std::max(longest, lists->offsets[u]);
        lists->offsets[u] += lists->offsets[u - 1];
    }
    myMaximalListLength = static_cast<int>(longest);
    std::vector<std::uint32_t> end(lists->offsets.begin(), lists->offsets.end() - 1);
    forEachCell([&](std::uint32_t number, const MultiIndex3& low, const MultiIndex3& high) {
        forEachUnicell(low, high, [&](index_t unicell) { lists->cells[end[unicell]++] = number; });
    });
    myLists = std::move(lists);
}

UniGridMapper::Unicell UniGridMapper::unicellOf(const point& p, int (&index)[3]) const noexcept {
    if (!myBox.inside(p)) return Unicell::OutOfBox;
    bool isMapped = true;
    for (int d = 0; d < 3; ++d) {
        const int last = static_cast<int>(myUnigridSize[d]) - 1;
        // The quotient on the box's maximum may be rounded to less than the last unicell, or be 0 / 0.
        if (p[d] >= myBox.maxCoord()[d]) {
            index[d] = last;
            continue;
        }
        const double quotient = std::floor((p[d] - myBox.minCoord()[d]) / myUnicellSize[d]);
        constexpr double most = std::numeric_limits<int>::max();
        index[d] = quotient >= -most && quotient <= most ? static_cast<int>(quotient) : std::numeric_limits<int>::min();
        isMapped &= index[d] >= 0 && index[d] <= last;
    }
    return isMapped ? Unicell::Found : Unicell::Unmapped;
}

bool UniGridMapper::inUniCell(const point& p, MultiIndex3& index) const {
    VANTLE_SCOPE("UniGridMapper::inUniCell(p, index)");
    int found[3] = {};
    switch (unicellOf(p, found)) {
    case Unicell::Found:
        index = MultiIndex3(found[0], found[1], found[2]);
        return true;
    case Unicell::OutOfBox:
        Console::print("UniGridMapper::inUniCell() point of of bounds!\n");
        return false;
    case Unicell::Unmapped:
        break;
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

bool UniGridMapper::cellRange(const MultiIndex3& cell, MultiIndex3& low, MultiIndex3& high, bool isSilent) const {
    const BlockVertices vertices(*myCoordinates);
    const double* const lowest = vertices.address(cell);
    Orvix::BoundingBox box;
    for (const int corner : {0, 1, 3, 2, 5, 7, 6, 4}) box.embrace(vertices.point(vertices.corner(lowest, corner)));
    (void)isSilent;
    return inUniCell(box.minCoord(), low) && inUniCell(box.maxCoord(), high);
}

bool UniGridMapper::curviCells(const point& p, IndexList_t& list) const {
    VANTLE_SCOPE("UniGridMapper::curviCells(p, list)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return false;
    const MultiIndex3 cells = BlockVertices(myCoordinates ? *myCoordinates : MultiArrayBase<3, point>()).cells();
    const index_t u = unicell.linear(myUnigridSize);
    list.clear();
    for (std::uint32_t entry = myLists->offsets[u]; entry < myLists->offsets[u + 1]; ++entry)
        list.push_back(MultiIndex3::fromLinear(myLists->cells[entry], cells));
    return !list.empty();
}

bool UniGridMapper::add(const MultiIndex3& curvi_i) {
    VANTLE_SCOPE("UniGridMapper::add(curvi_i)");
    const BlockVertices vertices(myCoordinates ? *myCoordinates : MultiArrayBase<3, point>());
    MultiIndex3 low, high;
    return curvi_i.inside(vertices.cells()) && cellRange(curvi_i, low, high, false);
}

bool UniGridMapper::localCellCoordinatesFromCell(point& uvw, const point& P, const MultiIndex3& it,
                                                 const CoordsArray_t& Data, const MultiIndex3&, double prec) {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCell(uvw, P, it, Data, max, prec)");
    if (Data.Size().product() == 0) return false;
    return solve<true>(uvw, P, it, Data, prec) == Outcome::Found;
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGrid(const point& p, point& uvw, double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGrid(p, uvw, grid_epsilon)");
    IndexList_t candidates;
    if (!curviCells(p, candidates)) return 0;
    const MultiIndex3 last = myCoordinates->Size() - 1;
    bool hasNearMiss = false;
    point nearMiss;
    for (const MultiIndex3& cell : candidates) {
        if (solve<true>(uvw, p, cell, *myCoordinates, myPrecision) == Outcome::Found) return 1;
        bool isNear = !hasNearMiss;
        const bool isNegative = uvw[0] < 0.0 || uvw[1] < 0.0 || uvw[2] < 0.0;
        for (int d = 0; d < 3 && isNear; ++d) {
            isNear = uvw[d] > -grid_epsilon && uvw[d] < static_cast<double>(last[d]) + grid_epsilon;
            const double from = (isNegative ? 0.0 : std::floor(uvw[d])) - static_cast<double>(cell[d]);
            isNear = isNear && (from == 0.0 || from == 1.0);
        }
        if (!isNear) continue;
        hasNearMiss = true;
        nearMiss = uvw;
    }
    if (!hasNearMiss) return 0;
    uvw = nearMiss;
    return 2;
}

unsigned int UniGridMapper::localCellCoordinatesFromCurviGridProjective(const point& p, point& uvw,
                                                                        double grid_epsilon) const {
    VANTLE_SCOPE("UniGridMapper::localCellCoordinatesFromCurviGridProjective(p, uvw, grid_epsilon)");
    MultiIndex3 unicell;
    if (!inUniCell(p, unicell)) return 1;
    const index_t u = unicell.linear(myUnigridSize);
    const std::uint32_t begin = myLists->offsets[u], end = myLists->offsets[u + 1];
    if (begin == end) return 1;
    const BlockVertices vertices(*myCoordinates);
    for (std::uint32_t entry = begin; entry < end; ++entry) {
        const MultiIndex3 cell = MultiIndex3::fromLinear(myLists->cells[entry], vertices.cells());
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
