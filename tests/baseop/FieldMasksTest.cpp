// Masks that follow fields, and those of ranges where bricks of the values are passed over.

#include <baseop/FieldMasks.hpp>
#include <baseop/detail/ValueBricks.hpp>

#include <support/Testing.hpp>

namespace {

template<class T>
class FieldMasksTest : public testing::Test {
protected:
    [[nodiscard]] static const MemArray<3, unsigned char>& dataOf(const StrongPtr<Field>& mask,
                                                                  const StrongPtr<FragmentID>& id) {
        const auto data = dynamicCast<MemArray<3, unsigned char>>(mask->getData(id));
        if (!data) throw std::runtime_error("no mask");
        return *data;
    }
};
using BrickTypes = testing::Types<double, float, unsigned char, short, unsigned short>;
TYPED_TEST_SUITE(FieldMasksTest, BrickTypes);

// With ends of the range that are values, beside these, beyond all, and none; after changes that only the field tells
// of; without the bricks; and with another mask.
TYPED_TEST(FieldMasksTest, OfRangesAreWhatEachValueSays) {
    using T = TypeParam;
    using Limits = std::numeric_limits<T>;
    for (const MultiIndex<3>& size : {MultiIndex<3>(65, 33, 33), MultiIndex<3>(70, 34, 32), MultiIndex<3>(9, 8, 3)}) {
        SCOPED_TRACE(to_string(size));
        const auto data = filled<T>(size, [](const MultiIndex<3>& at) {
            return 3 * length(vector(double(at[0]) - 36, double(at[1]) - 13, double(at[2]) - 12));
        });
        RegularGrid3D grid(makeRef<Slice>()->newGrid("grid"));
        const auto id = grid.addBlock("block", MemArray<3, point>::create(size));
        const auto field = grid.setField("f", data, id);
        const auto expectPlain = [&](double least, double greatest, const StrongPtr<MemArray<3, int>>& other = {}) {
            SCOPED_TRACE(std::to_string(least) + " to " + std::to_string(greatest));
            const StrongPtr<Field> mask =
                makeMaskOfRange(field, least, greatest, other ? grid.representation() : StrongPtr<Representation>());
            const auto& made = this->dataOf(mask, id);
            ASSERT_EQ(made.Size(), size);
            index_t different = 0;
            for (index_t n = 0; n < data->nElements(); ++n) {
                const auto number = static_cast<double>(data->element(n));
                const bool isValid = number >= least && number <= greatest && (!other || other->element(n) != 0);
                different += made.element(n) != (isValid ? 1 : 0);
            }
            EXPECT_EQ(different, 0u);
        };
        const auto expectAll = [&] {
            const double one = static_cast<double>(data->element(data->nElements() / 2));
            const double ends[] = {-kInfinity, 0.0, 12.0, 30.5, one, std::nextafter(one, 0), 105.0, kInfinity, kNaN};
            for (const double least : ends)
                for (const double greatest : ends) expectPlain(least, greatest);
            EXPECT_EQ(bool(detail::ValueBricks<T>::find(*field->getCreator(id), *data, field->age())),
                      data->nElements() >= 65536);
        };
        expectAll();
        // Where bricks are wholly within a range, and beyond it.
        for (const index_t n : {index_t{1}, data->nElements() / 2, data->nElements() - 1}) {
            data->element(n) = n == 1 ? Limits::max() : Limits::lowest();
            if constexpr (Limits::has_quiet_NaN)
                if (n != 1) data->element(n) = Limits::quiet_NaN(), data->element(n - 3) = -Limits::infinity();
            field->touch();
            expectAll();
        }
        Hestra::Cache::MemCache()->clear();
        expectPlain(9.0, 40.0);
        const auto other = filled<int>(size, [](index_t n) { return n % 5; });
        grid.setField(VertexMaskName, other, id);
        expectPlain(-kInfinity, 40.0, other);
    }
}

TEST(MaskTest, FollowsItsField) {
    const MultiIndex<3> size(4, 4, 4);
    RegularGrid3D grid(makeRef<Slice>()->newGrid("grid"));
    const auto id = grid.addBlock("block", MemArray<3, point>::create(size));
    const auto validCells = [&](const StrongPtr<Field>& mask) {
        (*grid.representation())[VertexMaskName] = mask;
        return Blanking(*grid.grid()).of(id, size)->validCells();
    };
    const auto values = filled<double>(size, [](index_t n) { return n; });
    values->element(0) = kNaN;
    values->element(63) = kInfinity;
    const auto field = grid.setField("values", values, id);
    EXPECT_EQ(validCells(makeMaskOfNumbers(field)), 26u);
    const auto mask = makeMaskOfRange(field, 0.0, 62.0);
    EXPECT_EQ(validCells(mask), 25u);
    values->element(63) = 62.0;
    field->touch();
    field->getCreator(id)->touch();
    EXPECT_EQ(validCells(mask), 26u);

    const auto vectors = MemArray<3, vector>::create(size);
    vectors->element(63)[1] = kNaN;
    EXPECT_EQ(validCells(makeMaskOfNumbers(grid.setField("vectors", vectors, id))), 26u);
    EXPECT_THROW((void)makeMaskOfRange(grid.field("vectors"), 0.0), std::invalid_argument);
    EXPECT_FALSE(makeMaskOfNumbers(nullptr));

    // Positions that are computed have no array to look at.
    const auto slice = makeRef<Slice>();
    const auto product =
        RegularGrid3D::createRectilinear(*slice->newGrid("product"), {0, 1, 2, kNaN}, {0, 1, 2, 3}, {0, 1, 2, 3});
    (*product.representation())[VertexMaskName] = makeMaskOfNumbers(product.grid()->CartesianPositions());
    EXPECT_EQ(Blanking(*product.grid()).of({}, size)->validCells(), 18u);
}

} // namespace
