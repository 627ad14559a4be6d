#pragma once

/// Writes VTK XML files: triangle surfaces (.vtp), uniform images (.vti) and curvilinear blocks (.vts).
///
/// All are version 1.0 files in little-endian appended raw encoding with 64-bit headers, coordinates and values in
/// float64, so that nothing is rounded. An AtomicFile takes care that nothing half-written is left behind.
///
/// Shape        one value per point, in the order of the points; for images and blocks i runs fastest.
/// Empty        a surface without points or triangles is written as such, and opens.
/// Failure      FileError when the file cannot be written; std::invalid_argument when sizes do not agree or a triangle
///              names a point that is not there, before anything is written.

#include "io/Geometry.hpp"

#include <filesystem>
#include <span>
#include <string>
#include <variant>

namespace tour {

/// Values on points: one number each, or one vector each. Views them: they must live until the file is written.
struct VtkArray {
    std::string name;
    std::variant<std::span<const double>, std::span<const Point3>> values;
};

struct VtkImage {
    Extents extents{}; ///< Numbers of points.
    Point3 origin{};
    Point3 spacing{};
};

void writeVtp(const std::filesystem::path& file, std::span<const Point3> points, std::span<const Triangle> triangles,
              std::span<const VtkArray> arrays = {});

void writeVti(const std::filesystem::path& file, const VtkImage& image, std::span<const VtkArray> arrays);

void writeVts(const std::filesystem::path& file, const Extents& extents, std::span<const Point3> points,
              std::span<const VtkArray> arrays = {});

} // namespace tour
