#pragma once
/// Curvilinear blocks for tests of point location: shapes with known maps, in one piece or several, and a linear field.

#include "Arrays.hpp"

#include <baseop/Interpolate.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/GridKinds.hpp>
#include <model/vantle/MemArray.hpp>

#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace support {

using Point = Orvix::PhysicalSpace::point;
using Block = Vantle::MemArray<3, Point>;
using BlockPtr = Hestra::StrongPtr<Block>;

/// A map of the unit cube into space.
struct Shape {
    const char* name;
    Point (*at)(double u, double v, double w);
    /// Whether the cells of a block are parallelepipeds, for which one linear step is exact.
    bool isAffine;
};

inline Point sheared(double u, double v, double w) { return {2 * u + 0.4 * v, v + 0.3 * w - 0.1 * u, 1.5 * w}; }
inline Point annulus(double u, double v, double w) {
    const double r = 1 + u, angle = 0.2 + 2.4 * v;
    return {r * std::cos(angle), r * std::sin(angle), w};
}
inline Point twisted(double u, double v, double w) {
    const double angle = 1.2 * w, x = u - 0.5, y = v - 0.5;
    return {x * std::cos(angle) - y * std::sin(angle), x * std::sin(angle) + y * std::cos(angle), 2 * w};
}
/// Layers that shrink by 10^4 towards w = 0, over a wavy wall.
inline Point stretched(double u, double v, double w) {
    const double height = (std::pow(1e4, w) - 1) / (1e4 - 1);
    return {3 * u, 2 * v, height + 0.05 * std::sin(3 * u) * (1 - height)};
}
inline const std::vector<Shape>& shapes() {
    static const std::vector<Shape> all{{"Sheared", sheared, true},
                                        {"Annulus", annulus, false},
                                        {"Twisted", twisted, false},
                                        {"Stretched", stretched, false}};
    return all;
}

/// A block of n vertices over the part of the unit cube between two corners.
inline BlockPtr makeBlock(const Shape& shape, const Vantle::MultiIndex<3>& n, const Point& low = {0, 0, 0},
                          const Point& high = {1, 1, 1}) {
    const auto part = [&](int d, Vantle::index_t i) {
        return n[d] < 2 ? low[d] : low[d] + (high[d] - low[d]) * static_cast<double>(i) / static_cast<double>(n[d] - 1);
    };
    return filled<Point>(
        n, [&](const Vantle::MultiIndex<3>& i) { return shape.at(part(0, i[0]), part(1, i[1]), part(2, i[2])); });
}

/// Where the trilinear block has a fractional index.
inline Point positionIn(const Block& block, const Point& index) {
    return Vantle::interpolateAt<3, Point>(block, index);
}

/// Random fractional indices of a block, no closer to the faces of a cell than `margin`.
inline std::vector<Point> randomIndices(const Block& block, int count, unsigned seed, double margin = 0.0) {
    std::mt19937_64 random(seed);
    std::vector<Point> indices;
    for (int k = 0; k < count; ++k) {
        Point index;
        for (int d = 0; d < 3; ++d) {
            const auto cells = static_cast<long>(block.Size()[d]) - 1;
            index[d] = static_cast<double>(std::uniform_int_distribution<long>(0, cells - 1)(random)) +
                       std::uniform_real_distribution<double>(margin, 1 - margin)(random);
        }
        indices.push_back(index);
    }
    return indices;
}

/// A value for each vertex from its position: equal where positions are equal.
template<class F>
auto fieldOn(const Block& block, const F& function) {
    return filled<decltype(function(Point()))>(block.Size(),
                                               [&](Vantle::index_t k) { return function(block.element(k)); });
}

inline double linear(const Point& p) { return 1.0 + 2.0 * p[0] - 3.0 * p[1] + 0.5 * p[2]; }

/// The linear field on the vertices of a block.
inline Hestra::StrongPtr<Vantle::MemArray<3, double>> linearOn(const Block& block) { return fieldOn(block, linear); }

