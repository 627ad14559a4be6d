#pragma once
/// The exception of the data set layer.

#include <dataset/DataSetExport.hpp>

#include <stdexcept>

namespace Vantle {

/// A request that cannot be met. `what()` is one line that names what it is about, block, field, time and sizes as they
/// matter, and says what there is instead. Whatever it was thrown by has changed nothing.
class VANTLE_DATASET_API DataSetError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~DataSetError() override;
};

/// A request by a name that there is not. `what()` lists those that there are, the nearest first.
class VANTLE_DATASET_API UnknownName : public DataSetError {
public:
    using DataSetError::DataSetError;
    ~UnknownName() override;
};

} // namespace Vantle
