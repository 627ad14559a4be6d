#include <baseop/BlockBoundary.hpp>
#include <baseop/DerivedQuantities.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/WorldDerivative.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <dataset/detail/DataSetState.hpp>
#include <dataset/io/FileArray.hpp>

#include <array>
#include <unordered_map>

namespace Vantle {

using detail::DataSetBlock;
using detail::Meter;
using detail::quoted;
using Hestra::Freshness;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace detail {

std::optional<NumberRange> FieldNumbers::all() const {
    std::optional<NumberRange> range;
    const auto isLess = [](double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); };
    for (const BlockNumbers& block : blocks) {
        if (!block.range) continue;
        if (!range) range = block.range;
        if (isLess(block.range->least, range->least)) range->least = block.range->least;
        if (isLess(range->greatest, block.range->greatest)) range->greatest = block.range->greatest;
    }
    return range;
}

bool FieldNumbers::hasNaN() const {
    return std::any_of(blocks.begin(), blocks.end(), [](const BlockNumbers& block) { return block.hasNaN; });
}

std::optional<BlockBox> BlockBoxes::all() const {
    std::optional<BlockBox> box;
    for (const auto& block : blocks) {
        if (!block) continue;
        if (!box) box = block;
        for (int d = 0; d < 3; ++d) {
            box->least[d] = std::min(box->least[d], block->least[d]);
            box->greatest[d] = std::max(box->greatest[d], block->greatest[d]);
        }
    }
    return box;
}

MultiIndex<3> DataSetBlock::size() const {
    if (!positions) return {};
    if (const auto announced = getSize(*positions).as<3>()) return *announced;
    const StrongPtr<MemBase> data = positions->getData();
    return data ? data->getDynamicSize().as<3>().value_or(MultiIndex<3>()) : MultiIndex<3>();
}

Freshness originOf(const Field& what, const Blanking& masks) {
    return Freshness(&what, masks.vertexMask().rawptr(), masks.cellMask().rawptr());
}

} // namespace detail

namespace {

/// An operation and its operand, if a name is made of these.
struct Formula {
    std::string operation, operand;
};
std::optional<Formula> parse(const std::string& name) {
    const auto open = name.find('(');
    if (open == std::string::npos || name.back() != ')') return std::nullopt;
    Formula formula{name.substr(0, open), name.substr(open + 1, name.size() - open - 2)};
    constexpr std::array known{"gradient", "vorticity", "divergence", "qCriterion", "magnitude"};
    if (std::find(known.begin(), known.end(), formula.operation) == known.end()) return std::nullopt;
    return formula;
}

const char* kindOf(int components) {
    return components == 1   ? "a scalar"
           : components == 3 ? "a vector"
           : components == 9 ? "a tensor"
                             : "of elements that cannot be computed with";
}

} // namespace

DataSet::Step::Step(double when, const StrongPtr<Slice>& in, const StrongPtr<Hestra::Cache>& kept)
    : time(when), slice(in), grid(slice->newGrid("data")), representation(grid->makeCartesianRepresentation(3)),
      cache(kept) {
    representation->setPositions(Hestra::makeRef<Field>(Hestra::makeRef<FragmentIDCollection>().strong()));
}

DataSet::Step::Step(const Step& other, double when, const StrongPtr<Slice>& in)
    : time(when), slice(in), grid(slice->newGrid("data")), representation(grid->makeCartesianRepresentation(3)),
      cache(other.cache), joins(other.joins), myLocator(other.myLocator) {
    other.representation->iterate([&](const FieldID& id, const Field& field) {
        representation->setField(id.name(), StrongPtr<Field>(const_cast<Field*>(&field)));
        return true;
    });
    const std::lock_guard lock(other.myMutex);
    myNumbers = other.myNumbers;
    myBoxes = other.myBoxes;
    myDerived = other.myDerived;
}

bool DataSet::Step::isReserved(const std::string& name) {
    return name == PositionsName || name == VertexMaskName || name == CellMaskName;
}

