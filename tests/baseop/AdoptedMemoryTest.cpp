// Every operation on memory of somebody else, which nobody can write to, against arrays with memory of their own.

#include <support/Families.hpp>
#include <support/RoughBlocks.hpp>
#include <support/Testing.hpp>
#include <sys/mman.h>

namespace {

using support::Block;
using support::BlockPtr;
using support::Point;
using namespace support::families;

/// Pieces of memory that were adopted and not given back.
int outstanding = 0;

/// The elements in memory of somebody else, every `stride`-th, with other things in between.
template<int N, class T>
StrongPtr<MemBase> adopted(const MemArray<N, T>& array, index_t stride) {
    const index_t count = array.nElements(), bytes = ((count - 1) * stride + 1) * sizeof(T);
    ForeignMemory memory{.strides = {static_cast<std::ptrdiff_t>(stride * sizeof(T))}, .bytes = bytes};
    ++outstanding;
    if constexpr (std::is_trivially_copyable_v<T>) {
        void* const pages = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memset(pages, 0xFF, bytes);
        auto* const elements = static_cast<T*>(pages);
        for (index_t k = 0; k < count; ++k) new (elements + k * stride) T(array.element(k));
        ::mprotect(pages, bytes, PROT_READ);
        memory.elements = elements;
        return adopt<N, T>(memory, array.Size(), [pages, bytes] {
            ::munmap(pages, bytes);
            --outstanding;
        });
    } else {
        const auto elements = std::make_shared<std::vector<T>>(count * stride);
        for (index_t k = 0; k < count; ++k) (*elements)[k * stride] = array.element(k);
        memory.elements = elements->data();
        return adopt<N, T>(memory, array.Size(), [elements] { --outstanding; });
    }
}

/// The same points or vectors in single precision; null for other elements.
template<int N, class T>
auto narrow(const MemArray<N, T>& array) {
    if constexpr (std::is_same_v<T, Point> || std::is_same_v<T, Vector>) {
        using Narrow = std::conditional_t<std::is_same_v<T, Point>, FloatPoint, FloatVector>;
        const auto result = MemArray<N, Narrow>::create(array.Size());
        for (index_t k = 0; k < array.nElements(); ++k)
            for (int d = 0; d < 3; ++d) result->element(k)[d] = static_cast<float>(array.element(k)[d]);
        return result;
    } else {
        return array.copy();
    }
}

struct Way {
    const char* name;
    index_t stride;
    bool isSinglePrecision;
};
void PrintTo(const Way& way, std::ostream* to) { *to << way.name; }
constexpr Way kWays[] = {{"Packed", 1, false}, {"Interleaved", 3, false}, {"Float", 1, true}, {"FloatApart", 2, true}};

struct AdoptedMemoryTest : testing::TestWithParam<std::tuple<Kind, Way>> {
    void SetUp() override {
        outstanding = 0;
        Hestra::Console::setListener({});
    }
    void TearDown() override { Hestra::Console::useStandardOutput(); }
};

TEST_P(AdoptedMemoryTest, GivesWhatMemoryOfItsOwnGives) {
    const auto& [kind, way] = GetParam();
    World made;
    make(made);
    {
        World owned, foreign;
        rebuild(owned, made, [&way = way](const auto& array) {
            const StrongPtr<MemBase> rounded =
                way.isSinglePrecision ? convertToDoublePrecision(*narrow(array)) : nullptr;
            return rounded ? rounded : StrongPtr<MemBase>(array.copy());
        });
        rebuild(foreign, owned, [&way = way](const auto& array) {
            return way.isSinglePrecision ? adopted(*narrow(array), way.stride) : adopted(array, way.stride);
        });
        const std::string expected = answerOf(kind, owned);
        EXPECT_NE(expected.find_first_of("123456789"), std::string::npos) << "an empty answer proves nothing";
        EXPECT_EQ(answerOf(kind, foreign), expected);
        Hestra::Cache::MemCache()->clear();
        EXPECT_EQ(answerOf(kind, foreign), expected);
        EXPECT_GT(outstanding, 0);
    }
    EXPECT_EQ(outstanding, 0);
}

const auto nameOf = [](const auto& test) {
    return std::string(std::get<0>(test.param).name) + std::get<1>(test.param).name;
};
INSTANTIATE_TEST_SUITE_P(Kept, AdoptedMemoryTest, testing::Combine(testing::ValuesIn(kKinds), testing::ValuesIn(kWays)),
                         nameOf);
INSTANTIATE_TEST_SUITE_P(Other, AdoptedMemoryTest,
                         testing::Combine(testing::ValuesIn(kOtherKinds), testing::ValuesIn(kWays)), nameOf);

// A file as it comes: three extents, all x, all y, all z, big-endian floats.
TEST(AdoptedFileTest, CoordinatesOfTheBluntFin) {
    const BlockPtr expected = support::bluntFin(VANTLE_TEST_DATA);
    if (!expected) GTEST_SKIP() << "no real data";
    std::ifstream stream(std::string(VANTLE_TEST_DATA) + "/bluntfinxyz.bin", std::ios::binary);
    const auto file =
        std::make_shared<std::string>(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    const std::size_t each = expected->nElements() * sizeof(float);
    const char* const x = file->data() + 3 * sizeof(int);
    ForeignMemory memory{.components = {x, x + each, x + 2 * each},
                         .bytes = file->size() - 3 * sizeof(int) - 2 * each,
                         .byteOrder = std::endian::big,
                         .isSinglePrecision = true,
                         .otherLayout = OtherLayout::Copy};
    const auto block = adopt<3, Point>(memory, expected->Size(), file);
    EXPECT_EQ(file.use_count(), 1);
    for (index_t k = 0; k < expected->nElements(); ++k) ASSERT_EQ(block->element(k), expected->element(k));
    const MultiIndex<3> longer = expected->Size() + MultiIndex<3>(0, 0, 1);
    EXPECT_THROW((void)(adopt<3, Point>(memory, longer, file)), std::length_error);
}

struct SinglePrecisionTest : testing::Test {
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> grid = slice->newGrid("floats");
    StrongPtr<MemArray<3, FloatPoint>> floats = narrow(*support::makeBlock(support::shapes()[1], {4, 5, 3})).strong();
    StrongPtr<FragmentID> id = RegularGrid3D(grid).addBlock("block", floats);
    Hestra::ScopedListener nobody{Hestra::Console::Listener()};

    [[nodiscard]] StrongPtr<Block> converted() const { return arrayOf<Block>(*grid->CartesianPositions(), id); }
    [[nodiscard]] bool isFound(const Point& p) const { return bool(LocalFromWorldPoint(slice, grid).locate(p)); }
};

TEST_F(SinglePrecisionTest, ConversionsAreSharedDroppedAndFollowTheirSource) {
    const auto cached = Hestra::Cache::MemCache()->size();
    std::vector<StrongPtr<Block>> seen(4);
    support::inThreads(4, [&](unsigned t) { seen[t] = converted(); });
    for (const auto& block : seen) EXPECT_EQ(block, seen[0]);
    for (index_t k = 0; k < floats->nElements(); ++k) ASSERT_EQ(seen[0]->element(k), Point(floats->element(k)));
    EXPECT_EQ(Hestra::Cache::MemCache()->size(), cached + 1);

    const WeakPtr<Block> first = seen[0];
    seen.clear();
    Hestra::Cache::MemCache()->clear();
    EXPECT_FALSE(first) << "nobody else keeps it";
    EXPECT_EQ(converted()->element(7), Point(floats->element(7)));

    const Point p = support::positionIn(*converted(), Point(1.5, 2.5, 0.5));
    EXPECT_TRUE(isFound(p));
    for (index_t k = 0; k < floats->nElements(); ++k) floats->element(k)[2] += 100.0F;
    EXPECT_TRUE(isFound(p)) << "nobody has been told";
    grid->CartesianPositions()->getCreator(id)->touch();
    grid->CartesianPositions()->touch();
    EXPECT_FALSE(isFound(p));
    EXPECT_TRUE(isFound(p + Vector(0, 0, 100)));
    EXPECT_EQ(converted()->element(7), Point(floats->element(7)));

    // Attachments that are handed on to a creator of other data convert nothing there.
    const StrongPtr<MemBase> two = narrow(*support::makeBlock(support::shapes()[0], {2, 1, 1}));
    const StrongPtr<CreativeArrayBase> other = makeRef<CreativeArray>(two);
    Field().processOwnership(*other, *grid->CartesianPositions()->getCreator(id));
    EXPECT_EQ(getDataInDoublePrecision(*other)->nElements(), 2U);
    CreativeArray unowned{StrongPtr<MemBase>(floats)};
    EXPECT_EQ(getDataInDoublePrecision(unowned)->nElements(), floats->nElements());
}

TEST_F(SinglePrecisionTest, VerticesOfSurfaces) {
    const StrongPtr<Grid> triangles = slice->newGrid("surface");
    const auto made = TriangularSurfaceWithEdges::create(*triangles, {{0, 0, 0}, {1, 0, 0}, {0, 0.5, 0}}, {{0, 1, 2}});
    triangles->CartesianPositions()->setPersistentData(narrow(*made.points()));
    const TriangularSurfaceWithEdges surface(triangles);
    ASSERT_TRUE(surface.points());
    EXPECT_EQ(surface.points()->element(2), Point(0, 0.5, 0));
}

// For callers who read points themselves.
TEST_F(SinglePrecisionTest, ACreatorOfDoublesInItsPlace) {
    const auto cache = makeRef<Hestra::Cache>();
    const auto doubles = inDoublePrecision(grid->CartesianPositions()->getCreator(id), cache);
    grid->CartesianPositions()->removeData(id);
    EXPECT_EQ(doubles->elementType(), typeid(Point));
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(doubles->hasData());
        EXPECT_EQ(dynamic_cast<const Block&>(*doubles->getData()).element(9), Point(floats->element(9)));
        cache->clear();
    }
}

} // namespace
