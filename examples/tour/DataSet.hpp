#pragma once

/// The flow that the tour walks over, whatever it comes from.

#include "Options.hpp"
#include "io/Picture.hpp"

#include <model/Model.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tour {

using Gradient = Orvix::Quadratic<3, double>; ///< Row m holds the derivatives of all components along axis m.
using Space = Orvix::PhysicalSpace;

/// A triangulated surface, ready for files and pictures.
struct Mesh {
    std::vector<Point3> points;
    std::vector<Triangle> triangles;
};

/// What is known exactly of a flow.
struct ExactFlow {
    std::function<double(const std::string& scalar, const Space::point&)> scalar;
    std::function<Gradient(const Space::point&)> velocityGradient;
    /// Whether a position lies in one of the blocks, whose cells have straight edges.
    std::function<bool(const Space::point&)> isInside;
};

/// One time, one grid of curvilinear blocks, its fields.
struct DataSet {
    std::string title;
    std::vector<std::string> remarks; ///< Lines about what was read, and how.

    Vantle::BundlePtr bundle;
    Hestra::StrongPtr<Vantle::Slice> slice;
    Vantle::RegularGrid3D grid; ///< With a mask where vertices do not count.

    std::vector<std::string> scalars; ///< Names of the scalar fields.
    std::string field;                ///< The one to look at.
    ValueRange range;                 ///< Of its values.
    std::optional<double> level;      ///< The value of its isosurface; by default in the middle of its range.
    std::string colourField;          ///< The scalar that colours the isosurface.
    bool hasVelocity = false;         ///< Whether there is the vector field "velocity".

    std::optional<ExactFlow> exact;
    /// The same flow on blocks with twice as many cells along each axis, where it is known exactly.
    std::function<DataSet()> refined;

    std::vector<Mesh> walls;                        ///< Where there are bodies in the flow.
    SurfaceView view;                               ///< From where the surface is looked at.
    std::vector<std::vector<Point2>> sliceOutlines; ///< Borders of the blocks in a slice normal to z.
};

inline constexpr const char* kVelocity = "velocity";

/// Reads the files that the options name, or makes the flow past a cylinder.
///
/// Unless the options name a field, it is one that is not constant, if there is one; the surface is coloured by
/// another. Failure      FileError; UsageError for a field that there is not.
DataSet makeDataSet(const Options& options);

} // namespace tour
