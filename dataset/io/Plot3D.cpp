#include <dataset/detail/Plot3DLayout.hpp>
#include <dataset/io/FileError.hpp>
#include <dataset/io/Plot3D.hpp>
#include <model/hestra/Chunk.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <set>
#include <stdexcept>

namespace Vantle {

using Hestra::Ref;
using Hestra::StrongPtr;
using Hestra::WeakPtr;

namespace {

constexpr std::size_t PieceValues = 1 << 13; // values that are converted at a time: what they need stays in the cache

const std::vector<Plot3DName> GridNames = {{"x", ""}, {"y", ""}, {"z", ""}};
const std::vector<Plot3DName> SolutionNames = {
    {"density", ""}, {"momentum x", "momentum"}, {"momentum y", ""}, {"momentum z", ""}, {"energy", ""}};

template<class Stored, class Word, bool Swap, class T>
void convert(const char* from, T* into, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        Word word;
        std::memcpy(&word, from + i * sizeof word, sizeof word);
        if constexpr (Swap) word = detail::swapped(word);
        into[i] = static_cast<T>(std::bit_cast<Stored>(word));
    }
}

template<class Stored, class Word, class T>
void convert(const char* from, T* into, std::size_t count, std::endian order) {
    if (order == std::endian::native)
        convert<Stored, Word, false>(from, into, count);
    else
        convert<Stored, Word, true>(from, into, count);
}

std::string blockText(std::size_t block) { return "block " + std::to_string(block + 1); }

} // namespace

struct Plot3DFile::Contents {
    explicit Contents(const std::filesystem::path& path) : file(path) {}

    detail::InputFile file;
    detail::Plot3DLayout layout;
    std::vector<Shape> shapes;
    std::vector<Plot3DName> names;

    static Plot3DFile open(const std::filesystem::path& path, Plot3DContent content, const Plot3DFile* grid,
                           const Plot3DOptions& options, bool& isFit) {
        try {
            const auto contents = std::make_shared<Contents>(path);
            detail::Plot3DShape shape;
            if (grid) {
                shape.form = grid->form();
                for (const auto& block : grid->myContents->layout.blocks) shape.extents.push_back(block.extents);
            }
            contents->layout = detail::findLayout(contents->file, content, options, grid ? &shape : nullptr, isFit);
            for (const auto& block : contents->layout.blocks) {
                MultiIndex<3> extents;
                for (int d = 0; d < 3; ++d)
                    extents[d] = static_cast<index_t>(block.extents[static_cast<std::size_t>(d)]);
                contents->shapes.push_back({extents, block.variables});
            }
            contents->names = content == Plot3DContent::grid ? GridNames : SolutionNames;
            return Plot3DFile(contents);
        } catch (const std::bad_alloc&) {
            throw FileError(path, "", "not enough memory for its header");
        } catch (const std::length_error&) {
            throw FileError(path, "", "not enough memory for its header");
        }
    }
};

// Reads one array of a file from its beginning to its end.
class Plot3DFile::Cursor {
public:
    Cursor(const Contents& contents, const detail::FileVisit& visit, detail::Place place)
        : myForm(contents.layout.form), myVisit(visit), myPlace(place) {
        if (contents.layout.text) myText.emplace(visit, *contents.layout.text, place);
    }

    // At most PieceValues at a time.
    template<class T>
    void take(T* into, std::size_t count) {
        if (myText) return myText->take(into, count);
        if constexpr (std::is_same_v<T, int>)
            takeBinary<std::int32_t, std::uint32_t>(into, count);
        else if (myForm.scalar == Plot3DScalar::float32)
            takeBinary<float, std::uint32_t>(into, count);
        else
            takeBinary<double, std::uint64_t>(into, count);
    }

