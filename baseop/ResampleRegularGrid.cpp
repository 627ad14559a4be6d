#include <baseop/Interpolate.hpp>
#include <baseop/ResampleRegularGrid.hpp>
#include <baseop/detail/GrowingArray.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DirectProduct.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::FixedArray;
using Orvix::PhysicalSpace;

namespace {

bool areUsable(const FixedArray<double, 3>& factors) {
    return std::all_of(factors.begin(), factors.end(), [](double f) { return f > 0.0 && std::isfinite(f); });
}

/// The nodes and weights of every destination index of one axis.
class AxisSteps {
public:
    AxisSteps(index_t destination, index_t source, double factor) : mySteps(destination) {
        const double scale = 1.0 / factor;
        for (index_t i = 0; i < destination; ++i)
            mySteps[i] = InterpolationStep::interpolating(static_cast<double>(i) * scale, source);
    }
    const InterpolationStep& operator[](index_t i) const noexcept { return mySteps[i]; }
    [[nodiscard]] index_t size() const noexcept { return mySteps.size(); }

private:
    std::vector<InterpolationStep> mySteps;
};

/// The two rows (or planes) last made, by source index: neighbours have places of their own.
template<class T>
class LastTwo {
public:
    explicit LastTwo(std::size_t length) : myRows{std::vector<T>(length), std::vector<T>(length)} {}

    /// Row `node`, made by `make(row)` unless it is there.
    template<class Make>
    const T* get(index_t node, const Make& make) {
        std::vector<T>& row = myRows[node & 1];
        index_t& held = myNodes[node & 1];
        if (held != node) {
            make(row.data());
            held = node;
        }
        return row.data();
    }
    void forget() noexcept { myNodes[0] = myNodes[1] = None; }

private:
    static constexpr index_t None = ~index_t{0};
    std::vector<T> myRows[2];
    index_t myNodes[2] = {None, None};
};

template<class T>
void combine(T* __restrict out, const T* __restrict lower, const T* __restrict upper, const InterpolationStep& at,
             std::size_t count) {
    const InterpolationStep step = at;
    for (std::size_t i = 0; i < count; ++i) out[i] = LinearIpol<T, false>::between(lower[i], upper[i], step);
}

/// What a node of the result costs, in bytes that are read in that time: 1.1 ns were measured for `double`.
template<class T>
constexpr std::size_t BytesPerNode = 4 * sizeof(T);

/// The kernel's nesting, shared between nodes: rows along axis 0 are interpolated once, combined to strips of rows
/// along axis 1 once, and strips to results along axis 2. Every sum is the one that the kernel forms at that node.
template<class T>
class Rescaler {
public:
    Rescaler(const MemArray<3, T>& source, const MultiIndex<3>& extents, const FixedArray<double, 3>& factors)
        : mySource(source), myX(extents[0], source.Size()[0], factors[0]),
          myY(extents[1], source.Size()[1], factors[1]), myZ(extents[2], source.Size()[2], factors[2]) {}

    /// Makes and fills the elements.
    void fill(detail::GrowingArray<T>& result) const {
        // Each member of the team has strips of its own on all planes or, of flat results, on some planes.
        const index_t threads = detail::teamFor(myX.size() * myY.size() * myZ.size() * BytesPerNode<T>);
        const index_t rows = stripRows(threads);
        const index_t strips = (myY.size() + rows - 1) / rows;
        const index_t slabs = std::clamp<index_t>(threads / strips, 1, myZ.size());
        const index_t members = slabs > 1 ? slabs * strips : std::min(threads, strips);
        const index_t perSlab = members / slabs;
        const auto fillPart = [&](std::size_t member, std::size_t) {
            const index_t slab = member / perSlab;
            fillStrips(result, member % perSlab, perSlab, rows, slab * myZ.size() / slabs,
                       (slab + 1) * myZ.size() / slabs);
        };
        try {
            detail::inParallel(members, 1, members * detail::MemberBytes, fillPart);
        } catch (const std::bad_alloc&) {
            throw Hestra::MemoryException(2 * myX.size() * myY.size() * sizeof(T));
        }
    }

private:
    /// About as many rows as leave two strips of them in a core's own cache, and as many strips for each thread.
    [[nodiscard]] index_t stripRows(index_t threads) const noexcept {
        constexpr index_t stripBytes = index_t{1} << 16;
        const auto parts = [](index_t n, index_t size) { return (n + size - 1) / size; };
        const index_t most = std::max<index_t>(1, stripBytes / (myX.size() * sizeof(T)));
        return parts(myY.size(), parts(myY.size(), most * threads) * threads);
    }

