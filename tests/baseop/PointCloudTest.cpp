#include <baseop/PointCloud.hpp>

#include <support/Testing.hpp>

namespace {

using Points = std::vector<PhysicalSpace::point>;

double radius = 1.0;

Points randomCloud(int count, const vector& extent, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    Points points;
    for (int i = 0; i < count; ++i)
        points.emplace_back(extent[0] * normal(random), extent[1] * normal(random), extent[2] * normal(random));
    return points;
}

// A rotation about x, then about z, and a displacement.
point moved(const point& p, double alpha, double beta, const vector& by) {
    const point q(p[0], std::cos(alpha) * p[1] - std::sin(alpha) * p[2],
                  std::sin(alpha) * p[1] + std::cos(alpha) * p[2]);
    return point(std::cos(beta) * q[0] - std::sin(beta) * q[1], std::sin(beta) * q[0] + std::cos(beta) * q[1], q[2]) +
           by;
}

TEST(PointCloudTest, MeasuresAddUpAndDoNotDependOnTheFrame) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        const Points cloud = randomCloud(6 + int(seed), {1.0, 0.1 + 0.05 * seed, 2.0}, seed);
        const point centre(0.2, -0.1, 0.3);
        const double planarity = PointCloud::computePlanarity(cloud, centre, radius);
        const double linearity = PointCloud::computeLinearity(cloud, centre, radius);
        const double sphericity = PointCloud::computeSphericity(cloud, centre, radius);
        EXPECT_NEAR(planarity + linearity + sphericity, 1.0, 1e-9);
        for (const double part : {planarity, linearity, sphericity}) {
            EXPECT_GE(part, -1e-9);
            EXPECT_LE(part, 1.0 + 1e-9);
        }

        const vector by(3, -7, 0.5);
        Points other;
        for (const auto& p : cloud) other.push_back(moved(p, 0.3 * seed, 1.0 + seed, by));
        const PointCloud::Shape shape = PointCloud::computeShape(other, moved(centre, 0.3 * seed, 1.0 + seed, by));
        EXPECT_NEAR(shape.planarity, planarity, 1e-9);
        EXPECT_NEAR(shape.linearity, linearity, 1e-9);
        EXPECT_NEAR(shape.sphericity, sphericity, 1e-9);
    }
    EXPECT_EQ(radius, 1.0);
    const double fixed = 1.0; // or a constant, or a number
    const Points cloud = randomCloud(9, {1, 2, 3}, 1);
    double (*const measure)(const Points&, const point&, double&) = &PointCloud::computeLinearity;
    EXPECT_EQ(PointCloud::computeLinearity(cloud, point(), fixed), measure(cloud, point(), radius));
    EXPECT_EQ(PointCloud::computeSphericity(cloud, point(), 1.0), PointCloud::computeShape(cloud, point()).sphericity);
    EXPECT_EQ(PointCloud::computePlanarity(cloud, point(), fixed), PointCloud::computeShape(cloud, point()).planarity);
}

// Lines, discs and balls of known shape, askew, so that every covariance takes part.
TEST(PointCloudTest, TellsLinesPlanesAndBallsApart) {
    const vector by(1, 2, 3);
    const point centre(1, 2, 3);
    Points line, ellipse, ball;
    for (int i = 0; i < 36; ++i) {
        const double angle = std::numbers::pi * i / 18;
        line.push_back(moved({i - 17.5, 0, 0}, 0.7, 0.4, by));
        ellipse.push_back(moved({2 * std::cos(angle), std::sin(angle), 0}, 0.7, 0.4, by)); // e1 : e2 = 1 : 4
    }
    for (int axis = 0; axis < 3; ++axis)
        for (const double side : {-2.0, 2.0}) {
            point p;
            p[axis] = side;
            ball.push_back(moved(p, 0.7, 0.4, by));
        }
    EXPECT_NEAR(PointCloud::computeLinearity(line, centre, radius), 1.0, 1e-12);
    EXPECT_NEAR(PointCloud::computePlanarity(line, centre, radius), 0.0, 1e-12);
    EXPECT_NEAR(PointCloud::computePlanarity(ellipse, centre, radius), 2.0 / 5.0, 1e-12);
    EXPECT_NEAR(PointCloud::computeLinearity(ellipse, centre, radius), 3.0 / 5.0, 1e-12);
    EXPECT_NEAR(PointCloud::computeSphericity(ellipse, centre, radius), 0.0, 1e-12);
    EXPECT_NEAR(PointCloud::computeSphericity(ball, centre, radius), 1.0, 1e-9);
}

