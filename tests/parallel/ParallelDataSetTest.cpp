#include "support/CutBlocks.hpp"
#include "support/Plot3DFile.hpp"
#include "support/RoughBlocks.hpp"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numbers>
#include <parallel/ParallelDataSet.hpp>
#include <parallel/detail/BoxTree.hpp>
#include <sys/resource.h>
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
/// Values that differ between copies, NaN, also in positions, blanked cells, a field that some blocks lack, and one in
/// single precision.
Scene rough() {
    const BlockPtr uncut = oGrid({33, 8, 9});
    for (const index_t n : {700U, 1500U, 1501U}) uncut->element(n)[1] = std::nan("");
    Scene scene{cutUp(uncut, 9, 6)};
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
    // Too far apart for the edges across the face of the one, not for those within it, nor for the other's.
    flow.addUniformBlock("thick", {5, 5, 5}, {{10, 0, 0}, {11, 1, 1}});
    flow.addUniformBlock("thin", {5, 5, 5}, {{11.001, 0, 0}, {11.041, 1, 1}});
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
    expectSame(many.contour("wave", 1e9, {.values = values}), one.contour("wave", 1e9, {.values = values}));
    for (const char* name : {"noise", "small", "some"})
        if (one.grid()->getCartesianRepresentation()->findField(name)) {
            SCOPED_TRACE(name);
            expectSame(many.contour(name, 0.25), one.contour(name, 0.25));
        }
    const Point middle = box.low + 0.5 * (box.high - box.low);
    expectSame(many.slice({middle, {0.3, -0.2, 1.0}}, {"wave"}), one.slice({middle, {0.3, -0.2, 1.0}}, {"wave"}));
    expectSame(many.slice(Plane::z(middle[2])), one.slice(Plane::z(middle[2])));

    expectSame(many.boundary({"wave", "velocity"}), one.boundary({"wave", "velocity"}));
    for (const auto& block : one.blocks()) {
        const Vantle::IndexPlane layer{block.name, 1, block.size[1] / 2};
        const ParallelDataSet::Fields there{"velocity", "gradient(wave)"};
        expectSame(many.slice(layer, there), one.slice(layer, there));
    }

    // Derivatives, at all vertices of own blocks.
    std::vector<std::string> derived{many.gradient("wave"), many.gradient("velocity"), many.qCriterion("velocity"),
                                     many.gradient(many.divergence("velocity"))};
    if (one.grid()->getCartesianRepresentation()->findField("small")) derived.push_back(many.gradient("small"));
    for (const std::string& name : derived) {
        for (const auto& block : mine.blocks()) {
            const auto a = many.array(name, block.name), b = one.array(name, block.name);
            EXPECT_EQ(a->memsize(), b->memsize());
            bool isSame = false;
            Vantle::withMemArray<3>(Vantle::TypeList<double, Vector, Orvix::Quadratic<3, double>>(), a,
                                    [&]<class T>(const MemArray<3, T>& own) {
                                        const auto whole = Hestra::dynamicCast<MemArray<3, T>>(b);
                                        isSame = true;
                                        for (index_t n = 0; n < own.nElements(); ++n)
                                            isSame = isSame &&
                                                     std::memcmp(&own.element(n), &whole->element(n), sizeof(T)) == 0;
                                    });
            EXPECT_TRUE(isSame) << name << " in block " << block.name;
        }
    }

    // Masks of a field that is derived across ranks, and of one that some blocks lack.
    const std::string slope = "magnitude(gradient(wave))";
    const auto [flat, steep] = one.range(slope);
    const ParallelDataSet core = many.threshold(slope, 0.5 * (flat + steep));
    const DataSet coreOfOne = one.threshold(slope, 0.5 * (flat + steep));
    expectSame(core.boundary({"velocity"}), coreOfOne.boundary({"velocity"}));
    expectSame(core.contour("wave", scene.level), coreOfOne.contour("wave", scene.level));
    if (values.back() == "some")
        expectSame(core.threshold("some", 1.0, 2.0).boundary(), coreOfOne.threshold("some", 1.0, 2.0).boundary());

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
    const auto onRoot = many.resample(size, expected, {"wave", "velocity", "magnitude(velocity)"}, 0);
    const auto slab = many.resample(size, expected, {"wave", "velocity"});
    EXPECT_EQ(onRoot.layers, rankOfWorld() == 0 ? size[2] : 0);
    const auto whole = Hestra::dynamicCast<MemArray<3, double>>(image.array("wave", "image"));
    for (const auto* const part : {&onRoot, &slab}) {
        if (part->layers == 0) continue;
        const auto own = Hestra::dynamicCast<MemArray<3, double>>(part->part.array("wave", "image"));
        const std::size_t layer = size[0] * size[1];
        EXPECT_EQ(
            std::memcmp(&own->element(0), &whole->element(part->first * layer), part->layers * layer * sizeof(double)),
            0);
        const auto points = part->part.positions("image"), all = image.positions("image");
        EXPECT_TRUE(sameBits(std::span<const Point>(points),
                             std::span<const Point>(all).subspan(part->first * layer, points.size())));
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, ParallelDataSetTest,
                         testing::Combine(testing::Values(ring, ball, wake, rough, loose, periodic, bricks, fin),
                                          testing::Values(Deal::Random, Deal::AllOnLast, Deal::InTurn)));

// ---- What goes wrong, and nothing -----------------------------------------------------------------------------------

/// What all ranks throw: the same, whoever of them has failed.
template<class F>
std::string errorOf(const F& f) {
    try {
        f();
    } catch (const Vantle::DataSetError& error) {
        return error.what();
    }
    return "nothing was thrown";
}
#define EXPECT_ERROR(part, ...)                                                                                        \
    {                                                                                                                  \
        const std::string error = errorOf([&] { __VA_ARGS__; });                                                       \
        EXPECT_NE(error.find(part), std::string::npos) << error;                                                       \
    }

DataSet brick(const std::string& name, double at) {
    DataSet flow;
    flow.addUniformBlock(name, {5, 5, 5}, {{at, 0, 0}, {at + 1, 1, 1}});
    return withFields(flow);
}

TEST(ParallelFailureTest, IsThatOfAllRanksWhichCanGoOn) {
    const int rank = rankOfWorld(), last = ranksOfWorld() - 1;
    const std::string who = "rank " + std::to_string(last);
    DataSet mine = brick("brick " + std::to_string(rank), rank);
    const ParallelDataSet many(MPI_COMM_WORLD, mine);
    EXPECT_EQ(many.blocks().size(), static_cast<std::size_t>(ranksOfWorld()));

    EXPECT_ERROR("no field \"wawe\"; there are: \"wave\"", (void)many.range("wawe"));
    EXPECT_ERROR("is a vector, not a scalar", (void)many.contour("velocity", 0.0));
    EXPECT_ERROR("gathering a surface on rank 99", (void)many.contour("wave", 0.0).gather(99));
    const auto cancel = [&](double share) { return rank != last || share < 0.2; };
    EXPECT_THROW((void)many.contour("wave", 0.1, {.progress = cancel}), Vantle::Cancelled);
    const auto own = [&](double) -> bool {
        if (rank == last) throw std::runtime_error("a caller's own");
        return true;
    };
    EXPECT_ERROR(who + ": slice: a caller's own", (void)many.slice(Plane::y(0.5), {}, own));
    const auto fail = [&] {
        if (rank == last) throw Vantle::UnknownName("mine");
    };
    EXPECT_ERROR(who + ": mine", ParallelDataSet(MPI_COMM_WORLD, [&](ParallelOptions&) {
                     fail();
                     return mine;
                 }));
    try {
        many.attempt(fail);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ParallelError& error) {
        EXPECT_EQ(error.kind(), ParallelError::Kind::Name);
        ASSERT_EQ(error.cause() != nullptr, rank == last);
        if (error.cause()) {
            EXPECT_THROW(std::rethrow_exception(error.cause()), Vantle::UnknownName);
        }
    }
    EXPECT_THROW((void)many.boundary({}, cancel), Vantle::Cancelled);
    EXPECT_ERROR("no block \"brock\"; there are: \"brick", (void)many.slice(Vantle::IndexPlane::k("brock", 0)));
    EXPECT_ERROR(who + ": slice: block \"brick " + std::to_string(last) + "\" has [5x5x5] vertices, and no layer 5",
                 (void)many.slice(Vantle::IndexPlane::k("brick " + std::to_string(last), 5)));
    // Told within the one block, from the beginning to the end, on the ranks that want to know.
    std::vector<double> shares;
    const Vantle::Progress note = [&](double share) { return shares.push_back(share), true; };
    (void)many.boundary({}, rank == last ? note : Vantle::Progress());
    EXPECT_EQ(shares.size() > 5, rank == last) << shares.size();
    EXPECT_TRUE(std::is_sorted(shares.begin(), shares.end()));
    EXPECT_TRUE(shares.empty() || (shares.front() == 0.0 && shares.back() == 1.0));

    // Data that one rank cannot make; what does not need them goes on.
    if (rank == last)
        mine.setField("broken", "brick " + std::to_string(rank),
                      Hestra::StrongPtr<Vantle::CreativeArrayBase>(new Vantle::CreativeArray(
                          Vantle::CreativeArray::CreationFunction([](const auto&) { return nullptr; }),
                          Vantle::VantleTypeIndex(typeid(double)), Vantle::MultiIndex<3>(5, 5, 5))));
    else
        mine.setField("broken", [](const Point&) { return 1.0; });
    const ParallelDataSet partly(MPI_COMM_WORLD, mine);
    for (int again = 0; again < 2; ++again)
        EXPECT_ERROR("block \"brick " + std::to_string(last) + "\": the data cannot be made",
                     (void)partly.range("broken"));
    const std::vector<Point> centre{{0.5, 0.5, 0.5}};
    const auto located = partly.locate(centre);
    EXPECT_EQ(located.found(), 1U);
    EXPECT_EQ(located.blocks()[0], 0U);
    EXPECT_EQ(partly.contour("wave", 0.25).gather(0).isEmpty(), rank != 0);

    // Blocks that do not go together.
    if (last == 0) return;
    EXPECT_ERROR("block \"same\" is there twice", ParallelDataSet(MPI_COMM_WORLD, brick("same", rank)));
    EXPECT_ERROR("have the same number, 4",
                 ParallelDataSet(MPI_COMM_WORLD, brick(std::to_string(rank), rank), {.numbers = {4}}));
    EXPECT_ERROR("2 numbers for 1 blocks",
                 ParallelDataSet(MPI_COMM_WORLD, brick(std::to_string(rank), rank), {.numbers = {4, 5}}));
    DataSet other = brick(std::to_string(rank), rank);
    other.removeField("velocity");
    other.setField("velocity", [&](const Point& p) { return p[0]; });
    EXPECT_ERROR("is a vector on rank", ParallelDataSet(MPI_COMM_WORLD, rank ? brick(std::to_string(rank), 1) : other));
    DataSet later(3.0);
    later.addUniformBlock("later", {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}});
    EXPECT_ERROR("other times", ParallelDataSet(MPI_COMM_WORLD, rank ? brick(std::to_string(rank), 1) : later));
}

