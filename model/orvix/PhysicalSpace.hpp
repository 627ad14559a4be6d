#pragma once
/// Points, vectors and metrics of three-dimensional Cartesian space.

#include <model/orvix/FixedArray.hpp>

#include <cmath>

namespace Orvix {

/// Tag of three-dimensional space with coordinates x, y, z.
struct Cartesian3D {};

/// The geometrical types of the coordinate system `System`, with coordinates of type `T`.
template<class System, class T>
struct Coordinates;

/// Storage form of single precision coordinates; arithmetic happens in double precision, after conversion.
template<>
struct Coordinates<Cartesian3D, float> {
    class vector : public LinearArray<vector, float, 3> {
    public:
        using LinearArray::LinearArray;
        constexpr vector() noexcept = default;
    };

    class point : public FixedArray<float, 3> {
    public:
        using FixedArray::FixedArray;
        constexpr point() noexcept = default;
    };
};

/// Points, vectors, bivectors and metrics, in double precision and zero by default.
///
/// They are distinct types, and none converts to another by itself: the difference of points is a vector, a
/// point plus a vector is a point, and points are not added.
/// Each is laid out as an array of its coordinates and nothing else.
template<>
struct Coordinates<Cartesian3D, double> {
    /// A displacement.
    class vector : public LinearArray<vector, double, 3> {
    public:
        constexpr vector() noexcept = default;
        constexpr vector(double x, double y, double z) noexcept : LinearArray(x, y, z) {}
        constexpr explicit vector(const FixedArray<double, 3>& xyz) noexcept : LinearArray(xyz[0], xyz[1], xyz[2]) {}
        constexpr explicit vector(const Coordinates<Cartesian3D, float>::vector& v) noexcept
            : LinearArray(v[0], v[1], v[2]) {}
    };
    /// Covariant and contravariant vectors are the same in Cartesian coordinates.
    using tvector = vector;

    /// An oriented area: components yz, zx, xy.
    class bivector : public LinearArray<bivector, double, 3> {
    public:
        constexpr bivector() noexcept = default;
        constexpr bivector(double yz, double zx, double xy) noexcept : LinearArray(yz, zx, xy) {}
        constexpr explicit bivector(const FixedArray<double, 3>& planes) noexcept
            : LinearArray(planes[0], planes[1], planes[2]) {}
    };

    /// A location.
    class point : public FixedArray<double, 3> {
    public:
        constexpr point() noexcept = default;
        constexpr point(double x, double y, double z) noexcept : FixedArray(x, y, z) {}
        constexpr explicit point(const FixedArray<double, 3>& xyz) noexcept : FixedArray(xyz) {}
        constexpr explicit point(const Coordinates<Cartesian3D, float>::point& p) noexcept
            : FixedArray(p[0], p[1], p[2]) {}

        constexpr point& operator+=(const vector& v) noexcept {
            return *this = point((*this)[0] + v[0], (*this)[1] + v[1], (*this)[2] + v[2]);
        }
        constexpr point& operator-=(const vector& v) noexcept {
            return *this = point((*this)[0] - v[0], (*this)[1] - v[1], (*this)[2] - v[2]);
        }
    };

    /// A symmetric 3x3 tensor: components xx, xy, xz, yy, yz, zz.
    class Metric : public LinearArray<Metric, double, 6> {
    public:
        constexpr Metric() noexcept = default;
        constexpr Metric(double xx, double xy, double xz, double yy, double yz, double zz) noexcept
            : LinearArray(xx, xy, xz, yy, yz, zz) {}

        /// The component of row and column, in either order.
        [[nodiscard]] constexpr double operator()(int row, int column) const noexcept {
            constexpr int index[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};
            return (*this)[index[row][column]];
        }
    };
};

/// The space that world coordinates live in.
using PhysicalSpace = Coordinates<Cartesian3D, double>;

[[nodiscard]] constexpr Coordinates<Cartesian3D, float>::vector
operator-(const Coordinates<Cartesian3D, float>::point& a, const Coordinates<Cartesian3D, float>::point& b) noexcept {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

[[nodiscard]] constexpr PhysicalSpace::vector operator-(const PhysicalSpace::point& a,
                                                        const PhysicalSpace::point& b) noexcept {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
[[nodiscard]] constexpr PhysicalSpace::point operator+(const PhysicalSpace::point& p,
                                                       const PhysicalSpace::vector& v) noexcept {
    return {p[0] + v[0], p[1] + v[1], p[2] + v[2]};
}
[[nodiscard]] constexpr PhysicalSpace::point operator-(const PhysicalSpace::point& p,
                                                       const PhysicalSpace::vector& v) noexcept {
    return {p[0] - v[0], p[1] - v[1], p[2] - v[2]};
}

/// The vector orthogonal to both, right-handed; as long as their parallelogram is large.
[[nodiscard]] constexpr PhysicalSpace::vector cross(const PhysicalSpace::vector& a,
                                                    const PhysicalSpace::vector& b) noexcept {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

/// The parallelogram of two vectors as an oriented area.
[[nodiscard]] constexpr PhysicalSpace::bivector wedge(const PhysicalSpace::vector& a,
                                                      const PhysicalSpace::vector& b) noexcept {
    return PhysicalSpace::bivector(cross(a, b));
}

/// x*x + y*y + z*z in this order; may overflow where `length` does not.
[[nodiscard]] constexpr double normSquared(const PhysicalSpace::vector& v) noexcept { return dot(v, v); }

/// Euclidean length, without overflow or underflow on the way: m * sqrt((x/m)^2 + (y/m)^2 + (z/m)^2) with m the
/// largest absolute component.
///
/// Degenerate  the zero vector has length 0; a NaN or infinite component gives NaN.
[[nodiscard]] inline double length(const PhysicalSpace::vector& v) noexcept {
    if (v[0] == 0.0 && v[1] == 0.0 && v[2] == 0.0) return 0.0;
    const double ax = std::fabs(v[0]), ay = std::fabs(v[1]), az = std::fabs(v[2]);
    const double axy = ax > ay ? ax : ay;
    const double m = axy > az ? axy : az;
    const double x = v[0] / m, y = v[1] / m, z = v[2] / m;
    return m * std::sqrt(x * x + y * y + z * z);
}

[[nodiscard]] inline double distance(const PhysicalSpace::point& a, const PhysicalSpace::point& b) noexcept {
    return length(a - b);
}

static_assert(sizeof(PhysicalSpace::point) == 3 * sizeof(double) && std::is_standard_layout_v<PhysicalSpace::point>);
static_assert(sizeof(PhysicalSpace::vector) == 3 * sizeof(double) && std::is_standard_layout_v<PhysicalSpace::vector>);
static_assert(std::is_trivially_copyable_v<PhysicalSpace::point> &&
              std::is_trivially_copyable_v<PhysicalSpace::vector>);
static_assert(sizeof(Coordinates<Cartesian3D, float>::point) == 3 * sizeof(float));
static_assert(sizeof(PhysicalSpace::Metric) == 6 * sizeof(double));

} // namespace Orvix
