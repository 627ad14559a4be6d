// How what ranks exchange grows with blocks and ranks, where these are numbers only.
//
// usage: parallel_growth [BOXES]      BOXES: a text file, six numbers a line (low and high corner of a block)
//
// Without a file: bent lattices of 10 k, 100 k and 1 M blocks of 33^3 vertices whose boxes overlap a little. Blocks are
// dealt in compact pieces, or at random, to up to 10,000 ranks. The tree, the neighbourhoods and the routes of
// positions are those of the library; sizes of messages are those that it sends.

#include <dataset/DataSet.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <parallel/detail/BoxTree.hpp>
#include <random>
#include <set>

using namespace Vantle;

namespace {

constexpr double Vertices = 33;                                    // of a block, along each axis
constexpr double ShellBytes = 24 * (6 * Vertices * Vertices) + 9;  // positions of its faces
constexpr double BoxBytes = 112, RangeBytes = 24, CountBytes = 32; // of each block, told to all
constexpr double JoinBytes = 160, JoinsOfBlock = 3;                // told to all
constexpr double NameBytes = 32, NumberBytes = 8;                  // of a vertex on a common face
constexpr double SurfaceOnFace = 1.4 * Vertices;                   // vertices of a surface there
constexpr double ValueBytes = 8 * Vertices * Vertices / 2;         // of a common face, on average to one side
constexpr double QuestionBytes = 24, AnswerBytes = 32, ChoiceBytes = 1.0 / 8, SampleBytes = 8;
constexpr double BlocksWithSurface = 0.3;
constexpr int Positions = 100000; // of each rank

std::vector<Box> lattice(int perAxis) {
    std::vector<Box> boxes;
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> bend(0.0, 0.08);
    for (int k = 0; k < perAxis; ++k)
        for (int j = 0; j < perAxis; ++j)
            for (int i = 0; i < perAxis; ++i) {
                const Point low(i, j, k);
                boxes.push_back({low - Vector(bend(random), bend(random), bend(random)),
                                 low + Vector(1 + bend(random), 1 + bend(random), 1 + bend(random))});
            }
    return boxes;
}

/// Blocks in the order of a curve that keeps neighbours together.
std::vector<std::uint32_t> compactOrder(const std::vector<Box>& boxes) {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> keys;
    for (std::uint32_t n = 0; n < boxes.size(); ++n) {
        std::uint64_t key = 0;
        for (int bit = 9; bit >= 0; --bit)
            for (int d = 0; d < 3; ++d)
                key = 2 * key + (static_cast<std::uint64_t>(0.5 * (boxes[n].low[d] + boxes[n].high[d])) >> bit & 1);
        keys.emplace_back(key, n);
    }
    std::sort(keys.begin(), keys.end());
    std::vector<std::uint32_t> order;
    for (const auto& [key, n] : keys) order.push_back(n);
    return order;
}

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void simulate(const std::vector<Box>& boxes) {
    const auto start = std::chrono::steady_clock::now();
    const detail::BoxTree tree(boxes);
    const double built = since(start);
    const auto n = boxes.size();
    std::printf("\n%zu blocks: tree built in %.0f ms; known everywhere: %.1f MB of boxes, names and sizes, %.1f MB of "
                "joins\n",
                n, 1e3 * built, static_cast<double>(n) * 200 / 1e6,
                static_cast<double>(n) * JoinBytes * JoinsOfBlock / 1e6);
    std::printf("%7s %8s | %12s %12s | %12s %12s | %12s %9s %9s | %9s\n", "ranks", "deal", "joins MB", "of that all",
                "contour MB", "of that all", "locate MB", "asked of", "us/pos.", "peers");
    std::mt19937_64 random(2);
    for (const bool isCompact : {true, false})
        for (const std::size_t ranks : {10UL, 100UL, 1000UL, 10000UL}) {
            if (ranks > n) continue;
            std::vector<std::uint32_t> order = compactOrder(boxes);
            if (!isCompact) std::shuffle(order.begin(), order.end(), random);
            std::vector<std::uint32_t> rankOf(n);
            for (std::size_t k = 0; k < n; ++k) rankOf[order[k]] = static_cast<std::uint32_t>(k * ranks / n);
            // Some ranks stand for all.
            double shells = 0.0, names = 0.0, asked = 0.0, routes = 0.0, peersOf = 0.0, took = 0.0;
            constexpr std::size_t Looked = 10;
            for (std::size_t look = 0; look < Looked; ++look) {
                const auto rank = static_cast<std::uint32_t>(look * ranks / Looked);
                std::set<std::uint32_t> peers;
                for (std::size_t k = 0; k < n; ++k) {
                    if (rankOf[k] != rank) continue;
                    std::set<std::uint32_t> receivers;
                    double faces = 0.0;
                    tree.forEach(boxes[k], [&](std::uint32_t other) {
                        if (rankOf[other] == rank) return;
                        receivers.insert(rankOf[other]);
                        double apart = 0.0; // one lattice step: a common face
                        for (int d = 0; d < 3; ++d)
                            apart += std::fabs(std::round(boxes[k].low[d] - boxes[other].low[d]));
                        faces += apart == 1.0 ? 1.0 : 0.0;
                    });
                    shells += ShellBytes * static_cast<double>(receivers.size());
                    names += faces * (ValueBytes + BlocksWithSurface * SurfaceOnFace * (NameBytes + NumberBytes / 2));
                    peers.insert(receivers.begin(), receivers.end());
                }
                peersOf += static_cast<double>(peers.size());
                // Positions anywhere.
                std::uniform_int_distribution<std::size_t> any(0, n - 1);
                std::uniform_real_distribution<double> in(0.0, 1.0);
                const auto begin = std::chrono::steady_clock::now();
                constexpr int Tried = Positions / 10;
                std::vector<std::uint32_t> to;
                for (int k = 0; k < Tried; ++k) {
                    const Box& box = boxes[any(random)];
                    Point p = box.low;
                    for (int d = 0; d < 3; ++d) p[d] += in(random) * (box.high[d] - box.low[d]);
                    to.clear();
                    tree.forEach({p, p}, [&](std::uint32_t block) {
                        if (std::find(to.begin(), to.end(), rankOf[block]) == to.end()) to.push_back(rankOf[block]);
                    });
                    asked += static_cast<double>(to.size());
                }
                routes += Tried;
                took += since(begin);
            }
            const double all = static_cast<double>(n), perLook = 1.0 / Looked,
                         counts = 8.0 * static_cast<double>(ranks);
            const double joinsAll = all * (BoxBytes + JoinBytes * JoinsOfBlock);
            const double contourAll = all * (RangeBytes + BlocksWithSurface * CountBytes);
            const double candidates = asked / routes;
            const double locate = Positions * (candidates * QuestionBytes + AnswerBytes + ChoiceBytes + SampleBytes);
            std::printf("%7zu %8s | %12.3f %12.3f | %12.3f %12.3f | %12.3f %9.2f %9.2f | %9.1f\n", ranks,
                        isCompact ? "compact" : "random", (shells * perLook + joinsAll + 4 * counts) / 1e6,
                        joinsAll / 1e6, (names * perLook + contourAll + 5 * counts) / 1e6, contourAll / 1e6,
                        (locate + 4 * counts) / 1e6, candidates, 1e6 * took / routes, peersOf * perLook);
        }
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        std::vector<Box> boxes;
        std::ifstream file(argv[1]);
        for (Box box; file >> box.low[0] >> box.low[1] >> box.low[2] >> box.high[0] >> box.high[1] >> box.high[2];)
            boxes.push_back(box);
        simulate(boxes);
        return 0;
    }
    std::printf(
        "What a rank receives for an operation: joins (once), a contour, %d positions of its own located and "
        "sampled.\n\"of that all\": what is told to every rank. Rounds do not depend on blocks or ranks: 4, 5 and 4.\n",
        Positions);
    for (const int perAxis : {22, 46, 100}) simulate(lattice(perAxis));
    return 0;
}