    /// Every `step`-th strip from `first` on, of the planes [Begin, End) of the result: plane by plane, so that the
    /// result is made in the order in which it lies in memory.
    void fillStrips(detail::GrowingArray<T>& result, index_t first, index_t step, index_t rows, index_t Begin,
                    index_t End) const {
        struct Strip {
            index_t j0, rows;
            LastTwo<T> planes;
        };
        const std::size_t width = myX.size();
        LastTwo<T> sourceRows(width);
        std::vector<Strip> strips;
        for (index_t j0 = first * rows; j0 < myY.size(); j0 += step * rows) {
            const index_t count = std::min(rows, myY.size() - j0);
            strips.push_back({j0, count, LastTwo<T>(count * width)});
        }
        for (index_t k = Begin; k < End; ++k)
            for (Strip& strip : strips) {
                const auto planeOf = [&](index_t sourceK) {
                    return strip.planes.get(sourceK, [&](T* plane) {
                        sourceRows.forget();
                        const auto rowOf = [&](index_t sourceJ) {
                            return sourceRows.get(sourceJ, [&](T* row) { interpolateRow(row, sourceJ, sourceK); });
                        };
                        for (index_t j = 0; j < strip.rows; ++j)
                            blend(plane + j * width, myY[strip.j0 + j], rowOf, width);
                    });
                };
                const std::size_t begin = (k * myY.size() + strip.j0) * width, count = strip.rows * width;
                blend(result.upTo(begin + count) + begin, myZ[k], planeOf, count);
            }
    }

    template<class Inner>
    static void blend(T* out, const InterpolationStep& at, const Inner& inner, std::size_t count) {
        const T* lower = inner(at.node);
        if (at.fraction == 0.0)
            std::copy_n(lower, count, out);
        else
            combine(out, lower, inner(at.node + 1), at, count);
    }

    void interpolateRow(T* row, index_t j, index_t k) const {
        const MultiIndex<3>& n = mySource.Size();
        const index_t stride = mySource.stride();
        const T* const elements = mySource.data() + (k * n[1] + j) * n[0] * stride;
        for (index_t i = 0; i < myX.size(); ++i) {
            const InterpolationStep& at = myX[i];
            const T* const e = elements + at.node * stride;
            row[i] = at.fraction == 0.0 ? *e : LinearIpol<T, false>::between(e[0], e[stride], at);
        }
    }

    const MemArray<3, T>& mySource;
    AxisSteps myX, myY, myZ;
};

} // namespace

std::optional<MultiIndex<3>> rescaledExtents(const MultiIndex<3>& extents, const FixedArray<double, 3>& factors) {
    constexpr double limit = 9223372036854775808.0;
    if (!areUsable(factors)) return std::nullopt;
    MultiIndex<3> result;
    for (int d = 0; d < 3; ++d) {
        const double scaled = static_cast<double>(extents[d]) * factors[d];
        if (!(scaled < limit)) return std::nullopt;
        result[d] = static_cast<index_t>(scaled);
    }
    const auto total = result.checkedProduct();
    if (!total || *total > static_cast<index_t>(PTRDIFF_MAX) / sizeof(PhysicalSpace::Metric)) return std::nullopt;
    return result;
}

template<int N, class T>
StrongPtr<MemBase> ResampleArray<N, T>::rescale(double factor, const StrongPtr<MemBase>& source,
                                                const WeakPtr<CreativeArrayBase>& creator) {
    return rescale(FixedArray<double, 3>(factor, factor, factor), source, creator);
}

