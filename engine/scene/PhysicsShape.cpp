#include "scene/PhysicsShape.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(PhysicsShape, u"Engine", Object)

PhysicsShape::~PhysicsShape() = default;

} // namespace KovexEngine
