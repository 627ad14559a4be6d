// The law of everything that is kept: the same answer as if nothing had ever been kept, whatever became of the inputs
// and whatever memory pressure dropped meanwhile.

#include <baseop/DataRange.hpp>
#include <baseop/EvalGrid.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/ResampleRegularGrid.hpp>
#include <baseop/TangentialVectors.hpp>
#include <model/hestra/Console.hpp>

#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <support/LocationGrids.hpp>
#include <thread>

namespace {

using Hestra::StrongPtr;
using Orvix::BoundingBox;
using support::Block;
using support::Point;
using namespace Vantle;

constexpr int kBlocks = 18; // fragment trees are walked beyond 16
const Point kMove(100, 50, 0);
const char* const kAdded = "added";
/// Cells about as long as wide, of which none is a parallelepiped.
const support::Shape kBent{
    "Bent", [](double u, double v, double w) { return Point(kBlocks * u + 0.2 * v * w, v + 0.1 * u, w + 0.1 * u * v); },
    false};

/// Blocks with a field, curves through some of their vertices, and what is derived lazily.
struct World {
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> grid = slice->newGrid("blocks"), curves = slice->newGrid("curves");
    RegularGrid3D blocks{grid};
    StrongPtr<Field> derivative;
    StrongPtr<Grid> resampled;
    int evaluations = 0;
    Hestra::Ageable requested;

