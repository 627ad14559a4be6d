#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::BoundingBox;
using Orvix::PhysicalSpace;

namespace {

constexpr const char* NamesField = "Positions";

StrongPtr<Skeleton> verticesOf(const Grid& grid) {
    StrongPtr<Skeleton> vertices = grid.findVertices(~0);
    if (!vertices) throw FragmentSkeleton::NoVertices();
    return vertices;
}

SkeletonID fragmentsID(const Skeleton& vertices) { return SkeletonID(vertices.Dims(), 2); }

/// The three arrays.
enum Which { Names, Minima, Maxima };
using Creators = std::array<StrongPtr<CreativeArrayBase>, 3>;
using Arrays = std::array<StrongPtr<MemBase>, 3>;

/// Beside a creator of one of the arrays: what the array was made from.
using ArrayRecord = Hestra::FreshnessRecord<CreativeArrayBase>;

/// Queries of any number of threads make what is missing: they look up, and they store, one at a time.
std::mutex& keptMutex() {
    static std::mutex mutex;
    return mutex;
}

/// What holds the arrays, each null where there is none. Makes nothing.
Creators findKept(const Grid& grid) {
    Creators kept;
    const StrongPtr<Skeleton> vertices = verticesOf(grid), fragments = grid.getSkeleton(fragmentsID(*vertices));
    if (!fragments) return kept;
    const auto find = [](const StrongPtr<Representation>& representation, const std::string& name) {
        const StrongPtr<Field> field = representation ? representation->findField(name) : Field::NullPtrField();
        return field ? field->getCreator(nullptr) : StrongPtr<CreativeArrayBase>();
    };
    kept[Names] = find(fragments->findRepresentation(*vertices), NamesField);
    if (const StrongPtr<Chart> chart = grid.findCartesianChart("")) {
        const auto corners = fragments->findRepresentation(*chart);
        kept[Minima] = find(corners, FragmentSkeleton::MinFieldName());
        kept[Maxima] = find(corners, FragmentSkeleton::MaxFieldName());
    }
    return kept;
}

/// Makes the arrays of the fragments as they are now. Keeps nothing.
Arrays makeArrays(const StrongPtr<Field>& positions) {
    const Hestra::Profiler scope("baseop/FragmentSkeleton", __LINE__, "Compute bounding boxes of fragments",
                                 __PRETTY_FUNCTION__);
    const std::size_t count = positions ? positions->nFragments() : 0;
    std::vector<std::string> names;
    std::vector<PhysicalSpace::point> minima, maxima;
    names.reserve(count);
    minima.reserve(count);
    maxima.reserve(count);

    // Every fragment takes its place, or those after it would change their numbers.
    const auto take = [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        constexpr double Infinity = std::numeric_limits<double>::infinity();
        StrongPtr<BoundingBox> box;
        if (creator) ExpandBBox(box, *creator, CreateData);
        names.push_back(FragmentID::Name(id, ""));
        minima.push_back(box ? box->minCoord() : PhysicalSpace::point(Infinity, Infinity, Infinity));
        maxima.push_back(box ? box->maxCoord() : PhysicalSpace::point(-Infinity, -Infinity, -Infinity));
        return true;
    };
    if (positions) positions->iterate(take);
    return {makeMemArray1D(std::move(names)), makeMemArray1D(std::move(minima)), makeMemArray1D(std::move(maxima))};
}

/// Makes the arrays and keeps them on the grid. They are returned, since memory pressure may drop them at once.
Arrays buildKept(const StrongPtr<Grid>& grid) {
    const StrongPtr<Field> positions = grid->CartesianPositions();
    const Hestra::Freshness origin(positions.rawptr());
    const Arrays made = makeArrays(positions);

    const std::lock_guard lock(keptMutex());
    const auto [minField, maxField] = CartesianFragments(grid).makeFragmentCoordinatesMinMax();
    const auto store = [&](const StrongPtr<Field>& field, const StrongPtr<MemBase>& array) {
        const auto creator = field->setDiscardableData(array, Hestra::Cache::MemCache());
        array->setCreator(creator);
        ArrayRecord::attach(*creator, creator, origin);
    };
    const Hestra::Cache::Operation allThree;
    store(FragmentSkeleton::makeFragmentNames(*grid), made[Names]);
    store(minField, made[Minima]);
    store(maxField, made[Maxima]);
    return made;
}

/// Element `i` of one of the arrays, which are made when it is missing.
template<class T>
T elementOf(const StrongPtr<Grid>& grid, Which which, index_t i) {
    StrongPtr<CreativeArrayBase> creator;
    {
        const std::lock_guard lock(keptMutex());
        creator = findKept(*grid)[which];
    }
    StrongPtr<MemBase> array = creator ? creator->getData() : nullptr;
    if (!array) array = buildKept(grid)[which];
    return dynamic_cast<const TypedArray<T>&>(*array).element(i);
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
    return names->makeField(*Representation::makeFieldID(*names, NamesField));
}

std::string FragmentSkeleton::getFragmentName(index_t i) const {
    (void)theGrid();
    return elementOf<std::string>(myGrid, Names, i);
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
    const Grid& grid = theGrid();
    {
        const std::lock_guard lock(keptMutex());
        const Creators kept = findKept(grid);
        if (std::all_of(kept.begin(), kept.end(), [](const auto& creator) { return creator && creator->hasData(); }))
            return false;
    }
    buildKept(this->grid());
    return true;
}

bool CartesianFragments::discardOutdated() {
    const StrongPtr<Field> positions = theGrid().CartesianPositions();
    const std::lock_guard lock(keptMutex());
    const Creators kept = findKept(theGrid());
    bool any = false;
    const auto discard = [&](Which which, const StrongPtr<Field>& field) {
        const StrongPtr<CreativeArrayBase>& creator = kept[which];
        if (creator && !ArrayRecord::isFresh(*creator, creator, positions.rawptr())) any = field->removeData() || any;
    };
    const auto [minField, maxField] = makeFragmentCoordinatesMinMax();
    discard(Names, makeFragmentNames(theGrid()));
    discard(Minima, minField);
    discard(Maxima, maxField);
    return any;
}

StrongPtr<BoundingBox> CartesianFragments::getBBox(index_t i) const {
    (void)theGrid();
    const auto low = elementOf<PhysicalSpace::point>(grid(), Minima, i);
    const auto high = elementOf<PhysicalSpace::point>(grid(), Maxima, i);
    return Hestra::makeRef<BoundingBox>(low, high);
}

StrongPtr<FragmentID> CartesianFragments::getFragmentID(index_t i) const {
    return theGrid().CartesianPositions()->getFragmentID(getFragmentName(i));
}

} // namespace Vantle
