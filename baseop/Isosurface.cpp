#include <baseop/DataRange.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/surface/IsoSweep.hpp>
#include <baseop/detail/surface/JoinedBlocks.hpp>
#include <baseop/detail/surface/PlacedBlocks.hpp>
#include <baseop/detail/surface/SurfaceEdges.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/hestra/Pulse.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <typeinfo>
#include <variant>

namespace Vantle {

using detail::EdgeNumbering;
using detail::IsoSweep;
using detail::PlaneDistance;
using detail::PlaneDistances;
using detail::ProductPositions;
using detail::StoredPositions;
using detail::StoredValues;
using detail::SweepTarget;
using Hestra::Console;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

// Edges of fragments with a place in the whole grid are those of a lattice: their identifiers are less than 3 * 2^60,
// and those of other fragments begin there.
constexpr index_t LatticeVertices = detail::PlacedBlocks::Vertices;
constexpr index_t FirstPrivateIdentifier = index_t{3} << 60;

using AnyPositions = std::variant<std::monostate, StoredPositions, ProductPositions>;

StoredPositions positionsOf(const MultiArray<3, PhysicalSpace::point>& points) {
    return {points.data(), static_cast<std::size_t>(points.stride())};
}

template<template<class> class Axis>
ProductPositions positionsOf(const DirectProductMemArray<PhysicalSpace::point, Axis, 3>& product) {
    ProductPositions result;
    for (int d = 0; d < 3; ++d) {
        const auto& axis = product.axis(d);
        std::vector<double>& values = result.axes[static_cast<std::size_t>(d)];
        values.resize(static_cast<std::size_t>(axis.size()));
        for (std::size_t i = 0; i < values.size(); ++i) values[i] = axis[i];
    }
    return result;
}

/// The positions of a fragment, of any kind that can hold them, if its extents are these.
AnyPositions findPositions(const detail::FragmentCoordinates& coordinates, const MultiIndex<3>& size) {
    return std::visit(
        [&](const auto& found) -> AnyPositions {
            if constexpr (requires { positionsOf(*found); })
                if (found->Size() == size) return positionsOf(*found);
            return {};
        },
        coordinates.kind);
}

/// Makes room for `added` elements more, at least doubling what has to move.
template<class T>
void extend(std::vector<T>& storage, index_t added) {
    const std::size_t size = storage.size() + static_cast<std::size_t>(added);
    if (size > storage.capacity())
        Hestra::reserveLargeArray(storage, storage.empty() ? size : std::max(size, 2 * storage.capacity()));
    storage.resize(size);
}

index_t edgeCount(const MultiIndex<3>& extents) {
    index_t edges = 0;
    for (int axis = 0; axis < 3; ++axis) {
        MultiIndex<3> block = extents;
        block[axis] -= extents[axis] > 0 ? 1 : 0;
        edges += block.product();
    }
    return edges;
}

bool isValid(const StrongPtr<Field>& field) {
    if (!field) return false;
    const auto creator = field->getCreator({});
    return creator && creator->isValid();
}

/// The two halves of a surface, null where there are none.
struct SurfaceFields {
    explicit SurfaceFields(const Grid& grid) {
        const auto vertices = grid.findVertices(2);
        const auto skeleton = grid.getSkeleton(SkeletonID(2, 1));
        if (!vertices || !skeleton) return;
        const auto inSpace = grid.getCartesianRepresentation(*vertices);
        const auto ofVertices = skeleton->findRepresentation(*vertices);
        if (inSpace) points = inSpace->Positions();
        if (ofVertices) triangles = ofVertices->Positions();
    }

