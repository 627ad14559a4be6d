#include <baseop/DerivedQuantities.hpp>
#include <baseop/WorldDerivative.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <parallel/detail/ParallelState.hpp>
#include <set>

namespace Vantle {

using detail::Reader;
using detail::Writer;
using Hestra::StrongPtr;

namespace {

/// An operation and its operand, if a name is made of these.
std::optional<std::pair<std::string, std::string>> parse(const std::string& name) {
    const auto open = name.find('(');
    if (open == std::string::npos || name.back() != ')') return std::nullopt;
    constexpr std::array known{"gradient", "vorticity", "divergence", "qCriterion", "magnitude"};
    const std::string operation = name.substr(0, open);
    if (std::find(known.begin(), known.end(), operation) == known.end()) return std::nullopt;
    return std::pair(operation, name.substr(open + 1, name.size() - open - 2));
}

const char* kindOf(int components) {
    return components == 1   ? "a scalar"
           : components == 3 ? "a vector"
           : components == 9 ? "a tensor"
                             : "of elements that cannot be computed with";
}

} // namespace

ParallelDataSet::Data::Data(MPI_Comm comm, const DataSet& given, const ParallelOptions& how)
    : Data(std::make_shared<detail::Exchange>(comm, how.budget), given, how) {}

ParallelDataSet::Data::Data(std::shared_ptr<detail::Exchange> ranks, const DataSet& given, const ParallelOptions& how)
    : exchange(std::move(ranks)), local(given), options(how) {
    gatherBlocks();
    exchange->attempt([&] {
        options.joins.check();
        slice = Hestra::makeRef<Slice>();
        grid = slice->newGrid("data");
        representation = grid->makeCartesianRepresentation(3);
        ids = Hestra::makeRef<FragmentIDCollection>();
        for (const std::uint32_t block : all.own) (void)ids->makeFragmentID(nameOf(block));
        const auto take = [&](const std::string& name, const Field& from) {
            const StrongPtr<Field> to = emptyField();
            from.iterate(
                [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                    if (id) to->setCreator(creator, ids->findFragmentID(std::string_view(id->name())));
                    return true;
                },
                false);
            representation->setField(name, to);
        };
        const StrongPtr<Representation> fieldsOf = local.grid()->getCartesianRepresentation();
        take(PositionsName, *fieldsOf->Positions());
        fieldsOf->iterate([&](const FieldID& id, const Field& field) {
            if (id.name() != PositionsName) take(id.name(), field);
            return true;
        });
    });
    exchange->agree();
}

void ParallelDataSet::Data::gatherBlocks() {
    Writer writer;
    exchange->attempt([&] {
        const std::vector<BlockInfo> blocks = local.blocks();
        if (!options.numbers.empty() && options.numbers.size() != blocks.size())
            throw DataSetError(std::to_string(options.numbers.size()) + " numbers for " +
                               std::to_string(blocks.size()) + " blocks");
        writer.put(static_cast<std::uint64_t>(blocks.size()));
        writer.put(static_cast<unsigned char>(!options.numbers.empty()));
        for (std::size_t n = 0; n < blocks.size(); ++n) {
            if (blocks[n].name.empty()) throw DataSetError("a block without name");
            writer.putText(blocks[n].name);
            for (int d = 0; d < 3; ++d) writer.put(blocks[n].size[d]);
            writer.put(blocks[n].kind);
            writer.put(options.numbers.empty() ? std::uint64_t{n} : options.numbers[n]);
        }
        writer.putAll(std::span<const double>(local.times()));
        writer.put(local.time());
        for (const FieldInfo& field : local.fields()) {
            writer.putText(field.name);
            writer.put(field.components);
            writer.put(static_cast<std::uint64_t>(field.blocks));
        }
    });
    const auto gathered = exchange->gather(writer.bytes);
    exchange->attempt([&] {
        std::map<std::string, FieldInfo> known;
        std::map<std::string, int> rankOf;
        int numbered = -1;
        double now = 0.0;
        for (int rank = 0; rank < exchange->ranks(); ++rank) {
            Reader reader(gathered[static_cast<std::size_t>(rank)]);
            const auto count = reader.get<std::uint64_t>();
            const int isNumbered = reader.get<unsigned char>();
            if (count > 0) {
                if (numbered >= 0 && numbered != isNumbered) throw DataSetError("numbers of blocks on some ranks only");
                numbered = isNumbered;
            }
            const std::size_t before = all.blocks.size();
            for (std::uint64_t n = 0; n < count; ++n) {
                detail::GlobalBlock block;
                block.info.name = reader.getText();
                for (int d = 0; d < 3; ++d) block.info.size[d] = reader.get<index_t>();
                block.info.kind = reader.get<BlockKind>();
                block.number = reader.get<std::uint64_t>() + (isNumbered ? 0 : before);
                block.rank = rank;
                const auto [at, isNew] = rankOf.emplace(block.info.name, rank);
                if (!isNew)
                    throw DataSetError("block " + detail::quoted(block.info.name) + " is there twice, on ranks " +
                                       std::to_string(at->second) + " and " + std::to_string(rank));
                all.blocks.push_back(block);
            }
            const auto timesOf = reader.getAll<double>();
            const auto timeOf = reader.get<double>();
            if (count > 0 || (rank + 1 == exchange->ranks() && times.empty())) {
                if (!times.empty() && (times != timesOf || now != timeOf))
                    throw DataSetError("ranks have other times, or look at other ones, than rank " +
                                       std::to_string(all.blocks.front().rank));
                times = timesOf;
                time = now = timeOf;
            }
            while (!reader.isAtEnd()) {
                FieldInfo field{reader.getText(), 0, 0};
                field.components = reader.get<int>();
                field.blocks = static_cast<std::size_t>(reader.get<std::uint64_t>());
                FieldInfo& info = known.emplace(field.name, FieldInfo{field.name, 0, 0}).first->second;
                if (info.components && field.components && info.components != field.components)
                    throw DataSetError("field " + detail::quoted(field.name) + " is " + kindOf(field.components) +
                                       " on rank " + std::to_string(rank) + ", and " + kindOf(info.components) +
                                       " before");
                info.components = std::max(info.components, field.components);
                info.blocks += field.blocks;
            }
        }
        for (const auto& [name, field] : known) fields.push_back(field);
        std::sort(all.blocks.begin(), all.blocks.end(),
                  [](const auto& a, const auto& b) { return a.number < b.number; });
        for (std::uint32_t n = 0; n < all.blocks.size(); ++n) {
            const detail::GlobalBlock& block = all.blocks[n];
            if (n > 0 && all.blocks[n - 1].number == block.number)
                throw DataSetError("blocks " + detail::quoted(all.blocks[n - 1].info.name) + " and " +
                                   detail::quoted(block.info.name) + " have the same number, " +
                                   std::to_string(block.number));
            if (block.rank == exchange->rank()) all.own.push_back(n);
        }
    });
    exchange->agree();
}

StrongPtr<MemBase> ParallelDataSet::Data::data(const std::string& name, const Field& field, std::uint32_t block) const {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(idOf(block));
    if (!creator) return nullptr;
    if (StrongPtr<MemBase> made = creator->getData()) {
        const MultiIndex<3>& size = all.blocks[block].info.size;
        if (made->getDynamicSize().as<3>() != size)
            throw DataSetError("field " + detail::quoted(name) + ": block " + detail::quoted(nameOf(block)) + " has " +
                               to_string(size) + " vertices, the data are " + to_string(made->getDynamicSize()));
        return made;
    }
    // The data set says why: it knows the file.
    if (name == PositionsName) (void)local.positions(nameOf(block));
    for (auto of = parse(name); of; of = parse(of->second))
        if (!parse(of->second)) (void)local.array(of->second, nameOf(block));
    if (!parse(name) && name != PositionsName) (void)local.array(name, nameOf(block));
    throw DataSetError("field " + detail::quoted(name) + ": block " + detail::quoted(nameOf(block)) +
                       ": the data cannot be made");
}

StrongPtr<MemBase> ParallelDataSet::Data::knownArray(const std::string& name, const std::string& block) const {
    std::vector<std::string> names;
    for (const std::uint32_t n : all.own) names.push_back(nameOf(n));
    const auto at = std::find(names.begin(), names.end(), block);
    if (at == names.end()) throw detail::unknownName("block", block, names);
    const auto derivedField = myDerived.find(name);
    const StrongPtr<Field> field =
        derivedField != myDerived.end() ? derivedField->second.field : representation->findField(name);
    StrongPtr<MemBase> found;
    if (field) found = data(name, *field, all.own[static_cast<std::size_t>(at - names.begin())]);
    if (!found)
        throw DataSetError("field " + detail::quoted(name) + " has no values in block " + detail::quoted(block));
    return found;
}

// ---- What is known of all blocks ------------------------------------------------------------------------------------

void ParallelDataSet::Data::makeBoxes() {
    if (!validBoxes.empty() || all.blocks.empty()) return;
    struct Sent {
        std::uint32_t block;
        std::uint32_t hasBox, hasValidBox, hasNaN;
        Box box, valid;
    };
    Writer writer;
    exchange->attempt([&] {
        const StrongPtr<Field> positions = representation->Positions();
        const Blanking blanking(*representation);
        detail::inParts(all.own.size(), [&](std::size_t n) {
            Hestra::Pulse::beat(0.0);
            const std::uint32_t block = all.own[n];
            const StrongPtr<MemBase> points = data(PositionsName, *positions, block);
            const StrongPtr<FragmentID> id = idOf(block);
            const auto mask = blanking.of(id, all.blocks[block].info.size);
            const auto whole = ComputeNumberBox(points), valid = mask ? ComputeNumberBox(points, mask.rawptr()) : whole;
            // Where a NaN would take the place of a corner: location goes by the box that it finds, which knows no
            // masks.
            const StrongPtr<CreativeArrayBase> creator = positions->getCreator(id);
            if (points && whole && !creator->findInterface<Orvix::BoundingBox>())
                creator->addInterface(Hestra::makeRef<Orvix::BoundingBox>(whole->least, whole->greatest));
            Sent sent;
            std::memset(static_cast<void*>(&sent), 0, sizeof(sent));
            sent = {block, whole.has_value(), valid.has_value(), valid && valid->hasNaN, {}, {}};
            if (whole) sent.box = {whole->least, whole->greatest};
            if (valid) sent.valid = {valid->least, valid->greatest};
            writer.put(sent);
        });
    });
    const auto gathered = exchange->gather(writer.bytes);
    std::vector<Box> boxes;
    std::vector<std::optional<BlockBox>> valid;
    exchange->attempt([&] {
        constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
        boxes.assign(all.blocks.size(), Box{{NaN, NaN, NaN}, {NaN, NaN, NaN}});
        valid.resize(all.blocks.size());
        for (const auto& bytes : gathered)
            for (Reader reader(bytes); !reader.isAtEnd();) {
                const auto sent = reader.get<Sent>();
                if (sent.hasBox) boxes[sent.block] = sent.box;
                if (sent.hasValidBox) valid[sent.block] = BlockBox{sent.valid.low, sent.valid.high, sent.hasNaN != 0};
            }
    });
    exchange->agree();
    all.boxes = std::move(boxes); // on all ranks, or on none
    validBoxes = std::move(valid);
}

const detail::AllNumbers& ParallelDataSet::Data::numbers(const std::string& name) {
    if (const auto known = myNumbers.find(name); known != myNumbers.end()) return known->second;
    const detail::Quantity of = quantity(name, 1);
    struct Sent {
        std::uint32_t block;
        std::uint16_t hasRange, hasNaN;
        NumberRange range;
    };
    Writer writer;
    exchange->attempt([&] {
        const Blanking blanking(*representation);
        detail::inParts(all.own.size(), [&](std::size_t n) {
            Hestra::Pulse::beat(0.0);
            const std::uint32_t block = all.own[n];
            const StrongPtr<MemBase> values = data(name, *of.field, block);
            if (!values) return;
            const BlockNumbers found =
                ComputeNumberRange(values, blanking.of(idOf(block), all.blocks[block].info.size).rawptr());
            writer.put(Sent{block, found.range.has_value(), found.hasNaN, found.range.value_or(NumberRange())});
        });
    });
    const auto gathered = exchange->gather(writer.bytes);
    detail::AllNumbers made(all.blocks.size());
    exchange->attempt([&] {
        for (const auto& bytes : gathered)
            for (Reader reader(bytes); !reader.isAtEnd();) {
                const auto sent = reader.get<Sent>();
                if (sent.hasRange) made[sent.block].range = sent.range;
                made[sent.block].hasNaN = sent.hasNaN != 0;
            }
    });
    exchange->agree();
    return myNumbers[name] = std::move(made);
}

detail::HaloRequest ParallelDataSet::Data::request() const {
    detail::HaloRequest made{options.joins, 1, 1};
    // Copies that differ are told apart by the edges at them, and are those of owners that may lie farther away.
    if (made.joins.tolerance > 0.0 || !made.joins.motions.empty()) made.depth = made.rings = 2;
    return made;
}

const detail::Halo& ParallelDataSet::Data::halo() {
    makeBoxes();
    if (!myHalo) myHalo = std::make_unique<detail::Halo>(*exchange, all, *representation, request(), local.cache());
    return *myHalo;
}

const detail::Halo& ParallelDataSet::Data::deepHalo() {
    const detail::Halo& shallow = halo();
    if (shallow.depth() > 1) return shallow;
    if (myDeepHalo) return *myDeepHalo;
    const StrongPtr<Field> positions = shallow.extend({representation->Positions()}).front();
    detail::HaloRequest deep = request();
    deep.depth = 2;
    myDeepHalo =
        std::make_unique<detail::Halo>(*exchange, all, *representation, deep, local.cache(), [&](std::uint32_t block) {
            return ownersData(*shallow.joins(), *positions, shallow.memberOf(block));
        });
    return *myDeepHalo;
}

const LocalFromWorldPoint& ParallelDataSet::Data::locator() {
    makeBoxes();
    if (myLocator) return *myLocator;
    std::unique_ptr<const LocalFromWorldPoint> made;
    exchange->attempt([&] {
        LocatorOptions exact;
        exact.cellLocator = CellLocator::Exact;
        made = std::make_unique<const LocalFromWorldPoint>(slice, grid, PositionsName, exact);
    });
    exchange->agree();
    myLocator = std::move(made); // on all ranks, or on none
    return *myLocator;
}

StrongPtr<Grid> ParallelDataSet::Data::view(const Fields& names) {
    const StrongPtr<Grid> made = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> vertices = made->makeCartesianRepresentation(3);
    vertices->setPositions(representation->Positions());
    for (const char* mask : {VertexMaskName, CellMaskName}) vertices->setField(mask, representation->findField(mask));
    for (const std::string& name : names) vertices->setField(name, quantity(name).field);
    return made;
}

// ---- Fields ---------------------------------------------------------------------------------------------------------

detail::Quantity ParallelDataSet::Data::quantity(const std::string& name, int wanted) {
    detail::Quantity found;
    const bool isReserved = name == PositionsName || name == VertexMaskName || name == CellMaskName;
    const auto info = std::find_if(fields.begin(), fields.end(), [&](const FieldInfo& f) { return f.name == name; });
    const auto formula = parse(name);
    if (!isReserved && info != fields.end()) {
        found.field = representation->findField(name);
        if (!found.field) found.field = emptyField();
        found.components = info->components;
        if (found.components == 0) { // only data that are made can tell
            exchange->attempt([&] {
                for (const std::uint32_t block : all.own)
                    if (const StrongPtr<MemBase> made = data(name, *found.field, block); made && !found.components)
                        found.components = LocatedPositions::components(made->elementIndex());
            });
            info->components = found.components =
                static_cast<int>(exchange->greatest(static_cast<std::uint64_t>(found.components)));
        }
    } else if (formula) {
        const auto known = myDerived.find(name);
        found = known != myDerived.end() ? known->second : derive(formula->first, formula->second, name);
        myDerived[name] = found;
    } else {
        std::vector<std::string> names;
        for (const FieldInfo& field : fields) names.push_back(field.name);
        exchange->attempt([&] { throw detail::unknownName("field", name, names); });
    }
    exchange->attempt([&] { // the next exchange tells
        if (wanted && found.components != wanted)
            throw DataSetError("field " + detail::quoted(name) + " is " + kindOf(found.components) + ", not " +
                               kindOf(wanted));
    });
    return found;
}

detail::Quantity ParallelDataSet::Data::derive(const std::string& operation, const std::string& operand,
                                               const std::string& name) {
    const detail::Quantity of = quantity(operand);
    exchange->attempt([&] {
        if (of.components != 3 && !(of.components == 1 && operation == "gradient"))
            throw DataSetError("field " + detail::quoted(operand) + " is " + kindOf(of.components) + ", which has no " +
                               operation);
    });
    exchange->agree();
    if (operation == "magnitude") return {makeMagnitude(of.field, local.cache()), 1};
    if (operation != "gradient") {
        const StrongPtr<Field> from = quantity("gradient(" + operand + ")").field;
        if (operation == "vorticity") return {makeVorticity(from, local.cache()), 3};
        return {operation == "divergence" ? makeDivergence(from, local.cache()) : makeQCriterion(from, local.cache()),
                1};
    }

    const detail::Halo& around = deepHalo();
    exchange->attempt([&] {
        for (const std::uint32_t block : all.own)
            if (!data(operand, *of.field, block))
                throw DataSetError("field " + detail::quoted(operand) + " has no " + operation + ": block " +
                                   detail::quoted(nameOf(block)) + " has no values");
    });
    // Neighbours see the values that owners have, also of vertices that those of a third block own.
    const StrongPtr<Field> joined = around.extend({of.field}).front();
    const bool isRaw = &around == myHalo.get();
    const StrongPtr<Field> extended = around.extendShells(of.field, [&](std::uint32_t block) {
        return isRaw ? getDataInDoublePrecision(*of.field, idOf(block))
                     : ownersData(*around.joins(), *joined, around.memberOf(block));
    });
    detail::Quantity made{nullptr, 3 * of.components};
    exchange->attempt([&] {
        made.field = emptyField();
        if (all.own.empty()) return;
        // In a grid of its own, which the derivative keeps by its fragments' joins.
        const StrongPtr<Representation> there = around.grid()->getCartesianRepresentation();
        there->setField(operand, extended);
        std::string problems;
        const StrongPtr<Field> everywhere = WorldDerivative(
            *around.grid(), operand, name, problems, {.joinBlocks = true, .joins = options.joins}, local.cache());
        if (!everywhere)
            throw DataSetError("field " + detail::quoted(operand) + " has no gradient" +
                               (problems.empty() ? std::string() : ": " + problems));
        there->setField(name, nullptr);
        there->setField(operand, nullptr);
        for (const std::uint32_t block : all.own)
            made.field->setCreator(everywhere->getCreator(around.id(around.memberOf(block))), idOf(block));
    });
    exchange->agree();
    return made;
}

} // namespace Vantle
