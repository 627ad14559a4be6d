#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/MemArray.hpp>

#include <limits>
#include <string>
#include <vector>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::BoundingBox;
using Orvix::PhysicalSpace;

namespace {

constexpr const char* kNamesField = "Positions";

StrongPtr<Skeleton> verticesOf(const Grid& grid) {
    StrongPtr<Skeleton> vertices = grid.findVertices(~0);
    if (!vertices) throw FragmentSkeleton::NoVertices();
    return vertices;
}

SkeletonID fragmentsID(const Skeleton& vertices) { return SkeletonID(vertices.Dims(), 2); }

/// Element `i` of the unfragmented data of a field that exists and has them.
template<class T>
T elementOf(const StrongPtr<Field>& field, index_t i) {
    const StrongPtr<MemBase> data = field->getData(nullptr);
    return dynamic_cast<const TypedArray<T>&>(*data).element(i);
}

// Queries look up and make nothing, so that any number of threads may ask. Answers depend on what
// `buildFragmentCoordinates` has made.
StrongPtr<Field> findField(const Grid& grid, const StrongPtr<BaseSpace>& base, const std::string& name) {
    const StrongPtr<Skeleton> fragments = grid.getSkeleton(fragmentsID(*verticesOf(grid)));
    return fragments->findRepresentation(*base)->findField(name);
}

} // namespace

FragmentSkeleton::exception::~exception() = default;
FragmentSkeleton::NoVertices::~NoVertices() = default;

FragmentSkeleton::FragmentSkeleton(const StrongPtr<Grid>& grid) : myGrid(grid) {}

Grid& FragmentSkeleton::theGrid() const {
    if (!myGrid) throw NoVertices();
    return *myGrid;
}

StrongPtr<Skeleton> FragmentSkeleton::makeFragments(Grid& grid) { return grid[fragmentsID(*verticesOf(grid))]; }

StrongPtr<Field> FragmentSkeleton::makeFragmentNames(Grid& grid) {
    const StrongPtr<Representation> names = (*makeFragments(grid))[*verticesOf(grid)];
    return names->makeField(*Representation::makeFieldID(*names, kNamesField));
}

std::string FragmentSkeleton::getFragmentName(index_t i) const {
    const Grid& grid = theGrid();
    return elementOf<std::string>(findField(grid, verticesOf(grid), kNamesField), i);
}

std::pair<StrongPtr<Field>, StrongPtr<Field>> CartesianFragments::makeFragmentCoordinatesMinMax() {
    Grid& grid = theGrid();
    const StrongPtr<Skeleton> fragments = makeFragments(grid);
    const StrongPtr<Chart> chart = grid.makeChart(typeid(CartesianChart), "", 0);
    const StrongPtr<Representation> corners = (*fragments)[*chart];
    return {corners->makeField(*corners->makeFieldID(MinFieldName())),
            corners->makeField(*corners->makeFieldID(MaxFieldName()))};
}

bool CartesianFragments::buildFragmentCoordinates() {
    Grid& grid = theGrid();
    const auto [minField, maxField] = makeFragmentCoordinatesMinMax();
    const StrongPtr<Field> nameField = makeFragmentNames(grid);
    if (nameField->hasData(nullptr) && minField->hasData(nullptr) && maxField->hasData(nullptr)) return false;

    const Hestra::Profiler scope("baseop/FragmentSkeleton", __LINE__, "Compute bounding boxes of fragments",
                                 __PRETTY_FUNCTION__);
    const StrongPtr<Field> positions = grid.CartesianPositions();
    const std::size_t count = positions ? positions->nFragments() : 0;
    std::vector<std::string> names;
    std::vector<PhysicalSpace::point> minima, maxima;
    names.reserve(count);
    minima.reserve(count);
    maxima.reserve(count);

    // Every fragment takes its place, or those after it would change their numbers.
    const auto take = [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        constexpr double kInfinity = std::numeric_limits<double>::infinity();
        StrongPtr<BoundingBox> box;
        if (creator) ExpandBBox(box, *creator, CreateData);
        names.push_back(FragmentID::Name(id, ""));
        minima.push_back(box ? box->minCoord() : PhysicalSpace::point(kInfinity, kInfinity, kInfinity));
        maxima.push_back(box ? box->maxCoord() : PhysicalSpace::point(-kInfinity, -kInfinity, -kInfinity));
        return true;
    };
    if (positions) positions->iterate(take);

    const auto store = [](const StrongPtr<Field>& field, const StrongPtr<MemBase>& array) {
        array->setCreator(field->setDiscardableData(array, Hestra::Cache::MemCache()));
    };
    const Hestra::Cache::Operation allThree;
    store(nameField, makeMemArray1D(std::move(names)));
    store(minField, makeMemArray1D(std::move(minima)));
    store(maxField, makeMemArray1D(std::move(maxima)));
    return true;
}

StrongPtr<BoundingBox> CartesianFragments::getBBox(index_t i) const {
    const Grid& grid = theGrid();
    const StrongPtr<Chart> chart = grid.findCartesianChart("");
    return Hestra::makeRef<BoundingBox>(elementOf<PhysicalSpace::point>(findField(grid, chart, MinFieldName()), i),
                                        elementOf<PhysicalSpace::point>(findField(grid, chart, MaxFieldName()), i));
}

StrongPtr<FragmentID> CartesianFragments::getFragmentID(index_t i) const {
    return theGrid().CartesianPositions()->getFragmentID(getFragmentName(i));
}

} // namespace Vantle
