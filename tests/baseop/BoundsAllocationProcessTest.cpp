// Counts allocations of the whole process, so it is a process of its own.

#include <baseop/DataRange.hpp>
#include <baseop/ExpandBBox.hpp>

#include <support/CountAllocations.hpp>
#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

using support::allocationsOf;

TEST(BoundsAllocation, AskingForAttachedResultsAllocatesNothing) {
    const auto numbers = support::creatorOf(std::vector<double>{1, 2, 3});
    EXPECT_GT(allocationsOf([&] { (void)DataRange<double>::compute(*numbers, false, false); }), 0);
    bool found = false;
    EXPECT_EQ(allocationsOf([&] { found = bool(DataRange<double>::get(*numbers)); }), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(allocationsOf([&] { found = bool(DataRange<double>::retrieve(*numbers, false, false)); }), 0);
    EXPECT_TRUE(found);

    const auto positions = support::creatorOf(std::vector<point>{{1, 2, 3}, {4, 5, 6}});
    StrongPtr<BoundingBox> box;
    EXPECT_GT(allocationsOf([&] { (void)ExpandBBox(box, *positions); }), 0);
    EXPECT_EQ(allocationsOf([&] { found = ExpandBBox(box, *positions); }), 0);
    EXPECT_TRUE(found);

    const StrongPtr<Field> field = makeRef<Field>();
    field->setCreator(positions);
    EXPECT_GT(allocationsOf([&] { (void)expandBoundingBox(field, box); }), 0);
    EXPECT_EQ(allocationsOf([&] { found = expandBoundingBox(field, box); }), 0);
    EXPECT_TRUE(found);
}

// Neither of adopted memory nor of that of an array of ours, by what only reads.
TEST(BoundsAllocation, NothingIsCopiedOfAdoptedMemory) {
    const MultiIndex<3> size(50, 40, 30);
    std::vector<point> points(2 * size.product(), point(1, 2, 3));
    points[0][0] = -7;
    for (const std::ptrdiff_t stride : {24, 48}) {
        StrongPtr<BoundingBox> box;
        const ForeignMemory memory{.elements = points.data(), .strides = {stride}};
        EXPECT_LT(support::bytesAllocatedBy([&] {
                      const auto creator = support::creatorOf(adopt<3, point>(memory, size, nullptr).strong());
                      EXPECT_TRUE(ExpandBBox(box, *creator));
                      const auto y = support::creatorOf(creator->getData()->componentArray(1));
                      EXPECT_EQ(DataRange<double>::compute(*y, false, false).lock()->getMax(), 2.0);
                  }),
                  10000U);
        ASSERT_TRUE(box);
        EXPECT_EQ(box->minCoord()[0], -7.0);
    }
}

} // namespace
