#include <baseop/Isosurface.hpp>
#include <baseop/detail/surface/JoinedBlocks.hpp>
#include <baseop/detail/surface/SurfaceEdges.hpp>
#include <model/hestra/Chunk.hpp>

#include <algorithm>
#include <numeric>
#include <parallel/detail/ParallelState.hpp>
#include <unordered_map>

namespace Vantle {

using detail::AllNumbers;
using detail::Halo;
using detail::Meter;
using detail::Reader;
using detail::SurfaceParts;
using detail::ValueKind;
using detail::Writer;
using Hestra::StrongPtr;

namespace {

constexpr std::uint64_t NoNumber = ~std::uint64_t{0};

/// A vertex of a surface that other ranks may have, too: on which edge it lies, and the lowest block there that has it.
struct NamedVertex {
    std::uint32_t firstBlock, secondBlock; // the owners of the edge's ends
    std::uint64_t firstIndex, secondIndex;
    std::uint32_t block;
    std::uint32_t isUsed; // by a triangle of that rank

    [[nodiscard]] bool isOn(const NamedVertex& other) const noexcept {
        return firstBlock == other.firstBlock && secondBlock == other.secondBlock && firstIndex == other.firstIndex &&
               secondIndex == other.secondIndex;
    }
};
struct NameHash {
    std::size_t operator()(const NamedVertex& name) const noexcept {
        std::uint64_t hash = name.firstIndex;
        for (const std::uint64_t next : {name.secondIndex, std::uint64_t{name.firstBlock} << 32 | name.secondBlock})
            hash = (hash ^ (hash >> 29)) * 0x9e3779b97f4a7c15ULL + next;
        return static_cast<std::size_t>(hash ^ (hash >> 32));
    }
};
struct SameName {
    bool operator()(const NamedVertex& a, const NamedVertex& b) const noexcept { return a.isOn(b); }
};

/// Arrays of a surface over the blocks of one rank, before it is known which vertices are those of others.
struct RankSurface {
    StrongPtr<Hestra::TypedChunk<Point>> points = Hestra::makeRef<Hestra::TypedChunk<Point>>();
    StrongPtr<Hestra::TypedChunk<Triangle>> triangles = Hestra::makeRef<Hestra::TypedChunk<Triangle>>();
    StrongPtr<Hestra::TypedChunk<index_t>> identifiers = Hestra::makeRef<Hestra::TypedChunk<index_t>>();
    StrongPtr<Hestra::TypedChunk<double>> weights = Hestra::makeRef<Hestra::TypedChunk<double>>();
    std::vector<detail::SurfacePart> parts;
    std::vector<detail::SurfacePiece> pieces;
    bool hasDropped = false, reachesAbove = false;
};

/// Whether a block is swept together with others.
bool isJoined(const BlockJoins& joins, unsigned int member) {
    const auto all = joins.joins(member);
    return joins.isShared(member) ||
           std::any_of(all.begin(), all.end(), [](const BlockJoin& join) { return join.motion < 0; });
}

/// Fields for a new representation: positions and masks.
StrongPtr<Representation> masked(const Representation& from, const StrongPtr<Field>& vertexMask,
                                 StrongPtr<Grid>& home) {
    home = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> made = home->makeCartesianRepresentation(3);
    made->setPositions(from.Positions());
    made->setField(VertexMaskName, vertexMask);
    made->setField(CellMaskName, from.findField(CellMaskName));
    return made;
}

/// The vertices of one rank's surface that may be those of other ranks, and what becomes of all.
class VertexNumbers {
public:
    VertexNumbers(detail::Exchange& exchange, const std::vector<detail::GlobalBlock>& blocks, RankSurface& surface)
        : myExchange(exchange), myBlocks(blocks), mySurface(surface),
          myNames(static_cast<std::size_t>(exchange.ranks())), myVertices(myNames.size()) {}

