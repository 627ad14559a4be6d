#include <dataset/detail/VtkDocument.hpp>
#include <dataset/io/FileArray.hpp>
#include <dataset/io/FileError.hpp>
#include <dataset/io/Vtk.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Vantle {

namespace fs = std::filesystem;

using detail::VtkDocument;
using detail::VtkMeter;
using detail::VtkSeries;
using detail::VtkSink;
using Hestra::StrongPtr;
using point = Orvix::PhysicalSpace::point;

namespace {

// ---- Elements of arrays ----

template<class Number>
constexpr const char* numberName() {
    if constexpr (std::is_same_v<Number, double>) return "Float64";
    if constexpr (std::is_same_v<Number, float>) return "Float32";
    if constexpr (std::is_same_v<Number, short>) return "Int16";
    if constexpr (std::is_same_v<Number, int>) return "Int32";
    if constexpr (std::is_same_v<Number, unsigned char>) return "UInt8";
    if constexpr (std::is_same_v<Number, unsigned short>) return "UInt16";
    if constexpr (std::is_same_v<Number, unsigned int>) return "UInt32";
    if constexpr (std::is_same_v<Number, unsigned long long>) return "UInt64";
    return "";
}

// Hands out computed values piece by piece.
template<class T, class Compute>
void putComputed(VtkSink& sink, std::uint64_t count, const Compute& compute) {
    using Number = typename ElementTraits<T>::component_type;
    constexpr std::uint64_t Piece = 4096;
    std::vector<T> values(static_cast<std::size_t>(std::min(count, Piece)));
    for (std::uint64_t first = 0; first < count; first += Piece) {
        const auto n = static_cast<std::size_t>(std::min(Piece, count - first));
        for (std::size_t i = 0; i < n; ++i) values[i] = compute(first + i);
        sink.put(reinterpret_cast<const Number*>(values.data()), n * ElementTraits<T>::components);
    }
}

template<class T>
bool putElements(const MemBase& data, VtkSink& sink) {
    using Number = typename ElementTraits<T>::component_type;
    static_assert(sizeof(T) == sizeof(Number) * ElementTraits<T>::components);
    if (const auto* const typed = dynamic_cast<const TypedArray<T>*>(&data)) {
        const index_t count = typed->nElements();
        if (count > 0 && typed->getIterator().stride == 1)
            sink.put(reinterpret_cast<const Number*>(&typed->element(0)), count * ElementTraits<T>::components);
        else
            putComputed<T>(sink, count, [&](index_t k) { return typed->element(k); });
        return true;
    }
    if (const auto* const computed = dynamic_cast<const DataCreator<T>*>(&data)) {
        putComputed<T>(sink, data.nElements(), [&](index_t k) { return computed->create(k); });
        return true;
    }
    return false;
}

// What a file says of an element type, and how its arrays are written.
struct ElementKind {
    const char* type = nullptr;
    std::size_t numberBytes = 0;
    int components = 0;
    bool (*put)(const MemBase&, VtkSink&) = nullptr;
};

template<class... T>
std::optional<ElementKind> kindAmong(const VantleTypeIndex& type, TypeList<T...>) {
    std::optional<ElementKind> found;
    const auto look = [&]<class E>(E*) {
        using Number = typename ElementTraits<E>::component_type;
        if constexpr (ElementTraits<E>::components > 0)
            if constexpr (numberName<Number>()[0] != '\0')
                if (type == VantleTypeIndex(typeid(E)))
                    found = {numberName<Number>(), sizeof(Number), ElementTraits<E>::components, putElements<E>};
    };
    (look(static_cast<T*>(nullptr)), ...);
    return found;
}

std::optional<ElementKind> kindOf(const VantleTypeIndex& type) {
    const auto registered = kindAmong(type, RegisteredElementTypes());
    return registered ? registered : kindAmong(type, UnregisteredElementTypes());
}

// ---- Parts of a grid ----

std::string placeOf(const std::string& field, const StrongPtr<FragmentID>& id) {
    const std::string name = "field '" + field + "'";
    return id ? "block '" + id->name() + "', " + name : name;
}

// Data of one fragment that are made when they are written, if their type and size are known without.
class Writable {
public:
    Writable(const fs::path& file, std::string name, const Field& field, const StrongPtr<FragmentID>& id)
        : myFile(file), myName(std::move(name)), myField(&field), myID(id), myCreator(field.getCreator(id)) {
        if (!myCreator) return;
        mySize = getSize(*myCreator);
        VantleTypeIndex type = myCreator->elementType();
        if (mySize.rank() == 0 || !type) {
            myData = data();
            mySize = myData->getDynamicSize();
            type = myData->elementIndex();
        }
        myKind = kindOf(type);
        if (!myKind) fail("its elements are no numbers, nor made of them");
    }

