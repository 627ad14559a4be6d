#pragma once
/// Reference counting: the root of all shared objects, and the owning and weak handles to them.

#include <model/Forward.hpp>
#include <model/ModelExport.hpp>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace Hestra {

/// A number that threads read and write without locking; a copy has the value of that moment.
struct SerialNumber : std::atomic<std::uint32_t> {
    constexpr SerialNumber() noexcept : std::atomic<std::uint32_t>(0) {}
    SerialNumber(const SerialNumber& other) noexcept
        : std::atomic<std::uint32_t>(other.load(std::memory_order_relaxed)) {}
    SerialNumber& operator=(const SerialNumber&) = delete;
    using std::atomic<std::uint32_t>::operator=;
};

/// Number taken by every constructed handle, in whatever thread: a diagnostic serial, 32 bits, wrapping.
/// Updates from several threads may get lost; a number is not an identity.
VANTLE_MODEL_API extern SerialNumber PointerID;

/// Takes the next number of `PointerID`. A relaxed load and a relaxed store on purpose: an atomic
/// increment would make every handle copy contend for one cache line.
inline std::uint32_t nextPointerID() noexcept {
    const std::uint32_t id = PointerID.load(std::memory_order_relaxed) + 1;
    PointerID.store(id, std::memory_order_relaxed);
    return id;
}

class Referable;

/// What handles share about one object; outlives the object while a handle remembers it.
class VANTLE_MODEL_API ReferenceRecord {
public:
    /// The object, or null once it is destroyed.
    std::atomic<Referable*> object;
    /// Number of owning handles; negative while (and after) the object is being destroyed by its last handle.
    std::atomic<int> strong{0};
    /// Number of weak handles, plus one for the object itself.
    std::atomic<int> weak{1};

    explicit ReferenceRecord(Referable* what) noexcept : object(what) {}

    [[nodiscard]] bool valid() const noexcept {
        return object.load(std::memory_order_acquire) != nullptr && strong.load(std::memory_order_acquire) >= 0;
    }

    void addStrong() noexcept { strong.fetch_add(1, std::memory_order_relaxed); }
    /// Adds an owner only while there are `fewest` already: a dying object is never revived.
    bool promote(int fewest = 1) noexcept;
    void releaseStrong() noexcept {
        if (strong.fetch_sub(1, std::memory_order_acq_rel) == 1) lastOwnerLeft();
    }
    void addWeak() noexcept { weak.fetch_add(1, std::memory_order_relaxed); }
    void releaseWeak() noexcept {
        if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

private:
    void lastOwnerLeft() noexcept;
};

/// Root of every object that handles can refer to. One control record an object, made with its first handle.
///
/// Objects made with `new` are deleted with their last `StrongPtr`. An object on the stack, or a member of
/// another one, may be referred to as well: it is not deleted, and a handle that outlives it expires.
///
/// Concurrency  handles to one object may be made, copied and released in any number of threads at once; one handle is
///              changed by one thread while nobody reads it. The object itself has its own promise.
class VANTLE_MODEL_API Referable {
public:
    Referable() noexcept;
    /// Handles refer to an object, not to its value: a copy starts without any.
    Referable(const Referable&) noexcept : Referable() {}
    Referable& operator=(const Referable&) noexcept { return *this; }
    virtual ~Referable();

    /// Called when the last owner has left, before the destructor.
    virtual void extremeUnction() {}

    /// The record of this object; made on first use. Any number of threads may ask. Throws std::bad_alloc.
    [[nodiscard]] ReferenceRecord& referenceRecord() const;
    /// The same for who becomes an owner. Without memory for the record of an object made with `new`, which then has
    /// no owner yet, the object is deleted before that is thrown: `StrongPtr<T>(new T)` leaves nothing behind.
    [[nodiscard]] ReferenceRecord& recordForOwner() const;

    /// Number of owning handles at this moment.
    [[nodiscard]] int strongCount() const noexcept;

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void* operator new(std::size_t, void* where) noexcept { return where; }
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, std::align_val_t alignment) noexcept;
    static void operator delete(void*, void*) noexcept {}

private:
    friend class ReferenceRecord;
    mutable std::atomic<ReferenceRecord*> myRecord{nullptr};
    bool myHeapFlag;
};

/// Marks `T` as the root of a family of shared objects.
template<class T>
class VANTLE_MODEL_API ReferenceBase : public Referable {};

