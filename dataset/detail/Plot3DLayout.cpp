#include <dataset/detail/Plot3DLayout.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>
#include <tuple>
#include <utility>

namespace Vantle::detail {

namespace {

using Extents = std::array<std::int32_t, 3>;

constexpr std::size_t SampleSize = 1 << 14; // values per field that are looked at to judge a form
constexpr double LargestLikely = 1e30;
constexpr double SmallestLikely = 1e-30;
constexpr std::size_t UnlikelyShare = 50; // one in so many values may be unlikely
constexpr int LargestBlanking = 1 << 20;

// Sizes stop at the largest number instead of wrapping; no file is that large.
Place product(Place a, Place b) { return b != 0 && a > NoLimit / b ? NoLimit : a * b; }
Place sum(Place a, Place b) { return a > NoLimit - b ? NoLimit : a + b; }

std::string blockText(std::size_t block) { return "block " + std::to_string(block + 1); }

Place vertexCount(const Extents& extents) {
    return product(product(static_cast<Place>(extents[0]), static_cast<Place>(extents[1])),
                   static_cast<Place>(extents[2]));
}

Place scalarUnits(const Plot3DForm& form) { return form.text ? 1 : form.scalar == Plot3DScalar::float32 ? 4 : 8; }
Place integerUnits(const Plot3DForm& form) { return form.text ? 1 : 4; }
Place markUnits(const Plot3DForm& form) { return form.recordMarks ? 4 : 0; }

// What is in a file, and how it is called. Two-dimensional files have no z, and momenta along two axes.
struct Kind {
    Plot3DContent content;
    int dimensions = 3;

    bool isGrid() const { return content == Plot3DContent::grid; }
    std::string name() const {
        return isGrid() ? "grid" : content == Plot3DContent::solution ? "solution" : "function";
    }
    std::string withArticle() const { return "a " + name() + " file"; }
    int fieldsOfBlock(int functions) const {
        if (content == Plot3DContent::functions) return functions;
        return isGrid() ? dimensions : dimensions + 2;
    }
    std::string fieldName(int field) const {
        if (isGrid()) return std::string(1, "xyz"[field]) + " coordinates";
        if (content == Plot3DContent::functions) return "function " + std::to_string(field + 1);
        if (field == 0) return "density";
        return field == dimensions + 1 ? "energy" : std::string("momentum ") + "xyz"[field - 1];
    }
};

std::string extentsText(const Extents& extents, int dimensions = 3) {
    std::string text = std::to_string(extents[0]) + " x " + std::to_string(extents[1]);
    return dimensions == 3 ? text + " x " + std::to_string(extents[2]) : text;
}

std::string describeHeader(const Plot3DForm& form) {
    std::string text = form.text ? "text" : form.byteOrder == std::endian::big ? "big-endian" : "little-endian";
    if (!form.text) text += form.recordMarks ? ", with record marks" : ", without record marks";
    return text + (form.multiBlock ? ", multi-block" : ", single block");
}

// The file, seen as a sequence of bytes, or of the numbers of a text.
class Source {
public:
    explicit Source(const InputFile& file) : myFile(file), myVisit(file, "") {
        if (looksLikeText()) myText = std::make_shared<TextIndex>(myVisit);
    }

    const std::shared_ptr<const TextIndex>& text() const { return myText; }
    Place size() const { return myText ? myText->count() : myFile.size(); }
    bool holds(Place at, Place units) const { return at <= size() && units <= size() - at; }

    std::string sizeText(Place units) const {
        const std::string what = myText ? " numbers" : " bytes";
        return units == NoLimit ? "more" + what + " than can be counted" : std::to_string(units) + what;
    }
    std::string placeText(Place at) const {
        if (!myText) return "byte " + std::to_string(at);
        const std::string number = "number " + std::to_string(at + 1);
        if (at >= size()) return number;
        return "line " + std::to_string(TextReader(myVisit, *myText, at).line()) + ", " + number;
    }

    // Nothing where a text has no integer.
    std::optional<std::int32_t> integer(Place at, std::endian order) const {
        if (!myText) return decode<std::int32_t, std::uint32_t>(bytes<4>(at).data(), order);
        if (!myReader || myReaderPlace != at) myReader.emplace(myVisit, *myText, at);
        myReaderPlace = at + 1; // those of a header follow each other
        double value = 0.0;
        myReader->take(&value, 1);
        if (value != std::floor(value) || std::abs(value) > std::numeric_limits<std::int32_t>::max())
            return std::nullopt;
        return static_cast<std::int32_t>(value);
    }

