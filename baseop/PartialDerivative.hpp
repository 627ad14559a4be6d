#pragma once
/// Partial derivatives of fields on regular grids along the three index axes, by finite differences.
///
/// A scalar field has a field of vectors as derivative, component d along axis d. A field of vectors or points has a
/// field of tensors, row d of which (values 3d, 3d+1, 3d+2) is the derivative along axis d: the transpose of the usual
/// Jacobian. Derivatives are per unit of index; spacing and shape of the grid come in through the derivative of the
/// positions, by the chain rule.
///
/// Inside, central differences (e[m+1] - e[m-1]) * 0.5; at both ends of an axis the difference to the only neighbour.
/// Blanking     of fields on grids with masks, one-sided differences to the only neighbour that an edge leads to, and
///              zero where none does. What belongs to blanked cells only has no edges: its derivative is zero, and its
///              values are not looked at elsewhere.
/// Degenerate   an axis with two nodes has the same difference at both; along an axis with one node the derivative is
///              zero. NaN and infinities spread to the neighbours.
/// Failure      null handles, with texts in `errors`; nothing is thrown but std::invalid_argument for masks that do not
///              fit.
/// Concurrency  different fragments from any number of threads. One fragment is computed by all OpenMP threads of the
///              caller's settings, with the same result as by one.
/// Cost         one pass at the speed of memory.

#include <baseop/BaseOpExport.hpp>
#include <model/hestra/Cache.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/MemArray.hpp>

#include <new>
#include <stdexcept>
#include <string>

namespace Vantle {

/// Computes derivatives of one kind of array.
///
/// A derivator takes part in the functions below from its constructor to its destructor, wherever it lives: behind
/// handles, on the stack, static, made with `new`. Derivators are asked in the order of their making, the ones of this
/// library first.
/// Concurrency  stateless, and used in any thread. An owned one lives as long as a call uses it; one without handles
///              must outlive the calls of all threads. Making one waits for nobody, so other threads may ask it as soon
///              as its constructor has begun to run: a class with members of its own is made while they do not.
class VANTLE_BASEOP_API PartialDerivatorBase : public Hestra::ReferenceBase<PartialDerivatorBase> {
public:
    ~PartialDerivatorBase() override;

    /// Whether arrays of this element type and rank can be derived.
    [[nodiscard]] virtual bool isPartialDerivable(const MemArrayProperties& properties) const = 0;
    /// A new array with the derivative of `data`; null for arrays that are not accepted, and without memory for it.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase>
    doPartialDerivative(const Hestra::StrongPtr<MemBase>& data) const = 0;
    /// The same where only a part of the data is valid. By default null: who does not know masks derives no such data.
    [[nodiscard]] virtual Hestra::StrongPtr<MemBase> doMaskedDerivative(const Hestra::StrongPtr<MemBase>& data,
                                                                        const BlockMask& mask) const;

