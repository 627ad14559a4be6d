// Counts allocations of the whole process, so it is a process of its own.

#include <baseop/DataRange.hpp>
#include <baseop/ExpandBBox.hpp>

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <model/vantle/Field.hpp>
#include <support/Creators.hpp>

namespace {
std::atomic<long> allocations{0};
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* const memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using namespace Vantle;
using point = Orvix::PhysicalSpace::point;

template<class Ask>
long allocationsOf(const Ask& ask) {
    const long before = allocations;
    ask();
    return allocations - before;
}

TEST(BoundsAllocation, AskingForAttachedResultsAllocatesNothing) {
    const auto numbers = support::creatorOf(std::vector<double>{1, 2, 3});
    EXPECT_GT(allocationsOf([&] { (void)DataRange<double>::compute(*numbers, false, false); }), 0);
    bool found = false;
    EXPECT_EQ(allocationsOf([&] { found = bool(DataRange<double>::get(*numbers)); }), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(allocationsOf([&] { found = bool(DataRange<double>::retrieve(*numbers, false, false)); }), 0);
    EXPECT_TRUE(found);

    const auto positions = support::creatorOf(std::vector<point>{{1, 2, 3}, {4, 5, 6}});
    Hestra::StrongPtr<Orvix::BoundingBox> box;
    EXPECT_GT(allocationsOf([&] { (void)ExpandBBox(box, *positions); }), 0);
    EXPECT_EQ(allocationsOf([&] { found = ExpandBBox(box, *positions); }), 0);
    EXPECT_TRUE(found);

    const Hestra::StrongPtr<Field> field = Hestra::makeRef<Field>();
    field->setCreator(positions);
    EXPECT_GT(allocationsOf([&] { (void)expandBoundingBox(field, box); }), 0);
    EXPECT_EQ(allocationsOf([&] { found = expandBoundingBox(field, box); }), 0);
    EXPECT_TRUE(found);
}

} // namespace
