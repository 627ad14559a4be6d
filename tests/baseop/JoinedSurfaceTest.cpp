// Surfaces of grids whose blocks are joined: what cutting, turning and mirroring must not change.

#include <baseop/DataRange.hpp>
#include <baseop/Isosurface.hpp>

#include <support/CutBlocks.hpp>
#include <support/RoughBlocks.hpp>
#include <support/Surfaces.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

/// A surface of a grid, and what is asked of every one.
struct Found {
    std::vector<Point> points;
    std::vector<TriangleCell> triangles;
    StrongPtr<Grid> grid;

    explicit Found(const StrongPtr<Grid>& surface) : grid(surface) {
        const TriangularSurfaceWithEdges shape(surface);
        points.assign(shape.points()->data(), shape.points()->data() + shape.points()->nElements());
        triangles.assign(shape.triangles()->data(), shape.triangles()->data() + shape.triangles()->nElements());
    }
    /// Edges with one triangle; none when one has more than two, or two in the same direction.
    [[nodiscard]] std::optional<std::size_t> border() const {
        std::size_t single = 0;
        for (const auto& [edge, uses] : edgeUses(triangles)) {
            if (uses.first > 1 || uses.second > 1) return {};
            single += uses.first + uses.second == 1;
        }
        return single;
    }
    /// Vertices - edges + triangles: 2 for each closed surface like a sphere.
    [[nodiscard]] long euler() const {
        return static_cast<long>(points.size()) - static_cast<long>(edgeUses(triangles).size()) +
               static_cast<long>(triangles.size());
    }
    template<class T>
    [[nodiscard]] std::vector<T> values(const Field& field) const {
        const auto array = dynamicCast<MemArray<1, T>>(EvalFieldOnIsosurface(*grid, field));
        return array ? std::vector<T>(array->data(), array->data() + array->nElements()) : std::vector<T>();
    }
};

/// As a height: a tube around the axis rather than a ball.
constexpr double kTube = 1e9;

SurfaceOptions joined(const JoinOptions& joins = {}) {
    SurfaceOptions options;
    options.joinBlocks = true;
    options.joins = joins;
    options.keepEdges = true;
    return options;
}

Found surfaceOf(const Scene& scene, double level, const SurfaceOptions& options = joined()) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    return Found(ComputeIsosurface(level, Hestra::Ageable(), *scene.grid, "f", *scene.slice, std::to_string(level), 0.0,
                                   options));
}

/// One block with a field.
template<class T>
Scene sceneOf(const BlockPtr& block, const StrongPtr<MemArray<3, T>>& values) {
    Scene scene;
    scene.blocks.setField("f", values, scene.blocks.addBlock("0", block));
    return scene;
}

/// Bent coordinates: nothing about them is a product.
BlockPtr bentBlock(const Place& size) {
    return makeBlockOf(size, [](const Place& at) {
        const double x = double(at[0]), y = double(at[1]), z = double(at[2]);
        return Point(x + 0.1 * std::sin(y) - 4, y + 0.05 * z - 4, z - 0.1 * std::cos(x) - 3);
    });
}

template<class T>
StrongPtr<MemArray<3, T>> as(const MemArray<3, double>& values) {
    return filled<T>(values.Size(), [&](index_t n) {
        return std::is_integral_v<T> ? std::floor(100 + 50 * values.element(n)) : values.element(n);
    });
}

/// Whether each of one set lies within `tolerance` of one of the other.
bool areNear(std::vector<Point> some, std::vector<Point> others, double tolerance) {
    const auto less = [](const Point& a, const Point& b) { return a[0] < b[0]; };
    std::sort(others.begin(), others.end(), less);
    return std::all_of(some.begin(), some.end(), [&](const Point& p) {
        for (auto at = std::lower_bound(others.begin(), others.end(), p - Orvix::PhysicalSpace::vector(tolerance, 0, 0),
                                        less);
             at != others.end() && (*at)[0] <= p[0] + tolerance; ++at)
            if (length(*at - p) <= tolerance) return true;
        return false;
    });
}

