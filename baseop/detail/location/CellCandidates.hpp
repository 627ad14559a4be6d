#pragma once
/// The few cells of a block that may have a point, in their order.

#include <baseop/detail/location/BlockVertices.hpp>

#include <cstddef>
#include <cstdint>

namespace Vantle::detail {

/// Collects cells. Of more than there is room for, which takes many cells in one place,
/// the first ones in order are kept.
class CellCandidates {
public:
    struct Cell {
        index_t number; // i fastest
        std::uint32_t i, j, k;
        [[nodiscard]] MultiIndex<3> index() const noexcept { return {i, j, k}; }
    };

    /// For cells from number `first` on.
    explicit CellCandidates(const BlockVertices& vertices, index_t first = 0) noexcept
        : myVertices(vertices), myFirst(first) {}

    void add(std::uint32_t i, std::uint32_t j, std::uint32_t k) noexcept {
        const MultiIndex<3>& cells = myVertices.cells();
        const Cell cell{i + cells[0] * (j + cells[1] * k), i, j, k};
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
    [[nodiscard]] const Cell* begin() const noexcept { return myCells; }
    [[nodiscard]] const Cell* end() const noexcept { return myCells + myCount; }

private:
    static constexpr std::size_t Capacity = 64;

    const BlockVertices& myVertices;
    index_t myFirst;
    std::size_t myCount = 0;
    bool myAreAll = true;
    Cell myCells[Capacity];
};

} // namespace Vantle::detail
