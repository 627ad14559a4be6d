#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/joins/Shells.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Vantle::detail {

using Hestra::StrongPtr;

ShellNumbering::ShellNumbering(const MultiIndex<3>& size) noexcept : mySize(size) {
    if (std::any_of(size.begin(), size.end(), [](index_t n) { return n < 2; })) {
        mySize = {};
        return;
    }
    myLayer = size[0] * size[1];
    myRing = 2 * size[0] + 2 * (size[1] - 2);
    myCount = 2 * myLayer + (size[2] - 2) * myRing;
}

MultiIndex<3> ShellNumbering::vertex(index_t number) const noexcept {
    const index_t top = start(mySize[2] - 1);
    if (number < myLayer || number >= top) {
        const index_t inLayer = number < myLayer ? number : number - top;
        return {inLayer % mySize[0], inLayer / mySize[0], number < myLayer ? index_t{0} : mySize[2] - 1};
    }
    const index_t k = 1 + (number - myLayer) / myRing, inRing = (number - myLayer) % myRing;
    if (inRing < mySize[0]) return {inRing, index_t{0}, k};
    if (inRing >= myRing - mySize[0]) return {inRing - (myRing - mySize[0]), mySize[1] - 1, k};
    const index_t side = inRing - mySize[0];
    return {side % 2 ? mySize[0] - 1 : index_t{0}, 1 + side / 2, k};
}

namespace {

constexpr std::size_t SlotBytes = 64; // what a vertex costs, as bytes of one thread's reading
/// Vertices of faces whose blocks are held at once.
constexpr std::size_t BatchVertices = std::size_t{1} << 17;

/// Some blocks whose positions exist now.
struct Batch {
    struct Layers {
        FragmentCoordinates coordinates;
        std::size_t block, firstLayer;
    };
    std::vector<Layers> blocks;
    std::size_t layers = 0, vertices = 0;
};

/// The shortest of the edges that end in a vertex and have more than the length of a rounding error; 0 without any.
template<class Points>
double localSize(const Points& points, const MultiIndex<3>& vertex) {
    const Shells::Point here = points[vertex];
    const double reach = std::max({std::fabs(here[0]), std::fabs(here[1]), std::fabs(here[2])});
    double shortest = 0.0;
    const auto look = [&](MultiIndex<3> other, int d, index_t step) {
        other[d] += step;
        if (other[d] >= points.Size()[d]) return; // -1 as well
        const double edge = distance(here, points[other]);
        if (edge > 0x1p-50 * reach && (shortest == 0.0 || edge < shortest)) shortest = edge;
    };
    for (int d = 0; d < 3; ++d) {
        look(vertex, d, 1);
        look(vertex, d, ~index_t{0});
    }
    return shortest;
}

void takePositions(Shells& shells, Batch& batch) {
    inParallel(batch.layers, 8, batch.vertices * SlotBytes, [&](std::size_t begin, std::size_t end) {
        auto at = std::upper_bound(batch.blocks.begin(), batch.blocks.end(), begin,
                                   [](std::size_t layer, const Batch::Layers& b) { return layer < b.firstLayer; }) -
                  1;
        for (; at != batch.blocks.end() && at->firstLayer < end; ++at) {
            const ShellNumbering& numbering = shells.numbering[at->block];
            const MultiIndex<3>& size = shells.sizes[at->block];
            const index_t from = std::max(begin, at->firstLayer) - at->firstLayer;
            const index_t to = std::min<index_t>(end - at->firstLayer, size[2]);
            std::size_t n = shells.firstVertex[at->block] + numbering.start(from);
            const auto take = [&](const auto& points) {
                for (index_t k = from; k < to; ++k)
                    numbering.forEach(k, [&](const MultiIndex<3>& vertex) {
                        if (!shells.localSizes.empty()) shells.localSizes[n] = localSize(points, vertex);
                        shells.points[n++] = points[vertex];
                    });
            };
            std::visit(Overloaded{[](std::monostate) {}, [](const PointSet*) {},
                                  [&](const CurvilinearCoordinates* points) { take(*points); },
                                  [&](const auto* product) { take(*product); }},
                       at->coordinates.kind);
        }
    });
    batch = {};
}

/// The extents of coordinates of rank 3 with cells; all 0 for others.
MultiIndex<3> extentsOf(const FragmentCoordinates& coordinates) {
    MultiIndex<3> size;
    if (!coordinates.isKnown() || std::holds_alternative<const PointSet*>(coordinates.kind) ||
        !coordinates.data->getDynamicSize().get(size))
        return {};
    return std::any_of(size.begin(), size.end(), [](index_t n) { return n < 2; }) ? MultiIndex<3>() : size;
}

} // namespace

