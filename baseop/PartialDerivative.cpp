#include <baseop/PartialDerivative.hpp>
#include <baseop/detail/BesideBlanked.hpp>
#include <baseop/detail/LaneKernels.hpp>
#include <baseop/detail/RowResult.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/Representation.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Vantle {

using Hestra::Ref;
using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

// ------------------------------------------------------------------------------------------------------------ kernels

namespace {

/// The two nodes whose difference is the derivative at node `m` of an axis, and the factor: 1.0 changes no bit.
struct Stencil {
    index_t low;
    index_t high;
    double factor;

    Stencil(index_t m, index_t extent) noexcept
        : low(m > 0 ? m - 1 : 0), high(m + 1 < extent ? m + 1 : m), factor(high - low == 2 ? 0.5 : 1.0) {}
};

/// Two rows along axis 0 whose difference, times the factor, is the derivative across them.
template<class S>
struct RowPair {
    const S* low;
    const S* high;
    double factor;
};

/// Fills the derivatives of one row. `Step` is the distance of its elements, or 0 for `step`.
template<index_t Step, class S, class Result>
void deriveRow(Result* __restrict target, const S* row, const RowPair<S>& axis1, const RowPair<S>& axis2,
               index_t extent, index_t step) noexcept {
    constexpr int C = ElementTraits<S>::components;
    if constexpr (Step > 0) step = Step;
    const auto difference = [](Result& result, int axis, const S& high, const S& low, double factor) {
        for (int c = 0; c < C; ++c)
            result[axis * C + c] = (double{elementComponent(high, c)} - double{elementComponent(low, c)}) * factor;
    };
    const auto across = [&](index_t i) {
        difference(target[i], 1, axis1.high[i * step], axis1.low[i * step], axis1.factor);
        difference(target[i], 2, axis2.high[i * step], axis2.low[i * step], axis2.factor);
    };
    if (extent > 1) difference(target[0], 0, row[step], row[0], 1.0);
    across(0);
    if constexpr (Step == 1 && std::is_same_v<S, double>) {
        if (extent > 2)
            detail::interleaveDifferences({{row, row + 2, 0.5},
                                           {axis1.low + 1, axis1.high + 1, axis1.factor},
                                           {axis2.low + 1, axis2.high + 1, axis2.factor}},
                                          static_cast<std::size_t>(extent - 2), &target[1][0]);
    } else {
        for (index_t i = 1; i + 1 < extent; ++i) {
            difference(target[i], 0, row[(i + 1) * step], row[(i - 1) * step], 0.5);
            across(i);
        }
    }
    if (extent > 1) {
        difference(target[extent - 1], 0, row[(extent - 1) * step], row[(extent - 2) * step], 1.0);
        across(extent - 1);
    }
}

} // namespace

namespace {

/// Derives again where the edges that a mask leaves are not those of the block: `row` is the row (j, k) of a block of
/// these extents, whose elements are `step` apart.
template<class S, class Result>
void deriveBesideBlanked(Result* target, const S* row, const MultiIndex<3>& size, index_t j, index_t k, index_t step,
                         const BlockMask& mask) noexcept {
    constexpr int C = ElementTraits<S>::components;
    const index_t distances[3] = {step, size[0] * step, size[0] * size[1] * step};
    detail::forBesideBlanked(
        mask, j, k, [&](index_t i) { target[i] = Result(); },
        [&](index_t i, const detail::ValidEdges& edges) {
            const S* const at = row + i * step;
            for (int axis = 0; axis < 3; ++axis) {
                if (size[axis] < 2) continue;
                const S& high = at[edges.above[axis] * distances[axis]];
                const S& low = *(at - edges.below[axis] * distances[axis]);
                const double factor = 1.0 - 0.5 * static_cast<double>(edges.above[axis] & edges.below[axis]);
                for (int c = 0; c < C; ++c)
                    target[i][axis * C + c] =
                        (double{elementComponent(high, c)} - double{elementComponent(low, c)}) * factor;
            }
        });
}

} // namespace

