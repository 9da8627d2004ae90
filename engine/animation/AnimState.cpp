#include "animation/AnimState.h"

#include "animation/AnimModifier.h"
#include "kernel/SelfAllocator.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(Animation, u"Engine", Resource)
KOVEX_REGISTER_CLASS(AnimParam, u"Engine", Object)
KOVEX_REGISTER_CLASS(AnimTrigger, u"Engine", Object)
KOVEX_REGISTER_CLASS(DelegateTrigger, u"Engine", AnimTrigger)
KOVEX_REGISTER_CLASS(AnimEvent, u"Engine", Object)
KOVEX_REGISTER_CLASS(AnimState, u"Engine", Object)

// --- Named animations -----------------------------------------------------------------

AnimationAccessInterface::~AnimationAccessInterface() = default;

void AnimationAccessInterface::SetAnimations(const TResNamedMap<Ptr<Animation>>& animations)
{
    for (const Ptr<Animation>& a : m_animations)
        a->OnRemoveFrom(this);
    m_animations = animations;
    for (const Ptr<Animation>& a : m_animations)
        a->OnAddTo(this);
}

bool AnimationAccessInterface::AddAnimation(const Ptr<Animation>& animation)
{
    if (!animation || m_animations.FindIndex(animation->GetName()) != kNotFound)
        return false;
    m_animations.Add(animation);
    animation->OnAddTo(this);
    return true;
}

Animation* AnimationAccessInterface::getAnimationByIndex(unsigned index) const
{
    return index < m_animations.Count() ? m_animations[index].Get() : nullptr;
}

Animation* AnimationAccessInterface::getAnimationByName(const WString& name) const
{
    return getAnimationByIndex(m_animations.FindIndex(name));
}

unsigned AnimationAccessInterface::getAnimationIndex(const WString& name) const { return m_animations.FindIndex(name); }

// --- Parameters, triggers, events ----------------------------------------------------------

void AnimParam::Clear()
{
    loopCount = 0;
    speed = 1.0f;
    playMode = MODE_BLEND;
    weight = 1.0f;
}

void DelegateTrigger::Execute(AnimState* state, AnimModifier* modifier)
{
    if (!m_handler.IsEmpty())
        m_handler(Ptr<AnimState>(state), Ptr<AnimModifier>(modifier));
}

void AnimEvent::AddTrigger(const Ptr<AnimTrigger>& trigger)
{
    if (trigger)
        m_triggers.Add(trigger);
}

bool AnimEvent::RemoveTrigger(const Ptr<AnimTrigger>& trigger) { return m_triggers.Remove(trigger); }

void AnimEvent::RemoveTriggerByIndex(unsigned index)
{
    if (index < m_triggers.Count())
        m_triggers.RemoveAt(index);
}

AnimTrigger* AnimEvent::GetTrigger(unsigned index) const
{
    return index < m_triggers.Count() ? m_triggers[index].Get() : nullptr;
}

void AnimEvent::Trigger(AnimState* state, AnimModifier* modifier)
{
    // A trigger may remove triggers: hold this one and re-check the count.
    for (unsigned i = 0; i < m_triggers.Count(); ++i)
    {
        Ptr<AnimTrigger> trigger = m_triggers[i];
        trigger->Execute(state, modifier);
    }
}

// --- Fades -----------------------------------------------------------------------------------

AnimFadeCtrl* AnimFadeCtrl::New()
{
    AnimFadeCtrl* block = TSelfAllocator<AnimFadeCtrl>::New();
    return block ? new (block) AnimFadeCtrl() : nullptr;
}

void AnimFadeCtrl::Delete(AnimFadeCtrl* ctrl) { TSelfAllocator<AnimFadeCtrl>::Delete(ctrl); }

void AnimFadeCtrl::Start(bool in, float duration)
{
    fadingIn = in;
    from = current = in ? 0.0f : 1.0f;
    to = in ? 1.0f : 0.0f;
    progress = 0.0f;
    rate = 1.0f / (duration > 0.001f ? duration : 0.001f);
}

