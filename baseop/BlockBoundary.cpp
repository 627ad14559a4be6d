#include <baseop/BlockBoundary.hpp>
#include <baseop/detail/QuadCut.hpp>
#include <baseop/detail/surface/IsoSweep.hpp>
#include <baseop/detail/surface/OpenQuads.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/hestra/Pulse.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/ElementTypes.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace Vantle {

using detail::components;
using detail::Quad;
using Hestra::Freshness;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using point = PhysicalSpace::point;

namespace {

/// Numbers for some vertices of the blocks, ascending by block and index.
class VertexNumbers {
public:
    explicit VertexNumbers(const BlockJoins& joins) : myBlocks(joins.blocks()) {
        for (unsigned int b = 0; b < joins.blocks(); ++b) myBlocks[b].words.resize(joins.size(b).product() / 64 + 1);
    }
    void take(const BlockVertex& vertex) noexcept {
        myBlocks[vertex.block].words[vertex.index / 64].bits |= std::uint64_t{1} << vertex.index % 64;
    }
    /// To be called after the last was taken, and before numbers are asked for. Returns how many there are.
    index_t count() noexcept {
        index_t count = 0;
        for (Block& block : myBlocks)
            for (Word& word : block.words) {
                word.before = count;
                count += static_cast<index_t>(std::popcount(word.bits));
            }
        return count;
    }
    [[nodiscard]] unsigned int operator()(const BlockVertex& vertex) const noexcept {
        const Word& word = myBlocks[vertex.block].words[vertex.index / 64];
        const std::uint64_t lower = word.bits & ((std::uint64_t{1} << vertex.index % 64) - 1);
        return static_cast<unsigned int>(word.before + static_cast<index_t>(std::popcount(lower)));
    }
    /// The indices that were taken of a block.
    [[nodiscard]] std::vector<index_t> indices(unsigned int block) const {
        std::vector<index_t> result;
        const std::vector<Word>& words = myBlocks[block].words;
        for (std::size_t w = 0; w < words.size(); ++w)
            for (std::uint64_t bits = words[w].bits; bits != 0; bits &= bits - 1)
                result.push_back(64 * w + static_cast<index_t>(std::countr_zero(bits)));
        return result;
    }

private:
    struct Word {
        std::uint64_t bits = 0;
        index_t before = 0; // taken in all words before
    };
    struct Block {
        std::vector<Word> words;
    };
    std::vector<Block> myBlocks;
};

[[noreturn]] void refuse(const std::string& why) { throw std::invalid_argument("BlockBoundary: " + why); }

/// The elements of a field at the vertices that have numbers, in their order.
StrongPtr<MemBase> elementsAt(const BlockJoins& joins, const VertexNumbers& vertices, const Field& field,
                              const std::string& name) {
    std::vector<StrongPtr<MemBase>> parts;
    for (unsigned int b = 0; b < joins.blocks(); ++b) {
        std::vector<index_t> indices = vertices.indices(b);
        if (indices.empty()) continue;
        const auto fails = [&](const char* why) {
            refuse("field \"" + name + "\" has " + why + " in fragment \"" + FragmentID::Name(joins.fragment(b), "") +
                   "\"");
        };
        const StrongPtr<MemBase> data = getDataInDoublePrecision(field, joins.fragment(b));
        if (!data) fails("no data");
        if (data->getDynamicSize() != DynamicSize(joins.size(b))) fails("other extents than the positions");
        if (!parts.empty() && parts.front()->elementIndex() != data->elementIndex())
            fails("elements of another type than elsewhere");
        const DynamicSize count(indices.size());
        parts.push_back(data->gather(*makeMemArray1D(std::move(indices)), count, 1));
        if (!parts.back()) fails("elements that cannot be copied");
    }
    if (parts.size() == 1) return parts.front();
    StrongPtr<MemBase> joined;
    if (!parts.empty())
        withTypedArray(RegisteredElementTypes(), parts.front(), [&]<class T>(const TypedArray<T>&) {
            std::vector<T> all;
            for (const StrongPtr<MemBase>& part : parts) {
                const auto& typed = dynamic_cast<const TypedArray<T>&>(*part);
                for (index_t n = 0; n < typed.nElements(); ++n) all.push_back(typed.element(n));
            }
            joined = makeMemArray1D(std::move(all));
        });
    if (!joined && !parts.empty()) refuse("field \"" + name + "\" has elements of an unknown type");
    return joined;
}

/// No elements, of the type that a field has; numbers where it has none.
StrongPtr<MemBase> noElementsOf(const Field& field) {
    VantleTypeIndex type;
    field.iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            type = creator->elementType();
            if (!type)
                if (const StrongPtr<MemBase> data = creator->getData()) type = data->elementIndex();
            return !type;
        },
        false);
    const auto maker = type ? MemBase::findAllocator(inDoublePrecision(type).type()) : nullptr;
    return maker ? maker->create(MultiIndex<1>(0), {}) : makeMemArray1D(std::vector<double>());
}

