#include <baseop/ExactCellLocator.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>

#include <support/CutBlocks.hpp>
#include <support/LocationGrids.hpp>
#include <support/Testing.hpp>

namespace {

using support::occurrences;
using support::Point;

LocatorOptions options(CellLocator kind) {
    LocatorOptions chosen;
    chosen.cellLocator = kind;
    return chosen;
}

struct Scene : support::Scene {
    using support::Scene::Scene;
    Scene(support::Scene scene) : support::Scene(std::move(scene)) {}
    [[nodiscard]] std::unique_ptr<LocalFromWorldPoint> locator(const LocatorOptions& chosen = {}) const {
        return std::make_unique<LocalFromWorldPoint>(slice, grid, "Positions", chosen);
    }
};

class LocateInShapes : public testing::TestWithParam<support::Shape> {};
INSTANTIATE_TEST_SUITE_P(All, LocateInShapes, testing::ValuesIn(support::shapes()),
                         [](const auto& instance) { return instance.param.name; });

// A point made in a cell comes back to the same place. Exactly by the exact locator, and by all in affine cells; else
// the linear step finds what it finds in the right block, close to where it was.
TEST_P(LocateInShapes, PointsComeBackToTheirPlaces) {
    const Scene scene(GetParam(), 3, {7, 9, 8});
    const auto newton = scene.locator(), projective = scene.locator(options(CellLocator::Projective)),
               exact = scene.locator(options(CellLocator::Exact));
    int byNewton = 0, byTree = 0, total = 0;
    for (unsigned int n = 0; n < exact->nFragments(); ++n) {
        const auto block = support::blockOf(scene.blocks, exact->fragmentID(n));
        for (const Point& index : support::randomIndices(*block, 200, 7 + n, 0.01)) {
            const Point p = support::positionIn(*block, index);
            LocalPoint found;
            ASSERT_TRUE(exact->get(p, found));
            EXPECT_EQ(found.fragment, exact->fragmentID(n));
            EXPECT_LE(support::distance(found.localCoordinates, index), 1e-7);

            ++total;
            const auto located = newton->locate(p);
            if (located && located.fragment == n && support::distance(located.localCoordinates, index) < 0.2)
                ++byNewton;
            LocalPoint viaTree{p, {}};
            if (newton->getViaTree(viaTree) && viaTree.fragment == exact->fragmentID(n) &&
                support::distance(viaTree.localCoordinates, index) < 0.2)
                ++byTree;
            if (GetParam().isAffine) {
                EXPECT_LE(support::distance(located.localCoordinates, index), 1e-6);
                EXPECT_LE(support::distance(projective->locate(p).localCoordinates, index), 1e-6);
                EXPECT_LE(support::distance(viaTree.localCoordinates, index), 1e-6);
            }
        }
    }
    const int least = GetParam().isAffine ? total : total * 9 / 10;
    EXPECT_GE(byNewton, least);
    // The projective map of a twisted cell fits five of its corners only.
    EXPECT_GE(byTree, GetParam().isAffine ? total : total * 2 / 3);
}

// On the faces of cut, turned and flipped blocks. The exact locator finds every position, in the lowest block that has
// it. In affine cells the projective one and the tree lose none either; the linear step may, by rounding, since near
// misses count at upper faces only. Whoever answers, the value is that of the other side.
TEST_P(LocateInShapes, PositionsOnJoinedFacesBelongToTheLowestFragment) {
    const Hestra::ScopedListener nobody({});
    std::mt19937_64 random(31);
    const auto uncut = support::makeBlock(GetParam(), {9, 8, 10});
    const auto wave = support::fieldOn(*uncut, support::wave);
    int answers = 0, byStep = 0;
    for (const std::size_t count : {2U, 5U, 12U}) {
        support::CutGrid cut(*uncut, support::turned(support::bisect(uncut->Size(), count, random), random));
        cut.setField("wave", *wave);
        std::vector<std::unique_ptr<LocalFromWorldPoint>> locators;
        for (const CellLocator kind : {CellLocator::Exact, CellLocator::Projective, CellLocator::Newton}) {
            LocatorOptions chosen = options(kind);
            chosen.gridEpsilon = 1e-9; // a rim for rounding alone
            locators.push_back(std::make_unique<LocalFromWorldPoint>(cut.slice, cut.grid, "Positions", chosen));
        }
        const auto joins = BlockJoins::of(*cut.grid);
        const auto valueIn = [&](const StrongPtr<FragmentID>& id, const Point& index) {
            return interpolateAt<3, double>(*dynamicCast<MemArray<3, double>>((*cut.grid)("wave")->getData(id)), index);
        };
        for (const BlockJoin& join : joins->joins())
            for (int n = 0; n < 40; ++n) {
                Point index; // in cells, and on their edges
                for (int d = 0; d < 3; ++d) {
                    const auto low = double(join.low[d]), high = double(join.high[d]);
                    index[d] = std::uniform_real_distribution<double>(low, high)(random);
                    if (d == join.first.axis || n % 4 == 0) index[d] = std::floor(index[d]);
                }
                const Point p = support::positionIn(*cut.block(std::to_string(join.first.block)), index);
                const double value = valueIn(cut.ids[join.first.block], index);
                const auto exact = locators[0]->locate(p);
                ASSERT_TRUE(exact) << p;
                EXPECT_LE(exact.fragment, join.first.block) << p;
                EXPECT_NEAR(valueIn(cut.ids[exact.fragment], exact.localCoordinates), value, 1e-9);
                if (!GetParam().isAffine) continue;
                const auto projective = locators[1]->locate(p), step = locators[2]->locate(p);
                LocalPoint viaTree{p, {}};
                ASSERT_TRUE(projective && locators[2]->getViaTree(viaTree)) << p;
                EXPECT_NEAR(valueIn(viaTree.fragment, viaTree.localCoordinates), value,
                            0.01); // it has a rim of its own
                for (const auto& found : {projective, step})
                    if (found) {
                        EXPECT_NEAR(valueIn(cut.ids[found.fragment], found.localCoordinates), value, 1e-8);
                    }
                ++answers;
                byStep += bool(step);
            }
    }
    EXPECT_GE(byStep, answers * 9 / 10);
}

TEST(LocalFromWorldPointTest, UniformAndRectilinearBlocksAreComputed) {
    const Scene scene;
    RegularGrid3D blocks(scene.grid);
    const auto uniform = blocks.addBlock(
        "uniform", makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 2, 0}), MultiIndex<3>(3, 50, 1)));
    using Axis = ExplicitCoordinateAxisArray<double>;
    const auto rectilinear =
        blocks.addBlock("rectilinear", makeRef<RectilinearInterpolation::Coordinates>(
                                           std::array{Axis({1, 1.5, 4}), Axis({2, 0, -1}), Axis({0.0, 1.0})}));
    const auto curvilinear = blocks.addBlock("curvilinear", support::makeBlock({"",
                                                                                [](double u, double v, double w) {
                                                                                    return Point{4 + u, v, w};
                                                                                },
                                                                                true},
                                                                               {3, 3, 3}));
    const auto locator = scene.locator();
    LocalPoint found;
    const auto at = [&](const Point& p, const StrongPtr<FragmentID>& in, const Point& index) {
        EXPECT_TRUE(locator->get(p, found)) << p;
        EXPECT_EQ(found.fragment, in) << p;
        EXPECT_LE(support::distance(found.localCoordinates, index), 1e-12) << p << found.localCoordinates;
    };
    at({0.25, 1, 0}, uniform, {0.5, 24.5, 0});
    at({1, 2, 0}, uniform, {2, 49, 0}); // the first fragment that has it, and never beyond its last vertex
    EXPECT_EQ(found.localCoordinates[1], 49.0);
    at({4, -1, 1}, rectilinear, {2, 2, 1});
    at({1.25, 1, 0.5}, rectilinear, {0.5, 0.5, 0.5});
    at({4.25, 0.5, 0.5}, curvilinear, {0.5, 1, 1});
    EXPECT_FALSE(locator->get({0.5, 0.5, 1e-9}, found)) << "the uniform block is flat";
    EXPECT_FALSE(found.fragment);
}

