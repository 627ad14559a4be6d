#include <support/Testing.hpp>

namespace {

using Linear = LinearCoordinateAxisArray<double>;
using Explicit = ExplicitCoordinateAxisArray<double>;
using Uniform = DirectProductMemArray<PhysicalSpace::point, LinearCoordinateAxisArray, 3>;
using Rectilinear = DirectProductMemArray<PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;

std::vector<double> randomAxis(std::mt19937_64& random, std::size_t count, bool ascending) {
    std::uniform_real_distribution<double> number(-50, 50);
    std::vector<double> values(count);
    for (double& value : values) value = number(random);
    std::sort(values.begin(), values.end());
    if (!ascending) std::reverse(values.begin(), values.end());
    return values;
}

Rectilinear::Axes randomAxes(std::mt19937_64& random) {
    return {randomAxis(random, 4, true), randomAxis(random, 3, false), randomAxis(random, 5, true)};
}

} // namespace

TEST(ArrayAxesTest, LinearAxisEndsExactly) {
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> number(-1e3, 1e3);
    int missed = 0;
    for (int repeat = 0; repeat < 2000; ++repeat) {
        const double first = number(random), last = number(random);
        const index_t count = random() % 200 + 2;
        const Linear axis = Linear::spanning(first, last, count);
        EXPECT_EQ(axis.spacing(), (last - first) / static_cast<double>(count - 1));
        EXPECT_EQ(axis[0], first);
        EXPECT_EQ(axis[count - 1], last);
        EXPECT_EQ(axis.last(), last);
        missed += first + static_cast<double>(count - 1) * axis.spacing() != last;
        for (index_t i = 0; i + 1 < count; ++i) ASSERT_EQ(axis[i], first + static_cast<double>(i) * axis.spacing());
        // A part has the very values of the whole.
        const index_t start = random() % count, length = random() % (count - start) + 1;
        const Linear part = axis.part(start, length);
        for (index_t i = 0; i < length; ++i) ASSERT_EQ(part[i], axis[start + i]);
        EXPECT_EQ(part.last(), axis[start + length - 1]);
    }
    EXPECT_GT(missed, 0) << "the plain formula must fail somewhere, or this test shows nothing";
}

TEST(ArrayAxesTest, LinearIndexIsAnUnclampedQuotient) {
    const Linear axis(10.0, 0.1, 5);
    for (const double x : {-3.0, 10.0, 10.25, 99.0}) {
        EXPECT_EQ(axis.getIndex(x), (x - 10.0) / 0.1);
        EXPECT_EQ(axis.getFractionalIndex(x), axis.getIndex(x));
    }
    EXPECT_TRUE(std::isnan(axis.getIndex(kNaN)));
    EXPECT_EQ(Linear(10.0, 0.0, 5).getIndex(12.0), 0.0);
    EXPECT_EQ(Linear(10.0, -2.0, 5).getIndex(4.0), 3.0);
    const Linear single = Linear::spanning(1.0, 3.0, 1);
    EXPECT_EQ(single.last(), 1.0);
    EXPECT_EQ(single.spacing(), 2.0);
    EXPECT_EQ(Linear::spanning(1.0, 3.0, 0).last(), 0.0);
    EXPECT_EQ(axis.part(2, 2).getIndex(axis[2]), 0.0);
}

