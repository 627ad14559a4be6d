#include <model/hestra/Interface.hpp>

#include <algorithm>
#include <utility>

namespace Hestra {

InterfaceBase::~InterfaceBase() = default;

namespace {

const std::type_info& typeOf(const InterfaceBase& object) { return typeid(object); }

} // namespace

Intercube::Entries::iterator Intercube::find(const std::type_info& type) const {
    auto found = myEntries.end();
    for (auto entry = myEntries.begin(); entry != myEntries.end(); ++entry) {
        if (typeOf(**entry) == type) return entry;
        if ((*entry)->getInterfaceDomain() == type) found = entry;
    }
    return found;
}

StrongPtr<InterfaceBase> Intercube::findInterface(const std::type_info& type) const {
    const std::lock_guard lock(myMutex);
    const auto found = find(type);
    return found == myEntries.end() ? StrongPtr<InterfaceBase>() : *found;
}

void Intercube::addInterface(const StrongPtr<InterfaceBase>& what) const {
    if (!what) return;
    StrongPtr<InterfaceBase> replaced; // released after the lock: its destructor may come back here
    const std::lock_guard lock(myMutex);
    const auto same = std::find_if(myEntries.begin(), myEntries.end(),
                                   [&](const auto& entry) { return typeOf(*entry) == typeOf(*what); });
    if (same == myEntries.end()) {
        myEntries.push_back(what);
    } else {
        replaced = std::exchange(*same, what);
        std::rotate(same, same + 1, myEntries.end());
    }
}

bool Intercube::removeInterface(const std::type_info& type) const {
    StrongPtr<InterfaceBase> removed;
    const std::lock_guard lock(myMutex);
    const auto found = find(type);
    if (found == myEntries.end()) return false;
    removed = *found;
    myEntries.erase(found);
    return true;
}

Intercube::Entries Intercube::snapshot() const {
    const std::lock_guard lock(myMutex);
    return myEntries;
}

void Intercube::iterateInterfaces(InterfaceIterationParameter& parameter) {
    parameter.container = this;
    for (const auto& entry : snapshot()) {
        entry->apply(parameter);
        if (parameter.stop) return;
    }
}

void Intercube::iterateInterfaces(InterfaceIterationParameter& parameter) const {
    parameter.container = this;
    for (const auto& entry : snapshot()) {
        entry->apply_const(parameter);
        if (parameter.stop) return;
    }
}

void Intercube::takeOver(const Intercube& other) const {
    if (this == &other) return;
    Entries entries;
    {
        const std::lock_guard lock(other.myMutex);
        entries.swap(other.myEntries);
    }
    for (const auto& entry : entries) addInterface(entry);
}

} // namespace Hestra
