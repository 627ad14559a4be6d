#include <baseop/EvalGrid.hpp>

#include <support/LocationGrids.hpp>
#include <support/Testing.hpp>

namespace {

using support::linear;
using support::occurrences;
using support::Point;

struct Scene {
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> source = slice->newGrid("source");
    StrongPtr<Grid> destination = slice->newGrid("destination");
    StrongPtr<Field> result;

    std::string evaluate(const std::string& name, bool flag = false) {
        return outputOf([&] { result = EvalGrid(*destination, *source, name, *slice, "test", flag); });
    }
};

// A whole request: curvilinear blocks on the fragments of another grid, by both ways of solving.
TEST(EvalGridTest, EvaluatesBlocksAtTheFragmentsOfAnotherGrid) {
    for (const bool flag : {false, true}) {
        Scene scene;
        support::makeBlocks(*scene.source, support::shapes()[1], 2, {9, 17, 3});
        RegularGrid3D target(scene.destination);
        target.addBlock("left",
                        makeRef<UniformCartesianArray>(BoundingBox({-2, -1, 0}, {0, 2, 1}), MultiIndex<3>(9, 11, 3)));
        target.addBlock("odd", makeMemArray1D(std::vector<double>(4)));
        target.addBlock("points", makeMemArray1D(std::vector<Point>{{0, 1.5, 0.5}, {9, 9, 9}}));
        target.positions()->makeFragmentID("none");
        const std::string text = scene.evaluate("linear", flag);
        const std::string end = "EvalGrid: ok, adding field [linear]\n";
        EXPECT_EQ(text.substr(text.size() - end.size()), end);
        EXPECT_EQ(occurrences(text, flag ? "Create exact locator" : "Create unimapper"), 2);
        EXPECT_EQ(occurrences(text, "Create"), 2);
        EXPECT_EQ(occurrences(text, "Tree found, in"), 1) << "a locator for each fragment";
        ASSERT_TRUE(scene.result);
        EXPECT_EQ(scene.result, target.field("linear"));

        const auto ids = target.positions()->getFragmentIDCollection();
        EXPECT_EQ(scene.result->getFragmentIDCollection(), ids);
        EXPECT_TRUE(scene.result->getCreator(ids->ids()[0]));
        EXPECT_FALSE(scene.result->hasData(ids->ids()[1]) || scene.result->hasData(ids->ids()[3]));
        const auto values = dynamicCast<MemArray<3, double>>(scene.result->getData(ids->ids()[0]));
        ASSERT_TRUE(values);
        EXPECT_EQ(values->Size(), MultiIndex<3>(9, 11, 3));
        int inside = 0;
        for (index_t k = 0; k < values->nElements(); ++k) {
            const Point p =
                dynamic_cast<const UniformCartesianArray&>(*target.positions()->getData(ids->ids()[0])).create(k);
            if (values->element(k) == 0.0) continue;
            ++inside;
            // Exact, but for the linear step's errors, of a small part of a cell.
            EXPECT_NEAR(values->element(k), linear(p), flag ? 1e-9 : 0.05) << p;
        }
        EXPECT_GT(inside, 50);
        const auto two = dynamicCast<MemArray<1, double>>(scene.result->getData(ids->ids()[2]));
        ASSERT_TRUE(two);
        EXPECT_NEAR(two->element(0), linear({0, 1.5, 0.5}), 0.05);
        EXPECT_EQ(two->element(1), 0.0);

        // Asked again, the field is there.
        EXPECT_EQ(scene.evaluate("linear"), "EvalGrid: Destination Field [linear] already exists!\n");
        EXPECT_EQ(scene.result, target.field("linear"));
    }
}

TEST(EvalGridTest, UnfragmentedGridsKeepTheNullFragment) {
    Scene scene;
    const auto lattice = UniformGrid3D::create(*scene.source, BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2});
    UniformGrid3D(lattice).setField("f", MemArray<3, float>::makeMemArray({0, 1, 2, 3, 4, 5, 6, 7}, {2, 2, 2}));
    UniformGrid3D::create(*scene.destination, BoundingBox({0, 0, 0}, {1, 1, 1}), {3, 3, 3});
    EXPECT_EQ(scene.evaluate("f"), "EvalGrid: ok, adding field [f]\n");
    const auto values = dynamicCast<MemArray<3, float>>(scene.result->getData());
    ASSERT_TRUE(values);
    EXPECT_EQ((*values)(1, 1, 1), 3.5f);
    EXPECT_EQ((*values)(2, 1, 0), 2.0f);
}

