#include <baseop/SurfaceRefinement.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
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

/// Loops over edges and triangles are cut into no more slabs than this, each of which counts for itself.
constexpr std::size_t MostSlabs = 8;

/// What an edge or a triangle costs in the passes of this file, in bytes that are read in that time.
constexpr std::size_t BytesPerElement = 64;

std::size_t slabsFor(std::size_t elements) noexcept {
    return std::min(detail::teamFor(elements * BytesPerElement), MostSlabs);
}

/// Calls `function(slab, begin, end)` for each slab of [0, count), on as many threads.
template<class F>
void forEachSlab(std::size_t slabs, index_t count, const F& function) {
    detail::inParallel(slabs, 1, slabs * detail::MemberBytes, [&](std::size_t slab, std::size_t) {
        function(slab, count * slab / slabs, count * (slab + 1) / slabs);
    });
}

/// The elements of an array one after the other, copied if they lie apart.
template<class T>
class Packed {
public:
    explicit Packed(const MemArray<1, T>& array)
        : myCopy(array.stride() == 1 ? nullptr : StrongPtr<MemArray<1, T>>(array.copy())),
          myElements(myCopy ? myCopy->data() : array.data()) {}
    const T& operator[](index_t n) const noexcept { return myElements[n]; }
    [[nodiscard]] const T* data() const noexcept { return myElements; }

private:
    StrongPtr<MemArray<1, T>> myCopy;
    const T* myElements;
};

/// The sides of triangles, found by their lower vertex, each bucket in ascending order of faces.
///
/// Usually each vertex has a bucket of its own (`Dense`). Where few vertices have large numbers, they share some.
/// Each slab of triangles counts its sides, and enters them behind those of the slabs before. `Offset` is wide enough
/// for the number of sides.
template<bool Dense, class Offset>
class SidesByVertex {
public:
    SidesByVertex(const Packed<Triangle>& triangles, index_t faces, std::size_t buckets)
        : myBuckets(buckets), mySides(new Side[3 * faces]) {
        Hestra::adviseLargeArray(mySides.get(), 3 * faces * sizeof(Side));
        const std::size_t slabs = slabsFor(faces);
        myNext.resize(slabs);
        forEachSlab(slabs, faces, [&](std::size_t slab, index_t begin, index_t end) {
            std::vector<Offset>& counts = myNext[slab];
            counts.resize(buckets);
            forEachSide(triangles, begin, end,
                        [&](unsigned int low, unsigned int, unsigned int) { ++counts[bucketOf(low)]; });
        });
        turnCountsIntoOffsets();
        // Entering the sides moves each beginning to the end of its bucket in this slab.
        forEachSlab(slabs, faces, [&](std::size_t slab, index_t begin, index_t end) {
            std::vector<Offset>& next = myNext[slab];
            forEachSide(triangles, begin, end, [&](unsigned int low, unsigned int high, unsigned int face) {
                Side& side = mySides[next[bucketOf(low)]++];
                side.high = high;
                side.face = face;
                if constexpr (!Dense) side.low = low;
            });
        });
    }

