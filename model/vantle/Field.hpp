#pragma once
/// Fields: one quantity over a skeleton, cut into fragments whose arrays are made on demand.

#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/Fragment.hpp>
#include <model/vantle/Ownable.hpp>

#include <functional>
#include <unordered_map>

namespace Vantle {

/// One quantity over a skeleton. Fragments are found through `FragmentID` handles; the null handle addresses the
/// unfragmented data, which a field may have beside its fragments.
///
/// A fragment id of another collection finds the fragment of the same name.
///
/// Age  the field's own: setting or removing data and creators and `touch()` make it newer. Creating, dropping and
///      re-creating arrays, attaching results and attributes, and copying handles do not. A forwarding field is as old
///      as the newer of itself and its target, and becomes newer when it is found to have lost that.
/// Concurrency  reading, creation of arrays and attaching included, from any number of threads; changing from one
///              thread while nobody reads. Age, attachments, and the data of creators may be read and changed at once.
class VANTLE_MODEL_API Field : public Hestra::ReferenceBase<Field>,
                               public Hestra::Ageable,
                               public Hestra::Intercube,
                               public FragmentIDCollectionProvider,
                               public Ownable<CreativeArrayBase>::Container {
public:
    /// Called once a fragment; false ends the iteration.
    using FragmentFunction =
        std::function<bool(const Hestra::StrongPtr<FragmentID>&, const Hestra::StrongPtr<CreativeArrayBase>&)>;

    /// What `createCreator` does where there is a creator already.
    enum CreationFailAlternative {
        Fail,           ///< nothing; null is returned
        KeepExisting,   ///< nothing; the existing one is returned
        ReplaceExisting ///< replaces it
    };

    /// No data, no fragments.
    Field();
    /// The fragments of `collection`, none with data yet.
    explicit Field(const Hestra::StrongPtr<FragmentIDCollection>& collection);
    /// `data` as the unfragmented (global) data; the collection lists the sub-blocks, if any. The field shows the data
    /// as long as none of these has a creator.
    Field(const Hestra::StrongPtr<MemBase>& data, const Hestra::StrongPtr<FragmentIDCollection>& collection);
    /// Forwards to another field as long as that lives: shares its fragments and creators, with attachments of its
    /// own. What changes either makes both newer; `touch()` of this one leaves the other as it is.
    explicit Field(const Hestra::WeakPtr<Field>& other);
    template<class Array>
    requires std::is_convertible_v<Array*, MemBase*>
    explicit Field(const Hestra::Ref<Array>& data, const Hestra::StrongPtr<FragmentIDCollection>& collection = {})
        : Field(Hestra::StrongPtr<MemBase>(data.strong()), collection) {}
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;
    ~Field() override;

    /// The shared null result of look-ups.
    [[nodiscard]] static const Hestra::StrongPtr<Field>& NullPtrField();

    [[nodiscard]] age_t age() const noexcept override;
    [[nodiscard]] Hestra::StrongPtr<FragmentIDCollection> getFragmentIDCollection() const override;
    /// The fragment of this name, or null; null for the empty name.
    [[nodiscard]] Hestra::StrongPtr<FragmentID> getFragmentID(const std::string& name) const;
    /// The fragment of this name, made (in the collection, which is made too) when missing; null for the empty name.
    Hestra::StrongPtr<FragmentID> makeFragmentID(const std::string& name);

    /// The creator of a fragment, or null.
    [[nodiscard]] Hestra::StrongPtr<CreativeArrayBase> getCreator(const Hestra::StrongPtr<FragmentID>& id) const;
    /// The array of a fragment, made if need be; null when there is none to be had.
    [[nodiscard]] Hestra::StrongPtr<MemBase> getData(const Hestra::StrongPtr<FragmentID>& id = {}) const;
    [[nodiscard]] Hestra::StrongPtr<MemBase> getDataByNumericalID(unsigned int numericalId) const;
    /// The array of the first fragment that has a creator; the unfragmented data when none has.
    [[nodiscard]] Hestra::StrongPtr<MemBase> getFirstData() const;
    /// Whether the data exist now: false after they were dropped and before a lazy creator ran.
    [[nodiscard]] bool hasData(const Hestra::StrongPtr<FragmentID>& id = {}) const;
    /// Number of visits an iteration makes.
    [[nodiscard]] std::size_t nFragments() const;
    /// A rank-1 array of `FragmentIDContainer`, one a fragment of this field, each holding its fragment.
    [[nodiscard]] Hestra::StrongPtr<MemBase> newFragmentationArray() const;

    /// Sets the creator of a fragment. A fragment id that the collection does not know is added to it.
    void setCreator(const Hestra::StrongPtr<CreativeArrayBase>& creator, const Hestra::StrongPtr<FragmentID>& id = {});
    /// A creator around `data`; discardable if the cache lives.
    Hestra::StrongPtr<CreativeArrayBase> createCreator(const Hestra::StrongPtr<MemBase>& data,
                                                       const Hestra::StrongPtr<FragmentID>& id = {},
                                                       CreationFailAlternative alternative = ReplaceExisting,
                                                       const Hestra::WeakPtr<Hestra::Cache>& cache = {});
    /// A lazy creator: `function` makes the array when it is first asked for. Announces element type and, if its
    /// rank is not 0, size. With a cache the array may be dropped and is made again.
    Hestra::StrongPtr<CreativeArrayBase> createCreator(CreativeArray::CreationFunction function,
                                                       const VantleTypeIndex& elementType, const DynamicSize& size = {},
                                                       const Hestra::StrongPtr<FragmentID>& id = {},
                                                       CreationFailAlternative alternative = ReplaceExisting,
                                                       const Hestra::WeakPtr<Hestra::Cache>& cache = {});
    /// Sets data that live as long as the field, under a new creator: what was derived from old data is gone.
    /// The cache plays no role for data that are never dropped.
    Hestra::StrongPtr<CreativeArrayBase> setPersistentData(const Hestra::StrongPtr<MemBase>& data,
                                                           const Hestra::StrongPtr<FragmentID>& id = {},
                                                           const Hestra::StrongPtr<Hestra::Cache>& cache = {},
                                                           const std::string& creatorName = {});
    /// Sets data that the cache may drop, under a new creator. A null cache stands for `Cache::MemCache()`.
    Hestra::StrongPtr<CreativeArrayBase> setDiscardableData(const Hestra::StrongPtr<MemBase>& data,
                                                            const Hestra::StrongPtr<Hestra::Cache>& cache = {},
                                                            const Hestra::StrongPtr<FragmentID>& id = {});
    /// Removes the creator of a fragment; the fragment id stays. False if there was none.
    bool removeData(const Hestra::StrongPtr<FragmentID>& id = {});
    /// Moves to `destination` what `source` carries.
    void processOwnership(Hestra::Intercube& destination, const Hestra::Intercube& source) const;

    /// Calls `function` for every fragment of the collection in its order (the creator may be null). When none of them
    /// has a creator, unfragmented data come last, with the null id. Walks over a snapshot: the function may change the
    /// field.
    ///
    /// @param withNullCreators  whether fragments without creator are visited.
    /// @return false if the function ended the iteration.
    bool iterate(const FragmentFunction& function, bool withNullCreators = true) const;
    /// The same through an iterator object, restricted by the selector when that is valid.
    bool iterate(FragmentIterator& iterator, const Hestra::WeakPtr<FragmentSelector>& selector = {}) const;
    bool iterate(FragmentIndexIterator& iterator, const Hestra::WeakPtr<FragmentSelector>& selector = {}) const;

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    bool iterateOwned(const std::function<bool(CreativeArrayBase&)>& function) const override;

private:
    struct Contents;
    void noteChange();
    [[nodiscard]] Hestra::StrongPtr<Contents> contents() const;
    [[nodiscard]] Hestra::StrongPtr<FragmentID> ownID(const Contents& contents,
                                                      const Hestra::StrongPtr<FragmentID>& id) const;

    Hestra::StrongPtr<Contents> myContents;
    Hestra::WeakPtr<Field> myForward;
    bool myForwardFlag = false;
    mutable std::atomic<bool> myForwardLostFlag{false};
};

} // namespace Vantle
