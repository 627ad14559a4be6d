#include <baseop/EvalGrid.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/PullData.hpp>

namespace Vantle {

using Hestra::Console;
using Hestra::StrongPtr;

namespace {

StrongPtr<Field> fail(const char* text) {
    Console::puts(text);
    return nullptr;
}

StrongPtr<Field> noSourceField(const std::string& name) {
    Console::print("EvalGrid: Source Field [%s] not found!\n", name.c_str());
    return nullptr;
}

StrongPtr<Field> noCoordinates() { return fail("EvalGrid: No coordinates found in destination Grid!"); }

/// The vertices of a grid in its default chart, or null; nothing is made.
StrongPtr<Representation> verticesInChart(const Grid& grid) { return grid.getCartesianRepresentation(""); }

EvaluationOptions optionsOf(const std::string& context, bool flag) {
    EvaluationOptions options;
    options.label = context;
    if (flag) options.cellLocator = CellLocator::Exact;
    return options;
}

/// Picks the values of unfragmented source data by the numbers of source vertices.
StrongPtr<Field> evaluateByIndirection(Representation& destination, const Representation& relative,
                                       const Field& sourceField, const std::string& name) {
    const StrongPtr<Field> indirection = relative.Positions();
    if (!indirection)
        return fail("EvalGrid: Relative Representation found, but NO indirection/interpolation weight field!");
    const StrongPtr<MemBase> data = indirection->getData();
    const auto* const indices = dynamic_cast<const TypedArray<index_t>*>(data.rawptr());
    if (!indices) return fail("EvalGrid: Indirection field found, but NO indirection data as indices!");
    const StrongPtr<MemBase> sourceData = sourceField.getData();
    if (!sourceData) return fail("EvalGrid: Only unfragmented source data supported as of now!");
    StrongPtr<MemBase> picked;
    pullData(picked, sourceData, *indices, data->getDynamicSize(), 1);
    if (!picked) return fail("EvalGrid: Create field data from Indirection FAILED!");
    const StrongPtr<Field> made(new Field(picked, nullptr));
    destination[name] = made;
    Console::puts("EvalGrid - YAY, indirection was performed well");
    return made;
}

} // namespace

StrongPtr<Field> EvalGrid(Grid& destination, Grid& source, const std::string& fieldName, Slice& slice,
                          const std::string& context, bool flag) {
    return EvalGrid(destination, source, fieldName, slice, optionsOf(context, flag));
}

StrongPtr<Field> EvalGrid(Grid& destination, Grid& source, const std::string& fieldName, Slice& slice,
                          const EvaluationOptions& options) {
    const StrongPtr<Skeleton> vertices = destination.findVertices();
    if (!vertices) {
        const StrongPtr<Representation> sourceVertices = verticesInChart(source);
        const bool hasField = sourceVertices && sourceVertices->findField(fieldName);
        return hasField ? noCoordinates() : noSourceField(fieldName);
    }
    const StrongPtr<Chart> chart = destination.makeChart(typeid(CartesianChart), "");
    const StrongPtr<Representation> representation = (*vertices)[*chart];
    return EvalFieldOnRepresentation(*representation, vertices, source, fieldName, slice, options);
}

StrongPtr<Field> EvalFieldOnRepresentation(Representation& destination, const StrongPtr<Skeleton>& destinationSkeleton,
                                           Grid& source, const std::string& fieldName, Slice& slice,
                                           const std::string& context, bool flag) {
    return EvalFieldOnRepresentation(destination, destinationSkeleton, source, fieldName, slice,
                                     optionsOf(context, flag));
}

StrongPtr<Field> EvalFieldOnRepresentation(Representation& destination, const StrongPtr<Skeleton>& destinationSkeleton,
                                           Grid& source, const std::string& fieldName, Slice& slice,
                                           const EvaluationOptions& options) {
    const Hestra::Profiler scope("baseop/EvalGrid", __LINE__, "EvalFieldOnRepresentation()", __PRETTY_FUNCTION__);
    StrongPtr<Skeleton> sourceSkeleton;
    StrongPtr<Representation> sourceVertices;
    {
        const detail::GridLock lock{StrongPtr<Grid>(&source)};
        sourceSkeleton = source.findVertices();
        sourceVertices = verticesInChart(source);
    }
    if (!sourceSkeleton || !sourceVertices) return noSourceField(fieldName);
    if (sourceVertices.rawptr() == &destination) return destination.findField(fieldName);

    const StrongPtr<Field> sourceField = sourceVertices->findField(fieldName);
    if (!sourceField) return noSourceField(fieldName);
    if (StrongPtr<Field> existing = destination.findField(fieldName)) {
        Console::print("EvalGrid: Destination Field [%s] already exists!\n", fieldName.c_str());
        return existing;
    }
    // Looked up, not made: an empty relative representation would be taken for a broken one next time.
    if (destinationSkeleton)
        if (const auto relative = destinationSkeleton->findRepresentation(*sourceSkeleton))
            return evaluateByIndirection(destination, *relative, *sourceField, fieldName);

    const StrongPtr<Field> positions = destination.Positions();
    if (!positions) return noCoordinates();
    GridEvaluator::Context search;
    search.slice = StrongPtr<Slice>(&slice);
    search.grid = StrongPtr<Grid>(&source);
    static_cast<EvaluationOptions&>(search) = options;
    // Over the same fragment ids as the positions, so that each value lies under the id of its position.
    const StrongPtr<Field> made(new Field(positions->getFragmentIDCollection()));
    EvalFragment evaluate(sourceVertices->Positions(), sourceField, made, search);
    positions->iterate(evaluate);
    if (evaluate.nEvaluated() == 0) return nullptr;
    destination[fieldName] = made;
    Console::print("EvalGrid: ok, adding field [%s]\n", fieldName.c_str());
    return made;
}

EvalFragment::EvalFragment(const StrongPtr<Field>& sourcePositions, const StrongPtr<Field>& sourceField,
                           const StrongPtr<Field>& target, GridEvaluator::Context context)
    : mySourcePositions(sourcePositions), mySourceField(sourceField), myTarget(target), myContext(std::move(context)) {}
EvalFragment::~EvalFragment() = default;

bool EvalFragment::apply(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& positionsCreator) {
    if (!mySourcePositions || !mySourceField || !myTarget || !positionsCreator) return true;
    const StrongPtr<MemBase> positions = positionsCreator->getData();
    if (!positions || positions->nElements() == 0) return true;
    if (!myEvaluator || Console::isHeard()) myEvaluator = std::make_unique<GridEvaluator>();
    const StrongPtr<MemBase> values = myEvaluator->evaluate(positions, *mySourcePositions, myContext, *mySourceField);
    if (!values) return true;
    myTarget->setPersistentData(values, id);
    ++myEvaluated;
    return true;
}

} // namespace Vantle
