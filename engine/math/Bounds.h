#pragma once

#include "kernel/ReflectedStruct.h"

#include "math/Matrix.h"

namespace KovexEngine {

class Transform;

// Axis-aligned box. An empty box has max below min.
class KOVEX_API Aabb
{
    KOVEX_STRUCT(Aabb)

public:
    Vector3 min{3.402823466e+38f, 3.402823466e+38f, 3.402823466e+38f};
    Vector3 max{-3.402823466e+38f, -3.402823466e+38f, -3.402823466e+38f};

    Aabb() = default;
    Aabb(const Vector3& mn, const Vector3& mx) : min(mn), max(mx) {}

    bool operator==(const Aabb& o) const { return min == o.min && max == o.max; }
    bool IsEmpty() const { return max.x < min.x; }
    void SetEmpty() { *this = Aabb(); }
    Vector3 Center() const { return (min + max) * 0.5f; }
    Vector3 Extent() const { return (max - min) * 0.5f; }

    void Add(const Vector3& p);
    void Add(const Aabb& box);
    bool Contains(const Vector3& p) const;
    bool Intersects(const Aabb& box) const;
    // The box around `box` transformed by `transform` (scale included).
    static Aabb FromTransformedAabb(const Aabb& box, const Transform& transform);
    static Aabb FromTransformedAabb(const Aabb& box, const Matrix4& matrix);
    // The box around `box` mapped by `linear`, then moved: the centre
    // mapped, the extent through |linear|. Inline: every changed node of a
    // scene update takes it.
    static Aabb FromMappedAabb(const Aabb& box, const Matrix3& linear, const Vector3& translation)
    {
        if (box.IsEmpty())
            return box;
        Vector3 center = linear * box.Center() + translation;
        Vector3 e = box.Extent();
        Vector3 extent;
        for (unsigned i = 0; i < 3; ++i)
            extent[i] = std::fabs(linear.m[i][0]) * e.x + std::fabs(linear.m[i][1]) * e.y +
                        std::fabs(linear.m[i][2]) * e.z;
        return {center - extent, center + extent};
    }
};

class KOVEX_API Sphere
{
    KOVEX_STRUCT(Sphere)

public:
    Vector3 center{0, 0, 0};
    float radius = 0;

    Sphere() = default;
    Sphere(const Vector3& c, float r) : center(c), radius(r) {}
    bool operator==(const Sphere& o) const { return center == o.center && radius == o.radius; }
    bool Contains(const Vector3& p) const { return (p - center).LengthSq() <= radius * radius; }
    bool Intersects(const Sphere& o) const;
    static Sphere FromAabb(const Aabb& box) { return {box.Center(), box.Extent().Length()}; }
};

// Oriented box: a centre, three unit axes (the columns of `axes`) and the
// half sizes along them.
class KOVEX_API Obb
{
    KOVEX_STRUCT(Obb)

public:
    Vector3 center{0, 0, 0};
    Matrix3 axes;
    Vector3 extent{0, 0, 0};

    Obb() = default;
    Obb(const Vector3& c, const Matrix3& a, const Vector3& e) : center(c), axes(a), extent(e) {}
    bool operator==(const Obb& o) const { return center == o.center && axes == o.axes && extent == o.extent; }

    static Obb FromAabb(const Aabb& box, const Transform& transform);
    bool Contains(const Vector3& p) const;
    // The eight corners.
    void GetCorners(Vector3 out[8]) const;
    Aabb ToAabb() const;
};

} // namespace KovexEngine
