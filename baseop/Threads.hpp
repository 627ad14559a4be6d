#pragma once
/// How many threads operations use.

#include <baseop/BaseOpExport.hpp>

namespace Vantle {

/// Operations that the thread that makes this calls use at most so many threads, as long as it lives; without it, as
/// many as OpenMP says, which is all cores unless `OMP_NUM_THREADS` is set. Results do not depend on it.
///
/// In a child made by `fork()` the thread that was forked has no team, and stays alone whatever is asked for.
/// Failure  std::invalid_argument for less than 1.
class VANTLE_BASEOP_API ScopedThreads {
public:
    explicit ScopedThreads(int most);
    ~ScopedThreads();
    ScopedThreads(const ScopedThreads&) = delete;
    ScopedThreads& operator=(const ScopedThreads&) = delete;

    /// How many threads operations called by this thread use now.
    [[nodiscard]] static int count() noexcept;

private:
    int myFormer;
};

} // namespace Vantle
