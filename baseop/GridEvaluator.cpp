#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/OrderedMessages.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <omp.h>
#include <utility>

#define VANTLE_SCOPE(name) const Hestra::Profiler scope("baseop/GridEvaluator", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using detail::FragmentCoordinates;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using point = PhysicalSpace::point;
using FractionalIndex = GridEvaluator::FractionalIndex;

namespace {

constexpr std::uint32_t noFragment = ~std::uint32_t{0};

// All of them are written with a line end of their own besides.
constexpr std::string_view foundText = "yayy, curvigrid found!\n";
constexpr std::string_view notFoundText = "GridEvaluator: NO curvilinear 3D location found!\n\n";
constexpr std::string_view unstructuredText =
    "GridEvaluator: Evaluating set of Vertices not yet fully implemented!!!\n\n"
    "KDTreeCloudSearch: wrong weight type requested!!\n\n";

/// Appends `foundText` so many times.
void appendFoundTexts(std::string& messages, std::size_t count) {
    static const std::string many = [] {
        std::string text;
        for (int k = 0; k < 256; ++k) text += foundText;
        return text;
    }();
    for (std::size_t left = count * foundText.size(); left != 0;) {
        const std::size_t length = std::min(left, many.size());
        messages.append(many, 0, length);
        left -= length;
    }
}

enum class Kind { Other, Uniform, Rectilinear, Curvilinear, Unstructured };

Kind kindOf(const FragmentCoordinates& coordinates) {
    if (coordinates.uniform) return Kind::Uniform;
    if (coordinates.rectilinear) return Kind::Rectilinear;
    if (coordinates.curvilinear) return Kind::Curvilinear;
    return dynamic_cast<const MemArray<1, point>*>(coordinates.data.rawptr()) ? Kind::Unstructured : Kind::Other;
}

bool isNumber(const FractionalIndex& index) noexcept {
    return index[0] == index[0] && index[1] == index[1] && index[2] == index[2];
}

/// No bounds: a uniform fragment claims every position.
bool claims(const detail::UniformCoordinates& fragment, const point& p, FractionalIndex& index) noexcept {
    if (fragment.nElements() == 0 || !isNumber(p)) return false;
    const FractionalIndex found = fragment.getIndex(p);
    if (!isNumber(found)) return false;
    index = found;
    return true;
}

bool claims(const detail::RectilinearCoordinates& fragment, const point& p, FractionalIndex& index) noexcept {
    const FractionalIndex part = fragment.getIndex(p);
    for (int d = 0; d < 3; ++d)
        if (!(part[d] >= 0.0 && part[d] <= 1.0)) return false;
    index = fragment.getFractionalIndex(p);
    return true;
}

/// A fragment of the source, with its coordinates once a position has reached it.
class SourceFragment {
public:
    SourceFragment(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator)
        : myID(id), myCreator(creator) {}

