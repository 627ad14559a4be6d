#include "Running.hpp"

#include <atomic>
#include <cerrno>
#include <cxxabi.h>
#include <filesystem>
#include <unistd.h>
#include <utility>

namespace VantlePython {

// ---- The interpreter lock -------------------------------------------------------------------------------------------

namespace {

bool isEnding() noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    return !Py_IsInitialized() || Py_IsFinalizing();
#else
    return !Py_IsInitialized() || _Py_IsFinalizing();
#endif
}

/// Takes the lock as `take` does.
template<class Take>
auto orWait(const Take& take) {
    try {
        return take();
    } catch (abi::__forced_unwind&) { // the interpreter has ended
        for (;;) pause();
    }
}

} // namespace

Unlocked::~Unlocked() {
    orWait([&] { PyEval_RestoreThread(myThread); });
}

Locked::Locked() {
    if (isEnding() && !PyGILState_GetThisThreadState()) throw Vantle::DataSetError("the interpreter has ended");
    myState = orWait([] { return PyGILState_Ensure(); });
}

// ---- What is given back ---------------------------------------------------------------------------------------------

namespace {

struct Waiting {
    PyObject* object;
    Waiting* next;
};

/// What the extension modules of the package share. Lives longer than the interpreter.
struct Shared {
    std::atomic<Waiting*> firstWaiting{nullptr}; // no lock, which a child process might find locked
    Kept listener;
    std::size_t running = 0; // operations that Python has called
    std::vector<std::weak_ptr<PythonFailure::State>> failures;
};

/// Needs the interpreter lock when it is first called by a module.
Shared& shared() {
    static Shared& all = py::get_or_create_shared_data<Shared>("vantle");
    return all;
}

void letGo(PyObject* object) noexcept {
    std::atomic<Waiting*>& firstWaiting = shared().firstWaiting;
    auto* const waiting = new (std::nothrow) Waiting{object, firstWaiting.load(std::memory_order_relaxed)};
    if (!waiting) return; // rather lost than waited for
    while (!firstWaiting.compare_exchange_weak(waiting->next, waiting, std::memory_order_release,
                                               std::memory_order_relaxed)) {
    }
}

} // namespace

Kept keep(py::object object) {
    (void)shared();
    Kept kept(object.ptr(), letGo);
    object.release();
    return kept;
}

void giveBack() noexcept {
    for (Waiting* waiting = shared().firstWaiting.exchange(nullptr, std::memory_order_acquire); waiting;) {
        const std::unique_ptr<Waiting> done(waiting);
        waiting = done->next;
        const py::error_scope present; // which finalizers might touch
        Py_DECREF(done->object);
    }
}

Running::Running() {
    if (shared().running++ > 0) return;
    for (const auto& failure : std::exchange(shared().failures, {}))
        if (const auto state = failure.lock(); state && state->isItself) {
            PyException_SetTraceback(state->error.get(), Py_None);
            PyException_SetContext(state->error.get(), nullptr);
            PyException_SetCause(state->error.get(), nullptr);
        }
}

Running::~Running() {
    --shared().running;
    giveBack();
}

// ---- Errors ---------------------------------------------------------------------------------------------------------

PythonFailure::PythonFailure() {
    PyObject *type = nullptr, *value = nullptr, *trace = nullptr;
    PyErr_Fetch(&type, &value, &trace);
    PyErr_NormalizeException(&type, &value, &trace);
    if (trace) PyException_SetTraceback(value, trace);
    Py_XDECREF(type);
    Py_XDECREF(trace);
    const auto error = py::reinterpret_steal<py::object>(value);
    const char* const kind = Py_TYPE(value)->tp_name;
    try {
        const std::string why = py::str(error);
        myText = why.empty() ? kind : kind + (": " + why);
    } catch (py::error_already_set&) { // an exception that cannot say what it is
        myText = kind;
    }
    myState->error = keep(error);
    std::erase_if(shared().failures, [](const auto& failure) { return failure.expired(); });
    shared().failures.push_back(myState);
}

