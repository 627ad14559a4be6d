#include "Messages.hpp"

#include "io/FileError.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace tour {

namespace {

[[noreturn]] void fail(const char* what) { throw FileError("standard output", what, std::strerror(errno)); }

} // namespace

Messages::Messages() {
    std::fflush(stdout);
    original_ = ::dup(STDOUT_FILENO);
    if (original_ < 0) fail("cannot write");
    std::array<int, 2> ends;
    if (::pipe(ends.data()) != 0 || ::dup2(ends[1], STDOUT_FILENO) < 0) {
        const int reason = errno;
        ::close(original_);
        errno = reason;
        fail("cannot be taken over");
    }
    ::close(ends[1]);
    source_ = ends[0];
    taken_ = true;
    reader_ = std::thread([this] { read(); });
}

Messages::~Messages() {
    finish();
    ::close(source_);
    ::close(original_);
}

void Messages::finish() {
    if (!taken_) return;
    taken_ = false;
    std::fflush(stdout);
    ::dup2(original_, STDOUT_FILENO); // closes the only end of the pipe that can be written to: the reader ends
    reader_.join();
}

void Messages::read() {
    std::array<char, 1 << 16> buffer;
    std::string rest;
    for (;;) {
        const ssize_t bytes = ::read(source_, buffer.data(), buffer.size());
        if (bytes < 0 && errno == EINTR) continue;
        if (bytes <= 0) break;
        std::string_view text(buffer.data(), static_cast<std::size_t>(bytes));
        for (std::size_t end; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
            rest += text.substr(0, end);
            take(rest);
            rest.clear();
        }
        rest += text;
    }
    if (!rest.empty()) take(rest);
}

void Messages::take(std::string_view line) {
    ++lines_;
    if (const auto known = numbers_.find(std::string(line)); known != numbers_.end()) {
        ++different_[known->second].times;
    } else if (different_.size() < kDifferentLines) {
        numbers_.emplace(line, different_.size());
        different_.push_back({std::string(line), 1});
    } else {
        ++others_;
    }
}

std::string Messages::summary() const {
    std::string text;
    const auto add = [&](unsigned long long times, std::string_view line) {
        const std::string digits = std::to_string(times);
        text.append(digits.size() < 10 ? 10 - digits.size() : 0, ' ').append(digits).append("  ").append(line) += '\n';
    };
    for (const Line& line : different_) add(line.times, line.text);
    if (others_ > 0) add(others_, "other lines");
    return text;
}

} // namespace tour
