#pragma once
/// Names of edges by their place in the index space of a whole grid, which fragments know their part of.

#include <baseop/detail/surface/VertexMerger.hpp>
#include <model/vantle/Index.hpp>

#include <cstddef>
#include <vector>

namespace Vantle::detail {

/// The surfaces of fragments of one index space. Edges are called as on a lattice of `Vertices` vertices along each
/// axis, which their identifiers number.
///
/// Vertices that a further fragment may have too are those on the faces of fragments, and all of a fragment once
/// another one overlaps its inside.
class PlacedBlocks {
public:
    static constexpr index_t Vertices = index_t{1} << 20;

    /// Merges the vertices from `firstVertex` on, those of a new fragment. `place` is the fragment's first vertex on
    /// the lattice, `size` its extents.
    void merge(const SurfaceArrays& surface, const MultiIndex<3>& place, const MultiIndex<3>& size,
               std::size_t firstVertex, std::size_t firstTriangle);

private:
    /// Where a fragment lies, ends included, and which vertices it brought.
    struct Box {
        MultiIndex<3> low, high;
        std::size_t firstVertex, endVertex;
        bool isComplete; // whether all these vertices are remembered

        /// Whether the boxes have more in common than faces.
        [[nodiscard]] bool overlaps(const Box& other) const noexcept;
        [[nodiscard]] bool hasOnFace(index_t identifier) const;
    };

    std::vector<Box> myBoxes;
    VertexMerger<index_t> myMerger;
};

} // namespace Vantle::detail
