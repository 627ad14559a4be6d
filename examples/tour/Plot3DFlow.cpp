#include "Plot3DFlow.hpp"

#include "CutGrid.hpp"
#include "Plot3DBlocks.hpp"
#include "Report.hpp"

#include <baseop/ValidData.hpp>
#include <dataset/io/FileError.hpp>

#include <algorithm>
#include <cmath>

namespace tour {

using namespace Vantle;

namespace {

using Values = std::vector<double>;

struct BlockFields {
    std::vector<std::pair<std::string, Values>> scalars;
    std::vector<Space::vector> velocity;
};

BlockFields fieldsOf(const Plot3DSolutionBlock& solution, double heatRatio) {
    const Values& density = solution.fields[0].values;
    const Values& energy = solution.fields[4].values;
    const std::size_t count = density.size();
    BlockFields fields;
    fields.velocity.resize(count);
    Values pressure(count), speed(count);
    for (std::size_t n = 0; n < count; ++n) {
        const Space::vector momentum(solution.fields[1].values[n], solution.fields[2].values[n],
                                     solution.fields[3].values[n]);
        if (density[n] > 0.0) fields.velocity[n] = momentum / density[n];
        speed[n] = std::sqrt(normSquared(fields.velocity[n]));
        pressure[n] = (heatRatio - 1.0) * (energy[n] - 0.5 * density[n] * normSquared(fields.velocity[n]));
    }
    fields.scalars = {{"density", density}, {"pressure", pressure}, {"speed", speed}, {"energy", energy}};
    return fields;
}

BlockFields fieldsOf(const Plot3DBlock& block) { return {{{"x", block.x}, {"y", block.y}, {"z", block.z}}, {}}; }

void checkPlaces(const std::filesystem::path& file, const std::string& name, const Plot3DBlock& block) {
    const std::pair<const char*, const Values&> axes[] = {{"x", block.x}, {"y", block.y}, {"z", block.z}};
    const auto [ni, nj, nk] = block.extents;
    for (const auto& [axis, values] : axes)
        for (std::size_t n = 0; n < values.size(); ++n) {
            if (std::abs(values[n]) <= kFarthest) continue;
            const auto index = [&](std::size_t stride, int extent) {
                return std::to_string(n / stride % static_cast<std::size_t>(extent) + 1);
            };
            const auto row = static_cast<std::size_t>(ni), layer = row * static_cast<std::size_t>(nj);
            throw FileError(file,
                            name + ", vertex (" + index(1, ni) + ", " + index(row, nj) + ", " + index(layer, nk) + ")",
                            std::string(axis) + " is " + number(values[n]) + ", which is no place in space");
        }
}

std::string nameOf(std::size_t block) {
    std::string name = "block";
    return name += std::to_string(block + 1);
}

bool hasCells(const Plot3DBlock& block) {
    return std::all_of(block.extents.begin(), block.extents.end(), [](int extent) { return extent > 1; });
}

// 1 for those that count; empty when all do. `odd` becomes the number of those that only a value excludes.
std::vector<unsigned char> verticesThatCount(const Plot3DBlock& block, const BlockFields& fields, std::size_t& odd) {
    std::vector<unsigned char> marks(block.x.size(), 1);
    odd = 0;
    for (std::size_t n = 0; n < marks.size(); ++n) {
        const bool blanked = block.blanking && (*block.blanking)[n] == 0;
        bool finite = fields.velocity.empty() || std::isfinite(normSquared(fields.velocity[n]));
        for (const auto& [name, values] : fields.scalars) finite = finite && std::isfinite(values[n]);
        odd += !blanked && !finite;
        if (blanked || !finite) marks[n] = 0;
    }
    return std::find(marks.begin(), marks.end(), 0) == marks.end() ? std::vector<unsigned char>() : marks;
}

// Faces of a block on which the flow sticks.
Mesh wallsOf(const MemArray<3, Space::point>& positions, const std::vector<Space::vector>& velocity, double still) {
    const MultiIndex<3> size = positions.Size();
    Mesh wall;
    std::vector<index_t> number(positions.nElements(), ~index_t{0});
    const auto corner = [&](const MultiIndex<3>& at) {
        index_t& n = number[at.linear(size)];
        if (n == ~index_t{0}) {
            const Space::point& p = positions[at];
            n = wall.points.size();
            wall.points.push_back({p[0], p[1], p[2]});
        }
        return n;
    };
    for (int axis = 0; axis < 3; ++axis) {
        const int u = (axis + 1) % 3, v = (axis + 2) % 3;
        for (const index_t layer : {index_t{0}, size[axis] - 1}) {
            if (layer == 0 ? size[axis] == 0 : size[axis] < 2) continue;
            MultiIndex<3> at;
            at[axis] = layer;
            for (at[v] = 0; at[v] + 1 < size[v]; ++at[v])
                for (at[u] = 0; at[u] + 1 < size[u]; ++at[u]) {
                    std::array<MultiIndex<3>, 4> quad = {at, at, at, at};
                    ++quad[1][u], ++quad[2][u], ++quad[2][v], ++quad[3][v];
                    const bool sticks = std::all_of(quad.begin(), quad.end(), [&](const MultiIndex<3>& vertex) {
                        return normSquared(velocity[vertex.linear(size)]) <= still * still;
                    });
                    if (!sticks) continue;
                    const index_t c[4] = {corner(quad[0]), corner(quad[1]), corner(quad[2]), corner(quad[3])};
                    wall.triangles.push_back({c[0], c[1], c[2]});
                    wall.triangles.push_back({c[0], c[2], c[3]});
                }
        }
    }
    return wall;
}

} // namespace

DataSet readPlot3DFlow(const Options& options) {
    const std::filesystem::path& file = *options.gridFile;
    Plot3DGrid grid = readPlot3DGrid(file, options.form);
    std::optional<Plot3DSolution> solution;
    if (options.solutionFile) solution = readPlot3DSolution(*options.solutionFile, grid, options.form);
    for (std::size_t b = 0; b < grid.blocks.size(); ++b) checkPlaces(file, nameOf(b), grid.blocks[b]);

    DataSet data;
    data.title = "PLOT3D grid " + oneLine(file.filename().string());
    if (solution) data.title += ", solution " + oneLine(options.solutionFile->filename().string());
    data.remarks.push_back("grid: " + describe(grid.file.form()));
    if (solution) {
        data.remarks.push_back("solution: " + describe(solution->form));
        data.remarks.push_back("pressure: for a gas whose heat capacities have a ratio of " +
                               number(options.heatRatio));
    }
    if (options.cut > 0) {
        const std::size_t before = grid.blocks.size();
        cutGrid(grid, solution ? &*solution : nullptr, static_cast<std::size_t>(options.cut));
        data.remarks.push_back("cut: from " + count(before) + " into " + count(grid.blocks.size()) +
                               " blocks, turned and mirrored by chance");
    }
    if (std::none_of(grid.blocks.begin(), grid.blocks.end(), hasCells))
        throw FileError(file, "extents", "no block has cells, which take two vertices along each axis");
    data.bundle = BundlePtr::create();
    data.slice = data.bundle[solution && std::isfinite(solution->blocks[0].time) ? solution->blocks[0].time : 0.0];
    data.grid = RegularGrid3D((*data.slice)["flow"]);
    data.hasVelocity = solution.has_value();

    double fastest = 0.0;
    std::vector<std::pair<Hestra::StrongPtr<MemArray<3, Space::point>>, std::vector<Space::vector>>> wallCandidates;
    for (std::size_t b = 0; b < grid.blocks.size(); ++b) {
        const Plot3DBlock& block = grid.blocks[b];
        const MultiIndex<3> size{static_cast<index_t>(block.extents[0]), static_cast<index_t>(block.extents[1]),
                                 static_cast<index_t>(block.extents[2])};
        const std::string name = nameOf(b);
        BlockFields fields = solution ? fieldsOf(solution->blocks[b], options.heatRatio) : fieldsOf(block);
        std::size_t odd = 0;
        std::vector<unsigned char> counting = verticesThatCount(block, fields, odd);
        if (odd > 0)
            data.remarks.push_back(name + ": values that are not finite; vertices left out for them: " + count(odd));
        if (!counting.empty() && std::find(counting.begin(), counting.end(), 1) == counting.end()) {
            data.remarks.push_back(name + " has no vertex that counts and is left out");
            continue;
        }

        const auto positions = MemArray<3, Space::point>::create(size);
        for (std::size_t n = 0; n < block.x.size(); ++n)
            positions->element(n) = Space::point(block.x[n], block.y[n], block.z[n]);
        const auto fragment = data.grid.addBlock(name, positions);
        for (auto& [field, values] : fields.scalars)
            data.grid.setField(field, MemArray<3, double>::makeMemArray(std::move(values), size), fragment);
        if (solution) {
            data.grid.setField(kVelocity, MemArray<3, Space::vector>::makeMemArray(fields.velocity, size), fragment);
            for (std::size_t n = 0; n < fields.velocity.size(); ++n)
                if (counting.empty() || counting[n]) fastest = std::max(fastest, normSquared(fields.velocity[n]));
            wallCandidates.emplace_back(positions.strong(), std::move(fields.velocity));
        }
        if (!counting.empty())
            data.grid.setField(VertexMaskName, MemArray<3, unsigned char>::makeMemArray(std::move(counting), size),
                               fragment);
    }
    if (!data.grid.positions()->nFragments())
        throw FileError(solution ? *options.solutionFile : file, "",
                        "no vertex counts: all are blanked or have values that are not finite");

    fastest = std::sqrt(fastest);
    for (const auto& [positions, velocity] : wallCandidates)
        if (Mesh wall = wallsOf(*positions, velocity, 1e-6 * fastest); !wall.triangles.empty())
            data.walls.push_back(std::move(wall));

    if (solution)
        data.scalars = {"density", "pressure", "speed", "energy"};
    else
        data.scalars = {"x", "y", "z"};
    data.field = data.scalars[0];
    const auto range = ComputeValidRange(*data.grid.grid(), data.field);
    if (!range)
        throw FileError(solution ? *options.solutionFile : file, "",
                        "no cell counts: each has a vertex that is blanked or has values that are not finite");
    // PLOT3D measures density in that of the free stream: a quarter above, the front of a shock shows.
    constexpr double kShock = 1.25;
    if (solution && range->first < kShock && kShock < range->second) data.level = kShock;
    data.colourField = solution ? "speed" : "z";
    data.view = {{0.7, -0.75, -0.45}, {0.0, 0.0, 1.0}};
    return data;
}

} // namespace tour
