#pragma once

#include "math/Plane.h"

namespace KovexEngine {

class Aabb;
class Matrix4;
class Sphere;

// Six planes whose fronts face inwards.
class KOVEX_API Frustum
{
public:
    enum { LEFT, RIGHT, BOTTOM, TOP, NEAR_PLANE, FAR_PLANE, PLANE_COUNT };

    Plane planes[PLANE_COUNT];

    // From a view-projection matrix whose clip depth runs from 0 to 1.
    void FromMatrix(const Matrix4& viewProjection);

    enum Result { OUTSIDE = 0, INTERSECTS = 1, INSIDE = 2 };
    bool Contains(const Vector3& p) const;
    Result Test(const Aabb& box) const;
    Result Test(const Sphere& sphere) const;
};

} // namespace KovexEngine
