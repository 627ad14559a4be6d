#pragma once
/// The data set layer: blocks, fields and times in one object, and what people ask of them.
///
/// Right by default: positions are located exactly, and belong only to blocks that contain them; blocks are joined
/// where their faces are the same; a surface is of the level asked for; what lies outside is said so; what is no number
/// counts nowhere; nothing is printed. The model and the operations underneath stay reachable.

#include <baseop/BlockJoins.hpp>
#include <baseop/NumberRange.hpp>
#include <dataset/Curves.hpp>
#include <dataset/DataSetError.hpp>
#include <dataset/Files.hpp>
#include <dataset/Located.hpp>
#include <dataset/Messages.hpp>
#include <dataset/Progress.hpp>
#include <dataset/Surface.hpp>
#include <dataset/Values.hpp>
#include <model/vantle/Bundle.hpp>

#include <array>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace Vantle {

/// How the vertices of a block lie in space.
enum class BlockKind {
    Uniform,     ///< equally spaced along x, y and z
    Rectilinear, ///< three lists of coordinates
    Curvilinear, ///< anywhere
    Other        ///< not a block of vertices with three indices
};

/// A block, in the order in which blocks are numbered.
struct BlockInfo {
    std::string name;
    MultiIndex<3> size; ///< numbers of vertices
    BlockKind kind = BlockKind::Other;
};

/// A field.
struct FieldInfo {
    std::string name;
    int components = 0;     ///< 1: scalar, 3: vector, 9: tensor; 0 when unknown
    std::size_t blocks = 0; ///< how many have it
};

/// How files are read.
struct ReadOptions {
    /// What is known of the form of the files; the rest is found out.
    Plot3DOptions form = {};
    /// Of the gas: the ratio of its heat capacities, for pressures.
    double heatRatio = 1.4;
};

/// A plane in space.
struct VANTLE_DATASET_API Plane {
    Point origin;
    Vector normal{0, 0, 1}; ///< of any length but none

    /// All points with this coordinate.
    [[nodiscard]] static Plane x(double at) { return {{at, 0, 0}, {1, 0, 0}}; }
    [[nodiscard]] static Plane y(double at) { return {{0, at, 0}, {0, 1, 0}}; }
    [[nodiscard]] static Plane z(double at) { return {{0, 0, at}, {0, 0, 1}}; }
};

/// A layer of vertices of a block: all that have this index along one axis.
struct VANTLE_DATASET_API IndexPlane {
    std::string block;
    int axis = 2;
    index_t index = 0;

    [[nodiscard]] static IndexPlane i(const std::string& block, index_t at) { return {block, 0, at}; }
    [[nodiscard]] static IndexPlane j(const std::string& block, index_t at) { return {block, 1, at}; }
    [[nodiscard]] static IndexPlane k(const std::string& block, index_t at) { return {block, 2, at}; }
};

/// What a contour is asked to have beside points and triangles.
struct ContourOptions {
    /// Fields whose values are wanted at the points.
    std::vector<std::string> values = {};
    /// Whether normals are wanted: the direction of the field's gradient.
    bool normals = false;
    Progress progress = {};
};

/// Blocks of vertices, fields on them, at one time or several. One object to hold.
///
/// A value: copies share arrays, positions and what is derived from them, cost nothing, and are changed independently.
/// It looks at one of its times, the first one unless `atTime` says otherwise; everything below is about that time.
///
/// Names        of fields also understood, everywhere: "gradient(f)", "vorticity(f)", "divergence(f)",
///              "qCriterion(f)" and "magnitude(f)" of a field f, which are derived when they are first needed, across
///              joined blocks.
/// Missing      a field may be missing in some blocks: there is no contour of it there, and no value. Derivatives
///              need it everywhere.
/// Failure      DataSetError, lack of memory included, or FileError from data that are read from files; what fails, and
/// what is cancelled, has
///              changed nothing. A name that is unknown is answered with those that there are, the nearest first.
/// Concurrency  const members from any number of threads, of one object and of copies of it. Members that change it
///              need it for themselves, but not its copies. Everything uses all cores.
/// Messages     none, unless there are `ScopedMessages`.
class VANTLE_DATASET_API DataSet {
public:
    using Fields = std::vector<std::string>;

    // ---- Making one

    /// Without blocks.
    explicit DataSet(double time = 0.0);
    /// The blocks and fields of a grid of the model, whose arrays are shared: those of its vertices in the default
    /// Cartesian chart. Unfragmented data are a block without name. Failure: DataSetError for a grid without positions.
    explicit DataSet(const Hestra::StrongPtr<Grid>& grid, double time = 0.0);

