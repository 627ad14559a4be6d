#include "CutGrid.hpp"

#include <algorithm>
#include <random>
#include <utility>

namespace tour {

namespace {

// Vertices of a block between two corners, both included.
struct Piece {
    std::size_t block = 0;
    std::array<int, 3> low{}, high{};

    [[nodiscard]] int cells(std::size_t axis) const { return high[axis] - low[axis]; }
    [[nodiscard]] std::size_t longest() const {
        std::size_t axis = 0;
        for (const std::size_t other : {1u, 2u})
            if (cells(other) > cells(axis)) axis = other;
        return axis;
    }
    // 0 where there is nothing to cut.
    [[nodiscard]] long size() const {
        return cells(longest()) < 2 ? 0L : std::max(1L, long{cells(0)} * cells(1) * cells(2));
    }
};

std::vector<Piece> cutPieces(const Plot3DGrid& grid, std::size_t count) {
    std::vector<Piece> pieces;
    for (std::size_t b = 0; b < grid.blocks.size(); ++b) {
        const Extents& extents = grid.blocks[b].extents;
        pieces.push_back({b, {}, {extents[0] - 1, extents[1] - 1, extents[2] - 1}});
    }
    while (pieces.size() < count) {
        const auto largest = std::max_element(pieces.begin(), pieces.end(),
                                              [](const Piece& a, const Piece& b) { return a.size() < b.size(); });
        if (largest->size() == 0) break;
        const std::size_t axis = largest->longest();
        Piece upper = *largest;
        upper.low[axis] = largest->high[axis] = (largest->low[axis] + largest->high[axis]) / 2;
        pieces.insert(largest + 1, upper);
    }
    return pieces;
}

// The vertices of a piece, in the order that its turned axes give them.
struct Turned {
    Extents extents{};
    std::vector<std::size_t> vertices;

    Turned(const Piece& piece, const Extents& whole, std::mt19937& random) {
        std::array<std::size_t, 3> axis{0, 1, 2};
        for (const std::size_t last : {2u, 1u}) std::swap(axis[last], axis[random() % (last + 1)]);
        std::array<bool, 3> backward{};
        for (bool& turn : backward) turn = random() % 2 == 1;

        for (std::size_t d = 0; d < 3; ++d) extents[d] = piece.cells(axis[d]) + 1;
        std::array<int, 3> at{}, n{};
        for (n[2] = 0; n[2] < extents[2]; ++n[2])
            for (n[1] = 0; n[1] < extents[1]; ++n[1])
                for (n[0] = 0; n[0] < extents[0]; ++n[0]) {
                    for (std::size_t d = 0; d < 3; ++d)
                        at[axis[d]] = backward[d] ? piece.high[axis[d]] - n[d] : piece.low[axis[d]] + n[d];
                    const auto [i, j, k] = at;
                    vertices.push_back(static_cast<std::size_t>(i) +
                                       static_cast<std::size_t>(whole[0]) *
                                           (static_cast<std::size_t>(j) +
                                            static_cast<std::size_t>(whole[1]) * static_cast<std::size_t>(k)));
                }
    }

    template<class Value>
    [[nodiscard]] std::vector<Value> of(const std::vector<Value>& values) const {
        std::vector<Value> taken;
        taken.reserve(vertices.size());
        for (const std::size_t vertex : vertices) taken.push_back(values[vertex]);
        return taken;
    }
};

} // namespace

void cutGrid(Plot3DGrid& grid, Plot3DSolution* solution, std::size_t count) {
    std::mt19937 random(1);
    std::vector<Plot3DBlock> blocks;
    std::vector<Plot3DSolutionBlock> solutions;
    for (const Piece& piece : cutPieces(grid, count)) {
        const Plot3DBlock& whole = grid.blocks[piece.block];
        const Turned turned(piece, whole.extents, random);
        blocks.push_back({turned.extents, turned.of(whole.x), turned.of(whole.y), turned.of(whole.z), {}});
        if (whole.blanking) blocks.back().blanking = turned.of(*whole.blanking);
        if (!solution) continue;
        const Plot3DSolutionBlock& flow = solution->blocks[piece.block];
        solutions.push_back({flow.time, {}});
        for (std::size_t f = 0; f < flow.fields.size(); ++f)
            solutions.back().fields[f].values = turned.of(flow.fields[f].values);
    }
    grid.blocks = std::move(blocks);
    if (solution) solution->blocks = std::move(solutions);
}

} // namespace tour
