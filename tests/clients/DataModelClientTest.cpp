/// The data model as a program uses it that knows the two umbrella headers and nothing of the inside.

#include <baseop/BaseOp.hpp>

#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

using support::numbers, support::visited;
using Names = std::vector<std::string>;

double firstOf(const StrongPtr<MemBase>& data) {
    const auto array = dynamicCast<TypedArray<double>>(data);
    return array ? array->element(0) : -1;
}

// -------------------------------------------------------------------------------------------------------------
// creators

/// A creator that makes its array whenever it is asked, and tells nobody of what type it is.
struct Computed : CreativeArrayBase {
    using Make = std::function<StrongPtr<MemBase, Hestra::Cacheable>()>;
    explicit Computed(Make function) : make(std::move(function)) {}
    StrongPtr<MemBase, Hestra::Cacheable> create(bool) override {
        ++calls;
        return make();
    }
    Make make;
    std::atomic<int> calls{0};
};

TEST(DataModelClientTest, EveryWayToTheDataGoesThroughACreatorOfOnesOwn) {
    constexpr MultiIndex<3> size(3, 3, 3);
    const auto places = filled<point>(size, [](const MultiIndex<3>& vertex) {
        return point(double(vertex[0]), 2.0 * double(vertex[1]), double(vertex[2]));
    });
    double factor = 1;
    const StrongPtr<Computed> keeping(new Computed([&] { return places; }));
    const StrongPtr<Computed> forgetting(
        new Computed([&] { return filled<double>(size, [&](index_t k) { return factor * double(k % 3); }); }));

    const BundlePtr bundle = BundlePtr::create();
    const auto slice = bundle[0.0];
    const auto grid = slice->newGrid("grid");
    const auto positions = GridWithCartesianVertices(grid, 3).positions();
    const auto block = positions->makeFragmentID("block");
    positions->setCreator(keeping, block);
    const auto field = makeRef<Field>(positions->getFragmentIDCollection());
    field->setCreator(forgetting, block);
    (*grid->getCartesianRepresentation())["f"] = field;
    EXPECT_TRUE(forgetting->isValid());
    EXPECT_EQ(keeping->calls + forgetting->calls, 0);

    // Box and range, attached and outdated like those of other creators.
    EXPECT_EQ(getBoundingBox(positions)->maxCoord(), point(2, 4, 2));
    EXPECT_TRUE(positions->hasData(block)) << "the array lives";
    EXPECT_EQ(getSize(*keeping), DynamicSize(size));
    const StrongPtr<DataRange<double>> range = DataRange<double>::retrieve(*forgetting, false, false);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->getMax(), 2.0);
    const int calls = forgetting->calls;
    EXPECT_EQ(DataRange<double>::retrieve(*forgetting, false, false), range);
    EXPECT_EQ(forgetting->calls, calls);
    EXPECT_FALSE(field->hasData(block)) << "nobody holds the array";
    EXPECT_EQ(forgetting->getVantleType()->getType(), typeid(double));
    const auto old = field->getData(block);
    factor = 10;
    forgetting->touch();
    EXPECT_FALSE(DataRange<double>::get(*forgetting));
    EXPECT_EQ(DataRange<double>::retrieve(*forgetting, false, false)->getMax(), 20.0) << "though the old array lives";
    EXPECT_EQ(firstOf(old), 0.0);

    CaptureStdout();
    const auto surface = ComputeIsosurface(5.0, Hestra::Ageable(), *grid, "f", *slice, "surface", 0.0);
    const auto target = slice->newGrid("target");
    const MultiIndex<3> samples(2, 2, 2);
    UniformGrid3D::create(*target, BoundingBox({0.25, 0.5, 0.5}, {1.75, 3.5, 1.5}), samples);
    const auto evaluated = EvalGrid(*target, *grid, "f", *slice);
    (void)GetCapturedStdout();
    ASSERT_TRUE(surface && evaluated);
    const auto points = dynamicCast<MemArray<1, point>>(surface->CartesianPositions()->getData());
    ASSERT_GT(points->nElements(), 0u);
    for (index_t k = 0; k < points->nElements(); ++k) EXPECT_EQ(points->element(k)[0], 0.5);
    const auto values = dynamicCast<MemArray<3, double>>(evaluated->getData());
    ASSERT_TRUE(values);
    EXPECT_NEAR((*values)(0, 1, 1), 2.5, 1e-9);
    EXPECT_NEAR((*values)(1, 0, 1), 17.5, 1e-9);

    MultiIndex<3> extent;
    EXPECT_TRUE(makeSizeInterface<3>(extent, forgetting));
    EXPECT_EQ(extent, size);
    const int known = forgetting->calls;
    EXPECT_TRUE(makeSizeInterface<3>(extent, *forgetting));
    EXPECT_EQ(forgetting->calls, known) << "the size is attached";
    EXPECT_FALSE(makeSizeInterface<3>(extent, StrongPtr<CreativeArrayBase>()));
}

