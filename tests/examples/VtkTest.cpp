// What the VTK writers leave is read back by a small reader of the format, and failures leave nothing.

#include "io/Vtk.hpp"

#include "io/FileError.hpp"

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <support/VtkFile.hpp>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace tour;
namespace fs = std::filesystem;

using support::attribute;
using Appended = support::VtkFile;

class VtkTest : public testing::Test {
protected:
    VtkTest() { fs::create_directories(folder); }
    ~VtkTest() override { fs::remove_all(folder); }

    void expectOnly(std::size_t files) const {
        EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()),
                  static_cast<std::ptrdiff_t>(files));
    }

    fs::path folder = fs::temp_directory_path() / ("vtk-test-" + std::to_string(::getpid()));
};

const std::vector<Point3> kPoints = {{0, 0, 0}, {1, 0, 0.1}, {0, 1, 1e-300}, {1, 1, -2.5}};
const std::vector<double> kFlat = {0, 0, 0, 1, 0, 0.1, 0, 1, 1e-300, 1, 1, -2.5};
const std::vector<double> kScalars = {1.0 / 3.0, -0.0, std::numeric_limits<double>::quiet_NaN(), 4.0};

std::vector<VtkArray> arrays() {
    return {{"speed", std::span<const double>(kScalars)}, {"v <&\"> w", std::span<const Point3>(kPoints)}};
}

void expectArrays(const Appended& read) {
    const auto speed = read.values<std::uint64_t>("speed");
    ASSERT_EQ(speed.size(), kScalars.size());
    EXPECT_EQ(std::memcmp(speed.data(), kScalars.data(), 8 * speed.size()), 0); // NaN and -0.0 included
    EXPECT_EQ(read.values<double>("v &lt;&amp;&quot;&gt; w"), kFlat);
    EXPECT_EQ(attribute(read.elements.at("speed"), "NumberOfComponents"), "1");
    EXPECT_EQ(attribute(read.elements.at("v &lt;&amp;&quot;&gt; w"), "NumberOfComponents"), "3");
    EXPECT_NE(read.xml.find("byte_order=\"LittleEndian\" header_type=\"UInt64\""), std::string::npos);
    EXPECT_EQ(read.tail, "\n</AppendedData>\n</VTKFile>\n");
}

TEST_F(VtkTest, SurfacesComeBack) {
    const std::vector<Triangle> triangles = {{0, 1, 2}, {2, 1, 3}};
    writeVtp(folder / "a.vtp", kPoints, triangles, arrays());
    const Appended read(folder / "a.vtp");
    expectArrays(read);
    EXPECT_EQ(read.values<double>("Points"), kFlat);
    EXPECT_EQ(read.values<std::int64_t>("connectivity"), (std::vector<std::int64_t>{0, 1, 2, 2, 1, 3}));
    EXPECT_EQ(read.values<std::int64_t>("offsets"), (std::vector<std::int64_t>{3, 6}));
    EXPECT_NE(read.xml.find("NumberOfPoints=\"4\""), std::string::npos);
    EXPECT_NE(read.xml.find("NumberOfPolys=\"2\""), std::string::npos);

    writeVtp(folder / "a.vtp", {}, {}); // replaces the file
    EXPECT_TRUE(Appended(folder / "a.vtp").values<double>("Points").empty());
    expectOnly(1);
}

TEST_F(VtkTest, ImagesAndBlocksComeBack) {
    writeVti(folder / "a.vti", {{2, 1, 2}, {0.1, -1e-20, 3}, {1.0 / 3.0, 1, 2}}, arrays());
    const Appended image(folder / "a.vti");
    expectArrays(image);
    EXPECT_NE(image.xml.find("WholeExtent=\"0 1 0 0 0 1\" Origin=\"0.1 -1e-20 3\" Spacing=\"0.3333333333333333 1 2\""),
              std::string::npos)
        << image.xml;

    writeVts(folder / "a.vts", {1, 2, 2}, kPoints, arrays());
    const Appended block(folder / "a.vts");
    expectArrays(block);
    EXPECT_EQ(block.values<double>("Points"), kFlat);
    EXPECT_NE(block.xml.find("<Piece Extent=\"0 0 0 1 0 1\">"), std::string::npos);
    expectOnly(2);
}

TEST_F(VtkTest, FailuresLeaveNothing) {
    const std::vector<Triangle> wrong = {{0, 1, 4}};
    EXPECT_THROW(writeVtp(folder / "a.vtp", kPoints, wrong), std::invalid_argument);
    EXPECT_THROW(writeVts(folder / "a.vts", {2, 2, 2}, kPoints), std::invalid_argument);
    EXPECT_THROW(writeVti(folder / "a.vti", {{2, 2, 2}, {}, {1, 1, 1}}, arrays()), std::invalid_argument);
    EXPECT_THROW(writeVti(folder / "a.vti", {{0, 2, 2}, {}, {1, 1, 1}}, {}), std::invalid_argument);
    expectOnly(0);

    fs::create_directory(folder / "taken");
    for (const fs::path& target : {folder / "absent" / "a.vtp", fs::path("/proc/a.vtp"), folder / "taken"}) try {
            writeVtp(target, kPoints, {});
            ADD_FAILURE() << target;
        } catch (const FileError& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with(target.string() + ": cannot ")) << error.what();
        }
    expectOnly(1); // the folder itself
}

// A disc that is full in the middle of writing: what was there before stays.
TEST_F(VtkTest, AFullDiscLeavesTheOldFile) {
    writeVtp(folder / "a.vtp", kPoints, {});
    const auto size = fs::file_size(folder / "a.vtp");
    const auto writeWithLittleRoom = [&] {
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
        try {
            writeVtp(folder / "a.vtp", std::vector<Point3>(10000), {});
        } catch (const FileError&) {
            std::_Exit(3);
        }
        std::_Exit(0);
    };
    EXPECT_EXIT(writeWithLittleRoom(), testing::ExitedWithCode(3), "");
    EXPECT_EQ(fs::file_size(folder / "a.vtp"), size);
    expectOnly(1);
}

} // namespace
