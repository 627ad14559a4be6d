#pragma once
/// Bounding boxes of arrays, fragments, fields, skeletons and grids, cached on what they bound.
///
/// Boxes come from the cheapest source that has one: a box attached to a fragment's creator, the corners that the
/// creator declares in its attribute "Range", and only then the points. So a field with declared ranges has a box
/// without any of its data being made.
///
/// Attached boxes are shared: everything here returns copies, and widens copies and what the caller gave.
/// Failure      null boxes and `false` for missing or unsupported data and for null handles; no exceptions.
/// Concurrency  results are attached to the objects: compute the box of one field from one thread at a time.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Fragment.hpp>

#include <type_traits>

namespace Vantle {

/// What an operation may do to get at data.
using DataCreationMode = int;
/// Data that do not exist are made.
inline constexpr DataCreationMode CreateData = 0;
/// Only data that exist already are used.
inline constexpr DataCreationMode OnlyExistingData = 1;

/// A new box over the points of an array, from all its points or, for a uniform direct product, from its first and
/// last one.
///
/// Degenerate  an array without points gives an empty box. NaN as in `Orvix::BoundingBox::embrace`, points in storage
///             order.
/// Failure     null unless the elements are points in double precision, stored or a uniform direct product.
/// Cost        one pass at the speed of memory; with strides, or NaN nearby, point by point.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
ComputeBBox(const Hestra::StrongPtr<MemBase>& array);

/// Widens `box`, or creates it, by the box of one fragment.
///
/// Points may be stored in double or single precision, or be a direct product of uniform or explicit axes. The box is
/// attached to the creator and used from then on, until the creator gets older data. Making it from points sets the
/// creator's age to the present of the global clock. A box that a caller has attached is used as it stands.
///
/// Degenerate  a fragment without points is a success that changes and attaches nothing. NaN as in `ComputeBBox`.
/// Failure     false when there are no data, or none in the mode allowed, or of an unsupported kind. Points that are
///             a slice of another array, without storage of their own, are refused with a message, and empty `box`;
///             adopted ones are taken.
/// Cost        tens of nanoseconds if a box is attached, and no allocation if `box` exists.
VANTLE_BASEOP_API bool ExpandBBox(Hestra::StrongPtr<Orvix::BoundingBox>& box, CreativeArrayBase& creator,
                                  DataCreationMode mode = CreateData);

/// Accumulates boxes over the fragments of fields.
class VANTLE_BASEOP_API BBoxExpander : public FragmentIterator {
public:
    BBoxExpander() = default;
    /// Starts from `start` itself, which is widened; from nothing if that is null.
    explicit BBoxExpander(const Hestra::StrongPtr<Orvix::BoundingBox>& start) : myBox(start) {}
    /// The same for everything that a handle to a box is made from: a new object, another kind of handle, null.
    template<class Handle>
    requires std::is_convertible_v<const Handle&, Hestra::StrongPtr<Orvix::BoundingBox>>
    explicit BBoxExpander(const Handle& start) : BBoxExpander(Hestra::StrongPtr<Orvix::BoundingBox>(start)) {}
    /// Starts from the ball's box: a copy if it is one, else the cube around the ball.
    explicit BBoxExpander(const Hestra::StrongPtr<Orvix::BoundingBall>& start);
    /// Starts from the box of the field.
    explicit BBoxExpander(Field& field);
    ~BBoxExpander() override;

    /// Widens the accumulated box by one fragment. False ends an iteration: the fragment has data that cannot be used,
    /// or none; a fragment without creator is passed over.
    bool apply(const Hestra::StrongPtr<FragmentID>& id, const Hestra::StrongPtr<CreativeArrayBase>& creator) override;

    /// Widens `result`, or creates it, by the box of the whole field, and the accumulated box as well.
    ///
    /// The field's box is attached to the field and used until the field's age has grown. A fragment that cannot be
    /// used ends the iteration; the box of the fragments before it counts then.
    /// @return true. A field without boxes leaves `result` as it is.
    bool expand(Field& field, Hestra::StrongPtr<Orvix::BoundingBox>& result);

    /// The box accumulated so far, or null.
    [[nodiscard]] const Hestra::StrongPtr<Orvix::BoundingBox>& box() const noexcept { return myBox; }

private:
    Hestra::StrongPtr<Orvix::BoundingBox> myBox;
};

/// Widens `box`, or creates it, by the box of a field; see `BBoxExpander::expand`. False when the handle is null.
VANTLE_BASEOP_API bool expandBoundingBox(Hestra::StrongPtr<Orvix::BoundingBox>& box,
                                         const Hestra::StrongPtr<Field>& field);
/// The same; both orders of the arguments are offered.
VANTLE_BASEOP_API bool expandBoundingBox(const Hestra::StrongPtr<Field>& field,
                                         Hestra::StrongPtr<Orvix::BoundingBox>& box);

/// A new box equal to the field's box; null when the field has none.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox> getBoundingBox(Field& field);
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getBoundingBox(const Hestra::StrongPtr<Field>& field);
/// The box of the representation's "Positions".
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getBoundingBox(const Hestra::StrongPtr<Representation>& representation);
/// The box of the skeleton's representation relative to the chart.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getBoundingBox(const Hestra::StrongPtr<Skeleton>& skeleton, const Hestra::StrongPtr<Chart>& chart);
/// The box of the grid's vertices in the chart.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getBoundingBox(const Grid& grid, const Hestra::StrongPtr<Chart>& chart);

/// The box of one fragment of a field of positions.
///
/// Where the unfragmented positions are a uniform direct product, the box follows from the fragment's place in it
/// (`FragmentLocation<3, IndexOffset>`) and its size, and nothing is created but these positions and, if the creator
/// does not tell, the fragment's array once for its size. Otherwise, and for a fragment without place, as by
/// `ExpandBBox`; unfragmented data that announce to be no points of rank 3 are not made.
/// Failure  null; with a message when the size cannot be had.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<Orvix::BoundingBox>
getFragmentBBox(const Hestra::StrongPtr<FragmentID>& fragment, const Hestra::StrongPtr<CreativeArrayBase>& creator,
                const Field& field);

} // namespace Vantle