Shells::Shells(const Field& positions, const Blanking& blanking, bool needsSizes) {
    constexpr std::size_t Most = std::numeric_limits<std::int32_t>::max();
    std::size_t slots = 0;
    Batch batch;
    firstVertex.push_back(0);
    positions.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        FragmentCoordinates coordinates(creator);
        isComplete = isComplete && (coordinates.data || !creator);
        const MultiIndex<3> size = extentsOf(coordinates);
        const auto block = static_cast<std::uint32_t>(ids.size());
        ids.push_back(id);
        sizes.push_back(size);
        numbering.emplace_back(size);
        for (int face = 0; numbering[block].count() > 0 && face < 6; ++face) {
            ShellFace made;
            made.block = block;
            made.axis = face / 2;
            made.isUpper = face % 2;
            made.u = made.axis == 0 ? 1 : 0;
            made.v = made.axis == 2 ? 1 : 2;
            if (size[made.u] > Most || size[made.v] > Most || size[made.axis] > Most ||
                size[made.u] * size[made.v] > Most - slots)
                throw std::length_error("BlockJoins: more vertices on faces of blocks than can be numbered");
            made.nu = static_cast<std::uint32_t>(size[made.u]);
            made.nv = static_cast<std::uint32_t>(size[made.v]);
            made.first = static_cast<std::uint32_t>(slots);
            made.level = made.isUpper ? static_cast<std::uint32_t>(size[made.axis] - 1) : 0;
            slots += std::size_t{made.nu} * made.nv;
            faces.push_back(made);
        }
        const index_t count = numbering[block].count();
        firstVertex.push_back(firstVertex.back() + static_cast<std::uint32_t>(count));
        if (count == 0) return true;
        points.resize(firstVertex.back());
        if (needsSizes) localSizes.resize(firstVertex.back());
        batch.blocks.push_back({std::move(coordinates), block, batch.layers});
        batch.layers += size[2];
        batch.vertices += count;
        if (batch.vertices >= BatchVertices) takePositions(*this, batch);
        return true;
    });
    takePositions(*this, batch);
    if (blanking)
        for (std::uint32_t block = 0; block < ids.size(); ++block)
            if (numbering[block].count() > 0)
                if (const auto mask = blanking.of(ids[block], sizes[block])) {
                    isBlanked.resize(slots);
                    blank(block, *mask);
                }

    vertexOf.resize(slots);
    inParallel(faces.size(), 1, slots * SlotBytes / 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            const ShellFace& face = faces[f];
            std::uint32_t* out = vertexOf.data() + face.first;
            for (std::uint32_t b = 0; b < face.nv; ++b)
                for (std::uint32_t a = 0; a < face.nu; ++a)
                    *out++ =
                        firstVertex[face.block] + static_cast<std::uint32_t>(numbering[face.block](face.vertex(a, b)));
        }
    });
}

void Shells::blank(std::uint32_t block, const BlockMask& mask) {
    auto face = std::lower_bound(faces.begin(), faces.end(), block,
                                 [](const ShellFace& f, std::uint32_t b) { return f.block < b; });
    for (; face != faces.end() && face->block == block; ++face)
        for (std::uint32_t b = 0; b + 1 < face->nv; ++b)
            for (std::uint32_t a = 0; a + 1 < face->nu; ++a) {
                MultiIndex<3> cell = face->vertex(a, b);
                if (face->isUpper) --cell[face->axis];
                isBlanked[face->slot(a, b)] = !mask.isCellValid(cell);
            }
}

std::uint32_t Shells::blockOf(std::uint32_t vertex) const noexcept {
    const auto next = std::upper_bound(firstVertex.begin(), firstVertex.end(), vertex);
    return static_cast<std::uint32_t>(next - firstVertex.begin()) - 1;
}

std::uint32_t Shells::faceOf(std::uint32_t slot) const noexcept {
    const auto next = std::upper_bound(faces.begin(), faces.end(), slot,
                                       [](std::uint32_t s, const ShellFace& face) { return s < face.first; });
    return static_cast<std::uint32_t>(next - faces.begin()) - 1;
}

double Shells::shortestEdge(const ShellFace& face, std::int64_t a, std::int64_t b) const noexcept {
    const Point& here = points[vertexOf[face.slot(a, b)]];
    double shortest = 0.0;
    const auto look = [&](bool isThere, std::int64_t p, std::int64_t q) {
        const double length = isThere ? distance(here, points[vertexOf[face.slot(p, q)]]) : 0.0;
        if (length > 0.0 && (shortest == 0.0 || length < shortest)) shortest = length;
    };
    look(a > 0, a - 1, b);
    look(a + 1 < face.nu, a + 1, b);
    look(b > 0, a, b - 1);
    look(b + 1 < face.nv, a, b + 1);
    return shortest;
}

} // namespace Vantle::detail
