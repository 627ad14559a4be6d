#include <model/vantle/MemArray.hpp>
#include <model/vantle/PullData.hpp>

#include <gtest/gtest.h>
#include <numeric>
#include <random>

// Every element type in every rank, against plain index arithmetic on a vector.

using namespace Vantle;
using Hestra::StrongPtr;

namespace {

/// An element that differs from those of other small numbers, in every component where there are several.
template<class T>
T sample(index_t k) {
    T value{};
    if constexpr (ElementTraits<T>::components > 0) {
        using Component = typename ElementTraits<T>::component_type;
        for (int c = 0; c < ElementTraits<T>::components; ++c)
            elementComponent(value, c) = static_cast<Component>((k * 11 + static_cast<index_t>(c)) % 251);
    } else if constexpr (std::is_same_v<T, std::string>) {
        value = "element " + std::to_string(k);
    } else if constexpr (std::is_same_v<T, std::vector<unsigned int>> || std::is_same_v<T, std::vector<index_t>>) {
        value.assign(k % 5, static_cast<typename T::value_type>(k));
    } else if constexpr (std::is_same_v<T, std::list<MultiIndex<3>>>) {
        value.assign(k % 5, MultiIndex<3>(k, k + 1, k + 2));
    } else if constexpr (std::is_same_v<T, MultiIndex<2>>) {
        value = MultiIndex<2>(k, k + 1);
    } else if constexpr (std::is_same_v<T, FragmentIDContainer>) {
        for (index_t n = 0; n < k % 5; ++n) value.add(nullptr);
    } else {
        static_assert(std::is_same_v<T, StrongPtr<FragmentID>>);
        value = Hestra::makeRef<FragmentID>(std::to_string(k));
    }
    return value;
}

template<class T>
bool same(const T& a, const T& b) {
    if constexpr (std::is_same_v<T, FragmentIDContainer>)
        return a.nFragments() == b.nFragments();
    else
        return a == b;
}

template<int N>
MultiIndex<N> randomIndex(std::mt19937_64& random, const MultiIndex<N>& limits) {
    MultiIndex<N> index;
    for (int axis = 0; axis < N; ++axis) index[axis] = random() % limits[axis];
    return index;
}

/// The number of an element, written out instead of taken from the class under test.
template<int N>
index_t plainNumber(const MultiIndex<N>& index, const MultiIndex<N>& size) {
    index_t number = 0, step = 1;
    for (int axis = 0; axis < N; ++axis) {
        number += index[axis] * step;
        step *= size[axis];
    }
    return number;
}

template<class T, int N>
struct Block {
    explicit Block(const MultiIndex<N>& size) {
        for (index_t k = 0; k < size.product(); ++k) plain.push_back(sample<T>(k));
        array = MemArray<N, T>::makeMemArray(plain, size);
    }
    std::vector<T> plain;
    StrongPtr<ReferencingMemArray<N, T>> array;
};

/// Every way to reach an element of `array` leads to plain[number(index)].
template<int N, class T, class Number>
void expectElements(MemArray<N, T>& array, const std::vector<T>& plain, const Number& number) {
    const MultiArrayBase<N, T>& view = array;
    const MemArray<N, T>& constant = array;
    MultiIndex<N> index;
    index_t k = 0;
    do {
        const T& expected = plain[number(index)];
        ASSERT_TRUE(same(array[index], expected)) << to_string(index);
        ASSERT_TRUE(same(constant[index], expected)) << to_string(index);
        ASSERT_TRUE(same(view.getElement(index), expected)) << to_string(index);
        ASSERT_TRUE(same(array.element(k), expected)) << to_string(index);
        ASSERT_TRUE(same(array.getIterator()[k], expected)) << to_string(index);
        ASSERT_TRUE(same(array.creativeIterator()[k], expected)) << to_string(index);
        ASSERT_EQ(&array[index], &array.element(k)) << to_string(index);
        const Hyperslab<N> slab = array.getHyperslabParameters();
        index_t place = slab.offset;
        for (int axis = 0; axis < N; ++axis) place += slab.stride[axis] * index[axis];
        ASSERT_EQ(array.getIterator().data + place, &array[index]) << to_string(index);
        ++k;
    } while (index.advance(array.Size()));
    EXPECT_EQ(array.nElements(), k);
    EXPECT_EQ(array.getIterator().size(), k);
    EXPECT_TRUE(same(array.first(), plain[number(MultiIndex<N>())]));
    EXPECT_TRUE(same(array.last(), plain[number(array.Size() - 1)]));
}

template<class T, int N>
void checkSubArrays(std::mt19937_64& random) {
    for (int repeat = 0; repeat < 5; ++repeat) {
        const MultiIndex<N> size = randomIndex(random, MultiIndex<N>::filled(5)) + 1;
        const Block<T, N> block(size);
        expectElements(*block.array, block.plain, [&](const MultiIndex<N>& i) { return plainNumber(i, size); });
        EXPECT_EQ(block.array->memsize(), block.plain.size() * sizeof(T));

        const MultiIndex<N> start = randomIndex(random, size);
        const MultiIndex<N> part = randomIndex(random, size - start) + 1;
        const auto sub = block.array->createSubMemArray(start, part);
        ASSERT_EQ(sub->Size(), part);
        expectElements(*sub, block.plain, [&](const MultiIndex<N>& i) { return plainNumber(start + i, size); });
        sub->data()[0] = sample<T>(1000);
        EXPECT_TRUE(same((*block.array)[start], block.plain[plainNumber(start, size)])) << "a copy shares no memory";

        const auto none = block.array->createSubMemArray(start, MultiIndex<N>());
        EXPECT_EQ(none->nElements(), 0u);
        EXPECT_EQ(block.array->copy()->base_vector().size(), block.plain.size());
    }
}

template<class T, int N>
void checkSlices(std::mt19937_64& random) {
    for (int repeat = 0; repeat < 5; ++repeat) {
        const MultiIndex<N> size = randomIndex(random, MultiIndex<N>::filled(4)) + 1;
        const Block<T, N> block(size);
        const index_t at = random() % size[N - 1];
        StrongPtr<MemArray<N - 1, T>> slice = block.array->getSlice(at);
        const auto whole = [&](const MultiIndex<N - 1>& i) {
            MultiIndex<N> index;
            for (int axis = 0; axis + 1 < N; ++axis) index[axis] = i[axis];
            index[N - 1] = at;
            return plainNumber(index, size);
        };
        expectElements(*slice, block.plain, whole);
        EXPECT_EQ(slice->memsize(), 0u);
        EXPECT_FALSE(slice->getChunk());
        EXPECT_FALSE(block.array->getSlice(size[N - 1]));
        const MultiArrayBase<N - 1, T> view = MultiArrayBase<N, T>(*block.array).slice(at);
        MultiIndex<N - 1> index;
        do ASSERT_TRUE(same(view.getElement(index), (*slice)[index]));
        while (index.advance(view.Size()));

        slice->element(0) = sample<T>(1000);
        EXPECT_TRUE(same(block.array->element(whole(MultiIndex<N - 1>())), sample<T>(1000))) << "a slice shares memory";

        if constexpr (N > 2) {
            const index_t next = random() % size[N - 2];
            const auto thin = slice->getSlice(next);
            for (index_t k = 0; k < thin->nElements(); ++k)
                ASSERT_EQ(&thin->element(k), &slice->element(next * thin->nElements() + k));
        }
    }
}

template<class T, int N>
void checkComponents(std::mt19937_64& random) {
    const MultiIndex<N> size = randomIndex(random, MultiIndex<N>::filled(4)) + 1;
    const Block<T, N> block(size);
    if constexpr (ElementTraits<T>::components == 0) {
        EXPECT_FALSE(block.array->componentArray(0));
    } else {
        for (int c = 0; c < ElementTraits<T>::components; ++c) {
            const auto component = block.array->getComponentArray(c);
            ASSERT_TRUE(component);
            EXPECT_EQ(component->memsize(), 0u);
            EXPECT_FALSE(component->getChunk());
            std::vector<typename ElementTraits<T>::component_type> plain;
            for (const T& element : block.plain) plain.push_back(elementComponent(element, c));
            expectElements(*component, plain, [&](const MultiIndex<N>& i) { return plainNumber(i, size); });
            EXPECT_EQ(&component->element(0), &elementComponent(block.array->element(0), c));
            if constexpr (N > 1) { // a slice of a component is the component of a slice
                const index_t at = size[N - 1] - 1;
                const auto first = component->getSlice(at);
                const auto second = block.array->getSlice(at)->getComponentArray(c);
                ASSERT_EQ(first->nElements(), second->nElements());
                for (index_t k = 0; k < first->nElements(); ++k) ASSERT_EQ(&first->element(k), &second->element(k));
            }
        }
        EXPECT_FALSE(block.array->getComponentArray(-1));
        EXPECT_FALSE(block.array->getComponentArray(ElementTraits<T>::components));
    }
}

template<class T, int N>
void checkEmpty() {
    for (int axis = 0; axis < N; ++axis) {
        MultiIndex<N> size = MultiIndex<N>::filled(3);
        size[axis] = 0;
        const auto array = MemArray<N, T>::create(size);
        EXPECT_EQ(array->nElements(), 0u);
        EXPECT_EQ(array->memsize(), 0u);
        EXPECT_TRUE(array->getIterator().empty());
        EXPECT_TRUE(same(array->first(), T{}));
        EXPECT_TRUE(same(array->last(), T{}));
        EXPECT_EQ(array->getElementAsString(0), "");
        EXPECT_EQ(array->copy()->Size(), size);
        if (const StrongPtr<MemBase> component = array->componentArray(0)) {
            EXPECT_EQ(component->nElements(), 0u);
        }
        if constexpr (N > 1) {
            const auto slice = array->getSlice(0);
            EXPECT_EQ(bool(slice), axis != N - 1);
            if (slice) {
                EXPECT_EQ(slice->nElements(), 0u);
            }
        }
    }
}

template<class T>
class ArrayElementTest : public testing::Test {};

template<class... A, class... B>
testing::Types<A..., B...> joined(TypeList<A...>, TypeList<B...>);
using AllElementTypes = decltype(joined(RegisteredElementTypes(), UnregisteredElementTypes()));
TYPED_TEST_SUITE(ArrayElementTest, AllElementTypes);

} // namespace

