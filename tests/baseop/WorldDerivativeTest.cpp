#include <baseop/WorldDerivative.hpp>

#include <support/CutBlocks.hpp>
#include <support/Surfaces.hpp>
#include <support/Testing.hpp>

namespace {

using namespace support;
using Vector = PhysicalSpace::vector;
using Tensor = Orvix::Quadratic<3, double>;
template<class T>
using Array = MemArray<3, T>;

/// Relative to the largest derivative: differences of nearly equal numbers, and an inverse.
constexpr double Rounding = 1e-14;

Vector swirl(const Point& p) { return {wave({p[1], p[2], p[0]}), p[0] * p[2] - 0.3 * p[1], wave(p) * p[1]}; }

template<class T>
StrongPtr<Array<T>> cast(const StrongPtr<MemBase>& array) {
    return dynamicCast<Array<T>>(array);
}
template<class Result, class Values>
StrongPtr<Array<Result>> derived(const Values& values, const StrongPtr<MemBase>& positions,
                                 const BlockMask* mask = nullptr) {
    return cast<Result>(WorldDerivative(StrongPtr<MemBase>(values), positions, mask));
}
StrongPtr<Field> derive(const Scene& scene, const std::string& field,
                        const WorldDerivativeOptions& options = {true, {}},
                        const StrongPtr<Hestra::Cache>& cache = Hestra::Cache::MemCache()) {
    std::string errors;
    const auto derivative = WorldDerivative(*scene.grid, field, "d" + field, errors, options, cache);
    EXPECT_EQ(errors, "");
    return derivative;
}

template<class T>
double largest(const Array<T>& values) {
    double result = 0.0;
    for (index_t n = 0; n < values.nElements(); ++n)
        for (const double c : values.element(n))
            if (std::isfinite(c)) result = std::max(result, std::abs(c));
    return result;
}
/// Whether two derivatives are the same but for rounding; NaN where the other is.
template<class T>
bool isNear(const T& a, const T& b, double scale) {
    bool near = true;
    for (int c = 0; c < ElementTraits<T>::components; ++c)
        near = near && (std::abs(a[c] - b[c]) <= Rounding * scale || (std::isnan(a[c]) && std::isnan(b[c])));
    return near;
}

// The definition at one vertex, along the edges that a mask leaves, solved by elimination in the order of the largest
// pivots.
template<class T>
std::array<double, 9> plainDerivative(const Array<T>& values, const Block& block, const MultiIndex<3>& at,
                                      const BlockMask& mask) {
    constexpr int C = ElementTraits<T>::components;
    double rows[3][3 + C];
    for (int d = 0; d < 3; ++d) {
        MultiIndex<3> low = at, high = at;
        if (at[d] > 0) --low[d];
        if (at[d] > 0 && !mask.isEdgeValid(low, d)) low = at;
        if (mask.isEdgeValid(at, d)) ++high[d];
        for (int m = 0; m < 3; ++m) rows[d][m] = block[high][m] - block[low][m];
        for (int c = 0; c < C; ++c)
            rows[d][3 + c] = static_cast<double>(elementComponent(values[high], c)) - elementComponent(values[low], c);
    }
    for (int m = 0; m < 3; ++m) {
        const auto pivot = std::max_element(
            rows + m, rows + 3, [m](const auto& a, const auto& b) { return std::abs(a[m]) < std::abs(b[m]); });
        std::swap(rows[m], *pivot);
        for (int r = 0; r < 3; ++r)
            for (int c = 2 + C; r != m && c >= m; --c) rows[r][c] -= rows[r][m] / rows[m][m] * rows[m][c];
    }
    std::array<double, 9> result{};
    for (int m = 0; m < 3; ++m)
        for (int c = 0; c < C; ++c) result[static_cast<std::size_t>(C * m + c)] = rows[m][3 + c] / rows[m][m];
    return result;
}

TEST(WorldDerivativeTest, IsTheDefinitionInCellsOfAnyShapeForAnyNumberOfThreads) {
    std::mt19937_64 random(10);
    const auto check = [&]<class T>(const Block& block, const StrongPtr<Array<T>>& values, double blanked = 0.0) {
        using Result = std::conditional_t<ElementTraits<T>::components == 1, Vector, Tensor>;
        const StrongPtr<MemBase> positions(const_cast<Block*>(&block));
        const auto vertexMask = filled<unsigned char>(
            block.Size(), [&](index_t) { return std::uniform_real_distribution<double>(0, 1)(random) >= blanked; });
        const BlockMask mask(block.Size(), &*vertexMask, nullptr);
        for (index_t n = 0; n < block.nElements(); ++n) // nobody looks there
            if (!vertexMask->element(n)) values->element(n) = T() * std::numeric_limits<float>::quiet_NaN();
        const auto byThreads = [&](int count) {
            const ThreadCount threads(count);
            return derived<Result>(values, positions, blanked > 0 ? &mask : nullptr);
        };
        const auto alone = byThreads(1), together = byThreads(3);
        ASSERT_TRUE(alone && together && alone->Size() == block.Size());
        const double scale = largest(*alone);
        MultiIndex<3> at;
        do {
            const auto plain =
                mask.isVertexValid(at) ? plainDerivative(*values, block, at, mask) : std::array<double, 9>();
            for (int c = 0; c < ElementTraits<Result>::components; ++c) {
                ASSERT_NEAR((*alone)[at][c], plain[static_cast<std::size_t>(c)], Rounding * scale) << to_string(at);
                ASSERT_EQ((*alone)[at][c], (*together)[at][c]);
            }
        } while (at.advance(block.Size()));
    };
    for (const Shape& shape : shapes())
        for (const MultiIndex<3>& size : {MultiIndex<3>(2, 3, 2), {5, 9, 8}, {131, 18, 19}}) {
            const BlockPtr block = makeBlock(shape, size);
            check(*block, fieldOn(*block, wave));
            check(*block, fieldOn(*block, [](const Point& p) { return static_cast<float>(wave(p)); }));
            check(*block, fieldOn(*block, swirl));
            check(*block, fieldOn(*block, wave), 0.03);
            check(*block, fieldOn(*block, swirl), 0.2);
            // Elements with gaps.
            check(*block, fieldOn(*block, swirl)->getComponentArray(1).strong());
        }
}

// Sheets and curves: the part of the gradient that lies within. Direct products: the same as stored.
TEST(WorldDerivativeTest, LinearFieldsOnSheetsCurvesAndDirectProducts) {
    const Vector gradient(2.0, -3.0, 0.5); // of `linear`
    for (const Shape& shape : shapes())
        for (unsigned sheet = 0; sheet < 8; ++sheet) {
            const MultiIndex<3> size(sheet & 1 ? 1 : 7, sheet & 2 ? 1 : 6, sheet & 4 ? 1 : 5);
            const BlockPtr block = makeBlock(shape, size, {0.2, 0.1, 0.3});
            const auto found = derived<Vector>(linearOn(*block), block);
            MultiIndex<3> at;
            do {
                // It explains all changes, which leaves nothing along the edges, and has no part off them.
                const Vector rest = gradient - (*found)[at];
                for (int d = 0; d < 3; ++d) {
                    MultiIndex<3> low = at, high = at;
                    if (at[d] > 0) --low[d];
                    if (at[d] + 1 < size[d]) ++high[d];
                    const Vector edge = (*block)[high] - (*block)[low];
                    EXPECT_NEAR(dot(rest, edge), 0.0, 1e-10 * length(edge)) << shape.name << sheet;
                }
                EXPECT_NEAR(dot(rest, (*found)[at]), 0.0, 1e-8) << shape.name << sheet;
            } while (at.advance(size));
        }
    const Scene mixed = mixedScene(3);
    for (const char* name : {"uniform", "rectilinear"}) {
        const auto positions = mixed.blocks.positions()->getData(mixed.blocks.positions()->getFragmentID(name));
        const auto creator = dynamic_cast<const DataCreator<Point>*>(positions.rawptr());
        const BlockPtr stored = Block::create(*positions->getDynamicSize().as<3>());
        for (index_t n = 0; n < stored->nElements(); ++n) stored->element(n) = creator->create(n);
        const auto direct = derived<Tensor>(fieldOn(*stored, swirl), positions);
        const auto general = derived<Tensor>(fieldOn(*stored, swirl), stored);
        for (index_t n = 0; n < stored->nElements(); ++n)
            EXPECT_TRUE(isNear(direct->element(n), general->element(n), largest(*general))) << name << n;
    }
}

TEST(WorldDerivativeTest, DegenerateCellsAndUnsuitableArrays) {
    const BlockPtr block = makeBlock(cube, {5, 5, 5});
    const auto values = linearOn(*block);
    (*block)(2, 2, 2) = {std::nan(""), 0, 0};
    for (index_t k = 0; k < 5; ++k) (*block)(3, 4, k) = (*block)(4, 4, k); // and so no edge along axis 0 there
    const auto found = derived<Vector>(values, block);
    MultiIndex<3> at;
    do {
        const bool isFlat = at[0] == 4 && at[1] == 4;
        int apart = 0, along = 0;
        for (int d = 0; d < 3; ++d) apart += at[d] != 2, along += at[d] == 1 || at[d] == 3;
        const bool nextToNaN = apart == 1 && along == 1;
        EXPECT_EQ(std::isnan((*found)[at][0]), isFlat || nextToNaN) << to_string(at);
    } while (at.advance(block->Size()));

    // In an oblique plane but for rounding.
    std::mt19937_64 random(16);
    std::uniform_real_distribution<double> off(-0.3, 0.3);
    const BlockPtr plane = makeBlockOf({5, 5, 5}, [&](const Place& i) {
        const double x = double(i[0]) + off(random) + 0.3 * double(i[2]), y = double(i[1]) + off(random);
        return Point(x, y, 0.1 * x - 0.7 * y + 0.3);
    });
    const auto none = derived<Vector>(linearOn(*plane), plane);
    for (index_t n = 0; n < none->nElements(); ++n) EXPECT_TRUE(std::isnan(none->element(n)[1])) << n;

    const StrongPtr<MemBase> other = Block::create({4, 5, 5}), flat = MemArray<2, Point>::create({5, 5});
    for (const StrongPtr<MemBase>& positions : {other, flat, StrongPtr<MemBase>()})
        EXPECT_FALSE(WorldDerivative(values, positions));
    EXPECT_FALSE(WorldDerivative(StrongPtr<MemBase>(), block));
    EXPECT_FALSE(WorldDerivative(StrongPtr<MemBase>(Array<int>::create({5, 5, 5})), block));
    EXPECT_EQ(derived<Vector>(Array<double>::create({0, 5, 5}), Block::create({0, 5, 5}))->nElements(), 0U);
}

/// Compares the joined derivative at all copies of all vertices with that of the uncut block, and each other.
template<class Result, class T>
void expectUncut(CutGrid& cut, const Block& uncut, const Array<T>& values, const char* what) {
    const auto whole = derived<Result>(StrongPtr<MemBase>(const_cast<Array<T>*>(&values)),
                                       StrongPtr<MemBase>(const_cast<Block*>(&uncut)));
    const double scale = largest(*whole);
    const auto field = derive(cut, "values");
    std::vector<StrongPtr<Array<Result>>> parts;
    for (const auto& id : cut.ids) parts.push_back(cast<Result>(field->getData(id)));
    Place at;
    do {
        const auto copies = cut.copies(at);
        const Result first = parts[copies[0].block]->element(copies[0].index);
        ASSERT_TRUE(isNear(first, (*whole)[at], scale))
            << what << " " << to_string(at) << elementText(first) << elementText((*whole)[at]);
        for (const BlockVertex& copy : copies)
            ASSERT_EQ(elementText(parts[copy.block]->element(copy.index) - first), elementText(first - first));
    } while (at.advance(uncut.Size()));
}

TEST(WorldDerivativeTest, OfCutAndTurnedBlocksIsThatOfTheUncutOne) {
    std::mt19937_64 random(11);
    for (const Shape& shape : shapes())
        for (const std::size_t count : {2U, 5U, 12U}) {
            const BlockPtr uncut = makeBlock(shape, {9, 8, 10});
            CutGrid cut(*uncut, turned(bisect(uncut->Size(), count, random), random));
            const auto noise = noiseOn(*uncut, static_cast<unsigned>(random()));
            cut.setField("values", *noise);
            expectUncut<Vector>(cut, *uncut, *noise, shape.name);
            const auto vectors = fieldOn(*uncut, swirl);
            cut.setField("values", *vectors);
            expectUncut<Tensor>(cut, *uncut, *vectors, shape.name);
        }
}

// What is blanked is nowhere for the neighbours of a block, either. Where an edge in a face is left on one side only,
// that side has it.
TEST(WorldDerivativeTest, JoinedBlocksKeepToWhatIsValid) {
    std::mt19937_64 random(15);
    const BlockPtr uncut = makeBlock(shapes()[2], {11, 6, 7});
    const auto values = fieldOn(*uncut, wave);
    for (const index_t last : {3U, 4U, 5U, 3U, 3U, 3U}) {
        CutGrid cut(*uncut, turned(cutAtPlanes(uncut->Size(), {{{3, 6, 8}, {}, {}}}), random));
        // Of the second layer of blocks, or of a part of it; faces are joined in part.
        const auto mask =
            filled<int>(uncut->Size(), [=](const Place& at) { return at[0] <= last || at[0] >= 6 || at[1] > 3; });
        Place at;
        cut.setField(VertexMaskName, *mask);
        cut.setField("values", *values);
        const BlockMask whole(uncut->Size(), &*mask, nullptr);
        const auto plain = derived<Vector>(values, uncut, &whole);
        std::vector<StrongPtr<const BlockMask>> masks;
        for (unsigned int n = 0; n < cut.pieces.size(); ++n) {
            masks.push_back(Blanking(*cut.grid).of(cut.ids[n], cut.pieces[n].ownSize()));
            const auto own = cast<double>((*cut.grid)("values")->getData(cut.ids[n]));
            for (index_t v = 0; masks[n] && v < own->nElements(); ++v) // nobody looks there
                if (!masks[n]->isVertexValid(Place::fromLinear(v, own->Size()))) own->element(v) = std::nan("");
        }
        const auto field = derive(cut, "values");
        do
            for (const BlockVertex& copy : cut.copies(at)) {
                const Place place = Place::fromLinear(copy.index, cut.pieces[copy.block].ownSize());
                const auto found = cast<Vector>(field->getData(cut.ids[copy.block]))->element(copy.index);
                if (!masks[copy.block] || masks[copy.block]->isVertexValid(place)) {
                    EXPECT_TRUE(isNear(found, (*plain)[at], largest(*plain))) << last << to_string(at) << found;
                }
            }
        while (at.advance(uncut->Size()));
    }
}

// Copies that differ do not count: what other blocks hold of a vertex is its owner's affair.
TEST(WorldDerivativeTest, OwnersSayWhatAJoinedVertexIs) {
    std::mt19937_64 random(12);
    const BlockPtr uncut = makeBlock(shapes()[2], {9, 8, 7});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 6, random), random));
    const auto values = fieldOn(*uncut, wave);
    cut.setField("values", *values);
    const auto field = (*cut.grid)("values");
    Place at;
    int changed = 0;
    do {
        const auto copies = cut.copies(at);
        for (std::size_t n = 1; n < copies.size(); ++n, ++changed)
            cast<double>(field->getData(cut.ids[copies[n].block]))->element(copies[n].index) += 100.0;
    } while (at.advance(uncut->Size()));
    ASSERT_GT(changed, 50);
    expectUncut<Vector>(cut, *uncut, *values, "copies");
}

