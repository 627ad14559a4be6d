#pragma once
/// Tangents and arc lengths along the curves of a grid.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/Grid.hpp>
#include <model/vantle/MemArray.hpp>

#include <exception>
#include <string>
#include <vector>

namespace Vantle {

/// For every vertex on a curve of at least two vertices, the unit vector along the curve and the arc length from the
/// curve's first vertex; and the length of the longest curve.
///
/// A vertex has the direction of the segment that arrives at it, the first one that of the segment that leaves. Neither
/// is averaged, nor is the length scaled, on purpose. A vertex of several curves keeps what the last of them gave it,
/// as does the vertex where a closed curve returns to its beginning: the whole length, the last direction.
///
/// Units        lengths in world coordinates.
/// Degenerate   curves of no or one vertex, and curves with an index that is no vertex, are passed over as a whole;
///              what is on no other curve keeps zeros. A segment without length gives its end (and the beginning, if it
///              is the first one) a tangent of NaN, and adds nothing to the length.
/// Concurrency  one thread at a time for one grid; uses the OpenMP team of the caller's settings where the vertices of
///              curves are numbered one curve after the other, whatever lies between. The bits are the same.
/// Cost         two passes over the indices of each curve, one over its points; much less when results are cached.
class VANTLE_BASEOP_API TangentialVectorsAndCurveParameter {
public:
    using Points = MemArray<1, Orvix::PhysicalSpace::point>;
    using Tangents = MemArray<1, Orvix::PhysicalSpace::vector>;
    using Parameters = MemArray<1, double>;
    /// For each curve the indices of its vertices, in order.
    using Curves = MemArray<1, std::vector<index_t>>;
    using ShortCurves = MemArray<1, std::vector<unsigned int>>;

    /// Names under which results are cached beside the vertices: the fields, and an attribute of their creators. Those
    /// of another vertex field than "Positions" have its name after a dot, as in "length.name".
    static constexpr const char* TangentsName = "Tangents";
    static constexpr const char* ParameterName = "length";
    static constexpr const char* MaximalLengthName = "maxlen";

    /// What a grid lacks to be a grid of curves. They are looked for in the order in which they stand here.
    class VANTLE_BASEOP_API Exception : public std::exception {
    public:
        ~Exception() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The vertex skeleton.
    class VANTLE_BASEOP_API NoVertices : public Exception {
    public:
        ~NoVertices() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The field of the vertices.
    class VANTLE_BASEOP_API NoVertexField : public Exception {
    public:
        ~NoVertexField() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The creator of unfragmented data in that field.
    class VANTLE_BASEOP_API NoVertexFieldCreator : public Exception {
    public:
        ~NoVertexFieldCreator() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// Its data, points in an array of rank 1.
    class VANTLE_BASEOP_API NoVertexFieldData : public Exception {
    public:
        ~NoVertexFieldData() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The edge skeleton.
    class VANTLE_BASEOP_API NoEdges : public Exception {
    public:
        ~NoEdges() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The edges relative to the vertices.
    class VANTLE_BASEOP_API NoEdgesAsVertices : public Exception {
    public:
        ~NoEdgesAsVertices() override;
        [[nodiscard]] const char* what() const noexcept override;
    };
    /// The positions there: the index lists.
    class VANTLE_BASEOP_API NoEdgePositions : public Exception {
    public:
        ~NoEdgePositions() override;
        [[nodiscard]] const char* what() const noexcept override;
    };

    /// Nothing computed yet.
    TangentialVectorsAndCurveParameter() = default;
    /// Takes the results that are cached on the grid, or computes them and caches them there, saying which.
    ///
    /// They are cached, for each vertex field and chart, as fields of the vertices in that chart, and used as long as
    /// the field of the vertices and the curves are those that they were computed from, and not newer.
    /// @param vertexField  the field of the vertices' coordinates; "Positions" when empty.
    /// @param chart        the Cartesian chart that they are in; the default one where there is no chart of this name.
    /// Failure  the exceptions above; cached results need no data of vertices and curves.
    explicit TangentialVectorsAndCurveParameter(Grid& grid, const std::string& vertexField = PositionsName,
                                                const std::string& chart = {});
    /// The same; a null handle is a grid without vertices.
    explicit TangentialVectorsAndCurveParameter(const Hestra::StrongPtr<Grid>& grid,
                                                const std::string& vertexField = PositionsName,
                                                const std::string& chart = {})
        : TangentialVectorsAndCurveParameter(present<NoVertices>(grid), vertexField, chart) {}

