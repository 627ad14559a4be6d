#pragma once
/// Loops on all cores: when that is worth it, and what leaves the loop when a piece of it fails.

#include <cstddef>

namespace Vantle::detail {

/// How much work one member of a team should have at least: as much as one thread does while it reads so many bytes
/// from the cache with little arithmetic, which is 25 microseconds.
///
/// A team pays if one thread alone would take longer than the others take to start. Measured on two cores, with a scan
/// for extremes, best of many: a team that sleeps breaks even at half of this in all (256 kB, 13 microseconds), one
/// that has just done something else at 64 kB. With two members of this size each they take 0.62 and 0.52 of the time
/// of one thread; so large, derivatives take 0.61 and resampling 0.81. Loops of less work never wait for a thread that
/// a busy system does not run.
constexpr std::size_t MemberBytes = std::size_t{1} << 19;

/// Number of threads that a parallel region opened here would have.
[[nodiscard]] std::size_t teamSize() noexcept;

/// Number of threads that are worth employing for work that takes one thread as long as to read `bytes`: at least one,
/// at most `teamSize()`.
[[nodiscard]] std::size_t teamFor(std::size_t bytes) noexcept;

/// Calls `call(function, begin, end)` for pieces of [0, count); see below.
void runInParallel(std::size_t count, std::size_t piece, std::size_t bytes,
                   void (*call)(const void* function, std::size_t begin, std::size_t end), const void* function);

/// Calls `function(begin, end)` for pieces of [0, count) that are begun in order, on as many threads as are worth it
/// for work of so many bytes (see `teamFor`) in all. One thread opens no parallel region.
///
/// Between pieces, the calling thread tells its `Pulse` how far it is.
/// Failure  when a piece throws, or the pulse ends it, no further one is begun, and one of the exceptions is thrown
/// when all have ended.
template<class F>
void inParallel(std::size_t count, std::size_t piece, std::size_t bytes, const F& function) {
    runInParallel(
        count, piece, bytes,
        [](const void* self, std::size_t begin, std::size_t end) { (*static_cast<const F*>(self))(begin, end); },
        &function);
}

} // namespace Vantle::detail
