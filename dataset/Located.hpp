#pragma once
/// Positions that a data set has located, and values of its fields there.

#include <dataset/Progress.hpp>
#include <dataset/Values.hpp>
#include <model/hestra/Freshness.hpp>

#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Vantle {

class DataSet;
class LocatedPositions;

/// Values at positions, and where there are any. A handle: copies share everything.
class VANTLE_DATASET_API Samples : public Values {
public:
    Samples() = default;
    Samples(const Hestra::StrongPtr<MemBase>& values, std::shared_ptr<const std::vector<unsigned char>> mask);

    /// 1 where a block has the position and the field, else 0.
    [[nodiscard]] std::span<const unsigned char> mask() const noexcept;
    /// Not checked.
    [[nodiscard]] bool isFound(std::size_t k) const noexcept { return mask()[k] != 0; }

private:
    std::shared_ptr<const std::vector<unsigned char>> myMask;
};

/// Where positions are, to ask for values there as often as wanted. Keeps the data set, as it was, alive.
///
/// Concurrency  never changed: any number of threads may take samples.
class VANTLE_DATASET_API Located {
public:
    /// The number of the block of a position that is in none.
    static constexpr std::uint32_t Nowhere = ~std::uint32_t{0};

    [[nodiscard]] std::size_t size() const noexcept;
    /// How many were found.
    [[nodiscard]] std::size_t found() const noexcept;
    /// The block of each position, as numbered by `DataSet::blocks`, or `Nowhere`.
    [[nodiscard]] std::span<const std::uint32_t> blocks() const noexcept;
    /// Local coordinates in that block: vertex (i, j, k) is at (i, j, k); NaN where there is none.
    [[nodiscard]] std::span<const Point> places() const noexcept;
    /// Not checked.
    [[nodiscard]] bool isFound(std::size_t k) const noexcept { return blocks()[k] != Nowhere; }

    /// The values of a field at the positions, and `outside` where there is no block or no field.
    ///
    /// Failure  DataSetError for an unknown field, and when blocks have changed since the positions were located.
    [[nodiscard]] Samples sample(const std::string& field, double outside = std::numeric_limits<double>::quiet_NaN(),
                                 const Progress& progress = {}) const;
    /// The same positions at another time, as by `DataSet::atTime`. Failure: DataSetError when blocks have other
    /// positions or masks then: these have to be located again.
    [[nodiscard]] Located atTime(double time) const;

private:
    friend class DataSet;
    Located(std::shared_ptr<const LocatedPositions> positions, const DataSet& of);

    std::shared_ptr<const LocatedPositions> myPositions;
    std::shared_ptr<const DataSet> myDataSet; // looking at the time that samples are of
    Hestra::Freshness myOrigin;
};

} // namespace Vantle
