#include <baseop/UniformCell.hpp>

#include <support/Testing.hpp>
#include <unistd.h>

namespace {

// Made from the answer: a point well inside a known cell.
TEST(UniformCellTest, FindsTheCellAPointWasMadeIn) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> place(-5.0, 5.0), width(0.01, 3.0), within(0.01, 0.99);
    for (int n = 0; n < 2000; ++n) {
        const point origin(place(random), place(random), place(random));
        const vector spacing(width(random), width(random), width(random));
        const MultiIndex<3> counts(1 + random() % 9, 1 + random() % 9, 1 + random() % 9);
        const MultiIndex<3> made(random() % counts[0], random() % counts[1], random() % counts[2]);
        point p = origin;
        for (int d = 0; d < 3; ++d) p[d] += (static_cast<double>(made[d]) + within(random)) * spacing[d];
        MultiIndex<3> cell;
        ASSERT_TRUE(uniformCellFromPosition(p, origin, spacing, counts, cell));
        EXPECT_EQ(cell, made);
        EXPECT_TRUE(isPositionInInnerRegion(p, origin, spacing, made, 0.0));
        EXPECT_FALSE(isPositionInInnerRegion(p, origin, spacing, made + MultiIndex<3>(1, 0, 0), 0.0));
    }
}

TEST(UniformCellTest, CellsOwnTheirLowerFacesAndTheLatticeHasNoUpperOnes) {
    const point origin(1, 2, 3);
    const vector unit(1, 1, 1);
    const MultiIndex<3> counts(4, 4, 4);
    MultiIndex<3> cell(9, 9, 9);
    EXPECT_TRUE(uniformCellFromPosition(origin, origin, unit, counts, cell));
    EXPECT_EQ(cell, MultiIndex<3>(0, 0, 0));
    EXPECT_TRUE(uniformCellFromPosition({3, 2, 3}, origin, unit, counts, cell));
    EXPECT_EQ(cell, MultiIndex<3>(2, 0, 0));
    EXPECT_TRUE(uniformCellFromPosition({-0.0, 0, 0}, {0, 0, 0}, unit, counts, cell));
    EXPECT_FALSE(uniformCellFromPosition({5, 2, 3}, origin, unit, counts, cell));
    EXPECT_FALSE(uniformCellFromPosition({1, std::nextafter(2.0, 0.0), 3}, origin, unit, counts, cell));
    EXPECT_FALSE(uniformCellFromPosition(origin, origin, unit, {0, 4, 4}, cell));
}

TEST(UniformCellTest, AxesAreWrittenOneAfterTheOtherBeforeTheyAreJudged) {
    MultiIndex<3> cell(9, 9, 9);
    EXPECT_FALSE(uniformCellFromPosition({1.5, 7.5, 0.5}, {0, 0, 0}, {1, 1, 1}, {4, 4, 4}, cell));
    EXPECT_EQ(cell, MultiIndex<3>(1, 7, 9));
    EXPECT_FALSE(uniformCellFromPosition({1e300, 0, 0}, {0, 0, 0}, {1, 1, 1}, {4, 4, 4}, cell));
    EXPECT_EQ(cell[0], 4u) << "an index that does not fit is not formed";
}

TEST(UniformCellTest, NaNAndFlatLatticesContainNothing) {
    MultiIndex<3> cell;
    for (int axis = 0; axis < 3; ++axis) {
        point p(0.5, 0.5, 0.5);
        p[axis] = kNaN;
        EXPECT_FALSE(uniformCellFromPosition(p, {0, 0, 0}, {1, 1, 1}, {1, 1, 1}, cell));
        EXPECT_FALSE(isPositionInInnerRegion(p, {0, 0, 0}, {1, 1, 1}, {0, 0, 0}, 0.0));
    }
    EXPECT_FALSE(uniformCellFromPosition({0, 0, 0}, {0, 0, 0}, {0, 1, 1}, {1, 1, 1}, cell));
    EXPECT_FALSE(uniformCellFromPosition({1, 0, 0}, {0, 0, 0}, {0, 1, 1}, {1, 1, 1}, cell));
}

TEST(UniformCellTest, TheMarginIsTakenOffTheLowerSideOnly) {
    const auto inner = [](double x, double ghost) {
        return isPositionInInnerRegion({x, 0.5, 0.5}, {0, 0, 0}, {1, 1, 1}, {0, 0, 0}, ghost);
    };
    EXPECT_TRUE(inner(0.0, 0.0));
    EXPECT_TRUE(inner(1.0, 0.0)) << "the upper face belongs to the region";
    EXPECT_FALSE(inner(0.2, 0.25));
    EXPECT_TRUE(inner(0.25, 0.25));
    EXPECT_TRUE(inner(0.99, 0.25));
    EXPECT_FALSE(inner(0.5, 1.5)) << "no inner region is left";
}

TEST(UniformCellTest, TheBoxFormUsesTheLeastCorner) {
    const StrongPtr<BoundingBox> box(new BoundingBox({1, 1, 1}, {2, 2, 2}));
    MultiIndex<3> cell;
    EXPECT_TRUE(uniformCellFromPosition({1.75, 1.0, 1.25}, box, 0.25, {4, 4, 4}, cell));
    EXPECT_EQ(cell, MultiIndex<3>(3, 0, 1));
}

TEST(UniformCellDeathTest, WithoutABoxTheProcessEnds) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    MultiIndex<3> cell;
    // Standard output of the child goes to standard error, where the message can be seen.
    EXPECT_EXIT((dup2(2, 1), (void)uniformCellFromPosition({0, 0, 0}, nullptr, 1.0, {1, 1, 1}, cell)),
                testing::ExitedWithCode(0), "\nuniformCellFromPosition\\(\\) No bounding box\n");
}

} // namespace
