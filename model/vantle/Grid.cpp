#include <model/vantle/Grid.hpp>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

Grid::Grid() : Grid(WeakPtr<GridContainer>(), nullptr) {}
Grid::Grid(const WeakPtr<GridContainer>& container, const StrongPtr<GlobalCharts>& charts)
    : myContainer(container), myGlobalCharts(charts ? charts : StrongPtr<GlobalCharts>(new GlobalCharts)) {}
Grid::~Grid() = default;

StrongPtr<Chart> Grid::makeChart(const std::type_info& type, const std::string& name, unsigned short level) {
    if (auto present = myAtlas.find(type, name)) return present;
    auto chart = myGlobalCharts->makeChart(type, name, level);
    if (chart) myAtlas.add(chart);
    return chart;
}

StrongPtr<Chart> Grid::findChart(const std::type_info& type, const std::string& name) const {
    return myAtlas.find(type, name);
}

StrongPtr<CartesianChart> Grid::findCartesianChart(const std::string& name) const {
    return Hestra::dynamicCast<CartesianChart>(findChart(typeid(CartesianChart), name));
}

StrongPtr<Representation> Grid::makeCartesianRepresentation(int dims, const std::string& chart, unsigned short level) {
    return (*makeVertices(dims))[*makeChart(typeid(CartesianChart), chart, level)];
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const std::string& chart) const {
    const StrongPtr<Skeleton> vertices = findVertices(~0);
    return vertices ? getCartesianRepresentation(*vertices, chart) : nullptr;
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const Skeleton& skeleton, const std::string& chart) const {
    const auto cartesian = findCartesianChart(chart);
    return cartesian ? skeleton.findRepresentation(*cartesian) : nullptr;
}

StrongPtr<Field> Grid::CartesianPositions() const { return (*this)(PositionsName); }

StrongPtr<Field> Grid::operator()(const std::string& field, const std::string& chart) const {
    const auto representation = getCartesianRepresentation(chart);
    return representation ? representation->findField(field) : Field::NullPtrField();
}

std::string Grid::xml() const {
    std::string text = "<grid name=\"" + myName + "\" type=\"" + myType + "\">\n";
    for (const auto& [id, skeleton] : skeletons()) {
        text += "<skeleton dimension=\"" + std::to_string(id.dimension()) + "\" depth=\"" +
                std::to_string(id.indexDepth()) + "\">\n";
        for (const auto& representation : skeleton->representations()) text += representation->xml();
        text += "</skeleton>\n";
    }
    return text + "</grid>\n";
}

bool Grid::iterateOwned(const std::function<bool(BaseSpace&)>& function) const {
    const auto owned = skeletons();
    for (const auto& [id, skeleton] : owned)
        if (!function(*skeleton)) return false;
    return true;
}

const Hestra::Referable* Grid::ownerObject() const {
    return myContainer ? myContainer.record()->object.load() : nullptr;
}

WeakPtr<Skeleton::Owner> Grid::skeletonOwner() { return WeakPtr<Skeleton::Owner>(*this); }

} // namespace Vantle
