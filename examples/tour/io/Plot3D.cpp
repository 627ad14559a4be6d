#include "io/Plot3D.hpp"

#include "io/FileError.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <span>
#include <system_error>
#include <tuple>
#include <utility>

namespace tour {

namespace {

using Bytes = std::uintmax_t;

constexpr Bytes kNoLimit = std::numeric_limits<Bytes>::max();
constexpr std::size_t kSampleSize = 1 << 14; // values per field that are looked at to judge a form
constexpr double kLargestLikely = 1e30;
constexpr double kSmallestLikely = 1e-30;
constexpr std::size_t kUnlikelyShare = 50; // one in so many values may be unlikely
constexpr int kLargestBlanking = 1 << 20;
constexpr std::array kSolutionFields = {"density", "momentum x", "momentum y", "momentum z", "energy"};
constexpr std::array kCoordinates = {"x", "y", "z"};

enum class Content { grid, solution };

// Sizes stop at the largest number instead of wrapping; no file is that large.
Bytes product(Bytes a, Bytes b) { return b != 0 && a > kNoLimit / b ? kNoLimit : a * b; }
Bytes sum(Bytes a, Bytes b) { return a > kNoLimit - b ? kNoLimit : a + b; }

std::string bytesText(Bytes bytes) {
    return bytes == kNoLimit ? "more bytes than can be counted" : std::to_string(bytes) + " bytes";
}

std::string extentsText(const Extents& extents) {
    return std::to_string(extents[0]) + " x " + std::to_string(extents[1]) + " x " + std::to_string(extents[2]);
}

std::string blockText(std::size_t block) { return "block " + std::to_string(block + 1); }

Bytes vertexCount(const Extents& extents) {
    return product(product(static_cast<Bytes>(extents[0]), static_cast<Bytes>(extents[1])),
                   static_cast<Bytes>(extents[2]));
}

Bytes scalarBytes(const Plot3DForm& form) { return form.scalar == Plot3DScalar::float32 ? 4 : 8; }

template<typename Word>
Word swapped(Word word) {
    Word result = 0;
    for (std::size_t i = 0; i < sizeof(Word); ++i)
        result = static_cast<Word>((result << 8) | ((word >> (8 * i)) & 0xff));
    return result;
}

template<typename Value, typename Word>
Value decode(const char* bytes, std::endian order) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return std::bit_cast<Value>(order == std::endian::native ? word : swapped(word));
}

// A regular file, read at given places.
class Source {
public:
    explicit Source(const std::filesystem::path& path) : path_(path) {
        std::error_code error;
        const auto status = std::filesystem::status(path, error);
        if (status.type() == std::filesystem::file_type::not_found) fail("", "no such file");
        if (error) fail("", "cannot be read: " + error.message());
        if (std::filesystem::is_directory(status)) fail("", "is a folder, not a file");
        if (!std::filesystem::is_regular_file(status)) fail("", "is not a regular file");
        size_ = std::filesystem::file_size(path, error);
        if (error) fail("", "cannot be read: " + error.message());
        errno = 0;
        stream_.open(path, std::ios::binary);
        if (!stream_) fail("", "cannot be opened: " + std::generic_category().message(errno));
        if (size_ == 0) fail("", "is empty");
    }

    Bytes size() const { return size_; }
    bool holds(Bytes offset, Bytes bytes) const { return offset <= size_ && bytes <= size_ - offset; }

    void read(Bytes offset, std::span<char> into) {
        stream_.seekg(static_cast<std::streamoff>(offset));
        if (!stream_.read(into.data(), static_cast<std::streamsize>(into.size())))
            fail("byte " + std::to_string(offset), "cannot be read, though the file should go on");
    }

    std::int32_t integer(Bytes offset, std::endian order) {
        std::array<char, 4> bytes;
        read(offset, bytes);
        return decode<std::int32_t, std::uint32_t>(bytes.data(), order);
    }

    // Hands every value to `take`, in order.
    template<typename Value, typename Word, typename Take>
    void forEach(Bytes offset, std::size_t count, std::endian order, const Take& take) {
        constexpr std::size_t kChunk = 1 << 16;
        std::vector<char> buffer(std::min(count, kChunk) * sizeof(Value));
        for (std::size_t first = 0; first < count; first += kChunk) {
            const std::size_t n = std::min(kChunk, count - first);
            read(offset + first * sizeof(Value), std::span(buffer).first(n * sizeof(Value)));
            for (std::size_t i = 0; i < n; ++i) take(decode<Value, Word>(&buffer[i * sizeof(Value)], order));
        }
    }

