#pragma once
/// Point location in a whole grid: which fragment contains a world position, and at which local coordinates.
///
/// The fragments whose boxes contain the position are tried in their order; the first that has it answers. Uniform and
/// rectilinear fragments are computed; curvilinear ones have a search structure each, which is built when a query
/// first reaches the fragment, and kept in the slice (see `PointSearch`) for all locators.
///
/// Local coordinates are fractional indices of the fragment: vertex (i, j, k) has coordinates (i, j, k).

#include <baseop/BaseOpExport.hpp>
#include <baseop/CellLocation.hpp>
#include <baseop/PointSearch.hpp>
#include <model/orvix/KDTree.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/DirectProduct.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Vantle {

class CartesianFragments;
class FragmentSearchBase;
namespace detail {
enum class Hearing;
}

/// What searches use unless told otherwise; see `LocatorOptions`.
namespace LocationDefaults {

inline constexpr double Resolution = 1.0;
inline constexpr double Precision = 0.01;
inline constexpr double GridEpsilon = 0.02;
inline constexpr Orvix::PhysicalSpace::vector TreeScale{1.5, 1.5, 1.5};
/// Interleaving of the cells when a tree mapper is built.
inline constexpr unsigned int TreeStride = 13;

} // namespace LocationDefaults

/// How the cell of a curvilinear fragment is found.
enum class CellLocator {
    /// One linear step from the centre of each candidate cell: fast, exact to first order in the distortion of the
    /// cells. Near the faces of strongly distorted cells positions may be lost.
    Newton,
    /// The projective map of each candidate cell to the unit cube: exact for cells that are projective images of a
    /// cube.
    Projective,
    /// Full iteration on the trilinear cell: every position inside a block of good cells, to rounding.
    Exact,
};

/// How a locator searches. The guide page says when to change what.
struct VANTLE_BASEOP_API LocatorOptions {
    /// Unicells of a unigrid mapper per mean edge length, divided by 1.2; more than 0.
    double resolution = LocationDefaults::Resolution;
    /// Distance at which a solve of a unigrid mapper ends, in per cent of the mean edge length; 0 or more.
    double precision = LocationDefaults::Precision;
    /// Half widths of the search box of tree mappers, in largest edge extents; 1 or more. A box of one extent can miss
    /// cells that are strongly skewed.
    Orvix::PhysicalSpace::vector scale = LocationDefaults::TreeScale;
    /// Width of the rim within which `Newton` and `Projective` accept a position, in cells; 0 or more.
    double gridEpsilon = LocationDefaults::GridEpsilon;
    CellLocator cellLocator = CellLocator::Newton;

    [[nodiscard]] bool operator==(const LocatorOptions&) const = default;
};

/// The result of a location.
struct VANTLE_BASEOP_API LocalPoint {
    /// Fractional indices in the fragment. Without meaning when nothing was found.
    Orvix::PhysicalSpace::point localCoordinates;
    /// The fragment; null when nothing was found, and also for unfragmented data.
    Hestra::StrongPtr<FragmentID> fragment;
};

/// Finds the cell of one curvilinear fragment that holds a position. Made for each query, on the stack.
///
/// Concurrency  one thread at a time; any number of these may ask one structure.
class VANTLE_BASEOP_API CurvilinearCell {
public:
    /// A mapper given by its address outlives this object; a handle keeps it alive. Null is allowed.
    explicit CurvilinearCell(const UniGridMapper* mapper, double gridEpsilon = LocationDefaults::GridEpsilon)
        : myMapper(mapper), myEpsilon(gridEpsilon) {}
    explicit CurvilinearCell(const Hestra::StrongPtr<UniGridMapper, UniGridMapper>& mapper,
                             double gridEpsilon = LocationDefaults::GridEpsilon);
    virtual ~CurvilinearCell();
    /// 0 not found, 1 found, 2 accepted approximately, -1 when there is no search structure. Reports what the
    /// structure's own query reports.
    virtual int pointInCell(const Orvix::PhysicalSpace::point& p) = 0;

    /// Local coordinates of the last hit; (-1, -1, -1) before the first.
    [[nodiscard]] const Orvix::PhysicalSpace::point& localCoordinates() const noexcept { return myLocal; }
    /// What the last query returned; 0 before the first.
    [[nodiscard]] int result() const noexcept { return myResult; }

private:
    Hestra::StrongPtr<UniGridMapper, UniGridMapper> myOwner;

protected:
    CurvilinearCell(const CurvilinearCell&) = default;
    CurvilinearCell& operator=(const CurvilinearCell&) = default;