int DataSet::Step::components(const Field& field) {
    int known = 0;
    field.iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            VantleTypeIndex type = creator->elementType();
            if (!type)
                if (const StrongPtr<MemBase> data = creator->getData()) type = data->elementIndex();
            known = LocatedPositions::components(type);
            return known == 0;
        },
        false);
    return known;
}

std::vector<DataSetBlock> DataSet::Step::blocks() const {
    std::vector<DataSetBlock> all;
    positions()->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        all.push_back({id, creator});
        return true;
    });
    return all;
}

DataSetBlock DataSet::Step::block(const std::string& name) const {
    std::vector<std::string> known;
    for (DataSetBlock& block : blocks()) {
        known.push_back(block.name());
        if (known.back() == name) return std::move(block);
    }
    throw DataSetError(detail::unknownName("block", name, std::move(known)));
}

std::vector<std::string> DataSet::Step::fieldNames() const {
    std::vector<std::string> names;
    representation->iterate([&](const FieldID& id, const Field&) {
        if (!isReserved(id.name())) names.push_back(id.name());
        return true;
    });
    return names;
}

StrongPtr<Field> DataSet::Step::field(const std::string& name) const {
    if (!isReserved(name))
        if (const StrongPtr<Field> set = representation->findField(name)) return set;
    if (StrongPtr<Field> made = derived(name)) return made;
    throw DataSetError(detail::unknownName("field", name, fieldNames()));
}

StrongPtr<Field> DataSet::Step::field(const std::string& name, int wanted) const {
    StrongPtr<Field> found = field(name);
    const int has = components(*found);
    if (has != wanted) throw DataSetError("field " + quoted(name) + " is " + kindOf(has) + ", not " + kindOf(wanted));
    return found;
}

StrongPtr<MemBase> DataSet::Step::data(const std::string& name, const Field& field, const DataSetBlock& block) const {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(block.id);
    if (!creator) return nullptr;
    const StrongPtr<MemBase> data = creator->getData();
    const auto where = [&] { return "field " + quoted(name) + ": block " + quoted(block.name()); };
    if (!data) {
        throwReadingFailure(name);
        throw DataSetError(where() + ": the data cannot be made");
    }
    const MultiIndex<3> size = block.size();
    if (data->getDynamicSize().as<3>() != size)
        throw DataSetError(where() + " has " + to_string(size) + " vertices, the data are " +
                           to_string(data->getDynamicSize()));
    return data;
}

void DataSet::Step::throwReadingFailure(const std::string& name) const {
    for (std::optional<Formula> formula{Formula{{}, name}}; formula; formula = parse(formula->operand))
        if (const StrongPtr<Field> of = representation->findField(formula->operand)) Vantle::throwReadingFailure(*of);
    Vantle::throwReadingFailure(*positions());
}

// What is known of the numbers of a field, and of the box of a block, is what it was derived from that decides.

std::shared_ptr<const detail::FieldNumbers> DataSet::Step::numbers(const std::string& name, const Meter& meter) const {
    const StrongPtr<Field> of = field(name, 1);
    const Blanking blanking = masks();
    {
        const std::lock_guard lock(myMutex);
        const auto known = myNumbers.find(name);
        if (known != myNumbers.end() &&
            known->second->origin.isFor(of.rawptr(), blanking.vertexMask().rawptr(), blanking.cellMask().rawptr()))
            return known->second;
    }
    auto made = std::make_shared<detail::FieldNumbers>();
    made->origin = detail::originOf(*of, blanking);
    const std::vector<DataSetBlock> all = blocks();
    for (const DataSetBlock& block : all) {
        meter(static_cast<double>(made->blocks.size()) / static_cast<double>(all.size()));
        const StrongPtr<MemBase> values = data(name, *of, block);
        made->blocks.push_back(values ? ComputeNumberRange(values, blanking.of(block.id, block.size()).rawptr())
                                      : BlockNumbers());
    }
    const std::lock_guard lock(myMutex);
    myNumbers[name] = made;
    return made;
}

