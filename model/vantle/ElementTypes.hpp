#pragma once
/// The element types of arrays, listed once: everything that exists for each of them is generated from here.

#include <model/vantle/ElementTraits.hpp>
#include <model/vantle/Fragment.hpp>

#include <list>
#include <string>
#include <vector>

/// Registered element types; arrays of ranks 1 to 4 of each are part of the library. `X` takes the type.
#define VANTLE_NUMBER_ELEMENT_TYPES(X)                                                                                 \
    X(double)                                                                                                          \
    X(float)                                                                                                           \
    X(int)                                                                                                             \
    X(unsigned char)                                                                                                   \
    X(unsigned short)                                                                                                  \
    X(unsigned int)                                                                                                    \
    X(unsigned long long)
#define VANTLE_SPACE_ELEMENT_TYPES(X)                                                                                  \
    X(Orvix::PhysicalSpace::point)                                                                                     \
    X(Orvix::PhysicalSpace::vector)                                                                                    \
    X(Orvix::PhysicalSpace::Metric)                                                                                    \
    X(Orvix::Quadratic<3, double>)
#define VANTLE_TUPLE_ELEMENT_TYPES(X)                                                                                  \
    X(Orvix::FixedArray<double, 2>)                                                                                    \
    X(Orvix::FixedArray<double, 3>)                                                                                    \
    X(Orvix::FixedArray<unsigned short, 3>)                                                                            \
    X(Orvix::DomainVector<Orvix::Vector<unsigned char, 3>, Orvix::RGB, unsigned char>)                                 \
    X(SimplexCell<1, unsigned int, IJ_CellNamingConvention>)                                                           \
    X(SimplexCell<2, unsigned int, IJ_CellNamingConvention>)
#define VANTLE_OTHER_ELEMENT_TYPES(X)                                                                                  \
    X(FragmentIDContainer)                                                                                             \
    X(std::string)                                                                                                     \
    X(std::vector<unsigned int>)                                                                                       \
    X(std::list<MultiIndex<3>>)
#define VANTLE_REGISTERED_ELEMENT_TYPES(X)                                                                             \
    VANTLE_NUMBER_ELEMENT_TYPES(X)                                                                                     \
    VANTLE_SPACE_ELEMENT_TYPES(X)                                                                                      \
    VANTLE_TUPLE_ELEMENT_TYPES(X)                                                                                      \
    VANTLE_OTHER_ELEMENT_TYPES(X)

/// Element types without registered factory, of which the library has arrays of some ranks. `X` takes type and rank.
#define VANTLE_UNREGISTERED_NUMBER_ARRAYS(X)                                                                           \
    X(long double, 3)                                                                                                  \
    X(short, 3)
#define VANTLE_UNREGISTERED_TUPLE_ARRAYS(X)                                                                            \
    X(VANTLE_TYPE(Orvix::Coordinates<Orvix::Cartesian3D, float>::point), 1)                                            \
    X(VANTLE_TYPE(Orvix::Coordinates<Orvix::Cartesian3D, float>::point), 3)                                            \
    X(VANTLE_TYPE(Orvix::Vector<double, 2>), 1)                                                                        \
    X(VANTLE_TYPE(Orvix::Vector<double, 2>), 3)                                                                        \
    X(VANTLE_TYPE(Orvix::Vector<double, 3>), 1)                                                                        \
    X(VANTLE_TYPE(Orvix::Vector<double, 3>), 3)                                                                        \
    X(VANTLE_TYPE(Orvix::DomainVector<Orvix::Vector<unsigned char, 4>, Orvix::RGBA, unsigned char>), 3)
#define VANTLE_UNREGISTERED_OTHER_ARRAYS(X)                                                                            \
    X(VANTLE_TYPE(Hestra::StrongPtr<FragmentID, FragmentID>), 3)                                                       \
    X(MultiIndex<2>, 1)                                                                                                \
    X(std::vector<unsigned long long>, 1)
#define VANTLE_UNREGISTERED_ARRAYS(X)                                                                                  \
    VANTLE_UNREGISTERED_NUMBER_ARRAYS(X)                                                                               \
    VANTLE_UNREGISTERED_TUPLE_ARRAYS(X)                                                                                \
    VANTLE_UNREGISTERED_OTHER_ARRAYS(X)
/// A type with commas as one argument of a macro.
#define VANTLE_TYPE(...) __VA_ARGS__

namespace Vantle {

/// A list of types, as a value.
template<class... T>
struct TypeList {};

namespace detail {
template<class Ignored, class... T>
TypeList<T...> typeListAfter(TypeList<Ignored, T...>);
} // namespace detail

#define VANTLE_LISTED(...) , __VA_ARGS__
/// The registered element types.
using RegisteredElementTypes =
    decltype(detail::typeListAfter(TypeList<void VANTLE_REGISTERED_ELEMENT_TYPES(VANTLE_LISTED)>()));
#undef VANTLE_LISTED

} // namespace Vantle
