#include <baseop/WorldDerivative.hpp>
#include <baseop/detail/BesideBlanked.hpp>
#include <baseop/detail/CacheRoom.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/RowResult.hpp>
#include <baseop/detail/WorldStencil.hpp>
#include <baseop/detail/joins/VertexSelection.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/Representation.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Vantle {

using detail::FragmentCoordinates;
using Hestra::Freshness;
using Hestra::Ref;
using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

using Tensor = Orvix::Quadratic<3, double>;
using DerivableTypes = TypeList<double, float, PhysicalSpace::vector>;

namespace {

using Point = ElementStorage<PhysicalSpace::point>;

/// Vertices whose derivatives are found side by side.
constexpr index_t Lanes = 64;

template<class T>
constexpr int Components = ElementTraits<T>::components;
template<class T>
using Result = std::conditional_t<Components<T> == 1, PhysicalSpace::vector, Tensor>;
template<class T>
using Stencils = detail::WorldStencil<Components<T>, static_cast<int>(Lanes)>;

// ------------------------------------------------------------------------------------------------------------ kernels

/// Differences of `count` pairs of elements, which follow each other at a distance of `step`, to lane `lane` and on.
template<class S>
[[gnu::always_inline]] inline void subtract(double (*lanes)[Lanes], index_t lane, const S* high, const S* low,
                                            index_t step, index_t count) noexcept {
    const auto run = [=](auto distance) __attribute__((always_inline)) {
        for (index_t n = 0; n < count; ++n)
            for (int c = 0; c < Components<S>; ++c)
                lanes[c][lane + n] = static_cast<double>(elementComponent(high[n * distance], c)) -
                                     static_cast<double>(elementComponent(low[n * distance], c));
    };
    if (step == 1)
        run(std::integral_constant<index_t, 1>());
    else
        run(step);
}

template<class T>
[[gnu::always_inline]] inline void store(Result<T>& target, const Stencils<T>& stencils, index_t lane) noexcept {
    for (int c = 0; c < 3 * Components<T>; ++c) target[c] = stencils.result[c][lane];
}

/// The rows along axis 0 that the differences at one row are made of: itself, and those whose difference is taken along
/// axes 1 and 2.
template<class S>
struct Rows {
    const S* self;
    const S *low[2], *high[2];

    /// At row (j, k); `rowAt(j, k, n)` gives the rows, of which n = 0 ... 4 are held at a time.
    template<class RowAt>
    Rows(index_t j, index_t k, const MultiIndex<3>& size, const RowAt& rowAt)
        : self(rowAt(j, k, 0)), low{rowAt(j > 0 ? j - 1 : j, k, 1), rowAt(j, k > 0 ? k - 1 : k, 2)},
          high{rowAt(j + 1 < size[1] ? j + 1 : j, k, 3), rowAt(j, k + 1 < size[2] ? k + 1 : k, 4)} {}

    /// The differences at vertex `i` along the edges that it has.
    void subtractTo(double (*lanes)[Lanes], index_t lane, index_t i, const detail::ValidEdges& edges,
                    index_t step) const noexcept {
        const S* const at = self + i * step;
        for (int d = 0; d < 3; ++d) {
            const S* const below = d == 0 ? at - step : low[d - 1] + i * step;
            const S* const above = d == 0 ? at + step : high[d - 1] + i * step;
            subtract(lanes + d * Components<S>, lane, edges.above[d] != 0 ? above : at,
                     edges.below[d] != 0 ? below : at, step, 1);
        }
    }
    /// The differences at vertices `begin` ... `begin` + `count` - 1 of `extent`, those along axis d in d * components.
    [[gnu::always_inline]] void subtractTo(double (*lanes)[Lanes], index_t begin, index_t count, index_t extent,
                                           index_t step) const noexcept {
        const index_t end = begin + count;
        const index_t first = std::max<index_t>(begin, 1), last = std::min(end, extent - 1);
        if (begin == 0) subtract(lanes, 0, self + (extent > 1 ? step : 0), self, step, 1);
        if (first < last)
            subtract(lanes, first - begin, self + (first + 1) * step, self + (first - 1) * step, step, last - first);
        if (end == extent && extent > 1)
            subtract(lanes, count - 1, self + (extent - 1) * step, self + (extent - 2) * step, step, 1);
        for (int d = 0; d < 2; ++d)
            subtract(lanes + (d + 1) * Components<S>, 0, high[d] + begin * step, low[d] + begin * step, step, count);
    }
};

/// Derivatives at vertices of a row, those of `begin` ... `begin` + `count` - 1 of `extent`.
template<class T>
struct Strip {
    const Rows<Point>& points;
    const Rows<ElementStorage<T>>& values;
    index_t pointStep, valueStep;
    index_t begin, count, extent;
    unsigned absent; // axes, see `completeEdges`

