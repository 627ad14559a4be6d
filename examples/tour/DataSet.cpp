#include "DataSet.hpp"

#include "CylinderFlow.hpp"
#include "Plot3DFlow.hpp"

#include <algorithm>

namespace tour {

namespace {

constexpr RingCells kQuickRing = {6, 8, 12, 8};

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
    }
    if (options.level) data.level = options.level;
    return data;
}

} // namespace tour
