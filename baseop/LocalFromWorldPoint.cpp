#include <baseop/ExactCellLocator.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <omp.h>
#include <optional>
#include <stdexcept>

#define VANTLE_SCOPE(name)                                                                                             \
    const Hestra::Profiler scope("baseop/LocalFromWorldPoint", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using detail::CurvilinearCoordinates;
using detail::FragmentCoordinates;
using Hestra::Console;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

namespace {

constexpr const char* source = "baseop/LocalFromWorldPoint";

/// More than rounding moves a number between two.
double roundingOf(double low, double high) noexcept {
    return 4.0 * std::numeric_limits<double>::epsilon() * std::max(std::fabs(low), std::fabs(high));
}

/// A search structure as one locator knows it: found or built inside the critical section, then read without it.
template<class Mapper>
struct Slot {
    std::atomic<const Mapper*> ready{nullptr};
    StrongPtr<Mapper> owner;
    /// Why it cannot be built from these coordinates, now or ever.
    std::optional<std::string> hopeless;
};

} // namespace

// What queries learn about a fragment: filled when a query first reaches it.
struct LocalFromWorldPoint::Fragment {
    StrongPtr<FragmentID> id;
    StrongPtr<CreativeArrayBase> creator;

    Slot<UniGridMapper> uniMapper;
    Slot<TreeCellMapper> treeMapper;
    Slot<ExactCellLocator> exactLocator;

    template<class Mapper>
    [[nodiscard]] Slot<Mapper>& slot() noexcept {
        if constexpr (std::is_same_v<Mapper, UniGridMapper>)
            return uniMapper;
        else if constexpr (std::is_same_v<Mapper, TreeCellMapper>)
            return treeMapper;
        else
            return exactLocator;
    }

    /// The coordinates if a query has asked for them before; null otherwise.
    [[nodiscard]] const FragmentCoordinates* knownCoordinates() const noexcept {
        return myIsKnown.load(std::memory_order_acquire) ? &myCoordinates : nullptr;
    }
    /// The coordinates, created if need be; null while there are none of a known kind.
    [[nodiscard]] const FragmentCoordinates* coordinates() {
        if (myIsKnown.load(std::memory_order_acquire)) return &myCoordinates;
        // Created outside the lock: what makes the array may itself ask a locator.
        FragmentCoordinates found(creator ? creator->getData() : nullptr);
        if (!found.isKnown()) return nullptr;
        const std::lock_guard lock(myMutex);
        if (!myIsKnown.load(std::memory_order_relaxed)) {
            myCoordinates = std::move(found);
            myIsKnown.store(true, std::memory_order_release);
        }
        return &myCoordinates;
    }

private:
    std::atomic<bool> myIsKnown{false};
    std::mutex myMutex;
    FragmentCoordinates myCoordinates;
};

// ---------------------------------------------------------------------------------------------------------------------
// Cells

CurvilinearCell::~CurvilinearCell() = default;
HexaHedralCellNewton::~HexaHedralCellNewton() = default;
ProjectiveCell::~ProjectiveCell() = default;
ExactCell::~ExactCell() = default;

int HexaHedralCellNewton::pointInCell(const PhysicalSpace::point& p) {
    if (!myMapper) return -1;
    return myResult = static_cast<int>(myMapper->locate(p, myLocal, myEpsilon));
}

int ProjectiveCell::pointInCell(const PhysicalSpace::point& p) {
    if (!myMapper) return -1;
    // The query answers 1 without a result where the mapper has no list; asked for first, and told by its silence.
    MultiIndex<3> unicell;
    if (!myMapper->inUniCell(p, unicell)) return myResult = 0;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    PhysicalSpace::point uvw(nan, nan, nan);
    const bool found =
        myMapper->localCellCoordinatesFromCurviGridProjective(p, uvw, myEpsilon) == 1 && uvw[0] == uvw[0];
    if (found) myLocal = uvw;
    return myResult = found ? 1 : 0;
}

int ExactCell::pointInCell(const PhysicalSpace::point& p) {
    if (!myLocator) return -1;
    return myResult = static_cast<int>(myLocator->locate(p, myLocal));
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
    VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Set Fragment data");
    try {
        return PointSearch(slice, grid, name);
    } catch (const PointSearch::NoVertices&) {
        return PointSearch(slice, nullptr, name); // told as a missing coordinate field
    }
}

LocalFromWorldPoint::LocalFromWorldPoint(const StrongPtr<Slice>& slice, const StrongPtr<Grid>& grid,
                                         const std::string& coordinateField, double resolution, double precision,
                                         const vector& scale, const Options& options)
    : mySearch(makeSearch(slice, grid, coordinateField)), myResolution(resolution), myPrecision(precision),
      myScale(scale), myOptions(options) {
    if (!grid) {
        Console::puts(" LocalFromWorldPoint::LocalFromWorldPoint() ERROR: invalid grid!");
        return;
    }
    const StrongPtr<Field> field = (*grid)(coordinateField);
    if (!field) {
        Console::puts(" LocalFromWorldPoint::LocalFromWorldPoint() ERROR: invalid coord field!");
        return;
    }
    myField = field;
    myOrigin = Hestra::Freshness(field.rawptr());
    CartesianFragments properties(grid);
    if (grid->findVertices()) properties.discardOutdated();
    mySearch.discardOutdated();

    if (const auto attached = field->findInterface<FragmentTreeInterface>(); attached && attached->tree()) {
        Console::puts("LocalFromWorldPoint::LocalFromWorldPoint() Tree found, in Coord-Fields Intercube, using it");
        myTree = attached->tree();
    } else {
        VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Create KDTree");
        Console::puts(
            "LocalFromWorldPoint::LocalFromWorldPoint() No tree found, in coord-Fields Intercube, creating one.");
        myTree = Hestra::makeRef<FragmentTree>();
        const auto made = Hestra::makeRef<FragmentTreeInterface>(myTree);
        field->addInterface(made);
        PointSearch::noteTree(*field, made, myOrigin);
    }
    {
        VANTLE_SCOPE("LocalFromWorldPoint::LocalFromWorldPoint(): Build Fragment Coordinates");
        Console::puts(properties.buildFragmentCoordinates()
                          ? "FragmentProperties.buildFragmentCoordinates();  WAS HARD WORK"
                          : "FragmentProperties.buildFragmentCoordinates();  Could benefit from savings");
    }
    collectFragments(properties);

    const StrongPtr<FragmentIDCollection> collection = field->getFragmentIDCollection();
    if ((!collection || collection->empty()) && (myBoxes.empty() || !myFragments[0].coordinates()))
        Console::puts("LocalFromWorldPoint::LocalFromWorldPoint() ERROR: Unfragmented, but no proc, curvi or "
                      "rectilinear data could be accessed??");
    fillTree();
}

LocalFromWorldPoint::~LocalFromWorldPoint() = default;

bool LocalFromWorldPoint::isCurrent() const {
    const StrongPtr<Grid>& grid = mySearch.grid();
    const StrongPtr<Field> field = grid ? (*grid)(mySearch.coordinateFieldName()) : nullptr;
    return field == myField && (!field || myOrigin.isFor(field.rawptr()));
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
        }
        centres.emplace_back(centre, static_cast<int>(n));
    }
    if (!myTree->empty()) return;
    if (!myIsComplete) {
        Console::puts("LocalFromWorldPoint::LocalFromWorldPoint() iteration failure, abording update");
        return;
    }
    myTree->reserve(centres.size());
    for (const auto& [centre, number] : centres) myTree->insert(centre, number);
    myTree->pack();
}