std::shared_ptr<const detail::BlockBoxes> DataSet::Step::boxes(const Meter& meter) const {
    const StrongPtr<Field> of = positions();
    const Blanking blanking = masks();
    {
        const std::lock_guard lock(myMutex);
        if (myBoxes && myBoxes->origin.isFor(of.rawptr(), blanking.vertexMask().rawptr(), blanking.cellMask().rawptr()))
            return myBoxes;
    }
    auto made = std::make_shared<detail::BlockBoxes>();
    made->origin = detail::originOf(*of, blanking);
    const std::vector<DataSetBlock> all = blocks();
    for (const DataSetBlock& block : all) {
        meter(static_cast<double>(made->blocks.size()) / static_cast<double>(all.size()));
        const StrongPtr<MemBase> points = data(PositionsName, *of, block);
        made->blocks.push_back(ComputeNumberBox(points, blanking.of(block.id, block.size()).rawptr()));
        // Where a NaN would take the place of a corner: location goes by the box that it finds.
        if (points && !blanking && made->blocks.back() && !block.positions->findInterface<Orvix::BoundingBox>())
            block.positions->addInterface(
                Hestra::makeRef<Orvix::BoundingBox>(made->blocks.back()->least, made->blocks.back()->greatest));
    }
    const std::lock_guard lock(myMutex);
    myBoxes = made;
    return made;
}

std::shared_ptr<const LocalFromWorldPoint> DataSet::Step::locator() const {
    (void)boxes(Meter({})); // which locators go by
    const std::lock_guard lock(myLocator->mutex);
    auto& kept = myLocator->locator;
    if (!kept || !kept->isCurrent()) {
        LocatorOptions options;
        options.cellLocator = CellLocator::Exact;
        kept = std::make_shared<const LocalFromWorldPoint>(slice, grid, PositionsName, options);
    }
    return kept;
}

StrongPtr<Grid> DataSet::Step::view() const {
    StrongPtr<Grid> made = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> fields = made->makeCartesianRepresentation(3);
    fields->setPositions(positions());
    for (const char* mask : {VertexMaskName, CellMaskName}) fields->setField(mask, representation->findField(mask));
    return made;
}

// ---------------------------------------------------------------------------------------------------------------------

StrongPtr<Field> DataSet::Step::derived(const std::string& name) const {
    const std::optional<Formula> formula = parse(name);
    if (!formula) return nullptr;
    const StrongPtr<Field> operand = field(formula->operand);
    const Blanking blanking = masks();
    const auto isFor = [&](const detail::DerivedEntry& entry) {
        return entry.field && entry.place.isFor(positions().rawptr()) &&
               entry.origin.isFor(operand.rawptr(), blanking.vertexMask().rawptr(), blanking.cellMask().rawptr());
    };
    {
        const std::lock_guard lock(myMutex);
        const auto known = myDerived.find(name);
        if (known != myDerived.end() && isFor(known->second)) return known->second.field;
    }
    detail::DerivedEntry made = derive(formula->operation, formula->operand, name);
    made.origin = detail::originOf(*operand, blanking);
    made.place = Freshness(positions().rawptr());
    // What another thread has made meanwhile stays: somebody may use it, and it lives by its entry.
    const std::lock_guard lock(myMutex);
    detail::DerivedEntry& kept = myDerived[name];
    if (!isFor(kept)) kept = made;
    return kept.field;
}

