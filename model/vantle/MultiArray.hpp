#pragma once
/// Strided views of arrays: read-only by value, also of computed elements, and writable ones.

#include <model/vantle/ElementTraits.hpp>
#include <model/vantle/Iterator.hpp>

#include <cassert>
#include <type_traits>
#include <utility>

namespace Vantle {

/// A read-only view of an array of rank `N`, by value: elements in memory, or made by a `DataCreator`.
///
/// Axis 0 varies fastest. The view owns nothing: the array (or creator) outlives it.
/// Failure      indices are not checked.
/// Concurrency  views never change what they view by themselves; elements as of the array that they belong to.
/// Cost         a view is a handful of words; an element is one multiplication an axis and a load.
template<int N, class T>
class VANTLE_MODEL_API MultiArrayBase {
public:
    using value_type = T;
    using storage_type = ElementStorage<T>;

    /// A view of an empty array.
    constexpr MultiArrayBase() noexcept = default;
    /// Element k lies at elements[k * stride].
    constexpr MultiArrayBase(const storage_type* elements, const MultiIndex<N>& size, index_t stride = 1) noexcept
        : myElements(elements), mySize(size), myStride(stride) {}
    /// Element k is creator.create(offset + k).
    constexpr MultiArrayBase(const DataCreator<T>& creator, const MultiIndex<N>& size, index_t offset = 0) noexcept
        : MultiArrayBase(nullptr, size, 0, &creator, offset) {}
    /// The same elements seen as another type with the same storage form, for example points as vectors.
    template<class U>
    requires(!std::is_same_v<T, U> && std::is_same_v<ElementStorage<U>, storage_type>)
        [[nodiscard]] constexpr MultiArrayBase<N, U> as() const noexcept {
        assert(!myCreator); // computed elements have one type only
        return MultiArrayBase<N, U>(myElements, mySize, myStride);
    }

    [[nodiscard]] constexpr const MultiIndex<N>& Size() const noexcept { return mySize; }
    [[nodiscard]] constexpr index_t nElements() const noexcept { return mySize.product(); }
    [[nodiscard]] constexpr index_t stride() const noexcept { return myStride; }
    /// The source of computed elements, or null.
    [[nodiscard]] constexpr const DataCreator<T>* dataCreator() const noexcept { return myCreator; }
    /// Whether the elements lie in memory one after the other.
    [[nodiscard]] constexpr bool contiguous() const noexcept { return !myCreator && myStride == 1; }
    /// Address of the first element's storage; null for computed and absent elements.
    [[nodiscard]] constexpr const storage_type* storage() const noexcept { return myElements; }

    /// Element number `k`, axis 0 fastest.
    [[nodiscard]] T element(index_t k) const {
        if (myCreator) [[unlikely]]
            return myCreator->create(myOffset + k);
        return T(myElements[k * myStride]);
    }
    [[nodiscard]] T getElement(const MultiIndex<N>& index) const { return element(index.linear(mySize)); }
    [[nodiscard]] T operator[](const MultiIndex<N>& index) const { return getElement(index); }
    template<std::integral... I>
    requires(sizeof...(I) == N) [[nodiscard]] T operator()(I... index) const {
        return getElement(MultiIndex<N>(index...));
    }

    /// The view at `index` of the slowest axis.
    [[nodiscard]] constexpr MultiArrayBase<N - 1, T> slice(index_t index) const noexcept requires(N > 1) {
        MultiIndex<N - 1> size;
        for (int axis = 0; axis < N - 1; ++axis) size[axis] = mySize[axis];
        const index_t first = index * size.product();
        return MultiArrayBase<N - 1, T>(myElements + first * myStride, size, myStride, myCreator, myOffset + first);
    }

private:
    template<int, class>
    friend class MultiArrayBase;
    constexpr MultiArrayBase(const storage_type* elements, const MultiIndex<N>& size, index_t stride,
                             const DataCreator<T>* creator, index_t offset) noexcept
        : myElements(elements), mySize(size), myStride(stride), myCreator(creator), myOffset(offset) {}

    const storage_type* myElements = nullptr;
    MultiIndex<N> mySize;
    index_t myStride = 1; // 0 without memory, so that null stays null
    const DataCreator<T>* myCreator = nullptr;
    index_t myOffset = 0;
};

template<int N, class T, class AxisSequence = std::make_integer_sequence<index_t, N>>
class MultiArray;

/// A writable view of elements in memory. `AxisSequence` numbers the axes, the fastest first.
template<int N, class T, index_t... Axis>
class VANTLE_MODEL_API MultiArray<N, T, std::integer_sequence<index_t, Axis...>> : public MultiArrayBase<N, T> {
    template<index_t>
    using index_of = index_t;

public:
    constexpr MultiArray() noexcept = default;
    constexpr MultiArray(T* elements, const MultiIndex<N>& size, index_t stride = 1) noexcept
        : MultiArrayBase<N, T>(elements, size, stride), myWritable(elements) {}
    /// The elements of an iterator, which are as many as `size` asks for.
    constexpr MultiArray(const Iterator<T>& elements, const MultiIndex<N>& size) noexcept
        : MultiArray(elements.first(), size, elements.stride) {
        assert(elements.size() == size.product());
    }

    [[nodiscard]] constexpr T& operator[](const MultiIndex<N>& index) noexcept {
        return myWritable[index.linear(this->Size()) * this->stride()];
    }
    [[nodiscard]] constexpr const T& operator[](const MultiIndex<N>& index) const noexcept {
        return myWritable[index.linear(this->Size()) * this->stride()];
    }
    [[nodiscard]] constexpr T& operator()(index_of<Axis>... index) noexcept { return (*this)[MultiIndex<N>(index...)]; }
    [[nodiscard]] constexpr const T& operator()(index_of<Axis>... index) const noexcept {
        return (*this)[MultiIndex<N>(index...)];
    }
    /// Address of the first element; null when there is none.
    [[nodiscard]] constexpr T* data() noexcept { return myWritable; }
    [[nodiscard]] constexpr const T* data() const noexcept { return myWritable; }

private:
    T* myWritable = nullptr;
};

/// Points presented as the vectors from the origin to them: the same memory, another type.
template<int N>
[[nodiscard]] constexpr MultiArrayBase<N, Orvix::PhysicalSpace::vector>
asVectors(const MultiArrayBase<N, Orvix::PhysicalSpace::point>& points) noexcept {
    return points.template as<Orvix::PhysicalSpace::vector>();
}

} // namespace Vantle
