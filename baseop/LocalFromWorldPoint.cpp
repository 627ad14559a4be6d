#include <baseop/ExactCellLocator.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/location/CellTrail.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <baseop/detail/location/HomeCell.hpp>
#include <baseop/detail/location/LazyFragment.hpp>
#include <baseop/detail/location/SpatialOrder.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <tuple>

#define VANTLE_SCOPE(name)                                                                                             \
    const Hestra::Profiler scope("baseop/LocalFromWorldPoint", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using detail::CurvilinearCoordinates;
using detail::FragmentCoordinates;
using detail::Hearing;
using Hestra::Console;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace tell = detail::tell;

namespace {

/// More than rounding moves a number between two.
double roundingOf(double low, double high) noexcept {
    return 4.0 * std::numeric_limits<double>::epsilon() * std::max(std::fabs(low), std::fabs(high));
}

} // namespace

// What queries learn about a fragment: filled when a query first reaches it.
struct LocalFromWorldPoint::Fragment : detail::LazyFragment {
    // A search structure: found in the storage, or built and stored, inside the unnamed critical section; read without
    // it from then on.
    template<class Structure>
    struct Slot {
        std::atomic<const Structure*> ready{nullptr};
        StrongPtr<Structure> owner;
        std::optional<std::string> hopeless; // why it can never be made
    };
    template<class Structure>
    [[nodiscard]] Slot<Structure>& slot() noexcept {
        return std::get<Slot<Structure>>(mySlots);
    }

private:
    std::tuple<Slot<UniGridMapper>, Slot<TreeCellMapper>, Slot<ExactCellLocator>> mySlots;
};

/// How the cell of a curvilinear fragment is looked for.
enum class LocalFromWorldPoint::Way : unsigned char { Newton, Projective, Exact, Tree };

// ---------------------------------------------------------------------------------------------------------------------
// Cells

CurvilinearCell::CurvilinearCell(const StrongPtr<UniGridMapper>& mapper, double gridEpsilon)
    : myOwner(mapper), myMapper(mapper.rawptr()), myEpsilon(gridEpsilon) {}
CurvilinearCell::~CurvilinearCell() = default;

int HexaHedralCellNewton::pointInCell(const PhysicalSpace::point& p) {
    if (!myMapper) return -1;
    PhysicalSpace::point uvw(-1.0, -1.0, -1.0);
    myResult = static_cast<int>(myMapper->localCellCoordinatesFromCurviGrid(p, uvw, myEpsilon));
    if (myResult > 0) myLocal = uvw;
    return myResult;
}

int ProjectiveCell::pointInCell(const PhysicalSpace::point& p) {
    if (!myMapper) return -1;
    // The mapper's own query answers 1 without a result where it has no cells.
    MultiIndex<3> unicell;
    CellLocation found;
    if (myMapper->inUniCell(p, unicell)) found = myMapper->locateProjectively(p, myEpsilon);
    if (found) myLocal = found.local;
    return myResult = static_cast<int>(found.result);
}

bool RectilinearInterpolation::find_rectilinear_cell(const PhysicalSpace::point& p,
                                                     PhysicalSpace::point& uvw) const noexcept {
    const Orvix::FixedArray<double, 3> index = myCoordinates.getFractionalIndex(p);
    for (int d = 0; d < 3; ++d) {
        const index_t n = myCoordinates.Size()[d];
        if (n == 0 || !(index[d] >= 0.0 && index[d] <= static_cast<double>(n - 1))) return false;
    }
    uvw = PhysicalSpace::point(index);
    return true;
}

BBSelectorMemoryTree::BBSelectorMemoryTree(const Orvix::KDTree<3, int>& tree,
                                           const Orvix::FixedArray<double, 3>& halfWidths,
                                           const std::vector<Box>& boxes, const Box& region) {
    const auto take = [&](unsigned int number) {
        const Box& box = boxes[number];
        for (int d = 0; d < 3; ++d)
            if (!(region.max[d] >= box.min[d] && region.min[d] <= box.max[d])) return;
        if (myCount < Few && myMany.empty()) {
            myFew[myCount++] = number;
            return;
        }
        if (myMany.empty()) myMany.assign(myFew, myFew + myCount);
        myMany.push_back(number);
        ++myCount;
    };
    if (boxes.size() <= Few) { // a look at each costs less than a walk
        if (!tree.empty())
            for (unsigned int number = 0; number < boxes.size(); ++number) take(number);
        return;
    }
    PhysicalSpace::point centre = region.min;
    Orvix::FixedArray<double, 3> reach = halfWidths;
    if (!(region.min == region.max)) {
        for (int d = 0; d < 3; ++d) {
            centre[d] = 0.5 * region.min[d] + 0.5 * region.max[d];
            reach[d] += (0.5 * region.max[d] - 0.5 * region.min[d]) + roundingOf(region.min[d], region.max[d]);
            if (!std::isfinite(centre[d])) centre[d] = 0.0; // and all is in reach
        }
    }
    tree.forEachInBox(centre, reach, [&](int value, double) {
        const auto number = static_cast<unsigned int>(value);
        if (number < boxes.size()) take(number);
    });
    if (myCount > 1) {
        unsigned int* const first = myMany.empty() ? myFew : myMany.data();
        std::sort(first, first + myCount);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Construction

PointSearch LocalFromWorldPoint::makeSearch(const StrongPtr<Slice>& slice, const StrongPtr<Grid>& grid,
                                            const std::string& name) {
    VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint() Set Fragment data");
    if (grid) {
        const detail::GridLock lock(grid);
        if (const StrongPtr<Field> coordinates = (*grid)(name)) Blanking(*grid).check(*coordinates);
    }
    try {
        return PointSearch(slice, grid, name);
    } catch (const PointSearch::NoVertices&) {
        return PointSearch(slice, nullptr, name); // told as a missing coordinate field
    }
}

LocalFromWorldPoint::LocalFromWorldPoint(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid,
                                         const std::string& coordinateField, double resolution, double precision,
                                         const vector& scale)
    : LocalFromWorldPoint(slice, grid, coordinateField, LocatorOptions{resolution, precision, scale}) {}

LocalFromWorldPoint::LocalFromWorldPoint(const detail::Given<Slice>& slice, const detail::Given<Grid>& givenGrid,
                                         const std::string& coordinateField, const LocatorOptions& options)
    : mySearch(makeSearch(slice.handle(), givenGrid.handle(), coordinateField)), myOptions(options),
      myNumber(detail::CellTrail::newNumber()) {
    const StrongPtr<Grid>& grid = givenGrid.handle();
    if (!grid) {
        Console::puts(tell::invalidGrid);
        return;
    }
    const detail::GridLock lock(grid);
    myField = (*grid)(coordinateField);
    if (!myField) {
        Console::puts(tell::invalidField);
        return;
    }
    myOrigin = Hestra::Freshness(myField.rawptr());
    myMasks = Blanking(*grid);
    myMaskOrigin = myMasks.freshness();
    CartesianFragments properties(grid);
    if (grid->findVertices()) properties.discardOutdated();
    mySearch.discardOutdated();
    findTree();
    {
        VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Build Fragment Coordinates");
        Console::puts(properties.buildFragmentCoordinates() ? tell::fragmentsBuilt : tell::fragmentsThere);
    }
    collectFragments(properties);

    const StrongPtr<FragmentIDCollection> collection = myField->getFragmentIDCollection();
    if (!collection || collection->empty()) {
        const FragmentCoordinates* const found = myBoxes.empty() ? nullptr : myFragments[0].coordinates(Hearing::Kept);
        if (!myBoxes.empty()) myFragments[0].untold.tell();
        if (!found || std::holds_alternative<const detail::PointSet*>(found->kind)) Console::puts(tell::noCoordinates);
    }
    fillTree();
}

LocalFromWorldPoint::~LocalFromWorldPoint() = default;

void LocalFromWorldPoint::findTree() {
    const StrongPtr<FragmentTreeInterface> attached = myField->findInterface<FragmentTreeInterface>();
    const bool isThere = attached && attached->tree();
    Console::puts(isThere ? tell::treeFound : tell::noTree);
    if (isThere) {
        myTree = attached->tree();
        return;
    }
    VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Create KDTree");
    myTree = Hestra::makeRef<FragmentTree>();
    const auto made = Hestra::makeRef<FragmentTreeInterface>(myTree);
    myField->addInterface(made);
    PointSearch::noteTree(*myField, made, myOrigin);
}

bool LocalFromWorldPoint::isCurrent() const {
    const StrongPtr<Grid>& grid = mySearch.grid();
    const detail::GridLock lock(grid);
    const StrongPtr<Field> field = grid ? (*grid)(mySearch.coordinateFieldName()) : nullptr;
    if (!field || !(field == myField)) return field == myField;
    const Blanking masks(*grid);
    return myOrigin.isFor(field.rawptr()) && myMaskOrigin.isFor(masks.vertexMask().rawptr(), masks.cellMask().rawptr());
}

void LocalFromWorldPoint::collectFragments(CartesianFragments& properties) {
    const std::size_t count = myField->nFragments();
    myFragments = std::make_unique<Fragment[]>(count);
    constexpr double infinity = std::numeric_limits<double>::infinity();
    myBoxes.assign(count, {point(infinity, infinity, infinity), point(-infinity, -infinity, -infinity)});

    // The fragment coordinates are those of "Positions", and may be dropped at any time: boxes are copied.
    StrongPtr<TypedArray<point>> low, high;
    if (myField == properties.grid()->CartesianPositions()) {
        const auto [lowField, highField] = properties.makeFragmentCoordinatesMinMax();
        low = Hestra::dynamicCast<TypedArray<point>>(lowField->getData());
        high = Hestra::dynamicCast<TypedArray<point>>(highField->getData());
    }
    std::size_t n = 0;
    myField->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (n >= count) return false;
        myFragments[n].id = id;
        myFragments[n].creator = creator;
        if (low && high) {
            if (n < low->nElements() && n < high->nElements()) myBoxes[n] = {low->element(n), high->element(n)};
        } else if (creator) {
            if (const StrongPtr<Orvix::BoundingBox> box = getFragmentBBox(id, creator, *myField);
                box && !box->isEmpty())
                myBoxes[n] = {box->minCoord(), box->maxCoord()};
        }
        ++n;
        return true;
    });
    myIsComplete = n == count && (!low || low->nElements() == count) && (!high || high->nElements() == count);
}

void LocalFromWorldPoint::fillTree() {
    VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Multiblock Uniform Point Search");
    std::vector<std::pair<point, int>> centres;
    for (std::size_t n = 0; n < myBoxes.size(); ++n) {
        const auto& [low, high] = myBoxes[n];
        point centre;
        bool isBox = true;
        for (int d = 0; d < 3; ++d) {
            isBox = isBox && low[d] <= high[d];
            centre[d] = 0.5 * low[d] + 0.5 * high[d];
        }
        if (!isBox) continue;
        for (int d = 0; d < 3; ++d) {
            // The centre is rounded, so a point of the box may be farther from it than half the extent.
            myHalfWidths[d] = std::max(myHalfWidths[d], 0.5 * high[d] - 0.5 * low[d] + roundingOf(low[d], high[d]));
            if (std::isnan(centre[d])) centre[d] = 0.0; // between both infinities; all is in reach
        }
        centres.emplace_back(centre, static_cast<int>(n));
    }
    if (!myTree->empty()) return;
    if (!myIsComplete) {
        Console::puts(tell::incomplete);
        return;
    }
    try {
        myTree->reserve(centres.size());
        for (const auto& [centre, number] : centres) myTree->insert(centre, number);
        myTree->pack();
    } catch (...) {
        myField->removeInterface(typeid(FragmentTreeInterface)); // or others would take a part for the whole
        throw;
    }
}

const StrongPtr<FragmentID>& LocalFromWorldPoint::fragmentID(unsigned int n) const {
    static const StrongPtr<FragmentID> null;
    return n < myBoxes.size() ? myFragments[n].id : null;
}

// ---------------------------------------------------------------------------------------------------------------------
// Search structures

namespace {

/// How the structures of one kind are made, and what is said of that.
template<class Structure>
struct Maker;

template<>
struct Maker<UniGridMapper> {
    static constexpr const char* name = "unimapper";
    static void announce(unsigned int n, const LocatorOptions& options) {
        tell::creatingUnimapper(n, options.resolution, options.precision);
    }
    static StrongPtr<UniGridMapper> make(const StrongPtr<CurvilinearCoordinates>& block,
                                         const LocatorOptions& options) {
        return Hestra::makeRef<UniGridMapper>(block, options.resolution, options.precision);
    }
};

template<>
struct Maker<TreeCellMapper> {
    static constexpr const char* name = "treemapper";
    static void announce(unsigned int n, const LocatorOptions& options) {
        tell::creatingTreemapper(n, options.resolution, options.precision, options.scale);
    }
    static StrongPtr<TreeCellMapper> make(const StrongPtr<CurvilinearCoordinates>& block,
                                          const LocatorOptions& options) {
        return Hestra::makeRef<TreeCellMapper>(block, options.scale, LocationDefaults::GridEpsilon,
                                               LocationDefaults::TreeStride);
    }
};

template<>
struct Maker<ExactCellLocator> {
    static constexpr const char* name = "exact locator";
    static void announce(unsigned int n, const LocatorOptions&) { tell::creatingExactLocator(n); }
    static StrongPtr<ExactCellLocator> make(const StrongPtr<CurvilinearCoordinates>& block, const LocatorOptions&) {
        return Hestra::makeRef<ExactCellLocator>(block);
    }
};

} // namespace

// A structure that its block makes too large is so for ever, and said to be so only `Again`. Other failures are tried
// again.
template<class Structure>
const Structure* LocalFromWorldPoint::structure(unsigned int number, Hearing hearing) const {
    Fragment& fragment = myFragments[number];
    Fragment::Slot<Structure>& slot = fragment.slot<Structure>();
    if (const Structure* const ready = slot.ready.load(std::memory_order_acquire)) return ready;
    Field* const storage = mySearch.mapperField<Structure>().rawptr();
    if (!storage) return nullptr;

    using Made = Maker<Structure>;
    using Stored = StoredMapper<Structure>;
    const auto refuse = [&](const char* reason) { tell::cannotCreate(Made::name, number, reason); };
    const auto obtain = [&] {
        if (slot.owner) return;
        if (slot.hopeless) {
            if (hearing != Hearing::Again) return;
            Made::announce(number, myOptions);
            return refuse(slot.hopeless->c_str());
        }
        try {
            auto entry = Hestra::dynamicCast<Stored>(PointSearch::find(*storage, fragment.id, myOrigin));
            if (!entry || entry->nElements() == 0 || !entry->element(0)) {
                Made::announce(number, myOptions);
                const StrongPtr<CurvilinearCoordinates> block(fragment.known()->curvilinear());
                entry = Stored::create(MultiIndex<1>(1));
                entry->element(0) = Made::make(block, myOptions);
                PointSearch::store(*storage, fragment.id, entry, myOrigin);
            }
            slot.owner = entry->element(0);
        } catch (const std::length_error& problem) {
            slot.hopeless = problem.what();
            refuse(problem.what());
        } catch (const std::exception& problem) {
            refuse(problem.what());
        } catch (...) {
            refuse(nullptr);
        }
        if (slot.owner) slot.ready.store(slot.owner.rawptr(), std::memory_order_release);
    };
    fragment.untold.during(hearing != Hearing::Nobody, [&] { detail::inCriticalSection(obtain); });
    return slot.ready.load(std::memory_order_acquire);
}

// ---------------------------------------------------------------------------------------------------------------------
// Queries

namespace {

/// Whether coordinates that are computed, which those of uniform and rectilinear fragments are, have a position in
/// their box, in a valid cell.
bool isInComputed(const FragmentCoordinates& coordinates, const PhysicalSpace::point& p, PhysicalSpace::point& local,
                  const BlockMask* mask) {
    const bool isInside = std::visit(
        detail::Overloaded{[&](const detail::UniformCoordinates* uniform) {
                               if (uniform->nElements() == 0) return false;
                               // In the box, but a rounding error may lead past the last vertex.
                               const Orvix::FixedArray<double, 3> index = uniform->getIndex(p);
                               for (int d = 0; d < 3; ++d)
                                   local[d] = std::clamp(index[d], 0.0, static_cast<double>(uniform->Size()[d] - 1));
                               return true;
                           },
                           [&](const detail::RectilinearCoordinates* rectilinear) {
                               return RectilinearInterpolation(*rectilinear).find_rectilinear_cell(p, local);
                           },
                           [](const auto&) { return false; }},
        coordinates.kind);
    return isInside && (!mask || mask->has(local));
}

/// Where a tree mapper finds a position, in fractional indices.
CellLocation locateInTree(const TreeCellMapper& tree, const PhysicalSpace::point& p, const BlockMask* mask) {
    CellLocation found;
    PhysicalSpace::vector extent;
    MultiIndex<3> cell;
    found.result = static_cast<LocationResult>(tree.localCoordinates(found.local, extent, p, &cell, mask));
    if (!found) return found;
    // The mapper leaves out the cell on the last layer of an axis; elsewhere it has added it.
    const MultiIndex<3> lastCell = tree.coordinates()->Size() - 2;
    for (int d = 0; d < 3; ++d)
        if (cell[d] == lastCell[d]) found.local[d] += static_cast<double>(cell[d]);
    return found;
}

} // namespace

LocalFromWorldPoint::Way LocalFromWorldPoint::wayOfOptions() const noexcept {
    constexpr Way ways[] = {Way::Newton, Way::Projective, Way::Exact};
    return ways[static_cast<int>(myOptions.cellLocator)];
}

// Asks the structure of a curvilinear fragment, without a word.
void LocalFromWorldPoint::ask(Way way, unsigned int number, std::span<const point> points,
                              std::span<CellLocation> found, const BlockMask* mask, Hearing hearing) const {
    const double epsilon = myOptions.gridEpsilon;
    const auto with = [&](const auto* structure, const auto& locate) {
        for (std::size_t n = 0; n < points.size(); ++n)
            found[n] = structure ? locate(*structure, points[n]) : CellLocation{{}, LocationResult::NotFound, false};
    };
    switch (way) {
    case Way::Newton:
        if (const auto* const mapper = structure<UniGridMapper>(number, hearing); mapper && points.size() > 1)
            return mapper->locateNeighbours(points, found, epsilon, mask);
        else
            return with(mapper, [&](const UniGridMapper& m, const point& p) {
                return m.locate(p, epsilon, {-1.0, -1.0, -1.0}, mask);
            });
    case Way::Exact:
        if (const auto* const locator = structure<ExactCellLocator>(number, hearing); locator && points.size() > 1)
            return locator->locateNeighbours(points, found, mask);
        else
            return with(locator, [&](const ExactCellLocator& l, const point& p) { return l.locate(p, nullptr, mask); });
    case Way::Projective:
        return with(structure<UniGridMapper>(number, hearing),
                    [&](const UniGridMapper& m, const point& p) { return m.locateProjectively(p, epsilon, mask); });
    case Way::Tree:
        return with(structure<TreeCellMapper>(number, hearing),
                    [&](const TreeCellMapper& m, const point& p) { return locateInTree(m, p, mask); });
    }
}

// Asks it so that it is heard; true when it has the position.
bool LocalFromWorldPoint::askAloud(Way way, unsigned int number, const point& p, const BlockMask* mask) const {
    Fragment& fragment = myFragments[number];
    const Hearing hearing = fragment.untold.isPending() ? Hearing::Kept : Hearing::Again;
    fragment.untold.tell();
    CellLocation found;
    ask(way, number, std::span(&p, 1), std::span(&found, 1), mask, hearing);
    fragment.untold.tell();
    if (const auto* const mapper = fragment.slot<UniGridMapper>().ready.load(); mapper && !found.isSilent) {
        point uvw(-1.0, -1.0, -1.0);
        if (way == Way::Newton) mapper->localCellCoordinatesFromCurviGrid(p, uvw, myOptions.gridEpsilon, mask);
        if (way == Way::Projective) ProjectiveCell(mapper, myOptions.gridEpsilon).pointInCell(p);
    }
    return bool(found);
}

// Finds up to `Capacity` positions together. If they have numbers, what is said while structures are made is kept and
// noted to be due with them; true when there is such.
template<std::size_t Capacity>
bool LocalFromWorldPoint::search(std::span<const point> positions, std::span<Location> found, Way way,
                                 std::span<const std::size_t> numbers) const {
    std::fill(found.begin(), found.end(), Location());
    if (!myTree) return false;
    const Hearing hearing = numbers.empty() ? Hearing::Nobody : Hearing::Kept;
    bool hasUntold = false;
    unsigned char pending[Capacity] = {};
    std::size_t count = 0;
    BBSelectorMemoryTree::Box region{positions[0], positions[0]};
    for (std::size_t n = 0; n < positions.size(); ++n) {
        const point& p = positions[n];
        if (Capacity > 1 && !(p[0] * 0.0 + p[1] * 0.0 + p[2] * 0.0 == 0.0)) { // no number, and no part of a region
            search<1>(positions.subspan(n, 1), found.subspan(n, 1), way, numbers.subspan(numbers.empty() ? 0 : n));
            continue;
        }
        for (int d = 0; d < 3; ++d) {
            region.min[d] = count == 0 ? p[d] : std::min(region.min[d], p[d]);
            region.max[d] = count == 0 ? p[d] : std::max(region.max[d], p[d]);
        }
        pending[count++] = static_cast<unsigned char>(n);
    }
    BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, region);
    for (unsigned int n = selector.getNext(); n != BBSelectorMemoryTree::End && count != 0; n = selector.getNext()) {
        const BBSelectorMemoryTree::Box& box = myBoxes[n];
        unsigned char inBox[Capacity];
        point points[Capacity];
        std::size_t inside = 0;
        for (std::size_t c = 0; c < count; ++c) {
            const point& p = positions[pending[c]];
            bool isInside = true;
            for (int d = 0; d < 3; ++d) isInside &= p[d] >= box.min[d] && p[d] <= box.max[d];
            inBox[inside] = pending[c];
            points[inside] = p;
            inside += isInside ? 1 : 0;
        }
        if (inside == 0) continue;

        CellLocation inCell[Capacity];
        const FragmentCoordinates* coordinates = myFragments[n].coordinates(hearing);
        const BlockMask* const mask = coordinates ? myFragments[n].mask(myMasks, hearing) : nullptr;
        if (mask && mask->isNothingValid()) coordinates = nullptr;
        if (coordinates && coordinates->curvilinear())
            ask(way, n, std::span<const point>(points, inside), std::span(inCell, inside), mask, hearing);
        else if (coordinates)
            for (std::size_t c = 0; c < inside; ++c)
                if (isInComputed(*coordinates, points[c], inCell[c].local, mask))
                    inCell[c].result = LocationResult::Found;
        if (!numbers.empty() && myFragments[n].untold.mayBePending()) {
            hasUntold = true;
            for (std::size_t c = 0; c < inside; ++c) myFragments[n].untold.reachedBy(numbers[inBox[c]]);
        }
        for (std::size_t c = 0; c < inside; ++c) {
            Location& location = found[inBox[c]];
            location.isSilent = location.isSilent && inCell[c].isSilent;
            if (!inCell[c]) continue;
            location.localCoordinates = inCell[c].local;
            location.code = inCell[c].result;
            location.fragment = n;
        }
        std::size_t left = 0;
        for (std::size_t c = 0; c < count; ++c) {
            pending[left] = pending[c];
            left += found[pending[c]] ? 0 : 1;
        }
        count = left;
    }
    return hasUntold;
}

