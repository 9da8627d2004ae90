// Struct properties in both forms: every reflected math struct and a nested
// user struct round-trip, held in plain fields or behind accessors; a stored
// struct that lacks or spoils a field fails the load with the field named.

#include <gtest/gtest.h>

#include <cstring>

#include "math/Bounds.h"
#include "math/Plane.h"
#include "math/Quaternion.h"
#include "math/Transform.h"
#include "reflection/Object.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace KovexStructPropertyTest {

// A user struct holding other structs, text and plain values.
struct Pose
{
    KOVEX_STRUCT(Pose)
    Transform where;
    Sphere reach;
    AString label;
    int32 rank = 0;
    bool visible = false;
};

// A struct whose one field is behind accessors: it has no place in the
// value's memory that the codecs could read or write.
struct Gauge
{
    KOVEX_STRUCT(Gauge)
    float GetLevel() const { return level; }
    void SetLevel(float value) { level = value; }
    float level = 0.5f;
};

class Shapes : public Object
{
    KOVEX_CLASS(Shapes)
public:
    Vector2 v2;
    Vector3 v3;
    Vector4 v4;
    Quaternion q;
    Matrix2 m2;
    Matrix3 m3;
    Matrix4 m4;
    Transform transform;
    Aabb box;
    Sphere sphere;
    Obb obb;
    Plane plane;
    Pose pose;

    // A struct behind accessors, which count their calls.
    Transform GetPivot() const
    {
        ++gets;
        return pivot;
    }
    void SetPivot(const Transform& t)
    {
        ++sets;
        pivot = t;
    }
    Transform pivot;
    mutable int gets = 0;
    int sets = 0;
};

KOVEX_REGISTER_STRUCT(Pose, u"Tests", KOVEX_TYPE_CUSTOM)
void Pose::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Where", &Pose::where);
    AddStructField(cls, u"Reach", &Pose::reach);
    AddStructField(cls, u"Label", &Pose::label);
    AddStructField(cls, u"Rank", &Pose::rank);
    AddStructField(cls, u"Visible", &Pose::visible);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Gauge, u"Tests", KOVEX_TYPE_CUSTOM)
