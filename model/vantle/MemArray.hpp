#pragma once
/// Arrays of known element type and rank: views that keep their memory alive, and owners of a chunk.

#include <model/hestra/Diagnostics.hpp>
#include <model/vantle/ElementTypes.hpp>
#include <model/vantle/MultiArray.hpp>
#include <model/vantle/TypedArray.hpp>

#include <limits>
#include <stdexcept>

namespace Vantle {

/// Where the elements of an array lie in a block of memory, in steps of one element.
template<int N>
struct Hyperslab {
    index_t offset = 0;
    MultiIndex<N> stride;
    MultiIndex<N> count;
};

template<int N>
class MemArrayGetSlice;

/// An array of rank `N` with elements in memory, possibly every so-manieth of them: its own (`ReferencingMemArray`),
/// those of another array, which it keeps alive, or adopted (`adopt`).
///
/// Elements are read and written as in `MultiArray`: `array(i, j, k)`, `array[index]`, `data()`.
/// Degenerate   an extent of 0 is legal.
/// Failure      indices are not checked. `Hestra::MemoryException` when an array is too large.
/// Cost         element access is pointer arithmetic; slices and component arrays copy nothing.
template<int N, class T>
class VANTLE_MODEL_API MemArray : public MemArrayBase<N>, public TypedArray<T>, public MultiArray<N, T> {
public:
    using value_type = T;
    using Creator = Hestra::WeakPtr<CreativeArrayBase>;
    using Chunk = Hestra::TypedChunk<T>;
    using Owning = ReferencingMemArray<N, T>;

    /// A view of `elements`, which are as many as `size` asks for and live as long as `owner`.
    MemArray(const Iterator<T>& elements, const MultiIndex<N>& size, const Hestra::StrongPtr<MemBase>& owner,
             const Creator& creator = {})
        : MemBase(typeid(T), creator), myOwner(owner) {
        attach(elements, size);
    }
    ~MemArray() override = default;

    using MemBase::create;
    /// A new array of value-initialised elements.
    [[nodiscard]] static Hestra::Ref<Owning> create(const MultiIndex<N>& size, const Creator& creator = {}) {
        return Hestra::makeRef<Owning>(size, Hestra::StrongPtr<Chunk>(), creator);
    }
    /// As `create`; null unless `size` is of rank `N`.
    [[nodiscard]] static Hestra::RefPtr<Owning> newMemArraynD(const DynamicSize& size, const Creator& creator = {}) {
        const auto extents = size.as<N>();
        return extents ? Hestra::RefPtr<Owning>(create(*extents, creator)) : Hestra::RefPtr<Owning>();
    }
    /// A new array over a chunk, which other arrays may share. An empty or null chunk is filled with
    /// value-initialised elements; `std::length_error` when it has some, but too few.
    [[nodiscard]] static Hestra::Ref<Owning> makeMemArray(const Hestra::StrongPtr<Chunk>& chunk,
                                                          const MultiIndex<N>& size, const Creator& creator = {}) {
        return Hestra::makeRef<Owning>(size, chunk, creator);
    }
    /// A new array of these elements; `std::length_error` when there are not exactly as many as `size` asks for.
    [[nodiscard]] static Hestra::Ref<Owning> makeMemArray(std::vector<T> elements, const MultiIndex<N>& size,
                                                          const Creator& creator = {}) {
        if (size.checkedProduct() != index_t{elements.size()})
            throw std::length_error("makeMemArray: number of elements differs from the size");
        return makeMemArray(Hestra::makeRef<Chunk>(std::move(elements)), size, creator);
    }

    using MultiArray<N, T>::operator[];
    using TypedArray<T>::element;
    using TypedArray<T>::nElements;
    [[nodiscard]] MultiIndex<N> getSize() const final { return this->Size(); }
    [[nodiscard]] Hestra::StrongPtr<Hestra::TypedChunkBase<T>> getChunk() const override { return nullptr; }
    [[nodiscard]] bool isReadOnly() const override { return myOwner && myOwner->isReadOnly(); }
    /// Copies of the first and the last element; value-initialised for an empty array.
    [[nodiscard]] T first() const { return this->myIterator.empty() ? T{} : this->element(0); }
    [[nodiscard]] T last() const { return this->myIterator.empty() ? T{} : this->element(nElements() - 1); }
    /// Where the elements lie in the block of memory that `getIterator().data` points at.
    [[nodiscard]] Hyperslab<N> getHyperslabParameters() const noexcept {
        Hyperslab<N> slab{this->myIterator.leading * this->stride(), {}, this->Size()};
        index_t step = this->stride();
        for (int axis = 0; axis < N; ++axis) {
            slab.stride[axis] = step;
            step *= this->Size()[axis];
        }
        return slab;
    }

