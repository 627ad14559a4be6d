#include <baseop/TangentialVectors.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <cmath>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

using Self = TangentialVectorsAndCurveParameter;

namespace {

constexpr const char* Source = "baseop/TangentialVectors";

/// Whether all indices are less than `count`, which is less than 2^63: otherwise an index, or its distance to the last
/// valid one, has the highest bit. Without comparisons, for the sake of vector lanes.
template<class Index>
bool allBelow(const std::vector<Index>& indices, index_t count) noexcept {
    index_t bits = 0;
    for (const Index index : indices) bits |= index_t{index} | (count - 1 - index_t{index});
    return count > 0 && bits >> 63 == 0;
}

/// Segments that are worked on at a time.
constexpr std::size_t Block = 128;

/// Lengths of `count` vectors and their reciprocals, to the bit as by `length`. Here vector lanes take several at once:
/// the divisions are what the whole computation waits for.
void lengthsOf(const double* x, const double* y, const double* z, std::size_t count, double* __restrict size,
               double* __restrict reciprocal) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        const double ax = std::fabs(x[i]), ay = std::fabs(y[i]), az = std::fabs(z[i]);
        const double axy = ax > ay ? ax : ay;
        const double m = axy > az ? axy : az;
        const double qx = x[i] / m, qy = y[i] / m, qz = z[i] / m;
        const double scaled = m * std::sqrt(qx * qx + qy * qy + qz * qz);
        // Not m: that is 0 for (NaN, 0, 0) as well.
        const double sum = ax + ay + az;
        size[i] = sum == 0.0 ? 0.0 : scaled;
        reciprocal[i] = 1.0 / size[i];
    }
}

/// Tangents and parameters along one curve, whose indices are valid. Returns its length.
template<class Index>
double follow(const std::vector<Index>& curve, const PhysicalSpace::point* points, PhysicalSpace::vector* tangents,
              double* parameters) noexcept {
    double x[Block], y[Block], z[Block], size[Block], reciprocal[Block];
    PhysicalSpace::point previous = points[curve[0]];
    double s = 0.0;
    parameters[curve[0]] = s;
    for (std::size_t begin = 1; begin < curve.size(); begin += Block) {
        const std::size_t count = std::min(Block, curve.size() - begin);
        for (std::size_t i = 0; i < count; ++i) {
            const PhysicalSpace::point here = points[curve[begin + i]];
            x[i] = here[0] - previous[0];
            y[i] = here[1] - previous[1];
            z[i] = here[2] - previous[2];
            previous = here;
        }
        lengthsOf(x, y, z, count, size, reciprocal);
        // Without length a tangent is not finite, on purpose: there is no direction.
        if (begin == 1)
            tangents[curve[0]] =
                PhysicalSpace::vector(x[0] * reciprocal[0], y[0] * reciprocal[0], z[0] * reciprocal[0]);
        for (std::size_t i = 0; i < count; ++i) {
            const Index at = curve[begin + i];
            s += size[i];
            tangents[at] = PhysicalSpace::vector(x[i] * reciprocal[i], y[i] * reciprocal[i], z[i] * reciprocal[i]);
            parameters[at] = s;
        }
    }
    return s;
}

} // namespace

Self::Exception::~Exception() = default;
Self::NoVertices::~NoVertices() = default;
Self::NoVertexField::~NoVertexField() = default;
Self::NoVertexFieldCreator::~NoVertexFieldCreator() = default;
Self::NoVertexFieldData::~NoVertexFieldData() = default;
Self::NoEdges::~NoEdges() = default;
Self::NoEdgesAsVertices::~NoEdgesAsVertices() = default;
Self::NoEdgePositions::~NoEdgePositions() = default;

const char* Self::Exception::what() const noexcept { return "no grid of curves"; }
const char* Self::NoVertices::what() const noexcept { return "grid of curves: no vertices"; }
const char* Self::NoVertexField::what() const noexcept { return "grid of curves: no vertex field"; }
const char* Self::NoVertexFieldCreator::what() const noexcept { return "grid of curves: vertex field without creator"; }
const char* Self::NoVertexFieldData::what() const noexcept { return "grid of curves: no points in the vertex field"; }
const char* Self::NoEdges::what() const noexcept { return "grid of curves: no edges"; }
const char* Self::NoEdgesAsVertices::what() const noexcept { return "grid of curves: edges not given by vertices"; }
const char* Self::NoEdgePositions::what() const noexcept { return "grid of curves: no index lists of the edges"; }

template<class Index>
void Self::computeAlong(const Points& points, const MemArray<1, std::vector<Index>>& curves,
                        const WeakPtr<CreativeArrayBase>& creator) {
    const Hestra::Profiler scope(Source, __LINE__, "TangentialVectorsAndCurveParameter::compute(points, curves)",
                                 __PRETTY_FUNCTION__);
    myTangents = Tangents::create(points.Size(), creator);
    myParameters = Parameters::create(points.Size(), creator);
    myMaximalLength = 0.0;
    const index_t count = points.nElements();
    // Points of a slice or the like may lie apart.
    const auto packed = points.stride() == 1 ? nullptr : StrongPtr<Points>(points.copy());
    const PhysicalSpace::point* const coordinates = packed ? packed->data() : points.data();
    for (index_t c = 0; c < curves.nElements(); ++c) {
        const std::vector<Index>& curve = curves(c);
        if (curve.size() < 2 || !allBelow(curve, count)) continue;
        const double size = follow(curve, coordinates, myTangents->data(), myParameters->data());
        if (size > myMaximalLength) myMaximalLength = size;
    }
}