/// The law: as many of everything, in the same places.
void expectLikeUncut(const Found& cut, const Found& uncut, double largestCoordinate) {
    EXPECT_EQ(cut.points.size(), uncut.points.size());
    EXPECT_EQ(cut.triangles.size(), uncut.triangles.size());
    ASSERT_TRUE(cut.border()) << "an edge is used otherwise than once or twice, in opposite directions";
    EXPECT_EQ(cut.border(), uncut.border());
    const double tolerance = 8 * std::numeric_limits<double>::epsilon() * largestCoordinate;
    EXPECT_TRUE(areNear(cut.points, uncut.points, tolerance));
    EXPECT_TRUE(areNear(uncut.points, cut.points, tolerance));
}

// ---- The law --------------------------------------------------------------------------------------------------------

template<class T>
class JoinedSurfaceTest : public testing::Test {};
using ValueTypes = testing::Types<double, float, unsigned char>;
TYPED_TEST_SUITE(JoinedSurfaceTest, ValueTypes);

TYPED_TEST(JoinedSurfaceTest, CutsTurnsAndMirrorsChangeNothing) {
    std::mt19937_64 random(5);
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        const Place size(5 + random() % 7, 4 + random() % 7, 4 + random() % 7);
        const BlockPtr block = bentBlock(size);
        const auto values = as<TypeParam>(*(round % 2 ? noiseOn(*block, unsigned(round)) : fieldOn(*block, wave)));
        CutGrid cut(*block, turned(bisect(size, 2 + random() % 20, random), random));
        cut.setField("f", *values);
        for (const auto& id : cut.ids) // as if each began where the whole does
            if (round % 3 == 0) id->addInterface(makeRef<FragmentLocation<3, IndexOffset>>(Place()));
        const Scene uncut = sceneOf(block, values);
        if (round % 4 > 1) { // a box of blanked vertices
            const Place low(random() % 3, random() % 3, random() % 3), box(1 + random() % 3, 1 + random() % 3, 2);
            const auto mask = filled<int>(size, [&](const Place& at) { return !(at - low).inside(box); });
            cut.setField(VertexMaskName, *mask);
            RegularGrid3D(uncut.blocks).setField(VertexMaskName, mask, uncut.blocks.positions()->getFragmentID("0"));
        }
        for (const double level : {0.1, 0.0, -0.3}) {
            const double at =
                std::is_integral_v<TypeParam> ? std::round(100.3 + 100 * level) + (level > 0 ? 0.5 : 0) : level;
            const Found whole = surfaceOf(uncut, at);
            ASSERT_GT(whole.points.size(), 10U);
            expectLikeUncut(surfaceOf(cut, at), whole, 12.0);
            // Where nothing is joined, nothing changes in any bit.
            const Found plain = surfaceOf(uncut, at, {});
            EXPECT_TRUE(sameBits(whole.points, plain.points) && whole.triangles == plain.triangles);
        }
    }
}

// Around a tube and in balls across whatever meets itself, in one piece or in many.
TEST(JoinedBlocksTest, BlocksThatMeetThemselvesHaveNoSeams) {
    struct Shaped {
        const char* name;
        BlockPtr block;
        Point centre;
        double radius;
        std::size_t border = 0;
    };
    // Elliptic coordinates: the halves of the first face of axis 0 lie on each other.
    const BlockPtr folded = makeBlockOf({8, 13, 9}, [](const Place& i) {
        const double u = double(i[0]) / 7, v = 2.5 * std::abs(double(i[1]) - 6) / 6;
        return Point(std::cosh(u) * std::cos(v), (i[1] < 6 ? -1 : 1) * std::sinh(u) * std::sin(v), double(i[2]) / 8);
    });
    const std::vector<Shaped> shaped = {{"a tube in an O", oGrid(), {0, 0, kTube}, 1.55, 2 * 24},
                                        {"an O", oGrid(), {1.5, 0, 0.75}, 0.45},
                                        {"a C", cGrid(), {1.5, 0, 0.5}, 0.45},
                                        {"a pole", sphere(), {0, 0, 0.75}, 0.2},
                                        {"two poles", sphere(), {0, 0, 0}, 0.77},
                                        {"a ball's centre", sphere(0.0, {9, 9, 17}), {0.05, 0.02, 0.03}, 0.4},
                                        {"a fold", folded, {0.36, 0, 0.5}, 0.3}};
    std::mt19937_64 random(6);
    for (const auto& [name, block, centre, radius, border] : shaped) {
        const auto values = fieldOn(
            *block, [&c = centre](const Point& p) { return c[2] == kTube ? std::hypot(p[0], p[1]) : length(p - c); });
        for (std::size_t round = 0; round < 6; ++round) {
            SCOPED_TRACE(std::string(name) + ", round " + std::to_string(round));
            const std::vector<Piece> whole{{{}, block->Size()}};
            CutGrid cut(*block, round == 0 ? whole : turned(bisect(block->Size(), 3 * round, random), random));
            cut.setField("f", *values);
            const Found found = surfaceOf(cut, radius);
            EXPECT_EQ(found.border(), border);
            EXPECT_EQ(found.euler(), border == 0 ? 2 : 0);
            EXPECT_GT(surfaceOf(cut, radius, {}).border(), found.border());
        }
    }
}