template<int N, class T>
StrongPtr<MemBase> ResampleArray<N, T>::rescale(const FixedArray<double, 3>& factors, const StrongPtr<MemBase>& source,
                                                const WeakPtr<CreativeArrayBase>& creator) {
    const Hestra::Profiler profile("baseop/ResampleRegularGrid", __LINE__, "ResampleArray::rescale()", __func__);
    const auto array = Hestra::dynamicCast<MemArray<3, T>>(source);
    if (!array) return nullptr;
    const auto extents = rescaledExtents(array->Size(), factors);
    if (!extents) return nullptr;
    detail::GrowingArray<T> elements(extents->product());
    if (!detail::isEmpty(*extents)) Rescaler<T>(*array, *extents, factors).fill(elements);
    return MemArray<3, T>::makeMemArray(elements.complete(), *extents, creator);
}

template class ResampleArray<3, double>;
template class ResampleArray<3, PhysicalSpace::Metric>;

FieldOrigin::FieldOrigin(std::string library, std::string fragmentKind, std::string persistentName)
    : myLibrary(std::move(library)), myFragmentKind(std::move(fragmentKind)),
      myPersistentName(std::move(persistentName)) {}
FieldOrigin::~FieldOrigin() = default;

template<int N>
CreativeFieldResampler<N>::CreativeFieldResampler(const FixedArray<double, N>& factors, std::string persistentName)
    : myFactors(factors), myPersistentName(std::move(persistentName)) {}

template<int N>
StrongPtr<Field> CreativeFieldResampler<N>::createEmptyField(const Field& sourceField,
                                                             const StrongPtr<FragmentIDCollection>& fragments) const {
    if (const auto sources = sourceField.getFragmentIDCollection(); sources && fragments)
        fragments->setFragmentNames(sources->fragmentNames());
    StrongPtr<Field> field = Hestra::makeRef<DerivedField>(Hestra::WeakPtr<const Field>(sourceField), fragments);
    field->addInterface(Hestra::makeRef<FieldOrigin>("VantleLib", "RegularFragment", myPersistentName));
    return field;
}

namespace {

/// The fragment that one of a resampled field is derived from.
DerivedArray::Source sourceFor(const Field& resampled, const StrongPtr<FragmentID>& id,
                               const StrongPtr<CreativeArrayBase>& creator) {
    const auto* const derived = dynamic_cast<const DerivedField*>(&resampled);
    return DerivedArray::Source(creator, derived ? derived->source() : WeakPtr<const Field>(), id);
}

void keep(Field& resampled, const StrongPtr<CreativeArrayBase>& creator, const StrongPtr<FragmentID>& id) {
    resampled.setCreator(creator, id ? resampled.makeFragmentID(id->name()) : nullptr);
}

} // namespace

CreativeResampleUniformCartesian3DIterator::~CreativeResampleUniformCartesian3DIterator() = default;

bool CreativeResampleUniformCartesian3DIterator::apply(const StrongPtr<FragmentID>& id,
                                                       const StrongPtr<CreativeArrayBase>& source) {
    if (!source) return true;
    const DerivedArray::Source origin = sourceFor(myDestination, id, source);
    const auto freshness = origin.freshness();
    const auto rescale = [factors = myFactors](const StrongPtr<MemBase>& data,
                                               const WeakPtr<CreativeArrayBase>& creator) -> StrongPtr<MemBase> {
        const auto positions = Hestra::dynamicCast<UniformCartesianArray>(data);
        const auto extents = positions ? rescaledExtents(positions->Size(), factors) : std::nullopt;
        if (!extents) return nullptr;
        const auto rescaled = Hestra::makeRef<UniformCartesianArray>(positions->getBoundingBox(), *extents);
        rescaled->setCreator(creator);
        return rescaled;
    };
    const StrongPtr<MemBase> rescaled = rescale(source->getData(), nullptr);
    if (!rescaled) return true;
    const StrongPtr<CreativeArrayBase> creator =
        Hestra::makeRef<DerivedArray>(origin, rescale, rescaled, freshness, nullptr);
    rescaled->setCreator(creator);
    keep(myDestination, creator, id);
    return true;
}

