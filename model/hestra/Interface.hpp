#pragma once
/// Attachable interfaces and the container that objects carry them in.

#include <model/hestra/Reference.hpp>

#include <functional>
#include <mutex>
#include <typeinfo>
#include <vector>

namespace Hestra {

/// Passed to `InterfaceBase::apply` and `apply_const` when the interfaces of an object are iterated.
struct InterfaceIterationParameter {
    /// The container being iterated.
    const Intercube* container = nullptr;
    /// Set by an interface to end the iteration.
    bool stop = false;
};

/// Base of everything that can be attached to an `Intercube`.
class VANTLE_MODEL_API InterfaceBase : public ReferenceBase<InterfaceBase> {
public:
    ~InterfaceBase() override;
    /// The type that stands for all interfaces of this kind in look-ups; its own type, unless a class says otherwise.
    [[nodiscard]] virtual const std::type_info& getInterfaceDomain() const { return typeid(*this); }
    /// Called once an interface by `Intercube::iterateInterfaces`; the default does nothing.
    virtual void apply(InterfaceIterationParameter&) {}
    virtual void apply_const(InterfaceIterationParameter&) const {}
};

/// The attachable form of an interface class `T`: derive `T` from `Interface<T>`; whatever derives from `T` is found
/// under `typeid(T)`, too.
template<class T>
class VANTLE_MODEL_API Interface : public InterfaceBase {
public:
    [[nodiscard]] const std::type_info& getInterfaceDomain() const override { return typeid(T); }
};

/// Container of attachable interfaces, at most one of each dynamic type.
///
/// Several may share a domain, as ranges of several element types do; a look-up of the domain finds the newest.
///
/// Copies of the carrying object carry no attachments. Adding is const, since results derived from an object
/// are attached to it without changing it.
/// Concurrency  the container is guarded by a mutex: reading and changing at once. Which of two concurrent results
///              stays is not determined; one that was replaced lives as long as somebody holds it.
/// Cost         a look-up compares a handful of type identities and allocates nothing.
class VANTLE_MODEL_API Intercube {
public:
    Intercube() = default;
    Intercube(const Intercube&) noexcept {}
    Intercube& operator=(const Intercube&) noexcept { return *this; }

    /// The interface whose dynamic type is exactly `type`, else the newest whose domain is exactly `type`, else null.
    [[nodiscard]] StrongPtr<InterfaceBase> findInterface(const std::type_info& type) const;
    /// The interface found under `typeid(T)` if it is a `T`, else null.
    template<class T>
    [[nodiscard]] StrongPtr<T> findInterface() const {
        return StrongPtr<T>(dynamic_cast<T*>(findInterface(typeid(T)).rawptr()));
    }
    /// Attaches `what`, replacing (and releasing) the interface of the same dynamic type. A null handle does nothing.
    void addInterface(const StrongPtr<InterfaceBase>& what) const;
    /// Detaches what `findInterface` finds; false if that is nothing.
    bool removeInterface(const std::type_info& type) const;
    /// Calls `apply` (or `apply_const`) on every interface, in order of attachment, over a snapshot.
    void iterateInterfaces(InterfaceIterationParameter& parameter);
    void iterateInterfaces(InterfaceIterationParameter& parameter) const;
    /// Moves here everything that `other` carries.
    void takeOver(const Intercube& other) const;

private:
    using Entries = std::vector<StrongPtr<InterfaceBase>>;
    [[nodiscard]] Entries::iterator find(const std::type_info& type) const;
    [[nodiscard]] Entries snapshot() const;

    mutable std::mutex myMutex;
    mutable Entries myEntries; // the newest last
};

} // namespace Hestra
