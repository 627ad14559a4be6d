#include <baseop/GridEvaluator.hpp>

#include <support/LocationGrids.hpp>
#include <support/Testing.hpp>

namespace {

using support::linear;
using support::occurrences;
using support::Point;

const std::string found = "yayy, curvigrid found!\n";
const std::string notFound = "GridEvaluator: NO curvilinear 3D location found!\n\n";
const std::string unstructured = "GridEvaluator: Evaluating set of Vertices not yet fully implemented!!!\n\n"
                                 "KDTreeCloudSearch: wrong weight type requested!!\n\n";

StrongPtr<MemBase> points(std::vector<Point> positions) { return makeMemArray1D(std::move(positions)); }

template<class T, int N = 1>
const std::vector<T>& valuesOf(const StrongPtr<MemBase>& array) {
    static const std::vector<T> none;
    const auto* const typed = dynamic_cast<const ReferencingMemArray<N, T>*>(array.rawptr());
    EXPECT_TRUE(typed);
    return typed ? typed->base_vector() : none;
}

std::vector<int> statusesOf(const GridEvaluator& evaluator) { return valuesOf<int>(evaluator.statuses()); }

/// A source grid in a slice, and what a search in it needs.
struct Source {
    StrongPtr<Slice> slice = makeRef<Slice>();
    StrongPtr<Grid> grid = slice->newGrid("source");
    RegularGrid3D blocks{grid};
    GridEvaluator::Context context;

    Source() {
        context.slice = slice;
        context.grid = grid;
    }

