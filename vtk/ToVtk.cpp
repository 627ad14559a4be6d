#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>
#include <model/vantle/MemArray.hpp>

#include <limits>
#include <map>
#include <mutex>
#include <vtk/VtkObjects.hpp>
#include <vtkAOSDataArrayTemplate.h>
#include <vtkCellArray.h>
#include <vtkCellData.h>
#include <vtkCompositeDataSet.h>
#include <vtkDataSetAttributes.h>
#include <vtkDoubleArray.h>
#include <vtkImageData.h>
#include <vtkInformation.h>
#include <vtkMultiBlockDataSet.h>
#include <vtkPointData.h>
#include <vtkPoints.h>
#include <vtkPolyData.h>
#include <vtkRectilinearGrid.h>
#include <vtkStructuredGrid.h>
#include <vtkTypeInt32Array.h>
#include <vtkTypeInt64Array.h>
#include <vtkUnsignedCharArray.h>

namespace Vantle {

using Hestra::StrongPtr;
using Tensor = Orvix::Quadratic<3, double>;

namespace {

/// Memory that arrays of VTK look at, and what keeps it alive. VTK gives back an address, and nothing else, when the
/// last array that shares it is gone.
class Lent {
public:
    static void keep(void* memory, StrongPtr<MemBase> owner) {
        const std::lock_guard lock(mutex());
        owners().emplace(memory, std::move(owner));
    }
    static void giveBack(void* memory) {
        StrongPtr<MemBase> last; // let go of outside the lock
        const std::lock_guard lock(mutex());
        const auto at = owners().find(memory);
        if (at == owners().end()) return;
        last = std::move(at->second);
        owners().erase(at);
    }

private:
    // Never destroyed: arrays of VTK may live until the process ends.
    static std::mutex& mutex() {
        static auto* const only = new std::mutex;
        return *only;
    }
    static std::multimap<void*, StrongPtr<MemBase>>& owners() {
        static auto* const all = new std::multimap<void*, StrongPtr<MemBase>>;
        return *all;
    }
};

/// An array of VTK of type `A` over the numbers that elements at `first` consist of.
template<class A, class Number>
vtkSmartPointer<A> lend(Number* first, std::size_t count, int components, const StrongPtr<MemBase>& owner) {
    auto array = vtkSmartPointer<A>::New();
    array->SetNumberOfComponents(components);
    if (count == 0) return array;
    Lent::keep(first, owner);
    array->SetArray(first, static_cast<vtkIdType>(count) * components, 0, A::VTK_DATA_ARRAY_USER_DEFINED);
    array->SetArrayFreeFunction(&Lent::giveBack);
    return array;
}

/// An array of VTK over an array of numbers, points, vectors or tensors, of rank `N`; a copy of one that is computed or
/// has gaps. Null for other elements.
template<int N>
vtkSmartPointer<vtkDataArray> toArray(const StrongPtr<MemBase>& from) {
    using Elements = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int,
                              unsigned long long, Point, Vector, FloatPoint, FloatVector, Tensor>;
    vtkSmartPointer<vtkDataArray> result;
    const auto take = [&]<class T>(const MemArray<N, T>& array) {
        using Number = typename ElementTraits<T>::component_type;
        constexpr int Components = ElementTraits<T>::components;
        static_assert(sizeof(T) == sizeof(Number) * Components);
        using A = vtkAOSDataArrayTemplate<Number>;
        if (array.stride() == 1) {
            auto* const first = const_cast<T*>(array.data()); // VTK knows no read-only memory
            result = lend<A>(reinterpret_cast<Number*>(first), array.nElements(), Components, from);
            return;
        }
        auto copy = vtkSmartPointer<A>::New();
        copy->SetNumberOfComponents(Components);
        copy->SetNumberOfTuples(static_cast<vtkIdType>(array.nElements()));
        for (index_t n = 0; n < array.nElements(); ++n)
            *reinterpret_cast<T*>(copy->GetPointer(static_cast<vtkIdType>(n) * Components)) = array.element(n);
        result = copy;
    };
    withMemArray<N>(Elements(), from, take);
    return result;
}

vtkSmartPointer<vtkPoints> toPoints(vtkDataArray* array) {
    auto points = vtkSmartPointer<vtkPoints>::New();
    points->SetDataType(array->GetDataType());
    points->SetData(array);
    return points;
}

vtkSmartPointer<vtkDoubleArray> coordinates(const std::vector<double>& axis) {
    auto array = vtkSmartPointer<vtkDoubleArray>::New();
    for (const double x : axis) array->InsertNextValue(x);
    return array;
}

/// A mask as VTK has it: 0 for what is valid.
void addMask(vtkDataSetAttributes& to, const StrongPtr<MemBase>& mask, unsigned char hidden) {
    if (!mask) return;
    auto ghosts = vtkSmartPointer<vtkUnsignedCharArray>::New();
    ghosts->SetName(vtkDataSetAttributes::GhostArrayName());
    withMemArray<3>(TypeList<unsigned char, int, short, unsigned short, unsigned int, unsigned long long>(), mask,
                    [&](const auto& valid) {
                        for (index_t n = 0; n < valid.nElements(); ++n)
                            ghosts->InsertNextValue(valid.element(n) != 0 ? 0 : hidden);
                    });
    to.AddArray(ghosts);
}

vtkSmartPointer<vtkDataSet> toGrid(const DataSet& flow, const BlockInfo& block, const DataSet::Fields& fields) {
    const std::array<int, 3> size{static_cast<int>(block.size[0]), static_cast<int>(block.size[1]),
                                  static_cast<int>(block.size[2])};
    vtkSmartPointer<vtkDataSet> result;
    if (block.kind == BlockKind::Uniform) {
        auto image = vtkSmartPointer<vtkImageData>::New();
        const auto axes = flow.axes(block.name);
        std::array<double, 3> origin{}, spacing{1, 1, 1};
        for (std::size_t d = 0; d < 3; ++d) {
            origin[d] = axes[d].front();
            if (axes[d].size() > 1)
                spacing[d] = (axes[d].back() - axes[d].front()) / static_cast<double>(axes[d].size() - 1);
        }
        image->SetDimensions(size.data());
        image->SetOrigin(origin.data());
        image->SetSpacing(spacing.data());
        result = image;
    } else if (block.kind == BlockKind::Rectilinear) {
        auto grid = vtkSmartPointer<vtkRectilinearGrid>::New();
        const auto axes = flow.axes(block.name);
        grid->SetDimensions(size.data());
        grid->SetXCoordinates(coordinates(axes[0]));
        grid->SetYCoordinates(coordinates(axes[1]));
        grid->SetZCoordinates(coordinates(axes[2]));
        result = grid;
    } else {
        auto grid = vtkSmartPointer<vtkStructuredGrid>::New();
        const auto positions = toArray<3>(flow.positionArray(block.name));
        if (!positions) throw DataSetError("block \"" + block.name + "\" has no vertices with three indices");
        grid->SetDimensions(size.data());
        grid->SetPoints(toPoints(positions));
        result = grid;
    }
    for (const std::string& name : fields) {
        if (!flow.hasValues(name, block.name)) continue;
        const auto values = toArray<3>(flow.array(name, block.name));
        if (!values) throw DataSetError("field \"" + name + "\" has neither numbers nor vectors");
        values->SetName(name.c_str());
        result->GetPointData()->AddArray(values);
    }
    addMask(*result->GetPointData(), flow.vertexMask(block.name), vtkDataSetAttributes::HIDDENPOINT);
    addMask(*result->GetCellData(), flow.cellMask(block.name), vtkDataSetAttributes::HIDDENCELL);
    return result;
}

/// Connectivity over triangles, with offsets of the same width.
vtkSmartPointer<vtkCellArray> toCells(const Surface& surface) {
    const auto triangles = surface.triangles();
    const auto owner = surface.triangleArray();
    auto cells = vtkSmartPointer<vtkCellArray>::New();
    const auto fill = [&](auto offsets, auto connectivity) {
        offsets->SetNumberOfValues(static_cast<vtkIdType>(triangles.size()) + 1);
        for (std::size_t t = 0; t <= triangles.size(); ++t)
            offsets->SetValue(static_cast<vtkIdType>(t),
                              static_cast<typename std::remove_reference_t<decltype(*offsets)>::ValueType>(3 * t));
        cells->SetData(offsets, connectivity);
    };
    if (std::max(surface.points().size(), 3 * triangles.size()) <= std::numeric_limits<std::int32_t>::max()) {
        static_assert(sizeof(Triangle) == 3 * sizeof(std::int32_t));
        auto* const first = reinterpret_cast<std::int32_t*>(const_cast<Triangle*>(triangles.data()));
        fill(vtkSmartPointer<vtkTypeInt32Array>::New(), lend<vtkTypeInt32Array>(first, 3 * triangles.size(), 1, owner));
    } else {
        auto connectivity = vtkSmartPointer<vtkTypeInt64Array>::New();
        for (const Triangle& triangle : triangles)
            for (const auto vertex : triangle) connectivity->InsertNextValue(static_cast<std::int64_t>(vertex));
        fill(vtkSmartPointer<vtkTypeInt64Array>::New(), connectivity);
    }
    return cells;
}

} // namespace

vtkSmartPointer<vtkPolyData> toVtk(const Surface& surface) {
    auto result = vtkSmartPointer<vtkPolyData>::New();
    if (surface.isEmpty()) return result;
    result->SetPoints(toPoints(toArray<1>(surface.pointArray())));
    result->SetPolys(toCells(surface));
    for (const std::string& name : surface.names()) {
        const auto values = toArray<1>(surface.values(name).array());
        if (!values) continue;
        values->SetName(name.c_str());
        result->GetPointData()->AddArray(values);
    }
    if (surface.hasNormals()) result->GetPointData()->SetActiveNormals(Surface::NormalsName);
    return result;
}

vtkSmartPointer<vtkDataObject> toVtk(const DataSet& flow, const DataSet::Fields& fields) {
    DataSet::Fields all = fields;
    if (all.empty())
        for (const FieldInfo& field : flow.fields()) all.push_back(field.name);
    const std::vector<BlockInfo> blocks = flow.blocks();
    auto result = vtkSmartPointer<vtkMultiBlockDataSet>::New();
    for (std::size_t n = 0; n < blocks.size(); ++n) {
        const auto grid = toGrid(flow, blocks[n], all);
        if (blocks.size() == 1) return grid;
        result->SetBlock(static_cast<unsigned>(n), grid);
        result->GetMetaData(static_cast<unsigned>(n))->Set(vtkCompositeDataSet::NAME(), blocks[n].name.c_str());
    }
    return result;
}

} // namespace Vantle
