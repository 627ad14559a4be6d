#pragma once
/// The vertices of a block next to blanked cells, where differences are taken otherwise.

#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>

namespace Vantle::detail {

/// The edges of a vertex to its neighbours on each axis: 1 for those that are valid, else 0.
struct ValidEdges {
    index_t above[3], below[3];
};

/// Visits the vertices of row (j, k) that lack an edge which a block of these extents has: calls `blank(i)` for those
/// that are not valid, and `derive(i, edges)` for the others, which have an edge along each axis with more than one
/// vertex. Costs little where there are none.
template<class Blank, class Derive>
void forBesideBlanked(const BlockMask& mask, index_t j, index_t k, const Blank& blank, const Derive& derive) {
    const MultiIndex<3>& size = mask.Size();
    for (index_t word = 0; 64 * word < size[0]; ++word) {
        if (mask.isWhole(j, k, word)) continue;
        const index_t first = 64 * word, count = std::min<index_t>(64, size[0] - first);
        const std::uint64_t all = ~std::uint64_t{0} >> (64 - count);
        const std::uint64_t notFirst = word == 0 ? all & ~std::uint64_t{1} : all;
        const std::uint64_t notLast = first + count == size[0] ? all & ~(std::uint64_t{1} << (count - 1)) : all;
        const BlockMask::Vertices valid = mask.around(j, k, word);
        std::uint64_t others = (valid.above[0] ^ notLast) | (valid.below[0] ^ notFirst);
        others |= (valid.above[1] ^ (j + 1 < size[1] ? all : 0)) | (valid.below[1] ^ (j > 0 ? all : 0));
        others |= (valid.above[2] ^ (k + 1 < size[2] ? all : 0)) | (valid.below[2] ^ (k > 0 ? all : 0));
        for (std::uint64_t none = others & ~valid.vertices; none != 0; none &= none - 1)
            blank(first + static_cast<index_t>(std::countr_zero(none)));
        for (others &= valid.vertices; others != 0; others &= others - 1) {
            const int bit = std::countr_zero(others);
            ValidEdges edges;
            for (int axis = 0; axis < 3; ++axis) {
                edges.above[axis] = valid.above[axis] >> bit & 1;
                edges.below[axis] = valid.below[axis] >> bit & 1;
            }
            derive(first + static_cast<index_t>(bit), edges);
        }
    }
}

} // namespace Vantle::detail
