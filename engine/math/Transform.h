#pragma once

#include "kernel/ReflectedStruct.h"

#include "math/Matrix.h"

namespace KovexEngine {

// Rotation, translation and scale: a point p goes to rotation * (scale * p)
// + translation. Composition keeps the three parts apart, which is exact for
// uniform scale and the usual approximation otherwise.
class KOVEX_API Transform
{
    KOVEX_STRUCT(Transform)

public:
    enum : uint32
    {
        // The three scale components differ.
        FLAG_NONUNIFORM_SCALE = 0x1,
        // Rotation and scale mirror space (negative determinant).
        FLAG_FLIPPED = 0x2,
    };

    Matrix3 rotation;
    Vector3 translation{0, 0, 0};
    Vector3 scale{1, 1, 1};
    uint32 flags = 0;

    Transform() = default;
    Transform(const Matrix3& r, const Vector3& t, const Vector3& s = Vector3(1, 1, 1)) : rotation(r), translation(t), scale(s) {}

    bool operator==(const Transform& o) const;
    void SetIdentity() { *this = Transform(); }

    Vector3 TransformPoint(const Vector3& p) const { return rotation * (p * scale) + translation; }
    Vector3 TransformVector(const Vector3& v) const { return rotation * (v * scale); }
    Matrix4 ToMatrix() const;

    // out = a ∘ b: b is applied first.
    static void Multiply(Transform& out, const Transform& a, const Transform& b);
    // this := b ∘ this: this is applied first, then b.
    void MultiplySelf(const Transform& b);
    Transform Inverse() const;

    // Sets or clears FLAG_NONUNIFORM_SCALE from the scale (|x - y| or
    // |x - z| above 0.001).
    void CheckNonUniformScale();
    // Sets or clears FLAG_FLIPPED from the sign of the determinant.
    void CheckFlipped();
};

} // namespace KovexEngine