/// Triangles of the blocks one after the other, those of block b up to `ends[b]`.
struct Hull {
    std::vector<TriangleCell> triangles;
    std::vector<std::size_t> ends;

    /// Turns those of blocks that hang together round where they enclose less than nothing.
    void turnOutward(const BlockJoins& joins, const std::vector<point>& points) {
        const std::vector<unsigned int> component = components(ends.size(), joins.joins());
        // Summed up block by block: so can be done who has not all blocks.
        std::vector<double> volume(ends.size(), 0.0), ofBlock(ends.size(), 0.0);
        std::vector<std::pair<bool, point>> origin(ends.size()); // of each component, near by: less is rounded off
        forBlocks([&](unsigned int block, TriangleCell& triangle) {
            auto& [isKnown, from] = origin[component[block]];
            if (!std::exchange(isKnown, true)) from = points[triangle[0]];
            ofBlock[block] += detail::sixfoldVolume(triangle, points, from);
        });
        for (unsigned int block = 0; block < ends.size(); ++block) volume[component[block]] += ofBlock[block];
        forBlocks([&](unsigned int block, TriangleCell& triangle) {
            if (volume[component[block]] < 0.0) std::swap(triangle[1], triangle[2]);
        });
    }

private:
    template<class F>
    void forBlocks(const F& function) {
        std::size_t n = 0;
        for (unsigned int b = 0; b < ends.size(); ++b)
            for (; n < ends[b]; ++n) function(b, triangles[n]);
    }
};

Hull hullOf(const detail::OpenQuads& blocks, const VertexNumbers& vertices, const std::vector<point>& points) {
    const BlockJoins& joins = *blocks.joins;
    Hull hull;
    for (unsigned int b = 0; b < joins.blocks(); ++b) {
        const Hestra::Pulse::Part part(0.5 + 0.5 * b / joins.blocks(), 0.5 + 0.5 * (b + 1) / joins.blocks());
        const bool isMirrored = joins.isOrientable() && joins.isMirrored(b);
        blocks.forOpenQuads(b, [&](const Quad& quad) {
            std::array<unsigned int, 4> numbers;
            for (std::size_t c = 0; c < 4; ++c) numbers[isMirrored ? 3 - c : c] = vertices(quad[c]);
            detail::cutQuad(numbers, points, [&](const TriangleCell& triangle) { hull.triangles.push_back(triangle); });
        });
        hull.ends.push_back(hull.triangles.size());
    }
    if (joins.isOrientable()) hull.turnOutward(joins, points);
    return hull;
}

/// Beside the points of a hull: the joins that it was made from, which stand for positions and options, and the masks.
class HullRecord : public Hestra::Interface<HullRecord> {
public:
    HullRecord(const StrongPtr<BlockJoins>& from, const Freshness& byMasks, const StrongPtr<Field>& ofPoints)
        : joins(from), masks(byMasks), points(ofPoints) {}
    const StrongPtr<BlockJoins> joins;
    const Freshness masks;
    const Hestra::WeakPtr<Field> points;
};
/// Beside a field of a hull: the field of the grid.
using FieldRecord = Hestra::FreshnessRecord<Field>;

bool hasData(const StrongPtr<Field>& field) { return field && field->hasData(); }