detail::DerivedEntry DataSet::Step::derive(const std::string& operation, const std::string& operand,
                                           const std::string& name) const {
    detail::DerivedEntry made;
    made.from = field(operand);
    const int has = components(*made.from);
    if (has != 3 && !(has == 1 && operation == "gradient"))
        throw DataSetError("field " + quoted(operand) + " is " + kindOf(has) + ", which has no " + operation);
    if (operation == "magnitude") {
        made.field = makeMagnitude(made.from, cache);
    } else if (operation == "gradient") {
        for (const DataSetBlock& block : blocks())
            if (!made.from->getCreator(block.id))
                throw DataSetError("field " + quoted(operand) + " has no " + operation + ": block " +
                                   quoted(block.name()) + " has no values");
        made.home = view();
        made.home->getCartesianRepresentation()->setField(operand, made.from);
        std::string problems;
        made.field = WorldDerivative(*made.home, operand, name, problems, {.joinBlocks = true, .joins = joins}, cache);
        if (!made.field) throw DataSetError("field " + quoted(operand) + " has no " + operation + ": " + problems);
    } else {
        made.from = field("gradient(" + operand + ")");
        made.field = operation == "vorticity"    ? makeVorticity(made.from, cache)
                     : operation == "divergence" ? makeDivergence(made.from, cache)
                                                 : makeQCriterion(made.from, cache);
    }
    return made;
}

// ---------------------------------------------------------------------------------------------------------------------

namespace {

/// What a surface has is its own from now on, and no affair of a cache.
void own(Grid& surface) {
    const auto keep = [](Field& field) {
        const StrongPtr<MemBase> array = field.getData();
        if (!array) throw DataSetError("a surface did not fit into the cache of the process");
        field.setPersistentData(array);
    };
    std::vector<StrongPtr<Field>> all{(*surface.getSkeleton(SkeletonID(2, 1))).FirstRepresentation()->Positions()};
    surface.getCartesianRepresentation()->iterate([&](const FieldID&, const Field& field) {
        all.emplace_back(const_cast<Field*>(&field));
        return true;
    });
    for (const StrongPtr<Field>& field : all) keep(*field);
}

} // namespace

Surface DataSet::Step::surface(const std::string& name, const StrongPtr<Field>& of, const detail::FieldNumbers& numbers,
                               double level, const Fields& values, bool hasNormals, const Meter& meter) const {
    std::vector<std::pair<std::string, StrongPtr<Field>>> wanted;
    for (const std::string& value : values) wanted.emplace_back(value, field(value));
    if (hasNormals) wanted.emplace_back(Surface::NormalsName, field("gradient(" + name + ")"));

    const std::vector<DataSetBlock> all = blocks();
    std::unordered_map<const FragmentID*, std::size_t> numberOf;
    for (const DataSetBlock& block : all) numberOf.emplace(block.id.rawptr(), numberOf.size());
    const StrongPtr<Slice> home = Hestra::makeRef<Slice>();
    const StrongPtr<Grid> source = view();
    const StrongPtr<Representation> fields = source->getCartesianRepresentation();
    fields->setField(name, of);
    if (numbers.hasNaN()) // no surface beside what is no number
        fields->setField(VertexMaskName, makeMaskOfNumbers(of, representation));
    SurfaceOptions options;
    options.joinBlocks = true;
    options.joins = joins;
    options.keepEdges = !wanted.empty();
    const Meter sweep = meter.part(0.0, wanted.empty() ? 1.0 : 0.7), rest = meter.part(0.7, 1.0);
    options.progress = [&](double share) { sweep(share); };
    options.rangeOf = [&](const StrongPtr<FragmentID>& id) -> std::optional<std::pair<double, double>> {
        const auto known = numberOf.find(id.rawptr());
        if (known == numberOf.end() || !numbers.blocks[known->second].range) return std::nullopt;
        const NumberRange& range = *numbers.blocks[known->second].range;
        if (range.least <= level && level <= range.greatest) (void)data(name, *of, all[known->second]);
        return std::pair(range.least, range.greatest);
    };
    const auto compute = [&]() -> StrongPtr<Grid> {
        try {
            return ComputeIsosurface(level, Hestra::Ageable(), *source, name, *home, "surface", 0.0, options);
        } catch (const IsoException&) {
            throwReadingFailure(name);
            throw;
        }
    };
    StrongPtr<Grid> made = compute(), before;
    if (const auto box = ComputeNumberBox(made->CartesianPositions()->getData()); box && box->hasNaN) {
        // Vertices that are nowhere: beside them, too, there is no surface. The mask follows that of another grid: in its
        // own it would find itself.
        before = view();
        before->getCartesianRepresentation()->setField(VertexMaskName, fields->findField(VertexMaskName));
        fields->setField(VertexMaskName, makeMaskOfNumbers(positions(), before->getCartesianRepresentation()));
        home->remove("surface");
        made = compute();
    }

    own(*made);
    const StrongPtr<Representation> vertices = made->getCartesianRepresentation();
    for (std::size_t n = 0; n < wanted.size(); ++n) {
        rest(static_cast<double>(n) / static_cast<double>(wanted.size()));
        const auto& [valueName, quantity] = wanted[n];
        const StrongPtr<MemBase> array = EvalFieldOnIsosurface(*made, *quantity);
        throwReadingFailure(valueName);
        if (!array) throw DataSetError("the values of a surface did not fit into the cache");
        if (hasNormals && n + 1 == wanted.size())
            withMemArray<1>(TypeList<PhysicalSpace::vector>(), array, [](auto& normals) {
                for (index_t k = 0; k < normals.nElements(); ++k) {
                    const double size = length(normals.element(k));
                    normals.element(k) = size > 0.0 ? normals.element(k) * (1.0 / size) : PhysicalSpace::vector();
                }
            });
        vertices->setField(valueName, Hestra::makeRef<Field>(array, StrongPtr<FragmentIDCollection>()));
    }
    meter(1.0);
    return Surface(made);
}