void Self::compute(const Points& points, const Curves& curves, const WeakPtr<CreativeArrayBase>& creator) {
    computeAlong(points, curves, creator);
}
void Self::compute(const Points& points, const ShortCurves& curves, const WeakPtr<CreativeArrayBase>& creator) {
    computeAlong(points, curves, creator);
}

namespace {

/// Beside what is kept: the vertex field and the curves that it was computed from.
using CurveRecord = Hestra::FreshnessRecord<Field>;

/// Whether what this field keeps is still what vertices and curves give.
bool isCurrent(const StrongPtr<Field>& kept, const Field* vertices, const Field* curves) {
    if (!kept || !CurveRecord::isFresh(*kept, kept, vertices, curves)) return false;
    return Hestra::Freshness::isFresh(kept->age(), std::max(vertices->age(), curves ? curves->age() : 0));
}

/// The name of what is kept of a vertex field.
std::string keptName(const char* plain, const std::string& vertexField) {
    return vertexField == PositionsName ? plain : plain + ("." + vertexField);
}

} // namespace

bool Self::useCached(const StrongPtr<Field>& tangentField, const StrongPtr<Field>& parameterField,
                     const Field& vertices, const StrongPtr<Field>& curves) {
    if (!tangentField && !parameterField) {
        Hestra::Console::puts("Nooo.........valid tangential fields found.");
        return false;
    }
    if (isCurrent(tangentField, &vertices, curves.rawptr()) && isCurrent(parameterField, &vertices, curves.rawptr())) {
        const StrongPtr<CreativeArrayBase> creator = tangentField->getCreator(nullptr);
        const auto maximum = creator ? creator->getTypedAttribute<double>(MaximalLengthName) : nullptr;
        const auto tangents = Hestra::dynamicCast<Tangents>(tangentField->getData());
        const auto parameters = Hestra::dynamicCast<Parameters>(parameterField->getData());
        if (maximum && maximum->elements() > 0 && tangents && parameters) {
            Hestra::Console::puts("Yay, have tangential vectors, curves, and maxlen, nothing to be done.");
            myTangents = tangents;
            myParameters = parameters;
            myMaximalLength = maximum->base_vector()[0];
            return true;
        }
    }
    Hestra::Console::puts(
        "Noooo... field exist, but no maxlen attribute, or valid tangential vectors or curve parameters.");
    return false;
}

Self::TangentialVectorsAndCurveParameter(Grid& grid, const std::string& fieldName, const std::string& chart) {
    const Hestra::Profiler scope(Source, __LINE__, "TangentialVectorsAndCurveParameter(grid)", __PRETTY_FUNCTION__);
    const StrongPtr<Skeleton> vertices = grid.findVertices();
    if (!vertices) throw NoVertices();
    const std::string vertexField = fieldName.empty() ? PositionsName : fieldName;
    const StrongPtr<Representation> representation =
        grid.getCartesianRepresentation(*vertices, grid.findCartesianChart(chart) ? chart : std::string());
    const StrongPtr<Field> field = representation ? representation->findField(vertexField) : Field::NullPtrField();
    if (!field) throw NoVertexField();

    const StrongPtr<Skeleton> edges = grid.getSkeleton(SkeletonID(1, 1));
    const auto edgesAsVertices = edges ? edges->findRepresentation(*vertices) : StrongPtr<Representation>();
    const StrongPtr<Field> edgePositions = edgesAsVertices ? edgesAsVertices->Positions() : Field::NullPtrField();
    const std::string tangentsName = keptName(TangentsName, vertexField);
    const std::string parameterName = keptName(ParameterName, vertexField);
    const Hestra::Freshness origin(field.rawptr(), edgePositions.rawptr());
    if (useCached(representation->findField(tangentsName), representation->findField(parameterName), *field,
                  edgePositions))
        return;

    const StrongPtr<CreativeArrayBase> creator = field->getCreator(nullptr);
    if (!creator) throw NoVertexFieldCreator();
    const StrongPtr<MemBase> data = getDataInDoublePrecision(*creator);
    const auto points = Hestra::dynamicCast<Points>(data);
    if (!points) throw NoVertexFieldData();
    if (!edges) throw NoEdges();
    if (!edgesAsVertices) throw NoEdgesAsVertices();
    const StrongPtr<MemBase> lists = edgePositions ? edgePositions->getData() : nullptr;
    const auto curves = Hestra::dynamicCast<Curves>(lists);
    const auto shortCurves = Hestra::dynamicCast<ShortCurves>(lists);
    if (!curves && !shortCurves) throw NoEdgePositions();

    const std::string message = std::string(Source) + " Compute Tangential Vectors";
    Hestra::Console::puts(message);
    if (curves)
        compute(*points, *curves, creator);
    else
        compute(*points, *shortCurves, creator);
    Hestra::Console::puts(message + " DONE");

    const auto store = [&](const std::string& name, const StrongPtr<MemBase>& result) {
        const auto made = Hestra::makeRef<Field>();
        const StrongPtr<CreativeArrayBase> holder = made->setPersistentData(result, nullptr, nullptr, Source);
        CurveRecord::attach(*made, made, origin);
        representation->setField(name, made);
        return holder;
    };
    const auto holder = store(tangentsName, myTangents);
    holder->setAttribute(MaximalLengthName, StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<double>{myMaximalLength}));
    store(parameterName, myParameters);
}

StrongPtr<Self::Tangents> getTangentialVectors(Grid& grid, const std::string& vertexField) {
    return Self(grid, vertexField).tangents();
}

} // namespace Vantle
