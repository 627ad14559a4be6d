#include <baseop/detail/surface/EvalVertexFieldOnEdges.hpp>
#include <baseop/detail/surface/VertexMerger.hpp>

namespace Vantle::detail {

bool VertexMerger::Box::touches(const Box& other) const noexcept {
    for (int d = 0; d < 3; ++d)
        if (low[d] > other.high[d] || other.low[d] > high[d]) return false;
    return true;
}

bool VertexMerger::Box::overlaps(const Box& other) const noexcept {
    for (int d = 0; d < 3; ++d)
        if (low[d] >= other.high[d] || other.low[d] >= high[d]) return false;
    return true;
}

bool VertexMerger::Box::hasOnFace(index_t identifier) const {
    const GridEdge edge = findEdge(identifier, MultiIndex<3>::filled(Vertices));
    for (int d = 0; d < 3; ++d)
        if (d != edge.axis && (edge.lower[d] == low[d] || edge.lower[d] == high[d])) return true;
    return false;
}

void VertexMerger::merge(const SurfaceArrays& surface, const MultiIndex<3>& place, const MultiIndex<3>& size,
                         std::size_t firstVertex, std::size_t firstTriangle) {
    const std::vector<index_t>& identifiers = surface.identifiers;
    Box box{place, place + size - 1, firstVertex, firstVertex, false};
    bool touches = false;
    for (Box& other : myBoxes) {
        touches |= other.touches(box);
        if (!other.overlaps(box)) continue;
        box.isComplete = true;
        if (other.isComplete) continue;
        other.isComplete = true;
        for (std::size_t v = other.firstVertex; v < other.endVertex; ++v) myVertices.insert(identifiers[v], v);
    }
    if (touches) join(surface, box, firstTriangle);
    box.endVertex = identifiers.size();
    for (std::size_t v = firstVertex; v < box.endVertex; ++v)
        if (box.isComplete || box.hasOnFace(identifiers[v])) myVertices.insert(identifiers[v], v);
    myBoxes.push_back(box);
}

void VertexMerger::join(const SurfaceArrays& surface, const Box& box, std::size_t firstTriangle) const {
    auto& [identifiers, weights, points, triangles] = surface;
    std::vector<unsigned int> joined(identifiers.size() - box.firstVertex);
    std::size_t kept = box.firstVertex;
    for (std::size_t v = box.firstVertex; v < identifiers.size(); ++v) {
        index_t known = VertexTable::None;
        if (box.isComplete || box.hasOnFace(identifiers[v])) known = myVertices.find(identifiers[v]);
        if (known == VertexTable::None) {
            known = kept;
            identifiers[kept] = identifiers[v];
            weights[kept] = weights[v];
            points[kept++] = points[v];
        }
        joined[v - box.firstVertex] = static_cast<unsigned int>(known);
    }
    if (kept == identifiers.size()) return;
    identifiers.resize(kept);
    weights.resize(kept);
    points.resize(kept);
    for (std::size_t t = firstTriangle; t < triangles.size(); ++t)
        for (int c = 0; c < 3; ++c)
            triangles[t][c] = joined[triangles[t][c] - static_cast<unsigned int>(box.firstVertex)];
}

} // namespace Vantle::detail
