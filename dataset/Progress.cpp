#include <dataset/Progress.hpp>

namespace Vantle {

Cancelled::~Cancelled() = default; // here, so that it is one class for all libraries

} // namespace Vantle