    // All of it, as an array. Memory is touched once: what is converted is appended while it is in the cache.
    template<class T>
    std::vector<T> takeAll(std::size_t count) {
        std::vector<T> values;
        Hestra::reserveLargeArray(values, count);
        std::vector<T> piece(std::min(count, PieceValues));
        for (std::size_t first = 0; first < count; first += PieceValues) {
            const std::size_t n = std::min(PieceValues, count - first);
            Hestra::Pulse::beat(static_cast<double>(first) / static_cast<double>(count));
            take(piece.data(), n);
            values.insert(values.end(), piece.data(), piece.data() + n);
        }
        return values;
    }

private:
    template<class Stored, class Word, class T>
    void takeBinary(T* into, std::size_t count) {
        const std::size_t bytes = count * sizeof(Word);
        if (std::is_same_v<Stored, T> && myForm.byteOrder == std::endian::native) {
            myVisit.read(myPlace, std::span(reinterpret_cast<char*>(into), bytes));
        } else {
            if (myBuffer.size() < bytes) myBuffer.resize(bytes);
            myVisit.read(myPlace, std::span(myBuffer).first(bytes));
            convert<Stored, Word>(myBuffer.data(), into, count, myForm.byteOrder);
        }
        myPlace += bytes;
    }

    Plot3DForm myForm;
    const detail::FileVisit& myVisit;
    detail::Place myPlace;
    std::vector<char> myBuffer;
    std::optional<detail::TextReader> myText;
};

Plot3DFile Plot3DFile::openGrid(const std::filesystem::path& file, const Plot3DOptions& options) {
    bool isFit = false;
    return Contents::open(file, Plot3DContent::grid, nullptr, options, isFit);
}

Plot3DFile Plot3DFile::openSolution(const std::filesystem::path& file, const Plot3DFile& grid,
                                    const Plot3DOptions& options) {
    bool isFit = false;
    return Contents::open(file, Plot3DContent::solution, &grid, options, isFit);
}

Plot3DFile Plot3DFile::openFunctions(const std::filesystem::path& file, const Plot3DFile& grid,
                                     const std::vector<Plot3DName>& names, const Plot3DOptions& options) {
    bool isFit = false;
    const Plot3DFile opened = Contents::open(file, Plot3DContent::functions, &grid, options, isFit);
    std::size_t most = 0;
    for (const Shape& shape : opened.myContents->shapes) most = std::max(most, shape.variables);
    const auto contents = std::make_shared<Contents>(*opened.myContents);
    contents->names = names;
    if (names.empty())
        for (std::size_t n = 1; n <= most; ++n) contents->names.push_back({"function" + std::to_string(n), ""});
    if (contents->names.size() != most)
        throw FileError(file, "header",
                        "has " + std::to_string(most) + " functions, for which there are " +
                            std::to_string(names.size()) + " names");
    return Plot3DFile(contents);
}

Plot3DFile Plot3DFile::openFields(const std::filesystem::path& file, const Plot3DFile& grid,
                                  const std::vector<Plot3DName>& names, const Plot3DOptions& options) {
    // Functions first: where they have their number a solution has a freestream number, which makes no sense as one.
    // What a solution demands is weaker, since zeros may follow the last value.
    bool isFunctions = false, isSolution = false;
    std::exception_ptr noFunctions;
    try {
        (void)Contents::open(file, Plot3DContent::functions, &grid, options, isFunctions);
    } catch (const FileError&) {
        noFunctions = std::current_exception();
    }
    if (!noFunctions) return openFunctions(file, grid, names, options);
    try {
        return Contents::open(file, Plot3DContent::solution, &grid, options, isSolution);
    } catch (const FileError&) {
        if (isFunctions && !isSolution) std::rethrow_exception(noFunctions); // of another shape
        throw;
    }
}

const std::filesystem::path& Plot3DFile::path() const noexcept { return myContents->file.path(); }
Plot3DContent Plot3DFile::content() const noexcept { return myContents->layout.content; }
const Plot3DForm& Plot3DFile::form() const noexcept { return myContents->layout.form; }
std::uintmax_t Plot3DFile::paddingBytes() const noexcept { return myContents->layout.padding; }
std::size_t Plot3DFile::blocks() const noexcept { return myContents->shapes.size(); }
const std::vector<Plot3DName>& Plot3DFile::names() const noexcept { return myContents->names; }

const Plot3DFile::Shape& Plot3DFile::shape(std::size_t block) const {
    if (block >= blocks())
        throw FileError(path(), blockText(block), "there are " + std::to_string(blocks()) + " blocks");
    return myContents->shapes[block];
}

std::string Plot3DFile::placeOf(std::size_t block, std::size_t variable) const {
    if (variable >= variables(block))
        throw FileError(path(), blockText(block), "there are " + std::to_string(variables(block)) + " fields");
    return blockText(block) + ", " + names()[variable].field;
}