const StrongPtr<FragmentID>& LocalFromWorldPoint::fragmentID(unsigned int n) const {
    static const StrongPtr<FragmentID> null;
    return n < myBoxes.size() ? myFragments[n].id : null;
}

// ---------------------------------------------------------------------------------------------------------------------
// Search structures

template<class Mapper, class Make>
const Mapper* LocalFromWorldPoint::mapper(unsigned int number, Fragment& fragment, const char* what,
                                          const Make& make) const {
    Slot<Mapper>& slot = fragment.slot<Mapper>();
    if (const Mapper* const ready = slot.ready.load(std::memory_order_acquire)) return ready;
    Field* const storage = mySearch.mapperField<Mapper>().rawptr();
    if (!storage) return nullptr;

    const auto look = [&]() -> StrongPtr<Mapper> {
        const auto stored =
            Hestra::dynamicCast<StoredMapper<Mapper>>(PointSearch::find(*storage, fragment.id, myOrigin));
        if (stored && stored->nElements() > 0 && stored->element(0)) return stored->element(0);
        return nullptr;
    };
    const auto build = [&]() -> StrongPtr<Mapper> {
        // The size of a structure follows from the coordinates alone: too large once is too large for ever, and many
        // queries must not find that out one by one. They report it all the same.
        if (slot.hopeless) {
            make.announce();
            throw std::length_error(*slot.hopeless);
        }
        StrongPtr<Mapper> made;
        make.announce();
        try {
            made = make();
        } catch (const std::length_error& problem) {
            slot.hopeless = problem.what();
            throw;
        }
        const auto entry = StoredMapper<Mapper>::create(MultiIndex<1>(1));
        entry->element(0) = made;
        PointSearch::store(*storage, fragment.id, entry, myOrigin);
        return made;
    };

#pragma omp critical
    {
        if (!slot.owner) {
            try {
                slot.owner = look();
                if (!slot.owner) slot.owner = build();
            } catch (const std::exception& problem) {
                Console::print("%s Exception - CANNOT create %s for fragment %d because %s \n", source, what,
                               static_cast<int>(number), problem.what());
            } catch (...) {
                Console::print("%s Exception - CANNOT create %s for %d\n", source, what, static_cast<int>(number));
            }
            if (slot.owner) slot.ready.store(slot.owner.rawptr(), std::memory_order_release);
        }
    }
    return slot.ready.load(std::memory_order_acquire);
}