    [[nodiscard]] const StrongPtr<FragmentID>& id() const noexcept { return myID; }
    /// Creates the coordinates if need be, once a search.
    [[nodiscard]] Kind kind() {
        if (!myIsKnown.load(std::memory_order_acquire)) {
            FragmentCoordinates found(myCreator ? myCreator->getData() : nullptr);
            const std::lock_guard lock(myMutex);
            if (!myIsKnown.load(std::memory_order_relaxed)) {
                myCoordinates = std::move(found);
                myKind = kindOf(myCoordinates);
                myIsKnown.store(true, std::memory_order_release);
            }
        }
        return myKind;
    }
    /// After `kind`.
    [[nodiscard]] const FragmentCoordinates& coordinates() const noexcept { return myCoordinates; }

private:
    StrongPtr<FragmentID> myID;
    StrongPtr<CreativeArrayBase> myCreator;
    std::atomic<bool> myIsKnown{false};
    std::mutex myMutex;
    FragmentCoordinates myCoordinates;
    Kind myKind = Kind::Other;
};

/// Where a position was found: code 0 not at all, 1 exactly, 2 approximately. `fragment` is the position in the order
/// of the source, or, for point locations, that plus the number of source fragments.
struct Hit {
    unsigned char code = 0;
    std::uint32_t fragment = noFragment;
    FractionalIndex index;
};

/// The search of many positions in the fragments of a source: any number of threads may search.
class SourceSearch {
public:
    SourceSearch(const Field& source, FragmentSearchBase& base) : myBase(base) {
        std::vector<std::pair<StrongPtr<FragmentID>, StrongPtr<CreativeArrayBase>>> fragments;
        source.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            fragments.emplace_back(id, creator);
            return true;
        });
        for (const auto& [id, creator] : fragments)
            myFragments.push_back(std::make_unique<SourceFragment>(id, creator));
    }

    /// Whether every search begins with the point location.
    [[nodiscard]] bool beginsWithLocation() const {
        return !myFragments.empty() && myFragments.front()->kind() == Kind::Curvilinear;
    }
    [[nodiscard]] const LocalFromWorldPoint& locator() const { return myBase.locator(); }
    /// The hit of a location, which has its message.
    [[nodiscard]] Hit hitOf(const LocalFromWorldPoint::Location& found) const noexcept {
        return {static_cast<unsigned char>(found.code), static_cast<std::uint32_t>(myFragments.size() + found.fragment),
                found.localCoordinates};
    }

    /// Finds one position. Messages are appended to `messages`, which is also where this thread's messages go.
    /// `isMissed` tells that the point location does not have it, and says nothing about it.
    [[nodiscard]] Hit find(const point& p, std::string& messages, bool isMissed = false) const {
        Hit hit;
        bool isAsked = isMissed, isSilent = true;
        for (std::size_t n = 0; n < myFragments.size(); ++n) {
            SourceFragment& fragment = *myFragments[n];
            switch (fragment.kind()) {
            case Kind::Uniform:
                if (!claims(*fragment.coordinates().uniform, p, hit.index)) break;
                hit.code = 1;
                hit.fragment = static_cast<std::uint32_t>(n);
                return hit;
            case Kind::Rectilinear:
                if (!claims(*fragment.coordinates().rectilinear, p, hit.index)) break;
                hit.code = 1;
                hit.fragment = static_cast<std::uint32_t>(n);
                return hit;
            case Kind::Curvilinear:
                // The point location searches the whole grid, so further fragments need not ask again, unless it has
                // told something that it would tell again.
                if (!isAsked || !isSilent) {
                    const std::size_t told = messages.size();
                    const LocalFromWorldPoint::Location found = myBase.locator().locate(p);
                    isAsked = true;
                    isSilent = messages.size() == told;
                    if (found) {
                        messages += foundText;
                        return hitOf(found);
                    }
                }
                messages += notFoundText;
                break;
            case Kind::Unstructured:
                messages += unstructuredText;
                break;
            case Kind::Other:
                break;
            }
        }
        return hit;
    }

    /// The fragments that the numbers of hits stand for, given that some are of point locations or not.
    [[nodiscard]] std::vector<StrongPtr<FragmentID>> fragmentTable(bool withLocations) const {
        std::vector<StrongPtr<FragmentID>> table;
        for (const auto& fragment : myFragments) table.push_back(fragment->id());
        if (withLocations) {
            const LocalFromWorldPoint& locator = myBase.locator();
            for (unsigned int n = 0; n < locator.nFragments(); ++n) table.push_back(locator.fragmentID(n));
        }
        return table;
    }
    [[nodiscard]] std::size_t nFragments() const noexcept { return myFragments.size(); }

private:
    FragmentSearchBase& myBase;
    std::vector<std::unique_ptr<SourceFragment>> myFragments;
};

