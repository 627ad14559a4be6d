#pragma once
/// The faces of blocks that are joined to nothing, as quads and triangles.

#include <baseop/BlockJoins.hpp>
#include <baseop/detail/QuadCut.hpp>
#include <model/hestra/Pulse.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Simplex.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <vector>

namespace Vantle::detail {

/// The corners of a quad, in turn.
using Quad = std::array<BlockVertex, 4>;

/// The blocks of a grid, and what is valid in them.
struct OpenQuads {
    Hestra::StrongPtr<BlockJoins> joins;
    std::vector<Hestra::StrongPtr<const BlockMask>> masks;

    OpenQuads(const Hestra::StrongPtr<BlockJoins>& known, const Blanking& blanking) : joins(known) {
        for (unsigned int b = 0; b < joins->blocks(); ++b)
            masks.push_back(joins->size(b).product() > 0 ? blanking.of(joins->fragment(b), joins->size(b)) : nullptr);
    }

    /// Calls `take(quad)` for the quads of a block with a valid cell on one side and nothing on the other, each by its
    /// corners' owners and wound to show out of the cell where the block's index space is right-handed.
    template<class Take>
    void forOpenQuads(unsigned int block, const Take& take) const {
        const MultiIndex<3>& size = joins->size(block);
        if (size[0] < 2 || size[1] < 2 || size[2] < 2) return;
        const BlockMask* const mask = masks[block].rawptr();
        for (int d = 0; d < 3; ++d) {
            const int u = (d + 1) % 3, v = (d + 2) % 3;
            MultiIndex<3> lowest;
            const auto add = [&](bool upper) {
                Quad quad;
                for (std::size_t c = 0; c < 4; ++c) {
                    MultiIndex<3> corner = lowest;
                    corner[u] += c == 1 || c == 2;
                    corner[v] += c > 1;
                    quad[upper ? c : 3 - c] = joins->owner({block, corner.linear(size)});
                }
                take(quad);
            };
            const auto isValid = [&](index_t layer) {
                MultiIndex<3> cell = lowest;
                cell[d] = layer;
                return layer + 1 < size[d] && (!mask || mask->isCellValid(cell));
            };
            // Between blanked and other cells there are quads everywhere.
            const index_t step = mask ? 1 : size[d] - 1;
            for (index_t layer = 0; layer < size[d]; layer += step) {
                Hestra::Pulse::beat((d + static_cast<double>(layer) / static_cast<double>(size[d])) / 3.0);
                for (lowest[v] = 0; lowest[v] + 1 < size[v]; ++lowest[v])
                    for (lowest[u] = 0; lowest[u] + 1 < size[u]; ++lowest[u]) {
                        lowest[d] = layer;
                        const bool below = layer > 0 && isValid(layer - 1), above = isValid(layer);
                        const bool isEnd = layer == 0 || layer + 1 == size[d];
                        if (below != above && (!isEnd || joins->isOpen({block, d, below}, lowest))) add(below);
                    }
            }
        }
    }
};

/// For each of so many blocks the lowest one that it hangs together with.
inline std::vector<unsigned int> components(std::size_t blocks, std::span<const BlockJoin> joins) {
    std::vector<unsigned int> lowest(blocks);
    for (unsigned int b = 0; b < blocks; ++b) lowest[b] = b;
    const auto find = [&](unsigned int b) {
        while (lowest[b] != b) b = lowest[b] = lowest[lowest[b]];
        return b;
    };
    for (const BlockJoin& join : joins) {
        if (join.motion >= 0) continue;
        const unsigned int first = find(join.first.block), second = find(join.second.block);
        lowest[std::max(first, second)] = std::min(first, second);
    }
    for (unsigned int b = 0; b < blocks; ++b) lowest[b] = find(b);
    return lowest;
}

/// Six times the volume between a triangle and a point; 0 where that is no number.
inline double sixfoldVolume(const TriangleCell& triangle, const std::vector<Orvix::PhysicalSpace::point>& points,
                            const Orvix::PhysicalSpace::point& from) {
    const double sixfold =
        dot(points[triangle[0]] - from, cross(points[triangle[1]] - from, points[triangle[2]] - from));
    return std::isfinite(sixfold) ? sixfold : 0.0;
}

} // namespace Vantle::detail
