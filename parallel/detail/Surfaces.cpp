#include <baseop/FieldMasks.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/detail/surface/JoinedBlocks.hpp>
#include <baseop/detail/surface/SurfaceEdges.hpp>
#include <model/hestra/Chunk.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <parallel/detail/ParallelState.hpp>
#include <unordered_map>

namespace Vantle {

using detail::AllNumbers;
using detail::Halo;
using detail::Reader;
using detail::SurfaceParts;
using detail::ValueKind;
using detail::Writer;
using Hestra::Pulse;
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

/// Which vertices of one rank's surface are those of other ranks, and what becomes of all.
class VertexNumbers {
public:
    VertexNumbers(detail::Exchange& exchange, const std::vector<detail::GlobalBlock>& blocks, RankSurface& surface)
        : myExchange(exchange), myBlocks(blocks), mySurface(surface),
          myNames(static_cast<std::size_t>(exchange.ranks())), myNamed(myNames.size()), myAsked(myNames.size()) {}

    /// Names the vertices on edges that other ranks have.
    void name(const Halo& halo) {
        const std::size_t count = mySurface.points->base_vector().size();
        isKept.assign(count, 1);
        if (mySurface.hasDropped) {
            myUsed.assign(count, 0);
            for (const Triangle& triangle : mySurface.triangles->base_vector())
                for (int c = 0; c < 3; ++c) myUsed[triangle[c]] = 1;
        }
        const BlockJoins& joins = *halo.joins();
        auto part = mySurface.parts.begin();
        std::vector<int> one, two;
        std::size_t v = 0;
        for (const detail::SurfacePiece& piece : mySurface.pieces) {
            const unsigned int member = joins.find(piece.fragment);
            if (!halo.isCommon(member)) {
                v = piece.endVertex;
                continue;
            }
            for (; v < piece.endVertex; ++v) {
                const detail::GridEdge edge = piece.edge(mySurface.identifiers->base_vector()[v]);
                if (!halo.isCommon({member, edge.lower.linear(piece.size)}) || !detail::isOnFace(edge, piece.size))
                    continue;
                const detail::OrderedEdge ordered(joins, member, edge, piece.size);
                one.clear();
                two.clear();
                halo.forRanksOf(ordered.firstOwner, [&](int rank) { one.push_back(rank); });
                if (one.empty()) continue;
                halo.forRanksOf(ordered.secondOwner, [&](int rank) { two.push_back(rank); });
                while (part->endPoint <= v) ++part;
                bool isCommon = false;
                for (const int rank : one) {
                    if (!std::binary_search(two.begin(), two.end(), rank)) continue;
                    if (!std::exchange(isCommon, true)) myCommon.push_back({v, part->block, isUsedHere(v)});
                    const auto r = static_cast<std::size_t>(rank);
                    myNames[r].push_back({halo.members()[ordered.firstOwner.block],
                                          halo.members()[ordered.secondOwner.block], ordered.firstOwner.index,
                                          ordered.secondOwner.index, part->block, isUsedHere(v)});
                    myNamed[r].push_back(myCommon.size() - 1);
                }
            }
        }
    }

    /// Finds out which block keeps each vertex.
    void exchangeNames() {
        std::unordered_map<NamedVertex, std::size_t, NameHash, SameName> known;
        myExchange.attempt([&] {
            for (std::size_t r = 0; r < myNames.size(); ++r)
                for (std::size_t n = 0; n < myNames[r].size(); ++n) known.emplace(myNames[r][n], myNamed[r][n]);
        });
        myExchange.sendLists(myNames, [&](std::size_t rank, const NamedVertex& name) {
            const auto found = known.find(name);
            myAsked[rank].push_back(found == known.end() ? Unknown : found->second);
            if (found == known.end()) return;
            Common& common = myCommon[found->second];
            common.keeper = std::min(common.keeper, name.block);
            common.isUsed |= name.isUsed;
        });
        for (const Common& common : myCommon) isKept[common.vertex] = myBlocks[common.keeper].rank == myExchange.rank();
        if (!myUsed.empty())
            for (const Common& common : myCommon) // whoever keeps a vertex counts it for all
                if (isKept[common.vertex]) myUsed[common.vertex] |= static_cast<unsigned char>(common.isUsed);
    }

    /// Whether a triangle uses a vertex: on this rank or, where this one keeps it, on any.
    [[nodiscard]] bool isUsed(std::size_t v) const noexcept { return myUsed.empty() || myUsed[v] != 0; }

