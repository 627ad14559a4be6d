#include <baseop/DataRange.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/detail/surface/IsoSweep.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>

#include <support/Surfaces.hpp>
#include <support/Testing.hpp>

namespace {

using support::Surface;

/// Bent coordinates: nothing about them is a product.
StrongPtr<MemArray<3, point>> bentPositions(const MultiIndex<3>& size, const MultiIndex<3>& offset = {}) {
    return filled<point>(size, [&](const MultiIndex<3>& at) {
        const double x = double(at[0] + offset[0]), y = double(at[1] + offset[1]), z = double(at[2] + offset[2]);
        return point(x + 0.1 * std::sin(y), y + 0.05 * z, z - 0.1 * std::cos(x));
    });
}

/// Some balls of random places and sizes melted together; below 0 outside them, everywhere at the border.
class Blobs {
public:
    Blobs(const MultiIndex<3>& size, unsigned seed) {
        std::mt19937 random(seed);
        std::uniform_real_distribution<double> part(0.2, 0.8), radius(0.5, 1.0);
        for (int n = 0; n < 6; ++n) {
            Ball ball;
            ball.radius = kInfinity;
            for (int d = 0; d < 3; ++d) {
                const double edge = double(size[d] - 1);
                ball.centre[d] = part(random) * edge;
                ball.radius = std::min({ball.radius, ball.centre[d], edge - ball.centre[d]});
            }
            ball.radius *= radius(random);
            myBalls.push_back(ball);
        }
    }
    double operator()(const MultiIndex<3>& at) const {
        double best = -1.0;
        for (const Ball& ball : myBalls)
            best = std::max(best, 1.0 - distance(ball.centre, point(double(at[0]), double(at[1]), double(at[2]))) /
                                            ball.radius);
        return best;
    }

private:
    struct Ball {
        point centre;
        double radius;
    };
    std::vector<Ball> myBalls;
};

// ---- Tables and identifiers -----------------------------------------------------------------------------------------

TEST(IsosurfaceTablesTest, AreTheClassicOnes) {
    std::uint32_t triangles = 0, edges = 0;
    int count = 0;
    for (std::size_t c = 0; c < 256; ++c) {
        int used = 0;
        for (const int e : detail::triTable[c]) {
            triangles = triangles * 31 + static_cast<std::uint32_t>(e + 2);
            if (e >= 0) used |= 1 << e;
        }
        EXPECT_EQ(used, detail::edgeTable[c]) << "case " << c;
        edges = edges * 31 + static_cast<std::uint32_t>(detail::edgeTable[c]);
        count += detail::triangleCount(static_cast<int>(c));
    }
    EXPECT_EQ(triangles, 1254848904U);
    EXPECT_EQ(edges, 3464161280U);
    EXPECT_EQ(count, 820);
}

// Identifiers count the edges without gaps, and evaluation finds the ends of each again.
TEST(IsosurfaceEdgesTest, IdentifiersNumberAllEdges) {
    using RegularTopology::ComputeEdgeIDfromVertexAndOrientation;
    for (const MultiIndex<3>& size : {MultiIndex<3>(4, 3, 5), MultiIndex<3>(1, 4, 2), MultiIndex<3>(0, 3, 3)}) {
        const MultiIndex<3> lattice(50, 60, 70), place(7, 0, 2);
        const StrongPtr<MemArray<3, point>> places = bentPositions(size);
        index_t next = 0;
        for (int axis = 0; axis < 3; ++axis) {
            MultiIndex<3> block = size;
            block[axis] -= size[axis] ? 1 : 0;
            MultiIndex<3> lower;
            for (index_t n = 0; n < block.product(); ++n, lower.advance(block), ++next) {
                ASSERT_EQ(ComputeEdgeIDfromVertexAndOrientation<3>(lower, axis, size), next);
                MultiIndex<3> upper = lower;
                ++upper[axis];
                const point a = (*places)[lower], b = (*places)[upper], kept(9, 9, 9);
                std::vector<point> out{kept};
                EvalVertexFieldOnEdges(out, {0, next + 5, next + 5}, {0.5, 0.0, 1.0}, *places, size, {}, 1, 5);
                EXPECT_EQ(out, (std::vector<point>{kept, a, a + 1.0 * (b - a)}));
                const index_t far = ComputeEdgeIDfromVertexAndOrientation<3>(lower + place, axis, lattice);
                EvalVertexFieldOnEdges(out, {far}, {0.25}, *places, lattice, MultiIndex<3>() - place, 0, 0);
                EXPECT_EQ(out, std::vector<point>{a + 0.25 * (b - a)});
            }
        }
        std::vector<point> out;
        EXPECT_THROW(EvalVertexFieldOnEdges(out, {next}, {0.5}, *places, size, {}, 0, 0), int);
        EXPECT_THROW(EvalVertexFieldOnEdges(out, {4}, {0.5}, *places, size, {}, 0, 5), int);
    }
    EXPECT_THROW((void)ComputeEdgeIDfromVertexAndOrientation<3>({}, -1, {3, 3, 3}), unsigned long long);
    EXPECT_THROW((void)ComputeEdgeIDfromVertexAndOrientation<3>({}, 3, {3, 3, 3}), unsigned long long);
}

TEST(IsosurfaceEdgesTest, WeightsCountFromTheLowerEnd) {
    // One corner at `low` has the value 0, the others 3.
    const auto weights = [](const MultiIndex<3>& low, double level) {
        Surface surface;
        const auto data = filled<double>({2, 2, 2}, [&](const MultiIndex<3>& at) { return at == low ? 0.0 : 3.0; });
        surface.addPlainly<double>(*data, level, *bentPositions({2, 2, 2}));
        return surface.weights;
    };
    using Weights = std::vector<double>;
    // Edges 0, 8, 3 and 10, 6, 5 in this order, of which 3 and 6 run downwards and are turned round.
    EXPECT_EQ(weights({0, 0, 0}, 1), (Weights{1.0 / 3, 1.0 / 3, 1 - 2.0 / 3}));
    EXPECT_EQ(weights({1, 1, 1}, 1), (Weights{2.0 / 3, 1 - 1.0 / 3, 2.0 / 3}));
    EXPECT_EQ(weights({0, 0, 0}, 3), (Weights{1, 1, 1})); // the greatest value: collapsed onto it
    EXPECT_EQ(weights({0, 0, 0}, 0), Weights());          // the least value is outside

    // Infinite on one side, the difference is no number: the middle.
    Surface surface;
    const auto data = filled<double>({2, 2, 2}, [](const MultiIndex<3>& at) { return at[0] ? kNaN : 0.0; });
    surface.addPlainly<double>(*data, 1.0, *bentPositions({2, 2, 2}));
    EXPECT_EQ(surface.weights, Weights(4, 0.5));

    const point p(0, 0, 0), q(1, 2, 4);
    EXPECT_EQ(VertexInterp(1, p, q, 0, 4), point(0.25, 0.5, 1));
    EXPECT_EQ(VertexInterp(1, p, q, 3, 3), p);
    EXPECT_EQ(VertexInterp(-1, p, q, 0, 4), p);
    EXPECT_EQ(VertexInterp(9, p, q, 0, 4), q);
}

// ---- The fast sweep -------------------------------------------------------------------------------------------------

template<class T>
class IsosurfaceSweepTest : public testing::Test {
public:
    /// All forms of the operation, on data at one level, against the plain sweep.
    static void expectPlain(const MultiArray<3, T>& data, double level) {
        const MultiIndex<3> size = data.Size();
        const auto bent = bentPositions(size);
        Surface plain;
        plain.addPlainly(data, level, *bent);
        const auto [points, triangles] = ComputeIsosurface<T>(level, data, *bent, 0.0);
        EXPECT_TRUE(support::sameBits(plain.points, asVector(*points)));
        EXPECT_EQ(plain.triangles, asVector(*triangles));

        const UniformCartesianArray uniform(point(0.1, -7, 3), size, point(1, 1e-9, 3));
        using Axis = ExplicitCoordinateAxisArray<double>;
        std::array<Axis, 3> axes;
        for (std::size_t d = 0; d < 3; ++d) {
            std::vector<double> values(static_cast<std::size_t>(size[d]));
            for (std::size_t i = 0; i < values.size(); ++i) values[i] = std::sqrt(double(i));
            axes[d] = Axis(values);
        }
        const DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3> rectilinear(axes);
        const FieldExplorer<MultiArray<3, T>> explorer(data, level);
        const auto expectOn = [&](const auto& coordinates) {
            std::vector<point> expected;
            EvalVertexFieldOnEdges(expected, plain.identifiers, plain.weights, coordinates, size, {}, 0, 0);
            const auto surface = ComputeIsosurfaceT(explorer, coordinates, 0.0);
            EXPECT_TRUE(support::sameBits(expected, asVector(*surface.first)));
            EXPECT_EQ(plain.triangles, asVector(*surface.second));
        };
        expectOn(uniform);
        expectOn(rectilinear);
    }