namespace {

/// How a structure is built, and what is printed before.
template<class Announce, class Build>
struct Maker {
    Announce announce;
    Build build;
    auto operator()() const { return build(); }
};
template<class Announce, class Build>
Maker(Announce, Build) -> Maker<Announce, Build>;

} // namespace

const UniGridMapper* LocalFromWorldPoint::uniMapper(unsigned int number, Fragment& fragment) const {
    return mapper<UniGridMapper>(number, fragment, "unimapper",
                                 Maker{[&] {
                                           Console::print("%s Create unimapper for %d, res=%lg, prec=%lg\n", source,
                                                          static_cast<int>(number), myResolution, myPrecision);
                                       },
                                       [&] {
                                           return Hestra::makeRef<UniGridMapper>(
                                               StrongPtr<CurvilinearCoordinates>(fragment.coordinates()->curvilinear),
                                               myResolution, myPrecision);
                                       }});
}

const TreeCellMapper* LocalFromWorldPoint::treeMapper(unsigned int number, Fragment& fragment) const {
    return mapper<TreeCellMapper>(number, fragment, "treemapper",
                                  Maker{[&] {
                                            Console::print("%s Create treemapper for %d, res=%lg, prec=%lg\n", source,
                                                           static_cast<int>(number), myResolution, myPrecision);
                                            Console::print("and scale: %f %f %f: \n", myScale[0], myScale[1],
                                                           myScale[2]);
                                            Console::print("in thread: %d\n", omp_get_thread_num());
                                        },
                                        [&] {
                                            return Hestra::makeRef<TreeCellMapper>(
                                                StrongPtr<CurvilinearCoordinates>(fragment.coordinates()->curvilinear),
                                                myScale, LocationDefaults::GridEpsilon, LocationDefaults::TreeStride);
                                        }});
}

const ExactCellLocator* LocalFromWorldPoint::exactLocator(unsigned int number, Fragment& fragment) const {
    return mapper<ExactCellLocator>(
        number, fragment, "exact locator",
        Maker{[&] { Console::print("%s Create exact locator for %d\n", source, static_cast<int>(number)); },
              [&] {
                  return Hestra::makeRef<ExactCellLocator>(
                      StrongPtr<CurvilinearCoordinates>(fragment.coordinates()->curvilinear));
              }});
}

// ---------------------------------------------------------------------------------------------------------------------
// Queries

namespace {

/// Whether coordinates that are computed, which those of uniform and rectilinear fragments are, have a position in
/// their box.
bool isInComputed(const FragmentCoordinates& coordinates, const PhysicalSpace::point& p, PhysicalSpace::point& local) {
    if (!coordinates.uniform) return RectilinearInterpolation(*coordinates.rectilinear).find_rectilinear_cell(p, local);
    const auto& uniform = *coordinates.uniform;
    if (uniform.nElements() == 0) return false;
    // In the box, but a rounding error may lead past the last vertex.
    const Orvix::FixedArray<double, 3> index = uniform.getIndex(p);
    for (int d = 0; d < 3; ++d) local[d] = std::clamp(index[d], 0.0, static_cast<double>(uniform.Size()[d] - 1));
    return true;
}

} // namespace

