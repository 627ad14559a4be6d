// Which loops have a team, and what is left of it in a child process: counts the threads of the process.

#include <baseop/DataRange.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/ResampleRegularGrid.hpp>
#include <baseop/Threads.hpp>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <support/Creators.hpp>
#include <support/Testing.hpp>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::ptrdiff_t threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

/// Every operation with a loop of its own, over n^3 nodes. Returns the triangles of a surface.
index_t runAll(index_t n) {
    const auto data = MemArray<3, double>::create({n, n, n});
    for (index_t k = 0; k < data->nElements(); ++k) data->element(k) = static_cast<double>(k % n);
    (void)DataRange<double>::compute(*support::creatorOf(data.strong()), false, false);
    (void)Derivative<vector>::compute(*data);
    (void)ResampleArray<3, double>::rescale({1.0, 1.0, 1.0}, data.strong(), {});
    const auto points = MemArray<3, point>::create({n, n, n});
    const auto surface = ComputeIsosurface<double>(0.5, *data, *points, 0.0);
    return surface.second->nElements();
}

TEST(TeamTest, IsNotOpenedForLittleWorkNorAwaitedInAChild) {
    const ScopedThreads four(4);
    const auto before = threads();
    EXPECT_EQ(runAll(20), 2 * 19 * 19u);
    EXPECT_EQ(threads(), before) << "little work";

    constexpr index_t kMany = 70;
    const index_t expected = runAll(kMany);
    EXPECT_GT(threads(), before) << "enough work for a team";
    const pid_t child = fork();
    if (child == 0) {
        const ScopedThreads wanted(4); // of which there are none any more
        _exit(runAll(kMany) == expected && ScopedThreads::count() == 1 ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    pid_t ended = 0;
    for (int waits = 0; waits < 600 && ended == 0; ++waits) {
        ended = waitpid(child, &status, WNOHANG);
        if (ended == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (ended == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_EQ(ended, child) << "the child waits for ever";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(omp_get_max_threads(), 4) << "the parent's teams stay";
}

} // namespace
