#pragma once

/// An exact solution: the potential flow past a cylinder, stretched along the cylinder's axis.
///
/// Uniform flow along x meets a cylinder of radius 1 about the z axis; it is drawn out along z and drawn in towards the
/// axis at the rate kStrain, with a source in the axis that keeps it tangential to the cylinder's wall:
///
///   potential = x + x / r^2 + kStrain * (z^2 - r^2 / 2 + log r),    r^2 = x^2 + y^2
///
/// So it has no divergence and no vorticity, and the plane z = 0 is a plane of symmetry.

#include "DataSet.hpp"

namespace tour {

namespace CylinderFlow {

inline constexpr double kStrain = 0.12;
inline constexpr double kInnerRadius = 1.0; ///< That of the cylinder.
inline constexpr double kOuterRadius = 4.0;
inline constexpr double kHeight = 2.5; ///< The blocks reach from z = 0 up to here.

Space::vector velocity(const Space::point& p);
Gradient velocityGradient(const Space::point& p);
double potential(const Space::point& p);
double speed(const Space::point& p);
/// The pressure coefficient, by the law of Bernoulli: 1 where the flow comes to rest.
double pressure(const Space::point& p);

} // namespace CylinderFlow

/// How finely the space around the cylinder is cut: blocks around it, cells of each block around, across and along.
struct RingCells {
    Vantle::index_t blocks = 8, around = 16, across = 32, along = 24;
    [[nodiscard]] RingCells refined() const { return {blocks, 2 * around, 2 * across, 2 * along}; }
};

/// The ring of blocks around the cylinder. All blocks are pieces of one index space, whose first axis goes around the
/// cylinder, the second outwards, the third along the axis. Cells shrink towards the wall and are twisted in between,
/// so that their edges are not parallel and their faces not plane; the border of the ring is not twisted.
///
/// Neighbouring blocks share the vertices of their common face: same place in the index space, same coordinates. The
/// ring closes, but the index space does not: the last face of the last block has other indices than the first face of
/// the first block, though the same coordinates to the last bit. What is merged by index stays doubled there, and only
/// there; joins close it.
class Ring {
public:
    explicit Ring(const RingCells& cells) : cells_(cells) {}

    /// Vertex (i, j, k) of the common index space.
    [[nodiscard]] Space::point vertex(Vantle::index_t i, Vantle::index_t j, Vantle::index_t k) const;
    /// Whether p lies in one of the cells. They fill the prism between two regular polygons, whatever their twist.
    [[nodiscard]] bool isInside(const Space::point& p) const;
    [[nodiscard]] const RingCells& cells() const noexcept { return cells_; }

private:
    RingCells cells_;
};

/// The flow on the ring: scalars "speed", "pressure" and "potential", vector "velocity".
DataSet makeCylinderFlow(const RingCells& cells);

} // namespace tour
