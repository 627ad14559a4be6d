// Grids made of PLOT3D files: read when they are needed, under a budget, from several threads, from files that change.

#include <baseop/ExpandBBox.hpp>
#include <baseop/Isosurface.hpp>
#include <dataset/Files.hpp>
#include <model/Model.hpp>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <support/Plot3DFile.hpp>
#include <support/VtkFile.hpp>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace Vantle;
using support::Plot3DBlock, support::Plot3DFunctionBlock, support::Plot3DSolutionBlock;
using point = Orvix::PhysicalSpace::point;
using vector = Orvix::PhysicalSpace::vector;
namespace fs = std::filesystem;

constexpr int kBlocks = 5, kExtent = 12;
constexpr std::size_t kVertices = kExtent * kExtent * kExtent;
const Plot3DForm kForm{true, true, std::endian::big, true, Plot3DScalar::float32, false};

// A flow that is known everywhere, in numbers that float32 has.
point place(int block, std::size_t n) {
    const auto at = MultiIndex<3>::fromLinear(n, {kExtent, kExtent, kExtent});
    return {double(at[0]) + 0.25 * double(at[1]) + block * (kExtent - 1), double(at[1]), double(at[2]) - 0.5};
}
double density(const point& p) { return 2.0 + 0.5 * p[2]; }
vector velocity(const point& p) { return {0.5 * p[1], -1.0, 2.0}; }
double energy(const point& p) { return 64.0 + p[0]; }

class Plot3DGridTest : public testing::Test {
protected:
    Plot3DGridTest() {
        fs::create_directories(folder);
        std::vector<Plot3DBlock> blocks(kBlocks);
        std::vector<Plot3DSolutionBlock> flow(kBlocks);
        for (int b = 0; b < kBlocks; ++b) {
            const auto at = static_cast<std::size_t>(b);
            blocks[at].extents = flow[at].extents = {kExtent, kExtent, kExtent};
            blocks[at].blanking.emplace();
            for (std::size_t n = 0; n < kVertices; ++n) {
                const point p = place(b, n);
                blocks[at].x.push_back(p[0]);
                blocks[at].y.push_back(p[1]);
                blocks[at].z.push_back(p[2]);
                blocks[at].blanking->push_back(n % 5 == 0 ? 0 : n % 3 == 0 ? -b : 1);
                flow[at].fields[0].values.push_back(density(p));
                for (int c = 0; c < 3; ++c)
                    flow[at].fields[static_cast<std::size_t>(c) + 1].values.push_back(density(p) * velocity(p)[c]);
                flow[at].fields[4].values.push_back(energy(p));
            }
        }
        store("grid", support::gridBytes(kForm, blocks));
        store("flow", support::solutionBytes(kForm, flow));
    }
    ~Plot3DGridTest() override { fs::remove_all(folder); }

    fs::path store(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return folder / name;
    }
    RegularGrid3D open(Plot3DReading options = {}) const {
        if (!options.cache) options.cache = cache;
        const auto file = Plot3DFile::openGrid(folder / "grid");
        auto made = addPlot3DGrid(*grid, file, options);
        (void)addPlot3DFields(made, Plot3DFile::openFields(folder / "flow", file), options);
        return made;
    }
    static Hestra::StrongPtr<FragmentID> block(const Field& field, int b) {
        return field.getFragmentID("block" + std::to_string(b + 1));
    }
    template<class T, class Expected>
    static void expectValues(const Field& field, const Expected& expected) {
        for (int b = 0; b < kBlocks; ++b) {
            const auto data = Hestra::dynamicCast<MemArray<3, T>>(readData(field, block(field, b)));
            ASSERT_TRUE(data);
            for (std::size_t n = 0; n < kVertices; ++n) ASSERT_EQ(data->element(n), expected(b, n)) << b << " " << n;
        }
    }

