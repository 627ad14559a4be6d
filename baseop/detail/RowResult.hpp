#pragma once
/// New arrays that are filled row by row, on all cores, at the speed of memory.

#include <baseop/detail/ParallelLoop.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <mutex>
#include <vector>

namespace Vantle::detail {

/// How one thread makes the rows of a result: in their places, which it has to clear before, or beside it, and appends
/// them. The latter is faster for rows that cost little and are narrow (gradients by 15 to 20 %), and slower for
/// others.
enum class OneThread { FillsPlaces, Appends };

/// A new array that `fillRows(target, begin, end)` fills: rows along axis 0, numbered axis 1 first, from `begin` to
/// `end`, where `target` is where the first of them goes.
///
/// Making all elements before filling them would send the result through memory twice. So each thread makes the next
/// rows, as many as stay in a core's own cache, and fills them while others make and fill theirs.
/// Failure  `Hestra::MemoryException` or `std::length_error` when it is too large.
/// @param bytes  what the work is worth, see `teamFor`.
template<class Result, OneThread Way = OneThread::FillsPlaces, class FillRows>
[[nodiscard]] Hestra::Ref<ReferencingMemArray<3, Result>> makeByRows(const MultiIndex<3>& size, std::size_t bytes,
                                                                     const FillRows& fillRows) {
    constexpr std::size_t PieceBytes = std::size_t{128} << 10, BesideBytes = std::size_t{8} << 10;
    const Hestra::Ref<Hestra::TypedChunk<Result>> chunk = Hestra::makeRef<Hestra::TypedChunk<Result>>();
    std::vector<Result>& result = chunk->base_vector();
    const index_t nodes = size.product();
    if (nodes > result.max_size()) throw std::length_error("too many elements");
    if (nodes > 0) {
        Hestra::reserveLargeArray(result, static_cast<std::size_t>(nodes)); // there is room: nothing moves
        const auto rows = static_cast<std::size_t>(size[1] * size[2]), row = static_cast<std::size_t>(size[0]);
        const auto rowsOf = [row](std::size_t pieceBytes) {
            return std::max<std::size_t>(1, pieceBytes / (row * sizeof(Result)));
        };
        if (Way == OneThread::Appends && teamFor(bytes) == 1) {
            const std::size_t piece = std::min(rows, rowsOf(BesideBytes));
            std::vector<Result> some(piece * row);
            for (std::size_t begin = 0; begin < rows; begin += piece) {
                const std::size_t end = std::min(rows, begin + piece);
                fillRows(some.data(), index_t{begin}, index_t{end});
                const auto first = some.begin();
                result.insert(result.end(), first, first + static_cast<std::ptrdiff_t>((end - begin) * row));
            }
            return MemArray<3, Result>::makeMemArray(chunk, size);
        }
        Result* const target = result.data();
        std::mutex making;
        const auto fill = [&](std::size_t begin, std::size_t end) {
            {
                const std::lock_guard lock(making);
                result.resize(std::max(result.size(), end * row));
            }
            Hestra::populateLargeArrayAhead(target + begin * row, target + end * row, target + nodes);
            fillRows(target + begin * row, index_t{begin}, index_t{end});
        };
        inParallel(rows, rowsOf(PieceBytes), bytes, fill);
    }
    return MemArray<3, Result>::makeMemArray(chunk, size);
}

} // namespace Vantle::detail
