#pragma once
/// Merges the surfaces of fragments: edges of the same name carry one vertex.

#include <baseop/detail/surface/VertexTable.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Simplex.hpp>

#include <cstddef>
#include <vector>

namespace Vantle::detail {

/// The arrays that a surface grows in: the first three by vertex.
struct SurfaceArrays {
    std::vector<index_t>& identifiers;
    std::vector<double>& weights;
    std::vector<Orvix::PhysicalSpace::point>& points;
    std::vector<TriangleCell>& triangles;
};

/// Makes one vertex of those on edges of one name, however edges are named: `PlacedBlocks` and `JoinedBlocks` say which
/// vertices others may have too, and how their edges are called. The rest, nearly all, is never looked up.
template<class Name>
class VertexMerger {
public:
    struct Named {
        std::size_t vertex;
        Name edge;
    };

    /// Merges the vertices from `firstVertex` on, those of a new fragment, with each other and with what is there, and
    /// corrects its triangles, which begin at `firstTriangle`: those of which two corners became one are dropped.
    ///
    /// @param named  ascending by vertex.
    void merge(const SurfaceArrays& surface, std::size_t firstVertex, std::size_t firstTriangle,
               const std::vector<Named>& named);
    /// Enters a vertex of an earlier fragment.
    void remember(const Named& named) { myVertices.findOrInsert(named.edge, named.vertex); }
    /// Whether triangles were dropped, so that there may be vertices without any.
    [[nodiscard]] bool hasDropped() const noexcept { return myDroppedFlag; }

private:
    VertexTable<Name> myVertices;
    bool myDroppedFlag = false;
};

extern template class VertexMerger<index_t>;
extern template class VertexMerger<EndsOfEdge>;

/// Removes the vertices that no triangle uses; `ends` are places in the sequence of vertices, which move along.
void removeUnused(const SurfaceArrays& surface, const std::vector<std::size_t*>& ends);

} // namespace Vantle::detail
