// Shape measures of many neighbourhoods, beside the loop for the covariance with the closed form of the eigenvalues,
// which loses half of the digits where two of them are equal, and with Eigen's direct solver of symmetric 3 x 3
// matrices, which sorts its eigenvalues too. Neighbourhoods are the same and are read one after the other.

#include <baseop/PointCloud.hpp>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <numbers>
#include <random>

// A peer, not a dependency: without it the comparison is left out.
#if __has_include(<eigen3/Eigen/Eigenvalues>)
#    define VANTLE_HAVE_EIGEN
#    include <eigen3/Eigen/Eigenvalues>
#endif

using namespace Vantle;
using Orvix::PhysicalSpace;

namespace {

using Points = std::vector<PhysicalSpace::point>;

const std::vector<Points>& neighbourhoods(std::int64_t count, std::int64_t points) {
    static std::vector<Points> made;
    if (!made.empty()) return made;
    std::mt19937_64 random(7);
    std::normal_distribution<double> normal;
    for (std::int64_t n = 0; n < count; ++n) {
        const double flat = 0.1 + 0.9 * static_cast<double>(n % 10) / 10.0;
        Points cloud;
        for (std::int64_t p = 0; p < points; ++p)
            cloud.emplace_back(normal(random), flat * normal(random), normal(random));
        made.push_back(std::move(cloud));
    }
    return made;
}

template<class Measure>
void measure(benchmark::State& state, const Measure& measureOne) {
    const auto& clouds = neighbourhoods(state.range(0), state.range(1));
    for (auto _ : state) {
        double sum = 0.0;
        for (const Points& cloud : clouds) sum += measureOne(cloud);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Planarity(benchmark::State& state) {
    double radius = 1.0;
    measure(state, [&](const Points& cloud) { return PointCloud::computePlanarity(cloud, {}, radius); });
}
BENCHMARK(Planarity)->ArgNames({"clouds", "points"})->Args({100'000, 30})->Unit(benchmark::kMillisecond);

void PlanarityInClosedForm(benchmark::State& state) {
    measure(state, [&](const Points& cloud) {
        double xx = 0, xy = 0, xz = 0, yy = 0, yz = 0, zz = 0;
        for (const PhysicalSpace::point& p : cloud) {
            xx += p[0] * p[0];
            xy += p[0] * p[1];
            xz += p[0] * p[2];
            yy += p[1] * p[1];
            yz += p[1] * p[2];
            zz += p[2] * p[2];
        }
        const double n = 1.0 / static_cast<double>(cloud.size());
        xx *= n, xy *= n, xz *= n, yy *= n, yz *= n, zz *= n;
        const double mean = (xx + yy + zz) / 3.0, a = xx - mean, b = yy - mean, c = zz - mean;
        const double spread = std::sqrt((a * a + b * b + c * c + 2.0 * (xy * xy + xz * xz + yz * yz)) / 6.0);
        const double determinant = a * (b * c - yz * yz) - xy * (xy * c - yz * xz) + xz * (xy * yz - b * xz);
        const double angle = std::acos(std::clamp(determinant / (2.0 * spread * spread * spread), -1.0, 1.0)) / 3.0;
        const double e2 = mean + 2.0 * spread * std::cos(angle);
        const double e0 = mean + 2.0 * spread * std::cos(angle + 2.0 * std::numbers::pi / 3.0);
        return 2.0 * (3.0 * mean - e0 - e2 - e0) / (3.0 * mean);
    });
}
BENCHMARK(PlanarityInClosedForm)->ArgNames({"clouds", "points"})->Args({100'000, 30})->Unit(benchmark::kMillisecond);

#ifdef VANTLE_HAVE_EIGEN
void PlanarityWithEigen(benchmark::State& state) {
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver;
    measure(state, [&](const Points& cloud) {
        double xx = 0, xy = 0, xz = 0, yy = 0, yz = 0, zz = 0;
        for (const PhysicalSpace::point& p : cloud) {
            xx += p[0] * p[0];
            xy += p[0] * p[1];
            xz += p[0] * p[2];
            yy += p[1] * p[1];
            yz += p[1] * p[2];
            zz += p[2] * p[2];
        }
        Eigen::Matrix3d covariance;
        covariance << xx, xy, xz, xy, yy, yz, xz, yz, zz;
        covariance /= static_cast<double>(cloud.size());
        solver.computeDirect(covariance, Eigen::ComputeEigenvectors);
        const auto& e = solver.eigenvalues();
        return 2.0 * (e[1] - e[0]) / (e[0] + e[1] + e[2]);
    });
}
BENCHMARK(PlanarityWithEigen)->ArgNames({"clouds", "points"})->Args({100'000, 30})->Unit(benchmark::kMillisecond);
#endif

} // namespace
