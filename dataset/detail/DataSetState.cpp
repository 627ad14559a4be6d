#include <baseop/BlockBoundary.hpp>
#include <baseop/DerivedQuantities.hpp>
#include <baseop/FieldMasks.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/WorldDerivative.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/QuadCut.hpp>
#include <dataset/detail/DataSetState.hpp>
#include <dataset/detail/NumberArray.hpp>
#include <dataset/io/FileArray.hpp>

#include <array>
#include <cmath>
#include <limits>
#include <unordered_map>

namespace Vantle {

using detail::DataSetBlock;
using detail::quoted;
using Hestra::Freshness;
using Hestra::Pulse;
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

bool FieldNumbers::isInfinite() const {
    const auto range = all();
    return range && (std::isinf(range->least) || std::isinf(range->greatest));
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

StrongPtr<Field> copyOf(const StrongPtr<Field>& field, const StrongPtr<FragmentIDCollection>& collection) {
    const StrongPtr<Field> copy = Hestra::makeRef<Field>(collection);
    if (field)
        field->iterate(
            [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                copy->setCreator(creator, id);
                return true;
            },
            false);
    return copy;
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

double share(std::size_t part, std::size_t whole) { return static_cast<double>(part) / static_cast<double>(whole); }

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

int DataSet::Step::knownComponents(const std::string& name, const Field& field) const {
    const int known = components(field);
    if (known == 0) throwReadingFailures({name}); // which may be why
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
    if (const StrongPtr<FragmentID> id = name.empty() ? nullptr : positions()->getFragmentID(name))
        if (StrongPtr<CreativeArrayBase> creator = positions()->getCreator(id)) return {id, std::move(creator)};
    std::vector<std::string> known;
    for (DataSetBlock& block : blocks()) {
        known.push_back(block.name());
        if (known.back() == name) return std::move(block);
    }
    throw detail::unknownName("block", name, std::move(known));
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
    throw detail::unknownName("field", name, fieldNames());
}

StrongPtr<Field> DataSet::Step::field(const std::string& name, int wanted) const {
    StrongPtr<Field> found = field(name);
    const int has = knownComponents(name, *found);
    if (has != wanted) throw DataSetError("field " + quoted(name) + " is " + kindOf(has) + ", not " + kindOf(wanted));
    return found;
}

StrongPtr<MemBase> DataSet::Step::data(const std::string& name, const Field& field, const DataSetBlock& block) const {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(block.id);
    if (!creator) return nullptr;
    const StrongPtr<MemBase> data = creator->getData();
    const auto where = [&] { return "field " + quoted(name) + ": block " + quoted(block.name()); };
    if (!data) throw std::invalid_argument(where() + ": the data cannot be made");
    const MultiIndex<3> size = block.size();
    if (data->getDynamicSize().as<3>() != size)
        throw DataSetError(where() + " has " + to_string(size) + " vertices, the data are " +
                           to_string(data->getDynamicSize()));
    return data;
}

struct DataSet::Step::MaskOrigin : Hestra::Interface<MaskOrigin> {
    MaskOrigin(const Step& of, const std::string& field)
        : step(std::make_unique<const Step>(of, of.time, Hestra::makeRef<Slice>().strong())), name(field) {}
    const std::unique_ptr<const Step> step;
    const std::string name;
};

std::vector<StrongPtr<Field>> DataSet::Step::sourcesOf(const std::string& name) const {
    std::vector<StrongPtr<Field>> all;
    for (std::optional<Formula> formula{Formula{{}, name}}; formula; formula = parse(formula->operand))
        if (const StrongPtr<Field> of = representation->findField(formula->operand)) all.push_back(of);
    return all;
}

void DataSet::Step::throwReadingFailures(const Fields& names) const {
    for (const std::string& name : names)
        for (const StrongPtr<Field>& of : sourcesOf(name)) throwReadingFailure(*of);
    for (const StrongPtr<Field>& mask : {masks().vertexMask(), masks().cellMask()}) {
        if (!mask) continue;
        throwReadingFailure(*mask);
        mask->iterate(
            [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                const auto origin = creator->findInterface<MaskOrigin>();
                if (origin) origin->step->throwReadingFailures({origin->name});
                return !origin; // which blocks have in common
            },
            false);
    }
    throwReadingFailure(*positions());
}

StrongPtr<Field> DataSet::Step::maskOfRange(const std::string& name, double low, double high) const {
    (void)field(name, 1); // found once for both
    const auto origin = Hestra::makeRef<MaskOrigin>(*this, name);
    const Step& now = *origin->step;
    const StrongPtr<Field> mask = makeMaskOfRange(now.field(name, 1), low, high, now.representation, cache);
    mask->iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            creator->addInterface(origin);
            return true;
        },
        false);
    return mask;
}

// What is known of the numbers of a field, and of the box of a block, is what it was derived from that decides.

std::shared_ptr<const detail::FieldNumbers> DataSet::Step::knownNumbers(const std::string& name,
                                                                        const Field& of) const {
    const Blanking blanking = masks();
    const std::lock_guard lock(myMutex);
    const auto known = myNumbers.find(name);
    return known != myNumbers.end() &&
                   known->second->origin.isFor(&of, blanking.vertexMask().rawptr(), blanking.cellMask().rawptr())
               ? known->second
               : nullptr;
}

std::shared_ptr<const detail::FieldNumbers> DataSet::Step::numbers(const std::string& name) const {
    const StrongPtr<Field> of = field(name, 1);
    if (auto known = knownNumbers(name, *of)) return known;
    const Blanking blanking = masks();
    auto made = std::make_shared<detail::FieldNumbers>();
    made->origin = detail::originOf(*of, blanking);
    const std::vector<DataSetBlock> all = blocks();
    for (const DataSetBlock& block : all) {
        const Pulse::Part part(share(made->blocks.size(), all.size()), share(made->blocks.size() + 1, all.size()));
        Pulse::beat(0.0);
        const StrongPtr<MemBase> values = data(name, *of, block);
        made->blocks.push_back(values ? ComputeNumberRange(values, blanking.of(block.id, block.size()).rawptr())
                                      : BlockNumbers());
    }
    const std::lock_guard lock(myMutex);
    myNumbers[name] = made;
    return made;
}

std::shared_ptr<const detail::BlockBoxes> DataSet::Step::boxes() const {
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
        const Pulse::Part part(share(made->blocks.size(), all.size()), share(made->blocks.size() + 1, all.size()));
        Pulse::beat(0.0);
        const StrongPtr<MemBase> points = data(PositionsName, *of, block);
        const StrongPtr<const BlockMask> mask = blanking.of(block.id, block.size());
        made->blocks.push_back(ComputeNumberBox(points, mask.rawptr()));
        // Where a NaN would take the place of a corner: location goes by the box that it finds, whatever is masked.
        if (block.positions->findInterface<Orvix::BoundingBox>()) continue;
        if (const auto whole = mask ? ComputeNumberBox(points) : made->blocks.back())
            block.positions->addInterface(Hestra::makeRef<Orvix::BoundingBox>(whole->least, whole->greatest));
    }
    const std::lock_guard lock(myMutex);
    myBoxes = made;
    return made;
}

