#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

/// Sums planes of floats.
template<class... Others>
struct SumAnd : PartialDerivatorBase, Others... {
    explicit SumAnd(int howOften = 1) : factor(howOften) {}
    bool isPartialDerivable(const MemArrayProperties& properties) const override {
        return properties.rank() == 2 && properties.elementType() == VantleTypeIndex(typeid(float));
    }
    StrongPtr<MemBase> doPartialDerivative(const StrongPtr<MemBase>& data) const override {
        double sum = 0.0;
        const auto* const floats = dynamic_cast<const MemArray<2, float>*>(data.rawptr());
        for (index_t n = 0; n < floats->nElements(); ++n) sum += factor * double(floats->element(n));
        return makeMemArray1D(std::vector<double>{sum});
    }
    double factor;
};
using Sum = SumAnd<>;

/// A base that asks: of what it belongs to there is no more then than the base of all derivators.
struct Curious {
    Curious() { EXPECT_FALSE(PartialDerivative(StrongPtr<MemBase>(MemArray<2, float>::create({1, 1})))); }
};

TEST(DerivativeClientTest, ADerivatorTakesPartAsLongAsItLives) {
    const auto floats = MemArray<2, float>::create({2, 2});
    floats->element(3) = 2.5F;
    const StrongPtr<CreativeArrayBase> creator = makeRef<CreativeArray>(StrongPtr<MemBase>(floats));
    const auto sum = [&]() -> double {
        EXPECT_EQ(isPartialDerivable(creator), bool(PartialDerivative(StrongPtr<MemBase>(floats))));
        const auto result = dynamicCast<MemArray<1, double>>(PartialDerivative(StrongPtr<MemBase>(floats)));
        return result ? (*result)(0) : 0.0;
    };
    EXPECT_EQ(sum(), 0.0);
    {
        const Sum local;
        EXPECT_EQ(sum(), 2.5);
        const Sum later(7);
        EXPECT_EQ(sum(), 2.5) << "in the order of their making";
    }
    EXPECT_EQ(sum(), 0.0);
    const Sum* const plain = new Sum(2);
    EXPECT_EQ(sum(), 5.0);
    EXPECT_EQ(sum(), 5.0) << "asking takes no part in owning";
    delete plain;
    EXPECT_EQ(sum(), 0.0);
    {
        const StrongPtr<PartialDerivatorBase> owned(new Sum(3));
        EXPECT_EQ(sum(), 7.5);
        EXPECT_TRUE(PartialDerivative(StrongPtr<MemBase>(MemArray<3, double>::create({2, 2, 2}))));
    }
    EXPECT_EQ(sum(), 0.0);
    {
        const SumAnd<Curious> unfinished;
        EXPECT_EQ(sum(), 2.5);
    }
    static const Sum forGood(4);
    EXPECT_EQ(sum(), 10.0);
}

// Uniform positions announce points of rank 3, and that counts; computing has to say that there is nothing to compute.
TEST(DerivativeClientTest, ProceduralPositionsAreWhatTheyAnnounce) {
    const auto cache = makeRef<Hestra::Cache>();
    const StrongPtr<CreativeArrayBase> positions = makeRef<CreativeArray>(
        [](const auto&) -> StrongPtr<MemBase> {
            return makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(3, 3, 3));
        },
        typeid(point), DynamicSize(MultiIndex<3>(3, 3, 3)), cache);
    EXPECT_TRUE(isPartialDerivable(positions));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(positions->create());
        EXPECT_TRUE(isPartialDerivable(positions)) << "while they exist";
        std::string errors;
        EXPECT_FALSE(PartialDerivative(positions, errors));
        EXPECT_EQ(errors, "No derivation computed for fragment ");
        cache->clear();
        ASSERT_FALSE(positions->hasData());
        EXPECT_TRUE(isPartialDerivable(positions)) << "after they were dropped";
    }
}

// Of a fragment and of its derivative: the same answer as if nothing had ever been kept, and as new as it is.
TEST(DerivativeClientTest, KeptDerivativesAreNeverStale) {
    const auto cache = makeRef<Hestra::Cache>();
    const auto values = MemArray<3, double>::create({3, 1, 1});
    const auto write = [&](double a, double b, double c) {
        for (index_t n = 0; n < 3; ++n) values->element(n) = n == 0 ? a : n == 1 ? b : c;
    };
    write(0, 1, 4);
    const StrongPtr<CreativeArrayBase> source = makeRef<CreativeArray>(StrongPtr<MemBase>(values));
    std::string errors;
    const StrongPtr<CreativeArray> first = PartialDerivative(source, errors, cache);
    const StrongPtr<CreativeArray> second = PartialDerivative(first, errors, cache);
    const StrongPtr<CreativeArray> kept = PartialDerivative(source, errors, nullptr);
    ASSERT_TRUE(first && second && kept) << errors;
    const auto slopes = [](const StrongPtr<CreativeArray>& derivative) {
        const auto made = dynamicCast<MemArray<3, vector>>(derivative->create());
        return std::vector{(*made)(0, 0, 0)[0], (*made)(1, 0, 0)[0], (*made)(2, 0, 0)[0]};
    };
    const auto bend = [&] {
        const auto made = dynamicCast<MemArray<3, Orvix::Quadratic<3, double>>>(second->create());
        return (*made)(1, 0, 0)[0];
    };
    EXPECT_EQ(slopes(first), (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(bend(), 1.0);
    const auto before = first->age();
    write(0, 10, 40);
    source->touch();
    EXPECT_EQ(bend(), 10.0) << "though nobody has asked the first derivative since";
    for (int round = 0; round < 2; ++round) {
        const auto age = first->age();
        EXPECT_GT(age, before);
        EXPECT_EQ(slopes(first), (std::vector<double>{10, 20, 30}));
        EXPECT_EQ(slopes(kept), (std::vector<double>{10, 20, 30}));
        EXPECT_EQ(bend(), 10.0);
        EXPECT_EQ(first->age(), age);
        EXPECT_TRUE(first->create() == first->cachedData()) << "made once";
        EXPECT_TRUE(first->create()->getCreator() == first);
        EXPECT_EQ(cache->size(), 2u);
        cache->clear();
        EXPECT_FALSE(first->hasData() || second->hasData());
        EXPECT_TRUE(kept->hasData());
        EXPECT_EQ(getSize(*first), DynamicSize(MultiIndex<3>(3, 1, 1)));
    }
    source->touch();
    EXPECT_FALSE(first->create(true)) << "in the background nothing is made";
    EXPECT_TRUE(first->wasRequested());
}

} // namespace
