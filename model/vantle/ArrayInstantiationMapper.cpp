#include <model/vantle/ArrayInstantiation.hpp>

namespace Vantle {

VANTLE_MAPPER_ELEMENT_TYPES(VANTLE_DEFINE_ARRAYS)

} // namespace Vantle