// Rings: wherever the ring is closed, derivatives are those of the ring that is closed elsewhere. On the wake of a
// C-grid they are central across it.
TEST(WorldDerivativeTest, BlocksThatMeetThemselves) {
    const auto joined = [](const BlockPtr& block, const auto& function) {
        Scene scene;
        scene.blocks.addBlock("all", block);
        scene.blocks.setField("values", fieldOn(*block, function), scene.blocks.positions()->getFragmentID("all"));
        const auto field = derive(scene, "values");
        return cast<Tensor>(field->getData(field->getFragmentID("all")));
    };
    const BlockPtr ring = oGrid();
    const index_t n = ring->Size()[0] - 1, turn = 7;
    const BlockPtr rolled =
        makeBlockOf(ring->Size(), [&](const Place& i) { return (*ring)((i[0] + turn) % n, i[1], i[2]); });
    const auto one = joined(ring, swirl), other = joined(rolled, swirl);
    const double scale = largest(*one);
    Place at;
    do EXPECT_TRUE(isNear((*one)((at[0] + turn) % n, at[1], at[2]), (*other)[at], scale)) << to_string(at);
    while (at.advance(ring->Size()));

    const BlockPtr c = cGrid();
    const auto found = joined(c, swirl);
    for (index_t i = 1; i < 6; ++i) {
        // The same vertices as a block of their own, with the wake in the middle.
        const index_t back = c->Size()[0] - 1;
        const BlockPtr around = makeBlockOf({3, 3, 4}, [&](const Place& p) {
            const index_t along = i + p[0] - 1;
            return p[1] == 0 ? (*c)(back - along, 1, p[2]) : (*c)(along, p[1] - 1, p[2]);
        });
        const auto plain = derived<Tensor>(fieldOn(*around, swirl), around);
        for (index_t k = 0; k < 4; ++k) {
            EXPECT_TRUE(isNear((*found)(i, 0, k), (*plain)(1, 1, k), largest(*found))) << i;
            EXPECT_EQ(elementText((*found)(back - i, 0, k)), elementText((*found)(i, 0, k)));
        }
    }
}

