// PLOT3D files written here in every form there is, whole, cut, damaged and changed, and a real one.

#include <dataset/Files.hpp>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
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

using namespace Vantle;
using support::FormWriter, support::functionBytes, support::gridBytes, support::solutionBytes;
using support::Plot3DBlock, support::Plot3DField, support::Plot3DFunctionBlock, support::Plot3DSolutionBlock;
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

// Seeded blocks whose values survive the trip through the form's scalar.
struct Samples {
    explicit Samples(const Plot3DForm& form, unsigned seed = 7) : form_(form), random_(seed) {
        const std::vector<std::array<int, 3>> all = {{3, 3, 2}, {2, 4, 1}, {1, 2, 2}};
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
            // The last block has fewer functions.
            functions.push_back({all[i], {state.fields[4], state.fields[0], state.fields[1], state.fields[2]}});
            functions.back().fields.resize(i < 2 ? 4 : 2);
        }
    }

    std::vector<Plot3DBlock> grid;
    std::vector<Plot3DSolutionBlock> solution;
    std::vector<Plot3DFunctionBlock> functions;

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
                        forms.push_back({marks, multi, order, blanking, scalar, false});
    for (const bool multi : {false, true})
        for (const bool blanking : {false, true})
            forms.push_back({false, multi, std::endian::big, blanking, Plot3DScalar::float64, true});
    return forms;
}

Plot3DOptions stated(const Plot3DForm& form) {
    return {form.recordMarks, form.multiBlock, form.byteOrder, form.blanking, form.scalar};
}

std::vector<double> values(const Plot3DFile& file, std::size_t block, std::size_t variable) {
    return file.read<double>(block, variable)->base_vector();
}

void expectExtents(const Plot3DFile& file, std::size_t block, const std::array<int, 3>& extents) {
    for (int d = 0; d < 3; ++d) EXPECT_EQ(file.extents(block)[d], extents[static_cast<std::size_t>(d)]);
}

void expectSame(const Plot3DFile& file, const std::vector<Plot3DBlock>& written) {
    ASSERT_EQ(file.blocks(), written.size());
    for (std::size_t b = 0; b < written.size(); ++b) {
        expectExtents(file, b, written[b].extents);
        EXPECT_EQ(values(file, b, 0), written[b].x);
        EXPECT_EQ(values(file, b, 1), written[b].y);
        EXPECT_EQ(values(file, b, 2), written[b].z);
        EXPECT_EQ(file.readBlanking(b)->base_vector(),
                  written[b].blanking.value_or(std::vector<int>(written[b].x.size(), 1)));
        const auto points = file.readPoints(b);
        for (std::size_t n = 0; n < written[b].x.size(); ++n)
            EXPECT_EQ(points->element(n),
                      Orvix::PhysicalSpace::point(written[b].x[n], written[b].y[n], written[b].z[n]));
    }
}

template<class Block>
void expectSameFields(const Plot3DFile& file, const std::vector<Block>& written) {
    ASSERT_EQ(file.blocks(), written.size());
    for (std::size_t b = 0; b < written.size(); ++b) {
        expectExtents(file, b, written[b].extents);
        ASSERT_EQ(file.variables(b), written[b].fields.size());
        for (std::size_t f = 0; f < written[b].fields.size(); ++f)
            EXPECT_EQ(values(file, b, f), written[b].fields[f].values);
    }
}

void expectSame(const Plot3DFile& file, const std::vector<Plot3DSolutionBlock>& written) {
    expectSameFields(file, written);
    for (std::size_t b = 0; b < written.size(); ++b) {
        const auto stream = file.readFreeStream(b);
        EXPECT_EQ(stream.mach, written[b].mach);
        EXPECT_EQ(stream.alpha, written[b].alpha);
        EXPECT_EQ(stream.reynolds, written[b].reynolds);
        EXPECT_EQ(stream.time, written[b].time);
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
                const std::string rest(padding, form.text ? '\n' : '\0');
                const std::uintmax_t zeros = form.text ? 0 : padding;
                const auto grid = Plot3DFile::openGrid(store("grid", gridBytes(form, samples.grid) + rest), options);
                expectSame(grid, samples.grid);
                EXPECT_EQ(describe(grid.form()), describe(form));
                EXPECT_EQ(grid.paddingBytes(), zeros);

                const auto file = store("solution", solutionBytes(form, samples.solution) + rest);
                const auto solution = Plot3DFile::openSolution(file, grid, options);
                expectSame(solution, samples.solution);
                EXPECT_EQ(solution.paddingBytes(), zeros);
                EXPECT_EQ(Plot3DFile::openFields(file, grid, {}, options).content(), Plot3DContent::solution);

                const auto functions = Plot3DFile::openFields(
                    store("functions", functionBytes(form, samples.functions) + rest), grid, {}, options);
                EXPECT_EQ(functions.content(), Plot3DContent::functions);
                expectSameFields(functions, samples.functions);
            }
}

