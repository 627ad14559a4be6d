#pragma once
/// Arrays made from existing data: over a chunk, or by gathering elements.

#include <model/vantle/MemBase.hpp>

namespace Vantle {

/// Sets `result` to an array over `chunk`, which it shares; the element type is that of the chunk.
///
/// `size` counts elements, in whole blocks of `blockLength`. The chunk may be longer.
/// Failure  false and a null `result` when the chunk is null, too short or of an element type that is not
///          registered, when the blocks do not come out even, or when the rank is not available.
VANTLE_MODEL_API bool pullData(Hestra::StrongPtr<MemBase>& result, const Hestra::StrongPtr<Hestra::ChunkBase>& chunk,
                               const DynamicSize& size, index_t blockLength = 1);

/// Sets `result` to a new array of copies: block k of it (of `blockLength` elements) is block indices[k] of `source`.
///
/// Failure  false and a null `result` when the source is null, an index is beyond its last whole block, or `size`
///          has not exactly the number of elements that the indices select.
/// Cost     one pass over the indices to check them, one to copy.
VANTLE_MODEL_API bool pullData(Hestra::StrongPtr<MemBase>& result, const Hestra::StrongPtr<MemBase>& source,
                               const TypedArray<index_t>& indices, const DynamicSize& size, index_t blockLength = 1);

} // namespace Vantle
