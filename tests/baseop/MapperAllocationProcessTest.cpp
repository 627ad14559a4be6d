#include <baseop/ExactCellLocator.hpp>
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

} // namespace
