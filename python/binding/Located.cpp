#include "Classes.hpp"

namespace VantlePython {

using Vantle::Located;

namespace {

py::object sample(const LocatedObject& self, const std::string& field, double outside, bool isMasked,
                  const py::object& progress) {
    const Located located = self.value;
    const Vantle::Samples samples =
        run(progress, [&](const Vantle::Progress& tell) { return located.sample(field, outside, tell); });
    return valuesOf(samples, self.shape, isMasked);
}

py::object blocksOf(const py::object& self) {
    const auto& located = self.cast<const LocatedObject&>();
    return viewWithin(self, located.value.blocks(), located.shape);
}

} // namespace

void defineLocated(py::module_& module) {
    py::class_<LocatedObject, Held<LocatedObject>>(module, "Located",
                                                   R"doc(Where positions are in the blocks of a data set.

Keeps the data set, as it was, alive. Arrays have the shape of the positions without its last axis.)doc")
        .def("__len__", [](const LocatedObject& self) { return self.value.size(); })
        .def_property_readonly(
            "found", [](const py::object& self) { return blocksOf(self).attr("__ne__")(py::int_(Located::Nowhere)); },
            "Booleans: whether a block has the position.")
        .def_property_readonly(
            "blocks", [](const py::object& self) { return blocksOf(self); },
            "Numbers of blocks, uint32, in the order of `DataSet.blocks`; 0xffffffff where there is none.")
        .def_property_readonly(
            "places",
            [](const py::object& self) {
                return viewWithin(self, self.cast<const LocatedObject&>().value.places(),
                                  self.cast<const LocatedObject&>().shape);
            },
            "Local coordinates (i, j, k) in the block, shape (..., 3): vertex [k, j, i] is at (i, j, k); NaN outside.")
        .def("sample", &sample, py::arg("field"), py::kw_only(),
             py::arg("outside") = std::numeric_limits<double>::quiet_NaN(), py::arg("masked") = false,
             py::arg("progress") = py::none(),
             R"doc(Values of a field at the positions, interpolated, in units of the field.

Shape as of the positions; (..., 3) of vectors, (..., 3, 3) of tensors. `outside` where there is no block, or no
value; with ``masked=True`` a masked array. `progress`: see `vantle`.)doc")
        .def(
            "at_time",
            [](const LocatedObject& self, double time) {
                const Located located = self.value;
                return LocatedObject{run([&] { return located.atTime(time); }), self.shape};
            },
            py::arg("time"), "The same positions at another time. ValueError when blocks have moved until then.")
        .def("__repr__", [](const LocatedObject& self) {
            return "<vantle.Located: " + std::to_string(self.value.found()) + " of " +
                   std::to_string(self.value.size()) + " positions found>";
        });
}

} // namespace VantlePython