// Has everything said that there is to be said about a position.
void LocalFromWorldPoint::tell(const point& p, Way way) const {
    if (!myTree) return;
    BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, p);
    for (unsigned int n = selector.getNext(); n != BBSelectorMemoryTree::End; n = selector.getNext()) {
        const FragmentCoordinates* coordinates = myFragments[n].known();
        const BlockMask* const mask = coordinates ? myFragments[n].mask(myMasks, Hearing::Kept) : nullptr;
        if (mask && mask->isNothingValid()) coordinates = nullptr;
        point local;
        if (coordinates && coordinates->curvilinear() ? askAloud(way, n, p, mask)
                                                      : coordinates && isInComputed(*coordinates, p, local, mask))
            return;
        myFragments[n].untold.tell();
    }
}

// Calls `f(number)` for positions that something kept has to be told with.
void LocalFromWorldPoint::forEachDue(const std::function<void(std::size_t)>& f) const {
    for (std::size_t n = 0; n < myBoxes.size(); ++n) myFragments[n].untold.whenDue(f);
}

LocalFromWorldPoint::Location LocalFromWorldPoint::locate(const point& p) const {
    Location found;
    search<1>(std::span(&p, 1), std::span(&found, 1), wayOfOptions(), {});
    return found;
}

// Structures are built best by the thread that asks: it has a team for that, and a pulse. So before positions are dealt
// out, it looks for some in each block that has none yet.
void LocalFromWorldPoint::prepare(std::span<const point> positions) const {
    constexpr std::size_t MostTries = 8;
    std::size_t next = positions.size(); // none looked at yet
    BBSelectorMemoryTree::Box region;
    for (std::size_t n = 0; n < myBoxes.size(); ++n) {
        const auto isReady = [&] {
            const FragmentCoordinates* const known = myFragments[n].known();
            return known && (!known->curvilinear() || isBuilt(static_cast<unsigned int>(n)));
        };
        if (isReady()) continue;
        if (std::exchange(next, 0) != 0)
            for (const point& p : positions)
                for (int d = 0; d < 3; ++d) {
                    region.min[d] = &p == positions.data() ? p[d] : std::min(region.min[d], p[d]);
                    region.max[d] = &p == positions.data() ? p[d] : std::max(region.max[d], p[d]);
                }
        const BBSelectorMemoryTree::Box& box = myBoxes[n];
        bool isApart = false; // never by a NaN
        for (int d = 0; d < 3; ++d) isApart |= region.max[d] < box.min[d] || region.min[d] > box.max[d];
        if (isApart) continue;
        std::size_t tries = 0;
        for (std::size_t k = 0; k < positions.size() && tries < MostTries && !isReady(); ++k) {
            const point& p = positions[k];
            bool isInside = true;
            for (int d = 0; d < 3; ++d) isInside &= p[d] >= box.min[d] && p[d] <= box.max[d];
            if (!isInside) continue;
            (void)locate(p);
            ++tries;
        }
    }
}

