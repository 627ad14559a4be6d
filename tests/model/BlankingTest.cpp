// Masks of vertices and cells: what is valid, by law, and when it is asked for again.

#include <support/Testing.hpp>

namespace {

using Mask = MemArray<3, unsigned char>;

template<class T>
StrongPtr<MemBase> randomMask(const MultiIndex<3>& size, double valid, std::mt19937_64& random) {
    return filled<T>(size, [&](index_t n) { return std::bernoulli_distribution(valid)(random) ? n % 3 + 1 : 0; });
}

bool isSet(const MemBase* mask, const MultiIndex<3>& at) {
    bool is = true;
    (void)withMemArray<3>(TypeList<unsigned char, int, short, unsigned long long>(),
                          StrongPtr<MemBase>(const_cast<MemBase*>(mask)),
                          [&](const auto& array) { is = array[at] != 0; });
    return is;
}

/// The rules, cell by cell.
struct Plain {
    MultiIndex<3> size, cells;
    const MemBase *vertexMask, *cellMask;

    [[nodiscard]] bool cell(const MultiIndex<3>& at) const {
        bool valid = isSet(cellMask, at);
        for (index_t c = 0; c < 8; ++c) {
            const MultiIndex<3> corner = at + MultiIndex<3>(c & 1, c >> 1 & 1, c >> 2);
            if (corner.inside(size)) valid = valid && isSet(vertexMask, corner);
        }
        return valid;
    }
    /// Whether a valid cell has all vertices from `low` to `high`.
    [[nodiscard]] bool around(const MultiIndex<3>& low, const MultiIndex<3>& high) const {
        for (index_t c = 0; c < 8; ++c) {
            const MultiIndex<3> at = low - MultiIndex<3>(c & 1, c >> 1 & 1, c >> 2);
            bool has = at.inside(cells);
            for (int d = 0; d < 3; ++d) has = has && high[d] <= at[d] + 1;
            if (has && cell(at)) return true;
        }
        return false;
    }
};

TEST(BlockMaskTest, IsWhatThePlainRulesSay) {
    std::mt19937_64 random(11);
    const MultiIndex<3> sizes[] = {{5, 4, 6}, {130, 3, 3}, {64, 4, 2}, {65, 2, 4}, {1, 5, 4},
                                   {7, 1, 5}, {6, 7, 1},   {1, 1, 4},  {1, 1, 1},  {66, 1, 1}};
    int n = 0;
    for (const MultiIndex<3>& size : sizes)
        for (const double valid : {0.5, 0.95}) {
            MultiIndex<3> cells = size;
            for (int d = 0; d < 3; ++d) cells[d] = std::max<index_t>(size[d], 2) - 1;
            const StrongPtr<MemBase> vertexMasks[] = {
                randomMask<unsigned char>(size, valid, random), randomMask<int>(size, valid, random), nullptr,
                dynamicCast<MemArray<3, int>>(randomMask<int>(size, valid, random))->getComponentArray(0)};
            const StrongPtr<MemBase> cellMasks[] = {nullptr, randomMask<short>(cells, valid, random),
                                                    randomMask<unsigned long long>(cells, valid, random)};
            const auto &vertexMask = vertexMasks[n % 4], &cellMask = cellMasks[n % 3];
            ++n;
            const BlockMask mask(size, vertexMask.rawptr(), cellMask.rawptr());
            const Plain plain{size, cells, vertexMask.rawptr(), cellMask.rawptr()};
            EXPECT_EQ(mask.cells(), cells);
            index_t count = 0;
            MultiIndex<3> at;
            do {
                ASSERT_EQ(mask.isCellValid(at), plain.cell(at)) << to_string(size) << to_string(at);
                count += plain.cell(at);
            } while (at.advance(cells));
            EXPECT_EQ(mask.validCells(), count);
            EXPECT_EQ(mask.cellRow(0, 0)[(cells[0] - 1) / 64] >> ((cells[0] - 1) % 64) >> 1, 0u);
            do {
                ASSERT_EQ(mask.isVertexValid(at), plain.around(at, at)) << to_string(size) << to_string(at);
                const BlockMask::Vertices word = mask.around(at[1], at[2], at[0] / 64);
                if (at[0] % 64 == 0) {
                    bool whole = true;
                    MultiIndex<3> near;
                    do {
                        bool isAround = true;
                        for (int d = 0; d < 3; ++d)
                            isAround = isAround && near[d] + 1 >= at[d] && near[d] <= at[d] + (d == 0 ? 63 : 0);
                        whole = whole && (!isAround || plain.cell(near));
                    } while (near.advance(cells));
                    EXPECT_EQ(mask.isWhole(at[1], at[2], at[0] / 64), whole) << to_string(size) << to_string(at);
                }
                point between(static_cast<double>(at[0]), static_cast<double>(at[1]), static_cast<double>(at[2]));
                EXPECT_EQ(mask.has(between), plain.around(at, at));
                for (int axis = 0; axis < 3; ++axis) {
                    MultiIndex<3> next = at;
                    const bool isEdge = ++next[axis] < size[axis] && plain.around(at, next);
                    ASSERT_EQ(mask.isEdgeValid(at, axis), isEdge) << to_string(size) << to_string(at) << axis;
                    if (next.inside(size)) {
                        const auto above = mask.around(next[1], next[2], next[0] / 64);
                        EXPECT_EQ((above.below[axis] >> next[0] % 64 & 1) != 0, isEdge);
                        between[axis] += 0.5;
                        EXPECT_EQ(mask.has(between), isEdge);
                        between[axis] -= 0.5;
                    }
                    EXPECT_FALSE(at[axis] == 0 && (word.below[axis] >> at[0] % 64 & 1) != 0);
                }
            } while (at.advance(size));
        }
    // Beyond the border the cells along it count, and no number is nowhere.
    const auto corner = Mask::create({3, 3, 3});
    corner->element(0) = corner->element(1) = corner->element(3) = corner->element(4) = 1;
    for (index_t k = 9; k < 14; ++k) corner->element(k) = 1;
    const BlockMask mask({3, 3, 3}, corner.strong().rawptr(), nullptr);
    EXPECT_EQ(mask.validCells(), 1u);
    EXPECT_TRUE(mask.has(point(-5.0, 0.5, -0.1)));
    EXPECT_TRUE(mask.has(point(1.0, 1.0, 1.0)));
    EXPECT_FALSE(mask.has(point(1.0, 1.0 + 1e-9, 1.0)));
    EXPECT_FALSE(mask.has(point(0.5, 0.5, 7.0)));
    EXPECT_FALSE(mask.has(point(0.5, std::nan(""), 0.5)));
}

/// A grid of two blocks, one of which has a mask.
class BlankingTest : public testing::Test {
protected:
    static constexpr int kSide = 4;
    const MultiIndex<3> size = MultiIndex<3>::filled(kSide);

