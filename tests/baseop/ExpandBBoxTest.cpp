#include <baseop/ExpandBBox.hpp>

#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

using FloatPoint = Orvix::Coordinates<Orvix::Cartesian3D, float>::point;
using Rectilinear = DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3>;

const point kOrigin(0, 0, 0);
const std::vector<point> kTwoPoints{{1, 5, -3}, {2, -4, 0}};
constexpr const char* kSlicedMessage = "baseop/ExpandBBoxVBoundingBox::FieldState::determineBoundingBox():  "
                                       "SORRY! Sliced Data Access not yet implemented!\n";

void expectBox(const StrongPtr<BoundingBox>& box, const point& min, const point& max) {
    ASSERT_TRUE(box);
    EXPECT_FALSE(box->isEmpty());
    EXPECT_EQ(box->minCoord(), min);
    EXPECT_EQ(box->maxCoord(), max);
    EXPECT_DOUBLE_EQ(box->radius(), distance(min, max) / 2); // the ball belongs to the box
}

StrongPtr<BoundingBox> boxOf(CreativeArrayBase& creator, DataCreationMode mode = CreateData) {
    StrongPtr<BoundingBox> box;
    return ExpandBBox(box, creator, mode) ? box : nullptr;
}

template<class Point>
StrongPtr<Hestra::ChunkBase> corners(const Point& min, const Point& max) {
    return makeRef<Hestra::Chunk<Point>>(std::initializer_list<Point>{min, max});
}

/// The promised box: point after point.
template<class Point>
std::pair<point, point> plainBox(const std::vector<Point>& points) {
    point min(points[0][0], points[0][1], points[0][2]), max = min;
    for (const Point& p : points)
        for (int axis = 0; axis < 3; ++axis) {
            if (!(p[axis] >= min[axis])) min[axis] = p[axis];
            if (p[axis] > max[axis]) max[axis] = p[axis];
        }
    return {min, max};
}

template<class Point>
void expectPlainBox(const std::vector<Point>& points) {
    const auto [min, max] = plainBox(points);
    const auto box = boxOf(*support::creatorOf(points));
    ASSERT_TRUE(box);
    for (int axis = 0; axis < 3; ++axis) { // bit for bit, but for what the processor does to the bits of a NaN
        const double found[] = {box->minCoord()[axis], box->maxCoord()[axis]}, wanted[] = {min[axis], max[axis]};
        for (int end = 0; end < 2; ++end)
            if (wanted[end] != wanted[end])
                ASSERT_TRUE(found[end] != found[end]) << points.size() << " points, axis " << axis;
            else
                ASSERT_EQ(std::memcmp(&found[end], &wanted[end], sizeof(double)), 0)
                    << points.size() << " points, axis " << axis << ": " << found[end] << " instead of " << wanted[end];
    }
}

template<class Point>
class PointBoxTest : public testing::Test {};
using PointTypes = testing::Types<point, FloatPoint>;
TYPED_TEST_SUITE(PointBoxTest, PointTypes);

class ExpandBBoxTest : public testing::Test {
protected:
    StrongPtr<Field> field = makeRef<Field>();
    StrongPtr<FragmentID> a = field->makeFragmentID("a"), b = field->makeFragmentID("b"),
                          c = field->makeFragmentID("c");
    StrongPtr<BoundingBox> result;
};

} // namespace

