#include "DataSet.hpp"

#include "CylinderFlow.hpp"
#include "Plot3DFlow.hpp"

#include <baseop/ValidData.hpp>

#include <algorithm>
#include <limits>
#include <utility>

namespace tour {

namespace {

constexpr RingCells kQuickRing = {6, 8, 12, 8};

ValueRange rangeOf(const DataSet& data, const std::string& scalar) {
    constexpr double kNone = std::numeric_limits<double>::infinity();
    return Vantle::ComputeValidRange(*data.grid.grid(), scalar).value_or(ValueRange{kNone, -kNone});
}

bool varies(const DataSet& data, const std::string& scalar) {
    const ValueRange range = rangeOf(data, scalar);
    return range.first < range.second;
}

// The first scalar that is not constant and not the one left out; else `otherwise`.
std::string varyingField(const DataSet& data, const std::string& leftOut, const std::string& otherwise) {
    const auto found = std::find_if(data.scalars.begin(), data.scalars.end(),
                                    [&](const auto& name) { return name != leftOut && varies(data, name); });
    return found == data.scalars.end() ? otherwise : *found;
}

} // namespace

DataSet makeDataSet(const Options& options) {
    DataSet data =
        options.gridFile ? readPlot3DFlow(options) : makeCylinderFlow(options.quick ? kQuickRing : RingCells());
    if (!options.field.empty()) {
        if (std::find(data.scalars.begin(), data.scalars.end(), options.field) == data.scalars.end()) {
            std::string known;
            for (const std::string& name : data.scalars) known += (known.empty() ? "" : ", ") + name;
            throw UsageError("--field: no scalar field '" + options.field + "'; there are " + known);
        }
        data.field = options.field;
        data.level.reset();
    } else if (!varies(data, data.field)) {
        const std::string constant = std::exchange(data.field, varyingField(data, data.field, data.field));
        if (data.field != constant)
            data.remarks.push_back(constant + " is the same everywhere: looking at " + data.field + " instead");
        data.level.reset();
    }
    data.range = rangeOf(data, data.field);
    if (options.level) data.level = options.level;
    if (data.colourField == data.field || !varies(data, data.colourField)) {
        const std::string& other = data.scalars[data.scalars[0] == data.field ? 1 : 0];
        data.colourField = varyingField(data, data.field, other);
    }
    return data;
}

} // namespace tour
