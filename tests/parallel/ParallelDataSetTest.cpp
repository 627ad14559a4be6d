#include "support/CutBlocks.hpp"
#include "support/RoughBlocks.hpp"

#include <parallel/ParallelDataSet.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <numbers>
#include <unistd.h>

// Each rank makes all blocks, and asks a data set of all of them on its own: what the ranks find together has to be the
// same to the last bit. Run by mpirun with several numbers of ranks; each rank checks for itself.

namespace {

using namespace support;
using Vantle::Box;
using Vantle::DataSet;
using Vantle::index_t;
using Vantle::MemArray;
using Vantle::ParallelDataSet;
using Vantle::ParallelError;
using Vantle::ParallelOptions;
using Vantle::Plane;
using Vantle::Surface;
using Vantle::Vector;

int rankOfWorld() {
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    return rank;
}
int ranksOfWorld() {
    int ranks = 1;
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    return ranks;
}

template<class T>
bool sameBits(std::span<const T> a, std::span<const T> b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size_bytes()) == 0);
}

Vector swirl(const Point& p) { return {-1.5 * p[1] + 0.1 * p[2] * p[2], 1.5 * p[0], std::sin(p[0]) + 0.25 * p[2]}; }

/// Blocks, how they are joined, and a level.
struct Scene {
    DataSet flow;
    double level = 0.1;
    Vantle::JoinOptions joins = {};
};

DataSet withFields(DataSet flow) {
    flow.setField("wave", wave);
    flow.setField("velocity", swirl);
    return flow;
}
DataSet cutUp(const BlockPtr& uncut, std::size_t pieces, unsigned seed) {
    std::mt19937_64 random(seed);
    return withFields(DataSet(CutGrid(*uncut, turned(bisect(uncut->Size(), pieces, random), random)).grid));
}

Scene ring() { return {cutUp(oGrid({33, 8, 9}), 13, 3)}; }
Scene ball() { return {cutUp(sphere(0.0, {9, 13, 17}), 11, 4)}; } // poles, and a centre
Scene wake() { return {cutUp(cGrid(), 9, 5)}; }
/// Values that differ between copies, NaN, blanked cells, a field that some blocks lack, and one in single precision.
Scene rough() {
    Scene scene{cutUp(oGrid({33, 8, 9}), 9, 6)};
    unsigned seed = 0;
    for (const auto& block : scene.flow.blocks()) {
        std::mt19937_64 random(++seed);
        std::uniform_real_distribution<double> noise(-1.0, 1.0);
        std::vector<double> values(static_cast<std::size_t>(block.size.product()));
        std::vector<float> small(values.size());
        for (std::size_t n = 0; n < values.size(); ++n) small[n] = static_cast<float>(values[n] = noise(random));
        if (seed % 2 == 0) scene.flow.setField("some", block.name, std::vector<double>(small.size(), 1.5));
        if (seed % 3 == 1) values[values.size() / 2] = std::nan("");
        scene.flow.setField("noise", block.name, std::move(values));
        scene.flow.setField("small", block.name, std::move(small));
        if (seed % 4 != 2) continue;
        const auto mask = MemArray<3, unsigned char>::create(block.size - 1);
        for (index_t n = 0; n < mask->nElements(); ++n) mask->element(n) = random() % 4 != 0;
        scene.flow.setCellMask(block.name, Hestra::StrongPtr<Vantle::MemBase>(mask));
    }
    return scene;
}
/// Copies that miss each other a little.
Scene loose() {
    std::mt19937_64 random(7);
    const BlockPtr uncut = oGrid({25, 7, 6});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 8, random), random));
    DataSet flow;
    std::uniform_real_distribution<double> off(-1e-9, 1e-9);
    for (std::size_t n = 0; n < cut.pieces.size(); ++n) {
        const auto points = takePiece(*uncut, cut.pieces[n]);
        for (index_t k = 0; k < points->nElements(); ++k)
            for (int d = 0; d < 3; ++d) points->element(k)[d] += off(random);
        flow.addBlock(std::to_string(n), Hestra::StrongPtr<Vantle::MemBase>(points));
    }
    Scene scene{withFields(flow)};
    scene.joins.tolerance = 0.01;
    scene.flow.setJoinOptions(scene.joins);
    return scene;
}
Scene periodic() {
    const PeriodicBlock sector = periodicSector(5, {17, 9, 8});
    Scene scene{cutUp(sector.block, 7, 8)};
    scene.joins.motions = {sector.motion};
    scene.flow.setJoinOptions(scene.joins);
    return scene;
}
/// Uniform blocks side by side, one of which is joined to nothing.
Scene bricks() {
    DataSet flow;
    for (const int n : {2, 0, 1, 3}) {
        const double at = n == 3 ? 7.5 : n;
        flow.addUniformBlock("brick " + std::to_string(n), {7, 9, 5}, {{at, 0, -0.5}, {at + 1, 2, 0.75}});
    }
    return {withFields(flow)};
}
Scene fin() {
    Scene scene{DataSet(), 2.0};
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) return scene;
    std::mt19937_64 random(12);
    CutGrid cut(*block, turned(cutAtPlanes(block->Size(), {{{20}, {16}, {16}}}), random));
    cut.setField("wave", *bluntFinDensity(VANTLE_TEST_DATA));
    scene.flow = DataSet(cut.grid);
    scene.flow.setField("velocity", swirl);
    return scene;
}