// Many at once, one by one, heard and unheard: the same fragments, coordinates and codes, from fresh structures each
// time; and a word is said of exactly those positions that have one.
TEST(LocalFromWorldPointTest, NeitherListenersNorNeighboursChangeAnAnswer) {
    std::vector<Point> positions = support::mixedPositions(60, 12);
    std::shuffle(positions.begin(), positions.end(), std::mt19937_64(5)); // so many that they are put in order
    ASSERT_GT(positions.size(), 1024U);
    for (const CellLocator kind : {CellLocator::Newton, CellLocator::Exact, CellLocator::Projective}) {
        const Scene one(support::mixedScene()), many(support::mixedScene()), aloud(support::mixedScene());
        std::unique_ptr<LocalFromWorldPoint> first, second, heard;
        std::vector<LocalFromWorldPoint::Location> found(positions.size());
        {
            const Hestra::ScopedListener nobody({});
            first = one.locator(options(kind));
            second = many.locator(options(kind));
            heard = aloud.locator(options(kind));
        }
        EXPECT_EQ(outputOf([&] { second->locate(positions, found); }), "");
        int codes[3] = {}, said = 0;
        for (std::size_t k = 0; k < positions.size() && !testing::Test::HasFailure(); ++k) {
            SCOPED_TRACE(testing::Message() << positions[k]);
            const LocalFromWorldPoint::Location each = first->locate(positions[k]);
            ++codes[static_cast<int>(each.code)];
            EXPECT_EQ(found[k].code, each.code);
            EXPECT_EQ(found[k].isSilent, each.isSilent);
            LocalPoint point;
            std::string text;
            {
                const Hestra::ScopedListener listener([&](std::string_view piece) { text += piece; });
                EXPECT_EQ(heard->get(positions[k], point), bool(each));
            }
            // What was made for the first position that needed it is no affair of the others.
            if (occurrences(text, "Create") == occurrences(text, "CANNOT")) {
                EXPECT_EQ(text.empty(), each.isSilent) << text;
            }
            said += !text.empty();
            if (!each) continue;
            EXPECT_EQ(found[k].fragment, each.fragment);
            EXPECT_EQ(found[k].localCoordinates, each.localCoordinates);
            EXPECT_EQ(point.fragment, heard->fragmentID(each.fragment));
            EXPECT_EQ(point.localCoordinates, each.localCoordinates);
        }
        EXPECT_GT(codes[1], 800);
        EXPECT_GT(codes[0], 800);
        EXPECT_GT(said, kind == CellLocator::Exact ? 0 : 20);
    }
}