    /// Numbers the vertices that are kept here, of which blocks have the first numbers that parts say, and asks for
    /// those of others.
    void number(bool onlyUsed) {
        std::vector<std::vector<std::uint64_t>> answers(myNames.size());
        myExchange.attempt([&] {
            numbers.assign(isKept.size(), NoNumber);
            std::size_t v = 0;
            for (const detail::SurfacePart& part : mySurface.parts)
                for (std::uint64_t next = part.firstPoint; v < part.endPoint; ++v)
                    if (isKept[v] && (!onlyUsed || isUsed(v))) numbers[v] = next++;
            for (std::size_t r = 0; r < answers.size(); ++r)
                for (const std::size_t asked : myAsked[r])
                    if (asked != Unknown && isKept[myCommon[asked].vertex])
                        answers[r].push_back(numbers[myCommon[asked].vertex]);
        });
        std::vector<std::size_t> next(myNames.size(), 0); // of the names that each rank was told
        myExchange.sendLists(answers, [&](std::size_t rank, std::uint64_t number) {
            const auto keeps = [&](const Common& common) {
                return myBlocks[common.keeper].rank == static_cast<int>(rank);
            };
            while (!keeps(myCommon[myNamed[rank].at(next[rank])])) ++next[rank];
            numbers[myCommon[myNamed[rank][next[rank]++]].vertex] = number;
        });
    }

    std::vector<unsigned char> isKept; // of all vertices
    std::vector<std::uint64_t> numbers;

private:
    static constexpr std::size_t Unknown = ~std::size_t{0};
    /// A vertex that may be another rank's, too.
    struct Common {
        std::size_t vertex;
        std::uint32_t keeper; // the block that it belongs to
        std::uint32_t isUsed; // on any rank
    };
    [[nodiscard]] std::uint32_t isUsedHere(std::size_t v) const noexcept { return isUsed(v) ? 1 : 0; }

    detail::Exchange& myExchange;
    const std::vector<detail::GlobalBlock>& myBlocks;
    RankSurface& mySurface;
    std::vector<unsigned char> myUsed;             // empty: all
    std::vector<Common> myCommon;                  // ascending by vertex
    std::vector<std::vector<NamedVertex>> myNames; // for each rank
    std::vector<std::vector<std::size_t>> myNamed; // which of the common ones these are
    std::vector<std::vector<std::size_t>> myAsked; // by each rank: common ones, or none
};

/// Leaves points out.
template<class IsLeft>
void leaveOut(SurfaceParts& surface, std::vector<Point>& points, std::vector<Triangle>& triangles,
              std::map<std::string, StrongPtr<MemBase>>& values, const IsLeft& isLeft) {
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
    const auto keep = [&](auto& of) {
        for (std::size_t n = 0; n < left.size(); ++n) of[n] = of[left[n]];
        of.resize(left.size());
    };
    for (auto& [name, array] : values) {
        const StrongPtr<MemBase> fewer = detail::makeValues(detail::kindOf(array), left.size());
        const auto from = detail::numbersOf(array), to = detail::numbersOf(fewer);
        const std::size_t components = left.empty() ? 0 : to.size() / left.size();
        for (std::size_t n = 0; n < left.size(); ++n)
            std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(left[n] * components), components,
                        to.begin() + static_cast<std::ptrdiff_t>(n * components));
        array = fewer;
    }
    keep(points);
    keep(surface.numbers);
    keep(surface.isOwn);
    for (Triangle& triangle : triangles)
        for (int c = 0; c < 3; ++c) triangle[c] = place[triangle[c]];
}

/// What each rank says of its surface when all is known but numbers.
struct Summary {
    std::uint8_t hasDropped = 0, reachesAbove = 0, hasNaN = 0;
};
/// For either case: all points are left, or those that are used.
struct PartCounts {
    detail::BlockCounts all, used;
};

} // namespace

