#pragma once
/// Ranges and boxes of the valid data of a grid: of what its masks do not blank.
///
/// `DataRange` and the boxes of fields know creators and fields, which several grids may share; masks belong to a grid.
/// Only vertices of valid cells count (`BlockMask`). Nothing is kept for masked fragments.
/// Failure      std::invalid_argument for masks that do not fit.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Grid.hpp>

#include <optional>
#include <string>
#include <utility>

namespace Vantle {

/// Least and greatest value of a field of numbers at the valid vertices, of all fragments or of those selected; NaN is
/// left out.
///
/// Failure      nothing for a missing field, and where no number of a known type is valid. Known are `double`, `float`
///              and the types of masks. Fragments of other elements, or without data, are passed over.
/// Concurrency  one pass over the values, which are made if need be, by all cores.
[[nodiscard]] VANTLE_BASEOP_API std::optional<std::pair<double, double>>
ComputeValidRange(const Grid& grid, const std::string& fieldName,
                  const Hestra::WeakPtr<FragmentSelector>& selector = {}, const std::string& chart = {});

/// A new box around the valid vertices; NaN is left out. Of fragments without masks, the box that the fragment has
/// (`getFragmentBBox`).
///
/// Failure      null without positions, and where no vertex is valid. Fragments whose box cannot be had are passed
///              over.
/// Concurrency  boxes of fragments are attached: one thread at a time.
/// Cost         one pass over masked curvilinear fragments.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getValidBoundingBox(const Grid& grid, const Hestra::StrongPtr<Chart>& chart);
/// The same in the default Cartesian chart.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox> getValidBoundingBox(const Grid& grid);

} // namespace Vantle
