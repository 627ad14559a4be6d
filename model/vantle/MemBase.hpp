#pragma once
/// The untyped base of every array, and the registry of factories for arrays of each element type.

#include <model/hestra/Cache.hpp>
#include <model/hestra/Interface.hpp>
#include <model/vantle/ForeignMemory.hpp>
#include <model/vantle/VantleType.hpp>

#include <functional>

namespace Vantle {

/// An array of unknown element type and rank. Carries interfaces.
///
/// Its typed form is found by `dynamic_cast` to `TypedArray<T>`, `MemArray<N, T>` or `DirectProductMemArray`.
/// Concurrency  reading from any number of threads. Whoever writes an element keeps its readers away; several threads
///              may write different elements. Attachments are guarded, see `Hestra::Intercube`.
class VANTLE_MODEL_API MemBase : public Hestra::Cacheable, public Hestra::Intercube {
public:
    /// Factory for arrays of one element type.
    class VANTLE_MODEL_API Allocator : public Hestra::ReferenceBase<Allocator> {
    public:
        ~Allocator() override;
        [[nodiscard]] virtual VantleTypeIndex elementIndex() const = 0;
        /// A new array of value-initialised elements; null for a rank that is not available.
        [[nodiscard]] virtual Hestra::StrongPtr<MemBase>
        create(const DynamicSize& size, const Hestra::WeakPtr<CreativeArrayBase>& creator) const = 0;
        /// An array over an existing chunk; null as above, and for a chunk of another type or with too few elements.
        [[nodiscard]] virtual Hestra::StrongPtr<MemBase>
        create(const DynamicSize& size, const Hestra::StrongPtr<Hestra::ChunkBase>& chunk,
               const Hestra::WeakPtr<CreativeArrayBase>& creator) const = 0;
        /// Whether `domain` names arrays of this element type: the type, the tag of arrays that share its memory, or a
        /// class of arrays, whatever its rank.
        [[nodiscard]] virtual bool isDomain(const std::type_info& domain) const = 0;
        /// How elements are found in memory; of size 0 when arrays over memory of others are not available.
        [[nodiscard]] virtual detail::ElementForm elementForm() const { return {}; }
        /// An array over memory of somebody else, see `adopt`. Null as for `create`.
        [[nodiscard]] virtual Hestra::StrongPtr<MemBase> adopt(const ForeignMemory& memory, const DynamicSize& size,
                                                               MemoryOwner owner,
                                                               const Hestra::WeakPtr<CreativeArrayBase>& creator) const;
    };

    explicit MemBase(const VantleTypeIndex& elementType, const Hestra::WeakPtr<CreativeArrayBase>& creator = {});
    ~MemBase() override;

    /// Identity of the element type.
    [[nodiscard]] const VantleTypeIndex& elementIndex() const noexcept { return myElementType; }
    /// The registered entry of the element type; null when it is not registered.
    [[nodiscard]] Hestra::StrongPtr<VantleTypeBase> getVantleType() const;

    [[nodiscard]] virtual int rank() const = 0;
    [[nodiscard]] virtual DynamicSize getDynamicSize() const = 0;
    /// Number of elements.
    [[nodiscard]] virtual index_t nElements() const = 0;
    /// The element with this number, axis 0 fastest, as text; empty beyond the last element and for elements
    /// without text form. Numbers appear as by `std::to_string`, components as `{a,b,c}`.
    [[nodiscard]] virtual std::string getElementAsString(index_t index) const = 0;
    /// Bytes of the chunk of this array; 0 for what owns no chunk: slices, components, computed elements. Of adopted
    /// memory what was said of it, see `ForeignMemory`.
    [[nodiscard]] std::size_t memsize() const override;
    /// Whether the elements lie in memory that is this array's: its chunk's, or adopted. False for slices and
    /// components, which are parts of another array, and for computed elements.
    [[nodiscard]] virtual bool hasOwnStorage() const { return false; }
    /// Whether writing an element is an error that nothing prevents: it is in read-only memory that was adopted.
    [[nodiscard]] virtual bool isReadOnly() const { return false; }

