#include "support/CutBlocks.hpp"
#include "support/Plot3DFile.hpp"
#include "support/RoughBlocks.hpp"

#include <dataset/DataSet.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <numbers>
#include <omp.h>
#include <set>
#include <span>
#include <thread>
#include <unistd.h>

// Whole requests, as people make them, on blocks that are turned and flipped, and one time on real data. What the
// operations underneath prove is not proved here again.

namespace {

using namespace support;
using Vantle::Box;
using Vantle::DataSet;
using Vantle::DataSetError;
using Vantle::index_t;
using Vantle::MemArray;
using Vantle::MultiIndex;
using Vantle::Plane;
using Vantle::Surface;
using Vantle::Vector;

double plane(const Point& p) { return 1.0 + 2.0 * p[0] - 3.0 * p[1] + 0.5 * p[2]; }
/// A rigid rotation about z with 1.5 radians a second, and a strain along z.
Vector swirl(const Point& p) { return {-1.5 * p[1], 1.5 * p[0], 0.25 * p[2]}; }

/// A ring around z, cut in turned and flipped blocks.
DataSet ring(unsigned seed, std::size_t pieces = 7) {
    std::mt19937_64 random(seed);
    const BlockPtr uncut = oGrid({33, 8, 9});
    DataSet flow(CutGrid(*uncut, pieces < 2 ? bisect(uncut->Size(), 1, random)
                                            : turned(bisect(uncut->Size(), pieces, random), random))
                     .grid);
    flow.setField("wave", wave);
    flow.setField("plane", plane);
    flow.setField("velocity", swirl);
    return flow;
}

/// Positions in blocks, and where they were made.
std::vector<Point> positionsIn(const DataSet& flow, int count, unsigned seed) {
    std::vector<Point> all;
    for (const auto& block : flow.blocks()) {
        const auto points = Block::makeMemArray(flow.positions(block.name), block.size);
        for (const Point& index : randomIndices(*points, count, seed)) all.push_back(positionIn(*points, index));
    }
    return all;
}

template<class F>
std::string errorOf(const F& f) {
    try {
        f();
    } catch (const DataSetError& error) {
        return error.what();
    }
    return "nothing was thrown";
}
bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// All bits of an answer.
struct Digest {
    std::size_t value = 14695981039346656037U;