    template<class U>
    static std::vector<U> asVector(const MemArray<1, U>& array) {
        return std::vector<U>(array.data(), array.data() + array.nElements());
    }
};

using SweepTypes = testing::Types<double, float, unsigned char, short, unsigned short>;
TYPED_TEST_SUITE(IsosurfaceSweepTest, SweepTypes);

// Rows around the length of a word, blocks without cells, and the borders of all axes.
TYPED_TEST(IsosurfaceSweepTest, EqualsThePlainSweepOnBlocksOfAllShapes) {
    std::mt19937 random(11);
    std::uniform_int_distribution<int> anyValue(0, 4);
    std::vector<MultiIndex<3>> sizes = {{63, 3, 4},  {64, 4, 3}, {65, 3, 3}, {66, 2, 5}, {128, 3, 2},
                                        {129, 2, 2}, {3, 70, 2}, {2, 3, 70}, {2, 2, 2},  {5, 6, 7}};
    for (index_t n = 0; n < 27; ++n) sizes.push_back({n % 3, n / 3 % 3, n / 9});
    for (const MultiIndex<3>& size : sizes) {
        const auto data = filled<TypeParam>(size, [&](const MultiIndex<3>&) { return anyValue(random); });
        SCOPED_TRACE(to_string(size));
        for (const double level : {2.0, 2.5, 4.0}) this->expectPlain(*data, level);
    }
}

TYPED_TEST(IsosurfaceSweepTest, EqualsThePlainSweepOnFieldsOfAllKinds) {
    using Limits = std::numeric_limits<TypeParam>;
    const MultiIndex<3> size(70, 9, 8);
    std::mt19937 random(12);
    std::uniform_real_distribution<double> part(0, 1);
    const auto noise = filled<TypeParam>(size, [&](const MultiIndex<3>&) {
        const double value = part(random) * 200;
        if (Limits::has_quiet_NaN && part(random) < 0.1) return part(random) < 0.5 ? kNaN : kInfinity;
        return part(random) < 0.1 ? double(Limits::max()) : part(random) < 0.1 ? double(Limits::lowest()) : value;
    });
    const double most = double(Limits::max()), least = double(Limits::lowest());
    const double levels[] = {100,   100.5,     0,          -0.5,  254.5,        255,
                             255.5, most,      2 * most,   least, least - 0.25, std::nextafter(least, 0),
                             kNaN,  kInfinity, -kInfinity, 0.1};
    for (const double level : levels) {
        SCOPED_TRACE(level);
        this->expectPlain(*noise, level);
    }
    const auto smooth = filled<TypeParam>(size, [](const MultiIndex<3>& at) {
        return 100 + 50 * std::sin(0.2 * double(at[0])) * std::cos(0.5 * double(at[1])) + 5 * double(at[2]);
    });
    for (const double level : {60.0, 100.0, 117.25, 150.0}) this->expectPlain(*smooth, level);

    // Every third number of a longer row: elements that do not follow each other.
    std::vector<TypeParam> sparse(static_cast<std::size_t>(3 * size.product()), TypeParam(77));
    for (std::size_t n = 0; n < size.product(); ++n) sparse[3 * n] = smooth->element(n);
    this->expectPlain(MultiArray<3, TypeParam>(sparse.data(), size, 3), 100.0);
}

TYPED_TEST(IsosurfaceSweepTest, DoesNotDependOnTheNumberOfThreads) {
    const MultiIndex<3> size(90, 41, 37); // enough for four
    std::mt19937 random(13);
    std::uniform_int_distribution<int> anyValue(0, 100);
    const auto noise = filled<TypeParam>(size, [&](const MultiIndex<3>&) { return anyValue(random); });
    const Blobs blobs(size, 14);
    const auto smooth = filled<TypeParam>(size, [&](const MultiIndex<3>& at) { return 100 + 100 * blobs(at); });
    support::forTeamsUpTo(4, [&] {
        this->expectPlain(*noise, 3.0); // few cells are whole
        this->expectPlain(*smooth, 100.5);
    });
}

// Of several levels of one field, where most bricks are passed over; of others in its place; and of bricks that the
// cache has dropped. The last vertices of an axis are the last ones of bricks, first ones, or in between.
TYPED_TEST(IsosurfaceSweepTest, EqualsThePlainSweepWhereBricksArePassedOver) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    for (const MultiIndex<3>& size : {MultiIndex<3>(65, 33, 33), MultiIndex<3>(70, 34, 32)}) {
        SCOPED_TRACE(to_string(size));
        const auto positions = bentPositions(size);
        const auto data = filled<TypeParam>(size, [](const MultiIndex<3>& at) {
            return 3 * length(PhysicalSpace::vector(double(at[0]) - 36, double(at[1]) - 13, double(at[2]) - 12));
        });
        const auto slice = makeRef<Slice>();
        RegularGrid3D regular(slice->newGrid("grid"));
        const auto id = regular.addBlock("block", positions);
        const auto field = regular.setField("f", data, id);
        Hestra::Ageable request;
        const auto expectPlainAt = [&](double level) {
            SCOPED_TRACE(level);
            Surface plain;
            plain.addPlainly<TypeParam>(*data, level, *positions);
            request.touch();
            const TriangularSurface made(
                ComputeIsosurface(level, request, *regular.grid(), "f", *slice, "surface", 0.0));
            const auto points = this->asVector(*made.points());
            EXPECT_TRUE(support::sameBits(plain.points, points));
            EXPECT_EQ(plain.triangles, this->asVector(*made.triangles()));
        };
        for (const double level : {9.0, 14.5, 20.0, -1.0, 0.0, 110.0, 300.0}) expectPlainAt(level);

        const auto change = [&](const MultiIndex<3>& at, double value) {
            (*data)[at] = static_cast<TypeParam>(value);
            field->getCreator(id)->touch();
            field->touch();
        };
        change({1, 1, 1}, 5);
        expectPlainAt(20.0);
        if constexpr (std::is_floating_point_v<TypeParam>) {
            change({64, 32, 31}, kNaN); // among larger ones, which it is outside with
            change({37, 13, 12}, kNaN); // among smaller ones
            expectPlainAt(50.0);
            change({20, 8, 8}, -kInfinity);
            for (const double level : {20.0, -kInfinity, kNaN}) expectPlainAt(level);
        }
        Hestra::Cache::MemCache()->clear();
        expectPlainAt(14.5);
    }
}