/// Calls `function(begin, end)` for pieces of [0, count) on all cores. What it throws is thrown when all have ended.
template<class F>
void inParallel(std::size_t count, std::size_t piece, const F& function) {
    std::exception_ptr problem;
    std::atomic<bool> isGivenUp{false};
    const auto pieces = static_cast<long long>((count + piece - 1) / piece);
#pragma omp parallel for schedule(monotonic : dynamic, 1) if (pieces > 1)
    for (long long n = 0; n < pieces; ++n) {
        if (isGivenUp.load(std::memory_order_relaxed)) continue;
        try {
            const std::size_t begin = static_cast<std::size_t>(n) * piece;
            function(begin, std::min(begin + piece, count));
        } catch (...) {
            if (!isGivenUp.exchange(true)) problem = std::current_exception();
        }
    }
    if (problem) std::rethrow_exception(problem);
}

// Positions by number, of each kind that can be searched for, and how many there are on each axis.

struct PointPositions {
    const Iterator<point>& points;
    MultiIndex<3> extents;
    [[nodiscard]] std::size_t size() const { return points.size(); }
    [[nodiscard]] point operator()(std::size_t k) const { return points[k]; }
    [[nodiscard]] point operator()(std::size_t k, const MultiIndex<3>&) const { return (*this)(k); }
};

struct UniformPositions {
    const detail::UniformCoordinates& points;
    MultiIndex<3> extents;
    [[nodiscard]] std::size_t size() const { return points.nElements(); }
    [[nodiscard]] point operator()(std::size_t k) const { return points.create(k); }
    [[nodiscard]] point operator()(std::size_t, const MultiIndex<3>& index) const { return points[index]; }
};

template<int N>
struct VectorPositions {
    const Iterator<Orvix::Vector<double, N>>& vectors;
    MultiIndex<3> extents;
    [[nodiscard]] std::size_t size() const { return vectors.size(); }
    [[nodiscard]] point operator()(std::size_t k) const {
        const auto& v = vectors[k];
        if constexpr (N == 2)
            return {v[0], v[1], 0.0};
        else
            return {v[0], v[1], v[2]};
    }
    [[nodiscard]] point operator()(std::size_t k, const MultiIndex<3>&) const { return (*this)(k); }
};

/// An array of so many elements: the one that is held, if nobody else has it or its memory, or a new one.
template<class Array>
StrongPtr<Array> takeOrCreate(StrongPtr<Array>& held, std::size_t count) {
    const StrongPtr<Array> taken = std::exchange(held, nullptr);
    if (taken && taken->strongCount() == 1 && taken->nElements() == count) {
        const auto chunk = taken->getChunk();
        if (chunk && chunk->strongCount() == 2) return taken; // owned by the array, and here
    }
    return Array::create(MultiIndex<1>(count));
}

/// How positions are taken together: in tiles of neighbours, which share their searches, and slabs of whole layers of
/// tiles, whose positions have consecutive numbers.
class Tiling {
public:
    static constexpr std::size_t MaximalTile = 64;

    explicit Tiling(const MultiIndex<3>& extents) : myExtents(extents) {
        int axes = 0;
        for (int d = 0; d < 3; ++d) {
            if (extents[d] < 2) continue;
            ++axes;
            mySlowest = d;
        }
        // Along a line the box of many positions is large.
        const index_t side = axes == 3 ? 4 : axes == 2 ? 8 : 32;
        for (int d = 0; d < 3; ++d) myTile[d] = extents[d] < 2 ? 1 : side;
        constexpr index_t FewPositions = 2048;
        for (int d = 0; d < mySlowest; ++d) myLayer *= extents[d];
        const index_t wanted = (FewPositions + myLayer - 1) / myLayer;
        myThickness = (wanted + myTile[mySlowest] - 1) / myTile[mySlowest] * myTile[mySlowest];
    }