    Digest& add(std::span<const double> numbers) {
        for (const double x : numbers) value = (value ^ std::bit_cast<std::size_t>(x)) * 1099511628211U;
        return *this;
    }
    Digest& add(const Surface& surface) {
        for (const Point& p : surface.points()) add(std::span(&p[0], 3));
        for (const auto& t : surface.triangles())
            for (int c = 0; c < 3; ++c) value = (value ^ t[c]) * 1099511628211U;
        for (const std::string& name : surface.names()) add(surface.values(name).numbers());
        return *this;
    }
};

// ---- Making one, and changing it ------------------------------------------------------------------------------------

TEST(DataSetTest, SharesArraysAndKnowsTheKindsOfBlocks) {
    const auto points = distortedBlock({5, 4, 3}, 1.0, 0.1, 1);
    DataSet flow(2.0);
    flow.addBlock("first", points);
    flow.addUniformBlock("second", {3, 3, 3}, {{10, 0, 0}, {12, 2, 2}});
    flow.addRectilinearBlock("third", {20, 21, 23}, {0, 1}, {5, 4, 1});
    flow.setField("f", plane);
    using Vantle::BlockKind;
    const BlockKind kinds[] = {BlockKind::Curvilinear, BlockKind::Uniform, BlockKind::Rectilinear};
    for (std::size_t n = 0; n < 3; ++n) EXPECT_EQ(flow.blocks()[n].kind, kinds[n]) << n;
    EXPECT_EQ(flow.range("f").greatest, plane({23, 0, 5}));
    EXPECT_EQ(DataSet(flow).positionArray("first").rawptr(), points.rawptr());
}

// Handles that are copied and changed in any order, as plain lists of values are: nobody's change reaches another one,
// nor a grid that somebody was given.
TEST(DataSetTest, ChangesOfOneHandleReachNoOther) {
    struct Plain {
        std::vector<std::string> blocks;
        std::map<std::string, std::map<std::string, double>> fields;
        std::set<std::string> masked;
    };
    const auto fragmentsOf = [](const Hestra::StrongPtr<Vantle::Grid>& grid) {
        std::map<std::string, std::size_t> all;
        grid->getCartesianRepresentation()->iterate([&](const Vantle::FieldID& id, const Vantle::Field& field) {
            return all[id.name()] = field.nFragments(), true;
        });
        return std::pair(grid, all);
    };
    const auto add = [](DataSet& set, int n) {
        set.addUniformBlock(std::to_string(n), {2, 2, 2}, {{2.0 * n, 0, 0}, {2.0 * n + 1, 1, 1}});
    };
    std::mt19937 random(4);
    std::vector<DataSet> sets(3);
    std::vector<Plain> plain(3);
    std::vector<decltype(fragmentsOf(nullptr))> given;
    for (int step = 0; step < 900; ++step) {
        const std::size_t n = random() % 3, from = random() % 3;
        auto& [blocks, fields, masked] = plain[n];
        const std::string field(1, char('f' + random() % 3));
        const std::string block = blocks.empty() ? "" : blocks[random() % blocks.size()];
        const int what = int(random() % 12);
        if (what == 0)
            sets[n] = sets[from], plain[n] = Plain(plain[from]);
        else if (what == 1)
            given.push_back(fragmentsOf(sets[n].grid()));
        else if (what == 2 && fields.count(field))
            sets[n].removeField(field), fields.erase(field);
        else if (what < 7 || blocks.empty())
            add(sets[n], step), blocks.push_back(std::to_string(step));
        else if (what == 7)
            sets[n].setVertexMask(block, MemArray<3, int>::create({2, 2, 2})), masked.insert(block);
        else
            sets[n].setField(field, block, std::vector<double>(8, step)), fields[field][block] = step;

        const DataSet& set = sets[from];
        const Plain& expected = plain[from];
        ASSERT_EQ(set.blocks().size(), expected.blocks.size());
        ASSERT_EQ(set.fields().size(), expected.fields.size());
        for (std::size_t b = 0; b < expected.blocks.size(); ++b) {
            const std::string& name = expected.blocks[b];
            ASSERT_EQ(set.blocks()[b].name, name) << step;
            const auto at = set.locate(std::vector<Point>{{2.0 * std::stod(name) + 0.5, 0.5, 0.5}});
            ASSERT_EQ(at.isFound(0), expected.masked.count(name) == 0) << step;
            for (const auto& [which, values] : expected.fields) {
                ASSERT_EQ(set.hasValues(which, name), values.count(name) == 1) << step;
                if (!values.count(name)) continue;
                ASSERT_EQ(Vantle::Values(set.array(which, name))[0], values.at(name)) << step;
            }
        }
        for (const auto& one : given) ASSERT_EQ(fragmentsOf(one.first), one) << step;
    }
    // A list of fragments that is nobody else's, but that of a field which is.
    DataSet one;
    add(one, 0);
    one.setField("f", "0", std::vector<double>(8));
    DataSet other = one;
    add(other, 1);
    const auto before = fragmentsOf(other.grid());
    add(one, 2);
    EXPECT_EQ(fragmentsOf(other.grid()), before);

    // Nor does what is built to find positions in a block that another copy has got.
    const auto at = [](double x) {
        std::vector<Point> corners;
        for (int n = 0; n < 8; ++n) corners.push_back({x + (n & 1), double(n >> 1 & 1), double(n >> 2)});
        return corners;
    };
    const std::vector<Point> middles{{0.5, 0.5, 0.5}, {3.5, 0.5, 0.5}};
    DataSet front;
    front.addBlock("front", {2, 2, 2}, at(0));
    DataSet both = front;
    both.setVertexMask("front", MemArray<3, int>::create({2, 2, 2}));
    both.setVertexMask("front", nullptr); // and a locator of its own
    EXPECT_EQ(both.locate(middles).found(), 1U);
    both.addBlock("back", {2, 2, 2}, at(3));
    EXPECT_EQ(both.locate(middles).found(), 2U);
    EXPECT_EQ(front.grid()->CartesianPositions()->nFragments(), 1U);
}

TEST(DataSetTest, RefusesWhatDoesNotFitAndStaysAsItWas) {
    DataSet flow;
    EXPECT_TRUE(has(errorOf([&] { (void)flow.range("p"); }), "no field \"p\"; there are none"));
    flow.addUniformBlock("front", {4, 3, 2}, {{0, 0, 0}, {3, 2, 1}});
    for (const char* name : {"density", "presure", "pressures", "temperature"}) flow.setField(name, plane);
    flow.setField("velocity", swirl);
    const auto expect = [&](const auto& change, const std::string& part) {
        const std::string error = errorOf(change);
        EXPECT_TRUE(has(error, part)) << error;
    };
    expect([&] { (void)flow.contour("pressure", 0.0); },
           "\"pressure\"; there are: \"pressures\", \"presure\", \"density\"");
    expect([&] { flow.setField("p", "Front ", std::vector<double>(24)); }, "no block \"Front \"; there are: \"front\"");
    expect([&] { flow.setField("p", "front", std::vector<double>(23)); }, "[4x3x2] vertices, which 23 values");
    expect([&] { flow.setField("p", "front", MemArray<3, double>::create({4, 2, 3})); }, "the values are [4x2x3]");
    expect([&] { flow.setField("p", "front", MemArray<3, std::string>::create({4, 3, 2})); }, "neither numbers nor");
    expect([&] { flow.setField("Positions", plane); }, "a name that means something else");
    expect([&] { flow.setField("q", [](const Point&) -> double { throw DataSetError("mine"); }); }, "mine");
    expect([&] { flow.addBlock("front", distortedBlock({2, 2, 2}, 1, 0, 1)); }, "there is a block \"front\" already");
    expect([&] { flow.addBlock("b", Vantle::makeMemArray1D(std::vector<Point>(8))); }, "no points with three indices");
    expect([&] { flow.addRectilinearBlock("b", {0, 2, 1}, {0}, {0}); }, "neither ascend nor descend");
    expect([&] { flow.addRectilinearBlock("b", {0, std::nan(""), 1}, {0}, {0}); }, "not finite");
    expect([&] { flow.setCellMask("front", MemArray<3, int>::create({4, 3, 2})); }, "front");
    expect([&] { (void)flow.atTime(-1.0); }, "the first time is 0");
    expect([&] { (void)flow.range("velocity"); }, "field \"velocity\" is a vector, not a scalar");
    expect([&] { (void)flow.vorticity("density"); }, "is a scalar, which has no vorticity");
    expect([&] { (void)flow.contour("density", std::nan("")); }, "a level that is NaN");
    expect([&] { (void)flow.resample({4, 4, 4}, {{0, 0, 0}, {1, 0, 1}}, {"density"}); }, "along axis 1");
    const MultiIndex<3> beyond(index_t{1} << 22, index_t{1} << 22, index_t{1} << 22); // 2^66
    expect([&] { (void)flow.resample(beyond, {{0, 0, 0}, {1, 1, 1}}, {"density"}); }, "not enough memory");
    expect([&] { flow.addUniformBlock("b", beyond, {{0, 0, 0}, {1, 1, 1}}); }, "more vertices than can be numbered");
    expect([&] { (void)flow.slice({{0, 0, 0}, {0, 0, 0}}); }, "no length");
    expect([&] { (void)flow.slice(Plane::y(std::nan(""))); }, "no number");
    const std::vector<Point> one(1);
    expect([&] { (void)flow.locate({one.data(), ~std::size_t{0} / sizeof(Point)}); }, "positions: there is not enough");
    expect([&] { (void)flow.slice(Plane::z(0.5)).values("speed"); }, "no value \"speed\"; there are none");

    DataSet partly = flow;
    partly.addUniformBlock("back", {2, 2, 2}, {{3, 0, 0}, {4, 2, 1}});
    expect([&] { (void)partly.gradient("density"); }, "block \"back\" has no values");
    expect([&] { partly.setField("density", "back", std::vector<Vector>(8)); }, "of another type");
    EXPECT_FALSE(partly.contour("density", 1.0).isEmpty());
    const auto there = partly.locate(std::vector<Point>{{1.5, 1, 0.5}, {3.5, 1, 0.5}});
    EXPECT_EQ(there.found(), 2U);
    EXPECT_DOUBLE_EQ(there.sample("density")[0], plane({1.5, 1, 0.5}));
    EXPECT_FALSE(there.sample("density").isFound(1));

    EXPECT_EQ(flow.blocks().size(), 1U);
    EXPECT_EQ(flow.fields().size(), 5U);
}

// ---- Numbers --------------------------------------------------------------------------------------------------------

TEST(DataSetTest, RangesAndBoxesAreOfNumbersWhateverTheirOrderAndTheThreads) {
    const double none = std::nan("");
    for (const bool isReversed : {false, true})
        for (const int threads : {1, 5}) {
            omp_set_num_threads(threads);
            std::vector<double> values(70 * 70 * 70, 0.0);
            std::vector<float> others(values.size(), -0.0F);
            values[300000] = -0.0; // far apart, in pieces of their own
            values[1000] = none;
            values[200000] = none;
            others[7] = 0.0F;
            std::vector<Point> points(values.size());
            std::mt19937_64 random(3);
            for (Point& p : points) p = Point(1 + double(random() % 1000), double(random() % 7), -double(random() % 5));
            points[0] = Point(none, none, none);
            points[5][0] = none;
            if (isReversed) {
                std::reverse(values.begin(), values.end());
                std::reverse(points.begin(), points.end());
            }
            DataSet flow;
            flow.addBlock("a", {70, 70, 70}, points);
            flow.setField("zero", "a", values);
            flow.setField("single", "a", others);
            for (const char* field : {"zero", "single"}) {
                const auto range = flow.range(field);
                EXPECT_TRUE(range.least == 0.0 && std::signbit(range.least)) << field;
                EXPECT_TRUE(range.greatest == 0.0 && !std::signbit(range.greatest)) << field;
            }
            const Box box = flow.bounds();
            EXPECT_EQ(box.low, Point(1, 0, -4));
            EXPECT_EQ(box.high, Point(1000, 6, 0));
            flow.setField("none", "a", std::vector<double>(values.size(), none));
            EXPECT_TRUE(std::isnan(flow.range("none").least));
            EXPECT_TRUE(flow.contour("none", 1.0).isEmpty());
            // What comes after a NaN must not be taken for all that there is.
            DataSet halves;
            halves.addUniformBlock("a", {9, 9, 9}, {{0, 0, 0}, {8, 8, 8}});
            halves.setField("f", [](const Point& p) {
                return p == Point(4, 4, 4) ? std::nan("") : p[2] < 4 ? 0.0 : 1.0;
            });
            EXPECT_FALSE(halves.contour("f", 0.5).isEmpty());
        }
    omp_set_num_threads(omp_get_num_procs());
}

// Beside a block that is computed, and has a mask.
TEST(DataSetTest, AVertexThatIsNowhereTakesOnlyItsCellsAway) {
    for (const std::size_t nowhere : {0U, 62U, 124U}) {
        DataSet flow;
        std::vector<Point> points;
        std::vector<double> rows;
        for (int n = 0; n < 125; ++n) {
            points.emplace_back(n % 5, n / 5 % 5, n / 25);
            rows.push_back(n / 5 % 5);
        }
        points[nowhere][0] = std::nan("");
        flow.addBlock("a", {5, 5, 5}, points);
        flow.addUniformBlock("b", {5, 5, 5}, {{4, 0, 0}, {8, 4, 4}});
        for (const char* block : {"a", "b"}) flow.setField("rows", block, rows);
        const auto mask = MemArray<3, int>::create({5, 5, 5});
        for (index_t n = 0; n < 124; ++n) mask->element(n) = 1;
        flow.setVertexMask("b", mask);
        EXPECT_EQ(flow.locate(points).found(), 124U);
        EXPECT_EQ(flow.contour("rows", 1.5).triangles().size(), nowhere == 62 ? 56U : 64U);
        // All points of a surface may be nowhere, or lie between numbers and an infinite one.
        std::vector<double> peak(125, 0.0);
        peak[62] = 10.0;
        flow.setField("peak", "a", peak);
        EXPECT_EQ(flow.contour("peak", 5.0).points().size(), nowhere == 62 ? 0U : 6U);
        for (double& row : rows) row = 4 - row;
        for (const char* block : {"a", "b"}) flow.setField("rows", block, rows);
        rows[62] = HUGE_VAL;
        flow.setField("rows", "a", rows);
        const Surface left = flow.contour("rows", 1.5);
        EXPECT_EQ(left.triangles().size(), 56U);
        for (const Point& p : left.points()) EXPECT_TRUE(p == p);
    }
}

// ---- Surfaces -------------------------------------------------------------------------------------------------------

TEST(DataSetTest, ContoursAndSlicesOfTurnedBlocksAreThoseOfTheUncutRing) {
    const DataSet uncut = ring(1, 1);
    const Plane tilted{{0.2, 0.1, 0.7}, {0.4, -1, 0.3}};
    for (unsigned seed = 1; seed < 5; ++seed) {
        const DataSet flow = ring(seed);
        EXPECT_FALSE(flow.joins()->joins().empty());
        const auto compare = [](const Surface& cut, const Surface& whole) {
            EXPECT_GT(whole.triangles().size(), 100U);
            EXPECT_EQ(cut.points().size(), whole.points().size());
            EXPECT_EQ(cut.triangles().size(), whole.triangles().size());
            EXPECT_EQ(cut.borderEdges(), whole.borderEdges());
        };
        compare(flow.contour("wave", 0.3), uncut.contour("wave", 0.3));
        compare(flow.slice(tilted), uncut.slice(tilted));
        const Surface cut = flow.slice(tilted, {"plane", "velocity"});
        // No array of distances is made, and the surface is that of one, bit for bit: beside regular blocks, too.
        DataSet mixed = flow.threshold("wave", -0.6);
        mixed.addUniformBlock("uniform", {9, 70, 8}, {{3, -4, 0}, {4, 4, 1}});
        mixed.addUniformBlock("beside", {5, 70, 8}, {{4, -4, 0}, {5, 4, 1}});
        mixed.addRectilinearBlock("rectilinear", {-4, -3.5, -2.9}, {-1, 0.3, 1}, {2, 1, 0.4, -3});
        const Vector unit = tilted.normal * (1.0 / length(tilted.normal));
        mixed.setField("distance", [&](const Point& p) { return dot(p - tilted.origin, unit); });
        const Surface inside = mixed.slice(tilted, {"distance"});
        EXPECT_EQ(Digest().add(inside).value,
                  Digest().add(mixed.contour("distance", 0.0, {.values = {"distance"}})).value);
        EXPECT_LT(inside.borderEdges(), inside.triangles().size());
        for (std::size_t k = 0; k < cut.points().size(); ++k) {
            EXPECT_NEAR(dot(cut.points()[k] - tilted.origin, tilted.normal), 0.0, 1e-14);
            EXPECT_NEAR(cut.values("plane")[k], plane(cut.points()[k]), 1e-13);
            EXPECT_LT(length(cut.values("velocity").vector(k) - swirl(cut.points()[k])), 1e-13);
        }
    }
}

// All six ends of a block enclose it; in one with holes, a layer has the faces that valid cells have.
TEST(DataSetTest, LayersOfBlocksHaveTheFacesOfValidCells) {
    const auto sixfoldVolume = [](const Surface& layer) {
        double sum = 0;
        for (const auto& t : layer.triangles())
            sum += dot(layer.points()[t[0]] - Point(),
                       cross(layer.points()[t[1]] - Point(), layer.points()[t[2]] - Point()));
        return sum;
    };
    DataSet flow = ring(3);
    const MultiIndex<3> size{4, 5, 6};
    flow.addBlock("rough", distortedBlock(size, 1.0, 0.2, 7));
    flow.addUniformBlock("sheet", {9, 1, 5}, {{0, 0, 0}, {8, 0, 4}});
    flow.setField("plane", plane);
    flow.setField("count", "rough", std::vector<float>(120, 2.5F));
    double ends = 0;
    for (int axis = 0; axis < 3; ++axis)
        for (const bool upper : {false, true}) {
            const Surface end = flow.slice({"rough", axis, upper ? size[axis] - 1 : 0}, {"plane", "count"});
            ends += (upper ? 1 : -1) * sixfoldVolume(end);
            for (std::size_t k = 0; k < end.points().size(); ++k)
                ASSERT_EQ(end.values("plane")[k], plane(end.points()[k]));
            EXPECT_EQ(end.values("count")[0], 2.5);
        }
    DataSet rough;
    rough.addBlock("rough", size, flow.positions("rough"));
    EXPECT_NEAR(ends, sixfoldVolume(rough.boundary()), 1e-9);
    EXPECT_EQ(flow.slice(Vantle::IndexPlane::j("sheet", 0)).triangles().size(), 64U);
    EXPECT_TRUE(flow.slice(Vantle::IndexPlane::i("sheet", 3)).isEmpty());

    const auto cells = MemArray<3, int>::create({3, 4, 5});
    for (index_t n = 0; n < cells->nElements(); ++n) cells->element(n) = n * 7 % 5 > 2;
    flow.setCellMask("rough", cells);
    for (index_t at = 0; at < 4; ++at) {
        std::size_t faces = 0;
        for (index_t k = 0; k < 5; ++k)
            for (index_t j = 0; j < 4; ++j)
                faces += (at > 0 && (*cells)[{at - 1, j, k}]) || (at < 3 && (*cells)[{at, j, k}]);
        const Surface layer = flow.slice(Vantle::IndexPlane::i("rough", at), {"plane"});
        EXPECT_EQ(layer.triangles().size(), 2 * faces);
        for (std::size_t k = 0; k < layer.points().size(); ++k)
            ASSERT_EQ(layer.values("plane")[k], plane(layer.points()[k]));
    }
    const auto errorAt = [&](const Vantle::IndexPlane& at) { return errorOf([&] { (void)flow.slice(at, {"wave"}); }); };
    EXPECT_TRUE(has(errorAt({"rouhg", 0, 0}), "\"rough\""));
    EXPECT_TRUE(has(errorAt({"rough", 1, 5}), "[4x5x6] vertices, and no layer 5 along axis 1"));
    EXPECT_TRUE(has(errorAt({"rough", 3, 0}), "no axis 3"));
    EXPECT_TRUE(has(errorAt({"rough", 1, 0}), "\"wave\" has no values in block \"rough\""));
}

TEST(DataSetTest, ContoursAreOfTheirLevelsAndHaveNormalsAlongTheGradient) {
    const DataSet flow = ring(3);
    const auto surfaces = flow.contours("plane", {0.5, 2.0, 0.5}, {.values = {"plane", "velocity"}, .normals = true});
    const double levels[] = {0.5, 2.0, 0.5};
    const Vector gradient = Vector(2, -3, 0.5) * (1 / length(Vector(2, -3, 0.5)));
    for (std::size_t n = 0; n < 3; ++n) {
        const Surface& surface = surfaces[n];
        ASSERT_GT(surface.triangles().size(), 100U);
        for (std::size_t k = 0; k < surface.points().size(); ++k) {
            EXPECT_NEAR(plane(surface.points()[k]), levels[n], 1e-13);
            EXPECT_NEAR(surface.values("plane")[k], levels[n], 1e-13);
            EXPECT_LT(length(surface.normals().vector(k) - gradient), 1e-10);
        }
        // A second handle, by way of the model.
        EXPECT_EQ(Surface(surface.grid()).points().data(), surface.points().data());
    }
    EXPECT_EQ(surfaces[0].points().size(), surfaces[2].points().size());
    for (const double outside : {-1e3, 1e3, flow.range("plane").greatest + 1e-9}) {
        const Surface empty = flow.contour("plane", outside, {.values = {"wave", "velocity"}, .normals = true});
        EXPECT_TRUE(empty.isEmpty() && empty.isClosed() && empty.hasNormals());
        EXPECT_EQ(empty.values("wave").size(), 0U);
        EXPECT_EQ(empty.values("velocity").components(), 3);
    }
    DataSet ball;
    ball.addUniformBlock("cube", {17, 17, 17}, {{-1, -1, -1}, {1, 1, 1}});
    ball.setField("squares", [](const Point& p) { return dot(p - Point(), p - Point()); });
    EXPECT_TRUE(ball.contour("squares", 0.5).isClosed());
    EXPECT_FALSE(ball.contour("squares", 1.5).isClosed());
    // In one octant there are no numbers: as if that were not there. In the others nothing changes.
    ball.setField("part", [](const Point& p) {
        return p[0] > 0.3 && p[1] > 0.3 && p[2] > 0.3 ? std::nan("") : dot(p - Point(), p - Point());
    });
    const Surface part = ball.contour("part", 0.5), whole = ball.contour("squares", 0.5);
    EXPECT_GT(part.points().size(), whole.points().size() * 3 / 4);
    EXPECT_LT(part.points().size(), whole.points().size());
    for (const Point& p : part.points()) EXPECT_TRUE(p == p);
    // Nor is there any surface beside infinite values, nor beside vertices that are nowhere in another kind of block.
    ball.setField("part", [](const Point& p) {
        return p[0] > 0.3 && p[1] > 0.3 ? (p[2] > 0.3 ? -HUGE_VAL : HUGE_VAL) : dot(p - Point(), p - Point());
    });
    const Surface finite = ball.contour("part", 0.5);
    EXPECT_GT(finite.points().size(), whole.points().size() / 2);
    for (const Point& p : finite.points()) EXPECT_NEAR(dot(p - Point(), p - Point()), 0.5, 0.01);
    std::vector<Point> places = ball.positions("cube");
    for (Point& p : places) p[0] += 3;
    places[8 * (1 + 17 + 17 * 17)][1] = std::nan("");
    ball.addBlock("holed", {17, 17, 17}, places);
    ball.setField("x", [](const Point& p) { return p[0] < 2 ? p[0] : p[0] - 3; });
    const Surface both = ball.contour("x", 0.01);
    EXPECT_EQ(both.points().size(), std::size_t{2 * 17 * 17 - 1});
    for (const Point& p : both.points()) EXPECT_TRUE(p == p);
}

TEST(DataSetTest, ThresholdsBlankAndHullsAndRangesFollow) {
    const DataSet flow = ring(5);
    const DataSet part = flow.threshold("plane", -3.0, 4.0).threshold("wave", -0.2);
    const auto inside = [](const Point& p) { return plane(p) >= -3.0 && plane(p) <= 4.0 && wave(p) >= -0.2; };
    double least = HUGE_VAL;
    for (const auto& block : flow.blocks())
        for (const Point& p : flow.positions(block.name))
            if (inside(p)) least = std::min(least, plane(p));
    EXPECT_GE(part.range("plane").least, least);
    EXPECT_LE(part.range("plane").greatest, 4.0);
    EXPECT_GE(part.range("wave").least, -0.2);
    EXPECT_LT(flow.range("plane").least, -3.0);
    const auto positions = positionsIn(flow, 100, 3);
    const auto all = flow.locate(positions), some = part.locate(positions);
    EXPECT_GT(some.found(), positions.size() / 10);
    EXPECT_LT(some.found(), all.found());
    const auto values = some.sample("wave");
    for (std::size_t k = 0; k < positions.size(); ++k) EXPECT_TRUE(!some.isFound(k) || values[k] >= -0.2 - 1e-12);
    EXPECT_TRUE(part.contour("plane", 4.5).isEmpty());
    const Surface nothing = flow.threshold("plane", 1e9).boundary({"wave", "velocity"});
    EXPECT_TRUE(nothing.isEmpty() && nothing.values("wave").size() == 0 &&
                nothing.values("velocity").components() == 3);
    const Surface cut = part.contour("plane", 1.0);
    EXPECT_FALSE(cut.isEmpty());
    EXPECT_LT(cut.triangles().size(), flow.contour("plane", 1.0).triangles().size());
    EXPECT_TRUE(has(errorOf([&] { (void)flow.threshold("velocity", 0); }), "vector"));
    // What it goes by is that of then, though it is derived, and all that was asked for it changes.
    DataSet steep = ring(5), now = ring(5);
    const DataSet before = steep.threshold("magnitude(gradient(wave))", 1.5), masked = now.threshold("plane", -3.0);
    steep = steep.threshold("magnitude(gradient(wave))", 1.5);
    steep = steep.threshold("plane", -HUGE_VAL);
    now.setVertexMask(now.blocks()[0].name, MemArray<3, int>::create(now.blocks()[0].size));
    EXPECT_EQ(masked.locate(positions).found(), flow.threshold("plane", -3.0).locate(positions).found());
    EXPECT_LT(before.locate(positions).found(), all.found());
    EXPECT_EQ(steep.locate(positions).found(), before.locate(positions).found());

    const Surface hull = flow.boundary({"plane", "velocity"}), whole = ring(5, 1).boundary(), inner = part.boundary();
    EXPECT_TRUE(hull.isClosed() && inner.isClosed());
    EXPECT_EQ(hull.triangles().size(), whole.triangles().size());
    EXPECT_NE(inner.triangles().size(), hull.triangles().size());
    for (std::size_t k = 0; k < hull.points().size(); ++k) EXPECT_EQ(hull.values("plane")[k], plane(hull.points()[k]));
    EXPECT_EQ(hull.values("velocity").components(), 3);
    EXPECT_TRUE(has(errorOf([&] { (void)flow.boundary({"plan"}); }), "\"plane\""));
    EXPECT_EQ(flow.threshold("plane", 1e3).boundary({"plane", "velocity"}).names().size(), 2U); // of nothing
}

// ---- Values elsewhere -----------------------------------------------------------------------------------------------

TEST(DataSetTest, FindsPositionsExactlyAndOnlyInside) {
    DataSet flow = ring(7);
    flow.addUniformBlock("box", {4, 4, 4}, {{5, 0, 0}, {6, 1, 1}});
    flow.setField("wave", "box", std::vector<double>(64, 4.0));
    flow.setField("count", "box", std::vector<int>(64, 3));
    std::vector<Point> positions = positionsIn(flow, 200, 11);
    const std::size_t inside = positions.size();
    for (const Point& p :
         {Point(0, 0, 0.5), Point(5.5, 0.5, 1.1), Point(4.9, 0.5, 0.5), Point(9, 9, 9), Point(std::nan(""), 0, 0)})
        positions.push_back(p);
    const auto at = flow.locate(positions);
    EXPECT_EQ(at.found(), inside);
    const auto linear = at.sample("plane", -99.0), constant = at.sample("wave"), velocity = at.sample("velocity");
    const auto count = at.sample("count");
    for (std::size_t k = 0; k < positions.size(); ++k) {
        EXPECT_EQ(at.isFound(k), k < inside);
        const bool isInBox = k < inside && positions[k][0] >= 5;
        EXPECT_EQ(constant.isFound(k), k < inside);
        EXPECT_EQ(linear.isFound(k), k < inside && !isInBox) << "the box has no such field";
        if (isInBox) {
            EXPECT_DOUBLE_EQ(constant[k], 4.0);
            EXPECT_DOUBLE_EQ(count[k], 3.0);
        } else if (k < inside) {
            EXPECT_NEAR(linear[k], plane(positions[k]), 1e-8);
            EXPECT_LT(length(velocity.vector(k) - swirl(positions[k])), 1e-8);
            EXPECT_FALSE(count.isFound(k));
        } else {
            EXPECT_EQ(linear[k], -99.0);
            EXPECT_TRUE(std::isnan(constant[k]) && std::isnan(velocity.vector(k)[2]));
            EXPECT_EQ(at.blocks()[k], Vantle::Located::Nowhere);
        }
    }
    // Where a vertex is nowhere, the rest of its block is where it was, masks or not.
    DataSet holed;
    std::vector<Point> places = flow.positions("box");
    places.back()[1] = std::nan("");
    holed.addBlock("holed", {4, 4, 4}, places);
    const auto mask = MemArray<3, int>::create({4, 4, 4});
    for (Vantle::index_t n = 0; n < 64; ++n) mask->element(n) = n != 0;
    holed.setVertexMask("holed", mask);
    EXPECT_EQ(holed.locate(std::vector<Point>{{5.5, 0.2, 0.5}, {5.1, 0.1, 0.1}, {5.9, 0.9, 0.9}}).found(), 1U);
    // Small blocks of integers are interpolated as numbers, not as what they are stored in.
    DataSet bytes;
    bytes.addUniformBlock("b", {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}});
    bytes.setField("byte", "b", std::vector<unsigned char>{0, 1, 0, 1, 0, 1, 0, 1});
    EXPECT_DOUBLE_EQ(bytes.locate(std::vector<Point>{{0.25, 0.5, 0.5}}).sample("byte")[0], 0.25);
}

