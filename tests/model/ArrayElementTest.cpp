#include <support/Testing.hpp>

// Element types of every sort in every rank, against plain index arithmetic on a vector.

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
    } else if constexpr (std::is_same_v<T, std::list<MultiIndex<3>>>) {
        value.assign(k % 5, MultiIndex<3>(k, k + 1, k + 2));
    } else if constexpr (std::is_same_v<T, MultiIndex<2>>) {
        value = MultiIndex<2>(k, k + 1);
    } else if constexpr (std::is_same_v<T, FragmentIDContainer>) {
        for (index_t n = 0; n < k % 5; ++n) value.add(nullptr);
    } else {
        static_assert(std::is_same_v<T, StrongPtr<FragmentID>>);
        static std::map<index_t, T> fragments;
        T& fragment = fragments[k];
        if (!fragment) fragment = makeRef<FragmentID>(std::to_string(k));
        value = fragment;
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
    explicit Block(const MultiIndex<N>& extents) : size(extents) {
        for (index_t k = 0; k < size.product(); ++k) plain.push_back(sample<T>(k));
        array = MemArray<N, T>::makeMemArray(plain, size);
    }
    [[nodiscard]] index_t number(const MultiIndex<N>& index) const { return plainNumber(index, size); }
    MultiIndex<N> size;
    std::vector<T> plain;
    StrongPtr<ReferencingMemArray<N, T>> array;
};

// The checks below run for every type and rank; they name what is wrong instead of expecting one by one, since
// each expectation would be compiled more than a hundred times.

/// Nothing when every way to reach an element of `array` leads to plain[number(index)], else what does not.
template<int N, class T, class Number>
std::string wrongElement(MemArray<N, T>& array, const std::vector<T>& plain, const Number& number) {
    const MultiArrayBase<N, T>& view = array;
    const MemArray<N, T>& constant = array;
    const Hyperslab<N> slab = array.getHyperslabParameters();
    MultiIndex<N> index;
    index_t k = 0;
    do {
        const T& expected = plain[number(index)];
        index_t place = slab.offset;
        for (int axis = 0; axis < N; ++axis) place += slab.stride[axis] * index[axis];
        const char* wrong = !same(array[index], expected)                       ? "operator[]"
                            : &constant[index] != &array[index]                 ? "operator[] const"
                            : !same(view.getElement(index), expected)           ? "getElement"
                            : &array.element(k) != &array[index]                ? "element"
                            : &array.getIterator()[k] != &array[index]          ? "getIterator"
                            : !same(array.creativeIterator()[k], expected)      ? "creativeIterator"
                            : array.getIterator().data + place != &array[index] ? "getHyperslabParameters"
                                                                                : nullptr;
        if (wrong) return wrong + to_string(index);
        ++k;
    } while (index.advance(array.Size()));
    if (array.nElements() != k || array.getIterator().size() != k) return "count";
    if (!same(array.first(), plain[number(MultiIndex<N>())])) return "first";
    if (!same(array.last(), plain[number(array.Size() - 1)])) return "last";
    return {};
}

template<class T, int N>
std::string wrongSubArray(std::mt19937_64& random) {
    for (int repeat = 0; repeat < 5; ++repeat) {
        const Block<T, N> block(randomIndex(random, MultiIndex<N>::filled(5)) + 1);
        const auto whole = [&](const MultiIndex<N>& i) { return block.number(i); };
        if (auto wrong = wrongElement(*block.array, block.plain, whole); !wrong.empty()) return "whole " + wrong;
        if (block.array->memsize() != block.plain.size() * sizeof(T)) return "memsize";

        const MultiIndex<N> start = randomIndex(random, block.size);
        const MultiIndex<N> part = randomIndex(random, block.size - start) + 1;
        const auto sub = block.array->createSubMemArray(start, part);
        if (sub->Size() != part) return "size";
        const auto shifted = [&](const MultiIndex<N>& i) { return block.number(start + i); };
        if (auto wrong = wrongElement(*sub, block.plain, shifted); !wrong.empty()) return "part " + wrong;
        sub->data()[0] = sample<T>(1000);
        if (!same((*block.array)[start], block.plain[block.number(start)])) return "a copy shares memory";
        if (block.array->createSubMemArray(start, MultiIndex<N>())->nElements() != 0) return "empty part";
        if (block.array->copy()->base_vector().size() != block.plain.size()) return "copy";
    }
    return {};
}

