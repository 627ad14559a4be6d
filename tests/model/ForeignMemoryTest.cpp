// Arrays over memory of somebody else: every layout against the formula that it stands for, who lets go of what when,
// and what is refused.

#include <model/Model.hpp>

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>

namespace {

using Hestra::StrongPtr;
using namespace Vantle;
using point = Orvix::PhysicalSpace::point;

/// Number `c` of element `k`, whatever the type.
template<class Number>
Number numberOf(index_t k, int c) {
    return static_cast<Number>(7 * k + 3 * static_cast<index_t>(c) + 1);
}

/// Memory of a random layout, and the description of it.
template<class T, int N>
struct Layout {
    using Stored = typename ElementTraits<T>::component_type;
    static constexpr int C = ElementTraits<T>::components;

    explicit Layout(std::mt19937_64& random) {
        const auto chance = [&](unsigned n) { return random() % n == 0; };
        for (int d = 0; d < N; ++d) size[d] = 1 + random() % 4;
        memory.otherLayout = OtherLayout::Copy;
        if (chance(2)) memory.byteOrder = std::endian::big;
        memory.isSinglePrecision = std::is_same_v<Stored, double> && chance(2);
        const std::size_t number = memory.isSinglePrecision ? sizeof(float) : sizeof(Stored);
        const bool isSeparate = chance(3);
        const std::size_t element = isSeparate ? number : number * C;

        // Axes in any order, with gaps, at any address.
        std::array<std::size_t, N> axes;
        for (std::size_t d = 0; d < N; ++d) axes[d] = d;
        std::shuffle(axes.begin(), axes.end(), random);
        memory.strides.assign(N, 0);
        std::size_t next = element + random() % 5, needed = element;
        for (const std::size_t d : axes) {
            memory.strides[d] = static_cast<std::ptrdiff_t>(next);
            needed += next * (size[d] - 1);
            next = next * size[d] + random() % 3;
        }
        for (int array = 0; array < (isSeparate ? C : 1); ++array) {
            bytes.emplace_back(needed + 1);
            const std::byte* const first = bytes.back().data() + 1;
            isSeparate ? memory.components.push_back(first) : void(memory.elements = first);
        }
        memory.bytes = needed;
        for (index_t k = 0; k < size.product(); ++k)
            for (int c = 0; c < C; ++c) {
                const auto at = MultiIndex<N>::fromLinear(k, size);
                std::size_t offset = isSeparate ? 0 : static_cast<std::size_t>(c) * number;
                for (std::size_t d = 0; d < N; ++d) offset += static_cast<std::size_t>(memory.strides[d]) * at[d];
                std::byte* const place = bytes[isSeparate ? static_cast<std::size_t>(c) : 0].data() + 1 + offset;
                const auto write = [&](auto value) {
                    std::memcpy(place, &value, sizeof value);
                    if (memory.byteOrder != std::endian::native) std::reverse(place, place + sizeof value);
                };
                memory.isSinglePrecision ? write(numberOf<float>(k, c)) : write(numberOf<Stored>(k, c));
            }
    }
    MultiIndex<N> size;
    std::vector<std::vector<std::byte>> bytes; // the first byte of each is skipped
    ForeignMemory memory;
};

template<class T>
struct ForeignLayoutTest : testing::Test {};
using Types = testing::Types<double, point, Orvix::PhysicalSpace::Metric, FloatVector, unsigned short, Orvix::ByteRGB,
                             Triangle, index_t>;
TYPED_TEST_SUITE(ForeignLayoutTest, Types);

TYPED_TEST(ForeignLayoutTest, CopiesFindEveryNumberWhereverItLies) {
    std::mt19937_64 random(11);
    const auto check = [&]<int N>(MultiIndex<N>) {
        const Layout<TypeParam, N> layout(random);
        int released = 0;
        const StrongPtr<MemBase> untyped = adopt(typeid(TypeParam), layout.memory, layout.size, [&] { ++released; });
        const auto array = Hestra::dynamicCast<MemArray<N, TypeParam>>(untyped);
        ASSERT_TRUE(array);
        ASSERT_EQ(array->Size(), layout.size);
        for (index_t k = 0; k < array->nElements(); ++k)
            for (int c = 0; c < ElementTraits<TypeParam>::components; ++c)
                ASSERT_EQ(elementComponent(array->element(k), c),
                          numberOf<typename ElementTraits<TypeParam>::component_type>(k, c));
        // Only what happens to be as arrays are is looked at in place.
        EXPECT_EQ(released, array->getChunk() ? 1 : 0) << "as soon as it was copied";
    };
    for (int round = 0; round < 100; ++round) {
        check(MultiIndex<1>());
        check(MultiIndex<2>());
        check(MultiIndex<3>());
        check(MultiIndex<4>());
    }
}

// Released memory is gone: a sanitizer hears of whoever looks at it.
TEST(ForeignMemoryTest, ItsOwnerIsLetGoOfWithTheLastThatNeedsIt) {
    constexpr index_t stride = 2;
    const MultiIndex<3> size(3, 2, 4);
    int released = 0;
    auto* const memory = new std::vector<point>(size.product() * stride);
    const ForeignMemory description{.elements = memory->data(),
                                    .strides = {stride * sizeof(point)},
                                    .bytes = memory->size() * sizeof(point),
                                    .isWritable = true};
    const auto release = [&released, memory] {
        ++released;
        delete memory;
    };
    const long long accounted = Hestra::ChunkBase::TotalMemsize;
    StrongPtr<MemArray<3, point>> array = adopt<3, point>(description, size, release);
    EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, accounted);
    for (index_t k = 0; k < array->nElements(); ++k) {
        ASSERT_EQ(&array->element(k), memory->data() + k * stride) << "nothing is copied";
        array->element(k) = point(static_cast<double>(k), 0, -1);
    }
    EXPECT_TRUE(array->hasOwnStorage());
    EXPECT_FALSE(array->isReadOnly());
    EXPECT_EQ(array->memsize(), size.product() * sizeof(point));
    StrongPtr<MemArray<2, point>> slice = array->getSlice(3);
    StrongPtr<MemArray<2, double>> component = slice->getComponentArray(0);
    StrongPtr<MemArray<1, double>> line = component->getSlice(1);
    EXPECT_FALSE(slice->hasOwnStorage());
    const StrongPtr<MemBase> copy = array->copy();

