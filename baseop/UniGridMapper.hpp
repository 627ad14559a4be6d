#pragma once
/// Point location in one curvilinear block, through a uniform grid of lists of cells.

#include <baseop/BaseOpExport.hpp>
#include <baseop/CellLocation.hpp>
#include <model/hestra/Reference.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/MemArray.hpp>

#include <list>
#include <memory>
#include <span>

namespace Vantle {
class LocalFromWorldPoint;
namespace detail {
class CellTrail;
class HomeCell;
} // namespace detail
} // namespace Vantle

/// Finds the cell of a curvilinear block that contains a point, and the point's coordinates in the block.
///
/// A coarse uniform grid (the unigrid) lies over the box of the block. Each of its cells (unicells) has the list of the
/// block's cells whose boxes touch it, in the order of the cells, i fastest. A query tries the cells of one list in
/// this order, and the first that contains the point answers. Cells are solved by one linear step from their centre:
/// results are exact to first order in the cell's distortion, and near the faces of strongly distorted cells a point
/// may belong to no cell, or to two. `ExactCellLocator` has neither limit.
///
/// Coordinates that queries return are fractional indices of the block: vertex (i, j, k) has coordinates (i, j, k).
///
/// A block is known by its vertices, which grids with different masks may share. Queries that are given a mask of the
/// same extents pass over the cells that are not valid, as if the lists did not have them; what they accept as a near
/// miss, or within a rim, is moved out of blanked cells or not accepted. A point that a blanked cell has, farther than
/// the rim from its faces, is in that cell, and no near miss of others.
///
/// Degenerate   a block without cells answers every query with "not found". Cells whose corners have a NaN are never
///              found. Cells that are flat, or whose edges are shorter than about 5e-4, count as degenerate: each
///              reporting query that tries one prints "WHAT?" 102 times.
/// Failure      messages, to whoever listens, and a `false` or 0 result. std::bad_alloc where there is no memory.
/// Concurrency  queries may come from any number of threads: nothing they see changes, and the lists are made once.
/// Cost         14 bytes a cell for the boxes that tell queries which cells of a list can react at all. A query tries
///              one or two cells, however long the list is; nothing is allocated. The lists themselves, 4 bytes an
///              entry and 4 bytes a unicell, are made when one is first needed: by `curviCells`, by projective
///              queries, and where a solve gives up. If they would have more than `MaximalListEntries` entries they
///              are not made, and such queries go through all cells of the block each.
class VANTLE_BASEOP_API UniGridMapper : public Hestra::ReferenceBase<UniGridMapper> {
public:
    using point = Orvix::PhysicalSpace::point;
    using MultiIndex3 = Vantle::MultiIndex<3>;
    /// A list of cells, each named by its lowest vertex.
    using IndexList_t = std::list<MultiIndex3>;
    /// The vertices of a block.
    using CoordsArray_t = Vantle::MemArray<3, point>;

    /// Record of a near miss.
    struct DistPoint_t {
        double dist = 0.0; ///< closeness to the next vertex planes; recorded, and not used to choose
        point uvw;         ///< the coordinates found
        MultiIndex3 cell;
    };

    /// Largest number of unicells.
    static constexpr Vantle::index_t MaximalUnicells = Vantle::index_t{1} << 27;
    /// Largest number of entries in all lists together that are made.
    static constexpr Vantle::index_t MaximalListEntries = Vantle::index_t{1} << 28;
    /// Steps after which a solve gives up.
    static constexpr int MaximalIterations = 102;

    /// Builds the search structure, and tells whoever listens how long the longest list is.
    ///
    /// `resolution` is the number of unicells per mean edge length of the block's cells, divided by 1.2: larger means
    /// finer. The mean is a running one, in which the edges of the last cells weigh most; this is on purpose.
    /// `precision` is the distance, in per cent of the mean edge length, at which a solve ends.
    /// The array is shared with the caller, and must not change while the mapper lives.
    ///
    /// Degenerate  an axis gets at least two unicells; a coarser one prints a warning. Null coordinates are an empty
    ///             block.
    /// Failure     std::length_error for more unicells than the limit above, in a block that has cells.
    UniGridMapper(const Hestra::StrongPtr<CoordsArray_t>& coordinates, double resolution, double precision);
    ~UniGridMapper() override;
    UniGridMapper(const UniGridMapper&) = delete;
    UniGridMapper& operator=(const UniGridMapper&) = delete;

    /// Finds the unicell that contains `p`; a point on a common face is in the upper one, one on the box's maximum in
    /// the last. False, with a message and `index` untouched, outside of the block's box and for NaN.
    bool inUniCell(const point& p, MultiIndex3& index) const;

    /// Replaces `list` by the cells recorded for the unicell of `p`, in their order. False when there are none, and
    /// also, with `list` as it was, when `p` is outside.
    bool curviCells(const point& p, IndexList_t& list) const;

    /// Records a cell in every unicell that its box touches. The constructor has done so for all: on a finished mapper
    /// this changes nothing. False when the box of the cell is not within that of the mapper.
    bool add(const MultiIndex3& curvi_i);

