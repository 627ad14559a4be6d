#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

using Hestra::Cache;
using support::numbers, support::visited;
using Array = MemArray<1, double>;

double firstOf(const StrongPtr<MemBase>& data) { return dynamicCast<Array>(data)->element(0); }

using Names = std::vector<std::string>;

TEST(FieldTest, IterationVisitsEveryFragmentInOrderOfCreation) {
    Field field;
    EXPECT_EQ(visited(field), Names{});
    for (const char* name : {"9", "10", "b", "a"}) (void)field.makeFragmentID(name);
    field.setPersistentData(numbers({1}), field.getFragmentID("b"));
    EXPECT_EQ(visited(field), (Names{"9?", "10?", "b", "a?"}));
    EXPECT_EQ(visited(field, false), Names{"b"});
    EXPECT_EQ(field.nFragments(), 4u);
    EXPECT_EQ(firstOf(field.getFirstData()), 1.0);
    EXPECT_EQ(firstOf(field.getDataByNumericalID(2)), 1.0);
    EXPECT_FALSE(field.getDataByNumericalID(4));
    EXPECT_FALSE(field.makeFragmentID("") || field.getFragmentID("")) << "the null id is that of unfragmented data";
}

TEST(FieldTest, IterationStopsOnFalseAndSurvivesChanges) {
    Field field;
    for (const char* name : {"a", "b", "c"}) field.setPersistentData(numbers({1}), field.makeFragmentID(name));
    int visits = 0;
    EXPECT_FALSE(field.iterate([&](const auto& id, const auto&) {
        ++visits;
        field.removeData(id);
        (void)field.makeFragmentID("new" + std::to_string(visits));
        return visits < 2;
    }));
    EXPECT_EQ(visits, 2);
    EXPECT_EQ(visited(field, false), Names{"c"});
}

struct OnlyNamed : FragmentSelector {
    explicit OnlyNamed(std::string n) : name(std::move(n)) {}
    bool isSelected(const StrongPtr<FragmentID>& id) const override { return FragmentID::Name(id, "") == name; }
    std::string name;
};

TEST(FieldTest, SelectorsSkipWithoutRenumbering) {
    struct Collect : FragmentIndexIterator {
        bool apply(unsigned int index, const StrongPtr<CreativeArrayBase>&) override {
            seen.push_back(index);
            return true;
        }
        std::vector<unsigned int> seen;
    } collect;
    Field field;
    for (const char* name : {"a", "b", "c"}) (void)field.makeFragmentID(name);
    WeakPtr<FragmentSelector> expired;
    {
        const StrongPtr<FragmentSelector> onlyC(new OnlyNamed("c"));
        expired = onlyC;
        field.iterate(collect, onlyC);
        EXPECT_EQ(collect.seen, std::vector<unsigned int>{2});
    }
    collect.seen.clear();
    field.iterate(collect, expired);
    EXPECT_EQ(collect.seen, (std::vector<unsigned int>{0, 1, 2})) << "an invalid selector selects all";
}

TEST(FieldTest, AgeGrowsWithChangesOfDataOnly) {
    Field field;
    auto age = field.age();
    const auto grew = [&] {
        const bool newer = field.age() > age;
        age = field.age();
        return newer;
    };
    const auto id = field.makeFragmentID("a");
    EXPECT_FALSE(grew());
    field.setPersistentData(numbers({1}), id);
    EXPECT_TRUE(grew());
    const StrongPtr<Cache> cache(new Cache);
    const auto lazy = field.createCreator([](const auto&) { return numbers({2}); }, typeid(double), {}, id,
                                          Field::ReplaceExisting, cache);
    EXPECT_TRUE(grew());
    (void)field.getData(id);
    cache->clear();
    (void)field.getData(id);
    lazy->setAttribute("Range", StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<double>{0.0, 1.0}));
    lazy->addInterface(makeRef<SizeInterface>(DynamicSize{1}));
    EXPECT_FALSE(grew());
    field.setDiscardableData(numbers({3}), cache, id);
    EXPECT_TRUE(grew());
    EXPECT_TRUE(field.removeData(id));
    EXPECT_TRUE(grew());
    EXPECT_FALSE(field.removeData(id));
    EXPECT_FALSE(grew());
}

TEST(FieldTest, SettingDataMakesANewCreatorWithoutOldResults) {
    Field field(numbers({1}), nullptr);
    const auto old = field.getCreator(nullptr);
    old->addInterface(makeRef<SizeInterface>(DynamicSize{1}));
    field.setPersistentData(numbers({2, 3}));
    EXPECT_NE(field.getCreator(nullptr), old);
    EXPECT_FALSE(field.getCreator(nullptr)->findInterface<SizeInterface>());
    EXPECT_EQ(getSize(*field.getCreator(nullptr)), DynamicSize{2});
}

