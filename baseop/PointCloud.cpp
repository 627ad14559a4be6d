#include <baseop/PointCloud.hpp>
#include <model/orvix/Eigen.hpp>

#include <cmath>

namespace Vantle {

using Orvix::PhysicalSpace;

namespace {

/// Of the eigenvalues, relative to the largest covariance.
constexpr double EigenPrecision = 1e-10;

constexpr double power4(double x) noexcept { return (x * x) * (x * x); }
constexpr double power5(double x) noexcept { return power4(x) * x; }

Orvix::LowerTriangular<3, double> covariance(const std::vector<PhysicalSpace::point>& points,
                                             const PhysicalSpace::point& centre) noexcept {
    double xx = 0, xy = 0, yy = 0, xz = 0, yz = 0, zz = 0;
    for (const PhysicalSpace::point& p : points) {
        const PhysicalSpace::vector d = p - centre;
        if (std::fabs(d[0]) < PointCloud::SamePoint && std::fabs(d[1]) < PointCloud::SamePoint &&
            std::fabs(d[2]) < PointCloud::SamePoint)
            continue;
        xx += d[0] * d[0];
        xy += d[0] * d[1];
        xz += d[0] * d[2];
        yy += d[1] * d[1];
        yz += d[1] * d[2];
        zz += d[2] * d[2];
    }
    // On purpose all points, also those left out above.
    return Orvix::LowerTriangular<3, double>(xx, xy, yy, xz, yz, zz) / static_cast<double>(points.size());
}

} // namespace

double PointCloud::sph_cubic(double q) noexcept {
    if (q >= 0.0 && q < 1.0) return q * q * (0.75 * q - 1.5) + 1.0;
    if (q >= 1.0 && q < 2.0) return 0.25 * (2.0 - q) * (2.0 - q) * (2.0 - q);
    return 0.0;
}

double PointCloud::sph_quartic(double q) noexcept {
    if (q >= 0.0 && q < 0.5) return power4(2.5 - q) - 5.0 * power4(1.5 - q) + 10.0 * power4(0.5 - q);
    if (q >= 0.5 && q < 1.5) return power4(2.5 - q) - 5.0 * power4(1.5 - q);
    if (q >= 1.5 && q < 2.5) return power4(2.5 - q);
    return 0.0;
}

double PointCloud::sph_quintic(double q) noexcept {
    if (q >= 0.0 && q < 1.0) return power5(3.0 - q) - 6.0 * power5(2.0 - q) + 15.0 * power5(1.0 - q);
    // On purpose 5 here, not the 6 that would make it continuous.
    if (q >= 1.0 && q < 2.0) return power5(3.0 - q) - 5.0 * power5(2.0 - q);
    if (q >= 2.0 && q < 3.0) return power5(3.0 - q);
    return 0.0;
}

PointCloud::Shape PointCloud::computeShape(const Points& points, const Point& centre) {
    if (points.size() < MinimalPoints) return {};
    Orvix::FixedArray<double, 3> e;
    Orvix::SortedEigenValues(covariance(points, centre), e, EigenPrecision);
    const double sum = e[0] + e[1] + e[2];
    if (std::fabs(sum) < MinimalVariance) return {};
    return {2.0 * (e[1] - e[0]) / sum, (e[2] - e[1]) / sum, 3.0 * e[0] / sum};
}

} // namespace Vantle
