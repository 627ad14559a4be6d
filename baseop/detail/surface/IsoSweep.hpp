#pragma once
/// The fast sweep of the marching cubes over a block: the surface of the plain cell-by-cell sweep, found by words of
/// bits.
///
/// Vertices are numbered in the order in which the plain sweep first uses their edges, so that the result does not
/// depend on how it was found. Two passes: the first classifies the vertices, keeps the cells that the level crosses,
/// with their cases, and counts what each layer of cells adds; the second, when the storage is there, visits these.
/// Both passes deal out layers to the threads of the team; a thread that begins in the middle numbers the layer before
/// once more.
///
/// Where the least and the greatest value of bricks are known, bricks that the level does not cross are not read.
///
/// Blanked cells are taken out of the words. Cells next to them find edges new that blanked cells would have had; these
/// few ask their neighbours, all others take what the tables know.

#include <baseop/BaseOpExport.hpp>
#include <baseop/detail/ValueBricks.hpp>
#include <baseop/detail/surface/LevelMask.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MultiArray.hpp>
#include <model/vantle/Simplex.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace Vantle::detail {

using Point = Orvix::PhysicalSpace::point;

/// The most vertices of a surface: 2^32, since triangles number them by 32 bits. Tests make do with fewer.
VANTLE_BASEOP_API extern std::atomic<index_t> mostVertices;

/// Throws std::length_error if a surface cannot have so many vertices.
void checkVertexCount(index_t vertices);

/// How the edges of a block are named: the edge along `axis` from vertex (i, j, k) is
/// first[axis] + i + j * strideY[axis] + k * strideZ[axis].
struct EdgeNumbering {
    /// That of a vertex array of these extents, of which the block begins at `start`, with `offset` added to all.
    EdgeNumbering(const MultiIndex<3>& extents, const MultiIndex<3>& start, index_t offset) noexcept;

    [[nodiscard]] index_t operator()(int axis, index_t i, index_t j, index_t k) const noexcept {
        const auto a = static_cast<std::size_t>(axis);
        return first[a] + i + j * strideY[a] + k * strideZ[a];
    }

    std::array<index_t, 3> first, strideY, strideZ;
};

/// Where a sweep puts what it finds. Points and triangles have room for `vertices()` and `triangles()` elements;
/// identifiers and weights have too, or are null.
struct SweepTarget {
    Point* points = nullptr;
    TriangleCell* triangles = nullptr;
    index_t* identifiers = nullptr;
    double* weights = nullptr;
    /// Index of the first vertex.
    unsigned int firstVertex = 0;
};

/// Positions of vertices that lie in memory.
struct StoredPositions {
    const Point* points;
    std::size_t stride;

    /// Asks for what `onEdge` will need.
    [[gnu::always_inline]] void prefetch(std::size_t lower, std::size_t upper) const noexcept {
        for (const std::size_t at : {lower, upper}) { // which may lie in two lines each
            __builtin_prefetch(&points[at * stride][0]);
            __builtin_prefetch(&points[at * stride][2]);
        }
    }
    [[nodiscard]] Point onEdge(int axis, const std::array<std::size_t, 3>& at, std::size_t linear,
                               const std::array<std::size_t, 3>& step, double weight) const noexcept {
        (void)at;
        const Point& lower = points[linear * stride];
        const Point& upper = points[(linear + step[static_cast<std::size_t>(axis)]) * stride];
        return lower + weight * (upper - lower);
    }
    /// The position of the vertex with this index.
    [[nodiscard]] Point at(index_t linear, const MultiIndex<3>&) const noexcept {
        return points[static_cast<std::size_t>(linear) * stride];
    }
};

/// Positions that are the direct product of three lists.
struct ProductPositions {
    std::array<std::vector<double>, 3> axes;

