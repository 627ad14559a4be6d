#include <model/hestra/Reference.hpp>

#include <cstdio>
#include <functional>
#include <limits>
#include <new>
#include <utility>

namespace Hestra {

SerialNumber PointerID;

namespace {

// Memory that operator new handed out and whose object has not yet begun to exist. A constructor that finds
// itself inside such a block runs for an object made with new. Arguments of a constructor are evaluated after its
// memory was taken, so blocks nest.
struct PendingBlock {
    const char* begin;
    const char* end;
};
constexpr int PendingInPlace = 64;
thread_local PendingBlock pending[PendingInPlace];
thread_local int pendingCount = 0;

/// The ones for which there is no place.
struct DeepBlock {
    PendingBlock block;
    DeepBlock* next;
};
thread_local DeepBlock* deepBlocks = nullptr;

constexpr int Destroyed = std::numeric_limits<int>::min() / 2;

bool takePending(const void* where) noexcept {
    const auto holds = [place = static_cast<const char*>(where)](const PendingBlock& block) {
        const std::less<const char*> before;
        return !before(place, block.begin) && before(place, block.end);
    };
    for (DeepBlock** link = &deepBlocks; *link; link = &(*link)->next)
        if (holds((*link)->block)) {
            delete std::exchange(*link, (*link)->next);
            return true;
        }
    for (int n = pendingCount; n-- > 0;)
        if (holds(pending[n])) {
            for (; n + 1 < pendingCount; ++n) pending[n] = pending[n + 1];
            --pendingCount;
            return true;
        }
    return false;
}

void addPending(void* memory, std::size_t size) {
    const PendingBlock block{static_cast<char*>(memory), static_cast<char*>(memory) + size};
    if (pendingCount < PendingInPlace)
        pending[pendingCount++] = block;
    else
        deepBlocks = new DeepBlock{block, deepBlocks};
}

} // namespace

bool ReferenceRecord::promote(int fewest) noexcept {
    int owners = strong.load(std::memory_order_relaxed);
    while (owners >= fewest)
        if (strong.compare_exchange_weak(owners, owners + 1, std::memory_order_acq_rel, std::memory_order_relaxed))
            return true;
    return false;
}

void ReferenceRecord::lastOwnerLeft() noexcept {
    Referable* const dying = object.load(std::memory_order_acquire);
    if (!dying) { // the object died before its owners: they kept the object's share of the record
        releaseWeak();
        return;
    }
    if (!dying->myHeapFlag) {
        SpeakPtr::DestructionCancelled(dying);
        return;
    }
    int none = 0;
    if (!strong.compare_exchange_strong(none, Destroyed, std::memory_order_acq_rel)) return;
    dying->extremeUnction();
    if (const int now = strong.load(std::memory_order_relaxed); now != Destroyed)
        SpeakPtr::WarningUnctionChange(dying, now - Destroyed);
    delete dying;
}

Referable::Referable() noexcept : myHeapFlag(takePending(this)) {}

Referable::~Referable() {
    ReferenceRecord* const record = myRecord.load(std::memory_order_acquire);
    if (!record) return;
    record->object.store(nullptr, std::memory_order_release);
    const int owners = record->strong.load(std::memory_order_acquire);
    if (owners > 0)
        SpeakPtr::DestructionAssertion(this, owners); // the last of them releases the object's share
    else
        record->releaseWeak();
}

ReferenceRecord& Referable::referenceRecord() const {
    ReferenceRecord* record = myRecord.load(std::memory_order_acquire);
    if (record) return *record;
    auto* const fresh = new ReferenceRecord(const_cast<Referable*>(this));
    if (myRecord.compare_exchange_strong(record, fresh, std::memory_order_acq_rel)) return *fresh;
    delete fresh;
    return *record;
}

ReferenceRecord& Referable::recordForOwner() const {
    try {
        return referenceRecord();
    } catch (const std::bad_alloc&) {
        if (ReferenceRecord* const others = myRecord.load(std::memory_order_acquire)) return *others;
        if (myHeapFlag) delete this;
        throw;
    }
}

int Referable::strongCount() const noexcept {
    const ReferenceRecord* const record = myRecord.load(std::memory_order_acquire);
    return record ? record->strong.load(std::memory_order_acquire) : 0;
}

void* Referable::operator new(std::size_t size) {
    void* const memory = ::operator new(size);
    try {
        addPending(memory, size);
    } catch (...) {
        ::operator delete(memory);
        throw;
    }
    return memory;
}

void* Referable::operator new(std::size_t size, std::align_val_t alignment) {
    void* const memory = ::operator new(size, alignment);
    try {
        addPending(memory, size);
    } catch (...) {
        ::operator delete(memory, alignment);
        throw;
    }
    return memory;
}

void Referable::operator delete(void* memory) noexcept {
    takePending(memory); // a constructor that threw before its root was made
    ::operator delete(memory);
}

void Referable::operator delete(void* memory, std::align_val_t alignment) noexcept {
    takePending(memory);
    ::operator delete(memory, alignment);
}

void SpeakPtr::DestructionAssertion(const Referable* object, int owners) {
    std::fprintf(stderr, "SpeakPtr: object %p destroyed while %d owning handles refer to it\n",
                 static_cast<const void*>(object), owners);
}
void SpeakPtr::DestructionCancelled(const Referable* object) {
    std::fprintf(stderr, "SpeakPtr: last owner of object %p left, but it was not made with new: kept\n",
                 static_cast<const void*>(object));
}
void SpeakPtr::WarningUnctionChange(const Referable* object, int owners) {
    std::fprintf(stderr, "SpeakPtr: %d owners appeared during the last rites of object %p\n", owners,
                 static_cast<const void*>(object));
}
void SpeakPtr::SelfConstruction(const void* handle) {
    std::fprintf(stderr, "SpeakPtr: handle %p constructed from itself\n", handle);
}
void SpeakPtr::DynPtrInfoRS(const void* record, std::uint32_t serial) {
    std::fprintf(stderr, "SpeakPtr: handle number %u with record %p\n", static_cast<unsigned>(serial), record);
}
void SpeakPtr::DynPtrNoRefererRS(const void* handle) {
    std::fprintf(stderr, "SpeakPtr: handle %p has no record\n", handle);
}
void SpeakPtr::DynPtrInvalidRefererRS(const void* record) {
    std::fprintf(stderr, "SpeakPtr: record %p does not point at an object\n", record);
}

} // namespace Hestra
