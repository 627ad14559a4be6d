#pragma once
/// The k-d tree of values at keys, and the interface under which one is attached to an object.

#include <model/hestra/Interface.hpp>
#include <model/orvix/FixedArray.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orvix {

/// Values at points of N-dimensional space, found by boxes around a point.
///
/// The tree is unbalanced and its shape is part of its behaviour, since searches report entries in pre-order
/// (an entry, its first child, its second child): the root splits axis 0, each child the axis after its
/// parent's, and a new entry goes to the first child exactly when the node's key is greater on the node's axis.
///
/// Degenerate   equal keys are all kept; keys with NaN are not.
/// Failure      more than 2^32 - 1 entries: std::length_error; no memory: std::bad_alloc. Either changes nothing that
/// can
///              be observed.
/// Concurrency  const members may be called from any number of threads while nobody inserts or packs.
/// Cost         32 bytes and the value an entry (N = 3). A search walks down to the box, so it costs the depth and
///              the entries near the box; keys in sorted order make the tree a list, whose searches are linear.
///              An insertion continues on the path of the one before it, so that sorted keys still take a
///              logarithmic step each. `pack` the tree once it is complete: searches of a large one then touch a
///              third of the memory pages. Nothing recurses, and no search allocates for its walk unless more than
///              64 subtrees are pending.
template<int N, class T>
class KDTree : public Hestra::ReferenceBase<KDTree<N, T>> {
public:
    using key_type = FixedArray<double, N>;

    /// Inserts an entry; false, and nothing inserted, when the key has a NaN.
    bool insert(const key_type& key, const T& value) {
        for (const double k : key)
            if (k != k) return false;
        if (myPacked) unpack();
        if (myNodes.size() >= None) throw std::length_error("KDTree: more entries than node numbers");
        const auto number = static_cast<std::uint32_t>(myNodes.size());
        try {
            myNodes.push_back(Node{key, {None, None}});
            myValues.push_back(value);
            std::uint32_t* const slot = number != 0 ? descend(key) : nullptr;
            myPath.push_back(number);
            if (slot) *slot = number;
        } catch (...) {
            if (myNodes.size() > number) myNodes.pop_back();
            if (myValues.size() > number) myValues.pop_back();
            startAtRoot();
            throw;
        }
        return true;
    }

    /// Number of entries.
    [[nodiscard]] std::size_t size() const noexcept { return myNodes.size(); }
    [[nodiscard]] bool empty() const noexcept { return myNodes.empty(); }

    /// Makes room for a number of entries.
    void reserve(std::size_t entries) {
        myNodes.reserve(entries);
        myValues.reserve(entries);
    }

    /// Lays the entries out in pre-order, which changes the time of searches and nothing else. Linear; a later
    /// insertion undoes it, in linear time too.
    void pack() {
        if (myPacked || myNodes.empty()) return;
        struct Step {
            std::uint32_t node;     // number in the order of insertion
            std::uint32_t position; // number in pre-order
            int childrenDone;
        };
        std::vector<Node> nodes;
        std::vector<std::uint32_t> order;
        std::vector<T> values;
        nodes.reserve(myNodes.size());
        order.reserve(myNodes.size());
        values.reserve(myValues.size());
        const auto end = [&] { return static_cast<std::uint32_t>(nodes.size()); };
        std::vector<Step> steps{{0, 0, 0}};
        while (!steps.empty()) {
            Step& step = steps.back();
            const Node& source = myNodes[step.node];
            if (step.childrenDone == 0) {
                step.position = end();
                nodes.push_back(Node{source.key, {0, 0}});
                order.push_back(step.node);
            } else {
                nodes[step.position].link[step.childrenDone - 1] = end();
            }
            if (step.childrenDone == 2) {
                steps.pop_back();
                continue;
            }
            const std::uint32_t child = source.link[step.childrenDone++];
            if (child != None) steps.push_back({child, 0, 0});
        }
        for (const std::uint32_t node : order) values.push_back(std::move_if_noexcept(myValues[node]));
        myNodes.swap(nodes);
        myValues.swap(values);
        myPacked = true;
    }