    template<class Value, class Word, class Take>
    void sample(Place at, std::size_t count, std::endian order, const Take& take) const {
        std::vector<char> buffer(count * sizeof(Value));
        myVisit.read(at, buffer);
        for (std::size_t i = 0; i < count; ++i) take(decode<Value, Word>(&buffer[i * sizeof(Value)], order));
    }

    bool onlyZerosFrom(Place at) const {
        std::vector<char> rest(static_cast<std::size_t>(myFile.size() - at));
        if (!rest.empty()) myVisit.read(at, rest);
        return std::all_of(rest.begin(), rest.end(), [](char c) { return c == 0; });
    }

    void finish() const { myVisit.finish(); }
    [[noreturn]] void fail(const std::string& place, const std::string& reason) const { myFile.fail(place, reason); }

private:
    template<class Value, class Word>
    static Value decode(const char* from, std::endian order) {
        Word word;
        std::memcpy(&word, from, sizeof word);
        return std::bit_cast<Value>(order == std::endian::native ? word : swapped(word));
    }
    template<std::size_t N>
    std::array<char, N> bytes(Place at) const {
        std::array<char, N> into;
        myVisit.read(at, into);
        return into;
    }
    bool looksLikeText() const {
        std::array<char, 64> into;
        const auto head = std::span(into).first(static_cast<std::size_t>(std::min<Place>(into.size(), myFile.size())));
        myVisit.read(0, head);
        return std::all_of(head.begin(), head.end(), [](char c) {
            return (c >= ' ' && c <= '~') || std::isspace(static_cast<unsigned char>(c));
        });
    }

    const InputFile& myFile;
    FileVisit myVisit;
    std::shared_ptr<const TextIndex> myText;
    mutable std::optional<TextReader> myReader;
    mutable Place myReaderPlace = 0; // of the number that it gives next
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
    std::vector<int> functions; // numbers of fields, of function files
    Place dataPlace = 0;
    std::optional<Misfit> misfit;
};

class HeaderReader {
public:
    HeaderReader(const Source& source, const Kind& kind, const Plot3DForm& form) : mySource(source), myKind(kind) {
        myHeader.form = form;
        read();
    }

    Header take() { return std::move(myHeader); }

private:
    void read() {
        const Place unit = integerUnits(myHeader.form);
        Place blocks = 1;
        if (myHeader.form.multiBlock) {
            if (!mark(unit)) return;
            const auto count = integer("the number of blocks");
            if (!count) return;
            if (*count <= 0)
                return misfit(myPlace - unit, "the number of blocks is " + std::to_string(*count) + ", not positive");
            if (!mark(unit)) return;
            blocks = static_cast<Place>(*count);
        }
        const bool isFunctions = myKind.content == Plot3DContent::functions;
        const Place entry = unit * static_cast<Place>(myKind.dimensions + isFunctions);
        if (!mark(entry * blocks)) return;
        if (!mySource.holds(myPlace, entry * blocks))
            return misfit(myPlace, "the file ends in the extents of " + std::to_string(blocks) +
                                       (blocks == 1 ? " block" : " blocks"));
        for (Place block = 0; block < blocks; ++block) {
            const Place start = myPlace;
            Extents extents{1, 1, 1};
            for (int d = 0; d < myKind.dimensions; ++d) {
                const auto value = integer("the extents");
                if (!value) return;
                extents[static_cast<std::size_t>(d)] = *value;
            }
            if (*std::min_element(extents.begin(), extents.end()) <= 0)
                return misfit(start, "the extents of block " + std::to_string(block + 1) + ", " +
                                         extentsText(extents, myKind.dimensions) + ", are not all positive");
            myHeader.extents.push_back(extents);
            if (!isFunctions) continue;
            const auto fields = integer("the numbers of fields");
            if (!fields) return;
            if (*fields <= 0)
                return misfit(start, "the number of fields of block " + std::to_string(block + 1) + ", " +
                                         std::to_string(*fields) + ", is not positive");
            myHeader.functions.push_back(*fields);
        }
        if (!mark(entry * blocks)) return;
        myHeader.dataPlace = myPlace;
    }

    std::optional<std::int32_t> integer(const char* what) {
        const Place unit = integerUnits(myHeader.form);
        if (!mySource.holds(myPlace, unit)) {
            misfit(myPlace, std::string("the file ends in ") + what);
            return std::nullopt;
        }
        const auto value = mySource.integer(myPlace, myHeader.form.byteOrder);
        if (!value) misfit(myPlace, std::string("no integer in ") + what);
        myPlace += unit;
        return value;
    }

