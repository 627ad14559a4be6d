#include <baseop/Interpolate.hpp>
#include <baseop/UniformInterpolation.hpp>

#include <support/Testing.hpp>

namespace {

using Orvix::ByteRGB;

template<class T>
T randomElement(std::mt19937_64& random) {
    std::uniform_real_distribution<double> value(0.0, 255.0);
    if constexpr (std::is_same_v<T, ByteRGB>)
        return {static_cast<unsigned char>(value(random)), static_cast<unsigned char>(value(random)),
                static_cast<unsigned char>(value(random))};
    else if constexpr (std::is_same_v<T, vector>)
        return {value(random), value(random), value(random)};
    else
        return static_cast<T>(value(random));
}

template<class T>
StrongPtr<MemArray<3, T>> randomArray(const MultiIndex<3>& size) {
    std::mt19937_64 random(7);
    return filled<T>(size, [&](index_t) { return randomElement<T>(random); });
}

std::vector<point> randomPoints(std::size_t count, double low, double high) {
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> value(low, high);
    std::vector<point> points(count);
    for (auto& p : points) p = {value(random), value(random), value(random)};
    return points;
}

template<class T>
const std::vector<T>& valuesOf(const StrongPtr<Hestra::ChunkBase>& chunk) {
    return dynamic_cast<const Hestra::TypedChunk<T>&>(*chunk).base_vector();
}

template<class T>
class UniformInterpolationTest : public testing::Test {};
using Types = testing::Types<float, double, long double, PhysicalSpace::vector, ByteRGB>;
TYPED_TEST_SUITE(UniformInterpolationTest, Types);

// The kernel at (p - (origin + offset)) / spacing, bit for bit, inside and outside.
TYPED_TEST(UniformInterpolationTest, EqualsTheKernelAtTheQuotient) {
    const MultiIndex<3> size(7, 5, 4);
    const auto data = randomArray<TypeParam>(size);
    const UniformCartesianArray grid(size, point(0.1, -0.3, 2.0), vector(0.1, 0.3, 0.7));
    const Orvix::FixedArray<double, 3> offset(0.05, 0.0, -2.5);
    const auto points = randomPoints(20'001, -1.0, 2.5);
    support::forTeamsUpTo(3, [&] {
        StrongPtr<Hestra::ChunkBase> output;
        ASSERT_TRUE(InterpolateUniformData(output, points, grid, data, offset));
        const auto& values = valuesOf<TypeParam>(output);
        ASSERT_EQ(values.size(), points.size());
        for (std::size_t n = 0; n < points.size(); ++n) {
            Orvix::FixedArray<double, 3> index;
            for (int d = 0; d < 3; ++d) index[d] = (points[n][d] - (grid.origin()[d] + offset[d])) / grid.spacing()[d];
            ASSERT_EQ(values[n], (interpolateAt<3, TypeParam>(*data, index))) << n;
        }
        std::size_t asked = 0; // in order, by this thread
        ASSERT_TRUE(InterpolateUniformData(output, points, grid, data, offset,
                                           [&](std::size_t n, const point&) { return n == asked++; }));
        EXPECT_EQ(asked, points.size());
    });
}

TYPED_TEST(UniformInterpolationTest, AChunkOfTheTypeIsUsedAgainAndAFilterKeepsItsElements) {
    const auto data = randomArray<TypeParam>({2, 2, 2});
    const UniformCartesianArray grid(BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2});
    const std::vector<point> points{{0, 0, 0}, {1, 1, 1}, {1, 0, 0}};
    std::mt19937_64 random(3);
    const auto before = randomElement<TypeParam>(random);
    StrongPtr<Hestra::ChunkBase> output(new Hestra::TypedChunk<TypeParam>(std::vector<TypeParam>(2, before)));
    const StrongPtr<Hestra::ChunkBase> same = output;

    ASSERT_TRUE(
        InterpolateUniformData(output, points, grid, data, {}, [](std::size_t, const point&) { return false; }));
    EXPECT_EQ(output, same);
    EXPECT_EQ(valuesOf<TypeParam>(output), (std::vector<TypeParam>{before, before, TypeParam{}}));

    ASSERT_TRUE(InterpolateUniformData(output, points, grid, data, {},
                                       [](std::size_t k, const point& p) { return k == 1 && p[0] == 1; }));
    EXPECT_EQ(valuesOf<TypeParam>(output), (std::vector<TypeParam>{before, data->last(), TypeParam{}}));

    output = StrongPtr<Hestra::ChunkBase>(new Hestra::TypedChunk<int>(3));
    ASSERT_TRUE(InterpolateUniformData(output, points, grid, data));
    EXPECT_EQ(valuesOf<TypeParam>(output)[0], data->first());
}

// The grid gives origin and spacing, the data their own extents.
TEST(UniformInterpolation, AnAxisWithOneNodeIsDividedLikeAnyOther) {
    const auto data = filled<double>({2, 2, 2}, [](index_t n) { return 10 + n; });
    const UniformCartesianArray grid({1, 1, 1}, point(0, 0, 0), vector(1, 1, 1));
    StrongPtr<Hestra::ChunkBase> output;
    ASSERT_TRUE(InterpolateUniformData(output, {{1, 0, 0}, {0.5, 0, 0}, {0, 1, 1}}, grid, data));
    EXPECT_EQ(valuesOf<double>(output), (std::vector<double>{11, 10.5, 16}));
    StrongPtr<Hestra::ChunkBase> other;
    ASSERT_TRUE(InterpolateUniformData(other, {{1, 0, 0}}, grid, *data));
    EXPECT_EQ(valuesOf<double>(other)[0], 11);
}

TEST(UniformInterpolation, AxesWithoutIndexAndNaNMeanTheFirstNode) {
    const auto data = randomArray<double>({3, 3, 3});
    const UniformCartesianArray flat(BoundingBox({0, 0, 1}, {2, 2, 1}), {3, 3, 3});
    StrongPtr<Hestra::ChunkBase> output;
    const std::vector<point> points{{1, 2, 1}, {1, 2, 7}, {1, 2, kNaN}, {1, 2, kInfinity}};
    ASSERT_TRUE(InterpolateUniformData(output, points, flat, data));
    EXPECT_EQ(valuesOf<double>(output), std::vector<double>(4, (*data)(1, 2, 0)));
    const UniformCartesianArray cube(BoundingBox({0, 0, 0}, {2, 2, 2}), {3, 3, 3});
    ASSERT_TRUE(InterpolateUniformData(output, {{kNaN, 1, 1}, {kInfinity, 1, 1}, {-kInfinity, 1, 1}}, cube, data));
    EXPECT_EQ(valuesOf<double>(output), (std::vector<double>{(*data)(0, 1, 1), (*data)(2, 1, 1), (*data)(0, 1, 1)}));
}

TEST(UniformInterpolation, WhatDoesNotMatchLeavesTheOutputUntouched) {
    const UniformCartesianArray grid({2, 2, 2}, point(0, 0, 0), vector(1, 1, 1));
    const StrongPtr<Hestra::ChunkBase> before(new Hestra::Chunk<int>{1, 2});
    StrongPtr<Hestra::ChunkBase> output = before;
    const StrongPtr<MemBase> ints = MemArray<3, int>::create({2, 2, 2}), plane = MemArray<2, double>::create({2, 2});
    for (const auto& data : {ints, plane, StrongPtr<MemBase>()})
        EXPECT_FALSE(InterpolateUniformData(output, {{0, 0, 0}}, grid, data));
    EXPECT_EQ(output, before);
    EXPECT_EQ(valuesOf<int>(output), (std::vector<int>{1, 2}));

    ASSERT_TRUE(InterpolateUniformData(output, {{0, 0, 0}}, grid, MemArray<3, double>::create({0, 2, 2})));
    EXPECT_EQ(valuesOf<double>(output), std::vector<double>{0.0}) << "nothing to interpolate";
}

// Truncated at the level of axis 1 and again at axis 2; a mean never gets brighter by rounding.
TEST(UniformInterpolation, ColoursThroughDoublesAreTruncated) {
    const auto data = MemArray<3, ByteRGB>::create({2, 1, 1});
    data->element(0) = ByteRGB(200, 10, 0);
    data->element(1) = ByteRGB(201, 11, 1);
    const UniformCartesianArray grid({2, 1, 1}, point(0, 0, 0), vector(1, 1, 1));
    Hestra::TypedChunk<ByteRGB> output;
    TInterpolateUniformDataRGB(output, {{0.5, 0, 0}}, grid, *data);
    EXPECT_EQ(output.base_vector()[0], ByteRGB(200, 10, 0));
    TInterpolateUniformData<ByteRGB>(output, {{0.5, 0, 0}}, grid, *data);
    EXPECT_EQ(output.base_vector()[0], ByteRGB(201, 11, 1)) << "rounded to nearest";
}

} // namespace
