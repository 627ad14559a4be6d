// Pictures are looked at pixel by pixel: gnuplot, which drew them, also reads them.

#include "io/Picture.hpp"

#include <dataset/io/FileError.hpp>

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

constexpr PictureSize kSmall{200, 150};

// Two squares of one size in planes across the view: only the nearer one is seen, whatever their order.
TEST_F(PictureTest, NearerTrianglesHideFartherOnes) {
    std::vector<Point3> near, far;
    for (const double x : {-1.0, 1.0})
        for (const double y : {-1.0, 1.0}) {
            near.push_back({x, y, 1.0});
            far.push_back({x, y, -1.0});
        }
    const std::vector<Triangle> square = {{0, 1, 3}, {0, 3, 2}};
    const SurfacePart red{near, square, {}, 0xd02020}, green{far, square, {}, 0x20d020};
    for (const auto& parts : {std::vector{red, green}, std::vector{green, red}})
        for (const double side : {-1.0, 1.0}) {
            drawSurface(folder / "a.png", parts, {{0, 0, side}, {0, 1, 0}}, {{}, {}, kSmall});
            const auto seen = pixels(folder / "a.png");
            ASSERT_EQ(seen.size(), 200u * 150u);
            EXPECT_TRUE(isWhite(seen[5 * 200 + 5]));
            // The squares fill 90 x 90 pixels in the middle; no crack, no white, only the right colour.
            for (std::size_t y = 35; y < 115; ++y)
                for (std::size_t x = 60; x < 140; ++x) {
                    const Pixel& p = seen[y * 200 + x];
                    EXPECT_TRUE(side < 0.0 ? p.red > 3 * p.green : p.green > 3 * p.red)
                        << x << " " << y << ": " << p.red << " " << p.green << " " << p.blue;
                }
            EXPECT_EQ(filesLeft(), 1u);
        }
}

// Far more triangles than are drawn one by one: still a closed disc, without holes.
TEST_F(PictureTest, LargeSurfacesStayWhole) {
    const unsigned long long columns = 800, rows = 400;
    std::vector<Point3> points;
    std::vector<Triangle> triangles;
    for (unsigned long long j = 0; j <= rows; ++j)
        for (unsigned long long i = 0; i <= columns; ++i) {
            const double u = 2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(columns);
            const double v = std::numbers::pi * static_cast<double>(j) / static_cast<double>(rows);
            points.push_back({std::sin(v) * std::cos(u), std::sin(v) * std::sin(u), std::cos(v)});
            if (i == columns || j == rows) continue;
            const unsigned long long a = j * (columns + 1) + i, b = a + columns + 1;
            triangles.push_back({a, a + 1, b + 1});
            triangles.push_back({a, b + 1, b});
        }
    points.push_back({std::numeric_limits<double>::quiet_NaN(), 0, 0});
    triangles.push_back({0, 1, points.size() - 1}); // left out
    const SurfacePart sphere{points, triangles};
    drawSurface(folder / "a.png", {&sphere, 1}, {}, {{}, {}, {400, 300}});
    const auto seen = pixels(folder / "a.png");
    ASSERT_EQ(seen.size(), 400u * 300u);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 400; ++x) {
            const double radius = std::hypot(x + 0.5 - 200.0, y + 0.5 - 150.0);
            const bool white = isWhite(seen[static_cast<std::size_t>(y * 400 + x)]);
            if (radius < 118.0 || radius > 122.0) {
                EXPECT_EQ(white, radius > 120.0) << x << " " << y;
            }
        }
}