// ---- Whole surfaces -------------------------------------------------------------------------------------------------

TEST(IsosurfaceTest, ReportsAndRethrowsWhatGoesWrongInside) {
    const auto data = filled<double>({4, 4, 4}, [](const MultiIndex<3>& at) { return double(at[0]); });
    EXPECT_EQ(
        outputOf([&] {
            EXPECT_THROW((void)ComputeIsosurface<double>(1.5, *data, *bentPositions({4, 4, 3}), 0.0), IsoException);
        }),
        "ComputeIsosurfaceT(): INTERNAL ERROR\n");
}

// ---- Grids ----------------------------------------------------------------------------------------------------------

/// A grid in a slice, and the surface that is asked of it.
class IsosurfaceGridTest : public testing::Test {
protected:
    /// Adds a fragment with a field "f"; `place` makes it a piece of one index space.
    void addBlock(const std::string& name, const StrongPtr<MemBase>& data, const StrongPtr<MemBase>& positions,
                  const std::optional<MultiIndex<3>>& place = {}) {
        const StrongPtr<FragmentID> id = regular.addBlock(name, positions, place);
        regular.setField("f", data, id);
    }
    /// The call, and what it prints.
    std::string compute(double level, const std::string& field = "f") {
        CaptureStdout();
        try {
            output = ComputeIsosurface(level, requested, *grid, field, *slice, "surface", 0.0);
        } catch (...) {
            GetCapturedStdout();
            throw;
        }
        return GetCapturedStdout();
    }
    int failureOf(double level, const std::string& field = "f") {
        try {
            compute(level, field);
        } catch (const IsoException& problem) {
            return problem.code();
        }
        return 0;
    }
    template<class T>
    static std::vector<T> elements(const StrongPtr<Field>& field) {
        const auto data = field->getData();
        const auto array = dynamicCast<MemArray<1, T>>(data);
        return array ? std::vector<T>(array->data(), array->data() + array->nElements()) : std::vector<T>();
    }
    StrongPtr<Field> trianglesField() const {
        return output->getSkeleton(SkeletonID(2, 1))->findRepresentation(*output->findVertices(2))->Positions();
    }
    std::vector<TriangleCell> triangles() const { return elements<TriangleCell>(trianglesField()); }
    std::vector<point> points() const { return elements<point>(output->CartesianPositions()); }

