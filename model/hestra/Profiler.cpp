#include <model/hestra/Profiler.hpp>

#include <chrono>
#include <map>
#include <mutex>

namespace Hestra {

thread_local constinit const Profiler* Profiler::current = nullptr;
std::atomic<bool> Profiler::enabledFlag{false};

namespace {

struct ProfileTable {
    std::mutex mutex;
    std::map<std::string, ProfileEntry> entries;
};

ProfileTable& profileTable() {
    static ProfileTable table;
    return table;
}

} // namespace

std::uint64_t Profiler::now() noexcept {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) | 1U;
}

void Profiler::record() const noexcept {
    using Period = std::chrono::steady_clock::period;
    const double seconds = static_cast<double>(now() - myStart) * Period::num / Period::den;
    auto& table = profileTable();
    const std::lock_guard lock(table.mutex);
    ProfileEntry& entry = table.entries[myName];
    if (entry.count++ == 0) {
        entry.name = myName;
        entry.file = myFile;
        entry.line = myLine;
    }
    entry.seconds += seconds;
}

std::vector<ProfileEntry> Profiler::table() {
    auto& table = profileTable();
    const std::lock_guard lock(table.mutex);
    std::vector<ProfileEntry> result;
    for (const auto& [name, entry] : table.entries) result.push_back(entry);
    return result;
}

void Profiler::reset() {
    auto& table = profileTable();
    const std::lock_guard lock(table.mutex);
    table.entries.clear();
}

} // namespace Hestra
