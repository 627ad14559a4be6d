// Joins of blocks, by law: blocks cut, turned and flipped at random against the uncut one, and blocks that meet
// themselves.

#include <baseop/BlockJoins.hpp>

#include <support/CutBlocks.hpp>
#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;

IndexMap::Place signedPlace(const Place& place) {
    return {static_cast<std::int64_t>(place[0]), static_cast<std::int64_t>(place[1]),
            static_cast<std::int64_t>(place[2])};
}

/// Calls `check(uncut, copy, axis, direction, along, isBack)` for each step that copies of vertices may have: along an
/// axis of the piece, which is the axis `along` of the uncut block, forward or back in that.
template<class Check>
void forEachStep(const CutGrid& cut, const Place& size, const Check& check) {
    Place uncut;
    do
        for (const BlockVertex& copy : cut.copies(uncut))
            for (int axis = 0; axis < 3; ++axis)
                for (const int direction : {-1, 1}) {
                    const Piece& piece = cut.pieces[copy.block];
                    const auto d = static_cast<std::size_t>(axis);
                    check(uncut, copy, axis, direction, piece.axis[d], piece.isFlipped[d] != (direction < 0));
                }
    while (uncut.advance(size));
}

/// Joins, owners, steps and handedness of a cut block, by what the uncut one says.
void expectUncut(const CutGrid& cut, const Place& size) {
    const auto joins = BlockJoins::of(*cut.grid);
    ASSERT_TRUE(joins);
    ASSERT_EQ(joins->blocks(), cut.pieces.size());
    EXPECT_TRUE(joins->doubtful().empty()) << joins->describe();
    EXPECT_TRUE(joins->isOrientable());

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
    forEachStep(cut, size,
                [&](const Place& uncut, const BlockVertex& copy, int axis, int direction, int along, bool isBack) {
                    EXPECT_EQ(joins->owner(copy), cut.copies(uncut).front());
                    const auto step = joins->step(copy, axis, direction);
                    const bool isThere = isBack ? uncut[along] > 0 : uncut[along] + 1 < size[along];
                    ASSERT_EQ(bool(step), isThere);
                    if (!step) return;
                    Place next = uncut;
                    next[along] += isBack ? ~index_t{0} : index_t{1};
                    EXPECT_EQ(cut.uncut(step->vertex), next);
                    EXPECT_EQ(step->motion, nullptr);
                });
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
    // One face against many.
    const Place size(5, 10, 10);
    std::vector<Piece> pieces = cutAtPlanes({3, 10, 10}, {{{}, {2, 4, 7}, {1, 3, 5}}});
    for (Piece& piece : pieces) piece.low[0] += 2;
    pieces.push_back({{}, {3, 10, 10}});
    expectUncut(CutGrid(*makeBlock(shapes()[1], size), turned(pieces, random)), size);
}

