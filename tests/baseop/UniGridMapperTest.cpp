#include "support/RoughBlocks.hpp"

#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>
#include <model/hestra/Console.hpp>
#include <model/orvix/CellMap.hpp>

#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace support;
using Vantle::MultiIndex;
using Vector = Orvix::PhysicalSpace::vector;

constexpr double Epsilon = 0.02;

/// The solve in one cell, written down plainly with the interpolation kernels.
bool plainSolve(Point& uvw, const Point& P, const MultiIndex<3>& cell, const Block& vertices, double precision) {
    Point at;
    for (int d = 0; d < 3; ++d) at[d] = static_cast<double>(cell[d]) + 0.5;
    Point X = Vantle::interpolateAt<3, Point>(vertices, at);
    if (normSquared(P - X) <= precision * precision) {
        uvw = at;
        return true;
    }
    const auto vectors = Vantle::asVectors<3>(vertices);
    Orvix::Quadratic<3, double> inverse;
    int count = 0;
    do {
        const Vector a = Vantle::differentiateAt<0>(vectors, at), b = Vantle::differentiateAt<1>(vectors, at),
                     c = Vantle::differentiateAt<2>(vectors, at);
        try {
            inverse = Orvix::invert3x3(a, b, c);
        } catch (const Orvix::DegeneratedMatrix&) {
            Hestra::Console::puts("WHAT?");
        }
        const Vector step = inverse * (P - X);
        at += step;
        Vector move;
        for (int d = 0; d < 3; ++d) move[d] = a[d] * step[0] + b[d] * step[1] + c[d] * step[2];
        X += move;
        for (int d = 0; d < 3; ++d)
            if (!std::isfinite(at[d]) || !std::isfinite(X[d])) {
                const double nan = std::numeric_limits<double>::quiet_NaN();
                uvw = Point(nan, nan, nan);
                return false;
            }
        for (int d = 0; d < 3; ++d)
            if (at[d] < static_cast<double>(cell[d]) || at[d] > static_cast<double>(cell[d]) + 1.0) {
                uvw = at;
                return false;
            }
        if (++count == 102) {
            Hestra::Console::print("getLocalCoordinates3D(): Prevented endless loop BREAK!\n");
            return false;
        }
    } while (normSquared(P - X) > precision * precision);
    uvw = at;
    return true;
}

/// The query, written down plainly: every cell of the list is tried.
unsigned int plainQuery(const UniGridMapper& mapper, const Point& P, Point& uvw, double epsilon) {
    UniGridMapper::IndexList_t list;
    if (!mapper.curviCells(P, list)) return 0;
    const Block& vertices = *mapper.coordinates();
    std::vector<UniGridMapper::DistPoint_t> nearMisses;
    for (const MultiIndex<3>& cell : list) {
        if (plainSolve(uvw, P, cell, vertices, mapper.precision())) return 1;
        Point floors;
        if (uvw[0] >= 0 && uvw[1] >= 0 && uvw[2] >= 0)
            floors = Point(std::floor(uvw[0]), std::floor(uvw[1]), std::floor(uvw[2]));
        bool isNear = true;
        double dist = 0.0;
        for (int d = 0; d < 3; ++d) {
            const double from = floors[d] - static_cast<double>(cell[d]), f = uvw[d] - floors[d];
            isNear = isNear && -epsilon < uvw[d] && uvw[d] < static_cast<double>(vertices.Size()[d]) - 1.0 + epsilon &&
                     (from == 0.0 || from == 1.0);
            dist += std::min(f, 1.0 - f);
        }
        if (isNear) nearMisses.push_back({dist, uvw, cell});
    }
    if (nearMisses.empty()) return 0;
    uvw = nearMisses.front().uvw;
    return 2;
}

struct Answers {
    std::vector<unsigned int> codes;
    std::vector<Point> uvw;
    std::string output;
    int of(unsigned int code) const { return static_cast<int>(std::count(codes.begin(), codes.end(), code)); }
};

template<class Query>
Answers ask(const std::vector<Point>& points, Query&& query) {
    Answers answers;
    testing::internal::CaptureStdout();
    for (const Point& p : points) {
        Point uvw(-1, -1, -1);
        answers.codes.push_back(query(p, uvw));
        answers.uvw.push_back(uvw);
    }
    answers.output = testing::internal::GetCapturedStdout();
    return answers;
}