    [[nodiscard]] explicit operator bool() const noexcept { return bool(myCreator); }
    [[nodiscard]] const DynamicSize& size() const noexcept { return mySize; }
    [[nodiscard]] std::uint64_t elements() const { return mySize.total(); }
    [[nodiscard]] const ElementKind& kind() const noexcept { return *myKind; }

    /// The data, which stay until they are written.
    const StrongPtr<MemBase>& hold() {
        if (!myData) myData = data();
        return myData;
    }

    /// What a series has taken over is not to be held here as well.
    void release() { myData = nullptr; }

    [[nodiscard]] VtkSeries series() const {
        const auto write = [self = *this](VtkSink& sink) {
            const StrongPtr<MemBase> values = self.myData ? self.myData : self.data();
            if (values->getDynamicSize() != self.size() || !self.myKind->put(*values, sink))
                self.fail("is not of the type and size that were announced");
        };
        return {myName, myKind->type, myKind->numberBytes, myKind->components, elements(), write};
    }

    [[noreturn]] void fail(const std::string& reason) const { throw FileError(myFile, placeOf(myName, myID), reason); }

private:
    [[nodiscard]] StrongPtr<MemBase> data() const {
        StrongPtr<MemBase> made = readData(*myField, myID);
        if (!made) fail("cannot be made");
        return made;
    }

    fs::path myFile;
    std::string myName;
    StrongPtr<const Field> myField;
    StrongPtr<FragmentID> myID;
    StrongPtr<CreativeArrayBase> myCreator;
    DynamicSize mySize;
    std::optional<ElementKind> myKind;
    StrongPtr<MemBase> myData;
};

// A grid's vertices and the fields to be written.
struct Source {
    fs::path file; // for messages
    Grid& grid;
    StrongPtr<Field> positions;
    Blanking masks;
    std::vector<std::pair<std::string, StrongPtr<Field>>> fields;
    bool compress;
};

std::vector<StrongPtr<FragmentID>> fragmentsOf(const Field& positions) {
    std::vector<StrongPtr<FragmentID>> fragments;
    const auto add = [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (creator) fragments.push_back(id);
        return true;
    };
    positions.iterate(add);
    return fragments;
}

Source sourceOf(const fs::path& file, Grid& grid, const std::vector<std::string>& fields, const VtkOptions& options) {
    Source source{file, grid, grid.CartesianPositions(), Blanking(grid), {}, options.compress};
    const auto representation = grid.getCartesianRepresentation();
    if (!source.positions || fragmentsOf(*source.positions).empty())
        throw FileError(file, "", "the grid has no vertices to be written");
    for (const std::string& name : fields) {
        auto field = representation->findField(name);
        if (!field) {
            std::string known;
            representation->iterate([&](const FieldID& id, const Field&) {
                if (id.name() != PositionsName) known += (known.empty() ? "" : ", ") + id.name();
                return true;
            });
            throw FileError(file, "field '" + name + "'",
                            known.empty() ? "the grid has no fields" : "the grid has none; it has " + known);
        }
        source.fields.emplace_back(name, std::move(field));
    }
    return source;
}

// What a field's positions relative to the vertices are, for triangles (2) and curves (1).
StrongPtr<MemBase> cellsOf(Grid& grid, int dims) {
    const auto vertices = grid.findVertices();
    const auto skeleton = vertices ? grid.getSkeleton(SkeletonID(dims, 1)) : StrongPtr<Skeleton>();
    const auto representation = skeleton ? skeleton->findRepresentation(*vertices) : StrongPtr<Representation>();
    const auto cells = representation ? representation->Positions() : StrongPtr<Field>();
    return cells ? readData(*cells, nullptr) : nullptr;
}

// One block, in the form that suits it.
class BlockWriter {
public:
    BlockWriter(const Source& source, const StrongPtr<FragmentID>& id)
        : mySource(source), myPositions(source.file, PositionsName, *source.positions, id) {
        const int rank = myPositions.size().rank();
        if (rank < 1 || rank > 3) myPositions.fail("positions with " + std::to_string(rank) + " indices");
        if (myPositions.kind().components != 3) myPositions.fail("are no points");
        for (const auto& [name, field] : source.fields) {
            Writable values(source.file, name, *field, id);
            if (!values) continue;
            if (values.size() != myPositions.size())
                values.fail("has " + to_string(values.size()) + " values for " + to_string(myPositions.size()) +
                            " vertices");
            myFields.push_back(std::move(values));
        }
        if (rank == 3) findMask(id);
    }

