#include <baseop/detail/ParallelLoop.hpp>
#include <baseop/detail/surface/IsoSweep.hpp>
#include <baseop/detail/surface/MarchingCubesTables.hpp>
#include <model/hestra/Pulse.hpp>

#include <algorithm>
#include <bit>
#include <memory>
#include <optional>
#include <stdexcept>

namespace Vantle::detail {

namespace {

using Extents = std::array<std::size_t, 3>;

// What a vertex costs, both passes together, in bytes that are read in that time: 1.2 to 3.8 ns were measured.
constexpr std::size_t BytesPerVertex = 32;

// How far ahead the values of a word of cells are asked for.
constexpr std::size_t WordsAhead = 16;

// Cases are numbered here as the bits of four rows of vertices give them: two neighbours of each row.
constexpr int RowCorners[8] = {0, 1, 3, 2, 4, 5, 7, 6};

/// One case of a cell at the lower border of some axes (bits 0, 1, 2): its triangles, and the edges that no earlier
/// cell of the sweep has, in the order in which the triangles use them.
struct alignas(32) CellCase {
    std::uint8_t triangleCount = 0;
    std::uint8_t newCount = 0;
    std::uint8_t newEdges[12] = {};
    std::uint16_t cutEdges = 0; // a bit each
    std::uint8_t edges[15] = {};
};
static_assert(sizeof(CellCase) == 32);

constexpr bool isNew(int e, int border) {
    const EdgeGeometry& edge = edgeGeometry[static_cast<std::size_t>(e)];
    for (int axis = 0; axis < 3; ++axis)
        if (axis != edge.axis && CornerOffset[edge.lower][axis] == 0 && !((border >> axis) & 1)) return false;
    return true;
}

constexpr CellCase cellCase(int rowCase, int border) {
    int cubeCase = 0;
    for (int bit = 0; bit < 8; ++bit)
        if ((rowCase >> bit) & 1) cubeCase |= 1 << RowCorners[bit];
    CellCase result;
    int seen = 0;
    for (int n = 0; n < 15 && triTable[cubeCase][n] >= 0; ++n) {
        const int e = triTable[cubeCase][n];
        result.edges[n] = static_cast<std::uint8_t>(e);
        if (!((seen >> e) & 1) && isNew(e, border)) result.newEdges[result.newCount++] = static_cast<std::uint8_t>(e);
        seen |= 1 << e;
    }
    result.cutEdges = static_cast<std::uint16_t>(seen);
    result.triangleCount = static_cast<std::uint8_t>(triangleCount(cubeCase));
    return result;
}

constexpr auto makeCases(int border) {
    std::array<CellCase, 256> cases{};
    for (int c = 0; c < 256; ++c) cases[static_cast<std::size_t>(c)] = cellCase(c, border);
    return cases;
}
constexpr std::array<std::array<CellCase, 256>, 8> Cases = {makeCases(0), makeCases(1), makeCases(2), makeCases(3),
                                                            makeCases(4), makeCases(5), makeCases(6), makeCases(7)};

/// The cells that come earlier in the sweep and share edges with a cell, by their steps from it, a bit each.
constexpr int Neighbours[9][3] = {{-1, 0, 0},  {0, -1, 0}, {-1, -1, 0}, {1, -1, 0}, {0, 0, -1},
                                  {-1, 0, -1}, {1, 0, -1}, {0, -1, -1}, {0, 1, -1}};

/// The edges, a bit each, that a cell shares with neighbours, a bit each.
constexpr auto makeSharedEdges() {
    std::array<unsigned, 9> with{}; // one neighbour
    for (std::size_t n = 0; n < 9; ++n)
        for (unsigned e = 0; e < 12; ++e) {
            const EdgeGeometry& edge = edgeGeometry[e];
            bool shares = true;
            for (int axis = 0; axis < 3; ++axis) {
                const int step = Neighbours[n][axis];
                const int across = axis == edge.axis ? 0 : CornerOffset[edge.lower][axis] == 0 ? -1 : 1;
                shares = shares && (step == 0 || step == across);
            }
            if (shares) with[n] |= 1U << e;
        }
    std::array<std::uint16_t, 512> shared{};
    for (unsigned neighbours = 0; neighbours < 512; ++neighbours) {
        unsigned edges = 0;
        for (std::size_t n = 0; n < 9; ++n) edges |= (neighbours >> n & 1) != 0 ? with[n] : 0;
        shared[neighbours] = static_cast<std::uint16_t>(edges);
    }
    return shared;
}
constexpr std::array<std::uint16_t, 512> SharedEdges = makeSharedEdges();

/// Which earlier neighbours the 64 cells of a word have: a word for each of `Neighbours`, unless all have all.
struct NeighbourWords {
    /// Of the cells from 64 * `word` on in row (j, k).
    NeighbourWords(const BlockMask& mask, std::size_t j, std::size_t k, std::size_t word) noexcept {
        constexpr std::uint64_t all = ~std::uint64_t{0};
        const MultiIndex<3>& cells = mask.cells();
        const std::size_t words = mask.rowWords();
        const bool isFirst = word == 0, isLast = word + 1 == words;
        const std::uint64_t behind = isLast && cells[0] % 64 != 0 ? all << (cells[0] % 64) : 0;
        const std::uint64_t firstCell = isFirst ? 1 : 0;
        const std::uint64_t lastCell = isLast ? std::uint64_t{1} << ((cells[0] - 1) % 64) : 0;
        // Of each row, the cells at i, and those at i - 1 and i + 1. Where there are none, the tables know.
        struct Row {
            std::uint64_t at = 0, before = 0, after = 0;
        };
        const auto load = [&](bool isThere, std::size_t y, std::size_t z) {
            Row row;
            if (!isThere) return row;
            const std::uint64_t* const bits = mask.cellRow(y, z) + word;
            row.at = *bits;
            row.before = *bits << 1 | (isFirst ? 0 : bits[-1] >> 63);
            row.after = *bits >> 1 | (isLast ? 0 : bits[1] << 63);
            return row;
        };
        const bool isBeside = j > 0, isAbove = k > 0;
        const Row row = load(true, j, k), beside = load(isBeside, j - 1, k), below = load(isAbove, j, k - 1);
        const Row diagonal = load(isBeside && isAbove, j - 1, k - 1),
                  other = load(isAbove && j + 1 < cells[1], j + 1, k - 1);
        const auto sides = [&](const Row& r) { return ~((r.before | firstCell) & (r.after | lastCell)); };
        missing = ~(row.before | firstCell);
        if (isBeside) missing |= ~beside.at | sides(beside);
        if (isAbove) missing |= ~below.at | sides(below);
        if (isBeside && isAbove) missing |= ~diagonal.at;
        if (isAbove && j + 1 < cells[1]) missing |= ~other.at;
        missing &= ~behind;
        if (missing == 0) return;
        const std::uint64_t found[9] = {row.before,   beside.at,   beside.before, beside.after, below.at,
                                        below.before, below.after, diagonal.at,   other.at};
        std::copy_n(found, 9, valid);
    }
    [[nodiscard]] unsigned of(int cell) const noexcept {
        unsigned found = 0;
        for (unsigned n = 0; n < 9; ++n) found |= static_cast<unsigned>(valid[n] >> cell & 1) << n;
        return found;
    }