    static constexpr const char* kRecomputing =
        "*********************** RECOMPUTING ISOSURFACE ****************************\n";
    BundlePtr bundle = BundlePtr::create();
    StrongPtr<Slice> slice = bundle[0.0];
    StrongPtr<Grid> grid = slice->newGrid("input");
    RegularGrid3D regular{grid};
    Hestra::Ageable requested;
    StrongPtr<Grid> output;
};

StrongPtr<MemArray<3, double>> ramp(const MultiIndex<3>& size, const MultiIndex<3>& offset = {}) {
    return filled<double>(size, [offset](const MultiIndex<3>& at) { return double(at[0] + offset[0]); });
}

// Pieces of one index space, given in any order and overlapping or not, make the surface of the plain sweep over the
// same pieces in which equal edges of the whole are one vertex; without overlap it is closed where the whole one is.
TEST_F(IsosurfaceGridTest, PiecesOfOneIndexSpaceShareTheirVertices) {
    const MultiIndex<3> whole(33, 20, 22), origin(5, 1000, 3);
    const Blobs blobs(whole, 21);
    struct Piece {
        MultiIndex<3> start, size;
    };
    const std::vector<Piece> disjoint = {{{16, 0, 0}, {17, 11, 22}},
                                         {{0, 10, 7}, {17, 10, 15}},
                                         {{0, 0, 0}, {17, 11, 22}},
                                         {{0, 10, 0}, {17, 10, 8}},
                                         {{16, 10, 0}, {17, 10, 22}}};
    std::vector<Piece> overlapping(disjoint);
    overlapping.push_back({{8, 5, 5}, {20, 11, 10}}); // over the inside of several
    overlapping.push_back({{9, 6, 5}, {1, 5, 5}});    // no cells
    overlapping.push_back({{0, 0, 0}, {17, 11, 22}}); // the same once more
    const auto numberOf = [&](int axis, const MultiIndex<3>& lower) {
        return RegularTopology::ComputeEdgeIDfromVertexAndOrientation<3>(lower, axis, whole);
    };
    for (const std::vector<Piece>* pieces : {&disjoint, static_cast<const std::vector<Piece>*>(&overlapping)}) {
        slice->remove("surface");
        grid = slice->newGrid("input");
        regular = RegularGrid3D(grid);
        std::map<index_t, index_t> vertexOf;
        std::vector<point> expectedPoints;
        std::vector<TriangleCell> expectedTriangles;
        for (std::size_t n = 0; n < pieces->size(); ++n) {
            const MultiIndex<3> start = (*pieces)[n].start, size = (*pieces)[n].size;
            const auto data = filled<double>(size, [&](const MultiIndex<3>& at) { return blobs(at + start); });
            const auto positions = bentPositions(size, start);
            addBlock("piece" + std::to_string(n), data, positions, start + origin);

            Surface plain;
            plain.addPlainly<double>(*data, 0.1, *positions);
            std::map<index_t, index_t> wholeNumber; // of the edges of the piece
            for (int axis = 0; axis < 3; ++axis) {
                MultiIndex<3> block = size, lower;
                if (--block[axis] == 0 || size.product() == 0) continue;
                do
                    wholeNumber[RegularTopology::ComputeEdgeIDfromVertexAndOrientation<3>(lower, axis, size)] =
                        numberOf(axis, lower + start);
                while (lower.advance(block));
            }
            std::vector<unsigned int> joined;
            for (std::size_t v = 0; v < plain.points.size(); ++v) {
                const auto [found, isNew] = vertexOf.try_emplace(wholeNumber.at(plain.identifiers[v]), vertexOf.size());
                if (isNew) expectedPoints.push_back(plain.points[v]);
                joined.push_back(static_cast<unsigned int>(found->second));
            }
            for (const auto& t : plain.triangles)
                expectedTriangles.emplace_back(joined[t[0]], joined[t[1]], joined[t[2]]);
        }
        EXPECT_EQ(compute(0.1), kRecomputing);
        EXPECT_TRUE(support::sameBits(points(), expectedPoints));
        EXPECT_EQ(triangles(), expectedTriangles);
        if (pieces == &disjoint) {
            EXPECT_EQ(support::openEdges(triangles()), 0U);
            const auto once = ComputeIsosurface<double>(0.1, *filled<double>(whole, blobs), *bentPositions(whole), 0.0);
            EXPECT_EQ(points().size(), once.first->nElements());
            EXPECT_EQ(triangles().size(), once.second->nElements());
        }
    }
}

