#include <cstdio>
#include <parallel/ParallelDataSet.hpp>

// A layer of a box for each rank: together one plane without doubled points.
int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int rank = 0, ranks = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    bool works = false;
    {
        Vantle::DataSet mine;
        mine.addUniformBlock("layer" + std::to_string(rank), {5, 5, 2}, {{0, 0, 1.0 * rank}, {1, 1, 1.0 + rank}});
        mine.setField("x", [](const Vantle::Point& p) { return p[0]; });
        const auto plane = Vantle::ParallelDataSet(MPI_COMM_WORLD, mine).contour("x", 0.375);
        works = plane.points() == 5 * (ranks + 1u) && plane.triangles() == 8u * ranks;
    }
    MPI_Finalize();
    if (rank == 0) std::printf("%s on %d\n", works ? "linked" : "wrong", ranks);
    return works ? 0 : 1;
}