    /// Calls `f(value, distance)` in pre-order for the entries with |key - centre| <= half width on every axis, with
    /// distance = |dx| + |dy| + ..., unscaled. Ends early when `f` returns a `bool` that is false.
    ///
    /// Degenerate  half widths of zero are legal: planar data has no extent across its plane. Negative ones and NaN
    ///             find nothing.
    template<class F>
    void forEachInBox(const key_type& centre, const key_type& halfWidths, F&& f) const {
        for (int i = 0; i < N; ++i)
            if (!(halfWidths[i] >= 0.0) || centre[i] != centre[i]) return;
        if (myNodes.empty()) return;
        if (myPacked)
            walk<true>(centre, halfWidths, f);
        else
            walk<false>(centre, halfWidths, f);
    }

    /// Adds to `found`, by distance, the entries that `forEachInBox` visits; entries at equal distances keep the
    /// order of that visit. Returns how many there were.
    std::size_t find_nearest_Manhatten(std::multimap<double, T>& found, const key_type& centre,
                                       const key_type& halfWidths) const {
        std::size_t count = 0;
        forEachInBox(centre, halfWidths, [&](const T& value, double distance) {
            found.emplace_hint(found.upper_bound(distance), distance, value);
            ++count;
        });
        return count;
    }

    /// Length of the longest path from the root, counted in entries.
    [[nodiscard]] std::size_t depth() const {
        // Children have greater numbers than their parents, so one forward pass knows each parent's level.
        std::vector<std::uint32_t> level(myNodes.size(), 1);
        std::size_t deepest = 0;
        for (std::size_t i = 0; i < myNodes.size(); ++i) {
            deepest = std::max<std::size_t>(deepest, level[i]);
            const auto number = static_cast<std::uint32_t>(i);
            for (const std::uint32_t child : {myPacked ? child0<true>(number) : child0<false>(number),
                                              myPacked ? child1<true>(number) : child1<false>(number)})
                if (child != None) level[child] = level[i] + 1;
        }
        return deepest;
    }

private:
    static constexpr std::uint32_t None = std::numeric_limits<std::uint32_t>::max();

    struct Node {
        key_type key;
        /// The children, or None. Once packed: where the second child's subtree starts, and where it ends; the first
        /// child's lies between the node and the former, and each is empty rather than None.
        std::uint32_t link[2];
    };

    /// Packed subtrees of at most so many entries are scanned from end to end: cheaper than to walk them.
    static constexpr std::uint32_t ScanLength = 16;

    template<bool Packed>
    [[nodiscard]] std::uint32_t child0(std::uint32_t node) const noexcept {
        if constexpr (Packed)
            return myNodes[node].link[0] != node + 1 ? node + 1 : None;
        else
            return myNodes[node].link[0];
    }
    template<bool Packed>
    [[nodiscard]] std::uint32_t child1(std::uint32_t node) const noexcept {
        const std::uint32_t* const link = myNodes[node].link;
        if constexpr (Packed)
            return link[0] != link[1] ? link[0] : None;
        else
            return link[1];
    }

    /// Subtrees still to be visited: in place while they are few, as in any tree that is not nearly a list.
    class Pending {
    public:
        void push(std::uint32_t node, int axis) {
            if (mySize < Few)
                myFew[mySize++] = {node, axis};
            else
                myMany.emplace_back(node, axis);
        }
        bool pop(std::uint32_t& node, int& axis) noexcept {
            if (!myMany.empty()) {
                std::tie(node, axis) = myMany.back();
                myMany.pop_back();
                return true;
            }
            if (mySize == 0) return false;
            node = myFew[--mySize].node;
            axis = myFew[mySize].axis;
            return true;
        }

    private:
        static constexpr int Few = 64;
        struct Entry {
            std::uint32_t node;
            int axis;
        };
        Entry myFew[Few];
        int mySize = 0;
        std::vector<std::pair<std::uint32_t, int>> myMany;
    };

    /// Reports one entry if it is in the box; false to end the search.
    template<class F>
    bool report(std::uint32_t number, const key_type& centre, const key_type& halfWidths, F& f) const {
        const key_type& key = myNodes[number].key;
        double distance = 0.0;
        bool isInside = true;
        for (int i = 0; i < N; ++i) {
            const double d = std::fabs(key[i] - centre[i]);
            isInside &= d <= halfWidths[i];
            distance += d;
        }
        if (!isInside) return true;
        if constexpr (std::is_same_v<std::invoke_result_t<F&, const T&, double>, bool>)
            return f(myValues[number], distance);
        f(myValues[number], distance);
        return true;
    }

