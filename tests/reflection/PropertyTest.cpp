#include <gtest/gtest.h>

#include "math/Transform.h"
#include "reflection/ContainerClass.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"

using namespace KovexEngine;

namespace KovexPropertyTest {

class Part : public Object
{
    KOVEX_CLASS(Part)
public:
    int id = 0;
    bool clonable = true;
    bool IsClonable() const override { return clonable; }
};

class Gadget : public NamedObject
{
    KOVEX_CLASS(Gadget)
public:
    bool enabled = true;
    int32 count = 1;
    uint32 mask = 0xFF;
    float weight = 2.5f;
    Vector3 position{1, 2, 3};
    Quaternion rotation;
    AString tag = "tag";
    LightType light = LightType::Spot;
    Transform transform;
    Ptr<Part> shared;
    Ptr<Part> owned;
    Ptr<Part> maybe;
    TArray<int32> numbers;
    TMap<WString, float> weights;

    float GetDoubled() const { return weight * 2; }
    const WString& GetLabel() const { return label; }
    void SetLabel(const WString& l) { label = l; ++labelSets; }
    WString label;
    int labelSets = 0;
};

// Fields laid out back to back, and with a gap.
struct Packed
{
    KOVEX_STRUCT(Packed)
    float a = 0;
    Vector3 b;
    float c = 0;
};
struct Gapped
{
    KOVEX_STRUCT(Gapped)
    float a = 0;
    double gap = 0;
    Vector2 b;
};
struct Nested
{
    KOVEX_STRUCT(Nested)
    float scale = 1;
    Packed inner;
    int32 steps = 0;
};

KOVEX_REGISTER_CLASS(Part, u"Tests", Object)

KOVEX_REGISTER_CLASS_EX(Gadget, u"Tests")
void Gadget::StaticConstructor(Class* cls)
{
    RegisterBases<Gadget, NamedObject>(cls);
    AddField(cls, u"Enabled", &Gadget::enabled);
    AddField(cls, u"Count", &Gadget::count);
    AddField(cls, u"Mask", &Gadget::mask);
    AddField(cls, u"Weight", &Gadget::weight, 0, u"Category=Scene;Display=Mass;");
    AddField(cls, u"Position", &Gadget::position);
    AddField(cls, u"Rotation", &Gadget::rotation);
    AddField(cls, u"Tag", &Gadget::tag);
    AddField(cls, u"Light", &Gadget::light);
    AddField(cls, u"Transform", &Gadget::transform);
    AddField(cls, u"Shared", &Gadget::shared, Property::FLAG_SHARE_ON_CLONE);
    AddField(cls, u"Owned", &Gadget::owned);
    AddField(cls, u"Maybe", &Gadget::maybe, Property::FLAG_CLONE_IF_CLONABLE);
    AddGetter(cls, u"Doubled", &Gadget::GetDoubled);
    AddAccessor(cls, u"Label", &Gadget::GetLabel, &Gadget::SetLabel);
    AddArrayField(cls, u"Numbers", &Gadget::numbers);
    AddMapField(cls, u"Weights", &Gadget::weights);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Packed, u"Tests", KOVEX_TYPE_CUSTOM)
void Packed::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"c", &Packed::c);
    AddStructField(cls, u"a", &Packed::a);
    AddStructField(cls, u"b", &Packed::b);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Gapped, u"Tests", KOVEX_TYPE_CUSTOM)
void Gapped::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"a", &Gapped::a);
    AddStructField(cls, u"b", &Gapped::b);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Nested, u"Tests", KOVEX_TYPE_CUSTOM)
void Nested::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Scale", &Nested::scale);
    AddStructField(cls, u"Inner", &Nested::inner);
    AddStructField(cls, u"Steps", &Nested::steps);
    cls->ProcessClass();
}

} // namespace KovexPropertyTest

using namespace KovexPropertyTest;

