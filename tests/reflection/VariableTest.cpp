#include <gtest/gtest.h>

#include <algorithm>

#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "math/Transform.h"
#include "reflection/EngineEnums.h"
#include "reflection/EnumClass.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"
#include "support/AllocCounter.h"

using namespace KovexEngine;

namespace KovexVariableTest {

// Exactly 64 bytes, and one byte more: inline against heap storage.
struct Fits
{
    KOVEX_STRUCT(Fits)
    float values[16] = {};
    bool operator==(const Fits& o) const { return std::equal(values, values + 16, o.values); }
};
struct TooBig
{
    KOVEX_STRUCT(TooBig)
    float values[16] = {};
    char extra = 0;
    bool operator==(const TooBig& o) const { return extra == o.extra && std::equal(values, values + 16, o.values); }
};
// A struct that owns heap memory: copies must be real copies.
struct Named
{
    KOVEX_STRUCT(Named)
    WString name;
    int count = 0;
    bool operator==(const Named& o) const { return name == o.name && count == o.count; }
};

KOVEX_REGISTER_STRUCT(Fits, u"Tests", KOVEX_TYPE_CUSTOM)
void Fits::StaticConstructor(Class* cls) { cls->ProcessClass(); }
KOVEX_REGISTER_STRUCT(TooBig, u"Tests", KOVEX_TYPE_CUSTOM)
void TooBig::StaticConstructor(Class* cls) { cls->ProcessClass(); }
KOVEX_REGISTER_STRUCT(Named, u"Tests", KOVEX_TYPE_CUSTOM)
void Named::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Name", &Named::name);
    AddStructField(cls, u"Count", &Named::count);
    cls->ProcessClass();
}

} // namespace KovexVariableTest

using namespace KovexVariableTest;

TEST(Variable, PlainValuesAndTheirTags)
{
    EXPECT_EQ(Variable(true).Type(), KOVEX_TYPE_BOOL);
    EXPECT_EQ(Variable(-3).Type(), KOVEX_TYPE_INT32);
    EXPECT_EQ(Variable(3u).Type(), KOVEX_TYPE_UINT32);
    EXPECT_EQ(Variable(1.5f).Type(), KOVEX_TYPE_FLOAT);
    EXPECT_EQ(Variable(Matrix4()).Type(), KOVEX_TYPE_MATRIX4);
    EXPECT_EQ(Variable("text").Type(), KOVEX_TYPE_ASTRING);
    EXPECT_EQ(Variable(u"text").Type(), KOVEX_TYPE_WSTRING);
    EXPECT_EQ(Variable().Type(), KOVEX_TYPE_UNKNOWN);
    EXPECT_EQ(Variable(Vector3(1, 2, 3)).As<Vector3>(), Vector3(1, 2, 3));
    EXPECT_EQ(Variable(Vector3(1, 2, 3)).GetClass(), nullptr) << "plain values carry no class";

    Variable v(u"a wide string long enough for the heap");
    Variable copy(v);
    EXPECT_TRUE(copy == v);
    v = 5;
    EXPECT_TRUE(copy.As<WString>() == u"a wide string long enough for the heap") << "copies are deep";
    EXPECT_FALSE(copy == v);
    EXPECT_TRUE(Variable(1.0f) == Variable(1.0f));
    EXPECT_FALSE(Variable(1) == Variable(1u)) << "different types are never equal";
    copy.Clear();
    EXPECT_EQ(copy.Type(), KOVEX_TYPE_UNKNOWN);
}

TEST(Variable, ValuesUpTo64BytesNeverAllocate)
{
    KovexTest::AllocationScope scope;
    {
        Variable a(Matrix4::Translate(Vector3(1, 2, 3)));
        Variable b(a);
        b = Quaternion(0, 0, 0, 1);
        Variable fits;
        Fits value;
        fits.SetStructMem(&value, Fits::StaticGetClass(), true, false);
        Variable copy(fits);
        EXPECT_FALSE(copy.IsPtr());
        Variable text("short");
        Variable e;
        e.SetEnumValue(LightType::Spot, LightType::GetSelfEnumClass());
    }
    EXPECT_EQ(scope.Count(), 0u);
}