TYPED_TEST(PointBoxTest, EqualsThePlainSweepWithNaNAndZerosOfBothSigns) {
    using Coordinate = typename TypeParam::value_type;
    const Coordinate nan = std::numeric_limits<Coordinate>::quiet_NaN();
    const Coordinate specials[] = {0, -Coordinate{0}, nan, std::numeric_limits<Coordinate>::infinity()};
    std::mt19937 random(5);
    for (const unsigned kinds : {1u, 2u, 3u, 4u})
        for (const unsigned every : {1u, 3u, 100u, 5000u})
            for (const int background : {-1, 0, 1, 2})
                for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 9u, 100u, 1365u, 1366u, 10007u}) {
                    std::vector<TypeParam> points(size);
                    for (TypeParam& p : points)
                        for (Coordinate& x : p) {
                            const auto number = static_cast<Coordinate>(random() % 1000 + 1);
                            x = background == 2 ? number - 500 : number * static_cast<Coordinate>(background);
                            if (random() % every == 0) x = specials[random() % kinds];
                        }
                    expectPlainBox(points);
                    if (this->HasFatalFailure()) return;
                }
    // Enough for a team: zeros of both signs in one piece or another, and now and then a NaN.
    support::forTeamsUpTo(3, [&] {
        for (const unsigned kinds : {1u, 2u, 3u}) {
            std::vector<TypeParam> points(100'003);
            for (TypeParam& p : points)
                for (Coordinate& x : p)
                    x = random() % 30000 ? static_cast<Coordinate>(random() % 1000 + 1) : specials[random() % kinds];
            expectPlainBox(points);
        }
    });
    for (std::size_t i = 0; i < 150; ++i) { // one NaN in every place
        std::vector<TypeParam> points(50, TypeParam(1, 2, 3));
        points[20] = TypeParam(7, 8, 9);
        points[30] = TypeParam(-7, -8, -9);
        points[i / 3][i % 3] = nan;
        expectPlainBox(points);
    }
}

TEST(ComputeBBox, ReadsPointsWhereverTheyLie) {
    const auto block = filled<point>({3, 4, 5}, [](index_t k) { return point(double(k), -double(k), double(k % 12)); });
    expectBox(ComputeBBox(block), point(0, -59, 0), point(59, 0, 11));
    expectBox(ComputeBBox(block->getSlice(2).strong()), point(24, -35, 0), point(35, -24, 11));
    Iterator<point> everyOther(block->data(), 2, 30); // elements 10, 12 ... 38
    everyOther.leading = 5;
    everyOther.trailing = 10;
    const auto strided = makeRef<MemArray<1, point>>(everyOther, MultiIndex<1>(15), block);
    expectBox(ComputeBBox(strided), point(10, -38, 0), point(38, -10, 10));

    const auto descending = makeRef<UniformCartesianArray>(point(1, 2, 3), MultiIndex<3>(5, 6, 7), point(0, 4, 0));
    expectBox(ComputeBBox(descending), point(0, 2, 0), point(1, 4, 3));

    for (const StrongPtr<MemBase>& none : {StrongPtr<MemBase>(makeMemArray1D(std::vector<point>())),
                                           StrongPtr<MemBase>(makeRef<UniformCartesianArray>(
                                               BoundingBox(kOrigin, point(1, 1, 1)), MultiIndex<3>(5, 0, 5)))}) {
        const auto box = ComputeBBox(none);
        ASSERT_TRUE(box);
        EXPECT_TRUE(box->isEmpty());
    }
    EXPECT_FALSE(ComputeBBox({}));
    EXPECT_FALSE(ComputeBBox(makeMemArray1D(std::vector<FloatPoint>(3))));
    EXPECT_FALSE(ComputeBBox(makeMemArray1D(std::vector<vector>(3))));
}

TEST_F(ExpandBBoxTest, TakesTheCheapestSourceFirst) {
    int runs = 0;
    const auto creator = support::countingCreator(kTwoPoints, runs);
    EXPECT_FALSE(boxOf(*creator, OnlyExistingData));
    EXPECT_FALSE(creator->findInterface<BoundingBall>());

    // Declared corners are taken as given, from any of the two kinds of points, and kept.
    creator->setAttribute("Range", corners(FloatPoint(1, 1, 1), FloatPoint(3, 3, 3)));
    expectBox(boxOf(*creator, OnlyExistingData), point(1, 1, 1), point(3, 3, 3));
    EXPECT_EQ(creator->age(), 0);
    creator->setAttribute("Range", corners(point(9, 9, 9), point(8, 8, 8)));
    expectBox(boxOf(*creator), point(1, 1, 1), point(3, 3, 3));
    // Newer data make that one obsolete.
    creator->touch();
    expectBox(boxOf(*creator), point(9, 9, 9), point(8, 8, 8));
    EXPECT_EQ(runs, 0);

    // What a caller attaches comes before everything and is not compared with the age of the data.
    creator->addInterface(makeRef<BoundingBox>(point(-1, -1, -1), point(1, 1, 1)));
    creator->touch();
    expectBox(boxOf(*creator), point(-1, -1, -1), point(1, 1, 1));
    creator->addInterface(makeRef<BoundingBox>());
    creator->setAttribute("Range", {});
    expectBox(boxOf(*creator), point(1, -4, -3), point(2, 5, 0));
    EXPECT_EQ(runs, 1);
}