// Paths of all paces, out of blocks and back, in blocks that are coarse, fine, folded, overlapping or with holes; one
// hint for several locators in turn.
TEST(LocalFromWorldPointTest, HintsChangeNoAnswer) {
    const Hestra::ScopedListener nobody({});
    std::mt19937_64 random(17);
    std::normal_distribution<double> normal;
    std::vector<Scene> scenes{support::mixedScene(), support::mixedScene()};
    scenes.back().block("D")->element(0)[0] = kInfinity;
    std::vector<support::Shape> shapes = support::shapes();
    const auto crumple = [](double u, double v, double w) { // so much that cells lie on one another in part
        const double x = 97 * u + 31 * v + 57 * w;
        return Point(u + 0.1 * std::sin(x), v + 0.15 * std::sin(2 * x), w + 0.12 * std::sin(3 * x));
    };
    shapes.push_back({"Crumpled", crumple, false});
    for (const support::Shape& shape : shapes) {
        scenes.emplace_back(shape, 2, MultiIndex<3>(6, 5, 7));
        scenes.emplace_back(shape, 2, MultiIndex<3>(33, 29, 31));
        const auto mask = filled<unsigned char>({33, 29, 31}, [&](index_t) { return random() % 40 != 0; });
        scenes.back().blocks.setField(VertexMaskName, mask, scenes.back().blocks.positions()->getFragmentID("B"));
        for (std::size_t s = scenes.size() - 2; s < scenes.size(); ++s)
            scenes[s].blocks.addBlock("C", support::makeBlock(shape, {31, 33, 29}, {0.23, 0.0, 0.0}, {0.77, 1.0, 1.0}));
    }
    LocationHint hint;
    int codes[3] = {};
    for (const Scene& scene : scenes) {
        LocatorOptions tolerant;
        tolerant.gridEpsilon = 0.2;
        const auto newton = scene.locator(), exact = scene.locator(options(CellLocator::Exact)),
                   near = scene.locator(tolerant);
        for (int walk = 0; walk < 60; ++walk) {
            const support::BlockPtr block = scene.block(std::string(1, "ABC"[walk % 3]));
            Point p =
                support::positionIn(*block, support::randomIndices(*block, 1, static_cast<unsigned>(random()))[0]);
            const Point next = support::positionIn(*block, Point(1, 1, 1)), first = block->element(0);
            const double step = std::pow(10.0, -1.5 * double(random() % 3)) * support::distance(first, next);
            PhysicalSpace::vector direction;
            for (int k = 0; k < 120; ++k) {
                const auto& locator = k < 40 ? newton : k < 80 ? exact : near;
                const auto each = locator->locate(p), found = locator->locate(p, hint);
                ++codes[static_cast<int>(each.code)];
                ASSERT_EQ(found.code, each.code) << p;
                ASSERT_EQ(found.isSilent, each.isSilent) << p;
                if (each) {
                    ASSERT_EQ(found.fragment, each.fragment) << p;
                    ASSERT_EQ(found.localCoordinates, each.localCoordinates) << p;
                }
                for (int d = 0; d < 3; ++d) {
                    direction[d] = 0.9 * direction[d] + 0.4 * normal(random);
                    p[d] += step * direction[d];
                }
            }
            EXPECT_FALSE(newton->locate(Point(0, kNaN, 0), hint));
        }
    }
    EXPECT_GT(codes[0], 5000);
    EXPECT_GT(codes[1], 20000);
    EXPECT_GT(codes[2], 300);
}

