#pragma once
/// A light cell finder for curvilinear fragments: a uniform lookup lattice of short cell lists, and a point-in-cell
/// test by a projective map. It tells on standard output what it looks at.

#include <baseop/BaseOpExport.hpp>
#include <baseop/detail/Given.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/Field.hpp>

namespace Vantle {

/// The cells of a field's curvilinear fragments that overlap a box, recorded per unicell of a lattice over the box.
///
/// The lattice has `resolution` points on each axis, the first and the last on the faces of the box. A unicell begins
/// at each point; what begins at the last points are the upper faces of the box alone. Lists have room for a fixed
/// number of cells, in 16-bit numbers.
///
/// Degenerate   fragments without coordinates, of other kinds, or without cells are passed over, as are cells with a
///              NaN corner. A flat axis has all its cells in the last unicell. A full list drops what comes later; so
///              do indices and fragment numbers above 65535.
/// Failure      `Hestra::MemoryException` when the lists do not fit into memory.
/// Concurrency  immutable once built: any number of threads may search, while nobody changes the coordinates.
/// Cost         2 bytes (1 + maximum) + 6 bytes maximum a unicell, whether used or not; a search tries one list.
class VANTLE_BASEOP_API CellSearch {
public:
    using LookupCoordinates = DirectProductMemArray<Orvix::FixedArray<double, 3>, LinearCoordinateAxisArray, 3>;
    /// Component 0 of a unicell is the number of its cells, component 1 + n, where there is that component, the number
    /// of the fragment of cell n.
    using Counts = MultiArray<4, unsigned short>;
    /// Component n of a unicell is the index of its cell n.
    using Indices = MultiArray<4, Orvix::FixedArray<unsigned short, 3>>;

    /// What a search found. Converts to whether it found anything.
    struct Location {
        bool found = false;
        /// Position of the fragment in the field's iteration order.
        unsigned int fragment = 0;
        MultiIndex<3> cell;
        /// Coordinates within the cell, 0 to 1 on each axis.
        Orvix::PhysicalSpace::point local;
        [[nodiscard]] explicit operator bool() const noexcept { return found; }
    };

    /// Records the cells of the selected fragments of `coordinates`, at most `maximum` in each unicell.
    /// Field and box may be objects or handles; without one nothing is recorded.
    CellSearch(const detail::GivenView<Field>& coordinates, const detail::GivenView<Orvix::BoundingBox>& box,
               const MultiIndex<3>& resolution, index_t maximum,
               const Hestra::WeakPtr<FragmentSelector>& selector = {});
    ~CellSearch();

    /// Appends a cell to a unicell, for which there is the room that the indices have. False, and nothing recorded,
    /// when that is full or a number too large.
    static bool addToUniCell(Counts& counts, Indices& indices, const MultiIndex<3>& unicell, index_t fragmentNumber,
                             const MultiIndex<3>& cell);

    /// The first recorded cell of the point's unicell in which all three coordinates are in [0, 1], by the map of
    /// `Orvix::cuboidToUnitCube`; faces belong to the cell. `field` has the coordinates that the cells were
    /// recorded of. Reports each cell tried.
    ///
    /// Degenerate  not found, and nothing reported, outside the box and for NaN. Degenerate cells report NaN.
    [[nodiscard]] Location findLocation(const Orvix::PhysicalSpace::point& point,
                                        const detail::GivenView<Field>& field) const;

    /// The unicell that holds a point; false outside the box and for NaN.
    [[nodiscard]] bool unicell(const Orvix::PhysicalSpace::point& point, MultiIndex<3>& index) const noexcept;
    [[nodiscard]] const LookupCoordinates& lookupCoordinates() const noexcept { return *myLookup; }
    [[nodiscard]] const Counts& counts() const noexcept { return *myCounts; }
    [[nodiscard]] const Indices& indices() const noexcept { return *myIndices; }

private:
    void record(const MemArray<3, Orvix::PhysicalSpace::point>& block, unsigned int fragmentNumber);

    Orvix::BoundingBox myBox;
    Hestra::StrongPtr<LookupCoordinates> myLookup;
    Hestra::StrongPtr<MemArray<4, unsigned short>> myCounts;
    Hestra::StrongPtr<MemArray<4, Orvix::FixedArray<unsigned short, 3>>> myIndices;
};

} // namespace Vantle
