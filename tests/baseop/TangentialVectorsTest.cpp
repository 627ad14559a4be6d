#include <baseop/TangentialVectors.hpp>

#include <support/Testing.hpp>

namespace {

using Computer = TangentialVectorsAndCurveParameter;
using Lists = std::vector<std::vector<index_t>>;

constexpr const char* kNone = "Nooo.........valid tangential fields found.\n";
constexpr const char* kSome =
    "Noooo... field exist, but no maxlen attribute, or valid tangential vectors or curve parameters.\n";
constexpr const char* kAll = "Yay, have tangential vectors, curves, and maxlen, nothing to be done.\n";
const std::string kComputed = "baseop/TangentialVectors Compute Tangential Vectors\n"
                              "baseop/TangentialVectors Compute Tangential Vectors DONE\n";

// Both operations beside the definition, one segment after the other, to the last bit.
template<class Index>
void expectTheDefinition(const std::vector<point>& points, const std::vector<std::vector<Index>>& curves) {
    std::vector<vector> tangents(points.size());
    std::vector<double> parameters(points.size());
    double maximalLength = 0.0;
    for (const auto& curve : curves) {
        const auto isOutside = [&](Index index) { return index >= points.size(); };
        if (curve.size() < 2 || std::any_of(curve.begin(), curve.end(), isOutside)) continue;
        double s = parameters[curve[0]] = 0.0;
        for (std::size_t i = 1; i < curve.size(); ++i) {
            const vector step = points[curve[i]] - points[curve[i - 1]];
            tangents[curve[i]] = step * (1.0 / length(step));
            if (i == 1) tangents[curve[0]] = tangents[curve[1]];
            parameters[curve[i]] = s += length(step);
        }
        if (s > maximalLength) maximalLength = s;
    }

    const auto at = makeMemArray1D(points);
    const auto lists = makeMemArray1D(curves);
    Computer both;
    both.compute(*at, *lists);
    const ArcLengths lengths = ComputeArcLengths(*at, *lists);
    EXPECT_EQ(both.maximalLength(), maximalLength);
    EXPECT_EQ(lengths.maximalLength, maximalLength);
    ASSERT_TRUE(both.tangents()->nElements() == points.size() && lengths.parameters->nElements() == points.size());
    const auto same = [](double a, double b) { return (std::isnan(a) && std::isnan(b)) || a == b; };
    for (index_t v = 0; v < points.size(); ++v) {
        ASSERT_TRUE(same(both.curveParameters()->element(v), parameters[v])) << v << " of " << points.size();
        ASSERT_TRUE(same(lengths.parameters->element(v), parameters[v])) << v << " of " << points.size();
        for (int d = 0; d < 3; ++d) ASSERT_TRUE(same(both.tangents()->element(v)[d], tangents[v][d])) << v;
    }
}

// Curves of many lengths with steps of every kind.
TEST(TangentialVectorsTest, IsTheDefinitionToTheLastBit) {
    std::mt19937_64 random(3);
    std::normal_distribution<double> normal;
    const double special[] = {0.0, -0.0, 1e-320, 1e300, -1e-200, HUGE_VAL, std::nan("")};
    for (std::size_t count = 2; count < 300; count += count < 12 ? 1 : 37) {
        std::vector<point> points(count);
        std::vector<index_t> curve(count);
        for (std::size_t i = 0; i < count; ++i) {
            curve[i] = i;
            for (int d = 0; d < 3; ++d) points[i][d] = random() % 16 ? normal(random) : special[random() % 5];
            if (i > 0 && random() % 16 == 0) points[i] = points[i - 1];
            if (count > 200 && i + 9 > count) points[i][0] = special[random() % 7];
        }
        expectTheDefinition<index_t>(points, {curve});
    }
    // Curves through vertices of others, of which the last one counts, closed ones, and unusable ones.
    const std::vector<point> few{{0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {1, 2, 0}, {9, 9, 9}};
    expectTheDefinition<index_t>(few, {{0, 1, 2, 3}, {4, 3, 0}, {3, 4, 3}, {}, {3}, {0, 1, 5}, {0, ~0ULL}, {1, 2}});
    expectTheDefinition<index_t>({}, {{0, 1}});
}

// Curves one after the other in the vertices, some of them to be passed over; and knotted, each with the next but two,
// so that a team would change what the last one gave.
TEST(TangentialVectorsTest, IsTheDefinitionForAnyNumberOfThreads) {
    std::mt19937_64 random(5);
    std::normal_distribution<double> normal;
    std::vector<point> points(400'000);
    for (point& p : points) p = {normal(random), normal(random), normal(random)};
    for (int n = 0; n < 100; ++n) points[random() % points.size()][1] = std::nan("");
    std::vector<std::vector<unsigned>> curves;
    for (unsigned next = 0; next + 400 < points.size();) {
        auto& curve = curves.emplace_back(random() % 400);
        for (unsigned& index : curve) index = next++;
        if (random() % 2) std::reverse(curve.begin(), curve.end());
        if (random() % 9 == 0 && !curve.empty()) curve[random() % curve.size()] = random() % 2 ? ~0U : 400'000;
        next += static_cast<unsigned>(random() % 3);
    }
    support::forTeamsUpTo(3, [&] { expectTheDefinition(points, curves); });
    for (std::size_t c = 0; c + 3 < curves.size(); ++c)
        if (!curves[c + 3].empty()) curves[c].push_back(curves[c + 3].front());
    support::forTeamsUpTo(3, [&] { expectTheDefinition(points, curves); });
}

template<class Index>
StrongPtr<Grid> curveGrid() {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const StrongPtr<LineSet::Points> points = makeMemArray1D(std::vector<point>{{0, 0, 0}, {3, 4, 0}, {0, 0, 1}});
    const StrongPtr<MemArray<1, std::vector<Index>>> curves =
        makeMemArray1D(std::vector<std::vector<Index>>{{0, 1}, {1, 2, 0}});
    (void)LineSet(grid, points, curves);
    return grid;
}

StrongPtr<Grid> surfaceWithoutCurves() {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    (void)TriangularSurface::create(*grid, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{0, 1, 2}});
    return grid;
}

std::string messages(Grid& grid, double expectedLength) {
    CaptureStdout();
    const Computer result(grid, "Positions", "");
    EXPECT_NEAR(result.maximalLength(), expectedLength, 1e-14);
    EXPECT_EQ(result.tangents()->nElements(), 3u);
    return GetCapturedStdout();
}

TEST(TangentialVectorsTest, ResultsAreCachedUntilSomethingMoves) {
    const double size = std::sqrt(26.0) + 1.0;
    const StrongPtr<Grid> grid = curveGrid<index_t>();
    EXPECT_EQ(messages(*grid, size), kNone + kComputed);
    EXPECT_EQ(messages(*grid, size), kAll);
    const auto vertices = grid->getCartesianRepresentation();
    const auto tangents = vertices->findField("Tangents");
    ASSERT_TRUE(tangents && vertices->findField("length"));
    EXPECT_TRUE(getTangentialVectors(*grid) == tangents->getData());

    // The vertices move: twice as far apart.
    const auto positions = dynamic_cast<MemArray<1, point>*>(grid->CartesianPositions()->getData().rawptr());
    for (index_t v = 0; v < 3; ++v)
        for (int d = 0; d < 3; ++d) positions->element(v)[d] *= 2.0;
    EXPECT_EQ(messages(*grid, size), kAll) << "nobody was told";
    grid->CartesianPositions()->touch();
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed);
    EXPECT_EQ(messages(*grid, 2 * size), kAll);
    LineSet(grid).curves()->touch();
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed) << "other curves";

