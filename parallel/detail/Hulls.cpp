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
using Hestra::Pulse;
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
    detail::BlockCounts counts;
    Point first; // of the first triangle, if there is one
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
    std::optional<Pulse::Part> phase(std::in_place, 0.0, 0.4);
    std::vector<StrongPtr<Field>> quantities{representation->Positions()};
    std::map<std::string, int> components;
    for (const std::string& value : values) {
        const detail::Quantity of = quantity(value);
        quantities.push_back(of.field);
        components[value] = of.components;
    }
    const Halo& around = halo();
    const std::vector<StrongPtr<Field>> extended = around.extend(quantities);
    const auto ranks = static_cast<std::size_t>(exchange->ranks());

    std::vector<std::pair<std::uint32_t, std::vector<std::array<HullVertex, 4>>>> quads; // of each own block
    std::vector<std::vector<HullVertex>> asked(ranks);                                   // of each other rank
    std::vector<HullVertex> vertices;
    phase.reset();
    phase.emplace(0.4, 0.9);
    exchange->attempt([&] {
        const detail::OpenQuads open(around.joins(), Blanking(*around.grid()));
        detail::inParts(all.own.size(), [&](std::size_t n) {
            Pulse::beat(0.0);
            const std::uint32_t block = all.own[n];
            auto& of = quads.emplace_back(block, std::vector<std::array<HullVertex, 4>>()).second;
            open.forOpenQuads(around.memberOf(block), [&](const detail::Quad& quad) {
                std::array<HullVertex, 4> corners;
                for (std::size_t c = 0; c < 4; ++c) {
                    corners[c] = {around.members()[quad[c].block], 0, quad[c].index};
                    vertices.push_back(corners[c]);
                }
                of.push_back(corners);
            });
        });
        const auto sort = [](std::vector<HullVertex>& list) {
            std::sort(list.begin(), list.end());
            list.erase(std::unique(list.begin(), list.end()), list.end());
        };
        sort(vertices);
        for (const HullVertex& vertex : vertices)
            if (const int rank = all.blocks[vertex.block].rank; rank != exchange->rank())
                asked[static_cast<std::size_t>(rank)].push_back(vertex);
    });
    phase.reset();
    phase.emplace(0.9, 1.0);
    std::vector<std::vector<HullVertex>> asking(ranks);
    exchange->sendLists(asked, [&](std::size_t rank, const HullVertex& vertex) { asking[rank].push_back(vertex); });

    auto made = std::make_shared<SurfaceParts>(exchange);
    std::vector<Point> points;
    std::vector<Triangle> triangles;
    std::vector<detail::SurfacePart>& parts = made->parts;
    std::map<std::string, StrongPtr<MemBase>> arrays;
    const auto isOwn = [&](const HullVertex& vertex) { return all.blocks[vertex.block].rank == exchange->rank(); };
    const auto placeOf = [&](const HullVertex& vertex) {
        return static_cast<std::size_t>(std::lower_bound(vertices.begin(), vertices.end(), vertex) - vertices.begin());
    };
    Writer writer;
    exchange->attempt([&] {
        for (const auto& list : asking) vertices.insert(vertices.end(), list.begin(), list.end());
        std::sort(vertices.begin(), vertices.end());
        vertices.erase(std::unique(vertices.begin(), vertices.end()), vertices.end());
        if (const StrongPtr<MemBase> places = elementsAt(vertices, *extended.front(), PositionsName, around)) {
            const auto* const typed = dynamic_cast<const MemArray<1, Point>*>(places.rawptr());
            if (!typed) throw DataSetError("the positions are no points");
            for (index_t n = 0; n < typed->nElements(); ++n) points.push_back(typed->element(n));
        }
        for (std::size_t n = 0; n < values.size(); ++n)
            arrays[values[n]] = elementsAt(vertices, *extended[n + 1], values[n], around);

        for (const std::string& value : values) writer.put(detail::kindOf(arrays[value]));
        std::size_t v = 0;
        for (const auto& [block, corners] : quads) {
            BlockOfHull of{{block, 0, 0}, {}};
            const std::size_t before = triangles.size();
            const bool isMirrored = around.isOrientable() && around.isMirrored(block);
            for (const auto& quad : corners) {
                std::array<unsigned int, 4> numbers;
                for (std::size_t c = 0; c < 4; ++c)
                    numbers[isMirrored ? 3 - c : c] = static_cast<unsigned int>(placeOf(quad[c]));
                detail::cutQuad(numbers, points, [&](const TriangleCell& t) { triangles.push_back(t); });
            }
            of.counts.triangles = triangles.size() - before;
            if (of.counts.triangles > 0) of.first = points[triangles[before][0]];
            for (; v < vertices.size() && vertices[v].block <= block; ++v)
                of.counts.points += vertices[v].block == block;
            parts.push_back({block, v, triangles.size()});
            writer.put(of);
        }
        if (!parts.empty()) parts.back().endPoint = vertices.size(); // others' after the last own block
    });
    const auto gathered = exchange->gather(writer.bytes);

    std::vector<unsigned int> component;
    std::vector<std::optional<Point>> origin(all.blocks.size());
    Writer volumes;
    exchange->attempt([&] {
        std::vector<std::optional<Point>> first(all.blocks.size());
        std::vector<detail::BlockCounts> counts;
        for (const auto& bytes : gathered) {
            Reader reader(bytes);
            made->takeKinds(values, reader);
            while (!reader.isAtEnd()) {
                const auto of = reader.get<BlockOfHull>();
                if (of.counts.triangles > 0) first[of.counts.block] = of.first;
                counts.push_back(of.counts);
            }
        }
        made->completeKinds(components);
        component = detail::components(all.blocks.size(), around.allJoins());
        for (std::size_t block = 0; block < first.size(); ++block)
            if (!origin[component[block]]) origin[component[block]] = first[block];
        made->count(std::move(counts));
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
    std::vector<std::vector<std::uint64_t>> answers(ranks);
    exchange->attempt([&] {
        for (std::size_t r = 0; r < ranks; ++r)
            for (const HullVertex& vertex : asking[r]) answers[r].push_back(made->numbers[placeOf(vertex)]);
    });
    std::vector<std::size_t> next(ranks, 0);
    exchange->sendLists(answers, [&](std::size_t rank, std::uint64_t number) {
        made->numbers[placeOf(asked[rank].at(next[rank]++))] = number;
    });
    exchange->attempt([&] {
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
        for (const std::string& value : values)
            if (!arrays[value]) arrays[value] = detail::makeValues(made->values[value], vertices.size());
        made->piece = detail::makeSurface(std::move(points), std::move(triangles), arrays);
    });
    return ParallelSurface(made);
}

ParallelSurface ParallelDataSet::Data::layer(const IndexPlane& plane, const Fields& values) {
    const auto block = std::find_if(all.blocks.begin(), all.blocks.end(),
                                    [&](const detail::GlobalBlock& each) { return each.info.name == plane.block; });
    exchange->attempt([&] {
        std::vector<std::string> names;
        for (const detail::GlobalBlock& each : all.blocks) names.push_back(each.info.name);
        if (block == all.blocks.end()) throw detail::unknownName("block", plane.block, names);
    });
    const StrongPtr<Grid> here = view(values);
    exchange->agree();
    const bool isHere = block->rank == exchange->rank();
    auto made = std::make_shared<SurfaceParts>(exchange);
    Writer writer;
    exchange->attempt([&] {
        if (!isHere) return;
        const Surface layer = DataSet(here, time).slice(plane, values);
        made->piece = layer;
        for (const std::string& value : values) {
            writer.put(detail::kindOf(layer.values(value).array()));
            if (detail::kindOf(layer.values(value).array()) == ValueKind::None)
                throw DataSetError("field " + detail::quoted(value) + " has elements that a surface cannot have");
        }
        writer.put(std::uint64_t{layer.points().size()});
        writer.put(std::uint64_t{layer.triangles().size()});
    });
    const auto gathered = exchange->gather(writer.bytes);
    exchange->attempt([&] {
        Reader reader(gathered[static_cast<std::size_t>(block->rank)]);
        made->takeKinds(values, reader);
        std::map<std::string, StrongPtr<MemBase>> none;
        for (const std::string& value : values) none[value] = detail::makeValues(made->values[value], 0);
        made->points = reader.get<std::uint64_t>();
        made->triangles = reader.get<std::uint64_t>();
        if (!isHere) {
            made->piece = detail::makeSurface({}, {}, none);
            return;
        }
        made->isOwn.assign(made->points, 1);
        made->numbers.resize(made->points);
        std::iota(made->numbers.begin(), made->numbers.end(), std::uint64_t{0});
        made->parts.push_back({static_cast<std::uint32_t>(block - all.blocks.begin()), made->points, made->triangles});
    });
    return ParallelSurface(made);
}

} // namespace Vantle
