// What the VTK writers leave is read back by a small reader of the format, and failures leave what was there.

#include <dataset/Curves.hpp>
#include <dataset/Files.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <support/VtkFile.hpp>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Vantle;
using Point3 = std::array<double, 3>;
using point = Orvix::PhysicalSpace::point;
using vector = Orvix::PhysicalSpace::vector;
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
    const std::vector<std::array<index_t, 3>> triangles = {{0, 1, 2}, {2, 1, 3}};
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
    // A reader understands nothing of a file with bytes that are no UTF-8, and makes blanks of ends of lines.
    writeVtp(folder / "a.vtp", kPoints, {}, std::vector<VtkArray>{{"\xc3\xa9\xe9\n\xff\x01", kScalars}});
    EXPECT_NE(Appended(folder / "a.vtp").xml.find("\"\xc3\xa9\xc3\xa9&#10;\xc3\xbf \""), std::string::npos);
    expectOnly(1);
}

TEST_F(VtkTest, ImagesAndBlocksComeBack) {
    writeVti(folder / "a.vti", {{2, 1, 2}, {0.1, -1e-20, 3}, {1.0 / 3.0, 1, 2}}, arrays());
    const Appended image(folder / "a.vti");
    expectArrays(image);
    EXPECT_NE(image.xml.find("WholeExtent=\"0 1 0 0 0 1\" Origin=\"0.1 -1e-20 3\" Spacing=\"0.3333333333333333 1 2\""),
              std::string::npos)
        << image.xml;

    expectOnly(1);
}

// ---- Grids ----

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// One value for each index, of every bit pattern that may matter.
template<class T>
T sample(std::size_t n) {
    if constexpr (std::is_floating_point_v<T>) {
        const T odd[] = {std::numeric_limits<T>::quiet_NaN(), T(kInfinity), T(-kInfinity), T(-0.0),
                         std::numeric_limits<T>::denorm_min()};
        return n % 11 < 5 ? odd[n % 11] : T(1) / T(n + 1);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(n * 2654435761u);
    } else {
        T element;
        for (int c = 0; c < ElementTraits<T>::components; ++c)
            element[c] = sample<typename ElementTraits<T>::component_type>(n * ElementTraits<T>::components +
                                                                           static_cast<std::size_t>(c));
        return element;
    }
}

template<class T>
Hestra::StrongPtr<MemBase> sampled(const MultiIndex<3>& size) {
    const auto array = MemArray<3, T>::create(size);
    for (index_t n = 0; n < array->nElements(); ++n) array->element(n) = sample<T>(n);
    return array;
}

// The same numbers, byte for byte, with this type and number of components.
template<class T>
void expectField(const Appended& file, const std::string& name, const char* type, std::size_t count) {
    SCOPED_TRACE(name);
    const std::string& bytes = file.arrays.at(name);
    ASSERT_EQ(bytes.size(), count * sizeof(T));
    for (std::size_t n = 0; n < count; ++n) {
        const T expected = sample<T>(n);
        if (std::memcmp(bytes.data() + n * sizeof(T), &expected, sizeof(T)) != 0) {
            ADD_FAILURE() << "element " << n;
            break;
        }
    }
    EXPECT_EQ(attribute(file.elements.at(name), "type"), type);
    EXPECT_EQ(attribute(file.elements.at(name), "NumberOfComponents"), std::to_string(ElementTraits<T>::components));
}

