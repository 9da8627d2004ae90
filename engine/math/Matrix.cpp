#include "math/Matrix.h"

#include <cmath>
#include <cstring>

#include "math/MathUtil.h"
#include "math/Quaternion.h"

namespace KovexEngine {

// --- Matrix2 ------------------------------------------------------------------

bool Matrix2::operator==(const Matrix2& o) const { return std::memcmp(m, o.m, sizeof m) == 0; }

Matrix2 Matrix2::operator*(const Matrix2& o) const
{
    return {m[0][0] * o.m[0][0] + m[0][1] * o.m[1][0], m[0][0] * o.m[0][1] + m[0][1] * o.m[1][1],
            m[1][0] * o.m[0][0] + m[1][1] * o.m[1][0], m[1][0] * o.m[0][1] + m[1][1] * o.m[1][1]};
}

bool Matrix2::Inverse(Matrix2& out) const
{
    float det = Determinant();
    if (det == 0.0f || !std::isfinite(det))
    {
        out = Matrix2();
        return false;
    }
    float inv = 1.0f / det;
    out = Matrix2(m[1][1] * inv, -m[0][1] * inv, -m[1][0] * inv, m[0][0] * inv);
    return true;
}

Matrix2 Matrix2::Rotation(float radians)
{
    float c = std::cos(radians), s = std::sin(radians);
    return {c, -s, s, c};
}

// --- Matrix3 ------------------------------------------------------------------

Matrix3 Matrix3::FromColumns(const Vector3& c0, const Vector3& c1, const Vector3& c2)
{
    return {c0.x, c1.x, c2.x, c0.y, c1.y, c2.y, c0.z, c1.z, c2.z};
}

Matrix3 Matrix3::FromRows(const Vector3& r0, const Vector3& r1, const Vector3& r2)
{
    return {r0.x, r0.y, r0.z, r1.x, r1.y, r1.z, r2.x, r2.y, r2.z};
}

bool Matrix3::operator==(const Matrix3& o) const { return std::memcmp(m, o.m, sizeof m) == 0; }

Matrix3 Matrix3::Transposed() const
{
    return {m[0][0], m[1][0], m[2][0], m[0][1], m[1][1], m[2][1], m[0][2], m[1][2], m[2][2]};
}

bool Matrix3::Inverse(Matrix3& out) const
{
    float det = Determinant();
    if (det == 0.0f || !std::isfinite(det))
    {
        out = Matrix3();
        return false;
    }
    float inv = 1.0f / det;
    Matrix3 r;
    r.m[0][0] = (m[1][1] * m[2][2] - m[1][2] * m[2][1]) * inv;
    r.m[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) * inv;
    r.m[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) * inv;
    r.m[1][0] = (m[1][2] * m[2][0] - m[1][0] * m[2][2]) * inv;
    r.m[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) * inv;
    r.m[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) * inv;
    r.m[2][0] = (m[1][0] * m[2][1] - m[1][1] * m[2][0]) * inv;
    r.m[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) * inv;
    r.m[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) * inv;
    out = r;
    return true;
}

bool Matrix3::IsIdentity(float epsilon) const
{
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (std::fabs(m[i][j] - (i == j ? 1.0f : 0.0f)) > epsilon)
                return false;
    return true;
}

Matrix3 Matrix3::ScaledColumns(const Vector3& s) const
{
    Matrix3 r(*this);
    for (int i = 0; i < 3; ++i)
    {
        r.m[i][0] *= s.x;
        r.m[i][1] *= s.y;
        r.m[i][2] *= s.z;
    }
    return r;
}

void Matrix3::Orthonormalize()
{
    Vector3 x = Column(0), y = Column(1);
    x.Normalize();
    y = y - x * x.Dot(y);
    y.Normalize();
    Vector3 z = x.Cross(y);
    *this = FromColumns(x, y, z);
}

Matrix3 Matrix3::RotateX(float a)
{
    float c = std::cos(a), s = std::sin(a);
    return {1, 0, 0, 0, c, -s, 0, s, c};
}

Matrix3 Matrix3::RotateY(float a)
{
    float c = std::cos(a), s = std::sin(a);
    return {c, 0, s, 0, 1, 0, -s, 0, c};
}

Matrix3 Matrix3::RotateZ(float a)
{
    float c = std::cos(a), s = std::sin(a);
    return {c, -s, 0, s, c, 0, 0, 0, 1};
}

Matrix3 Matrix3::RotateXDegree(float d) { return RotateX(Math::DegToRad(d)); }
Matrix3 Matrix3::RotateYDegree(float d) { return RotateY(Math::DegToRad(d)); }
Matrix3 Matrix3::RotateZDegree(float d) { return RotateZ(Math::DegToRad(d)); }

Matrix3 Matrix3::RotateAxis(const Vector3& axis, float a)
{
    Vector3 n = axis.Normalized();
    float c = std::cos(a), s = std::sin(a), t = 1.0f - c;
    return {t * n.x * n.x + c,       t * n.x * n.y - s * n.z, t * n.x * n.z + s * n.y,
            t * n.x * n.y + s * n.z, t * n.y * n.y + c,       t * n.y * n.z - s * n.x,
            t * n.x * n.z - s * n.y, t * n.y * n.z + s * n.x, t * n.z * n.z + c};
}

Matrix3 Matrix3::RotateAxisDegree(const Vector3& axis, float d) { return RotateAxis(axis, Math::DegToRad(d)); }

Matrix3 Matrix3::RotateEuler(const Vector3& r) { return RotateZ(r.z) * RotateY(r.y) * RotateX(r.x); }

Matrix3 Matrix3::RotateEulerDegree(const Vector3& d)
{
    return RotateEuler({Math::DegToRad(d.x), Math::DegToRad(d.y), Math::DegToRad(d.z)});
}

Matrix3 Matrix3::Scale(const Vector3& s) { return {s.x, 0, 0, 0, s.y, 0, 0, 0, s.z}; }

Matrix3 Matrix3::FromQuaternion(const Quaternion& q)
{
    float xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
    float xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
    float wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
    return {1 - 2 * (yy + zz), 2 * (xy - wz),     2 * (xz + wy),
            2 * (xy + wz),     1 - 2 * (xx + zz), 2 * (yz - wx),
            2 * (xz - wy),     2 * (yz + wx),     1 - 2 * (xx + yy)};
}

// --- Matrix4 ------------------------------------------------------------------

Matrix4::Matrix4(const Matrix3& r, const Vector3& t)
    : m{{r.m[0][0], r.m[0][1], r.m[0][2], t.x},
        {r.m[1][0], r.m[1][1], r.m[1][2], t.y},
        {r.m[2][0], r.m[2][1], r.m[2][2], t.z},
        {0, 0, 0, 1}}
{
}

bool Matrix4::operator==(const Matrix4& o) const { return std::memcmp(m, o.m, sizeof m) == 0; }

Matrix3 Matrix4::Upper3x3() const
{
    return {m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2], m[2][0], m[2][1], m[2][2]};
}

