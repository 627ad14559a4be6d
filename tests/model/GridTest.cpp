#include <support/Testing.hpp>

namespace {

TEST(BundleTest, SlicesAreFoundByTime) {
    const BundlePtr bundle = BundlePtr::create();
    const auto first = bundle[0.0];
    const auto second = bundle[2.0];
    EXPECT_EQ(bundle[0.0], first);
    double time = -1;
    for (const auto& [asked, found] : {std::pair{0.0, 0.0}, {1.5, 0.0}, {2.0, 2.0}, {1e9, 2.0}}) {
        time = asked;
        EXPECT_EQ((*bundle)(time), found == 0.0 ? first : second) << asked;
        EXPECT_EQ(time, found);
    }
    time = -1;
    EXPECT_FALSE((*bundle)(time));
    EXPECT_EQ(time, -1.0);
    EXPECT_FALSE(bundle[kNaN]);
    time = kNaN;
    EXPECT_FALSE((*bundle)(time));
    time = 1e9;
    EXPECT_EQ((*bundle)(time), second) << "asking with NaN makes no slice";
}

TEST(BundleTest, HistoryOfAGrid) {
    const BundlePtr bundle = BundlePtr::create();
    for (double time : {0.0, 1.0, 3.0}) (*bundle[time])["flow"];
    (void)bundle[2.0];
    EXPECT_EQ(bundle->findMostRecentGrid(2.5, "flow"), (*bundle[1.0])("flow"));
    EXPECT_EQ(GridSelector("flow").findMostRecentGrid(3.0, bundle), (*bundle[3.0])("flow"));
    EXPECT_FALSE(bundle->findMostRecentGrid(5, "other"));
    EXPECT_FALSE(bundle->findMostRecentGrid(kNaN, "flow"));

    struct Times : EvolutionIterator<Grid> {
        bool apply(const Info<Grid>& version) override {
            seen.push_back(version.time);
            return seen.size() < most;
        }
        std::vector<double> seen;
        std::size_t most = 99;
    };
    Times strict, with, short_;
    double time = 3.0;
    EXPECT_EQ(bundle->iterateBackward(time, "flow", strict, false), 2u);
    EXPECT_EQ(strict.seen, (std::vector<double>{1, 0}));
    EXPECT_EQ(time, 0.0);
    time = 3.0;
    bundle->iterateBackward(time, "flow", with, true);
    EXPECT_EQ(with.seen, (std::vector<double>{3, 1, 0}));
    short_.most = 1;
    time = 2.5;
    EXPECT_EQ(bundle->iterateBackward(time, "flow", short_, false), 1u);
    EXPECT_EQ(time, 1.0);
}

TEST(SliceTest, ANewGridReplacesTheOldEntry) {
    Slice slice;
    const auto old = slice.newGrid("g", "kind");
    old->makeVertices(3);
    const auto fresh = slice.newGrid("g");
    EXPECT_NE(old, fresh);
    EXPECT_EQ(slice("g"), fresh);
    EXPECT_FALSE(fresh->findVertices());
    EXPECT_TRUE(old->findVertices()) << "old handles live on";
    EXPECT_EQ(old->type(), "kind");
    EXPECT_FALSE(slice("missing"));
}

TEST(GridTest, VerticesOfTheHighestDimension) {
    Grid grid;
    EXPECT_FALSE(grid.findVertices(~0));
    const auto surface = grid.makeVertices(2);
    const auto volume = grid.makeVertices(3);
    (void)grid[SkeletonID(5, 1)];
    EXPECT_EQ(SkeletonMap::findVertices(grid, ~0), volume);
    EXPECT_EQ(grid.findVertices(2), surface);
    EXPECT_EQ(volume->Dims(), 3);
    EXPECT_FALSE(grid.getSkeleton(SkeletonID(3, 2)));
    struct Count : ConstSkeletonIterator {
        bool apply(const SkeletonID& id, const Skeleton& skeleton) override {
            EXPECT_EQ(id, skeleton.id());
            return ++n < 2;
        }
        int n = 0;
    } count;
    EXPECT_FALSE(grid.iterate(count));
    EXPECT_EQ(count.n, 2);
}

TEST(GridTest, ChartsAreFoundByTypeAndNameAndSharedInABundle) {
    const BundlePtr bundle = BundlePtr::create();
    const auto a = (*bundle[0])["a"];
    const auto b = (*bundle[1])["b"];
    const auto chart = a->makeChart(typeid(CartesianChart), "", 2);
    EXPECT_EQ(a->makeChart(typeid(CartesianChart), "", 5), chart);
    EXPECT_EQ(chart->level(), 2) << "the level is stored, it is not part of the key";
    EXPECT_NE(a->makeChart(typeid(RGBAChart)), chart);
    EXPECT_NE(a->makeChart(typeid(CartesianChart), "rotated"), chart);
    EXPECT_FALSE(b->findCartesianChart()) << "known to the bundle, but not used by this grid";
    EXPECT_EQ(b->makeChart(typeid(CartesianChart)), chart);
    EXPECT_FALSE(a->makeChart(typeid(int)));
}

TEST(GridTest, RepresentationsAreMadeByCreatingFormsOnly) {
    Grid grid, other;
    const auto vertices = grid.makeVertices(3);
    const auto cells = grid[SkeletonID(3, 1)];
    const RepresentationMap& readOnly = *vertices;
    EXPECT_FALSE(readOnly(WeakPtr<BaseSpace>(cells)));
    EXPECT_FALSE(vertices->findRepresentation(*cells));
    EXPECT_FALSE(vertices->FirstRepresentation());
    const auto made = (*vertices)[*cells];
    EXPECT_EQ(readOnly(WeakPtr<BaseSpace>(cells)), made);
    EXPECT_EQ(vertices->FirstRepresentation(), made);
    EXPECT_EQ((*vertices)[WeakPtr<BaseSpace>(cells)], made);
    EXPECT_FALSE((*vertices)[WeakPtr<BaseSpace>()]);
    const auto cartesian = grid.makeCartesianRepresentation(3);
    EXPECT_EQ(grid.getCartesianRepresentation(vertices, ""), cartesian);
    EXPECT_EQ(grid.getCartesianRepresentation(*vertices, ""), cartesian);
    EXPECT_FALSE(grid.getCartesianRepresentation(cells, ""));
    EXPECT_NE((*cells)[*vertices], made);
    EXPECT_FALSE(readOnly(WeakPtr<BaseSpace>(other.makeVertices(3))));
}

TEST(RepresentationTest, SlotsReadNullAndLookUpsCreateNothing) {
    Grid grid;
    const auto representation = grid.makeCartesianRepresentation(3);
    EXPECT_FALSE(representation->findField("a"));
    EXPECT_FALSE(representation->findField(std::string("a")));
    EXPECT_FALSE((*representation)["a"]);
    EXPECT_FALSE(representation->findFieldID("a"));
    const StrongPtr<Field> field(new Field), second(new Field);
    (*representation)["a"] = field;
    EXPECT_EQ(representation->findField("a"), field);
    EXPECT_EQ(representation->findField(representation->findFieldID("a")), field);
    (*representation)["a"] = second;
    EXPECT_EQ(StrongPtr<Field>((*representation)["a"]), second);
    (*representation)["b"] = (*representation)["a"];
    EXPECT_EQ(representation->findField("b"), second);

    std::vector<std::string> names;
    (void)representation->makeFieldID("empty");
    representation->iterate([&](const FieldID& id, const Field&) {
        names.push_back(id.name());
        return true;
    });
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(representation->makeField(*representation->makeFieldID("empty")));

    const auto other = grid[SkeletonID(3, 1)];
    const auto shared = (*other)[*grid.findCartesianChart()];
    EXPECT_EQ(shared->createSharedFieldID(*representation, "a"), representation->findFieldID("a"));
    EXPECT_EQ(grid("a"), second);
    EXPECT_EQ(grid.findVertices()->getField(nullptr, "a", grid.atlas()), second);
    EXPECT_FALSE(grid.findVertices()->getField(nullptr, "a", grid.atlas(), {""}));
}

TEST(RepresentationTest, ListsTheFieldsOfASkeleton) {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    GridWithCartesianVertices vertices(grid, 3);
    for (const char* name : {"zeta", "alpha", "mid"}) vertices.setField(name, makeMemArray1D(std::vector<double>(1)));
    using Names = std::vector<std::string>;
    const auto chart = grid->findCartesianChart();
    EXPECT_EQ(getSkeletonFields(vertices.vertices(), chart), (Names{"Positions", "alpha", "mid", "zeta"}));
    EXPECT_EQ(getSkeletonFields(vertices.vertices(), chart, FieldSelector(), {"Positions", "mid"}),
              (Names{"alpha", "zeta"}));
    EXPECT_EQ(getSkeletonFields(vertices.vertices(), chart, FieldSelector("mid")), Names{"mid"});
    EXPECT_EQ(getSkeletonFields(nullptr, chart), Names{});
    EXPECT_EQ(getSkeletonFields(vertices.vertices(), grid->makeChart(typeid(RGBAChart))), Names{});
}

TEST(RepresentationTest, ThePrimaryBundleIsFoundThroughTheOwners) {
    StrongPtr<Representation> representation;
    WeakPtr<Bundle> weak;
    {
        const BundlePtr bundle = BundlePtr::create();
        weak = bundle;
        const auto grid = (*bundle[1.0])["g"];
        representation = grid->makeCartesianRepresentation(3);
        EXPECT_EQ(getPrimaryBundle(*representation), bundle);
        bundle->bindUrl("file:somewhere");
        EXPECT_EQ(getPrimaryBundle(*representation)->boundUrl(), "file:somewhere");
        const auto loose = bundle->newGrid();
        EXPECT_FALSE(getPrimaryBundle(*loose->makeCartesianRepresentation(3)));
        EXPECT_EQ(loose->globalCharts(), grid->globalCharts());
    }
    EXPECT_FALSE(weak) << "nothing in the tree holds its root";
    EXPECT_FALSE(getPrimaryBundle(*representation));
}

TEST(GridKindsTest, UniformRectilinearAndBlocks) {
    const StrongPtr<Grid> grid(new Grid), second(new Grid), third(new Grid);
    const auto uniform = UniformGrid3D::create(*grid, BoundingBox({0, 0, 0}, {1, 2, 3}), {3, 5, 7});
    const auto array = dynamicCast<UniformCartesianArray>(uniform.positions()->getData());
    EXPECT_EQ(array->last(), point(1, 2, 3));
    EXPECT_EQ(grid->CartesianPositions(), uniform.positions());

    const auto rectilinear = RegularGrid3D::createRectilinear(*second, {0, 1, 4}, {0, 2}, {5});
    using Product = DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3>;
    EXPECT_EQ(dynamicCast<Product>(rectilinear.positions()->getData())->last(), point(4, 2, 5));

    RegularGrid3D blocks(third);
    const auto block = blocks.addBlock("west", MemArray<3, point>::create({2, 2, 2}), MultiIndex<3>{4, 0, 0});
    blocks.setField("density", MemArray<3, double>::create({2, 2, 2}), block);
    EXPECT_EQ((block->findInterface<FragmentLocation<3, IndexOffset>>()->offset()), (MultiIndex<3>{4, 0, 0}));
    EXPECT_EQ(blocks.field("density")->getFragmentIDCollection(), blocks.positions()->getFragmentIDCollection());
    EXPECT_TRUE(third->operator()("density")->hasData(block));
    EXPECT_FALSE(blocks.addBlock("", nullptr));
}

TEST(GridKindsTest, SurfaceEdgesAreUniqueInOrderOfAppearance) {
    const StrongPtr<Grid> grid(new Grid);
    EXPECT_FALSE(Edges::getVerticesPerEdge(grid, true));
    const auto plain = TriangularSurface::create(*grid, {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}},
                                                 {Triangle{0u, 1u, 2u}, Triangle{3u, 2u, 0u}});
    EXPECT_FALSE(Edges::getVerticesPerEdge(grid)) << "a mere view makes none";
    EXPECT_FALSE(TriangularSurface(nullptr).points() || TriangularSurface(makeRef<Grid>()).triangles());
    const TriangularSurfaceWithEdges surface(grid);
    ASSERT_TRUE(surface.edges());
    EXPECT_EQ(surface.points(), plain.points());
    EXPECT_EQ(surface.triangles(), plain.triangles());
    std::string text;
    for (index_t e = 0; e < surface.edges()->nElements(); ++e) text += surface.edges()->getElementAsString(e);
    EXPECT_EQ(text, "{0,1}{1,2}{0,2}{2,3}{0,3}");
    EXPECT_EQ(Edges::getVerticesPerEdge(grid), surface.edges());
}

