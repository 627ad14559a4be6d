#pragma once
/// Multilinear interpolation of arrays at fractional indices, and its derivative along one index axis.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/DomainVector.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/MultiArray.hpp>

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <type_traits>
#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Vantle {

namespace detail {

/// `x` without its fraction, or a number far from every index where that does not fit: one instruction, and no
/// undefined conversion. Nodes are counted in signed numbers for this; no axis has 2^63.
[[nodiscard]] inline long long truncated(double x) noexcept {
#if defined(__SSE2__)
    return _mm_cvttsd_si64(_mm_set_sd(x));
#else
    constexpr double limit = 9223372036854775808.0;
    return x >= -limit && x < limit ? static_cast<long long>(x) : -9223372036854775807LL - 1;
#endif
}

/// Whether an array of these extents has no elements.
template<int N>
[[nodiscard]] constexpr bool isEmpty(const MultiIndex<N>& size) noexcept {
    for (const index_t n : size)
        if (n == 0) return true;
    return false;
}

} // namespace detail

/// Where a position lies on one axis: a node, and the weights of this node and of the next.
///
/// Where `fraction` is 0 the node counts alone: the next one need not exist and is not read.
struct InterpolationStep {
    index_t node = 0;
    double lowerWeight = 1.0;
    double fraction = 0.0;

    /// For interpolation at `x` on an axis of `n` > 0 nodes. What lies outside [0, n - 1] falls on the node at that
    /// end, NaN on the first.
    [[nodiscard]] static InterpolationStep interpolating(double x, index_t n) noexcept {
        if (!(x > 0.0)) return {0, 1.0, 0.0};
        if (x + 1.0 >= static_cast<double>(n)) return {n - 1, 1.0, 0.0};
        return above(detail::truncated(x), x);
    }

    /// For the difference of the two nodes around `x`, of weight -1 and 1. A position on the first node has the first
    /// difference; one on the last node, outside, or NaN has none: both weights are 0. This asymmetry is on purpose.
    [[nodiscard]] static InterpolationStep differencing(double x, index_t n) noexcept {
        if (!(x >= 0.0 && x < static_cast<double>(n - 1))) return {0, 0.0, 0.0};
        return {static_cast<index_t>(detail::truncated(x)), -1.0, 1.0};
    }

    /// Becomes what `interpolating` gives if this returns true and both weights are above `SafeWeight` then, as they
    /// are nearly everywhere; otherwise nothing is promised.
    [[nodiscard]] bool trySet(double x, index_t n) noexcept {
        *this = above(detail::truncated(x), x);
        return node + 1 < n;
    }
    [[nodiscard]] double leastWeight() const noexcept { return std::min(fraction, lowerWeight); }
    /// Keeps away from nodes, from what lies outside, and from where x + 1 would be rounded up to the last node.
    static constexpr double SafeWeight = 1.0 / 1024;

private:
    [[nodiscard]] static InterpolationStep above(long long node, double x) noexcept {
        const auto floor = static_cast<double>(node);
        // The lower weight in this form, which is part of the rules; above 0 it has the bits of 1 - fraction.
        return {static_cast<index_t>(node), (1.0 - x) + floor, x - floor};
    }
};

/// Whether elements of type `T` are points: they have differences, but neither multiples nor sums.
template<class T>
inline constexpr bool isAffinePoint = std::is_same_v<T, Orvix::PhysicalSpace::point>;

/// How two neighbours combine: as a weighted sum, or, where `affine`, as the lower point plus a scaled difference.
template<class T, bool affine>
struct LinearIpol {
    /// In the type that the arithmetic of `V` gives: doubles for `float` and for colours of bytes.
    template<class V>
    [[nodiscard]] static constexpr auto between(const V& lower, const V& upper, const InterpolationStep& at) noexcept {
        if constexpr (affine)
            return lower + (upper - lower) * at.fraction;
        else
            return lower * at.lowerWeight + upper * at.fraction;
    }
};

/// Computes with the elements as they are. The sum of each axis is converted to `T` once.
template<class T>
struct NoDelimiter {
    /// What rows of elements are interpolated to.
    using carrier = T;
    [[nodiscard]] static constexpr const T& lift(const T& value) noexcept { return value; }
    template<class V>
    [[nodiscard]] static constexpr T carry(const V& value) noexcept {
        return static_cast<T>(value);
    }
    template<class V>
    [[nodiscard]] static constexpr T deliver(const V& value) noexcept {
        return static_cast<T>(value);
    }
};

/// Computes with byte colours in doubles. Rows give colours of doubles; from the second axis on, each axis ends by
/// truncating its result to bytes. A mean of equal colours may thus be darker by one: this is on purpose, as is that
/// nothing is rounded.
struct RGBOperator {
    using rgb_real = Orvix::ByteRGB::real_type;
    using carrier = rgb_real;
    [[nodiscard]] static constexpr rgb_real lift(const Orvix::ByteRGB& colour) noexcept { return rgb_real(colour); }
    [[nodiscard]] static constexpr const rgb_real& lift(const rgb_real& colour) noexcept { return colour; }
    [[nodiscard]] static constexpr rgb_real carry(const rgb_real& colour) noexcept { return colour; }
    [[nodiscard]] static constexpr Orvix::ByteRGB deliver(const rgb_real& colour) noexcept {
        return {static_cast<unsigned char>(colour[0]), static_cast<unsigned char>(colour[1]),
                static_cast<unsigned char>(colour[2])};
    }
};

