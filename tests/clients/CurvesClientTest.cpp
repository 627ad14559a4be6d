#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

using Computer = TangentialVectorsAndCurveParameter;

class CurvesClientTest : public testing::Test {
protected:
    void SetUp() override {
        const StrongPtr<LineSet::Points> points = makeMemArray1D(std::vector<point>{{0, 0, 0}, {3, 4, 0}});
        const StrongPtr<Computer::Curves> curves = makeMemArray1D(std::vector<std::vector<index_t>>{{0, 1}});
        (void)LineSet(grid, points, curves);
        vertices = grid->getCartesianRepresentation();
        vertices->setField("shifted", field({{0, 0, 0}, {0, 0, 7}}));
        const auto other = grid->makeCartesianRepresentation(1, "other");
        other->setPositions(field({{0, 0, 0}, {11, 0, 0}}));
    }

    static StrongPtr<Field> field(std::vector<point> points) {
        return makeRef<Field>(makeMemArray1D(std::move(points)));
    }
    double lengthOf(const std::string& name, const std::string& chart = {}) {
        return Computer(*grid, name, chart).maximalLength();
    }

    StrongPtr<Grid> grid = makeRef<Grid>();
    StrongPtr<Representation> vertices;
};

TEST_F(CurvesClientTest, EveryVertexFieldAndChartHasResultsOfItsOwn) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(lengthOf("Positions"), 5.0);
        EXPECT_EQ(lengthOf("shifted"), 7.0);
        EXPECT_EQ(lengthOf("Positions", "other"), 11.0);
    }
    const auto plain = dynamicCast<Computer::Parameters>(vertices->findField("length")->getData());
    EXPECT_EQ((*plain)(1), 5.0);
    EXPECT_TRUE(getTangentialVectors(*grid) == vertices->findField("Tangents")->getData());
    EXPECT_EQ((*getTangentialVectors(*grid, "shifted"))(1), vector(0, 0, 1));
    // Moving one field leaves the results of the other.
    const auto kept = getTangentialVectors(*grid);
    vertices->findField("shifted")->setPersistentData(makeMemArray1D(std::vector<point>{{0, 0, 0}, {0, 8, 0}}));
    EXPECT_EQ(lengthOf("shifted"), 8.0);
    EXPECT_TRUE(getTangentialVectors(*grid) == kept);
}

TEST_F(CurvesClientTest, NamesHaveDefaults) {
    EXPECT_EQ(lengthOf(""), 5.0);
    EXPECT_EQ(lengthOf("", "no such chart"), 5.0);
    EXPECT_EQ(lengthOf("shifted", "no such chart"), 7.0);
    EXPECT_EQ(lengthOf("", "other"), 11.0);
    EXPECT_TRUE(getTangentialVectors(*grid, "") == getTangentialVectors(*grid));
    EXPECT_THROW(lengthOf("none"), Computer::NoVertexField);
}

TEST_F(CurvesClientTest, TakesHandlesAndObjects) {
    const auto points = makeMemArray1D(std::vector<point>{{0, 0, 0}, {0, 2, 0}});
    const auto curves = makeMemArray1D(std::vector<std::vector<index_t>>{{0, 1}});
    const auto shorts = makeMemArray1D(std::vector<std::vector<unsigned int>>{{1, 0}});
    const StrongPtr<CreativeArrayBase> creator = grid->CartesianPositions()->getCreator(nullptr);
    Computer byHandles(grid);
    EXPECT_EQ(byHandles.maximalLength(), 5.0);
    byHandles.compute(points, curves, creator);
    EXPECT_EQ(byHandles.maximalLength(), 2.0);
    EXPECT_TRUE(byHandles.tangents()->getCreator() == creator);
    byHandles.compute(points, shorts);
    EXPECT_EQ((*byHandles.curveParameters())(0), 2.0);
    EXPECT_EQ((*ComputeTangentialVectors(points, curves))(1), vector(0, 1, 0));
    EXPECT_EQ((*ComputeTangentialVectors(points, shorts, creator))(1), vector(0, -1, 0));
    EXPECT_EQ((*ComputeTangentialVectors(*points, *curves))(1), vector(0, 1, 0));
    EXPECT_TRUE(getTangentialVectors(grid) == getTangentialVectors(*grid));

    EXPECT_THROW(byHandles.compute(StrongPtr<Computer::Points>(), curves), Computer::NoVertexFieldData);
    EXPECT_THROW(byHandles.compute(points, StrongPtr<Computer::Curves>()), Computer::NoEdgePositions);
    EXPECT_EQ(byHandles.maximalLength(), 2.0);
    static_assert(std::is_copy_constructible_v<Computer::Exception>, "some catch it by value");
    try {
        (void)getTangentialVectors(StrongPtr<Grid>());
        FAIL();
    } catch (const Computer::Exception& any) {
        EXPECT_STRNE(any.what(), "");
    }
}

} // namespace