TEST(LocalFromWorldPointTest, TellsWhatItMakesOnce) {
    const Scene scene(support::shapes()[0], 2, {4, 4, 4});
    const std::string head = "LocalFromWorldPoint::LocalFromWorldPoint() ";
    std::unique_ptr<LocalFromWorldPoint> first, second;
    EXPECT_EQ(outputOf([&] { first = scene.locator(); }),
              head + "No tree found, in coord-Fields Intercube, creating one.\n"
                     "FragmentProperties.buildFragmentCoordinates();  WAS HARD WORK\n");
    EXPECT_EQ(outputOf([&] { second = scene.locator(); }),
              head + "Tree found, in Coord-Fields Intercube, using it\n"
                     "FragmentProperties.buildFragmentCoordinates();  Could benefit from savings\n");
    const auto tree = scene.blocks.positions()->findInterface<Orvix::KDInterface<3, int>>();
    ASSERT_TRUE(tree);
    EXPECT_EQ(tree->tree()->size(), 2u) << "filled once";

    const auto block = support::blockOf(scene.blocks, first->fragmentID(1));
    const Point p = support::positionIn(*block, {1.5, 1.5, 1.5});
    LocalPoint found;
    // Nothing is built for what is in no box.
    for (const Point& outside :
         {Point(kNaN, 0, 0), Point(kInfinity, 0.5, 0.5), Point(0, -kInfinity, 0), Point(1e300, 1, 1)})
        EXPECT_EQ(outputOf([&] {
                      EXPECT_FALSE(first->get(outside, found));
                      EXPECT_FALSE(first->getViaTree(outside, found));
                  }),
                  "");
    EXPECT_FALSE(PointSearch::hasLookupFragment(first->pointSearch().helperField(), first->fragmentID(1)));

    const std::string text = outputOf([&] { EXPECT_TRUE(first->get(p, found)); });
    EXPECT_EQ(text.find("baseop/LocalFromWorldPoint Create unimapper for 1, res=1, prec=0.01\n"), 0u) << text;
    EXPECT_EQ(occurrences(text, "Create unimapper"), 1);
    const std::string treeText = outputOf([&] { EXPECT_TRUE(first->getViaTree(p, found)); });
    EXPECT_EQ(treeText, "baseop/LocalFromWorldPoint Create treemapper for 1, res=1, prec=0.01\n"
                        "and scale: 1.500000 1.500000 1.500000: \n"
                        "in thread: 0\n");
    EXPECT_EQ(outputOf([&] {
                  for (const auto* locator : {first.get(), second.get()}) {
                      EXPECT_TRUE(locator->get(p, found));
                      EXPECT_TRUE(locator->getViaTree(p, found));
                  }
              }),
              "")
        << "both locators share what there is";
    const auto exact = [&] { return scene.locator(options(CellLocator::Exact)); };
    EXPECT_EQ(occurrences(outputOf([&] { EXPECT_TRUE(exact()->get(p, found) && exact()->get(p, found)); }),
                          "baseop/LocalFromWorldPoint Create exact locator for 1\n"),
              1);

    // One array of one mapper under the fragment's id, and the fragments' names and boxes may be dropped.
    const auto entry =
        dynamicCast<StoredMapper<UniGridMapper>>(first->pointSearch().helperField()->getData(first->fragmentID(1)));
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->nElements(), 1u);
    EXPECT_EQ(entry->element(0)->coordinates(), block);
    CartesianFragments(scene.grid).makeFragmentCoordinatesMinMax().first->removeData();
    EXPECT_TRUE(first->get(p, found));
}