    [[gnu::always_inline]] void derive(Stencils<T>& stencils, Result<T>* target) const noexcept {
        points.subtractTo(stencils.edges, begin, count, extent, pointStep);
        values.subtractTo(stencils.changes, begin, count, extent, valueStep);
        if (absent) stencils.completeEdges(absent, static_cast<int>(count));
        stencils.solve(static_cast<int>(count));
        for (index_t n = 0; n < count; ++n) store<T>(target[begin + n], stencils, n);
    }
};

// Wider vectors are chosen at run time. The operations are the same, and so are the results.
template<class T>
void deriveNarrow(const Strip<T>& strip, Stencils<T>& stencils, Result<T>* target) noexcept {
    strip.derive(stencils, target);
}
#if defined(__x86_64__) || defined(__i386__)
template<class T>
[[gnu::target("avx2")]] void deriveWide(const Strip<T>& strip, Stencils<T>& stencils, Result<T>* target) noexcept {
    strip.derive(stencils, target);
}
template<class T>
auto chooseKernel() noexcept {
    return __builtin_cpu_supports("avx2") ? &deriveWide<T> : &deriveNarrow<T>;
}
#else
template<class T>
auto chooseKernel() noexcept {
    return &deriveNarrow<T>;
}
#endif

unsigned absentAxes(const MultiIndex<3>& size) noexcept {
    return (size[0] < 2 ? 1U : 0U) | (size[1] < 2 ? 2U : 0U) | (size[2] < 2 ? 4U : 0U);
}

/// The positions of a block's vertices, of any kind.
class BlockPositions {
public:
    using Axes = std::array<std::vector<double>, 3>;

    BlockPositions() = default;
    explicit BlockPositions(const StrongPtr<MemBase>& data) : myCoordinates(data) {
        const auto take = [this](const auto& found) {
            if constexpr (requires { found->axes(); }) {
                mySize = found->Size();
                for (int d = 0; d < 3; ++d)
                    for (index_t i = 0; i < mySize[d]; ++i)
                        myAxes[static_cast<std::size_t>(d)].push_back(found->axis(d)[i]);
                isKnown = true;
            }
        };
        if (const auto* const stored = myCoordinates.curvilinear()) {
            mySize = stored->Size();
            myPoints = stored->storage();
            myStep = stored->stride();
            isStored = isKnown = true;
        } else {
            std::visit(take, myCoordinates.kind);
        }
    }