// Grid and solution need not be written in the same form.
TEST_F(Plot3DTest, ASolutionMayDifferFromItsGridInForm) {
    for (const Plot3DForm& gridForm : allForms()) {
        Plot3DForm form = gridForm;
        form.text = false;
        form.recordMarks = !form.recordMarks;
        form.byteOrder = form.byteOrder == std::endian::big ? std::endian::little : std::endian::big;
        form.scalar = form.scalar == Plot3DScalar::float32 ? Plot3DScalar::float64 : Plot3DScalar::float32;
        const auto grid = Plot3DFile::openGrid(store("grid", gridBytes(gridForm, Samples(gridForm).grid)));
        const Samples samples(form);
        expectSame(Plot3DFile::openSolution(store("solution", solutionBytes(form, samples.solution)), grid),
                   samples.solution);
    }
}

// What is shorter is not whole. The last number of a text may lose digits, which nobody can notice.
std::size_t sureCut(const Plot3DForm& form, const std::string& whole) {
    return form.text ? whole.find_last_of(" \n", whole.find_last_not_of(" \n")) : whole.size();
}

// A cut file is never read, except where it is a complete file without blanking, padded with zeros.
TEST_F(Plot3DTest, EveryCutIsAnError) {
    for (const Plot3DForm& form : allForms()) {
        const Samples samples(form);
        const std::string whole = gridBytes(form, samples.grid);
        Plot3DForm plain = form;
        plain.blanking = false;
        const std::string withoutBlanking = gridBytes(plain, samples.grid);
        // Every cut of the header, and some of the rest.
        const auto step = [&](std::size_t length) { return length < 80 ? 0 : form.text ? std::size_t{48} : 16; };
        auto file = store("grid", whole);
        const auto grid = Plot3DFile::openGrid(file);
        for (std::size_t length = sureCut(form, whole); length-- > 0; length -= step(length)) {
            SCOPED_TRACE(describe(form) + " cut to " + std::to_string(length));
            fs::resize_file(file, length);
            failure(file, [&] { (void)Plot3DFile::openGrid(file, stated(form)); });
            if (form.text) continue; // may well be whole in another form: all numbers look alike
            if (form.blanking && length >= withoutBlanking.size() && whole.starts_with(withoutBlanking) &&
                whole.find_first_not_of('\0', withoutBlanking.size()) >= length)
                expectSame(Plot3DFile::openGrid(file), Samples(plain).grid);
            else
                failure(file, [&] { (void)Plot3DFile::openGrid(file); });
        }
        const std::string solution = solutionBytes(form, samples.solution);
        file = store("solution", solution);
        for (std::size_t length = sureCut(form, solution); length-- > 0; length -= step(length)) {
            SCOPED_TRACE(describe(form) + " solution cut to " + std::to_string(length));
            fs::resize_file(file, length);
            failure(file, [&] { (void)Plot3DFile::openSolution(file, grid, stated(form)); });
            failure(file, [&] { (void)Plot3DFile::openFields(file, grid); });
        }
    }
}