    /// The data of PLOT3D files: first a grid, then its solutions and function files, a file of names (.nam) before the
    /// functions that it names. Blocks are called "block1", "block2", ...; `Plot3DGrid.hpp` says which fields there
    /// are. Only headers and samples are read now; arrays are read when they are needed, and dropped beyond the budget.
    ///
    /// Several solutions are as many times, those that they say; functions belong to the solution before them.
    /// Failure  FileError; DataSetError for no files, and for two solutions of one time. A file that changes or goes
    ///          away later: FileError from what needs it, while data that were read stay what they are.
    [[nodiscard]] static DataSet read(const std::vector<std::filesystem::path>& files, const ReadOptions& options = {});

    /// Adds a block. `positions` are points with three indices (`MemArray<3, Point>`, or `FloatPoint`; adopted memory,
    /// too), a `UniformCartesianArray`, or another direct product; they are shared.
    /// Failure  DataSetError for a name that is taken, and for other arrays.
    void addBlock(const std::string& name, const Hestra::StrongPtr<MemBase>& positions);
    /// The same with positions that are made when they are needed.
    void addBlock(const std::string& name, const Hestra::StrongPtr<CreativeArrayBase>& positions);
    /// The same of so many vertices along each axis, axis 0 fastest. Failure: also for another number of points.
    void addBlock(const std::string& name, const MultiIndex<3>& size, std::vector<Point> positions);
    /// Vertices at equal distances, the first and the last ones on the faces of a box.
    void addUniformBlock(const std::string& name, const MultiIndex<3>& size, const Box& box);
    /// Vertices at all combinations of three lists of finite coordinates, each ascending or descending.
    void addRectilinearBlock(const std::string& name, std::vector<double> x, std::vector<double> y,
                             std::vector<double> z);

    /// Sets the values of a field at the vertices of a block: numbers or vectors, with the extents of the block. They
    /// are shared. A field that there is gets these values here, and keeps those of other blocks.
    /// Failure  DataSetError for an unknown block, other extents, other elements than elsewhere in the field, and names
    ///          that mean something else.
    void setField(const std::string& field, const std::string& block, const Hestra::StrongPtr<MemBase>& values);
    /// The same with values that are made when they are needed.
    void setField(const std::string& field, const std::string& block,
                  const Hestra::StrongPtr<CreativeArrayBase>& values);
    /// The same of numbers or vectors, axis 0 fastest.
    template<class T>
    void setField(const std::string& field, const std::string& block, std::vector<T> values);
    /// Sets a field on all blocks by its value, a number or a vector, at the position of each vertex.
    template<class F>
    requires std::is_invocable_v<const F&, const Point&>
    void setField(const std::string& field, const F& valueAt);
    void removeField(const std::string& field);

    /// Says which vertices, or cells, of a block are valid: integers, nonzero is valid. Cells with an invalid vertex,
    /// or that are invalid themselves, are nowhere: no surface, no position, no part in ranges. Null: all are valid.
    /// Failure  DataSetError for other extents than those of the vertices, or cells (one less on each axis).
    void setVertexMask(const std::string& block, const Hestra::StrongPtr<MemBase>& mask);
    void setCellMask(const std::string& block, const Hestra::StrongPtr<MemBase>& mask);

    /// Adds another time, or replaces one: blocks and fields are those that `step` has at the time it looks at. Blocks
    /// that do not change are best those of a copy of this data set, which are searched and joined once for all times.
    void addTime(double time, const DataSet& step);
    /// How the joins of blocks are looked for; by default, faces are joined where their vertices are equal.
    void setJoinOptions(const JoinOptions& options);

    /// How much memory is kept, together with all copies, of what can be had again: what was read from files, or was
    /// derived. Beyond that, what was not used for longest goes. Unlimited by default.
    void memoryBudget(std::size_t bytes);
    /// What the budget is about, masks and what is converted included: for creators of a caller's own.
    [[nodiscard]] const Hestra::StrongPtr<Hestra::Cache>& cache() const noexcept;

    // ---- What is there

    [[nodiscard]] double time() const;
    /// All times, ascending.
    [[nodiscard]] std::vector<double> times() const;
    /// The same data set looking at the last time that is not after `time`. Failure: DataSetError before the first one.
    [[nodiscard]] DataSet atTime(double time) const;