namespace {

// Turns what standard containers throw into an error that says what was being read.
template<class Read>
auto withinMemory(const std::filesystem::path& file, const std::string& place, const Read& read) {
    try {
        return read();
    } catch (const std::bad_alloc&) {
        throw FileError(file, place, "not enough memory for its values");
    } catch (const std::length_error&) {
        throw FileError(file, place, "not enough memory for its values");
    }
}

} // namespace

template<class T>
Ref<ReferencingMemArray<3, T>> Plot3DFile::read(std::size_t block, std::size_t variable,
                                                const WeakPtr<CreativeArrayBase>& creator) const {
    const std::string place = placeOf(block, variable);
    return withinMemory(path(), place, [&] {
        const detail::Plot3DLayout& layout = myContents->layout;
        const std::size_t count = extents(block).product();
        const detail::FileVisit visit(myContents->file, place);
        Cursor cursor(*myContents, visit, layout.blocks[block].fields + variable * count * layout.scalarUnits());
        auto values = MemArray<3, T>::makeMemArray(cursor.takeAll<T>(count), extents(block), creator);
        visit.finish();
        return values;
    });
}

template Ref<ReferencingMemArray<3, float>> Plot3DFile::read<float>(std::size_t, std::size_t,
                                                                    const WeakPtr<CreativeArrayBase>&) const;
template Ref<ReferencingMemArray<3, double>> Plot3DFile::read<double>(std::size_t, std::size_t,
                                                                      const WeakPtr<CreativeArrayBase>&) const;

StrongPtr<MemBase> Plot3DFile::readAsStored(std::size_t block, std::size_t variable,
                                            const WeakPtr<CreativeArrayBase>& creator) const {
    if (form().scalar == Plot3DScalar::float32) return read<float>(block, variable, creator);
    return read<double>(block, variable, creator);
}

Ref<ReferencingMemArray<3, int>> Plot3DFile::readBlanking(std::size_t block,
                                                          const WeakPtr<CreativeArrayBase>& creator) const {
    const std::size_t count = shape(block).extents.product();
    const std::string place = blockText(block) + ", blanking";
    return withinMemory(path(), place, [&] {
        std::vector<int> flags;
        if (form().blanking) {
            const detail::Plot3DLayout& layout = myContents->layout;
            const detail::FileVisit visit(myContents->file, place);
            Cursor cursor(*myContents, visit, layout.blocks[block].fields + 3 * count * layout.scalarUnits());
            flags = cursor.takeAll<int>(count);
            visit.finish();
        } else {
            flags.assign(count, 1);
        }
        return MemArray<3, int>::makeMemArray(std::move(flags), extents(block), creator);
    });
}

Plot3DFile::FreeStream Plot3DFile::readFreeStream(std::size_t block) const {
    const std::string place = blockText(block) + ", freestream numbers";
    if (content() != Plot3DContent::solution) throw FileError(path(), place, "stand in solution files only");
    (void)shape(block);
    const detail::FileVisit visit(myContents->file, place);
    std::array<double, 4> numbers;
    Cursor(*myContents, visit, myContents->layout.blocks[block].freeStream).take(numbers.data(), numbers.size());
    visit.finish();
    return {numbers[0], numbers[1], numbers[2], numbers[3]};
}

void Plot3DFile::readTogether(std::size_t block, const std::vector<std::size_t>& variables,
                              const TakePiece& take) const {
    std::string place = blockText(block);
    for (const std::size_t variable : variables) {
        (void)placeOf(block, variable);
        place += ", " + names()[variable].field;
    }
    const detail::Plot3DLayout& layout = myContents->layout;
    const std::size_t count = extents(block).product();
    const detail::FileVisit visit(myContents->file, place);
    std::vector<Cursor> cursors;
    cursors.reserve(variables.size());
    for (const std::size_t variable : variables)
        cursors.emplace_back(*myContents, visit, layout.blocks[block].fields + variable * count * layout.scalarUnits());
    std::vector<std::vector<double>> values(variables.size(), std::vector<double>(std::min(count, PieceValues)));
    std::vector<const double*> pieces;
    for (const auto& each : values) pieces.push_back(each.data());
    for (std::size_t first = 0; first < count; first += PieceValues) {
        const std::size_t n = std::min(PieceValues, count - first);
        Hestra::Pulse::beat(static_cast<double>(first) / static_cast<double>(count));
        for (std::size_t v = 0; v < cursors.size(); ++v) cursors[v].take(values[v].data(), n);
        take(first, n, pieces.data());
    }
    visit.finish();
}