TEST(ArrayAxesTest, ExplicitAxisFindsItsNodesExactly) {
    std::mt19937_64 random(2);
    std::uniform_real_distribution<double> unit(0.01, 0.99);
    for (int repeat = 0; repeat < 200; ++repeat) {
        const bool ascending = repeat % 2 == 0;
        const std::size_t count = random() % 60 + 2;
        const std::vector<double> values = randomAxis(random, count, ascending);
        const Explicit axis(values);
        const auto last = static_cast<double>(count - 1);
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(axis.getFractionalIndex(values[i]), static_cast<double>(i));
            ASSERT_EQ(axis.getIndex(values[i]), static_cast<double>(i) / last);
            if (i + 1 == count) continue;
            // The question made from its answer.
            const double f = unit(random), x = values[i] + f * (values[i + 1] - values[i]);
            ASSERT_NEAR(axis.getFractionalIndex(x), static_cast<double>(i) + f, 1e-9) << "interval " << i;
        }
        EXPECT_EQ(axis.getIndex(values.back()), 1.0);
        // Next to the ends and far away: outside stays outside, on the right side.
        const double outwards = ascending ? kInfinity : -kInfinity;
        const double above = std::nextafter(values.back(), outwards);
        const double below = std::nextafter(values.front(), -outwards);
        EXPECT_GT(axis.getFractionalIndex(above), last);
        EXPECT_GT(axis.getIndex(above), 1.0);
        EXPECT_LT(axis.getFractionalIndex(below), 0.0);
        EXPECT_LT(axis.getIndex(below), 0.0);
        EXPECT_NEAR(axis.getFractionalIndex(values.back() + 3 * (values.back() - values[count - 2])), last + 3, 1e-9);
        EXPECT_NEAR(axis.getFractionalIndex(values[0] - 2 * (values[1] - values[0])), -2, 1e-9);
        EXPECT_TRUE(std::isnan(axis.getFractionalIndex(kNaN)));
        EXPECT_TRUE(std::isnan(axis.getIndex(kNaN)));
    }
}

TEST(ArrayAxesTest, DegenerateExplicitAxes) {
    const Explicit single({5.0});
    EXPECT_EQ(single.getIndex(5.0), 0.0);
    EXPECT_EQ(single.getIndex(4.0), -kInfinity);
    EXPECT_EQ(single.getIndex(6.0), kInfinity);
    EXPECT_TRUE(std::isnan(single.getIndex(kNaN)));
    const Explicit repeated({1.0, 1.0, 2.0, 2.0});
    EXPECT_EQ(repeated.getFractionalIndex(1.5), 1.5);
    EXPECT_EQ(repeated.getFractionalIndex(2.0), 3.0);
    EXPECT_EQ(repeated.getFractionalIndex(0.0), -kInfinity);
    EXPECT_EQ(repeated.getFractionalIndex(3.0), kInfinity);
    EXPECT_TRUE(std::isnan(Explicit().getIndex(1.0)));
    EXPECT_EQ(Explicit().first(), 0.0);
    // Values without order give no answer, but no harm either.
    (void)Explicit({kNaN, 1.0, kNaN, -3.0}).getIndex(0.5);
}

TEST(ArrayAxesTest, DirectProductIsNoTypedArray) {
    std::mt19937_64 random(3);
    const StrongPtr<MemBase> product = makeRef<Rectilinear>(randomAxes(random));
    EXPECT_TRUE(dynamicCast<MemArrayBase<3>>(product));
    EXPECT_FALSE(dynamicCast<TypedArray<point>>(product));
    EXPECT_FALSE((dynamicCast<MemArray<3, point>>(product)));
    EXPECT_FALSE(dynamicCast<Uniform>(product));
    EXPECT_EQ(product->elementIndex(), VantleTypeIndex(typeid(point)));
    EXPECT_EQ(product->memsize(), 0u);
    EXPECT_FALSE(product->componentArray(0));
    EXPECT_TRUE((dynamicCast<MemArray<2, point>>(product->create({2, 2}, typeid(void)))));
}

