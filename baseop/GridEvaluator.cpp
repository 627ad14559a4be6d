#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <baseop/detail/location/LazyFragment.hpp>
#include <baseop/detail/location/Tiling.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

#define VANTLE_SCOPE(name) const Hestra::Profiler scope("baseop/GridEvaluator", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using detail::FragmentCoordinates;
using detail::Hearing;
using detail::LazyFragment;
using detail::Overloaded;
using detail::Tiling;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using point = PhysicalSpace::point;
using FractionalIndex = GridEvaluator::FractionalIndex;

namespace tell = detail::tell;

namespace {

constexpr std::uint32_t noFragment = ~std::uint32_t{0};

bool isNumber(const FractionalIndex& index) noexcept {
    return index[0] == index[0] && index[1] == index[1] && index[2] == index[2];
}

/// No bounds: a uniform fragment claims every position.
bool claims(const detail::UniformCoordinates& fragment, const BlockMask* mask, const point& p,
            FractionalIndex& index) noexcept {
    if (fragment.nElements() == 0 || !isNumber(p)) return false;
    const FractionalIndex found = fragment.getIndex(p);
    if (!isNumber(found) || (mask && !mask->has(found))) return false;
    index = found;
    return true;
}

bool claims(const detail::RectilinearCoordinates& fragment, const BlockMask* mask, const point& p,
            FractionalIndex& index) noexcept {
    const FractionalIndex part = fragment.getIndex(p);
    for (int d = 0; d < 3; ++d)
        if (!(part[d] >= 0.0 && part[d] <= 1.0)) return false;
    const FractionalIndex found = fragment.getFractionalIndex(p);
    if (mask && !mask->has(found)) return false;
    index = found;
    return true;
}

/// The masks of the grid that a search is about.
Blanking masksOf(const GridEvaluator::Context& context) {
    const detail::GridLock lock(context.grid);
    return context.grid ? Blanking(*context.grid) : Blanking();
}

/// The same, if they fit.
Blanking checkedMasksOf(const GridEvaluator::Context& context) {
    const detail::GridLock lock(context.grid);
    const Blanking masks = masksOf(context);
    if (const StrongPtr<Field> field = masks ? (*context.grid)(context.coordinateField) : nullptr) masks.check(*field);
    return masks;
}

/// Where a position was found. `fragment` is the position in the order of the source, or, for point locations, that
/// plus the number of source fragments.
struct Hit {
    LocationResult result = LocationResult::NotFound;
    bool isSilent = true;
    std::uint32_t fragment = noFragment;
    FractionalIndex index;
    [[nodiscard]] explicit operator bool() const noexcept { return result != LocationResult::NotFound; }
};

/// The search of positions in the fragments of a source, without a word. Any number of threads may search.
class SourceSearch {
public:
    SourceSearch(const Field& source, FragmentSearchBase& base, const Blanking& masks, bool isHeard)
        : myBase(base), myMasks(masks), mySize(source.nFragments()),
          myFragments(std::make_unique<LazyFragment[]>(mySize)), myIsHeard(isHeard) {
        std::size_t n = 0;
        source.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            if (n == mySize) return false;
            myFragments[n].id = id;
            myFragments[n++].creator = creator;
            return true;
        });
    }

    /// Finds up to a tile of positions, which have numbers if anybody listens.
    void find(std::span<const point> points, std::span<Hit> hits, std::span<const std::size_t> numbers) const {
        std::fill(hits.begin(), hits.end(), Hit());
        unsigned char pending[Tiling::MaximalTile];
        std::size_t count = points.size();
        for (std::size_t k = 0; k < count; ++k) pending[k] = static_cast<unsigned char>(k);
        // Calls claim(point, hit) for the pending positions, of which those are gone then that it was true for.
        const auto offer = [&](const auto& claim) {
            std::size_t left = 0;
            for (std::size_t c = 0; c < count; ++c) {
                const unsigned char k = pending[c];
                pending[left] = k;
                left += claim(points[k], hits[k]) ? 0 : 1;
            }
            count = left;
        };
        const auto offerTo = [&](std::size_t n, const auto& computed) {
            const BlockMask* const mask = myFragments[n].mask(myMasks, myIsHeard ? Hearing::Kept : Hearing::Nobody);
            offer([&](const point& p, Hit& hit) {
                if (!claims(*computed, mask, p, hit.index)) return false;
                hit.result = LocationResult::Found;
                hit.fragment = static_cast<std::uint32_t>(n);
                return true;
            });
        };
        bool isAsked = false;
        const auto locate = [&] {
            point asked[Tiling::MaximalTile];
            std::size_t theirs[Tiling::MaximalTile];
            LocalFromWorldPoint::Location found[Tiling::MaximalTile];
            for (std::size_t c = 0; c < count; ++c) {
                asked[c] = points[pending[c]];
                if (myIsHeard) theirs[c] = numbers[pending[c]];
            }
            myBase.locate(std::span<const point>(asked, count), std::span(found, count),
                          std::span<const std::size_t>(theirs, myIsHeard ? count : 0));
            const LocalFromWorldPoint::Location* next = found;
            offer([&](const point&, Hit& hit) {
                const LocalFromWorldPoint::Location& location = *next++;
                hit.isSilent = hit.isSilent && location.isSilent;
                if (!location) return false;
                hit.result = location.code;
                hit.fragment = static_cast<std::uint32_t>(mySize + location.fragment);
                hit.index = location.localCoordinates;
                return true;
            });
            isAsked = true;
        };
        const auto reach = [&](std::size_t n) {
            const FragmentCoordinates* const coordinates =
                myFragments[n].coordinates(myIsHeard ? Hearing::Kept : Hearing::Nobody);
            if (myIsHeard && myFragments[n].untold.isPending())
                for (std::size_t c = 0; c < count; ++c) myFragments[n].untold.reachedBy(numbers[pending[c]]);
            if (!coordinates) return;
            std::visit(Overloaded{[&](const detail::UniformCoordinates* uniform) { offerTo(n, uniform); },
                                  [&](const detail::RectilinearCoordinates* axes) { offerTo(n, axes); },
                                  [&](detail::CurvilinearCoordinates*) {
                                      if (!isAsked) locate();
                                  },
                                  [](const auto&) {}},
                       coordinates->kind);
        };
        for (std::size_t n = 0; n < mySize && count != 0; ++n) {
            reach(n);
            if (!isAsked) continue;
            // The point location has searched the whole grid: the other curvilinear fragments need not ask again.
            if (count != 0)
                for (const std::size_t other : others())
                    if (other > n && count != 0) reach(other);
            return;
        }
    }

    /// Says what there is to be said about a position that was found so.
    void tell(const point& p, const Hit& hit) const {
        for (std::size_t n = 0; n < mySize && n != hit.fragment; ++n) {
            myFragments[n].untold.tell();
            const FragmentCoordinates* const coordinates = myFragments[n].known();
            if (!coordinates) continue;
            if (coordinates->curvilinear()) myBase.tell(p);
            Hestra::Console::write(textOfMiss(*coordinates, isLocation(hit)));
            if (coordinates->curvilinear() && isLocation(hit)) return;
        }
        if (hit.fragment < mySize) myFragments[hit.fragment].untold.tell();
    }
    [[nodiscard]] std::size_t nFragments() const noexcept { return mySize; }
    /// The fragments that the numbers of hits stand for, given that some are of point locations or not.
    [[nodiscard]] std::vector<StrongPtr<FragmentID>> fragmentTable(bool withLocations) const {
        std::vector<StrongPtr<FragmentID>> table;
        for (std::size_t n = 0; n < mySize; ++n) table.push_back(myFragments[n].id);
        if (withLocations) {
            const LocalFromWorldPoint& locator = myBase.locator();
            for (unsigned int n = 0; n < locator.nFragments(); ++n) table.push_back(locator.fragmentID(n));
        }
        return table;
    }
    /// Calls `f(number)` for positions that something has to be told with.
    void forEachDue(const std::function<void(std::size_t)>& f) const {
        for (std::size_t n = 0; n < mySize; ++n) myFragments[n].untold.whenDue(f);
        myBase.forEachDue(f);
    }
    [[nodiscard]] bool isLocation(const Hit& hit) const noexcept { return hit && hit.fragment >= mySize; }

    /// What is said of positions of which there is nothing else to say: the texts of all fragments up to theirs.
    class Texts {
    public:
        explicit Texts(const SourceSearch& search) : mySearch(search), myFirst(search.mySize) {
            for (std::size_t n = 0; n < search.mySize; ++n) {
                myEnds.push_back(myText.size());
                const FragmentCoordinates* const coordinates = search.myFragments[n].known();
                if (!coordinates) continue;
                if (coordinates->curvilinear()) myFirst = std::min(myFirst, n);
                myText += textOfMiss(*coordinates, false);
            }
            myEnds.push_back(myText.size());
        }
        void say(detail::Recital& recital, const Hit& hit, std::size_t times) {
            const bool isLocation = mySearch.isLocation(hit);
            const std::size_t fragment = isLocation ? myFirst : std::min<std::size_t>(hit.fragment, mySearch.mySize);
            if (!isLocation) return recital.say(std::string_view(myText).substr(0, myEnds[fragment]));
            for (; times != 0 && myFounds.size() < 256 * (myEnds[fragment] + tell::curvilinearFound.size());) {
                myFounds.append(myText, 0, myEnds[fragment]);
                myFounds += tell::curvilinearFound;
            }
            const std::size_t each = myEnds[fragment] + tell::curvilinearFound.size();
            for (std::size_t left = times; left != 0;) {
                const std::size_t now = std::min(left, myFounds.size() / each);
                recital.say(std::string_view(myFounds).substr(0, now * each));
                left -= now;
            }
        }

    private:
        const SourceSearch& mySearch;
        std::size_t myFirst;          // number of the first curvilinear fragment
        std::string myText, myFounds; // the latter for many positions that the point location has
        std::vector<std::size_t> myEnds;
    };

