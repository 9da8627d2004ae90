#include <gtest/gtest.h>

#include <cmath>

#include "math/MathUtil.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "math/Vector.h"

using namespace KovexEngine;

TEST(Vector, ArithmeticAndProducts)
{
    Vector3 a(1, 2, 3), b(4, 5, 6);
    EXPECT_EQ(a + b, Vector3(5, 7, 9));
    EXPECT_EQ(b - a, Vector3(3, 3, 3));
    EXPECT_EQ(a * b, Vector3(4, 10, 18));
    EXPECT_EQ(a.Dot(b), 32.0f);
    EXPECT_EQ(Vector3(1, 0, 0).Cross(Vector3(0, 1, 0)), Vector3(0, 0, 1));
    EXPECT_EQ(Vector3::Lerp(a, b, 0.5f), Vector3(2.5f, 3.5f, 4.5f));
    Vector3 n(3, 0, 4);
    EXPECT_FLOAT_EQ(n.Normalize(), 5.0f);
    EXPECT_FLOAT_EQ(n.Length(), 1.0f);
    Vector3 zero;
    EXPECT_EQ(zero.Normalize(), 0.0f);
    EXPECT_EQ(zero, Vector3(0, 0, 0)) << "a zero vector stays zero";
    EXPECT_EQ(Vector3::Min(a, Vector3(0, 9, 3)), Vector3(0, 2, 3));
}

TEST(Vector, ColoursPackAndUnpack)
{
    Vector4 c(1.0f, 0.5f, 0.0f, 1.0f);
    EXPECT_EQ(c.ToRGBA(), 0xFF0080FFu);
    EXPECT_EQ(c.ToBGRA(), 0xFFFF8000u);
    EXPECT_EQ(Vector4(2.0f, -1.0f, 0.0f, 0.0f).ToRGBA(), 0x000000FFu) << "channels clamp to [0, 1]";
    Vector4 back = Vector4::FromBGRA(c.ToBGRA());
    EXPECT_NEAR(back.x, 1.0f, 1e-6f);
    EXPECT_NEAR(back.y, 128.0f / 255.0f, 1e-6f);
    EXPECT_EQ(Vector4::FromRGBA(0x11223344u).ToRGBA(), 0x11223344u);
}

TEST(Math, FastInvSqrtIsAccurateAcrossTheRange)
{
    Math::Init();
    Math::Init();
    double worst = 0;
    for (float x : {1e-30f, 1e-10f, 0.001f, 0.25f, 0.5f, 1.0f, 2.0f, 3.0f, 10.0f, 12345.678f, 1e20f, 3e38f})
    {
        double exact = 1.0 / std::sqrt(double(x));
        double error = std::fabs(Math::FastInvSqrt(x) - exact) / exact;
        worst = error > worst ? error : worst;
    }
    for (int i = 1; i < 100000; ++i)
    {
        float x = float(i) * 0.37f;
        double exact = 1.0 / std::sqrt(double(x));
        double error = std::fabs(Math::FastInvSqrt(x) - exact) / exact;
        worst = error > worst ? error : worst;
    }
    EXPECT_LT(worst, 2e-6);
    EXPECT_EQ(Math::FastInvSqrt(0.0f), 0.0f);
    EXPECT_EQ(Math::FastInvSqrt(-4.0f), 0.0f);
    EXPECT_TRUE(std::isnan(Math::FastInvSqrt(std::nanf(""))));
    EXPECT_NEAR(Math::FastInvSqrt(1e-40f), 1.0 / std::sqrt(1e-40), 1e15) << "subnormals";
    EXPECT_NEAR(Math::FastSqrt(81.0f), 9.0f, 1e-4f);
}

TEST(Math, Helpers)
{
    EXPECT_EQ(Math::NextPowerOfTwo(0), 1u);
    EXPECT_EQ(Math::NextPowerOfTwo(17), 32u);
    EXPECT_EQ(Math::NextPowerOfTwo(64), 64u);
    EXPECT_EQ(Math::NextPowerOfTwo(0x80000001u), 0u);
    EXPECT_TRUE(Math::IsPowerOfTwo(1024));
    EXPECT_FALSE(Math::IsPowerOfTwo(0));
    EXPECT_FLOAT_EQ(Math::DegToRad(180.0f), Math::PI);
    EXPECT_EQ(Math::Clamp(5, 0, 3), 3);
}

TEST(Quaternion, RotationsAgreeWithMatrices)
{
    Quaternion q = Quaternion::FromAxisAngleDegree(Vector3(0, 1, 0), 90.0f);
    Vector3 v = q * Vector3(1, 0, 0);
    EXPECT_TRUE(v.NearlyEquals(Vector3(0, 0, -1))) << v.x << "," << v.y << "," << v.z;
    Matrix3 m = q.ToMatrix();
    EXPECT_TRUE((m * Vector3(1, 0, 0)).NearlyEquals(v));
    Quaternion back = Quaternion::FromMatrix(m);
    EXPECT_NEAR(std::fabs(back.Dot(q)), 1.0f, 1e-6f);

    Quaternion a = Quaternion::FromAxisAngle(Vector3(1, 0, 0), 0.3f);
    Quaternion b = Quaternion::FromAxisAngle(Vector3(0, 0, 1), 1.1f);
    Vector3 p(0.3f, -2.0f, 5.0f);
    EXPECT_TRUE(((a * b) * p).NearlyEquals(a * (b * p), 1e-5f)) << "a * b rotates by b first";
    EXPECT_TRUE(((a * b).ToMatrix() * p).NearlyEquals(a.ToMatrix() * (b.ToMatrix() * p), 1e-5f));
}

TEST(Quaternion, SlerpSquadAndIntermedia)
{
    Quaternion a;  // identity
    Quaternion b = Quaternion::FromAxisAngleDegree(Vector3(0, 0, 1), 90.0f);
    Quaternion half;
    Quaternion::Slerp(half, a, b, 0.5f);
    Quaternion expected = Quaternion::FromAxisAngleDegree(Vector3(0, 0, 1), 45.0f);
    EXPECT_NEAR(half.Dot(expected), 1.0f, 1e-6f);
    Quaternion ends;
    Quaternion::Slerp(ends, a, b, 1.0f);
    EXPECT_NEAR(ends.Dot(b), 1.0f, 1e-6f);
    // The shorter arc: -b is the same rotation.
    Quaternion::Slerp(half, a, -b, 0.5f);
    EXPECT_NEAR(std::fabs(half.Dot(expected)), 1.0f, 1e-6f);

    // Intermediates of evenly spaced keys about one axis are the keys
    // themselves, so squad reduces to slerp.
    Quaternion k0 = Quaternion::FromAxisAngleDegree(Vector3(0, 1, 0), 0.0f);
    Quaternion k1 = Quaternion::FromAxisAngleDegree(Vector3(0, 1, 0), 30.0f);
    Quaternion k2 = Quaternion::FromAxisAngleDegree(Vector3(0, 1, 0), 60.0f);
    Quaternion s1;
    Quaternion::Intermedia(s1, k0, k1, k2);
    EXPECT_NEAR(s1.Dot(k1), 1.0f, 1e-5f);
    Quaternion squad, slerp;
    Quaternion::Squad(squad, k0, k0, k1, s1, 0.3f);
    Quaternion::Slerp(slerp, k0, k1, 0.3f);
    EXPECT_NEAR(squad.Dot(slerp), 1.0f, 1e-5f);

    Quaternion logExp = Quaternion::Exp(Quaternion::Log(b));
    EXPECT_NEAR(logExp.Dot(b), 1.0f, 1e-6f);
}