    fs::path folder = fs::temp_directory_path() / ("plot3d-grid-test-" + std::to_string(::getpid()));
    const Hestra::Ref<Hestra::Cache> cache = Hestra::makeRef<Hestra::Cache>();
    const Hestra::Ref<Grid> grid = Hestra::makeRef<Grid>();
};

TEST_F(Plot3DGridTest, EverythingIsReadWhenItIsAskedFor) {
    const RegularGrid3D flow = open({cache});
    EXPECT_EQ(cache->size(), 0u);
    for (const char* name : {"density", "energy", "momentum", "velocity", "speed", "pressure", VertexMaskName}) {
        const auto field = flow.field(name);
        ASSERT_TRUE(field) << name;
        // Type and size are known before.
        const auto creator = field->getCreator(block(*field, 2));
        EXPECT_EQ(getSize(*creator), DynamicSize(MultiIndex<3>{kExtent, kExtent, kExtent}));
        EXPECT_TRUE(creator->elementType());
    }
    EXPECT_EQ(cache->size(), 0u);
    expectValues<point>(*flow.positions(), place);
    EXPECT_EQ(cache->bytes(), kBlocks * kVertices * sizeof(point));
    const auto at = [](const auto& function) {
        return [function](int b, std::size_t n) { return function(place(b, n)); };
    };
    expectValues<float>(*flow.field("density"), at([](const point& p) { return float(density(p)); }));
    expectValues<float>(*flow.field("energy"), at([](const point& p) { return float(energy(p)); }));
    expectValues<vector>(*flow.field("velocity"), at(velocity));
    expectValues<vector>(*flow.field("momentum"), at([](const point& p) { return density(p) * velocity(p); }));
    expectValues<float>(*flow.field("speed"),
                        at([](const point& p) { return float(std::sqrt(normSquared(velocity(p)))); }));
    expectValues<float>(*flow.field("pressure"), at([](const point& p) {
        return float((1.4 - 1.0) * (energy(p) - 0.5 * density(p) * normSquared(velocity(p))));
    }));
    expectValues<int>(*flow.field(VertexMaskName), [](int b, std::size_t n) {
        return n % 5 == 0 ? 0 : n % 3 == 0 ? -b : 1;
    });

    const RegularGrid3D doubled{Hestra::makeRef<Grid>()};
    const auto file = Plot3DFile::openGrid(folder / "grid");
    auto again = addPlot3DGrid(*doubled.grid(), file, {.cache = cache, .precision = Plot3DPrecision::Doubles});
    (void)addPlot3DFields(again, Plot3DFile::openSolution(folder / "flow", file),
                          {.cache = cache, .precision = Plot3DPrecision::Doubles, .heatRatio = 2.0});
    expectValues<double>(*again.field("density"), at(density));
    expectValues<double>(*again.field("pressure"),
                         at([](const point& p) { return energy(p) - 0.5 * density(p) * normSquared(velocity(p)); }));
}

// Half the memory for everything, and what operations make of it.
TEST_F(Plot3DGridTest, EverythingInSinglePrecision) {
    const RegularGrid3D flow = open({.cache = cache, .precision = Plot3DPrecision::AsStored});
    expectValues<FloatPoint>(*flow.positions(), [](int b, std::size_t n) {
        const point p = place(b, n);
        return FloatPoint(float(p[0]), float(p[1]), float(p[2]));
    });
    EXPECT_EQ(cache->bytes(), kBlocks * kVertices * sizeof(FloatPoint));
    expectValues<FloatVector>(*flow.field("velocity"), [](int b, std::size_t n) {
        const vector v = velocity(place(b, n));
        return FloatVector(float(v[0]), float(v[1]), float(v[2]));
    });
    EXPECT_EQ(getBoundingBox(flow.positions())->maxCoord(), place(kBlocks - 1, kVertices - 1));
    writeVtk(folder / "out.vtm", *grid, {"momentum"}, {.compress = false});
    const support::VtkFile written(folder / "out" / "out_4.vts");
    const auto points = written.values<float>("Points");
    ASSERT_EQ(points.size(), 3 * kVertices);
    EXPECT_EQ(points[3 * 100], float(place(4, 100)[0]));
}

