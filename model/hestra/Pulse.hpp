#pragma once
/// How far operations are: said from within, heard by whoever called them, who can end them.

#include <model/ModelExport.hpp>

#include <chrono>
#include <exception>
#include <functional>

namespace Hestra {

/// Leaves an operation that is to end. Carries nothing: the pulse keeps the reason.
class VANTLE_MODEL_API Interruption {};

/// Hears how far the operations are that its thread calls, as long as it lives, and can end them.
///
/// Operations say between pieces of their work where they are, however deep down that is done: in loops, in creators,
/// while files are read. The innermost pulse of the thread hears it; threads of a team say nothing, while the thread
/// that called them does.
/// Laws         shares are between 0 and 1 and never fall. The listener hears the first one, each that is at least a
///              thousandth more than the one before, one every 20 ms, and that all is done.
/// Ending       what the listener throws is kept, and the operation left by an `Interruption`, as by any failure. A
///              creator that is left gives null; so whoever has a pulse calls `rethrow` when the operation is over,
///              whatever it gave: it is not to be used then.
/// Concurrency  of the thread that makes it. The listener may be called while operations hold locks: it must not ask
///              the objects that are being worked on.
/// Cost         for operations, without a pulse: a look at a variable of the thread for each piece.
class VANTLE_MODEL_API Pulse {
public:
    using Listener = std::function<void(double share)>;

    explicit Pulse(Listener listener);
    ~Pulse();
    Pulse(const Pulse&) = delete;
    Pulse& operator=(const Pulse&) = delete;
    /// Throws what the listener has thrown, if it has.
    void rethrow() const;

    [[nodiscard]] static bool isHeard() noexcept;
    /// Says which share of the innermost part is done. Throws `Interruption` when that is to be all.
    static void beat(double share);

    /// What is done while this lives goes from one share to another of the part that it is in.
    class VANTLE_MODEL_API Part {
    public:
        Part(double from, double to) noexcept;
        ~Part();
        Part(const Part&) = delete;
        Part& operator=(const Part&) = delete;

    private:
        Pulse* myPulse;
        double myOuterFrom = 0.0, myOuterTo = 1.0;
    };

private:
    void tell(double share);
    [[nodiscard]] double at(double share) const noexcept { return myFrom + (myTo - myFrom) * share; }

    const Listener myListener;
    Pulse* const myOuter;
    double myFrom = 0.0, myTo = 1.0;
    double myTold = -1.0;
    std::chrono::steady_clock::time_point myTime;
    std::exception_ptr myEnd;
};

} // namespace Hestra
