#pragma once
/// The classes of the module, one a file, and what they hold.

#include "Common.hpp"

namespace VantlePython {

/// A block of a data set, by its name there.
struct BlockObject {
    py::object owner; // the data set
    std::string name;

    [[nodiscard]] Vantle::DataSet& dataSet() const { return owner.cast<DataSetObject&>().value; }
    [[nodiscard]] Vantle::BlockInfo info() const { return info(dataSet()); }
    /// The same in a data set as it was then.
    [[nodiscard]] Vantle::BlockInfo info(const Vantle::DataSet& then) const;
};

/// Positions that were located, and the shape of the array that they came in.
struct LocatedObject {
    Vantle::Located value;
    std::vector<py::ssize_t> shape;
};

using DataSetClass = py::class_<DataSetObject, Held<DataSetObject>>;
void defineBlock(py::module_& module);
void defineLocated(py::module_& module);
void defineSurface(py::module_& module);
void defineCurves(py::module_& module);
void defineJoins(py::module_& module);
void defineDataSet(py::module_& module);
/// The part of it that asks.
void defineQueries(DataSetClass& dataSet);

} // namespace VantlePython
