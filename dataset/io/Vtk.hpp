#pragma once
/// VTK XML files of grids and their fields: images (.vti), rectilinear (.vtr) and curvilinear blocks (.vts), surfaces,
/// curves and points (.vtp), and several blocks as one (.vtm).
///
/// All are version 1.0 files in little-endian appended raw encoding with 64-bit headers, compressed if that is wanted.
/// Values are written as they are, in their own type: nothing is rounded, NaN and infinities stay.
/// Failure      FileError: file, place, reason. Nothing half-written is left behind, and what was there before stays:
///              files get their names when they are complete (`AtomicFile`).
/// Memory       arrays are written one after the other from where they are, computed ones piece by piece; those that
/// are
///              made when they are asked for are needed one at a time. Compression takes a few MiB.

#include <dataset/DataSetExport.hpp>
#include <dataset/Progress.hpp>
#include <model/vantle/GridKinds.hpp>

#include <array>
#include <filesystem>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace Vantle {

/// Whether the library can compress: whether zlib was there when it was built.
[[nodiscard]] VANTLE_DATASET_API bool canCompressVtk() noexcept;

struct VtkOptions {
    /// Smaller files, on all cores. Floating-point values of simulations seldom shrink much. Ignored where the library
    /// cannot compress.
    bool compress = canCompressVtk();
    /// Told about how much is written; false cancels: `Cancelled`, and everything stays as it was.
    Progress progress = {};
};

/// Writes the vertices of a grid, its triangles and curves, and the named fields on its vertices, in the default chart.
///
/// The extension of the file says what is wanted, and must be what the grid is: .vti, .vtr or .vts for one block of
/// vertices with three indices (any such block may be a .vts file), .vtp for vertices with one index; .vtm for grids of
/// any number of blocks, which stand in files "<stem>_0", "<stem>_1", ... of a folder "<stem>" beside it. That folder
/// is replaced as a whole, if it has no other files than such.
///
/// Masks        blocks in which not everything is valid (`Blanking`) say so by arrays "vtkGhostType" of their points
///              and cells, so that viewers leave out what is blanked; it keeps its values.
/// Fields       of numbers and of elements made of them, such as points and vectors; components as they lie in memory.
///              Blocks where a field has no data are written without it.
/// Names        are of UTF-8 in the file: bytes that are not are taken for Latin-1.
/// Failure      also an extension that does not fit; no field of a name (the error names those that there are), a
///              field of other elements, or of other extents than the positions; a triangle or curve with a vertex that
///              there is not; data that cannot be made (`FileArray`: the error is that of reading).
/// Concurrency  a grid may be written by several threads at once; it must not be changed meanwhile.
VANTLE_DATASET_API void writeVtk(const std::filesystem::path& file, Grid& grid, const std::vector<std::string>& fields,
                                 const VtkOptions& options = {});

// ---- Plain arrays ---------------------------------------------------------------------------------------------------

/// Values on points: one number each, or one vector each. Views them: they must live until the file is written.
struct VtkArray {
    std::string name;
    std::variant<std::span<const double>, std::span<const std::array<double, 3>>> values;
};

struct VtkImage {
    std::array<int, 3> extents{}; ///< Numbers of points; i runs fastest.
    std::array<double, 3> origin{};
    std::array<double, 3> spacing{};
};

/// A surface of triangles, which name points by their numbers. One without any is written as such, and opens.
///
/// Failure      also std::invalid_argument when sizes do not agree or a triangle names a point that is not there,
///              before anything is written.
VANTLE_DATASET_API void writeVtp(const std::filesystem::path& file, std::span<const std::array<double, 3>> points,
                                 std::span<const std::array<index_t, 3>> triangles,
                                 std::span<const VtkArray> arrays = {}, const VtkOptions& options = {});

/// Values on a lattice of points. Failure as of `writeVtp`.
VANTLE_DATASET_API void writeVti(const std::filesystem::path& file, const VtkImage& image,
                                 std::span<const VtkArray> arrays, const VtkOptions& options = {});

} // namespace Vantle
