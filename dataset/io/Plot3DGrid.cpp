#include <dataset/io/FileArray.hpp>
#include <dataset/io/FileError.hpp>
#include <dataset/io/Plot3DGrid.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace Vantle {

using Hestra::StrongPtr;
using Creator = Hestra::WeakPtr<CreativeArrayBase>;
using point = Orvix::PhysicalSpace::point;
using vector = Orvix::PhysicalSpace::vector;

namespace {

std::string blockName(std::size_t block) { return "block" + std::to_string(block + 1); }

// Fields with one array a block, each read by a function of (file, block, creator).
class FieldMaker {
public:
    FieldMaker(const RegularGrid3D& grid, const Plot3DFile& file, const Plot3DReading& reading)
        : myGrid(grid), myFile(file), myReading(reading) {}

    template<class Element>
    static auto readTriples(std::size_t first) {
        return [first](const Plot3DFile& file, std::size_t block, const Creator& c) {
            return file.readTriples<Element>(block, first, c);
        };
    }

    [[nodiscard]] StrongPtr<Field> empty() const {
        return StrongPtr<Field>(new Field(myGrid.positions()->getFragmentIDCollection()));
    }

    template<class Read>
    void set(Field& field, std::size_t block, const VantleTypeIndex& type, const Read& read) const {
        const auto id = field.makeFragmentID(blockName(block));
        const auto reader = [file = myFile, block, read](const Creator& creator) -> StrongPtr<MemBase> {
            return read(file, block, creator);
        };
        field.setCreator(Hestra::makeRef<FileArray>(reader, type, myFile.extents(block), myReading.cache), id);
    }

    // For the blocks that have so many variables.
    template<class Read>
    [[nodiscard]] StrongPtr<Field> make(std::size_t variables, const VantleTypeIndex& type, const Read& read) const {
        auto field = empty();
        for (std::size_t block = 0; block < myFile.blocks(); ++block)
            if (myFile.variables(block) >= variables) set(*field, block, type, read);
        return field;
    }

    // A variable as it stands in the file.
    [[nodiscard]] StrongPtr<Field> scalar(std::size_t variable) const {
        return isSingle() ? stored<float>(variable) : stored<double>(variable);
    }
    // Three of them.
    [[nodiscard]] StrongPtr<Field> vectors(std::size_t first) const {
        return isWhollySingle() ? triples<FloatVector>(first) : triples<vector>(first);
    }

    // A field made of several variables, value by value.
    [[nodiscard]] StrongPtr<Field> madeScalar(const std::vector<std::size_t>& variables, const auto& make) const {
        return isSingle() ? made<float>(variables, make) : made<double>(variables, make);
    }
    [[nodiscard]] StrongPtr<Field> madeVector(const std::vector<std::size_t>& variables, const auto& make) const {
        return isWhollySingle() ? made<FloatVector>(variables, make) : made<vector>(variables, make);
    }

    void setPositions(Field& positions) const {
        for (std::size_t block = 0; block < myFile.blocks(); ++block)
            if (isWhollySingle())
                set(positions, block, typeid(FloatPoint), readTriples<FloatPoint>(0));
            else
                set(positions, block, typeid(point), readTriples<point>(0));
    }

private:
    template<class T>
    [[nodiscard]] StrongPtr<Field> stored(std::size_t variable) const {
        return make(variable + 1, typeid(T), [variable](const Plot3DFile& file, std::size_t block, const Creator& c) {
            return file.read<T>(block, variable, c);
        });
    }
    template<class Element>
    [[nodiscard]] StrongPtr<Field> triples(std::size_t first) const {
        return make(first + 3, typeid(Element), readTriples<Element>(first));
    }

    template<class T>
    static T rounded(double value) {
        return static_cast<T>(value);
    }
    template<class T>
    static T rounded(const vector& value) {
        using Number = typename ElementTraits<T>::component_type;
        return T(static_cast<Number>(value[0]), static_cast<Number>(value[1]), static_cast<Number>(value[2]));
    }
    template<class T, class Make>
    [[nodiscard]] StrongPtr<Field> made(const std::vector<std::size_t>& variables, const Make& makeOne) const {
        const auto read = [variables, makeOne](const Plot3DFile& file, std::size_t block, const Creator& creator) {
            std::vector<T> values;
            Hestra::reserveLargeArray(values, file.extents(block).product());
            file.readTogether(block, variables, [&](std::size_t, std::size_t count, const double* const* pieces) {
                for (std::size_t i = 0; i < count; ++i) values.push_back(rounded<T>(makeOne(pieces, i)));
            });
            return MemArray<3, T>::makeMemArray(std::move(values), file.extents(block), creator);
        };
        return make(0, typeid(T), read);
    }

