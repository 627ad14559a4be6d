#include <baseop/FragmentSkeleton.hpp>
#include <baseop/PointSearch.hpp>
#include <model/hestra/Console.hpp>

namespace Vantle {

using Hestra::StrongPtr;

PointSearch::exception::~exception() = default;
PointSearch::NoVertices::~NoVertices() = default;

SkeletonID PointSearch::CellID(const StrongPtr<Grid>& grid) {
    const StrongPtr<Skeleton> vertices = grid ? grid->findVertices() : nullptr;
    if (!vertices) throw NoVertices();
    return SkeletonID(vertices->Dims(), 1);
}

PointSearch::PointSearch(const StrongPtr<Slice>& slice, const StrongPtr<Grid>& grid, const std::string& coordinateField)
    : mySlice(slice), myGrid(grid), myName(coordinateField) {
    if (!grid) return;
    const SkeletonID cells = CellID(grid);
    if (!slice) return;

    const StrongPtr<Skeleton> fragments = FragmentSkeleton::makeFragments(*grid);
    const StrongPtr<Skeleton> helperCells = (*(*slice)[myName + UniMappersSuffix])[cells];
    const StrongPtr<Representation> fragmentsAsUniCell = (*fragments)[*helperCells];

    const StrongPtr<Field> coordinates = (*grid)(myName);
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

StrongPtr<Field> PointSearch::getHelperField(const StrongPtr<Slice>& slice, const StrongPtr<Grid>& grid,
                                             const std::string& name) {
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
