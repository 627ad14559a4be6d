/// Arrays as a program uses them that knows the umbrella header and nothing of the inside.

#include <model/Model.hpp>

#include <gtest/gtest.h>

namespace {

using namespace Vantle;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

TEST(ArraysClientTest, ArrayTypesNameTheirElements) {
    const StrongPtr<MemBase> array = MemArray<3, double>::create({2, 2, 2});
    const MemBase& object = *array;
    for (const std::type_info* name :
         {&typeid(void), &typeid(double), &typeid(TypedArray<double>), &typeid(TypedArray<double>::reference_domain_t),
          &typeid(MemArray<1, double>), &typeid(MemArray<3, double>), &typeid(ReferencingMemArray<2, double>),
          &typeid(MemArrayBase<1>), &typeid(object)})
        EXPECT_TRUE((Hestra::dynamicCast<MemArray<1, double>>(array->create(6, *name)))) << name->name();
    EXPECT_TRUE((Hestra::dynamicCast<MemArray<2, float>>(array->create({2, 3}, typeid(MemArray<1, float>)))));
    EXPECT_FALSE(array->create(6, typeid(MemArrayBase<2>))) << "not the rank of the size";
    EXPECT_FALSE(array->create(6, typeid(ArraysClientTest_ArrayTypesNameTheirElements_Test)));
}

TEST(ArraysClientTest, IteratorsArePointerStrideAndCount) {
    double values[] = {0, 1, 2, 3, 4, 5};
    const Iterator<double> all(values, 1, 6), odd(values + 1, 2, 3);
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(odd.size(), 3u);
    for (index_t k = 0; k < 6; ++k) EXPECT_EQ(all[k], double(k));
    for (index_t k = 0; k < 3; ++k) EXPECT_EQ(odd[k], double(2 * k + 1));
    EXPECT_TRUE(all.contiguous() && !odd.contiguous());
}

TEST(ArraysClientTest, AnEquallySizedArraySharesTheChunkThatAnotherOneGives) {
    const Hestra::WeakPtr<CreativeArrayBase> creator;
    const auto array = MemArray<2, double>::makeMemArray({1, 2, 3, 4}, {2, 2});
    const auto twin = array->createEquallySizedMemArray(array->getChunk(), creator);
    (*twin)(1, 1) = 7;
    EXPECT_EQ((*array)(1, 1), 7.0);
    const auto slice = array->getSlice(1);
    const auto fresh = slice->createEquallySizedMemArray(slice->getChunk(), creator);
    EXPECT_EQ(fresh->element(1), 0.0) << "a slice has no chunk to share";
    EXPECT_EQ(fresh->Size(), slice->Size());
}

} // namespace
