// The reader against files written here in every form PLOT3D knows, whole, cut, damaged and real.

#include "io/Plot3D.hpp"

#include "io/FileError.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <support/Plot3DFile.hpp>
#include <unistd.h>
#include <vector>

namespace {

using namespace tour;
namespace fs = std::filesystem;

// A folder of this test, gone at its end.
class Plot3DTest : public testing::Test {
protected:
    Plot3DTest() { fs::create_directories(folder); }
    ~Plot3DTest() override { fs::remove_all(folder); }

    fs::path store(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return folder / name;
    }

    fs::path folder = fs::temp_directory_path() / ("plot3d-test-" + std::to_string(::getpid()));
};

using support::FormWriter;
using support::gridBytes;
using support::solutionBytes;

// Seeded blocks whose values survive the trip through the form's scalar.
struct Samples {
    explicit Samples(const Plot3DForm& form, unsigned seed = 7) : form_(form), random_(seed) {
        const std::vector<Extents> all = {{3, 3, 2}, {2, 4, 1}, {1, 2, 2}};
        for (std::size_t i = 0; i < (form.multiBlock ? all.size() : 1); ++i) {
            const auto count = static_cast<std::size_t>(all[i][0] * all[i][1] * all[i][2]);
            Plot3DBlock& block = grid.emplace_back();
            block.extents = all[i];
            block.x = values(count);
            block.y = values(count);
            block.z = values(count);
            if (form.blanking) {
                block.blanking = std::vector<int>(count, 1);
                for (std::size_t k = 1; k < count; k += 3) (*block.blanking)[k] = k % 2 ? 0 : -2;
            }
            Plot3DSolutionBlock& state = solution.emplace_back();
            state.extents = all[i];
            const auto stream = values(4);
            state.mach = stream[0];
            state.alpha = stream[1];
            state.reynolds = stream[2];
            state.time = stream[3];
            for (Plot3DField& field : state.fields) field.values = values(count);
        }
    }

    std::vector<Plot3DBlock> grid;
    std::vector<Plot3DSolutionBlock> solution;

private:
    std::vector<double> values(std::size_t count) {
        std::uniform_real_distribution<double> range(-3.0, 5.0);
        std::vector<double> result(count);
        for (double& value : result) {
            value = range(random_);
            if (form_.scalar == Plot3DScalar::float32) value = static_cast<float>(value);
        }
        return result;
    }

