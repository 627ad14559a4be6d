// Masks: everything is as on the same grid without the blanked cells.

#include <baseop/ExactCellLocator.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/ValidData.hpp>

#include <support/RoughBlocks.hpp>
#include <support/Surfaces.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;
using Mask = MemArray<3, unsigned char>;
using Values = MemArray<3, double>;

/// A mask with holes: some vertices at random, and a box of them.
StrongPtr<Mask> holes(const MultiIndex<3>& size, double part, unsigned seed) {
    std::mt19937_64 random(seed);
    const MultiIndex<3> low(random() % size[0], random() % size[1], random() % size[2]);
    return filled<unsigned char>(size, [&](const MultiIndex<3>& at) {
        const bool inBox = (at - low).inside({3, 3, 3});
        return !inBox && std::uniform_real_distribution<double>(0, 1)(random) >= part;
    });
}

StrongPtr<Values> noise(const MultiIndex<3>& size, unsigned seed) {
    std::mt19937_64 random(seed);
    return filled<double>(size, [&](index_t) { return std::uniform_real_distribution<double>(-1, 1)(random); });
}

/// A slice with one grid of one block that has a mask.
struct MaskedScene : Scene {
    StrongPtr<FragmentID> id;
    BlockPtr points;
    StrongPtr<const BlockMask> mask;

    MaskedScene(const BlockPtr& block, const StrongPtr<MemBase>& vertexMask,
                const StrongPtr<MemBase>& cellMask = nullptr)
        : id(blocks.addBlock("masked", block)), points(block),
          mask(new BlockMask(block->Size(), vertexMask.rawptr(), cellMask.rawptr())) {
        if (vertexMask) blocks.setField(VertexMaskName, vertexMask, id);
        if (cellMask) blocks.setField(CellMaskName, cellMask, id);
    }
};

GridEvaluator::Context contextOf(const Scene& scene, CellLocator kind = CellLocator::Newton) {
    GridEvaluator::Context context;
    context.slice = scene.slice;
    context.grid = scene.grid;
    context.cellLocator = kind;
    return context;
}

class MaskedTest : public testing::Test {
protected:
    void SetUp() override { Hestra::Console::setListener({}); }
    void TearDown() override { Hestra::Console::useStandardOutput(); }
};

// ------------------------------------------------------------------------------------------------------------ surfaces

struct Chunks {
    StrongPtr<Hestra::TypedChunk<index_t>> identifiers = makeRef<Hestra::TypedChunk<index_t>>();
    StrongPtr<Hestra::TypedChunk<double>> weights = makeRef<Hestra::TypedChunk<double>>();
    StrongPtr<Hestra::TypedChunk<Point>> points = makeRef<Hestra::TypedChunk<Point>>();
    StrongPtr<Hestra::TypedChunk<TriangleCell>> triangles = makeRef<Hestra::TypedChunk<TriangleCell>>();
};

template<class T>
void expectPlainSurface(const MultiIndex<3>& size, double part, unsigned seed, bool ofCells) {
    SCOPED_TRACE(testing::Message() << to_string(size) << " " << part << " " << seed);
    const BlockPtr block = makeBlock(shapes()[seed % shapes().size()], size);
    const auto vertexMask = ofCells ? nullptr : holes(size, part, seed);
    const auto cellMask = ofCells ? holes(size - 1, part, seed) : nullptr;
    MaskedScene scene(block, vertexMask, cellMask);
    const auto random = noise(size, seed + 1);
    // Smooth in places, so that there are words without surface, and in large blocks bricks.
    const index_t smooth = size.product() > 60000 ? 25 * size[0] * size[1] : 0;
    const auto data = filled<T>(
        size, [&](index_t n) { return n < smooth || n / 100 % 3 == 0 ? 50.0 : 50.0 + 40.0 * random->element(n); });
    const double level = 60.0;
    Surface plain;
    plain.addPlainly<T>(*data, level, *block, index_t{3} << 60, scene.mask.rawptr());
    for (const int threads : {1, 3}) {
        const ThreadCount count(threads);
        const Chunks made;
        FragmentIsoSurfacer surfacer(level, 0.0, scene.blocks.positions(), made.identifiers, made.weights, made.points,
                                     made.triangles);
        surfacer.setBlanking(Blanking(*scene.grid));
        surfacer.apply(scene.id, scene.blocks.setField("data", data, scene.id)->getCreator(scene.id));
        EXPECT_EQ(made.identifiers->base_vector(), plain.identifiers);
        EXPECT_EQ(made.weights->base_vector(), plain.weights);
        EXPECT_TRUE(sameBits(made.points->base_vector(), plain.points));
        ASSERT_EQ(made.triangles->base_vector(), plain.triangles);
    }
    EXPECT_EQ(plain.triangles.empty(), scene.mask->isNothingValid());
}