bool LocalFromWorldPoint::isBuilt(unsigned int n) const {
    Fragment& fragment = myFragments[n];
    return wayOfOptions() == Way::Exact ? fragment.slot<ExactCellLocator>().ready.load() != nullptr
                                        : fragment.slot<UniGridMapper>().ready.load() != nullptr;
}

void LocalFromWorldPoint::locate(std::span<const point> positions, std::span<Location> found) const {
    VANTLE_SCOPE("LocalFromWorldPoint::locate(positions, found)");
    // A position takes about as long as reading some kilobytes.
    constexpr std::size_t BytesEach = 2048, Piece = 16 * Neighbours;
    // Positions in any order are put in one by large pieces, of which every thread has one.
    const std::size_t share = positions.size() / detail::teamSize() + 1;
    const std::size_t piece =
        detail::SpatialOrder::pays(positions) ? std::clamp(share, Piece, detail::SpatialOrder::MostPositions) : Piece;
    detail::inParallel(positions.size(), piece, BytesEach * positions.size(), [&](std::size_t begin, std::size_t end) {
        detail::locateNeighbours<Neighbours>(positions.subspan(begin, end - begin), found.subspan(begin, end - begin),
                                             [&](std::span<const point> now, std::span<Location> theirs, const auto&) {
                                                 locateNeighbours(now, theirs, {});
                                             });
    });
}

