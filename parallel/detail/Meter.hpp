#pragma once
/// Progress of collective operations: told by each rank between pieces of its own work.

#include <dataset/Progress.hpp>

#include <algorithm>
#include <exception>

namespace Vantle::detail {

/// Carries what a caller's own function has thrown to the next exchange.
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

} // namespace Vantle::detail
