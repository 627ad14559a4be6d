#include <support/Testing.hpp>

namespace {

using namespace Orvix;
using Polygon = std::vector<point>;

constexpr double TwoPi = 6.283185307179586;

double area(const Polygon& polygon) {
    double twice = 0.0;
    for (std::size_t i = 0; i < polygon.size(); ++i) {
        const point &a = polygon[i], &b = polygon[(i + 1) % polygon.size()];
        twice += a[0] * b[1] - b[0] * a[1];
    }
    return 0.5 * twice;
}

double starRadius(double angle) { return 1.0 + 0.4 * std::sin(5.0 * angle); }

/// A star about the origin, not convex, in the plane z = x + 2 y; `turns` times around.
Polygon star(int vertices, int turns = 1) {
    Polygon polygon;
    for (int i = 0; i < vertices * turns; ++i) {
        const double angle = TwoPi * (i + 0.1) / vertices;
        const double x = starRadius(angle) * std::cos(angle), y = starRadius(angle) * std::sin(angle);
        polygon.emplace_back(x, y, x + 2 * y);
    }
    return polygon;
}

Polygon clipAll(const Polygon& polygon, const BoundingBox& box) {
    return clipping_top(clipping_bottom(clipping_left(clipping_right(polygon, box), box), box), box);
}

TEST(OrvixClipping, BothSidesOfALineMakeTheWholePolygon) {
    std::mt19937 random(2);
    std::uniform_real_distribution<double> number(-1.5, 1.5);
    for (int round = 0; round < 300; ++round) {
        const Polygon whole = star(3 + static_cast<int>(random() % 40));
        const point at(number(random), number(random), 0);
        const BoundingBox above(at, point(9, 9, 9)), below(point(-9, -9, -9), at);
        EXPECT_NEAR(area(clipping_left(whole, above)) + area(clipping_right(whole, below)), area(whole), 1e-14);
        EXPECT_NEAR(area(clipping_bottom(whole, above)) + area(clipping_top(whole, below)), area(whole), 1e-14);
        for (const point& p : clipAll(whole, above)) {
            EXPECT_TRUE(above.inside(p, 'y')) << p;
            EXPECT_NEAR(p[2], p[0] + 2 * p[1], 1e-14);
        }
    }
}

TEST(OrvixClipping, ClipsToTheBoxExactly) {
    const BoundingBox box(point(-0.5, -0.25, 0), point(0.5, 0.375, 0));
    const Polygon hull{{-3, -3, 0}, {3, -3, 0}, {3, 3, 0}, {-3, 3, 0}};
    EXPECT_EQ(area(clipAll(hull, box)), 1.0 * 0.625);
    const Polygon inside{{-0.5, -0.25, 1}, {0.5, 0, 2}, {0, 0.375, 3}};
    EXPECT_EQ(clipAll(inside, box), inside);
    const Polygon touching{{-0.5, 0, 0}, {-1, 0.1, 0}, {-0.5, 0.2, 0}, {0.5, 0.1, 0}};
    EXPECT_EQ(clipping_left(touching, box), (Polygon{touching[0], touching[2], touching[3]}));
}

// Neighbours that share an edge must meet at the same new vertex, or cracks open between them.
TEST(OrvixClipping, CutsAnEdgeAtTheSamePointInBothDirections) {
    Polygon forward = star(23), backward = forward;
    std::reverse(backward.begin(), backward.end());
    const BoundingBox box(point(-0.3, -0.7, 0), point(0.1, 0.77, 0));
    Polygon a = clipAll(forward, box), b = clipAll(backward, box);
    const auto less = [](const point& p, const point& q) {
        return std::lexicographical_compare(p.begin(), p.end(), q.begin(), q.end());
    };
    std::sort(a.begin(), a.end(), less);
    std::sort(b.begin(), b.end(), less);
    EXPECT_EQ(a, b);
}

TEST(OrvixClipping, PointInPolygonKnowsTheStar) {
    std::mt19937 random(8);
    std::uniform_real_distribution<double> number(0, 1);
    const Polygon once = star(400), twice = star(400, 2);
    Polygon other = once;
    std::reverse(other.begin(), other.end());
    std::rotate(other.begin(), other.begin() + 123, other.end());
    for (int round = 0; round < 3000; ++round) {
        const double angle = TwoPi * number(random), radius = 2.0 * number(random);
        if (std::fabs(radius - starRadius(angle)) < 1e-2) continue; // the polygon is not quite the curve
        const point p(radius * std::cos(angle), radius * std::sin(angle), 77);
        const bool inside = radius < starRadius(angle);
        ASSERT_EQ(pointInPolygon(p, once, 0.0), inside);
        ASSERT_EQ(pointInPolygon(p, twice, 0.0), inside);
        ASSERT_EQ(pointInPolygon(p, other, 0.0), inside);
    }
    // The boundary is inside, and so is what is near it.
    for (const point& p : {once[7], once[7] + (once[8] - once[7]) * 0.5}) {
        const point outward = p + (p - point()) * 0.1;
        EXPECT_TRUE(pointInPolygon(p, once, 1e-15) && pointInPolygon(outward, once, length(outward - p)));
        EXPECT_FALSE(pointInPolygon(outward, once, 0.02));
    }
    // Level with vertices, on either side.
    const Polygon diamond{{0, -1, 0}, {1, 0, 0}, {0, 1, 0}, {-1, 0, 0}};
    EXPECT_TRUE(pointInPolygon(point(0.5, 0, 0), diamond, 0.0));
    EXPECT_FALSE(pointInPolygon(point(-1.5, 0, 0), diamond, 0.0) || pointInPolygon(point(1.5, 0, 0), diamond, 0.0));
    EXPECT_FALSE(pointInPolygon(point(-1, 1, 0), diamond, 0.0) || pointInPolygon(point(-1, -1, 0), diamond, 0.0));
}

TEST(OrvixClipping, InnerRayLeavesTheBoxOnAFace) {
    std::mt19937 random(12);
    std::uniform_real_distribution<double> number(0, 1);
    const BoundingBox box(point(-1, 2, 10), point(1, 5, 10.1));
    const vector extent = box.maxCoord() - box.minCoord();
    double exit = 0.0;
    point where;
    for (int round = 0; round < 3000; ++round) {
        const point origin =
            box.minCoord() + vector(extent[0] * number(random), extent[1] * number(random), extent[2] * number(random));
        const vector direction(round % 5 ? number(random) - 0.5 : 0.0, round % 3 ? number(random) - 0.5 : 0.0,
                               number(random) - 0.5);
        ASSERT_TRUE(innerRayCubicIntersect(origin, direction, box, exit, where));
        ASSERT_GE(exit, 0.0);
        ASSERT_TRUE(box.inside(where)) << where;
        ASSERT_LE(distance(where, origin + direction * exit), 1e-14);
        ASSERT_FALSE(box.inside(origin + direction * (exit * 1.0001 + 1e-9)));
        ASSERT_TRUE(where[0] == -1 || where[0] == 1 || where[1] == 2 || where[1] == 5 || where[2] == 10 ||
                    where[2] == 10.1);
    }
    EXPECT_TRUE(innerRayCubicIntersect(point(1, 3, 10), vector(2, 0, 0), box, exit, where));
    EXPECT_EQ(exit, 0.0);
    EXPECT_TRUE(innerRayCubicIntersect(point(0, 3, 10), vector(1e-320, 0, 0), box, exit, where));
    EXPECT_EQ(where, point(1, 3, 10));
}

} // namespace