// On the axis of a shell and in the centre of a ball there are derivatives like those around: exact for linear fields,
// and of order two.
TEST(WorldDerivativeTest, PolesHaveDerivatives) {
    for (const double inner : {0.0, 0.5}) {
        double error[2];
        for (const index_t refined : {1U, 2U}) {
            const BlockPtr ball = sphere(inner, {4 * refined + 1, 8 * refined + 1, 16 * refined + 1});
            Scene scene;
            const auto id = scene.blocks.addBlock("ball", ball);
            scene.blocks.setField("linear", linearOn(*ball), id);
            scene.blocks.setField("square", fieldOn(*ball, [](const Point& p) { return p[0] * p[0] + p[1] * p[2]; }),
                                  id);
            const auto linear = cast<Vector>(derive(scene, "linear")->getData(id));
            const auto square = cast<Vector>(derive(scene, "square")->getData(id));
            double& largestError = error[refined - 1] = 0.0;
            Place at;
            do {
                const Point& p = (*ball)[at];
                EXPECT_NEAR(length((*linear)[at] - Vector(2.0, -3.0, 0.5)), 0.0, 1e-10) << inner << to_string(at);
                if (at[0] > 0 && at[0] + 1 < ball->Size()[0])
                    largestError = std::max(largestError, length((*square)[at] - Vector(2 * p[0], p[2], p[1])));
            } while (at.advance(ball->Size()));
        }
        EXPECT_LT(error[1], error[0] / 3) << inner;
    }
    // In pieces: whichever block asks, what is explained are the differences at all copies.
    std::mt19937_64 random(16);
    const BlockPtr ball = sphere(0.0, {5, 9, 17});
    CutGrid cut(*ball, turned(bisect(ball->Size(), 9, random), random));
    cut.setField("values", *noiseOn(*ball, 3));
    const auto field = derive(cut, "values");
    const auto joins = BlockJoins::of(*cut.grid);
    const auto at = [&](const BlockVertex& v) {
        return cast<Vector>(field->getData(cut.ids[v.block]))->element(v.index);
    };
    for (unsigned int b = 0; b < joins->blocks(); ++b)
        for (const auto& [index, owner] : joins->shared(b))
            EXPECT_EQ(elementText(at({b, index})), elementText(at(owner)));
    // A wedge, whose axis is nothing but a collapsed face.
    Scene scene;
    const BlockPtr wedge = makeBlockOf({5, 6, 4}, [](const Place& i) {
        const double r = double(i[0]), angle = 0.3 * double(i[1]);
        return Point(r * std::cos(angle), r * std::sin(angle), double(i[2]));
    });
    const auto id = scene.blocks.addBlock("wedge", wedge);
    scene.blocks.setField("linear", linearOn(*wedge), id);
    const auto linear = cast<Vector>(derive(scene, "linear")->getData(id));
    for (index_t n = 0; n < linear->nElements(); ++n)
        EXPECT_NEAR(length(linear->element(n) - Vector(2.0, -3.0, 0.5)), 0.0, 1e-10) << n;
}

