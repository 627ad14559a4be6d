#include <baseop/SurfaceRefinement.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>
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

/// The sides of triangles, found by their vertices. Each is kept with its lower vertex, in ascending order of faces.
class SidesByVertex {
public:
    SidesByVertex(const MemArray<1, Triangle>& triangles, index_t faces) {
        unsigned int largest = 0;
        for (index_t f = 0; f < faces; ++f)
            for (const unsigned int vertex : triangles[MultiIndex<1>(f)]) largest = std::max(largest, vertex);
        // Usually each vertex has a bucket of its own. Where few vertices have large numbers, they share some.
        std::size_t buckets = std::size_t{largest} + 1;
        if (buckets > 8 * faces + 64) {
            for (buckets = 64; buckets < 2 * faces;) buckets *= 2;
            myMask = buckets - 1;
        }

        myBegin.assign(buckets + 1, 0);
        forEachSide(triangles, faces, [&](std::size_t bucket, const Side&) { ++myBegin[bucket + 1]; });
        for (std::size_t b = 0; b < buckets; ++b) myBegin[b + 1] += myBegin[b];
        mySides.resize(myBegin[buckets]);
        std::vector<std::size_t> next(myBegin.begin(), myBegin.end() - 1);
        forEachSide(triangles, faces, [&](std::size_t bucket, const Side& side) { mySides[next[bucket]++] = side; });
    }

    /// The first two faces with this side.
    [[nodiscard]] Edge facesOf(unsigned int p, unsigned int q) const noexcept {
        const auto [low, high] = std::minmax(p, q);
        const std::size_t bucket = bucketOf(low);
        Edge faces(kNoFace, kNoFace);
        if (bucket + 1 >= myBegin.size()) return faces;
        for (std::size_t s = myBegin[bucket]; s < myBegin[bucket + 1]; ++s) {
            const Side& side = mySides[s];
            if (side.low != low || side.high != high) continue;
            if (faces[0] == kNoFace) {
                faces = Edge(side.face, side.face);
            } else if (side.face != faces[0]) { // a degenerate triangle has one side twice
                faces[1] = side.face;
                break;
            }
        }
        return faces;
    }

private:
    struct Side {
        unsigned int low, high, face;
    };

    [[nodiscard]] std::size_t bucketOf(unsigned int vertex) const noexcept {
        return myMask ? (vertex * std::size_t{0x9E3779B97F4A7C15} >> 32) & myMask : vertex;
    }
    template<class F>
    void forEachSide(const MemArray<1, Triangle>& triangles, index_t faces, const F& f) const {
        for (index_t face = 0; face < faces; ++face) {
            const Triangle& t = triangles[MultiIndex<1>(face)];
            for (int side = 0; side < 3; ++side) {
                const auto [low, high] = std::minmax(t[side], t[side == 2 ? 0 : side + 1]);
                f(bucketOf(low), Side{low, high, static_cast<unsigned int>(face)});
            }
        }
    }

    std::vector<std::size_t> myBegin;
    std::vector<Side> mySides;
    std::size_t myMask = 0;
};

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
    return std::vector<bool>(myPositions && myEdges ? myEdges->nElements() : 0, true);
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
        unsigned int a = 0, b = 0, c = kNoFace, d = kNoFace, ignored = 0;
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
    const SidesByVertex sides(triangles, faces);
    bool anyPoint = false;
    for (index_t e = 0; e < count; ++e) {
        const Edge& edge = edges(e);
        if (edge[0] == edge[1]) [[unlikely]]
            anyPoint = true;
        else
            edgeToFaces(e) = sides.facesOf(edge[0], edge[1]);
    }
    if (!anyPoint) return;

    // An edge that is a point belongs to all triangles at that vertex, not only to degenerate ones.
    std::vector<std::pair<unsigned int, Edge>> byVertex;
    for (index_t e = 0; e < count; ++e)
        if (edges(e)[0] == edges(e)[1]) byVertex.emplace_back(edges(e)[0], Edge(kNoFace, kNoFace));
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
                if ((*entry)[0] == kNoFace)
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
    unsigned int a = 0, b = 0, c = kNoFace, d = kNoFace, ignored = 0;
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

} // namespace Vantle
