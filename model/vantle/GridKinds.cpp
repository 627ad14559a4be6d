#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

GridWithCartesianVertices::GridWithCartesianVertices(const StrongPtr<Grid>& grid, int dims) : TypedGrid(grid) {
    if (!grid) return;
    myRepresentation = grid->makeCartesianRepresentation(dims);
    myVertices = grid->findVertices(dims);
    if (!myRepresentation->Positions()) myRepresentation->setPositions(Hestra::makeRef<Field>());
}

StrongPtr<Field> GridWithCartesianVertices::positions() const {
    return myRepresentation ? myRepresentation->Positions() : Field::NullPtrField();
}

StrongPtr<Field> GridWithCartesianVertices::field(const std::string& name) const {
    return myRepresentation ? myRepresentation->findField(name) : Field::NullPtrField();
}

StrongPtr<Field> GridWithCartesianVertices::makeField(const std::string& name) {
    if (auto present = field(name)) return present;
    if (!myRepresentation) return nullptr;
    const auto positions_ = positions(); // may have been taken away
    const StrongPtr<Field> made(
        new Field(positions_ ? positions_->getFragmentIDCollection() : StrongPtr<FragmentIDCollection>()));
    myRepresentation->setField(name, made);
    return made;
}

StrongPtr<Field> GridWithCartesianVertices::setField(const std::string& name, const StrongPtr<MemBase>& data,
                                                     const StrongPtr<FragmentID>& fragment) {
    auto target = makeField(name);
    if (target) target->setPersistentData(data, fragment);
    return target;
}

RegularGrid3D RegularGrid3D::create(Grid& grid, const StrongPtr<Positions>& positions) {
    RegularGrid3D made{StrongPtr<Grid>(&grid)};
    made.positions()->setPersistentData(positions);
    return made;
}

RegularGrid3D RegularGrid3D::createRectilinear(Grid& grid, std::vector<double> x, std::vector<double> y,
                                               std::vector<double> z) {
    using Product = DirectProductMemArray<PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
    RegularGrid3D made{StrongPtr<Grid>(&grid)};
    made.positions()->setPersistentData(Hestra::makeRef<Product>(
        std::array{ExplicitCoordinateAxisArray<double>(std::move(x)), ExplicitCoordinateAxisArray<double>(std::move(y)),
                   ExplicitCoordinateAxisArray<double>(std::move(z))}));
    return made;
}

StrongPtr<FragmentID> RegularGrid3D::addBlock(const std::string& name, const StrongPtr<MemBase>& positions_,
                                              const std::optional<MultiIndex<3>>& offset) {
    const auto field_ = positions();
    if (!field_ || name.empty()) return nullptr;
    const StrongPtr<FragmentID> block = field_->makeFragmentID(name);
    if (offset) block->addInterface(Hestra::makeRef<FragmentLocation<3, IndexOffset>>(*offset));
    field_->setPersistentData(positions_, block);
    return block;
}

UniformGrid3D UniformGrid3D::create(Grid& grid, const Orvix::BoundingBox& box, const MultiIndex<3>& counts) {
    UniformGrid3D made{StrongPtr<Grid>(&grid)};
    made.positions()->setPersistentData(
        Hestra::makeRef<UniformCartesianArray>(box, counts, Hestra::WeakPtr<CreativeArrayBase>()));
    return made;
}

namespace {

/// Coordinate of the lower face of a lattice cell along one axis; the one after the last has the box's upper face.
double lowerFace(double low, double high, index_t cell, index_t cells) {
    if (cell == cells) return high;
    return low + (high - low) * (static_cast<double>(cell) / static_cast<double>(cells));
}

/// The lattice cell along one axis that holds a coordinate between `low` and `high`.
index_t latticeCell(double x, double low, double high, index_t cells) {
    if (!(high > low)) return 0;
    const double place = (x - low) / (high - low) * static_cast<double>(cells);
    index_t cell = std::min(static_cast<index_t>(place), cells - 1);
    // The quotient is rounded, and cells are what their boxes say.
    while (cell > 0 && x < lowerFace(low, high, cell, cells)) --cell;
    while (cell + 1 < cells && x >= lowerFace(low, high, cell + 1, cells)) ++cell;
    return cell;
}

} // namespace

