#pragma once
/// Names of edges by the owners of their ends, where blocks of a grid are joined.

#include <baseop/BlockJoins.hpp>
#include <baseop/detail/surface/EvalVertexFieldOnEdges.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>
#include <baseop/detail/surface/VertexMerger.hpp>

#include <cstddef>
#include <utility>
#include <vector>

namespace Vantle::detail {

/// An edge of a block, from the end with the lower owner to the other one: whichever block an edge is seen from, its
/// ends have this order. Indices count the vertices of the block; `reversed`: the first end is the upper one.
struct OrderedEdge {
    index_t first, second;
    BlockVertex firstOwner, secondOwner;
    bool reversed;

    OrderedEdge(const BlockJoins& joins, unsigned int block, const GridEdge& edge, const MultiIndex<3>& size)
        : first(edge.lower.linear(size)), second(first + (edge.axis == 0   ? 1
                                                          : edge.axis == 1 ? size[0]
                                                                           : size[0] * size[1])),
          firstOwner(joins.owner({block, first})), secondOwner(joins.owner({block, second})),
          reversed(secondOwner < firstOwner) {
        if (!reversed) return;
        std::swap(first, second);
        std::swap(firstOwner, secondOwner);
    }
};

/// Whether an edge lies on a face of a block of this size: only such edges may be those of other blocks.
[[nodiscard]] inline bool isOnFace(const GridEdge& edge, const MultiIndex<3>& size) noexcept {
    for (int d = 0; d < 3; ++d)
        if (d != edge.axis && (edge.lower[d] == 0 || edge.lower[d] + 1 == size[d])) return true;
    return false;
}

/// The surfaces of the blocks of one grid.
class JoinedBlocks {
public:
    /// `values` are those of the field whose surface it is.
    JoinedBlocks(const Hestra::StrongPtr<BlockJoins>& joins, const Hestra::StrongPtr<Field>& values);

    [[nodiscard]] const BlockJoins& joins() const noexcept { return *myJoins; }
    [[nodiscard]] const Field& values() const noexcept { return *myValues; }
    /// Whether some vertices of a block are those of others, or of itself, whoever owns them.
    [[nodiscard]] bool isJoined(unsigned int block) const;
    /// The blocks that own vertices of this one.
    [[nodiscard]] std::vector<unsigned int> ownersOf(unsigned int block) const;

    /// Merges the vertices from `firstVertex` on, those of a block, of which edges are numbered from `offset` on. On
    /// faces, weight and point are computed from the end with the lower owner.
    ///
    /// @param value, point  what the vertex of the block with an index has: its owner's.
    template<class Value, class PointAt>
    void merge(const SurfaceArrays& surface, unsigned int block, index_t offset, double level, const Value& value,
               const PointAt& point, std::size_t firstVertex, std::size_t firstTriangle) {
        const MultiIndex<3>& size = myJoins->size(block);
        std::vector<VertexMerger<EndsOfEdge>::Named> named;
        for (std::size_t v = firstVertex; v < surface.identifiers.size(); ++v) {
            const GridEdge edge = findEdge(surface.identifiers[v] - offset, size);
            if (!isOnFace(edge, size)) continue;
            const OrderedEdge ordered(*myJoins, block, edge, size);
            double weight = levelCrossing(level, value(ordered.first), value(ordered.second));
            // A multiple of 2^-53, so that the weight from the other end says exactly the same.
            if (weight < 0.5) weight = 1.0 - (1.0 - weight);
            const Orvix::PhysicalSpace::point from = point(ordered.first);
            surface.points[v] = from + weight * (point(ordered.second) - from);
            surface.weights[v] = ordered.reversed ? 1.0 - weight : weight;
            named.push_back({v, {numberOf(ordered.firstOwner), numberOf(ordered.secondOwner)}});
        }
        myMerger.merge(surface, firstVertex, firstTriangle, named);
    }
    /// Whether there may be vertices that no triangle uses.
    [[nodiscard]] bool hasDropped() const noexcept { return myMerger.hasDropped(); }

private:
    [[nodiscard]] index_t numberOf(const BlockVertex& vertex) const { return myFirst[vertex.block] + vertex.index; }

    Hestra::StrongPtr<BlockJoins> myJoins;
    Hestra::StrongPtr<Field> myValues;
    std::vector<index_t> myFirst; // by block: how many vertices those before it have
    VertexMerger<EndsOfEdge> myMerger;
};

} // namespace Vantle::detail
