#pragma once

/// An exact solution: the potential flow past a cylinder, stretched along the cylinder's axis.
///
/// Uniform flow along x meets a cylinder of radius 1 about the z axis; it is drawn out along z and drawn in towards the
/// axis at the rate kStrain, with a source in the axis that keeps it tangential to the cylinder's wall:
///
///   potential = x + x / r^2 + kStrain * (z^2 - r^2 / 2 + log r),    r^2 = x^2 + y^2
///
/// So it has no divergence and no vorticity, and the plane z = 0 is a plane of symmetry.

#include "Tour.hpp"

namespace tour {

namespace CylinderFlow {

inline constexpr double kStrain = 0.12;

Vector velocity(const Point& p);
Gradient velocityGradient(const Point& p);
double potential(const Point& p);
double speed(const Point& p);
/// The pressure coefficient, by the law of Bernoulli: 1 where the flow comes to rest.
double pressure(const Point& p);

} // namespace CylinderFlow

/// How finely the space around the cylinder is cut: blocks around it, cells of each block around, across and along.
struct RingCells {
    Vantle::index_t blocks = 8, around = 16, across = 32, along = 24;
    [[nodiscard]] RingCells refined() const { return {blocks, 2 * around, 2 * across, 2 * along}; }
};

/// The flow on a ring of blocks around the cylinder: scalars "speed", "pressure" and "potential", vector "velocity".
///
/// The first axis of the blocks goes around the cylinder, the second outwards, the third along the axis. Cells shrink
/// towards the wall and are twisted in between, so that their edges are not parallel and their faces not plane; the
/// border of the ring is not twisted. Common vertices of neighbouring blocks are equal to the last bit.
Flow makeCylinderFlow(const RingCells& cells);

} // namespace tour
