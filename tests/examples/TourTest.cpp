// The tour as its users meet it: the program is run, its table is read and its files are looked into.

#include "CylinderFlow.hpp"
#include "Report.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <numbers>
#include <optional>
#include <sstream>
#include <support/Plot3DFile.hpp>
#include <support/VtkFile.hpp>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace tour;
using support::Plot3DBlock, support::Plot3DSolutionBlock;
using Vantle::Plot3DForm, Vantle::Plot3DScalar;
namespace fs = std::filesystem;

std::string contents(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct Result {
    int status = -1;
    std::string out, err;

    // The cells of the first row that begins with `what`, without that; cells are two blanks apart or more.
    [[nodiscard]] std::vector<std::string> row(const std::string& what) const {
        const std::size_t at = out.find("\n  " + what + "  ");
        std::vector<std::string> cells;
        if (at == std::string::npos) {
            ADD_FAILURE() << "no row '" << what << "' in\n" << out;
            return std::vector<std::string>(4);
        }
        std::string rest = out.substr(at + 3 + what.size(), out.find('\n', at + 1) - at - 3 - what.size());
        while (rest.find_first_not_of(' ') != std::string::npos) {
            rest.erase(0, rest.find_first_not_of(' '));
            cells.push_back(rest.substr(0, rest.find("  ")));
            rest.erase(0, cells.back().size());
        }
        cells.resize(std::max<std::size_t>(cells.size(), 4));
        return cells;
    }
    // The number that a cell begins with; blanks stand between thousands.
    [[nodiscard]] double number(const std::string& what, std::size_t cell = 0) const {
        std::string text = row(what)[cell];
        for (std::size_t blank; (blank = text.find(' ')) != std::string::npos && blank + 1 < text.size() &&
                                std::isdigit(static_cast<unsigned char>(text[blank + 1]));)
            text.erase(blank, 1);
        return text.empty() ? std::nan("") : std::strtod(text.c_str(), nullptr);
    }
};

// A variable of the environment, as long as this lives.
class Environment {
public:
    Environment(const char* name, const std::string& value) : name_(name) {
        if (const char* former = std::getenv(name)) former_ = former;
        ::setenv(name, value.c_str(), 1);
    }
    ~Environment() { former_ ? ::setenv(name_, former_->c_str(), 1) : ::unsetenv(name_); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* name_;
    std::optional<std::string> former_;
};

class TourTest : public testing::Test {
protected:
    TourTest() { fs::create_directories(folder); }
    ~TourTest() override { fs::remove_all(folder); }

    [[nodiscard]] pid_t start(std::vector<std::string> arguments, const std::string& standardOutput = "") const {
        arguments.insert(arguments.begin(), VANTLE_TOUR_PROGRAM);
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            const int truncate = O_WRONLY | O_CREAT | O_TRUNC;
            const std::string out = standardOutput.empty() ? (folder / "stdout").string() : standardOutput;
            ::dup2(::open(out.c_str(), truncate, 0600), STDOUT_FILENO);
            ::dup2(::open((folder / "stderr").c_str(), truncate, 0600), STDERR_FILENO);
            ::signal(SIGINT, SIG_DFL); // jobs in the background ignore it
            ::execv(argv[0], argv.data());
            std::_Exit(126);
        }
        return child;
    }

    [[nodiscard]] Result finish(pid_t child) const {
        int status = 0;
        ::waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contents(folder / "stdout"),
                contents(folder / "stderr")};
    }

    [[nodiscard]] Result run(std::vector<std::string> arguments, const std::string& standardOutput = "") const {
        return finish(start(std::move(arguments), standardOutput));
    }

    [[nodiscard]] Result runInto(const std::string& name, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"--output", (folder / name).string()});
        return run(std::move(arguments));
    }

    fs::path store(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return folder / name;
    }

    static std::vector<std::string> filesIn(const fs::path& where) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(where)) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path folder = fs::temp_directory_path() / ("tour-test-" + std::to_string(::getpid()));
};

