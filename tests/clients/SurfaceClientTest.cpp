#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

TEST(SurfaceClientTest, SplitAllNeedsEdgesOnly) {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const auto vertices = grid->makeVertices(2);
    const auto edges = (*(*grid)[SkeletonID(1, 1)])[*vertices];
    edges->setPositions(makeRef<Field>(makeMemArray1D(std::vector<Edge>{{0, 1}, {1, 2}, {2, 0}})));
    EXPECT_EQ(SplitAllCriterion().DetectEdges(grid), std::vector<bool>(3, true));
    EXPECT_TRUE(EdgeLengthCriterion(0.0).DetectEdges(grid).empty());
}

TEST(SurfaceClientTest, TablesAndRefinementTakeHandlesAndObjects) {
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["surface"];
    const auto surface = TriangularSurfaceWithEdges::create(*grid, {{-4, 0, 0}, {4, 0, 0}, {0, 1, 0}, {0, -1, 0}},
                                                            {{0, 1, 2}, {1, 0, 3}});
    const StrongPtr<MemArray<1, Triangle>> triangles = surface.triangles();
    const StrongPtr<MemArray<1, Edge>> edges = surface.edges();
    const auto byHandles = MemArray<1, Edge>::create(edges->Size()),
               byObjects = MemArray<1, Edge>::create(edges->Size());
    GenerateEdge2FacesTable(byHandles, triangles, edges, 2, 5);
    GenerateEdge2FacesTable(*byObjects, *triangles, *edges, 2, 5);
    EXPECT_EQ(byHandles->base_vector(), byObjects->base_vector());
    EXPECT_EQ(byHandles->element(0), Edge(0, 1));

    const StrongPtr<MemArray<1, Edge>> inner = makeMemArray1D(std::vector<Edge>{{0, 1}}), none;
    const auto sides = makeMemArray1D(std::vector<Triangle>(2, Triangle(9, 9, 9)));
    GenerateFace2EdgesTable(sides, inner, triangles, edges, 1, 2);
    EXPECT_EQ(sides->base_vector(), std::vector<Triangle>(2, Triangle(0, 9, 9)));
    GenerateFace2EdgesTable(sides, none, triangles, edges, 1, 2);
    GenerateEdge2FacesTable(none, triangles, edges, 2, 5);
    EXPECT_EQ(sides->element(0), Triangle(0, 9, 9)) << "nothing to read";
    Triangle first(2, 0, 1), second(3, 1, 0);
    OrientTriangleEdges(first, second, edges, 0);
    EXPECT_EQ(first, Triangle(0, 1, 2));
    EXPECT_EQ(second, Triangle(1, 0, 3));

    const EdgeLengthCriterion longEdges(5.0);
    const StrongPtr<EdgeFlipCriterion> flips = makeRef<EdgeFlipCriterion>(1e-3);
    EXPECT_FALSE(refineSurface(*bundle, grid, longEdges));
    EXPECT_FALSE(refineSurface(*bundle, grid, flips));
    EXPECT_FALSE(refineSurface(*bundle, *grid, longEdges));
    EXPECT_FALSE(refineSurface(*bundle, *grid, flips));
    EXPECT_FALSE(refineSurface(*bundle, StrongPtr<Grid>(), nullptr));
}

} // namespace