namespace {

LocatorOptions exactly() {
    LocatorOptions options;
    options.cellLocator = CellLocator::Exact;
    return options;
}

/// A locator, and what it keeps its structures in.
struct HomedLocator {
    HomedLocator(const StrongPtr<Slice>& in, const StrongPtr<Grid>& grid)
        : slice(in), locator(in, grid, PositionsName, exactly()) {}
    StrongPtr<Slice> slice;
    LocalFromWorldPoint locator;
};

} // namespace

std::shared_ptr<const LocalFromWorldPoint> DataSet::Step::locator() const {
    const std::lock_guard lock(myLocator->mutex);
    auto& kept = myLocator->locator;
    if (!kept || !kept->isCurrent())
        kept = std::make_shared<const LocalFromWorldPoint>(slice, grid, PositionsName, exactly());
    return kept;
}

std::shared_ptr<const LocalFromWorldPoint> DataSet::Step::locatorOf(const DataSetBlock& block) const {
    const StrongPtr<Slice> home = Hestra::makeRef<Slice>();
    const StrongPtr<Grid> alone = home->newGrid("data");
    const StrongPtr<Representation> fields = alone->makeCartesianRepresentation(3);
    StrongPtr<FragmentIDCollection> collection;
    if (block.id) {
        collection = Hestra::makeRef<FragmentIDCollection>();
        collection->add(block.id);
    }
    const auto take = [&](const char* name, const StrongPtr<Field>& from) {
        const StrongPtr<CreativeArrayBase> creator = from ? from->getCreator(block.id) : nullptr;
        if (!creator) return;
        const StrongPtr<Field> field = Hestra::makeRef<Field>(collection);
        field->setCreator(creator, block.id);
        fields->setField(name, field);
    };
    take(PositionsName, positions());
    take(VertexMaskName, masks().vertexMask());
    take(CellMaskName, masks().cellMask());
    const auto made = std::make_shared<const HomedLocator>(home, alone);
    return {made, &made->locator};
}

