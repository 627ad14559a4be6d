#include <baseop/FieldMasks.hpp>
#include <dataset/detail/NumberArray.hpp>
#include <dataset/detail/VtkDocument.hpp>
#include <dataset/io/AtomicFile.hpp>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <parallel/detail/ParallelState.hpp>

namespace Vantle {

using Hestra::Pulse;
using Hestra::StrongPtr;

namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

ParallelDataSet::ParallelDataSet(MPI_Comm comm, const DataSet& local, const ParallelOptions& options)
    : myData(std::make_shared<Data>(comm, local, options)) {}
ParallelDataSet::ParallelDataSet(MPI_Comm comm, const std::function<DataSet(ParallelOptions&)>& local,
                                 const ParallelOptions& given) {
    auto exchange = std::make_shared<detail::Exchange>(comm, given.budget);
    ParallelOptions options = given;
    DataSet mine;
    exchange->attempt([&] { mine = local(options); });
    exchange->agree();
    myData = std::make_shared<Data>(exchange, mine, options);
}
ParallelDataSet::ParallelDataSet(std::shared_ptr<Data> data) : myData(std::move(data)) {}

int ParallelDataSet::rank() const noexcept { return myData->exchange->rank(); }
int ParallelDataSet::ranks() const noexcept { return myData->exchange->ranks(); }
const DataSet& ParallelDataSet::local() const noexcept { return myData->local; }
const Traffic& ParallelDataSet::traffic() const noexcept { return myData->exchange->traffic(); }

// ---- What is there --------------------------------------------------------------------------------------------------

double ParallelDataSet::time() const noexcept { return myData->time; }
const std::vector<double>& ParallelDataSet::times() const noexcept { return myData->times; }

ParallelDataSet ParallelDataSet::atTime(double time) const {
    detail::Exchange& exchange = *myData->exchange;
    DataSet there = myData->local;
    exchange.attempt([&] {
        if (!myData->all.own.empty()) there = myData->local.atTime(time);
    });
    exchange.agree();
    return with(there);
}

// The same blocks as another data set has them.
ParallelDataSet ParallelDataSet::with(const DataSet& there) const {
    ParallelOptions options = myData->options;
    options.numbers.clear();
    for (const BlockInfo& block : there.blocks())
        for (const std::uint32_t n : myData->all.own)
            if (myData->nameOf(n) == block.name) options.numbers.push_back(myData->all.blocks[n].number);
    return ParallelDataSet(std::make_shared<Data>(myData->exchange, there, options));
}

std::vector<ParallelBlockInfo> ParallelDataSet::blocks() const {
    std::vector<ParallelBlockInfo> all;
    for (const detail::GlobalBlock& block : myData->all.blocks) all.push_back({block.info, block.rank, block.number});
    return all;
}

const std::vector<FieldInfo>& ParallelDataSet::fields() const noexcept { return myData->fields; }

Box ParallelDataSet::bounds(const Progress& progress) const {
    return detail::collective(*myData->exchange, "bounds", progress, [&] {
        myData->makeBoxes();
        std::optional<Box> around;
        for (const auto& box : myData->validBoxes) {
            if (!box) continue;
            if (!around) around = Box{box->least, box->greatest};
            for (int d = 0; d < 3; ++d) {
                around->low[d] = std::min(around->low[d], box->least[d]);
                around->high[d] = std::max(around->high[d], box->greatest[d]);
            }
        }
        return around.value_or(Box{{NaN, NaN, NaN}, {NaN, NaN, NaN}});
    });
}

NumberRange ParallelDataSet::range(const std::string& field, const Progress& progress) const {
    return detail::collective(*myData->exchange, "range of field " + detail::quoted(field), progress, [&] {
        const auto isLess = [](double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); };
        std::optional<NumberRange> range;
        for (const BlockNumbers& block : myData->numbers(field)) {
            if (!block.range) continue;
            if (!range) range = block.range;
            if (isLess(block.range->least, range->least)) range->least = block.range->least;
            if (isLess(range->greatest, block.range->greatest)) range->greatest = block.range->greatest;
        }
        return range.value_or(NumberRange{NaN, NaN});
    });
}

