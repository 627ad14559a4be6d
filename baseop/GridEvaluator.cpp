#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/detail/Extremes.hpp>
#include <baseop/detail/LaneKernels.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/location/GridLock.hpp>
#include <baseop/detail/location/LazyFragment.hpp>
#include <baseop/detail/location/SpatialOrder.hpp>
#include <baseop/detail/location/Tiling.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
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

/// What is known of a position in one word: the number of its fragment, and how it was found.
class Word {
public:
    Word() = default;
    Word(std::uint32_t fragment, LocationResult result) noexcept
        : myBits(result == LocationResult::NotFound ? 0U : fragment << 2 | static_cast<std::uint32_t>(result)) {}
    [[nodiscard]] explicit operator bool() const noexcept { return myBits != 0; }
    [[nodiscard]] bool operator==(const Word&) const = default;
    [[nodiscard]] LocationResult result() const noexcept { return static_cast<LocationResult>(myBits & 3U); }
    /// `noFragment` when not found.
    [[nodiscard]] std::uint32_t fragment() const noexcept { return myBits ? myBits >> 2 : noFragment; }

private:
    std::uint32_t myBits; // 0 when not found
};

/// Positions of any kind that can be evaluated at, read in pieces.
class Positions {
public:
    /// None when the array is of another kind.
    explicit Positions(const StrongPtr<MemBase>& array) : myOwner(array) {
        using V3 = Orvix::Vector<double, 3>;
        using V2 = Orvix::Vector<double, 2>;
        using Points = TypeList<point, FloatPoint>;
        const auto take = [this](const auto& elements, const MultiIndex<3>& extents) {
            myExtents = extents;
            if constexpr (std::is_same_v<std::decay_t<decltype(elements.element(0))>, point>)
                if (elements.stride() == 1) myPoints = elements.data();
            myRead = [&vectors = elements.getIterator()](std::size_t first, std::span<point> out) {
                for (std::size_t m = 0; m < out.size(); ++m) {
                    const auto& v = vectors[first + m];
                    if constexpr (std::is_same_v<std::decay_t<decltype(v)>, V2>)
                        out[m] = point(v[0], v[1], 0.0);
                    else
                        out[m] = point(v[0], v[1], v[2]);
                }
            };
        };
        const auto takeLine = [&](const auto& line) { take(line, {line.nElements(), 1, 1}); };
        const auto takeSurface = [&](const auto& surface) { take(surface, {surface.Size()[0], surface.Size()[1], 1}); };
        if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(array.rawptr())) {
            myExtents = uniform->Size();
            myRead = [uniform](std::size_t first, std::span<point> out) {
                MultiIndex<3> at = MultiIndex<3>::fromLinear(first, uniform->Size());
                for (point& p : out) {
                    p = (*uniform)[at];
                    at.advance(uniform->Size());
                }
            };
        } else if (!withMemArray<1>(Points(), array, takeLine) && !withMemArray<2>(Points(), array, takeSurface)) {
            withMemArray<1>(TypeList<V3, V2>(), array, takeLine);
        }
    }
    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(myRead); }
    [[nodiscard]] const MultiIndex<3>& extents() const noexcept { return myExtents; }
    [[nodiscard]] std::size_t size() const noexcept { return myExtents.product(); }
    void read(std::size_t first, std::span<point> out) const { myRead(first, out); }
    [[nodiscard]] point operator[](std::size_t k) const {
        point p;
        myRead(k, std::span(&p, 1));
        return p;
    }
    /// Some of them, read into `room` unless they are points in memory anyway.
    [[nodiscard]] std::span<const point> get(std::size_t first, std::size_t count, std::vector<point>& room) const {
        if (myPoints) return {myPoints + first, count};
        room.resize(count);
        myRead(first, room);
        return room;
    }
    /// Calls `f(first, points)` for pieces of up to `MostAtOnce` positions in their order.
    template<class F>
    void forEachPiece(std::size_t begin, std::size_t end, const F& f) const {
        point room[MostAtOnce];
        for (std::size_t first = begin; first < end; first += MostAtOnce) {
            const std::size_t count = std::min(MostAtOnce, end - first);
            if (!myPoints) myRead(first, std::span(room, count));
            f(first, std::span<const point>(myPoints ? myPoints + first : room, count));
        }
    }
    static constexpr std::size_t MostAtOnce = 256;
    /// Whether those that follow each other are far from each other, as far as that can be told at once.
    [[nodiscard]] bool areScattered() const noexcept {
        return myPoints && detail::SpatialOrder::pays({myPoints, size()});
    }

