#include <gtest/gtest.h>

#include "math/Bounds.h"
#include "math/Frustum.h"
#include "math/MathUtil.h"
#include "math/Plane.h"
#include "math/Transform.h"

using namespace KovexEngine;

TEST(Transform, ComposesWithTheRightOrder)
{
    Transform parent(Matrix3::RotateZDegree(90), Vector3(10, 0, 0), Vector3(2, 2, 2));
    Transform local(Matrix3(), Vector3(1, 0, 0));
    Transform world;
    Transform::Multiply(world, parent, local);  // local applied first
    Vector3 p(0, 0, 0);
    EXPECT_TRUE(world.TransformPoint(p).NearlyEquals(parent.TransformPoint(local.TransformPoint(p))));
    EXPECT_TRUE(world.TransformPoint(p).NearlyEquals(Vector3(10, 2, 0)));
    Transform self = local;
    self.MultiplySelf(parent);  // self := parent ∘ self
    EXPECT_TRUE(self.TransformPoint(Vector3(1, 1, 1)).NearlyEquals(world.TransformPoint(Vector3(1, 1, 1))));
    EXPECT_TRUE(world.ToMatrix() * Vector3(3, 4, 5) == world.TransformPoint(Vector3(3, 4, 5)) ||
                (world.ToMatrix() * Vector3(3, 4, 5)).NearlyEquals(world.TransformPoint(Vector3(3, 4, 5))));
    Transform inverse = world.Inverse();
    EXPECT_TRUE(inverse.TransformPoint(world.TransformPoint(Vector3(3, -1, 2))).NearlyEquals(Vector3(3, -1, 2), 1e-4f));
}

TEST(Transform, FlagsTrackScale)
{
    Transform t;
    t.scale = Vector3(1, 1.0005f, 1);
    t.CheckNonUniformScale();
    EXPECT_EQ(t.flags & Transform::FLAG_NONUNIFORM_SCALE, 0u);
    t.scale = Vector3(1, 1, 1.01f);
    t.CheckNonUniformScale();
    EXPECT_NE(t.flags & Transform::FLAG_NONUNIFORM_SCALE, 0u);
    t.scale = Vector3(-1, 1, 1);
    t.CheckFlipped();
    EXPECT_NE(t.flags & Transform::FLAG_FLIPPED, 0u);
    t.scale = Vector3(-1, -1, 1);
    t.CheckFlipped();
    EXPECT_EQ(t.flags & Transform::FLAG_FLIPPED, 0u) << "two mirrors make a rotation";
}

TEST(Bounds, BoxesGrowIntersectAndTransform)
{
    Aabb box;
    EXPECT_TRUE(box.IsEmpty());
    box.Add(Vector3(1, 2, 3));
    box.Add(Vector3(-1, 0, 5));
    EXPECT_EQ(box.min, Vector3(-1, 0, 3));
    EXPECT_EQ(box.max, Vector3(1, 2, 5));
    EXPECT_TRUE(box.Contains(Vector3(0, 1, 4)));
    EXPECT_FALSE(box.Contains(Vector3(0, 3, 4)));
    EXPECT_TRUE(box.Intersects(Aabb(Vector3(1, 2, 5), Vector3(9, 9, 9))));
    EXPECT_FALSE(box.Intersects(Aabb(Vector3(1.1f, 0, 3), Vector3(2, 2, 5))));
    box.Add(Aabb());
    EXPECT_EQ(box.max, Vector3(1, 2, 5)) << "an empty box adds nothing";

    Aabb unit(Vector3(-1, -1, -1), Vector3(1, 1, 1));
    Transform t(Matrix3::RotateZDegree(45), Vector3(5, 0, 0), Vector3(2, 1, 1));
    Aabb moved = Aabb::FromTransformedAabb(unit, t);
    // Every corner of the transformed box lies inside the result, and the
    // result is tight: its extent is reached by some corner.
    float reachX = 0;
    for (int i = 0; i < 8; ++i)
    {
        Vector3 c((i & 1) ? 1.f : -1.f, (i & 2) ? 1.f : -1.f, (i & 4) ? 1.f : -1.f);
        Vector3 p = t.TransformPoint(c);
        EXPECT_TRUE(Aabb(moved.min - Vector3(1e-5f), moved.max + Vector3(1e-5f)).Contains(p));
        reachX = std::max(reachX, p.x);
    }
    EXPECT_NEAR(reachX, moved.max.x, 1e-5f);
    EXPECT_TRUE(Aabb::FromTransformedAabb(Aabb(), t).IsEmpty());
    Aabb viaMatrix = Aabb::FromTransformedAabb(unit, t.ToMatrix());
    EXPECT_TRUE(viaMatrix.min.NearlyEquals(moved.min) && viaMatrix.max.NearlyEquals(moved.max));

    Obb obb = Obb::FromAabb(unit, t);
    EXPECT_TRUE(obb.Contains(t.TransformPoint(Vector3(0.9f, -0.9f, 0.9f))));
    EXPECT_FALSE(obb.Contains(t.TransformPoint(Vector3(1.2f, 0, 0))));
    Aabb fromObb = obb.ToAabb();
    EXPECT_TRUE(fromObb.min.NearlyEquals(moved.min, 1e-4f) && fromObb.max.NearlyEquals(moved.max, 1e-4f));

    Sphere s = Sphere::FromAabb(unit);
    EXPECT_NEAR(s.radius, std::sqrt(3.0f), 1e-6f);
    EXPECT_TRUE(s.Intersects(Sphere(Vector3(3, 0, 0), 1.3f)));
}