private:
    static std::string_view textOfMiss(const FragmentCoordinates& coordinates, bool isFound) noexcept {
        if (coordinates.curvilinear()) return isFound ? tell::curvilinearFound : tell::curvilinearMissed;
        return std::holds_alternative<const detail::PointSet*>(coordinates.kind) ? tell::unstructured
                                                                                 : std::string_view();
    }
    /// What a position that the point location does not have has still to be offered to.
    const std::vector<std::size_t>& others() const {
        std::call_once(myOthersOnce, [this] {
            for (std::size_t n = 0; n < mySize; ++n) {
                const FragmentCoordinates* const coordinates =
                    myFragments[n].coordinates(myIsHeard ? Hearing::Kept : Hearing::Nobody);
                if (myFragments[n].untold.isPending() || (coordinates && !coordinates->curvilinear()))
                    myOthers.push_back(n);
            }
        });
        return myOthers;
    }

    FragmentSearchBase& myBase;
    Blanking myMasks;
    std::size_t mySize;
    std::unique_ptr<LazyFragment[]> myFragments;
    bool myIsHeard;
    mutable std::once_flag myOthersOnce;
    mutable std::vector<std::size_t> myOthers;
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

/// Whether the source says that its elements are no `T`.
template<class T>
bool declines(const Field& source) {
    bool isOther = false;
    source.iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            const VantleTypeIndex type = inDoublePrecision(creator->elementType());
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
    detail::Untold untold;
};

