#pragma once
/// Vectors with a meaning: colours of bytes, and the colours of doubles that arithmetic on them gives.

#include <model/orvix/FixedArray.hpp>

#include <limits>

namespace Orvix {

/// Domains: red, green, blue, and the same with opacity.
struct RGB {};
struct RGBA {};

/// A `VectorType` of components `T` that belongs to `Domain`.
///
/// Arithmetic on integral components happens in doubles: `colour * double` and `colour + colour` give a
/// `real_type`, and only the explicit conversion back rounds, once, to nearest (halves up) and clamps to the
/// range of `T`. NaN becomes the lowest value.
template<class VectorType, class Domain, class T>
class DomainVector : public VectorType {
    static_assert(std::is_same_v<typename VectorType::value_type, T>);

public:
    /// The same colour in doubles.
    using real_type = DomainVector<Vector<double, VectorType::Size>, Domain, double>;

    using VectorType::VectorType;
    constexpr DomainVector() noexcept = default;

    /// Lifts a colour of integers to doubles, exactly.
    template<class OtherVector, class U>
    requires(std::floating_point<T>&& std::integral<U>&& OtherVector::Size ==
             VectorType::Size) constexpr DomainVector(const DomainVector<OtherVector, Domain, U>& other) noexcept {
        for (int i = 0; i < VectorType::Size; ++i) (*this)[i] = static_cast<T>(other[i]);
    }
    /// Rounds a colour of doubles to integers.
    template<class OtherVector, class U>
    requires(
        std::integral<T>&& std::floating_point<U>&& OtherVector::Size ==
        VectorType::Size) constexpr explicit DomainVector(const DomainVector<OtherVector, Domain, U>& other) noexcept {
        for (int i = 0; i < VectorType::Size; ++i) (*this)[i] = rounded(other[i]);
    }

private:
    static constexpr T rounded(double value) noexcept {
        constexpr double lowest = std::numeric_limits<T>::lowest(), highest = std::numeric_limits<T>::max();
        if (!(value > lowest)) return std::numeric_limits<T>::lowest();
        if (value >= highest) return std::numeric_limits<T>::max();
        const T below = static_cast<T>(value);
        return value - static_cast<double>(below) >= 0.5 ? static_cast<T>(below + 1) : below;
    }
};

template<class V, class Domain, class T>
[[nodiscard]] constexpr auto operator*(const DomainVector<V, Domain, T>& a, double factor) noexcept {
    using Real = typename DomainVector<V, Domain, T>::real_type;
    return componentWise<Real, V::Size>([&](int i) { return static_cast<double>(a[i]) * factor; });
}
template<class V, class Domain, class T>
[[nodiscard]] constexpr auto operator*(double factor, const DomainVector<V, Domain, T>& a) noexcept {
    return a * factor;
}
template<class V, class W, class Domain, class T, class U>
requires(V::Size == W::Size) [[nodiscard]] constexpr auto operator+(const DomainVector<V, Domain, T>& a,
                                                                    const DomainVector<W, Domain, U>& b) noexcept {
    using Real = typename DomainVector<V, Domain, T>::real_type;
    return componentWise<Real, V::Size>([&](int i) { return static_cast<double>(a[i]) + static_cast<double>(b[i]); });
}

/// Byte colours, the stored forms.
using ByteRGB = DomainVector<Vector<unsigned char, 3>, RGB, unsigned char>;
using ByteRGBA = DomainVector<Vector<unsigned char, 4>, RGBA, unsigned char>;

} // namespace Orvix