TEST(Variable, StructsOver64BytesGoToTheHeap)
{
    TooBig big;
    big.values[3] = 7;
    Variable v;
    ASSERT_TRUE(v.SetStructMem(&big, TooBig::StaticGetClass(), true, false));
    EXPECT_EQ(v.GetTag() & 0xF000u, 0x5000u) << "heap copy, owned";
    EXPECT_NE(v.GetStructMem(), static_cast<void*>(&big));
    EXPECT_EQ(static_cast<TooBig*>(v.GetStructMem())->values[3], 7.0f);
    Variable copy(v);
    EXPECT_NE(copy.GetStructMem(), v.GetStructMem()) << "a heap value is cloned";
    EXPECT_TRUE(copy == v);
    static_cast<TooBig*>(copy.GetStructMem())->extra = 1;
    EXPECT_FALSE(copy == v);

    Fits fits;
    Variable inlineValue;
    ASSERT_TRUE(inlineValue.SetStructMem(&fits, Fits::StaticGetClass(), true, false));
    EXPECT_EQ(inlineValue.GetTag() & 0xF000u, 0u) << "64 bytes stay inline";
    EXPECT_EQ(inlineValue.GetStructMem(), inlineValue.GetStorage());
}

TEST(Variable, ReferencesNeverFreeWhatTheyPointAt)
{
    Named* owned = new Named{WString(u"a name long enough to live on the heap"), 3};
    {
        Variable reference;
        ASSERT_TRUE(reference.SetStructMem(owned, Named::StaticGetClass(), false, false));
        EXPECT_TRUE(reference.IsPtrType());
        EXPECT_FALSE(reference.IsManaged());
        EXPECT_EQ(reference.GetStructMem(), owned);
        Variable copy(reference);
        EXPECT_EQ(copy.GetStructMem(), owned) << "a copied reference stays a reference";
    }
    EXPECT_EQ(owned->count, 3);
    {
        Variable managing;
        managing.SetStructMem(owned, Named::StaticGetClass(), false, true);
        EXPECT_TRUE(managing.IsManaged());
    } // frees `owned`; AddressSanitizer would report it otherwise
    Named local{WString(u"another name long enough for the heap"), 1};
    Variable inlineCopy;
    inlineCopy.SetStructMem(&local, Named::StaticGetClass(), true, false);
    local.name = u"changed";
    EXPECT_TRUE(static_cast<Named*>(inlineCopy.GetStructMem())->name == u"another name long enough for the heap");
}