    void add(const std::string& name, const StrongPtr<MemBase>& positions, const StrongPtr<MemBase>& values = {}) {
        const auto id = blocks.addBlock(name, positions);
        if (values) blocks.setField("values", values, id);
    }
    [[nodiscard]] const Field& positions() const { return *blocks.positions(); }
    [[nodiscard]] const Field& values(const std::string& name = "values") const { return *blocks.field(name); }
};

template<class T>
StrongPtr<MemArray<3, T>> sampled(const MultiIndex<3>& n, const std::function<Point(const MultiIndex<3>&)>& at,
                                  const std::function<T(const Point&)>& value) {
    return filled<T>(n, [&](const MultiIndex<3>& i) { return value(at(i)); });
}

using Rectilinear = DirectProductMemArray<Point, ExplicitCoordinateAxisArray, 3>;
using Axis = ExplicitCoordinateAxisArray<double>;

// Positions of any kind, in one or several uniform blocks: the first claims all, and continues its border outside.
TEST(GridEvaluatorTest, UniformSourcesClaimEveryPosition) {
    Source source;
    const auto lattice = makeRef<UniformCartesianArray>(BoundingBox({-1, 0, 2}, {1, 3, 2.5}), MultiIndex<3>(5, 7, 3));
    const auto at = [&](const MultiIndex<3>& i) { return lattice->getElement(i); };
    source.add("first", lattice, sampled<double>({5, 7, 3}, at, linear));
    source.add("second", makeRef<UniformCartesianArray>(BoundingBox({1, 0, 2}, {2, 3, 2.5}), MultiIndex<3>(2, 2, 2)),
               MemArray<3, double>::create({2, 2, 2}));
    GridEvaluator evaluator;
    const std::vector<Point> asked{{0.1, 1.7, 2.2}, {1, 3, 2.5},  {5, 1, 2.2},   {-kInfinity, 0, 2},
                                   {0.3, 1e300, 2}, {kNaN, 1, 2}, {0.5, 1, kNaN}};
    ASSERT_EQ(outputOf([&] { EXPECT_TRUE(evaluator.find(points(asked), source.positions(), source.context)); }), "");
    EXPECT_EQ(statusesOf(evaluator), (std::vector<int>{3, 3, 3, 3, 3, 0, 0}));
    const auto values = valuesOf<double>(evaluator.evalKnownDataTypes(points(asked), source.values()));
    const std::vector<Point> borders{{0.1, 1.7, 2.2}, {1, 3, 2.5}, {1, 1, 2.2}, {-1, 0, 2}, {0.3, 3, 2}};
    for (std::size_t k = 0; k < borders.size(); ++k) EXPECT_NEAR(values[k], linear(borders[k]), 1e-12) << asked[k];
    EXPECT_EQ(values[5], 0.0) << "what is not located keeps its value";
    const auto containers = evaluator.fragments();
    EXPECT_EQ(containers->element(0).nFragments(), 1u);
    EXPECT_EQ(containers->element(0).getFirst()->name(), "first");
    EXPECT_EQ(containers->element(5).nFragments(), 0u);
}

TEST(GridEvaluatorTest, RectilinearSourcesClaimWhatIsBetweenTheirAxes) {
    Source source;
    const auto add = [&](const char* name, Axis x, Axis y, Axis z) {
        const auto axes = makeRef<Rectilinear>(std::array{std::move(x), std::move(y), std::move(z)});
        source.add(name, axes,
                   sampled<double>(
                       axes->Size(), [&](const MultiIndex<3>& i) { return (*axes)[i]; }, linear));
    };
    add("left", Axis({0, 0.1, 0.7, 1}), Axis({2, 1.5, 0}), Axis({0.0, 4.0}));
    add("right", Axis({1, 1.2, 3}), Axis({0.0, 2.0}), Axis({0, 3.9, 4}));
    std::vector<Point> asked;
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> x(0, 3), y(0, 2), z(0, 4);
    for (int k = 0; k < 300; ++k) asked.emplace_back(x(random), y(random), z(random));
    asked.insert(asked.end(), {{0, 2, 4}, {3, 0, 0}, {1, 1, 1}});
    const std::size_t inside = asked.size();
    asked.insert(asked.end(), {{-1e-12, 1, 1}, {3.1, 1, 1}, {1, 2.1, 1}, {kNaN, 1, 1}, {1, 1, kInfinity}});

    GridEvaluator evaluator;
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(evaluator.find(points(asked), source.positions(), source.context)); }), "");
    std::vector<double> out(asked.size(), -7.0);
    ASSERT_TRUE(evaluator.evalType(out, source.values()));
    for (std::size_t k = 0; k < asked.size(); ++k) {
        const bool isInside = k < inside;
        EXPECT_EQ(evaluator.statuses()->element(k), isInside ? GridEvaluator::Located : GridEvaluator::NotLocated);
        EXPECT_EQ(evaluator.resultCode(k), isInside ? LocationResult::Found : LocationResult::NotFound);
        if (isInside)
            EXPECT_NEAR(out[k], linear(asked[k]), 1e-12) << asked[k];
        else
            EXPECT_EQ(out[k], -7.0) << asked[k];
    }
    EXPECT_EQ(evaluator.fragments()->element(inside - 1).getFirst()->name(), "left") << "ties go to the first";
    EXPECT_EQ(evaluator.fractionalIndices()->element(inside - 2), GridEvaluator::FractionalIndex(2, 0, 0));
}

// A linear field is reproduced to rounding wherever the local coordinates are exact.
class EvaluateInShapes : public testing::TestWithParam<support::Shape> {};
INSTANTIATE_TEST_SUITE_P(All, EvaluateInShapes, testing::ValuesIn(support::shapes()),
                         [](const auto& instance) { return instance.param.name; });

TEST_P(EvaluateInShapes, LinearFieldsComeBackFromCurvilinearBlocks) {
    Source source;
    source.blocks = support::makeBlocks(*source.grid, GetParam(), 3, {6, 7, 8});
    std::vector<Point> asked;
    std::vector<std::string> blockNames;
    source.blocks.positions()->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
        const auto block = support::blockOf(source.blocks, id);
        for (const Point& index : support::randomIndices(*block, 200, 3, 0.001)) {
            asked.push_back(support::positionIn(*block, index));
            blockNames.push_back(id->name());
        }
        return true;
    });
    const std::size_t inside = asked.size();
    asked.insert(asked.end(), {{99, 0, 0}, {kNaN, 0, 0}});
    source.context.cellLocator = CellLocator::Exact;
    GridEvaluator evaluator;
    const std::string text =
        outputOf([&] { EXPECT_TRUE(evaluator.find(points(asked), source.positions(), source.context)); });
    EXPECT_EQ(occurrences(text, found), static_cast<int>(inside));
    EXPECT_EQ(occurrences(text, notFound), 2 * 3) << "each fragment tried tells";
    EXPECT_EQ(occurrences(text, "Create exact locator"), 3);
    const auto values = valuesOf<double>(evaluator.evalKnownDataTypes(points(asked), source.values("linear")));
    const auto containers = evaluator.fragments();
    for (std::size_t k = 0; k < inside; ++k) {
        ASSERT_EQ(evaluator.resultCode(k), LocationResult::Found);
        EXPECT_EQ(containers->element(k).getFirst()->name(), blockNames[k]) << "where the data are";
        EXPECT_NEAR(values[k], linear(asked[k]), 1e-9) << asked[k];
    }
    EXPECT_EQ(values[inside], 0.0);
}