/// A grid of blocks named "A", "B", ... side by side in u, each with n vertices, and the field "linear".
inline Vantle::RegularGrid3D makeBlocks(Vantle::Grid& grid, const Shape& shape, int blocks,
                                        const Vantle::MultiIndex<3>& n) {
    Vantle::RegularGrid3D made{Hestra::StrongPtr<Vantle::Grid>(&grid)};
    for (int b = 0; b < blocks; ++b) {
        const auto block =
            makeBlock(shape, n, {static_cast<double>(b) / blocks, 0, 0}, {static_cast<double>(b + 1) / blocks, 1, 1});
        const auto id = made.addBlock(std::string(1, static_cast<char>('A' + b)), block);
        made.setField("linear", linearOn(*block), id);
    }
    return made;
}

/// A slice with one grid of blocks.
struct Scene {
    Hestra::StrongPtr<Vantle::Slice> slice = Hestra::makeRef<Vantle::Slice>();
    Hestra::StrongPtr<Vantle::Grid> grid = slice->newGrid("grid");
    Vantle::RegularGrid3D blocks{grid};

    Scene() = default;
    Scene(const Shape& shape, int count, const Vantle::MultiIndex<3>& n) {
        blocks = makeBlocks(*grid, shape, count, n);
    }
    [[nodiscard]] BlockPtr block(const std::string& name) const {
        return Hestra::dynamicCast<Block>(blocks.positions()->getData(blocks.positions()->getFragmentID(name)));
    }
};

/// Cells that shrink so much that no unigrid over them can be made.
inline const Shape spiky{"Spiky",
                         [](double u, double v, double w) {
                             const auto f = [](double x) { return 1 - std::pow(1 - x, 12); };
                             return Point{f(u), f(v), f(w)};
                         },
                         false};
inline const Shape cube{"Cube", [](double u, double v, double w) { return Point{u, v, w}; }, true};

/// Blocks of all kinds that overlap, more than are looked through one by one: curvilinear ones, of which one has flat
/// cells and one no unigrid, unstructured points, rectilinear and uniform ones.
inline Scene mixedScene(int curvilinear = 20) {
    Scene scene(shapes()[1], curvilinear, {5, 9, 8});
    const BlockPtr flat = scene.block("C");
    for (Vantle::index_t i = 1; i < 4; ++i)
        for (Vantle::index_t j = 2; j < 6; ++j) (*flat)(i, j, 4) = (*flat)(i, j, 3);
    scene.blocks.addBlock("no unigrid", makeBlock(spiky, {8, 8, 8}));
    scene.blocks.addBlock("layer", makeBlock(shapes()[0], {1, 3, 3}));
    scene.blocks.addBlock("points", Vantle::makeMemArray1D(std::vector<Point>{{-9, -9, -9}, {9, 9, 9}}));
    using Axis = Vantle::ExplicitCoordinateAxisArray<double>;
    scene.blocks.addBlock("rectilinear",
                          Hestra::makeRef<Vantle::DirectProductMemArray<Point, Vantle::ExplicitCoordinateAxisArray, 3>>(
                              std::array{Axis({-1, -0.5, 0.5}), Axis({-3.0, 0.0, 4.0}), Axis({0.5, 2.0, 2.5})}));
    scene.blocks.addBlock(
        "uniform", Hestra::makeRef<Vantle::UniformCartesianArray>(Orvix::BoundingBox({0.8, -1, 0.2}, {1.4, 1, 0.8}),
                                                                  Vantle::MultiIndex<3>(5, 6, 7)));
    return scene;
}

/// Positions in and around it, in clusters of neighbours; some are no numbers.
inline std::vector<Point> mixedPositions(int clusters, unsigned seed) {
    std::vector<Point> positions;
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> x(-2.2, 2.2), z(-0.2, 1.2), off(-0.05, 0.05);
    for (int cluster = 0; cluster < clusters; ++cluster) {
        const Point centre{x(random), x(random), z(random)}; // braces: in this order, whatever the compiler
        for (int k = 0; k < 70; ++k)
            positions.push_back(Point{centre[0] + off(random), centre[1] + off(random), centre[2] + off(random)});
    }
    positions[5] = Point(std::nan(""), 0, 0);
    positions[7] = Point(0, HUGE_VAL, 0);
    return positions;
}

inline BlockPtr blockOf(const Vantle::RegularGrid3D& grid, const Hestra::StrongPtr<Vantle::FragmentID>& id) {
    return Hestra::dynamicCast<Block>(grid.positions()->getData(id));
}

inline double distance(const Point& a, const Point& b) { return length(a - b); }

/// How often a text occurs.
inline int occurrences(const std::string& text, const std::string& what) {
    int count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

} // namespace support
