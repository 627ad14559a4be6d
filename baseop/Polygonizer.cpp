#include <baseop/Isosurface.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>

namespace Vantle {

using Orvix::PhysicalSpace;

namespace RegularTopology {

template<int N>
index_t ComputeEdgeIDfromVertexAndOrientation(const MultiIndex<N>& vertex, int orientation,
                                              const MultiIndex<N>& vertexDimensions) {
    if (orientation < 0 || orientation >= N) throw index_t{0};
    index_t before = 0;
    for (int axis = 0;; ++axis) {
        MultiIndex<N> block = vertexDimensions;
        block[axis] = vertexDimensions[axis] > 0 ? vertexDimensions[axis] - 1 : 0;
        if (axis == orientation) return before + vertex.linear(block);
        before += block.product();
    }
}

template VANTLE_BASEOP_API index_t ComputeEdgeIDfromVertexAndOrientation(const MultiIndex<3>&, int,
                                                                         const MultiIndex<3>&);

} // namespace RegularTopology

template<class Array>
int Polygonize(std::vector<index_t>& edgeIdentifiers, std::vector<double>& weights,
               std::vector<TriangleCell>& triangles, std::map<index_t, index_t>& edgeMap,
               const FieldExplorer<Array>& explorer, const MultiIndex<3>& cell, double level,
               index_t identifierOffset) {
    const auto corner = [&cell](int c) {
        return cell + MultiIndex<3>(detail::CornerOffset[c][0], detail::CornerOffset[c][1], detail::CornerOffset[c][2]);
    };
    double values[8];
    unsigned int cubeCase = 0;
    for (int c = 0; c < 8; ++c) {
        values[c] = explorer(corner(c));
        if (level > values[c]) cubeCase |= 1U << c;
    }
    const int cutEdges = detail::edgeTable[cubeCase];
    if (cutEdges == 0) return 0;

    index_t identifiers[12];
    double edgeWeights[12];
    for (std::size_t e = 0; e < 12; ++e) {
        if (!((cutEdges >> e) & 1)) continue;
        const detail::EdgeGeometry& edge = detail::edgeGeometry[e];
        const auto& ends = EdgeVertices<Array>[e];
        identifiers[e] = identifierOffset + RegularTopology::ComputeEdgeIDfromVertexAndOrientation<3>(
                                                corner(edge.lower), edge.axis, explorer.Size());
        edgeWeights[e] = detail::edgeWeight(level, values[ends[0]], values[ends[1]], edge.reversed);
    }

    const auto vertexOn = [&](int e) {
        const auto [found, isNew] = edgeMap.try_emplace(identifiers[e], edgeIdentifiers.size());
        if (isNew) {
            edgeIdentifiers.push_back(identifiers[e]);
            weights.push_back(edgeWeights[e]);
        }
        return static_cast<unsigned int>(found->second);
    };
    const int(&row)[16] = detail::triTable[cubeCase];
    int added = 0;
    for (; row[3 * added] >= 0; ++added) {
        const unsigned int i = vertexOn(row[3 * added]);
        const unsigned int j = vertexOn(row[3 * added + 1]);
        const unsigned int k = vertexOn(row[3 * added + 2]);
        triangles.emplace_back(i, j, k);
    }
    return added;
}

#define VANTLE_INSTANTIATE_POLYGONIZE(T)                                                                               \
    template VANTLE_BASEOP_API int Polygonize(std::vector<index_t>&, std::vector<double>&, std::vector<TriangleCell>&, \
                                              std::map<index_t, index_t>&, const FieldExplorer<MultiArray<3, T>>&,     \
                                              const MultiIndex<3>&, double, index_t);
VANTLE_INSTANTIATE_POLYGONIZE(double)
VANTLE_INSTANTIATE_POLYGONIZE(float)
VANTLE_INSTANTIATE_POLYGONIZE(unsigned char)
VANTLE_INSTANTIATE_POLYGONIZE(short)
VANTLE_INSTANTIATE_POLYGONIZE(unsigned short)
#undef VANTLE_INSTANTIATE_POLYGONIZE

template VANTLE_BASEOP_API void EvalVertexFieldOnEdges(std::vector<PhysicalSpace::point>&, const std::vector<index_t>&,
                                                       const std::vector<double>&,
                                                       const MultiArray<3, PhysicalSpace::point>&, const MultiIndex<3>&,
                                                       const MultiIndex<3>&, index_t, index_t);
template VANTLE_BASEOP_API void EvalVertexFieldOnEdges(std::vector<PhysicalSpace::point>&, const std::vector<index_t>&,
                                                       const std::vector<double>&,
                                                       const MemArray<3, PhysicalSpace::point>&, const MultiIndex<3>&,
                                                       const MultiIndex<3>&, index_t, index_t);
template VANTLE_BASEOP_API void
EvalVertexFieldOnEdges(std::vector<PhysicalSpace::point>&, const std::vector<index_t>&, const std::vector<double>&,
                       const DirectProductMemArray<PhysicalSpace::point, LinearCoordinateAxisArray, 3>&,
                       const MultiIndex<3>&, const MultiIndex<3>&, index_t, index_t);

PhysicalSpace::point VertexInterp(double level, const PhysicalSpace::point& p1, const PhysicalSpace::point& p2,
                                  double f1, double f2) {
    const double difference = f2 - f1;
    if (!(difference < 0.0) && !(difference > 0.0)) return p1;
    double mu = (level - f1) / difference;
    if (mu < 0.0) mu = 0.0;
    if (mu > 1.0) mu = 1.0;
    return p1 + mu * (p2 - p1);
}

void CheckPolygonizer() {}

} // namespace Vantle