template<class Result>
template<int N, class T>
Ref<MemArray<N, Result>> Derivative<Result>::compute(const MemArray<N, T>& source, const BlockMask* mask) {
    static_assert(N == 3, "the axes of a regular grid");
    static_assert(ElementTraits<Result>::components == N * ElementTraits<T>::components);
    using S = ElementStorage<T>;
    const Hestra::Profiler scope("baseop/PartialDerivative", __LINE__, "Derivative::compute(array)",
                                 __PRETTY_FUNCTION__);
    const MultiIndex<3> size = source.Size();
    const index_t nodes = source.nElements();
    if (nodes == 0) return MemArray<3, Result>::create(size);

    const S* const elements = source.storage();
    const index_t step = source.stride();
    // Across an axis with one node this row is subtracted from itself, which also does for infinite elements.
    const std::vector<S> zeros(size[1] > 1 && size[2] > 1 ? 0 : static_cast<std::size_t>((size[0] - 1) * step + 1));
    const auto rowAt = [&](index_t j, index_t k) { return elements + (k * size[1] + j) * size[0] * step; };
    const auto fillRow = [&](Result* target, index_t r) {
        const index_t j = r % size[1], k = r / size[1];
        RowPair<S> axis1{zeros.data(), zeros.data(), 1.0}, axis2 = axis1;
        if (const Stencil at(j, size[1]); size[1] > 1) axis1 = {rowAt(at.low, k), rowAt(at.high, k), at.factor};
        if (const Stencil at(k, size[2]); size[2] > 1) axis2 = {rowAt(j, at.low), rowAt(j, at.high), at.factor};
        if (step == 1)
            deriveRow<1>(target, rowAt(j, k), axis1, axis2, size[0], step);
        else
            deriveRow<0>(target, rowAt(j, k), axis1, axis2, size[0], step);
        if (mask) deriveBesideBlanked(target, rowAt(j, k), size, j, k, step, *mask);
    };

    constexpr auto Way =
        ElementTraits<T>::components == 1 ? detail::OneThread::Appends : detail::OneThread::FillsPlaces;
    return detail::makeByRows<Result, Way>(size, static_cast<std::size_t>(nodes) * (sizeof(S) + sizeof(Result)),
                                           [&](Result* target, index_t begin, index_t end) {
                                               for (index_t r = begin; r < end; ++r, target += size[0])
                                                   fillRow(target, r);
                                           });
}

template struct Derivative<PhysicalSpace::vector>;
template struct Derivative<Orvix::Quadratic<3, double>>;
template VANTLE_BASEOP_API Ref<MemArray<3, PhysicalSpace::vector>>
Derivative<PhysicalSpace::vector>::compute<3, double>(const MemArray<3, double>&, const BlockMask*);
template VANTLE_BASEOP_API Ref<MemArray<3, Orvix::Quadratic<3, double>>>
Derivative<Orvix::Quadratic<3, double>>::compute<3, PhysicalSpace::vector>(const MemArray<3, PhysicalSpace::vector>&,
                                                                           const BlockMask*);
template VANTLE_BASEOP_API Ref<MemArray<3, Orvix::Quadratic<3, double>>>
Derivative<Orvix::Quadratic<3, double>>::compute<3, PhysicalSpace::point>(const MemArray<3, PhysicalSpace::point>&,
                                                                          const BlockMask*);

// --------------------------------------------------------------------------------------------------------- derivators

namespace {

/// All derivators that live, in the order of their making.
struct Registry {
    struct Entry {
        PartialDerivatorBase* object;
        WeakPtr<PartialDerivatorBase> handle;
        int users = 0; // calls that use it without owning it
    };
    [[nodiscard]] auto find(const PartialDerivatorBase* object) {
        return std::find_if(derivators.begin(), derivators.end(),
                            [object](const Entry& entry) { return entry.object == object; });
    }

    std::mutex mutex;
    std::condition_variable unused;
    std::vector<Entry> derivators;
};

Registry& registry() {
    static Registry* const known = new Registry; // never destroyed: derivators of other libraries may go later
    return *known;
}

/// Takes a derivator out, after the calls that use it without owning it.
void forget(const PartialDerivatorBase* object) {
    Registry& known = registry();
    std::unique_lock lock(known.mutex);
    known.unused.wait(lock, [&] {
        const auto entry = known.find(object);
        return entry == known.derivators.end() || entry->users == 0;
    });
    if (const auto entry = known.find(object); entry != known.derivators.end()) known.derivators.erase(entry);
}

/// Handles that keep this library's own derivators in force.
const std::vector<StrongPtr<PartialDerivatorBase>>& ownDerivators() {
    static const std::vector<StrongPtr<PartialDerivatorBase>> own{
        Hestra::makeRef<PartialDerivator<MemArray<3, double>, PhysicalSpace::vector>>(),
        Hestra::makeRef<PartialDerivator<MemArray<3, PhysicalSpace::vector>, Orvix::Quadratic<3, double>>>(),
        Hestra::makeRef<PartialDerivator<MemArray<3, PhysicalSpace::point>, Orvix::Quadratic<3, double>>>(),
        Hestra::makeRef<PartialDerivator<MemArray<3, FloatVector>, Orvix::Quadratic<3, double>>>(),
        Hestra::makeRef<PartialDerivator<MemArray<3, FloatPoint>, Orvix::Quadratic<3, double>>>()};
    return own;
}

// With the library, so that they come before any other; also when something asks still earlier.
[[maybe_unused]] const auto& madeWithTheLibrary = ownDerivators();

/// A derivator that can be asked as long as this lives: owned, if it has owners, else counted as used.
class Candidate {
public:
    Candidate() = default;
    /// The registry is locked.
    explicit Candidate(Registry::Entry& entry) : myOwner(entry.handle), myObject(entry.object) {
        if (!myOwner) ++entry.users;
    }
    Candidate(Candidate&& other) noexcept
        : myOwner(std::move(other.myOwner)), myObject(std::exchange(other.myObject, nullptr)) {}
    ~Candidate() {
        if (!myObject || myOwner) return;
        Registry& known = registry();
        {
            const std::lock_guard lock(known.mutex);
            --known.find(myObject)->users;
        }
        known.unused.notify_all();
    }