    void prefetch(std::size_t, std::size_t) const noexcept {}
    [[nodiscard]] Point onEdge(int axis, const std::array<std::size_t, 3>& at, std::size_t linear,
                               const std::array<std::size_t, 3>& step, double weight) const noexcept {
        (void)linear, (void)step;
        const Point lower(axes[0][at[0]], axes[1][at[1]], axes[2][at[2]]);
        Point upper = lower;
        upper[axis] = axes[static_cast<std::size_t>(axis)][at[static_cast<std::size_t>(axis)] + 1];
        return lower + weight * (upper - lower);
    }
    [[nodiscard]] Point at(index_t linear, const MultiIndex<3>& size) const noexcept {
        const MultiIndex<3> vertex = MultiIndex<3>::fromLinear(linear, size);
        Point p;
        for (int d = 0; d < 3; ++d) p[d] = axes[static_cast<std::size_t>(d)][static_cast<std::size_t>(vertex[d])];
        return p;
    }
};

/// Values that lie in memory, and a level. The data outlive this.
template<class T>
class StoredValues {
public:
    /// @param bricks  those of the data, or null; asked here, and not later.
    StoredValues(const MultiArray<3, T>& data, double level, const ValueBricks<T>* bricks = nullptr);

    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    [[nodiscard]] double level() const noexcept { return myLevel; }
    /// The value of the vertex with this index.
    [[nodiscard]] double operator[](std::size_t vertex) const noexcept {
        return static_cast<double>(myValues[vertex * myStride]);
    }
    [[nodiscard]] bool isBelow(std::size_t vertex) const noexcept { return myTest.below(myValues[vertex * myStride]); }
    /// Which vertices of plane k have values below the level: words of 64, whose rows begin `wordStep` words apart.
    void classifyPlane(std::size_t k, std::uint64_t* words, std::size_t wordStep) const noexcept;
    /// Whether it is known that the level crosses no cell of row (j, k).
    [[nodiscard]] bool isUncut(std::size_t j, std::size_t k) const noexcept { return myKnown.isUncut(j, k); }
    /// How many cells the level may well cross, or 0 if nothing is known.
    [[nodiscard]] std::size_t likelyCutCells() const noexcept { return myKnown.likelyCutCells(); }
    /// Asks for a value. Inline, or the compiler takes it for a function without effect and drops the call.
    [[gnu::always_inline]] void prefetch(std::size_t vertex) const noexcept {
        __builtin_prefetch(myValues + vertex * myStride);
    }

private:
    MultiIndex<3> mySize;
    const T* myValues;
    std::size_t myStride;
    double myLevel;
    LevelTest<T> myTest;
    KnownBlock myKnown;
};

/// Distances of vertices from a plane, computed where they are asked for; the level is 0. The positions outlive this.
template<class Positions>
class PlaneDistances;

template<>
class PlaneDistances<StoredPositions> {
public:
    /// @param bricks  those of the positions, or null; asked here, and not later.
    PlaneDistances(const PlaneDistance& plane, const StoredPositions& positions, const MultiIndex<3>& size,
                   const ValueBricks<Point>* bricks);

    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    [[nodiscard]] double level() const noexcept { return 0.0; }
    [[nodiscard]] double operator[](std::size_t vertex) const noexcept {
        return myPlane(myPositions.points[vertex * myPositions.stride]);
    }
    [[nodiscard]] bool isBelow(std::size_t vertex) const noexcept { return (*this)[vertex] < 0.0; }
    void classifyPlane(std::size_t k, std::uint64_t* words, std::size_t wordStep) const noexcept;
    [[nodiscard]] bool isUncut(std::size_t j, std::size_t k) const noexcept { return myKnown.isUncut(j, k); }
    [[nodiscard]] std::size_t likelyCutCells() const noexcept { return myKnown.likelyCutCells(); }
    void prefetch(std::size_t) const noexcept {} // positions are asked for

private:
    PlaneDistance myPlane;
    StoredPositions myPositions;
    MultiIndex<3> mySize;
    DistanceClassifier myClassifier = distanceClassifier();
    KnownBlock myKnown;
};

