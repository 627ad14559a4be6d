#pragma once
/// The element types of arrays, listed once: everything that exists for each of them is generated from here.

#include <model/vantle/ElementTraits.hpp>
#include <model/vantle/Fragment.hpp>

#include <list>
#include <string>
#include <vector>

/// Registered element types; arrays of ranks 1 to 4 of each are part of the library. `X` takes the type. Of mappers,
/// which belong to the operations, no more than the name is known here: handles need no more.
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
#define VANTLE_MAPPER_ELEMENT_TYPES(X)                                                                                 \
    X(Hestra::StrongPtr<UniGridMapper, UniGridMapper>)                                                                 \
    X(Hestra::StrongPtr<TreeCellMapper, TreeCellMapper>)
#define VANTLE_REGISTERED_ELEMENT_TYPES(X)                                                                             \
    VANTLE_NUMBER_ELEMENT_TYPES(X)                                                                                     \
    VANTLE_SPACE_ELEMENT_TYPES(X)                                                                                      \
    VANTLE_TUPLE_ELEMENT_TYPES(X)                                                                                      \
    VANTLE_OTHER_ELEMENT_TYPES(X)                                                                                      \
    VANTLE_MAPPER_ELEMENT_TYPES(X)

/// Element types that arrays exist of, of the same ranks, but that stay out of the registry: what goes by registered
/// types (data ranges, new arrays for any field) does not take part in them.
#define VANTLE_UNREGISTERED_NUMBER_TYPES(X)                                                                            \
    X(long double)                                                                                                     \
    X(short)
#define VANTLE_UNREGISTERED_CLASS_TYPES(X)                                                                             \
    X(Orvix::Coordinates<Orvix::Cartesian3D, float>::point)                                                            \
    X(Orvix::Coordinates<Orvix::Cartesian3D, float>::vector)                                                           \
    X(Orvix::Vector<double, 2>)                                                                                        \
    X(Orvix::Vector<double, 3>)                                                                                        \
    X(Orvix::DomainVector<Orvix::Vector<unsigned char, 4>, Orvix::RGBA, unsigned char>)                                \
    X(Hestra::StrongPtr<FragmentID, FragmentID>)                                                                       \
    X(MultiIndex<2>)                                                                                                   \
    X(std::vector<unsigned long long>)
#define VANTLE_UNREGISTERED_ELEMENT_TYPES(X)                                                                           \
    VANTLE_UNREGISTERED_NUMBER_TYPES(X)                                                                                \
    VANTLE_UNREGISTERED_CLASS_TYPES(X)

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
/// Those of the others that arrays exist of.
using UnregisteredElementTypes =
    decltype(detail::typeListAfter(TypeList<void VANTLE_UNREGISTERED_ELEMENT_TYPES(VANTLE_LISTED)>()));
#undef VANTLE_LISTED

} // namespace Vantle
