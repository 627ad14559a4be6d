#pragma once
/// Arrays whose element type is known, and their rank is not. Concurrency: as of every array, see `MemBase`.

#include <model/vantle/Iterator.hpp>
#include <model/vantle/MemBase.hpp>

namespace Vantle {

/// Element-typed base of the arrays whose elements lie in memory.
template<class T>
class VANTLE_MODEL_API TypedArray : public virtual MemBase {
public:
    using value_type = T;
    /// Names the arrays of `T` that can share memory; `typeid` of it is understood by `MemBase::create`.
    struct VANTLE_MODEL_API reference_domain_t {};

    [[nodiscard]] const std::type_info& getType() const { return typeid(T); }

    /// The chunk that this array owns, wholly its elements; null for slices, component arrays and adopted memory.
    [[nodiscard]] virtual Hestra::StrongPtr<Hestra::TypedChunkBase<T>> getChunk() const = 0;

    /// The elements in storage order, axis 0 fastest. Valid while the array lives.
    [[nodiscard]] const Iterator<T>& getIterator() const noexcept { return myIterator; }
    /// The same in the form that also stands for computed elements.
    [[nodiscard]] CreativeIterator<T> creativeIterator() const noexcept { return CreativeIterator<T>(myIterator); }
    /// Element number `k` in storage order.
    [[nodiscard]] const T& element(index_t k) const noexcept { return myIterator[k]; }
    [[nodiscard]] T& element(index_t k) noexcept { return myIterator[k]; }

    [[nodiscard]] index_t nElements() const final { return myIterator.size(); }
    [[nodiscard]] std::string getElementAsString(index_t index) const final;
    [[nodiscard]] Hestra::StrongPtr<MemBase> gather(const TypedArray<index_t>& indices, const DynamicSize& size,
                                                    index_t blockLength) const final;

protected:
    TypedArray() = default;
    [[nodiscard]] Hestra::StrongPtr<MemBase::Allocator> ownAllocator() const final;

    Iterator<T> myIterator;
};

} // namespace Vantle
