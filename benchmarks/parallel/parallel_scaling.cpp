// How fast operations are on several ranks, beside one rank and the data set layer, in one run; and what is exchanged.
//
// usage: mpirun -n 2 parallel_scaling [BLOCKS_PER_AXIS [VERTICES_PER_AXIS [REPEATS]]]     (4, 33, 5)
//
// Times are the least of some repeats in turns, each the longest of all ranks; with OMP_NUM_THREADS=1 ranks are cores.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <parallel/ParallelDataSet.hpp>
#include <random>

using namespace Vantle;

namespace {

/// A bent bar of n^3 blocks.
Point place(double x, double y, double z) {
    const double angle = 2.0 * x, radius = 1.0 + y + 0.1 * std::sin(3 * x + 2 * z);
    return {radius * std::cos(angle), radius * std::sin(angle), z + 0.1 * x * x};
}

DataSet blocksOf(int perAxis, int vertices, const std::function<bool(int)>& isOwn,
                 std::vector<std::uint64_t>& numbers) {
    DataSet flow;
    for (int b = 0; b < perAxis * perAxis * perAxis; ++b) {
        if (!isOwn(b)) continue;
        const int at[] = {b % perAxis, b / perAxis % perAxis, b / (perAxis * perAxis)};
        std::vector<Point> points;
        const double whole = perAxis * (vertices - 1);
        for (int k = 0; k < vertices; ++k)
            for (int j = 0; j < vertices; ++j)
                for (int i = 0; i < vertices; ++i)
                    points.push_back(place((at[0] * (vertices - 1) + i) / whole, (at[1] * (vertices - 1) + j) / whole,
                                           (at[2] * (vertices - 1) + k) / whole));
        const auto n = static_cast<index_t>(vertices);
        flow.addBlock("block" + std::to_string(b), {n, n, n}, std::move(points));
        numbers.push_back(static_cast<std::uint64_t>(b));
    }
    flow.setField("wave",
                  [](const Point& p) { return std::sin(9 * p[0]) * std::cos(7 * p[1]) + 0.5 * std::sin(11 * p[2]); });
    return flow;
}

double seconds(const std::function<void()>& f, MPI_Comm comm) {
    MPI_Barrier(comm);
    const auto start = std::chrono::steady_clock::now();
    f();
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), longest = 0.0;
    MPI_Allreduce(&took, &longest, 1, MPI_DOUBLE, MPI_MAX, comm);
    return longest;
}

} // namespace

