#pragma once
/// Kinds of grids: short ways to build the usual ones, and views of what they hold.
///
/// All of them are light: a handle to the grid, nothing of their own. Copies refer to the same grid.
/// Concurrency  as of the grid: reading from any number of threads, changing from one while nobody reads.

#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/Grid.hpp>
#include <model/vantle/MemArray.hpp>
#include <model/vantle/Simplex.hpp>

#include <optional>
#include <string>
#include <vector>

namespace Vantle {

using Triangle = SimplexCell<2, unsigned int, IJ_CellNamingConvention>;
using Edge = SimplexCell<1, unsigned int, IJ_CellNamingConvention>;

/// A grid known to be of some kind.
class VANTLE_MODEL_API TypedGrid {
public:
    TypedGrid() = default;
    explicit TypedGrid(const Hestra::StrongPtr<Grid>& grid) : myGrid(grid) {}

    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept { return myGrid; }
    [[nodiscard]] explicit operator bool() const noexcept { return bool(myGrid); }

private:
    Hestra::StrongPtr<Grid> myGrid;
};

/// A grid whose vertices have Cartesian coordinates. Fields added to it share the fragments of the positions.
class VANTLE_MODEL_API GridWithCartesianVertices : public TypedGrid {
public:
    GridWithCartesianVertices() = default;
    /// Makes the vertices of this dimension, their representation in the default Cartesian chart, and an empty
    /// positions field, where they are missing.
    GridWithCartesianVertices(const Hestra::StrongPtr<Grid>& grid, int dims);

    [[nodiscard]] const Hestra::StrongPtr<Skeleton>& vertices() const noexcept { return myVertices; }
    [[nodiscard]] const Hestra::StrongPtr<Representation>& representation() const noexcept { return myRepresentation; }
    [[nodiscard]] Hestra::StrongPtr<Field> positions() const;
    /// The field of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Field> field(const std::string& name) const;

    /// Sets `data` as (a fragment of) the field of this name, which is made when missing.
    Hestra::StrongPtr<Field> setField(const std::string& name, const Hestra::StrongPtr<MemBase>& data,
                                      const Hestra::StrongPtr<FragmentID>& fragment = {});

protected:
    Hestra::StrongPtr<Field> makeField(const std::string& name);

private:
    Hestra::StrongPtr<Skeleton> myVertices;
    Hestra::StrongPtr<Representation> myRepresentation;
};

/// A grid of vertices with three indices, in one piece or in named blocks.
class VANTLE_MODEL_API RegularGrid3D : public GridWithCartesianVertices {
public:
    using Positions = MemArray<3, Orvix::PhysicalSpace::point>;

    RegularGrid3D() = default;
    explicit RegularGrid3D(const Hestra::StrongPtr<Grid>& grid) : GridWithCartesianVertices(grid, 3) {}

    /// One unfragmented curvilinear block.
    static RegularGrid3D create(Grid& grid, const Hestra::StrongPtr<Positions>& positions);
    /// A rectilinear grid: the direct product of three lists of coordinates.
    static RegularGrid3D createRectilinear(Grid& grid, std::vector<double> x, std::vector<double> y,
                                           std::vector<double> z);

    /// Adds a named block with its positions: curvilinear, rectilinear or uniform. Blocks that are pieces of one index
    /// space give the place of their first vertex in it, so that shared vertices and edges are recognised.
    Hestra::StrongPtr<FragmentID> addBlock(const std::string& name, const Hestra::StrongPtr<MemBase>& positions,
                                           const std::optional<MultiIndex<3>>& offset = {});
};

/// A grid of equally spaced vertices in a box.
class VANTLE_MODEL_API UniformGrid3D : public RegularGrid3D {
public:
    UniformGrid3D() = default;
    explicit UniformGrid3D(const Hestra::StrongPtr<Grid>& grid) : RegularGrid3D(grid) {}
    /// `counts` vertices along the axes, the first and the last on the faces of the box.
    static UniformGrid3D create(Grid& grid, const Orvix::BoundingBox& box, const MultiIndex<3>& counts);
};

/// Points of which each belongs to one cell of a uniform lattice; each lattice cell is a fragment.
///
/// Fragments are named by their cell's index and carry the cell's box. A cell owns its lower faces; the faces of the
/// box's maximum belong to the last cells.
class VANTLE_MODEL_API RegularlyFragmentedClusteredPointCloudGrid : public GridWithCartesianVertices {
public:
    RegularlyFragmentedClusteredPointCloudGrid() = default;
    /// The fragments of a lattice of `cells` in `box`, without points yet. Empty when there is no grid, no box, one
    /// without finite extents, or a count of 0.
    static RegularlyFragmentedClusteredPointCloudGrid create(Hestra::StrongPtr<Grid>& grid, const MultiIndex<3>& cells,
                                                             const Hestra::StrongPtr<Orvix::BoundingBox>& box);
    /// Distributes points to the fragments, replacing what they held; points outside the box (and NaN) are left out.
    /// Fragments are found by name: whatever else the grid has stays as it is.
    ///
    /// @return number of points taken.
    std::size_t setPoints(const std::vector<Orvix::PhysicalSpace::point>& points);

private:
    MultiIndex<3> myCells;
    Hestra::StrongPtr<Orvix::BoundingBox> myBox;
};

/// Edges of a grid.
class VANTLE_MODEL_API Edges {
public:
    using Array = MemArray<1, Edge>;

