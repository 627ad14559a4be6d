// The queries about cells at the border of a block.

#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/location/Narrator.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <array>
#include <limits>

#define VANTLE_SCOPE(name)                                                                                             \
    const Hestra::Profiler scope("baseop/LocalFromWorldPoint", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using detail::CurvilinearCoordinates;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

/// A face of a cell: its axis, and whether it is the upper one.
struct Face {
    int axis;
    bool isUpper;
};

/// The border faces of a cell among `cells`: lower before upper ones, axis 0 first. The number of them is returned.
int borderFaces(Face (&faces)[6], const MultiIndex<3>& cell, const MultiIndex<3>& cells) {
    int count = 0;
    for (const bool isUpper : {false, true})
        for (int axis = 0; axis < 3; ++axis)
            if (cell[axis] == (isUpper ? cells[axis] - 1 : 0)) faces[count++] = {axis, isUpper};
    return count;
}

/// The corners of a face: lowest, next along the following axis, highest, next along the axis after that.
std::array<PhysicalSpace::point, 4> cornersOf(const CurvilinearCoordinates& block, const MultiIndex<3>& cell,
                                              const Face& face) {
    MultiIndex<3> lowest = cell;
    if (face.isUpper) ++lowest[face.axis];
    const int one = (face.axis + 1) % 3, two = (face.axis + 2) % 3;
    const auto at = [&](index_t a, index_t b) {
        MultiIndex<3> index = lowest;
        index[one] += a;
        index[two] += b;
        return block[index];
    };
    return {at(0, 0), at(1, 0), at(1, 1), at(0, 1)};
}

/// False when the face has no area.
bool outwardNormal(const CurvilinearCoordinates& block, const MultiIndex<3>& cell, const Face& face,
                   PhysicalSpace::vector& normal) {
    const auto corners = cornersOf(block, cell, face);
    const auto opposite = cornersOf(block, cell, {face.axis, !face.isUpper});
    PhysicalSpace::vector n = cross(corners[2] - corners[0], corners[3] - corners[1]);
    PhysicalSpace::vector outward;
    for (std::size_t c = 0; c < 4; ++c) outward += corners[c] - opposite[c];
    if (dot(n, outward) < 0.0) n = -n; // also in left-handed blocks
    const double size = length(n);
    if (!(size > 0.0)) return false;
    normal = n / size;
    return true;
}

/// The ray's parameter where it meets a triangle, or infinity.
/// Source  T. Moeller, B. Trumbore: Fast, minimum storage ray/triangle intersection (1997),
///         doi:10.1080/10867651.1997.10487468
double meetTriangle(const PhysicalSpace::point& origin, const PhysicalSpace::vector& direction,
                    const PhysicalSpace::point& a, const PhysicalSpace::point& b, const PhysicalSpace::point& c) {
    constexpr double none = std::numeric_limits<double>::infinity();
    const PhysicalSpace::vector ab = b - a, ac = c - a, toOrigin = origin - a;
    const PhysicalSpace::vector h = cross(direction, ac);
    const double det = dot(ab, h);
    if (!(det != 0.0)) return none;
    const double u = dot(toOrigin, h) / det;
    const PhysicalSpace::vector q = cross(toOrigin, ab);
    const double v = dot(direction, q) / det;
    const double t = dot(ac, q) / det;
    return u >= 0.0 && v >= 0.0 && u + v <= 1.0 && t >= 0.0 ? t : none;
}

} // namespace

int LocalFromWorldPoint::numberOfBordersOfCell(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell) const {
    VANTLE_SCOPE("LocalFromWorldPoint::numberOfBordersOfCell()");
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    if (!block) {
        Hestra::Console::puts(detail::tell::noBlockForBorders);
        return 0;
    }
    Face faces[6];
    return borderFaces(faces, cell, block->Size() - 1);
}

bool LocalFromWorldPoint::getNormal(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell,
                                    vector& normal) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getNormal()");
    normal = vector();
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    Face faces[6];
    if (!block || borderFaces(faces, cell, block->Size() - 1) == 0) {
        Hestra::Console::puts(detail::tell::noBorderCell);
        return false;
    }
    return outwardNormal(*block, cell, faces[0], normal);
}

bool LocalFromWorldPoint::getBorderIntersectionNormal(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell,
                                                      const point& origin, const vector& direction,
                                                      vector& normal) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getBorderIntersectionNormal()");
    normal = vector();
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    if (!block) return false;
    Face faces[6];
    const int count = borderFaces(faces, cell, block->Size() - 1);
    double nearest = std::numeric_limits<double>::infinity();
    for (int n = 0; n < count; ++n) {
        const auto corners = cornersOf(*block, cell, faces[n]);
        const double t = std::min(meetTriangle(origin, direction, corners[0], corners[1], corners[2]),
                                  meetTriangle(origin, direction, corners[0], corners[2], corners[3]));
        if (t < nearest && outwardNormal(*block, cell, faces[n], normal)) nearest = t;
    }
    if (!(nearest < std::numeric_limits<double>::infinity())) {
        normal = vector();
        return false;
    }
    Hestra::Console::puts(detail::tell::intersection);
    return true;
}

} // namespace Vantle