    bool mark(Place expected) {
        if (!myHeader.form.recordMarks) return true;
        const auto value = integer("a record mark");
        if (!value) return false;
        if (static_cast<std::uint32_t>(*value) == expected) return true;
        misfit(myPlace - 4, "no record mark of " + std::to_string(expected) + " bytes but " + std::to_string(*value));
        return false;
    }

    void misfit(Place at, std::string reason) {
        myHeader.misfit = Misfit{mySource.placeText(at) + ", header", std::move(reason)};
    }

    const Source& mySource;
    const Kind& myKind;
    Header myHeader;
    Place myPlace = 0;
};

// Arrays of one size, one after the other, or one group of freestream numbers.
struct Piece {
    enum What { freeStream, field, blanking } what;
    Place units; // of each
    Place count = 1;
};
using Record = std::vector<Piece>;

// The records of one block. This is the one place that knows the order of the data.
std::vector<Record> recordsOf(const Kind& kind, const Header& header, const Plot3DForm& form, std::size_t block) {
    const Place vertices = vertexCount(header.extents[block]);
    std::vector<Record> records;
    if (kind.content == Plot3DContent::solution) records.push_back({{Piece::freeStream, 4 * scalarUnits(form)}});
    const int functions = header.functions.empty() ? 0 : header.functions[block];
    records.push_back(
        {{Piece::field, product(vertices, scalarUnits(form)), static_cast<Place>(kind.fieldsOfBlock(functions))}});
    if (form.blanking) records.back().push_back({Piece::blanking, product(vertices, integerUnits(form))});
    return records;
}

Place payloadOf(const Record& record) {
    Place units = 0;
    for (const Piece& piece : record) units = sum(units, product(piece.units, piece.count));
    return units;
}

// A whole form, beside the header it was made from.
struct Candidate {
    const Header* header;
    Plot3DForm form;
    Place end = 0;
    std::optional<Misfit> misfit;
};

class Judge {
public:
    Judge(const Source& source, const Kind& kind, bool looksAtValues)
        : mySource(source), myKind(kind), myLooksAtValues(looksAtValues) {}

    Candidate judge(const Header& header, const Plot3DForm& form) const {
        Candidate candidate{&header, form, endOf(header, form), std::nullopt};
        if (candidate.end > mySource.size())
            candidate.misfit = cut(candidate);
        else if (auto wrongMark = checkMarks(candidate))
            candidate.misfit = std::move(wrongMark);
        else if (!isPadding(candidate))
            candidate.misfit =
                Misfit{mySource.placeText(candidate.end),
                       mySource.sizeText(mySource.size() - candidate.end) + " follow the last value of the last block"};
        else if (myLooksAtValues && !form.text)
            candidate.misfit = checkValues(candidate);
        return candidate;
    }

private:
    Place endOf(const Header& header, const Plot3DForm& form) const {
        Place at = header.dataPlace;
        for (std::size_t block = 0; block < header.extents.size(); ++block)
            for (const auto& record : recordsOf(myKind, header, form, block))
                at = sum(at, sum(payloadOf(record), 2 * markUnits(form)));
        return at;
    }

    Misfit cut(const Candidate& candidate) const {
        const Place size = mySource.size();
        const Header& header = *candidate.header;
        std::string where;
        Place at = header.dataPlace;
        const Place mark = markUnits(candidate.form);
        for (std::size_t block = 0; block < header.extents.size() && where.empty(); ++block)
            for (const auto& record : recordsOf(myKind, header, candidate.form, block)) {
                at = sum(at, mark);
                for (const Piece& piece : record) {
                    const Place start = at;
                    at = sum(at, product(piece.units, piece.count));
                    if (!where.empty() || at <= size) continue;
                    const auto number = size > start ? static_cast<int>((size - start) / piece.units) : 0;
                    where = blockText(block) + ", " +
                            (piece.what == Piece::freeStream ? "freestream numbers"
                             : piece.what == Piece::blanking ? "blanking"
                                                             : myKind.fieldName(number));
                }
                at = sum(at, mark);
                if (where.empty() && at > size) where = blockText(block) + ", record mark";
            }
        return {mySource.placeText(size) + ", " + where,
                "the file ends here; " +
                    (header.extents.size() == 1 ? extentsText(header.extents[0], myKind.dimensions) + " vertices"
                                                : std::to_string(header.extents.size()) + " blocks") +
                    " take " + mySource.sizeText(candidate.end) + " when it is read as " + describe(candidate.form)};
    }