// Room for two blocks: what is dropped is read again, by many threads at once, and always the same.
TEST_F(Plot3DGridTest, ManyThreadsReadUnderASmallBudget) {
    const RegularGrid3D flow = open({cache});
    cache->setLimit(2 * kVertices * sizeof(point));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 40; ++round) {
                const int b = (t + round * (t % 3 + 1)) % kBlocks;
                const auto points =
                    Hestra::dynamicCast<MemArray<3, point>>(flow.positions()->getData(block(*flow.positions(), b)));
                const auto values = Hestra::dynamicCast<MemArray<3, vector>>(
                    flow.field("velocity")->getData(block(*flow.positions(), b)));
                for (std::size_t n = 0; n < kVertices; n += 7)
                    wrong += !(points->element(n) == place(b, n)) || !(values->element(n) == velocity(place(b, n)));
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(cache->bytes(), cache->limit());
}

// What was read stays; what was not read, or was dropped, gives an error that says where and why.
TEST_F(Plot3DGridTest, FilesThatChangeAreNoticed) {
    const RegularGrid3D flow = open({cache});
    const auto pressure = flow.field("pressure");
    auto values = readData(*pressure, block(*pressure, 0));
    const auto failure = [&](int b) -> std::string {
        try {
            (void)readData(*pressure, block(*pressure, b));
        } catch (const FileError& error) {
            EXPECT_EQ(error.file(), folder / "flow");
            return error.what();
        }
        return "";
    };
    const fs::path file = folder / "flow", copy = folder / "copy";
    const auto time = fs::last_write_time(file);
    fs::copy_file(file, copy);
    const auto restore = [&] {
        fs::copy_file(copy, file, fs::copy_options::overwrite_existing);
        fs::last_write_time(file, time);
    };
    const std::string place = file.string() + ": block 2, density, momentum x, momentum y, momentum z, energy: ";

    fs::last_write_time(file, time + std::chrono::seconds(1));
    EXPECT_EQ(failure(1), place + "has changed since it was opened: it was modified");
    const auto bytes = fs::file_size(file);
    fs::resize_file(file, bytes - 1);
    EXPECT_EQ(failure(1), place + "has changed since it was opened: it had " + std::to_string(bytes) +
                              " bytes, and has " + std::to_string(bytes - 1) + " now");
    fs::remove(file);
    EXPECT_EQ(failure(1), place + "cannot be opened: No such file or directory");
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    EXPECT_NE(failure(1).find("has changed"), std::string::npos); // and does not wait
    fs::remove(file);
    // Operations see no data, and say nothing; why, is known afterwards.
    EXPECT_FALSE(pressure->getData(block(*pressure, 1)));
    EXPECT_THROW(throwReadingFailure(*pressure), FileError);

    EXPECT_EQ(failure(0), "");
    EXPECT_EQ(readData(*pressure, block(*pressure, 0)), values);
    values = nullptr;
    cache->clear();
    EXPECT_NE(failure(0).find("cannot be opened"), std::string::npos);
    restore();
    EXPECT_EQ(failure(0), "");
    EXPECT_NO_THROW(throwReadingFailure(*flow.field("velocity")));
    EXPECT_EQ(failure(1), "");
    cache->clear(); // no failure, though there are no data
    EXPECT_NO_THROW(throwReadingFailure(*pressure));
}

