#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <gtest/gtest.h>

using namespace Vantle;
using Hestra::StrongPtr;
using Orvix::BoundingBall;
using Orvix::BoundingBox;

namespace {

using point = Orvix::PhysicalSpace::point;

TEST(BoundsClientTest, TheBoxOfAFragmentMakesOnlyWhatItNeeds) {
    int global = 0, fragment = 0;
    const auto collection = Hestra::makeRef<FragmentIDCollection>();
    collection->setFragmentNames({"a", "placed"});
    Field field(collection);
    const auto placed = field.getFragmentID("placed");
    placed->addInterface(Hestra::makeRef<FragmentLocation<3, IndexOffset>>(MultiIndex<3>(1, 2, 3)));
    const auto makeGlobal = [&](const std::type_info& type, const DynamicSize& size) {
        field.createCreator(
            [&global](const auto&) -> StrongPtr<MemBase> {
                ++global;
                return Hestra::makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {9, 9, 9}),
                                                              MultiIndex<3>(10, 10, 10));
            },
            type, size);
    };
    const StrongPtr<CreativeArrayBase> creator = Hestra::makeRef<CreativeArray>(
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

} // namespace
