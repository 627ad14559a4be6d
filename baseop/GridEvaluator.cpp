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
            FragmentCoordinates found(myCreator ? myCreator->create(false) : nullptr);
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

    /// Finds one position. Messages are appended to `messages`, which is also where this thread's messages go.
    [[nodiscard]] Hit find(const point& p, std::string& messages) const {
        Hit hit;
        bool isAsked = false, isSilent = true;
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
                        hit.code = static_cast<unsigned char>(found.code);
                        hit.fragment = static_cast<std::uint32_t>(myFragments.size() + found.fragment);
                        hit.index = found.localCoordinates;
                        return hit;
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
#pragma omp parallel for schedule(dynamic, 1) if (pieces > 1)
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

// Positions by number, of each kind that can be searched for.

struct PointPositions {
    const Iterator<point>& points;
    [[nodiscard]] std::size_t size() const { return points.size(); }
    [[nodiscard]] point operator()(std::size_t k) const { return points[k]; }
};

struct UniformPositions {
    const detail::UniformCoordinates& points;
    [[nodiscard]] std::size_t size() const { return points.nElements(); }
    [[nodiscard]] point operator()(std::size_t k) const { return points.create(k); }
};

template<int N>
struct VectorPositions {
    const Iterator<Orvix::Vector<double, N>>& vectors;
    [[nodiscard]] std::size_t size() const { return vectors.size(); }
    [[nodiscard]] point operator()(std::size_t k) const {
        const auto& v = vectors[k];
        if constexpr (N == 2)
            return {v[0], v[1], 0.0};
        else
            return {v[0], v[1], v[2]};
    }
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
    const auto sameCoordinates = [&] {
        if (!myShared->owner) return true;
        const StrongPtr<Field> field = context.grid ? (*context.grid)(context.coordinateField) : nullptr;
        return field == myShared->owner->coordinateField();
    };
    return myContext.slice == context.slice && myContext.grid == context.grid &&
           myContext.coordinateField == context.coordinateField && myContext.resolution == context.resolution &&
           myContext.precision == context.precision && myContext.scale == context.scale &&
           myContext.flag == context.flag && sameCoordinates();
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
    const FragmentCoordinates coordinates(fragmentCreator ? fragmentCreator->create(false) : nullptr);
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
        return search(PointPositions{line->getIterator()});
    if (const auto* const surface = dynamic_cast<const MemArray<2, point>*>(positions))
        return search(PointPositions{surface->getIterator()});
    if (const auto* const uniform = dynamic_cast<const detail::UniformCoordinates*>(positions))
        return search(UniformPositions{*uniform});
    if (const auto* const spatial = dynamic_cast<const MemArray<1, Orvix::Vector<double, 3>>*>(positions))
        return search(VectorPositions<3>{spatial->getIterator()});
    if (const auto* const planar = dynamic_cast<const MemArray<1, Orvix::Vector<double, 2>>*>(positions))
        return search(VectorPositions<2>{planar->getIterator()});
    return false;
}

template<class Positions>
void GridEvaluator::findForSpecificDestinationPositions(const Positions& positions, const Field& sourcePositions,
                                                        const Context& context) {
    const std::size_t n = positions.size();
    if (n == 0) return;
    if (!mySearch || !mySearch->serves(context)) mySearch = std::make_unique<FragmentSearch<point>>(context);

    const auto statuses = Statuses::create(MultiIndex<1>(n));
    const auto indices = Indices::create(MultiIndex<1>(n));
    std::vector<unsigned char> codes(n);
    std::vector<std::uint32_t> numbers(n);
    int* const status = statuses->data();
    FractionalIndex* const index = indices->data();

    // Large enough that a piece of messages is worth a write, small enough that the cores end together.
    constexpr std::size_t piece = 2048;
    const SourceSearch search(sourcePositions, *mySearch);
    const std::size_t sourceFragments = search.nFragments();
    std::atomic<bool> hasLocations{false};
    {
        detail::OrderedMessages output(1 + (n - 1 + piece - 1) / piece);
        const auto findPiece = [&](std::size_t number, std::size_t begin, std::size_t end) {
            std::string messages;
            bool isLocation = false;
            {
                const Hestra::MessageCapture capture(messages);
                for (std::size_t k = begin; k < end; ++k) {
                    const Hit hit = search.find(positions(k), messages);
                    status[k] = hit.code ? Located : NotLocated;
                    index[k] = hit.index;
                    codes[k] = hit.code;
                    numbers[k] = hit.fragment;
                    isLocation = isLocation || (hit.code && hit.fragment >= sourceFragments);
                }
            }
            if (isLocation) hasLocations.store(true, std::memory_order_relaxed);
            output.deliver(number, std::move(messages));
        };
        // The first position alone: it makes the point location, which reports before everything else.
        findPiece(0, 0, 1);
        inParallel(n - 1, piece,
                   [&](std::size_t begin, std::size_t end) { findPiece(1 + begin / piece, 1 + begin, 1 + end); });
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

template<int N, class T>
bool GridEvaluator::evalFloatIndices(std::vector<T>& out, const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                     const Field& source) const {
    VANTLE_SCOPE("GridEvaluator::evalFloatIndices(out, indices, source)");
    if (declines<T>(source)) return false;
    if (out.empty()) return true;
    const std::size_t n = out.size();
    if (!myStatuses || myStatuses->nElements() != n || indices.size() != n) return false;

    std::vector<bool> isUsed(myFragmentTable.size());
    for (const std::uint32_t number : myFragmentNumbers)
        if (number != noFragment) isUsed[number] = true;
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
