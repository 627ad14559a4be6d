#pragma once
/// Refinement of triangular surfaces: criteria that mark edges, and tables of which edge belongs to which triangle.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/GridKinds.hpp>

#include <vector>

namespace Vantle {

/// Decides for every edge of a surface whether it is to be changed.
///
/// Degenerate   a grid without edges, and without triangles that they could be made from, has no flags; nor has, for
///              criteria that look at lengths or shapes, one without positions. An edge with a vertex index out of
///              range is not marked.
/// Concurrency  one object serves one thread at a time.
class VANTLE_BASEOP_API SurfaceRefinementCriterion : public Hestra::ReferenceBase<SurfaceRefinementCriterion> {
public:
    explicit SurfaceRefinementCriterion(double threshold = 0.0) : myThreshold(threshold) {}
    ~SurfaceRefinementCriterion() override;

    /// A new criterion of the same class with the same threshold, which has seen no surface.
    [[nodiscard]] virtual Hestra::StrongPtr<SurfaceRefinementCriterion> copyMe() const = 0;
    /// One flag for each edge, in the order of the surface's edges.
    [[nodiscard]] virtual std::vector<bool> DetectEdges(const Hestra::StrongPtr<Grid>& grid) = 0;

    /// Loads positions and edges of a surface; missing edges are made from its triangles and stored in the grid. What
    /// the grid does not have is null then.
    void GetData(const Hestra::StrongPtr<Grid>& grid);
    /// Number of edges that the last `DetectEdges` marked; see `SplitAllCriterion` for the exception.
    [[nodiscard]] unsigned int IllegalEdgesCount() const noexcept { return myIllegalEdges; }

    [[nodiscard]] double threshold() const noexcept { return myThreshold; }
    [[nodiscard]] const TriangularSurfaceWithEdges& surface() const noexcept { return mySurface; }
    [[nodiscard]] const Hestra::StrongPtr<TriangularSurfaceWithEdges::Points>& positions() const noexcept {
        return myPositions;
    }
    [[nodiscard]] const Hestra::StrongPtr<Edges::Array>& edges() const noexcept { return myEdges; }

protected:
    TriangularSurfaceWithEdges mySurface;
    Hestra::StrongPtr<TriangularSurfaceWithEdges::Points> myPositions;
    Hestra::StrongPtr<Edges::Array> myEdges;
    double myThreshold = 0.0;
    unsigned int myIllegalEdges = 0;
};

/// Marks edges longer than the threshold, by the squares of both: a negative threshold is as good as a positive one.
class VANTLE_BASEOP_API EdgeLengthCriterion : public SurfaceRefinementCriterion {
public:
    using SurfaceRefinementCriterion::SurfaceRefinementCriterion;
    ~EdgeLengthCriterion() override;
    [[nodiscard]] Hestra::StrongPtr<SurfaceRefinementCriterion> copyMe() const override;
    [[nodiscard]] std::vector<bool> DetectEdges(const Hestra::StrongPtr<Grid>& grid) override;
};

/// Marks every edge, with or without positions, and leaves the count of illegal edges alone.
class VANTLE_BASEOP_API SplitAllCriterion : public SurfaceRefinementCriterion {
public:
    using SurfaceRefinementCriterion::SurfaceRefinementCriterion;
    ~SplitAllCriterion() override;
    [[nodiscard]] Hestra::StrongPtr<SurfaceRefinementCriterion> copyMe() const override;
    [[nodiscard]] std::vector<bool> DetectEdges(const Hestra::StrongPtr<Grid>& grid) override;
};

/// Marks edges to be replaced by the other diagonal of their two triangles; the threshold bounds doubled areas below
/// which a triangle counts as degenerate. Edges of one triangle are never marked. Prints two lines on the progress.
///
/// Of an edge with more than two triangles the first two count.
class VANTLE_BASEOP_API EdgeFlipCriterion : public SurfaceRefinementCriterion {
public:
    using SurfaceRefinementCriterion::SurfaceRefinementCriterion;
    ~EdgeFlipCriterion() override;
    [[nodiscard]] Hestra::StrongPtr<SurfaceRefinementCriterion> copyMe() const override;
    [[nodiscard]] std::vector<bool> DetectEdges(const Hestra::StrongPtr<Grid>& grid) override;