TEST_F(MaskedTest, SurfacesAreThoseOfTheValidCells) {
    unsigned seed = 0;
    for (const MultiIndex<3>& size :
         {MultiIndex<3>(5, 6, 7), MultiIndex<3>(65, 4, 5), MultiIndex<3>(131, 9, 6), MultiIndex<3>(66, 34, 30)})
        for (const double part : {0.02, 0.2, 0.6}) {
            expectPlainSurface<double>(size, part, ++seed, false);
            expectPlainSurface<float>(size, part, ++seed, true);
            expectPlainSurface<unsigned char>(size, part, ++seed, true);
        }
    expectPlainSurface<double>({6, 6, 6}, 2.0, 1, false);
}

std::size_t trianglesOf(const StrongPtr<Grid>& surface) {
    return TriangularSurfaceWithEdges(surface).triangles()->nElements();
}

// No valid value above the level: no surface, though cells reach the level from below.
TEST_F(MaskedTest, BlankedVerticesDoNotReachAboveALevel) {
    const BlockPtr block = makeBlock(shapes()[1], {20, 18, 16});
    const auto vertexMask = holes(block->Size(), 0.3, 5);
    MaskedScene scene(block, vertexMask);
    const auto flat = filled<double>(block->Size(), [&](const MultiIndex<3>& at) {
        return scene.mask->isVertexValid(at) ? double(at.linear(block->Size()) % 2) : 2.0;
    });
    scene.blocks.setField("flat", flat, scene.id);
    const auto surface = [&](double level) {
        return trianglesOf(
            ComputeIsosurface(level, Hestra::Ageable(), *scene.grid, "flat", *scene.slice, std::to_string(level), 0.0));
    };
    EXPECT_EQ(surface(1.0), 0u);
    EXPECT_GT(surface(0.5), 0u);
}

// Fragments that are left out by their range count as above the level only if something of them is valid.
TEST_F(MaskedTest, BlankedFragmentsDoNotReachAboveALevel) {
    for (const bool isBlanked : {false, true}) {
        Scene scene(cube, 2, {4, 4, 4});
        const auto values = [&](const char* name, double a, double b) {
            const auto array = filled<double>({4, 4, 4}, [=](index_t n) { return n % 2 ? a : b; });
            scene.blocks.setField("values", array, scene.blocks.positions()->getFragmentID(name));
        };
        values("A", 0.0, 1.0);
        values("B", 3.0, 4.0);
        if (isBlanked)
            scene.blocks.setField(CellMaskName, Mask::create({3, 3, 3}), scene.blocks.positions()->getFragmentID("B"));
        const auto surface =
            ComputeIsosurface(1.0, Hestra::Ageable(), *scene.grid, "values", *scene.slice, "surface", 0.0);
        EXPECT_EQ(trianglesOf(surface) == 0, isBlanked);
    }
}

// ------------------------------------------------------------------------------------------------------------ location

/// Whether a valid cell has a place, beyond the border that along it.
bool plainHas(const BlockMask& mask, const Point& place, double margin = 0.0) {
    MultiIndex<3> cell;
    do {
        bool has = mask.isCellValid(cell);
        for (int d = 0; d < 3; ++d) {
            const auto low = static_cast<double>(cell[d]);
            has = has && (place[d] >= low - margin || cell[d] == 0) &&
                  (place[d] <= low + 1 + margin || cell[d] + 1 == mask.cells()[d]);
        }
        if (has) return true;
    } while (cell.advance(mask.cells()));
    return false;
}

