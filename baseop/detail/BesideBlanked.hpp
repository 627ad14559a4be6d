#pragma once
/// The vertices of a block next to blanked cells, where differences are taken otherwise.

#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>

namespace Vantle::detail {

/// The edges of a vertex to its neighbours on each axis.
struct ValidEdges {
    bool above[3], below[3];
};

/// Calls `f(i, edges)` for the vertices of row (j, k) that lack an edge which a block of these extents has. Cheap where
/// there are none.
template<class F>
void forBesideBlanked(const BlockMask& mask, index_t j, index_t k, const F& f) {
    const MultiIndex<3>& size = mask.Size();
    for (index_t word = 0; 64 * word < size[0]; ++word) {
        const index_t first = 64 * word, count = std::min<index_t>(64, size[0] - first);
        const std::uint64_t all = ~std::uint64_t{0} >> (64 - count);
        const std::uint64_t notFirst = word == 0 ? all & ~std::uint64_t{1} : all;
        const std::uint64_t notLast = first + count == size[0] ? all & ~(std::uint64_t{1} << (count - 1)) : all;
        const BlockMask::Vertices valid = mask.around(j, k, word);
        std::uint64_t others = (valid.above[0] ^ notLast) | (valid.below[0] ^ notFirst);
        others |= (valid.above[1] ^ (j + 1 < size[1] ? all : 0)) | (valid.below[1] ^ (j > 0 ? all : 0));
        others |= (valid.above[2] ^ (k + 1 < size[2] ? all : 0)) | (valid.below[2] ^ (k > 0 ? all : 0));
        for (; others != 0; others &= others - 1) {
            const int bit = std::countr_zero(others);
            ValidEdges edges;
            for (int axis = 0; axis < 3; ++axis) {
                edges.above[axis] = (valid.above[axis] >> bit & 1) != 0;
                edges.below[axis] = (valid.below[axis] >> bit & 1) != 0;
            }
            f(first + static_cast<index_t>(bit), edges);
        }
    }
}

} // namespace Vantle::detail
