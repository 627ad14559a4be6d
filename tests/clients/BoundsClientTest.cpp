#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

TEST(BoundsClientTest, TheBoxOfAFragmentMakesOnlyWhatItNeeds) {
    int global = 0, fragment = 0;
    const auto collection = makeRef<FragmentIDCollection>();
    collection->setFragmentNames({"a", "placed"});
    Field field(collection);
    const auto placed = field.getFragmentID("placed");
    placed->addInterface(makeRef<FragmentLocation<3, IndexOffset>>(MultiIndex<3>(1, 2, 3)));
    const auto makeGlobal = [&](const std::type_info& type, const DynamicSize& size) {
        field.createCreator(
            [&global](const auto&) -> StrongPtr<MemBase> {
                ++global;
                return makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {9, 9, 9}), MultiIndex<3>(10, 10, 10));
            },
            type, size);
    };
    const StrongPtr<CreativeArrayBase> creator = makeRef<CreativeArray>(
        [&fragment](const auto&) -> StrongPtr<MemBase> {
            ++fragment;
            return makeMemArray1D(std::vector<point>{{1, 1, 1}, {2, 2, 2}});
        },
        typeid(point), DynamicSize(MultiIndex<3>(2, 3, 4)));

    makeGlobal(typeid(point), MultiIndex<3>(10, 10, 10));
    EXPECT_EQ(getFragmentBBox(field.getFragmentID("a"), creator, field)->maxCoord(), point(2, 2, 2));
    EXPECT_EQ(global, 0) << "a fragment without place";
    for (const auto& [type, size] : {std::pair(VantleTypeIndex(typeid(double)), DynamicSize(MultiIndex<3>(10, 10, 10))),
                                     std::pair(VantleTypeIndex(typeid(point)), DynamicSize(MultiIndex<1>(10)))}) {
        makeGlobal(size.rank() == 3 ? typeid(double) : typeid(point), size);
        EXPECT_EQ(getFragmentBBox(placed, creator, field)->maxCoord(), point(2, 2, 2));
        EXPECT_EQ(global, 0) << "nothing that could be a uniform grid of points";
    }
    EXPECT_EQ(fragment, 1);
    makeGlobal(typeid(point), {});
    EXPECT_EQ(getFragmentBBox(placed, creator, field)->maxCoord(), point(2, 4, 6));
    EXPECT_EQ(global, 1);
    EXPECT_EQ(fragment, 1);
}

TEST(BoundsClientTest, AnExpanderWidensTheBoxThatItIsGiven) {
    Field field(makeMemArray1D(std::vector<point>{{1, 5, -3}, {2, -4, 0}}), nullptr);
    const StrongPtr<BoundingBox> given(new BoundingBox({0, 0, 0}, {1, 1, 1})), empty(new BoundingBox);
    for (const auto& box : {given, empty}) {
        BBoxExpander expander(box);
        EXPECT_TRUE(expander.box() == box);
        EXPECT_TRUE(expander.apply(nullptr, field.getCreator(nullptr)));
        EXPECT_TRUE(expander.box() == box);
        EXPECT_EQ(box->maxCoord()[1], 5);
        StrongPtr<BoundingBox> result;
        field.setPersistentData(makeMemArray1D(std::vector<point>{{1, 7, 0}}));
        EXPECT_TRUE(expander.expand(field, result));
        EXPECT_EQ(box->maxCoord()[1], 7);
        EXPECT_EQ(box->radius(), distance(box->minCoord(), box->maxCoord()) / 2) << "and its ball";
        field.setPersistentData(makeMemArray1D(std::vector<point>{{1, 5, -3}, {2, -4, 0}}));
    }
    EXPECT_EQ(given->minCoord(), point(0, -4, -3));
    EXPECT_EQ(empty->minCoord(), point(1, -4, -3));

    BBoxExpander copy{StrongPtr<BoundingBall>(given)};
    copy.apply(nullptr,
               StrongPtr<CreativeArrayBase>(new CreativeArray(makeMemArray1D(std::vector<point>{{0, 99, 0}}))));
    EXPECT_EQ(copy.box()->maxCoord(), point(2, 99, 1));
    EXPECT_EQ(given->maxCoord(), point(2, 7, 1));
}

TEST(BoundsClientTest, ExpandersTakeWhateverABoxComesAs) {
    const BBoxExpander fresh(makeRef<BoundingBox>(point(0, 1, 2), point(3, 4, 5)));
    EXPECT_EQ(fresh.box()->minCoord(), point(0, 1, 2));
    EXPECT_FALSE(BBoxExpander(nullptr).box());
    EXPECT_FALSE(BBoxExpander(StrongPtr<BoundingBall>()).box());
    const StrongPtr<BoundingBox> owned = makeRef<BoundingBox>(point(0, 1, 2), point(3, 4, 5));
    EXPECT_TRUE(BBoxExpander(WeakPtr<BoundingBox>(owned)).box() == owned);
    const BBoxExpander around(makeRef<BoundingBall>(point(1, 2, 3), 2.0));
    EXPECT_EQ(around.box()->minCoord(), point(-1, 0, 1));
    Field field(makeMemArray1D(std::vector<point>{{1, 5, -3}, {2, -4, 0}}), nullptr);
    const BBoxExpander ofField(field);
    ASSERT_TRUE(ofField.box());
    EXPECT_EQ(ofField.box()->minCoord(), point(1, -4, -3));
}

TEST(BoundsClientTest, ARangeOfNothingTakesOverTheFirst) {
    DataRange<double> doubles;
    DataRange<unsigned char> bytes;
    EXPECT_GT(doubles.getMin(), doubles.getMax());
    EXPECT_GT(bytes.getMinf(), bytes.getMaxf());
    doubles.expandRange(StrongPtr<DataRangeBase>(new DataRange<double>(-7, -3)));
    bytes.expandRange(StrongPtr<DataRangeBase>(new DataRange<unsigned char>(0, 255)));
    EXPECT_EQ(doubles.getFloatDataRange(), std::pair(-7.0, -3.0));
    EXPECT_EQ(bytes.getFloatDataRange(), std::pair(0.0, 255.0));
}

TEST(BoundsClientTest, FragmentsOfAGridOrOfItsHandle) {
    const BundlePtr bundle = BundlePtr::create();
    Grid& grid = *(*bundle[0.0])["blocks"];
    UniformGrid3D::create(grid, BoundingBox({0, 0, 0}, {1, 2, 3}), {2, 2, 2});
    CartesianFragments fragments(grid);
    EXPECT_TRUE(fragments.buildFragmentCoordinates());
    EXPECT_EQ(fragments.getBBox(0)->maxCoord(), point(1, 2, 3));
    EXPECT_EQ(FragmentSkeleton(grid).getFragmentName(0), "");
    EXPECT_FALSE(fragments.getFragmentID(0));
    EXPECT_FALSE(CartesianFragments(StrongPtr<Grid>(&grid)).buildFragmentCoordinates());
}

} // namespace