FragmentSearchBase::FragmentSearchBase(const GridEvaluator::Context& context)
    : myContext(context), myShared(std::make_unique<Shared>()) {}
FragmentSearchBase::~FragmentSearchBase() = default;

bool FragmentSearchBase::serves(const GridEvaluator::Context& context) const {
    return myContext.slice == context.slice && myContext.grid == context.grid &&
           myContext.coordinateField == context.coordinateField &&
           myContext.locatorOptions() == context.locatorOptions() && (!myShared->owner || myShared->owner->isCurrent());
}

const LocalFromWorldPoint& FragmentSearchBase::make(bool isHeard) {
    Shared& shared = *myShared;
    if (const LocalFromWorldPoint* const ready = shared.ready.load(std::memory_order_acquire)) return *ready;
    const std::lock_guard lock(shared.mutex);
    if (!shared.owner) {
        shared.untold.during(isHeard, [&] {
            shared.owner = std::make_unique<LocalFromWorldPoint>(myContext.slice, myContext.grid,
                                                                 myContext.coordinateField, myContext.locatorOptions());
        });
        shared.ready.store(shared.owner.get(), std::memory_order_release);
    }
    return *shared.owner;
}

const LocalFromWorldPoint& FragmentSearchBase::locator() {
    const LocalFromWorldPoint& made = make(Hestra::Console::isHeard());
    myShared->untold.tell();
    return made;
}