/// An array view and a position in it, in fractional indices: vertex (i, j, k) lies at (i, j, k).
///
/// `evaluate` gives the multilinear interpolation there; with `D` >= 0 its derivative along axis `D` (a forward
/// difference along `D`, interpolated along the other axes). Axes are nested from the slowest, outermost, to axis 0:
/// the order is part of the result, which has the same bits on every path.
///
/// Degenerate   interpolation takes the border's value outside, and never reads the neighbour of a node that the
///              position lies on exactly, so its NaN or infinity does not matter. Derivatives are zero below the
///              first node, on the last node of axis `D` and beyond. NaN reads as 0, and has derivative zero.
///              An empty view has value 0; its derivative is not asked for.
/// Failure      none.
/// Concurrency  free. View and position are referred to, not copied, and outlive the object.
/// Cost         eight elements and seven weighted sums in three dimensions; no allocation.
template<int N, class T, class Ipol = LinearIpol<T, isAffinePoint<T>>, class Coord = double,
         class Delimiter = NoDelimiter<T>, int D = -1>
class Interpolate {
    static_assert(N >= 2, "rows are interpolated inside the level of rank 2");
    static_assert(D < 0 || !isAffinePoint<T>, "derivatives of points are vectors: see asVectors");

    template<int M>
    using level = std::conditional_t<M == 1, typename Delimiter::carrier, T>;

public:
    using value_type = T;

    /// The position has a component for each axis of the view; further ones belong to the array that it is a slice of.
    template<int M>
    requires(M >= N) constexpr Interpolate(const MultiArrayBase<N, T>& data,
                                           const Orvix::FixedArray<Coord, M>& position) noexcept
        : myData(data), myPosition(position.data()) {}

    /// The value at the whole position.
    [[nodiscard]] T evaluate() const { return valueAt<N>(myData, myPosition); }

    /// The value at node `i` of the slowest axis and at the position on the others; of rank 2, as carried by the
    /// delimiter. Derived only if axis `D` is one of these others.
    [[nodiscard]] level<N - 1> operator[](std::size_t i) const { return valueAt<N - 1>(myData.slice(i), myPosition); }

private:
    template<std::size_t K>
    using Steps = std::array<InterpolationStep, K>;

    /// Nearly all positions lie between nodes in memory: for these everything is known beforehand, and no step asks.
    template<int M>
    [[nodiscard]] static level<M> valueAt(const MultiArrayBase<M, T>& view, const Coord* position) {
        if (view.dataCreator()) [[unlikely]]
            return valueAnywhere<M>(view, position);
        Steps<M> steps;
        std::array<index_t, M> strides;
        const auto* corner = view.storage();
        index_t stride = view.stride();
        double leastWeight = 1.0;
        for (std::size_t axis = 0; axis < M; ++axis) {
            const index_t n = view.Size()[axis];
            if (!isDerived(axis)) {
                if (!steps[axis].trySet(position[axis], n)) [[unlikely]]
                    return valueAnywhere<M>(view, position);
                leastWeight = std::min(steps[axis].leastWeight(), leastWeight);
            } else {
                steps[axis] = InterpolationStep::differencing(position[axis], n);
                if (steps[axis].fraction == 0.0) return level<M>{};
            }
            strides[axis] = stride;
            corner += steps[axis].node * stride;
            stride *= n;
        }
        if (!(leastWeight > InterpolationStep::SafeWeight)) [[unlikely]]
            return valueAnywhere<M>(view, position);
        return cell<M>(corner, strides, steps);
    }
    /// The view is a copy: what its address is given away for, a loop would have to read again for each position.
    template<int M>
    [[nodiscard]] [[gnu::noinline]] static level<M> valueAnywhere(MultiArrayBase<M, T> view, const Coord* position) {
        if (detail::isEmpty(view.Size())) return level<M>{};
        Steps<M> steps;
        for (std::size_t axis = 0; axis < M; ++axis) {
            const index_t n = view.Size()[axis];
            steps[axis] = isDerived(axis) ? InterpolationStep::differencing(position[axis], n)
                                          : InterpolationStep::interpolating(position[axis], n);
        }
        return nested<M>(view, steps);
    }
    [[nodiscard]] static constexpr bool isDerived(std::size_t axis) noexcept { return static_cast<int>(axis) == D; }

