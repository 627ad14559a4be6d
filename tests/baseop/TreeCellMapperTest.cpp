#include <baseop/TreeCellMapper.hpp>

#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

const vector Scale(1.5, 1.5, 1.5);

/// The query, written down plainly: all cells of the box around the point, by distance.
unsigned int plainQuery(const TreeCellMapper& mapper, const vector& scale, double epsilon, const Point& P, Point& uvw,
                        vector& extent, MultiIndex<3>& found) {
    const Block& block = *mapper.coordinates();
    vector half;
    for (int d = 0; d < 3; ++d) half[d] = scale[d] * mapper.maximalEdgeExtents()[d];
    std::multimap<double, MultiIndex<3>> cells;
    mapper.tree()->find_nearest_Manhatten(cells, P, half);
    for (const auto& entry : cells) {
        const MultiIndex<3>& C = entry.second;
        const auto corner = [&](int i, int j, int k) { return block[C + MultiIndex<3>(i, j, k)]; };
        Point q;
        Orvix::cuboidToUnitCube(q, P, corner(0, 0, 0), corner(0, 0, 1), corner(0, 1, 0), corner(1, 0, 0),
                                corner(1, 1, 1), true);
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && q[d] >= -epsilon && q[d] <= 1 + epsilon;
        if (!isInside) continue;
        found = C;
        unsigned int code = 1;
        for (int d = 0; d < 3; ++d) {
            extent[d] = std::fabs(corner(1, 1, 1)[d] - corner(0, 0, 0)[d]);
            if (C[d] == 0 && q[d] < 0) {
                q[d] = 0;
                code = 2;
            } else if (C[d] == block.Size()[d] - 2) {
                if (q[d] > 1) {
                    q[d] = 1;
                    code = 2;
                }
            } else {
                q[d] += static_cast<double>(C[d]);
            }
        }
        uvw = q;
        return code;
    }
    return 0;
}

TEST(TreeCellMapperTest, AnswersAsThePlainWalk) {
    int codes[3] = {};
    for (const auto& [name, block] : roughBlocks())
        for (const double epsilon : {0.02, 0.0, 0.4}) {
            const TreeCellMapper mapper(block, Scale, epsilon, 13);
            auto points = probes(*block, 200, 41);
            // Ties: points on the faces of parallelepipeds are as far from either midpoint.
            for (const Point& index : randomIndices(*block, block->Size()[1] > 1 ? 100 : 0, 43))
                points.push_back(positionIn(*block, Point(std::floor(index[0]), index[1], index[2])));
            for (const Point& P : points) {
                Point uvw, plainUvw;
                vector extent(7, 7, 7), plainExtent = extent;
                MultiIndex<3> cell, plainCell;
                const unsigned int code = mapper.localCoordinates(uvw, extent, P, &cell);
                ++codes[code];
                ASSERT_EQ(code, plainQuery(mapper, Scale, epsilon, P, plainUvw, plainExtent, plainCell)) << name << P;
                EXPECT_EQ(cell, plainCell) << name << P;
                EXPECT_EQ(extent, plainExtent) << name << P;
                if (code != 0) {
                    EXPECT_TRUE(same(uvw, plainUvw)) << name << P;
                }
            }
        }
    for (const int count : codes) EXPECT_GT(count, 100);
}

TEST(TreeCellMapperTest, TreeHasTheCellsInterleavedAndIsAttachedToTheArray) {
    const BlockPtr block = distortedBlock({6, 5, 4}, 1.0, 0.3, 2);
    const auto entries = [&](unsigned int stride) {
        const TreeCellMapper mapper(block, Scale, 0.02, stride);
        const auto attached = block->findInterface<Orvix::KDInterface<3, MultiIndex<3>>>();
        EXPECT_TRUE(attached && attached->tree() == mapper.tree());
        std::vector<MultiIndex<3>> order;
        mapper.tree()->forEachInBox(Point(), Point(1e9, 1e9, 1e9),
                                    [&](const MultiIndex<3>& cell, double) { order.push_back(cell); });
        return order;
    };
    // Pre-order begins with the cell inserted first, at every stride; the default is 13.
    EXPECT_EQ(entries(0), entries(13));
    EXPECT_NE(entries(1), entries(13));
    Orvix::KDTree<3, MultiIndex<3>> plain;
    const MultiIndex<3> cells = block->Size() - 1;
    for (index_t offset = 0; offset < 7; ++offset)
        for (index_t n = offset; n < cells.product(); n += 7) {
            const auto C = MultiIndex<3>::fromLinear(n, cells);
            const Point low = (*block)[C];
            plain.insert(low + 0.5 * ((*block)[C + 1] - low), C);
        }
    std::vector<MultiIndex<3>> order;
    plain.forEachInBox(Point(), Point(1e9, 1e9, 1e9),
                       [&](const MultiIndex<3>& cell, double) { order.push_back(cell); });
    EXPECT_EQ(entries(7), order);
}

TEST(TreeCellMapperTest, MaximaOfEdges) {
    double longest = 0.0;
    vector extents;
    TreeCellMapper::maxVec(longest, extents, vector(-3, 0, 4));
    TreeCellMapper::maxVec(longest, extents, vector(1, -1, 1));
    EXPECT_EQ(extents, vector(3, 1, 4));
    EXPECT_EQ(longest, 5.0);
    TreeCellMapper::maxVec(longest, extents, vector(3e200, 4e200, 0));
    EXPECT_DOUBLE_EQ(longest, 5e200);
}

} // namespace