TEST(LocalFromWorldPointTest, MissingPiecesMakeEveryQueryFail) {
    const Scene scene(support::shapes()[0], 2, {4, 4, 4});
    const std::string head = " LocalFromWorldPoint::LocalFromWorldPoint() ERROR: ";
    const auto fails = [](const StrongPtr<Slice>& slice, const StrongPtr<Grid>& grid, const std::string& field) {
        return outputOf([&] {
            const LocalFromWorldPoint locator(slice, grid, field);
            LocalPoint found;
            EXPECT_FALSE(locator.get({0, 0, 0}, found));
            EXPECT_FALSE(locator.getViaTree(found));
            EXPECT_FALSE(locator.locate({0, 0, 0}));
        });
    };
    EXPECT_EQ(fails(scene.slice, nullptr, "Positions"), head + "invalid grid!\n");
    EXPECT_EQ(fails(nullptr, nullptr, "Positions"), head + "invalid grid!\n");
    EXPECT_EQ(fails(scene.slice, scene.grid, "Unknown"), head + "invalid coord field!\n");
    EXPECT_EQ(fails(scene.slice, scene.slice->newGrid("bare"), "Positions"), head + "invalid coord field!\n");
    // Without a slice there is no storage.
    const auto block = support::blockOf(scene.blocks, scene.blocks.positions()->getFragmentID("A"));
    const std::string text = outputOf([&] {
        LocalPoint found;
        EXPECT_FALSE(LocalFromWorldPoint(nullptr, scene.grid).get(support::positionIn(*block, {0.5, 0.5, 0.5}), found));
    });
    EXPECT_EQ(occurrences(text, "mapper"), 0);

    const auto points = scene.slice->newGrid("points");
    GridWithCartesianVertices(points, 3).positions()->setPersistentData(makeMemArray1D(std::vector<Point>(3)));
    EXPECT_EQ(occurrences(fails(scene.slice, points, "Positions"),
                          "LocalFromWorldPoint::LocalFromWorldPoint() ERROR: Unfragmented, but no proc, curvi or "
                          "rectilinear data could be accessed??\n"),
              1);
}

