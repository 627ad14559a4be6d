#include <baseop/Interpolate.hpp>
#include <baseop/ResampleRegularGrid.hpp>

#include <support/Testing.hpp>

namespace {

using Orvix::FixedArray;
using Factors = FixedArray<double, 3>;
using Doubles = MemArray<3, double>;

template<class T>
StrongPtr<MemArray<3, T>> randomArray(const MultiIndex<3>& size, unsigned seed = 5) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    StrongPtr<MemArray<3, T>> array = MemArray<3, T>::create(size);
    for (index_t k = 0; k < array->nElements(); ++k)
        for (int c = 0; c < ElementTraits<T>::components; ++c)
            elementComponent(array->element(k), c) = random() % 50 ? value(random) : random() % 2 ? kInfinity : -0.0;
    return array;
}

template<class T>
bool sameBytes(const T& a, const T& b) {
    bool same = true;
    for (int c = 0; c < ElementTraits<T>::components; ++c) {
        const double x = elementComponent(a, c), y = elementComponent(b, c);
        same = same && (std::memcmp(&x, &y, sizeof x) == 0 || (x != x && y != y));
    }
    return same;
}

template<class T>
void expectKernelAtEveryNode(const StrongPtr<MemArray<3, T>>& source, const Factors& factors) {
    const auto result = dynamicCast<MemArray<3, T>>(ResampleArray<3, T>::rescale(factors, source));
    ASSERT_TRUE(result);
    MultiIndex<3> extents;
    for (int d = 0; d < 3; ++d) extents[d] = static_cast<index_t>(static_cast<double>(source->Size()[d]) * factors[d]);
    ASSERT_EQ(result->Size(), extents);
    const double s[] = {1.0 / factors[0], 1.0 / factors[1], 1.0 / factors[2]};
    for (index_t k = 0; k < extents[2]; ++k)
        for (index_t j = 0; j < extents[1]; ++j)
            for (index_t i = 0; i < extents[0]; ++i) {
                const Factors at{static_cast<double>(i) * s[0], static_cast<double>(j) * s[1],
                                 static_cast<double>(k) * s[2]};
                const T expected = Interpolate<3, T>(*source, at).evaluate();
                ASSERT_TRUE(sameBytes((*result)(i, j, k), expected)) << at << " of " << std::to_string(extents);
            }
}

template<class T>
class ResampleArrayTest : public testing::Test {};
using Types = testing::Types<double, PhysicalSpace::Metric>;
TYPED_TEST_SUITE(ResampleArrayTest, Types);

// Random sizes and factors, some results large enough for several threads and strips.
TYPED_TEST(ResampleArrayTest, HasTheBitsOfTheKernelAtEveryNode) {
    std::mt19937_64 random(3);
    std::uniform_real_distribution<double> factor(0.2, 4.0);
    const double nice[] = {0.5, 1.0, 2.0, 3.0, 0.29, 1.5};
    for (int n = 0; n < 60; ++n) {
        const MultiIndex<3> size(1 + random() % 40, 1 + random() % 12, 1 + random() % 12);
        Factors factors;
        for (double& f : factors) f = random() % 2 ? factor(random) : nice[random() % 6];
        const support::ThreadCount count(1 + n % 3);
        expectKernelAtEveryNode<TypeParam>(randomArray<TypeParam>(size), factors);
    }
    // Strips for all threads; fewer rows than threads; one row; rows longer than a strip.
    for (const MultiIndex<3>& size :
         {MultiIndex<3>(300, 41, 3), MultiIndex<3>(100, 1, 200), MultiIndex<3>(90, 2, 90), MultiIndex<3>(9000, 3, 2)})
        support::forTeamsUpTo(5, [&] {
            expectKernelAtEveryNode<TypeParam>(randomArray<TypeParam>(size), {2.0, 1.5, 1.5});
        });
    // A slice of an array of four axes, and one component of an array of several: elements with gaps.
    const auto whole = filled<double, 4>({5, 4, 3, 2}, [](index_t k) { return k; });
    expectKernelAtEveryNode<double>(StrongPtr<Doubles>(whole->getSlice(1)), {1.5, 2.0, 0.7});
    const auto metrics = randomArray<PhysicalSpace::Metric>({5, 4, 6});
    expectKernelAtEveryNode<double>(StrongPtr<Doubles>(metrics->getComponentArray(3)), {1.5, 2.0, 0.7});
}