TEST(DataSetTest, LooksAtTimesAndSamplesThemAtTheSamePlaces) {
    DataSet flow = ring(2);
    for (const double time : {2.0, 1.0}) {
        DataSet later = flow.atTime(0.0);
        later.setField("plane", [time](const Point& p) { return plane(p) + 10 * time; });
        flow.addTime(time, later);
    }
    DataSet moved;
    moved.addUniformBlock("box", {3, 3, 3}, {{0, 0, 0}, {1, 1, 1}});
    moved.setField("plane", plane);
    flow.addTime(3.0, moved);
    EXPECT_EQ(flow.times(), (std::vector<double>{0, 1, 2, 3}));
    const double first = flow.range("plane").least;
    EXPECT_DOUBLE_EQ(flow.atTime(1.9).range("plane").least, first + 10);
    EXPECT_EQ(flow.atTime(HUGE_VAL).time(), 3.0);
    EXPECT_EQ(flow.bundle()[2.0]->time(), 2.0);

    const auto positions = positionsIn(flow, 20, 5);
    const auto at = flow.locate(positions);
    const auto now = at.sample("plane"), later = at.atTime(2.5).sample("plane");
    for (std::size_t k = 0; k < positions.size(); ++k) EXPECT_NEAR(later[k], now[k] + 20, 1e-12);
    EXPECT_TRUE(has(errorOf([&] { (void)at.atTime(3.0); }), "locate there again"));
    EXPECT_EQ(flow.atTime(1).grid()->CartesianPositions(), flow.atTime(2).grid()->CartesianPositions());

    // Joins are those of the whole, though the step had others, and was asked by these.
    DataSet apart;
    for (const double x : {0.0, 1.001}) apart.addUniformBlock(std::to_string(x), {3, 3, 3}, {{x, 0, 0}, {x + 1, 1, 1}});
    apart.setField("squares", [](const Point& p) { return p[0] * p[0]; });
    DataSet step = apart;
    Vantle::JoinOptions options;
    options.tolerance = 0.1;
    step.setJoinOptions(options);
    const auto gradientOf = [](const DataSet& of) {
        return Vantle::Values(of.array("gradient(squares)", of.blocks()[0].name));
    };
    const Vantle::Values gradient = gradientOf(apart);
    EXPECT_FALSE(std::ranges::equal(gradientOf(step).numbers(), gradient.numbers()));
    apart.addTime(1.0, step);
    EXPECT_TRUE(std::ranges::equal(gradientOf(apart.atTime(1.0)).numbers(), gradient.numbers()));
}

