#include <baseop/FieldMasks.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/detail/CacheRoom.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/location/Tiling.hpp>
#include <dataset/detail/DataSetState.hpp>
#include <dataset/detail/NumberArray.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <sstream>

namespace Vantle {

using detail::copyOf;
using detail::DataSetBlock;
using detail::quoted;
using Hestra::Pulse;
using Hestra::StrongPtr;

namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

StrongPtr<CreativeArrayBase> creatorOf(const StrongPtr<MemBase>& array, const StrongPtr<Hestra::Cache>& cache) {
    return array ? StrongPtr<CreativeArrayBase>(new detail::GivenArray(array, cache)) : StrongPtr<CreativeArrayBase>();
}

BlockKind kindOf(const StrongPtr<MemBase>& positions) {
    const MemBase* const array = positions.rawptr();
    if (!array || array->rank() != 3 || !(inDoublePrecision(array->elementIndex()) == VantleTypeIndex(typeid(Point))))
        return BlockKind::Other;
    return dynamic_cast<const detail::UniformCoordinates*>(array)       ? BlockKind::Uniform
           : dynamic_cast<const detail::RectilinearCoordinates*>(array) ? BlockKind::Rectilinear
                                                                        : BlockKind::Curvilinear;
}

BlockKind kindOf(CreativeArrayBase& positions) {
    if (!positions.hasData() && inDoublePrecision(positions.elementType()) == VantleTypeIndex(typeid(Point)))
        return BlockKind::Curvilinear;
    return kindOf(positions.getData());
}

/// What `f` gives, as a part of what is going on.
template<class F>
auto within(double from, double to, const F& f) {
    const Pulse::Part part(from, to);
    Pulse::beat(0.0);
    return f();
}

std::string textOf(double number) {
    std::ostringstream text;
    text << number;
    return text.str();
}

std::string textOf(const VantleTypeIndex& type) {
    const int components = LocatedPositions::components(type);
    return components == 1 ? "numbers" : components == 3 ? "vectors" : components == 9 ? "tensors" : "other elements";
}

} // namespace

// ---- Making one -----------------------------------------------------------------------------------------------------

DataSet::DataSet(double time) : myState(std::make_shared<State>(Hestra::makeRef<Hestra::Cache>())), myTime(time) {
    if (std::isnan(time)) throw DataSetError("a time that is no number");
    myState->steps.push_back(std::make_unique<Step>(time, myState->bundle[time], myState->cache));
}

DataSet::DataSet(const StrongPtr<Grid>& grid, double time) : DataSet(time) {
    const StrongPtr<Representation> fields = grid ? grid->getCartesianRepresentation() : nullptr;
    if (!fields || !fields->Positions()) throw DataSetError("a grid whose vertices have no positions");
    Step& step = *myState->steps.front();
    fields->iterate([&](const FieldID& id, const Field& field) {
        step.representation->setField(id.name(), StrongPtr<Field>(const_cast<Field*>(&field)));
        return true;
    });
}

DataSet DataSet::read(const std::vector<std::filesystem::path>& files, const ReadOptions& options) {
    const Hestra::ScopedListener heard(detail::messages());
    if (files.empty()) throw DataSetError("no files to read");
    Plot3DReading reading;
    reading.cache = Hestra::makeRef<Hestra::Cache>();
    reading.heatRatio = options.heatRatio;
    const Plot3DFile file = Plot3DFile::openGrid(files.front(), options.form);
    const StrongPtr<Grid> first = Hestra::makeRef<Grid>();
    (void)addPlot3DGrid(*first, file, reading);
    const StrongPtr<Representation> vertices = first->getCartesianRepresentation();

    std::map<double, StrongPtr<Grid>> times;
    StrongPtr<Grid> now = first;
    std::vector<Plot3DName> names;
    for (std::size_t n = 1; n < files.size(); ++n) {
        if (files[n].extension() == ".nam") {
            names = readPlot3DNames(files[n]);
            continue;
        }
        const Plot3DFile fields = Plot3DFile::openFields(files[n], file, names, options.form);
        if (fields.content() == Plot3DContent::solution) {
            const double time = fields.readFreeStream(0).time;
            if (std::isnan(time)) throw FileError(files[n], "block 1, freestream numbers", "the time is no number");
            if (!times.empty()) {
                now = Hestra::makeRef<Grid>();
                const StrongPtr<Representation> same = now->makeCartesianRepresentation(3);
                same->setPositions(vertices->Positions());
                same->setField(VertexMaskName, vertices->findField(VertexMaskName));
            }
            if (!times.emplace(time, now).second)
                throw DataSetError(files[n].string() + ": another solution is of time " + textOf(time) + ", too");
        }
        RegularGrid3D grid(now);
        (void)addPlot3DFields(grid, fields, reading);
    }
    if (times.empty()) times.emplace(0.0, first);
    DataSet result(times.begin()->second, times.begin()->first);
    result.myState->cache = result.myState->steps.front()->cache = reading.cache;
    for (const auto& [time, grid] : times)
        if (time != result.myTime) result.addTime(time, DataSet(grid, time));
    return result;
}