/// The walk through the list of a mapper, valid cells only.
unsigned int plainLinear(const UniGridMapper& mapper, const BlockMask& mask, const Point& P, Point& answer,
                         double epsilon) {
    UniGridMapper::IndexList_t list;
    if (!mapper.curviCells(P, list)) return 0;
    const MultiIndex<3> last = mapper.coordinates()->Size() - 1;
    unsigned int code = 0;
    bool isInBlanked = false;
    Point at(-1, -1, -1);
    for (const MultiIndex<3>& cell : list) {
        if (!mask.isCellValid(cell)) {
            Point in;
            bool has = UniGridMapper::localCellCoordinatesFromCell(in, P, cell, *mapper.coordinates(), last,
                                                                   mapper.precision());
            for (int d = 0; d < 3; ++d)
                has = has && in[d] > static_cast<double>(cell[d]) + epsilon &&
                      in[d] < static_cast<double>(cell[d]) + 1.0 - epsilon;
            isInBlanked = isInBlanked || has;
            continue;
        }
        if (UniGridMapper::localCellCoordinatesFromCell(at, P, cell, *mapper.coordinates(), last, mapper.precision())) {
            answer = at;
            return 1;
        }
        const bool isNegative = at[0] < 0 || at[1] < 0 || at[2] < 0;
        bool isNear = code == 0, isBeside = true;
        Point place;
        for (int d = 0; d < 3; ++d) {
            const double low = static_cast<double>(cell[d]), step = (isNegative ? 0.0 : std::floor(at[d])) - low;
            isNear = isNear && at[d] > -epsilon && at[d] < static_cast<double>(last[d]) + epsilon &&
                     (step == 0.0 || step == 1.0);
            isBeside = isBeside && at[d] >= low - epsilon && at[d] <= low + 1 + epsilon;
            place[d] = std::min(std::max(at[d], low), low + 1);
        }
        if (!isNear || !(plainHas(mask, at) || isBeside)) continue;
        answer = plainHas(mask, at) ? at : place;
        code = 2;
    }
    return isInBlanked ? 0 : code;
}

void expectPlainAnswers(const BlockPtr& block, const StrongPtr<Mask>& vertexMask, const std::vector<Point>& points,
                        double epsilon) {
    const BlockMask mask(block->Size(), vertexMask.rawptr(), nullptr);
    std::unique_ptr<UniGridMapper> mapper;
    try {
        mapper = std::make_unique<UniGridMapper>(block, 1.0, 0.01);
    } catch (const std::length_error&) { // boxes that are infinite, or nearly so
        return;
    }
    const ExactCellLocator exact(block);
    for (std::size_t k = 0; k < points.size() && !testing::Test::HasFailure(); ++k) {
        SCOPED_TRACE(testing::Message() << "at " << points[k]);
        Point plain, reported(-1, -1, -1);
        const unsigned int code = plainLinear(*mapper, mask, points[k], plain, epsilon);
        EXPECT_EQ(mapper->localCellCoordinatesFromCurviGrid(points[k], reported, epsilon, &mask), code);
        const Point together[2] = {points[k], points[k]};
        CellLocation linear[2], exactly[2];
        mapper->locate(together, linear, epsilon, &mask);
        exact.locate(together, exactly, &mask);
        const CellLocation alone = mapper->locate(points[k], epsilon, {-1, -1, -1}, &mask);
        for (const CellLocation& each : {alone, linear[1]}) {
            EXPECT_EQ(static_cast<unsigned int>(each.result), code);
            EXPECT_TRUE(code == 0 || same(each.local, plain)) << each.local << plain;
        }
        EXPECT_TRUE(code == 0 || same(reported, plain));

        bool isThere = false;
        MultiIndex<3> cell, found;
        do isThere = mask.isCellValid(cell) && exact.localInCell(points[k], cell, plain);
        while (!isThere && cell.advance(mask.cells()));
        const CellLocation one = exact.locate(points[k], &found, &mask);
        EXPECT_EQ(bool(one), isThere);
        EXPECT_EQ(bool(exactly[1]), isThere);
        if (isThere) {
            EXPECT_EQ(found, cell);
            EXPECT_TRUE(same(one.local, plain));
            EXPECT_TRUE(same(exactly[1].local, plain));
        }
    }
}

TEST_F(MaskedTest, SearchesInBlocksAreThoseInValidCells) {
    unsigned seed = 40;
    for (const auto& [name, block] : roughBlocks()) {
        SCOPED_TRACE(name);
        if (name == "no cells") continue;
        for (const double epsilon : {0.02, 0.3}) {
            expectPlainAnswers(block, holes(block->Size(), 0.05, seed), probes(*block, 50, seed), epsilon);
            ++seed;
        }
    }
    if (const BlockPtr fin = bluntFin(VANTLE_TEST_DATA)) {
        // What is near enough to the wall.
        const auto mask = filled<unsigned char>(fin->Size(), [&](index_t n) { return fin->element(n)[2] < 2.0; });
        expectPlainAnswers(fin, mask, probes(*fin, 30, 3), 0.02);
    }
}

