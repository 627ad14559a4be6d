// The law of everything that is kept: the same answer as if nothing had ever been kept, whatever became of the inputs
// and whatever memory pressure dropped meanwhile.

#include <support/Families.hpp>
#include <support/Testing.hpp>

namespace {

using support::Block;
using support::Point;
using namespace support::families;

using Mask = MemArray<3, unsigned char>;

template<class Array>
StrongPtr<Array> copyOf(const StrongPtr<MemBase>& data) {
    return dynamic_cast<const Array&>(*data).copy().strong();
}

// ------------------------------------------------------------------------------------------------------------- changes

template<class Array>
void write(const StrongPtr<Array>& array) {
    for (index_t n = 0; n < array->nElements(); ++n) {
        if constexpr (std::is_same_v<Array, MemArray<3, double>>)
            array->element(n) = 3.0 - 2.0 * array->element(n) * array->element(n);
        else if constexpr (std::is_same_v<Array, MemArray<1, Point>>)
            array->element(n)[2] += array->element(n)[1] * array->element(n)[1] - 5.0;
        else
            array->element(n) = array->element(n) + (kMove - Point());
    }
}

template<class Array>
void setNew(Field& field) {
    field.iterate(
        [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
            const auto changed = copyOf<Array>(creator->create());
            write(changed);
            field.setPersistentData(changed, id);
            return true;
        },
        false);
}

template<class Array>
void writeInPlace(Field& field) {
    field.iterate(
        [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
            write(dynamicCast<Array>(creator->create()));
            creator->touch();
            return true;
        },
        false);
    field.touch();
}

struct Change {
    const char* name;
    void (*make)(World&);
};
void PrintTo(const Change& change, std::ostream* to) { *to << change.name; }

const Change kChanges[] = {
    {"NewData",
     [](World& world) {
         setNew<Block>(*world.positions());
         setNew<MemArray<3, double>>(*world.values());
         setNew<MemArray<1, Point>>(*world.vertices());
     }},
    {"WrittenInPlace",
     [](World& world) {
         writeInPlace<Block>(*world.positions());
         writeInPlace<MemArray<3, double>>(*world.values());
         writeInPlace<MemArray<1, Point>>(*world.vertices());
     }},
    {"MovedVertices",
     [](World& world) {
         setNew<Block>(*world.positions());
         writeInPlace<MemArray<1, Point>>(*world.vertices());
     }},
    {"Touched",
     [](World& world) {
         world.positions()->touch();
         world.values()->touch();
         world.vertices()->touch();
     }},
    {"AddedFragment",
     [](World& world) {
         const auto block = support::makeBlock(support::shapes()[0], {3, 3, 3}, {2, 2, 0}, {3, 3, 1});
         world.add(kAdded, block, support::linearOn(*block));
     }},
    {"RemovedFragment",
     [](World& world) {
         for (const auto& field : {world.positions(), world.values()}) field->removeData(field->getFragmentID("C"));
     }},
    // In blocks that the surface goes through.
    {"MaskSet",
     [](World& world) {
         world.blocks.setField(CellMaskName, Mask::create({2, 2, 2}), world.block("B"));
     }},
    {"MaskWrittenInPlace",
     [](World& world) {
         const auto mask = world.blocks.field(VertexMaskName);
         dynamicCast<Mask>(mask->getData(world.block("A")))->element(0) = 0;
         dynamicCast<Mask>(mask->getData(world.block("A")))->element(13) = 1;
         mask->touch();
     }},
    {"MaskReplaced",
     [](World& world) {
         const auto other = makeRef<Field>(world.positions()->getFragmentIDCollection());
         other->createCreator(
             [](const WeakPtr<CreativeArrayBase>&) -> StrongPtr<MemBase> {
                 return Mask::create({3, 3, 3});
             },
             typeid(unsigned char), MultiIndex<3>::filled(3), world.block("B"), Field::ReplaceExisting,
             Hestra::Cache::MemCache());
         other->setAge(1);
         (*world.blocks.representation())[VertexMaskName] = other;
     }},
    {"MaskRemoved", [](World& world) { (*world.blocks.representation())[VertexMaskName] = nullptr; }},
    // Another field in its place, which says to be older.
    {"ReplacedField",
     [](World& world) {
         const auto replace = [](Grid& grid) {
             const StrongPtr<Field> old = grid.CartesianPositions();
             const StrongPtr<Field> other = makeRef<Field>(old->getFragmentIDCollection());
             old->iterate(
                 [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                     other->setCreator(creator, id);
                     return true;
                 },
                 false);
             if (other->getFragmentIDCollection())
                 setNew<Block>(*other);
             else
                 setNew<MemArray<1, Point>>(*other);
             other->setAge(1);
             grid.getCartesianRepresentation()->setPositions(other);
         };
         replace(*world.grid);
         replace(*world.curves);
     }},
};

enum class Pressure { None, Before, After };
void PrintTo(Pressure pressure, std::ostream* to) { *to << "pressure " << static_cast<int>(pressure); }

struct FreshnessTest : testing::TestWithParam<std::tuple<Kind, Change, Pressure>> {
    void SetUp() override { Hestra::Console::setListener({}); }
    void TearDown() override { Hestra::Console::useStandardOutput(); }
};

TEST_P(FreshnessTest, TheAnswerIsTheOneAsIfNothingHadEverBeenKept) {
    const auto& [kind, change, pressure] = GetParam();
    World world, untouched;
    make(world);
    const std::string before = answerOf(kind, world);
    EXPECT_EQ(answerOf(kind, world), before);
    if (pressure == Pressure::Before) Hestra::Cache::MemCache()->clear();
    change.make(world);
    if (pressure == Pressure::After) Hestra::Cache::MemCache()->clear();
    const std::string after = answerOf(kind, world);
    rebuild(untouched, world, [](const auto& array) { return StrongPtr<MemBase>(array.copy()); });
    EXPECT_EQ(after, answerOf(kind, untouched));
    EXPECT_EQ(answerOf(kind, world), after);
    static const std::set<std::string> masked{"UnigridMappers", "ExactLocators", "TreeMappers",
                                              "Evaluation",     "Surface",       "Derivative"};
    const std::string name = change.name;
    if (name == "NewData" || name == "WrittenInPlace" || (name.starts_with("Mask") && masked.count(kind.name))) {
        EXPECT_NE(after, before) << "a change that this kind does not see proves nothing";
    }
}

std::string nameOf(const testing::TestParamInfo<std::tuple<Kind, Change, Pressure>>& test) {
    const auto& [kind, change, pressure] = test.param;
    const char* const when = pressure == Pressure::None     ? ""
                             : pressure == Pressure::Before ? "AfterPressure"
                                                            : "BeforePressure";
    return std::string(kind.name) + "_" + change.name + when;
}

INSTANTIATE_TEST_SUITE_P(Kept, FreshnessTest,
                         testing::Combine(testing::ValuesIn(kKinds), testing::ValuesIn(kChanges),
                                          testing::Values(Pressure::None, Pressure::Before, Pressure::After)),
                         nameOf);

// Same object, same age: same bits.
TEST(DerivedTest, LazyFieldsAreAsOldAsWhatTheyAreDerivedFrom) {
    for (const Kind& kind : kKinds) {
        if (std::string(kind.name) != "Derivative" && std::string(kind.name) != "ResampledField") continue;
        SCOPED_TRACE(kind.name);
        World world;
        make(world);
        const std::string before = answerOf(kind, world);
        const StrongPtr<Field> derived = world.derivative ? world.derivative : (*world.resampled)("values");
        const auto id = derived->getFragmentID("B");
        const StrongPtr<CreativeArrayBase> creator = derived->getCreator(id);
        const auto fieldAge = derived->age(), age = creator->age();
        EXPECT_GE(fieldAge, world.values()->age());
        Hestra::Cache::MemCache()->clear();
        EXPECT_EQ(answerOf(kind, world), before);
        EXPECT_EQ(derived->age(), fieldAge);
        EXPECT_EQ(creator->age(), age);

        kChanges[1].make(world);
        EXPECT_GT(derived->age(), fieldAge) << "before anybody asks";
        EXPECT_GT(creator->age(), age);
        EXPECT_FALSE(creator->hasData());
        const std::string after = answerOf(kind, world);
        EXPECT_NE(after, before);
        EXPECT_TRUE(creator->hasData());

        // Another size is not known before the data are made.
        world.values()->setPersistentData(MemArray<3, double>::create({4, 3, 2}), id);
        EXPECT_EQ(getSize(*creator).rank(), 0);
        const StrongPtr<MemBase> made = creator->create();
        EXPECT_EQ(getSize(*creator), made->getDynamicSize());

        // What a field had last stays the source when the field dies.
        setNew<MemArray<3, double>>(*world.values());
        const std::string last = answerOf(kind, world);
        const auto lastAge = creator->age();
        world.blocks.representation()->setField("values", nullptr);
        Hestra::Cache::MemCache()->clear();
        EXPECT_EQ(answerOf(kind, world), last);
        EXPECT_EQ(creator->age(), lastAge);
    }
}

// Names and boxes are there for whoever asks, be it before they were built, after they were dropped, or while that
// happens.
TEST(FreshnessOf, NamesAndBoxesAreMadeWhenTheyAreAskedFor) {
    World world;
    make(world);
    const CartesianFragments fragments(world.grid);
    EXPECT_EQ(fragments.getFragmentName(3), "D");
    const auto expectAllAfterOne = [&](const auto& query) {
        Hestra::Cache::MemCache()->clear();
        query();
        EXPECT_FALSE(CartesianFragments(world.grid).buildFragmentCoordinates()) << "all three at once";
    };
    expectAllAfterOne([&] { EXPECT_EQ(fragments.getFragmentName(3), "D"); });
    expectAllAfterOne([&] { EXPECT_EQ(fragments.getFragmentID(4)->name(), "E"); });
    expectAllAfterOne([&] { EXPECT_EQ(fragments.getBBox(5)->minCoord()[0], 5.0); });
    std::atomic<int> right{0};
    support::inThreads(4, [&] {
        for (index_t i = 0; i < 200; ++i) {
            const index_t n = i % kBlocks;
            right += fragments.getFragmentName(n) == std::string(1, static_cast<char>('A' + n)) &&
                     fragments.getBBox(n)->minCoord()[0] == static_cast<double>(n);
            if (i % 7 == 0) Hestra::Cache::MemCache()->clear();
        }
    });
    EXPECT_EQ(right, 800);
}

// What a caller has put in place has no record, and counts as fresh.
TEST(FreshnessOf, WhatACallerHasPutInPlaceStays) {
    const Hestra::ScopedListener silent({});
    World world;
    make(world);
    CartesianFragments fragments(world.grid);
    const auto tree = makeRef<Orvix::KDTree<3, int>>();
    tree->insert(Point(), 7);
    world.positions()->addInterface(makeRef<FragmentTreeInterface>(tree));
    const auto names = FragmentSkeleton::makeFragmentNames(*world.grid);
    names->setPersistentData(makeMemArray1D(std::vector<std::string>(kBlocks, "mine")));
    const auto surface = world.slice->newGrid("s");
    TriangularSurfaceWithEdges::create(*surface, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {});
    const auto points = surface->CartesianPositions();

    world.positions()->touch();
    points->setAge(Hestra::Ageable::GlobalTime);
    const LocalFromWorldPoint locator(world.slice, world.grid);
    EXPECT_EQ(world.positions()->findInterface<FragmentTreeInterface>()->tree(), tree.strong());
    EXPECT_EQ(fragments.getFragmentName(3), "D") << "made with the others, which did not exist";
    names->setPersistentData(makeMemArray1D(std::vector<std::string>(kBlocks, "mine")));
    world.positions()->touch();
    EXPECT_TRUE(fragments.discardOutdated());
    EXPECT_EQ(fragments.getFragmentName(3), "mine");
    EXPECT_EQ(ComputeIsosurface(1.5, world.requested, *world.grid, "values", *world.slice, "s", 0.0), surface);
}

// One evaluator, and one locator, across a change; and a locator of before, which must not spoil what later ones use.
TEST(FreshnessOf, LocatorsOfBeforeAndOfAfter) {
    const Hestra::ScopedListener silent({});
    World world;
    make(world);
    const auto target = makeMemArray1D(std::vector<Point>{kBent.at(0.3, 0.4, 0.7)});
    GridEvaluator::Context context;
    context.slice = world.slice;
    context.grid = world.grid;
    GridEvaluator evaluator;
    const LocalFromWorldPoint before(world.slice, world.grid);
    ASSERT_TRUE(evaluator.find(target, *world.positions(), context));
    EXPECT_TRUE((*evaluator.statuses())(0) == GridEvaluator::Located && before.isCurrent());

    setNew<Block>(*world.positions());
    EXPECT_FALSE(before.isCurrent());
    const LocalFromWorldPoint after(world.slice, world.grid);
    LocalPoint found;
    (void)before.getViaTree((*target)(0), found); // builds a structure of the old coordinates
    EXPECT_FALSE(after.getViaTree((*target)(0), found));
    EXPECT_TRUE(after.getViaTree((*target)(0) + (kMove - Point()), found));
    const auto stored = after.pointSearch().mapperField<TreeCellMapper>()->getData(found.fragment);
    const LocalFromWorldPoint third(world.slice, world.grid);
    setNew<Block>(*world.positions());
    const LocalFromWorldPoint fourth(world.slice, world.grid);
    const Point twice = (*target)(0) + (kMove - Point()) * 2.0;
    EXPECT_TRUE(fourth.getViaTree(twice, found));
    const auto newest = fourth.pointSearch().mapperField<TreeCellMapper>()->getData(found.fragment);
    EXPECT_NE(newest, stored);
    EXPECT_TRUE(third.getViaTree((*target)(0) + (kMove - Point()), found)) << "from coordinates of its own";
    EXPECT_EQ(fourth.pointSearch().mapperField<TreeCellMapper>()->getData(found.fragment), newest);
    ASSERT_TRUE(evaluator.find(target, *world.positions(), context));
    EXPECT_EQ((*evaluator.statuses())(0), GridEvaluator::NotLocated);
}

} // namespace
