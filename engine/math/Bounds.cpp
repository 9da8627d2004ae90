#include "math/Bounds.h"

#include <cmath>

#include "math/Transform.h"

namespace KovexEngine {

void Aabb::Add(const Vector3& p)
{
    min = Vector3::Min(min, p);
    max = Vector3::Max(max, p);
}

void Aabb::Add(const Aabb& box)
{
    if (box.IsEmpty())
        return;
    min = Vector3::Min(min, box.min);
    max = Vector3::Max(max, box.max);
}

bool Aabb::Contains(const Vector3& p) const
{
    return p.x >= min.x && p.x <= max.x && p.y >= min.y && p.y <= max.y && p.z >= min.z && p.z <= max.z;
}

bool Aabb::Intersects(const Aabb& b) const
{
    return !(b.min.x > max.x || b.max.x < min.x || b.min.y > max.y || b.max.y < min.y || b.min.z > max.z ||
             b.max.z < min.z);
}

Aabb Aabb::FromTransformedAabb(const Aabb& box, const Transform& t)
{
    return FromMappedAabb(box, t.rotation.ScaledColumns(t.scale), t.translation);
}

Aabb Aabb::FromTransformedAabb(const Aabb& box, const Matrix4& matrix)
{
    return FromMappedAabb(box, matrix.Upper3x3(), matrix.Translation());
}

bool Sphere::Intersects(const Sphere& o) const
{
    float r = radius + o.radius;
    return (center - o.center).LengthSq() <= r * r;
}

Obb Obb::FromAabb(const Aabb& box, const Transform& t)
{
    Obb r;
    r.center = t.TransformPoint(box.Center());
    r.axes = t.rotation;
    Vector3 e = box.Extent() * t.scale;
    r.extent = {std::fabs(e.x), std::fabs(e.y), std::fabs(e.z)};
    return r;
}

bool Obb::Contains(const Vector3& p) const
{
    Vector3 d = p - center;
    for (unsigned i = 0; i < 3; ++i)
        if (std::fabs(d.Dot(axes.Column(i))) > extent[i])
            return false;
    return true;
}

void Obb::GetCorners(Vector3 out[8]) const
{
    Vector3 ax = axes.Column(0) * extent.x, ay = axes.Column(1) * extent.y, az = axes.Column(2) * extent.z;
    for (int i = 0; i < 8; ++i)
        out[i] = center + ((i & 1) ? ax : -ax) + ((i & 2) ? ay : -ay) + ((i & 4) ? az : -az);
}

Aabb Obb::ToAabb() const
{
    Aabb local(-extent, extent);
    return Aabb::FromMappedAabb(local, axes, center);
}

} // namespace KovexEngine
