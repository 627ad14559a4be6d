#pragma once
/// The one exception of the data set layer.

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

} // namespace Vantle