ParallelSurface ParallelDataSet::Data::surface(const std::string& name, const StrongPtr<Field>& of,
                                               const AllNumbers& known, double level, const Fields& values,
                                               bool hasNormals, const Plane* plane) {
    std::vector<std::pair<std::string, detail::Quantity>> wanted;
    for (const std::string& value : values) wanted.emplace_back(value, quantity(value));
    if (hasNormals) wanted.emplace_back(Surface::NormalsName, quantity("gradient(" + name + ")"));
    std::vector<StrongPtr<Field>> quantities;
    std::vector<std::string> names;
    if (!plane) quantities.push_back(of);
    for (const auto& [valueName, value] : wanted) {
        quantities.push_back(value.field);
        names.push_back(valueName);
    }

    const Halo* around = &halo();
    std::unique_ptr<Halo> special; // with other masks
    StrongPtr<Representation> fieldsHere = representation;
    std::vector<StrongPtr<Grid>> homes;
    std::vector<StrongPtr<Field>> seen; // with the values of owners, who are others when more is masked
    const auto add = [&](const StrongPtr<Field>& vertexMask) {
        fieldsHere = masked(*fieldsHere, vertexMask, homes.emplace_back());
    };
    const auto mask = [&](const auto& addMasks) {
        exchange->attempt(addMasks);
        special = std::make_unique<Halo>(*exchange, all, *fieldsHere, request(), local.cache());
        around = special.get();
    };
    // No surface beside what is no number, nor on the way to an infinite one.
    constexpr double most = std::numeric_limits<double>::max();
    const auto isAny = [&](const auto& isSuch) { return std::any_of(known.begin(), known.end(), isSuch); };
    if (!plane && isAny([](const BlockNumbers& block) {
            return block.range && (std::isinf(block.range->least) || std::isinf(block.range->greatest));
        }))
        mask([&] { add(makeMaskOfRange(of, -most, most, fieldsHere)); });
    else if (isAny([](const BlockNumbers& block) { return block.hasNaN; }))
        mask([&] { add(makeMaskOfNumbers(of, fieldsHere)); });

    for (int round = 0;; ++round) {
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
            const auto sweep = [&](std::size_t n) {
                Pulse::beat(0.0);
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
                surface.parts.push_back({block, surface.points->base_vector().size(), triangles.size()});
            };
            {
                const Pulse::Part part(0.0, wanted.empty() ? 1.0 : 0.7);
                detail::inParts(all.own.size(), sweep);
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
            const Pulse::Part part(wanted.empty() ? 1.0 : 0.7, 1.0);
            detail::inParts(wanted.size(), [&](std::size_t n) {
                Pulse::beat(0.0);
                evaluated.push_back(edges.evaluate(*extended[n + 1]));
                if (hasNormals && n + 1 == wanted.size())
                    withMemArray<1>(TypeList<Vector>(), evaluated.back(), [](auto& normals) {
                        for (index_t k = 0; k < normals.nElements(); ++k) {
                            const double size = length(normals.element(k));
                            normals.element(k) = size > 0.0 ? normals.element(k) * (1.0 / size) : Vector();
                        }
                    });
            });
        });
        vertices.exchangeNames();

        // How many there are of everything, on which everything depends.
        Writer writer;
        exchange->attempt([&] {
            const auto& points = surface.points->base_vector();
            const bool hasNaN = std::any_of(points.begin(), points.end(), [](const Point& p) { return !(p == p); });
            const Summary summary{surface.hasDropped, surface.reachesAbove, hasNaN};
            std::vector<PartCounts> counts;
            std::size_t v = 0, t = 0;
            for (const detail::SurfacePart& part : surface.parts) {
                PartCounts count;
                count.all = {part.block, 0, part.endTriangle - std::exchange(t, part.endTriangle)};
                count.used = count.all;
                for (; v < part.endPoint; ++v) {
                    count.all.points += vertices.isKept[v];
                    count.used.points += vertices.isKept[v] && vertices.isUsed(v);
                }
                if (count.all.points || count.all.triangles) counts.push_back(count);
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

        auto made = std::make_shared<SurfaceParts>(exchange);
        Summary together;
        exchange->attempt([&] {
            std::vector<PartCounts> counts;
            for (const auto& bytes : gathered) {
                Reader reader(bytes);
                const auto summary = reader.get<Summary>();
                together.hasDropped |= summary.hasDropped;
                together.reachesAbove |= summary.reachesAbove;
                together.hasNaN |= summary.hasNaN;
                made->takeKinds(names, reader);
                reader.forAll<PartCounts>([&](std::size_t, const PartCounts& count) { counts.push_back(count); });
            }
            std::map<std::string, int> components;
            for (const auto& [valueName, value] : wanted) components[valueName] = value.components;
            made->completeKinds(components);
            if (!together.reachesAbove) return;
            std::vector<detail::BlockCounts> left;
            for (const PartCounts& count : counts) left.push_back(together.hasDropped ? count.used : count.all);
            made->parts = std::move(surface.parts);
            made->count(std::move(left));
            surface.parts = made->parts;
        });
        if (together.hasNaN && round < detail::MostMaskings && together.reachesAbove) {
            // Vertices that are nowhere, or whose owners have no finite values: beside them, too, there is none.
            mask([&] {
                add(makeMaskOfNumbers(representation->Positions(), fieldsHere));
                if (plane) return;
                seen.push_back(emptyField());
                for (const std::uint32_t block : all.own) {
                    const unsigned int member = around->memberOf(block);
                    if (const StrongPtr<MemBase> own = data(name, *of, block))
                        seen.back()->setPersistentData(
                            joins.isShared(member) ? ownersData(joins, *extended.front(), member) : own, idOf(block));
                }
                add(makeMaskOfRange(seen.back(), -most, most, fieldsHere));
            });
            continue;
        }
        vertices.number(together.hasDropped != 0);

        exchange->attempt([&] {
            std::map<std::string, StrongPtr<MemBase>> arrays;
            auto& points = surface.points->base_vector();
            auto& triangles = surface.triangles->base_vector();
            if (!together.reachesAbove) {
                for (const std::string& value : names) arrays[value] = detail::makeValues(made->values[value], 0);
                made->piece = detail::makeSurface({}, {}, arrays);
                return;
            }
            for (std::size_t n = 0; n < names.size(); ++n) {
                const ValueKind kind = made->values[names[n]];
                arrays[names[n]] =
                    kind == detail::kindOf(evaluated[n]) ? evaluated[n] : detail::makeValues(kind, points.size());
            }
            made->numbers = std::move(vertices.numbers);
            made->isOwn = std::move(vertices.isKept);
            if (together.hasDropped)
                leaveOut(*made, points, triangles, arrays, [&](std::size_t v) { return vertices.isUsed(v); });
            made->piece = detail::makeSurface(std::move(points), std::move(triangles), arrays);
        });
        return ParallelSurface(made);
    }
}

} // namespace Vantle