RegularlyFragmentedClusteredPointCloudGrid
RegularlyFragmentedClusteredPointCloudGrid::create(StrongPtr<Grid>& grid, const MultiIndex<3>& cells,
                                                   const StrongPtr<Orvix::BoundingBox>& box) {
    RegularlyFragmentedClusteredPointCloudGrid made;
    if (!grid || !box || box->isEmpty() || cells[0] == 0 || cells[1] == 0 || cells[2] == 0) return made;
    const auto low = box->minCoord();
    const auto high = box->maxCoord();
    for (int d = 0; d < 3; ++d)
        if (!std::isfinite(high[d] - low[d])) return made;
    static_cast<GridWithCartesianVertices&>(made) = GridWithCartesianVertices(grid, 3);
    made.myCells = cells;
    made.myBox = box;
    const auto corner = [&](const MultiIndex<3>& cell) {
        PhysicalSpace::point at;
        for (int d = 0; d < 3; ++d) at[d] = lowerFace(low[d], high[d], cell[d], cells[d]);
        return at;
    };
    const auto positions_ = made.positions();
    for (index_t k = 0; k < cells[2]; ++k)
        for (index_t j = 0; j < cells[1]; ++j)
            for (index_t i = 0; i < cells[0]; ++i) {
                const auto id = positions_->makeFragmentID(std::to_string(MultiIndex<3>{i, j, k}));
                id->addInterface(Hestra::makeRef<Orvix::BoundingBox>(corner({i, j, k}), corner({i + 1, j + 1, k + 1})));
            }
    return made;
}

std::size_t RegularlyFragmentedClusteredPointCloudGrid::setPoints(const std::vector<PhysicalSpace::point>& points) {
    if (!grid()) return 0;
    std::vector<std::vector<PhysicalSpace::point>> clusters(myCells.product());
    const auto low = myBox->minCoord();
    const auto high = myBox->maxCoord();
    std::size_t taken = 0;
    for (const auto& point : points) {
        if (!myBox->inside(point)) continue;
        MultiIndex<3> cell;
        for (int d = 0; d < 3; ++d) cell[d] = latticeCell(point[d], low[d], high[d], myCells[d]);
        clusters[cell.linear(myCells)].push_back(point);
        ++taken;
    }
    const auto field_ = positions();
    for (index_t n = 0; n < clusters.size(); ++n)
        field_->setPersistentData(makeMemArray1D(std::move(clusters[n])),
                                  field_->makeFragmentID(std::to_string(MultiIndex<3>::fromLinear(n, myCells))));
    return taken;
}

namespace {

// The positions of a skeleton of a grid relative to the grid's vertices.
StrongPtr<Field> positionsRelativeToVertices(const StrongPtr<Grid>& grid, const SkeletonID& id) {
    const StrongPtr<Skeleton> vertices = grid ? grid->findVertices(~0) : nullptr;
    const StrongPtr<Skeleton> skeleton = vertices ? grid->getSkeleton(id) : nullptr;
    const auto representation = skeleton ? skeleton->findRepresentation(*vertices) : StrongPtr<Representation>();
    return representation ? representation->Positions() : Field::NullPtrField();
}

void setPositionsRelativeToVertices(Grid& grid, const SkeletonID& id, const StrongPtr<MemBase>& data) {
    const auto representation = (*grid[id])[*grid.findVertices(~0)];
    representation->setPositions(StrongPtr<Field>(new Field(data, nullptr)));
}

template<class Array>
StrongPtr<Array> unfragmented(const StrongPtr<Field>& field) {
    return field ? Hestra::dynamicCast<Array>(getDataInDoublePrecision(*field)) : StrongPtr<Array>();
}

std::vector<Edge> edgesOf(const MemArray<1, Triangle>& triangles) {
    std::vector<Edge> edges;
    std::unordered_map<std::uint64_t, char> seen;
    const index_t count = triangles.Size()[0];
    seen.reserve(count * 2);
    for (index_t t = 0; t < count; ++t) {
        const Triangle triangle = triangles[t];
        for (unsigned e = 0; e < 3; ++e) {
            const auto [low, high] = std::minmax({triangle[e], triangle[(e + 1) % 3]});
            if (seen.emplace(std::uint64_t{low} << 32 | high, 0).second) edges.push_back(Edge{low, high});
        }
    }
    return edges;
}

} // namespace