    StrongPtr<Field> points, triangles;
};

/// Beside the points of a surface: the positions that it lies in, and the masks. Its ages are those of values and
/// request.
using SurfaceRecord = Hestra::FreshnessRecord<Field>;

/// Whether a surface was made with these joins and, if they are wanted, still has its edges. A caller's own has been
/// made as it should be.
bool isAsAsked(const StrongPtr<Field>& points, const StrongPtr<BlockJoins>& joins, bool wantsEdges) {
    if (!SurfaceRecord::find(*points, points)) return true;
    const auto edges = points->findInterface<detail::SurfaceEdges>();
    if (!edges) return !joins && !wantsEdges;
    return edges->joins == joins && (!wantsEdges || (isValid(edges->identifiers) && isValid(edges->weights)));
}

StrongPtr<Field> discardable(const StrongPtr<MemBase>& array) {
    const StrongPtr<Field> field = Hestra::makeRef<Field>();
    field->setDiscardableData(array, Hestra::Cache::MemCache());
    return field;
}

/// Whether values may be those of a block with such positions: distances are of their own.
template<class Values, class Positions>
constexpr bool goTogether = !std::is_same_v<Positions, std::monostate>;
template<class Own, class Positions>
constexpr bool goTogether<PlaneDistances<Own>, Positions> = std::is_same_v<Own, Positions>;

PlaneDistance planeOf(const PhysicalSpace::point& origin, const PhysicalSpace::vector& normal) {
    const double norm = length(normal);
    if (!(norm > 0.0) || !std::isfinite(norm)) throw std::invalid_argument("a plane whose normal has no length");
    return {origin, normal * (1.0 / norm)};
}

/// Whether there is a value above the level. Looks at corners first, where distances are greatest, then at pieces that
/// vector lanes take at once.
template<class Values>
bool anyAbove(const Values& values) {
    constexpr std::size_t Piece = 1024;
    const MultiIndex<3>& size = values.size();
    const auto count = static_cast<std::size_t>(size.product());
    for (index_t corner = 0; count != 0 && corner < 8; ++corner) {
        const auto end = [&](int d) { return (corner >> d & 1) * (size[d] - 1); };
        if (values[static_cast<std::size_t>(end(0) + size[0] * (end(1) + size[1] * end(2)))] > values.level())
            return true;
    }
    for (std::size_t begin = 0; begin < count; begin += Piece) {
        const std::size_t end = std::min(count, begin + Piece);
        bool above = false;
        for (std::size_t n = begin; n < end; ++n) above |= values[n] > values.level();
        if (above) return true;
    }
    return false;
}

/// The same among vertices that are valid.
template<class Values>
bool anyAbove(const Values& values, const BlockMask& mask) {
    const MultiIndex<3>& size = values.size();
    for (index_t k = 0; k < size[2]; ++k)
        for (index_t j = 0; j < size[1]; ++j) {
            const index_t row = (k * size[1] + j) * size[0];
            for (index_t word = 0; 64 * word < size[0]; ++word)
                for (std::uint64_t bits = mask.around(j, k, word).vertices; bits != 0; bits &= bits - 1)
                    if (values[row + 64 * word + static_cast<index_t>(std::countr_zero(bits))] > values.level())
                        return true;
        }
    return false;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------------

template<class Coordinates, class Data>
IsosurfaceArrays ComputeIsosurfaceT(const FieldExplorer<Data>& explorer, const Coordinates& coordinates, double) {
    try {
        if (coordinates.Size() != explorer.Size()) throw IsoException(3);
        const auto positions = positionsOf(coordinates);
        const IsoSweep sweep(StoredValues<typename Data::value_type>(explorer.data(), explorer.level()));
        detail::checkVertexCount(sweep.vertices());
        std::vector<PhysicalSpace::point> points;
        std::vector<TriangleCell> triangles;
        extend(points, sweep.vertices());
        extend(triangles, sweep.triangles());
        sweep.fill(SweepTarget{points.data(), triangles.data()}, EdgeNumbering(explorer.Size(), {}, 0), positions);
        return {makeMemArray1D(std::move(points)).strong(), makeMemArray1D(std::move(triangles)).strong()};
    } catch (...) {
        Console::print("ComputeIsosurfaceT(): INTERNAL ERROR\n");
        throw;
    }
}

template<class T>
IsosurfaceArrays ComputeIsosurface(double level, const MultiArray<3, T>& data,
                                   const MultiArray<3, PhysicalSpace::point>& coordinates, double parameter) {
    const Hestra::FunctionStackProfiler scope("ComputeIsosurface", 442, "baseop/Isosurface");
    return ComputeIsosurfaceT(FieldExplorer<MultiArray<3, T>>(data, level), coordinates, parameter);
}

#define VANTLE_INSTANTIATE_SURFACE(T, ...)                                                                             \
    template VANTLE_BASEOP_API IsosurfaceArrays ComputeIsosurfaceT(const FieldExplorer<MultiArray<3, T>>&,             \
                                                                   const __VA_ARGS__&, double);
#define VANTLE_INSTANTIATE_SURFACES(T)                                                                                 \
    VANTLE_INSTANTIATE_SURFACE(T, MultiArray<3, PhysicalSpace::point>)                                                 \
    VANTLE_INSTANTIATE_SURFACE(T, MemArray<3, PhysicalSpace::point>)                                                   \
    VANTLE_INSTANTIATE_SURFACE(T, ReferencingMemArray<3, PhysicalSpace::point>)                                        \
    VANTLE_INSTANTIATE_SURFACE(T, DirectProductMemArray<PhysicalSpace::point, LinearCoordinateAxisArray, 3>)           \
    VANTLE_INSTANTIATE_SURFACE(T, DirectProductMemArray<PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>)         \
    VANTLE_INSTANTIATE_SURFACE(T, UniformCartesianArray)                                                               \
    template VANTLE_BASEOP_API IsosurfaceArrays ComputeIsosurface(double, const MultiArray<3, T>&,                     \
                                                                  const MultiArray<3, PhysicalSpace::point>&, double);
VANTLE_INSTANTIATE_SURFACES(double)
VANTLE_INSTANTIATE_SURFACES(float)
VANTLE_INSTANTIATE_SURFACES(unsigned char)
VANTLE_INSTANTIATE_SURFACES(short)
VANTLE_INSTANTIATE_SURFACES(unsigned short)
#undef VANTLE_INSTANTIATE_SURFACES
#undef VANTLE_INSTANTIATE_SURFACE

// ---------------------------------------------------------------------------------------------------------------------

IsoException::~IsoException() = default;

const char* IsoException::what() const noexcept {
    switch (myCode) {
    case 0:
        return "No Isosurface Error";
    case 1:
        return "No coordinates in input grid";
    case 2:
        return "No field found in input grid";
    case 3:
        return "No fragment coordinates for isosurface fragment";
    case 4:
        return "Datatype not supported for isosurfacing";
    default:
        return "Undefined Isosurfacer Error";
    }
}

/// A fragment that is to be swept.
struct FragmentIsoSurfacer::Fragment {
    MultiIndex<3> size;
    AnyPositions positions;
    /// Its place on the lattice, if it is all there.
    std::optional<MultiIndex<3>> place;
    /// Its number, if it has vertices in common with others, or with itself.
    std::optional<unsigned int> joined;
    StrongPtr<const BlockMask> mask = {};
};

FragmentIsoSurfacer::FragmentIsoSurfacer(double level, double parameter, const StrongPtr<Field>& positions,
                                         const Chunk<index_t>& edgeIdentifiers, const Chunk<double>& weights,
                                         const Chunk<PhysicalSpace::point>& points,
                                         const Chunk<TriangleCell>& triangles)
    : myLevel(level), myParameter(parameter), myPositions(positions), myIdentifiers(edgeIdentifiers),
      myWeights(weights), myPoints(points), myTriangles(triangles), myRunningOffset(FirstPrivateIdentifier),
      myPlaced(std::make_unique<detail::PlacedBlocks>()) {}

FragmentIsoSurfacer::~FragmentIsoSurfacer() = default;

void FragmentIsoSurfacer::joinBlocks(const StrongPtr<BlockJoins>& joins, const StrongPtr<Field>& values) {
    myJoined = std::make_unique<detail::JoinedBlocks>(joins, values);
}

bool FragmentIsoSurfacer::hasDropped() const noexcept { return myJoined && myJoined->hasDropped(); }

void FragmentIsoSurfacer::cutByPlane(const PhysicalSpace::point& origin, const PhysicalSpace::vector& normal) {
    myPlane = std::make_unique<const PlaneDistance>(planeOf(origin, normal));
}

void FragmentIsoSurfacer::finish() {
    if (!hasDropped()) return;
    std::vector<std::size_t*> ends;
    for (detail::SurfacePiece& piece : myPieces) ends.push_back(&piece.endVertex);
    detail::removeUnused(
        {myIdentifiers->base_vector(), myWeights->base_vector(), myPoints->base_vector(), myTriangles->base_vector()},
        ends);
}

/// Whether all values of a known range lie on one side of the level.
template<class Range>
bool FragmentIsoSurfacer::excludesLevel(const StrongPtr<Range>& range) {
    return range && excludesLevel(range->getMinf(), range->getMaxf());
}

bool FragmentIsoSurfacer::excludesLevel(double least, double greatest) noexcept {
    myIsAllAbove = least > myLevel;
    // What the caller says is of valid values; other ranges are of all.
    if (!myIsMasked || myRangeOf) myReachesAbove = myReachesAbove || least > myLevel || greatest > myLevel;
    return myLevel < least || myLevel > greatest;
}

/// The same of what is known without making the data.
bool FragmentIsoSurfacer::excludesLevel(const StrongPtr<FragmentID>& id, const CreativeArrayBase& creator) {
    if (myRangeOf) {
        const auto range = myRangeOf(id);
        return !range || excludesLevel(range->first, range->second);
    }
    return excludesLevel(DataRange<double>::get(creator).lock()) ||
           excludesLevel(DataRange<float>::get(creator).lock());
}

/// The same of a block whose vertices have values of other blocks, too.
bool FragmentIsoSurfacer::isJoinedAndExcluded(unsigned int block, const CreativeArrayBase& creator) {
    const auto sideOf = [level = myLevel](double least, double greatest) -> std::optional<bool> {
        if (level < least) return true;
        if (level > greatest) return false;
        return {};
    };
    const auto sideOfRange = [&](const auto& range) {
        return range ? sideOf(range->getMinf(), range->getMaxf()) : std::nullopt;
    };
    const auto isAbove = [&](unsigned int ofBlock, const CreativeArrayBase& values) -> std::optional<bool> {
        if (myRangeOf) {
            const auto range = myRangeOf(myJoined->joins().fragment(ofBlock));
            return range ? sideOf(range->first, range->second) : std::nullopt;
        }
        const auto side = sideOfRange(DataRange<double>::get(values).lock());
        return side ? side : sideOfRange(DataRange<float>::get(values).lock());
    };
    const std::optional<bool> side = isAbove(block, creator);
    if (!side) return false;
    for (const unsigned int owner : myJoined->ownersOf(block)) {
        const auto other = myJoined->values().getCreator(myJoined->joins().fragment(owner));
        if (!other || isAbove(owner, *other) != side) return false;
    }
    myIsAllAbove = *side;
    myReachesAbove = myReachesAbove || (*side && (!myIsMasked || myRangeOf));
    return true;
}

/// Whether the range of data that exist excludes the level.
template<class T>
bool FragmentIsoSurfacer::isSkipped(CreativeArrayBase& creator, [[maybe_unused]] const MultiArray<3, T>& data) {
    if constexpr (std::is_same_v<T, double>) {
        if (DataRange<double>::get(creator)) return false; // asked before the data were made
        const auto range = DataRange<double>::compute(creator, false, false).lock();
        if (!excludesLevel(range)) return false;
        Console::print("SKIP Iso Retrieve: Data are [%lg, %lg], level is %lg\n", range->getMinf(), range->getMaxf(),
                       myLevel);
        return true;
    } else if constexpr (std::is_same_v<T, unsigned char>) {
        const auto known = DataRange<unsigned char>::get(creator).lock();
        return excludesLevel(known && detail::ValueBricks<T>::find(creator, data)
                                 ? known
                                 : DataRange<unsigned char>::compute(creator, false, false).lock());
    } else if constexpr (std::is_same_v<T, unsigned short>) {
        return excludesLevel(DataRange<unsigned short>::retrieve(creator, false, false).lock());
    } else {
        return false;
    }
}

bool FragmentIsoSurfacer::apply(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
    if (!creator) return true;
    myIsMasked = myBlanking.concerns(id);
    Fragment fragment;
    if (myJoined)
        if (const unsigned int block = myJoined->joins().find(id); myJoined->isJoined(block)) fragment.joined = block;
    if (fragment.joined ? isJoinedAndExcluded(*fragment.joined, *creator) : excludesLevel(id, *creator)) {
        Console::puts("SKIP Iso");
        noteSkipped(id);
        return true;
    }
    if (myPlane) return cut(id, *creator, fragment), true;
    const StrongPtr<MemBase> data = creator->getData();
    if (!data) return true;
    const auto* const regular = dynamic_cast<const MemArrayBase<3>*>(data.rawptr());
    if (!regular) throw static_cast<const char*>("Isodata are not 3D");

    fragment.size = regular->getSize();
    using Types = TypeList<double, float, unsigned char, short, unsigned short>;
    const bool supported = withMemArray<3>(Types(), data, [&]<class T>(const MemArray<3, T>& own) {
        StrongPtr<MemBase> coordinates, owners;
        if (fragment.joined) {
            coordinates = findCoordinates(id, fragment);
            owners = ownersData(myJoined->joins(), myJoined->values(), *fragment.joined);
        }
        const auto* const values = owners ? dynamic_cast<const MemArray<3, T>*>(owners.rawptr()) : &own;
        if (!values) throw std::invalid_argument("isosurface: joined fragments with values of several types");
        if (!myRangeOf && values == &own && isSkipped<T>(*creator, own))
            return noteSkipped(id); // a range knows of own values only
        if (!coordinates) coordinates = findCoordinates(id, fragment);
        if (myIsMasked) fragment.mask = myBlanking.of(id, fragment.size);
        const auto bricks = values == &own ? detail::ValueBricks<T>::of(*creator, own) : nullptr;
        sweep(id, StoredValues<T>(*values, myLevel, bricks.rawptr()), fragment);
    });
    if (!supported) {
        findCoordinates(id, fragment);
        throw IsoException(4);
    }
    return true;
}

/// The surface of distances from the plane.
void FragmentIsoSurfacer::cut(const StrongPtr<FragmentID>& id, CreativeArrayBase& positions, Fragment& fragment) {
    const StrongPtr<MemBase> data = getDataInDoublePrecision(positions);
    if (!data) return;
    if (!data->getDynamicSize().get(fragment.size)) throw static_cast<const char*>("Isodata are not 3D");
    const StrongPtr<MemBase> coordinates = findCoordinates(id, fragment);
    if (myIsMasked) fragment.mask = myBlanking.of(id, fragment.size);
    using Own = const MemArray<3, PhysicalSpace::point>;
    auto* const own = coordinates == data ? dynamic_cast<Own*>(data.rawptr()) : nullptr;
    const auto bricks =
        own ? detail::ValueBricks<PhysicalSpace::point>::ofKnown(positions, *own, myPositions->age()) : nullptr;
    std::visit(
        [&]<class Positions>(const Positions& found) {
            if constexpr (!std::is_same_v<Positions, std::monostate>)
                sweep(id, PlaneDistances<Positions>(*myPlane, found, fragment.size, bricks.rawptr()), fragment);
        },
        fragment.positions);
}

/// Of a masked fragment the range does not tell whether a valid value lies above the level, unless all do.
void FragmentIsoSurfacer::noteSkipped(const StrongPtr<FragmentID>& id) {
    if (!myIsMasked || myReachesAbove || !myIsAllAbove) return;
    const auto mask = myBlanking.of(id);
    myReachesAbove = !mask || !mask->isNothingValid();
}

/// Sets positions and place of the fragment. The array that holds the positions is returned.
StrongPtr<MemBase> FragmentIsoSurfacer::findCoordinates(const StrongPtr<FragmentID>& id, Fragment& fragment) const {
    const detail::FragmentCoordinates coordinates =
        fragment.joined ? detail::FragmentCoordinates(ownersData(myJoined->joins(), *myPositions, *fragment.joined))
                        : detail::FragmentCoordinates(myPositions ? myPositions->getCreator(id) : nullptr);
    const StrongPtr<MemBase>& array = coordinates.data;
    fragment.positions = findPositions(coordinates, fragment.size);
    if (std::holds_alternative<std::monostate>(fragment.positions)) {
        Console::puts("Sorry, no fragment coordinates for isosurface fragment.");
        throw IsoException(3);
    }
    if (!id || myJoined) return array;
    const auto location = id->findInterface<FragmentLocation<3, IndexOffset>>();
    if (!location) return array;
    fragment.place = location->offset();
    for (int d = 0; d < 3; ++d)
        if (fragment.size[d] > LatticeVertices || location->offset()[d] > LatticeVertices - fragment.size[d])
            fragment.place.reset();
    return array;
}

template<class Values>
void FragmentIsoSurfacer::sweep(const StrongPtr<FragmentID>& id, const Values& values, const Fragment& fragment) {
    const detail::SurfaceArrays surface{myIdentifiers->base_vector(), myWeights->base_vector(), myPoints->base_vector(),
                                        myTriangles->base_vector()};
    const std::size_t firstVertex = surface.identifiers.size(), firstTriangle = surface.triangles.size();

    const BlockMask* const mask = fragment.mask.rawptr();
    const IsoSweep sweep(values, mask);
    detail::checkVertexCount(firstVertex + sweep.vertices());
    // Cells without a surface are all below or all not: then the first value tells for all.
    const bool below = !mask && sweep.hasCells() && sweep.vertices() == 0 && values.isBelow(0);
    if (!myReachesAbove && !below) myReachesAbove = mask ? anyAbove(values, *mask) : anyAbove(values);
    extend(surface.identifiers, sweep.vertices());
    extend(surface.weights, sweep.vertices());
    extend(surface.points, sweep.vertices());
    extend(surface.triangles, sweep.triangles());
    const SweepTarget target{surface.points.data() + firstVertex, surface.triangles.data() + firstTriangle,
                             surface.identifiers.data() + firstVertex, surface.weights.data() + firstVertex,
                             static_cast<unsigned int>(firstVertex)};
    detail::SurfacePiece piece{id, fragment.size, {}, fragment.size, myRunningOffset, 0};
    if (fragment.place) piece = {id, fragment.size, *fragment.place, MultiIndex<3>::filled(LatticeVertices), 0, 0};
    const EdgeNumbering numbering(piece.extents, piece.place, piece.identifierOffset);
    std::visit(
        [&](const auto& positions) {
            if constexpr (goTogether<Values, std::decay_t<decltype(positions)>>) {
                sweep.fill(target, numbering, positions);
                if (!fragment.joined || sweep.vertices() == 0) return;
                const auto value = [&](index_t n) { return values[n]; };
                const auto point = [&](index_t n) { return positions.at(n, fragment.size); };
                if (myJoined->joins().isMirrored(*fragment.joined))
                    for (std::size_t t = firstTriangle; t < surface.triangles.size(); ++t)
                        std::swap(surface.triangles[t][1], surface.triangles[t][2]);
                myJoined->merge(surface, *fragment.joined, myRunningOffset, myLevel, value, point, firstVertex,
                                firstTriangle);
            }
        },
        fragment.positions);
    if (sweep.vertices() == 0) return;
    if (fragment.place)
        myPlaced->merge(surface, *fragment.place, fragment.size, firstVertex, firstTriangle);
    else
        myRunningOffset += edgeCount(fragment.size);
    piece.endVertex = surface.identifiers.size();
    myPieces.push_back(std::move(piece));
}

void FragmentIsoSurfacer::setFields(Grid& output) const {
    const auto store = [](Representation& representation, const StrongPtr<MemBase>& array) {
        representation.setPositions(discardable(array));
    };
    const auto inSpace = output.makeCartesianRepresentation(2);
    const auto vertices = output.makeVertices(2);
    const auto triangles = output[SkeletonID(2, 1)];
    const Hestra::Cache::Operation bothHalves;
    store(*inSpace, makeMemArray1D(myPoints));
    store(*(*triangles)[*vertices], makeMemArray1D(myTriangles));
}

// ---------------------------------------------------------------------------------------------------------------------

StrongPtr<Grid> ComputeIsosurface(double level, const Hestra::Ageable& requestedAge, const Grid& inputGrid,
                                  const std::string& fieldName, Slice& slice, const std::string& outputName,
                                  double parameter) {
    return ComputeIsosurface(level, requestedAge, inputGrid, fieldName, slice, outputName, parameter, {});
}

namespace {

/// The surface, at a level, of the field that `findField(positions)` gives, by a surfacer that `prepare` has seen.
template<class FindField, class Prepare>
StrongPtr<Grid> computeSurface(double level, const Hestra::Ageable& requestedAge, const Grid& inputGrid, Slice& slice,
                               const std::string& outputName, double parameter, const SurfaceOptions& options,
                               const FindField& findField, const Prepare& prepare) {
    if (options.joinBlocks) options.joins.check();
    const StrongPtr<Field> positions = inputGrid.CartesianPositions();
    if (!positions) throw IsoException(1);
    const StrongPtr<Field> field = findField(positions);
    if (!field) throw IsoException(2);

    const auto age = std::max(field->age(), requestedAge.age());
    const Blanking masks(inputGrid);
    masks.check(*positions);
    const Hestra::Freshness inSpace(positions.rawptr(), masks.vertexMask().rawptr(), masks.cellMask().rawptr());
    const StrongPtr<BlockJoins> joins =
        options.joinBlocks ? BlockJoins::of(inputGrid, options.joins) : StrongPtr<BlockJoins>();
    if (const StrongPtr<Grid> known = slice(outputName)) {
        const SurfaceFields surface(*known);
        if (isValid(surface.points) && isValid(surface.triangles) &&
            Hestra::Freshness::isFresh(surface.points->age(), age) &&
            SurfaceRecord::isFresh(*surface.points, surface.points, positions.rawptr(), masks.vertexMask().rawptr(),
                                   masks.cellMask().rawptr()) &&
            isAsAsked(surface.points, joins, options.keepEdges))
            return known;
    }

    const StrongPtr<Grid> output = slice.newGrid(outputName);
    output->makeCartesianRepresentation(2);
    (*output)[SkeletonID(2, 1)];
    Console::puts("*********************** RECOMPUTING ISOSURFACE ****************************");

    const auto points = Hestra::makeRef<Hestra::TypedChunk<PhysicalSpace::point>>();
    const auto triangles = Hestra::makeRef<Hestra::TypedChunk<TriangleCell>>();
    const auto identifiers = Hestra::makeRef<Hestra::TypedChunk<index_t>>();
    const auto weights = Hestra::makeRef<Hestra::TypedChunk<double>>();
    FragmentIsoSurfacer surfacer(level, parameter, positions, identifiers.strong(), weights.strong(), points.strong(),
                                 triangles.strong());
    surfacer.setBlanking(masks);
    prepare(surfacer);
    if (joins) surfacer.joinBlocks(joins, field);
    if (options.rangeOf) surfacer.useRanges(options.rangeOf);
    const std::size_t fragments = field->nFragments();
    std::size_t done = 0;
    const auto share = [fragments](std::size_t n) { return static_cast<double>(n) / static_cast<double>(fragments); };
    field->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        const Hestra::Pulse::Part part(share(done), share(done + 1));
        ++done;
        Hestra::Pulse::beat(0.0);
        return surfacer.apply(id, creator);
    });
    surfacer.finish();
    const bool empty = !surfacer.reachesAbove();
    if (empty) {
        points->base_vector() = {};
        triangles->base_vector() = {};
        identifiers->base_vector() = {};
        weights->base_vector() = {};
    }
    const Hestra::Cache::Operation together;
    try {
        surfacer.setFields(*output);
        const SurfaceFields surface(*output);
        surface.points->raiseAge(age);
        surface.triangles->raiseAge(age);
        SurfaceRecord::attach(*surface.points, surface.points, inSpace);
        if (!joins && !options.keepEdges) return output;
        const auto edges = Hestra::makeRef<detail::SurfaceEdges>();
        edges->joins = joins;
        if (options.keepEdges) {
            if (!empty) edges->pieces = surfacer.pieces();
            edges->identifiers = discardable(makeMemArray1D(identifiers.strong()));
            edges->weights = discardable(makeMemArray1D(weights.strong()));
        }
        surface.points->addInterface(edges);
        return output;
    } catch (...) {
        slice.remove(outputName); // without its record it would be taken for a caller's own
        throw;
    }
}

} // namespace