// A block of nothing but two equal faces: every triangle collapses, no vertex is left, and others know that they went.
TEST(JoinedBlocksTest, FlatCellsLeaveNothing) {
    const auto blockAt = [](double z, double step, index_t layers) {
        return makeBlockOf({5, 4, layers},
                           [=](const Place& i) { return Point(double(i[0]), double(i[1]), z + step * double(i[2])); });
    };
    const auto x = [](const Point& p) { return p[0]; };
    Scene scene = sceneOf(blockAt(0, 0, 2), fieldOn(*blockAt(0, 0, 2), x));
    EXPECT_TRUE(surfaceOf(scene, 1.5).points.empty());
    const BlockPtr above = blockAt(1, 1, 3);
    scene.blocks.setField("f", fieldOn(*above, x), scene.blocks.addBlock("1", above));
    const Found found = surfaceOf(scene, 1.25);
    EXPECT_EQ(found.points.size(), 12U);
    EXPECT_EQ(found.border(), 10U);
    EXPECT_EQ(found.values<Point>(*scene.blocks.positions()), found.points);
}

// ---- Copies that differ ---------------------------------------------------------------------------------------------

TEST(JoinedBlocksTest, CopiesThatDifferOpenNoCrack) {
    std::mt19937_64 random(8);
    std::uniform_real_distribution<double> off(-1, 1);
    const BlockPtr whole = bentBlock({9, 8, 7});
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        const std::vector<Piece> pieces = turned(bisect(whole->Size(), 9, random), random);
        CutGrid equal(*whole, pieces), different(*whole, pieces);
        const auto values = noiseOn(*whole, unsigned(round));
        equal.setField("f", *values);
        different.setField("f", *values);
        const auto exact = BlockJoins::of(*equal.grid);
        double largest = 0, farthest = 0;
        index_t changed = 0;
        for (unsigned int block = 0; block < exact->blocks(); ++block) {
            const auto copies = different.blocks.field("f")->getData(exact->fragment(block));
            const auto points = different.blocks.positions()->getData(exact->fragment(block));
            for (const auto& [index, owner] : exact->shared(block)) {
                double& value = dynamic_cast<MemArray<3, double>&>(*copies).element(index);
                double& x = dynamic_cast<Block&>(*points).element(index)[0];
                const double valueBefore = value, xBefore = x;
                value += 3 * off(random);
                x += 0.01 * off(random);
                largest = std::max(largest, std::abs(value - valueBefore));
                farthest = std::max(farthest, std::abs(x - xBefore));
                ++changed;
            }
        }
        ASSERT_GT(changed, 20U);
        different.blocks.field("f")->touch();
        different.blocks.positions()->touch();
        JoinOptions options;
        options.tolerance = 0.1;
        const auto joins = BlockJoins::of(*different.grid, options);
        EXPECT_EQ(joins->joins().size(), exact->joins().size());
        EXPECT_EQ(compareCopies(*joins, *different.blocks.field("f")).largest, largest);
        EXPECT_EQ(compareCopies(*joins, *different.blocks.positions()).largest, farthest);
        for (const double level : {0.0, 0.9, 3.5}) { // beyond all values of the owners, too
            const Found one = surfaceOf(equal, level), other = surfaceOf(different, level, joined(options));
            EXPECT_TRUE(sameBits(one.points, other.points));
            EXPECT_EQ(one.triangles, other.triangles);
        }
    }
}

