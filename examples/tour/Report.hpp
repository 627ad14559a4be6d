#pragma once

/// The table that the tour prints.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tour {

/// Lines of a table. Each appears at once, whatever else is written meanwhile.
///
/// Failure      FileError when it cannot be written.
class Report {
public:
    /// Writes to this file descriptor.
    explicit Report(int descriptor) : descriptor_(descriptor) {}

    /// A heading, with an empty line before it.
    void section(const std::string& title);
    /// One result: what, how much, and how long it took.
    void row(const std::string& what, const std::string& value, std::optional<double> seconds = {});
    /// Several results side by side, in columns; the first is what they are about.
    void columns(const std::vector<std::string>& cells);
    void line(const std::string& text);

private:
    int descriptor_;
};

/// Seconds since it was made or restarted.
class Stopwatch {
public:
    [[nodiscard]] double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    /// The seconds so far, and starts again.
    double lap();

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// `value` with so many significant digits.
std::string number(double value, int digits = 4);
/// A count with blanks between thousands.
std::string count(unsigned long long value);
/// "12.3 ms", "4.56 s", with three significant digits.
std::string duration(double seconds);

} // namespace tour
