#include <baseop/detail/Unigrid.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Vantle::detail {

namespace {

using point = Orvix::PhysicalSpace::point;

/// The unicells that the boxes of the cells of one row touch.
class RowRanges {
public:
    RowRanges(const BlockVertices& vertices, const Unigrid& unigrid)
        : myVertices(vertices), myUnigrid(unigrid), myLength(static_cast<std::size_t>(vertices.cells()[0])),
          myBounds(2 * (myLength + 1)), myRanges(6 * myLength) {}

    /// First and last unicell of cell i on an axis. A cell without any has a first one beyond the last.
    [[nodiscard]] int first(std::size_t i, std::size_t axis) const noexcept { return myRanges[axis * myLength + i]; }
    [[nodiscard]] int last(std::size_t i, std::size_t axis) const noexcept {
        return myRanges[(3 + axis) * myLength + i];
    }
    [[nodiscard]] bool isListed(std::size_t i) const noexcept { return first(i, 0) <= last(i, 0); }

    void find(index_t j, index_t k) {
        if (myUnigrid.isFinite)
            findFinite(j, k);
        else
            findAny(j, k);
    }

private:
    void findFinite(index_t j, index_t k) {
        const std::size_t step = myVertices.step(0);
        const double* const p00 = myVertices.address(0, j, k);
        const double* const p10 = myVertices.address(0, j + 1, k);
        const double* const p01 = myVertices.address(0, j, k + 1);
        const double* const p11 = myVertices.address(0, j + 1, k + 1);
        double* const low = myBounds.data();
        double* const high = low + myLength + 1;
        for (std::size_t d = 0; d < 3; ++d) {
            for (std::size_t i = 0; i <= myLength; ++i) {
                const double a = p00[i * step + d], b = p10[i * step + d], c = p01[i * step + d], e = p11[i * step + d];
                low[i] = std::min(std::min(a, b), std::min(c, e));
                high[i] = std::max(std::max(a, b), std::max(c, e));
            }
            int* const firsts = myRanges.data() + d * myLength;
            int* const lasts = firsts + 3 * myLength;
            const double lowest = myUnigrid.lowest[d], highest = myUnigrid.highest[d], size = myUnigrid.unicellSize[d];
            const int end = static_cast<int>(myUnigrid.size[d]) - 1;
            if (!(size > 0.0)) {
                std::fill_n(firsts, myLength, end);
                std::fill_n(lasts, myLength, end);
                continue;
            }
            // What `Unigrid::indexOf` gives for coordinates within the box, whose quotients are neither negative nor
            // larger than `end` by more than rounding.
            for (std::size_t i = 0; i < myLength; ++i) {
                const double x = std::min(low[i], low[i + 1]), y = std::max(high[i], high[i + 1]);
                const int first = std::min(static_cast<int>((x - lowest) / size), end);
                const int last = std::min(static_cast<int>((y - lowest) / size), end);
                firsts[i] = x >= highest ? end : first;
                lasts[i] = y >= highest ? end : last;
            }
        }
    }

    void findAny(index_t j, index_t k) {
        for (std::size_t i = 0; i < myLength; ++i) {
            const Orvix::BoundingBox box = boxOfCell(myVertices, MultiIndex<3>(i, j, k));
            int first[3] = {}, last[3] = {};
            const bool isListed = myUnigrid.inside(box.minCoord()) && myUnigrid.map(box.minCoord(), first) &&
                                  myUnigrid.inside(box.maxCoord()) && myUnigrid.map(box.maxCoord(), last);
            for (std::size_t d = 0; d < 3; ++d) {
                myRanges[d * myLength + i] = isListed ? first[d] : 0;
                myRanges[(3 + d) * myLength + i] = isListed ? last[d] : -1;
            }
        }
    }

    const BlockVertices& myVertices;
    const Unigrid& myUnigrid;
    std::size_t myLength;
    std::vector<double> myBounds;
    std::vector<int> myRanges; // by axis: first ones, then last ones
};

} // namespace

Orvix::BoundingBox boxOfCell(const BlockVertices& vertices, const MultiIndex<3>& cell) {
    const double* const lowest = vertices.address(cell);
    Orvix::BoundingBox box;
    for (const int corner : {0, 1, 3, 2, 5, 7, 6, 4}) box.embrace(vertices.point(vertices.corner(lowest, corner)));
    return box;
}

void UnicellLists::build(const BlockVertices& vertices, const Unigrid& unigrid, index_t limit,
                         const std::function<void(const MultiIndex<3>&)>& reject) {
    const MultiIndex<3>& count = vertices.cells();
    RowRanges ranges(vertices, unigrid);
    // Calls f(number, i) for every listed cell, whose unicells are in `ranges` then.
    const auto forEachCell = [&](auto&& f, auto&& unlisted) {
        if (count.product() == 0) return;
        for (index_t k = 0; k < count[2]; ++k)
            for (index_t j = 0; j < count[1]; ++j) {
                ranges.find(j, k);
                const index_t row = count[0] * (j + count[1] * k);
                for (std::size_t i = 0; i < count[0]; ++i) {
                    if (ranges.isListed(i))
                        f(row + i, i);
                    else
                        unlisted(MultiIndex<3>(i, j, k));
                }
            }
    };
    // Calls f(unicell) for every unicell of cell i of the row at hand.
    const auto width = static_cast<std::size_t>(unigrid.size[0]), height = static_cast<std::size_t>(unigrid.size[1]);
    const auto forEachUnicell = [&](std::size_t i, auto&& f) {
        const auto x0 = static_cast<std::size_t>(ranges.first(i, 0)), x1 = static_cast<std::size_t>(ranges.last(i, 0));
        for (auto z = static_cast<std::size_t>(ranges.first(i, 2)); z <= static_cast<std::size_t>(ranges.last(i, 2));
             ++z)
            for (auto y = static_cast<std::size_t>(ranges.first(i, 1));
                 y <= static_cast<std::size_t>(ranges.last(i, 1)); ++y) {
                const std::size_t row = width * (y + height * z);
                for (std::size_t u = row + x0; u <= row + x1; ++u) f(u);
            }
    };
    const auto ignore = [](const MultiIndex<3>&) {};

    index_t entries = 0;
    forEachCell(
        [&](index_t, std::size_t i) {
            index_t unicells = 1;
            for (std::size_t d = 0; d < 3; ++d)
                unicells *= static_cast<index_t>(ranges.last(i, d) - ranges.first(i, d) + 1);
            entries += unicells;
        },
        reject);
    if (entries > limit) throw std::length_error("UniGridMapper: too many entries in the lists of cells");

    // The count of unicell u goes two places further; sums then make it the beginning of u + 1's list one place
    // further, which filling the list of u turns into its own.
    const auto unicells = static_cast<std::size_t>(unigrid.size.product());
    offsets.assign(unicells + 2, 0);
    std::uint32_t* const counts = offsets.data() + 2;
    forEachCell([&](index_t, std::size_t i) { forEachUnicell(i, [&](std::size_t u) { ++counts[u]; }); }, ignore);
    for (std::size_t u = 0; u < unicells; ++u) {
        longest = std::max(longest, counts[u]);
        counts[u] += offsets[u + 1];
    }
    cells.resize(static_cast<std::size_t>(entries));
    std::uint32_t* const next = offsets.data() + 1;
    std::uint32_t* const entry = cells.data();
    forEachCell(
        [&](index_t number, std::size_t i) {
            forEachUnicell(i, [&](std::size_t u) { entry[next[u]++] = static_cast<std::uint32_t>(number); });
        },
        ignore);
    offsets.pop_back();
}

} // namespace Vantle::detail
