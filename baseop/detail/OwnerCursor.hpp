#pragma once
/// Owners of vertices of joined blocks, asked in order.

#include <baseop/BlockJoins.hpp>

#include <algorithm>

namespace Vantle::detail {

/// As `BlockJoins::owner`, and fast where one vertex after another is asked for: remembers the place among the shared
/// vertices of a block.
///
/// Concurrency  one thread each.
class OwnerCursor {
public:
    [[nodiscard]] BlockVertex owner(const BlockJoins& joins, const BlockVertex& vertex) {
        if (vertex.block != myBlock) {
            myBlock = vertex.block;
            myShared = joins.shared(myBlock);
            myNext = 0;
        }
        const bool isAhead = myNext == 0 || myShared[myNext - 1].index < vertex.index;
        if (!isAhead || (myNext < myShared.size() && myShared[myNext].index < vertex.index))
            myNext = static_cast<std::size_t>(
                std::lower_bound(myShared.begin(), myShared.end(), vertex.index,
                                 [](const BlockJoins::Shared& s, index_t index) { return s.index < index; }) -
                myShared.begin());
        if (myNext == myShared.size() || myShared[myNext].index != vertex.index) return vertex;
        return myShared[myNext++].owner;
    }

private:
    unsigned int myBlock = ~0U;
    std::span<const BlockJoins::Shared> myShared;
    std::size_t myNext = 0;
};

} // namespace Vantle::detail