TEST(Variable, ChangeFollowsTheConversionTable)
{
    Variable out;
    EXPECT_TRUE(out.Change(KOVEX_TYPE_INT32, Variable(2.5f)));
    EXPECT_EQ(out.GetInt(), 3) << "floats round to nearest";
    EXPECT_TRUE(out.Change(KOVEX_TYPE_INT32, Variable(-2.6f)));
    EXPECT_EQ(out.GetInt(), -3);
    EXPECT_TRUE(out.Change(KOVEX_TYPE_UINT32, Variable(-4.0f)));
    EXPECT_EQ(out.GetUInt(), 0u);
    EXPECT_FALSE(out.Change(KOVEX_TYPE_UINT32, Variable(5))) << "int32 to uint32 is not in the table";
    EXPECT_FALSE(out.Change(KOVEX_TYPE_INT32, Variable(5u)));
    EXPECT_TRUE(out.Change(KOVEX_TYPE_BOOL, Variable(7u)));
    EXPECT_TRUE(out.GetBool());
    EXPECT_TRUE(out.Change(KOVEX_TYPE_BOOL, Variable("TRUE")));
    EXPECT_TRUE(out.GetBool());
    EXPECT_TRUE(out.Change(KOVEX_TYPE_FLOAT, Variable(Vector3(4, 5, 6))));
    EXPECT_EQ(out.GetFloat(), 4.0f);
    EXPECT_TRUE(out.Change(KOVEX_TYPE_VECTOR3, Variable(2.0f)));
    EXPECT_EQ(out.As<Vector3>(), Vector3(2, 2, 2));
    EXPECT_TRUE(out.Change(KOVEX_TYPE_VECTOR3, Variable(Vector2(1, 2))));
    EXPECT_EQ(out.As<Vector3>(), Vector3(1, 2, 0));
    EXPECT_TRUE(out.Change(KOVEX_TYPE_VECTOR4, Variable(Quaternion(1, 2, 3, 4))));
    EXPECT_EQ(out.As<Vector4>(), Vector4(1, 2, 3, 4));
    EXPECT_TRUE(out.Change(KOVEX_TYPE_VECTOR2, Variable(u"1.5, 2")));
    EXPECT_EQ(out.As<Vector2>(), Vector2(1.5f, 2));
    EXPECT_TRUE(out.Change(KOVEX_TYPE_ASTRING, Variable(true)));
    EXPECT_TRUE(out.As<AString>() == "true") << "printed by the string overloads";
    EXPECT_TRUE(out.Change(KOVEX_TYPE_WSTRING, Variable(Vector2(1, 2))));
    EXPECT_TRUE(out.As<WString>() == u"1,2");
    EXPECT_TRUE(out.Change(KOVEX_TYPE_WSTRING, Variable("\xC3\xA9")));
    EXPECT_TRUE(out.As<WString>() == u"\u00E9");
    EXPECT_TRUE(out.Change(KOVEX_TYPE_INT32, Variable(u"0x10")));
    EXPECT_EQ(out.GetInt(), 16);

    Variable kept(42);
    EXPECT_FALSE(kept.Change(KOVEX_TYPE_MATRIX4, Variable(1.0f))) << "no conversion to matrices";
    EXPECT_FALSE(kept.Change(KOVEX_TYPE_INT32, Variable(u"twelve")));
    EXPECT_EQ(kept.GetInt(), 42) << "a failed conversion changes nothing";
    EXPECT_TRUE(kept.Change(KOVEX_TYPE_FLOAT, kept)) << "converting a variable into itself";
    EXPECT_EQ(kept.GetFloat(), 42.0f);
}

TEST(Variable, TextForms)
{
    EXPECT_TRUE(Variable(true).ToString() == u"1") << "a bool prints as a number";
    EXPECT_TRUE(Variable(false).ToString() == u"0");
    EXPECT_TRUE(Variable(-7).ToString() == u"-7");
    EXPECT_TRUE(Variable(4000000000u).ToString() == u"4000000000");
    EXPECT_TRUE(Variable(Vector4(1, 2, 3, 4)).ToString() == u"1,2,3,4");
    EXPECT_TRUE(Variable("x").ToString() == u"x");
    EXPECT_TRUE(Variable(static_cast<Object*>(nullptr)).ToString() == u"null");
    Variable e;
    e.SetEnumValue(BlendMode::Additive, BlendMode::GetSelfEnumClass());
    EXPECT_TRUE(e.ToString() == u"Additive");
    AString narrow;
    EXPECT_TRUE(Variable(u"wide").GetAString(narrow));
    EXPECT_TRUE(narrow == "wide");
    EXPECT_FALSE(Variable(3).GetAString(narrow));
}

TEST(Variable, DefaultsOfEachType)
{
    Variable v;
    v.SetDefaultValue(Quaternion::StaticGetClass());
    EXPECT_EQ(v.As<Quaternion>(), Quaternion(0, 0, 0, 1));
    v.SetDefaultValue(Matrix3::StaticGetClass());
    EXPECT_TRUE(v.As<Matrix3>().IsIdentity());
    v.SetDefaultValue(Class::GetWStringClass());
    EXPECT_EQ(v.Type(), KOVEX_TYPE_WSTRING);
    EXPECT_TRUE(v.As<WString>().IsEmpty());
    v.SetDefaultValue(Transform::StaticGetClass());
    EXPECT_EQ(v.Type(), KOVEX_TYPE_CUSTOM);
    EXPECT_EQ(static_cast<Transform*>(v.GetStructMem())->scale, Vector3(1, 1, 1));
    v.SetDefaultValue(TooBig::StaticGetClass());
    EXPECT_TRUE(v.IsPtr());
    EXPECT_TRUE(v.IsValidStructData());
}
