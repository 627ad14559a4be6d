#pragma once
/// Surfaces of constant value of a scalar field: the marching cubes, cell by cell and over whole arrays and grids.
///
/// A vertex of a surface is an edge of the grid and a weight along it. Vertices on the same edge are one vertex;
/// positions, and any other quantity, are evaluated on the edges afterwards.

#include <baseop/BaseOpExport.hpp>
#include <baseop/BlockJoins.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/MemArray.hpp>

#include <concepts>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Vantle {

namespace detail {
class JoinedBlocks;
class PlacedBlocks;
struct PlaneDistance;
struct SurfacePiece;
} // namespace detail

// ---- The polygonizer ------------------------------------------------------------------------------------------------

/// The edges of a regular array of vertices, in one sequence: all along axis 0, then axis 1, and so on, each block in
/// the order of its lower vertices.
namespace RegularTopology {

/// The number of the edge that goes from `vertex` along axis `orientation`, in an array of these extents.
///
/// Degenerate  an axis of extent 0 counts as one without edges.
/// Failure     throws `0ULL` when there is no such axis. The vertex is not checked.
template<int N>
[[nodiscard]] VANTLE_BASEOP_API index_t ComputeEdgeIDfromVertexAndOrientation(const MultiIndex<N>& vertex,
                                                                              int orientation,
                                                                              const MultiIndex<N>& vertexDimensions);

} // namespace RegularTopology

/// A scalar array together with the level at which it is explored, 0 by default. The array is viewed, and outlives the
/// explorer.
template<class Array>
class FieldExplorer {
    using Element = typename Array::value_type;

public:
    /// What is copied of the array: a view of its elements.
    using View = std::conditional_t<std::is_base_of_v<MultiArray<3, Element>, Array>, MultiArray<3, Element>, Array>;

    explicit FieldExplorer(const Array& data) : FieldExplorer(data, 0.0) {}
    FieldExplorer(const Array& data, double level) : myData(data), myLevel(level) {}

    [[nodiscard]] const View& data() const noexcept { return myData; }
    [[nodiscard]] double level() const noexcept { return myLevel; }
    [[nodiscard]] const MultiIndex<3>& Size() const noexcept { return myData.Size(); }
    /// The value at a vertex.
    [[nodiscard]] double getElement(const MultiIndex<3>& vertex) const {
        return static_cast<double>(myData.getElement(vertex));
    }
    [[nodiscard]] double operator[](const MultiIndex<3>& vertex) const { return getElement(vertex); }
    [[nodiscard]] double operator()(const MultiIndex<3>& vertex) const { return getElement(vertex); }
    template<std::integral... I>
    requires(sizeof...(I) == 3) [[nodiscard]] double operator()(I... index) const {
        return getElement(MultiIndex<3>(index...));
    }

private:
    View myData;
    double myLevel;
};
template<class T, class... Level>
FieldExplorer(const MemArray<3, T>&, Level...) -> FieldExplorer<MultiArray<3, T>>;
template<class T, class... Level>
FieldExplorer(const ReferencingMemArray<3, T>&, Level...) -> FieldExplorer<MultiArray<3, T>>;

/// The corners that each edge of a cell joins, for arrays of type `Array`. Weights are computed from the first to the
/// second, and then turned to count from the lower end.
template<class Array>
inline constexpr int EdgeVertices[12][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6},
                                            {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}};

/// Per case of a cell (bit c is set when corner c is inside) the edges that are cut, as bits, and the triangles, as up
/// to five triples of edges ended by -1.
using detail::edgeTable;
using detail::triTable;

/// Adds the triangles of one cell, and those of its vertices that are not there yet.
///
/// The cell's lowest vertex is `cell`; corners are numbered around its lower face and then around its upper one. A
/// corner is inside when its value is less than `level`, so NaN and the level itself are outside. A vertex's weight
/// counts from the lower end of its edge and lies in [0, 1]; it is 0.5 when the values at both ends do not differ.
/// Order       vertices in the order in which the triangles first use them, triangles and their corners in that of the
///             case tables.
/// Degenerate  a NaN weight where a value is infinite.
/// Failure     none; the cell must lie within the explorer's array. Indices beyond 2^32 - 1 are cut.
/// Concurrency one sweep, one thread.
/// Cost        a look-up in the map for each corner of each triangle. Whole arrays are faster with
///             `ComputeIsosurfaceT`, which gives the same surface.
///
/// @param edgeMap           the vertex on each edge so far.
/// @param identifierOffset  added to the numbers of edges in `explorer`'s array to make identifiers.
/// @return number of triangles added.
template<class Array>
VANTLE_BASEOP_API int Polygonize(std::vector<index_t>& edgeIdentifiers, std::vector<double>& weights,
                                 std::vector<TriangleCell>& triangles, std::map<index_t, index_t>& edgeMap,
                                 const FieldExplorer<Array>& explorer, const MultiIndex<3>& cell, double level,
                                 index_t identifierOffset);

