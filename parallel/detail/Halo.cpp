#include <model/orvix/Quadratic.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <parallel/detail/Halo.hpp>
#include <tuple>

namespace Vantle::detail {

using Hestra::StrongPtr;

namespace {

/// What elements of fields may be; their places here stand for them in messages, from 1 on.
using Elements = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long,
                          Vector, Point, Orvix::Quadratic<3, double>>;

template<class... T, class F>
void withCode(TypeList<T...>, unsigned char code, const F& f) {
    unsigned char n = 0;
    ((++n == code ? f(TypeList<T>()) : void()), ...);
}

/// Elements of an array at some indices: their type's place, and they themselves. 0 without array.
void putElements(Writer& writer, const StrongPtr<MemBase>& data, std::vector<index_t> indices) {
    if (!data) return writer.put(static_cast<unsigned char>(0));
    const DynamicSize count(indices.size());
    const StrongPtr<MemBase> taken = data->gather(*makeMemArray1D(std::move(indices)), count, 1);
    bool isKnown = false;
    unsigned char code = 0;
    const auto attempt = [&]<class T>(TypeList<T>) {
        ++code;
        if (!isKnown && taken && withMemArray<1>(TypeList<T>(), taken, [&](const MemArray<1, T>& elements) {
                writer.put(code);
                if (elements.nElements() != 0)
                    writer.put(
                        std::as_bytes(std::span(elements.data(), static_cast<std::size_t>(elements.nElements()))));
            }))
            isKnown = true;
    };
    [&]<class... T>(TypeList<T...>) { (attempt(TypeList<T>()), ...); }(Elements());
    if (!isKnown) throw DataSetError("elements of a type that other ranks cannot be told");
}

/// Vertices of a block that are not deeper than `depth` layers from its faces, ascending.
std::vector<index_t> shellOf(const MultiIndex<3>& size, index_t depth) {
    std::vector<index_t> all;
    const auto isNear = [depth](index_t i, index_t n) { return i < depth || i + depth >= n; };
    index_t row = 0;
    for (index_t k = 0; k < size[2]; ++k)
        for (index_t j = 0; j < size[1]; ++j, row += size[0]) {
            const bool isWhole = isNear(k, size[2]) || isNear(j, size[1]) || 2 * depth >= size[0];
            for (index_t i = 0; i < size[0]; i = !isWhole && i + 1 == depth ? size[0] - depth : i + 1)
                all.push_back(row + i);
        }
    return all;
}

} // namespace

/// Elements of a stand-in that are known, and where they are.
struct Sparse {
    unsigned char code = 0;       // their type, as in messages; 0: there are none
    std::vector<index_t> indices; // empty: those of the shell of some depth
    std::vector<std::byte> elements;

