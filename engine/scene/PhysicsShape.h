#pragma once

#include "reflection/Object.h"

namespace KovexEngine {

// A collision shape held by a node. The physics layer derives the real
// shapes; the scene only holds, saves and loads them.
class KOVEX_API PhysicsShape : public Object
{
    KOVEX_CLASS(PhysicsShape)

public:
    PhysicsShape() = default;
    ~PhysicsShape() override;
};

} // namespace KovexEngine