    /// About as many as will be written.
    [[nodiscard]] double bytes() const {
        double all = static_cast<double>(myPositions.series().bytes());
        for (const Writable& field : myFields) all += static_cast<double>(field.series().bytes());
        return all;
    }

    /// ".vtp", ".vti", ".vtr" or ".vts". Makes the positions, where the kind of their coordinates is still open.
    [[nodiscard]] std::string extension() {
        if (myPositions.size().rank() == 1) return ".vtp";
        if (myPositions.size().rank() == 3) {
            const StrongPtr<MemBase>& data = myPositions.hold();
            if (dynamic_cast<const Uniform*>(data.rawptr())) return ".vti";
            if (dynamic_cast<const Rectilinear*>(data.rawptr())) return ".vtr";
        }
        return ".vts";
    }

    void write(const fs::path& path, const std::string& extension, VtkMeter& meter) {
        if (extension == ".vtp")
            writePoly(path, meter);
        else
            writeStructured(path, extension, meter);
    }

private:
    using Uniform = DirectProductMemArray<point, LinearCoordinateAxisArray, 3>;
    using Rectilinear = DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3>;

    void findMask(const StrongPtr<FragmentID>& id) {
        if (!mySource.masks.concerns(id)) return;
        for (const auto& mask : {mySource.masks.vertexMask(), mySource.masks.cellMask()})
            if (mask) (void)readData(*mask, id); // throws where a mask cannot be read: no mask would be everything
        try {
            myMask = mySource.masks.of(id, *myPositions.size().as<3>());
        } catch (const std::invalid_argument& problem) {
            throw FileError(mySource.file, "", problem.what());
        }
    }

    // What viewers are to hide.
    template<class Valid>
    static VtkSeries hidden(const MultiIndex<3>& size, unsigned char mark, const Valid& isValid) {
        const auto write = [=](VtkSink& sink) {
            putComputed<unsigned char>(sink, size.product(), [&](index_t n) {
                return isValid(MultiIndex<3>::fromLinear(n, size)) ? static_cast<unsigned char>(0) : mark;
            });
        };
        return {"vtkGhostType", "UInt8", 1, 1, size.product(), write};
    }

    void addFields(VtkDocument& document) {
        constexpr unsigned char HiddenPoint = 2, HiddenCell = 32; // by the format
        document.line("<PointData>");
        for (const Writable& field : myFields) document.array(field.series());
        if (myMask)
            document.array(hidden(myMask->Size(), HiddenPoint,
                                  [mask = myMask](const MultiIndex<3>& at) { return mask->isVertexValid(at); }));
        document.line("</PointData>");
        if (myMask) {
            document.line("<CellData>");
            document.array(hidden(myMask->cells(), HiddenCell,
                                  [mask = myMask](const MultiIndex<3>& at) { return mask->isCellValid(at); }));
            document.line("</CellData>");
        }
        myFields.clear();
    }
    // The positions are let go when they are written.
    void addPoints(VtkDocument& document) {
        document.line("<Points>");
        VtkSeries points = myPositions.series();
        points.name = "Points";
        document.array(std::move(points));
        document.line("</Points>");
    }