class VtkGridTest : public VtkTest {
protected:
    // Fields of many element types; more bytes than are written, or compressed, at a time.
    void addFields(RegularGrid3D& to, const MultiIndex<3>& size) {
        to.setField("double", sampled<double>(size));
        to.setField("float", sampled<float>(size));
        to.setField("int", sampled<int>(size));
        to.setField("short", sampled<short>(size));
        to.setField("byte", sampled<unsigned char>(size));
        to.setField("vector", sampled<vector>(size));
        to.setField("long", sampled<unsigned long long>(size));
        to.setField("pair", sampled<Orvix::FixedArray<double, 2>>(size));
        // Every third number of a block of memory.
        strided = Hestra::dynamicCast<MemArray<3, vector>>(sampled<vector>(size));
        to.setField("y", strided->componentArray(1));
    }
    void expectFields(const Appended& file, std::size_t count) const {
        expectField<double>(file, "double", "Float64", count);
        expectField<float>(file, "float", "Float32", count);
        expectField<int>(file, "int", "Int32", count);
        expectField<short>(file, "short", "Int16", count);
        expectField<unsigned char>(file, "byte", "UInt8", count);
        expectField<vector>(file, "vector", "Float64", count);
        expectField<unsigned long long>(file, "long", "UInt64", count);
        expectField<Orvix::FixedArray<double, 2>>(file, "pair", "Float64", count);
        const auto y = file.values<double>("y");
        ASSERT_EQ(y.size(), count);
        for (index_t n = 0; n < count; ++n) EXPECT_EQ(std::memcmp(&y[n], &strided->element(n)[1], 8), 0);
    }
    std::string failure(const std::function<void()>& write) const {
        try {
            write();
        } catch (const FileError& error) {
            return error.what();
        }
        ADD_FAILURE() << "no FileError";
        return "";
    }
    // Everything in the folder, by name.
    std::map<std::string, std::string> everything() const {
        std::map<std::string, std::string> all;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            std::ifstream stream(entry.is_directory() ? fs::path("/dev/null") : entry.path(), std::ios::binary);
            all[entry.path().string()] = {std::istreambuf_iterator<char>(stream), {}};
        }
        return all;
    }

    // The raw data at an offset, behind their length.
    static std::string contentsBehind(const fs::path& file, const std::string& offset) {
        std::ifstream stream(file, std::ios::binary);
        const std::string all{std::istreambuf_iterator<char>(stream), {}};
        return all.substr(all.find("\n_") + 2 + std::stoull(offset) + 8);
    }

    const std::vector<std::string> names = {"double", "float", "int", "short", "byte", "vector", "long", "pair", "y"};
    const Hestra::Ref<Grid> grid = Hestra::makeRef<Grid>();
    Hestra::StrongPtr<MemArray<3, vector>> strided;
};

TEST_F(VtkGridTest, UniformRectilinearAndCurvilinearBlocksComeBack) {
    const MultiIndex<3> size{37, 41, 29}; // in bytes, neither few nor a multiple of anything
    const auto count = static_cast<std::size_t>(size.product());
    for (const bool compress : {false, true}) {
        if (compress && !canCompressVtk()) continue;
        const VtkOptions options{.compress = compress};
        const auto uniform = Hestra::makeRef<Grid>(), rectilinear = Hestra::makeRef<Grid>();
        RegularGrid3D image = UniformGrid3D::create(*uniform, Orvix::BoundingBox({0.5, 0, 0}, {36.5, 10, 7}), size);
        addFields(image, size);
        writeVtk(folder / "a.vti", *uniform, names, options);
        const Appended vti(folder / "a.vti");
        expectFields(vti, count);
        EXPECT_EQ(vti.xml.find("compressor=") != std::string::npos, compress);
        EXPECT_NE(vti.xml.find("WholeExtent=\"0 36 0 40 0 28\" Origin=\"0.5 0 0\" Spacing=\"1 0.25 0.25\""),
                  std::string::npos)
            << vti.xml;

        std::vector<double> axes[3];
        for (int d = 0; d < 3; ++d)
            for (index_t n = 0; n < size[d]; ++n) axes[d].push_back(static_cast<double>(n * n) / 3.0);
        RegularGrid3D product = RegularGrid3D::createRectilinear(*rectilinear, axes[0], axes[1], axes[2]);
        addFields(product, size);
        writeVtk(folder / "a.vtr", *rectilinear, names, options);
        const Appended vtr(folder / "a.vtr");
        expectFields(vtr, count);
        EXPECT_EQ(vtr.values<double>("x"), axes[0]);
        EXPECT_EQ(vtr.values<double>("y").size(), count); // the field of that name, which comes later
        EXPECT_EQ(vtr.values<double>("z"), axes[2]);

        // As curvilinear blocks they have all their points.
        writeVtk(folder / "product.vts", *rectilinear, names, options);
        const Appended vts(folder / "product.vts");
        expectFields(vts, count);
        const auto points = vts.values<double>("Points");
        ASSERT_EQ(points.size(), 3 * count);
        for (index_t n = 0; n < count; ++n) {
            const auto at = MultiIndex<3>::fromLinear(n, size);
            for (int d = 0; d < 3; ++d)
                ASSERT_EQ(points[3 * n + static_cast<std::size_t>(d)], axes[d][static_cast<std::size_t>(at[d])]);
        }
        const auto curved = Hestra::makeRef<Grid>();
        RegularGrid3D block =
            RegularGrid3D::create(*curved, Hestra::dynamicCast<RegularGrid3D::Positions>(sampled<point>(size)));
        addFields(block, size);
        writeVtk(folder / "a.vts", *curved, names, options);
        const Appended whole(folder / "a.vts");
        expectFields(whole, count);
        expectField<point>(whole, "Points", "Float64", count);
        EXPECT_EQ(whole.tail, "\n</AppendedData>\n</VTKFile>\n");
        expectOnly(4);
    }
}