// Without a place in a whole, or too far out for it, fragments share nothing, whatever their edges are called.
TEST_F(IsosurfaceGridTest, OtherFragmentsShareNoVertices) {
    const index_t end = index_t{1} << 20;
    const MultiIndex<3> size(3, 3, 3), negative(~index_t{0}, 0, 0);
    addBlock("a", ramp(size), bentPositions(size));
    addBlock("b", ramp(size), bentPositions(size));
    addBlock("c", ramp(size), bentPositions(size), MultiIndex<3>(0, 0, 0));
    addBlock("d", ramp(size), bentPositions(size), MultiIndex<3>(end - 3, 0, 0));
    addBlock("e", ramp(size), bentPositions(size), MultiIndex<3>(end - 2, 0, 0));
    addBlock("f", ramp(size), bentPositions(size), negative);
    compute(0.5);
    EXPECT_EQ(points().size(), 6 * 9U);
    EXPECT_EQ(triangles().size(), 6 * 8U);

    // Identifiers tell all of them apart; those of "c" and "d" alone are places on the lattice.
    const auto identifiers = makeRef<Hestra::TypedChunk<index_t>>().strong();
    FragmentIsoSurfacer surfacer(
        0.5, 0.0, regular.positions(), identifiers, makeRef<Hestra::TypedChunk<double>>().strong(),
        makeRef<Hestra::TypedChunk<point>>().strong(), makeRef<Hestra::TypedChunk<TriangleCell>>().strong());
    (*grid)("f")->iterate(surfacer);
    const std::vector<index_t>& found = identifiers->base_vector();
    EXPECT_EQ(std::set<index_t>(found.begin(), found.end()).size(), 6 * 9U);
    EXPECT_EQ(std::count_if(found.begin(), found.end(), [](index_t id) { return id < index_t{3} << 60; }), 2 * 9);
}