// Paths through a flow, in the caller's memory.
TEST(DataSetTest, CurvesShareTheirArraysAndTakeValuesAlong) {
    using Vantle::Curves;
    const DataSet flow = ring(5);
    const auto points = std::make_shared<std::vector<Point>>();
    for (int k = 0; k < 150; ++k) points->emplace_back(1.5 * std::cos(k / 100.0), 1.5 * std::sin(k / 100.0), 0.4);
    for (const double r : {1.2, 1.5, 1.8}) points->emplace_back(0.0, r, 0.7);
    const index_t starts[] = {0, 150}, wrong[] = {0, 9, 7};
    const std::vector<std::vector<unsigned int>> crossing{{152, 151, 150}, {}};
    const Curves copied = Curves::consecutive(*points, starts);
    const Curves paths(Vantle::adopt<1>(points, MultiIndex<1>(points->size())), Vantle::makeMemArray1D(crossing));
    EXPECT_EQ(paths.points().data(), points->data());
    EXPECT_EQ(paths[0], (Curves::Numbers{152, 151, 150}));
    EXPECT_NEAR(paths.greatestLength(), 0.6, 1e-15);
    for (const Curves& along : {paths, copied}) {
        const Curves told = along.with("plane", flow.locate(along.points()).sample("plane"));
        EXPECT_TRUE(along.names().empty());
        for (std::size_t k = 0; k < 153; ++k) ASSERT_NEAR(told.values("plane")[k], plane((*points)[k]), 1e-12);
        const Curves seen(told.with("again", told.values("plane")).grid());
        EXPECT_EQ(seen.size(), 2U);
        EXPECT_EQ(seen.points().data(), along.points().data());
        EXPECT_EQ(seen.values("again").numbers().data(), told.values("plane").numbers().data());
    }
    EXPECT_NEAR(copied.arcLengths()[149], 1.5 * 1.49, 1e-4);
    EXPECT_EQ(copied.tangents().vector(152), Vector(0, 1, 0));
    const auto expect = [](const auto& request, const std::string& part) {
        const std::string error = errorOf(request);
        EXPECT_TRUE(has(error, part)) << error;
    };
    expect([&] { (void)Curves(*points, {{0, 1}, {2, 153}}); }, "curve 1 passes through point 153; there are 153");
    expect([&] { (void)Curves::consecutive(*points, wrong); }, "curve 1 begins with point 9 and ends before point 7");
    expect([&] { (void)paths.with("p", Vantle::Values(flow.array("wave", flow.blocks()[0].name))); }, "153 points");
    expect([&] { (void)Curves(flow.contour("wave", 0.3).grid()); }, "no curves");
}

