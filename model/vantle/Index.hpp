#pragma once
/// Indices and extents of arrays: of a rank fixed in the type, and of a rank known at run time.

#include <model/Forward.hpp>
#include <model/ModelExport.hpp>

#include <algorithm>
#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>

namespace Vantle {

/// The product of extents, or nothing when it does not fit into an `index_t`. One extent of 0 makes it 0.
[[nodiscard]] constexpr std::optional<index_t> checkedProduct(const index_t* extents, int rank) noexcept {
    index_t product = 1;
    bool overflow = false;
    for (int axis = 0; axis < rank; ++axis) {
        if (extents[axis] == 0) return index_t{0};
        if (product > ~index_t{0} / extents[axis])
            overflow = true;
        else
            product *= extents[axis];
    }
    return overflow ? std::nullopt : std::optional<index_t>(product);
}

/// `N` indices, or the extents of an array of rank `N`. Component 0 varies fastest. Zero by default.
///
/// Arithmetic is that of `index_t`, component by component: it wraps.
template<int N>
class VANTLE_MODEL_API MultiIndex {
    static_assert(N > 0);

public:
    static constexpr int rank = N;

    constexpr MultiIndex() noexcept = default;
    /// One value an axis, axis 0 first.
    template<std::integral... I>
    requires(sizeof...(I) == N) constexpr MultiIndex(I... values) noexcept
        : myValues{static_cast<index_t>(values)...} {}

    /// The same value on every axis.
    [[nodiscard]] static constexpr MultiIndex filled(index_t value) noexcept {
        MultiIndex result;
        for (auto& component : result.myValues) component = value;
        return result;
    }
    /// The index of the element with number `k` of an array of these extents, of which none is 0.
    [[nodiscard]] static constexpr MultiIndex fromLinear(index_t k, const MultiIndex& extents) noexcept {
        MultiIndex result;
        for (int axis = 0; axis + 1 < N; ++axis) {
            result[axis] = k % extents[axis];
            k /= extents[axis];
        }
        result[N - 1] = k;
        return result;
    }

    [[nodiscard]] constexpr index_t& operator[](std::integral auto axis) noexcept {
        return myValues[static_cast<std::size_t>(axis)];
    }
    [[nodiscard]] constexpr index_t operator[](std::integral auto axis) const noexcept {
        return myValues[static_cast<std::size_t>(axis)];
    }
    [[nodiscard]] constexpr const index_t* data() const noexcept { return myValues.data(); }
    [[nodiscard]] constexpr auto begin() const noexcept { return myValues.begin(); }
    [[nodiscard]] constexpr auto end() const noexcept { return myValues.end(); }

    /// Product of the components; wraps.
    [[nodiscard]] constexpr index_t product() const noexcept {
        index_t result = 1;
        for (const index_t component : myValues) result *= component;
        return result;
    }
    /// Product of the components, or nothing when it does not fit.
    [[nodiscard]] constexpr std::optional<index_t> checkedProduct() const noexcept {
        return Vantle::checkedProduct(myValues.data(), N);
    }
    /// Number of the element at this index in an array of these extents, axis 0 fastest.
    [[nodiscard]] constexpr index_t linear(const MultiIndex& extents) const noexcept {
        index_t result = myValues[N - 1];
        for (int axis = N - 2; axis >= 0; --axis) result = result * extents[axis] + (*this)[axis];
        return result;
    }
    /// Whether every component is smaller than the extent of its axis.
    [[nodiscard]] constexpr bool inside(const MultiIndex& extents) const noexcept {
        for (int axis = 0; axis < N; ++axis)
            if ((*this)[axis] >= extents[axis]) return false;
        return true;
    }
    /// Goes to the next index within `extents`, axis `firstAxis` fastest; lower axes stay. After the last
    /// index it returns false and these axes are 0 again.
    constexpr bool advance(const MultiIndex& extents, int firstAxis = 0) noexcept {
        for (int axis = firstAxis; axis < N; ++axis) {
            if (++(*this)[axis] < extents[axis]) return true;
            (*this)[axis] = 0;
        }
        return false;
    }