    /// Blocks whose positions are still to be made, and are announced as points, count as curvilinear.
    [[nodiscard]] std::vector<BlockInfo> blocks() const;
    /// The fields that were set, sorted by name.
    [[nodiscard]] std::vector<FieldInfo> fields() const;
    /// The positions of a block's vertices, axis 0 fastest.
    [[nodiscard]] std::vector<Point> positions(const std::string& block) const;
    /// The array that has them: of points in double or single precision, or computed.
    [[nodiscard]] Hestra::StrongPtr<MemBase> positionArray(const std::string& block) const;
    /// The coordinates along x, y and z that the positions of a uniform or rectilinear block are made of. Failure: also
    /// for other blocks.
    [[nodiscard]] std::array<std::vector<double>, 3> axes(const std::string& block) const;
    /// The masks of a block as they were set; null where nothing is masked.
    [[nodiscard]] Hestra::StrongPtr<MemBase> vertexMask(const std::string& block) const;
    [[nodiscard]] Hestra::StrongPtr<MemBase> cellMask(const std::string& block) const;
    /// Whether a field, or one that is derived, has values in a block. Failure: also for an unknown field.
    [[nodiscard]] bool hasValues(const std::string& field, const std::string& block) const;
    /// The edges of a block as lines through its vertices, for pictures: four along each axis, those along axis 0
    /// first. Where a block is flat, some are the same, or points.
    [[nodiscard]] std::vector<std::vector<Point>> edges(const std::string& block) const;
    /// A block by itself, with its fields and masks, at the present time. Everything is shared, and the budget, too.
    [[nodiscard]] DataSet block(const std::string& name) const;
    /// The array of a field, or of a field that is derived, in a block.
    [[nodiscard]] Hestra::StrongPtr<MemBase> array(const std::string& field, const std::string& block) const;

    /// The box around all valid vertices; NaN when there are none.
    [[nodiscard]] Box bounds(const Progress& progress = {}) const;
    /// Least and greatest number of a scalar at valid vertices, -0 before +0; NaN when there are none.
    [[nodiscard]] NumberRange range(const std::string& field, const Progress& progress = {}) const;
    /// The same if it is known by now, because it was asked for; else nothing. No data are looked at.
    [[nodiscard]] std::optional<NumberRange> knownRange(const std::string& field) const;
    /// Which faces of which blocks are the same; blocks are numbered as by `blocks`.
    [[nodiscard]] Hestra::StrongPtr<const BlockJoins> joins(const Progress& progress = {}) const;
    /// The same if they are known by now; else null.
    [[nodiscard]] Hestra::StrongPtr<const BlockJoins> knownJoins() const;

    // ---- Surfaces

    /// The surface on which a scalar has this value, one for all joined blocks. Empty for a level outside of the range.
    ///
    /// Degenerate  a level that is met exactly at vertices, but never exceeded, has an empty surface. Beside vertices
    ///             where values or positions are no numbers, and where values are infinite, there is none.
    /// Memory      a block at a time, and the surface.
    [[nodiscard]] Surface contour(const std::string& field, double level, const ContourOptions& options = {}) const;
    /// The surfaces of several levels, in their order.
    [[nodiscard]] std::vector<Surface> contours(const std::string& field, std::span<const double> levels,
                                                const ContourOptions& options = {}) const;
    [[nodiscard]] std::vector<Surface> contours(const std::string& field, const std::vector<double>& levels,
                                                const ContourOptions& options = {}) const {
        return contours(field, std::span<const double>(levels), options);
    }
    /// The cut of all blocks by a plane, with the values of fields there.
    ///
    /// Degenerate  a plane that only touches the blocks from within gives an empty surface.
    [[nodiscard]] Surface slice(const Plane& plane, const Fields& fields = {}, const Progress& progress = {}) const;

    /// A layer of a block, with the values of fields at its vertices: `slice(IndexPlane::k("wing", 0), {"pressure"})`.
    /// Of faces between four of its vertices, those that a valid cell has. Triangles show along the axis where the
    /// block's indices are right-handed. A block with one vertex along an axis is itself a layer.
    ///
    /// Degenerate  sides of no length, as at poles, leave one triangle of a face, or none; faces with a vertex that is
    ///             nowhere (NaN) are left out.
    /// Failure     also for a layer that there is not, and for a field that the block has not.
    [[nodiscard]] Surface slice(const IndexPlane& plane, const Fields& fields = {},
                                const Progress& progress = {}) const;

    /// The outer hull of all blocks, of what is valid: all faces that are joined to no other, with the values of fields
    /// there. Triangles show outward. Failure: also for a field that a block of the hull has not.
    [[nodiscard]] Surface boundary(const Fields& fields = {}, const Progress& progress = {}) const;

    // ---- Values elsewhere

