/// A program of its own: linked with both libraries it uses arrays only, so that the linker leaves the operations out.

#include <model/Model.hpp>

#include <gtest/gtest.h>

TEST(ElementTypesProcessTest, AllAreRegisteredOnceTheModelIsLoaded) {
    const auto types = Vantle::MemBase::RegisteredTypes();
    EXPECT_EQ(types.size(), 23u);
    const Hestra::StrongPtr<Vantle::MemBase> array = Vantle::MemArray<1, double>::create(1);
    for (const auto& type : types) EXPECT_TRUE(array->create(Vantle::MultiIndex<2>(2, 3), type.type()));
}
