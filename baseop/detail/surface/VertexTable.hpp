#pragma once
/// Vertices of surfaces by the names of their edges.

#include <model/vantle/Index.hpp>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Vantle::detail {

/// 2^64 over the golden ratio: names of neighbours, which differ by strides, go far apart.
inline constexpr index_t GoldenRatio = 0x9e3779b97f4a7c15ULL;

/// An edge by the numbers of its ends among all vertices of a grid, the lower one first.
struct EndsOfEdge {
    index_t first = 0, second = 0;
    bool operator==(const EndsOfEdge&) const = default;
};

/// The names that edges have: their number, or their ends.
[[nodiscard]] inline index_t hashOf(index_t identifier) noexcept { return identifier * GoldenRatio; }
[[nodiscard]] inline index_t hashOf(const EndsOfEdge& ends) noexcept {
    return ((ends.first * GoldenRatio) ^ (ends.second + (ends.first >> 32))) * GoldenRatio;
}

/// Which vertex lies on an edge: a hash table with open addressing and linear probing.
///
/// Source  multiplicative hashing: D. E. Knuth, The Art of Computer Programming, volume 3 (1973), section 6.4.
/// Cost    two to four times a name and 8 bytes an entry; one or two cache lines a look-up, where an ordered map
/// follows
///         a pointer a level.
template<class Name>
class VertexTable {
public:
    /// The vertex on an edge; `vertex`, which is entered, when the edge had none.
    index_t findOrInsert(const Name& name, index_t vertex) {
        if (2 * (mySize + 1) > mySlots.size()) grow();
        Slot& place = mySlots[slot(name)];
        if (place.vertex != None) return place.vertex;
        place = {name, vertex};
        ++mySize;
        return vertex;
    }

private:
    static constexpr index_t None = ~index_t{0};
    struct Slot {
        Name name{};
        index_t vertex = None;
    };
    /// That of the name, or the free one that it would get.
    [[nodiscard]] std::size_t slot(const Name& name) const noexcept {
        const std::size_t last = mySlots.size() - 1;
        auto at = static_cast<std::size_t>(hashOf(name) >> 20) & last;
        while (mySlots[at].vertex != None && !(mySlots[at].name == name)) at = (at + 1) & last;
        return at;
    }
    void grow() {
        std::vector<Slot> old(std::max<std::size_t>(1024, 2 * mySlots.size()));
        old.swap(mySlots);
        for (const Slot& filled : old)
            if (filled.vertex != None) mySlots[slot(filled.name)] = filled;
    }

    std::vector<Slot> mySlots; // a power of two
    std::size_t mySize = 0;
};

} // namespace Vantle::detail
