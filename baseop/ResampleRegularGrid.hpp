#pragma once
/// Regular grids at another resolution: lazily resampled fields, and the array operation behind them.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/Grid.hpp>
#include <model/vantle/MemArray.hpp>

#include <optional>
#include <string>

namespace Vantle {

/// Extents times factors, truncated axis by axis. Nothing for factors that are not positive and finite, and for extents
/// or a number of elements that do not fit.
[[nodiscard]] VANTLE_BASEOP_API std::optional<MultiIndex<3>>
rescaledExtents(const MultiIndex<3>& extents, const Orvix::FixedArray<double, 3>& factors);

/// Three-dimensional arrays at another resolution. `T` is double or the metric.
template<int N, class T>
class ResampleArray {
    static_assert(N == 3);

public:
    /// A new array whose element at index i is the source interpolated at i * (1 / factor); see `interpolateAt`. Its
    /// extents are those of the source times the factor, truncated.
    ///
    /// Index 0 stays at index 0 and ends are not aligned: enlarging repeats the last source nodes at the upper ends,
    /// reducing never reaches them. This is on purpose.
    /// Laws         factor 1 copies; factor 2 and then 0.5 gives the source back, where no extent is lost on the way.
    ///              The bits are those of the kernel at every node, whatever the number of threads.
    /// Degenerate   extents that are truncated to 0, or are 0, give an empty array.
    /// Failure      null when the source is no `MemArray<3, T>`, and for factors as with `rescaledExtents`;
    ///              `Hestra::MemoryException` when memory does not suffice.
    /// Concurrency  free; uses the OpenMP team of the caller's settings.
    /// Cost         one pass over the result: rows are interpolated once and combined.
    ///
    /// @param creator  what the new array says it was made by.
    [[nodiscard]] static Hestra::StrongPtr<MemBase, Hestra::Cacheable>
    rescale(double factor, const Hestra::StrongPtr<MemBase, Hestra::Cacheable>& source,
            const Hestra::WeakPtr<CreativeArrayBase, Hestra::Creature>& creator = {});
    /// The same with a factor for each axis.
    [[nodiscard]] static Hestra::StrongPtr<MemBase, Hestra::Cacheable>
    rescale(const Orvix::FixedArray<double, 3>& factors, const Hestra::StrongPtr<MemBase, Hestra::Cacheable>& source,
            const Hestra::WeakPtr<CreativeArrayBase, Hestra::Creature>& creator = {});
};

extern template class VANTLE_BASEOP_API ResampleArray<3, double>;
extern template class VANTLE_BASEOP_API ResampleArray<3, Orvix::PhysicalSpace::Metric>;

/// Attached to a field: who made its data, which kind its fragments are of, and a name under which the data can be kept
/// outside the process.
class VANTLE_BASEOP_API FieldOrigin : public Hestra::Interface<FieldOrigin> {
public:
    FieldOrigin(std::string library, std::string fragmentKind, std::string persistentName);
    ~FieldOrigin() override;
    [[nodiscard]] const std::string& library() const noexcept { return myLibrary; }
    [[nodiscard]] const std::string& fragmentKind() const noexcept { return myFragmentKind; }
    [[nodiscard]] const std::string& persistentName() const noexcept { return myPersistentName; }

private:
    std::string myLibrary, myFragmentKind, myPersistentName;
};

/// The parameters of one field's resampling, and the maker of the field that receives it.
template<int N>
class VANTLE_BASEOP_API CreativeFieldResampler {
    static_assert(N == 3);

public:
    explicit CreativeFieldResampler(const Orvix::FixedArray<double, N>& factors, std::string persistentName = {});

