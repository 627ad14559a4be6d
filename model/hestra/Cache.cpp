#include <model/hestra/Cache.hpp>

#include <atomic>
#include <type_traits>
#include <utility>

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

namespace {

std::atomic<std::uint64_t> lastOperation{0};
thread_local Cache::Operation* currentOperation = nullptr;

struct OpenOperations {
    std::mutex mutex;
    Cache::Operation* first = nullptr;
};
constinit OpenOperations openOperations; // made and ended without code: caches may drop at any time
static_assert(std::is_trivially_destructible_v<OpenOperations>);

std::uint64_t newOperation() noexcept { return lastOperation.fetch_add(1, std::memory_order_relaxed) + 1; }

} // namespace

Cache::Operation::Operation() noexcept {
    if (currentOperation) return;
    myNumber = newOperation();
    const std::lock_guard lock(openOperations.mutex);
    myNext = std::exchange(openOperations.first, this);
    currentOperation = this;
}

Cache::Operation::~Operation() {
    if (!myNumber) return;
    currentOperation = nullptr;
    const std::lock_guard lock(openOperations.mutex);
    Operation** link = &openOperations.first;
    while (*link != this) link = &(*link)->myNext;
    *link = myNext;
}

void Cache::insert(const StrongPtr<Cacheable>& data) {
    if (!data) return;
    data->markAsUsed();
    const std::size_t bytes = data->memsize();
    const std::uint64_t operation = currentOperation ? currentOperation->myNumber : newOperation();
    Entries fresh(1);
    Entries dropped;
    {
        const std::lock_guard lock(myMutex);
        const auto [place, isNew] = myPlaces.try_emplace(data.rawptr(), fresh.begin());
        if (isNew) myEntries.splice(myEntries.end(), fresh);
        Entry& entry = *place->second;
        entry.data = data;
        entry.operation = operation;
        ++entry.insertions;
        myBytes += bytes - entry.bytes;
        entry.bytes = bytes;
        shrink(operation, dropped);
    }
    letGo(dropped);
}

bool Cache::remove(const Cacheable& data) {
    Entries dropped;
    {
        const std::lock_guard lock(myMutex);
        const auto found = myPlaces.find(&data);
        if (found == myPlaces.end()) return false;
        drop(found->second, dropped);
    }
    letGo(dropped);
    return true;
}

void Cache::release(const Cacheable& data) {
    Entries dropped;
    {
        const std::lock_guard lock(myMutex);
        const auto found = myPlaces.find(&data);
        if (found == myPlaces.end() || --found->second->insertions > 0) return;
        drop(found->second, dropped);
    }
    letGo(dropped);
}

void Cache::setLimit(std::size_t bytes) {
    Entries dropped;
    {
        const std::lock_guard lock(myMutex);
        myLimit = bytes;
        shrink(0, dropped);
    }
    letGo(dropped);
}

void Cache::setUnlimited() { setLimit(SIZE_MAX); }

std::size_t Cache::limit() const {
    const std::lock_guard lock(myMutex);
    return myLimit;
}

void Cache::clear() {
    Entries dropped;
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

void Cache::drop(Entries::iterator entry, Entries& dropped) noexcept {
    myPlaces.erase(entry->data.rawptr());
    myBytes -= entry->bytes;
    dropped.splice(dropped.end(), myEntries, entry);
}

/// Drops what the budget has no room for: with an operation, what belongs neither to that nor to an open one.
void Cache::shrink(std::uint64_t operation, Entries& dropped) noexcept {
    if (myBytes <= myLimit) return;
    for (Entry& entry : myEntries) entry.use = entry.data->lastUse(); // which may change while they are sorted
    myEntries.sort([](const Entry& a, const Entry& b) { return a.use < b.use; });
    const std::lock_guard lock(openOperations.mutex);
    const auto isKept = [&](const Entry& entry) {
        if (!operation) return false;
        if (entry.operation == operation) return true;
        const Operation* at = openOperations.first;
        while (at && at->myNumber != entry.operation) at = at->myNext;
        return at != nullptr;
    };
    for (auto next = myEntries.begin(); next != myEntries.end() && myBytes > myLimit;) {
        const auto entry = next++;
        if (entry->bytes > 0 && !isKept(*entry)) drop(entry, dropped);
    }
}

void Cache::letGo(const Entries& dropped) {
    for (const Entry& entry : dropped) entry.data->PreDestructor();
}

} // namespace Hestra
