#pragma once
/// Blanking: vertices and cells of a grid that are not valid, and with that nowhere.
///
/// The masks are two fields beside the positions of the vertices, fragmented like these: any integer array over the
/// vertices of a fragment, and one over its cells. An element that is not zero is valid. They belong to the grid, not
/// to the positions, which other grids with other masks may share. A grid, or a fragment, without masks is wholly
/// valid.

#include <model/hestra/Cache.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/vantle/Index.hpp>
#include <model/vantle/Representation.hpp>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Vantle {

/// Names of the masks in the representation that has the positions of a grid's vertices.
inline constexpr const char* VertexMaskName = "VertexMask";
inline constexpr const char* CellMaskName = "CellMask";

/// What is valid in one block of vertices, a bit for each cell.
///
/// A cell, named by its lowest vertex, is valid if neither it nor one of its vertices is masked out. A vertex is valid
/// if a valid cell has it, and an edge between neighbours if a valid cell has both: what belongs to blanked cells only
/// is nowhere, just as if the block had no such cells.
/// Degenerate   on an axis with one vertex there is one layer of cells, which are flat. A block without vertices has
///              no cells.
/// Failure      indices are not checked.
/// Concurrency  immutable: any number of threads.
/// Cost         an eighth of a byte a cell.
class VANTLE_MODEL_API BlockMask : public Hestra::ReferenceBase<BlockMask> {
public:
    /// Of a block of these extents. Null masks are valid everywhere.
    ///
    /// Element types  `unsigned char`, `short`, `unsigned short`, `int`, `unsigned int`, `unsigned long long`.
    /// Failure        std::invalid_argument for other element types and for masks of other extents: those of the
    ///                vertices, and those of the cells, one less on each axis with more than one vertex. `fragment` is
    ///                named in its text.
    BlockMask(const MultiIndex<3>& vertices, const MemBase* vertexMask, const MemBase* cellMask,
              const std::string& fragment = {});
    ~BlockMask() override;

    /// Number of vertices, and of cells, on each axis.
    [[nodiscard]] const MultiIndex<3>& Size() const noexcept { return mySize; }
    [[nodiscard]] const MultiIndex<3>& cells() const noexcept { return myCells; }
    [[nodiscard]] index_t validCells() const noexcept { return myValid; }
    [[nodiscard]] bool isEverythingValid() const noexcept { return myValid == myCells.product(); }
    [[nodiscard]] bool isNothingValid() const noexcept { return myValid == 0; }

    [[nodiscard]] bool isCellValid(const MultiIndex<3>& cell) const noexcept {
        return (cellRow(cell[1], cell[2])[cell[0] / 64] >> (cell[0] % 64) & 1) != 0;
    }
    [[nodiscard]] bool isVertexValid(const MultiIndex<3>& vertex) const noexcept {
        return (around(vertex[1], vertex[2], vertex[0] / 64).vertices >> (vertex[0] % 64) & 1) != 0;
    }
    /// Whether there is an edge from a vertex to the next one along an axis; false at the end of the axis.
    [[nodiscard]] bool isEdgeValid(const MultiIndex<3>& lower, int axis) const noexcept {
        return (around(lower[1], lower[2], lower[0] / 64).above[axis] >> (lower[0] % 64) & 1) != 0;
    }
    /// Whether a valid cell has a place given in fractional indices; faces belong to all cells around them. Beyond the
    /// border the cells along it count. False for NaN.
    [[nodiscard]] bool has(const Orvix::FixedArray<double, 3>& place) const noexcept;

    /// The cells of a row, 64 in a word, the first in the lowest bit; bits behind the last cell are clear. Rows follow
    /// each other, axis 1 first, each of `rowWords` words.
    [[nodiscard]] const std::uint64_t* cellRow(index_t j, index_t k) const noexcept {
        return myBits.data() + (j + myCells[1] * k) * myRowWords;
    }
    [[nodiscard]] index_t rowWords() const noexcept { return myRowWords; }