std::vector<Point> pointsOf(const support::VtkFile& file) {
    const auto flat = file.values<double>("Points");
    std::vector<Point> points;
    for (std::size_t n = 0; n + 2 < flat.size(); n += 3) points.emplace_back(flat[n], flat[n + 1], flat[n + 2]);
    return points;
}

bool havePictures() { return std::system("gnuplot --version >/dev/null 2>&1") == 0; }

TEST_F(TourTest, TheFlowPastACylinderAgreesWithWhatIsKnownOfIt) {
    const Result tour = runInto("out", {"--quick", "--threads=2"});
    ASSERT_EQ(tour.status, 0) << tour.err;
    EXPECT_EQ(tour.err, "");
    std::vector<std::string> files = {"surface.vtp", "tour.log", "uniform.vti"};
    if (havePictures()) files = {"slice.png", "surface.png", "surface.vtp", "tour.log", "uniform.vti"};
    EXPECT_EQ(filesIn(folder / "out"), files);

    EXPECT_EQ(contents(folder / "out" / "tour.log"), tour.out.substr(0, tour.out.find("\n  tour.log")));

    // The flow is fastest at the top of the cylinder's sides: 2 along x, and 2 * 0.12 * 2.5 along z.
    EXPECT_EQ(tour.row("box")[0], "(-4, -4, 0) - (4, 4, 2.5)");
    EXPECT_EQ(tour.row("speed")[0], "0 to 2.088");
    EXPECT_EQ(tour.row("pressure")[0], "-3.36 to 1");
    EXPECT_EQ(tour.row("blocks")[0], "6, of 4 608 cells");
    EXPECT_EQ(tour.row("blanked")[0], "0 cells");
    EXPECT_NE(tour.row("hull")[0].find("triangles, closed"), std::string::npos);
    EXPECT_EQ(tour.row("joins")[0], "6 found in 6 blocks, 0 doubtful faces");

    const support::VtkFile surface(folder / "out" / "surface.vtp");
    const auto points = pointsOf(surface);
    const auto potential = surface.values<double>("potential");
    EXPECT_EQ(double(points.size()), tour.number("vertices"));
    EXPECT_EQ(surface.values<std::int64_t>("connectivity").size(), 3 * std::size_t(tour.number("triangles")));
    ASSERT_GT(points.size(), 100u);
    ASSERT_EQ(potential.size(), points.size());
    for (std::size_t n = 0; n < points.size(); ++n) {
        EXPECT_NEAR(CylinderFlow::pressure(points[n]), -0.6, 0.06) << points[n];
        EXPECT_NEAR(CylinderFlow::potential(points[n]), potential[n], 0.02) << points[n];
    }

    // All positions inside, and no others, are found.
    const double inside = tour.number("inside the blocks");
    EXPECT_GT(inside, 1000.0);
    EXPECT_EQ(tour.number("found in cells"), inside);
    for (const char* what : {"  inside, not found", "  outside, but found"}) EXPECT_EQ(tour.number(what), 0.0) << what;
    EXPECT_LT(tour.number("  farthest off"), 1e-9);
    EXPECT_LT(tour.number("  mean error"), 0.02);

    const support::VtkFile uniform(folder / "out" / "uniform.vti");
    const auto values = uniform.values<double>("pressure");
    const auto outcomes = uniform.values<unsigned char>("outcome");
    ASSERT_EQ(double(values.size()), std::nearbyint(24.0 * 24.0 * 8.0)) << tour.row("positions")[0];
    for (std::size_t n = 0; n < values.size(); ++n) EXPECT_EQ(std::isnan(values[n]), outcomes[n] == 0.0);

    // Second order inside and on joined faces, first order at the outer border.
    for (const char* what : {"  largest error", "  mean error", "  largest", "  mean"}) {
        Result derivatives = tour;
        derivatives.out.erase(0, tour.out.find("\nDerivatives"));
        EXPECT_GT(derivatives.number(what, 2), 3.0) << what;
        EXPECT_LT(derivatives.number(what, 2), 5.0) << what;
    }
    EXPECT_NEAR(tour.number("  at the border", 2), 2.0, 0.4);
}