std::string captured(auto&& f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

std::unique_ptr<UniGridMapper> makeMapper(const BlockPtr& block, double resolution = 1.0, double precision = 0.01) {
    std::unique_ptr<UniGridMapper> mapper;
    captured([&] { mapper = std::make_unique<UniGridMapper>(block, resolution, precision); });
    return mapper;
}

/// Asks a mapper in all ways; of the plain one last, which looks into lists. Returns how many answers were left open.
int expectPlainAnswers(const UniGridMapper& mapper, const std::vector<Point>& points, double epsilon,
                       const std::string& name) {
    const Answers fast = ask(
        points, [&](const Point& p, Point& uvw) { return mapper.localCellCoordinatesFromCurviGrid(p, uvw, epsilon); });
    const Answers brief = ask(points, [&](const Point& p, Point& uvw) { return mapper.locate(p, uvw, epsilon); });
    std::vector<Point> silentUvw(points.size(), Point(-1, -1, -1));
    std::vector<unsigned char> silentCodes(points.size());
    EXPECT_EQ(captured([&] { mapper.locateSilently(points, silentUvw, silentCodes, epsilon); }), "") << name;
    const Answers plain = ask(points, [&](const Point& p, Point& uvw) { return plainQuery(mapper, p, uvw, epsilon); });
    int undecided = 0;
    for (std::size_t k = 0; k < points.size(); ++k) {
        EXPECT_EQ(fast.codes[k], plain.codes[k]) << name << " at " << points[k];
        EXPECT_TRUE(same(fast.uvw[k], plain.uvw[k]))
            << name << " at " << points[k] << ": " << fast.uvw[k] << " instead of " << plain.uvw[k];
        const Point found = plain.codes[k] ? plain.uvw[k] : Point(-1, -1, -1);
        EXPECT_EQ(brief.codes[k], plain.codes[k]) << name << " at " << points[k];
        EXPECT_TRUE(same(brief.uvw[k], found)) << name << " at " << points[k];
        if (silentCodes[k] == UniGridMapper::Undecided) {
            ++undecided;
        } else {
            EXPECT_EQ(silentCodes[k], plain.codes[k]) << name << " at " << points[k];
            EXPECT_TRUE(silentCodes[k] == 0 || same(silentUvw[k], found)) << name << " at " << points[k];
        }
        if (testing::Test::HasFailure()) return undecided;
    }
    EXPECT_EQ(fast.output.size(), plain.output.size()) << name;
    EXPECT_TRUE(fast.output == plain.output) << name;
    EXPECT_TRUE(brief.output == plain.output) << name;
    return undecided;
}

// The search that skips most cells of a list, and the walk through all of them.
TEST(UniGridMapperTest, AnswersAsThePlainWalk) {
    unsigned seed = 100;
    for (const auto& [name, block] : roughBlocks())
        for (const double precision : {0.01, 30.0, 0.0}) {
            std::unique_ptr<UniGridMapper> mapper;
            try {
                mapper = makeMapper(block, 1.0, precision);
            } catch (const std::length_error&) {
                testing::internal::GetCapturedStdout();
                continue; // an infinite box
            }
            expectPlainAnswers(*mapper, probes(*block, 100, ++seed), Epsilon, name);
        }
}

TEST(UniGridMapperTest, AnswersAsThePlainWalkOnRandomBlocks) {
    std::mt19937_64 random(17);
    int found = 0, near = 0;
    for (unsigned round = 0; round < 60; ++round) {
        const auto pick = [&](double low, double high) {
            return std::uniform_real_distribution<double>(low, high)(random);
        };
        const MultiIndex<3> n(2 + random() % 8, 2 + random() % 8, 2 + random() % 8);
        const double edge = std::pow(10.0, pick(-3.2, 2.0));
        const BlockPtr block = distortedBlock(n, edge, pick(0.0, 1.0), round);
        const Vector stretch(1.0, pick(0.01, 1.0), pick(0.001, 1.0));
        for (Vantle::index_t k = 0; k < block->nElements(); ++k)
            for (int d = 0; d < 3; ++d) block->element(k)[d] *= stretch[d];
        const auto mapper = makeMapper(block, pick(0.2, 2.0), pick(0.0, 1.0));
        const std::vector<Point> points = probes(*block, 300, round);
        const double epsilon = round % 3 ? Epsilon : pick(-0.5, 3.0);
        expectPlainAnswers(*mapper, points, epsilon, "round " + std::to_string(round));
        const Answers answers = ask(points, [&](const Point& p, Point& uvw) {
            return mapper->localCellCoordinatesFromCurviGrid(p, uvw, epsilon);
        });
        found += answers.of(1);
        near += answers.of(2);
    }
    // The rounds are of no use unless all kinds of answers occur.
    EXPECT_GT(found, 1000);
    EXPECT_GT(near, 100);
}

TEST(UniGridMapperTest, AnswersAsThePlainWalkOnTheBluntFin) {
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) GTEST_SKIP() << "no real data";
    const auto mapper = makeMapper(block);
    std::vector<Point> points = probes(*block, 400, 5);
    for (const Point& index : randomIndices(*block, 1500, 6)) points.push_back(positionIn(*block, index));
    EXPECT_LT(expectPlainAnswers(*mapper, points, Epsilon, "blunt fin"), 40);
}

