#include <baseop/SurfaceRefinement.hpp>

#include <support/Testing.hpp>

namespace {

StrongPtr<Grid> surfaceOf(std::vector<point> points, std::vector<Triangle> triangles) {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    (void)TriangularSurfaceWithEdges::create(*grid, std::move(points), std::move(triangles));
    return grid;
}

// The definition: every edge against every triangle.
std::vector<Edge> plainTable(const std::vector<Triangle>& triangles, const std::vector<Edge>& edges) {
    const auto has = [](const Triangle& t, unsigned v) { return t[0] == v || t[1] == v || t[2] == v; };
    std::vector<Edge> table;
    for (const Edge& edge : edges) {
        std::vector<unsigned> hits;
        for (unsigned f = 0; f < triangles.size() && hits.size() < 2; ++f)
            if (has(triangles[f], edge[0]) && has(triangles[f], edge[1])) hits.push_back(f);
        if (hits.empty()) hits.push_back(NoFace);
        table.emplace_back(hits.front(), hits.back());
    }
    return table;
}

std::vector<Edge> fastTable(const std::vector<Triangle>& triangles, const std::vector<Edge>& edges) {
    const auto table = makeMemArray1D(std::vector<Edge>(edges.size(), Edge(77, 78)));
    GenerateEdge2FacesTable(*table, *makeMemArray1D(triangles), *makeMemArray1D(edges), int(triangles.size()),
                            int(edges.size()));
    return table->base_vector();
}

// Random triangles over few vertices: degenerate ones, edges of many triangles, points for edges, edges of none; over
// vertex numbers that are small, or few and huge.
TEST(SurfaceRefinementTest, EdgeTableIsThatOfThePlainDoubleLoop) {
    std::mt19937 random(5);
    for (int mesh = 0; mesh < 200; ++mesh) {
        const unsigned vertices = unsigned(3 + random() % 60), factor = mesh % 4 == 0 ? 30'000'001 : 1;
        const auto vertex = [&] { return unsigned(random() % vertices) * factor; };
        std::vector<Triangle> triangles(random() % 120);
        std::vector<Edge> edges(random() % 150);
        for (Triangle& t : triangles) t = Triangle(vertex(), vertex(), vertex());
        for (Edge& e : edges) e = Edge(vertex(), vertex());
        for (std::size_t e = 0; e < edges.size() && !triangles.empty(); e += 2) {
            const Triangle& t = triangles[random() % triangles.size()];
            edges[e] = Edge(t[e % 3], t[(e + 1) % 3]);
        }
        ASSERT_EQ(fastTable(triangles, edges), plainTable(triangles, edges)) << mesh;
    }
    // A closed surface, and its boundary after a triangle went.
    std::vector<Triangle> tetrahedron{{0, 1, 2}, {1, 0, 3}, {2, 1, 3}, {0, 2, 3}};
    const std::vector<Edge> edges{{0, 1}, {1, 2}, {2, 0}, {3, 0}, {1, 3}, {3, 2}, {0, 4'000'000'000U}};
    EXPECT_EQ(fastTable(tetrahedron, edges),
              (std::vector<Edge>{{0, 1}, {0, 2}, {0, 3}, {1, 3}, {1, 2}, {2, 3}, {NoFace, NoFace}}));
    tetrahedron.pop_back();
    EXPECT_EQ(fastTable(tetrahedron, edges)[2], Edge(0, 0));
}

// Large enough for teams, of which each slab must continue those before it: many triangles at each vertex and edge, so
// that tables overflow; vertices in order or few and huge; positions nowhere, and flags that are few, half or most.
TEST(SurfaceRefinementTest, TeamsGiveWhatOneThreadGives) {
    std::mt19937 random(7);
    for (const unsigned factor : {1U, 100'003U}) {
        auto vertex = [&, group = 0U](bool isInAnother = false) mutable {
            if (isInAnother) group = unsigned(random() % 1'125) * 8;
            return (group + unsigned(random() % 8)) * factor;
        };
        std::vector<Triangle> triangles(30'000);
        for (Triangle& t : triangles) t = Triangle{vertex(true), vertex(), vertex()}; // in this order
        std::vector<Edge> edges(40'003);
        for (Edge& e : edges) {
            const Triangle& t = triangles[random() % triangles.size()];
            e = random() % 9 ? Edge(t[2], t[0]) : Edge{vertex(true), random() % 9 ? vertex() : t[1]};
        }
        std::vector<point> points(8'990 * (factor == 1));
        for (auto& p : points) p = {double(random() % 100), double(random() % 100), random() % 99 ? 0.0 : std::nan("")};
        const auto grid = surfaceOf(points, triangles);
        const auto vertices = grid->findVertices(~0);
        const auto edgeArray = makeMemArray1D(edges);
        (*(*grid)[SkeletonID(1, 1)])[*vertices]->setPositions(StrongPtr<Field>(new Field(edgeArray, nullptr)));

        std::vector<Edge> expectedTable;
        std::vector<Triangle> expectedFaces;
        std::string expectedText;
        std::vector<bool> expectedFlips;
        support::forTeamsUpTo(3, [&] {
            const auto table = makeMemArray1D(fastTable(triangles, edges));
            const auto faces = makeMemArray1D(std::vector<Triangle>(triangles.size(), Triangle(7, 7, 7)));
            std::string text;
            {
                const Hestra::ScopedListener listener([&](std::string_view said) { text += said; });
                GenerateFace2EdgesTable(*faces, *table, *makeMemArray1D(triangles), *edgeArray, int(edges.size()),
                                        int(triangles.size()));
            }
            const Hestra::ScopedListener nobody({});
            const auto flips = EdgeFlipCriterion(0.1).DetectEdges(grid);
            if (omp_get_max_threads() == 1) {
                expectedTable = table->base_vector();
                expectedFaces = faces->base_vector();
                expectedText = text;
                expectedFlips = flips;
                EXPECT_GT(std::count(flips.begin(), flips.end(), true), factor == 1 ? 100 : -1);
                EXPECT_GT(text.size(), 1000u);
            }
            ASSERT_TRUE(table->base_vector() == expectedTable);
            ASSERT_TRUE(faces->base_vector() == expectedFaces);
            ASSERT_TRUE(text == expectedText);
            ASSERT_TRUE(flips == expectedFlips);

            for (const double threshold : {0.0, 52.0, 120.0}) {
                std::vector<bool> expected;
                for (const Edge& e : edges) {
                    const bool isThere = e[0] < points.size() && e[1] < points.size();
                    const auto d = isThere ? points[e[0]] - points[e[1]] : vector();
                    expected.push_back(d[0] * d[0] + d[1] * d[1] + d[2] * d[2] > threshold * threshold);
                }
                EdgeLengthCriterion criterion(threshold);
                ASSERT_TRUE(criterion.DetectEdges(grid) == expected) << threshold;
                ASSERT_EQ(criterion.IllegalEdgesCount(), std::count(expected.begin(), expected.end(), true));
            }
        });
    }
}

TEST(SurfaceRefinementTest, TablesKeepWithinTheirCounts) {
    const auto triangles = makeMemArray1D(std::vector<Triangle>{{0, 1, 2}, {1, 0, 3}});
    const auto edges = makeMemArray1D(std::vector<Edge>{{0, 1}, {1, 2}, {0, 3}});
    const auto table = makeMemArray1D(std::vector<Edge>(3, Edge(8, 9)));
    GenerateEdge2FacesTable(*table, *triangles, *edges, 1, 2);
    EXPECT_EQ(table->base_vector(), (std::vector<Edge>{{0, 0}, {0, 0}, {8, 9}}));
    GenerateEdge2FacesTable(*table, *triangles, *edges, -4, 100);
    EXPECT_EQ(table->base_vector(), std::vector<Edge>(3, Edge(NoFace, NoFace)));
    const auto faces = makeMemArray1D(std::vector<Triangle>(2, Triangle(7, 7, 7)));
    GenerateFace2EdgesTable(*faces, *table, *triangles, *edges, 100, 100);
    EXPECT_EQ(faces->base_vector(), std::vector<Triangle>(2, Triangle(7, 7, 7)));
}

// Property: on a closed surface each triangle lists exactly its three sides, ascending.
TEST(SurfaceRefinementTest, FacesListTheirEdges) {
    std::vector<Triangle> triangles;
    const unsigned n = 7; // a torus of n by n vertices
    const auto vertex = [](unsigned i, unsigned j) { return i % n + n * (j % n); };
    for (unsigned j = 0; j < n; ++j)
        for (unsigned i = 0; i < n; ++i) {
            triangles.emplace_back(vertex(i, j), vertex(i + 1, j), vertex(i + 1, j + 1));
            triangles.emplace_back(vertex(i, j), vertex(i + 1, j + 1), vertex(i, j + 1));
        }
    const auto grid = surfaceOf(std::vector<point>(n * n), triangles);
    const auto edges = Edges::getVerticesPerEdge(grid);
    ASSERT_EQ(edges->nElements(), 3 * n * n);
    const auto table = MemArray<1, Edge>::create(edges->Size());
    const auto array = makeMemArray1D(triangles), sides = makeMemArray1D(std::vector<Triangle>(triangles.size()));
    const int faceCount = int(triangles.size()), edgeCount = int(edges->nElements());
    GenerateEdge2FacesTable(*table, *array, *edges, faceCount, edgeCount);
    CaptureStdout();
    GenerateFace2EdgesTable(*sides, *table, *array, *edges, edgeCount, faceCount);
    EXPECT_EQ(GetCapturedStdout(), "");
    for (index_t f = 0; f < triangles.size(); ++f) {
        const Triangle listed = sides->element(f);
        EXPECT_TRUE(listed[0] < listed[1] && listed[1] < listed[2]);
        for (const unsigned e : listed) EXPECT_TRUE(table->element(e)[0] == f || table->element(e)[1] == f);
    }
}

TEST(SurfaceRefinementTest, BoundaryEdgesAreEnteredTwice) {
    const auto triangles = makeMemArray1D(std::vector<Triangle>{{0, 1, 2}});
    const auto edges = makeMemArray1D(std::vector<Edge>{{0, 1}, {1, 2}, {0, 2}});
    const auto table = makeMemArray1D(std::vector<Edge>(3));
    const auto faces = makeMemArray1D(std::vector<Triangle>(1));
    GenerateEdge2FacesTable(*table, *triangles, *edges, 1, 3);
    CaptureStdout();
    GenerateFace2EdgesTable(*faces, *table, *triangles, *edges, 3, 1);
    EXPECT_EQ(GetCapturedStdout(), "-->does edge (1) belong to face (0)?\n--> other edges: 0,0,1,\n"
                                   "-->does edge (2) belong to face (0)?\n--> other edges: 0,0,1,\n"
                                   "-->does edge (2) belong to face (0)?\n--> other edges: 0,0,1,\n");
    EXPECT_EQ(faces->element(0), Triangle(0, 0, 1));
}

TEST(SurfaceRefinementTest, LengthIsComparedStrictly) {
    const auto grid = surfaceOf({{0, 0, 0}, {3, 4, 0}, {3, 0, 0}}, {{0, 1, 2}}); // edges 01, 12, 02: 5, 4, 3
    for (const double sign : {1.0, -1.0}) {
        EdgeLengthCriterion criterion(4.0 * sign);
        EXPECT_EQ(criterion.DetectEdges(grid), (std::vector<bool>{true, false, false}));
        EXPECT_EQ(criterion.IllegalEdgesCount(), 1u);
        const auto copy = criterion.copyMe();
        EXPECT_TRUE(dynamic_cast<EdgeLengthCriterion*>(copy.rawptr()));
        EXPECT_EQ(copy->threshold(), 4.0 * sign);
        EXPECT_EQ(copy->IllegalEdgesCount(), 0u);
        EXPECT_FALSE(copy->edges());
    }
    SplitAllCriterion all;
    EXPECT_EQ(all.DetectEdges(grid), std::vector<bool>(3, true));
    EXPECT_EQ(all.IllegalEdgesCount(), 0u);
}

TEST(SurfaceRefinementTest, IncompleteSurfacesHaveNoFlags) {
    const auto outOfRange = surfaceOf({{0, 0, 0}, {9, 0, 0}}, {{0, 1, 5}, {1, 0, 0xFFFFFFFF}});
    const auto noTriangles = makeRef<Grid>();
    GridWithCartesianVertices(noTriangles, 2).positions()->setPersistentData(makeMemArray1D(std::vector<point>(3)));
    CaptureStdout();
    for (const StrongPtr<SurfaceRefinementCriterion>& criterion :
         {StrongPtr<SurfaceRefinementCriterion>(new EdgeLengthCriterion(1.0)),
          StrongPtr<SurfaceRefinementCriterion>(new EdgeFlipCriterion(0.0)),
          StrongPtr<SurfaceRefinementCriterion>(new SplitAllCriterion)}) {
        for (const StrongPtr<Grid>& grid :
             {StrongPtr<Grid>(), StrongPtr<Grid>(new Grid), StrongPtr<Grid>(noTriangles), surfaceOf({}, {})}) {
            EXPECT_TRUE(criterion->DetectEdges(grid).empty());
            EXPECT_EQ(criterion->IllegalEdgesCount(), 0u);
        }
    }
    EXPECT_EQ(EdgeLengthCriterion(1.0).DetectEdges(outOfRange), (std::vector<bool>{true, false, false, false, false}));
    EXPECT_EQ(EdgeFlipCriterion(0.0).DetectEdges(outOfRange), std::vector<bool>(5, false));
    const auto noPoints = surfaceOf({{0, 0, 0}}, {{0, 1, 2}});
    noPoints->CartesianPositions()->removeData(nullptr);
    EXPECT_TRUE(EdgeFlipCriterion(0.0).DetectEdges(noPoints).empty());
    GetCapturedStdout();
}

// A rhombus with a long diagonal from a to b: both opposite angles are obtuse. Every test of the criterion in turn.
TEST(SurfaceRefinementTest, ThinRhombiAreFlipped) {
    const point a(-4, 0, 0), b(4, 0, 0), c(0, 1, 0), d(0, -1, 0);
    const EdgeFlipCriterion criterion(1e-3);
    EXPECT_TRUE(criterion.Hybrid_Delaunay2D(a, b, c, d));
    EXPECT_TRUE(DelaunayCriterion2D(a, b, c, d));
    EXPECT_FALSE(criterion.Hybrid_Delaunay2D(c, d, a, b)) << "acute angles";
    EXPECT_FALSE(DelaunayCriterion2D(c, d, a, b));
    EXPECT_FALSE(criterion.Hybrid_Delaunay2D(a, b, c, {0, -5, 0})) << "one obtuse angle is not enough";
    EXPECT_FALSE(criterion.Hybrid_Delaunay2D(a, b, c, {0, 1, 0.1})) << "folded";
    EXPECT_TRUE(DelaunayCriterion2D(a, b, c, {0, 1, 0.1})) << "which this one does not look at";
    // All four triangles have the doubled area 8: exactly the threshold passes before the flip, and fails after it.
    EXPECT_FALSE(EdgeFlipCriterion(std::nextafter(8.0, 9.0)).Hybrid_Delaunay2D(a, b, c, d));
    EXPECT_FALSE(EdgeFlipCriterion(8.0).Hybrid_Delaunay2D(a, b, c, d));
    EXPECT_TRUE(EdgeFlipCriterion(std::nextafter(8.0, 7.0)).Hybrid_Delaunay2D(a, b, c, d));
    // The triangles before have 4, those after have 8 - with c and d moved towards b: exactly 4 before passes.
    const point flat(0, 0.5, 0), deep(0, -2, 0);
    EXPECT_TRUE(EdgeFlipCriterion(4.0).Hybrid_Delaunay2D(a, b, flat, deep));
    EXPECT_FALSE(EdgeFlipCriterion(std::nextafter(4.0, 5.0)).Hybrid_Delaunay2D(a, b, flat, deep));
}

TEST(SurfaceRefinementTest, FlipsAreFoundInSurfaces) {
    // The rhombus, its halves oriented alike or not; the diagonal is the first edge.
    for (const Triangle& second : {Triangle(1, 0, 3), Triangle(0, 1, 3)}) {
        const auto grid = surfaceOf({{-4, 0, 0}, {4, 0, 0}, {0, 1, 0}, {0, -1, 0}}, {{0, 1, 2}, second});
        EdgeFlipCriterion criterion(1e-3);
        CaptureStdout();
        const auto flags = criterion.DetectEdges(grid);
        EXPECT_EQ(GetCapturedStdout(), "search for flipable edges 5\n>>total illegal edges 1\n");
        EXPECT_EQ(flags, (std::vector<bool>{true, false, false, false, false}));
        EXPECT_EQ(criterion.IllegalEdgesCount(), 1u);
    }
}

TEST(SurfaceRefinementTest, OrientationFollowsTheTriangle) {
    unsigned a = 0, b = 0, opposite = 42;
    TriangleVerticesOrientation({7, 8, 9}, {7, 9}, a, b, opposite);
    EXPECT_EQ((Triangle(a, b, opposite)), Triangle(9, 7, 8));
    opposite = 42;
    TriangleVerticesOrientation({7, 9, 7}, {9, 7}, a, b, opposite);
    EXPECT_EQ((Triangle(a, b, opposite)), Triangle(9, 7, 42));

    const auto edges = makeMemArray1D(std::vector<Edge>{{1, 2}, {5, 5}});
    for (const Triangle& other : {Triangle(4, 2, 1), Triangle(2, 4, 1)}) {
        Triangle first(3, 1, 2), second = other;
        OrientTriangleEdges(first, second, *edges, 0);
        EXPECT_EQ(first, Triangle(1, 2, 3));
        EXPECT_EQ(second, Triangle(2, 1, 4));
    }
    Triangle first(3, 1, 2), elsewhere(6, 2, 7);
    for (const unsigned edge : {0u, 1u, 2u}) OrientTriangleEdges(first, elsewhere, *edges, edge);
    EXPECT_EQ(first, Triangle(3, 1, 2));
}

TEST(SurfaceRefinementTest, MidpointsOnSpheres) {
    const point p(2, 0, 0), q(0, 2, 0), origin;
    EXPECT_EQ(midpoint(p, q), point(1, 1, 0));
    const auto projected = midpoint(p, q, 1.0, origin);
    EXPECT_NEAR(projected[0], std::sqrt(0.5), 1e-15);
    EXPECT_NEAR(projected[1], std::sqrt(0.5), 1e-15);
    // With another centre, (1, 1, 0) itself is scaled, by 10 over its distance 2 from (1, 1, 2).
    EXPECT_EQ(midpoint(p, q, 10.0, {1, 1, 2}), point(5, 5, 0));
    EXPECT_FALSE(std::isfinite(midpoint(p, q, 1.0, {1, 1, 0})[0]));
    EXPECT_FALSE(std::isfinite(midpoint(p, q, 1.0, {1, 1, 0})[2]));
}

} // namespace
