#include <baseop/SurfaceRefinement.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <type_traits>
#include <utility>

namespace Vantle {

using Hestra::Console;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

index_t boundedCount(int count, index_t available) noexcept {
    return count < 0 ? 0 : std::min(static_cast<index_t>(count), available);
}

bool isEnd(unsigned int vertex, const Edge& edge) noexcept { return vertex == edge[0] || vertex == edge[1]; }

bool contains(const Triangle& triangle, unsigned int vertex) noexcept {
    return triangle[0] == vertex || triangle[1] == vertex || triangle[2] == vertex;
}

/// The sides of triangles, found by their lower vertex, each bucket in ascending order of faces.
///
/// Usually each vertex has a bucket of its own (`Dense`). Where few vertices have large numbers, they share some.
template<bool Dense>
class SidesByVertex {
public:
    SidesByVertex(const Triangle* triangles, index_t faces, std::size_t buckets) : myBegin(buckets + 2, 0) {
        if constexpr (!Dense) myMask = buckets - 1; // a power of two
        forEachSide(triangles, faces,
                    [&](unsigned int low, unsigned int, unsigned int) { ++myBegin[bucketOf(low) + 2]; });
        for (std::size_t b = 2; b < myBegin.size(); ++b) myBegin[b] += myBegin[b - 1];
        mySides.resize(myBegin.back());
        // Entering the sides moves each beginning to the end of its bucket, which is where the next one begins.
        forEachSide(triangles, faces, [&](unsigned int low, unsigned int high, unsigned int face) {
            Side& side = mySides[myBegin[bucketOf(low) + 1]++];
            side.high = high;
            side.face = face;
            if constexpr (!Dense) side.low = low;
        });
    }

    /// The first two faces with this side.
    [[nodiscard]] Edge facesOf(unsigned int p, unsigned int q) const noexcept {
        const unsigned int low = std::min(p, q), high = std::max(p, q);
        const std::size_t bucket = bucketOf(low);
        Edge faces(NoFace, NoFace);
        if (bucket + 2 >= myBegin.size()) return faces;
        const Side* const end = mySides.data() + myBegin[bucket + 1];
        for (const Side* side = mySides.data() + myBegin[bucket]; side != end; ++side) {
            if (side->high != high) continue;
            if constexpr (!Dense)
                if (side->low != low) continue;
            if (faces[0] == NoFace) {
                faces = Edge(side->face, side->face);
            } else if (side->face != faces[0]) { // a degenerate triangle has one side twice
                faces[1] = side->face;
                break;
            }
        }
        return faces;
    }

private:
    struct DenseSide {
        unsigned int high, face;
    };
    struct SparseSide {
        unsigned int high, face, low;
    };
    using Side = std::conditional_t<Dense, DenseSide, SparseSide>;

    [[nodiscard]] std::size_t bucketOf(unsigned int vertex) const noexcept {
        if constexpr (Dense)
            return vertex;
        else
            return (vertex * std::size_t{0x9E3779B97F4A7C15} >> 32) & myMask;
    }
    template<class F>
    static void forEachSide(const Triangle* triangles, index_t faces, const F& f) {
        for (index_t n = 0; n < faces; ++n) {
            const auto [a, b, c] = std::array{triangles[n][0], triangles[n][1], triangles[n][2]};
            const auto face = static_cast<unsigned int>(n);
            f(std::min(a, b), std::max(a, b), face);
            f(std::min(b, c), std::max(b, c), face);
            f(std::min(c, a), std::max(c, a), face);
        }
    }

    std::vector<std::size_t> myBegin;
    std::vector<Side> mySides;
    std::size_t myMask = 0;
};

/// Fills the entries of all edges that are not mere points; true if some are.
template<bool Dense>
bool fillTable(MemArray<1, Edge>& edgeToFaces, const MemArray<1, Edge>& edges, index_t count,
               const SidesByVertex<Dense>& sides) {
    bool anyPoint = false;
    for (index_t e = 0; e < count; ++e) {
        const Edge edge = edges(e);
        if (edge[0] == edge[1]) [[unlikely]]
            anyPoint = true;
        else
            edgeToFaces(e) = sides.facesOf(edge[0], edge[1]);
    }
    return anyPoint;
}

} // namespace