    [[nodiscard]] bool isSingle() const {
        return myReading.precision != Plot3DPrecision::Doubles && myFile.form().scalar == Plot3DScalar::float32;
    }
    [[nodiscard]] bool isWhollySingle() const { return isSingle() && myReading.precision == Plot3DPrecision::AsStored; }

    const RegularGrid3D& myGrid;
    const Plot3DFile& myFile;
    const Plot3DReading& myReading;
};

// Of the variables of a solution from density on.
vector velocityOf(const double* const* values, std::size_t i) {
    const double density = values[0][i];
    if (!(density > 0.0)) return vector();
    return vector(values[1][i], values[2][i], values[3][i]) / density;
}

} // namespace

RegularGrid3D addPlot3DGrid(Grid& grid, const Plot3DFile& file, const Plot3DReading& reading) {
    if (file.content() != Plot3DContent::grid) throw FileError(file.path(), "", "is not a grid file");
    RegularGrid3D made{StrongPtr<Grid>(&grid)};
    const auto positions = made.positions();
    for (std::size_t block = 0; block < file.blocks(); ++block)
        if (positions->getFragmentID(blockName(block)))
            throw FileError(file.path(), "", "the grid has a fragment '" + blockName(block) + "' already");
    const FieldMaker maker(made, file, reading);
    maker.setPositions(*positions);
    if (file.form().blanking)
        made.representation()->setField(
            VertexMaskName,
            maker.make(0, typeid(int), [](const Plot3DFile& from, std::size_t block, const Creator& creator) {
                return from.readBlanking(block, creator);
            }));
    return made;
}

std::vector<std::string> addPlot3DFields(RegularGrid3D& grid, const Plot3DFile& file, const Plot3DReading& reading) {
    if (file.content() == Plot3DContent::grid) throw FileError(file.path(), "", "is a grid file: it has no fields");
    const auto positions = grid.positions();
    for (std::size_t block = 0; block < file.blocks(); ++block) {
        const auto id = positions ? positions->getFragmentID(blockName(block)) : StrongPtr<FragmentID>();
        const auto creator = id ? positions->getCreator(id) : StrongPtr<CreativeArrayBase>();
        if (!creator) throw FileError(file.path(), blockName(block), "the grid has no such block");
        MultiIndex<3> size;
        if (!makeSizeInterface(size, *creator) || !(size == file.extents(block)))
            throw FileError(file.path(), blockName(block),
                            "its extents " + std::to_string(file.extents(block)) +
                                " are not those of the grid's block");
    }
    const FieldMaker maker(grid, file, reading);
    std::vector<std::pair<std::string, StrongPtr<Field>>> fields;
    if (file.content() == Plot3DContent::solution) {
        fields.emplace_back("density", maker.scalar(0));
        fields.emplace_back("momentum", maker.vectors(1));
        fields.emplace_back("energy", maker.scalar(4));
        fields.emplace_back("velocity", maker.madeVector({0, 1, 2, 3}, velocityOf));
        fields.emplace_back("speed", maker.madeScalar({0, 1, 2, 3}, [](const auto* values, std::size_t i) {
            return std::sqrt(normSquared(velocityOf(values, i)));
        }));
        fields.emplace_back("pressure", maker.madeScalar({0, 1, 2, 3, 4}, [ratio = reading.heatRatio](
                                                                              const auto* values, std::size_t i) {
            return (ratio - 1.0) * (values[4][i] - 0.5 * values[0][i] * normSquared(velocityOf(values, i)));
        }));
    } else {
        for (std::size_t n = 0; n < file.names().size(); ++n) {
            const Plot3DName& name = file.names()[n];
            fields.emplace_back(name.field, maker.scalar(n));
            if (!name.vector.empty()) fields.emplace_back(name.vector, maker.vectors(n));
        }
    }
    for (const auto& [name, field] : fields)
        if (name == PositionsName || name == VertexMaskName || name == CellMaskName)
            throw FileError(file.path(), "function '" + name + "'", "has a name that means something else");
    std::vector<std::string> names;
    for (const auto& [name, field] : fields) {
        grid.representation()->setField(name, field);
        names.push_back(name);
    }
    return names;
}

} // namespace Vantle