ParallelJoins ParallelDataSet::joins() const {
    return detail::collective("joins", [&] {
        const detail::Halo& halo = myData->halo();
        return ParallelJoins{halo.allJoins(), halo.allDoubts(), halo.isOrientable()};
    });
}

void ParallelDataSet::attempt(const std::function<void()>& own) const {
    myData->exchange->attempt(own);
    myData->exchange->agree();
}

// ---- Surfaces -------------------------------------------------------------------------------------------------------

ParallelSurface ParallelDataSet::contour(const std::string& field, double level, const ContourOptions& options) const {
    return contours(field, {level}, options).front();
}

std::vector<ParallelSurface> ParallelDataSet::contours(const std::string& field, const std::vector<double>& levels,
                                                       const ContourOptions& options) const {
    const std::string what = "contour of field " + detail::quoted(field);
    return detail::collective(*myData->exchange, what, options.progress, [&] {
        myData->exchange->attempt([&] {
            if (std::any_of(levels.begin(), levels.end(), [](double level) { return std::isnan(level); }))
                throw DataSetError(what + ": a level that is NaN");
        });
        const detail::Quantity of = myData->quantity(field, 1);
        const detail::AllNumbers& numbers = [&]() -> const detail::AllNumbers& {
            const Pulse::Part part(0.0, 0.3);
            return myData->numbers(field);
        }();
        const Pulse::Part part(0.3, 1.0);
        std::vector<ParallelSurface> all;
        detail::inParts(levels.size(), [&](std::size_t n) {
            all.push_back(myData->surface(field, of.field, numbers, levels[n], options.values, options.normals));
        });
        return all;
    });
}

ParallelSurface ParallelDataSet::slice(const Plane& plane, const Fields& fields, const Progress& progress) const {
    return detail::collective(*myData->exchange, "slice", progress, [&] {
        {
            const Pulse::Part part(0.0, 0.3);
            myData->makeBoxes();
        }
        detail::AllNumbers numbers; // what the boxes leave possible
        myData->exchange->attempt([&] {
            const double norm = length(plane.normal);
            if (!(norm > 0.0) || !std::isfinite(norm)) throw DataSetError("a plane whose normal has no length");
            if (!(plane.origin == plane.origin)) throw DataSetError("a plane through what is no number");
            for (const auto& box : myData->validBoxes) {
                numbers.emplace_back();
                if (!box) continue;
                double middle = 0.0, reach = 0.0;
                for (int d = 0; d < 3; ++d) {
                    const double n = plane.normal[d] / norm, low = box->least[d], high = box->greatest[d];
                    middle += n * (0.5 * low + 0.5 * high - plane.origin[d]);
                    reach += std::abs(n) * (0.5 * high - 0.5 * low);
                    reach += 1e-14 * (std::abs(low) + std::abs(high) + std::abs(plane.origin[d])); // what is rounded
                }
                numbers.back() = {NumberRange{middle - reach, middle + reach}, box->hasNaN};
            }
        });
        myData->exchange->agree();
        const Pulse::Part part(0.3, 1.0);
        return myData->surface(PositionsName, myData->representation->Positions(), numbers, 0.0, fields, false, &plane);
    });
}

ParallelSurface ParallelDataSet::slice(const IndexPlane& plane, const Fields& fields, const Progress& progress) const {
    return detail::collective(*myData->exchange, "slice", progress, [&] { return myData->layer(plane, fields); });
}

ParallelSurface ParallelDataSet::boundary(const Fields& fields, const Progress& progress) const {
    return detail::collective(*myData->exchange, "boundary", progress, [&] { return myData->hull(fields); });
}

// ---- Values elsewhere -----------------------------------------------------------------------------------------------

ParallelLocated ParallelDataSet::locate(std::span<const Point> positions, const Progress& progress) const {
    return detail::collective(*myData->exchange, "location", progress,
                              [&] { return ParallelLocated(myData->locate(myData, positions)); });
}

