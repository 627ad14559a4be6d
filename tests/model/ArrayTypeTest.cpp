#include <support/Testing.hpp>

namespace {

/// A type that the library has never heard of, registered from here.
struct Foreign {
    int value = 7;
};
const bool foreignRegistered = MemArrayAllocator<Foreign>::isRegistered();

template<class T>
std::string textOf(const T& element) {
    return makeMemArray1D(std::vector<T>{element})->getElementAsString(0);
}

bool isRegisteredType(const std::type_info& type) {
    const auto types = MemBase::RegisteredTypes();
    return std::find(types.begin(), types.end(), VantleTypeIndex(type)) != types.end();
}

template<class T>
class ArrayRegisteredTypeTest : public testing::Test {};
template<class T>
class ArrayUnregisteredTypeTest : public testing::Test {};
template<class... T>
testing::Types<T...> typesOf(TypeList<T...>);
using Registered = decltype(typesOf(RegisteredElementTypes()));
using Unregistered = decltype(typesOf(UnregisteredElementTypes()));
TYPED_TEST_SUITE(ArrayRegisteredTypeTest, Registered);
TYPED_TEST_SUITE(ArrayUnregisteredTypeTest, Unregistered);

} // namespace

TYPED_TEST(ArrayRegisteredTypeTest, IsKnownAndMadeInAllRanks) {
    EXPECT_TRUE(isRegisteredType(typeid(TypeParam)));
    const auto type = VantleTypeBase::find(typeid(TypeParam));
    ASSERT_TRUE(type);
    EXPECT_TRUE(type->isType(typeid(TypeParam)));
    EXPECT_EQ(type->newChunk(5)->element_type(), typeid(TypeParam));
    EXPECT_EQ(type->newChunk(5)->elements(), 5u);

    // From an array of another type, of another rank.
    const StrongPtr<MemBase> origin = MemArray<1, Foreign>::create(1);
    const StrongPtr<MemBase> made[] = {
        origin->create(MultiIndex<1>(2), typeid(TypeParam)), origin->create(MultiIndex<2>(2, 3), typeid(TypeParam)),
        origin->create(MultiIndex<3>(2, 3, 4), typeid(TypeParam)),
        origin->create(MultiIndex<4>(2, 3, 4, 5), typeid(typename TypedArray<TypeParam>::reference_domain_t))};
    EXPECT_TRUE((dynamicCast<MemArray<1, TypeParam>>(made[0])));
    EXPECT_TRUE((dynamicCast<MemArray<2, TypeParam>>(made[1])));
    EXPECT_TRUE((dynamicCast<MemArray<3, TypeParam>>(made[2])));
    EXPECT_TRUE((dynamicCast<ReferencingMemArray<4, TypeParam>>(made[3])));
    EXPECT_EQ(made[3]->nElements(), 120u);
    EXPECT_EQ(made[3]->elementIndex(), VantleTypeIndex(typeid(TypeParam)));
    EXPECT_FALSE(origin->create({}, typeid(TypeParam)));
    EXPECT_FALSE(origin->create({1, 1, 1, 1, 1}, typeid(TypeParam)));

    StrongPtr<MemBase> pulled;
    const StrongPtr<Hestra::ChunkBase> chunk = type->newChunk(12);
    ASSERT_TRUE(pullData(pulled, chunk, MultiIndex<3>(2, 3, 2)));
    const auto typed = dynamicCast<ReferencingMemArray<3, TypeParam>>(pulled);
    ASSERT_TRUE(typed);
    EXPECT_EQ(static_cast<Hestra::ChunkBase*>(typed->myChunk().rawptr()), chunk.rawptr());
    EXPECT_FALSE(pullData(pulled, chunk, MultiIndex<1>(13)));
    EXPECT_FALSE(pulled);
    EXPECT_FALSE(pullData(pulled, chunk, MultiIndex<1>(12), 5));
}

TYPED_TEST(ArrayUnregisteredTypeTest, StaysOutOfTheRegistryAndStillMakesItsOwnKind) {
    EXPECT_FALSE(isRegisteredType(typeid(TypeParam)));
    EXPECT_FALSE(VantleTypeBase::find(typeid(TypeParam)));
    const StrongPtr<MemBase> array = MemArray<3, TypeParam>::create({1, 2, 3});
    EXPECT_FALSE(array->getVantleType());
    EXPECT_TRUE((dynamicCast<MemArray<1, TypeParam>>(array->create(MultiIndex<1>(4), typeid(void)))));
    const StrongPtr<MemBase> number = MemArray<1, double>::create(1);
    EXPECT_FALSE(number->create(MultiIndex<1>(4), typeid(TypeParam)));
}

