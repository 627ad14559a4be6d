#pragma once

/// Which positions of a uniform lattice lie in the valid cells of a grid, found without looking for cells.

#include "DataSet.hpp"

#include <vector>

namespace tour {

/// A uniform lattice of positions, the first axis fastest.
struct Lattice {
    Vantle::MultiIndex<3> size;
    Space::point origin;
    Space::vector spacing; ///< 0 along an axis of one position.

    [[nodiscard]] Vantle::index_t positions() const { return size.product(); }
    [[nodiscard]] Space::point position(Vantle::index_t n) const {
        const auto i = n % size[0], j = n / size[0] % size[1], k = n / size[0] / size[1];
        return origin + Space::vector(double(i) * spacing[0], double(j) * spacing[1], double(k) * spacing[2]);
    }
};

/// For every position whether it lies in one of the blocks, and not in a cell that is blanked there: a line along z
/// through the position crosses the bilinear faces on the border of what is valid an odd number of times below it.
///
/// Degenerate   a line through an edge may miss faces or meet too many; when it leaves a block no less often than it
///              enters it, it is moved by a millionth of the spacing. Folded blocks have no inside that this would find
///              rightly; blocks with one layer, and with coordinates that are not finite, have none at all.
/// Cost         the faces on the border of the blocks times the lines that they cover.
std::vector<bool> positionsInside(const Vantle::Grid& grid, const Lattice& lattice);

} // namespace tour
