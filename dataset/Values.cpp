#include <model/vantle/MemArray.hpp>

#include <dataset/Values.hpp>

namespace Vantle {

Values::Values(const Hestra::StrongPtr<MemBase>& array) {
    using Elements = TypeList<double, Vector, Point, Orvix::Quadratic<3, double>>;
    withMemArray<1>(Elements(), array, [&]<class T>(const MemArray<1, T>& values) {
        if (values.nElements() != 0 && !values.contiguous()) return;
        static_assert(sizeof(T) == sizeof(double) * ElementTraits<T>::components);
        myArray = array;
        myNumbers = reinterpret_cast<const double*>(values.data());
        mySize = static_cast<std::size_t>(values.nElements());
        myComponents = ElementTraits<T>::components;
    });
}

} // namespace Vantle