ParallelImage ParallelDataSet::resample(const MultiIndex<3>& size, const Box& box, const Fields& fields, int root,
                                        const Progress& progress) const {
    return detail::collective(*myData->exchange, "resampling", progress, [&] {
        detail::Exchange& exchange = *myData->exchange;
        exchange.attempt([&] {
            for (int d = 0; d < 3; ++d)
                if (!(box.low[d] < box.high[d]) || !std::isfinite(box.high[d] - box.low[d]) || size[d] < 2)
                    throw DataSetError("resampling: an empty box, or less than two vertices, along axis " +
                                       std::to_string(d));
        });
        exchange.agree();
        const auto ranks = static_cast<index_t>(exchange.ranks()), rank = static_cast<index_t>(exchange.rank());
        const bool isWhole = root >= 0 && root < exchange.ranks();
        const index_t first = isWhole ? 0 : size[2] * rank / ranks,
                      end = isWhole ? size[2] : size[2] * (rank + 1) / ranks;
        const index_t layers = isWhole && root != exchange.rank() ? 0 : end - first;
        const MultiIndex<3> slab(size[0], size[1], layers);
        const UniformCartesianArray lattice(Orvix::BoundingBox(box.low, box.high), size);

        std::vector<detail::Quantity> of;
        for (const std::string& name : fields) of.push_back(myData->quantity(name));
        // Some layers at a time, as many on all ranks.
        const index_t atOnce =
            std::max<index_t>(std::min<index_t>(exchange.budget() / 64, index_t{1} << 20) / (size[0] * size[1]), 1);
        const auto rounds = exchange.greatest((layers + atOnce - 1) / atOnce);
        std::vector<detail::NumberArray> images;
        StrongPtr<MemArray<3, unsigned char>> mask;
        exchange.attempt([&] {
            mask = MemArray<3, unsigned char>::create(slab);
            for (std::size_t n = 0; n < fields.size(); ++n) images.emplace_back(fields[n], of[n].components, slab, NaN);
        });
        exchange.agree();
        std::size_t found = 0;
        std::vector<Point> positions;
        detail::inParts(rounds, [&](std::size_t round) {
            const index_t low = std::min<index_t>(round * atOnce, layers), high = std::min(low + atOnce, layers);
            const index_t before = low * size[0] * size[1];
            std::shared_ptr<detail::LocatedParts> located;
            exchange.attempt([&] {
                positions.clear();
                for (index_t k = low; k < high; ++k)
                    for (index_t j = 0; j < size[1]; ++j)
                        for (index_t i = 0; i < size[0]; ++i)
                            positions.push_back(lattice[MultiIndex<3>(i, j, first + k)]);
            });
            {
                const Pulse::Part part(0.0, 0.7);
                located = myData->locate(myData, positions);
            }
            exchange.attempt([&] {
                found += located->found;
                for (std::size_t n = 0; n < positions.size(); ++n)
                    mask->element(before + n) = located->blocks[n] != ParallelLocated::Nowhere;
            });
            const Pulse::Part part(0.7, 1.0);
            detail::inParts(fields.size(), [&](std::size_t n) {
                const auto components = static_cast<std::size_t>(of[n].components);
                myData->sample(*located, fields[n], of[n],
                               images[n].numbers.subspan(before * components, positions.size() * components), {});
            });
        });
        const auto foundByAll = exchange.gather([&] {
            detail::Writer writer;
            writer.put(static_cast<std::uint64_t>(found));
            return writer.bytes;
        }());
        std::uint64_t all = 0;
        for (const auto& bytes : foundByAll) all += detail::Reader(bytes).get<std::uint64_t>();
        ParallelImage result{DataSet(myData->time), first, layers};
        exchange.attempt([&] {
            if (layers == 0) return;
            if (layers == size[2]) {
                result.part.addUniformBlock("image", size, box);
            } else {
                std::vector<double> axes[3];
                for (int d = 0; d < 3; ++d)
                    for (index_t i = 0; i < slab[d]; ++i) {
                        MultiIndex<3> at;
                        at[d] = i + (d == 2 ? first : 0);
                        axes[d].push_back(lattice[at][d]);
                    }
                result.part.addRectilinearBlock("image", axes[0], axes[1], axes[2]);
            }
            // In the model: names may be those of derived fields.
            const StrongPtr<Representation> made = result.part.grid()->getCartesianRepresentation();
            for (std::size_t n = 0; n < fields.size(); ++n) {
                const StrongPtr<Field> field = Hestra::makeRef<Field>(made->Positions()->getFragmentIDCollection());
                field->setPersistentData(images[n].array, made->Positions()->getFragmentID("image"));
                made->setField(fields[n], field);
            }
            if (all != size.product()) result.part.setVertexMask("image", StrongPtr<MemBase>(mask));
        });
        return result;
    });
}