/// Blocks of all kinds, one over the other, all with holes; the first whose valid cell has a position has it.
struct Stack : Scene {
    std::vector<StrongPtr<const BlockMask>> masks;
    std::vector<MultiIndex<3>> sizes{{7, 8, 6}, {6, 7, 9}, {5, 9, 7}};
    std::vector<StrongPtr<FragmentID>> ids;

    explicit Stack(unsigned seed) {
        const auto steps = [](index_t n) {
            std::vector<double> at;
            for (index_t i = 0; i < n; ++i) at.push_back(static_cast<double>(i) / static_cast<double>(n - 1));
            return ExplicitCoordinateAxisArray<double>(at);
        };
        ids = {
            blocks.addBlock("curvilinear", makeBlock(cube, sizes[0])),
            blocks.addBlock("rectilinear", makeRef<DirectProductMemArray<Point, ExplicitCoordinateAxisArray, 3>>(
                                               std::array{steps(sizes[1][0]), steps(sizes[1][1]), steps(sizes[1][2])})),
            blocks.addBlock("uniform", makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), sizes[2]))};
        for (std::size_t n = 0; n < 3; ++n) {
            const auto mask = holes(sizes[n], 0.15, seed + static_cast<unsigned>(n));
            blocks.setField(VertexMaskName, mask, ids[n]);
            masks.emplace_back(new BlockMask(sizes[n], mask.rawptr(), nullptr));
            const auto number = [&](index_t k) { return mask->element(k) ? 1.0 + static_cast<double>(n) : kNaN; };
            blocks.setField("number", filled<double>(sizes[n], number), ids[n]);
        }
    }
    [[nodiscard]] Point index(std::size_t n, const Point& p) const {
        Point at;
        for (int d = 0; d < 3; ++d) at[d] = p[d] * static_cast<double>(sizes[n][d] - 1);
        return at;
    }
    /// The first block that has a position, or 3; 4 within the rim of what the first one has, where ways differ.
    [[nodiscard]] std::size_t first(const Point& p) const {
        if (plainHas(*masks[0], index(0, p), 0.021) != plainHas(*masks[0], index(0, p), -0.021)) return 4;
        for (std::size_t n = 0; n < 3; ++n)
            if (plainHas(*masks[n], index(n, p))) return n;
        return 3;
    }
};

TEST_F(MaskedTest, PositionsGoOnToTheNextBlock) {
    std::size_t counts[5] = {};
    for (unsigned seed = 1; seed < 4; ++seed) {
        const Stack stack(10 * seed);
        std::mt19937_64 random(seed);
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        std::vector<Point> points;
        for (int k = 0; k < 600; ++k) points.push_back(Point{unit(random), unit(random), unit(random)});
        for (const bool isHeard : {false, true})
            for (const CellLocator kind : {CellLocator::Newton, CellLocator::Projective, CellLocator::Exact}) {
                std::string said;
                if (isHeard) Hestra::Console::setListener([&](std::string_view text) { said += text; });
                LocatorOptions options;
                options.cellLocator = kind;
                const LocalFromWorldPoint locator(stack.slice, stack.grid, PositionsName, options);
                std::vector<LocalFromWorldPoint::Location> together(points.size());
                locator.locate(points, together);
                GridEvaluator evaluator;
                const auto context = contextOf(stack, kind);
                const auto positions = makeMemArray1D(points);
                ASSERT_TRUE(evaluator.find(positions, *stack.blocks.positions(), context));
                std::vector<double> values(points.size());
                ASSERT_TRUE(evaluator.evalType(values, *stack.blocks.field("number")));
                FragmentSearch<Point> oneFragment(context);
                for (std::size_t k = 0; k < points.size(); ++k) {
                    const Point& p = points[k];
                    const std::size_t first = stack.first(p);
                    for (const std::size_t n : {1u, 2u}) {
                        GridEvaluator::FractionalIndex at;
                        const auto creator = stack.blocks.positions()->getCreator(stack.ids[n]);
                        EXPECT_EQ(oneFragment.Contains(p, creator, at) == GridEvaluator::Located,
                                  plainHas(*stack.masks[n], stack.index(n, p)));
                    }
                    ++counts[first];
                    if (first == 4) continue;
                    LocalPoint viaTree, got;
                    EXPECT_EQ(locator.getViaTree(p, viaTree), first < 3);
                    EXPECT_EQ(locator.get(p, got), first < 3);
                    EXPECT_EQ(bool(together[k]), first < 3);
                    EXPECT_EQ(evaluator.statuses()->element(k),
                              first < 3 ? GridEvaluator::Located : GridEvaluator::NotLocated);
                    EXPECT_NEAR(values[k], first < 3 ? 1.0 + static_cast<double>(first) : 0.0, 1e-12) << p;
                    if (first == 3) continue;
                    EXPECT_EQ(got.fragment, stack.ids[first]);
                    EXPECT_EQ(viaTree.fragment, stack.ids[first]);
                    EXPECT_EQ(together[k].fragment, first);
                    EXPECT_LT(support::distance(together[k].localCoordinates, stack.index(first, p)), 1e-9);
                    EXPECT_LT(support::distance(viaTree.localCoordinates, stack.index(first, p)), 1e-9);
                }
                Hestra::Console::setListener({});
            }
    }
    for (const std::size_t count : counts) EXPECT_GT(count, 100u);
}