    void writeStructured(const fs::path& path, const std::string& extension, VtkMeter& meter) {
        std::string extent;
        for (int d = 0; d < 3; ++d) {
            const index_t count = d < myPositions.size().rank() ? myPositions.size()[d] : 1;
            if (count == 0) myPositions.fail("a block without vertices");
            extent += (d ? " 0 " : "0 ") + std::to_string(count - 1);
        }
        const std::string type = extension == ".vti"   ? "ImageData"
                                 : extension == ".vtr" ? "RectilinearGrid"
                                                       : "StructuredGrid";
        VtkDocument document(type, mySource.compress);
        std::string head = "<" + type + " WholeExtent=\"" + extent + "\"";
        std::optional<StrongPtr<MemBase>> coordinates;
        if (extension != ".vts") coordinates = myPositions.hold();
        if (extension == ".vti") {
            const auto& uniform = dynamic_cast<const Uniform&>(**coordinates);
            const auto origin = uniform.origin();
            const auto spacing = uniform.spacing();
            head += " Origin=\"" + numbers(origin) + "\" Spacing=\"" + numbers(spacing) + "\"";
        }
        document.line(head + ">");
        document.line("<Piece Extent=\"" + extent + "\">");
        if (extension == ".vts") addPoints(document);
        if (extension == ".vtr") {
            document.line("<Coordinates>");
            for (int d = 0; d < 3; ++d) {
                const auto write = [data = *coordinates, d](VtkSink& sink) {
                    const auto& values = dynamic_cast<const Rectilinear&>(*data).axis(d).values();
                    sink.put(values.data(), values.size());
                };
                document.array({std::string(1, "xyz"[d]), "Float64", sizeof(double), 1, myPositions.size()[d], write});
            }
            document.line("</Coordinates>");
        }
        addFields(document);
        document.line("</Piece>\n</" + type + ">");
        coordinates.reset();
        myPositions.release();
        document.save(path, meter);
    }

    template<class Triple>
    static std::string numbers(const Triple& values) {
        return detail::vtkNumber(values[0]) + " " + detail::vtkNumber(values[1]) + " " + detail::vtkNumber(values[2]);
    }

    // Connectivity and offsets of cells that name their vertices, checked while they are written.
    template<class Cells, class Size, class Vertex>
    static void addCells(VtkDocument& document, const fs::path& file, std::uint64_t vertices, const char* element,
                         const Cells& cells, index_t count, std::uint64_t total, const Size& sizeOf,
                         const Vertex& vertexOf) {
        document.line("<" + std::string(element) + ">");
        // The format has signed numbers here.
        const auto connectivity = [=](VtkSink& sink) {
            std::vector<std::int64_t> piece;
            for (index_t cell = 0; cell < count; ++cell) {
                for (std::size_t v = 0; v < sizeOf(cells, cell); ++v) {
                    const auto vertex = static_cast<std::uint64_t>(vertexOf(cells, cell, v));
                    if (vertex >= vertices)
                        throw FileError(file, std::string(element) + ", number " + std::to_string(cell),
                                        "names vertex " + std::to_string(vertex) + " of " + std::to_string(vertices));
                    piece.push_back(static_cast<std::int64_t>(vertex));
                }
                if (piece.size() < 4096 && cell + 1 < count) continue;
                sink.put(piece.data(), piece.size());
                piece.clear();
            }
        };
        const auto offsets = [=](VtkSink& sink) {
            unsigned long long end = 0;
            putComputed<unsigned long long>(sink, count, [&](index_t cell) { return end += sizeOf(cells, cell); });
        };
        document.array({"connectivity", "Int64", sizeof(std::int64_t), 1, total, connectivity});
        document.array({"offsets", "Int64", sizeof(std::int64_t), 1, count, offsets});
        document.line("</" + std::string(element) + ">");
    }