TEST(ArrayTypeTest, AnotherLibraryRegistersItsOwnTypes) {
    EXPECT_TRUE(foreignRegistered);
    MemArrayAllocator<Foreign>::registerMe();
    const auto types = MemBase::RegisteredTypes();
    EXPECT_EQ(std::count(types.begin(), types.end(), VantleTypeIndex(typeid(Foreign))), 1);
    const StrongPtr<MemBase> number = MemArray<1, double>::create(1);
    const auto made = dynamicCast<MemArray<2, Foreign>>(number->create(MultiIndex<2>(2, 2), typeid(Foreign)));
    ASSERT_TRUE(made);
    EXPECT_EQ((*made)(1, 1).value, 7);
    EXPECT_EQ(made->getElementAsString(0), "");
}

TEST(ArrayTypeTest, ArrayTypesNameTheirElements) {
    const StrongPtr<MemBase> array = MemArray<3, double>::create({2, 2, 2});
    const MemBase& object = *array;
    for (const std::type_info* name :
         {&typeid(void), &typeid(double), &typeid(TypedArray<double>), &typeid(TypedArray<double>::reference_domain_t),
          &typeid(MemArray<1, double>), &typeid(MemArray<3, double>), &typeid(ReferencingMemArray<2, double>),
          &typeid(MemArrayBase<1>), &typeid(object)})
        EXPECT_TRUE((dynamicCast<MemArray<1, double>>(array->create(6, *name)))) << name->name();
    EXPECT_TRUE((dynamicCast<MemArray<2, float>>(array->create({2, 3}, typeid(MemArray<1, float>)))));
    EXPECT_FALSE(array->create(6, typeid(MemArrayBase<2>))) << "not the rank of the size";
    EXPECT_FALSE(array->create(6, typeid(ArrayTypeTest_ArrayTypesNameTheirElements_Test)));
}

TEST(ArrayTypeTest, ElementsAsText) {
    EXPECT_EQ(textOf(1.5), "1.500000");
    EXPECT_EQ(textOf(-0.25f), "-0.250000");
    EXPECT_EQ(textOf(1e300).size(), 301u + 7u);
    EXPECT_EQ(textOf(-3), "-3");
    EXPECT_EQ(textOf(static_cast<unsigned char>(65)), "65");
    EXPECT_EQ(textOf(~0ULL), "18446744073709551615");
    EXPECT_EQ(textOf(point(1, 2, 3)), "{1.000000,2.000000,3.000000}");
    EXPECT_EQ(textOf(vector(0, -1, 0.5)), "{0.000000,-1.000000,0.500000}");
    EXPECT_EQ(textOf(Orvix::FixedArray<double, 2>(1.0, 2.0)), "{1.000000,2.000000}");
    EXPECT_EQ(textOf(Orvix::FixedArray<unsigned short, 3>(1, 2, 65535)), "{1,2,65535}");
    EXPECT_EQ(textOf(Orvix::ByteRGB(1, 2, 255)), "{1,2,255}");
    EXPECT_EQ(textOf(EdgeCell(3u, 4u)), "{3,4}");
    EXPECT_EQ(textOf(TriangleCell(0u, 5u, 7u)), "{0,5,7}");
    Orvix::Quadratic<3, double> matrix;
    matrix(0, 1) = 1;
    matrix(1, 0) = 2;
    EXPECT_EQ(textOf(matrix), "{0.000000,1.000000,0.000000,2.000000,0.000000,0.000000,0.000000,0.000000,0.000000}");
    EXPECT_EQ(textOf(PhysicalSpace::Metric(1, 2, 3, 4, 5, 6)),
              "{1.000000,2.000000,3.000000,4.000000,5.000000,6.000000}");
    EXPECT_EQ(textOf(FragmentIDContainer()), std::string("[{") + "???" + "}]");
    EXPECT_EQ(textOf(std::string("text")), "text");
    EXPECT_EQ(textOf(std::vector<unsigned int>{1, 2}), "");
    EXPECT_EQ(textOf(std::list<MultiIndex<3>>(2)), "");
    EXPECT_EQ(textOf(MultiIndex<2>(1, 2)), "[1x2]");
    EXPECT_EQ(makeMemArray1D(std::vector<int>{1})->getElementAsString(1), "");
    EXPECT_EQ(makeMemArray1D(std::vector<int>{1})->getElementAsString(~0ULL), "");
}