TEST(GridEvaluatorTest, TellsOfEachPositionAndFragmentInOrder) {
    Source source;
    const support::Shape cube{"", [](double u, double v, double w) { return Point{2 * u, v, w}; }, true};
    source.blocks = support::makeBlocks(*source.grid, cube, 2, {3, 3, 3});
    const std::string built = "LocalFromWorldPoint::LocalFromWorldPoint() No tree found, in coord-Fields Intercube, "
                              "creating one.\nFragmentProperties.buildFragmentCoordinates();  WAS HARD WORK\n";
    GridEvaluator evaluator;
    const auto asked = points({{9, 0, 0}, {0.5, 0.5, 0.5}, {1.5, 0.5, 0.5}, {kNaN, 0, 0}, {0.25, 0.25, 0.25}});
    const std::string first = outputOf([&] { evaluator.find(asked, source.positions(), source.context); });
    const std::string again = outputOf([&] { evaluator.find(asked, source.positions(), source.context); });
    EXPECT_EQ(again, notFound + notFound + found + found + notFound + notFound + found);
    EXPECT_EQ(first.find(built + notFound + notFound + "baseop/LocalFromWorldPoint Create unimapper for 0,"), 0u)
        << first;
    EXPECT_EQ(occurrences(first, found), 3);
    EXPECT_EQ(statusesOf(evaluator), (std::vector<int>{0, 3, 3, 0, 3}));

    // Without a place for search structures nothing is found.
    const std::string lost = outputOf([&] { evaluator.find(asked, source.positions(), GridEvaluator::Context()); });
    EXPECT_EQ(lost.find(" LocalFromWorldPoint::LocalFromWorldPoint() ERROR: invalid grid!\n"), 0u);
    EXPECT_EQ(occurrences(lost, notFound), 10);
}

GridEvaluator::Context contextOf(const support::Scene& scene) {
    GridEvaluator::Context context;
    context.slice = scene.slice;
    context.grid = scene.grid;
    return context;
}

/// The search written down plainly: one position after the other, in one fragment after the other.
struct PlainSearch {
    std::vector<int> codes;
    std::vector<GridEvaluator::FractionalIndex> indices;
    std::vector<StrongPtr<FragmentID>> fragments;

    PlainSearch(const support::Scene& scene, const GridEvaluator::Context& context, const std::vector<Point>& asked) {
        FragmentSearch<Point> search(context);
        for (const Point& p : asked) {
            codes.push_back(0);
            indices.emplace_back();
            fragments.emplace_back();
            scene.blocks.positions()->iterate(
                [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                    codes.back() = search.Contains(p, creator, indices.back());
                    if (codes.back() == 0) return true;
                    const auto data = creator->create(false);
                    const bool isCurvilinear = dynamic_cast<const support::Block*>(data.rawptr());
                    fragments.back() = isCurvilinear ? search.fragment() : id;
                    return false;
                });
            if (codes.back() == 0) indices.back() = {};
        }
    }
};

