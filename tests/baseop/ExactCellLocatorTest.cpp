#include "support/RoughBlocks.hpp"

#include <baseop/ExactCellLocator.hpp>
#include <baseop/Interpolate.hpp>

#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace support;
using Vantle::ExactCellLocator;
using Vantle::MultiIndex;

double diagonal(const Block& block, const MultiIndex<3>& cell) {
    double longest = 0.0;
    for (unsigned q = 0; q < 4; ++q) {
        const MultiIndex<3> corner(q & 1, q >> 1, 0), opposite(1 - (q & 1), 1 - (q >> 1), 1);
        longest = std::max(longest, support::distance(block[cell + corner], block[cell + opposite]));
    }
    return longest;
}

/// Whether an answer is one: within its cell, and mapped to the position.
void expectAnswer(const Block& block, const Point& P, const Point& uvw, const MultiIndex<3>& cell,
                  const std::string& name) {
    for (int d = 0; d < 3; ++d) {
        EXPECT_GE(uvw[d], static_cast<double>(cell[d])) << name;
        EXPECT_LE(uvw[d], static_cast<double>(cell[d]) + 1.0) << name;
    }
    // The kernel's own rounding, in units of the coordinates, comes on top.
    const double rounding = 1e-15 * (std::fabs(P[0]) + std::fabs(P[1]) + std::fabs(P[2]));
    EXPECT_LE(support::distance(positionIn(block, uvw), P),
              ExactCellLocator::RelativeResidual * diagonal(block, cell) + rounding)
        << name << P;
}

void expectFindsAll(const BlockPtr& block, int count, const std::string& name) {
    const ExactCellLocator locator(block);
    for (const Point& index : randomIndices(*block, count, 3, 1e-6)) {
        const Point P = positionIn(*block, index);
        Point uvw;
        MultiIndex<3> cell;
        ASSERT_EQ(locator.locate(P, uvw, &cell), 1U) << name << index;
        expectAnswer(*block, P, uvw, cell, name);
        const MultiIndex<3> made(static_cast<Vantle::index_t>(index[0]), static_cast<Vantle::index_t>(index[1]),
                                 static_cast<Vantle::index_t>(index[2]));
        EXPECT_EQ(cell, made) << name << index;
        Point again;
        EXPECT_TRUE(locator.localInCell(P, made, again));
        EXPECT_TRUE(same(again, uvw));
    }
}

TEST(ExactCellLocatorTest, FindsEveryPositionInItsCell) {
    for (const Shape& shape : shapes()) expectFindsAll(makeBlock(shape, {17, 14, 12}), 3000, shape.name);
    // Cells whose map is invertible, and far from linear.
    expectFindsAll(distortedBlock({8, 9, 7}, 1.0, 0.22, 5), 3000, "distorted");
    BlockPtr far = distortedBlock({8, 9, 7}, 1e-3, 0.2, 6);
    for (Vantle::index_t k = 0; k < far->nElements(); ++k)
        far->element(k) += Orvix::PhysicalSpace::vector(4e3, -1e3, 2e3);
    expectFindsAll(far, 500, "far away");
    expectFindsAll(distortedBlock({8, 9, 7}, 1e-100, 0.2, 7), 500, "tiny");
    expectFindsAll(distortedBlock({8, 9, 7}, 1e100, 0.2, 8), 500, "huge");
}

TEST(ExactCellLocatorTest, FindsEveryPositionOfTheBluntFin) {
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) GTEST_SKIP() << "no real data";
    expectFindsAll(block, 20000, "blunt fin");
}

// On vertices, edges and faces: the first cell that has the position, however the position is rounded.
TEST(ExactCellLocatorTest, CommonFacesBelongToTheFirstCell) {
    for (const Shape& shape : shapes()) {
        const BlockPtr block = makeBlock(shape, {9, 8, 7});
        const ExactCellLocator locator(block);
        std::mt19937_64 random(9);
        for (Point index : randomIndices(*block, 1500, 10)) {
            for (int d = 0; d < 3; ++d)
                if (random() % 2) index[d] = std::floor(index[d] + static_cast<double>(random() % 2));
            MultiIndex<3> first;
            for (int d = 0; d < 3; ++d)
                first[d] = static_cast<Vantle::index_t>(std::max(std::ceil(index[d]) - 1.0, 0.0));
            Point uvw;
            MultiIndex<3> cell;
            ASSERT_EQ(locator.locate(positionIn(*block, index), uvw, &cell), 1U) << shape.name << index;
            EXPECT_EQ(cell, first) << shape.name << index << uvw;
            EXPECT_LT(support::distance(uvw, index), 1e-6) << shape.name;
        }
    }
}

