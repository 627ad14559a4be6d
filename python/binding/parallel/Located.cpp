#include "Objects.hpp"

namespace VantlePython {

namespace {

py::object blocksOf(const py::object& self) {
    const auto& located = self.cast<const ParallelLocatedObject&>();
    return viewWithin(self, located.value.blocks(), located.shape);
}

} // namespace

void defineParallelLocated(py::module_& module) {
    py::class_<ParallelLocatedObject, Held<ParallelLocatedObject>>(
        module, "ParallelLocated",
        R"doc(Where positions of this rank are in the blocks of all ranks.

Keeps the data set alive. Arrays have the shape of the positions without its last axis.)doc")
        .def("__len__", [](const ParallelLocatedObject& self) { return self.value.size(); })
        .def_property_readonly(
            "found",
            [](const py::object& self) {
                return blocksOf(self).attr("__ne__")(py::int_(Vantle::ParallelLocated::Nowhere));
            },
            "Booleans: whether a block has the position.")
        .def_property_readonly(
            "blocks", &blocksOf,
            "Numbers of blocks, uint32, in the order of `ParallelDataSet.blocks`; 0xffffffff where there is none.")
        .def_property_readonly(
            "places",
            [](const py::object& self) {
                const auto& located = self.cast<const ParallelLocatedObject&>();
                return viewWithin(self, located.value.places(), located.shape);
            },
            "Local coordinates (i, j, k) in the block, shape (..., 3): vertex [k, j, i] is at (i, j, k); NaN outside.")
        .def(
            "sample",
            [](const ParallelLocatedObject& self, const std::string& field, double outside, bool isMasked,
               const py::object& progress) {
                return valuesOf(
                    collectively(self.turn, progress,
                                 [&](const Vantle::Progress& tell) { return self.value.sample(field, outside, tell); }),
                    self.shape, isMasked);
            },
            py::arg("field"), py::kw_only(), py::arg("outside") = std::numeric_limits<double>::quiet_NaN(),
            py::arg("masked") = false, py::arg("progress") = py::none(),
            "Values of a field at this rank's positions, as by `Located.sample`. Collective.")
        .def("__repr__", [](const ParallelLocatedObject& self) {
            return "<vantle.ParallelLocated: " + std::to_string(self.value.found()) + " of " +
                   std::to_string(self.value.size()) + " positions of this rank found>";
        });
}

} // namespace VantlePython