    Field field;
    field.setPersistentData(array);
    array = nullptr;
    field.removeData();
    slice = nullptr;
    EXPECT_EQ((*component)(1, 0), 19.0);
    component = nullptr;
    EXPECT_EQ((*line)(2), 23.0);
    EXPECT_EQ(released, 0);
    line = nullptr;
    EXPECT_EQ(released, 1);

    // Shares in an owner, of either kind; and const memory.
    const auto shared = std::make_shared<std::vector<int>>(6, 5);
    const StrongPtr<MemBase> handle = copy;
    {
        const auto one = adopt<2>(shared, {3, 2});
        const auto other = adopt<1>(std::as_const(*shared).data(), {6}, handle);
        EXPECT_EQ(shared.use_count(), 2);
        EXPECT_EQ(copy->strongCount(), 3);
        EXPECT_TRUE(other->isReadOnly() && other->getComponentArray(0)->isReadOnly() && !one->isReadOnly());
        EXPECT_EQ(other->element(5), 5);
    }
    EXPECT_EQ(shared.use_count(), 1);
    EXPECT_EQ(copy->strongCount(), 2);
}

TEST(ForeignMemoryTest, CachesCountWhatItsEndGivesBack) {
    std::vector<double> numbers(100);
    int released = 0;
    const auto adopted = [&](std::optional<std::size_t> memsize, MemoryOwner owner) {
        return adopt<1, double>({.elements = numbers.data(), .memsize = memsize}, {100}, std::move(owner));
    };
    EXPECT_EQ(adopted({}, nullptr)->memsize(), 0U) << "nobody takes it back";
    EXPECT_EQ(adopted(7, nullptr)->memsize(), 7U);
    const auto cache = Hestra::makeRef<Hestra::Cache>();
    Field field;
    field.setDiscardableData(adopted({}, [&] { ++released; }), cache);
    EXPECT_EQ(cache->bytes(), 800U);
    cache->clear();
    EXPECT_EQ(released, 1);
    // Looked at in place, or copied, when asked for, and again.
    const Layout<point, 3> layout(*std::make_unique<std::mt19937_64>(3));
    auto creator = field.createCreator(adoptLater(typeid(point), layout.memory, layout.size, [&] { ++released; }),
                                       typeid(point), layout.size, nullptr, Field::ReplaceExisting, cache);
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(creator->hasData());
        EXPECT_EQ(dynamic_cast<const TypedArray<point>&>(*creator->getData()).element(0)[2], 7.0);
        cache->clear();
    }
    creator = nullptr;
    EXPECT_EQ(released, 1);
    field.createCreator(adoptLater(typeid(double), {.elements = numbers.data()}, 100, [&] { ++released; }),
                        typeid(double), 100, nullptr, Field::ReplaceExisting, cache);
    EXPECT_EQ(released, 2) << "with the creator that was replaced";
    EXPECT_EQ(dynamic_cast<const TypedArray<double>&>(*field.getData()).getIterator().data, numbers.data());
    EXPECT_EQ(cache->bytes(), 0U) << "dropping it gives nothing back";
}