DataSet::DataSet(std::shared_ptr<State> state, double time) : myState(std::move(state)), myTime(time) {}

const DataSet::Step& DataSet::step() const { return *myState->find(myTime); }

DataSet DataSet::changed() const {
    auto state = std::make_shared<State>(myState->cache);
    for (const auto& step : myState->steps)
        state->steps.push_back(std::make_unique<Step>(*step, step->time, state->bundle[step->time]));
    return DataSet(std::move(state), myTime);
}

// What others may have stays as it is.
DataSet DataSet::changeable(bool isMoved) const {
    const bool isOwn = detail::isAlone(myState) && !myState->isGiven && !(isMoved && step().sharesLocator());
    return isOwn ? DataSet(*this) : changed();
}

MultiIndex<3> DataSet::sizeOf(const std::string& block) const { return step().block(block).size(); }

DataSet::Step& DataSet::ownStep() { return *myState->find(myTime); }

void DataSet::addBlock(const std::string& name, const StrongPtr<MemBase>& positions) {
    if (kindOf(positions) == BlockKind::Other)
        throw DataSetError("block " + quoted(name) + ": the positions are no points with three indices");
    addBlock(name, creatorOf(positions, cache()));
}

void DataSet::addBlock(const std::string& name, const StrongPtr<CreativeArrayBase>& positions) {
    if (name.empty()) throw DataSetError("a block without name");
    if (!positions) throw DataSetError("block " + quoted(name) + ": no positions");
    if (step().positions()->getFragmentID(name)) throw DataSetError("there is a block " + quoted(name) + " already");
    if (step().positions()->getCreator(nullptr) && !step().blocks().back().id)
        throw DataSetError("block " + quoted(name) + ": the data set is one block without name");
    // Others would get the fragment by the search structures beside positions that are theirs, too.
    DataSet result = step().ownsPositions() ? changeable(true) : changed();
    result.ownStep().setCreator(PositionsName, Hestra::makeRef<FragmentID>(name), positions);
    *this = std::move(result);
}

void DataSet::addBlock(const std::string& name, const MultiIndex<3>& size, std::vector<Point> positions) {
    if (size.checkedProduct() != index_t{positions.size()})
        throw DataSetError("block " + quoted(name) + ": " + std::to_string(positions.size()) + " positions for " +
                           to_string(size) + " vertices");
    addBlock(name, StrongPtr<MemBase>(MemArray<3, Point>::makeMemArray(std::move(positions), size)));
}

void DataSet::addUniformBlock(const std::string& name, const MultiIndex<3>& size, const Box& box) {
    for (int d = 0; d < 3; ++d)
        if (!(box.low[d] <= box.high[d]) || !std::isfinite(box.high[d] - box.low[d]) || size[d] == 0)
            throw DataSetError("block " + quoted(name) + ": no vertices, or no box, along axis " + std::to_string(d));
    if (!size.checkedProduct()) throw DataSetError("block " + quoted(name) + ": more vertices than can be numbered");
    addBlock(name, StrongPtr<MemBase>(new UniformCartesianArray(Orvix::BoundingBox(box.low, box.high), size)));
}