TEST_F(TourTest, ResultsDoNotDependOnTheNumberOfThreads) {
    for (const char* threads : {"1", "3"}) {
        const std::vector<std::string> arguments = {"--quick",   "--resolution", "12",  "--field",
                                                    "potential", "--level",      "2.5", "--threads"};
        std::vector<std::string> all = arguments;
        all.push_back(threads);
        ASSERT_EQ(runInto(threads, all).status, 0);
    }
    for (const char* file : {"surface.vtp", "uniform.vti"})
        EXPECT_TRUE(contents(folder / "1" / file) == contents(folder / "3" / file)) << file;

    // The surface has no vertex twice, also where the ring closes.
    std::vector<Point> points = pointsOf(support::VtkFile(folder / "1" / "surface.vtp"));
    const auto less = [](const Point& a, const Point& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
    };
    std::sort(points.begin(), points.end(), less);
    EXPECT_EQ(std::adjacent_find(points.begin(), points.end()), points.end());
    const auto isWhereItCloses = [](const Point& p) { return std::abs(std::atan2(p[1], p[0])) < 0.13; };
    EXPECT_GT(std::count_if(points.begin(), points.end(), isWhereItCloses), 4);
}

TEST_F(TourTest, WithoutGnuplotItGoesOnWithoutPictures) {
    const Environment path("PATH", "/nonexistent");
    const Result tour = runInto("out", {"--quick", "--resolution=4"});
    EXPECT_EQ(tour.status, 0) << tour.err;
    EXPECT_NE(tour.out.find("no pictures"), std::string::npos) << tour.out;
    EXPECT_EQ(filesIn(folder / "out"), (std::vector<std::string>{"surface.vtp", "tour.log", "uniform.vti"}));
}

// The signal comes while a picture is drawn, by something that draws as long as its folder is there.
TEST_F(TourTest, AnInterruptLeavesNothingHalfDone) {
    const fs::path out = folder / "out", scratch = folder / "scratch", drawer = folder / "bin" / "gnuplot";
    fs::create_directories(scratch);
    fs::create_directories(drawer.parent_path());
    std::ofstream(drawer) << "#!/bin/sh\nwhile [ -e script ]; do sleep 0.1; done\n";
    fs::permissions(drawer, fs::perms::owner_all);
    const Environment path("PATH", drawer.parent_path().string() + ":/usr/bin:/bin");
    const Environment temporary("TMPDIR", scratch);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t child = start({"--quick", "--output", out});
        const auto isDrawing = [&] {
            return !fs::is_empty(scratch) && fs::exists(out) && filesIn(out).front().starts_with(".surface.png.");
        };
        for (int n = 0; n < 3000 && !isDrawing(); ++n) ::usleep(10000);
        ASSERT_TRUE(isDrawing());
        ::kill(child, signal);
        EXPECT_EQ(finish(child).status, 128 + signal);
        EXPECT_EQ(filesIn(out), std::vector<std::string>{"surface.vtp"});
        EXPECT_TRUE(fs::is_empty(scratch));
    }
}

// Two sheared blocks side by side along x. Density and velocity are linear in space, so everything is known.
struct ShearedBlocks {
    static constexpr int kExtent = 7;
    static double density(const Point& p) { return 2.0 + 0.5 * p[0] - 0.25 * p[1] + 0.125 * p[2]; }
    static Vector velocity(const Point& p) { return {0.5 * p[1], 0.25 * p[2], 2.0 * p[0]}; }