    /// Whether they are positions of a regular block with these extents.
    [[nodiscard]] bool fits(const MultiIndex<3>& size) const noexcept { return isKnown && mySize == size; }
    /// The axes of a direct product; null where positions are stored.
    [[nodiscard]] const Axes* axes() const noexcept { return isStored ? nullptr : &myAxes; }
    [[nodiscard]] index_t step() const noexcept { return isStored ? myStep : 1; }
    /// A row along axis 0, made in `place` if it is not stored.
    [[nodiscard]] const Point* row(index_t j, index_t k, Point* place) const noexcept {
        if (isStored) return myPoints + (k * mySize[1] + j) * mySize[0] * myStep;
        for (index_t i = 0; i < mySize[0]; ++i) place[i] = Point(myAxes[0][i], myAxes[1][j], myAxes[2][k]);
        return place;
    }
    void prefetch(index_t index) const noexcept {
        if (isStored) __builtin_prefetch(myPoints + index * myStep);
    }
    [[nodiscard]] PhysicalSpace::point operator[](index_t index) const noexcept {
        if (isStored) return PhysicalSpace::point(myPoints[index * myStep]);
        const auto at = MultiIndex<3>::fromLinear(index, mySize);
        return {myAxes[0][at[0]], myAxes[1][at[1]], myAxes[2][at[2]]};
    }

private:
    FragmentCoordinates myCoordinates;
    MultiIndex<3> mySize;
    const Point* myPoints = nullptr;
    index_t myStep = 1;
    Axes myAxes;
    bool isKnown = false, isStored = false;
};

/// What the work at one vertex is worth, in bytes; see `teamFor`.
template<class T>
constexpr std::size_t BytesPerVertex = sizeof(Point) + sizeof(T) + 2 * sizeof(Result<T>);

/// Derives again at the vertices of a row next to blanked cells. What has no edges has a derivative of zero.
template<class T>
void deriveBesideBlanked(const BlockMask& mask, index_t j, index_t k, const Strip<T>& row, Stencils<T>& stencils,
                         Result<T>* target) {
    std::array<index_t, Lanes> places;
    index_t count = 0;
    const auto finish = [&] {
        if (row.absent) stencils.completeEdges(row.absent, static_cast<int>(count));
        stencils.solve(static_cast<int>(count));
        for (index_t n = 0; n < count; ++n) store<T>(target[places[n]], stencils, n);
        count = 0;
    };
    detail::forBesideBlanked(
        mask, j, k, [&](index_t i) { target[i] = Result<T>(); },
        [&](index_t i, const detail::ValidEdges& edges) {
            row.points.subtractTo(stencils.edges, count, i, edges, row.pointStep);
            row.values.subtractTo(stencils.changes, count, i, edges, row.valueStep);
            places[count++] = i;
            if (count == Lanes) finish();
        });
    finish();
}

/// In cells of any shape.
template<class T>
Ref<ReferencingMemArray<3, Result<T>>> deriveGenerally(const MemArray<3, T>& values, const BlockPositions& positions,
                                                       const BlockMask* mask) {
    const MultiIndex<3> size = values.Size();
    const unsigned absent = absentAxes(size);
    const auto kernel = chooseKernel<T>();
    const auto fillRows = [&](Result<T>* target, index_t begin, index_t end) {
        const auto stencils = std::make_unique<Stencils<T>>();
        std::vector<Point> made(positions.axes() ? static_cast<std::size_t>(5 * size[0]) : 0);
        for (index_t r = begin; r < end; ++r, target += size[0]) {
            const auto pointsAt = [&](index_t j, index_t k, index_t n) {
                return positions.row(j, k, made.data() + n * size[0]);
            };
            const auto valuesAt = [&](index_t j, index_t k, index_t) {
                return values.storage() + (k * size[1] + j) * size[0] * values.stride();
            };
            const Rows<Point> points(r % size[1], r / size[1], size, pointsAt);
            const Rows<ElementStorage<T>> row(r % size[1], r / size[1], size, valuesAt);
            Strip<T> strip{points, row, positions.step(), values.stride(), 0, 0, size[0], absent};
            for (; strip.begin < size[0]; strip.begin += Lanes) {
                strip.count = std::min(Lanes, size[0] - strip.begin);
                kernel(strip, *stencils, target);
            }
            if (mask) deriveBesideBlanked(*mask, r % size[1], r / size[1], strip, *stencils, target);
        }
    };
    return detail::makeByRows<Result<T>>(size, BytesPerVertex<T> * size.product(), fillRows);
}

/// In cells along the axes of space.
template<class T>
Ref<ReferencingMemArray<3, Result<T>>> deriveAlongAxes(const MemArray<3, T>& values, const BlockPositions::Axes& axes) {
    using S = ElementStorage<T>;
    constexpr int C = Components<T>;
    const MultiIndex<3> size = values.Size();
    // What differences are multiplied by; along an axis with one vertex there is no change.
    std::array<std::vector<double>, 3> perLength;
    for (std::size_t d = 0; d < 3; ++d)
        for (index_t i = 0; i < size[d]; ++i) {
            const double length = axes[d][std::min(i + 1, size[d] - 1)] - axes[d][i > 0 ? i - 1 : 0];
            perLength[d].push_back(length != 0.0 ? 1.0 / length : std::numeric_limits<double>::quiet_NaN());
        }
    const unsigned absent = absentAxes(size);
    const index_t step = values.stride();
    const auto fillRows = [&](Result<T>* target, index_t begin, index_t end) {
        for (index_t r = begin; r < end; ++r, target += size[0]) {
            const index_t j = r % size[1], k = r / size[1];
            const Rows<S> row(j, k, size, [&](index_t y, index_t z, index_t) {
                return values.storage() + (z * size[1] + y) * size[0] * step;
            });
            for (index_t i = 0; i < size[0]; ++i) {
                const S* const pairs[3][2] = {
                    {row.self + (i > 0 ? i - 1 : i) * step, row.self + (i + 1 < size[0] ? i + 1 : i) * step},
                    {row.low[0] + i * step, row.high[0] + i * step},
                    {row.low[1] + i * step, row.high[1] + i * step}};
                const double factors[3] = {perLength[0][i], perLength[1][j], perLength[2][k]};
                Result<T>& derivative = target[i];
                for (int d = 0; d < 3; ++d)
                    for (int c = 0; c < C; ++c)
                        derivative[C * d + c] = (absent >> d & 1) != 0
                                                    ? 0.0
                                                    : (static_cast<double>(elementComponent(*pairs[d][1], c)) -
                                                       static_cast<double>(elementComponent(*pairs[d][0], c))) *
                                                          factors[d];
            }
        }
    };
    return detail::makeByRows<Result<T>>(size, BytesPerVertex<T> * size.product(), fillRows);
}

/// The derivative of a block by itself; null where the extents differ.
template<class T>
StrongPtr<MemArray<3, Result<T>>> deriveBlock(const MemArray<3, T>& values, const BlockPositions& positions,
                                              const BlockMask* mask, bool generally) {
    if (!positions.fits(values.Size()) || (mask && mask->Size() != values.Size())) return nullptr;
    const auto* const axes = positions.axes();
    if (axes && !mask && !generally) return deriveAlongAxes(values, *axes).strong();
    return deriveGenerally(values, positions, mask).strong();
}

// ------------------------------------------------------------------------------------------------------ joined blocks

/// What a derivative depends on, and all its fragments share.
struct Inputs {
    StrongPtr<const Field> values, positions;
    StrongPtr<BlankingInput> masks;
    std::optional<JoinOptions> joining;
    WeakPtr<const Grid> grid;

