#pragma once
/// The blocks around those of a rank, as far as operations across joins need them.
///
/// A stand-in is a block of another rank as its shell: what lies on its faces and, if need be, one layer beneath. Where
/// an operation reads it as an array, that has the extents of the block, nothing inside, and is dropped by the cache.
/// Own blocks and stand-ins make one grid, in the order of all blocks, so that the joins that are found in it are those
/// that one process finds among all blocks, as far as own blocks are concerned.

#include <baseop/BlockJoins.hpp>
#include <dataset/DataSet.hpp>
#include <model/hestra/Cache.hpp>
#include <model/vantle/Representation.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <parallel/detail/BoxTree.hpp>
#include <parallel/detail/Exchange.hpp>
#include <set>
#include <string>
#include <vector>

namespace Vantle::detail {

/// What every rank knows of a block.
struct GlobalBlock {
    BlockInfo info;
    std::uint64_t number = 0; ///< that the caller has given
    int rank = 0;

    /// Whether it has cells, and with that faces.
    [[nodiscard]] bool hasFaces() const noexcept { return info.size[0] > 1 && info.size[1] > 1 && info.size[2] > 1; }
};

/// The blocks of all ranks, in order, and of this one.
struct AllBlocks {
    std::vector<GlobalBlock> blocks;
    std::vector<std::uint32_t> own; ///< numbers among all, ascending
    /// Around all positions that are numbers, without regard to masks; NaN where there are none.
    std::vector<Box> boxes;
};

/// How a halo is made.
struct HaloRequest {
    JoinOptions joins;
    /// Layers of vertices that stand-ins have.
    index_t depth = 1;
    /// 1: blocks whose boxes touch own ones; 2: those that touch these, too.
    int rings = 1;
};

struct Sparse;

class Halo {
public:
    /// Collective. `own` has positions and masks of own blocks, by their names.
    ///
    /// @param shells  the positions of an own block that others are to have; null: those of `own`.
    Halo(Exchange& exchange, const AllBlocks& all, const Representation& own, HaloRequest request,
         const Hestra::StrongPtr<Hestra::Cache>& cache,
         const std::function<Hestra::StrongPtr<MemBase>(std::uint32_t)>& shells = {});

    /// Fields of own blocks over these and stand-ins, which have values where they own vertices of own blocks.
    /// Collective.
    [[nodiscard]] std::vector<Hestra::StrongPtr<Field>>
    extend(const std::vector<Hestra::StrongPtr<Field>>& fields) const;
    /// The same of one field, where stand-ins have all values of their shells: those that their vertices' owners have,
    /// as `joined`, the extended field, tells. Collective.
    [[nodiscard]] Hestra::StrongPtr<Field>
    extendShells(const Hestra::StrongPtr<Field>& field,
                 const std::function<Hestra::StrongPtr<MemBase>(std::uint32_t)>& shells) const;

    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept { return myGrid; }
    [[nodiscard]] const Hestra::StrongPtr<BlockJoins>& joins() const noexcept { return myJoins; }
    [[nodiscard]] index_t depth() const noexcept { return myRequest.depth; }
    /// Blocks of the grid, by their numbers among all, ascending.
    [[nodiscard]] const std::vector<std::uint32_t>& members() const noexcept { return myMembers; }
    /// The number in the grid of a member.
    [[nodiscard]] unsigned int memberOf(std::uint32_t block) const;
    [[nodiscard]] bool isOwn(unsigned int member) const { return isOwnMember[member]; }
    [[nodiscard]] int rankOf(unsigned int member) const { return myAll.blocks[myMembers[member]].rank; }
    [[nodiscard]] const Hestra::StrongPtr<FragmentID>& id(unsigned int member) const {
        return myJoins->fragment(member);
    }

    /// Whether other ranks have vertices of an own block, and whether they have this one.
    [[nodiscard]] bool isCommon(unsigned int member) const noexcept { return !myCommon[member].empty(); }
    [[nodiscard]] bool isCommon(const BlockVertex& vertex) const { return myCommon[vertex.block][vertex.index]; }
    /// Calls `take(rank)` for the other ranks that have a vertex, given by its owner in the grid, each once.
    template<class Take>
    void forRanksOf(const BlockVertex& owner, const Take& take) const {
        const auto from = std::lower_bound(myHolders.begin(), myHolders.end(), Holder{owner, -1});
        for (auto at = from; at != myHolders.end() && at->vertex == owner; ++at) take(at->rank);
    }

    // Of all blocks, by their numbers among these.
    [[nodiscard]] const std::vector<BlockJoin>& allJoins() const noexcept { return myAllJoins; }
    [[nodiscard]] const std::vector<DoubtfulFace>& allDoubts() const noexcept { return myDoubts; }
    [[nodiscard]] bool isMirrored(std::uint32_t block) const { return isMirroredBlock[block]; }
    [[nodiscard]] bool isOrientable() const noexcept { return isOrientableGrid; }

private:
    /// Vertices of one block that another one has, too.
    struct SharedList {
        int rank;
        std::uint32_t to, from;       // the block that has copies, and that which owns
        std::vector<index_t> indices; // in the owner, in the order of the copies
    };
    /// A rank that has a vertex which others have, too.
    struct Holder {
        BlockVertex vertex; // the owner
        int rank;
        auto operator<=>(const Holder&) const = default;
    };
    using ShellSource = std::function<Hestra::StrongPtr<MemBase>(std::uint32_t)>;
    /// What own blocks say to the ranks around them, in rounds.
    void sendShells(const std::function<void(std::uint32_t block, Writer&)>& write,
                    const std::function<void(std::uint32_t block, Reader&)>& take) const;
    [[nodiscard]] Hestra::StrongPtr<Field> ownOf(const Field& field) const;
    void setStandIn(Field& field, std::uint32_t block, index_t depth, Sparse known) const;
    void findNeighbours(int rings);
    void exchangePositions(const Representation& own, const ShellSource& shells);
    void gatherJoins();
    [[nodiscard]] bool agrees() const;
    void orient();
    void listShared();

    Exchange& myExchange;
    const AllBlocks& myAll;
    HaloRequest myRequest;
    Hestra::StrongPtr<Hestra::Cache> myCache;
    std::map<std::uint32_t, std::set<int>> myReceivers; // of each own block

    Hestra::StrongPtr<Grid> myGrid;
    Hestra::StrongPtr<FragmentIDCollection> myIDs;
    std::vector<std::uint32_t> myMembers;
    std::vector<bool> isOwnMember;
    Hestra::StrongPtr<BlockJoins> myJoins;
    std::vector<SharedList> myGiven, myTaken;
    std::vector<Holder> myHolders;           // ascending
    std::vector<std::vector<bool>> myCommon; // of own members: by vertex, if there are such

    std::vector<BlockJoin> myAllJoins;
    std::vector<DoubtfulFace> myDoubts;
    std::vector<bool> isMirroredBlock;
    bool isOrientableGrid = true;
};

} // namespace Vantle::detail