    ShearedBlocks(bool blanking) {
        for (int b = 0; b < 2; ++b) {
            Plot3DBlock& block = grid.emplace_back();
            Plot3DSolutionBlock& flow = solution.emplace_back();
            block.extents = flow.extents = {kExtent, kExtent, kExtent};
            flow.mach = 0.5;
            if (blanking) block.blanking.emplace();
            for (int n = 0; n < kExtent * kExtent * kExtent; ++n) {
                const int i = n % kExtent, j = n / kExtent % kExtent, k = n / kExtent / kExtent;
                const Point p(i + 0.25 * j + b * (kExtent - 1), j + 0.125 * k, k);
                block.x.push_back(p[0]);
                block.y.push_back(p[1]);
                block.z.push_back(p[2]);
                // In the first block, the upper half along z does not count, and has useless values.
                const bool counts = !blanking || b == 1 || k <= kExtent / 2;
                if (blanking) block.blanking->push_back(counts ? 1 : 0);
                const double density = counts ? ShearedBlocks::density(p) : -1000.0;
                flow.fields[0].values.push_back(density);
                for (std::size_t c = 0; c < 3; ++c)
                    flow.fields[c + 1].values.push_back(density * velocity(p)[static_cast<int>(c)]);
                flow.fields[4].values.push_back(50.0);
            }
        }
    }

    std::vector<Plot3DBlock> grid;
    std::vector<Plot3DSolutionBlock> solution;
};

TEST_F(TourTest, LinearFlowsInPlot3DFilesAreKnownEverywhere) {
    for (const bool blanking : {false, true}) {
        const ShearedBlocks blocks(blanking);
        const Plot3DForm form{true, true, std::endian::little, blanking, Plot3DScalar::float64};
        const fs::path grid = store("grid.xyz", support::gridBytes(form, blocks.grid));
        const fs::path solution = store("flow.q", support::solutionBytes(form, blocks.solution));
        const Result tour = runInto("out", {grid, solution, "--resolution=25", "--level=3.1", "--precision", "double"});
        ASSERT_EQ(tour.status, 0) << tour.err;
        EXPECT_NE(tour.out.find("grid: little-endian, with record marks, multi-block, " +
                                std::string(blanking ? "" : "no ") + "blanking, float64"),
                  std::string::npos)
            << tour.out;

        // Least density at the lower end of x and the upper end of y; with blanking, both within its lower half.
        const Point least(0.25 * 6, 6, 0), greatest(12, 0.125 * 6, 6);
        EXPECT_EQ(tour.number("blocks"), 2.0);
        EXPECT_EQ(tour.number("blanked"), blanking ? 108.0 : 0.0); // of two blocks of 216 cells
        EXPECT_EQ(tour.row("density")[0].substr(0, 4), "1.25") << tour.out;
        EXPECT_EQ(ShearedBlocks::density(least), 1.25);
        EXPECT_GT(ShearedBlocks::density(greatest), 8.0);

        const auto points = pointsOf(support::VtkFile(folder / "out" / "surface.vtp"));
        ASSERT_GT(points.size(), 20u);
        const bool upper = std::any_of(points.begin(), points.end(), [](const Point& p) { return p[2] > 3.5; });
        EXPECT_EQ(upper, !blanking); // at this level the surface is in the first block
        for (const Point& p : points) EXPECT_NEAR(ShearedBlocks::density(p), 3.1, 1e-12) << p;
        // Cut into turned and mirrored blocks, and with next to no memory, it is the same.
        const Result cut = runInto("cut", {grid, solution, "--resolution=3", "--level=3.1", "--cut=7", "--memory=1"});
        for (const char* what : {"triangles", "vertices", "hull", "blanked"})
            EXPECT_EQ(cut.row(what)[0], tour.row(what)[0]) << what;
        for (std::size_t column = 0; column < 3; ++column)
            EXPECT_NEAR(cut.number("volume of a cell", column), 1, 1e-12);

        EXPECT_GT(tour.number("found in cells"), 1000.0);
        EXPECT_EQ(tour.number("found in cells"), tour.number("inside the blocks"));
        EXPECT_EQ(tour.number("  inside, not found"), 0.0);
        EXPECT_LT(tour.number("  farthest off"), 1e-10);

        const support::VtkFile uniform(folder / "out" / "uniform.vti");
        const auto values = uniform.values<double>("density");
        for (const double value : values)
            EXPECT_TRUE(std::isnan(value) || (value > 1.25 - 1e-12 && value < 8.7)) << value;

        for (std::size_t column = 0; column < 3; ++column) {
            // The curl of (y / 2, z / 4, 2 x) is (-1/4, -2, -1/2), also next to vertices that do not count.
            EXPECT_NEAR(tour.number("vorticity", column), std::sqrt(0.0625 + 4.0 + 0.25), 0.005);
            EXPECT_NEAR(tour.number("velocity gradient", column), std::sqrt(0.25 + 0.0625 + 4.0), 0.005);
            EXPECT_NEAR(tour.number("divergence", column), 0.0, 1e-12);
            EXPECT_EQ(tour.number("volume of a cell", column), 1.0);
        }
    }
}