    /// What is valid at 64 vertices of a row, one bit each; bits behind the last vertex are clear.
    struct Vertices {
        std::uint64_t vertices;
        /// The edges to the neighbours on each axis, above and below.
        std::uint64_t above[3], below[3];
    };
    /// At the vertices (64 word, j, k), (64 word + 1, j, k) ...
    [[nodiscard]] Vertices around(index_t j, index_t k, index_t word) const noexcept;
    /// Whether all cells around these vertices are valid.
    [[nodiscard]] bool isWhole(index_t j, index_t k, index_t word) const noexcept;

private:
    MultiIndex<3> mySize, myCells;
    index_t myRowWords = 0;
    index_t myValid = 0;
    std::vector<std::uint64_t> myBits;
};

/// The masks that a grid has, as they are when this is made.
///
/// A value: two handles. What operations ask of it is made once from the masks, kept beside the positions, and made
/// again when the masks have become newer or others have taken their place.
/// Concurrency  any number of threads may ask, and make such values of one grid, while nobody changes it.
/// Cost         made by two look-ups of names; free where there are no masks.
class VANTLE_MODEL_API Blanking {
public:
    /// Everything is valid.
    Blanking() = default;
    /// The masks beside the positions of the vertices.
    explicit Blanking(const Representation& vertices);
    /// The same of the grid's vertices in the Cartesian chart of this name.
    explicit Blanking(const Grid& grid, const std::string& chart = {});

    /// Whether there are any.
    [[nodiscard]] explicit operator bool() const noexcept { return bool(myMade); }
    [[nodiscard]] const Hestra::StrongPtr<Field>& vertexMask() const noexcept { return myVertexMask; }
    [[nodiscard]] const Hestra::StrongPtr<Field>& cellMask() const noexcept { return myCellMask; }
    /// The data of the vertex mask in a fragment, which are made if need be; null where there is none.
    ///
    /// Failure  std::invalid_argument when they cannot be made.
    [[nodiscard]] Hestra::StrongPtr<MemBase> vertexMaskOf(const Hestra::StrongPtr<FragmentID>& fragment) const;
    /// Whether there are any for a fragment. Makes no data.
    [[nodiscard]] bool concerns(const Hestra::StrongPtr<FragmentID>& fragment) const;

    /// What is valid in a fragment with these vertices; null where everything is, as without masks.
    ///
    /// Failure  as `BlockMask`; std::invalid_argument, too, for a mask whose data cannot be made.
    /// Cost     one pass over the masks, which are made if need be; then one look-up.
    [[nodiscard]] Hestra::StrongPtr<const BlockMask> of(const Hestra::StrongPtr<FragmentID>& fragment,
                                                        const MultiIndex<3>& vertices) const;
    /// The same with the extents that the masks have.
    [[nodiscard]] Hestra::StrongPtr<const BlockMask> of(const Hestra::StrongPtr<FragmentID>& fragment) const;

    /// Throws std::invalid_argument if a mask does not fit: a wrong element type or extents, data that are no
    /// fragment of these positions, or cannot be made. Makes only masks that do not announce their size; where the
    /// positions do not, the extents stay unchecked until `of` is asked.
    void check(const Field& positions) const;

    /// The masks and their ages, for what is derived from them.
    [[nodiscard]] Hestra::Freshness freshness() const {
        return Hestra::Freshness(myVertexMask.rawptr(), myCellMask.rawptr());
    }
    /// Whether both have the same masks.
    [[nodiscard]] bool operator==(const Blanking& other) const noexcept {
        return myVertexMask == other.myVertexMask && myCellMask == other.myCellMask;
    }

private:
    [[nodiscard]] Hestra::StrongPtr<const BlockMask> find(const Hestra::StrongPtr<FragmentID>& fragment,
                                                          const MultiIndex<3>* vertices) const;

    Hestra::StrongPtr<Field> myVertexMask, myCellMask;
    Hestra::StrongPtr<Hestra::InterfaceBase> myMade; // what was made from them; null where there are none
};