    /// The first two faces with this side.
    [[nodiscard]] Edge facesOf(unsigned int p, unsigned int q) const noexcept {
        const unsigned int low = std::min(p, q), high = std::max(p, q);
        const std::size_t bucket = bucketOf(low);
        Edge faces(NoFace, NoFace);
        if (bucket >= myBuckets) return faces;
        // A bucket begins where the one before it ends in the last slab.
        const Side* const end = mySides.get() + myNext.back()[bucket];
        for (const Side* side = mySides.get() + (bucket ? myNext.back()[bucket - 1] : 0); side != end; ++side) {
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
        else // their number is a power of two
            return (vertex * std::size_t{0x9E3779B97F4A7C15} >> 32) & (myBuckets - 1);
    }
    template<class F>
    static void forEachSide(const Packed<Triangle>& triangles, index_t begin, index_t end, const F& f) {
        for (index_t n = begin; n < end; ++n) {
            const auto [a, b, c] = std::array{triangles[n][0], triangles[n][1], triangles[n][2]};
            const auto face = static_cast<unsigned int>(n);
            f(std::min(a, b), std::max(a, b), face);
            f(std::min(b, c), std::max(b, c), face);
            f(std::min(c, a), std::max(c, a), face);
        }
    }

    /// Where each slab enters its first side of each bucket: after those of smaller buckets and of earlier slabs.
    void turnCountsIntoOffsets() {
        const std::size_t slabs = myNext.size();
        std::array<Offset, MostSlabs> sums{};
        forEachSlab(slabs, myBuckets, [&](std::size_t range, index_t begin, index_t end) {
            Offset sum = 0;
            for (const std::vector<Offset>& counts : myNext)
                for (index_t b = begin; b < end; ++b) sum += counts[b];
            sums[range] = sum;
        });
        forEachSlab(slabs, myBuckets, [&](std::size_t range, index_t begin, index_t end) {
            Offset next = 0;
            for (std::size_t before = 0; before < range; ++before) next += sums[before];
            for (index_t b = begin; b < end; ++b)
                for (std::vector<Offset>& counts : myNext) next += std::exchange(counts[b], next);
        });
    }

    std::size_t myBuckets;
    std::vector<std::vector<Offset>> myNext;
    std::unique_ptr<Side[]> mySides;
};

/// Fills the entries of all edges that are not mere points; true if some are.
template<class Sides>
bool fillTable(MemArray<1, Edge>& edgeToFaces, const MemArray<1, Edge>& edges, index_t count, const Sides& sides) {
    std::atomic<bool> anyPoint{false};
    detail::inParallel(count, 8192, count * BytesPerElement, [&](index_t begin, index_t end) {
        for (index_t e = begin; e < end; ++e) {
            const Edge edge = edges(e);
            if (edge[0] == edge[1]) [[unlikely]]
                anyPoint.store(true, std::memory_order_relaxed);
            else
                edgeToFaces(e) = sides.facesOf(edge[0], edge[1]);
        }
    });
    return anyPoint;
}

template<class Offset>
bool fillTable(MemArray<1, Edge>& edgeToFaces, const MemArray<1, Edge>& edges, index_t count,
               const Packed<Triangle>& triangles, index_t faces) {
    std::array<unsigned int, MostSlabs> largestOf{};
    forEachSlab(slabsFor(faces), faces, [&](std::size_t slab, index_t begin, index_t end) {
        unsigned int largest = 0;
        for (index_t f = begin; f < end; ++f)
            for (const unsigned int vertex : triangles[f]) largest = std::max(largest, vertex);
        largestOf[slab] = largest;
    });
    const unsigned int largest = *std::max_element(largestOf.begin(), largestOf.end());
    if (largest <= 8 * faces + 64)
        return fillTable(edgeToFaces, edges, count,
                         SidesByVertex<true, Offset>(triangles, faces, std::size_t{largest} + 1));
    return fillTable(edgeToFaces, edges, count,
                     SidesByVertex<false, Offset>(triangles, faces, std::bit_ceil(2 * faces)));
}

/// Sets the flags of the edges that `isMarked` by number, and returns how many these are.
template<class F>
unsigned int mark(std::vector<bool>& flags, const F& isMarked) {
    // Flags of different pieces share no word, however a vector packs them: so threads may set them.
    constexpr std::size_t Piece = 4096, Word = 64;
    std::atomic<unsigned int> total{0};
    detail::inParallel(flags.size(), Piece, flags.size() * BytesPerElement, [&](std::size_t begin, std::size_t end) {
        unsigned int marked = 0;
        for (std::size_t first = begin; first < end; first += Word) {
            const std::size_t count = std::min(Word, end - first);
            std::uint64_t word = 0;
            for (std::size_t i = 0; i < count; ++i) word |= std::uint64_t{isMarked(first + i)} << i;
            const auto ones = static_cast<std::size_t>(std::popcount(word));
            marked += static_cast<unsigned int>(ones);
            // Single flags cost more than filling a stretch.
            const auto flag = flags.begin() + static_cast<std::ptrdiff_t>(first);
            const bool isMostlyMarked = 2 * ones > count;
            if (isMostlyMarked) {
                std::fill_n(flag, count, true);
                word = ~word & ~std::uint64_t{0} >> (Word - count);
            }
            for (; word; word &= word - 1) flag[std::countr_zero(word)] = !isMostlyMarked;
        }
        total.fetch_add(marked, std::memory_order_relaxed);
    });
    return total;
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
    const Packed<PhysicalSpace::point> points(*myPositions);
    const Packed<Edge> edges(*myEdges);
    const index_t count = myPositions->nElements();
    const double limit = myThreshold * myThreshold;
    std::vector<bool> flags(myEdges->nElements());
    myIllegalEdges = mark(flags, [&](std::size_t e) {
        const unsigned int a = edges[e][0], b = edges[e][1];
        return std::max(a, b) < count && normSquared(points[a] - points[b]) > limit;
    });
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
    if (triangles && !flags.empty())
        count = mark(flags, [&, &points = *myPositions](std::size_t e) {
            const auto [first, second] = std::pair((*faces)(e)[0], (*faces)(e)[1]);
            if (first == second) return false;
            unsigned int a = 0, b = 0, c = NoFace, d = NoFace, ignored = 0;
            TriangleVerticesOrientation((*triangles)(second), (*myEdges)(e), ignored, ignored, d);
            TriangleVerticesOrientation((*triangles)(first), (*myEdges)(e), a, b, c);
            return std::max({a, b, c, d}) < points.nElements() &&
                   Hybrid_Delaunay2D(points(a), points(b), points(c), points(d));
        });
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
    const Packed<Triangle> packed(triangles);
    const bool anyPoint = 3 * faces <= std::numeric_limits<unsigned int>::max()
                              ? fillTable<unsigned int>(edgeToFaces, edges, count, packed, faces)
                              : fillTable<std::size_t>(edgeToFaces, edges, count, packed, faces);
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

namespace {

/// The most edges of a face.
constexpr unsigned char MostEdges = 3;

struct FaceEdge {
    unsigned int face, edge;
};

/// Enters edges of [firstEdge, lastEdge) in the rows of their faces, if these are of [firstFace, lastFace); other
/// faces, of `faces`, are noted with their edges, unless there are none. Returns whether a row was full.
template<bool HasOthers>
bool enterEdges(const Edge* table, index_t firstEdge, index_t lastEdge, Triangle* rows, index_t stride,
                unsigned char* counts, index_t firstFace, index_t lastFace, [[maybe_unused]] index_t faces,
                [[maybe_unused]] std::vector<FaceEdge>& others) {
    const index_t count = lastFace - firstFace;
    bool isAnyLeftOut = false;
    for (index_t e = firstEdge; e < lastEdge; ++e)
        for (const unsigned int face : table[e]) {
            if (face - firstFace >= count) { // also of faces before the first one
                if constexpr (HasOthers)
                    if (face < faces) others.push_back({face, static_cast<unsigned int>(e)});
                continue;
            }
            const int n = counts[face];
            if (n < MostEdges) {
                rows[face * stride][n] = static_cast<unsigned int>(e);
                counts[face] = static_cast<unsigned char>(n + 1);
            } else {
                isAnyLeftOut = true;
            }
        }
    return isAnyLeftOut;
}

/// Enters one more edge in a row, of which the first ones stay, in ascending order.
void enterBetween(Triangle& row, unsigned char& count, unsigned int edge) {
    const int last = std::min<int>(count, MostEdges - 1);
    if (count == MostEdges && edge >= row[last]) return;
    int at = last;
    for (; at > 0 && row[at - 1] > edge; --at) row[at] = row[at - 1];
    row[at] = edge;
    count = static_cast<unsigned char>(last + 1);
}

} // namespace

void GenerateFace2EdgesTable(MemArray<1, Triangle>& faceToEdges, const MemArray<1, Edge>& edgeToFaces,
                             const MemArray<1, Triangle>&, const MemArray<1, Edge>&, int edgeCount, int faceCount) {
    const Hestra::Profiler scope("baseop/SurfaceRefinement", __LINE__, "GenerateFace2EdgesTable(edges)",
                                 __PRETTY_FUNCTION__);
    const index_t faces = boundedCount(faceCount, faceToEdges.nElements());
    const index_t edges = boundedCount(edgeCount, edgeToFaces.nElements());
    // Each slab of edges enters those of its slab of faces, and leaves the others, which are few as a rule, to the
    // slabs that have their faces.
    const Packed<Edge> table(edgeToFaces);
    const auto filled = std::make_unique_for_overwrite<unsigned char[]>(faces);
    const std::size_t slabs = slabsFor(edges);
    std::vector<std::vector<FaceEdge>> ofOthers(slabs);
    std::atomic<bool> anyLeftOut{false};
    forEachSlab(slabs, faces, [&](std::size_t slab, index_t begin, index_t end) {
        std::fill(filled.get() + begin, filled.get() + end, static_cast<unsigned char>(0));
        std::vector<FaceEdge> others;
        const auto enter = slabs > 1 ? &enterEdges<true> : &enterEdges<false>;
        if (enter(table.data(), edges * slab / slabs, edges * (slab + 1) / slabs, faceToEdges.data(),
                  faceToEdges.stride(), filled.get(), begin, end, faces, others))
            anyLeftOut.store(true, std::memory_order_relaxed);
        ofOthers[slab] = std::move(others);
    });
    if (slabs > 1)
        forEachSlab(slabs, faces, [&](std::size_t, index_t begin, index_t end) {
            for (const std::vector<FaceEdge>& others : ofOthers)
                for (const auto& [face, edge] : others) {
                    if (face < begin || face >= end) continue;
                    if (filled[face] == MostEdges) anyLeftOut.store(true, std::memory_order_relaxed);
                    enterBetween(faceToEdges(face), filled[face], edge);
                }
        });
    if (!anyLeftOut || !Console::isHeard()) return;

    std::vector<unsigned char> seen(faces, 0);
    for (index_t e = 0; e < edges; ++e)
        for (const unsigned int face : edgeToFaces(e)) {
            if (face >= faces || seen[face]++ < MostEdges) continue;
            seen[face] = MostEdges;
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