template<class InCurvilinear>
LocalFromWorldPoint::Location LocalFromWorldPoint::search(const point& p, const InCurvilinear& inCurvilinear) const {
    if (!myTree) return {};
    BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, p);
    for (unsigned int n = selector.getNext(); n != BBSelectorMemoryTree::End; n = selector.getNext()) {
        Fragment& fragment = myFragments[n];
        const FragmentCoordinates* const coordinates = fragment.coordinates();
        if (!coordinates) continue;
        Location found;
        found.fragment = n;
        if (!coordinates->curvilinear) {
            found.code = isInComputed(*coordinates, p, found.localCoordinates) ? 1 : 0;
        } else {
            const int code = inCurvilinear(n, fragment, found.localCoordinates);
            found.code = code > 0 ? static_cast<unsigned int>(code) : 0;
        }
        if (found.code != 0) return found;
    }
    return {};
}

namespace {

/// As many positions as are searched for together.
constexpr std::size_t Neighbours = 64;

} // namespace

void LocalFromWorldPoint::locateSilently(std::span<const point> positions, std::span<Location> found) const {
    VANTLE_SCOPE("LocalFromWorldPoint::locateSilently(positions, found)");
    for (std::size_t begin = 0; begin < positions.size(); begin += Neighbours) {
        const std::size_t count = std::min(Neighbours, positions.size() - begin);
        locateNeighbours(positions.subspan(begin, count), found.subspan(begin, count));
    }
}

void LocalFromWorldPoint::locateNeighbours(std::span<const point> positions, std::span<Location> found) const {
    std::fill(found.begin(), found.end(), Location());
    if (!myTree) return;
    unsigned char pending[Neighbours];
    std::size_t count = 0;
    constexpr double infinity = std::numeric_limits<double>::infinity();
    BBSelectorMemoryTree::Box region{point(infinity, infinity, infinity), point(-infinity, -infinity, -infinity)};
    for (std::size_t n = 0; n < positions.size(); ++n) {
        const point& p = positions[n];
        if (!(p[0] * 0.0 + p[1] * 0.0 + p[2] * 0.0 == 0.0)) {
            found[n].code = Undecided; // no number
            continue;
        }
        for (int d = 0; d < 3; ++d) {
            region.min[d] = std::min(region.min[d], p[d]);
            region.max[d] = std::max(region.max[d], p[d]);
        }
        pending[count++] = static_cast<unsigned char>(n);
    }
    if (count == 0) return;

    BBSelectorMemoryTree selector(*myTree, myHalfWidths, myBoxes, region);
    for (unsigned int n = selector.getNext(); n != BBSelectorMemoryTree::End && count != 0; n = selector.getNext()) {
        const BBSelectorMemoryTree::Box& box = myBoxes[n];
        unsigned char inBox[Neighbours];
        point points[Neighbours], local[Neighbours];
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

        Fragment& fragment = myFragments[n];
        const FragmentCoordinates* const coordinates = fragment.knownCoordinates();
        const std::span<const point> asked(points, inside);
        unsigned char codes[Neighbours];
        const auto whenReady = [&](const auto& slot, const auto& ask) {
            const auto* const structure = slot.ready.load(std::memory_order_acquire);
            if (structure)
                ask(*structure);
            else
                std::fill_n(codes, inside, static_cast<unsigned char>(Undecided));
        };
        if (!coordinates || (coordinates->curvilinear && myOptions.cellLocator == CellLocator::Projective))
            std::fill_n(codes, inside, static_cast<unsigned char>(Undecided));
        else if (!coordinates->curvilinear)
            for (std::size_t c = 0; c < inside; ++c) codes[c] = isInComputed(*coordinates, points[c], local[c]) ? 1 : 0;
        else if (myOptions.cellLocator == CellLocator::Exact)
            whenReady(fragment.exactLocator, [&](const ExactCellLocator& locator) {
                locator.locate(asked, std::span(local, inside), std::span(codes, inside));
            });
        else
            whenReady(fragment.uniMapper, [&](const UniGridMapper& mapper) {
                static_assert(UniGridMapper::Undecided == Undecided);
                mapper.locateSilently(asked, std::span(local, inside), std::span(codes, inside), myOptions.gridEpsilon);
            });

        for (std::size_t c = 0; c < inside; ++c) {
            if (codes[c] == 0) continue;
            found[inBox[c]] = {codes[c] == Undecided ? point() : local[c], codes[c], codes[c] == Undecided ? 0 : n};
        }
        // What has an answer, or none without a message, is done with.
        std::size_t left = 0;
        for (std::size_t c = 0; c < count; ++c) {
            pending[left] = pending[c];
            left += found[pending[c]].code == 0 ? 1 : 0;
        }
        count = left;
    }
}