// The null fragment id stands for unfragmented data, in the result and in the storage.
TEST(LocalFromWorldPointTest, UnfragmentedGridsHaveTheNullFragment) {
    const Scene scene;
    const auto block = support::makeBlock(support::shapes()[1], {6, 6, 6});
    RegularGrid3D::create(*scene.grid, block);
    LocalPoint found;
    EXPECT_TRUE(scene.locator()->get(support::positionIn(*block, {2.5, 1.25, 3.75}), found));
    EXPECT_FALSE(found.fragment);
    EXPECT_TRUE(PointSearch::hasLookupFragment(PointSearch(scene.slice, scene.grid).helperField(), nullptr));
}

// A structure that cannot be built is reported at every query, and the other fragments answer all the same.
TEST(LocalFromWorldPointTest, ReportsWhatCannotBeBuiltAndGoesOn) {
    const Scene scene;
    RegularGrid3D blocks(scene.grid);
    // Two blocks over each other; the unigrid over the first has too many unicells: its last cells are tiny.
    blocks.addBlock("fine", support::makeBlock(support::spiky, {8, 8, 8}));
    const auto good = blocks.addBlock("good", support::makeBlock(support::cube, {5, 5, 5}));
    std::unique_ptr<LocalFromWorldPoint> locator;
    (void)outputOf([&] { locator = scene.locator(); });
    LocalPoint found;
    const std::string failure =
        "baseop/LocalFromWorldPoint Exception - CANNOT create unimapper for fragment 0 because ";
    const Point p(0.3, 0.4, 0.5);
    for (int query = 0; query < 3; ++query) {
        const std::string text = outputOf([&] { EXPECT_TRUE(locator->get(p, found)); });
        EXPECT_EQ(found.fragment, good);
        EXPECT_EQ(occurrences(text, "Create unimapper for 0,"), 1) << text;
        EXPECT_EQ(occurrences(text, failure), 1) << text;
        EXPECT_EQ(occurrences(text, "Create unimapper for 1,"), query == 0) << text;
    }
    EXPECT_TRUE(scene.locator(options(CellLocator::Exact))->get(p, found));
    EXPECT_EQ(found.fragment->name(), "fine") << "the exact locator has no such limit";
}

// Fragments that have nothing to search in are passed over, and asked again.
TEST(LocalFromWorldPointTest, OddFragmentsAreSkipped) {
    const Scene scene;
    RegularGrid3D blocks(scene.grid);
    const BoundingBox everywhere({-9, -9, -9}, {9, 9, 9});
    blocks.positions()->makeFragmentID("none");
    blocks.addBlock("points", makeMemArray1D(std::vector<Point>{{-9, -9, -9}, {9, 9, 9}}));
    blocks.addBlock("empty", support::makeBlock(support::shapes()[0], {0, 3, 3}));
    blocks.addBlock("layer", support::makeBlock(support::shapes()[0], {1, 3, 3}));
    bool isReady = false;
    blocks.positions()
        ->createCreator(
            [&](const WeakPtr<CreativeArrayBase>&) -> StrongPtr<MemBase> {
                if (!isReady) return nullptr;
                return support::makeBlock(support::shapes()[0], {3, 3, 3});
            },
            typeid(Point), {}, blocks.positions()->makeFragmentID("late"))
        ->addInterface(makeRef<BoundingBox>(everywhere));
    const auto locator = scene.locator();
    EXPECT_EQ(locator->nFragments(), 5u);
    const Point p = support::sheared(0.4, 0.3, 0.2);
    LocalPoint found;
    EXPECT_FALSE(locator->get(p, found));
    EXPECT_FALSE(locator->getViaTree(p, found));
    isReady = true;
    EXPECT_TRUE(locator->get(p, found));
    EXPECT_EQ(found.fragment->name(), "late");
    EXPECT_TRUE(locator->getViaTree(p, found));
}