Surface DataSet::Step::hull(const Fields& values) const {
    const StrongPtr<Grid> source = view();
    for (const std::string& value : values) source->getCartesianRepresentation()->setField(value, field(value));
    const StrongPtr<Slice> home = Hestra::makeRef<Slice>();
    StrongPtr<Grid> made;
    try {
        made = ComputeBlockBoundary(*source, *home, "hull", {.joins = joins, .fields = values});
    } catch (const std::invalid_argument&) {
        for (const std::string& value : values) throwReadingFailure(value);
        throwReadingFailure(PositionsName);
        throw;
    }
    own(*made);
    return Surface(made);
}

void DataSet::Step::sample(const LocatedPositions& at, const std::string& name, const Field& field, int components,
                           std::span<double> values, std::span<unsigned char> mask, const Meter& meter) const {
    std::vector<StrongPtr<FragmentID>> fragments;
    for (const DataSetBlock& block : blocks()) fragments.push_back(block.id);
    try {
        at.sample(field, fragments, components, values, mask, [&](double share) { meter(share); });
    } catch (const std::invalid_argument&) {
        throwReadingFailure(name);
        throw;
    }
}

// ---------------------------------------------------------------------------------------------------------------------

void DataSet::Step::setPositions(const StrongPtr<Field>& positions) {
    representation->setPositions(positions);
    myBoxes = nullptr;
    myNumbers.clear();
    myDerived.clear();
    myLocator = std::make_shared<LocatorSlot>();
}

void DataSet::Step::setField(const std::string& name, const StrongPtr<Field>& field) {
    representation->setField(name, field);
    myNumbers.clear();
    myDerived.clear();
}

void DataSet::Step::setJoins(const JoinOptions& options) {
    joins = options;
    myDerived.clear();
}

void DataSet::Step::setMask(const char* name, const StrongPtr<Field>& mask) {
    setField(name, mask);
    myBoxes = nullptr;
    myLocator = std::make_shared<LocatorSlot>();
}

DataSet::Step* DataSet::State::find(double time) const noexcept {
    Step* found = nullptr;
    for (const auto& step : steps)
        if (step->time <= time) found = step.get();
    return found;
}

} // namespace Vantle
