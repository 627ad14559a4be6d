#include "Objects.hpp"

#include <mpi4py/mpi4py.h>

namespace VantlePython {

namespace {

std::string libraryVersion() {
    char text[MPI_MAX_LIBRARY_VERSION_STRING] = "";
    int length = 0;
    MPI_Get_library_version(text, &length);
    return {text, static_cast<std::size_t>(length)};
}

} // namespace

void loadCommunicators() {
    if (import_mpi4py() < 0) throw py::error_already_set();
    // Handles mean something only to the library that they are of, and calls go to whichever was loaded first.
    const py::module_ mpi = py::module_::import("mpi4py.MPI");
    const auto theirs = mpi.attr("Get_library_version")().cast<std::string>(), ours = libraryVersion();
    const py::object world = mpi.attr("COMM_WORLD");
    const bool isSame = mpi.attr("_sizeof")(world).cast<std::size_t>() == sizeof(MPI_Comm) &&
                        *PyMPIComm_Get(world.ptr()) == MPI_COMM_WORLD &&
                        theirs.substr(0, theirs.find('\0')) == ours.substr(0, ours.find('\0'));
    if (!isSame)
        throw py::import_error("vantle was built for another MPI (" + ours + ") than mpi4py (" + theirs +
                               "): build one of them anew");
}

MPI_Comm communicatorOf(const py::object& given) {
    const MPI_Comm* const comm = PyMPIComm_Get(given.ptr());
    if (!comm) {
        PyErr_Clear();
        throw py::type_error(std::string("comm: expected a communicator of mpi4py, got ") +
                             Py_TYPE(given.ptr())->tp_name);
    }
    int isInitialized = 0, isOver = 0, isInter = 0;
    MPI_Initialized(&isInitialized);
    MPI_Finalized(&isOver);
    if (!isInitialized || isOver) throw py::value_error("comm: MPI is not initialised, or finalised already");
    if (*comm == MPI_COMM_NULL) throw py::value_error("comm: the null communicator");
    MPI_Comm_test_inter(*comm, &isInter);
    if (isInter) throw py::value_error("comm: a communicator between two groups");
    return *comm;
}

} // namespace VantlePython
