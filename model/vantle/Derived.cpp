#include <model/vantle/Derived.hpp>

#include <algorithm>

namespace Vantle {

using Hestra::Freshness;
using Hestra::StrongPtr;
using Hestra::WeakPtr;

DerivedField::DerivedField(const WeakPtr<const Field>& source, const StrongPtr<FragmentIDCollection>& collection,
                           const StrongPtr<BlankingInput>& masks)
    : Field(collection), mySource(source), myMasks(masks) {}
DerivedField::~DerivedField() = default;

DerivedField::age_t DerivedField::age() const noexcept {
    if (const StrongPtr<const Field> source = mySource.lock())
        const_cast<DerivedField*>(this)->raiseAge(source->age()); // to be no older without it
    if (myMasks) const_cast<DerivedField*>(this)->raiseAge(myMasks->age());
    return Field::age();
}

DerivedArray::Source::Source(const StrongPtr<CreativeArrayBase>& creator, const WeakPtr<const Field>& field,
                             const StrongPtr<FragmentID>& id, const StrongPtr<BlankingInput>& masks)
    : myCreator(creator), myField(field), myID(id), myMasks(masks) {}

DerivedArray::Source DerivedArray::Source::remembering(const WeakPtr<CreativeArrayBase>& creator) {
    Source source(StrongPtr<CreativeArrayBase>{});
    source.myRememberedCreator = creator;
    return source;
}

StrongPtr<CreativeArrayBase> DerivedArray::Source::present(const StrongPtr<const Field>& field) const {
    if (field) return field->getCreator(myID);
    return myCreator ? myCreator : myRememberedCreator.lock();
}

StrongPtr<MemBase> DerivedArray::Source::data() const {
    const StrongPtr<CreativeArrayBase> creator = present(myField.lock());
    return creator ? creator->getData() : nullptr;
}

Freshness DerivedArray::Source::freshness() const {
    const StrongPtr<const Field> field = myField.lock();
    return Freshness(field.rawptr(), present(field).rawptr(), myMasks.rawptr());
}

Hestra::Ageable::age_t DerivedArray::Source::age() const {
    const StrongPtr<const Field> field = myField.lock();
    const StrongPtr<CreativeArrayBase> creator = present(field);
    return std::max({field ? field->age() : 0, creator ? creator->age() : 0, myMasks ? myMasks->age() : 0});
}

DerivedArray::Source DerivedArray::Source::followed() const {
    return myRememberedCreator ? *this : Source(present(myField.lock()), myField, myID, myMasks);
}

DerivedArray::DerivedArray(const Source& source, Derivation derivation, const VantleTypeIndex& elementType,
                           const DynamicSize& size, const WeakPtr<Hestra::Cache>& cache)
    : CreativeArray(CreationFunction(), elementType, size, cache), myDerivation(std::move(derivation)),
      mySource(source), myOrigin(source.freshness()) {}

DerivedArray::DerivedArray(const Source& source, Derivation derivation, const StrongPtr<MemBase>& data,
                           const Freshness& origin, const WeakPtr<Hestra::Cache>& cache)
    : CreativeArray(data, CreationFunction(), cache), myDerivation(std::move(derivation)), mySource(source),
      myMade(data), myOrigin(origin) {
    if (data) addInterface(Hestra::makeRef<SizeInterface>(data->getDynamicSize()));
}

DerivedArray::~DerivedArray() = default;

DerivedArray::Source DerivedArray::source() const {
    const std::lock_guard lock(mySourceMutex);
    return mySource;
}

DerivedArray::age_t DerivedArray::age() const noexcept {
    const_cast<DerivedArray*>(this)->raiseAge(source().age()); // to be no older without it
    return CreativeArray::age();
}

bool DerivedArray::isCurrent(const MemBase* data) const {
    const std::lock_guard lock(mySourceMutex);
    return (!data || myMade.rawptr() == data) && myOrigin.isCurrent();
}

bool DerivedArray::canProduce() const { return true; }

StrongPtr<MemBase> DerivedArray::produce() {
    const StrongPtr<MemBase> held = source().data(); // which may make the source newer
    const Source from = source().followed();
    const Freshness origin = from.freshness();
    const StrongPtr<MemBase> data = from.data();
    const StrongPtr<MemBase> made = data ? myDerivation(data, WeakPtr<CreativeArrayBase>(*this)) : nullptr;
    if (made) {
        announceElementType(made->elementIndex());
        addInterface(Hestra::makeRef<SizeInterface>(made->getDynamicSize()));
    }
    const std::lock_guard lock(mySourceMutex);
    mySource = from;
    if (!made) return nullptr;
    myMade = made;
    myOrigin = origin;
    return made;
}

} // namespace Vantle
