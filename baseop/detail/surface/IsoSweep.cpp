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

// Cases are numbered here as the bits of four rows of vertices give them: two neighbours of each row.
constexpr int RowCorners[8] = {0, 1, 3, 2, 4, 5, 7, 6};

/// Stands for no edge.
constexpr std::uint8_t NoEdge = 12;

/// One case of a cell at the lower border of some axes (bits 0, 1, 2): its triangles, and the edges that no earlier
/// cell of the sweep has, in the order in which the triangles use them. So that most cells need no loops, three new
/// edges and two triangles may always be taken: `NoEdge`, and the first triangle again, where there are fewer.
struct alignas(32) CellCase {
    std::uint8_t triangleCount = 0;
    std::uint8_t newCount = 0;
    std::uint8_t newEdges[12] = {NoEdge, NoEdge, NoEdge};
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
    if (triTable[cubeCase][3] < 0) std::copy_n(result.edges, 3, result.edges + 3);
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

template<class T>
StoredValues<T>::StoredValues(const MultiArray<3, T>& data, double level, const ValueBricks<T>* bricks)
    : mySize(data.Size()), myValues(data.data()), myStride(static_cast<std::size_t>(data.stride())), myLevel(level),
      myTest(level), myWords((static_cast<std::size_t>(mySize[0]) + 63) / 64) {
    if (bricks) ask(*bricks);
}

/// Notes what bricks tell of their vertices, unless most would have to be read anyway.
template<class T>
void StoredValues<T>::ask(const ValueBricks<T>& bricks) {
    constexpr std::size_t Group = ValueBricks<T>::Side, InWord = 64 / Group;
    const auto row = static_cast<std::size_t>(mySize[0]);
    const std::size_t inRow = static_cast<std::size_t>(bricks.Size()[0]), rows = bricks.least().size() / inRow;
    const std::size_t groups = (row + Group - 1) / Group; // the last vertex of a brick may be all of a group
    std::size_t cut = 0, cutWords = 0;
    myKnown.assign(rows * myWords, KnownWord{0, 0});
    for (std::size_t r = 0; r < rows; ++r) {
        KnownWord* const words = myKnown.data() + r * myWords;
        for (std::size_t g = 0; g < groups; ++g) {
            const std::size_t brick = r * inRow + std::min(g, inRow - 1);
            const bool isSomeBelow = myTest.below(bricks.least()[brick]);
            const bool isAllBelow = myTest.below(bricks.greatest()[brick]);
            const std::uint64_t ones = std::uint64_t{0xff} << (Group * (g % InWord));
            if (isSomeBelow != isAllBelow) words[g / InWord].toRead |= ones, ++cut;
            if (isAllBelow) words[g / InWord].below |= ones;
        }
        if (row % 64 != 0) words[myWords - 1].below &= ~(~std::uint64_t{0} << (row % 64));
    }
    if (2 * cut > rows * groups) return myKnown.clear();
    for (const KnownWord& word : myKnown) cutWords += word.toRead != 0;
    myMostCutWords = Group * Group * cutWords;
    myBricks = {static_cast<std::size_t>(bricks.Size()[1]), static_cast<std::size_t>(bricks.Size()[2])};
}

template<class T>
void StoredValues<T>::classifyPlane(std::size_t k, std::uint64_t* words, std::size_t wordStep) const noexcept {
    const auto count = static_cast<std::size_t>(mySize[0]), rows = static_cast<std::size_t>(mySize[1]);
    const auto layers = static_cast<std::size_t>(mySize[2]);
    const T* const plane = myValues + k * rows * count * myStride;
    if (myStride != 1) {
        T gathered[64];
        for (std::size_t j = 0; j < rows; ++j)
            for (std::size_t word = 0; word < myWords; ++word) {
                const std::size_t some = std::min<std::size_t>(64, count - 64 * word);
                for (std::size_t i = 0; i < some; ++i) gathered[i] = plane[(j * count + 64 * word + i) * myStride];
                classifyRows(myTest, ValueRows<T>{gathered, some}, nullptr, words + j * wordStep + word, wordStep);
            }
        return;
    }
    if (myKnown.empty()) return classifyRows(myTest, ValueRows<T>{plane, count, rows, count}, nullptr, words, wordStep);
    constexpr std::size_t Side = ValueBricks<T>::Side;
    for (std::size_t b = 0; b < myBricks[0]; ++b) {
        const std::size_t begin = Side * b, end = b + 1 < myBricks[0] ? begin + Side : rows;
        classifyRows(myTest, ValueRows<T>{plane + begin * count, count, end - begin, count},
                     known(b, std::min(k / Side, myBricks[1] - 1)), words + begin * wordStep, wordStep,
                     k + 1 < layers ? count * rows : 0);
    }
}

/// What a thread remembers of two planes of vertices: indices of surface vertices on the edges.
template<class Values>
class IsoSweep<Values>::Planes {
public:
    explicit Planes(const IsoSweep& sweep)
        : myRow(sweep.mySize[0]), myPlane(sweep.mySize[0] * sweep.mySize[1]),
          myIndices(std::make_unique_for_overwrite<unsigned int[]>(4 * myPlane + 3 * myRow)) {}