TEST_F(ExpandBBoxTest, UsesADeclaredRangeOnlyIfItIsTwoPoints) {
    using Hestra::Chunk;
    const StrongPtr<Hestra::ChunkBase> others[] = {
        makeRef<Chunk<double>>(std::initializer_list<double>{0, 1}),
        makeRef<Chunk<vector>>(std::size_t{2}),
        makeRef<Chunk<Orvix::FixedArray<double, 3>>>(std::size_t{2}),
        makeRef<Chunk<point>>(std::size_t{3}),
        makeRef<Chunk<point>>(),
    };
    for (const auto& other : others) {
        const auto creator = support::creatorOf(kTwoPoints);
        creator->setAttribute("Range", other);
        expectBox(boxOf(*creator), point(1, -4, -3), point(2, 5, 0));
    }
}

TEST_F(ExpandBBoxTest, StampsTheCreatorWhenTheBoxComesFromData) {
    int runs = 0;
    const StrongPtr<Hestra::Cache> cache = makeRef<Hestra::Cache>();
    const auto creator = support::countingCreator(kTwoPoints, runs, cache);
    Hestra::Ageable().touch();
    const auto now = Hestra::Ageable::GlobalTime.load();
    expectBox(boxOf(*creator), point(1, -4, -3), point(2, 5, 0));
    EXPECT_EQ(creator->age(), now);
    EXPECT_EQ(Hestra::Ageable::GlobalTime, now);
    cache->clear(); // the box needs no data any more
    expectBox(boxOf(*creator), point(1, -4, -3), point(2, 5, 0));
    EXPECT_EQ(runs, 1);

    // Written in place: newer data, another box. What was handed out stays.
    const auto before = creator->findInterface<BoundingBall>();
    const auto data = creator->create();
    dynamic_cast<TypedArray<point>&>(*data).element(0) = point(10, 0, 0);
    creator->touch();
    expectBox(boxOf(*creator), point(2, -4, 0), point(10, 0, 0));
    expectBox(dynamicCast<BoundingBox>(before), point(1, -4, -3), point(2, 5, 0));
}

TEST_F(ExpandBBoxTest, WarnsWhenADeclaredBoxLooksUnshifted) {
    const auto warns = [](const point& min, const point& max, const Orvix::FixedArray<double, 3>& shift) {
        const auto creator = support::creatorOf(kTwoPoints);
        creator->setAttribute("Range", corners(min, max));
        creator->setAttribute("Vantle::NumericalShift",
                              makeRef<Hestra::Chunk<Orvix::FixedArray<double, 3>>>(
                                  std::initializer_list<Orvix::FixedArray<double, 3>>{shift}));
        CaptureStdout();
        const auto box = boxOf(*creator);
        const std::string text = GetCapturedStdout();
        expectBox(box, min, max); // whatever is said
        if (!text.empty()) {
            EXPECT_EQ(text, "\t\tWARNING: numerical shift and bbox are similar size - "
                            "maybe frag bboxes are corrupt?\n");
        }
        return !text.empty();
    };
    EXPECT_TRUE(warns(point(99, 199, 299), point(101, 201, 301), {100.0, 200.0, 300.0}));
    EXPECT_FALSE(warns(point(-1, -1, -1), point(1, 1, 1), {100.0, 200.0, 300.0}));
    EXPECT_FALSE(warns(point(99, 199, -1), point(101, 201, 1), {100.0, 200.0, 300.0})); // all axes count
    EXPECT_FALSE(warns(point(-1, -1, -1), point(1, 1, 1), {0.0, 0.0, 0.0}));
}