TEST_F(Plot3DGridTest, FunctionsAndTheirVectors) {
    std::vector<Plot3DFunctionBlock> functions(kBlocks);
    for (int b = 0; b < kBlocks; ++b) {
        Plot3DFunctionBlock& at = functions[static_cast<std::size_t>(b)];
        at.extents = {kExtent, kExtent, kExtent};
        at.fields.resize(b == 3 ? 1 : 4); // one block has the first field only
        for (std::size_t n = 0; n < kVertices; ++n)
            for (std::size_t f = 0; f < at.fields.size(); ++f)
                at.fields[f].values.push_back(f == 0 ? density(place(b, n)) : velocity(place(b, n))[int(f) - 1]);
    }
    RegularGrid3D flow = open({cache});
    const auto file = Plot3DFile::openFunctions(store("functions", support::functionBytes(kForm, functions)),
                                                Plot3DFile::openGrid(folder / "grid"),
                                                readPlot3DNames(store("names", "heat\nu ; wind\nv\nw\n")));
    EXPECT_EQ(addPlot3DFields(flow, file, {cache}), (std::vector<std::string>{"heat", "u", "wind", "v", "w"}));
    expectValues<float>(*flow.field("heat"), [](int b, std::size_t n) { return float(density(place(b, n))); });
    const auto wind = flow.field("wind");
    EXPECT_FALSE(wind->getCreator(block(*wind, 3)));
    const auto last = Hestra::dynamicCast<MemArray<3, vector>>(readData(*wind, block(*wind, 4)));
    EXPECT_EQ(last->element(100), velocity(place(4, 100)));

    // Whatever does not belong together changes nothing.
    RegularGrid3D other = RegularGrid3D(Hestra::makeRef<Grid>());
    EXPECT_THROW((void)addPlot3DFields(other, file), FileError);
    EXPECT_THROW((void)addPlot3DFields(flow, Plot3DFile::openGrid(folder / "grid")), FileError);
    EXPECT_THROW((void)addPlot3DGrid(*grid, Plot3DFile::openGrid(folder / "grid")), FileError);
    for (int b = 1; b <= kBlocks; ++b)
        other.addBlock("block" + std::to_string(b), MemArray<3, point>::create({2, 2, 2}));
    EXPECT_THROW((void)addPlot3DFields(other, file), FileError);
    EXPECT_FALSE(other.field("heat"));
    const auto taken = Plot3DFile::openFunctions(folder / "functions", Plot3DFile::openGrid(folder / "grid"),
                                                 {{"a", ""}, {"b", ""}, {"Positions", ""}, {"c", ""}});
    EXPECT_THROW((void)addPlot3DFields(flow, taken), FileError);
    EXPECT_FALSE(flow.field("a"));
}

// Operations and writers need no more than the grid; what they made is as if everything had been in memory.
TEST(Plot3DGridRealData, TheBluntFinUnderABudget) {
    const fs::path data = VANTLE_TEST_DATA;
    if (data.empty()) GTEST_SKIP() << "no real data";
    const auto gridFile = Plot3DFile::openGrid(data / "bluntfinxyz.bin");
    const auto flowFile = Plot3DFile::openFields(data / "bluntfinq.bin", gridFile);
    const auto cache = Hestra::makeRef<Hestra::Cache>();
    std::vector<index_t> triangles;
    for (const bool lazy : {true, false}) {
        const auto bundle = BundlePtr::create();
        const auto grid = (*bundle[0.0])["fin"];
        RegularGrid3D fin = addPlot3DGrid(*grid, gridFile, {cache});
        (void)addPlot3DFields(fin, flowFile, {cache});
        if (lazy) {
            cache->setLimit(1);
        } else {
            cache->setUnlimited();
            fin.setField("whole", flowFile.readAsStored(0, 0), fin.positions()->getFragmentID("block1"));
        }
        const auto surface =
            ComputeIsosurface(1.25, Hestra::Ageable(), *grid, lazy ? "density" : "whole", *bundle[0.0], "shock", 0.0);
        ASSERT_TRUE(surface);
        triangles.push_back(TriangularSurfaceWithEdges(surface).triangles()->nElements());
    }
    EXPECT_GT(triangles[0], 1000u);
    EXPECT_EQ(triangles[0], triangles[1]);
}

} // namespace
