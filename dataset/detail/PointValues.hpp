#pragma once
/// What surfaces and curves have in common: a list of points, and values at these by name.

#include <dataset/DataSetError.hpp>
#include <dataset/Values.hpp>
#include <dataset/detail/Request.hpp>
#include <model/vantle/Grid.hpp>
#include <model/vantle/MemArray.hpp>

#include <map>
#include <span>
#include <string>
#include <vector>

namespace Vantle::detail {

/// The array of unfragmented data if it is a list of such elements, without gaps; else null.
template<class T>
[[nodiscard]] Hestra::StrongPtr<MemArray<1, T>> listOf(const Hestra::StrongPtr<Field>& field) {
    const auto list = field ? Hestra::dynamicCast<MemArray<1, T>>(field->getData()) : nullptr;
    return list && (list->contiguous() || list->nElements() == 0) ? list : nullptr;
}

struct PointValues {
    Hestra::StrongPtr<Grid> grid;
    Hestra::StrongPtr<MemArray<1, Point>> list;
    std::map<std::string, Values> values;

    PointValues() = default;
    /// Those in a representation: without a list of points, null and nothing.
    PointValues(const Hestra::StrongPtr<Grid>& of, const Hestra::StrongPtr<Representation>& fields)
        : grid(of), list(fields ? listOf<Point>(fields->Positions()) : nullptr) {
        if (!list) return;
        fields->iterate([&](const FieldID& id, const Field& field) {
            if (id.name() == PositionsName) return true;
            const Values found(field.getData());
            if (found.array() && found.size() == list->nElements()) values.emplace(id.name(), found);
            return true;
        });
    }
    [[nodiscard]] std::span<const Point> points() const noexcept {
        return {list->data(), static_cast<std::size_t>(list->nElements())};
    }
    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto& [name, some] : values) all.push_back(name);
        return all;
    }
    [[nodiscard]] const Values& at(const std::string& name) const {
        const auto found = values.find(name);
        if (found == values.end()) throw unknownName("value", name, names());
        return found->second;
    }
};

} // namespace Vantle::detail