    /// Whether the edge from `a` to `b` of the triangles a b c and a b d is to be flipped: both angles opposite to it
    /// are obtuse, the triangles are not folded over each other, and neither these two nor the two after the flip are
    /// degenerate. A doubled area of exactly the threshold will do before the flip, and not after it.
    [[nodiscard]] bool Hybrid_Delaunay2D(const Orvix::PhysicalSpace::point& a, const Orvix::PhysicalSpace::point& b,
                                         const Orvix::PhysicalSpace::point& c,
                                         const Orvix::PhysicalSpace::point& d) const;
};

/// Whether both angles opposite to the edge from `a` to `b`, at `c` and at `d`, are obtuse.
[[nodiscard]] VANTLE_BASEOP_API bool DelaunayCriterion2D(const Orvix::PhysicalSpace::point& a,
                                                         const Orvix::PhysicalSpace::point& b,
                                                         const Orvix::PhysicalSpace::point& c,
                                                         const Orvix::PhysicalSpace::point& d);

/// Sets `a` and `b` to the ends of an edge in the cyclic order of the triangle, and `opposite` to its vertex that is
/// no end of the edge: the first such one. A triangle without such a vertex gives the ends in the order of the edge,
/// and leaves `opposite` as it is.
VANTLE_BASEOP_API void TriangleVerticesOrientation(const Triangle& triangle, const Edge& edge, unsigned int& a,
                                                   unsigned int& b, unsigned int& opposite);

/// In an edge-to-faces table: an edge that belongs to no triangle.
inline constexpr unsigned int NoFace = ~0U;

/// Sets each entry of `edgeToFaces` to the first two triangles, by index, that contain both ends of the edge. An edge
/// of one triangle has it in both slots; an edge of none has `NoFace`.
///
/// Degenerate   counts beyond the arrays are cut, negative ones are 0. Repeated edges each have their own entry.
/// Cost         near-linear in triangles and edges: those of a vertex are looked through for each of its edges.
VANTLE_BASEOP_API void GenerateEdge2FacesTable(MemArray<1, Edge>& edgeToFaces, const MemArray<1, Triangle>& triangles,
                                               const MemArray<1, Edge>& edges, int faceCount, int edgeCount);
/// The same with handles, as the others below; nothing happens when one of them is null.
inline void GenerateEdge2FacesTable(const Hestra::StrongPtr<MemArray<1, Edge>>& edgeToFaces,
                                    const Hestra::StrongPtr<MemArray<1, Triangle>>& triangles,
                                    const Hestra::StrongPtr<MemArray<1, Edge>>& edges, int faceCount, int edgeCount) {
    if (edgeToFaces && triangles && edges)
        GenerateEdge2FacesTable(*edgeToFaces, *triangles, *edges, faceCount, edgeCount);
}

/// Enters each edge, in ascending order, into the next free position of the triangles in its two slots of
/// `edgeToFaces`. Mind the order of the counts.
///
/// An entry that does not fit, since its triangle has three edges already, is left out, with a message. Slots are taken
/// as they are: the edge of a single triangle is entered there twice, so that surfaces with boundary provoke messages.
/// Slots without a triangle are passed over. Positions that no edge is entered into stay as they are.
VANTLE_BASEOP_API void GenerateFace2EdgesTable(MemArray<1, Triangle>& faceToEdges, const MemArray<1, Edge>& edgeToFaces,
                                               const MemArray<1, Triangle>& triangles, const MemArray<1, Edge>& edges,
                                               int edgeCount, int faceCount);
inline void GenerateFace2EdgesTable(const Hestra::StrongPtr<MemArray<1, Triangle>>& faceToEdges,
                                    const Hestra::StrongPtr<MemArray<1, Edge>>& edgeToFaces,
                                    const Hestra::StrongPtr<MemArray<1, Triangle>>& triangles,
                                    const Hestra::StrongPtr<MemArray<1, Edge>>& edges, int edgeCount, int faceCount) {
    if (faceToEdges && edgeToFaces && triangles && edges)
        GenerateFace2EdgesTable(*faceToEdges, *edgeToFaces, *triangles, *edges, edgeCount, faceCount);
}

/// Arranges the vertices of two triangles so that the edge they share is (t[0], t[1]) in the first one and
/// (t[1], t[0]) in the second one. The first is rotated; so is the second one, and turned over first if both run along
/// the edge in the same direction.
///
/// Degenerate   nothing happens when there is no such edge, or one of the triangles does not have it or is degenerate.
VANTLE_BASEOP_API void OrientTriangleEdges(Triangle& first, Triangle& second, const MemArray<1, Edge>& edges,
                                           unsigned int edge);
inline void OrientTriangleEdges(Triangle& first, Triangle& second, const Hestra::StrongPtr<MemArray<1, Edge>>& edges,
                                unsigned int edge) {
    if (edges) OrientTriangleEdges(first, second, *edges, edge);
}

/// The point between two points.
[[nodiscard]] VANTLE_BASEOP_API Orvix::PhysicalSpace::point midpoint(const Orvix::PhysicalSpace::point& p,
                                                                     const Orvix::PhysicalSpace::point& q);
/// The point m between two points, scaled by r / |m - c|. With `c` in the origin that is the projection of m onto the
/// sphere of radius `r`; for any other centre it is not, on purpose. Not finite when m is `c`.
[[nodiscard]] VANTLE_BASEOP_API Orvix::PhysicalSpace::point midpoint(const Orvix::PhysicalSpace::point& p,
                                                                     const Orvix::PhysicalSpace::point& q, double r,
                                                                     const Orvix::PhysicalSpace::point& c);

/// Refines nothing yet: makes sure that the surface has edges, and returns null.
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> refineSurface(Bundle& bundle, const Hestra::StrongPtr<Grid>& grid,
                                                        const Hestra::StrongPtr<SurfaceRefinementCriterion>& criterion);
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> refineSurface(Bundle& bundle, const Hestra::StrongPtr<Grid>& grid,
                                                        const SurfaceRefinementCriterion& criterion);
inline Hestra::StrongPtr<Grid> refineSurface(Bundle& bundle, Grid& grid, const SurfaceRefinementCriterion& criterion) {
    return refineSurface(bundle, Hestra::StrongPtr<Grid>(&grid), criterion);
}
inline Hestra::StrongPtr<Grid> refineSurface(Bundle& bundle, Grid& grid,
                                             const Hestra::StrongPtr<SurfaceRefinementCriterion>& criterion) {
    return refineSurface(bundle, Hestra::StrongPtr<Grid>(&grid), criterion);
}

} // namespace Vantle
