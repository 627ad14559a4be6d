// Kernels in vector lanes give the same bits in every width. That they are the right ones
// is tested with each operation, in the width that this processor takes.

#include <baseop/DataRange.hpp>
#include <baseop/ExactCellLocator.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/TangentialVectors.hpp>
#include <baseop/Threads.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/ValueBricks.hpp>
#include <model/hestra/Console.hpp>

#include <hwy/targets.h>
#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

/// Lanes of one width while it lives.
class Lanes {
public:
    explicit Lanes(std::int64_t target) { choose(target); }
    ~Lanes() { choose(0); }

private:
    static void choose(std::int64_t target) {
        hwy::SetSupportedTargetsForTest(target); // 0: those of the processor
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    }
};

using Bits = std::vector<std::uint64_t>;

template<class T>
void append(Bits& bits, T value) {
    std::uint64_t image = 0;
    std::memcpy(&image, &value, sizeof(T));
    // Which NaN an operation gives is not promised.
    if constexpr (std::is_floating_point_v<T>)
        if (value != value) image = ~std::uint64_t{0};
    bits.push_back(image);
}

/// Numbers around 0, with zeros of both signs; of floating point also others that are special, in half of the cases
/// NaN.
template<class T>
T randomNumber(std::mt19937_64& random, bool isWithNaN) {
    using Limits = std::numeric_limits<T>;
    if (random() % 8 == 0) {
        const T specials[] = {T{0}, static_cast<T>(-T{0}), Limits::max(),        Limits::lowest(),
                              T{1}, Limits::infinity(),    Limits::denorm_min(), Limits::quiet_NaN()};
        return specials[random() % (isWithNaN ? 8 : 7)];
    }
    if constexpr (std::is_floating_point_v<T>) return std::normal_distribution<T>()(random);
    return static_cast<T>(random());
}

template<class T>
void appendRange(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    std::vector<T> numbers(count);
    for (T& number : numbers) number = randomNumber<T>(random, isWithNaN);
    const auto creator = support::creatorOf(numbers);
    const auto range = DataRange<T>::compute(*creator, false, false);
    append(bits, range->getMin());
    append(bits, range->getMax());
}

template<class Point>
void appendBox(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    std::vector<Point> points(count);
    for (Point& point : points)
        for (auto& x : point) x = randomNumber<typename Point::value_type>(random, isWithNaN);
    StrongPtr<BoundingBox> box;
    ASSERT_TRUE(ExpandBBox(box, *support::creatorOf(points)));
    for (int axis = 0; axis < 3; ++axis) {
        append(bits, box->minCoord()[axis]);
        append(bits, box->maxCoord()[axis]);
    }
}

void appendTangents(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    std::vector<point> points(count + 1);
    for (point& p : points)
        for (double& x : p) x = randomNumber<double>(random, isWithNaN);
    std::vector<index_t> curve(count + 1);
    for (index_t& index : curve) index = random() % points.size();
    TangentialVectorsAndCurveParameter result;
    result.compute(*makeMemArray1D(points), *makeMemArray1D(std::vector<std::vector<index_t>>{curve}));
    for (index_t v = 0; v < points.size(); ++v) {
        append(bits, result.curveParameters()->element(v));
        for (const double x : result.tangents()->element(v)) append(bits, x);
    }
}

