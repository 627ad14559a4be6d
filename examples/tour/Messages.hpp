#pragma once

/// What other code prints while the tour has the standard output.

#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace tour {

/// Takes over standard output, from construction to finish(): whatever anybody writes there is counted, line by line.
/// The library prints its own messages there, some for every position that it looks for: millions of lines, few of
/// them different.
///
/// Failure      FileError when standard output cannot be taken over.
class Messages {
public:
    Messages();
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Gives standard output back. Later calls do nothing.
    void finish();
    /// Where standard output went before; a file descriptor, valid for this object's lifetime.
    [[nodiscard]] int original() const noexcept { return original_; }
    /// Lines so far; call finish() first.
    [[nodiscard]] unsigned long long lines() const noexcept { return lines_; }
    /// Each different line once, in the order of first appearance, with its number of appearances in front.
    [[nodiscard]] std::string summary() const;

    /// Different lines that are told apart; those after them are counted as one.
    static constexpr std::size_t kDifferentLines = 10000;

private:
    struct Line {
        std::string text;
        unsigned long long times = 0;
    };

    void read();
    void take(std::string_view line);

    int original_ = -1;
    int source_ = -1;
    bool taken_ = false;
    unsigned long long lines_ = 0;
    unsigned long long others_ = 0;
    std::vector<Line> different_;
    std::unordered_map<std::string, std::size_t> numbers_;
    std::thread reader_; // last: everything it uses is there before it starts
};

} // namespace tour
