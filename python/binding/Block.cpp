#include "Classes.hpp"

namespace VantlePython {

using Vantle::DataSet;

Vantle::BlockInfo BlockObject::info(const DataSet& then) const {
    return run([&, data = then] { return data.block(name).blocks().front(); }); // by itself: others take no time
}

namespace {

/// What becomes of an array of Python, or of a function that makes one.
void setField(const BlockObject& self, const std::string& field, const py::object& values, bool isCopied) {
    const Vantle::MultiIndex<3> size = self.info().size;
    const std::string what = "field \"" + field + "\" of block \"" + self.name + '"';
    const bool isFunction = PyCallable_Check(values.ptr()) != 0;
    DataSet& data = self.dataSet();
    if (isFunction)
        data.setField(field, self.name, makeLater(values, Use::Values, size, isCopied, what, data.cache()));
    else
        data.setField(field, self.name, adopt(values, Use::Values, size, isCopied, what));
    giveBack();
}

py::object field(const BlockObject& self, const std::string& name) {
    const DataSet data = self.dataSet();
    return viewOf(run([&] { return data.array(name, self.name); }), false);
}

py::object points(const BlockObject& self) {
    const DataSet data = self.dataSet();
    const StrongPtr<Vantle::MemBase> array = run([&] { return data.positionArray(self.name); });
    const py::object view = viewOf(array, false);
    if (!view.is_none()) return view;
    const Vantle::MultiIndex<3> size = self.info(data).size; // computed coordinates
    py::array made = arrayOf(run([&] { return data.positions(self.name); }),
                             {py::ssize_t(size[2]), py::ssize_t(size[1]), py::ssize_t(size[0]), 3});
    made.attr("setflags")(py::arg("write") = false);
    return made;
}

template<class Ask>
py::object mask(const BlockObject& self, const Ask& ask) {
    const DataSet data = self.dataSet();
    const StrongPtr<Vantle::MemBase> array = run([&] { return ask(data, self.name); });
    return array ? py::object(viewOf(array, false).attr("astype")("bool")) : py::none();
}

} // namespace

void defineBlock(py::module_& module) {
    py::class_<BlockObject>(module, "Block", R"doc(A block of a data set.

``block["rho"]`` are the values of a field at its vertices, ``block["rho"] = array`` sets them. What is set is an array
of shape (nk, nj, ni), of vectors (nk, nj, ni, 3), in C order, which is shared and kept alive; or a function without
arguments that makes such an array when it is first needed, and again after it was dropped for want of memory.)doc")
        .def_readonly("name", &BlockObject::name, "The name of the block.")
        .def_readonly("data_set", &BlockObject::owner, "The data set that it is a block of.")
        .def_property_readonly(
            "size", [](const BlockObject& self) { return tupleOf(self.info().size); },
            "Numbers of vertices (ni, nj, nk).")
        .def_property_readonly(
            "shape", [](const BlockObject& self) { return shapeOf(self.info().size); },
            "Shape of the arrays of the block, (nk, nj, ni).")
        .def_property_readonly(
            "kind", [](const BlockObject& self) { return kindName(self.info().kind); },
            "\"uniform\", \"rectilinear\" or \"curvilinear\".")
        .def_property_readonly("points", &points,
                               "Positions of the vertices, shape (nk, nj, ni, 3), read-only; shared if curvilinear.")
        .def_property_readonly(
            "axes",
            [](const BlockObject& self) {
                const DataSet data = self.dataSet();
                auto axes = run([&] { return data.axes(self.name); });
                const auto array = [](std::vector<double>& axis) {
                    const auto count = static_cast<py::ssize_t>(axis.size());
                    return arrayOf(std::move(axis), {count});
                };
                return py::make_tuple(array(axes[0]), array(axes[1]), array(axes[2]));
            },
            "Coordinates along x, y and z of a uniform or rectilinear block; ValueError for others.")
        .def_property(
            "valid",
            [](const BlockObject& self) {
                return mask(self, [](const DataSet& data, const std::string& name) { return data.vertexMask(name); });
            },
            [](const BlockObject& self, const py::object& valid) {
                self.dataSet().setVertexMask(self.name, valid.is_none()
                                                            ? StrongPtr<Vantle::MemBase>()
                                                            : adopt(valid, Use::Mask, self.info().size, false,
                                                                    "mask of block \"" + self.name + '"'));
                giveBack();
            },
            "Which vertices are valid, booleans of shape (nk, nj, ni), or None for all. What is set may be of any "
            "integers, not zero is valid, and is shared.")
        .def_property(
            "valid_cells",
            [](const BlockObject& self) {
                return mask(self, [](const DataSet& data, const std::string& name) { return data.cellMask(name); });
            },
            [](const BlockObject& self, const py::object& valid) {
                self.dataSet().setCellMask(self.name, valid.is_none()
                                                          ? StrongPtr<Vantle::MemBase>()
                                                          : adopt(valid, Use::Mask, std::nullopt, false,
                                                                  "cell mask of block \"" + self.name + '"'));
                giveBack();
            },
            "Which cells are valid, as `valid`; shape (nk - 1, nj - 1, ni - 1), axes of one vertex keep one cell.")
        .def("set", &setField, py::arg("field"), py::arg("values"), py::kw_only(), py::arg("copy") = false,
             R"doc(Sets a field of the block: ``block[field] = values``.

With ``copy=True`` arrays of any layout and of other types are taken, too, and copied.)doc")
        .def("__getitem__", &field, py::arg("field"),
             "Values of a field, also of a derived one, shape (nk, nj, ni) and components; a read-only view.")
        .def(
            "__contains__",
            [](const BlockObject& self, const std::string& name) {
                const DataSet data = self.dataSet();
                try {
                    return run([&] { return data.hasValues(name, self.name); });
                } catch (const Vantle::UnknownName&) {
                    return false;
                }
            },
            py::arg("field"), "Whether a field has values here.")
        .def(
            "__setitem__",
            [](const BlockObject& self, const std::string& name, const py::object& values) {
                setField(self, name, values, false);
            },
            py::arg("field"), py::arg("values"))
        .def("__repr__", [](const BlockObject& self) {
            const Vantle::BlockInfo info = self.info();
            return "<vantle.Block \"" + info.name + "\", " + kindName(info.kind) + ", " + to_string(info.size) + '>';
        });
}

} // namespace VantlePython