TEST_F(TourTest, AGridAloneHasItsCoordinates) {
    const ShearedBlocks blocks(false);
    const fs::path grid = store("grid.xyz", support::gridBytes({}, {blocks.grid[0]}));
    const Result tour = runInto("out", {grid, "--resolution=9"});
    ASSERT_EQ(tour.status, 0) << tour.err;
    EXPECT_EQ(tour.row("x")[0], "0 to 7.5");
    EXPECT_EQ(tour.number("found in cells"), tour.number("inside the blocks"));
    for (const Point& p : pointsOf(support::VtkFile(folder / "out" / "surface.vtp"))) EXPECT_NEAR(p[0], 3.75, 1e-12);
    EXPECT_EQ(tour.number("volume of a cell"), 1.0);
}

// Blocks too thin for the uniform grid to have a layer between their faces. Coordinates are linear: known everywhere.
TEST_F(TourTest, ThinBlocksShowTheirMiddle) {
    for (std::size_t thin = 0; thin < 3; ++thin) {
        Plot3DBlock block = ShearedBlocks(false).grid[0];
        for (double& coordinate : thin == 0 ? block.x : thin == 1 ? block.y : block.z) coordinate *= 0.1;
        const fs::path grid = store("thin.xyz", support::gridBytes({}, {block}));
        const std::size_t shown = (thin + 1) % 3;
        const std::string field(1, "xyz"[shown]);
        const Result tour = runInto("out", {grid, "--resolution=12", "--field", field});
        ASSERT_EQ(tour.status, 0) << tour.err;
        EXPECT_GT(tour.number("found in cells"), 50.0) << tour.out;
        EXPECT_EQ(tour.number("found in cells"), tour.number("inside the blocks"));

        const support::VtkFile uniform(folder / "out" / "uniform.vti");
        std::istringstream extents(support::attribute(uniform.xml, "WholeExtent")),
            origins(support::attribute(uniform.xml, "Origin")), spacings(support::attribute(uniform.xml, "Spacing"));
        const auto values = uniform.values<double>(field);
        double origin = 0.0, spacing = 0.0;
        std::size_t stride = 1, first = 0, last = 0;
        for (std::size_t axis = 0; axis <= shown; ++axis) {
            if (axis > 0) stride *= last + 1;
            extents >> first >> last, origins >> origin, spacings >> spacing;
        }
        for (std::size_t n = 0; n < values.size(); ++n)
            EXPECT_TRUE(std::isnan(values[n]) ||
                        std::abs(values[n] - origin - double(n / stride % (last + 1)) * spacing) < 1e-5);
    }
}

