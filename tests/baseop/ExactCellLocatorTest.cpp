#include <baseop/ExactCellLocator.hpp>
#include <baseop/Interpolate.hpp>

#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

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
    double largest = 0.0;
    for (index_t q = 0; q < 8; ++q)
        for (int d = 0; d < 3; ++d)
            largest = std::max(largest, std::fabs(block[cell + MultiIndex<3>(q & 1, q >> 1 & 1, q >> 2)][d]));
    const double units = std::nextafter(largest, HUGE_VAL) - largest;
    EXPECT_LE(
        support::distance(positionIn(block, uvw), P),
        std::max(ExactCellLocator::RelativeResidual * diagonal(block, cell), ExactCellLocator::ResidualUnits * units))
        << name << P;
}

void expectFindsAll(const BlockPtr& block, int count, const std::string& name, double margin = 1e-6) {
    const ExactCellLocator locator(block);
    for (const Point& index : randomIndices(*block, count, 3, margin)) {
        const Point P = positionIn(*block, index);
        MultiIndex<3> cell;
        const CellLocation found = locator.locate(P, &cell);
        ASSERT_TRUE(found) << name << index;
        expectAnswer(*block, P, found.local, cell, name);
        const MultiIndex<3> made(static_cast<index_t>(index[0]), static_cast<index_t>(index[1]),
                                 static_cast<index_t>(index[2]));
        if (margin > 0.0) {
            EXPECT_EQ(cell, made) << name << index;
        }
        Point again;
        EXPECT_TRUE(locator.localInCell(P, cell, again));
        EXPECT_TRUE(same(again, found.local));
    }
}

TEST(ExactCellLocatorTest, FindsEveryPositionInItsCell) {
    for (const Shape& shape : shapes()) expectFindsAll(makeBlock(shape, {17, 14, 12}), 3000, shape.name);
    // Cells whose map is invertible, and far from linear.
    expectFindsAll(distortedBlock({8, 9, 7}, 1.0, 0.22, 5), 3000, "distorted");
    BlockPtr far = distortedBlock({8, 9, 7}, 1e-3, 0.2, 6);
    for (index_t k = 0; k < far->nElements(); ++k) far->element(k) += Orvix::PhysicalSpace::vector(4e3, -1e3, 2e3);
    expectFindsAll(far, 500, "far away");
    expectFindsAll(distortedBlock({8, 9, 7}, 1e-100, 0.2, 7), 500, "tiny");
    expectFindsAll(distortedBlock({8, 9, 7}, 1e100, 0.2, 8), 500, "huge");
    // Thin and slanted cells, so far away that their numbers are rounded by a part of them.
    const BlockPtr thin = distortedBlock({33, 3, 16}, 1.0, 0.2, 9);
    for (index_t k = 0; k < thin->nElements(); ++k) {
        Point& p = thin->element(k);
        p = Point(1e9 - std::round(p[0]), 1e9 + 3e-6 * std::round(p[1]), 1e9 + p[2]);
    }
    const ExactCellLocator locator(thin);
    for (const Point& index : randomIndices(*thin, 2000, 4)) {
        const Point P = positionIn(*thin, index);
        MultiIndex<3> cell;
        for (int d = 0; d < 3; ++d) cell[d] = static_cast<index_t>(index[d]);
        Point local;
        EXPECT_TRUE(locator.locate(P) || !locator.localInCell(P, cell, local)) << P;
    }
}

TEST(ExactCellLocatorTest, FindsEveryPositionOfTheBluntFin) {
    const BlockPtr block = bluntFin(VANTLE_TEST_DATA);
    if (!block) GTEST_SKIP() << "no real data";
    expectFindsAll(block, 20000, "blunt fin");
}

// A ball in spherical coordinates, whose cells at the centre and at the poles are collapsed: from the start that is
// good elsewhere Newton's method fails in some of them, and only bisection finds the position.
TEST(ExactCellLocatorTest, FindsEveryPositionOfABall) {
    const Shape ball{"Ball",
                     [](double u, double v, double w) {
                         const double angle = 6.2 * v, height = 3.14 * w;
                         return Point{u * std::sin(height) * std::cos(angle), u * std::sin(height) * std::sin(angle),
                                      u * std::cos(height)};
                     },
                     false};
    expectFindsAll(makeBlock(ball, {9, 9, 9}), 20000, ball.name, 0.0);
}

