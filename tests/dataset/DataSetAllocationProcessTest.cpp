// Without memory, a change of a data set fails and has changed nothing: also where lists are changed in place.
#include <dataset/DataSet.hpp>

#include <support/CountAllocations.hpp>
#include <support/Testing.hpp>

namespace {

TEST(DataSetAllocationTest, AFailedChangeChangesNothing) {
    DataSet flow;
    std::size_t blocks = 0, values = 0, masks = 0;
    const auto check = [&] {
        std::size_t found = 0;
        for (const auto& block : flow.blocks()) found += bool(flow.vertexMask(block.name));
        ASSERT_EQ(flow.blocks().size(), blocks);
        ASSERT_EQ(flow.fields().empty() ? 0 : flow.fields()[0].blocks, values);
        ASSERT_EQ(found, masks);
    };
    const auto expectFailures = [&](const auto& change) {
        const auto attempt = [&] {
            try {
                change();
            } catch (const OutOfMemory&) {
                throw std::bad_alloc();
            }
        };
        EXPECT_GT(support::failEachAllocation(attempt, check), 5);
    };
    for (const char* name : {"a", "b", "c", "d"}) {
        expectFailures([&] { flow.addUniformBlock(name, {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}}); });
        ++blocks;
        expectFailures([&] { flow.setField("f", name, std::vector<double>(8)); });
        ++values;
        expectFailures([&] { flow.setVertexMask(name, MemArray<3, int>::create({2, 2, 2})); });
        ++masks;
        check();
    }
}

TEST(DataSetAllocationTest, BlocksAreAddedWithoutACopyOfThose) {
    DataSet flow;
    const auto addHundred = [&] {
        for (int n = 0; n < 100; ++n) {
            const std::string name = std::to_string(flow.blocks().size());
            flow.addUniformBlock(name, {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}});
            flow.setField("f", name, std::vector<double>(8));
        }
    };
    std::vector<long> counts;
    for (int n = 0; n < 10; ++n) counts.push_back(support::allocationsOf(addHundred));
    EXPECT_LT(counts.back(), 3 * counts.front());
}

} // namespace
