#pragma once
/// Joins of the blocks of a multi-block grid: which rectangles of which faces are the same, how the index spaces
/// continue across them, and which block owns a vertex that several have.
///
/// Blocks are the fragments of a field of positions with coordinates of rank 3, numbered in its order from 0; fragments
/// of other kinds count, and have no faces. Two faces are joined where their vertices coincide, cell by cell, in any of
/// the eight orientations: face against face, part against part, a face against another one of the same block (O- and
/// C-grids). All vertices of a face along an axis may coincide: it is collapsed to a line or a point (poles). Quads of
/// faces that are blanked take no part.
///
/// Coincidence  of coordinates: equal (-0 equals 0, NaN and infinities equal nothing), or within a tolerance.
/// Joined       a quad and the only other one with its corners. Collapsed quads, with less than three of them, are
///              joined where their neighbours are.
/// Doubtful     faces whose vertices coincide only here and there, or with another spacing, that more than two blocks
///              have, or whose blocks lie on top of one another: reported, and not joined there. Faces that have an
///              edge or a vertex in common touch: no join, no doubt.
/// Owner        of vertices that are one, by joins or because their face is collapsed: the lowest (block, index). What
/// a
///              vertex is, position and values, its owner's copy says, wherever copies differ. Where only some cells of
///              a face have no thickness, its vertices stay apart.
/// Periodic     pairs of faces that coincide after a motion are known as such: stencils cross them; they have no
///              common owner and nothing is merged.

#include <baseop/BaseOpExport.hpp>
#include <model/hestra/Interface.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/Field.hpp>
#include <model/vantle/Grid.hpp>

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Vantle {
class BlockJoins;
}

namespace Hestra {
template<>
struct ReferenceDomain<Vantle::BlockJoins> {
    using type = InterfaceBase;
};
} // namespace Hestra

namespace Vantle {

/// A vertex of a block: its linear index there, axis 0 fastest.
struct BlockVertex {
    unsigned int block = 0;
    index_t index = 0;
    auto operator<=>(const BlockVertex&) const = default;
};

/// A face of a block: at the first or at the last vertices along an axis.
struct BlockFace {
    unsigned int block = 0;
    int axis = 0;
    bool upper = false;
    auto operator<=>(const BlockFace&) const = default;
};

/// A motion that keeps distances: p -> rotation * p + translation. Vectors are rotated only.
class VANTLE_BASEOP_API RigidMotion {
public:
    using point = Orvix::PhysicalSpace::point;
    using vector = Orvix::PhysicalSpace::vector;

    /// Nothing moves.
    RigidMotion() = default;
    [[nodiscard]] static RigidMotion translation(const vector& by);
    /// About the axis through `center`, right-handed, by an angle in radians. Failure: std::invalid_argument for an
    /// axis without length.
    [[nodiscard]] static RigidMotion rotation(const point& center, const vector& axis, double angle);

    [[nodiscard]] point operator()(const point& p) const noexcept;
    [[nodiscard]] vector operator()(const vector& v) const noexcept;
    [[nodiscard]] RigidMotion inverse() const noexcept;
    bool operator==(const RigidMotion&) const = default;

private:
    std::array<std::array<double, 3>, 3> myRotation{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
    vector myTranslation;
};

/// How the index space of one block continues in that of another one: axis d of the first runs along `axis[d]` of the
/// second, forward or backward; `origin` is the place in the second of the first's vertex (0, 0, 0), maybe outside.
struct VANTLE_BASEOP_API IndexMap {
    using Place = std::array<std::int64_t, 3>;

    std::array<int, 3> axis{0, 1, 2};
    std::array<int, 3> sign{1, 1, 1};
    Place origin{};

    [[nodiscard]] Place operator()(const Place& first) const noexcept;
    [[nodiscard]] IndexMap inverse() const noexcept;
    /// Whether the two blocks are of opposite handedness.
    [[nodiscard]] bool isMirrored() const noexcept;
    bool operator==(const IndexMap&) const = default;
};

/// Two rectangles of faces that are the same.
struct BlockJoin {
    BlockFace first, second;
    /// The vertices of the rectangle in the first block, ends included.
    MultiIndex<3> low, high;
    /// From the first block's indices to the second's, also beyond the face.
    IndexMap map;
    /// For a periodic pair the number of the motion among the options, that takes the first face onto the second; else
    /// -1.
    int motion = -1;
    /// Whether the motion's inverse is what takes the first face onto the second.
    bool inverse = false;
    /// The largest distance of two vertices that are one (after the motion); 0 when all are equal.
    double largestDistance = 0.0;
};

/// A face that touches another one in a way that is no join.
struct DoubtfulFace {
    BlockFace face, other;
    /// How many of its vertices that are not joined coincide with vertices of the other.
    index_t coincident = 0;
    /// A sentence that says what was seen.
    std::string reason;
};

/// How joins are looked for.
struct VANTLE_BASEOP_API JoinOptions {
    /// Vertices coincide up to this distance, in units of the shortest edge of the cells at either of them. 0: only
    /// equal coordinates do. Sensible: 0 to 0.1. Raise it for files that were written with fewer digits, or by
    /// different programs. Edges as long as rounding errors do not count.
    double tolerance = 0.0;
    /// Motions that take one end of the domain to the other.
    std::vector<RigidMotion> motions;
    /// The tolerance for faces after a motion, in the same units.
    double periodicTolerance = 1e-3;

