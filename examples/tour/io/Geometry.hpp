#pragma once

/// The plain geometric values that writers and pictures take.

#include <array>

namespace tour {

using Point3 = std::array<double, 3>;
using Triangle = std::array<unsigned long long, 3>; ///< Indices of three points, counted from 0.
using Extents = std::array<int, 3>;                 ///< Numbers of vertices along i, j, k; i is the fastest.

} // namespace tour
