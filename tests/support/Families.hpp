#pragma once
/// A world of blocks and curves, and what every family of operations answers about it, to the last bit.

#include "LocationGrids.hpp"

#include <baseop/CellSearch.hpp>
#include <baseop/DataRange.hpp>
#include <baseop/EvalGrid.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/ResampleRegularGrid.hpp>
#include <baseop/SurfaceRefinement.hpp>
#include <baseop/TangentialVectors.hpp>
#include <baseop/UniformInterpolation.hpp>
#include <baseop/ValidData.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace support::families {

using Hestra::StrongPtr;
using Orvix::BoundingBox;
using namespace Vantle;
using Vector = Orvix::PhysicalSpace::vector;

inline constexpr int kBlocks = 18; // fragment trees are walked beyond 16
inline const Point kMove(100, 50, 0);
inline const char* const kAdded = "added";
/// Cells about as long as wide, of which none is a parallelepiped.
inline const support::Shape kBent{
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
    StrongPtr<MemArray<1, Triangle>> triangles;
    StrongPtr<MemArray<1, Edge>> edges;
    int evaluations = 0;
    Hestra::Ageable requested;

    void add(const std::string& name, const StrongPtr<MemBase>& points, const StrongPtr<MemBase>& values,
             const StrongPtr<MemBase>& velocity) {
        const auto id = blocks.addBlock(name, points);
        blocks.setField("values", values, id);
        blocks.setField("velocity", velocity, id);
    }
    void add(const std::string& name, const StrongPtr<Block>& points, const StrongPtr<MemArray<3, double>>& values) {
        const auto velocity = MemArray<3, Vector>::create(points->Size());
        for (index_t k = 0; k < points->nElements(); ++k) {
            const Point& p = points->element(k);
            velocity->element(k) = Vector(p[1] * p[2], 1.0 - p[0], p[0] * p[1]);
        }
        add(name, points, values, velocity.strong());
    }
    [[nodiscard]] StrongPtr<Field> positions() const { return blocks.positions(); }
    [[nodiscard]] StrongPtr<Field> values() const { return blocks.field("values"); }
    [[nodiscard]] StrongPtr<Field> velocity() const { return blocks.field("velocity"); }
    [[nodiscard]] StrongPtr<Field> vertices() const { return LineSet(curves).positions(); }
    [[nodiscard]] StrongPtr<FragmentID> block(const char* name) const { return positions()->getFragmentID(name); }
};

inline void make(World& world) {
    for (int b = 0; b < kBlocks; ++b) {
        const auto block =
            support::makeBlock(kBent, {3, 3, 3}, {double(b) / kBlocks, 0, 0}, {double(b + 1) / kBlocks, 1, 1});
        world.add(std::string(1, static_cast<char>('A' + b)), block, support::linearOn(*block));
    }
    const StrongPtr<LineSet::Points> points =
        makeMemArray1D(std::vector<Point>{{0, 0, 0}, {3, 4, 0}, {3, 4, 2}, kBent.at(0.31, 0.4, 0.7)});
    const StrongPtr<MemArray<1, std::vector<index_t>>> lines =
        makeMemArray1D(std::vector<std::vector<index_t>>{{0, 1, 2, 3}, {3, 1}});
    (void)LineSet(world.curves, points, lines);
    const auto mask = MemArray<3, unsigned char>::create({3, 3, 3});
    for (index_t n = 0; n < mask->nElements(); ++n) mask->element(n) = n != 13;
    world.blocks.setField(VertexMaskName, mask, world.block("A"));
    world.triangles = makeMemArray1D(std::vector<Triangle>{{0, 1, 2}, {2, 1, 3}, {3, 1, 0}, {0, 2, 4}});
    world.edges = makeMemArray1D(std::vector<Edge>{{0, 1}, {1, 2}, {2, 3}, {1, 3}, {0, 4}, {3, 4}});
}

