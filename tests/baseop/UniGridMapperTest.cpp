#include <baseop/Interpolate.hpp>
#include <baseop/UniGridMapper.hpp>

#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

constexpr double Epsilon = 0.02;

/// The solve in one cell, written down plainly with the interpolation kernels.
bool plainSolve(Point& uvw, const Point& P, const MultiIndex<3>& cell, const Block& vertices, double precision) {
    Point at;
    for (int d = 0; d < 3; ++d) at[d] = static_cast<double>(cell[d]) + 0.5;
    Point X = interpolateAt<3, Point>(vertices, at);
    if (normSquared(P - X) <= precision * precision) {
        uvw = at;
        return true;
    }
    const auto vectors = asVectors<3>(vertices);
    Orvix::Quadratic<3, double> inverse;
    int count = 0;
    do {
        const vector a = differentiateAt<0>(vectors, at), b = differentiateAt<1>(vectors, at),
                     c = differentiateAt<2>(vectors, at);
        try {
            inverse = Orvix::invert3x3(a, b, c);
        } catch (const Orvix::DegeneratedMatrix&) {
            Hestra::Console::puts("WHAT?");
        }
        const vector step = inverse * (P - X);
        at += step;
        vector move;
        for (int d = 0; d < 3; ++d) move[d] = a[d] * step[0] + b[d] * step[1] + c[d] * step[2];
        X += move;
        for (int d = 0; d < 3; ++d)
            if (!std::isfinite(at[d]) || !std::isfinite(X[d])) {
                uvw = Point(kNaN, kNaN, kNaN);
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

std::string captured(auto&& f) {
    std::string text;
    const Hestra::ScopedListener listener([&](std::string_view piece) { text += piece; });
    f();
    return text;
}

std::unique_ptr<UniGridMapper> makeMapper(const BlockPtr& block, double resolution = 1.0, double precision = 0.01) {
    const Hestra::ScopedListener nobody({});
    return std::make_unique<UniGridMapper>(block, resolution, precision);
}

struct Tally {
    int codes[3] = {}, loud = 0;
};

/// Asks a mapper in all ways, and walks through the lists plainly.
Tally expectPlainAnswers(const UniGridMapper& mapper, const std::vector<Point>& points, double epsilon,
                         const std::string& name) {
    Tally tally;
    std::vector<CellLocation> together(points.size());
    EXPECT_EQ(captured([&] { mapper.locate(points, together, epsilon); }), "") << name;
    for (std::size_t k = 0; k < points.size() && !testing::Test::HasFailure(); ++k) {
        const Point& p = points[k];
        SCOPED_TRACE(testing::Message() << name << " at " << p);
        Point plain(-1, -1, -1), fast = plain, unheard = plain;
        unsigned int code = 9, plainCode = 9, unheardCode = 9;
        const std::string said = captured([&] { code = mapper.localCellCoordinatesFromCurviGrid(p, fast, epsilon); });
        EXPECT_EQ(said, captured([&] { plainCode = plainQuery(mapper, p, plain, epsilon); }));
        {
            const Hestra::ScopedListener nobody({});
            unheardCode = mapper.localCellCoordinatesFromCurviGrid(p, unheard, epsilon);
        }
        const CellLocation alone = mapper.locate(p, epsilon);
        EXPECT_EQ(code, plainCode);
        EXPECT_EQ(unheardCode, plainCode);
        for (const CellLocation& each : {alone, together[k]}) {
            EXPECT_EQ(static_cast<unsigned int>(each.result), plainCode);
            EXPECT_EQ(each.isSilent, said.empty());
        }
        if (plainCode != 0) {
            for (const Point& each : {fast, unheard, alone.local, together[k].local})
                EXPECT_TRUE(same(each, plain)) << each << " instead of " << plain;
        }
        ++tally.codes[plainCode];
        tally.loud += !said.empty();
    }
    return tally;
}

// The search that skips most cells of a list, and the walk through all of them.
TEST(UniGridMapperTest, AnswersAsThePlainWalk) {
    unsigned seed = 100;
    for (const auto& [name, block] : roughBlocks())
        for (const double precision : {0.01, 30.0, 0.0}) {
            try {
                expectPlainAnswers(*makeMapper(block, 1.0, precision), probes(*block, 100, ++seed), Epsilon, name);
            } catch (const std::length_error&) { // boxes that are infinite, or nearly so
                EXPECT_TRUE(name == "infinite" || name == "some far away") << name;
            }
        }
}

TEST(UniGridMapperTest, AnswersAsThePlainWalkOnRandomBlocks) {
    std::mt19937_64 random(17);
    Tally all;
    for (unsigned round = 0; round < 60; ++round) {
        const auto pick = [&](double low, double high) {
            return std::uniform_real_distribution<double>(low, high)(random);
        };
        const MultiIndex<3> n(2 + random() % 8, 2 + random() % 8, 2 + random() % 8);
        const double edge = std::pow(10.0, pick(-3.2, 2.0));
        const BlockPtr block = distortedBlock(n, edge, pick(0.0, 1.0), round);
        const vector stretch(1.0, pick(0.01, 1.0), pick(0.001, 1.0));
        for (index_t k = 0; k < block->nElements(); ++k)
            for (int d = 0; d < 3; ++d) block->element(k)[d] *= stretch[d];
        const auto mapper = makeMapper(block, pick(0.2, 2.0), pick(0.0, 1.0));
        // Around the widths that boxes tell of, and far beyond.
        const double epsilon = round % 3 == 0 ? pick(-0.5, 3.0) : round % 3 == 1 ? pick(0.2, 0.25) : Epsilon;
        const Tally tally =
            expectPlainAnswers(*mapper, probes(*block, 300, round), epsilon, "round " + std::to_string(round));
        for (int code = 0; code < 3; ++code) all.codes[code] += tally.codes[code];
    }
    // The rounds are of no use unless all kinds of answers occur.
    EXPECT_GT(all.codes[1], 1000);
    EXPECT_GT(all.codes[2], 100);
}

// Positions at every distance out of a block, within its box: near misses count up to the rim.
TEST(UniGridMapperTest, NearMissesEndAtTheRim) {
    const BlockPtr block = makeBlock(shapes()[1], {9, 11, 8});
    const auto mapper = makeMapper(block);
    for (const double epsilon : {0.02, 0.15, 0.24, 0.2499, 0.3}) {
        std::vector<Point> points;
        std::mt19937_64 random(8);
        std::uniform_real_distribution<double> unit(0, 1), off(0, 1.2);
        for (int k = 0; k < 600; ++k) {
            // Beyond the upper face of the angle, along the edges of its cells.
            const Point at(8 * unit(random), 10, 7 * unit(random)), face = positionIn(*block, at);
            const Point below = positionIn(*block, Point(at[0], 9, at[2]));
            points.push_back(face + (face - below) * (epsilon * off(random)));
        }
        EXPECT_GT(expectPlainAnswers(*mapper, points, epsilon, std::to_string(epsilon)).codes[2], 200);
    }
}

TEST(UniGridMapperTest, AnswersAsThePlainWalkOnTheBluntFin) {
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) GTEST_SKIP() << "no real data";
    std::vector<Point> points = probes(*block, 400, 5);
    for (const Point& index : randomIndices(*block, 1500, 6)) points.push_back(positionIn(*block, index));
    EXPECT_LT(expectPlainAnswers(*makeMapper(block), points, Epsilon, "blunt fin").loud, 40);
}

// Points in small boxes, which share their searches, and in large ones, which are put in order first if they are many,
// in blocks with thousands of groups of cells.
TEST(UniGridMapperTest, NeighboursAnswerAsEachByItself) {
    std::mt19937_64 random(23);
    for (const Shape& shape : shapes()) {
        const BlockPtr block = makeBlock(shape, {34, 29, 25});
        const std::unique_ptr<UniGridMapper> mappers[] = {
            makeMapper(block), makeMapper(block, 1.0, 30.0), // where centres of cells are near enough
            makeMapper(block, 1.0, 1e-14)};                  // where a step is not
        int codes[3] = {};
        for (const Point& index : randomIndices(*block, 60, 29)) {
            const auto& mapper = mappers[random() % 3];
            const double width = std::pow(10.0, std::uniform_real_distribution<double>(-2, 1.6)(random));
            std::uniform_real_distribution<double> off(-0.5 * width, 0.5 * width);
            const Point centre = positionIn(*block, index);
            const Point next = positionIn(*block, Point(std::max(index[0] - 1, 0.0), index[1], index[2]));
            const double edge = support::distance(centre, next);
            std::vector<Point> points;
            points.emplace_back(0.0, kNaN, 0.0);
            for (int k = 0; k < (random() % 8 == 0 ? 1500 : 150); ++k)
                points.push_back(Point{centre[0] + edge * off(random), centre[1] + edge * off(random),
                                       centre[2] + edge * off(random)});
            std::vector<CellLocation> found(points.size());
            mapper->locate(points, found, Epsilon);
            for (std::size_t k = 0; k < points.size(); ++k) {
                const CellLocation each = mapper->locate(points[k], Epsilon);
                ++codes[static_cast<int>(each.result)];
                EXPECT_EQ(found[k].result, each.result) << shape.name << points[k];
                EXPECT_EQ(found[k].isSilent, each.isSilent) << shape.name << points[k];
                EXPECT_TRUE(!each || same(found[k].local, each.local)) << shape.name << points[k];
            }
        }
        EXPECT_GT(codes[1], 5000) << shape.name;
    }
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
        if (name == "infinite" || name == "no cells" || name == "some far away") continue;
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
            EXPECT_EQ(mapper->unigridSize()[d], v >= 2 ? static_cast<index_t>(v) : 2) << name;
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
    for (index_t k = 0; k < 8; ++k) block->element(k)[2] = 0.0;
    const auto mapper = makeMapper(block);
    std::string expected;
    for (int k = 0; k < 102; ++k) expected += "WHAT?\n";
    expected += "getLocalCoordinates3D(): Prevented endless loop BREAK!\n";
    Point uvw(-1, -1, -1);
    const auto query = [&] { return mapper->localCellCoordinatesFromCurviGrid(Point(0.25, 0.5, 0.0), uvw, Epsilon); };
    EXPECT_EQ(captured([&] { EXPECT_EQ(query(), 0U); }), expected);
    uvw = Point(0.25, 1.0, 0.75);
    EXPECT_EQ(captured([&] { EXPECT_EQ(query(), 2U); }), expected);
    EXPECT_EQ(uvw, Point(0.25, 1.0, 0.75));
    EXPECT_FALSE(mapper->locate(Point(0.25, 0.5, 0.0), Epsilon).isSilent);
}

// Too many unicells are refused; too many entries only keep the lists from being made, and no query from answering.
TEST(UniGridMapperTest, LimitsAreThoseOfWhatIsMade) {
    const auto attempt = [](const BlockPtr& block, double resolution) {
        EXPECT_THROW(makeMapper(block, resolution), std::length_error);
    };
    attempt(makeBlock(shapes()[0], {5, 5, 5}), 1e4);
    attempt(makeBlock(shapes()[0], {5, 5, 5}), kInfinity);
    EXPECT_NO_THROW(makeMapper(nullptr));
    for (const MultiIndex<3>& n : {MultiIndex<3>(1, 3, 3), MultiIndex<3>(3, 1, 3), MultiIndex<3>(1, 1, 1)}) {
        const auto mapper = makeMapper(makeBlock(shapes()[1], n));
        EXPECT_EQ(mapper->locate(shapes()[1].at(0, 0.5, 0.5), Epsilon).result, LocationResult::NotFound);
        EXPECT_EQ(mapper->maximalListLength(), 0);
    }

    // Cells across a box with many unicells each, some of them flat, so that queries must walk through the list.
    const BlockPtr crossed = distortedBlock({30, 30, 30}, 1.0, 30.0, 5);
    for (index_t j = 0; j < 30; ++j)
        for (index_t i = 0; i < 30; ++i) (*crossed)(i, j, 16) = (*crossed)(i, j, 15);
    const auto mapper = makeMapper(crossed, 30.0);
    EXPECT_GT(static_cast<double>(mapper->maximalListLength()) * static_cast<double>(mapper->unigridSize().product()),
              static_cast<double>(UniGridMapper::MaximalListEntries));
    const Tally tally = expectPlainAnswers(*mapper, probes(*crossed, 12, 3), Epsilon, "crossed");
    EXPECT_GT(tally.codes[1], 3);
    EXPECT_GT(tally.loud, 3);
}

} // namespace
