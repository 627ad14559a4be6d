#pragma once

/// Reads PLOT3D grid and solution files, three-dimensional, whole, binary, whatever their form.
///
/// A grid file holds the number of blocks (multi-block files only), the extents of every block, then for each block all
/// x, all y, all z and, with blanking, one integer per vertex; i runs fastest. A solution file holds the same header,
/// then for each block four freestream numbers and five fields. Neither says in which form it was written:
///
///  - byte order: big- or little-endian;
///  - record marks: each part stands between two 32-bit byte counts, as unformatted Fortran output has it, or not;
///  - single block (no number of blocks in front) or multi-block;
///  - blanking: with or without the integers (grid files only);
///  - scalars: float32 or float64; integers are always 32 bits wide.
///
/// The form is found by trying all of them against the size of the file, its record marks and its contents:
///
///  1. A form fits when the header gives positive extents, every record mark is right, and the data end exactly at the
///     end of the file or are followed by fewer than kPaddingLimit bytes that are all zero (files padded to a disc
///     block). Of the values, at most one in fifty of a sample may be other than zero and farther than 1e30 or nearer
///     than 1e-30 (halves of float64 numbers read as float32 give themselves away so); blanking integers are small.
///  2. Of several that fit, the first in this order is taken: a solution with the extents of its grid before others;
///     exact end before padding; a solution in the form of its grid before others; with record marks before without;
///     single before multi-block; big- before little-endian; without blanking before with; float32 before float64.
///  3. What Plot3DOptions states is not tried otherwise. If the whole form is stated, the values are not looked at.
///
/// One thing no reader can find out: a file of one block cut exactly where its blanking begins (or behind a few zero
/// bytes of it) is a complete file without blanking, unless Plot3DOptions says that there must be some.
///
/// Failure      FileError, one line: file, place, reason, and, when no form fits, which were tried. Nothing larger than
///              the file has is allocated before the size was checked, and no partial result is returned.
/// Limits       text files, two-dimensional files and single records of 4 GiB and more (which Fortran splits) are not
///              read; the error says so.
/// Cost         one pass over the file; float64 in memory.

#include "io/Geometry.hpp"

#include <array>
#include <bit>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tour {

enum class Plot3DScalar { float32, float64 };

struct Plot3DForm {
    bool recordMarks = false;
    bool multiBlock = false;
    std::endian byteOrder = std::endian::big;
    bool blanking = false;
    Plot3DScalar scalar = Plot3DScalar::float32;
};

/// For instance "big-endian, without record marks, single block, no blanking, float32".
std::string describe(const Plot3DForm& form);

/// What the caller knows about the form; the rest is found out.
struct Plot3DOptions {
    std::optional<bool> recordMarks;
    std::optional<bool> multiBlock;
    std::optional<std::endian> byteOrder;
    std::optional<bool> blanking; ///< Ignored by solution files, which have none.
    std::optional<Plot3DScalar> scalar;
};

struct Plot3DBlock {
    Extents extents{};
    std::vector<double> x, y, z;
    std::optional<std::vector<int>> blanking; ///< 0 marks a vertex that does not count.
};

struct Plot3DGrid {
    Plot3DForm form;
    std::vector<Plot3DBlock> blocks;
    std::uintmax_t paddingBytes = 0; ///< Zero bytes that followed the last value.
};

struct Plot3DField {
    std::string name;
    std::vector<double> values;
};

struct Plot3DSolutionBlock {
    Extents extents{};
    double mach = 0.0, alpha = 0.0, reynolds = 0.0, time = 0.0;
    std::array<Plot3DField, 5> fields; ///< density, momentum x, momentum y, momentum z, energy
};

struct Plot3DSolution {
    Plot3DForm form;
    std::vector<Plot3DSolutionBlock> blocks;
    std::uintmax_t paddingBytes = 0;
};

/// Fewer zero bytes than this may follow the last value.
inline constexpr std::uintmax_t kPaddingLimit = 512;

Plot3DGrid readPlot3DGrid(const std::filesystem::path& file, const Plot3DOptions& options = {});

/// Failure      also when the number or the extents of the blocks are not those of `grid`.
Plot3DSolution readPlot3DSolution(const std::filesystem::path& file, const Plot3DGrid& grid,
                                  const Plot3DOptions& options = {});

} // namespace tour
