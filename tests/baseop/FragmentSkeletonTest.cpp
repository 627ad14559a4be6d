#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>

#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

/// Twelve blocks in a row, whose names sort otherwise than they were made.
class FragmentSkeletonTest : public testing::Test {
protected:
    static constexpr index_t kBlocks = 12;

    void SetUp() override {
        RegularGrid3D regular(grid);
        for (index_t i = 0; i < kBlocks; ++i) {
            const auto x = static_cast<double>(i);
            regular.addBlock(std::to_string(i),
                             makeRef<UniformCartesianArray>(BoundingBox(point(x, 0, -x), point(x + 1, 1, 1)),
                                                            MultiIndex<3>(2, 3, 4)));
        }
    }
    void TearDown() override { Hestra::Cache::MemCache()->setUnlimited(); }

    StrongPtr<Grid> grid = makeRef<Grid>();
    CartesianFragments fragments{grid};
};

void expectEmpty(const BoundingBox& box) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(box.minCoord(), point(infinity, infinity, infinity));
    EXPECT_EQ(box.maxCoord(), point(-infinity, -infinity, -infinity));
    EXPECT_FALSE(box.inside(point(0, 0, 0)));
}

} // namespace

TEST_F(FragmentSkeletonTest, NumbersFragmentsInTheOrderOfTheirMaking) {
    EXPECT_TRUE(fragments.buildFragmentCoordinates());
    const auto positions = grid->CartesianPositions();
    for (index_t i = 0; i < kBlocks; ++i) {
        EXPECT_EQ(fragments.getFragmentName(i), std::to_string(i));
        const auto id = fragments.getFragmentID(i);
        EXPECT_EQ(id, positions->getFragmentID(std::to_string(i)));
        const auto box = fragments.getBBox(i), expected = ComputeBBox(positions->getData(id));
        EXPECT_EQ(box->minCoord(), expected->minCoord());
        EXPECT_EQ(box->maxCoord(), expected->maxCoord());
    }
}

TEST_F(FragmentSkeletonTest, StoresWhereOthersFindIt) {
    fragments.buildFragmentCoordinates();
    const auto skeleton = grid->getSkeleton(SkeletonID(3, 2));
    ASSERT_TRUE(skeleton);
    EXPECT_EQ(FragmentSkeleton::makeFragments(*grid), skeleton);
    const auto names = skeleton->findRepresentation(*grid->findVertices(3))->findField("Positions");
    EXPECT_EQ(FragmentSkeleton::makeFragmentNames(*grid), names);
    const auto nameArray = dynamicCast<MemArray<1, std::string>>(names->getData());
    ASSERT_TRUE(nameArray);
    EXPECT_EQ((*nameArray)(10), "10");
    EXPECT_EQ(nameArray->getCreator(), names->getCreator({}));
    const auto corners = skeleton->findRepresentation(*grid->findCartesianChart());
    const auto [min, max] = fragments.makeFragmentCoordinatesMinMax();
    EXPECT_EQ(corners->findField("min"), min);
    EXPECT_EQ(corners->findField("max"), max);
    const auto maxArray = dynamicCast<MemArray<1, point>>(max->getData());
    ASSERT_TRUE(maxArray);
    EXPECT_EQ((*maxArray)(10), point(11, 1, 1));
}

TEST_F(FragmentSkeletonTest, KeepsAllThatItBuiltLastWhateverTheBudget) {
    Hestra::Cache::MemCache()->setLimit(1);
    EXPECT_TRUE(fragments.buildFragmentCoordinates());
    EXPECT_FALSE(fragments.buildFragmentCoordinates());
    EXPECT_EQ(fragments.getFragmentName(3), "3");
    EXPECT_EQ(fragments.getBBox(3)->maxCoord(), point(4, 1, 1));
}

TEST_F(FragmentSkeletonTest, KeepsThePlaceOfFragmentsWithoutBox) {
    const auto positions = grid->CartesianPositions();
    positions->removeData(positions->getFragmentID("4"));
    positions->setPersistentData(makeMemArray1D(std::vector<double>(3)), positions->getFragmentID("6"));
    positions->setPersistentData(makeMemArray1D(std::vector<point>()), positions->getFragmentID("8"));
    fragments.buildFragmentCoordinates();
    for (const index_t i : {4u, 6u, 8u}) {
        EXPECT_EQ(fragments.getFragmentName(i), std::to_string(i));
        expectEmpty(*fragments.getBBox(i));
    }
    EXPECT_EQ(fragments.getFragmentName(11), "11");
    EXPECT_EQ(fragments.getBBox(11)->maxCoord(), point(12, 1, 1));
}

TEST(FragmentSkeletonOf, GridsWithoutVerticesThrowAndWithoutFragmentsAreFinished) {
    for (const StrongPtr<Grid>& grid : {StrongPtr<Grid>(), StrongPtr<Grid>(makeRef<Grid>())}) {
        CartesianFragments fragments(grid);
        EXPECT_THROW(fragments.buildFragmentCoordinates(), FragmentSkeleton::NoVertices);
        EXPECT_THROW(fragments.makeFragmentCoordinatesMinMax(), FragmentSkeleton::NoVertices);
        EXPECT_THROW((void)fragments.getBBox(0), FragmentSkeleton::NoVertices);
        EXPECT_THROW((void)fragments.getFragmentName(0), FragmentSkeleton::NoVertices);
    }
    Grid empty;
    EXPECT_THROW(FragmentSkeleton::makeFragments(empty), FragmentSkeleton::NoVertices);
    try {
        FragmentSkeleton::makeFragmentNames(empty);
        FAIL();
    } catch (const std::exception& problem) {
        EXPECT_STREQ(problem.what(), "FragmentSkeleton: No Vertices in Grid object");
    }
    EXPECT_STREQ(FragmentSkeleton::exception().what(), "FragmentSkeleton Exception");

    const StrongPtr<Grid> verticesOnly = makeRef<Grid>();
    verticesOnly->makeVertices(3);
    EXPECT_TRUE(CartesianFragments(verticesOnly).buildFragmentCoordinates());
    EXPECT_FALSE(CartesianFragments(verticesOnly).buildFragmentCoordinates());
}
