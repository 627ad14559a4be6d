#pragma once
/// The fast sweep of the marching cubes over a block: the surface of the plain cell-by-cell sweep, found by words of
/// bits.
///
/// Vertices are numbered in the order in which the plain sweep first uses their edges, so that the result does not
/// depend on how it was found. Two passes: the first classifies the vertices and counts what each layer of cells adds;
/// the second, when the storage is there, visits only the words of 64 cells that the level crosses. Both passes deal
/// out layers to the threads of the team; a thread that begins in the middle numbers the layer before once more.
///
/// Blanked cells are taken out of the words. Cells next to them find edges new that blanked cells would have had; these
/// few ask their neighbours, all others take what the tables know.

#include <baseop/BaseOpExport.hpp>
#include <baseop/detail/surface/LevelMask.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MultiArray.hpp>
#include <model/vantle/Simplex.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
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
    void prefetch(std::size_t lower, std::size_t upper) const noexcept {
        __builtin_prefetch(points + lower * stride);
        __builtin_prefetch(points + upper * stride);
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
    StoredValues(const MultiArray<3, T>& data, double level)
        : mySize(data.Size()), myValues(data.data()), myStride(static_cast<std::size_t>(data.stride())), myLevel(level),
          myTest(level) {}

    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    [[nodiscard]] double level() const noexcept { return myLevel; }
    /// The value of the vertex with this index.
    [[nodiscard]] double operator[](std::size_t vertex) const noexcept {
        return static_cast<double>(myValues[vertex * myStride]);
    }
    [[nodiscard]] bool isBelow(std::size_t vertex) const noexcept { return myTest.below(myValues[vertex * myStride]); }
    /// Which of up to 64 vertices of a row have values below the level, from this vertex on.
    [[nodiscard]] std::uint64_t below(std::size_t vertex, std::size_t count) const noexcept {
        return myTest.below(myValues + vertex * myStride, count, myStride);
    }
    /// Asks for what `below` will need. Inline, or the compiler takes it for a function without effect and drops the
    /// call.
    [[gnu::always_inline]] void prefetch(std::size_t vertex, std::size_t count) const noexcept {
        const T* const values = myValues + vertex * myStride;
        for (std::size_t at = 0; at < count * myStride; at += 64 / sizeof(T)) __builtin_prefetch(values + at);
    }

private:
    MultiIndex<3> mySize;
    const T* myValues;
    std::size_t myStride;
    double myLevel;
    LevelTest<T> myTest;
};

/// A plane in space, and the distances of positions from it: positive where the normal shows.
struct PlaneDistance {
    Point origin;
    Orvix::PhysicalSpace::vector unit; ///< the normal, of length 1

    [[nodiscard]] double operator()(const Point& p) const noexcept { return dot(p - origin, unit); }
};

/// Distances of vertices from a plane, computed where they are asked for; the level is 0. The positions outlive this.
template<class Positions>
class PlaneDistances;

template<>
class PlaneDistances<StoredPositions> {
public:
    PlaneDistances(const PlaneDistance& plane, const StoredPositions& positions, const MultiIndex<3>& size)
        : myPlane(plane), myPositions(positions), mySize(size) {}

    [[nodiscard]] const MultiIndex<3>& size() const noexcept { return mySize; }
    [[nodiscard]] double level() const noexcept { return 0.0; }
    [[nodiscard]] double operator[](std::size_t vertex) const noexcept {
        return myPlane(myPositions.points[vertex * myPositions.stride]);
    }
    [[nodiscard]] bool isBelow(std::size_t vertex) const noexcept { return (*this)[vertex] < 0.0; }
    [[nodiscard]] std::uint64_t below(std::size_t vertex, std::size_t count) const noexcept {
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < count; ++i) bits |= std::uint64_t{isBelow(vertex + i)} << i;
        return bits;
    }
    [[gnu::always_inline]] void prefetch(std::size_t vertex, std::size_t count) const noexcept {
        const Point* const points = myPositions.points + vertex * myPositions.stride;
        for (std::size_t at = 0; at < count * myPositions.stride; at += 2) __builtin_prefetch(points + at);
    }

private:
    PlaneDistance myPlane;
    StoredPositions myPositions;
    MultiIndex<3> mySize;
};

/// Sums of three terms, each of one axis.
template<>
class PlaneDistances<ProductPositions> {
public:
    PlaneDistances(const PlaneDistance& plane, const ProductPositions& positions, const MultiIndex<3>& size)
        : mySize(size) {
        for (std::size_t d = 0; d < 3; ++d)
            for (const double at : positions.axes[d])
                myTerms[d].push_back((at - plane.origin[static_cast<int>(d)]) * plane.unit[static_cast<int>(d)]);
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
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < count; ++i) bits |= std::uint64_t{(x[i] + y) + z < 0.0} << i;
        return bits;
    }
    void prefetch(std::size_t, std::size_t) const noexcept {}

private:
    MultiIndex<3> mySize;
    std::array<std::vector<double>, 3> myTerms;
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
    /// What the layers before one have added.
    struct Layer {
        index_t firstVertex = 0;
        index_t firstTriangle = 0;
    };
    class Planes;
    template<class Positions>
    class VertexQueue;

    [[nodiscard]] std::size_t layerCount() const noexcept { return mySize[2] - 1; }
    /// The first vertex of a row.
    [[nodiscard]] std::size_t row(std::size_t j, std::size_t k) const noexcept {
        return (k * mySize[1] + j) * mySize[0];
    }
    [[nodiscard]] std::uint64_t classify(std::size_t j, std::size_t k, std::size_t word) const noexcept;
    void prefetchWord(std::size_t cellWord, std::size_t k) const noexcept;
    void countLayers(std::size_t begin, std::size_t end, std::uint64_t* masks);
    void classifyPlane(std::size_t k, std::uint64_t* masks) const noexcept;
    template<bool Write, class Positions>
    void fillLayer(std::size_t k, Planes& planes, const SweepTarget& target, const EdgeNumbering& numbering,
                   const Positions& positions) const;
    template<class Positions>
    void fillLayers(std::size_t begin, std::size_t end, Planes& planes, const SweepTarget& target,
                    const EdgeNumbering& numbering, const Positions& positions) const;

    Values myValues;
    std::array<std::size_t, 3> mySize; // vertices
    const BlockMask* myMask;
    std::size_t myVertexWords = 0;       // words of 64 vertices in a row
    std::size_t myCellWords = 0;         // words of 64 cells in a row
    std::size_t myActiveWords = 0;       // words of bits for the cell words of a layer
    std::vector<Layer> myLayers;         // one more than there are layers
    std::vector<std::uint64_t> myActive; // which cell words the level crosses, layer by layer
};

} // namespace Vantle::detail