TEST(PointCloudTest, SmallCloudsHaveNoShape) {
    const Points many = randomCloud(6, {1, 1, 1}, 3);
    const Points five(many.begin(), many.end() - 1);
    const point centre;
    EXPECT_NE(PointCloud::computeSphericity(many, centre, radius), 0.0);
    for (const Points& cloud : {Points{}, five, Points(100, centre), randomCloud(100, {2e-5, 2e-5, 2e-5}, 4)}) {
        EXPECT_EQ(PointCloud::computeSphericity(cloud, centre, radius), 0.0);
        EXPECT_EQ(PointCloud::computePlanarity(cloud, centre, radius), 0.0);
        EXPECT_EQ(PointCloud::computeLinearity(cloud, centre, radius), 0.0);
    }
    // Eight corners 0.0009 away have variance 3 * 0.81e-6; as many more points at the centre halve it, and 40 of them
    // push it below the limit: all points count, also those that are skipped.
    Points corners;
    for (int c = 0; c < 8; ++c) corners.emplace_back(c & 1 ? 9e-4 : -9e-4, c & 2 ? 9e-4 : -9e-4, c & 4 ? 9e-4 : -9e-4);
    for (int more = 0; more < 8; ++more) corners.emplace_back(centre);
    EXPECT_NEAR(PointCloud::computeSphericity(corners, centre, radius), 1.0, 1e-9);
    for (int more = 0; more < 32; ++more) corners.emplace_back(centre);
    EXPECT_EQ(PointCloud::computeSphericity(corners, centre, radius), 0.0);
    Points broken = many;
    broken[3] = {0, kNaN, 0};
    EXPECT_TRUE(std::isnan(PointCloud::computeLinearity(broken, centre, radius)));
}

// Splines: smooth where pieces meet (but for the jump that the quintic one has on purpose), zero outside.
TEST(PointCloudTest, KernelsHaveTheirSupport) {
    EXPECT_EQ(PointCloud::sph_cubic(0), 1.0);
    EXPECT_EQ(PointCloud::sph_cubic(1), 0.25);
    EXPECT_EQ(PointCloud::sph_quartic(0), 14.375);
    EXPECT_EQ(PointCloud::sph_quintic(0), 243.0 - 192.0 + 15.0);
    EXPECT_EQ(PointCloud::sph_quintic(1), 32.0 - 5.0);
    struct Kernel {
        double (*value)(double) noexcept;
        double support;
        std::vector<double> joints;
    };
    for (const Kernel& kernel :
         {Kernel{&PointCloud::sph_cubic, 2.0, {1.0, 2.0}}, Kernel{&PointCloud::sph_quartic, 2.5, {0.5, 1.5, 2.5}},
          Kernel{&PointCloud::sph_quintic, 3.0, {2.0, 3.0}}}) {
        for (const double outside : {-1e-300, -1.0, kernel.support, 7.0, kNaN, HUGE_VAL, -HUGE_VAL})
            EXPECT_EQ(kernel.value(outside), 0.0) << outside;
        EXPECT_GT(kernel.value(std::nextafter(kernel.support, 0.0) - 1e-3), 0.0);
        for (const double joint : kernel.joints)
            EXPECT_NEAR(kernel.value(std::nextafter(joint, 0.0)), kernel.value(joint), 1e-12) << joint;
    }
    EXPECT_NEAR(PointCloud::sph_quintic(std::nextafter(1.0, 0.0)), 32.0 - 6.0, 1e-12);
}

} // namespace