void DataSet::addRectilinearBlock(const std::string& name, std::vector<double> x, std::vector<double> y,
                                  std::vector<double> z) {
    using Axis = ExplicitCoordinateAxisArray<double>;
    using Axes = DirectProductMemArray<Point, ExplicitCoordinateAxisArray, 3>;
    for (const auto* const axis : {&x, &y, &z})
        if (axis->empty() || !std::all_of(axis->begin(), axis->end(), [](double at) { return std::isfinite(at); }) ||
            !(std::is_sorted(axis->begin(), axis->end(), std::less_equal<>()) ||
              std::is_sorted(axis->begin(), axis->end(), std::greater_equal<>())))
            throw DataSetError("block " + quoted(name) +
                               ": coordinates that are not finite, or neither ascend nor descend");
    addBlock(name,
             StrongPtr<MemBase>(new Axes(Axes::Axes{Axis(std::move(x)), Axis(std::move(y)), Axis(std::move(z))})));
}

void DataSet::setField(const std::string& field, const std::string& block, const StrongPtr<MemBase>& values) {
    if (!values) throw DataSetError("field " + quoted(field) + ": no values for block " + quoted(block));
    setField(field, block, creatorOf(values, cache()));
}

void DataSet::setField(const std::string& field, const std::string& block, const StrongPtr<CreativeArrayBase>& values) {
    const auto refuse = [&](const std::string& why) {
        throw DataSetError("field " + quoted(field) + ": block " + quoted(block) + ' ' + why);
    };
    if (!values) refuse("gets no values");
    if (field.empty() || field.back() == ')' || Step::isReserved(field))
        throw DataSetError("field " + quoted(field) + ": a name that means something else");
    const DataSetBlock at = step().block(block);
    const MultiIndex<3> size = at.size();
    StrongPtr<MemBase> data = values->cachedData();
    const DynamicSize announced = data ? data->getDynamicSize() : getSize(*values);
    if (announced && announced.as<3>() != size)
        refuse("has " + to_string(size) + " vertices, the values are " + to_string(announced));
    if (const VantleTypeIndex type = data ? data->elementIndex() : values->elementType()) {
        if (LocatedPositions::components(type) == 0) refuse("gets elements that are neither numbers nor vectors");
        // All others are of one type: it is that of the first one that says so.
        const StrongPtr<Field> before = step().representation->findField(field);
        const StrongPtr<FragmentIDCollection> ids = before ? before->getFragmentIDCollection() : nullptr;
        const auto isKnown = [&](const StrongPtr<FragmentID>& id) {
            const StrongPtr<CreativeArrayBase> other = before->getCreator(id);
            const VantleTypeIndex known = other ? other->elementType() : VantleTypeIndex();
            if (!known || FragmentID::Name(id, {}) == block) return false;
            if (!(known == type))
                refuse("gets " + textOf(type) + " of another type than the " + textOf(known) + " of block " +
                       quoted(FragmentID::Name(id, {})));
            return true;
        };
        if (ids && !(!ids->empty() && isKnown(ids->ids().back())))
            (void)std::any_of(ids->ids().begin(), ids->ids().end(), isKnown);
    }
    DataSet result = changeable(false);
    result.ownStep().setCreator(field, at.id, values);
    *this = std::move(result);
}

void DataSet::removeField(const std::string& field) {
    if (Step::isReserved(field) || !step().representation->findField(field))
        throw detail::unknownName("field", field, step().fieldNames());
    DataSet result = changed();
    result.ownStep().setField(field, nullptr);
    *this = std::move(result);
}

void DataSet::setMask(const char* mask, const std::string& block, const StrongPtr<MemBase>& array) {
    detail::request("mask of block " + quoted(block), [&] {
        const DataSetBlock at = step().block(block);
        const bool isOfCells = std::string(mask) == CellMaskName;
        (void)BlockMask(at.size(), isOfCells ? nullptr : array.rawptr(), isOfCells ? array.rawptr() : nullptr, block);
        DataSet result = changeable(true);
        result.ownStep().setCreator(mask, at.id, creatorOf(array, cache()));
        *this = std::move(result);
    });
}

