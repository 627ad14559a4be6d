// What exists is handed out, and let go, without an allocation; one that fails leaves things as they were.

#include <support/CountAllocations.hpp>
#include <support/Testing.hpp>

namespace {

using Hestra::Cache;

TEST(AllocationTest, AskingForWhatExistsAllocatesNothing) {
    Field field;
    const auto id = field.makeFragmentID("block");
    const auto creator = field.setDiscardableData(MemArray<3, double>::create({2, 2, 2}), nullptr, id);
    creator->addInterface(makeRef<SizeInterface>(DynamicSize{2, 2, 2}));
    bool found = true;
    const long count = support::allocationsOf([&] {
        for (int n = 0; n < 100; ++n) {
            found &= bool(field.getData(id));
            found &= bool(creator->cachedData());
            found &= creator->findInterface<SizeInterface>()->size().rank() == 3;
            found &= field.hasData(id);
        }
    });
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(found);
    EXPECT_GT(support::allocationsOf([] { (void)MemArray<3, double>::create({2, 2, 2}); }), 0) << "the counter counts";
}

TEST(AllocationTest, TheCacheLetsGoWithoutMemoryAndKeepsItsBooks) {
    const StrongPtr<Cache> cache(new Cache);
    std::vector<StrongPtr<MemBase>> arrays;
    for (index_t n = 1; n < 9; ++n) arrays.push_back(MemArray<3, double>::create({n, n, n}));
    std::size_t bytes = 0;
    for (const auto& array : arrays) {
        const std::size_t size = cache->size();
        const int failures = support::failEachAllocation([&] { cache->insert(array); },
                                                         [&] {
                                                             EXPECT_EQ(cache->size(), size);
                                                             EXPECT_EQ(cache->bytes(), bytes);
                                                         });
        EXPECT_GT(failures, 0);
        EXPECT_EQ(cache->bytes(), bytes += array->memsize());
    }
    const long count = support::allocationsOf([&] {
        cache->release(*arrays[0]);
        (void)cache->remove(*arrays[1]);
        cache->setLimit(cache->bytes() - 1);
    });
    EXPECT_EQ(cache->size(), 5u);
    EXPECT_EQ(count + support::allocationsOf([&] { cache->clear(); }), 0);
    EXPECT_EQ(cache->bytes(), 0u);
}

TEST(AllocationTest, AnObjectWithoutRecordIsNotLeaked) {
    struct Object : Hestra::ReferenceBase<Object> {
        explicit Object(int& n) : living(n) { ++living; }
        ~Object() override { --living; }
        int& living;
    };
    int living = 0;
    EXPECT_EQ(support::failEachAllocation([&] { (void)makeRef<Object>(living); }, [&] { EXPECT_EQ(living, 0); }), 2);
    EXPECT_EQ(living, 0);
}

// Compared with a tree whose insertions all succeed at once.
TEST(AllocationTest, AFailedInsertionChangesNothingInATree) {
    using Tree = Orvix::KDTree<3, std::string>;
    const auto contentsOf = [](const Tree& tree) {
        std::vector<std::string> contents;
        tree.forEachInBox({0, 0, 0}, {9, 9, 9}, [&](const std::string& value, double) { contents.push_back(value); });
        return contents;
    };
    std::mt19937 random(7);
    std::uniform_real_distribution<double> coordinate(-5.0, 5.0);
    Tree tree, expected;
    int failures = 0;
    for (int n = 0; n < 200; ++n) {
        const Tree::key_type key{coordinate(random), coordinate(random), coordinate(random)};
        const std::string value = "the value of entry number " + std::to_string(n);
        if (n % 50 == 49)
            support::failEachAllocation([&] { tree.pack(); },
                                        [&] { EXPECT_EQ(contentsOf(tree), contentsOf(expected)); });
        failures += support::failEachAllocation([&] { (void)tree.insert(key, value); },
                                                [&] {
                                                    EXPECT_EQ(tree.size(), expected.size());
                                                    EXPECT_EQ(contentsOf(tree), contentsOf(expected));
                                                });
        (void)expected.insert(key, value);
    }
    EXPECT_GE(failures, 200);
    EXPECT_EQ(contentsOf(tree), contentsOf(expected));
}

} // namespace