template<int N, class Source, class Destination, class Convert>
CreativeResampleFragmentIterator<N, Source, Destination, Convert>::~CreativeResampleFragmentIterator() = default;

template<int N, class Source, class Destination, class Convert>
bool CreativeResampleFragmentIterator<N, Source, Destination, Convert>::apply(
    const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& source) {
    if (!source) return true;
    DynamicSize size;
    if (const auto known = getSize(*source).template as<N>())
        if (const auto extents = rescaledExtents(*known, myFactors)) size = *extents;

    const auto make = [factors = myFactors](const StrongPtr<MemBase>& data,
                                            const WeakPtr<CreativeArrayBase>& creator) -> StrongPtr<MemBase> {
        StrongPtr<MemBase> rescaled = ResampleArray<N, Source>::rescale(factors, data, creator);
        if constexpr (std::is_same_v<Source, Destination> && std::is_same_v<Convert, PlainCopyConvert>) {
            return rescaled;
        } else {
            const auto array = Hestra::dynamicCast<MemArray<N, Source>>(rescaled);
            if (!array) return nullptr;
            const auto converted = MemArray<N, Destination>::create(array->Size(), creator);
            for (index_t k = 0; k < array->nElements(); ++k)
                converted->element(k) = Convert::template convert<Destination>(array->element(k));
            return converted;
        }
    };
    keep(myDestination,
         Hestra::makeRef<DerivedArray>(sourceFor(myDestination, id, source), make, VantleTypeIndex(typeid(Destination)),
                                       size, Hestra::Cache::MemCache()),
         id);
    return true;
}

template class CreativeFieldResampler<3>;
template class CreativeResampleFragmentIterator<3, double, double, PlainCopyConvert>;

namespace {

/// Every fragment, and the unfragmented data that a field may have beside them.
void applyToAll(const Field& field, FragmentIterator& iterator) {
    bool isUnfragmentedVisited = false;
    (void)field.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        isUnfragmentedVisited |= !id;
        return iterator.apply(id, creator);
    });
    if (!isUnfragmentedVisited) (void)iterator.apply(nullptr, field.getCreator(nullptr));
}

} // namespace

bool ResampleRegularGrid3D(Grid& destination, const Grid& source, const std::string& name,
                           const FixedArray<double, 3>& factors, const std::string& url) {
    const Hestra::Profiler profile("baseop/ResampleRegularGrid", __LINE__, "ResampleRegularGrid3D()", __func__);
    if (&destination == &source || !areUsable(factors)) return false;
    const StrongPtr<Representation> from = source.getCartesianRepresentation();
    if (!from) return false;
    const StrongPtr<Representation> to = destination.makeCartesianRepresentation(3);

    const StrongPtr<Bundle> bundle = getPrimaryBundle(*from);
    const std::string prefix = (url.empty() && bundle ? bundle->boundUrl() : url) + "#" + name + "/";
    const StrongPtr<FragmentIDCollection> fragments = Hestra::makeRef<FragmentIDCollection>();

    if (const StrongPtr<Field> positions = from->Positions()) {
        const CreativeFieldResampler<3> resampler(factors, prefix + PositionsName);
        const StrongPtr<Field> resampled = resampler.createEmptyField(*positions, fragments);
        CreativeResampleUniformCartesian3DIterator iterator(resampler, *resampled);
        applyToAll(*positions, iterator);
        to->setPositions(resampled);
    }
    (void)from->iterate([&](const FieldID& id, const Field& field) {
        if (id.name() == PositionsName) return true;
        const CreativeFieldResampler<3> resampler(factors, prefix + id.name());
        const StrongPtr<Field> resampled = resampler.createEmptyField(field, fragments);
        CreativeResampleFragmentIterator<3, double, double, PlainCopyConvert> iterator(resampler, *resampled);
        applyToAll(field, iterator);
        (*to)[id.name()] = resampled;
        return true;
    });
    return true;
}

} // namespace Vantle
