#pragma once
/// A fragment whose coordinates are made for the first query that reaches it, and a search structure of it.

#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <baseop/detail/location/Narrator.hpp>
#include <model/vantle/Field.hpp>

#include <atomic>
#include <optional>
#include <stdexcept>

namespace Vantle::detail {

/// What becomes of what is said while something is made.
enum class Hearing {
    Nobody, ///< nobody hears it
    Kept,   ///< it is kept until it is told
    Again,  ///< the same, also what has been told before: for the query that reports
};

/// Any number of threads may ask.
class LazyFragment {
public:
    Hestra::StrongPtr<FragmentID> id;
    Hestra::StrongPtr<CreativeArrayBase> creator;
    /// What is said while coordinates and structures are made, until it is told.
    mutable Untold untold;

    /// The coordinates if a query has had them before; else null.
    [[nodiscard]] const FragmentCoordinates* known() const noexcept {
        return myIsKnown.load(std::memory_order_acquire) ? &myCoordinates : nullptr;
    }
    /// The coordinates, created if need be; null while there are none of a known kind.
    [[nodiscard]] const FragmentCoordinates* coordinates(Hearing hearing) const {
        if (const FragmentCoordinates* const there = known()) return there;
        if (!creator) return nullptr;
        // Created outside the lock: what makes the array may itself ask a locator.
        FragmentCoordinates found(untold.during(hearing != Hearing::Nobody, [this] { return creator->getData(); }));
        if (!found.isKnown()) return nullptr;
        const std::lock_guard lock(myMutex);
        if (!myIsKnown.load(std::memory_order_relaxed)) {
            myCoordinates = std::move(found);
            myIsKnown.store(true, std::memory_order_release);
        }
        return &myCoordinates;
    }

private:
    mutable std::atomic<bool> myIsKnown{false};
    mutable std::mutex myMutex;
    mutable FragmentCoordinates myCoordinates;
};

/// A search structure as one locator knows it: found in the storage, or built and stored, inside the unnamed critical
/// section; read without it from then on.
template<class Structure>
class StructureSlot {
public:
    /// Null until it is there.
    [[nodiscard]] const Structure* ready() const noexcept { return myReady.load(std::memory_order_acquire); }

    /// Gets it ready: by `look()`, which may find none, else by `make()`. `announce()` says that it is made,
    /// `refuse(reason)` that it cannot be; all that is said is left untold.
    ///
    /// A structure that its block makes too large is so for ever, and said to be so only `Again`. Other failures are
    /// tried again.
    template<class Look, class Announce, class Make, class Refuse>
    const Structure* obtain(Untold& untold, Hearing hearing, const Look& look, const Announce& announce,
                            const Make& make, const Refuse& refuse) {
        untold.during(hearing != Hearing::Nobody, [&] {
            inCriticalSection([&] {
                if (myOwner) return;
                if (myHopeless) {
                    if (hearing != Hearing::Again) return;
                    announce();
                    return refuse(myHopeless->c_str());
                }
                try {
                    myOwner = look();
                    if (!myOwner) {
                        announce();
                        myOwner = make();
                    }
                } catch (const std::length_error& problem) {
                    myHopeless = problem.what();
                    refuse(problem.what());
                } catch (const std::exception& problem) {
                    refuse(problem.what());
                } catch (...) {
                    refuse(nullptr);
                }
                if (myOwner) myReady.store(myOwner.rawptr(), std::memory_order_release);
            });
        });
        return ready();
    }

private:
    std::atomic<const Structure*> myReady{nullptr};
    Hestra::StrongPtr<Structure> myOwner;
    std::optional<std::string> myHopeless; // why
};

} // namespace Vantle::detail
