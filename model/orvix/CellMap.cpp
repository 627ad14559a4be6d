#include <model/orvix/CellMap.hpp>

namespace Orvix {

const char* DegeneratedMatrix::what() const noexcept { return "Matrix is degenerated and has no inverse"; }

} // namespace Orvix
