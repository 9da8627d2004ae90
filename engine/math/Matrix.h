#pragma once

#include "kernel/ReflectedStruct.h"

#include "math/Vector.h"

namespace KovexEngine {

// Matrices are stored by rows and transform column vectors from the left:
// v' = M * v. A product A * B applies B first.

class KOVEX_API Matrix2
{
    KOVEX_STRUCT(Matrix2)

public:
    float m[2][2] = {{1, 0}, {0, 1}};

    constexpr Matrix2() = default;
    constexpr Matrix2(float m00, float m01, float m10, float m11) : m{{m00, m01}, {m10, m11}} {}

    const float* Data() const { return &m[0][0]; }
    float* Data() { return &m[0][0]; }
    bool operator==(const Matrix2& o) const;

    Matrix2 operator*(const Matrix2& o) const;
    Vector2 operator*(const Vector2& v) const { return {m[0][0] * v.x + m[0][1] * v.y, m[1][0] * v.x + m[1][1] * v.y}; }
    float Determinant() const { return m[0][0] * m[1][1] - m[0][1] * m[1][0]; }
    Matrix2 Transposed() const { return {m[0][0], m[1][0], m[0][1], m[1][1]}; }
    // False, and the identity, for a singular matrix.
    bool Inverse(Matrix2& out) const;
    static Matrix2 Rotation(float radians);
};

class Quaternion;

class KOVEX_API Matrix3
{
    KOVEX_STRUCT(Matrix3)

public:
    float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    constexpr Matrix3() = default;
    constexpr Matrix3(float m00, float m01, float m02, float m10, float m11, float m12, float m20, float m21, float m22)
        : m{{m00, m01, m02}, {m10, m11, m12}, {m20, m21, m22}} {}
    static Matrix3 FromColumns(const Vector3& c0, const Vector3& c1, const Vector3& c2);
    static Matrix3 FromRows(const Vector3& r0, const Vector3& r1, const Vector3& r2);

    const float* Data() const { return &m[0][0]; }
    float* Data() { return &m[0][0]; }
    bool operator==(const Matrix3& o) const;
    Vector3 Row(unsigned r) const { return {m[r][0], m[r][1], m[r][2]}; }
    Vector3 Column(unsigned c) const { return {m[0][c], m[1][c], m[2][c]}; }

    // Inline, with the determinant: every world transform of the scene graph
    // takes both.
    Matrix3 operator*(const Matrix3& o) const
    {
        Matrix3 r;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
        return r;
    }
    Vector3 operator*(const Vector3& v) const
    {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z, m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
    float Determinant() const
    {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    }
    Matrix3 Transposed() const;
    bool Inverse(Matrix3& out) const;
    bool IsIdentity(float epsilon = 1e-6f) const;
    // Scales column c by s[c]: the rotation-then-scale matrix R * diag(s).
    Matrix3 ScaledColumns(const Vector3& s) const;
    // Makes the columns orthonormal (Gram-Schmidt in the order x, y, z).
    void Orthonormalize();

    static Matrix3 RotateX(float radians);
    static Matrix3 RotateY(float radians);
    static Matrix3 RotateZ(float radians);
    static Matrix3 RotateXDegree(float degrees);
    static Matrix3 RotateYDegree(float degrees);
    static Matrix3 RotateZDegree(float degrees);
    // Rotation about a unit axis, counter-clockwise looking down the axis.
    static Matrix3 RotateAxis(const Vector3& axis, float radians);
    static Matrix3 RotateAxisDegree(const Vector3& axis, float degrees);
    // Rotations applied in the order x, then y, then z.
    static Matrix3 RotateEuler(const Vector3& radians);
    static Matrix3 RotateEulerDegree(const Vector3& degrees);
    static Matrix3 Scale(const Vector3& s);
    static Matrix3 FromQuaternion(const Quaternion& q);
};

class KOVEX_API Matrix4
{
    KOVEX_STRUCT(Matrix4)

public:
    float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

    constexpr Matrix4() = default;
    constexpr Matrix4(float m00, float m01, float m02, float m03, float m10, float m11, float m12, float m13,
                      float m20, float m21, float m22, float m23, float m30, float m31, float m32, float m33)
        : m{{m00, m01, m02, m03}, {m10, m11, m12, m13}, {m20, m21, m22, m23}, {m30, m31, m32, m33}} {}
    // Rotation (and scale) in the upper 3x3, translation in the fourth column.
    Matrix4(const Matrix3& rotation, const Vector3& translation);

    const float* Data() const { return &m[0][0]; }
    float* Data() { return &m[0][0]; }
    bool operator==(const Matrix4& o) const;
    Vector4 Row(unsigned r) const { return {m[r][0], m[r][1], m[r][2], m[r][3]}; }
    Vector4 Column(unsigned c) const { return {m[0][c], m[1][c], m[2][c], m[3][c]}; }
    Matrix3 Upper3x3() const;
    Vector3 Translation() const { return {m[0][3], m[1][3], m[2][3]}; }
    void SetTranslation(const Vector3& t) { m[0][3] = t.x; m[1][3] = t.y; m[2][3] = t.z; }

    Matrix4 operator*(const Matrix4& o) const;
    Vector4 operator*(const Vector4& v) const;
    // A point with w = 1, divided by the fourth row's result; the zero vector
    // when that is 0.
    Vector3 operator*(const Vector3& v) const;
    // Rotates and scales a direction (w = 0).
    Vector3 TransformVector(const Vector3& v) const;
    float Determinant() const;
    Matrix4 Transposed() const;
    bool Inverse(Matrix4& out) const;
    bool IsIdentity(float epsilon = 1e-6f) const;

    static Matrix4 Translate(const Vector3& t);
    static Matrix4 Scale(const Vector3& s);
    // Left-handed view: the camera at `eye` looks along +z towards `target`.
    static Matrix4 LookAt(const Vector3& eye, const Vector3& target, const Vector3& up);
    // Projections map view depth [near, far] to [0, 1].
    static Matrix4 PerspectiveFov(float fovY, float aspect, float zNear, float zFar);
    static Matrix4 PerspectiveFovDegree(float fovYDegrees, float aspect, float zNear, float zFar);
    static Matrix4 PerspectiveOffCenter(float left, float right, float bottom, float top, float zNear, float zFar);
    static Matrix4 Ortho(float width, float height, float zNear, float zFar);
    static Matrix4 OrthoOffCenter(float left, float right, float bottom, float top, float zNear, float zFar);
    // View matrix of one face of a cube map centred at `position`, faces in
    // the order +x, -x, +y, -y, +z, -z.
    static Matrix4 MakeCubeMatrix(unsigned face, const Vector3& position);
};

} // namespace KovexEngine