// Lattices, surfaces, lines and clusters of positions, in sources of all kinds: results, fragments, messages and their
// order are those of one position after the other, whoever makes the structures, whatever the number of threads; and
// without a listener the results are the same.
TEST(GridEvaluatorTest, FindsAndTellsAsOnePositionAfterTheOther) {
    const auto latticeOf = [](const MultiIndex<3>& extents) {
        Point low(-1.1, -1.2, -0.1), high(0.9, 1.3, 1.1);
        for (int d = 0; d < 3; ++d)
            if (extents[d] == 1) low[d] = high[d] = Point(0.7, 0.9, 0.45)[d];
        return StrongPtr<MemBase>(makeRef<UniformCartesianArray>(BoundingBox(low, high), extents));
    };
    const std::vector<std::pair<StrongPtr<MemBase>, int>> requests{{latticeOf({17, 12, 9}), 20},
                                                                   {latticeOf({1, 40, 25}), 4},
                                                                   {latticeOf({1, 1, 70}), 3},
                                                                   {points(support::mixedPositions(12, 3)), 20}};
    for (const bool isUniformLast : {true, false})
        for (const auto& [positions, blocks] : requests) {
            const auto fresh = [&, count = blocks] {
                support::Scene scene = support::mixedScene(count);
                if (!isUniformLast)
                    scene.blocks.positions()->removeData(scene.blocks.positions()->getFragmentID("uniform"));
                return scene;
            };
            std::vector<Point> asked;
            if (const auto* const lattice = dynamic_cast<const UniformCartesianArray*>(positions.rawptr()))
                for (index_t k = 0; k < lattice->nElements(); ++k) asked.push_back(lattice->create(k));
            else
                asked = valuesOf<Point>(positions);
            std::optional<PlainSearch> plain;
            const support::Scene plainScene = fresh();
            std::string expected[2];
            for (std::string& text : expected) // the second time all structures are there, but not the locator
                text = outputOf([&] { plain.emplace(plainScene, contextOf(plainScene), asked); });
            for (const int team : {1, 4, 0}) {
                const support::ThreadCount count(team ? team : 2);
                const support::Scene scene = fresh();
                for (const std::string& text : expected) {
                    GridEvaluator evaluator;
                    const auto find = [&, &where = positions] {
                        EXPECT_TRUE(evaluator.find(where, *scene.blocks.positions(), contextOf(scene)));
                    };
                    if (team == 0) {
                        const Hestra::ScopedListener nobody({});
                        find();
                    } else {
                        std::string said;
                        EXPECT_EQ(outputOf([&] {
                                      const Hestra::ScopedListener listener(
                                          [&](std::string_view piece) { said += piece; });
                                      find();
                                  }),
                                  "");
                        EXPECT_TRUE(said == text) << asked.size() << " by " << team << ": " << said.substr(0, 2000)
                                                  << "\ninstead of " << text.substr(0, 2000);
                    }
                    const auto fragments = evaluator.fragments();
                    for (std::size_t k = 0; k < asked.size() && !testing::Test::HasFailure(); ++k) {
                        EXPECT_EQ(evaluator.statuses()->element(k), plain->codes[k]) << asked[k];
                        if (plain->codes[k] == 0) continue;
                        EXPECT_EQ(evaluator.fractionalIndices()->element(k), plain->indices[k]) << asked[k];
                        const auto id = fragments->element(k).getFirst();
                        EXPECT_EQ(id ? id->name() : "", plain->fragments[k] ? plain->fragments[k]->name() : "");
                    }
                }
            }
            if (!isUniformLast) {
                EXPECT_GT(occurrences(expected[1], notFound), 0);
            }
            EXPECT_GT(occurrences(expected[1], found), 10);
        }
}

