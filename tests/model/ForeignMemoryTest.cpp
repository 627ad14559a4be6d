// Arrays over memory of somebody else: every layout against the formula that it stands for, who lets go of what when,
// and what is refused.

#include <support/Testing.hpp>

namespace {

/// Memory of a random layout, with axes in any order, gaps, and at any address; number c of element k is 7k + 3c + 1.
template<class T, int N>
struct Layout {
    using Number = typename ElementTraits<T>::component_type;
    static constexpr int C = ElementTraits<T>::components;
    static Number number(index_t k, int c) { return static_cast<Number>(7 * k + 3 * static_cast<index_t>(c) + 1); }

    explicit Layout(std::mt19937_64& random) {
        for (int d = 0; d < N; ++d) size[d] = 1 + random() % 4;
        memory.otherLayout = OtherLayout::Copy;
        if (random() % 2) memory.byteOrder = std::endian::big;
        memory.isSinglePrecision = std::is_same_v<Number, double> && random() % 2;
        const std::size_t each = memory.isSinglePrecision ? sizeof(float) : sizeof(Number);
        const std::size_t arrays = random() % 3 ? 1 : C;
        std::array<std::size_t, N> axes;
        for (std::size_t d = 0; d < N; ++d) axes[d] = d;
        std::shuffle(axes.begin(), axes.end(), random);
        memory.strides.assign(N, 0);
        memory.bytes = arrays == 1 ? each * C : each;
        std::size_t next = *memory.bytes + random() % 5;
        for (const std::size_t d : axes) {
            memory.strides[d] = static_cast<std::ptrdiff_t>(next);
            *memory.bytes += next * (size[d] - 1);
            next = next * size[d] + random() % 3;
        }
        bytes.resize(arrays, std::vector<std::byte>(*memory.bytes + 1)); // of which the first is skipped
        memory.elements = arrays == 1 ? &bytes[0][1] : nullptr;
        for (auto& array : bytes)
            if (arrays > 1) memory.components.push_back(&array[1]);
        for (index_t k = 0; k < size.product(); ++k)
            for (int c = 0; c < C; ++c) {
                const auto at = MultiIndex<N>::fromLinear(k, size);
                const auto n = static_cast<std::size_t>(c);
                std::byte* place = arrays == 1 ? &bytes[0][1] + n * each : &bytes[n][1];
                for (int d = 0; d < N; ++d)
                    place += memory.strides[static_cast<std::size_t>(d)] * static_cast<std::ptrdiff_t>(at[d]);
                const auto write = [&](auto value) { std::memcpy(place, &value, sizeof value); };
                memory.isSinglePrecision ? write(static_cast<float>(number(k, c))) : write(number(k, c));
                if (memory.byteOrder != std::endian::native) std::reverse(place, place + each);
            }
    }
    MultiIndex<N> size;
    std::vector<std::vector<std::byte>> bytes;
    ForeignMemory memory;
};

template<class T>
struct ForeignLayoutTest : testing::Test {};
using Types = testing::Types<double, point, FloatVector, unsigned short, Orvix::ByteRGB, Triangle, index_t>;
TYPED_TEST_SUITE(ForeignLayoutTest, Types);

TYPED_TEST(ForeignLayoutTest, CopiesFindEveryNumberWhereverItLies) {
    std::mt19937_64 random(11);
    const auto check = [&]<int N>(MultiIndex<N>) {
        using Random = Layout<TypeParam, N>;
        const Random layout(random);
        int released = 0;
        const auto array = dynamicCast<MemArray<N, TypeParam>>(
            adopt(typeid(TypeParam), layout.memory, layout.size, [&] { ++released; }));
        ASSERT_TRUE(array && array->Size() == layout.size);
        for (index_t k = 0; k < array->nElements(); ++k)
            for (int c = 0; c < Random::C; ++c) ASSERT_EQ(elementComponent(array->element(k), c), Random::number(k, c));
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
    auto* const memory = new std::vector<point>(48);
    int released = 0;
    const auto release = [&] {
        ++released;
        delete memory;
    };
    const long long accounted = Hestra::ChunkBase::TotalMemsize;
    StrongPtr<MemArray<3, point>> array = adopt<3, point>(
        {.elements = memory->data(), .strides = {2 * sizeof(point)}, .isWritable = true}, {3, 2, 4}, release);
    EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, accounted);
    EXPECT_TRUE(array->hasOwnStorage() && !array->isReadOnly());
    for (index_t k = 0; k < 24; ++k) {
        ASSERT_EQ(&array->element(k), memory->data() + 2 * k) << "nothing is copied";
        array->element(k)[0] = static_cast<double>(k);
    }
    StrongPtr<MemArray<2, point>> slice = array->getSlice(3);
    StrongPtr<MemArray<2, double>> component = slice->getComponentArray(0);
    StrongPtr<MemArray<1, double>> line = component->getSlice(1);
    const StrongPtr<MemBase> copy = array->copy();
    Field field;
    field.setPersistentData(array);
    array = nullptr;
    field.removeData();
    EXPECT_FALSE(slice->hasOwnStorage());
    slice = nullptr;
    EXPECT_EQ((*component)(1, 0), 19.0);
    component = nullptr;
    EXPECT_EQ((*line)(2), 23.0);
    EXPECT_EQ(released, 0);
    line = nullptr;
    EXPECT_EQ(released, 1);

    // Shares in owners of other kinds; const memory; elements that are objects.
    using List = std::vector<index_t>;
    const auto lists = std::make_shared<std::vector<List>>();
    for (index_t k = 0; k < 6; ++k) lists->emplace_back(k, k);
    {
        const auto one = adopt<2>(lists, {3, 2});
        const auto other = adopt<1>(std::as_const(*lists).data(), {6}, copy);
        EXPECT_EQ(&(*one)(1, 1), &other->element(4));
        EXPECT_TRUE(other->isReadOnly() && !one->isReadOnly());
        EXPECT_EQ(std::pair(lists.use_count(), copy->strongCount()), std::pair(2L, 2));
    }
    EXPECT_EQ(std::pair(lists.use_count(), copy->strongCount()), std::pair(1L, 1));
    const auto turned = adopt<2, List>(
        {.elements = lists->data(), .strides = {2 * sizeof(List), sizeof(List)}, .otherLayout = OtherLayout::Copy},
        {3, 2}, nullptr);
    EXPECT_EQ((*turned)(2, 0), (*lists)[4]);
    EXPECT_EQ((*turned)(1, 1), (*lists)[3]);
}

TEST(ForeignMemoryTest, CachesCountWhatItsEndGivesBack) {
    std::vector<double> numbers(100, 7.0);
    int released = 0;
    const auto release = [&] { ++released; };
    const ForeignMemory memory{.elements = numbers.data()};
    EXPECT_EQ((adopt<1, double>(memory, {100}, nullptr)->memsize()), 0U) << "nobody takes it back";
    EXPECT_EQ((adopt<1, double>({.elements = numbers.data(), .memsize = 7}, {100}, nullptr)->memsize()), 7U);
    const auto cache = makeRef<Hestra::Cache>();
    Field field;
    field.setDiscardableData(adopt<1, double>(memory, {100}, release), cache);
    EXPECT_EQ(cache->bytes(), 800U);
    cache->clear();
    EXPECT_EQ(released, 1);
    // Looked at, or copied, when asked for, and again: the creator keeps the owner.
    for (const bool isCopied : {false, true}) {
        const ForeignMemory apart{.elements = &numbers[1], .strides = {24, 96}, .otherLayout = OtherLayout::Copy};
        const DynamicSize size = isCopied ? DynamicSize{3, 5} : DynamicSize{3, 1};
        field.createCreator(adoptLater(typeid(point), apart, size, release), typeid(point), size, nullptr,
                            Field::ReplaceExisting, cache);
        for (int round = 0; round < 2; ++round) {
            EXPECT_FALSE(field.hasData());
            EXPECT_EQ(dynamic_cast<const TypedArray<point>&>(*field.getData()).element(2)[2], 7.0);
            EXPECT_EQ(cache->bytes(), isCopied ? 360U : 0U);
            cache->clear();
        }
        EXPECT_EQ(released, isCopied ? 2 : 1);
    }
}

TEST(ForeignMemoryTest, WhatIsWrongIsSaidAndTheOwnerLetGo) {
    alignas(point) static double x[300] = {};
    const auto expect = [](const char* text, const ForeignMemory& memory, const DynamicSize& size,
                           bool isLength = false, const VantleTypeIndex& type = typeid(point)) {
        SCOPED_TRACE(text);
        int released = 0;
        const auto attempt = [&](const auto& f) {
            try {
                (void)f(type, memory, size, [&] { ++released; });
                ADD_FAILURE() << "taken";
            } catch (const std::logic_error& problem) {
                EXPECT_NE(std::string(problem.what()).find(text), std::string::npos) << problem.what();
                EXPECT_EQ(dynamic_cast<const std::length_error*>(&problem) != nullptr, isLength);
                EXPECT_EQ(dynamic_cast<const std::invalid_argument*>(&problem) == nullptr, isLength);
            }
        };
        attempt([](const auto&... all) { return adopt(all...); });
        attempt([](const auto&... all) { return adoptLater(all...); });
        EXPECT_EQ(released, 2);
    };
    constexpr auto copied = OtherLayout::Copy;
    constexpr index_t many = index_t{1} << 62;
    expect("the address of the first is null", {}, {2, 2});
    expect("component 1 is null", {.components = {x, nullptr, x}, .otherLayout = copied}, 2);
    expect("not aligned", {.elements = reinterpret_cast<std::byte*>(x) + 4}, {2, 2});
    expect("95 bytes of memory, where 96 are needed", {.elements = x, .bytes = 95}, {2, 2}, true);
    expect("where 168 are needed", {.elements = x, .strides = {48}, .bytes = 167}, 4, true);
    expect("stride 0 of 0 bytes is less than the 24", {.elements = x, .strides = {0}}, {2, 2});
    expect("stride 1 of -48", {.elements = x, .strides = {24, -48}, .otherLayout = copied}, {2, 2});
    expect("3 strides for rank 2", {.elements = x, .strides = {24, 48, 96}}, {2, 2});
    expect("no multiple of their size", {.elements = x, .strides = {32}}, {2, 2});
    expect("not at one constant distance", {.elements = x, .strides = {24, 72}}, {2, 2});
    expect("lie apart, so they have to be copied", {.components = {x, x, x}}, {2, 2});
    expect("2 component arrays for 3", {.components = {x, x}, .otherLayout = copied}, 2);
    expect("are in single precision, so", {.elements = x, .isSinglePrecision = true}, 2);
    expect("no numbers in double", {.elements = x, .isSinglePrecision = true}, 2, false, typeid(int));
    expect("in the other order", {.elements = x, .byteOrder = std::endian::big}, 2);
    expect("is not known", {.elements = x, .byteOrder = std::endian::big}, 2, false, typeid(std::string));
    expect("more than memory can hold", {.elements = x}, {many, 8}, true);
    expect("more than memory can hold", {.elements = x}, many, true);
    expect("beyond all memory", {.elements = x, .strides = {PTRDIFF_MAX - 7}}, 3, true);
    expect("rank 5", {.elements = x}, {1, 1, 1, 1, 1});
    expect("no arrays of this element type", {.elements = x}, 2, false, typeid(char**));
    EXPECT_EQ((adopt<3, point>({.bytes = 0}, {0, 5, 7}, nullptr)->nElements()), 0U) << "nothing, wherever it is";
    EXPECT_THROW((void)adopt<1>(std::make_shared<std::vector<double>>(3), {4}), std::length_error);
}

} // namespace