    [[nodiscard]] index_t slabs() const noexcept { return (myExtents[mySlowest] + myThickness - 1) / myThickness; }
    /// Number of the first position of a slab; also for the slab after the last.
    [[nodiscard]] index_t first(index_t slab) const noexcept {
        return myLayer * std::min(slab * myThickness, myExtents[mySlowest]);
    }
    [[nodiscard]] index_t tiles(index_t slab) const noexcept { return tilesOf(slab).product(); }
    /// The tile of a slab that has a position.
    [[nodiscard]] index_t tileOf(index_t slab, index_t position) const noexcept {
        MultiIndex<3> place = MultiIndex<3>::fromLinear(position, myExtents);
        place[mySlowest] -= slab * myThickness;
        for (int d = 0; d < 3; ++d) place[d] /= myTile[d];
        return place.linear(tilesOf(slab));
    }
    /// Calls `f(number, index)` for the positions of a tile of a slab.
    template<class F>
    void forEachIn(index_t slab, index_t tile, F&& f) const {
        const MultiIndex<3> place = MultiIndex<3>::fromLinear(tile, tilesOf(slab));
        MultiIndex<3> begin, end;
        for (int d = 0; d < 3; ++d) {
            begin[d] = place[d] * myTile[d] + (d == mySlowest ? slab * myThickness : 0);
            end[d] = std::min(begin[d] + myTile[d], myExtents[d]);
        }
        for (index_t k = begin[2]; k < end[2]; ++k)
            for (index_t j = begin[1]; j < end[1]; ++j)
                for (index_t i = begin[0]; i < end[0]; ++i)
                    f(i + myExtents[0] * (j + myExtents[1] * k), MultiIndex<3>(i, j, k));
    }

private:
    [[nodiscard]] MultiIndex<3> tilesOf(index_t slab) const noexcept {
        MultiIndex<3> count;
        for (int d = 0; d < 3; ++d) {
            const index_t length =
                d == mySlowest ? std::min(myThickness, myExtents[d] - slab * myThickness) : myExtents[d];
            count[d] = (length + myTile[d] - 1) / myTile[d];
        }
        return count;
    }

    MultiIndex<3> myExtents, myTile;
    int mySlowest = 0;
    index_t myLayer = 1, myThickness = 1;
};

/// The search of all positions, on all cores.
template<class Positions>
class PositionSearch {
public:
    /// Where the results go, by position.
    struct Results {
        int* status;
        FractionalIndex* index;
        unsigned char* code;
        std::uint32_t* fragment;
    };

    PositionSearch(const Positions& positions, const SourceSearch& search, const Results& results)
        : myPositions(positions), mySearch(search), myResults(results), myTiling(positions.extents),
          myOutput(firstPiece(myTiling.slabs())) {
        std::fill_n(myResults.code, positions.size(), undecided);
    }

    void run() {
        // The first position alone: it makes the point location, which reports before everything else.
        findPiece(0, 0, 1);
        if (mySearch.beginsWithLocation())
            runInTiles();
        else
            inParallel(myPositions.size() - 1, Piece,
                       [&](std::size_t begin, std::size_t end) { findPiece(1 + begin / Piece, 1 + begin, 1 + end); });
    }

    /// Whether some position was found by the point location.
    [[nodiscard]] bool hasLocations() const noexcept { return myHasLocations.load(std::memory_order_relaxed); }

private:
    static constexpr auto undecided = static_cast<unsigned char>(LocalFromWorldPoint::Undecided);
    /// Positions whose messages are written together.
    static constexpr std::size_t Piece = 2048;
    /// Tiles that a core takes at a time.
    static constexpr index_t Tiles = 16;

    /// First silently, in tiles. The core that does the last tile of a slab finishes it, position by position, while
    /// the others go on with the next slabs.
    void runInTiles() {
        // All slabs have as many jobs but the last, which may have fewer.
        const index_t slabs = myTiling.slabs();
        const auto jobsOf = [&](index_t slab) { return (myTiling.tiles(slab) + Tiles - 1) / Tiles; };
        const index_t jobs = jobsOf(0);
        std::vector<std::atomic<index_t>> left(slabs);
        for (index_t slab = 0; slab < slabs; ++slab) left[slab] = jobsOf(slab);
        inParallel(jobs * (slabs - 1) + jobsOf(slabs - 1), 1, [&](std::size_t job, std::size_t) {
            const index_t slab = job / jobs, begin = job % jobs * Tiles;
            const index_t end = std::min(begin + Tiles, myTiling.tiles(slab));
            for (index_t tile = begin; tile < end; ++tile) locateTile(slab, tile);
            if (left[slab].fetch_sub(1, std::memory_order_acq_rel) == 1) finish(slab);
        });
    }