TEST(Property, FoundByNameWithFlagsAndMetadata)
{
    const Class* cls = Gadget::StaticGetClass();
    const Property* weight = cls->FindProperty(WString(u"Weight"), false);
    ASSERT_NE(weight, nullptr);
    EXPECT_EQ(weight->GetOwnerClass(), cls);
    EXPECT_EQ(weight->GetType(), KOVEX_TYPE_FLOAT);
    EXPECT_TRUE(weight->IsNativeProperty());
    EXPECT_TRUE(weight->CanAccessProperty());
    EXPECT_TRUE(weight->CanSerializeProperty());
    EXPECT_GE(weight->GetOffset(), 0);
    WString display;
    EXPECT_TRUE(weight->GetAttribute(u"Display", display));
    EXPECT_TRUE(display == u"Mass");
    EXPECT_EQ(cls->FindProperty(WString(u"Name"), false), nullptr) << "Name belongs to NamedObject";
    const Property* name = cls->FindProperty(WString(u"Name"), true);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->GetOwnerClass(), NamedObject::StaticGetClass());
    const Property* doubled = cls->FindProperty(WString(u"Doubled"), false);
    EXPECT_TRUE(doubled->CanGetProperty());
    EXPECT_FALSE(doubled->CanSetProperty());
    EXPECT_FALSE(doubled->CanSerializeProperty());
    EXPECT_EQ(doubled->GetOffset(), -1);
    EXPECT_EQ(cls->FindProperty(WString(u"Light"), false)->GetEnums().Count(), 4u);
    EXPECT_EQ(cls->FindProperty(WString(u"Weight"), false)->GetEnums().Count(), 0u);
    EXPECT_TRUE(cls->GetPropertyArray()[0]->GetName() == u"Enabled") << "registration order";
    TArray<const Property*> all;
    cls->GetAllProperties(all);
    EXPECT_EQ(all.Count(), cls->GetPropertyArray().Count() + 1);
}

TEST(Property, GetAndSetByNameWithConversions)
{
    Ptr<Gadget> g(new Gadget());
    Variable v;
    ASSERT_TRUE(g->GetProperty(WString(u"Position"), v));
    EXPECT_EQ(v.Type(), KOVEX_TYPE_VECTOR3);
    EXPECT_EQ(v.As<Vector3>(), Vector3(1, 2, 3));
    EXPECT_EQ(v.GetClass(), Vector3::StaticGetClass());
    EXPECT_TRUE(g->SetProperty(WString(u"Count"), Variable(7.6f)));
    EXPECT_EQ(g->count, 8) << "a float into an int32 rounds to nearest";
    EXPECT_FALSE(g->SetProperty(WString(u"Mask"), Variable(3))) << "int32 does not convert to uint32";
    EXPECT_EQ(g->mask, 0xFFu);
    EXPECT_TRUE(g->SetProperty(WString(u"Mask"), Variable(u"12")));
    EXPECT_EQ(g->mask, 12u);
    EXPECT_TRUE(g->SetProperty(WString(u"Tag"), Variable(u"wide \u00E9")));
    EXPECT_TRUE(g->tag == "wide \xC3\xA9");
    EXPECT_TRUE(g->SetProperty(WString(u"Name"), Variable(u"gizmo")));
    EXPECT_TRUE(g->GetName() == u"gizmo");
    EXPECT_TRUE(g->SetProperty(WString(u"Label"), Variable("label")));
    EXPECT_EQ(g->labelSets, 1);
    EXPECT_FALSE(g->SetProperty(WString(u"Doubled"), Variable(1.0f))) << "no setter";
    ASSERT_TRUE(g->GetProperty(WString(u"Doubled"), v));
    EXPECT_EQ(v.GetFloat(), 5.0f);
    EXPECT_FALSE(g->SetProperty(WString(u"NoSuchProperty"), Variable(1)));
    EXPECT_FALSE(g->GetProperty(WString(u"NoSuchProperty"), v));
    EXPECT_FALSE(g->SetProperty(WString(u"Position"), Variable(Matrix4()))) << "no conversion, no write";
    EXPECT_EQ(g->position, Vector3(1, 2, 3));

    ASSERT_TRUE(g->GetProperty(WString(u"Light"), v));
    EXPECT_EQ(v.Type(), KOVEX_TYPE_ENUM);
    EXPECT_EQ(v.GetInt(), int(LightType::Spot));
    EXPECT_TRUE(v.ToString() == u"Spot");
    v.SetEnumValue(LightType::Sky, LightType::GetSelfEnumClass());
    EXPECT_TRUE(g->SetProperty(WString(u"Light"), v));
    EXPECT_EQ(g->light, LightType::Sky);
    Variable otherEnum;
    otherEnum.SetEnumValue(1, BlendMode::GetSelfEnumClass());
    EXPECT_FALSE(g->SetProperty(WString(u"Light"), otherEnum)) << "an enum of another class is refused";

    ASSERT_TRUE(g->GetProperty(WString(u"Transform"), v));
    EXPECT_EQ(v.Type(), KOVEX_TYPE_CUSTOM);
    static_cast<Transform*>(v.GetStructMem())->translation = Vector3(9, 9, 9);
    EXPECT_EQ(g->transform.translation, Vector3(0, 0, 0)) << "the variable holds a copy";
    EXPECT_TRUE(g->SetProperty(WString(u"Transform"), v));
    EXPECT_EQ(g->transform.translation, Vector3(9, 9, 9));
}

