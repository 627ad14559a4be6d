#pragma once

/// The table that the tour prints.

#include <chrono>
#include <string>
#include <vector>

namespace tour {

/// Seconds since it was made, or since the last lap.
class Stopwatch {
public:
    double lap();

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Lines of a table on standard output. Each appears at once.
///
/// Failure      FileError when it cannot be written.
class Report {
public:
    /// A heading, with an empty line before it.
    void section(const std::string& title) { line("\n" + title); }
    /// One result: what, and how much.
    void row(const std::string& what, const std::string& value) { columns({what, value}); }
    /// The same, and how long it took.
    void row(const std::string& what, const std::string& value, double seconds);
    /// The same of what was done since the last lap: the value is made before the watch is looked at.
    void row(const std::string& what, const std::string& value, Stopwatch& watch) { row(what, value, watch.lap()); }
    /// Several results side by side; the first cell is what they are about.
    void columns(const std::vector<std::string>& cells);
    void line(const std::string& text);
    /// All lines so far.
    [[nodiscard]] const std::string& text() const noexcept { return text_; }

private:
    std::string text_;
};

/// `value` with so many significant digits.
std::string number(double value, int digits = 4);
/// A count with blanks between thousands.
std::string count(unsigned long long value);
/// "12.3 ms", "4.56 s", with three significant digits.
std::string duration(double seconds);

} // namespace tour
