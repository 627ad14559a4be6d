#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/MemBase.hpp>

#include <mutex>
#include <utility>

namespace Vantle {

using Hestra::StrongPtr;

namespace {

struct AllocatorRegistry {
    std::mutex mutex;
    std::vector<StrongPtr<MemBase::Allocator>> entries;
};

// Never destroyed: other libraries may ask while the process ends.
AllocatorRegistry& allocatorRegistry() {
    static AllocatorRegistry& registry = *new AllocatorRegistry;
    return registry;
}

// The rank whose base class `type` is, or 0.
template<int... Rank>
int rankNamed(const std::type_info& type, std::integer_sequence<int, Rank...>) {
    return (0 + ... + (type == typeid(MemArrayBase<Rank + 1>) ? Rank + 1 : 0));
}

} // namespace

MemBase::Allocator::~Allocator() = default;

StrongPtr<MemBase> MemBase::Allocator::adopt(const ForeignMemory&, const DynamicSize&, MemoryOwner,
                                             const Hestra::WeakPtr<CreativeArrayBase>&) const {
    return nullptr;
}

MemBase::MemBase(const VantleTypeIndex& elementType, const Hestra::WeakPtr<CreativeArrayBase>& creator)
    : myElementType(elementType) {
    setCreator(creator);
}

MemBase::~MemBase() = default;

StrongPtr<VantleTypeBase> MemBase::getVantleType() const { return VantleTypeBase::find(myElementType); }

std::size_t MemBase::memsize() const { return 0; }

StrongPtr<MemBase> MemBase::componentArray(int) const { return nullptr; }

void MemBase::setCreator(const Hestra::WeakPtr<CreativeArrayBase>& creator) {
    myCreator = creator;
    Cacheable::setCreator(Hestra::WeakPtr<Hestra::Creature>(creator));
}

StrongPtr<MemBase> MemBase::create(const DynamicSize& size, const std::type_info& type) const {
    const StrongPtr<Allocator> own = ownAllocator();
    const MemBase& self = *this;
    const int rank = rankNamed(type, std::make_integer_sequence<int, 4>());
    if (rank && rank != size.rank()) return nullptr;
    const bool sameType = rank || type == typeid(void) || type == myElementType.type() || type == typeid(self) ||
                          (own && own->isDomain(type));
    const StrongPtr<Allocator> allocator = sameType ? own : findAllocator(type);
    if (!allocator) return nullptr;
    return allocator->create(size, Hestra::WeakPtr<CreativeArrayBase>());
}

void MemBase::registerCreator(const StrongPtr<Allocator>& allocator, const StrongPtr<VantleTypeBase>& type) {
    if (type) type->remember();
    if (!allocator) return;
    AllocatorRegistry& registry = allocatorRegistry();
    const std::lock_guard lock(registry.mutex);
    for (const auto& entry : registry.entries)
        if (entry->elementIndex() == allocator->elementIndex()) return;
    registry.entries.push_back(allocator);
}

StrongPtr<MemBase::Allocator> MemBase::findAllocator(const std::type_info& type) {
    AllocatorRegistry& registry = allocatorRegistry();
    const std::lock_guard lock(registry.mutex);
    for (const auto& entry : registry.entries)
        if (entry->isDomain(type)) return entry;
    return nullptr;
}

std::vector<VantleTypeIndex> MemBase::RegisteredTypes() {
    AllocatorRegistry& registry = allocatorRegistry();
    const std::lock_guard lock(registry.mutex);
    std::vector<VantleTypeIndex> types;
    types.reserve(registry.entries.size());
    for (const auto& entry : registry.entries) types.push_back(entry->elementIndex());
    return types;
}

} // namespace Vantle