    /// The array at `index` of the slowest axis: shares memory and keeps this array alive. Null beyond the extent.
    [[nodiscard]] Hestra::RefPtr<MemArray<N - 1, T>> getSlice(index_t index, const Creator& creator = {}) const
        requires(N > 1) {
        if constexpr (N > 1) // some compilers instantiate constrained members whatever the constraint
            return MemArrayGetSlice<N>::get(*this, index, creator);
        else
            return {};
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase> createSlice(index_t index, const Creator& creator = {}) const final {
        return MemArrayGetSlice<N>::get(*this, index, creator);
    }

    /// A new array of `size` (a count on each axis) elements copied from `start` on; the block must lie within.
    [[nodiscard]] Hestra::Ref<Owning> createSubMemArray(const MultiIndex<N>& start, const MultiIndex<N>& size,
                                                        const Creator& creator = {}) const;
    [[nodiscard]] Hestra::StrongPtr<MemBase> createSubArray(const MultiIndex<N>& start, const MultiIndex<N>& size,
                                                            const Creator& creator = {}) const final {
        return createSubMemArray(start, size, creator);
    }
    /// A new array of the same extents over another chunk, as by `makeMemArray`.
    [[nodiscard]] Hestra::Ref<Owning> createEquallySizedMemArray(const Hestra::StrongPtr<Chunk>& chunk,
                                                                 const Creator& creator = {}) const {
        return makeMemArray(chunk, this->Size(), creator);
    }
    template<class U>
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<N, U>>
    createEquallySizedMemArray(const Hestra::StrongPtr<Hestra::TypedChunk<U>>& chunk,
                               const Creator& creator = {}) const {
        return MemArray<N, U>::makeMemArray(chunk, this->Size(), creator);
    }
    /// The same over what `getChunk` gives: elements of a slice, which has no chunk, are value-initialised.
    template<class U>
    [[nodiscard]] Hestra::Ref<ReferencingMemArray<N, U>>
    createEquallySizedMemArray(const Hestra::StrongPtr<Hestra::TypedChunkBase<U>>& chunk,
                               const Creator& creator = {}) const {
        return createEquallySizedMemArray(Hestra::dynamicCast<Hestra::TypedChunk<U>>(chunk), creator);
    }
    /// A new array of copies of all elements.
    [[nodiscard]] Hestra::Ref<Owning> copy(const Creator& creator = {}) const {
        return createSubMemArray(MultiIndex<N>(), this->Size(), creator);
    }

    /// Component `component` of every element: shares memory and keeps this array alive. Null when there is no such
    /// component. Of numbers, component 0 is the whole array.
    [[nodiscard]] Hestra::RefPtr<MemArray<N, typename ElementTraits<T>::component_type>>
    getComponentArray(int component, const Creator& creator = {}) const requires(ElementTraits<T>::components > 0);
    [[nodiscard]] Hestra::StrongPtr<MemBase> componentArray(int component) const final {
        if constexpr (ElementTraits<T>::components > 0)
            return getComponentArray(component);
        else
            return nullptr;
    }

    /// What keeps the memory alive: this array, or the one it was cut out of.
    [[nodiscard]] Hestra::StrongPtr<MemBase> memoryOwner() const {
        return myOwner ? myOwner : Hestra::StrongPtr<MemBase>(const_cast<MemArray*>(this));
    }

protected:
    explicit MemArray(const Creator& creator) : MemBase(typeid(T), creator) {}

    void attach(const Iterator<T>& elements, const MultiIndex<N>& size) noexcept {
        this->myIterator = elements;
        MultiArray<N, T>::operator=(MultiArray<N, T>(elements, size));
    }

private:
    Hestra::StrongPtr<MemBase> myOwner;
};

/// An array that owns a chunk, alone or together with other arrays.
///
/// Whoever changes the length of the chunk's vector calls `DeferredConstructor` on every array over it before the
/// next access: elements may have moved.
template<int N, class T>
class VANTLE_MODEL_API ReferencingMemArray final : public MemArray<N, T> {
    using Base = MemArray<N, T>;

public:
    using typename Base::Chunk;
    using typename Base::Creator;

