#include <model/hestra/Creation.hpp>

#include <mutex>
#include <new>
#include <omp.h>
#include <utility>
#include <vector>

namespace Hestra {

namespace {

thread_local Creation* innermost = nullptr;

constexpr std::size_t NoMark = ~std::size_t{0};

} // namespace

struct Creation::Registry {
    /// Whoever opens a parallel region hands his default allocator on to the threads of the team (OpenMP 5.0, 2.5.4).
    /// It is all that can tell them whose team they are: so each making has an allocator, of no other peculiarity. They
    /// are used again, and never destroyed, since what they gave may live on.
    struct Mark {
        omp_allocator_handle_t allocator;
        Creation* making;
    };
    /// One who waits in a part of `part`.
    struct Waiter {
        const Creation* part;
        Creation* awaited;
        Waiter* next;
    };

    std::mutex mutex;
    std::vector<Mark> marks;
    Waiter* waiters = nullptr;
    std::uint64_t searches = 0;

    [[nodiscard]] std::size_t takeMark(Creation* making) noexcept {
        for (std::size_t n = 0; n < marks.size(); ++n)
            if (!marks[n].making) {
                marks[n].making = making;
                return n;
            }
        try {
            marks.reserve(marks.size() + 1);
        } catch (const std::bad_alloc&) {
            return NoMark;
        }
        const omp_allocator_handle_t allocator = omp_init_allocator(omp_default_mem_space, 0, nullptr);
        if (allocator == omp_null_allocator) return NoMark;
        marks.push_back({allocator, making});
        return marks.size() - 1;
    }
    [[nodiscard]] Creation* participation() const noexcept {
        if (innermost) return innermost;
        const omp_allocator_handle_t allocator = omp_get_default_allocator();
        for (const Mark& mark : marks)
            if (mark.allocator == allocator) return mark.making;
        return nullptr;
    }
};

Creation::Registry& Creation::registry() {
    static Registry* const all = new Registry; // never destroyed: something may be made while the process ends
    return *all;
}

bool Creation::isWithin(const Creation* part, const Creation* whole) noexcept {
    while (part && part != whole) part = part->myWhole;
    return part != nullptr;
}

/// Whether this cannot end before `other` has: because `other` is within it, or something within it waits for one of
/// which that is true.
bool Creation::endsAfter(const Creation* other) noexcept {
    const Registry& all = registry();
    if (mySearch == all.searches) return false; // seen on the way already
    mySearch = all.searches;
    if (isWithin(other, this)) return true;
    for (const Registry::Waiter* waiter = all.waiters; waiter; waiter = waiter->next)
        if (isWithin(waiter->part, this) && waiter->awaited->endsAfter(other)) return true;
    return false;
}

Creation::Creation(Gate& gate) {
    Registry& all = registry();
    std::unique_lock lock(all.mutex);
    myWhole = all.participation();
    while (Creation* const other = gate.myMaking) {
        ++all.searches;
        if (myWhole && other->endsAfter(myWhole)) return;
        Registry::Waiter waiter{myWhole, other, all.waiters};
        all.waiters = &waiter;
        other->myEnd.wait(lock);
        Registry::Waiter** link = &all.waiters;
        while (*link != &waiter) link = &(*link)->next;
        *link = waiter.next;
    }
    gate.myMaking = this;
    myGate = &gate;
    myMark = all.takeMark(this);
    if (myMark != NoMark) {
        myOuterMark = omp_get_default_allocator();
        omp_set_default_allocator(all.marks[myMark].allocator);
    }
    myOuter = std::exchange(innermost, this);
}

Creation::~Creation() {
    if (!myGate) return;
    innermost = myOuter;
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    myGate->myMaking = nullptr;
    if (myMark != NoMark) {
        omp_set_default_allocator(static_cast<omp_allocator_handle_t>(myOuterMark));
        all.marks[myMark].making = nullptr;
    }
    myEnd.notify_all();
}

Creation* Creation::current() noexcept {
    if (innermost) return innermost;
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    return all.participation();
}

Creation::Helper::Helper(Creation* making) noexcept : myOuter(std::exchange(innermost, making)) {}
Creation::Helper::~Helper() { innermost = myOuter; }

} // namespace Hestra