// ----------------------------------------------------------------------------------------------------------- criteria

SurfaceRefinementCriterion::~SurfaceRefinementCriterion() = default;
EdgeLengthCriterion::~EdgeLengthCriterion() = default;
SplitAllCriterion::~SplitAllCriterion() = default;
EdgeFlipCriterion::~EdgeFlipCriterion() = default;

void SurfaceRefinementCriterion::GetData(const StrongPtr<Grid>& grid) {
    mySurface = TriangularSurfaceWithEdges(grid);
    myPositions = mySurface.points();
    myEdges = mySurface.edges();
}

StrongPtr<SurfaceRefinementCriterion> EdgeLengthCriterion::copyMe() const {
    return Hestra::makeRef<EdgeLengthCriterion>(myThreshold);
}
StrongPtr<SurfaceRefinementCriterion> SplitAllCriterion::copyMe() const {
    return Hestra::makeRef<SplitAllCriterion>(myThreshold);
}
StrongPtr<SurfaceRefinementCriterion> EdgeFlipCriterion::copyMe() const {
    return Hestra::makeRef<EdgeFlipCriterion>(myThreshold);
}

std::vector<bool> EdgeLengthCriterion::DetectEdges(const StrongPtr<Grid>& grid) {
    const Hestra::Profiler scope("baseop/SurfaceRefinement", __LINE__, "EdgeLengthCriterion::DetectEdges(grid)",
                                 __PRETTY_FUNCTION__);
    GetData(grid);
    myIllegalEdges = 0;
    if (!myPositions || !myEdges) return {};
    const auto& points = *myPositions;
    const auto& edges = *myEdges;
    const double limit = myThreshold * myThreshold;
    std::vector<bool> flags(edges.nElements());
    for (index_t e = 0; e < edges.nElements(); ++e) {
        const Edge& edge = edges(e);
        if (edge[0] >= points.nElements() || edge[1] >= points.nElements()) continue;
        if (normSquared(points(edge[0]) - points(edge[1])) > limit) {
            flags.at(e) = true;
            ++myIllegalEdges;
        }
    }
    return flags;
}

std::vector<bool> SplitAllCriterion::DetectEdges(const StrongPtr<Grid>& grid) {
    GetData(grid);
    return std::vector<bool>(myEdges ? myEdges->nElements() : 0, true);
}

std::vector<bool> EdgeFlipCriterion::DetectEdges(const StrongPtr<Grid>& grid) {
    const Hestra::Profiler scope("baseop/SurfaceRefinement", __LINE__, "EdgeFlipCriterion::DetectEdges(grid)",
                                 __PRETTY_FUNCTION__);
    GetData(grid);
    const auto triangles = mySurface.triangles();
    std::vector<bool> flags(myPositions && myEdges ? myEdges->nElements() : 0);
    const auto faces = MemArray<1, Edge>::create(MultiIndex<1>(flags.size()));
    if (triangles && !flags.empty())
        GenerateEdge2FacesTable(*faces, *triangles, *myEdges, static_cast<int>(triangles->nElements()),
                                static_cast<int>(flags.size()));
    Console::print("search for flipable edges %d\n", static_cast<int>(flags.size()));

    unsigned int count = 0;
    for (index_t e = 0; triangles && e < flags.size(); ++e) {
        const auto [first, second] = std::pair((*faces)(e)[0], (*faces)(e)[1]);
        if (first == second) continue;
        unsigned int a = 0, b = 0, c = NoFace, d = NoFace, ignored = 0;
        TriangleVerticesOrientation((*triangles)(second), (*myEdges)(e), ignored, ignored, d);
        TriangleVerticesOrientation((*triangles)(first), (*myEdges)(e), a, b, c);
        const auto& points = *myPositions;
        if (std::max({a, b, c, d}) >= points.nElements()) continue;
        if (Hybrid_Delaunay2D(points(a), points(b), points(c), points(d))) {
            flags.at(e) = true;
            ++count;
        }
    }
    Console::print(">>total illegal edges %d\n", static_cast<int>(count));
    myIllegalEdges = count;
    return flags;
}