// The first and the last vertices of a periodic block are inside of three such blocks in a row.
TEST(WorldDerivativeTest, CrossesPeriodicPairs) {
    for (const PeriodicBlock& periodic : {periodicSlab(), periodicSector()}) {
        const BlockPtr& block = periodic.block;
        const RigidMotion& motion = periodic.motion;
        const index_t n = block->Size()[0] - 1;
        const auto field = fieldOn(*block, swirl); // any values, if the last are the first, moved
        for (index_t k = 0; k < block->Size()[2]; ++k)
            for (index_t j = 0; j < block->Size()[1]; ++j) (*field)(n, j, k) = motion((*field)(0, j, k));
        Scene scene;
        const auto id = scene.blocks.addBlock("one", block);
        scene.blocks.setField("values", field, id);
        WorldDerivativeOptions options{true, {}};
        options.joins.motions.push_back(motion);
        const auto found = cast<Tensor>(derive(scene, "values", options)->getData(id));

        const Place size(2 * n + 1, block->Size()[1], block->Size()[2]);
        const auto vectors = Array<Vector>::create(size);
        const BlockPtr row = makeBlockOf(size, [&](const Place& i) {
            const Place own(i[0] % n, i[1], i[2]);
            (*vectors)[i] = i[0] < n ? (*field)[own] : motion((*field)[own]);
            if (i[0] < n) return (*block)[own];
            (*vectors)[i] = i[0] == 2 * n ? motion((*vectors)[i]) : (*vectors)[i];
            return i[0] == 2 * n ? motion(motion((*block)[own])) : motion((*block)[own]);
        });
        const auto whole = derived<Tensor>(vectors, row);
        for (index_t k = 0; k < size[2]; ++k)
            for (index_t j = 0; j < size[1]; ++j)
                EXPECT_TRUE(isNear((*found)(n, j, k), (*whole)(n, j, k), largest(*whole))) << j << " " << k;
        const auto alone = derived<Tensor>(field, block);
        EXPECT_FALSE(isNear((*found)(n, 2, 2), (*alone)(n, 2, 2), largest(*whole)));
    }
}