TEST_F(VtkGridTest, SurfacesCurvesAndPointsComeBack) {
    const std::vector<point> points = {{0, 0, 0}, {1, 0, 0.1}, {0, 1, 1e-300}, {1, 1, -2.5}};
    const VtkOptions plain{.compress = false};
    const auto read = [&](const char* name) { return Appended(folder / name); };
    const auto surface = Hestra::makeRef<Grid>();
    TriangularSurfaceWithEdges::create(*surface, points, {{0, 1, 2}, {2, 1, 3}});
    GridWithCartesianVertices(surface, 2).setField("height", makeMemArray1D(kScalars));
    writeVtk(folder / "a.vtp", *surface, {"height"}, plain);
    EXPECT_EQ(read("a.vtp").values<double>("Points"), kFlat);
    EXPECT_EQ(read("a.vtp").values<std::int64_t>("connectivity"), (std::vector<std::int64_t>{0, 1, 2, 2, 1, 3}));
    EXPECT_EQ(read("a.vtp").values<std::int64_t>("offsets"), (std::vector<std::int64_t>{3, 6}));
    EXPECT_EQ(read("a.vtp").values<double>("height").back(), 4.0);
    EXPECT_NE(read("a.vtp").xml.find("NumberOfLines=\"0\" NumberOfStrips=\"0\" NumberOfPolys=\"2\""),
              std::string::npos);

    Vantle::Curves(points, {{3, 0}, {}, {1, 2, 1}}).write(folder / "b.vtp", plain);
    EXPECT_EQ(read("b.vtp").values<std::int64_t>("connectivity"), (std::vector<std::int64_t>{3, 0, 1, 2, 1}));
    EXPECT_EQ(read("b.vtp").values<std::int64_t>("offsets"), (std::vector<std::int64_t>{2, 2, 5}));
    EXPECT_NE(read("b.vtp").xml.find("NumberOfLines=\"3\""), std::string::npos);

    const auto cloud = Hestra::makeRef<Grid>();
    GridWithCartesianVertices(cloud, 3).positions()->setPersistentData(makeMemArray1D(points));
    writeVtk(folder / "c.vtp", *cloud, {}, plain);
    EXPECT_EQ(read("c.vtp").values<std::int64_t>("connectivity"), (std::vector<std::int64_t>{0, 1, 2, 3}));
    EXPECT_NE(read("c.vtp").xml.find("NumberOfVerts=\"4\""), std::string::npos);

    const auto before = everything();
    const auto wrong = Hestra::makeRef<Grid>();
    TriangularSurfaceWithEdges::create(*wrong, points, {{0, 1, 2}, {2, 1, 4}});
    EXPECT_NE(failure([&] { writeVtk(folder / "a.vtp", *wrong, {}); }).find("Polys, number 1: names vertex 4 of 4"),
              std::string::npos);
    EXPECT_TRUE(everything() == before);
}

