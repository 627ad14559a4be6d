#include <baseop/detail/location/GridLock.hpp>

#include <exception>

namespace Vantle::detail {

namespace {

struct Mutex : Hestra::Interface<Mutex> {
    std::recursive_mutex mutex;
};

std::recursive_mutex& mutexOf(const Grid& grid) {
    static std::mutex making;
    const std::lock_guard lock(making);
    Hestra::StrongPtr<Mutex> found = grid.findInterface<Mutex>();
    if (!found) {
        found = Hestra::makeRef<Mutex>();
        grid.addInterface(found);
    }
    return found->mutex; // which the grid owns
}

} // namespace

GridLock::GridLock(const Hestra::StrongPtr<Grid>& grid)
    : myGrid(grid), myLock(grid ? std::unique_lock(mutexOf(*grid)) : std::unique_lock<std::recursive_mutex>()) {}

void runCritical(void (*run)(const void* function), const void* function) {
    std::exception_ptr problem;
#pragma omp critical
    try {
        run(function);
    } catch (...) {
        problem = std::current_exception();
    }
    if (problem) std::rethrow_exception(problem);
}

std::unique_lock<std::mutex> lockSlices() {
    static std::mutex mutex;
    return std::unique_lock(mutex);
}

} // namespace Vantle::detail