/// The sink that handles report misuse to: one line each on standard error.
class VANTLE_MODEL_API SpeakPtr {
public:
    /// An object died while owning handles referred to it.
    static void DestructionAssertion(const Referable* object, int owners);
    /// The last owner of an object that was not made with `new` has left; nothing is deleted.
    static void DestructionCancelled(const Referable* object);
    /// `extremeUnction` changed the number of owners.
    static void WarningUnctionChange(const Referable* object, int owners);
    /// A handle was constructed from itself.
    static void SelfConstruction(const void* handle);
    /// General state of a handle: its record and its serial number.
    static void DynPtrInfoRS(const void* record, std::uint32_t serial);
    /// A handle without record was used.
    static void DynPtrNoRefererRS(const void* handle);
    /// A handle with a record that does not point at an object was used.
    static void DynPtrInvalidRefererRS(const void* record);
};

/// Common base of the handles: a raw pointer, the record that says whether it still counts, a serial number.
///
/// Valid exactly when the record exists, points at an object and the strong count is not negative.
template<class T, class Base>
class DynPtr {
public:
    using element_type = T;

    /// The object, or null when the handle is empty or has expired.
    [[nodiscard]] T* rawptr() const noexcept { return myRecord && myRecord->valid() ? myObject : nullptr; }
    [[nodiscard]] bool operator!() const noexcept { return rawptr() == nullptr; }
    [[nodiscard]] explicit operator bool() const noexcept { return rawptr() != nullptr; }
    [[nodiscard]] std::uint32_t pointerID() const noexcept { return myID; }

    template<class U, class B>
    [[nodiscard]] bool operator==(const DynPtr<U, B>& other) const noexcept {
        return static_cast<const volatile void*>(rawptr()) == static_cast<const volatile void*>(other.rawptr()) ||
               (rawptr() && other.rawptr() && myRecord == other.record());
    }
    [[nodiscard]] bool operator==(std::nullptr_t) const noexcept { return rawptr() == nullptr; }
    /// An order of the objects referred to, without meaning, for sets and maps; null comes first. It stays when an
    /// object dies: what was entered is found.
    template<class U, class B>
    [[nodiscard]] bool operator<(const DynPtr<U, B>& other) const noexcept {
        return std::less<const ReferenceRecord*>()(myRecord, other.record());
    }

    /// The control record, or null; for the handles' own use.
    [[nodiscard]] ReferenceRecord* record() const noexcept { return myRecord; }
    /// The pointer as stored, without asking whether the object lives.
    [[nodiscard]] T* storedPointer() const noexcept { return myObject; }

    /// Counts an owner that is no handle, and its end; the last owner's end destroys the object. An owner is counted
    /// of a living object only. Misuse is reported to `SpeakPtr` and has no other effect.
    void ref() const noexcept {
        if (!rawptr() || !myRecord->promote(0)) speak();
    }
    void unref() const noexcept {
        if (myRecord)
            myRecord->releaseStrong();
        else
            speak();
    }
    /// The same for who only remembers the object, which keeps its control record.
    void wref() const noexcept {
        if (myRecord)
            myRecord->addWeak();
        else
            speak();
    }
    void wunref() const noexcept {
        if (myRecord)
            myRecord->releaseWeak();
        else
            speak();
    }

protected:
    DynPtr() noexcept : myID(nextPointerID()) {}
    DynPtr(T* object, ReferenceRecord* record) noexcept : myObject(object), myRecord(record), myID(nextPointerID()) {}
    /// Refers to what `other` refers to; counting it is left to the derived class.
    DynPtr(const DynPtr& other) noexcept : myID(nextPointerID()) {
        if (this == &other) [[unlikely]] { // there is nothing to copy yet
            SpeakPtr::SelfConstruction(this);
            return;
        }
        myObject = other.myObject;
        myRecord = other.myRecord;
    }
    DynPtr& operator=(const DynPtr&) = delete;
    ~DynPtr() = default;

    void addStrong() const noexcept {
        if (myRecord) myRecord->addStrong();
    }
    void addWeak() const noexcept {
        if (myRecord) myRecord->addWeak();
    }
    /// Whether there is an object; reports it if not. For assertions.
    [[nodiscard]] bool usable() const noexcept {
        if (rawptr()) return true;
        speak();
        return false;
    }
    void speak() const noexcept {
        SpeakPtr::DynPtrInfoRS(myRecord, myID);
        if (myRecord)
            SpeakPtr::DynPtrInvalidRefererRS(myRecord);
        else
            SpeakPtr::DynPtrNoRefererRS(this);
    }

    T* myObject = nullptr;
    ReferenceRecord* myRecord = nullptr;
    std::uint32_t myID;
};

