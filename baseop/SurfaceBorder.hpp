#pragma once
/// The border of a surface.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/GridKinds.hpp>

namespace Vantle {

/// How many sides of triangles have no other one along the same two vertices in the opposite direction: 0 for a closed
/// surface whose triangles show the same side. Sides of no length, from a vertex to itself, do not count.
///
/// Cost  near-linear in the triangles; 8 bytes a triangle side and 16 a vertex meanwhile.
[[nodiscard]] VANTLE_BASEOP_API std::size_t countBorderEdges(const MemArray<1, Triangle>& triangles);

} // namespace Vantle
