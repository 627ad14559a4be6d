#include <baseop/NumberRange.hpp>
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/ParallelLoop.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

using Numbers = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;
using FloatPoint = Orvix::Coordinates<Orvix::Cartesian3D, float>::point;

/// Numbers that `findExtremes` knows.
template<class T>
constexpr bool isSearched = std::is_floating_point_v<T> || (std::is_integral_v<T> && sizeof(T) <= 2);

/// Whether `a` comes before `b` in the order of numbers, in which -0 comes before +0.
template<class T>
bool isLess(T a, T b) noexcept {
    if constexpr (std::is_floating_point_v<T>)
        if (a == b) return std::signbit(a) && !std::signbit(b);
    return a < b;
}

/// Least and greatest of `C` interleaved components, each.
template<class T, int C>
struct Fold {
    T least[C]{}, greatest[C]{};
    bool hasNumbers[C]{};
    bool hasNaN = false;

    void add(T number, int c) noexcept {
        if (number != number) {
            hasNaN = true;
            return;
        }
        if (!hasNumbers[c] || isLess(number, least[c])) least[c] = number;
        if (!hasNumbers[c] || isLess(greatest[c], number)) greatest[c] = number;
        hasNumbers[c] = true;
    }
    /// Elements whose components follow each other, at a distance of `step` components.
    void addAll(const T* first, index_t elements, index_t step) noexcept {
        for (index_t n = 0; n < elements; ++n)
            for (int c = 0; c < C; ++c) add(first[n * step + static_cast<index_t>(c)], c);
    }
    void addRun(const T* first, index_t elements, index_t step) noexcept {
        if constexpr (isSearched<T>)
            if (step == C) {
                constexpr index_t Piece = detail::ExtremesPieceBytes / (C * sizeof(T));
                for (index_t n = 0; n < elements; n += Piece) addPiece(first + n * C, std::min(Piece, elements - n));
                return;
            }
        addAll(first, elements, step);
    }
    void add(const Fold& other) noexcept {
        hasNaN = hasNaN || other.hasNaN;
        for (int c = 0; c < C; ++c)
            if (other.hasNumbers[c]) {
                add(other.least[c], c);
                add(other.greatest[c], c);
            }
    }

private:
    void addPiece(const T* first, index_t elements) noexcept {
        const auto found = detail::findExtremes<T, C>(first, static_cast<std::size_t>(elements) * C);
        bool isDecided = !found.hasNaN; // of zeros any may have been found
        for (int c = 0; c < C; ++c) isDecided = isDecided && found.min[c] != T{} && found.max[c] != T{};
        if (!isDecided) return addAll(first, elements, C);
        for (int c = 0; c < C; ++c) {
            add(found.min[c], c);
            add(found.max[c], c);
        }
    }
};

/// Folds `count` elements, or rows of them, by `fold(result, begin, end)`, on as many cores as that is worth.
template<class Result, class F>
Result foldPieces(index_t count, std::size_t bytesEach, const F& fold) {
    Result result;
    std::mutex mutex;
    detail::inParallel(static_cast<std::size_t>(count), std::max<std::size_t>(1, (std::size_t{1} << 18) / bytesEach),
                       static_cast<std::size_t>(count) * bytesEach, [&](std::size_t begin, std::size_t end) {
                           Result part;
                           fold(part, index_t{begin}, index_t{end});
                           const std::lock_guard lock(mutex);
                           result.add(part);
                       });
    return result;
}

/// Calls `f(first, count)` for runs of valid vertices of row (j, k).
template<class F>
void forValid(const BlockMask& mask, index_t j, index_t k, const F& f) {
    for (index_t word = 0; 64 * word < mask.Size()[0]; ++word)
        for (std::uint64_t bits = mask.around(j, k, word).vertices; bits != 0;) {
            const int skip = std::countr_zero(bits), run = std::countr_one(bits >> skip);
            f(64 * word + static_cast<index_t>(skip), static_cast<index_t>(run));
            bits = skip + run < 64 ? bits >> (skip + run) << (skip + run) : 0;
        }
}

void checkExtents(const DynamicSize& size, const BlockMask* mask) {
    if (mask && size.as<3>() != mask->Size())
        throw std::invalid_argument("the mask is of extents " + to_string(mask->Size()) + ", the block " +
                                    to_string(size));
}

