#include <baseop/TangentialVectors.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <support/Teams.hpp>

namespace {

using namespace Vantle;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using Computer = TangentialVectorsAndCurveParameter;
using Lists = std::vector<std::vector<index_t>>;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr const char* kNone = "Nooo.........valid tangential fields found.\n";
constexpr const char* kSome =
    "Noooo... field exist, but no maxlen attribute, or valid tangential vectors or curve parameters.\n";
constexpr const char* kAll = "Yay, have tangential vectors, curves, and maxlen, nothing to be done.\n";
const std::string kComputed = "baseop/TangentialVectors Compute Tangential Vectors\n"
                              "baseop/TangentialVectors Compute Tangential Vectors DONE\n";

Computer computed(std::vector<PhysicalSpace::point> points, Lists curves) {
    Computer result;
    result.compute(*makeMemArray1D(std::move(points)), *makeMemArray1D(std::move(curves)));
    return result;
}

TEST(TangentialVectorsTest, SegmentsGiveDirectionAndLength) {
    const Computer one = computed({{0, 0, 0}, {3, 4, 0}}, {{0, 1}});
    for (const index_t v : {index_t{0}, index_t{1}})
        EXPECT_EQ(one.tangents()->element(v), PhysicalSpace::vector(3 * (1.0 / 5), 4 * (1.0 / 5), 0));
    EXPECT_EQ(one.curveParameters()->getChunk()->base_vector(), (std::vector<double>{0, 5}));
    EXPECT_EQ(one.maximalLength(), 5.0);

    // A bend: the backward direction; a later curve through vertex 1 overwrites it; a closed one its beginning.
    const Computer more = computed({{0, 0, 0}, {2, 0, 0}, {2, 3, 0}, {2, 0, 4}}, {{0, 1, 2}, {3, 1}, {2, 0, 2}});
    EXPECT_EQ(more.tangents()->element(1), PhysicalSpace::vector(0, 0, -1));
    EXPECT_EQ(more.curveParameters()->element(1), 4.0);
    EXPECT_NEAR(more.curveParameters()->element(2), 2 * std::sqrt(13.0), 1e-14);
    EXPECT_NEAR(more.tangents()->element(2)[1], 3 / std::sqrt(13.0), 1e-15);
    EXPECT_NEAR(more.maximalLength(), 2 * std::sqrt(13.0), 1e-14);
    // Lengths whose squares are out of range.
    EXPECT_DOUBLE_EQ(computed({{0, 0, 0}, {3e200, 4e200, 0}}, {{0, 1}}).maximalLength(), 5e200);
}

// The length of an inscribed polygon falls short of the circle by a fraction h^2 / 24, where h is the angle of a
// segment.
TEST(TangentialVectorsTest, ArcLengthOfACircleConvergesQuadratically) {
    double before = 0.0;
    for (const int n : {16, 32, 64, 128}) {
        std::vector<PhysicalSpace::point> points;
        std::vector<index_t> curve;
        for (int i = 0; i <= n; ++i) {
            const double angle = 2 * std::numbers::pi * i / n;
            points.emplace_back(std::cos(angle), std::sin(angle), 7.0);
            curve.push_back(index_t(i));
        }
        const Computer circle = computed(points, {curve});
        const double error = 2 * std::numbers::pi - circle.maximalLength();
        const double h = 2 * std::numbers::pi / n;
        EXPECT_NEAR(error, 2 * std::numbers::pi * h * h / 24, 0.01 * error);
        if (before > 0) {
            EXPECT_NEAR(before / error, 4.0, 0.05);
        }
        before = error;
        for (index_t i = 0; i <= index_t(n); ++i) {
            EXPECT_NEAR(length(circle.tangents()->element(i)), 1.0, 1e-15);
            EXPECT_NEAR(circle.curveParameters()->element(i), circle.maximalLength() * double(i) / n, 1e-13);
        }
    }
}

TEST(TangentialVectorsTest, UnusableCurvesAndSegments) {
    const std::vector<PhysicalSpace::point> points{{0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {1, 2, 0}, {9, 9, 9}};
    const Computer skipped = computed(points, {{}, {3}, {0, 1, 5}, {0, ~0ULL}});
    for (index_t v = 0; v < points.size(); ++v) {
        EXPECT_EQ(skipped.tangents()->element(v), PhysicalSpace::vector());
        EXPECT_EQ(skipped.curveParameters()->element(v), 0.0);
    }
    EXPECT_EQ(skipped.maximalLength(), 0.0);

    const Computer stops = computed(points, {{0, 1, 2, 3}});
    EXPECT_TRUE(std::isnan(stops.tangents()->element(2)[0]));
    EXPECT_EQ(stops.tangents()->element(1), PhysicalSpace::vector(1, 0, 0));
    EXPECT_EQ(stops.tangents()->element(3), PhysicalSpace::vector(0, 1, 0));
    EXPECT_EQ(stops.curveParameters()->getChunk()->base_vector(), (std::vector<double>{0, 1, 1, 3, 0}));
    const Computer begins = computed(points, {{1, 2}});
    EXPECT_TRUE(std::isnan(begins.tangents()->element(1)[0]) && std::isnan(begins.tangents()->element(2)[0]));
    EXPECT_EQ(begins.maximalLength(), 0.0);
    EXPECT_EQ(computed({}, {{0, 1}}).tangents()->nElements(), 0u);
}

// Both operations beside the definition, one segment after the other, to the last bit.
template<class Index>
void expectTheDefinition(const std::vector<PhysicalSpace::point>& points,
                         const std::vector<std::vector<Index>>& curves) {
    std::vector<PhysicalSpace::vector> tangents(points.size());
    std::vector<double> parameters(points.size());
    double maximalLength = 0.0;
    for (const auto& curve : curves) {
        const auto isOutside = [&](Index index) { return index >= points.size(); };
        if (curve.size() < 2 || std::any_of(curve.begin(), curve.end(), isOutside)) continue;
        double s = parameters[curve[0]] = 0.0;
        for (std::size_t i = 1; i < curve.size(); ++i) {
            const PhysicalSpace::vector step = points[curve[i]] - points[curve[i - 1]];
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
        std::vector<PhysicalSpace::point> points(count);
        std::vector<index_t> curve(count);
        for (std::size_t i = 0; i < count; ++i) {
            curve[i] = i;
            for (int d = 0; d < 3; ++d) points[i][d] = random() % 16 ? normal(random) : special[random() % 5];
            if (i > 0 && random() % 16 == 0) points[i] = points[i - 1];
            if (count > 200 && i + 9 > count) points[i][0] = special[random() % 7];
        }
        expectTheDefinition<index_t>(points, {curve});
    }
}

// Curves one after the other in the vertices, some of them to be passed over; and knotted, each with the next but two,
// so that a team would change what the last one gave.
TEST(TangentialVectorsTest, IsTheDefinitionForAnyNumberOfThreads) {
    std::mt19937_64 random(5);
    std::normal_distribution<double> normal;
    std::vector<PhysicalSpace::point> points(400'000);
    for (auto& point : points) point = {normal(random), normal(random), normal(random)};
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
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const StrongPtr<LineSet::Points> points =
        makeMemArray1D(std::vector<PhysicalSpace::point>{{0, 0, 0}, {3, 4, 0}, {0, 0, 1}});
    const StrongPtr<MemArray<1, std::vector<Index>>> curves =
        makeMemArray1D(std::vector<std::vector<Index>>{{0, 1}, {1, 2, 0}});
    (void)LineSet(grid, points, curves);
    return grid;
}

StrongPtr<Grid> surfaceWithoutCurves() {
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
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
    const auto positions =
        dynamic_cast<MemArray<1, PhysicalSpace::point>*>(grid->CartesianPositions()->getData().rawptr());
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
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const auto attempt = [&] { Computer(*grid, "Positions", ""); };
    CaptureStdout();
    EXPECT_THROW(attempt(), Computer::NoVertices);
    const auto vertices = grid->makeVertices(1);
    EXPECT_THROW(attempt(), Computer::NoVertexField);
    const auto representation = grid->makeCartesianRepresentation(1);
    EXPECT_THROW(attempt(), Computer::NoVertexField);
    representation->setPositions(Hestra::makeRef<Field>());
    EXPECT_THROW(attempt(), Computer::NoVertexFieldCreator);
    const auto positions = representation->Positions();
    positions->createCreator([](const auto&) { return StrongPtr<MemBase>(); }, typeid(PhysicalSpace::point));
    EXPECT_THROW(attempt(), Computer::NoVertexFieldData);
    positions->setPersistentData(MemArray<2, PhysicalSpace::point>::create({2, 2}));
    EXPECT_THROW(attempt(), Computer::NoVertexFieldData);
    positions->setPersistentData(MemArray<1, PhysicalSpace::point>::create({2}));
    EXPECT_THROW(attempt(), Computer::NoEdges);
    const auto edges = (*grid)[SkeletonID(1, 1)];
    EXPECT_THROW(attempt(), Computer::NoEdgesAsVertices);
    const auto lists = (*edges)[*vertices];
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->setPositions(Hestra::makeRef<Field>());
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->Positions()->setPersistentData(MemArray<1, double>::create({2}));
    EXPECT_THROW(attempt(), Computer::NoEdgePositions);
    lists->Positions()->setPersistentData(makeMemArray1D(Lists{{0, 1}}));
    EXPECT_NO_THROW(attempt());
    GetCapturedStdout();
}

} // namespace
