#include "math/Quaternion.h"

#include <cmath>

#include "math/MathUtil.h"
#include "math/Matrix.h"

namespace KovexEngine {

Quaternion Quaternion::operator*(const Quaternion& o) const
{
    return {w * o.x + x * o.w + y * o.z - z * o.y, w * o.y - x * o.z + y * o.w + z * o.x,
            w * o.z + x * o.y - y * o.x + z * o.w, w * o.w - x * o.x - y * o.y - z * o.z};
}

Vector3 Quaternion::operator*(const Vector3& v) const
{
    // v + 2w(q×v) + 2 q×(q×v), q the vector part.
    Vector3 q(x, y, z);
    Vector3 t = q.Cross(v) * 2.0f;
    return v + t * w + q.Cross(t);
}

float Quaternion::Length() const { return std::sqrt(Dot(*this)); }

float Quaternion::Normalize()
{
    float length = Length();
    if (length > 0.0f)
        *this = *this * (1.0f / length);
    else
        *this = Quaternion();
    return length;
}

Quaternion Quaternion::Inverse() const
{
    float n = Dot(*this);
    if (n <= 0.0f)
        return Quaternion();
    return Conjugate() * (1.0f / n);
}

Quaternion Quaternion::FromAxisAngle(const Vector3& axis, float radians)
{
    Vector3 n = axis.Normalized();
    float s = std::sin(radians * 0.5f);
    return {n.x * s, n.y * s, n.z * s, std::cos(radians * 0.5f)};
}

Quaternion Quaternion::FromAxisAngleDegree(const Vector3& axis, float degrees)
{
    return FromAxisAngle(axis, Math::DegToRad(degrees));
}

Quaternion Quaternion::FromMatrix(const Matrix3& r)
{
    const auto& m = r.m;
    float trace = m[0][0] + m[1][1] + m[2][2];
    Quaternion q;
    if (trace > 0.0f)
    {
        float s = std::sqrt(trace + 1.0f) * 2.0f;
        q = {(m[2][1] - m[1][2]) / s, (m[0][2] - m[2][0]) / s, (m[1][0] - m[0][1]) / s, 0.25f * s};
    }
    else if (m[0][0] > m[1][1] && m[0][0] > m[2][2])
    {
        float s = std::sqrt(1.0f + m[0][0] - m[1][1] - m[2][2]) * 2.0f;
        q = {0.25f * s, (m[0][1] + m[1][0]) / s, (m[0][2] + m[2][0]) / s, (m[2][1] - m[1][2]) / s};
    }
    else if (m[1][1] > m[2][2])
    {
        float s = std::sqrt(1.0f + m[1][1] - m[0][0] - m[2][2]) * 2.0f;
        q = {(m[0][1] + m[1][0]) / s, 0.25f * s, (m[1][2] + m[2][1]) / s, (m[0][2] - m[2][0]) / s};
    }
    else
    {
        float s = std::sqrt(1.0f + m[2][2] - m[0][0] - m[1][1]) * 2.0f;
        q = {(m[0][2] + m[2][0]) / s, (m[1][2] + m[2][1]) / s, 0.25f * s, (m[1][0] - m[0][1]) / s};
    }
    q.Normalize();
    return q;
}

Matrix3 Quaternion::ToMatrix() const { return Matrix3::FromQuaternion(*this); }

Quaternion Quaternion::Log(const Quaternion& q)
{
    float vectorLength = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z);
    if (vectorLength < 1e-7f)
        return {0, 0, 0, 0};
    float angle = std::atan2(vectorLength, q.w);
    float k = angle / vectorLength;
    return {q.x * k, q.y * k, q.z * k, 0};
}

Quaternion Quaternion::Exp(const Quaternion& q)
{
    float angle = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z);
    if (angle < 1e-7f)
        return {q.x, q.y, q.z, 1};
    float k = std::sin(angle) / angle;
    return {q.x * k, q.y * k, q.z * k, std::cos(angle)};
}

void Quaternion::Slerp(Quaternion& out, const Quaternion& q0, const Quaternion& q1, float t)
{
    float cosine = q0.Dot(q1);
    Quaternion end = q1;
    if (cosine < 0.0f)
    {
        cosine = -cosine;
        end = -q1;
    }
    float k0, k1;
    if (cosine > 0.9999f)
    {
        // Nearly parallel: linear interpolation is exact enough and stable.
        k0 = 1.0f - t;
        k1 = t;
    }
    else
    {
        float angle = std::acos(cosine);
        float inv = 1.0f / std::sin(angle);
        k0 = std::sin((1.0f - t) * angle) * inv;
        k1 = std::sin(t * angle) * inv;
    }
    out = q0 * k0 + end * k1;
    out.Normalize();
}

void Quaternion::Squad(Quaternion& out, const Quaternion& q0, const Quaternion& s0, const Quaternion& q1,
                       const Quaternion& s1, float t)
{
    Quaternion a, b;
    Slerp(a, q0, q1, t);
    Slerp(b, s0, s1, t);
    Slerp(out, a, b, 2.0f * t * (1.0f - t));
}

void Quaternion::Intermedia(Quaternion& out, const Quaternion& previous, const Quaternion& current,
                            const Quaternion& next)
{
    Quaternion inverse = current.Inverse();
    // Keep the neighbours on the current key's hemisphere.
    Quaternion p = current.Dot(previous) < 0.0f ? -previous : previous;
    Quaternion n = current.Dot(next) < 0.0f ? -next : next;
    Quaternion a = Log(inverse * n);
    Quaternion b = Log(inverse * p);
    Quaternion sum = (a + b) * -0.25f;
    out = current * Exp(sum);
    out.Normalize();
}

} // namespace KovexEngine