// ---- Derived fields -------------------------------------------------------------------------------------------------

namespace {

template<class Make>
std::string derived(const char* operation, const std::string& field, const Make& make) {
    std::string name = std::string(operation) + '(' + field + ')';
    detail::collective(name, [&] { make(name); });
    return name;
}

} // namespace

#define VANTLE_DERIVED(operation)                                                                                      \
    std::string ParallelDataSet::operation(const std::string& field) const {                                           \
        return derived(#operation, field, [&](const std::string& name) {                                               \
            (void)myData->quantity(name);                                                                              \
            myData->exchange->agree();                                                                                 \
        });                                                                                                            \
    }
VANTLE_DERIVED(gradient)
VANTLE_DERIVED(vorticity)
VANTLE_DERIVED(divergence)
VANTLE_DERIVED(qCriterion)
VANTLE_DERIVED(magnitude)
#undef VANTLE_DERIVED

ParallelDataSet ParallelDataSet::threshold(const std::string& field, double low, double high) const {
    return detail::collective("threshold of field " + detail::quoted(field), [&] {
        detail::Exchange& exchange = *myData->exchange;
        const detail::Quantity of = myData->quantity(field, 1);
        DataSet there = myData->local;
        exchange.attempt([&] {
            const StrongPtr<Field> mask =
                makeMaskOfRange(of.field, low, high, myData->representation, myData->local.cache());
            for (const std::uint32_t block : myData->all.own) {
                StrongPtr<MemBase> valid = myData->data(field, *mask, block);
                if (!valid) // without values nothing is in range
                    valid = MemArray<3, unsigned char>::create(myData->all.blocks[block].info.size);
                there.setVertexMask(myData->nameOf(block), valid);
            }
        });
        exchange.agree();
        return with(there);
    });
}

StrongPtr<MemBase> ParallelDataSet::array(const std::string& field, const std::string& block) const {
    return detail::request("field " + detail::quoted(field), [&] { return myData->knownArray(field, block); });
}

// ---- Files ----------------------------------------------------------------------------------------------------------

