#pragma once
/// Arguments and results that data sets of one process and those over ranks have in common.

#include "Arrays.hpp"

#include <array>
#include <filesystem>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>
#include <string>
#include <variant>
#include <vector>

namespace VantlePython {

/// A data set: a value, which operations copy while they have the interpreter lock, and then use without. So others may
/// change it meanwhile.
struct DataSetObject {
    Vantle::DataSet value;
};

struct SurfaceObject {
    Vantle::Surface value;
};

/// Names of fields: one, or several.
using Names = std::variant<std::string, std::vector<std::string>>;
[[nodiscard]] std::vector<std::string> listOf(const std::optional<Names>& names);

/// "2 GiB", "500 MB", or a number of bytes; None is no limit. Failure: ValueError.
[[nodiscard]] std::size_t bytesOf(const py::object& size);

/// An axis, "x", "y" or "z", and a coordinate; a normal, and a point or else the origin; or, of a block, an axis "i",
/// "j" or "k", and the number of a layer. Failure: ValueError.
using Normal = std::variant<std::string, std::array<double, 3>>;
[[nodiscard]] std::variant<Vantle::Plane, Vantle::IndexPlane> cutOf(const Normal& normal, double at,
                                                                    const std::optional<std::array<double, 3>>& origin,
                                                                    const std::optional<std::string>& block);

[[nodiscard]] std::vector<std::filesystem::path> filesOf(const py::args& given);
/// What is known of the form of files. Failure: ValueError.
[[nodiscard]] Vantle::ReadOptions readOptionsOf(double heatRatio, std::optional<bool> recordMarks,
                                                std::optional<bool> multiBlock, std::optional<bool> blanking,
                                                const std::optional<std::string>& byteOrder,
                                                const std::optional<std::string>& scalar);

[[nodiscard]] const char* kindName(Vantle::BlockKind kind);

/// What is known of fields, by name.
[[nodiscard]] py::dict fieldsOf(const std::vector<Vantle::FieldInfo>& fields);

/// A list of `vantle.Join`; `names` are those of the blocks.
[[nodiscard]] py::list joinsOf(const std::vector<Vantle::BlockJoin>& joins, const std::vector<std::string>& names);

/// Values at positions of an array of this shape, masked where nothing was found if that is wanted.
[[nodiscard]] py::object valuesOf(const Vantle::Samples& samples, std::vector<py::ssize_t> shape, bool isMasked);

/// A read-only view of elements that an object of Python has, which it keeps alive.
template<class T>
py::object viewWithin(const py::object& owner, std::span<const T> elements, std::vector<py::ssize_t> shape) {
    using Number = typename Vantle::ElementTraits<T>::component_type;
    constexpr int Components = Vantle::ElementTraits<T>::components;
    if (Components > 1) shape.push_back(Components);
    py::array made(py::dtype::of<Number>(), std::move(shape), elements.data(), owner);
    made.attr("setflags")(py::arg("write") = false);
    return made;
}

} // namespace VantlePython