void FragmentSearchBase::locate(std::span<const point> positions, std::span<LocalFromWorldPoint::Location> found,
                                std::span<const std::size_t> numbers) {
    make(!numbers.empty()).locate(positions, found, numbers);
    if (myShared->untold.isPending())
        for (const std::size_t number : numbers) myShared->untold.reachedBy(number);
}

void FragmentSearchBase::forEachDue(const std::function<void(std::size_t)>& f) {
    if (!myShared->owner) return;
    myShared->untold.whenDue(f);
    myShared->owner->forEachDue(f);
}

void FragmentSearchBase::tell(const point& p) {
    const LocalFromWorldPoint& made = locator();
    made.tell(p, made.wayOfOptions());
}

int FragmentSearch<point>::Contains(const point& p, const StrongPtr<CreativeArrayBase>& fragmentCreator,
                                    FractionalIndex& index) {
    const FragmentCoordinates coordinates(fragmentCreator);
    const auto isClaimed = [&](const auto& computed) {
        const Blanking masks = masksOf(myContext);
        StrongPtr<const BlockMask> mask;
        if (const StrongPtr<Field> field = masks ? (*myContext.grid)(myContext.coordinateField) : nullptr)
            field->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                if (!(creator == fragmentCreator)) return true;
                mask = masks.of(id, computed.Size());
                return false;
            });
        return claims(computed, mask.rawptr(), p, index);
    };
    const bool isLocated =
        std::visit(Overloaded{[&](const detail::UniformCoordinates* uniform) { return isClaimed(*uniform); },
                              [&](const detail::RectilinearCoordinates* axes) { return isClaimed(*axes); },
                              [&](detail::CurvilinearCoordinates*) {
                                  LocalPoint found;
                                  const bool isFound = locator().get(p, found);
                                  index = found.localCoordinates;
                                  myFragment = found.fragment;
                                  Hestra::Console::write(isFound ? tell::curvilinearFound : tell::curvilinearMissed);
                                  return isFound;
                              },
                              [](const detail::PointSet*) {
                                  Hestra::Console::write(tell::unstructured);
                                  return false;
                              },
                              [](std::monostate) { return false; }},
                   coordinates.kind);
    return isLocated ? GridEvaluator::Located : GridEvaluator::NotLocated;
}

GridEvaluator::GridEvaluator() = default;
GridEvaluator::~GridEvaluator() = default;

