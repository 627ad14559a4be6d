#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <array>
#include <set>
#include <utility>
#include <vtk/VtkObjects.hpp>
#include <vtkCellData.h>
#include <vtkCompositeDataIterator.h>
#include <vtkCompositeDataSet.h>
#include <vtkDataSetAttributes.h>
#include <vtkDoubleArray.h>
#include <vtkImageData.h>
#include <vtkInformation.h>
#include <vtkMatrix3x3.h>
#include <vtkMultiBlockDataSet.h>
#include <vtkPartitionedDataSet.h>
#include <vtkPartitionedDataSetCollection.h>
#include <vtkPointData.h>
#include <vtkPoints.h>
#include <vtkRectilinearGrid.h>
#include <vtkStructuredGrid.h>
#include <vtkUnsignedCharArray.h>

namespace Vantle {

using Hestra::StrongPtr;
using Fate = VtkPart::Fate;
using Tensor = Orvix::Quadratic<3, double>;

std::string describe(const VtkReport& report) {
    std::string text;
    for (const VtkPart& part : report) {
        const char* const fate = part.fate == Fate::Shared   ? "shared"
                                 : part.fate == Fate::Copied ? "copied"
                                                             : "left out";
        text += part.what + ": " + fate + (part.reason.empty() ? "" : " (" + part.reason + ")") + "\n";
    }
    return text;
}

namespace {

std::string inQuotes(const std::string& name) { return "\"" + name + "\""; }

struct Leaf {
    std::string name;
    vtkDataObject* object;
};

/// All parts of an object, however deep, that have no parts themselves.
void collect(vtkDataObject* object, const std::string& name, std::vector<Leaf>& leaves) {
    std::vector<std::pair<vtkInformation*, vtkDataObject*>> parts;
    const auto take = [&](auto* tree, unsigned count, const auto& part) {
        for (unsigned n = 0; n < count; ++n)
            parts.emplace_back(tree->HasMetaData(n) ? tree->GetMetaData(n) : nullptr, part(n));
    };
    if (auto* const blocks = vtkMultiBlockDataSet::SafeDownCast(object)) {
        take(blocks, blocks->GetNumberOfBlocks(), [&](unsigned n) { return blocks->GetBlock(n); });
    } else if (auto* const collection = vtkPartitionedDataSetCollection::SafeDownCast(object)) {
        take(collection, collection->GetNumberOfPartitionedDataSets(),
             [&](unsigned n) { return collection->GetPartitionedDataSet(n); });
    } else if (auto* const partitions = vtkPartitionedDataSet::SafeDownCast(object)) { // multi-piece data sets, too
        take(partitions, partitions->GetNumberOfPartitions(),
             [&](unsigned n) { return partitions->GetPartitionAsDataObject(n); });
    } else if (auto* const others = vtkCompositeDataSet::SafeDownCast(object)) {
        const auto each = vtk::TakeSmartPointer(others->NewIterator());
        for (each->InitTraversal(); !each->IsDoneWithTraversal(); each->GoToNextItem())
            parts.emplace_back(nullptr, each->GetCurrentDataObject());
    } else {
        if (object) leaves.push_back({name, object});
        return;
    }
    for (std::size_t n = 0; n < parts.size(); ++n) {
        const auto& [data, part] = parts[n];
        std::string own;
        if (data && data->Has(vtkCompositeDataSet::NAME())) own = data->Get(vtkCompositeDataSet::NAME());
        if (own.empty() && (parts.size() > 1 || name.empty())) own = std::to_string(n);
        collect(part, name.empty() || own.empty() ? name + own : name + "/" + own, leaves);
    }
}

std::string nameOf(vtkAbstractArray& array, const char* kind, int number) {
    const char* const name = array.GetName();
    return name && *name ? name : kind + std::to_string(number);
}

/// The element type that looks at the numbers of an array where they are; that of void if there is none.
VantleTypeIndex elementOf(vtkDataArray& array, bool isOfPoints) {
    if (!array.HasStandardMemoryLayout()) return {};
    const int components = array.GetNumberOfComponents();
    switch (array.GetDataType()) {
    case VTK_DOUBLE:
        return components == 9   ? typeid(Tensor)
               : components == 1 ? typeid(double)
               : isOfPoints      ? typeid(Point)
                                 : typeid(Vector);
    case VTK_FLOAT:
        if (components == 9) return {};
        return components == 1 ? typeid(float) : isOfPoints ? typeid(FloatPoint) : typeid(FloatVector);
    default:
        break;
    }
    if (components != 1) return {};
    switch (array.GetDataType()) {
    case VTK_SHORT:
        return typeid(short);
    case VTK_INT:
        return typeid(int);
    case VTK_UNSIGNED_CHAR:
        return typeid(unsigned char);
    case VTK_UNSIGNED_SHORT:
        return typeid(unsigned short);
    case VTK_UNSIGNED_INT:
        return typeid(unsigned int);
    default:
        return {};
    }
}

/// Numbers of vertices and of cells.
struct Extents {
    explicit Extents(const MultiIndex<3>& size) : vertices(size), cells(size) {
        for (int d = 0; d < 3; ++d) cells[d] = std::max<index_t>(size[d], 2) - 1;
    }
    MultiIndex<3> vertices, cells;
};

/// What is known of the ghosts among the vertices or cells of a grid; null if that is nothing.
vtkUnsignedCharArray* ghostsOf(vtkDataSetAttributes& data, const MultiIndex<3>& size) {
    auto* const ghosts = vtkUnsignedCharArray::SafeDownCast(data.GetArray(vtkDataSetAttributes::GhostArrayName()));
    return ghosts && static_cast<index_t>(ghosts->GetNumberOfTuples()) == size.product() ? ghosts : nullptr;
}

/// A part of an array over three indices.
vtkSmartPointer<vtkDataArray> partOf(vtkDataArray& array, const MultiIndex<3>& whole, const MultiIndex<3>& first,
                                     const MultiIndex<3>& size) {
    auto part = vtk::TakeSmartPointer(array.NewInstance());
    part->SetNumberOfComponents(array.GetNumberOfComponents());
    part->SetNumberOfTuples(static_cast<vtkIdType>(size.product()));
    const MultiIndex<3> rows(1, size[1], size[2]);
    MultiIndex<3> row;
    do
        part->InsertTuples(static_cast<vtkIdType>(row.linear(size)), static_cast<vtkIdType>(size[0]),
                           static_cast<vtkIdType>((first + row).linear(whole)), &array);
    while (row.advance(rows));
    return part;
}

class Input {
public:
    explicit Input(const VtkInput& options) : myOptions(options) {}