TEST(DataSetTest, ResamplesWithAMaskOfWhatIsOutside) {
    const DataSet flow = ring(4);
    std::vector<double> told;
    const Box box{{-2.1, -2.1, 0.1}, {2.1, 2.1, 1.4}};
    const std::string speed = flow.magnitude("velocity");
    const DataSet image = flow.resample({90, 80, 45}, box, {"plane", "velocity", speed}, [&](double share) {
        told.push_back(share);
        return true;
    });
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()) && told.back() == 1.0);
    const auto points = image.positions("image");
    const auto at = flow.locate(points);
    EXPECT_GT(at.found(), points.size() / 3);
    const auto values = Hestra::dynamicCast<MemArray<3, double>>(image.array("plane", "image"));
    ASSERT_EQ(values->Size(), Place(90, 80, 45));
    const auto speeds = Hestra::dynamicCast<MemArray<3, double>>(image.array(speed, "image"));
    const auto sampled = at.sample(speed); // not derived from the vectors of the image
    for (std::size_t k = 0; k < points.size(); ++k) {
        ASSERT_EQ(std::isnan(values->element(k)), !at.isFound(k)) << k;
        ASSERT_TRUE(!at.isFound(k) || std::abs(values->element(k) - plane(points[k])) < 1e-8);
        ASSERT_TRUE(!at.isFound(k) || speeds->element(k) == sampled[k]);
    }
    EXPECT_EQ(image.range("plane").least, *std::min_element(values->data(), values->data() + values->nElements(),
                                                            [](double a, double b) { return a < b || b != b; }));
    EXPECT_EQ(image.locate(std::vector<Point>{{0, 0, 0.5}, {1.5, 0.2, 0.5}}).found(), 1U); // in the hole, and not
    // A block alone has what it had among the others; its edges are at its corners, and on its hull.
    const DataSet block = flow.threshold("plane", 0.0).block(flow.blocks()[1].name),
                  whole = flow.block(flow.blocks()[1].name);
    EXPECT_EQ(block.blocks().size(), 1U);
    EXPECT_EQ(block.array("velocity", block.blocks()[0].name), flow.array("velocity", flow.blocks()[1].name));
    EXPECT_GE(block.range("plane").least, 0.0);
    EXPECT_TRUE(whole.boundary().isClosed() &&
                block.boundary().triangles().size() < whole.boundary().triangles().size());
    std::size_t vertices = 0;
    for (const auto& edge : whole.edges(whole.blocks()[0].name)) {
        vertices += edge.size();
        for (const Point& p : edge)
            EXPECT_TRUE(std::ranges::count(whole.boundary().points(), p) == 1 && edge.front() != edge.back());
    }
    const auto size = whole.blocks()[0].size;
    EXPECT_EQ(vertices, 4 * (size[0] + size[1] + size[2]));
    EXPECT_TRUE(flow.resample({2, 2, 2}, {{1.1, 1.1, 0.5}, {1.2, 1.2, 0.6}}, {})
                    .grid()
                    ->getCartesianRepresentation()
                    ->findField(Vantle::VertexMaskName) == nullptr);
}

