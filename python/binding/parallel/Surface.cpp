#include "Objects.hpp"

namespace VantlePython {

namespace {

int save(const ParallelSurfaceObject& self, const std::filesystem::path& file, std::optional<bool> isCompressed,
         const py::object& progress) {
    return collectively(self.turn, progress, [&](const Vantle::Progress& tell) {
        self.value.write(file, {.compress = isCompressed.value_or(Vantle::canCompressVtk()), .progress = tell});
        return 0;
    });
}

} // namespace

void defineParallelSurface(py::module_& module) {
    py::class_<ParallelSurfaceObject, Held<ParallelSurfaceObject>>(module, "ParallelSurface",
                                                                   R"doc(A surface of which each rank has a piece.

The piece has the triangles of this rank's blocks, and all points that these use. All points have numbers: those that one
process with all blocks gives them.)doc")
        .def_property_readonly(
            "piece", [](const ParallelSurfaceObject& self) { return SurfaceObject{self.value.piece()}; },
            "This rank's piece, with values: a `Surface` like any other.")
        .def_property_readonly(
            "numbers",
            [](const py::object& self) {
                const auto numbers = self.cast<const ParallelSurfaceObject&>().value.numbers();
                return viewWithin(
                    self, std::span(reinterpret_cast<const unsigned long long*>(numbers.data()), numbers.size()),
                    {static_cast<py::ssize_t>(numbers.size())});
            },
            "The numbers of the piece's points among those of all ranks, shape (points,), uint64.")
        .def_property_readonly(
            "is_own",
            [](const py::object& self) {
                const auto own = self.cast<const ParallelSurfaceObject&>().value.isOwn();
                return viewWithin(self, own, {static_cast<py::ssize_t>(own.size())}).attr("view")("bool");
            },
            "Whether they belong to this rank, shape (points,), bool: each point belongs to one.")
        .def_property_readonly(
            "point_count", [](const ParallelSurfaceObject& self) { return self.value.points(); },
            "Points on all ranks, each counted once.")
        .def_property_readonly(
            "triangle_count", [](const ParallelSurfaceObject& self) { return self.value.triangles(); },
            "Triangles on all ranks.")
        .def(
            "gather",
            [](const ParallelSurfaceObject& self, int rank) {
                return SurfaceObject{
                    collectively(self.turn, py::none(), [&](const auto&) { return self.value.gather(rank); })};
            },
            py::arg("rank") = 0,
            "The whole surface on one rank, the bits of one process; an empty one on all others. Collective.")
        .def(
            "save",
            [](const ParallelSurfaceObject& self, const std::filesystem::path& file, std::optional<bool> isCompressed,
               const py::object& progress) { (void)save(self, file, isCompressed, progress); },
            py::arg("file"), py::kw_only(), py::arg("compress") = py::none(), py::arg("progress") = py::none(),
            "Writes the pieces as \"<stem>_<rank>.vtp\", and what names them as .pvtp. Collective.")
        .def("__repr__", [](const ParallelSurfaceObject& self) {
            const Vantle::Surface& piece = self.value.piece();
            std::string text = "<vantle.ParallelSurface: " + std::to_string(self.value.points()) + " points, " +
                               std::to_string(self.value.triangles()) + " triangles, " +
                               std::to_string(piece.triangles().size()) + " of them here";
            for (const std::string& name : piece.names()) text += ", " + name;
            return text + '>';
        });
}

} // namespace VantlePython
