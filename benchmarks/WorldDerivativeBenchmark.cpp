// Derivatives in space on a curvilinear block, beside the plain loop: at each vertex the three differences of positions
// and values, the inverse of the matrix by cofactors, and its product with the changes. Both make a fresh result.

#include <baseop/PartialDerivative.hpp>
#include <baseop/WorldDerivative.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/GridKinds.hpp>

#include <benchmark/benchmark.h>
#include <cmath>
#include <map>
#include <omp.h>

using namespace Vantle;
using Orvix::PhysicalSpace;

namespace {

using Positions = MemArray<3, PhysicalSpace::point>;
using Scalars = MemArray<3, double>;
using Vectors = MemArray<3, PhysicalSpace::vector>;

struct Block {
    Hestra::StrongPtr<Positions> positions;
    Hestra::StrongPtr<Scalars> scalars;
    Hestra::StrongPtr<Vectors> vectors;

    explicit Block(index_t n)
        : positions(Positions::create({n, n, n}).strong()), scalars(Scalars::create({n, n, n}).strong()),
          vectors(Vectors::create({n, n, n}).strong()) {
        MultiIndex<3> at;
        index_t v = 0;
        do {
            const double r = 1.0 + double(at[0]) / double(n), phi = 2.0 * double(at[1]) / double(n);
            const PhysicalSpace::point p(r * std::cos(phi), r * std::sin(phi), double(at[2]) / double(n));
            positions->element(v) = p;
            scalars->element(v) = p[0] * p[1] - p[2];
            vectors->element(v++) = {p[1] * p[2], -p[0], p[0] * p[2]};
        } while (at.advance(positions->Size()));
    }
};

const Block& block(index_t n) {
    static std::map<index_t, Block> made;
    return made.try_emplace(n, n).first->second;
}

void count(benchmark::State& state) {
    const auto n = static_cast<std::int64_t>(state.range(0));
    state.SetItemsProcessed(state.iterations() * n * n * n);
}

void Gradient(benchmark::State& state) {
    const Block& source = block(static_cast<index_t>(state.range(0)));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) benchmark::DoNotOptimize(WorldDerivative(source.scalars, source.positions));
    count(state);
}
BENCHMARK(Gradient)
    ->ArgNames({"n", "threads"})
    ->Args({128, 1})
    ->Args({128, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void PlainGradient(benchmark::State& state) {
    const Block& source = block(static_cast<index_t>(state.range(0)));
    const MultiIndex<3> size = source.positions->Size();
    const PhysicalSpace::point* const x = source.positions->data();
    const double* const f = source.scalars->data();
    for (auto _ : state) {
        std::vector<PhysicalSpace::vector> result;
        Hestra::reserveLargeArray(result, source.scalars->nElements());
        for (index_t k = 0; k < size[2]; ++k)
            for (index_t j = 0; j < size[1]; ++j)
                for (index_t i = 0; i < size[0]; ++i) {
                    PhysicalSpace::vector edge[3];
                    double change[3];
                    for (int d = 0; d < 3; ++d) {
                        MultiIndex<3> low(i, j, k), high(i, j, k);
                        if (low[d] > 0) --low[d];
                        if (high[d] + 1 < size[d]) ++high[d];
                        const index_t a = low.linear(size), b = high.linear(size);
                        edge[d] = x[b] - x[a];
                        change[d] = f[b] - f[a];
                    }
                    const PhysicalSpace::vector u = cross(edge[1], edge[2]);
                    result.push_back(
                        (u * change[0] + cross(edge[2], edge[0]) * change[1] + cross(edge[0], edge[1]) * change[2]) /
                        dot(edge[0], u));
                }
        benchmark::DoNotOptimize(result.data());
    }
    count(state);
}
BENCHMARK(PlainGradient)->ArgName("n")->Arg(128)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Along the index axes only.
void IndexGradient(benchmark::State& state) {
    const Hestra::StrongPtr<MemBase> scalars = block(static_cast<index_t>(state.range(0))).scalars;
    omp_set_num_threads(1);
    for (auto _ : state) benchmark::DoNotOptimize(PartialDerivative(scalars));
    count(state);
}
BENCHMARK(IndexGradient)->ArgName("n")->Arg(128)->UseRealTime()->Unit(benchmark::kMillisecond);

void GradientOnUniformBlock(benchmark::State& state) {
    const auto n = static_cast<index_t>(state.range(0));
    const Hestra::StrongPtr<MemBase> positions =
        Hestra::makeRef<UniformCartesianArray>(Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), MultiIndex<3>(n, n, n));
    omp_set_num_threads(1);
    for (auto _ : state) benchmark::DoNotOptimize(WorldDerivative(block(n).scalars, positions));
    count(state);
}
BENCHMARK(GradientOnUniformBlock)->ArgName("n")->Arg(128)->UseRealTime()->Unit(benchmark::kMillisecond);

void TensorOfVectors(benchmark::State& state) {
    const Block& source = block(static_cast<index_t>(state.range(0)));
    omp_set_num_threads(1);
    for (auto _ : state) benchmark::DoNotOptimize(WorldDerivative(source.vectors, source.positions));
    count(state);
}
BENCHMARK(TensorOfVectors)->ArgName("n")->Arg(128)->UseRealTime()->Unit(benchmark::kMillisecond);

/// The same vertices in eight blocks, which have six faces each, three of them joined. The joins are known.
void GradientOfEightBlocks(benchmark::State& state) {
    const auto n = static_cast<index_t>(state.range(0)), half = n / 2 + 1;
    const Block& source = block(n + 1);
    const BundlePtr bundle = BundlePtr::create();
    RegularGrid3D blocks((*bundle[0.0])["eight"]);
    for (unsigned b = 0; b < 8; ++b) {
        const MultiIndex<3> low(b & 1 ? n / 2 : 0, b & 2 ? n / 2 : 0, b & 4 ? n / 2 : 0), size(half, half, half);
        const auto id = blocks.addBlock(std::to_string(b), source.positions->createSubMemArray(low, size).strong());
        blocks.setField("field", source.scalars->createSubMemArray(low, size).strong(), id);
    }
    WorldDerivativeOptions options;
    options.joinBlocks = state.range(1) != 0;
    (void)BlockJoins::of(*blocks.grid(), options.joins);
    omp_set_num_threads(1);
    for (auto _ : state) {
        std::string errors;
        const auto derivative = WorldDerivative(*blocks.grid(), "field", "gradient", errors, options, nullptr);
        derivative->iterate([](const auto&, const auto& creator) { return bool(creator->getData()); });
    }
    count(state);
}
BENCHMARK(GradientOfEightBlocks)
    ->ArgNames({"n", "joined"})
    ->Args({128, 0})
    ->Args({128, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