// Many threads, several locators: each structure is built once, and every query has its answer.
TEST(LocalFromWorldPointTest, ThreadsBuildEachStructureOnce) {
    const Scene scene(support::shapes()[2], 4, {6, 6, 6});
    CaptureStdout();
    const auto first = scene.locator(), second = scene.locator(), exact = scene.locator(options(CellLocator::Exact)),
               exactToo = scene.locator(options(CellLocator::Exact));
    // Clang's runtime, when a tool watches it, wants the first thread of a process among its own.
    (void)omp_get_max_threads();
    std::atomic<int> misses{0};
    support::inThreads(4, [&](unsigned t) {
        for (unsigned n = 0; n < 4; ++n) {
            const auto block = support::blockOf(scene.blocks, first->fragmentID(n));
            for (const Point& index : support::randomIndices(*block, 20, 3, 0.3)) {
                const Point p = support::positionIn(*block, index);
                LocalPoint found;
                misses += !(t % 2 ? first : second)->get(p, found);
                misses += !(t % 2 ? first : second)->getViaTree(p, found);
                misses += !(t % 2 ? exact : exactToo)->get(p, found);
            }
        }
    });
    const std::string text = GetCapturedStdout();
    EXPECT_EQ(misses, 0);
    for (const char* made : {"Create unimapper for ", "Create treemapper for ", "Create exact locator for "})
        EXPECT_EQ(occurrences(text, made), 4) << made;
}

TEST(BBSelectorMemoryTreeTest, FindsTheBoxesThatContainAPoint) {
    std::mt19937_64 random(11);
    std::uniform_int_distribution<int> corner(0, 8);
    for (const int count : {1, 16, 17, 300}) {
        Orvix::KDTree<3, int> tree;
        Orvix::FixedArray<double, 3> halfWidths;
        std::vector<BBSelectorMemoryTree::Box> boxes;
        for (int n = 0; n < count; ++n) {
            Point low, high, centre;
            for (int d = 0; d < 3; ++d) {
                const double a = corner(random), b = corner(random);
                low[d] = std::min(a, b);
                high[d] = std::max(a, b);
                centre[d] = 0.5 * (low[d] + high[d]);
                halfWidths[d] = std::max(halfWidths[d], 0.5 * (high[d] - low[d]));
            }
            boxes.push_back({low, high});
            tree.insert(centre, n);
        }
        tree.pack();
        for (int query = 0; query < 200; ++query) {
            const Point p(corner(random), corner(random), 0.5 * corner(random));
            // Also the boxes that meet another one, of which a point is the smallest.
            BBSelectorMemoryTree::Box region{p, p};
            for (int d = 0; d < 3; ++d) region.max[d] += query % 2 ? 0.5 * corner(random) : 0.0;
            std::vector<unsigned int> expected, found;
            for (unsigned int n = 0; n < boxes.size(); ++n) {
                bool isMet = true;
                for (int d = 0; d < 3; ++d)
                    isMet = isMet && region.max[d] >= boxes[n].min[d] && region.min[d] <= boxes[n].max[d];
                if (isMet) expected.push_back(n);
            }
            BBSelectorMemoryTree selector(tree, halfWidths, boxes, region);
            for (unsigned int n; (n = selector.getNext()) != BBSelectorMemoryTree::End;) found.push_back(n);
            EXPECT_EQ(found, expected);
        }
    }
}