TEST(Bounds, PlanesClassifyAndIntersect)
{
    Plane ground = Plane::FromPoints(Vector3(0, 0, 0), Vector3(0, 0, 1), Vector3(1, 0, 0));
    EXPECT_TRUE(ground.normal.NearlyEquals(Vector3(0, 1, 0)));
    EXPECT_FLOAT_EQ(ground.Distance(Vector3(4, 3, 2)), 3.0f);
    EXPECT_EQ(ground.Classify(Aabb(Vector3(0, 1, 0), Vector3(1, 2, 1))), 1);
    EXPECT_EQ(ground.Classify(Aabb(Vector3(0, -1, 0), Vector3(1, 2, 1))), 0);
    EXPECT_EQ(ground.Classify(Sphere(Vector3(0, -5, 0), 1)), -1);
    Vector3 hit;
    EXPECT_TRUE(ground.IntersectSegment(Vector3(0, 1, 0), Vector3(0, -3, 4), hit));
    EXPECT_TRUE(hit.NearlyEquals(Vector3(0, 0, 1)));
    EXPECT_FALSE(ground.IntersectSegment(Vector3(0, 1, 0), Vector3(0, 2, 0), hit));
    Plane scaled(0, 2, 0, -4);
    scaled.Normalize();
    EXPECT_FLOAT_EQ(scaled.d, -2.0f);
}

TEST(Bounds, FrustumCullsAgainstItsSixPlanes)
{
    Matrix4 view = Matrix4::LookAt(Vector3(0, 0, 0), Vector3(0, 0, 1), Vector3(0, 1, 0));
    Matrix4 proj = Matrix4::PerspectiveFovDegree(90.0f, 1.0f, 1.0f, 100.0f);
    Frustum f;
    f.FromMatrix(proj * view);
    EXPECT_TRUE(f.Contains(Vector3(0, 0, 50)));
    EXPECT_FALSE(f.Contains(Vector3(0, 0, 0.5f)));
    EXPECT_FALSE(f.Contains(Vector3(0, 0, 101)));
    EXPECT_FALSE(f.Contains(Vector3(0, 20, 10)));
    EXPECT_EQ(f.Test(Aabb(Vector3(-1, -1, 10), Vector3(1, 1, 12))), Frustum::INSIDE);
    EXPECT_EQ(f.Test(Aabb(Vector3(-1, -1, 99), Vector3(1, 1, 102))), Frustum::INTERSECTS);
    EXPECT_EQ(f.Test(Aabb(Vector3(-1, -1, -10), Vector3(1, 1, -5))), Frustum::OUTSIDE);
    EXPECT_EQ(f.Test(Sphere(Vector3(30, 0, 10), 1)), Frustum::OUTSIDE);
    EXPECT_EQ(f.Test(Sphere(Vector3(10, 0, 10), 1)), Frustum::INTERSECTS);
    EXPECT_EQ(f.Test(Aabb()), Frustum::OUTSIDE);
}