    const UniGridMapper* myMapper;
    double myEpsilon;
    Orvix::PhysicalSpace::point myLocal{-1.0, -1.0, -1.0};
    int myResult = 0;
};

/// By the linear solves of a unigrid mapper.
class VANTLE_BASEOP_API HexaHedralCellNewton : public CurvilinearCell {
public:
    using CurvilinearCell::CurvilinearCell;
    int pointInCell(const Orvix::PhysicalSpace::point& p) override;
};

/// By the projective map of the cells in the unigrid mapper. Where that has no cells the position is not found.
class VANTLE_BASEOP_API ProjectiveCell : public CurvilinearCell {
public:
    using CurvilinearCell::CurvilinearCell;
    int pointInCell(const Orvix::PhysicalSpace::point& p) override;
};

/// Finds the cell of a rectilinear fragment. Coordinates given as an object outlive this one; a handle, which must not
/// be null, keeps them alive.
class VANTLE_BASEOP_API RectilinearInterpolation {
public:
    using Coordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
    explicit RectilinearInterpolation(const Coordinates& coordinates) : myCoordinates(coordinates) {}
    explicit RectilinearInterpolation(const Hestra::StrongPtr<Coordinates>& coordinates)
        : myOwner(coordinates), myCoordinates(*coordinates) {}
    /// True, with the fractional indices in `uvw`, when `p` lies between the ends of all axes, ends included. False
    /// otherwise and for NaN, with `uvw` untouched.
    bool find_rectilinear_cell(const Orvix::PhysicalSpace::point& p, Orvix::PhysicalSpace::point& uvw) const noexcept;

private:
    Hestra::StrongPtr<Coordinates> myOwner;
    const Coordinates& myCoordinates;
};

/// The fragments whose closed boxes contain a point, by ascending number.
///
/// Concurrency  one thread at a time; any number of these may look into one tree.
class VANTLE_BASEOP_API BBSelectorMemoryTree {
public:
    /// Returned after the last fragment.
    static constexpr unsigned int End = ~0u;
    struct Box {
        Orvix::PhysicalSpace::point min, max;
    };

    /// `tree` has the fragments' numbers at the centres of their boxes; `halfWidths` are at least those of the
    /// largest box on each axis.
    BBSelectorMemoryTree(const Orvix::KDTree<3, int>& tree, const Orvix::FixedArray<double, 3>& halfWidths,
                         const std::vector<Box>& boxes, const Orvix::PhysicalSpace::point& p)
        : BBSelectorMemoryTree(tree, halfWidths, boxes, Box{p, p}) {}
    /// The fragments whose boxes meet another one.
    BBSelectorMemoryTree(const Orvix::KDTree<3, int>& tree, const Orvix::FixedArray<double, 3>& halfWidths,
                         const std::vector<Box>& boxes, const Box& box);
    unsigned int getNext() noexcept { return myNext < myCount ? numbers()[myNext++] : End; }

private:
    static constexpr std::size_t Few = 16; // overlapping boxes are few: no allocation for them
    [[nodiscard]] const unsigned int* numbers() const noexcept { return myMany.empty() ? myFew : myMany.data(); }

    unsigned int myFew[Few];
    std::vector<unsigned int> myMany;
    std::size_t myCount = 0;
    std::size_t myNext = 0;
};

/// What `LocalFromWorldPoint::locate` remembers of a position for the next one of the same path: which fragments and
/// cells are near. About 18 kB. It may be used with any locator, also after the last one is gone.
///
/// Concurrency  one thread at a time.
class VANTLE_BASEOP_API LocationHint {
public:
    LocationHint();
    ~LocationHint();
    LocationHint(LocationHint&&) noexcept;
    LocationHint& operator=(LocationHint&&) noexcept;

private:
    friend class LocalFromWorldPoint;
    struct State;
    std::unique_ptr<State> myState;
};

