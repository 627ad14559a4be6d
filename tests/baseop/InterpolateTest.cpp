#include <baseop/Interpolate.hpp>

#include <support/Testing.hpp>

namespace {

using Orvix::ByteRGB;
using Orvix::FixedArray;

using Random = std::mt19937_64;

/// One kind of kernel, told to the plain transcription as components and what each level makes of a sum.
template<class Element, class DelimiterType = NoDelimiter<Element>, bool Affine = false, class RealType = double>
struct Kernel {
    using T = Element;
    using Delimiter = DelimiterType;
    using Real = RealType;
    static constexpr bool affine = Affine;
    static constexpr int components = ElementTraits<T>::components;
    static constexpr bool isBytes = std::is_same_v<T, ByteRGB>;
    static constexpr bool truncates = std::is_same_v<Delimiter, RGBOperator>;
    using Components = std::array<Real, components>;

    static Real narrowed(int level, Real sum) {
        if constexpr (truncates) return level == 0 ? sum : std::trunc(sum);
        if constexpr (isBytes) return static_cast<Real>(std::lround(sum));
        if constexpr (std::is_same_v<T, float>) return static_cast<Real>(static_cast<float>(sum));
        return sum;
    }
    static Real combined(int level, Real lower, Real upper, double w0, double f) {
        if constexpr (affine) return narrowed(level, lower + (upper - lower) * f);
        return narrowed(level, lower * w0 + upper * f);
    }
};

using Kernels =
    testing::Types<Kernel<double>, Kernel<float>, Kernel<long double, NoDelimiter<long double>, false, long double>,
                   Kernel<vector>, Kernel<PhysicalSpace::Metric>, Kernel<point, NoDelimiter<point>, true>,
                   Kernel<ByteRGB, RGBOperator>, Kernel<ByteRGB>>;

/// The rules written out one axis after the other, on components, without a thought of speed.
template<class K>
struct Plain {
    using Components = typename K::Components;
    const std::vector<typename K::T>& elements;
    std::vector<index_t> extents;
    std::vector<double> position;
    int derived = -1;

    /// Axes 0 ... `axis` at the position, the slower ones at element `offset` of the array.
    Components value(int axis, index_t offset = 0) const {
        if (axis < 0) {
            Components result;
            for (int c = 0; c < K::components; ++c)
                result[static_cast<std::size_t>(c)] = elementComponent(elements[offset], c);
            return result;
        }
        const auto d = static_cast<std::size_t>(axis);
        index_t step = 1;
        for (std::size_t a = 0; a < d; ++a) step *= extents[a];
        const auto inner = [&](index_t i) { return value(axis - 1, offset + i * step); };
        const double x = position[d];
        const index_t n = extents[d];
        Components result{};
        if (axis == derived) {
            if (x < 0.0 || x >= static_cast<double>(n - 1)) return result;
            const auto i = static_cast<index_t>(x);
            const Components lower = inner(i), upper = inner(i + 1);
            for (std::size_t c = 0; c < result.size(); ++c) result[c] = K::narrowed(axis, upper[c] - lower[c]);
            return result;
        }
        const auto alone = [&](index_t i) {
            Components node = inner(i);
            for (auto& c : node) c = K::truncates ? K::narrowed(axis, c) : c;
            return node;
        };
        if (x <= 0.0) return alone(0);
        if (x + 1.0 >= static_cast<double>(n)) return alone(n - 1);
        const auto i = static_cast<index_t>(x);
        const double fl = std::floor(x);
        const double f = x - fl;
        if (f == 0.0) return alone(i);
        const double w0 = (1.0 - x) + fl;
        const Components lower = inner(i), upper = inner(i + 1);
        for (std::size_t c = 0; c < result.size(); ++c) result[c] = K::combined(axis, lower[c], upper[c], w0, f);
        return result;
    }
};

template<class Real>
bool sameBits(Real a, Real b) {
    return (a == b && std::signbit(a) == std::signbit(b)) || (a != a && b != b);
}

/// Elements of all sizes; among floating point ones also zeros of both signs, infinities and NaN.
template<class T>
T randomElement(Random& random) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_real_distribution<double> number(-1.0, 1.0);
    T element{};
    for (int c = 0; c < ElementTraits<T>::components; ++c) {
        using Component = typename ElementTraits<T>::component_type;
        auto& component = elementComponent(element, c);
        if constexpr (std::is_integral_v<Component>) {
            component = static_cast<Component>(byte(random));
        } else {
            constexpr auto infinity = std::numeric_limits<Component>::infinity();
            constexpr auto quietNaN = std::numeric_limits<Component>::quiet_NaN();
            const Component special[] = {0, Component(-0.0), infinity, -infinity, quietNaN};
            const int kind = byte(random);
            component = kind < 5 ? special[kind]
                                 : static_cast<Component>(std::ldexp(number(random), kind % 16 ? 0 : kind - 128));
        }
    }
    return element;
}

/// Positions inside and outside, on nodes, and one bit beside them.
double randomCoordinate(Random& random, index_t n) {
    const auto end = static_cast<double>(n);
    const double node = static_cast<double>(random() % n);
    constexpr double infinity = std::numeric_limits<double>::infinity();
    switch (random() % 12) {
    case 0:
        return node;
    case 1:
        return std::nextafter(node, -infinity);
    case 2:
        return std::nextafter(node, infinity);
    case 3:
        return node - 0.5;
    case 4:
        return std::uniform_real_distribution<double>(-1.5, end + 0.5)(random);
    case 5: {
        const double extremes[] = {-0.0, end - 1.0, end, 1e300, -1e300, infinity, -infinity, 1e-300};
        return extremes[random() % 8];
    }
    default:
        return std::uniform_real_distribution<double>(0.0, end - 1.0)(random);
    }
}

