#include <baseop/UniformCell.hpp>
#include <model/hestra/Console.hpp>

#include <cstdlib>

namespace Vantle {

using Orvix::PhysicalSpace;

bool uniformCellFromPosition(const PhysicalSpace::point& P, const PhysicalSpace::point& origin,
                             const PhysicalSpace::vector& spacing, const MultiIndex<3>& counts, MultiIndex<3>& cell) {
    constexpr double beyondEveryCount = 9223372036854775808.0; // 2^63: what is above need not fit an index
    for (int axis = 0; axis < 3; ++axis) {
        const double t = (P[axis] - origin[axis]) / spacing[axis];
        if (!(t >= 0)) return false;
        if (t >= beyondEveryCount) {
            cell[axis] = counts[axis];
            return false;
        }
        cell[axis] = static_cast<index_t>(t);
        if (cell[axis] >= counts[axis]) return false;
    }
    return true;
}

bool uniformCellFromPosition(const PhysicalSpace::point& P, const Hestra::StrongPtr<Orvix::BoundingBox>& box,
                             const double& spacing, const MultiIndex<3>& counts, MultiIndex<3>& cell) {
    if (!box) {
        Hestra::Console::puts("uniformCellFromPosition() No bounding box");
        std::exit(0);
    }
    return uniformCellFromPosition(P, box->minCoord(), {spacing, spacing, spacing}, counts, cell);
}

bool isPositionInInnerRegion(const PhysicalSpace::point& P, const PhysicalSpace::point& origin,
                             const PhysicalSpace::vector& spacing, const MultiIndex<3>& cell, double ghost) {
    PhysicalSpace::point lower, upper;
    for (int axis = 0; axis < 3; ++axis) {
        lower[axis] = origin[axis] + static_cast<double>(cell[axis]) * spacing[axis] + ghost;
        upper[axis] = lower[axis] + spacing[axis] - ghost;
    }
    return Orvix::BoundingBox(lower, upper).inside(P);
}

} // namespace Vantle
