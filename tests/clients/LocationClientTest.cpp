#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

using Block = MemArray<3, point>;

StrongPtr<Block> box(const point& low) {
    return filled<point>(
        {4, 4, 4}, [&](const MultiIndex<3>& i) { return low + vector(double(i[0]), double(i[1]), double(i[2])); });
}

struct LocationClientTest : testing::Test {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> grid = slice->newGrid("grid");
    RegularGrid3D blocks{grid};
    StrongPtr<FragmentID> first = blocks.addBlock("first", box({0, 0, 0})),
                          second = blocks.addBlock("second", box({3, 0, 0}));
};

// Objects and handles of all kinds, wherever a slice, a grid, a field, a box or a mapper is asked for.
TEST_F(LocationClientTest, TakesObjectsAndHandles) {
    const point p(4.25, 1.5, 2.5);
    LocalPoint found;
    EXPECT_TRUE(LocalFromWorldPoint(*slice, *grid).get(p, found));
    EXPECT_EQ(found.localCoordinates, point(1.25, 1.5, 2.5));
    EXPECT_EQ(found.fragment, second);
    EXPECT_TRUE(LocalFromWorldPoint(slice, *grid, "Positions", 1.0, 0.01, {1.5, 1.5, 1.5}).get(p, found));
    EXPECT_TRUE(LocalFromWorldPoint(WeakPtr<Slice>(slice), grid).get(p, found));
    EXPECT_EQ(PointSearch(*slice, *grid).helperField(), PointSearch(slice, grid, "Positions").helperField());
    EXPECT_EQ(PointSearch::CellID(*grid), PointSearch::CellID(grid));
    EXPECT_EQ(PointSearch::getHelperField(*slice, *grid, "Positions"), PointSearch(slice, grid).helperField());

    const StrongPtr<Vantle::UniGridMapper> mapper(new Vantle::UniGridMapper(box({0, 0, 0}), 1.0, 0.01));
    const WeakPtr<UniGridMapper> weak(mapper);
    const point inside(1.25, 0.5, 2.5);
    HexaHedralCellNewton byStrong(mapper), byWeak(weak), byAddress(mapper.rawptr(), 0.02);
    ProjectiveCell projective(mapper), projectiveByWeak(weak, 0.02);
    for (CurvilinearCell* const cell :
         {static_cast<CurvilinearCell*>(&byStrong), static_cast<CurvilinearCell*>(&byWeak),
          static_cast<CurvilinearCell*>(&byAddress), static_cast<CurvilinearCell*>(&projective),
          static_cast<CurvilinearCell*>(&projectiveByWeak)}) {
        EXPECT_EQ(cell->pointInCell(inside), 1);
        EXPECT_EQ(cell->localCoordinates(), inside);
        EXPECT_EQ(cell->pointInCell({-9, 0, 0}), 0);
    }
    EXPECT_EQ(HexaHedralCellNewton(WeakPtr<UniGridMapper>()).pointInCell(inside), -1);
    EXPECT_EQ(ProjectiveCell(nullptr).pointInCell(inside), -1);
    EXPECT_EQ(ProjectiveCell(nullptr).localCoordinates(), point(-1, -1, -1));
    const StrongPtr<Vantle::TreeCellMapper> tree(new Vantle::TreeCellMapper(box({0, 0, 0}), {1.5, 1.5, 1.5}, 0.02, 0));
    PhysicalSpace::tvector extent;
    point uvw;
    EXPECT_EQ(tree->localCoordinates(uvw, extent, inside), 1U);

    const auto axes = makeRef<RectilinearInterpolation::Coordinates>(
        std::array{ExplicitCoordinateAxisArray<double>({0, 1, 4}), ExplicitCoordinateAxisArray<double>({0.0, 2.0}),
                   ExplicitCoordinateAxisArray<double>({0.0, 1.0})});
    EXPECT_TRUE(RectilinearInterpolation(axes.strong()).find_rectilinear_cell({2.5, 1, 0.5}, uvw));
    EXPECT_EQ(uvw, point(1.5, 0.5, 0.5));

    const StrongPtr<Field> positions = blocks.positions();
    const CellSearch search(positions, getBoundingBox(positions), {4, 4, 4}, 100);
    EXPECT_TRUE(search.findLocation(p, positions));
    EXPECT_EQ(search.findLocation(p, *positions).fragment, 1U);
    EXPECT_FALSE(CellSearch(nullptr, nullptr, {4, 4, 4}, 100).findLocation(p, nullptr));
}

TEST_F(LocationClientTest, ProfilesNameTheOperations) {
    Hestra::Profiler::enable(true);
    LocalPoint found;
    EXPECT_TRUE(LocalFromWorldPoint(slice, grid).get({1.5, 1.5, 1.5}, found));
    Hestra::Profiler::enable(false);
    const auto table = Hestra::Profiler::table();
    const auto has = [&](const std::string& name) {
        return std::any_of(table.begin(), table.end(), [&](const auto& entry) {
            return entry.name.find(name) != std::string::npos && entry.count > 0;
        });
    };
    for (const char* name :
         {"LocalFromWorldPoint::get(point, data)", "LocalFromWorldPoint::get(point, data) Interpolate",
          "localCellCoordinatesFromCurviGrid", "LocalFromWorldPoint::LocalFromWorldPoint() Set Fragment data",
          "Compute bounding boxes of fragments"})
        EXPECT_TRUE(has(name)) << name;
    EXPECT_FALSE(has("LocalFromWorldPoint(): Set Fragment data"));
    Hestra::Profiler::reset();
}

} // namespace
