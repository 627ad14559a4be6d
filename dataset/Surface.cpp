#include <baseop/SurfaceBorder.hpp>
#include <dataset/Surface.hpp>
#include <dataset/detail/PointValues.hpp>

#include <algorithm>
#include <limits>

namespace Vantle {

using Hestra::StrongPtr;

struct Surface::Data : detail::PointValues {
    using PointValues::PointValues;
    StrongPtr<MemArray<1, Triangle>> triangles;
};

Surface::Surface() {
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> vertices = grid->makeCartesianRepresentation(2);
    vertices->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::vector<Point>())));
    const StrongPtr<Representation> triangles = (*(*grid)[SkeletonID(2, 1)])[*grid->findVertices(2)];
    triangles->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::vector<Triangle>())));
    *this = Surface(grid);
}

Surface Surface::together(const std::vector<Surface>& parts) {
    if (parts.empty()) return Surface();
    if (parts.size() == 1) return parts.front();
    std::vector<Point> points;
    std::vector<Triangle> triangles;
    for (const Surface& part : parts) {
        const std::size_t first = points.size();
        if (first + part.points().size() > std::numeric_limits<unsigned int>::max())
            throw std::length_error("surfaces of more points than triangles can name");
        points.insert(points.end(), part.points().begin(), part.points().end());
        for (Triangle triangle : part.triangles()) {
            for (int c = 0; c < 3; ++c) triangle[c] += static_cast<unsigned int>(first);
            triangles.push_back(triangle);
        }
    }
    Surface result;
    const StrongPtr<Grid>& grid = result.grid();
    const StrongPtr<Representation> vertices = grid->getCartesianRepresentation();
    const index_t count = points.size();
    vertices->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::move(points))));
    grid->getSkeleton(SkeletonID(2, 1))
        ->findRepresentation(*grid->findVertices(2))
        ->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::move(triangles))));
    for (const std::string& name : parts.front().names()) {
        const int components = parts.front().values(name).components();
        const bool isEverywhere = std::all_of(parts.begin(), parts.end(), [&](const Surface& part) {
            const auto found = part.myData->values.find(name);
            return found != part.myData->values.end() && found->second.components() == components;
        });
        if (!isEverywhere) continue;
        const StrongPtr<MemBase> all =
            parts.front().values(name).array()->create(DynamicSize(count), typeid(void)); // of the same elements
        double* target = const_cast<double*>(Values(all).numbers().data());
        for (const Surface& part : parts) target = std::ranges::copy(part.values(name).numbers(), target).out;
        vertices->setField(name, Hestra::makeRef<Field>(all, StrongPtr<FragmentIDCollection>()));
    }
    return Surface(grid);
}

Surface::Surface(const StrongPtr<Grid>& grid) {
    const StrongPtr<Skeleton> vertices = grid ? grid->findVertices(2) : nullptr;
    const StrongPtr<Skeleton> triangles = grid ? grid->getSkeleton(SkeletonID(2, 1)) : nullptr;
    const StrongPtr<Representation> corners =
        triangles && vertices ? triangles->findRepresentation(*vertices) : nullptr;
    auto data = std::make_shared<Data>(grid, vertices ? grid->getCartesianRepresentation(vertices) : nullptr);
    data->triangles = corners ? detail::listOf<Triangle>(corners->Positions()) : nullptr;
    if (!data->list || !data->triangles)
        throw DataSetError("a grid that is no surface: it has no list of points, or none of triangles");
    myData = std::move(data);
}

std::span<const Point> Surface::points() const noexcept { return myData->points(); }
std::span<const Triangle> Surface::triangles() const noexcept {
    return {myData->triangles->data(), static_cast<std::size_t>(myData->triangles->nElements())};
}

std::vector<std::string> Surface::names() const { return myData->names(); }
const Values& Surface::values(const std::string& name) const { return myData->at(name); }
bool Surface::hasNormals() const noexcept { return myData->values.count(NormalsName) != 0; }
std::size_t Surface::borderEdges() const { return countBorderEdges(*myData->triangles); }
void Surface::write(const std::filesystem::path& file, const VtkOptions& options) const {
    const Hestra::ScopedListener heard(detail::messages());
    writeVtk(file, *myData->grid, names(), options);
}

StrongPtr<MemBase> Surface::pointArray() const noexcept { return myData->list; }
StrongPtr<MemBase> Surface::triangleArray() const noexcept { return myData->triangles; }
const StrongPtr<Grid>& Surface::grid() const noexcept { return myData->grid; }

} // namespace Vantle