// What structures hold of curvilinear blocks: their boxes, and positions that a cache could drop otherwise.
bool DataSet::Step::isLocatedByBlocks() const {
    constexpr std::size_t BytesPerCell = 13;
    const auto isLasting = [](const CreativeArrayBase& creator) {
        return !creator.cache() || dynamic_cast<const detail::GivenArray*>(&creator);
    };
    std::size_t bytes = 0;
    for (const DataSetBlock& block : blocks()) {
        const StrongPtr<MemBase> there = block.positions->cachedData();
        if (there && !there->hasOwnStorage()) continue;
        bytes += static_cast<std::size_t>(block.size().product()) *
                 (BytesPerCell + (isLasting(*block.positions) ? 0 : sizeof(Point)));
    }
    return bytes > cache->limit();
}

LocatedPositions DataSet::Step::locate(std::span<const Point> places) const {
    const auto known = boxes(); // which locators go by, too
    if (!isLocatedByBlocks()) return LocatedPositions(*locator(), places);
    const std::vector<DataSetBlock> all = blocks();
    return LocatedPositions(
        known->blocks, [&](std::uint32_t n) { return locatorOf(all[n]); }, places);
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
    const int has = knownComponents(operand, *made.from);
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

/// Whether a point of a surface is nowhere.
bool hasNaN(const Grid& surface) {
    const StrongPtr<MemBase> points = surface.CartesianPositions()->getData();
    const auto box = ComputeNumberBox(points); // none where no coordinate along an axis is a number
    return box ? box->hasNaN : points && points->nElements() > 0;
}

} // namespace

