// What masks cost: the same surface, search, evaluation and derivative without a mask (mask:0), with one that blanks
// balls, about 3 per cent of the cells in few places (mask:1), and with one that blanks single vertices, about as many
// cells all over the block (mask:2).
//
// And masks of a range of values, of a smooth block (noise:0) and of noise, the first of new values (first:1) and
// further ones with another end: beside the loop that one would write, `PlainThreshold`.

#include "Settings.hpp"

#include <baseop/FieldMasks.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/PartialDerivative.hpp>
#include <model/hestra/Console.hpp>
#include <model/vantle/GridKinds.hpp>

#include <benchmark/benchmark.h>
#include <cmath>
#include <random>

namespace {

using Hestra::StrongPtr;
using namespace Vantle;
using Point = Orvix::PhysicalSpace::point;

constexpr index_t kSide = 161;
constexpr index_t kLattice = 96;

Point bend(double u, double v, double w) {
    return {u + 0.2 * v * w + 0.03 * std::sin(5 * v), v + 0.1 * u * u, w + 0.1 * std::sin(2 * u + v)};
}

StrongPtr<MemBase> makeMask(std::int64_t kind) {
    const auto mask = MemArray<3, unsigned char>::create(MultiIndex<3>::filled(kSide));
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<Point> centres;
    for (int n = 0; n < 8; ++n) centres.push_back(Point(unit(random), unit(random), unit(random)));
    MultiIndex<3> at;
    do {
        bool valid = kind != 2 || unit(random) > 0.004;
        const auto part = [&](int d) { return static_cast<double>(at[d]) / static_cast<double>(kSide - 1); };
        if (kind == 1)
            for (const Point& centre : centres)
                valid = valid && distance(centre, Point(part(0), part(1), part(2))) > 0.1;
        (*mask)[at] = valid;
    } while (at.advance(MultiIndex<3>::filled(kSide)));
    return mask.strong();
}

struct Scene {
    StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    StrongPtr<Grid> grid = slice->newGrid("grid");
    RegularGrid3D block{grid};
    StrongPtr<FragmentID> id;
    StrongPtr<Field> values;
    StrongPtr<const BlockMask> mask;

    explicit Scene(std::int64_t kind) {
        const MultiIndex<3> size = MultiIndex<3>::filled(kSide);
        const auto points = MemArray<3, Point>::create(size);
        const auto scalar = MemArray<3, double>::create(size);
        MultiIndex<3> at;
        do {
            const auto part = [&](int d) { return static_cast<double>(at[d]) / static_cast<double>(kSide - 1); };
            const Point p = bend(part(0), part(1), part(2));
            (*points)[at] = p;
            (*scalar)[at] = std::sin(9 * p[0]) + std::cos(7 * p[1]) * std::sin(8 * p[2]);
        } while (at.advance(size));
        id = block.addBlock("block", points);
        values = block.setField("values", scalar, id);
        if (kind != 0) block.setField(VertexMaskName, makeMask(kind), id);
        mask = Blanking(*grid).of(id, size);
    }
};

const Scene& scene(benchmark::State& state) {
    Hestra::Console::setListener({});
    static const Scene scenes[] = {Scene(0), Scene(1), Scene(2)};
    const Scene& chosen = scenes[state.range(0)];
    const auto& mask = chosen.mask;
    const double cells = static_cast<double>((kSide - 1) * (kSide - 1) * (kSide - 1));
    state.counters["blanked%"] = mask ? 100.0 - 100.0 * static_cast<double>(mask->validCells()) / cells : 0.0;
    return chosen;
}

void Surface(benchmark::State& state) {
    const Scene& chosen = scene(state);
    for (auto _ : state) {
        const auto triangles = Hestra::makeRef<Hestra::TypedChunk<TriangleCell>>();
        FragmentIsoSurfacer surfacer(0.3, 0.0, chosen.block.positions(),
                                     Hestra::makeRef<Hestra::TypedChunk<index_t>>().strong(),
                                     Hestra::makeRef<Hestra::TypedChunk<double>>().strong(),
                                     Hestra::makeRef<Hestra::TypedChunk<Point>>().strong(), triangles.strong());
        surfacer.setBlanking(Blanking(*chosen.grid));
        surfacer.apply(chosen.id, chosen.values->getCreator(chosen.id));
        state.counters["triangles"] = static_cast<double>(triangles->base_vector().size());
    }
}
BENCHMARK(Surface)->ArgName("mask")->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMillisecond);

