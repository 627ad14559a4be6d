#pragma once
/// What collective operations throw.

#include <dataset/DataSetError.hpp>

#include <exception>
#include <parallel/ParallelExport.hpp>
#include <string>
#include <utility>

namespace Vantle {

/// What one rank could not do, thrown by all ranks: `what()` begins with that rank, and goes on with its reason. When
/// several fail at once, all name the lowest.
class VANTLE_PARALLEL_API ParallelError : public DataSetError {
public:
    /// What that rank has thrown: `UnknownName`, `OutOfMemory` (or std::bad_alloc), `FileError`, whatever a function of
    /// the caller's did that was told of progress, or something else.
    enum class Kind : char { Name = 'n', Memory = 'm', File = 'f', Caller = 'p', Other = 'e' };

    ParallelError(int rank, const std::string& reason, Kind kind = Kind::Other, std::exception_ptr cause = nullptr)
        : DataSetError("rank " + std::to_string(rank) + ": " + reason), myRank(rank), myReason(reason), myKind(kind),
          myCause(std::move(cause)) {}
    ~ParallelError() override;

    [[nodiscard]] int rank() const noexcept { return myRank; }
    [[nodiscard]] const std::string& reason() const noexcept { return myReason; }
    [[nodiscard]] Kind kind() const noexcept { return myKind; }
    /// On that rank what it has thrown, on all others null.
    [[nodiscard]] const std::exception_ptr& cause() const noexcept { return myCause; }

private:
    int myRank;
    std::string myReason;
    Kind myKind;
    std::exception_ptr myCause;
};

} // namespace Vantle