StrongPtr<Edges::Array> Edges::getVerticesPerEdge(const StrongPtr<Grid>& grid, bool build) {
    if (auto present = unfragmented<Array>(positionsRelativeToVertices(grid, SkeletonID(1, 1)))) return present;
    if (!build) return nullptr;
    const auto triangles = unfragmented<MemArray<1, Triangle>>(positionsRelativeToVertices(grid, SkeletonID(2, 1)));
    if (!triangles) return nullptr;
    const StrongPtr<Array> edges = makeMemArray1D(edgesOf(*triangles));
    setPositionsRelativeToVertices(*grid, SkeletonID(1, 1), edges);
    return edges;
}

TriangularSurface::TriangularSurface(const StrongPtr<Grid>& grid_) : TypedGrid(grid_) {
    if (!grid_) return;
    myPoints = unfragmented<Points>(grid_->CartesianPositions());
    myTriangles = unfragmented<Triangles>(positionsRelativeToVertices(grid_, SkeletonID(2, 1)));
}

TriangularSurface TriangularSurface::create(Grid& grid, std::vector<PhysicalSpace::point> points,
                                            std::vector<Triangle> triangles) {
    const StrongPtr<Grid> handle(&grid);
    GridWithCartesianVertices(handle, 2).positions()->setPersistentData(makeMemArray1D(std::move(points)));
    setPositionsRelativeToVertices(grid, SkeletonID(2, 1), makeMemArray1D(std::move(triangles)));
    return TriangularSurface(handle);
}

TriangularSurfaceWithEdges::TriangularSurfaceWithEdges(const StrongPtr<Grid>& grid_)
    : TriangularSurface(grid_), myEdges(Edges::getVerticesPerEdge(grid_, true)) {}

TriangularSurfaceWithEdges TriangularSurfaceWithEdges::create(Grid& grid, std::vector<PhysicalSpace::point> points,
                                                              std::vector<Triangle> triangles) {
    return TriangularSurfaceWithEdges(TriangularSurface::create(grid, std::move(points), std::move(triangles)).grid());
}

LineSet::LineSet(const StrongPtr<Grid>& grid_, const StrongPtr<Points>& points,
                 const StrongPtr<MemArray<1, std::vector<unsigned int>>>& curves_)
    : TypedGrid(grid_) {
    setup(points, curves_);
}
LineSet::LineSet(const StrongPtr<Grid>& grid_, const StrongPtr<Points>& points,
                 const StrongPtr<MemArray<1, std::vector<index_t>>>& curves_)
    : TypedGrid(grid_) {
    setup(points, curves_);
}

LineSet LineSet::setupStandardFields(const StrongPtr<Grid>& grid_) {
    if (grid_ && !grid_->findVertices(~0)) GridWithCartesianVertices(grid_, 1);
    if (grid_) {
        const auto representation = (*(*grid_)[SkeletonID(1, 1)])[*grid_->findVertices(~0)];
        if (!representation->Positions()) representation->setPositions(Hestra::makeRef<Field>());
    }
    return LineSet(grid_);
}

void LineSet::setup(const StrongPtr<MemBase>& points, const StrongPtr<MemBase>& curves_) {
    if (!grid()) return;
    GridWithCartesianVertices(grid(), 1).positions()->setPersistentData(points);
    setPositionsRelativeToVertices(*grid(), SkeletonID(1, 1), curves_);
}

StrongPtr<Field> LineSet::positions() const { return grid() ? grid()->CartesianPositions() : Field::NullPtrField(); }
StrongPtr<Field> LineSet::curves() const { return positionsRelativeToVertices(grid(), SkeletonID(1, 1)); }

} // namespace Vantle