    /// Component `component` of every element: an array of this rank that shares memory, without chunk of its own.
    /// Null when there is no such component and for elements that are computed.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase> componentArray(int component) const;

    /// New array of copied elements: element k * `blockLength` + b of it is element indices[k] * `blockLength` + b
    /// of this one. Null unless `size` has exactly as many elements and every index is valid.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase> gather(const TypedArray<index_t>& indices, const DynamicSize& size,
                                                            index_t blockLength) const = 0;

    /// A new array of another size, with value-initialised elements. `type` is an element type, the tag of a memory
    /// domain or a class of arrays, such as `MemArray<1, double>`, which names its elements; `typeid(void)`, the class
    /// of this array, and `MemArrayBase<N>` for the rank of `size` mean the type of this one. Null when no such type,
    /// or no such rank, is available.
    [[nodiscard]] Hestra::StrongPtr<MemBase> create(const DynamicSize& size, const std::type_info& type) const;

    /// What made this array; expired or empty when nothing (any more) did.
    [[nodiscard]] const Hestra::WeakPtr<CreativeArrayBase>& getCreator() const noexcept { return myCreator; }
    void setCreator(const Hestra::WeakPtr<CreativeArrayBase>& creator);

    /// Enters a factory and the entry of its type; both stay as they are when the type is known already.
    static void registerCreator(const Hestra::StrongPtr<Allocator>& allocator,
                                const Hestra::StrongPtr<VantleTypeBase>& type);
    /// The factory of an element type (or tag of its memory domain), or null.
    [[nodiscard]] static Hestra::StrongPtr<Allocator> findAllocator(const std::type_info& type);
    /// Identities of the element types with a factory, in order of registration.
    [[nodiscard]] static std::vector<VantleTypeIndex> RegisteredTypes();
    /// The same for element types of which arrays exist, though they are not registered.
    [[nodiscard]] static Hestra::StrongPtr<Allocator> findAnyAllocator(const std::type_info& type);

protected:
    /// The factory for arrays of this array's own element type, registered or not; null if there is none.
    [[nodiscard]] virtual Hestra::StrongPtr<Allocator> ownAllocator() const = 0;

private:
    VantleTypeIndex myElementType;
    Hestra::WeakPtr<CreativeArrayBase> myCreator;
};

/// An array over memory of somebody else, of an element type that is known at run time; see `adopt<N, T>` in
/// `MemArray.hpp`.
/// Failure      as there; `std::invalid_argument` for a rank beyond 1 to 4 and for types that there are no arrays of.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<MemBase> adopt(const VantleTypeIndex& type,
                                                                const ForeignMemory& memory, const DynamicSize& size,
                                                                MemoryOwner owner,
                                                                const Hestra::WeakPtr<CreativeArrayBase>& creator = {});

/// The same as a function that creators call when the array is first asked for, and again after it was dropped: what
/// has to be copied is copied then. Keeps the owner until the function goes. Refuses what is wrong now.
[[nodiscard]] VANTLE_MODEL_API std::function<Hestra::StrongPtr<MemBase>(const Hestra::WeakPtr<CreativeArrayBase>&)>
adoptLater(const VantleTypeIndex& type, ForeignMemory memory, const DynamicSize& size, MemoryOwner owner);

/// Rank-typed base of arrays.
template<int N>
class VANTLE_MODEL_API MemArrayBase : public virtual MemBase {
public:
    [[nodiscard]] int rank() const final { return N; }
    /// Number of elements on each axis, axis 0 (which varies fastest) first.
    [[nodiscard]] virtual MultiIndex<N> getSize() const = 0;
    [[nodiscard]] DynamicSize getDynamicSize() const final { return getSize(); }

    /// A new array with the elements at `start` ... `start` + `size` - 1; `size` counts. The block must lie within
    /// this array.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase>
    createSubArray(const MultiIndex<N>& start, const MultiIndex<N>& size,
                   const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const = 0;
    /// The array of rank `N` - 1 at `index` of the slowest axis, sharing memory where there is any. Null for
    /// rank 1 and beyond the extent.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase>
    createSlice(index_t index, const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) const = 0;
};

} // namespace Vantle