// Results of a flow without sense somewhere, or all alike.
TEST_F(TourTest, FieldsThatShowLittle) {
    ShearedBlocks blocks(false);
    blocks.grid.pop_back();
    blocks.solution.pop_back();
    const Plot3DForm form{false, false, std::endian::big, false, Plot3DScalar::float64};
    const fs::path grid = store("grid.xyz", support::gridBytes(form, blocks.grid));
    auto& fields = blocks.solution[0].fields;
    const auto tourOf = [&](std::vector<std::string> more) {
        const fs::path solution = store("flow.q", support::solutionBytes(form, blocks.solution));
        more.insert(more.begin(), {grid, solution, "--resolution=9", "--precision=double"});
        return runInto("out", more);
    };

    // A value that is no number is left out, with the cells around it.
    fields[4].values[0] = std::nan("");
    Result tour = tourOf({"--level=3.1"});
    ASSERT_EQ(tour.status, 0) << tour.err;
    EXPECT_NE(tour.out.find("values that are not finite; cells left out for them: 1\n"), std::string::npos);
    EXPECT_EQ(tour.row("energy")[0], "50 to 50");
    EXPECT_EQ(tour.number("found in cells"), tour.number("inside the blocks"));
    EXPECT_EQ(tour.row("coloured by")[0], "speed");

    // Constant density and no velocity: the pressure depends on the energy alone, and on the gas.
    fields[0].values.assign(fields[0].values.size(), 1.0);
    for (std::size_t c : {1u, 2u, 3u}) fields[c].values.assign(fields[c].values.size(), 0.0);
    for (std::size_t n = 0; n < fields[4].values.size(); ++n) fields[4].values[n] = 2.0 + double(n);
    tour = tourOf({});
    ASSERT_EQ(tour.status, 0) << tour.err;
    EXPECT_NE(tour.out.find("density is the same everywhere: looking at pressure instead"), std::string::npos);
    EXPECT_EQ(tour.row("pressure")[0], "0.8 to 137.6");
    EXPECT_NE(tour.out.find("heat capacities have a ratio of 1.4\n"), std::string::npos) << tour.out;
    EXPECT_EQ(tour.row("coloured by")[0], "energy");
    EXPECT_GT(tour.number("triangles"), 0.0);
    EXPECT_EQ(tourOf({"--heat-ratio=1.5"}).row("pressure")[0], "1 to 172");
    tour = tourOf({"--field=density"});
    EXPECT_EQ(tour.status, 0);
    EXPECT_NE(tour.out.find("\n  nowhere: density is 1 everywhere\n"), std::string::npos) << tour.out;
}

TEST_F(TourTest, TheBluntFin) {
    const fs::path data = VANTLE_TEST_DATA;
    if (data.empty()) GTEST_SKIP() << "no real data";
    const Result tour = runInto("out", {data / "bluntfinxyz.bin", data / "bluntfinq.bin", "--resolution=40"});
    ASSERT_EQ(tour.status, 0) << tour.err;
    EXPECT_EQ(tour.row("density")[0], "0.1926 to 4.977");
    EXPECT_EQ(tour.number("found in cells"), tour.number("inside the blocks"));
    EXPECT_EQ(tour.number("  outside, but found"), 0.0);
    EXPECT_LT(tour.number("  farthest off"), 1e-9);

    // The bow shock: before the fin, whose nose is at the origin, and beside it, as wide as the grid.
    const auto points = pointsOf(support::VtkFile(folder / "out" / "surface.vtp"));
    ASSERT_GT(points.size(), 1000u);
    const auto first =
        std::min_element(points.begin(), points.end(), [](const Point& a, const Point& b) { return a[0] < b[0]; });
    EXPECT_TRUE((*first)[0] < -0.2 && (*first)[0] > -3.0) << *first;
    EXPECT_TRUE(std::any_of(points.begin(), points.end(), [](const Point& p) { return p[1] > 7.0; }));

    // Cut into turned blocks it shows the same.
    const Result cut =
        runInto("cut", {data / "bluntfinxyz.bin", data / "bluntfinq.bin", "--resolution=9", "--cut", "8"});
    ASSERT_EQ(cut.status, 0) << cut.err;
    EXPECT_EQ(cut.row("joins")[0], "12 found in 8 blocks, 0 doubtful faces");
    EXPECT_EQ(cut.number("triangles"), tour.number("triangles"));
    const support::VtkFile whole(folder / "out" / "surface.vtp"), pieces(folder / "cut" / "surface.vtp");
    const auto speeds = whole.values<double>("speed"), speedsOfPieces = pieces.values<double>("speed");
    const auto same = pointsOf(pieces);
    ASSERT_EQ(same.size(), points.size());
    for (std::size_t n = 0; n < same.size(); ++n) {
        const auto nearest =
            std::min_element(points.begin(), points.end(), [&p = same[n]](const Point& a, const Point& b) {
                return normSquared(a - p) < normSquared(b - p);
            });
        ASSERT_LT(normSquared(*nearest - same[n]), 1e-28) << same[n];
        EXPECT_NEAR(speedsOfPieces[n], speeds[std::size_t(nearest - points.begin())], 1e-12);
    }
}

