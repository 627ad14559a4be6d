#pragma once
/// Which rectangles of faces are the same, and which faces touch in a way that is no join.

#include <baseop/detail/joins/KeyGroups.hpp>
#include <baseop/detail/joins/Shells.hpp>
#include <baseop/detail/joins/VertexClasses.hpp>

#include <string>
#include <tuple>
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
    bool operator==(const FaceMap&) const = default;
};

/// Two rectangles that are the same: vertices of a face, ends included, and where the map takes them.
struct FacePair {
    std::uint32_t first = 0, second = 0; ///< numbers of faces
    FaceMap map;
    std::uint32_t a0 = 0, b0 = 0, a1 = 0, b1 = 0;
    int motion = -1; ///< what takes the first onto the second, if that is needed
    double largestDistance = 0.0;
};

/// Two faces that touch in a way that is no join.
struct FaceDoubt {
    std::uint32_t face = 0, other = 0;
    index_t coincident = 0;
    std::string reason;
};

/// Finds the quads of faces that are the same, by the classes of their corners, and joins them to rectangles.
///
/// A quad is joined to the only other one with its corners; where there are more, all of them are doubtful. So are
/// blocks that lie on top of one another, and rectangles beyond whose rim vertices miss each other by very little.
/// Collapsed quads are joined where their neighbours are.
class FaceMatcher {
public:
    /// Two vertices that are one because their face is collapsed.
    using Pinch = std::pair<std::uint32_t, std::uint32_t>;
    using Point = Shells::Point;

    FaceMatcher(const Shells& shells, const VertexClasses& classes, double tolerance);
    /// Joins quads that are open until now to those that they are the same as when they were moved.
    void findPeriodic(const std::vector<Point>& moved, double tolerance, int motion);

    [[nodiscard]] const std::vector<FacePair>& pairs() const noexcept { return myPairs; }
    [[nodiscard]] const std::vector<Pinch>& pinches() const noexcept { return myPinches; }
    /// Faces with quads that are collapsed to a line or a point, and how many there are.
    [[nodiscard]] const std::vector<std::pair<std::uint32_t, index_t>>& poles() const noexcept { return myPoles; }
    /// Ascending by face and other face.
    [[nodiscard]] std::vector<FaceDoubt> doubts() const;

private:
    /// What a quad is the same as: another quad, by the slot of its lowest vertex, or
    enum : std::uint32_t {
        Nothing = 0xffffffff,
        Several = 0xfffffffe,
        Flat = 0xfffffffd, ///< it is collapsed: to be had where its neighbours are joined
    };
    /// What became of a quad.
    enum Fate : unsigned char { Open, Joined, SeveralFaces, OnTop, NearMiss, Blanked };
    /// Vertices as one side of a comparison sees them.
    struct Side {
        const std::vector<std::uint32_t>* classes; // of slots
        const std::vector<Point>* points;          // of vertices
    };
    /// Two slots of one class that no joined quad has: of different faces, the first of each; of one face, any one and
    /// the next one.
    struct Touch {
        std::uint32_t face, other, slot, otherSlot;
    };

    void classify(const VertexClasses& classes);
    void growAll(int motion);
    [[nodiscard]] bool grow(std::uint32_t face, std::uint32_t a, std::uint32_t b, FacePair& pair);
    [[nodiscard]] bool take(const FacePair& pair, std::int64_t a, std::int64_t b);
    [[nodiscard]] bool corresponds(const FacePair& pair, std::int64_t a, std::int64_t b) const;
    void setFate(const FacePair& pair, std::int64_t a, std::int64_t b, Fate fate);
    void measure(FacePair& pair) const;

    // in FaceDoubts.cpp
    void withdrawDoubtful(const VertexClasses& classes);
    /// Takes back the joins that are such, for this reason.
    template<class IsSuch>
    void withdraw(const IsSuch& isSuch, Fate reason);
    [[nodiscard]] bool isOnTop(const FacePair& pair, const VertexClasses& classes) const;
    [[nodiscard]] double nearestMiss(const FacePair& pair) const;
    [[nodiscard]] std::vector<Touch> touches() const;
    /// Whether quads at the vertices of a touch, on both sides, have this fate.
    [[nodiscard]] bool isAt(const Touch& touch, Fate fate) const;
    [[nodiscard]] bool liesOn(std::span<const Touch> touches) const;

    const Shells& myShells;
    double myTolerance;
    Side myFirst, mySecond;               // what is compared: the same, or moved and not
    std::vector<std::uint32_t> myClassOf; // of each slot
    std::vector<std::uint32_t> myMate;    // of each quad, by slot
    std::vector<unsigned char> myFate;    // of each quad, by slot
    std::vector<FacePair> myPairs;
    std::vector<std::tuple<std::uint32_t, std::uint32_t, Fate>> myWithdrawn; // between these faces
    std::vector<Pinch> myPinches;
    std::vector<std::pair<std::uint32_t, index_t>> myPoles;
};

} // namespace Vantle::detail
