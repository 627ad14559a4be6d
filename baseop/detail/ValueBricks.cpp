#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/ValueBricks.cpp"
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/ValueBricks.hpp>
#include <model/hestra/Freshness.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <tuple>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Widens least[i] and greatest[i] by value i of each row. What a NaN leaves there, the caller replaces: what is
// returned has bit 0 set where there is one, and bit 1 where there is a -0. The rows after these are asked for.
template<class T>
unsigned widenBy(const ValueRows<T>& values, T* least, T* greatest) noexcept {
    const hn::ScalableTag<T> lanes;
    const std::size_t width = hn::Lanes(lanes);
    unsigned special = 0;
    if (values.count < width) {
        for (std::size_t r = 0; r < values.rows; ++r)
            for (std::size_t i = 0; i < values.count; ++i) {
                const T x = values.first[r * values.step + i];
                least[i] = x < least[i] ? x : least[i];
                greatest[i] = x > greatest[i] ? x : greatest[i];
                if constexpr (std::is_floating_point_v<T>)
                    special |= unsigned{x != x} | unsigned{x == T{} && std::signbit(x)} << 1;
            }
        return special;
    }
    auto isNumber = hn::Eq(hn::Zero(lanes), hn::Zero(lanes)), isPlain = isNumber;
    const std::size_t ahead = values.rows * values.step;
    const auto widen = [&](std::size_t i) HWY_ATTR {
        auto low = hn::LoadU(lanes, least + i), high = hn::LoadU(lanes, greatest + i);
        const T* at = values.first + i;
        for (std::size_t r = 0; r < values.rows; ++r, at += values.step) {
            const auto x = hn::LoadU(lanes, at);
            __builtin_prefetch(at + ahead);
            low = hn::Min(x, low);
            high = hn::Max(x, high);
            if constexpr (std::is_floating_point_v<T>) {
                isNumber = hn::And(isNumber, hn::Eq(x, x));
                const hn::RebindToSigned<decltype(lanes)> bits;
                const auto isNegativeZero = hn::Eq(hn::BitCast(bits, x), hn::BitCast(bits, hn::Set(lanes, T{-0.0})));
                isPlain = hn::AndNot(hn::RebindMask(lanes, isNegativeZero), isPlain);
            }
        }
        hn::StoreU(low, lanes, least + i);
        hn::StoreU(high, lanes, greatest + i);
    };
    std::size_t i = 0;
    for (; i + width <= values.count; i += width) widen(i);
    if (i < values.count) widen(values.count - width); // some a second time
    if constexpr (std::is_floating_point_v<T>)
        special = unsigned{!hn::AllTrue(lanes, isNumber)} | unsigned{!hn::AllTrue(lanes, isPlain)} << 1;
    return special;
}

// The extremes of columns become those of bricks: of 9 columns, of which each brick begins with the last of the one
// before. A column has so many components, each of which goes its own way. Behind the columns there is room for as many
// as lanes and bricks reach beyond them, which count for nothing.
template<class T>
void gatherBricks(std::size_t components, std::size_t count, T* leastOfColumns, T* greatestOfColumns,
                  std::size_t bricks, T* least, T* greatest) noexcept {
    const hn::ScalableTag<T> lanes;
    for (const std::size_t columns : {1U, 2U, 4U})
        for (std::size_t i = 0, step = columns * components; i < count; i += hn::Lanes(lanes)) {
            T *const a = leastOfColumns + i, *const b = greatestOfColumns + i;
            hn::StoreU(hn::Min(hn::LoadU(lanes, a), hn::LoadU(lanes, a + step)), lanes, a);
            hn::StoreU(hn::Max(hn::LoadU(lanes, b), hn::LoadU(lanes, b + step)), lanes, b);
        }
    for (std::size_t b = 0; b < bricks; ++b)
        for (std::size_t c = 0; c < components; ++c) {
            const std::size_t first = 8 * b * components + c, next = first + components;
            *least++ = std::min(leastOfColumns[first], leastOfColumns[next]);
            *greatest++ = std::max(greatestOfColumns[first], greatestOfColumns[next]);
        }
}