// ------------------------------------------------------------------------------------------------------------
// fragments

TEST(DataModelClientTest, AFragmentKeepsTheNumberItWasMadeWith) {
    const StrongPtr<FragmentIDCollection> collection(new FragmentIDCollection);
    Field field(collection);
    const StrongPtr<FragmentID> fifth(new FragmentID("x", 5u, collection));
    field.setPersistentData(numbers({50}), fifth);
    EXPECT_EQ(collection->findFragmentID(5), fifth);
    EXPECT_FALSE(collection->findFragmentID(0));
    EXPECT_EQ(firstOf(field.getDataByNumericalID(5)), 50);

    // Entered in another order than that of their numbers, which serve look-ups only.
    for (const unsigned int number : {1u, 0u})
        field.setPersistentData(numbers({10.0 * number}), StrongPtr<FragmentID>(new FragmentID(
                                                              "n" + std::to_string(number), number, collection)));
    EXPECT_EQ(firstOf(field.getDataByNumericalID(0)), 0);
    EXPECT_EQ(firstOf(field.getDataByNumericalID(1)), 10);
    EXPECT_EQ(visited(field), (Names{"x", "n1", "n0"}));

    // Every id is found under one number: made here, without a number, or with one that is taken.
    const auto next = field.makeFragmentID("next");
    EXPECT_EQ(collection->findFragmentID(next->numericalId()), next);
    const StrongPtr<FragmentID> plain(new FragmentID("plain")), late(new FragmentID("late", 5u, collection));
    field.setPersistentData(numbers({60}), plain);
    field.setPersistentData(numbers({70}), late);
    EXPECT_EQ(firstOf(field.getDataByNumericalID(plain->numericalId())), 60);
    EXPECT_EQ(collection->findFragmentID(5), fifth) << "the first one stays";
    std::set<std::string> found;
    for (unsigned int number = 0; number < 20; ++number)
        if (const auto id = collection->findFragmentID(number)) found.insert(id->name());
    EXPECT_EQ(found.size(), collection->size());
}

TEST(DataModelClientTest, UnfragmentedDataShowUntilAFragmentHasACreator) {
    const StrongPtr<FragmentIDCollection> collection(new FragmentIDCollection);
    collection->setFragmentNames({"west", "east"});
    const StrongPtr<MemBase> points = makeMemArray1D(std::vector<point>{{1, 2, 3}, {4, 0, 3}});
    Grid grid;
    const auto representation = grid.makeCartesianRepresentation(3);
    const StrongPtr<Field> fields[] = {
        makeRef<Field>(points, collection),
        representation->makeField(Representation::makeFieldID(*representation, "p"), collection, points)};
    for (const auto& field : fields) {
        EXPECT_EQ(field->getFirstData(), points);
        EXPECT_EQ(visited(*field), (Names{"west?", "east?", "<none>"}));
        EXPECT_EQ(visited(*field, false), Names{"<none>"});
        EXPECT_EQ(field->nFragments(), 3u);
        const auto box = getBoundingBox(field);
        ASSERT_TRUE(box);
        EXPECT_EQ(box->minCoord(), point(1, 0, 3));
        EXPECT_EQ(box->maxCoord(), point(4, 2, 3));
    }
    // The collection is shared: another field makes an id in it later.
    Field another(collection);
    another.setPersistentData(numbers({1}), another.makeFragmentID("later"));
    EXPECT_EQ(fields[0]->getFirstData(), points);
    EXPECT_EQ(another.getFirstData(), another.getDataByNumericalID(2));
    fields[0]->setPersistentData(numbers({7}), fields[0]->getFragmentID("east"));
    EXPECT_EQ(visited(*fields[0]), (Names{"west?", "east", "later?"}));
    EXPECT_EQ(firstOf(fields[0]->getFirstData()), 7);
    EXPECT_EQ(fields[0]->getData(nullptr), points);
}

// -----------------------------------------------------------------------------------------------------------
// interfaces

