#include <model/vantle/ArrayInstantiation.hpp>

namespace Vantle {

VANTLE_UNREGISTERED_ELEMENT_TYPES(VANTLE_DEFINE_ARRAYS)

} // namespace Vantle
