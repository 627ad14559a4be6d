#include "Objects.hpp"

namespace VantlePython {

namespace {

/// What all ranks throw: on that which has failed its own exception if that is one of Python; else what one process
/// would, with the rank in front.
void translate(const Vantle::ParallelError& error) {
    using Kind = Vantle::ParallelError::Kind;
    try {
        if (error.cause()) std::rethrow_exception(error.cause());
    } catch (const PythonFailure& failure) {
        failure.restore();
        return;
    } catch (...) { // which `error` tells
    }
    const auto ours = [](const char* name) { return py::module_::import("vantle._errors").attr(name); };
    const py::object type = error.kind() == Kind::Name     ? ours("UnknownName")
                            : error.kind() == Kind::Caller ? ours("Cancelled")
                            : error.kind() == Kind::Memory ? py::reinterpret_borrow<py::object>(PyExc_MemoryError)
                            : error.kind() == Kind::File   ? py::reinterpret_borrow<py::object>(PyExc_OSError)
                                                           : py::reinterpret_borrow<py::object>(PyExc_ValueError);
    PyErr_SetString(type.ptr(), error.what());
}

} // namespace

} // namespace VantlePython

PYBIND11_MODULE(_parallel, module) {
    using namespace VantlePython;
    module.doc() = "What `vantle` is made of where it works over the ranks of MPI.";
    py::module_::import("vantle._vantle"); // classes, and what is done with other exceptions
    loadCommunicators();
    py::register_exception_translator([](std::exception_ptr problem) {
        try {
            if (problem) std::rethrow_exception(problem);
        } catch (const Vantle::ParallelError& error) {
            translate(error);
        }
    });
    defineParallelSurface(module);
    defineParallelLocated(module);
    defineParallelDataSet(module);
}
