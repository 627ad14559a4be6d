#pragma once
/// Curves in space: paths along which values are wanted, outlines, lines of a flow.

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

/// Points, curves that pass through them, and values at the points. A handle: copies share everything.
///
/// The model's grid underneath, a `LineSet`, has the same arrays: points are the positions of its vertices, fields of
/// these are the values, and curves are skeleton (1, 1).
///
/// Along a path, a data set has `flow.locate(path.points()).sample("pressure")`, to be kept by `with`.
/// Concurrency  never changed: any number of threads.
class VANTLE_DATASET_API Curves {
public:
    /// The numbers of a curve's points, in order. A curve that is closed ends with the point that it begins with.
    using Numbers = std::vector<index_t>;

    /// None.
    Curves();
    /// One, through all points.
    explicit Curves(std::vector<Point> points);
    /// Several. Failure, here and below: DataSetError for a curve through a point that there is not.
    Curves(std::vector<Point> points, std::vector<Numbers> curves);
    /// Several through consecutive points: curve n begins with point `starts[n]`, and ends before point
    /// `starts[n + 1]`, the last one with the last point. Failure: also for starts that descend.
    [[nodiscard]] static Curves consecutive(std::vector<Point> points, std::span<const index_t> starts);
    [[nodiscard]] static Curves consecutive(const Hestra::StrongPtr<MemBase>& points, std::span<const index_t> starts);
    /// Shares arrays of rank 1, adopted memory included: of points in double precision, without gaps, and of `Numbers`,
    /// or such of `unsigned int`. Failure: also for other arrays.
    Curves(const Hestra::StrongPtr<MemBase>& points, const Hestra::StrongPtr<MemBase>& curves);
    /// View of a grid of the model that has such curves. Nothing is copied; the arrays stay alive. Failure: also for
    /// other grids.
    explicit Curves(const Hestra::StrongPtr<Grid>& grid);

    [[nodiscard]] std::span<const Point> points() const noexcept;
    /// How many curves there are.
    [[nodiscard]] std::size_t size() const noexcept;
    /// A copy of the numbers of a curve's points. Failure: std::out_of_range.
    [[nodiscard]] Numbers operator[](std::size_t curve) const;

    /// The same with values, one for each point, under a name. They are shared. Failure: DataSetError for another
    /// number of values.
    [[nodiscard]] Curves with(const std::string& name, const Values& values) const;
    /// Names of the values that there are, sorted.
    [[nodiscard]] std::vector<std::string> names() const;
    /// The values of this name at the points. Failure: DataSetError, which lists the names that there are.
    [[nodiscard]] const Values& values(const std::string& name) const;

    /// At each point the length of its curve from the first point on, and the unit vector along it, see
    /// `TangentialVectorsAndCurveParameter`. Computed by each call, on all cores where curves are `consecutive`.
    [[nodiscard]] Values arcLengths() const;
    [[nodiscard]] Values tangents() const;
    /// The length of the longest curve; 0 without any. Computed by each call.
    [[nodiscard]] double greatestLength() const;

    /// Writes points, curves and all values as a VTK file (.vtp). Failure: FileError, see `writeVtk`.
    void write(const std::filesystem::path& file, const VtkOptions& options = {}) const;

    /// The model's grid.
    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept;

private:
    struct Data;
    std::shared_ptr<const Data> myData;
};

} // namespace Vantle