/// Owning handle: the object lives while one exists. Copying costs one atomic increment; inside an
/// operation pass references instead.
template<class T, class Base>
class StrongPtr : public DynPtr<T, Base> {
    using Dyn = DynPtr<T, Base>;

public:
    StrongPtr() noexcept = default;
    StrongPtr(std::nullptr_t) noexcept {}
    /// Owns `object`, which may be null and may have owners already.
    explicit StrongPtr(T* object) : Dyn(object, object ? &recordOf(object) : nullptr) { this->addStrong(); }
    StrongPtr(const StrongPtr& other) noexcept : Dyn(other) { this->addStrong(); }
    StrongPtr(StrongPtr&& other) noexcept
        : Dyn(std::exchange(other.myObject, nullptr), std::exchange(other.myRecord, nullptr)) {}
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> StrongPtr(const StrongPtr<U, B>& other)
    noexcept : Dyn(other.storedPointer(), other.record()) { this->addStrong(); }
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> StrongPtr(StrongPtr<U, B>&& other)
    noexcept : Dyn(other.storedPointer(), other.record()) { other.abandon(); }
    /// Promotes a weak handle; empty when its object is gone or has no owner.
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> StrongPtr(const WeakPtr<U, B>& other)
    noexcept {
        if (other.record() && other.record()->promote()) {
            this->myObject = other.storedPointer();
            this->myRecord = other.record();
        }
    }
    ~StrongPtr() {
        if (this->myRecord) this->myRecord->releaseStrong();
    }

    StrongPtr& operator=(const StrongPtr& other) noexcept {
        other.addStrong();
        reset(other.myObject, other.myRecord);
        return *this;
    }
    StrongPtr& operator=(StrongPtr&& other) noexcept {
        if (this != &other) reset(std::exchange(other.myObject, nullptr), std::exchange(other.myRecord, nullptr));
        return *this;
    }
    StrongPtr& operator=(std::nullptr_t) noexcept {
        reset(nullptr, nullptr);
        return *this;
    }

    [[nodiscard]] T* operator->() const noexcept {
        assert(this->usable());
        return this->myObject;
    }
    [[nodiscard]] T& operator*() const noexcept {
        assert(this->usable());
        return *this->myObject;
    }

    /// Gives the ownership away without releasing it; for converting moves.
    void abandon() noexcept {
        this->myObject = nullptr;
        this->myRecord = nullptr;
    }
    void swap(StrongPtr& other) noexcept {
        std::swap(this->myObject, other.myObject);
        std::swap(this->myRecord, other.myRecord);
    }

private:
    static ReferenceRecord& recordOf(T* object) { return object->recordForOwner(); }
    void reset(T* object, ReferenceRecord* record) noexcept {
        ReferenceRecord* const old = this->myRecord;
        this->myObject = object;
        this->myRecord = record;
        if (old) old->releaseStrong();
    }
};

/// Non-owning handle that knows when its object is gone.
template<class T, class Base>
class WeakPtr : public DynPtr<T, Base> {
    using Dyn = DynPtr<T, Base>;

public:
    WeakPtr() noexcept = default;
    WeakPtr(std::nullptr_t) noexcept {}
    explicit WeakPtr(T* object) : Dyn(object, object ? &object->referenceRecord() : nullptr) { this->addWeak(); }
    /// Refers to an object wherever it lives: the handle expires with it.
    WeakPtr(T& object) : WeakPtr(&object) {}
    WeakPtr(const WeakPtr& other) noexcept : Dyn(other) { this->addWeak(); }
    WeakPtr(WeakPtr&& other) noexcept
        : Dyn(std::exchange(other.myObject, nullptr), std::exchange(other.myRecord, nullptr)) {}
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> WeakPtr(const StrongPtr<U, B>& other)
    noexcept : Dyn(other.storedPointer(), other.record()) { this->addWeak(); }
    /// Empty when the object of `other` is gone: a pointer to a dead object cannot be converted to a virtual base.
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> WeakPtr(const WeakPtr<U, B>& other)
    noexcept {
        const StrongPtr<U, B> alive(other); // as long as the pointer is being converted
        if (U* const object = other.rawptr()) {
            this->myObject = object;
            this->myRecord = other.record();
            this->addWeak();
        }
    }
    ~WeakPtr() {
        if (this->myRecord) this->myRecord->releaseWeak();
    }

    WeakPtr& operator=(const WeakPtr& other) noexcept {
        other.addWeak();
        reset(other.myObject, other.myRecord);
        return *this;
    }
    WeakPtr& operator=(WeakPtr&& other) noexcept {
        if (this != &other) reset(std::exchange(other.myObject, nullptr), std::exchange(other.myRecord, nullptr));
        return *this;
    }
    WeakPtr& operator=(std::nullptr_t) noexcept {
        reset(nullptr, nullptr);
        return *this;
    }

