#pragma once
/// Counts the allocations of the whole process. Include it in one file of a program of its own (*ProcessTest.cpp).

#include <atomic>
#include <cstdlib>
#include <new>

namespace support {

inline std::atomic<long> allocations{0};

/// Allocations, in all threads, while `action` runs.
template<class Action>
long allocationsOf(const Action& action) {
    const long before = allocations;
    action();
    return allocations - before;
}

} // namespace support

// NOLINTBEGIN(misc-definitions-in-headers): replacements of the global operators are never inline. Nor may the compiler
// inline them: it would take free() for a mismatch of the operator new that it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++support::allocations;
    if (void* const memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
// NOLINTEND(misc-definitions-in-headers)