TEST(WorldDerivativeTest, PositionsAndVectorsInSinglePrecisionAreThoseNumbers) {
    const BlockPtr ring = oGrid();
    const auto points =
        fieldOn(*ring, [](const Point& p) { return FloatPoint(float(p[0]), float(p[1]), float(p[2])); });
    const auto vectors =
        fieldOn(*ring, [](const Point& p) { return FloatVector(float(p[0] * p[0]), float(p[0] * p[2]), 0.5F); });
    const auto derivatives = [&](const StrongPtr<MemBase>& positions, const StrongPtr<MemBase>& values) {
        Scene scene;
        const auto id = scene.blocks.addBlock("ring", positions);
        scene.blocks.setField("values", values, id);
        std::vector<double> all;
        for (const auto& one : {derive(scene, "values")->getData(id), WorldDerivative(values, positions)})
            for (index_t n = 0; n < ring->nElements(); ++n)
                std::ranges::copy(cast<Tensor>(one)->element(n), std::back_inserter(all));
        return all;
    };
    EXPECT_EQ(derivatives(points, vectors),
              derivatives(convertToDoublePrecision(*points), convertToDoublePrecision(*vectors)));
}

TEST(WorldDerivativeTest, FollowsValuesAndPositionsOfAllBlocks) {
    std::mt19937_64 random(13);
    const BlockPtr uncut = makeBlock(shapes()[1], {7, 6, 8});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 4, random), random));
    const auto values = fieldOn(*uncut, wave);
    cut.setField("values", *values);
    const auto cache = makeRef<Hestra::Cache>().strong();
    const auto field = derive(cut, "values", {true, {}}, cache);
    const auto before = field->getData(cut.ids[0]);
    EXPECT_TRUE(field->getData(cut.ids[0]) == before);

    // A new value next to a joined face of the first block, in another one.
    const auto joins = BlockJoins::of(*cut.grid);
    const BlockJoin& join = joins->joins(0)[0];
    const auto step = joins->step({0, join.low.linear(joins->size(0))}, join.first.axis, join.first.upper ? 1 : -1);
    const auto source = (*cut.grid)("values");
    const auto neighbour = source->getCreator(cut.ids[step->vertex.block]);
    cast<double>(neighbour->getData())->element(step->vertex.index) += 1.0;
    const auto age = field->getCreator(cut.ids[0])->age();
    neighbour->touch(); // the creator alone
    EXPECT_GT(field->getCreator(cut.ids[0])->age(), age);
    const auto after = field->getData(cut.ids[0]);
    EXPECT_FALSE(after == before);
    EXPECT_NE(elementText(cast<Vector>(after)->element(join.low.linear(joins->size(0)))),
              elementText(cast<Vector>(before)->element(join.low.linear(joins->size(0)))));

    // Moved positions: another derivative, also of a block that is alone.
    const auto positions = cut.blocks.positions();
    for (const auto& id : cut.ids) {
        const auto block = cast<Point>(positions->getData(id));
        for (index_t n = 0; n < block->nElements(); ++n) block->element(n)[0] *= 2.0;
    }
    positions->touch();
    EXPECT_GE(field->age(), positions->age());
    EXPECT_GE(field->getCreator(cut.ids[0])->age(), positions->age());
    const auto stretched = cast<Vector>(field->getData(cut.ids[0]));
    for (index_t n = 0; n < stretched->nElements(); ++n)
        EXPECT_NEAR(stretched->element(n)[0], cast<Vector>(after)->element(n)[0] / 2, 1e-9);
}