    /// Names the vertices on edges that other ranks have. `triangles` are those of this rank.
    void name(const Halo& halo) {
        const BlockJoins& joins = *halo.joins();
        const std::size_t count = mySurface.points->base_vector().size();
        isUsed.assign(count, 0);
        for (const Triangle& triangle : mySurface.triangles->base_vector())
            for (int c = 0; c < 3; ++c) isUsed[triangle[c]] = 1;
        keeper.assign(count, 0);
        auto part = mySurface.parts.begin();
        std::size_t first = 0;
        for (; part != mySurface.parts.end(); ++part)
            for (; first < part->endPoint; ++first) keeper[first] = part->block;
        std::vector<int> one, two;
        std::size_t v = 0;
        for (const detail::SurfacePiece& piece : mySurface.pieces) {
            const unsigned int member = joins.find(piece.fragment);
            if (!isJoined(joins, member)) {
                v = piece.endVertex;
                continue;
            }
            for (; v < piece.endVertex; ++v) {
                const detail::GridEdge edge = piece.edge(mySurface.identifiers->base_vector()[v]);
                if (!detail::isOnFace(edge, piece.size)) continue;
                const detail::OrderedEdge ordered(joins, member, edge, piece.size);
                one.clear();
                two.clear();
                halo.forRanksOf(ordered.firstOwner, [&](int rank) { one.push_back(rank); });
                if (one.empty()) continue;
                halo.forRanksOf(ordered.secondOwner, [&](int rank) { two.push_back(rank); });
                for (const int rank : one) {
                    if (!std::binary_search(two.begin(), two.end(), rank)) continue;
                    const auto r = static_cast<std::size_t>(rank);
                    myNames[r].push_back({halo.members()[ordered.firstOwner.block],
                                          halo.members()[ordered.secondOwner.block], ordered.firstOwner.index,
                                          ordered.secondOwner.index, keeper[v], isUsed[v]});
                    myVertices[r].push_back(v);
                }
            }
        }
    }

    /// Finds out which block keeps each vertex. One round.
    void exchangeNames() {
        detail::Outbox outbox(myExchange.ranks());
        myExchange.attempt([&] {
            for (int rank = 0; rank < myExchange.ranks(); ++rank)
                if (const auto& names = myNames[static_cast<std::size_t>(rank)]; !names.empty()) {
                    Writer writer;
                    writer.putAll(std::span<const NamedVertex>(names));
                    outbox.add(rank, 0, 0, writer.bytes);
                }
        });
        const detail::Inbox inbox = myExchange.round(std::move(outbox));
        myExchange.attempt([&] {
            std::unordered_map<NamedVertex, std::size_t, NameHash, SameName> known;
            for (std::size_t r = 0; r < myNames.size(); ++r)
                for (std::size_t n = 0; n < myNames[r].size(); ++n) known.emplace(myNames[r][n], myVertices[r][n]);
            myAsked.resize(myNames.size());
            for (detail::Inbox::Message& message : inbox.messages())
                for (const NamedVertex& name : message.content.getAll<NamedVertex>()) {
                    const auto found = known.find(name);
                    std::size_t& asked = myAsked[static_cast<std::size_t>(message.rank)].emplace_back(NoNumber);
                    if (found == known.end()) continue;
                    asked = found->second;
                    keeper[asked] = std::min(keeper[asked], name.block);
                    isUsedAnywhere.resize(keeper.size());
                    isUsedAnywhere[asked] |= static_cast<unsigned char>(name.isUsed);
                }
            isUsedAnywhere.resize(keeper.size());
            for (std::size_t v = 0; v < keeper.size(); ++v) isUsedAnywhere[v] |= isUsed[v];
        });
    }

    [[nodiscard]] bool isKept(std::size_t v) const { return myBlocks[keeper[v]].rank == myExchange.rank(); }

    /// Numbers the vertices that are kept here, of which blocks have the first numbers that parts say, and asks for
    /// those of others. One round.
    void number(bool onlyUsed) {
        std::vector<std::uint64_t>& all = numbers;
        detail::Outbox outbox(myExchange.ranks());
        myExchange.attempt([&] {
            all.assign(keeper.size(), NoNumber);
            std::size_t v = 0;
            for (const detail::SurfacePart& part : mySurface.parts)
                for (std::uint64_t next = part.firstPoint; v < part.endPoint; ++v)
                    if (isKept(v) && (!onlyUsed || isUsedAnywhere[v])) all[v] = next++;
            for (int rank = 0; rank < myExchange.ranks(); ++rank) {
                Writer writer;
                for (const std::size_t asked : myAsked[static_cast<std::size_t>(rank)])
                    if (asked != NoNumber && isKept(asked)) writer.put(all[asked]);
                if (!writer.bytes.empty()) outbox.add(rank, 0, 0, writer.bytes);
            }
        });
        const detail::Inbox inbox = myExchange.round(std::move(outbox));
        myExchange.attempt([&] {
            std::vector<Reader> answers(myNames.size());
            for (const detail::Inbox::Message& message : inbox.messages())
                answers[static_cast<std::size_t>(message.rank)] = message.content;
            for (std::size_t r = 0; r < myNames.size(); ++r)
                for (const std::size_t v : myVertices[r])
                    if (myBlocks[keeper[v]].rank == static_cast<int>(r)) all[v] = answers[r].get<std::uint64_t>();
        });
    }

