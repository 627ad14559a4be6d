#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

StrongPtr<MemArray<3, point>> box(double x) {
    return filled<point>({3, 3, 3},
                         [=](const MultiIndex<3>& i) { return point(x + double(i[0]), double(i[1]), double(i[2])); });
}

/// Two blocks side by side, with doubles in the first and floats in the second.
struct EvaluationClientTest : testing::Test {
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> grid = slice->newGrid("source");
    RegularGrid3D source{grid};
    GridEvaluator::Context context;

    EvaluationClientTest() {
        source.setField("mixed", all(1.5), source.addBlock("doubles", box(0)));
        source.setField("mixed", all(2.5F), source.addBlock("floats", box(2)));
        context.slice = slice;
        context.grid = grid;
    }
    StrongPtr<MemBase> evaluate(const StrongPtr<MemBase>& positions) {
        GridEvaluator evaluator;
        EXPECT_TRUE(evaluator.find(positions, *source.positions(), context));
        return evaluator.evalKnownDataTypes(positions, *source.field("mixed"));
    }
    template<class T>
    static StrongPtr<MemBase> all(T value) {
        return filled<T>({3, 3, 3}, [=](index_t) { return value; });
    }
    static StrongPtr<MemBase> at(std::vector<point> positions) { return makeMemArray1D(std::move(positions)); }
};

// The type is that of the data where the positions are.
TEST_F(EvaluationClientTest, BlocksOfDifferentTypes) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    const auto floats = dynamicCast<MemArray<1, float>>(evaluate(at({{3.5, 1, 1}})));
    ASSERT_TRUE(floats);
    EXPECT_EQ(floats->element(0), 2.5F);
    const auto doubles = dynamicCast<MemArray<1, double>>(evaluate(at({{0.5, 1, 1}, {9, 9, 9}})));
    ASSERT_TRUE(doubles);
    EXPECT_EQ(doubles->element(0), 1.5);
    EXPECT_FALSE(evaluate(at({{0.5, 1, 1}, {3.5, 1, 1}}))) << "no type fits both";
    EXPECT_TRUE(dynamicCast<TypedArray<double>>(evaluate(at({{9, 9, 9}})))) << "the first one's type";
}

// The prescribed members and parameters, and the options that say the same.
TEST_F(EvaluationClientTest, ContextsAndOptions) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    context.coordinateField = "Positions";
    context.resolution = 1.0;
    context.precision = 0.01;
    context.scale = {1.5, 1.5, 1.5};
    context.label = "test";
    context.flag = true;
    EXPECT_TRUE(evaluate(at({{0.5, 1, 1}})));
    EXPECT_TRUE(PointSearch(slice, grid)
                    .mapperField<ExactCellLocator>()
                    ->hasData(source.positions()->getFragmentID("doubles")));
    EvaluationOptions options;
    options.cellLocator = CellLocator::Exact;
    for (const bool isPrescribed : {true, false}) {
        const auto destination = slice->newGrid("destination");
        GridWithCartesianVertices(destination, 3).positions()->setPersistentData(at({{3.5, 1, 1}}));
        const auto field = isPrescribed ? EvalGrid(*destination, *grid, "mixed", *slice, "test", true)
                                        : EvalGrid(*destination, *grid, "mixed", *slice, options);
        ASSERT_TRUE(field);
        const auto values = dynamicCast<MemArray<1, float>>(field->getData());
        EXPECT_EQ(values->element(0), 2.5F);
    }
}

// An evaluator that is used again sees what has changed: its parameters, the field, the field's age.
TEST_F(EvaluationClientTest, EvaluatorsAreUsedAgain) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    GridEvaluator evaluator;
    const auto locations = [&](const Field& positions) {
        EXPECT_TRUE(evaluator.find(at({{0.5, 1, 1}, {50.5, 1, 1}}), positions, context));
        return std::pair(evaluator.statuses()->element(0), evaluator.statuses()->element(1));
    };
    EXPECT_EQ(locations(*source.positions()), std::pair(3, 0));
    const auto id = source.positions()->getFragmentID("doubles");
    EXPECT_FALSE(PointSearch(slice, grid).mapperField<ExactCellLocator>()->hasData(id));
    context.flag = true;
    EXPECT_EQ(locations(*source.positions()), std::pair(3, 0));
    EXPECT_TRUE(PointSearch(slice, grid).mapperField<ExactCellLocator>()->hasData(id)) << "the flag was set";
    GridWithCartesianVertices(grid, 3).setField("Moved", box(50));
    context.coordinateField = "Moved";
    EXPECT_EQ(locations(*(*grid)("Moved")), std::pair(0, 3));
}

// Evaluators of one source, from several threads at once: the same, and nothing is made twice.
TEST_F(EvaluationClientTest, EvaluatorsShareASource) {
    std::vector<point> positions;
    for (int k = 0; k < 2000; ++k) positions.emplace_back(0.002 * k, 0.001 * k, 0.5);
    std::vector<std::string> said(4);
    std::vector<int> located(4);
    support::inThreads(4, [&](unsigned t) {
        const Hestra::ScopedListener listener([&](std::string_view text) { said[t] += text; });
        GridEvaluator evaluator;
        evaluator.find(at(positions), *source.positions(), context);
        for (index_t k = 0; k < 2000; ++k) located[t] += evaluator.statuses()->element(k) == 3;
    });
    std::size_t creations = 0, trees = 0;
    for (std::size_t t = 0; t < 4; ++t) {
        EXPECT_EQ(located[t], 2000);
        for (std::size_t from = 0; (from = said[t].find("Create unimapper", from)) != std::string::npos; ++from)
            ++creations;
        trees += said[t].find("No tree found") != std::string::npos;
    }
    EXPECT_EQ(creations, 2U);
    EXPECT_EQ(trees, 1U);
}

} // namespace
