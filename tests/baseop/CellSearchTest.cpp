#include <baseop/CellSearch.hpp>
#include <baseop/ExpandBBox.hpp>

#include <support/LocationGrids.hpp>
#include <support/Testing.hpp>

namespace {

using support::Point;

// In parallelepipeds the projective map is exact, and so it is in cells that a projective map has skewed, however far
// from a parallelepiped they are: each point comes back to the cell that it was made in.
TEST(CellSearchTest, FindsTheCellAPointWasMadeIn) {
    const auto projected = [](double u, double v, double w) {
        const double scale = 1.0 / (1.0 + 1.5 * u - 0.6 * v + 0.8 * w);
        return Point((2.0 * u + 0.7 * v) * scale, (v - 0.4 * w + 0.2 * u) * scale, (1.5 * w + 0.3 * u) * scale);
    };
    for (const support::Shape& shape : {support::shapes()[0], support::Shape{"projected", projected, false}}) {
        const StrongPtr<Grid> grid = makeRef<Grid>();
        const auto blocks = support::makeBlocks(*grid, shape, 3, {5, 4, 6});
        const CellSearch search(*blocks.positions(), *getBoundingBox(blocks.positions()), {8, 7, 6}, 100);
        double farthest = 0.0;
        for (unsigned int fragment = 0; fragment < 3; ++fragment) {
            const auto block = support::blockOf(blocks, blocks.positions()->getFragmentIDCollection()->ids()[fragment]);
            for (const Point& index : support::randomIndices(*block, 100, 7, 1e-6)) {
                const Point p = shape.at((fragment + index[0] / 4.0) / 3.0, index[1] / 3.0, index[2] / 5.0);
                const auto found = search.findLocation(p, *blocks.positions());
                ASSERT_TRUE(found) << shape.name << index;
                EXPECT_EQ(found.fragment, fragment);
                for (int d = 0; d < 3; ++d) {
                    EXPECT_EQ(found.cell[d], static_cast<index_t>(index[d]));
                    EXPECT_NEAR(found.local[d], index[d] - std::floor(index[d]), 1e-9);
                }
                farthest = std::max(farthest, distance(p, support::positionIn(*block, index)));
            }
        }
        EXPECT_TRUE(shape.isAffine || farthest > 0.002) << "trilinear cells would do";
    }
    // A box that covers a part of the blocks only finds what is in it.
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const auto blocks = support::makeBlocks(*grid, support::shapes()[0], 3, {5, 4, 6});
    const CellSearch part(*blocks.positions(), BoundingBox({0.3, 0.2, 0.1}, {1.0, 0.6, 1.0}), {3, 3, 3}, 100);
    EXPECT_TRUE(part.findLocation({0.3, 0.6, 0.5}, *blocks.positions())) << "faces of the box belong to it";
    EXPECT_FALSE(part.findLocation({0.29, 0.6, 0.5}, *blocks.positions()));
}

TEST(CellSearchTest, TellsWhatItInspects) {
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const support::Shape cube{"Cube", [](double u, double v, double w) { return Point{u, v, w}; }, true};
    const auto blocks = support::makeBlocks(*grid, cube, 1, {3, 2, 2});
    const CellSearch search(*blocks.positions(), BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2}, 4);
    const auto ask = [&](const Point& p) {
        CellSearch::Location found;
        const std::string text = outputOf([&] { found = search.findLocation(p, *blocks.positions()); });
        return std::pair(found, text);
    };
    const auto [found, text] = ask({0.75, 0, 1});
    EXPECT_TRUE(found);
    EXPECT_EQ(found.cell, MultiIndex<3>(1, 0, 0));
    EXPECT_EQ(text, "CellSearch::findLocation(0.75,0,1): Point resides in unicell 0x0x1, which covers to 2 cells.\n"
                    "   Inspect Cell Nr. 0: (0,0,0) - (0.5,1,1), which is cell 0x0x0 in fragment #0\n"
                    "   --> Cell Vertex Factors are (1,1,1)\n"
                    "   --> Linear Fractional Transformation Factors are (1,1,1, 1)\n"
                    "   --> Point relative to Cell is (1.5,0,1)\n"
                    "   --> Cell Coordinates of this point are (1.5,0,1) (denom 1)\n"
                    "   Inspect Cell Nr. 1: (0.5,0,0) - (1,1,1), which is cell 1x0x0 in fragment #0\n"
                    "   --> Cell Vertex Factors are (1,1,1)\n"
                    "   --> Linear Fractional Transformation Factors are (1,1,1, 1)\n"
                    "   --> Point relative to Cell is (0.5,0,1)\n"
                    "   --> Cell Coordinates of this point are (0.5,0,1) (denom 1)\n");
    EXPECT_EQ(ask({0.5, 0.5, 0.5}).first.cell, MultiIndex<3>(0, 0, 0)) << "a common face is the first cell's";
    for (const Point& outside : {Point(1.1, 0.5, 0.5), Point(0.5, std::nan(""), 0.5), Point(0.5, 0.5, -INFINITY)}) {
        EXPECT_FALSE(ask(outside).first);
        EXPECT_EQ(ask(outside).second, "");
    }
}