    /// Takes the derivator out. Who overrides this calls it.
    void extremeUnction() override;

protected:
    PartialDerivatorBase();
    PartialDerivatorBase(const PartialDerivatorBase&) : PartialDerivatorBase() {}
    PartialDerivatorBase& operator=(const PartialDerivatorBase&) = default;
};

/// The kernels: what the derivative of an array consists of `Result` for. For further types, specialise this with a
/// `compute` of the same form and make a `PartialDerivator` of them.
template<class Result>
struct VANTLE_BASEOP_API Derivative {
    /// A new array of the same extents with the derivative of `source`, by a mask of these extents if there is one.
    /// Failure  `Hestra::MemoryException` or `std::length_error` when it is too large.
    template<int N, class T>
    [[nodiscard]] static Hestra::Ref<MemArray<N, Result>> compute(const MemArray<N, T>& source,
                                                                  const BlockMask* mask = nullptr);
};

extern template struct VANTLE_BASEOP_API Derivative<Orvix::PhysicalSpace::vector>;
extern template struct VANTLE_BASEOP_API Derivative<Orvix::Quadratic<3, double>>;
extern template VANTLE_BASEOP_API Hestra::Ref<MemArray<3, Orvix::PhysicalSpace::vector>>
Derivative<Orvix::PhysicalSpace::vector>::compute<3, double>(const MemArray<3, double>&, const BlockMask*);
extern template VANTLE_BASEOP_API Hestra::Ref<MemArray<3, Orvix::Quadratic<3, double>>>
Derivative<Orvix::Quadratic<3, double>>::compute<3, Orvix::PhysicalSpace::vector>(
    const MemArray<3, Orvix::PhysicalSpace::vector>&, const BlockMask*);
extern template VANTLE_BASEOP_API Hestra::Ref<MemArray<3, Orvix::Quadratic<3, double>>>
Derivative<Orvix::Quadratic<3, double>>::compute<3, Orvix::PhysicalSpace::point>(
    const MemArray<3, Orvix::PhysicalSpace::point>&, const BlockMask*);

template<class SourceArray, class Result>
class PartialDerivator;

/// Derivator from arrays in memory, `MemArray<N, T>`, to arrays of `Result`.
template<int N, class T, class Result>
class PartialDerivator<MemArray<N, T>, Result> : public PartialDerivatorBase {
public:
    [[nodiscard]] bool isPartialDerivable(const MemArrayProperties& properties) const override {
        return properties.rank() == N && properties.elementType() == VantleTypeIndex(typeid(T));
    }
    [[nodiscard]] Hestra::StrongPtr<MemBase>
    doPartialDerivative(const Hestra::StrongPtr<MemBase>& data) const override {
        return derive(data, [](const auto& source) { return Derivative<Result>::template compute<N, T>(source); });
    }
    /// Where the kernel takes a mask.
    [[nodiscard]] Hestra::StrongPtr<MemBase> doMaskedDerivative(const Hestra::StrongPtr<MemBase>& data,
                                                                const BlockMask& mask) const override {
        return derive(data, [&]<class Source>(const Source& source) -> Hestra::StrongPtr<MemBase> {
            if constexpr (requires { Derivative<Result>::template compute<N, T>(source, &mask); })
                return Derivative<Result>::template compute<N, T>(source, &mask);
            else
                return nullptr;
        });
    }

private:
    template<class Compute>
    [[nodiscard]] static Hestra::StrongPtr<MemBase> derive(const Hestra::StrongPtr<MemBase>& data,
                                                           const Compute& compute) {
        const auto* const source = dynamic_cast<const MemArray<N, T>*>(data.rawptr());
        if (!source) return nullptr;
        try {
            return compute(*source);
        } catch (const std::bad_alloc&) {
        } catch (const std::length_error&) {
        }
        return nullptr;
    }
};

/// A new array with the derivative of `data`: `MemArray<3, double>` gives `MemArray<3, PhysicalSpace::vector>`,
/// `MemArray<3, PhysicalSpace::vector>` and `MemArray<3, PhysicalSpace::point>` give `MemArray<3, Quadratic<3,
/// double>>`, and so do vectors and points in single precision, whose differences are taken in double precision. Null
/// for everything else, numbers in single precision included, unless a derivator was added for it.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<MemBase> PartialDerivative(const Hestra::StrongPtr<MemBase>& data);

/// Whether the data of a fragment can be derived, by the element type and rank that its creator announces (in
/// `MemArrayProperties`, or by its type and `SizeInterface`) or that existing data have. Makes no data.
///
/// True for an unknown rank with a suitable element type, and for positions that are computed, those of uniform grids
/// for example, which have the type but no memory to derive. False for a null handle.
[[nodiscard]] VANTLE_BASEOP_API bool isPartialDerivable(const Hestra::StrongPtr<CreativeArrayBase>& creator);

/// A new creator that holds the derivative of a fragment. The cache may drop it; it is computed again from the
/// fragment then, whose creator stays alive with the new one. With a null cache it is kept. It is as old as the
/// fragment's creator, or younger: when that has become newer, the next `create` derives what it holds then.
///
/// Failure  null, and one of these added to `errors`: "No creator for fragment ", "No creator element type unsupported
///          for fragment ", "No data available for fragment ", "No derivation computed for fragment ".
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<CreativeArray>
PartialDerivative(const Hestra::StrongPtr<CreativeArrayBase>& creator, std::string& errors,
                  const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

/// A new field with the derivative of every fragment of `source`, stored in the destination under `name`, which it
/// replaces; its key there is shared with the source's representation.
///
/// The masks beside the source count (`Blanking`), as they are whenever the derivative is asked for.
/// Fragments that cannot be derived stay without data; for each, a line is added to `errors`: the message as above and
/// the fragment's name. Where the field has global data besides fragments, both are derived, and fragments without
/// data of their own are no error.
/// The derivative follows source and masks as long as these live, and is not older (`DerivedField`): fragments whose
/// data were replaced, touched or removed are derived again when they are asked for. Fragments that the source gets
/// later are not in it. A mask that is itself made from the derivative belongs to another grid.
/// Failure  null, and nothing stored, when no fragment could be derived.
VANTLE_BASEOP_API Hestra::StrongPtr<Field>
PartialDerivative(Field& source, const std::string& name, Representation& sourceRepresentation,
                  Representation& destinationRepresentation, std::string& errors,
                  const Hestra::StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache());

} // namespace Vantle
