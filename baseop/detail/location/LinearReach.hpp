#pragma once
/// Where the linear solve in a cell can answer: what lets `UniGridMapper` skip all other cells of a list.

#include <baseop/detail/location/BlockVertices.hpp>
#include <baseop/detail/location/CellBoxTree.hpp>

namespace Vantle::detail {

/// What a block's cells need to be judged by.
struct LinearReachParameters {
    double precision = 0.0; // distance at which a solve ends; its square is finite
    double farthest = 0.0;  // largest absolute coordinate of the block
    Orvix::PhysicalSpace::vector unicellSize;
};

/// The points at which the solve in each cell may have an effect, beyond leaving the cell with an iterate of no
/// interest.
///
/// From the cell's centre the first step ends at c + inverse(J) (P - x(c)), with c the centre's coordinates, x(c) its
/// image and J the derivatives there. All further steps start within the cell, so only points of the parallelepiped
/// x(c) + J d, |d_i| <= 1/2, or within the precision of x(c), can be found, need a second step, or print anything. A
/// near miss at the first step has -1/2 <= d_i < 3/2, in the last cell of an axis no more than 1/2 + `Rim`.
///
/// Cells without a trustworthy J (degenerate, nearly so, or beyond the range of numbers) get the box of all points
/// whose unicell may list them. So does cell (0, 0, 0), whose near misses have no bound below. Cells with corners that
/// are not finite never have an effect.
class LinearReach final : public CellBoxTree::Shapes {
public:
    enum class Effect {
        Any,      ///< found, a further step, or a message
        NearMiss, ///< a near miss at the first step
    };

    /// Near misses farther out of the block than this, in cells, are not looked for.
    static constexpr double Rim = 0.25;

    LinearReach(const BlockVertices& vertices, const CellBoxTree& tree, Effect effect,
                const LinearReachParameters& parameters);

    [[nodiscard]] int edges() const noexcept override { return 3; }
    [[nodiscard]] Orvix::PhysicalSpace::vector leastHalfWidth() const noexcept override {
        const double least = myEffect == Effect::Any ? myParameters.precision : 0.0;
        return {least, least, least};
    }
    void fill(std::size_t j, std::size_t k, const CellBoxTree::Row& row) override;
    [[nodiscard]] std::unique_ptr<Shapes> clone() const override { return std::make_unique<LinearReach>(*this); }

private:
    void fillFromUnicells(std::size_t i, std::size_t j, std::size_t k, const CellBoxTree::Row& row) const;

    const BlockVertices myVertices;
    const CellBoxTree* myTree;
    Effect myEffect;
    LinearReachParameters myParameters;
    double myRounding; // bound of the rounding errors of positions
    std::size_t myPitch;
    std::vector<double> mySums, myRows;
    std::vector<float> myTrusted;
};

} // namespace Vantle::detail
