#pragma once
/// Results of interpolation, by the number of their components.

#include <dataset/Values.hpp>
#include <dataset/detail/Request.hpp>
#include <model/orvix/Quadratic.hpp>
#include <model/vantle/ElementTraits.hpp>
#include <model/vantle/MemArray.hpp>

#include <span>
#include <string>
#include <vector>

namespace Vantle::detail {

/// An array of doubles, vectors or tensors, and its numbers one after the other.
struct NumberArray {
    Hestra::StrongPtr<MemBase> array;
    std::span<double> numbers;

    /// An array for what is interpolated of a field whose elements have so many components, every number `fill`. Throws
    /// a `DataSetError` where such elements cannot be interpolated.
    template<int N>
    NumberArray(const std::string& field, int components, const MultiIndex<N>& size, double fill) {
        const auto make = [&]<class T>(T element) {
            for (int c = 0; c < ElementTraits<T>::components; ++c) elementComponent(element, c) = fill;
            const auto count = static_cast<std::size_t>(size.product());
            const auto made = MemArray<N, T>::makeMemArray(std::vector<T>(count, element), size);
            array = made;
            numbers = {reinterpret_cast<double*>(made->getPtr()),
                       count * static_cast<std::size_t>(ElementTraits<T>::components)};
        };
        if (components == 1)
            make(0.0);
        else if (components == 3)
            make(Vector());
        else if (components == 9)
            make(Orvix::Quadratic<3, double>());
        else
            throw DataSetError("field " + quoted(field) + " is of elements that cannot be interpolated");
    }
};

} // namespace Vantle::detail