TEST(Property, ObjectReferencesCheckTheirClass)
{
    Ptr<Gadget> g(new Gadget());
    Ptr<Part> part(new Part());
    EXPECT_TRUE(g->SetProperty(WString(u"Owned"), Variable(Ptr<Object>(part.Get()))));
    EXPECT_EQ(g->owned.Get(), part.Get());
    Ptr<Gadget> wrong(new Gadget());
    EXPECT_FALSE(g->SetProperty(WString(u"Owned"), Variable(Ptr<Object>(wrong.Get()))));
    EXPECT_EQ(g->owned.Get(), part.Get()) << "the wrong class is refused silently";
    EXPECT_TRUE(g->SetProperty(WString(u"Owned"), Variable(static_cast<Object*>(nullptr))));
    EXPECT_EQ(g->owned.Get(), nullptr);
}

TEST(Property, CloneSharesClonesOrKeepsReferencesByFlag)
{
    Ptr<Gadget> g(new Gadget());
    g->SetName(WString(u"original"));
    g->shared = new Part();
    g->owned = new Part();
    g->owned->id = 5;
    g->maybe = new Part();
    g->maybe->clonable = false;
    g->weight = 9;
    g->numbers.Add(1);
    Ptr<Object> copy = g->Clone(0);
    ASSERT_NE(copy.Get(), nullptr);
    auto* c = static_cast<Gadget*>(copy.Get());
    EXPECT_EQ(c->weight, 9.0f);
    EXPECT_TRUE(c->GetName() == u"original");
    EXPECT_EQ(c->shared.Get(), g->shared.Get()) << "flag 0x100 shares";
    EXPECT_NE(c->owned.Get(), g->owned.Get()) << "no flag: cloned";
    ASSERT_NE(c->owned.Get(), nullptr);
    EXPECT_EQ(c->owned->GetClass(), Part::StaticGetClass());
    EXPECT_EQ(c->maybe.Get(), g->maybe.Get()) << "0x200 keeps what is not clonable";
    EXPECT_EQ(c->labelSets, 1) << "accessors are copied through the setter";
}

TEST(Struct, FieldsSortAndContiguity)
{
    const auto* packed = static_cast<const Struct*>(Packed::StaticGetClass());
    ASSERT_EQ(packed->GetStructFields().Count(), 3u);
    EXPECT_TRUE(packed->GetStructFields()[0]->GetName() == u"a") << "sorted by offset";
    EXPECT_TRUE(packed->GetStructFields()[2]->GetName() == u"c");
    EXPECT_TRUE(packed->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT);
    EXPECT_EQ(packed->GetSerializeOffset(), 0u);
    EXPECT_EQ(packed->GetSerializeSize(), 20u);
    const auto* gapped = static_cast<const Struct*>(Gapped::StaticGetClass());
    EXPECT_FALSE(gapped->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT);
    EXPECT_TRUE(static_cast<const Struct*>(Vector3::StaticGetClass())->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT);
    EXPECT_EQ(Vector3::StaticGetClass()->GetType(), KOVEX_TYPE_VECTOR3);
    EXPECT_TRUE(Vector3::StaticGetClass()->GetAttribute() == u"Category=Math;");
}

TEST(Struct, TextRoundTripWithExpressions)
{
    const auto* cls = static_cast<const Struct*>(Nested::StaticGetClass());
    EXPECT_TRUE(cls->IsStructStringable() == false) << "an int32 field is not stringable";
    Nested value;
    value.scale = 2;
    value.inner.a = 1;
    value.inner.b = Vector3(3, 4, 5);
    value.inner.c = 6;
    value.steps = 9;
    WString text;
    ASSERT_TRUE(cls->ToString(text, &value));
    EXPECT_TRUE(text == u"2,1,3,4,5,6,9");
    Nested read;
    ASSERT_TRUE(cls->FromString(WString(u"2*2, 1, 3,4,5, 6, 7.9"), &read));
    EXPECT_EQ(read.scale, 4.0f) << "a number may be an expression";
    EXPECT_EQ(read.inner.b, Vector3(3, 4, 5));
    EXPECT_EQ(read.steps, 7) << "integers round down";
    EXPECT_FALSE(cls->FromString(WString(u"1,2"), &read)) << "too few tokens";
    EXPECT_TRUE(static_cast<const Struct*>(Packed::StaticGetClass())->IsStructStringable());
}

