#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <gtest/gtest.h>

using namespace Vantle;
using Hestra::StrongPtr;

namespace {

using point = Orvix::PhysicalSpace::point;

// The grid gives origin and spacing, the data their own extents.
TEST(UniformClientTest, AnAxisWithOneNodeIsDividedLikeAnyOther) {
    const auto data = MemArray<3, double>::create({2, 2, 2});
    for (index_t n = 0; n < 8; ++n) data->element(n) = 10.0 + double(n);
    const UniformCartesianArray grid({1, 1, 1}, point(0, 0, 0), Orvix::PhysicalSpace::vector(1, 1, 1));
    StrongPtr<Hestra::ChunkBase> output;
    ASSERT_TRUE(InterpolateUniformData(output, {{1, 0, 0}, {0.5, 0, 0}, {0, 1, 1}}, grid, data));
    EXPECT_EQ(dynamic_cast<Hestra::TypedChunk<double>&>(*output).base_vector(), (std::vector<double>{11, 10.5, 16}));
    StrongPtr<Hestra::ChunkBase> other;
    ASSERT_TRUE(InterpolateUniformData(other, {{1, 0, 0}}, grid, *data));
    EXPECT_EQ(dynamic_cast<Hestra::TypedChunk<double>&>(*other).base_vector()[0], 11);
}

} // namespace
