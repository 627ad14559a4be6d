#pragma once
/// Blocks that searches have to survive: distorted, folded, flat, collapsed, tiny, with NaN; and real ones.

#include "LocationGrids.hpp"

#include <bit>
#include <cstdint>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace support {

/// Random vertices around those of a uniform block with edges of length `edge`, off by up to `distortion` edges.
inline BlockPtr distortedBlock(const Vantle::MultiIndex<3>& n, double edge, double distortion, unsigned seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> off(-distortion, distortion);
    return filled<Point>(n, [&](const Vantle::MultiIndex<3>& i) {
        return Point(edge * (static_cast<double>(i[0]) + off(random)), edge * (static_cast<double>(i[1]) + off(random)),
                     edge * (static_cast<double>(i[2]) + off(random)));
    });
}

struct RoughBlock {
    std::string name;
    BlockPtr block;
};

inline std::vector<RoughBlock> roughBlocks() {
    const Vantle::MultiIndex<3> n(9, 7, 6);
    std::vector<RoughBlock> all;
    const auto add = [&](const std::string& name, const BlockPtr& block, auto&& change) {
        Vantle::MultiIndex<3> i;
        do change(i, (*block)[i]);
        while (i.advance(block->Size()));
        all.push_back({name, block});
    };
    const auto keep = [](const Vantle::MultiIndex<3>&, Point&) {};
    for (const Shape& shape : shapes()) add(shape.name, makeBlock(shape, n), keep);
    add("distorted", distortedBlock(n, 1.0, 0.2, 1), keep);
    add("folded", distortedBlock(n, 1.0, 0.9, 2), keep);
    add("tangled", distortedBlock(n, 0.1, 3.0, 3), keep);
    add("inside out", distortedBlock(n, 1.0, 0.1, 4), [](const Vantle::MultiIndex<3>&, Point& p) { p[0] = -p[0]; });
    add("far away", distortedBlock(n, 1e-3, 0.1, 5),
        [](const Vantle::MultiIndex<3>&, Point& p) { p = Point(p[0] + 1e5, p[1] - 3e5, p[2] + 2e5); });
    add("tiny", distortedBlock(n, 2e-4, 0.1, 6), keep);
    add("slightly too small", distortedBlock(n, 4.7e-4, 0.15, 7), keep);
    add("huge", distortedBlock(n, 1e100, 0.1, 8), keep);
    add("flat", distortedBlock(n, 1.0, 0.1, 9), [](const Vantle::MultiIndex<3>&, Point& p) { p[2] = 0.0; });
    add("one layer", distortedBlock({9, 2, 6}, 1.0, 0.1, 10), keep);
    add("no cells", distortedBlock({9, 1, 6}, 1.0, 0.1, 11), keep);
    add("some flat layers", distortedBlock(n, 1.0, 0.1, 12), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i[2] == 3) p[2] = 2.0;
        if (i[2] == 2) p[2] = 2.0;
    });
    add("collapsed to an axis", makeBlock(shapes()[1], n), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i[0] == 0) p = Point(0.0, 0.0, p[2]);
    });
    add("collapsed corner", distortedBlock(n, 1.0, 0.1, 13), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i[0] < 3 && i[1] < 3) p = Point(0.5, 0.5, 0.5);
    });
    add("zeros of both signs", distortedBlock(n, 1.0, 0.2, 18), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i[0] == 0) p[0] = i[1] % 2 ? 0.0 : -0.0;
        if (i[1] == 0) p[1] = i[2] % 2 ? -0.0 : 0.0;
    });
    const double nan = std::numeric_limits<double>::quiet_NaN();
    add("a few NaN", distortedBlock(n, 1.0, 0.2, 14), [&](const Vantle::MultiIndex<3>& i, Point& p) {
        if ((i[0] == 3 && i[1] == 2 && i[2] == 2) || (i[0] == 6 && i[2] == 4)) p[1] = nan;
    });
    add("NaN first", distortedBlock(n, 1.0, 0.2, 15), [&](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i == Vantle::MultiIndex<3>()) p[0] = nan;
    });
    add("infinite", distortedBlock(n, 1.0, 0.2, 16), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i[0] == 4 && i[1] == 4) p[2] = std::numeric_limits<double>::infinity();
    });
    // Vertices that stand for none.
    add("some far away", distortedBlock(n, 1.0, 0.1, 17), [](const Vantle::MultiIndex<3>& i, Point& p) {
        if (i == Vantle::MultiIndex<3>()) p[2] = 1e19;
        if (i == Vantle::MultiIndex<3>(1, 1, 2)) p[0] = -1e19;
        if (i[0] == 7 && i[1] == 3) p = Point(1e30, 1e30, 1e30);
    });
    return all;
}

