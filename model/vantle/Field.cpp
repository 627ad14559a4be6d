#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

struct Field::Contents : Hestra::ReferenceBase<Field::Contents> {
    StrongPtr<FragmentIDCollection> collection;
    StrongPtr<CreativeArrayBase> unfragmented;
    std::unordered_map<const FragmentID*, StrongPtr<CreativeArrayBase>> creators;

    [[nodiscard]] const StrongPtr<CreativeArrayBase>* find(const FragmentID* id) const {
        if (!id) return unfragmented ? &unfragmented : nullptr;
        const auto found = creators.find(id);
        return found == creators.end() ? nullptr : &found->second;
    }
    /// Enters the creator of a fragment. Without memory nothing has changed.
    void set(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (id->name().empty()) {
            unfragmented = creator; // a fragment without name is the unfragmented data
            return;
        }
        const StrongPtr<FragmentID> present = collection->findFragmentID(id->name());
        const auto [place, isNew] = creators.try_emplace((present ? present : id).rawptr());
        try {
            if (!present) collection->add(id);
        } catch (...) {
            if (isNew) creators.erase(place);
            throw;
        }
        place->second = creator;
    }
    /// Fragments hide the unfragmented data as soon as one of them has a creator.
    [[nodiscard]] bool showsUnfragmented() const { return unfragmented && creators.empty(); }
};

Field::Field() : myContents(new Contents) {}
Field::Field(const StrongPtr<FragmentIDCollection>& collection) : Field() { myContents->collection = collection; }
Field::Field(const StrongPtr<MemBase>& data, const StrongPtr<FragmentIDCollection>& collection) : Field(collection) {
    if (data) setPersistentData(data);
}
Field::Field(const WeakPtr<Field>& other) : Field() {
    myForward = other;
    myForwardFlag = true;
}
Field::~Field() = default;

Field::age_t Field::age() const noexcept {
    const age_t own = Ageable::age();
    if (!myForwardFlag) return own;
    if (const StrongPtr<Field> other = myForward.lock()) {
        const age_t others = other->age();
        if (others > own) const_cast<Field*>(this)->raiseAge(others); // to be no older without it
        return std::max(own, others);
    }
    if (myForward.record() && !myForwardLostFlag.exchange(true)) const_cast<Field*>(this)->touch(); // its data are gone
    return Ageable::age();
}

const StrongPtr<Field>& Field::NullPtrField() {
    static const StrongPtr<Field> null;
    return null;
}

StrongPtr<Field::Contents> Field::contents() const {
    if (myForwardFlag)
        if (const StrongPtr<Field> other = myForward.lock()) return other->contents();
    return myContents;
}

void Field::noteChange() {
    if (myForwardFlag)
        if (const StrongPtr<Field> other = myForward.lock()) other->noteChange();
    touch();
}

// A field is also asked with ids of other fields' collections; there the name decides.
StrongPtr<FragmentID> Field::ownID(const Contents& contents, const StrongPtr<FragmentID>& id) const {
    if (!id || !contents.collection || contents.collection->contains(*id)) return id;
    if (auto same = contents.collection->findFragmentID(id->name())) return same;
    return id;
}

StrongPtr<FragmentIDCollection> Field::getFragmentIDCollection() const { return contents()->collection; }

StrongPtr<FragmentID> Field::getFragmentID(const std::string& name) const {
    const auto here = contents();
    return here->collection ? here->collection->findFragmentID(name) : nullptr;
}

StrongPtr<FragmentID> Field::makeFragmentID(const std::string& name) {
    if (name.empty()) return nullptr;
    const auto here = contents();
    if (!here->collection) here->collection = Hestra::makeRef<FragmentIDCollection>();
    return here->collection->makeFragmentID(name);
}

StrongPtr<CreativeArrayBase> Field::getCreator(const StrongPtr<FragmentID>& id) const {
    const auto here = contents();
    if (const auto* creator = here->find(id.rawptr())) return *creator;
    if (!id) return nullptr;
    const auto* creator = here->find(ownID(*here, id).rawptr());
    return creator ? *creator : nullptr;
}

StrongPtr<MemBase> Field::getData(const StrongPtr<FragmentID>& id) const {
    const StrongPtr<CreativeArrayBase> creator = getCreator(id);
    return creator ? creator->getData() : nullptr;
}

StrongPtr<MemBase> Field::getDataByNumericalID(unsigned int numericalId) const {
    const auto here = contents();
    const StrongPtr<FragmentID> id = here->collection ? here->collection->findFragmentID(numericalId) : nullptr;
    return id ? getData(id) : nullptr;
}

StrongPtr<MemBase> Field::getFirstData() const {
    const auto here = contents();
    if (here->showsUnfragmented()) return here->unfragmented->getData();
    if (here->collection)
        for (const auto& id : here->collection->ids())
            if (const auto* creator = here->find(id.rawptr())) return (*creator)->getData();
    return nullptr;
}

bool Field::hasData(const StrongPtr<FragmentID>& id) const {
    const StrongPtr<CreativeArrayBase> creator = getCreator(id);
    return creator && creator->hasData();
}

