#pragma once
/// Data sets whose blocks are dealt to the ranks of MPI: the same answers as those of one process with all blocks.

#include <dataset/DataSet.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mpi.h>
#include <parallel/ParallelLocated.hpp>
#include <parallel/ParallelSurface.hpp>
#include <parallel/detail/Exchange.hpp>
#include <span>
#include <string>
#include <vector>

namespace Vantle {

struct ParallelOptions {
    /// The place of each block of this rank, in the order of `DataSet::blocks`, in the order of all blocks: ascending
    /// numbers, no two of which are equal on any ranks. By default those of rank 0 come first, then those of rank 1 ...
    std::vector<std::uint64_t> numbers = {};
    /// How the joins of blocks are looked for; those of the local data sets do not count.
    JoinOptions joins = {};
    /// What a rank sends at once where much is to be sent: 256 MiB.
    std::size_t budget = std::size_t{1} << 28;
    /// What a rank keeps of files that `ParallelDataSet::read` has opened; unlimited by default.
    std::size_t memory = std::numeric_limits<std::size_t>::max();
};

/// A block of any rank.
struct ParallelBlockInfo : BlockInfo {
    int rank = 0;
    std::uint64_t number = 0;
};

/// What is known of the joins of all blocks; these are numbered as by `ParallelDataSet::blocks`.
struct ParallelJoins {
    std::vector<BlockJoin> joins; ///< as `BlockJoins::joins`
    std::vector<DoubtfulFace> doubtful;
    bool isOrientable = true;
};

/// A part of an image that has been sampled.
struct ParallelImage {
    DataSet part;                  ///< one block "image"; without blocks where a rank has no layer
    index_t first = 0, layers = 0; ///< of the image along its last axis
};

/// The blocks of all ranks of a communicator. Each rank has its own ones, as a `DataSet`: any number, also none.
///
/// The law: vertices, triangles and their numbers, values, masks, ranges and joins are, bit for bit, those of one
/// process with a data set of all blocks in the order of their numbers, on any number of ranks, whoever has which
/// block. What `DataSet` says of an operation is said of this one.
///
/// Collective   everything that takes the name of a field or a progress function, positions, or a file; also `bounds`,
///              `joins` and `atTime`. All ranks call the same operations in the same order, with the same names and
///              numbers; positions and progress are each rank's own.
/// Failure      what one rank cannot do, all ranks do not: all throw the same ParallelError, and can go on. Cancelled
///              by one rank, all throw `Cancelled`.
/// Concurrency  one thread a rank, that which may call MPI (MPI_THREAD_FUNNELED, or MPI_THREAD_SINGLE with OpenMP
///              switched off). Collective operations on several such data sets follow each other.
/// Memory       beside that of the local data set: 200 bytes and a name for each block of all ranks, the faces of
///              neighbouring blocks, and what is exchanged, which is bounded by the budget where it grows with what was
///              asked.
class VANTLE_PARALLEL_API ParallelDataSet {
public:
    using Fields = std::vector<std::string>;

    /// Collective. MPI must have been initialised; the communicator is duplicated. The local data set is taken as it
    /// is, and looks at the time that it looks at.
    ///
    /// Failure  ParallelError for a name or a number that is there twice, blocks without name, fields that are scalars
    ///          on one rank and vectors on another one, and different times; ranks without blocks have any.
    explicit ParallelDataSet(MPI_Comm comm, const DataSet& local, const ParallelOptions& options = {});
    /// The same of what `local` gives, which makes or reads the blocks of this rank, and may number them in the
    /// options: what it throws on one rank, all ranks throw.
    explicit ParallelDataSet(MPI_Comm comm, const std::function<DataSet(ParallelOptions&)>& local,
                             const ParallelOptions& options = {});

    /// PLOT3D files, as by `DataSet::read`, of which each rank reads its share of the blocks when it needs them. Block
    /// n is the n-th in order; largest blocks are dealt first, each to the rank that has the fewest vertices.
    /// Collective; all ranks see the files. `numbers` of the options do not count. Failure: ParallelError.
    [[nodiscard]] static ParallelDataSet read(MPI_Comm comm, const std::vector<std::filesystem::path>& files,
                                              const ReadOptions& reading = {}, const ParallelOptions& options = {});