bool EdgeFlipCriterion::Hybrid_Delaunay2D(const PhysicalSpace::point& a, const PhysicalSpace::point& b,
                                          const PhysicalSpace::point& c, const PhysicalSpace::point& d) const {
    const auto size = [](const PhysicalSpace::vector& v) { return std::hypot(v[0], v[1], v[2]); };
    const PhysicalSpace::vector n = cross(a - c, b - c);
    const PhysicalSpace::vector m = cross(b - d, a - d);
    const double sizeN = size(n), sizeM = size(m);
    if (sizeN < myThreshold || sizeM < myThreshold) return false;
    if (!(dot(a - c, b - c) < 0.0 && dot(a - d, b - d) < 0.0)) return false;
    return dot(n, m) / sizeM / sizeN > 0.0 && size(cross(c - a, d - a)) > myThreshold &&
           size(cross(b - d, b - c)) > myThreshold;
}

bool DelaunayCriterion2D(const PhysicalSpace::point& a, const PhysicalSpace::point& b, const PhysicalSpace::point& c,
                         const PhysicalSpace::point& d) {
    return dot(b - c, a - c) < 0.0 && dot(b - d, a - d) < 0.0;
}

// ------------------------------------------------------------------------------------------------------------- tables

void TriangleVerticesOrientation(const Triangle& triangle, const Edge& edge, unsigned int& a, unsigned int& b,
                                 unsigned int& opposite) {
    a = edge[0];
    b = edge[1];
    for (int k = 0; k < 3; ++k)
        if (!isEnd(triangle[k], edge)) {
            opposite = triangle[k];
            a = triangle[(k + 1) % 3];
            b = triangle[(k + 2) % 3];
            return;
        }
}

void GenerateEdge2FacesTable(MemArray<1, Edge>& edgeToFaces, const MemArray<1, Triangle>& triangles,
                             const MemArray<1, Edge>& edges, int faceCount, int edgeCount) {
    const Hestra::Profiler scope("baseop/SurfaceRefinement", __LINE__, "GenerateEdge2FacesTable(edges)",
                                 __PRETTY_FUNCTION__);
    const index_t faces = boundedCount(faceCount, triangles.nElements());
    const index_t count = boundedCount(edgeCount, std::min(edges.nElements(), edgeToFaces.nElements()));
    const auto packed = triangles.stride() == 1 ? nullptr : StrongPtr<MemArray<1, Triangle>>(triangles.copy());
    const Triangle* const elements = packed ? packed->data() : triangles.data();
    unsigned int largest = 0;
    for (index_t f = 0; f < faces; ++f)
        for (const unsigned int vertex : elements[f]) largest = std::max(largest, vertex);
    bool anyPoint;
    if (largest <= 8 * faces + 64)
        anyPoint = fillTable(edgeToFaces, edges, count, SidesByVertex<true>(elements, faces, std::size_t{largest} + 1));
    else
        anyPoint =
            fillTable(edgeToFaces, edges, count, SidesByVertex<false>(elements, faces, std::bit_ceil(2 * faces)));
    if (!anyPoint) return;

    // An edge that is a point belongs to all triangles at that vertex, not only to degenerate ones.
    std::vector<std::pair<unsigned int, Edge>> byVertex;
    for (index_t e = 0; e < count; ++e)
        if (edges(e)[0] == edges(e)[1]) byVertex.emplace_back(edges(e)[0], Edge(NoFace, NoFace));
    std::sort(byVertex.begin(), byVertex.end());
    byVertex.erase(std::unique(byVertex.begin(), byVertex.end()), byVertex.end());
    const auto entryOf = [&](unsigned int vertex) {
        const auto found = std::lower_bound(byVertex.begin(), byVertex.end(), vertex,
                                            [](const auto& entry, unsigned int v) { return entry.first < v; });
        return found != byVertex.end() && found->first == vertex ? &found->second : nullptr;
    };
    for (index_t f = 0; f < faces; ++f) {
        const auto face = static_cast<unsigned int>(f);
        for (const unsigned int vertex : triangles(f))
            if (Edge* const entry = entryOf(vertex)) {
                if ((*entry)[0] == NoFace)
                    *entry = Edge(face, face);
                else if ((*entry)[0] == (*entry)[1])
                    (*entry)[1] = face;
            }
    }
    for (index_t e = 0; e < count; ++e)
        if (edges(e)[0] == edges(e)[1]) edgeToFaces(e) = *entryOf(edges(e)[0]);
}