/// The data of a field, as an array of this class; points and vectors in double precision.
template<class Array>
StrongPtr<Array> arrayOf(const Field& field, const StrongPtr<FragmentID>& id = {}) {
    return Hestra::dynamicCast<Array>(getDataInDoublePrecision(field, id));
}

/// The same world of new arrays, fields and grids, of which nothing has been kept. `like(array)` gives the arrays.
template<class Like>
void rebuild(World& to, const World& from, const Like& like) {
    from.positions()->iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (creator)
            to.add(id->name(), like(*arrayOf<Block>(*from.positions(), id)),
                   like(*arrayOf<MemArray<3, double>>(*from.values(), id)),
                   like(*arrayOf<MemArray<3, Vector>>(*from.velocity(), id)));
        else
            to.positions()->makeFragmentID(id->name());
        return true;
    });
    for (const char* const name : {VertexMaskName, CellMaskName})
        if (const StrongPtr<Field> mask = from.blocks.field(name))
            mask->iterate(
                [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
                    to.blocks.setField(name, like(*arrayOf<MemArray<3, unsigned char>>(*mask, id)),
                                       to.block(id->name().c_str()));
                    return true;
                },
                false);
    const LineSet lines(from.curves);
    const auto points = arrayOf<MemArray<1, Point>>(*lines.positions());
    const auto curves = arrayOf<MemArray<1, std::vector<index_t>>>(*lines.curves());
    const LineSet made(to.curves, points, curves);
    made.positions()->setPersistentData(like(*points));
    made.curves()->setPersistentData(like(*curves));
    const StrongPtr<MemBase> triangles = like(*from.triangles), edges = like(*from.edges);
    to.triangles = Hestra::dynamicCast<MemArray<1, Triangle>>(triangles);
    to.edges = Hestra::dynamicCast<MemArray<1, Edge>>(edges);
}

// --------------------------------------------------------------------------------------------------------------- kinds

using Answer = std::ostringstream;

inline void print(Answer& answer, const StrongPtr<BoundingBox>& box) {
    if (box)
        answer << box->minCoord() << box->maxCoord() << "\n";
    else
        answer << "no box\n";
}

inline void print(Answer& answer, const StrongPtr<MemBase>& array) {
    if (!array) return;
    const bool isListed = withTypedArray(TypeList<double, Point, Vector, Orvix::Quadratic<3, double>>(), array,
                                         [&]<class T>(const TypedArray<T>& typed) {
                                             for (index_t n = 0; n < typed.nElements(); ++n)
                                                 for (int c = 0; c < ElementTraits<T>::components; ++c)
                                                     answer << elementComponent(typed.element(n), c) << " ";
                                         });
    for (index_t n = 0; n < array->nElements() && !isListed; ++n) answer << array->getElementAsString(n) << " ";
    answer << "\n";
}

/// All but a fragment that was added: what is derived lazily has the fragments of its making.
inline void printDerived(Answer& answer, const Field& field) {
    field.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (id->name() == kAdded || !creator) return true;
        if (const StrongPtr<MemBase> data = creator->create()) {
            answer << id->name() << std::to_string(data->nElements()) << getSize(*creator).rank() << " ";
            print(answer, data);
        }
        return true;
    });
}

