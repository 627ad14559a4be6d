#include <baseop/ExactCellLocator.hpp>
#include <baseop/detail/CellBoxTree.hpp>
#include <baseop/detail/TrilinearCell.hpp>
#include <model/hestra/Profiler.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

#define VANTLE_SCOPE(signature)                                                                                        \
    const Hestra::Profiler profiler("baseop/ExactCellLocator", __LINE__, signature, __PRETTY_FUNCTION__)

namespace Vantle {

namespace {

using detail::BlockVertices;
using detail::CellBoxTree;
using detail::TrilinearCell;

/// The boxes of the cells' corners, widened by more than the tolerance of a solution. None for cells with a corner that
/// is no number.
class CornerBoxes final : public CellBoxTree::Boxes {
public:
    CornerBoxes(const BlockVertices& vertices, const CellBoxTree& tree)
        : myVertices(vertices), myTree(&tree), myBounds(6 * static_cast<std::size_t>(vertices.size()[0])) {}

    void fill(std::size_t j, std::size_t k, const CellBoxTree::Row& row) override {
        const auto n = static_cast<std::size_t>(myVertices.size()[0]);
        const std::size_t step = myVertices.step(0);
        const double* const p00 = myVertices.address(0, j, k);
        const double* const p10 = myVertices.address(0, j + 1, k);
        const double* const p01 = myVertices.address(0, j, k + 1);
        const double* const p11 = myVertices.address(0, j + 1, k + 1);
        double* const low = myBounds.data();
        double* const high = low + 3 * n;
        for (std::size_t d = 0; d < 3; ++d)
            for (std::size_t i = 0; i < n; ++i) {
                const double a = p00[i * step + d], b = p10[i * step + d], c = p01[i * step + d], e = p11[i * step + d];
                const double check = (a * 0.0 + b * 0.0) + (c * 0.0 + e * 0.0); // NaN where one is no number
                low[d * n + i] = std::min(std::min(a, b), std::min(c, e)) + check;
                high[d * n + i] = std::max(std::max(a, b), std::max(c, e)) + check;
            }
        for (std::size_t i = 0; i + 1 < n; ++i) {
            double from[3], to[3], sides = 0.0;
            for (std::size_t d = 0; d < 3; ++d) {
                from[d] = smaller(low[d * n + i], low[d * n + i + 1]);
                to[d] = larger(high[d * n + i], high[d * n + i + 1]);
                sides += to[d] - from[d];
            }
            const double slack = 4.0 * TrilinearCell::Tolerance * sides; // NaN if any bound is
            for (std::size_t d = 0; d < 3; ++d) {
                row.low[d][i] = myTree->toFloat(from[d] - slack, static_cast<int>(d));
                row.high[d][i] = myTree->toFloat(to[d] + slack, static_cast<int>(d));
            }
        }
    }
    [[nodiscard]] std::unique_ptr<Boxes> clone() const override { return std::make_unique<CornerBoxes>(*this); }

private:
    // NaN of either argument comes through.
    static double smaller(double a, double b) noexcept { return a < b ? a + b * 0.0 : b + a * 0.0; }
    static double larger(double a, double b) noexcept { return a > b ? a + b * 0.0 : b + a * 0.0; }

    const BlockVertices myVertices;
    const CellBoxTree* myTree;
    std::vector<double> myBounds;
};

/// Solves in one cell; false, with `uvw` untouched, when it has no such point.
bool solve(const BlockVertices& vertices, const MultiIndex<3>& cell, const Orvix::PhysicalSpace::point& P,
           Orvix::PhysicalSpace::point& uvw) noexcept {
    Orvix::PhysicalSpace::vector local;
    if (!TrilinearCell(vertices, vertices.address(cell), P).solve(local)) return false;
    for (int d = 0; d < 3; ++d) uvw[d] = static_cast<double>(cell[d]) + (local[d] + 0.5);
    return true;
}

} // namespace

struct ExactCellLocator::Search {
    BlockVertices vertices;
    double lowest[3] = {}, highest[3] = {}; // of all positions that may be found
    CellBoxTree tree;