    std::uint64_t missing = 0; ///< Cells with a neighbour that is blanked.
    std::uint64_t valid[9];    ///< Set if any is missing.
};

/// The classified vertices of four rows around a row of cells, for 64 cells and the vertex after the last.
struct RowWords {
    std::uint64_t lowLow, highLow, lowHigh, highHigh; // (j, k), (j+1, k), (j, k+1), (j+1, k+1)
    unsigned next = 0;                                // the vertices after the last, one bit a row

    /// Cells that are neither wholly below nor wholly not below the level.
    [[nodiscard]] std::uint64_t cut() const noexcept {
        const std::uint64_t some = lowLow | highLow | lowHigh | highHigh;
        const std::uint64_t all = lowLow & highLow & lowHigh & highHigh;
        const std::uint64_t someNext = some >> 1 | std::uint64_t{next != 0} << 63;
        const std::uint64_t allNext = all >> 1 | std::uint64_t{next == 15} << 63;
        return (some | someNext) & ~(all & allNext);
    }
    [[nodiscard]] std::size_t rowCase(int cell) const noexcept {
        if (cell == 63) [[unlikely]]
            return lowLow >> 63 | (next & 1) << 1 | (highLow >> 63) << 2 | (next & 2) << 2 | (lowHigh >> 63) << 4 |
                   (next & 4) << 3 | (highHigh >> 63) << 6 | (next & 8) << 4;
        return (lowLow >> cell & 3) | (highLow >> cell & 3) << 2 | (lowHigh >> cell & 3) << 4 |
               (highHigh >> cell & 3) << 6;
    }
};

std::size_t workOf(const Extents& size) { return size[0] * size[1] * size[2] * BytesPerVertex; }

/// How many slabs of layers to work on at a time.
std::size_t slabCount(const Extents& size) { return std::min(teamFor(workOf(size)), size[2] - 1); }

} // namespace

std::atomic<index_t> mostVertices{index_t{1} << 32};

void checkVertexCount(index_t vertices) {
    if (vertices > mostVertices.load(std::memory_order_relaxed))
        throw std::length_error("isosurface: more vertices than triangles can number");
}

EdgeNumbering::EdgeNumbering(const MultiIndex<3>& extents, const MultiIndex<3>& start, index_t offset) noexcept {
    index_t before = offset;
    for (int axis = 0; axis < 3; ++axis) {
        MultiIndex<3> edges = extents;
        edges[axis] -= extents[axis] > 0 ? 1 : 0;
        const auto a = static_cast<std::size_t>(axis);
        strideY[a] = edges[0];
        strideZ[a] = edges[0] * edges[1];
        first[a] = before + start[0] + start[1] * strideY[a] + start[2] * strideZ[a];
        before += edges.product();
    }
}

/// What a thread remembers of two planes of vertices: indices of surface vertices, and classifications made so far.
template<class Values>
class IsoSweep<Values>::Planes {
public:
    explicit Planes(const IsoSweep& sweep)
        : myRow(sweep.mySize[0]), myPlane(sweep.mySize[0] * sweep.mySize[1]), myWords(sweep.myVertexWords),
          myWordPlane(sweep.myVertexWords * sweep.mySize[1]),
          myIndices(std::make_unique_for_overwrite<unsigned int[]>(4 * myPlane + 2 * myRow)),
          myMasks(std::make_unique_for_overwrite<std::uint64_t[]>(2 * myWordPlane)), myKnown(2 * myWordPlane) {
        myList.reserve(myWordPlane);
    }