    /// Locates what can be located silently among the positions of a tile that are undecided.
    void locateTile(index_t slab, index_t tile) {
        std::size_t members[Tiling::MaximalTile];
        point points[Tiling::MaximalTile];
        LocalFromWorldPoint::Location found[Tiling::MaximalTile];
        std::size_t count = 0;
        myTiling.forEachIn(slab, tile, [&](std::size_t k, const MultiIndex<3>& at) {
            if (myResults.code[k] != undecided) return;
            members[count] = k;
            points[count++] = myPositions(k, at);
        });
        mySearch.locator().locateSilently(std::span(points, count), std::span(found, count));
        bool isLocation = false;
        for (std::size_t m = 0; m < count; ++m) {
            if (found[m].code == undecided) continue;
            if (found[m])
                isLocation |= set(members[m], mySearch.hitOf(found[m]));
            else
                myResults.code[members[m]] = 0; // missed by the point location; others may come
        }
        if (isLocation) myHasLocations.store(true, std::memory_order_relaxed);
    }

    /// One position of a slab after the other, with its messages.
    void finish(index_t slab) {
        const std::size_t first = myTiling.first(slab), end = myTiling.first(slab + 1);
        std::vector<bool> isRepeated(static_cast<std::size_t>(myTiling.tiles(slab)));
        const auto repeat = [&](std::size_t k) {
            // What was undecided may have made a structure that its neighbours wait for.
            const index_t tile = myTiling.tileOf(slab, k);
            if (isRepeated[tile]) return;
            isRepeated[tile] = true;
            locateTile(slab, tile);
        };
        std::size_t number = firstPiece(slab);
        for (std::size_t begin = first; begin < end; begin += Piece)
            findPiece(number++, std::max<std::size_t>(begin, 1), std::min(begin + Piece, end), repeat);
    }
    void findPiece(std::size_t number, std::size_t begin, std::size_t end) {
        findPiece(number, begin, end, [](std::size_t) {});
    }
    template<class Repeat>
    void findPiece(std::size_t number, std::size_t begin, std::size_t end, const Repeat& repeat) {
        std::string messages;
        bool isLocation = false;
        {
            const Hestra::ScopedListener listener(myOutput.areHeard()
                                                      ? [&messages](std::string_view text) { messages += text; }
                                                      : Hestra::Console::Listener());
            for (std::size_t k = begin; k < end;) {
                std::size_t found = 0;
                while (k < end && myResults.code[k] != 0 && myResults.code[k] != undecided) {
                    ++found;
                    ++k;
                }
                appendFoundTexts(messages, found);
                if (k == end) break;
                const bool isMissed = myResults.code[k] == 0;
                isLocation |= set(k, mySearch.find(myPositions(k), messages, isMissed));
                if (!isMissed) repeat(k);
                ++k;
            }
        }
        if (isLocation) myHasLocations.store(true, std::memory_order_relaxed);
        myOutput.deliver(number, std::move(messages));
    }
    /// Number of the first piece of messages of a slab, or of pieces in all; piece 0 is that of the first position. All
    /// slabs have as many positions but the last.
    [[nodiscard]] std::size_t firstPiece(index_t slab) const noexcept {
        const auto piecesOf = [&](index_t s) {
            return (myTiling.first(s + 1) - myTiling.first(s) + Piece - 1) / Piece;
        };
        return 1 + (slab < myTiling.slabs() ? slab * piecesOf(0) : (slab - 1) * piecesOf(0) + piecesOf(slab - 1));
    }