    StrongPtr<Slice> slice = makeRef<Slice>();
    RegularGrid3D grid{slice->newGrid("grid")};
    StrongPtr<FragmentID> plain = grid.addBlock("plain", MemArray<3, point>::create(size));
    StrongPtr<FragmentID> masked = grid.addBlock("masked", MemArray<3, point>::create(size));

    [[nodiscard]] static StrongPtr<MemBase> without(const MultiIndex<3>& vertex, const MultiIndex<3>& extents) {
        return filled<unsigned char>(extents, [&](const MultiIndex<3>& at) { return at != vertex; });
    }
    [[nodiscard]] index_t validCells(const Grid& of) const {
        const auto mask = Blanking(of).of(masked, size);
        return mask ? mask->validCells() : (kSide - 1) * (kSide - 1) * (kSide - 1);
    }
    [[nodiscard]] index_t validCells() const { return validCells(*grid.grid()); }
};

TEST_F(BlankingTest, FollowsTheMasksOfItsOwnGrid) {
    EXPECT_FALSE(Blanking(*grid.grid()));
    EXPECT_EQ(validCells(), 27u);
    const auto field = grid.setField(VertexMaskName, without({0, 0, 0}, size), masked);
    EXPECT_EQ(validCells(), 26u);
    EXPECT_FALSE(Blanking(*grid.grid()).of(plain, size));
    EXPECT_EQ(Blanking(*grid.grid()).of(masked, size), Blanking(*grid.grid()).of(masked, size)); // made once

    // Another grid with the same positions and other masks.
    RegularGrid3D other(slice->newGrid("other"));
    other.representation()->setPositions(grid.positions());
    EXPECT_EQ(validCells(*other.grid()), 27u);
    (*other.representation())[VertexMaskName] = field;
    other.setField(CellMaskName, without({2, 2, 2}, size - 1), masked);
    EXPECT_EQ(validCells(*other.grid()), 25u);
    EXPECT_EQ(validCells(), 26u);

    // New data, a touch, another field in its place, none.
    grid.setField(VertexMaskName, without({1, 0, 0}, size), masked);
    EXPECT_EQ(validCells(), 25u);
    const auto array = dynamicCast<Mask>(field->getData(masked));
    array->element(0) = 0;
    field->touch();
    EXPECT_EQ(validCells(), 25u);
    array->element(20) = 0;
    field->touch();
    const index_t touched = validCells();
    EXPECT_LT(touched, 25u);
    EXPECT_EQ(validCells(*other.grid()), touched - 1);
    (*grid.representation())[VertexMaskName] = makeRef<Field>(grid.positions()->getFragmentIDCollection());
    EXPECT_EQ(validCells(), 27u);
    EXPECT_FALSE(Blanking(*grid.grid()).concerns(masked));
    (*grid.representation())[VertexMaskName] = nullptr;
    EXPECT_FALSE(Blanking(*grid.grid()));
}

TEST_F(BlankingTest, IsMadeFromLazyMasksOnceAndWithoutThemAgain) {
    std::atomic<int> runs{0};
    const auto cache = makeRef<Hestra::Cache>();
    const auto field = makeRef<Field>(grid.positions()->getFragmentIDCollection());
    field->createCreator(
        [&](const WeakPtr<CreativeArrayBase>&) -> StrongPtr<MemBase> {
            ++runs;
            return without({0, 0, 0}, size);
        },
        typeid(unsigned char), size, masked, Field::ReplaceExisting, cache);
    (*grid.representation())[VertexMaskName] = field;
    const Blanking blanking(*grid.grid());
    blanking.check(*grid.positions());
    EXPECT_TRUE(blanking.concerns(masked));
    EXPECT_EQ(runs, 0);
    support::inThreads(4, [&] {
        for (int n = 0; n < 50; ++n) EXPECT_EQ(validCells(), 26u);
    });
    EXPECT_EQ(runs, 1);
    cache->setLimit(1); // whatever presses
    cache->setLimit(0);
    EXPECT_EQ(validCells(), 26u);
    EXPECT_LE(runs, 2);
    // Where the masks blank everything there is nothing, and where nothing, no mask.
    grid.setField(CellMaskName, Mask::create(size - 1), plain);
    EXPECT_TRUE(Blanking(*grid.grid()).of(plain, size)->isNothingValid());
    EXPECT_TRUE(Blanking(*grid.grid()).of(plain)->isNothingValid());
}

TEST_F(BlankingTest, SaysWhatDoesNotFit) {
    const auto message = [&](const char* name, const StrongPtr<MemBase>& mask) {
        grid.setField(name, mask, masked);
        std::string said;
        try {
            Blanking(*grid.grid()).check(*grid.positions());
        } catch (const std::invalid_argument& refused) {
            said = refused.what();
        }
        EXPECT_THROW((void)Blanking(*grid.grid()).of(masked, size), std::invalid_argument);
        (*grid.representation())[name] = nullptr;
        return said;
    };
    EXPECT_EQ(message(VertexMaskName, Mask::create(size - 1)),
              "VertexMask of fragment 'masked' is [3x3x3], not [4x4x4], for vertices [4x4x4]");
    EXPECT_EQ(message(CellMaskName, Mask::create(size)),
              "CellMask of fragment 'masked' is [4x4x4], not [3x3x3], for vertices [4x4x4]");
    grid.setField(VertexMaskName, Mask::create(size)); // for unfragmented positions, which there are not
    EXPECT_THROW(Blanking(*grid.grid()).check(*grid.positions()), std::invalid_argument);
}

// What is derived from a masked grid is newer when the masks are others, also when they derive from it.
TEST_F(BlankingTest, AsAnInputGetsNewerWithEveryChange) {
    const auto input = makeRef<BlankingInput>(*grid.representation());
    auto age = input->age();
    const auto isNewer = [&] { return std::exchange(age, input->age()) < age; };
    EXPECT_FALSE(isNewer());
    const auto field = grid.setField(VertexMaskName, without({0, 0, 0}, size), masked);
    EXPECT_TRUE(isNewer());
    EXPECT_FALSE(isNewer());
    field->touch();
    EXPECT_TRUE(isNewer());
    const auto older = makeRef<Field>();
    (*grid.representation())[VertexMaskName] = older;
    EXPECT_TRUE(isNewer());
    const StrongPtr<Field> circular = makeRef<DerivedField>(field, field->getFragmentIDCollection(), input.strong());
    (*grid.representation())[VertexMaskName] = circular;
    EXPECT_TRUE(isNewer());
    (*grid.representation())[VertexMaskName] = nullptr;
    EXPECT_TRUE(isNewer());
    EXPECT_FALSE(input->now());
}

} // namespace
