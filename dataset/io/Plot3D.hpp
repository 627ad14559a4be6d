#pragma once
/// PLOT3D files: grids, solutions and functions, block by block and field by field.
///
/// A grid file holds the number of blocks (multi-block files only), the extents of every block, then for each block all
/// x, all y, all z and, with blanking, one integer per vertex; i runs fastest. A solution file holds the same header,
/// then for each block four freestream numbers and five fields. The header of a function file has the number of fields
/// behind the extents of each block; these fields follow. None says in which form it was written:
///
///  - text, or binary numbers; of binary files:
///  - byte order: big- or little-endian;
///  - record marks: each part stands between two 32-bit byte counts, as unformatted Fortran output has it, or not;
///  - scalars: float32 or float64; integers are always 32 bits wide;
///  - and of all: single block (no number of blocks in front) or multi-block, with or without blanking (grids).
///
/// A file of nothing but printable characters at its beginning is text: numbers between blanks, ends of lines and
/// commas, of which several equal ones may be written as "3*1.5", and with exponents as Fortran writes them. The form
/// is found by trying all of them against the size of the file, its record marks and its contents:
///
///  1. A form fits when the header gives positive extents, every record mark is right, and the data end exactly at the
///     end of the file or are followed by fewer than `Plot3DPaddingLimit` bytes that are all zero (files padded to a
///     disc block). Of the values, at most one in fifty of a sample may be other than zero and farther than 1e30 or
///     nearer than 1e-30 (halves of float64 numbers read as float32 give themselves away so); blanking integers are
///     small.
///  2. Of several that fit, the first in this order is taken: a file with the extents of its grid before others; exact
///     end before padding; a file in the form of its grid before others; with record marks before without; single
///     before multi-block; big- before little-endian; without blanking before with; float32 before float64.
///  3. What `Plot3DOptions` states is not tried otherwise. If the whole form is stated, the values are not looked at.
///
/// One thing no reader can find out: a file of one block cut exactly where its blanking begins (or behind a few zero
/// bytes of it) is a complete file without blanking, unless `Plot3DOptions` says that there must be some.

#include <dataset/DataSetExport.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/MemArray.hpp>

#include <bit>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Vantle {

enum class Plot3DScalar { float32, float64 };

struct Plot3DForm {
    bool recordMarks = false;
    bool multiBlock = false;
    std::endian byteOrder = std::endian::big;
    bool blanking = false;
    Plot3DScalar scalar = Plot3DScalar::float32;
    bool text = false; ///< Then there are no record marks and no byte order, and scalars are float64.
};

/// For instance "big-endian, without record marks, single block, no blanking, float32".
[[nodiscard]] VANTLE_DATASET_API std::string describe(const Plot3DForm& form);

/// What the caller knows about the form; the rest is found out. Of text files `multiBlock` and `blanking` count.
struct Plot3DOptions {
    std::optional<bool> recordMarks;
    std::optional<bool> multiBlock;
    std::optional<std::endian> byteOrder;
    std::optional<bool> blanking; ///< Of grid files.
    std::optional<Plot3DScalar> scalar;
};

enum class Plot3DContent { grid, solution, functions };

/// Fewer zero bytes than this may follow the last value.
inline constexpr std::uintmax_t Plot3DPaddingLimit = 512;

/// The name of one field of a function file, and of the vector whose first component it is, if any.
struct Plot3DName {
    std::string field;
    std::string vector;
};

/// Reads a file of names: one a line, in the order of the function file; behind a semicolon the name of a vector that
/// consists of this field and the next two.
///
/// Failure      FileError: no file, no text, no names, a vector of too few fields, one name twice.
[[nodiscard]] VANTLE_DATASET_API std::vector<Plot3DName> readPlot3DNames(const std::filesystem::path& file);

/// One file that was opened: its form and shape. Values are read when they are asked for, each time again.
///
/// Opening reads the header and samples of the values, of text files all of it once, to know what stands where. Nothing
/// is kept open. Copies are the same file and cost nothing.
/// Failure      FileError: file, place, reason, and when no form fits, which were tried. Sizes are checked against the
///              file before memory is taken for them. Reading fails as well when the file is gone, or is not what it
///              was when it was opened, by its size or the time of its last modification.
/// Limits       two-dimensional files, files stored by planes and single records of 4 GiB and more (which Fortran
///              splits) are not read; two-dimensional ones are named as such, since none of their cells has a volume.
/// Concurrency  any number of threads may read at once.
/// Cost         beside what they return, reading functions take 64 KiB for each variable that they read at once.
class VANTLE_DATASET_API Plot3DFile {
public:
    [[nodiscard]] static Plot3DFile openGrid(const std::filesystem::path& file, const Plot3DOptions& options = {});
    /// Failure      also when the number or the extents of the blocks are not those of `grid`.
    [[nodiscard]] static Plot3DFile openSolution(const std::filesystem::path& file, const Plot3DFile& grid,
                                                 const Plot3DOptions& options = {});
    /// As `openSolution`. Without names fields are called "function1", "function2", ...
    ///
    /// Failure      also when there are other numbers of fields and names.
    [[nodiscard]] static Plot3DFile openFunctions(const std::filesystem::path& file, const Plot3DFile& grid,
                                                  const std::vector<Plot3DName>& names = {},
                                                  const Plot3DOptions& options = {});
    /// Whichever of these two it is; names are for functions.
    [[nodiscard]] static Plot3DFile openFields(const std::filesystem::path& file, const Plot3DFile& grid,
                                               const std::vector<Plot3DName>& names = {},
                                               const Plot3DOptions& options = {});

