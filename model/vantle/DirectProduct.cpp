#include <model/vantle/DirectProduct.hpp>

namespace Vantle {

template class DirectProductMemArrayBase<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;
template class DirectProductMemArrayBase<Orvix::FixedArray<double, 3>, ExplicitCoordinateAxisArray, 3>;
template class DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3>;
template class DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
template class DirectProductMemArray<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;

namespace {

using Axes = UniformCartesianArray::Axes;
using Linear = LinearCoordinateAxisArray<double>;
using Orvix::PhysicalSpace;

Axes spanningAxes(const PhysicalSpace::point& first, const PhysicalSpace::point& last, const MultiIndex<3>& counts) {
    return {Linear::spanning(first[0], last[0], counts[0]), Linear::spanning(first[1], last[1], counts[1]),
            Linear::spanning(first[2], last[2], counts[2])};
}

Orvix::BoundingBox boxOf(const PhysicalSpace::point& a, const PhysicalSpace::point& b) {
    Orvix::BoundingBox box;
    box.embrace(a);
    box.embrace(b);
    box.updateBall();
    return box;
}

} // namespace

UniformCartesianArray::UniformCartesianArray(const Orvix::BoundingBox& box, const MultiIndex<3>& counts,
                                             const Creator& creator)
    : MemBase(typeid(point), creator),
      DirectProductMemArray(spanningAxes(box.minCoord(), box.maxCoord(), counts), creator), myBox(box) {}

UniformCartesianArray::UniformCartesianArray(const point& origin, const MultiIndex<3>& counts, const point& end,
                                             const Creator& creator)
    : MemBase(typeid(point), creator), DirectProductMemArray(spanningAxes(origin, end, counts), creator),
      myBox(boxOf(origin, end)) {}

UniformCartesianArray::UniformCartesianArray(const MultiIndex<3>& counts, const point& origin, const vector& spacing,
                                             const Creator& creator)
    : MemBase(typeid(point), creator),
      DirectProductMemArray(Axes{Linear(origin[0], spacing[0], counts[0]), Linear(origin[1], spacing[1], counts[1]),
                                 Linear(origin[2], spacing[2], counts[2])},
                            creator),
      myBox(nElements() ? boxOf(first(), last()) : Orvix::BoundingBox()) {}

UniformCartesianArray::~UniformCartesianArray() = default;

} // namespace Vantle
