#pragma once
/// Arrays that are made while they are filled.

#include <model/hestra/Chunk.hpp>
#include <model/hestra/Diagnostics.hpp>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>

namespace Vantle::detail {

/// The elements of a new array, which are made (zero) piece by piece shortly before they are filled.
///
/// Making all of them first would send the array through memory twice. Elements never move. Works best when those with
/// small numbers are asked for first, and always gives the same array.
/// Concurrency  `upTo` by any number of threads, which then write to different elements.
template<class T>
class GrowingArray {
public:
    using Chunk = Hestra::TypedChunk<T>;

    /// Throws `Hestra::MemoryException` when there is no room.
    explicit GrowingArray(std::size_t count) : myChunk(Hestra::makeRef<Chunk>()), myCount(count) {
        std::vector<T>& elements = myChunk->base_vector();
        if (count > elements.max_size()) throw Hestra::MemoryException(std::numeric_limits<std::size_t>::max());
        try {
            Hestra::reserveLargeArray(elements, count);
        } catch (const std::bad_alloc&) {
            throw Hestra::MemoryException(count * sizeof(T));
        }
        myElements = elements.data();
    }

    /// The first element, of which at least `end` are there now. Some more are made if that are few.
    T* upTo(std::size_t end) {
        if (myMade.load(std::memory_order_acquire) < end) {
            const std::lock_guard lock(myMutex);
            const std::size_t made = myMade.load(std::memory_order_relaxed);
            if (made < end) {
                end = std::max(end, std::min(made + FewestBytes / sizeof(T), myCount));
                myChunk->base_vector().resize(end);
                myMade.store(end, std::memory_order_release);
                Hestra::populateLargeArrayAhead(myElements + made, myElements + end, myElements + myCount);
            }
        }
        return myElements;
    }

    /// The chunk, with all of its elements.
    [[nodiscard]] const Hestra::Ref<Chunk>& complete() {
        upTo(myCount);
        return myChunk;
    }

private:
    static constexpr std::size_t FewestBytes = std::size_t{1} << 14;

    Hestra::Ref<Chunk> myChunk;
    std::size_t myCount;
    T* myElements;
    std::atomic<std::size_t> myMade{0};
    std::mutex myMutex;
};

} // namespace Vantle::detail