TEST_F(IsosurfaceGridTest, EveryKindOfCoordinatesAndElementsServes) {
    const MultiIndex<3> size(5, 4, 3);
    const auto linear = makeRef<UniformCartesianArray>(point(0, 0, 0), size, point(4, 3, 2));
    using Axis = ExplicitCoordinateAxisArray<double>;
    const auto listed = makeRef<DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3>>(
        std::array<Axis, 3>{Axis({0, 1, 2, 3, 4}), Axis({0, 1, 2, 3}), Axis({0, 1, 2})});
    const auto value = [](const MultiIndex<3>& at) { return double(at[0]); };
    addBlock("a", ramp(size), linear.strong());
    addBlock("b", filled<float>(size, value), listed.strong());
    addBlock("c", filled<unsigned char>(size, value), linear.strong());
    addBlock("d", filled<short>(size, value), linear.strong());
    addBlock("e", filled<unsigned short>(size, value), linear.strong());
    EXPECT_EQ(compute(1.5), kRecomputing);
    ASSERT_EQ(points().size(), 5 * 12U);
    for (const point& p : points()) EXPECT_EQ(p[0], 1.5);
}

// Property: a plane cuts where distances from it are 0, wherever axes lead.
TEST_F(IsosurfaceGridTest, PlanesCutWhereDistancesFromThemVanish) {
    const MultiIndex<3> size(130, 4, 3);
    using Axis = ExplicitCoordinateAxisArray<double>;
    std::array<std::vector<double>, 3> axes = {{{}, {3, 2, 0, -1}, {0, 1, 2}}};
    const point origin(3.3, 0.9, 1.1);
    for (const double step : {0.1, -0.1, 3.7}) { // of the last one only the remainders by 5: neither up nor down
        axes[0].clear();
        for (int i = 0; i < 130; ++i)
            axes[0].push_back(std::fmod((step < 0 ? 13 : 0) + i * step, step < 1 ? 100.0 : 5.0));
        for (const PhysicalSpace::vector normal :
             {PhysicalSpace::vector(1, 0.5, -2), PhysicalSpace::vector(-1, 0, 0)}) {
            const PhysicalSpace::vector unit = normal * (1.0 / length(normal));
            const auto term = [&](const MultiIndex<3>& at, int d) {
                return (axes[std::size_t(d)][at[d]] - origin[d]) * unit[d];
            };
            const auto distances = filled<double>(
                size, [&](const MultiIndex<3>& at) { return (term(at, 0) + term(at, 1)) + term(at, 2); });
            regular = RegularGrid3D(grid = slice->newGrid("input"));
            addBlock("a", distances,
                     Hestra::makeRef<DirectProductMemArray<point, ExplicitCoordinateAxisArray, 3>>(
                         std::array{Axis(axes[0]), Axis(axes[1]), Axis(axes[2])})
                         .strong());
            requested.touch();
            compute(0.0);
            const auto expected = points();
            const Hestra::ScopedListener nobody({});
            output = ComputePlaneCut(origin, normal, requested, *grid, *slice, "cut");
            ASSERT_GT(expected.size(), 9U);
            ASSERT_TRUE(points() == expected) << step;
        }
    }
}

// Of planes that move through one block, of which most bricks are passed over; after a change that only the field tells
// of, with positions that are nowhere; and of bricks that the cache has dropped.
TEST_F(IsosurfaceGridTest, MovedPlanesCutAsPlainDistancesSay) {
    const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
    const auto isSame = [](const point& a, const point& b) { // which NaN is not promised
        for (int d = 0; d < 3; ++d)
            if (!(a[d] == b[d] || (a[d] != a[d] && b[d] != b[d]))) return false;
        return true;
    };
    for (const MultiIndex<3>& size : {MultiIndex<3>(65, 33, 33), MultiIndex<3>(70, 34, 32)}) {
        const auto positions = bentPositions(size);
        RegularGrid3D bent(grid = slice->newGrid("input"));
        bent.addBlock("a", positions);
        const auto expectPlain = [&](const point& origin, const vector& normal) {
            const vector unit = normal * (1.0 / length(normal));
            const auto distances =
                filled<double>(size, [&](index_t n) { return dot(positions->element(n) - origin, unit); });
            Surface plain;
            plain.addPlainly<double>(*distances, 0.0, *positions);
            requested.touch();
            output = ComputePlaneCut(origin, normal, requested, *grid, *slice, "cut");
            EXPECT_EQ(plain.triangles, triangles()) << to_string(size) << origin[0];
            EXPECT_TRUE(std::ranges::equal(plain.points, points(), isSame)) << to_string(size) << origin[0];
        };
        const auto expectAll = [&] {
            for (const double at : {8.0, 20.3, 31.0, 15.7}) {
                expectPlain({at, at, at}, {1, 0.5, -2});
                expectPlain({at, at, at}, {0, -1, 0});
                expectPlain((*positions)[{index_t(at), 16, 16}], {-0.3, 0, 0.1}); // through a vertex
            }
            expectPlain({1e9, 0, 0}, {-1, 1e-3, 0});
        };
        expectAll();
        (*positions)[{40, 16, 16}] = {kNaN, 0, 0};
        (*positions)[{20, 20, 20}] = {0, kInfinity, 0};
        (*positions)[{50, 24, 8}] = {-1e308, 1e308, 3e307};
        grid->CartesianPositions()->touch();
        expectAll();
        Hestra::Cache::MemCache()->clear();
        expectPlain({30, 0, 0}, {1, 0, 0});
    }
}