    /// See `MemArray::makeMemArray`.
    ReferencingMemArray(const MultiIndex<N>& size, const Hestra::StrongPtr<Chunk>& chunk, const Creator& creator = {});
    ~ReferencingMemArray() override = default;

    /// Looks at the chunk's elements as they lie now. Fills an empty chunk; `std::length_error` when it is too short.
    void DeferredConstructor() { lookAt(this->Size()); }

    [[nodiscard]] bool hasOwnStorage() const override { return true; }
    /// The chunk; never null.
    [[nodiscard]] const Hestra::StrongPtr<Chunk>& myChunk() const noexcept { return myElements; }
    [[nodiscard]] Hestra::StrongPtr<Hestra::TypedChunkBase<T>> getChunk() const override { return myElements; }
    /// The vector of the chunk.
    [[nodiscard]] std::vector<T>& base_vector() noexcept { return myElements->base_vector(); }
    [[nodiscard]] const std::vector<T>& base_vector() const noexcept { return myElements->base_vector(); }
    [[nodiscard]] T* getPtr() noexcept { return this->data(); }
    [[nodiscard]] const T* getPtr() const noexcept { return this->data(); }
    /// Origin and step of linearly computed elements: null, since these are stored.
    [[nodiscard]] const T* OriginPtr() const noexcept { return nullptr; }
    [[nodiscard]] const T* DeltaPtr() const noexcept { return nullptr; }

    [[nodiscard]] std::size_t memsize() const override {
        return static_cast<std::size_t>(this->nElements()) * myElements->value_type_size();
    }
    /// Copies the first elements of a chunk into this array. False, and nothing changed, when they are of another
    /// type or too few.
    bool copyFrom(const Hestra::StrongPtr<Hestra::ChunkBase>& chunk);

private:
    void lookAt(const MultiIndex<N>& size);

    Hestra::StrongPtr<Chunk> myElements;
};

namespace detail {

/// An array that looks at memory of somebody else, and lets its owner go in the end.
template<int N, class T>
class VANTLE_MODEL_API AdoptedMemArray final : public MemArray<N, T> {
public:
    AdoptedMemArray(const ForeignMemory& memory, index_t step, const MultiIndex<N>& size, MemoryOwner&& owner,
                    const typename MemArray<N, T>::Creator& creator)
        : MemBase(typeid(T), creator), MemArray<N, T>(creator), myMemoryOwner(std::move(owner)),
          myIsWritable(memory.isWritable) {
        // Nothing of this library writes elements of arrays that it did not make.
        auto* const elements = static_cast<T*>(const_cast<void*>(memory.elements));
        this->attach(Iterator<T>(elements, step, size.product()), size);
        myBytes = memory.memsize.value_or(myMemoryOwner ? static_cast<std::size_t>(size.product()) * sizeof(T) : 0);
    }
    ~AdoptedMemArray() override = default;

