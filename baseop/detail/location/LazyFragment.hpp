#pragma once
/// A fragment whose coordinates are made for the first query that reaches it.

#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/location/Narrator.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Field.hpp>

#include <atomic>
#include <mutex>

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
        FragmentCoordinates found(
            untold.during(hearing != Hearing::Nobody, [this] { return getDataInDoublePrecision(*creator); }));
        if (!found.isKnown()) return nullptr;
        const std::lock_guard lock(myMutex);
        if (!myIsKnown.load(std::memory_order_relaxed)) {
            myCoordinates = std::move(found);
            myIsKnown.store(true, std::memory_order_release);
        }
        return &myCoordinates;
    }
    /// What is valid of the fragment, whose coordinates are known, by masks that are the same in all calls; null where
    /// everything is.
    [[nodiscard]] const BlockMask* mask(const Blanking& masks, Hearing hearing) const {
        if (!masks) return nullptr;
        if (myMaskIsKnown.load(std::memory_order_acquire)) return myMask.rawptr();
        const auto extents = [](const auto& kind) {
            if constexpr (requires { MultiIndex<3>(kind->Size()); })
                return MultiIndex<3>(kind->Size());
            else
                return MultiIndex<3>();
        };
        const MultiIndex<3> size = std::visit(extents, myCoordinates.kind);
        Hestra::StrongPtr<const BlockMask> made;
        if (size.product() != 0) made = untold.during(hearing != Hearing::Nobody, [&] { return masks.of(id, size); });
        const std::lock_guard lock(myMutex);
        if (!myMaskIsKnown.load(std::memory_order_relaxed)) {
            myMask = made;
            myMaskIsKnown.store(true, std::memory_order_release);
        }
        return myMask.rawptr();
    }

private:
    mutable std::atomic<bool> myIsKnown{false};
    mutable std::mutex myMutex;
    mutable FragmentCoordinates myCoordinates;
    mutable std::atomic<bool> myMaskIsKnown{false};
    mutable Hestra::StrongPtr<const BlockMask> myMask;
};

} // namespace Vantle::detail