    /// True when the point location has found it.
    bool set(std::size_t k, const Hit& hit) noexcept {
        myResults.status[k] = hit.code ? GridEvaluator::Located : GridEvaluator::NotLocated;
        myResults.index[k] = hit.index;
        myResults.code[k] = hit.code;
        myResults.fragment[k] = hit.fragment;
        return hit.code && hit.fragment >= mySearch.nFragments();
    }

    const Positions& myPositions;
    const SourceSearch& mySearch;
    Results myResults;
    Tiling myTiling;
    detail::OrderedMessages myOutput;
    std::atomic<bool> myHasLocations{false};
};

/// Whether the source says that its elements are no `T`.
template<class T>
bool declines(const Field& source) {
    bool isOther = false;
    source.iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            const VantleTypeIndex type = creator->elementType();
            isOther = type && !(type == VantleTypeIndex(typeid(T)));
            return false;
        },
        false);
    return isOther;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Search

struct FragmentSearchBase::Shared {
    std::mutex mutex;
    std::unique_ptr<LocalFromWorldPoint> owner;
    std::atomic<const LocalFromWorldPoint*> ready{nullptr};
};

FragmentSearchBase::FragmentSearchBase(const GridEvaluator::Context& context)
    : myContext(context), myShared(std::make_unique<Shared>()) {}
FragmentSearchBase::~FragmentSearchBase() = default;

bool FragmentSearchBase::serves(const GridEvaluator::Context& context) const {
    return myContext.slice == context.slice && myContext.grid == context.grid &&
           myContext.coordinateField == context.coordinateField && myContext.resolution == context.resolution &&
           myContext.precision == context.precision && myContext.scale == context.scale &&
           myContext.flag == context.flag && (!myShared->owner || myShared->owner->isCurrent());
}

const LocalFromWorldPoint& FragmentSearchBase::locator() {
    if (const LocalFromWorldPoint* const ready = myShared->ready.load(std::memory_order_acquire)) return *ready;
    const std::lock_guard lock(myShared->mutex);
    if (!myShared->owner) {
        LocalFromWorldPoint::Options options;
        if (myContext.flag) options.cellLocator = CellLocator::Exact;
        myShared->owner =
            std::make_unique<LocalFromWorldPoint>(myContext.slice, myContext.grid, myContext.coordinateField,
                                                  myContext.resolution, myContext.precision, myContext.scale, options);
        myShared->ready.store(myShared->owner.get(), std::memory_order_release);
    }
    return *myShared->owner;
}

int FragmentSearch<point>::Contains(const point& p, const StrongPtr<CreativeArrayBase>& fragmentCreator,
                                    FractionalIndex& index) {
    const FragmentCoordinates coordinates(fragmentCreator ? fragmentCreator->getData() : nullptr);
    switch (kindOf(coordinates)) {
    case Kind::Uniform:
        return claims(*coordinates.uniform, p, index) ? GridEvaluator::Located : GridEvaluator::NotLocated;
    case Kind::Rectilinear:
        return claims(*coordinates.rectilinear, p, index) ? GridEvaluator::Located : GridEvaluator::NotLocated;
    case Kind::Curvilinear: {
        LocalPoint found;
        const bool isFound = locator().get(p, found);
        index = found.localCoordinates;
        myFragment = found.fragment;
        Hestra::Console::write(isFound ? foundText : notFoundText);
        return isFound ? GridEvaluator::Located : GridEvaluator::NotLocated;
    }
    case Kind::Unstructured:
        Hestra::Console::write(unstructuredText);
        break;
    case Kind::Other:
        break;
    }
    return GridEvaluator::NotLocated;
}

GridEvaluator::GridEvaluator() = default;
GridEvaluator::~GridEvaluator() = default;

