#pragma once
/// Positions that the blocks of all ranks have been searched for.

#include <dataset/Located.hpp>

#include <limits>
#include <memory>
#include <parallel/ParallelError.hpp>
#include <span>
#include <string>

namespace Vantle {

namespace detail {
struct LocatedParts;
}

/// Where the positions of this rank are among the blocks of all ranks, to ask for values there as often as wanted.
///
/// Concurrency  never changed. `sample` is collective; everything else is this rank's own affair.
class VANTLE_PARALLEL_API ParallelLocated {
public:
    static constexpr std::uint32_t Nowhere = Located::Nowhere;

    explicit ParallelLocated(std::shared_ptr<const detail::LocatedParts> parts);

    // Of the positions of this rank.
    [[nodiscard]] std::size_t size() const noexcept;
    [[nodiscard]] std::size_t found() const noexcept;
    /// The block of each position, as numbered by `ParallelDataSet::blocks`, or `Nowhere`.
    [[nodiscard]] std::span<const std::uint32_t> blocks() const noexcept;
    /// Local coordinates in that block; NaN where there is none.
    [[nodiscard]] std::span<const Point> places() const noexcept;
    /// Not checked.
    [[nodiscard]] bool isFound(std::size_t k) const noexcept { return blocks()[k] != Nowhere; }

    /// The values of a field at the positions of this rank, and `outside` where there is no block or no field.
    /// Collective.
    ///
    /// Failure  ParallelError for an unknown field.
    [[nodiscard]] Samples sample(const std::string& field, double outside = std::numeric_limits<double>::quiet_NaN(),
                                 const Progress& progress = {}) const;

private:
    std::shared_ptr<const detail::LocatedParts> myParts;
};

} // namespace Vantle