TEST(GridKindsTest, CurvesAreStoredAsGiven) {
    const StrongPtr<Grid> grid(new Grid);
    const LineSet lines(
        grid, StrongPtr<LineSet::Points>(makeMemArray1D(std::vector<point>(3))),
        StrongPtr<MemArray<1, std::vector<unsigned>>>(makeMemArray1D(std::vector<std::vector<unsigned>>{{0, 1, 2}})));
    EXPECT_TRUE((dynamicCast<MemArray<1, std::vector<unsigned>>>(lines.curves()->getData())));
    EXPECT_EQ(lines.positions()->getData()->nElements(), 3u);
    const StrongPtr<Grid> empty(new Grid);
    EXPECT_TRUE(LineSet::setupStandardFields(empty).curves());
    const LineSet wide(empty, makeMemArray1D(std::vector<point>(2)),
                       makeMemArray1D(std::vector<std::vector<index_t>>{{0, 1}}));
    EXPECT_TRUE((dynamicCast<MemArray<1, std::vector<index_t>>>(wide.curves()->getData())));
}

TEST(GridKindsTest, PointCloudsFallIntoTheirLatticeCells) {
    StrongPtr<Grid> grid(new Grid);
    const StrongPtr<BoundingBox> box(new BoundingBox({0, 0, 0}, {2, 2, 0}));
    auto cloud = RegularlyFragmentedClusteredPointCloudGrid::create(grid, {2, 2, 1}, box);
    EXPECT_EQ(cloud.setPoints({{0, 0, 0}, {1, 0.5, 0}, {2, 2, 0}, {3, 0, 0}, {kNaN, 0, 0}}), 3u);
    const auto positions = cloud.positions();
    ASSERT_EQ(positions->nFragments(), 4u);
    EXPECT_EQ(positions->getData(positions->getFragmentID("[1x0x0]"))->nElements(), 1u);
    EXPECT_EQ(positions->getData(positions->getFragmentID("[1x1x0]"))->nElements(), 1u);
    EXPECT_EQ(positions->getData(positions->getFragmentID("[0x1x0]"))->nElements(), 0u);
    StrongPtr<Grid> none;
    EXPECT_FALSE(RegularlyFragmentedClusteredPointCloudGrid::create(none, {1, 1, 1}, box));
    for (const double far : {std::numeric_limits<double>::max(), kInfinity, kNaN}) {
        const StrongPtr<BoundingBox> endless(new BoundingBox({-far, 0, 0}, {far, 1, 1}));
        EXPECT_FALSE(RegularlyFragmentedClusteredPointCloudGrid::create(grid, {2, 1, 1}, endless));
    }
}

