#pragma once
/// What the search of one position leaves for that of the next: which groups of cells are near.

#include <baseop/detail/location/BlockVertices.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>

#include <atomic>
#include <cstdint>

namespace Vantle::detail {

/// The groups of cells about the last position that it was moved to, in one block. As long as positions stay within a
/// box of a few cells, all cells that may have them are in these: so answers are those of the whole tree.
class CellTrail {
public:
    using point = Orvix::PhysicalSpace::point;

    /// A number that no other search structure has, ever.
    [[nodiscard]] static std::uint64_t newNumber() noexcept {
        static std::atomic<std::uint64_t> last{0};
        return ++last;
    }

    /// Whether `P`, of numbers, can be looked for among `cells()` in the structure of this number: it is in the box, or
    /// the box has been moved there.
    [[nodiscard]] bool reaches(std::uint64_t structure, const CellBoxTree& tree, const point& P) {
        if (myStructure != structure) return false;
        if (!has(P)) {
            for (int d = 0; d < 3; ++d) {
                myCorners[0][d] = P[d] - CellsAround * myWidth[d];
                myCorners[1][d] = P[d] + CellsAround * myWidth[d];
            }
            myIsUsable = tree.gather(myCells, myCorners);
            myHasMoved = true;
            myHasNearMisses = false;
        }
        return myIsUsable;
    }
    /// Notes the cell that has the last position: the box shall be in proportion to it when it is moved next.
    void note(std::uint64_t structure, const BlockVertices& vertices, const point& local) noexcept {
        if (myStructure == structure && !myHasMoved) return;
        MultiIndex<3> cell;
        for (int d = 0; d < 3; ++d)
            cell[d] = std::min(static_cast<index_t>(std::max(local[d], 0.0)), vertices.cells()[d] - 1);
        const double* const lowest = vertices.address(cell);
        for (int d = 0; d < 3; ++d) {
            double low = lowest[d], high = low;
            for (int q = 1; q < 8; ++q) {
                low = std::min(low, vertices.corner(lowest, q)[d]);
                high = std::max(high, vertices.corner(lowest, q)[d]);
            }
            myWidth[d] = high - low;
        }
        if (myStructure != structure) myCorners[0] = point(1, 1, 1), myCorners[1] = point(); // nothing is in it
        myStructure = structure;
        myHasMoved = false;
    }
    [[nodiscard]] const CellBoxTree::Surroundings& cells() const noexcept { return myCells; }
    /// The same of another tree over the same cells; null where there are too many.
    [[nodiscard]] const CellBoxTree::Surroundings* nearMisses(const CellBoxTree& tree) {
        if (!myHasNearMisses) myAreFew = tree.gather(myNearMisses, myCorners);
        myHasNearMisses = true;
        return myAreFew ? &myNearMisses : nullptr;
    }

private:
    static constexpr double CellsAround = 1.5;
    [[nodiscard]] bool has(const point& P) const noexcept {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside &= P[d] >= myCorners[0][d] && P[d] <= myCorners[1][d];
        return isInside;
    }

    std::uint64_t myStructure = 0;
    Orvix::PhysicalSpace::vector myWidth;
    point myCorners[2];
    bool myHasMoved = false, myIsUsable = false, myHasNearMisses = false, myAreFew = false;
    CellBoxTree::Surroundings myCells, myNearMisses;
};

} // namespace Vantle::detail