TYPED_TEST(ArrayElementTest, SubArraysMatchPlainIndexArithmetic) {
    std::mt19937_64 random(1);
    checkSubArrays<TypeParam, 1>(random);
    checkSubArrays<TypeParam, 2>(random);
    checkSubArrays<TypeParam, 3>(random);
    checkSubArrays<TypeParam, 4>(random);
}

TYPED_TEST(ArrayElementTest, SlicesShareTheSlowestAxisOfTheirParent) {
    std::mt19937_64 random(2);
    checkSlices<TypeParam, 2>(random);
    checkSlices<TypeParam, 3>(random);
    checkSlices<TypeParam, 4>(random);
    EXPECT_FALSE((MemArray<1, TypeParam>::create(3)->createSlice(0)));
}

TYPED_TEST(ArrayElementTest, ComponentArraysShareMemory) {
    std::mt19937_64 random(3);
    checkComponents<TypeParam, 1>(random);
    checkComponents<TypeParam, 2>(random);
    checkComponents<TypeParam, 3>(random);
    checkComponents<TypeParam, 4>(random);
}

TYPED_TEST(ArrayElementTest, EmptyArraysAreLegal) {
    checkEmpty<TypeParam, 1>();
    checkEmpty<TypeParam, 2>();
    checkEmpty<TypeParam, 3>();
    checkEmpty<TypeParam, 4>();
}