    /// Makes and fills the two arrays, one element a point, that refer to `creator` as what made them.
    void compute(const Points& points, const Curves& curves, const Hestra::WeakPtr<CreativeArrayBase>& creator = {});
    void compute(const Points& points, const ShortCurves& curves,
                 const Hestra::WeakPtr<CreativeArrayBase>& creator = {});
    /// The same; throws `NoVertexFieldData` and `NoEdgePositions` for null handles, and leaves what was computed
    /// before.
    void compute(const Hestra::StrongPtr<Points>& points, const Hestra::StrongPtr<Curves>& curves,
                 const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
        compute(present<NoVertexFieldData>(points), present<NoEdgePositions>(curves), creator);
    }
    void compute(const Hestra::StrongPtr<Points>& points, const Hestra::StrongPtr<ShortCurves>& curves,
                 const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
        compute(present<NoVertexFieldData>(points), present<NoEdgePositions>(curves), creator);
    }

    /// Null before anything was computed.
    [[nodiscard]] const Hestra::StrongPtr<Tangents>& tangents() const noexcept { return myTangents; }
    [[nodiscard]] const Hestra::StrongPtr<Parameters>& curveParameters() const noexcept { return myParameters; }
    /// 0 when there is no curve of at least two vertices.
    [[nodiscard]] double maximalLength() const noexcept { return myMaximalLength; }

private:
    /// What the handle refers to; throws `Missing` when it is null.
    template<class Missing, class T>
    static T& present(const Hestra::StrongPtr<T>& handle) {
        if (!handle) throw Missing();
        return *handle;
    }
    [[nodiscard]] bool useCached(const Hestra::StrongPtr<Field>& tangentField,
                                 const Hestra::StrongPtr<Field>& parameterField, const Field& vertices,
                                 const Hestra::StrongPtr<Field>& curves);
    template<class Index>
    void computeAlong(const Points& points, const MemArray<1, std::vector<Index>>& curves,
                      const Hestra::WeakPtr<CreativeArrayBase>& creator);

    Hestra::StrongPtr<Tangents> myTangents;
    Hestra::StrongPtr<Parameters> myParameters;
    double myMaximalLength = 0.0;
};

/// The tangents of a grid of curves, cached as by the class, with its exceptions and messages.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<TangentialVectorsAndCurveParameter::Tangents>
getTangentialVectors(Grid& grid, const std::string& vertexField = PositionsName);
[[nodiscard]] inline Hestra::StrongPtr<TangentialVectorsAndCurveParameter::Tangents>
getTangentialVectors(const Hestra::StrongPtr<Grid>& grid, const std::string& vertexField = PositionsName) {
    return TangentialVectorsAndCurveParameter(grid, vertexField).tangents();
}

/// The tangents of curves through points, all four as `compute` of the class takes them; nothing is cached.
template<class Points, class Curves>
requires requires(TangentialVectorsAndCurveParameter along, const Points& points, const Curves& curves) {
    along.compute(points, curves);
}
[[nodiscard]] Hestra::StrongPtr<TangentialVectorsAndCurveParameter::Tangents>
ComputeTangentialVectors(const Points& points, const Curves& curves,
                         const Hestra::WeakPtr<CreativeArrayBase>& creator = {}) {
    TangentialVectorsAndCurveParameter result;
    result.compute(points, curves, creator);
    return result.tangents();
}

/// Arc lengths along curves alone: `curveParameters()` and `maximalLength()` of the class, to the bit, for less than
/// half of the time and a quarter of the memory that they take with tangents.
struct ArcLengths {
    Hestra::StrongPtr<TangentialVectorsAndCurveParameter::Parameters> parameters;
    double maximalLength = 0.0;
};

/// The arc lengths along a grid of curves, taken from what is cached there, by the class or by this, or else computed
/// and cached, with the exceptions of the class. Says nothing. A grid that has these lengths, but no tangents, has a
/// part of the results for the class, which then computes both.
[[nodiscard]] VANTLE_BASEOP_API ArcLengths getArcLengths(Grid& grid, const std::string& vertexField = PositionsName,
                                                         const std::string& chart = {});
[[nodiscard]] inline ArcLengths getArcLengths(const Hestra::StrongPtr<Grid>& grid,
                                              const std::string& vertexField = PositionsName,
                                              const std::string& chart = {}) {
    if (!grid) throw TangentialVectorsAndCurveParameter::NoVertices();
    return getArcLengths(*grid, vertexField, chart);
}

/// The arc lengths along curves through points; nothing is cached.
[[nodiscard]] VANTLE_BASEOP_API ArcLengths ComputeArcLengths(const TangentialVectorsAndCurveParameter::Points& points,
                                                             const TangentialVectorsAndCurveParameter::Curves& curves,
                                                             const Hestra::WeakPtr<CreativeArrayBase>& creator = {});
[[nodiscard]] VANTLE_BASEOP_API ArcLengths
ComputeArcLengths(const TangentialVectorsAndCurveParameter::Points& points,
                  const TangentialVectorsAndCurveParameter::ShortCurves& curves,
                  const Hestra::WeakPtr<CreativeArrayBase>& creator = {});

} // namespace Vantle