// A valid cell has its faces, also those to blanked cells: without a value of these.
TEST_F(MaskedTest, FacesOfValidCellsAreFoundWithoutTheirNeighbours) {
    const auto isInside = [](const MultiIndex<3>& at) { return at[0] > 0 && at[0] < 3; };
    const auto mask = filled<unsigned char>({4, 4, 4}, isInside);
    for (const int kind : {0, 1, 2}) {
        BlockPtr block = makeBlock(shapes()[0], {4, 4, 4});
        Scene scene;
        StrongPtr<MemBase> positions = block;
        if (kind == 1) positions = makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {3, 3, 3}), block->Size());
        const auto id = scene.blocks.addBlock("block", positions);
        scene.blocks.setField(VertexMaskName, mask, id);
        const auto value = [&](const MultiIndex<3>& at) { return isInside(at) ? 7.0 : kNaN; };
        scene.blocks.setField("values", filled<double>({4, 4, 4}, value), id);
        for (const CellLocator way : {CellLocator::Newton, CellLocator::Projective, CellLocator::Exact}) {
            GridEvaluator evaluator;
            const auto context = contextOf(scene, way);
            std::vector<Point> points;
            for (int n = 0; n < 40; ++n) {
                const Point index(n % 2 ? 1.0 : 2.0, 0.07 * n + 0.01, 2.9 - 0.07 * n);
                points.push_back(kind == 1 ? index : positionIn(*block, index));
            }
            ASSERT_TRUE(evaluator.find(makeMemArray1D(points), *scene.blocks.positions(), context));
            std::vector<double> found(points.size());
            ASSERT_TRUE(evaluator.evalType(found, *scene.blocks.field("values")));
            for (std::size_t n = 0; n < points.size(); ++n)
                if (evaluator.statuses()->element(n) == GridEvaluator::Located)
                    EXPECT_NEAR(found[n], 7.0, 1e-12) << n;
                else // one step of a linear search may end below the lower face, where it takes no near misses
                    EXPECT_TRUE(way == CellLocator::Newton && n % 2 == 1 && kind != 1) << n;
        }
    }
}

// --------------------------------------------------------------------------------------------- derivatives, ranges