    std::optional<Misfit> checkMarks(const Candidate& candidate) const {
        if (!candidate.form.recordMarks) return std::nullopt;
        Place at = candidate.header->dataPlace;
        for (std::size_t block = 0; block < candidate.header->extents.size(); ++block)
            for (const auto& record : recordsOf(myKind, *candidate.header, candidate.form, block)) {
                const Place payload = payloadOf(record);
                if (payload > std::numeric_limits<std::uint32_t>::max())
                    return Misfit{mySource.placeText(at) + ", " + blockText(block),
                                  "a record of " + mySource.sizeText(payload) + " is too long for record marks"};
                for (const Place place : {at, at + 4 + payload}) {
                    const auto value = static_cast<std::uint32_t>(*mySource.integer(place, candidate.form.byteOrder));
                    if (value != payload)
                        return Misfit{mySource.placeText(place) + ", " + blockText(block) + ", record mark",
                                      std::to_string(value) + " where " + std::to_string(payload) + " belongs"};
                }
                at += payload + 8;
            }
        return std::nullopt;
    }

    bool isPadding(const Candidate& candidate) const {
        const Place rest = mySource.size() - candidate.end;
        if (candidate.form.text) return rest == 0;
        return rest < Plot3DPaddingLimit && mySource.onlyZerosFrom(candidate.end);
    }

    // Of every block a sample of each piece. Momentum may well be tiny everywhere; coordinates, density and energy are
    // not.
    std::optional<Misfit> checkValues(const Candidate& candidate) const {
        const Plot3DForm& form = candidate.form;
        const Header& header = *candidate.header;
        const Place mark = markUnits(form);
        Place at = header.dataPlace;
        for (std::size_t block = 0; block < header.extents.size(); ++block) {
            const Place vertices = vertexCount(header.extents[block]);
            const auto sample = static_cast<std::size_t>(std::min<Place>(vertices, SampleSize));
            std::size_t unlikely = 0, looked = 0;
            if (myKind.content == Plot3DContent::solution) at += 4 * scalarUnits(form) + 2 * mark;
            at += mark;
            const std::string place = mySource.placeText(at) + ", " + blockText(block);
            const int fields = myKind.fieldsOfBlock(0);
            for (int field = 0; field < fields; ++field, at += vertices * scalarUnits(form)) {
                if (myKind.content == Plot3DContent::solution && field != 0 && field + 1 != fields) continue;
                looked += sample;
                const auto look = [&](double value) { unlikely += isUnlikely(value); };
                if (form.scalar == Plot3DScalar::float32)
                    mySource.sample<float, std::uint32_t>(at, sample, form.byteOrder, look);
                else
                    mySource.sample<double, std::uint64_t>(at, sample, form.byteOrder, look);
            }
            if (unlikely * UnlikelyShare > looked)
                return Misfit{place, std::to_string(unlikely) + " of " + std::to_string(looked) + " values read as " +
                                         describe(form) +
                                         " are beyond belief; state the whole form to read them all the same"};
            if (form.blanking) {
                std::optional<std::int32_t> odd;
                mySource.sample<std::int32_t, std::uint32_t>(at, sample, form.byteOrder, [&](std::int32_t flag) {
                    if (!odd && (flag > LargestBlanking || flag < -LargestBlanking)) odd = flag;
                });
                if (odd)
                    return Misfit{mySource.placeText(at) + ", " + blockText(block) + ", blanking",
                                  "the integer " + std::to_string(*odd) + " is no blanking of " + describe(form)};
                at += 4 * vertices;
            }
            at += mark;
        }
        return std::nullopt;
    }

    static bool isUnlikely(double value) {
        const double size = std::abs(value);
        return std::isfinite(size) && size != 0.0 && (size > LargestLikely || size < SmallestLikely);
    }