void DataSet::setVertexMask(const std::string& block, const StrongPtr<MemBase>& mask) {
    setMask(VertexMaskName, block, mask);
}
void DataSet::setCellMask(const std::string& block, const StrongPtr<MemBase>& mask) {
    setMask(CellMaskName, block, mask);
}

void DataSet::addTime(double time, const DataSet& step) {
    if (std::isnan(time)) throw DataSetError("a time that is no number");
    const auto isThere = [&](const auto& other) { return other->time == time; };
    const auto& now = myState->steps;
    DataSet result = std::any_of(now.begin(), now.end(), isThere) ? changed() : changeable(false);
    auto& steps = result.myState->steps;
    auto made = std::make_unique<Step>(step.step(), time, result.myState->bundle[time]);
    made->setJoins(this->step().joins);
    made->cache = result.myState->cache;
    const auto at = std::find_if(steps.begin(), steps.end(), [&](const auto& other) { return other->time >= time; });
    if (at != steps.end() && isThere(*at))
        *at = std::move(made);
    else
        steps.insert(at, std::move(made));
    *this = std::move(result);
}

void DataSet::setJoinOptions(const JoinOptions& options) {
    detail::request("joins", [&] { options.check(); });
    DataSet result = changed();
    for (const auto& step : result.myState->steps) step->setJoins(options);
    *this = std::move(result);
}

void DataSet::memoryBudget(std::size_t bytes) { myState->cache->setLimit(bytes); }
const StrongPtr<Hestra::Cache>& DataSet::cache() const noexcept { return myState->cache; }

// ---- What is there --------------------------------------------------------------------------------------------------

double DataSet::time() const { return step().time; }

std::vector<double> DataSet::times() const {
    std::vector<double> all;
    for (const auto& step : myState->steps) all.push_back(step->time);
    return all;
}

DataSet DataSet::atTime(double time) const {
    if (const Step* const found = myState->find(time)) return DataSet(myState, found->time);
    throw DataSetError("nothing at time " + textOf(time) + "; the first time is " +
                       textOf(myState->steps.front()->time));
}

std::vector<BlockInfo> DataSet::blocks() const {
    const Hestra::ScopedListener heard(detail::messages());
    std::vector<BlockInfo> all;
    for (const DataSetBlock& block : step().blocks())
        all.push_back({block.name(), block.size(), block.positions ? kindOf(*block.positions) : BlockKind::Other});
    return all;
}

std::vector<FieldInfo> DataSet::fields() const {
    std::vector<FieldInfo> all;
    for (const std::string& name : step().fieldNames()) {
        FieldInfo info{name, 0, 0};
        const StrongPtr<Field> field = step().representation->findField(name);
        if (!field) continue;
        field->iterate(
            [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                if (info.components == 0) info.components = LocatedPositions::components(creator->elementType());
                ++info.blocks;
                return true;
            },
            false);
        all.push_back(info);
    }
    return all;
}

std::vector<Point> DataSet::positions(const std::string& block) const {
    return detail::request("positions of block " + quoted(block), [&] {
        const DataSetBlock at = step().block(block);
        (void)step().reading({}, [&] { return step().data(PositionsName, *step().positions(), at); });
        std::vector<Point> all;
        std::visit(
            [&](const auto& points) {
                if constexpr (requires { (*points)[MultiIndex<3>()]; }) {
                    const MultiIndex<3> size = points->Size();
                    all.reserve(static_cast<std::size_t>(size.product()));
                    MultiIndex<3> n;
                    if (size.product() != 0) do
                            all.push_back((*points)[n]);
                        while (n.advance(size));
                }
            },
            detail::FragmentCoordinates(at.positions).kind);
        return all;
    });
}

StrongPtr<MemBase> DataSet::positionArray(const std::string& block) const {
    return detail::request("positions of block " + quoted(block), [&] {
        const DataSetBlock at = step().block(block);
        return step().reading({}, [&] { return step().data(PositionsName, *step().positions(), at); });
    });
}

