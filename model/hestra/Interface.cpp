#include <model/hestra/Interface.hpp>

namespace Hestra {

InterfaceBase::~InterfaceBase() = default;

StrongPtr<InterfaceBase> Intercube::findInterface(const std::type_info& type) const {
    const std::lock_guard lock(myMutex);
    for (const auto& entry : myEntries) {
        const InterfaceBase& object = *entry;
        if (typeid(object) == type) return entry;
    }
    for (const auto& entry : myEntries)
        if (entry->getInterfaceDomain() == type) return entry;
    return nullptr;
}

void Intercube::addInterface(const StrongPtr<InterfaceBase>& what) const {
    if (!what) return;
    const std::type_info& domain = what->getInterfaceDomain();
    StrongPtr<InterfaceBase> replaced = what; // released after the lock: its destructor may come back here
    {
        const std::lock_guard lock(myMutex);
        for (auto& entry : myEntries)
            if (entry->getInterfaceDomain() == domain) {
                entry.swap(replaced);
                return;
            }
        myEntries.push_back(what);
    }
}

bool Intercube::removeInterface(const std::type_info& domain) const {
    StrongPtr<InterfaceBase> removed;
    const std::lock_guard lock(myMutex);
    for (auto entry = myEntries.begin(); entry != myEntries.end(); ++entry)
        if ((*entry)->getInterfaceDomain() == domain) {
            removed = *entry;
            myEntries.erase(entry);
            return true;
        }
    return false;
}

std::vector<StrongPtr<InterfaceBase>> Intercube::snapshot() const {
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
    std::vector<StrongPtr<InterfaceBase>> entries;
    {
        const std::lock_guard lock(other.myMutex);
        entries.swap(other.myEntries);
    }
    for (const auto& entry : entries) addInterface(entry);
}

} // namespace Hestra