TEST_F(MaskedTest, DerivativesGoByTheEdgesThatAreLeft) {
    unsigned seed = 0;
    for (const MultiIndex<3>& size :
         {MultiIndex<3>(5, 6, 7), MultiIndex<3>(70, 5, 4), MultiIndex<3>(1, 6, 5), MultiIndex<3>(129, 30, 10)})
        for (const double part : {0.03, 0.4}) {
            const BlockPtr block = distortedBlock(size, 1.0, 0.3, ++seed);
            MaskedScene scene(block, holes(size, part, seed));
            const auto values = noise(size, seed);
            for (index_t n = 0; n < values->nElements(); ++n)
                if (!scene.mask->isVertexValid(MultiIndex<3>::fromLinear(n, size))) values->element(n) = std::nan("");
            scene.blocks.setField("values", values, scene.id);
            for (const int threads : {1, 3}) {
                const ThreadCount count(threads);
                std::string errors;
                Representation& at = *scene.blocks.representation();
                const auto scalar = PartialDerivative(*scene.blocks.field("values"), "dv", at, at, errors);
                const auto points = PartialDerivative(*scene.blocks.positions(), "dx", at, at, errors);
                ASSERT_TRUE(scalar && points) << errors;
                const auto gradient = dynamicCast<MemArray<3, vector>>(scalar->getData(scene.id));
                const auto tensor = dynamicCast<MemArray<3, Orvix::Quadratic<3, double>>>(points->getData(scene.id));
                MultiIndex<3> v;
                do
                    for (int axis = 0; axis < 3; ++axis) {
                        MultiIndex<3> low = v, high = v;
                        if (v[axis] > 0 && scene.mask->isEdgeValid((--low[axis], low), axis)) {
                        } else
                            low = v;
                        if (scene.mask->isEdgeValid(v, axis)) ++high[axis];
                        const double factor = high[axis] - low[axis] == 2 ? 0.5 : 1.0;
                        const bool none = high == low;
                        ASSERT_EQ((*gradient)[v][axis], none ? 0.0 : ((*values)[high] - (*values)[low]) * factor);
                        for (int c = 0; c < 3; ++c)
                            ASSERT_EQ((*tensor)[v](axis, c),
                                      none ? 0.0 : ((*block)[high][c] - (*block)[low][c]) * factor);
                    }
                while (v.advance(size));
                const auto age = scalar->age();
                scene.blocks.field(VertexMaskName)->touch();
                EXPECT_GT(scalar->age(), age);
            }
        }
}

TEST_F(MaskedTest, RangesAndBoxesAreThoseOfValidVertices) {
    const Stack stack(7);
    double least = HUGE_VAL, greatest = -HUGE_VAL;
    BoundingBox box;
    for (std::size_t b = 0; b < 3; ++b) {
        const auto random = noise(stack.sizes[b], static_cast<unsigned>(b));
        const auto values = MemArray<3, float>::create(stack.sizes[b]);
        for (index_t n = 0; n < values->nElements(); ++n) {
            const MultiIndex<3> at = MultiIndex<3>::fromLinear(n, stack.sizes[b]);
            values->element(n) = static_cast<float>(random->element(n));
            if (n % 13 == 0) values->element(n) = std::nanf("");
            if (!stack.masks[b]->isVertexValid(at)) values->element(n) = 100.0F;
            if (!stack.masks[b]->isVertexValid(at) || n % 13 == 0) continue;
            least = std::min(least, double{values->element(n)});
            greatest = std::max(greatest, double{values->element(n)});
        }
        RegularGrid3D(stack.grid).setField("values", values, stack.ids[b]);
        // Only the corners blanked: boxes get smaller on one side.
        const auto mask = filled<unsigned char>(stack.sizes[b], [=](const MultiIndex<3>& at) { return at[2] > 1 + b; });
        Scene one;
        const auto id = one.blocks.addBlock("one", stack.blocks.positions()->getData(stack.ids[b]));
        one.blocks.setField(VertexMaskName, mask, id);
        const auto valid = getValidBoundingBox(*one.grid);
        ASSERT_TRUE(valid);
        const Point low(0, 0, static_cast<double>(2 + b) / static_cast<double>(stack.sizes[b][2] - 1));
        EXPECT_LT(support::distance(valid->minCoord(), low), 1e-12);
        EXPECT_LT(support::distance(valid->maxCoord(), Point(1, 1, 1)), 1e-12);
        one.blocks.setField(CellMaskName, Mask::create(stack.sizes[b] - 1), id);
        EXPECT_FALSE(getValidBoundingBox(*one.grid)) << "nothing is valid";
        one.blocks.setField("values", values, id);
        EXPECT_FALSE(ComputeValidRange(*one.grid, "values"));
        (*one.blocks.representation())[CellMaskName] = nullptr;
        (*one.blocks.representation())[VertexMaskName] = nullptr;
        EXPECT_LT(
            support::distance(getValidBoundingBox(*one.grid, one.grid->findCartesianChart())->minCoord(), Point()),
            1e-12);
        EXPECT_EQ(ComputeValidRange(*one.grid, "values")->second, 100.0);
    }
    EXPECT_EQ(ComputeValidRange(*stack.grid, "values"), std::pair(least, greatest));
    EXPECT_FALSE(ComputeValidRange(*stack.grid, "nothing"));
    EXPECT_FALSE(getValidBoundingBox(*makeRef<Grid>()));
}

