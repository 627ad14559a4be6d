#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <gtest/gtest.h>

using namespace Vantle;

namespace {

using point = Orvix::PhysicalSpace::point;

TEST(PointCloudClientTest, TheRadiusMayBeAConstant) {
    const std::vector<point> line{{-3, 0, 0}, {-2, 0, 0}, {-1, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
    const double fixed = 0.5;
    double variable = 0.5;
    EXPECT_NEAR(PointCloud::computeLinearity(line, point(), fixed), 1.0, 1e-12);
    EXPECT_NEAR(PointCloud::computePlanarity(line, point(), 0.5), 0.0, 1e-12);
    EXPECT_NEAR(PointCloud::computeSphericity(line, point(), variable), 0.0, 1e-12);
    double (*const measure)(const std::vector<point>&, const point&, double&) = &PointCloud::computeLinearity;
    EXPECT_NEAR(measure(line, point(), variable), 1.0, 1e-12);
    EXPECT_EQ(variable, 0.5);
    EXPECT_EQ(PointCloud::sph_quartic(fixed), 16 - 5.0) << "kernels likewise";
}

} // namespace
