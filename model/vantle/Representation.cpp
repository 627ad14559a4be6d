#include <model/vantle/Bundle.hpp>
#include <model/vantle/Representation.hpp>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

FieldID::FieldID(std::string name) : myName(std::move(name)) {}
FieldID::~FieldID() = default;
BaseSpaceDependency::~BaseSpaceDependency() = default;
RepresentationMap::~RepresentationMap() = default;

FieldProxy& FieldProxy::operator=(const StrongPtr<Field>& field) {
    myRepresentation.setField(myName, field);
    return *this;
}

StrongPtr<Field> FieldProxy::get() const { return myRepresentation.findField(myName); }

Representation::Representation(const WeakPtr<BaseSpace>& base, const WeakPtr<Owner>& owner)
    : myBase(base), myOwner(owner) {}
Representation::~Representation() = default;

Representation::Slots Representation::slots() const {
    const std::lock_guard lock(myMutex);
    return mySlots;
}

/// The slot of this name with its key; under the lock.
Representation::Slot& Representation::makeSlot(const std::string& name) {
    Slot& slot = mySlots[name];
    if (!slot.id) slot.id = Hestra::makeRef<FieldID>(name);
    return slot;
}

StrongPtr<FieldID> Representation::findFieldID(const std::string& name) const {
    const std::lock_guard lock(myMutex);
    const auto slot = mySlots.find(name);
    return slot == mySlots.end() ? StrongPtr<FieldID>() : slot->second.id;
}

StrongPtr<FieldID> Representation::makeFieldID(const std::string& name) {
    const std::lock_guard lock(myMutex);
    return makeSlot(name).id;
}

StrongPtr<FieldID> Representation::createSharedFieldID(Representation& other, const std::string& name) {
    StrongPtr<FieldID> key = findFieldID(name);
    if (!key) key = other.makeFieldID(name);
    // One after the other: two that share with each other must not wait for each other.
    for (Representation* const one : {&other, this}) {
        const std::lock_guard lock(one->myMutex);
        Slot& slot = one->mySlots[name];
        if (!slot.id) slot.id = key;
        if (one == this) key = slot.id;
    }
    return key;
}

StrongPtr<Field> Representation::findField(const StrongPtr<FieldID>& id) const {
    return id ? findField(id->name()) : Field::NullPtrField();
}

StrongPtr<Field> Representation::findField(const std::string& name) const {
    const std::lock_guard lock(myMutex);
    const auto slot = mySlots.find(name);
    return slot == mySlots.end() ? Field::NullPtrField() : slot->second.field;
}

StrongPtr<Field> Representation::findField(const char* name) const {
    const std::lock_guard lock(myMutex);
    const auto slot = mySlots.find(std::string_view(name));
    return slot == mySlots.end() ? Field::NullPtrField() : slot->second.field;
}

void Representation::setField(const std::string& name, const StrongPtr<Field>& field) {
    StrongPtr<Field> replaced = field; // released after the lock: its end may come back here
    const std::lock_guard lock(myMutex);
    if (field || mySlots.find(name) != mySlots.end()) makeSlot(name).field.swap(replaced);
}

StrongPtr<Field> Representation::makeField(const FieldID& id) {
    const std::lock_guard lock(myMutex);
    Slot& slot = makeSlot(id.name());
    if (!slot.field) slot.field = Hestra::makeRef<Field>();
    return slot.field;
}

StrongPtr<Field> Representation::makeField(const WeakPtr<FieldID>& id,
                                           const StrongPtr<FragmentIDCollection>& collection,
                                           const StrongPtr<MemBase>& data) {
    const StrongPtr<FieldID> key = id.lock();
    if (!key) return nullptr;
    const StrongPtr<Field> field(new Field(data, collection));
    setField(key->name(), field);
    return field;
}

bool Representation::iterate(const std::function<bool(const FieldID&, const Field&)>& function) const {
    for (const auto& [name, slot] : slots()) // the function may change the representation
        if (slot.field && !function(*slot.id, *slot.field)) return false;
    return true;
}

std::string Representation::xml() const {
    std::string text = "<representation>\n";
    for (const auto& [name, slot] : slots())
        if (slot.field)
            text += "  <field name=\"" + name + "\" fragments=\"" + std::to_string(slot.field->nFragments()) + "\"/>\n";
    return text + "</representation>\n";
}

bool Representation::iterateOwned(const std::function<bool(Field&)>& function) const {
    for (const auto& [name, slot] : slots())
        if (slot.field && !function(*slot.field)) return false;
    return true;
}

const Hestra::Referable* Representation::ownerObject() const {
    return myOwner ? myOwner.record()->object.load() : nullptr;
}

StrongPtr<Representation> RepresentationMap::operator()(const BaseSpace& base) {
    const WeakPtr<BaseSpace> key(
        const_cast<BaseSpace&>(base)); // a representation remembers its base, it changes nothing
    if (auto present = std::as_const(*this)(key)) return present;
    myRepresentations.push_back(Hestra::makeRef<Representation>(key, representationOwner()));
    return myRepresentations.back();
}

StrongPtr<Representation> RepresentationMap::operator()(const WeakPtr<BaseSpace>& base) const {
    if (!base) return nullptr;
    for (const auto& representation : myRepresentations)
        if (representation->baseSpace().record() == base.record()) return representation;
    return nullptr;
}

StrongPtr<Representation> RepresentationMap::findRepresentation(const BaseSpace& base) const {
    return (*this)(WeakPtr<BaseSpace>(const_cast<BaseSpace&>(base)));
}

StrongPtr<Representation> RepresentationMap::FirstRepresentation() const {
    return myRepresentations.empty() ? StrongPtr<Representation>() : myRepresentations.front();
}

StrongPtr<Bundle> getPrimaryBundle(const Representation& representation) {
    // representation → skeleton → grid → slice → bundle
    const Hestra::Referable* at = representation.ownerObject();
    const auto* const skeleton = dynamic_cast<const Skeleton*>(at);
    at = skeleton ? skeleton->ownerObject() : nullptr;
    const auto* const grid = dynamic_cast<const Grid*>(at);
    at = grid ? grid->ownerObject() : nullptr;
    const auto* const slice = dynamic_cast<const Slice*>(at);
    at = slice ? slice->ownerObject() : nullptr;
    auto* const bundle = dynamic_cast<Bundle*>(const_cast<Hestra::Referable*>(at));
    return bundle && bundle->strongCount() > 0 ? StrongPtr<Bundle>(bundle) : StrongPtr<Bundle>();
}

} // namespace Vantle
