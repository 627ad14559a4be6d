#pragma once

/// What the library says while the tour works.

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tour {

/// Listens to the library, from construction to finish(), and counts its lines. Some it says for every position that it
/// looks for: millions of lines, few of them different. After the first `most` nobody listens, and the library saves
/// its breath. Where nobody listens before (VANTLE_MESSAGES=0), nobody does.
class Messages {
public:
    explicit Messages(unsigned long long most = 10'000'000);
    ~Messages() { finish(); }
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Stops listening: what is said later goes to standard output. Later calls do nothing.
    void finish();
    /// Lines heard; call finish() first.
    [[nodiscard]] unsigned long long lines() const noexcept { return lines_; }
    /// Whether there may have been more.
    [[nodiscard]] bool isCut() const noexcept { return lines_ == most_; }
    /// Each different line once, in the order of first appearance, with its number of appearances in front.
    [[nodiscard]] std::string summary() const;

    /// Different lines that are told apart; those after them are counted as one.
    static constexpr std::size_t kDifferentLines = 10000;

private:
    struct Line {
        std::string text;
        unsigned long long times = 0;
    };
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };

    void hear(std::string_view text);
    void take(std::string_view line);

    unsigned long long most_;
    bool isListening_;
    unsigned long long lines_ = 0;
    unsigned long long others_ = 0;
    std::string rest_; // of a line that has not ended
    std::vector<Line> different_;
    std::unordered_map<std::string, std::size_t, Hash, std::equal_to<>> numbers_;
};

} // namespace tour
