#pragma once
/// Tests with OpenMP teams of several sizes.

#include <gtest/gtest.h>
#include <omp.h>

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

} // namespace support
