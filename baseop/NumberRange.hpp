#pragma once
/// Ranges and boxes of the numbers of one block: what is no number is left out, and what a mask blanks.
///
/// `DataRange` and the boxes of fields are kept with what they are of, and a NaN may take a number's place in them.
/// These are values; they depend on the numbers and on nothing else, not on their order, nor on the number of threads.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MemBase.hpp>

#include <optional>

namespace Vantle {

/// Least and greatest of some numbers. -0 is less than +0.
struct NumberRange {
    double least = 0.0, greatest = 0.0;
};

/// What is known of the numbers of a block.
struct BlockNumbers {
    /// Nothing when no element that counts is a number. Infinities are numbers.
    std::optional<NumberRange> range;
    /// Whether an element that counts is NaN.
    bool hasNaN = false;
};

/// Of an array of `double`, `float`, or integers, of any rank.
///
/// @param mask     of a block of rank 3 with these extents: only vertices of valid cells count.
/// Failure         std::invalid_argument for other elements, and for a mask of other extents.
/// Concurrency     free; large blocks are looked through by the OpenMP team of the caller's settings.
/// Cost            one pass at the speed of memory; pieces with NaN, or with a zero at an end, are looked through
/// twice.
[[nodiscard]] VANTLE_BASEOP_API BlockNumbers ComputeNumberRange(const Hestra::StrongPtr<MemBase>& block,
                                                                const BlockMask* mask = nullptr);

/// Least and greatest corner of what are numbers.
struct BlockBox {
    Orvix::PhysicalSpace::point least, greatest;
    bool hasNaN = false; ///< whether a coordinate that counts is NaN
};

/// Of the points of a block, curvilinear, rectilinear or uniform, axis by axis: nothing when an axis has no number.
///
/// Failure  std::invalid_argument for other elements, and for a mask of other extents.
[[nodiscard]] VANTLE_BASEOP_API std::optional<BlockBox> ComputeNumberBox(const Hestra::StrongPtr<MemBase>& positions,
                                                                         const BlockMask* mask = nullptr);

} // namespace Vantle