/// The point location over one coordinate field of one grid.
///
/// Blanking     cells that the grid's masks make invalid contain no position, in any way of searching: it goes on to
/// the
///              next cell, or fragment. A position in the rim of a valid cell is moved onto that. Structures do not
///              depend on masks, and are built for fragments with valid cells only.
///
/// `get` and `getViaTree` report to whoever listens: what is built for them, and what the structures' own queries say.
/// `locate` gives the results of `get` without a word. Nobody's listening changes a result.
///
/// Degenerate   NaN, infinite and far positions are in no box, and not found. A fragment without coordinates, of
///              another kind, or without cells is passed over.
/// Failure      without grid or coordinate field a message, and no query finds anything. A search structure that cannot
///              be built is reported, its fragment is skipped, and the next query tries again. No exception but
///              std::bad_alloc leaves a query. Without a slice there is no place for structures: curvilinear fragments
///              are skipped.
///              Masks that do not fit throw std::invalid_argument: when the locator is made, with nothing changed,
///              where sizes are known without making data; else from a query that reaches the fragment.
/// Age          a locator keeps to the coordinates and masks that it was made with (`isCurrent`); made anew, it lets go
/// of all
///              that is kept of older ones and begins anew, too. Whoever writes into an array in place calls `touch()`
///              on the field and the fragment's creator.
/// Concurrency  any number of threads may make locators of one grid, and query any of them, as long as nobody changes
///              the grid, its fields or the slice otherwise: a missing structure is looked up, built and stored inside
///              the unnamed OpenMP critical section, once. Queries do not enter it after that.
/// Cost         one box test per nearby fragment, and one query of its structure; no allocation and, by `locate`, no
///              reference counting, once the structures exist.
class VANTLE_BASEOP_API LocalFromWorldPoint {
public:
    using point = Orvix::PhysicalSpace::point;
    using vector = Orvix::PhysicalSpace::vector;
    using LocalPoint = Vantle::LocalPoint;
    using FragmentTree = Orvix::KDTree<3, int>;

    using Options = LocatorOptions;

    /// A result in plain values.
    struct Location {
        point localCoordinates;
        /// Without a hit coordinates and fragment mean nothing.
        LocationResult code = LocationResult::NotFound;
        /// Whether `get` would say nothing about this position, once all structures are there.
        bool isSilent = true;
        /// Position of the fragment in the coordinate field's iteration order.
        unsigned int fragment = 0;
        [[nodiscard]] explicit operator bool() const noexcept { return code != LocationResult::NotFound; }
    };

    /// Slice and grid may be objects or handles.
    LocalFromWorldPoint(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid,
                        const std::string& coordinateField = PositionsName,
                        double resolution = LocationDefaults::Resolution,
                        double precision = LocationDefaults::Precision,
                        const vector& scale = LocationDefaults::TreeScale);
    LocalFromWorldPoint(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid,
                        const std::string& coordinateField, const LocatorOptions& options);
    ~LocalFromWorldPoint();
    LocalFromWorldPoint(const LocalFromWorldPoint&) = delete;
    LocalFromWorldPoint& operator=(const LocalFromWorldPoint&) = delete;

    /// Finds `p` by the cell locator of the options. On failure the fragment is released and false returned.
    bool get(const point& p, LocalPoint& result) const;
    /// Finds `p` by tree mappers. On failure the fragment is released, the coordinates stay, and false is returned.
    bool getViaTree(const point& p, LocalPoint& result) const;
    /// The same for the world position that the local coordinates hold on entry.
    bool getViaTree(LocalPoint& result) const;

    /// What `get` finds, without a word and without counting references.
    [[nodiscard]] Location locate(const point& p) const;
    /// The same for a position that is near the last one that was located with this hint, as on the path of a particle:
    /// while that stays within its cell, away from lower faces, no other cell is looked at; while it stays within some
    /// ten cells, only what is near. The answer is that without a hint.
    [[nodiscard]] Location locate(const point& p, LocationHint& hint) const;
    /// Positions that follow each other, on the caller's thread. Both sequences have the same length.
    void locate(std::span<const point> positions, std::span<Location> found, LocationHint& hint) const;
    /// The same for many positions at once, on all cores. Searches share much if 64 positions in a row lie within a
    /// few cells of each other. Both sequences have the same length.
    void locate(std::span<const point> positions, std::span<Location> found) const;

    /// Builds structures that locating these positions will need, by the calling thread and its team, which tells its
    /// pulse: while positions are dealt out, whoever comes first builds, alone. Locates a few of them.
    void prepare(std::span<const point> positions) const;

