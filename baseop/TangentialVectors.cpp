#include <baseop/TangentialVectors.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

using Self = TangentialVectorsAndCurveParameter;

namespace {

constexpr const char* kSource = "baseop/TangentialVectors";

/// Tangents and parameters along one curve, whose indices are valid. Returns its length.
template<class Index>
double follow(const std::vector<Index>& curve, const PhysicalSpace::point* points, PhysicalSpace::vector* tangents,
              double* parameters) noexcept {
    PhysicalSpace::point previous = points[curve[0]];
    double s = 0.0;
    parameters[curve[0]] = s;
    for (std::size_t i = 1; i < curve.size(); ++i) {
        const Index at = curve[i];
        const PhysicalSpace::point here = points[at];
        const PhysicalSpace::vector step = here - previous;
        const double size = length(step);
        s += size;
        // Without length this is not finite, on purpose: there is no direction.
        const PhysicalSpace::vector tangent = step * (1.0 / size);
        if (i == 1) tangents[curve[0]] = tangent;
        tangents[at] = tangent;
        parameters[at] = s;
        previous = here;
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
    const Hestra::Profiler scope(kSource, __LINE__, "TangentialVectorsAndCurveParameter::compute(points, curves)",
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
        Index largest = 0;
        for (const Index vertex : curve) largest = std::max(largest, vertex);
        if (curve.size() < 2 || largest >= count) continue;
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

bool Self::useCached(const Representation& vertices, Hestra::Ageable::age_t age) {
    const StrongPtr<Field> tangentField = vertices.findField(kTangentsName);
    const StrongPtr<Field> parameterField = vertices.findField(kParameterName);
    if (!tangentField && !parameterField) {
        Hestra::Console::puts("Nooo.........valid tangential fields found.");
        return false;
    }
    if (tangentField && parameterField && tangentField->age() >= age && parameterField->age() >= age) {
        const StrongPtr<CreativeArrayBase> creator = tangentField->getCreator(nullptr);
        const auto maximum = creator ? creator->getTypedAttribute<double>(kMaximalLengthName) : nullptr;
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

Self::TangentialVectorsAndCurveParameter(Grid& grid, const std::string& vertexField, const std::string& chart) {
    const Hestra::Profiler scope(kSource, __LINE__, "TangentialVectorsAndCurveParameter(grid)", __PRETTY_FUNCTION__);
    const StrongPtr<Skeleton> vertices = grid.findVertices();
    if (!vertices) throw NoVertices();
    const StrongPtr<Representation> representation = grid.getCartesianRepresentation(*vertices, chart);
    const StrongPtr<Field> field = representation ? representation->findField(vertexField) : Field::NullPtrField();
    if (!field) throw NoVertexField();

    const StrongPtr<Skeleton> edges = grid.getSkeleton(SkeletonID(1, 1));
    const auto edgesAsVertices = edges ? edges->findRepresentation(*vertices) : StrongPtr<Representation>();
    const StrongPtr<Field> edgePositions = edgesAsVertices ? edgesAsVertices->Positions() : Field::NullPtrField();
    if (useCached(*representation, std::max(field->age(), edgePositions ? edgePositions->age() : field->age()))) return;

    const StrongPtr<CreativeArrayBase> creator = field->getCreator(nullptr);
    if (!creator) throw NoVertexFieldCreator();
    const StrongPtr<MemBase> data = creator->create(false);
    const auto points = Hestra::dynamicCast<Points>(data);
    if (!points) throw NoVertexFieldData();
    if (!edges) throw NoEdges();
    if (!edgesAsVertices) throw NoEdgesAsVertices();
    const StrongPtr<MemBase> lists = edgePositions ? edgePositions->getData() : nullptr;
    const auto curves = Hestra::dynamicCast<Curves>(lists);
    const auto shortCurves = Hestra::dynamicCast<ShortCurves>(lists);
    if (!curves && !shortCurves) throw NoEdgePositions();

    const std::string message = std::string(kSource) + " Compute Tangential Vectors";
    Hestra::Console::puts(message);
    if (curves)
        compute(*points, *curves, creator);
    else
        compute(*points, *shortCurves, creator);
    Hestra::Console::puts(message + " DONE");

    const auto store = [&](const char* name, const StrongPtr<MemBase>& result) {
        const auto made = Hestra::makeRef<Field>();
        const StrongPtr<CreativeArrayBase> holder = made->setPersistentData(result, nullptr, nullptr, kSource);
        representation->setField(name, made);
        return holder;
    };
    const auto holder = store(kTangentsName, myTangents);
    holder->setAttribute(kMaximalLengthName, StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<double>{myMaximalLength}));
    store(kParameterName, myParameters);
}

StrongPtr<Self::Tangents> getTangentialVectors(Grid& grid, const std::string& vertexField) {
    return Self(grid, vertexField).tangents();
}

StrongPtr<Self::Tangents> ComputeTangentialVectors(const Self::Points& points, const Self::Curves& curves,
                                                   const WeakPtr<CreativeArrayBase>& creator) {
    Self result;
    result.compute(points, curves, creator);
    return result.tangents();
}

} // namespace Vantle