TEST(DataModelClientTest, AnObjectCarriesOneInterfaceOfEachDynamicType) {
    const auto creator = makeRef<CreativeArray>(numbers({1, 2}));
    const auto real = makeRef<DataRange<double>>(1.0, 2.0);
    const auto narrow = makeRef<DataRange<float>>(1.0f, 2.0f);
    creator->addInterface(real);
    creator->addInterface(narrow);
    EXPECT_EQ(creator->findInterface(typeid(DataRange<double>)).rawptr(), real.rawptr());
    EXPECT_EQ(creator->findInterface(typeid(DataRange<float>)).rawptr(), narrow.rawptr());
    EXPECT_EQ(creator->findInterface(typeid(DataRangeBase)).rawptr(), narrow.rawptr()) << "the newest of the domain";
    creator->addInterface(makeRef<DataRange<double>>(3.0, 4.0));
    EXPECT_EQ(creator->findInterface<DataRange<double>>()->getMin(), 3.0);
    EXPECT_EQ(creator->findInterface<DataRangeBase>()->getMinf(), 3.0) << "attached last";

    // A ball beside the box that an operation has attached, or finds attached.
    const StrongPtr<Field> field =
        makeRef<Field>(StrongPtr<MemBase>(makeMemArray1D(std::vector<point>{{0, 0, 0}, {1, 1, 1}})), nullptr);
    const auto owner = field->getCreator(nullptr);
    const StrongPtr<BoundingBox> mine(new BoundingBox(point(-1, -1, -1), point(2, 2, 2)));
    owner->addInterface(mine);
    owner->addInterface(makeRef<BoundingBall>(point(), 9.0));
    EXPECT_EQ(owner->findInterface<BoundingBox>(), mine);
    EXPECT_EQ(owner->findInterface<BoundingBall>()->radius(), 9.0) << "exactly this type goes first";
    EXPECT_EQ(getBoundingBox(field)->maxCoord(), point(2, 2, 2));
    field->addInterface(makeRef<BoundingBall>(point(), 9.0));
    const auto attached = field->findInterface<BoundingBox>();
    EXPECT_EQ(getBoundingBox(field)->maxCoord(), point(2, 2, 2));
    EXPECT_EQ(field->findInterface<BoundingBox>(), attached) << "not computed again";
}

// ----------------------------------------------------------------------------------------------------------------
// forms

struct Note : Hestra::InterfaceBase {};
struct OtherNote : Note {};

TEST(DataModelClientTest, HandlesAndObjectsServeAlike) {
    // An interface without more ado is found under its own type.
    Hestra::Intercube cube;
    cube.addInterface(StrongPtr<Hestra::InterfaceBase>(new Note));
    cube.addInterface(StrongPtr<Hestra::InterfaceBase>(new OtherNote));
    const StrongPtr<Hestra::InterfaceBase> note = cube.findInterface(typeid(Note));
    ASSERT_TRUE(note);
    EXPECT_EQ(note->getInterfaceDomain(), typeid(Note));
    EXPECT_NE(cube.findInterface(typeid(OtherNote)), note);

    Grid grid;
    const StrongPtr<Representation> representation = grid.makeCartesianRepresentation(3);
    const auto id = Representation::makeFieldID(representation, "p");
    ASSERT_TRUE(id);
    EXPECT_EQ(id, representation->findFieldID("p"));
    EXPECT_FALSE(Representation::makeFieldID(StrongPtr<Representation>(), "p"));
    const StrongPtr<CartesianChart> chart = grid.findCartesianChart("");
    EXPECT_EQ(chart, grid.findChart(typeid(CartesianChart), ""));
    EXPECT_EQ(grid.findVertices(3)->findRepresentation(*chart), representation);

    StrongPtr<MemBase> pulled;
    const StrongPtr<Hestra::ChunkBase> chunk(new Hestra::Chunk<double>{1, 2, 3, 4});
    ASSERT_TRUE(pullData(pulled, chunk, 4, 1));
    EXPECT_EQ(pulled->getDynamicSize(), DynamicSize{4});
    EXPECT_TRUE(pullData(pulled, pulled, *makeMemArray1D(std::vector<index_t>{3, 0}), 2));
    EXPECT_EQ(firstOf(pulled), 4.0);
}

TEST(DataModelClientTest, HandlesAreKeysOfSetsAndTakeNumbers) {
    const auto n = Hestra::PointerID;
    StrongPtr<Field> a(new Field);
    const StrongPtr<Field> b(new Field), none;
    EXPECT_GE(Hestra::PointerID - n, 3u) << "fields have handles inside";

    const StrongPtr<Field> handles[] = {a, b, none, a};
    for (const auto& one : handles)
        for (const auto& other : handles) EXPECT_EQ(one == other, !(one < other) && !(other < one));
    const std::set<StrongPtr<Field>> owners(std::begin(handles), std::end(handles));
    EXPECT_EQ(owners.size(), 3u);
    EXPECT_FALSE(*owners.begin()) << "null comes first";

    // What has died stays where it is, and is found.
    std::vector<StrongPtr<Field>> fields;
    for (int k = 0; k < 20; ++k) fields.emplace_back(new Field);
    const std::vector<WeakPtr<Field>> weak(fields.begin(), fields.end());
    const std::set<WeakPtr<Field>> remembered(weak.begin(), weak.end());
    fields.erase(fields.begin() + 5, fields.begin() + 15);
    for (const auto& one : weak) EXPECT_EQ(remembered.count(one), 1u);
}

} // namespace
