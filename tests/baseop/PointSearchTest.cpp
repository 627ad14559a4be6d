#include <baseop/PointSearch.hpp>

#include <support/LocationGrids.hpp>
#include <support/Testing.hpp>

namespace {

StrongPtr<Grid> blockGrid(Slice& slice, const std::string& name) {
    const StrongPtr<Grid> grid = slice.newGrid(name);
    support::makeBlocks(*grid, support::shapes()[0], 2, {3, 3, 3});
    return grid;
}

// What one search stores, the next one of the same grid and field finds, and no other.
TEST(PointSearchTest, SharesStorageWithinOneGridAndFieldOnly) {
    const StrongPtr<Slice> slice = makeRef<Slice>();
    const auto grid = blockGrid(*slice, "grid"), other = blockGrid(*slice, "other");
    GridWithCartesianVertices(grid, 3).setField("Moved", support::makeBlock(support::shapes()[0], {3, 3, 3}));
    CaptureStdout();
    const PointSearch first(slice, grid), second(slice, grid), ofOther(slice, other), ofField(slice, grid, "Moved");
    EXPECT_EQ(GetCapturedStdout(), "") << "the constructor is silent";

    ASSERT_TRUE(first.helperField());
    EXPECT_EQ(first.helperField(), second.helperField());
    EXPECT_EQ(first.mapperField<TreeCellMapper>(), second.mapperField<TreeCellMapper>());
    std::vector<const Field*> fields;
    for (const auto* search : {&first, &ofOther, &ofField})
        for (const auto* field : {&search->mapperField<UniGridMapper>(), &search->mapperField<TreeCellMapper>(),
                                  &search->mapperField<ExactCellLocator>()})
            fields.push_back(field->rawptr());
    std::sort(fields.begin(), fields.end());
    EXPECT_EQ(std::unique(fields.begin(), fields.end()), fields.end()) << "no two grids or fields share a storage";

    // The mappers' field is known by name and as the positions of the cells' fragments.
    const auto helperCells = (*slice)(std::string("Positions.UniMappers"))->getSkeleton(SkeletonID(3, 1));
    const auto asUniCell = grid->getSkeleton(SkeletonID(3, 2))->findRepresentation(*helperCells);
    ASSERT_TRUE(asUniCell);
    EXPECT_EQ(asUniCell->Positions(), first.helperField());
    EXPECT_EQ(asUniCell->findField("Positions.UniMappers"), first.helperField());
    EXPECT_EQ(first.helperField()->getFragmentIDCollection(), grid->CartesianPositions()->getFragmentIDCollection());

    const auto block = grid->CartesianPositions()->getFragmentID("B");
    EXPECT_FALSE(PointSearch::hasLookupFragment(first.helperField(), block));
    first.helperField()->setPersistentData(makeMemArray1D(std::vector<double>{0}), block);
    EXPECT_TRUE(PointSearch::hasLookupFragment(second.helperField(), block));
    EXPECT_FALSE(PointSearch::hasLookupFragment(nullptr, block));
}

TEST(PointSearchTest, GridsWithoutVerticesHaveNoCells) {
    const StrongPtr<Slice> slice = makeRef<Slice>();
    const StrongPtr<Grid> bare = slice->newGrid("bare");
    try {
        (void)PointSearch::CellID(bare);
        FAIL() << "no exception";
    } catch (const PointSearch::exception& problem) {
        EXPECT_STREQ(problem.what(), "PointSearch: No Vertices in Grid object");
    }
    EXPECT_STREQ(PointSearch::exception().what(), "PointSearch Exception");
    EXPECT_THROW(PointSearch(slice, bare), PointSearch::NoVertices);
    EXPECT_THROW((void)PointSearch::CellID(nullptr), PointSearch::NoVertices);
    EXPECT_FALSE(PointSearch(slice, nullptr).helperField());
    EXPECT_FALSE(PointSearch(nullptr, blockGrid(*slice, "grid")).helperField());
    EXPECT_EQ(PointSearch::CellID((*slice)(std::string("grid"))), SkeletonID(3, 1));
}

TEST(PointSearchTest, LookUpNamesTheMissingLink) {
    const StrongPtr<Slice> slice = makeRef<Slice>();
    const auto grid = blockGrid(*slice, "grid");
    const auto said = [](const StrongPtr<Slice>& in, const StrongPtr<Grid>& of) {
        CaptureStdout();
        EXPECT_FALSE(PointSearch::getHelperField(in, of, "Positions"));
        std::string text = GetCapturedStdout();
        const std::string enter = "PointSearch::getHelperField() ENTER!\nPointSearch::getHelperField() no ";
        EXPECT_EQ(text.substr(0, enter.size()), enter);
        return text.size() < enter.size() ? text : text.substr(enter.size());
    };
    EXPECT_EQ(said(nullptr, grid), "slice!\n");
    EXPECT_EQ(said(slice, nullptr), "grid!\n");
    EXPECT_EQ(said(slice, grid), "helper grid!\n");
    const StrongPtr<Grid> helper = (*slice)["Positions.UniMappers"];
    EXPECT_EQ(said(slice, grid), "helper skeleton!\n");
    EXPECT_EQ(said(slice, slice->newGrid("bare")), "helper skeleton!\n");
    const auto cells = (*helper)[SkeletonID(3, 1)];
    EXPECT_EQ(said(slice, grid), "fragmentskeleton!\n");
    const auto fragments = (*grid)[SkeletonID(3, 2)];
    EXPECT_EQ(said(slice, grid), "FragmentsAsUniCell!\n");
    (void)(*fragments)[*cells];
    EXPECT_EQ(said(slice, grid), "FragmentsAsUniCell Position Field\n");

    const PointSearch search(slice, grid);
    CaptureStdout();
    EXPECT_EQ(PointSearch::getHelperField(slice, grid, "Positions"), search.helperField());
    EXPECT_EQ(GetCapturedStdout(), "PointSearch::getHelperField() ENTER!\n");
}

} // namespace