TEST(ParallelFailureTest, NothingAtAllIsFine) {
    const ParallelDataSet none(MPI_COMM_WORLD, DataSet());
    EXPECT_TRUE(std::isnan(none.bounds().low[0]));
    EXPECT_TRUE(none.joins().joins.empty());
    EXPECT_TRUE(none.boundary().piece().isEmpty());
    EXPECT_EQ(none.slice(Plane::x(0)).triangles(), 0U);
    const std::vector<Point> somewhere{{0, 0, 0}};
    EXPECT_EQ(none.locate(somewhere).found(), 0U);
}

TEST(ParallelExchangeTest, BringsAllMessagesInPiecesOfAnySize) {
    using Vantle::detail::Outbox;
    using Vantle::detail::Writer;
    const int rank = rankOfWorld(), ranks = ranksOfWorld();
    const auto text = [](int from, int to) { return std::string(static_cast<std::size_t>(13 * from + 7 * to), 'x'); };
    for (const std::size_t most : {std::size_t{1}, std::size_t{7}, std::size_t{1} << 20}) {
        Vantle::detail::Exchange exchange(MPI_COMM_WORLD, 1, most);
        Outbox outbox(ranks);
        for (int to = 0; to < ranks; ++to)
            for (const int key : {0, 1}) {
                Writer writer;
                writer.putText(text(rank + key, to));
                outbox.add(to, static_cast<std::uint32_t>(key), 5, writer.bytes);
            }
        const auto inbox = exchange.round(std::move(outbox));
        auto messages = inbox.messages();
        ASSERT_EQ(messages.size(), static_cast<std::size_t>(2 * ranks));
        for (std::size_t n = 0; n < messages.size(); ++n) {
            EXPECT_EQ(messages[n].rank, static_cast<int>(n / 2));
            EXPECT_EQ(messages[n].content.getText(), text(static_cast<int>(n / 2 + n % 2), rank));
        }
        Writer own;
        own.putText(text(rank, 3));
        const auto all = exchange.gather(own.bytes);
        for (int r = 0; r < ranks; ++r)
            EXPECT_EQ(Vantle::detail::Reader(all[static_cast<std::size_t>(r)]).getText(), text(r, 3));
        EXPECT_EQ(exchange.greatest(static_cast<std::uint64_t>(rank)), static_cast<std::uint64_t>(ranks - 1));
    }
}

