#include "Report.hpp"

#include <dataset/io/FileError.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace tour {

namespace {

constexpr std::size_t kColumn = 22, kTimeEnd = 94;

// At least one blank, so that neighbours stay apart.
void padTo(std::size_t width, std::string& text) { text.append(text.size() < width ? width - text.size() : 1, ' '); }

std::string inColumns(const std::vector<std::string>& cells) {
    std::string text("  ");
    for (std::size_t n = 0; n < cells.size(); ++n) {
        if (n > 0) padTo(2 + n * kColumn, text);
        text += cells[n];
    }
    return text;
}

} // namespace

void Report::line(const std::string& text) {
    const std::string bytes = text + "\n";
    text_ += bytes;
    if (std::fputs(bytes.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
        throw Vantle::FileError("standard output", "cannot write", std::strerror(errno));
}

void Report::row(const std::string& what, const std::string& value, double seconds) {
    std::string text = inColumns({what, value});
    const std::string time = duration(seconds);
    padTo(kTimeEnd - std::min(kTimeEnd, time.size()), text);
    line(text + time);
}

void Report::columns(const std::vector<std::string>& cells) { line(inColumns(cells)); }

double Stopwatch::lap() {
    const auto start = std::exchange(start_, std::chrono::steady_clock::now());
    return std::chrono::duration<double>(start_ - start).count();
}

std::string number(double value, int digits) {
    std::array<char, 40> buffer;
    std::snprintf(buffer.data(), buffer.size(), "%.*g", digits, value == 0.0 ? 0.0 : value); // no "-0"
    return buffer.data();
}

std::string count(unsigned long long value) {
    std::string digits = std::to_string(value);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ' ');
    return digits;
}

std::string duration(double seconds) {
    if (seconds < 1e-3) return number(1e6 * seconds, 3) + " us";
    return seconds < 1.0 ? number(1e3 * seconds, 3) + " ms" : number(seconds, 3) + " s";
}

} // namespace tour