/// The joins of one uncut block.
StrongPtr<BlockJoins> joinsOf(const BlockPtr& block, const JoinOptions& options = {}) {
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

/// All corners of a quad as the pairs of a plain finder.
struct PlainQuad {
    BlockFace face;
    std::array<Place, 4> corner; // around the quad
    std::array<Point, 4> at;
    bool isFlat = false;
};

std::vector<PlainQuad> plainQuads(const std::vector<BlockPtr>& blocks) {
    std::vector<PlainQuad> quads;
    for (unsigned int b = 0; b < blocks.size(); ++b)
        for (int f = 0; f < 6; ++f) {
            const int axis = f / 2, u = axis == 0 ? 1 : 0, v = axis == 2 ? 1 : 2;
            Place n, end = blocks[b]->Size() - 1;
            end[axis] = 1;
            do {
                PlainQuad quad{{b, axis, f % 2 != 0}, {}, {}};
                for (std::size_t c = 0; c < 4; ++c) {
                    Place& place = quad.corner[c] = n;
                    place[u] += c == 1 || c == 2;
                    place[v] += c > 1;
                    if (f % 2) place[axis] = blocks[b]->Size()[axis] - 1;
                    quad.at[c] = (*blocks[b])[place];
                }
                for (std::size_t c = 0; c < 2; ++c) quad.isFlat = quad.isFlat || quad.at[c] == quad.at[c + 2];
                int equal = 0;
                for (std::size_t c = 0; c < 4; ++c) equal += quad.at[c] == quad.at[(c + 1) % 4];
                quad.isFlat = quad.isFlat || equal > 1;
                quads.push_back(quad);
            } while (n.advance(end));
        }
    return quads;
}

bool sameCorners(const PlainQuad& a, const PlainQuad& b) {
    return std::is_permutation(a.at.begin(), a.at.end(), b.at.begin());
}

// Blocks whose vertices lie on a handful of places: every quad that is the same as exactly one other one is joined to
// it, unless their faces are doubtful; nothing else is joined, and vertices that are one are in one place.
TEST(BlockJoins, AreThoseOfAPlainSearch) {
    std::mt19937_64 random(11);
    std::size_t joined = 0, several = 0;
    for (int round = 0; round < 300; ++round) {
        Scene scene;
        std::vector<BlockPtr> blocks;
        const auto places = 2 + random() % 6;
        for (unsigned b = 0; b < 2 + random() % 3; ++b) {
            const Place size(2 + random() % 3, 2 + random() % 3, 2 + random() % 3);
            const bool isRegular = random() % 3 != 0;
            const Place offset(random() % places, random() % 2, random() % 2);
            blocks.push_back(makeBlockOf(size, [&](const Place& i) {
                if (isRegular && random() % 16) {
                    const Place at = i + offset;
                    return Point(double(at[0] % places), double(at[1]), double(at[2]));
                }
                return Point(double(random() % places), double(random() % 3), double(random() % 3));
            }));
            scene.blocks.addBlock(std::to_string(b), blocks.back());
        }
        const auto joins = BlockJoins::of(*scene.grid);
        SCOPED_TRACE(round);
        std::set<std::pair<BlockFace, BlockFace>> doubtful;
        for (const DoubtfulFace& doubt : joins->doubtful()) doubtful.emplace(doubt.face, doubt.other);

        for (const BlockJoin& join : joins->joins()) {
            Place n;
            do {
                const Place place = join.low + n;
                const auto to = join.map(signedPlace(place));
                EXPECT_EQ((*blocks[join.first.block])[place], (*blocks[join.second.block])[Place(to[0], to[1], to[2])]);
            } while (n.advance(join.high - join.low + 1));
        }
        const auto quads = plainQuads(blocks);
        for (const PlainQuad& quad : quads) {
            if (quad.isFlat) continue;
            std::vector<const PlainQuad*> mates;
            for (const PlainQuad& other : quads)
                if (&other != &quad && sameCorners(quad, other)) mates.push_back(&other);
            const bool isJoined = !joins->isOpen(quad.face, quad.corner[0]);
            joined += isJoined;
            if (mates.size() != 1) {
                several += mates.size() > 1;
                EXPECT_FALSE(isJoined);
                continue;
            }
            // The same corners in another order are another quad.
            bool isTurned = false;
            for (std::size_t turn = 0; turn < 8; ++turn) {
                bool isEqual = true;
                for (std::size_t c = 0; c < 4; ++c)
                    isEqual = isEqual && quad.at[c] == mates[0]->at[(turn + (turn < 4 ? c : 4 - c)) % 4];
                isTurned = isTurned || isEqual;
            }
            EXPECT_TRUE(isJoined == isTurned || doubtful.count({quad.face, mates[0]->face}));
        }
        for (unsigned int b = 0; b < blocks.size(); ++b)
            for (index_t n = 0; n < blocks[b]->nElements(); ++n) {
                const BlockVertex owner = joins->owner({b, n});
                EXPECT_LE(owner, (BlockVertex{b, n}));
                EXPECT_EQ(joins->owner(owner), owner);
                EXPECT_EQ(blocks[owner.block]->element(owner.index), blocks[b]->element(n));
            }
        if (HasFailure()) return;
    }
    EXPECT_GT(joined, 300U);
    EXPECT_GT(several, 100U);
}

// A band that closes with its end as it is, turned by half a turn, or mirrored.
TEST(BlockJoins, OfAMirroredEndAreNotOrientable) {
    const Place n(9, 4, 5);
    const BlockPtr ring = oGrid(n);
    for (const auto& [flipsJ, flipsK] : {std::pair{false, false}, {true, true}, {true, false}, {false, true}}) {
        const auto joins = joinsOf(makeBlockOf(n, [&, j = flipsJ, k = flipsK](const Place& i) {
            if (i[0] + 1 < n[0]) return (*ring)[i];
            return (*ring)(0, j ? n[1] - 1 - i[1] : i[1], k ? n[2] - 1 - i[2] : i[2]);
        }));
        ASSERT_EQ(joins->joins().size(), 1U) << joins->describe();
        EXPECT_EQ(joins->isOrientable(), flipsJ == flipsK);
    }
}

// Periodic faces of pieces, turned: steps across them lead to where the motion says, and nothing else changes.
TEST(BlockJoins, CrossPeriodicFaces) {
    std::mt19937_64 random(5);
    // Slices of a ball, from its centre on.
    const Place n(7, 5, 6);
    const PeriodicBlock slice{makeBlockOf(n,
                                          [&](const Place& i) {
                                              const double r = part(i[1], n[1]), theta = 0.4 + 2 * part(i[2], n[2]);
                                              const double phi = 0.5 * part(i[0], n[0]);
                                              return Point(r * std::sin(theta) * std::cos(phi),
                                                           r * std::sin(theta) * std::sin(phi), r * std::cos(theta));
                                          }),
                              RigidMotion::rotation({0, 0, 0}, {0, 0, -2}, -0.5)};
    for (const PeriodicBlock& periodic : {periodicSlab(), periodicSector(), periodicSector(2, {17, 5, 4}), slice}) {
        const Place size = periodic.block->Size();
        for (int round = 0; round < 4; ++round) {
            const CutGrid cut(*periodic.block,
                              turned(bisect(size, 1 + 2 * static_cast<unsigned>(round), random), random));
            JoinOptions options;
            options.motions = {periodic.motion};
            const auto joins = BlockJoins::of(*cut.grid, options), plain = BlockJoins::of(*cut.grid);
            const auto positionOf = [&](const BlockVertex& v) {
                return blockOf(cut.blocks, cut.ids[v.block])->element(v.index);
            };
            forEachStep(
                cut, size,
                [&](const Place& uncut, const BlockVertex& copy, int axis, int direction, int along, bool isBack) {
                    EXPECT_EQ(joins->owner(copy), plain->owner(copy));
                    const auto step = joins->step(copy, axis, direction);
                    if (along != 0 || uncut[0] != (isBack ? 0 : size[0] - 1)) {
                        const auto same = plain->step(copy, axis, direction);
                        ASSERT_EQ(bool(step), bool(same));
                        EXPECT_TRUE(!step || (step->vertex == same->vertex && !step->motion));
                        return;
                    }
                    ASSERT_TRUE(step && step->motion);
                    Place next = uncut;
                    next[0] = isBack ? size[0] - 2 : 1;
                    EXPECT_EQ(cut.uncut(step->vertex), next);
                    const auto carry = isBack ? periodic.motion.inverse() : periodic.motion;
                    const point there = positionOf(step->vertex);
                    EXPECT_LT(Orvix::distance((*step->motion)(there), carry(there)), 1e-12);
                });
            for (const BlockJoin& join : joins->joins())
                if (join.motion >= 0) {
                    EXPECT_TRUE(joins->isOpen(join.first, join.low));
                    EXPECT_LT(join.largestDistance, 1e-12);
                }
        }
    }
}

// Copies that are off by a little, each in its own way, are joined as if they were not; their differences are told,
// and the owner's copy stands for all.
TEST(BlockJoins, TakeATolerance) {
    std::mt19937_64 random(8);
    for (int round = 0; round < 4; ++round) {
        const Place size(9, 8, 7);
        const BlockPtr uncut = makeBlock(shapes()[static_cast<std::size_t>(round)], size);
        const CutGrid cut(*uncut, turned(bisect(size, 9, random), random));
        const auto exact = BlockJoins::of(*cut.grid);
        const double off = 1e-9;
        std::uniform_real_distribution<double> noise(-off, off);
        for (const auto& id : cut.ids) {
            const BlockPtr block = blockOf(cut.blocks, id);
            for (index_t n = 0; n < block->nElements(); ++n)
                for (int d = 0; d < 3; ++d) block->element(n)[d] += noise(random);
        }
        cut.blocks.positions()->touch();
        EXPECT_TRUE(BlockJoins::of(*cut.grid)->joins().empty());
        JoinOptions options;
        options.tolerance = 0.01;
        const auto near = BlockJoins::of(*cut.grid, options);
        ASSERT_EQ(near->joins().size(), exact->joins().size());
        for (std::size_t n = 0; n < near->joins().size(); ++n) {
            const BlockJoin &a = near->joins()[n], &b = exact->joins()[n];
            EXPECT_TRUE(a.first == b.first && a.second == b.second && a.low == b.low && a.high == b.high &&
                        a.map == b.map);
            EXPECT_TRUE(a.largestDistance > 0.0 && a.largestDistance < 4 * off);
        }
        const CopyDifference difference = compareCopies(*near, *cut.blocks.positions());
        std::size_t shared = 0;
        double largest = 0.0;
        for (unsigned int b = 0; b < near->blocks(); ++b) {
            ASSERT_EQ(near->shared(b).size(), exact->shared(b).size());
            shared += near->shared(b).size();
            const auto healed = dynamicCast<Block>(ownersData(*near, *cut.blocks.positions(), b));
            for (const auto& one : near->shared(b)) {
                const Point& owners = blockOf(cut.blocks, cut.ids[one.owner.block])->element(one.owner.index);
                EXPECT_EQ(healed->element(one.index), owners);
                for (int d = 0; d < 3; ++d)
                    largest =
                        std::max(largest, std::abs(owners[d] - blockOf(cut.blocks, cut.ids[b])->element(one.index)[d]));
            }
        }
        EXPECT_EQ(difference.largest, largest);
        EXPECT_EQ(difference.differing, shared);
    }
}

/// A box of cells of the same size.
BlockPtr box(const Point& low, const Point& high, const Place& n) {
    return makeBlockOf(n, [&](const Place& i) {
        Point p;
        for (int d = 0; d < 3; ++d) p[d] = low[d] + (high[d] - low[d]) * part(i[d], n[d]);
        return p;
    });
}

// All edges of the cells count, those off the face as well: the faces of a thin block are not the same.
TEST(BlockJoins, TakeATolerancePerCell) {
    for (const index_t layers : {index_t{2}, index_t{4}})
        for (const double gap : {1e-5, 1e-3}) {
            Scene scene;
            scene.blocks.addBlock("a", box({0, 0, 0}, {4, 4, 3e-3}, {5, 5, layers}));
            scene.blocks.addBlock("b", box({4 + gap, 0, 0}, {8, 4, 3e-3}, {5, 5, layers}));
            JoinOptions options;
            options.tolerance = 0.1;
            const auto joins = BlockJoins::of(*scene.grid, options);
            EXPECT_EQ(joins->joins().size(), gap == 1e-5 ? 1U : 0U) << joins->describe();
        }
    // Corners of others between two faces bring these no nearer.
    Scene scene;
    scene.blocks.addBlock("a", box({0, 0, 0}, {1, 1, 1}, {2, 2, 2}));
    scene.blocks.addBlock("b", box({1.15, 0, 0}, {2, 1, 1}, {2, 2, 2}));
    for (const double y : {0.0, 1.0})
        for (const double z : {0.0, 1.0})
            scene.blocks.addBlock("between " + std::to_string(2 * y + z),
                                  box({1.075, y, z}, {2, 3 * y - 1, 3 * z - 1}, {2, 2, 2}));
    JoinOptions tenth;
    tenth.tolerance = 0.1;
    const auto apart = BlockJoins::of(*scene.grid, tenth);
    for (const BlockJoin& join : apart->joins(0)) EXPECT_NE(join.second.block, 1U) << apart->describe();
    // A pole that is no point by rounding.
    const BlockPtr ball = fieldOn(*sphere(), [](const Point& p) { return p; });
    for (const index_t j : {index_t{0}, index_t{8}})
        for (index_t k = 0; k < 17; ++k)
            for (index_t i = 0; i < 5; ++i) (*ball)(i, j, k)[0] = 1e-17 * std::cos(0.4 * double(k));
    JoinOptions options;
    EXPECT_NE(joinsOf(ball, options)->owner({0, Place(1, 0, 3).linear(ball->Size())}).index, 1U);
    options.tolerance = 1e-6;
    const auto joins = joinsOf(ball, options);
    EXPECT_EQ(joins->joins().size(), 1U) << joins->describe();
    EXPECT_EQ(joins->shared(0).size(), joinsOf(sphere())->shared(0).size());
}

TEST(BlockJoins, AreDoubtfulWhereOnlySomeVerticesCoincide) {
    const BlockPtr below = box({0, 0, 0}, {2, 2, 1}, {5, 5, 3});
    const auto almost = [](const BlockPtr& block, double off) {
        (*block)(2, 2, 0)[0] += off;
        return block;
    };
    struct Case {
        const char* name;
        std::vector<BlockPtr> blocks;
        std::size_t joins, doubtful;
        index_t coincident; // of the first
    };
    const BlockPtr above = box({0, 0, 1}, {2, 2, 2}, {5, 5, 3});
    const BlockPtr leaning =
        fieldOn(*above, [](const Point& p) { return Point(p[0] + 3 * (p[2] - 1), p[1] + 0.3 * (p[2] - 1), p[2]); });
    const BlockPtr elsewhere = box({0, 0, 1}, {2, 2, 2}, {5, 5, 3});
    for (index_t j = 0; j < 5; ++j)
        for (index_t i = 0; i < 5; ++i)
            if ((i > 1 || j > 1) && (i != 3 || j != 3)) (*elsewhere)(i, j, 0)[0] += 0.05;
    const auto bulged = [](const BlockPtr& block, double size) {
        return fieldOn(*block, [size](const Point& p) {
            return Point(p[0], p[1], p[2] + (p[2] == 1.0 ? size * p[0] * p[1] * (2 - p[0]) * (2 - p[1]) : 0.0));
        });
    };
    const auto layered = [](const BlockPtr& block) { // the first one
        return fieldOn(*block, [](const Point& p) { return Point(p[0], p[1] == 0.5 ? 0.0 : p[1], p[2]); });
    };
    for (const Case& one : {
             Case{"finer", {below, box({0, 0, 1}, {2, 2, 2}, {9, 9, 3})}, 0, 2, 25},
             Case{"finer along one axis", {below, box({0, 0, 1}, {2, 2, 2}, {5, 9, 3})}, 0, 2, 25},
             Case{"neither is finer", {box({0, 0, 1}, {2, 2, 2}, {7, 7, 3}), below}, 0, 2, 9},
             Case{"a part", {below, box({0.5, 0.5, 1}, {1.5, 1.5, 2}, {5, 5, 3})}, 0, 2, 9},
             Case{"thin", {box({0, 0, 0}, {2, 1, 1}, {5, 2, 3}), box({0, 0, 1}, {2, 1, 2}, {9, 2, 3})}, 0, 2, 10},
             Case{"one cell", {box({0, 0, 0}, {2, 2, 1}, {2, 2, 2}), box({0, 0, 1}, {2, 2, 2}, {3, 3, 2})}, 0, 2, 4},
             Case{"nearly", {below, almost(box({0, 0, 1}, {2, 2, 2}, {5, 5, 3}), 1e-9)}, 0, 2, 24},
             Case{"not at all in one place", {below, almost(box({0, 0, 1}, {2, 2, 2}, {5, 5, 3}), 0.1)}, 4, 0, 0},
             Case{"here and there", {below, elsewhere}, 0, 2, 5},
             Case{"three sheets", {below, above, leaning}, 0, 6, 25},
             Case{"three sheets in part", {below, above, box({0, 0, 0}, {2, 1, 1}, {5, 3, 3})}, 1, 14, 9},
             Case{"twice", {below, box({0, 0, 0}, {2, 2, 1}, {5, 5, 3})}, 0, 12, 15},
             Case{"a rim around a lens", {bulged(below, 1.0), bulged(above, 2.0)}, 0, 0, 0},
             Case{"layers without thickness", {layered(below), layered(box({2, 0, 0}, {4, 2, 1}, {5, 5, 3}))}, 1, 0, 0},
             Case{"an edge", {below, box({2, 0, 1}, {4, 2, 2}, {5, 5, 3})}, 0, 0, 0},
             Case{"an edge inside",
                  {below, box({1, 0, 1}, {3, 2, 2}, {5, 5, 3}), box({0, 0, 2}, {1, 2, 3}, {3, 5, 3})},
                  1,
                  0,
                  0},
             Case{"a vertex", {below, box({2, 2, 1}, {4, 4, 2}, {5, 5, 3})}, 0, 0, 0},
         }) {
        SCOPED_TRACE(one.name);
        Scene scene;
        for (const BlockPtr& block : one.blocks)
            scene.blocks.addBlock(std::to_string(scene.blocks.positions()->nFragments()), block);
        const auto joins = BlockJoins::of(*scene.grid);
        EXPECT_EQ(joins->joins().size(), one.joins) << joins->describe();
        EXPECT_EQ(joins->doubtful().size(), one.doubtful) << joins->describe();
        if (!joins->doubtful().empty()) {
            EXPECT_EQ(joins->doubtful()[0].coincident, one.coincident);
        }
    }
}

std::size_t distinctOwners(const BlockJoins& joins) {
    std::size_t count = 0;
    for (unsigned int b = 0; b < joins.blocks(); ++b) count += joins.size(b).product() - joins.shared(b).size();
    return count;
}

// Many blocks, many vertices in one place: as fast as any others, or this would never end.
TEST(BlockJoins, OfManyBlocksAndManyVerticesInOnePlace) {
    std::mt19937_64 random(4);
    const Place size(41, 41, 41);
    const std::vector<index_t> cuts{4, 8, 12, 16, 20, 24, 28, 32, 36};
    const CutGrid cut(*makeBlock(shapes()[2], size), turned(cutAtPlanes(size, {cuts, cuts, cuts}), random));
    const auto joins = BlockJoins::of(*cut.grid);
    ASSERT_EQ(joins->blocks(), 1000U);
    EXPECT_EQ(joins->joins().size(), 2700U);
    EXPECT_EQ(distinctOwners(*joins), size.product());
    EXPECT_TRUE(joins->doubtful().empty());

    const auto repeated = [](const BlockPtr& block, unsigned count, double tolerance) {
        Scene scene;
        for (unsigned n = 0; n < count; ++n) scene.blocks.addBlock(std::to_string(n), block);
        JoinOptions options;
        options.tolerance = tolerance;
        return BlockJoins::of(*scene.grid, options);
    };
    const BlockPtr flat = makeBlockOf({60, 60, 60}, [](const Place&) { return Point(1, 2, 3); });
    for (const double tolerance : {0.0, 0.1}) {
        const auto constant = repeated(flat, 3, tolerance);
        EXPECT_TRUE(constant->joins().empty() && constant->doubtful().empty());
        EXPECT_EQ(constant->shared(1).size(), 2 * 60 * 60 + 58 * (4 * 60 - 4) - 1) << "one place is left of each shell";
        const auto same = repeated(makeBlock(shapes()[1], {5, 5, 5}), 500, tolerance);
        EXPECT_TRUE(same->joins().empty());
        EXPECT_GE(same->doubtful().size(), 3000U);
        EXPECT_EQ(same->doubtful()[0].reason, "more than two faces are the same there");
        EXPECT_FALSE(same->isShared(1));
    }
    // Folded like a sheet of paper: it lies on itself.
    const auto folded = joinsOf(makeBlockOf({201, 21, 21}, [](const Place& i) {
        return Point(double(std::min(i[0], 200 - i[0])), double(i[1]), double(i[2]));
    }));
    EXPECT_TRUE(folded->joins().empty());
    EXPECT_EQ(folded->doubtful().size(), 6U) << folded->describe();
    EXPECT_FALSE(folded->isShared(0));
}

// All kinds of coordinates take part; what has no cells, and what is no number, does not.
TEST(BlockJoins, TakeWhatIsThere) {
    Scene scene;
    const double nan = std::nan("");
    using Axis = ExplicitCoordinateAxisArray<double>;
    const auto add = [&](const char* name, const StrongPtr<MemBase>& block) { scene.blocks.addBlock(name, block); };
    add("layer", box({0, 0, 0}, {1, 1, 0}, {5, 5, 1}));
    add("uniform", makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {1, 1, 1}), Place(5, 5, 5)));
    add("points", makeMemArray1D(std::vector<Point>{{0, 0, 0}, {1, 1, 1}}));
    add("rectilinear", makeRef<DirectProductMemArray<Point, ExplicitCoordinateAxisArray, 3>>(std::array{
                           Axis({1, 1.5, 4}), Axis({0.0, 0.25, 0.5, 0.75, 1.0}), Axis({1.0, 0.75, 0.5, 0.25, -0.0})}));
    const BlockPtr holed = box({0, 0, 1}, {1, 1, 2}, {5, 5, 3});
    (*holed)(2, 2, 0)[1] = nan;
    add("holed", holed);
    scene.blocks.positions()->makeFragmentID("nothing");
    const auto joins = BlockJoins::of(*scene.grid);
    EXPECT_EQ(joins->blocks(), 6U);
    EXPECT_EQ(joins->size(0), Place());
    EXPECT_EQ(joins->find(joins->fragment(3)), 3U);
    EXPECT_EQ(joins->find(makeRef<FragmentID>("holed")), 4U);
    EXPECT_EQ(joins->find(makeRef<FragmentID>("elsewhere")), 6U);
    EXPECT_FALSE(joins->step({0, 0}, 0, 1));
    // The rectilinear block wholly, the holed one around its hole.
    EXPECT_EQ(joins->joins(3).size(), 1U) << joins->describe();
    EXPECT_FALSE(joins->isOpen({1, 0, true}, {4, 2, 3}));
    EXPECT_TRUE(joins->isOpen({1, 2, true}, {2, 1, 4}));
    EXPECT_FALSE(joins->isOpen({1, 2, true}, {3, 3, 4}));
    EXPECT_EQ(joins->owner({4, Place(2, 2, 0).linear(holed->Size())}), (BlockVertex{4, 12}));
    EXPECT_EQ(joins->shared(4).size(), 24U);

    EXPECT_FALSE(BlockJoins::of(*makeRef<Grid>()));
    for (const double bad : {-0.1, 0.5, nan, HUGE_VAL}) {
        JoinOptions options;
        options.tolerance = bad;
        EXPECT_THROW((void)BlockJoins::of(*scene.grid, options), std::invalid_argument);
    }
}

