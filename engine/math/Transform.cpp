#include "math/Transform.h"

#include <cmath>

namespace KovexEngine {

bool Transform::operator==(const Transform& o) const
{
    return rotation == o.rotation && translation == o.translation && scale == o.scale && flags == o.flags;
}

Matrix4 Transform::ToMatrix() const { return Matrix4(rotation.ScaledColumns(scale), translation); }

void Transform::Multiply(Transform& out, const Transform& a, const Transform& b)
{
    Transform r;
    r.rotation = a.rotation * b.rotation;
    r.scale = a.scale * b.scale;
    r.translation = a.TransformPoint(b.translation);
    r.flags = a.flags | b.flags;
    out = r;
    out.CheckNonUniformScale();
    out.CheckFlipped();
}

void Transform::MultiplySelf(const Transform& b) { Multiply(*this, b, *this); }

Transform Transform::Inverse() const
{
    Transform r;
    r.rotation = rotation.Transposed();
    r.scale = Vector3(scale.x != 0 ? 1.0f / scale.x : 0.0f, scale.y != 0 ? 1.0f / scale.y : 0.0f,
                      scale.z != 0 ? 1.0f / scale.z : 0.0f);
    r.translation = -(r.rotation * translation) * r.scale;
    r.flags = flags;
    return r;
}

void Transform::CheckNonUniformScale()
{
    if (std::fabs(scale.x - scale.y) > 0.001f || std::fabs(scale.x - scale.z) > 0.001f)
        flags |= FLAG_NONUNIFORM_SCALE;
    else
        flags &= ~uint32(FLAG_NONUNIFORM_SCALE);
}

void Transform::CheckFlipped()
{
    float det = rotation.Determinant() * scale.x * scale.y * scale.z;
    if (det < 0.0f)
        flags |= FLAG_FLIPPED;
    else
        flags &= ~uint32(FLAG_FLIPPED);
}

} // namespace KovexEngine