TEST(ResampleArrayRuleTest, BadInputGivesNullAndVanishingExtentsAnEmptyArray) {
    const StrongPtr<MemBase> array = Doubles::create({3, 4, 5}).strong();
    for (const double bad : {0.0, -1.0, -0.0, kNaN, kInfinity, -kInfinity, 1e300, 1e7})
        EXPECT_FALSE((ResampleArray<3, double>::rescale(bad, array))) << bad;
    for (int d = 0; d < 3; ++d) {
        Factors factors{1.0, 1.0, 1.0};
        factors[d] = kNaN;
        EXPECT_FALSE((ResampleArray<3, double>::rescale(factors, array)));
    }
    EXPECT_FALSE((ResampleArray<3, double>::rescale(2.0, nullptr)));
    EXPECT_FALSE((ResampleArray<3, double>::rescale(2.0, MemArray<3, float>::create({2, 2, 2}).strong())));
    EXPECT_FALSE((ResampleArray<3, double>::rescale(2.0, MemArray<2, double>::create({2, 2}).strong())));

    const StrongPtr<MemBase> vanished = ResampleArray<3, double>::rescale(0.333, array);
    ASSERT_TRUE(vanished);
    EXPECT_EQ(vanished->getDynamicSize(), DynamicSize(MultiIndex<3>(0, 1, 1)));
    const StrongPtr<MemBase> empty = ResampleArray<3, double>::rescale(2.0, Doubles::create({0, 4, 5}).strong());
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->getDynamicSize(), DynamicSize(MultiIndex<3>(0, 8, 10)));
    EXPECT_EQ(rescaledExtents({100, 1, 1}, {0.29, 1, 1}), MultiIndex<3>(28, 1, 1));
}

/// A grid of two uniform fragments with a lazy field that counts how often each source array is made.
class ResampleRegularGridTest : public testing::Test {
protected:
    static constexpr index_t kNodes = 9;

    void SetUp() override {
        Hestra::Cache::MemCache()->clear();
        source = (*bundle[0.0])["source"];
        target = (*bundle[0.0])["target"];
        RegularGrid3D grid(source);
        for (int f = 0; f < 2; ++f) {
            const auto x = static_cast<double>(f);
            const StrongPtr<MemBase> positions = makeRef<UniformCartesianArray>(BoundingBox({x, 0, 0}, {x + 1, 2, 3}),
                                                                                MultiIndex<3>(kNodes, kNodes, kNodes));
            // Names whose alphabetical order is not that of their making.
            ids[f] = grid.addBlock(f ? "10" : "9", positions, MultiIndex<3>(index_t(f) * (kNodes - 1), 0, 0));
        }
        addLazy("pressure", [this](int f) {
            ++made[f];
            return StrongPtr<MemBase>(randomArray<double>({kNodes, kNodes, kNodes}, unsigned(f)));
        });
    }
    void TearDown() override {
        Hestra::Cache::MemCache()->setUnlimited();
        Hestra::Cache::MemCache()->clear();
    }

    void addLazy(const std::string& name, std::function<StrongPtr<MemBase>(int)> make) {
        RegularGrid3D grid(source);
        const StrongPtr<Field> field = makeRef<Field>(grid.positions()->getFragmentIDCollection());
        for (int f = 0; f < 2; ++f)
            (void)field->createCreator([make, f](const WeakPtr<CreativeArrayBase>&) { return make(f); },
                                       VantleTypeIndex(typeid(double)), MultiIndex<3>(kNodes, kNodes, kNodes), ids[f],
                                       Field::ReplaceExisting, Hestra::Cache::MemCache());
        grid.representation()->setField(name, field);
    }
    StrongPtr<Field> resampled(const std::string& name) const { return (*target)(name); }

    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Grid> source, target;
    StrongPtr<FragmentID> ids[2];
    std::atomic<int> made[2] = {0, 0};
};

TEST_F(ResampleRegularGridTest, ComputesNothingAndKnowsBoxSizeAndType) {
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *source, "finer", {2.0, 0.5, 1.5}));
    const StrongPtr<Field> positions = target->CartesianPositions(), pressure = resampled("pressure");
    ASSERT_TRUE(positions && pressure);
    EXPECT_EQ(positions->getFragmentIDCollection()->fragmentNames(), (std::vector<std::string>{"9", "10"}));
    EXPECT_EQ(pressure->getFragmentIDCollection().rawptr(), positions->getFragmentIDCollection().rawptr());
    for (int f = 0; f < 2; ++f) {
        const auto id = positions->getFragmentID(ids[f]->name());
        ASSERT_TRUE(id);
        EXPECT_FALSE((id->findInterface<FragmentLocation<3, IndexOffset>>()));
        const auto uniform = dynamicCast<UniformCartesianArray>(positions->getData(id));
        ASSERT_TRUE(uniform);
        EXPECT_EQ(uniform->Size(), MultiIndex<3>(18, 4, 13));
        EXPECT_EQ(uniform->first(), point(f, 0, 0));
        EXPECT_EQ(uniform->last(), point(f + 1, 2, 3));
        const auto creator = pressure->getCreator(id);
        ASSERT_TRUE(creator);
        EXPECT_EQ(getSize(*creator), DynamicSize(MultiIndex<3>(18, 4, 13)));
        EXPECT_EQ(creator->elementType(), VantleTypeIndex(typeid(double)));
        EXPECT_FALSE(pressure->hasData(id));
    }
    EXPECT_EQ(made[0] + made[1], 0);

    // The first request makes one source array, and one of ours.
    const auto id = pressure->getFragmentID("10");
    const auto array = dynamicCast<Doubles>(pressure->getData(id));
    ASSERT_TRUE(array);
    EXPECT_EQ(made[0], 0);
    EXPECT_EQ(made[1], 1);
    EXPECT_EQ(array->getCreator().lock().rawptr(), pressure->getCreator(id).rawptr());
    const auto expected = dynamicCast<Doubles>(
        ResampleArray<3, double>::rescale({2.0, 0.5, 1.5}, randomArray<double>({kNodes, kNodes, kNodes}, 1)));
    for (index_t k = 0; k < expected->nElements(); ++k) ASSERT_TRUE(sameBytes(array->element(k), expected->element(k)));
}

