#include "Classes.hpp"

namespace VantlePython {

using Vantle::Surface;

namespace {

py::object values(const SurfaceObject& self, const std::string& name) {
    return viewOf(self.value.values(name).array(), true);
}

void save(const SurfaceObject& self, const std::filesystem::path& file, std::optional<bool> isCompressed,
          const py::object& progress) {
    const Surface surface = self.value;
    run(progress, [&](const Vantle::Progress& tell) {
        surface.write(file, {.compress = isCompressed.value_or(Vantle::canCompressVtk()), .progress = tell});
    });
}

} // namespace

void defineSurface(py::module_& module) {
    py::class_<SurfaceObject, Held<SurfaceObject>>(module, "Surface",
                                                   R"doc(A surface of triangles, and values at its points.

``surface["mach"]`` are the values of this name, shape (points,) or (points, 3). Arrays are views of the surface's
memory, which they keep alive. Without any surface, an empty one.)doc")
        .def(py::init([] { return SurfaceObject{}; }))
        .def_property_readonly(
            "points", [](const SurfaceObject& self) { return viewOf(self.value.pointArray(), true); },
            "Shape (points, 3), float64, in units of the positions.")
        .def_property_readonly(
            "triangles", [](const SurfaceObject& self) { return viewOf(self.value.triangleArray(), true); },
            "Shape (triangles, 3), uint32: which points are the corners.")
        .def_property_readonly(
            "names", [](const SurfaceObject& self) { return self.value.names(); }, "Names of the values, sorted.")
        .def_property_readonly(
            "normals", [](const SurfaceObject& self) { return values(self, Surface::NormalsName); },
            "Of length 1, towards greater values, shape (points, 3); KeyError unless they were asked for.")
        .def_property_readonly(
            "is_empty", [](const SurfaceObject& self) { return self.value.isEmpty(); }, "Whether there is no triangle.")
        .def_property_readonly(
            "is_closed",
            [](const SurfaceObject& self) {
                const Surface surface = self.value;
                return run([&] { return surface.isClosed(); });
            },
            "Whether there is no border, and all triangles show the same side. Counted each time.")
        .def_property_readonly(
            "border_edges",
            [](const SurfaceObject& self) {
                const Surface surface = self.value;
                return run([&] { return surface.borderEdges(); });
            },
            "How many sides of triangles have no other one that runs the opposite way. Counted each time.")
        .def("save", &save, py::arg("file"), py::kw_only(), py::arg("compress") = py::none(),
             py::arg("progress") = py::none(), "Writes a VTK file (.vtp) with all values. OSError names the file.")
        .def("__getitem__", &values, py::arg("name"), "Values at the points, float64.")
        .def("__contains__",
             [](const SurfaceObject& self, const std::string& name) {
                 const std::vector<std::string> names = self.value.names();
                 return std::find(names.begin(), names.end(), name) != names.end();
             })
        .def("__repr__", [](const SurfaceObject& self) {
            std::string text = "<vantle.Surface: " + std::to_string(self.value.points().size()) + " points, " +
                               std::to_string(self.value.triangles().size()) + " triangles";
            for (const std::string& name : self.value.names()) text += ", " + name;
            return text + '>';
        });
}

} // namespace VantlePython
