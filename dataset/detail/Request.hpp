#pragma once
/// What every request of the layer goes through: who hears it, progress, one style of errors.

#include <baseop/Isosurface.hpp>
#include <dataset/DataSetError.hpp>
#include <dataset/Messages.hpp>
#include <dataset/Progress.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/CreationFailure.hpp>
#include <model/hestra/Pulse.hpp>

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <vector>

namespace Vantle::detail {

/// How often a surface is made again, at most, with more masked, since points of it are no numbers.
constexpr int MostMaskings = 4;

/// Who hears the requests of this thread: the innermost `ScopedMessages`, else nobody.
[[nodiscard]] VANTLE_DATASET_API const Hestra::Console::Listener& messages() noexcept;

/// Does what is requested, heard by nobody else, and says what was requested when it fails.
template<class F>
auto request(const std::string& what, const F& f) {
    const Hestra::ScopedListener heard(messages());
    const Hestra::ScopedCreationFailure failure;
    const auto fail = [&](const std::string& why) {
        const std::string& reason = failure.reason();
        const bool isSaid = reason.empty() || why.find(reason) != std::string::npos;
        throw DataSetError(what + ": " + why + (isSaid ? "" : " (" + reason + ')'));
    };
    try {
        return f();
    } catch (const std::invalid_argument& problem) {
        fail(problem.what());
    } catch (const std::length_error& problem) {
        fail(problem.what());
    } catch (const IsoException& problem) {
        fail(problem.what());
    } catch (const char* problem) {
        fail(problem);
    } catch (const std::bad_alloc&) {
        throw OutOfMemory(what + ": there is not enough memory");
    }
    std::terminate(); // not reached
}

/// The same, telling a caller's function how far it is, which may end it: then, nothing that was made counts.
template<class F>
auto request(const std::string& what, const Progress& progress, const F& f) {
    if (!progress) return request(what, f);
    const Hestra::Pulse pulse([&](double share) {
        if (!progress(share)) throw Cancelled();
    });
    try {
        Hestra::Pulse::beat(0.0);
        auto result = request(what, f);
        pulse.rethrow();
        Hestra::Pulse::beat(1.0);
        return result;
    } catch (...) {
        pulse.rethrow();
        throw;
    }
}

/// "no field "presure"; there are: "pressure", "density"", the nearest name first.
[[nodiscard]] VANTLE_DATASET_API UnknownName unknownName(const std::string& kind, const std::string& name,
                                                         std::vector<std::string> known);

/// A name in quotes.
[[nodiscard]] inline std::string quoted(const std::string& name) { return '"' + name + '"'; }

} // namespace Vantle::detail
