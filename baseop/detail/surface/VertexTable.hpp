#pragma once
/// Vertices of surfaces by the identifiers of their edges.

#include <model/vantle/Index.hpp>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Vantle::detail {

/// Which vertex lies on an edge: a hash table with open addressing and linear probing.
///
/// Source  multiplicative hashing: D. E. Knuth, The Art of Computer Programming, volume 3 (1973), section 6.4.
/// Cost    32 to 64 bytes an entry; one or two cache lines a look-up, where an ordered map follows a pointer a level.
class VertexTable {
public:
    static constexpr index_t None = ~index_t{0};

    /// `None` when there is none.
    [[nodiscard]] index_t find(index_t identifier) const noexcept {
        return mySlots.empty() ? None : mySlots[slot(identifier)].vertex;
    }
    /// Adds a vertex unless its edge has one.
    void insert(index_t identifier, index_t vertex) {
        if (2 * (mySize + 1) > mySlots.size()) grow();
        Slot& place = mySlots[slot(identifier)];
        if (place.vertex != None) return;
        place = {identifier, vertex};
        ++mySize;
    }

private:
    struct Slot {
        index_t identifier = 0;
        index_t vertex = None;
    };
    /// That of the identifier, or the free one that it would get.
    [[nodiscard]] std::size_t slot(index_t identifier) const noexcept {
        // 2^64 over the golden ratio: identifiers of neighbours, which differ by strides, go far apart.
        constexpr index_t golden = 0x9e3779b97f4a7c15ULL;
        const std::size_t last = mySlots.size() - 1;
        auto at = static_cast<std::size_t>((identifier * golden) >> 20) & last;
        while (mySlots[at].vertex != None && mySlots[at].identifier != identifier) at = (at + 1) & last;
        return at;
    }
    void grow() {
        std::vector<Slot> old(std::max<std::size_t>(1024, 2 * mySlots.size()));
        old.swap(mySlots);
        for (const Slot& filled : old)
            if (filled.vertex != None) mySlots[slot(filled.identifier)] = filled;
    }

    std::vector<Slot> mySlots; // a power of two
    std::size_t mySize = 0;
};

} // namespace Vantle::detail