    [[nodiscard]] Freshness freshness() const { return Freshness(values.rawptr(), positions.rawptr(), masks.rawptr()); }
    [[nodiscard]] Hestra::Ageable::age_t age() const {
        return std::max({values->age(), positions->age(), masks->age()});
    }
    /// The joins of the blocks as they are now; null when they cannot be known.
    [[nodiscard]] StrongPtr<BlockJoins> joins() const {
        const std::lock_guard lock(myMutex);
        const StrongPtr<const Grid> alive = grid.lock();
        if (alive && alive->CartesianPositions() == positions) {
            myJoinsOrigin = Freshness(positions.rawptr(), masks.rawptr());
            myJoins = BlockJoins::of(*alive, *joining);
        } else if (!myJoinsOrigin.isCurrent()) {
            myJoins = nullptr;
        }
        return myJoins;
    }

private:
    mutable std::mutex myMutex;
    mutable StrongPtr<BlockJoins> myJoins;
    mutable Freshness myJoinsOrigin;
};

/// What was read of a fragment: two creators, and how old they were then.
struct Origin {
    StrongPtr<CreativeArrayBase> values, positions;
    Freshness freshness;
};

/// The data of a fragment, held.
struct Reading {
    StrongPtr<MemBase> values, positions;

    Reading(const Inputs& inputs, const StrongPtr<FragmentID>& id, std::vector<Origin>& origins) {
        Origin origin{inputs.values->getCreator(id), inputs.positions->getCreator(id), {}};
        if (!origin.values || !origin.positions) return;
        const StrongPtr<MemBase> held[] = {getDataInDoublePrecision(*origin.values),
                                           getDataInDoublePrecision(*origin.positions)}; // may make them newer
        origin.freshness = Freshness(origin.values.rawptr(), origin.positions.rawptr());
        values = getDataInDoublePrecision(*origin.values);
        positions = getDataInDoublePrecision(*origin.positions);
        if (values) origins.push_back(std::move(origin));
    }
};

/// Finds the derivatives at the joined vertices of one block, as their owners' blocks see them. Of other blocks, the
/// vertices that count are copied, one block after the other: none is held longer than that takes.
template<class T>
class JoinedVertices {
public:
    using S = ElementStorage<T>;

    JoinedVertices(const Inputs& inputs, const BlockJoins& joins, unsigned int block, Reading&& own,
                   std::vector<Origin>& origins, const detail::CacheRoom& room)
        : myInputs(inputs), myJoins(joins), myBlock(block), myOwn(std::move(own)), myOrigins(origins), myRoom(room),
          myBlanking(inputs.masks->now()) {}

    /// Replaces the derivatives of the block's joined vertices. Throws std::invalid_argument where a block that is
    /// needed has no suitable data.
    void replace(Result<T>* target) {
        std::vector<Vertex> vertices = joinedVertices();
        lookUp(vertices);
        detail::inParallel(vertices.size(), Piece, vertices.size() * BytesEach,
                           [&](std::size_t begin, std::size_t end) { derive(vertices, begin, end, target); });
        std::erase_if(vertices, [](const Vertex& vertex) { return !vertex.isCollapsed; });
        if (!vertices.empty()) deriveCollapsed(vertices, target);
    }

private:
    static constexpr std::size_t Piece = 16 * Lanes, BytesEach = 1000;

    /// Where a neighbour is, and what moves it: first the vertex, then its copy.
    struct Source {
        std::uint32_t block;
        index_t index;
        const RigidMotion* motion;
    };
    /// Of a vertex: the neighbours below and above on each axis, or itself.
    using Sources = std::array<std::array<Source, 2>, 3>;
    struct Vertex {
        index_t index;  // in the block
        BlockVertex at; // where its derivative is: its owner
        Sources sources = {};
        bool isFound = false;
        bool isCollapsed = false; // an edge has no length, as at poles
    };
    struct Copy {
        PhysicalSpace::point position;
        S value;
    };

    /// Those that others have too or that lie on a joined face, each once.
    [[nodiscard]] std::vector<Vertex> joinedVertices() const {
        const MultiIndex<3> size = myJoins.size(myBlock);
        std::vector<Vertex> vertices;
        std::vector<bool> isTaken(size.product());
        const auto take = [&](index_t index, const BlockVertex& owner) {
            if (!isTaken[index]) vertices.push_back({index, owner});
            isTaken[index] = true;
        };
        for (const auto& [index, owner] : myJoins.shared(myBlock)) {
            take(index, owner);
            if (owner.block == myBlock) take(owner.index, owner);
        }
        for (const BlockJoin& join : myJoins.joins(myBlock))
            for (index_t k = join.low[2]; k <= join.high[2]; ++k)
                for (index_t j = join.low[1]; j <= join.high[1]; ++j)
                    for (index_t i = join.low[0]; i <= join.high[0]; ++i) {
                        const index_t index = MultiIndex<3>(i, j, k).linear(size);
                        take(index, {myBlock, index});
                    }
        return vertices;
    }