int main(int argc, char** argv) {
    int provided = 0, rank = 0, ranks = 1;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    const int perAxis = argc > 1 ? std::atoi(argv[1]) : 4, vertices = argc > 2 ? std::atoi(argv[2]) : 33;
    const int repeats = argc > 3 ? std::atoi(argv[3]) : 5, count = perAxis * perAxis * perAxis;
    if (perAxis < 1 || vertices < 2 || repeats < 1) {
        if (rank == 0)
            std::cerr << "usage: parallel_scaling [blocks along an axis] [vertices along an axis] [repeats]\n";
        return MPI_Finalize(), 2;
    }
    {
        ParallelOptions options, everything;
        const DataSet mine = blocksOf(
            perAxis, vertices, [&](int b) { return b * ranks / count == rank; }, options.numbers);
        const ParallelDataSet many(MPI_COMM_WORLD, mine, options);
        const DataSet whole = blocksOf(
            perAxis, vertices, [&](int) { return rank == 0; }, everything.numbers);
        const ParallelDataSet alone(MPI_COMM_SELF, whole, everything);

        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> in(0.0, 1.0);
        std::vector<Point> positions(100000), own;
        for (std::size_t k = 0; k < positions.size(); ++k) {
            // Neighbours in order are neighbours in space.
            const double cell = static_cast<double>(k / 64);
            const double x = std::fmod(cell * 0.618034, 1.0), y = std::fmod(cell * 0.754878, 1.0);
            positions[k] = place(0.98 * x + 0.02 * in(random), 0.98 * y + 0.02 * in(random),
                                 0.98 * std::fmod(cell * 0.569840, 1.0) + 0.02 * in(random));
            if (static_cast<int>(k * static_cast<std::size_t>(ranks) / positions.size()) == rank)
                own.push_back(positions[k]);
        }
        struct Task {
            const char* name;
            std::function<std::uint64_t(const ParallelDataSet&, const std::vector<Point>&)> many;
            std::function<void()> dataSet;
        };
        const Task tasks[] = {
            {"range of a new field's numbers",
             [](const ParallelDataSet& flow, const auto&) {
                 (void)ParallelDataSet(flow).range("wave");
                 return std::uint64_t{0};
             },
             [&] { (void)whole.range("wave"); }},
            {"contour", [](const ParallelDataSet& flow, const auto&) { return flow.contour("wave", 0.3).points(); },
             [&] { (void)whole.contour("wave", 0.3); }},
            {"locate and sample",
             [](const ParallelDataSet& flow, const auto& at) {
                 (void)flow.locate(at).sample("wave");
                 return std::uint64_t{100000};
             },
             [&] { (void)whole.locate(positions).sample("wave"); }},
        };
        // Of ranges, the numbers are kept: each repeat takes data sets that know nothing.
        const auto rangeOf = [&](const DataSet& local, MPI_Comm comm, const ParallelOptions& how) {
            const ParallelDataSet fresh(comm, local, how);
            return seconds([&] { (void)fresh.range("wave"); }, comm);
        };
        if (rank == 0)
            std::printf("%d blocks of %d^3 vertices, %d ranks\n%-32s %10s %10s %10s %8s %8s %10s %7s\n", count,
                        vertices, ranks, "", "data set", "one rank", "all ranks", "x 1", "speedup", "bytes/unit",
                        "rounds");
        for (const Task& task : tasks) {
            double dataSet = 1e9, one = 1e9, all = 1e9;
            std::uint64_t units = 0;
            Traffic before, after;
            for (int repeat = 0; repeat < repeats + 1; ++repeat) { // the first finds joins, and builds searches
                const bool isRange = &task == &tasks[0];
                const double took[] = {
                    rank == 0 ? seconds(
                                    [&] {
                                        if (isRange) {
                                            DataSet copy = whole;
                                            copy.setField("other", "block0", whole.array("wave", "block0"));
                                            (void)copy.range("wave");
                                        } else {
                                            task.dataSet();
                                        }
                                    },
                                    MPI_COMM_SELF)
                              : 0.0,
                    rank == 0 ? (isRange ? rangeOf(whole, MPI_COMM_SELF, everything)
                                         : seconds([&] { (void)task.many(alone, positions); }, MPI_COMM_SELF))
                              : 0.0,
                    0.0};
                MPI_Barrier(MPI_COMM_WORLD);
                before = many.traffic();
                const double together = isRange ? rangeOf(mine, MPI_COMM_WORLD, options)
                                                : seconds([&] { units = task.many(many, own); }, MPI_COMM_WORLD);
                after = many.traffic();
                if (repeat == 0) continue;
                dataSet = std::min(dataSet, took[0]);
                one = std::min(one, took[1]);
                all = std::min(all, together);
            }
            std::uint64_t sent = after.bytesSent - before.bytesSent, sum = 0;
            MPI_Reduce(&sent, &sum, 1, MPI_UINT64_T, MPI_SUM, 0, MPI_COMM_WORLD);
            if (rank == 0)
                std::printf("%-32s %7.2f ms %7.2f ms %7.2f ms %8.2f %8.2f %10.2f %7llu\n", task.name, 1e3 * dataSet,
                            1e3 * one, 1e3 * all, one / dataSet, one / all,
                            units ? static_cast<double>(sum) / static_cast<double>(units) : 0.0,
                            static_cast<unsigned long long>(after.rounds - before.rounds));
        }
        const ParallelDataSet fresh(MPI_COMM_WORLD, mine, options);
        (void)fresh.bounds();
        const Traffic before = fresh.traffic();
        (void)fresh.joins();
        std::uint64_t sent = fresh.traffic().bytesSent - before.bytesSent, sum = 0;
        MPI_Reduce(&sent, &sum, 1, MPI_UINT64_T, MPI_SUM, 0, MPI_COMM_WORLD);
        if (rank == 0)
            std::printf("joins: %.1f KB in all, %llu rounds; contour of %llu points\n", static_cast<double>(sum) / 1e3,
                        static_cast<unsigned long long>(fresh.traffic().rounds - before.rounds),
                        static_cast<unsigned long long>(alone.contour("wave", 0.3).points()));
    }
    MPI_Finalize();
    return 0;
}