    constexpr MultiIndex& operator+=(const MultiIndex& other) noexcept {
        for (int axis = 0; axis < N; ++axis) (*this)[axis] += other[axis];
        return *this;
    }
    constexpr MultiIndex& operator-=(const MultiIndex& other) noexcept {
        for (int axis = 0; axis < N; ++axis) (*this)[axis] -= other[axis];
        return *this;
    }
    [[nodiscard]] friend constexpr MultiIndex operator+(MultiIndex a, const MultiIndex& b) noexcept { return a += b; }
    [[nodiscard]] friend constexpr MultiIndex operator-(MultiIndex a, const MultiIndex& b) noexcept { return a -= b; }
    /// Adds to (subtracts from) every axis.
    [[nodiscard]] friend constexpr MultiIndex operator+(MultiIndex a, index_t b) noexcept { return a += filled(b); }
    [[nodiscard]] friend constexpr MultiIndex operator-(MultiIndex a, index_t b) noexcept { return a -= filled(b); }

    [[nodiscard]] constexpr bool operator==(const MultiIndex&) const noexcept = default;
    /// Storage order: the slowest axis decides first.
    [[nodiscard]] constexpr std::strong_ordering operator<=>(const MultiIndex& other) const noexcept {
        for (int axis = N - 1; axis > 0; --axis)
            if ((*this)[axis] != other[axis]) return (*this)[axis] <=> other[axis];
        return myValues[0] <=> other.myValues[0];
    }

private:
    std::array<index_t, N> myValues{};
};

/// The text of an index, for example [2x0x1].
template<int N>
[[nodiscard]] std::string to_string(const MultiIndex<N>& index) {
    std::string text = "[";
    for (int axis = 0; axis < N; ++axis) {
        if (axis) text += 'x';
        text += std::to_string(index[axis]);
    }
    return text += ']';
}

/// Rank and extents of an array, known at run time. Rank 0, the default, stands for an unknown size.
class VANTLE_MODEL_API DynamicSize {
public:
    static constexpr int MaxRank = 8;

    DynamicSize() noexcept = default;
    template<int N>
    requires(N <= MaxRank) DynamicSize(const MultiIndex<N>& extents)
    noexcept : myRank(N) { std::copy(extents.begin(), extents.end(), myExtents.begin()); }
    /// A plain count: one axis.
    template<std::integral I>
    requires(!std::is_same_v<I, bool>) DynamicSize(I count)
    noexcept : DynamicSize(MultiIndex<1>(count)) {}
    /// Throws std::length_error beyond `MaxRank` axes.
    DynamicSize(std::initializer_list<index_t> extents);

    [[nodiscard]] int rank() const noexcept { return myRank; }
    /// Whether the size is known.
    [[nodiscard]] explicit operator bool() const noexcept { return myRank > 0; }
    [[nodiscard]] index_t operator[](int axis) const noexcept { return myExtents[static_cast<std::size_t>(axis)]; }
    [[nodiscard]] index_t& operator[](int axis) noexcept { return myExtents[static_cast<std::size_t>(axis)]; }
    /// Number of elements; 0 for rank 0. Wraps.
    [[nodiscard]] index_t total() const noexcept;
    /// Number of elements, or nothing when it does not fit.
    [[nodiscard]] std::optional<index_t> checkedTotal() const noexcept;
    /// The extents, if the rank is `N`.
    template<int N>
    [[nodiscard]] std::optional<MultiIndex<N>> as() const noexcept {
        if (myRank != N) return std::nullopt;
        MultiIndex<N> result;
        for (int axis = 0; axis < N; ++axis) result[axis] = (*this)[axis];
        return result;
    }
    /// Sets `extents` if the rank is `N`; otherwise leaves them and returns false.
    template<int N>
    [[nodiscard]] bool get(MultiIndex<N>& extents) const noexcept {
        const auto known = as<N>();
        if (known) extents = *known;
        return known.has_value();
    }

    [[nodiscard]] bool operator==(const DynamicSize&) const noexcept = default;

private:
    int myRank = 0;
    std::array<index_t, MaxRank> myExtents{};
};

/// The text of a size, for example [2x0x1]; [] for rank 0.
[[nodiscard]] VANTLE_MODEL_API std::string to_string(const DynamicSize& size);

} // namespace Vantle

namespace std {

// Generic code spells the text form of any number and index as std::to_string.
template<int N>
[[nodiscard]] inline string to_string(const Vantle::MultiIndex<N>& index) {
    return Vantle::to_string(index);
}

} // namespace std
