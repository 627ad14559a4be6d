#pragma once
/// How Python and the library call each other: who has the interpreter lock, who hears what, what is given back when.
///
/// The lock is released around everything that may make data, and creation functions, progress and messages take it for
/// as long as they run. Whoever waits for something of the library, a lock or data that somebody else makes, does not
/// have it: except for members that change a data set, which make no data.

#include <dataset/DataSet.hpp>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <pybind11/pybind11.h>
#include <string>
#include <vector>

namespace VantlePython {

namespace py = pybind11;
using Hestra::StrongPtr;

/// Releases the interpreter lock as long as it lives. Where the interpreter has ended meanwhile, the thread waits for
/// the end of the process: Python would end it, through destructors that nothing may leave.
class Unlocked {
public:
    Unlocked() : myThread(PyEval_SaveThread()) {}
    ~Unlocked();
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

private:
    PyThreadState* myThread;
};

/// Takes the interpreter lock, in any thread, as long as it lives. At the end as above; threads that Python has never
/// seen get an error then, since somebody may wait for them.
class Locked {
public:
    Locked();
    ~Locked() { PyGILState_Release(myState); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    PyGILState_STATE myState;
};

/// An object of Python that the library keeps. It may be let go of by any thread, whatever locks this has: it is given
/// back to Python when a call from Python ends (`giveBack`), and never once the interpreter has gone.
using Kept = std::shared_ptr<PyObject>;
[[nodiscard]] Kept keep(py::object object);
/// Gives back what was let go of. Needs the interpreter lock.
void giveBack() noexcept;

/// What a function of a Python caller has thrown, on its way through the library.
class PythonFailure : public std::exception {
public:
    /// Takes the present error of the interpreter, whose lock is needed.
    PythonFailure();
    /// Its class and text, for those who cannot have it itself.
    [[nodiscard]] const char* what() const noexcept override { return myText.c_str(); }
    /// Makes it the present error again. Whoever is first gets itself, and nothing here keeps it: its traceback refers
    /// to the callers, and they to data sets that keep this failure. Others get one like it.
    void restore() const;

    struct State {
        Kept error;
        bool isItself = true; // and nobody has it
    };

private:
    std::shared_ptr<State> myState = std::make_shared<State>();
    std::string myText;
};

/// What a function throws, exceptions of Python as `PythonFailure`. Needs the interpreter lock.
[[nodiscard]] std::exception_ptr failureOf(const std::function<void()>& f);

/// Deletes what a Python object holds, without the interpreter lock, and gives back what was kept for it.
struct Release {
    template<class T>
    void operator()(T* held) const {
        {
            const Unlocked unlocked;
            delete held;
        }
        giveBack();
    }
};
template<class T>
using Held = std::unique_ptr<T, Release>;

/// A progress function of the library for what Python gives: None, a function, or an object like those of tqdm. Looks
/// after signals, too, so that an interrupt ends the operation.
class Watch {
public:
    explicit Watch(py::object progress);
    [[nodiscard]] Vantle::Progress function();

private:
    [[nodiscard]] bool tell(double share);

    py::object myProgress, myTotal;
    double myTold = 0.0;
    bool myIsCalled = false;
    std::chrono::steady_clock::time_point myLook = std::chrono::steady_clock::now();
};

/// From now on the operations that Python calls say their lines to a function; None is nobody.
void setMessages(py::object listener);
/// The same for the library.
[[nodiscard]] Hestra::Console::Listener messages();

/// An operation that Python has called. Needs the interpreter lock. At the end what was let go of is given back; where
/// one begins while there is no other, failures that nobody was told of forget their tracebacks, as by `restore`.
class Running {
public:
    Running();
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
};

/// Calls `f` without the interpreter lock, heard by whoever wants to.
template<class F>
auto run(const F& f) {
    const Running running;
    Hestra::Console::Listener listener = messages();
    const Unlocked unlocked;
    const Vantle::ScopedMessages heard(std::move(listener));
    return f();
}

/// The same for what reports progress: `f` is given a progress function.
template<class F>
auto run(const py::object& progress, const F& f) {
    Watch watch(progress);
    const Vantle::Progress function = watch.function();
    return run([&] { return f(function); });
}

/// Translates the exceptions of the library.
void registerExceptions();

} // namespace VantlePython