/// Where positions in rough blocks are, by search trees that were built with these lanes: cells that the trees leave
/// out would be missing, whatever else the trees say. And how many cells touch a unicell. On so many threads.
void appendLocations(Bits& bits, std::size_t count, int threads) {
    const ScopedThreads team(threads);
    std::mt19937_64 random(count);
    std::normal_distribution<double> normal(0.0, 0.15);
    // Short and long lines, along each axis; of the longer ones so many that one thread makes several together.
    index_t size[3] = {count + 1, count < 24 ? 4u : 38u, count < 24 ? 3u : 44u};
    std::rotate(size, size + count % 3, size + 3);
    const auto block = filled<point>({size[0], size[1], size[2]}, [&](const MultiIndex<3>& i) {
        point p;
        for (int d = 0; d < 3; ++d) p[d] = static_cast<double>(i[d]) + normal(random);
        return p;
    });
    std::vector<point> positions;
    for (int k = 0; k < 400; ++k) {
        point index;
        for (int d = 0; d < 3; ++d) index[d] = static_cast<double>(random() % (1000 * (size[d] - 1))) * 1e-3;
        positions.push_back(interpolateAt<3, point>(*block, index));
    }
    const UniGridMapper linear(block, 1.0, 0.01);
    const auto spoiled = MemArray<3, point>::create(block->Size());
    for (index_t k = 0; k < block->nElements(); ++k) spoiled->element(k) = block->element(k);
    spoiled->element(random() % spoiled->nElements()) = {std::numeric_limits<double>::quiet_NaN(), 1e30, 0.0};
    const ExactCellLocator exact(spoiled);
    append(bits, linear.maximalListLength());
    std::vector<CellLocation> together(positions.size());
    linear.locate(positions, together, 0.02);
    for (std::size_t n = 0; n < positions.size(); ++n)
        for (const CellLocation& found : {exact.locate(positions[n]), linear.locate(positions[n], 0.02), together[n]}) {
            append(bits, static_cast<int>(found.result));
            for (const double x : found.local) append(bits, found ? x : 0.0);
        }
}

/// Bricks of a block with rows of `count` values, and where a level crosses it.
template<class T>
void appendBlock(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    const MultiIndex<3> size(count, 10, 3);
    const auto block = filled<T>(size, [&](index_t) { return randomNumber<T>(random, isWithNaN); });
    const detail::ValueBricks<T> bricks(*block);
    for (const auto* const values : {&bricks.least(), &bricks.greatest()})
        for (const T value : *values) append(bits, value);
    append(bits, bricks.hasNaN());
    append(bits, bricks.hasNegativeZero());
    const auto grid = UniformCartesianArray({0, 0, 0}, size, {1, 1, 1});
    const FieldExplorer<MultiArray<3, T>> explorer(*block, 0.3);
    const auto triangles = ComputeIsosurfaceT(explorer, grid, 0.0).second;
    for (index_t t = 0; t < triangles->nElements(); ++t)
        for (const auto corner : triangles->element(t)) append(bits, corner);
}

/// Bricks of positions, and the surface in which a plane cuts them.
void appendCut(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    const auto positions = filled<point>({count, 10, 3}, [&](index_t) {
        point p;
        for (double& x : p) x = randomNumber<double>(random, isWithNaN);
        return p;
    });
    const detail::ValueBricks<point> bricks(*positions);
    for (const auto* const values : {&bricks.least(), &bricks.greatest()})
        for (const double value : *values) append(bits, value);
    const auto slice = makeRef<Slice>();
    RegularGrid3D regular(slice->newGrid("grid"));
    regular.addBlock("block", positions);
    const auto cut = ComputePlaneCut({0.1, 0.2, 0}, {0.3, -0.4, 1}, Hestra::Ageable(), *regular.grid(), *slice, "cut");
    const auto triangles = TriangularSurface(cut).triangles();
    for (index_t t = 0; t < triangles->nElements(); ++t)
        for (const auto corner : triangles->element(t)) append(bits, corner);
}

