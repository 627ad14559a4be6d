#include <model/vantle/Bundle.hpp>

#include <cmath>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

Slice::Slice() : Slice(0.0, WeakPtr<Owner>(), nullptr) {}
Slice::Slice(double time, const WeakPtr<Owner>& owner, const StrongPtr<GlobalCharts>& charts)
    : myTime(time), myOwner(owner), myCharts(charts ? charts : StrongPtr<GlobalCharts>(new GlobalCharts)) {}
Slice::~Slice() = default;

StrongPtr<Grid> Slice::newGrid(const std::string& name, const std::string& type) {
    const StrongPtr<Grid> grid(new Grid(WeakPtr<GridContainer>(*this), myCharts));
    grid->myType = type;
    insert(name, grid);
    return grid;
}

StrongPtr<Grid> Slice::operator[](const std::string& name) {
    if (auto present = (*this)(name)) return present;
    return newGrid(name);
}

StrongPtr<Grid> Slice::operator()(const std::string& name) const {
    const auto found = myGrids.find(name);
    return found == myGrids.end() ? StrongPtr<Grid>() : found->second;
}

void Slice::insert(const std::string& name, const StrongPtr<Grid>& grid) {
    if (!grid) return;
    grid->myContainer = WeakPtr<GridContainer>(*this);
    grid->myName = name;
    StrongPtr<Grid>& slot = myGrids[name];
    if (slot && slot != grid) slot->myContainer = nullptr;
    slot = grid;
}

bool Slice::remove(const std::string& name) {
    const auto found = myGrids.find(name);
    if (found == myGrids.end()) return false;
    found->second->myContainer = nullptr;
    myGrids.erase(found);
    return true;
}

bool Slice::iterateOwned(const std::function<bool(Grid&)>& function) const {
    const auto owned = myGrids;
    for (const auto& [name, grid] : owned)
        if (!function(*grid)) return false;
    return true;
}

const Hestra::Referable* Slice::ownerObject() const { return myOwner ? myOwner.record()->object.load() : nullptr; }

Bundle::Bundle() : myCharts(new GlobalCharts) {}
Bundle::~Bundle() = default;

StrongPtr<Slice> Bundle::operator[](double time) {
    if (std::isnan(time)) return nullptr;
    StrongPtr<Slice>& slot = mySlices[time];
    if (!slot) slot = Hestra::makeRef<Slice>(time, WeakPtr<Slice::Owner>(*this), myCharts);
    return slot;
}

StrongPtr<Slice> Bundle::operator()(double& time) const {
    if (std::isnan(time)) return nullptr;
    auto after = mySlices.upper_bound(time);
    if (after == mySlices.begin()) return nullptr;
    --after;
    time = after->first;
    return after->second;
}

StrongPtr<Grid> Bundle::findMostRecentGrid(double time, const std::string& name) const {
    if (std::isnan(time)) return nullptr;
    for (auto slice = mySlices.upper_bound(time); slice != mySlices.begin();)
        if (auto grid = (*(--slice)->second)(name)) return grid;
    return nullptr;
}

std::size_t Bundle::iterateBackward(double& time, const std::string& name, EvolutionIterator<Grid>& iterator,
                                    bool includeTime) const {
    if (std::isnan(time)) return 0;
    std::size_t visited = 0;
    const auto snapshot = mySlices;
    auto slice = includeTime ? snapshot.upper_bound(time) : snapshot.lower_bound(time);
    while (slice != snapshot.begin()) {
        --slice;
        const StrongPtr<Grid> grid = (*slice->second)(name);
        if (!grid) continue;
        ++visited;
        time = slice->first;
        if (!iterator.apply({slice->first, grid})) break;
    }
    return visited;
}

StrongPtr<Grid> Bundle::newGrid() const { return Hestra::makeRef<Grid>(WeakPtr<GridContainer>(), myCharts); }

bool Bundle::iterateOwned(const std::function<bool(Slice&)>& function) const {
    const auto owned = mySlices;
    for (const auto& [time, slice] : owned)
        if (!function(*slice)) return false;
    return true;
}

StrongPtr<Grid> GridSelector::findMostRecentGrid(double time, const BundlePtr& bundle) const {
    return bundle ? bundle->findMostRecentGrid(time, myName) : nullptr;
}

} // namespace Vantle