    /// Failure  std::invalid_argument, with the reason, for tolerances that are no numbers from 0 to less than 0.5:
    ///          beyond, a vertex could be one with its neighbour.
    void check() const;
    bool operator==(const JoinOptions&) const = default;
};

/// What is known of the joins of a grid. Immutable.
///
/// Concurrency  any number of threads.
/// Cost         finding: hashing and sorting the vertices of all faces and the quads between them, on all cores; a
///              grid of one block looks at its own six faces only. Memory: 24 bytes a vertex that somebody else owns, 4
///              a vertex on a face of a block that has such.
class VANTLE_BASEOP_API BlockJoins : public Hestra::Interface<BlockJoins> {
public:
    /// The joins of the blocks of `grid`, at its Cartesian positions: those found last while positions, masks and
    /// options are the same, else found now and kept with the positions in their place.
    ///
    /// Degenerate   blocks without cells have no faces; null when there is no field of positions. Blocks whose
    ///              positions cannot be made count as such, and the joins are not kept.
    /// Failure      std::invalid_argument for unusable options and masks; std::length_error for more than 2^31 - 1
    ///              vertices of faces.
    /// Concurrency  from any number of threads, as long as nobody changes the grid.
    [[nodiscard]] static Hestra::StrongPtr<BlockJoins> of(const Grid& grid, const JoinOptions& options = {});
    /// Those found last, if `of` would give them; else null. Nothing is looked for.
    [[nodiscard]] static Hestra::StrongPtr<BlockJoins> known(const Grid& grid, const JoinOptions& options = {});

    ~BlockJoins() override;

    [[nodiscard]] unsigned int blocks() const noexcept;
    /// The number of vertices of a block along each axis; all 0 for a fragment without cells.
    [[nodiscard]] const MultiIndex<3>& size(unsigned int block) const;
    /// The fragment; null for unfragmented data.
    [[nodiscard]] const Hestra::StrongPtr<FragmentID>& fragment(unsigned int block) const;
    /// The number of a fragment's block; `blocks()` when it is none of these.
    [[nodiscard]] unsigned int find(const Hestra::StrongPtr<FragmentID>& id) const;
    [[nodiscard]] const JoinOptions& options() const noexcept;

    /// All joins, each once, ascending by first face, rectangle and second face; the first face is the lower one.
    [[nodiscard]] const std::vector<BlockJoin>& joins() const noexcept;
    /// The joins of one block, seen from it: it is the first of each (a join of a block with itself is there twice).
    [[nodiscard]] std::span<const BlockJoin> joins(unsigned int block) const;
    [[nodiscard]] const std::vector<DoubtfulFace>& doubtful() const noexcept;

    /// The owner of a vertex: itself when no other is the same.
    [[nodiscard]] BlockVertex owner(const BlockVertex& vertex) const;
    /// The vertices of a block that somebody else owns, another block or another vertex of the same, ascending by
    /// index, and their owners.
    struct Shared {
        index_t index;
        BlockVertex owner;
    };
    [[nodiscard]] std::span<const Shared> shared(unsigned int block) const;
    /// Whether there are such vertices of a block.
    [[nodiscard]] bool isShared(unsigned int block) const noexcept;
    /// Whether `field` is known to have, in every bit, the owner's copy at each vertex of a block: the positions that
    /// the joins were found in, as long as they are no newer.
    [[nodiscard]] bool hasOwnersCopies(const Field& field, unsigned int block) const;

    /// What follows a vertex along an axis, forward (1) or backward (-1): within its block, or across a joined face. Of
    /// several joins that have the vertex the first counts, and periodic ones last.
    struct Step {
        BlockVertex vertex;
        /// What takes the vertex found to where it follows, for the crossing of a periodic pair; else null.
        const RigidMotion* motion = nullptr;
    };
    [[nodiscard]] std::optional<Step> step(const BlockVertex& from, int axis, int direction) const;

    /// Whether a quad of a face, given by the lowest vertex of the quad, is joined to nothing (periodic pairs are not
    /// joined in this sense).
    [[nodiscard]] bool isOpen(const BlockFace& face, const MultiIndex<3>& quad) const;

    /// Whether a block is of the other handedness than the lowest one that it hangs together with.
    [[nodiscard]] bool isMirrored(unsigned int block) const;
    /// False when handedness cannot be agreed on, as in a band with a twist.
    [[nodiscard]] bool isOrientable() const noexcept;

    /// A few lines for people: blocks, joins with their orientations, poles, doubtful faces.
    [[nodiscard]] std::string describe() const;

private:
    struct Data;
    explicit BlockJoins(std::unique_ptr<const Data> data);
    std::unique_ptr<const Data> myData;
};

/// The copies of one vertex that do not agree.
struct CopyDifference {
    /// The largest difference of a component, and where: the copy that is not the owner's.
    double largest = 0.0;
    BlockVertex where;
    index_t differing = 0;
};

/// How far the values of a field differ where blocks share vertices: vertices whose copies have other bits than their
/// owner's (-0 and 0 do not differ, nor do two NaN; a number and NaN differ by infinity). Positions are a field like
/// any other; blocks without data are left out.
///
/// Failure  std::invalid_argument when a fragment's data have other extents than its block, another element type than
///          an owner's, or elements that do not consist of numbers.
[[nodiscard]] VANTLE_BASEOP_API CopyDifference compareCopies(const BlockJoins& joins, const Field& field);

/// The data of a block with its owners' values at all vertices that somebody else owns: the data themselves when
/// nothing differs in any bit, else a copy. Null without data.
///
/// Failure  as `compareCopies`.
[[nodiscard]] VANTLE_BASEOP_API Hestra::StrongPtr<MemBase> ownersData(const BlockJoins& joins, const Field& field,
                                                                      unsigned int block);

} // namespace Vantle