    [[nodiscard]] const std::filesystem::path& path() const noexcept;
    [[nodiscard]] Plot3DContent content() const noexcept;
    [[nodiscard]] const Plot3DForm& form() const noexcept;
    /// Zero bytes that followed the last value.
    [[nodiscard]] std::uintmax_t paddingBytes() const noexcept;
    [[nodiscard]] std::size_t blocks() const noexcept;
    /// Numbers of vertices along i, j, k.
    [[nodiscard]] const MultiIndex<3>& extents(std::size_t block) const { return shape(block).extents; }
    /// Number of fields of a block: 3 of grids, 5 of solutions.
    [[nodiscard]] std::size_t variables(std::size_t block) const { return shape(block).variables; }
    /// The name of a field: x, y, z; density, momentum x, momentum y, momentum z, energy; those of functions, and the
    /// vectors among them.
    [[nodiscard]] const std::vector<Plot3DName>& names() const noexcept;

    /// All values of one field of a block. `T` is `float` or `double`; values are converted to it.
    template<class T>
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<3, T>>
    read(std::size_t block, std::size_t variable, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const;
    /// The same in the type that the file has: `MemArray<3, float>` or `MemArray<3, double>`.
    [[nodiscard]] Hestra::StrongPtr<MemBase> readAsStored(std::size_t block, std::size_t variable,
                                                          const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const;
    /// Three fields of a block from `first` on, as one array. `Element` is a point or vector in double precision, or
    /// `FloatPoint` or `FloatVector`.
    template<class Element>
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<3, Element>>
    readTriples(std::size_t block, std::size_t first, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const;
    /// The positions of the vertices: `readTriples` of a grid.
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<3, Orvix::PhysicalSpace::point>>
    readPoints(std::size_t block, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const {
        return readTriples<Orvix::PhysicalSpace::point>(block, 0, creator);
    }
    /// The blanking of a block as it stands there: 0 marks a vertex that does not count. All 1 in files without.
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<3, int>>
    readBlanking(std::size_t block, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const;

    struct FreeStream {
        double mach = 0.0, alpha = 0.0, reynolds = 0.0, time = 0.0;
    };
    /// What stands in front of the fields of a solution.
    [[nodiscard]] FreeStream readFreeStream(std::size_t block) const;

    /// Reads several fields of a block side by side, piece by piece: `take` is called with the number of the first
    /// vertex of a piece, how many there are, and the values of each field.
    using TakePiece = std::function<void(std::size_t first, std::size_t count, const double* const* values)>;
    void readTogether(std::size_t block, const std::vector<std::size_t>& variables, const TakePiece& take) const;

private:
    struct Contents;
    struct Shape {
        MultiIndex<3> extents;
        std::size_t variables;
    };
    class Cursor;
    explicit Plot3DFile(std::shared_ptr<const Contents> contents) : myContents(std::move(contents)) {}
    [[nodiscard]] const Shape& shape(std::size_t block) const;
    [[nodiscard]] std::string placeOf(std::size_t block, std::size_t variable) const;

    std::shared_ptr<const Contents> myContents;
};

#define VANTLE_PLOT3D_READ(Function, Element)                                                                          \
    extern template VANTLE_DATASET_API Hestra::Ref<ReferencingMemArray<3, Element>> Plot3DFile::Function<Element>(     \
        std::size_t, std::size_t, const Hestra::WeakPtr<CreativeArrayBase>&) const;
VANTLE_PLOT3D_READ(read, float)
VANTLE_PLOT3D_READ(read, double)
VANTLE_PLOT3D_READ(readTriples, Orvix::PhysicalSpace::point)
VANTLE_PLOT3D_READ(readTriples, Orvix::PhysicalSpace::vector)
VANTLE_PLOT3D_READ(readTriples, FloatPoint)
VANTLE_PLOT3D_READ(readTriples, FloatVector)
#undef VANTLE_PLOT3D_READ

} // namespace Vantle