TEST(ExactCellLocatorTest, WhatIsOutsideIsNotFound) {
    const BlockPtr block = makeBlock(shapes()[1], {20, 30, 8}); // 1 <= r <= 2, chords of small angles
    const ExactCellLocator locator(block);
    std::mt19937_64 random(4);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int inside = 0;
    for (int k = 0; k < 20000; ++k) {
        const Point P(4 * unit(random) - 2, 2.5 * unit(random) - 0.2, 1.2 * unit(random) - 0.1);
        const double r = std::hypot(P[0], P[1]), angle = std::atan2(P[1], P[0]);
        Point uvw(5, 5, 5);
        const bool isFound = locator.locate(P, uvw) == 1;
        inside += isFound;
        // Between a circle and its chords anything goes.
        const double sagitta = 1.0 - std::cos(1.2 / 29);
        const bool surely = r > 1.0 && r < 2.0 * (1.0 - sagitta) && angle > 0.2 && angle < 2.6 && P[2] > 0 && P[2] < 1;
        const bool surelyNot = r < 1.0 - sagitta || r > 2.0 || angle < 0.2 || angle > 2.6 || P[2] < 0 || P[2] > 1;
        if (surely) {
            EXPECT_TRUE(isFound) << P;
        }
        if (surelyNot) {
            EXPECT_FALSE(isFound) << P;
        }
        if (!isFound) {
            EXPECT_EQ(uvw, Point(5, 5, 5));
        }
    }
    EXPECT_GT(inside, 3000);
}

// Whatever the block: answers are answers, and the same as those of trying all cells in order.
TEST(ExactCellLocatorTest, SurvivesRoughBlocks) {
    for (const auto& [name, block] : roughBlocks()) {
        const ExactCellLocator locator(block);
        const std::vector<Point> points = probes(*block, 120, 77);
        std::vector<Point> together(points.size(), Point(-1, -1, -1));
        std::vector<unsigned char> codes(points.size());
        locator.locate(points, together, codes);
        for (std::size_t k = 0; k < points.size(); ++k) {
            const Point& P = points[k];
            Point uvw(-1, -1, -1), plain = uvw;
            MultiIndex<3> cell;
            const unsigned int code = locator.locate(P, uvw, &cell);
            EXPECT_EQ(codes[k], code) << name << P;
            EXPECT_TRUE(same(together[k], uvw)) << name << P;
            if (code == 1 && name != "huge") expectAnswer(*block, P, uvw, cell, name);
            unsigned int plainCode = 0;
            if (block->Size()[1] > 1) {
                MultiIndex<3> each;
                do plainCode = locator.localInCell(P, each, plain);
                while (plainCode == 0 && each.advance(block->Size() - 1));
            }
            EXPECT_EQ(code, plainCode) << name << P;
            EXPECT_TRUE(same(uvw, plain)) << name << P << uvw << plain;
        }
    }
}

TEST(ExactCellLocatorTest, NeighboursAnswerAsEachByItself) {
    for (const Shape& shape : shapes()) {
        const BlockPtr block = makeBlock(shape, {31, 22, 27});
        const ExactCellLocator locator(block);
        int found = 0;
        for (const Point& index : randomIndices(*block, 40, 41)) {
            std::vector<Point> points;
            for (int k = 0; k < 100; ++k) {
                Point near = index;
                for (int d = 0; d < 3; ++d) near[d] += 0.03 * (k * (d + 3) % 101);
                // Twice as far: some of them beyond the block.
                const Point from = positionIn(*block, index);
                points.push_back(from + (positionIn(*block, near) - from) * 2.0);
            }
            std::vector<Point> uvw(points.size());
            std::vector<unsigned char> codes(points.size());
            locator.locate(points, uvw, codes);
            for (std::size_t k = 0; k < points.size(); ++k) {
                Point expected;
                EXPECT_EQ(codes[k], locator.locate(points[k], expected)) << shape.name << points[k];
                EXPECT_TRUE(codes[k] == 0 || same(uvw[k], expected)) << shape.name << points[k];
                found += codes[k];
            }
        }
        EXPECT_GT(found, 2000) << shape.name;
        EXPECT_LT(found, 3900) << shape.name;
    }
}

TEST(ExactCellLocatorTest, ManyCellsAtOnePlace) {
    // More boxes at one point than a query takes at a time; the last cell is the only one that is not degenerate.
    const auto block = Block::create({2, 2, 400});
    MultiIndex<3> i;
    do {
        const double z = i[2] == 399 ? 1.0 : 0.0;
        (*block)[i] = Point(static_cast<double>(i[0]), static_cast<double>(i[1]), z);
    } while (i.advance(block->Size()));
    const ExactCellLocator locator(block);
    Point uvw;
    ASSERT_EQ(locator.locate(Point(0.25, 0.5, 0.125), uvw), 1U);
    EXPECT_LT(support::distance(uvw, Point(0.25, 0.5, 398.125)), 1e-12);
    // Nor is there room for the cells of a few such points.
    const std::vector<Point> points(5, Point(0.25, 0.5, 0.125));
    std::vector<Point> all(5);
    std::vector<unsigned char> codes(5);
    locator.locate(points, all, codes);
    EXPECT_EQ(codes, std::vector<unsigned char>(5, 1));
    EXPECT_TRUE(same(all[4], uvw));
}

TEST(ExactCellLocatorTest, AnswersManyThreadsAsOne) {
    const BlockPtr block = makeBlock(shapes()[2], {20, 20, 20});
    const ExactCellLocator locator(block);
    const auto points = probes(*block, 4000, 5);
    std::vector<Point> serial(points.size()), parallel(points.size());
    for (std::size_t k = 0; k < points.size(); ++k) locator.locate(points[k], serial[k]);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (std::size_t k = t; k < points.size(); k += 4) locator.locate(points[k], parallel[k]);
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(parallel, serial);
}

} // namespace