// Points in small boxes, which share their searches, in blocks with hundreds of groups of cells.
TEST(UniGridMapperTest, NeighboursAnswerAsEachByItself) {
    std::mt19937_64 random(23);
    for (const Shape& shape : shapes()) {
        const BlockPtr block = makeBlock(shape, {34, 29, 25});
        const auto mapper = makeMapper(block), other = makeMapper(block);
        int undecided = 0, codes[4] = {};
        for (const Point& index : randomIndices(*block, 60, 29)) {
            const double width = std::pow(10.0, std::uniform_real_distribution<double>(-2, 1)(random));
            std::uniform_real_distribution<double> off(-0.5 * width, 0.5 * width);
            const Point centre = positionIn(*block, index);
            const Point next = positionIn(*block, Point(std::max(index[0] - 1, 0.0), index[1], index[2]));
            const double edge = support::distance(centre, next);
            std::vector<Point> points;
            for (int k = 0; k < 150; ++k)
                points.push_back(Point{centre[0] + edge * off(random), centre[1] + edge * off(random),
                                       centre[2] + edge * off(random)});
            std::vector<Point> uvw(points.size());
            std::vector<unsigned char> silent(points.size());
            mapper->locateSilently(points, uvw, silent, Epsilon);
            (void)captured([&] {
                for (std::size_t k = 0; k < points.size(); ++k) {
                    Point expected;
                    const unsigned int code = other->locate(points[k], expected, Epsilon);
                    ++codes[silent[k]];
                    if (silent[k] == UniGridMapper::Undecided) {
                        undecided += other->boundingBox().inside(points[k]);
                        continue;
                    }
                    EXPECT_EQ(silent[k], code) << shape.name << points[k];
                    EXPECT_TRUE(code == 0 || same(uvw[k], expected)) << shape.name << points[k];
                }
            });
        }
        EXPECT_EQ(undecided, 0) << shape.name;
        EXPECT_GT(codes[1], 5000) << shape.name;
    }
}

// Each point is made from a known cell, so the right answer is known.
TEST(UniGridMapperTest, FindsTheCellAPointWasMadeFrom) {
    for (const Shape& shape : shapes()) {
        const BlockPtr block = makeBlock(shape, {17, 14, 12});
        const auto mapper = makeMapper(block);
        int codes[3] = {};
        for (const Point& index : randomIndices(*block, 2000, 7)) {
            Point uvw(-1, -1, -1);
            const unsigned int code =
                mapper->localCellCoordinatesFromCurviGrid(positionIn(*block, index), uvw, Epsilon);
            ++codes[code];
            // One linear step: parallelepipeds are exact, other cells to first order in their distortion.
            if (code != 0) {
                EXPECT_LT(support::distance(uvw, index), shape.isAffine ? 1e-9 : 0.2) << shape.name;
            }
        }
        // At curved borders of the block a cell and its linear form differ.
        EXPECT_LE(codes[0], shape.isAffine ? 0 : 20) << shape.name;
        EXPECT_GE(codes[1], 1950) << shape.name;
    }
}