// Blocks that are read when they are needed: the middle one has 26 neighbours, of which it holds one at a time.
TEST(WorldDerivativeTest, HoldsOneNeighbourAtATime) {
    const BlockPtr uncut = makeBlock(shapes()[1], {13, 13, 13});
    CutGrid cut(*uncut, cutAtPlanes(uncut->Size(), {{{4, 8}, {4, 8}, {4, 8}}}));
    cut.setField("values", *fieldOn(*uncut, wave));
    const auto cache = makeRef<Hestra::Cache>().strong();
    cache->setLimit(1); // holds what came last
    std::vector<WeakPtr<MemBase>> made;
    std::size_t most = 0;
    for (const StrongPtr<Field>& field : {cut.blocks.positions(), StrongPtr<Field>((*cut.grid)("values"))})
        for (const auto& id : cut.ids) {
            const StrongPtr<MemBase> data = field->getData(id);
            const auto read = [&, data](const WeakPtr<CreativeArrayBase>& by) {
                std::erase_if(made, [](const auto& array) { return !array; });
                const StrongPtr<MemBase> copy =
                    dynamic_cast<const MemArrayBase<3>&>(*data).createSubArray({}, *data->getDynamicSize().as<3>(), by);
                made.emplace_back(copy);
                most = std::max(most, made.size());
                return copy;
            };
            field->createCreator(read, data->elementIndex(), data->getDynamicSize(), id, Field::ReplaceExisting, cache);
        }
    (void)BlockJoins::of(*cut.grid); // reads many small blocks at once
    most = 0;
    const auto field = derive(cut, "values", {true, {}}, cache);
    for (const auto& id : cut.ids) EXPECT_TRUE(field->getData(id));
    EXPECT_LE(most, 5u) << "its own values and positions, a neighbour's, and what the cache holds";
}

