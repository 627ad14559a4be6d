#pragma once
/// The classes over ranks, one a file, and what they hold.

#include "../Common.hpp"

#include <atomic>
#include <memory>
#include <parallel/ParallelDataSet.hpp>
#include <stdexcept>

namespace VantlePython {

/// Whether an operation of a data set, or of what came from it, is at work on this rank.
using Turn = std::shared_ptr<std::atomic<bool>>;

struct ParallelObject {
    Vantle::ParallelDataSet value;
    Turn turn;
};
struct ParallelSurfaceObject {
    Vantle::ParallelSurface value;
    Turn turn;
};
struct ParallelLocatedObject {
    Vantle::ParallelLocated value;
    std::vector<py::ssize_t> shape;
    Turn turn;
};

/// Collective operations follow each other. Who begins one within another, in a progress function above all, gets an
/// error instead of answers to other questions.
class InTurn {
public:
    explicit InTurn(const Turn& turn) : myTurn(turn) {
        if (myTurn->exchange(true))
            throw std::runtime_error("another operation of this data set is at work, which this one has to wait for");
    }
    ~InTurn() { *myTurn = false; }
    InTurn(const InTurn&) = delete;
    InTurn& operator=(const InTurn&) = delete;

private:
    Turn myTurn;
};

/// Calls `f(progress)` without the interpreter lock. What is wrong with the progress of this rank alone ends the
/// operation as its function would, since other ranks wait.
template<class F>
auto collectively(const Turn& turn, const py::object& progress, const F& f) {
    const InTurn inTurn(turn);
    std::unique_ptr<Watch> watch;
    const std::exception_ptr wrong = failureOf([&] { watch = std::make_unique<Watch>(progress); });
    const Vantle::Progress tell =
        watch ? watch->function() : Vantle::Progress([&](double) -> bool { std::rethrow_exception(wrong); });
    return run([&] {
        auto result = f(tell);
        if (wrong) std::rethrow_exception(wrong); // where nothing was told
        return result;
    });
}

using ParallelClass = py::class_<ParallelObject, Held<ParallelObject>>;
void defineParallelDataSet(py::module_& module);
void defineParallelSurface(py::module_& module);
void defineParallelLocated(py::module_& module);

/// Loads mpi4py. Failure: ImportError, also if it uses another MPI.
void loadCommunicators();
/// The communicator of an object of mpi4py. Failure: TypeError; ValueError unless it can be used.
[[nodiscard]] MPI_Comm communicatorOf(const py::object& given);

} // namespace VantlePython
