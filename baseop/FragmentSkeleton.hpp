#pragma once
/// What is known of each fragment of a grid's vertices - name and bounding box - without touching its data again.
///
/// It is kept on the grid itself, on a skeleton whose elements are the fragments: fragment i is the i-th that an
/// iteration over the vertices' "Positions" visits. Names are that skeleton's "Positions" relative to the vertices,
/// the corners of the boxes are its fields "min" and "max" in the Cartesian chart.
///
/// All three are discardable: memory pressure may drop them, and they are made again when they are asked for. As long
/// as they are there nobody asks how old they are: whoever changes the vertices calls `discardOutdated`, as locators
/// do.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Grid.hpp>

#include <exception>
#include <string>
#include <utility>

namespace Vantle {

/// The fragment skeleton of a grid and the names of the fragments.
class VANTLE_BASEOP_API FragmentSkeleton {
public:
    /// Base of what is thrown here.
    class VANTLE_BASEOP_API exception : public std::exception {
    public:
        ~exception() override;
        [[nodiscard]] const char* what() const noexcept override { return "FragmentSkeleton Exception"; }
    };
    /// The grid has no vertices, or the handle no grid.
    class VANTLE_BASEOP_API NoVertices : public exception {
    public:
        ~NoVertices() override;
        [[nodiscard]] const char* what() const noexcept override {
            return "FragmentSkeleton: No Vertices in Grid object";
        }
    };

    /// Only keeps a handle.
    explicit FragmentSkeleton(const Hestra::StrongPtr<Grid>& grid);
    explicit FragmentSkeleton(Grid& grid) : FragmentSkeleton(Hestra::StrongPtr<Grid>(&grid)) {}

    /// The skeleton of the fragments of the grid's vertices, made when missing. Throws `NoVertices`.
    static Hestra::StrongPtr<Skeleton> makeFragments(Grid& grid);
    /// The field of the fragments' names, made (without data) when missing. Throws `NoVertices`.
    static Hestra::StrongPtr<Field> makeFragmentNames(Grid& grid);

    /// The name of fragment `i`; empty for unfragmented data.
    ///
    /// Names that do not exist, or not any more, are made, as by `buildFragmentCoordinates`. Not checked: `i` is less
    /// than the number of fragments.
    ///
    /// Failure     throws `NoVertices`.
    /// Concurrency any number of threads; the first query ever changes the grid, and goes alone.
    [[nodiscard]] std::string getFragmentName(index_t i) const;

    /// Names of the fields that hold the corners of the boxes.
    [[nodiscard]] static std::string MinFieldName() { return "min"; }
    [[nodiscard]] static std::string MaxFieldName() { return "max"; }

    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept { return myGrid; }

protected:
    /// The grid; throws `NoVertices` when there is none.
    [[nodiscard]] Grid& theGrid() const;

private:
    Hestra::StrongPtr<Grid> myGrid;
};

/// The boxes of the fragments in Cartesian coordinates.
class VANTLE_BASEOP_API CartesianFragments : public FragmentSkeleton {
public:
    using FragmentSkeleton::FragmentSkeleton;

    /// The fields of the least and greatest corners, made (without data) when missing, with chart and skeleton. Throws
    /// `NoVertices`.
    std::pair<Hestra::StrongPtr<Field>, Hestra::StrongPtr<Field>> makeFragmentCoordinatesMinMax();

    /// Makes names and boxes unless all of them exist.
    ///
    /// Degenerate  a fragment without creator, without points or with data of an unsupported kind keeps its index and
    ///             its name; its least corner is +infinity and its greatest one -infinity, so that its box contains
    ///             nothing.
    /// Failure     throws `NoVertices`.
    /// Cost        per fragment that of `ExpandBBox`; nothing is iterated if all of them exist.
    /// @return true if they were made now.
    bool buildFragmentCoordinates();

    /// Lets go of those of the arrays that are older than the vertices' positions, or were made from another field than
    /// that; false if there are none. Arrays that a caller has put there are nobody's but his, and stay.
    ///
    /// Failure     throws `NoVertices`.
    /// Concurrency changes the grid: one thread, while nobody asks.
    bool discardOutdated();

    /// A new box, from the least to the greatest corner of fragment `i`. Not checked, as `getFragmentName`.
    [[nodiscard]] Hestra::StrongPtr<Orvix::BoundingBox> getBBox(index_t i) const;
    /// Fragment `i` of the vertices' positions; null for unfragmented data. Not checked, as `getFragmentName`.
    [[nodiscard]] Hestra::StrongPtr<FragmentID> getFragmentID(index_t i) const;
};

} // namespace Vantle
