#pragma once
/// Fixed numbers of values: the plain array and the array with linear arithmetic.

#include <model/Version.hpp>

#include <array>
#include <concepts>
#include <cstddef>
#include <ostream>
#include <type_traits>
#include <utility>

namespace Orvix {

/// `N` values of `T`, all zero by default.
///
/// Standard layout, trivially copyable for such `T`, and exactly as large as its values: what derives from it
/// without data of its own can be read through it.
/// Failure  indices are not checked.
template<class T, int N>
class FixedArray {
    static_assert(N > 0);

public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    /// Number of values, known to the compiler.
    static constexpr int Size = N;

    constexpr FixedArray() noexcept = default;
    /// From exactly `N` values.
    template<class... U>
    requires(sizeof...(U) == N && N > 1 &&
             (std::is_convertible_v<U, T> && ...)) constexpr FixedArray(U... values) noexcept
        : myValues{static_cast<T>(values)...} {}
    /// All values the same.
    constexpr explicit FixedArray(const T& value) noexcept {
        for (T& each : myValues) each = value;
    }
    constexpr explicit FixedArray(const std::array<T, N>& values) noexcept {
        for (int i = 0; i < N; ++i) myValues[i] = values[static_cast<std::size_t>(i)];
    }

    template<std::integral Index>
    [[nodiscard]] constexpr T& operator[](Index i) noexcept {
        return myValues[i];
    }
    template<std::integral Index>
    [[nodiscard]] constexpr const T& operator[](Index i) const noexcept {
        return myValues[i];
    }

    [[nodiscard]] static constexpr std::size_t size() noexcept { return N; }
    [[nodiscard]] constexpr T* data() noexcept { return myValues; }
    [[nodiscard]] constexpr const T* data() const noexcept { return myValues; }
    [[nodiscard]] constexpr iterator begin() noexcept { return myValues; }
    [[nodiscard]] constexpr const_iterator begin() const noexcept { return myValues; }
    [[nodiscard]] constexpr iterator end() noexcept { return myValues + N; }
    [[nodiscard]] constexpr const_iterator end() const noexcept { return myValues + N; }

private:
    T myValues[N] = {};
};

/// Equal in every component, by the components' own `==`: NaN is unequal, the two zeros are equal.
template<class T, int N>
[[nodiscard]] constexpr bool operator==(const FixedArray<T, N>& a, const FixedArray<T, N>& b) noexcept {
    for (int i = 0; i < N; ++i)
        if (!(a[i] == b[i])) return false;
    return true;
}

/// Writes `(x, y, z)` with the stream's own precision; bytes are written as numbers.
template<class T, int N>
std::ostream& operator<<(std::ostream& stream, const FixedArray<T, N>& values) {
    for (int i = 0; i < N; ++i) {
        stream << (i ? ", " : "(");
        if constexpr (std::is_integral_v<T>)
            stream << +values[i];
        else
            stream << values[i];
    }
    return stream << ')';
}

/// `Self(f(0), f(1), ...)` without a loop: component-wise arithmetic has to be straight code at any
/// optimisation level, since it sits in the innermost loops.
template<class Self, int N, class F>
[[nodiscard]] constexpr Self componentWise(F&& f) noexcept {
    return [&]<int... I>(std::integer_sequence<int, I...>) { return Self(f(I)...); }
    (std::make_integer_sequence<int, N>{});
}

/// An array whose derived class `Self`, constructible from `N` values, is a linear space over `T`:
/// component-wise `+`, `-`, and `*`, `/` by one number.
template<class Self, class T, int N>
class LinearArray : public FixedArray<T, N> {
public:
    using FixedArray<T, N>::FixedArray;

    friend constexpr Self operator+(const Self& a, const Self& b) noexcept {
        return componentWise<Self, N>([&](int i) { return static_cast<T>(a[i] + b[i]); });
    }
    friend constexpr Self operator-(const Self& a, const Self& b) noexcept {
        return componentWise<Self, N>([&](int i) { return static_cast<T>(a[i] - b[i]); });
    }
    friend constexpr Self operator-(const Self& a) noexcept {
        return componentWise<Self, N>([&](int i) { return static_cast<T>(-a[i]); });
    }
    friend constexpr Self operator*(const Self& a, T factor) noexcept {
        return componentWise<Self, N>([&](int i) { return static_cast<T>(a[i] * factor); });
    }
    friend constexpr Self operator*(T factor, const Self& a) noexcept { return a * factor; }
    /// Divides each component: no product with the reciprocal.
    friend constexpr Self operator/(const Self& a, T divisor) noexcept {
        return componentWise<Self, N>([&](int i) { return static_cast<T>(a[i] / divisor); });
    }
    friend constexpr Self& operator+=(Self& a, const Self& b) noexcept { return a = a + b; }
    friend constexpr Self& operator-=(Self& a, const Self& b) noexcept { return a = a - b; }
    friend constexpr Self& operator*=(Self& a, T factor) noexcept { return a = a * factor; }
    friend constexpr Self& operator/=(Self& a, T divisor) noexcept { return a = a / divisor; }

    /// Sum of the products, added from component 0 upwards.
    [[nodiscard]] friend constexpr T dot(const Self& a, const Self& b) noexcept {
        return [&]<int... I>(std::integer_sequence<int, I...>) { return static_cast<T>((... + (a[I] * b[I]))); }
        (std::make_integer_sequence<int, N>{});
    }
};

/// `N` numbers with component-wise arithmetic and a scalar product, in no particular space.
template<class T, int N>
class Vector : public LinearArray<Vector<T, N>, T, N> {
public:
    using LinearArray<Vector<T, N>, T, N>::LinearArray;
    constexpr Vector() noexcept = default;
    constexpr explicit Vector(const FixedArray<T, N>& values) noexcept {
        for (int i = 0; i < N; ++i) (*this)[i] = values[i];
    }
};

} // namespace Orvix
