#pragma once
/// The numbers of a text file, found by their number in the file.

#include <dataset/detail/InputFile.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vantle::detail {

/// One word of a text: a number, or several of the same value ("3*1.5").
struct TextToken {
    std::string_view text; ///< Without the count. Valid until the next one is read.
    std::uint64_t repeat = 1;
    std::uint64_t offset = 0; ///< Of the first byte.
    std::uint64_t line = 1;   ///< Counted from 1.
};

/// Reads the words of a file one by one, from a given byte on. Words are separated by blanks, ends of lines and commas.
class TextScanner {
public:
    TextScanner(const FileVisit& visit, std::uint64_t offset, std::uint64_t line);
    /// False at the end of the file. Throws where there is something that no number is made of.
    bool next(TextToken& token);

private:
    bool fill();

    const FileVisit& myVisit;
    std::vector<char> myBuffer;
    std::size_t myBegin = 0, myEnd = 0; // what is not read yet
    std::uint64_t myOffset;             // of what stands at myBegin
    std::uint64_t myLine;
};

/// How many numbers a text has, and where every so-manieth of them stands.
///
/// Concurrency  immutable: any number of threads.
/// Cost         one pass over the file; 24 bytes for some thousand numbers.
class TextIndex {
public:
    explicit TextIndex(const FileVisit& visit);

    [[nodiscard]] std::uint64_t count() const noexcept { return myCount; }

    struct Entry {
        std::uint64_t number, offset, line; // of the first number of a word
    };
    /// The last known place not behind a number.
    [[nodiscard]] const Entry& before(std::uint64_t number) const;

private:
    std::uint64_t myCount = 0;
    std::vector<Entry> myEntries;
};

/// Numbers of a text, from a given one on.
class TextReader {
public:
    TextReader(const FileVisit& visit, const TextIndex& index, std::uint64_t first);
    /// The next `count` ones; throws at a word that is no number, or where there are no more.
    void take(double* into, std::size_t count);
    void take(float* into, std::size_t count);
    void take(int* into, std::size_t count);
    /// The line of the next number.
    [[nodiscard]] std::uint64_t line();

private:
    template<class T, class Parse>
    void takeEach(T* into, std::size_t count, const Parse& parse);
    void advance();
    [[noreturn]] void refuse(const char* reason) const;

    const FileVisit& myVisit;
    TextScanner myScanner;
    TextToken myToken;
    std::uint64_t myLeft = 0; // uses left of the present word
};

/// The number that a word stands for, also with an exponent marked by D, or by its sign alone.
[[nodiscard]] std::optional<double> parseNumber(std::string_view word);

} // namespace Vantle::detail