// x = u + u v in one cell: the linear step from the centre gives 0.41666..., not 0.4.
TEST(UniGridMapperTest, TakesOneLinearStep) {
    const auto block = Block::create({2, 2, 2});
    MultiIndex<3> i;
    do {
        const double u = static_cast<double>(i[0]), v = static_cast<double>(i[1]), w = static_cast<double>(i[2]);
        (*block)[i] = Point(u + u * v, v, w);
    } while (i.advance(block->Size()));
    Point uvw;
    ASSERT_TRUE(UniGridMapper::localCellCoordinatesFromCell(uvw, Point(0.5, 0.25, 0.5), MultiIndex<3>(), *block,
                                                            {1, 1, 1}, 1e-6));
    EXPECT_DOUBLE_EQ(uvw[0], 0.5 - 0.25 / 1.5 + 0.125 / 1.5);
    EXPECT_DOUBLE_EQ(uvw[1], 0.25);
    // Within the precision of the centre's image no step is taken.
    ASSERT_TRUE(UniGridMapper::localCellCoordinatesFromCell(uvw, Point(0.76, 0.5, 0.5), MultiIndex<3>(), *block,
                                                            {1, 1, 1}, 0.011));
    EXPECT_EQ(uvw, Point(0.5, 0.5, 0.5));
}

TEST(UniGridMapperTest, SolvesAsWrittenDownPlainly) {
    for (const RoughBlock& rough : roughBlocks()) {
        const std::string& name = rough.name;
        const BlockPtr& block = rough.block;
        if (block->Size()[1] < 2) continue;
        std::mt19937_64 random(3);
        for (const Point& p : probes(*block, 60, 9)) {
            // Cells on the upper border have no upper neighbours, and are the caller's mistake.
            const MultiIndex<3> cell(random() % block->Size()[0], random() % block->Size()[1],
                                     random() % block->Size()[2]);
            Point plain(-1, -1, -1), fast = plain;
            bool isFound = false, isFoundPlainly = false;
            const std::string said = captured([&] {
                isFound = UniGridMapper::localCellCoordinatesFromCell(fast, p, cell, *block, block->Size() - 1, 1e-3);
            });
            const std::string saidPlainly =
                captured([&] { isFoundPlainly = plainSolve(plain, p, cell, *block, 1e-3); });
            EXPECT_EQ(isFound, isFoundPlainly) << name << cell[0];
            EXPECT_TRUE(same(fast, plain)) << name << fast << plain;
            EXPECT_EQ(said, saidPlainly) << name;
        }
    }
}