    /// An owning handle to the object, or an empty one.
    [[nodiscard]] StrongPtr<T, Base> lock() const noexcept { return StrongPtr<T, Base>(*this); }

    /// Access for the thread that knows that the object lives.
    [[nodiscard]] T* operator->() const noexcept {
        assert(this->usable());
        return this->myObject;
    }
    [[nodiscard]] T& operator*() const noexcept {
        assert(this->usable());
        return *this->myObject;
    }

private:
    void reset(T* object, ReferenceRecord* record) noexcept {
        ReferenceRecord* const old = this->myRecord;
        this->myObject = object;
        this->myRecord = record;
        if (old) old->releaseWeak();
    }
};

/// Owning reference to a new object, never empty. Converts to `StrongPtr`.
template<class T>
class Ref {
public:
    using element_type = T;
    /// Takes over `object`, which must not be null.
    explicit Ref(T* object) : myPtr(object) { assert(object); }
    template<class U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other) : myPtr(other.strong()) {}

    [[nodiscard]] T* operator->() const noexcept { return myPtr.storedPointer(); }
    [[nodiscard]] T& operator*() const noexcept { return *myPtr.storedPointer(); }
    [[nodiscard]] T* rawptr() const noexcept { return myPtr.rawptr(); }
    [[nodiscard]] const StrongPtr<T>& strong() const noexcept { return myPtr; }
    operator const StrongPtr<T>&() const noexcept { return myPtr; }
    template<class U, class B>
    requires(std::is_convertible_v<T*, U*> && !std::is_same_v<StrongPtr<U, B>, StrongPtr<T>>)
    operator StrongPtr<U, B>() const noexcept {
        return StrongPtr<U, B>(myPtr);
    }
    template<class U, class B>
    requires std::is_convertible_v<T*, U*>
    operator WeakPtr<U, B>() const noexcept { return WeakPtr<U, B>(myPtr); }

private:
    StrongPtr<T> myPtr;
};

/// Owning reference to a new object that may be empty. Converts to `StrongPtr`.
template<class T>
class RefPtr {
public:
    using element_type = T;
    RefPtr() noexcept = default;
    RefPtr(std::nullptr_t) noexcept {}
    explicit RefPtr(T* object) : myPtr(object) {}
    template<class U>
    requires std::is_convertible_v<U*, T*> RefPtr(const Ref<U>& other) : myPtr(other.strong()) {}
    template<class U>
    requires std::is_convertible_v<U*, T*> RefPtr(const RefPtr<U>& other) : myPtr(other.strong()) {}
    template<class U, class B>
    requires std::is_convertible_v<U*, T*> RefPtr(const StrongPtr<U, B>& other) : myPtr(other) {}

    [[nodiscard]] bool operator!() const noexcept { return !myPtr; }
    [[nodiscard]] explicit operator bool() const noexcept { return bool(myPtr); }
    [[nodiscard]] T* operator->() const noexcept { return myPtr.operator->(); }
    [[nodiscard]] T& operator*() const noexcept { return *myPtr; }
    [[nodiscard]] T* rawptr() const noexcept { return myPtr.rawptr(); }
    [[nodiscard]] const StrongPtr<T>& strong() const noexcept { return myPtr; }
    operator const StrongPtr<T>&() const noexcept { return myPtr; }
    template<class U, class B>
    requires(std::is_convertible_v<T*, U*> && !std::is_same_v<StrongPtr<U, B>, StrongPtr<T>>)
    operator StrongPtr<U, B>() const noexcept {
        return StrongPtr<U, B>(myPtr);
    }
    template<class U, class B>
    requires std::is_convertible_v<T*, U*>
    operator WeakPtr<U, B>() const noexcept { return WeakPtr<U, B>(myPtr); }

private:
    StrongPtr<T> myPtr;
};

/// A new `T`, owned from its first moment. Cacheable data get their `CacheableDeferredConstructor` called.
template<class T, class... Args>
[[nodiscard]] Ref<T> makeRef(Args&&... args) {
    Ref<T> made(new T(std::forward<Args>(args)...));
    if constexpr (requires { made->CacheableDeferredConstructor(); }) made->CacheableDeferredConstructor();
    return made;
}

/// The object as another class of its family, or an empty handle: `dynamic_cast` for handles.
template<class To, class From, class B>
[[nodiscard]] StrongPtr<To> dynamicCast(const StrongPtr<From, B>& from) noexcept {
    return StrongPtr<To>(dynamic_cast<To*>(from.rawptr()));
}

} // namespace Hestra