void ParallelDataSet::write(const std::filesystem::path& file, const Fields& fields, const VtkOptions& options) const {
    namespace fs = std::filesystem;
    detail::collective("writing " + file.string(), [&] {
        detail::Exchange& exchange = *myData->exchange;
        exchange.attempt([&] {
            if (file.extension() != ".vtm")
                throw DataSetError("writing " + file.string() + ": data sets of several ranks are .vtm files");
        });
        Fields names = fields;
        if (names.empty())
            for (const FieldInfo& field : myData->fields) names.push_back(field.name);
        const StrongPtr<Grid> written = myData->view(names);
        const std::string stem = file.stem().string() + '_' + std::to_string(exchange.rank());
        detail::Writer mine;
        exchange.attempt([&] {
            if (myData->all.own.empty()) return;
            DataSet(written, myData->time).write(file.parent_path() / (stem + ".vtm"), names, options);
            for (std::size_t n = 0; n < myData->all.own.size(); ++n)
                for (const char* extension : {".vti", ".vtr", ".vts"}) {
                    const std::string name = stem + '/' + stem + '_' + std::to_string(n) + extension;
                    if (!fs::exists(file.parent_path() / name)) continue;
                    mine.put(myData->all.own[n]);
                    mine.putText(name);
                }
        });
        const auto gathered = exchange.gather(mine.bytes);
        exchange.attempt([&] {
            if (exchange.rank() != 0) return;
            std::vector<std::string> files(myData->all.blocks.size());
            for (const auto& bytes : gathered)
                for (detail::Reader reader(bytes); !reader.isAtEnd();) {
                    const auto block = reader.get<std::uint32_t>();
                    files[block] = reader.getText();
                }
            std::string text = "<?xml version=\"1.0\"?>\n<VTKFile type=\"vtkMultiBlockDataSet\" version=\"1.0\" "
                               "byte_order=\"LittleEndian\" header_type=\"UInt64\">\n<vtkMultiBlockDataSet>\n";
            for (std::uint32_t block = 0; block < files.size(); ++block)
                text += "<DataSet index=\"" + std::to_string(block) + "\" name=\"" +
                        detail::vtkEscaped(myData->nameOf(block)) + "\" file=\"" + detail::vtkEscaped(files[block]) +
                        "\"/>\n";
            text += "</vtkMultiBlockDataSet>\n</VTKFile>\n";
            AtomicFile head(file);
            head.write(text.data(), text.size());
            head.commit();
        });
        exchange.agree();
    });
}

ParallelDataSet ParallelDataSet::read(MPI_Comm comm, const std::vector<std::filesystem::path>& files,
                                      const ReadOptions& reading, const ParallelOptions& options) {
    auto exchange = std::make_shared<detail::Exchange>(comm, options.budget);
    DataSet mine;
    ParallelOptions numbered = options;
    exchange->attempt([&] {
        const DataSet whole = DataSet::read(files, reading);
        whole.cache()->setLimit(options.memory);
        const std::vector<BlockInfo> blocks = whole.blocks();
        std::vector<std::size_t> largestFirst(blocks.size());
        std::iota(largestFirst.begin(), largestFirst.end(), std::size_t{0});
        std::stable_sort(largestFirst.begin(), largestFirst.end(), [&](std::size_t a, std::size_t b) {
            return blocks[a].size.product() > blocks[b].size.product();
        });
        std::vector<index_t> load(static_cast<std::size_t>(exchange->ranks()), 0);
        numbered.numbers.clear();
        for (const std::size_t n : largestFirst) {
            const auto least = std::min_element(load.begin(), load.end());
            *least += blocks[n].size.product();
            if (least - load.begin() == exchange->rank()) numbered.numbers.push_back(n);
        }
        std::sort(numbered.numbers.begin(), numbered.numbers.end());
        const StrongPtr<FragmentIDCollection> ids = Hestra::makeRef<FragmentIDCollection>();
        for (const std::uint64_t n : numbered.numbers) (void)ids->makeFragmentID(blocks[n].name);

        // Times that share positions still do.
        std::map<const Field*, StrongPtr<Field>> taken;
        const auto take = [&](const Field& from) {
            StrongPtr<Field>& to = taken[&from];
            if (to) return to;
            to = Hestra::makeRef<Field>(ids);
            for (const StrongPtr<FragmentID>& id : ids->ids())
                if (const auto creator = from.getCreator(id)) to->setCreator(creator, id);
            return to;
        };
        bool isFirst = true;
        for (const double time : whole.times()) {
            const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
            const StrongPtr<Representation> fields = grid->makeCartesianRepresentation(3);
            whole.atTime(time).grid()->getCartesianRepresentation()->iterate(
                [&](const FieldID& id, const Field& field) {
                    fields->setField(id.name(), take(field));
                    return true;
                });
            if (std::exchange(isFirst, false))
                mine = DataSet(grid, time);
            else
                mine.addTime(time, DataSet(grid, time));
        }
        mine.memoryBudget(options.memory);
    });
    exchange->agree();
    return ParallelDataSet(std::make_shared<Data>(exchange, mine, numbered));
}

} // namespace Vantle