TEST_F(PictureTest, SlicesShowTheirValuesAndLeaveTheRestWhite) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> values(40 * 30);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::size_t column = i % 40, row = i / 40;
        values[i] = row >= 20 ? nan : column < 20 ? 0.0 : 1.0;
    }
    drawSlice(folder / "a.png", {40, 30, {0, 0}, {1, 1}, values}, {{"title", "value"}, "x", "y", {}, {}, {400, 300}});
    const auto seen = pixels(folder / "a.png");
    ASSERT_EQ(seen.size(), 400u * 300u);
    std::size_t dark = 0, light = 0;
    for (std::size_t y = 0; y < 300; ++y)
        for (std::size_t x = 0; x < 312; ++x) { // the colour bar is farther right
            const Pixel& p = seen[y * 400 + x];
            dark += p.blue > 140 && p.red < 90;
            light += p.red > 230 && p.blue < 110;
        }
    EXPECT_GT(dark, 8000u); // halves of equal size
    EXPECT_NEAR(static_cast<double>(light), static_cast<double>(dark), 0.05 * static_cast<double>(dark));
    EXPECT_TRUE(isWhite(seen[220 * 400 + 180])); // in the uppermost third, where there are no values
    EXPECT_FALSE(isWhite(seen[100 * 400 + 180]));

    drawSlice(folder / "row.png", {40, 1, {0, 0}, {1, 30}, std::span(values).first(40)},
              {{}, "x", "y", {}, {}, {400, 300}});
    EXPECT_FALSE(isWhite(pixels(folder / "row.png").at(150 * 400 + 180)));
}

TEST_F(PictureTest, TextsAndPathsAreOnlyText) {
    const fs::path bait = folder / "bait";
    const std::string evil =
        "it's `touch " + bait.string() + "` $(touch " + bait.string() + ")\nsystem 'touch " + bait.string() + "'\n\\";
    const std::vector<double> values = {1, 2, 3, 4};
    const std::string name = "| touch bait '\"`touch bait`.png";
    drawSlice(folder / name, {2, 2, {}, {1, 1}, values}, {{evil, evil}, evil, evil, {}, {}, kSmall});
    EXPECT_TRUE(fs::exists(folder / name));
    EXPECT_FALSE(fs::exists(bait));
    EXPECT_EQ(filesLeft(), 1u);
}

TEST_F(PictureTest, NothingToShowIsAPicture) {
    const std::vector<double> nothing(4, std::numeric_limits<double>::quiet_NaN());
    drawSurface(folder / "a.png", {}, {}, {{}, {}, kSmall});
    drawSlice(folder / "b.png", {2, 2, {}, {1, 1}, nothing}, {{}, "x", "y", {}, {}, kSmall});
    EXPECT_EQ(filesLeft(), 2u);
}

TEST_F(PictureTest, FailuresSayWhyInOneLine) {
    const auto message = [](const fs::path& png) -> std::string {
        try {
            drawSurface(png, {}, {}, {{}, {}, kSmall});
        } catch (const Vantle::FileError& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_TRUE(message(folder / "absent" / "a.png").starts_with((folder / "absent" / "a.png: cannot ").string()));

    const std::string path = std::getenv("PATH");
    ::setenv("PATH", folder.c_str(), 1);
    EXPECT_FALSE(gnuplotAvailable());
    EXPECT_EQ(message(folder / "a.png"), (folder / "a.png: no picture: gnuplot is not installed").string());
    std::ofstream(folder / "gnuplot") << "#!/bin/sh\necho '\"script\", line 1: unknown terminal' >&2\nexit 2\n";
    fs::permissions(folder / "gnuplot", fs::perms::owner_all);
    EXPECT_EQ(message(folder / "a.png"), (folder / "a.png").string() + ": no picture: gnuplot failed (status 2): " +
                                             "\"script\", line 1: unknown terminal");
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(filesLeft(), 1u); // the pretender alone

    const std::vector<double> three(3);
    EXPECT_THROW(drawSlice(folder / "a.png", {2, 2, {}, {1, 1}, three}), std::invalid_argument);
    EXPECT_THROW(drawSurface(folder / "a.png", {}, {{0, 0, 0}, {0, 0, 1}}), std::invalid_argument);
}

} // namespace