/// The same for an explorer of an array in memory, by that of its view.
template<class T>
int Polygonize(std::vector<index_t>& edgeIdentifiers, std::vector<double>& weights,
               std::vector<TriangleCell>& triangles, std::map<index_t, index_t>& edgeMap,
               const FieldExplorer<MemArray<3, T>>& explorer, const MultiIndex<3>& cell, double level,
               index_t identifierOffset) {
    return Polygonize(edgeIdentifiers, weights, triangles, edgeMap, FieldExplorer(explorer.data(), explorer.level()),
                      cell, level, identifierOffset);
}

/// Evaluates a quantity of the vertices of a grid on edges: f(lower) + weight * (f(upper) - f(lower)).
///
/// `out` is resized to the number of identifiers and filled from position `first` on; what is before stays.
/// Failure     throws `int(-1)` at an identifier that is none of this array of vertices.
///
/// @param vertexDimensions  extents of the array that the identifiers refer to.
/// @param indexOffset       added to its vertices, modulo 2^64, to make indices of `array`.
/// @param identifierOffset  subtracted from the identifiers first, modulo 2^64.
template<class Array>
void EvalVertexFieldOnEdges(std::vector<typename Array::value_type>& out, const std::vector<index_t>& edgeIdentifiers,
                            const std::vector<double>& weights, const Array& array,
                            const MultiIndex<3>& vertexDimensions, const MultiIndex<3>& indexOffset, index_t first,
                            index_t identifierOffset);

/// The point between `p1`, with value `f1`, and `p2`, with value `f2`, where the value is `level`; never beyond them.
///
/// Degenerate  `p1` when the values do not differ, on purpose unlike the weight of an edge.
[[nodiscard]] VANTLE_BASEOP_API Orvix::PhysicalSpace::point VertexInterp(double level,
                                                                         const Orvix::PhysicalSpace::point& p1,
                                                                         const Orvix::PhysicalSpace::point& p2,
                                                                         double f1, double f2);

/// Does nothing; a program that calls it has the polygonizer linked.
VANTLE_BASEOP_API void CheckPolygonizer();

// ---- Surfaces of whole arrays ---------------------------------------------------------------------------------------

/// The points and the triangles of a surface.
using IsosurfaceArrays = std::pair<Hestra::StrongPtr<MemArray<1, Orvix::PhysicalSpace::point>>,
                                   Hestra::StrongPtr<MemArray<1, TriangleCell>>>;

/// The surface of an array at the explorer's level.
///
/// `Coordinates` is an array of points or a direct product of linear or explicit axes, with the extents of the data;
/// `Data` is `MultiArray<3, T>` for T = double, float, unsigned char, short or unsigned short.
/// Laws        the surface is that of `Polygonize` over all cells, axis 0 fastest, with one map of edges, followed by
///             `EvalVertexFieldOnEdges`: the same vertices and triangles in the same order, bit for bit, whatever the
///             number of threads. Where it does not leave the array, every edge of the surface belongs to two
///             triangles.
/// Degenerate  an extent below 2 gives an empty surface. A level equal to the greatest value gives triangles collapsed
///             onto the vertices of that value; one equal to the least value gives none.
/// Failure     when something throws, prints "ComputeIsosurfaceT(): INTERNAL ERROR" and rethrows it: `IsoException` 3
///             when the extents differ, std::length_error for more than 2^32 vertices before anything is written, and
///             lack of memory.
/// Cost        a pass over the data at the speed of a comparison each, and some 20 nanoseconds a cut cell. Beside the
///             result, two bytes for each cut cell and eight for each 64 cells of a row of which some are cut, and five
///             planes of 32-bit indices a thread.
template<class Coordinates, class Data>
[[nodiscard]] VANTLE_BASEOP_API IsosurfaceArrays ComputeIsosurfaceT(const FieldExplorer<Data>& explorer,
                                                                    const Coordinates& coordinates, double parameter);

/// The same for an explorer of an array in memory.
template<class Coordinates, class T>
[[nodiscard]] IsosurfaceArrays ComputeIsosurfaceT(const FieldExplorer<MemArray<3, T>>& explorer,
                                                  const Coordinates& coordinates, double parameter) {
    return ComputeIsosurfaceT(FieldExplorer(explorer.data(), explorer.level()), coordinates, parameter);
}