// Every point is in the box of its fragment, which owns its lower faces, whatever fragments the grid had before.
TEST(GridKindsTest, ClusteredPointsLieInTheBoxesOfTheirFragments) {
    StrongPtr<Grid> grid(new Grid);
    RegularGrid3D before(grid);
    for (const char* name : {"wing", "tail"}) before.addBlock(name, MemArray<3, point>::create({2, 2, 2}));
    const point low(0.1, -1, 3), high(0.8, 2, 3);
    const StrongPtr<BoundingBox> box(new BoundingBox(low, high));
    auto cloud = RegularlyFragmentedClusteredPointCloudGrid::create(grid, {7, 10, 2}, box);
    const auto positions = cloud.positions();
    std::vector<point> points;
    std::mt19937 random(7);
    std::uniform_real_distribution<double> x(low[0], high[0]), y(low[1], high[1]);
    for (int n = 0; n < 500; ++n) points.emplace_back(x(random), y(random), low[2]);
    for (const auto& id : positions->getFragmentIDCollection()->ids())
        if (const auto cell = id->findInterface<BoundingBox>()) points.push_back(cell->minCoord());
    ASSERT_EQ(cloud.setPoints(points), points.size());
    std::size_t found = 0;
    for (const auto& id : positions->getFragmentIDCollection()->ids()) {
        const auto cell = id->findInterface<BoundingBox>();
        const auto data = dynamicCast<MemArray<1, point>>(positions->getData(id));
        if (!cell) {
            EXPECT_EQ(positions->getData(id)->nElements(), 8u) << id->name();
            continue;
        }
        found += data->nElements();
        for (index_t n = 0; n < data->nElements(); ++n) {
            const point p = (*data)[n];
            EXPECT_TRUE(cell->inside(p)) << id->name();
            for (int d = 0; d < 2; ++d)
                EXPECT_TRUE(p[d] < cell->maxCoord()[d] || cell->maxCoord()[d] == high[d]) << id->name();
        }
    }
    EXPECT_EQ(found, points.size());
}