std::array<std::vector<double>, 3> DataSet::axes(const std::string& block) const {
    const detail::FragmentCoordinates positions(positionArray(block));
    std::array<std::vector<double>, 3> all;
    bool isProduct = false;
    positions.visitProducts([&](const auto& points) {
        isProduct = true;
        for (int d = 0; d < 3; ++d) {
            MultiIndex<3> n;
            for (; n[d] < points.Size()[d]; ++n[d]) all[static_cast<std::size_t>(d)].push_back(points[n][d]);
        }
    });
    if (!isProduct) throw DataSetError("block " + quoted(block) + " is curvilinear, and has no coordinate axes");
    return all;
}

StrongPtr<MemBase> DataSet::maskOf(const char* mask, const std::string& block) const {
    return detail::request("mask of block " + quoted(block), [&] {
        const DataSetBlock at = step().block(block);
        const StrongPtr<Field> of = step().representation->findField(mask);
        return of ? readData(*of, at.id) : StrongPtr<MemBase>();
    });
}
StrongPtr<MemBase> DataSet::vertexMask(const std::string& block) const { return maskOf(VertexMaskName, block); }
StrongPtr<MemBase> DataSet::cellMask(const std::string& block) const { return maskOf(CellMaskName, block); }

bool DataSet::hasValues(const std::string& field, const std::string& block) const {
    return detail::request("field " + quoted(field), [&] {
        const DataSetBlock at = step().block(block);
        const StrongPtr<Field> of = step().field(field);
        return static_cast<bool>(of->getCreator(at.id));
    });
}

std::vector<std::vector<Point>> DataSet::edges(const std::string& block) const {
    const std::vector<Point> all = positions(block);
    const MultiIndex<3> size = sizeOf(block);
    std::vector<std::vector<Point>> lines;
    for (int axis = 0; axis < 3 && !all.empty(); ++axis)
        for (const int edge : {0, 1, 2, 3}) {
            MultiIndex<3> n;
            for (const int side : {0, 1})
                if (edge >> side & 1) n[(axis + 1 + side) % 3] = size[(axis + 1 + side) % 3] - 1;
            std::vector<Point>& line = lines.emplace_back();
            for (; n[axis] < size[axis]; ++n[axis]) line.push_back(all[n.linear(size)]);
        }
    return lines;
}

DataSet DataSet::block(const std::string& name) const {
    const DataSetBlock only = step().block(name);
    DataSet result(step().time);
    Step& own = result.ownStep();
    result.myState->cache = own.cache = step().cache;
    own.joins = step().joins;
    const StrongPtr<FragmentIDCollection> collection = Hestra::makeRef<FragmentIDCollection>();
    const StrongPtr<FragmentID> id = only.id ? StrongPtr<FragmentID>(collection->makeFragmentID(name)) : nullptr;
    step().representation->iterate([&](const FieldID& field, const Field& all) {
        const StrongPtr<CreativeArrayBase> creator = all.getCreator(only.id);
        if (!creator) return true;
        const StrongPtr<Field> one = Hestra::makeRef<Field>(collection);
        one->setCreator(creator, id);
        own.setField(field.name(), one);
        return true;
    });
    return result;
}

StrongPtr<MemBase> DataSet::array(const std::string& field, const std::string& block) const {
    return detail::request("field " + quoted(field), [&] {
        const StrongPtr<Field> of = step().field(field);
        StrongPtr<MemBase> data = step().reading({field}, [&] { return step().data(field, *of, step().block(block)); });
        if (!data) throw DataSetError("field " + quoted(field) + " has no values in block " + quoted(block));
        return data;
    });
}

Box DataSet::bounds(const Progress& progress) const {
    return detail::request("bounds", progress, [&] {
        const auto box = step().reading({}, [&] { return step().boxes(); })->all();
        return box ? Box{box->least, box->greatest} : Box{{NaN, NaN, NaN}, {NaN, NaN, NaN}};
    });
}

