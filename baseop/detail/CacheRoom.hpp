#pragma once
/// The memory of what is being made, as a part of a cache's budget.

#include <model/hestra/Cache.hpp>

namespace Vantle::detail {

/// Stands in a cache for what is held and made beside it, until it ends.
class CacheRoom {
public:
    CacheRoom(const Hestra::StrongPtr<Hestra::Cache>& cache, std::size_t bytes)
        : myCache(cache), myPlace(new Place(bytes)) {}
    CacheRoom(const CacheRoom&) = delete;
    CacheRoom& operator=(const CacheRoom&) = delete;
    ~CacheRoom() {
        if (myCache) (void)myCache->remove(*myPlace);
    }
    /// Lets go of so much else as is beyond the budget. What is read from now on may take its place when nothing else
    /// is left, so that this is said again before memory is taken.
    void make() const {
        if (myCache) myCache->insert(myPlace);
    }

private:
    struct Place : Hestra::Cacheable {
        explicit Place(std::size_t size) : bytes(size) {}
        [[nodiscard]] std::size_t memsize() const override { return bytes; }
        std::size_t bytes;
    };
    const Hestra::StrongPtr<Hestra::Cache> myCache;
    const Hestra::StrongPtr<Hestra::Cacheable> myPlace;
};

} // namespace Vantle::detail
