#include <model/orvix/BoundingBox.hpp>

namespace Orvix {

BoundingBall::~BoundingBall() = default;
BoundingBox::~BoundingBox() = default;

} // namespace Orvix
