#include <baseop/ExpandBBox.hpp>
#include <baseop/NumberRange.hpp>
#include <baseop/ValidData.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

using Numbers = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;

/// The fields of the vertices, and what is valid of them.
struct Vertices {
    explicit Vertices(const StrongPtr<Representation>& representation) : fields(representation) {
        if (!fields) return;
        masks = Blanking(*fields);
        positions = fields->Positions();
        if (positions) masks.check(*positions);
    }

    StrongPtr<Representation> fields;
    StrongPtr<Field> positions;
    Blanking masks;
};

StrongPtr<Orvix::BoundingBox> validBox(const Vertices& vertices) {
    if (!vertices.positions) return nullptr;
    StrongPtr<Orvix::BoundingBox> box;
    const auto widen = [&](const PhysicalSpace::point& low, const PhysicalSpace::point& high) {
        if (!box) box = Hestra::makeRef<Orvix::BoundingBox>();
        box->embrace(low);
        box->embrace(high);
    };
    vertices.positions->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            const detail::FragmentCoordinates coordinates(vertices.masks.concerns(id) ? creator : nullptr);
            const auto size = coordinates.data ? coordinates.data->getDynamicSize().as<3>() : std::nullopt;
            const StrongPtr<const BlockMask> mask = size ? vertices.masks.of(id, *size) : nullptr;
            if (!mask) {
                const auto whole = getFragmentBBox(id, creator, *vertices.positions);
                if (whole && !whole->isEmpty()) widen(whole->minCoord(), whole->maxCoord());
                return true;
            }
            if (!coordinates.isKnown() || coordinates.data->rank() != 3) return true;
            if (const auto corners = ComputeNumberBox(coordinates.data, mask.rawptr()))
                widen(corners->least, corners->greatest);
            return true;
        },
        false);
    return box;
}

} // namespace

std::optional<std::pair<double, double>> ComputeValidRange(const Grid& grid, const std::string& fieldName,
                                                           const Hestra::WeakPtr<FragmentSelector>& selected,
                                                           const std::string& chart) {
    const Hestra::Profiler scope("baseop/ValidData", __LINE__, "ComputeValidRange(grid, field)", __PRETTY_FUNCTION__);
    const Vertices vertices(grid.getCartesianRepresentation(chart));
    const StrongPtr<Field> field = vertices.fields ? vertices.fields->findField(fieldName) : nullptr;
    if (!field) return std::nullopt;
    const StrongPtr<FragmentSelector> selector = selected.lock();
    std::optional<std::pair<double, double>> range;
    field->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            if (selector && !selector->isSelected(id)) return true;
            const StrongPtr<MemBase> data = creator->getData();
            if (!withTypedArray(Numbers(), data, [](const auto&) {})) return true;
            const auto size = data->getDynamicSize().as<3>();
            if (!size && vertices.masks.concerns(id)) return true;
            const StrongPtr<const BlockMask> mask = size ? vertices.masks.of(id, *size) : nullptr;
            if (const auto found = ComputeNumberRange(data, mask.rawptr()).range)
                range = range
                            ? std::pair(std::min(range->first, found->least), std::max(range->second, found->greatest))
                            : std::pair(found->least, found->greatest);
            return true;
        },
        false);
    return range;
}

StrongPtr<Orvix::BoundingBox> getValidBoundingBox(const Grid& grid, const StrongPtr<Chart>& chart) {
    const StrongPtr<Skeleton> vertices = grid.findVertices();
    return vertices && chart ? validBox(Vertices(vertices->findRepresentation(*chart))) : nullptr;
}

StrongPtr<Orvix::BoundingBox> getValidBoundingBox(const Grid& grid) {
    return validBox(Vertices(grid.getCartesianRepresentation()));
}

} // namespace Vantle