    /// Makes the upper plane the lower one and forgets the other.
    void advance() noexcept {
        myLower ^= 1;
        std::fill_n(myKnown.begin() + static_cast<std::ptrdiff_t>((myLower ^ 1) * myWordPlane), myWordPlane,
                    std::uint8_t{0});
    }
    /// For each edge e of the cells of row j, where the index for cell 0 of the row is kept.
    void indexRows(std::size_t j, unsigned int* (&rows)[12]) const noexcept {
        unsigned int* const lower = myIndices.get() + 2 * myLower * myPlane;
        unsigned int* const upper = myIndices.get() + 2 * (myLower ^ 1) * myPlane;
        unsigned int* const z = myIndices.get() + 4 * myPlane;
        unsigned int* const x0 = lower + j * myRow;
        unsigned int* const x1 = upper + j * myRow;
        unsigned int *const y0 = x0 + myPlane, *const y1 = x1 + myPlane;
        unsigned int *const z0 = z + (j & 1) * myRow, *const z1 = z + ((j & 1) ^ 1) * myRow;
        unsigned int* const all[12] = {x0, y0 + 1, x0 + myRow, y0, x1, y1 + 1, x1 + myRow, y1, z0, z0 + 1, z1 + 1, z1};
        std::copy_n(all, 12, rows);
    }

    /// The words of cells in layer k that the level crosses, in order.
    const std::vector<std::uint32_t>& listActive(const IsoSweep& sweep, std::size_t k) {
        myList.clear();
        const std::uint64_t* const active = sweep.myActive.data() + k * sweep.myActiveWords;
        for (std::size_t n = 0; n < sweep.myActiveWords; ++n)
            for (std::uint64_t bits = active[n]; bits != 0; bits &= bits - 1)
                myList.push_back(static_cast<std::uint32_t>(64 * n + static_cast<std::size_t>(std::countr_zero(bits))));
        return myList;
    }

