#pragma once
/// Arrays from a rule for their elements.

#include <model/vantle/MemArray.hpp>

#include <type_traits>

namespace support {

/// An array whose elements are, converted, value(place), or value(n) for the n-th one; in this order.
template<class T, int N, class F>
Hestra::StrongPtr<Vantle::MemArray<N, T>> filled(const Vantle::MultiIndex<N>& size, const F& value) {
    const Hestra::StrongPtr<Vantle::MemArray<N, T>> array = Vantle::MemArray<N, T>::create(size).strong();
    for (Vantle::index_t n = 0; n < array->nElements(); ++n)
        if constexpr (std::is_invocable_v<const F&, const Vantle::MultiIndex<N>&>)
            array->element(n) = static_cast<T>(value(Vantle::MultiIndex<N>::fromLinear(n, size)));
        else
            array->element(n) = static_cast<T>(value(n));
    return array;
}
/// The same of three axes, whose size may be braced.
template<class T, class F>
Hestra::StrongPtr<Vantle::MemArray<3, T>> filled(const Vantle::MultiIndex<3>& size, const F& value) {
    return filled<T, 3>(size, value);
}

} // namespace support
