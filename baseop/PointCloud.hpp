#pragma once
/// Scattered points: smoothing kernels, and measures of the shape of a neighbourhood.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/PhysicalSpace.hpp>

#include <vector>

namespace Vantle {

/// Functions on points and numbers alone.
///
/// The shape of the points around a centre follows from the eigenvalues e0 <= e1 <= e2 of their covariance, the mean
/// of (p - centre)(p - centre)^T over all points: planarity is 2 (e1 - e0) / s, linearity (e2 - e1) / s and sphericity
/// 3 e0 / s, with s = e0 + e1 + e2. Points on a plane have sphericity 0, points on a line linearity 1, points alike in
/// all directions sphericity 1.
///
/// Laws         the three add up to 1; rotating or mirroring the cloud about its centre changes none.
/// Units        lengths as given; the measures have none. Points closer than 1e-4 in every coordinate count as the
///              centre, and a cloud with s < 1e-6 has no shape: clouds of such size have to be scaled up before.
/// Degenerate   0 for five points or fewer and for a cloud without extent; NaN when a coordinate is not finite.
/// Concurrency  free.
/// Cost         one pass over the points, and an eigen decomposition without iteration.
class VANTLE_BASEOP_API PointCloud {
public:
    using Point = Orvix::PhysicalSpace::point;
    using Points = std::vector<Point>;

    /// Fewer points than this have no shape.
    static constexpr std::size_t MinimalPoints = 6;
    /// A point that differs by less than this from the centre in every coordinate is the centre.
    static constexpr double SamePoint = 1e-4;
    /// A cloud whose eigenvalues have a smaller sum has no shape.
    static constexpr double MinimalVariance = 1e-6;

    /// All three measures of one neighbourhood.
    struct Shape {
        double planarity = 0.0;
        double linearity = 0.0;
        double sphericity = 0.0;
    };

    /// Smoothing kernels by the ratio `q` of distance and smoothing length, not normalised: 0 for negative `q`, for NaN
    /// and from the end of their support on, which is 2, 2.5 and 3.
    [[nodiscard]] static double sph_cubic(double q) noexcept;
    [[nodiscard]] static double sph_quartic(double q) noexcept;
    /// Not continuous at 1: the factor of its second term changes there on purpose.
    [[nodiscard]] static double sph_quintic(double q) noexcept;

    /// Measures of `points` around `centre`. The radius of the neighbourhood is taken for the sake of uniform calls:
    /// neither used nor changed.
    [[nodiscard]] static double computePlanarity(const Points& points, const Point& centre, double&) {
        return computeShape(points, centre).planarity;
    }
    [[nodiscard]] static double computePlanarity(const Points& points, const Point& centre, const double&) {
        return computeShape(points, centre).planarity;
    }
    [[nodiscard]] static double computeLinearity(const Points& points, const Point& centre, double&) {
        return computeShape(points, centre).linearity;
    }
    [[nodiscard]] static double computeLinearity(const Points& points, const Point& centre, const double&) {
        return computeShape(points, centre).linearity;
    }
    [[nodiscard]] static double computeSphericity(const Points& points, const Point& centre, double&) {
        return computeShape(points, centre).sphericity;
    }
    [[nodiscard]] static double computeSphericity(const Points& points, const Point& centre, const double&) {
        return computeShape(points, centre).sphericity;
    }
    /// The three for the price of one.
    [[nodiscard]] static Shape computeShape(const Points& points, const Point& centre);
};

} // namespace Vantle