    /// The classified word of row j in the lower (0) or upper (1) plane, made by `classify` if need be.
    template<class Classify>
    std::uint64_t mask(std::size_t plane, std::size_t j, std::size_t word, const Classify& classify) noexcept {
        const std::size_t at = (plane ^ myLower) * myWordPlane + j * myWords + word;
        if (!myKnown[at]) {
            myMasks[at] = classify();
            myKnown[at] = 1;
        }
        return myMasks[at];
    }

private:
    std::size_t myRow, myPlane, myWords, myWordPlane;
    std::unique_ptr<unsigned int[]> myIndices;
    std::unique_ptr<std::uint64_t[]> myMasks;
    std::vector<std::uint8_t> myKnown;
    std::vector<std::uint32_t> myList;
    std::size_t myLower = 0;
};

template<class Values>
IsoSweep<Values>::IsoSweep(const Values& values, const BlockMask* mask)
    : myValues(values), mySize{static_cast<std::size_t>(values.size()[0]), static_cast<std::size_t>(values.size()[1]),
                               static_cast<std::size_t>(values.size()[2])},
      myMask(mask) {
    if (mySize[0] < 2 || mySize[1] < 2 || mySize[2] < 2) return;
    myVertexWords = (mySize[0] + 63) / 64;
    myCellWords = (mySize[0] - 1 + 63) / 64;
    myActiveWords = ((mySize[1] - 1) * myCellWords + 63) / 64;
    myLayers.resize(layerCount() + 1);
    myActive.resize(layerCount() * myActiveWords);

    const std::size_t slabs = slabCount(mySize), plane = 2 * (myVertexWords + 1) * mySize[1];
    const auto masks = std::make_unique<std::uint64_t[]>(slabs * plane);
    inParallel(slabs, 1, workOf(mySize), [&](std::size_t slab, std::size_t next) {
        countLayers(layerCount() * slab / slabs, layerCount() * next / slabs, masks.get() + slab * plane);
    });

    for (std::size_t k = 1; k < myLayers.size(); ++k) {
        myLayers[k].firstVertex += myLayers[k - 1].firstVertex;
        myLayers[k].firstTriangle += myLayers[k - 1].firstTriangle;
    }
}

template<class Values>
std::uint64_t IsoSweep<Values>::classify(std::size_t j, std::size_t k, std::size_t word) const noexcept {
    return myValues.below(row(j, k) + 64 * word, std::min<std::size_t>(64, mySize[0] - 64 * word));
}

/// Asks for the values that the word of cells is the first to need: in most cases, only its last row.
template<class Values>
[[gnu::always_inline]] inline void IsoSweep<Values>::prefetchWord(std::size_t cellWord, std::size_t k) const noexcept {
    const std::size_t j = cellWord / myCellWords, word = cellWord % myCellWords;
    myValues.prefetch(row(j + 1, k + 1) + 64 * word, std::min<std::size_t>(64, mySize[0] - 64 * word));
}

// Rows end with an empty word, so that every word has a next one.
template<class Values>
void IsoSweep<Values>::classifyPlane(std::size_t k, std::uint64_t* masks) const noexcept {
    for (std::size_t j = 0; j < mySize[1]; ++j)
        for (std::size_t word = 0; word < myVertexWords; ++word)
            masks[j * (myVertexWords + 1) + word] = classify(j, k, word);
}

// Leaves what layer k adds in myLayers[k + 1].
template<class Values>
void IsoSweep<Values>::countLayers(std::size_t begin, std::size_t end, std::uint64_t* masks) {
    if (begin == end) return;
    const std::size_t words = myVertexWords + 1, rows = mySize[1] - 1;
    const std::uint64_t lastCells = ~std::uint64_t{0} >> (64 * myCellWords - (mySize[0] - 1));
    std::uint64_t *lower = masks, *upper = masks + words * mySize[1];
    classifyPlane(begin, lower);
    for (std::size_t k = begin; k < end; ++k, std::swap(lower, upper)) {
        Hestra::Pulse::beat(static_cast<double>(k - begin) / static_cast<double>(end - begin));
        classifyPlane(k + 1, upper);
        std::uint64_t* const active = myActive.data() + k * myActiveWords;
        Layer added;
        for (std::size_t j = 0; j < rows; ++j) {
            const int border = (j == 0 ? 2 : 0) + (k == 0 ? 4 : 0);
            const std::uint64_t *const a = lower + j * words, *const b = a + words;
            const std::uint64_t *const c = upper + j * words, *const d = c + words;
            for (std::size_t word = 0; word < myCellWords; ++word) {
                const RowWords around{a[word], b[word], c[word], d[word],
                                      static_cast<unsigned>((a[word + 1] & 1) | (b[word + 1] & 1) << 1 |
                                                            (c[word + 1] & 1) << 2 | (d[word + 1] & 1) << 3)};
                std::uint64_t cut = around.cut();
                if (word + 1 == myCellWords) cut &= lastCells;
                if (cut == 0) continue;
                if (myMask && (cut &= myMask->cellRow(j, k)[word]) == 0) continue;
                const std::size_t bit = j * myCellWords + word;
                active[bit / 64] |= std::uint64_t{1} << (bit % 64);
                const auto caseOf = [&](int cell, int at) -> const CellCase& {
                    return Cases[static_cast<std::size_t>(at)][around.rowCase(cell)];
                };
                if (myMask) {
                    const NeighbourWords neighbours(*myMask, j, k, word);
                    for (std::uint64_t special = cut & neighbours.missing; special != 0; special &= special - 1) {
                        const int cell = std::countr_zero(special);
                        const CellCase& found = caseOf(cell, 0);
                        added.firstVertex += static_cast<index_t>(
                            std::popcount(static_cast<unsigned>(found.cutEdges & ~SharedEdges[neighbours.of(cell)])));
                        added.firstTriangle += found.triangleCount;
                    }
                    cut &= ~neighbours.missing;
                }
                for (; cut != 0; cut &= cut - 1) {
                    const int cell = std::countr_zero(cut);
                    const CellCase& found = caseOf(cell, border + (word == 0 && cell == 0));
                    added.firstVertex += found.newCount;
                    added.firstTriangle += found.triangleCount;
                }
            }
        }
        myLayers[k + 1] = added;
    }
}

/// Evaluates the vertices of a layer some time after they were found, when what they need has come from memory.
template<class Values>
template<class Positions>
class IsoSweep<Values>::VertexQueue {
public:
    VertexQueue(const IsoSweep& sweep, std::size_t k, const SweepTarget& target, const EdgeNumbering& numbering,
                const Positions& positions)
        : mySweep(sweep), myTarget(target), myNumbering(numbering), myPositions(positions), myLayer(k),
          myNext(sweep.myLayers[k].firstVertex), myStep{1, sweep.mySize[0], sweep.mySize[0] * sweep.mySize[1]} {
        for (std::size_t c = 0; c < 8; ++c) {
            myCorner[c] = 0;
            for (std::size_t d = 0; d < 3; ++d) myCorner[c] += static_cast<std::size_t>(CornerOffset[c][d]) * myStep[d];
        }
    }