    const Source& mySource;
    Kind myKind;
    bool myLooksAtValues;
};

template<class Value>
std::vector<Value> choices(const std::optional<Value>& stated, Value first, Value second) {
    if (stated) return {*stated};
    return {first, second};
}

// Headers in the order in which they are preferred.
std::vector<Header> readHeaders(const Source& source, const Kind& kind, const Plot3DOptions& options) {
    std::vector<Header> headers;
    if (source.text()) {
        for (const bool multiBlock : choices(options.multiBlock, false, true)) {
            const Plot3DForm form{false, multiBlock, std::endian::big, false, Plot3DScalar::float64, true};
            headers.push_back(HeaderReader(source, kind, form).take());
        }
        return headers;
    }
    for (const bool recordMarks : choices(options.recordMarks, true, false))
        for (const bool multiBlock : choices(options.multiBlock, false, true))
            for (const std::endian byteOrder : choices(options.byteOrder, std::endian::big, std::endian::little)) {
                const Plot3DForm form{recordMarks, multiBlock, byteOrder, false, Plot3DScalar::float32, false};
                headers.push_back(HeaderReader(source, kind, form).take());
            }
    return headers;
}

std::vector<Candidate> judgeAll(const Source& source, const Kind& kind, const std::vector<Header>& headers,
                                const Plot3DOptions& options) {
    const bool stated = options.recordMarks && options.multiBlock && options.byteOrder && options.scalar &&
                        (options.blanking || !kind.isGrid());
    // Nothing is known about the values of functions.
    const Judge judge(source, kind, !stated && kind.content != Plot3DContent::functions);
    std::vector<Candidate> candidates;
    for (const Header& header : headers) {
        if (header.misfit) continue;
        for (const bool blanking : kind.isGrid() ? choices(options.blanking, false, true) : std::vector<bool>{false})
            for (const auto scalar : header.form.text
                                         ? std::vector{Plot3DScalar::float64}
                                         : choices(options.scalar, Plot3DScalar::float32, Plot3DScalar::float64)) {
                Plot3DForm form = header.form;
                form.blanking = blanking;
                form.scalar = scalar;
                candidates.push_back(judge.judge(header, form));
            }
    }
    return candidates;
}

// What the headers that make sense ask for; those that do not, or ask for absurdly much, are only counted.
std::string listTried(const std::vector<Header>& headers, const std::vector<Candidate>& candidates, Place size) {
    constexpr Place Absurd = 1000; // times the size of the file
    std::string text;
    std::size_t senseless = 0;
    for (const Header& header : headers) {
        std::vector<Place> ends;
        for (const Candidate& candidate : candidates)
            if (candidate.header == &header && candidate.end / Absurd <= size) ends.push_back(candidate.end);
        if (ends.empty()) {
            ++senseless;
            continue;
        }
        std::sort(ends.begin(), ends.end());
        text += (text.empty() ? "" : "; ") + describeHeader(header.form) + ", " +
                (header.extents.size() == 1 ? extentsText(header.extents[0])
                                            : std::to_string(header.extents.size()) + " blocks");
        const char* separator = " needs ";
        for (const Place end : ends) {
            text += separator + std::to_string(end);
            separator = " or ";
        }
    }
    if (senseless > 0)
        text += (text.empty() ? "" : "; ") + std::to_string(senseless) +
                (senseless == 1 ? " header makes no sense" : " headers make no sense");
    return text;
}

// A form of another content, or of fewer dimensions, that fits.
void failAsAnother(const Source& source, const Kind& kind, const Plot3DOptions& options) {
    for (const int dimensions : {3, 2})
        for (const Plot3DContent content : {Plot3DContent::grid, Plot3DContent::solution, Plot3DContent::functions}) {
            const Kind other{content, dimensions};
            if (dimensions == 3 && content == kind.content) continue;
            const std::vector<Header> headers = readHeaders(source, other, options);
            for (const Candidate& candidate : judgeAll(source, other, headers, options)) {
                if (candidate.misfit) continue;
                if (dimensions == 3)
                    source.fail("", "is " + other.withArticle() + " where " + kind.withArticle() + " is wanted");
                source.fail("", "is a two-dimensional " + other.name() + " file (" + describe(candidate.form) + ", " +
                                    (headers.size() == 1 || candidate.header->extents.size() == 1
                                         ? extentsText(candidate.header->extents[0], 2) + " vertices"
                                         : std::to_string(candidate.header->extents.size()) + " blocks") +
                                    "); only three-dimensional ones are read");
            }
        }
}

[[noreturn]] void failWithoutFit(const Source& source, const Kind& kind, const Plot3DOptions& options,
                                 const std::vector<Header>& headers, const std::vector<Candidate>& candidates) {
    failAsAnother(source, kind, options);
    if (candidates.empty()) {
        if (headers.size() == 1) source.fail(headers[0].misfit->place, headers[0].misfit->reason);
        std::string reason = "no form of a PLOT3D file makes sense of its beginning";
        if (!source.text() && source.holds(0, 4))
            reason += ", the integer " + std::to_string(*source.integer(0, std::endian::big)) +
                      " read as big-endian, " + std::to_string(*source.integer(0, std::endian::little)) +
                      " as little-endian";
        source.fail((source.text() ? "line 1" : "byte 0") + std::string(", header"), reason);
    }
    // The reading whose end is nearest to that of the file is the likeliest to be what was meant.
    const auto distance = [&](const Candidate& c) {
        return c.end > source.size() ? c.end - source.size() : source.size() - c.end;
    };
    const auto& nearest = *std::min_element(candidates.begin(), candidates.end(),
                                            [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
    if (candidates.size() == 1) source.fail(nearest.misfit->place, nearest.misfit->reason);
    source.fail(nearest.misfit->place, nearest.misfit->reason + " (no form fits its " + source.sizeText(source.size()) +
                                           ": " + listTried(headers, candidates, source.size()) + ")");
}

// How extents differ from those of the grid.
std::optional<Misfit> compareExtents(const Kind& kind, const Header& header, const Plot3DShape& grid) {
    if (header.extents.size() != grid.extents.size())
        return Misfit{"header", "the " + kind.name() + " file has " + std::to_string(header.extents.size()) +
                                    (header.extents.size() == 1 ? " block" : " blocks") + ", the grid " +
                                    std::to_string(grid.extents.size())};
    for (std::size_t block = 0; block < grid.extents.size(); ++block)
        if (header.extents[block] != grid.extents[block])
            return Misfit{blockText(block), "the extents of the " + kind.name() + ", " +
                                                extentsText(header.extents[block]) + ", are not those of the grid, " +
                                                extentsText(grid.extents[block])};
    return std::nullopt;
}

int differences(const Plot3DForm& a, const Plot3DForm& b) {
    return (a.recordMarks != b.recordMarks) + (a.multiBlock != b.multiBlock) + (a.byteOrder != b.byteOrder) +
           (a.scalar != b.scalar) + (a.text != b.text);
}

Plot3DLayout layOut(const Source& source, const Kind& kind, const Candidate& candidate) {
    Plot3DLayout layout{kind.content, candidate.form, source.size() - candidate.end, {}, source.text()};
    const Header& header = *candidate.header;
    const Place mark = markUnits(candidate.form);
    Place at = header.dataPlace;
    for (std::size_t block = 0; block < header.extents.size(); ++block) {
        const auto records = recordsOf(kind, header, candidate.form, block);
        Plot3DLayout::Block& made = layout.blocks.emplace_back();
        made.extents = header.extents[block];
        made.variables =
            static_cast<std::size_t>(kind.fieldsOfBlock(header.functions.empty() ? 0 : header.functions[block]));
        made.freeStream = at + mark;
        for (std::size_t r = 0; r < records.size(); ++r, at += 2 * mark) {
            made.fields = at + mark;
            at += payloadOf(records[r]);
        }
    }
    return layout;
}

} // namespace

Plot3DLayout findLayout(const InputFile& file, Plot3DContent content, const Plot3DOptions& options,
                        const Plot3DShape* grid, bool& isFit) {
    const Kind kind{content};
    const Source source(file);
    const std::vector<Header> headers = readHeaders(source, kind, options);
    const std::vector<Candidate> candidates = judgeAll(source, kind, headers, options);

    using Rank = std::tuple<bool, bool, int>;
    const Candidate* best = nullptr;
    Rank bestRank;
    for (const Candidate& candidate : candidates) {
        if (candidate.misfit) continue;
        const Rank rank{grid && compareExtents(kind, *candidate.header, *grid), candidate.end != source.size(),
                        grid ? differences(candidate.form, grid->form) : 0};
        if (best && !(rank < bestRank)) continue;
        best = &candidate;
        bestRank = rank;
    }
    isFit = best != nullptr;
    if (!best) failWithoutFit(source, kind, options, headers, candidates);
    if (grid)
        if (const auto misfit = compareExtents(kind, *best->header, *grid)) source.fail(misfit->place, misfit->reason);
    source.finish();
    return layOut(source, kind, *best);
}

} // namespace Vantle::detail

namespace Vantle {

std::string describe(const Plot3DForm& form) {
    std::string text = detail::describeHeader(form) + (form.blanking ? ", blanking" : ", no blanking");
    if (!form.text) text += form.scalar == Plot3DScalar::float32 ? ", float32" : ", float64";
    return text;
}

} // namespace Vantle
