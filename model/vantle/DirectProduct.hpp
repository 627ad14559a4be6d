#pragma once
/// Arrays of computed coordinates: direct products of coordinate axes, and the vertices of uniform grids. They never
/// change: any number of threads may read.

#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/MemArray.hpp>

#include <array>
#include <cmath>
#include <limits>

namespace Vantle {

/// A coordinate axis with constant spacing.
///
/// Value i is origin + i * spacing, but the last one is kept and returned exactly: for an axis between two given
/// ends, origin + (n-1) * spacing may miss the end by a rounding error.
template<class T>
class VANTLE_MODEL_API LinearCoordinateAxisArray {
public:
    using value_type = T;

    /// Empty.
    LinearCoordinateAxisArray() = default;
    LinearCoordinateAxisArray(T origin, T spacing, index_t count)
        : myOrigin(origin), mySpacing(spacing), myCount(count),
          myLast(count ? origin + static_cast<T>(count - 1) * spacing : T{}) {}
    /// `count` values from `first` to `last`, with the spacing (last - first) / (count - 1). A single value is
    /// `first`, with the whole extent as spacing.
    [[nodiscard]] static LinearCoordinateAxisArray spanning(T first, T last, index_t count) {
        LinearCoordinateAxisArray axis;
        axis.myOrigin = first;
        axis.mySpacing = count > 1 ? (last - first) / static_cast<T>(count - 1) : last - first;
        axis.myCount = count;
        axis.myLast = count > 1 ? last : count ? first : T{};
        return axis;
    }

    [[nodiscard]] index_t size() const noexcept { return myCount; }
    [[nodiscard]] T operator[](index_t i) const noexcept {
        return i + 1 == myCount ? myLast : myOrigin + static_cast<T>(myShift + i) * mySpacing;
    }
    /// The first and the last value; 0 for an empty axis.
    [[nodiscard]] T first() const noexcept { return myCount ? (*this)[0] : T{}; }
    [[nodiscard]] T last() const noexcept { return myLast; }
    /// The value that index 0 has, or would have.
    [[nodiscard]] T origin() const noexcept {
        return myShift ? myOrigin + static_cast<T>(myShift) * mySpacing : myOrigin;
    }
    [[nodiscard]] T spacing() const noexcept { return mySpacing; }

    /// (x - origin) / spacing, beyond the ends too; 0 when the spacing is 0.
    [[nodiscard]] double getIndex(T x) const noexcept {
        return mySpacing == T{0} ? 0.0 : static_cast<double>((x - origin()) / mySpacing);
    }
    /// The same: index units.
    [[nodiscard]] double getFractionalIndex(T x) const noexcept { return getIndex(x); }

    /// The `count` values from `start` on, exactly as they are here.
    [[nodiscard]] LinearCoordinateAxisArray part(index_t start, index_t count) const {
        LinearCoordinateAxisArray axis = *this;
        axis.myShift += start;
        axis.myCount = count;
        axis.myLast = count ? (*this)[start + count - 1] : T{};
        return axis;
    }

private:
    T myOrigin{};
    T mySpacing{};
    index_t myCount = 0;
    T myLast{};
    index_t myShift = 0;
};

/// A coordinate axis with listed values, ascending or descending.
template<class T>
class VANTLE_MODEL_API ExplicitCoordinateAxisArray {
public:
    using value_type = T;

    /// Empty.
    ExplicitCoordinateAxisArray() = default;
    ExplicitCoordinateAxisArray(std::vector<T> values) : myValues(std::move(values)) {}

    [[nodiscard]] index_t size() const noexcept { return myValues.size(); }
    [[nodiscard]] T operator[](index_t i) const noexcept { return myValues[i]; }
    /// The first and the last value; 0 for an empty axis.
    [[nodiscard]] T first() const noexcept { return myValues.empty() ? T{} : myValues.front(); }
    [[nodiscard]] T last() const noexcept { return myValues.empty() ? T{} : myValues.back(); }
    [[nodiscard]] const std::vector<T>& values() const noexcept { return myValues; }

    /// The position of `x` in index units: i on value i exactly, linear in between and, by the outermost intervals,
    /// beyond the ends.
    ///
    /// Laws        less than 0 before the first value, greater than n - 1 after the last, never by rounding only.
    /// Degenerate  NaN for NaN and for an empty axis. A single value: 0 on it, infinite off it, with the sign of
    ///             x - value.
    /// Cost        one binary search.
    [[nodiscard]] double getFractionalIndex(T x) const noexcept;
    /// The same divided by n - 1: 0 on the first value, 1 on the last.
    [[nodiscard]] double getIndex(T x) const noexcept;