bool GridEvaluator::find(const StrongPtr<MemBase>& destinationPositions, const Field& sourcePositions,
                         const Context& context) {
    VANTLE_SCOPE("GridEvaluator::find(positions, source, context)");
    const MemBase* const positions = destinationPositions.rawptr();
    const auto search = [&](const auto& found) {
        findForSpecificDestinationPositions(found, sourcePositions, context);
        return true;
    };
    if (!positions) return false;
    if (const auto* const line = dynamic_cast<const MemArray<1, point>*>(positions))
        return search(PointPositions{line->getIterator(), {line->nElements(), 1, 1}});
    if (const auto* const surface = dynamic_cast<const MemArray<2, point>*>(positions))
        return search(PointPositions{surface->getIterator(), {surface->Size()[0], surface->Size()[1], 1}});
    if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(positions))
        return search(UniformPositions{*uniform, uniform->Size()});
    if (const auto* const spatial = dynamic_cast<const MemArray<1, Orvix::Vector<double, 3>>*>(positions))
        return search(VectorPositions<3>{spatial->getIterator(), {spatial->nElements(), 1, 1}});
    if (const auto* const planar = dynamic_cast<const MemArray<1, Orvix::Vector<double, 2>>*>(positions))
        return search(VectorPositions<2>{planar->getIterator(), {planar->nElements(), 1, 1}});
    return false;
}

template<class Positions>
void GridEvaluator::findForSpecificDestinationPositions(const Positions& positions, const Field& sourcePositions,
                                                        const Context& context) {
    const std::size_t n = positions.size();
    if (n == 0) return;
    if (!mySearch || !mySearch->serves(context)) mySearch = std::make_unique<FragmentSearch<point>>(context);

    // From here on the former results are gone.
    const StrongPtr<Statuses> statuses = takeOrCreate(myStatuses, n);
    const StrongPtr<Indices> indices = takeOrCreate(myIndices, n);
    std::vector<unsigned char> codes = std::move(myCodes);
    std::vector<std::uint32_t> numbers = std::move(myFragmentNumbers);
    codes.resize(n);
    numbers.resize(n);
    const SourceSearch search(sourcePositions, *mySearch);
    PositionSearch<Positions> all(positions, search, {statuses->data(), indices->data(), codes.data(), numbers.data()});
    all.run();
    myFragmentTable = search.fragmentTable(all.hasLocations());
    myStatuses = statuses;
    myIndices = indices;
    myCodes = std::move(codes);
    myFragmentNumbers = std::move(numbers);
}

StrongPtr<GridEvaluator::Fragments> GridEvaluator::fragments() const {
    if (!myStatuses) return nullptr;
    std::vector<FragmentIDContainer> containers(myFragmentNumbers.size());
    for (std::size_t k = 0; k < containers.size(); ++k)
        if (myFragmentNumbers[k] != noFragment) containers[k].add(myFragmentTable[myFragmentNumbers[k]]);
    return makeMemArray1D(std::move(containers));
}

// ---------------------------------------------------------------------------------------------------------------------
// Evaluation

template<int N, class T>
bool GridEvaluator::evalFloatIndices(std::vector<T>& out, const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                     const Field& source) const {
    VANTLE_SCOPE("GridEvaluator::evalFloatIndices(out, indices, source)");
    if (declines<T>(source)) return false;
    if (out.empty()) return true;
    const std::size_t n = out.size();
    if (!myStatuses || myStatuses->nElements() != n || indices.size() != n) return false;

    std::vector<bool> isUsed(myFragmentTable.size());
    std::uint32_t last = noFragment; // neighbours mostly lie in one fragment
    for (const std::uint32_t number : myFragmentNumbers) {
        if (number == last || number == noFragment) continue;
        isUsed[number] = true;
        last = number;
    }
    std::vector<StrongPtr<MemBase>> keptAlive;
    std::vector<MultiArrayBase<N, T>> blocks(myFragmentTable.size());
    for (std::size_t number = 0; number < blocks.size(); ++number) {
        if (!isUsed[number]) continue;
        const StrongPtr<MemBase> data = source.getData(myFragmentTable[number]);
        const auto* const block = dynamic_cast<const MemArray<N, T>*>(data.rawptr());
        if (!block) return false;
        blocks[number] = *block;
        keptAlive.push_back(data);
    }

    inParallel(n, 8192, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t number = myFragmentNumbers[k];
            if (number == noFragment) continue;
            const MultiArrayBase<N, T>& block = blocks[number];
            const Orvix::FixedArray<double, N> at = indices[k];
            bool isPosition = block.nElements() > 0;
            for (int d = 0; d < N; ++d) isPosition = isPosition && at[d] == at[d];
            if (isPosition) out[k] = Interpolate<N, T>(block, at).evaluate();
        }
    });
    return true;
}