template<class Element>
Ref<ReferencingMemArray<3, Element>> Plot3DFile::readTriples(std::size_t block, std::size_t first,
                                                             const WeakPtr<CreativeArrayBase>& creator) const {
    using Number = typename ElementTraits<Element>::component_type;
    return withinMemory(path(), blockText(block), [&] {
        std::vector<Element> elements;
        Hestra::reserveLargeArray(elements, extents(block).product());
        readTogether(block, {first, first + 1, first + 2},
                     [&](std::size_t, std::size_t count, const double* const* values) {
                         for (std::size_t i = 0; i < count; ++i)
                             elements.emplace_back(static_cast<Number>(values[0][i]), static_cast<Number>(values[1][i]),
                                                   static_cast<Number>(values[2][i]));
                     });
        return MemArray<3, Element>::makeMemArray(std::move(elements), extents(block), creator);
    });
}

template Ref<ReferencingMemArray<3, Orvix::PhysicalSpace::point>>
Plot3DFile::readTriples(std::size_t, std::size_t, const WeakPtr<CreativeArrayBase>&) const;
template Ref<ReferencingMemArray<3, Orvix::PhysicalSpace::vector>>
Plot3DFile::readTriples(std::size_t, std::size_t, const WeakPtr<CreativeArrayBase>&) const;
template Ref<ReferencingMemArray<3, FloatPoint>> Plot3DFile::readTriples(std::size_t, std::size_t,
                                                                         const WeakPtr<CreativeArrayBase>&) const;
template Ref<ReferencingMemArray<3, FloatVector>> Plot3DFile::readTriples(std::size_t, std::size_t,
                                                                          const WeakPtr<CreativeArrayBase>&) const;

std::vector<Plot3DName> readPlot3DNames(const std::filesystem::path& path) {
    const detail::InputFile file(path);
    const detail::FileVisit visit(file, "");
    constexpr std::uint64_t Largest = 1 << 20;
    if (file.size() > Largest) file.fail("", "is too large for a file of names");
    std::string text(static_cast<std::size_t>(file.size()), '\0');
    visit.read(0, text);
    visit.finish();
    if (constexpr std::string_view Mark = "\xef\xbb\xbf"; text.starts_with(Mark))
        text.erase(0, Mark.size()); // of UTF-8

    const auto trimmed = [](std::string_view part) {
        const std::size_t first = part.find_first_not_of(" \t\r");
        if (first == std::string_view::npos) return std::string();
        return std::string(part.substr(first, part.find_last_not_of(" \t\r") + 1 - first));
    };
    std::vector<Plot3DName> names;
    std::set<std::string> seen;
    std::vector<std::size_t> lines;
    std::size_t line = 0;
    for (std::size_t begin = 0; begin < text.size(); ++line) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view whole = std::string_view(text).substr(begin, end - begin);
        begin = end + 1;
        const std::string place = "line " + std::to_string(line + 1);
        if (std::any_of(whole.begin(), whole.end(),
                        [](char c) { return (c >= 0 && c < ' ' && c != '\t' && c != '\r'); }))
            file.fail(place, "is no text");
        const std::size_t semicolon = std::min(whole.find(';'), whole.size());
        Plot3DName name{trimmed(whole.substr(0, semicolon)),
                        trimmed(whole.substr(std::min(semicolon + 1, whole.size())))};
        if (name.field.empty() && name.vector.empty()) continue;
        if (name.field.empty()) file.fail(place, "no name in front of the semicolon");
        for (const std::string* each : {&name.field, &name.vector})
            if (!each->empty() && !seen.insert(*each).second) file.fail(place, "the name '" + *each + "' stands twice");
        names.push_back(std::move(name));
        lines.push_back(line + 1);
    }
    if (names.empty()) file.fail("", "has no names");
    for (std::size_t n = 0; n < names.size(); ++n)
        if (!names[n].vector.empty() && n + 3 > names.size())
            file.fail("line " + std::to_string(lines[n]),
                      "the vector '" + names[n].vector + "' has no three components");
    return names;
}

} // namespace Vantle