    Plot3DForm form_;
    std::mt19937_64 random_;
};

std::vector<Plot3DForm> allForms() {
    std::vector<Plot3DForm> forms;
    for (const bool marks : {false, true})
        for (const bool multi : {false, true})
            for (const auto order : {std::endian::big, std::endian::little})
                for (const bool blanking : {false, true})
                    for (const auto scalar : {Plot3DScalar::float32, Plot3DScalar::float64})
                        forms.push_back({marks, multi, order, blanking, scalar});
    return forms;
}

Plot3DOptions stated(const Plot3DForm& form) {
    return {form.recordMarks, form.multiBlock, form.byteOrder, form.blanking, form.scalar};
}

void expectSame(const std::vector<Plot3DBlock>& read, const std::vector<Plot3DBlock>& written) {
    ASSERT_EQ(read.size(), written.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        EXPECT_EQ(read[i].extents, written[i].extents);
        EXPECT_EQ(read[i].x, written[i].x);
        EXPECT_EQ(read[i].y, written[i].y);
        EXPECT_EQ(read[i].z, written[i].z);
        EXPECT_EQ(read[i].blanking, written[i].blanking);
    }
}

void expectSame(const std::vector<Plot3DSolutionBlock>& read, const std::vector<Plot3DSolutionBlock>& written) {
    const std::vector<std::string> names = {"density", "momentum x", "momentum y", "momentum z", "energy"};
    ASSERT_EQ(read.size(), written.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        EXPECT_EQ(read[i].extents, written[i].extents);
        EXPECT_EQ(read[i].mach, written[i].mach);
        EXPECT_EQ(read[i].alpha, written[i].alpha);
        EXPECT_EQ(read[i].reynolds, written[i].reynolds);
        EXPECT_EQ(read[i].time, written[i].time);
        for (std::size_t f = 0; f < 5; ++f) {
            EXPECT_EQ(read[i].fields[f].name, names[f]);
            EXPECT_EQ(read[i].fields[f].values, written[i].fields[f].values);
        }
    }
}

// The message of the FileError that `action` throws, checked to be one line that names `file`.
std::string failure(const fs::path& file, const std::function<void()>& action) {
    try {
        action();
    } catch (const FileError& error) {
        const std::string text = error.what();
        EXPECT_TRUE(text.starts_with(file.string() + ": ")) << text;
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        return text;
    }
    ADD_FAILURE() << "no FileError for " << file;
    return "";
}

TEST_F(Plot3DTest, EveryFormIsFoundAndReadBackExactly) {
    for (const Plot3DForm& form : allForms())
        for (const std::size_t padding : {0u, 3u, 511u})
            for (const auto& options : {Plot3DOptions{}, stated(form)}) {
                SCOPED_TRACE(describe(form) + ", padding " + std::to_string(padding));
                const Samples samples(form);
                const auto grid =
                    readPlot3DGrid(store("grid", gridBytes(form, samples.grid) + std::string(padding, '\0')), options);
                expectSame(grid.blocks, samples.grid);
                EXPECT_EQ(describe(grid.form), describe(form));
                EXPECT_EQ(grid.paddingBytes, padding);

                const auto solution = readPlot3DSolution(
                    store("solution", solutionBytes(form, samples.solution) + std::string(padding, '\0')), grid,
                    options);
                expectSame(solution.blocks, samples.solution);
                EXPECT_EQ(solution.paddingBytes, padding);
            }
}

// Grid and solution need not be written in the same form.
TEST_F(Plot3DTest, ASolutionMayDifferFromItsGridInForm) {
    for (const Plot3DForm& gridForm : allForms()) {
        Plot3DForm form = gridForm;
        form.recordMarks = !form.recordMarks;
        form.byteOrder = form.byteOrder == std::endian::big ? std::endian::little : std::endian::big;
        form.scalar = form.scalar == Plot3DScalar::float32 ? Plot3DScalar::float64 : Plot3DScalar::float32;
        const auto grid = readPlot3DGrid(store("grid", gridBytes(gridForm, Samples(gridForm).grid)));
        const Samples samples(form);
        expectSame(readPlot3DSolution(store("solution", solutionBytes(form, samples.solution)), grid).blocks,
                   samples.solution);
    }
}

// A cut file is never read, except where it is a complete file without blanking, padded with zeros.
TEST_F(Plot3DTest, EveryCutIsAnError) {
    for (const Plot3DForm& form : allForms()) {
        const Samples samples(form);
        const std::string whole = gridBytes(form, samples.grid);
        Plot3DForm plain = form;
        plain.blanking = false;
        const std::string withoutBlanking = gridBytes(plain, samples.grid);
        auto file = store("grid", whole);
        const auto grid = readPlot3DGrid(file);
        for (std::size_t length = whole.size(); length-- > 0;) {
            SCOPED_TRACE(describe(form) + " cut to " + std::to_string(length));
            fs::resize_file(file, length);
            failure(file, [&] { readPlot3DGrid(file, stated(form)); });
            if (form.blanking && length >= withoutBlanking.size() && whole.starts_with(withoutBlanking) &&
                whole.find_first_not_of('\0', withoutBlanking.size()) >= length)
                expectSame(readPlot3DGrid(file).blocks, Samples(plain).grid);
            else
                failure(file, [&] { readPlot3DGrid(file); });
        }
        file = store("solution", solutionBytes(form, samples.solution));
        for (std::size_t length = fs::file_size(file); length-- > 0;) {
            SCOPED_TRACE(describe(form) + " solution cut to " + std::to_string(length));
            fs::resize_file(file, length);
            failure(file, [&] { readPlot3DSolution(file, grid, stated(form)); });
            failure(file, [&] { readPlot3DSolution(file, grid); });
        }
    }
}

// Whatever stands in the first bytes: read or refused, never a crash or an allocation beyond the file.
TEST_F(Plot3DTest, DamagedHeadersAreSurvived) {
    std::mt19937 random(11);
    std::size_t refused = 0;
    for (const Plot3DForm& form : allForms()) {
        const Samples samples(form);
        const auto grid = readPlot3DGrid(store("grid", gridBytes(form, samples.grid)));
        for (const std::string& whole : {gridBytes(form, samples.grid), solutionBytes(form, samples.solution)})
            for (int round = 0; round < 20; ++round) {
                std::string bytes = whole;
                for (unsigned long hits = 1 + random() % 4; hits > 0; --hits) {
                    const unsigned long extremes[] = {0x00, 0x7f, 0x80, 0xff, random() & 0xff};
                    bytes[random() % 48] = static_cast<char>(extremes[random() % 5]);
                }
                const auto file = store("damaged", bytes);
                for (const auto& options : {Plot3DOptions{}, stated(form)}) {
                    try {
                        for (const Plot3DBlock& block : readPlot3DGrid(file, options).blocks)
                            EXPECT_LE(block.x.size(), bytes.size() / 12);
                    } catch (const FileError&) {
                        ++refused;
                    }
                    try {
                        readPlot3DSolution(file, grid, options);
                    } catch (const FileError&) {
                        ++refused;
                    }
                }
            }
    }
    EXPECT_GT(refused, 1000u);
}

TEST_F(Plot3DTest, MessagesNamePlaceAndReason) {
    const Plot3DForm form{true, true, std::endian::little, false, Plot3DScalar::float32};
    const Samples samples(form);
    const std::string whole = gridBytes(form, samples.grid);
    const auto grid = readPlot3DGrid(store("whole", whole));
    const auto expectMessage = [&](const std::string& bytes, const std::vector<std::string>& parts) {
        const auto file = store("bad", bytes);
        const std::string text = failure(file, [&] { readPlot3DGrid(file); });
        for (const std::string& part : parts) EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    };
    // Number of blocks and extents with their marks take 12 + 44 bytes, the next mark 4: x of block 1 begins at 60.
    expectMessage(whole.substr(0, 60 + 5 * 4), {"byte 80, block 1, x coordinates", "file ends here", "little-endian"});
    std::string wrongMark = whole;
    wrongMark[60 + 18 * 12] ^= 1;
    expectMessage(wrongMark, {"byte 276, block 1, record mark", "217 where 216 belongs"});
    expectMessage("", {"is empty"});
    expectMessage(std::string(100, '\0'), {"byte 0, header", "no form", "the integer 0 read as big-endian"});
    expectMessage("4 3 3\n0.0 1.0 2.0\n", {"looks like text"});
    expectMessage(whole + "junk", {"4 bytes follow the last value"});

    for (const bool wantGrid : {true, false}) {
        const auto file = store("other", wantGrid ? solutionBytes(form, samples.solution) : whole);
        const std::string text = failure(file, [&] {
            if (wantGrid)
                readPlot3DGrid(file);
            else
                readPlot3DSolution(file, grid);
        });
        EXPECT_NE(text.find(wantGrid ? "is a solution file" : "is a grid file"), std::string::npos) << text;
    }

    failure(folder / "absent", [&] { readPlot3DGrid(folder / "absent"); });
    EXPECT_NE(failure(folder, [&] { readPlot3DGrid(folder); }).find("folder"), std::string::npos);
    failure("/dev/zero", [&] { readPlot3DGrid("/dev/zero"); });

    auto other = samples.solution;
    other[1].extents = {2, 2, 2};
    auto file = store("solution", solutionBytes(form, other));
    const std::string text = failure(file, [&] { readPlot3DSolution(file, grid); });
    EXPECT_NE(text.find("block 2: the extents of the solution, 2 x 2 x 2, are not those of the grid, 2 x 4 x 1"),
              std::string::npos)
        << text;
    other.pop_back();
    file = store("solution", solutionBytes(form, other));
    EXPECT_NE(failure(file, [&] { readPlot3DSolution(file, grid); }).find("2 blocks, the grid 3"), std::string::npos);
}

// Extents whose product wraps, or asks for far more than the file has, are refused by size alone.
TEST_F(Plot3DTest, AbsurdExtentsAllocateNothing) {
    const int huge = std::numeric_limits<int>::max();
    for (const bool multi : {false, true})
        for (const Extents& extents : {Extents{huge, huge, huge}, Extents{1 << 22, 1 << 21, 1 << 21}, Extents{-1, 3, 3},
                                       Extents{3, 0, 3}, Extents{100000, 1000, 1000}}) {
            const Plot3DForm form{false, multi, std::endian::big, false, Plot3DScalar::float64};
            FormWriter writer(form);
            writer.header(std::vector<Plot3DBlock>{{extents, {}, {}, {}, {}}});
            const auto file = store("absurd", writer.bytes + std::string(1000, '\1'));
            failure(file, [&] { readPlot3DGrid(file); });
            failure(file, [&] { readPlot3DGrid(file, stated(form)); });
        }
}

// Values that detection doubts are read when the caller vouches for the form.
TEST_F(Plot3DTest, AStatedFormIsTrusted) {
    const Plot3DForm form{false, false, std::endian::big, false, Plot3DScalar::float32};
    Samples samples(form);
    for (double& x : samples.grid[0].x) x = static_cast<float>(1e-33 * x);
    samples.grid[0].y[3] = std::numeric_limits<float>::infinity();
    const auto file = store("tiny", gridBytes(form, samples.grid));
    EXPECT_NE(failure(file, [&] { readPlot3DGrid(file); }).find("beyond belief"), std::string::npos);
    expectSame(readPlot3DGrid(file, stated(form)).blocks, samples.grid);
}

TEST(Plot3DRealData, BluntFin) {
    const fs::path data = VANTLE_TEST_DATA;
    if (data.empty()) GTEST_SKIP() << "no real data";
    const auto grid = readPlot3DGrid(data / "bluntfinxyz.bin");
    const auto solution = readPlot3DSolution(data / "bluntfinq.bin", grid);
    EXPECT_EQ(describe(grid.form), "big-endian, without record marks, single block, no blanking, float32");
    EXPECT_EQ(describe(solution.form), describe(grid.form));
    ASSERT_EQ(grid.blocks.size(), 1u);
    EXPECT_EQ(grid.blocks[0].extents, (Extents{40, 32, 32}));
    const auto& density = solution.blocks.at(0).fields[0].values;
    ASSERT_EQ(density.size(), 40u * 32u * 32u);
    const auto [low, high] = std::minmax_element(density.begin(), density.end());
    EXPECT_NEAR(*low, 0.19, 0.01);
    EXPECT_NEAR(*high, 4.98, 0.01);
    EXPECT_NEAR(solution.blocks[0].mach, 2.95, 1e-6); // 0x403ccccd in the file
}

} // namespace