    template<class Index>
    static void addCurves(VtkDocument& document, const fs::path& file, std::uint64_t vertices,
                          const StrongPtr<MemArray<1, std::vector<Index>>>& curves) {
        std::uint64_t total = 0;
        for (index_t n = 0; n < curves->nElements(); ++n) total += curves->element(n).size();
        addCells(
            document, file, vertices, "Lines", curves, curves->nElements(), total,
            [](const auto& all, index_t cell) { return all->element(cell).size(); },
            [](const auto& all, index_t cell, std::size_t v) { return all->element(cell)[v]; });
    }

    void writePoly(const fs::path& path, VtkMeter& meter) {
        const std::uint64_t vertices = myPositions.elements();
        const bool whole = fragmentsOf(*mySource.positions).size() == 1; // cells name vertices of the whole grid
        const auto cells = whole ? cellsOf(mySource.grid, 2) : StrongPtr<MemBase>();
        const auto triangles = Hestra::dynamicCast<MemArray<1, Triangle>>(cells);
        const auto lines = whole ? cellsOf(mySource.grid, 1) : StrongPtr<MemBase>();
        const auto curves = Hestra::dynamicCast<MemArray<1, std::vector<unsigned int>>>(lines);
        const auto longCurves = Hestra::dynamicCast<MemArray<1, std::vector<index_t>>>(lines);
        const index_t curveCount = curves ? curves->nElements() : longCurves ? longCurves->nElements() : 0;
        const index_t single = triangles || curves || longCurves ? 0 : vertices; // a cloud of points is shown, too

        VtkDocument document("PolyData", mySource.compress);
        document.line("<PolyData>\n<Piece NumberOfPoints=\"" + std::to_string(vertices) + "\" NumberOfVerts=\"" +
                      std::to_string(single) + "\" NumberOfLines=\"" + std::to_string(curveCount) +
                      "\" NumberOfStrips=\"0\" NumberOfPolys=\"" +
                      std::to_string(triangles ? triangles->nElements() : 0) + "\">");
        addPoints(document);
        if (single > 0)
            addCells(
                document, mySource.file, vertices, "Verts", 0, single, single,
                [](int, index_t) { return std::size_t{1}; }, [](int, index_t cell, std::size_t) { return cell; });
        if (curves) addCurves(document, mySource.file, vertices, curves);
        if (longCurves) addCurves(document, mySource.file, vertices, longCurves);
        if (triangles)
            addCells(
                document, mySource.file, vertices, "Polys", triangles, triangles->nElements(),
                3 * triangles->nElements(), [](const auto&, index_t) { return std::size_t{3}; },
                [](const auto& all, index_t cell, std::size_t v) { return all->element(cell)[v]; });
        addFields(document);
        document.line("</Piece>\n</PolyData>");
        myPositions.release();
        document.save(path, meter);
    }

    const Source& mySource;
    Writable myPositions;
    std::vector<Writable> myFields;
    StrongPtr<const BlockMask> myMask;
};

void writeSingle(const fs::path& file, const Source& source, const VtkOptions& options) {
    const auto fragments = fragmentsOf(*source.positions);
    if (fragments.size() != 1)
        throw FileError(file, "",
                        "the grid has " + std::to_string(fragments.size()) + " blocks, which take a .vtm file");
    BlockWriter block(source, fragments[0]);
    const std::string wanted = file.extension().string(), fit = block.extension();
    if (wanted != fit && !(wanted == ".vts" && fit != ".vtp"))
        throw FileError(file, "", "the grid does not fit this kind of file, but one named " + fit);
    VtkMeter meter(options.progress, block.bytes());
    block.write(file, wanted, meter);
}

// ---- Several blocks ----

// The folder beside a file of blocks may be replaced if it has nothing but such blocks.
void checkReplaceable(const fs::path& file, const fs::path& folder, const std::string& stem) {
    std::error_code error;
    const auto status = fs::symlink_status(folder, error);
    if (!fs::exists(status)) return;
    if (!fs::is_directory(status))
        throw FileError(file, "", "its blocks need a folder " + folder.string() + ", which is something else");
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        const std::string name = entry.path().stem().string(), extension = entry.path().extension().string();
        const bool isBlock = fs::is_regular_file(entry.symlink_status(error)) && name.size() > stem.size() + 1 &&
                             name.starts_with(stem + "_") &&
                             name.find_first_not_of("0123456789", stem.size() + 1) == std::string::npos &&
                             std::set<std::string>{".vtp", ".vti", ".vtr", ".vts"}.count(extension) > 0;
        if (!isBlock)
            throw FileError(file, "",
                            "its blocks need the folder " + folder.string() +
                                ", which holds something else: " + entry.path().filename().string());
    }
    if (error) throw FileError(file, "", "the folder " + folder.string() + " cannot be read: " + error.message());
}