    std::vector<double> scalars(Bytes offset, std::size_t count, const Plot3DForm& form) {
        std::vector<double> values;
        values.reserve(count);
        if (form.scalar == Plot3DScalar::float32)
            forEach<float, std::uint32_t>(offset, count, form.byteOrder, [&](float v) { values.push_back(v); });
        else
            forEach<double, std::uint64_t>(offset, count, form.byteOrder, [&](double v) { values.push_back(v); });
        return values;
    }

    std::vector<int> integers(Bytes offset, std::size_t count, std::endian order) {
        std::vector<int> values;
        values.reserve(count);
        forEach<std::int32_t, std::uint32_t>(offset, count, order, [&](std::int32_t v) { values.push_back(v); });
        return values;
    }

    bool looksLikeText() {
        std::array<char, 64> bytes;
        const auto head = std::span(bytes).first(static_cast<std::size_t>(std::min<Bytes>(bytes.size(), size_)));
        read(0, head);
        return std::all_of(head.begin(), head.end(), [](char c) { return (c >= ' ' && c <= '~') || std::isspace(c); });
    }

    [[noreturn]] void fail(const std::string& place, const std::string& reason) const {
        throw FileError(path_, place, reason);
    }

private:
    std::filesystem::path path_;
    Bytes size_ = 0;
    std::ifstream stream_;
};

// Why something does not fit, and where.
struct Misfit {
    std::string place;
    std::string reason;
};

// One way to read the beginning of the file.
struct Header {
    Plot3DForm form; // blanking and scalar still open
    std::vector<Extents> extents;
    Bytes tableOffset = 0;
    Bytes dataOffset = 0;
    std::optional<Misfit> misfit;

    Bytes placeOfExtents(std::size_t block) const { return tableOffset + 12 * block; }
};

std::string describeHeader(const Plot3DForm& form) {
    std::string text = form.byteOrder == std::endian::big ? "big-endian" : "little-endian";
    text += form.recordMarks ? ", with record marks" : ", without record marks";
    return text + (form.multiBlock ? ", multi-block" : ", single block");
}

class HeaderReader {
public:
    HeaderReader(Source& source, const Plot3DForm& form) : source_(source) {
        header_.form = form;
        read();
    }

    Header take() { return std::move(header_); }

private:
    void read() {
        Bytes blocks = 1;
        if (header_.form.multiBlock) {
            if (!mark(4)) return;
            const auto count = integer("the number of blocks");
            if (!count) return;
            if (*count <= 0)
                return misfit(offset_ - 4, "the number of blocks is " + std::to_string(*count) + ", not positive");
            if (!mark(4)) return;
            blocks = static_cast<Bytes>(*count);
        }
        const Bytes tableBytes = 12 * blocks;
        if (!mark(tableBytes)) return;
        header_.tableOffset = offset_;
        if (!source_.holds(offset_, tableBytes))
            return misfit(offset_, "the file ends in the extents of " + std::to_string(blocks) +
                                       (blocks == 1 ? " block" : " blocks"));
        for (Bytes block = 0; block < blocks; ++block) {
            Extents extents;
            for (int& extent : extents) extent = *integer("");
            if (*std::min_element(extents.begin(), extents.end()) <= 0)
                return misfit(offset_ - 12, "the extents of block " + std::to_string(block + 1) + ", " +
                                                extentsText(extents) + ", are not all positive");
            header_.extents.push_back(extents);
        }
        if (!mark(tableBytes)) return;
        header_.dataOffset = offset_;
    }

    std::optional<std::int32_t> integer(const char* what) {
        if (!source_.holds(offset_, 4)) {
            misfit(offset_, std::string("the file ends in ") + what);
            return std::nullopt;
        }
        const std::int32_t value = source_.integer(offset_, header_.form.byteOrder);
        offset_ += 4;
        return value;
    }

    bool mark(Bytes expected) {
        if (!header_.form.recordMarks) return true;
        const auto value = integer("a record mark");
        if (!value) return false;
        if (static_cast<std::uint32_t>(*value) == expected) return true;
        misfit(offset_ - 4, "no record mark of " + std::to_string(expected) + " bytes but " + std::to_string(*value));
        return false;
    }

