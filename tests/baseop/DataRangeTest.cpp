#include <baseop/DataRange.hpp>

#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

/// The promised result, one element after the other: every thread's block by itself, then the merge in order.
template<class T>
std::pair<T, T> plainRange(const std::vector<T>& elements, std::size_t threads) {
    T min = elements[0], max = elements[0];
    const std::size_t m = elements.size() - 1, q = m / threads, r = m % threads;
    for (std::size_t t = 0; t < threads; ++t) {
        T low = elements[0], high = elements[0];
        const std::size_t begin = 1 + (t < r ? t * (q + 1) : r + t * q);
        for (std::size_t i = begin; i < begin + q + (t < r ? 1 : 0); ++i) {
            low = (low < elements[i]) ? low : elements[i];
            high = (high > elements[i]) ? high : elements[i];
        }
        if (!(low >= min)) min = low;
        if (high > max) max = high;
    }
    return {min, max};
}

template<class T>
bool sameBits(T a, T b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

template<class T>
void expectPlainResult(CreativeArrayBase& creator, const std::vector<T>& elements) {
    const auto [min, max] = plainRange(elements, static_cast<std::size_t>(omp_get_max_threads()));
    const auto range = DataRange<T>::compute(creator, false, false);
    ASSERT_TRUE(range);
    if (elements.size() >= 66000) { // a block has bricks
        std::vector<T> part(elements.begin(), elements.begin() + 66000);
        const auto [low, high] = plainRange(part, static_cast<std::size_t>(omp_get_max_threads()));
        const auto block =
            Hestra::makeRef<CreativeArray>(MemArray<3, T>::makeMemArray(std::move(part), {60, 50, 22}).strong());
        const auto ofBlock = DataRange<T>::compute(*block, false, false);
        ASSERT_TRUE(sameBits(ofBlock->getMin(), low) && sameBits(ofBlock->getMax(), high));
    }
    ASSERT_TRUE(sameBits(range->getMin(), min) && sameBits(range->getMax(), max))
        << elements.size() << " elements, " << omp_get_max_threads() << " threads: [" << +range->getMin() << ", "
        << +range->getMax() << "] instead of [" << +min << ", " << +max << "]";
}
template<class T>
void expectPlainResult(const std::vector<T>& elements) {
    expectPlainResult(*support::creatorOf(elements), elements);
}

template<class T>
class DataRangeTest : public testing::Test {};
template<class T>
class FloatDataRangeTest : public testing::Test {};

using Types = testing::Types<double, float, unsigned char, unsigned short>;
TYPED_TEST_SUITE(DataRangeTest, Types);
using FloatTypes = testing::Types<double, float>;
TYPED_TEST_SUITE(FloatDataRangeTest, FloatTypes);

} // namespace

TYPED_TEST(DataRangeTest, EqualsThePlainFold) {
    support::forTeamsUpTo(4, [] {
        std::mt19937 random(7);
        for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 17u, 193u, 1000u, 66001u}) {
            std::vector<TypeParam> elements(size);
            for (TypeParam& element : elements) element = static_cast<TypeParam>(random() % 60000);
            expectPlainResult(elements);
        }
        if (omp_get_max_threads() > 1) return;
        // Extremes in every place of a vector register, and in the rest after the last one.
        std::vector<TypeParam> flat(500, TypeParam{100});
        for (std::size_t i = 0; i < flat.size(); ++i) {
            const std::size_t k = (i * 7 + 1) % flat.size();
            flat[i] = TypeParam{1};
            flat[k] = TypeParam{200};
            expectPlainResult(flat);
            flat[i] = flat[k] = TypeParam{100};
        }
    });
}

TYPED_TEST(FloatDataRangeTest, EqualsThePlainFoldWithNaNInEveryPlace) {
    const auto nan = std::numeric_limits<TypeParam>::quiet_NaN();
    support::forTeamsUpTo(4, [nan] {
        for (const std::size_t size : {1u, 2u, 3u, 9u, omp_get_max_threads() == 1 ? 301u : 20u})
            for (std::size_t i = 0; i < size; ++i) {
                std::vector<TypeParam> elements(size);
                for (std::size_t k = 0; k < size; ++k) elements[k] = static_cast<TypeParam>((k * 37) % 101) - 50;
                elements[i] = nan;
                expectPlainResult(elements);
                elements[(i * 7) % size] = -nan; // its sign is part of the result, too
                expectPlainResult(elements);
            }
    });
}

