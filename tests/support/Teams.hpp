#pragma once
/// Tests with OpenMP teams of several sizes.

#include <gtest/gtest.h>
#include <omp.h>

namespace support {

/// Calls `check` with teams of 1 to `most` threads, and then restores what the caller of this program has chosen.
template<class Check>
void forTeamsUpTo(int most, const Check& check) {
    const int chosen = omp_get_max_threads();
    for (int threads = 1; threads <= most && !testing::Test::HasFatalFailure(); ++threads) {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        omp_set_num_threads(threads);
        check();
    }
    omp_set_num_threads(chosen);
}

} // namespace support
