#pragma once

#include "kernel/ReflectedStruct.h"

#include "math/Vector.h"

namespace KovexEngine {

class Aabb;
class Sphere;

// The points p with normal · p + d = 0; the normal points to the front.
class KOVEX_API Plane
{
    KOVEX_STRUCT(Plane)

public:
    Vector3 normal{0, 1, 0};
    float d = 0;

    Plane() = default;
    Plane(const Vector3& n, float d_) : normal(n), d(d_) {}
    Plane(float a, float b, float c, float d_) : normal(a, b, c), d(d_) {}
    static Plane FromPointNormal(const Vector3& point, const Vector3& n) { return {n, -n.Dot(point)}; }
    // Counter-clockwise points seen from the front.
    static Plane FromPoints(const Vector3& a, const Vector3& b, const Vector3& c);

    bool operator==(const Plane& o) const { return normal == o.normal && d == o.d; }
    float Distance(const Vector3& p) const { return normal.Dot(p) + d; }
    // Scales to a unit normal; a degenerate plane is left as it is.
    void Normalize();
    // Which side a volume lies on: 1 in front, -1 behind, 0 across.
    int Classify(const Aabb& box) const;
    int Classify(const Sphere& sphere) const;
    // Intersection with the segment a-b; false when parallel or outside it.
    bool IntersectSegment(const Vector3& a, const Vector3& b, Vector3& out) const;
};

} // namespace KovexEngine