    /// Finds the neighbours of vertices, and copies them.
    void lookUp(std::vector<Vertex>& vertices) {
        // Masks that prove to be needed on the way are read before the next round.
        for (std::atomic<bool> isMissing = true; isMissing;) {
            isMissing = false;
            detail::inParallel(vertices.size(), Piece, vertices.size() * BytesEach,
                               [&](std::size_t begin, std::size_t end) {
                                   for (std::size_t v = begin; v < end; ++v) {
                                       Vertex& vertex = vertices[v];
                                       vertex.isFound = vertex.isFound || find(vertex.at, vertex.sources);
                                       if (!vertex.isFound) isMissing.store(true, std::memory_order_relaxed);
                                   }
                               });
            for (const unsigned int block : std::exchange(myMissingMasks, {}))
                myMasks.emplace(block, myBlanking.of(myJoins.fragment(block), myJoins.size(block)));
        }

        detail::VertexSelection selection;
        const auto partOf = [&](unsigned int block) { return selection.part(block, myJoins.size(block).product()); };
        (void)partOf(myBlock); // first: its data are let go before others are read
        for (Vertex& vertex : vertices)
            for (auto& pair : vertex.sources)
                for (Source& source : pair) {
                    source.block = partOf(source.block);
                    selection.add(source.block, source.index);
                }
        selection.number();
        myCopies.resize(selection.count());
        for (const auto& part : selection.parts()) copy(part);
        detail::inParallel(vertices.size(), Piece, vertices.size() * BytesEach / 8,
                           [&](std::size_t begin, std::size_t end) {
                               for (std::size_t v = begin; v < end; ++v)
                                   for (auto& pair : vertices[v].sources)
                                       for (Source& source : pair) source.index = selection(source.block, source.index);
                           });
    }

    void copy(const detail::VertexSelection::Part& part) {
        const bool isOwn = part.block == myBlock && myOwn;
        myRoom.make();
        const Reading reading =
            isOwn ? *std::exchange(myOwn, std::nullopt) : Reading(myInputs, myJoins.fragment(part.block), myOrigins);
        const auto values = Hestra::dynamicCast<MemArray<3, T>>(reading.values);
        const BlockPositions positions(reading.positions);
        if (!values || values->Size() != myJoins.size(part.block) || !positions.fits(values->Size()))
            throw std::invalid_argument("WorldDerivative: no values of the type of its neighbours', or of other "
                                        "extents, in fragment " +
                                        FragmentID::Name(myJoins.fragment(part.block), ""));
        Copy* to = myCopies.data() + part.first;
        const S* const from = values->storage();
        const index_t step = values->stride();
        part.forEach([&](index_t index) { *to++ = {positions[index], from[index * step]}; });
    }

    void derive(std::vector<Vertex>& vertices, std::size_t begin, std::size_t end, Result<T>* target) const {
        const auto stencils = std::make_unique<Stencils<T>>();
        for (std::size_t first = begin; first < end; first += Lanes) {
            const std::size_t count = std::min<std::size_t>(Lanes, end - first);
            for (std::size_t n = 0; n < count; ++n)
                for (const auto& pair : vertices[first + n].sources)
                    for (const Source& source : pair) __builtin_prefetch(&myCopies[source.index]);
            for (std::size_t n = 0; n < count; ++n)
                vertices[first + n].isCollapsed = !gather(vertices[first + n].sources, *stencils, n);
            stencils->solve(static_cast<int>(count));
            for (std::size_t n = 0; n < count; ++n) store<T>(target[vertices[first + n].index], *stencils, n);
        }
    }

    /// At poles: what explains the differences at all copies of a vertex best, by least squares.
    void deriveCollapsed(const std::vector<Vertex>& vertices, Result<T>* target) {
        const std::map<BlockVertex, std::vector<BlockVertex>> copies = copiesOf(vertices);
        std::vector<Vertex> all;
        for (const auto& [owner, places] : copies)
            for (const BlockVertex& place : places) all.push_back({0, place});
        lookUp(all);
        detail::WorldStencil<Components<T>, 1> sum;
        std::map<BlockVertex, Result<T>> derivatives;
        const Vertex* next = all.data();
        for (const auto& [owner, places] : copies) {
            sum = {};
            for (std::size_t n = 0; n < places.size(); ++n) addTo(sum, *next++);
            sum.solve(1);
            for (int c = 0; c < 3 * Components<T>; ++c) derivatives[owner][c] = sum.result[c][0];
        }
        for (const Vertex& vertex : vertices) target[vertex.index] = derivatives[vertex.at];
    }
    /// The copies of vertices by their owners, ascending. They are in blocks that hang together by joins.
    [[nodiscard]] std::map<BlockVertex, std::vector<BlockVertex>> copiesOf(const std::vector<Vertex>& vertices) const {
        std::map<BlockVertex, std::vector<BlockVertex>> copies;
        std::vector<unsigned int> blocks;
        std::set<unsigned int> known;
        const auto visit = [&](unsigned int block) {
            if (known.insert(block).second) blocks.push_back(block);
        };
        for (const Vertex& vertex : vertices) {
            copies.try_emplace(vertex.at, 1, vertex.at);
            visit(vertex.at.block);
        }
        for (std::size_t n = 0; n < blocks.size(); ++n) {
            const unsigned int block = blocks[n];
            const auto owned = copies.lower_bound({block, 0});
            bool hasCopies = owned != copies.end() && owned->first.block == block;
            for (const auto& [index, owner] : myJoins.shared(block))
                if (const auto found = copies.find(owner); found != copies.end()) {
                    found->second.push_back({block, index});
                    hasCopies = true;
                }
            for (const BlockJoin& join : myJoins.joins(block))
                if (hasCopies && join.motion < 0) visit(join.second.block);
        }
        for (auto& [owner, places] : copies) std::sort(places.begin(), places.end());
        return copies;
    }
    /// Adds the normal equations for the differences at a vertex.
    void addTo(detail::WorldStencil<Components<T>, 1>& sum, const Vertex& vertex) const {
        constexpr int C = Components<T>;
        detail::WorldStencil<C, 1> one;
        (void)gather(vertex.sources, one, 0);
        for (int d = 0; d < 3; ++d)
            for (int m = 0; m < 3; ++m) {
                const double along = one.edges[3 * d + m][0];
                for (int n = 0; n < 3; ++n) sum.edges[3 * m + n][0] += along * one.edges[3 * d + n][0];
                for (int c = 0; c < C; ++c) sum.changes[C * m + c][0] += along * one.changes[C * d + c][0];
            }
    }

