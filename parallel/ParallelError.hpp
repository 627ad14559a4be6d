#pragma once
/// What collective operations throw.

#include <dataset/DataSetError.hpp>

#include <parallel/ParallelExport.hpp>
#include <string>

namespace Vantle {

/// What one rank could not do, thrown by all ranks: `what()` begins with that rank, and goes on with its reason. When
/// several fail at once, all name the lowest.
class VANTLE_PARALLEL_API ParallelError : public DataSetError {
public:
    ParallelError(int rank, const std::string& reason)
        : DataSetError("rank " + std::to_string(rank) + ": " + reason), myRank(rank), myReason(reason) {}
    ~ParallelError() override;

    [[nodiscard]] int rank() const noexcept { return myRank; }
    [[nodiscard]] const std::string& reason() const noexcept { return myReason; }

private:
    int myRank;
    std::string myReason;
};

} // namespace Vantle