std::size_t Field::nFragments() const {
    const auto here = contents();
    return (here->collection ? here->collection->size() : 0) + (here->showsUnfragmented() ? 1 : 0);
}

StrongPtr<MemBase> Field::newFragmentationArray() const {
    std::vector<FragmentIDContainer> fragments;
    iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
        fragments.emplace_back(id);
        return true;
    });
    return makeMemArray1D(std::move(fragments));
}

void Field::setCreator(const StrongPtr<CreativeArrayBase>& creator, const StrongPtr<FragmentID>& id) {
    if (!creator) {
        removeData(id);
        return;
    }
    const auto here = contents();
    if (!id) {
        here->unfragmented = creator;
    } else {
        if (!here->collection) here->collection = Hestra::makeRef<FragmentIDCollection>();
        here->set(id, creator);
    }
    noteChange();
}

StrongPtr<CreativeArrayBase> Field::createCreator(const StrongPtr<MemBase>& data, const StrongPtr<FragmentID>& id,
                                                  CreationFailAlternative alternative,
                                                  const WeakPtr<Hestra::Cache>& cache) {
    if (const auto present = getCreator(id); present && alternative != ReplaceExisting)
        return alternative == KeepExisting ? present : nullptr;
    const Hestra::Ref<CreativeArray> creator(new CreativeArray(data, cache.lock()));
    creator->touch();
    setCreator(creator, id);
    return creator;
}

StrongPtr<CreativeArrayBase> Field::createCreator(CreativeArray::CreationFunction function,
                                                  const VantleTypeIndex& elementType, const DynamicSize& size,
                                                  const StrongPtr<FragmentID>& id, CreationFailAlternative alternative,
                                                  const WeakPtr<Hestra::Cache>& cache) {
    if (const auto present = getCreator(id); present && alternative != ReplaceExisting)
        return alternative == KeepExisting ? present : nullptr;
    const Hestra::Ref<CreativeArray> creator(new CreativeArray(std::move(function), elementType, size, cache));
    creator->touch();
    setCreator(creator, id);
    return creator;
}

StrongPtr<CreativeArrayBase> Field::setPersistentData(const StrongPtr<MemBase>& data, const StrongPtr<FragmentID>& id,
                                                      const StrongPtr<Hestra::Cache>&, const std::string& creatorName) {
    if (!data) {
        removeData(id);
        return nullptr;
    }
    auto creator = createCreator(data, id);
    creator->setCreatorName(creatorName);
    return creator;
}

StrongPtr<CreativeArrayBase> Field::setDiscardableData(const StrongPtr<MemBase>& data,
                                                       const StrongPtr<Hestra::Cache>& cache,
                                                       const StrongPtr<FragmentID>& id) {
    if (!data) {
        removeData(id);
        return nullptr;
    }
    return createCreator(data, id, ReplaceExisting, cache ? cache : Hestra::Cache::MemCache());
}

bool Field::removeData(const StrongPtr<FragmentID>& id) {
    const auto here = contents();
    bool removed;
    if (const auto own = ownID(*here, id)) {
        removed = here->creators.erase(own.rawptr()) > 0;
    } else {
        removed = bool(here->unfragmented);
        here->unfragmented = nullptr;
    }
    if (removed) noteChange();
    return removed;
}

void Field::processOwnership(Hestra::Intercube& destination, const Hestra::Intercube& source) const {
    destination.takeOver(source);
}

bool Field::iterate(const FragmentFunction& function, bool withNullCreators) const {
    const auto here = contents();
    const StrongPtr<CreativeArrayBase> unfragmented =
        here->showsUnfragmented() ? here->unfragmented : StrongPtr<CreativeArrayBase>();
    const auto ids = here->collection ? here->collection->ids() : std::vector<StrongPtr<FragmentID>>();
    for (const auto& id : ids) {
        const auto* const found = here->find(id.rawptr());
        const StrongPtr<CreativeArrayBase> creator = found ? *found : StrongPtr<CreativeArrayBase>();
        if (!creator && !withNullCreators) continue;
        if (!function(id, creator)) return false;
    }
    return !unfragmented || function(nullptr, unfragmented);
}

bool Field::iterate(FragmentIterator& iterator, const WeakPtr<FragmentSelector>& selector) const {
    const StrongPtr<FragmentSelector> chosen = selector.lock();
    return iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        return (chosen && !chosen->isSelected(id)) || iterator.apply(id, creator);
    });
}

bool Field::iterate(FragmentIndexIterator& iterator, const WeakPtr<FragmentSelector>& selector) const {
    const StrongPtr<FragmentSelector> chosen = selector.lock();
    unsigned int index = 0;
    return iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        const unsigned int place = index++;
        return (chosen && !chosen->isSelected(id)) || iterator.apply(place, creator);
    });
}

bool Field::iterateOwned(const std::function<bool(CreativeArrayBase&)>& function) const {
    return iterate([&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
        return !creator || function(*creator);
    });
}

} // namespace Vantle