/// The same for data and curvilinear coordinates in memory; T = double or unsigned char.
template<class T>
[[nodiscard]] VANTLE_BASEOP_API IsosurfaceArrays
ComputeIsosurface(double level, const MultiArray<3, T>& data,
                  const MultiArray<3, Orvix::PhysicalSpace::point>& coordinates, double parameter);

// ---- Surfaces of grids ----------------------------------------------------------------------------------------------

/// Why there is no isosurface, as a code:
/// 0 none, 1 no coordinates in the grid, 2 no such field, 3 no coordinates for a fragment, 4 element type not
/// supported.
class VANTLE_BASEOP_API IsoException : public std::exception {
public:
    explicit IsoException(int code) noexcept : myCode(code) {}
    ~IsoException() override;
    [[nodiscard]] int code() const noexcept { return myCode; }
    [[nodiscard]] const char* what() const noexcept override;

private:
    int myCode;
};

/// Collects the surface of a field fragment by fragment.
///
/// Edges of fragments that carry a `FragmentLocation<3, IndexOffset>` are named by their place in the index space of
/// the whole grid: equal edges are one vertex. Other fragments, and those beyond 2^20 vertices from the origin of that
/// space, share no vertices, unless they are joined. Cells that several fragments have are triangulated as often.
/// Concurrency  one thread; the sweep over a fragment uses the team of OpenMP.
class VANTLE_BASEOP_API FragmentIsoSurfacer : public FragmentIterator {
public:
    template<class T>
    using Chunk = Hestra::StrongPtr<Hestra::TypedChunk<T>>;

    /// Appends to the four chunks, which must not be null: vertices as edges and weights and as points, and triangles.
    ///
    /// @param positions  the coordinates of the fragments.
    FragmentIsoSurfacer(double level, double parameter, const Hestra::StrongPtr<Field>& positions,
                        const Chunk<index_t>& edgeIdentifiers, const Chunk<double>& weights,
                        const Chunk<Orvix::PhysicalSpace::point>& points, const Chunk<TriangleCell>& triangles);
    FragmentIsoSurfacer(const FragmentIsoSurfacer&) = delete;
    FragmentIsoSurfacer& operator=(const FragmentIsoSurfacer&) = delete;
    ~FragmentIsoSurfacer() override;

    /// From now on, blocks that are joined give one surface; called before the first fragment. Offsets of fragments
    /// count no more: where vertices are one, so are the edges between them. Vertices have their owners' positions and
    /// values, the triangles of mirrored blocks are turned, and those of which two corners are one are left out.
    ///
    /// @param values  the field whose fragments will come.
    void joinBlocks(const Hestra::StrongPtr<BlockJoins>& joins, const Hestra::StrongPtr<Field>& values);
    /// From now on, what a fragment's values reach from and to is asked of `rangeOf`, and the ranges of creators, in
    /// which a NaN may stand for numbers, count no more; nor are they computed. Nothing stands for no values at all.
    using RangeOf = std::function<std::optional<std::pair<double, double>>(const Hestra::StrongPtr<FragmentID>&)>;
    void useRanges(RangeOf rangeOf) { myRangeOf = std::move(rangeOf); }
    /// From now on, surfaces are those of the distances from a plane, positive where its normal shows, at level 0: the
    /// fragments that come are of the positions, and the distances are computed where the sweep asks for them.
    /// Failure  std::invalid_argument for a normal without length.
    void cutByPlane(const Orvix::PhysicalSpace::point& origin, const Orvix::PhysicalSpace::vector& normal);
    /// Called after the last fragment: drops vertices that joining has left without triangles, as where a block is
    /// collapsed.
    void finish();
    /// Whether joining has left out triangles until now, so that some vertices may have none. Who puts several surfaces
    /// together asks this instead of finishing each: a vertex without triangles in one may have some in another.
    [[nodiscard]] bool hasDropped() const noexcept;
    /// The masks of the grid that the fragments belong to: cells that are not valid have no surface. None by default.
    void setBlanking(const Blanking& masks) { myBlanking = masks; }

    [[nodiscard]] double level() const noexcept { return myLevel; }
    /// What the caller gave beside the level; nothing here depends on it.
    [[nodiscard]] double parameter() const noexcept { return myParameter; }
    /// Whether a value of the fragments so far, at a valid vertex, lies above the level.
    [[nodiscard]] bool reachesAbove() const noexcept { return myReachesAbove; }

