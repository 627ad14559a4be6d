#pragma once
/// Objects of VTK, in and out, over the same memory where that is possible.
///
/// Shared memory is kept alive by whoever uses it, on either side. It must not be written or lengthened through one
/// side while the other one uses it; whoever changes a shared field between two operations sets it again.

#include <dataset/DataSet.hpp>

#include <string>
#include <vector>
#include <vtk/VTKExport.hpp>
#include <vtkSmartPointer.h>

class vtkDataObject;
class vtkPolyData;

namespace Vantle {

/// What became of a part of an object of VTK.
struct VtkPart {
    enum class Fate { Shared, Copied, LeftOut };

    std::string what; ///< `block "zone 1", field "rho"`
    Fate fate;
    std::string reason; ///< for what is not shared
};

/// What became of all parts.
using VtkReport = std::vector<VtkPart>;

/// A line for each part.
[[nodiscard]] VANTLE_VTK_API std::string describe(const VtkReport& report);

/// Data at cells, while fields are at vertices.
enum class VtkCellData {
    LeaveOut,
    Average ///< a field is, at each vertex, the mean of the cells around it
};

struct VtkInput {
    VtkCellData cellData = VtkCellData::LeaveOut;
    /// Whether arrays are copied that could be shared.
    bool copy = false;
    /// Told of each part, if there is one.
    VtkReport* report = nullptr;
};

/// A data set of image data, rectilinear and structured grids, and of whatever has such as its parts, however deep.
///
/// Blocks   have the names that there are, parts of parts "outer/inner", parts without name their number.
/// Shared   positions of structured grids, float and double; arrays of points with 1, 3 or 9 components, if they are
///          double, or float with 1 or 3, or integers that the model knows, with 1. Others are copied, as double.
/// Ghosts   layers of duplicated cells around a grid (`vtkGhostType`) are another part's: they are cut off, and arrays
///          copied for that, so that parts meet at their faces. Other hidden and duplicated cells, and hidden points,
///          are not valid. Averages of cells count the layers.
/// Left out grids without three indices, texts, other numbers of components; the report says why.
/// Failure  DataSetError, which says why, for null and if nothing can be taken.
[[nodiscard]] VANTLE_VTK_API DataSet fromVtk(vtkDataObject* object, const VtkInput& options = {});

/// Points, triangles, and values of a surface: all shared, but for the offsets of triangles, which are new. (Triangles
/// are copied beyond 2^31 points.) Normals are the active ones.
[[nodiscard]] VANTLE_VTK_API vtkSmartPointer<vtkPolyData> toVtk(const Surface& surface);

/// The only block of a data set as vtkImageData, vtkRectilinearGrid or vtkStructuredGrid, or several as a
/// vtkMultiBlockDataSet with their names; with these fields where they have values, or all that were set. Positions and
/// fields are shared, unless their arrays are computed or have gaps; masks become `vtkGhostType`.
/// Failure  DataSetError for unknown fields, and for blocks without three indices.
[[nodiscard]] VANTLE_VTK_API vtkSmartPointer<vtkDataObject> toVtk(const DataSet& flow,
                                                                  const DataSet::Fields& fields = {});

} // namespace Vantle
