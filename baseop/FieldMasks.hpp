#pragma once
/// Masks of vertices or cells that follow fields: where these are numbers, and where they are within a range.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/Blanking.hpp>

#include <limits>

namespace Vantle {

/// A mask that follows a field: an element is valid if it is a number, and a vector or point if its components are.
/// Infinities are numbers. To be set as one of the masks of a grid, of this or of another one with equal fragments.
///
/// The result is derived lazily (`DerivedField`) and may be dropped from the cache at any time.
/// Failure  null for a null handle; std::invalid_argument for other elements than numbers, vectors and points, when it
///          is known that there are such.
/// Cost     one pass over the values and the mask of a fragment, when it is asked for.
///
/// @param cache   holds what is made.
/// @param within  if given, what its vertex mask says to be invalid is so here, too; it is followed like the values.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeMaskOfNumbers(const Hestra::StrongPtr<Field>& values, const Hestra::StrongPtr<Representation>& within = {},
                  const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());
/// The same of a field of numbers: valid from `least` to `greatest`, both included.
///
/// Cost     of blocks of rank 3 with 2^16 elements or more, extremes of bricks are found, as by `DataRange::compute`,
///          or known, and only bricks that an end of the range goes through are read.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeMaskOfRange(const Hestra::StrongPtr<Field>& values, double least,
                double greatest = std::numeric_limits<double>::infinity(),
                const Hestra::StrongPtr<Representation>& within = {},
                const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

} // namespace Vantle