NumberRange DataSet::range(const std::string& field, const Progress& progress) const {
    return detail::request("range of field " + quoted(field), progress, [&] {
        const auto numbers = step().reading({field}, [&] { return step().numbers(field); });
        return numbers->all().value_or(NumberRange{NaN, NaN});
    });
}

std::optional<NumberRange> DataSet::knownRange(const std::string& field) const {
    const StrongPtr<Field> of = step().representation->findField(field);
    const auto known = of ? step().knownNumbers(field, *of) : nullptr;
    return known ? std::optional(known->all().value_or(NumberRange{NaN, NaN})) : std::nullopt;
}

StrongPtr<const BlockJoins> DataSet::knownJoins() const { return BlockJoins::known(*step().grid, step().joins); }

StrongPtr<const BlockJoins> DataSet::joins(const Progress& progress) const {
    return detail::request("joins", progress, [&] {
        return step().reading({},
                              [&] { return StrongPtr<const BlockJoins>(BlockJoins::of(*step().grid, step().joins)); });
    });
}

// ---- Surfaces -------------------------------------------------------------------------------------------------------

Surface DataSet::contour(const std::string& field, double level, const ContourOptions& options) const {
    return contours(field, std::span<const double>(&level, 1), options).front();
}

std::vector<Surface> DataSet::contours(const std::string& field, std::span<const double> levels,
                                       const ContourOptions& options) const {
    return detail::request("contour of field " + quoted(field), options.progress, [&] {
        const Step& now = step();
        const StrongPtr<Field> of = now.field(field, 1);
        for (const double level : levels)
            if (std::isnan(level)) throw DataSetError("contour of field " + quoted(field) + ": a level that is NaN");
        Fields needed = options.values;
        needed.push_back(field);
        return now.reading(needed, [&] {
            const auto numbers = within(0.0, 0.3, [&] { return now.numbers(field); });
            std::vector<Surface> all;
            for (const double level : levels) {
                const double each = 0.7 / static_cast<double>(levels.size());
                const double from = 0.3 + each * static_cast<double>(all.size());
                all.push_back(within(from, from + each, [&] {
                    return now.surface(field, of, *numbers, level, options.values, options.normals);
                }));
            }
            return all;
        });
    });
}

Surface DataSet::slice(const Plane& plane, const Fields& fields, const Progress& progress) const {
    return detail::request("slice", progress, [&] {
        const Step& now = step();
        const double norm = length(plane.normal);
        if (!(norm > 0.0) || !std::isfinite(norm)) throw DataSetError("slice: a plane whose normal has no length");
        if (!(plane.origin == plane.origin)) throw DataSetError("slice: a plane through what is no number");
        const auto boxes = now.reading({}, [&] { return within(0.0, 0.3, [&] { return now.boxes(); }); });
        detail::FieldNumbers numbers; // what the boxes leave possible
        for (const auto& box : boxes->blocks) {
            numbers.blocks.emplace_back();
            if (!box) continue;
            double middle = 0.0, reach = 0.0;
            for (int d = 0; d < 3; ++d) {
                const double n = plane.normal[d] / norm, low = box->least[d], high = box->greatest[d];
                middle += n * (0.5 * low + 0.5 * high - plane.origin[d]);
                reach += std::abs(n) * (0.5 * high - 0.5 * low);
                reach += 1e-14 * (std::abs(low) + std::abs(high) + std::abs(plane.origin[d])); // all that is rounded
            }
            numbers.blocks.back() = {NumberRange{middle - reach, middle + reach}, box->hasNaN};
        }
        const Pulse::Part part(0.3, 1.0);
        return now.reading(
            fields, [&] { return now.surface(PositionsName, now.positions(), numbers, 0.0, fields, false, &plane); });
    });
}

Surface DataSet::slice(const IndexPlane& plane, const Fields& fields, const Progress& progress) const {
    return detail::request("slice", progress,
                           [&] { return step().reading(fields, [&] { return step().layer(plane, fields); }); });
}

Surface DataSet::boundary(const Fields& fields, const Progress& progress) const {
    return detail::request("boundary", progress,
                           [&] { return step().reading(fields, [&] { return step().hull(fields); }); });
}

