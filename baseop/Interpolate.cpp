#include <baseop/Interpolate.hpp>

namespace Vantle {

#define VANTLE_DEFINE_KERNEL(N, T, AFFINE, DELIMITER, D)                                                               \
    template class Interpolate<N, T, LinearIpol<T, AFFINE>, double, DELIMITER, D>;
VANTLE_INTERPOLATION_KERNELS(VANTLE_DEFINE_KERNEL)

} // namespace Vantle