/// Whether a grid is the hull of these joins, masks and fields.
bool isCurrent(const Grid& hull, const StrongPtr<BlockJoins>& joins, const Blanking& blanking,
               const std::vector<std::string>& names, const std::vector<StrongPtr<Field>>& fields) {
    const auto vertices = hull.findVertices(2);
    const auto skeleton = hull.getSkeleton(SkeletonID(2, 1));
    const auto inSpace = vertices ? hull.getCartesianRepresentation(*vertices) : StrongPtr<Representation>();
    const auto ofVertices = skeleton ? skeleton->findRepresentation(*vertices) : StrongPtr<Representation>();
    if (!inSpace || !ofVertices || !hasData(inSpace->Positions()) || !hasData(ofVertices->Positions())) return false;
    const auto record = inSpace->Positions()->findInterface<HullRecord>();
    if (!record || !(record->points == inSpace->Positions()) || !(record->joins == joins) ||
        !record->masks.isFor(blanking.vertexMask().rawptr(), blanking.cellMask().rawptr()))
        return false;
    for (std::size_t n = 0; n < names.size(); ++n) {
        const StrongPtr<Field> known = inSpace->findField(names[n]);
        if (!hasData(known) || !FieldRecord::find(*known, known)) return false;
        if (!FieldRecord::isFresh(*known, known, fields[n].rawptr())) return false;
    }
    return true;
}

} // namespace

StrongPtr<Grid> ComputeBlockBoundary(const Grid& grid, Slice& slice, const std::string& outputName,
                                     const BlockBoundaryOptions& options) {
    const Hestra::Profiler scope("baseop/BlockBoundary", __LINE__, "ComputeBlockBoundary", __PRETTY_FUNCTION__);
    const StrongPtr<Field> positions = grid.CartesianPositions();
    const StrongPtr<Grid> known = slice(outputName);
    if (known.rawptr() == &grid) refuse("the hull would take the place of its grid, \"" + outputName + "\"");
    if (!positions) refuse("the grid has no Cartesian positions");
    std::vector<StrongPtr<Field>> fields;
    std::vector<Freshness> origins;
    for (const std::string& name : options.fields) {
        fields.push_back(grid(name));
        if (!fields.back()) refuse("the grid has no field \"" + name + "\"");
        origins.push_back(Freshness(fields.back().rawptr()));
    }
    const Blanking blanking(grid);
    blanking.check(*positions);
    const Freshness masks = blanking.freshness();
    const StrongPtr<BlockJoins> joins = BlockJoins::of(grid, options.joins);
    if (known && isCurrent(*known, joins, blanking, options.fields, fields)) return known;

    const detail::OpenQuads blocks(joins, blanking);
    VertexNumbers vertices(*joins);
    for (unsigned int b = 0; b < joins->blocks(); ++b) {
        const Hestra::Pulse::Part part(0.5 * b / joins->blocks(), 0.5 * (b + 1) / joins->blocks());
        blocks.forOpenQuads(b, [&](const Quad& quad) {
            for (const BlockVertex& corner : quad) vertices.take(corner);
        });
    }
    detail::checkVertexCount(vertices.count());
    StrongPtr<MemBase> points = elementsAt(*joins, vertices, *positions, PositionsName);
    if (!points) points = makeMemArray1D(std::vector<point>());
    const auto* const typed = dynamic_cast<const MemArray<1, point>*>(points.rawptr());
    if (!typed) refuse("the positions are no points");
    std::vector<point> places;
    for (index_t n = 0; n < typed->nElements(); ++n) places.push_back(typed->element(n));
    Hull hull = hullOf(blocks, vertices, places);
    std::vector<StrongPtr<MemBase>> values;
    for (std::size_t n = 0; n < fields.size(); ++n) {
        const StrongPtr<MemBase> elements = elementsAt(*joins, vertices, *fields[n], options.fields[n]);
        values.push_back(elements ? elements : noElementsOf(*fields[n]));
    }

    const StrongPtr<Grid> output = slice.newGrid(outputName);
    const auto inSpace = output->makeCartesianRepresentation(2);
    const auto ofVertices = (*(*output)[SkeletonID(2, 1)])[*output->makeVertices(2)];
    const Hestra::Cache::Operation allOfThem;
    const auto store = [](Representation& representation, const std::string& name, const StrongPtr<MemBase>& array) {
        const StrongPtr<Field> field = Hestra::makeRef<Field>();
        if (array) field->setDiscardableData(array, Hestra::Cache::MemCache());
        representation.setField(name, field);
        return field;
    };
    const auto surface = store(*inSpace, PositionsName, points);
    surface->addInterface(Hestra::makeRef<HullRecord>(joins, masks, surface));
    store(*ofVertices, PositionsName, makeMemArray1D(std::move(hull.triangles)));
    for (std::size_t n = 0; n < fields.size(); ++n) {
        const auto field = store(*inSpace, options.fields[n], values[n]);
        FieldRecord::attach(*field, field, origins[n]);
    }
    return output;
}

} // namespace Vantle