void GenerateFace2EdgesTable(MemArray<1, Triangle>& faceToEdges, const MemArray<1, Edge>& edgeToFaces,
                             const MemArray<1, Triangle>&, const MemArray<1, Edge>&, int edgeCount, int faceCount) {
    const Hestra::Profiler scope("baseop/SurfaceRefinement", __LINE__, "GenerateFace2EdgesTable(edges)",
                                 __PRETTY_FUNCTION__);
    const index_t faces = boundedCount(faceCount, faceToEdges.nElements());
    const index_t edges = boundedCount(edgeCount, edgeToFaces.nElements());
    std::vector<int> filled(faces, 0);
    for (index_t e = 0; e < edges; ++e)
        for (const unsigned int face : edgeToFaces(e)) {
            if (face >= faces) continue;
            if (filled[face] < 3) {
                faceToEdges(face)[filled[face]++] = static_cast<unsigned int>(e);
                continue;
            }
            Console::print("-->does edge (%d) belong to face (%d)?\n", static_cast<int>(e), static_cast<int>(face));
            Console::print("--> other edges: ");
            for (const unsigned int other : faceToEdges(face)) Console::print("%d,", static_cast<int>(other));
            Console::print("\n");
        }
}

void OrientTriangleEdges(Triangle& first, Triangle& second, const MemArray<1, Edge>& edges, unsigned int edge) {
    if (edge >= edges.nElements()) return;
    const Edge& shared = edges(edge);
    const auto has = [&](const Triangle& triangle) {
        return shared[0] != shared[1] && contains(triangle, shared[0]) && contains(triangle, shared[1]) &&
               triangle[0] != triangle[1] && triangle[1] != triangle[2] && triangle[2] != triangle[0];
    };
    if (!has(first) || !has(second)) return;
    unsigned int a = 0, b = 0, c = NoFace, d = NoFace, ignored = 0;
    TriangleVerticesOrientation(second, shared, ignored, ignored, d);
    TriangleVerticesOrientation(first, shared, a, b, c);
    first = Triangle(a, b, c);
    second = Triangle(b, a, d);
}

// --------------------------------------------------------------------------------------------------------- refinement

PhysicalSpace::point midpoint(const PhysicalSpace::point& p, const PhysicalSpace::point& q) {
    return {(p[0] + q[0]) * 0.5, (p[1] + q[1]) * 0.5, (p[2] + q[2]) * 0.5};
}

PhysicalSpace::point midpoint(const PhysicalSpace::point& p, const PhysicalSpace::point& q, double r,
                              const PhysicalSpace::point& c) {
    const PhysicalSpace::point m = midpoint(p, q);
    const double factor = r / length(m - c);
    return {m[0] * factor, m[1] * factor, m[2] * factor};
}

StrongPtr<Grid> refineSurface(Bundle&, const StrongPtr<Grid>& grid, const StrongPtr<SurfaceRefinementCriterion>&) {
    const TriangularSurfaceWithEdges surface(grid);
    return nullptr;
}

StrongPtr<Grid> refineSurface(Bundle& bundle, const StrongPtr<Grid>& grid, const SurfaceRefinementCriterion&) {
    return refineSurface(bundle, grid, StrongPtr<SurfaceRefinementCriterion>());
}

} // namespace Vantle