// Also of counts without components for fragment numbers: the room is that of the indices.
TEST(CellSearchTest, ListsHoldWhatFitsIntoThem) {
    for (const index_t components : {1ULL, 2ULL, 3ULL}) {
        const auto counts = MemArray<4, unsigned short>::create({2, 1, 2, components});
        const auto indices = MemArray<4, Orvix::FixedArray<unsigned short, 3>>::create({2, 1, 2, 2});
        const auto add = [&](index_t fragment, const MultiIndex<3>& cell) {
            return CellSearch::addToUniCell(*counts, *indices, {1, 0, 1}, fragment, cell);
        };
        EXPECT_FALSE(add(65536, {0, 0, 0}));
        EXPECT_FALSE(add(0, {0, 65536, 0}));
        EXPECT_TRUE(add(65535, {1, 2, 65535}));
        EXPECT_TRUE(add(4, {5, 6, 7}));
        EXPECT_FALSE(add(0, {0, 0, 0})) << "full";
        const unsigned short expected[] = {2, 65535, 4};
        for (index_t c = 0; c < components; ++c) EXPECT_EQ((*counts)(1ULL, 0ULL, 1ULL, c), expected[c]);
        EXPECT_EQ((*indices)(1ULL, 0ULL, 1ULL, 1ULL), (Orvix::FixedArray<unsigned short, 3>(5, 6, 7)));
    }
}

TEST(CellSearchTest, SelectorsAndOddInput) {
    struct OnlyB : FragmentSelector {
        bool isSelected(const StrongPtr<FragmentID>& id) const override { return id && id->name() == "B"; }
    };
    const StrongPtr<Grid> grid = makeRef<Grid>();
    const auto blocks = support::makeBlocks(*grid, support::shapes()[0], 2, {3, 3, 3});
    const auto center = [&](const char* name) {
        return support::positionIn(*support::blockOf(blocks, blocks.positions()->getFragmentID(name)), {0.9, 0.9, 0.9});
    };
    const BoundingBox box = *getBoundingBox(blocks.positions());
    const StrongPtr<FragmentSelector> onlyB(new OnlyB);
    const CellSearch search(*blocks.positions(), box, {4, 4, 4}, 50, onlyB);
    EXPECT_FALSE(search.findLocation(center("A"), *blocks.positions()));
    EXPECT_EQ(search.findLocation(center("B"), *blocks.positions()).fragment, 1u) << "numbered as in the field";

    for (const MultiIndex<3>& resolution : {MultiIndex<3>(0, 3, 3), MultiIndex<3>(1, 1, 1)})
        for (const index_t maximum : {0ULL, 50ULL}) {
            const CellSearch odd(*blocks.positions(), box, resolution, maximum);
            EXPECT_EQ(bool(odd.findLocation(center("A"), *blocks.positions())), resolution[0] > 0 && maximum > 0);
        }
    // Collapsed cells and cells with NaN have no coordinates; the others do.
    const StrongPtr<Grid> broken = makeRef<Grid>();
    auto block = support::makeBlock(support::shapes()[0], {4, 3, 3});
    (*block)(3, 1, 1) = Point(std::nan(""), 0, 0);
    for (index_t k = 0; k < 3; ++k)
        for (index_t j = 0; j < 3; ++j) (*block)(1, j, k) = (*block)(0, j, k);
    RegularGrid3D(broken).addBlock("block", block);
    RegularGrid3D(broken).addBlock("flat", support::makeBlock(support::shapes()[0], {4, 1, 3}));
    const auto positions = broken->CartesianPositions();
    const CellSearch inBroken(*positions, box, {3, 3, 3}, 50);
    EXPECT_TRUE(inBroken.findLocation(support::positionIn(*block, {1.5, 0.5, 0.5}), *positions));
    EXPECT_FALSE(CellSearch(*positions, BoundingBox(), {3, 3, 3}, 50).findLocation({0, 0, 0}, *positions));
}

} // namespace