TYPED_TEST(FloatDataRangeTest, EqualsThePlainFoldOnSpecialValues) {
    using Limits = std::numeric_limits<TypeParam>;
    const TypeParam specials[] = {0,
                                  -TypeParam{0},
                                  Limits::quiet_NaN(),
                                  -Limits::quiet_NaN(),
                                  Limits::infinity(),
                                  -Limits::infinity(),
                                  Limits::denorm_min(),
                                  -Limits::denorm_min()};
    support::forTeamsUpTo(4, [&specials] {
        std::mt19937 random(11);
        // Which specials are sprinkled in, how densely, and what lies between them.
        for (const unsigned kinds : {2u, 4u, 8u})
            for (const unsigned every : {1u, 3u, 3000u})
                for (const int background : {-1, 0, 1, 2})
                    for (const std::size_t size : {17u, every == 3000 ? 600001u : 20001u}) { // up to a team's work
                        std::vector<TypeParam> elements(size);
                        for (TypeParam& element : elements) {
                            const auto number = static_cast<TypeParam>(random() % 1000 + 1);
                            element = background == 2 ? -TypeParam{0} : number * static_cast<TypeParam>(background);
                            if (random() % every == 0) element = specials[random() % kinds];
                        }
                        expectPlainResult(elements);
                    }
    });
}

TEST(DataRange, ReadsStridedAndPartialArraysElementByElement) {
    const auto whole = MemArray<3, Orvix::FixedArray<double, 3>>::create({4, 5, 6});
    for (index_t k = 0; k < whole->nElements(); ++k)
        for (int c = 0; c < 3; ++c) whole->element(k)[c] = static_cast<double>((k * 31 + 7) % 120) + 1000.0 * c;
    whole->element(50)[1] = kNaN;
    std::vector<double> middle; // component 1 in plane 2
    for (index_t k = 40; k < 60; ++k) middle.push_back(whole->element(k)[1]);
    const auto creator = support::creatorOf(whole->getComponentArray(1)->getSlice(2).strong());
    support::forTeamsUpTo(4, [&] { expectPlainResult(*creator, middle); });
}

TEST(DataRange, IsAttachedAndPublishedAndFreshUntilTheCreatorGetsOlderData) {
    const auto creator = support::creatorOf(std::vector<unsigned char>{17, 3, 250, 4});
    creator->touch();
    EXPECT_FALSE(DataRange<unsigned char>::get(*creator));

    const auto range = DataRange<unsigned char>::retrieve(*creator, false, false);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->age(), creator->age());
    EXPECT_EQ(range->getFloatDataRange(), std::make_pair(3.0, 250.0));
    EXPECT_EQ(DataRange<unsigned char>::get(*creator), range);
    EXPECT_EQ(DataRange<unsigned char>::retrieve(*creator, false, false), range);
    EXPECT_EQ(creator->findInterface<DataRangeBase>(), range);
    EXPECT_FALSE(DataRange<double>::get(*creator));
    const auto published = creator->getTypedAttribute<unsigned char>("Range");
    ASSERT_TRUE(published);
    EXPECT_EQ(published->base_vector(), (std::vector<unsigned char>{3, 250}));

    creator->touch();
    EXPECT_FALSE(DataRange<unsigned char>::get(*creator));
    EXPECT_TRUE(range); // stale, still attached
    const auto again = DataRange<unsigned char>::retrieve(*creator, false, false);
    ASSERT_TRUE(again);
    EXPECT_FALSE(range); // replaced
    EXPECT_EQ(again->age(), creator->age());
}