inline void printFragments(Answer& answer, const StrongPtr<Grid>& grid) {
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

inline void printEvaluated(Answer& answer, World& world, const char* field) {
    const auto lattice = world.slice->newGrid("lattice");
    RegularGrid3D(lattice).addBlock(
        "old", Hestra::makeRef<UniformCartesianArray>(BoundingBox({0, 0, 0}, {18, 1, 1}), MultiIndex<3>(30, 3, 3)));
    RegularGrid3D(lattice).addBlock("new", Hestra::makeRef<UniformCartesianArray>(
                                               BoundingBox({100, 50, 0}, {118, 51, 1}), MultiIndex<3>(30, 3, 3)));
    const auto result = EvalGrid(*lattice, *world.grid, field, *world.slice, "", false);
    ASSERT_TRUE(result);
    for (const char* const name : {"old", "new"}) print(answer, result->getData(result->getFragmentID(name)));
}

struct Kind {
    const char* name;
    void (*compute)(Answer&, World&);
};
inline void PrintTo(const Kind& kind, std::ostream* to) { *to << kind.name; }

/// What is kept and follows changes of positions and values.
inline const Kind kKinds[] = {
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
    {"Evaluation", [](Answer& answer, World& world) { printEvaluated(answer, world, "values"); }},
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

/// What comes from single arrays, and from vectors.
inline const Kind kOtherKinds[] = {
    {"SurfaceOfArrays",
     [](Answer& answer, World& world) {
         const auto id = world.block("B");
         const auto block = arrayOf<Block>(*world.positions(), id);
         const auto surface =
             ComputeIsosurface<double>(3.0, *arrayOf<MemArray<3, double>>(*world.values(), id), *block, 0.0);
         print(answer, StrongPtr<MemBase>(surface.first));
         print(answer, StrongPtr<MemBase>(surface.second));
     }},
    {"CellSearch",
     [](Answer& answer, World& world) {
         const CellSearch search(world.positions(), getBoundingBox(world.positions()), {20, 2, 2}, 99, nullptr);
         for (int b = 0; b < kBlocks; ++b) {
             const auto found = search.findLocation(kBent.at((b + 0.3) / kBlocks, 0.4, 0.7), world.positions());
             answer << found.found << found.fragment << to_string(found.cell) << found.local << "\n";
         }
     }},
    {"Derivatives",
     [](Answer& answer, World& world) {
         for (const auto& field : {world.positions(), world.velocity(), world.values()})
             field->iterate([&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                 std::string errors;
                 const auto derivative = PartialDerivative(creator, errors);
                 print(answer, derivative ? derivative->getData() : nullptr);
                 answer << errors;
                 return true;
             });
     }},
    {"EvaluatedVectors", [](Answer& answer, World& world) { printEvaluated(answer, world, "velocity"); }},
    {"EvaluatedOnCurves",
     [](Answer& answer, World& world) {
         const auto result = EvalGrid(*world.curves, *world.grid, "values", *world.slice, "", true);
         ASSERT_TRUE(result);
         print(answer, result->getData());
     }},
    {"UniformInterpolation",
     [](Answer& answer, World& world) {
         const auto id = world.block("B");
         const UniformCartesianArray lattice(BoundingBox({0, 0, 0}, {2, 2, 2}), {3, 3, 3});
         StrongPtr<Hestra::ChunkBase> out;
         for (const auto& field : {world.values(), world.velocity()}) {
             EXPECT_TRUE(
                 InterpolateUniformData(out, {{0.25, 1.5, 0.7}, {1, 1, 1}, {9, 0, 0.1}}, lattice, field->getData(id)));
             print(answer, MemBase::findAllocator(out->element_type())->create(DynamicSize(3), out, {}));
         }
     }},
    {"ValidData",
     [](Answer& answer, World& world) {
         print(answer, getValidBoundingBox(*world.grid));
         const auto range = ComputeValidRange(*world.grid, "values");
         answer << range->first << " " << range->second;
     }},
    {"RefinementTables",
     [](Answer& answer, World& world) {
         const auto edgeToFaces = MemArray<1, Edge>::create(world.edges->Size());
         GenerateEdge2FacesTable(*edgeToFaces, *world.triangles, *world.edges, 4, 6);
         print(answer, edgeToFaces.strong());
     }},
};

/// The text of what a family answers: equal when all numbers are, to the last bit.
inline std::string answerOf(const Kind& kind, World& world) {
    Answer text;
    text << std::hexfloat;
    kind.compute(text, world);
    return text.str();
}

} // namespace support::families