// A box whose centre is rounded still gives the points on its faces, and one that has no ends its points.
TEST(LocalFromWorldPointTest, CornersOfBoxesAreFound) {
    const Scene scene;
    const auto far = makeRef<UniformCartesianArray>(BoundingBox({1e7 + 0.1, 1.0 / 3.0, -0.7}, {1e7 + 0.3, 0.9, 1e-3}),
                                                    MultiIndex<3>(4, 4, 4));
    RegularGrid3D(scene.grid).addBlock("far", far);
    const auto locator = scene.locator();
    for (index_t corner = 0; corner < 8; ++corner)
        EXPECT_TRUE(locator->locate((*far)(3 * (corner & 1), 3 * (corner >> 1 & 1), 3 * (corner >> 2))));

    const Scene many = support::mixedScene();
    const support::BlockPtr endless = many.block("B");
    endless->element(0)[0] = -kInfinity;
    endless->element(1)[0] = kInfinity;
    const auto found =
        many.locator(options(CellLocator::Exact))->locate(support::positionIn(*endless, {2.5, 4.5, 3.5}));
    EXPECT_TRUE(found && found.fragment == 1);
}

TEST(LocalFromWorldPointTest, BordersOfABlock) {
    const Scene scene;
    const support::Shape box{"", [](double u, double v, double w) { return Point{3 * u, 3 * v, w}; }, true};
    const auto id = RegularGrid3D(scene.grid).addBlock("box", support::makeBlock(box, {4, 4, 2}));
    const auto uniform = RegularGrid3D(scene.grid)
                             .addBlock("uniform", makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}),
                                                                                 MultiIndex<3>(3, 3, 3)));
    const auto locator = scene.locator();
    const auto borders = [&](const MultiIndex<3>& cell) { return locator->numberOfBordersOfCell(id, cell); };
    EXPECT_EQ(borders({1, 1, 0}), 2) << "one layer is the first and the last";
    EXPECT_EQ(borders({0, 2, 0}), 4);
    const std::string missing =
        "LocalFromWorldPoint::numberOfBordersOfCell() ERROR: curvilienar multiblock not found?\n";
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(borders({3, 0, 0}), 0); }), missing);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(locator->numberOfBordersOfCell(uniform, {0, 0, 0}), 0); }), missing);

    vector normal;
    EXPECT_TRUE(locator->getNormal(id, {1, 1, 0}, normal));
    EXPECT_EQ(normal, vector(0, 0, -1));
    EXPECT_TRUE(locator->getNormal(id, {2, 1, 0}, normal));
    EXPECT_EQ(normal, vector(0, 0, -1)) << "lower faces before upper ones";
    EXPECT_EQ(outputOf([&] {
                  EXPECT_FALSE(locator->getNormal(uniform, {1, 1, 1}, normal));
              }),
              "LocalFromWorldPoint::getNormal() WARNING: Computing normal from a non border cell?\n");
    EXPECT_EQ(normal, vector());

    const std::string hit = "LocalFromWorldPoint::getBorderIntersectionNormal() INFO: Yep! Got intersection!\n";
    const auto meets = [&](const MultiIndex<3>& cell, const Point& from, const vector& along) {
        const std::string text =
            outputOf([&] { return (void)locator->getBorderIntersectionNormal(id, cell, from, along, normal); });
        EXPECT_TRUE(text.empty() || text == hit) << text;
        return !text.empty();
    };
    EXPECT_TRUE(meets({2, 1, 0}, {2.5, 1.5, 0.5}, {1, 0, 0}));
    EXPECT_EQ(normal, vector(1, 0, 0));
    EXPECT_TRUE(meets({2, 1, 0}, {2.5, 1.5, 0.5}, {0.1, 0, 5}));
    EXPECT_EQ(normal, vector(0, 0, 1)) << "the first on the way";
    EXPECT_FALSE(meets({2, 1, 0}, {2.5, 1.5, 0.5}, {-1, 0, 0})) << "leaves through an inner face";
    EXPECT_FALSE(meets({2, 1, 0}, {2.5, 1.5, 0.5}, {0, 0, 0}));
    EXPECT_EQ(normal, vector());
}

} // namespace
