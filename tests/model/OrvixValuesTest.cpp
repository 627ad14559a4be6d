#include <support/Testing.hpp>

namespace {

using namespace Orvix;

template<class A, class B>
concept Addable = requires(A a, B b) {
    a + b;
};

// The three kinds of triples must not pass for each other, or overloads on them become ambiguous.
static_assert(!std::is_convertible_v<point, vector> && !std::is_convertible_v<vector, point>);
static_assert(!std::is_convertible_v<vector, PhysicalSpace::bivector>);
static_assert(!std::is_convertible_v<FixedArray<double, 3>, point> && !std::is_convertible_v<double, vector>);
static_assert(!std::is_convertible_v<Coordinates<Cartesian3D, float>::point, point>);
static_assert(!Addable<point, point> && Addable<point, vector> && !Addable<vector, point>);
static_assert(std::is_same_v<decltype(point() - point()), vector> &&
              std::is_same_v<decltype(point() - vector()), point>);
constexpr PhysicalSpace::Metric Upper(11, 12, 13, 22, 23, 33);
static_assert(Upper(0, 2) == 13 && Upper(2, 0) == 13 && Upper(1, 1) == 22 && Upper(2, 1) == 23 && Upper(2, 2) == 33);
static_assert(sizeof(ByteRGB) == 3 && sizeof(ByteRGBA) == 4 && std::is_trivially_copyable_v<ByteRGB>);

TEST(OrvixValues, LengthHasTheRangeOfItsComponents) {
    EXPECT_EQ(length(vector(3, -4, 0)), 5.0);
    EXPECT_EQ(length(vector(3e300, 0, 4e300)), 5e300);
    EXPECT_EQ(length(vector(0, std::ldexp(3.0, -1060), std::ldexp(-4.0, -1060))), std::ldexp(5.0, -1060));
    EXPECT_EQ(length(vector(-0.0, 0, 0)), 0.0);
    for (int axis = 0; axis < 3; ++axis) {
        vector v;
        v[axis] = std::numeric_limits<double>::quiet_NaN();
        EXPECT_TRUE(std::isnan(length(v))) << axis;
    }
}

// Weighted sums round once: a weighted mean of equal colours is that colour, and none leaves the range of its ends.
TEST(OrvixValues, WeightedByteColoursRoundOnceAndClamp) {
    for (int low = 0; low < 256; low += 3)
        for (int high = low; high < 256; high += 7)
            for (double w = 0.0; w <= 1.0; w += 0.01) {
                const ByteRGB a(low, high, low), b(high, low, low);
                const ByteRGB mean(a * (1.0 - w) + b * w);
                const double exact = low + (high - low) * w;
                ASSERT_LE(std::fabs(mean[0] - exact), 0.5 + 1e-9);
                ASSERT_EQ(mean[2], low);
            }
    EXPECT_EQ(ByteRGB(ByteRGB(77, 179, 1) * 0.5 + ByteRGB(179, 77, 2) * 0.5), ByteRGB(128, 128, 2));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(ByteRGB(ByteRGB(200, 1, 255) * 2.0), ByteRGB(255, 2, 255));
    EXPECT_EQ(ByteRGB(ByteRGB(200, 0, 9) * -1e300), ByteRGB(0, 0, 0));
    EXPECT_EQ(ByteRGBA(ByteRGBA(1, 2, 3, 4) * nan), ByteRGBA(0, 0, 0, 0));
    EXPECT_EQ(ByteRGB(ByteRGB::real_type(0.49999999999999994, 254.5, 0.5)), ByteRGB(0, 255, 1));
}

} // namespace