// Part after part, or all at once: the same values, and the same words in the same order.
TEST(GridEvaluatorTest, PartsEvaluateAsTheWhole) {
    const auto lattice = [](const MultiIndex<3>& extents) {
        return StrongPtr<MemBase>(
            makeRef<UniformCartesianArray>(BoundingBox(Point(-1.1, -1.2, -0.1), Point(0.9, 1.3, 1.1)), extents));
    };
    std::vector<Point> any = support::mixedPositions(600, 8);
    std::shuffle(any.begin(), any.begin() + 30000, std::mt19937_64(3)); // the others come in a good order
    for (const auto& positions : {lattice({37, 31, 40}), lattice({190, 211, 1}), StrongPtr<MemBase>(points(any))})
        for (const bool isHeard : {true, false}) {
            std::string said[2];
            StrongPtr<MemBase> values[2];
            for (const bool isWhole : {true, false}) {
                support::Scene scene = support::mixedScene(4);
                scene.blocks.positions()->iterate(
                    [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                        const auto block = dynamicCast<MemArrayBase<3>>(creator->getData());
                        if (!block) return true;
                        const auto wave = [](index_t k) { return std::sin(7.0 * double(k)); };
                        scene.blocks.setField("waves", filled<double>(MultiIndex<3>(block->getSize()), wave), id);
                        return true;
                    });
                const auto field = scene.blocks.field("waves");
                const auto context = contextOf(scene);
                const Hestra::ScopedListener listener(isHeard ? [&](std::string_view piece) { said[isWhole] += piece; }
                                                              : Hestra::Console::Listener());
                GridEvaluator evaluator;
                if (isWhole) evaluator.find(positions, *scene.blocks.positions(), context);
                values[isWhole] = isWhole ? evaluator.evalKnownDataTypes(positions, *field)
                                          : evaluator.evaluate(positions, *scene.blocks.positions(), context, *field);
                EXPECT_EQ(bool(evaluator.statuses()), isWhole);
            }
            ASSERT_TRUE(values[0] && values[1]);
            EXPECT_EQ(values[0]->getDynamicSize(), values[1]->getDynamicSize());
            for (index_t k = 0; k < values[0]->nElements() && !testing::Test::HasFailure(); ++k)
                EXPECT_EQ(dynamic_cast<const TypedArray<double>&>(*values[0]).element(k),
                          dynamic_cast<const TypedArray<double>&>(*values[1]).element(k));
            EXPECT_TRUE(said[0] == said[1]) << said[0].substr(0, 500) << "\ninstead of " << said[1].substr(0, 500);
            EXPECT_EQ(said[0].empty(), !isHeard);
        }
}

// Arrays of results belong to whoever has kept them.
TEST(GridEvaluatorTest, KeptResultsStayAsTheyAre) {
    Source source;
    source.blocks = support::makeBlocks(*source.grid, support::shapes()[0], 2, {4, 4, 4});
    const auto first = points({{9, 9, 9}, {0.5, 0.5, 0.5}}), second = points({{0.5, 0.5, 0.5}, {9, 9, 9}});
    const Hestra::ScopedListener nobody({});
    GridEvaluator evaluator;
    evaluator.find(first, source.positions(), source.context);
    const auto kept = evaluator.statuses();
    const auto chunk = evaluator.fractionalIndices()->getChunk();
    const auto index = chunk->base_vector()[1];
    evaluator.find(second, source.positions(), source.context);
    EXPECT_EQ(valuesOf<int>(kept), (std::vector<int>{0, 3}));
    EXPECT_EQ(chunk->base_vector()[1], index);
    EXPECT_EQ(statusesOf(evaluator), (std::vector<int>{3, 0}));
    EXPECT_EQ(evaluator.fractionalIndices()->element(0), index);
}