TEST(ArrayTypeTest, ComponentsAreNamed) {
    const auto names = [](const std::type_info& type) {
        const auto entry = VantleTypeBase::find(type);
        std::string all;
        for (int c = 0; c < entry->components(); ++c) all += entry->coordinate_component_name(c) + ' ';
        return all;
    };
    EXPECT_EQ(names(typeid(point)), "x y z ");
    EXPECT_EQ(names(typeid(vector)), "x y z ");
    EXPECT_EQ(names(typeid(Orvix::ByteRGB)), "r g b ");
    EXPECT_EQ(VantleType<Orvix::ByteRGBA>().coordinate_component_name(3), "a");
    EXPECT_EQ(names(typeid(Orvix::FixedArray<double, 2>)), "0 1 ");
    EXPECT_EQ(names(typeid(PhysicalSpace::Metric)), "0 1 2 3 4 5 ");
    EXPECT_EQ(names(typeid(std::string)), "");

    const auto type = VantleTypeBase::find(typeid(point));
    EXPECT_EQ(type->element_type(), typeid(double));
    EXPECT_EQ(type->element_index(), VantleTypeIndex(typeid(double)));
    EXPECT_EQ(type->chart_type(), typeid(Orvix::Cartesian3D));
    EXPECT_FALSE(type->nontensor());
    EXPECT_FALSE(VantleTypeBase::find(typeid(float))->nontensor());
    EXPECT_TRUE(VantleTypeBase::find(typeid(TriangleCell))->nontensor());
    EXPECT_EQ(VantleTypeBase::find(typeid(PhysicalSpace::Metric))->indexing_scheme(), IndexingScheme::Symmetric);
}

TEST(ArrayTypeTest, PointsAreReadAsVectorsFromTheSameMemory) {
    const auto points =
        filled<point>({3, 2, 2}, [](index_t k) { return point(double(k), -double(k), 1 / double(k + 1)); });
    const MultiArrayBase<3, vector> vectors = asVectors<3>(*points);
    MultiIndex<3> index;
    do EXPECT_EQ(vectors.getElement(index), vector((*points)[index]));
    while (index.advance(points->Size()));
    EXPECT_EQ(vectors.slice(1).slice(1).element(2), vector((*points)(2, 1, 1)));
}

TEST(ArrayTypeTest, DispatchFindsTheOneTypeThatFits) {
    const StrongPtr<MemBase> array = MemArray<2, float>::create({2, 2});
    int calls = 0;
    EXPECT_TRUE(withTypedArray(RegisteredElementTypes(), array, [&](auto& typed) {
        ++calls;
        EXPECT_EQ(typed.getType(), typeid(float));
    }));
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(withTypedArray(TypeList<double, int>(), array, [&](auto&) { ++calls; }));
    EXPECT_TRUE(withMemArray<2>(TypeList<double, float>(), array, [&](auto& typed) { typed(1, 1) = 3; }));
    EXPECT_EQ(array->getElementAsString(3), "3.000000");
    EXPECT_FALSE(withMemArray<3>(TypeList<double, float>(), array, [&](auto&) { ++calls; }));
    EXPECT_FALSE(withTypedArray(RegisteredElementTypes(), StrongPtr<MemBase>(), [&](auto&) { ++calls; }));
    EXPECT_EQ(calls, 1);
}

TEST(ArrayTypeTest, ArraysRememberTheirCreatorWithoutOwningIt) {
    const auto creator = makeRef<CreativeArray>(
        [](const WeakPtr<CreativeArrayBase>& self) -> StrongPtr<MemBase> {
            return MemArray<2, double>::create({2, 3}, self);
        },
        typeid(double));
    StrongPtr<MemBase> array = creator->create();
    ASSERT_TRUE(array);
    EXPECT_EQ(array->getCreator(), creator.strong());
    EXPECT_EQ(array->CreatorType(), typeid(CreativeArray));
    const auto typed = dynamicCast<MemArray<2, double>>(array);
    EXPECT_FALSE(typed->getSlice(0)->getCreator());
    EXPECT_EQ(typed->getSlice(0, array->getCreator())->getCreator(), creator.strong());
    EXPECT_EQ(creator->strongCount(), 1);
}

