#pragma once
/// Profiling scopes: which operations are open, and, when switched on, how often and how long they ran.

#include <model/ModelExport.hpp>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace Hestra {

/// What the profile knows about one scope.
struct ProfileEntry {
    std::string name;
    std::string file;
    unsigned line = 0;
    std::uint64_t count = 0;
    double seconds = 0.0;
};

/// An open scope: opens with the constructor, closes with the destructor.
///
/// Concurrency  each thread has scopes of its own; the table is guarded by a mutex, and may be read, reset and added to
///              at once.
/// Cost         two pointer stores while profiling is off: no allocation, no lock, no clock.
class VANTLE_MODEL_API Profiler {
public:
    /// All texts must live as long as the process; literals do. `signature` is the readable name, `fullSignature`
    /// the compiler's spelling of the function.
    Profiler(const char* file, unsigned line, const char* signature, const char* fullSignature) noexcept
        : myFile(file), myName(signature), myFullName(fullSignature), myLine(line), myOuter(current) {
        current = this;
        if (enabledFlag.load(std::memory_order_relaxed)) [[unlikely]]
            myStart = now();
    }
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;
    ~Profiler() {
        current = myOuter;
        if (myStart) [[unlikely]]
            record();
    }

    [[nodiscard]] const char* file() const noexcept { return myFile; }
    [[nodiscard]] const char* name() const noexcept { return myName; }
    [[nodiscard]] const char* fullName() const noexcept { return myFullName; }
    [[nodiscard]] unsigned line() const noexcept { return myLine; }
    [[nodiscard]] const Profiler* outer() const noexcept { return myOuter; }

    /// The innermost open scope of this thread, or null.
    [[nodiscard]] static const Profiler* innermost() noexcept { return current; }
    /// Switches counting and timing on or off. Call while no scope is open.
    static void enable(bool on) noexcept { enabledFlag = on; }
    /// Everything recorded so far, by name; times include inner scopes.
    [[nodiscard]] static std::vector<ProfileEntry> table();
    static void reset();

private:
    static std::uint64_t now() noexcept;
    void record() const noexcept;

    static thread_local constinit const Profiler* current;
    static std::atomic<bool> enabledFlag;

    const char* myFile;
    const char* myName;
    const char* myFullName;
    unsigned myLine;
    const Profiler* myOuter;
    std::uint64_t myStart = 0;
};

/// A scope named by function, line and file.
class VANTLE_MODEL_API FunctionStackProfiler : public Profiler {
public:
    FunctionStackProfiler(const char* function, unsigned line, const char* file) noexcept
        : Profiler(file, line, function, function) {}
};

} // namespace Hestra
