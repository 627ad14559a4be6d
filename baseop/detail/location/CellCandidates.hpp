#pragma once
/// The few cells of a block that may have a point, in their order.

#include <baseop/detail/location/BlockVertices.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>

namespace Vantle::detail {

/// Collects cells. Of more than there is room for, which takes many cells in one place,
/// the first ones in order are kept.
class CellCandidates {
public:
    /// For cells from number `first` on.
    CellCandidates(const MultiIndex<3>& cells, index_t first) noexcept : myBlock(cells), myFirst(first) {}

    void add(std::uint32_t i, std::uint32_t j, std::uint32_t k) noexcept {
        const CellOfBlock cell{i + myBlock[0] * (j + myBlock[1] * k), i, j, k};
        if (cell.number < myFirst) return;
        std::size_t at = myCount;
        if (myCount == Capacity) [[unlikely]] {
            myAreAll = false;
            if (cell.number > myCells[Capacity - 1].number) return;
            --at;
        } else {
            ++myCount;
        }
        for (; at > 0 && myCells[at - 1].number > cell.number; --at) myCells[at] = myCells[at - 1];
        myCells[at] = cell;
    }

    /// Whether there was room for all.
    [[nodiscard]] bool areAll() const noexcept { return myAreAll; }
    [[nodiscard]] const CellOfBlock* begin() const noexcept { return myCells; }
    [[nodiscard]] const CellOfBlock* end() const noexcept { return myCells + myCount; }

private:
    static constexpr std::size_t Capacity = 64;

    const MultiIndex<3>& myBlock;
    index_t myFirst;
    std::size_t myCount = 0;
    bool myAreAll = true;
    CellOfBlock myCells[Capacity];
};

/// Offers to `take(cells)` all cells that may have a point without NaN, in their order, until it returns true. Goes on
/// behind the last one that there was room for. False if it never does.
template<class F>
bool offerCandidates(const BlockVertices& vertices, const CellBoxTree& tree, const Orvix::PhysicalSpace::point& P,
                     F&& take) {
    for (index_t first = 0;;) {
        CellCandidates candidates(vertices.cells(), first);
        tree.forEachAt(
            P, [&](std::uint32_t i, std::uint32_t j, std::uint32_t k) { candidates.add(i, j, k); },
            [&](index_t i, index_t j, index_t k) { vertices.prefetchGroup(i, j, k); });
        if (take(candidates)) return true;
        if (candidates.areAll()) return false;
        first = candidates.end()[-1].number + 1;
    }
}

} // namespace Vantle::detail
