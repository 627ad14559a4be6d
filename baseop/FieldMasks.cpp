#include <baseop/FieldMasks.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/ValueBricks.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace Vantle {

using detail::ValueBricks;
using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

namespace {

using Mask = MemArray<3, unsigned char>;
using Numbers = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;
using NumbersAndPlaces =
    TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long,
             PhysicalSpace::point, PhysicalSpace::vector, FloatPoint, FloatVector>;

template<class... T>
bool isOneOf(TypeList<T...>, const VantleTypeIndex& type) {
    return ((type == VantleTypeIndex(typeid(T))) || ...);
}

/// Where a mask of numbers is valid.
struct IsNumber {
    using Elements = NumbersAndPlaces;

    template<class T>
    bool operator()(const T& value) const noexcept {
        for (int c = 0; c < ElementTraits<T>::components; ++c)
            if (!(elementComponent(value, c) == elementComponent(value, c))) return false;
        return true;
    }
};

/// Where a mask of a range is valid.
struct IsWithin {
    using Elements = Numbers;
    double least, greatest;

    template<class T>
    bool operator()(T value) const noexcept {
        const auto number = static_cast<double>(value);
        return static_cast<int>(number >= least) & static_cast<int>(number <= greatest);
    }
};

template<class T>
constexpr bool hasBricks = std::is_floating_point_v<T> || (std::is_integral_v<T> && sizeof(T) <= 2);

/// Calls `f(n)` for all n below `count`, by several threads if elements of so many bytes are worth it.
template<class F>
void forAll(index_t count, std::size_t bytesEach, const F& f) {
    constexpr std::size_t Piece = std::size_t{1} << 18;
    detail::inParallel(static_cast<std::size_t>(count), Piece, static_cast<std::size_t>(count) * bytesEach,
                       [&](std::size_t begin, std::size_t end) {
                           for (std::size_t n = begin; n < end; ++n) f(n);
                       });
}

template<class T, class Test>
void fill(Mask& mask, const MemArray<3, T>& values, const Test& isValid) {
    unsigned char* const to = mask.data();
    const T* const from = values.data();
    if (const auto step = static_cast<std::size_t>(values.stride()); step == 1)
        forAll(values.nElements(), sizeof(T), [=](std::size_t n) { to[n] = isValid(from[n]) ? 1 : 0; });
    else
        forAll(values.nElements(), sizeof(T), [=](std::size_t n) { to[n] = isValid(from[n * step]) ? 1 : 0; });
}

/// A mask of positions that are computed from axes; null for other data.
StrongPtr<Mask> maskOfProduct(const StrongPtr<MemBase>& data, const WeakPtr<CreativeArrayBase>& maker) {
    StrongPtr<Mask> mask;
    detail::FragmentCoordinates(data).visitProducts([&](const auto& positions) {
        mask = Mask::create(positions.Size(), maker);
        std::vector<unsigned char> isNumber[3];
        for (int d = 0; d < 3; ++d)
            for (index_t n = 0; n < positions.Size()[d]; ++n)
                isNumber[d].push_back(std::isnan(positions.axis(d)[n]) ? 0 : 1);
        unsigned char* to = mask->data();
        for (const unsigned char k : isNumber[2])
            for (const unsigned char j : isNumber[1])
                for (const unsigned char i : isNumber[0]) *to++ = i & j & k;
    });
    return mask;
}

/// Vertices of a row, up to `end`, that are 0 or 1, or are to be read.
struct Run {
    enum What : unsigned char { Invalid, Valid, ToRead } what;
    std::size_t end;
};

/// What is known of the values from `low` to `high`, of a brick in which there may be NaN.
template<class T>
Run::What known(const IsWithin& isWithin, T low, T high) noexcept {
    if constexpr (std::is_floating_point_v<T>)
        if (std::isinf(low) && std::isinf(high)) return Run::ToRead;
    if (isWithin(low) && isWithin(high)) return Run::Valid;
    const bool isBeyond = static_cast<double>(high) < isWithin.least || static_cast<double>(low) > isWithin.greatest;
    return isBeyond ? Run::Invalid : Run::ToRead;
}

/// Fills from `i` to `end`, and asks for what is `ahead` of that.
template<class T>
std::size_t readRun(const IsWithin& isWithin, const T* from, unsigned char* to, std::size_t i, std::size_t end,
                    std::size_t ahead) noexcept {
    constexpr std::size_t Group = 8;
    for (; i + Group <= end; i += Group) {
        __builtin_prefetch(from + i + ahead);
        __builtin_prefetch(from + i + Group - 1 + ahead);
        for (std::size_t n = i; n < i + Group; ++n) to[n] = isWithin(from[n]) ? 1 : 0;
    }
    for (; i < end; ++i) to[i] = isWithin(from[i]) ? 1 : 0;
    return i;
}

template<class T>
void fill(Mask& mask, const MemArray<3, T>& values, const IsWithin& isWithin, const ValueBricks<T>& bricks) {
    constexpr std::size_t Side = ValueBricks<T>::Side;
    const auto extent = [](const MultiIndex<3>& size, int d) { return static_cast<std::size_t>(size[d]); };
    const MultiIndex<3>& size = values.Size();
    const std::size_t row = extent(size, 0), groups = (row + Side - 1) / Side;
    const std::size_t inRow = extent(bricks.Size(), 0), rows = extent(bricks.Size(), 1),
                      layers = extent(bricks.Size(), 2);
    const auto endOf = [&](std::size_t brick, int d) {
        return brick + 1 < extent(bricks.Size(), d) ? Side * (brick + 1) : extent(size, d);
    };
    const auto fillRows = [&](std::size_t layer, std::size_t rowOfLayer, const std::vector<Run>& runs) {
        for (std::size_t k = Side * layer; k < endOf(layer, 2); ++k) {
            const std::size_t nextPlane = k + 1 < extent(size, 2) ? extent(size, 1) * row : 0;
            for (std::size_t j = Side * rowOfLayer; j < endOf(rowOfLayer, 1); ++j) {
                const std::size_t first = (k * extent(size, 1) + j) * row;
                const T* const from = values.data() + first;
                unsigned char* const to = mask.data() + first;
                std::size_t i = 0;
                for (const Run& run : runs)
                    if (run.what != Run::ToRead)
                        std::fill(to + i, to + run.end, static_cast<unsigned char>(run.what)), i = run.end;
                    else
                        i = readRun(isWithin, from, to, i, run.end, nextPlane);
            }
        }
    };
    detail::inParallel(layers, 1, static_cast<std::size_t>(size.product()) * sizeof(T),
                       [&](std::size_t begin, std::size_t end) {
                           std::vector<Run> runs;
                           for (std::size_t r = begin * rows; r < end * rows; ++r, runs.clear()) {
                               for (std::size_t g = 0; g < groups; ++g) {
                                   const std::size_t brick = r * inRow + std::min(g, inRow - 1);
                                   const auto what = known(isWithin, bricks.least()[brick], bricks.greatest()[brick]);
                                   if (runs.empty() || runs.back().what != what) runs.push_back({what, 0});
                                   runs.back().end = std::min(row, Side * (g + 1));
                               }
                               fillRows(r / rows, r % rows, runs);
                           }
                       });
}

/// Bricks of the data of a fragment; null where they do not suit, and where the data have another source.
template<class T>
StrongPtr<const ValueBricks<T>> bricksOf(const StrongPtr<const Field>& field, const StrongPtr<FragmentID>& fragment,
                                         const StrongPtr<MemBase>& data, const MemArray<3, T>& values) {
    const StrongPtr<CreativeArrayBase> creator = field ? field->getCreator(fragment) : nullptr;
    if (!creator || !(creator->cachedData() == data)) return nullptr;
    return ValueBricks<T>::of(*creator, values, field->age());
}

/// A field over the fragments of `values`, 1 where `isValid` says so, and where the vertex mask of `within` agrees, if
/// there is one.
template<class Test>
StrongPtr<Field> makeMask(const StrongPtr<Field>& values, const StrongPtr<Representation>& within,
                          const StrongPtr<Hestra::Cache>& cache, const Test& isValid) {
    using Elements = typename Test::Elements;
    if (!values) return nullptr;
    const auto refuseElements = [] { throw std::invalid_argument("a mask cannot be made from elements of this type"); };
    const auto masks = within ? StrongPtr<BlankingInput>(new BlankingInput(*within)) : StrongPtr<BlankingInput>();
    const WeakPtr<const Field> source(*values);
    const StrongPtr<Field> mask = Hestra::makeRef<DerivedField>(source, values->getFragmentIDCollection(), masks);
    values->iterate(
        [&](const StrongPtr<FragmentID>& fragment, const StrongPtr<CreativeArrayBase>& creator) {
            if (const VantleTypeIndex type = creator->elementType(); type && !isOneOf(Elements(), type))
                refuseElements();
            const auto derive = [isValid, refuseElements, masks, source,
                                 fragment](const StrongPtr<MemBase>& data,
                                           const WeakPtr<CreativeArrayBase>& maker) -> StrongPtr<MemBase> {
                StrongPtr<Mask> made;
                const auto make = [&]<class T>(const MemArray<3, T>& array) {
                    made = Mask::create(array.Size(), maker);
                    if constexpr (std::is_same_v<Test, IsWithin> && hasBricks<T>)
                        if (const auto bricks = bricksOf(source.lock(), fragment, data, array))
                            return fill(*made, array, isValid, *bricks);
                    fill(*made, array, isValid);
                };
                if (std::is_same_v<Test, IsNumber>) made = maskOfProduct(data, maker);
                if (!made && !withMemArray<3>(Elements(), data, make)) refuseElements();
                const StrongPtr<MemBase> other = masks ? masks->now().vertexMaskOf(fragment) : nullptr;
                withMemArray<3>(Numbers(), other, [&](const auto& array) {
                    if (array.Size() != made->Size()) refuseElements();
                    forAll(made->nElements(), 1, [&](std::size_t n) {
                        if (array.element(n) == 0) made->element(n) = 0;
                    });
                });
                return made;
            };
            mask->setCreator(Hestra::makeRef<DerivedArray>(DerivedArray::Source(creator, source, fragment, masks),
                                                           derive, VantleTypeIndex(typeid(unsigned char)),
                                                           getSize(*creator), cache),
                             fragment);
            return true;
        },
        false);
    return mask;
}

} // namespace

StrongPtr<Field> makeMaskOfNumbers(const StrongPtr<Field>& values, const StrongPtr<Representation>& within,
                                   const StrongPtr<Hestra::Cache>& cache) {
    return makeMask(values, within, cache, IsNumber());
}

StrongPtr<Field> makeMaskOfRange(const StrongPtr<Field>& values, double least, double greatest,
                                 const StrongPtr<Representation>& within, const StrongPtr<Hestra::Cache>& cache) {
    return makeMask(values, within, cache, IsWithin{least, greatest});
}

} // namespace Vantle