// A stored copy of the same elements says what every way to look at the computed ones has to give.
TEST(ArrayAxesTest, ComputedElementsEqualStoredOnes) {
    std::mt19937_64 random(4);
    for (int repeat = 0; repeat < 20; ++repeat) {
        const auto product = makeRef<Rectilinear>(randomAxes(random));
        const auto stored = filled<point>(product->Size(), [&](const MultiIndex<3>& index) {
            return point(product->axis(0).values()[index[0]], product->axis(1).values()[index[1]],
                         product->axis(2).values()[index[2]]);
        });
        MultiIndex<3> index;

        const MultiArrayBase<3, point> view = product->view();
        const CreativeIterator<point> elements = product->creativeIterator();
        ASSERT_EQ(elements.size(), stored->nElements());
        for (index_t k = 0; k < stored->nElements(); ++k) {
            index = MultiIndex<3>::fromLinear(k, product->Size());
            const point expected = stored->element(k);
            point retrieved;
            product->retrieve(retrieved, index);
            ASSERT_EQ(retrieved, expected);
            ASSERT_EQ((*product)[index], expected);
            ASSERT_EQ(elements[k], expected);
            ASSERT_EQ(view.getElement(index), expected);
            ASSERT_EQ(view.slice(index[2]).slice(index[1]).element(index[0]), expected) << to_string(index);
            ASSERT_EQ(product->getElementAsString(k), stored->getElementAsString(k));
            const auto position = product->getFractionalIndex(expected);
            for (int d = 0; d < 3; ++d) ASSERT_EQ(position[d], static_cast<double>(index[d]));
        }
        EXPECT_EQ(product->first(), stored->first());
        EXPECT_EQ(product->last(), stored->last());
        EXPECT_EQ(product->getElementAsString(stored->nElements()), "");

        const MultiIndex<3> start(1, 0, 2), size(2, 3, 3);
        const auto part = product->createSubMemArray(start, size);
        const auto storedPart = stored->createSubMemArray(start, size);
        for (index_t k = 0; k < part->nElements(); ++k) ASSERT_EQ(part->create(k), storedPart->element(k));

        const auto slice = dynamicCast<MemArray<2, point>>(product->createSlice(4));
        for (index_t k = 0; k < slice->nElements(); ++k) ASSERT_EQ(slice->element(k), stored->getSlice(4)->element(k));

        const auto indices = makeMemArray1D<index_t>({7, 0, product->nElements() - 1, 7});
        StrongPtr<MemBase> fromProduct, fromStored;
        ASSERT_TRUE(pullData(fromProduct, product, *indices, MultiIndex<2>(2, 2)));
        ASSERT_TRUE(pullData(fromStored, stored, *indices, MultiIndex<2>(2, 2)));
        for (index_t k = 0; k < 4; ++k)
            EXPECT_EQ(fromProduct->getElementAsString(k), fromStored->getElementAsString(k));
        (*indices)[0] = product->nElements();
        EXPECT_FALSE(pullData(fromProduct, product, *indices, MultiIndex<2>(2, 2)));
    }
}

TEST(ArrayAxesTest, UniformVerticesSpanTheirBoxExactly) {
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> number(-10, 10);
    for (int repeat = 0; repeat < 500; ++repeat) {
        const point a(number(random), number(random), number(random));
        const point b(number(random), number(random), number(random));
        const MultiIndex<3> counts(random() % 60 + 2, random() % 60 + 2, random() % 60 + 2);
        BoundingBox box;
        box.embrace(a);
        box.embrace(b);

        const UniformCartesianArray inBox(box, counts);
        EXPECT_EQ(inBox.first(), box.minCoord());
        EXPECT_EQ(inBox.last(), box.maxCoord());
        EXPECT_EQ(inBox.origin(), box.minCoord());
        EXPECT_EQ(inBox.getBoundingBox().maxCoord(), box.maxCoord());
        for (int d = 0; d < 3; ++d)
            EXPECT_EQ(inBox.spacing()[d], (box.maxCoord()[d] - box.minCoord()[d]) / static_cast<double>(counts[d] - 1));
        MultiIndex<3> index;
        for (int n = 0; n < 20; ++n) {
            for (int d = 0; d < 3; ++d) index[d] = random() % counts[d];
            ASSERT_TRUE(box.inside(inBox[index])) << to_string(index);
            const auto position = inBox.getIndex(inBox[index]);
            for (int d = 0; d < 3; ++d) ASSERT_NEAR(position[d], static_cast<double>(index[d]), 1e-10);
        }

        const UniformCartesianArray fromTo(a, counts, b); // in either direction
        EXPECT_EQ(fromTo.first(), a);
        EXPECT_EQ(fromTo.last(), b);
        EXPECT_EQ(fromTo.getBoundingBox().minCoord(), box.minCoord());
        EXPECT_EQ(fromTo.getBoundingBox().maxCoord(), box.maxCoord());

        const UniformCartesianArray stepped(counts, a, vector(0.1, -0.3, 0.7));
        EXPECT_EQ(stepped.first(), a);
        EXPECT_EQ(stepped.spacing()[1], -0.3);
        EXPECT_EQ(stepped.last()[1], a[1] + static_cast<double>(counts[1] - 1) * -0.3);
        EXPECT_EQ(stepped.getBoundingBox().minCoord()[1], stepped.last()[1]);
        EXPECT_EQ(stepped.getBoundingBox().maxCoord()[0], stepped.last()[0]);
    }
}