    /// Adds the surface of one fragment, unless the range of its values is known not to hold the level. True.
    ///
    /// Ranges      a current range of double or float values spares even making the data. Of made data, double and
    ///             unsigned short values get a range if they have none, unsigned char values a new one each time unless
    ///             their bricks are kept; float values are only asked for one, and short values have none.
    /// Bricks      of blocks of 2^16 vertices or more, the extremes of 8^3 cells are found once, in one pass with the
    ///             range, and kept beside the creator, in `Cache::MemCache()`: further levels read only bricks that
    ///             they cross. Values that were written in place need a `touch()` of the creator, as for its range.
    /// Messages    "SKIP Iso" for a skip without data, "SKIP Iso Retrieve: ..." for a skip of double values.
    /// Degenerate  no creator, or one without data, adds nothing.
    /// Failure     throws `const char*` for data that are not three-dimensional; then `IsoException` 3, after a
    ///             message, without coordinates of the same extents; then std::invalid_argument for masks that do not
    ///             fit (`BlockMask`); then `IsoException` 4 for other element types;
    ///             then std::length_error when this fragment's vertices and those that are there are more than 2^32.
    /// Joined      a range of a block that shares vertices spares nothing unless those of their owners lie on the same
    ///             side. Failure also std::invalid_argument when fragments that share vertices have other extents than
    ///             their positions, or elements of several types.
    bool apply(const Hestra::StrongPtr<FragmentID>& id, const Hestra::StrongPtr<CreativeArrayBase>& creator) override;

    /// Stores the surface in `output`, as discardable data: the points as positions of the vertices (dimension 2) in
    /// the Cartesian chart, the triangles as positions of the skeleton (2, 1) relative to the vertices. Both are there
    /// until a later operation needs their room in the cache, however small that is.
    void setFields(Grid& output) const;
    /// On which edges the vertices lie, for what is stored beside the surface: the fragments, and which vertices each
    /// has brought.
    [[nodiscard]] const std::vector<detail::SurfacePiece>& pieces() const noexcept { return myPieces; }

private:
    struct Fragment;
    template<class Range>
    bool excludesLevel(const Hestra::StrongPtr<Range>& range);
    bool excludesLevel(double least, double greatest) noexcept;
    bool excludesLevel(const Hestra::StrongPtr<FragmentID>& id, const CreativeArrayBase& creator);
    bool isJoinedAndExcluded(unsigned int block, const CreativeArrayBase& creator);
    template<class T>
    bool isSkipped(CreativeArrayBase& creator, const MultiArray<3, T>& data);
    void noteSkipped(const Hestra::StrongPtr<FragmentID>& id);
    Hestra::StrongPtr<MemBase> findCoordinates(const Hestra::StrongPtr<FragmentID>& id, Fragment& fragment) const;
    void cut(const Hestra::StrongPtr<FragmentID>& id, CreativeArrayBase& positions, Fragment& fragment);
    template<class Values>
    void sweep(const Hestra::StrongPtr<FragmentID>& id, const Values& values, const Fragment& fragment);

    double myLevel;
    double myParameter;
    Hestra::StrongPtr<Field> myPositions;
    Chunk<index_t> myIdentifiers;
    Chunk<double> myWeights;
    Chunk<Orvix::PhysicalSpace::point> myPoints;
    Chunk<TriangleCell> myTriangles;
    index_t myRunningOffset;
    bool myReachesAbove = false;
    RangeOf myRangeOf;
    Blanking myBlanking;
    bool myIsMasked = false;                              // the fragment at hand
    bool myIsAllAbove = false;                            // as its range says
    std::unique_ptr<const detail::PlaneDistance> myPlane; // null: surfaces of values
    std::unique_ptr<detail::PlacedBlocks> myPlaced;
    std::unique_ptr<detail::JoinedBlocks> myJoined; // null unless they are to be joined
    std::vector<detail::SurfacePiece> myPieces;
};

/// What a surface of a grid is asked to be beside its level.
struct SurfaceOptions {
    /// Whether blocks make one surface where faces of theirs are the same, whatever index spaces they have. Otherwise
    /// only those do that are pieces of one index space, by their offsets.
    bool joinBlocks = false;
    /// How joins are looked for.
    JoinOptions joins;
    /// Whether the surface keeps on which edge each vertex lies, 16 bytes a vertex, so that `EvalFieldOnIsosurface` can
    /// tell values of other fields.
    bool keepEdges = false;
    /// What the values of a fragment reach from and to, where the caller knows it better than the creators: see
    /// `FragmentIsoSurfacer::useRanges`.
    FragmentIsoSurfacer::RangeOf rangeOf;
};

