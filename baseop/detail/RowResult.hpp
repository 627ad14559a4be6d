#pragma once
/// New arrays that are filled row by row, on all cores, at the speed of memory.

#include <baseop/detail/ParallelLoop.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <mutex>
#include <vector>

namespace Vantle::detail {

/// A new array that `fillRows(target, begin, end)` fills: rows along axis 0, numbered axis 1 first, from `begin` to
/// `end`, where `target` is the address of the whole array's first element.
///
/// Making all elements before filling them would send the result through memory twice. So each thread makes the next
/// rows, as many as stay in a core's own cache, and fills them while others make and fill theirs.
/// Failure  `Hestra::MemoryException` or `std::length_error` when it is too large.
/// @param bytes  what the work is worth, see `teamFor`.
template<class Result, class FillRows>
[[nodiscard]] Hestra::Ref<ReferencingMemArray<3, Result>> makeByRows(const MultiIndex<3>& size, std::size_t bytes,
                                                                     const FillRows& fillRows) {
    constexpr index_t PieceBytes = index_t{128} << 10;
    const Hestra::Ref<Hestra::TypedChunk<Result>> chunk = Hestra::makeRef<Hestra::TypedChunk<Result>>();
    std::vector<Result>& result = chunk->base_vector();
    const index_t nodes = size.product();
    if (nodes > result.max_size()) throw std::length_error("too many elements");
    if (nodes > 0) {
        Hestra::reserveLargeArray(result, static_cast<std::size_t>(nodes)); // there is room: nothing moves
        Result* const target = result.data();
        std::mutex making;
        const auto fill = [&](std::size_t begin, std::size_t end) {
            {
                const std::lock_guard lock(making);
                result.resize(std::max(result.size(), end * static_cast<std::size_t>(size[0])));
            }
            Hestra::populateLargeArrayAhead(target + begin * size[0], target + end * size[0], target + nodes);
            fillRows(target, index_t{begin}, index_t{end});
        };
        const index_t piece = std::max<index_t>(1, PieceBytes / (size[0] * sizeof(Result)));
        inParallel(static_cast<std::size_t>(size[1] * size[2]), static_cast<std::size_t>(piece), bytes, fill);
    }
    return MemArray<3, Result>::makeMemArray(chunk, size);
}

} // namespace Vantle::detail
