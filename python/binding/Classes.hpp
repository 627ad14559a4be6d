#pragma once
/// The classes of the module, one a file, and what they hold.

#include "Arrays.hpp"

#include <pybind11/stl.h>
#include <variant>

namespace VantlePython {

/// A data set: a value, which operations copy while they have the interpreter lock, and then use without. So others may
/// change it meanwhile.
struct DataSetObject {
    Vantle::DataSet value;
};

/// A block of a data set, by its name there.
struct BlockObject {
    py::object owner; // the data set
    std::string name;

    [[nodiscard]] Vantle::DataSet& dataSet() const { return owner.cast<DataSetObject&>().value; }
    [[nodiscard]] Vantle::BlockInfo info() const;
};

/// Positions that were located, and the shape of the array that they came in.
struct LocatedObject {
    Vantle::Located value;
    std::vector<py::ssize_t> shape;
};

struct SurfaceObject {
    Vantle::Surface value;
};

/// Names of fields: one, or several.
using Names = std::variant<std::string, std::vector<std::string>>;
[[nodiscard]] std::vector<std::string> listOf(const std::optional<Names>& names);

/// "2 GiB", "500 MB", or a number of bytes; None is no limit. Failure: ValueError.
[[nodiscard]] std::size_t bytesOf(const py::object& size);

using DataSetClass = py::class_<DataSetObject, Held<DataSetObject>>;
void defineBlock(py::module_& module);
void defineLocated(py::module_& module);
void defineSurface(py::module_& module);
void defineJoins(py::module_& module);
void defineDataSet(py::module_& module);
/// The part of it that asks.
void defineQueries(DataSetClass& dataSet);

} // namespace VantlePython