TEST(DataRange, MakesDataOnlyWhenAllowed) {
    int runs = 0;
    const StrongPtr<Hestra::Cache> cache = makeRef<Hestra::Cache>();
    const auto creator = support::countingCreator(std::vector<float>{2, -1, 5}, runs, cache);

    EXPECT_FALSE(DataRange<float>::compute(*creator, false, true));
    EXPECT_FALSE(DataRange<float>::compute(*creator, true, true));
    EXPECT_FALSE(creator->wasRequested());
    EXPECT_FALSE(DataRange<float>::retrieve(*creator, true, false));
    EXPECT_TRUE(creator->wasRequested());
    EXPECT_EQ(runs, 0);
    // A wrong type is known before the data are.
    EXPECT_FALSE(DataRange<double>::compute(*creator, false, false));
    EXPECT_EQ(runs, 0);

    ASSERT_TRUE(DataRange<float>::retrieve(*creator, false, false));
    EXPECT_EQ(runs, 1);
    // A range outlives its data, and theirs coming back.
    cache->clear();
    EXPECT_TRUE(DataRange<float>::get(*creator));
    ASSERT_TRUE(creator->create());
    EXPECT_TRUE(DataRange<float>::get(*creator));
    EXPECT_EQ(runs, 2);
    // Existing data are used whatever the flags.
    const auto held = creator->create();
    EXPECT_TRUE(DataRange<float>::compute(*creator, true, true));
    EXPECT_EQ(runs, 2);
}

TEST(DataRange, IsEmptyWhereThereIsNoSuchRange) {
    const auto none = [](const auto& creator, auto type) {
        using Type = decltype(type);
        EXPECT_FALSE(DataRange<Type>::compute(*creator, false, false));
        EXPECT_FALSE(DataRange<Type>::retrieve(*creator, false, false));
        EXPECT_FALSE(creator->getAttribute("Range"));
    };
    none(support::creatorOf(std::vector<int>{1, 2}), double{});
    none(support::creatorOf(std::vector<float>{1, 2}), double{});
    none(support::creatorOf(std::vector<short>{1, 2}), short{});
    none(support::creatorOf(std::vector<vector>(3)), double{});
    none(support::creatorOf(std::vector<double>{}), double{});
    none(support::creatorOf(StrongPtr<MemBase>()), double{});

    const auto failing = [](StrongPtr<MemBase> (*make)()) {
        return makeRef<CreativeArray>([make](const auto&) { return make(); }, VantleTypeIndex(typeid(double)));
    };
    none(failing([] { return StrongPtr<MemBase>(); }), double{});
    none(failing([]() -> StrongPtr<MemBase> { throw std::runtime_error("no data today"); }), double{});
    // Announced as double, and something else after all.
    none(failing([] { return StrongPtr<MemBase>(makeMemArray1D(std::vector<int>{1})); }), double{});
    using Axis = LinearCoordinateAxisArray<double>;
    none(failing([] {
             return StrongPtr<MemBase>(makeRef<DirectProductMemArray<double, LinearCoordinateAxisArray, 1>>(
                 std::array<Axis, 1>{Axis(0.0, 1.0, 3)}));
         }),
         double{});
}

TEST(DataRange, ExpandsByRangesOfItsOwnTypeOnly) {
    const auto range = makeRef<DataRange<double>>(1.0, 2.0);
    range->setAge(5);
    const auto by = [&range](double min, double max, Hestra::Ageable::age_t age) {
        const auto other = makeRef<DataRange<double>>(min, max);
        other->setAge(age);
        range->expandRange(other);
        return range->getFloatDataRange();
    };
    EXPECT_EQ(by(-3.0, 1.5, 4), std::make_pair(-3.0, 2.0));
    EXPECT_EQ(range->age(), 5);
    EXPECT_EQ(by(0.0, 7.0, 9), std::make_pair(-3.0, 7.0));
    EXPECT_EQ(range->age(), 9);

    const auto other = makeRef<DataRange<float>>(-100.0f, 100.0f);
    other->touch();
    range->expandRange(other);
    range->expandRange({});
    EXPECT_EQ(range->getFloatDataRange(), std::make_pair(-3.0, 7.0));
    EXPECT_EQ(range->age(), 9);

    EXPECT_TRUE(std::isnan(by(kNaN, kNaN, 0).first)); // NaN replaces a minimum, and no maximum
    EXPECT_EQ(range->getMaxf(), 7.0);
}
