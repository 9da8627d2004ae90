#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "animation/AnimModifier.h"
#include "math/Matrix.h"
#include "scene/Node.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace {

// A node animation without keys: only its length and name matter here.
class Clip : public NodeAnimation
{
public:
    explicit Clip(float duration, const char16_t* name = u"clip")
    {
        SetDuration(duration);
        SetName(WString(name));
    }
};

// Counts the events it is told of, and can close the state it hears about.
struct Listener
{
    int fired = 0;
    std::vector<float> times;
    AnimModifier* closeFrom = nullptr;

    void Heard(const Ptr<AnimState>& state, const Ptr<AnimModifier>&)
    {
        ++fired;
        times.push_back(state->GetTime());
        if (closeFrom)
            closeFrom->CloseAnimation(state.Get());
    }
};

Ptr<AnimEvent> EventAt(float time, Listener& listener)
{
    Ptr<AnimEvent> event(new AnimEvent());
    event->SetTime(time);
    Ptr<DelegateTrigger> trigger(new DelegateTrigger());
    trigger->SetDelegate(DelegateTrigger::Handler(&listener, &Listener::Heard));
    event->AddTrigger(Ptr<AnimTrigger>(trigger.Get()));
    return event;
}

float BlendSum(const AnimModifier& m)
{
    float sum = 0.0f;
    for (const Ptr<AnimState>& s : m.GetActiveStates())
        if (s->IsPlayModeBlend())
            sum += s->GetEffectiveWeight();
    return sum;
}

} // namespace

// --- Fades -------------------------------------------------------------------------------

TEST(AnimFade, RunsFromStartToEndAndAZeroDurationIsAThousandth)
{
    AnimFadeCtrl in;
    in.FadeIn(2.0f);
    EXPECT_EQ(in.Update(0.5f), 0);
    EXPECT_FLOAT_EQ(in.current, 0.25f);
    EXPECT_EQ(in.Update(1.5f), 0); // progress exactly 1 is still fading
    EXPECT_EQ(in.Update(0.01f), 1);
    EXPECT_EQ(in.current, 1.0f);
    AnimFadeCtrl out;
    out.FadeOut(0.0f);
    EXPECT_FLOAT_EQ(out.rate, 1000.0f);
    EXPECT_EQ(out.Update(0.0005f), 0);
    EXPECT_FLOAT_EQ(out.current, 0.5f);
    EXPECT_EQ(out.Update(0.001f), -1);
    EXPECT_EQ(out.current, 0.0f);
}

// --- One state's clock ------------------------------------------------------------------

