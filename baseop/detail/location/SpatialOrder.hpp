#pragma once
/// Positions that come in any order, taken in one in which those that follow each other are near in space.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/PhysicalSpace.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Vantle::detail {

/// The order along a curve that fills the box of the positions. Sorting takes about as long as a tenth of a search in
/// cold memory, and saves most of one.
class SpatialOrder {
public:
    using point = Orvix::PhysicalSpace::point;
    /// Of so many positions at most an order is made; beyond that they share nothing more.
    static constexpr std::size_t MostPositions = std::size_t{1} << 18;

    /// Whether positions that follow each other are about as far apart as any: then it pays.
    [[nodiscard]] static bool pays(std::span<const point> points) noexcept;

    /// How many of some positions come before one that is farther from the last than twice what they extend; at least
    /// four, if there are so many.
    [[nodiscard]] VANTLE_BASEOP_API static std::size_t beforeJump(std::span<const point> points) noexcept;

    /// The numbers of positions, in order. Valid until the next call.
    [[nodiscard]] std::span<const std::uint32_t> of(std::span<const point> points);

private:
    std::vector<std::uint64_t> myKeys, mySpare; // the place on the curve above the number
    std::vector<std::uint32_t> myNumbers;
};

/// Calls `f(points, number)` for up to `Most` positions at a time, near each other as far as may be, of which the m-th
/// is number `number(m)` of all. Of those that come in a good order, `together` are taken at a time, or less up to a
/// jump.
template<std::size_t Most, class F>
void forEachNeighbours(std::span<const SpatialOrder::point> points, const F& f, std::size_t together = Most) {
    if (!SpatialOrder::pays(points)) {
        std::size_t count = 0;
        for (std::size_t begin = 0; begin < points.size(); begin += count) {
            count = SpatialOrder::beforeJump(points.subspan(begin, std::min(together, points.size() - begin)));
            f(points.subspan(begin, count), [begin](std::size_t m) { return begin + m; });
        }
        return;
    }
    SpatialOrder order;
    SpatialOrder::point now[Most];
    for (std::size_t first = 0; first < points.size(); first += SpatialOrder::MostPositions) {
        const std::size_t all = std::min(SpatialOrder::MostPositions, points.size() - first);
        const std::span<const std::uint32_t> numbers = order.of(points.subspan(first, all));
        for (std::size_t begin = 0; begin < all; begin += Most) {
            const std::size_t count = std::min(Most, all - begin);
            const auto number = [&](std::size_t m) { return first + numbers[begin + m]; };
            for (std::size_t m = 0; m < count; ++m) now[m] = points[number(m)];
            f(std::span<const SpatialOrder::point>(now, count), number);
        }
    }
}

/// Calls `locate(points, found, number)` for the same, and has what it finds where it belongs.
template<std::size_t Most, class Found, class Locate>
void locateNeighbours(std::span<const SpatialOrder::point> points, std::span<Found> found, const Locate& locate) {
    forEachNeighbours<Most>(points, [&](std::span<const SpatialOrder::point> now, const auto& number) {
        Found theirs[Most];
        locate(now, std::span(theirs, now.size()), number);
        for (std::size_t m = 0; m < now.size(); ++m) found[number(m)] = theirs[m];
    });
}

} // namespace Vantle::detail