/// Sums of three terms, each of one axis.
template<>
class PlaneDistances<ProductPositions> {
public:
    PlaneDistances(const PlaneDistance& plane, const ProductPositions& positions, const MultiIndex<3>& size,
                   const ValueBricks<Point>*)
        : mySize(size) {
        for (std::size_t d = 0; d < 3; ++d)
            for (const double at : positions.axes[d])
                myTerms[d].push_back((at - plane.origin[static_cast<int>(d)]) * plane.unit[static_cast<int>(d)]);
        const std::vector<double>& x = myTerms[0];
        myIsMonotone = std::is_sorted(x.begin(), x.end()) || std::is_sorted(x.begin(), x.end(), std::greater<>());
        for (const std::vector<double>& terms : myTerms)
            for (const double term : terms) myIsMonotone = myIsMonotone && std::isfinite(term);
    }

    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    [[nodiscard]] double level() const noexcept { return 0.0; }
    [[nodiscard]] double operator[](std::size_t vertex) const noexcept {
        const MultiIndex<3> at = MultiIndex<3>::fromLinear(vertex, mySize);
        return (myTerms[0][at[0]] + myTerms[1][at[1]]) + myTerms[2][at[2]];
    }
    [[nodiscard]] bool isBelow(std::size_t vertex) const noexcept { return (*this)[vertex] < 0.0; }
    [[nodiscard]] std::uint64_t below(std::size_t vertex, std::size_t count) const noexcept {
        const MultiIndex<3> at = MultiIndex<3>::fromLinear(vertex, mySize);
        const double* const x = myTerms[0].data() + at[0];
        const double y = myTerms[1][at[1]], z = myTerms[2][at[2]];
        // Sums keep the order of their terms, however they are rounded.
        if (const bool isBelow = (x[0] + y) + z < 0.0; myIsMonotone && ((x[count - 1] + y) + z < 0.0) == isBelow)
            return isBelow ? ~std::uint64_t{0} >> (64 - count) : 0;
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < count; ++i) bits |= std::uint64_t{(x[i] + y) + z < 0.0} << i;
        return bits;
    }
    void classifyPlane(std::size_t k, std::uint64_t* words, std::size_t wordStep) const noexcept {
        const auto row = static_cast<std::size_t>(mySize[0]), rows = static_cast<std::size_t>(mySize[1]);
        for (std::size_t j = 0; j < rows; ++j)
            for (std::size_t begin = 0; begin < row; begin += 64)
                words[j * wordStep + begin / 64] =
                    below((k * rows + j) * row + begin, std::min<std::size_t>(64, row - begin));
    }
    [[nodiscard]] bool isUncut(std::size_t, std::size_t) const noexcept { return false; }
    [[nodiscard]] std::size_t likelyCutCells() const noexcept { return 0; }
    void prefetch(std::size_t) const noexcept {}

private:
    MultiIndex<3> mySize;
    std::array<std::vector<double>, 3> myTerms;
    bool myIsMonotone = false; // of those of axis 0, all being finite
};

/// The classified vertices of four rows around 64 cells of a row, and those after them.
struct RowWords {
    /// From words of the rows (j, k), (j+1, k), (j, k+1) and (j+1, k+1), behind each of which there is a next one.
    RowWords(const std::uint64_t* a, const std::uint64_t* b, const std::uint64_t* c, const std::uint64_t* d) noexcept
        : lowLow(a[0]), highLow(b[0]), lowHigh(c[0]), highHigh(d[0]), next{a[1], b[1], c[1], d[1]} {}