TEST(BlockJoins, FollowPositionsMasksAndOptions) {
    CutGrid cut(*makeBlock(shapes()[1], {7, 5, 5}), cutAtPlanes({7, 5, 5}, {{{3}, {}, {}}}));
    const auto joins = BlockJoins::of(*cut.grid);
    ASSERT_EQ(joins->joins().size(), 1U);
    EXPECT_EQ(BlockJoins::of(*cut.grid), joins);
    JoinOptions options;
    options.tolerance = 0.1;
    EXPECT_NE(BlockJoins::of(*cut.grid, options), joins);
    (*blockOf(cut.blocks, cut.ids[0]))(3, 2, 2)[0] += 1.0;
    cut.blocks.positions()->touch();
    EXPECT_EQ(BlockJoins::of(*cut.grid)->joins().size(), 4U) << "around the vertex";
    (*blockOf(cut.blocks, cut.ids[0]))(3, 2, 2)[0] -= 1.0;
    cut.blocks.positions()->touch();

    // Cells behind the first two rows of quads of the one, and behind one quad of the other.
    const auto mask = [](const Place& size, const auto& isValid) { return filled<unsigned char>(size, isValid); };
    cut.blocks.setField(CellMaskName, mask({3, 4, 4}, [](const Place& i) { return i[0] != 2 || i[2] > 1; }),
                        cut.ids[0]);
    cut.blocks.setField(CellMaskName, mask({3, 4, 4}, [](const Place& i) { return i != Place(0, 0, 3); }), cut.ids[1]);
    const auto masked = BlockJoins::of(*cut.grid);
    EXPECT_TRUE(masked->doubtful().empty()) << masked->describe();
    std::size_t quads = 0;
    for (const BlockJoin& join : masked->joins()) quads += (join.high[1] - join.low[1]) * (join.high[2] - join.low[2]);
    EXPECT_EQ(quads, 7U);
    EXPECT_TRUE(masked->isOpen({0, 0, true}, {3, 0, 3}));
    EXPECT_FALSE(masked->isOpen({0, 0, true}, {3, 1, 3}));
    cut.blocks.representation()->setField(CellMaskName, nullptr);
    EXPECT_EQ(BlockJoins::of(*cut.grid)->joins().size(), 1U);
}

