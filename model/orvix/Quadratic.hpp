#pragma once
/// Square matrices of small, fixed size.

#include <model/orvix/PhysicalSpace.hpp>

namespace Orvix {

/// An N x N matrix stored row by row, zero by default; `+`, `-` and scaling are component-wise.
template<int N, class T>
class Quadratic : public LinearArray<Quadratic<N, T>, T, N * N> {
public:
    using LinearArray<Quadratic<N, T>, T, N * N>::LinearArray;
    constexpr Quadratic() noexcept = default;

    [[nodiscard]] static constexpr int rows() noexcept { return N; }
    [[nodiscard]] constexpr T& operator()(int row, int column) noexcept { return (*this)[row * N + column]; }
    [[nodiscard]] constexpr const T& operator()(int row, int column) const noexcept {
        return (*this)[row * N + column];
    }
    [[nodiscard]] constexpr Vector<T, N> row(int r) const noexcept {
        return componentWise<Vector<T, N>, N>([&](int c) { return (*this)(r, c); });
    }
    constexpr void setRow(int r, const FixedArray<T, N>& values) noexcept {
        for (int c = 0; c < N; ++c) (*this)(r, c) = values[c];
    }
};

/// Matrix times column: each row's products are added from the first to the last.
[[nodiscard]] constexpr PhysicalSpace::vector operator*(const Quadratic<3, double>& m,
                                                        const PhysicalSpace::vector& v) noexcept {
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

} // namespace Orvix
