#pragma once
/// Keeps those apart that note something on a grid or in a slice while they only seem to read it.

#include <model/vantle/Bundle.hpp>

#include <mutex>

namespace Vantle::detail {

/// Held by the thread that makes a locator: names and boxes of fragments, their tree and the storage of search
/// structures are kept on the grid and in its slice. Two locators of one grid are made one after the other, also by the
/// same thread while a creator of coordinates is at work. A null grid needs no lock.
class GridLock {
public:
    explicit GridLock(const Hestra::StrongPtr<Grid>& grid);

private:
    Hestra::StrongPtr<Grid> myGrid;
    std::unique_lock<std::recursive_mutex> myLock;
};

/// Calls `run(function)` in the unnamed critical section; see below.
void runCritical(void (*run)(const void* function), const void* function);

/// Calls `function()` in the unnamed critical section of OpenMP, which nothing may be thrown out of: what `function`
/// throws is thrown when the section has ended.
template<class F>
void inCriticalSection(const F& function) {
    runCritical([](const void* self) { (*static_cast<const F*>(self))(); }, &function);
}

/// The lock of all slices: for look-ups in a slice that make what is missing.
[[nodiscard]] std::unique_lock<std::mutex> lockSlices();

} // namespace Vantle::detail
