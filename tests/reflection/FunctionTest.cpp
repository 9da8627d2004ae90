#include <gtest/gtest.h>

#include "reflection/Delegate.h"
#include "reflection/EngineEnums.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Object.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace KovexFunctionTest {

class Calculator : public Object
{
    KOVEX_CLASS(Calculator)
public:
    int32 Add(int32 a, int32 b) { return a + b + bias; }
    float Scale(const Vector3& v, float factor, uint32 times) const { return v.x * factor * float(times); }
    void Store(const WString& text) { stored = text; }
    WString Describe(LightType light) const { return WString(light.GetName()); }
    Ptr<Object> Self() { return Ptr<Object>(this); }
    bool Accept(Calculator* other) { return other != nullptr; }
    static int32 Twice(int32 x) { return 2 * x; }
    // Typed object results: a new object by Ptr of its own class, or none.
    static Ptr<Calculator> Make(int32 bias)
    {
        if (bias < 0)
            return Ptr<Calculator>();
        Ptr<Calculator> made(new Calculator());
        made->bias = bias;
        return made;
    }
    Ptr<Calculator> Sibling() const { return Make(bias + 1); }
    int32 bias = 0;
    WString stored;
};

class Multi : public Object
{
    KOVEX_CLASS(Multi)
};

KOVEX_REGISTER_CLASS_EX(Calculator, u"Tests")
void Calculator::StaticConstructor(Class* cls)
{
    RegisterBases<Calculator, Object>(cls);
    AddFunction(cls, u"Add", &Calculator::Add, {u"a", u"b"})->SetParamDefault(1, new Variable(10u));
    Function* scale = AddFunction(cls, u"Scale", &Calculator::Scale, {u"v", u"factor", u"times"});
    scale->SetParamDefault(2, new Variable(1u));
    AddFunction(cls, u"Store", &Calculator::Store, {u"text"});
    AddFunction(cls, u"Describe", &Calculator::Describe, {u"light"});
    AddFunction(cls, u"Self", &Calculator::Self);
    AddFunction(cls, u"Accept", &Calculator::Accept, {u"other"});
    AddFunction(cls, u"Twice", &Calculator::Twice, {u"x"});
    AddFunction(cls, u"Make", &Calculator::Make, {u"bias"});
    AddFunction(cls, u"Sibling", &Calculator::Sibling);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS(Multi, u"Tests", Object)

} // namespace KovexFunctionTest

using namespace KovexFunctionTest;

TEST(Function, CallsByNameWithDefaultsAndConversions)
{
    Ptr<Calculator> calc(new Calculator());
    calc->bias = 1;
    {
        TFunctionStack<4> stack(2, true);
        stack->Var(0) = 2;
        stack->Var(1) = 3;
        ASSERT_TRUE(calc->Invoke(WString(u"Add"), stack.Get()));
        EXPECT_EQ(stack->RetVar().Type(), KOVEX_TYPE_INT32);
        EXPECT_EQ(stack->RetVar().GetInt(), 6);
    }
    {
        TFunctionStack<4> stack(1, true);
        stack->Var(0) = 2.6f; // rounded to 3
        ASSERT_TRUE(calc->Invoke(WString(u"Add"), stack.Get()));
        EXPECT_EQ(stack->RetVar().GetInt(), 3 + 10 + 1) << "the missing argument takes its default";
    }
    {
        TFunctionStack<4> stack(0, true);
        EXPECT_FALSE(calc->Invoke(WString(u"Add"), stack.Get())) << "the first parameter has no default";
    }
    {
        TFunctionStack<4> stack(2, true);
        stack->Var(0) = Vector3(2, 0, 0);
        stack->Var(1) = u"1.5";
        ASSERT_TRUE(calc->Invoke(WString(u"Scale"), stack.Get()));
        EXPECT_EQ(stack->RetVar().GetFloat(), 3.0f);
    }
    {
        TFunctionStack<4> stack(2, true);
        stack->Var(0) = Matrix4();
        stack->Var(1) = 1.0f;
        EXPECT_FALSE(calc->Invoke(WString(u"Scale"), stack.Get())) << "an argument that does not convert";
    }
    {
        TFunctionStack<4> stack(1, false);
        stack->Var(0) = "narrow text";
        ASSERT_TRUE(calc->Invoke(WString(u"Store"), stack.Get()));
        EXPECT_TRUE(calc->stored == u"narrow text");
    }
    {
        TFunctionStack<4> stack(1, true);
        stack->Var(0).SetEnumValue(LightType::Directional, LightType::GetSelfEnumClass());
        ASSERT_TRUE(calc->Invoke(WString(u"Describe"), stack.Get()));
        EXPECT_TRUE(stack->RetVar().As<WString>() == u"Directional");
    }
    {
        TFunctionStack<4> stack(1, true);
        stack->Var(0) = Ptr<Object>(new Multi());
        EXPECT_FALSE(calc->Invoke(WString(u"Accept"), stack.Get())) << "an object of the wrong class";
        stack->Var(0) = Ptr<Object>(calc.Get());
        EXPECT_TRUE(calc->Invoke(WString(u"Accept"), stack.Get()));
        EXPECT_TRUE(stack->RetVar().GetBool());
    }
    {
        TFunctionStack<4> stack(0, true);
        ASSERT_TRUE(calc->Invoke(WString(u"Self"), stack.Get()));
        EXPECT_EQ(stack->RetVar().GetObject(), calc.Get());
    }
    {
        TFunctionStack<4> stack(1, true);
        stack->Var(0) = 21;
        EXPECT_TRUE(Calculator::StaticGetClass()->StaticInvoke(WString(u"Twice"), stack.Get(), false));
        EXPECT_EQ(stack->RetVar().GetInt(), 42);
        EXPECT_FALSE(Calculator::StaticGetClass()->StaticInvoke(WString(u"Twice"), nullptr, false));
    }
}