/// The surface of a field at a level, as the grid `outputName` of `slice`.
///
/// Reuse       a grid of this name whose surface exists, or can be made again, is neither older than the input field
///             nor than `requestedAge`, and lies in the same positions field of the same age, with the same masks (if
///             that is known: the grid may be a caller's) is returned as it is, silently, whatever its level: who asks
///             for another level ages the request. Otherwise the whole surface is computed, with a line that says so,
///             into a new grid, both halves of which become as old as the newer of field and request.
/// Blanking    cells that the masks of `inputGrid` make invalid have no surface: it is that of the grid without these
///             cells.
/// Degenerate  a field without data gives an empty surface, and so does one without a value above the level. Where
///             only some fragments have none, they have the triangles that belong to the level's plane.
/// Failure     `IsoException` 1 without Cartesian positions, 2 without such a field; std::invalid_argument for masks
///             that do not fit, with nothing changed as far as sizes are known without making data; and what
///             `FragmentIsoSurfacer::apply` throws; that leaves an incomplete grid in the slice.
/// Concurrency fragments one after the other, each by the team of OpenMP.
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> ComputeIsosurface(double level, const Hestra::Ageable& requestedAge,
                                                            const Grid& inputGrid, const std::string& fieldName,
                                                            Slice& slice, const std::string& outputName,
                                                            double parameter);

/// The same, as the options ask for it.
///
/// Reuse       as above, of a surface with these joins, and with its edges if they are to be kept; a caller's own grid
///             is returned whatever the options are.
/// Joined      equal vertices of joined faces are one vertex of the grid, with the position and the value of its owner;
///             weights on edges between them are computed from the end with the lower owner, so that all blocks agree
///             to the last bit. Triangles show the side that those of the lowest block show. So the surface of a grid
///             that was cut into turned and mirrored blocks has the vertices, triangles and borders of the whole, also
///             where copies of a vertex differ. What differs tells `compareCopies`.
/// Degenerate  where fewer than three cells meet around an axis, two edges may have the same ends, and are one. Where
///             handedness cannot be agreed on, neighbouring triangles may show different sides.
/// Failure     also std::invalid_argument for unusable options, and what `FragmentIsoSurfacer::apply` says of joins.
/// Cost        beside finding joins: a comparison of the copies of each shared vertex, positions and values.
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> ComputeIsosurface(double level, const Hestra::Ageable& requestedAge,
                                                            const Grid& inputGrid, const std::string& fieldName,
                                                            Slice& slice, const std::string& outputName,
                                                            double parameter, const SurfaceOptions& options);

/// The cut of a grid by a plane, as the grid `outputName` of `slice`: the surface, at level 0, of the distances of the
/// positions from the plane, positive where its normal shows, of which no array is made. All else is as with fields;
/// `SurfaceOptions::rangeOf` tells of distances, without which no fragment is passed over.
///
/// Failure     also std::invalid_argument for a normal without length.
/// Cost        of curvilinear blocks of 2^16 vertices and more, boxes of bricks are found at the second cut and kept in
///             `Cache::MemCache()`, 48 bytes for 512 cells; further ones read only bricks that the plane goes through.
VANTLE_BASEOP_API Hestra::StrongPtr<Grid> ComputePlaneCut(const Orvix::PhysicalSpace::point& origin,
                                                          const Orvix::PhysicalSpace::vector& normal,
                                                          const Hestra::Ageable& requestedAge, const Grid& inputGrid,
                                                          Slice& slice, const std::string& outputName,
                                                          const SurfaceOptions& options = {});

/// Values of a field at the vertices of a surface of its grid: f(lower) + weight * (f(upper) - f(lower)) on the edge of
/// each, which is exact where the field is linear along the edge. An array of rank 1, in double precision: scalars of
/// any type, vectors or points. The field of positions gives the vertices themselves.
///
/// Joined      owners' values, as the surface has, computed from the end with the lower owner.
/// Degenerate  NaN on fragments where the field has no data. Null when the surface was not made with `keepEdges`, or
///             the cache has dropped them.
/// Failure     std::invalid_argument for other extents than those of the field that the surface is of, and for elements
///             that cannot be interpolated, or are of several kinds.
/// Cost        a fragment at a time, once over the vertices.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<MemBase> EvalFieldOnIsosurface(const Grid& surface,
                                                                                 const Field& field);

} // namespace Vantle

#include <baseop/detail/surface/EvalVertexFieldOnEdges.hpp>