TEST(Mirror, ArraysAndMapsThroughVariables)
{
    Ptr<Gadget> g(new Gadget());
    auto* property = static_cast<const ContainerProperty*>(Gadget::StaticGetClass()->FindProperty(WString(u"Numbers"), false));
    ASSERT_NE(property, nullptr);
    EXPECT_EQ(property->GetType(), KOVEX_TYPE_TARRAY);
    EXPECT_TRUE(property->GetClass()->GetName() == u"TArray<int32>");
    EXPECT_TRUE(property->GetClass()->GetModule() == u"Arrays");
    Ptr<ArrayMirror> array = property->CreateArrayMirror(g->GetClassPointer(property->GetOwnerClass()));
    ASSERT_NE(array.Get(), nullptr);
    EXPECT_EQ(array->GetItemClass(), Class::GetInt32Class());
    EXPECT_TRUE(array->Insert(0, Variable(10)));
    EXPECT_TRUE(array->Insert(1, Variable(2.6f))) << "converted by the Variable rules";
    EXPECT_FALSE(array->Insert(5, Variable(1))) << "an index out of range";
    EXPECT_FALSE(array->Insert(0, Variable(Matrix4())));
    ASSERT_EQ(g->numbers.Count(), 2u);
    EXPECT_EQ(g->numbers[1], 3);
    Variable item;
    EXPECT_TRUE(array->Get(0, item));
    EXPECT_EQ(item.GetInt(), 10);
    EXPECT_FALSE(array->Get(2, item));
    EXPECT_FALSE(array->Set(7, Variable(1)));
    EXPECT_TRUE(array->Remove(0));
    EXPECT_FALSE(array->Remove(1));
    EXPECT_EQ(array->Count(), 1u);

    auto* mapProperty = static_cast<const ContainerProperty*>(Gadget::StaticGetClass()->FindProperty(WString(u"Weights"), false));
    EXPECT_TRUE(mapProperty->GetClass()->GetName() == u"TMap<WString, float>");
    Ptr<MapMirror> map = mapProperty->CreateMapMirror(g->GetClassPointer(mapProperty->GetOwnerClass()));
    EXPECT_TRUE(map->Set(Variable(u"b"), Variable(2.0f)));
    EXPECT_TRUE(map->Set(Variable("a"), Variable(1)));
    EXPECT_TRUE(map->Set(Variable(u"b"), Variable(3.0f)));
    EXPECT_EQ(map->Count(), 2u);
    Variable key, value;
    EXPECT_TRUE(map->GetAt(0, key, value));
    EXPECT_TRUE(key.As<WString>() == u"a");
    EXPECT_TRUE(map->Find(Variable(u"b"), value));
    EXPECT_EQ(value.GetFloat(), 3.0f);
    EXPECT_FALSE(map->Find(Variable(u"zz"), value));
    EXPECT_TRUE(map->Remove(Variable(u"a")));
    EXPECT_EQ(g->weights.Count(), 1u);
    Ptr<ArrayMirror> standalone = static_cast<const ArrayClass*>(property->GetClass())->CreateMirror();
    EXPECT_TRUE(standalone->Insert(0, Variable(1)));
}

TEST(Property, ObjectsCompareByTheirProperties)
{
    Ptr<Gadget> a(new Gadget()), b(new Gadget());
    EXPECT_FALSE(a->IsDifferent(b.Get()));
    b->weight = 7;
    EXPECT_TRUE(a->IsDifferent(b.Get()));
    b->weight = a->weight;
    b->SetName(WString(u"other"));
    EXPECT_TRUE(a->HasDiffProps(b.Get())) << "inherited properties count";
    Ptr<Part> part(new Part());
    EXPECT_TRUE(a->HasDiffProps(part.Get())) << "another class always differs";
    EXPECT_TRUE(a->HasDiffProps(nullptr));

    Variable defaults;
    ASSERT_TRUE(static_cast<const Struct*>(Transform::StaticGetClass())->GetDefaultVariable(defaults));
    EXPECT_EQ(static_cast<const Transform*>(defaults.GetStructMem())->scale, Vector3(1, 1, 1));
}
