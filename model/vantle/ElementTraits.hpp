#pragma once
/// What the array classes know about element types at compile time: components, storage form, text.

#include <model/orvix/DomainVector.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/orvix/Quadratic.hpp>
#include <model/vantle/Index.hpp>
#include <model/vantle/Simplex.hpp>

#include <string>
#include <type_traits>

namespace Vantle {

/// How the components of an element are numbered.
enum class IndexingScheme {
    None,      ///< no components: the element is a whole
    Scalar,    ///< a single number
    Linear,    ///< one index
    Square,    ///< row and column, row by row
    Symmetric, ///< row and column, the upper triangle row by row
};

/// Components of an element type: their type (`component_type`), how many (`components`, 0 for none), their
/// indexing scheme. An element with components consists of them and nothing else.
template<class T>
struct ElementTraits {
    using component_type = T;
    static constexpr int components = 0;
    static constexpr IndexingScheme scheme = IndexingScheme::None;
};

template<class T>
requires std::is_arithmetic_v<T>
struct ElementTraits<T> {
    using component_type = T;
    static constexpr int components = 1;
    static constexpr IndexingScheme scheme = IndexingScheme::Scalar;
};

namespace detail {

template<class T, int N>
Orvix::FixedArray<T, N> fixedArrayBase(const Orvix::FixedArray<T, N>&);
template<class T>
concept DerivedFromFixedArray = requires(const T& element) {
    fixedArrayBase(element);
};

} // namespace detail

template<class T>
requires detail::DerivedFromFixedArray<T>
struct ElementTraits<T> {
    using array_type = decltype(detail::fixedArrayBase(std::declval<const T&>()));
    using component_type = typename array_type::value_type;
    static constexpr int components = array_type::Size;
    static constexpr IndexingScheme scheme = IndexingScheme::Linear;
};

template<int N, class T>
struct ElementTraits<Orvix::Quadratic<N, T>> {
    using array_type = Orvix::FixedArray<T, N * N>;
    using component_type = T;
    static constexpr int components = N * N;
    static constexpr IndexingScheme scheme = IndexingScheme::Square;
};

template<>
struct ElementTraits<Orvix::PhysicalSpace::Metric> {
    using array_type = Orvix::FixedArray<double, 6>;
    using component_type = double;
    static constexpr int components = 6;
    static constexpr IndexingScheme scheme = IndexingScheme::Symmetric;
};

template<int D, class IndexType, class Convention>
struct ElementTraits<SimplexCell<D, IndexType, Convention>> {
    using component_type = IndexType;
    static constexpr int components = D + 1;
    static constexpr IndexingScheme scheme = IndexingScheme::Linear;
};

/// The coordinate system that the components of `T` refer to; void when they refer to none.
template<class T>
struct ElementChart {
    using type = void;
};
template<class T>
requires(std::is_same_v<T, Orvix::PhysicalSpace::point> || std::is_same_v<T, Orvix::PhysicalSpace::vector> ||
         std::is_same_v<T, Orvix::PhysicalSpace::bivector> || std::is_same_v<T, Orvix::PhysicalSpace::Metric> ||
         std::is_same_v<T, Orvix::Coordinates<Orvix::Cartesian3D, float>::point> ||
         std::is_same_v<T, Orvix::Coordinates<Orvix::Cartesian3D, float>::vector>) struct ElementChart<T> {
    using type = Orvix::Cartesian3D;
};
template<class V, class Domain, class T>
struct ElementChart<Orvix::DomainVector<V, Domain, T>> {
    using type = Domain;
};

namespace detail {

template<class T>
struct ElementStorage {
    using type = T;
};
template<class T>
requires(DerivedFromFixedArray<T>&&
             std::is_constructible_v<T, const typename ElementTraits<T>::array_type&>) struct ElementStorage<T> {
    using type = typename ElementTraits<T>::array_type;
    static_assert(sizeof(type) == sizeof(T) && std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T>);
};

} // namespace detail

/// The type through which read-only views see elements of type `T`: `T` itself, or the plain array that points,
/// vectors and their like are made of, so that one memory can be read as either.
template<class T>
using ElementStorage = typename detail::ElementStorage<T>::type;

/// Component `c` of an element.
template<class T>
requires(ElementTraits<T>::components > 0) [[nodiscard]] constexpr auto& elementComponent(T& element, int c) noexcept {
    if constexpr (std::is_arithmetic_v<T>)
        return (void)c, element;
    else
        return element[c];
}
template<class T>
requires(ElementTraits<T>::components > 0) [[nodiscard]] constexpr const
    auto& elementComponent(const T& element, int c) noexcept {
    if constexpr (std::is_arithmetic_v<T>)
        return (void)c, element;
    else
        return element[c];
}

/// The text of an element: numbers as by `std::to_string`, components as `{a,b,c}`, indices as `[1x2]`, texts
/// themselves, `[{???}]` for fragments; empty for what has no such form.
template<class T>
[[nodiscard]] std::string elementText(const T& element) {
    if constexpr (std::is_arithmetic_v<T>) {
        return std::to_string(element);
    } else if constexpr (ElementTraits<T>::components > 0) {
        std::string text = "{";
        for (int c = 0; c < ElementTraits<T>::components; ++c) {
            if (c) text += ',';
            text += std::to_string(elementComponent(element, c));
        }
        return text += '}';
    } else if constexpr (std::is_same_v<T, std::string>) {
        return element;
    } else if constexpr (std::is_same_v<T, FragmentIDContainer>) {
        return "[{?"
               "??}]"; // in two pieces: the question marks would read as a trigraph
    } else if constexpr (requires { to_string(element); }) {
        return to_string(element);
    } else {
        return {};
    }
}

/// The name of component `c` of an element of type `T`: a coordinate, a colour, or its number.
template<class T>
[[nodiscard]] std::string componentName(int c) {
    using System = typename ElementChart<T>::type;
    if constexpr (std::is_same_v<System, Orvix::Cartesian3D> && ElementTraits<T>::components == 3) {
        if (c >= 0 && c < 3) return std::string(1, "xyz"[c]);
    } else if constexpr (std::is_same_v<System, Orvix::RGB> || std::is_same_v<System, Orvix::RGBA>) {
        if (c >= 0 && c < ElementTraits<T>::components) return std::string(1, "rgba"[c]);
    }
    return std::to_string(c);
}

} // namespace Vantle
