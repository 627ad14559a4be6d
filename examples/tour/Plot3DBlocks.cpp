#include "Plot3DBlocks.hpp"

#include <cstddef>

namespace tour {

namespace {

std::vector<double> read(const Vantle::Plot3DFile& file, std::size_t block, std::size_t variable) {
    return std::move(file.read<double>(block, variable)->base_vector());
}

} // namespace

Plot3DGrid readPlot3DGrid(const std::filesystem::path& path, const Vantle::Plot3DOptions& options) {
    Plot3DGrid grid{Vantle::Plot3DFile::openGrid(path, options), {}};
    const Vantle::Plot3DFile& file = grid.file;
    for (std::size_t b = 0; b < file.blocks(); ++b) {
        Plot3DBlock& block = grid.blocks.emplace_back();
        for (std::size_t d = 0; d < 3; ++d) block.extents[d] = static_cast<int>(file.extents(b)[d]);
        block.x = read(file, b, 0);
        block.y = read(file, b, 1);
        block.z = read(file, b, 2);
        if (file.form().blanking) block.blanking = std::move(file.readBlanking(b)->base_vector());
    }
    return grid;
}

Plot3DSolution readPlot3DSolution(const std::filesystem::path& path, const Plot3DGrid& grid,
                                  const Vantle::Plot3DOptions& options) {
    const auto file = Vantle::Plot3DFile::openSolution(path, grid.file, options);
    Plot3DSolution solution{file.form(), {}};
    for (std::size_t b = 0; b < file.blocks(); ++b) {
        Plot3DSolutionBlock& block = solution.blocks.emplace_back();
        block.time = file.readFreeStream(b).time;
        for (std::size_t v = 0; v < block.fields.size(); ++v) block.fields[v].values = read(file, b, v);
    }
    return solution;
}

} // namespace tour