// What is known of a block's own values says nothing of those that its neighbour owns.
TEST(JoinedBlocksTest, RangesSpareABlockOnlyWithThoseOfTheOwners) {
    const BlockPtr block = bentBlock({9, 4, 4});
    CutGrid cut(*block, cutAtPlanes(block->Size(), {{{4}, {}, {}}}));
    const auto setAll = [&](std::size_t n, double value) {
        cut.blocks.setField("f", filled<double>(cut.pieces[n].ownSize(), [=](index_t) { return value; }), cut.ids[n]);
    };
    const auto knowAll = [&] {
        for (const auto& id : cut.ids) DataRange<double>::compute(*cut.blocks.field("f")->getCreator(id), false, false);
    };
    setAll(0, 5);
    setAll(1, 1);
    EXPECT_EQ(surfaceOf(cut, 2).points.size(), 16U); // between the face of 5 and the next plane, of 1
    knowAll();
    EXPECT_EQ(surfaceOf(cut, 3).points.size(), 16U);
    setAll(0, 4);
    knowAll();
    std::string heard;
    const auto count = [&](double level) {
        const Hestra::ScopedListener listener([&](std::string_view text) { heard += text; });
        heard.clear();
        const auto found = ComputeIsosurface(level, Hestra::Ageable(), *cut.grid, "f", *cut.slice,
                                             "s" + std::to_string(level), 0.0, joined());
        heard.erase(0, heard.find('\n') + 1);
        return Found(found).points.size();
    };
    EXPECT_EQ(count(6), 0U);
    EXPECT_EQ(heard, "SKIP Iso\nSKIP Iso\n");
    EXPECT_EQ(count(2), 16U);
    EXPECT_EQ(heard, "SKIP Iso\n"); // the first block, which owns all of its vertices
}

// ---- Fields on surfaces, and reuse ----------------------------------------------------------------------------------

TEST(JoinedBlocksTest, FieldsOnASurfaceHaveTheOwnersValues) {
    std::mt19937_64 random(9);
    const BlockPtr block = bentBlock({11, 9, 8});
    for (const bool haveOffsets : {false, true}) {
        CutGrid cut(*block,
                    haveOffsets ? bisect(block->Size(), 8, random) : turned(bisect(block->Size(), 8, random), random));
        if (haveOffsets)
            for (std::size_t n = 0; n < cut.ids.size(); ++n)
                cut.ids[n]->addInterface(makeRef<FragmentLocation<3, IndexOffset>>(cut.pieces[n].low));
        cut.setField("f", *noiseOn(*block, 3));
        cut.setField("linear", *linearOn(*block));
        cut.setField("bytes", *as<unsigned char>(*noiseOn(*block, 4)));
        cut.setField("single", *fieldOn(*block, [](const Point& p) {
                         return FloatPoint(float(p[0]), float(p[1]), float(p[2]));
                     }));
        SurfaceOptions options = joined();
        options.joinBlocks = !haveOffsets;
        const Found found = surfaceOf(cut, 0.2, options);
        ASSERT_EQ(found.border(), surfaceOf(sceneOf(block, noiseOn(*block, 3)), 0.2).border());
        EXPECT_TRUE(sameBits(found.values<Point>(*cut.blocks.positions()), found.points));
        const auto linearly = found.values<double>(*cut.blocks.field("linear"));
        ASSERT_EQ(linearly.size(), found.points.size());
        for (std::size_t n = 0; n < linearly.size(); ++n) EXPECT_NEAR(linearly[n], linear(found.points[n]), 1e-13);
        EXPECT_EQ(found.values<double>(*cut.blocks.field("bytes")).size(), found.points.size());
        EXPECT_TRUE(areNear(found.values<Point>(*cut.blocks.field("single")), found.points, 1e-5));

        // Other fragments, extents and kinds of elements; a surface without edges.
        cut.blocks.setField("part", linearOn(*block), cut.ids[0]);
        EXPECT_THROW((void)EvalFieldOnIsosurface(*found.grid, *cut.blocks.field("part")), std::invalid_argument);
        cut.blocks.setField("part", takePiece(*linearOn(*block), cut.pieces[0]), cut.ids[0]);
        const auto known = found.values<double>(*cut.blocks.field("part"));
        const auto isUnknown = [](double value) { return std::isnan(value); };
        EXPECT_TRUE(std::any_of(known.begin(), known.end(), isUnknown));
        EXPECT_FALSE(std::all_of(known.begin(), known.end(), isUnknown));
        cut.blocks.setField("part", takePiece(*block, cut.pieces[1]), cut.ids[1]);
        EXPECT_THROW((void)EvalFieldOnIsosurface(*found.grid, *cut.blocks.field("part")), std::invalid_argument);
        options.keepEdges = false;
        EXPECT_FALSE(EvalFieldOnIsosurface(*surfaceOf(cut, 0.21, options).grid, *cut.blocks.field("f")));
    }
}

