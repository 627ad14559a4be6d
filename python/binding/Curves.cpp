#include "Classes.hpp"

#include <dataset/Curves.hpp>

namespace VantlePython {

using Vantle::Curves;
using Vantle::MemBase;
using Vantle::VantleTypeIndex;

namespace {

struct CurvesObject {
    Curves value;
};

/// An array over the memory of one of NumPy, or of a copy unless its numbers lie there as float64 in C order.
/// `elementOf` says what elements an array of so many axes has; that of void if none.
template<class F>
StrongPtr<MemBase> listOf(const py::object& given, const F& elementOf, const char* expected) {
    const Numbers array = numbersOf(given);
    const VantleTypeIndex element = array ? elementOf(array) : VantleTypeIndex();
    if (!element) throw py::value_error(expected);
    const Vantle::ForeignMemory memory{.elements = array.size() > 0 ? array.data() : nullptr};
    const Vantle::MultiIndex<1> count(static_cast<Vantle::index_t>(array.shape(0)));
    return Vantle::adopt(element, memory, Vantle::DynamicSize(count), keep(array));
}

Curves curvesOf(const py::object& points, const std::optional<std::vector<Curves::Numbers>>& curves,
                const std::optional<std::vector<Vantle::index_t>>& starts) {
    if (curves && starts) throw py::value_error("either curves or starts");
    const auto ofPoints = [](const Numbers& array) {
        return array.ndim() == 2 && array.shape(1) == 3 ? VantleTypeIndex(typeid(Vantle::Point)) : VantleTypeIndex();
    };
    const StrongPtr<MemBase> list = listOf(points, ofPoints, "points: expected an array of shape (points, 3)");
    if (curves) return Curves(list, StrongPtr<MemBase>(Vantle::makeMemArray1D(*curves)));
    return Curves::consecutive(list, starts ? *starts : std::vector<Vantle::index_t>{0});
}

CurvesObject withValues(const CurvesObject& self, const std::string& name, const py::object& given) {
    const auto ofValues = [](const Numbers& array) -> VantleTypeIndex {
        const auto isOf = [&](std::vector<py::ssize_t> tail) {
            return array.ndim() == static_cast<py::ssize_t>(tail.size()) + 1 &&
                   std::equal(tail.begin(), tail.end(), array.shape() + 1);
        };
        if (isOf({})) return typeid(double);
        if (isOf({3})) return typeid(Vantle::Vector);
        if (isOf({3, 3})) return typeid(Orvix::Quadratic<3, double>);
        return {};
    };
    const Vantle::Values values(
        listOf(given, ofValues, "values: expected an array of shape (points,), (points, 3) or (points, 3, 3)"));
    return {self.value.with(name, values)};
}

py::object computed(const CurvesObject& self, Vantle::Values (Curves::*compute)() const) {
    return viewOf(run([&, curves = self.value] { return (curves.*compute)(); }).array(), true);
}

} // namespace

void defineCurves(py::module_& module) {
    py::class_<CurvesObject, Held<CurvesObject>>(
        module, "Curves",
        R"doc(Curves in space: points, which of them curves pass through, and values at the points.

    path = vantle.Curves(points)                     # one, through all points
    several = vantle.Curves(points, starts=[0, 10])  # points 0 to 9, and those from 10 on
    path = path.with_values("p", flow.locate(path.points).sample("p"))

``path["p"]`` are the values of this name. Never changed; arrays are shared where they are float64 in C order. `len` is
the number of curves.

curves   the numbers of each curve's points, in order; one that is closed ends with the point that it begins with.
starts   instead, the number of the first point of each, where curves pass through points one after the other.

ValueError for a curve through a point that there is not.)doc")
        .def(py::init([](const py::object& points, const std::optional<std::vector<Curves::Numbers>>& curves,
                         const std::optional<std::vector<Vantle::index_t>>& starts) {
                 return CurvesObject{curvesOf(points, curves, starts)};
             }),
             py::arg("points"), py::arg("curves") = py::none(), py::kw_only(), py::arg("starts") = py::none())
        .def("__len__", [](const CurvesObject& self) { return self.value.size(); })
        .def_property_readonly(
            "points",
            [](const py::object& self) {
                const std::span<const Vantle::Point> points = self.cast<const CurvesObject&>().value.points();
                return viewWithin(self, points, {static_cast<py::ssize_t>(points.size())});
            },
            "Shape (points, 3), float64.")
        .def(
            "curve",
            [](const CurvesObject& self, std::size_t number) {
                Curves::Numbers numbers = self.value[number];
                const auto count = static_cast<py::ssize_t>(numbers.size());
                return arrayOf(std::move(numbers), {count});
            },
            py::arg("number"), "The numbers of a curve's points, in order: a copy, uint64. IndexError without it.")
        .def("with_values", &withValues, py::arg("name"), py::arg("values"),
             "The same with values, one for each point, under a name. ValueError for another number of values.")
        .def_property_readonly(
            "names", [](const CurvesObject& self) { return self.value.names(); }, "Names of the values, sorted.")
        .def(
            "arc_lengths", [](const CurvesObject& self) { return computed(self, &Curves::arcLengths); },
            "At each point the length of its curve from the first point on. Computed each time.")
        .def(
            "tangents", [](const CurvesObject& self) { return computed(self, &Curves::tangents); },
            "At each point the unit vector along its curve, shape (points, 3). Computed each time.")
        .def(
            "greatest_length",
            [](const CurvesObject& self) { return run([curves = self.value] { return curves.greatestLength(); }); },
            "The length of the longest curve; 0 without any. Computed each time.")
        .def(
            "save",
            [](const CurvesObject& self, const std::filesystem::path& file, std::optional<bool> isCompressed,
               const py::object& progress) {
                const Curves curves = self.value;
                run(progress, [&](const Vantle::Progress& tell) {
                    curves.write(file, {.compress = isCompressed.value_or(Vantle::canCompressVtk()), .progress = tell});
                });
            },
            py::arg("file"), py::kw_only(), py::arg("compress") = py::none(), py::arg("progress") = py::none(),
            "Writes a VTK file (.vtp) with all values. OSError names the file.")
        .def(
            "__getitem__",
            [](const CurvesObject& self, const std::string& name) {
                return viewOf(self.value.values(name).array(), false);
            },
            py::arg("name"), "Values at the points, float64.")
        .def("__contains__",
             [](const CurvesObject& self, const std::string& name) {
                 const std::vector<std::string> names = self.value.names();
                 return std::find(names.begin(), names.end(), name) != names.end();
             })
        .def("__repr__", [](const CurvesObject& self) {
            std::string text = "<vantle.Curves: " + std::to_string(self.value.size()) + " through " +
                               std::to_string(self.value.points().size()) + " points";
            for (const std::string& name : self.value.names()) text += ", " + name;
            return text + '>';
        });
}

} // namespace VantlePython
