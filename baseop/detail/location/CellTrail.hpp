#pragma once
/// What the search of one position leaves for that of the next: which groups of cells are near.

#include <baseop/detail/location/BlockVertices.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>

#include <atomic>
#include <cmath>
#include <cstdint>

namespace Vantle::detail {

/// The groups of cells about the last positions, in one block. As long as positions stay within a box of some cells,
/// all cells that may have them are in these: so answers are those of the whole tree.
class CellTrail {
public:
    using point = Orvix::PhysicalSpace::point;

    /// A number that no other search structure has, ever.
    [[nodiscard]] static std::uint64_t newNumber() noexcept {
        static std::atomic<std::uint64_t> last{0};
        return ++last;
    }

    /// What the points of a box, of numbers, can be looked for in, in the structure of this number: the box is in that
    /// of the trail, or that has been moved there. Null if not.
    [[nodiscard]] const CellBoxTree::Surroundings* about(std::uint64_t structure, const CellBoxTree& tree,
                                                         const point& lowest, const point& highest) {
        if (myStructure != structure) return nullptr;
        if (!has(lowest, highest)) {
            move(lowest, highest);
            myIsUsable = tree.gather(myCells, myCorners, CellBoxTree::Reach::GroupsOfGroups);
            myHasMoved = true;
            myHasNearMisses = false;
            if (!myIsUsable) narrow();
        }
        return myIsUsable ? &myCells : nullptr;
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
            myReach[d] = CellsAround * (high - low);
        }
        if (myStructure != structure) myCorners[0] = point(1, 1, 1), myCorners[1] = point(); // nothing is in it
        myStructure = structure;
        myHasMoved = false;
    }
    /// The same of another tree over the same cells; null where there are too many.
    [[nodiscard]] const CellBoxTree::Surroundings* nearMisses(const CellBoxTree& tree) {
        if (!myHasNearMisses) myAreFew = tree.gather(myNearMisses, myCorners, CellBoxTree::Reach::GroupsOfGroups);
        myHasNearMisses = true;
        return myAreFew ? &myNearMisses : nullptr;
    }

private:
    /// Half of the box's sides, and by which part of that it lies ahead of positions that go on.
    static constexpr double CellsAround = 5.0, Ahead = 0.45;
    /// Moves the box to another that is asked for, which is no larger than half of it then.
    void move(const point& lowest, const point& highest) noexcept {
        point centre;
        Orvix::PhysicalSpace::vector reach, way;
        bool goesOn = true;
        for (int d = 0; d < 3; ++d) {
            centre[d] = 0.5 * lowest[d] + 0.5 * highest[d];
            reach[d] = std::max(myReach[d], highest[d] - lowest[d]);
            way[d] = centre[d] - (0.5 * myCorners[0][d] + 0.5 * myCorners[1][d]);
            goesOn &= std::fabs(way[d]) < 2.0 * reach[d];
        }
        for (int d = 0; d < 3; ++d) {
            if (goesOn) centre[d] += Ahead * std::clamp(way[d], -reach[d], reach[d]);
            myCorners[0][d] = centre[d] - reach[d];
            myCorners[1][d] = centre[d] + reach[d];
        }
    }
    /// Halves the box in which there is too much.
    void narrow() noexcept {
        for (int d = 0; d < 3; ++d) {
            const double middle = 0.5 * myCorners[0][d] + 0.5 * myCorners[1][d];
            myReach[d] *= 0.5;
            myCorners[0][d] = middle - myReach[d];
            myCorners[1][d] = middle + myReach[d];
        }
    }
    [[nodiscard]] bool has(const point& lowest, const point& highest) const noexcept {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside &= lowest[d] >= myCorners[0][d] && highest[d] <= myCorners[1][d];
        return isInside;
    }

    std::uint64_t myStructure = 0;
    Orvix::PhysicalSpace::vector myReach;
    point myCorners[2];
    bool myHasMoved = false, myIsUsable = false, myHasNearMisses = false, myAreFew = false;
    CellBoxTree::Surroundings myCells, myNearMisses;
};

} // namespace Vantle::detail
