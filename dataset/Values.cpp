#include <dataset/Values.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

Values::Values(const Hestra::StrongPtr<MemBase>& given) {
    using Elements = TypeList<double, Vector, Point, Orvix::Quadratic<3, double>>;
    using Numbers = TypeList<float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;
    Hestra::StrongPtr<MemBase> array = given;
    withMemArray<1>(Numbers(), given, [&](const auto& numbers) {
        std::vector<double> converted(static_cast<std::size_t>(numbers.nElements()));
        for (std::size_t k = 0; k < converted.size(); ++k) converted[k] = static_cast<double>(numbers.element(k));
        array = makeMemArray1D(std::move(converted)).strong();
    });
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