TEST(Function, TypedObjectResultsComeBackWithTheirReference)
{
    const Function* make = Calculator::StaticGetClass()->FindFunction(WString(u"Make"), false);
    ASSERT_TRUE(make);
    EXPECT_EQ(make->GetReturnParam().cls, Calculator::StaticGetClass()) << "the result keeps its class";
    {
        TFunctionStack<2> stack(1, true);
        stack->Var(0) = 7;
        ASSERT_TRUE(Calculator::StaticGetClass()->StaticInvoke(WString(u"Make"), stack.Get(), false));
        ASSERT_EQ(stack->RetVar().Type(), KOVEX_TYPE_OBJECT);
        Object* object = stack->RetVar().GetObject();
        ASSERT_TRUE(object);
        ASSERT_TRUE(object->IsKindOf(Calculator::StaticGetClass()));
        EXPECT_EQ(static_cast<Calculator*>(object)->bias, 7);
        // The stack holds the only reference: the object lives while it does.
        Ptr<Object> kept(object);
        stack->RetVar() = 0;
        EXPECT_EQ(static_cast<Calculator*>(kept.Get())->bias, 7);
    }
    {
        TFunctionStack<2> stack(1, true);
        stack->Var(0) = -1;
        ASSERT_TRUE(Calculator::StaticGetClass()->StaticInvoke(WString(u"Make"), stack.Get(), false));
        EXPECT_EQ(stack->RetVar().GetObject(), nullptr) << "a null result is a null object";
    }
    Ptr<Calculator> calc(new Calculator());
    calc->bias = 2;
    TFunctionStack<2> stack(0, true);
    ASSERT_TRUE(calc->Invoke(WString(u"Sibling"), stack.Get()));
    ASSERT_TRUE(stack->RetVar().GetObject());
    EXPECT_EQ(static_cast<Calculator*>(stack->RetVar().GetObject())->bias, 3);
}

TEST(Function, MissingFunctionsAndNullStacks)
{
    KovexTest::LogCapture log;
    Ptr<Calculator> calc(new Calculator());
    EXPECT_FALSE(calc->Invoke(WString(u"Add"), nullptr));
    EXPECT_EQ(log->entries.Count(), 0u) << "a null stack neither looks up nor logs";
    TFunctionStack<2> stack(0, false);
    EXPECT_FALSE(calc->Invoke(WString(u"Subtract"), stack.Get()));
    ASSERT_EQ(log->entries.Count(), 1u);
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_WARNING));
    EXPECT_TRUE(log->entries[0].text == u"Can't invoke function [Subtract], because it does not exist !\n");
    const Function* add = Calculator::StaticGetClass()->FindFunction(WString(u"Add"), false);
    EXPECT_FALSE(add->Invoke(nullptr, stack.Get())) << "a member function needs an object";
}

TEST(Function, InheritedFunctionsOfObject)
{
    Ptr<Calculator> calc(new Calculator());
    calc->bias = 4;
    TFunctionStack<2> stack(0, true);
    ASSERT_TRUE(calc->Invoke(WString(u"Clone"), stack.Get())) << "flags default to 0";
    Object* copy = stack->RetVar().GetObject();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetClass(), Calculator::StaticGetClass());
    TFunctionStack<2> kind(1, true);
    kind->Var(0) = u"Object";
    ASSERT_TRUE(calc->Invoke(WString(u"IsKindOf"), kind.Get()));
    EXPECT_TRUE(kind->RetVar().GetBool());
    ASSERT_TRUE(calc->Invoke(WString(u"IsExtractKindOf"), kind.Get()));
    EXPECT_FALSE(kind->RetVar().GetBool());
}