// What is promised to be safe at once; for the thread sanitizer, and for crashes.
TEST(GridTest, LookUpsAttachmentsAndCreationMeetInManyThreads) {
    const StrongPtr<Grid> grid(new Grid);
    const auto source = grid->makeCartesianRepresentation(3);
    const StrongPtr<Field> field(new Field);
    const auto id = field->makeFragmentID("block");
    std::atomic<int> runs{0};
    (void)field->createCreator(
        [&](const auto&) -> StrongPtr<MemBase> {
            ++runs;
            return MemArray<1, double>::create({2});
        },
        VantleTypeIndex(typeid(double)), {}, id);
    source->setField("density", field);
    const StrongPtr<Field> other(new Field(WeakPtr<Field>(*field)));
    support::inThreads(4, [&](unsigned t) {
        const StrongPtr<Grid> own(new Grid);
        const auto destination = own->makeCartesianRepresentation(3);
        for (int n = 0; n < 200; ++n) {
            const std::string name = "gradient " + std::to_string(t) + " " + std::to_string(n);
            (void)destination->createSharedFieldID(*source, name);
            destination->setField(name, other);
            const auto found = (*grid)("density");
            if (!found || !found->getData(found->getFragmentID("block"))) std::abort();
            const auto creator = found->getCreator(id);
            creator->addInterface(makeRef<SizeInterface>(DynamicSize{2}));
            creator->setAttribute(name, makeRef<Hestra::Chunk<double>>(std::size_t{1}).strong());
            creator->touch();
            if (getSize(*creator).rank() != 1 || other->age() < 0) std::abort();
            if (source->findFieldID(name) != destination->findFieldID(name)) std::abort();
        }
    });
    EXPECT_EQ(runs, 1);
}

} // namespace