template<class T>
bool GridEvaluator::evalType(std::vector<T>& out, const Field& source) const {
    if (out.empty()) return !declines<T>(source);
    if (!myIndices) return false;
    return evalFloatIndices<3, T>(out, myIndices->creativeIterator(), source);
}

template<int N, class T>
StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType(const MultiIndex<N>& extents, const Field& source) const {
    if (declines<T>(source)) return nullptr; // before an array is made in vain
    const auto values = MemArray<N, T>::create(extents);
    if (!evalType<T>(values->base_vector(), source)) return nullptr;
    return values;
}

template<class T>
StrongPtr<MemBase> GridEvaluator::evalFromCompatibleData(const StrongPtr<MemBase>& destinationPositions,
                                                         const Field& source) const {
    const MemBase* const positions = destinationPositions.rawptr();
    if (const auto* const volume = dynamic_cast<const MemArrayBase<3>*>(positions))
        return evalDimensionalDestType<3, T>(volume->getSize(), source);
    if (const auto* const surface = dynamic_cast<const MemArrayBase<2>*>(positions))
        return evalDimensionalDestType<2, T>(surface->getSize(), source);
    if (const auto* const line = dynamic_cast<const MemArrayBase<1>*>(positions))
        return evalDimensionalDestType<1, T>(line->getSize(), source);
    return nullptr;
}

StrongPtr<MemBase> GridEvaluator::evalKnownDataTypes(const StrongPtr<MemBase>& destinationPositions,
                                                     const Field& source) const {
    VANTLE_SCOPE("GridEvaluator::evalKnownDataTypes(positions, source)");
    if (StrongPtr<MemBase> values = evalFromCompatibleData<double>(destinationPositions, source)) return values;
    if (StrongPtr<MemBase> values = evalFromCompatibleData<float>(destinationPositions, source)) return values;
    return evalFromCompatibleData<PhysicalSpace::vector>(destinationPositions, source);
}

#define VANTLE_DEFINE_EVALUATION(T)                                                                                    \
    template StrongPtr<MemBase> GridEvaluator::evalFromCompatibleData<T>(const StrongPtr<MemBase>&, const Field&)      \
        const;                                                                                                         \
    template StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<1, T>(const MultiIndex<1>&, const Field&)       \
        const;                                                                                                         \
    template StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<2, T>(const MultiIndex<2>&, const Field&)       \
        const;                                                                                                         \
    template StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<3, T>(const MultiIndex<3>&, const Field&)       \
        const;                                                                                                         \
    template bool GridEvaluator::evalType<T>(std::vector<T>&, const Field&) const;                                     \
    template bool GridEvaluator::evalFloatIndices<2, T>(                                                               \
        std::vector<T>&, const CreativeIterator<Orvix::FixedArray<double, 2>>&, const Field&) const;                   \
    template bool GridEvaluator::evalFloatIndices<3, T>(                                                               \
        std::vector<T>&, const CreativeIterator<Orvix::FixedArray<double, 3>>&, const Field&) const;
VANTLE_DEFINE_EVALUATION(double)
VANTLE_DEFINE_EVALUATION(float)
VANTLE_DEFINE_EVALUATION(PhysicalSpace::vector)

} // namespace Vantle