/// Who has which block.
enum class Deal { Random, AllOnLast, InTurn };

/// The blocks of one rank, in another order, and their numbers.
std::pair<DataSet, ParallelOptions> share(const Scene& scene, Deal deal, int rank, int ranks) {
    DataSet mine;
    ParallelOptions options;
    options.joins = scene.joins;
    options.budget = 100000; // many rounds
    std::mt19937_64 random(17);
    const auto blocks = scene.flow.blocks();
    std::vector<std::size_t> own;
    for (std::size_t n = 0; n < blocks.size(); ++n) {
        const auto any = static_cast<int>(random() % static_cast<unsigned>(ranks + 2));
        const int owner = deal == Deal::AllOnLast ? ranks - 1
                          : deal == Deal::InTurn  ? static_cast<int>(n) % ranks
                                                  : std::min(any, ranks - 1); // the last has more
        if (owner == rank) own.insert(own.begin(), n);
    }
    const auto fields = scene.flow.grid()->getCartesianRepresentation();
    for (const std::size_t n : own) {
        const auto id = fields->Positions()->getFragmentID(blocks[n].name);
        mine.addBlock(blocks[n].name, fields->Positions()->getCreator(id));
        for (const auto& field : scene.flow.fields())
            if (const auto creator = fields->findField(field.name)->getCreator(id))
                mine.setField(field.name, blocks[n].name, creator);
        if (const auto masks = fields->findField(Vantle::CellMaskName); masks && masks->getData(id))
            mine.setCellMask(blocks[n].name, masks->getData(id));
        options.numbers.push_back(10 * n + 3);
    }
    return {mine, options};
}

/// Pieces and the gathered surface against that of one process.
void expectSame(const Vantle::ParallelSurface& surface, const Surface& one) {
    EXPECT_EQ(surface.points(), one.points().size());
    EXPECT_EQ(surface.triangles(), one.triangles().size());
    const int root = ranksOfWorld() - 1;
    const Surface whole = surface.gather(root);
    if (rankOfWorld() == root) {
        EXPECT_TRUE(sameBits(whole.points(), one.points()));
        EXPECT_TRUE(sameBits(whole.triangles(), one.triangles()));
        EXPECT_EQ(whole.names(), one.names());
        for (const std::string& name : one.names()) {
            EXPECT_EQ(whole.values(name).components(), one.values(name).components()) << name;
            EXPECT_TRUE(sameBits(whole.values(name).numbers(), one.values(name).numbers())) << name;
        }
    } else {
        EXPECT_TRUE(whole.isEmpty());
    }
    const Surface& piece = surface.piece();
    ASSERT_EQ(surface.numbers().size(), piece.points().size());
    for (std::size_t n = 0; n < piece.points().size(); ++n) {
        const auto number = surface.numbers()[n];
        ASSERT_LT(number, one.points().size());
        ASSERT_TRUE(sameBits(piece.points().subspan(n, 1), one.points().subspan(number, 1)));
    }
}

class ParallelDataSetTest : public testing::TestWithParam<std::tuple<Scene (*)(), Deal>> {};

