#include <model/vantle/MemArray.hpp>
#include <model/vantle/PullData.hpp>

namespace Vantle {

using Hestra::StrongPtr;

bool pullData(StrongPtr<MemBase>& result, const StrongPtr<Hestra::ChunkBase>& chunk, const DynamicSize& size,
              index_t blockLength) {
    const StrongPtr<Hestra::ChunkBase> elements = chunk;
    result = nullptr;
    const auto total = size.checkedTotal();
    if (!elements || blockLength == 0 || !total || *total % blockLength != 0) return false;
    if (const auto allocator = MemBase::findAllocator(elements->element_type()))
        result = allocator->create(size, elements, {});
    return bool(result);
}

bool pullData(StrongPtr<MemBase>& result, const StrongPtr<MemBase>& source, const TypedArray<index_t>& indices,
              const DynamicSize& size, index_t blockLength) {
    result = source ? source->gather(indices, size, blockLength) : StrongPtr<MemBase>();
    return bool(result);
}

} // namespace Vantle