auto brickKernels() {
    return std::make_tuple(&widenBy<double>, &widenBy<float>, &widenBy<unsigned char>, &widenBy<short>,
                           &widenBy<unsigned short>, &gatherBricks<double>, &gatherBricks<float>,
                           &gatherBricks<unsigned char>, &gatherBricks<short>, &gatherBricks<unsigned short>);
}

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

using Hestra::StrongPtr;

HWY_EXPORT(brickKernels);

namespace {

/// Beside the creator of a block: its bricks, as long as the cache has them, or that somebody asked for them.
template<class T>
class KeptBricks : public Hestra::Interface<KeptBricks<T>> {
public:
    using age_t = Hestra::Ageable::age_t;
    KeptBricks(const StrongPtr<ValueBricks<T>>& kept, age_t age, age_t ageOfField)
        : bricks(kept), myAge(age), myAgeOfField(ageOfField) {}
    ~KeptBricks() override {
        const StrongPtr<ValueBricks<T>> kept = bricks.lock();
        const StrongPtr<Hestra::Cache> cache = myCache.lock(); // which may be gone when the process ends
        if (kept && cache) cache->release(*kept);
    }

    [[nodiscard]] bool isFresh(age_t age, age_t ageOfField) const noexcept {
        return Hestra::Freshness::isFresh(myAge, age) && Hestra::Freshness::isFresh(myAgeOfField, ageOfField);
    }

    const Hestra::WeakPtr<ValueBricks<T>> bricks;

private:
    const age_t myAge, myAgeOfField;
    const Hestra::WeakPtr<Hestra::Cache> myCache{Hestra::Cache::MemCache()};
};

} // namespace

template<class T>
bool ValueBricks<T>::suit(const MultiArray<3, T>& block) noexcept {
    const MultiIndex<3>& size = block.Size();
    return block.stride() == 1 && size[0] > 1 && size[1] > 1 && size[2] > 1 && size.product() >= FewestVertices;
}

template<class T>
ValueBricks<T>::ValueBricks(const MultiArray<3, T>& block) : myBlock(block.Size()) {
    for (int d = 0; d < 3; ++d) mySize[d] = (myBlock[d] - 1 + Side - 1) / Side;
    myLeast.resize(static_cast<std::size_t>(mySize.product()) * Components);
    myGreatest.resize(myLeast.size());

    using C = Component;
    const std::size_t row = static_cast<std::size_t>(myBlock[0]) * Components;
    const auto bricks = static_cast<std::size_t>(mySize[0]);
    const C* const components = reinterpret_cast<const C*>(block.data());
    static_assert(sizeof(T) == Components * sizeof(C));
    constexpr std::size_t Behind = 2 * Side * Components + 256 / sizeof(C); // of a row
    const std::size_t room = row + Behind;
    const auto kernels = HWY_DYNAMIC_DISPATCH(brickKernels)();
    const auto widen = std::get<unsigned (*)(const ValueRows<C>&, C*, C*) noexcept>(kernels);
    const auto gather = std::get<void (*)(std::size_t, std::size_t, C*, C*, std::size_t, C*, C*) noexcept>(kernels);
    std::mutex mutex;
    const auto findLayers = [&](std::size_t begin, std::size_t end) {
        const std::size_t rows = static_cast<std::size_t>(mySize[1]);
        std::vector<C> least(rows * room, Beyond<C>), greatest(rows * room, Below<C>);
        unsigned special = 0;
        for (index_t layer = begin; layer < end; ++layer) {
            const index_t last = std::min(Side * (layer + 1), myBlock[2] - 1);
            for (index_t k = Side * layer; k <= last; ++k)
                for (index_t brickRow = 0; brickRow < mySize[1]; ++brickRow) {
                    const index_t j = Side * brickRow;
                    const ValueRows<C> values{components + (k * myBlock[1] + j) * row, row,
                                              static_cast<std::size_t>(std::min(Side + 1, myBlock[1] - j)), row};
                    C *const low = least.data() + static_cast<std::size_t>(brickRow) * room,
                             *const high = greatest.data() + static_cast<std::size_t>(brickRow) * room;
                    const unsigned found = widen(values, low, high);
                    special |= found;
                    if constexpr (std::is_floating_point_v<C>)
                        for (std::size_t n = 0; (found & 1) && n < values.rows * row; ++n)
                            if (std::isnan(values.first[n])) low[n % row] = Below<C>, high[n % row] = Beyond<C>;
                }
            for (index_t brickRow = 0; brickRow < mySize[1]; ++brickRow) {
                const auto at = static_cast<std::size_t>((layer * mySize[1] + brickRow) * mySize[0]) * Components;
                const auto first = static_cast<std::size_t>(brickRow) * room;
                gather(Components, row, least.data() + first, greatest.data() + first, bricks, myLeast.data() + at,
                       myGreatest.data() + at);
            }
            std::fill(least.begin(), least.end(), Beyond<C>);
            std::fill(greatest.begin(), greatest.end(), Below<C>);
        }
        const std::lock_guard lock(mutex);
        myHasNaN = myHasNaN || (special & 1) != 0;
        myHasNegativeZero = myHasNegativeZero || (special & 2) != 0;
    };
    const std::size_t bytes = static_cast<std::size_t>(myBlock.product()) * sizeof(T);
    const auto layers = static_cast<std::size_t>(mySize[2]), team = teamFor(bytes);
    inParallel(layers, (layers + team - 1) / team, bytes, findLayers);
}