    [[nodiscard]] std::size_t memsize() const override { return myBytes; }
    [[nodiscard]] bool hasOwnStorage() const override { return true; }
    [[nodiscard]] bool isReadOnly() const override { return !myIsWritable; }

private:
    MemoryOwner myMemoryOwner;
    std::size_t myBytes;
    bool myIsWritable;
};

} // namespace detail

/// An array over memory of somebody else. It behaves as one with memory of its own in every operation, except that
/// `getChunk` is null, there being no vector; nothing is copied unless `memory` asks for it.
///
/// The call takes the owner, whatever becomes of it. It is let go of once: with the last handle to the array or to any
/// slice or component of it; before the call returns when the elements were copied; before it throws. Raw pointers
/// and views by value (`Iterator`, `MultiArrayBase`) do not count.
///
/// The memory is written by nobody but holders of the array, and that only if it `isWritable`. Whoever changes it in
/// place tells the creator and the field of the array: `touch()`.
/// Degenerate   no elements: any address is taken.
/// Failure      `std::invalid_argument` for addresses that are null, numbers of strides or components that do not fit,
///              strides less than an element, 0 and negative ones included, and layouts that are to be refused;
///              `std::length_error` when there is not enough memory for extents and strides, or in the world;
///              `Hestra::MemoryException` when a copy does not fit.
/// Cost         a few allocations; a copy takes one pass.
template<int N, class T>
[[nodiscard]] Hestra::Ref<MemArray<N, T>> adopt(const ForeignMemory& memory, const MultiIndex<N>& size,
                                                MemoryOwner owner,
                                                const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
    static_assert(N >= 1 && N <= 4);
    const detail::ForeignElements found(memory, size.data(), N, detail::ElementForm::of<T>());
    if (found.isInPlace)
        return Hestra::makeRef<detail::AdoptedMemArray<N, T>>(memory, found.step, size, std::move(owner), creator);
    const Hestra::Ref<ReferencingMemArray<N, T>> copy = MemArray<N, T>::create(size, creator);
    if constexpr (std::is_arithmetic_v<typename ElementTraits<T>::component_type>) {
        found.copyNumbers(memory, copy->data());
    } else {
        std::array<index_t, 4> index{};
        for (index_t k = 0; k < found.count; ++k) {
            copy->element(k) = *reinterpret_cast<const T*>(found.at(memory, index));
            for (std::size_t d = 0; d < 4 && ++index[d] == found.extents[d]; ++d) index[d] = 0;
        }
    }
    return copy;
}
/// The same over packed elements; writable if they are not const.
template<int N, class T>
requires(std::is_object_v<T>)
    [[nodiscard]] Hestra::Ref<MemArray<N, std::remove_const_t<T>>> adopt(T* elements, const MultiIndex<N>& size,
                                                                         MemoryOwner owner) {
    return adopt<N, std::remove_const_t<T>>(ForeignMemory{.elements = elements, .isWritable = !std::is_const_v<T>},
                                            size, std::move(owner));
}
/// The same over the elements of a vector, which nobody lengthens or shortens meanwhile.
template<int N, class T>
[[nodiscard]] Hestra::Ref<MemArray<N, std::remove_const_t<T>>> adopt(const std::shared_ptr<std::vector<T>>& elements,
                                                                     const MultiIndex<N>& size) {
    const std::size_t count = elements ? elements->size() : 0;
    return adopt<N, T>(
        ForeignMemory{.elements = count ? elements->data() : nullptr, .bytes = count * sizeof(T), .isWritable = true},
        size, elements);
}

/// Cuts an array of rank `N` - 1 out of one of rank `N`.
template<int N>
class MemArrayGetSlice {
public:
    template<class T>
    [[nodiscard]] static Hestra::RefPtr<MemArray<N - 1, T>> get(const MemArray<N, T>& array, index_t index,
                                                                const Hestra::WeakPtr<CreativeArrayBase>& creator) {
        if (index >= array.Size()[N - 1]) return nullptr;
        MultiIndex<N - 1> size;
        for (int axis = 0; axis < N - 1; ++axis) size[axis] = array.Size()[axis];
        const index_t elements = size.product();
        Iterator<T> part = array.getIterator();
        part.leading += index * elements;
        part.trailing = part.count() - part.leading - elements;
        return Hestra::makeRef<MemArray<N - 1, T>>(part, size, array.memoryOwner(), creator);
    }
};
/// Arrays of rank 1 have no slices.
template<>
class MemArrayGetSlice<1> {
public:
    template<class T>
    [[nodiscard]] static Hestra::StrongPtr<MemBase> get(const MemArray<1, T>&, index_t,
                                                        const Hestra::WeakPtr<CreativeArrayBase>&) {
        return nullptr;
    }
};

/// Factory for arrays of element type `T`, ranks 1 to 4.
template<class T>
class VANTLE_MODEL_API MemArrayAllocator : public MemBase::Allocator {
public:
    [[nodiscard]] VantleTypeIndex elementIndex() const override { return typeid(T); }
    [[nodiscard]] bool isDomain(const std::type_info& domain) const override {
        return domain == typeid(T) || domain == typeid(typename TypedArray<T>::reference_domain_t) ||
               domain == typeid(TypedArray<T>) || isArray<1>(domain) || isArray<2>(domain) || isArray<3>(domain) ||
               isArray<4>(domain);
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase> create(const DynamicSize& size,
                                                    const Hestra::WeakPtr<CreativeArrayBase>& creator) const override {
        return make(size, nullptr, creator);
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase> create(const DynamicSize& size,
                                                    const Hestra::StrongPtr<Hestra::ChunkBase>& chunk,
                                                    const Hestra::WeakPtr<CreativeArrayBase>& creator) const override {
        const auto typed = Hestra::dynamicCast<Hestra::TypedChunk<T>>(chunk);
        const auto total = size.checkedTotal();
        if (!typed || !total || typed->elements() < *total) return nullptr;
        return make(size, typed, creator);
    }
    [[nodiscard]] detail::ElementForm elementForm() const override { return detail::ElementForm::of<T>(); }
    [[nodiscard]] Hestra::StrongPtr<MemBase> adopt(const ForeignMemory& memory, const DynamicSize& size,
                                                   MemoryOwner owner,
                                                   const Hestra::WeakPtr<CreativeArrayBase>& creator) const override {
        switch (size.rank()) {
        case 1:
            return Vantle::adopt<1, T>(memory, *size.as<1>(), std::move(owner), creator);
        case 2:
            return Vantle::adopt<2, T>(memory, *size.as<2>(), std::move(owner), creator);
        case 3:
            return Vantle::adopt<3, T>(memory, *size.as<3>(), std::move(owner), creator);
        case 4:
            return Vantle::adopt<4, T>(memory, *size.as<4>(), std::move(owner), creator);
        default:
            return nullptr;
        }
    }

    /// Enters this factory and `VantleType<T>` into the registries. Any library may do so for types of its own.
    static void registerMe() {
        MemBase::registerCreator(Hestra::makeRef<MemArrayAllocator<T>>(), Hestra::makeRef<VantleType<T>>());
    }
    /// True; registers on the first call, once whatever the number of threads.
    static bool isRegistered() {
        static const bool registered = (registerMe(), true);
        return registered;
    }

private:
    template<int N>
    [[nodiscard]] static bool isArray(const std::type_info& type) {
        return type == typeid(MemArray<N, T>) || type == typeid(ReferencingMemArray<N, T>);
    }
    [[nodiscard]] static Hestra::StrongPtr<MemBase> make(const DynamicSize& size,
                                                         const Hestra::StrongPtr<Hestra::TypedChunk<T>>& chunk,
                                                         const Hestra::WeakPtr<CreativeArrayBase>& creator) {
        switch (size.rank()) {
        case 1:
            return MemArray<1, T>::makeMemArray(chunk, *size.as<1>(), creator);
        case 2:
            return MemArray<2, T>::makeMemArray(chunk, *size.as<2>(), creator);
        case 3:
            return MemArray<3, T>::makeMemArray(chunk, *size.as<3>(), creator);
        case 4:
            return MemArray<4, T>::makeMemArray(chunk, *size.as<4>(), creator);
        default:
            return nullptr;
        }
    }
};

/// A new array of rank 1 of these elements.
template<class T>
[[nodiscard]] Hestra::Ref<ReferencingMemArray<1, T>>
makeMemArray1D(std::vector<T> elements, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
    const MultiIndex<1> size(elements.size());
    return MemArray<1, T>::makeMemArray(Hestra::makeRef<Hestra::TypedChunk<T>>(std::move(elements)), size, creator);
}
/// A new array of rank 1 over all elements of a chunk, which must not be null.
template<class T>
[[nodiscard]] Hestra::Ref<ReferencingMemArray<1, T>>
makeMemArray1D(const Hestra::StrongPtr<Hestra::TypedChunk<T>>& chunk,
               const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
    return MemArray<1, T>::makeMemArray(chunk, MultiIndex<1>(chunk->elements()), creator);
}

/// Calls `f` with the array as `TypedArray<T>&`, for the listed `T` that its element type is.
///
/// False, and `f` not called, when the handle is null, the type is not listed, or the elements are computed.
template<class... T, class F>
bool withTypedArray(TypeList<T...>, const Hestra::StrongPtr<MemBase>& array, F&& f) {
    const auto attempt = [&]<class U>(TypeList<U>) {
        auto* const typed = array->elementIndex() == typeid(U) ? dynamic_cast<TypedArray<U>*>(array.rawptr()) : nullptr;
        if (typed) f(*typed);
        return typed != nullptr;
    };
    return array && (attempt(TypeList<T>()) || ...);
}
/// The same with `MemArray<N, T>&`: false also when the rank is another one.
template<int N, class... T, class F>
bool withMemArray(TypeList<T...>, const Hestra::StrongPtr<MemBase>& array, F&& f) {
    const auto attempt = [&]<class U>(TypeList<U>) {
        auto* const typed =
            array->elementIndex() == typeid(U) ? dynamic_cast<MemArray<N, U>*>(array.rawptr()) : nullptr;
        if (typed) f(*typed);
        return typed != nullptr;
    };
    return array && (attempt(TypeList<T>()) || ...);
}

// ---------------------------------------------------------------------------------------------------------------------

template<class T>
std::string TypedArray<T>::getElementAsString(index_t index) const {
    return index < nElements() ? elementText(element(index)) : std::string();
}

template<class T>
Hestra::StrongPtr<MemBase::Allocator> TypedArray<T>::ownAllocator() const {
    if (Hestra::StrongPtr<MemBase::Allocator> known = MemBase::findAllocator(typeid(T))) return known;
    return Hestra::makeRef<MemArrayAllocator<T>>();
}

namespace detail {

/// Whether `indices` address blocks of `blockLength` elements among `available`, and `size` holds what they select.
[[nodiscard]] VANTLE_MODEL_API bool canGather(const TypedArray<index_t>& indices, const DynamicSize& size,
                                              index_t blockLength, index_t available);

/// Gathers `read(k)` for the elements `k` that `indices` select, into a new array from `allocator`.
template<class T, class Read>
[[nodiscard]] Hestra::StrongPtr<MemBase> gatherElements(const TypedArray<index_t>& indices, const DynamicSize& size,
                                                        index_t blockLength, index_t available,
                                                        const MemBase::Allocator& allocator, const Read& read) {
    if (!canGather(indices, size, blockLength, available)) return nullptr;
    Hestra::StrongPtr<MemBase> result = allocator.create(size, {});
    auto* const target = dynamic_cast<TypedArray<T>*>(result.rawptr());
    if (!target) return nullptr;
    const index_t blocks = indices.nElements();
    for (index_t k = 0, out = 0; k < blocks; ++k)
        for (index_t b = 0; b < blockLength; ++b) target->element(out++) = read(indices.element(k) * blockLength + b);
    return result;
}

} // namespace detail

template<class T>
Hestra::StrongPtr<MemBase> TypedArray<T>::gather(const TypedArray<index_t>& indices, const DynamicSize& size,
                                                 index_t blockLength) const {
    return detail::gatherElements<T>(indices, size, blockLength, nElements(), *ownAllocator(),
                                     [this](index_t k) -> const T& { return element(k); });
}

template<int N, class T>
Hestra::RefPtr<MemArray<N, typename ElementTraits<T>::component_type>>
MemArray<N, T>::getComponentArray(int component, const Creator& creator) const
    requires(ElementTraits<T>::components > 0) {
    using Component = typename ElementTraits<T>::component_type;
    constexpr int components = ElementTraits<T>::components;
    if constexpr (components == 0) {
        return {};
    } else {
        static_assert(sizeof(T) == components * sizeof(Component));
        if (component < 0 || component >= components) return {};
        const Iterator<T>& whole = this->getIterator();
        Iterator<Component> part;
        part.data = whole.data && whole.total ? &elementComponent(*whole.data, component) : nullptr;
        part.total = whole.total * components;
        part.stride = whole.stride * components;
        part.leading = whole.leading;
        part.trailing = whole.trailing;
        return Hestra::makeRef<MemArray<N, Component>>(part, this->Size(), memoryOwner(), creator);
    }
}

template<int N, class T>
Hestra::Ref<ReferencingMemArray<N, T>>
MemArray<N, T>::createSubMemArray(const MultiIndex<N>& start, const MultiIndex<N>& size, const Creator& creator) const {
    const Hestra::Ref<Owning> result = create(size, creator);
    if (size.product() == 0) return result;
    T* target = result->data();
    MultiIndex<N> row;
    do { // one run of axis 0 after the other
        assert((start + row).inside(this->Size()) && start[0] + size[0] <= this->Size()[0]);
        const index_t from = (start + row).linear(this->Size());
        for (index_t i = 0; i < size[0]; ++i) *target++ = this->element(from + i);
    } while (row.advance(size, 1));
    return result;
}

template<int N, class T>
ReferencingMemArray<N, T>::ReferencingMemArray(const MultiIndex<N>& size, const Hestra::StrongPtr<Chunk>& chunk,
                                               const Creator& creator)
    : MemBase(typeid(T), creator), Base(creator), myElements(chunk ? chunk : Hestra::makeRef<Chunk>().strong()) {
    lookAt(size);
}

template<int N, class T>
void ReferencingMemArray<N, T>::lookAt(const MultiIndex<N>& size) {
    std::vector<T>& elements = myElements->base_vector();
    const auto total = size.checkedProduct();
    if (!total || *total > elements.max_size()) throw Hestra::MemoryException(std::numeric_limits<std::size_t>::max());
    if (elements.size() < *total) {
        if (!elements.empty()) throw std::length_error("array: the chunk has too few elements for the size");
        try {
            myElements->resize(static_cast<std::size_t>(*total));
        } catch (const std::bad_alloc&) {
            throw Hestra::MemoryException(static_cast<std::size_t>(*total) * sizeof(T));
        }
    }
    myElements->settle();
    this->attach(Iterator<T>(elements.data(), 1, *total), size);
}

template<int N, class T>
bool ReferencingMemArray<N, T>::copyFrom(const Hestra::StrongPtr<Hestra::ChunkBase>& chunk) {
    const auto source = Hestra::dynamicCast<Hestra::TypedChunkBase<T>>(chunk);
    if (!source || source->elements() < this->nElements()) return false;
    const T* const from = source->base_vector().data();
    if (from != this->data()) std::copy_n(from, this->nElements(), this->data());
    return true;
}

// Element types that are classes may be invisible outside the library; arrays of them are not.
#define VANTLE_DECLARE_ARRAY(EXPORT, N, ...)                                                                           \
    extern template class EXPORT MemArray<N, __VA_ARGS__>;                                                             \
    extern template class EXPORT ReferencingMemArray<N, __VA_ARGS__>;
#define VANTLE_DECLARE_ARRAYS(EXPORT, ...)                                                                             \
    extern template class EXPORT VantleType<__VA_ARGS__>;                                                              \
    extern template class EXPORT TypedArray<__VA_ARGS__>;                                                              \
    extern template class EXPORT MemArrayAllocator<__VA_ARGS__>;                                                       \
    VANTLE_DECLARE_ARRAY(EXPORT, 1, __VA_ARGS__)                                                                       \
    VANTLE_DECLARE_ARRAY(EXPORT, 2, __VA_ARGS__)                                                                       \
    VANTLE_DECLARE_ARRAY(EXPORT, 3, __VA_ARGS__)                                                                       \
    VANTLE_DECLARE_ARRAY(EXPORT, 4, __VA_ARGS__)
#if defined(__clang__) // hides instantiations that do not say otherwise; GCC takes a repeated attribute for a mistake
#    define VANTLE_DECLARE_NUMBERS(...) VANTLE_DECLARE_ARRAYS(VANTLE_MODEL_API, __VA_ARGS__)
#else
#    define VANTLE_DECLARE_NUMBERS(...) VANTLE_DECLARE_ARRAYS(, __VA_ARGS__)
#endif
#define VANTLE_DECLARE_CLASSES(...) VANTLE_DECLARE_ARRAYS(VANTLE_MODEL_API, __VA_ARGS__)
VANTLE_NUMBER_ELEMENT_TYPES(VANTLE_DECLARE_NUMBERS)
VANTLE_SPACE_ELEMENT_TYPES(VANTLE_DECLARE_CLASSES)
VANTLE_TUPLE_ELEMENT_TYPES(VANTLE_DECLARE_CLASSES)
VANTLE_OTHER_ELEMENT_TYPES(VANTLE_DECLARE_CLASSES)
VANTLE_MAPPER_ELEMENT_TYPES(VANTLE_DECLARE_CLASSES)
VANTLE_UNREGISTERED_NUMBER_TYPES(VANTLE_DECLARE_NUMBERS)
VANTLE_UNREGISTERED_CLASS_TYPES(VANTLE_DECLARE_CLASSES)
#undef VANTLE_DECLARE_CLASSES
#undef VANTLE_DECLARE_NUMBERS
#undef VANTLE_DECLARE_ARRAYS
#undef VANTLE_DECLARE_ARRAY

extern template class MemArrayBase<1>;
extern template class MemArrayBase<2>;
extern template class MemArrayBase<3>;
extern template class MemArrayBase<4>;

} // namespace Vantle
