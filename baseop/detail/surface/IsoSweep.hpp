#pragma once
/// The fast sweep of the marching cubes over a block: the surface of the plain cell-by-cell sweep, found by words of
/// bits.
///
/// Vertices are numbered in the order in which the plain sweep first uses their edges, so that the result does not
/// depend on how it was found. Two passes: the first classifies the vertices, keeps the words of 64 cells that the
/// level crosses, and counts what each layer of cells adds; the second, when the storage is there, visits these words.
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

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
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
    void prefetch(std::size_t lower, std::size_t upper) const noexcept {
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

/// The classified vertices of four rows around 64 cells of a row, and the vertices after the last.
struct RowWords {
    std::uint64_t lowLow, highLow, lowHigh, highHigh; // (j, k), (j+1, k), (j, k+1), (j+1, k+1)
    unsigned next = 0;                                // the vertices after the last, one bit a row

    /// Cells that are neither wholly below nor wholly not below the level.
    [[nodiscard]] std::uint64_t cut() const noexcept {
        const std::uint64_t some = lowLow | highLow | lowHigh | highHigh;
        const std::uint64_t all = lowLow & highLow & lowHigh & highHigh;
        const std::uint64_t someNext = some >> 1 | std::uint64_t{next != 0} << 63;
        const std::uint64_t allNext = all >> 1 | std::uint64_t{next == 15} << 63;
        return (some | someNext) & ~(all & allNext);
    }
    [[nodiscard]] std::size_t rowCase(int cell) const noexcept {
        if (cell == 63) [[unlikely]]
            return lowLow >> 63 | (next & 1) << 1 | (highLow >> 63) << 2 | (next & 2) << 2 | (lowHigh >> 63) << 4 |
                   (next & 4) << 3 | (highHigh >> 63) << 6 | (next & 8) << 4;
        return (lowLow >> cell & 3) | (highLow >> cell & 3) << 2 | (lowHigh >> cell & 3) << 4 |
               (highHigh >> cell & 3) << 6;
    }
};

/// The sweep over one block of data at one level.
template<class T>
class IsoSweep {
public:
    /// Classifies and counts. The data outlive the sweep, and so does the mask, which has their extents, if any.
    ///
    /// @param bricks  those of the data, or null.
    IsoSweep(const MultiArray<3, T>& data, double level, const BlockMask* mask = nullptr,
             const ValueBricks<T>* bricks = nullptr);

    /// Whether the block has cells at all.
    [[nodiscard]] bool hasCells() const noexcept { return !myLayers.empty(); }
    [[nodiscard]] index_t vertices() const noexcept { return myLayers.empty() ? 0 : myLayers.back().firstVertex; }
    [[nodiscard]] index_t triangles() const noexcept { return myLayers.empty() ? 0 : myLayers.back().firstTriangle; }

    /// Writes the surface. `positions` have the extents of the data.
    template<class Positions>
    void fill(const SweepTarget& target, const EdgeNumbering& numbering, const Positions& positions) const;

private:
    /// 64 cells of a row, of which the level crosses some.
    struct CutWord {
        RowWords around;
        std::uint32_t number; // among those of the layer
        std::uint64_t cut;    // valid cells
    };
    /// What the layers before one have added, and where the level crosses it.
    struct Layer {
        index_t firstVertex = 0;
        index_t firstTriangle = 0;
        std::span<const CutWord> cutWords;
    };
    class Planes;
    template<class Positions>
    class VertexQueue;

    [[nodiscard]] std::size_t layerCount() const noexcept { return mySize[2] - 1; }
    [[nodiscard]] const T* row(std::size_t j, std::size_t k) const noexcept {
        return myValues + (k * mySize[1] + j) * mySize[0] * myStride;
    }
    void ask(const ValueBricks<T>& bricks);
    [[nodiscard]] const KnownWord* known(std::size_t brickRow, std::size_t brickLayer) const noexcept {
        return myKnown.empty() ? nullptr : myKnown.data() + (brickLayer * myBricks[0] + brickRow) * myVertexWords;
    }
    void countLayers(std::size_t begin, std::size_t end, std::uint64_t* masks, std::vector<CutWord>& cutWords);
    void classifyPlane(std::size_t k, std::uint64_t* masks) const noexcept;
    template<bool Write, class Positions>
    void fillLayer(std::size_t k, Planes& planes, const SweepTarget& target, const EdgeNumbering& numbering,
                   const Positions& positions, const TriangleCell* end) const;
    template<class Positions>
    void fillLayers(std::size_t begin, std::size_t end, Planes& planes, const SweepTarget& target,
                    const EdgeNumbering& numbering, const Positions& positions) const;

    const T* myValues;
    std::size_t myStride;
    std::array<std::size_t, 3> mySize; // vertices
    double myLevel;
    LevelTest<T> myTest;
    const BlockMask* myMask;
    std::size_t myVertexWords = 0; // words of 64 vertices in a row
    std::size_t myCellWords = 0;   // words of 64 cells in a row
    std::array<std::size_t, 2> myBricks{};
    std::vector<KnownWord> myKnown;               // of rows of bricks, along axes 1 and 2, or none
    std::vector<Layer> myLayers;                  // one more than there are layers
    std::vector<std::vector<CutWord>> myCutWords; // as the threads have found them
};

} // namespace Vantle::detail