// ---- Derived fields -------------------------------------------------------------------------------------------------

TEST(DataSetTest, DerivesFieldsAcrossJoinedBlocks) {
    const DataSet flow = ring(6), uncut = ring(6, 1);
    const auto at = flow.locate(positionsIn(flow, 50, 9));
    const auto gradient = at.sample(flow.gradient("plane")), curl = at.sample(flow.vorticity("velocity"));
    const auto jacobian = at.sample("gradient(velocity)"), divergence = at.sample(flow.divergence("velocity"));
    const auto q = at.sample(flow.qCriterion("velocity")), size = at.sample("magnitude(vorticity(velocity))");
    ASSERT_EQ(jacobian.components(), 9);
    for (std::size_t k = 0; k < at.size(); ++k) {
        EXPECT_LT(length(gradient.vector(k) - Vector(2, -3, 0.5)), 1e-10);
        EXPECT_LT(length(curl.vector(k) - Vector(0, 0, 3)), 1e-10);
        EXPECT_NEAR(jacobian.numbers()[9 * k + 1], 1.5, 1e-10); // of v along x
        EXPECT_NEAR(divergence[k], 0.25, 1e-10);
        EXPECT_NEAR(q[k], 1.5 * 1.5 - 0.5 * 0.25 * 0.25, 1e-9); // half of (2 * 1.5^2 + 2 * 1.5^2 ... - 0.25^2)
        EXPECT_NEAR(size[k], 3.0, 1e-10);
    }
    // No seam where blocks meet: the contour of a derived field is that of the uncut ring.
    const std::string steepness = flow.magnitude(flow.gradient("wave"));
    const Surface surface = flow.contour(steepness, 1.5), whole = uncut.contour(steepness, 1.5);
    EXPECT_GT(whole.triangles().size(), 100U);
    EXPECT_EQ(surface.triangles().size(), whole.triangles().size());
    EXPECT_EQ(surface.borderEdges(), whole.borderEdges());
    EXPECT_EQ(flow.fields().size(), 3U);
    DataSet changed = flow;
    changed.setField("plane", [](const Point& p) { return 2 * p[0]; });
    EXPECT_NEAR(changed.range("magnitude(gradient(plane))").greatest, 2.0, 1e-10);
    EXPECT_NEAR(flow.range("magnitude(gradient(plane))").greatest, std::sqrt(13.25), 1e-10);
}

// What most files have: points and vectors in single precision, and scalars.
TEST(DataSetTest, TakesSinglePrecisionEverywhere) {
    const std::size_t before = Hestra::Cache::MemCache()->bytes();
    const DataSet ready = ring(11);
    DataSet flow;
    for (const auto& block : ready.blocks()) {
        const auto points = MemArray<3, Vantle::FloatPoint>::create(block.size);
        const auto velocity = MemArray<3, Vantle::FloatVector>::create(block.size);
        std::vector<float> values;
        index_t n = 0;
        for (const Point& p : ready.positions(block.name)) {
            for (int d = 0; d < 3; ++d) points->element(n)[d] = static_cast<float>(p[d]);
            for (int d = 0; d < 3; ++d) velocity->element(n)[d] = static_cast<float>(swirl(p)[d]);
            values.push_back(static_cast<float>(wave(p)));
            ++n;
        }
        flow.addBlock(block.name, points);
        flow.setField("wave", block.name, values);
        flow.setField("velocity", block.name, velocity);
    }
    EXPECT_EQ(flow.blocks().front().kind, Vantle::BlockKind::Curvilinear);
    EXPECT_EQ(flow.joins()->joins().size(), ready.joins()->joins().size());
    const Surface one = flow.contour("wave", 0.3, {.values = {"velocity"}, .normals = true});
    EXPECT_EQ(one.triangles().size(), ready.contour("wave", 0.3).triangles().size());
    for (std::size_t k = 0; k < one.points().size(); ++k)
        ASSERT_LT(length(one.values("velocity").vector(k) - swirl(one.points()[k])), 1e-5);
    EXPECT_EQ(flow.slice(Plane::z(0.33)).triangles().size(), ready.slice(Plane::z(0.33)).triangles().size());
    EXPECT_TRUE(flow.boundary({"velocity"}).isClosed());
    const auto positions = positionsIn(flow, 30, 2);
    const auto at = flow.locate(positions);
    const auto speed = at.sample("magnitude(velocity)"), curl = at.sample("vorticity(velocity)");
    EXPECT_EQ(at.found(), positions.size());
    for (std::size_t k = 0; k < positions.size(); ++k) {
        EXPECT_NEAR(speed[k], length(swirl(positions[k])), 0.02); // of chords of arcs
        EXPECT_NEAR(curl.vector(k)[2], 3.0, 1e-3);
    }
    const DataSet fast = flow.threshold("magnitude(velocity)", 2.0);
    EXPECT_LT(fast.locate(positions).found(), positions.size());
    // Masks and conversions are in the cache of the data set; elsewhere, only boxes of blocks, twice.
    EXPECT_LT(Hestra::Cache::MemCache()->bytes(), before + 200 * flow.blocks().size());
    EXPECT_GT(flow.cache()->bytes(), 0U);
}

// ---- Cancelling, budgets, threads, silence --------------------------------------------------------------------------

using Request = std::function<std::size_t(const DataSet&, const Vantle::Progress&)>;
const std::vector<std::pair<const char*, Request>>& requests() {
    static const std::vector<Point> line = [] {
        std::vector<Point> points;
        for (int k = 0; k < 20000; ++k) points.push_back(Point(2.2 * k / 20000, 0.3, 0.5));
        return points;
    }();
    static const std::vector<std::pair<const char*, Request>> all{
        {"range",
         [](const DataSet& flow, const auto& p) {
             const auto range = flow.range("wave", p);
             return Digest().add(std::array{range.least, range.greatest}).value;
         }},
        {"bounds",
         [](const DataSet& flow, const auto& p) {
             const Box box = flow.bounds(p);
             return Digest().add(std::span(&box.low[0], 3)).add(std::span(&box.high[0], 3)).value;
         }},
        {"contour",
         [](const DataSet& flow, const auto& p) {
             return Digest()
                 .add(flow.contour("wave", 0.2, {.values = {"plane"}, .normals = true, .progress = p}))
                 .value;
         }},
        {"slice",
         [](const DataSet& flow, const auto& p) { return Digest().add(flow.slice(Plane::x(0.1), {"wave"}, p)).value; }},
        {"layer",
         [](const DataSet& flow, const auto& p) {
             const auto block = flow.blocks().front().name;
             return Digest().add(flow.slice(Vantle::IndexPlane::i(block, 1), {"qCriterion(velocity)"}, p)).value;
         }},
        {"boundary",
         [](const DataSet& flow, const auto& p) {
             return Digest().add(flow.threshold("wave", -0.5).boundary({"plane"}, p)).value;
         }},
        {"locate",
         [](const DataSet& flow, const auto& p) {
             const auto at = flow.threshold("magnitude(velocity)", 1.8).locate(line, p);
             Digest digest;
             for (const Point& place : at.places()) digest.add(std::span(&place[0], 3));
             return digest.value;
         }},
        {"sample",
         [](const DataSet& flow, const auto& p) {
             return Digest().add(flow.locate(line).sample("qCriterion(velocity)", 0.0, p).numbers()).value;
         }},
        {"resample",
         [](const DataSet& flow, const auto& p) {
             const DataSet image = flow.resample({50, 50, 10}, {{-2, -2, 0}, {2, 2, 1}}, {"wave"}, p);
             const auto array = Hestra::dynamicCast<MemArray<3, double>>(image.array("wave", "image"));
             return Digest().add(std::span(array->data(), array->nElements())).value;
         }},
    };
    return all;
}

