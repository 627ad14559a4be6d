#pragma once
/// On which edges of its grid the vertices of a surface lie.

#include <baseop/BlockJoins.hpp>
#include <baseop/detail/surface/EvalVertexFieldOnEdges.hpp>

#include <optional>
#include <vector>

namespace Vantle::detail {

/// What one fragment has brought to a surface: the vertices from those of the fragment before it on.
struct SurfacePiece {
    Hestra::StrongPtr<FragmentID> fragment;
    MultiIndex<3> size;
    /// Where the fragment begins in the array of vertices, of these extents, that its edges are numbered in.
    MultiIndex<3> place, extents;
    index_t identifierOffset = 0;
    std::size_t endVertex = 0;

    [[nodiscard]] GridEdge edge(index_t identifier) const {
        GridEdge found = findEdge(identifier - identifierOffset, extents);
        found.lower = found.lower - place;
        return found;
    }
};

/// Kept beside the points of a surface.
class VANTLE_BASEOP_API SurfaceEdges : public Hestra::Interface<SurfaceEdges> {
public:
    /// Those that the surface was made with; null: blocks were not joined.
    Hestra::StrongPtr<BlockJoins> joins;
    std::vector<SurfacePiece> pieces;
    /// By vertex; null when these are not to be kept.
    Hestra::StrongPtr<Field> identifiers, weights;

    /// Values of a field at the vertices; null when the edges are not there (any more).
    [[nodiscard]] Hestra::StrongPtr<MemBase> evaluate(const Field& field) const;
};

} // namespace Vantle::detail