TEST_F(IsosurfaceGridTest, SkipsFragmentsByTheirRanges) {
    const MultiIndex<3> size(5, 3, 3);
    const auto value = [](const MultiIndex<3>& at) { return double(at[0]); };
    addBlock("double", ramp(size), bentPositions(size));
    addBlock("float", filled<float>(size, value), bentPositions(size));
    addBlock("byte", filled<unsigned char>(size, value), bentPositions(size));
    const std::string skipped = std::string(kRecomputing) + "SKIP Iso Retrieve: Data are [0, 4], level is 4.5\n";
    EXPECT_EQ(compute(4.5), skipped);
    EXPECT_TRUE(points().empty());

    const auto field = (*grid)("f");
    DataRange<float>::compute(*field->getCreator(field->getFragmentID("float")), false, false);
    requested.touch();
    EXPECT_EQ(compute(4.5), std::string(kRecomputing) + "SKIP Iso\nSKIP Iso\n"); // both ranges are known now
    requested.touch();
    EXPECT_EQ(compute(4.0), kRecomputing); // the greatest value is no reason to skip
    EXPECT_TRUE(points().empty());         // but no value exceeds it
    requested.touch();
    EXPECT_EQ(compute(std::nextafter(4.0, 0.0)), kRecomputing);
    EXPECT_EQ(points().size(), 3 * 9U);
    requested.touch();
    EXPECT_EQ(compute(kNaN), kRecomputing);
    EXPECT_TRUE(triangles().empty());
}

// A known range spares making the data.
TEST_F(IsosurfaceGridTest, DoesNotMakeDataThatAreKnownNotToMatter) {
    const MultiIndex<3> size(4, 3, 3);
    const auto cache = makeRef<Hestra::Cache>().strong();
    int runs = 0;
    const StrongPtr<FragmentID> id = regular.addBlock("lazy", bentPositions(size));
    const auto field = regular.setField("f", ramp(size), id);
    const auto creator = field->createCreator(
        [&](const Hestra::WeakPtr<CreativeArrayBase>&) {
            ++runs;
            return StrongPtr<MemBase>(ramp(size));
        },
        VantleTypeIndex(typeid(double)), DynamicSize(size), id, Field::ReplaceExisting, cache);
    compute(9.0);
    EXPECT_EQ(runs, 1);
    cache->clear();
    requested.touch();
    EXPECT_EQ(compute(9.0), std::string(kRecomputing) + "SKIP Iso\n");
    EXPECT_EQ(runs, 1);
}

TEST_F(IsosurfaceGridTest, ReusesASurfaceUntilSomethingIsNewer) {
    const MultiIndex<3> size(6, 3, 3);
    addBlock("a", ramp(size), bentPositions(size));
    EXPECT_EQ(compute(1.5), kRecomputing);
    const StrongPtr<Grid> first = output;
    EXPECT_EQ(compute(2.5), ""); // the level does not count
    EXPECT_EQ(output, first);
    EXPECT_EQ(points()[0][0], 1.5 + 0 * points()[0][1]);

    requested.touch();
    EXPECT_EQ(compute(2.5), kRecomputing);
    EXPECT_FALSE(output == first);
    EXPECT_EQ(compute(2.5), "");
    (*grid)("f")->touch();
    EXPECT_EQ(compute(2.5), kRecomputing);
    EXPECT_EQ(compute(2.5), "");
    requested.setAge(Hestra::Ageable::GlobalTime + 1000); // ahead of all clocks
    EXPECT_EQ(compute(2.5), kRecomputing);
    EXPECT_EQ(compute(2.5), "");

    // Either half may be dropped from memory.
    const auto dropped = [](const StrongPtr<Field>& field) {
        Hestra::Cache::MemCache()->remove(*field->getData());
        return !field->hasData();
    };
    ASSERT_TRUE(dropped(output->CartesianPositions()));
    EXPECT_EQ(compute(2.5), kRecomputing);
    ASSERT_TRUE(dropped(trianglesField()));
    EXPECT_EQ(compute(2.5), kRecomputing);
    EXPECT_EQ(points().size(), 9U);
    Hestra::Cache::MemCache()->clear();
    EXPECT_EQ(compute(2.5), kRecomputing);
    EXPECT_EQ(triangles().size(), 8U);
}