int AnimFadeCtrl::Update(float dt)
{
    progress += rate * dt;
    if (progress <= 1.0f)
    {
        current = progress * (to - from) + from;
        return 0;
    }
    current = to;
    return fadingIn ? 1 : -1;
}

// --- States ------------------------------------------------------------------------------------

AnimState::AnimState() = default;

AnimState::~AnimState() { SetFadeCtrl(nullptr); }

void AnimState::SetFadeCtrl(AnimFadeCtrl* fade)
{
    if (m_fade && m_fade != fade)
        AnimFadeCtrl::Delete(m_fade);
    m_fade = fade;
}

void AnimState::Restart()
{
    MakeDirty();
    m_time = 0.0f;
    m_nextEvent = 0;
}

bool AnimState::Update(float dt)
{
    m_flags &= ~FLAG_DIRTY;
    int fade = 1;
    if (m_fade)
    {
        fade = m_fade->Update(dt);
        if (fade != 0)
        {
            SetFadeCtrl(nullptr);
            if (fade < 0)
                return false;
        }
    }
    // The clock stands while a fade runs and while paused.
    if (IsPaused() || fade == 0)
        return true;
    const float old = m_time;
    m_time += m_speed * dt;
    // A handler may drop the last outside reference to this state.
    Ptr<AnimState> self(this);
    while (m_nextEvent < m_events.Count())
    {
        Ptr<AnimEvent> event = m_events[m_nextEvent];
        if (old > event->GetTime() || m_time < event->GetTime())
            break;
        ++m_nextEvent;
        event->Trigger(this, nullptr);
    }
    const float duration = GetAnimDuration();
    if (m_time >= duration)
    {
        if (m_loopTotal)
        {
            const unsigned next = m_loopCounter + 1;
            if (next >= m_loopTotal)
            {
                m_time = duration;
                return true;
            }
            m_loopCounter = next;
        }
        else
            ++m_loopCounter;
        Restart();
    }
    return true;
}

bool AnimState::IsStopped() const
{
    return !IsPaused() && m_loopTotal != 0 && m_loopCounter + 1 == m_loopTotal && m_time == GetAnimDuration();
}

float AnimState::GetAnimDuration() const
{
    // A clip without length (or without a finite one) stands at time 0.
    const float duration = m_animation ? m_animation->GetDuration() : 0.0f;
    return duration > 0.0f && duration < 3.4e38f ? duration : 0.0f;
}

const WString& AnimState::GetAnimName() const
{
    static const WString kNone;
    return m_animation ? m_animation->GetName() : kNone;
}

void AnimState::AddEvent(const Ptr<AnimEvent>& event)
{
    if (!event || m_events.Find(event) != kNotFound)
        return;
    const float time = event->GetTime();
    if (m_events.IsEmpty() || time >= m_events.Last()->GetTime())
    {
        m_events.Add(event);
        return;
    }
    unsigned position = 0;
    while (position < m_events.Count() && m_events[position]->GetTime() <= time)
        ++position;
    m_events.Insert(position, event);
}

bool AnimState::RemoveEvent(const Ptr<AnimEvent>& event)
{
    const unsigned index = m_events.Find(event);
    if (index == kNotFound)
        return false;
    RemoveEventByIndex(index);
    return true;
}

void AnimState::RemoveEventByIndex(unsigned index)
{
    if (index >= m_events.Count())
        return;
    m_events.RemoveAt(index);
    if (m_nextEvent > index)
        --m_nextEvent;
}

bool AnimState::Duplicate(Object* destination, unsigned int flags) const
{
    auto* other = DynamicCast<AnimState>(destination);
    if (!other || !Object::Duplicate(destination, flags))
        return false;
    other->m_speed = m_speed;
    other->m_time = m_time;
    other->m_loopCounter = m_loopCounter;
    other->m_loopTotal = m_loopTotal;
    other->m_animation = m_animation;
    other->m_playMode = m_playMode;
    other->m_blendWeight = m_blendWeight;
    other->m_effectiveWeight = m_effectiveWeight;
    other->m_flags = m_flags;
    other->m_events = m_events;
    other->m_nextEvent = m_nextEvent;
    return true;
}

} // namespace KovexEngine