    void add(std::string name, vtkDataObject& object);
    /// The data set; what was left out, if there is nothing else.
    [[nodiscard]] DataSet result(const std::string& ofClass) {
        if (!myNames.empty()) return myDataSet;
        std::string reasons = describe(myReport);
        if (!reasons.empty()) reasons.pop_back();
        std::replace(reasons.begin(), reasons.end(), '\n', ';');
        throw DataSetError("nothing that can be taken in " + ofClass + ": " + (reasons.empty() ? "no parts" : reasons));
    }
    [[nodiscard]] const VtkReport& report() const noexcept { return myReport; }

private:
    struct Block {
        std::string name;
        Extents whole; // of the grid
        Extents own;   // without ghost layers, which begins at `first`
        MultiIndex<3> first = {};
        [[nodiscard]] bool isCut() const { return own.vertices != whole.vertices; }
        [[nodiscard]] std::string what(const std::string& part) const {
            return "block " + inQuotes(name) + ", " + part;
        }
    };

    void tell(std::string what, Fate fate, std::string reason = {}) {
        myReport.push_back({std::move(what), fate, std::move(reason)});
    }
    StrongPtr<MemBase> take(vtkDataArray& array, const Block& block, bool isOfPoints, const std::string& what,
                            const char* made = nullptr);
    [[nodiscard]] static bool leaveGhostLayers(Block& block, vtkDataSet& grid);
    void addPositions(const Block& block, vtkDataSet& grid);
    void addImage(const Block& block, vtkImageData& image);
    void addMasks(const Block& block, vtkDataSet& grid);
    void addField(const Block& block, const std::string& name, vtkDataArray& array, const std::string& what,
                  const char* made = nullptr);
    void addFields(const Block& block, vtkDataSet& grid);

