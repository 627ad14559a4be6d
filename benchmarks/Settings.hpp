#pragma once
/// What a benchmark runs with: the size of the team, and whether memory stays with the process.

#include <cstdint>
#include <malloc.h>
#include <omp.h>

/// The size of teams that are opened while it lives.
class TeamOf {
public:
    explicit TeamOf(std::int64_t threads) { omp_set_num_threads(static_cast<int>(threads)); }
    ~TeamOf() { omp_set_num_threads(myBefore); }
    TeamOf(const TeamOf&) = delete;
    TeamOf& operator=(const TeamOf&) = delete;

private:
    int myBefore = omp_get_max_threads();
};

/// While it lives, memory that is freed is kept, and given again as it is; otherwise large blocks are taken from the
/// system, which clears their pages, and given back to it.
class Memory {
public:
    explicit Memory(bool isKept) {
#ifdef __GLIBC__
        if (isKept) {
            mallopt(M_MMAP_MAX, 0);
            mallopt(M_TRIM_THRESHOLD, INT32_MAX);
        }
#endif
    }
    ~Memory() {
#ifdef __GLIBC__
        mallopt(M_MMAP_MAX, 65536);
        mallopt(M_TRIM_THRESHOLD, 128 * 1024);
        malloc_trim(0);
#endif
    }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;
};
