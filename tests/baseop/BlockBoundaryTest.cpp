#include <baseop/BlockBoundary.hpp>

#include <support/CutBlocks.hpp>
#include <support/Surfaces.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

/// A hull's arrays, and what they enclose.
struct Hull {
    StrongPtr<Grid> grid;
    StrongPtr<MemArray<1, Point>> points;
    std::vector<TriangleCell> triangles;
    double area = 0.0, volume = 0.0;

    explicit Hull(const Scene& scene, const BlockBoundaryOptions& options = {})
        : grid(ComputeBlockBoundary(*scene.grid, *scene.slice, "hull", options)),
          points(dynamicCast<MemArray<1, Point>>(grid->CartesianPositions()->getData())) {
        const auto skeleton = grid->getSkeleton(SkeletonID(2, 1));
        const auto cells = dynamicCast<MemArray<1, TriangleCell>>(
            skeleton->findRepresentation(*grid->findVertices(2))->Positions()->getData());
        for (index_t n = 0; n < cells->nElements(); ++n) {
            triangles.push_back(cells->element(n));
            const Point &a = corner(0), &b = corner(1), &c = corner(2);
            area += length(cross(b - a, c - a)) / 2;
            volume += dot(a - Point(), cross(b - Point(), c - Point())) / 6;
        }
    }
    [[nodiscard]] const Point& corner(int c) const { return points->element(triangles.back()[c]); }
    [[nodiscard]] std::set<std::array<double, 3>> places() const {
        std::set<std::array<double, 3>> result;
        for (index_t n = 0; n < points->nElements(); ++n) {
            const Point p = points->element(n);
            result.insert({p[0], p[1], p[2]});
        }
        return result;
    }
};

Scene sceneOf(const BlockPtr& block) {
    Scene scene;
    scene.blocks.addBlock("all", block);
    return scene;
}

TEST(BlockBoundaryTest, OfCutAndTurnedBlocksIsThatOfTheUncutOne) {
    std::mt19937_64 random(21);
    for (const Shape& shape : shapes())
        for (const std::size_t count : {1U, 2U, 5U, 12U}) {
            const Place n(9, 8, 10);
            const BlockPtr uncut = makeBlock(shape, n);
            const Hull whole(sceneOf(uncut));
            const CutGrid cut(*uncut, turned(bisect(n, count, random), random));
            const Hull hull(cut);
            const index_t quads = 2 * ((n[0] - 1) * (n[1] - 1) + (n[1] - 1) * (n[2] - 1) + (n[2] - 1) * (n[0] - 1));
            EXPECT_EQ(whole.triangles.size(), 2 * quads);
            EXPECT_EQ(hull.triangles.size(), 2 * quads) << shape.name << count;
            EXPECT_EQ(hull.points->nElements(), quads + 2); // Euler
            EXPECT_EQ(hull.places(), whole.places());
            EXPECT_EQ(openEdges(hull.triangles), 0U);
            EXPECT_NEAR(hull.area, whole.area, 1e-12 * whole.area);
            EXPECT_NEAR(hull.volume, whole.volume, 1e-11 * whole.area);
            EXPECT_GT(hull.volume, 0.0) << shape.name << count;
        }
    // Many blocks, with edges at which several meet.
    const BlockPtr uncut = makeBlock(cube, {9, 9, 9});
    const CutGrid blocks(*uncut, turned(cutAtPlanes(uncut->Size(), {{{2, 3, 6}, {4, 5}, {1, 7}}}), random));
    const Hull hull(blocks);
    EXPECT_NEAR(hull.area, 6.0, 1e-12);
    EXPECT_NEAR(hull.volume, 1.0, 1e-12);
    EXPECT_EQ(openEdges(hull.triangles), 0U);
}

