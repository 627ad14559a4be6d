#pragma once
/// Flat access to the elements of an array: a pointer with a stride, and elements made on demand.

#include <model/vantle/Index.hpp>

namespace Vantle {

/// Source of elements that are computed, not stored.
///
/// Concurrency  `create` may be called from any number of threads.
template<class T>
class VANTLE_MODEL_API DataCreator {
public:
    DataCreator() = default;
    DataCreator(const DataCreator&) = default;
    DataCreator& operator=(const DataCreator&) = default;
    virtual ~DataCreator() = default;
    /// The element with this number, axis 0 fastest.
    [[nodiscard]] virtual T create(index_t linearIndex) const = 0;
};

/// Elements in memory, every `stride`-th, without a number of them at either end.
///
/// `total` counts steps of one `T` over the whole block, so that a component of an array of points has the
/// total 3n and the stride 3. The skips are counts of elements.
template<class T>
struct VANTLE_MODEL_API Iterator {
    T* data = nullptr;
    index_t total = 0;
    index_t stride = 1;
    index_t leading = 0;
    index_t trailing = 0;

    constexpr Iterator() noexcept = default;
    /// `elementCount` elements, the first at `elements`, each `elementStride` after the one before.
    constexpr Iterator(T* elements, index_t elementStride, index_t elementCount) noexcept
        : data(elements), total(elementStride <= 1 ? elementCount : elementCount * elementStride),
          stride(elementStride) {}

    /// Number of elements of the block, skipped ones included.
    [[nodiscard]] constexpr index_t count() const noexcept { return stride <= 1 ? total : total / stride; }
    /// Number of elements.
    [[nodiscard]] constexpr index_t size() const noexcept { return count() - leading - trailing; }
    [[nodiscard]] constexpr bool empty() const noexcept { return !data || size() == 0; }
    /// Whether the elements follow each other in memory.
    [[nodiscard]] constexpr bool contiguous() const noexcept { return stride == 1; }
    /// The first element's address; null when there is no memory.
    [[nodiscard]] constexpr T* first() const noexcept { return data ? data + leading * stride : nullptr; }
    [[nodiscard]] constexpr T& operator[](index_t i) const noexcept { return data[(leading + i) * stride]; }
};

/// An iterator whose elements come from a `DataCreator` when it has one.
template<class T>
struct VANTLE_MODEL_API CreativeIterator : Iterator<T> {
    const DataCreator<T>* creator = nullptr;

    constexpr CreativeIterator() noexcept = default;
    constexpr CreativeIterator(const Iterator<T>& elements, const DataCreator<T>* source = nullptr) noexcept
        : Iterator<T>(elements), creator(source) {}
    /// `count` elements of `source`.
    constexpr CreativeIterator(const DataCreator<T>& source, index_t count) noexcept
        : Iterator<T>(nullptr, 1, count), creator(&source) {}

    [[nodiscard]] constexpr bool empty() const noexcept { return !(creator || this->data) || this->size() == 0; }
    /// A copy of the element.
    [[nodiscard]] T operator[](index_t i) const {
        return creator ? creator->create(this->leading + i) : Iterator<T>::operator[](i);
    }
};

} // namespace Vantle