TEST_F(ExpandBBoxTest, TellsUnusableDataFromNone) {
    result = makeRef<BoundingBox>(kOrigin, point(1, 1, 1));
    const auto unchanged = [this](const StrongPtr<MemBase>& array) {
        const auto creator = support::creatorOf(array);
        const bool success = ExpandBBox(result, *creator, CreateData);
        expectBox(result, kOrigin, point(1, 1, 1));
        EXPECT_FALSE(creator->findInterface<BoundingBall>());
        return success;
    };
    EXPECT_FALSE(unchanged({}));
    EXPECT_FALSE(unchanged(makeMemArray1D(std::vector<double>(3))));
    EXPECT_TRUE(unchanged(makeMemArray1D(std::vector<point>())));
    EXPECT_TRUE(unchanged(makeRef<UniformCartesianArray>(MultiIndex<3>(0, 3, 3), kOrigin, vector(1, 1, 1))));

    const auto slice = support::creatorOf(MemArray<2, point>::create({3, 3})->getSlice(1).strong());
    CaptureStdout();
    EXPECT_FALSE(ExpandBBox(result, *slice, CreateData));
    EXPECT_EQ(GetCapturedStdout(), kSlicedMessage);
    EXPECT_FALSE(result);
}

TEST_F(ExpandBBoxTest, TakesDirectProductsFromTheirEnds) {
    const Rectilinear::Axes axes{std::vector<double>{0, 1, 4}, std::vector<double>{7, 3}, std::vector<double>{5}};
    const StrongPtr<MemBase> array = makeRef<Rectilinear>(axes);
    expectBox(boxOf(*support::creatorOf(array)), point(0, 3, 5), point(4, 7, 5));
    EXPECT_FALSE(ComputeBBox(array));
}

TEST_F(ExpandBBoxTest, ComputesTheBoxOfAFieldOnceUntilTheFieldIsNewer) {
    EXPECT_TRUE(BBoxExpander().expand(*field, result));
    EXPECT_FALSE(result);
    EXPECT_FALSE(getBoundingBox(*field));
    EXPECT_FALSE(field->findInterface<BoundingBall>());

    // a has no points, b no creator: neither hides c.
    field->setPersistentData(makeMemArray1D(std::vector<point>()), a);
    field->setPersistentData(makeMemArray1D(kTwoPoints), c);
    expectBox(getBoundingBox(field), point(1, -4, -3), point(2, 5, 0));
    const auto attached = field->findInterface<BoundingBall>();
    *getBoundingBox(field) = BoundingBox(); // a copy
    field->getCreator(c)->touch();          // not the field's age
    expectBox(getBoundingBox(field), point(1, -4, -3), point(2, 5, 0));
    EXPECT_EQ(field->findInterface<BoundingBall>(), attached);

    field->setPersistentData(makeMemArray1D(std::vector<point>{{0, 0, 9}}), b);
    result = makeRef<BoundingBox>(point(-9, 0, 0), kOrigin);
    EXPECT_TRUE(expandBoundingBox(field, result));
    expectBox(result, point(-9, -4, -3), point(2, 5, 9));
    EXPECT_TRUE(expandBoundingBox(result, field));
    expectBox(result, point(-9, -4, -3), point(2, 5, 9));
    EXPECT_NE(field->findInterface<BoundingBall>(), attached);
    expectBox(dynamicCast<BoundingBox>(attached), point(1, -4, -3), point(2, 5, 0));
}

TEST_F(ExpandBBoxTest, StopsAtAFragmentThatCannotBeUsed) {
    field->setPersistentData(makeMemArray1D(std::vector<point>{{1, 1, 1}}), a);
    field->setPersistentData(makeMemArray1D(std::vector<double>(3)), b);
    field->setPersistentData(makeMemArray1D(kTwoPoints), c);
    expectBox(getBoundingBox(field), point(1, 1, 1), point(1, 1, 1));

    field->setPersistentData(MemArray<2, point>::create({3, 3})->getSlice(1).strong(), b);
    result = makeRef<BoundingBox>(kOrigin, kOrigin);
    CaptureStdout();
    EXPECT_TRUE(expandBoundingBox(field, result));
    EXPECT_EQ(GetCapturedStdout(), kSlicedMessage);
    expectBox(result, kOrigin, kOrigin);
}