    explicit Search(const MultiArrayBase<3, point>& view) : vertices(view) {
        if (vertices.cells().product() == 0) return;
        const std::size_t step = vertices.step(0);
        constexpr double infinite = std::numeric_limits<double>::infinity();
        for (int d = 0; d < 3; ++d) {
            lowest[d] = infinite;
            highest[d] = -infinite;
        }
        for (index_t k = 0; k < vertices.size()[2]; ++k)
            for (index_t j = 0; j < vertices.size()[1]; ++j) {
                const double* at = vertices.address(0, j, k);
                for (index_t i = 0; i < vertices.size()[0]; ++i, at += step)
                    for (int d = 0; d < 3; ++d) {
                        const double x = at[d] * 0.0 == 0.0 ? at[d] : lowest[d];
                        lowest[d] = std::min(lowest[d], x);
                        highest[d] = std::max(highest[d], at[d] * 0.0 == 0.0 ? at[d] : highest[d]);
                    }
            }
        double sides = 0.0;
        for (int d = 0; d < 3; ++d) sides += std::max(highest[d] - lowest[d], 0.0);
        tree = CellBoxTree(vertices.cells(), point(lowest[0], lowest[1], lowest[2]),
                           point(highest[0], highest[1], highest[2]));
        tree.build(CornerBoxes(vertices, tree));
        for (int d = 0; d < 3; ++d) {
            lowest[d] -= 4.0 * TrilinearCell::Tolerance * sides;
            highest[d] += 4.0 * TrilinearCell::Tolerance * sides;
        }
    }
    [[nodiscard]] bool canHave(const point& P) const noexcept {
        return P[0] >= lowest[0] && P[0] <= highest[0] && P[1] >= lowest[1] && P[1] <= highest[1] &&
               P[2] >= lowest[2] && P[2] <= highest[2];
    }
};

ExactCellLocator::ExactCellLocator(const Hestra::StrongPtr<CoordsArray_t>& coordinates) : myCoordinates(coordinates) {
    VANTLE_SCOPE("ExactCellLocator::ExactCellLocator()");
    mySearch = std::make_unique<const Search>(coordinates ? *coordinates : MultiArrayBase<3, point>());
}

ExactCellLocator::~ExactCellLocator() = default;

unsigned int ExactCellLocator::locate(const point& P, point& uvw, MultiIndex3* cell) const {
    VANTLE_SCOPE("ExactCellLocator::locate(P, uvw)");
    const Search& search = *mySearch;
    if (!search.canHave(P)) return 0;
    // Cells in their order: the first that has the point is the one. Beyond what there is room for, which takes many
    // cells in one place, a second search goes on behind the last one.
    constexpr std::size_t Capacity = 64;
    struct Candidate {
        MultiIndex3 cell;
        index_t number;
    };
    Candidate candidates[Capacity];
    const MultiIndex3& cells = search.vertices.cells();
    for (index_t begin = 0;;) {
        std::size_t count = 0;
        bool isAll = true;
        search.tree.forEachAt(P, [&](index_t i, index_t j, index_t k) {
            const index_t number = i + cells[0] * (j + cells[1] * k);
            if (number < begin) return;
            search.vertices.prefetchCell(search.vertices.address(i, j, k));
            std::size_t at = count;
            if (count == Capacity) {
                isAll = false;
                if (number > candidates[Capacity - 1].number) return;
                --at;
            } else {
                ++count;
            }
            for (; at > 0 && candidates[at - 1].number > number; --at) candidates[at] = candidates[at - 1];
            candidates[at] = {MultiIndex3(i, j, k), number};
        });
        for (std::size_t c = 0; c < count; ++c) {
            if (!solve(search.vertices, candidates[c].cell, P, uvw)) continue;
            if (cell) *cell = candidates[c].cell;
            return 1;
        }
        if (isAll) return 0;
        begin = candidates[Capacity - 1].number + 1;
    }
}

bool ExactCellLocator::localInCell(const point& P, const MultiIndex3& cell, point& uvw) const {
    return cell.inside(mySearch->vertices.cells()) && solve(mySearch->vertices, cell, P, uvw);
}

} // namespace Vantle