    [[nodiscard]] explicit operator bool() const noexcept { return myObject != nullptr; }
    const PartialDerivatorBase* operator->() const noexcept { return myObject; }
    const PartialDerivatorBase& operator*() const noexcept { return *myObject; }

private:
    StrongPtr<PartialDerivatorBase> myOwner;
    const PartialDerivatorBase* myObject = nullptr;
};

/// Those that live: not one that its last owner has left, nor one of which only the base is there, since it is being
/// made or destroyed.
std::vector<Candidate> derivators() {
    (void)ownDerivators();
    std::vector<Candidate> alive;
    Registry& known = registry();
    const std::lock_guard lock(known.mutex);
    alive.reserve(known.derivators.size());
    for (Registry::Entry& entry : known.derivators)
        if (entry.handle && typeid(*entry.object) != typeid(PartialDerivatorBase)) alive.emplace_back(entry);
    return alive;
}

template<class Predicate>
Candidate findDerivator(const Predicate& accepts) {
    for (Candidate& candidate : derivators())
        if (accepts(*candidate)) return std::move(candidate);
    return {};
}

} // namespace

PartialDerivatorBase::PartialDerivatorBase() {
    Registry& known = registry();
    const std::lock_guard lock(known.mutex);
    known.derivators.push_back({this, WeakPtr<PartialDerivatorBase>(*this)});
}

// The last owner's end comes here while the whole object is still there; other objects come to the destructor.
void PartialDerivatorBase::extremeUnction() { forget(this); }

PartialDerivatorBase::~PartialDerivatorBase() { forget(this); }

StrongPtr<MemBase> PartialDerivatorBase::doMaskedDerivative(const StrongPtr<MemBase>&, const BlockMask&) const {
    return nullptr;
}

// --------------------------------------------------------------------------------------------------------- operations

namespace {

StrongPtr<MemBase> derivativeBy(const BlockMask* mask, const StrongPtr<MemBase>& data) {
    if (!data) return nullptr;
    const MemArrayProperties properties(data->rank(), data->elementIndex());
    const auto derivator =
        findDerivator([&](const PartialDerivatorBase& candidate) { return candidate.isPartialDerivable(properties); });
    if (!derivator) return nullptr;
    return mask ? derivator->doMaskedDerivative(data, *mask) : derivator->doPartialDerivative(data);
}

} // namespace

StrongPtr<MemBase> PartialDerivative(const StrongPtr<MemBase>& data) { return derivativeBy(nullptr, data); }

bool isPartialDerivable(const StrongPtr<CreativeArrayBase>& creator) {
    if (!creator) return false;
    const StrongPtr<MemBase> data = creator->cachedData();
    const auto announced = creator->findInterface<MemArrayProperties>();
    const VantleTypeIndex type = announced ? announced->elementType()
                                 : data    ? data->elementIndex()
                                           : creator->elementType();
    const int rank = announced ? announced->rank() : data ? data->rank() : getSize(*creator).rank();
    const auto suits = [&](const PartialDerivatorBase& candidate) {
        if (rank > 0) return candidate.isPartialDerivable(MemArrayProperties(rank, type));
        for (int possible = 1; possible <= DynamicSize::MaxRank; ++possible)
            if (candidate.isPartialDerivable(MemArrayProperties(possible, type))) return true;
        return false;
    };
    return bool(findDerivator(suits));
}

