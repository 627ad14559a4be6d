#pragma once
/// Fragments: the named pieces that a field is cut into, and what walks over them.

#include <model/hestra/Interface.hpp>
#include <model/vantle/Index.hpp>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Vantle {

/// One named piece of a field. Fields that share a collection share its fragment ids.
///
/// The null handle and the empty name both stand for unfragmented data; every operation accepts the null handle.
/// Concurrency  name and number never change; attachments are guarded, see `Hestra::Intercube`.
class VANTLE_MODEL_API FragmentID : public Hestra::ReferenceBase<FragmentID>, public Hestra::Intercube {
public:
    /// Gets a number, and its collection, with the first collection that it is added to.
    explicit FragmentID(std::string name);
    /// Keeps this number; the collection does not know of it until it is added.
    FragmentID(std::string name, unsigned int numericalId, const Hestra::WeakPtr<FragmentIDCollection>& collection);
    ~FragmentID() override;

    [[nodiscard]] const std::string& name() const noexcept { return myName; }
    /// The number that `FragmentIDCollection::findFragmentID` finds the fragment by; 0 before it has one.
    [[nodiscard]] unsigned int numericalId() const noexcept { return myNumericalId; }
    [[nodiscard]] Hestra::StrongPtr<FragmentIDCollection> collection() const;

    /// The fragment's name, or `fallback` for the null handle.
    [[nodiscard]] static std::string Name(const Hestra::StrongPtr<FragmentID>& id, const std::string& fallback);

private:
    friend class FragmentIDCollection;
    std::string myName;
    unsigned int myNumericalId = 0;
    bool myNumberFlag = false;
    Hestra::WeakPtr<FragmentIDCollection> myCollection;
};

/// The ordered set of fragment ids of a field; may be shared by several fields.
///
/// Order is that in which the ids were entered, never that of their names or numbers. An id is found by the number it
/// was made with or, when another one of this collection has that, by the next free one: one above all others. Ids that
/// are made here are numbered 0, 1, 2, ...
/// Concurrency  reading from any number of threads; changing from one thread while nobody reads.
class VANTLE_MODEL_API FragmentIDCollection : public Hestra::ReferenceBase<FragmentIDCollection> {
public:
    FragmentIDCollection();
    ~FragmentIDCollection() override;

    [[nodiscard]] std::size_t size() const noexcept { return myIDs.size(); }
    [[nodiscard]] bool empty() const noexcept { return myIDs.empty(); }
    /// The fragment of this number, or null.
    [[nodiscard]] Hestra::StrongPtr<FragmentID> findFragmentID(unsigned int numericalId) const;
    /// The fragment of this name, or null; null for the empty name.
    [[nodiscard]] Hestra::StrongPtr<FragmentID> findFragmentID(std::string_view name) const;
    /// The fragment of this name, made when missing; null for the empty name.
    Hestra::StrongPtr<FragmentID> makeFragmentID(const std::string& name);
    /// Whether this very object is one of the collection's ids.
    [[nodiscard]] bool contains(const FragmentID& id) const;
    /// Takes a fragment id made elsewhere; one of the same name is kept instead. Returns the id that stands.
    Hestra::StrongPtr<FragmentID> add(const Hestra::StrongPtr<FragmentID>& id);
    /// Makes a fragment for every name that is not there yet, in this order.
    void setFragmentNames(const std::vector<std::string>& names);
    [[nodiscard]] std::vector<std::string> fragmentNames() const;
    [[nodiscard]] const std::vector<Hestra::StrongPtr<FragmentID>>& ids() const noexcept { return myIDs; }

private:
    /// The smallest number above all that are taken; the smallest free one when there is none above.
    [[nodiscard]] unsigned int freeNumber() const;

    std::vector<Hestra::StrongPtr<FragmentID>> myIDs;
    std::map<std::string, std::size_t, std::less<>> myIndexByName;
    std::map<unsigned int, std::size_t> myIndexByNumber;
};

/// Something that can say which fragments it has.
class VANTLE_MODEL_API FragmentIDCollectionProvider {
public:
    virtual ~FragmentIDCollectionProvider();
    [[nodiscard]] virtual Hestra::StrongPtr<FragmentIDCollection> getFragmentIDCollection() const = 0;
};

/// The fragments that hold one position: none, one, or several. A null id is a member like any other and stands
/// for unfragmented data.
class VANTLE_MODEL_API FragmentIDContainer {
public:
    FragmentIDContainer() = default;
    explicit FragmentIDContainer(const Hestra::StrongPtr<FragmentID>& id);

    [[nodiscard]] std::size_t nFragments() const noexcept { return myCount; }
    /// The first fragment; null when there is none or when it is the unfragmented data.
    [[nodiscard]] const Hestra::StrongPtr<FragmentID>& getFirst() const noexcept { return myFirst; }
    [[nodiscard]] Hestra::StrongPtr<FragmentID> get(std::size_t n) const;
    void add(const Hestra::StrongPtr<FragmentID>& id);

private:
    Hestra::StrongPtr<FragmentID> myFirst; // most containers hold one: no allocation for it
    std::vector<Hestra::StrongPtr<FragmentID>> myOthers;
    std::size_t myCount = 0;
};

/// What is known of a fragment's place in a whole grid.
enum FragmentProperty { NoProperty = 0, IndexOffset = 1 };

/// Attached to a `FragmentID`: the place of the fragment's first vertex in the index space of the whole grid.
template<int N, FragmentProperty P>
class VANTLE_MODEL_API FragmentLocation : public Hestra::Interface<FragmentLocation<N, P>> {
public:
    explicit FragmentLocation(const MultiIndex<N>& offset) : myOffset(offset) {}
    [[nodiscard]] const MultiIndex<N>& offset() const noexcept { return myOffset; }

private:
    MultiIndex<N> myOffset;
};

/// Restricts an iteration to some fragments.
class VANTLE_MODEL_API FragmentSelector : public Hestra::ReferenceBase<FragmentSelector> {
public:
    ~FragmentSelector() override;
    [[nodiscard]] virtual bool isSelected(const Hestra::StrongPtr<FragmentID>& id) const = 0;
};

/// Called once a fragment, in collection order; the creator is null where the field has none.
class VANTLE_MODEL_API FragmentIterator {
public:
    virtual ~FragmentIterator();
    /// False ends the iteration.
    virtual bool apply(const Hestra::StrongPtr<FragmentID>& id,
                       const Hestra::StrongPtr<CreativeArrayBase>& creator) = 0;
};

/// As `FragmentIterator`, given the position of the fragment in the iteration order; a selector skips without
/// renumbering.
class VANTLE_MODEL_API FragmentIndexIterator {
public:
    virtual ~FragmentIndexIterator();
    /// False ends the iteration.
    virtual bool apply(unsigned int index, const Hestra::StrongPtr<CreativeArrayBase>& creator) = 0;
};

} // namespace Vantle

namespace Hestra {
template<int N, Vantle::FragmentProperty P>
struct ReferenceDomain<Vantle::FragmentLocation<N, P>> {
    using type = InterfaceBase;
};
} // namespace Hestra
