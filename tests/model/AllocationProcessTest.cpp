// What exists is handed out without an allocation.

#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <gtest/gtest.h>
#include <support/CountAllocations.hpp>

namespace {

using namespace Vantle;

TEST(AllocationTest, AskingForWhatExistsAllocatesNothing) {
    Field field;
    const auto id = field.makeFragmentID("block");
    const auto creator = field.setDiscardableData(MemArray<3, double>::create({2, 2, 2}), nullptr, id);
    creator->addInterface(Hestra::makeRef<SizeInterface>(DynamicSize{2, 2, 2}));
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

} // namespace