TEST(GridEvaluatorTest, FiveKindsOfPositionsInTheirShapes) {
    Source source;
    const support::Shape box{"", [](double u, double v, double w) { return Point{u, v, w - 0.5}; }, true};
    const auto block = support::makeBlock(box, {3, 3, 3});
    source.add("block", block, support::linearOn(*block));
    const Point a(0.25, 0.5, 0.25), b(0.75, 0.125, 0.5);
    const auto check = [&](const StrongPtr<MemBase>& positions, const DynamicSize& size, std::vector<double> expected) {
        GridEvaluator evaluator;
        (void)outputOf([&] { EXPECT_TRUE(evaluator.find(positions, source.positions(), source.context)); });
        const auto values = evaluator.evalKnownDataTypes(positions, source.values());
        ASSERT_TRUE(values);
        EXPECT_EQ(values->getDynamicSize(), size);
        const auto* const numbers = dynamic_cast<const TypedArray<double>*>(values.rawptr());
        ASSERT_TRUE(numbers && numbers->nElements() == expected.size());
        for (std::size_t k = 0; k < expected.size(); ++k) EXPECT_NEAR(numbers->element(k), expected[k], 1e-12) << k;
    };
    check(points({a, b}), MultiIndex<1>(2), {linear(a), linear(b)});
    check(MemArray<2, Point>::makeMemArray({a, b, b, a}, {2, 2}), MultiIndex<2>(2, 2),
          {linear(a), linear(b), linear(b), linear(a)});
    const auto lattice = makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 0.5, 0.25}), MultiIndex<3>(3, 2, 2));
    std::vector<double> expected;
    for (index_t k = 0; k < 12; ++k) expected.push_back(linear(lattice->create(k)));
    check(lattice, MultiIndex<3>(3, 2, 2), expected);
    using V3 = Orvix::Vector<double, 3>;
    using V2 = Orvix::Vector<double, 2>;
    check(makeMemArray1D(std::vector<V3>{V3(b[0], b[1], b[2])}), MultiIndex<1>(1), {linear(b)});
    check(makeMemArray1D(std::vector<V2>{V2(a[0], a[1])}), MultiIndex<1>(1), {linear({a[0], a[1], 0})});

    // Whatever else there is: nothing happens.
    GridEvaluator evaluator;
    (void)outputOf([&] { EXPECT_TRUE(evaluator.find(points({a}), source.positions(), source.context)); });
    for (const StrongPtr<MemBase>& other :
         {StrongPtr<MemBase>(block), StrongPtr<MemBase>(makeMemArray1D(std::vector<double>(3))),
          StrongPtr<MemBase>()}) {
        EXPECT_EQ(outputOf([&] { EXPECT_FALSE(evaluator.find(other, source.positions(), source.context)); }), "");
        EXPECT_EQ(statusesOf(evaluator), std::vector<int>{3});
    }
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(evaluator.find(points({}), source.positions(), source.context)); }), "");
    EXPECT_EQ(statusesOf(evaluator), std::vector<int>{3}) << "no positions leave it as it was";
}

TEST(GridEvaluatorTest, ElementTypesOfTheSource) {
    Source source;
    const auto lattice = makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(2, 2, 2));
    const auto at = [&](const MultiIndex<3>& i) { return lattice->getElement(i); };
    source.add("block", lattice, sampled<float>({2, 2, 2}, at, [](const Point& p) { return float(linear(p)); }));
    const auto id = source.positions().getFragmentID("block");
    source.blocks.setField(
        "vectors",
        sampled<PhysicalSpace::vector>({2, 2, 2}, at,
                                       [](const Point& p) { return PhysicalSpace::vector(p[0], 2 * p[1], linear(p)); }),
        id);
    source.blocks.setField("counts", MemArray<3, int>::create({2, 2, 2}), id);
    source.blocks.setField("line", makeMemArray1D(std::vector<double>(8)), id);
    source.blocks.setField("nothing", MemArray<3, double>::create({2, 0, 2}), id);
    source.blocks.setField("elsewhere", MemArray<3, double>::create({2, 2, 2}), source.positions().getFragmentID(""));

    const Point p(0.25, 0.5, 0.75);
    GridEvaluator evaluator, fresh;
    EXPECT_TRUE(evaluator.find(points({p}), source.positions(), source.context));
    EXPECT_FLOAT_EQ(valuesOf<float>(evaluator.evalKnownDataTypes(points({p}), source.values()))[0], float(linear(p)));
    EXPECT_FALSE(evaluator.evalFromCompatibleData<double>(points({p}), source.values()));
    const auto vector =
        valuesOf<PhysicalSpace::vector>(evaluator.evalKnownDataTypes(points({p}), source.values("vectors")));
    ASSERT_EQ(vector.size(), 1u);
    EXPECT_NEAR(vector[0][2], linear(p), 1e-12);
    for (const char* unfit : {"counts", "line", "elsewhere"})
        EXPECT_FALSE(evaluator.evalKnownDataTypes(points({p}), source.values(unfit))) << unfit;
    EXPECT_EQ(valuesOf<double>(evaluator.evalKnownDataTypes(points({p}), source.values("nothing")))[0], 0.0);

    // Nothing located is no reason to take numbers of another type for doubles.
    EXPECT_TRUE(evaluator.find(points({{kNaN, 0, 0}}), source.positions(), source.context));
    EXPECT_FALSE(evaluator.evalFromCompatibleData<double>(points({p}), source.values()));
    EXPECT_TRUE(evaluator.evalFromCompatibleData<float>(points({p}), source.values()));
    EXPECT_FALSE(evaluator.evalKnownDataTypes(points({p}), source.values("counts")));

    // Results of another search do not fit.
    std::vector<float> two(2, -7.0f), none;
    EXPECT_FALSE(evaluator.evalType(two, source.values()));
    EXPECT_EQ(two[0], -7.0f);
    EXPECT_FALSE(fresh.evalType(two, source.values()));
    EXPECT_FALSE(fresh.statuses() || fresh.fractionalIndices() || fresh.fragments());
    EXPECT_FALSE(fresh.evalType(none, source.values())) << "nothing is stored";
    EXPECT_TRUE(fresh.find(points({}), source.positions(), source.context));
    EXPECT_FALSE(fresh.evalKnownDataTypes(points({}), source.values()));
    EXPECT_TRUE(evaluator.evalType(none, source.values()));
    EXPECT_EQ(valuesOf<float>(evaluator.evalKnownDataTypes(points({}), source.values())).size(), 0u);

    // Planar data at given indices in the fragments found.
    EXPECT_TRUE(evaluator.find(points({p, p, {kNaN, 0, 0}}), source.positions(), source.context));
    source.blocks.setField("plane", MemArray<2, double>::makeMemArray({0, 1, 10, 11}, {2, 2}), id);
    std::vector<Orvix::FixedArray<double, 2>> indices{{0.5, 0.5}, {kNaN, 0.0}, {1.0, 1.0}};
    std::vector<double> out(3, -7.0);
    const CreativeIterator<Orvix::FixedArray<double, 2>> view(
        Iterator<Orvix::FixedArray<double, 2>>(indices.data(), 1, 3));
    EXPECT_TRUE((evaluator.evalFloatIndices<2, double>(out, view, source.values("plane"))));
    EXPECT_EQ(out, (std::vector<double>{5.5, -7.0, -7.0}));
    EXPECT_FALSE((evaluator.evalFloatIndices<2, double>(out, view, source.values("vectors"))));
}

