#pragma once
/// Points and vectors in single precision, as most files have them, taken where points and vectors are.

#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

using FloatPoint = Orvix::Coordinates<Orvix::Cartesian3D, float>::point;
using FloatVector = Orvix::Coordinates<Orvix::Cartesian3D, float>::vector;

/// The type that elements in single precision are computed with: points and vectors in double precision for such in
/// single precision, every other type itself.
[[nodiscard]] VANTLE_MODEL_API VantleTypeIndex inDoublePrecision(const VantleTypeIndex& type) noexcept;

/// A new array of the same extents with the points or vectors of `data`; null unless they are in single precision.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<MemBase>
convertToDoublePrecision(const MemBase& data, const Hestra::WeakPtr<CreativeArrayBase>& creator = {});

/// A creator of the same in the place of another one, which stays alive with it: converts when it is first asked, and
/// again when what it made was dropped from the cache or became older than its source. Without a cache, it is kept.
/// Data in double precision are the source's own.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<CreativeArray>
inDoublePrecision(const Hestra::StrongPtr<CreativeArrayBase>& creator,
                  const Hestra::WeakPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

/// The data of a creator, as by `getData`, but points and vectors in double precision: what operations read.
///
/// What was converted is attached to the creator, lies in its cache, or in `Cache::MemCache()` without one, may be
/// dropped, and is made again when the creator has become newer or it was dropped. The creator's own data stay as they
/// are. Concurrency  as of `getData`: from any number of threads, converted once. Cost         that of `getData`,
/// unless there is something to convert.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<MemBase> getDataInDoublePrecision(CreativeArrayBase& creator);
/// The same of a fragment of a field; null when there is none.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<MemBase>
getDataInDoublePrecision(const Field& field, const Hestra::StrongPtr<FragmentID>& id = {});

} // namespace Vantle
