#include "CylinderFlow.hpp"

#include <dataset/Files.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace tour {

using namespace Vantle;

namespace {

constexpr double kFarthest = 1e100; // squares and cubes stay finite

// The coordinates as fields, which are read when they are needed.
void addCoordinates(const DataSet& data, const Plot3DFile& file) {
    const auto vertices = data.grid()->getCartesianRepresentation();
    for (const int axis : {0, 1, 2}) {
        const auto field = Hestra::makeRef<Field>(vertices->Positions()->getFragmentIDCollection());
        for (std::size_t b = 0; b < file.blocks(); ++b) {
            const auto read = [=](const Hestra::WeakPtr<CreativeArrayBase>& creator) {
                return file.read<double>(b, static_cast<std::size_t>(axis), creator);
            };
            field->setCreator(Hestra::makeRef<FileArray>(read, typeid(double), file.extents(b), data.cache()),
                              vertices->Positions()->getFragmentID("block" + std::to_string(b + 1)));
        }
        vertices->setField(std::string(1, "xyz"[axis]), field);
    }
}

void checkPlaces(const DataSet& data, const std::filesystem::path& file) {
    index_t cells = 0;
    for (const BlockInfo& block : data.blocks()) {
        cells += countCells(block.size);
        const std::vector<Point> points = data.positions(block.name);
        const auto isPlace = [](const Point& p) {
            return std::abs(p[0]) <= kFarthest && std::abs(p[1]) <= kFarthest && std::abs(p[2]) <= kFarthest;
        };
        const auto odd = std::find_if_not(points.begin(), points.end(), isPlace);
        if (odd == points.end()) continue;
        const auto at = MultiIndex<3>::fromLinear(static_cast<std::size_t>(odd - points.begin()), block.size) + 1;
        throw FileError(file,
                        block.name + ", vertex (" + count(at[0]) + ", " + count(at[1]) + ", " + count(at[2]) + ")",
                        placeText(*odd) + " is no place in space");
    }
    if (cells == 0) throw FileError(file, "extents", "no block has cells, which take two vertices along each axis");
}

// Blanks vertices with a value that is not finite.
void leaveOutOddValues(Flow& flow) {
    constexpr double kMost = std::numeric_limits<double>::max();
    DataSet finite = flow.data;
    for (const std::string& name : flow.scalars) finite = finite.threshold(name, -kMost, kMost);
    const index_t left = countCells(flow.data).valid - countCells(finite).valid;
    if (left == 0) return;
    flow.data = finite;
    flow.remarks.push_back("values that are not finite; cells left out for them: " + count(left));
}

Flow readFlow(const Options& options) {
    Flow flow;
    const std::filesystem::path& file = options.files.front();
    const Plot3DFile grid = Plot3DFile::openGrid(file, options.form);
    flow.title = "PLOT3D grid " + oneLine(file.filename().string());
    flow.remarks.push_back("grid: " + describe(grid.form()));
    flow.data = DataSet::read(options.files, {options.form, options.heatRatio});
    if (options.memory) flow.data.memoryBudget(*options.memory);
    if (options.files.size() > 1) {
        const auto solution = Plot3DFile::openFields(options.files[1], grid, {}, options.form);
        const bool isSolution = solution.content() == Plot3DContent::solution;
        const std::string what = isSolution ? "solution" : "functions";
        flow.title += ", " + what + ' ' + oneLine(options.files[1].filename().string());
        flow.remarks.push_back(what + ": " + describe(solution.form()));
        if (isSolution)
            flow.remarks.push_back("pressure: for a gas whose heat capacities have a ratio of " +
                                   number(options.heatRatio));
    }
    checkPlaces(flow.data, file);
    if (flow.data.fields().empty()) addCoordinates(flow.data, grid);
    if (options.cut > 0) {
        const std::size_t before = flow.data.blocks().size();
        if (options.memory) flow.data.memoryBudget(*options.memory / 2); // the other half is for the pieces
        flow.data = cutBlocks(flow.data, static_cast<std::size_t>(options.cut));
        if (options.memory) flow.data.memoryBudget(*options.memory / 2);
        flow.remarks.push_back("cut: from " + count(before) + " into " + count(flow.data.blocks().size()) +
                               " blocks, turned and mirrored by chance");
    }
    const std::vector<FieldInfo> fields = flow.data.fields();
    const auto has = [&](const std::string& name, int components) {
        return std::any_of(fields.begin(), fields.end(), [&](const FieldInfo& field) {
            return field.name == name && field.components == components && field.blocks == flow.data.blocks().size();
        });
    };
    std::vector<std::string> names = {"density", "pressure", "speed", "energy"};
    for (const FieldInfo& field : fields) names.push_back(field.name);
    for (const std::string& name : names)
        if (has(name, 1) && !std::count(flow.scalars.begin(), flow.scalars.end(), name)) flow.scalars.push_back(name);
    if (flow.scalars.empty()) throw FileError(options.files.back(), "", "there is no scalar that all blocks have");
    leaveOutOddValues(flow);
    flow.hasVelocity = has("velocity", 3);
    flow.field = flow.scalars.front();
    const NumberRange range = flow.data.range(flow.field);
    if (std::isnan(range.least))
        throw FileError(options.files.back(), "",
                        "no cell counts: each has a vertex that is blanked or has values that are not finite");
    // PLOT3D measures density in that of the free stream: a quarter above, the front of a shock shows.
    constexpr double kShock = 1.25;
    if (flow.field == "density" && range.least < kShock && kShock < range.greatest) flow.level = kShock;
    flow.colourField = has("speed", 1) ? "speed" : flow.scalars.back();
    if (has("speed", 1)) {
        flow.wallName = "walls, where the flow is at rest";
        flow.isWall = [limit = 1e-6 * flow.data.range("speed").greatest](const Point&, double speed) {
            return speed <= limit;
        };
    }
    return flow;
}

// This scalar, or else the first other one, that is not constant and not the one left out.
std::string varyingField(const Flow& flow, const std::string& wanted, const std::string& leftOut) {
    std::vector<std::string> names = flow.scalars;
    names.insert(names.begin(), wanted);
    for (const std::string& name : names)
        if (const NumberRange range = flow.data.range(name); name != leftOut && range.least < range.greatest)
            return name;
    return wanted != leftOut ? wanted : flow.scalars[flow.scalars[0] == leftOut && flow.scalars.size() > 1];
}

} // namespace