// ---- Values elsewhere -----------------------------------------------------------------------------------------------

Located DataSet::locate(std::span<const Point> positions, const Progress& progress) const {
    return detail::request("location of " + std::to_string(positions.size()) + " positions", progress, [&] {
        auto located =
            step().reading({}, [&] { return std::make_shared<const LocatedPositions>(step().locate(positions)); });
        return Located(std::move(located), *this);
    });
}

DataSet DataSet::resample(const MultiIndex<3>& size, const Box& box, const Fields& fields,
                          const Progress& progress) const {
    return detail::request("resampling to " + to_string(size) + " vertices", progress, [&] {
        for (int d = 0; d < 3; ++d)
            if (!(box.low[d] < box.high[d]) || !std::isfinite(box.high[d] - box.low[d]) || size[d] < 2)
                throw DataSetError("resampling: an empty box, or less than two vertices, along axis " +
                                   std::to_string(d));
        constexpr index_t Most = std::numeric_limits<std::ptrdiff_t>::max() / (9 * sizeof(double));
        if (size.checkedProduct().value_or(Most) >= Most) throw std::bad_alloc();
        const Step& now = step();
        struct Target {
            std::string name;
            StrongPtr<Field> field;
            int components;
            detail::NumberArray made;
        };
        std::vector<Target> targets;
        for (const std::string& name : fields) {
            const StrongPtr<Field> field = now.field(name);
            const int components = now.knownComponents(name, *field);
            targets.push_back({name, field, components, detail::NumberArray(name, components, size, NaN)});
        }
        // Derivatives would look for them in the midst of a tile.
        if (std::any_of(fields.begin(), fields.end(), [](const std::string& name) { return name.back() == ')'; }))
            (void)now.reading({}, [&] { return BlockJoins::of(*now.grid, now.joins); });
        const UniformCartesianArray lattice(Orvix::BoundingBox(box.low, box.high), size);
        const auto mask = MemArray<3, unsigned char>::create(size);
        std::size_t found = 0;

        constexpr std::size_t Place = sizeof(Point) + sizeof(std::size_t) + 28; // the last of `LocatedPositions`
        int most = 0;
        for (const Target& target : targets) most = std::max(most, target.components);
        const std::size_t bytesEach = Place + sizeof(double) * static_cast<std::size_t>(most);

        // Tiles of the lattice, as even as may be, so that each has to do with few blocks; within them, neighbours are
        // located together. Where blocks are read again for each tile, these are larger, unless the budget is small.
        constexpr index_t Few = index_t{1} << 18;
        const index_t atOnce = now.isLocatedByBlocks() && 2 * Few * bytesEach <= now.cache->limit() / 3 ? 2 * Few : Few;
        MultiIndex<3> step = size;
        while (step.product() > atOnce) {
            int longest = 0;
            for (int d = 1; d < 3; ++d)
                if (step[d] > step[longest]) longest = d;
            step[longest] = (step[longest] + 1) / 2;
        }
        const detail::CacheRoom room(now.cache, bytesEach * static_cast<std::size_t>(step.product()));
        std::vector<Point> positions;
        std::vector<std::size_t> place;
        std::vector<double> values;
        double done = 0.0;
        MultiIndex<3> start;
        for (start[2] = 0; start[2] < size[2]; start[2] += step[2])
            for (start[1] = 0; start[1] < size[1]; start[1] += step[1])
                for (start[0] = 0; start[0] < size[0]; start[0] += step[0]) {
                    MultiIndex<3> extents;
                    for (int d = 0; d < 3; ++d) extents[d] = std::min(step[d], size[d] - start[d]);
                    const double each = static_cast<double>(extents.product()) / static_cast<double>(size.product());
                    const Pulse::Part part(done, done + each);
                    done += each;
                    positions.clear();
                    place.clear();
                    const detail::Tiling tiling(extents);
                    for (index_t tile = 0; tile < tiling.count(); ++tile)
                        tiling.forEachIn(tile, [&](std::size_t, const MultiIndex<3>& n) {
                            const MultiIndex<3> at = n + start;
                            positions.push_back(lattice[at]);
                            place.push_back(static_cast<std::size_t>(at.linear(size)));
                        });
                    room.make();
                    const LocatedPositions located =
                        now.reading({}, [&] { return within(0.0, 0.7, [&] { return now.locate(positions); }); });
                    positions = std::vector<Point>(); // their memory is that of values now
                    const Pulse::Part sampling(0.7, 1.0);
                    for (std::size_t n = 0; n < place.size(); ++n)
                        mask->element(place[n]) = located.fragments()[n] != LocatedPositions::Nowhere;
                    found += located.found();
                    if (located.found() == 0) continue;
                    for (const Target& target : targets) {
                        const auto components = static_cast<std::size_t>(target.components);
                        values.assign(components * place.size(), NaN);
                        room.make();
                        now.sample(located, target.name, *target.field, target.components, values, {});
                        for (std::size_t n = 0; n < place.size(); ++n)
                            std::copy_n(&values[n * components], components,
                                        &target.made.numbers[place[n] * components]);
                    }
                }
        DataSet result(now.time);
        result.addUniformBlock("image", size, box);
        Step& image = result.ownStep(); // where names of derived fields are those of values like any others
        for (const Target& target : targets) {
            const StrongPtr<Field> of = copyOf(nullptr, image.positions()->getFragmentIDCollection());
            of->setCreator(creatorOf(target.made.array, image.cache), image.block("image").id);
            image.setField(target.name, of);
        }
        if (found != size.product()) result.setVertexMask("image", StrongPtr<MemBase>(mask));
        return result;
    });
}