TEST(ArrayTypeTest, TooLargeArraysAreRefusedBeforeAnythingChanges) {
    const long long before = Hestra::ChunkBase::TotalMemsize;
    constexpr index_t big = 1ULL << 33;
    EXPECT_THROW((void)(MemArray<2, double>::create({big, big})), Hestra::MemoryException);
    EXPECT_THROW((void)(MemArray<3, unsigned char>::create({1ULL << 21, 1ULL << 21, 1ULL << 21})),
                 Hestra::MemoryException);
    const auto chunk = makeRef<Hestra::TypedChunk<double>>(std::size_t{2});
    EXPECT_THROW((void)(MemArray<2, double>::makeMemArray(chunk, {big, big})), Hestra::MemoryException);
    EXPECT_EQ(chunk->elements(), 2u);
    EXPECT_EQ((MemArray<3, double>::create({big, big, 0})->nElements()), 0u);
    EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, before + 16);
}

TEST(ArrayIndexTest, NumbersAndIndicesCorrespond) {
    std::mt19937_64 random(5);
    for (int repeat = 0; repeat < 20; ++repeat) {
        const MultiIndex<3> size(random() % 5 + 1, random() % 5 + 1, random() % 5 + 1);
        MultiIndex<3> index;
        for (index_t k = 0; k < size.product(); ++k) {
            ASSERT_EQ(index.linear(size), k);
            ASSERT_EQ((MultiIndex<3>::fromLinear(k, size)), index);
            ASSERT_TRUE(index.inside(size));
            const MultiIndex<3> before = index;
            const bool more = index.advance(size);
            ASSERT_EQ(more, k + 1 < size.product());
            if (more) {
                ASSERT_LT(before, index) << "storage order";
            }
        }
        EXPECT_EQ(index, MultiIndex<3>());
        EXPECT_FALSE(size.inside(size));
    }
}

TEST(ArrayIndexTest, ArithmeticWrapsAndProductsAreChecked) {
    EXPECT_EQ((MultiIndex<2>(0, 3) - 1), (MultiIndex<2>(~0ULL, 2)));
    EXPECT_EQ((MultiIndex<2>(~0ULL, 1) + MultiIndex<2>(1, 1)), (MultiIndex<2>(0, 2)));
    constexpr index_t half = 1ULL << 32;
    EXPECT_FALSE((MultiIndex<2>(half, half).checkedProduct()));
    EXPECT_EQ((MultiIndex<2>(half, half - 1).checkedProduct()), half * (half - 1));
    EXPECT_EQ((MultiIndex<3>(half, half, 0).checkedProduct()), 0u);
    EXPECT_EQ((DynamicSize{half, half, 0}.checkedTotal()), 0u);
    EXPECT_FALSE((DynamicSize{half, half, 1}.checkedTotal()));
}

TEST(ArrayIndexTest, TextAndSizes) {
    EXPECT_EQ(std::to_string(MultiIndex<3>(2, 0, 1)), "[2x0x1]");
    EXPECT_EQ(to_string(MultiIndex<1>(7)), "[7]");
    const DynamicSize size = MultiIndex<3>(2, 3, 4);
    EXPECT_EQ(to_string(size), "[2x3x4]");
    EXPECT_EQ(size.rank(), 3);
    EXPECT_EQ(size.total(), 24u);
    EXPECT_EQ(size.as<3>(), (MultiIndex<3>(2, 3, 4)));
    EXPECT_FALSE(size.as<2>());
    MultiIndex<2> untouched(8, 9);
    EXPECT_FALSE(size.get(untouched));
    EXPECT_EQ(untouched, (MultiIndex<2>(8, 9)));
    EXPECT_FALSE(DynamicSize());
    EXPECT_EQ(DynamicSize().total(), 0u);
    EXPECT_THROW((DynamicSize{1, 1, 1, 1, 1, 1, 1, 1, 1}), std::length_error);
}
