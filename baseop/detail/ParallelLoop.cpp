#include <baseop/Threads.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Pulse.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <omp.h>
#include <pthread.h>
#include <stdexcept>

namespace Vantle::detail {

namespace {

thread_local bool isForked = false; // in a child, the thread that it began with

// A child process has none of the threads that its parent's teams were made of, and the runtime would wait for them. So
// it keeps to one thread; those that it starts by itself may have teams. A runtime that has a handler of its own for
// children, to start afresh in them, must register that first, which it does when it is asked for anything.
[[maybe_unused]] const int registered = (static_cast<void>(omp_get_max_threads()), pthread_atfork(nullptr, nullptr, [] {
                                             isForked = true;
                                             omp_set_num_threads(1);
                                         }));

} // namespace

} // namespace Vantle::detail

namespace Vantle {

ScopedThreads::ScopedThreads(int most) : myFormer(omp_get_max_threads()) {
    if (most < 1) throw std::invalid_argument("less than one thread");
    if (!detail::isForked) omp_set_num_threads(most);
}
ScopedThreads::~ScopedThreads() {
    if (!detail::isForked) omp_set_num_threads(myFormer);
}
int ScopedThreads::count() noexcept { return static_cast<int>(detail::teamSize()); }

} // namespace Vantle

namespace Vantle::detail {

std::size_t teamSize() noexcept {
    if (omp_get_active_level() >= omp_get_max_active_levels()) return 1;
    return static_cast<std::size_t>(std::max(1, std::min(omp_get_max_threads(), omp_get_thread_limit())));
}

std::size_t teamFor(std::size_t bytes) noexcept { return std::clamp<std::size_t>(bytes / MemberBytes, 1, teamSize()); }

void runInParallel(std::size_t count, std::size_t piece, std::size_t bytes,
                   void (*call)(const void* function, std::size_t begin, std::size_t end), const void* function) {
    const auto pieces = static_cast<long long>((count + piece - 1) / piece);
    const auto threads = std::min(static_cast<long long>(teamFor(bytes)), pieces);
    const auto run = [&](long long n) {
        const std::size_t begin = static_cast<std::size_t>(n) * piece;
        const auto share = [pieces](long long m) { return static_cast<double>(m) / static_cast<double>(pieces); };
        if (!Hestra::Pulse::isHeard()) return call(function, begin, std::min(begin + piece, count));
        Hestra::Pulse::beat(share(n));
        const Hestra::Pulse::Part part(share(n), share(n + 1));
        call(function, begin, std::min(begin + piece, count));
    };
    if (threads < 2) {
        for (long long n = 0; n < pieces; ++n) run(n);
        return;
    }
    std::exception_ptr problem;
    std::atomic<bool> isGivenUp{false};
#pragma omp parallel for schedule(monotonic : dynamic, 1) num_threads(static_cast <int>(threads))
    for (long long n = 0; n < pieces; ++n) {
        if (isGivenUp.load(std::memory_order_relaxed)) continue;
        try {
            run(n);
        } catch (...) {
            if (!isGivenUp.exchange(true)) problem = std::current_exception();
        }
    }
    if (problem) std::rethrow_exception(problem);
}

} // namespace Vantle::detail