TEST(EvalGridTest, SaysWhatIsMissing) {
    Scene scene;
    const std::string noField = "EvalGrid: Source Field [f] not found!\n";
    const std::string noCoordinates = "EvalGrid: No coordinates found in destination Grid!\n";
    const auto fails = [&](const std::string& text) {
        EXPECT_EQ(scene.evaluate("f"), text);
        EXPECT_FALSE(scene.result);
    };
    fails(noField); // neither grid has vertices
    const auto lattice = UniformGrid3D::create(*scene.source, BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2});
    fails(noField);
    UniformGrid3D(lattice).setField("f", MemArray<3, int>::create({2, 2, 2}));
    fails(noCoordinates);
    scene.destination->makeVertices(3);
    fails(noCoordinates);
    // Nothing could be evaluated: null without a word, and no field.
    UniformGrid3D::create(*scene.destination, BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2});
    fails("");
    EXPECT_FALSE((*scene.destination)("f"));
    UniformGrid3D(lattice).setField("g", MemArray<3, double>::create({2, 2, 2}));
    lattice.representation()->setPositions({});
    EXPECT_EQ(scene.evaluate("g"), "");
    EXPECT_FALSE(scene.result);

    // On its own grid the field is itself, or null, and nothing is said.
    EXPECT_EQ(outputOf([&] {
                  EXPECT_EQ(EvalGrid(*scene.source, *scene.source, "f", *scene.slice), (*scene.source)("f"));
                  EXPECT_FALSE(EvalGrid(*scene.source, *scene.source, "unknown", *scene.slice));
              }),
              "");
}

TEST(EvalGridTest, IndirectionPicksSourceVertices) {
    Scene scene;
    GridWithCartesianVertices from(scene.source, 3);
    from.setField("f", makeMemArray1D(std::vector<PhysicalSpace::vector>{{1, 0, 0}, {2, 0, 0}, {3, 0, 0}}));
    const StrongPtr<Field> pieces = makeRef<Field>();
    pieces->setPersistentData(makeMemArray1D(std::vector<double>(3)), pieces->makeFragmentID("block"));
    from.representation()->setField("pieces", pieces);
    const auto vertices = scene.destination->makeVertices(3);
    const auto sourceVertices = scene.source->findVertices();
    const auto relative = (*vertices)[*sourceVertices];
    EXPECT_EQ(scene.evaluate("f"),
              "EvalGrid: Relative Representation found, but NO indirection/interpolation weight field!\n");
    const auto setIndices = [&](const StrongPtr<MemBase>& indices) {
        const StrongPtr<Field> field = makeRef<Field>();
        field->setPersistentData(indices);
        relative->setPositions(field);
    };
    setIndices(makeMemArray1D(std::vector<unsigned int>{0, 1}));
    EXPECT_EQ(scene.evaluate("f"), "EvalGrid: Indirection field found, but NO indirection data as indices!\n");
    setIndices(makeMemArray1D(std::vector<index_t>{2, 0, 3}));
    EXPECT_EQ(scene.evaluate("f"), "EvalGrid: Create field data from Indirection FAILED!\n");
    EXPECT_FALSE(scene.result);
    EXPECT_EQ(scene.evaluate("pieces"), "EvalGrid: Only unfragmented source data supported as of now!\n");

    setIndices(MemArray<2, index_t>::makeMemArray({2, 0, 2, 1}, {2, 2}));
    EXPECT_EQ(scene.evaluate("f"), "EvalGrid - YAY, indirection was performed well\n");
    ASSERT_TRUE(scene.result);
    EXPECT_EQ(scene.result, (*scene.destination)("f"));
    const auto picked = dynamicCast<MemArray<2, PhysicalSpace::vector>>(scene.result->getData());
    ASSERT_TRUE(picked) << "of the shape of the indices";
    for (index_t k = 0; k < 4; ++k) EXPECT_EQ(picked->element(k)[0], (std::vector<double>{3, 1, 3, 2})[k]);
}

} // namespace