StrongPtr<Grid> ComputeIsosurface(double level, const Hestra::Ageable& requestedAge, const Grid& inputGrid,
                                  const std::string& fieldName, Slice& slice, const std::string& outputName,
                                  double parameter, const SurfaceOptions& options) {
    return computeSurface(
        level, requestedAge, inputGrid, slice, outputName, parameter, options,
        [&](const StrongPtr<Field>&) { return inputGrid(fieldName); }, [](FragmentIsoSurfacer&) {});
}

StrongPtr<Grid> ComputePlaneCut(const PhysicalSpace::point& origin, const PhysicalSpace::vector& normal,
                                const Hestra::Ageable& requestedAge, const Grid& inputGrid, Slice& slice,
                                const std::string& outputName, const SurfaceOptions& options) {
    (void)planeOf(origin, normal);
    return computeSurface(
        0.0, requestedAge, inputGrid, slice, outputName, 0.0, options,
        [](const StrongPtr<Field>& positions) { return positions; },
        [&](FragmentIsoSurfacer& surfacer) { surfacer.cutByPlane(origin, normal); });
}

StrongPtr<MemBase> EvalFieldOnIsosurface(const Grid& surface, const Field& field) {
    const SurfaceFields fields(surface);
    const auto edges = fields.points ? fields.points->findInterface<detail::SurfaceEdges>() : nullptr;
    return edges ? edges->evaluate(field) : StrongPtr<MemBase>();
}

} // namespace Vantle
