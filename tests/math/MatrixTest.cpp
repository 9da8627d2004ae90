#include <gtest/gtest.h>

#include "math/Matrix.h"
#include "math/MathUtil.h"

using namespace KovexEngine;

namespace {

bool Near(const Matrix4& a, const Matrix4& b, float eps = 1e-4f)
{
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            if (std::fabs(a.m[i][j] - b.m[i][j]) > eps)
                return false;
    return true;
}

} // namespace

TEST(Matrix, RowStorageAndColumnVectors)
{
    Matrix4 t = Matrix4::Translate(Vector3(1, 2, 3));
    EXPECT_EQ(t.m[0][3], 1.0f) << "translation sits in the fourth column";
    EXPECT_EQ(t * Vector3(1, 1, 1), Vector3(2, 3, 4));
    EXPECT_EQ(t.TransformVector(Vector3(1, 1, 1)), Vector3(1, 1, 1));
    Matrix4 s = Matrix4::Scale(Vector3(2, 2, 2));
    EXPECT_EQ((t * s) * Vector3(1, 0, 0), Vector3(3, 2, 3)) << "t * s applies s first";
    EXPECT_EQ((s * t) * Vector3(1, 0, 0), Vector3(4, 4, 6));
}

TEST(Matrix, PointTransformDividesByW)
{
    Matrix4 m;
    m.m[3][3] = 2.0f;
    EXPECT_EQ(m * Vector3(2, 4, 6), Vector3(1, 2, 3));
    m.m[3][3] = 0.0f;
    EXPECT_EQ(m * Vector3(2, 4, 6), Vector3(0, 0, 0)) << "w of 0 gives the zero vector";
}

TEST(Matrix, InversesUndoTheirMatrices)
{
    Matrix4 m = Matrix4(Matrix3::RotateAxis(Vector3(1, 2, 3), 0.7f).ScaledColumns(Vector3(2, 0.5f, 3)),
                        Vector3(4, -5, 6));
    m.m[3][0] = 0.1f;
    m.m[3][2] = -0.2f;
    Matrix4 inv;
    ASSERT_TRUE(m.Inverse(inv));
    EXPECT_TRUE(Near(m * inv, Matrix4()));
    EXPECT_TRUE(Near(inv * m, Matrix4()));
    EXPECT_NEAR(m.Determinant() * inv.Determinant(), 1.0f, 1e-4f);

    Matrix4 singular = Matrix4::Scale(Vector3(1, 0, 1));
    EXPECT_FALSE(singular.Inverse(inv));
    EXPECT_TRUE(inv.IsIdentity());

    Matrix3 r = Matrix3::RotateEulerDegree(Vector3(10, 20, 30));
    Matrix3 r3;
    ASSERT_TRUE(r.Inverse(r3));
    EXPECT_TRUE((r * r3).IsIdentity(1e-5f));
    EXPECT_TRUE((r * r.Transposed()).IsIdentity(1e-5f)) << "rotations are orthonormal";
    EXPECT_NEAR(r.Determinant(), 1.0f, 1e-5f);

    Matrix2 m2(1, 2, 3, 4), inv2;
    ASSERT_TRUE(m2.Inverse(inv2));
    EXPECT_EQ(m2 * inv2, Matrix2());
}

TEST(Matrix, RotationsFollowTheRightHandRule)
{
    EXPECT_TRUE((Matrix3::RotateZDegree(90) * Vector3(1, 0, 0)).NearlyEquals(Vector3(0, 1, 0)));
    EXPECT_TRUE((Matrix3::RotateXDegree(90) * Vector3(0, 1, 0)).NearlyEquals(Vector3(0, 0, 1)));
    EXPECT_TRUE((Matrix3::RotateYDegree(90) * Vector3(0, 0, 1)).NearlyEquals(Vector3(1, 0, 0)));
    Matrix3 axis = Matrix3::RotateAxisDegree(Vector3(0, 0, 2), 90);
    EXPECT_TRUE((axis * Vector3(1, 0, 0)).NearlyEquals(Vector3(0, 1, 0)));
    Matrix3 skew = Matrix3::FromColumns(Vector3(1, 0.1f, 0), Vector3(0.2f, 1, 0), Vector3(0, 0, 3));
    skew.Orthonormalize();
    EXPECT_TRUE((skew * skew.Transposed()).IsIdentity(1e-5f));
}

TEST(Matrix, ProjectionsMapDepthToZeroOne)
{
    Matrix4 p = Matrix4::PerspectiveFovDegree(90.0f, 2.0f, 1.0f, 100.0f);
    EXPECT_NEAR((p * Vector3(0, 0, 1)).z, 0.0f, 1e-6f);
    EXPECT_NEAR((p * Vector3(0, 0, 100)).z, 1.0f, 1e-6f);
    EXPECT_NEAR((p * Vector3(0, 10, 10)).y, 1.0f, 1e-5f) << "the top of a 90 degree view";
    EXPECT_NEAR((p * Vector3(20, 0, 10)).x, 1.0f, 1e-5f) << "aspect widens x";
    Matrix4 o = Matrix4::Ortho(20.0f, 10.0f, 0.0f, 50.0f);
    EXPECT_TRUE((o * Vector3(10, -5, 50)).NearlyEquals(Vector3(1, -1, 1)));
    Matrix4 off = Matrix4::OrthoOffCenter(0, 10, 0, 10, 0, 1);
    EXPECT_TRUE((off * Vector3(10, 0, 0)).NearlyEquals(Vector3(1, -1, 0)));
    Matrix4 poff = Matrix4::PerspectiveOffCenter(-1, 1, -1, 1, 1, 10);
    EXPECT_TRUE(Near(poff, Matrix4::PerspectiveFovDegree(90.0f, 1.0f, 1.0f, 10.0f)));
}

TEST(Matrix, ViewsLookAlongPositiveZ)
{
    Vector3 eye(1, 2, 3);
    Matrix4 view = Matrix4::LookAt(eye, Vector3(1, 2, 10), Vector3(0, 1, 0));
    EXPECT_TRUE((view * Vector3(1, 2, 10)).NearlyEquals(Vector3(0, 0, 7)));
    EXPECT_TRUE((view * Vector3(2, 2, 3)).NearlyEquals(Vector3(1, 0, 0)));
    const Vector3 looks[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (unsigned face = 0; face < 6; ++face)
    {
        Matrix4 cube = Matrix4::MakeCubeMatrix(face, eye);
        EXPECT_TRUE((cube * (eye + looks[face])).NearlyEquals(Vector3(0, 0, 1))) << "face " << face;
        EXPECT_NEAR(cube.Upper3x3().Determinant(), 1.0f, 1e-5f);
    }
}