/// The masks of a representation as an input of what is derived from them: gets newer when a mask does, and when masks
/// are set, replaced or removed. When the representation has gone, the masks stay what they were.
///
/// Concurrency  any number of threads, as long as nobody changes the representation.
class VANTLE_MODEL_API BlankingInput : public Hestra::ReferenceBase<BlankingInput>, public Hestra::Ageable {
public:
    explicit BlankingInput(const Representation& vertices);
    ~BlankingInput() override;

    [[nodiscard]] Blanking now() const;
    [[nodiscard]] age_t age() const noexcept override;

private:
    Hestra::WeakPtr<const Representation> myVertices;
    mutable std::mutex myMutex;
    mutable Blanking myMasks;
};

// ---------------------------------------------------------------------------------------------------------------------

inline bool BlockMask::has(const Orvix::FixedArray<double, 3>& place) const noexcept {
    MultiIndex<3> low, high;
    for (int d = 0; d < 3; ++d) {
        if (myCells[d] == 0 || !(place[d] == place[d])) return false;
        const double last = static_cast<double>(mySize[d] - 1);
        const double at = place[d] <= 0.0 ? 0.0 : place[d] >= last ? last : place[d];
        const auto floor = static_cast<index_t>(at);
        high[d] = floor < myCells[d] ? floor : myCells[d] - 1;
        low[d] = high[d] == floor && floor > 0 && static_cast<double>(floor) == at ? floor - 1 : high[d];
    }
    for (index_t k = low[2]; k <= high[2]; ++k)
        for (index_t j = low[1]; j <= high[1]; ++j)
            for (index_t i = low[0]; i <= high[0]; ++i)
                if (isCellValid({i, j, k})) return true;
    return false;
}

inline bool BlockMask::isWhole(index_t j, index_t k, index_t word) const noexcept {
    const index_t left = word < myRowWords ? myCells[0] - 64 * word : 0;
    const std::uint64_t there = left < 64 ? (std::uint64_t{1} << left) - 1 : ~std::uint64_t{0};
    std::uint64_t all = there, before = 1;
    for (index_t z = k > 0 ? k - 1 : k; z <= k && z < myCells[2]; ++z)
        for (index_t y = j > 0 ? j - 1 : j; y <= j && y < myCells[1]; ++y) {
            const std::uint64_t* const row = cellRow(y, z);
            if (left > 0) all &= row[word];
            if (word > 0) before &= row[word - 1] >> 63;
        }
    return all == there && before != 0;
}

inline BlockMask::Vertices BlockMask::around(index_t j, index_t k, index_t word) const noexcept {
    // The four rows of cells around: this word of each, and the cell before the first, as a carry.
    struct Row {
        std::uint64_t cells = 0, before = 0;
        Row operator|(const Row& other) const noexcept { return {cells | other.cells, before | other.before}; }
        [[nodiscard]] std::uint64_t below() const noexcept { return cells << 1 | before; }
        [[nodiscard]] std::uint64_t both() const noexcept { return cells | below(); }
    };
    const auto row = [&](index_t y, index_t z) { // also of rows that are none, whose numbers wrap
        Row result;
        if (y >= myCells[1] || z >= myCells[2]) return result;
        const std::uint64_t* const bits = cellRow(y, z);
        if (word < myRowWords) result.cells = bits[word];
        if (word > 0) result.before = bits[word - 1] >> 63;
        return result;
    };
    const Row a = row(j - 1, k - 1), b = row(j, k - 1), c = row(j - 1, k), d = row(j, k);
    const Row lower = a | b, upper = c | d, left = a | c, right = b | d, all = lower | upper;
    const index_t left64 = mySize[0] - 64 * word;
    const std::uint64_t there = left64 < 64 ? (std::uint64_t{1} << left64) - 1 : ~std::uint64_t{0};
    Vertices result{all.both() & there,
                    {all.cells & there, right.both() & there, upper.both() & there},
                    {all.below() & there, left.both() & there, lower.both() & there}};
    for (int axis = 0; axis < 3; ++axis) // flat cells have no edges across
        if (mySize[axis] < 2) result.above[axis] = result.below[axis] = 0;
    return result;
}

} // namespace Vantle
