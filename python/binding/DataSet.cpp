#include "Classes.hpp"

namespace VantlePython {

using Vantle::DataSet;
using Vantle::MultiIndex;

namespace {

BlockObject blockOf(const py::object& self, const std::string& name) { return {self, name}; }

std::vector<double> listOf(const py::object& axis) {
    const Numbers numbers = numbersOf(axis);
    if (!numbers || numbers.ndim() != 1)
        throw py::value_error("coordinates along an axis: expected a list of numbers, got " +
                              std::string(py::repr(axis)));
    return {numbers.data(), numbers.data() + numbers.size()};
}

/// Adds a block of this size as `add` says, and its masks: all or nothing, which takes a copy where there are masks.
/// From there on nothing of Python is called, so that no other thread can change the data set meanwhile.
template<class Add>
BlockObject addBlock(const py::object& self, const std::string& name, const MultiIndex<3>& size,
                     const py::object& valid, const py::object& validCells, bool isCopied, const Add& add) {
    StrongPtr<Vantle::MemBase> vertices, cells;
    if (!valid.is_none()) vertices = adopt(valid, Use::Mask, size, isCopied, "mask of block \"" + name + '"');
    if (!validCells.is_none())
        cells = adopt(validCells, Use::Mask, std::nullopt, isCopied, "cell mask of block \"" + name + '"');
    DataSet& own = self.cast<DataSetObject&>().value;
    if (vertices || cells) {
        DataSet changed = own;
        add(changed);
        if (vertices) changed.setVertexMask(name, vertices);
        if (cells) changed.setCellMask(name, cells);
        own = std::move(changed);
    } else {
        add(own);
    }
    giveBack();
    return {self, name};
}

BlockObject addPoints(const py::object& self, const std::string& name, const py::object& points,
                      const py::object& valid, const py::object& validCells, bool isCopied,
                      const std::optional<std::array<py::ssize_t, 3>>& shape) {
    const std::string what = "points of block \"" + name + '"';
    if (PyCallable_Check(points.ptr()) != 0) {
        if (!shape) throw py::value_error(what + ": a function needs the shape (nk, nj, ni) beside it");
        const MultiIndex<3> size = sizeOf({(*shape)[2], (*shape)[1], (*shape)[0]});
        const auto creator =
            makeLater(points, Use::Points, size, isCopied, what, self.cast<const DataSetObject&>().value.cache());
        return addBlock(self, name, size, valid, validCells, isCopied,
                        [&](DataSet& data) { data.addBlock(name, creator); });
    }
    const StrongPtr<Vantle::MemBase> array = adopt(points, Use::Points, std::nullopt, isCopied, what);
    return addBlock(self, name, *array->getDynamicSize().as<3>(), valid, validCells, isCopied,
                    [&](DataSet& data) { data.addBlock(name, array); });
}

} // namespace

void defineDataSet(py::module_& module) {
    py::class_<Vantle::FieldInfo>(module, "FieldInfo", "What is known of a field.")
        .def_readonly("name", &Vantle::FieldInfo::name)
        .def_readonly("components", &Vantle::FieldInfo::components,
                      "1 of scalars, 3 of vectors, 9 of tensors; 0 while that is not known")
        .def_readonly("blocks", &Vantle::FieldInfo::blocks, "how many blocks have it")
        .def("__repr__", [](const Vantle::FieldInfo& info) {
            const char* const kind = info.components == 1   ? "scalar"
                                     : info.components == 3 ? "vector"
                                     : info.components == 9 ? "tensor"
                                                            : "not known yet";
            return "<" + std::string(kind) + " \"" + info.name + "\" in " + std::to_string(info.blocks) + " blocks>";
        });

    DataSetClass dataSet(module, "DataSet", R"doc(Blocks of vertices, fields on them, at one time or several.

Arrays are those of NumPy, shared, shape (nk, nj, ni) of scalars and (nk, nj, ni, 3) of positions and vectors. A data set
is a value: `copy` costs nothing, and shares all arrays. Any number of threads may ask while others change it: what is
asked is of the data set as it was then.

Names of fields are also "gradient(f)", "vorticity(f)", "divergence(f)", "qCriterion(f)" and "magnitude(f)" of a field f,
which are derived when they are needed. What takes long has an argument `progress`: a function of the share that is done,
which returns False to cancel, or an object like those of tqdm; Ctrl-C ends it, too.)doc");
    dataSet.def(py::init([](double time) { return DataSetObject{DataSet(time)}; }), py::arg("time") = 0.0)
        .def("add_block", &addPoints, py::arg("name"), py::arg("points"), py::kw_only(), py::arg("valid") = py::none(),
             py::arg("valid_cells") = py::none(), py::arg("copy") = false, py::arg("shape") = py::none(),
             R"doc(Adds a block of vertices anywhere in space.

points       (nk, nj, ni, 3), float64 or float32, in C order: i varies fastest. Shared, and kept alive. Or a function that
             makes such an array of float64 when it is needed; then `shape` is (nk, nj, ni).
valid        which vertices are valid, (nk, nj, ni), booleans or integers; None: all.
valid_cells  the same of cells, (nk - 1, nj - 1, ni - 1).
copy         takes arrays of any layout, and of other types, and copies them.)doc")
        .def(
            "add_uniform_block",
            [](const py::object& self, const std::string& name, const std::array<py::ssize_t, 3>& size,
               const py::object& bounds, const py::object& valid, const py::object& cells, bool isCopied) {
                const Vantle::Box box = boxOf(bounds);
                return addBlock(self, name, sizeOf(size), valid, cells, isCopied,
                                [&](DataSet& data) { data.addUniformBlock(name, sizeOf(size), box); });
            },
            py::arg("name"), py::arg("size"), py::arg("bounds"), py::kw_only(), py::arg("valid") = py::none(),
            py::arg("valid_cells") = py::none(), py::arg("copy") = false,
            "Adds a block of (ni, nj, nk) equally spaced vertices, the outer ones on the faces of a box.")
        .def(
            "add_rectilinear_block",
            [](const py::object& self, const std::string& name, const py::object& x, const py::object& y,
               const py::object& z, const py::object& valid, const py::object& cells, bool isCopied) {
                std::vector<double> axes[] = {listOf(x), listOf(y), listOf(z)};
                const MultiIndex<3> size(axes[0].size(), axes[1].size(), axes[2].size());
                return addBlock(self, name, size, valid, cells, isCopied, [&](DataSet& data) {
                    data.addRectilinearBlock(name, std::move(axes[0]), std::move(axes[1]), std::move(axes[2]));
                });
            },
            py::arg("name"), py::arg("x"), py::arg("y"), py::arg("z"), py::kw_only(), py::arg("valid") = py::none(),
            py::arg("valid_cells") = py::none(), py::arg("copy") = false,
            "Adds a block of vertices at all combinations of coordinates, each list ascending or descending.")
        .def(
            "remove_field",
            [](DataSetObject& self, const std::string& field) {
                self.value.removeField(field);
                giveBack();
            },
            py::arg("field"), "Removes a field from all blocks.")
        .def(
            "add_time",
            [](DataSetObject& self, double time, const DataSetObject& step) {
                self.value.addTime(time, step.value);
                giveBack();
            },
            py::arg("time"), py::arg("step"),
            "Adds a time, or replaces it: blocks and fields of `step`. A copy that has other fields shares its blocks.")
        .def(
            "set_joins",
            [](DataSetObject& self, double tolerance, std::vector<Vantle::RigidMotion> motions, double periodic) {
                self.value.setJoinOptions(
                    {.tolerance = tolerance, .motions = std::move(motions), .periodicTolerance = periodic});
                giveBack();
            },
            py::kw_only(), py::arg("tolerance") = 0.0, py::arg("motions") = std::vector<Vantle::RigidMotion>(),
            py::arg("periodic_tolerance") = 1e-3,
            R"doc(How faces of blocks are joined. By default those are that have the same vertices.

tolerance           distance of vertices that are one, in shortest edges of the cells there; 0 to 0.1 is sensible.
motions             `Motion`s that take one end of a periodic domain to the other.
periodic_tolerance  as `tolerance`, after a motion.)doc")
        .def(
            "memory_budget",
            [](DataSetObject& self, const py::object& size) {
                self.value.memoryBudget(bytesOf(size));
                giveBack();
            },
            py::arg("size"),
            "How much is kept of what can be had again, data of files and derived ones: bytes, \"2 GiB\", None.")
        .def(
            "copy", [](const DataSetObject& self) { return self; }, "A data set of its own that shares all arrays.")
        .def("__copy__", [](const DataSetObject& self) { return self; })
        .def(
            "__deepcopy__", [](const DataSetObject& self, const py::object&) { return self; }, py::arg("memo"))
        .def(
            "block",
            [](const py::object& self, const std::string& name) {
                const DataSet data = self.cast<const DataSetObject&>().value;
                run([&] { (void)data.vertexMask(name); }); // an unknown name fails with those that there are
                return blockOf(self, name);
            },
            py::arg("name"), "The block of a name. KeyError lists the names that there are, the nearest first.")
        .def_property_readonly(
            "blocks",
            [](const py::object& self) {
                const DataSet data = self.cast<const DataSetObject&>().value;
                py::dict all;
                for (const Vantle::BlockInfo& info : run([&] { return data.blocks(); }))
                    all[py::str(info.name)] = blockOf(self, info.name);
                return all;
            },
            "The blocks by name, in their order.");
    defineQueries(dataSet);
}

} // namespace VantlePython
