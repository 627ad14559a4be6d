#include "Classes.hpp"

#include <algorithm>

namespace VantlePython {

using Vantle::DataSet;
using Vantle::Progress;

namespace {

std::vector<SurfaceObject> contours(const DataSetObject& self, const std::string& field,
                                    const std::vector<double>& levels, const std::optional<Names>& values,
                                    bool hasNormals, const py::object& progress) {
    const DataSet data = self.value;
    std::vector<SurfaceObject> all;
    for (Vantle::Surface& surface : run(progress, [&](const Progress& tell) {
             return data.contours(field, levels, {.values = listOf(values), .normals = hasNormals, .progress = tell});
         }))
        all.push_back({std::move(surface)});
    return all;
}

/// A number, which may be an array without axes as values at one position are, or several.
std::vector<double> levelsOf(const py::object& given) {
    try {
        if (py::isinstance<py::array>(given) && py::reinterpret_borrow<py::array>(given).ndim() == 0)
            return {given.cast<double>()};
        const auto level = given.cast<std::variant<double, std::vector<double>>>();
        const auto* const one = std::get_if<double>(&level);
        return one ? std::vector<double>{*one} : std::get<1>(level);
    } catch (const py::cast_error&) {
        throw py::type_error("contour: level: expected a number or several, got " + std::string(py::repr(given)));
    }
}

SurfaceObject contour(const DataSetObject& self, const std::string& field, const py::object& level,
                      const std::optional<Names>& values, bool hasNormals, const py::object& progress) {
    std::vector<Vantle::Surface> all;
    for (SurfaceObject& surface : contours(self, field, levelsOf(level), values, hasNormals, progress))
        all.push_back(std::move(surface.value));
    return {run([&] { return Vantle::Surface::together(all); })};
}

SurfaceObject slice(const DataSetObject& self, const Normal& normal, double at,
                    const std::optional<std::array<double, 3>>& origin, const std::optional<std::string>& block,
                    const std::optional<Names>& fields, const py::object& progress) {
    const DataSet data = self.value;
    const auto cut = cutOf(normal, at, origin, block);
    return {run(progress, [&](const Progress& tell) {
        return std::visit([&](const auto& by) { return data.slice(by, listOf(fields), tell); }, cut);
    })};
}

DataSetObject resample(const DataSetObject& self, const std::array<py::ssize_t, 3>& size, const py::object& bounds,
                       const std::optional<Names>& fields, const py::object& progress) {
    const DataSet data = self.value;
    std::vector<std::string> names = listOf(fields);
    if (!fields)
        for (const Vantle::FieldInfo& info : data.fields()) names.push_back(info.name);
    return {run(progress,
                [&, count = sizeOf(size), box = bounds.is_none() ? std::nullopt : std::optional(boxOf(bounds))](
                    const Progress& tell) { return data.resample(count, box ? *box : data.bounds(), names, tell); })};
}

py::list joins(const DataSet& data, const StrongPtr<const Vantle::BlockJoins>& joins) {
    std::vector<std::string> names;
    for (const Vantle::BlockInfo& block : run([&] { return data.blocks(); })) names.push_back(block.name);
    return joinsOf(joins->joins(), names);
}

void save(const DataSetObject& self, const std::filesystem::path& file, const std::optional<Names>& fields,
          std::optional<bool> isCompressed, const py::object& progress) {
    const DataSet data = self.value;
    run(progress, [&](const Progress& tell) {
        data.write(file, listOf(fields),
                   {.compress = isCompressed.value_or(Vantle::canCompressVtk()), .progress = tell});
    });
}

/// The name of a field derived from another one.
auto derived(std::string (DataSet::*operation)(const std::string&) const) {
    return [operation](const DataSetObject& self, const std::string& field) {
        const DataSet data = self.value;
        return run([&] { return (data.*operation)(field); });
    };
}

py::list edgesOf(const DataSetObject& self, const std::string& block) {
    const Vantle::DataSet flow = self.value;
    py::list lines;
    for (std::vector<Vantle::Point>& line : run([&] { return flow.edges(block); })) {
        const auto count = static_cast<py::ssize_t>(line.size());
        lines.append(arrayOf(std::move(line), {count, 3}));
    }
    return lines;
}

} // namespace

void defineQueries(DataSetClass& dataSet) {
    dataSet
        .def_property_readonly(
            "time", [](const DataSetObject& self) { return self.value.time(); }, "The time that it looks at.")
        .def_property_readonly(
            "times", [](const DataSetObject& self) { return self.value.times(); }, "All times, ascending.")
        .def(
            "at_time", [](const DataSetObject& self, double time) { return DataSetObject{self.value.atTime(time)}; },
            py::arg("time"), "The same data set looking at the last time that is not after this one.")
        .def_property_readonly(
            "fields", [](const DataSetObject& self) { return fieldsOf(self.value.fields()); },
            "What is known of the fields that were set, by name, sorted.")
        .def_property_readonly(
            "bounds",
            [](const DataSetObject& self) {
                const DataSet data = self.value;
                return arrayOf(run(py::none(), [&](const Progress& tell) { return data.bounds(tell); }));
            },
            "The box around all valid vertices, ((x, y, z), (x, y, z)), shape (2, 3); NaN when there are none.")
        .def(
            "range",
            [](const DataSetObject& self, const std::string& field, const py::object& progress) {
                const DataSet data = self.value;
                const auto range = run(progress, [&](const Progress& tell) { return data.range(field, tell); });
                return std::pair(range.least, range.greatest);
            },
            py::arg("field"), py::kw_only(), py::arg("progress") = py::none(),
            "Least and greatest number of a scalar at valid vertices; NaN when there are none.")
        .def(
            "known_range",
            [](const DataSetObject& self, const std::string& field) {
                const auto range = self.value.knownRange(field);
                return range ? std::optional(std::pair(range->least, range->greatest)) : std::nullopt;
            },
            py::arg("field"), "The range if it is known by now, else None. Looks at no data.")
        .def_property_readonly(
            "joins",
            [](const DataSetObject& self) {
                const DataSet data = self.value;
                return joins(data, run(py::none(), [&](const Progress& tell) { return data.joins(tell); }));
            },
            "Which faces of which blocks are the same: a list of `Join`.")
        .def_property_readonly(
            "known_joins",
            [](const DataSetObject& self) -> py::object {
                const DataSet data = self.value;
                const auto known = run([&] { return data.knownJoins(); });
                return known ? py::object(joins(data, known)) : py::none();
            },
            "The joins if they are known by now, else None.")
        .def_property_readonly(
            "doubtful_faces",
            [](const DataSetObject& self) {
                const DataSet data = self.value;
                std::vector<std::string> all;
                const auto found = run(py::none(), [&](const Progress& tell) { return data.joins(tell); });
                for (const auto& face : found->doubtful()) all.push_back(face.reason);
                return all;
            },
            "Faces that touch others in ways that are no join: a sentence each.")

        .def("contour", &contour, py::arg("field"), py::arg("level"), py::kw_only(), py::arg("values") = py::none(),
             py::arg("normals") = false, py::arg("progress") = py::none(),
             R"doc(The surface on which a scalar has a value, or one of several values, across all joined blocks.

level    a number or several, in units of the field; outside of the range the surface is empty.
values   names of fields that are wanted at its points.
normals  whether normals are wanted: the direction of the field's gradient.)doc")
        .def("contours", &contours, py::arg("field"), py::arg("levels"), py::kw_only(), py::arg("values") = py::none(),
             py::arg("normals") = false, py::arg("progress") = py::none(), "As `contour`: one surface for each level.")
        .def("slice", &slice, py::arg("normal"), py::arg("at") = 0.0, py::kw_only(), py::arg("origin") = py::none(),
             py::arg("block") = py::none(), py::arg("fields") = py::none(), py::arg("progress") = py::none(),
             R"doc(The cut of all blocks by a plane, or a layer of one block, with the values of fields.

``slice("z", 0.1)``, or by a normal and a point: ``slice((1, 1, 0), origin=(0, 0, 2))``. The vertices of a block that have
an index: ``slice("k", 3, block="wing")``.)doc")
        .def(
            "boundary",
            [](const DataSetObject& self, const std::optional<Names>& fields, const py::object& progress) {
                const DataSet data = self.value;
                return SurfaceObject{
                    run(progress, [&](const Progress& tell) { return data.boundary(listOf(fields), tell); })};
            },
            py::arg("fields") = py::none(), py::kw_only(), py::arg("progress") = py::none(),
            "The outer hull of all blocks: faces that are joined to no other one.")
        .def("edges", &edgesOf, py::arg("block"),
             R"doc(The outline of a block as lines through its vertices, arrays of shape (points, 3).

Four along each axis, those along i first. Where a block is flat, some are the same, or points.)doc")

        .def(
            "locate",
            [](const DataSetObject& self, const py::object& positions, const py::object& progress) {
                const DataSet data = self.value;
                const Positions given(positions);
                return LocatedObject{
                    run(progress, [&](const Progress& tell) { return data.locate(given.points(), tell); }),
                    given.shape};
            },
            py::arg("positions"), py::kw_only(), py::arg("progress") = py::none(),
            "Finds positions, shape (..., 3), exactly. Neighbours in order should be neighbours in space.")
        .def("resample", &resample, py::arg("size"), py::kw_only(), py::arg("bounds") = py::none(),
             py::arg("fields") = py::none(), py::arg("progress") = py::none(),
             R"doc(Fields at (ni, nj, nk) equally spaced vertices that span a box: a data set of one block, "image".

``image["rho"]`` is an array of shape (nk, nj, ni). NaN, and masked, outside of all blocks. By default of the bounds, and
of all fields.)doc")
        .def("gradient", derived(&DataSet::gradient), py::arg("field"),
             "Name of the gradient: of a scalar a vector, of a vector a tensor, [..., m, c] component c along axis m.")
        .def("vorticity", derived(&DataSet::vorticity), py::arg("vector"), "Name of the curl of a vector.")
        .def("divergence", derived(&DataSet::divergence), py::arg("vector"), "Name of the divergence of a vector.")
        .def("q_criterion", derived(&DataSet::qCriterion), py::arg("vector"),
             "Name of half of (rotation - strain), squared norms: above 0 where rotation prevails.")
        .def("magnitude", derived(&DataSet::magnitude), py::arg("vector"), "Name of the length of a vector.")
        .def(
            "threshold",
            [](const DataSetObject& self, const std::string& field, double low, double high) {
                const DataSet data = self.value;
                return DataSetObject{run([&] { return data.threshold(field, low, high); })};
            },
            py::arg("field"), py::arg("low"), py::arg("high") = std::numeric_limits<double>::infinity(),
            "The same data set, blanked where a scalar is not from `low` to `high`.")
        .def("save", &save, py::arg("file"), py::kw_only(), py::arg("fields") = py::none(),
             py::arg("compress") = py::none(), py::arg("progress") = py::none(),
             "Writes VTK files: .vtm, or .vti, .vtr, .vts for one block. By default with all fields that were set.")
        .def(
            "__getitem__",
            [](const DataSetObject& self, const std::string& field) {
                const DataSet data = self.value;
                const auto blocks = run([&] { return data.blocks(); });
                if (blocks.size() != 1)
                    throw py::value_error("a data set of " + std::to_string(blocks.size()) +
                                          " blocks: say of which, .block(name)[\"" + field + "\"]");
                return viewOf(run([&] { return data.array(field, blocks.front().name); }), false);
            },
            py::arg("field"), "Values of a field of a data set of one block: as of the block.")
        .def(
            "__contains__",
            [](const DataSetObject& self, const std::string& field) {
                const auto fields = self.value.fields();
                return std::any_of(fields.begin(), fields.end(), [&](const auto& info) { return info.name == field; });
            },
            py::arg("field"), "Whether there is a field that was set.")
        .def("__repr__", [](const DataSetObject& self) {
            const DataSet data = self.value;
            const auto blocks = run([&] { return data.blocks(); });
            std::string text =
                "<vantle.DataSet: " + std::to_string(blocks.size()) + (blocks.size() == 1 ? " block" : " blocks");
            for (const Vantle::FieldInfo& info : data.fields()) text += ", " + info.name;
            if (data.times().size() > 1) text += ", " + std::to_string(data.times().size()) + " times";
            return text + '>';
        });
}

} // namespace VantlePython
