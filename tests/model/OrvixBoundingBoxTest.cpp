#include <support/Testing.hpp>

namespace {

using namespace Orvix;

bool sameNumber(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void expectSame(const BoundingBox& a, const BoundingBox& b) {
    EXPECT_EQ(a.isEmpty(), b.isEmpty());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(sameNumber(a.minCoord()[i], b.minCoord()[i])) << a.minCoord() << b.minCoord();
        EXPECT_TRUE(sameNumber(a.maxCoord()[i], b.maxCoord()[i])) << a.maxCoord() << b.maxCoord();
    }
}

BoundingBox boxOf(std::initializer_list<double> xs) {
    BoundingBox box;
    for (const double x : xs) box.embrace(point(x, 1, 2));
    return box;
}

TEST(OrvixBoundingBox, NumbersAfterNaNReplaceTheMinimumOnly) {
    const BoundingBox box = boxOf({5, kNaN, 7});
    EXPECT_EQ(box.minCoord()[0], 7.0);
    EXPECT_EQ(box.maxCoord()[0], 7.0);
    EXPECT_TRUE(std::isnan(boxOf({5, 7, kNaN}).minCoord()[0]));
    EXPECT_EQ(boxOf({5, 7, kNaN}).maxCoord()[0], 7.0);
    EXPECT_EQ(boxOf({9, kNaN, 3}).maxCoord()[0], 9.0);
    const BoundingBox first = boxOf({kNaN, 4, 3, 8});
    EXPECT_EQ(first.minCoord()[0], 3.0);
    EXPECT_TRUE(std::isnan(first.maxCoord()[0]));
    EXPECT_EQ(first.minCoord()[1], 1.0); // the other axes do not notice
}

TEST(OrvixBoundingBox, EmbraceLawsHoldForRandomBoxes) {
    std::mt19937 random(11);
    std::uniform_int_distribution<int> number(-4, 4);
    const auto coordinate = [&] { return random() % 20 == 0 ? kNaN : number(random); };
    for (int round = 0; round < 2000; ++round) {
        std::vector<point> points(1 + random() % 6);
        for (point& p : points) p = point(coordinate(), coordinate(), coordinate());
        BoundingBox box;
        for (const point& p : points) box.embrace(p);

        BoundingBox byBox = box, byCorners = box, onePoint(points[0], points[0]), copy = box;
        const BoundingBox other(point(coordinate(), coordinate(), coordinate()),
                                point(coordinate(), coordinate(), coordinate()));
        byBox.embrace(other);
        byCorners.embrace(other.minCoord());
        byCorners.embrace(other.maxCoord());
        expectSame(byBox, byCorners);
        for (const point& p : points) onePoint.embrace(BoundingBox(p, p));
        expectSame(onePoint, box);
        copy.embrace(BoundingBox());
        expectSame(copy, box);
        for (const point& p : points) {
            bool finite = true;
            for (const point& each : points)
                for (const double c : each) finite &= !std::isnan(c);
            EXPECT_TRUE(!finite || box.inside(p));
        }
    }
}

TEST(OrvixBoundingBox, IsClosedAndTestsUpToTheNamedAxis) {
    const point min(-1, 0, 2), max(1, 0, 3);
    const BoundingBox box(min, max);
    EXPECT_TRUE(box.inside(min) && box.inside(max));
    EXPECT_FALSE(box.inside(point(1, std::nextafter(0.0, 1.0), 3)));
    const point onlyX(0, 9, 9), onlyXY(0, 0, 9), onlyYZ(9, 0, 2.5);
    EXPECT_TRUE(box.inside(onlyX, 'x') && !box.inside(onlyX, 'y') && !box.inside(onlyX, 'z'));
    EXPECT_TRUE(box.inside(onlyXY, 'y') && !box.inside(onlyXY));
    EXPECT_FALSE(box.inside(onlyYZ, 'x') || box.inside(onlyYZ, 'y') || box.inside(onlyYZ, 'z'));
    EXPECT_FALSE(box.inside(point(0, 0, kNaN)));
    EXPECT_FALSE(BoundingBox().inside(point()));
    const BoundingBox reversed(max, min); // kept as given
    EXPECT_EQ(reversed.minCoord(), max);
    EXPECT_FALSE(reversed.isEmpty() || reversed.inside(point(0, 0, 2.5)));
}

TEST(OrvixBoundingBox, IsAttachedAsTheBoundsOfAnObject) {
    const Hestra::Intercube object;
    const StrongPtr<BoundingBox> box = makeRef<BoundingBox>(point(), point(1, 1, 1));
    object.addInterface(box);
    const auto ball = object.findInterface<BoundingBall>();
    EXPECT_EQ(dynamicCast<BoundingBox>(ball), box);
    EXPECT_EQ(object.findInterface<BoundingBox>(), box);
    object.addInterface(makeRef<BoundingBox>(*box));
    EXPECT_FALSE(object.findInterface<BoundingBall>() == box) << "one box an object, and a copy is another one";
}

} // namespace
