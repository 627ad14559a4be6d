// Pictures are looked at pixel by pixel: gnuplot, which drew them, also reads them.

#include "io/Picture.hpp"

#include "io/Gnuplot.hpp"

#include <dataset/io/FileError.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <numbers>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace tour;
using Vantle::Surface, Vantle::Values;
namespace fs = std::filesystem;

struct Pixel {
    int red = 0, green = 0, blue = 0;
};

class PictureTest : public testing::Test {
protected:
    PictureTest() { fs::create_directories(folder); }
    ~PictureTest() override { fs::remove_all(folder); }
    void SetUp() override {
        if (!gnuplotAvailable()) GTEST_SKIP() << "GNUPLOT IS NOT HERE: no picture was drawn or looked at";
    }

    // Row by row from the lowest.
    std::vector<Pixel> pixels(const fs::path& png) const {
        fs::copy_file(png, folder / "in.png", fs::copy_options::overwrite_existing);
        std::ofstream(folder / "script") << "set table 'table'\nplot 'in.png' binary filetype=png with rgbimage\n";
        EXPECT_EQ(std::system(("cd '" + folder.string() + "' && gnuplot --default-settings script").c_str()), 0);
        // The table goes from the top row down, each line with its place, y upwards.
        std::map<std::pair<double, double>, Pixel> byPlace;
        std::ifstream table(folder / "table");
        for (std::string line; std::getline(table, line);) {
            double x, y;
            Pixel pixel;
            if (std::istringstream(line) >> x >> y >> pixel.red >> pixel.green >> pixel.blue) byPlace[{y, x}] = pixel;
        }
        std::vector<Pixel> result;
        for (const auto& [place, pixel] : byPlace) result.push_back(pixel);
        for (const char* name : {"in.png", "script", "table"}) fs::remove(folder / name);
        return result;
    }

    std::size_t filesLeft() const {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) ++count;
        return count;
    }

    fs::path folder = fs::temp_directory_path() / ("picture-test-" + std::to_string(::getpid()));
};

bool isWhite(const Pixel& p) { return p.red == 255 && p.green == 255 && p.blue == 255; }
bool isGrey(const Pixel& p) { return std::abs(p.red - p.green) < 10 && std::abs(p.green - p.blue) < 10; }

Surface makeSurface(std::vector<Point> points, std::vector<Vantle::Triangle> triangles) {
    const auto grid = Hestra::makeRef<Vantle::Grid>();
    Vantle::TriangularSurface::create(*grid, std::move(points), std::move(triangles));
    return Surface(grid);
}

Surface squareAt(double z) {
    return makeSurface({{-1, -1, z}, {1, -1, z}, {-1, 1, z}, {1, 1, z}}, {{0, 1, 3}, {0, 3, 2}});
}

Values valuesOf(std::vector<double> values) { return Values(Vantle::makeMemArray1D(std::move(values)).strong()); }

const Vantle::Box kBox{{-1, -1, -1}, {1, 1, 1}};

// Squares of one size in planes across the view: the nearer one is seen, whatever their order; of two in one plane the
// one with values, from any side, with no crack and no speckle of the other.
TEST_F(PictureTest, NearerTrianglesHideFartherOnesAndWallsStandBack) {
    for (const double side : {-1.0, 1.0})
        for (const bool redFirst : {true, false}) {
            Picture picture(kBox, {{0, 0, side}, {0, 1, 0}}, 200, 150);
            for (const bool red : {redFirst, !redFirst}) picture.add(squareAt(red ? 1 : -1), red ? 0xd02020 : 0x20d020);
            picture.save(folder / "a.png", "");
            const auto seen = pixels(folder / "a.png");
            ASSERT_EQ(seen.size(), 200u * 150u);
            EXPECT_TRUE(isWhite(seen[5 * 200 + 5]));
            // The squares fill 120 x 120 pixels.
            for (std::size_t y = 25; y < 130; ++y)
                for (std::size_t x = 40; x < 145; ++x) {
                    const Pixel& p = seen[y * 200 + x];
                    ASSERT_TRUE(side < 0.0 ? p.red > 3 * p.green : p.green > 3 * p.red) << x << " " << y;
                }
            EXPECT_EQ(filesLeft(), 1u);
        }
    for (const Vector& direction : {Vector(0.3, 0.9, -0.5), Vector(-0.9, 0.2, 0.3), Vector(0.1, 0.2, -1)}) {
        Picture picture(kBox, {direction}, 200, 150);
        picture.add(squareAt(0.3), 0xb8b8b8);
        picture.add(squareAt(0.3), valuesOf({0, 1, 1, 0}));
        picture.save(folder / "a.png", "");
        const auto seen = pixels(folder / "a.png");
        std::size_t coloured = 0, grey = 0;
        for (std::size_t n = 0; n < seen.size(); ++n)
            if (n % 200 < 170 && !isWhite(seen[n])) ++(isGrey(seen[n]) ? grey : coloured); // the bar is farther right
        EXPECT_GT(coloured, 1000u);
        EXPECT_LT(grey, coloured / 20); // nothing but rims
    }
}