Surface DataSet::Step::surface(const std::string& name, const StrongPtr<Field>& of, const detail::FieldNumbers& numbers,
                               double level, const Fields& values, bool hasNormals, const Plane* plane) const {
    std::vector<std::pair<std::string, StrongPtr<Field>>> wanted;
    for (const std::string& value : values) wanted.emplace_back(value, field(value));
    if (hasNormals) wanted.emplace_back(Surface::NormalsName, field("gradient(" + name + ")"));

    const std::vector<DataSetBlock> all = blocks();
    std::unordered_map<const FragmentID*, std::size_t> numberOf;
    for (const DataSetBlock& block : all) numberOf.emplace(block.id.rawptr(), numberOf.size());
    const StrongPtr<Slice> home = Hestra::makeRef<Slice>();
    const StrongPtr<Grid> source = view();
    const StrongPtr<Representation> fields = source->getCartesianRepresentation();
    if (!plane) fields->setField(name, of);
    // No surface beside what is no number, nor on the way to an infinite one.
    if (!plane && numbers.isInfinite())
        fields->setField(VertexMaskName, makeMaskOfRange(of, std::numeric_limits<double>::lowest(),
                                                         std::numeric_limits<double>::max(), representation, cache));
    else if (numbers.hasNaN())
        fields->setField(VertexMaskName, makeMaskOfNumbers(of, representation, cache));
    SurfaceOptions options;
    options.joinBlocks = true;
    options.joins = joins;
    options.keepEdges = !wanted.empty();
    options.rangeOf = [&](const StrongPtr<FragmentID>& id) -> std::optional<std::pair<double, double>> {
        const auto known = numberOf.find(id.rawptr());
        if (known == numberOf.end() || !numbers.blocks[known->second].range) return std::nullopt;
        const NumberRange& range = *numbers.blocks[known->second].range;
        if (range.least <= level && level <= range.greatest) (void)data(name, *of, all[known->second]);
        return std::pair(range.least, range.greatest);
    };
    const auto compute = [&] {
        const Pulse::Part part(0.0, wanted.empty() ? 1.0 : 0.7);
        return plane ? ComputePlaneCut(plane->origin, plane->normal, Hestra::Ageable(), *source, *home, "surface",
                                       options)
                     : ComputeIsosurface(level, Hestra::Ageable(), *source, name, *home, "surface", 0.0, options);
    };
    StrongPtr<Grid> made = compute();
    // Beside vertices that are nowhere, or whose owners have no finite values, there is no surface either. A mask
    // follows that of another grid: in its own it would find itself.
    std::vector<StrongPtr<Grid>> before;
    std::vector<StrongPtr<Field>> seen; // with the values of owners, who are others when more is masked
    const auto hide = [&](const auto& makeMask) {
        before.push_back(view());
        const StrongPtr<Representation> present = before.back()->getCartesianRepresentation();
        present->setField(VertexMaskName, fields->findField(VertexMaskName));
        fields->setField(VertexMaskName, makeMask(present));
    };
    for (int round = 0; round < detail::MostMaskings && hasNaN(*made); ++round) {
        if (!plane) {
            const StrongPtr<BlockJoins> together = BlockJoins::of(*source, joins);
            seen.push_back(Hestra::makeRef<Field>(of->getFragmentIDCollection()));
            for (const DataSetBlock& block : all) {
                const unsigned int number = together->find(block.id);
                const bool shares = number < together->blocks() && together->isShared(number);
                if (const StrongPtr<MemBase> own = data(name, *of, block))
                    seen.back()->setPersistentData(shares ? ownersData(*together, *of, number) : own, block.id);
            }
        }
        hide([&](const auto& present) { return makeMaskOfNumbers(positions(), present, cache); });
        constexpr double most = std::numeric_limits<double>::max();
        if (!plane)
            hide([&](const auto& present) { return makeMaskOfRange(seen.back(), -most, most, present, cache); });
        home->remove("surface");
        made = compute();
    }

    own(*made);
    const StrongPtr<Representation> vertices = made->getCartesianRepresentation();
    for (std::size_t n = 0; n < wanted.size(); ++n) {
        const Pulse::Part part(0.7 + 0.3 * share(n, wanted.size()), 0.7 + 0.3 * share(n + 1, wanted.size()));
        Pulse::beat(0.0);
        const auto& [valueName, quantity] = wanted[n];
        StrongPtr<MemBase> array = EvalFieldOnIsosurface(*made, *quantity);
        if (!array) throw DataSetError("the values of a surface did not fit into the cache");
        if (const Values found(array); found.components() == 1 && (found.size() == 0 || std::isnan(found.numbers()[0])))
            // Perhaps because none of the blocks there has the field, which may be one of vectors.
            if (const int known = components(*quantity); known > 1)
                array = detail::NumberArray(valueName, known, MultiIndex<1>(found.size()),
                                            std::numeric_limits<double>::quiet_NaN())
                            .array;
        if (hasNormals && n + 1 == wanted.size())
            withMemArray<1>(TypeList<PhysicalSpace::vector>(), array, [](auto& normals) {
                for (index_t k = 0; k < normals.nElements(); ++k) {
                    const double size = length(normals.element(k));
                    normals.element(k) = size > 0.0 ? normals.element(k) * (1.0 / size) : PhysicalSpace::vector();
                }
            });
        vertices->setField(valueName, Hestra::makeRef<Field>(array, StrongPtr<FragmentIDCollection>()));
    }
    // Nobody will ask for more: edges are not kept beside the points any longer.
    if (!wanted.empty())
        vertices->setPositions(
            Hestra::makeRef<Field>(vertices->Positions()->getData(), StrongPtr<FragmentIDCollection>()));
    return Surface(made);
}