// --------------------------------------------------------------------------------------------------------- bad input

TEST_F(MaskedTest, MasksThatDoNotFitChangeNothing) {
    Scene scene(shapes()[1], 2, {4, 5, 6});
    const auto id = scene.blocks.positions()->getFragmentID("B");
    const auto surface = [&] {
        return ComputeIsosurface(1.0, Hestra::Ageable(), *scene.grid, "linear", *scene.slice, "surface", 0.0);
    };
    GridEvaluator evaluator;
    const auto context = contextOf(scene);
    const StrongPtr<MemBase> positions = makeMemArray1D(std::vector<Point>{{1.5, 0.4, 0.5}});
    const auto find = [&] { return evaluator.find(positions, *scene.blocks.positions(), context); };
    Representation& fields = *scene.blocks.representation();
    const auto derive = [&] {
        std::string errors;
        return PartialDerivative(*scene.blocks.field("linear"), "gradient", fields, fields, errors);
    };
    const auto before = surface();
    ASSERT_TRUE(find());
    const auto statuses = evaluator.statuses();
    const auto lazily = [&](const StrongPtr<MemBase>& mask, const DynamicSize& announced) {
        const auto field = makeRef<Field>(scene.blocks.positions()->getFragmentIDCollection());
        field->createCreator([mask](const WeakPtr<CreativeArrayBase>&) { return mask; }, mask->elementIndex(),
                             announced, id);
        return field.strong();
    };
    const StrongPtr<MemBase> wrongSize = Mask::create({4, 5, 5}), wrongType = Values::create({4, 5, 6}),
                             wrongRank = MemArray<2, int>::create(MultiIndex<2>(4, 5));
    for (const auto& mask : {lazily(wrongSize, wrongSize->getDynamicSize()), lazily(wrongSize, {}),
                             lazily(wrongType, wrongType->getDynamicSize()), lazily(wrongRank, {})}) {
        fields[VertexMaskName] = mask;
        EXPECT_THROW(surface(), std::invalid_argument);
        EXPECT_EQ((*scene.slice)("surface"), before);
        EXPECT_THROW(find(), std::invalid_argument);
        EXPECT_EQ(evaluator.statuses(), statuses);
        EXPECT_THROW(derive(), std::invalid_argument);
        EXPECT_FALSE(scene.blocks.field("gradient"));
        EXPECT_THROW(LocalFromWorldPoint(scene.slice, scene.grid), std::invalid_argument);
        EXPECT_THROW((void)ComputeValidRange(*scene.grid, "linear"), std::invalid_argument);
        EXPECT_THROW((void)getValidBoundingBox(*scene.grid), std::invalid_argument);
    }
    fields[VertexMaskName] = nullptr;
    EXPECT_EQ(surface(), before);
    // A mask that fits is seen by the evaluator that has searched without it.
    ASSERT_TRUE(find());
    EXPECT_EQ(evaluator.statuses()->element(0), GridEvaluator::Located);
    for (const char* const name : {"A", "B"})
        scene.blocks.setField(CellMaskName, Mask::create({3, 4, 5}), scene.blocks.positions()->getFragmentID(name));
    ASSERT_TRUE(find());
    EXPECT_EQ(evaluator.statuses()->element(0), GridEvaluator::NotLocated);
    fields[CellMaskName] = nullptr;
    // Derivators that know nothing of masks derive no masked data.
    struct OfFloats : PartialDerivatorBase {
        bool isPartialDerivable(const MemArrayProperties& properties) const override {
            return properties.elementType() == VantleTypeIndex(typeid(float));
        }
        StrongPtr<MemBase> doPartialDerivative(const StrongPtr<MemBase>& data) const override { return data; }
    } ofFloats;
    const auto floats = scene.blocks.setField("floats", MemArray<3, float>::create({4, 5, 6}), id);
    std::string errors;
    EXPECT_TRUE(PartialDerivative(*floats, "d", fields, fields, errors));
    fields[VertexMaskName] = lazily(holes({4, 5, 6}, 0.1, 3), {});
    EXPECT_FALSE(PartialDerivative(*floats, "e", fields, fields, errors));
}

} // namespace
