#pragma once
/// The one rule of freshness: whether what was derived from something, and kept, is still what that gives.

#include <model/hestra/Ageable.hpp>
#include <model/hestra/Interface.hpp>

#include <array>
#include <cstddef>

namespace Hestra {

/// What something was derived from, and how old that was then.
///
/// Whoever keeps what could be computed again takes one of these before reading the inputs, and keeps it beside the
/// result. The result is used again as long as the inputs are the same objects and none has become newer. Inputs are
/// what callers change and `touch()`: fields, rather than their creators, which some readings make newer.
///
/// Concurrency  immutable; asking may go on while inputs are changed, and tells of the change then or at the next time.
/// Cost         a comparison of two handles and two ages for each input; nothing is allocated.
class VANTLE_MODEL_API Freshness {
public:
    using age_t = Ageable::age_t;
    /// The most inputs that one result has.
    static constexpr std::size_t MaxInputs = 3;

    /// Whether what is as old as `kept` may stand for what is as old as `input`: unless the input is newer.
    [[nodiscard]] static constexpr bool isFresh(age_t kept, age_t input) noexcept { return kept >= input; }

    /// Derived from nothing: always current.
    Freshness() noexcept = default;
    /// Derived from these `Ageable` objects as they are now. Null stands for one that is missing.
    template<class... Inputs>
    explicit Freshness(const Inputs*... inputs) : myInputs{Input(inputs)...}, myCount(sizeof...(Inputs)) {
        static_assert(sizeof...(Inputs) <= MaxInputs);
    }

    /// Whether it was derived from these very objects, in this order, and none of them is newer now.
    template<class... Inputs>
    [[nodiscard]] bool isFor(const Inputs*... inputs) const {
        std::size_t n = 0;
        return myCount == sizeof...(Inputs) && (myInputs[n++].isFor(inputs) && ...);
    }
    /// Whether none of the inputs is newer now. What has died cannot change, and what no handle owns is not looked at.
    [[nodiscard]] bool isCurrent() const noexcept {
        for (std::size_t n = 0; n < myCount; ++n)
            if (const StrongPtr<const Referable> alive = myInputs[n].object.lock();
                alive && !isFresh(myInputs[n].age, myInputs[n].stamp->age()))
                return false;
        return true;
    }
    /// Whether both were derived from the same objects when these were equally old.
    [[nodiscard]] bool operator==(const Freshness& other) const noexcept {
        for (std::size_t n = 0; n < MaxInputs; ++n)
            if (myInputs[n].object.record() != other.myInputs[n].object.record() ||
                myInputs[n].age != other.myInputs[n].age)
                return false;
        return myCount == other.myCount;
    }

private:
    struct Input {
        WeakPtr<const Referable> object; // keeps the record: another object at the same place is another one
        const Ageable* stamp = nullptr;
        age_t age = 0;

        Input() noexcept = default;
        template<class T>
        explicit Input(const T* what) : object(what), stamp(what), age(what ? what->age() : 0) {}
        template<class T>
        [[nodiscard]] bool isFor(const T* what) const {
            if (!what) return !object.record();
            return object.record() == &what->referenceRecord() && isFresh(age, what->age());
        }
    };
    std::array<Input, MaxInputs> myInputs;
    std::size_t myCount = 0;
};

/// Notes beside something kept what that was derived from: attached to the owner of what is kept, which may be
/// replaced by something else there.
template<class Kept>
class VANTLE_MODEL_API FreshnessRecord : public Interface<FreshnessRecord<Kept>> {
public:
    FreshnessRecord(const WeakPtr<Kept>& what, const Freshness& origin) : kept(what), freshness(origin) {}

    const WeakPtr<Kept> kept;
    const Freshness freshness;

    /// Notes that `kept`, beside the other attachments of `owner`, was derived so.
    static void attach(const Intercube& owner, const StrongPtr<Kept>& kept, const Freshness& freshness) {
        owner.addInterface(makeRef<FreshnessRecord>(kept, freshness));
    }
    /// What was noted of `kept`; null if nothing was, which is the case for what a caller put there.
    [[nodiscard]] static StrongPtr<FreshnessRecord> find(const Intercube& owner, const StrongPtr<Kept>& kept) {
        const StrongPtr<FreshnessRecord> record = owner.findInterface<FreshnessRecord>();
        return record && record->kept == kept ? record : StrongPtr<FreshnessRecord>();
    }
    /// Whether `kept` is what these inputs give. What nothing was noted of is.
    template<class... Inputs>
    [[nodiscard]] static bool isFresh(const Intercube& owner, const StrongPtr<Kept>& kept, const Inputs*... inputs) {
        const StrongPtr<FreshnessRecord> record = find(owner, kept);
        return !record || record->freshness.isFor(inputs...);
    }
};

} // namespace Hestra
