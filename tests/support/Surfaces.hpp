#pragma once
/// The plain sweep of the marching cubes, to compare faster ones with, and laws that every surface obeys.

#include <baseop/Isosurface.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace support {

/// A surface with its vertices as edges of the grid.
struct Surface {
    std::vector<Vantle::index_t> identifiers;
    std::vector<double> weights;
    std::vector<Orvix::PhysicalSpace::point> points;
    std::vector<Vantle::TriangleCell> triangles;

    /// Adds the cells of one block, one after the other with the map of edges that the blocks share; valid ones only.
    template<class T, class Coordinates>
    void addPlainly(const Vantle::MultiArray<3, T>& data, double level, const Coordinates& coordinates,
                    Vantle::index_t identifierOffset = 0, const Vantle::BlockMask* mask = nullptr) {
        const Vantle::FieldExplorer<Vantle::MultiArray<3, T>> explorer(data, level);
        const Vantle::MultiIndex<3> size = data.Size();
        const std::size_t first = identifiers.size();
        for (Vantle::index_t k = 0; k + 1 < size[2]; ++k)
            for (Vantle::index_t j = 0; j + 1 < size[1]; ++j)
                for (Vantle::index_t i = 0; i + 1 < size[0]; ++i)
                    if (!mask || mask->isCellValid({i, j, k}))
                        Polygonize(identifiers, weights, triangles, myEdges, explorer, {i, j, k}, level,
                                   identifierOffset);
        EvalVertexFieldOnEdges(points, identifiers, weights, coordinates, size, {}, first, identifierOffset);
    }

private:
    std::map<Vantle::index_t, Vantle::index_t> myEdges;
};

/// Equality to the last bit, so that NaN equals NaN.
inline bool sameBits(const Orvix::PhysicalSpace::point& a, const Orvix::PhysicalSpace::point& b) {
    for (int d = 0; d < 3; ++d)
        if (std::bit_cast<std::uint64_t>(a[d]) != std::bit_cast<std::uint64_t>(b[d])) return false;
    return true;
}
template<class A, class B>
bool sameBits(const A& a, const B& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& p, const auto& q) { return sameBits(p, q); });
}

/// How often each edge between triangles, lower vertex first, is used forward and backward.
inline std::map<std::pair<unsigned int, unsigned int>, std::pair<int, int>>
edgeUses(const std::vector<Vantle::TriangleCell>& triangles) {
    std::map<std::pair<unsigned int, unsigned int>, std::pair<int, int>> uses;
    for (const auto& triangle : triangles)
        for (int c = 0; c < 3; ++c) {
            const unsigned int a = triangle[c], b = triangle[(c + 1) % 3];
            auto& [forward, backward] = uses[std::minmax(a, b)];
            ++(a < b ? forward : backward);
        }
    return uses;
}

/// Number of edges between triangles that are not used exactly twice, once in either direction. 0 for a closed surface
/// whose triangles all show the same side.
inline std::size_t openEdges(const std::vector<Vantle::TriangleCell>& triangles) {
    const auto uses = edgeUses(triangles);
    return static_cast<std::size_t>(std::count_if(
        uses.begin(), uses.end(), [](const auto& edge) { return edge.second != std::pair<int, int>(1, 1); }));
}

} // namespace support
