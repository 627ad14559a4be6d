#include <dataset/Values.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

namespace {

/// Calls `f` with the array, of whatever rank it is.
template<class Elements, class F>
void withRank(const Elements& elements, const Hestra::StrongPtr<MemBase>& array, const F& f) {
    (void)(withMemArray<1>(elements, array, f) || withMemArray<3>(elements, array, f));
}

} // namespace

Values::Values(const Hestra::StrongPtr<MemBase>& given) {
    using Elements = TypeList<double, Vector, Point, Orvix::Quadratic<3, double>>;
    using Numbers = TypeList<float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;
    Hestra::StrongPtr<MemBase> array = given;
    withRank(Numbers(), given, [&](const auto& numbers) {
        std::vector<double> converted(static_cast<std::size_t>(numbers.nElements()));
        for (std::size_t k = 0; k < converted.size(); ++k) converted[k] = static_cast<double>(numbers.element(k));
        array = makeMemArray1D(std::move(converted)).strong();
    });
    withRank(Elements(), array, [&]<int N, class T>(const MemArray<N, T>& values) {
        if (values.nElements() != 0 && !values.contiguous()) return;
        static_assert(sizeof(T) == sizeof(double) * ElementTraits<T>::components);
        myArray = array;
        myNumbers = reinterpret_cast<const double*>(values.data());
        mySize = static_cast<std::size_t>(values.nElements());
        myComponents = ElementTraits<T>::components;
    });
}

} // namespace Vantle
