#pragma once

/// A line on the terminal that shows how far a step is, when the step is not over at once.

#include <chrono>
#include <functional>
#include <iostream>
#include <string>
#include <unistd.h>
#include <utility>

namespace tour {

/// From construction to destruction one step of the program runs, and says how far it is. Nothing is shown during the
/// first second, nor ever when standard error is not a terminal; then one line with the name, the share done and the
/// seconds gone is redrawn several times a second, and wiped at the end.
class Progress {
public:
    using Duration = std::chrono::milliseconds;

    explicit Progress(std::string name, std::ostream& stream = std::cerr,
                      bool isTerminal = ::isatty(STDERR_FILENO) != 0, Duration delay = Duration(1000))
        : name_(std::move(name)), stream_(stream), isTerminal_(isTerminal), next_(start_ + delay) {}
    ~Progress() {
        if (isShown_) stream_ << "\r\033[K" << std::flush;
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// A share between 0 and 1 is done; true: the step goes on. Operations are given std::ref() of this.
    bool operator()(double share) {
        const auto now = std::chrono::steady_clock::now();
        if (!isTerminal_ || now < next_) return true;
        next_ = now + Duration(150);
        isShown_ = true;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
        stream_ << "\r" + name_ + " ... " + std::to_string(static_cast<int>(100.0 * share)) + " %, " +
                       std::to_string(seconds) + " s\033[K"
                << std::flush;
        return true;
    }

private:
    std::string name_;
    std::ostream& stream_;
    bool isTerminal_, isShown_ = false;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now(), next_;
};

} // namespace tour
