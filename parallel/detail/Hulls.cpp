#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/surface/OpenQuads.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <numeric>
#include <parallel/detail/ParallelState.hpp>

namespace Vantle {

using detail::Halo;
using detail::Reader;
using detail::SurfaceParts;
using detail::ValueKind;
using detail::Writer;
using Hestra::StrongPtr;

namespace {

/// A vertex by its owner, as all ranks number it.
struct HullVertex {
    std::uint32_t block;
    std::uint32_t padding;
    std::uint64_t index;
    auto operator<=>(const HullVertex&) const = default;
};

/// What each rank says of a block.
struct BlockOfHull {
    std::uint32_t block;
    std::uint32_t hasTriangles;
    std::uint64_t points, triangles;
    Point first; // of the first triangle
};

/// Elements of a field at vertices, ascending by block, as values of a surface. Null where no block has such.
StrongPtr<MemBase> elementsAt(const std::vector<HullVertex>& vertices, const Field& field, const std::string& name,
                              const Halo& halo) {
    StrongPtr<MemBase> all;
    ValueKind kind = ValueKind::None;
    for (auto at = vertices.begin(); at != vertices.end();) {
        const std::uint32_t block = at->block;
        const auto first = static_cast<std::size_t>(at - vertices.begin());
        std::vector<index_t> indices;
        for (; at != vertices.end() && at->block == block; ++at) indices.push_back(at->index);
        const StrongPtr<FragmentID>& id = halo.id(halo.memberOf(block));
        const auto refuse = [&](const char* why) {
            throw DataSetError("field " + detail::quoted(name) + " has " + why + " in block " +
                               detail::quoted(FragmentID::Name(id, {})));
        };
        const StrongPtr<MemBase> data = getDataInDoublePrecision(field, id);
        if (!data) refuse("no values");
        const DynamicSize count(indices.size());
        // Numbers of any type are those of a surface in double precision.
        const Values part(data->gather(*makeMemArray1D(std::move(indices)), count, 1));
        const ValueKind of = detail::kindOf(part.array());
        if (of == ValueKind::None) refuse("elements that a surface cannot have");
        if (!all) all = detail::makeValues(kind = of, vertices.size());
        if (of != kind) refuse("elements of another kind than elsewhere");
        const std::size_t components = static_cast<std::size_t>(part.components());
        std::copy(part.numbers().begin(), part.numbers().end(),
                  detail::numbersOf(all).begin() + static_cast<std::ptrdiff_t>(first * components));
    }
    return all;
}

} // namespace

ParallelSurface ParallelDataSet::Data::hull(const Fields& values) {
    std::vector<StrongPtr<Field>> quantities{representation->Positions()};
    for (const std::string& value : values) quantities.push_back(quantity(value).field);
    const Halo& around = halo();
    const std::vector<StrongPtr<Field>> extended = around.extend(quantities);
    const auto ranks = static_cast<std::size_t>(exchange->ranks());

    std::vector<std::pair<std::uint32_t, std::vector<std::array<HullVertex, 4>>>> quads; // of each own block
    std::vector<std::vector<HullVertex>> asked(ranks);                                   // of each other rank
    std::vector<HullVertex> vertices;
    detail::Outbox questions(exchange->ranks());
    exchange->attempt([&] {
        const detail::OpenQuads open(around.joins(), Blanking(*around.grid()));
        for (const std::uint32_t block : all.own) {
            auto& of = quads.emplace_back(block, std::vector<std::array<HullVertex, 4>>()).second;
            open.forOpenQuads(around.memberOf(block), [&](const detail::Quad& quad) {
                std::array<HullVertex, 4> corners;
                for (std::size_t c = 0; c < 4; ++c) {
                    corners[c] = {around.members()[quad[c].block], 0, quad[c].index};
                    vertices.push_back(corners[c]);
                }
                of.push_back(corners);
            });
        }
        const auto sort = [](std::vector<HullVertex>& list) {
            std::sort(list.begin(), list.end());
            list.erase(std::unique(list.begin(), list.end()), list.end());
        };
        sort(vertices);
        for (const HullVertex& vertex : vertices)
            if (const int rank = all.blocks[vertex.block].rank; rank != exchange->rank())
                asked[static_cast<std::size_t>(rank)].push_back(vertex);
        for (std::size_t r = 0; r < ranks; ++r) {
            if (asked[r].empty()) continue;
            Writer writer;
            writer.putAll(std::span<const HullVertex>(asked[r]));
            questions.add(static_cast<int>(r), 0, 0, writer.bytes);
        }
    });
    const detail::Inbox inbox = exchange->round(std::move(questions));

    std::vector<std::vector<HullVertex>> asking(ranks);
    auto made = std::make_shared<SurfaceParts>();
    made->exchange = exchange;
    std::vector<Point> points;
    std::vector<Triangle> triangles;
    std::vector<detail::SurfacePart> parts;
    std::map<std::string, StrongPtr<MemBase>> arrays;
    const auto isOwn = [&](const HullVertex& vertex) { return all.blocks[vertex.block].rank == exchange->rank(); };
    Writer writer;
    exchange->attempt([&] {
        for (detail::Inbox::Message& message : inbox.messages())
            asking[static_cast<std::size_t>(message.rank)] = message.content.getAll<HullVertex>();
        for (const auto& list : asking) vertices.insert(vertices.end(), list.begin(), list.end());
        std::sort(vertices.begin(), vertices.end());
        vertices.erase(std::unique(vertices.begin(), vertices.end()), vertices.end());
        const auto placeOf = [&](const HullVertex& vertex) {
            return static_cast<unsigned int>(std::lower_bound(vertices.begin(), vertices.end(), vertex) -
                                             vertices.begin());
        };
        if (const StrongPtr<MemBase> places = elementsAt(vertices, *extended.front(), PositionsName, around)) {
            const auto* const typed = dynamic_cast<const MemArray<1, Point>*>(places.rawptr());
            if (!typed) throw DataSetError("the positions are no points");
            for (index_t n = 0; n < typed->nElements(); ++n) points.push_back(typed->element(n));
        }
        for (std::size_t n = 0; n < values.size(); ++n)
            arrays[values[n]] = elementsAt(vertices, *extended[n + 1], values[n], around);

        std::vector<ValueKind> kinds;
        for (const std::string& value : values) kinds.push_back(detail::kindOf(arrays[value]));
        writer.putAll(std::span<const ValueKind>(kinds));
        std::size_t v = 0;
        for (const auto& [block, of] : quads) {
            BlockOfHull count;
            std::memset(static_cast<void*>(&count), 0, sizeof(count));
            count.block = block;
            const std::size_t before = triangles.size();
            const bool isMirrored = around.isOrientable() && around.isMirrored(block);
            for (const auto& quad : of) {
                std::array<unsigned int, 4> corners;
                for (std::size_t c = 0; c < 4; ++c) corners[isMirrored ? 3 - c : c] = placeOf(quad[c]);
                detail::cutQuad(corners, points, [&](const TriangleCell& t) { triangles.push_back(t); });
            }
            count.triangles = triangles.size() - before;
            count.hasTriangles = count.triangles > 0;
            if (count.hasTriangles) count.first = points[triangles[before][0]];
            for (; v < vertices.size() && vertices[v].block <= block; ++v)
                if (vertices[v].block == block) ++count.points;
            parts.push_back({block, v, triangles.size(), 0, 0, 0});
            writer.put(count);
        }
        if (!parts.empty()) parts.back().endPoint = vertices.size(); // others' after the last own block
    });
    const auto gathered = exchange->gather(writer.bytes);

    std::vector<unsigned int> component;
    std::vector<std::optional<Point>> origin(all.blocks.size());
    Writer volumes;
    std::vector<ValueKind> kinds(values.size(), ValueKind::None);
    exchange->attempt([&] {
        std::vector<BlockOfHull> counts(all.blocks.size());
        for (const auto& bytes : gathered) {
            Reader reader(bytes);
            const auto of = reader.getAll<ValueKind>();
            for (std::size_t n = 0; n < of.size(); ++n) {
                if (kinds[n] != ValueKind::None && of[n] != ValueKind::None && kinds[n] != of[n])
                    throw DataSetError("field " + detail::quoted(values[n]) + " has elements of several kinds");
                kinds[n] = std::max(kinds[n], of[n]);
            }
            while (!reader.isAtEnd()) {
                const auto count = reader.get<BlockOfHull>();
                counts[count.block] = count;
            }
        }
        component = detail::components(all.blocks.size(), around.allJoins());
        auto part = parts.begin();
        for (std::uint32_t block = 0; block < counts.size(); ++block) {
            if (counts[block].hasTriangles && !origin[component[block]]) origin[component[block]] = counts[block].first;
            if (part != parts.end() && part->block == block) {
                part->firstPoint = made->points;
                part->firstTriangle = made->triangles;
                ++part;
            }
            made->points += counts[block].points;
            made->triangles += counts[block].triangles;
        }
        std::size_t t = 0;
        for (const detail::SurfacePart& of : parts) {
            double volume = 0.0;
            for (; t < of.endTriangle; ++t)
                volume += detail::sixfoldVolume(triangles[t], points, *origin[component[of.block]]);
            volumes.put(std::uint64_t{of.block});
            volumes.put(volume);
        }
        made->numbers.assign(vertices.size(), 0);
        made->isOwn.resize(vertices.size());
        std::size_t v = 0;
        for (const detail::SurfacePart& of : parts)
            for (std::uint64_t next = of.firstPoint; v < of.endPoint; ++v)
                if (isOwn(vertices[v])) {
                    made->isOwn[v] = 1;
                    made->numbers[v] = next++;
                }
    });
    const auto allVolumes = exchange->gather(volumes.bytes);
    detail::Outbox answers(exchange->ranks());
    exchange->attempt([&] {
        for (std::size_t r = 0; r < ranks; ++r) {
            if (asking[r].empty()) continue;
            Writer answer;
            for (const HullVertex& vertex : asking[r])
                answer.put(made->numbers[static_cast<std::size_t>(
                    std::lower_bound(vertices.begin(), vertices.end(), vertex) - vertices.begin())]);
            answers.add(static_cast<int>(r), 0, 0, answer.bytes);
        }
    });
    const detail::Inbox answered = exchange->round(std::move(answers));
    exchange->attempt([&] {
        for (detail::Inbox::Message& message : answered.messages())
            for (const HullVertex& vertex : asked[static_cast<std::size_t>(message.rank)])
                made->numbers[static_cast<std::size_t>(std::lower_bound(vertices.begin(), vertices.end(), vertex) -
                                                       vertices.begin())] = message.content.get<std::uint64_t>();
        std::vector<double> ofBlock(all.blocks.size(), 0.0), volume(all.blocks.size(), 0.0);
        for (const auto& bytes : allVolumes)
            for (Reader reader(bytes); !reader.isAtEnd();) {
                const auto block = static_cast<std::size_t>(reader.get<std::uint64_t>());
                ofBlock[block] = reader.get<double>();
            }
        for (std::size_t block = 0; block < ofBlock.size(); ++block) volume[component[block]] += ofBlock[block];
        std::size_t t = 0;
        for (const detail::SurfacePart& part : parts)
            for (; t < part.endTriangle; ++t)
                if (around.isOrientable() && volume[component[part.block]] < 0.0)
                    std::swap(triangles[t][1], triangles[t][2]);
        for (std::size_t n = 0; n < values.size(); ++n) {
            const ValueKind kind = kinds[n] == ValueKind::None ? ValueKind::Number : kinds[n];
            made->values[values[n]] = kind;
            if (!arrays[values[n]]) arrays[values[n]] = detail::makeValues(kind, vertices.size());
        }
        made->parts = std::move(parts);
        made->piece = detail::makeSurface(std::move(points), std::move(triangles), arrays);
    });
    exchange->agree();
    return ParallelSurface(made);
}

} // namespace Vantle