TEST(GridEvaluatorTest, SourcesThatClaimNothing) {
    Source source;
    source.blocks.positions()->makeFragmentID("none");
    source.add("points", makeMemArray1D(std::vector<Point>{{0, 0, 0}, {1, 1, 1}}));
    source.add("numbers", makeMemArray1D(std::vector<double>(3)));
    source.add("empty", makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(0, 2, 2)));
    GridEvaluator evaluator;
    const auto asked = points({{0, 0, 0}, {5, 5, 5}});
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(evaluator.find(asked, source.positions(), source.context)); }),
              unstructured + unstructured);
    EXPECT_EQ(statusesOf(evaluator), (std::vector<int>{0, 0}));
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(evaluator.find(asked, *makeRef<Field>(), source.context)); }), "");
}

// The search of one position, by hand.
TEST(FragmentSearchTest, ContainsTellsAboutOneFragment) {
    Source source;
    source.blocks = support::makeBlocks(*source.grid, support::shapes()[0], 2, {3, 3, 3});
    const auto uniform = makeRef<CreativeArray>(
        StrongPtr<MemBase>(makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(3, 3, 3))));
    const auto b = source.positions().getFragmentID("B");
    const Point p = support::positionIn(*support::blockOf(source.blocks, b), {0.5, 1.5, 1});
    FragmentSearch<Point> search(source.context);
    Orvix::FixedArray<double, 3> index;
    EXPECT_EQ(search.Contains({2, 0.5, 0.25}, uniform, index), 3);
    EXPECT_EQ(index, (Orvix::FixedArray<double, 3>(4, 1, 0.5)));
    EXPECT_EQ(search.Contains(p, nullptr, index), 0);
    const std::string text = outputOf([&] {
        EXPECT_EQ(search.Contains(p, source.positions().getCreator(source.positions().getFragmentID("A")), index), 3);
        EXPECT_EQ(search.fragment(), b) << "asked about A, found in B";
        EXPECT_EQ(search.Contains({99, 0, 0}, source.positions().getCreator(b), index), 0);
        EXPECT_FALSE(search.fragment());
    });
    EXPECT_EQ(text.substr(text.size() - found.size() - notFound.size()), found + notFound);
}

} // namespace
