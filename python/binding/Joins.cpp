#include "Classes.hpp"

namespace VantlePython {

using Vantle::RigidMotion;

void defineJoins(py::module_& module) {
    using Corner = std::array<double, 3>;
    const auto point = [](const Corner& p) { return RigidMotion::point(p[0], p[1], p[2]); };
    const auto vector = [](const Corner& v) { return RigidMotion::vector(v[0], v[1], v[2]); };
    py::class_<RigidMotion>(module, "Motion", "A motion that takes one end of a periodic domain to the other.")
        .def_static(
            "translation", [vector](const Corner& by) { return RigidMotion::translation(vector(by)); }, py::arg("by"),
            "By a vector, in units of the positions.")
        .def_static(
            "rotation",
            [point, vector](const Corner& center, const Corner& axis, double angle) {
                return RigidMotion::rotation(point(center), vector(axis), angle);
            },
            py::arg("center"), py::arg("axis"), py::arg("angle"), "About an axis, right-handed, in radians.");
}

} // namespace VantlePython
