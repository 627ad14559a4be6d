#pragma once
/// Quantities that follow from a field vertex by vertex, as fields that are derived when they are asked for.
///
/// The results are over the same fragments, follow their source while that lives (`DerivedField`), are dropped by the
/// cache, and made again. With a null cache they are kept.
/// Failure      null for a null handle. Fragments of other elements than are named have no data.
/// Concurrency  as of every field.
/// Cost         one pass over the source for each fragment that is asked for.

#include <baseop/BaseOpExport.hpp>
#include <model/hestra/Cache.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Field.hpp>

namespace Vantle {

/// The lengths of vectors.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeMagnitude(const Hestra::StrongPtr<Field>& vectors,
              const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

// Of the derivative of a field of vectors: tensors whose row m is the derivative along axis m, see `WorldDerivative`.

/// The curl, a field of vectors.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeVorticity(const Hestra::StrongPtr<Field>& gradient,
              const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeDivergence(const Hestra::StrongPtr<Field>& gradient,
               const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());
/// Half of the difference of the squared norms of the antisymmetric and the symmetric part: greater than 0 where
/// rotation prevails over strain.
///
/// Source  Hunt, Wray, Moin: Eddies, streams, and convergence zones in turbulent flows. CTR-S88, 1988.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Field>
makeQCriterion(const Hestra::StrongPtr<Field>& gradient,
               const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

} // namespace Vantle