TEST(AnimStateClock, ThreeLoopsEndStoppedWithTheEventFiredThreeTimes)
{
    Ptr<Clip> clip(new Clip(1.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> s = m->playAnimation(clip.Get(), 1.0f, 3, false);
    ASSERT_TRUE(s);
    Listener listener;
    s->AddEvent(EventAt(0.5f, listener));
    for (int frame = 0; frame < 60; ++frame)
        m->UpdateAnimStates(0.1f);
    EXPECT_EQ(listener.fired, 3);
    EXPECT_TRUE(s->IsStopped());
    EXPECT_EQ(s->GetTime(), 1.0f);
    EXPECT_EQ(s->GetLoopCounter(), 2u);
    EXPECT_EQ(m->GetActiveStates().Count(), 1u); // stopped, still active
    s->SetPaused(true);
    EXPECT_FALSE(s->IsStopped());
}

TEST(AnimStateClock, EventsFireOncePerPassWhenAFrameStepsOverThemAndAcrossLoopEnds)
{
    Ptr<Clip> clip(new Clip(1.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> s = m->playAnimation(clip.Get(), 1.0f, 0, false);
    Listener early, late, start, end;
    s->AddEvent(EventAt(0.9f, late));
    s->AddEvent(EventAt(0.1f, early));
    s->AddEvent(EventAt(0.0f, start));
    s->AddEvent(EventAt(1.0f, end));
    ASSERT_EQ(s->GetEvents()[0]->GetTime(), 0.0f); // sorted on insertion
    ASSERT_EQ(s->GetEvents()[3]->GetTime(), 1.0f);
    // Frames of 0.35 s step over events, and over the loop end.
    for (int frame = 0; frame < 30; ++frame)
        m->UpdateAnimStates(0.35f);
    // 30 frames of 0.35 s with the overshoot dropped: 3 frames a pass, 10 passes.
    EXPECT_EQ(s->GetLoopCounter(), 10u);
    EXPECT_EQ(early.fired, 10);
    EXPECT_EQ(late.fired, 10);
    EXPECT_EQ(start.fired, 10); // the old time of a pass's first update is 0: fired
    EXPECT_EQ(end.fired, 10);
}

TEST(AnimStateClock, WithoutALoopTotalItNeverStopsAndCountsLoops)
{
    Ptr<Clip> clip(new Clip(0.5f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> s = m->playAnimation(clip.Get(), 2.0f, 0, false);
    for (int i = 0; i < 10; ++i)
        m->UpdateAnimStates(0.25f);
    EXPECT_FALSE(s->IsStopped());
    EXPECT_EQ(s->GetLoopCounter(), 10u);
    // Paused, the clock stands.
    s->SetPaused(true);
    const float t = s->GetTime();
    m->UpdateAnimStates(0.1f);
    EXPECT_EQ(s->GetTime(), t);
}

TEST(AnimStateClock, AZeroLengthClipStandsAtTimeZeroWithoutNaN)
{
    Ptr<Clip> empty(new Clip(0.0f));
    Ptr<Clip> broken(new Clip(std::nanf("")));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> a = m->playAnimation(empty.Get(), 1.0f, 2, false);
    Ptr<AnimState> b = m->playAnimation(broken.Get(), 1.0f, 0, false);
    for (int i = 0; i < 5; ++i)
        m->UpdateAnimStates(0.1f);
    EXPECT_EQ(a->GetTime(), 0.0f);
    EXPECT_TRUE(a->IsStopped());
    EXPECT_EQ(b->GetTime(), 0.0f);
}

// --- Weights -----------------------------------------------------------------------------------

TEST(AnimWeights, BlendWeightsThreeToOneGiveThreeQuartersAndAQuarter)
{
    Ptr<Clip> a(new Clip(1.0f, u"a")), b(new Clip(1.0f, u"b"));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimParam> pa(new AnimParam()), pb(new AnimParam());
    pa->weight = 3.0f;
    pb->weight = 1.0f;
    Ptr<AnimState> sa = m->playAnimation(a.Get(), pa);
    Ptr<AnimState> sb = m->playAnimation(b.Get(), pb);
    EXPECT_FLOAT_EQ(sa->GetEffectiveWeight(), 0.75f);
    EXPECT_FLOAT_EQ(sb->GetEffectiveWeight(), 0.25f);
    // An additive state keeps its own weight and takes none from the blend.
    Ptr<AnimParam> pc(new AnimParam());
    pc->playMode = AnimParam::MODE_ADDITIVE;
    pc->weight = 0.5f;
    Ptr<AnimState> sc = m->playAnimation(b.Get(), pc);
    EXPECT_FLOAT_EQ(sa->GetEffectiveWeight(), 0.75f);
    EXPECT_FLOAT_EQ(sc->GetEffectiveWeight(), 0.5f);
}

TEST(AnimWeights, ASteadyStateBesideOneFadingInAtAQuarterGetPointEightAndPointTwo)
{
    Ptr<Clip> a(new Clip(5.0f, u"a")), b(new Clip(5.0f, u"b"));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> sa = m->playAnimation(a.Get(), 1.0f, 0, false);
    Ptr<AnimState> sb = m->playFadeInAnimation(b.Get(), 1.0f);
    m->UpdateAnimStates(0.25f);
    ASSERT_NE(sb->GetFadeCtrl(), nullptr);
    EXPECT_FLOAT_EQ(sb->GetFadeCtrl()->current, 0.25f);
    EXPECT_FLOAT_EQ(sa->GetEffectiveWeight(), 0.8f);
    EXPECT_FLOAT_EQ(sb->GetEffectiveWeight(), 0.2f);
    // The fading state's clock stands until its fade ends.
    EXPECT_EQ(sb->GetTime(), 0.0f);
    EXPECT_FLOAT_EQ(sa->GetTime(), 0.25f);
}

TEST(AnimWeights, ATransitionsWeightsSumToOneThroughoutAndTheOldStateLeaves)
{
    Ptr<Clip> a(new Clip(2.0f, u"walk")), b(new Clip(2.0f, u"run"));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    m->AddAnimation(Ptr<Animation>(a.Get()));
    m->AddAnimation(Ptr<Animation>(b.Get()));
    Ptr<AnimState> sa = m->playAnimation(u"walk", 1.0f, 0, false);
    m->UpdateAnimStates(0.3f);
    Ptr<AnimState> sb = m->playTransitiOnAnimation(u"run", 0.5f);
    ASSERT_TRUE(sb);
    for (int frame = 0; frame < 8; ++frame)
    {
        m->UpdateAnimStates(0.07f);
        EXPECT_NEAR(BlendSum(*m), 1.0f, 1e-3f) << frame;
    }
    ASSERT_EQ(m->GetActiveStates().Count(), 1u);
    EXPECT_EQ(m->GetActiveStates()[0], sb);
    EXPECT_FLOAT_EQ(sb->GetEffectiveWeight(), 1.0f);
    EXPECT_EQ(m->GetFreeStates().Count(), 0u); // a state whose fade-out ended is dropped
    EXPECT_FALSE(m->playAnimation(u"nothing", 1.0f, 0, false));
}

TEST(AnimWeights, BlendGroupsAddingUpToZeroKeepUnweightedValues)
{
    Ptr<Clip> a(new Clip(1.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimParam> p(new AnimParam());
    p->weight = 0.0f;
    Ptr<AnimState> s1 = m->playAnimation(a.Get(), p);
    Ptr<AnimState> s2 = m->playFadeInAnimation(a.Get(), 0.0f);
    s2->SetBlendWeight(0.0f);
    m->RecalculateWeights();
    for (const Ptr<AnimState>& s : m->GetActiveStates())
        EXPECT_TRUE(std::isfinite(s->GetEffectiveWeight()));
    EXPECT_EQ(s1->GetEffectiveWeight(), 0.0f);
}

TEST(AnimWeights, FadingRulesLogAndContinue)
{
    Ptr<Clip> a(new Clip(1.0f, u"wave"));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> s = m->playFadeInAnimation(a.Get(), 1.0f);
    m->UpdateAnimStates(0.5f);
    AnimFadeCtrl* running = s->GetFadeCtrl();
    LogCapture log;
    EXPECT_FALSE(m->FadeInAnimation(s.Get(), 3.0f));
    EXPECT_TRUE(log->Contains(u"Fade in animation wave failed, the animation already has a fade-ctrl.\n"));
    EXPECT_EQ(s->GetFadeCtrl(), running);
    EXPECT_FLOAT_EQ(running->rate, 1.0f);
    // A fade-out of a state half faded in goes on from half its weight.
    ASSERT_TRUE(m->FadeOutAnimation(s.Get(), 1.0f));
    EXPECT_FLOAT_EQ(s->GetBlendWeight(), 0.5f);
    m->UpdateAnimStates(0.5f);
    EXPECT_FLOAT_EQ(s->GetFadeCtrl()->current, 0.5f);
}

// --- Lists, closing and the throttle -----------------------------------------------------------

TEST(AnimModifierLists, ClosedStatesAreReusedAndAHandlerMayCloseItsOwnState)
{
    Ptr<Clip> a(new Clip(1.0f)), b(new Clip(1.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimState> s = m->playAnimation(a.Get(), 1.0f, 0, false);
    Ptr<AnimState> other = m->playAnimation(b.Get(), 1.0f, 0, false);
    Listener listener;
    listener.closeFrom = m.Get();
    s->AddEvent(EventAt(0.2f, listener));
    s->AddEvent(EventAt(0.25f, listener)); // same update: still runs, the close waits
    m->UpdateAnimStates(0.3f);
    EXPECT_EQ(listener.fired, 2);
    EXPECT_FLOAT_EQ(s->GetTime(), 0.3f); // the state finished its update
    ASSERT_EQ(m->GetActiveStates().Count(), 1u);
    EXPECT_EQ(m->GetActiveStates()[0], other);
    EXPECT_FLOAT_EQ(other->GetTime(), 0.3f);
    ASSERT_EQ(m->GetFreeStates().Count(), 1u);
    // The next play takes the closed state back, clean.
    Ptr<AnimState> again = m->playAnimation(b.Get(), 2.0f, 1, false);
    EXPECT_EQ(again, s);
    EXPECT_EQ(again->GetTime(), 0.0f);
    EXPECT_TRUE(again->GetEvents().IsEmpty());
    EXPECT_EQ(again->GetLoopTotal(), 1u);
    m->CloseAllAnimations();
    EXPECT_EQ(m->GetActiveStates().Count(), 0u);
    EXPECT_EQ(m->GetFreeStates().Count(), 2u);
}

TEST(AnimModifierLists, ReplayingAClosedStateAllocatesNothing)
{
    Ptr<Clip> a(new Clip(1.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    Ptr<AnimParam> param(new AnimParam());
    for (int warm = 0; warm < 2; ++warm)
    {
        m->playFadeInAnimation(a.Get(), 0.2f);
        m->CloseAllAnimations();
    }
    AllocationScope scope;
    for (int i = 0; i < 50; ++i)
    {
        Ptr<AnimState> s = m->playAnimation(a.Get(), param);
        m->FadeInAnimation(s.Get(), 0.1f);
        m->UpdateAnimStates(0.05f);
        m->CloseAnimation(s.Get());
    }
    EXPECT_EQ(scope.Count(), 0u);
}

TEST(AnimModifierLists, TheThrottleTicksAtMostFortyTimesASecondUnlessSomethingChanged)
{
    Ptr<Clip> a(new Clip(10.0f));
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    float dt = 0.01f;
    EXPECT_FALSE(m->NeedTick(dt)); // nothing plays
    Ptr<AnimState> s = m->playAnimation(a.Get(), 1.0f, 0, false);
    dt = 0.01f;
    EXPECT_TRUE(m->NeedTick(dt)); // a new state is dirty
    m->UpdateAnimStates(dt);
    int ticks = 0;
    for (int frame = 0; frame < 100; ++frame) // one second at 100 frames
    {
        dt = 0.01f;
        if (m->NeedTick(dt))
        {
            ++ticks;
            EXPECT_GE(dt, 0.025f - 1e-6f);
            m->UpdateAnimStates(dt);
        }
    }
    EXPECT_LE(ticks, 40);
    EXPECT_GE(ticks, 30);
    s->MakeDirty();
    dt = 0.001f;
    EXPECT_TRUE(m->NeedTick(dt));
    m->EnableForceUpdate(true);
    m->UpdateAnimStates(dt);
    EXPECT_TRUE(m->NeedTick(dt));
}

// --- On a node ------------------------------------------------------------------------------------

TEST(AnimOnNode, KeyedAnimationsMoveTheNodeAndCrossFade)
{
    Ptr<Node> node(new Node());
    Ptr<NodeAnimModifier> m(new NodeAnimModifier());
    ASSERT_TRUE(node->AttachModifier(Ptr<Modifier>(m.Get())));
    auto makeLine = [](const Vector3& from, const Vector3& to) {
        Ptr<NodeAnimation> clip(new NodeAnimation());
        std::vector<Vector3LinearKey> keys(2);
        keys[0].time = 0.0f, keys[0].value = from;
        keys[1].time = 1.0f, keys[1].value = to;
        clip->GetPositionKeys()->SetKeys(keys.data(), 2, KeyFrame::INTERP_LINEAR);
        std::vector<QuatLinearKey> turn(2);
        turn[0].time = 0.0f;
        turn[1].time = 1.0f, turn[1].value = Quaternion::FromAxisAngle(Vector3(0, 0, 1), 1.0f);
        clip->GetRotationKeys()->SetKeys(turn.data(), 2, KeyFrame::INTERP_LINEAR);
        clip->UpdateDuration();
        return clip;
    };
    Ptr<NodeAnimation> walk = makeLine(Vector3(0, 0, 0), Vector3(10, 0, 0));
    Ptr<NodeAnimation> lift = makeLine(Vector3(0, 0, 0), Vector3(0, 10, 0));
    m->EnableForceUpdate(true);
    m->playAnimation(walk.Get(), 1.0f, 0, false);
    node->UpdateModifiers(0.5f);
    EXPECT_NEAR(node->GetLocalTrans().x, 5.0f, 1e-4f);
    Quaternion r = Quaternion::FromMatrix(node->GetLocalRot());
    EXPECT_NEAR(std::fabs(r.Dot(Quaternion::FromAxisAngle(Vector3(0, 0, 1), 0.5f))), 1.0f, 1e-4f);
    // Half way through a cross-fade both clips (each standing still while it
    // fades) count half.
    m->playTransitiOnAnimation(lift.Get(), 1.0f);
    node->UpdateModifiers(0.5f);
    EXPECT_NEAR(node->GetLocalTrans().x, 2.5f, 1e-3f);
    EXPECT_NEAR(node->GetLocalTrans().y, 0.0f, 1e-3f);
    // The update that ends the fades drops the old clip and starts the new
    // one's clock.
    node->UpdateModifiers(0.6f);
    EXPECT_EQ(m->GetActiveStates().Count(), 1u);
    EXPECT_NEAR(node->GetLocalTrans().x, 0.0f, 1e-3f);
    EXPECT_NEAR(node->GetLocalTrans().y, 6.0f, 1e-3f);
}

TEST(AnimModifierLists, DuplicatingStatesReplacesTheTargetsAndCopiesClockWeightsAndEvents)
{
    Ptr<Clip> a(new Clip(2.0f, u"a")), b(new Clip(1.0f, u"b")), c(new Clip(1.0f, u"c"));
    Ptr<NodeAnimModifier> source(new NodeAnimModifier()), target(new NodeAnimModifier());
    Listener listener;
    Ptr<AnimState> sa = source->playAnimation(a.Get(), 0.5f, 3, false);
    Ptr<AnimState> sb = source->playAnimation(b.Get(), 2.0f, 0, false);
    sa->SetBlendWeight(3.0f);
    sa->AddEvent(EventAt(0.9f, listener));
    sb->SetPaused(true);
    source->UpdateAnimStates(1.2f); // sa at 0.6, its event not yet reached
    target->playAnimation(c.Get(), 1.0f, 0, false);

    source->DuplicateAnimStates(target.Get());
    ASSERT_EQ(target->GetActiveStates().Count(), 2u); // c was closed, not kept
    for (unsigned i = 0; i < 2; ++i)
    {
        const Ptr<AnimState>& from = source->GetActiveStates()[i];
        const Ptr<AnimState>& to = target->GetActiveStates()[i];
        EXPECT_NE(from, to);
        EXPECT_EQ(to->GetAnimation(), from->GetAnimation());
        EXPECT_EQ(to->GetSpeed(), from->GetSpeed());
        EXPECT_EQ(to->GetLoopTotal(), from->GetLoopTotal());
        EXPECT_EQ(to->GetTime(), from->GetTime());
        EXPECT_EQ(to->GetBlendWeight(), from->GetBlendWeight());
        EXPECT_EQ(to->IsPaused(), from->IsPaused());
        EXPECT_EQ(to->GetEvents().Count(), from->GetEvents().Count());
    }
    EXPECT_NEAR(BlendSum(*target), 1.0f, 1e-3f);
    // The copy runs on its own: its event fires once, the source is untouched.
    target->UpdateAnimStates(0.8f);
    EXPECT_EQ(listener.fired, 1);
    EXPECT_FLOAT_EQ(sa->GetTime(), 0.6f);
    EXPECT_FLOAT_EQ(target->GetActiveStates()[1]->GetTime(), 0.0f); // paused copy stays put

    // Duplicating into itself or into nothing changes nothing.
    source->DuplicateAnimStates(source.Get());
    source->DuplicateAnimStates(nullptr);
    EXPECT_EQ(source->GetActiveStates().Count(), 2u);
}