    /// Adds the vertex on edge e of the cell at (i, j), of which `cell` is the lowest vertex.
    void push(std::size_t i, std::size_t j, std::size_t cell, unsigned int e) noexcept {
        const EdgeGeometry& edge = edgeGeometry[e];
        const std::size_t lower = cell + myCorner[static_cast<std::size_t>(edge.lower)];
        myPositions.prefetch(lower, lower + myStep[static_cast<std::size_t>(edge.axis)]);
        myRing[myEnd++ % Capacity] = {cell, i, j, e};
    }
    /// Evaluates all but the last ones added.
    void work() noexcept {
        while (myEnd - myBegin > Delay) evaluate();
    }
    void finish() noexcept {
        while (myEnd != myBegin) evaluate();
    }

private:
    // A word of cells adds at most 64 * 12 vertices.
    static constexpr std::size_t Capacity = 1024, Delay = 32;
    struct Entry {
        std::size_t cell, i, j;
        unsigned int e;
    };

    void evaluate() noexcept {
        const Entry& entry = myRing[myBegin++ % Capacity];
        const std::size_t e = entry.e;
        const EdgeGeometry& edge = edgeGeometry[e];
        const auto value = [&](int corner) {
            const std::size_t at = entry.cell + myCorner[static_cast<std::size_t>(corner)];
            return mySweep.myValues[at];
        };
        const double weight =
            edgeWeight(mySweep.myValues.level(), value(EdgeCorners[e][0]), value(EdgeCorners[e][1]), edge.reversed);
        const auto lower = static_cast<std::size_t>(edge.lower);
        const Extents at = {entry.i + static_cast<std::size_t>(CornerOffset[lower][0]),
                            entry.j + static_cast<std::size_t>(CornerOffset[lower][1]),
                            myLayer + static_cast<std::size_t>(CornerOffset[lower][2])};
        myTarget.points[myNext] = myPositions.onEdge(edge.axis, at, entry.cell + myCorner[lower], myStep, weight);
        if (myTarget.weights) myTarget.weights[myNext] = weight;
        if (myTarget.identifiers) myTarget.identifiers[myNext] = myNumbering(edge.axis, at[0], at[1], at[2]);
        ++myNext;
    }

