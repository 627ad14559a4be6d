#include <dataset/detail/TextValues.hpp>
#include <model/hestra/Pulse.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>

namespace Vantle::detail {

namespace {

constexpr std::size_t BufferBytes = 1 << 16;
constexpr std::size_t LongestWord = 256;
constexpr std::uint64_t IndexStep = 4096;
constexpr std::uint64_t MostNumbersPerByte = 1024; // more of them, by repeat counts, are no data but damage

enum class Kind : unsigned char { other, blank, endOfLine, number };

constexpr std::array<Kind, 256> makeKinds() {
    std::array<Kind, 256> kinds{};
    for (const char c : {' ', '\t', '\r', '\f', '\v', ','}) kinds[static_cast<unsigned char>(c)] = Kind::blank;
    kinds['\n'] = Kind::endOfLine;
    for (const char c : std::string_view("0123456789+-.*eEdDqQnNaAiIfFtTyY"))
        kinds[static_cast<unsigned char>(c)] = Kind::number;
    return kinds;
}
constexpr std::array<Kind, 256> Kinds = makeKinds();

Kind kindOf(char c) { return Kinds[static_cast<unsigned char>(c)]; }

std::string lineText(std::uint64_t line) { return "line " + std::to_string(line); }

std::string within(const FileVisit& visit, std::uint64_t line) {
    return visit.place().empty() ? lineText(line) : visit.place() + ", " + lineText(line);
}

} // namespace

TextScanner::TextScanner(const FileVisit& visit, std::uint64_t offset, std::uint64_t line)
    : myVisit(visit), myBuffer(static_cast<std::size_t>(std::min<std::uint64_t>(BufferBytes, visit.file().size()))),
      myOffset(offset), myLine(line) {}

// Moves what is left to the front and reads on; false when there is no more.
bool TextScanner::fill() {
    const std::size_t left = myEnd - myBegin;
    const std::uint64_t next = myOffset + left;
    const auto more = static_cast<std::size_t>(
        std::min<std::uint64_t>(myBuffer.size() - left, myVisit.file().size() - std::min(next, myVisit.file().size())));
    std::memmove(myBuffer.data(), myBuffer.data() + myBegin, left);
    myBegin = 0;
    myEnd = left + more;
    if (more > 0) myVisit.read(next, std::span(myBuffer).subspan(left, more));
    return more > 0;
}

bool TextScanner::next(TextToken& token) {
    for (;; ++myBegin, ++myOffset) {
        if (myBegin == myEnd && !fill()) return false;
        const Kind kind = kindOf(myBuffer[myBegin]);
        if (kind == Kind::number) break;
        if (kind == Kind::endOfLine) ++myLine;
        if (kind == Kind::other)
            myVisit.file().fail(within(myVisit, myLine) + ", byte " + std::to_string(myOffset),
                                "what stands here belongs to no number");
    }
    std::size_t length = 1;
    for (;; ++length) {
        if (myBegin + length == myEnd && !fill()) break;
        if (kindOf(myBuffer[myBegin + length]) != Kind::number) break;
        if (length > LongestWord) myVisit.file().fail(within(myVisit, myLine), "a word is too long for a number");
    }
    token.text = std::string_view(myBuffer.data() + myBegin, length);
    token.repeat = 1;
    token.offset = myOffset;
    token.line = myLine;
    if (const std::size_t star = token.text.find('*'); star != std::string_view::npos) {
        const auto [end, error] = std::from_chars(token.text.data(), token.text.data() + star, token.repeat);
        if (error != std::errc() || end != token.text.data() + star || token.repeat == 0)
            myVisit.file().fail(within(myVisit, myLine), "'" + std::string(token.text) + "' is no repeated number");
        token.text.remove_prefix(star + 1);
    }
    myBegin += length;
    myOffset += length;
    return true;
}

TextIndex::TextIndex(const FileVisit& visit) {
    TextScanner scanner(visit, 0, 1);
    const std::uint64_t most = visit.file().size() > std::numeric_limits<std::uint64_t>::max() / MostNumbersPerByte
                                   ? std::numeric_limits<std::uint64_t>::max()
                                   : visit.file().size() * MostNumbersPerByte;
    std::uint64_t wanted = 0;
    for (TextToken token; scanner.next(token);) {
        if (myCount >= wanted) {
            Hestra::Pulse::beat(static_cast<double>(token.offset) / static_cast<double>(visit.file().size()));
            myEntries.push_back({myCount, token.offset, token.line});
            wanted = myCount + IndexStep;
        }
        if (token.repeat > most - myCount)
            visit.file().fail(lineText(token.line), "a number is repeated more often than can be meant");
        myCount += token.repeat;
    }
}

const TextIndex::Entry& TextIndex::before(std::uint64_t number) const {
    static constexpr Entry start{0, 0, 1};
    const auto after = std::upper_bound(myEntries.begin(), myEntries.end(), number,
                                        [](std::uint64_t n, const Entry& entry) { return n < entry.number; });
    return after == myEntries.begin() ? start : *(after - 1);
}

TextReader::TextReader(const FileVisit& visit, const TextIndex& index, std::uint64_t first)
    : myVisit(visit), myScanner(visit, index.before(first).offset, index.before(first).line) {
    for (std::uint64_t skip = first - index.before(first).number; skip > 0;) {
        if (myLeft == 0) advance();
        const std::uint64_t step = std::min(skip, myLeft);
        skip -= step;
        myLeft -= step;
    }
}

void TextReader::advance() {
    if (!myScanner.next(myToken)) {
        myVisit.finish();
        myVisit.file().fail(myVisit.place(), "the file ends too early");
    }
    myLeft = myToken.repeat;
}

void TextReader::refuse(const char* reason) const {
    myVisit.file().fail(within(myVisit, myToken.line), "'" + std::string(myToken.text) + "' " + reason);
}

std::uint64_t TextReader::line() {
    if (myLeft == 0) advance();
    return myToken.line;
}

template<class T, class Parse>
void TextReader::takeEach(T* into, std::size_t count, const Parse& parse) {
    while (count > 0) {
        if (myLeft == 0) advance();
        const auto run = static_cast<std::size_t>(std::min<std::uint64_t>(count, myLeft));
        std::fill_n(into, run, parse());
        into += run;
        count -= run;
        myLeft -= run;
    }
}

void TextReader::take(double* into, std::size_t count) {
    takeEach(into, count, [&] {
        const auto value = parseNumber(myToken.text);
        if (!value) refuse("is no number");
        return *value;
    });
}

void TextReader::take(float* into, std::size_t count) {
    takeEach(into, count, [&] {
        const auto value = parseNumber(myToken.text);
        if (!value) refuse("is no number");
        return static_cast<float>(*value);
    });
}

void TextReader::take(int* into, std::size_t count) {
    takeEach(into, count, [&] {
        int value = 0;
        std::string_view word = myToken.text;
        if (word.starts_with('+')) word.remove_prefix(1);
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
        if (error != std::errc() || end != word.data() + word.size()) refuse("is no integer");
        return value;
    });
}

std::optional<double> parseNumber(std::string_view word) {
    if (word.starts_with('+')) word.remove_prefix(1);
    double value = 0.0;
    const auto whole = [&](const char* begin, const char* end) {
        const auto [stop, error] = std::from_chars(begin, end, value);
        if (stop != end || begin == end) return false;
        if (error == std::errc::result_out_of_range) { // too small or too large for a double
            const std::string_view text(begin, static_cast<std::size_t>(end - begin));
            const std::size_t exponent = text.find_first_of("eE");
            const bool tiny = exponent != std::string_view::npos && text.substr(exponent + 1).starts_with('-');
            value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
            if (text.starts_with('-')) value = -value;
            return true;
        }
        return error == std::errc();
    };
    if (whole(word.data(), word.data() + word.size())) return value;
    // 1.5D-300, 1.5d+10, 1.5-300
    std::string rewritten;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const char c = word[i];
        const bool isMarker = c == 'd' || c == 'D' || c == 'q' || c == 'Q' || c == 'e' || c == 'E';
        if (isMarker) {
            rewritten += 'e';
            if (i + 1 < word.size() && word[i + 1] == '+') ++i;
        } else if ((c == '-' || c == '+') && i > 0 &&
                   (std::isdigit(static_cast<unsigned char>(word[i - 1])) || word[i - 1] == '.')) {
            rewritten += c == '-' ? "e-" : "e";
        } else {
            rewritten += c;
        }
    }
    if (whole(rewritten.data(), rewritten.data() + rewritten.size())) return value;
    return std::nullopt;
}

} // namespace Vantle::detail