void LocalFromWorldPoint::locateNeighbours(std::span<const point> positions, std::span<Location> found,
                                           std::span<const std::size_t> numbers) const {
    search<Neighbours>(positions, found, wayOfOptions(), numbers);
}

/// The fragments whose boxes meet a box about the last position that it was moved to, in order.
struct LocationHint::State {
    static constexpr std::size_t MostFragments = 4;

    std::uint64_t locator = 0;
    BBSelectorMemoryTree::Box region{};
    std::size_t count = 0;
    bool areAll = false;
    struct {
        unsigned int number = 0;
        detail::CellTrail trail;
    } fragments[MostFragments];

    /// The cell of the last position, and whether positions in a part of it need no search. Looking into that takes as
    /// long as some searches: it is done for those that stay in a cell for long, as they did in those before.
    struct Home {
        static constexpr unsigned int Enough = 6, Most = 32;
        std::uint64_t locator = 0; // that it is ready for
        unsigned int fragment = BBSelectorMemoryTree::End;
        MultiIndex<3> cell;
        bool isKnown = false;
        unsigned int stays = 0;
        detail::HomeCell part;

        void stay() noexcept { stays = std::min(stays + 1, Most); }
        /// Whether it has the position of the locator with this number, and where.
        [[nodiscard]] bool answers(std::uint64_t asked, const PhysicalSpace::point& p,
                                   LocalFromWorldPoint::Location& found) noexcept {
            if (locator != asked || !part.solveInPart(p, found.localCoordinates)) return false;
            found.code = LocationResult::Found;
            found.fragment = fragment;
            found.isSilent = true;
            stay();
            return true;
        }
    } home;

