#include <baseop/detail/surface/EvalVertexFieldOnEdges.hpp>
#include <baseop/detail/surface/PlacedBlocks.hpp>

namespace Vantle::detail {

bool PlacedBlocks::Box::overlaps(const Box& other) const noexcept {
    for (int d = 0; d < 3; ++d)
        if (low[d] >= other.high[d] || other.low[d] >= high[d]) return false;
    return true;
}

bool PlacedBlocks::Box::hasOnFace(index_t identifier) const {
    const GridEdge edge = findEdge(identifier, MultiIndex<3>::filled(Vertices));
    for (int d = 0; d < 3; ++d)
        if (d != edge.axis && (edge.lower[d] == low[d] || edge.lower[d] == high[d])) return true;
    return false;
}

void PlacedBlocks::merge(const SurfaceArrays& surface, const MultiIndex<3>& place, const MultiIndex<3>& size,
                         std::size_t firstVertex, std::size_t firstTriangle) {
    const std::vector<index_t>& identifiers = surface.identifiers;
    Box box{place, place + size - 1, firstVertex, firstVertex, false};
    for (Box& other : myBoxes) {
        if (!other.overlaps(box)) continue;
        box.isComplete = true;
        if (other.isComplete) continue;
        other.isComplete = true;
        for (std::size_t v = other.firstVertex; v < other.endVertex; ++v) myMerger.remember({v, identifiers[v]});
    }
    std::vector<VertexMerger<index_t>::Named> named;
    for (std::size_t v = firstVertex; v < identifiers.size(); ++v)
        if (box.isComplete || box.hasOnFace(identifiers[v])) named.push_back({v, identifiers[v]});
    myMerger.merge(surface, firstVertex, firstTriangle, named);
    box.endVertex = identifiers.size();
    myBoxes.push_back(box);
}

} // namespace Vantle::detail