TEST(BlockBoundaryTest, ClosingFacesAndPolesAreInside) {
    constexpr double Pi = std::numbers::pi;
    // A prism with an n-sided hole: radii 1 and 2, height 1.5.
    const index_t n = 24, outward = 5, layers = 4;
    const Hull ring(sceneOf(oGrid({n + 1, outward + 1, layers + 1})));
    const double polygon = double(n) / 2 * std::sin(2 * Pi / double(n)), side = 2 * std::sin(Pi / double(n));
    EXPECT_EQ(ring.triangles.size(), 4 * n * (outward + layers));
    EXPECT_EQ(openEdges(ring.triangles), 0U);
    EXPECT_NEAR(ring.volume, 1.5 * 3 * polygon, 1e-12);
    EXPECT_NEAR(ring.area, 2 * 3 * polygon + 1.5 * 3 * side * double(n), 1e-11);

    // A C-grid of 26 x 5 x 3 cells, whose wake of 6 cells on either side is inside.
    const Hull wake(sceneOf(cGrid()));
    EXPECT_EQ(wake.triangles.size(), 2U * (2 * 5 * 3 + (14 + 26) * 3 + 2 * 26 * 5));
    EXPECT_EQ(openEdges(wake.triangles), 0U);

    // Shells and balls: the axis is collapsed, and the centre of a ball.
    for (const double inner : {0.0, 0.5}) {
        const Hull shell(sceneOf(sphere(inner, {3, 49, 97})));
        EXPECT_EQ(openEdges(shell.triangles), 0U) << inner;
        EXPECT_EQ(shell.triangles.size(), (inner > 0 ? 2U : 1U) * 2 * 96 * 47);
        EXPECT_NEAR(shell.volume, 4 * Pi / 3 * (1 - std::pow(inner, 3)), 0.02);
        EXPECT_NEAR(shell.area, 4 * Pi * (1 + inner * inner), 0.05);
        EXPECT_LT(shell.volume, 4 * Pi / 3 * (1 - std::pow(inner, 3)));
    }
    const auto [slab, motion] = periodicSlab();
    BlockBoundaryOptions periodic;
    periodic.joins.motions.push_back(motion);
    EXPECT_EQ(Hull(sceneOf(slab), periodic).triangles.size(), Hull(sceneOf(slab)).triangles.size());
    EXPECT_EQ(Hull(sceneOf(makeBlock(cube, {1, 5, 5}))).triangles.size(), 0U);
}

// Of cubes of volume 1: as many as are valid, with as many faces as lie between them and the rest.
TEST(BlockBoundaryTest, BlankedCellsAreOutside) {
    std::mt19937_64 random(24);
    const Place size(8, 7, 9);
    const BlockPtr uncut = makeBlock({"",
                                      [](double u, double v, double w) {
                                          return Point{7 * u, 6 * v, 8 * w};
                                      },
                                      true},
                                     size);
    for (const std::size_t count : {1U, 6U})
        for (const unsigned part : {0U, 5U, 1000U}) {
            const auto vertexMask = filled<unsigned char>(size, [&](index_t) { return random() % 100 >= part; });
            CutGrid cut(*uncut, turned(bisect(size, count, random), random));
            cut.setField(VertexMaskName, *vertexMask);
            const Hull hull(cut);
            const BlockMask mask(size, &*vertexMask, nullptr);
            index_t faces = 0;
            Place cell;
            do {
                if (!mask.isCellValid(cell)) continue;
                for (int d = 0; d < 3; ++d)
                    for (const bool upper : {false, true}) {
                        Place next = cell;
                        next[d] += upper ? index_t{1} : ~index_t{0};
                        faces += !next.inside(mask.cells()) || !mask.isCellValid(next);
                    }
            } while (cell.advance(mask.cells()));
            EXPECT_EQ(hull.triangles.size(), 2 * faces) << count << " " << part;
            EXPECT_NEAR(hull.volume, double(mask.validCells()), 1e-9) << count << " " << part;
            EXPECT_NEAR(hull.area, double(faces), 1e-9);
        }
}

