#include <baseop/ExactCellLocator.hpp>
#include <baseop/detail/BlockVertices.hpp>
#include <baseop/detail/TrilinearCell.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>

#define VANTLE_SCOPE(signature)                                                                                        \
    const Hestra::Profiler profiler("baseop/ExactCellLocator", __LINE__, signature, __PRETTY_FUNCTION__)

namespace Vantle {

struct ExactCellLocator::Search {};

ExactCellLocator::ExactCellLocator(const Hestra::StrongPtr<CoordsArray_t>& coordinates) : myCoordinates(coordinates) {
    VANTLE_SCOPE("ExactCellLocator::ExactCellLocator()");
}

ExactCellLocator::~ExactCellLocator() = default;

unsigned int ExactCellLocator::locate(const point& P, point& uvw, MultiIndex3* cell) const {
    VANTLE_SCOPE("ExactCellLocator::locate(P, uvw)");
    if (!myCoordinates) return 0;
    const detail::BlockVertices vertices(*myCoordinates);
    MultiIndex3 candidate;
    if (vertices.cells().product() == 0) return 0;
    do {
        const double* const lowest = vertices.address(candidate);
        bool isNear = true;
        for (int d = 0; d < 3 && isNear; ++d) {
            double low = lowest[d], high = lowest[d];
            for (int q = 1; q < 8; ++q) {
                low = std::min(low, vertices.corner(lowest, q)[d]);
                high = std::max(high, vertices.corner(lowest, q)[d]);
            }
            const double slack = 1e-9 * (high - low);
            isNear = P[d] >= low - slack && P[d] <= high + slack;
        }
        Orvix::PhysicalSpace::vector d;
        if (!isNear || !detail::TrilinearCell(vertices, lowest, P).solve(d)) continue;
        for (int i = 0; i < 3; ++i) uvw[i] = static_cast<double>(candidate[i]) + (d[i] + 0.5);
        if (cell) *cell = candidate;
        return 1;
    } while (candidate.advance(vertices.cells()));
    return 0;
}

} // namespace Vantle
