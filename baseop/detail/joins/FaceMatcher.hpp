#pragma once
/// Which rectangles of faces are the same.

#include <baseop/detail/joins/Shells.hpp>
#include <baseop/detail/joins/VertexClasses.hpp>

#include <utility>

namespace Vantle::detail {

/// How the two axes of one face run along those of another one.
struct FaceMap {
    using Pair = std::pair<std::int64_t, std::int64_t>;

    bool isSwapped = false;
    int signU = 1, signV = 1;
    std::int64_t originU = 0, originV = 0;

    /// Where a vertex of the first face is in the second.
    [[nodiscard]] Pair vertex(std::int64_t a, std::int64_t b) const noexcept {
        return {originU + signU * (isSwapped ? b : a), originV + signV * (isSwapped ? a : b)};
    }
    /// The same of a quad, by its lowest vertices.
    [[nodiscard]] Pair quad(std::int64_t a, std::int64_t b) const noexcept {
        const Pair at = vertex(a, b);
        return {at.first - (signU < 0), at.second - (signV < 0)};
    }
};

/// Two rectangles that are the same: of quads of a face, ends included, and where the map takes them.
struct FacePair {
    std::uint32_t first = 0, second = 0; ///< numbers of faces
    FaceMap map;
    std::uint32_t a0 = 0, b0 = 0, a1 = 0, b1 = 0;
};

/// Finds the quads of faces that are the same, by the classes of their corners, and joins them to rectangles.
class FaceMatcher {
public:
    /// Two vertices that are one because a quad is collapsed there.
    using Pinch = std::pair<std::uint32_t, std::uint32_t>;

    FaceMatcher(const Shells& shells, const VertexClasses& classes);

    [[nodiscard]] const std::vector<FacePair>& pairs() const noexcept { return myPairs; }
    [[nodiscard]] const std::vector<Pinch>& pinches() const noexcept { return myPinches; }

private:
    /// What a quad is the same as: another quad, by the slot of its lowest vertex, or
    enum : std::uint32_t {
        Nothing = 0xffffffff,
        Several = 0xfffffffe,
        Flat = 0xfffffffd, ///< it is collapsed: to be had where its neighbours are joined
    };
    void classify(const Shells& shells, const VertexClasses& classes);
    void grow(std::uint32_t face, std::uint32_t a, std::uint32_t b);
    [[nodiscard]] bool corresponds(const FacePair& pair, std::int64_t a, std::int64_t b) const noexcept;
    bool take(const FacePair& pair, std::int64_t a, std::int64_t b) noexcept;
    void release(const FacePair& pair, std::int64_t a, std::int64_t b) noexcept;

    const Shells& myShells;
    std::vector<std::uint32_t> myClassOf; // of each slot
    std::vector<std::uint32_t> myMate;    // of each quad, by slot
    std::vector<unsigned char> myTaken;
    std::vector<FacePair> myPairs;
    std::vector<Pinch> myPinches;
};

} // namespace Vantle::detail