    /// The differences at a vertex; false if an edge has no length.
    template<class Lane>
    [[nodiscard]] bool gather(const Sources& sources, Lane& stencils, index_t lane) const noexcept {
        constexpr int C = Components<T>;
        bool spans = true;
        for (int d = 0; d < 3; ++d) {
            const auto& [below, above] = sources[static_cast<std::size_t>(d)];
            const Copy low = read(below), high = read(above);
            spans = spans && !(low.position == high.position);
            for (int m = 0; m < 3; ++m) stencils.edges[3 * d + m][lane] = high.position[m] - low.position[m];
            for (int c = 0; c < C; ++c)
                stencils.changes[C * d + c][lane] = static_cast<double>(elementComponent(high.value, c)) -
                                                    static_cast<double>(elementComponent(low.value, c));
        }
        return spans;
    }
    [[nodiscard]] Copy read(const Source& source) const noexcept {
        Copy result = myCopies[source.index];
        if (source.motion) {
            result.position = (*source.motion)(result.position);
            if constexpr (std::is_same_v<T, PhysicalSpace::vector>)
                result.value = S((*source.motion)(PhysicalSpace::vector(result.value)));
        }
        return result;
    }

    /// Looks up the neighbours of a vertex; false if a mask is missing, which is noted.
    [[nodiscard]] bool find(const BlockVertex& at, Sources& sources) {
        const auto place = MultiIndex<3>::fromLinear(at.index, myJoins.size(at.block));
        bool isComplete = true;
        for (int d = 0; d < 3; ++d)
            for (const bool upper : {false, true}) // goes on, to learn of all that are missing
                isComplete =
                    findNext(at, place, d, upper ? 1 : -1, sources[static_cast<std::size_t>(d)][upper]) && isComplete;
        return isComplete;
    }
    /// What follows a vertex along an axis, else the vertex itself.
    bool findNext(const BlockVertex& at, const MultiIndex<3>& place, int axis, int direction, Source& source) {
        bool isKnown = true;
        if (const auto next = follow(at, place, axis, direction, isKnown))
            return setOwner(source, next->vertex, next->motion);
        // The edge may be one of a block that the vertex is joined with, which goes on where this one ends.
        for (const BlockJoin& join : myJoins.joins(at.block)) {
            const auto d = static_cast<std::size_t>(axis);
            if (join.motion >= 0 || join.first.axis == axis || !holds(join, place)) continue;
            IndexMap::Place there = {};
            for (std::size_t m = 0; m < 3; ++m) there[m] = static_cast<std::int64_t>(place[m]);
            there = join.map(there);
            const MultiIndex<3> other(there[0], there[1], there[2]);
            const BlockVertex copy{join.second.block, other.linear(myJoins.size(join.second.block))};
            if (const auto next = follow(copy, other, join.map.axis[d], join.map.sign[d] * direction, isKnown))
                return setOwner(source, next->vertex, next->motion);
        }
        return isKnown && setOwner(source, at, nullptr);
    }
    bool setOwner(Source& source, const BlockVertex& vertex, const RigidMotion* motion) const {
        const BlockVertex owner = myJoins.owner(vertex);
        source = {owner.block, owner.index, motion};
        return true;
    }
    [[nodiscard]] static bool holds(const BlockJoin& join, const MultiIndex<3>& place) noexcept {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && place[d] >= join.low[d] && place[d] <= join.high[d];
        return isInside;
    }
    /// What follows a vertex in its block, or across a face, by an edge that masks leave. `isKnown` becomes false when
    /// the mask is missing.
    std::optional<BlockJoins::Step> follow(const BlockVertex& at, const MultiIndex<3>& place, int axis, int direction,
                                           bool& isKnown) {
        const MultiIndex<3>& size = myJoins.size(at.block);
        const bool isUpper = direction > 0;
        if (isUpper ? place[axis] + 1 == size[axis] : place[axis] == 0) return myJoins.step(at, axis, direction);
        const BlockMask* mask = nullptr;
        if (myBlanking) {
            const auto known = myMasks.find(at.block);
            if (known == myMasks.end()) {
                const std::lock_guard lock(myMutex);
                myMissingMasks.insert(at.block);
                isKnown = false;
                return std::nullopt;
            }
            mask = known->second.rawptr();
        }
        MultiIndex<3> lower = place;
        if (!isUpper) --lower[axis];
        if (mask && !mask->isEdgeValid(lower, axis)) return std::nullopt;
        const index_t stride = axis == 0 ? 1 : axis == 1 ? size[0] : size[0] * size[1];
        return BlockJoins::Step{{at.block, isUpper ? at.index + stride : at.index - stride}, nullptr};
    }