    [[nodiscard]] bool isIn(const BBSelectorMemoryTree::Box& box, const PhysicalSpace::point& p) const noexcept {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside &= p[d] >= box.min[d] && p[d] <= box.max[d];
        return isInside;
    }
};

LocationHint::LocationHint() = default;
LocationHint::~LocationHint() = default;
LocationHint::LocationHint(LocationHint&&) noexcept = default;
LocationHint& LocationHint::operator=(LocationHint&&) noexcept = default;

LocalFromWorldPoint::Location LocalFromWorldPoint::locate(const point& p, LocationHint& hint) const {
    Location found;
    locateNext(std::span(&p, 1), std::span(&found, 1), hint);
    return found;
}

void LocalFromWorldPoint::locateNext(std::span<const point> positions, std::span<Location> found,
                                     LocationHint& hint) const {
    if (!hint.myState) hint.myState = std::make_unique<LocationHint::State>();
    LocationHint::State& near = *hint.myState;
    for (std::size_t k = 0; k < positions.size(); ++k)
        if (!near.home.answers(myNumber, positions[k], found[k])) found[k] = searchOn(positions[k], near);
}

// The search of a position that the home of the last one has not.
LocalFromWorldPoint::Location LocalFromWorldPoint::searchOn(const point& p, LocationHint::State& near) const {
    const Way way = wayOfOptions();
    LocationHint::State::Home& home = near.home;
    Location found;
    // Other ways have nothing to remember.
    if (!myTree || !(p[0] * 0.0 + p[1] * 0.0 + p[2] * 0.0 == 0.0) || (way != Way::Newton && way != Way::Exact))
        return locate(p);
    if (!isNearHome(p, near, found)) {
        bool isAtNext = false;
        if (home.locator == myNumber && home.stays >= LocationHint::State::Home::Enough) {
            const MultiIndex<3> next = home.part.neighbourTowards(p);
            if (next != home.cell) {
                settle(home.fragment, next, near);
                if (home.answers(myNumber, p, found)) return found;
                isAtNext = isNearHome(p, near, found);
            }
        }
        if (!isAtNext) found = searchNear(p, near);
    }
    if (found.code != LocationResult::Found) return found;
    MultiIndex<3> cell;
    for (int d = 0; d < 3; ++d) cell[d] = static_cast<index_t>(std::max(found.localCoordinates[d], 0.0));
    settle(found.fragment, cell, near);
    return found;
}