/// Values of a uniform grid of numbers of all kinds at positions between nodes, on them, beside the grid, and nowhere:
/// those of each kernel, and the bits.
void appendEvaluation(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    const MultiIndex<3> size(5, 4, 3);
    const auto data = filled<double>(size, [&](index_t) { return randomNumber<double>(random, isWithNaN); });
    const auto slice = makeRef<Slice>();
    const auto grid = slice->newGrid("uniform");
    const UniformGrid3D source = UniformGrid3D::create(*grid, BoundingBox({-1, 0, 2}, {3, 1, 7}), size);
    RegularGrid3D(grid).setField("f", data);
    const UniformCartesianArray nodes(BoundingBox({-1, 0, 2}, {3, 1, 7}), size);
    std::vector<point> positions(count);
    std::uniform_real_distribution<double> unit(-0.1, 1.1);
    for (point& p : positions) {
        p = random() % 4 ? point(-1 + 4 * unit(random), unit(random), 2 + 5 * unit(random))
                         : nodes[MultiIndex<3>::fromLinear(random() % size.product(), size)];
        if (isWithNaN && random() % 8 == 0) p[static_cast<int>(random() % 3)] = randomNumber<double>(random, true);
    }
    GridEvaluator::Context context;
    context.slice = slice;
    context.grid = grid;
    GridEvaluator evaluator;
    const auto asked = makeMemArray1D(positions);
    ASSERT_TRUE(evaluator.find(asked, *grid->CartesianPositions(), context));
    const auto values = dynamicCast<MemArray<1, double>>(evaluator.evalKnownDataTypes(asked, *(*grid)("f")));
    for (std::size_t k = 0; k < count; ++k) {
        const auto index = evaluator.fractionalIndices()->element(k);
        const double expected =
            evaluator.resultCode(k) == LocationResult::Found ? interpolateAt<3, double>(*data, index) : 0;
        const double value = values->element(k);
        EXPECT_TRUE(value == expected ? std::signbit(value) == std::signbit(expected)
                                      : value != value && expected != expected);
        append(bits, value);
    }
}

void appendGradient(Bits& bits, std::size_t count, bool isWithNaN) {
    std::mt19937_64 random(count);
    const auto field = filled<double>({count, 3, 2}, [&](index_t) { return randomNumber<double>(random, isWithNaN); });
    const auto gradient = dynamicCast<MemArray<3, vector>>(PartialDerivative(field));
    for (index_t n = 0; n < gradient->nElements(); ++n)
        for (const double x : gradient->element(n)) append(bits, x);
}

/// What all operations with lanes give, for numbers of elements around each border of lanes and of blocks.
Bits results(int threads) {
    const Hestra::ScopedListener nobody({});
    Bits bits;
    for (std::size_t count = 1; count < 800; count += count < 140 ? 1 : 41)
        for (const bool isWithNaN : {false, true}) {
            appendRange<double>(bits, count, isWithNaN);
            appendRange<float>(bits, count, isWithNaN);
            appendRange<unsigned char>(bits, count, isWithNaN);
            appendRange<unsigned short>(bits, count, isWithNaN);
            appendBox<point>(bits, count, isWithNaN);
            appendBox<Orvix::Coordinates<Orvix::Cartesian3D, float>::point>(bits, count, isWithNaN);
            appendTangents(bits, count, isWithNaN);
            if ((count < 24 || (count > 60 && count < 67)) && isWithNaN) appendLocations(bits, count, threads);
            appendGradient(bits, count, isWithNaN);
            appendEvaluation(bits, count, isWithNaN);
            if (count < 2 || count > 75) continue;
            appendBlock<double>(bits, count, isWithNaN);
            appendBlock<float>(bits, count, isWithNaN);
            appendBlock<unsigned char>(bits, count, isWithNaN);
            appendBlock<short>(bits, count, isWithNaN);
            appendBlock<unsigned short>(bits, count, isWithNaN);
            appendCut(bits, count, isWithNaN);
        }
    return bits;
}

struct Width {
    const char* name;
    std::int64_t target;
};

class LanesTest : public testing::TestWithParam<Width> {};

TEST_P(LanesTest, GiveTheBitsOfTheWidthThatTheProcessorTakes) {
    const auto [name, target] = GetParam();
    if (!(hwy::SupportedTargets() & HWY_TARGETS & target))
        GTEST_SKIP() << "no lanes of " << name << ": not for this processor";
    const Bits expected = results(1);
    const Lanes lanes(target);
    ASSERT_EQ(hwy::SupportedTargets() & target, target);
    EXPECT_TRUE(results(3) == expected);
}

INSTANTIATE_TEST_SUITE_P(Widths, LanesTest,
                         testing::Values(Width{"Plain", HWY_SCALAR}, Width{"SSE4", HWY_SSE4}, Width{"AVX2", HWY_AVX2},
                                         Width{"AVX512", HWY_AVX3}, Width{"NEON", HWY_NEON}),
                         [](const auto& width) { return std::string(width.param.name); });

} // namespace
