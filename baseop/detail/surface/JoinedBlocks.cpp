#include <baseop/detail/surface/JoinedBlocks.hpp>

#include <algorithm>

namespace Vantle::detail {

JoinedBlocks::JoinedBlocks(const Hestra::StrongPtr<BlockJoins>& joins, const Hestra::StrongPtr<Field>& values)
    : myJoins(joins), myValues(values) {
    index_t vertices = 0;
    for (unsigned int block = 0; block < joins->blocks(); ++block) {
        myFirst.push_back(vertices);
        vertices += joins->size(block).product();
    }
}

bool JoinedBlocks::isJoined(unsigned int block) const {
    if (block >= myJoins->blocks()) return false;
    const auto joins = myJoins->joins(block);
    return myJoins->isShared(block) ||
           std::any_of(joins.begin(), joins.end(), [](const BlockJoin& join) { return join.motion < 0; });
}

std::vector<unsigned int> JoinedBlocks::ownersOf(unsigned int block) const {
    std::vector<unsigned int> owners;
    for (const BlockJoins::Shared& shared : myJoins->shared(block))
        if (owners.empty() || owners.back() != shared.owner.block) owners.push_back(shared.owner.block);
    std::sort(owners.begin(), owners.end());
    owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
    return owners;
}

} // namespace Vantle::detail
