#pragma once
/// Triangle surfaces, as contours, slices and hulls of data sets are.

#include <dataset/DataSetExport.hpp>
#include <dataset/Values.hpp>
#include <dataset/io/Vtk.hpp>
#include <model/vantle/GridKinds.hpp>

#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Vantle {

/// Points, triangles between them, and values at the points. A handle: copies share everything.
///
/// The model's grid underneath has the same arrays: points are the positions of its vertices, fields of these are the
/// values, and triangles are skeleton (2, 1).
/// Concurrency  never changed here: any number of threads.
class VANTLE_DATASET_API Surface {
public:
    /// Under this name a surface has normals, if it has any.
    static constexpr const char* NormalsName = "normals";

    /// Empty.
    Surface();
    /// View of a grid of the model that is a surface. Nothing is copied; the surface keeps the arrays alive.
    /// Failure  DataSetError when there are no points, or no triangles, as one-dimensional arrays.
    explicit Surface(const Hestra::StrongPtr<Grid>& grid);

    /// Several surfaces as one: their points and triangles one after the other, with the values that all of them have.
    /// Copies, unless there is only one.
    [[nodiscard]] static Surface together(const std::vector<Surface>& parts);

    [[nodiscard]] std::span<const Point> points() const noexcept;
    /// Each names three points.
    [[nodiscard]] std::span<const Triangle> triangles() const noexcept;
    [[nodiscard]] bool isEmpty() const noexcept { return triangles().empty(); }

    /// Names of the values that there are, sorted.
    [[nodiscard]] std::vector<std::string> names() const;
    /// The values of this name at the points. Failure: DataSetError, which lists the names that there are.
    [[nodiscard]] const Values& values(const std::string& name) const;
    [[nodiscard]] bool hasNormals() const noexcept;
    /// Of length 1, towards greater values; zero where the values do not change. Failure: as `values`.
    [[nodiscard]] const Values& normals() const { return values(NormalsName); }

    /// How many sides of triangles have no other one that runs along them in the opposite direction. Counted by each
    /// call, in near-linear time.
    [[nodiscard]] std::size_t borderEdges() const;
    /// Whether there is no border: the surface encloses something, and all triangles show the same side. So is an empty
    /// one.
    [[nodiscard]] bool isClosed() const { return borderEdges() == 0; }

    /// Writes points, triangles and all values as a VTK file (.vtp). Failure: FileError, see `writeVtk`.
    void write(const std::filesystem::path& file, const VtkOptions& options = {}) const;

    /// The arrays of points and triangles, which keep them alive.
    [[nodiscard]] Hestra::StrongPtr<MemBase> pointArray() const noexcept;
    [[nodiscard]] Hestra::StrongPtr<MemBase> triangleArray() const noexcept;
    /// The model's grid.
    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept;

private:
    struct Data;
    std::shared_ptr<const Data> myData;
};

} // namespace Vantle
