#pragma once

#include "kernel/ReflectedStruct.h"

#include "math/Vector.h"

namespace KovexEngine {

class Matrix3;

// A rotation as a unit quaternion (x, y, z, w). A product a * b rotates by b
// first, as matrices do.
class KOVEX_API Quaternion
{
    KOVEX_STRUCT(Quaternion)

public:
    float x = 0, y = 0, z = 0, w = 1;

    constexpr Quaternion() = default;
    constexpr Quaternion(float x_, float y_, float z_, float w_) : x(x_), y(y_), z(z_), w(w_) {}

    const float* Data() const { return &x; }
    float* Data() { return &x; }
    constexpr bool operator==(const Quaternion& o) const { return x == o.x && y == o.y && z == o.z && w == o.w; }

    Quaternion operator*(const Quaternion& o) const;
    constexpr Quaternion operator+(const Quaternion& o) const { return {x + o.x, y + o.y, z + o.z, w + o.w}; }
    constexpr Quaternion operator-(const Quaternion& o) const { return {x - o.x, y - o.y, z - o.z, w - o.w}; }
    constexpr Quaternion operator*(float s) const { return {x * s, y * s, z * s, w * s}; }
    constexpr Quaternion operator-() const { return {-x, -y, -z, -w}; }
    Vector3 operator*(const Vector3& v) const;

    constexpr float Dot(const Quaternion& o) const { return x * o.x + y * o.y + z * o.z + w * o.w; }
    float Length() const;
    float Normalize();
    constexpr Quaternion Conjugate() const { return {-x, -y, -z, w}; }
    Quaternion Inverse() const;

    static Quaternion FromAxisAngle(const Vector3& axis, float radians);
    static Quaternion FromAxisAngleDegree(const Vector3& axis, float degrees);
    static Quaternion FromMatrix(const Matrix3& rotation);
    Matrix3 ToMatrix() const;

    // Logarithm and exponential of unit quaternions (w of the log is 0).
    static Quaternion Log(const Quaternion& q);
    static Quaternion Exp(const Quaternion& q);

    // Spherical interpolation along the shorter arc.
    static void Slerp(Quaternion& out, const Quaternion& q0, const Quaternion& q1, float t);
    // Spherical quadrangle interpolation between q0 and q1 with the
    // intermediates s0 and s1 that Intermedia computes.
    static void Squad(Quaternion& out, const Quaternion& q0, const Quaternion& s0, const Quaternion& q1,
                      const Quaternion& s1, float t);
    // The intermediate control point of `current` between its neighbours.
    static void Intermedia(Quaternion& out, const Quaternion& previous, const Quaternion& current,
                           const Quaternion& next);
};

} // namespace KovexEngine
