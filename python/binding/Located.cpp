#include "Classes.hpp"

namespace VantlePython {

using Vantle::Located;

namespace {

py::object sample(const LocatedObject& self, const std::string& field, double outside, bool isMasked,
                  const py::object& progress) {
    const Located located = self.value;
    const Vantle::Samples samples =
        run(progress, [&](const Vantle::Progress& tell) { return located.sample(field, outside, tell); });
    std::vector<py::ssize_t> shape = self.shape;
    for (int c = samples.components(); c > 1; c /= 3) shape.push_back(3);
    const py::object values = viewOf(samples.array(), true).attr("reshape")(shape);
    if (!isMasked) return values;
    const std::span<const unsigned char> found = samples.mask();
    py::array_t<bool> mask(static_cast<py::ssize_t>(found.size()));
    for (std::size_t k = 0; k < found.size(); ++k) mask.mutable_data()[k] = found[k] == 0;
    py::object all = mask.attr("reshape")(self.shape);
    const py::module_ numpy = py::module_::import("numpy");
    for (int c = samples.components(); c > 1; c /= 3) all = numpy.attr("expand_dims")(all, -1);
    return numpy.attr("ma").attr("MaskedArray")(values, numpy.attr("broadcast_to")(all, shape).attr("copy")());
}

/// A view of what a located object has, which it keeps alive.
template<class T>
py::object view(const py::object& self, std::span<const T> elements) {
    const auto& located = self.cast<const LocatedObject&>();
    using Number = typename Vantle::ElementTraits<T>::component_type;
    constexpr int Components = Vantle::ElementTraits<T>::components;
    std::vector<py::ssize_t> shape = located.shape;
    if (Components > 1) shape.push_back(Components);
    py::array made(py::dtype::of<Number>(), shape, elements.data(), self);
    made.attr("setflags")(py::arg("write") = false);
    return made;
}

} // namespace

void defineLocated(py::module_& module) {
    py::class_<LocatedObject, Held<LocatedObject>>(module, "Located",
                                                   R"doc(Where positions are in the blocks of a data set.

Keeps the data set, as it was, alive. Arrays have the shape of the positions without its last axis.)doc")
        .def("__len__", [](const LocatedObject& self) { return self.value.size(); })
        .def_property_readonly(
            "found",
            [](const py::object& self) {
                const py::object blocks = view(self, self.cast<const LocatedObject&>().value.blocks());
                return blocks.attr("__ne__")(py::int_(Located::Nowhere));
            },
            "Booleans: whether a block has the position.")
        .def_property_readonly(
            "blocks",
            [](const py::object& self) { return view(self, self.cast<const LocatedObject&>().value.blocks()); },
            "Numbers of blocks, uint32, in the order of `DataSet.blocks`; 0xffffffff where there is none.")
        .def_property_readonly(
            "places",
            [](const py::object& self) { return view(self, self.cast<const LocatedObject&>().value.places()); },
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
