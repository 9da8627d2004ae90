#include <gtest/gtest.h>

#include "fuzz/SampleClasses.h"
#include "reflection/ClassIterator.h"
#include "reflection/Function.h"

using namespace KovexEngine;
using namespace KovexSample;

TEST(FieldIterator, WalksMembersOfTheClassThenOfEachBase)
{
    const Class* crate = SampleCrate::StaticGetClass();
    TArray<WString> names;
    for (PropertyIterator it(crate, &Class::GetPropertyArray); it.hasNext();)
        names.Add(it.Next()->GetName());
    const auto& own = crate->GetPropertyArray();
    ASSERT_EQ(names.Count(), own.Count() + 1);
    for (unsigned i = 0; i < own.Count(); ++i)
        EXPECT_TRUE(names[i] == own[i]->GetName()) << i;
    EXPECT_TRUE(names.Last() == WString(u"Name")) << "NamedObject's property comes last";

    TArray<const Function*> functions;
    for (FunctionIterator it(crate, &Class::GetFunctionMap); it.hasNext();)
        functions.Add(it.Next());
    ASSERT_EQ(functions.Count(), 1u + 2u + 3u);
    EXPECT_TRUE(functions[0]->GetName() == WString(u"HitSelf"));
    EXPECT_EQ(functions[1]->GetOwnerClass(), NamedObject::StaticGetClass());
    EXPECT_EQ(functions[5]->GetOwnerClass(), Object::StaticGetClass());

    // A class with no members of its own goes straight on to its bases.
    PropertyIterator objectOnly(Object::StaticGetClass(), &Class::GetPropertyArray);
    EXPECT_FALSE(objectOnly.hasNext());
    EXPECT_EQ(objectOnly.Next(), nullptr);
}

TEST(FunctionParameter, SizeOfParameter)
{
    const Function* clone = Object::StaticGetClass()->FindFunction(WString(u"Clone"), false);
    ASSERT_TRUE(clone);
    const FunctionParameterEx* flags = clone->GetParameter(0);
    EXPECT_EQ(flags->SizeOfParameter(), 16u + 6u + flags->defaultValue->GetMemerySize());
    FunctionParameterEx bare;
    EXPECT_EQ(bare.SizeOfParameter(), 16u);
}

TEST(MirrorFunc, ArraysThroughAccessorFunctions)
{
    Ptr<SampleCrate> crate = MakeSampleCrate();
    auto* hidden = static_cast<const ContainerProperty*>(SampleCrate::StaticGetClass()->FindProperty(WString(u"Hidden"), false));
    ASSERT_TRUE(hidden);
    EXPECT_TRUE(hidden->CanSerializeProperty());
    Ptr<ArrayMirror> mirror = hidden->CreateArrayMirror(crate.Get());
    ASSERT_TRUE(mirror);
    EXPECT_EQ(mirror->GetNativeClass(), ArrayMirrorFunc::StaticGetClass());
    EXPECT_TRUE(mirror->GetNativeClass()->IsKindOf(ArrayMirror::StaticGetClass()));
    EXPECT_EQ(mirror->GetItemClass(), Class::GetInt32Class());
    EXPECT_EQ(mirror->Count(), 3u);
    Variable item;
    ASSERT_TRUE(mirror->Get(1, item));
    EXPECT_EQ(item.GetInt(), 20);
    EXPECT_TRUE(mirror->Insert(3, Variable(40)));
    EXPECT_EQ(crate->hidden.Count(), 4u);
    // What the record leaves out fails.
    EXPECT_FALSE(mirror->Set(0, Variable(1)));
    EXPECT_FALSE(mirror->Remove(0));
    EXPECT_FALSE(mirror->SetCount(0));
    mirror->Clear();
    EXPECT_EQ(crate->hidden.Count(), 0u);
}

TEST(MirrorFunc, MapsThroughAccessorFunctions)
{
    static TMap<WString, int32> store;
    store.Clear();
    MapClass::Funcs funcs;
    funcs.count = [](const void* owner) { return static_cast<const TMap<WString, int32>*>(owner)->Count(); };
    funcs.set = [](void* owner, const Variable& key, const Variable& value) {
        WString k;
        int32 v = 0;
        return key.GetWString(k) && FunctionDetail::FromVariable(value, v) &&
               static_cast<TMap<WString, int32>*>(owner)->Set(k, v);
    };
    funcs.find = [](const void* owner, const Variable& key, Variable& value) {
        WString k;
        const int32* found = key.GetWString(k) ? static_cast<const TMap<WString, int32>*>(owner)->FindValue(k) : nullptr;
        if (found)
            value = int(*found);
        return found != nullptr;
    };
    auto* cls = static_cast<const MapClass*>(MapClassOf<WString, int32>());
    Ptr<MapMirror> mirror = cls->CreateMirrorFunc(&store, funcs);
    ASSERT_TRUE(mirror);
    EXPECT_EQ(mirror->GetNativeClass(), MapMirrorFunc::StaticGetClass());
    EXPECT_TRUE(mirror->GetNativeClass()->IsKindOf(MapMirror::StaticGetClass()));
    EXPECT_TRUE(mirror->Set(Variable(u"a"), Variable(7)));
    EXPECT_EQ(mirror->Count(), 1u);
    Variable value;
    EXPECT_TRUE(mirror->Find(Variable(u"a"), value));
    EXPECT_EQ(value.GetInt(), 7);
    Variable key;
    EXPECT_FALSE(mirror->GetAt(0, key, value)) << "no accessor given";
    EXPECT_FALSE(mirror->Remove(Variable(u"a")));
    mirror->Clear();
    EXPECT_EQ(store.Count(), 1u);
}
