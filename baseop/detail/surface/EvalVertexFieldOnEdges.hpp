#pragma once
/// Evaluation of any quantity of the vertices of a grid on the edges that carry the vertices of a surface.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/MemArray.hpp>

#include <cstddef>
#include <vector>

namespace Vantle {

namespace detail {

/// An edge of a regular array: its lower vertex, and its axis.
struct GridEdge {
    MultiIndex<3> lower;
    int axis;
};

/// The edge with this number in an array of these extents; throws `int(-1)` when there is none.
[[nodiscard]] inline GridEdge findEdge(index_t number, const MultiIndex<3>& extents) {
    for (int axis = 0; axis < 3; ++axis) {
        MultiIndex<3> block = extents;
        block[axis] = extents[axis] > 0 ? extents[axis] - 1 : 0;
        const index_t edges = block.product();
        if (number < edges) return {MultiIndex<3>::fromLinear(number, block), axis};
        number -= edges;
    }
    throw int{-1};
}

} // namespace detail

template<class Array>
void EvalVertexFieldOnEdges(std::vector<typename Array::value_type>& out, const std::vector<index_t>& edgeIdentifiers,
                            const std::vector<double>& weights, const Array& array,
                            const MultiIndex<3>& vertexDimensions, const MultiIndex<3>& indexOffset, index_t first,
                            index_t identifierOffset) {
    using Value = typename Array::value_type;
    out.resize(edgeIdentifiers.size());
    for (std::size_t n = first; n < out.size(); ++n) {
        const detail::GridEdge edge = detail::findEdge(edgeIdentifiers[n] - identifierOffset, vertexDimensions);
        MultiIndex<3> vertex = edge.lower + indexOffset;
        const Value lower = array.getElement(vertex);
        ++vertex[edge.axis];
        const Value upper = array.getElement(vertex);
        out[n] = static_cast<Value>(lower + weights[n] * (upper - lower));
    }
}

extern template VANTLE_BASEOP_API void EvalVertexFieldOnEdges(std::vector<Orvix::PhysicalSpace::point>&,
                                                              const std::vector<index_t>&, const std::vector<double>&,
                                                              const MultiArray<3, Orvix::PhysicalSpace::point>&,
                                                              const MultiIndex<3>&, const MultiIndex<3>&, index_t,
                                                              index_t);
extern template VANTLE_BASEOP_API void EvalVertexFieldOnEdges(std::vector<Orvix::PhysicalSpace::point>&,
                                                              const std::vector<index_t>&, const std::vector<double>&,
                                                              const MemArray<3, Orvix::PhysicalSpace::point>&,
                                                              const MultiIndex<3>&, const MultiIndex<3>&, index_t,
                                                              index_t);
extern template VANTLE_BASEOP_API void
EvalVertexFieldOnEdges(std::vector<Orvix::PhysicalSpace::point>&, const std::vector<index_t>&,
                       const std::vector<double>&,
                       const DirectProductMemArray<Orvix::PhysicalSpace::point, LinearCoordinateAxisArray, 3>&,
                       const MultiIndex<3>&, const MultiIndex<3>&, index_t, index_t);

} // namespace Vantle