void expectOneLine(const Result& tour, int status, const std::string& reason) {
    EXPECT_EQ(tour.status, status) << tour.err;
    EXPECT_EQ(std::count(tour.err.begin(), tour.err.end(), '\n'), 1) << tour.err;
    EXPECT_EQ(tour.err.substr(0, 6), "tour: ");
    EXPECT_NE(tour.err.find(reason), std::string::npos) << tour.err << "does not say: " << reason;
}

TEST_F(TourTest, ACommandLineThatMakesNoSense) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--colour"}, "unknown option '--colour'"},
        {{"-x=1"}, "unknown option '-x'"},
        {{"--quick=yes"}, "unknown option '--quick'"},
        {{"--level"}, "--level: its value is missing"},
        {{"--heat-ratio=1"}, "--heat-ratio: '1' is not above 1"},
        {{"--heat-ratio=1.3"}, "--heat-ratio: no solution is given"},
        {{"--level", "high"}, "--level: 'high' is not a number"},
        {{"--level=nan"}, "--level: 'nan' is not a number"},
        {{"--resolution=1"}, "--resolution: '1' is not a number from 3 to"},
        {{"--resolution", "99999999999999999999"}, "--resolution: '99999999999999999999' is not a number"},
        {{"--cut=8"}, "--cut: no grid is given"},
        {{"--cut=0", "a"}, "--cut: '0' is not a number from 1"},
        {{"--threads", "0"}, "--threads: '0' is not a number from 1"},
        {{"--threads", "2x"}, "--threads: '2x' is not a number"},
        {{"--memory", "-1"}, "--memory: '-1' is not a number from 1"},
        {{"--endian", "middle"}, "--endian: 'middle' is neither big nor little"},
        {{"--blanking=perhaps"}, "--blanking: 'perhaps' is neither yes nor no"},
        {{"--endian=big"}, "--endian: no grid is given"},
        {{"a", "b", "c"}, "also 'c'"},
        {{""}, "name of a file is empty"},
        {{"--output="}, "--output: the name of a folder is missing"},
        {{"--quick", "--field", "colour\nblue"}, "no scalar field 'colour blue'; there are speed, pressure, potential"},
    };
    for (const auto& [arguments, reason] : cases) {
        const Result tour = runInto("out", arguments);
        expectOneLine(tour, 2, reason);
        EXPECT_EQ(tour.out, "");
        EXPECT_FALSE(fs::exists(folder / "out"));
    }
    const Result help = run({"--help", "--threads=1"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.substr(0, 11), "usage: tour");
    for (const auto& [arguments, reason] : cases)
        EXPECT_TRUE(!reason.starts_with("--") ||
                    help.out.find("  " + reason.substr(0, reason.find(':'))) != std::string::npos)
            << reason;
}