// ---- Derived fields -------------------------------------------------------------------------------------------------

std::string DataSet::derived(const char* operation, const std::string& field) const {
    std::string name = std::string(operation) + '(' + field + ')';
    detail::request(name, [&] { (void)step().field(name); });
    return name;
}
std::string DataSet::gradient(const std::string& field) const { return derived("gradient", field); }
std::string DataSet::vorticity(const std::string& vector) const { return derived("vorticity", vector); }
std::string DataSet::divergence(const std::string& vector) const { return derived("divergence", vector); }
std::string DataSet::qCriterion(const std::string& vector) const { return derived("qCriterion", vector); }
std::string DataSet::magnitude(const std::string& vector) const { return derived("magnitude", vector); }

DataSet DataSet::threshold(const std::string& field, double low, double high) const {
    return detail::request("threshold of field " + quoted(field), [&] {
        const StrongPtr<Field> mask = step().maskOfRange(field, low, high);
        DataSet result = changed();
        Step& own = result.ownStep();
        const StrongPtr<Field> all = copyOf(mask, own.positions()->getFragmentIDCollection());
        for (const DataSetBlock& block : own.blocks()) // without values nothing is in range
            if (!all->getCreator(block.id))
                all->setCreator(creatorOf(MemArray<3, unsigned char>::create(block.size()), own.cache), block.id);
        own.setField(VertexMaskName, all);
        return result;
    });
}

// ---- Files ----------------------------------------------------------------------------------------------------------

void DataSet::write(const std::filesystem::path& file, const Fields& fields, const VtkOptions& options) const {
    (void)detail::request("writing " + file.string(), options.progress, [&] {
        const StrongPtr<Grid> written = step().view();
        const Fields all = fields.empty() ? step().fieldNames() : fields;
        for (const std::string& name : all) written->getCartesianRepresentation()->setField(name, step().field(name));
        VtkOptions heard = options;
        heard.progress = [](double share) { return Pulse::beat(share), true; };
        return step().reading(all, [&] { return writeVtk(file, *written, all, heard), true; });
    });
}

// ---- The model underneath -------------------------------------------------------------------------------------------

const StrongPtr<Grid>& DataSet::grid() const {
    myState->isGiven = true;
    return step().grid;
}
const BundlePtr& DataSet::bundle() const {
    myState->isGiven = true;
    return myState->bundle;
}

} // namespace Vantle
