#include <model/vantle/MemArray.hpp>

namespace Vantle {

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

} // namespace

} // namespace Vantle