TEST_F(TourTest, DataThatCannotBeRead) {
    const ShearedBlocks blocks(false);
    const std::string gridBytes = support::gridBytes({}, {blocks.grid[0]});
    const std::string solutionBytes = support::solutionBytes({}, {blocks.solution[0]});
    const fs::path grid = store("grid.xyz", gridBytes), solution = store("flow.q", solutionBytes);
    const fs::path cut = store("cut", gridBytes.substr(0, gridBytes.size() / 2));
    const fs::path cutSolution = store("cut.q", solutionBytes.substr(0, solutionBytes.size() - 3));
    const fs::path empty = store("empty", ""), text = store("text\nof two lines", "2 2 2\n0 1\n");
    const fs::path absent = folder / "absent";
    // Places and values that are none; layers between which there are no cells.
    const Plot3DForm form{false, false, std::endian::big, false, Plot3DScalar::float32};
    Plot3DBlock endless = blocks.grid[0], flat = blocks.grid[0];
    endless.y[ShearedBlocks::kExtent + 2] = std::numeric_limits<double>::infinity();
    flat.extents = {ShearedBlocks::kExtent, ShearedBlocks::kExtent * ShearedBlocks::kExtent, 1};
    Plot3DSolutionBlock senseless = blocks.solution[0];
    senseless.fields[0].values.assign(senseless.fields[0].values.size(), std::nan(""));
    const fs::path infinite = store("infinite", support::gridBytes(form, {endless}));
    const fs::path layer = store("layer", support::gridBytes(form, {flat}));
    const fs::path nothing = store("nothing.q", support::solutionBytes(form, {senseless}));
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{absent}, absent},
        {{grid, absent}, absent},
        {{cut}, cut},
        {{grid, cutSolution}, cutSolution},
        {{empty}, empty},
        {{text}, (folder / "text of two lines").string()},
        {{folder}, folder},
        {{grid, "--endian=little"}, grid},
        {{grid, grid}, grid},
        {{solution, grid}, solution},
        {{grid, "--precision=double"}, grid},
        {{infinite}, infinite.string() + ": block1, vertex (3, 2, 1): (2.25, inf, 0) is no place"},
        {{layer}, layer.string() + ": extents: no block has cells"},
        {{grid, nothing, "--precision=single", "--endian=big", "--records=no", "--multiblock=no", "--blanking=no"},
         nothing.string() + ": no cell counts"},
    };
    for (const auto& [arguments, culprit] : cases) {
        const Result tour = runInto("out", arguments);
        expectOneLine(tour, 1, "tour: " + culprit);
        EXPECT_EQ(tour.out, "");
        EXPECT_FALSE(fs::exists(folder / "out"));
    }
}

TEST_F(TourTest, PlacesThatCannotBeWrittenTo) {
    const fs::path file = store("file", "something");
    expectOneLine(run({"--quick", "--output", file}), 1, "tour: " + file.string() + ": ");
    expectOneLine(run({"--quick", "--output", file / "below"}), 1, "tour: " + (file / "below").string() + ": ");
    expectOneLine(run({"--quick", "--output", "/proc/tour"}), 1, "tour: /proc/tour: ");
    EXPECT_EQ(contents(file), "something");

    // A file that stands in the way of a result; and a table that does not arrive.
    fs::create_directories(folder / "out" / "uniform.vti");
    expectOneLine(run({"--quick", "--resolution=4", "--output", folder / "out"}), 1,
                  "uniform.vti: cannot put it in place");
    for (const std::string& name : filesIn(folder / "out")) EXPECT_NE(name[0], '.') << name;
    if (fs::exists("/dev/full"))
        expectOneLine(run({"--quick", "--output", folder / "full"}, "/dev/full"), 1, "standard output: cannot write");
}

} // namespace