    /// The `count` values from `start` on.
    [[nodiscard]] ExplicitCoordinateAxisArray part(index_t start, index_t count) const {
        const auto from = myValues.begin() + static_cast<std::ptrdiff_t>(start);
        return std::vector<T>(from, from + static_cast<std::ptrdiff_t>(count));
    }

private:
    std::vector<T> myValues;
};

/// One axis of a direct product: linear or explicit.
template<class T, template<class> class Kind>
using CoordinateAxisArray = Kind<T>;

/// What all direct products have in common whose elements are stored alike. `T` is a plain array of `N` coordinates
/// (or one number, for rank 1): element (i, j, ...) consists of value i of axis 0, value j of axis 1, and so on.
template<class T, template<class> class Axis, int N>
class VANTLE_MODEL_API DirectProductMemArrayBase : public MemArrayBase<N> {
    static_assert(ElementTraits<T>::components == N, "one axis for each coordinate");

public:
    using coordinate_type = typename ElementTraits<T>::component_type;
    using AxisArray = CoordinateAxisArray<coordinate_type, Axis>;
    using Axes = std::array<AxisArray, N>;
    using Creator = Hestra::WeakPtr<CreativeArrayBase>;

    [[nodiscard]] const Axes& axes() const noexcept { return myAxes; }
    [[nodiscard]] const AxisArray& axis(int d) const noexcept { return myAxes[static_cast<std::size_t>(d)]; }
    [[nodiscard]] MultiIndex<N> getSize() const final { return mySize; }
    [[nodiscard]] const MultiIndex<N>& Size() const noexcept { return mySize; }
    [[nodiscard]] index_t nElements() const final { return mySize.product(); }
    /// The index of the last element; 0 on an axis without values.
    [[nodiscard]] MultiIndex<N> lastIndex() const noexcept {
        MultiIndex<N> last;
        for (int d = 0; d < N; ++d) last[d] = mySize[d] ? mySize[d] - 1 : 0;
        return last;
    }
    /// Sets `value` to the element at `index`.
    void retrieve(T& value, const MultiIndex<N>& index) const noexcept {
        for (int d = 0; d < N; ++d) elementComponent(value, d) = axis(d)[index[d]];
    }
    /// `getIndex` of every axis: unclamped index units for linear axes, 0 to 1 within the ends for explicit ones.
    [[nodiscard]] Orvix::FixedArray<double, N> getIndex(const T& position) const noexcept {
        Orvix::FixedArray<double, N> index;
        for (int d = 0; d < N; ++d) index[d] = axis(d).getIndex(elementComponent(position, d));
        return index;
    }
    /// The position in index units, for axes of both kinds.
    [[nodiscard]] Orvix::FixedArray<double, N> getFractionalIndex(const T& position) const noexcept {
        Orvix::FixedArray<double, N> index;
        for (int d = 0; d < N; ++d) index[d] = axis(d).getFractionalIndex(elementComponent(position, d));
        return index;
    }

protected:
    DirectProductMemArrayBase(Axes axes);