/// Of elements in memory, of which each has `C` components.
template<int C, class Component>
Fold<Component, C> foldElements(const Component* first, index_t count, index_t step, const BlockMask* mask) {
    using Found = Fold<Component, C>;
    if (!mask)
        return foldPieces<Found>(count, C * sizeof(Component), [&](Found& found, index_t begin, index_t end) {
            found.addRun(first + begin * step, end - begin, step);
        });
    const MultiIndex<3>& size = mask->Size();
    return foldPieces<Found>(size[1] * size[2], static_cast<std::size_t>(size[0]) * C * sizeof(Component),
                             [&](Found& found, index_t begin, index_t end) {
                                 for (index_t r = begin; r < end; ++r)
                                     forValid(*mask, r % size[1], r / size[1], [&](index_t i, index_t run) {
                                         found.addRun(first + (r * size[0] + i) * step, run, step);
                                     });
                             });
}

template<class T>
using ComponentOf = typename ElementTraits<T>::component_type;

template<class T>
auto foldArray(const TypedArray<T>& array, const BlockMask* mask) {
    constexpr int C = ElementTraits<T>::components;
    const Iterator<T>& elements = array.getIterator();
    static_assert(sizeof(T) == C * sizeof(ComponentOf<T>));
    return foldElements<C>(reinterpret_cast<const ComponentOf<T>*>(elements.first()), elements.size(),
                           C * elements.stride, mask);
}

/// Of a direct product: of its axes, or of its valid vertices.
template<class Product>
Fold<double, 3> foldProduct(const Product& product, const BlockMask* mask) {
    const MultiIndex<3>& size = product.Size();
    if (product.nElements() == 0) return {};
    if (!mask) {
        Fold<double, 3> found;
        for (int d = 0; d < 3; ++d)
            for (index_t i = 0; i < size[d]; ++i) found.add(product.axis(d)[i], d);
        return found;
    }
    return foldPieces<Fold<double, 3>>(size[1] * size[2], 16 * static_cast<std::size_t>(size[0] + 1),
                                       [&](Fold<double, 3>& found, index_t begin, index_t end) {
                                           for (index_t r = begin; r < end; ++r)
                                               forValid(*mask, r % size[1], r / size[1], [&](index_t i, index_t run) {
                                                   for (const index_t at : {i, i + run - 1}) // axes are monotonous
                                                       for (int d = 0; d < 3; ++d)
                                                           found.add(product(at, r % size[1], r / size[1])[d], d);
                                               });
                                       });
}

} // namespace

BlockNumbers ComputeNumberRange(const StrongPtr<MemBase>& block, const BlockMask* mask) {
    if (!block) return {};
    checkExtents(block->getDynamicSize(), mask);
    BlockNumbers result;
    const bool isKnown = withTypedArray(Numbers(), block, [&](const auto& array) {
        const auto found = foldArray(array, mask);
        result.hasNaN = found.hasNaN;
        if (found.hasNumbers[0])
            result.range = {static_cast<double>(found.least[0]), static_cast<double>(found.greatest[0])};
    });
    if (!isKnown) throw std::invalid_argument("a range is of plain numbers");
    return result;
}

std::optional<BlockBox> ComputeNumberBox(const StrongPtr<MemBase>& positions, const BlockMask* mask) {
    if (!positions) return std::nullopt;
    checkExtents(positions->getDynamicSize(), mask);
    std::optional<BlockBox> box;
    const auto take = [&](const auto& found) {
        if (!found.hasNumbers[0] || !found.hasNumbers[1] || !found.hasNumbers[2]) return;
        box.emplace().hasNaN = found.hasNaN;
        for (int d = 0; d < 3; ++d) {
            box->least[d] = static_cast<double>(found.least[d]);
            box->greatest[d] = static_cast<double>(found.greatest[d]);
        }
    };
    if (withTypedArray(TypeList<PhysicalSpace::point, FloatPoint>(), positions,
                       [&](const auto& points) { take(foldArray(points, mask)); }))
        return box;
    if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(positions.rawptr()))
        take(foldProduct(*uniform, mask));
    else if (const auto* const axes = dynamic_cast<const detail::RectilinearCoordinates*>(positions.rawptr()))
        take(foldProduct(*axes, mask));
    else
        throw std::invalid_argument("a box is of points");
    return box;
}

} // namespace Vantle