// Asks the cell of the last position and its rivals.
bool LocalFromWorldPoint::isNearHome(const point& p, LocationHint::State& near, Location& found) const {
    LocationHint::State::Home& home = near.home;
    if (home.locator != myNumber || !home.part.mayHave(p)) return false;
    CellLocation inCell;
    const BlockMask* const mask = myFragments[home.fragment].mask(myMasks, Hearing::Nobody);
    if (wayOfOptions() == Way::Exact) {
        inCell = structure<ExactCellLocator>(home.fragment, Hearing::Nobody)->locateAtHome(p, home.part, mask);
    } else {
        const auto* const mapper = structure<UniGridMapper>(home.fragment, Hearing::Nobody);
        inCell = mapper->locateAtHome(p, myOptions.gridEpsilon, home.part, mask);
    }
    if (inCell.result != LocationResult::Found) return false;
    found.localCoordinates = inCell.local;
    found.code = inCell.result;
    found.fragment = home.fragment;
    found.isSilent = inCell.isSilent;
    return true;
}

// Makes a cell the first that the next positions are looked for in, as far as no other one, in this fragment or those
// before, can have them.
void LocalFromWorldPoint::settle(unsigned int n, const MultiIndex<3>& cell, LocationHint::State& near) const {
    using Home = LocationHint::State::Home;
    Home& home = near.home;
    const FragmentCoordinates* const coordinates = myFragments[n].known();
    const CurvilinearCoordinates* const block = coordinates ? coordinates->curvilinear() : nullptr;
    if (!block || !cell.inside(block->Size()) || !(cell + 1).inside(block->Size())) return;
    if (home.fragment == n && home.cell == cell) {
        home.stay();
    } else {
        home.locator = 0;
        home.fragment = n;
        home.cell = cell;
        home.isKnown = false;
        home.stays /= 2;
    }
    if (home.isKnown || home.stays < Home::Enough) return;
    home.isKnown = true;
    const BlockMask* const mask = myFragments[n].mask(myMasks, Hearing::Nobody);
    if (mask && !mask->isCellValid(cell)) return;
    // Calls `isFree(structure, box)` for the structures of fragments before this one whose boxes are near.
    const auto areFree = [&]<class Structure>(const Structure*, const auto& isFree) {
        BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, {home.part.lowest(), home.part.highest()});
        for (unsigned int m = selector.getNext(); m < n; m = selector.getNext()) {
            const FragmentCoordinates* const known = myFragments[m].known();
            if (!known || !known->curvilinear()) return false;
            const auto* const other = myFragments[m].slot<Structure>().ready.load(std::memory_order_acquire);
            if (!other || !isFree(*other, myBoxes[m])) return false;
        }
        return true;
    };
    using Box = BBSelectorMemoryTree::Box;
    detail::CellTrail* trail = nullptr;
    for (std::size_t f = 0; f < near.count; ++f)
        if (near.fragments[f].number == n) trail = &near.fragments[f].trail;
    bool isReady = false;
    // The box of the cell may be larger than that of the fragment.
    const auto isAny = [&] { return home.part.cutTo(myBoxes[n].min, myBoxes[n].max); };
    if (wayOfOptions() == Way::Exact) {
        const auto* const locator = structure<ExactCellLocator>(n, Hearing::Nobody);
        isReady =
            locator && locator->moveHome(home.part, cell, trail) && isAny() && home.part.keepFree([&](double from) {
                return areFree(locator, [&](const ExactCellLocator& other, const Box&) {
                    return other.leavesFree(home.part, from);
                });
            });
    } else {
        const double epsilon = myOptions.gridEpsilon;
        const auto* const mapper = structure<UniGridMapper>(n, Hearing::Nobody);
        isReady = mapper && mapper->moveHome(home.part, cell, epsilon, trail) && isAny() &&
                  home.part.keepFree([&](double from) {
                      return areFree(mapper, [&](const UniGridMapper& other, const Box& box) {
                          return other.leavesFree(home.part, box.min, box.max, epsilon, from);
                      });
                  });
    }
    if (isReady) home.locator = myNumber;
}

