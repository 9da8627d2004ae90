#pragma once

#include "kernel/ReflectedStruct.h"

#include <cmath>

#include "kernel/Types.h"

namespace KovexEngine {

class KOVEX_API Vector2
{
    KOVEX_STRUCT(Vector2)

public:
    float x = 0, y = 0;

    constexpr Vector2() = default;
    constexpr Vector2(float x_, float y_) : x(x_), y(y_) {}

    float& operator[](unsigned i) { return (&x)[i]; }
    float operator[](unsigned i) const { return (&x)[i]; }
    const float* Data() const { return &x; }
    float* Data() { return &x; }

    constexpr Vector2 operator+(const Vector2& o) const { return {x + o.x, y + o.y}; }
    constexpr Vector2 operator-(const Vector2& o) const { return {x - o.x, y - o.y}; }
    constexpr Vector2 operator-() const { return {-x, -y}; }
    constexpr Vector2 operator*(float s) const { return {x * s, y * s}; }
    constexpr Vector2 operator*(const Vector2& o) const { return {x * o.x, y * o.y}; }
    constexpr Vector2 operator/(float s) const { return {x / s, y / s}; }
    Vector2& operator+=(const Vector2& o) { x += o.x; y += o.y; return *this; }
    Vector2& operator-=(const Vector2& o) { x -= o.x; y -= o.y; return *this; }
    Vector2& operator*=(float s) { x *= s; y *= s; return *this; }
    constexpr bool operator==(const Vector2& o) const { return x == o.x && y == o.y; }

    constexpr float Dot(const Vector2& o) const { return x * o.x + y * o.y; }
    float Length() const { return std::sqrt(Dot(*this)); }
    constexpr float LengthSq() const { return Dot(*this); }
    // Normalises in place and returns the old length; a zero vector stays zero.
    float Normalize();
    Vector2 Normalized() const { Vector2 v(*this); v.Normalize(); return v; }

    static void Lerp(Vector2& out, const Vector2& a, const Vector2& b, float t) { out = a + (b - a) * t; }
    static Vector2 Lerp(const Vector2& a, const Vector2& b, float t) { return a + (b - a) * t; }
};

class KOVEX_API Vector3
{
    KOVEX_STRUCT(Vector3)

public:
    float x = 0, y = 0, z = 0;

    constexpr Vector3() = default;
    constexpr Vector3(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
    constexpr explicit Vector3(float s) : x(s), y(s), z(s) {}

    float& operator[](unsigned i) { return (&x)[i]; }
    float operator[](unsigned i) const { return (&x)[i]; }
    const float* Data() const { return &x; }
    float* Data() { return &x; }

    constexpr Vector3 operator+(const Vector3& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vector3 operator-(const Vector3& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vector3 operator-() const { return {-x, -y, -z}; }
    constexpr Vector3 operator*(float s) const { return {x * s, y * s, z * s}; }
    constexpr Vector3 operator*(const Vector3& o) const { return {x * o.x, y * o.y, z * o.z}; }
    constexpr Vector3 operator/(float s) const { return {x / s, y / s, z / s}; }
    constexpr Vector3 operator/(const Vector3& o) const { return {x / o.x, y / o.y, z / o.z}; }
    Vector3& operator+=(const Vector3& o) { x += o.x; y += o.y; z += o.z; return *this; }
    Vector3& operator-=(const Vector3& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
    Vector3& operator*=(float s) { x *= s; y *= s; z *= s; return *this; }
    Vector3& operator*=(const Vector3& o) { x *= o.x; y *= o.y; z *= o.z; return *this; }
    constexpr bool operator==(const Vector3& o) const { return x == o.x && y == o.y && z == o.z; }

    constexpr float Dot(const Vector3& o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vector3 Cross(const Vector3& o) const { return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x}; }
    float Length() const { return std::sqrt(Dot(*this)); }
    constexpr float LengthSq() const { return Dot(*this); }
    float Distance(const Vector3& o) const { return (*this - o).Length(); }
    float Normalize();
    Vector3 Normalized() const { Vector3 v(*this); v.Normalize(); return v; }
    bool NearlyEquals(const Vector3& o, float epsilon = 1e-5f) const
    {
        return std::fabs(x - o.x) <= epsilon && std::fabs(y - o.y) <= epsilon && std::fabs(z - o.z) <= epsilon;
    }

    static Vector3 Min(const Vector3& a, const Vector3& b) { return {std::fmin(a.x, b.x), std::fmin(a.y, b.y), std::fmin(a.z, b.z)}; }
    static Vector3 Max(const Vector3& a, const Vector3& b) { return {std::fmax(a.x, b.x), std::fmax(a.y, b.y), std::fmax(a.z, b.z)}; }
    static void Lerp(Vector3& out, const Vector3& a, const Vector3& b, float t) { out = a + (b - a) * t; }
    static Vector3 Lerp(const Vector3& a, const Vector3& b, float t) { return a + (b - a) * t; }
};

inline constexpr Vector3 operator*(float s, const Vector3& v) { return v * s; }

class KOVEX_API Vector4
{
    KOVEX_STRUCT(Vector4)

public:
    float x = 0, y = 0, z = 0, w = 0;

    constexpr Vector4() = default;
    constexpr Vector4(float x_, float y_, float z_, float w_) : x(x_), y(y_), z(z_), w(w_) {}
    constexpr Vector4(const Vector3& v, float w_) : x(v.x), y(v.y), z(v.z), w(w_) {}

    float& operator[](unsigned i) { return (&x)[i]; }
    float operator[](unsigned i) const { return (&x)[i]; }
    const float* Data() const { return &x; }
    float* Data() { return &x; }
    constexpr Vector3 XYZ() const { return {x, y, z}; }

    constexpr Vector4 operator+(const Vector4& o) const { return {x + o.x, y + o.y, z + o.z, w + o.w}; }
    constexpr Vector4 operator-(const Vector4& o) const { return {x - o.x, y - o.y, z - o.z, w - o.w}; }
    constexpr Vector4 operator-() const { return {-x, -y, -z, -w}; }
    constexpr Vector4 operator*(float s) const { return {x * s, y * s, z * s, w * s}; }
    constexpr Vector4 operator*(const Vector4& o) const { return {x * o.x, y * o.y, z * o.z, w * o.w}; }
    Vector4& operator+=(const Vector4& o) { x += o.x; y += o.y; z += o.z; w += o.w; return *this; }
    Vector4& operator*=(float s) { x *= s; y *= s; z *= s; w *= s; return *this; }
    constexpr bool operator==(const Vector4& o) const { return x == o.x && y == o.y && z == o.z && w == o.w; }

    constexpr float Dot(const Vector4& o) const { return x * o.x + y * o.y + z * o.z + w * o.w; }
    float Length() const { return std::sqrt(Dot(*this)); }
    float Normalize();

    static void Lerp(Vector4& out, const Vector4& a, const Vector4& b, float t) { out = a + (b - a) * t; }
    static Vector4 Lerp(const Vector4& a, const Vector4& b, float t) { return a + (b - a) * t; }

    // Colours as 32-bit words, 8 bits a channel, each clamped to [0, 1]:
    // RGBA has red in the low byte, BGRA blue.
    uint32 ToRGBA() const;
    uint32 ToBGRA() const;
    static Vector4 FromRGBA(uint32 word);
    static Vector4 FromBGRA(uint32 word);
};

} // namespace KovexEngine