// Whatever stands there: read or refused, never a crash or an allocation beyond what the file has.
TEST_F(Plot3DTest, DamageIsSurvived) {
    std::mt19937 random(11);
    std::size_t refused = 0;
    for (const Plot3DForm& form : allForms()) {
        const Samples samples(form);
        const auto grid = Plot3DFile::openGrid(store("grid", gridBytes(form, samples.grid)));
        for (const std::string& whole : {gridBytes(form, samples.grid), solutionBytes(form, samples.solution),
                                         functionBytes(form, samples.functions)})
            for (int round = 0; round < 8; ++round) {
                std::string bytes = whole;
                for (unsigned long hits = 1 + random() % 4; hits > 0; --hits) {
                    const unsigned long extremes[] = {0x00, 0x7f, 0x80, 0xff, '9', '*', random() & 0xff};
                    bytes[random() % (round % 4 ? 48 : bytes.size())] = static_cast<char>(extremes[random() % 7]);
                }
                const auto file = store("damaged", bytes);
                const auto attempt = [&](const std::function<Plot3DFile()>& open) {
                    try {
                        const Plot3DFile read = open();
                        for (std::size_t b = 0; b < read.blocks(); ++b)
                            for (std::size_t v = 0; v < read.variables(b); ++v)
                                EXPECT_LE(read.read<float>(b, v)->nElements(), bytes.size() * (form.text ? 1024 : 1));
                    } catch (const FileError& error) {
                        EXPECT_EQ(error.file(), file);
                        ++refused;
                    }
                };
                for (const auto& options : {Plot3DOptions{}, stated(form)}) {
                    attempt([&] { return Plot3DFile::openGrid(file, options); });
                    attempt([&] { return Plot3DFile::openFields(file, grid, {}, options); });
                }
            }
    }
    EXPECT_GT(refused, 500u);
}

TEST_F(Plot3DTest, MessagesNamePlaceAndReason) {
    const Plot3DForm form{true, true, std::endian::little, false, Plot3DScalar::float32, false};
    const Samples samples(form);
    const std::string whole = gridBytes(form, samples.grid);
    const auto grid = Plot3DFile::openGrid(store("whole", whole));
    const auto expectMessage = [&](const std::string& bytes, const std::vector<std::string>& parts) {
        const auto file = store("bad", bytes);
        const std::string text = failure(file, [&] { (void)Plot3DFile::openGrid(file); });
        for (const std::string& part : parts) EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    };
    // Number of blocks and extents with their marks take 12 + 44 bytes, the next mark 4: x of block 1 begins at 60.
    expectMessage(whole.substr(0, 60 + 5 * 4), {"byte 80, block 1, x coordinates", "file ends here", "little-endian"});
    std::string wrongMark = whole;
    wrongMark[60 + 18 * 12] ^= 1;
    expectMessage(wrongMark, {"byte 276, block 1, record mark", "217 where 216 belongs"});
    expectMessage("", {"is empty"});
    expectMessage(std::string(100, '\0'), {"byte 0, header", "no form", "the integer 0 read as big-endian"});
    expectMessage("2 2 2\n0.0 1.0 2.0\n", {"number 7, block 1, x coordinates", "the file ends here", "text"});
    expectMessage("2 1 2\n0.0 1.0 x\n", {"line 2, byte 14", "belongs to no number"});
    expectMessage("1 1 1\n 90000*1.0 1.0", {"line 2", "repeated more often"});
    expectMessage(whole + "junk", {"4 bytes follow the last value"});

    for (const bool wantGrid : {true, false}) {
        const auto file = store("other", wantGrid ? solutionBytes(form, samples.solution) : whole);
        const std::string text = failure(file, [&] {
            if (wantGrid)
                (void)Plot3DFile::openGrid(file);
            else
                (void)Plot3DFile::openSolution(file, grid);
        });
        EXPECT_NE(text.find(wantGrid ? "is a solution file" : "is a grid file"), std::string::npos) << text;
    }

    failure(folder / "absent", [&] { (void)Plot3DFile::openGrid(folder / "absent"); });
    EXPECT_NE(failure(folder, [&] { (void)Plot3DFile::openGrid(folder); }).find("folder"), std::string::npos);
    failure("/dev/zero", [&] { (void)Plot3DFile::openGrid("/dev/zero"); });

    auto other = samples.solution;
    other[1].extents = {2, 2, 2};
    auto file = store("solution", solutionBytes(form, other));
    const std::string text = failure(file, [&] { (void)Plot3DFile::openSolution(file, grid); });
    EXPECT_NE(text.find("block 2: the extents of the solution, 2 x 2 x 2, are not those of the grid, 2 x 4 x 1"),
              std::string::npos)
        << text;
    other.pop_back();
    file = store("solution", solutionBytes(form, other));
    EXPECT_NE(failure(file, [&] { (void)Plot3DFile::openSolution(file, grid); }).find("2 blocks, the grid 3"),
              std::string::npos);
}