    /// Makes the upper plane the lower one and forgets the other.
    void advance() noexcept { myLower ^= 1; }
    /// For each edge e of the cells of row j, where the index for cell 0 of the row is kept; at last, for `NoEdge`.
    void indexRows(std::size_t j, unsigned int* (&rows)[13]) const noexcept {
        unsigned int* const lower = myIndices.get() + 2 * myLower * myPlane;
        unsigned int* const upper = myIndices.get() + 2 * (myLower ^ 1) * myPlane;
        unsigned int* const z = myIndices.get() + 4 * myPlane;
        unsigned int* const x0 = lower + j * myRow;
        unsigned int* const x1 = upper + j * myRow;
        unsigned int *const y0 = x0 + myPlane, *const y1 = x1 + myPlane;
        unsigned int *const z0 = z + (j & 1) * myRow, *const z1 = z + ((j & 1) ^ 1) * myRow;
        unsigned int* const all[13] = {x0, y0 + 1, x0 + myRow, y0,     x1, y1 + 1,       x1 + myRow,
                                       y1, z0,     z0 + 1,     z1 + 1, z1, z + 2 * myRow};
        std::copy_n(all, 13, rows);
    }

private:
    std::size_t myRow, myPlane;
    std::unique_ptr<unsigned int[]> myIndices;
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
    myLayers.resize(layerCount() + 1);

    const std::size_t slabs = slabCount(mySize), plane = 2 * (myVertexWords + 1) * mySize[1];
    const auto masks = std::make_unique<std::uint64_t[]>(slabs * plane);
    myCutWords.resize(slabs);
    inParallel(slabs, 1, workOf(mySize), [&](std::size_t slab, std::size_t next) {
        countLayers(layerCount() * slab / slabs, layerCount() * next / slabs, masks.get() + slab * plane,
                    myCutWords[slab]);
    });

