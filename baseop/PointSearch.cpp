#include <baseop/FragmentSkeleton.hpp>
#include <baseop/PointSearch.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <model/hestra/Console.hpp>
#include <model/orvix/KDTree.hpp>

namespace Vantle {

using Hestra::StrongPtr;

PointSearch::exception::~exception() = default;
PointSearch::NoVertices::~NoVertices() = default;

SkeletonID PointSearch::CellID(const detail::Given<Grid>& given) {
    const StrongPtr<Grid>& grid = given.handle();
    const StrongPtr<Skeleton> vertices = grid ? grid->findVertices() : nullptr;
    if (!vertices) throw NoVertices();
    return SkeletonID(vertices->Dims(), 1);
}

PointSearch::PointSearch(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid,
                         const std::string& coordinateField)
    : mySlice(slice.handle()), myGrid(grid.handle()), myName(coordinateField) {
    if (!myGrid) return;
    const detail::GridLock lock(myGrid);
    const SkeletonID cells = CellID(myGrid);
    if (!mySlice) return;

    const StrongPtr<Skeleton> fragments = FragmentSkeleton::makeFragments(*myGrid);
    const StrongPtr<Skeleton> helperCells = [&] {
        const auto slices = detail::lockSlices();
        return (*(*mySlice)[myName + UniMappersSuffix])[cells];
    }();
    const StrongPtr<Representation> fragmentsAsUniCell = (*fragments)[*helperCells];

    const StrongPtr<Field> coordinates = (*myGrid)(myName);
    const auto findOrMake = [&](const char* suffix) {
        StrongPtr<Field> field = fragmentsAsUniCell->findField(myName + suffix);
        if (!field) {
            field = Hestra::makeRef<Field>(coordinates ? coordinates->getFragmentIDCollection() : nullptr);
            fragmentsAsUniCell->setField(myName + suffix, field);
        }
        return field;
    };
    myUniMappers = findOrMake(UniMappersSuffix);
    myTreeMappers = findOrMake(TreeMappersSuffix);
    myExactLocators = findOrMake(ExactLocatorsSuffix);
    fragmentsAsUniCell->setPositions(myUniMappers);
}

namespace {

using TreeRecord = Hestra::FreshnessRecord<FragmentTreeInterface>;
/// Beside the creator of an entry.
using EntryRecord = Hestra::FreshnessRecord<CreativeArrayBase>;

} // namespace

bool PointSearch::discardOutdated() const {
    const StrongPtr<Field> coordinates = myGrid ? (*myGrid)(myName) : nullptr;
    if (!coordinates) return false;
    bool any = false;
    if (const auto tree = coordinates->findInterface<FragmentTreeInterface>();
        tree && !TreeRecord::isFresh(*coordinates, tree, coordinates.rawptr()))
        any = coordinates->removeInterface(typeid(FragmentTreeInterface));
    const auto discard = [&](const StrongPtr<Field>& storage) {
        if (!storage) return;
        storage->iterate(
            [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                if (!EntryRecord::isFresh(*creator, creator, coordinates.rawptr()))
                    any = storage->removeData(id) || any;
                return true;
            },
            false);
    };
    detail::inCriticalSection([&] {
        discard(myUniMappers);
        discard(myTreeMappers);
        discard(myExactLocators);
    });
    return any;
}

StrongPtr<MemBase> PointSearch::find(const Field& storage, const StrongPtr<FragmentID>& fragment,
                                     const Hestra::Freshness& origin) {
    const StrongPtr<CreativeArrayBase> creator = storage.getCreator(fragment);
    if (!creator) return nullptr;
    const auto record = EntryRecord::find(*creator, creator);
    return !record || record->freshness == origin ? creator->getData() : nullptr;
}

void PointSearch::store(Field& storage, const StrongPtr<FragmentID>& fragment, const StrongPtr<MemBase>& what,
                        const Hestra::Freshness& origin) {
    if (!origin.isCurrent()) return;
    const auto creator = storage.setPersistentData(what, fragment);
    EntryRecord::attach(*creator, creator, origin);
}

void PointSearch::noteTree(const Field& coordinates, const StrongPtr<FragmentTreeInterface>& tree,
                           const Hestra::Freshness& origin) {
    TreeRecord::attach(coordinates, tree, origin);
}

StrongPtr<Field> PointSearch::getHelperField(const detail::Given<Slice>& givenSlice,
                                             const detail::Given<Grid>& givenGrid, const std::string& name) {
    const StrongPtr<Slice>& slice = givenSlice.handle();
    const StrongPtr<Grid>& grid = givenGrid.handle();
    const auto missing = [](const char* what) {
        Hestra::Console::puts(std::string("PointSearch::getHelperField() no ") + what);
        return nullptr;
    };
    Hestra::Console::puts("PointSearch::getHelperField() ENTER!");
    if (!slice) return missing("slice!");
    if (!grid) return missing("grid!");
    const StrongPtr<Grid> helper = (*slice)(name + UniMappersSuffix);
    if (!helper) return missing("helper grid!");
    StrongPtr<Skeleton> helperCells, fragments;
    try {
        const SkeletonID cells = CellID(grid);
        helperCells = helper->getSkeleton(cells);
        fragments = grid->getSkeleton(SkeletonID(cells.dimension(), 2));
    } catch (const NoVertices&) {
        // a grid without vertices has no cells that a helper could stand for
    }
    if (!helperCells) return missing("helper skeleton!");
    if (!fragments) return missing("fragmentskeleton!");
    const StrongPtr<Representation> fragmentsAsUniCell = fragments->findRepresentation(*helperCells);
    if (!fragmentsAsUniCell) return missing("FragmentsAsUniCell!");
    StrongPtr<Field> mappers = fragmentsAsUniCell->Positions();
    if (!mappers) return missing("FragmentsAsUniCell Position Field");
    return mappers;
}

bool PointSearch::hasLookupFragment(const StrongPtr<Field>& field, const StrongPtr<FragmentID>& fragment) {
    return field && field->hasData(fragment);
}

} // namespace Vantle