// Whatever a rank fails in, and whichever exchange comes next, that is what throws, on all ranks, with that rank's
// reason.
TEST(ParallelExchangeTest, ThrowsOnAllRanksBeforeAnythingIsSent) {
    using Vantle::detail::Outbox;
    const int rank = rankOfWorld(), last = ranksOfWorld() - 1;
    const std::string who = "rank " + std::to_string(last) + ": ";
    Vantle::detail::Exchange exchange(MPI_COMM_WORLD, 1);
    for (int which = 0; which < 3; ++which) {
        exchange.attempt([&] {
            if (rank == last) throw std::runtime_error("has given up");
        });
        exchange.attempt([&] { EXPECT_NE(rank, last); });
        EXPECT_ERROR(who + "has given up", which == 0   ? (void)exchange.round(Outbox(last + 1))
                                           : which == 1 ? (void)exchange.gather({})
                                                        : exchange.agree());
        EXPECT_EQ(exchange.greatest(7), 7U);
    }
#ifndef __SANITIZE_ADDRESS__ // which has all addresses
    if (last == 0) return;
    constexpr std::size_t Much = std::size_t{1} << 26;
    rlimit limit{}, less{};
    getrlimit(RLIMIT_AS, &limit);
    Outbox outbox(last + 1);
    const std::vector<std::byte> message(rank == 0 ? Much : 0);
    if (rank == 0) outbox.add(last, 0, 0, message);
    less = limit;
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    less.rlim_cur = pages * static_cast<std::size_t>(getpagesize()) + Much / 2;
    if (rank == last) setrlimit(RLIMIT_AS, &less);
    const std::string error = errorOf([&] { (void)exchange.round(std::move(outbox)); });
    setrlimit(RLIMIT_AS, &limit);
    EXPECT_EQ(error, who + "there is not enough memory for " + std::to_string(Much + 16) + " bytes of other ranks");
    EXPECT_EQ(exchange.greatest(7), 7U);
#endif
}

