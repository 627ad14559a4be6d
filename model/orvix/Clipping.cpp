#include <model/orvix/Clipping.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Orvix {

namespace {

using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;

/// Keeps the part of the polygon with sign * coordinate <= sign * side.
std::vector<point> clip(const std::vector<point>& polygon, const BoundingBox& box, int axis, double side, double sign) {
    std::vector<point> result;
    if (box.isEmpty() || polygon.empty()) return result;
    result.reserve(polygon.size() + 2);
    const auto isInside = [&](const point& p) { return sign * p[axis] <= sign * side; };
    // Always from the inner end, so that an edge is cut at the same point whatever its direction.
    const auto cut = [&](const point& inner, const point& outer) {
        const double t = (side - inner[axis]) / (outer[axis] - inner[axis]);
        point p = inner + (outer - inner) * t;
        p[axis] = side;
        return p;
    };
    const point* previous = &polygon.back();
    bool previousInside = isInside(*previous);
    for (const point& current : polygon) {
        const bool currentInside = isInside(current);
        if (currentInside != previousInside) {
            const point& inner = currentInside ? current : *previous;
            const point& outer = currentInside ? *previous : current;
            // A vertex on the side is the cut itself, and not repeated.
            if (inner[axis] != side && outer[axis] == outer[axis]) result.push_back(cut(inner, outer));
        }
        if (currentInside) result.push_back(current);
        previous = &current;
        previousInside = currentInside;
    }
    return result;
}

/// Twice the signed area of the triangle, positive counter-clockwise.
double crossProduct(const point& a, const point& b, const point& c) {
    return (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
}

double distanceToSegment(const point& p, const point& a, const point& b) {
    const double dx = b[0] - a[0], dy = b[1] - a[1];
    const double px = p[0] - a[0], py = p[1] - a[1];
    const double lengthSquared = dx * dx + dy * dy;
    const double t = lengthSquared > 0.0 ? std::clamp((px * dx + py * dy) / lengthSquared, 0.0, 1.0) : 0.0;
    return std::hypot(px - t * dx, py - t * dy);
}

} // namespace

std::vector<point> clipping_top(const std::vector<point>& polygon, const BoundingBox& box) {
    return clip(polygon, box, 1, box.maxCoord()[1], 1.0);
}
std::vector<point> clipping_bottom(const std::vector<point>& polygon, const BoundingBox& box) {
    return clip(polygon, box, 1, box.minCoord()[1], -1.0);
}
std::vector<point> clipping_left(const std::vector<point>& polygon, const BoundingBox& box) {
    return clip(polygon, box, 0, box.minCoord()[0], -1.0);
}
std::vector<point> clipping_right(const std::vector<point>& polygon, const BoundingBox& box) {
    return clip(polygon, box, 0, box.maxCoord()[0], 1.0);
}

int crossProdTest(const point& a, const point& b, const point& c, const double& tolerance) {
    const double cross = crossProduct(a, b, c);
    const double limit = tolerance * std::hypot(b[0] - a[0], b[1] - a[1]);
    return cross > limit ? 1 : cross < -limit ? -1 : 0;
}

bool pointInPolygon(const point& p, const std::vector<point>& polygon, const double& tolerance) {
    if (polygon.empty()) return false;
    int winding = 0;
    const point* a = &polygon.back();
    for (const point& b : polygon) {
        if (distanceToSegment(p, *a, b) <= tolerance) return true;
        // Half-open in y, so that a vertex level with the point counts for one of its two edges.
        if ((*a)[1] <= p[1] && b[1] > p[1])
            winding += crossProduct(*a, b, p) > 0.0;
        else if ((*a)[1] > p[1] && b[1] <= p[1])
            winding -= crossProduct(*a, b, p) < 0.0;
        a = &b;
    }
    return winding != 0;
}

bool innerRayCubicIntersect(const point& origin, const vector& direction, const BoundingBox& box, double& exit,
                            point& where) {
    if (!box.inside(origin)) return false;
    double least = std::numeric_limits<double>::infinity();
    int face = -1;
    for (int axis = 0; axis < 3; ++axis) {
        const double d = direction[axis];
        if (d != d) return false;
        if (d == 0.0) continue;
        const double t = ((d > 0.0 ? box.maxCoord()[axis] : box.minCoord()[axis]) - origin[axis]) / d;
        if (face < 0 || t < least) {
            least = t;
            face = axis;
        }
    }
    if (face < 0) return false;
    exit = least;
    for (int axis = 0; axis < 3; ++axis) {
        const double moved = direction[axis] == 0.0 ? origin[axis] : origin[axis] + direction[axis] * least;
        where[axis] = std::clamp(moved, box.minCoord()[axis], box.maxCoord()[axis]);
    }
    where[face] = direction[face] > 0.0 ? box.maxCoord()[face] : box.minCoord()[face];
    return true;
}

} // namespace Orvix
