#include <dataset/io/Leftover.hpp>

#include <csignal>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace Vantle {

namespace {

struct Registry {
    std::mutex mutex;
    std::set<std::filesystem::path> paths;
};

// Never destroyed: a signal may come at any time.
Registry& registry() {
    static Registry& all = *new Registry;
    return all;
}

void removeAll(const std::filesystem::path& path) {
    // What others put into a folder meanwhile keeps it there; once it is gone, they cannot.
    std::error_code problem;
    for (int attempt = 0; attempt < 100; ++attempt)
        if (std::filesystem::remove_all(path, problem); !problem) return;
}

} // namespace

Leftover::Leftover(std::filesystem::path path) : myPath(std::move(path)) {
    const std::lock_guard lock(registry().mutex);
    registry().paths.insert(myPath);
}

Leftover::~Leftover() {
    if (myPath.empty()) return;
    removeAll(myPath);
    keep();
}

void Leftover::keep() {
    const std::lock_guard lock(registry().mutex);
    registry().paths.erase(myPath);
    myPath.clear();
}

void removeLeftoversOnSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) ::sigaddset(&signals, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr); // threads inherit it: only the one below takes these signals
    std::thread([signals] {
        int signal = 0;
        while (::sigwait(&signals, &signal) != 0) {
        }
        registry().mutex.lock(); // for good: nobody makes or keeps anything any more
        for (const std::filesystem::path& path : registry().paths) removeAll(path);
        ::raise(signal);
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }).detach();
}

} // namespace Vantle
