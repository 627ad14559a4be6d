#pragma once
/// Lazy creation: data are made when they are first asked for, once, whatever the number of threads.

#include <model/hestra/Cache.hpp>
#include <model/hestra/Creation.hpp>
#include <model/hestra/Pulse.hpp>

#include <exception>
#include <string>

namespace Hestra {

/// Tells standard error, once a creator, that its creation function threw.
VANTLE_MODEL_API void reportCreationFailure(const char* reason) noexcept;

/// Holder of one piece of data of type `T` (a `Cacheable`) that may not exist yet, or not any more.
///
/// Persistent data are held strongly; discardable data are held by a cache, the creator only remembers them, and
/// takes them back from the cache when it dies or gets others.
/// Concurrency  all operations may be called from several threads, readers and changers at once. `create` is serialised
///              a creator: the function that makes the data runs once as long as the data live, and whoever asks
///              meanwhile waits for it, but never in a circle (see `Creation`).
/// Cost         one short lock and one atomic promotion when the data exist; nothing is allocated.
template<class T>
class VANTLE_MODEL_API CreatorBase : public Creature {
public:
    CreatorBase() = default;
    ~CreatorBase() override { releaseFromCache(); }

    /// The data: as they are, or made now. With `background` they are only requested when missing.
    ///
    /// Failure  null when there is no way to make them, when the creation function returned null, threw or was ended,
    /// for a
    ///          background request that cannot be met at once, and when waiting for them would never end: when their
    ///          own creation function asks for them, be it from its own parallel loop, through other creators, or
    ///          through creators that other threads are at and that need what this one is making. Whoever closes the
    ///          circle gets null.
    ///
    /// A class that overrides it makes and keeps its data as it likes; every reading goes through it.
    [[nodiscard]] virtual StrongPtr<T> create(bool background = false) {
        if (StrongPtr<T> present = cachedData()) return present;
        if (background) {
            StrongPtr<T> result;
            request(result);
            return result;
        }
        if (!canProduce()) return nullptr;
        const Creation making(myGate);
        if (StrongPtr<T> present = cachedData()) return present;
        if (!making) return nullptr;
        StrongPtr<T> made = produceSafely();
        if (made) remember(made);
        return made;
    }

    /// The living data, or null; never makes them. Of an overriding class: what it gave last, if that lives.
    [[nodiscard]] StrongPtr<T> cachedData() const {
        StrongPtr<T> data = present();
        if (!data || !isCurrent(data.rawptr())) return nullptr;
        data->markAsUsed();
        return data;
    }

    /// The cache that data made later, and what is converted from data, are left to; null when there is none.
    [[nodiscard]] WeakPtr<Cache> cache() const {
        const std::lock_guard lock(myDataMutex);
        return myCache;
    }

    /// Notes that the data are wanted without making them. What serves requests looks at `wasRequested`.
    virtual void request(StrongPtr<T>& result) {
        (void)result;
        myRequestFlag.store(true, std::memory_order_release);
    }
    [[nodiscard]] bool wasRequested() const noexcept { return myRequestFlag.load(std::memory_order_acquire); }

    /// Whether the data exist at this moment: false before a first creation and after eviction.
    [[nodiscard]] bool hasData() const {
        const StrongPtr<T> data = present();
        return data && isCurrent(data.rawptr());
    }

    /// Whether data that were made are still what making them would give; if not, they are as good as dropped. Null
    /// stands for data that were announced.
    [[nodiscard]] virtual bool isCurrent(const T*) const { return true; }

    /// Whether asking can succeed: the data exist now, or there is a way to make them.
    [[nodiscard]] virtual bool isValid() const { return hasData() || canProduce(); }

protected:
    /// Whether data can be made at all: yes, as far as is known of a class that overrides `create` or `produce`.
    [[nodiscard]] virtual bool canProduce() const { return true; }
    /// Makes the data; may return null and may throw.
    [[nodiscard]] virtual StrongPtr<T> produce() { return nullptr; }

    /// Remembers what an overriding `create` gave, as long as that lives; false for data that are held here anyway.
    bool noteForeignData(const StrongPtr<T>& data) {
        {
            const std::lock_guard lock(myDataMutex);
            if (myData) return false;
            myForeignData = data;
        }
        data->markAsUsed();
        return true;
    }

    /// Holds `data` for ever (persistent) or leaves that to `cache`.
    void setData(const StrongPtr<T>& data, bool persistent, const WeakPtr<Cache>& cache) {
        {
            const std::lock_guard lock(myDataMutex);
            myCache = cache;
            myPersistentFlag = persistent;
        }
        remember(data);
    }
    /// Where data made later go: a cache, or this creator when there is none.
    void setCache(const WeakPtr<Cache>& cache) {
        const std::lock_guard lock(myDataMutex);
        myCache = cache;
        myPersistentFlag = !cache;
    }

private:
    [[nodiscard]] StrongPtr<T> present() const {
        const std::lock_guard lock(myDataMutex);
        StrongPtr<T> data(myData);
        return data ? data : StrongPtr<T>(myForeignData);
    }

    StrongPtr<T> produceSafely() noexcept {
        try {
            return produce();
        } catch (const Interruption&) { // whose pulse tells
        } catch (const std::exception& problem) {
            if (!myFailureReported.exchange(true)) reportCreationFailure(problem.what());
        } catch (...) {
            if (!myFailureReported.exchange(true)) reportCreationFailure("unknown exception");
        }
        return nullptr;
    }

    void remember(const StrongPtr<T>& data) {
        if (!data) return;
        releaseFromCache();
        StrongPtr<T> replaced;
        StrongPtr<Cache> cache;
        {
            const std::lock_guard lock(myDataMutex);
            if (isCachingEnabled() && !myPersistentFlag) cache = myCache.lock();
        }
        data->markAsUsed();
        if (cache) cache->insert(data);
        const std::lock_guard lock(myDataMutex);
        myData = data;
        myForeignData = nullptr;
        replaced = std::move(myOwnedData);
        if (isCachingEnabled() && myPersistentFlag) myOwnedData = data;
        myHolder = cache;
    }

    void releaseFromCache() {
        StrongPtr<T> data;
        StrongPtr<Cache> holder;
        {
            const std::lock_guard lock(myDataMutex);
            holder = myHolder.lock();
            if (!holder) return;
            myHolder = nullptr;
            data = myData;
        }
        if (data) holder->release(*data);
    }

    mutable std::mutex myDataMutex;
    WeakPtr<T> myData;
    WeakPtr<T> myForeignData; // given by an overriding `create`, while there are none of our own
    StrongPtr<T> myOwnedData;
    WeakPtr<Cache> myCache;
    WeakPtr<Cache> myHolder; // the cache that was given the present data
    bool myPersistentFlag = true;
    Creation::Gate myGate;
    std::atomic<bool> myRequestFlag{false};
    std::atomic<bool> myFailureReported{false};
};

} // namespace Hestra
