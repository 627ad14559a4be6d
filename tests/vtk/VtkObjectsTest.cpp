#include <dataset/DataSet.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <random>
#include <vtk/VtkObjects.hpp>
#include <vtkCellArray.h>
#include <vtkCellData.h>
#include <vtkContourFilter.h>
#include <vtkDataSetReader.h>
#include <vtkDoubleArray.h>
#include <vtkFloatArray.h>
#include <vtkHyperTreeGrid.h>
#include <vtkIdTypeArray.h>
#include <vtkImageData.h>
#include <vtkInformation.h>
#include <vtkIntArray.h>
#include <vtkMultiBlockDataSet.h>
#include <vtkPartitionedDataSet.h>
#include <vtkPartitionedDataSetCollection.h>
#include <vtkPointData.h>
#include <vtkPoints.h>
#include <vtkPolyData.h>
#include <vtkProbeFilter.h>
#include <vtkRectilinearGrid.h>
#include <vtkSOADataArrayTemplate.h>
#include <vtkStringArray.h>
#include <vtkStructuredGrid.h>
#include <vtkTable.h>
#include <vtkUnsignedCharArray.h>
#include <vtkUnstructuredGrid.h>
#include <vtkXMLMultiBlockDataReader.h>

using namespace Vantle;

namespace {

constexpr std::array<int, 3> Size{9, 8, 7};
constexpr vtkIdType Count = 9 * 8 * 7;

Point pointOf(vtkDataSet& grid, vtkIdType n) {
    std::array<double, 3> at{};
    grid.GetPoint(n, at.data());
    return {at[0], at[1], at[2]};
}
double valueAt(const Point& p) { return p[0] * p[0] + 2 * p[1] - std::sin(p[2]); }

/// Adds an array whose components at point n are those of `valueAt`, plus the component's number.
template<class Array>
Array* addArray(vtkDataSet& grid, const char* name, int components) {
    auto array = vtkSmartPointer<Array>::New();
    array->SetName(name);
    array->SetNumberOfComponents(components);
    array->SetNumberOfTuples(grid.GetNumberOfPoints());
    for (vtkIdType n = 0; n < grid.GetNumberOfPoints(); ++n)
        for (int c = 0; c < components; ++c) array->SetComponent(n, c, valueAt(pointOf(grid, n)) + c);
    grid.GetPointData()->AddArray(array);
    return array;
}

vtkSmartPointer<vtkImageData> makeImage(double spacing = 0.25) {
    auto image = vtkSmartPointer<vtkImageData>::New();
    image->SetExtent(2, 10, -1, 6, 0, 6);
    image->SetOrigin(-1.5, 0.5, 1);
    image->SetSpacing(spacing, 0.5, 0.125);
    return image;
}
vtkSmartPointer<vtkStructuredGrid> makeCurved(int precision) {
    auto points = vtkSmartPointer<vtkPoints>::New();
    points->SetDataType(precision);
    for (vtkIdType n = 0; n < Count; ++n) {
        const double i = double(n % 9), j = double(n / 9 % 8), k = double(n / 72);
        points->InsertNextPoint(i + 0.1 * j * k, j + 0.05 * i, k - 0.1 * i);
    }
    auto grid = vtkSmartPointer<vtkStructuredGrid>::New();
    grid->SetDimensions(Size.data());
    grid->SetPoints(points);
    return grid;
}
vtkSmartPointer<vtkRectilinearGrid> makeRectilinear() {
    auto grid = vtkSmartPointer<vtkRectilinearGrid>::New();
    grid->SetDimensions(Size.data());
    for (int d = 0; d < 3; ++d) {
        auto axis = vtkSmartPointer<vtkFloatArray>::New();
        for (int n = 0; n < Size[std::size_t(d)]; ++n) axis->InsertNextValue(0.5F * float(n * n + d));
        d == 0 ? grid->SetXCoordinates(axis) : d == 1 ? grid->SetYCoordinates(axis) : grid->SetZCoordinates(axis);
    }
    return grid;
}

const void* memoryOf(vtkDataSet& grid, const char* name) {
    return grid.GetPointData()->GetArray(name)->GetVoidPointer(0);
}
const void* memoryOf(const Hestra::StrongPtr<MemBase>& array) {
    const void* memory = nullptr;
    withMemArray<3>(TypeList<double, float, int, Point, Vector, FloatPoint, FloatVector>(), array,
                    [&](const auto& typed) { memory = typed.data(); });
    return memory;
}
std::string fateOf(const VtkReport& report, const std::string& what) {
    for (const VtkPart& part : report)
        if (part.what.find(what) != std::string::npos) return describe({part}).substr(part.what.size() + 2);
    return "not told";
}

struct Kind {
    std::function<vtkSmartPointer<vtkDataSet>()> make;
    bool sharesPositions;
};
const std::map<std::string, Kind> Kinds{
    {"image", {[] { return makeImage(); }, false}},
    {"mirrored image", {[] { return makeImage(-0.25); }, false}},
    {"rectilinear", {[] { return makeRectilinear(); }, false}},
    {"double", {[] { return makeCurved(VTK_DOUBLE); }, true}},
    {"float", {[] { return makeCurved(VTK_FLOAT); }, true}},
};

TEST(VtkObjects, EachKindGoesInAndOutWithItsPositionsAndValuesOverTheSameMemory) {
    for (const auto& [name, kind] : Kinds) {
        SCOPED_TRACE(name);
        const vtkSmartPointer<vtkDataSet> grid = kind.make();
        addArray<vtkDoubleArray>(*grid, "double", 1);
        addArray<vtkFloatArray>(*grid, "float", 1);
        addArray<vtkFloatArray>(*grid, "vector", 3);
        addArray<vtkDoubleArray>(*grid, "tensor", 9);
        addArray<vtkIntArray>(*grid, "int", 1);
        addArray<vtkIdTypeArray>(*grid, "long", 1);
        addArray<vtkSOADataArrayTemplate<double>>(*grid, "apart", 3);
        VtkReport report;
        const DataSet flow = fromVtk(grid, {.report = &report});
        const std::vector<Point> positions = flow.positions("block");
        ASSERT_EQ(positions.size(), std::size_t(Count));
        for (vtkIdType n = 0; n < Count; ++n) {
            const Point there = pointOf(*grid, n);
            for (int d = 0; d < 3; ++d) ASSERT_NEAR(positions[std::size_t(n)][d], there[d], 1e-14);
        }

        const vtkSmartPointer<vtkDataSet> kept = vtkDataSet::SafeDownCast(toVtk(flow));
        ASSERT_NE(kept, nullptr);
        for (const char* field : {"double", "float", "vector", "int"}) {
            EXPECT_EQ(fateOf(report, field), "shared\n") << field;
            EXPECT_EQ(memoryOf(flow.array(field, "block")), memoryOf(*grid, field)) << field;
            EXPECT_EQ(memoryOf(*kept, field), memoryOf(*grid, field)) << field;
        }
        EXPECT_EQ(fateOf(report, "long").substr(0, 6), "copied");
        EXPECT_EQ(fateOf(report, "apart").substr(0, 6), "copied");
        for (int a = 0; a < grid->GetPointData()->GetNumberOfArrays(); ++a) {
            vtkDataArray* const before = grid->GetPointData()->GetArray(a);
            vtkDataArray* const after = kept->GetPointData()->GetArray(before->GetName());
            ASSERT_NE(after, nullptr) << before->GetName();
            for (vtkIdType n = 0; n < Count; ++n)
                for (int c = 0; c < before->GetNumberOfComponents(); ++c)
                    ASSERT_EQ(after->GetComponent(n, c), before->GetComponent(n, c)) << before->GetName();
        }
        if (kind.sharesPositions) {
            EXPECT_EQ(memoryOf(flow.positionArray("block")),
                      vtkStructuredGrid::SafeDownCast(grid)->GetPoints()->GetVoidPointer(0));
            EXPECT_EQ(vtkStructuredGrid::SafeDownCast(kept)->GetPoints()->GetVoidPointer(0),
                      vtkStructuredGrid::SafeDownCast(grid)->GetPoints()->GetVoidPointer(0));
        }
        const DataSet copied = fromVtk(grid, {.copy = true});
        EXPECT_NE(memoryOf(copied.array("double", "block")), memoryOf(*grid, "double"));
        EXPECT_EQ(copied.range("double").greatest, flow.range("double").greatest);
    }
}

TEST(VtkObjects, WithoutGhostLayersAGridIsThePartThatVtkCuts) {
    const std::array<int, 6> own{2, 6, 0, 4, 1, 6}; // vertices
    for (const auto& [name, kind] : Kinds) {
        SCOPED_TRACE(name);
        const vtkSmartPointer<vtkDataSet> grid = kind.make();
        addArray<vtkDoubleArray>(*grid, "double", 3);
        addArray<vtkIdTypeArray>(*grid, "long", 1);
        auto ghosts = vtkSmartPointer<vtkUnsignedCharArray>::New();
        ghosts->SetName(vtkDataSetAttributes::GhostArrayName());
        auto cells = vtkSmartPointer<vtkDoubleArray>::New();
        cells->SetName("cells");
        for (int n = 0; n < 8 * 7 * 6; ++n) {
            const std::array<int, 3> at{n % 8, n / 8 % 7, n / 56};
            bool isOwn = at != std::array{3, 2, 2}; // one duplicate in the middle
            for (std::size_t d = 0; d < 3; ++d) isOwn = isOwn && at[d] >= own[2 * d] && at[d] < own[2 * d + 1];
            ghosts->InsertNextValue(!isOwn                      ? vtkDataSetAttributes::DUPLICATECELL
                                    : at == std::array{4, 1, 3} ? vtkDataSetAttributes::HIDDENCELL
                                                                : 0);
            cells->InsertNextValue(n * n);
        }
        grid->GetCellData()->AddArray(cells);
        const vtkSmartPointer<vtkDataSet> part =
            vtkDataSet::SafeDownCast(toVtk(fromVtk(grid, {.cellData = VtkCellData::Average})));
        for (vtkDataSet* const each : {grid.Get(), part.Get()}) each->GetCellData()->AddArray(ghosts);
        part->Crop(own.data());
        const DataSet expected = fromVtk(part);
        VtkReport report;
        const DataSet flow = fromVtk(grid, {.cellData = VtkCellData::Average, .report = &report});
        EXPECT_EQ(fateOf(report, "\"double\""), "copied (without ghost layers)\n");
        ASSERT_EQ(flow.blocks()[0].size, MultiIndex<3>(5, 5, 6));
        ASSERT_EQ(expected.blocks()[0].size, flow.blocks()[0].size);
        const auto ours = toVtk(flow), theirs = toVtk(expected);
        for (int type : {vtkDataObject::POINT, vtkDataObject::CELL})
            for (int a = 0; a < theirs->GetAttributes(type)->GetNumberOfArrays(); ++a) {
                vtkDataArray& wanted = *theirs->GetAttributes(type)->GetArray(a);
                vtkDataArray* const made = ours->GetAttributes(type)->GetArray(wanted.GetName());
                ASSERT_TRUE(made && made->GetNumberOfTuples() == wanted.GetNumberOfTuples()) << wanted.GetName();
                for (vtkIdType n = 0; n < wanted.GetNumberOfTuples(); ++n)
                    for (int c = 0; c < wanted.GetNumberOfComponents(); ++c)
                        ASSERT_EQ(made->GetComponent(n, c), wanted.GetComponent(n, c)) << wanted.GetName();
            }
        for (vtkIdType n = 0; n < 150; ++n)
            for (int d = 0; d < 3; ++d)
                ASSERT_NEAR(flow.positions("block")[std::size_t(n)][d], pointOf(*part, n)[d], 1e-14);
        ghosts->FillValue(vtkDataSetAttributes::DUPLICATECELL);
        EXPECT_THROW((void)fromVtk(grid), DataSetError);
    }
}

TEST(VtkObjects, SharedMemoryLivesAsLongAsEitherSideUsesIt) {
    // In: the data set is the last one that uses the arrays.
    auto grid = makeCurved(VTK_DOUBLE);
    addArray<vtkDoubleArray>(*grid, "f", 1);
    const double expected = grid->GetPointData()->GetArray("f")->GetComponent(Count - 1, 0);
    std::optional<DataSet> flow = fromVtk(grid);
    grid = nullptr;
    double last = 0;
    withMemArray<3>(TypeList<double>(), flow->array("f", "block"),
                    [&](const auto& f) { last = f.element(f.nElements() - 1); });
    EXPECT_EQ(last, expected);

    // Out: surface and data set go first, then the object, at last an array that shares its buffer.
    std::optional<Surface> surface = flow->contour("f", 20.0, {.values = {"f"}, .normals = true});
    ASSERT_FALSE(surface->isEmpty());
    vtkSmartPointer<vtkPolyData> out = toVtk(*surface);
    EXPECT_EQ(out->GetPoints()->GetVoidPointer(0), surface->points().data());
    EXPECT_EQ(out->GetPolys()->GetConnectivityArray()->GetVoidPointer(0), surface->triangles().data());
    ASSERT_EQ(out->GetNumberOfPolys(), vtkIdType(surface->triangles().size()));
    const Point first = surface->points()[surface->triangles()[5][1]];
    surface.reset();
    flow.reset();
    vtkIdType length = 0;
    const vtkIdType* ids = nullptr;
    out->GetCellPoints(5, length, ids);
    ASSERT_EQ(length, 3);
    EXPECT_EQ(pointOf(*out, ids[1]), first);
    auto shared = vtkSmartPointer<vtkDoubleArray>::New();
    shared->ShallowCopy(out->GetPointData()->GetArray("f"));
    out = nullptr;
    EXPECT_EQ(shared->GetValue(0), 20.0);

    // Memory of somebody else again is given back once, when all are gone.
    int givenBack = 0;
    std::vector<double> numbers(8, 3.0);
    DataSet adopted;
    adopted.addUniformBlock("cube", {2, 2, 2}, {{0, 0, 0}, {1, 1, 1}});
    adopted.setField("f", "cube",
                     Hestra::StrongPtr<MemBase>(adopt<3>(numbers.data(), {2, 2, 2}, [&] { ++givenBack; })));
    auto one = toVtk(adopted), other = toVtk(adopted);
    adopted = DataSet();
    one = nullptr;
    EXPECT_EQ(givenBack, 0);
    other = nullptr;
    EXPECT_EQ(givenBack, 1);
}

TEST(VtkObjects, PartsHaveNamesMasksAndReasonsWhereverTheyAre) {
    auto inner = vtkSmartPointer<vtkMultiBlockDataSet>::New();
    auto image = makeImage();
    addArray<vtkDoubleArray>(*image, "f", 1);
    addArray<vtkDoubleArray>(*image, "pair", 2);
    auto texts = vtkSmartPointer<vtkStringArray>::New();
    texts->SetName("texts");
    texts->SetNumberOfValues(Count);
    image->GetPointData()->AddArray(texts);
    auto cells = vtkSmartPointer<vtkDoubleArray>::New();
    cells->SetName("cells");
    for (vtkIdType n = 0; n < image->GetNumberOfCells(); ++n)
        cells->InsertNextValue(double(n % 8)); // its index along i
    image->GetCellData()->AddArray(cells);
    auto ghosts = vtkSmartPointer<vtkUnsignedCharArray>::New();
    ghosts->SetName(vtkDataSetAttributes::GhostArrayName());
    for (vtkIdType n = 0; n < image->GetNumberOfCells(); ++n)
        ghosts->InsertNextValue(n % 8 == 7   ? vtkDataSetAttributes::DUPLICATECELL
                                : n % 8 == 0 ? vtkDataSetAttributes::HIDDENCELL
                                             : 0);
    image->GetCellData()->AddArray(ghosts);
    inner->SetBlock(0, image);
    inner->GetMetaData(0u)->Set(vtkCompositeDataSet::NAME(), "wing");
    inner->SetBlock(1, vtkSmartPointer<vtkUnstructuredGrid>::New());
    inner->SetBlock(2, vtkSmartPointer<vtkImageData>::New()); // without points
    inner->SetBlock(3, nullptr);
    auto bare = vtkSmartPointer<vtkRectilinearGrid>::New(), level = makeRectilinear();
    bare->SetDimensions(2, 2, 2);
    level->GetZCoordinates()->SetTuple1(1, level->GetZCoordinates()->GetTuple1(0));
    inner->SetBlock(4, bare);
    inner->SetBlock(5, level);
    addArray<vtkDoubleArray>(*image, "second", 1);
    image->GetPointData()->GetArray("second")->SetName("f");
    auto pieces = vtkSmartPointer<vtkPartitionedDataSetCollection>::New();
    pieces->SetPartition(0, 0, makeCurved(VTK_FLOAT));
    pieces->SetPartition(0, 1, makeRectilinear());
    pieces->GetMetaData(0u)->Set(vtkCompositeDataSet::NAME(), "pieces");
    auto outer = vtkSmartPointer<vtkMultiBlockDataSet>::New();
    outer->SetBlock(0, inner);
    outer->GetMetaData(0u)->Set(vtkCompositeDataSet::NAME(), "plane");

    VtkReport report;
    const DataSet flow = fromVtk(outer, {.cellData = VtkCellData::Average, .report = &report});
    ASSERT_EQ(flow.blocks().size(), 1u);
    EXPECT_EQ(flow.blocks()[0].name, "plane/wing");
    EXPECT_EQ(fateOf(report, "\"texts\""), "left out (no numbers)\n");
    EXPECT_EQ(fateOf(report, "\"pair\""), "left out (2 components)\n");
    EXPECT_EQ(fateOf(report, "\"plane/1\""), "left out (vtkUnstructuredGrid has no three indices)\n");
    EXPECT_EQ(fateOf(report, "\"plane/2\""), "left out (no vertices)\n");
    EXPECT_EQ(fateOf(report, "\"plane/4\""), "left out (1 coordinates along axis 0 for the extents [2x2x2])\n");
    EXPECT_NE(fateOf(report, "\"plane/5\"").find("neither ascend nor descend"), std::string::npos);
    EXPECT_EQ(std::count_if(report.begin(), report.end(),
                            [](const VtkPart& part) { return part.reason == "there is a field of this name"; }),
              1);
    EXPECT_EQ(fateOf(report, "\"cells\""), "copied (averaged to vertices)\n");
    (void)fromVtk(outer, {.report = &report});
    EXPECT_EQ(fateOf(report, "\"cells\"").substr(0, 8), "left out");
    // Cells 1 to 6 of 8 along i are valid: vertices 1 to 7, where the averages are 0.5 to 6.5.
    const NumberRange averages = flow.range("cells");
    EXPECT_EQ(averages.least, 0.5);
    EXPECT_EQ(averages.greatest, 6.5);
    EXPECT_EQ(flow.bounds().low[0], pointOf(*image, 1)[0]);
    const auto again = fromVtk(toVtk(flow));
    EXPECT_EQ(again.bounds().high[0], flow.bounds().high[0]);

    const DataSet two = fromVtk(pieces, {.report = &report});
    ASSERT_EQ(two.blocks().size(), 2u);
    EXPECT_EQ(two.blocks()[0].name, "pieces/0");
    EXPECT_EQ(two.blocks()[1].kind, BlockKind::Rectilinear);
    EXPECT_EQ(fromVtk(toVtk(two)).blocks()[1].name, "pieces/1");

    for (const vtkSmartPointer<vtkDataObject>& none :
         {vtkSmartPointer<vtkDataObject>(), vtkSmartPointer<vtkDataObject>(vtkSmartPointer<vtkTable>::New()),
          vtkSmartPointer<vtkDataObject>(vtkSmartPointer<vtkHyperTreeGrid>::New()),
          vtkSmartPointer<vtkDataObject>(vtkSmartPointer<vtkMultiBlockDataSet>::New())})
        EXPECT_THROW((void)fromVtk(none), DataSetError);
}

TEST(VtkObjects, VtksReadersContourAndProbeAgreeOnRealData) {
    const std::string folder = VANTLE_TEST_DATA;
    if (folder.empty()) GTEST_SKIP() << "no real data";
    // A file of VTK's own: one byte a value, in place.
    auto protein = vtkSmartPointer<vtkDataSetReader>::New();
    protein->SetFileName((folder + "/ironProt.vtk").c_str());
    protein->Update();
    const DataSet density = fromVtk(protein->GetOutput());
    EXPECT_EQ(density.blocks()[0].size, MultiIndex<3>(68, 68, 68));
    EXPECT_EQ(density.range("scalars").greatest, protein->GetOutput()->GetPointData()->GetScalars()->GetRange()[1]);

    // The blunt fin through a file that we write and VTK reads, which gives back all bits.
    const DataSet ours = DataSet::read({folder + "/bluntfinxyz.bin", folder + "/bluntfinq.bin"});
    const std::filesystem::path file = std::filesystem::path(testing::TempDir()) / "fin-of-vtk-tests.vtm";
    ours.write(file, {"density"});
    auto reader = vtkSmartPointer<vtkXMLMultiBlockDataReader>::New();
    reader->SetFileName(file.c_str());
    reader->Update();
    auto* const fin = vtkMultiBlockDataSet::SafeDownCast(reader->GetOutputDataObject(0));
    ASSERT_NE(fin, nullptr);
    const DataSet flow = fromVtk(fin);
    const double level = 2.0;
    const Surface surface = flow.contour("density", level), expected = ours.contour("density", level);
    ASSERT_FALSE(surface.isEmpty());
    ASSERT_EQ(surface.points().size(), expected.points().size());
    EXPECT_TRUE(std::equal(surface.points().begin(), surface.points().end(), expected.points().begin()));

    // VTK's contour fills the same box.
    auto contour = vtkSmartPointer<vtkContourFilter>::New();
    contour->SetInputData(fin->GetBlock(0));
    contour->SetInputArrayToProcess(0, 0, 0, vtkDataObject::FIELD_ASSOCIATION_POINTS, "density");
    contour->SetValue(0, level);
    contour->Update();
    const auto box = [](const auto& points) {
        std::array<double, 6> all{1e9, -1e9, 1e9, -1e9, 1e9, -1e9};
        for (const Point& p : points)
            for (int d = 0; d < 3; ++d) {
                all[std::size_t(2 * d)] = std::min(all[std::size_t(2 * d)], p[d]);
                all[std::size_t(2 * d + 1)] = std::max(all[std::size_t(2 * d + 1)], p[d]);
            }
        return all;
    };
    std::array<double, 6> theirs{};
    contour->GetOutput()->GetBounds(theirs.data());
    const auto own = box(surface.points());
    for (std::size_t n = 0; n < 6; ++n) EXPECT_NEAR(own[n], theirs[n], 1e-5);

    // Positions all over the box.
    std::mt19937 random(7);
    const Box bounds = flow.bounds();
    std::vector<Point> positions(2000);
    auto points = vtkSmartPointer<vtkPoints>::New();
    points->SetDataTypeToDouble();
    for (Point& p : positions) {
        for (int d = 0; d < 3; ++d) p[d] = std::uniform_real_distribution(bounds.low[d], bounds.high[d])(random);
        points->InsertNextPoint(p[0], p[1], p[2]);
    }
    auto cloud = vtkSmartPointer<vtkPolyData>::New();
    cloud->SetPoints(points);
    auto probe = vtkSmartPointer<vtkProbeFilter>::New();
    probe->SetInputData(cloud);
    probe->SetSourceData(vtkDataSet::SafeDownCast(fin->GetBlock(0)));
    probe->Update();
    const auto* const found =
        vtkDataArray::SafeDownCast(probe->GetOutput()->GetPointData()->GetArray("vtkValidPointMask"));
    auto* const values = probe->GetOutput()->GetPointData()->GetArray("density");
    const Samples samples = flow.locate(positions).sample("density");
    int both = 0, differ = 0;
    for (std::size_t n = 0; n < positions.size(); ++n) {
        const bool isTheirs = const_cast<vtkDataArray*>(found)->GetComponent(vtkIdType(n), 0) != 0;
        differ += isTheirs != samples.isFound(n);
        if (!isTheirs || !samples.isFound(n)) continue;
        ++both;
        EXPECT_NEAR(samples[n], values->GetComponent(vtkIdType(n), 0), 1e-4) << n;
    }
    EXPECT_GT(both, 500);
    EXPECT_LT(differ, 20) << "of " << positions.size();
}

} // namespace