Surface DataSet::Step::layer(const IndexPlane& plane, const Fields& values) const {
    const DataSetBlock at = block(plane.block);
    const MultiIndex<3> size = at.size();
    const std::string where = "block " + quoted(plane.block);
    if (plane.axis < 0 || plane.axis > 2) throw DataSetError(where + ": no axis " + std::to_string(plane.axis));
    const int d = plane.axis, u = (d + 1) % 3, v = (d + 2) % 3;
    if (plane.index >= size[d])
        throw DataSetError(where + " has " + to_string(size) + " vertices, and no layer " +
                           std::to_string(plane.index) + " along axis " + std::to_string(d));
    std::vector<std::pair<std::string, StrongPtr<Field>>> wanted;
    for (const std::string& value : values) {
        wanted.emplace_back(value, field(value));
        if (!wanted.back().second->getCreator(at.id))
            throw DataSetError("field " + quoted(value) + " has no values in " + where);
    }

    // The vertices of the layer, and what a field has there.
    std::vector<index_t> vertices;
    MultiIndex<3> vertex;
    vertex[d] = plane.index;
    for (vertex[v] = 0; vertex[v] < size[v]; ++vertex[v])
        for (vertex[u] = 0; vertex[u] < size[u]; ++vertex[u]) vertices.push_back(vertex.linear(size));
    const auto elementsAt = [&](const std::string& name, const Field& of, const std::vector<index_t>& indices) {
        const StrongPtr<MemBase> elements =
            data(name, of, at)
                ->gather(*makeMemArray1D(std::vector<index_t>(indices)), DynamicSize(index_t{indices.size()}), 1);
        if (!elements) throw DataSetError("field " + quoted(name) + ": elements that cannot be copied");
        const StrongPtr<MemBase> converted = convertToDoublePrecision(*elements);
        return converted ? converted : elements;
    };
    const auto places = Hestra::dynamicCast<MemArray<1, Point>>(elementsAt(PositionsName, *positions(), vertices));
    if (!places) throw DataSetError(where + ": the positions are no points");
    const std::span<const Point> points(places->data(), vertices.size());

    // Triangles between them, and then between those that are used.
    std::vector<TriangleCell> triangles;
    const StrongPtr<const BlockMask> mask = masks().of(at.id, size);
    const auto isValid = [&](index_t u0, index_t v0) {
        if (!mask) return true;
        MultiIndex<3> cell;
        cell[u] = u0, cell[v] = v0;
        for (index_t n = plane.index == 0 ? 0 : plane.index - 1; n <= plane.index && n < mask->cells()[d]; ++n) {
            cell[d] = n;
            if (mask->isCellValid(cell)) return true;
        }
        return false;
    };
    for (index_t v0 = 0; v0 + 1 < size[v]; ++v0)
        for (index_t u0 = 0; u0 + 1 < size[u]; ++u0) {
            if (!isValid(u0, v0)) continue;
            const auto first = static_cast<unsigned int>(u0 + size[u] * v0), row = static_cast<unsigned int>(size[u]);
            const std::array<unsigned int, 4> quad{first, first + 1, first + row + 1, first + row};
            if (std::any_of(quad.begin(), quad.end(), [&](unsigned int n) { return !(points[n] == points[n]); }))
                continue;
            detail::cutQuad(quad, points, [&](const TriangleCell& t) {
                if (!(points[t[0]] == points[t[1]] || points[t[1]] == points[t[2]] || points[t[2]] == points[t[0]]))
                    triangles.push_back(t);
            });
        }
    std::vector<unsigned int> numbers(vertices.size());
    for (const TriangleCell& t : triangles)
        for (int c = 0; c < 3; ++c) numbers[t[c]] = 1;
    std::vector<index_t> used;
    std::vector<Point> usedPoints;
    for (std::size_t n = 0; n < numbers.size(); ++n) {
        if (numbers[n] == 0) continue;
        numbers[n] = static_cast<unsigned int>(used.size());
        used.push_back(vertices[n]);
        usedPoints.push_back(points[n]);
    }
    for (TriangleCell& t : triangles)
        for (int c = 0; c < 3; ++c) t[c] = numbers[t[c]];

    const StrongPtr<Grid> made = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> inSpace = made->makeCartesianRepresentation(2);
    inSpace->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::move(usedPoints))));
    (*(*made)[SkeletonID(2, 1)])[*made->findVertices(2)]->setPositions(
        Hestra::makeRef<Field>(makeMemArray1D(std::move(triangles))));
    for (std::size_t n = 0; n < wanted.size(); ++n) {
        const Pulse::Part part(share(n + 1, wanted.size() + 1), share(n + 2, wanted.size() + 1));
        const auto& [name, of] = wanted[n];
        inSpace->setField(name, Hestra::makeRef<Field>(elementsAt(name, *of, used), StrongPtr<FragmentIDCollection>()));
    }
    return Surface(made);
}

