#include <model/vantle/Index.hpp>

#include <stdexcept>

namespace Vantle {

DynamicSize::DynamicSize(std::initializer_list<index_t> extents) : myRank(static_cast<int>(extents.size())) {
    if (extents.size() > MaxRank) throw std::length_error("DynamicSize: too many axes");
    std::copy(extents.begin(), extents.end(), myExtents.begin());
}

index_t DynamicSize::total() const noexcept {
    index_t result = myRank ? 1 : 0;
    for (int axis = 0; axis < myRank; ++axis) result *= (*this)[axis];
    return result;
}

std::optional<index_t> DynamicSize::checkedTotal() const noexcept {
    return myRank ? checkedProduct(myExtents.data(), myRank) : index_t{0};
}

std::string to_string(const DynamicSize& size) {
    std::string text = "[";
    for (int axis = 0; axis < size.rank(); ++axis) {
        if (axis) text += 'x';
        text += std::to_string(size[axis]);
    }
    return text += ']';
}

} // namespace Vantle