    template<bool Packed, class F>
    void walk(const key_type& centre, const key_type& halfWidths, F& f) const {
        Pending pending;
        std::uint32_t current = 0;
        int axis = 0;
        for (;;) {
            std::uint32_t first = None, second = None;
            if (Packed && myNodes[current].link[1] - current <= ScanLength) {
                for (std::uint32_t i = current; i < myNodes[current].link[1]; ++i)
                    if (!report(i, centre, halfWidths, f)) return;
            } else {
                if (!report(current, centre, halfWidths, f)) return;
                // Rounding a difference keeps the order of keys, so a child left out here holds no key that
                // passes the test above. Written with negations for infinite keys, whose difference may be NaN.
                const double across = myNodes[current].key[axis] - centre[axis];
                if (!(across < -halfWidths[axis])) first = child0<Packed>(current);
                if (!(across > halfWidths[axis])) second = child1<Packed>(current);
                axis = nextAxis(axis);
            }
            if (first != None) {
                if (second != None) pending.push(second, axis);
                current = first;
            } else if (second != None) {
                current = second;
            } else if (!pending.pop(current, axis)) {
                return;
            }
        }
    }

    /// Forgets the path, if there is one, beyond the root.
    void startAtRoot() noexcept {
        if (!myPath.empty()) myPath.erase(myPath.begin() + 1, myPath.end());
        for (auto& axis : myTurns)
            for (auto& turns : axis) turns.clear();
    }

    void unpack() noexcept {
        for (std::uint32_t i = 0; i < myNodes.size(); ++i) {
            const std::uint32_t first = child0<true>(i), second = child1<true>(i);
            myNodes[i].link[0] = first;
            myNodes[i].link[1] = second;
        }
        startAtRoot();
        myPacked = false;
    }

    /// A turn of the last insertion's path that its key had to satisfy: below or not below `key` on an axis.
    struct Turn {
        double key;
        std::size_t level;
    };

    static constexpr int nextAxis(int axis) noexcept { return axis + 1 == N ? 0 : axis + 1; }

    /// The free child slot where `key` belongs. Instead of starting at the root, goes back on the last
    /// insertion's path to where the key leaves it: the turns of one axis and direction are ever tighter,
    /// so the first one that does not hold is found by bisection.
    std::uint32_t* descend(const key_type& key) {
        std::size_t level = myPath.size() - 1;
        for (int i = 0; i < N; ++i) {
            const auto below = std::partition_point(myTurns[i][0].begin(), myTurns[i][0].end(),
                                                    [&](const Turn& turn) { return turn.key > key[i]; });
            if (below != myTurns[i][0].end()) level = std::min(level, below->level);
            const auto above = std::partition_point(myTurns[i][1].begin(), myTurns[i][1].end(),
                                                    [&](const Turn& turn) { return !(turn.key > key[i]); });
            if (above != myTurns[i][1].end()) level = std::min(level, above->level);
        }
        for (auto& axis : myTurns)
            for (auto& turns : axis)
                while (!turns.empty() && turns.back().level >= level) turns.pop_back();
        myPath.erase(myPath.begin() + static_cast<std::ptrdiff_t>(level) + 1, myPath.end());

        int axis = static_cast<int>(level % N);
        for (;; ++level, axis = nextAxis(axis)) {
            Node& node = myNodes[myPath.back()];
            const double split = node.key[axis];
            const int side = split > key[axis] ? 0 : 1;
            std::vector<Turn>& turns = myTurns[axis][side];
            // A turn no tighter than an earlier one never is the first to fail.
            if (turns.empty() || (side == 0 ? split < turns.back().key : split > turns.back().key))
                turns.push_back({split, level});
            if (node.link[side] == None) return &node.link[side];
            myPath.push_back(node.link[side]);
        }
    }

    std::vector<Node> myNodes;
    std::vector<T> myValues;
    /// From the root to the entry inserted last, and the turns taken on the way, by axis and direction.
    std::vector<std::uint32_t> myPath;
    std::vector<Turn> myTurns[N][2];
    bool myPacked = false;
};

/// A k-d tree as an attachment, shared with whoever holds it.
template<int N, class T>
class KDInterface : public Hestra::Interface<KDInterface<N, T>> {
public:
    explicit KDInterface(const Hestra::StrongPtr<KDTree<N, T>>& tree) : myTree(tree) {}

    /// The tree; empty only if the interface was made with an empty handle.
    [[nodiscard]] const Hestra::StrongPtr<KDTree<N, T>>& tree() const noexcept { return myTree; }

private:
    Hestra::StrongPtr<KDTree<N, T>> myTree;
};

} // namespace Orvix
