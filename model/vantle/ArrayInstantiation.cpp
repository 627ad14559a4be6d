#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

using Hestra::StrongPtr;

template class MemArrayBase<1>;
template class MemArrayBase<2>;
template class MemArrayBase<3>;
template class MemArrayBase<4>;

namespace detail {

bool canGather(const TypedArray<index_t>& indices, const DynamicSize& size, index_t blockLength, index_t available) {
    const index_t blocks = indices.nElements();
    const index_t product[] = {blocks, blockLength};
    if (blockLength == 0 || size.checkedTotal() != checkedProduct(product, 2)) return false;
    const index_t availableBlocks = available / blockLength;
    for (index_t k = 0; k < blocks; ++k)
        if (indices.element(k) >= availableBlocks) return false;
    return true;
}

} // namespace detail

namespace {

// Loading the library makes the listed types known.
template<class... T>
bool registerElementTypes(TypeList<T...>) {
    return (... && MemArrayAllocator<T>::isRegistered());
}
[[maybe_unused]] const bool elementTypesRegistered = registerElementTypes(RegisteredElementTypes());

// Factories of the element types that stay out of the registry.
template<class... T>
StrongPtr<MemBase::Allocator> findAmong(TypeList<T...>, const std::type_info& type) {
    StrongPtr<MemBase::Allocator> found;
    (void)(... || (type == typeid(T) && (found = Hestra::makeRef<MemArrayAllocator<T>>(), true)));
    return found;
}

/// The factory of a type, and whether it can make an array of this size in memory of others; throws what is wrong.
StrongPtr<MemBase::Allocator> allocatorFor(const VantleTypeIndex& type, const ForeignMemory& memory,
                                           const DynamicSize& size) {
    StrongPtr<MemBase::Allocator> allocator = MemBase::findAnyAllocator(type.type());
    const auto form = allocator ? allocator->elementForm() : detail::ElementForm();
    if (form.size == 0) throw std::invalid_argument("adopt: there are no arrays of this element type");
    if (size.rank() < 1 || size.rank() > 4)
        throw std::invalid_argument("adopt: arrays of rank " + std::to_string(size.rank()) + " do not exist");
    std::array<index_t, 4> extents{};
    for (int axis = 0; axis < size.rank(); ++axis) extents[static_cast<std::size_t>(axis)] = size[axis];
    (void)detail::ForeignElements(memory, extents.data(), size.rank(), form);
    return allocator;
}

} // namespace

StrongPtr<MemBase::Allocator> MemBase::findAnyAllocator(const std::type_info& type) {
    StrongPtr<Allocator> registered = findAllocator(type);
    return registered ? registered : findAmong(UnregisteredElementTypes(), type);
}

StrongPtr<MemBase> adopt(const VantleTypeIndex& type, const ForeignMemory& memory, const DynamicSize& size,
                         MemoryOwner owner, const Hestra::WeakPtr<CreativeArrayBase>& creator) {
    return allocatorFor(type, memory, size)->adopt(memory, size, std::move(owner), creator);
}

CreativeArray::CreationFunction adoptLater(const VantleTypeIndex& type, ForeignMemory memory, const DynamicSize& size,
                                           MemoryOwner owner) {
    const StrongPtr<MemBase::Allocator> allocator = allocatorFor(type, memory, size);
    memory.memsize = memory.memsize.value_or(0); // the function keeps the owner, whatever becomes of arrays
    return [allocator, memory = std::move(memory), size,
            owner = std::move(owner)](const Hestra::WeakPtr<CreativeArrayBase>& creator) {
        return allocator->adopt(memory, size, owner, creator);
    };
}

} // namespace Vantle
