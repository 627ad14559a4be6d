// The exact flow that the tour measures itself against, and its test of what is inside, which knows no cells.

#include "CylinderFlow.hpp"
#include "Inside.hpp"
#include "Messages.hpp"

#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>

namespace {

using namespace tour;
using namespace Vantle;

double difference(double upper, double lower) { return (upper - lower) / 2e-5; }

// Velocity is the gradient of the potential, and has the stated gradient; neither source nor vortex; no flow through
// the wall of the cylinder, nor through z = 0.
TEST(CylinderFlowTest, ObeysItsEquations) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> radii(1.0, 4.0), angles(-3.2, 3.2), heights(0.0, 2.5);
    for (int n = 0; n < 200; ++n) {
        const double radius = n % 4 == 0 ? 1.0 : radii(random), angle = angles(random);
        const Space::point p(radius * std::cos(angle), radius * std::sin(angle), n % 5 == 0 ? 0.0 : heights(random));
        const Space::vector v = CylinderFlow::velocity(p);
        const Gradient gradient = CylinderFlow::velocityGradient(p);
        for (int m = 0; m < 3; ++m) {
            Space::vector step;
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

TEST(RingTest, BlocksShareTheVerticesOfTheirFaces) {
    const RingCells cells{6, 3, 4, 5};
    const DataSet data = makeCylinderFlow(cells);
    using Block = MemArray<3, Space::point>;
    std::vector<Hestra::StrongPtr<Block>> blocks;
    data.grid.positions()->iterate([&](const Hestra::StrongPtr<FragmentID>& fragment, const auto&) {
        blocks.push_back(Hestra::dynamicCast<Block>(data.grid.positions()->getData(fragment)));
        return true;
    });
    ASSERT_EQ(blocks.size(), 6u);
    for (std::size_t b = 0; b < 6; ++b) // the last and the first one, too
        for (index_t k = 0; k <= 5; ++k)
            for (index_t j = 0; j <= 4; ++j)
                EXPECT_EQ((*blocks[b])(index_t{3}, j, k), (*blocks[(b + 1) % 6])(index_t{0}, j, k));
}

// Two ways that have nothing in common: two polygons, and the faces of twisted blocks crossed by lines.
TEST(InsideTest, AgreesWithTheShapeOfTheRing) {
    const RingCells cells{6, 3, 4, 5};
    const DataSet data = makeCylinderFlow(cells);
    const Ring ring(cells);
    const Lattice lattice{{61, 53, 23}, {-4.3, -4.4, -0.2}, {0.1411, 0.1663, 0.1303}};
    const std::vector<bool> inside = positionsInside(*data.grid.grid(), lattice);
    index_t total = 0, different = 0;
    for (index_t n = 0; n < lattice.positions(); ++n) {
        total += inside[n];
        different += inside[n] != ring.isInside(lattice.position(n));
    }
    EXPECT_EQ(different, 0u);
    // The ring's area is that of two regular polygons with 18 corners.
    const double area = 9.0 * std::sin(2.0 * 3.14159265358979 / 18.0) * (16.0 - 1.0);
    const double expected = area * 2.5 / (0.1411 * 0.1663 * 0.1303);
    EXPECT_NEAR(double(total), expected, 0.02 * expected);

    // Lines that run exactly along the edges of blocks.
    const Lattice hard{{9, 9, 5}, {-4.0, -4.0, -0.25}, {1.0, 1.0, 0.75}};
    const std::vector<bool> hardInside = positionsInside(*data.grid.grid(), hard);
    for (index_t n = 0; n < hard.positions(); ++n) {
        const Space::point p = hard.position(n);
        const double radius = std::hypot(p[0], p[1]);
        if (radius > 1.01 && radius < 3.9 && p[2] > 0.0 && p[2] < 2.5) {
            EXPECT_TRUE(hardInside[n]) << p;
        }
        if (radius < 0.95 || radius > 4.01 || p[2] < 0.0 || p[2] > 2.5) {
            EXPECT_FALSE(hardInside[n]) << p;
        }
    }
}

// Lines are counted however they come, up to a limit; what is said before and after goes where it went.
TEST(MessagesTest, CountsLinesAndStopsListening) {
    using Hestra::Console;
    testing::internal::CaptureStdout();
    Console::puts("before");
    Messages all;
    for (const char* text : {"even\n", "o", "dd\neven\n\n", "no end of line"}) Console::write(text);
    all.finish();
    EXPECT_EQ(all.lines(), 5u);
    EXPECT_FALSE(all.isCut());
    EXPECT_EQ(all.summary(), "         2  even\n         1  odd\n         1  \n         1  no end of line\n");

    Messages some(3);
    Console::write("even\neven\n");
    EXPECT_TRUE(Console::isHeard());
    Console::write("even\neven\n");
    EXPECT_FALSE(Console::isHeard());
    some.finish();
    EXPECT_TRUE(some.isCut());
    EXPECT_EQ(some.summary(), "         3  even\n");
    Console::puts("after");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "before\nafter\n");
}

} // namespace
