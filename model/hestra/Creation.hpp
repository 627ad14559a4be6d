#pragma once
/// Things that are made once, when they are first wanted, by one of any number of threads.

#include <model/ModelExport.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>

namespace Hestra {

/// The making of one such thing: an object on the stack of who makes it, for as long as that lasts.
///
/// Whoever wants the thing meanwhile waits for the end, unless the making could not end before the one who waits does:
/// who takes part in it himself, and who takes part in the making of something that it waits for, over any number of
/// threads. Everybody else waits, however long it takes; nothing is decided by time.
///
/// The thread that begins a making takes part in it, and so does every thread of an OpenMP team whose parallel region
/// was opened by one that does. What was begun within another making is a part of that. Not recognised are explicit
/// OpenMP tasks that fall to a thread of an enclosing team, and threads started by hand without a `Helper`.
/// Concurrency  makings begin, wait and end in any thread, and end in the thread that began them.
/// Cost         two short locks of the whole process; a search over those who wait whenever one more is to wait. The
///              OpenMP default allocator is another one during a making, with the traits of the usual one.
class VANTLE_MODEL_API Creation {
public:
    /// Where makings of the same thing meet: a member of what holds it.
    class Gate {
    public:
        Gate() = default;
        Gate(const Gate&) = delete;
        Gate& operator=(const Gate&) = delete;

    private:
        friend class Creation;
        Creation* myMaking = nullptr;
    };

    /// Begins when nobody else is making the thing, or does not begin at all when waiting for that would never end.
    explicit Creation(Gate& gate);
    Creation(const Creation&) = delete;
    Creation& operator=(const Creation&) = delete;
    ~Creation();

    /// Whether it has begun.
    [[nodiscard]] explicit operator bool() const noexcept { return myGate != nullptr; }

    /// The innermost making that the calling thread takes part in, or null.
    [[nodiscard]] static Creation* current() noexcept;

    /// Lets the calling thread take part in a making that another thread has begun, and is waiting for this one.
    class VANTLE_MODEL_API Helper {
    public:
        explicit Helper(Creation* making) noexcept;
        Helper(const Helper&) = delete;
        Helper& operator=(const Helper&) = delete;
        ~Helper();

    private:
        Creation* myOuter;
    };

private:
    struct Registry;
    static Registry& registry();
    [[nodiscard]] bool endsAfter(const Creation* other) noexcept;
    [[nodiscard]] static bool isWithin(const Creation* part, const Creation* whole) noexcept;

    Gate* myGate = nullptr;
    Creation* myWhole = nullptr; // what this is a part of
    Creation* myOuter = nullptr; // what this thread is working on besides
    std::uintptr_t myOuterMark = 0;
    std::size_t myMark = 0;
    std::uint64_t mySearch = 0;
    std::condition_variable myEnd;
};

} // namespace Hestra
