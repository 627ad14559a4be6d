#include <baseop/ExpandBBox.hpp>
#include <baseop/ValidData.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <bit>
#include <limits>
#include <mutex>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

using Numbers = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;

/// Least and greatest of `C` components. NaN changes nothing.
template<class T, int C>
struct Extremes {
    static constexpr T greatest =
        std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity() : std::numeric_limits<T>::max();
    static constexpr T smallest =
        std::numeric_limits<T>::has_infinity ? -std::numeric_limits<T>::infinity() : std::numeric_limits<T>::lowest();
    T low[C], high[C]; // the wrong way round where there is no number

    Extremes() noexcept {
        std::fill_n(low, C, greatest);
        std::fill_n(high, C, smallest);
    }
    void add(const T* components) noexcept {
        for (int c = 0; c < C; ++c) {
            low[c] = components[c] < low[c] ? components[c] : low[c];
            high[c] = components[c] > high[c] ? components[c] : high[c];
        }
    }
    /// Numbers that follow each other, in lanes that do not wait for each other.
    void addAll(const T* numbers, index_t count) noexcept requires(C == 1) {
        constexpr index_t lanes = 8;
        Extremes<T, lanes> each;
        index_t n = 0;
        for (; n + lanes <= count; n += lanes) each.add(numbers + n);
        for (std::size_t l = 0; l < lanes; ++l) {
            low[0] = std::min(low[0], each.low[l]);
            high[0] = std::max(high[0], each.high[l]);
        }
        for (; n < count; ++n) add(numbers + n);
    }
    void add(const Extremes& other) noexcept {
        for (int c = 0; c < C; ++c) {
            low[c] = std::min(low[c], other.low[c]);
            high[c] = std::max(high[c], other.high[c]);
        }
    }
};

/// Calls `f(first, count)` for runs of set bits.
template<class F>
void forRuns(std::uint64_t bits, const F& f) {
    for (int at = 0; bits != 0;) {
        const int skip = std::countr_zero(bits);
        bits >>= skip;
        const int run = std::countr_one(bits);
        f(static_cast<index_t>(at + skip), static_cast<index_t>(run));
        at += skip + run;
        bits = run < 64 ? bits >> run : 0;
    }
}

/// Folds the rows (j, k) of a block by `fold(extremes, j, k)`, on as many cores as that is worth.
template<class Result, class F>
Result foldRows(const MultiIndex<3>& size, std::size_t bytesEach, const F& fold) {
    Result result;
    std::mutex mutex;
    const auto rows = static_cast<std::size_t>(size[1] * size[2]);
    detail::inParallel(rows, std::max<std::size_t>(1, 8192 / static_cast<std::size_t>(size[0] + 1)),
                       rows * static_cast<std::size_t>(size[0]) * bytesEach, [&](std::size_t begin, std::size_t end) {
                           Result part;
                           for (index_t r = begin; r < end; ++r) fold(part, r % size[1], r / size[1]);
                           const std::lock_guard lock(mutex);
                           result.add(part);
                       });
    return result;
}

template<class T>
Extremes<T, 1> rangeOf(const MultiArrayBase<3, T>& values, const BlockMask* mask) {
    const MultiIndex<3>& size = values.Size();
    const index_t step = values.stride();
    return foldRows<Extremes<T, 1>>(size, sizeof(T), [&](Extremes<T, 1>& range, index_t j, index_t k) {
        const T* const row = values.storage() + (j + size[1] * k) * size[0] * step;
        const auto add = [&](index_t first, index_t count) {
            if (step == 1) return range.addAll(row + first, count);
            for (index_t i = first; i < first + count; ++i) range.add(row + i * step);
        };
        if (!mask) return add(0, size[0]);
        for (index_t word = 0; 64 * word < size[0]; ++word)
            forRuns(mask->around(j, k, word).vertices,
                    [&](index_t first, index_t count) { add(64 * word + first, count); });
    });
}

using Corners = Extremes<double, 3>;

/// Of points in memory.
Corners cornersOf(const detail::CurvilinearCoordinates& points, const BlockMask& mask) {
    return foldRows<Corners>(points.Size(), sizeof(PhysicalSpace::point), [&](Corners& box, index_t j, index_t k) {
        for (index_t word = 0; 64 * word < points.Size()[0]; ++word)
            for (std::uint64_t bits = mask.around(j, k, word).vertices; bits != 0; bits &= bits - 1)
                box.add(points(64 * word + static_cast<index_t>(std::countr_zero(bits)), j, k).data());
    });
}