    /// What `putElements` has written of so many elements.
    void take(Reader& content, std::size_t count) {
        code = content.get<unsigned char>();
        withCode(Elements(), code, [&]<class T>(TypeList<T>) {
            const auto more = content.take(count * sizeof(T));
            elements.insert(elements.end(), more.begin(), more.end());
        });
    }
};

namespace {

/// Makes the array of a stand-in when it is asked for. Null where nothing is known.
StrongPtr<CreativeArrayBase> creatorOf(const MultiIndex<3>& size, index_t depth, Sparse known,
                                       const StrongPtr<Hestra::Cache>& cache) {
    StrongPtr<CreativeArrayBase> made;
    const auto shared = std::make_shared<const Sparse>(std::move(known));
    withCode(Elements(), shared->code, [&]<class T>(TypeList<T>) {
        const auto create = [size, depth, shared](const Hestra::WeakPtr<CreativeArrayBase>& creator) {
            const auto array = MemArray<3, T>::create(size, creator);
            const std::vector<index_t> shell = shared->indices.empty() ? shellOf(size, depth) : std::vector<index_t>();
            const std::byte* from = shared->elements.data();
            for (const index_t index : shared->indices.empty() ? shell : shared->indices) {
                std::memcpy(static_cast<void*>(&array->element(index)), from, sizeof(T));
                from += sizeof(T);
            }
            return StrongPtr<MemBase>(array);
        };
        made = StrongPtr<CreativeArrayBase>(
            new CreativeArray(CreativeArray::CreationFunction(create), VantleTypeIndex(typeid(T)), size, cache));
    });
    return made;
}

/// The validity of the cells at the faces of a block, one byte each, ascending; nothing where all are valid.
std::vector<unsigned char> cellsOf(const BlockMask* mask, const MultiIndex<3>& size) {
    std::vector<unsigned char> valid;
    if (!mask) return valid;
    for (const index_t cell : shellOf(size - 1, 1))
        valid.push_back(mask->isCellValid(MultiIndex<3>::fromLinear(cell, size - 1)));
    return valid;
}

StrongPtr<CreativeArrayBase> maskOf(const std::vector<unsigned char>& valid, const MultiIndex<3>& size) {
    const auto mask = MemArray<3, unsigned char>::create(size - 1);
    std::fill_n(mask->getPtr(), mask->nElements(), static_cast<unsigned char>(1));
    const std::vector<index_t> cells = shellOf(size - 1, 1);
    for (std::size_t n = 0; n < cells.size(); ++n) mask->element(cells[n]) = valid.at(n);
    return StrongPtr<CreativeArrayBase>(new CreativeArray(StrongPtr<MemBase>(mask)));
}

auto keyOf(const BlockJoin& join) { return std::tie(join.first, join.low, join.second); }
bool isBefore(const BlockJoin& a, const BlockJoin& b) { return keyOf(a) < keyOf(b); }
bool isSame(const BlockJoin& a, const BlockJoin& b) {
    return keyOf(a) == keyOf(b) && a.high == b.high && a.map == b.map && a.motion == b.motion && a.inverse == b.inverse;
}

/// A join as it is sent. Doubts are sent as well.
struct SentJoin {
    BlockFace first, second;
    std::array<index_t, 3> low, high;
    IndexMap map;
    int motion;
    bool inverse;
    double largestDistance;
};
std::array<index_t, 3> listed(const MultiIndex<3>& index) { return {index[0], index[1], index[2]}; }

/// The corners of a box, moved: around all of them.
Box moved(const Box& box, const RigidMotion& motion) {
    constexpr double Most = std::numeric_limits<double>::infinity();
    Box result{{Most, Most, Most}, {-Most, -Most, -Most}};
    for (unsigned corner = 0; corner < 8; ++corner) {
        Point p = box.low;
        for (int d = 0; d < 3; ++d)
            if (corner >> d & 1) p[d] = box.high[d];
        p = motion(p);
        for (int d = 0; d < 3; ++d) {
            result.low[d] = std::min(result.low[d], p[d]);
            result.high[d] = std::max(result.high[d], p[d]);
        }
    }
    return result;
}

/// A box widened by a part of its size: edges are not longer than its diagonal.
Box widened(Box box, double part) {
    const double by = part * distance(box.low, box.high);
    for (int d = 0; d < 3; ++d) {
        box.low[d] -= by;
        box.high[d] += by;
    }
    return box;
}

} // namespace

Halo::Halo(Exchange& exchange, const AllBlocks& all, const Representation& own, HaloRequest request,
           const StrongPtr<Hestra::Cache>& cache, const ShellSource& shells)
    : myExchange(exchange), myAll(all), myRequest(std::move(request)), myCache(cache) {
    // Two stand-ins are joined by what they look like from here. Where their own ranks know better, as may happen where
    // several blocks lie on top of one another, more of the neighbourhood is taken.
    for (int rings = myRequest.rings;; ++rings) {
        myExchange.attempt([&] { findNeighbours(rings); });
        exchangePositions(own, shells);
        gatherJoins();
        if (myExchange.greatest(agrees() ? 0 : 1) == 0) break;
    }
    myExchange.attempt([&] {
        orient();
        listShared();
    });
    myExchange.agree();
}

unsigned int Halo::memberOf(std::uint32_t block) const {
    return static_cast<unsigned int>(std::lower_bound(myMembers.begin(), myMembers.end(), block) - myMembers.begin());
}

void Halo::findNeighbours(int rings) {
    const JoinOptions& joins = myRequest.joins;
    const double part = joins.motions.empty() ? joins.tolerance : std::max(joins.tolerance, joins.periodicTolerance);
    std::vector<Box> boxes;
    for (std::size_t n = 0; n < myAll.blocks.size(); ++n) {
        boxes.push_back(widened(myAll.boxes[n], part));
        if (!myAll.blocks[n].hasFaces()) boxes.back().low[0] = std::numeric_limits<double>::quiet_NaN();
    }
    const BoxTree tree(boxes);
    myReceivers.clear();
    for (const std::uint32_t block : myAll.own) {
        std::set<std::uint32_t> reached{block}, last{block};
        for (int ring = 0; ring < rings; ++ring) {
            std::set<std::uint32_t> next;
            const auto take = [&](std::uint32_t other) {
                if (reached.insert(other).second) next.insert(other);
            };
            for (const std::uint32_t from : last) {
                tree.forEach(boxes[from], take);
                for (const RigidMotion& motion : joins.motions) {
                    tree.forEach(moved(boxes[from], motion), take);
                    tree.forEach(moved(boxes[from], motion.inverse()), take);
                }
            }
            last = std::move(next);
        }
        for (const std::uint32_t other : reached)
            if (myAll.blocks[other].rank != myExchange.rank()) myReceivers[block].insert(myAll.blocks[other].rank);
    }
}

void Halo::sendShells(const std::function<void(std::uint32_t, Writer&)>& write,
                      const std::function<void(std::uint32_t, Reader&)>& take) const {
    const std::vector<std::pair<std::uint32_t, std::set<int>>> given(myReceivers.begin(), myReceivers.end());
    myExchange.inRounds(
        given.size(),
        [&](Outbox& outbox, std::size_t n) {
            Writer writer;
            write(given[n].first, writer);
            for (const int rank : given[n].second) outbox.add(rank, given[n].first, given[n].first, writer.bytes);
        },
        [&](const Inbox& inbox) {
            for (Inbox::Message& message : inbox.messages()) take(message.from, message.content);
        });
}

void Halo::exchangePositions(const Representation& own, const ShellSource& shells) {
    struct StandIn {
        Sparse points;
        std::vector<unsigned char> valid;
    };
    const StrongPtr<Field> positions = own.Positions();
    const Blanking blanking(own);
    std::map<std::uint32_t, StandIn> standIns;
    sendShells(
        [&](std::uint32_t block, Writer& writer) {
            const BlockInfo& info = myAll.blocks[block].info;
            const StrongPtr<FragmentID> id = positions->getFragmentID(info.name);
            putElements(writer, shells ? shells(block) : getDataInDoublePrecision(*positions, id),
                        shellOf(info.size, myRequest.depth));
            writer.putAll(std::span<const unsigned char>(cellsOf(blanking.of(id, info.size).rawptr(), info.size)));
        },
        [&](std::uint32_t block, Reader& content) {
            StandIn& standIn = standIns[block];
            standIn.points.take(content, shellOf(myAll.blocks[block].info.size, myRequest.depth).size());
            standIn.valid = content.getAll<unsigned char>();
        });
    myExchange.attempt([&] {
        myMembers = myAll.own;
        for (const auto& [block, content] : standIns) myMembers.push_back(block);
        std::sort(myMembers.begin(), myMembers.end());

        myGrid = Hestra::makeRef<Grid>();
        myIDs = Hestra::makeRef<FragmentIDCollection>();
        isOwnMember.clear();
        const StrongPtr<Representation> fields = myGrid->makeCartesianRepresentation(3);
        const StrongPtr<Field> places = Hestra::makeRef<Field>(myIDs), cells = Hestra::makeRef<Field>(myIDs),
                               vertices = Hestra::makeRef<Field>(myIDs);
        bool hasCells = false;
        for (const std::uint32_t block : myMembers) {
            const BlockInfo& info = myAll.blocks[block].info;
            const StrongPtr<FragmentID> id = myIDs->makeFragmentID(info.name);
            const auto standIn = standIns.find(block);
            isOwnMember.push_back(standIn == standIns.end());
            if (isOwnMember.back()) {
                places->setCreator(positions->getCreator(id), id);
                const auto keep = [&](const StrongPtr<Field>& to, const StrongPtr<Field>& mask) {
                    const auto creator = mask ? mask->getCreator(id) : StrongPtr<CreativeArrayBase>();
                    if (creator) to->setCreator(creator, id);
                    return bool(creator);
                };
                (void)keep(vertices, blanking.vertexMask());
                hasCells = keep(cells, blanking.cellMask()) || hasCells;
                continue;
            }
            if (const auto creator = creatorOf(info.size, myRequest.depth, std::move(standIn->second.points), myCache))
                places->setCreator(creator, id);
            const std::vector<unsigned char>& valid = standIn->second.valid;
            if (!valid.empty()) cells->setCreator(maskOf(valid, info.size), id);
            hasCells = hasCells || !valid.empty();
        }
        fields->setPositions(places);
        if (blanking.vertexMask()) fields->setField(VertexMaskName, vertices);
        if (hasCells) fields->setField(CellMaskName, cells);
        myJoins = BlockJoins::of(*myGrid, myRequest.joins);
    });
}

void Halo::gatherJoins() {
    Writer writer;
    myExchange.attempt([&] {
        const auto global = [&](BlockFace face) {
            face.block = myMembers[face.block];
            return face;
        };
        std::vector<SentJoin> joins;
        for (const BlockJoin& join : myJoins->joins())
            if (isOwn(join.first.block)) {
                SentJoin sent;
                std::memset(static_cast<void*>(&sent), 0, sizeof(sent));
                sent = {global(join.first), global(join.second), listed(join.low), listed(join.high),
                        join.map,           join.motion,         join.inverse,     join.largestDistance};
                joins.push_back(sent);
            }
        writer.putAll(std::span<const SentJoin>(joins));
        for (const DoubtfulFace& doubt : myJoins->doubtful()) {
            if (!isOwn(doubt.face.block)) continue;
            writer.put(global(doubt.face));
            writer.put(global(doubt.other));
            writer.put(doubt.coincident);
            writer.putText(doubt.reason);
        }
    });
    const auto all = myExchange.gather(writer.bytes);
    myExchange.attempt([&] {
        myAllJoins.clear();
        myDoubts.clear();
        for (const auto& bytes : all) {
            Reader reader(bytes);
            for (const SentJoin& sent : reader.getAll<SentJoin>())
                myAllJoins.push_back({sent.first, sent.second, MultiIndex<3>(sent.low[0], sent.low[1], sent.low[2]),
                                      MultiIndex<3>(sent.high[0], sent.high[1], sent.high[2]), sent.map, sent.motion,
                                      sent.inverse, sent.largestDistance});
            while (!reader.isAtEnd()) {
                DoubtfulFace doubt;
                doubt.face = reader.get<BlockFace>();
                doubt.other = reader.get<BlockFace>();
                doubt.coincident = reader.get<index_t>();
                doubt.reason = reader.getText();
                myDoubts.push_back(doubt);
            }
        }
        std::sort(myAllJoins.begin(), myAllJoins.end(), isBefore);
        std::sort(myDoubts.begin(), myDoubts.end(), [](const DoubtfulFace& a, const DoubtfulFace& b) {
            return std::tie(a.face, a.other) < std::tie(b.face, b.other);
        });
    });
}

bool Halo::agrees() const {
    if (!myJoins) return true; // it failed, and says so
    std::vector<BlockJoin> expected;
    const auto isMember = [&](std::uint32_t block) {
        return std::binary_search(myMembers.begin(), myMembers.end(), block);
    };
    for (const BlockJoin& join : myAllJoins)
        if (isMember(join.first.block) && isMember(join.second.block)) expected.push_back(join);
    return std::equal(expected.begin(), expected.end(), myJoins->joins().begin(), myJoins->joins().end(),
                      [&](const BlockJoin& a, BlockJoin b) {
                          b.first.block = myMembers[b.first.block];
                          b.second.block = myMembers[b.second.block];
                          return isSame(a, b);
                      });
}

void Halo::orient() {
    // From the lowest block on, and in the order of `BlockJoins`, which matters where handedness cannot be agreed on.
    struct Neighbour {
        BlockFace from;
        MultiIndex<3> low;
        BlockFace to;
        std::uint32_t block;
        bool isMirrored;
    };
    std::vector<std::vector<Neighbour>> neighbours(myAll.blocks.size());
    for (const BlockJoin& join : myAllJoins) {
        IndexMap::Place low, high;
        for (std::size_t d = 0; d < 3; ++d) {
            low[d] = static_cast<std::int64_t>(join.low[static_cast<int>(d)]);
            high[d] = static_cast<std::int64_t>(join.high[static_cast<int>(d)]);
        }
        const IndexMap::Place a = join.map(low), b = join.map(high);
        const MultiIndex<3> there(std::min(a[0], b[0]), std::min(a[1], b[1]), std::min(a[2], b[2]));
        const bool isMirrored = join.map.isMirrored();
        neighbours[join.first.block].push_back({join.first, join.low, join.second, join.second.block, isMirrored});
        neighbours[join.second.block].push_back({join.second, there, join.first, join.first.block, isMirrored});
    }
    for (auto& of : neighbours)
        std::sort(of.begin(), of.end(), [](const Neighbour& a, const Neighbour& b) {
            return std::tie(a.from, a.low, a.to) < std::tie(b.from, b.low, b.to);
        });
    isMirroredBlock.assign(myAll.blocks.size(), false);
    isOrientableGrid = true;
    std::vector<bool> isReached(myAll.blocks.size(), false);
    std::vector<std::uint32_t> open;
    for (std::uint32_t start = 0; start < myAll.blocks.size(); ++start) {
        if (isReached[start]) continue;
        isReached[start] = true;
        open.push_back(start);
        while (!open.empty()) {
            const std::uint32_t block = open.back();
            open.pop_back();
            for (const Neighbour& other : neighbours[block]) {
                const bool hand = isMirroredBlock[block] != other.isMirrored;
                if (!isReached[other.block]) {
                    isReached[other.block] = true;
                    isMirroredBlock[other.block] = hand;
                    open.push_back(other.block);
                } else if (isMirroredBlock[other.block] != hand) {
                    isOrientableGrid = false;
                }
            }
        }
    }
}

void Halo::listShared() {
    const auto list = [&](std::vector<SharedList>& lists, unsigned int copy, bool isGiven) {
        std::map<unsigned int, std::vector<index_t>> indices;
        for (const BlockJoins::Shared& shared : myJoins->shared(copy))
            if (isOwn(shared.owner.block) == isGiven) indices[shared.owner.block].push_back(shared.owner.index);
        for (auto& [owner, of] : indices)
            lists.push_back({rankOf(isGiven ? copy : owner), myMembers[copy], myMembers[owner], std::move(of)});
    };
    myGiven.clear();
    myTaken.clear();
    for (unsigned int member = 0; member < myMembers.size(); ++member)
        if (isOwn(member))
            list(myTaken, member, false);
        else
            list(myGiven, member, true);
    for (unsigned int member = 0; member < myMembers.size(); ++member)
        for (const BlockJoins::Shared& shared : myJoins->shared(member)) {
            if (!isOwn(member)) myHolders.push_back({shared.owner, rankOf(member)});
            if (!isOwn(shared.owner.block)) myHolders.push_back({shared.owner, rankOf(shared.owner.block)});
        }
    std::sort(myHolders.begin(), myHolders.end());
    myHolders.erase(std::unique(myHolders.begin(), myHolders.end()), myHolders.end());
    myCommon.assign(myMembers.size(), {});
    const auto mark = [&](const BlockVertex& vertex) {
        if (!isOwn(vertex.block)) return;
        std::vector<bool>& of = myCommon[vertex.block];
        of.resize(myAll.blocks[myMembers[vertex.block]].info.size.product());
        of[vertex.index] = true;
    };
    for (const Holder& holder : myHolders) mark(holder.vertex);
    for (unsigned int member = 0; member < myMembers.size(); ++member)
        for (const BlockJoins::Shared& shared : myJoins->shared(member))
            forRanksOf(shared.owner, [&](int) { mark({member, shared.index}); });
}

StrongPtr<Field> Halo::ownOf(const Field& field) const {
    const StrongPtr<Field> made = Hestra::makeRef<Field>(myIDs);
    for (const std::uint32_t block : myAll.own)
        if (const auto creator = field.getCreator(id(memberOf(block)))) made->setCreator(creator, id(memberOf(block)));
    return made;
}

void Halo::setStandIn(Field& field, std::uint32_t block, index_t depth, Sparse known) const {
    if (const auto creator = creatorOf(myAll.blocks[block].info.size, depth, std::move(known), myCache))
        field.setCreator(creator, id(memberOf(block)));
}

std::vector<StrongPtr<Field>> Halo::extend(const std::vector<StrongPtr<Field>>& fields) const {
    std::map<std::pair<std::uint32_t, std::uint32_t>, const SharedList*> awaited;
    std::map<std::uint32_t, std::vector<Sparse>> known; // by owner: of each field
    myExchange.attempt([&] {
        for (const SharedList& taken : myTaken) awaited[{taken.to, taken.from}] = &taken;
    });
    const auto disagree = [] { throw std::logic_error("ranks do not agree which vertices of their blocks are one"); };
    myExchange.inRounds(
        myGiven.size(),
        [&](Outbox& outbox, std::size_t n) {
            const SharedList& given = myGiven[n];
            Writer writer;
            writer.put(static_cast<std::uint64_t>(given.indices.size()));
            for (const StrongPtr<Field>& field : fields)
                putElements(writer, getDataInDoublePrecision(*field, id(memberOf(given.from))), given.indices);
            outbox.add(given.rank, given.to, given.from, writer.bytes);
        },
        [&](const Inbox& inbox) {
            for (Inbox::Message& message : inbox.messages()) {
                const auto found = awaited.find({message.to, message.from});
                if (found == awaited.end() || message.content.get<std::uint64_t>() != found->second->indices.size())
                    disagree();
                const std::vector<index_t>& indices = found->second->indices;
                std::vector<Sparse>& of = known[message.from];
                of.resize(fields.size());
                for (Sparse& field : of) {
                    field.indices.insert(field.indices.end(), indices.begin(), indices.end());
                    field.take(message.content, indices.size());
                }
                awaited.erase(found);
            }
        });
    std::vector<StrongPtr<Field>> extended;
    myExchange.attempt([&] {
        if (!awaited.empty()) disagree();
        for (std::size_t n = 0; n < fields.size(); ++n) {
            extended.push_back(ownOf(*fields[n]));
            for (auto& [owner, of] : known) setStandIn(*extended.back(), owner, 0, std::move(of[n]));
        }
    });
    extended.resize(fields.size()); // null where this has failed, of which the next exchange tells
    return extended;
}

StrongPtr<Field> Halo::extendShells(const StrongPtr<Field>& field, const ShellSource& shells) const {
    StrongPtr<Field> extended;
    myExchange.attempt([&] { extended = ownOf(*field); });
    sendShells(
        [&](std::uint32_t block, Writer& writer) {
            putElements(writer, shells(block), shellOf(myAll.blocks[block].info.size, myRequest.depth));
        },
        [&](std::uint32_t block, Reader& content) {
            Sparse known;
            known.take(content, shellOf(myAll.blocks[block].info.size, myRequest.depth).size());
            setStandIn(*extended, block, myRequest.depth, std::move(known));
        });
    return extended;
}

} // namespace Vantle::detail
