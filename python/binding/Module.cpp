#include "Classes.hpp"

#include <baseop/Threads.hpp>
#include <model/Version.hpp>

namespace VantlePython {

namespace {

/// As many threads as wanted between `__enter__` and `__exit__`, however often one within the other.
class Threads {
public:
    explicit Threads(int count) : myCount(count) {
        if (count < 1) throw py::value_error("threads: less than one");
    }
    void enter() { myScopes.push_back(std::make_unique<Vantle::ScopedThreads>(myCount)); }
    void exit(const py::args&) {
        if (!myScopes.empty()) myScopes.pop_back();
    }

private:
    int myCount;
    std::vector<std::unique_ptr<Vantle::ScopedThreads>> myScopes;
};

DataSetObject readFiles(const py::args& given, const py::object& memory, double heatRatio,
                        std::optional<bool> recordMarks, std::optional<bool> multiBlock, std::optional<bool> blanking,
                        const std::optional<std::string>& byteOrder, const std::optional<std::string>& scalar) {
    const std::vector<std::filesystem::path> files = filesOf(given);
    const Vantle::ReadOptions options = readOptionsOf(heatRatio, recordMarks, multiBlock, blanking, byteOrder, scalar);
    const std::size_t budget = bytesOf(memory);
    return {run([&] {
        Vantle::DataSet data = Vantle::DataSet::read(files, options);
        data.memoryBudget(budget);
        return data;
    })};
}

} // namespace

} // namespace VantlePython

PYBIND11_MODULE(_vantle, module) {
    using namespace VantlePython;
    module.doc() = "What `vantle` is made of.";
    module.attr("__version__") = VANTLE_VERSION_STRING;
    Hestra::Console::setListener({}); // what teams of threads say; see `messages`
    registerExceptions();
    defineBlock(module);
    defineLocated(module);
    defineSurface(module);
    defineCurves(module);
    defineJoins(module);
    defineDataSet(module);

    py::class_<Threads>(module, "threads",
                        R"doc(``with vantle.threads(n):`` what this thread calls uses at most n threads.

Results do not depend on it. By default all cores, or ``OMP_NUM_THREADS``.)doc")
        .def(py::init<int>(), py::arg("count"))
        .def("__enter__", &Threads::enter)
        .def("__exit__", &Threads::exit);
    module.def("thread_count", &Vantle::ScopedThreads::count, "How many threads operations called by this one use.");
    module.def("set_listener", &setMessages, py::arg("listener"), "See `vantle.messages`.");
    module.def("read", &readFiles, py::arg("memory") = py::none(), py::arg("heat_ratio") = 1.4,
               py::arg("record_marks") = py::none(), py::arg("multi_block") = py::none(),
               py::arg("blanking") = py::none(), py::arg("byte_order") = py::none(), py::arg("scalar") = py::none(),
               R"doc(The data of PLOT3D files: a grid, then its solutions and function files.

Only headers are read now; arrays are read when they are needed, and dropped beyond `memory`: bytes, "2 GiB", or None
for no limit. A file of names (.nam) goes before the functions that it names. Blocks are called "block1", "block2", ...

heat_ratio                              of the gas, for pressures.
record_marks, multi_block, blanking     what is known of the form of the files; None is found out.
byte_order, scalar                      "big" or "little", "float32" or "float64"; None is found out.

OSError names the file.)doc");
}