void move(const fs::path& file, const fs::path& from, const fs::path& to) {
    std::error_code error;
    fs::rename(from, to, error);
    if (error) throw FileError(file, "", "cannot put the folder of its blocks in place: " + error.message());
}

void writeBlocks(const fs::path& file, const Source& source, const VtkOptions& options) {
    const std::string stem = file.stem().string();
    const fs::path folder = file.parent_path() / stem;
    if (!detail::vtkCanName(stem))
        throw FileError(file, "", "has a name that is no UTF-8, by which to find its blocks");
    checkReplaceable(file, folder, stem);
    Leftover made(hiddenNeighbour(folder));
    std::error_code error;
    fs::create_directory(made.path(), error);
    if (error) throw FileError(file, "", "cannot make a folder for its blocks: " + error.message());

    const auto fragments = fragmentsOf(*source.positions);
    double total = 0.0;
    for (const auto& id : fragments) total += BlockWriter(source, id).bytes();
    VtkMeter meter(options.progress, total);
    std::string index = "<?xml version=\"1.0\"?>\n<VTKFile type=\"vtkMultiBlockDataSet\" version=\"1.0\" "
                        "byte_order=\"LittleEndian\" header_type=\"UInt64\">\n<vtkMultiBlockDataSet>\n";
    double done = 0.0;
    for (std::size_t n = 0; n < fragments.size(); ++n) {
        BlockWriter block(source, fragments[n]);
        done += block.bytes();
        const std::string extension = block.extension();
        const std::string name = stem + "_" + std::to_string(n) + extension;
        try {
            block.write(made.path() / name, extension, meter);
        } catch (const FileError& failure) {
            if (failure.file() != made.path() / name) throw;
            throw FileError(folder / name, failure.place(), failure.reason()); // the name that it would have got
        }
        meter.reach(done);
        index += "<DataSet index=\"" + std::to_string(n) + "\" name=\"" +
                 detail::vtkEscaped(FragmentID::Name(fragments[n], stem)) + "\" file=\"" +
                 detail::vtkEscaped(stem + "/" + name) + "\"/>\n";
    }
    index += "</vtkMultiBlockDataSet>\n</VTKFile>\n";
    AtomicFile whole(file);
    whole.write(index.data(), index.size());

    // Everything is written. The folder first: the file is what names it.
    const fs::path previous = hiddenNeighbour(folder);
    const bool replaces = fs::exists(folder, error);
    if (replaces) move(file, folder, previous);
    try {
        move(file, made.path(), folder);
        whole.commit();
    } catch (...) {
        if (fs::exists(folder, error)) fs::rename(folder, made.path(), error);
        if (replaces) fs::rename(previous, folder, error);
        throw;
    }
    made.keep();
    if (replaces) fs::remove_all(previous, error);
}

// ---- Plain arrays ----

template<class Number>
VtkSeries seriesOf(std::string name, const char* type, int components, const Number* numbers, std::uint64_t elements) {
    const auto write = [numbers, count = elements * static_cast<std::uint64_t>(components)](VtkSink& sink) {
        sink.put(numbers, static_cast<std::size_t>(count));
    };
    return {std::move(name), type, sizeof(Number), components, elements, write};
}

const double* numbersOf(std::span<const std::array<double, 3>> points) {
    return points.empty() ? nullptr : points[0].data();
}

