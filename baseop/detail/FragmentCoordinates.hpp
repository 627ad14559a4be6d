#pragma once
/// The coordinates of one fragment, classified by their kind: the one place where that is done.

#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <variant>

namespace Vantle::detail {

using UniformCoordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3>;
using RectilinearCoordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
using CurvilinearCoordinates = MemArray<3, Orvix::PhysicalSpace::point>;
using PointSet = MemArray<1, Orvix::PhysicalSpace::point>;

/// An array of coordinates and what it is. The pointer lives as long as `data`.
struct FragmentCoordinates {
    using Kind = std::variant<std::monostate, const UniformCoordinates*, const RectilinearCoordinates*,
                              CurvilinearCoordinates*, const PointSet*>;

    FragmentCoordinates() = default;
    /// Of the data of a creator, which are made if need be; those in single precision are converted.
    explicit FragmentCoordinates(const Hestra::StrongPtr<CreativeArrayBase>& creator)
        : FragmentCoordinates(creator ? getDataInDoublePrecision(*creator) : nullptr) {}
    explicit FragmentCoordinates(const Hestra::StrongPtr<MemBase>& array) : data(array) {
        using Points = TypeList<Orvix::PhysicalSpace::point>;
        const auto take = [this](auto& points) { kind = &points; };
        if (withMemArray<3>(Points(), data, take) || withMemArray<1>(Points(), data, take)) return;
        if (const auto* const uniform = dynamic_cast<const UniformCoordinates*>(data.rawptr()))
            kind = uniform;
        else if (const auto* const rectilinear = dynamic_cast<const RectilinearCoordinates*>(data.rawptr()))
            kind = rectilinear;
    }
    [[nodiscard]] bool isKnown() const noexcept { return kind.index() != 0; }
    /// Null unless they are of this kind.
    [[nodiscard]] CurvilinearCoordinates* curvilinear() const noexcept {
        const auto* const found = std::get_if<CurvilinearCoordinates*>(&kind);
        return found ? *found : nullptr;
    }

    /// Calls `f` with coordinates that are a direct product.
    template<class F>
    void visitProducts(F&& f) const {
        if (const auto* const uniform = std::get_if<const UniformCoordinates*>(&kind)) f(**uniform);
        if (const auto* const rectilinear = std::get_if<const RectilinearCoordinates*>(&kind)) f(**rectilinear);
    }

    Hestra::StrongPtr<MemBase> data;
    Kind kind;
};

/// A function object of several, for visits.
template<class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template<class... F>
Overloaded(F...) -> Overloaded<F...>;

} // namespace Vantle::detail