template<class T>
ValueBricks<T>::~ValueBricks() = default;

template<class T>
std::size_t ValueBricks<T>::memsize() const {
    return sizeof(*this) + 2 * myLeast.size() * sizeof(Component);
}

template<class T>
StrongPtr<const ValueBricks<T>> ValueBricks<T>::make(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                     age_t ageOfField) {
    if (!suit(block)) return nullptr;
    const auto age = creator.age();
    const StrongPtr<ValueBricks> made = Hestra::makeRef<ValueBricks>(block);
    Hestra::Cache::MemCache()->insert(made);
    creator.addInterface(Hestra::makeRef<KeptBricks<T>>(made, age, ageOfField));
    return made;
}

template<class T>
StrongPtr<const ValueBricks<T>> ValueBricks<T>::find(const CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                     age_t ageOfField) {
    if (!suit(block)) return nullptr;
    const auto known = creator.findInterface<KeptBricks<T>>();
    if (!known || !known->isFresh(creator.age(), ageOfField)) return nullptr;
    const StrongPtr<ValueBricks> kept = known->bricks.lock();
    if (!kept || kept->block() != block.Size()) return nullptr;
    kept->markAsUsed();
    return kept;
}

template<class T>
StrongPtr<const ValueBricks<T>> ValueBricks<T>::of(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                   age_t ageOfField) {
    StrongPtr<const ValueBricks> known = find(creator, block, ageOfField);
    return known ? known : make(creator, block, ageOfField);
}

template<class T>
StrongPtr<const ValueBricks<T>> ValueBricks<T>::ofKnown(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                        age_t ageOfField) {
    if (!suit(block)) return nullptr;
    if (StrongPtr<const ValueBricks> known = find(creator, block, ageOfField)) return known;
    const auto before = creator.findInterface<KeptBricks<T>>();
    if (before && before->isFresh(creator.age(), ageOfField)) return make(creator, block, ageOfField);
    creator.addInterface(Hestra::makeRef<KeptBricks<T>>(StrongPtr<ValueBricks>(), creator.age(), ageOfField));
    return nullptr;
}

template class ValueBricks<double>;
template class ValueBricks<float>;
template class ValueBricks<unsigned char>;
template class ValueBricks<short>;
template class ValueBricks<unsigned short>;
template class ValueBricks<Orvix::PhysicalSpace::point>;

} // namespace Vantle::detail

#endif