TEST(ParallelExchangeTest, TreesOfBoxesFindWhatALookAtEachFinds) {
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> at(0.0, 10.0), size(0.0, 1.5);
    std::vector<Box> boxes(500);
    for (Box& box : boxes) {
        box.low = {at(random), at(random), at(random)};
        box.high = box.low + Vector(size(random), size(random), size(random));
    }
    boxes[17].high[1] = std::nan("");
    const Vantle::detail::BoxTree tree(boxes);
    for (const Box& box : boxes) {
        std::vector<std::uint32_t> found, expected;
        tree.forEach(box, [&](std::uint32_t n) { found.push_back(n); });
        for (std::uint32_t n = 0; n < boxes.size(); ++n)
            if (Vantle::detail::touch(box, boxes[n])) expected.push_back(n);
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, expected);
    }
}

// ---- Files ----------------------------------------------------------------------------------------------------------

TEST(ParallelFilesTest, AreReadInSharesAndWrittenInPieces) {
    namespace fs = std::filesystem;
    const int rank = rankOfWorld();
    std::array<char, 64> name{};
    if (rank == 0) std::snprintf(name.data(), name.size(), "parallel_files_%d", static_cast<int>(getpid()));
    MPI_Bcast(name.data(), static_cast<int>(name.size()), MPI_CHAR, 0, MPI_COMM_WORLD);
    const fs::path folder = fs::temp_directory_path() / name.data();
    const DataSet made = ring().flow;
    if (rank == 0) {
        fs::create_directories(folder);
        std::vector<Plot3DBlock> grid;
        std::vector<Plot3DFunctionBlock> functions;
        for (const auto& block : made.blocks()) {
            Plot3DBlock& at = grid.emplace_back();
            for (int d = 0; d < 3; ++d) at.extents[static_cast<std::size_t>(d)] = static_cast<int>(block.size[d]);
            Plot3DFunctionBlock& of = functions.emplace_back();
            of.extents = at.extents;
            of.fields.resize(1);
            for (const Point& p : made.positions(block.name)) {
                at.x.push_back(p[0]);
                at.y.push_back(p[1]);
                at.z.push_back(p[2]);
                of.fields[0].values.push_back(wave(p));
            }
        }
        Vantle::Plot3DForm form;
        form.multiBlock = true;
        form.scalar = Vantle::Plot3DScalar::float64;
        std::ofstream(folder / "ring.xyz", std::ios::binary) << gridBytes(form, grid);
        std::ofstream(folder / "ring.f", std::ios::binary) << functionBytes(form, functions);
    }
    MPI_Barrier(MPI_COMM_WORLD);
    const std::vector<fs::path> files{folder / "ring.xyz", folder / "ring.f"};
    const DataSet one = DataSet::read(files);
    const ParallelDataSet many = ParallelDataSet::read(MPI_COMM_WORLD, files, {}, {.memory = 50000});
    const std::string field = one.fields().front().name;
    index_t vertices = 0, mine = 0, largest = 0;
    for (const auto& block : many.blocks()) {
        vertices += block.size.product();
        mine += block.rank == rank ? block.size.product() : 0;
        largest = std::max(largest, block.size.product());
    }
    EXPECT_LE(mine, vertices / static_cast<index_t>(ranksOfWorld()) + largest);
    const auto surface = many.contour(field, 0.1, {.values = {field}});
    expectSame(surface, one.contour(field, 0.1, {.values = {field}}));

    many.write(folder / "flow.vtm");
    DataSet odd;
    if (rank == 0) odd.addUniformBlock("a\nb\xe4", {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}});
    ParallelDataSet(MPI_COMM_WORLD, odd).write(folder / "odd.vtm");
    surface.write(folder / "surface.pvtp");
    EXPECT_ERROR("rank 0", many.write(folder / "nowhere" / "flow.vtm"));
    if (rank == 0) {
        const auto textOf = [&](const char* file) {
            std::ifstream stream(folder / file);
            return std::string(std::istreambuf_iterator<char>(stream), {});
        };
        std::size_t at = 0, blocks = 0, pieces = 0;
        const std::string head = textOf("flow.vtm"), pieceHead = textOf("surface.pvtp");
        while ((at = head.find("file=\"", at)) != std::string::npos) {
            at += 6;
            const std::string file = head.substr(at, head.find('"', at) - at);
            EXPECT_TRUE(fs::exists(folder / file)) << file;
            ++blocks;
        }
        EXPECT_EQ(blocks, many.blocks().size());
        EXPECT_NE(textOf("odd.vtm").find("name=\"a&#10;b\xc3\xa4\""), std::string::npos);
        EXPECT_LT(head.find("name=\"block1\""), head.find("name=\"block2\""));
        for (at = 0; (at = pieceHead.find("Source=\"", at)) != std::string::npos; ++pieces) {
            at += 8;
            EXPECT_TRUE(fs::exists(folder / pieceHead.substr(at, pieceHead.find('"', at) - at)));
        }
        EXPECT_EQ(pieces, static_cast<std::size_t>(ranksOfWorld()));
    }
    MPI_Barrier(MPI_COMM_WORLD);
    if (rank == 0) fs::remove_all(folder);
    EXPECT_ERROR("rank 0: ", (void)ParallelDataSet::read(MPI_COMM_WORLD, files));
}

} // namespace

int main(int argc, char** argv) {
    int provided = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    testing::InitGoogleTest(&argc, argv);
    if (rankOfWorld() != 0)
        delete testing::UnitTest::GetInstance()->listeners().Release(
            testing::UnitTest::GetInstance()->listeners().default_result_printer());
    const int result = RUN_ALL_TESTS();
    MPI_Finalize();
    return result;
}