bool GridEvaluator::find(const StrongPtr<MemBase>& destinationPositions, const Field& sourcePositions,
                         const Context& context) {
    VANTLE_SCOPE("GridEvaluator::find(positions, source, context)");
    using V3 = Orvix::Vector<double, 3>;
    using V2 = Orvix::Vector<double, 2>;
    const auto search = [&](const MultiIndex<3>& extents, const auto& at) {
        findForSpecificDestinationPositions(extents, at, sourcePositions, context);
    };
    using Points = TypeList<point, FloatPoint>;
    const auto searchPoints = [&](const auto& points, const MultiIndex<3>& extents) {
        search(extents, [&](std::size_t k, const MultiIndex<3>&) { return point(points[k]); });
    };
    const auto searchVectors = [&]<class Vector>(const MemArray<1, Vector>& line) {
        search({line.nElements(), 1, 1}, [&vectors = line.getIterator()](std::size_t k, const MultiIndex<3>&) {
            const Vector& v = vectors[k];
            if constexpr (std::is_same_v<Vector, V2>)
                return point(v[0], v[1], 0.0);
            else
                return point(v[0], v[1], v[2]);
        });
    };
    if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(destinationPositions.rawptr())) {
        search(uniform->Size(), [&](std::size_t, const MultiIndex<3>& index) { return (*uniform)[index]; });
        return true;
    }
    return withMemArray<1>(Points(), destinationPositions,
                           [&](const auto& line) {
                               searchPoints(line.getIterator(), {line.nElements(), 1, 1});
                           }) ||
           withMemArray<2>(Points(), destinationPositions,
                           [&](const auto& surface) {
                               searchPoints(surface.getIterator(), {surface.Size()[0], surface.Size()[1], 1});
                           }) ||
           withMemArray<1>(TypeList<V3, V2>(), destinationPositions, searchVectors);
}