double addPointData(VtkDocument& document, std::span<const VtkArray> arrays) {
    double bytes = 0.0;
    document.line("<PointData>");
    for (const VtkArray& array : arrays) {
        VtkSeries series;
        if (const auto* const scalars = std::get_if<0>(&array.values))
            series = seriesOf(array.name, "Float64", 1, scalars->data(), scalars->size());
        else
            series = seriesOf(array.name, "Float64", 3, numbersOf(std::get<1>(array.values)),
                              std::get<1>(array.values).size());
        bytes += static_cast<double>(series.bytes());
        document.array(std::move(series));
    }
    document.line("</PointData>");
    return bytes;
}

void checkSizes(std::span<const VtkArray> arrays, std::size_t points) {
    for (const VtkArray& array : arrays)
        if (std::visit([](const auto& view) { return view.size(); }, array.values) != points)
            throw std::invalid_argument("VTK array " + array.name + " has not one value per point");
}

} // namespace

void writeVtk(const fs::path& file, Grid& grid, const std::vector<std::string>& fields, const VtkOptions& options) {
    const std::string extension = file.extension().string();
    const Source source = sourceOf(file, grid, fields, options);
    if (extension == ".vtm")
        writeBlocks(file, source, options);
    else if (extension == ".vti" || extension == ".vtr" || extension == ".vts" || extension == ".vtp")
        writeSingle(file, source, options);
    else
        throw FileError(file, "", "is to be named .vti, .vtr, .vts, .vtp or .vtm");
}

void writeVtp(const fs::path& file, std::span<const std::array<double, 3>> points,
              std::span<const std::array<index_t, 3>> triangles, std::span<const VtkArray> arrays,
              const VtkOptions& options) {
    checkSizes(arrays, points.size());
    for (const auto& triangle : triangles)
        for (const index_t vertex : triangle)
            if (vertex >= points.size()) throw std::invalid_argument("a triangle names a point that is not there");
    VtkDocument document("PolyData", options.compress);
    document.line("<PolyData>\n<Piece NumberOfPoints=\"" + std::to_string(points.size()) +
                  "\" NumberOfVerts=\"0\" NumberOfLines=\"0\" NumberOfStrips=\"0\" NumberOfPolys=\"" +
                  std::to_string(triangles.size()) + "\">");
    const double bytes = addPointData(document, arrays);
    document.line("<Points>");
    document.array(seriesOf("Points", "Float64", 3, numbersOf(points), points.size()));
    document.line("</Points>\n<Polys>");
    document.array(
        seriesOf("connectivity", "Int64", 1, triangles.empty() ? nullptr : triangles[0].data(), 3 * triangles.size()));
    document.array({"offsets", "Int64", sizeof(index_t), 1, triangles.size(), [&](VtkSink& sink) {
                        putComputed<index_t>(sink, triangles.size(), [](index_t n) { return 3 * (n + 1); });
                    }});
    document.line("</Polys>\n</Piece>\n</PolyData>");
    VtkMeter meter(options.progress, bytes + static_cast<double>(points.size_bytes() + triangles.size() * 32));
    document.save(file, meter);
}

void writeVti(const fs::path& file, const VtkImage& image, std::span<const VtkArray> arrays,
              const VtkOptions& options) {
    std::size_t points = 1;
    std::string extent;
    for (const int count : image.extents) {
        if (count < 1) throw std::invalid_argument("VTK extents must be positive");
        points *= static_cast<std::size_t>(count);
        extent += (extent.empty() ? "0 " : " 0 ") + std::to_string(count - 1);
    }
    checkSizes(arrays, points);
    const auto text = [](const std::array<double, 3>& values) {
        return detail::vtkNumber(values[0]) + " " + detail::vtkNumber(values[1]) + " " + detail::vtkNumber(values[2]);
    };
    VtkDocument document("ImageData", options.compress);
    document.line("<ImageData WholeExtent=\"" + extent + "\" Origin=\"" + text(image.origin) + "\" Spacing=\"" +
                  text(image.spacing) + "\">\n<Piece Extent=\"" + extent + "\">");
    const double bytes = addPointData(document, arrays);
    document.line("</Piece>\n</ImageData>");
    VtkMeter meter(options.progress, bytes);
    document.save(file, meter);
}

} // namespace Vantle