    void misfit(Bytes offset, std::string reason) {
        header_.misfit = Misfit{"byte " + std::to_string(offset) + ", header", std::move(reason)};
    }

    Source& source_;
    Header header_;
    Bytes offset_ = 0;
};

// The bytes of one array, or of one group of freestream numbers.
struct Piece {
    std::string what;
    Bytes bytes;
};

// The records of one block, each a list of pieces. This is the one place that knows the order of the data.
std::vector<std::vector<Piece>> recordsOf(Content content, const Plot3DForm& form, const Extents& extents) {
    const Bytes vertices = vertexCount(extents);
    const Bytes field = product(vertices, scalarBytes(form));
    std::vector<std::vector<Piece>> records(1);
    if (content == Content::grid) {
        for (const char* name : kCoordinates) records[0].push_back({std::string(name) + " coordinates", field});
        if (form.blanking) records[0].push_back({"blanking", product(vertices, 4)});
    } else {
        records[0].push_back({"freestream numbers", 4 * scalarBytes(form)});
        records.emplace_back();
        for (const char* name : kSolutionFields) records[1].push_back({name, field});
    }
    return records;
}

Bytes payloadOf(const std::vector<Piece>& record) {
    Bytes bytes = 0;
    for (const Piece& piece : record) bytes = sum(bytes, piece.bytes);
    return bytes;
}

// A whole form, beside the header it was made from.
struct Candidate {
    const Header* header;
    Plot3DForm form;
    Bytes end = 0;
    std::optional<Misfit> misfit;
};

class Judge {
public:
    Judge(Source& source, Content content, bool looksAtValues)
        : source_(source), content_(content), looksAtValues_(looksAtValues) {}

    Candidate judge(const Header& header, const Plot3DForm& form) {
        Candidate candidate{&header, form, endOf(header, form), std::nullopt};
        if (candidate.end > source_.size())
            candidate.misfit = cut(candidate);
        else if (auto wrongMark = checkMarks(candidate))
            candidate.misfit = std::move(wrongMark);
        else if (!onlyPaddingFrom(candidate.end))
            candidate.misfit =
                Misfit{"byte " + std::to_string(candidate.end),
                       bytesText(source_.size() - candidate.end) + " follow the last value of the last block"};
        else if (looksAtValues_)
            candidate.misfit = checkValues(candidate);
        return candidate;
    }

private:
    Bytes endOf(const Header& header, const Plot3DForm& form) const {
        Bytes offset = header.dataOffset;
        for (const Extents& extents : header.extents)
            for (const auto& record : recordsOf(content_, form, extents))
                offset = sum(offset, sum(payloadOf(record), form.recordMarks ? 8 : 0));
        return offset;
    }

    Misfit cut(const Candidate& candidate) const {
        const Bytes size = source_.size();
        std::string where;
        Bytes offset = candidate.header->dataOffset;
        const Bytes mark = candidate.form.recordMarks ? 4 : 0;
        for (std::size_t block = 0; block < candidate.header->extents.size() && where.empty(); ++block)
            for (const auto& record : recordsOf(content_, candidate.form, candidate.header->extents[block])) {
                offset = sum(offset, mark);
                for (const Piece& piece : record) {
                    offset = sum(offset, piece.bytes);
                    if (where.empty() && offset > size) where = blockText(block) + ", " + piece.what;
                }
                offset = sum(offset, mark);
                if (where.empty() && offset > size) where = blockText(block) + ", record mark";
            }
        return {"byte " + std::to_string(size) + ", " + where,
                "the file ends here; " +
                    (candidate.header->extents.size() == 1
                         ? extentsText(candidate.header->extents[0]) + " vertices"
                         : std::to_string(candidate.header->extents.size()) + " blocks") +
                    " take " + bytesText(candidate.end) + " when it is read as " + describe(candidate.form)};
    }

