#pragma once

/// A line on the terminal that shows how far a step is, when the step is not over at once.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <iostream>
#include <mutex>
#include <ostream>
#include <stop_token>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

namespace tour {

/// From construction to destruction one step of the program runs. Nothing is shown during the first second, nor ever
/// when standard error is not a terminal; then one line with the name, the share done (when it is told) and the seconds
/// gone is redrawn several times a second, and wiped at the end. It needs no calls from inside the step.
///
/// Concurrency  any thread may call done().
class Progress {
public:
    /// Where the line goes. The default is standard error, after one second; tests choose otherwise.
    struct Output {
        std::ostream* stream = &std::cerr;
        bool isTerminal = ::isatty(STDERR_FILENO) != 0;
        std::chrono::milliseconds delay{1000};
        std::chrono::milliseconds interval{150};
    };

    explicit Progress(std::string name) : Progress(std::move(name), Output()) {}
    Progress(std::string name, const Output& output) : name_(std::move(name)), output_(output) {
        if (output_.isTerminal) painter_ = std::jthread([this](std::stop_token stop) { paint(stop); });
    }
    ~Progress() {
        if (!painter_.joinable()) return;
        painter_.request_stop();
        painter_.join();
        if (shown_) *output_.stream << "\r\033[K" << std::flush;
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// So much of the step is done: a share between 0 and 1.
    void done(double share) { share_.store(share, std::memory_order_relaxed); }

private:
    void paint(const std::stop_token& stop) {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock lock(mutex_);
        for (auto pause = output_.delay; !sleeper_.wait_for(lock, stop, pause, [&] { return stop.stop_requested(); });
             pause = output_.interval) {
            const auto seconds =
                std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
            const double share = share_.load(std::memory_order_relaxed);
            // One string, one write: the line is never torn by what other threads print.
            std::string line = "\r" + name_ + " ... ";
            if (share >= 0.0) line += std::to_string(static_cast<int>(100.0 * (share < 1.0 ? share : 1.0))) + " %, ";
            *output_.stream << line + std::to_string(seconds.count()) + " s\033[K" << std::flush;
            shown_ = true;
        }
    }

    std::string name_;
    Output output_;
    std::atomic<double> share_{-1.0};
    bool shown_ = false; // written by the painter, read after it is joined
    std::mutex mutex_;
    std::condition_variable_any sleeper_;
    std::jthread painter_; // last: everything it uses is there before it starts
};

} // namespace tour
