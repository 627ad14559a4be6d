#pragma once
/// Data that may be dropped and made again: what is cached, what creates it, and the cache with a byte budget.

#include <model/hestra/Reference.hpp>

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <typeinfo>
#include <unordered_map>

namespace Hestra {

/// Base of data that a `Cache` can hold and drop.
///
/// Concurrency  uses may be noted and read at any time; the creator is set by one thread while nobody reads it.
class VANTLE_MODEL_API Cacheable : public ReferenceBase<Cacheable> {
public:
    Cacheable() = default;
    ~Cacheable() override;

    /// Bytes that dropping this object would give back.
    [[nodiscard]] virtual std::size_t memsize() const = 0;

    /// Notes that the data were asked for just now: what was used least recently is dropped first.
    void markAsUsed() const noexcept;
    /// When the data were last asked for; larger is later.
    [[nodiscard]] std::uint64_t lastUse() const noexcept { return myLastUse.load(std::memory_order_relaxed); }

    /// Links the data to what made them. The link is weak: data outlive their creator and creators their data.
    void setCreator(const WeakPtr<Creature>& creator) { myCreator = creator; }
    [[nodiscard]] const WeakPtr<Creature>& cacheableCreator() const noexcept { return myCreator; }

    /// Called by a cache before it lets go of the data, in the thread whose call made it do so. May use the cache.
    virtual void PreDestructor() {}
    /// Called once by `makeRef` after construction, when virtual operations already reach the derived class.
    virtual void CacheableDeferredConstructor() {}
    /// The root type under which such data are held.
    [[nodiscard]] virtual const std::type_info& DomainType() const { return typeid(Cacheable); }
    /// The dynamic type of the creator, or `typeid(void)` when there is none.
    [[nodiscard]] const std::type_info& CreatorType() const;

private:
    WeakPtr<Creature> myCreator;
    mutable std::atomic<std::uint64_t> myLastUse{0};
};

/// Base of everything that creates data on demand.
class VANTLE_MODEL_API Creature : public ReferenceBase<Creature> {
public:
    Creature() = default;
    ~Creature() override;

    /// Whether created data are remembered (the default) or belong to whoever asked, only.
    void enableCaching(bool enable) noexcept { myCachingFlag.store(enable, std::memory_order_relaxed); }
    [[nodiscard]] bool isCachingEnabled() const noexcept { return myCachingFlag.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> myCachingFlag{true};
};

/// What creators need of a cache.
class VANTLE_MODEL_API CacheBase : public ReferenceBase<CacheBase> {
public:
    ~CacheBase() override;
    /// Keeps `data` alive until they are dropped or removed.
    virtual void insert(const StrongPtr<Cacheable>& data) = 0;
    /// Lets go of `data`; false if they were not held.
    virtual bool remove(const Cacheable& data) = 0;
};

/// Keeps discardable data alive up to a budget of bytes.
///
/// When an insertion (or a smaller limit) exceeds the budget, the data used least recently are let go first; what
/// nobody else holds is freed then, and made again when it is next asked for. Nothing is dropped while nothing asks.
///
/// An insertion never drops what belongs to the same operation, nor what belongs to one that has not ended: results
/// that are only useful together are there together, even beyond the budget, until a later operation needs the room. An
/// insertion is an operation of its own, unless an `Operation` makes several one.
/// Concurrency  guarded by a mutex, readers and changers at once; data are released outside it.
/// Failure      no memory: std::bad_alloc from `insert` alone, which then has changed nothing.
/// Cost         an insertion within the budget is O(1); one that exceeds it sorts what is held by last use. Letting go
///              takes no memory.
class VANTLE_MODEL_API Cache : public CacheBase {
public:
    Cache() = default;
    ~Cache() override;

    /// The shared cache that discardable data go to by default; unlimited until told otherwise.
    [[nodiscard]] static const StrongPtr<Cache>& MemCache();

    void insert(const StrongPtr<Cacheable>& data) override;
    bool remove(const Cacheable& data) override;
    /// Takes back one insertion; the data go when there are no others. Nothing happens when they are not held.
    void release(const Cacheable& data);

    /// All that a thread inserts into caches while one of these lives: the results of one operation, not what it reads
    /// for them. Within another one it is part of that.
    class VANTLE_MODEL_API Operation {
    public:
        Operation() noexcept;
        Operation(const Operation&) = delete;
        Operation& operator=(const Operation&) = delete;
        ~Operation();

    private:
        friend class Cache;
        std::uint64_t myNumber = 0; // 0 within another one
        Operation* myNext = nullptr;
    };

    /// Sets the budget in bytes and drops what exceeds it at once, whatever it belongs to.
    void setLimit(std::size_t bytes);
    void setUnlimited();
    [[nodiscard]] std::size_t limit() const;
    /// Lets go of everything held, whatever it belongs to; the limit stays.
    void clear();
    /// Number of data objects held.
    [[nodiscard]] std::size_t size() const;
    /// Bytes held, as the data announced them at insertion.
    [[nodiscard]] std::size_t bytes() const;

private:
    struct Entry {
        StrongPtr<Cacheable> data;
        std::size_t bytes = 0;
        std::size_t insertions = 0;
        std::uint64_t operation = 0;
        std::uint64_t use = 0;
    };
    // A list, since what is dropped moves to another one without an allocation.
    using Entries = std::list<Entry>;
    void drop(Entries::iterator entry, Entries& dropped) noexcept;
    void shrink(std::uint64_t operation, Entries& dropped) noexcept;
    static void letGo(const Entries& dropped);

    mutable std::mutex myMutex;
    Entries myEntries;
    std::unordered_map<const Cacheable*, Entries::iterator> myPlaces;
    std::size_t myBytes = 0;
    std::size_t myLimit = SIZE_MAX;
};

} // namespace Hestra
