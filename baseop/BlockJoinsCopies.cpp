#include <baseop/BlockJoins.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <type_traits>

namespace Vantle {

using Hestra::StrongPtr;

namespace {

/// Element types that consist of numbers: of these, copies are compared.
#define VANTLE_LISTED(...) , __VA_ARGS__
using Comparable = decltype(detail::typeListAfter(
    TypeList<void VANTLE_NUMBER_ELEMENT_TYPES(VANTLE_LISTED) VANTLE_SPACE_ELEMENT_TYPES(VANTLE_LISTED)
                 VANTLE_TUPLE_ELEMENT_TYPES(VANTLE_LISTED) VANTLE_UNREGISTERED_NUMBER_TYPES(VANTLE_LISTED),
             FloatPoint, Orvix::Vector<double, 2>, Orvix::Vector<double, 3>>()));
#undef VANTLE_LISTED

/// The elements of an array, stored or computed.
template<class T>
std::optional<CreativeIterator<T>> elementsOf(const MemBase& data) {
    if (data.elementIndex() != typeid(T)) return std::nullopt;
    if (const auto* const stored = dynamic_cast<const TypedArray<T>*>(&data)) return stored->creativeIterator();
    if (const auto* const computed = dynamic_cast<const DataCreator<T>*>(&data))
        return CreativeIterator<T>(*computed, data.nElements());
    return std::nullopt;
}

/// Calls `function(elements, tag of T)` for the elements of a comparable type; false for others.
template<class... T, class F>
bool withElements(TypeList<T...>, const MemBase& data, F&& function) {
    const auto attempt = [&]<class U>(TypeList<U>) {
        const auto elements = elementsOf<U>(data);
        if (elements) function(*elements);
        return elements.has_value();
    };
    return (attempt(TypeList<T>()) || ...);
}

[[noreturn]] void refuse(const BlockJoins& joins, unsigned int block, const char* why) {
    throw std::invalid_argument("BlockJoins: the data of fragment \"" + FragmentID::Name(joins.fragment(block), {}) +
                                "\" have " + why);
}

/// The data of a block, null without any; refuses other extents than those of its positions.
StrongPtr<MemBase> dataOf(const BlockJoins& joins, const Field& field, unsigned int block) {
    const StrongPtr<MemBase> data = getDataInDoublePrecision(field, joins.fragment(block));
    MultiIndex<3> size;
    if (data && joins.size(block).product() > 0 && (!data->getDynamicSize().get(size) || size != joins.size(block)))
        refuse(joins, block, "other extents than its positions");
    return data;
}

/// Calls `function(shared, element, owner's element)` for the vertices of a block that somebody else owns, where both
/// have data: owner by owner, so that the data of one are held at a time.
template<class T, class F>
void forEachCopy(const BlockJoins& joins, const Field& field, unsigned int block, const CreativeIterator<T>& elements,
                 const F& function) {
    std::set<unsigned int> owners;
    for (const BlockJoins::Shared& shared : joins.shared(block)) owners.insert(shared.owner.block);
    for (const unsigned int owner : owners) {
        const StrongPtr<MemBase> array = dataOf(joins, field, owner);
        if (!array) continue;
        const std::optional<CreativeIterator<T>> owned = elementsOf<T>(*array);
        if (!owned) refuse(joins, owner, "other elements than those of a neighbour");
        for (const BlockJoins::Shared& shared : joins.shared(block))
            if (shared.owner.block == owner) function(shared, elements[shared.index], (*owned)[shared.owner.index]);
    }
}

/// The largest difference of a component, 0 for none; infinite when one of two is no number.
template<class T>
double differenceOf(const T& a, const T& b) {
    double largest = 0.0;
    for (int c = 0; c < ElementTraits<T>::components; ++c) {
        const auto x = elementComponent(a, c), y = elementComponent(b, c);
        if (x == y || (x != x && y != y)) continue;
        const double difference = std::abs(static_cast<double>(x) - static_cast<double>(y));
        largest = std::max(largest, difference > 0.0 ? difference : x != x || y != y ? HUGE_VAL : 0.0);
        if (largest == 0.0) largest = std::numeric_limits<double>::denorm_min(); // integers that are one double
    }
    return largest;
}

} // namespace

CopyDifference compareCopies(const BlockJoins& joins, const Field& field) {
    CopyDifference result;
    for (unsigned int block = 0; block < joins.blocks(); ++block) {
        const StrongPtr<MemBase> data = dataOf(joins, field, block);
        if (!data || !joins.isShared(block)) continue;
        const bool isKnown = withElements(Comparable(), *data, [&]<class T>(const CreativeIterator<T>& elements) {
            forEachCopy(joins, field, block, elements,
                        [&](const BlockJoins::Shared& shared, const T& own, const T& owners) {
                            const double difference = differenceOf(own, owners);
                            if (difference > 0.0) ++result.differing;
                            if (difference > result.largest) {
                                result.largest = difference;
                                result.where = {block, shared.index};
                            }
                        });
        });
        if (!isKnown) refuse(joins, block, "elements that do not consist of numbers");
    }
    return result;
}

StrongPtr<MemBase> ownersData(const BlockJoins& joins, const Field& field, unsigned int block) {
    const StrongPtr<MemBase> data = dataOf(joins, field, block);
    if (!data || !joins.isShared(block) || joins.hasOwnersCopies(field, block)) return data;
    StrongPtr<MemBase> result = data;
    const bool isKnown = withElements(Comparable(), *data, [&]<class T>(const CreativeIterator<T>& elements) {
        StrongPtr<MemArray<3, T>> copy;
        forEachCopy(joins, field, block, elements,
                    [&](const BlockJoins::Shared& shared, const T& own, const T& owners) {
                        // A class of plain numbers: long double has bits that mean nothing, which do no harm here.
                        if (std::memcmp(&own, &owners, sizeof(T)) == 0) return;
                        if (!copy) {
                            copy = MemArray<3, T>::create(joins.size(block), data->getCreator());
                            for (index_t n = 0; n < copy->nElements(); ++n) copy->element(n) = elements[n];
                            result = copy;
                        }
                        copy->element(shared.index) = owners;
                    });
    });
    if (!isKnown) refuse(joins, block, "elements that do not consist of numbers");
    return result;
}

} // namespace Vantle
