#include <model/hestra/Cache.hpp>

#include <algorithm>

namespace Hestra {

namespace {
std::atomic<std::uint64_t> useClock{0};
}

Cacheable::~Cacheable() = default;
Creature::~Creature() = default;
CacheBase::~CacheBase() = default;
Cache::~Cache() { clear(); }

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
    Dropped dropped;
    {
        const std::lock_guard lock(myMutex);
        Entry& entry = myEntries[data.rawptr()];
        entry.data = data;
        ++entry.insertions;
        myBytes -= entry.bytes;
        entry.bytes = data->memsize();
        myBytes += entry.bytes;
        shrink(dropped);
    }
    letGo(dropped);
}

bool Cache::remove(const Cacheable& data) {
    Dropped dropped;
    {
        const std::lock_guard lock(myMutex);
        const auto found = myEntries.find(&data);
        if (found == myEntries.end()) return false;
        drop(found, dropped);
    }
    letGo(dropped);
    return true;
}

void Cache::release(const Cacheable& data) {
    Dropped dropped;
    {
        const std::lock_guard lock(myMutex);
        const auto found = myEntries.find(&data);
        if (found == myEntries.end() || --found->second.insertions > 0) return;
        drop(found, dropped);
    }
    letGo(dropped);
}

void Cache::setLimit(std::size_t bytes) {
    Dropped dropped;
    {
        const std::lock_guard lock(myMutex);
        myLimit = bytes;
        shrink(dropped);
    }
    letGo(dropped);
}

void Cache::setUnlimited() { setLimit(SIZE_MAX); }

std::size_t Cache::limit() const {
    const std::lock_guard lock(myMutex);
    return myLimit;
}

void Cache::clear() {
    Dropped dropped;
    {
        const std::lock_guard lock(myMutex);
        while (!myEntries.empty()) drop(myEntries.begin(), dropped);
    }
    letGo(dropped);
}

std::size_t Cache::size() const {
    const std::lock_guard lock(myMutex);
    return myEntries.size();
}

std::size_t Cache::bytes() const {
    const std::lock_guard lock(myMutex);
    return myBytes;
}

void Cache::drop(Entries::iterator entry, Dropped& dropped) {
    myBytes -= entry->second.bytes;
    dropped.push_back(std::move(entry->second.data));
    myEntries.erase(entry);
}

void Cache::shrink(Dropped& dropped) {
    if (myBytes <= myLimit) return;
    std::vector<std::pair<std::uint64_t, const Cacheable*>> byUse;
    byUse.reserve(myEntries.size());
    for (const auto& [key, entry] : myEntries)
        if (entry.bytes) byUse.emplace_back(key->lastUse(), key);
    std::sort(byUse.begin(), byUse.end());
    for (const auto& [use, key] : byUse) {
        if (myBytes <= myLimit) return;
        drop(myEntries.find(key), dropped);
    }
}

void Cache::letGo(const Dropped& dropped) {
    for (const auto& data : dropped) data->PreDestructor();
}

} // namespace Hestra