void Gauge::StaticConstructor(Class* cls)
{
    AddAccessor(cls, u"Level", &Gauge::GetLevel, &Gauge::SetLevel, Property::FLAG_STRUCT_FIELD);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS_EX(Shapes, u"Tests")
void Shapes::StaticConstructor(Class* cls)
{
    RegisterBases<Shapes, Object>(cls);
    AddField(cls, u"V2", &Shapes::v2);
    AddField(cls, u"V3", &Shapes::v3);
    AddField(cls, u"V4", &Shapes::v4);
    AddField(cls, u"Q", &Shapes::q);
    AddField(cls, u"M2", &Shapes::m2);
    AddField(cls, u"M3", &Shapes::m3);
    AddField(cls, u"M4", &Shapes::m4);
    AddField(cls, u"Transform", &Shapes::transform);
    AddField(cls, u"Box", &Shapes::box);
    AddField(cls, u"Sphere", &Shapes::sphere);
    AddField(cls, u"Obb", &Shapes::obb);
    AddField(cls, u"Plane", &Shapes::plane);
    AddField(cls, u"Pose", &Shapes::pose);
    AddAccessor(cls, u"Pivot", &Shapes::GetPivot, &Shapes::SetPivot);
    cls->ProcessClass();
}

// Fills the floats of a value with numbers the text form's six significant
// digits carry exactly.
template <typename T>
void Fill(T& value, float start)
{
    static_assert(sizeof(T) % sizeof(float) == 0);
    auto* f = reinterpret_cast<float*>(&value);
    for (unsigned i = 0; i < sizeof(T) / sizeof(float); ++i)
        f[i] = start + 0.25f * float(i);
}

Transform MakeTransform(float start)
{
    Transform t;
    Fill(t.rotation, start);
    t.translation = Vector3(start, -start, 0.5f);
    t.scale = Vector3(2, 2, 0.125f);
    t.flags = Transform::FLAG_NONUNIFORM_SCALE;
    return t;
}

Ptr<Shapes> MakeShapes()
{
    Ptr<Shapes> s(new Shapes());
    Fill(s->v2, 1);
    Fill(s->v3, 2);
    Fill(s->v4, 3);
    Fill(s->q, 4);
    Fill(s->m2, 5);
    Fill(s->m3, 6);
    Fill(s->m4, 7);
    s->transform = MakeTransform(8);
    s->box = Aabb(Vector3(-1, -2, -3), Vector3(4, 5, 6));
    s->sphere = Sphere(Vector3(1, 2, 3), 9.5f);
    s->obb.center = Vector3(1, 1, 1);
    Fill(s->obb.axes, 0.5f);
    s->obb.extent = Vector3(3, 2, 1);
    s->plane = Plane(0, 0, 1, -7);
    s->pose.where = MakeTransform(-3);
    s->pose.reach = Sphere(Vector3(0, 1, 0), 2.5f);
    s->pose.label = "one;two\\three";
    s->pose.rank = -12;
    s->pose.visible = true;
    s->pivot = MakeTransform(11);
    return s;
}

template <typename T>
void ExpectSameBytes(const T& a, const T& b, const char* what)
{
    EXPECT_EQ(0, std::memcmp(&a, &b, sizeof(T))) << what;
}

void ExpectSame(const Shapes& a, const Shapes& b)
{
    ExpectSameBytes(a.v2, b.v2, "Vector2");
    ExpectSameBytes(a.v3, b.v3, "Vector3");
    ExpectSameBytes(a.v4, b.v4, "Vector4");
    ExpectSameBytes(a.q, b.q, "Quaternion");
    ExpectSameBytes(a.m2, b.m2, "Matrix2");
    ExpectSameBytes(a.m3, b.m3, "Matrix3");
    ExpectSameBytes(a.m4, b.m4, "Matrix4");
    ExpectSameBytes(a.transform, b.transform, "Transform");
    ExpectSameBytes(a.box, b.box, "Aabb");
    ExpectSameBytes(a.sphere, b.sphere, "Sphere");
    ExpectSameBytes(a.obb, b.obb, "Obb");
    ExpectSameBytes(a.plane, b.plane, "Plane");
    ExpectSameBytes(a.pose.where, b.pose.where, "Pose.Where");
    ExpectSameBytes(a.pose.reach, b.pose.reach, "Pose.Reach");
    EXPECT_TRUE(a.pose.label == b.pose.label) << b.pose.label();
    EXPECT_EQ(a.pose.rank, b.pose.rank);
    EXPECT_EQ(a.pose.visible, b.pose.visible);
    ExpectSameBytes(a.pivot, b.pivot, "Pivot");
}

const Property* FindProperty(const char16_t* name) { return Shapes::StaticGetClass()->FindProperty(WString(name), true); }

// One "OBJ" section holding a Shapes object with one property whose value
// `writeValue` writes.
Bytes ObjectWithOneProperty(const Class* form, const char16_t* name, const std::function<void(Serializer&)>& writeValue)
{
    return WriteWith(form, [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::OBJ));
        s.Write(FourCCs::OBID, 1u);
        s.Write(FourCCs::CLS, WString(u"Shapes"));
        s.Write(FourCCs::PRSZ, 1u);
        s.Enter(FourCCs::PROP);
        s.Write(FourCCs::NAME, WString(name));
        writeValue(s);
        s.Leave();
        s.Leave();
    });
}

} // namespace KovexStructPropertyTest

using namespace KovexStructPropertyTest;