    const Inputs& myInputs;
    const BlockJoins& myJoins;
    const unsigned int myBlock;
    std::optional<Reading> myOwn; // until it is copied
    std::vector<Origin>& myOrigins;
    const detail::CacheRoom& myRoom;
    const Blanking myBlanking;
    std::unordered_map<unsigned int, StrongPtr<const BlockMask>> myMasks;
    std::mutex myMutex;
    std::set<unsigned int> myMissingMasks;
    std::vector<Copy> myCopies;
};

/// The derivative of a block among others; null where its data do not suit. Throws as `JoinedVertices`.
template<class T>
StrongPtr<MemBase> deriveJoined(const Inputs& inputs, const BlockJoins& joins, unsigned int block,
                                const BlockMask* mask, Reading&& own, std::vector<Origin>& origins,
                                const detail::CacheRoom& room) {
    StrongPtr<MemArray<3, Result<T>>> derivative;
    {
        const auto values = Hestra::dynamicCast<MemArray<3, T>>(ownersData(joins, *inputs.values, block));
        if (!values) return nullptr;
        const BlockPositions positions(ownersData(joins, *inputs.positions, block));
        room.make();
        derivative = deriveBlock(*values, positions, mask, true);
    }
    if (derivative) JoinedVertices<T>(inputs, joins, block, std::move(own), origins, room).replace(derivative->data());
    return derivative;
}

// ------------------------------------------------------------------------------------------------------------- fields

/// The derivative of one fragment: current as long as everything is that was read for it.
class WorldDerivedArray final : public CreativeArray {
public:
    WorldDerivedArray(const std::shared_ptr<const Inputs>& inputs, const StrongPtr<FragmentID>& id,
                      const VantleTypeIndex& elementType, const DynamicSize& size,
                      const StrongPtr<Hestra::Cache>& cache)
        : CreativeArray(CreationFunction(), elementType, size, cache), myInputs(inputs),
          myID(id), myOrigin{inputs->freshness()} {}

    [[nodiscard]] age_t age() const noexcept override {
        auto* const self = const_cast<WorldDerivedArray*>(this);
        self->raiseAge(myInputs->age());
        const std::lock_guard lock(myMutex);
        for (const StrongPtr<CreativeArrayBase>& creator : myCreators) self->raiseAge(creator->age());
        return CreativeArray::age();
    }
    [[nodiscard]] bool isCurrent(const MemBase* data) const override {
        const std::lock_guard lock(myMutex);
        return (!data || myMade.rawptr() == data) &&
               std::all_of(myOrigin.begin(), myOrigin.end(), [](const Freshness& f) { return f.isCurrent(); });
    }

protected:
    [[nodiscard]] bool canProduce() const override { return true; }
    [[nodiscard]] StrongPtr<MemBase> produce() override {
        std::vector<Freshness> origin{myInputs->freshness()};
        std::vector<Origin> origins;
        const StrongPtr<MemBase> made = derive(origins);
        if (made) {
            made->setCreator(WeakPtr<CreativeArrayBase>(*this));
            announceElementType(made->elementIndex());
            addInterface(Hestra::makeRef<SizeInterface>(made->getDynamicSize()));
        }
        std::vector<StrongPtr<CreativeArrayBase>> creators;
        for (const Origin& read : origins) {
            origin.push_back(read.freshness);
            creators.push_back(read.values);
            creators.push_back(read.positions);
        }
        const std::lock_guard lock(myMutex);
        myCreators = std::move(creators);
        if (!made) return nullptr;
        myMade = made;
        myOrigin = std::move(origin);
        return made;
    }

private:
    [[nodiscard]] StrongPtr<MemBase> derive(std::vector<Origin>& origins) const {
        const Hestra::Profiler scope("baseop/WorldDerivative", __LINE__, "WorldDerivative(fragment)",
                                     __PRETTY_FUNCTION__);
        Reading own(*myInputs, myID, origins);
        const auto size = own.values ? own.values->getDynamicSize().as<3>() : std::nullopt;
        const auto mask = size ? myInputs->masks->now().of(myID, *size) : StrongPtr<const BlockMask>();
        StrongPtr<BlockJoins> joins;
        if (myInputs->joining && !(joins = myInputs->joins())) return nullptr;
        const unsigned int block = joins ? joins->find(myID) : 0;
        const bool isJoined =
            joins && block < joins->blocks() && !(joins->joins(block).empty() && joins->shared(block).empty());
        StrongPtr<MemBase> made;
        withMemArray<3>(DerivableTypes(), own.values, [&]<class T>(const MemArray<3, T>& values) {
            const std::size_t inputs = own.values->memsize() + (own.positions ? own.positions->memsize() : 0);
            const detail::CacheRoom room(cache().lock(), inputs + sizeof(Result<T>) * values.nElements());
            if (!isJoined) room.make();
            made = isJoined ? deriveJoined<T>(*myInputs, *joins, block, mask.rawptr(), std::move(own), origins, room)
                            : deriveBlock(values, BlockPositions(own.positions), mask.rawptr(), false);
        });
        return made;
    }