template<class Positions>
void GridEvaluator::findForSpecificDestinationPositions(const MultiIndex<3>& extents, const Positions& positions,
                                                        const Field& sourcePositions, const Context& context) {
    const std::size_t n = extents.product();
    if (n == 0) return;
    const Blanking masks = checkedMasksOf(context);
    if (!mySearch || !mySearch->serves(context)) mySearch = std::make_unique<FragmentSearch<point>>(context);

    // From here on the former results are gone.
    const StrongPtr<Statuses> statuses = takeOrCreate(myStatuses, n);
    const StrongPtr<Indices> indices = takeOrCreate(myIndices, n);
    std::vector<LocationResult> codes = std::move(myCodes);
    std::vector<std::uint32_t> numbers = std::move(myFragmentNumbers);
    codes.resize(n);
    numbers.resize(n);
    int* const status = statuses->data();
    FractionalIndex* const index = indices->data();

    const bool isHeard = Hestra::Console::isHeard();
    std::vector<unsigned char> isSilent(isHeard ? n : 0);
    std::atomic<bool> hasLocations{false};
    const SourceSearch search(sourcePositions, *mySearch, masks, isHeard);
    const Tiling tiling(extents);
    const auto findTile = [&](index_t tile) {
        std::size_t members[Tiling::MaximalTile];
        point points[Tiling::MaximalTile];
        Hit hits[Tiling::MaximalTile];
        std::size_t count = 0;
        tiling.forEachIn(tile, [&](std::size_t k, const MultiIndex<3>& at) {
            members[count] = k;
            points[count++] = positions(k, at);
        });
        search.find(std::span<const point>(points, count), std::span(hits, count), std::span(members, count));
        bool isLocation = false;
        for (std::size_t m = 0; m < count; ++m) {
            const Hit& hit = hits[m];
            const std::size_t k = members[m];
            status[k] = hit ? Located : NotLocated;
            index[k] = hit ? hit.index : FractionalIndex();
            codes[k] = hit.result;
            numbers[k] = hit.fragment;
            isLocation |= search.isLocation(hit);
            if (isHeard) isSilent[k] = hit.isSilent;
        }
        if (isLocation) hasLocations.store(true, std::memory_order_relaxed);
    };
    // The first one alone: what it makes may be made on all cores then. A position takes about as long as reading some
    // kilobytes.
    constexpr std::size_t BytesEach = 2048, Piece = 16;
    findTile(0);
    detail::inParallel(tiling.count() - 1, Piece, BytesEach * n, [&](std::size_t begin, std::size_t end) {
        for (std::size_t tile = begin; tile < end; ++tile) findTile(1 + tile);
    });

    if (isHeard) {
        detail::Recital recital;
        SourceSearch::Texts texts(search);
        search.forEachDue([&](std::size_t k) { isSilent[k] = 0; });
        for (std::size_t k = 0; k < n; ++k) {
            const Hit hit{codes[k], true, numbers[k], {}};
            if (!isSilent[k]) {
                recital.let([&] { search.tell(positions(k, MultiIndex<3>::fromLinear(k, extents)), hit); });
                continue;
            }
            // Mostly the next ones have the same to be said of them.
            std::size_t same = 1;
            while (search.isLocation(hit) && k + same < n && isSilent[k + same] &&
                   search.isLocation({codes[k + same], true, numbers[k + same], {}}))
                ++same;
            texts.say(recital, hit, same);
            k += same - 1;
        }
    }
    myFragmentTable = search.fragmentTable(hasLocations);
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

/// The arrays of a source in the fragments that have positions, by their numbers in the table.
template<int N, class T>
struct GridEvaluator::Blocks {
    std::vector<StrongPtr<MemBase>> keptAlive;
    std::vector<MultiArrayBase<N, T>> views;
};

// False when the elements are no `T`: in a fragment that has a position, or, if none has, as the source says.
template<int N, class T>
bool GridEvaluator::collect(Blocks<N, T>& blocks, const Field& source) const {
    if (!myStatuses) return false;
    std::vector<bool> isKnown(myFragmentTable.size());
    blocks.views.resize(myFragmentTable.size());
    std::uint32_t last = noFragment; // neighbours mostly lie in one fragment
    for (const std::uint32_t number : myFragmentNumbers) {
        if (number == last || number == noFragment) continue;
        last = number;
        if (isKnown[number]) continue;
        isKnown[number] = true;
        const StrongPtr<MemBase> data = getDataInDoublePrecision(source, myFragmentTable[number]);
        if (!withMemArray<N>(TypeList<T>(), data, [&](const MemArray<N, T>& block) { blocks.views[number] = block; }))
            return false;
        blocks.keptAlive.push_back(data);
    }
    return last != noFragment || !declines<T>(source);
}

template<int N, class T>
void GridEvaluator::interpolate(std::vector<T>& out, const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                const Blocks<N, T>& blocks) const {
    // A position takes about as long as reading some hundred bytes.
    constexpr std::size_t Piece = 8192, BytesEach = 256;
    detail::inParallel(out.size(), Piece, BytesEach * out.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t number = myFragmentNumbers[k];
            if (number == noFragment) continue;
            const MultiArrayBase<N, T>& block = blocks.views[number];
            const Orvix::FixedArray<double, N> at = indices[k];
            bool isPosition = block.nElements() > 0;
            for (int d = 0; d < N; ++d) isPosition = isPosition && at[d] == at[d];
            if (isPosition) out[k] = Interpolate<N, T>(block, at).evaluate();
        }
    });
}

template<int N, class T>
bool GridEvaluator::evalFloatIndices(std::vector<T>& out, const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                     const Field& source) const {
    VANTLE_SCOPE("GridEvaluator::evalFloatIndices(out, indices, source)");
    if (!myStatuses) return false;
    if (out.empty()) return !declines<T>(source);
    Blocks<N, T> blocks;
    if (myStatuses->nElements() != out.size() || indices.size() != out.size() || !collect(blocks, source)) return false;
    interpolate(out, indices, blocks);
    return true;
}

template<class T>
bool GridEvaluator::evalType(std::vector<T>& out, const Field& source) const {
    return myIndices && evalFloatIndices<3, T>(out, myIndices->creativeIterator(), source);
}

template<int N, class T>
StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType(const MultiIndex<N>& extents, const Field& source) const {
    // Known before an array is made in vain.
    Blocks<3, T> blocks;
    const index_t count = extents.product();
    if (!myStatuses ||
        (count == 0 ? declines<T>(source) : myStatuses->nElements() != count || !collect(blocks, source)))
        return nullptr;
    const auto values = MemArray<N, T>::create(extents);
    if (count != 0) interpolate(values->base_vector(), myIndices->creativeIterator(), blocks);
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
