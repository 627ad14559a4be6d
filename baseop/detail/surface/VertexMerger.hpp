#pragma once
/// Joins the surfaces of fragments of one index space: equal edges of the grid carry one vertex.

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

/// Finds vertices that fragments have in common, whose edges are named by their place in the index space of the whole
/// grid: as on a lattice of `Vertices` vertices along each axis.
///
/// Remembers vertices that a further fragment may have too: those on the faces of fragments, and all of a fragment
/// once another one overlaps its inside. The rest, nearly all, is never looked up.
class VertexMerger {
public:
    static constexpr index_t Vertices = index_t{1} << 20;

    /// Joins the vertices from `firstVertex` on, those of a new fragment, with what is there, and corrects its
    /// triangles, which begin at `firstTriangle`. `place` is the fragment's first vertex on the lattice, `size` its
    /// extents.
    void merge(const SurfaceArrays& surface, const MultiIndex<3>& place, const MultiIndex<3>& size,
               std::size_t firstVertex, std::size_t firstTriangle);

private:
    /// Where a fragment lies, ends included, and which vertices it brought.
    struct Box {
        MultiIndex<3> low, high;
        std::size_t firstVertex, endVertex;
        bool isComplete; // whether all these vertices are remembered

        [[nodiscard]] bool touches(const Box& other) const noexcept;
        /// Whether the boxes have more in common than faces.
        [[nodiscard]] bool overlaps(const Box& other) const noexcept;
        [[nodiscard]] bool hasOnFace(index_t identifier) const;
    };

    void join(const SurfaceArrays& surface, const Box& box, std::size_t firstTriangle) const;

    std::vector<Box> myBoxes;
    VertexTable myVertices;
};

} // namespace Vantle::detail