    const std::shared_ptr<const Inputs> myInputs;
    const StrongPtr<FragmentID> myID;
    mutable std::mutex myMutex;
    // Of the data made last.
    std::vector<StrongPtr<CreativeArrayBase>> myCreators;
    WeakPtr<MemBase> myMade;
    std::vector<Freshness> myOrigin;
};

/// As old as the values and the positions.
class WorldDerivedField final : public DerivedField {
public:
    WorldDerivedField(const std::shared_ptr<const Inputs>& inputs)
        : DerivedField(inputs->values, inputs->values->getFragmentIDCollection()), myInputs(inputs) {}
    [[nodiscard]] age_t age() const noexcept override {
        const_cast<WorldDerivedField*>(this)->raiseAge(myInputs->age());
        return Field::age();
    }

private:
    const std::shared_ptr<const Inputs> myInputs;
};

/// The type of the derivative of such elements; `typeid(void)` where there is none.
VantleTypeIndex derivativeType(const VantleTypeIndex& values) {
    const auto find = [&]<class... T>(TypeList<T...>) {
        VantleTypeIndex found(typeid(void));
        ((values == typeid(T) ? void(found = VantleTypeIndex(typeid(Result<T>))) : void()), ...);
        return found;
    };
    return find(DerivableTypes());
}

/// The derivative of a fragment, or null with a text.
StrongPtr<CreativeArrayBase> derivativeOf(const std::shared_ptr<const Inputs>& inputs, const StrongPtr<FragmentID>& id,
                                          std::string& errors, const StrongPtr<Hestra::Cache>& cache) {
    const auto failure = [&](const char* text) {
        errors += text + FragmentID::Name(id, "") + "\n";
        return nullptr;
    };
    const StrongPtr<CreativeArrayBase> source = inputs->values->getCreator(id);
    if (!source) return failure("No creator for fragment ");
    if (source->elementType() == typeid(void)) (void)source->getData(); // which tells
    const VantleTypeIndex type = derivativeType(inDoublePrecision(source->elementType()));
    const DynamicSize size = getSize(*source);
    if (type == typeid(void) || (size && size.rank() != 3))
        return failure("No creator element type unsupported for fragment ");
    if (!inputs->positions->getCreator(id)) return failure("No positions for fragment ");
    return Hestra::makeRef<WorldDerivedArray>(inputs, id, type, size, cache);
}

} // namespace

StrongPtr<MemBase> WorldDerivative(const StrongPtr<MemBase>& values, const StrongPtr<MemBase>& positions,
                                   const BlockMask* mask) {
    const Hestra::Profiler scope("baseop/WorldDerivative", __LINE__, "WorldDerivative(arrays)", __PRETTY_FUNCTION__);
    const auto wide = [](const StrongPtr<MemBase>& data) {
        const StrongPtr<MemBase> converted = data ? convertToDoublePrecision(*data) : nullptr;
        return converted ? converted : data;
    };
    StrongPtr<MemBase> made;
    withMemArray<3>(DerivableTypes(), wide(values), [&](const auto& array) {
        if (positions) made = deriveBlock(array, BlockPositions(wide(positions)), mask, false);
    });
    return made;
}

StrongPtr<Field> WorldDerivative(Grid& grid, const std::string& field, const std::string& name, std::string& errors,
                                 const WorldDerivativeOptions& options, const StrongPtr<Hestra::Cache>& cache) {
    if (options.joinBlocks) options.joins.check();
    const StrongPtr<Representation> vertices = grid.getCartesianRepresentation();
    if (!vertices || !vertices->findField(field) || !vertices->Positions()) return nullptr;
    const auto inputs = std::make_shared<Inputs>();
    inputs->values = vertices->findField(field);
    inputs->positions = vertices->Positions();
    inputs->masks = Hestra::makeRef<BlankingInput>(*vertices);
    inputs->masks->now().check(*inputs->positions);
    if (options.joinBlocks) {
        inputs->joining = options.joins;
        inputs->grid = WeakPtr<const Grid>(grid);
    }

    const Ref<Field> result(Hestra::makeRef<WorldDerivedField>(inputs));
    bool any = false, globalVisited = false;
    const auto take = [&](const StrongPtr<FragmentID>& id) {
        if (const auto derivative = derivativeOf(inputs, id, errors, cache)) {
            result->setCreator(derivative, id);
            any = true;
        }
    };
    const bool hasGlobal = bool(inputs->values->getCreator(nullptr));
    inputs->values->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
            globalVisited = globalVisited || !id;
            take(id);
            return true;
        },
        !hasGlobal);
    if (hasGlobal && !globalVisited) take(nullptr);
    if (!any) return nullptr;
    vertices->setField(name, result);
    return result;
}

} // namespace Vantle