TEST(UniGridMapperTest, MeasuresAndListsAsWrittenDownPlainly) {
    for (const RoughBlock& rough : roughBlocks()) {
        const std::string& name = rough.name;
        const BlockPtr& block = rough.block;
        if (name == "infinite" || name == "no cells") continue;
        const MultiIndex<3> n = block->Size();
        Orvix::BoundingBox box;
        double s = normSquared((*block)(0, 0, 0) - (*block)(1, 0, 0));
        MultiIndex<3> I;
        do {
            const Point p = (*block)[I];
            box.embrace(p);
            if (!(I + 1).inside(n)) continue;
            s = (normSquared(p - (*block)[I + MultiIndex<3>(1, 0, 0)]) + s) * 0.5;
            s = (normSquared(p - (*block)[I + MultiIndex<3>(0, 1, 0)]) + s) * 0.5;
            s = (normSquared(p - (*block)[I + MultiIndex<3>(0, 0, 1)]) + s) * 0.5;
        } while (I.advance(n));
        const auto mapper = makeMapper(block);
        const double precision = 0.01 * 0.01 * std::sqrt(s);
        EXPECT_TRUE(mapper->precision() == precision || (std::isnan(precision) && std::isnan(mapper->precision())))
            << name;
        std::map<MultiIndex<3>, std::vector<MultiIndex<3>>> lists;
        int coarse = 0;
        for (int d = 0; d < 3; ++d) {
            const double v = (box.maxCoord()[d] - box.minCoord()[d]) * (1.2 / std::sqrt(s));
            coarse += !(v >= 2);
            EXPECT_EQ(mapper->unigridSize()[d], v >= 2 ? static_cast<Vantle::index_t>(v) : 2) << name;
        }
        std::size_t longest = 0;
        const std::string output = captured([&] { UniGridMapper again(block, 1.0, 0.01); });
        std::string expected;
        for (int k = 0; k < coarse; ++k)
            expected += "baseop/UniGridMapperUNIGRIDMAPPER WARNING: Resolution too coarse\n";
        const std::string rejected = captured([&] {
            MultiIndex<3> C;
            do {
                Orvix::BoundingBox cell;
                for (const auto& corner :
                     {MultiIndex<3>(0, 0, 0), MultiIndex<3>(1, 0, 0), MultiIndex<3>(1, 1, 0), MultiIndex<3>(0, 1, 0),
                      MultiIndex<3>(1, 0, 1), MultiIndex<3>(1, 1, 1), MultiIndex<3>(0, 1, 1), MultiIndex<3>(0, 0, 1)})
                    cell.embrace((*block)[C + corner]);
                MultiIndex<3> low, high;
                if (!mapper->inUniCell(cell.minCoord(), low) || !mapper->inUniCell(cell.maxCoord(), high)) continue;
                for (auto z = low[2]; z <= high[2]; ++z)
                    for (auto y = low[1]; y <= high[1]; ++y)
                        for (auto x = low[0]; x <= high[0]; ++x) {
                            auto& list = lists[MultiIndex<3>(x, y, z)];
                            list.push_back(C);
                            longest = std::max(longest, list.size());
                        }
            } while (C.advance(n - 1));
        });
        expected += rejected + "Added the curvi cells into the unigrid, Maximal " + std::to_string(longest) +
                    " curvicells per unicell\n";
        EXPECT_EQ(output, expected) << name;
        EXPECT_EQ(static_cast<std::size_t>(mapper->maximalListLength()), longest) << name;
        captured([&] {
            for (const Point& p : probes(*block, 300, 11)) {
                UniGridMapper::IndexList_t list{MultiIndex<3>(99, 99, 99)};
                MultiIndex<3> unicell;
                const bool isInside = mapper->inUniCell(p, unicell);
                const bool hasList = mapper->curviCells(p, list);
                const std::vector<MultiIndex<3>> entries(list.begin(), list.end());
                EXPECT_EQ(entries, isInside ? lists[unicell] : std::vector<MultiIndex<3>>(1, MultiIndex<3>(99, 99, 99)))
                    << name;
                EXPECT_EQ(hasList, isInside && !entries.empty()) << name;
            }
        });
    }
}

TEST(UniGridMapperTest, MapsTheBoxWithItsMaximum) {
    const BlockPtr block = makeBlock(shapes()[0], {5, 6, 7});
    const auto mapper = makeMapper(block);
    MultiIndex<3> unicell;
    EXPECT_TRUE(mapper->inUniCell(mapper->boundingBox().minCoord(), unicell));
    EXPECT_EQ(unicell, MultiIndex<3>());
    EXPECT_TRUE(mapper->inUniCell(mapper->boundingBox().maxCoord(), unicell));
    EXPECT_EQ(unicell, mapper->unigridSize() - 1);
    Point outside = mapper->boundingBox().maxCoord();
    outside[1] = std::nextafter(outside[1], 1e9);
    Point uvw(7, 7, 7);
    const std::string message = "UniGridMapper::inUniCell() point of of bounds!\n";
    EXPECT_EQ(captured([&] { EXPECT_EQ(mapper->localCellCoordinatesFromCurviGrid(outside, uvw, Epsilon), 0U); }),
              message);
    // Callers of the projective query ask for the unicell first.
    EXPECT_EQ(
        captured([&] { EXPECT_EQ(mapper->localCellCoordinatesFromCurviGridProjective(outside, uvw, Epsilon), 1U); }),
        message);
    EXPECT_EQ(uvw, Point(7, 7, 7));
    EXPECT_FALSE(mapper->add(MultiIndex<3>(4, 0, 0)));
    EXPECT_TRUE(mapper->add(MultiIndex<3>(3, 4, 5)));
}

