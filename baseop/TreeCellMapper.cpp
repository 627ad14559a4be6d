#include <baseop/TreeCellMapper.hpp>
#include <baseop/detail/location/BlockVertices.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>

using Hestra::Profiler;
using Vantle::index_t;
using Vantle::MultiArrayBase;
using Vantle::detail::BlockVertices;

#define VANTLE_SCOPE(signature)                                                                                        \
    const Profiler profiler("baseop/TreeCellMapper", __LINE__, signature, __PRETTY_FUNCTION__)

TreeCellMapper::TreeCellMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, const tvector& scale,
                               double epsilon, unsigned int stride)
    : myCoordinates(coordinates), myTree(Hestra::makeRef<Tree>()), myEpsilon(epsilon),
      myStride(stride ? stride : DefaultStride), myScale(scale) {
    VANTLE_SCOPE("TreeCellMapper::TreeCellMapper()");
    if (!myCoordinates) return;
    const BlockVertices vertices(*myCoordinates);
    const MultiIndex3 cells = vertices.cells();
    const index_t count = cells.product();
    if (count != 0) {
        myLastCell = cells - 1;
        MultiIndex3 cell;
        do {
            const double* const lowest = vertices.address(cell);
            for (int axis = 0; axis < 3; ++axis)
                maxVec(myMaximalLength, myMaximalExtents,
                       vertices.point(lowest + vertices.step(axis)) - vertices.point(lowest));
        } while (cell.advance(cells));
    }
    myCoordinates->addInterface(Hestra::makeRef<Orvix::KDInterface<3, MultiIndex3>>(myTree));
    myTree->reserve(count);
    for (index_t offset = 0; offset < myStride && offset < count; ++offset)
        for (index_t n = offset; n < count; n += myStride) {
            const MultiIndex3 cell = MultiIndex3::fromLinear(n, cells);
            const double* const lowest = vertices.address(cell);
            const point p = vertices.point(lowest);
            const vector diagonal = vertices.point(vertices.corner(lowest, 7)) - p;
            myTree->insert(p + 0.5 * diagonal, cell);
        }
    myTree->pack();
}

TreeCellMapper::~TreeCellMapper() = default;

namespace {

/// Moves coordinates in a cell out of its blanked neighbours. True if they were in one.
bool moveToValid(TreeCellMapper::point& uvw, const TreeCellMapper::MultiIndex3& cell, const Vantle::BlockMask& mask) {
    TreeCellMapper::point place = uvw;
    for (int d = 0; d < 3; ++d) place[d] += static_cast<double>(cell[d]);
    if (mask.has(place)) return false;
    for (int d = 0; d < 3; ++d) uvw[d] = std::clamp(uvw[d], 0.0, 1.0);
    return true;
}

} // namespace

void TreeCellMapper::maxVec(double& maximalLength, vector& maximalExtents, const vector& edge) {
    for (int d = 0; d < 3; ++d) maximalExtents[d] = std::max(maximalExtents[d], std::fabs(edge[d]));
    const double edgeLength = length(edge);
    if (edgeLength > maximalLength) maximalLength = edgeLength;
}

unsigned int TreeCellMapper::localCoordinates(point& uvw, tvector& extent, const point& P, MultiIndex3* foundCell,
                                              const Vantle::BlockMask* mask) const {
    VANTLE_SCOPE("TreeCellMapper::localCoordinates(uvw, extent, P)");
    const vector halfWidths(myScale[0] * myMaximalExtents[0], myScale[1] * myMaximalExtents[1],
                            myScale[2] * myMaximalExtents[2]);
    if (myTree->empty()) return 0;
    const BlockVertices vertices(*myCoordinates);
    // The nearest cell that has the point; of several at one distance, the one visited first.
    double nearest = 0.0;
    bool isFound = false;
    MultiIndex3 found;
    point local;
    myTree->forEachInBox(P, halfWidths, [&](const MultiIndex3& cell, double distance) {
        if ((isFound && !(distance < nearest)) || (mask && !mask->isCellValid(cell)) ||
            !Vantle::detail::projectIntoCell(local, P, vertices, cell, myEpsilon))
            return;
        nearest = distance;
        isFound = true;
        found = cell;
        uvw = local;
    });
    if (!isFound) return 0;
    const bool isMoved = mask && moveToValid(uvw, found, *mask);
    return std::max(accept(uvw, extent, found, foundCell), isMoved ? 2U : 0U);
}

unsigned int TreeCellMapper::accept(point& uvw, tvector& extent, const MultiIndex3& cell,
                                    MultiIndex3* foundCell) const {
    const BlockVertices vertices(*myCoordinates);
    const double* const lowest = vertices.address(cell);
    const vector diagonal = vertices.point(vertices.corner(lowest, 7)) - vertices.point(lowest);
    extent = tvector(std::fabs(diagonal[0]), std::fabs(diagonal[1]), std::fabs(diagonal[2]));
    if (foundCell) *foundCell = cell;
    bool isClamped = false;
    for (int d = 0; d < 3; ++d) {
        if (cell[d] == 0 && uvw[d] < 0.0) {
            uvw[d] = 0.0;
            isClamped = true;
        } else if (cell[d] == myLastCell[d]) { // the coordinate in the cell, on purpose
            if (uvw[d] > 1.0) {
                uvw[d] = 1.0;
                isClamped = true;
            }
        } else {
            uvw[d] += static_cast<double>(cell[d]);
        }
    }
    return isClamped ? 2 : 1;
}
