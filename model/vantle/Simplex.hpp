#pragma once
/// Cells named by the indices of their vertices: edges, triangles, tetrahedra.

#include <model/Forward.hpp>
#include <model/ModelExport.hpp>

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>

namespace Vantle {

/// The vertices of a cell are named i, j, k, ... in the order in which they are stored.
struct VANTLE_MODEL_API IJ_CellNamingConvention {
    [[nodiscard]] static constexpr char vertexName(int vertex) noexcept { return static_cast<char>('i' + vertex); }
};

/// A simplex of dimension `Dims`: the indices of its `Dims` + 1 vertices. Zero by default.
///
/// Two cells are equal when their indices are equal in order: orientation counts.
template<int Dims, class IndexType, class Convention>
class VANTLE_MODEL_API SimplexCell {
public:
    using value_type = IndexType;
    using naming_convention = Convention;
    static constexpr int dims = Dims;
    static constexpr int vertices = Dims + 1;

    constexpr SimplexCell() noexcept = default;
    template<std::convertible_to<IndexType>... I>
    requires(sizeof...(I) == Dims + 1) constexpr SimplexCell(I... indices) noexcept
        : myIndices{static_cast<IndexType>(indices)...} {}

    [[nodiscard]] constexpr IndexType& operator[](std::integral auto vertex) noexcept {
        return myIndices[static_cast<std::size_t>(vertex)];
    }
    [[nodiscard]] constexpr const IndexType& operator[](std::integral auto vertex) const noexcept {
        return myIndices[static_cast<std::size_t>(vertex)];
    }
    [[nodiscard]] static constexpr int size() noexcept { return vertices; }
    [[nodiscard]] constexpr auto begin() const noexcept { return myIndices.begin(); }
    [[nodiscard]] constexpr auto end() const noexcept { return myIndices.end(); }
    [[nodiscard]] constexpr auto operator<=>(const SimplexCell&) const noexcept = default;

private:
    std::array<IndexType, Dims + 1> myIndices{};
};

/// An edge and a triangle of a surface with 32-bit vertex indices.
using EdgeCell = SimplexCell<1, unsigned int, IJ_CellNamingConvention>;
using TriangleCell = SimplexCell<2, unsigned int, IJ_CellNamingConvention>;

} // namespace Vantle
