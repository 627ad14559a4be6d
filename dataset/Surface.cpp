#include <baseop/SurfaceBorder.hpp>
#include <dataset/Surface.hpp>
#include <dataset/detail/Request.hpp>

#include <map>

namespace Vantle {

using Hestra::StrongPtr;

struct Surface::Data {
    StrongPtr<Grid> grid;
    StrongPtr<MemArray<1, Point>> points;
    StrongPtr<MemArray<1, Triangle>> triangles;
    std::map<std::string, Values> values;
};

namespace {

template<class T>
StrongPtr<MemArray<1, T>> arrayOf(const StrongPtr<Field>& field) {
    const auto array = field ? Hestra::dynamicCast<MemArray<1, T>>(field->getData()) : StrongPtr<MemArray<1, T>>();
    return array && (array->contiguous() || array->nElements() == 0) ? array : StrongPtr<MemArray<1, T>>();
}

} // namespace

Surface::Surface() {
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> vertices = grid->makeCartesianRepresentation(2);
    vertices->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::vector<Point>())));
    const StrongPtr<Representation> triangles = (*(*grid)[SkeletonID(2, 1)])[*grid->findVertices(2)];
    triangles->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::vector<Triangle>())));
    *this = Surface(grid);
}

Surface::Surface(const StrongPtr<Grid>& grid) {
    auto data = std::make_shared<Data>();
    data->grid = grid;
    const StrongPtr<Skeleton> vertices = grid ? grid->findVertices(2) : nullptr;
    const StrongPtr<Skeleton> triangles = grid ? grid->getSkeleton(SkeletonID(2, 1)) : nullptr;
    const StrongPtr<Representation> fields = vertices ? grid->getCartesianRepresentation(vertices) : nullptr;
    const StrongPtr<Representation> corners =
        triangles && vertices ? triangles->findRepresentation(*vertices) : nullptr;
    data->points = fields ? arrayOf<Point>(fields->Positions()) : nullptr;
    data->triangles = corners ? arrayOf<Triangle>(corners->Positions()) : nullptr;
    if (!data->points || !data->triangles)
        throw DataSetError("a grid that is no surface: it has no list of points, or none of triangles");
    fields->iterate([&](const FieldID& id, const Field& field) {
        if (id.name() == PositionsName) return true;
        const Values values(field.getData());
        if (values.array() && values.size() == data->points->nElements()) data->values.emplace(id.name(), values);
        return true;
    });
    myData = std::move(data);
}

std::span<const Point> Surface::points() const noexcept {
    return {myData->points->data(), static_cast<std::size_t>(myData->points->nElements())};
}
std::span<const Triangle> Surface::triangles() const noexcept {
    return {myData->triangles->data(), static_cast<std::size_t>(myData->triangles->nElements())};
}

std::vector<std::string> Surface::names() const {
    std::vector<std::string> all;
    for (const auto& [name, values] : myData->values) all.push_back(name);
    return all;
}

const Values& Surface::values(const std::string& name) const {
    const auto found = myData->values.find(name);
    if (found == myData->values.end()) throw DataSetError(detail::unknownName("value", name, names()));
    return found->second;
}

bool Surface::hasNormals() const noexcept { return myData->values.count(NormalsName) != 0; }
std::size_t Surface::borderEdges() const { return countBorderEdges(*myData->triangles); }
void Surface::write(const std::filesystem::path& file, const VtkOptions& options) const {
    const Hestra::ScopedListener silence({});
    writeVtk(file, *myData->grid, names(), options);
}

const StrongPtr<Grid>& Surface::grid() const noexcept { return myData->grid; }

} // namespace Vantle
