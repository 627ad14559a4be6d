#include <model/hestra/Cache.hpp>

#include <algorithm>

namespace Hestra {

namespace {
std::atomic<std::uint64_t> useClock{0};
}

Cacheable::~Cacheable() = default;
Creature::~Creature() = default;
CacheBase::~CacheBase() = default;
Cache::~Cache() = default;

void Cacheable::markAsUsed() const noexcept {
    myLastUse.store(useClock.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

const std::type_info& Cacheable::CreatorType() const {
    const StrongPtr<Creature> creator = myCreator.lock();
    if (!creator) return typeid(void);
    const Creature& object = *creator;
    return typeid(object);
}

const StrongPtr<Cache>& Cache::MemCache() {
    static const StrongPtr<Cache> shared(new Cache);
    return shared;
}

void Cache::insert(const StrongPtr<Cacheable>& data) {
    if (!data) return;
    data->markAsUsed();
    std::vector<StrongPtr<Cacheable>> dropped;
    const std::lock_guard lock(myMutex);
    auto& entry = myEntries[data.rawptr()];
    myBytes -= entry.data ? entry.bytes : 0;
    entry = {data, data->memsize()};
    myBytes += entry.bytes;
    shrink(dropped);
}

bool Cache::remove(const Cacheable& data) {
    StrongPtr<Cacheable> dropped;
    const std::lock_guard lock(myMutex);
    const auto found = myEntries.find(&data);
    if (found == myEntries.end()) return false;
    dropped = found->second.data;
    myBytes -= found->second.bytes;
    myEntries.erase(found);
    return true;
}

void Cache::setLimit(std::size_t bytes) {
    std::vector<StrongPtr<Cacheable>> dropped;
    const std::lock_guard lock(myMutex);
    myLimit = bytes;
    shrink(dropped);
}

void Cache::setUnlimited() { setLimit(SIZE_MAX); }

std::size_t Cache::limit() const {
    const std::lock_guard lock(myMutex);
    return myLimit;
}

void Cache::clear() {
    std::unordered_map<const Cacheable*, Entry> dropped;
    const std::lock_guard lock(myMutex);
    dropped.swap(myEntries);
    myBytes = 0;
    for (const auto& [key, entry] : dropped) entry.data->PreDestructor();
}

std::size_t Cache::size() const {
    const std::lock_guard lock(myMutex);
    return myEntries.size();
}

std::size_t Cache::bytes() const {
    const std::lock_guard lock(myMutex);
    return myBytes;
}

void Cache::shrink(std::vector<StrongPtr<Cacheable>>& dropped) {
    if (myBytes <= myLimit) return;
    std::vector<std::pair<std::uint64_t, const Cacheable*>> byUse;
    byUse.reserve(myEntries.size());
    for (const auto& [key, entry] : myEntries)
        if (entry.bytes) byUse.emplace_back(key->lastUse(), key);
    std::sort(byUse.begin(), byUse.end());
    for (const auto& [use, key] : byUse) {
        if (myBytes <= myLimit) return;
        const auto found = myEntries.find(key);
        found->second.data->PreDestructor();
        myBytes -= found->second.bytes;
        dropped.push_back(std::move(found->second.data));
        myEntries.erase(found);
    }
}

} // namespace Hestra
