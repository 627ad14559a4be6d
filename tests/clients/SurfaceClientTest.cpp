#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <gtest/gtest.h>

using namespace Vantle;
using Hestra::StrongPtr;

namespace {

using point = Orvix::PhysicalSpace::point;

TEST(SurfaceClientTest, SplitAllNeedsEdgesOnly) {
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const auto vertices = grid->makeVertices(2);
    const auto edges = (*(*grid)[SkeletonID(1, 1)])[*vertices];
    edges->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::vector<Edge>{{0, 1}, {1, 2}, {2, 0}})));
    EXPECT_EQ(SplitAllCriterion().DetectEdges(grid), std::vector<bool>(3, true));
    EXPECT_TRUE(EdgeLengthCriterion(0.0).DetectEdges(grid).empty());
}

} // namespace