    [[nodiscard]] int rank() const noexcept;
    [[nodiscard]] int ranks() const noexcept;
    /// The blocks of this rank.
    [[nodiscard]] const DataSet& local() const noexcept;
    /// What this rank has exchanged, for this data set and what came from it.
    [[nodiscard]] const Traffic& traffic() const noexcept;

    // ---- What is there, on all ranks

    [[nodiscard]] double time() const noexcept;
    [[nodiscard]] const std::vector<double>& times() const noexcept;
    [[nodiscard]] ParallelDataSet atTime(double time) const;
    [[nodiscard]] std::vector<ParallelBlockInfo> blocks() const;
    /// A field may be missing in blocks, and with that on ranks.
    [[nodiscard]] const std::vector<FieldInfo>& fields() const noexcept;
    [[nodiscard]] Box bounds(const Progress& progress = {}) const;
    [[nodiscard]] NumberRange range(const std::string& field, const Progress& progress = {}) const;
    [[nodiscard]] ParallelJoins joins() const;
    /// Does something of the caller's own on each rank: what one throws, all throw. Collective; no operation within it.
    void attempt(const std::function<void()>& own) const;

    // ---- Surfaces

    [[nodiscard]] ParallelSurface contour(const std::string& field, double level,
                                          const ContourOptions& options = {}) const;
    [[nodiscard]] std::vector<ParallelSurface> contours(const std::string& field, const std::vector<double>& levels,
                                                        const ContourOptions& options = {}) const;
    [[nodiscard]] ParallelSurface slice(const Plane& plane, const Fields& fields = {},
                                        const Progress& progress = {}) const;
    /// A layer of a block of any rank, which has all of it.
    [[nodiscard]] ParallelSurface slice(const IndexPlane& plane, const Fields& fields = {},
                                        const Progress& progress = {}) const;
    [[nodiscard]] ParallelSurface boundary(const Fields& fields = {}, const Progress& progress = {}) const;

    // ---- Values elsewhere

    /// Finds the positions of this rank, any number, in the blocks of all ranks.
    [[nodiscard]] ParallelLocated locate(std::span<const Point> positions, const Progress& progress = {}) const;
    /// The image that `DataSet::resample` gives: each rank has a slab of its layers, or `root`, if that is a rank, all.
    /// Slabs are rectilinear blocks with the vertices of the image.
    [[nodiscard]] ParallelImage resample(const MultiIndex<3>& size, const Box& box, const Fields& fields, int root = -1,
                                         const Progress& progress = {}) const;

    // ---- Derived fields, by names that are understood wherever a name is; computed now, on all ranks

    [[nodiscard]] std::string gradient(const std::string& field) const;
    [[nodiscard]] std::string vorticity(const std::string& vector) const;
    [[nodiscard]] std::string divergence(const std::string& vector) const;
    [[nodiscard]] std::string qCriterion(const std::string& vector) const;
    [[nodiscard]] std::string magnitude(const std::string& vector) const;

    /// The same blocks where a scalar, also one derived across ranks, is from `low` to `high`, as by
    /// `DataSet::threshold`; its masks are made now, a byte a vertex.
    [[nodiscard]] ParallelDataSet threshold(const std::string& field, double low,
                                            double high = std::numeric_limits<double>::infinity()) const;

    /// The data of a field, also a derived one, in a block of this rank. Not collective: what is derived across joins
    /// must have been named to a collective operation before.
    [[nodiscard]] Hestra::StrongPtr<MemBase> array(const std::string& field, const std::string& block) const;

    // ---- Files

    /// Writes the blocks of all ranks, those of each as the files of a folder "<stem>_<rank>" (and "<stem>_<rank>.vtm",
    /// which names these), and on rank 0 `file`, which names all in their order (.vtm). The same fields as
    /// `DataSet::write`.
    ///
    /// Failure  ParallelError; the head file is written last, and only if all ranks have written theirs.
    void write(const std::filesystem::path& file, const Fields& fields = {}, const VtkOptions& options = {}) const;

private:
    struct Data;
    friend struct detail::LocatedParts;
    friend class ParallelLocated;
    explicit ParallelDataSet(std::shared_ptr<Data> data);
    [[nodiscard]] ParallelDataSet with(const DataSet& local) const;
    std::shared_ptr<Data> myData;
};

} // namespace Vantle