TEST(WorldDerivativeTest, ErrorsAndLoss) {
    std::mt19937_64 random(14);
    const BlockPtr uncut = makeBlock(shapes()[0], {7, 6, 8});
    CutGrid cut(*uncut, turned(bisect(uncut->Size(), 3, random), random));
    std::string errors;
    EXPECT_FALSE(WorldDerivative(*cut.grid, "values", "dvalues", errors));
    EXPECT_EQ(errors, "");
    cut.setField("values", *fieldOn(*uncut, wave));
    const auto vertices = cut.grid->getCartesianRepresentation();
    const auto source = (*cut.grid)("values");
    source->setPersistentData(Array<int>::create({2, 2, 2}), source->makeFragmentID("int"));
    source->setPersistentData(Array<double>::create({2, 2, 2}), source->makeFragmentID("nowhere"));
    source->makeFragmentID("none");
    const auto field = WorldDerivative(*cut.grid, "values", "dvalues", errors, {true, {}});
    EXPECT_EQ(errors, "No creator element type unsupported for fragment int\nNo positions for fragment nowhere\n"
                      "No creator for fragment none\n");
    EXPECT_TRUE(vertices->findField("dvalues") == field);
    EXPECT_TRUE(field->getCreator(cut.ids[1])->elementType() == typeid(Vector));
    EXPECT_FALSE(field->hasData(cut.ids[1])); // lazy

    WorldDerivativeOptions unusable{true, {}};
    unusable.joins.tolerance = -1.0;
    EXPECT_THROW(WorldDerivative(*cut.grid, "values", "other", errors, unusable), std::invalid_argument);

    // Without its neighbours' values a joined block has no derivative; alone it has.
    source->removeData(cut.ids[0]);
    CaptureStderr();
    EXPECT_FALSE(field->getData(cut.ids[1]) && field->getData(cut.ids[2]));
    EXPECT_NE(GetCapturedStderr().find("no values"), std::string::npos);
    EXPECT_TRUE(WorldDerivative(*cut.grid, "values", "alone", errors)->getData(cut.ids[1]));
}

} // namespace
