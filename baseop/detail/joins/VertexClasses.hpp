#pragma once
/// Which vertices of faces coincide.

#include <baseop/detail/joins/Shells.hpp>

namespace Vantle::detail {

/// The lowest of the vertices that coincide stands for all of them; `Alone` is added to one that has no other.
class VertexClasses {
public:
    static constexpr std::uint32_t Alone = std::uint32_t{1} << 31;

    VertexClasses() = default;
    /// Vertices with equal coordinates coincide. -0 equals 0; what is not finite equals nothing.
    explicit VertexClasses(const std::vector<Shells::Point>& points);
    /// The same, and vertices no farther from each other than the smaller of their radii coincide as well, directly or
    /// through others.
    ///
    /// Cost  some look-ups a vertex for each power of two among the radii.
    VertexClasses(const std::vector<Shells::Point>& points, const std::vector<double>& radii);

    [[nodiscard]] std::uint32_t operator[](std::uint32_t vertex) const noexcept { return myClass[vertex]; }

private:
    void unite(const std::vector<Shells::Point>& points, const std::vector<double>& radii);

    std::vector<std::uint32_t> myClass;
};

} // namespace Vantle::detail
