// Counts the allocations of this process: what exists is handed out without any.

#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>

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

TEST(AllocationTest, AskingForWhatExistsAllocatesNothing) {
    Field field;
    const auto id = field.makeFragmentID("block");
    const auto creator = field.setDiscardableData(MemArray<3, double>::create({2, 2, 2}), nullptr, id);
    creator->addInterface(Hestra::makeRef<SizeInterface>(DynamicSize{2, 2, 2}));
    const long before = allocations;
    bool found = true;
    for (int n = 0; n < 100; ++n) {
        found &= bool(field.getData(id));
        found &= bool(creator->cachedData());
        found &= creator->findInterface<SizeInterface>()->size().rank() == 3;
        found &= field.hasData(id);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_TRUE(found);
    (void)MemArray<3, double>::create({2, 2, 2});
    EXPECT_GT(allocations, before) << "the counter counts";
}

} // namespace
