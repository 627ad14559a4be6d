// A flow whose blocks are dealt to ranks: contour, hull, derived fields, a picture, as if they were in one process.
//
// usage: mpirun -n 4 parallel_tour [GRID.xyz SOLUTION.q ...]
//
// Without files: a vortex in a ring of 16 blocks. Leaves vortex.pvtp and its pieces, one a rank, vortex.vtp, which is
// the same surface in one file, and slice.ppm, the magnitude of the velocity in the middle.

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>
#include <numbers>
#include <parallel/ParallelDataSet.hpp>

using namespace Vantle;

namespace {

constexpr int Blocks = 16;

/// One sixteenth of a ring around z.
std::vector<Point> sector(int number, const MultiIndex<3>& size) {
    std::vector<Point> points;
    for (index_t k = 0; k < size[2]; ++k)
        for (index_t j = 0; j < size[1]; ++j)
            for (index_t i = 0; i < size[0]; ++i) {
                // The last vertices of a block are, bit for bit, the first ones of the next.
                const auto step = (static_cast<index_t>(number) * (size[0] - 1) + i) % (Blocks * (size[0] - 1));
                const double angle =
                    2 * std::numbers::pi * static_cast<double>(step) / static_cast<double>(Blocks * (size[0] - 1));
                const double radius = 1 + static_cast<double>(j) / static_cast<double>(size[1] - 1);
                points.emplace_back(radius * std::cos(angle), radius * std::sin(angle),
                                    static_cast<double>(k) / static_cast<double>(size[2] - 1) - 0.5);
            }
    return points;
}

/// A vortex with its core on the circle of radius 1.5.
Vector velocity(const Point& p) {
    const double radius = std::hypot(p[0], p[1]), off = radius - 1.5;
    const double strength = std::exp(-8 * (off * off + p[2] * p[2]));
    return {-strength * p[2] * p[0] / radius - 0.2 * p[1], -strength * p[2] * p[1] / radius + 0.2 * p[0],
            strength * off};
}

ParallelDataSet makeFlow(int rank, int ranks) {
    const MultiIndex<3> size(9, 25, 25);
    DataSet mine;
    ParallelOptions options;
    for (int number = rank; number < Blocks; number += ranks) {
        mine.addBlock("sector" + std::to_string(number), size, sector(number, size));
        options.numbers.push_back(static_cast<std::uint64_t>(number)); // its place, whoever has it
    }
    mine.setField("velocity", velocity);
    return ParallelDataSet(MPI_COMM_WORLD, mine, options);
}

/// The first layer of an image, from blue to red; what is outside is white.
void writePicture(const DataSet& image, const std::string& field, const MultiIndex<3>& size) {
    const Values values(Hestra::StrongPtr<MemBase>(image.array(field, "image")
                                                       ->gather(*makeMemArray1D([&] {
                                                           std::vector<index_t> first(size[0] * size[1]);
                                                           for (index_t n = 0; n < first.size(); ++n) first[n] = n;
                                                           return first;
                                                       }()),
                                                                DynamicSize(size[0] * size[1]), 1)));
    const NumberRange range = image.range(field);
    std::ofstream file("slice.ppm", std::ios::binary);
    file << "P6 " << size[0] << ' ' << size[1] << " 255\n";
    for (std::size_t n = 0; n < values.size(); ++n) {
        const double at = (values[n] - range.least) / (range.greatest - range.least);
        const auto part = [&](double x) {
            return static_cast<char>(std::isnan(at) ? 255.0 : 255 * std::clamp(x, 0.0, 1.0));
        };
        file << part(1.5 - std::abs(4 * at - 3)) << part(1.5 - std::abs(4 * at - 2))
             << part(1.5 - std::abs(4 * at - 1));
    }
}

} // namespace

int main(int argc, char** argv) {
    int provided = 0, rank = 0, ranks = 1;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    int result = 0;
    try {
        const ParallelDataSet flow =
            argc > 1 ? ParallelDataSet::read(MPI_COMM_WORLD, {argv + 1, argv + argc}) : makeFlow(rank, ranks);
        const auto say = [&](const auto&... what) {
            if (rank == 0) ((std::cout << what), ...) << '\n';
        };
        say(flow.blocks().size(), " blocks on ", ranks, " ranks, ", flow.joins().joins.size(), " joins");

        // Derived across the joins of blocks, wherever these are.
        const std::string q = flow.qCriterion("velocity");
        const NumberRange range = flow.range(q);
        const ParallelSurface vortex = flow.contour(q, 0.3 * range.greatest, {.values = {"velocity"}, .normals = true});
        say("vortex: ", vortex.points(), " points, ", vortex.triangles(),
            " triangles; hull: ", flow.boundary().triangles(), " triangles");
        vortex.write("vortex.pvtp");
        const Surface whole = vortex.gather(0);
        if (rank == 0) {
            whole.write("vortex.vtp");
            say(whole.isClosed() ? "the vortex is closed" : "the vortex is open");
            if (argc == 1 && !whole.isClosed()) result = 1;
        }

        const Box box = flow.bounds();
        const double middle = 0.5 * (box.low[2] + box.high[2]);
        const MultiIndex<3> size(480, 480, 2);
        const std::string speed = flow.magnitude("velocity");
        const ParallelImage image = flow.resample(
            size, {{box.low[0], box.low[1], middle}, {box.high[0], box.high[1], box.high[2]}}, {speed}, 0);
        if (rank == 0) writePicture(image.part, speed, size);
        const Traffic& traffic = flow.traffic();
        say("rank 0 has sent ", traffic.bytesSent, " bytes in ", traffic.rounds, " rounds");
    } catch (const std::exception& problem) { // all ranks have it
        if (rank == 0) std::cerr << problem.what() << '\n';
        result = 1;
    }
    MPI_Finalize();
    return result;
}