TEST(FieldTest, DiscardableDataAreLostAndLazyDataComeBack) {
    const StrongPtr<Cache> cache(new Cache);
    Field field;
    const auto plain = field.makeFragmentID("plain");
    const auto lazy = field.makeFragmentID("lazy");
    int runs = 0;
    field.setDiscardableData(numbers({1}), cache, plain);
    field.createCreator(
        [&](const WeakPtr<CreativeArrayBase>&) {
            ++runs;
            return numbers({7, 8});
        },
        typeid(double), DynamicSize{2}, lazy, Field::Fail, cache);
    EXPECT_FALSE(field.hasData(lazy)) << "before the creator ran";
    EXPECT_EQ(field.getCreator(lazy)->getVantleType()->getType(), typeid(double));
    EXPECT_EQ(getSize(*field.getCreator(lazy)), DynamicSize{2});
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(firstOf(field.getData(lazy)), 7.0);
    cache->clear();
    EXPECT_FALSE(field.hasData(plain));
    EXPECT_FALSE(field.hasData(lazy));
    EXPECT_FALSE(field.getData(plain));
    EXPECT_FALSE(field.getCreator(plain)->isValid());
    EXPECT_TRUE(field.getCreator(lazy)->isValid());
    EXPECT_EQ(firstOf(field.getData(lazy)), 7.0);
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(field.getCreator(plain)->getVantleType()) << "the element type is remembered";

    field.setPersistentData(makeMemArray1D(std::vector<double>{}), plain);
    EXPECT_TRUE(field.hasData(plain)) << "an array without elements is data";
}

TEST(FieldTest, CreationAlternatives) {
    Field field(numbers({1}), nullptr);
    const auto present = field.getCreator(nullptr);
    EXPECT_FALSE(field.createCreator(numbers({2}), nullptr, Field::Fail));
    EXPECT_EQ(field.createCreator(numbers({2}), nullptr, Field::KeepExisting), present);
    EXPECT_EQ(firstOf(field.getData()), 1.0);
    EXPECT_NE(field.createCreator(numbers({2}), nullptr, Field::ReplaceExisting), present);
    EXPECT_EQ(firstOf(field.getData()), 2.0);
}

TEST(FieldTest, IdsOfOtherCollectionsFindTheFragmentOfTheSameName) {
    Field positions, values;
    const auto there = positions.makeFragmentID("block");
    values.setPersistentData(numbers({3}), values.makeFragmentID("block"));
    EXPECT_EQ(firstOf(values.getData(there)), 3.0);
    EXPECT_FALSE(values.getData(positions.makeFragmentID("another")));
    values.setPersistentData(numbers({4}), there);
    EXPECT_EQ(values.nFragments(), 1u);
    EXPECT_EQ(firstOf(values.getData(values.getFragmentID("block"))), 4.0);
}

TEST(FieldTest, AForwardingFieldFollowsTheOtherWhileItLives) {
    StrongPtr<Field> source(new Field(numbers({1}), nullptr));
    const StrongPtr<Field> owner(new Field(WeakPtr<Field>(source)));
    Field& view = *owner;
    EXPECT_EQ(firstOf(view.getData()), 1.0);
    source->setPersistentData(numbers({2}));
    EXPECT_EQ(firstOf(view.getData()), 2.0);
    const auto age = source->age();
    view.setPersistentData(numbers({3}));
    EXPECT_EQ(firstOf(source->getData()), 3.0);
    EXPECT_GT(source->age(), age);
    EXPECT_GT(view.age(), age);
    // As old as the newer of both, through any number of views, and never younger again.
    Hestra::Ageable kept(view.age());
    const Field far{WeakPtr<Field>(owner)};
    const auto isNewer = [&] {
        const Hestra::Ageable& viewed = far;
        const bool newer = kept.isOlderThan(viewed);
        kept.setAge(viewed.age());
        return newer;
    };
    (void)isNewer();
    source->touch();
    EXPECT_TRUE(isNewer());
    view.touch();
    EXPECT_TRUE(isNewer());
    EXPECT_LT(source->age(), view.age());
    source->setPersistentData(numbers({4}));
    EXPECT_TRUE(isNewer());
    EXPECT_FALSE(isNewer());
    source = nullptr;
    EXPECT_TRUE(isNewer()) << "its data are gone";
    EXPECT_FALSE(isNewer());
    EXPECT_FALSE(view.getData());
    EXPECT_EQ(visited(view), Names{});
}

TEST(FieldTest, FragmentationArrayHoldsEveryFragmentOnce) {
    Field field;
    const auto a = field.makeFragmentID("a");
    const auto array = dynamicCast<MemArray<1, FragmentIDContainer>>(field.newFragmentationArray());
    ASSERT_EQ(array->nElements(), 1u);
    EXPECT_EQ(array->element(0).getFirst(), a);
    const FragmentIDContainer none, unfragmented{StrongPtr<FragmentID>()};
    EXPECT_EQ(none.nFragments(), 0u);
    EXPECT_EQ(unfragmented.nFragments(), 1u);
    EXPECT_FALSE(unfragmented.getFirst());
}

} // namespace
