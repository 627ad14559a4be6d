#include <baseop/PartialDerivative.hpp>

#include <support/Testing.hpp>

namespace {

using Tensor = Orvix::Quadratic<3, double>;

StrongPtr<MemArray<3, double>> randomScalars(const MultiIndex<3>& size, unsigned seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    return filled<double>(size, [&](index_t) { return value(random); });
}

template<class Result, class Source>
StrongPtr<MemArray<3, Result>> derived(const Source& source) {
    return dynamicCast<MemArray<3, Result>>(PartialDerivative(StrongPtr<MemBase>(source)));
}

// The definition, one axis after the other, one node at a time.
std::vector<double> plainGradient(const MemArray<3, double>& field) {
    const auto size = field.Size();
    std::vector<double> result(field.nElements() * 3, 0.0);
    for (int axis = 0; axis < 3; ++axis) {
        if (size[axis] <= 1) continue;
        for (index_t n = 0; n < field.nElements(); ++n) {
            const auto at = MultiIndex<3>::fromLinear(n, size);
            MultiIndex<3> low = at, high = at;
            if (at[axis] > 0) --low[axis];
            if (at[axis] + 1 < size[axis]) ++high[axis];
            const double difference = field[high] - field[low];
            const bool inside = high[axis] - low[axis] == 2;
            result[n * 3 + static_cast<index_t>(axis)] = inside ? difference * 0.5 : difference;
        }
    }
    return result;
}

const MultiIndex<3> kSizes[] = {{1, 1, 1}, {2, 1, 3}, {1, 4, 1}, {5, 2, 2},   {1, 7, 5},
                                {9, 8, 7}, {2, 2, 2}, {3, 1, 1}, {40, 41, 43}};

// Of numbers, and of each component of vectors and of points: [axis, component].
TEST(PartialDerivativeTest, IsTheDefinitionToTheLastBitForAnyNumberOfThreads) {
    unsigned seed = 1;
    for (const auto& size : kSizes)
        for (const int count : {1, 3}) {
            const support::ThreadCount threads(count);
            StrongPtr<MemArray<3, double>> fields[3];
            for (auto& field : fields) {
                field = randomScalars(size, ++seed);
                field->element(field->nElements() / 2) = kInfinity;
                field->element(field->nElements() / 3) = -0.0;
            }
            const auto place = [&](index_t n) {
                return point(fields[0]->element(n), fields[1]->element(n), fields[2]->element(n));
            };
            const auto ofPoints = derived<Tensor>(filled<point>(size, place));
            const auto ofVectors = derived<Tensor>(filled<vector>(size, [&](index_t n) { return place(n) - point(); }));
            for (int c = 0; c < 3; ++c) {
                const auto gradient = derived<vector>(fields[c]);
                const auto plain = plainGradient(*fields[c]);
                ASSERT_TRUE(gradient && ofPoints && ofVectors && gradient->Size() == size);
                for (index_t n = 0; n < gradient->nElements(); ++n)
                    for (int axis = 0; axis < 3; ++axis) {
                        const double wanted = plain[3 * n + static_cast<index_t>(axis)];
                        for (const double found : {gradient->element(n)[axis], ofPoints->element(n)(axis, c),
                                                   ofVectors->element(n)(axis, c)})
                            ASSERT_TRUE(std::bit_cast<std::uint64_t>(found) == std::bit_cast<std::uint64_t>(wanted) ||
                                        (std::isnan(found) && std::isnan(wanted)))
                                << n;
                    }
            }
        }
}

TEST(PartialDerivativeTest, OthersHaveNone) {
    EXPECT_FALSE(PartialDerivative(StrongPtr<MemBase>()));
    EXPECT_FALSE(PartialDerivative(StrongPtr<MemBase>(MemArray<3, float>::create({3, 3, 3}))));
    EXPECT_FALSE(PartialDerivative(StrongPtr<MemBase>(MemArray<2, double>::create({3, 3}))));
    EXPECT_FALSE(PartialDerivative(StrongPtr<MemBase>(makeRef<UniformCartesianArray>(
        BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(3, 3, 3), WeakPtr<CreativeArrayBase>()))));
    for (const auto& empty : {MultiIndex<3>(0, 3, 3), MultiIndex<3>(3, 0, 0), MultiIndex<3>(0, 0, 0)}) {
        const auto gradient = derived<vector>(MemArray<3, double>::create(empty).strong());
        ASSERT_TRUE(gradient);
        EXPECT_EQ(gradient->Size(), empty);
    }
}

StrongPtr<CreativeArrayBase> lazyCreator(const std::type_info& type, const DynamicSize& size, int& made,
                                         const StrongPtr<MemBase>& data) {
    return makeRef<CreativeArray>(
        [&made, data](const auto&) {
            ++made;
            return data;
        },
        type, size);
}

TEST(PartialDerivativeTest, CreatorsTellWithoutData) {
    int made = 0;
    const auto data = randomScalars({4, 3, 2}, 5);
    const auto answer = [&](const std::type_info& type, const DynamicSize& size) {
        return isPartialDerivable(lazyCreator(type, size, made, data));
    };
    EXPECT_TRUE(answer(typeid(double), MultiIndex<3>(4, 3, 2)));
    EXPECT_TRUE(answer(typeid(point), {}));
    EXPECT_FALSE(answer(typeid(double), MultiIndex<2>(4, 3)));
    EXPECT_FALSE(answer(typeid(float), {}));
    EXPECT_FALSE(answer(typeid(void), {}));
    EXPECT_FALSE(isPartialDerivable(StrongPtr<CreativeArrayBase>()));
    const auto announced = lazyCreator(typeid(double), MultiIndex<3>(4, 3, 2), made, data);
    announced->addInterface(makeRef<MemArrayProperties>(2, typeid(double)));
    EXPECT_FALSE(isPartialDerivable(announced));
    EXPECT_EQ(made, 0);
}

TEST(PartialDerivativeTest, FragmentErrorsAreCollected) {
    std::string errors = "before. ";
    int made = 0;
    const auto attempt = [&](const StrongPtr<CreativeArrayBase>& creator) {
        EXPECT_FALSE(PartialDerivative(creator, errors));
    };
    attempt(nullptr);
    attempt(lazyCreator(typeid(float), MultiIndex<3>(4, 3, 2), made, nullptr));
    attempt(lazyCreator(typeid(double), MultiIndex<3>(4, 3, 2), made, nullptr));
    attempt(lazyCreator(typeid(double), {}, made, MemArray<2, double>::create({2, 2})));
    EXPECT_EQ(errors, "before. No creator for fragment No creator element type unsupported for fragment "
                      "No data available for fragment No derivation computed for fragment ");
}

class PartialDerivativeFieldTest : public testing::Test {
protected:
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Grid> grid = (*bundle[0.0])["blocks"];
    StrongPtr<Representation> vertices = grid->makeCartesianRepresentation(3);
    StrongPtr<Representation> other = grid->makeCartesianRepresentation(3, "derivatives");
    std::string errors;
};

TEST_F(PartialDerivativeFieldTest, EveryFragmentThatCanBe) {
    const auto source = makeRef<Field>();
    for (const char* name : {"10", "9", "float", "none"}) source->makeFragmentID(name);
    source->setPersistentData(randomScalars({5, 4, 3}, 2), source->getFragmentID("10"));
    source->setPersistentData(randomScalars({3, 4, 5}, 3), source->getFragmentID("9"));
    source->setPersistentData(MemArray<3, float>::create({2, 2, 2}), source->getFragmentID("float"));
    vertices->setField("pressure", source);

    const auto gradient = PartialDerivative(*source, "gradient", *vertices, *other, errors);
    ASSERT_TRUE(gradient);
    EXPECT_EQ(errors, "No creator element type unsupported for fragment float\nNo creator for fragment none\n");
    EXPECT_TRUE(other->findField("gradient") == gradient);
    EXPECT_FALSE(vertices->findField("gradient"));
    EXPECT_TRUE(vertices->findFieldID("gradient") == other->findFieldID("gradient"));
    EXPECT_TRUE(gradient->getFragmentIDCollection() == source->getFragmentIDCollection());
    EXPECT_FALSE(gradient->getCreator(source->getFragmentID("float")));
    const auto nine = dynamicCast<MemArray<3, vector>>(gradient->getData(source->getFragmentID("9")));
    ASSERT_TRUE(nine);
    EXPECT_EQ(nine->Size(), (MultiIndex<3>{3, 4, 5}));
}

TEST_F(PartialDerivativeFieldTest, GlobalDataAndFailure) {
    const auto blocks = makeRef<FragmentIDCollection>();
    blocks->setFragmentNames({"a", "b"});
    Field global(randomScalars({5, 4, 3}, 2), blocks);
    const auto gradient = PartialDerivative(global, "gradient", *vertices, *vertices, errors);
    ASSERT_TRUE(gradient);
    EXPECT_TRUE(gradient->hasData());
    EXPECT_EQ(errors, "");

    Field unsuitable(MemArray<3, float>::create({2, 2, 2}), nullptr), empty;
    EXPECT_FALSE(PartialDerivative(unsuitable, "none", *vertices, *vertices, errors));
    EXPECT_EQ(errors, "No creator element type unsupported for fragment \n");
    EXPECT_FALSE(PartialDerivative(empty, "none", *vertices, *vertices, errors));
    EXPECT_FALSE(vertices->findFieldID("none"));
    // A field may be replaced by its own derivative.
    const auto again = PartialDerivative(*gradient, "gradient", *vertices, *vertices, errors);
    EXPECT_TRUE(again->getData()->elementIndex() == typeid(Tensor));
}

} // namespace