    Axes myAxes;
    MultiIndex<N> mySize;
};

/// A direct product of coordinate axes with elements of type `T`: computed when asked for, never stored.
///
/// It is no `TypedArray<T>`, since there is no memory to look at; `view()` and `creativeIterator()` present it to
/// code that reads elements one by one.
/// Degenerate   an axis without values makes an empty array: `first()` and `last()` are value-initialised.
/// Failure      `Hestra::MemoryException` when the number of elements does not fit.
template<class T, template<class> class Axis, int N>
class VANTLE_MODEL_API DirectProductMemArray : public DirectProductMemArrayBase<ElementStorage<T>, Axis, N>,
                                               public DataCreator<T> {
    using Base = DirectProductMemArrayBase<ElementStorage<T>, Axis, N>;

public:
    using value_type = T;
    using typename Base::Axes;
    using typename Base::Creator;
    /// The type of spacings: vectors for points, otherwise that of the elements.
    using difference_type =
        std::conditional_t<std::is_same_v<T, Orvix::PhysicalSpace::point>, Orvix::PhysicalSpace::vector, T>;
    static constexpr bool isLinear =
        std::is_same_v<typename Base::AxisArray, LinearCoordinateAxisArray<typename Base::coordinate_type>>;

    explicit DirectProductMemArray(Axes axes, const Creator& creator = {})
        : MemBase(typeid(T), creator), Base(std::move(axes)) {}
    ~DirectProductMemArray() override = default;

    [[nodiscard]] T operator[](const MultiIndex<N>& index) const noexcept {
        T value{};
        this->retrieve(value, index);
        return value;
    }
    template<std::integral... I>
    requires(sizeof...(I) == N) [[nodiscard]] T operator()(I... index) const noexcept {
        return (*this)[MultiIndex<N>(index...)];
    }
    [[nodiscard]] T getElement(const MultiIndex<N>& index) const noexcept { return (*this)[index]; }
    /// Element number `k`, axis 0 fastest.
    [[nodiscard]] T create(index_t k) const override { return (*this)[MultiIndex<N>::fromLinear(k, this->Size())]; }
    using MemBase::create;
    /// The elements at index 0 and at `lastIndex()`.
    [[nodiscard]] T first() const noexcept { return this->nElements() ? (*this)[MultiIndex<N>()] : T{}; }
    [[nodiscard]] T last() const noexcept { return this->nElements() ? (*this)[this->lastIndex()] : T{}; }

    /// The element that index 0 has or would have, and the differences along the axes.
    [[nodiscard]] T origin() const noexcept requires(isLinear) { return myLine.origin; }
    [[nodiscard]] difference_type spacing() const noexcept requires(isLinear) { return myLine.spacing; }
    /// Addresses of origin and spacing; null for axes that have none.
    [[nodiscard]] const T* OriginPtr() const noexcept { return isLinear ? &myLine.origin : nullptr; }
    [[nodiscard]] const difference_type* DeltaPtr() const noexcept { return isLinear ? &myLine.spacing : nullptr; }

    /// The elements as a view by value and as an iterator; both need this array to live.
    [[nodiscard]] MultiArrayBase<N, T> view() const noexcept { return MultiArrayBase<N, T>(*this, this->Size()); }
    [[nodiscard]] CreativeIterator<T> creativeIterator() const noexcept {
        return CreativeIterator<T>(*this, this->nElements());
    }

    /// The direct product of `size` (a count on each axis) elements from `start` on; must lie within this one.
    [[nodiscard]] Hestra::Ref<DirectProductMemArray>
    createSubMemArray(const MultiIndex<N>& start, const MultiIndex<N>& size, const Creator& creator = {}) const {
        Axes parts;
        for (int d = 0; d < N; ++d) parts[static_cast<std::size_t>(d)] = this->axis(d).part(start[d], size[d]);
        return Hestra::makeRef<DirectProductMemArray>(std::move(parts), creator);
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase> createSubArray(const MultiIndex<N>& start, const MultiIndex<N>& size,
                                                            const Creator& creator = {}) const override {
        return createSubMemArray(start, size, creator);
    }
    /// The elements of the slice, computed into a new array of their own.
    [[nodiscard]] Hestra::StrongPtr<MemBase> createSlice(index_t index, const Creator& creator = {}) const override;
    [[nodiscard]] std::string getElementAsString(index_t index) const override {
        return index < this->nElements() ? elementText(create(index)) : std::string();
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase> gather(const TypedArray<index_t>& indices, const DynamicSize& size,
                                                    index_t blockLength) const override;

protected:
    [[nodiscard]] Hestra::StrongPtr<MemBase::Allocator> ownAllocator() const override;

private:
    struct Line {
        explicit Line(const Axes& axes) {
            if constexpr (isLinear)
                for (int d = 0; d < N; ++d) {
                    elementComponent(origin, d) = axes[static_cast<std::size_t>(d)].origin();
                    elementComponent(spacing, d) = axes[static_cast<std::size_t>(d)].spacing();
                }
        }
        T origin{};
        difference_type spacing{};
    };
    Line myLine{this->myAxes};
};

extern template class VANTLE_MODEL_API
    DirectProductMemArrayBase<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;
extern template class VANTLE_MODEL_API
    DirectProductMemArrayBase<Orvix::FixedArray<double, 3>, ExplicitCoordinateAxisArray, 3>;
extern template class VANTLE_MODEL_API DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3>;
extern template class VANTLE_MODEL_API
    DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
extern template class VANTLE_MODEL_API
    DirectProductMemArray<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;

/// A direct product of linear axes.
template<class T, int N>
using LinearDirectProductMemArray = DirectProductMemArray<T, LinearCoordinateAxisArray, N>;

/// The vertex positions of a uniform grid that spans a box.
///
/// Law          the first and the last vertex of each axis are the ends that were given, to the last bit.
/// Degenerate   a count of 1 gives the first end, with the whole extent as spacing; a count of 0 an empty array.
class VANTLE_MODEL_API UniformCartesianArray
    : public DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3> {
public:
    using point = Orvix::PhysicalSpace::point;
    using vector = Orvix::PhysicalSpace::vector;

    /// `counts` vertices from the least to the greatest corner of `box`.
    UniformCartesianArray(const Orvix::BoundingBox& box, const MultiIndex<3>& counts, const Creator& creator = {});
    /// From `origin` to `end`, which may be smaller.
    UniformCartesianArray(const point& origin, const MultiIndex<3>& counts, const point& end,
                          const Creator& creator = {});
    /// From `origin` on in steps of `spacing`.
    UniformCartesianArray(const MultiIndex<3>& counts, const point& origin, const vector& spacing,
                          const Creator& creator = {});
    ~UniformCartesianArray() override;

    /// The box that was given, or that of the given ends; that of the vertices when a spacing was given.
    [[nodiscard]] const Orvix::BoundingBox& getBoundingBox() const noexcept { return myBox; }

private:
    Orvix::BoundingBox myBox;
};

// ---------------------------------------------------------------------------------------------------------------------

template<class T>
double ExplicitCoordinateAxisArray<T>::getFractionalIndex(T x) const noexcept {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const std::size_t n = myValues.size();
    if (n == 0 || x != x) return std::numeric_limits<double>::quiet_NaN();
    const T front = myValues.front(), back = myValues.back();
    if (n == 1) return x == front ? 0.0 : x < front ? -infinity : infinity;
    const auto lastIndex = static_cast<double>(n - 1);
    if (x == back) return lastIndex;

    const bool ascending = front <= back;
    const auto before = [ascending](T a, T b) { return ascending ? a < b : b < a; };
    const auto next = std::upper_bound(myValues.begin(), myValues.end(), x, before);
    const auto found = static_cast<std::size_t>(next - myValues.begin());
    const std::size_t i = std::min(found ? found - 1 : 0, n - 2);
    const auto fraction = static_cast<double>((x - myValues[i]) / (myValues[i + 1] - myValues[i]));
    const double index = static_cast<double>(i) + fraction;
    // Outside stays outside, however close to the end.
    if (found == 0 && !(index < 0.0)) return -std::numeric_limits<double>::denorm_min();
    if (found == n && !(index > lastIndex)) return std::nextafter(lastIndex, infinity);
    return index;
}

template<class T>
double ExplicitCoordinateAxisArray<T>::getIndex(T x) const noexcept {
    const double index = getFractionalIndex(x);
    if (myValues.size() < 2) return index;
    const auto lastIndex = static_cast<double>(myValues.size() - 1);
    const double normalised = index / lastIndex;
    if (index < 0.0 && !(normalised < 0.0)) return -std::numeric_limits<double>::denorm_min();
    if (index > lastIndex && !(normalised > 1.0)) return std::nextafter(1.0, 2.0);
    return normalised;
}

template<class T, template<class> class Axis, int N>
DirectProductMemArrayBase<T, Axis, N>::DirectProductMemArrayBase(Axes axes) : myAxes(std::move(axes)) {
    for (int d = 0; d < N; ++d) mySize[d] = axis(d).size();
    if (!mySize.checkedProduct()) throw Hestra::MemoryException(std::numeric_limits<std::size_t>::max());
}

template<class T, template<class> class Axis, int N>
Hestra::StrongPtr<MemBase> DirectProductMemArray<T, Axis, N>::createSlice(index_t index, const Creator& creator) const {
    if constexpr (N == 1) {
        return nullptr;
    } else {
        if (index >= this->Size()[N - 1]) return nullptr;
        const MultiArrayBase<N - 1, T> slice = view().slice(index);
        const auto result = MemArray<N - 1, T>::create(slice.Size(), creator);
        for (index_t k = 0; k < slice.nElements(); ++k) result->element(k) = slice.element(k);
        return result;
    }
}

template<class T, template<class> class Axis, int N>
Hestra::StrongPtr<MemBase> DirectProductMemArray<T, Axis, N>::gather(const TypedArray<index_t>& indices,
                                                                     const DynamicSize& size,
                                                                     index_t blockLength) const {
    return detail::gatherElements<T>(indices, size, blockLength, this->nElements(), *ownAllocator(),
                                     [this](index_t k) { return create(k); });
}

template<class T, template<class> class Axis, int N>
Hestra::StrongPtr<MemBase::Allocator> DirectProductMemArray<T, Axis, N>::ownAllocator() const {
    if (Hestra::StrongPtr<MemBase::Allocator> known = MemBase::findAllocator(typeid(T))) return known;
    return Hestra::makeRef<MemArrayAllocator<T>>();
}

} // namespace Vantle
