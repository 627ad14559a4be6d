#include <baseop/DerivedQuantities.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/orvix/Quadratic.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;
using Tensor = Orvix::Quadratic<3, double>;

namespace {

/// A new array of `at(n)` for all elements.
template<class R, class At>
StrongPtr<MemBase> fill(const MultiIndex<3>& size, const WeakPtr<CreativeArrayBase>& creator, const At& at) {
    const auto made = MemArray<3, R>::create(size, creator);
    R* const target = made->getPtr();
    const auto count = static_cast<std::size_t>(made->nElements());
    detail::inParallel(count, 16384, count * (sizeof(R) + sizeof(Tensor)), [&](std::size_t begin, std::size_t end) {
        for (std::size_t n = begin; n < end; ++n) target[n] = at(index_t{n});
    });
    return made;
}

/// The field of `derive(data, creator)`, elements of type `R`.
template<class R, class Derive>
StrongPtr<Field> deriveField(const StrongPtr<Field>& source, const StrongPtr<Hestra::Cache>& cache,
                             const Derive& derive) {
    if (!source) return nullptr;
    const WeakPtr<const Field> weak(*source);
    const auto fromDoubles = [derive](const StrongPtr<MemBase>& data, const WeakPtr<CreativeArrayBase>& creator) {
        const StrongPtr<MemBase> converted = convertToDoublePrecision(*data);
        return derive(converted ? converted : data, creator);
    };
    const StrongPtr<Field> result = Hestra::makeRef<DerivedField>(weak, source->getFragmentIDCollection());
    source->iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            result->setCreator(Hestra::makeRef<DerivedArray>(DerivedArray::Source(creator, weak, id), fromDoubles,
                                                             VantleTypeIndex(typeid(R)), getSize(*creator), cache),
                               id);
            return true;
        },
        false);
    return result;
}

/// The field of `value(element)`, from elements of type `T`.
template<class T, class Value>
StrongPtr<Field> deriveEach(const StrongPtr<Field>& source, const StrongPtr<Hestra::Cache>& cache, const Value& value) {
    using R = std::decay_t<std::invoke_result_t<Value, const T&>>;
    return deriveField<R>(source, cache, [value](const StrongPtr<MemBase>& data, const auto& creator) {
        StrongPtr<MemBase> made;
        withMemArray<3>(TypeList<T>(), data, [&](const MemArray<3, T>& array) {
            made = fill<R>(array.Size(), creator, [&](index_t n) { return value(array.element(n)); });
        });
        return made;
    });
}

} // namespace

StrongPtr<Field> makeMagnitude(const StrongPtr<Field>& vectors, const StrongPtr<Hestra::Cache>& cache) {
    return deriveEach<PhysicalSpace::vector>(vectors, cache, [](const PhysicalSpace::vector& v) { return length(v); });
}

StrongPtr<Field> makeVorticity(const StrongPtr<Field>& gradient, const StrongPtr<Hestra::Cache>& cache) {
    return deriveEach<Tensor>(gradient, cache, [](const Tensor& d) {
        return PhysicalSpace::vector(d(1, 2) - d(2, 1), d(2, 0) - d(0, 2), d(0, 1) - d(1, 0));
    });
}

StrongPtr<Field> makeDivergence(const StrongPtr<Field>& gradient, const StrongPtr<Hestra::Cache>& cache) {
    return deriveEach<Tensor>(gradient, cache, [](const Tensor& d) { return d(0, 0) + d(1, 1) + d(2, 2); });
}

StrongPtr<Field> makeQCriterion(const StrongPtr<Field>& gradient, const StrongPtr<Hestra::Cache>& cache) {
    return deriveEach<Tensor>(gradient, cache, [](const Tensor& d) {
        // |W|^2 - |S|^2 is minus the trace of the square.
        const double diagonal = d(0, 0) * d(0, 0) + d(1, 1) * d(1, 1) + d(2, 2) * d(2, 2);
        return -0.5 * diagonal - (d(0, 1) * d(1, 0) + d(0, 2) * d(2, 0) + d(1, 2) * d(2, 1));
    });
}

} // namespace Vantle
