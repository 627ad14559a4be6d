#include <baseop/DataRange.hpp>
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/ValueBricks.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/MemArray.hpp>
#include <model/vantle/TypedArray.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

namespace {

template<class T>
struct MinMax {
    T min;
    T max;

    /// The step that defines the result. Not std::min: of equal values the later one stays, and NaN replaces.
    void fold(T x) noexcept {
        min = (min < x) ? min : x;
        max = (max > x) ? max : x;
    }
};

template<class T>
struct Piece {
    const T* begin = nullptr;
    std::size_t size = 0;

    /// The last zero, whichever its sign. There is one.
    [[nodiscard]] T lastZero() const noexcept {
        std::size_t i = size;
        while (begin[--i] != T{}) {
        }
        return begin[i];
    }
};

/// Folds contiguous elements in order: the same result as `fold` on one after the other, from vector lanes.
///
/// Lanes find the extremes of a piece without NaN exactly, up to the sign of zero. The fold keeps the last of equal
/// values, so a zero's sign is looked up in the last piece that an extreme came from. And it forgets everything when it
/// meets a NaN, so a piece with NaN counts from its last one on.
template<class T>
void foldContiguous(MinMax<T>& result, const T* elements, std::size_t count) noexcept {
    for (; count && reinterpret_cast<std::uintptr_t>(elements) % 64; ++elements, --count) // loads within cache lines
        result.fold(*elements);
    // Integers leave nothing to look up again.
    const std::size_t pieceSize = std::is_floating_point_v<T> ? detail::ExtremesPieceBytes / sizeof(T) : count;
    [[maybe_unused]] Piece<T> minimumCameFrom, maximumCameFrom;
    for (std::size_t begin = 0; begin < count; begin += pieceSize) {
        Piece<T> piece{elements + begin, std::min(pieceSize, count - begin)};
        detail::Extremes<T, 1> found = detail::findExtremes<T, 1>(piece.begin, piece.size);
        if constexpr (std::is_floating_point_v<T>)
            if (found.hasNaN) {
                std::size_t last = piece.size - 1;
                while (piece.begin[last] == piece.begin[last]) --last;
                result.min = result.max = piece.begin[last];
                piece = {piece.begin + last + 1, piece.size - last - 1};
                if (piece.size == 0) continue;
                found = detail::findExtremes<T, 1>(piece.begin, piece.size);
            }
        if (!(result.min < found.min[0])) {
            result.min = found.min[0];
            minimumCameFrom = piece;
        }
        if (!(result.max > found.max[0])) {
            result.max = found.max[0];
            maximumCameFrom = piece;
        }
    }
    if constexpr (std::is_floating_point_v<T>) {
        if (result.min == T{} && minimumCameFrom.size) result.min = minimumCameFrom.lastZero();
        if (result.max == T{} && maximumCameFrom.size) result.max = maximumCameFrom.lastZero();
    }
}

/// One block's part of the result. On a cache line of its own: neighbours are written by other threads.
template<class T>
struct alignas(64) Slot {
    MinMax<T> partial;
};

template<class T>
MinMax<T> rangeOf(const Iterator<T>& elements) {
    const index_t count = elements.size();
    const T first = elements[0];
    // As many blocks as a team has threads, also where it is not worth one: with NaN the result depends on them.
    const std::size_t blocks = detail::teamSize();
    std::vector<Slot<T>> slots(blocks);

    const auto foldBlocks = [&](std::size_t from, std::size_t to) {
        for (index_t block = from; block < to; ++block) {
            const index_t each = (count - 1) / blocks, more = (count - 1) % blocks;
            const index_t begin = 1 + block * each + std::min(block, more);
            const index_t end = begin + each + (block < more ? 1 : 0);

            MinMax<T> partial{first, first};
            if (elements.contiguous())
                foldContiguous(partial, elements.first() + begin, static_cast<std::size_t>(end - begin));
            else
                for (index_t i = begin; i < end; ++i) partial.fold(elements[i]);
            slots[block].partial = partial;
        }
    };
    detail::inParallel(blocks, 1, static_cast<std::size_t>(count) * sizeof(T), foldBlocks);

    MinMax<T> result{first, first};
    for (const Slot<T>& slot : slots) {
        if (!(slot.partial.min >= result.min)) result.min = slot.partial.min;
        if (slot.partial.max > result.max) result.max = slot.partial.max;
    }
    return result;
}

/// The same as the range of the bricks of a block, which are kept for others. Not of other arrays, nor where the order
/// of the elements counts: with NaN, and for the sign of a zero.
template<class T>
std::optional<MinMax<T>> rangeOfBricks(CreativeArrayBase& creator, const MemBase& data) {
    const auto* const block = dynamic_cast<const MemArray<3, T>*>(&data);
    const auto bricks = block ? detail::ValueBricks<T>::make(creator, *block) : nullptr;
    if (!bricks || bricks->hasNaN()) return {};
    const MinMax<T> found{*std::min_element(bricks->least().begin(), bricks->least().end()),
                          *std::max_element(bricks->greatest().begin(), bricks->greatest().end())};
    if (bricks->hasNegativeZero() && (found.min == T{} || found.max == T{})) return {};
    return found;
}

} // namespace

