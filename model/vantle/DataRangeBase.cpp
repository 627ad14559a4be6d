#include <model/vantle/DataRangeBase.hpp>

namespace Vantle {

DataRangeBase::DataRangeBase() = default;
DataRangeBase::~DataRangeBase() = default;

} // namespace Vantle
