#include <baseop/detail/surface/VertexMerger.hpp>

namespace Vantle::detail {

namespace {

void keep(const SurfaceArrays& surface, std::size_t vertex, std::size_t place) {
    surface.identifiers[place] = surface.identifiers[vertex];
    surface.weights[place] = surface.weights[vertex];
    surface.points[place] = surface.points[vertex];
}

void shrink(const SurfaceArrays& surface, std::size_t vertices) {
    surface.identifiers.resize(vertices);
    surface.weights.resize(vertices);
    surface.points.resize(vertices);
}

} // namespace

template<class Name>
void VertexMerger<Name>::merge(const SurfaceArrays& surface, std::size_t firstVertex, std::size_t firstTriangle,
                               const std::vector<Named>& named) {
    if (named.empty()) return;
    const std::size_t end = surface.identifiers.size();
    std::vector<unsigned int> merged(end - firstVertex);
    std::size_t kept = firstVertex;
    auto next = named.begin();
    for (std::size_t v = firstVertex; v < end; ++v) {
        std::size_t stands = kept;
        if (next != named.end() && next->vertex == v)
            stands = static_cast<std::size_t>(myVertices.findOrInsert((next++)->edge, kept));
        if (stands == kept) keep(surface, v, kept++);
        merged[v - firstVertex] = static_cast<unsigned int>(stands);
    }
    if (kept == end) return;
    shrink(surface, kept);

    std::vector<TriangleCell>& triangles = surface.triangles;
    std::size_t last = firstTriangle;
    for (std::size_t t = firstTriangle; t < triangles.size(); ++t) {
        TriangleCell triangle = triangles[t];
        for (int c = 0; c < 3; ++c) triangle[c] = merged[triangle[c] - static_cast<unsigned int>(firstVertex)];
        if (triangle[0] == triangle[1] || triangle[1] == triangle[2] || triangle[2] == triangle[0]) continue;
        triangles[last++] = triangle;
    }
    myDroppedFlag |= last != triangles.size();
    triangles.resize(last);
}

template class VertexMerger<index_t>;
template class VertexMerger<EndsOfEdge>;

void removeUnused(const SurfaceArrays& surface, const std::vector<std::size_t*>& ends) {
    std::vector<unsigned int> number(surface.identifiers.size());
    for (const TriangleCell& triangle : surface.triangles)
        for (int c = 0; c < 3; ++c) number[triangle[c]] = 1;
    std::size_t kept = 0;
    auto end = ends.begin();
    for (std::size_t v = 0; v <= number.size(); ++v) {
        for (; end != ends.end() && **end == v; ++end) **end = kept;
        if (v == number.size() || number[v] == 0) continue;
        keep(surface, v, kept);
        number[v] = static_cast<unsigned int>(kept++);
    }
    shrink(surface, kept);
    for (TriangleCell& triangle : surface.triangles)
        for (int c = 0; c < 3; ++c) triangle[c] = number[triangle[c]];
}

} // namespace Vantle::detail