template<class T>
DataRange<T>::DataRange() : DataRange(detail::Beyond<T>, detail::Below<T>) {}
template<class T>
DataRange<T>::DataRange(T min, T max) : myMin(min), myMax(max) {}
template<class T>
DataRange<T>::~DataRange() = default;

template<class T>
WeakPtr<DataRange<T>> DataRange<T>::compute(CreativeArrayBase& creator, bool requestInBackground, bool doNotCreate) {
    const Hestra::Profiler scope("baseop/DataRange", __LINE__, "DataRange::compute(creator)", __PRETTY_FUNCTION__);
    const auto suits = [](const StrongPtr<VantleTypeBase>& type) { return type && type->isType(typeid(T)); };
    // A creator that announces nothing is asked for its data: there is no other way to know them.
    if (creator.elementType() && !suits(creator.getVantleType())) return {};

    const bool isOnlyAsked = requestInBackground || doNotCreate;
    const StrongPtr<MemBase> data = isOnlyAsked ? creator.cachedData() : creator.getData();
    if (!data && requestInBackground && !doNotCreate) {
        StrongPtr<MemBase> later;
        creator.request(later);
    }
    const auto* const array = dynamic_cast<const TypedArray<T>*>(data.rawptr());
    if (!array || !suits(array->getVantleType()) || array->getIterator().empty()) return {};

    const std::optional<MinMax<T>> known = rangeOfBricks<T>(creator, *data);
    const MinMax<T> found = known ? *known : rangeOf<T>(array->getIterator());
    const StrongPtr<DataRange> range(new DataRange(found.min, found.max));
    creator.addInterface(range);
    range->raiseAge(creator.age());
    creator.setAttribute("Range", StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<T>{found.min, found.max}));
    return range;
}

template<class T>
WeakPtr<DataRange<T>> DataRange<T>::get(const CreativeArrayBase& creator) {
    const StrongPtr<DataRange> range = creator.findInterface<DataRange>();
    if (!range || !Hestra::Freshness::isFresh(range->age(), creator.age())) return {};
    return range;
}

template<class T>
WeakPtr<DataRange<T>> DataRange<T>::retrieve(CreativeArrayBase& creator, bool requestInBackground, bool doNotCreate) {
    if (WeakPtr<DataRange> known = get(creator)) return known;
    return compute(creator, requestInBackground, doNotCreate);
}

template<class T>
void DataRange<T>::expandRange(const StrongPtr<DataRangeBase>& other) noexcept {
    const auto* const same = dynamic_cast<const DataRange*>(other.rawptr());
    if (!same) return;
    if (!(same->myMin >= myMin)) myMin = same->myMin;
    if (same->myMax > myMax) myMax = same->myMax;
    raiseAge(same->age());
}

template<class T>
double DataRange<T>::getMinf() const {
    return static_cast<double>(myMin);
}
template<class T>
double DataRange<T>::getMaxf() const {
    return static_cast<double>(myMax);
}
template<class T>
std::pair<double, double> DataRange<T>::getFloatDataRange() const {
    return {getMinf(), getMaxf()};
}

template class DataRange<double>;
template class DataRange<float>;
template class DataRange<unsigned char>;
template class DataRange<unsigned short>;
template class DataRange<short>;

} // namespace Vantle