template<class T, int N>
std::string wrongSlice(std::mt19937_64& random) {
    for (int repeat = 0; repeat < 5; ++repeat) {
        const Block<T, N> block(randomIndex(random, MultiIndex<N>::filled(4)) + 1);
        const index_t at = random() % block.size[N - 1];
        const StrongPtr<MemArray<N - 1, T>> slice = block.array->getSlice(at);
        const auto within = [&](const MultiIndex<N - 1>& i) {
            MultiIndex<N> index;
            for (int axis = 0; axis + 1 < N; ++axis) index[axis] = i[axis];
            index[N - 1] = at;
            return block.number(index);
        };
        if (auto wrong = wrongElement(*slice, block.plain, within); !wrong.empty()) return wrong;
        if (slice->memsize() != 0 || slice->getChunk()) return "a slice owns no chunk";
        if (block.array->getSlice(block.size[N - 1])) return "a slice beyond the extent";
        const MultiArrayBase<N - 1, T> view = MultiArrayBase<N, T>(*block.array).slice(at);
        for (index_t k = 0; k < view.nElements(); ++k)
            if (!same(view.element(k), slice->element(k))) return "view";

        slice->element(0) = sample<T>(1000);
        if (!same(block.array->element(within(MultiIndex<N - 1>())), sample<T>(1000))) return "no shared memory";
        if constexpr (N > 2) {
            const index_t next = random() % block.size[N - 2];
            const auto thin = slice->getSlice(next);
            for (index_t k = 0; k < thin->nElements(); ++k)
                if (&thin->element(k) != &slice->element(next * thin->nElements() + k)) return "slice of a slice";
        }
    }
    return {};
}

template<class T, int N>
std::string wrongComponent(std::mt19937_64& random) {
    const Block<T, N> block(randomIndex(random, MultiIndex<N>::filled(4)) + 1);
    if constexpr (ElementTraits<T>::components == 0) {
        if (block.array->componentArray(0)) return "component of a whole";
    } else {
        for (int c = 0; c < ElementTraits<T>::components; ++c) {
            const auto component = block.array->getComponentArray(c);
            if (!component) return "none";
            if (component->memsize() != 0 || component->getChunk()) return "a component owns no chunk";
            std::vector<typename ElementTraits<T>::component_type> plain;
            for (const T& element : block.plain) plain.push_back(elementComponent(element, c));
            const auto number = [&](const MultiIndex<N>& i) { return block.number(i); };
            if (auto wrong = wrongElement(*component, plain, number); !wrong.empty()) return wrong;
            if (&component->element(0) != &elementComponent(block.array->element(0), c)) return "no shared memory";
            if constexpr (N > 1) { // a slice of a component is the component of a slice
                const index_t at = block.size[N - 1] - 1;
                const auto first = component->getSlice(at);
                const auto second = block.array->getSlice(at)->getComponentArray(c);
                for (index_t k = 0; k < first->nElements(); ++k)
                    if (&first->element(k) != &second->element(k)) return "component of a slice";
            }
        }
        if (block.array->getComponentArray(-1) || block.array->getComponentArray(ElementTraits<T>::components))
            return "a component too many";
    }
    return {};
}

template<class T, int N>
std::string wrongWhenEmpty() {
    for (int axis = 0; axis < N; ++axis) {
        MultiIndex<N> size = MultiIndex<N>::filled(3);
        size[axis] = 0;
        const auto array = MemArray<N, T>::create(size);
        if (array->nElements() != 0 || array->memsize() != 0 || !array->getIterator().empty()) return "count";
        if (!same(array->first(), T{}) || !same(array->last(), T{})) return "ends";
        if (!array->getElementAsString(0).empty()) return "text";
        if (array->copy()->Size() != size) return "copy";
        const StrongPtr<MemBase> component = array->componentArray(0);
        if (component && component->nElements() != 0) return "component";
        if constexpr (N > 1) {
            const auto slice = array->getSlice(0);
            if (bool(slice) != (axis != N - 1)) return "slice";
            if (slice && slice->nElements() != 0) return "elements of a slice";
        }
    }
    return {};
}

template<class T>
class ArrayElementTest : public testing::Test {};

