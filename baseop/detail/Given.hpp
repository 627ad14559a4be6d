#pragma once
/// A parameter that takes an object or any handle to it.

#include <model/hestra/Reference.hpp>

namespace Vantle::detail {

/// What a caller gives where an operation needs an owning handle: the object itself, or a strong or weak handle, which
/// may be null.
template<class T>
class Given {
public:
    Given(T& object) : myHandle(&object) {}
    template<class Handle>
    requires(std::is_convertible_v<const Handle&, Hestra::StrongPtr<T>> && !std::is_base_of_v<T, Handle>)
        Given(const Handle& handle)
        : myHandle(handle) {}
    [[nodiscard]] const Hestra::StrongPtr<T>& handle() const noexcept { return myHandle; }

private:
    Hestra::StrongPtr<T> myHandle;
};

/// The same where reading is enough: refers to the object, and owns it only if a handle was given.
template<class T>
class GivenView {
public:
    GivenView(const T& object) noexcept : myObject(&object) {}
    template<class Handle>
    requires(std::is_convertible_v<const Handle&, Hestra::StrongPtr<T>> && !std::is_base_of_v<T, Handle>)
        GivenView(const Handle& handle)
        : myOwner(handle), myObject(myOwner.rawptr()) {}
    /// Null for an empty handle.
    [[nodiscard]] const T* object() const noexcept { return myObject; }

private:
    Hestra::StrongPtr<T> myOwner;
    const T* myObject;
};

} // namespace Vantle::detail