TEST(BlockBoundaryTest, FieldsHaveTheValuesOfOwners) {
    std::mt19937_64 random(22);
    const BlockPtr uncut = makeBlock(shapes()[1], {7, 9, 8});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 6, random), random));
    cut.setField("linear", *linearOn(*uncut));
    cut.setField("place", *fieldOn(*uncut, [](const Point& p) { return vector(p[2], p[0], p[1]); }));
    const auto source = (*cut.grid)("linear");
    for (const auto& id : cut.ids) { // copies that are nobody's
        const auto joins = BlockJoins::of(*cut.grid);
        const auto values = dynamicCast<MemArray<3, double>>(source->getData(id));
        for (const auto& shared : joins->shared(joins->find(id))) values->element(shared.index) = 1e9;
    }
    const Hull hull(cut, {{}, {"linear", "place"}});
    const auto linearValues = dynamicCast<MemArray<1, double>>((*hull.grid)("linear")->getData());
    const auto places = dynamicCast<MemArray<1, vector>>((*hull.grid)("place")->getData());
    ASSERT_TRUE(linearValues && places && linearValues->nElements() == hull.points->nElements());
    for (index_t n = 0; n < hull.points->nElements(); ++n) {
        EXPECT_EQ(linearValues->element(n), linear(hull.points->element(n)));
        EXPECT_EQ(places->element(n)[1], hull.points->element(n)[0]);
    }
}

TEST(BlockBoundaryTest, IsMadeAgainWhenWhatItWasMadeOfIsNewer) {
    std::mt19937_64 random(23);
    const BlockPtr uncut = makeBlock(shapes()[0], {7, 5, 6});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 3, random), random));
    cut.setField("linear", *linearOn(*uncut));
    const auto hull = [&](const BlockBoundaryOptions& options = {{}, {"linear"}}) {
        return ComputeBlockBoundary(*cut.grid, *cut.slice, "hull", options);
    };
    auto last = hull();
    EXPECT_TRUE(hull() == last);
    EXPECT_TRUE(hull({}) == last); // it has more than that
    const auto isNew = [&](const BlockBoundaryOptions& options = {{}, {"linear"}}) {
        return !(std::exchange(last, hull(options)) == last);
    };
    (*cut.grid)("linear")->touch();
    EXPECT_TRUE(isNew());
    cut.blocks.positions()->touch();
    EXPECT_TRUE(isNew());
    cut.setField("other", *linearOn(*uncut));
    EXPECT_TRUE(isNew({{}, {"linear", "other"}}));
    BlockBoundaryOptions tolerant{{}, {"linear", "other"}};
    tolerant.joins.tolerance = 0.01;
    EXPECT_TRUE(isNew(tolerant));
    cut.setField(VertexMaskName, *fieldOn(*uncut, [](const Point& p) { return p[0] > 0.5 ? 1 : 0; }));
    EXPECT_TRUE(isNew(tolerant));
    last->CartesianPositions()->removeData();
    EXPECT_TRUE(isNew(tolerant));
    EXPECT_FALSE(isNew(tolerant));

    // Nothing is changed where something is missing.
    const auto refused = [&](const char* what, const BlockBoundaryOptions& options, const std::string& name = "hull") {
        EXPECT_THROW(ComputeBlockBoundary(*cut.grid, *cut.slice, name, options), std::invalid_argument) << what;
        EXPECT_TRUE((*cut.slice)("hull") == last) << what;
    };
    refused("no such field", {{}, {"none"}});
    refused("its own grid", {}, "grid");
    tolerant.joins.tolerance = std::nan("");
    refused("no tolerance", tolerant);
    const auto linearField = (*cut.grid)("linear");
    for (const StrongPtr<MemBase>& unsuitable :
         {StrongPtr<MemBase>(MemArray<3, double>::create({2, 2, 2})),
          StrongPtr<MemBase>(MemArray<3, int>::create(cut.pieces[1].ownSize())), StrongPtr<MemBase>()}) {
        linearField->setPersistentData(unsuitable, cut.ids[1]);
        refused("unsuitable data", {{}, {"linear"}});
    }
    Scene empty;
    EXPECT_THROW(ComputeBlockBoundary(*empty.slice->newGrid("nothing"), *empty.slice, "hull"), std::invalid_argument);
}

} // namespace
