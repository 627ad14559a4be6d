#pragma once
/// Cells of a uniform lattice: in which one a position lies, and whether it lies off the margin that cells share.
///
/// A lattice is an origin, a spacing for each axis, and a number of cells on each axis. Cell (0, 0, 0) begins at the
/// origin. All functions are free of state and safe to call from any thread.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Index.hpp>

namespace Vantle {

/// Whether `P` lies in the lattice, and in which of its cells.
///
/// A cell owns its lower faces; the upper faces of the lattice are outside.
/// @param cell  the cell. Written axis by axis before the axis is judged: it means nothing after false.
/// Degenerate   false for NaN. A spacing of 0 puts everything but the origin's plane, which is NaN, beyond the lattice;
///              a negative one turns the axis around.
[[nodiscard]] VANTLE_BASEOP_API bool uniformCellFromPosition(const Orvix::PhysicalSpace::point& P,
                                                             const Orvix::PhysicalSpace::point& origin,
                                                             const Orvix::PhysicalSpace::vector& spacing,
                                                             const MultiIndex<3>& counts, MultiIndex<3>& cell);

/// The same for a lattice that begins at the least corner of `box`, with one spacing for all axes.
///
/// Failure  a null box ends the process with status 0, after a message. This is on purpose: callers count on it.
[[nodiscard]] VANTLE_BASEOP_API bool uniformCellFromPosition(const Orvix::PhysicalSpace::point& P,
                                                             const Hestra::StrongPtr<Orvix::BoundingBox>& box,
                                                             const double& spacing, const MultiIndex<3>& counts,
                                                             MultiIndex<3>& cell);

/// Whether `P` lies in the inner region of a cell: at least `ghost` above its lower faces, and not above its upper
/// faces, which are part of it.
///
/// The margin is taken off the lower side only. That asymmetry is on purpose: the margin at the upper side is the lower
/// one of the next cell. The upper corner is computed from the inner lower one, as A + spacing - ghost.
/// Degenerate  a margin wider than the cell leaves no inner region; false for NaN.
[[nodiscard]] VANTLE_BASEOP_API bool isPositionInInnerRegion(const Orvix::PhysicalSpace::point& P,
                                                             const Orvix::PhysicalSpace::point& origin,
                                                             const Orvix::PhysicalSpace::vector& spacing,
                                                             const MultiIndex<3>& cell, double ghost);

} // namespace Vantle
