#include <gtest/gtest.h>

#include "commands/CommandThread.h"
#include "commands/ThreadCommandDelegate.h"
#include "reflection/Delegate.h"
#include "reflection/Variable.h"

using namespace KovexEngine;

namespace {

int s_calls = 0;
void Touch(float) { ++s_calls; }
void TouchToo(float) { s_calls += 10; }
int Square(int x) { return x * x; }

struct Counter
{
    int total = 0;
    void Add(float v) { total += int(v); }
    void Bump() { ++total; }
};

} // namespace

TEST(Delegate, NamesPrototypesAndClasses)
{
    const Class* cls = DelegateS<void(float)>::StaticGetClass();
    ASSERT_NE(cls, nullptr);
    EXPECT_TRUE(cls->GetName() == u"Delegate_VOID_F");
    EXPECT_EQ(cls->GetType(), KOVEX_TYPE_DELEGATE);
    EXPECT_TRUE(cls->IsDelegate());
    EXPECT_EQ(Class::GetClass(WString(u"Delegate_VOID_F")), cls);
    EXPECT_EQ(DelegateS<void(float)>::StaticGetClass(), cls) << "one class per signature";
    const auto* delegateClass = static_cast<const DelegateClass*>(cls);
    WString text;
    EXPECT_TRUE(delegateClass->GetPrototype(text));
    EXPECT_TRUE(text == u"DelegateS<void(float)>");
    EXPECT_TRUE(DelegateS<int32(const Vector3&, uint32)>::StaticGetClass()->GetName() == u"Delegate_I32_V3_U32");
    EXPECT_TRUE(DelegateC<void(float)>::StaticGetClass()->GetName() == u"DelegateC_VOID_F");
    WString shortName;
    EXPECT_TRUE(Class::GetTypeShortName(shortName, cls));
    EXPECT_TRUE(shortName == u"Delegate_VOID_F");
}

TEST(Delegate, IsMatchReportsOnlySignaturesDifferentEverywhere)
{
    auto* voidFloat = static_cast<const DelegateClass*>(DelegateS<void(float)>::StaticGetClass());
    auto* intInt = static_cast<const DelegateClass*>(DelegateS<int32(int32)>::StaticGetClass());
    auto* voidInt = static_cast<const DelegateClass*>(DelegateS<void(int32)>::StaticGetClass());
    auto* voidTwo = static_cast<const DelegateClass*>(DelegateS<void(int32, int32)>::StaticGetClass());
    EXPECT_TRUE(voidFloat->IsMatch(intInt));
    EXPECT_FALSE(voidFloat->IsMatch(voidFloat));
    EXPECT_FALSE(voidFloat->IsMatch(voidInt)) << "the same return type";
    EXPECT_FALSE(intInt->IsMatch(voidTwo)) << "different counts";
    EXPECT_FALSE(voidFloat->IsMatch(nullptr));
}

TEST(Delegate, CallsCompareAndEmptyDelegates)
{
    s_calls = 0;
    DelegateS<void(float)> free(&Touch);
    free(1.0f);
    EXPECT_EQ(s_calls, 1);
    Counter counter;
    DelegateS<void(float)> member(&counter, &Counter::Add);
    member(5.0f);
    EXPECT_EQ(counter.total, 5);
    DelegateS<void(float)> empty;
    EXPECT_TRUE(empty.IsEmpty());
    empty(3.0f);
    DelegateS<int(int)> squares(&Square);
    EXPECT_EQ(squares(7), 49);
    EXPECT_EQ(DelegateS<int(int)>()(7), 0) << "an empty delegate returns the zero value";

    EXPECT_TRUE(free == DelegateS<void(float)>(&Touch));
    EXPECT_FALSE(free == DelegateS<void(float)>(&TouchToo));
    EXPECT_TRUE(member == DelegateS<void(float)>(&counter, &Counter::Add));
    Counter other;
    EXPECT_FALSE(member == DelegateS<void(float)>(&other, &Counter::Add));
    EXPECT_FALSE(member == free);
    EXPECT_TRUE(empty == DelegateS<void(float)>());
    EXPECT_FALSE(free.IsEqual(nullptr));
    DelegateC<void(float)> sameSlotOtherClass(&Touch);
    EXPECT_FALSE(free.IsEqual(&sameSlotOtherClass)) << "a delegate of another class";
    DelegateS<void(float)> copy = member;
    copy(2.0f);
    EXPECT_EQ(counter.total, 7) << "a copy shares the slot";
}

TEST(Delegate, VariablesHoldDelegates)
{
    Counter counter;
    DelegateS<void(float)> member(&counter, &Counter::Add);
    Variable v;
    ASSERT_TRUE(v.SetStructMem(&member, DelegateS<void(float)>::StaticGetClass(), true, false));
    EXPECT_EQ(v.Type(), KOVEX_TYPE_DELEGATE);
    EXPECT_FALSE(v.IsPtr());
    Variable copy(v);
    EXPECT_TRUE(copy == v);
    (*static_cast<DelegateS<void(float)>*>(copy.GetStructMem()))(4.0f);
    EXPECT_EQ(counter.total, 4);
}

TEST(Delegate, ACommandCanRunADelegate)
{
    FinalThread<CommandThread> worker;
    Counter counter;
    Ptr<ThreadCommand_Delegate> command(new ThreadCommand_Delegate(DelegateC<void()>(&counter, &Counter::Bump)));
    EXPECT_TRUE(command->GetClass()->IsKindOf(ThreadCommand::StaticGetClass()));
    worker.MT_PostCommand(command.Get());
    worker.ProcessMTCommandList();
    EXPECT_EQ(counter.total, 1);
    EXPECT_EQ(command->GetState(), ThreadCommand::STATE_FINISHED);
}
