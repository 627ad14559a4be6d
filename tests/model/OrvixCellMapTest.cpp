#include <support/Testing.hpp>

namespace {

using namespace Orvix;

/// A cell by its corners [w][v][u].
struct Cell {
    point corner[2][2][2];

    [[nodiscard]] point map(const point& p, bool projective = true) const {
        point uvw;
        cuboidToUnitCube(uvw, p, corner[0][0][0], corner[1][0][0], corner[0][1][0], corner[0][0][1], corner[1][1][1],
                         projective);
        return uvw;
    }
};

/// The map of the unit cube by a matrix of four rows in homogeneous coordinates.
struct Projection {
    double m[4][4];

    [[nodiscard]] point operator()(const point& p) const {
        double h[4];
        for (int i = 0; i < 4; ++i) h[i] = m[i][0] * p[0] + m[i][1] * p[1] + m[i][2] * p[2] + m[i][3];
        return {h[0] / h[3], h[1] / h[3], h[2] / h[3]};
    }
    [[nodiscard]] Cell image() const {
        Cell cell;
        for (int w = 0; w < 2; ++w)
            for (int v = 0; v < 2; ++v)
                for (int u = 0; u < 2; ++u) cell.corner[w][v][u] = (*this)(point(u, v, w));
        return cell;
    }
};

/// A random map that bends the cube moderately; affine if `bend` is 0.
Projection randomProjection(std::mt19937& random, double bend) {
    std::uniform_real_distribution<double> number(-0.3, 0.3);
    Projection projection{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) projection.m[i][j] = number(random) + (i == j);
    for (int j = 0; j < 3; ++j) projection.m[3][j] = bend * number(random);
    projection.m[3][3] = 1.0;
    return projection;
}

bool allNaN(const point& p) { return std::isnan(p[0]) && std::isnan(p[1]) && std::isnan(p[2]); }

TEST(OrvixCellMap, InvertsProjectiveImagesOfTheCube) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> inside(0, 1);
    for (int round = 0; round < 2000; ++round) {
        const Projection projection = randomProjection(random, round % 4 ? 1.0 : 0.0);
        const Cell cell = projection.image();
        for (int sample = 0; sample < 16; ++sample) {
            const point uvw = sample < 8 ? point(sample & 1, sample >> 1 & 1, sample >> 2)
                                         : point(inside(random), inside(random), inside(random));
            ASSERT_LE(distance(cell.map(projection(uvw)), uvw), 1e-13) << uvw;
            ASSERT_TRUE(round % 4 || distance(cell.map(projection(uvw), false), uvw) <= 1e-13);
        }
    }
}

TEST(OrvixCellMap, MapsFiveCornersOfAnyCell) {
    std::mt19937 random(4);
    std::uniform_real_distribution<double> number(-0.15, 0.15);
    for (int round = 0; round < 2000; ++round) {
        Cell cell;
        for (int n = 0; n < 8; ++n)
            cell.corner[n >> 2][n >> 1 & 1][n & 1] =
                point((n & 1) + number(random), (n >> 1 & 1) + number(random), (n >> 2) + number(random));
        for (const int n : {0, 1, 2, 4, 7}) {
            const point uvw(n & 1, n >> 1 & 1, n >> 2);
            ASSERT_LE(distance(cell.map(cell.corner[n >> 2][n >> 1 & 1][n & 1]), uvw), 1e-13) << n;
        }
    }
}

TEST(OrvixCellMap, CellsWithoutAUsableMapHoldNoPoint) {
    const auto cellWith = [](const point& p111, const point& p001) {
        Cell cell = Projection{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}}.image();
        cell.corner[1][1][1] = p111;
        cell.corner[1][0][0] = p001;
        return cell;
    };
    const point middle(0.25, 0.25, 0.25), up(0, 0, 1);
    EXPECT_EQ(cellWith(point(1, 1, 1), up).map(middle), middle);
    EXPECT_TRUE(allNaN(cellWith(point(1, 1, 1), point(1, 1, 0)).map(middle))) << "flat frame";
    EXPECT_TRUE(allNaN(cellWith(point(1, 1, 1), point(0, 0, 1e-11)).map(middle))) << "almost flat frame";
    EXPECT_TRUE(allNaN(cellWith(point(1, 1, 1), point(1, 1, 0)).map(middle, false)));
    EXPECT_TRUE(allNaN(cellWith(point(1, 0, 1), up).map(middle))) << "opposite corner in a face's plane";
    EXPECT_TRUE(allNaN(cellWith(point(0.3, 0.3, 0.3), up).map(middle))) << "opposite corner before the diagonal plane";
    // q = (3, 1, 1), D = 2, a = (2/3, 2, 2): the denominator is 1 - x/3 + y + z.
    const Cell wedge = cellWith(point(3, 1, 1), up);
    EXPECT_FALSE(allNaN(wedge.map(point(2.9, 0, 0))));
    EXPECT_TRUE(allNaN(wedge.map(point(3, 0, 0)))) << "point at infinity";
    EXPECT_TRUE(allNaN(wedge.map(point(4, 0, 0)))) << "point beyond infinity";
    EXPECT_FALSE(allNaN(wedge.map(point(4, 0, 0), false)));
    EXPECT_TRUE(std::isnan(wedge.map(point(NAN, 0, 0))[0]));
}

TEST(OrvixCellMap, FlatFramesHaveNoInverse) {
    const vector x(1, 0, 0), y(0, 1, 0);
    for (const double height : {0.0, 0.99e-10, -0.99e-10}) {
        Quadratic<3, double> untouched(1, 2, 3, 4, 5, 6, 7, 8, 9);
        EXPECT_FALSE(tryInvert3x3(untouched, x, y, vector(0, 0, height)));
        EXPECT_EQ(untouched[8], 9.0);
        try {
            (void)invert3x3(x, y, vector(0, 0, height));
            FAIL();
        } catch (const DegeneratedMatrix& error) {
            EXPECT_EQ(error.dimension(), 3);
        }
    }
    EXPECT_EQ(invert3x3(x, y, vector(0, 0, -DegenerateDeterminant))[8], 1.0 / -DegenerateDeterminant);
}

} // namespace