/// Big-endian words of one of the files of the blunt fin, read one after the other.
class BluntFinFile {
public:
    BluntFinFile(const std::string& folder, const std::string& name)
        : myName(folder + "/" + name), myFile(myName, std::ios::binary) {
        for (int d = 0; d < 3; ++d) mySize[d] = word();
        if (mySize.product() > 1000000) throw std::runtime_error(myName + " is another file");
    }
    [[nodiscard]] const Vantle::MultiIndex<3>& size() const { return mySize; }
    double number() { return static_cast<double>(std::bit_cast<float>(word())); }

private:
    std::uint32_t word() {
        unsigned char bytes[4] = {};
        if (!myFile.read(reinterpret_cast<char*>(bytes), 4)) throw std::runtime_error(myName + " is missing or cut");
        return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
    }

    std::string myName;
    std::ifstream myFile;
    Vantle::MultiIndex<3> mySize;
};

/// The blunt fin from the folder of real data; null when the name of the folder is empty.
inline BlockPtr bluntFin(const std::string& folder) {
    if (folder.empty()) return nullptr;
    BluntFinFile file(folder, "bluntfinxyz.bin");
    const auto block = Block::create(file.size());
    for (int d = 0; d < 3; ++d)
        for (Vantle::index_t i = 0; i < block->nElements(); ++i) block->element(i)[d] = file.number();
    return block;
}

/// Its density.
inline Hestra::StrongPtr<Vantle::MemArray<3, double>> bluntFinDensity(const std::string& folder) {
    BluntFinFile file(folder, "bluntfinq.bin");
    const auto density = Vantle::MemArray<3, double>::create(file.size());
    for (int stream = 0; stream < 4; ++stream) file.number();
    for (Vantle::index_t i = 0; i < density->nElements(); ++i) density->element(i) = file.number();
    return density;
}

/// Random points in and around the box of a block's numbers, and some of its vertices, centres of faces and centres.
inline std::vector<Point> probes(const Block& block, int count, unsigned seed) {
    Point low(1e300, 1e300, 1e300), high(-1e300, -1e300, -1e300);
    for (Vantle::index_t i = 0; i < block.nElements(); ++i)
        for (int d = 0; d < 3; ++d) {
            const double x = block.element(i)[d];
            if (!(std::fabs(x) < 1e299)) continue;
            low[d] = std::min(low[d], x);
            high[d] = std::max(high[d], x);
        }
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> unit(-0.02, 1.02);
    std::vector<Point> points;
    for (int k = 0; k < count / 2; ++k) {
        Point p;
        for (int d = 0; d < 3; ++d) p[d] = low[d] + (high[d] - low[d]) * unit(random);
        points.push_back(p);
    }
    for (int k = count / 2; k < count; ++k) {
        Point index;
        for (int d = 0; d < 3; ++d) {
            const double last = static_cast<double>(block.Size()[d]) - 1.0;
            index[d] = (unit(random) + 0.02) / 1.04 * last;
            if (k % 4 == 1) index[d] = std::floor(index[d]);       // vertices
            if (k % 4 == 2) index[d] = std::floor(index[d]) + 0.5; // centres
            if (k % 4 == 3 && d == k % 3) index[d] = std::floor(index[d]);
        }
        points.push_back(positionIn(block, index));
    }
    const double nan = std::numeric_limits<double>::quiet_NaN(), infinity = std::numeric_limits<double>::infinity();
    points.push_back(low);
    points.push_back(high);
    points.push_back(Point(nan, low[1], low[2]));
    points.push_back(Point(low[0], infinity, low[2]));
    points.push_back(Point(-1e300, 1e300, 1e300));
    return points;
}

/// Equal to the last bit, NaN to any NaN.
inline bool same(const Point& a, const Point& b) {
    for (int d = 0; d < 3; ++d)
        if (!(std::bit_cast<std::uint64_t>(a[d]) == std::bit_cast<std::uint64_t>(b[d]) ||
              (std::isnan(a[d]) && std::isnan(b[d]))))
            return false;
    return true;
}

} // namespace support