private:
    StrongPtr<MemBase> myOwner;
    MultiIndex<3> myExtents;
    const point* myPoints = nullptr; // where they are points without gaps
    std::function<void(std::size_t, std::span<point>)> myRead;
};

bool isNumber(const FractionalIndex& index) noexcept {
    return (int{index[0] == index[0]} & int{index[1] == index[1]} & int{index[2] == index[2]}) != 0; // no branches
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

/// The fractional indices of positions that a fragment has claimed: to the bit what `claims` gives.
void indicesOf(const detail::UniformCoordinates& fragment, std::span<const point> points, FractionalIndex* indices) {
    double origin[3], spacing[3];
    bool isFlat = points.empty();
    for (int d = 0; d < 3; ++d) {
        origin[d] = fragment.axis(d).origin();
        spacing[d] = fragment.axis(d).spacing();
        isFlat = isFlat || spacing[d] == 0.0;
    }
    if (!isFlat) return detail::divideByThrees(&points[0][0], 3 * points.size(), origin, spacing, indices[0].data());
    for (std::size_t m = 0; m < points.size(); ++m) indices[m] = fragment.getIndex(points[m]);
}

void indicesOf(const detail::RectilinearCoordinates& fragment, std::span<const point> points,
               FractionalIndex* indices) {
    for (std::size_t m = 0; m < points.size(); ++m) indices[m] = fragment.getFractionalIndex(points[m]);
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
            if (myIsHeard && myFragments[n].untold.mayBePending())
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

    /// Whether the first fragment is known, and claims all positions that are numbers.
    [[nodiscard]] bool claimsAllNumbers() const noexcept {
        const FragmentCoordinates* const first = mySize != 0 ? myFragments[0].known() : nullptr;
        const auto* const uniform = first ? std::get_if<const detail::UniformCoordinates*>(&first->kind) : nullptr;
        if (!uniform || (*uniform)->nElements() == 0 || myMasks || myFragments[0].untold.isPending()) return false;
        // With these of numbers, an index is no number only where the position is none.
        double sum = 0.0;
        for (int d = 0; d < 3; ++d) sum += (*uniform)->axis(d).origin() * 0.0 + (*uniform)->axis(d).spacing() * 0.0;
        return sum == 0.0;
    }
    /// The fragments whose fractional indices can be had from a position, by their numbers.
    [[nodiscard]] std::vector<FragmentCoordinates> computedFragments() const {
        std::vector<FragmentCoordinates> computed(mySize);
        for (std::size_t n = 0; n < mySize; ++n)
            if (const FragmentCoordinates* const known = myFragments[n].known())
                known->visitProducts([&](const auto&) { computed[n] = *known; });
        return computed;
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
        [[nodiscard]] bool areEmpty() const noexcept { return myText.empty(); }
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
    make(!numbers.empty()).locateNeighbours(positions, found, numbers);
    if (myShared->untold.mayBePending())
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

/// Where some positions are that follow each other.
struct GridEvaluator::Found {
    Positions positions;
    std::size_t first = 0, count = 0;
    std::unique_ptr<Word[]> words;
    Word common{0, LocationResult::NotFound}; // if found, that of all positions: then there are no words
    std::vector<bool> isUsed;                 // by number of the fragment: whether it has any
    std::vector<StrongPtr<FragmentID>> table;
    /// Of the first fragments in the table, those that fractional indices can be computed of.
    std::vector<FragmentCoordinates> computed;

    explicit Found(const Positions& of) : positions(of) {}

    [[nodiscard]] Word word(std::size_t k) const noexcept { return common ? common : words[k]; }
    /// Room for the fractional indices that cannot be computed, made when there is the first.
    [[nodiscard]] FractionalIndex* places() {
        FractionalIndex* ready = myPlaces.load(std::memory_order_acquire);
        if (ready) return ready;
        const std::lock_guard lock(myMutex);
        if (!myMemory) {
            myMemory = std::make_unique_for_overwrite<double[]>(3 * room);
            myPlaces.store(reinterpret_cast<FractionalIndex*>(myMemory.get()), std::memory_order_release);
        }
        return myPlaces.load(std::memory_order_relaxed);
    }
    /// Forgets what was found, and has room for other positions.
    void reset(std::size_t begin, std::size_t number) {
        first = begin;
        count = number;
        common = Word(0, LocationResult::NotFound);
        if (number <= room) return;
        room = number;
        words = std::make_unique_for_overwrite<Word[]>(number);
        myPlaces = nullptr;
        myMemory.reset();
    }
    /// Calls `f(k, end, number, at)` for positions that follow each other in one fragment; `at` are their fractional
    /// indices.
    template<class F>
    void forEachRun(std::size_t begin, std::size_t end, const F& f) const {
        const FractionalIndex* const there = myPlaces.load(std::memory_order_acquire);
        positions.forEachPiece(first + begin, first + end, [&](std::size_t from, std::span<const point> points) {
            from -= first;
            FractionalIndex indices[Positions::MostAtOnce];
            for (std::size_t k = from, next = from; k < from + points.size(); k = next) {
                const Word word = this->word(k);
                next = common ? from + points.size() : next + 1;
                while (next < from + points.size() && words[next] == word) ++next;
                const std::uint32_t number = word.fragment();
                if (number == noFragment) continue;
                if (number >= computed.size()) {
                    f(k, next, number, there + k);
                    continue;
                }
                computed[number].visitProducts(
                    [&](const auto& product) { indicesOf(product, points.subspan(k - from, next - k), indices); });
                f(k, next, number, static_cast<const FractionalIndex*>(indices));
            }
        });
    }

    /// Arrays for callers, made when first asked for.
    [[nodiscard]] const StrongPtr<Statuses>& statuses() {
        const std::lock_guard lock(myMutex);
        if (myStatuses) return myStatuses;
        auto made = Statuses::create(MultiIndex<1>(count));
        for (std::size_t k = 0; k < count; ++k) made->element(k) = word(k) ? Located : NotLocated;
        return myStatuses = made;
    }
    [[nodiscard]] const StrongPtr<Indices>& indices() {
        const std::lock_guard lock(myMutex);
        if (myIndices) return myIndices;
        auto made = Indices::create(MultiIndex<1>(count));
        forEachRun(0, count, [&](std::size_t begin, std::size_t end, std::uint32_t, const FractionalIndex* at) {
            for (std::size_t k = begin; k < end; ++k) made->element(k) = at[k - begin];
        });
        return myIndices = made;
    }

private:
    std::size_t room = 0;
    std::mutex myMutex;
    std::atomic<FractionalIndex*> myPlaces{nullptr};
    std::unique_ptr<double[]> myMemory;
    StrongPtr<Statuses> myStatuses;
    StrongPtr<Indices> myIndices;
};

/// One request: positions that are looked for in a source, all at once or one part after the other.
class GridEvaluator::Finder {
public:
    Finder(const Positions& positions, const Field& source, FragmentSearchBase& base, const Blanking& masks)
        : myPositions(positions), myIsHeard(Hestra::Console::isHeard()), mySearch(source, base, masks, myIsHeard) {}

    /// Finds the positions from number `first` on that have these extents, and has said what there is to be said.
    void find(Found& found, std::size_t first, const MultiIndex<3>& extents) {
        const std::size_t n = extents.product();
        found.reset(first, n);
        myFound = &found;
        myIsSilent.assign(myIsHeard ? n : 0, 1);
        // A few alone: what is made for them may be made on all cores then. A position takes about as long as reading
        // some kilobytes.
        constexpr std::size_t BytesEach = 2048, Piece = 16;
        const bool isLine = extents[1] * extents[2] == 1;
        const Tiling tiling(extents);
        findTile(tiling, 0);
        if (mySearch.claimsAllNumbers()) {
            constexpr std::size_t LongPiece = 8192, FewBytes = 64;
            std::atomic<bool> areFinite{true};
            detail::inParallel(n, LongPiece, FewBytes * n, [&](std::size_t begin, std::size_t end) {
                if (!areAllFinite(begin, end)) areFinite.store(false, std::memory_order_relaxed);
            });
            if (areFinite)
                found.common = Word(0, LocationResult::Found);
            else
                detail::inParallel(n, LongPiece, FewBytes * n,
                                   [&](std::size_t begin, std::size_t end) { claimNumbers(begin, end); });
        } else if (isLine) {
            findLine(n, BytesEach);
        } else {
            detail::inParallel(tiling.count() - 1, Piece, BytesEach * n, [&](std::size_t begin, std::size_t end) {
                for (std::size_t tile = begin; tile < end; ++tile) findTile(tiling, 1 + tile);
            });
        }
        if (myIsHeard) tell();

        found.table = mySearch.fragmentTable(myHasLocations);
        found.computed = mySearch.computedFragments();
        found.isUsed.assign(found.table.size(), false);
        Word last = found.common;
        if (last) found.isUsed[last.fragment()] = true;
        for (std::size_t k = 0; k < n && !found.common; ++k) {
            if (found.words[k] == last) continue;
            last = found.words[k];
            if (last) found.isUsed[last.fragment()] = true;
        }
    }
    [[nodiscard]] bool isHeard() const noexcept { return myIsHeard; }

private:
    /// Finds up to a tile of positions; `number(m)` is that of the m-th among those that are found now.
    template<class Number>
    void findTogether(std::span<const point> points, const Number& number) {
        std::size_t numbers[Tiling::MaximalTile];
        Hit hits[Tiling::MaximalTile];
        for (std::size_t m = 0; m < points.size(); ++m) numbers[m] = myFound->first + number(m);
        mySearch.find(points, std::span(hits, points.size()), std::span<const std::size_t>(numbers, points.size()));
        FractionalIndex* places = nullptr;
        for (std::size_t m = 0; m < points.size(); ++m) {
            const std::size_t k = number(m);
            myFound->words[k] = Word(hits[m].fragment, hits[m].result);
            if (myIsHeard) myIsSilent[k] = hits[m].isSilent;
            if (!mySearch.isLocation(hits[m])) continue;
            if (!places) places = myFound->places();
            places[k] = hits[m].index;
        }
        if (places) myHasLocations.store(true, std::memory_order_relaxed);
    }
    void findTile(const Tiling& tiling, index_t tile) {
        std::size_t members[Tiling::MaximalTile];
        point points[Tiling::MaximalTile];
        std::size_t count = 0;
        tiling.forEachRowIn(tile, [&](std::size_t k, const MultiIndex<3>&, std::size_t length) {
            myPositions.read(myFound->first + k, std::span(points + count, length));
            for (std::size_t m = 0; m < length; ++m) members[count++] = k + m;
        });
        findTogether(std::span<const point>(points, count), [&](std::size_t m) { return members[m]; });
    }
    /// Whether all are finite numbers.
    [[nodiscard]] bool areAllFinite(std::size_t begin, std::size_t end) const {
        bool areFinite = true;
        const std::size_t first = myFound->first;
        myPositions.forEachPiece(first + begin, first + end, [&](std::size_t, std::span<const point> points) {
            const auto found = detail::findExtremes<double, 1>(&points[0][0], 3 * points.size());
            areFinite = areFinite && !found.hasNaN && std::isfinite(found.min[0]) && std::isfinite(found.max[0]);
        });
        return areFinite;
    }
    /// Of positions that the first fragment claims, if they are numbers.
    void claimNumbers(std::size_t begin, std::size_t end) {
        const Word claimed(0, LocationResult::Found);
        const std::size_t first = myFound->first;
        myPositions.forEachPiece(first + begin, first + end, [&](std::size_t from, std::span<const point> points) {
            Word* const words = myFound->words.get() + (from - first);
            for (std::size_t m = 0; m < points.size(); ++m) {
                words[m] = claimed;
                if (!isNumber(points[m]))
                    findTogether(points.subspan(m, 1), [&](std::size_t) { return from - first + m; });
            }
        });
    }
    /// Of positions on a line, which may be in any order in space.
    void findLine(std::size_t n, std::size_t bytesEach) {
        constexpr std::size_t Together = 32, Least = 64 * Together;
        const std::size_t piece = std::clamp(n / detail::teamSize() + 1, Least, detail::SpatialOrder::MostPositions);
        detail::inParallel(n, piece, bytesEach * n, [&](std::size_t begin, std::size_t end) {
            std::vector<point> room;
            detail::forEachNeighbours<Tiling::MaximalTile>(
                myPositions.get(myFound->first + begin, end - begin, room),
                [&](std::span<const point> now, const auto& number) {
                    findTogether(now, [&](std::size_t m) { return begin + number(m); });
                },
                Together);
        });
    }
    void tell() {
        const Found& found = *myFound;
        detail::Recital recital;
        SourceSearch::Texts texts(mySearch);
        mySearch.forEachDue([&](std::size_t k) {
            if (k >= found.first && k - found.first < found.count) myIsSilent[k - found.first] = 0;
        });
        const auto hitOf = [&](std::size_t k) {
            return Hit{found.word(k).result(), true, found.word(k).fragment(), {}};
        };
        for (std::size_t k = 0; k < found.count; ++k) {
            if (texts.areEmpty()) { // only of few there is something to say
                const void* const next = std::memchr(&myIsSilent[k], 0, found.count - k);
                if (!next) break;
                k = static_cast<std::size_t>(static_cast<const unsigned char*>(next) - myIsSilent.data());
            }
            if (!myIsSilent[k]) {
                recital.let([&] { mySearch.tell(myPositions[found.first + k], hitOf(k)); });
                continue;
            }
            // Mostly the next ones have the same to be said of them.
            const Hit hit = hitOf(k);
            std::size_t same = 1;
            while (mySearch.isLocation(hit) && k + same < found.count && myIsSilent[k + same] &&
                   mySearch.isLocation(hitOf(k + same)))
                ++same;
            texts.say(recital, hit, same);
            k += same - 1;
        }
    }

    const Positions& myPositions;
    bool myIsHeard;
    SourceSearch mySearch;
    Found* myFound = nullptr;
    std::vector<unsigned char> myIsSilent;
    std::atomic<bool> myHasLocations{false};
};

GridEvaluator::GridEvaluator() = default;
GridEvaluator::~GridEvaluator() = default;

Blanking GridEvaluator::prepare(const Context& context) {
    const Blanking masks = checkedMasksOf(context);
    if (!mySearch || !mySearch->serves(context)) mySearch = std::make_unique<FragmentSearch<point>>(context);
    // From here on the former results are gone.
    myFound.reset();
    return masks;
}

bool GridEvaluator::find(const StrongPtr<MemBase>& destinationPositions, const Field& sourcePositions,
                         const Context& context) {
    VANTLE_SCOPE("GridEvaluator::find(positions, source, context)");
    const Positions positions(destinationPositions);
    if (!positions || positions.size() == 0) return static_cast<bool>(positions);
    const Blanking masks = prepare(context);
    auto found = std::make_unique<Found>(positions);
    Finder(positions, sourcePositions, *mySearch, masks).find(*found, 0, positions.extents());
    myFound = std::move(found);
    return true;
}

const StrongPtr<GridEvaluator::Statuses>& GridEvaluator::statuses() const {
    static const StrongPtr<Statuses> none;
    return myFound ? myFound->statuses() : none;
}

const StrongPtr<GridEvaluator::Indices>& GridEvaluator::fractionalIndices() const {
    static const StrongPtr<Indices> none;
    return myFound ? myFound->indices() : none;
}

LocationResult GridEvaluator::resultCode(std::size_t k) const { return myFound->word(k).result(); }

StrongPtr<GridEvaluator::Fragments> GridEvaluator::fragments() const {
    if (!myFound) return nullptr;
    std::vector<FragmentIDContainer> containers(myFound->count);
    for (std::size_t k = 0; k < containers.size(); ++k)
        if (const Word word = myFound->word(k)) containers[k].add(myFound->table[word.fragment()]);
    return makeMemArray1D(std::move(containers));
}

// ---------------------------------------------------------------------------------------------------------------------
// Evaluation

/// The arrays of a source in the fragments that have positions, by their numbers in the table.
template<int N, class T>
struct GridEvaluator::Blocks {
    std::vector<StrongPtr<MemBase>> keptAlive;
    std::vector<bool> isKnown;
    std::vector<MultiArrayBase<N, T>> views;

    // False when the elements are no `T` in a fragment that has a position.
    [[nodiscard]] bool collect(const Found& found, const Field& source) {
        views.resize(found.table.size());
        isKnown.resize(found.table.size());
        for (std::size_t number = 0; number < found.table.size(); ++number) {
            if (!found.isUsed[number] || isKnown[number]) continue;
            isKnown[number] = true;
            const StrongPtr<MemBase> data = getDataInDoublePrecision(source, found.table[number]);
            const auto take = [&](const MemArray<N, T>& block) { views[number] = block; };
            if (!withMemArray<N>(TypeList<T>(), data, take)) return false;
            keptAlive.push_back(data);
        }
        return true;
    }
    /// Sends for the four rows of elements around a fractional index.
    static void prefetch([[maybe_unused]] const MultiArrayBase<N, T>& block,
                         [[maybe_unused]] const Orvix::FixedArray<double, N>& at) noexcept {
#if defined(__GNUC__)
        const auto* corner = block.storage();
        if (!corner) return;
        index_t stride = block.stride(), up[N] = {};
        for (int d = 0; d < N; ++d) {
            const index_t n = block.Size()[d];
            const double last = static_cast<double>(n - 1);
            corner += stride * static_cast<index_t>(at[d] > 0.0 ? static_cast<long long>(std::min(at[d], last)) : 0);
            up[d] = at[d] >= 0.0 && at[d] < last ? stride : 0;
            stride *= n;
        }
        for (int row = 0; row < 4; ++row) __builtin_prefetch(corner + (row & 1 ? up[1] : 0) + (row & 2 ? up[2] : 0));
#endif
    }
    /// Writes the value at a fractional index; none where that is no number.
    static void write(const MultiArrayBase<N, T>& block, const Orvix::FixedArray<double, N>& at, T& out) {
        bool isPosition = true;
        for (int d = 0; d < N; ++d) isPosition = isPosition && at[d] == at[d];
        if (isPosition) out = Interpolate<N, T>(block, at).evaluate();
    }
};

namespace {

// A position takes about as long as reading some hundred bytes.
constexpr std::size_t EvaluatedPiece = 8192, EvaluatedBytes = 256;

} // namespace

// Once, instead of for each number of indices: false when some fragment with positions has other elements, or, if none
// has any, as the source says.
template<int N, class T>
bool GridEvaluator::collect(Blocks<N, T>& blocks, const Field& source) const {
    const bool isAnyUsed = std::find(myFound->isUsed.begin(), myFound->isUsed.end(), true) != myFound->isUsed.end();
    return blocks.collect(*myFound, source) && (isAnyUsed || !declines<T>(source));
}

template<class T>
void GridEvaluator::interpolate(T* out, const Found& found, const Blocks<3, T>& blocks) {
    constexpr std::size_t NearCaches = std::size_t{1} << 20;
    const bool areScattered = found.positions.areScattered();
    const auto evaluate = [&](std::size_t begin, std::size_t end, std::uint32_t number, const FractionalIndex* at) {
        const MultiArrayBase<3, T>& block = blocks.views[number];
        if (block.nElements() == 0) return;
        const bool isFar = areScattered && block.nElements() * sizeof(T) > NearCaches;
        constexpr std::size_t OnTheWay = 32;
        const std::size_t together = isFar ? OnTheWay : end - begin;
        for (std::size_t k = begin; k < end; k += together) {
            const std::size_t last = std::min(end, k + together);
            if (isFar)
                for (std::size_t n = k; n < last; ++n) Blocks<3, T>::prefetch(block, at[n - begin]);
            // Indices of what was found are numbers.
            if constexpr (std::is_same_v<T, double>)
                detail::interpolateAll(block, at + (k - begin), last - k, out + k);
            else
                for (std::size_t n = k; n < last; ++n) out[n] = Interpolate<3, T>(block, at[n - begin]).evaluate();
        }
    };
    detail::inParallel(found.count, EvaluatedPiece, EvaluatedBytes * found.count,
                       [&](std::size_t from, std::size_t to) { found.forEachRun(from, to, evaluate); });
}

template<int N, class T>
bool GridEvaluator::evalFloatIndices(std::vector<T>& out, const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                     const Field& source) const {
    VANTLE_SCOPE("GridEvaluator::evalFloatIndices(out, indices, source)");
    if (!myFound) return false;
    if (out.empty()) return !declines<T>(source);
    Blocks<N, T> blocks;
    if (myFound->count != out.size() || indices.size() != out.size() || !collect(blocks, source)) return false;
    detail::inParallel(
        out.size(), EvaluatedPiece, EvaluatedBytes * out.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t k = begin; k < end; ++k)
                if (const Word word = myFound->word(k); word && blocks.views[word.fragment()].nElements() != 0)
                    Blocks<N, T>::write(blocks.views[word.fragment()], indices[k], out[k]);
        });
    return true;
}

template<class T>
bool GridEvaluator::evalType(std::vector<T>& out, const Field& source) const {
    if (!myFound) return false;
    if (out.empty()) return !declines<T>(source);
    Blocks<3, T> blocks;
    if (myFound->count != out.size() || !collect(blocks, source)) return false;
    interpolate(out.data(), *myFound, blocks);
    return true;
}

template<int N, class T>
StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType(const MultiIndex<N>& extents, const Field& source) const {
    // Known before an array is made in vain.
    Blocks<3, T> blocks;
    const index_t count = extents.product();
    if (!myFound || (count == 0 ? declines<T>(source) : myFound->count != count || !collect(blocks, source)))
        return nullptr;
    const auto values = MemArray<N, T>::create(extents);
    if (count != 0) interpolate(values->data(), *myFound, blocks);
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

namespace {

/// Whether nothing has to be made for the data of a field: then nothing is said of that either.
bool hasAllData(const Field& field) {
    bool hasAll = true;
    field.iterate([&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
        return hasAll = !creator || creator->hasData();
    });
    return hasAll;
}

/// How much of positions is evaluated at a time: whole planes, rows or tiles of them. Where they are takes 28 bytes a
/// position, the values as little as 4: so it is a quarter of them, but enough to keep all cores busy.
MultiIndex<3> partOf(const MultiIndex<3>& extents) {
    constexpr index_t Least = index_t{1} << 14, Most = index_t{1} << 18, Tile = 8;
    const index_t positions = std::clamp(extents.product() / 4, Least, Most);
    MultiIndex<3> part = extents;
    const int axis = extents[2] > 1 ? 2 : extents[1] > 1 ? 1 : 0;
    const index_t each = extents.product() / extents[axis];
    const index_t whole = positions / each;
    part[axis] = std::min(extents[axis], whole >= Tile ? whole / Tile * Tile : std::max<index_t>(whole, 1));
    return part;
}

} // namespace

template<class T>
StrongPtr<MemBase> GridEvaluator::evaluateParts(Finder& finder, Found& found, const StrongPtr<MemBase>& positions,
                                                const Field& source) {
    const auto make = [&]<int N>(const MultiIndex<N>& extents) -> std::pair<StrongPtr<MemBase>, T*> {
        const auto made = MemArray<N, T>::create(extents);
        return {made, made->data()};
    };
    std::pair<StrongPtr<MemBase>, T*> values;
    if (const auto* const volume = dynamic_cast<const MemArrayBase<3>*>(positions.rawptr()))
        values = make(MultiIndex<3>(volume->getSize()));
    else if (const auto* const surface = dynamic_cast<const MemArrayBase<2>*>(positions.rawptr()))
        values = make(MultiIndex<2>(surface->getSize()));
    else if (const auto* const line = dynamic_cast<const MemArrayBase<1>*>(positions.rawptr()))
        values = make(MultiIndex<1>(line->getSize()));
    else
        return nullptr;
    Blocks<3, T> blocks;
    do {
        if (values.first && !blocks.collect(found, source)) values.first = nullptr;
        if (values.first) interpolate(values.second + found.first, found, blocks);
        // What is found is told, whatever becomes of the values.
    } while ((values.first || finder.isHeard()) && findNextPart(finder, found));
    return values.first;
}

bool GridEvaluator::findNextPart(Finder& finder, Found& found) {
    const MultiIndex<3>& all = found.positions.extents();
    MultiIndex<3> part = partOf(all);
    const std::size_t next = found.first + found.count;
    if (next == found.positions.size()) return false;
    const int axis = all[2] > 1 ? 2 : all[1] > 1 ? 1 : 0;
    const index_t each = all.product() / all[axis];
    part[axis] = std::min(part[axis], all[axis] - next / each);
    finder.find(found, next, part);
    return true;
}

StrongPtr<MemBase> GridEvaluator::evaluate(const StrongPtr<MemBase>& destinationPositions, const Field& sourcePositions,
                                           const Context& context, const Field& source) {
    VANTLE_SCOPE("GridEvaluator::evaluate(positions, sourcePositions, context, source)");
    const Positions positions(destinationPositions);
    // What is said while data are made comes after what is said of all positions.
    if (!positions || positions.size() == 0 || (Hestra::Console::isHeard() && !hasAllData(source)))
        return find(destinationPositions, sourcePositions, context) ? evalKnownDataTypes(destinationPositions, source)
                                                                    : nullptr;
    const Blanking masks = prepare(context);
    Found found(positions);
    Finder finder(positions, sourcePositions, *mySearch, masks);
    // The elements are those of the first fragment that has a position; if none has, what the source says.
    const auto firstUsed = [&] { return std::find(found.isUsed.begin(), found.isUsed.end(), true); };
    while (findNextPart(finder, found) && firstUsed() == found.isUsed.end()) {
    }
    const bool isAnyUsed = firstUsed() != found.isUsed.end();
    const StrongPtr<MemBase> data =
        isAnyUsed ? getDataInDoublePrecision(source,
                                             found.table[static_cast<std::size_t>(firstUsed() - found.isUsed.begin())])
                  : nullptr;
    const auto isOf = [&]<class T>(TypeList<T>) {
        return isAnyUsed ? withMemArray<3>(TypeList<T>(), data, [](const auto&) {}) : !declines<T>(source);
    };
    if (isOf(TypeList<double>())) return evaluateParts<double>(finder, found, destinationPositions, source);
    if (isOf(TypeList<float>())) return evaluateParts<float>(finder, found, destinationPositions, source);
    if (isOf(TypeList<PhysicalSpace::vector>()))
        return evaluateParts<PhysicalSpace::vector>(finder, found, destinationPositions, source);
    while (finder.isHeard() && findNextPart(finder, found)) {
    }
    return nullptr;
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
