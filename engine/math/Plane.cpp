#include "math/Plane.h"

#include <cmath>

#include "math/Bounds.h"
#include "math/Frustum.h"

namespace KovexEngine {

Plane Plane::FromPoints(const Vector3& a, const Vector3& b, const Vector3& c)
{
    Vector3 n = (b - a).Cross(c - a).Normalized();
    return {n, -n.Dot(a)};
}

void Plane::Normalize()
{
    float length = normal.Length();
    if (length > 0.0f)
    {
        float inv = 1.0f / length;
        normal *= inv;
        d *= inv;
    }
}

int Plane::Classify(const Aabb& box) const
{
    Vector3 c = box.Center(), e = box.Extent();
    float r = std::fabs(normal.x) * e.x + std::fabs(normal.y) * e.y + std::fabs(normal.z) * e.z;
    float distance = Distance(c);
    return distance > r ? 1 : (distance < -r ? -1 : 0);
}

int Plane::Classify(const Sphere& s) const
{
    float distance = Distance(s.center);
    return distance > s.radius ? 1 : (distance < -s.radius ? -1 : 0);
}

bool Plane::IntersectSegment(const Vector3& a, const Vector3& b, Vector3& out) const
{
    float da = Distance(a), db = Distance(b);
    if (da == db || (da > 0 && db > 0) || (da < 0 && db < 0))
        return false;
    out = Vector3::Lerp(a, b, da / (da - db));
    return true;
}

void Frustum::FromMatrix(const Matrix4& vp)
{
    // Clip space: -w <= x, y <= w and 0 <= z <= w.
    Vector4 r0 = vp.Row(0), r1 = vp.Row(1), r2 = vp.Row(2), r3 = vp.Row(3);
    auto make = [](const Vector4& v) {
        Plane p(v.x, v.y, v.z, v.w);
        p.Normalize();
        return p;
    };
    planes[LEFT] = make(r3 + r0);
    planes[RIGHT] = make(r3 - r0);
    planes[BOTTOM] = make(r3 + r1);
    planes[TOP] = make(r3 - r1);
    planes[NEAR_PLANE] = make(r2);
    planes[FAR_PLANE] = make(r3 - r2);
}

bool Frustum::Contains(const Vector3& p) const
{
    for (const Plane& plane : planes)
        if (plane.Distance(p) < 0.0f)
            return false;
    return true;
}

namespace {
template <typename Volume>
Frustum::Result Classify(const Plane (&planes)[Frustum::PLANE_COUNT], const Volume& volume)
{
    Frustum::Result result = Frustum::INSIDE;
    for (const Plane& plane : planes)
    {
        int side = plane.Classify(volume);
        if (side < 0)
            return Frustum::OUTSIDE;
        if (side == 0)
            result = Frustum::INTERSECTS;
    }
    return result;
}
} // namespace

Frustum::Result Frustum::Test(const Aabb& box) const
{
    return box.IsEmpty() ? OUTSIDE : Classify(planes, box);
}

Frustum::Result Frustum::Test(const Sphere& sphere) const { return Classify(planes, sphere); }

} // namespace KovexEngine