    std::vector<std::uint32_t> keeper; // the block that each vertex belongs to
    std::vector<unsigned char> isUsed, isUsedAnywhere;
    std::vector<std::uint64_t> numbers;

private:
    detail::Exchange& myExchange;
    const std::vector<detail::GlobalBlock>& myBlocks;
    RankSurface& mySurface;
    std::vector<std::vector<NamedVertex>> myNames;    // for each rank
    std::vector<std::vector<std::size_t>> myVertices; // which these are
    std::vector<std::vector<std::size_t>> myAsked;    // by each rank: vertices here, or none
};

/// What each rank says of its surface when all is known but numbers.
struct Summary {
    std::uint8_t hasDropped = 0, reachesAbove = 0, hasNaN = 0;
};
struct PartCounts {
    std::uint32_t block;
    std::uint64_t points, usedPoints, triangles;
};

} // namespace

ParallelSurface ParallelDataSet::Data::surface(const std::string& name, const StrongPtr<Field>& of,
                                               const AllNumbers& known, double level, const Fields& values,
                                               bool hasNormals, const Meter& meter, const Plane* plane) {
    std::vector<std::pair<std::string, detail::Quantity>> wanted;
    for (const std::string& value : values) wanted.emplace_back(value, quantity(value));
    if (hasNormals) wanted.emplace_back(Surface::NormalsName, quantity("gradient(" + name + ")"));
    std::vector<StrongPtr<Field>> quantities;
    if (!plane) quantities.push_back(of);
    for (const auto& [valueName, value] : wanted) quantities.push_back(value.field);

    const Meter sweep = meter.part(0.0, wanted.empty() ? 1.0 : 0.7), rest = meter.part(0.7, 1.0);
    const Halo* around = &halo();
    std::unique_ptr<Halo> special; // with other masks
    StrongPtr<Representation> fieldsHere = representation;
    StrongPtr<Grid> home;
    const auto mask = [&](const StrongPtr<Field>& numbersOf) {
        exchange->attempt([&] {
            StrongPtr<Grid> next;
            fieldsHere = masked(*fieldsHere, makeMaskOfNumbers(numbersOf, fieldsHere), next);
            home = next;
        });
        special = std::make_unique<Halo>(*exchange, all, *fieldsHere, request(), local.cache());
        around = special.get();
    };
    if (std::any_of(known.begin(), known.end(), [](const BlockNumbers& block) { return block.hasNaN; })) mask(of);

    for (bool isAgain = false;; isAgain = true) {
        const BlockJoins& joins = *around->joins();
        std::vector<StrongPtr<Field>> extended = around->extend(quantities);
        if (plane) extended.insert(extended.begin(), around->grid()->CartesianPositions()); // which stand-ins have
        RankSurface surface;
        std::vector<StrongPtr<MemBase>> evaluated;
        VertexNumbers vertices(*exchange, all.blocks, surface);
        exchange->attempt([&] {
            std::unordered_map<const FragmentID*, std::uint32_t> blockOf;
            for (unsigned int member = 0; member < around->members().size(); ++member)
                blockOf.emplace(around->id(member).rawptr(), around->members()[member]);
            FragmentIsoSurfacer surfacer(level, 0.0, around->grid()->CartesianPositions(), surface.identifiers,
                                         surface.weights, surface.points, surface.triangles);
            surfacer.setBlanking(Blanking(*around->grid()));
            surfacer.joinBlocks(around->joins(), extended.front());
            if (plane) surfacer.cutByPlane(plane->origin, plane->normal);
            surfacer.useRanges([&](const StrongPtr<FragmentID>& id) -> std::optional<std::pair<double, double>> {
                const auto found = blockOf.find(id.rawptr());
                if (found == blockOf.end() || !known[found->second].range) return std::nullopt;
                const NumberRange& range = *known[found->second].range;
                return std::pair(range.least, range.greatest);
            });
            for (std::size_t n = 0; n < all.own.size(); ++n) {
                sweep(static_cast<double>(n) / static_cast<double>(all.own.size()));
                const std::uint32_t block = all.own[n];
                const unsigned int member = around->memberOf(block);
                const std::size_t firstTriangle = surface.triangles->base_vector().size();
                if (const auto& range = known[block].range; range && range->least <= level && level <= range->greatest)
                    (void)data(name, *of, block);
                surfacer.apply(around->id(member), extended.front()->getCreator(around->id(member)));
                auto& triangles = surface.triangles->base_vector();
                // Which side they show is a matter of all blocks.
                if (isJoined(joins, member) && joins.isMirrored(member) != around->isMirrored(block))
                    for (std::size_t t = firstTriangle; t < triangles.size(); ++t)
                        std::swap(triangles[t][1], triangles[t][2]);
                surface.parts.push_back({block, surface.points->base_vector().size(), triangles.size(), 0, 0, 0});
            }
            surface.pieces = surfacer.pieces();
            surface.hasDropped = surfacer.hasDropped();
            surface.reachesAbove = surfacer.reachesAbove();
            vertices.name(*around);

            detail::SurfaceEdges edges;
            edges.joins = around->joins();
            edges.pieces = surface.pieces;
            edges.identifiers = Hestra::makeRef<Field>(makeMemArray1D(surface.identifiers));
            edges.weights = Hestra::makeRef<Field>(makeMemArray1D(surface.weights));
            for (std::size_t n = 0; n < wanted.size(); ++n) {
                rest(static_cast<double>(n) / static_cast<double>(wanted.size()));
                evaluated.push_back(edges.evaluate(*extended[n + 1]));
                if (hasNormals && n + 1 == wanted.size())
                    withMemArray<1>(TypeList<Vector>(), evaluated.back(), [](auto& normals) {
                        for (index_t k = 0; k < normals.nElements(); ++k) {
                            const double size = length(normals.element(k));
                            normals.element(k) = size > 0.0 ? normals.element(k) * (1.0 / size) : Vector();
                        }
                    });
            }
        });
        vertices.exchangeNames();

        // How many there are of everything, on which everything depends.
        Writer writer;
        exchange->attempt([&] {
            Summary summary{surface.hasDropped, surface.reachesAbove, 0};
            std::vector<PartCounts> counts;
            std::size_t v = 0, t = 0;
            const auto& points = surface.points->base_vector();
            for (const detail::SurfacePart& part : surface.parts) {
                PartCounts count;
                std::memset(static_cast<void*>(&count), 0, sizeof(count));
                count.block = part.block;
                count.triangles = part.endTriangle - t;
                t = part.endTriangle;
                for (; v < part.endPoint; ++v) {
                    if (!vertices.isKept(v)) continue;
                    ++count.points;
                    count.usedPoints += vertices.isUsedAnywhere[v];
                    const Point& p = points[v];
                    if (p[0] != p[0] || p[1] != p[1] || p[2] != p[2]) summary.hasNaN = 1;
                }
                if (count.points || count.triangles) counts.push_back(count);
            }
            writer.put(summary);
            for (std::size_t n = 0; n < wanted.size(); ++n) {
                bool isThere = false; // some vertex has a value
                std::size_t first = 0;
                for (const detail::SurfacePiece& piece : surface.pieces)
                    if (const std::size_t begin = std::exchange(first, piece.endVertex); begin != piece.endVertex)
                        isThere = isThere || extended[n + 1]->getCreator(piece.fragment);
                writer.put(isThere ? detail::kindOf(evaluated[n]) : ValueKind::None);
            }
            writer.putAll(std::span<const PartCounts>(counts));
        });
        const auto gathered = exchange->gather(writer.bytes);

        auto made = std::make_shared<SurfaceParts>();
        made->exchange = exchange;
        Summary together;
        std::vector<ValueKind> kinds(wanted.size(), ValueKind::None);
        exchange->attempt([&] {
            std::vector<PartCounts> counts;
            for (const auto& bytes : gathered) {
                Reader reader(bytes);
                const auto summary = reader.get<Summary>();
                together.hasDropped |= summary.hasDropped;
                together.reachesAbove |= summary.reachesAbove;
                together.hasNaN |= summary.hasNaN;
                for (ValueKind& kind : kinds) {
                    const auto there = reader.get<ValueKind>();
                    if (kind != ValueKind::None && there != ValueKind::None && kind != there)
                        throw DataSetError("field on a surface: blocks of several kinds of elements");
                    kind = std::max(kind, there);
                }
                const auto more = reader.getAll<PartCounts>();
                counts.insert(counts.end(), more.begin(), more.end());
            }
            std::sort(counts.begin(), counts.end(),
                      [](const PartCounts& a, const PartCounts& b) { return a.block < b.block; });
            auto part = surface.parts.begin();
            if (!together.reachesAbove) return;
            for (const PartCounts& count : counts) {
                for (; part != surface.parts.end() && part->block < count.block; ++part) {
                    part->firstPoint = made->points;
                    part->firstTriangle = made->triangles;
                }
                if (part != surface.parts.end() && part->block == count.block) {
                    part->firstPoint = made->points;
                    part->firstTriangle = made->triangles;
                    ++part;
                }
                made->points += together.hasDropped ? count.usedPoints : count.points;
                made->triangles += count.triangles;
            }
        });
        if (together.hasNaN && !isAgain && together.reachesAbove) {
            mask(representation->Positions()); // vertices that are nowhere: beside them, too, there is no surface
            continue;
        }
        vertices.number(together.hasDropped != 0);

        exchange->attempt([&] {
            for (std::size_t n = 0; n < wanted.size(); ++n)
                made->values[wanted[n].first] = kinds[n] == ValueKind::None ? ValueKind::Number : kinds[n];
            std::map<std::string, StrongPtr<MemBase>> arrays;
            if (!together.reachesAbove) {
                for (const auto& [valueName, kind] : made->values) arrays[valueName] = detail::makeValues(kind, 0);
                made->piece = detail::makeSurface({}, {}, arrays);
                return;
            }
            // What is left of the points: all, unless some have no triangles on any rank.
            auto& points = surface.points->base_vector();
            auto& triangles = surface.triangles->base_vector();
            const auto isLeft = [&](std::size_t v) {
                return !together.hasDropped || vertices.isUsed[v] || (vertices.isKept(v) && vertices.isUsedAnywhere[v]);
            };
            std::vector<std::size_t> left;
            std::vector<unsigned int> place(points.size());
            std::size_t v = 0;
            for (detail::SurfacePart& part : surface.parts) {
                for (; v < part.endPoint; ++v)
                    if (isLeft(v)) {
                        place[v] = static_cast<unsigned int>(left.size());
                        left.push_back(v);
                    }
                part.endPoint = left.size();
            }
            for (std::size_t n = 0; n < wanted.size(); ++n) {
                const ValueKind kind = made->values[wanted[n].first];
                StrongPtr<MemBase> array = evaluated[n];
                if (kind != detail::kindOf(array)) array = detail::makeValues(kind, points.size()); // none here
                if (left.size() != points.size()) {
                    const StrongPtr<MemBase> fewer = detail::makeValues(kind, left.size());
                    const auto from = detail::numbersOf(array), to = detail::numbersOf(fewer);
                    const std::size_t components = left.empty() ? 0 : to.size() / left.size();
                    for (std::size_t k = 0; k < left.size(); ++k)
                        for (std::size_t c = 0; c < components; ++c)
                            to[k * components + c] = from[left[k] * components + c];
                    array = fewer;
                }
                arrays[wanted[n].first] = array;
            }
            std::vector<Point> kept;
            kept.reserve(left.size());
            for (const std::size_t n : left) {
                kept.push_back(points[n]);
                made->numbers.push_back(vertices.numbers[n]);
                made->isOwn.push_back(vertices.isKept(n));
            }
            for (Triangle& triangle : triangles)
                for (int c = 0; c < 3; ++c) triangle[c] = place[triangle[c]];
            made->parts = surface.parts;
            made->piece = detail::makeSurface(std::move(kept), std::move(triangles), arrays);
            meter(1.0);
        });
        exchange->agree();
        return ParallelSurface(made);
    }
}

} // namespace Vantle