    const IsoSweep& mySweep;
    const SweepTarget& myTarget;
    const EdgeNumbering& myNumbering;
    const Positions& myPositions;
    std::size_t myLayer;
    index_t myNext;
    Extents myStep;
    std::size_t myCorner[8];
    std::size_t myBegin = 0, myEnd = 0;
    Entry myRing[Capacity];
};

template<class Values>
template<bool Write, class Positions>
void IsoSweep<Values>::fillLayer(std::size_t k, Planes& planes, const SweepTarget& target,
                                 const EdgeNumbering& numbering, const Positions& positions) const {
    const std::size_t plane = mySize[0] * mySize[1];
    const std::uint64_t lastCells = ~std::uint64_t{0} >> (64 * myCellWords - (mySize[0] - 1));
    index_t vertex = target.firstVertex + myLayers[k].firstVertex;
    TriangleCell* triangle = target.triangles + myLayers[k].firstTriangle;
    VertexQueue<Positions> queue(*this, k, target, numbering, positions);
    unsigned int* indices[12] = {};
    std::size_t j = 0, rowEnd = 0; // the row, and the first cell word after it

    const std::vector<std::uint32_t>& words = planes.listActive(*this, k);
    for (std::size_t n = 0; n < words.size(); ++n) {
        if (n + WordsAhead < words.size()) prefetchWord(words[n + WordsAhead], k);
        const std::size_t cellWord = words[n];
        if (cellWord >= rowEnd) {
            j = cellWord / myCellWords;
            rowEnd = (j + 1) * myCellWords;
            planes.indexRows(j, indices);
        }
        const std::size_t word = cellWord + myCellWords - rowEnd;
        const auto classified = [&](std::size_t dj, std::size_t dk) {
            return planes.mask(dk, j + dj, word, [&] { return classify(j + dj, k + dk, word); });
        };
        RowWords around{classified(0, 0), classified(1, 0), classified(0, 1), classified(1, 1)};
        if (word + 1 < myVertexWords) {
            const std::size_t next = row(j, k) + 64 * (word + 1);
            for (unsigned r = 0; r < 4; ++r)
                around.next |= static_cast<unsigned>(myValues.isBelow(next + (r & 1) * mySize[0] + (r >> 1) * plane))
                               << r;
        }
        std::uint64_t cut = around.cut();
        if (word + 1 == myCellWords) cut &= lastCells;
        std::optional<NeighbourWords> neighbours;
        if (myMask) {
            cut &= myMask->cellRow(j, k)[word];
            neighbours.emplace(*myMask, j, k, word);
        }
        const std::uint64_t special = neighbours ? neighbours->missing : 0;

        const int border = (j == 0 ? 2 : 0) + (k == 0 ? 4 : 0);
        const std::size_t rowStart = (k * mySize[1] + j) * mySize[0];
        for (; cut != 0; cut &= cut - 1) {
            const int cell = std::countr_zero(cut);
            const std::size_t i = 64 * word + static_cast<std::size_t>(cell);
            const bool isSpecial = special >> cell & 1; // then all cut edges are looked through
            const CellCase& found =
                Cases[isSpecial ? 7 : static_cast<std::size_t>(border + (i == 0))][around.rowCase(cell)];
            const unsigned shared = isSpecial ? SharedEdges[neighbours->of(cell)] : 0;
            for (int v = 0; v < found.newCount; ++v) {
                const unsigned int e = found.newEdges[v];
                if (shared >> e & 1) continue;
                indices[e][i] = static_cast<unsigned int>(vertex++);
                if constexpr (Write) queue.push(i, j, rowStart + i, e);
            }
            if constexpr (Write)
                for (int t = 0; t < found.triangleCount; ++t)
                    *triangle++ = TriangleCell(indices[found.edges[3 * t]][i], indices[found.edges[3 * t + 1]][i],
                                               indices[found.edges[3 * t + 2]][i]);
        }
        queue.work();
    }
    queue.finish();
}

template<class Values>
template<class Positions>
void IsoSweep<Values>::fillLayers(std::size_t begin, std::size_t end, Planes& planes, const SweepTarget& target,
                                  const EdgeNumbering& numbering, const Positions& positions) const {
    if (begin == end) return;
    if (begin > 0) { // for the indices on the plane below
        fillLayer<false>(begin - 1, planes, target, numbering, positions);
        planes.advance();
    }
    for (std::size_t k = begin; k < end; ++k, planes.advance()) {
        Hestra::Pulse::beat(static_cast<double>(k - begin) / static_cast<double>(end - begin));
        if (myLayers[k + 1].firstTriangle != myLayers[k].firstTriangle)
            fillLayer<true>(k, planes, target, numbering, positions);
    }
}

template<class Values>
template<class Positions>
void IsoSweep<Values>::fill(const SweepTarget& target, const EdgeNumbering& numbering,
                            const Positions& positions) const {
    if (!hasCells() || triangles() == 0) return;
    const std::size_t slabs = slabCount(mySize);
    std::vector<Planes> planes;
    planes.reserve(slabs);
    for (std::size_t slab = 0; slab < slabs; ++slab) planes.emplace_back(*this);

    // Slabs of about as many triangles.
    std::vector<std::size_t> bounds(slabs + 1, layerCount());
    for (std::size_t slab = 0; slab < slabs; ++slab) {
        const auto before = [share = triangles() / slabs * slab](const Layer& layer) {
            return layer.firstTriangle < share;
        };
        bounds[slab] = slab == 0
                           ? 0
                           : static_cast<std::size_t>(
                                 std::partition_point(myLayers.begin(), myLayers.end() - 1, before) - myLayers.begin());
    }
    inParallel(slabs, 1, workOf(mySize), [&](std::size_t slab, std::size_t next) {
        fillLayers(bounds[slab], bounds[next], planes[slab], target, numbering, positions);
    });
}

#define VANTLE_INSTANTIATE_SWEEP(T)                                                                                    \
    template class IsoSweep<StoredValues<T>>;                                                                          \
    template void IsoSweep<StoredValues<T>>::fill(const SweepTarget&, const EdgeNumbering&, const StoredPositions&)    \
        const;                                                                                                         \
    template void IsoSweep<StoredValues<T>>::fill(const SweepTarget&, const EdgeNumbering&, const ProductPositions&)   \
        const;
VANTLE_INSTANTIATE_SWEEP(double)
VANTLE_INSTANTIATE_SWEEP(float)
VANTLE_INSTANTIATE_SWEEP(unsigned char)
VANTLE_INSTANTIATE_SWEEP(short)
VANTLE_INSTANTIATE_SWEEP(unsigned short)
#undef VANTLE_INSTANTIATE_SWEEP
#define VANTLE_INSTANTIATE_CUT(Positions)                                                                              \
    template class IsoSweep<PlaneDistances<Positions>>;                                                                \
    template void IsoSweep<PlaneDistances<Positions>>::fill(const SweepTarget&, const EdgeNumbering&,                  \
                                                            const Positions&) const;
VANTLE_INSTANTIATE_CUT(StoredPositions)
VANTLE_INSTANTIATE_CUT(ProductPositions)
#undef VANTLE_INSTANTIATE_CUT

} // namespace Vantle::detail
