#include <model/vantle/Chart.hpp>

namespace Vantle {

using Hestra::StrongPtr;

BaseSpace::~BaseSpace() = default;
Chart::Chart(std::string name, unsigned short level) : myName(std::move(name)), myLevel(level) {}
Chart::~Chart() = default;
CartesianChart::~CartesianChart() = default;
RGBAChart::~RGBAChart() = default;
GlobalCharts::~GlobalCharts() = default;

StrongPtr<Chart> Atlas::find(const std::type_info& type, const std::string& name) const {
    for (const auto& chart : myCharts) {
        const Chart& candidate = *chart;
        if (candidate.name() == name && typeid(candidate) == type) return chart;
    }
    return nullptr;
}

void Atlas::add(const StrongPtr<Chart>& chart) {
    if (!chart) return;
    const Chart& added = *chart;
    if (!find(typeid(added), added.name())) myCharts.push_back(chart);
}

StrongPtr<Chart> GlobalCharts::makeChart(const std::type_info& type, const std::string& name, unsigned short level) {
    const std::lock_guard lock(myMutex);
    if (auto present = myCharts.find(type, name)) return present;
    StrongPtr<Chart> made;
    if (type == typeid(CartesianChart)) made = StrongPtr<Chart>(new CartesianChart(name, level));
    if (type == typeid(RGBAChart)) made = StrongPtr<Chart>(new RGBAChart(name, level));
    if (made) myCharts.add(made);
    return made;
}

} // namespace Vantle