// The search of a position of numbers among the fragments and cells near the last one.
LocalFromWorldPoint::Location LocalFromWorldPoint::searchNear(const point& p, LocationHint::State& near) const {
    const Way way = wayOfOptions();
    if (near.locator != myNumber || !near.isIn(near.region, p)) {
        // A small part of the largest fragment's box, on all axes.
        near.locator = myNumber;
        double width = 0.0;
        for (int d = 0; d < 3; ++d) width = std::max(width, myHalfWidths[d] / 32);
        for (int d = 0; d < 3; ++d) {
            near.region.min[d] = p[d] - width;
            near.region.max[d] = p[d] + width;
        }
        BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, near.region);
        near.count = 0;
        for (unsigned int n = selector.getNext(); n != BBSelectorMemoryTree::End; n = selector.getNext()) {
            near.areAll = near.count < LocationHint::State::MostFragments;
            if (!near.areAll) break;
            near.fragments[near.count++].number = n;
        }
        near.areAll = near.areAll || near.count == 0;
    }
    if (!near.areAll) return locate(p);

    Location found;
    for (std::size_t f = 0; f < near.count && !found; ++f) {
        const unsigned int n = near.fragments[f].number;
        if (!near.isIn(myBoxes[n], p)) continue;
        const FragmentCoordinates* coordinates = myFragments[n].coordinates(Hearing::Nobody);
        const BlockMask* const mask = coordinates ? myFragments[n].mask(myMasks, Hearing::Nobody) : nullptr;
        if (!coordinates || (mask && mask->isNothingValid())) continue;
        CellLocation inCell;
        detail::CellTrail& trail = near.fragments[f].trail;
        if (!coordinates->curvilinear()) {
            if (isInComputed(*coordinates, p, inCell.local, mask)) inCell.result = LocationResult::Found;
        } else if (way == Way::Exact) {
            if (const auto* const locator = structure<ExactCellLocator>(n, Hearing::Nobody))
                inCell = locator->locate(p, trail, mask);
            else
                inCell.isSilent = false;
        } else {
            if (const auto* const mapper = structure<UniGridMapper>(n, Hearing::Nobody))
                inCell = mapper->locate(p, myOptions.gridEpsilon, trail, mask);
            else
                inCell.isSilent = false;
        }
        found.isSilent = found.isSilent && inCell.isSilent;
        if (!inCell) continue;
        found.localCoordinates = inCell.local;
        found.code = inCell.result;
        found.fragment = n;
    }
    return found;
}