TEST(JoinedBlocksTest, ASurfaceIsUsedAgainForTheSameOptionsAndJoins) {
    std::mt19937_64 random(10);
    const BlockPtr block = bentBlock({7, 6, 5});
    CutGrid cut(*block, turned(bisect(block->Size(), 4, random), random));
    cut.setField("f", *fieldOn(*block, wave));
    const auto get = [&](const SurfaceOptions& options) { return surfaceOf(cut, 0.1, options).grid; };
    SurfaceOptions bare = joined(), tolerant = joined();
    bare.keepEdges = false;
    tolerant.joins.tolerance = 0.01;
    StrongPtr<Grid> last = get({});
    EXPECT_EQ(get({}), last);
    for (const SurfaceOptions& options : {bare, joined(), tolerant, joined(), SurfaceOptions()}) {
        const StrongPtr<Grid> made = get(options);
        EXPECT_NE(made, last);
        EXPECT_EQ(get(options), made);
        last = made;
    }
    last = get(joined());
    EXPECT_EQ(get(bare), last); // has more than is asked for
    cut.blocks.positions()->touch();
    EXPECT_NE(get(joined()), last);

    SurfaceOptions unusable = joined();
    unusable.joins.tolerance = -1;
    EXPECT_THROW(get(unusable), std::invalid_argument);
}

// ---- Real data ------------------------------------------------------------------------------------------------------

TEST(JoinedBlocksTest, TheBluntFinInTurnedBlocksIsTheBluntFin) {
    const std::string folder = VANTLE_TEST_DATA;
    if (folder.empty()) GTEST_SKIP() << "no real data";
    const BlockPtr block = bluntFin(folder);
    const auto density = bluntFinDensity(folder);
    const Found plain = surfaceOf(sceneOf(block, density), 2.0, {}), whole = surfaceOf(sceneOf(block, density), 2.0);
    EXPECT_EQ(plain.points.size(), 1783U);
    EXPECT_EQ(plain.border(), 214U);
    // Some of its cells have no thickness, which makes no pole.
    EXPECT_EQ(whole.points.size(), 1783U);
    EXPECT_EQ(whole.border(), 214U);
    std::mt19937_64 random(11);
    for (int round = 0; round < 4; ++round) {
        const Place half(block->Size()[0] / 2, block->Size()[1] / 2, block->Size()[2] / 2);
        CutGrid cut(*block, turned(round == 0 ? cutAtPlanes(block->Size(), {{{half[0]}, {half[1]}, {half[2]}}})
                                              : bisect(block->Size(), 8, random),
                                   random));
        cut.setField("f", *density);
        expectLikeUncut(surfaceOf(cut, 2.0), whole, 20.0);
    }
}

} // namespace