TEST(BoundingBoxOf, FindsItsWayThroughTheGrid) {
    const Hestra::Ref<Grid> grid = makeRef<Grid>();
    const auto chart = grid->makeChart(typeid(CartesianChart));
    EXPECT_FALSE(getBoundingBox(*grid, chart));
    UniformGrid3D::create(*grid, BoundingBox(kOrigin, point(1, 2, 3)), {4, 5, 6});
    expectBox(getBoundingBox(*grid, chart), kOrigin, point(1, 2, 3));
    expectBox(getBoundingBox(grid->findVertices(~0), chart), kOrigin, point(1, 2, 3));
    expectBox(getBoundingBox(grid->getCartesianRepresentation()), kOrigin, point(1, 2, 3));

    EXPECT_FALSE(getBoundingBox(*grid, grid->makeChart(typeid(CartesianChart), "another")));
    EXPECT_FALSE(getBoundingBox(*grid, {}));
    EXPECT_FALSE(getBoundingBox(StrongPtr<Skeleton>(), chart));
    EXPECT_FALSE(getBoundingBox(StrongPtr<Representation>()));
    EXPECT_FALSE(getBoundingBox(StrongPtr<Field>()));
    StrongPtr<BoundingBox> box;
    EXPECT_FALSE(expandBoundingBox(box, StrongPtr<Field>()));
    EXPECT_FALSE(expandBoundingBox(StrongPtr<Field>(), box));
    EXPECT_FALSE(box);
}

TEST_F(ExpandBBoxTest, TakesTheFragmentsOfAUniformGridFromTheirPlace) {
    field->setPersistentData(
        makeRef<UniformCartesianArray>(point(0, 10, 0), MultiIndex<3>(11, 11, 11), point(10, 0, 20)));
    int runs = 0;
    const auto sized = [&runs](const DynamicSize& size, const DynamicSize& announced) {
        return StrongPtr<CreativeArrayBase>(makeRef<CreativeArray>(
            [size, &runs](const auto&) {
                ++runs;
                return MemBase::findAllocator(typeid(double))->create(size, {});
            },
            VantleTypeIndex(typeid(double)), announced));
    };
    const auto place = [](const MultiIndex<3>& offset) { return makeRef<FragmentLocation<3, IndexOffset>>(offset); };
    a->addInterface(place({2, 3, 4}));
    expectBox(getFragmentBBox(a, sized({}, {3, 4, 7}), *field), point(2, 4, 8), point(4, 7, 20));
    EXPECT_EQ(runs, 0);
    // Nothing announced, or of another rank: the array is asked, once.
    for (const DynamicSize& announced : {DynamicSize(), DynamicSize{84}}) {
        const auto creator = sized({3, 4, 7}, announced);
        creator->enableCaching(false);
        runs = 0;
        for (int i = 0; i < 2; ++i) expectBox(getFragmentBBox(a, creator, *field), point(2, 4, 8), point(4, 7, 20));
        EXPECT_EQ(runs, 1);
    }
    EXPECT_FALSE(getFragmentBBox(a, sized({}, {3, 0, 7}), *field));

    for (const auto& mute : {sized({5}, {}), StrongPtr<CreativeArrayBase>()}) {
        CaptureStdout();
        EXPECT_FALSE(getFragmentBBox(a, mute, *field));
        EXPECT_EQ(GetCapturedStdout(), "getFragmentBBox(): Cannot retrieve fragment dimensions\n");
    }
    // Without a place, and for all other fields, the fragment's own positions count.
    expectBox(getFragmentBBox(b, support::creatorOf(kTwoPoints), *field), point(1, -4, -3), point(2, 5, 0));
    EXPECT_FALSE(getFragmentBBox(b, {}, *field));
    expectBox(getFragmentBBox(a, support::creatorOf(kTwoPoints), *makeRef<Field>()), point(1, -4, -3), point(2, 5, 0));
}
