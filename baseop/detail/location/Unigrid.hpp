#pragma once
/// The uniform grid over a block, and the lists of cells that touch each of its unicells.
///
/// Hardly a query looks into the lists. They are made when one first has to, and only if they are not too long; else
/// that query goes through all cells and tells by each one's box whether the list would have it.

#include <baseop/detail/location/BlockVertices.hpp>
#include <model/orvix/BoundingBox.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace Vantle::detail {

/// A box cut into unicells, such that so many points as there are on an axis span it: the last unicell of an axis has
/// the points of the box's maximum, and no others.
struct Unigrid {
    using point = Orvix::PhysicalSpace::point;

    point lowest, highest;
    Orvix::PhysicalSpace::vector unicellSize;
    MultiIndex<3> size;
    /// Whether all points that the unigrid was made for are numbers, and its sides too.
    bool isFinite = false;

    /// The unicell of a point in the box, by axis; false when it is not within the grid, as may be when the box is not
    /// finite. `index` is set even then, to the least integer if no other is at hand.
    [[nodiscard]] bool map(const point& p, int (&index)[3]) const noexcept {
        bool isWithin = true;
        for (int d = 0; d < 3; ++d) {
            const int last = static_cast<int>(size[d]) - 1;
            index[d] = indexOf(p[d], d, last);
            isWithin &= index[d] >= 0 && index[d] <= last;
        }
        return isWithin;
    }

    [[nodiscard]] int indexOf(double x, int axis, int last) const noexcept {
        // The quotient at the maximum may be rounded down to less than `last`, or be 0 / 0 on a flat axis.
        if (x >= highest[axis]) return last;
        const double quotient = (x - lowest[axis]) / unicellSize[axis];
        constexpr double most = 2147483647.0;
        if (!(quotient >= -most && quotient <= most)) return -2147483647 - 1;
        const int truncated = static_cast<int>(quotient);
        return static_cast<double>(truncated) > quotient ? truncated - 1 : truncated;
    }

    /// Whether the closed box has the point; NaN is outside.
    [[nodiscard]] bool inside(const point& p) const noexcept {
        return p[0] >= lowest[0] && p[0] <= highest[0] && p[1] >= lowest[1] && p[1] <= highest[1] &&
               p[2] >= lowest[2] && p[2] <= highest[2];
    }
    [[nodiscard]] std::size_t linear(const int (&index)[3]) const noexcept {
        return static_cast<std::size_t>(index[0]) +
               static_cast<std::size_t>(size[0]) *
                   (static_cast<std::size_t>(index[1]) +
                    static_cast<std::size_t>(size[1]) * static_cast<std::size_t>(index[2]));
    }
};

/// For every unicell the cells of a block whose boxes touch it.
struct UnicellLists {
    /// The cells of unicell u are numbers offsets[u] to offsets[u + 1] of `cells`, in ascending order.
    std::vector<std::uint32_t> offsets, cells;

    /// Counts, then fills. Cells whose box is not within the unigrid's are in no list. Null, and nothing filled, when
    /// there are more than `limit` entries or cells.
    [[nodiscard]] static std::unique_ptr<const UnicellLists> make(const BlockVertices& vertices, const Unigrid& unigrid,
                                                                  index_t limit);

    [[nodiscard]] std::span<const std::uint32_t> at(std::size_t unicell) const noexcept {
        return {cells.data() + offsets[unicell], offsets[unicell + 1] - offsets[unicell]};
    }
};

/// Length of the longest list, found without making them. Calls `reject` once, in order, for each cell that is in no
/// list.
[[nodiscard]] std::uint32_t longestList(const BlockVertices& vertices, const Unigrid& unigrid,
                                        const std::function<void(const MultiIndex<3>&)>& reject);

/// Whether the list of a unicell has a cell.
[[nodiscard]] bool isListed(const BlockVertices& vertices, const Unigrid& unigrid, const MultiIndex<3>& cell,
                            const int (&unicell)[3]) noexcept;

/// The least and the greatest corner of a cell's box, as `BoundingBox` takes in the cell's corners, NaN included.
[[nodiscard]] Orvix::BoundingBox boxOfCell(const BlockVertices& vertices, const MultiIndex<3>& cell);

/// Calls `f(number)` for the cells that the list of a unicell has, in order, as long as it returns true. Goes through
/// the cells of the block one after the other.
void forEachListed(const BlockVertices& vertices, const Unigrid& unigrid, const int (&unicell)[3],
                   const std::function<bool(index_t)>& f);

} // namespace Vantle::detail
