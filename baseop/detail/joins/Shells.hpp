#pragma once
/// The vertices on the faces of blocks: their numbers, their places, their positions.

#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/Index.hpp>

#include <array>
#include <cstdint>
#include <limits>
#include <span>
#include <utility>
#include <vector>

namespace Vantle::detail {

/// Numbers the vertices on the faces of one block, ascending by their index: none of them twice.
class ShellNumbering {
public:
    ShellNumbering() = default;
    /// Blocks without cells have none.
    explicit ShellNumbering(const MultiIndex<3>& size) noexcept;

    [[nodiscard]] index_t count() const noexcept { return myCount; }
    /// The number of the first one at index k of the slowest axis, or of the next one: also for the extent.
    [[nodiscard]] index_t start(index_t k) const noexcept {
        return k == 0 ? 0 : k == mySize[2] ? myCount : myLayer + (k - 1) * myRing;
    }
    [[nodiscard]] bool contains(const MultiIndex<3>& vertex) const noexcept {
        for (int d = 0; d < 3; ++d)
            if (vertex[d] == 0 || vertex[d] + 1 == mySize[d]) return myCount > 0;
        return false;
    }
    /// The number of a vertex that is one of these.
    [[nodiscard]] index_t operator()(const MultiIndex<3>& vertex) const noexcept {
        const index_t i = vertex[0], j = vertex[1], k = vertex[2], first = start(k);
        if (k == 0 || k + 1 == mySize[2]) return first + j * mySize[0] + i;
        if (j == 0) return first + i;
        const index_t row = first + mySize[0] + 2 * (j - 1);
        return j + 1 == mySize[1] ? row + i : row + (i != 0);
    }
    /// The place of a number.
    [[nodiscard]] MultiIndex<3> vertex(index_t number) const noexcept;

    /// Calls `function(vertex)` for those at index k of the slowest axis, in order.
    template<class F>
    void forEach(index_t k, const F& function) const {
        const bool isLayer = k == 0 || k + 1 == mySize[2];
        for (index_t j = 0; j < mySize[1]; ++j) {
            const index_t step = isLayer || j == 0 || j + 1 == mySize[1] ? 1 : mySize[0] - 1;
            for (index_t i = 0; i < mySize[0]; i += step) function(MultiIndex<3>(i, j, k));
        }
    }

private:
    MultiIndex<3> mySize;
    index_t myLayer = 0; // vertices of the first and of the last layer, and
    index_t myRing = 0;  // of each one between them
    index_t myCount = 0;
};

/// One face of a block as an array of two axes: those of the block but one, ascending.
struct ShellFace {
    std::uint32_t block = 0;
    int axis = 0;
    bool isUpper = false;
    int u = 0, v = 0;
    std::uint32_t nu = 0, nv = 0; ///< vertices
    std::uint32_t first = 0;      ///< slot of its first vertex: those of all faces follow each other, u fastest
    std::uint32_t level = 0;      ///< its index along its axis

    [[nodiscard]] std::uint32_t slot(std::int64_t a, std::int64_t b) const noexcept {
        return first + static_cast<std::uint32_t>(b) * nu + static_cast<std::uint32_t>(a);
    }
    /// The place of a slot: its axes' indices.
    [[nodiscard]] std::pair<std::int64_t, std::int64_t> place(std::uint32_t slot) const noexcept {
        return {(slot - first) % nu, (slot - first) / nu};
    }
    [[nodiscard]] bool isRim(std::int64_t a, std::int64_t b) const noexcept {
        return a == 0 || b == 0 || a + 1 == nu || b + 1 == nv;
    }
    [[nodiscard]] MultiIndex<3> vertex(std::int64_t a, std::int64_t b) const noexcept {
        MultiIndex<3> place;
        place[axis] = level;
        place[u] = static_cast<index_t>(a);
        place[v] = static_cast<index_t>(b);
        return place;
    }
};

/// The shells of all blocks of a field of positions. Vertices are numbered through all blocks, ascending by block and
/// index; slots are vertices of faces, so that one on an edge has two and one in a corner three.
struct Shells {
    using Point = Orvix::PhysicalSpace::point;

    /// Failure  std::length_error for more slots than 2^31 - 1; std::invalid_argument for masks that do not fit.
    Shells(const Field& positions, const Blanking& blanking, bool needsSizes);

    [[nodiscard]] std::size_t count() const noexcept { return points.size(); }
    [[nodiscard]] std::uint32_t slots() const noexcept { return static_cast<std::uint32_t>(vertexOf.size()); }
    /// The block of a vertex.
    [[nodiscard]] std::uint32_t blockOf(std::uint32_t vertex) const noexcept;
    /// The number of the face that a slot belongs to.
    [[nodiscard]] std::uint32_t faceOf(std::uint32_t slot) const noexcept;
    /// Of the edges of a face that end in a vertex the shortest with any length; 0 without any.
    [[nodiscard]] double shortestEdge(const ShellFace& face, std::int64_t a, std::int64_t b) const noexcept;

    std::vector<Hestra::StrongPtr<FragmentID>> ids;
    std::vector<MultiIndex<3>> sizes; ///< all 0 for blocks without cells
    std::vector<ShellNumbering> numbering;
    std::vector<std::uint32_t> firstVertex; ///< of each block, and the number of all
    std::vector<ShellFace> faces;
    std::vector<Point> points;
    std::vector<double> localSizes;      ///< of each vertex the shortest edge of its cells, if they were asked for
    std::vector<std::uint32_t> vertexOf; ///< of each slot
    bool isComplete = true;              ///< none has a creator that could not make its positions
    std::vector<bool> isBlanked;         ///< of each quad, by the slot of its lowest vertex; empty when none is

private:
    void blank(std::uint32_t block, const BlockMask& mask);
};

} // namespace Vantle::detail