LocalFromWorldPoint::Location LocalFromWorldPoint::locate(const point& p) const {
    const auto ask = [&p](CurvilinearCell&& cell, point& local) {
        const int code = cell.pointInCell(p);
        if (code > 0) local = cell.localCoordinates();
        return code;
    };
    const double epsilon = myOptions.gridEpsilon;
    switch (myOptions.cellLocator) {
    case CellLocator::Projective:
        return search(p, [&](unsigned int n, Fragment& fragment, point& local) {
            return ask(ProjectiveCell(uniMapper(n, fragment), epsilon), local);
        });
    case CellLocator::Exact:
        return search(p, [&](unsigned int n, Fragment& fragment, point& local) {
            return ask(ExactCell(exactLocator(n, fragment)), local);
        });
    case CellLocator::Newton:
        break;
    }
    return search(p, [&](unsigned int n, Fragment& fragment, point& local) {
        return ask(HexaHedralCellNewton(uniMapper(n, fragment), epsilon), local);
    });
}

bool LocalFromWorldPoint::get(const point& p, LocalPoint& result) const {
    VANTLE_SCOPE("LocalFromWorldPoint::get(point, data)");
    const Location found = locate(p);
    if (!found) {
        result.fragment = nullptr;
        return false;
    }
    result.localCoordinates = found.localCoordinates;
    result.fragment = myFragments[found.fragment].id;
    return true;
}

bool LocalFromWorldPoint::getViaTree(const point& p, LocalPoint& result) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getViaTree(point, data)");
    const Location found = search(p, [&](unsigned int n, Fragment& fragment, point& local) {
        const TreeCellMapper* const tree = treeMapper(n, fragment);
        if (!tree) return -1;
        point uvw;
        vector extent;
        MultiIndex<3> cell;
        const unsigned int code = tree->localCoordinates(uvw, extent, p, &cell);
        if (code == 0) return 0;
        // The mapper leaves out the cell on the last layer of an axis; elsewhere it has added it.
        const MultiIndex<3> lastCell = tree->coordinates()->Size() - 2;
        for (int d = 0; d < 3; ++d) local[d] = cell[d] == lastCell[d] ? uvw[d] + static_cast<double>(cell[d]) : uvw[d];
        return static_cast<int>(code);
    });
    if (!found) {
        result.fragment = nullptr;
        return false;
    }
    result.localCoordinates = found.localCoordinates;
    result.fragment = myFragments[found.fragment].id;
    return true;
}

bool LocalFromWorldPoint::getViaTree(LocalPoint& result) const {
    const point p = result.localCoordinates;
    return getViaTree(p, result);
}

// ---------------------------------------------------------------------------------------------------------------------
// Borders