TEST_F(VtkGridTest, WhatDoesNotFitIsNamed) {
    const MultiIndex<3> size{3, 2, 2};
    RegularGrid3D image = UniformGrid3D::create(*grid, Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), size);
    image.setField("pressure", sampled<double>(size));
    image.setField("short", sampled<double>({2, 3, 2}));
    image.setField("text", MemArray<3, std::string>::create(size));
    const auto expect = [&](const char* file, const std::vector<std::string>& fields, const std::string& reason) {
        const std::string text = failure([&] { writeVtk(folder / file, *grid, fields); });
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        EXPECT_TRUE(text.starts_with((folder / file).string() + ": ")) << text;
    };
    expect("a.vtr", {}, "but one named .vti");
    expect("a.vtp", {}, "but one named .vti");
    expect("a.txt", {}, "is to be named .vti, .vtr, .vts, .vtp or .vtm");
    expect("a.vti", {"velocity"}, "field 'velocity': the grid has none; it has pressure, short, text");
    expect("a.vti", {"pressure", "short"}, "field 'short': has [2x3x2] values for [3x2x2] vertices");
    expect("a.vti", {"text"}, "field 'text': its elements are no numbers");
    expect("absent/a.vti", {}, "cannot create it");
    const auto none = Hestra::makeRef<Grid>();
    EXPECT_NE(failure([&] { writeVtk(folder / "a.vti", *none, {}); }).find("no vertices"), std::string::npos);
    EXPECT_TRUE(everything().empty());
}

// Points of no valid cell, and cells that are not valid, are marked as the format wants it; their values stay.
TEST_F(VtkGridTest, WhatIsBlankedIsHidden) {
    const MultiIndex<3> size{9, 6, 4};
    RegularGrid3D image = UniformGrid3D::create(*grid, Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), size);
    image.setField("double", sampled<double>(size));
    const auto write = [&] {
        writeVtk(folder / "a.vti", *grid, {"double"}, {.compress = false});
        return Appended(folder / "a.vti");
    };
    EXPECT_EQ(write().xml.find("vtkGhostType"), std::string::npos);
    const auto vertexMask = MemArray<3, int>::create(size);
    for (index_t n = 0; n < vertexMask->nElements(); ++n) vertexMask->element(n) = n % 5 == 2 || n > 150 ? 0 : -3;
    image.setField(VertexMaskName, vertexMask);
    const Appended file = write();
    expectField<double>(file, "double", "Float64", size.product());
    // Both arrays have this name: the reader has kept the second one, of the cells.
    const auto cells = file.values<unsigned char>("vtkGhostType");
    ASSERT_EQ(cells.size(), 8u * 5u * 3u);
    std::vector<bool> used(size.product());
    for (std::size_t n = 0; n < cells.size(); ++n) {
        const auto cell = MultiIndex<3>::fromLinear(n, {8, 5, 3});
        bool valid = true;
        const auto corners = [&](const auto& visit) {
            for (index_t c = 0; c < 8; ++c)
                visit(MultiIndex<3>{cell[0] + c % 2, cell[1] + c / 2 % 2, cell[2] + c / 4}.linear(size));
        };
        corners([&](index_t v) { valid = valid && vertexMask->element(v) != 0; });
        EXPECT_EQ(cells[n], valid ? 0 : 32);
        if (valid) corners([&](index_t v) { used[v] = true; });
    }
    EXPECT_NE(std::count(cells.begin(), cells.end(), 0), 0);
    const std::size_t points = file.xml.find("Name=\"vtkGhostType\""), values = file.xml.find("<PointData>");
    ASSERT_LT(values, points);
    const std::string bytes = contentsBehind(folder / "a.vti", attribute(file.xml.substr(points), "offset"));
    for (std::size_t n = 0; n < used.size(); ++n) EXPECT_EQ(bytes.at(n), used[n] ? 0 : 2) << n;
}

