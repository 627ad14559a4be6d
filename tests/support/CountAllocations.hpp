#pragma once
/// Counts the allocations of the whole process, and lets them fail. Include it in one file of a program of its own
/// (*ProcessTest.cpp).

#include <atomic>
#include <cstdlib>
#include <new>

namespace support {

inline std::atomic<long> allocations{0};
inline std::atomic<std::size_t> allocatedBytes{0};

/// Allocations, in all threads, while `action` runs.
template<class Action>
long allocationsOf(const Action& action) {
    const long before = allocations;
    action();
    return allocations - before;
}

/// The bytes of these.
template<class Action>
std::size_t bytesAllocatedBy(const Action& action) {
    const std::size_t before = allocatedBytes;
    action();
    return allocatedBytes - before;
}

/// How many allocations succeed before one fails; none fails while this is negative.
inline std::atomic<long> allocationsBeforeFailure{-1};

/// Runs `attempt` while its first allocation fails, then its second, and so on, until it needs no more; calls `check`
/// after each failure. Returns how often it failed.
template<class Attempt, class Check>
int failEachAllocation(const Attempt& attempt, const Check& check) {
    for (int failures = 0;; ++failures) {
        allocationsBeforeFailure = failures;
        try {
            attempt();
            allocationsBeforeFailure = -1;
            return failures;
        } catch (const std::bad_alloc&) {
            allocationsBeforeFailure = -1;
            check();
        }
    }
}

} // namespace support

// NOLINTBEGIN(misc-definitions-in-headers): replacements of the global operators are never inline. Nor may the compiler
// inline them: it would take free() for a mismatch of the operator new that it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++support::allocations;
    support::allocatedBytes += size;
    if (support::allocationsBeforeFailure >= 0 && support::allocationsBeforeFailure-- == 0) throw std::bad_alloc();
    if (void* const memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
// NOLINTEND(misc-definitions-in-headers)