template<CellLocator Kind>
void Evaluation(benchmark::State& state) {
    const Scene& chosen = scene(state);
    GridEvaluator::Context context;
    context.slice = chosen.slice;
    context.grid = chosen.grid;
    context.cellLocator = Kind;
    const StrongPtr<MemBase> positions = Hestra::makeRef<UniformCartesianArray>(
        Orvix::BoundingBox({0.1, 0.1, 0.1}, {0.9, 0.9, 0.9}), MultiIndex<3>::filled(kLattice));
    GridEvaluator evaluator;
    for (auto _ : state) {
        if (!evaluator.find(positions, *chosen.block.positions(), context)) state.SkipWithError("not searched");
        benchmark::DoNotOptimize(evaluator.evalKnownDataTypes(positions, *chosen.values));
    }
}
BENCHMARK(Evaluation<CellLocator::Newton>)
    ->ArgName("mask")
    ->DenseRange(0, 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Evaluation<CellLocator::Exact>)
    ->ArgName("mask")
    ->DenseRange(0, 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void Gradient(benchmark::State& state) {
    const Scene& chosen = scene(state);
    Representation& fields = *chosen.block.representation();
    const auto unshared = Hestra::makeRef<Hestra::Cache>();
    for (auto _ : state) {
        std::string errors;
        benchmark::DoNotOptimize(PartialDerivative(*chosen.values, "gradient", fields, fields, errors, unshared));
        fields["gradient"] = nullptr;
    }
}
BENCHMARK(Gradient)->ArgName("mask")->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Making the bits, once for each state of the masks.
void Mask(benchmark::State& state) {
    const auto mask = makeMask(1);
    for (auto _ : state) benchmark::DoNotOptimize(BlockMask(MultiIndex<3>::filled(kSide), mask.rawptr(), nullptr));
}
BENCHMARK(Mask)->UseRealTime()->Unit(benchmark::kMillisecond);

struct Values {
    explicit Values(bool isNoise) {
        std::mt19937_64 random(5);
        std::uniform_real_distribution<double> unit(0, 1);
        MultiIndex<3> at;
        do {
            const auto part = [&](int d) {
                return 2.0 * static_cast<double>(at[d]) / static_cast<double>(side - 1) - 1;
            };
            (*array)[at] =
                isNoise ? unit(random) : 1.0 - length(Point(part(0), part(1), part(2)) - Point(0, 0, 0)) / 1.7;
        } while (at.advance(array->Size()));
        id = block.addBlock("block", MemArray<3, Point>::create({2, 2, 2}));
        field = block.setField("values", array, id);
    }
    static Values& of(std::int64_t isNoise) {
        static Values all[] = {Values(false), Values(true)};
        return all[isNoise];
    }

    static constexpr index_t side = 128;
    StrongPtr<MemArray<3, double>> array = MemArray<3, double>::create(MultiIndex<3>::filled(side));
    StrongPtr<Slice> slice = Hestra::makeRef<Slice>();
    RegularGrid3D block{slice->newGrid("grid")};
    StrongPtr<FragmentID> id;
    StrongPtr<Field> field;
};

double movedEnd() {
    static int moves = 0;
    return 0.3 + 0.001 * (moves++ % 50);
}

void Threshold(benchmark::State& state) {
    Values& values = Values::of(state.range(0));
    const Memory memory(true);
    const TeamOf team(state.range(2));
    (void)makeMaskOfRange(values.field, 0.3, 0.6)->getData(values.id);
    for (auto _ : state) {
        if (state.range(1) != 0) values.field->getCreator(values.id)->touch();
        benchmark::DoNotOptimize(makeMaskOfRange(values.field, movedEnd(), 0.6)->getData(values.id));
    }
}
BENCHMARK(Threshold)
    ->ArgNames({"noise", "first", "threads"})
    ->ArgsProduct({{0, 1}, {0, 1}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void PlainThreshold(benchmark::State& state) {
    const MemArray<3, double>& values = *Values::of(state.range(0)).array;
    const Memory memory(true);
    for (auto _ : state) {
        std::vector<unsigned char> mask(static_cast<std::size_t>(values.nElements()));
        const double* const from = values.data();
        const double least = movedEnd();
        for (std::size_t n = 0; n < mask.size(); ++n)
            mask[n] = static_cast<unsigned char>(static_cast<int>(from[n] >= least) & static_cast<int>(from[n] <= 0.6));
        benchmark::DoNotOptimize(mask.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(PlainThreshold)->ArgName("noise")->DenseRange(0, 1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