// Several blocks of different kinds, one of them without the field.
TEST_F(VtkGridTest, BlocksStandInFilesOfTheirOwn) {
    RegularGrid3D blocks{grid};
    const MultiIndex<3> size{30, 20, 10};
    const auto first = blocks.addBlock("left <1>", sampled<point>(size));
    const auto second = blocks.addBlock("right", Hestra::makeRef<UniformCartesianArray>(
                                                     Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>{2, 2, 2}));
    blocks.setField("double", sampled<double>(size), first);
    (void)second;
    const fs::path file = folder / "flow.vtm";
    std::vector<double> shares;
    VtkOptions options{.compress = false, .progress = [&](double share) {
                           shares.push_back(share);
                           return true;
                       }};
    writeVtk(file, *grid, {"double"}, options);
    EXPECT_TRUE(std::is_sorted(shares.begin(), shares.end()));
    EXPECT_EQ(shares.back(), 1.0);
    const auto written = everything();
    EXPECT_EQ(written.size(), 4u); // the file, the folder, two blocks
    const std::string& index = written.at(file.string());
    EXPECT_NE(index.find("<DataSet index=\"0\" name=\"left &lt;1&gt;\" file=\"flow/flow_0.vts\"/>"), std::string::npos);
    EXPECT_NE(index.find("<DataSet index=\"1\" name=\"right\" file=\"flow/flow_1.vti\"/>"), std::string::npos);
    expectField<double>(Appended(folder / "flow" / "flow_0.vts"), "double", "Float64", size.product());
    EXPECT_EQ(Appended(folder / "flow" / "flow_1.vti").arrays.count("double"), 0u);
    EXPECT_NE(failure([&] { writeVtk(folder / "flow.vts", *grid, {}); }).find("2 blocks, which take a .vtm file"),
              std::string::npos);

    // Cancelled at any moment, or with a block that cannot be read, it stays what it was.
    blocks.setField("double", MemArray<3, double>::create(size), first);
    for (std::size_t calls = 0; calls < shares.size(); ++calls) {
        std::size_t call = 0;
        options.progress = [&](double) { return call++ < calls; };
        EXPECT_THROW(writeVtk(file, *grid, {"double"}, options), Cancelled);
        EXPECT_TRUE(everything() == written);
    }
    options.progress = {};
    const auto broken = blocks.field("double");
    broken->setCreator(
        Hestra::makeRef<FileArray>(
            [](const auto&) -> Hestra::StrongPtr<MemBase> { throw FileError("flow.q", "block 2, density", "is gone"); },
            typeid(double), MultiIndex<3>{2, 2, 2}, Hestra::WeakPtr<Hestra::Cache>()),
        second);
    EXPECT_EQ(failure([&] { writeVtk(file, *grid, {"double"}, options); }), "flow.q: block 2, density: is gone");
    EXPECT_TRUE(everything() == written);

    // Replaced as a whole, unless it is not ours.
    broken->removeData(second);
    blocks.positions()->removeData(second);
    writeVtk(file, *grid, {}, options);
    EXPECT_EQ(everything().size(), 3u);
    fs::create_directory(folder / "flow" / "flow_9.vti");
    EXPECT_NE(failure([&] { writeVtk(file, *grid, {}); }).find("holds something else: flow_9.vti"), std::string::npos);
    EXPECT_TRUE(fs::remove(folder / "flow" / "flow_9.vti"));
    EXPECT_NE(failure([&] { writeVtk(folder / "fl\xe9.vtm", *grid, {}); }).find("no UTF-8"), std::string::npos);
    std::ofstream(folder / "flow" / "notes.txt") << "mine";
    const auto before = everything();
    EXPECT_NE(failure([&] { writeVtk(file, *grid, {}); }).find("holds something else: notes.txt"), std::string::npos);
    EXPECT_TRUE(everything() == before);
}

TEST_F(VtkTest, FailuresLeaveNothing) {
    const std::vector<std::array<index_t, 3>> wrong = {{0, 1, 4}};
    EXPECT_THROW(writeVtp(folder / "a.vtp", kPoints, wrong), std::invalid_argument);
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
            writeVtp(folder / "a.vtp", std::vector<Point3>(10000), {}, {}, {.compress = false});
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
