#pragma once
/// The coordinates of one fragment, by their kind.

#include <model/vantle/DirectProduct.hpp>

namespace Vantle::detail {

using UniformCoordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3>;
using RectilinearCoordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
using CurvilinearCoordinates = MemArray<3, Orvix::PhysicalSpace::point>;

/// An array of coordinates and what it is: at most one of the pointers is set, and it lives as long as `data`.
struct FragmentCoordinates {
    FragmentCoordinates() = default;
    explicit FragmentCoordinates(const Hestra::StrongPtr<MemBase>& array) : data(array) {
        MemBase* const raw = array.rawptr();
        if (!raw) return;
        if ((uniform = dynamic_cast<const UniformCoordinates*>(raw))) return;
        if ((curvilinear = dynamic_cast<CurvilinearCoordinates*>(raw))) return;
        rectilinear = dynamic_cast<const RectilinearCoordinates*>(raw);
    }
    [[nodiscard]] bool isKnown() const noexcept { return uniform || curvilinear || rectilinear; }

    Hestra::StrongPtr<MemBase> data;
    const UniformCoordinates* uniform = nullptr;
    CurvilinearCoordinates* curvilinear = nullptr;
    const RectilinearCoordinates* rectilinear = nullptr;
};

} // namespace Vantle::detail