std::exception_ptr failureOf(const std::function<void()>& f) {
    try {
        try {
            f();
        } catch (const py::builtin_exception& error) {
            error.set_error();
            throw py::error_already_set();
        }
    } catch (py::error_already_set& error) {
        error.restore();
        return std::make_exception_ptr(PythonFailure());
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

void PythonFailure::restore() const {
    const bool isFirst = std::exchange(myState->isItself, false); // from here on nobody else's
    Kept kept = myState->error;
    py::object like;
    if (kept) {
        try { // other threads may be at this meanwhile
            like = py::module_::import("copy").attr("copy")(py::reinterpret_borrow<py::object>(kept.get()));
        } catch (py::error_already_set&) { // an exception that cannot be made again
        }
    }
    if (like && (!PyExceptionInstance_Check(like.ptr()) || like.ptr() == kept.get())) like = py::object();
    py::object given = like;
    if (isFirst) {
        given = py::reinterpret_borrow<py::object>(kept.get());
        myState->error = like ? keep(like) : Kept();
    }
    if (given)
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(given.ptr())), given.ptr());
    else
        PyErr_SetString(PyExc_RuntimeError, myText.c_str());
    kept = nullptr;
    giveBack();
}

namespace {

void setFileError(const Vantle::FileError& error) {
    std::error_code unknown;
    const bool isThere = std::filesystem::exists(error.file(), unknown);
    const py::object made = py::reinterpret_borrow<py::object>(isThere ? PyExc_OSError : PyExc_FileNotFoundError)(
        isThere ? EINVAL : ENOENT, error.place().empty() ? error.reason() : error.place() + ": " + error.reason(),
        error.file().string());
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(made.ptr())), made.ptr());
}

} // namespace

void registerExceptions() {
    py::register_exception_translator([](std::exception_ptr problem) {
        const auto set = [](const char* type, const char* text) {
            PyErr_SetString(py::module_::import("vantle._errors").attr(type).ptr(), text);
        };
        try {
            if (problem) std::rethrow_exception(problem);
        } catch (const PythonFailure& failure) {
            failure.restore();
        } catch (const Vantle::Cancelled& error) {
            set("Cancelled", error.what());
        } catch (const Vantle::UnknownName& error) {
            set("UnknownName", error.what());
        } catch (const Vantle::OutOfMemory& error) {
            PyErr_SetString(PyExc_MemoryError, error.what());
        } catch (const Vantle::FileError& error) {
            setFileError(error);
        } catch (const Vantle::DataSetError& error) {
            PyErr_SetString(PyExc_ValueError, error.what());
        }
    });
}

// ---- Progress -------------------------------------------------------------------------------------------------------

Watch::Watch(py::object progress) : myProgress(std::move(progress)) {
    if (myProgress.is_none()) return;
    myIsCalled = PyCallable_Check(myProgress.ptr()) != 0;
    if (myIsCalled) return;
    if (!py::hasattr(myProgress, "update"))
        throw py::type_error("progress: expected a function of a number, or an object with the method update(n)");
    myTotal = py::getattr(myProgress, "total", py::none());
    if (myTotal.is_none()) py::setattr(myProgress, "total", myTotal = py::float_(1.0));
}

Vantle::Progress Watch::function() {
    return [this](double share) {
        constexpr std::chrono::milliseconds Patience(50);
        const auto now = std::chrono::steady_clock::now();
        const bool isLookedAt = now - myLook >= Patience;
        if (myProgress.is_none() && !isLookedAt) return true;
        const Locked locked;
        if (isLookedAt) myLook = now;
        try {
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            return tell(share);
        } catch (py::error_already_set& error) {
            error.restore();
            throw PythonFailure();
        }
    };
}

bool Watch::tell(double share) {
    if (myProgress.is_none()) return true;
    if (myIsCalled) return !myProgress(share).is(py::bool_(false));
    if (share > myTold) {
        myProgress.attr("update")(py::float_(share - myTold) * myTotal);
        myTold = share;
    }
    return true;
}

// ---- Messages -------------------------------------------------------------------------------------------------------

void setMessages(py::object listener) {
    shared().listener = listener.is_none() ? Kept() : keep(std::move(listener));
    giveBack();
}

Hestra::Console::Listener messages() {
    const Kept listener = shared().listener;
    if (!listener) return {};
    return [listener](std::string_view text) {
        const Locked locked;
        try {
            py::reinterpret_borrow<py::object>(listener.get())(py::str(text.data(), text.size()));
        } catch (py::error_already_set& error) {
            if (error.matches(PyExc_KeyboardInterrupt))
                return PyErr_SetInterrupt(); // not the listener's: once more, later
            error.discard_as_unraisable("a listener to messages of vantle");
        }
    };
}

} // namespace VantlePython
