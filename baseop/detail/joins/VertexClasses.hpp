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

    [[nodiscard]] std::uint32_t operator[](std::uint32_t vertex) const noexcept { return myClass[vertex]; }

private:
    std::vector<std::uint32_t> myClass;
};

} // namespace Vantle::detail