    std::optional<Misfit> checkMarks(const Candidate& candidate) {
        if (!candidate.form.recordMarks) return std::nullopt;
        Bytes offset = candidate.header->dataOffset;
        for (std::size_t block = 0; block < candidate.header->extents.size(); ++block)
            for (const auto& record : recordsOf(content_, candidate.form, candidate.header->extents[block])) {
                const Bytes payload = payloadOf(record);
                if (payload > std::numeric_limits<std::uint32_t>::max())
                    return Misfit{"byte " + std::to_string(offset) + ", " + blockText(block),
                                  "a record of " + bytesText(payload) + " is too long for record marks"};
                for (const Bytes place : {offset, offset + 4 + payload}) {
                    const auto value = static_cast<std::uint32_t>(source_.integer(place, candidate.form.byteOrder));
                    if (value != payload)
                        return Misfit{"byte " + std::to_string(place) + ", " + blockText(block) + ", record mark",
                                      std::to_string(value) + " where " + std::to_string(payload) + " belongs"};
                }
                offset += payload + 8;
            }
        return std::nullopt;
    }

    bool onlyPaddingFrom(Bytes end) {
        const Bytes rest = source_.size() - end;
        if (rest >= kPaddingLimit) return false;
        std::vector<char> bytes(static_cast<std::size_t>(rest));
        if (!bytes.empty()) source_.read(end, bytes);
        return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == 0; });
    }

    // Of every block a sample of each piece. Momentum may well be tiny everywhere; coordinates, density and energy are
    // not.
    std::optional<Misfit> checkValues(const Candidate& candidate) {
        const Plot3DForm& form = candidate.form;
        const Bytes mark = form.recordMarks ? 4 : 0;
        Bytes offset = candidate.header->dataOffset;
        for (std::size_t block = 0; block < candidate.header->extents.size(); ++block) {
            const Bytes vertices = vertexCount(candidate.header->extents[block]);
            const auto sample = static_cast<std::size_t>(std::min<Bytes>(vertices, kSampleSize));
            std::size_t unlikely = 0, looked = 0;
            if (content_ == Content::solution) offset += 4 * scalarBytes(form) + 2 * mark;
            offset += mark;
            const std::string place = "byte " + std::to_string(offset) + ", " + blockText(block);
            const std::size_t pieces = content_ == Content::grid ? kCoordinates.size() : kSolutionFields.size();
            for (std::size_t piece = 0; piece < pieces; ++piece, offset += vertices * scalarBytes(form)) {
                if (content_ == Content::solution && piece != 0 && piece + 1 != pieces) continue;
                looked += sample;
                for (const double value : source_.scalars(offset, sample, form)) unlikely += isUnlikely(value);
            }
            if (unlikely * kUnlikelyShare > looked)
                return Misfit{place, std::to_string(unlikely) + " of " + std::to_string(looked) + " values read as " +
                                         describe(form) +
                                         " are beyond belief; state the whole form to read them all the same"};
            if (form.blanking) {
                for (const int flag : source_.integers(offset, sample, form.byteOrder))
                    if (flag > kLargestBlanking || flag < -kLargestBlanking)
                        return Misfit{"byte " + std::to_string(offset) + ", " + blockText(block) + ", blanking",
                                      "the integer " + std::to_string(flag) + " is no blanking of " + describe(form)};
                offset += 4 * vertices;
            }
            offset += mark;
        }
        return std::nullopt;
    }

    static bool isUnlikely(double value) {
        const double size = std::abs(value);
        return std::isfinite(size) && size != 0.0 && (size > kLargestLikely || size < kSmallestLikely);
    }

    Source& source_;
    Content content_;
    bool looksAtValues_;
};

template<typename Value>
std::vector<Value> choices(const std::optional<Value>& stated, Value first, Value second) {
    if (stated) return {*stated};
    return {first, second};
}

// Headers in the order in which they are preferred.
std::vector<Header> readHeaders(Source& source, const Plot3DOptions& options) {
    std::vector<Header> headers;
    for (const bool recordMarks : choices(options.recordMarks, true, false))
        for (const bool multiBlock : choices(options.multiBlock, false, true))
            for (const std::endian byteOrder : choices(options.byteOrder, std::endian::big, std::endian::little)) {
                const Plot3DForm form{recordMarks, multiBlock, byteOrder, false, Plot3DScalar::float32};
                headers.push_back(HeaderReader(source, form).take());
            }
    return headers;
}