Matrix4 Matrix4::operator*(const Matrix4& o) const
{
    Matrix4 r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j] + m[i][3] * o.m[3][j];
    return r;
}

Vector4 Matrix4::operator*(const Vector4& v) const
{
    return {Row(0).Dot(v), Row(1).Dot(v), Row(2).Dot(v), Row(3).Dot(v)};
}

Vector3 Matrix4::operator*(const Vector3& v) const
{
    float w = m[3][0] * v.x + m[3][1] * v.y + m[3][2] * v.z + m[3][3];
    if (w == 0.0f)
        return {0, 0, 0};
    float inv = 1.0f / w;
    return {(m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z + m[0][3]) * inv,
            (m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z + m[1][3]) * inv,
            (m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z + m[2][3]) * inv};
}

Vector3 Matrix4::TransformVector(const Vector3& v) const { return Upper3x3() * v; }

namespace {

// Cofactor expansion shared by the determinant and the inverse.
struct Minors
{
    float s[6], c[6];
    explicit Minors(const float (&m)[4][4])
    {
        s[0] = m[0][0] * m[1][1] - m[1][0] * m[0][1];
        s[1] = m[0][0] * m[1][2] - m[1][0] * m[0][2];
        s[2] = m[0][0] * m[1][3] - m[1][0] * m[0][3];
        s[3] = m[0][1] * m[1][2] - m[1][1] * m[0][2];
        s[4] = m[0][1] * m[1][3] - m[1][1] * m[0][3];
        s[5] = m[0][2] * m[1][3] - m[1][2] * m[0][3];
        c[5] = m[2][2] * m[3][3] - m[3][2] * m[2][3];
        c[4] = m[2][1] * m[3][3] - m[3][1] * m[2][3];
        c[3] = m[2][1] * m[3][2] - m[3][1] * m[2][2];
        c[2] = m[2][0] * m[3][3] - m[3][0] * m[2][3];
        c[1] = m[2][0] * m[3][2] - m[3][0] * m[2][2];
        c[0] = m[2][0] * m[3][1] - m[3][0] * m[2][1];
    }
    float Determinant() const { return s[0] * c[5] - s[1] * c[4] + s[2] * c[3] + s[3] * c[2] - s[4] * c[1] + s[5] * c[0]; }
};

} // namespace

float Matrix4::Determinant() const { return Minors(m).Determinant(); }

Matrix4 Matrix4::Transposed() const
{
    Matrix4 r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            r.m[i][j] = m[j][i];
    return r;
}