namespace {

/// The masks that a fragment of a field is derived by, if any.
struct Masks {
    StrongPtr<BlankingInput> input;
    StrongPtr<FragmentID> fragment;

    [[nodiscard]] StrongPtr<const BlockMask> of(const StrongPtr<MemBase>& data) const {
        const auto size = input && data ? data->getDynamicSize().as<3>() : std::nullopt;
        return size ? input->now().of(fragment, *size) : nullptr;
    }
};

/// Derives and says what an array is to be known to be.
StrongPtr<MemBase> derive(const Masks& masks, const StrongPtr<MemBase>& data, const WeakPtr<CreativeArrayBase>& owner) {
    StrongPtr<MemBase> derivative = derivativeBy(masks.of(data).rawptr(), data);
    if (!derivative) return nullptr;
    derivative->MemBase::setCreator(owner);
    if (const StrongPtr<CreativeArrayBase> creator = owner.lock())
        creator->addInterface(Hestra::makeRef<MemArrayProperties>(derivative->rank(), derivative->elementIndex()));
    return derivative;
}

/// The derivative of a fragment; the field that the fragment is of, if known, and its id there, with the masks.
StrongPtr<CreativeArray> derivativeOf(const StrongPtr<CreativeArrayBase>& creator, const WeakPtr<const Field>& field,
                                      const Masks& masks, std::string& errors, const StrongPtr<Hestra::Cache>& cache) {
    const auto failure = [&](const char* text) {
        errors += text;
        return StrongPtr<CreativeArray>();
    };
    if (!creator) return failure("No creator for fragment ");
    if (!isPartialDerivable(creator)) return failure("No creator element type unsupported for fragment ");
    const StrongPtr<MemBase> held = creator->getData(); // which may make it newer
    const DerivedArray::Source source(creator, field, masks.fragment, masks.input);
    const Hestra::Freshness origin = source.freshness();
    const auto age = source.age();
    const StrongPtr<MemBase> data = creator->getData();
    if (!data) return failure("No data available for fragment ");
    const StrongPtr<MemBase> derivative = derive(masks, data, nullptr);
    if (!derivative) return failure("No derivation computed for fragment ");

    const auto again = [masks](const StrongPtr<MemBase>& from, const WeakPtr<CreativeArrayBase>& owner) {
        return derive(masks, from, owner);
    };
    const Ref<CreativeArray> result(Hestra::makeRef<DerivedArray>(source, again, derivative, origin, cache));
    derivative->MemBase::setCreator(result);
    result->addInterface(Hestra::makeRef<MemArrayProperties>(derivative->rank(), derivative->elementIndex()));
    result->raiseAge(age);
    return result;
}

} // namespace

StrongPtr<CreativeArray> PartialDerivative(const StrongPtr<CreativeArrayBase>& creator, std::string& errors,
                                           const StrongPtr<Hestra::Cache>& cache) {
    const Hestra::Profiler scope("baseop/PartialDerivative", __LINE__, "PartialDerivative(creator)",
                                 __PRETTY_FUNCTION__);
    return derivativeOf(creator, nullptr, {}, errors, cache);
}

StrongPtr<Field> PartialDerivative(Field& source, const std::string& name, Representation& sourceRepresentation,
                                   Representation& destinationRepresentation, std::string& errors,
                                   const StrongPtr<Hestra::Cache>& cache) {
    const WeakPtr<const Field> field(source);
    const StrongPtr<BlankingInput> masks = Hestra::makeRef<BlankingInput>(sourceRepresentation);
    if (const StrongPtr<Field> positions = sourceRepresentation.Positions()) masks->now().check(*positions);
    const Ref<Field> result(Hestra::makeRef<DerivedField>(field, source.getFragmentIDCollection(), masks));
    bool any = false;
    const auto take = [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (const StrongPtr<CreativeArrayBase> derivative = derivativeOf(creator, field, {masks, id}, errors, cache)) {
            result->setCreator(derivative, id);
            any = true;
        } else {
            errors += FragmentID::Name(id, "") + "\n";
        }
        return true;
    };
    const StrongPtr<CreativeArrayBase> global = source.getCreator(nullptr);
    bool globalVisited = false;
    source.iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            globalVisited = globalVisited || !id;
            return take(id, creator);
        },
        !global);
    if (global && !globalVisited) take(nullptr, global);
    if (!any) return nullptr;
    destinationRepresentation.createSharedFieldID(sourceRepresentation, name);
    destinationRepresentation.setField(name, result);
    return result;
}

} // namespace Vantle
