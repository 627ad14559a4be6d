#include <model/vantle/VantleType.hpp>

#include <mutex>

namespace Vantle {

namespace {

struct TypeRegistry {
    std::mutex mutex;
    std::vector<Hestra::StrongPtr<VantleTypeBase>> entries;
};

// Never destroyed: other libraries may ask while the process ends.
TypeRegistry& typeRegistry() {
    static TypeRegistry& registry = *new TypeRegistry;
    return registry;
}

} // namespace

VantleTypeBase::~VantleTypeBase() = default;

Hestra::StrongPtr<VantleTypeBase> VantleTypeBase::find(const VantleTypeIndex& type) {
    TypeRegistry& registry = typeRegistry();
    const std::lock_guard lock(registry.mutex);
    for (const auto& entry : registry.entries)
        if (entry->isType(type.type())) return entry;
    return nullptr;
}

void VantleTypeBase::remember() {
    TypeRegistry& registry = typeRegistry();
    const std::lock_guard lock(registry.mutex);
    for (const auto& entry : registry.entries)
        if (entry->isType(getType())) return;
    registry.entries.emplace_back(this);
}

std::vector<Hestra::StrongPtr<VantleTypeBase>> VantleTypeBase::registered() {
    TypeRegistry& registry = typeRegistry();
    const std::lock_guard lock(registry.mutex);
    return registry.entries;
}

} // namespace Vantle