    /// Whether coordinates and masks are still those that this locator was made with: if not, its answers are those of
    /// before, in part, and another one is to be made.
    [[nodiscard]] bool isCurrent() const;
    /// Whether there are a grid and a coordinate field.
    [[nodiscard]] bool isValid() const noexcept { return bool(myField); }
    [[nodiscard]] std::size_t nFragments() const noexcept { return myBoxes.size(); }
    /// Fragment `n` in the coordinate field's iteration order; null for unfragmented data.
    [[nodiscard]] const Hestra::StrongPtr<FragmentID>& fragmentID(unsigned int n) const;
    /// Null without grid or coordinate field.
    [[nodiscard]] const Hestra::StrongPtr<Field>& coordinateField() const noexcept { return myField; }
    [[nodiscard]] const PointSearch& pointSearch() const noexcept { return mySearch; }

    /// Number of faces of a cell that lie on the border of its curvilinear fragment, 0 to 6: an axis on which the cell
    /// is both the first and the last counts twice. 0, with a message, if there is no such fragment or cell.
    [[nodiscard]] int numberOfBordersOfCell(const Hestra::StrongPtr<FragmentID>& fragment,
                                            const MultiIndex<3>& cell) const;
    /// The unit normal, pointing out of the cell, of its first border face: lower faces before upper ones, axis 0
    /// first. False and a zero normal, with a message, for a cell that is not on the border; also for a flat face.
    bool getNormal(const Hestra::StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell, vector& normal) const;
    /// The normal, as above, of the border face that a ray from `origin` meets first; each face is two triangles, that
    /// share its lowest and its highest vertex. False and a zero normal when it meets none; a hit is reported.
    bool getBorderIntersectionNormal(const Hestra::StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell,
                                     const point& origin, const vector& direction, vector& normal) const;

private:
    friend class FragmentSearchBase;
    struct Fragment;
    enum class Way : unsigned char;

    [[nodiscard]] static PointSearch makeSearch(const Hestra::StrongPtr<Slice>& slice,
                                                const Hestra::StrongPtr<Grid>& grid, const std::string& name);
    void findTree();
    void collectFragments(CartesianFragments& properties);
    void fillTree();

    template<class Structure>
    const Structure* structure(unsigned int number, detail::Hearing hearing) const;
    [[nodiscard]] bool isBuilt(unsigned int number) const;
    [[nodiscard]] Way wayOfOptions() const noexcept;
    void ask(Way way, unsigned int number, std::span<const point> points, std::span<CellLocation> found,
             const BlockMask* mask, detail::Hearing hearing) const;
    [[nodiscard]] bool askAloud(Way way, unsigned int number, const point& p, const BlockMask* mask) const;
    template<std::size_t Capacity>
    bool search(std::span<const point> positions, std::span<Location> found, Way way,
                std::span<const std::size_t> numbers) const;
    bool get(const point& p, LocalPoint& result, Way way) const;
    // With a hint: one position after the other; one that the home of the last has not; that among the home's rivals;
    // that by a search among what is near. `settle` moves the home.
    void locateNext(std::span<const point> positions, std::span<Location> found, LocationHint& hint) const;
    [[nodiscard]] bool isNearHome(const point& p, LocationHint::State& near, Location& found) const;
    [[nodiscard]] Location searchOn(const point& p, LocationHint::State& near) const;
    [[nodiscard]] Location searchNear(const point& p, LocationHint::State& near) const;
    void settle(unsigned int fragment, const MultiIndex<3>& cell, LocationHint::State& near) const;
    /// Up to so many positions that are near each other are found together.
    static constexpr std::size_t Neighbours = 64;
    void locateNeighbours(std::span<const point> positions, std::span<Location> found,
                          std::span<const std::size_t> numbers) const;
    void tell(const point& p, Way way) const;
    void forEachDue(const std::function<void(std::size_t)>& f) const;
    [[nodiscard]] const MemArray<3, point>* curvilinear(const Hestra::StrongPtr<FragmentID>& fragment,
                                                        const MultiIndex<3>& cell) const;

    PointSearch mySearch;
    Hestra::StrongPtr<Field> myField;
    Hestra::Freshness myOrigin; // the coordinates, when the locator was made
    Blanking myMasks;
    Hestra::Freshness myMaskOrigin;
    Hestra::StrongPtr<FragmentTree> myTree;
    Orvix::FixedArray<double, 3> myHalfWidths;
    std::vector<BBSelectorMemoryTree::Box> myBoxes;
    std::unique_ptr<Fragment[]> myFragments;
    bool myIsComplete = true; // whether every fragment has its place in the fragment coordinates
    LocatorOptions myOptions;
    std::uint64_t myNumber; // that no other locator has
};

} // namespace Vantle
