#include "Messages.hpp"

#include <model/hestra/Console.hpp>

namespace tour {

using Hestra::Console;

Messages::Messages(unsigned long long most) : most_(most), isListening_(Console::isHeard()) {
    if (isListening_) Console::setListener([this](std::string_view text) { hear(text); });
}

void Messages::finish() {
    if (!isListening_) return;
    isListening_ = false;
    Console::useStandardOutput();
    if (!rest_.empty()) take(rest_);
}

void Messages::hear(std::string_view text) {
    for (std::size_t end; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
        take(rest_.empty() ? text.substr(0, end) : rest_.append(text.substr(0, end)));
        rest_.clear();
        if (lines_ == most_) return Console::setListener({});
    }
    rest_ += text;
}

void Messages::take(std::string_view line) {
    ++lines_;
    if (const auto known = numbers_.find(line); known != numbers_.end()) {
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