    /// Solves for the coordinates of `P` in cell `it` of the vertices `Data`: from the cell's centre, in linear steps.
    ///
    /// True with the coordinates in `uvw`, when they lie within the cell, faces included. False otherwise: with the
    /// last iterate in `uvw` when that has left the cell, with NaN when it is not finite, and with `uvw` untouched
    /// after `MaximalIterations` steps, which prints a message. Each step on a degenerate matrix prints "WHAT?".
    ///
    /// The cell map is evaluated once, at the centre, and followed linearly from there; so a good cell takes one step,
    /// and its result is exact to first order only. This is on purpose.
    ///
    /// `prec` is the distance at which to stop; `max`, the largest vertex index on each axis, follows from `Data`.
    static bool localCellCoordinatesFromCell(point& uvw, const point& P, const MultiIndex3& it,
                                             const CoordsArray_t& Data, const MultiIndex3& max, double prec);

    /// The whole query: 1 and the coordinates of `p`, 0 when no cell has it, or 2 when none has it and one was missed
    /// narrowly: when its last iterate is at most one cell off, and within the block widened by `grid_epsilon`. Of
    /// several such the first counts, with its iterate. A solve that gives up leaves the iterate of the cell before, or
    /// the value that `uvw` has on entry, to be judged.
    ///
    /// `uvw` is unspecified where the result is 0.
    unsigned int localCellCoordinatesFromCurviGrid(const point& p, point& uvw, double grid_epsilon,
                                                   const Vantle::BlockMask* mask = nullptr) const;

    /// The same without a word, also for many points at once, whose searches share much if they lie within a few cells
    /// of each other. Both sequences have the same length.
    [[nodiscard]] Vantle::CellLocation locate(const point& p, double grid_epsilon,
                                              const point& start = {-1.0, -1.0, -1.0},
                                              const Vantle::BlockMask* mask = nullptr) const;
    void locate(std::span<const point> points, std::span<Vantle::CellLocation> found, double grid_epsilon,
                const Vantle::BlockMask* mask = nullptr) const;

    /// The query through the projective map of the cells: 1 and the coordinates of the first cell whose unit cube,
    /// widened by `grid_epsilon`, has the point; 0 when none has it. Where there is no list, outside of the box above
    /// all, the answer is 1 too, with `uvw` untouched: callers ask `inUniCell` first.
    unsigned int localCellCoordinatesFromCurviGridProjective(const point& p, point& uvw, double grid_epsilon) const;

    /// That query without a word, and without a false hit: not found where there is no list.
    [[nodiscard]] Vantle::CellLocation locateProjectively(const point& p, double grid_epsilon,
                                                          const Vantle::BlockMask* mask = nullptr) const;

    /// The vertices; null only if the mapper was made so.
    [[nodiscard]] const Hestra::StrongPtr<CoordsArray_t>& coordinates() const noexcept { return myCoordinates; }
    /// The box of all vertices.
    [[nodiscard]] const Orvix::BoundingBox& boundingBox() const noexcept { return myBox; }
    /// Number of unicells on each axis, and their edge lengths: so many points span the box.
    [[nodiscard]] const MultiIndex3& unigridSize() const noexcept { return myUnigridSize; }
    [[nodiscard]] const Orvix::PhysicalSpace::vector& unicellSize() const noexcept { return myUnicellSize; }
    /// The distance at which a solve ends, in world units.
    [[nodiscard]] double precision() const noexcept { return myPrecision; }
    /// Length of the longest list. Counted when first asked for, or when the constructor has told it.
    [[nodiscard]] int maximalListLength() const;

private:
    friend class Vantle::LocalFromWorldPoint;
    struct Search;
    class Query;

    [[nodiscard]] Vantle::CellLocation locate(const point& p, double grid_epsilon, Vantle::detail::CellTrail& trail,
                                              const Vantle::BlockMask* mask) const;

    /// Moves to a cell, if queries without a mask find positions in a part of it without looking at another one.
    [[nodiscard]] bool moveHome(Vantle::detail::HomeCell& home, const MultiIndex3& cell, double grid_epsilon,
                                Vantle::detail::CellTrail* trail) const;
    /// The answer for a position that the home may have, if it or its rivals tell.
    [[nodiscard]] Vantle::CellLocation locateAtHome(const point& p, double grid_epsilon,
                                                    const Vantle::detail::HomeCell& home,
                                                    const Vantle::BlockMask* mask) const;
    /// Whether queries for positions of a home in another block, from there on along its axes, that are in a box, too,
    /// are silent, and find nothing in this block.
    [[nodiscard]] bool leavesFree(const Vantle::detail::HomeCell& home, const point& least, const point& greatest,
                                  double grid_epsilon, double from) const;

    void locateNeighbours(std::span<const point> points, std::span<Vantle::CellLocation> found, double grid_epsilon,
                          const Vantle::BlockMask* mask) const;
    [[nodiscard]] bool isRecorded(const MultiIndex3& cell) const;
    [[nodiscard]] int longestList(bool aloud) const;
    void measure(double resolution, double precision);
    void addReach();

    Hestra::StrongPtr<CoordsArray_t> myCoordinates;
    Orvix::BoundingBox myBox;
    Orvix::PhysicalSpace::vector myUnicellSize;
    MultiIndex3 myUnigridSize;
    double myPrecision = 0.0;
    std::unique_ptr<Search> mySearch;
};

namespace Vantle {
using ::UniGridMapper;
}