TEST_F(ResampleRegularGridTest, OtherElementsAndNoPositionsAreNobodysError) {
    addLazy("colour", [](int) { return MemArray<3, float>::create({kNodes, kNodes, kNodes}).strong(); });
    addLazy("missing", [](int) { return StrongPtr<MemBase>(); });
    RegularGrid3D grid(source);
    const StrongPtr<FragmentID> curved = grid.addBlock("curved", RegularGrid3D::Positions::create({2, 2, 2}).strong());
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *source, "finer", {2.0, 2.0, 2.0}));
    const StrongPtr<Field> positions = target->CartesianPositions();
    EXPECT_FALSE(positions->getData(positions->getFragmentID("curved")));
    EXPECT_FALSE(resampled("colour")->getData(resampled("colour")->getFragmentID("9")));
    EXPECT_FALSE(resampled("missing")->getData(resampled("missing")->getFragmentID("9")));
    EXPECT_TRUE(resampled("pressure")->getData(resampled("pressure")->getFragmentID("9")));
}

TEST_F(ResampleRegularGridTest, UnfragmentedDataAlsoBesideListedBlocks) {
    const StrongPtr<Grid> whole = (*bundle[0.0])["whole"];
    UniformGrid3D uniform = UniformGrid3D::create(*whole, BoundingBox({0, 0, 0}, {1, 1, 1}), {4, 4, 4});
    const auto data = randomArray<double>({4, 4, 4});
    uniform.setField("density", data);
    const StrongPtr<FragmentIDCollection> blocks = makeRef<FragmentIDCollection>();
    blocks->setFragmentNames({"a", "b"});
    uniform.representation()->setField("listed", makeRef<Field>(StrongPtr<MemBase>(data), blocks));
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *whole, "coarser", {0.5, 0.5, 0.5}));
    for (const char* name : {"density", "listed"}) {
        const auto array = dynamicCast<Doubles>(resampled(name)->getData());
        ASSERT_TRUE(array) << name;
        EXPECT_EQ((*array)(1, 1, 1), (*data)(2, 2, 2));
    }
    EXPECT_EQ(target->CartesianPositions()->getData()->getDynamicSize(), DynamicSize(MultiIndex<3>(2, 2, 2)));
}

TEST_F(ResampleRegularGridTest, SaysWhereFieldsComeFrom) {
    (*bundle).bindUrl("file:flow");
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *source, "finer", {2.0, 2.0, 2.0}));
    const auto origin = resampled("pressure")->findInterface<FieldOrigin>();
    ASSERT_TRUE(origin);
    EXPECT_EQ(origin->library(), "VantleLib");
    EXPECT_EQ(origin->fragmentKind(), "RegularFragment");
    EXPECT_EQ(origin->persistentName(), "file:flow#finer/pressure");
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *source, "finer", {2.0, 2.0, 2.0}, "mine"));
    EXPECT_EQ(target->CartesianPositions()->findInterface<FieldOrigin>()->persistentName(), "mine#finer/Positions");
}

TEST_F(ResampleRegularGridTest, RefusesBadRequestsAndTouchesNothing) {
    for (const double bad : {0.0, -2.0, kNaN, kInfinity}) {
        EXPECT_FALSE(ResampleRegularGrid3D(*target, *source, "bad", {1.0, bad, 1.0}));
        EXPECT_FALSE(target->CartesianPositions());
    }
    EXPECT_FALSE(ResampleRegularGrid3D(*source, *source, "itself", {2.0, 2.0, 2.0}));
    const StrongPtr<Grid> empty = (*bundle[0.0])["empty"];
    EXPECT_FALSE(ResampleRegularGrid3D(*target, *empty, "nothing", {2.0, 2.0, 2.0}));
    // Too large for any memory: there is a field, and its arrays do not come.
    ASSERT_TRUE(ResampleRegularGrid3D(*target, *source, "huge", {1e200, 1e200, 1e200}));
    EXPECT_FALSE(resampled("pressure")->getData(resampled("pressure")->getFragmentID("9")));
}

} // namespace