    VtkInput myOptions;
    DataSet myDataSet;
    std::set<std::string> myNames;
    VtkReport myReport;
};

/// An array over the memory of one of VTK, or over that of a copy, which it keeps alive.
StrongPtr<MemBase> Input::take(vtkDataArray& array, const Block& block, bool isOfPoints, const std::string& what,
                               const char* made) {
    vtkSmartPointer<vtkDataArray> kept = &array;
    if (block.isCut()) {
        kept = partOf(array, block.whole.vertices, block.first, block.own.vertices);
        if (!made) made = "without ghost layers";
    }
    VantleTypeIndex element = elementOf(*kept, isOfPoints);
    const std::string layout = !array.HasStandardMemoryLayout()
                                   ? std::string(array.GetClassName()) + " keeps its numbers in another order"
                                   : std::string("of ") + array.GetDataTypeAsString();
    if (element && (made || !myOptions.copy)) {
        tell(what, made ? Fate::Copied : Fate::Shared, made ? made : "");
    } else {
        const auto copy = element ? vtk::TakeSmartPointer(array.NewInstance())
                                  : vtkSmartPointer<vtkDataArray>(vtkSmartPointer<vtkDoubleArray>::New());
        copy->DeepCopy(kept);
        kept = copy;
        tell(what, Fate::Copied, element ? "on request" : layout);
        element = elementOf(*kept, isOfPoints);
    }
    const ForeignMemory memory{.elements = kept->GetVoidPointer(0)};
    return adopt(element, memory, DynamicSize(block.own.vertices),
                 MemoryOwner(std::make_shared<const vtkSmartPointer<vtkDataArray>>(kept)));
}

void Input::addImage(const Block& block, vtkImageData& image) {
    const MultiIndex<3>& size = block.own.vertices;
    Box box;
    bool isUpright = image.GetDirectionMatrix()->IsIdentity();
    for (int d = 0; d < 3; ++d) {
        // The last ones of a part are the first ones of the next, to the last bit.
        const auto at = [&](int n) { return image.GetOrigin()[d] + image.GetSpacing()[d] * n; };
        const int first = image.GetExtent()[2 * d] + static_cast<int>(block.first[d]);
        box.low[d] = at(first);
        box.high[d] = at(first + static_cast<int>(size[d]) - 1);
        isUpright = isUpright && (size[d] == 1 || box.low[d] < box.high[d]);
    }
    if (isUpright) {
        myDataSet.addUniformBlock(block.name, size, box);
        return tell(block.what("positions"), Fate::Shared, "a box");
    }
    std::vector<Point> points;
    points.reserve(size.product());
    MultiIndex<3> vertex;
    do {
        std::array<double, 3> at{};
        image.GetPoint(static_cast<vtkIdType>((block.first + vertex).linear(block.whole.vertices)), at.data());
        points.push_back({at[0], at[1], at[2]});
    } while (vertex.advance(size));
    myDataSet.addBlock(block.name, size, std::move(points));
    tell(block.what("positions"), Fate::Copied, "a turned or mirrored image");
}

void Input::addPositions(const Block& block, vtkDataSet& grid) {
    if (auto* const image = vtkImageData::SafeDownCast(&grid)) {
        addImage(block, *image);
    } else if (auto* const rectilinear = vtkRectilinearGrid::SafeDownCast(&grid)) {
        std::array<std::vector<double>, 3> axes;
        const std::array<vtkDataArray*, 3> from{rectilinear->GetXCoordinates(), rectilinear->GetYCoordinates(),
                                                rectilinear->GetZCoordinates()};
        for (int d = 0; d < 3; ++d) {
            const auto axis = static_cast<std::size_t>(d);
            const auto first = static_cast<vtkIdType>(block.first[d]);
            for (vtkIdType n = 0; n < static_cast<vtkIdType>(block.own.vertices[d]); ++n)
                axes[axis].push_back(from[axis]->GetComponent(first + n, 0));
        }
        myDataSet.addRectilinearBlock(block.name, axes[0], axes[1], axes[2]);
        tell(block.what("positions"), Fate::Copied, "three lists of coordinates");
    } else {
        vtkPoints* const points = vtkStructuredGrid::SafeDownCast(&grid)->GetPoints();
        myDataSet.addBlock(block.name, take(*points->GetData(), block, true, block.what("positions")));
    }
}

/// Keeps to the cells that are no duplicates, and what is among them; false if there are none.
bool Input::leaveGhostLayers(Block& block, vtkDataSet& grid) {
    const MultiIndex<3>& cells = block.whole.cells;
    auto* const ghosts = ghostsOf(*grid.GetCellData(), cells);
    if (!ghosts) return true;
    MultiIndex<3> first = cells, end, cell;
    do {
        const auto number = static_cast<vtkIdType>(cell.linear(cells));
        if ((ghosts->GetValue(number) & vtkDataSetAttributes::DUPLICATECELL) != 0) continue;
        for (int d = 0; d < 3; ++d) {
            first[d] = std::min(first[d], cell[d]);
            end[d] = std::max(end[d], cell[d] + 1);
        }
    } while (cell.advance(cells));
    if (end[0] == 0) return false;
    MultiIndex<3> size = block.whole.vertices;
    for (int d = 0; d < 3; ++d)
        if (size[d] > 1) size[d] = end[d] - first[d] + 1;
    block.first = first;
    block.own = Extents(size);
    return true;
}

void Input::addMasks(const Block& block, vtkDataSet& grid) {
    const auto add = [&](vtkDataSetAttributes& data, const MultiIndex<3>& whole, const MultiIndex<3>& size,
                         unsigned blanked, bool isOfCells) {
        auto* const ghosts = ghostsOf(data, whole);
        if (!ghosts) return;
        const auto mask = MemArray<3, unsigned char>::create(size);
        bool isAllValid = true;
        MultiIndex<3> at;
        do {
            const auto number = static_cast<vtkIdType>((block.first + at).linear(whole));
            const bool isValid = (ghosts->GetValue(number) & blanked) == 0;
            (*mask)[at] = isValid ? 1 : 0;
            isAllValid = isAllValid && isValid;
        } while (at.advance(size));
        if (isAllValid) return;
        if (isOfCells)
            myDataSet.setCellMask(block.name, StrongPtr<MemBase>(mask));
        else
            myDataSet.setVertexMask(block.name, StrongPtr<MemBase>(mask));
        tell(block.what(isOfCells ? "vtkGhostType of cells" : "vtkGhostType of points"), Fate::Copied, "made a mask");
    };
    // Points that another part has, too, are valid here and there; duplicated cells are that other part's.
    add(*grid.GetPointData(), block.whole.vertices, block.own.vertices, vtkDataSetAttributes::HIDDENPOINT, false);
    add(*grid.GetCellData(), block.whole.cells, block.own.cells,
        vtkDataSetAttributes::HIDDENCELL | vtkDataSetAttributes::DUPLICATECELL, true);
}

void Input::addField(const Block& block, const std::string& name, vtkDataArray& array, const std::string& what,
                     const char* made) {
    try {
        myDataSet.setField(name, block.name, take(array, block, false, what, made));
    } catch (const DataSetError& reason) { // of another kind than in an earlier block, or with a name that means more
        myReport.back() = {what, Fate::LeftOut, reason.what()};
    }
}

/// At each vertex the mean of the cells around it.
vtkSmartPointer<vtkDataArray> averaged(vtkDataArray& cellValues, const Extents& extents) {
    const auto& [size, cells] = extents;
    const int components = cellValues.GetNumberOfComponents();
    auto all = vtkSmartPointer<vtkDoubleArray>::New();
    all->SetNumberOfComponents(components);
    all->SetNumberOfTuples(static_cast<vtkIdType>(size.product()));
    MultiIndex<3> at;
    do {
        MultiIndex<3> first, last;
        for (int d = 0; d < 3; ++d) {
            first[d] = at[d] > 0 ? at[d] - 1 : 0;
            last[d] = std::min(at[d], cells[d] - 1);
        }
        for (int c = 0; c < components; ++c) {
            double sum = 0, count = 0;
            MultiIndex<3> cell;
            for (cell[2] = first[2]; cell[2] <= last[2]; ++cell[2])
                for (cell[1] = first[1]; cell[1] <= last[1]; ++cell[1])
                    for (cell[0] = first[0]; cell[0] <= last[0]; ++cell[0], ++count)
                        sum += cellValues.GetComponent(static_cast<vtkIdType>(cell.linear(cells)), c);
            all->SetComponent(static_cast<vtkIdType>(at.linear(size)), c, sum / count);
        }
    } while (at.advance(size));
    return all;
}

void Input::addFields(const Block& block, vtkDataSet& grid) {
    const auto each = [&](vtkDataSetAttributes* data, const char* kind, const char* unnamed, index_t count,
                          const auto& add) {
        for (int n = 0; n < data->GetNumberOfArrays(); ++n) {
            vtkAbstractArray* const any = data->GetAbstractArray(n);
            const std::string name = nameOf(*any, unnamed, n);
            if (name == vtkDataSetAttributes::GhostArrayName()) continue;
            const std::string what = block.what(kind + inQuotes(name));
            auto* const array = vtkDataArray::SafeDownCast(any);
            const int components = array ? array->GetNumberOfComponents() : 0;
            if (!array)
                tell(what, Fate::LeftOut, "no numbers");
            else if (components != 1 && components != 3 && components != 9)
                tell(what, Fate::LeftOut, std::to_string(components) + " components");
            else if (static_cast<index_t>(array->GetNumberOfTuples()) != count)
                tell(what, Fate::LeftOut,
                     std::to_string(array->GetNumberOfTuples()) + " values for " + std::to_string(count) + " places");
            else
                add(name, *array, what);
        }
    };
    each(grid.GetPointData(), "field ", "array ", block.whole.vertices.product(),
         [&](const std::string& name, vtkDataArray& array, const std::string& what) {
             addField(block, name, array, what);
         });
    each(grid.GetCellData(), "cell data ", "cell array ", block.whole.cells.product(),
         [&](const std::string& name, vtkDataArray& array, const std::string& what) {
             if (myOptions.cellData == VtkCellData::LeaveOut)
                 tell(what, Fate::LeftOut, "fields are of vertices; VtkCellData::Average takes averages");
             else if (grid.GetPointData()->HasArray(name.c_str()))
                 tell(what, Fate::LeftOut, "there is a field of this name");
             else
                 addField(block, name, *averaged(array, block.whole), what, "averaged to vertices");
         });
}

void Input::add(std::string name, vtkDataObject& object) {
    std::array<int, 6> extent{};
    auto* const grid = vtkDataSet::SafeDownCast(&object);
    if (auto* const image = vtkImageData::SafeDownCast(grid))
        image->GetExtent(extent.data());
    else if (auto* const rectilinear = vtkRectilinearGrid::SafeDownCast(grid))
        rectilinear->GetExtent(extent.data());
    else if (auto* const structured = vtkStructuredGrid::SafeDownCast(grid))
        structured->GetExtent(extent.data());
    else
        return tell("block " + inQuotes(name), Fate::LeftOut,
                    std::string(object.GetClassName()) + " has no three indices");

    const std::string plain = name;
    for (int n = 2; myNames.contains(name); ++n) name = plain + " (" + std::to_string(n) + ")";
    const std::string where = "block " + inQuotes(name);
    MultiIndex<3> size;
    for (int d = 0; d < 3; ++d) {
        const int count = extent[static_cast<std::size_t>(2 * d + 1)] - extent[static_cast<std::size_t>(2 * d)] + 1;
        if (count < 1) return tell(where, Fate::LeftOut, "no vertices");
        size[d] = static_cast<index_t>(count);
    }
    if (static_cast<index_t>(grid->GetNumberOfPoints()) != size.product())
        return tell(where, Fate::LeftOut,
                    std::to_string(grid->GetNumberOfPoints()) + " points for the extents " + to_string(size));
    Block block{name, Extents(size), Extents(size)};
    if (!leaveGhostLayers(block, *grid)) return tell(where, Fate::LeftOut, "nothing but ghost cells");
    if (auto* const rectilinear = vtkRectilinearGrid::SafeDownCast(grid)) {
        const std::array<vtkDataArray*, 3> axes{rectilinear->GetXCoordinates(), rectilinear->GetYCoordinates(),
                                                rectilinear->GetZCoordinates()};
        for (int d = 0; d < 3; ++d)
            if (const auto* const axis = axes[static_cast<std::size_t>(d)];
                !axis || static_cast<index_t>(axis->GetNumberOfTuples()) < size[d])
                return tell(where, Fate::LeftOut, "too few coordinates for the extents " + to_string(size));
    }
    try {
        addPositions(block, *grid);
    } catch (const DataSetError& reason) { // of coordinates that no block can have
        return tell(where, Fate::LeftOut, reason.what());
    }
    myNames.insert(block.name);
    addMasks(block, *grid);
    addFields(block, *grid);
}

} // namespace

DataSet fromVtk(vtkDataObject* object, const VtkInput& options) {
    if (!object) throw DataSetError("no object of VTK to take data from");
    std::vector<Leaf> leaves;
    collect(object, "", leaves);
    Input input(options);
    for (const Leaf& leaf : leaves) input.add(leaf.name.empty() ? "block" : leaf.name, *leaf.object);
    if (options.report) *options.report = input.report();
    return input.result(object->GetClassName());
}

} // namespace Vantle