void LocalFromWorldPoint::locate(std::span<const point> positions, std::span<Location> found,
                                 LocationHint& hint) const {
    VANTLE_SCOPE("LocalFromWorldPoint::locate(positions, found, hint)");
    locateNext(positions, found, hint);
}

bool LocalFromWorldPoint::get(const point& p, LocalPoint& result, Way way) const {
    VANTLE_SCOPE("LocalFromWorldPoint::get(point, data) Interpolate");
    const bool isHeard = Console::isHeard();
    const std::size_t first = 0;
    Location found;
    const bool hasUntold = search<1>(std::span(&p, 1), std::span(&found, 1), way, std::span(&first, isHeard ? 1 : 0));
    if (isHeard && (hasUntold || !found.isSilent)) tell(p, way);
    result.fragment = nullptr;
    if (!found) return false;
    result.localCoordinates = found.localCoordinates;
    result.fragment = myFragments[found.fragment].id;
    return true;
}

bool LocalFromWorldPoint::get(const point& p, LocalPoint& result) const {
    VANTLE_SCOPE("LocalFromWorldPoint::get(point, data)");
    return get(p, result, wayOfOptions());
}

bool LocalFromWorldPoint::getViaTree(const point& p, LocalPoint& result) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getViaTree(point, data)");
    return get(p, result, Way::Tree);
}

bool LocalFromWorldPoint::getViaTree(LocalPoint& result) const {
    const point p = result.localCoordinates;
    return getViaTree(p, result);
}

const CurvilinearCoordinates* LocalFromWorldPoint::curvilinear(const StrongPtr<FragmentID>& fragment,
                                                               const MultiIndex<3>& cell) const {
    for (std::size_t n = 0; n < myBoxes.size(); ++n) {
        if (!(myFragments[n].id == fragment)) continue;
        const FragmentCoordinates* const coordinates = myFragments[n].coordinates(Hearing::Nobody);
        const CurvilinearCoordinates* const block = coordinates ? coordinates->curvilinear() : nullptr;
        return block && (cell + 1).inside(block->Size()) ? block : nullptr;
    }
    return nullptr;
}

} // namespace Vantle