TEST(UniGridMapperTest, ProjectiveQueryFindsAffineCellsExactly) {
    const BlockPtr block = makeBlock(shapes()[0], {9, 8, 7});
    const auto mapper = makeMapper(block);
    for (const Point& index : randomIndices(*block, 500, 21, 0.001)) {
        Point uvw;
        ASSERT_EQ(mapper->localCellCoordinatesFromCurviGridProjective(positionIn(*block, index), uvw, 0.0), 1U);
        EXPECT_LT(support::distance(uvw, index), 1e-9);
    }
}

// A flat cell: 102 zero steps, then the message. What was in uvw stays, and may be a near miss.
TEST(UniGridMapperTest, FlatCellGivesUpAfterItsSteps) {
    const BlockPtr block = distortedBlock({2, 2, 2}, 1.0, 0.0, 1);
    for (Vantle::index_t k = 0; k < 8; ++k) block->element(k)[2] = 0.0;
    const auto mapper = makeMapper(block);
    std::string expected;
    for (int k = 0; k < 102; ++k) expected += "WHAT?\n";
    expected += "getLocalCoordinates3D(): Prevented endless loop BREAK!\n";
    Point uvw(-1, -1, -1);
    const auto query = [&] { return mapper->localCellCoordinatesFromCurviGrid(Point(0.25, 0.5, 0.0), uvw, Epsilon); };
    EXPECT_EQ(captured([&] { EXPECT_EQ(query(), 0U); }), expected);
    EXPECT_EQ(uvw, Point(-1, -1, -1));
    uvw = Point(0.25, 1.0, 0.75);
    EXPECT_EQ(captured([&] { EXPECT_EQ(query(), 2U); }), expected);
    EXPECT_EQ(uvw, Point(0.25, 1.0, 0.75));
}

TEST(UniGridMapperTest, RefusesUnigridsBeyondItsLimits) {
    const auto attempt = [](const BlockPtr& block, double resolution) {
        captured([&] { EXPECT_THROW(UniGridMapper(block, resolution, 0.01), std::length_error); });
    };
    attempt(makeBlock(shapes()[0], {5, 5, 5}), 1e4);
    // Two cells across a box with many unicells each: few unicells, too many entries.
    const BlockPtr crossed = distortedBlock({30, 30, 30}, 1.0, 30.0, 5);
    attempt(crossed, 30.0);
    const double infinity = std::numeric_limits<double>::infinity();
    attempt(makeBlock(shapes()[0], {5, 5, 5}), infinity);
    captured([&] { EXPECT_NO_THROW(UniGridMapper(nullptr, 1.0, 0.01)); });
}

TEST(UniGridMapperTest, AnswersManyThreadsAsOne) {
    const BlockPtr block = makeBlock(shapes()[2], {20, 20, 20});
    const auto mapper = makeMapper(block);
    std::vector<Point> points;
    for (const Point& index : randomIndices(*block, 4000, 31)) points.push_back(positionIn(*block, index));
    const auto query = [&](const Point& p, Point& uvw) {
        return mapper->localCellCoordinatesFromCurviGrid(p, uvw, Epsilon);
    };
    const Answers serial = ask(points, query);
    std::vector<unsigned int> codes(points.size());
    std::vector<Point> uvw(points.size(), Point(-1, -1, -1));
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (std::size_t k = t; k < points.size(); k += 4) codes[k] = query(points[k], uvw[k]);
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(codes, serial.codes);
    EXPECT_EQ(uvw, serial.uvw);
}

TEST(UniGridMapperTest, HandlesAreRegisteredElements) {
    using Handle = Hestra::StrongPtr<UniGridMapper, UniGridMapper>;
    const auto allocator = Vantle::MemBase::findAllocator(typeid(Handle));
    ASSERT_TRUE(allocator);
    const auto array = allocator->create(Vantle::DynamicSize{1}, nullptr);
    const auto typed = Hestra::dynamicCast<Vantle::MemArray<1, Handle>>(array);
    ASSERT_TRUE(typed);
    captured([&] { (*typed)(0) = Handle(new UniGridMapper(makeBlock(shapes()[0], {3, 3, 3}), 1.0, 0.01)); });
    EXPECT_TRUE((*typed)(0));
    EXPECT_EQ(array->getElementAsString(0), "");
}

} // namespace
