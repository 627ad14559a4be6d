#include <baseop/TangentialVectors.hpp>
#include <baseop/detail/GrowingArray.hpp>
#include <baseop/detail/LaneKernels.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <limits>
#include <mutex>
#include <utility>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

using Self = TangentialVectorsAndCurveParameter;

namespace {

constexpr const char* Source = "baseop/TangentialVectors";

/// Segments that are worked on at a time: their divisions and roots are what the whole computation waits for.
constexpr std::size_t Block = 128;
static_assert(Block % detail::MostLanes == 0);

/// Points that are asked for before they are needed. While lengths are found, memory would be idle.
constexpr std::size_t Ahead = 128;

/// Indices of the curves that a thread takes at a time: their results are filled while they are in cache.
constexpr std::size_t Piece = 4096;

/// What one index costs, in bytes that are read in that time.
constexpr std::size_t BytesPerIndex = 64;

/// Whether a curve has a segment, and no index that is not less than `count`, which is less than 2^63: such an index,
/// or its distance to the last valid one, has the highest bit. Without comparisons, for the sake of vector lanes.
template<class Index>
bool isUsable(const std::vector<Index>& curve, index_t count) noexcept {
    index_t bits = 0;
    for (const Index index : curve) bits |= index_t{index} | (count - 1 - index_t{index});
    return curve.size() > 1 && count > 0 && bits >> 63 == 0;
}

/// Results of all points, made as far as they are reached.
struct Results {
    Results(index_t points, bool withTangents) : tangents(withTangents ? points : 0), parameters(points) {}
    detail::GrowingArray<PhysicalSpace::vector> tangents;
    detail::GrowingArray<double> parameters;
    double maximalLength = 0.0;
};

/// Parameters, and tangents where they are wanted, along one curve. Returns its length: 0 if it is not usable.
template<bool WithTangents, class Index>
double follow(const std::vector<Index>& curve, const PhysicalSpace::point* points, index_t pointCount,
              Results& results) {
    // A single block is checked while it is gathered, before anything is written.
    if (curve.size() < 2 || pointCount == 0 || (curve.size() > Block + 1 && !isUsable(curve, pointCount))) return 0.0;
    const auto last = static_cast<Index>(std::min(pointCount - 1, index_t{std::numeric_limits<Index>::max()}));
    double x[Block], y[Block], z[Block], size[Block], reciprocal[Block];
    PhysicalSpace::point previous = points[std::min(curve[0], last)];
    Index greatest = curve[0];
    double s = 0.0;
    for (std::size_t begin = 1; begin < curve.size(); begin += Block) {
        const Index* const at = curve.data() + begin;
        const std::size_t count = std::min(Block, curve.size() - begin);
        for (std::size_t i = 0; i < count; ++i) {
            greatest = std::max(greatest, at[i]);
            const PhysicalSpace::point* const from = points + std::min(at[i], last);
            __builtin_prefetch(from + Ahead); // where the next curve, as a rule, has vertices
            const PhysicalSpace::point here = *from;
            x[i] = here[0] - previous[0];
            y[i] = here[1] - previous[1];
            z[i] = here[2] - previous[2];
            previous = here;
        }
        if (greatest > last) return 0.0;
        for (std::size_t i = count; i % detail::MostLanes != 0; ++i) x[i] = y[i] = z[i] = 0.0;
        double* const parameters = results.parameters.upTo(index_t{greatest} + 1);
        if (begin == 1) parameters[curve[0]] = s;
        if constexpr (WithTangents) {
            detail::lengthsOf(x, y, z, count, size, reciprocal);
            const auto tangent = [&](std::size_t i) {
                return PhysicalSpace::vector(x[i] * reciprocal[i], y[i] * reciprocal[i], z[i] * reciprocal[i]);
            };
            // Without length a tangent is not finite, on purpose: there is no direction.
            PhysicalSpace::vector* const tangents = results.tangents.upTo(index_t{greatest} + 1);
            if (begin == 1) tangents[curve[0]] = tangent(0);
            for (std::size_t i = 0; i < count; ++i) {
                tangents[at[i]] = tangent(i);
                parameters[at[i]] = s += size[i];
            }
        } else {
            detail::lengthsOf(x, y, z, count, size);
            for (std::size_t i = 0; i < count; ++i) parameters[at[i]] = s += size[i];
        }
    }
    return s;
}

/// The curves, cut into pieces of about as many indices each. Pieces may be worked on at once if none has a vertex that
/// is not beyond all vertices of the pieces before: then no vertex is in two, and the last curve of a vertex is known.
template<class Index>
class Pieces {
public:
    Pieces(const MemArray<1, std::vector<Index>>& curves, index_t points) : myBegins{0} {
        std::size_t indices = 0, all = 0;
        for (index_t c = 0; c < curves.nElements(); ++c) {
            indices += curves(c).size();
            if (indices < Piece) continue;
            myBegins.push_back(c + 1);
            all += std::exchange(indices, 0);
        }
        if (myBegins.back() < curves.nElements()) myBegins.push_back(curves.nElements());
        const std::size_t bytes = (all + indices) * BytesPerIndex;
        if (detail::teamFor(bytes) == 1) return;

        struct Range {
            Index least = std::numeric_limits<Index>::max(), greatest = 0;
            bool isEmpty = true;
        };
        std::vector<Range> ranges(count());
        detail::inParallel(count(), 1, bytes / 4, [&](std::size_t piece, std::size_t) {
            Range range;
            for (index_t c = myBegins[piece]; c < myBegins[piece + 1]; ++c) {
                const std::vector<Index>& curve = curves(c);
                if (!isUsable(curve, points)) continue;
                // Nearly always vertices follow each other.
                Index steps = 0;
                for (std::size_t i = 0; i < curve.size(); ++i)
                    steps |= static_cast<Index>(curve[i] - curve[0] - static_cast<Index>(i));
                const auto [least, greatest] = steps == 0 ? std::pair(curve.begin(), curve.end() - 1)
                                                          : std::minmax_element(curve.begin(), curve.end());
                range.least = std::min(range.least, *least);
                range.greatest = std::max(range.greatest, *greatest);
                range.isEmpty = false;
            }
            ranges[piece] = range;
        });
        index_t next = 0;
        for (const Range& range : ranges) {
            if (range.isEmpty) continue;
            if (range.least < next) return;
            next = index_t{range.greatest} + 1;
        }
        myBytes = bytes;
    }

