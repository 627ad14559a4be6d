#include <baseop/ExpandBBox.hpp>
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Environment.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Grid.hpp>

#include <algorithm>
#include <vector>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::BoundingBall;
using Orvix::BoundingBox;
using Orvix::PhysicalSpace;

namespace {

const bool declaredRangesIgnored =
    Hestra::getEnvInteger("DontUseCreatorRangeAttributeAsBoundingBoxDefault",
                          "Do not use the range attribute on data creators as default value for bounding boxes.\n"
                          "On the command line (sh/bash/ksh), do\n"
                          " export DontUseCreatorRangeAttributeAsBoundingBoxDefault=1\n"
                          "to disable using the range attribute. This will slow down operations but may help to trace "
                          "down issues due to wrongly specified ranges.\n",
                          0) != 0;

/// Beside a box: what it was computed from.
using BoxRecord = Hestra::FreshnessRecord<BoundingBox>;

StrongPtr<BoundingBox> attachedBox(const Hestra::Intercube& owner) {
    if (StrongPtr<BoundingBox> box = owner.findInterface<BoundingBox>()) return box;
    return Hestra::dynamicCast<BoundingBox>(owner.findInterface(typeid(BoundingBall)));
}

void widen(StrongPtr<BoundingBox>& box, const BoundingBox& by) {
    if (box) {
        box->embrace(by);
        box->updateBall();
    } else {
        box = Hestra::makeRef<BoundingBox>(by.minCoord(), by.maxCoord());
    }
}

PhysicalSpace::point toPoint(const PhysicalSpace::point& p) { return p; }
PhysicalSpace::point toPoint(const FloatPoint& p) { return PhysicalSpace::point(p); }

/// The first zero among the coordinates of one axis, whichever its sign. There is one.
template<class Point>
double firstZero(const Point* points, int axis) {
    while ((*points)[axis] != 0) ++points;
    return (*points)[axis];
}

/// Embraces one piece: the same result as point by point, from what vector lanes have found in it.
///
/// Pieces with NaN are embraced point by point. Lanes find the extremes of the others exactly, up to the sign of zero:
/// a box keeps the first of equal values, so that is looked up where a zero becomes a new extreme.
template<class Point, class Found>
void embracePiece(BoundingBox& box, const Point* piece, std::size_t size, const Found& found) {
    if (found.hasNaN) {
        for (std::size_t i = 0; i < size; ++i) box.embrace(toPoint(piece[i]));
        return;
    }
    PhysicalSpace::point min, max;
    for (int axis = 0; axis < 3; ++axis) {
        min[axis] = found.min[axis];
        max[axis] = found.max[axis];
        const bool newMinimum = min[axis] == 0.0 && !(0.0 >= box.minCoord()[axis]);
        const bool newMaximum = max[axis] == 0.0 && 0.0 > box.maxCoord()[axis];
        if (!newMinimum && !newMaximum) continue;
        const double zero = firstZero(piece, axis);
        if (min[axis] == 0.0) min[axis] = zero;
        if (max[axis] == 0.0) max[axis] = zero;
    }
    box.embrace(BoundingBox(min, max));
}

/// Embraces points that lie one after the other. Threads look through some pieces each, which are then embraced in
/// their order.
template<class Point>
void embraceContiguous(BoundingBox& box, const Point* points, std::size_t count) {
    using Coordinate = typename Point::value_type;
    static_assert(sizeof(Point) == 3 * sizeof(Coordinate));
    constexpr std::size_t Piece = detail::ExtremesPieceBytes / sizeof(Point);
    const auto search = [&](std::size_t begin, std::size_t end) {
        return detail::findExtremes<Coordinate, 3>(points[begin].data(), 3 * (end - begin));
    };
    const auto embrace = [&](std::size_t begin, const auto& found) {
        embracePiece(box, points + begin, std::min(Piece, count - begin), found);
    };

    box.embrace(toPoint(points[0]));
    if (detail::teamFor(count * sizeof(Point)) == 1) {
        for (std::size_t begin = 0; begin < count; begin += Piece)
            embrace(begin, search(begin, std::min(count, begin + Piece)));
        return;
    }
    std::vector<detail::Extremes<Coordinate, 3>> found(count / Piece + 1);
    detail::inParallel(count, Piece, count * sizeof(Point),
                       [&](std::size_t begin, std::size_t end) { found[begin / Piece] = search(begin, end); });
    for (std::size_t begin = 0; begin < count; begin += Piece) embrace(begin, found[begin / Piece]);
}

template<class Point>
void embraceAll(BoundingBox& box, const Iterator<Point>& points) {
    if (points.empty()) return;
    if (points.contiguous()) {
        embraceContiguous<std::remove_const_t<Point>>(box, points.first(), static_cast<std::size_t>(points.size()));
    } else {
        const index_t count = points.size();
        for (index_t i = 0; i < count; ++i) box.embrace(toPoint(points[i]));
    }
}

/// Sound for all axes without NaN, descending ones included: no coordinate lies beyond the first and the last one.
template<class DirectProduct>
void embraceEnds(BoundingBox& box, const DirectProduct& positions) {
    if (positions.nElements() == 0) return;
    box.embrace(positions.first());
    box.embrace(positions.last());
}

/// The fragment's box as its creator declares it: the attribute "Range", if it is two points. Null otherwise.
StrongPtr<BoundingBox> declaredBox(const CreativeArrayBase& creator) {
    const StrongPtr<Hestra::ChunkBase> range = creator.getAttribute("Range");
    if (!range || range->elements() != 2) return nullptr;
    if (const auto points = Hestra::dynamicCast<Hestra::TypedChunkBase<PhysicalSpace::point>>(range))
        return Hestra::makeRef<BoundingBox>(points->base_vector()[0], points->base_vector()[1]);
    if (const auto points = Hestra::dynamicCast<Hestra::TypedChunkBase<FloatPoint>>(range))
        return Hestra::makeRef<BoundingBox>(toPoint(points->base_vector()[0]), toPoint(points->base_vector()[1]));
    return nullptr;
}

/// Warns when a declared box lies where the numerical shift has not been subtracted from it.
void checkNumericalShift(const CreativeArrayBase& creator, const BoundingBox& box) {
    const auto chunk = creator.getTypedAttribute<Orvix::FixedArray<double, 3>>("Vantle::NumericalShift");
    if (!chunk || chunk->elements() == 0) return;
    const Orvix::FixedArray<double, 3> numbers = chunk->base_vector()[0];
    if (numbers == Orvix::FixedArray<double, 3>()) return;
    const PhysicalSpace::vector shift(numbers);
    if (BoundingBox(box.minCoord() + shift, box.maxCoord() + shift).inside(PhysicalSpace::point(shift * 2.0), 'z'))
        Hestra::Console::puts(
            "\t\tWARNING: numerical shift and bbox are similar size - maybe frag bboxes are corrupt?");
}

enum class DataBox { Found, NoPoints, Unsupported, Sliced };

DataBox boxOfData(const StrongPtr<MemBase>& data, BoundingBox& box) {
    bool isSliced = false;
    const auto embrace = [&](const auto& points) {
        isSliced = !points.hasOwnStorage();
        if (!isSliced) embraceAll(box, points.getIterator());
    };
    if (!withTypedArray(TypeList<PhysicalSpace::point, FloatPoint>(), data, embrace)) {
        const detail::FragmentCoordinates coordinates(data);
        if (!coordinates.isKnown()) return DataBox::Unsupported;
        coordinates.visitProducts([&](const auto& product) { embraceEnds(box, product); });
    }
    if (isSliced) return DataBox::Sliced;
    return box.isEmpty() ? DataBox::NoPoints : DataBox::Found;
}

void attach(CreativeArrayBase& creator, const StrongPtr<BoundingBox>& box) {
    creator.addInterface(box);
    BoxRecord::attach(creator, box, Hestra::Freshness(&creator));
}

/// The box attached to the creator, unless it is empty, or of ours and older than the data.
StrongPtr<BoundingBox> currentBox(const CreativeArrayBase& creator) {
    StrongPtr<BoundingBox> box = attachedBox(creator);
    if (!box || box->isEmpty()) return nullptr;
    return BoxRecord::isFresh(creator, box, &creator) ? box : nullptr;
}

/// The field's box: the attached one while it is fresh, else from the fragments, attached to the field.
StrongPtr<BoundingBox> boxOf(Field& field) {
    StrongPtr<BoundingBox> box = attachedBox(field);
    if (const auto record = field.findInterface<BoxRecord>(); box && record && record->freshness.isFor(&field))
        return box;

    const Hestra::Profiler scope("baseop/ExpandBBox", __LINE__, "BBoxExpander::expand(field, result)",
                                 __PRETTY_FUNCTION__);
    BBoxExpander fragments;
    field.iterate(fragments);
    box = fragments.box();
    if (!box) return nullptr;
    field.addInterface(box);
    BoxRecord::attach(field, box, Hestra::Freshness(&field));
    return box;
}

/// The unfragmented positions if they are a uniform direct product. They are made only if they may be.
StrongPtr<detail::UniformCoordinates> uniformPositions(const Field& field) {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(nullptr);
    if (!creator) return nullptr;
    const VantleTypeIndex type = creator->elementType();
    const int rank = getSize(*creator).rank();
    if ((type != typeid(void) && type != typeid(PhysicalSpace::point)) || (rank != 0 && rank != 3)) return nullptr;
    return Hestra::dynamicCast<detail::UniformCoordinates>(creator->getData());
}

} // namespace

