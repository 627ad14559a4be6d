#pragma once
/// What surfaces of several ranks are made of, and how their vertices are numbered.

#include <dataset/Surface.hpp>

#include <map>
#include <parallel/detail/Exchange.hpp>
#include <string>
#include <vector>

namespace Vantle::detail {

/// The triangles of one own block, and the points that belong to it.
struct SurfacePart {
    std::uint32_t block;                             // its number among all
    std::size_t endPoint = 0, endTriangle = 0;       // in the piece: those of the parts before it come first
    std::uint64_t firstPoint = 0, firstTriangle = 0; // among those of all ranks
};

/// Elements of values, as they are told to other ranks: 0 unknown, then those of surfaces.
enum class ValueKind : std::uint8_t { None, Number, Vector, Point, Tensor };

/// How much of a surface is a block's, which its rank tells all.
struct BlockCounts {
    std::uint64_t block = 0, points = 0, triangles = 0;
};

struct SurfaceParts {
    explicit SurfaceParts(std::shared_ptr<Exchange> ranks) : exchange(std::move(ranks)) {}

    /// Gives parts their first numbers, and the surface its size, by the counts of all blocks, in any order; who has
    /// nothing to count may be left out.
    void count(std::vector<BlockCounts> counts);
    /// The kinds of values, by name, are those that some rank knows, which has put them in this order.
    /// Failure: DataSetError where ranks differ.
    void takeKinds(const std::vector<std::string>& names, Reader& ofOneRank);
    /// When all have been taken: what nobody knows has so many components.
    void completeKinds(const std::map<std::string, int>& components);

    std::shared_ptr<Exchange> exchange;
    Surface piece;
    std::vector<SurfacePart> parts; // ascending by block
    std::vector<std::uint64_t> numbers;
    std::vector<unsigned char> isOwn;
    std::uint64_t points = 0, triangles = 0;
    std::map<std::string, ValueKind> values;
};

/// A surface of the model from its arrays; values are arrays of rank 1, one element a point.
[[nodiscard]] Surface makeSurface(std::vector<Point> points, std::vector<Triangle> triangles,
                                  const std::map<std::string, Hestra::StrongPtr<MemBase>>& values);
[[nodiscard]] ValueKind kindOf(const Hestra::StrongPtr<MemBase>& array);
/// So many elements of a kind; they are NaN.
[[nodiscard]] Hestra::StrongPtr<MemBase> makeValues(ValueKind kind, std::size_t count);
/// The numbers that values consist of.
[[nodiscard]] std::span<double> numbersOf(const Hestra::StrongPtr<MemBase>& array);

} // namespace Vantle::detail