/// The same arrays, and nothing that is known of them.
DataSet anew(const DataSet& flow) {
    DataSet made;
    const auto positions = flow.grid()->CartesianPositions();
    for (const auto& block : flow.blocks()) {
        made.addBlock(block.name, positions->getData(positions->getFragmentID(block.name)));
        for (const auto& field : flow.fields())
            made.setField(field.name, block.name, flow.array(field.name, block.name));
    }
    return made;
}

// Of many blocks, and of one: at whatever word it is cancelled, also while something is derived, masked or built.
TEST(DataSetTest, CanBeCancelledAnywhereAndIsAsItWas) {
    DataSet large;
    large.addBlock("large", oGrid({97, 49, 33}));
    large.setField("wave", wave);
    large.setField("plane", plane);
    large.setField("velocity", swirl);
    for (const DataSet& base : {ring(8), large})
        for (const auto& [name, request] : requests()) {
            omp_set_num_threads(base.blocks().size() == 1 ? 1 : omp_get_num_procs());
            SCOPED_TRACE(name + std::to_string(base.blocks().size()));
            const std::size_t result = request(anew(base), {});
            std::set<double> shares;
            DataSet flow = anew(base);
            bool isCancelled = true;
            for (int words = 0; isCancelled; words = 2 * words + 1) {
                int left = words;
                double before = 0.0;
                isCancelled = false;
                try {
                    EXPECT_EQ(request(flow,
                                      [&](double share) {
                                          EXPECT_GE(share, before);
                                          EXPECT_LE(share, 1.0);
                                          shares.insert(before = share);
                                          return left-- > 0;
                                      }),
                              result);
                    EXPECT_EQ(before, 1.0);
                } catch (const Vantle::Cancelled&) {
                    isCancelled = true;
                    EXPECT_EQ(flow.fields().size(), 3U);
                    flow.cache()->clear();
                }
                if (words % 4 == 1) {
                    EXPECT_EQ(request(flow, {}), result);
                    flow = anew(base);
                }
            }
            EXPECT_GT(shares.size(), base.blocks().size() == 1 ? 4U : 2U);
            // What a caller's function throws comes back as it is.
            EXPECT_THROW(request(anew(base), [](double) -> bool { throw std::invalid_argument("mine"); }),
                         std::invalid_argument);
        }
}

