// Joins of blocks, by law: blocks cut, turned and flipped at random against the uncut one, and blocks that meet
// themselves.

#include "support/CutBlocks.hpp"

#include <baseop/BlockJoins.hpp>

#include <gtest/gtest.h>
#include <set>

namespace {

using namespace support;
using namespace Vantle;

IndexMap::Place signedPlace(const Place& place) {
    return {static_cast<std::int64_t>(place[0]), static_cast<std::int64_t>(place[1]),
            static_cast<std::int64_t>(place[2])};
}

/// Joins, owners, steps and handedness of a cut block, by what the uncut one says.
void expectUncut(const CutGrid& cut, const Place& size) {
    const auto joins = BlockJoins::of(*cut.grid);
    ASSERT_TRUE(joins);
    ASSERT_EQ(joins->blocks(), cut.pieces.size());

    for (unsigned int block = 0; block < joins->blocks(); ++block) {
        const Piece& piece = cut.pieces[block];
        EXPECT_EQ(joins->isMirrored(block), piece.isMirrored() != cut.pieces[0].isMirrored());
        for (int face = 0; face < 6; ++face) {
            const BlockFace at{block, face / 2, face % 2 != 0};
            Place quad;
            do {
                Place low = quad;
                if (at.upper) low[at.axis] = piece.ownSize()[at.axis] - 1;
                Place high = low + 1;
                high[at.axis] = low[at.axis];
                const Place a = piece.uncut(low), b = piece.uncut(high);
                const int through = piece.axis[static_cast<std::size_t>(at.axis)];
                const bool isInside = a[through] > 0 && a[through] + 1 < size[through];
                EXPECT_EQ(joins->isOpen(at, quad), !isInside);
                int found = 0;
                for (const BlockJoin& join : joins->joins(block)) {
                    if (join.first != at || !(low - join.low).inside(join.high - join.low + 1) ||
                        !(high - join.low).inside(join.high - join.low + 1))
                        continue;
                    ++found;
                    const Piece& other = cut.pieces[join.second.block];
                    ASSERT_TRUE(other.holds(a) && other.holds(b));
                    EXPECT_EQ(join.map(signedPlace(low)), signedPlace(other.own(a)));
                    EXPECT_EQ(join.map(signedPlace(high)), signedPlace(other.own(b)));
                    EXPECT_EQ(join.map.inverse()(join.map(signedPlace(low))), signedPlace(low));
                    EXPECT_EQ(join.map.isMirrored(), piece.isMirrored() != other.isMirrored());
                }
                EXPECT_EQ(found, isInside ? 1 : 0);
            } while ([&] {
                Place end = piece.ownSize() - 1;
                end[at.axis] = 1;
                return quad.advance(end);
            }());
        }
    }
    Place uncut;
    do {
        const auto copies = cut.copies(uncut);
        for (const BlockVertex& copy : copies) {
            EXPECT_EQ(joins->owner(copy), copies.front());
            const Piece& piece = cut.pieces[copy.block];
            for (int axis = 0; axis < 3; ++axis)
                for (const int direction : {-1, 1}) {
                    const int along = piece.axis[static_cast<std::size_t>(axis)];
                    const bool isBack = piece.isFlipped[static_cast<std::size_t>(axis)] != (direction < 0);
                    const auto step = joins->step(copy, axis, direction);
                    const bool isThere = isBack ? uncut[along] > 0 : uncut[along] + 1 < size[along];
                    ASSERT_EQ(bool(step), isThere);
                    if (!step) continue;
                    Place next = uncut;
                    next[along] += isBack ? ~index_t{0} : index_t{1};
                    EXPECT_EQ(cut.uncut(step->vertex), next);
                    EXPECT_EQ(step->motion, nullptr);
                }
        }
    } while (uncut.advance(size));
}

// Each quad of the cuts is joined exactly once, by the true map; each vertex belongs to its first copy.
TEST(BlockJoins, AreTheCuts) {
    std::mt19937_64 random(3);
    for (int round = 0; round < 12; ++round) {
        const Place size(4 + random() % 5, 4 + random() % 5, 4 + random() % 5);
        const BlockPtr uncut = makeBlock(shapes()[static_cast<std::size_t>(round) % 4], size);
        const auto pieces = round % 2 ? bisect(size, 2 + random() % 12, random)
                                      : cutAtPlanes(size, {{{size[0] / 2}, {1 + random() % (size[1] - 2)}, {}}});
        SCOPED_TRACE(round);
        expectUncut(CutGrid(*uncut, turned(pieces, random)), size);
        if (HasFailure()) return;
    }
}

/// The joins of one uncut block.
Hestra::StrongPtr<BlockJoins> joinsOf(const BlockPtr& block, const JoinOptions& options = {}) {
    Scene scene;
    scene.blocks.addBlock("block", block);
    return BlockJoins::of(*scene.grid, options);
}

// A block that meets itself owns each place once: as many vertices as there are different positions.
TEST(BlockJoins, OfABlockWithItselfLeaveEachPositionOnce) {
    struct Case {
        const char* name;
        BlockPtr block;
        std::size_t joins;
    };
    for (const Case& one : {Case{"ring", oGrid(), 1}, Case{"C", cGrid(), 1}, Case{"shell", sphere(), 1},
                            Case{"ball", sphere(0.0), 1}, Case{"nothing", makeBlock(shapes()[1], {4, 5, 6}), 0}}) {
        SCOPED_TRACE(one.name);
        const auto joins = joinsOf(one.block);
        EXPECT_EQ(joins->joins().size(), one.joins);
        EXPECT_TRUE(joins->isOrientable());
        std::map<std::array<double, 3>, index_t> first;
        for (index_t n = 0; n < one.block->nElements(); ++n) {
            const Point& p = one.block->element(n);
            const auto at = first.try_emplace({p[0] + 0.0, p[1] + 0.0, p[2] + 0.0}, n).first;
            EXPECT_EQ(joins->owner({0, n}).index, at->second);
        }
        EXPECT_EQ(joins->shared(0).size(), one.block->nElements() - first.size());
    }
}

} // namespace