// What the headers that make sense ask for; those that do not, or ask for absurdly much, are only counted.
std::string listTried(const std::vector<Header>& headers, const std::vector<Candidate>& candidates, Bytes size) {
    constexpr Bytes kAbsurd = 1000; // times the size of the file
    std::string text;
    std::size_t senseless = 0;
    for (const Header& header : headers) {
        std::vector<Bytes> ends;
        for (const Candidate& candidate : candidates)
            if (candidate.header == &header && candidate.end / kAbsurd <= size) ends.push_back(candidate.end);
        if (ends.empty()) {
            ++senseless;
            continue;
        }
        std::sort(ends.begin(), ends.end());
        text += (text.empty() ? "" : "; ") + describeHeader(header.form) + ", " +
                (header.extents.size() == 1 ? extentsText(header.extents[0])
                                            : std::to_string(header.extents.size()) + " blocks");
        const char* separator = " needs ";
        for (const Bytes end : ends) {
            text += separator + std::to_string(end);
            separator = " or ";
        }
    }
    if (senseless > 0)
        text += (text.empty() ? "" : "; ") + std::to_string(senseless) +
                (senseless == 1 ? " header makes no sense" : " headers make no sense");
    return text;
}

[[noreturn]] void failWithoutFit(Source& source, Content content, const std::vector<Header>& headers,
                                 const std::vector<Candidate>& candidates) {
    if (source.looksLikeText()) source.fail("byte 0", "looks like text; only binary PLOT3D files are read");
    if (candidates.empty()) {
        if (headers.size() == 1) source.fail(headers[0].misfit->place, headers[0].misfit->reason);
        std::string reason = "no form of a PLOT3D file makes sense of its beginning";
        if (source.holds(0, 4))
            reason += ", the integer " + std::to_string(source.integer(0, std::endian::big)) + " read as big-endian, " +
                      std::to_string(source.integer(0, std::endian::little)) + " as little-endian";
        source.fail("byte 0, header", reason);
    }
    const bool isGrid = content == Content::grid;
    Judge opposite(source, isGrid ? Content::solution : Content::grid, true);
    for (const Candidate& candidate : candidates)
        if (!opposite.judge(*candidate.header, candidate.form).misfit)
            source.fail("", isGrid ? "is a solution file where a grid file is wanted"
                                   : "is a grid file where a solution file is wanted");
    // The reading whose end is nearest to that of the file is the likeliest to be what was meant.
    const auto distance = [&](const Candidate& c) {
        return c.end > source.size() ? c.end - source.size() : source.size() - c.end;
    };
    const auto& nearest = *std::min_element(candidates.begin(), candidates.end(),
                                            [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
    std::string reason = nearest.misfit->reason;
    if (candidates.size() > 1)
        reason += " (the file has " + bytesText(source.size()) +
                  "; tried: " + listTried(headers, candidates, source.size()) + ")";
    source.fail(nearest.misfit->place, reason);
}

std::optional<Misfit> compareExtents(const Header& header, const Plot3DGrid& grid) {
    const std::size_t blocks = header.extents.size();
    if (blocks != grid.blocks.size())
        return Misfit{"byte 0, header", "the solution has " + std::to_string(blocks) +
                                            (blocks == 1 ? " block" : " blocks") + ", the grid " +
                                            std::to_string(grid.blocks.size())};
    for (std::size_t block = 0; block < blocks; ++block)
        if (header.extents[block] != grid.blocks[block].extents)
            return Misfit{"byte " + std::to_string(header.placeOfExtents(block)) + ", " + blockText(block),
                          "the extents of the solution, " + extentsText(header.extents[block]) +
                              ", are not those of the grid, " + extentsText(grid.blocks[block].extents)};
    return std::nullopt;
}

int differences(const Plot3DForm& a, const Plot3DForm& b) {
    return (a.recordMarks != b.recordMarks) + (a.multiBlock != b.multiBlock) + (a.byteOrder != b.byteOrder) +
           (a.scalar != b.scalar);
}

// What reading needs to know, found or stated.
struct Layout {
    Plot3DForm form;
    std::vector<Extents> extents;
    Bytes dataOffset;
    Bytes end;
};

// Throws when nothing fits. `grid` is given for solutions.
Layout detect(Source& source, const Plot3DOptions& options, const Plot3DGrid* grid) {
    const Content content = grid ? Content::solution : Content::grid;
    const bool stated =
        options.recordMarks && options.multiBlock && options.byteOrder && options.scalar && (options.blanking || grid);
    Judge judge(source, content, !stated);
    std::vector<Header> headers = readHeaders(source, options);
    std::vector<Candidate> candidates;
    for (const Header& header : headers) {
        if (header.misfit) continue;
        for (const bool blanking : grid ? std::vector<bool>{false} : choices(options.blanking, false, true))
            for (const auto scalar : choices(options.scalar, Plot3DScalar::float32, Plot3DScalar::float64)) {
                Plot3DForm form = header.form;
                form.blanking = blanking;
                form.scalar = scalar;
                candidates.push_back(judge.judge(header, form));
            }
    }

    using Rank = std::tuple<bool, bool, int>;
    const Candidate* best = nullptr;
    Rank bestRank;
    for (const Candidate& candidate : candidates) {
        if (candidate.misfit) continue;
        const Rank rank{grid && compareExtents(*candidate.header, *grid), candidate.end != source.size(),
                        grid ? differences(candidate.form, grid->form) : 0};
        if (best && !(rank < bestRank)) continue;
        best = &candidate;
        bestRank = rank;
    }
    if (!best) failWithoutFit(source, content, headers, candidates);
    if (grid)
        if (const auto misfit = compareExtents(*best->header, *grid)) source.fail(misfit->place, misfit->reason);
    return {best->form, best->header->extents, best->header->dataOffset, best->end};
}

template<typename Read>
auto guarded(const std::filesystem::path& file, const Read& read) {
    try {
        return read();
    } catch (const std::bad_alloc&) {
        throw FileError(file, "", "not enough memory for its contents");
    } catch (const std::length_error&) {
        throw FileError(file, "", "not enough memory for its contents");
    }
}

} // namespace

std::string describe(const Plot3DForm& form) {
    return describeHeader(form) + (form.blanking ? ", blanking, " : ", no blanking, ") +
           (form.scalar == Plot3DScalar::float32 ? "float32" : "float64");
}

Plot3DGrid readPlot3DGrid(const std::filesystem::path& file, const Plot3DOptions& options) {
    return guarded(file, [&] {
        Source source(file);
        const Layout layout = detect(source, options, nullptr);
        const auto& form = layout.form;
        Plot3DGrid grid{form, {}, source.size() - layout.end};
        Bytes offset = layout.dataOffset;
        const auto skip = [&](Bytes bytes) { return std::exchange(offset, offset + bytes); };
        const Bytes mark = form.recordMarks ? 4 : 0;
        for (const Extents& extents : layout.extents) {
            const auto vertices = static_cast<std::size_t>(vertexCount(extents));
            Plot3DBlock& block = grid.blocks.emplace_back();
            block.extents = extents;
            skip(mark);
            for (auto* coordinate : {&block.x, &block.y, &block.z})
                *coordinate = source.scalars(skip(vertices * scalarBytes(form)), vertices, form);
            if (form.blanking) block.blanking = source.integers(skip(vertices * 4), vertices, form.byteOrder);
            skip(mark);
        }
        return grid;
    });
}

Plot3DSolution readPlot3DSolution(const std::filesystem::path& file, const Plot3DGrid& grid,
                                  const Plot3DOptions& options) {
    return guarded(file, [&] {
        Source source(file);
        const Layout layout = detect(source, options, &grid);
        const auto& form = layout.form;
        Plot3DSolution solution{form, {}, source.size() - layout.end};
        Bytes offset = layout.dataOffset;
        const auto skip = [&](Bytes bytes) { return std::exchange(offset, offset + bytes); };
        const Bytes mark = form.recordMarks ? 4 : 0;
        for (const Extents& extents : layout.extents) {
            const auto vertices = static_cast<std::size_t>(vertexCount(extents));
            Plot3DSolutionBlock& block = solution.blocks.emplace_back();
            block.extents = extents;
            skip(mark);
            const auto stream = source.scalars(skip(4 * scalarBytes(form)), 4, form);
            block.mach = stream[0];
            block.alpha = stream[1];
            block.reynolds = stream[2];
            block.time = stream[3];
            skip(2 * mark);
            for (std::size_t i = 0; i < block.fields.size(); ++i)
                block.fields[i] = {kSolutionFields[i],
                                   source.scalars(skip(vertices * scalarBytes(form)), vertices, form)};
            skip(mark);
        }
        return solution;
    });
}

} // namespace tour
