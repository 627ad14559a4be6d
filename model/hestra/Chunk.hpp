#pragma once
/// Typed memory blocks: storage of arrays and values of attributes.

#include <model/hestra/Reference.hpp>

#include <cstddef>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

namespace Hestra {

/// Untyped base of a block of elements.
///
/// Concurrency  elements are read by any number of threads, and changed (in number, or in place) by one thread while
///              nobody reads; different elements may be written by several threads. Accounting is atomic.
class VANTLE_MODEL_API ChunkBase : public ReferenceBase<ChunkBase> {
public:
    /// Bytes of all chunks that are accounted for; see `settle`.
    static std::atomic<long long> TotalMemsize;

    ChunkBase() = default;
    ChunkBase(const ChunkBase& other) : ReferenceBase<ChunkBase>(other) {}
    ChunkBase& operator=(const ChunkBase&) { return *this; }
    ~ChunkBase() override;

    /// Number of elements.
    [[nodiscard]] virtual std::size_t elements() const = 0;
    /// Bytes of one element.
    [[nodiscard]] virtual std::size_t value_type_size() const = 0;
    [[nodiscard]] virtual const std::type_info& element_type() const = 0;
    [[nodiscard]] std::size_t memsize() const { return elements() * value_type_size(); }

    /// Brings this chunk's share of `TotalMemsize` up to its present size. Happens when the chunk is resized
    /// through `resize`, when an array takes it, and when it dies; growing `base_vector()` directly is
    /// accounted for at the next of these.
    void settle() const;

private:
    mutable std::atomic<long long> myShare{0};
};

/// Advises the system that a large block of fresh memory is best backed by huge pages. No effect on contents.
VANTLE_MODEL_API void adviseLargeArray(void* begin, std::size_t bytes) noexcept;

/// For several threads that fill a large block of fresh memory from its beginning: called after memory from `begin` to
/// `end` was taken, at times lets the system provide some that comes soon, up to `blockEnd`. One thread does that while
/// the others fill; providing memory takes about as long as filling it. No effect on contents.
VANTLE_MODEL_API void populateLargeArrayAhead(const void* begin, const void* end, const void* blockEnd) noexcept;

/// Reserves room for `count` elements and, if that is much, advises huge pages before the memory is touched.
template<class T>
void reserveLargeArray(std::vector<T>& storage, std::size_t count) {
    if (count <= storage.capacity()) return;
    storage.reserve(count);
    adviseLargeArray(storage.data(), storage.capacity() * sizeof(T));
}

/// A chunk of elements of type `T`, read and written through its vector.
template<class T>
class VANTLE_MODEL_API TypedChunkBase : public ChunkBase {
public:
    using value_type = T;

    [[nodiscard]] std::size_t elements() const override { return base_vector().size(); }
    [[nodiscard]] std::size_t value_type_size() const override { return sizeof(T); }
    [[nodiscard]] const std::type_info& element_type() const override { return typeid(T); }
    [[nodiscard]] virtual std::vector<T>& base_vector() = 0;
    [[nodiscard]] virtual const std::vector<T>& base_vector() const = 0;

    /// Changes the number of elements; new ones are value-initialised.
    void resize(std::size_t count) {
        reserveLargeArray(base_vector(), count);
        base_vector().resize(count);
        settle();
    }
};

/// A chunk that holds its elements in a vector.
template<class T>
class VANTLE_MODEL_API TypedChunk : public TypedChunkBase<T> {
public:
    TypedChunk() = default;
    explicit TypedChunk(std::size_t count) { this->resize(count); }
    explicit TypedChunk(std::vector<T> elements) : myElements(std::move(elements)) { this->settle(); }

    [[nodiscard]] std::vector<T>& base_vector() override { return myElements; }
    [[nodiscard]] const std::vector<T>& base_vector() const override { return myElements; }

private:
    std::vector<T> myElements;
};

/// A chunk made from a list of values or a count; the form in which attributes are written.
template<class T>
class VANTLE_MODEL_API Chunk : public TypedChunk<T> {
public:
    Chunk() = default;
    explicit Chunk(std::size_t count) : TypedChunk<T>(count) {}
    Chunk(std::initializer_list<T> values) : TypedChunk<T>(std::vector<T>(values)) {}
};

/// Named chunks carried by a creator. Setting one replaces an earlier one of that name and ages nothing.
///
/// Concurrency  guarded by a mutex: reading and setting at once. Copies of the carrying object carry none.
class VANTLE_MODEL_API Attributes {
public:
    Attributes() = default;
    Attributes(const Attributes&) noexcept {}
    Attributes& operator=(const Attributes&) noexcept { return *this; }

    /// The chunk of this name, or null.
    [[nodiscard]] StrongPtr<ChunkBase> getAttribute(std::string_view name) const;
    /// The chunk of this name if its elements are of type `T`, or null.
    template<class T>
    [[nodiscard]] StrongPtr<TypedChunkBase<T>> getTypedAttribute(std::string_view name) const {
        return dynamicCast<TypedChunkBase<T>>(getAttribute(name));
    }
    /// Sets or replaces; a null chunk removes.
    void setAttribute(std::string_view name, const StrongPtr<ChunkBase>& chunk);
    [[nodiscard]] std::vector<std::string> attributeNames() const;

private:
    mutable std::mutex myMutex;
    std::map<std::string, StrongPtr<ChunkBase>, std::less<>> myChunks;
};

} // namespace Hestra
