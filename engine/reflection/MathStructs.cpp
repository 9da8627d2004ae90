// The math types as reflected structs.

#include <cmath>

#include "math/Bounds.h"
#include "math/Plane.h"
#include "math/Quaternion.h"
#include "math/Rect.h"
#include "math/Transform.h"
#include "reflection/Struct.h"

namespace KovexEngine {
namespace {

// Component-wise comparison within an epsilon, for structs of floats.
template <typename T>
bool NearlyEqualFloats(const T& a, const T& b, float epsilon)
{
    static_assert(sizeof(T) % sizeof(float) == 0);
    const float* x = reinterpret_cast<const float*>(&a);
    const float* y = reinterpret_cast<const float*>(&b);
    for (unsigned i = 0; i < sizeof(T) / sizeof(float); ++i)
        if (std::fabs(x[i] - y[i]) > epsilon)
            return false;
    return true;
}

template <typename T>
void MathStruct(Class* cls)
{
    cls->SetAttribute(WString(u"Category=Math;"));
    static_cast<TStruct<T>*>(cls)->SetCompareFunction(&NearlyEqualFloats<T>);
}

} // namespace

KOVEX_REGISTER_STRUCT(Vector2, u"Engine", KOVEX_TYPE_VECTOR2)
void Vector2::StaticConstructor(Class* cls)
{
    MathStruct<Vector2>(cls);
    AddStructField(cls, u"x", &Vector2::x);
    AddStructField(cls, u"y", &Vector2::y);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Vector3, u"Engine", KOVEX_TYPE_VECTOR3)
void Vector3::StaticConstructor(Class* cls)
{
    MathStruct<Vector3>(cls);
    AddStructField(cls, u"x", &Vector3::x);
    AddStructField(cls, u"y", &Vector3::y);
    AddStructField(cls, u"z", &Vector3::z);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Vector4, u"Engine", KOVEX_TYPE_VECTOR4)
void Vector4::StaticConstructor(Class* cls)
{
    MathStruct<Vector4>(cls);
    AddStructField(cls, u"x", &Vector4::x);
    AddStructField(cls, u"y", &Vector4::y);
    AddStructField(cls, u"z", &Vector4::z);
    AddStructField(cls, u"w", &Vector4::w);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Quaternion, u"Engine", KOVEX_TYPE_QUATERNION)
void Quaternion::StaticConstructor(Class* cls)
{
    MathStruct<Quaternion>(cls);
    AddStructField(cls, u"x", &Quaternion::x);
    AddStructField(cls, u"y", &Quaternion::y);
    AddStructField(cls, u"z", &Quaternion::z);
    AddStructField(cls, u"w", &Quaternion::w);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Matrix2, u"Engine", KOVEX_TYPE_MATRIX2)
void Matrix2::StaticConstructor(Class* cls)
{
    MathStruct<Matrix2>(cls);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Matrix3, u"Engine", KOVEX_TYPE_MATRIX3)
void Matrix3::StaticConstructor(Class* cls)
{
    MathStruct<Matrix3>(cls);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Matrix4, u"Engine", KOVEX_TYPE_MATRIX4)
void Matrix4::StaticConstructor(Class* cls)
{
    MathStruct<Matrix4>(cls);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Transform, u"Engine", KOVEX_TYPE_CUSTOM)
void Transform::StaticConstructor(Class* cls)
{
    cls->SetAttribute(WString(u"Category=Transform;"));
    AddStructField(cls, u"Rotation", &Transform::rotation);
    AddStructField(cls, u"Translation", &Transform::translation);
    AddStructField(cls, u"Scale", &Transform::scale);
    AddStructField(cls, u"Flags", &Transform::flags);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Rect, u"Engine", KOVEX_TYPE_CUSTOM)
void Rect::StaticConstructor(Class* cls)
{
    cls->SetAttribute(WString(u"Category=Math;"));
    AddStructField(cls, u"left", &Rect::left);
    AddStructField(cls, u"top", &Rect::top);
    AddStructField(cls, u"right", &Rect::right);
    AddStructField(cls, u"bottom", &Rect::bottom);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Aabb, u"Engine", KOVEX_TYPE_CUSTOM)
void Aabb::StaticConstructor(Class* cls)
{
    MathStruct<Aabb>(cls);
    AddStructField(cls, u"Min", &Aabb::min);
    AddStructField(cls, u"Max", &Aabb::max);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Obb, u"Engine", KOVEX_TYPE_CUSTOM)
void Obb::StaticConstructor(Class* cls)
{
    MathStruct<Obb>(cls);
    AddStructField(cls, u"Center", &Obb::center);
    AddStructField(cls, u"Axes", &Obb::axes);
    AddStructField(cls, u"Extent", &Obb::extent);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Sphere, u"Engine", KOVEX_TYPE_CUSTOM)
void Sphere::StaticConstructor(Class* cls)
{
    MathStruct<Sphere>(cls);
    AddStructField(cls, u"Center", &Sphere::center);
    AddStructField(cls, u"Radius", &Sphere::radius);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Plane, u"Engine", KOVEX_TYPE_CUSTOM)
void Plane::StaticConstructor(Class* cls)
{
    MathStruct<Plane>(cls);
    AddStructField(cls, u"Normal", &Plane::normal);
    AddStructField(cls, u"D", &Plane::d);
    cls->ProcessClass();
}

} // namespace KovexEngine