TEST_F(IsosurfaceGridTest, KeepsTheSurfaceThatIsLargerThanTheBudget) {
    const MultiIndex<3> size(6, 5, 4);
    addBlock("a", ramp(size), bentPositions(size));
    compute(2.5);
    const auto expectedPoints = points();
    const auto expectedTriangles = triangles();
    ASSERT_EQ(expectedTriangles.size(), 24U);
    Hestra::Cache::MemCache()->setLimit(expectedPoints.size() * sizeof(point)); // of one half
    requested.touch();
    compute(2.5);
    const auto keptPoints = points();
    const auto keptTriangles = triangles();
    Hestra::Cache::MemCache()->setUnlimited();
    EXPECT_EQ(keptPoints, expectedPoints);
    EXPECT_EQ(keptTriangles, expectedTriangles);
}

// As if triangles numbered fewer vertices than 32 bits do.
TEST_F(IsosurfaceGridTest, RefusesMoreVerticesThanTrianglesCanNumber) {
    const MultiIndex<3> size(6, 3, 3); // a surface of nine vertices
    struct Limit {
        explicit Limit(index_t vertices) { detail::mostVertices = vertices; }
        ~Limit() { detail::mostVertices = before; }
        index_t before = detail::mostVertices;
    };
    {
        const Limit limit(8);
        EXPECT_THROW((void)ComputeIsosurface<double>(1.5, *ramp(size), *bentPositions(size), 0.0), std::length_error);
    }
    addBlock("a", ramp(size), bentPositions(size));
    addBlock("b", ramp(size), bentPositions(size));
    {
        const Limit limit(17);
        EXPECT_THROW(compute(1.5), std::length_error);
        EXPECT_FALSE((*slice)("surface")->CartesianPositions() && (*slice)("surface")->CartesianPositions()->hasData());
    }
    const Limit limit(18);
    compute(1.5);
    EXPECT_EQ(points().size(), 18U);
    EXPECT_EQ(limit.before, index_t{1} << 32);
}

TEST_F(IsosurfaceGridTest, SaysWhatIsMissing) {
    StrongPtr<Grid> bare = slice->newGrid("bare");
    std::swap(bare, grid);
    EXPECT_EQ(failureOf(1.5, "none"), 1); // before the missing field
    std::swap(bare, grid);

    const MultiIndex<3> size(4, 3, 3);
    addBlock("a", ramp(size), bentPositions(size));
    EXPECT_EQ(failureOf(1.5, "none"), 2);
    EXPECT_STREQ(IsoException(2).what(), "No field found in input grid");
    EXPECT_STREQ(IsoException(7).what(), "Undefined Isosurfacer Error");

    const auto id = regular.positions()->getFragmentID("a");
    regular.setField("int", filled<int>(size, [](const MultiIndex<3>&) { return 1; }), id);
    EXPECT_EQ(failureOf(1.5, "int"), 4);
    regular.setField("flat", makeMemArray1D(std::vector<double>(36)).strong(), id);
    EXPECT_THROW(compute(1.5, "flat"), const char*);
    regular.setField("longer", ramp({5, 3, 3}), id);
    CaptureStdout();
    EXPECT_THROW(ComputeIsosurface(1.5, requested, *grid, "longer", *slice, "surface", 0.0), IsoException);
    EXPECT_EQ(GetCapturedStdout(),
              std::string(kRecomputing) + "Sorry, no fragment coordinates for isosurface fragment.\n");
    regular.setField("longerInt", filled<int>({5, 3, 3}, [](const MultiIndex<3>&) { return 1; }), id);
    EXPECT_EQ(failureOf(1.5, "longerInt"), 3); // before the unsupported type
    EXPECT_EQ(failureOf(9.5, "longer"), 0);    // not needed
}

TEST_F(IsosurfaceGridTest, FieldsWithoutDataGiveEmptySurfaces) {
    const MultiIndex<3> size(4, 3, 3);
    addBlock("a", ramp(size), bentPositions(size));
    const auto empty = makeRef<Field>(regular.positions()->getFragmentIDCollection()).strong();
    regular.representation()->setField("empty", empty);
    EXPECT_EQ(compute(1.5, "empty"), kRecomputing); // a fragment without creator
    EXPECT_TRUE(points().empty() && triangles().empty());
    empty->createCreator([](const Hestra::WeakPtr<CreativeArrayBase>&) { return StrongPtr<MemBase>(); },
                         VantleTypeIndex(typeid(double)), DynamicSize(size), regular.positions()->getFragmentID("a"));
    EXPECT_EQ(compute(1.5, "empty"), kRecomputing); // and one that makes nothing
    EXPECT_TRUE(points().empty() && triangles().empty());
    EXPECT_EQ(compute(1.5, "empty"), "");

    addBlock("flat", ramp({4, 1, 3}), bentPositions({4, 1, 3}));
    addBlock("none", ramp({0, 3, 3}), bentPositions({0, 3, 3}));
    EXPECT_EQ(compute(1.5), kRecomputing);
    EXPECT_EQ(points().size(), 9U);
}

} // namespace