StrongPtr<BoundingBox> ComputeBBox(const StrongPtr<MemBase>& array) {
    const Hestra::Profiler scope("baseop/ExpandBBox", __LINE__, "ComputeBBox(array)", __PRETTY_FUNCTION__);
    const Hestra::Ref<BoundingBox> box = Hestra::makeRef<BoundingBox>();
    if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(array.rawptr()))
        embraceEnds(*box, *uniform);
    else if (!withTypedArray(TypeList<PhysicalSpace::point>(), array,
                             [&](const auto& points) { embraceAll(*box, points.getIterator()); }))
        return nullptr;
    box->updateBall();
    return box;
}

bool ExpandBBox(StrongPtr<BoundingBox>& box, CreativeArrayBase& creator, DataCreationMode mode) {
    if (const StrongPtr<BoundingBox> known = currentBox(creator)) {
        widen(box, *known);
        return true;
    }

    const Hestra::Profiler scope("baseop/ExpandBBox", __LINE__, "ExpandBBox(box, creator, mode)", __PRETTY_FUNCTION__);
    if (!declaredRangesIgnored)
        if (const StrongPtr<BoundingBox> declared = declaredBox(creator)) {
            checkNumericalShift(creator, *declared);
            attach(creator, declared);
            widen(box, *declared);
            return true;
        }

    const StrongPtr<MemBase> data = mode == CreateData ? creator.getData() : creator.cachedData();
    if (!data) return false;
    const Hestra::Ref<BoundingBox> computed = Hestra::makeRef<BoundingBox>();
    switch (boxOfData(data, *computed)) {
    case DataBox::Found:
        break;
    case DataBox::NoPoints:
        return true;
    case DataBox::Unsupported:
        return false;
    case DataBox::Sliced:
        Hestra::Console::puts("baseop/ExpandBBoxVBoundingBox::FieldState::determineBoundingBox():  "
                              "SORRY! Sliced Data Access not yet implemented!");
        box = nullptr;
        return false;
    }
    computed->updateBall();
    creator.setAge(Hestra::Ageable::GlobalTime);
    attach(creator, computed);
    widen(box, *computed);
    return true;
}