TEST(DataSetTest, AnswersAnyNumberOfThreadsAsItAnswersOneWithoutAWord) {
    std::vector<std::size_t> expected;
    for (const auto& [name, request] : requests()) expected.push_back(request(ring(9), {}));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (int round = 0; round < 3; ++round) {
        const DataSet flow = ring(9);
        std::vector<std::thread> threads;
        std::vector<std::vector<std::size_t>> answers(4);
        for (std::size_t t = 0; t < answers.size(); ++t)
            threads.emplace_back([&flow, t, &answer = answers[t]] {
                DataSet mine = flow; // changed meanwhile
                for (std::size_t n = 0; n < requests().size(); ++n) {
                    mine.setField("other" + std::to_string(n), plane);
                    answer.push_back(requests()[(n + t) % requests().size()].second(n % 2 ? flow : mine, {}));
                }
            });
        for (std::thread& thread : threads) thread.join();
        for (std::size_t t = 0; t < answers.size(); ++t)
            for (std::size_t n = 0; n < expected.size(); ++n)
                EXPECT_EQ(answers[t][n], expected[(n + t) % expected.size()])
                    << requests()[(n + t) % expected.size()].first;
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(DataSetTest, KeepsToItsBudgetAndSaysWhatCannotBeMade) {
    const DataSet ready = ring(10);
    DataSet lazy;
    std::atomic<int> made{0};
    std::atomic<bool> isBroken{false};
    const auto creator = [&](const Hestra::StrongPtr<Vantle::MemBase>& array) {
        return Hestra::StrongPtr<Vantle::CreativeArrayBase>(new Vantle::CreativeArray(
            [&, array](const Hestra::WeakPtr<Vantle::CreativeArrayBase>& by) -> Hestra::StrongPtr<Vantle::MemBase> {
                ++made;
                if (isBroken) return nullptr;
                return dynamic_cast<const Vantle::MemArrayBase<3>&>(*array).createSubArray(
                    {}, *array->getDynamicSize().as<3>(), by);
            },
            array->elementIndex(), array->getDynamicSize(), lazy.cache()));
    };
    std::size_t largest = 0;
    for (const auto& block : ready.blocks()) {
        const auto points = Block::makeMemArray(ready.positions(block.name), block.size);
        largest = std::max(largest, points->memsize());
        lazy.addBlock(block.name, creator(points.strong()));
        for (const char* field : {"wave", "plane", "velocity"})
            lazy.setField(field, block.name, creator(ready.array(field, block.name)));
    }
    EXPECT_EQ(made, 0);
    lazy.memoryBudget(largest * 3 / 2);
    for (const auto& [name, request] : requests()) {
        EXPECT_EQ(request(lazy, {}), request(ready, {})) << name;
        // What the last insertion brought stays, however large.
        EXPECT_LE(lazy.cache()->bytes(), 3 * largest) << name;
    }
    EXPECT_GT(made, 30);
    // More than is held at a time: one block after the other, whatever the order of the positions.
    DataSet large;
    std::vector<Point> positions;
    for (int b = 0; b < 4; ++b) {
        const std::string name(1, char('a' + b));
        large.addUniformBlock(name, {130, 130, 130}, {{2.0 * b, 0, 0}, {2.0 * b + 1, 1, 1}});
        const auto fill = [b](const Hestra::WeakPtr<Vantle::CreativeArrayBase>& by) {
            const auto values = MemArray<3, double>::create({130, 130, 130}, by);
            std::fill_n(values->getPtr(), values->nElements(), b);
            return Hestra::StrongPtr<Vantle::MemBase>(values);
        };
        large.setField("b", name,
                       Hestra::StrongPtr<Vantle::CreativeArrayBase>(
                           new Vantle::CreativeArray(fill, typeid(double), Place(130, 130, 130), large.cache())));
    }
    for (int k = 0; k < 5000; ++k) positions.push_back(Point(2.0 * (k * 7 % 5) + 0.3, 0.5, k / 5000.0));
    large.memoryBudget(20'000'000);
    const auto sorted = large.locate(positions).sample("b", -1.0);
    for (std::size_t k = 0; k < positions.size(); ++k) {
        const int b = int(k * 7 % 5);
        ASSERT_NEAR(sorted[k], b == 4 ? -1.0 : b, 1e-12);
        ASSERT_EQ(sorted.isFound(k), b != 4);
    }
    EXPECT_LT(large.cache()->bytes(), 40'000'000U);

    lazy.cache()->clear();
    isBroken = true;
    const DataSet fresh = lazy.atTime(0);
    for (const char* what : {"plane", "magnitude(gradient(plane))"}) {
        const std::string error = errorOf([&] { (void)fresh.range(what); });
        EXPECT_TRUE(has(error, what) && has(error, "block")) << error;
    }
    // A mask that cannot be made is not one that all vertices pass.
    const DataSet masked = anew(ready);
    const auto mask = Hestra::makeRef<Vantle::Field>(masked.grid()->CartesianPositions()->getFragmentIDCollection());
    const std::string block = ready.blocks()[1].name;
    mask->setCreator(creator(MemArray<3, int>::create(ready.blocks()[1].size).strong()),
                     masked.grid()->CartesianPositions()->getFragmentID(block));
    masked.grid()->getCartesianRepresentation()->setField(Vantle::VertexMaskName, mask);
    testing::internal::CaptureStderr();
    for (const auto& [name, request] : requests()) {
        const std::string error = errorOf([&, &ask = request] { (void)ask(masked, {}); });
        EXPECT_TRUE(std::string(name) == "layer" || (has(error, "Mask") && has(error, block))) << name << ": " << error;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    isBroken = false;
    EXPECT_LT(masked.locate(positionsIn(ready, 20, 1)).found(), 20 * ready.blocks().size());
}

// ---- Files ----------------------------------------------------------------------------------------------------------

class DataSetFilesTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(folder); }
    void TearDown() override { std::filesystem::remove_all(folder); }
    std::filesystem::path store(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return folder / name;
    }
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / ("DataSet" + std::to_string(getpid()));
};

/// A data set as files: "wave" as density, at two times.
TEST_F(DataSetFilesTest, AreReadWhenNeededAndSaidToBeGoneThen) {
    const DataSet ready = ring(3);
    const Vantle::Plot3DForm form{.multiBlock = true, .scalar = Vantle::Plot3DScalar::float64};
    std::vector<Plot3DBlock> grid;
    std::vector<Plot3DSolutionBlock> flow[2];
    for (const auto& block : ready.blocks()) {
        const std::array extents{int(block.size[0]), int(block.size[1]), int(block.size[2])};
        Plot3DBlock& at = grid.emplace_back();
        at.extents = extents;
        for (int step = 0; step < 2; ++step) {
            Plot3DSolutionBlock& state = flow[step].emplace_back();
            state.extents = extents;
            state.time = step == 0 ? 2.5 : 0.5;
            for (const Point& p : ready.positions(block.name)) {
                const double values[] = {wave(p) + 3 + step, 1.0, p[0], 0.0, 9.0};
                for (std::size_t f = 0; f < 5; ++f) state.fields[f].values.push_back(values[f]);
                if (step == 1) continue;
                at.x.push_back(p[0]);
                at.y.push_back(p[1]);
                at.z.push_back(p[2]);
            }
        }
    }
    const auto xyz = store("ring.xyz", gridBytes(form, grid));
    const auto late = store("late.q", solutionBytes(form, flow[0])),
               early = store("early.q", solutionBytes(form, flow[1]));
    const DataSet read = DataSet::read({xyz, late, early});
    EXPECT_EQ(read.cache()->bytes(), 0U);
    EXPECT_EQ(read.times(), (std::vector<double>{0.5, 2.5}));
    EXPECT_EQ(read.blocks()[1].name, "block2");
    EXPECT_EQ(read.cache()->bytes(), 0U) << "nothing was needed yet";
    const Surface cut = read.atTime(2.5).contour("density", 3.3), same = ready.contour("wave", 0.3);
    EXPECT_EQ(cut.points().size(), same.points().size());
    EXPECT_EQ(cut.borderEdges(), same.borderEdges());
    EXPECT_NEAR(read.range("density").least, ready.range("wave").least + 4, 1e-12);
    EXPECT_EQ(read.locate(std::vector<Point>{{1.5, 0.2, 0.5}}).atTime(9.0).sample("momentum").components(), 3);

    cut.write(folder / "cut.vtp");
    read.write(folder / "ring.vtm", {"density", "magnitude(velocity)"});
    EXPECT_GT(std::filesystem::file_size(folder / "cut.vtp"), 1000U);
    EXPECT_TRUE(std::filesystem::exists(folder / "ring.vtm"));
    EXPECT_TRUE(has(errorOf([&] { read.write(folder / "x.vtm", {"densty"}); }), "\"density\""));
    EXPECT_THROW((void)DataSet::read({xyz, late, late}), DataSetError);
    EXPECT_THROW((void)DataSet::read({folder / "none.xyz"}), Vantle::FileError);
    flow[1][0].time = std::nan("");
    const auto never = store("never.q", solutionBytes(form, flow[1]));
    EXPECT_TRUE(has(errorOf([&] { (void)DataSet::read({xyz, never}); }), "the time is no number"));

    // Shorter by one block: what is to be read again says so, and names the file; what was read stays.
    const DataSet fresh = DataSet::read({xyz, late}),
                  elsewhere = DataSet::read({store("gone.xyz", gridBytes(form, grid))});
    std::filesystem::remove(folder / "gone.xyz");
    EXPECT_TRUE(has(errorOf([&] { (void)elsewhere.positionArray("block1"); }), "gone.xyz"));
    (void)fresh.bounds();
    store("late.q", solutionBytes(form, {flow[0].begin(), flow[0].end() - 1}));
    const auto at = fresh.locate(ready.positions(ready.blocks().front().name));
    EXPECT_EQ(at.found(), at.size());
    const std::vector<std::function<void()>> needing{
        [&] { (void)fresh.range("density"); },
        [&] { (void)fresh.contour("density", 3.3); },
        [&] { (void)at.sample("density"); },
        [&] { (void)at.sample("gradient(density)"); },
        [&] { (void)fresh.slice(Plane::z(0.6), {"vorticity(velocity)"}); },
        [&] { (void)fresh.boundary({"density"}); },
        [&] {
            (void)fresh.resample({9, 9, 9}, {{-2, -2, 0}, {2, 2, 1}}, {"density"});
        },
        [&] { fresh.write(folder / "fresh.vtm"); },
        [&] { (void)fresh.threshold("density", 3.0).boundary(); },
        [&] { (void)fresh.threshold("density", 3.0).block("block1").bounds(); },
    };
    testing::internal::CaptureStderr();
    for (std::size_t n = 0; n < needing.size(); ++n) {
        const std::string error = errorOf(needing[n]);
        EXPECT_TRUE(has(error, "late.q")) << n << ": " << error;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(std::filesystem::exists(folder / "fresh.vtm"));
    EXPECT_GT(read.atTime(2.5).range("density").greatest, 3.0);
    EXPECT_FALSE(fresh.slice(Plane::z(0.6)).isEmpty());
}

// ---- Real data ------------------------------------------------------------------------------------------------------

TEST(DataSetTest, TheBluntFinInTurnedBlocksIsTheBluntFin) {
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) GTEST_SKIP() << "no real data";
    std::mt19937_64 random(12);
    CutGrid cut(*block, turned(cutAtPlanes(block->Size(), {{{20}, {16}, {16}}}), random));
    cut.setField("density", *bluntFinDensity(VANTLE_TEST_DATA));
    const DataSet flow(cut.grid);
    ASSERT_EQ(flow.blocks().size(), 8U);
    const Surface shock = flow.contour("density", 2.0);
    EXPECT_EQ(shock.points().size(), 1783U);
    EXPECT_EQ(shock.borderEdges(), 214U);

    DataSet whole;
    whole.addBlock("fin", block);
    whole.setField("density", "fin", bluntFinDensity(VANTLE_TEST_DATA));
    EXPECT_EQ(whole.contour("density", 2.0).points().size(), shock.points().size());
    EXPECT_EQ(whole.bounds().high, flow.bounds().high);
    const Box box{{-1, 0.1, 0.1}, {3, 3, 2}};
    const DataSet one = whole.resample({40, 30, 20}, box, {"density"}),
                  other = flow.resample({40, 30, 20}, box, {"density"});
    const Vantle::Values a(one.array("density", "image")), b(other.array("density", "image"));
    ASSERT_EQ(a.size(), 40U * 30U * 20U);
    std::size_t inside = 0;
    for (std::size_t n = 0; n < a.size(); ++n) {
        ASSERT_EQ(std::isnan(a[n]), std::isnan(b[n]));
        if (std::isnan(a[n])) continue;
        ASSERT_NEAR(a[n], b[n], 1e-9);
        ++inside;
    }
    EXPECT_GT(inside, 5000U);
}

} // namespace