TEST(ArrayAxesTest, DegenerateUniformVertices) {
    const BoundingBox box({0, 1, 2}, {4, 1, 5});
    const UniformCartesianArray thin(box, {1, 3, 4});
    EXPECT_EQ(thin.spacing(), vector(4, 0, 1));
    EXPECT_EQ(thin.last(), point(0, 1, 5));
    EXPECT_EQ(thin.getBoundingBox().maxCoord(), box.maxCoord());
    EXPECT_EQ(thin.getIndex(point(2, 7, 3))[1], 0.0) << "no extent, no index";

    const UniformCartesianArray none(box, {3, 0, 4});
    EXPECT_EQ(none.nElements(), 0u);
    EXPECT_EQ(none.lastIndex(), (MultiIndex<3>(2, 0, 3)));
    EXPECT_EQ(none.first(), point());
    EXPECT_EQ(none.last(), point());
    EXPECT_EQ(none.getElementAsString(0), "");
    EXPECT_TRUE(UniformCartesianArray({0, 3, 4}, {0, 1, 2}, vector(1, 1, 1)).getBoundingBox().isEmpty());
    constexpr index_t big = 1ULL << 22;
    EXPECT_THROW(UniformCartesianArray(box, {big, big, big}), Hestra::MemoryException);
    const UniformCartesianArray huge(box, {big, big, 1ULL << 19}); // nothing is stored
    EXPECT_EQ(huge.last(), box.maxCoord());
}

TEST(ArrayAxesTest, OtherElementTypesAndRanks) {
    using Line = DirectProductMemArray<double, LinearCoordinateAxisArray, 1>;
    const auto line = makeRef<Line>(Line::Axes{Linear::spanning(0.0, 1.0, 50)});
    EXPECT_EQ(line->last(), 1.0);
    EXPECT_EQ(line->view()(3u), 3 * (1.0 / 49));
    EXPECT_EQ(line->elementIndex(), VantleTypeIndex(typeid(double)));
    EXPECT_FALSE(line->createSlice(0));

    using Pair = Orvix::FixedArray<double, 2>;
    using Plane = DirectProductMemArray<Pair, ExplicitCoordinateAxisArray, 2>;
    const auto plane = makeRef<Plane>(Plane::Axes{Explicit({1.0, 2.0}), Explicit({7.0, 5.0, 4.0})});
    EXPECT_EQ((*plane)(1, 2), Pair(2.0, 4.0));
    EXPECT_EQ(plane->OriginPtr(), nullptr);
    EXPECT_EQ(plane->getIndex(Pair(1.5, 4.5))[1], 0.75);

    using Lookup = DirectProductMemArray<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;
    const Lookup lookup({Linear(0.0, 0.5, 3), Linear(0.0, 1.0, 2), Linear(1.0, 1.0, 2)});
    ASSERT_NE(lookup.OriginPtr(), nullptr);
    EXPECT_EQ((*lookup.OriginPtr())[2], 1.0);
    EXPECT_EQ((*lookup.DeltaPtr())[0], 0.5);
}