    /// The slowest axis of a view of rank `M`, all faster ones within: for any position and any view.
    template<int M, std::size_t K>
    [[nodiscard]] static level<M> nested(const MultiArrayBase<M, T>& view, const Steps<K>& steps) {
        const InterpolationStep& at = steps[M - 1];
        const auto inner = [&](index_t i) {
            if constexpr (M == 1)
                return view.element(i);
            else
                return nested<M - 1>(view.slice(i), steps);
        };
        if (at.fraction == 0.0) {
            if constexpr (M - 1 == D)
                return level<M>{};
            else
                return finished<M>(Delimiter::lift(inner(at.node)));
        }
        const auto lower = inner(at.node);
        const auto upper = inner(at.node + 1);
        return combined<M>(lower, upper, at);
    }

    /// The same between the nodes of a cell in memory, where nothing is left to ask; the bits are the same.
    template<int M, std::size_t K, class Storage>
    [[nodiscard]] static level<M> cell(const Storage* corner, const std::array<index_t, K>& strides,
                                       const Steps<K>& steps) noexcept {
        const auto inner = [&](const Storage* lowest) {
            if constexpr (M == 1)
                return T(*lowest);
            else
                return cell<M - 1>(lowest, strides, steps);
        };
        return combined<M>(inner(corner), inner(corner + strides[M - 1]), steps[M - 1]);
    }

    template<int M, class V>
    [[nodiscard]] static level<M> combined(const V& lower, const V& upper, const InterpolationStep& at) noexcept {
        if constexpr (M - 1 == D)
            return finished<M>(Delimiter::lift(upper) - Delimiter::lift(lower));
        else
            return finished<M>(Ipol::between(Delimiter::lift(lower), Delimiter::lift(upper), at));
    }
    template<int M, class V>
    [[nodiscard]] static level<M> finished(const V& value) noexcept {
        if constexpr (M == 1)
            return Delimiter::carry(value);
        else
            return Delimiter::deliver(value);
    }

    const MultiArrayBase<N, T>& myData;
    const Coord* myPosition;
};

/// The interpolated value of a view, or of an array, at a position in fractional indices; see `Interpolate`.
/// Value-initialised when the view is empty.
template<int N, class T>
requires(N >= 2) [[nodiscard]] T
    interpolateAt(const MultiArrayBase<N, T>& view, const Orvix::FixedArray<double, N>& position) {
    return Interpolate<N, T>(view, position).evaluate();
}

/// The derivative of the interpolated values along index axis `D`, for one unit of index; see `Interpolate`.
/// Value-initialised when the view is empty.
template<int D, int N, class T>
requires(N >= 2 && D >= 0 && D < N) [[nodiscard]] T
    differentiateAt(const MultiArrayBase<N, T>& view, const Orvix::FixedArray<double, N>& position) {
    if (detail::isEmpty(view.Size())) return T{};
    return Interpolate<N, T, LinearIpol<T, false>, double, NoDelimiter<T>, D>(view, position).evaluate();
}

/// The kernels that are part of the library, for ranks 2 and 3. `X` takes rank, element type, affine, delimiter, axis.
#define VANTLE_INTERPOLATION_KERNELS_OF_RANK(X, N)                                                                     \
    X(N, double, false, NoDelimiter<double>, -1)                                                                       \
    X(N, float, false, NoDelimiter<float>, -1)                                                                         \
    X(N, long double, false, NoDelimiter<long double>, -1)                                                             \
    X(N, Orvix::PhysicalSpace::vector, false, NoDelimiter<Orvix::PhysicalSpace::vector>, -1)                           \
    X(N, Orvix::PhysicalSpace::vector, false, NoDelimiter<Orvix::PhysicalSpace::vector>, 0)                            \
    X(N, Orvix::PhysicalSpace::vector, false, NoDelimiter<Orvix::PhysicalSpace::vector>, 1)                            \
    X(N, Orvix::PhysicalSpace::vector, false, NoDelimiter<Orvix::PhysicalSpace::vector>, 2)                            \
    X(N, Orvix::PhysicalSpace::point, true, NoDelimiter<Orvix::PhysicalSpace::point>, -1)                              \
    X(N, Orvix::PhysicalSpace::Metric, false, NoDelimiter<Orvix::PhysicalSpace::Metric>, -1)                           \
    X(N, Orvix::ByteRGB, false, RGBOperator, -1)                                                                       \
    X(N, Orvix::ByteRGB, false, NoDelimiter<Orvix::ByteRGB>, -1)
#define VANTLE_INTERPOLATION_KERNELS(X)                                                                                \
    VANTLE_INTERPOLATION_KERNELS_OF_RANK(X, 2)                                                                         \
    VANTLE_INTERPOLATION_KERNELS_OF_RANK(X, 3)

// Declared as instantiated elsewhere, and still inlined where that pays: all members are inline.
#define VANTLE_DECLARE_KERNEL(N, T, AFFINE, DELIMITER, D)                                                              \
    extern template class VANTLE_BASEOP_API Interpolate<N, T, LinearIpol<T, AFFINE>, double, DELIMITER, D>;
VANTLE_INTERPOLATION_KERNELS(VANTLE_DECLARE_KERNEL)
#undef VANTLE_DECLARE_KERNEL

} // namespace Vantle