TEST(Function, DescriptionsAndPrototypes)
{
    const Class* cls = Calculator::StaticGetClass();
    const Function* add = cls->FindFunction(WString(u"Add"), false);
    ASSERT_NE(add, nullptr);
    EXPECT_TRUE(add->IsMemberFunction());
    EXPECT_TRUE(add->IsNativeFunction());
    EXPECT_FALSE(add->IsConstMemberFunction());
    EXPECT_EQ(add->GetNumParameters(), 2u);
    EXPECT_EQ(add->GetParamType(0), KOVEX_TYPE_INT32);
    EXPECT_EQ(add->GetFirstDefaultIndex(), 1u);
    EXPECT_EQ(add->GetParamDefault(1)->Type(), KOVEX_TYPE_INT32) << "a uint32 default is re-tagged to int32";
    WString text;
    add->GetPrototype(text, true);
    EXPECT_TRUE(text == u"int32 Calculator::Add(int32 a, int32 b = 10)");
    cls->FindFunction(WString(u"Scale"), false)->GetPrototype(text, false);
    EXPECT_TRUE(text == u"float Scale(const Vector3& v, float factor, uint32 times = 1)");
    cls->FindFunction(WString(u"Twice"), false)->GetPrototype(text, false);
    EXPECT_TRUE(text == u"static int32 Twice(int32 x)");
    cls->FindFunction(WString(u"Accept"), false)->GetPrototype(text, false);
    EXPECT_TRUE(text == u"bool Accept(Ptr<Calculator>* other)");
    cls->FindFunction(WString(u"Store"), false)->GetPrototype(text, false);
    EXPECT_TRUE(text == u"void Store(const WString& text)");
    EXPECT_TRUE(cls->FindFunction(WString(u"Scale"), false)->IsConstMemberFunction());
    Object::StaticGetClass()->FindFunction(WString(u"Clone"), false)->GetPrototype(text, true);
    EXPECT_TRUE(text == u"Ptr<Object> Object::Clone(uint32 flags = 0)");

    TArray<const Function*> statics;
    cls->FindFunctions(statics, Function::FLAG_STATIC, true);
    ASSERT_EQ(statics.Count(), 2u);
    EXPECT_TRUE(statics[0]->GetName() == u"Make");
    EXPECT_TRUE(statics[1]->GetName() == u"Twice");
    statics[0]->GetPrototype(text, true);
    EXPECT_TRUE(text == u"static Ptr<Calculator> Calculator::Make(int32 bias)");
    TArray<const Function*> members;
    cls->FindFunctions(members, Function::FLAG_MEMBER, true);
    EXPECT_EQ(members.Count(), 7u + 3u) << "own members, then Object's";

    Function* twice = const_cast<Function*>(cls->FindFunction(WString(u"Twice"), false));
    EXPECT_FALSE(twice->SetParamDefault(0, new Variable(Matrix4()))) << "a default that does not convert";
    EXPECT_FALSE(twice->HasDefParams());
    EXPECT_FALSE(twice->SetParamDefault(5, new Variable(1)));
}

TEST(Function, ACallByNameAllocatesNothing)
{
    Ptr<Calculator> calc(new Calculator());
    WString name(u"Scale");
    TFunctionStack<3> stack(3, true);
    stack->Var(0) = Vector3(1, 2, 3);
    stack->Var(1) = 2.0f;
    stack->Var(2) = 3u;
    calc->Invoke(name, stack.Get()); // the first call may build what is lazily built
    KovexTest::AllocationScope scope;
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(calc->Invoke(name, stack.Get()));
    EXPECT_EQ(scope.Count(), 0u);
    EXPECT_EQ(stack->RetVar().GetFloat(), 6.0f);
}

TEST(Function, NativeStacksPointAtTheCallersValues)
{
    Ptr<Calculator> calc(new Calculator());
    FunctionStackNative stack;
    alignas(void*) unsigned char memory[sizeof(FunctionStackNative::Entry) * 3];
    stack.Init(2, true);
    stack.Assign(memory);
    Variable a(20), b(22);
    stack.SetParam(a, 0);
    stack.SetParam(b, 1);
    int32 result = 0;
    Variable resultHolder(0);
    stack.SetRetVal(resultHolder);
    ASSERT_TRUE(calc->Invoke(WString(u"Add"), &stack));
    EXPECT_EQ(resultHolder.GetInt(), 42) << "the result is written where the return entry points";
    (void)result;
    bool isPointer = true;
    EXPECT_EQ(stack.GetParamType(isPointer, 0), KOVEX_TYPE_INT32);
    FunctionStackVariable empty;
    empty.Init(0, false);
    EXPECT_EQ(empty.GetReturnType(isPointer), KOVEX_TYPE_VOID);
}