    [[nodiscard]] const Orvix::FixedArray<double, N>& factors() const noexcept { return myFactors; }
    /// A field without data over `fragments`, which gains the names of the source's fragments in their order.
    /// Attributed
    /// (`FieldOrigin`) to "VantleLib" and of kind "RegularFragment". What is attached to the source's fragments, such
    /// as their place in an index space, is not taken over.
    [[nodiscard]] Hestra::StrongPtr<Field>
    createEmptyField(const Field& sourceField, const Hestra::StrongPtr<FragmentIDCollection>& fragments) const;

private:
    Orvix::FixedArray<double, N> myFactors;
    std::string myPersistentName;
};

extern template class VANTLE_BASEOP_API CreativeFieldResampler<3>;

/// Gives the destination, for each fragment of uniform source positions, uniform positions in the same box with
/// rescaled extents. Other fragments get none.
class VANTLE_BASEOP_API CreativeResampleUniformCartesian3DIterator : public FragmentIterator {
public:
    CreativeResampleUniformCartesian3DIterator(const CreativeFieldResampler<3>& resampler, Field& destination)
        : myFactors(resampler.factors()), myDestination(destination) {}
    ~CreativeResampleUniformCartesian3DIterator() override;
    /// Always true: the other fragments follow.
    bool apply(const Hestra::StrongPtr<FragmentID>& id, const Hestra::StrongPtr<CreativeArrayBase>& source) override;

private:
    Orvix::FixedArray<double, 3> myFactors;
    Field& myDestination;
};

/// Element conversion that changes nothing but the type.
struct PlainCopyConvert {
    template<class Destination, class Source>
    [[nodiscard]] static Destination convert(const Source& element) {
        return static_cast<Destination>(element);
    }
};

/// Gives the destination a lazy creator for each fragment of the source that has one. It follows the source field
/// of a `DerivedField`, holds the source's creator and not its array, and announces element type and, where the
/// source's is known, size. Its array is discardable; it comes out null where the source's array is not a `MemArray<N,
/// Source>`.
template<int N, class Source, class Destination, class Convert>
class VANTLE_BASEOP_API CreativeResampleFragmentIterator : public FragmentIterator {
public:
    CreativeResampleFragmentIterator(const CreativeFieldResampler<N>& resampler, Field& destination)
        : myFactors(resampler.factors()), myDestination(destination) {}
    ~CreativeResampleFragmentIterator() override;
    /// Always true: the other fragments follow.
    bool apply(const Hestra::StrongPtr<FragmentID>& id, const Hestra::StrongPtr<CreativeArrayBase>& source) override;

private:
    Orvix::FixedArray<double, N> myFactors;
    Field& myDestination;
};

extern template class VANTLE_BASEOP_API CreativeResampleFragmentIterator<3, double, double, PlainCopyConvert>;

/// Makes `destination` the source grid at another resolution: three-dimensional vertices in the default Cartesian
/// chart, uniform positions in the same boxes with rescaled extents, and the source's fields, fragment by fragment.
///
/// Nothing is computed here but positions: a fragment's array is made when it is first asked for, may be dropped by
/// `Hestra::Cache::MemCache()`, and is made again. Box, size and element type are known beforehand. Sources live as
/// long as the destination's fields need them. Fields follow their sources, and are as old as these: when a fragment
/// has new data, or was touched, its array is made again, positions included. Fragments that a source gets later are
/// not there.
///
/// Positions keep the box, so their nodes move as the factor says; values are taken at index / factor (see
/// `ResampleArray::rescale`). The two differ by a fraction of a cell at the upper ends, on purpose.
/// Degenerate   fragments that are not uniform get no positions; fields whose elements are not `double` give no arrays.
/// Failure      false, and nothing done, when the source has no Cartesian representation, when a factor is not positive
///              and finite, and when both grids are one.
/// Concurrency  changes the destination: one thread. Any number of threads may then ask for arrays.
///
/// @param name     label of the resampled data, part of their persistent names.
/// @param factors  for the axes 0, 1, 2.
/// @param url      begins the persistent names; if empty, the url that the source's bundle is bound to does.
VANTLE_BASEOP_API bool ResampleRegularGrid3D(Grid& destination, const Grid& source, const std::string& name,
                                             const Orvix::FixedArray<double, 3>& factors, const std::string& url = {});

} // namespace Vantle

namespace Hestra {
template<>
struct ReferenceDomain<Vantle::FieldOrigin> {
    using type = InterfaceBase;
};
} // namespace Hestra