// Extents whose product wraps, or asks for far more than the file has, are refused by size alone.
TEST_F(Plot3DTest, AbsurdExtentsAllocateNothing) {
    const int huge = std::numeric_limits<int>::max();
    using Extents = std::array<int, 3>;
    for (const bool multi : {false, true})
        for (const Extents& extents : {Extents{huge, huge, huge}, Extents{1 << 22, 1 << 21, 1 << 21}, Extents{-1, 3, 3},
                                       Extents{3, 0, 3}, Extents{100000, 1000, 1000}}) {
            const Plot3DForm form{false, multi, std::endian::big, false, Plot3DScalar::float64, false};
            FormWriter writer(form);
            writer.header(std::vector<Plot3DBlock>{{extents, {}, {}, {}, {}}});
            for (const std::size_t rest : {0u, 1000u}) {
                const auto file = store("absurd", writer.bytes + std::string(rest, '\1'));
                failure(file, [&] { (void)Plot3DFile::openGrid(file); });
                failure(file, [&] { (void)Plot3DFile::openGrid(file, stated(form)); });
            }
        }
}

// Values that detection doubts are read when the caller vouches for the form.
TEST_F(Plot3DTest, AStatedFormIsTrusted) {
    const Plot3DForm form{false, false, std::endian::big, false, Plot3DScalar::float32, false};
    Samples samples(form);
    for (double& x : samples.grid[0].x) x = static_cast<float>(1e-33 * x);
    samples.grid[0].y[3] = std::numeric_limits<float>::infinity();
    const auto file = store("tiny", gridBytes(form, samples.grid));
    EXPECT_NE(failure(file, [&] { (void)Plot3DFile::openGrid(file); }).find("beyond belief"), std::string::npos);
    expectSame(Plot3DFile::openGrid(file, stated(form)), samples.grid);
}

TEST_F(Plot3DTest, NumbersOfTextsAreReadAsFortranWritesThem) {
    std::string text = "2,1,\n 1\t2*1.5, -1.5D+2\r\n1.25-300 .5e1 +7.";
    const auto file = Plot3DFile::openGrid(store("text", text));
    EXPECT_EQ(values(file, 0, 0), (std::vector<double>{1.5, 1.5}));
    EXPECT_EQ(values(file, 0, 1), (std::vector<double>{-150.0, 1.25e-300}));
    EXPECT_EQ(values(file, 0, 2), (std::vector<double>{5.0, 7.0}));

    // More numbers than are read and indexed at a time; every third one stands there once for two.
    const int n = 30000;
    text = std::to_string(n) + " 1 1\n";
    std::vector<double> x;
    for (int i = 0; i < 3 * n; ++i) {
        const bool twice = i % 3 == 0;
        x.insert(x.end(), twice ? 2 : 1, i / 7.0);
        std::array<char, 32> number;
        text.append(twice ? "2*" : "")
            .append(number.data(), std::to_chars(number.data(), number.data() + 32, i / 7.0).ptr);
        text += i % 5 ? ' ' : '\n';
        if (x.size() + 2 > 3 * static_cast<std::size_t>(n)) break;
    }
    while (x.size() < 3 * static_cast<std::size_t>(n)) x.push_back(1.0), text += " 1";
    const auto large = Plot3DFile::openGrid(store("large", text));
    for (std::size_t v = 0; v < 3; ++v)
        EXPECT_EQ(values(large, 0, v), std::vector<double>(x.begin() + static_cast<std::ptrdiff_t>(v * n),
                                                           x.begin() + static_cast<std::ptrdiff_t>((v + 1) * n)));
    const std::string error = failure(
        folder / "bad", [&] { (void)values(Plot3DFile::openGrid(store("bad", "2 1 1 0 0 0\n0\n0 1.5e")), 0, 2); });
    EXPECT_NE(error.find("block 1, z, line 3: '1.5e' is no number"), std::string::npos) << error;
}