BBoxExpander::BBoxExpander(const StrongPtr<BoundingBall>& start) {
    if (!start) return;
    if (const auto box = Hestra::dynamicCast<BoundingBox>(start)) {
        myBox = Hestra::makeRef<BoundingBox>(*box);
    } else {
        const PhysicalSpace::vector radius(start->radius(), start->radius(), start->radius());
        myBox = Hestra::makeRef<BoundingBox>(start->center() - radius, start->center() + radius);
    }
}

BBoxExpander::BBoxExpander(Field& field) {
    StrongPtr<BoundingBox> result;
    expand(field, result);
}

BBoxExpander::~BBoxExpander() = default;

bool BBoxExpander::apply(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
    return !creator || ExpandBBox(myBox, *creator, CreateData);
}

bool BBoxExpander::expand(Field& field, StrongPtr<BoundingBox>& result) {
    if (const StrongPtr<BoundingBox> box = boxOf(field)) {
        widen(result, *box);
        widen(myBox, *box);
    }
    return true;
}

bool expandBoundingBox(StrongPtr<BoundingBox>& box, const StrongPtr<Field>& field) {
    if (!field) return false;
    if (const StrongPtr<BoundingBox> known = boxOf(*field)) widen(box, *known);
    return true;
}

bool expandBoundingBox(const StrongPtr<Field>& field, StrongPtr<BoundingBox>& box) {
    return expandBoundingBox(box, field);
}

StrongPtr<BoundingBox> getBoundingBox(Field& field) {
    StrongPtr<BoundingBox> box;
    if (const StrongPtr<BoundingBox> known = boxOf(field)) widen(box, *known);
    return box;
}

StrongPtr<BoundingBox> getBoundingBox(const StrongPtr<Field>& field) {
    return field ? getBoundingBox(*field) : nullptr;
}

StrongPtr<BoundingBox> getBoundingBox(const StrongPtr<Representation>& representation) {
    return representation ? getBoundingBox(representation->Positions()) : nullptr;
}

StrongPtr<BoundingBox> getBoundingBox(const StrongPtr<Skeleton>& skeleton, const StrongPtr<Chart>& chart) {
    if (!skeleton || !chart) return nullptr;
    return getBoundingBox(skeleton->findRepresentation(*chart));
}

StrongPtr<BoundingBox> getBoundingBox(const Grid& grid, const StrongPtr<Chart>& chart) {
    return getBoundingBox(grid.findVertices(~0), chart);
}

StrongPtr<BoundingBox> getFragmentBBox(const StrongPtr<FragmentID>& fragment,
                                       const StrongPtr<CreativeArrayBase>& creator, const Field& field) {
    const auto place = fragment ? fragment->findInterface<FragmentLocation<3, IndexOffset>>() : nullptr;
    const auto positions = place ? uniformPositions(field) : nullptr;
    if (!positions) {
        StrongPtr<BoundingBox> box;
        if (creator) ExpandBBox(box, *creator, CreateData);
        return box;
    }

    MultiIndex<3> size;
    if (!creator || !makeSizeInterface(size, *creator)) {
        Hestra::Console::puts("getFragmentBBox(): Cannot retrieve fragment dimensions");
        return nullptr;
    }
    if (size.product() == 0) return nullptr;
    PhysicalSpace::point corner;
    const Hestra::Ref<BoundingBox> box = Hestra::makeRef<BoundingBox>();
    positions->retrieve(corner, place->offset());
    box->embrace(corner);
    positions->retrieve(corner, place->offset() + size - 1);
    box->embrace(corner);
    box->updateBall();
    return box;
}

} // namespace Vantle
