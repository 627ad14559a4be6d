#include <baseop/ExactCellLocator.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>

#include <support/CountAllocations.hpp>
#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

TEST(MapperAllocationTest, QueriesAllocateNothing) {
    const BlockPtr block = makeBlock(shapes()[1], {20, 18, 16});
    CaptureStdout();
    const UniGridMapper mapper(block, 1.0, 0.01);
    GetCapturedStdout();
    const TreeCellMapper tree(block, {1.5, 1.5, 1.5}, 0.02, 13);
    const Vantle::ExactCellLocator exact(block);
    std::vector<Point> points;
    for (const Point& index : randomIndices(*block, 500, 1)) points.push_back(positionIn(*block, index));
    points.push_back(Point(0.1, 0.4, 0.5)); // in the box, and not in the block
    Point uvw;
    vector extent;
    std::vector<Vantle::CellLocation> found(points.size());
    EXPECT_EQ(allocationsOf([&] {
                  for (const Point& P : points) {
                      (void)mapper.locate(P, 0.02);
                      (void)mapper.localCellCoordinatesFromCurviGrid(P, uvw, 0.02);
                      (void)tree.localCoordinates(uvw, extent, P);
                      (void)exact.locate(P);
                  }
                  mapper.locate(points, found, 0.02);
                  exact.locate(points, found);
              }),
              0);
    // The first one that needs the lists makes them.
    (void)mapper.locateProjectively(points[0], 0.02);
    EXPECT_EQ(allocationsOf([&] {
                  for (const Point& P : points) (void)mapper.locateProjectively(P, 0.02);
              }),
              0);
}

// Whatever allocation fails, the process lives on, and the next question has its answer; of so many fragments that
// these are found by their tree.
TEST(MapperAllocationTest, QueriesSurviveEachFailedAllocation) {
    std::size_t heard = 0;
    const Hestra::ScopedListener listener([&](std::string_view text) { heard += text.size(); });
    for (long n = 0, hasFailed = 1; hasFailed; ++n) {
        const Scene scene(shapes()[1], 18, {3, 3, 3});
        const auto asked = makeMemArray1D(std::vector<Point>{positionIn(*scene.block("R"), {1.5, 1.5, 1.5})});
        const auto ask = [&] {
            GridEvaluator::Context context;
            context.slice = scene.slice;
            context.grid = scene.grid;
            context.cellLocator = CellLocator::Exact;
            const auto values =
                GridEvaluator().evaluate(asked, *scene.blocks.positions(), context, *scene.blocks.field("linear"));
            const LocalFromWorldPoint locator(scene.slice, scene.grid);
            SurfaceOptions options;
            options.keepEdges = true;
            const auto surface =
                ComputeIsosurface(0.5, Hestra::Ageable(), *scene.grid, "linear", *scene.slice, "surface", 0.0, options);
            return values && locator.locate(asked->element(0)).fragment == 17 &&
                   EvalFieldOnIsosurface(*surface, *scene.blocks.positions());
        };
        allocationsBeforeFailure = n;
        try {
            (void)ask();
        } catch (const std::bad_alloc&) {
        }
        hasFailed = allocationsBeforeFailure.exchange(-1) < 0;
        ASSERT_TRUE(ask()) << n;
    }
    EXPECT_GT(heard, 0u);
}

} // namespace