namespace {

/// A face of a cell: its axis, and whether it is the upper one.
struct Face {
    int axis;
    bool isUpper;
};

/// The border faces of a cell among `cells`: lower before upper ones, axis 0 first. The number of them is returned.
int borderFaces(Face (&faces)[6], const MultiIndex<3>& cell, const MultiIndex<3>& cells) {
    int count = 0;
    for (const bool isUpper : {false, true})
        for (int axis = 0; axis < 3; ++axis)
            if (cell[axis] == (isUpper ? cells[axis] - 1 : 0)) faces[count++] = {axis, isUpper};
    return count;
}

/// The corners of a face: lowest, next along the following axis, highest, next along the axis after that.
std::array<PhysicalSpace::point, 4> cornersOf(const CurvilinearCoordinates& block, const MultiIndex<3>& cell,
                                              const Face& face) {
    MultiIndex<3> lowest = cell;
    if (face.isUpper) ++lowest[face.axis];
    const int one = (face.axis + 1) % 3, two = (face.axis + 2) % 3;
    const auto at = [&](index_t a, index_t b) {
        MultiIndex<3> index = lowest;
        index[one] += a;
        index[two] += b;
        return block[index];
    };
    return {at(0, 0), at(1, 0), at(1, 1), at(0, 1)};
}

/// False when the face has no area.
bool outwardNormal(const CurvilinearCoordinates& block, const MultiIndex<3>& cell, const Face& face,
                   PhysicalSpace::vector& normal) {
    const auto corners = cornersOf(block, cell, face);
    const auto opposite = cornersOf(block, cell, {face.axis, !face.isUpper});
    PhysicalSpace::vector n = cross(corners[2] - corners[0], corners[3] - corners[1]);
    PhysicalSpace::vector outward;
    for (std::size_t c = 0; c < 4; ++c) outward += corners[c] - opposite[c];
    if (dot(n, outward) < 0.0) n = -n; // also in left-handed blocks
    const double size = length(n);
    if (!(size > 0.0)) return false;
    normal = n / size;
    return true;
}

/// The ray's parameter where it meets a triangle, or infinity.
/// Source  T. Moeller, B. Trumbore: Fast, minimum storage ray/triangle intersection (1997),
///         doi:10.1080/10867651.1997.10487468
double meetTriangle(const PhysicalSpace::point& origin, const PhysicalSpace::vector& direction,
                    const PhysicalSpace::point& a, const PhysicalSpace::point& b, const PhysicalSpace::point& c) {
    constexpr double none = std::numeric_limits<double>::infinity();
    const PhysicalSpace::vector ab = b - a, ac = c - a, toOrigin = origin - a;
    const PhysicalSpace::vector h = cross(direction, ac);
    const double det = dot(ab, h);
    if (!(det != 0.0)) return none;
    const double u = dot(toOrigin, h) / det;
    const PhysicalSpace::vector q = cross(toOrigin, ab);
    const double v = dot(direction, q) / det;
    const double t = dot(ac, q) / det;
    return u >= 0.0 && v >= 0.0 && u + v <= 1.0 && t >= 0.0 ? t : none;
}

} // namespace

const CurvilinearCoordinates* LocalFromWorldPoint::curvilinear(const StrongPtr<FragmentID>& fragment,
                                                               const MultiIndex<3>& cell) const {
    for (std::size_t n = 0; n < myBoxes.size(); ++n) {
        if (!(myFragments[n].id == fragment)) continue;
        const FragmentCoordinates* const coordinates = myFragments[n].coordinates();
        const CurvilinearCoordinates* const block = coordinates ? coordinates->curvilinear : nullptr;
        return block && (cell + 1).inside(block->Size()) ? block : nullptr;
    }
    return nullptr;
}

int LocalFromWorldPoint::numberOfBordersOfCell(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell) const {
    VANTLE_SCOPE("LocalFromWorldPoint::numberOfBordersOfCell()");
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    if (!block) {
        Console::puts("LocalFromWorldPoint::numberOfBordersOfCell() ERROR: curvilienar multiblock not found?");
        return 0;
    }
    Face faces[6];
    return borderFaces(faces, cell, block->Size() - 1);
}

bool LocalFromWorldPoint::getNormal(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell,
                                    vector& normal) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getNormal()");
    normal = vector();
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    Face faces[6];
    if (!block || borderFaces(faces, cell, block->Size() - 1) == 0) {
        Console::puts("LocalFromWorldPoint::getNormal() WARNING: Computing normal from a non border cell?");
        return false;
    }
    return outwardNormal(*block, cell, faces[0], normal);
}

bool LocalFromWorldPoint::getBorderIntersectionNormal(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& cell,
                                                      const point& origin, const vector& direction,
                                                      vector& normal) const {
    VANTLE_SCOPE("LocalFromWorldPoint::getBorderIntersectionNormal()");
    normal = vector();
    const CurvilinearCoordinates* const block = curvilinear(fragment, cell);
    if (!block) return false;
    Face faces[6];
    const int count = borderFaces(faces, cell, block->Size() - 1);
    double nearest = std::numeric_limits<double>::infinity();
    for (int n = 0; n < count; ++n) {
        const auto corners = cornersOf(*block, cell, faces[n]);
        const double t = std::min(meetTriangle(origin, direction, corners[0], corners[1], corners[2]),
                                  meetTriangle(origin, direction, corners[0], corners[2], corners[3]));
        if (t < nearest && outwardNormal(*block, cell, faces[n], normal)) nearest = t;
    }
    if (!(nearest < std::numeric_limits<double>::infinity())) {
        normal = vector();
        return false;
    }
    Console::puts("LocalFromWorldPoint::getBorderIntersectionNormal() INFO: Yep! Got intersection!");
    return true;
}

} // namespace Vantle