// What copies hold is compared with what owners hold, and replaced by it; bits that agree stay where they are.
TEST(BlockJoins, OwnersValuesStandForAll) {
    CutGrid cut(*makeBlock(shapes()[0], {5, 4, 4}), cutAtPlanes({5, 4, 4}, {{{2}, {}, {}}}));
    const auto joins = BlockJoins::of(*cut.grid);
    const auto values = [&](const Place& size, double x) { return filled<double>(size, [=](index_t) { return x; }); };
    const auto a = values({3, 4, 4}, 0.0), b = values({3, 4, 4}, -0.0);
    (*a)(2, 1, 1) = std::nan("");
    (*b)(0, 1, 1) = std::nan("");
    cut.blocks.setField("f", a, cut.ids[0]);
    const auto field = cut.blocks.setField("f", b, cut.ids[1]);
    CopyDifference difference = compareCopies(*joins, *field);
    EXPECT_TRUE(difference.differing == 0 && difference.largest == 0.0);
    (*b)(0, 2, 3) = 0.25;
    (*b)(0, 3, 3) = 0.125;
    (*b)(1, 3, 3) = 7.0; // nobody else's
    difference = compareCopies(*joins, *field);
    EXPECT_EQ(difference.differing, 2U);
    EXPECT_EQ(difference.largest, 0.25);
    EXPECT_EQ(difference.where, (BlockVertex{1, Place(0, 2, 3).linear(b->Size())}));
    EXPECT_EQ(ownersData(*joins, *field, 0), StrongPtr<MemBase>(a));
    const auto healed = dynamicCast<MemArray<3, double>>(ownersData(*joins, *field, 1));
    EXPECT_EQ((*healed)(0, 2, 3), 0.0);
    EXPECT_FALSE(std::signbit((*healed)(0, 0, 0)));
    EXPECT_EQ((*healed)(1, 3, 3), 7.0);
    EXPECT_EQ((*b)(0, 2, 3), 0.25) << "what was given stays";
    (*b)(0, 1, 1) = 1.0;
    EXPECT_EQ(compareCopies(*joins, *field).largest, HUGE_VAL) << "a number and none";

    cut.blocks.setField("f", values({3, 4, 3}, 0.0), cut.ids[0]);
    EXPECT_THROW((void)compareCopies(*joins, *field), std::invalid_argument);
    cut.blocks.setField("f", MemArray<3, int>::create({3, 4, 4}), cut.ids[0]);
    EXPECT_THROW((void)ownersData(*joins, *field, 1), std::invalid_argument);
}

} // namespace
