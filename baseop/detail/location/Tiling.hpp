#pragma once
/// How many positions are taken together: in tiles of neighbours, which share their searches.

#include <model/vantle/Index.hpp>

#include <algorithm>

namespace Vantle::detail {

/// Tiles of a line, a surface or a lattice of positions. Along a line the box of many positions is large, so tiles of
/// lines are shorter.
class Tiling {
public:
    static constexpr std::size_t MaximalTile = 64;

    explicit Tiling(const MultiIndex<3>& extents) : myExtents(extents) {
        const auto axes = (extents[0] > 1) + (extents[1] > 1) + (extents[2] > 1);
        const index_t side = axes == 3 ? 4 : axes == 2 ? 8 : 32;
        for (int d = 0; d < 3; ++d) {
            mySide[d] = extents[d] < 2 ? 1 : side;
            myTiles[d] = (extents[d] + mySide[d] - 1) / mySide[d];
        }
    }

    [[nodiscard]] index_t count() const noexcept { return myTiles.product(); }
    /// Calls `f(number, index, length)` for the rows of a tile: for the first of their positions.
    template<class F>
    void forEachRowIn(index_t tile, F&& f) const {
        const MultiIndex<3> place = MultiIndex<3>::fromLinear(tile, myTiles);
        MultiIndex<3> begin, end;
        for (int d = 0; d < 3; ++d) {
            begin[d] = place[d] * mySide[d];
            end[d] = std::min(begin[d] + mySide[d], myExtents[d]);
        }
        for (index_t k = begin[2]; k < end[2]; ++k)
            for (index_t j = begin[1]; j < end[1]; ++j)
                f(begin[0] + myExtents[0] * (j + myExtents[1] * k), MultiIndex<3>(begin[0], j, k), end[0] - begin[0]);
    }
    /// Calls `f(number, index)` for the positions of a tile.
    template<class F>
    void forEachIn(index_t tile, F&& f) const {
        forEachRowIn(tile, [&](index_t number, MultiIndex<3> index, index_t length) {
            for (index_t m = 0; m < length; ++m, ++index[0]) f(number + m, index);
        });
    }

private:
    MultiIndex<3> myExtents, mySide, myTiles;
};

} // namespace Vantle::detail
