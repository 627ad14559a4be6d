#include <baseop/BaseOp.hpp>

#include <support/Testing.hpp>

namespace {

/// Cubes of 3^3 vertices side by side along axis 0, of one index space, with values f(place along axis 0).
class IsosurfaceClientTest : public testing::Test {
protected:
    template<class T, class F>
    void addBlock(index_t number, const F& f) {
        const index_t first = 2 * number;
        const auto data = filled<T>({3, 3, 3}, [&](const MultiIndex<3>& at) { return f(double(first + at[0])); });
        const auto id =
            blocks.addBlock(std::to_string(number),
                            makeRef<UniformCartesianArray>(
                                BoundingBox({double(first), 0, 0}, {double(first + 2), 2, 2}), MultiIndex<3>(3, 3, 3)),
                            MultiIndex<3>(first, 0, 0));
        blocks.setField("f", data, id);
    }
    void compute(double level) {
        requested.touch();
        CaptureStdout();
        surface = ComputeIsosurface(level, requested, *blocks.grid(), "f", *slice, "surface", 0.0);
        printed = GetCapturedStdout();
    }
    StrongPtr<Field> triangles() const {
        return surface->getSkeleton(SkeletonID(2, 1))->findRepresentation(*surface->findVertices(2))->Positions();
    }
    /// The area of the surface.
    double area() const {
        const auto corners = dynamicCast<MemArray<1, point>>(surface->CartesianPositions()->getData());
        const auto cells = dynamicCast<MemArray<1, TriangleCell>>(triangles()->getData());
        double sum = 0.0;
        for (index_t t = 0; t < cells->nElements(); ++t) {
            const auto cell = (*cells)(t);
            const point a = (*corners)(cell[0]);
            sum += length(cross((*corners)(cell[1]) - a, (*corners)(cell[2]) - a)) / 2;
        }
        return sum;
    }
    index_t size() const {
        return surface->CartesianPositions()->getData()->nElements() + triangles()->getData()->nElements();
    }

    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    RegularGrid3D blocks{(*slice)["input"]};
    Hestra::Ageable requested;
    StrongPtr<Grid> surface;
    std::string printed;
    static constexpr const char* kRecomputing =
        "*********************** RECOMPUTING ISOSURFACE ****************************\n";
};

TEST_F(IsosurfaceClientTest, ALevelThatNoValueExceedsHasNoSurface) {
    const auto peak = [](double x) { return x == 3 || x == 7 ? 9.0 : x == 8 ? 2.0 : 1.0; };
    addBlock<double>(0, [](double) { return 4.0; }); // wholly below
    addBlock<double>(1, peak);
    addBlock<float>(2, [](double) { return std::numeric_limits<float>::quiet_NaN(); });
    addBlock<unsigned char>(3, peak);
    compute(9.0);
    EXPECT_EQ(size(), 0u);
    EXPECT_EQ(printed, std::string(kRecomputing) + "SKIP Iso Retrieve: Data are [4, 4], level is 9\n");
    compute(std::nextafter(9.0, 0.0));
    EXPECT_GT(area(), 0.0);

    // A single greater value anywhere, even in a block that has no triangle itself: the corner rule, as in whole
    // arrays.
    for (int kind = 0; kind < 4; ++kind) {
        blocks = RegularGrid3D(slice->newGrid("other"));
        addBlock<double>(0, peak);
        addBlock<short>(1, peak);
        compute(9.0);
        EXPECT_EQ(size(), 0u);
        const auto greater = [](double) { return 11.0; };
        const auto one = [](double x) { return x == 8 ? 10.0 : 1.0; };
        if (kind == 0) addBlock<short>(3, greater);  // without a test of its range
        if (kind == 1) addBlock<double>(3, greater); // skipped, since all its values are greater
        if (kind == 2) addBlock<float>(3, one);      // with triangles
        if (kind == 3) addBlock<unsigned short>(3, one);
        compute(9.0);
        EXPECT_GT(size(), 0u) << kind;
        if (kind == 1) compute(9.0); // the range is known beforehand
        EXPECT_GT(size(), 0u) << kind;
    }
}

// Where one block ends exactly at the level and the next begins there, the first one has the triangles.
TEST_F(IsosurfaceClientTest, ALevelOnTheFaceBetweenBlocksTearsNoHole) {
    for (index_t b = 0; b < 4; ++b) addBlock<double>(b, [](double x) { return x; });
    for (const double level : {2.0, 3.0, 4.0, 4.5, 6.0}) {
        compute(level);
        EXPECT_DOUBLE_EQ(area(), 4.0) << level;
    }
    compute(8.0);
    EXPECT_EQ(size(), 0u);
}

TEST_F(IsosurfaceClientTest, BothHalvesOfASurfaceAreAsOldAsWhatWasAsked) {
    addBlock<double>(0, [](double x) { return x; });
    requested.setAge(Hestra::Ageable::GlobalTime + 1000);
    surface = ComputeIsosurface(0.5, requested, *blocks.grid(), "f", *slice, "surface", 0.0);
    EXPECT_EQ(surface->CartesianPositions()->age(), requested.age());
    EXPECT_EQ(triangles()->age(), requested.age());
}

// The same surface from explorers of all forms, cell by cell and as a whole.
TEST(IsosurfaceFormsTest, AnExplorerReadsByIndexAndByPlace) {
    const StrongPtr<MemArray<3, double>> data = MemArray<3, double>::create({2, 2, 2});
    (*data)(1, 0, 1) = 3.0;
    const UniformCartesianArray places(BoundingBox({0, 0, 0}, {1, 1, 1}), {2, 2, 2});
    const auto expectSurface = [&](const auto& explorer) {
        EXPECT_EQ(explorer(1, 0, 1), 3.0);
        EXPECT_EQ(explorer[MultiIndex<3>(1, 0, 1)], 3.0);
        EXPECT_EQ(explorer.getElement({1, 0, 1}), 3.0);
        EXPECT_EQ(explorer({0, 0, 1}), 0.0);
        std::vector<index_t> identifiers;
        std::vector<double> weights;
        std::vector<TriangleCell> triangles;
        std::map<index_t, index_t> edges;
        EXPECT_EQ(Polygonize(identifiers, weights, triangles, edges, explorer, {0, 0, 0}, 1.5, 0), 1);
        EXPECT_EQ(weights, std::vector<double>(3, 0.5));
        return ComputeIsosurfaceT(explorer, places, 0.0).second->nElements();
    };
    EXPECT_EQ(expectSurface(FieldExplorer(*data, 1.5)), 1u);
    EXPECT_EQ(expectSurface(FieldExplorer<MemArray<3, double>>(*data, 1.5)), 1u);
    EXPECT_EQ(expectSurface(FieldExplorer<MultiArray<3, double>>(*data, 1.5)), 1u);
    EXPECT_EQ(expectSurface(FieldExplorer(*data)), 0u) << "level 0, which no value is below";
    // The one corner that is not below has the case of its complement.
    const int cubeCase = 255 & ~(1 << 5);
    int cut = 0;
    for (int n = 0; n < 3; ++n) cut |= 1 << Vantle::triTable[cubeCase][n];
    EXPECT_EQ(Vantle::triTable[cubeCase][3], -1);
    EXPECT_EQ(Vantle::edgeTable[cubeCase], cut);
}

} // namespace