Hestra::StrongPtr<const BlockMask> maskOf(const DataSet& data, const BlockInfo& block) {
    const Grid& grid = *data.grid();
    return Blanking(grid).of(grid.CartesianPositions()->getFragmentID(block.name), block.size);
}

index_t countCells(const MultiIndex<3>& block) {
    return block[0] < 2 || block[1] < 2 || block[2] < 2 ? 0 : (block - 1).product();
}

CellCount countCells(const DataSet& data) {
    CellCount cells;
    for (const BlockInfo& block : data.blocks()) {
        const index_t all = countCells(block.size);
        const auto mask = maskOf(data, block);
        cells.all += all;
        cells.valid += mask ? std::min(all, mask->validCells()) : all;
    }
    return cells;
}

std::string sizeText(const MultiIndex<3>& size) {
    return count(size[0]) + " x " + count(size[1]) + " x " + count(size[2]);
}

std::string placeText(const Point& p) { return "(" + number(p[0]) + ", " + number(p[1]) + ", " + number(p[2]) + ")"; }

std::string borderText(const Surface& surface) {
    const std::size_t border = surface.borderEdges();
    return border == 0 ? "closed" : "with a border of " + count(border) + " edges";
}

Flow makeFlow(const Options& options) {
    Flow flow = options.files.empty() ? makeCylinderFlow(options.quick ? RingCells{6, 8, 12, 8} : RingCells())
                                      : readFlow(options);
    const std::string usual = flow.field;
    flow.field = varyingField(flow, usual, "");
    if (!options.field.empty()) {
        if (std::count(flow.scalars.begin(), flow.scalars.end(), options.field) == 0) {
            std::string known;
            for (const std::string& name : flow.scalars) known += (known.empty() ? "" : ", ") + name;
            throw UsageError("--field: no scalar field '" + options.field + "'; there are " + known);
        }
        flow.field = options.field;
    } else if (flow.field != usual) {
        flow.remarks.push_back(usual + " is the same everywhere: looking at " + flow.field + " instead");
    }
    if (flow.field != usual) flow.level.reset();
    flow.range = flow.data.range(flow.field);
    if (options.level) flow.level = options.level;
    flow.colourField = varyingField(flow, flow.colourField, flow.field);
    return flow;
}

} // namespace tour
