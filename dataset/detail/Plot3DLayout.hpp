#pragma once
/// Where everything stands in a PLOT3D file: found out once, when it is opened.

#include <dataset/detail/InputFile.hpp>
#include <dataset/detail/TextValues.hpp>
#include <dataset/io/Plot3D.hpp>

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace Vantle::detail {

/// Places are counted in bytes, in text files in numbers.
using Place = std::uint64_t;
inline constexpr Place NoLimit = ~Place{0};

struct Plot3DLayout {
    Plot3DContent content = Plot3DContent::grid;
    Plot3DForm form;
    Place padding = 0;
    struct Block {
        std::array<std::int32_t, 3> extents{}; // product fits into what the file has
        std::size_t variables = 0;
        Place freeStream = 0; // of solutions
        Place fields = 0;
    };
    std::vector<Block> blocks;
    std::shared_ptr<const TextIndex> text;

    [[nodiscard]] Place scalarUnits() const noexcept {
        return form.text ? 1 : form.scalar == Plot3DScalar::float32 ? 4 : 8;
    }
};

/// What a file must agree with.
struct Plot3DShape {
    Plot3DForm form;
    std::vector<std::array<std::int32_t, 3>> extents;
};

/// Throws FileError when nothing fits. `grid` is given for all but grids; `isFit` becomes true when the file is of this
/// content, though not of these extents.
[[nodiscard]] Plot3DLayout findLayout(const InputFile& file, Plot3DContent content, const Plot3DOptions& options,
                                      const Plot3DShape* grid, bool& isFit);

/// The number that these bytes stand for.
template<class Word>
[[nodiscard]] constexpr Word swapped(Word word) noexcept {
    Word result = 0;
    for (std::size_t i = 0; i < sizeof(Word); ++i)
        result = static_cast<Word>((result << 8) | ((word >> (8 * i)) & 0xff));
    return result;
}

} // namespace Vantle::detail
