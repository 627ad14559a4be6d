#pragma once
/// Creators for tests: around given elements, and lazy ones that count how often they ran; and what fields show of
/// them.

#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <string>
#include <vector>

namespace support {

/// A creator of its own around an array.
inline Hestra::StrongPtr<Vantle::CreativeArrayBase> creatorOf(const Hestra::StrongPtr<Vantle::MemBase>& array) {
    return Hestra::makeRef<Vantle::CreativeArray>(array);
}

/// A creator around an array of rank 1 of these elements.
template<class T>
Hestra::StrongPtr<Vantle::CreativeArrayBase> creatorOf(std::vector<T> elements) {
    return creatorOf(Hestra::StrongPtr<Vantle::MemBase>(Vantle::makeMemArray1D(std::move(elements))));
}

/// A lazy creator of an array of rank 1; `runs` counts how often the array was made. Without caching, the array lives
/// as long as whoever asked for it holds it.
template<class T>
Hestra::StrongPtr<Vantle::CreativeArrayBase> countingCreator(std::vector<T> elements, int& runs,
                                                             const Hestra::StrongPtr<Hestra::Cache>& cache = {}) {
    return Hestra::makeRef<Vantle::CreativeArray>(
        [elements, &runs](const Hestra::WeakPtr<Vantle::CreativeArrayBase>& creator) {
            ++runs;
            return Hestra::StrongPtr<Vantle::MemBase>(Vantle::makeMemArray1D(elements, creator));
        },
        Vantle::VantleTypeIndex(typeid(T)), Vantle::DynamicSize(), cache);
}

/// The names of a field's fragments in the order of its iteration, "?" behind those without creator.
inline std::vector<std::string> visited(const Vantle::Field& field, bool withNullCreators = true) {
    std::vector<std::string> names;
    field.iterate(
        [&](const auto& id, const auto& creator) {
            names.push_back(Vantle::FragmentID::Name(id, "<none>") + (creator ? "" : "?"));
            return true;
        },
        withNullCreators);
    return names;
}

inline Hestra::StrongPtr<Vantle::MemBase> numbers(std::vector<double> values) {
    return Vantle::makeMemArray1D(std::move(values));
}

} // namespace support