class StructForms : public testing::TestWithParam<bool>
{
protected:
    bool IsXml() const { return GetParam(); }
    const Class* Form() const { return IsXml() ? XmlSerializer::StaticGetClass() : BinSerializer::StaticGetClass(); }
};
INSTANTIATE_TEST_SUITE_P(Serialization, StructForms, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Xml" : "Bin"; });

TEST_P(StructForms, EveryReflectedStructRoundTrips)
{
    Ptr<Shapes> shapes = MakeShapes();
    Bytes bytes = SaveIn(Form(), ConstPtr<Object>(shapes.Get()));
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(shapes->gets, 1) << "the accessor's getter saved the value";
    LogCapture log;
    Ptr<Object> loaded = LoadFrom(bytes);
    ASSERT_TRUE(loaded) << bytes;
    ASSERT_EQ(loaded->GetClass(), Shapes::StaticGetClass());
    auto& back = *static_cast<Shapes*>(loaded.Get());
    ExpectSame(*shapes, back);
    EXPECT_EQ(back.sets, 1) << "the accessor's setter stored the value";
    EXPECT_EQ(log->entries.Count(), 0u);
    // What was loaded saves to the same bytes.
    EXPECT_EQ(SaveIn(Form(), ConstPtr<Object>(loaded.Get())), bytes);
}

TEST_P(StructForms, StoredStructLackingOrSpoilingAFieldFailsTheLoad)
{
    struct Case
    {
        const char16_t* property;
        const char* text;         // the text form's value
        const char16_t* field;    // the text form's complaint names this field...
        const char16_t* structName; // ...of this struct
    };
    const Case cases[] = {
        {u"Transform", "1,0,0,0,1,0,0,0,1;1,2,3;", u"Scale", u"Transform"},
        {u"Transform", "1,0,0,0,1,0,0,0,1;1,zz,3;1,1,1;0;", u"Translation", u"Transform"},
        {u"Pivot", "1,0,0,0,1,0,0,0,1;1,2,3;1,1;0;", u"Scale", u"Transform"},
        {u"Pose", "1,0,0,0,1,0,0,0,1;1,2,3;1,1,1;0;0,1;2;label;1;1;", u"Center", u"Sphere"},
        {u"Pose", "1,0,0,0,1,0,0,0,1;1,2,3;1,1,1;0;0,1,0;2;label;many;1;", u"Rank", u"Pose"},
        {u"Box", "1,2,3;", u"Max", u"Aabb"},
    };
    for (const Case& c : cases)
    {
        // The binary form gets a value too short for the struct.
        Bytes bytes = ObjectWithOneProperty(Form(), c.property, [&](Serializer& s) {
            if (IsXml())
                s.Write(FourCCs::SKT, AString(c.text));
            else
                s.Write(FourCCs::SKT, 7u);
        });
        LogCapture log;
        EXPECT_FALSE(LoadFrom(bytes)) << c.text;
        WString failed;
        failed.Format(u"Load Property '%s' failed.\n", c.property);
        EXPECT_TRUE(log->Contains(failed())) << c.text;
        if (IsXml())
        {
            WString line;
            line.Format(u"XmlSerializer: field '%s' of struct '%s' in \"SKT\" is missing or unreadable.\n", c.field,
                        c.structName);
            EXPECT_TRUE(log->Contains(line())) << c.text;
        }
    }
}

TEST_P(StructForms, AdaptersReadFieldsInPlaceAndAccessorsThroughAVariable)
{
    const Property* field = FindProperty(u"Transform");
    const Property* accessor = FindProperty(u"Pivot");
    ASSERT_TRUE(field && accessor);
    EXPECT_GE(field->GetOffset(), 0);
    EXPECT_LT(accessor->GetOffset(), 0);
    EXPECT_TRUE(field->CanSerializeProperty() && accessor->CanSerializeProperty());

    Ptr<Shapes> from = MakeShapes();
    constexpr FourCC FAST = FourCCs::Make("FAST"), SLOW = FourCCs::Make("SLOW");
    Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
        // Each property through the fast adapter and through the general one.
        for (FourCC section : {FAST, SLOW})
        {
            ASSERT_TRUE(s.Enter(section));
            for (const Property* p : {field, accessor})
            {
                s.Enter(FourCCs::PROP);
                EXPECT_TRUE(section == FAST ? NativeProperty::SaveStructFast(from.Get(), p, &s)
                                            : Property::SaveStruct(from.Get(), p, &s));
                s.Leave();
            }
            s.Leave();
        }
    });
    EXPECT_EQ(from->gets, 2);

    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    for (FourCC section : {FAST, SLOW})
    {
        Ptr<Shapes> to(new Shapes());
        ASSERT_TRUE(s->Enter(section));
        for (const Property* p : {field, accessor})
        {
            ASSERT_TRUE(s->Enter(FourCCs::PROP));
            EXPECT_TRUE(section == FAST ? NativeProperty::LoadStructFast(to.Get(), p, s)
                                        : Property::LoadStruct(to.Get(), p, s));
            s->Leave();
        }
        s->Leave();
        ExpectSameBytes(to->transform, from->transform, "field");
        ExpectSameBytes(to->pivot, from->pivot, "accessor");
        EXPECT_EQ(to->sets, 1) << "only the accessor property goes through its setter";
    }

    // Not a struct property, or a Variable of another struct: refused.
    ASSERT_TRUE(s->Enter(FAST));
    ASSERT_TRUE(s->Enter(FourCCs::PROP));
    Ptr<Shapes> to(new Shapes());
    EXPECT_FALSE(NativeProperty::LoadStructFast(to.Get(), FindProperty(u"V3"), s));
    EXPECT_FALSE(Property::LoadStruct(to.Get(), nullptr, s));
    delete s;
    const auto* transformType = static_cast<const Struct*>(Transform::StaticGetClass());
    Variable sphere;
    sphere.SetDefaultValue(Sphere::StaticGetClass());
    Bytes refused = WriteWith(Form(), [&](Serializer& w) {
        ASSERT_TRUE(w.Enter(FAST));
        EXPECT_FALSE(transformType->SaveVariable(sphere, &w));
        Variable transform;
        transform.SetDefaultValue(transformType);
        EXPECT_TRUE(transformType->SaveVariable(transform, &w));
        w.Leave();
    });
    Serializer* r = OpenReader(refused);
    ASSERT_NE(r, nullptr);
    ASSERT_TRUE(r->Enter(FAST));
    Variable loaded;
    ASSERT_TRUE(transformType->LoadVariable(loaded, r));
    EXPECT_EQ(loaded.GetClass(), transformType);
    ExpectSameBytes(*static_cast<const Transform*>(loaded.GetStructMem()), Transform(), "default transform");
    delete r;
}

TEST_P(StructForms, StructFieldBehindAccessorsIsRefused)
{
    const auto* type = static_cast<const Struct*>(Gauge::StaticGetClass());
    ASSERT_EQ(type->GetStructFields().Count(), 1u);
    Gauge gauge;
    LogCapture log;
    Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::DATA));
        EXPECT_FALSE(s.Write(FourCCs::SKT, &gauge, type));
        s.Leave();
    });
    if (!IsXml())
        EXPECT_TRUE(log->Contains(u"Serializer: field 'Level' of struct 'Gauge' has a type that cannot be serialized.\n"));
    Bytes forged = WriteWith(Form(), [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::DATA));
        if (IsXml())
            s.Write(FourCCs::SKT, AString("0.25;"));
        else
            s.Write(FourCCs::SKT, 0.25f);
        s.Leave();
    });
    Serializer* s = OpenReader(forged);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(FourCCs::DATA));
    EXPECT_FALSE(s->Read(FourCCs::SKT, &gauge, type));
    EXPECT_EQ(gauge.level, 0.5f);
    delete s;
}