    /// Cells that are neither wholly below nor wholly not below the level.
    [[nodiscard]] std::uint64_t cut() const noexcept {
        const std::uint64_t some = lowLow | highLow | lowHigh | highHigh;
        const std::uint64_t all = lowLow & highLow & lowHigh & highHigh;
        const std::uint64_t someNext = some >> 1 | (next[0] | next[1] | next[2] | next[3]) << 63;
        const std::uint64_t allNext = all >> 1 | (next[0] & next[1] & next[2] & next[3]) << 63;
        return (some | someNext) & ~(all & allNext);
    }
    [[nodiscard]] std::size_t rowCase(int cell) const noexcept {
        if (cell == 63) [[unlikely]]
            return lowLow >> 63 | (next[0] & 1) << 1 | (highLow >> 63) << 2 | (next[1] & 1) << 3 |
                   (lowHigh >> 63) << 4 | (next[2] & 1) << 5 | (highHigh >> 63) << 6 | (next[3] & 1) << 7;
        return (lowLow >> cell & 3) | (highLow >> cell & 3) << 2 | (lowHigh >> cell & 3) << 4 |
               (highHigh >> cell & 3) << 6;
    }

private:
    std::uint64_t lowLow, highLow, lowHigh, highHigh;
    std::uint64_t next[4]; // of which the first bit counts
};

/// The sweep over one block of values at one level: `StoredValues` or `PlaneDistances`.
template<class Values>
class IsoSweep {
public:
    /// Classifies and counts. What the values view outlives the sweep, and so does the mask, which has their extents,
    /// if any.
    explicit IsoSweep(const Values& values, const BlockMask* mask = nullptr);

    /// Whether the block has cells at all.
    [[nodiscard]] bool hasCells() const noexcept { return !myLayers.empty(); }
    [[nodiscard]] index_t vertices() const noexcept { return myLayers.empty() ? 0 : myLayers.back().firstVertex; }
    [[nodiscard]] index_t triangles() const noexcept { return myLayers.empty() ? 0 : myLayers.back().firstTriangle; }

    /// Writes the surface. `positions` have the extents of the data.
    template<class Positions>
    void fill(const SweepTarget& target, const EdgeNumbering& numbering, const Positions& positions) const;

private:
    /// A cell in its layer, in one number: i + 2^32 * j.
    using Place = std::uint64_t;
    static constexpr std::size_t i(Place place) noexcept { return place & 0xffffffff; }
    static constexpr std::size_t j(Place place) noexcept { return place >> 32; }
    /// A cell is kept as its number in its word and its case, and what else is to be known of it.
    static constexpr unsigned CellStep = 1U << 8, IsLastOfWord = 1U << 14, IsBesideBlanked = 1U << 15;
    /// Valid cells that the level crosses, the first cells of words of 64 with such, and of cells beside blanked ones
    /// the edges that earlier cells have, a bit each.
    struct CutCells {
        std::vector<std::uint16_t> cells;
        std::vector<Place> words;
        std::vector<std::uint16_t> shared;
    };
    /// What the layers before one have added, and where the level crosses it.
    struct Layer {
        index_t firstVertex = 0;
        index_t firstTriangle = 0;
        std::span<const std::uint16_t> cells;
        const Place* words = nullptr;
        const std::uint16_t* shared = nullptr;
    };
    class Planes;
    template<class Positions>
    class VertexQueue;

    [[nodiscard]] std::size_t layerCount() const noexcept { return mySize[2] - 1; }
    void countLayers(std::size_t begin, std::size_t end, std::uint64_t* masks, CutCells& found);
    template<class Queue>
    void fillLayer(std::size_t k, Planes& planes, const SweepTarget& target, Queue* queue,
                   const TriangleCell* end) const;
    template<class Positions>
    void fillLayers(std::size_t begin, std::size_t end, Planes& planes, const SweepTarget& target,
                    const EdgeNumbering& numbering, const Positions& positions) const;

    Values myValues;
    std::array<std::size_t, 3> mySize; // vertices
    const BlockMask* myMask;
    std::size_t myVertexWords = 0; // words of 64 vertices in a row
    std::size_t myCellWords = 0;   // words of 64 cells in a row
    std::vector<Layer> myLayers;   // one more than there are layers
    std::vector<CutCells> myFound; // by the threads
};

} // namespace Vantle::detail
