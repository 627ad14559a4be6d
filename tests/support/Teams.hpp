#pragma once
/// Tests with OpenMP teams of several sizes, and with threads.

#include <functional>
#include <gtest/gtest.h>
#include <omp.h>
#include <thread>
#include <vector>

namespace support {

/// Teams of so many threads while it lives.
class ThreadCount {
public:
    explicit ThreadCount(int threads) { omp_set_num_threads(threads); }
    ~ThreadCount() { omp_set_num_threads(myBefore); }

private:
    int myBefore = omp_get_max_threads();
};

/// Calls `check` with teams of 1 to `most` threads.
template<class Check>
void forTeamsUpTo(int most, const Check& check) {
    for (int threads = 1; threads <= most && !testing::Test::HasFatalFailure(); ++threads) {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        const ThreadCount count(threads);
        check();
    }
}

/// Calls `action`, with their number if it takes one, in so many threads at once.
template<class Action>
void inThreads(unsigned count, const Action& action) {
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < count; ++t)
        if constexpr (std::is_invocable_v<const Action&, unsigned>)
            threads.emplace_back(std::cref(action), t);
        else
            threads.emplace_back(std::cref(action));
    for (std::thread& thread : threads) thread.join();
}

} // namespace support