    /// The two vertices of every edge, from the edge skeleton's positions relative to the vertices; null if there are
    /// none. With `build`, missing edges are made from the triangles: unique, in order of first appearance, lower
    /// vertex index first.
    [[nodiscard]] static Hestra::StrongPtr<Array> getVerticesPerEdge(const Hestra::StrongPtr<Grid>& grid,
                                                                     bool build = false);
};

/// View of a triangular surface: its vertices and triangles, as the grid has them. Nothing is made or stored.
class VANTLE_MODEL_API TriangularSurface : public TypedGrid {
public:
    using Points = MemArray<1, Orvix::PhysicalSpace::point>;
    using Triangles = MemArray<1, Triangle>;

    TriangularSurface() = default;
    /// Cost  that of looking two fields up, whatever the size of the surface.
    explicit TriangularSurface(const Hestra::StrongPtr<Grid>& grid);
    /// Makes the grid a surface of these vertices and triangles.
    static TriangularSurface create(Grid& grid, std::vector<Orvix::PhysicalSpace::point> points,
                                    std::vector<Triangle> triangles);

    /// Each null when the grid does not have it.
    [[nodiscard]] const Hestra::StrongPtr<Points>& points() const noexcept { return myPoints; }
    [[nodiscard]] const Hestra::StrongPtr<Triangles>& triangles() const noexcept { return myTriangles; }

private:
    Hestra::StrongPtr<Points> myPoints;
    Hestra::StrongPtr<Triangles> myTriangles;
};

/// The same with edges, which are made from the triangles and stored in the grid when they are missing.
class VANTLE_MODEL_API TriangularSurfaceWithEdges : public TriangularSurface {
public:
    TriangularSurfaceWithEdges() = default;
    /// Cost  several times that of an isosurface of this size where edges are made; see `TriangularSurface`.
    explicit TriangularSurfaceWithEdges(const Hestra::StrongPtr<Grid>& grid);
    /// Makes a surface: vertices, triangles and their edges.
    static TriangularSurfaceWithEdges create(Grid& grid, std::vector<Orvix::PhysicalSpace::point> points,
                                             std::vector<Triangle> triangles);

    /// Null when the grid has neither edges nor triangles.
    [[nodiscard]] const Hestra::StrongPtr<Edges::Array>& edges() const noexcept { return myEdges; }

private:
    Hestra::StrongPtr<Edges::Array> myEdges;
};

/// A grid of curves: vertices, and for every curve the ordered list of its vertices.
///
/// The curves are the edge skeleton `SkeletonID(1,1)`; relative to the vertices its positions are the index lists.
class VANTLE_MODEL_API LineSet : public TypedGrid {
public:
    using Points = TypedArray<Orvix::PhysicalSpace::point>;

    /// View of a grid that has curves already.
    explicit LineSet(const Hestra::StrongPtr<Grid>& grid) : TypedGrid(grid) {}
    /// Makes the grid a set of curves, whose index lists are stored as given.
    LineSet(const Hestra::StrongPtr<Grid>& grid, const Hestra::StrongPtr<Points>& points,
            const Hestra::StrongPtr<MemArray<1, std::vector<unsigned int>>>& curves);
    LineSet(const Hestra::StrongPtr<Grid>& grid, const Hestra::StrongPtr<Points>& points,
            const Hestra::StrongPtr<MemArray<1, std::vector<index_t>>>& curves);
    /// Makes vertices, edges and their representations where they are missing, and returns the view.
    static LineSet setupStandardFields(const Hestra::StrongPtr<Grid>& grid);

    /// The vertices' positions and the curves' index lists; null when missing.
    [[nodiscard]] Hestra::StrongPtr<Field> positions() const;
    [[nodiscard]] Hestra::StrongPtr<Field> curves() const;

private:
    void setup(const Hestra::StrongPtr<MemBase>& points, const Hestra::StrongPtr<MemBase>& curves);
};

} // namespace Vantle