    [[nodiscard]] std::size_t count() const noexcept { return myBegins.size() - 1; }
    [[nodiscard]] index_t begin(std::size_t piece) const noexcept { return myBegins[piece]; }
    /// How much work there is for a team: none if one thread has to do it all.
    [[nodiscard]] std::size_t bytes() const noexcept { return myBytes; }

private:
    std::vector<index_t> myBegins;
    std::size_t myBytes = 0;
};

template<bool WithTangents, class Index>
void followAll(Results& results, const MemArray<1, PhysicalSpace::point>& points,
               const MemArray<1, std::vector<Index>>& curves) {
    using Points = MemArray<1, PhysicalSpace::point>;
    const index_t count = points.nElements();
    // Points of a slice or the like may lie apart.
    const auto packed = points.stride() == 1 ? nullptr : StrongPtr<Points>(points.copy());
    const PhysicalSpace::point* const coordinates = packed ? packed->data() : points.data();
    const Pieces<Index> pieces(curves, count);
    std::mutex mutex;
    detail::inParallel(pieces.count(), 1, pieces.bytes(), [&](std::size_t piece, std::size_t) {
        double longest = 0.0;
        for (index_t c = pieces.begin(piece); c < pieces.begin(piece + 1); ++c) {
            const double size = follow<WithTangents>(curves(c), coordinates, count, results);
            if (size > longest) longest = size;
        }
        const std::lock_guard lock(mutex);
        if (longest > results.maximalLength) results.maximalLength = longest;
    });
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
    Results results(points.nElements(), true);
    followAll<true>(results, points, curves);
    myTangents = Tangents::makeMemArray(results.tangents.complete(), points.Size(), creator);
    myParameters = Parameters::makeMemArray(results.parameters.complete(), points.Size(), creator);
    myMaximalLength = results.maximalLength;
}

void Self::compute(const Points& points, const Curves& curves, const WeakPtr<CreativeArrayBase>& creator) {
    computeAlong(points, curves, creator);
}
void Self::compute(const Points& points, const ShortCurves& curves, const WeakPtr<CreativeArrayBase>& creator) {
    computeAlong(points, curves, creator);
}

namespace {

template<class Index>
ArcLengths arcLengths(const Self::Points& points, const MemArray<1, std::vector<Index>>& curves,
                      const WeakPtr<CreativeArrayBase>& creator) {
    const Hestra::Profiler scope(Source, __LINE__, "ComputeArcLengths(points, curves)", __PRETTY_FUNCTION__);
    Results results(points.nElements(), false);
    followAll<false>(results, points, curves);
    return {Self::Parameters::makeMemArray(results.parameters.complete(), points.Size(), creator),
            results.maximalLength};
}

} // namespace

ArcLengths ComputeArcLengths(const Self::Points& points, const Self::Curves& curves,
                             const WeakPtr<CreativeArrayBase>& creator) {
    return arcLengths(points, curves, creator);
}
ArcLengths ComputeArcLengths(const Self::Points& points, const Self::ShortCurves& curves,
                             const WeakPtr<CreativeArrayBase>& creator) {
    return arcLengths(points, curves, creator);
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

namespace {

/// The parts of a grid of curves, as far as they are there.
struct CurveGrid {
    StrongPtr<Representation> vertices, edgesAsVertices;
    StrongPtr<Skeleton> edges;
    StrongPtr<Field> field, edgePositions;
    std::string tangentsName, parameterName;

    CurveGrid(Grid& grid, const std::string& fieldName, const std::string& chart) {
        const StrongPtr<Skeleton> skeleton = grid.findVertices();
        if (!skeleton) throw Self::NoVertices();
        const std::string vertexField = fieldName.empty() ? PositionsName : fieldName;
        vertices = grid.getCartesianRepresentation(*skeleton, grid.findCartesianChart(chart) ? chart : std::string());
        field = vertices ? vertices->findField(vertexField) : Field::NullPtrField();
        if (!field) throw Self::NoVertexField();
        edges = grid.getSkeleton(SkeletonID(1, 1));
        edgesAsVertices = edges ? edges->findRepresentation(*skeleton) : StrongPtr<Representation>();
        edgePositions = edgesAsVertices ? edgesAsVertices->Positions() : Field::NullPtrField();
        tangentsName = keptName(Self::TangentsName, vertexField);
        parameterName = keptName(Self::ParameterName, vertexField);
    }

    /// Calls `compute(points, curves, creator)` with the data; throws where some are missing.
    template<class F>
    auto with(const F& compute) const {
        const StrongPtr<CreativeArrayBase> creator = field->getCreator(nullptr);
        if (!creator) throw Self::NoVertexFieldCreator();
        const StrongPtr<MemBase> data = getDataInDoublePrecision(*creator);
        const auto points = Hestra::dynamicCast<Self::Points>(data);
        if (!points) throw Self::NoVertexFieldData();
        if (!edges) throw Self::NoEdges();
        if (!edgesAsVertices) throw Self::NoEdgesAsVertices();
        const StrongPtr<MemBase> lists = edgePositions ? edgePositions->getData() : nullptr;
        if (const auto curves = Hestra::dynamicCast<Self::Curves>(lists)) return compute(*points, *curves, creator);
        const auto shortCurves = Hestra::dynamicCast<Self::ShortCurves>(lists);
        if (!shortCurves) throw Self::NoEdgePositions();
        return compute(*points, *shortCurves, creator);
    }

    /// Keeps a result beside the vertices, with the length of the longest curve.
    void keep(const std::string& name, const StrongPtr<MemBase>& result, double maximalLength,
              const Hestra::Freshness& origin) const {
        const auto made = Hestra::makeRef<Field>();
        const StrongPtr<CreativeArrayBase> holder = made->setPersistentData(result, nullptr, nullptr, Source);
        CurveRecord::attach(*made, made, origin);
        vertices->setField(name, made);
        holder->setAttribute(Self::MaximalLengthName,
                             StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<double>{maximalLength}));
    }

    /// The arc lengths that are kept, if they are current.
    [[nodiscard]] ArcLengths kept() const {
        const StrongPtr<Field> parameters = vertices->findField(parameterName);
        if (!isCurrent(parameters, field.rawptr(), edgePositions.rawptr())) return {};
        const StrongPtr<CreativeArrayBase> creator = parameters->getCreator(nullptr);
        const auto maximum = creator ? creator->getTypedAttribute<double>(Self::MaximalLengthName) : nullptr;
        if (!maximum || maximum->elements() == 0) return {};
        return {Hestra::dynamicCast<Self::Parameters>(parameters->getData()), maximum->base_vector()[0]};
    }
};

} // namespace

Self::TangentialVectorsAndCurveParameter(Grid& grid, const std::string& fieldName, const std::string& chart) {
    const Hestra::Profiler scope(Source, __LINE__, "TangentialVectorsAndCurveParameter(grid)", __PRETTY_FUNCTION__);
    const CurveGrid parts(grid, fieldName, chart);
    const Hestra::Freshness origin(parts.field.rawptr(), parts.edgePositions.rawptr());
    if (useCached(parts.vertices->findField(parts.tangentsName), parts.vertices->findField(parts.parameterName),
                  *parts.field, parts.edgePositions))
        return;

    parts.with([&](const auto& points, const auto& curves, const auto& creator) {
        const std::string message = std::string(Source) + " Compute Tangential Vectors";
        Hestra::Console::puts(message);
        compute(points, curves, creator);
        Hestra::Console::puts(message + " DONE");
    });
    parts.keep(parts.tangentsName, myTangents, myMaximalLength, origin);
    parts.keep(parts.parameterName, myParameters, myMaximalLength, origin);
}

ArcLengths getArcLengths(Grid& grid, const std::string& vertexField, const std::string& chart) {
    const Hestra::Profiler scope(Source, __LINE__, "getArcLengths(grid)", __PRETTY_FUNCTION__);
    const CurveGrid parts(grid, vertexField, chart);
    const Hestra::Freshness origin(parts.field.rawptr(), parts.edgePositions.rawptr());
    if (ArcLengths kept = parts.kept(); kept.parameters) return kept;
    const ArcLengths lengths = parts.with([](const auto& points, const auto& curves, const auto& creator) {
        return ComputeArcLengths(points, curves, creator);
    });
    parts.keep(parts.parameterName, lengths.parameters, lengths.maximalLength, origin);
    return lengths;
}

StrongPtr<Self::Tangents> getTangentialVectors(Grid& grid, const std::string& vertexField) {
    return Self(grid, vertexField).tangents();
}

} // namespace Vantle
