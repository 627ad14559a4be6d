#pragma once
/// Polygons in the x-y plane, clipped and tested, and the way of a ray out of a box.

#include <model/orvix/BoundingBox.hpp>

#include <vector>

namespace Orvix {

/// The part of a polygon on the inner side of one side of a box, in the x-y plane: below the top (greatest y),
/// above the bottom (least y), right of the left (least x), left of the right side (greatest x).
///
/// Returns the vertices in the order of the polygon, which is closed from the last to the first; a vertex on the
/// side belongs to it. New vertices lie on the side exactly, their other coordinates (z too) are interpolated, and
/// are the same for both polygons that share an edge. Exact for convex polygons; of others, separate pieces come
/// out connected along the side.
/// Degenerate  an empty box leaves nothing; nor does a polygon wholly outside. Vertices with NaN are dropped.
/// Cost        linear.
/// Source      I. E. Sutherland, G. W. Hodgman: Reentrant polygon clipping (1974), doi:10.1145/360767.360802
[[nodiscard]] VANTLE_MODEL_API std::vector<PhysicalSpace::point>
clipping_top(const std::vector<PhysicalSpace::point>& polygon, const BoundingBox& box);
[[nodiscard]] VANTLE_MODEL_API std::vector<PhysicalSpace::point>
clipping_bottom(const std::vector<PhysicalSpace::point>& polygon, const BoundingBox& box);
[[nodiscard]] VANTLE_MODEL_API std::vector<PhysicalSpace::point>
clipping_left(const std::vector<PhysicalSpace::point>& polygon, const BoundingBox& box);
[[nodiscard]] VANTLE_MODEL_API std::vector<PhysicalSpace::point>
clipping_right(const std::vector<PhysicalSpace::point>& polygon, const BoundingBox& box);

/// The side of the line from `a` to `b`, in the x-y plane, on which `c` lies: +1 left, -1 right, 0 within
/// `tolerance` (a distance) of the line.
///
/// Degenerate  0 when `a` and `b` coincide, and for NaN.
[[nodiscard]] VANTLE_MODEL_API int crossProdTest(const PhysicalSpace::point& a, const PhysicalSpace::point& b,
                                                 const PhysicalSpace::point& c, const double& tolerance);

/// Whether `p` is in a polygon, in the x-y plane: within `tolerance` (a distance) of its boundary, or wound around
/// by it a number of times that is not zero.
///
/// Laws        neither the direction nor the first vertex of the polygon matters.
/// Degenerate  nothing is in an empty polygon; one or two vertices are a point or a segment, all boundary. NaN is
///             outside.
/// Cost        linear.
[[nodiscard]] VANTLE_MODEL_API bool pointInPolygon(const PhysicalSpace::point& p,
                                                   const std::vector<PhysicalSpace::point>& polygon,
                                                   const double& tolerance);

/// Where a ray that starts in a closed box leaves it: true, `exit` the greatest t with origin + t * direction in
/// the box, and `where` that point, exactly on the face that it leaves through and never outside the box.
///
/// Degenerate  false, with the results untouched, when the origin is not in the box, or the direction is zero, or
///             either has a NaN. An origin on a face with the direction outward leaves at t = 0.
[[nodiscard]] VANTLE_MODEL_API bool innerRayCubicIntersect(const PhysicalSpace::point& origin,
                                                           const PhysicalSpace::vector& direction,
                                                           const BoundingBox& box, double& exit,
                                                           PhysicalSpace::point& where);

} // namespace Orvix
