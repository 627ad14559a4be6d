#pragma once
/// Which of many boxes have a point, or touch a box.

#include <dataset/Values.hpp>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <span>
#include <vector>

namespace Vantle::detail {

[[nodiscard]] inline bool touch(const Box& a, const Box& b) noexcept {
    for (int d = 0; d < 3; ++d)
        if (!(a.low[d] <= b.high[d] && b.low[d] <= a.high[d])) return false; // NaN: no box
    return true;
}

/// A balanced tree over boxes, halved at the middle of their centres along the longest axis. Boxes with NaN touch
/// nothing, and are left out.
///
/// Cost  O(n log n) to build; 56 bytes a box, and two boxes for each four.
class BoxTree {
public:
    BoxTree() = default;
    explicit BoxTree(std::span<const Box> boxes) {
        for (std::uint32_t n = 0; n < boxes.size(); ++n)
            if (touch(boxes[n], boxes[n])) myItems.push_back({boxes[n], n});
        if (!myItems.empty()) build(0, myItems.size());
    }
    /// Calls `take(number)` for each box that touches this one, in no order.
    template<class Take>
    void forEach(const Box& box, const Take& take) const {
        if (!myNodes.empty()) visit(0, box, take);
    }

private:
    struct Item {
        Box box;
        std::uint32_t number;
    };
    struct Node {
        Box box;
        std::uint32_t begin, end;
        std::uint32_t upper; // the node of the upper half, that of the lower one follows; 0: a leaf
    };
    static constexpr std::size_t Leaf = 8;

    std::uint32_t build(std::size_t begin, std::size_t end) {
        const auto number = static_cast<std::uint32_t>(myNodes.size());
        Node node{myItems[begin].box, static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end), 0};
        for (std::size_t n = begin; n < end; ++n)
            for (int d = 0; d < 3; ++d) {
                node.box.low[d] = std::min(node.box.low[d], myItems[n].box.low[d]);
                node.box.high[d] = std::max(node.box.high[d], myItems[n].box.high[d]);
            }
        myNodes.push_back(node);
        if (end - begin <= Leaf) return number;
        const auto extent = [&](int d) { return node.box.high[d] - node.box.low[d]; };
        const int axis = extent(0) >= extent(1) ? (extent(0) >= extent(2) ? 0 : 2) : (extent(1) >= extent(2) ? 1 : 2);
        const auto at = [&](std::size_t n) { return myItems.begin() + static_cast<std::ptrdiff_t>(n); };
        const std::size_t middle = (begin + end) / 2;
        std::nth_element(at(begin), at(middle), at(end), [axis](const Item& a, const Item& b) {
            return a.box.low[axis] + a.box.high[axis] < b.box.low[axis] + b.box.high[axis];
        });
        (void)build(begin, middle);
        const std::uint32_t upper = build(middle, end);
        myNodes[number].upper = upper;
        return number;
    }
    template<class Take>
    void visit(std::uint32_t number, const Box& box, const Take& take) const {
        const Node& node = myNodes[number];
        if (!touch(node.box, box)) return;
        if (node.upper == 0) {
            for (std::uint32_t n = node.begin; n < node.end; ++n)
                if (touch(myItems[n].box, box)) take(myItems[n].number);
            return;
        }
        visit(number + 1, box, take);
        visit(node.upper, box, take);
    }

    std::vector<Item> myItems;
    std::vector<Node> myNodes;
};

} // namespace Vantle::detail