// Named as what they are.
TEST_F(Plot3DTest, TwoDimensionalFilesAreRefusedByName) {
    for (const Plot3DForm& form : allForms()) {
        Samples samples(form);
        const auto flatten = [](auto& blocks) {
            for (auto& block : blocks) block.extents = {block.extents[0], block.extents[1] * block.extents[2], 1};
        };
        flatten(samples.grid);
        flatten(samples.solution);
        SCOPED_TRACE(describe(form));
        const auto file = store("flat", gridBytes(form, samples.grid, 2));
        const std::string text = failure(file, [&] { (void)Plot3DFile::openGrid(file); });
        EXPECT_NE(text.find("is a two-dimensional grid file (" + describe(form)), std::string::npos) << text;
        EXPECT_NE(text.find(form.multiBlock ? "3 blocks" : "3 x 6 vertices"), std::string::npos) << text;
        const auto grid = Plot3DFile::openGrid(store("grid", gridBytes(form, samples.grid)));
        const auto flow = store("flow", solutionBytes(form, samples.solution, 2));
        EXPECT_NE(failure(flow, [&] { (void)Plot3DFile::openFields(flow, grid); }).find("a two-dimensional solution"),
                  std::string::npos);
    }
}

TEST_F(Plot3DTest, NamesOfFunctions) {
    const auto names = readPlot3DNames(store("names", "\xef\xbb\xbf" // as some editors mark UTF-8
                                                      "Pressure\r\n x velocity ; Velocity\ny velocity\n\nz velocity"));
    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(names[0].field, "Pressure");
    EXPECT_EQ(names[1].field, "x velocity");
    EXPECT_EQ(names[1].vector, "Velocity");
    EXPECT_EQ(names[3].field + names[3].vector, "z velocity");
    const std::pair<const char*, const char*> wrong[] = {{"\n \n", "no names"},
                                                         {"a\nb\na", "line 3: the name 'a' stands twice"},
                                                         {"a\nb;v\nc", "line 2: the vector 'v'"},
                                                         {"a\n;v\nc", "line 2: no name"},
                                                         {"a\n\1", "line 2: is no text"}};
    for (const auto& [text, reason] : wrong) {
        const auto file = store("wrong", text);
        EXPECT_NE(failure(file, [&] { (void)readPlot3DNames(file); }).find(reason), std::string::npos) << reason;
    }
    const Plot3DForm form;
    const Samples samples(form);
    const auto grid = Plot3DFile::openGrid(store("grid", gridBytes(form, samples.grid)));
    const auto file = store("functions", functionBytes(form, samples.functions));
    EXPECT_EQ(Plot3DFile::openFunctions(file, grid, names).names()[1].vector, "Velocity");
    EXPECT_NE(failure(file, [&] { (void)Plot3DFile::openFields(file, grid, {names[0]}); }).find("4 functions"),
              std::string::npos);
}

TEST(Plot3DRealData, BluntFin) {
    const fs::path data = VANTLE_TEST_DATA;
    if (data.empty()) GTEST_SKIP() << "no real data";
    const auto grid = Plot3DFile::openGrid(data / "bluntfinxyz.bin");
    const auto solution = Plot3DFile::openFields(data / "bluntfinq.bin", grid);
    EXPECT_EQ(describe(grid.form()), "big-endian, without record marks, single block, no blanking, float32");
    EXPECT_EQ(describe(solution.form()), describe(grid.form()));
    ASSERT_EQ(grid.blocks(), 1u);
    expectExtents(grid, 0, {40, 32, 32});
    const auto density = values(solution, 0, 0);
    ASSERT_EQ(density.size(), 40u * 32u * 32u);
    const auto [low, high] = std::minmax_element(density.begin(), density.end());
    EXPECT_NEAR(*low, 0.19, 0.01);
    EXPECT_NEAR(*high, 4.98, 0.01);
    EXPECT_NEAR(solution.readFreeStream(0).mach, 2.95, 1e-6); // 0x403ccccd in the file
}

} // namespace