    for (std::size_t k = 1; k < myLayers.size(); ++k) {
        myLayers[k].firstVertex += myLayers[k - 1].firstVertex;
        myLayers[k].firstTriangle += myLayers[k - 1].firstTriangle;
    }
}

// Leaves what layer k adds in myLayers[k + 1]. Rows of masks end with an empty word, so that every word has a next one.
template<class Values>
void IsoSweep<Values>::countLayers(std::size_t begin, std::size_t end, std::uint64_t* masks,
                                   std::vector<CutWord>& cutWords) {
    if (begin == end) return;
    const std::size_t words = myVertexWords + 1, rows = mySize[1] - 1;
    const std::uint64_t lastCells = ~std::uint64_t{0} >> (64 * myCellWords - (mySize[0] - 1));
    std::uint64_t *lower = masks, *upper = masks + words * mySize[1];
    std::vector<std::size_t> firstWords;
    // What is not used of it is never touched.
    cutWords.reserve(myValues.mostCutWords() * (end - begin) / layerCount());
    myValues.classifyPlane(begin, lower, words);
    for (std::size_t k = begin; k < end; ++k, std::swap(lower, upper)) {
        Hestra::Pulse::beat(static_cast<double>(k - begin) / static_cast<double>(end - begin));
        myValues.classifyPlane(k + 1, upper, words);
        firstWords.push_back(cutWords.size());
        Layer added;
        for (std::size_t j = 0; j < rows; ++j) {
            const int border = (j == 0 ? 2 : 0) + (k == 0 ? 4 : 0);
            const std::uint64_t *const a = lower + j * words, *const b = a + words;
            const std::uint64_t *const c = upper + j * words, *const d = c + words;
            for (std::size_t word = 0; word < myCellWords; ++word) {
                if (myValues.isUncut(j, k, word)) continue;
                const RowWords around{a[word], b[word], c[word], d[word],
                                      static_cast<unsigned>((a[word + 1] & 1) | (b[word + 1] & 1) << 1 |
                                                            (c[word + 1] & 1) << 2 | (d[word + 1] & 1) << 3)};
                std::uint64_t cut = around.cut();
                if (word + 1 == myCellWords) cut &= lastCells;
                if (cut == 0) continue;
                if (myMask && (cut &= myMask->cellRow(j, k)[word]) == 0) continue;
                cutWords.push_back({around, static_cast<std::uint32_t>(j * myCellWords + word), cut});
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
        myLayers[k + 1].firstVertex = added.firstVertex;
        myLayers[k + 1].firstTriangle = added.firstTriangle;
    }
    firstWords.push_back(cutWords.size());
    for (std::size_t k = begin; k < end; ++k)
        myLayers[k].cutWords = {cutWords.data() + firstWords[k - begin], cutWords.data() + firstWords[k - begin + 1]};
}

/// Evaluates the vertices of a layer some time after they were found, when what they need has come from memory.
template<class Values>
template<class Positions>
class IsoSweep<Values>::VertexQueue {
public:
    VertexQueue(const IsoSweep& sweep, std::size_t k, const SweepTarget& target, const EdgeNumbering& numbering,
                const Positions& positions)
        : mySweep(sweep), myTarget(target), myPositions(positions), myLayer(k),
          myNext(sweep.myLayers[k].firstVertex), myStep{1, sweep.mySize[0], sweep.mySize[0] * sweep.mySize[1]} {
        const auto corner = [this](int c) {
            std::size_t at = 0;
            for (std::size_t d = 0; d < 3; ++d) at += static_cast<std::size_t>(CornerOffset[c][d]) * myStep[d];
            return at;
        };
        for (std::size_t e = 0; e < 12; ++e) {
            const EdgeGeometry& geometry = edgeGeometry[e];
            const auto axis = static_cast<std::size_t>(geometry.axis);
            const int* const offset = CornerOffset[geometry.lower];
            const auto at = [offset](int d) { return static_cast<std::size_t>(offset[d]); };
            myEdges[e] = {corner(EdgeCorners[e][0]),
                          corner(EdgeCorners[e][1]),
                          corner(geometry.lower),
                          {at(0), at(1), at(2)},
                          geometry.axis,
                          geometry.reversed,
                          numbering(geometry.axis, at(0), at(1), k + at(2)),
                          numbering.strideY[axis]};
        }
    }

    /// Puts down the vertex on edge e of the cell at (i, j), of which `cell` is the lowest vertex, as the `n`-th of
    /// those that `add` adds.
    void put(std::size_t n, std::size_t i, std::size_t j, std::size_t cell, unsigned int e) noexcept {
        myRing[(myEnd + n) % Capacity] = {cell, static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(j), e};
    }
    void add(std::size_t count) noexcept { myEnd += count; }
    /// Asks for what those that were added will need, and evaluates all but the last ones.
    void work() noexcept {
        for (; myAsked != myEnd; ++myAsked) {
            const Entry& entry = myRing[myAsked % Capacity];
            const Edge& edge = myEdges[entry.e];
            const std::size_t lower = entry.cell + edge.lower;
            const std::size_t upper = lower + myStep[static_cast<std::size_t>(edge.axis)];
            mySweep.myValues.prefetch(lower);
            mySweep.myValues.prefetch(upper);
            myPositions.prefetch(lower, upper);
            if (myAsked - myBegin >= Delay) evaluate();
        }
    }
    void finish() noexcept {
        while (myEnd != myBegin) evaluate();
    }

private:
    // A word of cells adds at most 64 * 12 vertices.
    static constexpr std::size_t Capacity = 1024, Delay = 32;
    struct Entry {
        std::size_t cell;
        std::uint32_t i, j;
        unsigned int e;
    };
    /// What is the same for an edge of all cells of the layer, by steps from their lowest vertex.
    struct Edge {
        std::size_t first, second; // in the order in which weights are computed
        std::size_t lower;
        Extents offset; // of the lower end
        int axis;
        bool reversed;
        index_t identifier, strideY;
    };

    void evaluate() noexcept {
        const Entry& entry = myRing[myBegin++ % Capacity];
        const Edge& edge = myEdges[entry.e];
        const auto& values = mySweep.myValues;
        const double weight = edgeWeight(values.level(), values[entry.cell + edge.first],
                                         values[entry.cell + edge.second], edge.reversed);
        const Extents at = {entry.i + edge.offset[0], entry.j + edge.offset[1], myLayer + edge.offset[2]};
        myTarget.points[myNext] = myPositions.onEdge(edge.axis, at, entry.cell + edge.lower, myStep, weight);
        if (myTarget.weights) myTarget.weights[myNext] = weight;
        if (myTarget.identifiers) myTarget.identifiers[myNext] = edge.identifier + entry.i + entry.j * edge.strideY;
        ++myNext;
    }

    const IsoSweep& mySweep;
    const SweepTarget& myTarget;
    const Positions& myPositions;
    std::size_t myLayer;
    index_t myNext;
    Extents myStep;
    Edge myEdges[12];
    std::size_t myBegin = 0, myAsked = 0, myEnd = 0;
    Entry myRing[Capacity];
};

template<class Values>
template<bool Write, class Positions>
void IsoSweep<Values>::fillLayer(std::size_t k, Planes& planes, const SweepTarget& target,
                                 const EdgeNumbering& numbering, const Positions& positions,
                                 [[maybe_unused]] const TriangleCell* end) const {
    index_t vertex = target.firstVertex + myLayers[k].firstVertex;
    [[maybe_unused]] TriangleCell* triangle = target.triangles + myLayers[k].firstTriangle;
    VertexQueue<Positions> queue(*this, k, target, numbering, positions);
    unsigned int* indices[13] = {};
    std::size_t j = 0, rowEnd = 0; // the row, and the first cell word after it

    for (const CutWord& found : myLayers[k].cutWords) {
        if (found.number >= rowEnd) {
            j = found.number / myCellWords;
            rowEnd = (j + 1) * myCellWords;
            planes.indexRows(j, indices);
        }
        const std::size_t word = found.number + myCellWords - rowEnd;
        std::optional<NeighbourWords> neighbours;
        if (myMask) neighbours.emplace(*myMask, j, k, word);
        const std::uint64_t special = neighbours ? neighbours->missing : 0;

        const int border = (j == 0 ? 2 : 0) + (k == 0 ? 4 : 0);
        const std::size_t rowStart = (k * mySize[1] + j) * mySize[0];
        for (std::uint64_t cut = found.cut; cut != 0; cut &= cut - 1) {
            const int cell = std::countr_zero(cut);
            const std::size_t i = 64 * word + static_cast<std::size_t>(cell);
            const bool isSpecial = special >> cell & 1; // then all cut edges are looked through
            const CellCase& cellCase =
                Cases[isSpecial ? 7 : static_cast<std::size_t>(border + (i == 0))][found.around.rowCase(cell)];
            std::size_t added = 0;
            const auto addVertex = [&](std::size_t n, unsigned int e) {
                indices[e][i] = static_cast<unsigned int>(vertex + n);
                if constexpr (Write) queue.put(n, i, j, rowStart + i, e);
            };
            if (isSpecial) {
                const unsigned shared = SharedEdges[neighbours->of(cell)];
                for (int v = 0; v < cellCase.newCount; ++v)
                    if (!(shared >> cellCase.newEdges[v] & 1)) addVertex(added++, cellCase.newEdges[v]);
            } else {
                for (std::size_t v = 0; v < 3; ++v) addVertex(v, cellCase.newEdges[v]);
                added = cellCase.newCount;
                for (std::size_t v = 3; v < added; ++v) addVertex(v, cellCase.newEdges[v]);
            }
            vertex += added;
            if constexpr (Write) {
                queue.add(added);
                const auto corners = [&](int t) {
                    return TriangleCell(indices[cellCase.edges[3 * t]][i], indices[cellCase.edges[3 * t + 1]][i],
                                        indices[cellCase.edges[3 * t + 2]][i]);
                };
                triangle[0] = corners(0);
                if (triangle + 1 != end) [[likely]]
                    triangle[1] = corners(1); // overwritten, if there is only one
                for (int t = 2; t < cellCase.triangleCount; ++t) triangle[t] = corners(t);
                triangle += cellCase.triangleCount;
            }
        }
        if constexpr (Write) queue.work();
    }
    if constexpr (Write) queue.finish();
}

template<class Values>
template<class Positions>
void IsoSweep<Values>::fillLayers(std::size_t begin, std::size_t end, Planes& planes, const SweepTarget& target,
                                  const EdgeNumbering& numbering, const Positions& positions) const {
    if (begin == end) return;
    const TriangleCell* const last = target.triangles + myLayers[end].firstTriangle;
    if (begin > 0) { // for the indices on the plane below
        fillLayer<false>(begin - 1, planes, target, numbering, positions, last);
        planes.advance();
    }
    for (std::size_t k = begin; k < end; ++k, planes.advance()) {
        Hestra::Pulse::beat(static_cast<double>(k - begin) / static_cast<double>(end - begin));
        if (myLayers[k + 1].firstTriangle != myLayers[k].firstTriangle)
            fillLayer<true>(k, planes, target, numbering, positions, last);
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
    template class StoredValues<T>;                                                                                    \
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