    const auto creator = vertices->findField("Tangents")->getCreator(nullptr);
    creator->setAttribute("maxlen", StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<float>{1.0F}));
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed) << "a length of another type";
    vertices->setField("length", nullptr);
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed);
    vertices->findField("length")->setPersistentData(MemArray<1, float>::create({3}));
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed);
    vertices->findField("Tangents")->removeData();
    EXPECT_EQ(messages(*grid, 2 * size), kSome + kComputed);
    EXPECT_EQ(messages(*curveGrid<unsigned int>(), size), kNone + kComputed) << "indices of 32 bits";
}

TEST(TangentialVectorsTest, ArcLengthsAloneAreKeptForBoth) {
    const StrongPtr<Grid> grid = curveGrid<index_t>();
    CaptureStdout();
    const ArcLengths lengths = getArcLengths(*grid);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_NEAR(lengths.maximalLength, std::sqrt(26.0) + 1.0, 1e-14);
    EXPECT_EQ(getArcLengths(grid).parameters, lengths.parameters) << "kept";
    EXPECT_FALSE(grid->getCartesianRepresentation()->findField("Tangents"));
    EXPECT_EQ(messages(*grid, lengths.maximalLength), kSome + kComputed) << "a part of the results";
    const ArcLengths ofBoth = getArcLengths(*grid);
    EXPECT_NE(ofBoth.parameters, lengths.parameters);
    EXPECT_EQ(ofBoth.maximalLength, lengths.maximalLength);
    grid->CartesianPositions()->touch();
    EXPECT_NE(getArcLengths(*grid).parameters, ofBoth.parameters) << "moved";
    EXPECT_THROW((void)getArcLengths(StrongPtr<Grid>()), Computer::NoVertices);
    EXPECT_THROW((void)getArcLengths(*surfaceWithoutCurves()), Computer::NoEdges);
}

// Each part of the grid is missing in turn, in the order in which they are looked for.
TEST(TangentialVectorsTest, MissingPartsHaveExceptions) {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const auto attempt = [&] { Computer(*grid, "Positions", ""); };
    CaptureStdout();
    EXPECT_THROW(attempt(), Computer::NoVertices);
    const auto vertices = grid->makeVertices(1);
    EXPECT_THROW(attempt(), Computer::NoVertexField);
    const auto representation = grid->makeCartesianRepresentation(1);
    EXPECT_THROW(attempt(), Computer::NoVertexField);
    representation->setPositions(makeRef<Field>());
    EXPECT_THROW(attempt(), Computer::NoVertexFieldCreator);
    const auto positions = representation->Positions();
    positions->createCreator([](const auto&) { return StrongPtr<MemBase>(); }, typeid(point));
    EXPECT_THROW(attempt(), Computer::NoVertexFieldData);
    positions->setPersistentData(MemArray<2, point>::create({2, 2}));
    EXPECT_THROW(attempt(), Computer::NoVertexFieldData);
    positions->setPersistentData(MemArray<1, point>::create({2}));
    EXPECT_THROW(attempt(), Computer::NoEdges);
    const auto edges = (*grid)[SkeletonID(1, 1)];
    EXPECT_THROW(attempt(), Computer::NoEdgesAsVertices);
    const auto lists = (*edges)[*vertices];
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->setPositions(makeRef<Field>());
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->Positions()->setPersistentData(MemArray<1, double>::create({2}));
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->Positions()->setPersistentData(makeMemArray1D(Lists{{0, 1}}));
    EXPECT_NO_THROW(attempt());
    GetCapturedStdout();
}

} // namespace
