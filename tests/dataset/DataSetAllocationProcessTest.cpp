// Without memory, a change of a data set fails and has changed nothing: also where arrays and lists are changed in
// place.
#include <dataset/DataSet.hpp>

#include <support/CountAllocations.hpp>
#include <support/Testing.hpp>

namespace {

TEST(DataSetAllocationTest, AFailedChangeChangesNothing) {
    DataSet flow;
    const auto add = [&](const std::string& name) { flow.addUniformBlock(name, {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}}); };
    std::size_t blocks = 0, fields = 0, values = 0, masked = 0;
    const auto check = [&] {
        ASSERT_EQ(flow.blocks().size(), blocks);
        const auto vertices = DataSet(flow).atTime(0.0).fields();
        ASSERT_EQ(vertices.size(), fields);
        ASSERT_EQ(fields ? vertices[0].blocks : 0, values);
        std::size_t found = 0;
        for (const auto& block : flow.blocks()) found += bool(flow.vertexMask(block.name));
        ASSERT_EQ(found, masked);
        ASSERT_EQ(flow.times().size(), 1u);
    };
    const auto expectFailures = [&](const auto& change) {
        EXPECT_GT(support::failEachAllocation(
                      [&] {
                          try {
                              change();
                          } catch (const OutOfMemory&) {
                              throw std::bad_alloc();
                          }
                      },
                      check),
                  5);
    };
    for (const char* name : {"a", "b", "c", "d"}) {
        expectFailures([&] { add(name); });
        ++blocks;
        expectFailures([&] { flow.setField("f", name, std::vector<double>(8)); });
        fields = 1, ++values;
        expectFailures([&] { flow.setVertexMask(name, MemArray<3, int>::create({2, 2, 2})); });
        ++masked;
        check();
    }
    EXPECT_EQ(flow.blocks()[3].name, "d");
}

} // namespace
