// The exact flow that the tour measures itself against.

#include "CylinderFlow.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace {

using namespace tour;

double difference(double upper, double lower) { return (upper - lower) / 2e-5; }

// Velocity is the gradient of the potential, and has the stated gradient; neither source nor vortex; no flow through
// the wall of the cylinder, nor through z = 0.
TEST(CylinderFlowTest, ObeysItsEquations) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> radii(1.0, 4.0), angles(-3.2, 3.2), heights(0.0, 2.5);
    for (int n = 0; n < 200; ++n) {
        const double radius = n % 4 == 0 ? 1.0 : radii(random), angle = angles(random);
        const Point p(radius * std::cos(angle), radius * std::sin(angle), n % 5 == 0 ? 0.0 : heights(random));
        const Vector v = CylinderFlow::velocity(p);
        const Gradient gradient = CylinderFlow::velocityGradient(p);
        for (int m = 0; m < 3; ++m) {
            Vector step;
            step[m] = 1e-5;
            EXPECT_NEAR(difference(CylinderFlow::potential(p + step), CylinderFlow::potential(p - step)), v[m], 1e-8);
            for (int c = 0; c < 3; ++c) {
                const double upper = CylinderFlow::velocity(p + step)[c], lower = CylinderFlow::velocity(p - step)[c];
                EXPECT_NEAR(difference(upper, lower), gradient(m, c), 1e-7);
                EXPECT_EQ(gradient(m, c), gradient(c, m));
            }
        }
        EXPECT_NEAR(gradient(0, 0) + gradient(1, 1) + gradient(2, 2), 0.0, 1e-14);
        if (radius == 1.0) {
            EXPECT_NEAR(v[0] * p[0] + v[1] * p[1], 0.0, 1e-14);
        }
        if (p[2] == 0.0) {
            EXPECT_EQ(v[2], 0.0);
        }
        EXPECT_NEAR(CylinderFlow::pressure(p), 1.0 - CylinderFlow::speed(p) * CylinderFlow::speed(p), 1e-14);
    }
}

} // namespace