bool Matrix4::Inverse(Matrix4& out) const
{
    Minors k(m);
    const float* s = k.s;
    const float* c = k.c;
    float det = k.Determinant();
    if (det == 0.0f || !std::isfinite(det))
    {
        out = Matrix4();
        return false;
    }
    float inv = 1.0f / det;
    Matrix4 r;
    r.m[0][0] = (m[1][1] * c[5] - m[1][2] * c[4] + m[1][3] * c[3]) * inv;
    r.m[0][1] = (-m[0][1] * c[5] + m[0][2] * c[4] - m[0][3] * c[3]) * inv;
    r.m[0][2] = (m[3][1] * s[5] - m[3][2] * s[4] + m[3][3] * s[3]) * inv;
    r.m[0][3] = (-m[2][1] * s[5] + m[2][2] * s[4] - m[2][3] * s[3]) * inv;
    r.m[1][0] = (-m[1][0] * c[5] + m[1][2] * c[2] - m[1][3] * c[1]) * inv;
    r.m[1][1] = (m[0][0] * c[5] - m[0][2] * c[2] + m[0][3] * c[1]) * inv;
    r.m[1][2] = (-m[3][0] * s[5] + m[3][2] * s[2] - m[3][3] * s[1]) * inv;
    r.m[1][3] = (m[2][0] * s[5] - m[2][2] * s[2] + m[2][3] * s[1]) * inv;
    r.m[2][0] = (m[1][0] * c[4] - m[1][1] * c[2] + m[1][3] * c[0]) * inv;
    r.m[2][1] = (-m[0][0] * c[4] + m[0][1] * c[2] - m[0][3] * c[0]) * inv;
    r.m[2][2] = (m[3][0] * s[4] - m[3][1] * s[2] + m[3][3] * s[0]) * inv;
    r.m[2][3] = (-m[2][0] * s[4] + m[2][1] * s[2] - m[2][3] * s[0]) * inv;
    r.m[3][0] = (-m[1][0] * c[3] + m[1][1] * c[1] - m[1][2] * c[0]) * inv;
    r.m[3][1] = (m[0][0] * c[3] - m[0][1] * c[1] + m[0][2] * c[0]) * inv;
    r.m[3][2] = (-m[3][0] * s[3] + m[3][1] * s[1] - m[3][2] * s[0]) * inv;
    r.m[3][3] = (m[2][0] * s[3] - m[2][1] * s[1] + m[2][2] * s[0]) * inv;
    out = r;
    return true;
}

bool Matrix4::IsIdentity(float epsilon) const
{
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            if (std::fabs(m[i][j] - (i == j ? 1.0f : 0.0f)) > epsilon)
                return false;
    return true;
}

Matrix4 Matrix4::Translate(const Vector3& t) { return Matrix4(Matrix3(), t); }
Matrix4 Matrix4::Scale(const Vector3& s) { return Matrix4(Matrix3::Scale(s), Vector3(0, 0, 0)); }

Matrix4 Matrix4::LookAt(const Vector3& eye, const Vector3& target, const Vector3& up)
{
    Vector3 z = (target - eye).Normalized();
    Vector3 x = up.Cross(z).Normalized();
    Vector3 y = z.Cross(x);
    return {x.x, x.y, x.z, -x.Dot(eye), y.x, y.y, y.z, -y.Dot(eye), z.x, z.y, z.z, -z.Dot(eye), 0, 0, 0, 1};
}

Matrix4 Matrix4::PerspectiveFov(float fovY, float aspect, float zNear, float zFar)
{
    float yScale = 1.0f / std::tan(fovY * 0.5f);
    float xScale = yScale / aspect;
    float q = zFar / (zFar - zNear);
    return {xScale, 0, 0, 0, 0, yScale, 0, 0, 0, 0, q, -zNear * q, 0, 0, 1, 0};
}

Matrix4 Matrix4::PerspectiveFovDegree(float fovYDegrees, float aspect, float zNear, float zFar)
{
    return PerspectiveFov(Math::DegToRad(fovYDegrees), aspect, zNear, zFar);
}

Matrix4 Matrix4::PerspectiveOffCenter(float l, float r, float b, float t, float zNear, float zFar)
{
    float q = zFar / (zFar - zNear);
    return {2 * zNear / (r - l), 0, -(l + r) / (r - l), 0,
            0, 2 * zNear / (t - b), -(t + b) / (t - b), 0,
            0, 0, q, -zNear * q,
            0, 0, 1, 0};
}

Matrix4 Matrix4::Ortho(float width, float height, float zNear, float zFar)
{
    float q = 1.0f / (zFar - zNear);
    return {2 / width, 0, 0, 0, 0, 2 / height, 0, 0, 0, 0, q, -zNear * q, 0, 0, 0, 1};
}

Matrix4 Matrix4::OrthoOffCenter(float l, float r, float b, float t, float zNear, float zFar)
{
    float q = 1.0f / (zFar - zNear);
    return {2 / (r - l), 0, 0, -(l + r) / (r - l), 0, 2 / (t - b), 0, -(t + b) / (t - b), 0, 0, q, -zNear * q, 0, 0, 0, 1};
}

Matrix4 Matrix4::MakeCubeMatrix(unsigned face, const Vector3& position)
{
    static const Vector3 kLook[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    static const Vector3 kUp[6] = {{0, 1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}, {0, 1, 0}, {0, 1, 0}};
    face %= 6;
    return LookAt(position, position + kLook[face], kUp[face]);
}

} // namespace KovexEngine