// One of each sort: numbers, storage forms, components, handles and what allocates.
using ElementTypes =
    testing::Types<double, unsigned char, index_t, short, point, PhysicalSpace::Metric, Orvix::Quadratic<3, double>,
                   Orvix::Coordinates<Orvix::Cartesian3D, float>::point, Orvix::ByteRGB, TriangleCell, MultiIndex<2>,
                   FragmentIDContainer, std::string, std::list<MultiIndex<3>>, StrongPtr<FragmentID>>;
TYPED_TEST_SUITE(ArrayElementTest, ElementTypes);

} // namespace

TYPED_TEST(ArrayElementTest, SubArraysMatchPlainIndexArithmetic) {
    std::mt19937_64 random(1);
    EXPECT_EQ((wrongSubArray<TypeParam, 1>(random)), "");
    EXPECT_EQ((wrongSubArray<TypeParam, 2>(random)), "");
    EXPECT_EQ((wrongSubArray<TypeParam, 3>(random)), "");
    EXPECT_EQ((wrongSubArray<TypeParam, 4>(random)), "");
}

TYPED_TEST(ArrayElementTest, SlicesShareTheSlowestAxisOfTheirParent) {
    std::mt19937_64 random(2);
    EXPECT_EQ((wrongSlice<TypeParam, 2>(random)), "");
    EXPECT_EQ((wrongSlice<TypeParam, 3>(random)), "");
    EXPECT_EQ((wrongSlice<TypeParam, 4>(random)), "");
    EXPECT_FALSE((MemArray<1, TypeParam>::create(3)->createSlice(0)));
}

TYPED_TEST(ArrayElementTest, ComponentArraysShareMemory) {
    std::mt19937_64 random(3);
    EXPECT_EQ((wrongComponent<TypeParam, 1>(random)), "");
    EXPECT_EQ((wrongComponent<TypeParam, 2>(random)), "");
    EXPECT_EQ((wrongComponent<TypeParam, 3>(random)), "");
    EXPECT_EQ((wrongComponent<TypeParam, 4>(random)), "");
}

TYPED_TEST(ArrayElementTest, EmptyArraysAreLegal) {
    EXPECT_EQ((wrongWhenEmpty<TypeParam, 1>()), "");
    EXPECT_EQ((wrongWhenEmpty<TypeParam, 2>()), "");
    EXPECT_EQ((wrongWhenEmpty<TypeParam, 3>()), "");
    EXPECT_EQ((wrongWhenEmpty<TypeParam, 4>()), "");
}

TYPED_TEST(ArrayElementTest, SlicesAndComponentsOutliveTheirParent) {
    StrongPtr<MemArray<2, TypeParam>> slice;
    StrongPtr<MemBase> component;
    WeakPtr<MemBase> parent;
    {
        const Block<TypeParam, 3> block(MultiIndex<3>(2, 3, 4));
        parent = WeakPtr<MemBase>(block.array);
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
    const auto chunk = makeRef<Hestra::TypedChunk<TypeParam>>(std::size_t{6});
    const auto matrix = MemArray<2, TypeParam>::makeMemArray(chunk, {2, 3});
    const auto same_size = matrix->createEquallySizedMemArray(chunk);
    const auto list = makeMemArray1D(chunk.strong());
    for (index_t k = 0; k < 6; ++k) list->element(k) = sample<TypeParam>(k);
    EXPECT_EQ(&(*matrix)(1, 2), &(*list)[5]);
    EXPECT_EQ(&(*same_size)(0, 0), &(*list)[0]);
    EXPECT_EQ(matrix->getChunk(), list->getChunk());
    const auto column = matrix->getSlice(1);
    const auto fresh = column->createEquallySizedMemArray(column->getChunk());
    EXPECT_TRUE(fresh->Size() == column->Size() && same(fresh->first(), TypeParam{})) << "no chunk to share";

    const auto copy = MemArray<2, TypeParam>::create({2, 2});
    EXPECT_TRUE(copy->copyFrom(chunk.strong()));
    for (index_t k = 0; k < 4; ++k) EXPECT_TRUE(same(copy->element(k), sample<TypeParam>(k)));
    const auto larger = MemArray<1, TypeParam>::create(7);
    EXPECT_FALSE(larger->copyFrom(chunk.strong()));
    EXPECT_FALSE(larger->copyFrom(makeRef<Hestra::TypedChunk<char>>(std::size_t{9})));
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
        const auto typed = dynamicCast<MemArray<2, TypeParam>>(result);
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