TEST_P(ParallelDataSetTest, GivesTheBitsOfOneProcess) {
    const Scene scene = std::get<0>(GetParam())();
    const DataSet& one = scene.flow;
    if (one.blocks().empty()) GTEST_SKIP() << "no real data";
    const auto [mine, options] = share(scene, std::get<1>(GetParam()), rankOfWorld(), ranksOfWorld());
    const ParallelDataSet many(MPI_COMM_WORLD, mine, options);

    const Box box = many.bounds(), expected = one.bounds();
    EXPECT_TRUE(sameBits(std::span<const Box>(&box, 1), std::span<const Box>(&expected, 1)));
    for (const auto& field : one.fields()) {
        if (field.components != 1) continue;
        const auto range = many.range(field.name), whole = one.range(field.name);
        EXPECT_EQ(std::memcmp(&range, &whole, sizeof(range)), 0) << field.name;
    }
    const auto joins = many.joins();
    const auto known = one.joins();
    ASSERT_EQ(joins.joins.size(), known->joins().size());
    EXPECT_EQ(joins.doubtful.size(), known->doubtful().size());
    for (std::size_t n = 0; n < joins.joins.size(); ++n) {
        EXPECT_EQ(joins.joins[n].first, known->joins()[n].first);
        EXPECT_EQ(joins.joins[n].second, known->joins()[n].second);
        EXPECT_EQ(joins.joins[n].low, known->joins()[n].low);
        EXPECT_EQ(joins.joins[n].map, known->joins()[n].map);
    }

    std::vector<std::string> values{"velocity", "magnitude(velocity)"};
    for (const auto& field : one.fields())
        if (field.name == "some") values.push_back("some");
    expectSame(many.contour("wave", scene.level, {.values = values, .normals = true}),
               one.contour("wave", scene.level, {.values = values, .normals = true}));
    expectSame(many.contour("wave", 1e9), one.contour("wave", 1e9));
    for (const char* name : {"noise", "small", "some"})
        if (one.grid()->getCartesianRepresentation()->findField(name))
            expectSame(many.contour(name, 0.25), one.contour(name, 0.25));
    const Point middle = box.low + 0.5 * (box.high - box.low);
    expectSame(many.slice({middle, {0.3, -0.2, 1.0}}, {"wave"}), one.slice({middle, {0.3, -0.2, 1.0}}, {"wave"}));
    expectSame(many.slice(Plane::z(middle[2])), one.slice(Plane::z(middle[2])));

    expectSame(many.boundary({"wave", "velocity"}), one.boundary({"wave", "velocity"}));

    // Derivatives, at all vertices of own blocks.
    for (const std::string& name : {many.gradient("wave"), many.gradient("velocity"), many.qCriterion("velocity"),
                                    many.gradient(many.divergence("velocity"))}) {
        for (const auto& block : mine.blocks()) {
            const auto a = many.array(name, block.name), b = one.array(name, block.name);
            ASSERT_EQ(a->memsize(), b->memsize());
            bool isSame = false;
            Vantle::withMemArray<3>(Vantle::TypeList<double, Vector, Orvix::Quadratic<3, double>>(), a,
                                    [&]<class T>(const MemArray<3, T>& own) {
                                        const auto whole = Hestra::dynamicCast<MemArray<3, T>>(b);
                                        isSame = true;
                                        for (index_t n = 0; n < own.nElements(); ++n)
                                            isSame = isSame && std::memcmp(&own.element(n), &whole->element(n),
                                                                           sizeof(T)) == 0;
                                    });
            EXPECT_TRUE(isSame) << name << " in block " << block.name;
        }
    }

    // Positions of this rank alone: in blocks, on common vertices, outside.
    std::vector<Point> positions;
    if (rankOfWorld() % 3 != 1 || ranksOfWorld() < 3)
        for (const auto& block : one.blocks()) {
            const auto points = Block::makeMemArray(one.positions(block.name), block.size);
            for (const Point& at : randomIndices(*points, 200, static_cast<unsigned>(rankOfWorld() + 1)))
                positions.push_back(positionIn(*points, at));
            for (index_t n = 0; n < points->nElements(); n += 3) positions.push_back(points->element(n));
            positions.push_back(positions.back() + Vector(100, 0, 0));
        }
    const auto at = many.locate(positions);
    const auto here = one.locate(positions);
    EXPECT_TRUE(sameBits(at.blocks(), here.blocks()));
    EXPECT_TRUE(sameBits(at.places(), here.places()));
    EXPECT_EQ(at.found(), here.found());
    for (const std::string& name : values) {
        const auto a = at.sample(name, -7.0), b = here.sample(name, -7.0);
        EXPECT_TRUE(sameBits(a.numbers(), b.numbers())) << name;
        EXPECT_TRUE(sameBits(a.mask(), b.mask())) << name;
    }

    const Vantle::MultiIndex<3> size(19, 17, 9);
    const DataSet image = one.resample(size, expected, {"wave", "velocity"});
    const auto onRoot = many.resample(size, expected, {"wave", "velocity"}, 0);
    const auto slab = many.resample(size, expected, {"wave", "velocity"});
    EXPECT_EQ(onRoot.layers, rankOfWorld() == 0 ? size[2] : 0);
    const auto whole = Hestra::dynamicCast<MemArray<3, double>>(image.array("wave", "image"));
    for (const auto* const part : {&onRoot, &slab}) {
        if (part->layers == 0) continue;
        const auto own = Hestra::dynamicCast<MemArray<3, double>>(part->part.array("wave", "image"));
        const std::size_t layer = size[0] * size[1];
        EXPECT_EQ(std::memcmp(&own->element(0), &whole->element(part->first * layer),
                              part->layers * layer * sizeof(double)),
                  0);
        const auto points = part->part.positions("image"), all = image.positions("image");
        EXPECT_TRUE(sameBits(std::span<const Point>(points),
                             std::span<const Point>(all).subspan(part->first * layer, points.size())));
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, ParallelDataSetTest,
                         testing::Combine(testing::Values(ring, ball, wake, rough, loose, periodic, bricks, fin),
                                          testing::Values(Deal::Random, Deal::AllOnLast, Deal::InTurn)));

} // namespace

int main(int argc, char** argv) {
    int provided = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    testing::InitGoogleTest(&argc, argv);
    if (rankOfWorld() != 0) delete testing::UnitTest::GetInstance()->listeners().Release(
        testing::UnitTest::GetInstance()->listeners().default_result_printer());
    const int result = RUN_ALL_TESTS();
    MPI_Finalize();
    return result;
}