Surface DataSet::Step::hull(const Fields& values) const {
    const StrongPtr<Grid> source = view();
    for (const std::string& value : values) source->getCartesianRepresentation()->setField(value, field(value));
    const StrongPtr<Slice> home = Hestra::makeRef<Slice>();
    const StrongPtr<Grid> made = ComputeBlockBoundary(*source, *home, "hull", {.joins = joins, .fields = values});
    own(*made);
    return Surface(made);
}

void DataSet::Step::sample(const LocatedPositions& at, const std::string& name, const Field& field, int components,
                           std::span<double> values, std::span<unsigned char> mask) const {
    std::vector<StrongPtr<FragmentID>> fragments;
    for (const DataSetBlock& block : blocks()) fragments.push_back(block.id);
    (void)reading({name}, [&] { return at.sample(field, fragments, components, values, mask), true; });
}

// ---------------------------------------------------------------------------------------------------------------------

StrongPtr<Field> DataSet::Step::changeable(const std::string& name) const {
    const StrongPtr<Field> there = representation->findField(name);
    const bool isPlace = name == PositionsName;
    StrongPtr<FragmentIDCollection> fragments = positions()->getFragmentIDCollection();
    bool isOwn = there && there->strongCount() == 2 && there->getFragmentIDCollection() == fragments;
    if (isOwn && isPlace) {
        // It gets a fragment, which others that have the collection would get, too.
        int others = fragments ? fragments->strongCount() - 1 : 0;
        representation->iterate([&](const FieldID&, const Field& field) {
            const bool isAlone = field.strongCount() == (&field == there.rawptr() ? 3 : 2);
            if (isAlone && field.getFragmentIDCollection() == fragments) --others;
            return true;
        });
        isOwn = others == 0;
    }
    if (isOwn) return there;
    if (isPlace) {
        const StrongPtr<FragmentIDCollection> copied = Hestra::makeRef<FragmentIDCollection>();
        if (fragments)
            for (const StrongPtr<FragmentID>& id : fragments->ids()) copied->add(id);
        fragments = copied;
    }
    return detail::copyOf(there, fragments);
}

void DataSet::Step::setCreator(const std::string& name, const StrongPtr<FragmentID>& id,
                               const StrongPtr<CreativeArrayBase>& creator) {
    const StrongPtr<Field> all = changeable(name);
    auto locator = std::make_shared<LocatorSlot>();
    all->setCreator(creator, id);
    const bool isEmpty = !creator && all->iterate([](const auto&, const auto&) { return false; }, false);
    representation->setField(name, isEmpty ? StrongPtr<Field>() : all);
    forget(std::move(locator), name);
}

void DataSet::Step::setField(const std::string& name, const StrongPtr<Field>& field) {
    auto locator = std::make_shared<LocatorSlot>();
    representation->setField(name, field);
    forget(std::move(locator), name);
}

void DataSet::Step::forget(std::shared_ptr<LocatorSlot> locator, const std::string& name) noexcept {
    myNumbers.clear();
    myDerived.clear();
    if (!isReserved(name)) return;
    myBoxes = nullptr;
    myLocator = std::move(locator);
}

void DataSet::Step::setJoins(const JoinOptions& options) {
    if (joins == options) return;
    joins = options;
    myDerived.clear();
}

DataSet::Step* DataSet::State::find(double time) const noexcept {
    Step* found = nullptr;
    for (const auto& step : steps)
        if (step->time <= time) found = step.get();
    return found;
}

} // namespace Vantle