struct Bad {
    const char* name;
    ForeignMemory memory;
    DynamicSize size;
    const char* text; // of the failure
    bool isLength = false;
    VantleTypeIndex type = typeid(point);
};

TEST(ForeignMemoryTest, WhatIsWrongIsSaidAndTheOwnerLetGo) {
    alignas(point) static double numbers[300] = {};
    const index_t huge = index_t{1} << 62;
    const auto copied = OtherLayout::Copy;
    const Bad all[] = {
        {"null", {}, {2, 2}, "the address of the first is null"},
        {"null component",
         {.components = {numbers, nullptr, numbers}, .otherLayout = copied},
         {2},
         "component 1 is null"},
        {"unaligned", {.elements = reinterpret_cast<std::byte*>(numbers) + 4}, {2, 2}, "not aligned"},
        {"too small", {.elements = numbers, .bytes = 95}, {2, 2}, "95 bytes of memory, where 96 are needed", true},
        {"strides too long", {.elements = numbers, .strides = {48}, .bytes = 167}, {4}, "where 168 are needed", true},
        {"stride 0", {.elements = numbers, .strides = {0}}, {2, 2}, "stride 0 of 0 bytes is less than the 24"},
        {"short stride", {.elements = numbers, .strides = {16}, .otherLayout = copied}, {2, 2}, "stride 0 of 16 bytes"},
        {"negative", {.elements = numbers, .strides = {24, -48}, .otherLayout = copied}, {2, 2}, "stride 1 of -48"},
        {"strides", {.elements = numbers, .strides = {24, 48, 96}}, {2, 2}, "3 strides for rank 2"},
        {"no multiple", {.elements = numbers, .strides = {32}}, {2, 2}, "no multiple of their size"},
        {"padded rows", {.elements = numbers, .strides = {24, 72}}, {2, 2}, "constant distance"},
        {"other order", {.elements = numbers, .strides = {48, 24}}, {2, 2}, "constant distance"},
        {"apart",
         {.components = {numbers, numbers, numbers}},
         {2, 2},
         "components lie apart, so they have to be copied"},
        {"two components", {.components = {numbers, numbers}, .otherLayout = copied}, {2}, "2 component arrays for 3"},
        {"both", {.elements = numbers, .components = {numbers, numbers, numbers}}, {2}, "both one array and one of"},
        {"single", {.elements = numbers, .isSinglePrecision = true}, {2}, "are in single precision, so"},
        {"single integers",
         {.elements = numbers, .isSinglePrecision = true, .otherLayout = copied},
         {2},
         "no numbers in double",
         false,
         typeid(int)},
        {"swapped", {.elements = numbers, .byteOrder = std::endian::big}, {2}, "in the other order"},
        {"swapped texts",
         {.elements = numbers, .byteOrder = std::endian::big, .otherLayout = copied},
         {2},
         "order of their bytes is not known",
         false,
         typeid(std::string)},
        {"many", {.elements = numbers}, {huge, 8}, "more than memory can hold", true},
        {"large", {.elements = numbers}, {huge}, "more than memory can hold", true},
        {"many apart", {.elements = numbers, .strides = {PTRDIFF_MAX - 7}}, {3}, "beyond all memory", true},
        {"rank 5", {.elements = numbers}, {1, 1, 1, 1, 1}, "rank 5"},
        {"rank 0", {.elements = numbers}, {}, "rank 0"},
        {"unknown", {.elements = numbers}, {2}, "no arrays of this element type", false, typeid(char**)},
    };
    for (const Bad& bad : all) {
        SCOPED_TRACE(bad.name);
        int released = 0;
        const auto attempt = [&](const std::function<void(MemoryOwner)>& f) {
            released = 0;
            std::string text;
            try {
                f([&] { ++released; });
                ADD_FAILURE() << "taken";
            } catch (const std::invalid_argument& problem) {
                EXPECT_FALSE(bad.isLength);
                text = problem.what();
            } catch (const std::length_error& problem) {
                EXPECT_TRUE(bad.isLength);
                text = problem.what();
            }
            EXPECT_EQ(released, 1);
            EXPECT_NE(text.find(bad.text), std::string::npos) << text;
        };
        attempt([&](MemoryOwner owner) { (void)adopt(bad.type, bad.memory, bad.size, std::move(owner)); });
        attempt([&](MemoryOwner owner) { (void)adoptLater(bad.type, bad.memory, bad.size, std::move(owner)); });
        if (const auto size = bad.size.as<2>(); size && bad.type == typeid(point))
            attempt([&](MemoryOwner owner) { (void)adopt<2, point>(bad.memory, *size, std::move(owner)); });
    }
    // What is no mistake: nothing, wherever it is said to be.
    EXPECT_EQ((adopt<3, point>(ForeignMemory{.bytes = 0}, {0, 5, 7}, nullptr)->nElements()), 0U);
    EXPECT_EQ((adopt<1>(std::shared_ptr<std::vector<double>>(), {0})->nElements()), 0U);
    EXPECT_THROW((void)adopt<1>(std::make_shared<std::vector<double>>(3), {4}), std::length_error);
}

// Elements that are objects, looked at where they are and copied.
TEST(ForeignMemoryTest, ListsAndTexts) {
    const auto lists = std::make_shared<std::vector<std::vector<index_t>>>(6);
    for (index_t k = 0; k < 6; ++k) (*lists)[k].assign(k, k);
    const auto inPlace = adopt<2>(lists, {3, 2});
    EXPECT_EQ(&(*inPlace)(1, 1), &(*lists)[4]);
    constexpr std::ptrdiff_t size = sizeof(std::vector<index_t>);
    const auto turned = adopt<2, std::vector<index_t>>(
        {.elements = lists->data(), .strides = {2 * size, size}, .otherLayout = OtherLayout::Copy}, {3, 2}, nullptr);
    EXPECT_EQ((*turned)(2, 1), (*lists)[5]);
    EXPECT_EQ((*turned)(1, 0), (*lists)[2]);
    for (const VantleTypeIndex& type : MemBase::RegisteredTypes())
        EXPECT_EQ(adopt(type, {}, {0, 0}, nullptr)->elementIndex(), type);
}

} // namespace
