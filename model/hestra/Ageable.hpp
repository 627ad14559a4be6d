#pragma once
/// Age stamps: what is newer has the larger age.

#include <model/ModelExport.hpp>

#include <atomic>

namespace Hestra {

/// An object with an age stamp. A newly made one has age 0 and is older than everything.
///
/// Concurrency  every operation is atomic on its own; readers and changers at once.
class VANTLE_MODEL_API Ageable {
public:
    using age_t = long long;

    /// The process-wide clock: the largest age handed out so far.
    static std::atomic<age_t> GlobalTime;

    Ageable() noexcept = default;
    explicit Ageable(age_t age) noexcept : myAge(age) {}
    Ageable(const Ageable& other) noexcept : myAge(other.age()) {}
    Ageable& operator=(const Ageable& other) noexcept {
        setAge(other.age());
        return *this;
    }
    virtual ~Ageable();

    /// The age; of what stands for something else, not less than the age of that.
    [[nodiscard]] virtual age_t age() const noexcept { return myAge.load(std::memory_order_acquire); }
    /// Makes this the newest object: advances the clock and takes its value.
    void touch() noexcept { setAge(GlobalTime.fetch_add(1, std::memory_order_acq_rel) + 1); }
    /// Sets the age; the clock stays.
    void setAge(age_t age) noexcept { myAge.store(age, std::memory_order_release); }
    /// Sets the age if that makes this object newer; the clock stays.
    void raiseAge(age_t age) noexcept {
        age_t now = myAge.load(std::memory_order_relaxed);
        while (now < age && !myAge.compare_exchange_weak(now, age, std::memory_order_acq_rel)) {
        }
    }

    [[nodiscard]] bool isOlderThan(const Ageable& other) const noexcept { return age() < other.age(); }

private:
    std::atomic<age_t> myAge{0};
};

} // namespace Hestra