    /// Finds positions in the blocks, and keeps where they are. Neighbours in order should be neighbours in space.
    ///
    /// Ties    the first block has a position on a common face.
    /// Memory  28 bytes a position; search structures of some 13 bytes a cell of curvilinear blocks are kept, with the
    ///         positions that they view. Where these exceed the budget, blocks are searched one by one and nothing is
    ///         kept.
    [[nodiscard]] Located locate(std::span<const Point> positions, const Progress& progress = {}) const;
    /// Fields at the vertices of a uniform block that spans a box: NaN outside of all blocks, where the result is
    /// masked.
    ///
    /// Memory   the result and some 20 MB, by tiles; 40 MB where blocks are located one by one. Failure: also for a box
    /// with an axis of no extent, and for less than two
    ///          vertices along an axis.
    [[nodiscard]] DataSet resample(const MultiIndex<3>& size, const Box& box, const Fields& fields,
                                   const Progress& progress = {}) const;

    // ---- Derived fields

    /// Names of fields that are derived from others, with respect to world coordinates: `flow.contour(
    /// flow.qCriterion("velocity"), 1.0)`. Their data are made when they are needed. Units are those of the values by
    /// those of the positions.
    ///
    /// Failure  DataSetError for an unknown field, one with other components, or one that not all blocks have.
    [[nodiscard]] std::string
    gradient(const std::string& field) const; ///< scalar: vector; vector: tensor, row m along m
    [[nodiscard]] std::string vorticity(const std::string& vector) const; ///< the curl, a vector
    [[nodiscard]] std::string divergence(const std::string& vector) const;
    /// Half of (rotation - strain), squared norms: above 0 where rotation prevails.
    [[nodiscard]] std::string qCriterion(const std::string& vector) const;
    [[nodiscard]] std::string magnitude(const std::string& vector) const;

    /// The same data set where a scalar is from `low` to `high`: cells with a vertex that is not are blanked, beside
    /// those that are already. NaN is not.
    [[nodiscard]] DataSet threshold(const std::string& field, double low,
                                    double high = std::numeric_limits<double>::infinity()) const;

    // ---- Files

    /// Writes the blocks of the present time with these fields, or, if none is named, with all that were set: as .vtm
    /// for any number of blocks, as .vti, .vtr or .vts for one. See `writeVtk`.
    void write(const std::filesystem::path& file, const Fields& fields = {}, const VtkOptions& options = {}) const;

    // ---- The model underneath

    /// The grid of the present time, and the bundle: a slice for each time, with one grid each. What is changed there
    /// is noticed by the rules of the model, and changes copies, too.
    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const;
    [[nodiscard]] const BundlePtr& bundle() const;

private:
    struct State;
    struct Step;
    friend class Located;
    DataSet(std::shared_ptr<State> state, double time);
    [[nodiscard]] const Step& step() const;
    [[nodiscard]] DataSet changed() const;                // a copy of its own
    [[nodiscard]] DataSet changeable(bool isMoved) const; // the same if others have this, else this
    Step& ownStep();
    void setMask(const char* mask, const std::string& block, const Hestra::StrongPtr<MemBase>& array);
    [[nodiscard]] std::string derived(const char* operation, const std::string& field) const;
    [[nodiscard]] Hestra::StrongPtr<MemBase> maskOf(const char* mask, const std::string& block) const;
    [[nodiscard]] MultiIndex<3> sizeOf(const std::string& block) const;

    std::shared_ptr<State> myState;
    double myTime;
};

// ---------------------------------------------------------------------------------------------------------------------

template<class T>
void DataSet::setField(const std::string& field, const std::string& block, std::vector<T> values) {
    const MultiIndex<3> size = sizeOf(block);
    if (size.product() != values.size())
        throw DataSetError("field \"" + field + "\": block \"" + block + "\" has " + to_string(size) +
                           " vertices, which " + std::to_string(values.size()) + " values do not fit");
    setField(field, block, Hestra::StrongPtr<MemBase>(MemArray<3, T>::makeMemArray(std::move(values), size)));
}

template<class F>
requires std::is_invocable_v<const F&, const Point&>
void DataSet::setField(const std::string& field, const F& valueAt) {
    using T =
        std::conditional_t<std::is_convertible_v<std::invoke_result_t<const F&, const Point&>, double>, double, Vector>;
    DataSet changed(*this); // a function that throws leaves no half of a field
    for (const BlockInfo& block : blocks()) {
        std::vector<T> values;
        for (const Point& p : positions(block.name)) values.push_back(static_cast<T>(valueAt(p)));
        changed.setField(field, block.name, std::move(values));
    }
    *this = std::move(changed);
}

} // namespace Vantle