    void add(const std::string& name, const StrongPtr<Block>& points, const StrongPtr<MemArray<3, double>>& values) {
        blocks.setField("values", values, blocks.addBlock(name, points));
    }
    [[nodiscard]] StrongPtr<Field> positions() const { return blocks.positions(); }
    [[nodiscard]] StrongPtr<Field> values() const { return blocks.field("values"); }
    [[nodiscard]] StrongPtr<Field> vertices() const { return LineSet(curves).positions(); }
    [[nodiscard]] StrongPtr<FragmentID> block(const char* name) const { return positions()->getFragmentID(name); }
};

using Mask = MemArray<3, unsigned char>;

/// All vertices but the one with this number.
StrongPtr<Mask> allBut(index_t blanked) {
    const auto mask = Mask::create({3, 3, 3});
    for (index_t n = 0; n < mask->nElements(); ++n) mask->element(n) = n != blanked;
    return mask.strong();
}

void make(World& world) {
    for (int b = 0; b < kBlocks; ++b) {
        const auto block =
            support::makeBlock(kBent, {3, 3, 3}, {double(b) / kBlocks, 0, 0}, {double(b + 1) / kBlocks, 1, 1});
        world.add(std::string(1, static_cast<char>('A' + b)), block, support::linearOn(*block));
    }
    const StrongPtr<LineSet::Points> points = makeMemArray1D(std::vector<Point>{{0, 0, 0}, {3, 4, 0}, {3, 4, 2}});
    const StrongPtr<MemArray<1, std::vector<index_t>>> lines =
        makeMemArray1D(std::vector<std::vector<index_t>>{{0, 1, 2}});
    (void)LineSet(world.curves, points, lines);
    world.blocks.setField(VertexMaskName, allBut(13), world.block("A"));
}

template<class Array>
StrongPtr<Array> copyOf(const StrongPtr<MemBase>& data) {
    return dynamic_cast<const Array&>(*data).copy().strong();
}

/// The same data in new arrays, fields and grids: nothing has been kept of them.
void copy(World& to, const World& from) {
    from.positions()->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (creator)
            to.add(id->name(), copyOf<Block>(creator->create()),
                   copyOf<MemArray<3, double>>(from.values()->getData(id)));
        else
            to.positions()->makeFragmentID(id->name());
        return true;
    });
    for (const char* const name : {VertexMaskName, CellMaskName})
        if (const StrongPtr<Field> mask = from.blocks.field(name))
            mask->iterate(
                [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
                    to.blocks.setField(name, copyOf<Mask>(creator->create()), to.block(id->name().c_str()));
                    return true;
                },
                false);
    const LineSet lines(from.curves);
    const StrongPtr<LineSet::Points> points = copyOf<MemArray<1, Point>>(lines.positions()->getData());
    (void)LineSet(to.curves, points, copyOf<MemArray<1, std::vector<index_t>>>(lines.curves()->getData()));
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
            write(Hestra::dynamicCast<Array>(creator->create()));
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
         Hestra::dynamicCast<Mask>(mask->getData(world.block("A")))->element(0) = 0;
         Hestra::dynamicCast<Mask>(mask->getData(world.block("A")))->element(13) = 1;
         mask->touch();
     }},
    {"MaskReplaced",
     [](World& world) {
         const auto other = Hestra::makeRef<Field>(world.positions()->getFragmentIDCollection());
         other->createCreator(
             [](const Hestra::WeakPtr<CreativeArrayBase>&) -> StrongPtr<MemBase> {
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
             const StrongPtr<Field> other = Hestra::makeRef<Field>(old->getFragmentIDCollection());
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

// --------------------------------------------------------------------------------------------------------------- kinds

using Answer = std::ostringstream;

void print(Answer& answer, const StrongPtr<BoundingBox>& box) {
    if (box)
        answer << box->minCoord() << box->maxCoord() << "\n";
    else
        answer << "no box\n";
}

void print(Answer& answer, const StrongPtr<MemBase>& array) {
    if (!array) return;
    for (index_t n = 0; n < array->nElements(); ++n) answer << array->getElementAsString(n) << " ";
    answer << "\n";
}

/// All but a fragment that was added: what is derived lazily has the fragments of its making.
void printDerived(Answer& answer, const Field& field) {
    field.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (id->name() == kAdded || !creator) return true;
        if (const StrongPtr<MemBase> data = creator->create()) {
            answer << id->name() << std::to_string(data->nElements()) << getSize(*creator).rank() << " ";
            print(answer, data);
        }
        return true;
    });
}

void printFragments(Answer& answer, const StrongPtr<Grid>& grid) {
    const CartesianFragments fragments(grid);
    for (index_t i = 0; i < grid->CartesianPositions()->nFragments(); ++i) {
        answer << fragments.getFragmentName(i) << FragmentID::Name(fragments.getFragmentID(i), "none");
        print(answer, fragments.getBBox(i));
    }
}

/// Where positions in all blocks are found, those of before and of after.
template<class Find>
void printFound(Answer& answer, const Find& find) {
    for (int b = 0; b <= kBlocks; ++b)
        for (const bool moved : {false, true}) {
            Point p = kBent.at((b + 0.3) / kBlocks, 0.4, 0.7);
            if (b == kBlocks) p = support::shapes()[0].at(2.4, 2.6, 0.3);
            if (moved) p = p + (kMove - Point());
            LocalPoint found;
            if (find(p, found))
                answer << b << moved << FragmentID::Name(found.fragment, "") << found.localCoordinates << "\n";
        }
}

template<CellLocator Kind>
void locate(Answer& answer, World& world) {
    LocatorOptions options;
    options.cellLocator = Kind;
    const LocalFromWorldPoint locator(world.slice, world.grid, "Positions", options);
    printFound(answer, [&](const Point& p, LocalPoint& found) { return locator.get(p, found); });
}

struct Kind {
    const char* name;
    void (*compute)(Answer&, World&);
};

const Kind kKinds[] = {
    {"ArrayRange",
     [](Answer& answer, World& world) {
         world.values()->iterate(
             [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                 const auto range = DataRange<double>::retrieve(*creator, false, false).lock();
                 answer << range->getMinf() << " " << range->getMaxf() << "\n";
                 return true;
             },
             false);
     }},
    {"FragmentBox",
     [](Answer& answer, World& world) {
         world.positions()->iterate(
             [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                 StrongPtr<BoundingBox> box;
                 EXPECT_TRUE(ExpandBBox(box, *creator, CreateData));
                 print(answer, box);
                 return true;
             },
             false);
     }},
    {"FieldBox", [](Answer& answer, World& world) { print(answer, getBoundingBox(world.positions())); }},
    {"NamesAndBoxes",
     [](Answer& answer, World& world) {
         CartesianFragments(world.grid).discardOutdated();
         printFragments(answer, world.grid);
     }},
    {"FragmentCoordinates",
     [](Answer& answer, World& world) {
         const LocalFromWorldPoint locator(world.slice, world.grid);
         printFragments(answer, world.grid);
         answer << locator.nFragments();
     }},
    {"FragmentTree",
     [](Answer& answer, World& world) {
         const LocalFromWorldPoint locator(world.slice, world.grid);
         std::map<int, double> distances;
         const auto attached = world.positions()->findInterface<FragmentTreeInterface>();
         attached->tree()->forEachInBox(Point(1, 2, 3), Point(1e9, 1e9, 1e9),
                                        [&](int number, double distance) { distances[number] = distance; });
         for (const auto& [number, distance] : distances) answer << number << " " << distance << "\n";
     }},
    {"UnigridMappers", locate<CellLocator::Newton>},
    {"ExactLocators", locate<CellLocator::Exact>},
    {"TreeMappers",
     [](Answer& answer, World& world) {
         const LocalFromWorldPoint locator(world.slice, world.grid);
         printFound(answer, [&](const Point& p, LocalPoint& found) { return locator.getViaTree(p, found); });
     }},
    {"Evaluation",
     [](Answer& answer, World& world) {
         const auto lattice = world.slice->newGrid("lattice");
         RegularGrid3D(lattice).addBlock("old", Hestra::makeRef<UniformCartesianArray>(
                                                    BoundingBox({0, 0, 0}, {18, 1, 1}), MultiIndex<3>(30, 3, 3)));
         RegularGrid3D(lattice).addBlock("new", Hestra::makeRef<UniformCartesianArray>(
                                                    BoundingBox({100, 50, 0}, {118, 51, 1}), MultiIndex<3>(30, 3, 3)));
         const auto result = EvalGrid(*lattice, *world.grid, "values", *world.slice, "", false);
         for (const char* const name : {"old", "new"}) print(answer, result->getData(result->getFragmentID(name)));
     }},
    {"Surface",
     [](Answer& answer, World& world) {
         const auto surface = ComputeIsosurface(1.5, world.requested, *world.grid, "values", *world.slice, "s", 0.0);
         const auto triangles = surface->getSkeleton(SkeletonID(2, 1))->findRepresentation(*surface->findVertices(2));
         print(answer, surface->CartesianPositions()->getData());
         print(answer, triangles->Positions()->getData());
     }},
    {"Tangents",
     [](Answer& answer, World& world) {
         const TangentialVectorsAndCurveParameter result(*world.curves);
         print(answer, StrongPtr<MemBase>(result.tangents()));
         print(answer, StrongPtr<MemBase>(result.curveParameters()));
         answer << result.maximalLength();
     }},
    {"Derivative",
     [](Answer& answer, World& world) {
         std::string errors;
         const auto vertices = world.blocks.representation();
         if (!world.derivative)
             world.derivative = PartialDerivative(*world.values(), "gradient", *vertices, *vertices, errors);
         printDerived(answer, *world.derivative);
     }},
    {"ResampledField",
     [](Answer& answer, World& world) {
         if (!world.resampled) {
             world.resampled = world.slice->newGrid("resampled");
             EXPECT_TRUE(ResampleRegularGrid3D(*world.resampled, *world.grid, "twice", {2, 2, 2}));
         }
         printDerived(answer, *(*world.resampled)("values"));
     }},
};

enum class Pressure { None, Before, After };

struct FreshnessTest : testing::TestWithParam<std::tuple<Kind, Change, Pressure>> {
    void SetUp() override { Hestra::Console::setListener({}); }
    void TearDown() override { Hestra::Console::useStandardOutput(); }

    static std::string answer(const Kind& kind, World& world) {
        Answer text;
        text << std::hexfloat;
        kind.compute(text, world);
        return text.str();
    }
};

TEST_P(FreshnessTest, TheAnswerIsTheOneAsIfNothingHadEverBeenKept) {
    const auto& [kind, change, pressure] = GetParam();
    World world, untouched;
    make(world);
    const std::string before = answer(kind, world);
    EXPECT_EQ(answer(kind, world), before);
    if (pressure == Pressure::Before) Hestra::Cache::MemCache()->clear();
    change.make(world);
    if (pressure == Pressure::After) Hestra::Cache::MemCache()->clear();
    const std::string after = answer(kind, world);
    copy(untouched, world);
    EXPECT_EQ(after, answer(kind, untouched));
    EXPECT_EQ(answer(kind, world), after);
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
        const std::string before = FreshnessTest::answer(kind, world);
        const StrongPtr<Field> derived = world.derivative ? world.derivative : (*world.resampled)("values");
        const auto id = derived->getFragmentID("B");
        const StrongPtr<CreativeArrayBase> creator = derived->getCreator(id);
        const auto fieldAge = derived->age(), age = creator->age();
        EXPECT_GE(fieldAge, world.values()->age());
        Hestra::Cache::MemCache()->clear();
        EXPECT_EQ(FreshnessTest::answer(kind, world), before);
        EXPECT_EQ(derived->age(), fieldAge);
        EXPECT_EQ(creator->age(), age);

        kChanges[1].make(world);
        EXPECT_GT(derived->age(), fieldAge) << "before anybody asks";
        EXPECT_GT(creator->age(), age);
        EXPECT_FALSE(creator->hasData());
        const std::string after = FreshnessTest::answer(kind, world);
        EXPECT_NE(after, before);
        EXPECT_TRUE(creator->hasData());

        // Another size is not known before the data are made.
        world.values()->setPersistentData(MemArray<3, double>::create({4, 3, 2}), id);
        EXPECT_EQ(getSize(*creator).rank(), 0);
        const StrongPtr<MemBase> made = creator->create();
        EXPECT_EQ(getSize(*creator), made->getDynamicSize());

        // What a field had last stays the source when the field dies.
        setNew<MemArray<3, double>>(*world.values());
        const std::string last = FreshnessTest::answer(kind, world);
        const auto lastAge = creator->age();
        world.blocks.representation()->setField("values", nullptr);
        Hestra::Cache::MemCache()->clear();
        EXPECT_EQ(FreshnessTest::answer(kind, world), last);
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
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (index_t i = 0; i < 200; ++i) {
                const index_t n = i % kBlocks;
                right += fragments.getFragmentName(n) == std::string(1, static_cast<char>('A' + n)) &&
                         fragments.getBBox(n)->minCoord()[0] == static_cast<double>(n);
                if (i % 7 == 0) Hestra::Cache::MemCache()->clear();
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(right, 800);
}

// What a caller has put in place has no record, and counts as fresh.
TEST(FreshnessOf, WhatACallerHasPutInPlaceStays) {
    const Hestra::ScopedListener silent({});
    World world;
    make(world);
    CartesianFragments fragments(world.grid);
    const auto tree = Hestra::makeRef<Orvix::KDTree<3, int>>();
    tree->insert(Point(), 7);
    world.positions()->addInterface(Hestra::makeRef<FragmentTreeInterface>(tree));
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