/// Of a direct product: of the first and the last index on each axis that is valid.
template<class Product>
requires requires(const Product& product) { product.axis(0); }
Corners cornersOf(const Product& product, const BlockMask& mask) {
    const MultiIndex<3>& size = product.Size();
    MultiIndex<3> first = size, last;
    for (index_t k = 0; k < size[2]; ++k)
        for (index_t j = 0; j < size[1]; ++j)
            for (index_t word = 0; 64 * word < size[0]; ++word) {
                const std::uint64_t bits = mask.around(j, k, word).vertices;
                if (bits == 0) continue;
                const MultiIndex<3> low(64 * word + static_cast<index_t>(std::countr_zero(bits)), j, k);
                const MultiIndex<3> high(64 * word + 63 - static_cast<index_t>(std::countl_zero(bits)), j, k);
                for (int d = 0; d < 3; ++d) {
                    first[d] = std::min(first[d], low[d]);
                    last[d] = std::max(last[d], high[d]);
                }
            }
    Corners corners;
    corners.add(product[first].data());
    corners.add(product[last].data());
    return corners;
}

/// The fields of the vertices, and what is valid of them.
struct Vertices {
    explicit Vertices(const StrongPtr<Representation>& representation) : fields(representation) {
        if (!fields) return;
        masks = Blanking(*fields);
        positions = fields->Positions();
        if (positions) masks.check(*positions);
    }

    StrongPtr<Representation> fields;
    StrongPtr<Field> positions;
    Blanking masks;
};

StrongPtr<Orvix::BoundingBox> validBox(const Vertices& vertices) {
    if (!vertices.positions) return nullptr;
    StrongPtr<Orvix::BoundingBox> box;
    const auto widen = [&](const PhysicalSpace::point& low, const PhysicalSpace::point& high) {
        if (!box) box = Hestra::makeRef<Orvix::BoundingBox>();
        box->embrace(low);
        box->embrace(high);
    };
    vertices.positions->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            const detail::FragmentCoordinates coordinates(vertices.masks.concerns(id) ? creator : nullptr);
            const auto size = coordinates.data ? coordinates.data->getDynamicSize().as<3>() : std::nullopt;
            const StrongPtr<const BlockMask> mask = size ? vertices.masks.of(id, *size) : nullptr;
            if (!mask) {
                const auto whole = getFragmentBBox(id, creator, *vertices.positions);
                if (whole && !whole->isEmpty()) widen(whole->minCoord(), whole->maxCoord());
                return true;
            }
            if (mask->isNothingValid()) return true;
            const Corners corners = std::visit(
                [&](const auto& found) {
                    if constexpr (requires { cornersOf(*found, *mask); })
                        return cornersOf(*found, *mask);
                    else
                        return Corners();
                },
                coordinates.kind);
            PhysicalSpace::point low, high;
            for (int d = 0; d < 3; ++d) {
                low[d] = corners.low[d];
                high[d] = corners.high[d];
                if (!(low[d] <= high[d])) return true;
            }
            widen(low, high);
            return true;
        },
        false);
    return box;
}

} // namespace

std::optional<std::pair<double, double>> ComputeValidRange(const Grid& grid, const std::string& fieldName,
                                                           const Hestra::WeakPtr<FragmentSelector>& selected,
                                                           const std::string& chart) {
    const Hestra::Profiler scope("baseop/ValidData", __LINE__, "ComputeValidRange(grid, field)", __PRETTY_FUNCTION__);
    const Vertices vertices(grid.getCartesianRepresentation(chart));
    const StrongPtr<Field> field = vertices.fields ? vertices.fields->findField(fieldName) : nullptr;
    if (!field) return std::nullopt;
    const StrongPtr<FragmentSelector> selector = selected.lock();
    std::optional<std::pair<double, double>> range;
    const auto widen = [&](const auto& extremes) {
        if (!(extremes.low[0] <= extremes.high[0])) return;
        const auto low = static_cast<double>(extremes.low[0]), high = static_cast<double>(extremes.high[0]);
        range = range ? std::pair(std::min(range->first, low), std::max(range->second, high)) : std::pair(low, high);
    };
    field->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            if (selector && !selector->isSelected(id)) return true;
            const StrongPtr<MemBase> data = creator->getData();
            const bool isBlock = withMemArray<3>(Numbers(), data, [&](const auto& values) {
                widen(rangeOf(values, vertices.masks.of(id, values.Size()).rawptr()));
            });
            if (!isBlock && !vertices.masks.concerns(id))
                (void)withTypedArray(Numbers(), data, [&]<class T>(const TypedArray<T>& values) {
                    const Iterator<T>& all = values.getIterator();
                    widen(rangeOf(MultiArrayBase<3, T>(all.first(), {all.size(), 1, 1}, all.stride), nullptr));
                });
            return true;
        },
        false);
    return range;
}

StrongPtr<Orvix::BoundingBox> getValidBoundingBox(const Grid& grid, const StrongPtr<Chart>& chart) {
    const StrongPtr<Skeleton> vertices = grid.findVertices();
    return vertices && chart ? validBox(Vertices(vertices->findRepresentation(*chart))) : nullptr;
}

StrongPtr<Orvix::BoundingBox> getValidBoundingBox(const Grid& grid) {
    return validBox(Vertices(grid.getCartesianRepresentation()));
}

} // namespace Vantle
