#include "Objects.hpp"

#include <dataset/detail/Request.hpp>

#include <algorithm>

namespace VantlePython {

using Vantle::ParallelDataSet;
using Vantle::ParallelOptions;
using Vantle::Progress;

namespace {

/// A block of any rank.
struct ParallelBlock {
    py::object owner;
    Vantle::ParallelBlockInfo info;
};

/// An image, or a part of one.
struct ParallelImageObject {
    DataSetObject part;
    Vantle::index_t first, layers;
};

ParallelObject objectOf(ParallelDataSet value) {
    return {std::move(value), std::make_shared<std::atomic<bool>>(false)};
}

ParallelOptions optionsOf(double tolerance, std::vector<Vantle::RigidMotion> motions, double periodic,
                          const py::object& budget) {
    ParallelOptions options;
    options.joins = {.tolerance = tolerance, .motions = std::move(motions), .periodicTolerance = periodic};
    if (!budget.is_none()) options.budget = bytesOf(budget);
    return options;
}

ParallelObject make(const py::object& comm, const py::object& local, const py::object& numbers, double tolerance,
                    std::vector<Vantle::RigidMotion> motions, double periodic, const py::object& budget) {
    const ParallelOptions options = optionsOf(tolerance, std::move(motions), periodic, budget);
    const MPI_Comm communicator = communicatorOf(comm);
    // What is this rank's alone, and may be wrong on this rank alone.
    const auto mine = [&](ParallelOptions& all) {
        const Locked locked;
        Vantle::DataSet data;
        const std::exception_ptr failure = failureOf([&] {
            const py::object made = PyCallable_Check(local.ptr()) != 0 ? local() : local;
            if (!py::isinstance<DataSetObject>(made))
                throw py::type_error(std::string("local: expected a DataSet, or a function that makes one, got ") +
                                     Py_TYPE(made.ptr())->tp_name);
            data = made.cast<const DataSetObject&>().value;
            if (!numbers.is_none()) {
                try {
                    for (const py::handle number : numbers) all.numbers.push_back(number.cast<std::uint64_t>());
                } catch (const py::cast_error&) {
                    throw py::type_error("numbers: expected one a block, not below 0");
                }
            }
        });
        if (failure) std::rethrow_exception(failure);
        return data;
    };
    return objectOf(run([&] { return ParallelDataSet(communicator, mine, options); }));
}

ParallelObject readFiles(const py::object& comm, const py::args& given, const py::object& memory, double tolerance,
                         std::vector<Vantle::RigidMotion> motions, double periodic, const py::object& budget,
                         double heatRatio, std::optional<bool> recordMarks, std::optional<bool> multiBlock,
                         std::optional<bool> blanking, const std::optional<std::string>& byteOrder,
                         const std::optional<std::string>& scalar) {
    ParallelOptions options = optionsOf(tolerance, std::move(motions), periodic, budget);
    options.memory = bytesOf(memory);
    const auto files = filesOf(given);
    const auto reading = readOptionsOf(heatRatio, recordMarks, multiBlock, blanking, byteOrder, scalar);
    const MPI_Comm communicator = communicatorOf(comm);
    return objectOf(run([&] { return ParallelDataSet::read(communicator, files, reading, options); }));
}

template<class F>
auto asked(const ParallelObject& self, const F& f) {
    return collectively(self.turn, py::none(), [&](const Progress& tell) { return f(self.value, tell); });
}

ParallelSurfaceObject contour(const ParallelObject& self, const std::string& field, double level,
                              const std::optional<Names>& values, bool hasNormals, const py::object& progress) {
    return {collectively(self.turn, progress,
                         [&](const Progress& tell) {
                             return self.value.contour(
                                 field, level, {.values = listOf(values), .normals = hasNormals, .progress = tell});
                         }),
            self.turn};
}

std::vector<ParallelSurfaceObject> contours(const ParallelObject& self, const std::string& field,
                                            const std::vector<double>& levels, const std::optional<Names>& values,
                                            bool hasNormals, const py::object& progress) {
    std::vector<ParallelSurfaceObject> all;
    for (Vantle::ParallelSurface& surface : collectively(self.turn, progress, [&](const Progress& tell) {
             return self.value.contours(field, levels,
                                        {.values = listOf(values), .normals = hasNormals, .progress = tell});
         }))
        all.push_back({std::move(surface), self.turn});
    return all;
}

ParallelSurfaceObject slice(const ParallelObject& self, const Normal& normal, double at,
                            const std::optional<std::array<double, 3>>& origin, const std::optional<std::string>& block,
                            const std::optional<Names>& fields, const py::object& progress) {
    const auto cut = cutOf(normal, at, origin, block);
    return {collectively(self.turn, progress,
                         [&](const Progress& tell) {
                             return std::visit(
                                 [&](const auto& by) { return self.value.slice(by, listOf(fields), tell); }, cut);
                         }),
            self.turn};
}

ParallelLocatedObject locate(const ParallelObject& self, const py::object& positions, const py::object& progress) {
    std::unique_ptr<const Positions> given;
    const std::exception_ptr wrong = failureOf([&] { given = std::make_unique<Positions>(positions); });
    auto located = collectively(self.turn, progress, [&](const Progress& tell) {
        self.value.attempt([&] {
            if (wrong) std::rethrow_exception(wrong);
        });
        return self.value.locate(given->points(), tell);
    });
    return {std::move(located), given->shape, self.turn};
}

ParallelImageObject resample(const ParallelObject& self, const std::array<py::ssize_t, 3>& size,
                             const py::object& bounds, const std::optional<Names>& fields, std::optional<int> root,
                             const py::object& progress) {
    if (root && (*root < 0 || *root >= self.value.ranks()))
        throw py::value_error("resample: root is rank " + std::to_string(*root) + " of " +
                              std::to_string(self.value.ranks()));
    const Vantle::MultiIndex<3> count = sizeOf(size);
    std::optional<Vantle::Box> box;
    if (!bounds.is_none()) box = boxOf(bounds);
    std::vector<std::string> names = listOf(fields);
    if (!fields)
        for (const Vantle::FieldInfo& info : self.value.fields()) names.push_back(info.name);
    Vantle::ParallelImage image = collectively(self.turn, progress, [&](const Progress& tell) {
        const double before = box ? 0.0 : 0.1; // of what is done for the bounds
        if (!box) box = self.value.bounds([&](double share) { return tell(before * share); });
        return self.value.resample(count, *box, names, root.value_or(-1),
                                   [&](double share) { return tell(before + (1.0 - before) * share); });
    });
    return {{std::move(image.part)}, image.first, image.layers};
}

/// The name of a field derived from another one.
auto derived(std::string (ParallelDataSet::*operation)(const std::string&) const) {
    return [operation](const ParallelObject& self, const std::string& field) {
        return asked(self, [&](const ParallelDataSet& data, const Progress&) { return (data.*operation)(field); });
    };
}

int save(const ParallelObject& self, const std::filesystem::path& file, const std::optional<Names>& fields,
         std::optional<bool> isCompressed, const py::object& progress) {
    return collectively(self.turn, progress, [&](const Progress& tell) {
        self.value.write(file, listOf(fields),
                         {.compress = isCompressed.value_or(Vantle::canCompressVtk()), .progress = tell});
        return 0;
    });
}

py::object valuesIn(const ParallelBlock& self, const std::string& field) {
    const auto& data = self.owner.cast<const ParallelObject&>().value;
    if (self.info.rank != data.rank())
        throw py::value_error("block \"" + self.info.name + "\" is on rank " + std::to_string(self.info.rank) +
                              ", which alone has its values");
    return viewOf(run([&] { return data.array(field, self.info.name); }), false);
}

void defineParts(py::module_& module) {
    py::class_<ParallelBlock>(module, "ParallelBlock", R"doc(A block of any rank.

On the rank that has it, ``block["rho"]`` are the values of a field, read-only, shape (nk, nj, ni) and components. A derived
field must have been named to a collective operation before: ``flow.gradient("rho")``.)doc")
        .def_property_readonly(
            "name", [](const ParallelBlock& self) { return self.info.name; }, "The name of the block.")
        .def_property_readonly(
            "rank", [](const ParallelBlock& self) { return self.info.rank; }, "The rank that has it.")
        .def_property_readonly(
            "number", [](const ParallelBlock& self) { return self.info.number; }, "Its place among all blocks.")
        .def_property_readonly(
            "size", [](const ParallelBlock& self) { return tupleOf(self.info.size); },
            "Numbers of vertices (ni, nj, nk).")
        .def_property_readonly(
            "shape", [](const ParallelBlock& self) { return shapeOf(self.info.size); },
            "Shape of the arrays of the block, (nk, nj, ni).")
        .def_property_readonly(
            "kind", [](const ParallelBlock& self) { return kindName(self.info.kind); },
            "\"uniform\", \"rectilinear\" or \"curvilinear\".")
        .def("__getitem__", &valuesIn, py::arg("field"))
        .def("__repr__", [](const ParallelBlock& self) {
            return "<vantle.ParallelBlock \"" + self.info.name + "\" of rank " + std::to_string(self.info.rank) + ", " +
                   kindName(self.info.kind) + ", " + to_string(self.info.size) + '>';
        });

    py::class_<ParallelImageObject, Held<ParallelImageObject>>(module, "ParallelImage",
                                                               R"doc(This rank's layers of an image that was resampled.

``image["rho"]`` are the values of a field there, shape (layers, nj, ni) and components.)doc")
        .def_property_readonly(
            "part", [](const ParallelImageObject& self) { return self.part; },
            "A `DataSet` of one block, \"image\"; without blocks where a rank has no layer.")
        .def_readonly("first", &ParallelImageObject::first, "Which layer of the image, along k, is the first one here.")
        .def_readonly("layers", &ParallelImageObject::layers, "How many layers are here.")
        .def(
            "__getitem__",
            [](const ParallelImageObject& self, const std::string& field) {
                if (self.layers == 0) throw py::value_error("no layer of the image is on this rank");
                return viewOf(run([&] { return self.part.value.array(field, "image"); }), false);
            },
            py::arg("field"))
        .def("__repr__", [](const ParallelImageObject& self) {
            return "<vantle.ParallelImage: " + std::to_string(self.layers) + " layers from " +
                   std::to_string(self.first) + '>';
        });

    py::class_<Vantle::Traffic>(module, "Traffic", "What a rank has exchanged so far.")
        .def_readonly("rounds", &Vantle::Traffic::rounds, "Exchanges in which all ranks took part.")
        .def_readonly("bytes_sent", &Vantle::Traffic::bytesSent, "To other ranks.")
        .def_readonly("bytes_received", &Vantle::Traffic::bytesReceived, "From other ranks.")
        .def("__repr__", [](const Vantle::Traffic& self) {
            return "<vantle.Traffic: " + std::to_string(self.rounds) + " rounds, " + std::to_string(self.bytesSent) +
                   " bytes sent, " + std::to_string(self.bytesReceived) + " received>";
        });
}

} // namespace

void defineParallelDataSet(py::module_& module) {
    defineParts(module);
    ParallelClass data(module, "ParallelDataSet", R"doc(The blocks of all ranks of a communicator of mpi4py.

``ParallelDataSet(comm, local)``: each rank has blocks of its own, any number, also none, as a `DataSet`. Surfaces, values,
images and ranges are, bit for bit, those of one process with all blocks in the order of their numbers.

Collective are the constructor, whatever takes the name of a field, positions, a file or `progress`, and also `bounds`,
`joins`, `at_time` and `gather`: all ranks call the same, in the same order, with the same names and numbers; positions and
progress are each rank's own. What one rank cannot do, no rank does: all throw, and the text begins with that rank. A rank
whose progress function throws, or is interrupted, gets that exception, and all others `Cancelled`.)doc");
    data.def(py::init(&make), py::arg("comm"), py::arg("local"), py::kw_only(), py::arg("numbers") = py::none(),
             py::arg("tolerance") = 0.0, py::arg("motions") = std::vector<Vantle::RigidMotion>(),
             py::arg("periodic_tolerance") = 1e-3, py::arg("budget") = py::none(),
             R"doc(Collective.

comm                 a communicator of mpi4py, of which a duplicate is used.
local                this rank's blocks: a `DataSet`, taken as it is now; or a function without arguments that makes or
                     reads one: what it throws on one rank, all throw.
numbers              the place of each of these blocks among all: ascending, no two of which are equal on any ranks.
                     None: blocks of rank 0 come first, then those of rank 1 ...
tolerance, motions,  how faces of blocks are joined: see `DataSet.set_joins`; what was set there does not count.
periodic_tolerance
budget               what a rank sends at once: bytes, "256 MiB" (the default).)doc")
        .def_static("read", &readFiles, py::arg("comm"), py::arg("memory") = py::none(), py::arg("tolerance") = 0.0,
                    py::arg("motions") = std::vector<Vantle::RigidMotion>(), py::arg("periodic_tolerance") = 1e-3,
                    py::arg("budget") = py::none(), py::arg("heat_ratio") = 1.4, py::arg("record_marks") = py::none(),
                    py::arg("multi_block") = py::none(), py::arg("blanking") = py::none(),
                    py::arg("byte_order") = py::none(), py::arg("scalar") = py::none(),
                    R"doc(PLOT3D files, as by `read`, of which each rank reads its share of the blocks. Collective.

Blocks are dealt the largest first, each to the rank that has the fewest vertices. All ranks see the files. `memory` is
what a rank keeps of them.)doc")

        .def_property_readonly(
            "rank", [](const ParallelObject& self) { return self.value.rank(); }, "This rank.")
        .def_property_readonly(
            "ranks", [](const ParallelObject& self) { return self.value.ranks(); }, "How many ranks there are.")
        .def_property_readonly(
            "local", [](const ParallelObject& self) { return DataSetObject{self.value.local()}; },
            "The blocks of this rank, a `DataSet` of its own.")
        .def_property_readonly(
            "traffic", [](const ParallelObject& self) { return self.value.traffic(); },
            "What this rank has exchanged by now.")
        .def_property_readonly(
            "time", [](const ParallelObject& self) { return self.value.time(); }, "The time that it looks at.")
        .def_property_readonly(
            "times", [](const ParallelObject& self) { return self.value.times(); }, "All times, ascending.")
        .def(
            "at_time",
            [](const ParallelObject& self, double time) {
                return objectOf(
                    asked(self, [&](const ParallelDataSet& all, const Progress&) { return all.atTime(time); }));
            },
            py::arg("time"), "The same blocks at the last time that is not after this one. Collective.")
        .def(
            "threshold",
            [](const ParallelObject& self, const std::string& field, double low, double high) {
                return objectOf(asked(self, [&](const ParallelDataSet& all, const Progress&) {
                    return all.threshold(field, low, high);
                }));
            },
            py::arg("field"), py::arg("low"), py::arg("high") = std::numeric_limits<double>::infinity(),
            "The same blocks, blanked where a scalar is not from `low` to `high`. Collective.")
        .def_property_readonly(
            "blocks",
            [](const py::object& self) {
                py::dict all;
                for (Vantle::ParallelBlockInfo& info : self.cast<const ParallelObject&>().value.blocks())
                    all[py::str(info.name)] = ParallelBlock{self, info};
                return all;
            },
            "The blocks of all ranks by name, in their order.")
        .def(
            "block",
            [](const py::object& self, const std::string& name) {
                std::vector<std::string> known;
                for (Vantle::ParallelBlockInfo& info : self.cast<const ParallelObject&>().value.blocks()) {
                    if (info.name == name) return ParallelBlock{self, info};
                    known.push_back(info.name);
                }
                throw Vantle::detail::unknownName("block", name, known);
            },
            py::arg("name"), "The block of a name. KeyError lists the names that there are, the nearest first.")
        .def_property_readonly(
            "fields", [](const ParallelObject& self) { return fieldsOf(self.value.fields()); },
            "What is known of the fields of all ranks, by name, sorted.")
        .def_property_readonly(
            "bounds",
            [](const ParallelObject& self) {
                return arrayOf(
                    asked(self, [](const ParallelDataSet& all, const Progress& tell) { return all.bounds(tell); }));
            },
            "The box around all valid vertices, ((x, y, z), (x, y, z)), shape (2, 3); NaN when there are none. "
            "Collective.")
        .def(
            "range",
            [](const ParallelObject& self, const std::string& field, const py::object& progress) {
                const auto range = collectively(self.turn, progress,
                                                [&](const Progress& tell) { return self.value.range(field, tell); });
                return std::pair(range.least, range.greatest);
            },
            py::arg("field"), py::kw_only(), py::arg("progress") = py::none(),
            "Least and greatest number of a scalar at valid vertices; NaN when there are none. Collective.")
        .def_property_readonly(
            "joins",
            [](const ParallelObject& self) {
                const auto found = asked(self, [](const ParallelDataSet& all, const Progress&) { return all.joins(); });
                std::vector<std::string> names;
                for (const Vantle::ParallelBlockInfo& info : self.value.blocks()) names.push_back(info.name);
                return joinsOf(found.joins, names);
            },
            "Which faces of which blocks are the same: a list of `Join`. Collective.")
        .def_property_readonly(
            "doubtful_faces",
            [](const ParallelObject& self) {
                const auto found = asked(self, [](const ParallelDataSet& all, const Progress&) { return all.joins(); });
                std::vector<std::string> all;
                for (const auto& face : found.doubtful) all.push_back(face.reason);
                return all;
            },
            "Faces that touch others in ways that are no join: a sentence each. Collective.")

        .def("contour", &contour, py::arg("field"), py::arg("level"), py::kw_only(), py::arg("values") = py::none(),
             py::arg("normals") = false, py::arg("progress") = py::none(),
             R"doc(The surface on which a scalar has a value, across all joined blocks. Collective.

level    a number, in units of the field; outside of the range the surface is empty.
values   names of fields that are wanted at its points.
normals  whether normals are wanted: the direction of the field's gradient.)doc")
        .def("contours", &contours, py::arg("field"), py::arg("levels"), py::kw_only(), py::arg("values") = py::none(),
             py::arg("normals") = false, py::arg("progress") = py::none(), "As `contour`: one surface for each level.")
        .def("slice", &slice, py::arg("normal"), py::arg("at") = 0.0, py::kw_only(), py::arg("origin") = py::none(),
             py::arg("block") = py::none(), py::arg("fields") = py::none(), py::arg("progress") = py::none(),
             "The cut of all blocks by a plane, or a layer of one block, as by `DataSet.slice`. Collective.")
        .def(
            "boundary",
            [](const ParallelObject& self, const std::optional<Names>& fields, const py::object& progress) {
                return ParallelSurfaceObject{
                    collectively(self.turn, progress,
                                 [&](const Progress& tell) { return self.value.boundary(listOf(fields), tell); }),
                    self.turn};
            },
            py::arg("fields") = py::none(), py::kw_only(), py::arg("progress") = py::none(),
            "The outer hull of all blocks: faces that are joined to no other one. Collective.")

        .def(
            "locate", &locate, py::arg("positions"), py::kw_only(), py::arg("progress") = py::none(),
            R"doc(Finds this rank's positions, shape (..., 3), any number, in the blocks of all ranks, exactly. Collective.

Neighbours in order should be neighbours in space.)doc")
        .def("resample", &resample, py::arg("size"), py::kw_only(), py::arg("bounds") = py::none(),
             py::arg("fields") = py::none(), py::arg("root") = py::none(), py::arg("progress") = py::none(),
             R"doc(Fields at (ni, nj, nk) equally spaced vertices that span a box. Collective.

Each rank has some of the layers along k; with `root`, that rank has all. NaN, and masked, outside of all blocks. By
default of the bounds, and of all fields.)doc")
        .def("gradient", derived(&ParallelDataSet::gradient), py::arg("field"),
             "Name of the gradient, as by `DataSet.gradient`, across the joins of ranks. Computed now. Collective.")
        .def("vorticity", derived(&ParallelDataSet::vorticity), py::arg("vector"),
             "Name of the curl of a vector. Collective.")
        .def("divergence", derived(&ParallelDataSet::divergence), py::arg("vector"),
             "Name of the divergence of a vector. Collective.")
        .def("q_criterion", derived(&ParallelDataSet::qCriterion), py::arg("vector"),
             "Name of half of (rotation - strain), squared norms: above 0 where rotation prevails. Collective.")
        .def("magnitude", derived(&ParallelDataSet::magnitude), py::arg("vector"),
             "Name of the length of a vector. Collective.")
        .def(
            "save",
            [](const ParallelObject& self, const std::filesystem::path& file, const std::optional<Names>& fields,
               std::optional<bool> isCompressed,
               const py::object& progress) { (void)save(self, file, fields, isCompressed, progress); },
            py::arg("file"), py::kw_only(), py::arg("fields") = py::none(), py::arg("compress") = py::none(),
            py::arg("progress") = py::none(),
            R"doc(Writes a .vtm file that names the blocks of all ranks, which each rank writes beside it. Collective.

By default with all fields that were set.)doc")
        .def(
            "__contains__",
            [](const ParallelObject& self, const std::string& field) {
                const auto& fields = self.value.fields();
                return std::any_of(fields.begin(), fields.end(), [&](const auto& info) { return info.name == field; });
            },
            py::arg("field"), "Whether there is a field that was set.")
        .def("__repr__", [](const ParallelObject& self) {
            const auto& all = self.value;
            const auto blocks = all.blocks();
            const auto here = std::count_if(blocks.begin(), blocks.end(),
                                            [&](const auto& block) { return block.rank == all.rank(); });
            std::string text = "<vantle.ParallelDataSet: rank " + std::to_string(all.rank()) + " of " +
                               std::to_string(all.ranks()) + ", " + std::to_string(blocks.size()) + " blocks, " +
                               std::to_string(here) + " of them here";
            for (const Vantle::FieldInfo& info : all.fields()) text += ", " + info.name;
            return text + '>';
        });
}

} // namespace VantlePython