// Far more triangles than pixels: a closed disc, without holes.
TEST_F(PictureTest, LargeSurfacesStayWhole) {
    const unsigned columns = 800, rows = 400;
    std::vector<Point> points;
    std::vector<Vantle::Triangle> triangles;
    for (unsigned j = 0; j <= rows; ++j)
        for (unsigned i = 0; i <= columns; ++i) {
            const double u = 2 * std::numbers::pi * i / columns, v = std::numbers::pi * j / rows;
            points.push_back({std::sin(v) * std::cos(u), std::sin(v) * std::sin(u), std::cos(v)});
            if (i == columns || j == rows) continue;
            const unsigned a = j * (columns + 1) + i, b = a + columns + 1;
            triangles.push_back({a, a + 1, b + 1});
            triangles.push_back({a, b + 1, b});
        }
    points.push_back({std::numeric_limits<double>::quiet_NaN(), 0, 0});
    triangles.push_back({0, 1, static_cast<unsigned>(points.size() - 1)}); // left out
    Picture picture(kBox, {{0, 0, -1}, {0, 1, 0}}, 400, 300);
    picture.add(makeSurface(points, triangles), 0x8fb3d9);
    picture.save(folder / "a.png", "");
    const auto seen = pixels(folder / "a.png");
    ASSERT_EQ(seen.size(), 400u * 300u);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 400; ++x) {
            const double radius = std::hypot(x + 0.5 - 186.0, y + 0.5 - 157.5);
            const bool white = isWhite(seen[static_cast<std::size_t>(y * 400 + x)]);
            if (radius < 118.0 || radius > 122.0) {
                EXPECT_EQ(white, radius > 120.0) << x << " " << y;
            }
        }
}

// Without light, colours are those of the bar; lines lie on the surface, unless it hides them, and axes are around it.
TEST_F(PictureTest, ShowsValuesLinesAndAxes) {
    const View view{{0, 0, -1}, {0, 1, 0}, false};
    const auto draw = [&](bool more) {
        Picture picture({{-1, -1, 0}, {1, 1, 0}}, view, 400, 300);
        picture.add(squareAt(0), valuesOf({0, 1, 0, 1})); // along x
        if (more) picture.addAxes();
        if (more) picture.addLine(std::vector<Point>{{-0.5, -1, 0}, {-0.5, 1, 0}}, 0);
        picture.addLine(std::vector<Point>{{0.5, -1, -1}, {0.5, 1, -1}}, 0); // behind
        if (more) picture.addKey(0xff0000, "red");
        picture.save(folder / "a.png", more ? "title" : "", "value");
        return pixels(folder / "a.png");
    };
    const auto plain = draw(false), full = draw(true);
    const auto at = [](const std::vector<Pixel>& seen, int x, int y) {
        return seen[static_cast<std::size_t>(y * 400 + x)];
    };
    EXPECT_NEAR(at(plain, 67, 150).blue, 0x9c, 3); // the ends of the palette
    EXPECT_NEAR(at(plain, 304, 150).red, 0xf6, 3);
    EXPECT_NEAR(at(plain, 186, 150).green, 0xb5, 3); // and its middle
    EXPECT_GT(at(plain, 126, 150).blue, 100);
    EXPECT_LT(at(full, 126, 150).blue, 100);
    EXPECT_EQ(at(full, 246, 150).green, at(plain, 246, 150).green);
    std::size_t left = 0, below = 0;
    for (int n = 0; n < 280; ++n) {
        left += !isWhite(at(full, 60, n)) && isWhite(at(plain, 60, n));
        below += !isWhite(at(full, n + 60, 32)) && isWhite(at(plain, n + 60, 32));
    }
    EXPECT_GE(left, 3u); // ticks
    EXPECT_GE(below, 3u);
    const auto isRed = [](const Pixel& p) { return p.red == 255 && p.green == 0 && p.blue == 0; };
    EXPECT_GT(std::count_if(full.begin(), full.end(), isRed), 80);
}

TEST_F(PictureTest, TextsAndPathsAreOnlyText) {
    const fs::path bait = folder / "bait";
    const std::string evil =
        "it's `touch " + bait.string() + "` $(touch " + bait.string() + ")\nsystem 'touch " + bait.string() + "'\n\\";
    const std::string name = "| touch bait '\"`touch bait`.png";
    Picture picture(kBox, {}, 200, 150);
    picture.add(squareAt(0), valuesOf({1, 2, 3, 4}));
    picture.addKey(0, evil);
    picture.save(folder / name, evil, evil);
    EXPECT_TRUE(fs::exists(folder / name));
    EXPECT_FALSE(fs::exists(bait));
    EXPECT_EQ(filesLeft(), 1u);
}

TEST_F(PictureTest, FailuresSayWhyInOneLine) {
    const auto message = [](const fs::path& png) -> std::string {
        try {
            Picture(kBox, {}, 200, 150).save(png, "");
        } catch (const Vantle::FileError& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(message(folder / "a.png"), ""); // nothing to show is a picture
    EXPECT_TRUE(message(folder / "absent" / "a.png").starts_with((folder / "absent" / "a.png: cannot ").string()));

    const std::string path = std::getenv("PATH"),
                      before = (folder / "a.png").string() + ": no picture: gnuplot failed ";
    ::setenv("PATH", folder.c_str(), 1);
    EXPECT_FALSE(gnuplotAvailable());
    EXPECT_TRUE(message(folder / "a.png").starts_with(before + "(status 127): "));
    std::ofstream(folder / "gnuplot") << "#!/bin/sh\necho '\"script\", line 1: unknown terminal' >&2\nexit 2\n";
    fs::permissions(folder / "gnuplot", fs::perms::owner_all);
    EXPECT_TRUE(gnuplotAvailable());
    EXPECT_EQ(message(folder / "a.png"), before + "(status 2): \"script\", line 1: unknown terminal");
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(filesLeft(), 2u); // the picture and the pretender

    EXPECT_THROW(Picture(kBox, {{0, 0, 1}, {0, 0, 1}}), std::invalid_argument);
    EXPECT_THROW(Picture(kBox, {}, 20, 20), std::invalid_argument);
}

} // namespace
