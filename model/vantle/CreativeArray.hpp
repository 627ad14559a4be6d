#pragma once
/// Creators: what holds the array of one fragment, makes it on demand, and carries what was derived from it.

#include <model/hestra/Ageable.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/hestra/Creator.hpp>
#include <model/hestra/Interface.hpp>
#include <model/vantle/MemBase.hpp>

#include <functional>
#include <string>

namespace Vantle {

/// The extent of a fragment's array, known without making the array.
class VANTLE_MODEL_API SizeInterface : public Hestra::Interface<SizeInterface> {
public:
    explicit SizeInterface(const DynamicSize& size) : mySize(size) {}
    [[nodiscard]] const DynamicSize& size() const noexcept { return mySize; }

private:
    DynamicSize mySize;
};

/// Rank and element type of an array, known without making the array.
class VANTLE_MODEL_API MemArrayProperties : public Hestra::Interface<MemArrayProperties> {
public:
    MemArrayProperties(int rank, const VantleTypeIndex& elementType) : myElementType(elementType), myRank(rank) {}
    [[nodiscard]] int rank() const noexcept { return myRank; }
    [[nodiscard]] const VantleTypeIndex& elementType() const noexcept { return myElementType; }

private:
    VantleTypeIndex myElementType;
    int myRank;
};

/// Holder of one fragment's data. Carries interfaces, attributes and an age.
///
/// A class of a caller's own overrides `create` (and then sees every reading, from any thread) or, to have its data
/// made once and kept like those of others, `produce`; it may announce its element type to the constructor.
///
/// Attaching results, setting attributes, creating, dropping and creating again do not age it; whoever writes into
/// its array in place calls `touch()` on it and on its field.
/// Concurrency  data, age, element type, interfaces and attributes may be read and changed at once; the name is set by
///              one thread while nobody reads it.
class VANTLE_MODEL_API CreativeArrayBase : public Hestra::CreatorBase<MemBase>,
                                           public Hestra::Ageable,
                                           public Hestra::Intercube,
                                           public Hestra::Attributes {
public:
    CreativeArrayBase();
    explicit CreativeArrayBase(const VantleTypeIndex& elementType);
    ~CreativeArrayBase() override;

    /// The data, made if need be: what `create(false)` gives. All that read data call this, so that of a class that
    /// overrides `create`, too, `hasData`, size and element type are known once the data were read.
    [[nodiscard]] Hestra::StrongPtr<MemBase> getData();

    /// The registered element type of the data, without making them: as announced, or that of the array once there
    /// was one. Null when unknown and for element types that are not registered.
    [[nodiscard]] Hestra::StrongPtr<VantleTypeBase> getVantleType() const;
    /// The element type, registered or not; `typeid(void)` when unknown.
    [[nodiscard]] VantleTypeIndex elementType() const;
    /// The name given to whoever makes the data; for descriptions only.
    [[nodiscard]] const std::string& creatorName() const noexcept { return myCreatorName; }
    void setCreatorName(const std::string& name) { myCreatorName = name; }

protected:
    void announceElementType(const VantleTypeIndex& elementType);

private:
    mutable std::mutex myTypeMutex;
    VantleTypeIndex myElementType;
    std::string myCreatorName;
};

/// A creator around an existing array, or around a function that makes one.
class VANTLE_MODEL_API CreativeArray : public CreativeArrayBase {
public:
    /// Makes the array; is given a weak handle to the creator, for the array to refer to. May return null or throw.
    using CreationFunction = std::function<Hestra::StrongPtr<MemBase>(const Hestra::WeakPtr<CreativeArrayBase>&)>;

    /// Wraps `data`: with a cache they are discardable (and lost when dropped), without one this creator owns them.
    explicit CreativeArray(const Hestra::StrongPtr<MemBase>& data, const Hestra::StrongPtr<Hestra::Cache>& cache = {});
    /// Makes the data when they are first asked for; with a cache they may be dropped and are made again.
    /// A known size (rank above 0) is attached as `SizeInterface`.
    CreativeArray(CreationFunction function, const VantleTypeIndex& elementType, const DynamicSize& size = {},
                  const Hestra::WeakPtr<Hestra::Cache>& cache = {});
    /// Holds `data` now and makes them again with `function` after they were dropped.
    CreativeArray(const Hestra::StrongPtr<MemBase>& data, CreationFunction function,
                  const Hestra::WeakPtr<Hestra::Cache>& cache);
    ~CreativeArray() override;

protected:
    [[nodiscard]] bool canProduce() const override;
    [[nodiscard]] Hestra::StrongPtr<MemBase> produce() override;

private:
    CreationFunction myFunction;
};

/// The extent of a creator's data without making them: from an attached `SizeInterface`, else from the living array,
/// else (and of derived data that are to be made again) of rank 0.
[[nodiscard]] VANTLE_MODEL_API DynamicSize getSize(const CreativeArrayBase& creator);

/// The extent of a creator's data, if they are of this rank, else of rank 0: from an attached `SizeInterface`, else
/// from the array, which is made for that once; a `SizeInterface` is attached then, and the array not touched again.
///
/// Concurrency  attaches to the creator: one creator, one thread at a time.
[[nodiscard]] VANTLE_MODEL_API DynamicSize makeSizeInterface(CreativeArrayBase& creator, int rank);
/// The same as a `MultiIndex`; false, and `size` as it was, when there is no array of rank `N`, or no creator.
template<int N>
[[nodiscard]] bool makeSizeInterface(MultiIndex<N>& size, CreativeArrayBase& creator) {
    return makeSizeInterface(creator, N).get(size);
}
template<int N>
[[nodiscard]] bool makeSizeInterface(MultiIndex<N>& size, const Hestra::StrongPtr<CreativeArrayBase>& creator) {
    return creator && makeSizeInterface(size, *creator);
}

} // namespace Vantle