/// Elements made on demand; counts how many.
template<class T>
class Listed : public DataCreator<T> {
public:
    explicit Listed(const std::vector<T>& elements) : myElements(elements) {}
    T create(index_t k) const override { return ++count, myElements[k]; }
    mutable int count = 0;

private:
    const std::vector<T>& myElements;
};

template<class K>
class InterpolateTest : public testing::Test {
protected:
    using T = typename K::T;

    template<class Value>
    static void expectBits(const Value& value, const typename K::Components& expected, const char* where) {
        for (int c = 0; c < K::components; ++c) {
            const auto component = static_cast<typename K::Real>(elementComponent(value, c));
            ASSERT_TRUE(sameBits(component, expected[static_cast<std::size_t>(c)]))
                << where << ", component " << c << ": " << component << " instead of "
                << expected[static_cast<std::size_t>(c)];
        }
    }

    /// Random arrays seen in every form of view, and the whole position as well as each slice alone.
    template<int N, int D>
    static void compareWithPlain(int arrays, int positions) {
        using Tested = Interpolate<N, T, LinearIpol<T, K::affine>, double, typename K::Delimiter, D>;
        Random random(1000 * N + D);
        for (int a = 0; a < arrays; ++a) {
            MultiIndex<N> size;
            for (int axis = 0; axis < N; ++axis) size[axis] = 1 + random() % 5;
            std::vector<T> elements(size.product());
            for (T& element : elements) element = randomElement<T>(random);

            // A view of every third element, and a slice (the middle one of three) of an array of one more axis.
            std::vector<T> spread(3 * elements.size());
            std::vector<T> stacked(3 * elements.size());
            for (std::size_t k = 0; k < elements.size(); ++k) {
                spread[3 * k] = elements[k];
                stacked[elements.size() + k] = elements[k];
            }
            MultiIndex<N + 1> stackedSize;
            for (int axis = 0; axis < N; ++axis) stackedSize[axis] = size[axis];
            stackedSize[N] = 3;
            const Listed<T> made(elements), madeStacked(stacked);
            const MultiArray<N, T> dense(elements.data(), size);
            const MultiArray<N, T> strided(spread.data(), size, 3);
            const MultiArray<N + 1, T> whole(stacked.data(), stackedSize);
            const MultiArrayBase<N + 1, T> wholeMade(madeStacked, stackedSize);
            const MultiArrayBase<N, T> views[] = {dense, strided, whole.slice(1), MultiArrayBase<N, T>(made, size),
                                                  wholeMade.slice(1)};
            const char* names[] = {"dense", "strided", "slice", "made on demand", "slice made on demand"};

            for (int p = 0; p < positions; ++p) {
                FixedArray<double, N> position;
                Plain<K> plain{elements, {size.begin(), size.end()}, {}, D};
                for (int axis = 0; axis < N; ++axis) {
                    position[axis] = randomCoordinate(random, size[axis]);
                    plain.position.push_back(position[axis]);
                }
                const auto expected = plain.value(N - 1);
                const index_t slice = random() % size[N - 1];
                const auto expectedSlice = plain.value(N - 2, slice * (elements.size() / size[N - 1]));
                for (std::size_t v = 0; v < std::size(views); ++v) {
                    SCOPED_TRACE(testing::Message() << "size " << std::to_string(size) << " position " << position);
                    expectBits(Tested(views[v], position).evaluate(), expected, names[v]);
                    expectBits(Tested(views[v], position)[slice], expectedSlice, names[v]);
                    if (testing::Test::HasFatalFailure()) return;
                }
            }
        }
    }
};
TYPED_TEST_SUITE(InterpolateTest, Kernels);

TYPED_TEST(InterpolateTest, HasTheBitsOfTheNestedRule) {
    this->template compareWithPlain<2, -1>(80, 60);
    this->template compareWithPlain<3, -1>(80, 60);
}

TYPED_TEST(InterpolateTest, DerivativesHaveTheBitsOfTheNestedRule) {
    if constexpr (!TypeParam::affine && !TypeParam::isBytes) {
        this->template compareWithPlain<2, 0>(40, 60);
        this->template compareWithPlain<2, 1>(40, 60);
        this->template compareWithPlain<3, 0>(40, 60);
        this->template compareWithPlain<3, 1>(40, 60);
        this->template compareWithPlain<3, 2>(40, 60);
    }
}

TEST(InterpolateBorderTest, ReadsOnlyWhatItNeedsAndDefinesNaNAndEmpty) {
    std::vector<double> elements(27, 1.0);
    const Listed<double> made(elements);
    const MultiArrayBase<3, double> view(made, MultiIndex<3>(3, 3, 3));
    const auto reads = [&](double x, double y, double z) {
        made.count = 0;
        EXPECT_EQ(interpolateAt(view, {x, y, z}), 1.0);
        return made.count;
    };
    EXPECT_EQ(reads(0.5, 1.5, 0.25), 8);
    EXPECT_EQ(reads(1.0, 1.5, 0.25), 4);
    EXPECT_EQ(reads(-3.0, 1.0, 5.0), 1);

    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    elements[0] = 7.0;
    EXPECT_EQ(interpolateAt(view, {nan, nan, nan}), 7.0);
    EXPECT_EQ(differentiateAt<0>(view, {nan, 0.0, 0.0}), 0.0);
    EXPECT_EQ(differentiateAt<0>(view, {0.0, nan, nan}), -6.0);
    EXPECT_EQ(interpolateAt(MultiArrayBase<3, double>(), {0.5, 0.5, 0.5}), 0.0);
}

} // namespace