TYPED_TEST(ArrayElementTest, SlicesAndComponentsOutliveTheirParent) {
    StrongPtr<MemArray<2, TypeParam>> slice;
    StrongPtr<MemBase> component;
    Hestra::WeakPtr<MemBase> parent;
    {
        const Block<TypeParam, 3> block(MultiIndex<3>(2, 3, 4));
        parent = Hestra::WeakPtr<MemBase>(block.array);
        slice = block.array->getSlice(3);
        component = slice->componentArray(0);
    }
    EXPECT_TRUE(parent);
    EXPECT_TRUE(same((*slice)(1, 2), sample<TypeParam>(23)));
    slice = nullptr;
    EXPECT_EQ(bool(parent), bool(component)) << "a component of a slice keeps the memory, nothing else does";
    component = nullptr;
    EXPECT_FALSE(parent);
}

TYPED_TEST(ArrayElementTest, ArraysShareAndCopyChunks) {
    const auto chunk = Hestra::makeRef<Hestra::TypedChunk<TypeParam>>(std::size_t{6});
    const auto matrix = MemArray<2, TypeParam>::makeMemArray(chunk, {2, 3});
    const auto same_size = matrix->createEquallySizedMemArray(chunk.strong());
    const auto list = makeMemArray1D(chunk.strong());
    for (index_t k = 0; k < 6; ++k) list->element(k) = sample<TypeParam>(k);
    EXPECT_EQ(&(*matrix)(1, 2), &(*list)[5]);
    EXPECT_EQ(&(*same_size)(0, 0), &(*list)[0]);
    EXPECT_EQ(matrix->getChunk(), list->getChunk());

    const auto copy = MemArray<2, TypeParam>::create({2, 2});
    EXPECT_TRUE(copy->copyFrom(chunk.strong()));
    for (index_t k = 0; k < 4; ++k) EXPECT_TRUE(same(copy->element(k), sample<TypeParam>(k)));
    const auto larger = MemArray<1, TypeParam>::create(7);
    EXPECT_FALSE(larger->copyFrom(chunk.strong()));
    EXPECT_FALSE(larger->copyFrom(Hestra::makeRef<Hestra::TypedChunk<char>>(std::size_t{9})));
    EXPECT_TRUE(same(larger->first(), TypeParam{}));

    EXPECT_THROW((void)(MemArray<1, TypeParam>::makeMemArray(chunk, 7)), std::length_error);
    EXPECT_EQ(chunk->elements(), 6u);
    // Pushing into the vector may move it; the array follows when it is told.
    chunk->base_vector().resize(4096, sample<TypeParam>(3));
    list->DeferredConstructor();
    EXPECT_EQ(list->nElements(), 6u);
    EXPECT_EQ(list->data(), chunk->base_vector().data());
}

TYPED_TEST(ArrayElementTest, GatherMatchesPlainCopies) {
    std::mt19937_64 random(4);
    const Block<TypeParam, 2> block(MultiIndex<2>(3, 4));
    for (const index_t blockLength : {1u, 3u, 5u}) {
        const index_t blocks = 12 / blockLength;
        std::vector<index_t> selected(8);
        for (index_t& index : selected) index = random() % blocks;
        selected[7] = blocks - 1;
        const auto indices = makeMemArray1D(selected);
        StrongPtr<MemBase> result;
        ASSERT_TRUE(pullData(result, block.array, *indices, MultiIndex<2>(4, 2 * blockLength), blockLength));
        const auto typed = Hestra::dynamicCast<MemArray<2, TypeParam>>(result);
        ASSERT_TRUE(typed);
        for (index_t k = 0; k < typed->nElements(); ++k) {
            const index_t from = selected[k / blockLength] * blockLength + k % blockLength;
            EXPECT_TRUE(same(typed->element(k), block.plain[from]));
        }
        (*indices)[5] = blocks;
        EXPECT_FALSE(pullData(result, block.array, *indices, MultiIndex<2>(4, 2 * blockLength), blockLength));
        EXPECT_FALSE(result);
    }
}
