#pragma once
/// What every request of the layer goes through: silence, progress, one style of errors.

#include <baseop/Isosurface.hpp>
#include <dataset/DataSetError.hpp>
#include <dataset/Progress.hpp>
#include <model/hestra/Console.hpp>

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <vector>

namespace Vantle::detail {

/// Carries what a caller's own function has thrown through operations that know nothing of it.
struct Passing {
    std::exception_ptr what;
};

/// Tells a caller's progress function, and ends the operation when that says so.
class Meter {
public:
    explicit Meter(const Progress& progress) : myProgress(progress) {}
    /// What is done between two shares of this one.
    [[nodiscard]] Meter part(double from, double to) const {
        Meter part(myProgress);
        part.myFrom = at(from);
        part.myTo = at(to);
        return part;
    }
    void operator()(double share) const {
        if (!myProgress) return;
        bool goesOn = true;
        try {
            goesOn = myProgress(at(share));
        } catch (...) {
            throw Passing{std::current_exception()};
        }
        if (!goesOn) throw Cancelled();
    }

private:
    [[nodiscard]] double at(double share) const noexcept { return myFrom + (myTo - myFrom) * std::min(share, 1.0); }

    const Progress& myProgress;
    double myFrom = 0.0, myTo = 1.0;
};

/// Does what is requested with nobody listening, and says what was requested when it fails.
template<class F>
auto request(const std::string& what, const F& f) {
    const Hestra::ScopedListener silence({});
    const auto fail = [&](const char* why) { throw DataSetError(what + ": " + why); };
    try {
        return f();
    } catch (const Passing& passing) {
        std::rethrow_exception(passing.what);
    } catch (const std::invalid_argument& problem) {
        fail(problem.what());
    } catch (const std::length_error& problem) {
        fail(problem.what());
    } catch (const IsoException& problem) {
        fail(problem.what());
    } catch (const char* problem) {
        fail(problem);
    }
    std::terminate(); // not reached
}

/// "no field "presure"; there are: "pressure", "density"", the nearest name first.
[[nodiscard]] VANTLE_DATASET_API std::string unknownName(const std::string& kind, const std::string& name,
                                                        std::vector<std::string> known);

/// A name in quotes.
[[nodiscard]] inline std::string quoted(const std::string& name) { return '"' + name + '"'; }

} // namespace Vantle::detail