// Coordinates that stand for none spoil the cells that have them, and no others.
TEST(ExactCellLocatorTest, FarVerticesDoNoHarmToOtherCells) {
    for (const double far : {1e7, 1e19, 1e20, 1e30}) {
        const BlockPtr block = distortedBlock({3, 2, 6}, 1.0, 0.0, 1), large = distortedBlock({40, 40, 9}, 1.0, 0.2, 2);
        (*block)(0, 0, 0)[2] = far;
        (*block)(1, 1, 2)[0] = -far;
        for (index_t k = 0; k < 9; ++k) (*large)(k, 3 * k, k) = Point(far, -far, far);
        // And so many that they are not the few: a third of the vertices.
        const BlockPtr many = distortedBlock({3, 6, 6}, 1.0, 0.1, 3);
        for (index_t k = 0; k < 6; ++k)
            for (index_t j = 0; j < 6; ++j) (*many)(0, j, k)[static_cast<int>((j + k) % 3)] = j % 2 ? far : -0.7 * far;
        for (const BlockPtr& each : {block, large, many}) {
            const ExactCellLocator locator(each);
            for (const Point& index : randomIndices(*each, 600, 5, 0.01)) {
                const MultiIndex<3> cell(static_cast<index_t>(index[0]), static_cast<index_t>(index[1]),
                                         static_cast<index_t>(index[2]));
                if (!(diagonal(*each, cell) < 10.0)) continue;
                const Point P = positionIn(*each, index);
                MultiIndex<3> first;
                const CellLocation found = locator.locate(P, &first);
                ASSERT_TRUE(found) << far << P;
                // A cell with such a corner may come before it.
                if (diagonal(*each, first) < 10.0) {
                    EXPECT_LT(support::distance(found.local, index), 1e-9) << far << P;
                }
            }
        }
    }
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
            for (int d = 0; d < 3; ++d) first[d] = static_cast<index_t>(std::max(std::ceil(index[d]) - 1.0, 0.0));
            MultiIndex<3> cell;
            const CellLocation found = locator.locate(positionIn(*block, index), &cell);
            ASSERT_TRUE(found) << shape.name << index;
            EXPECT_EQ(cell, first) << shape.name << index << found.local;
            EXPECT_LT(support::distance(found.local, index), 1e-6) << shape.name;
        }
    }
}

// Whatever the block: answers are answers, and the same as those of trying all cells in order.
TEST(ExactCellLocatorTest, SurvivesRoughBlocks) {
    for (const auto& [name, block] : roughBlocks()) {
        const ExactCellLocator locator(block);
        const std::vector<Point> points = probes(*block, 120, 77);
        std::vector<CellLocation> together(points.size()), inOrder(16 * points.size());
        locator.locate(points, together);
        std::vector<Point> many; // are put in order first
        for (std::size_t k = 0; k < inOrder.size(); ++k) many.push_back(points[k % points.size()]);
        locator.locate(many, inOrder);
        for (std::size_t k = 0; k < inOrder.size(); ++k) {
            const CellLocation& each = together[k % points.size()];
            EXPECT_TRUE(inOrder[k].result == each.result && (!each || same(inOrder[k].local, each.local))) << name;
        }
        for (std::size_t k = 0; k < points.size(); ++k) {
            const Point& P = points[k];
            MultiIndex<3> cell;
            const CellLocation found = locator.locate(P, &cell);
            EXPECT_EQ(together[k].result, found.result) << name << P;
            if (found && name != "huge") expectAnswer(*block, P, found.local, cell, name);
            Point plain;
            bool isPlain = false;
            if (block->Size()[1] > 1) {
                MultiIndex<3> each;
                do isPlain = locator.localInCell(P, each, plain);
                while (!isPlain && each.advance(block->Size() - 1));
            }
            ASSERT_EQ(bool(found), isPlain) << name << P;
            if (found) {
                EXPECT_TRUE(same(together[k].local, found.local)) << name << P;
                EXPECT_TRUE(same(found.local, plain)) << name << P << found.local << plain;
            }
        }
    }
}

TEST(ExactCellLocatorTest, ManyCellsAtOnePlace) {
    // More boxes at one point than a query takes at a time; the last cell is the only one that is not degenerate.
    const ExactCellLocator locator(filled<Point>({2, 2, 400}, [](const MultiIndex<3>& i) {
        return Point(static_cast<double>(i[0]), static_cast<double>(i[1]), i[2] == 399 ? 1.0 : 0.0);
    }));
    // Nor is there room for the cells of a few such points.
    const std::vector<Point> points(5, Point(0.25, 0.5, 0.125));
    std::vector<CellLocation> found(5);
    locator.locate(points, found);
    found.push_back(locator.locate(points[0]));
    for (const CellLocation& each : found) {
        ASSERT_TRUE(each);
        EXPECT_LT(support::distance(each.local, Point(0.25, 0.5, 398.125)), 1e-12);
    }
}

} // namespace
