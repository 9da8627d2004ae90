#include "animation/AnimModifier.h"

#include <cmath>

#include "kernel/Log.h"
#include "math/Matrix.h"
#include "scene/Node.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(AnimModifier, u"Engine", Modifier)
KOVEX_REGISTER_CLASS(NodeAnimation, u"Engine", Animation)
KOVEX_REGISTER_CLASS(NodeAnimModifier, u"Engine", AnimModifier)

AnimModifier::~AnimModifier()
{
    for (const Ptr<AnimState>& state : m_active)
        state->SetFadeCtrl(nullptr);
}

// --- Playing -----------------------------------------------------------------------------------

Ptr<AnimParam> AnimModifier::InternalCreateAnimParam() { return Ptr<AnimParam>(new AnimParam()); }

Ptr<AnimState> AnimModifier::CreateAnimState(Animation* animation, const Ptr<AnimParam>& param)
{
    Ptr<AnimState> state;
    if (!m_free.IsEmpty())
    {
        state = m_free.Last();
        m_free.Pop();
        // A reused state starts clean: the last animation's events are not this one's.
        state->m_events.Clear();
        state->SetFadeCtrl(nullptr);
    }
    else
        state = InternalCreateAnimState();
    if (!state)
        return state;
    state->Restart();
    state->m_animation = animation;
    state->m_speed = param ? param->speed : 1.0f;
    state->m_loopTotal = param ? param->loopCount : 0;
    state->m_blendWeight = param ? param->weight : 1.0f;
    state->m_playMode = param ? param->playMode : AnimParam::MODE_BLEND;
    if (state->IsPaused())
    {
        state->SetPaused(false);
        state->MakeDirty();
    }
    state->m_loopCounter = 0;
    state->m_closePending = false;
    state->m_effectiveWeight = state->m_blendWeight;
    return state;
}

Ptr<AnimState> AnimModifier::InternalPlay(Animation* animation, const Ptr<AnimParam>& param, bool closeOthers)
{
    if (!animation)
        return Ptr<AnimState>();
    Ptr<AnimState> state = CreateAnimState(animation, param);
    if (!state)
        return state;
    if (closeOthers)
        CloseAllAnimations();
    m_active.Add(state);
    OnActiveAnimation(state.Get(), param);
    RecalculateWeights();
    return state;
}

Ptr<AnimState> AnimModifier::playAnimation(Animation* animation, const Ptr<AnimParam>& param)
{
    return InternalPlay(animation, param, false);
}

Ptr<AnimState> AnimModifier::playAnimation(Animation* animation, float speed, unsigned loops, bool closeOthers)
{
    if (!animation)
        return Ptr<AnimState>();
    Ptr<AnimParam> param = InternalCreateAnimParam();
    if (param)
    {
        param->speed = speed;
        param->loopCount = loops;
    }
    return InternalPlay(animation, param, closeOthers);
}

Ptr<AnimState> AnimModifier::playAnimation(const WString& name, float speed, unsigned loops, bool closeOthers)
{
    return playAnimation(getAnimationByName(name), speed, loops, closeOthers);
}

Ptr<AnimState> AnimModifier::playAnimation(unsigned index, float speed, unsigned loops, bool closeOthers)
{
    return playAnimation(getAnimationByIndex(index), speed, loops, closeOthers);
}

Ptr<AnimState> AnimModifier::playFadeInAnimation(Animation* animation, float duration, float speed, unsigned loops)
{
    Ptr<AnimState> state = playAnimation(animation, speed, loops, false);
    if (state)
        FadeInAnimation(state.Get(), duration);
    return state;
}

Ptr<AnimState> AnimModifier::playFadeInAnimation(const WString& name, float duration, float speed, unsigned loops)
{
    return playFadeInAnimation(getAnimationByName(name), duration, speed, loops);
}

Ptr<AnimState> AnimModifier::playTransitiOnAnimation(Animation* animation, float duration, float speed,
                                                     unsigned loops)
{
    if (animation && !m_active.IsEmpty())
        FadeOutAllAnimation(duration);
    return playFadeInAnimation(animation, duration, speed, loops);
}

Ptr<AnimState> AnimModifier::playTransitiOnAnimation(const WString& name, float duration, float speed,
                                                     unsigned loops)
{
    return playTransitiOnAnimation(getAnimationByName(name), duration, speed, loops);
}

// --- Fading and closing -------------------------------------------------------------------------

bool AnimModifier::FadeInAnimation(AnimState* state, float duration)
{
    if (!state)
        return false;
    if (state->m_fade)
    {
        Log::Format(3, u"Fade in animation %s failed, the animation already has a fade-ctrl.\n",
                    state->GetAnimName()());
        return false;
    }
    AnimFadeCtrl* fade = AnimFadeCtrl::New();
    if (!fade)
        return false;
    fade->FadeIn(duration);
    state->SetFadeCtrl(fade);
    RecalculateWeights();
    return true;
}

bool AnimModifier::FadeOutAnimation(AnimState* state, float duration)
{
    if (!state)
        return false;
    AnimFadeCtrl* fade = state->m_fade;
    if (fade)
        state->m_blendWeight *= fade->current;
    else if (!(fade = AnimFadeCtrl::New()))
        return false;
    fade->FadeOut(duration);
    state->SetFadeCtrl(fade);
    RecalculateWeights();
    return true;
}

void AnimModifier::FadeOutAllAnimation(float duration)
{
    for (unsigned i = 0; i < m_active.Count(); ++i)
        FadeOutAnimation(m_active[i].Get(), duration);
}

void AnimModifier::CloseNow(AnimState* state)
{
    const unsigned index = m_active.Find(Ptr<AnimState>(state));
    if (index == kNotFound)
        return;
    Ptr<AnimState> held = m_active[index];
    m_active.RemoveAt(index);
    held->m_closePending = false;
    OnCloseAnimation(held.Get());
    m_free.Add(held);
}

void AnimModifier::CloseAnimation(AnimState* state)
{
    if (!state)
        return;
    if (m_walking)
    {
        state->m_closePending = true;
        m_closePending = true;
        return;
    }
    CloseNow(state);
}

void AnimModifier::CloseAllAnimations()
{
    if (m_walking)
    {
        for (const Ptr<AnimState>& state : m_active)
            state->m_closePending = true;
        m_closePending = !m_active.IsEmpty() || m_closePending;
        return;
    }
    while (!m_active.IsEmpty())
        CloseNow(m_active[0].Get());
}

void AnimModifier::OnCloseAnimation(AnimState* state)
{
    state->SetFadeCtrl(nullptr);
    if (!m_active.IsEmpty())
        m_active[0]->MakeDirty();
}

// --- Advancing -------------------------------------------------------------------------------------

void AnimModifier::UpdateAnimStates(float dt)
{
    bool anyFade = false;
    m_walking = true;
    // States played by a handler during the walk start with the next update.
    unsigned count = m_active.Count();
    for (unsigned i = 0; i < count && i < m_active.Count();)
    {
        Ptr<AnimState> state = m_active[i];
        anyFade |= state->m_fade != nullptr;
        if (state->Update(dt))
        {
            ++i;
            continue;
        }
        m_active.RemoveAt(i);
        --count;
        state->m_closePending = false;
        OnCloseAnimation(state.Get());
    }
    m_walking = false;
    if (m_closePending)
    {
        m_closePending = false;
        for (unsigned i = 0; i < m_active.Count();)
        {
            if (m_active[i]->m_closePending)
                CloseNow(m_active[i].Get());
            else
                ++i;
        }
        anyFade = true; // the survivors share the weight anew
    }
    if (anyFade)
        RecalculateWeights();
}

bool AnimModifier::AdjustDeltaTime(float& dt)
{
    m_accumulated += dt;
    if (m_accumulated < kTickInterval)
        return false;
    dt = m_accumulated;
    m_accumulated = 0.0f;
    return true;
}

bool AnimModifier::NeedTick(float& dt)
{
    if (m_forceUpdate)
        return true;
    if (m_active.IsEmpty())
        return false;
    for (const Ptr<AnimState>& state : m_active)
        if (state->IsDirty())
            return true;
    return AdjustDeltaTime(dt);
}

void AnimModifier::OnTick(float dt)
{
    UpdateAnimStates(dt);
    for (unsigned i = 0; i < m_active.Count(); ++i)
    {
        Ptr<AnimState> state = m_active[i];
        if (Animation* animation = state->GetAnimation())
            animation->Apply(state.Get(), this);
    }
}

void AnimModifier::OnAttached(Modifiable* owner)
{
    Modifier::OnAttached(owner);
    if (!m_active.IsEmpty())
        m_active[0]->MakeDirty();
}

void AnimModifier::RecalculateWeights()
{
    float sums[3] = {0.0f, 0.0f, 0.0f}; // steady, fading in, fading out
    bool anyBlend = false, anyFade = false;
    auto group = [](const AnimState& s) { return !s.m_fade ? 0 : (s.m_fade->fadingIn ? 1 : 2); };
    for (const Ptr<AnimState>& state : m_active)
    {
        anyFade |= state->m_fade != nullptr;
        if (!state->IsPlayModeBlend())
            continue;
        anyBlend = true;
        sums[group(*state)] += state->m_blendWeight;
    }
    for (const Ptr<AnimState>& state : m_active)
    {
        float w = state->m_blendWeight;
        // A group adding up to 0 has nothing to share out: unweighted values.
        if (anyBlend && state->IsPlayModeBlend() && sums[group(*state)] != 0.0f)
            w /= sums[group(*state)];
        state->m_effectiveWeight = state->m_fade ? w * state->m_fade->current : w;
    }
    if (!anyBlend || !anyFade)
        return;
    float sum = 0.0f;
    for (const Ptr<AnimState>& state : m_active)
        if (state->IsPlayModeBlend())
            sum += state->m_effectiveWeight;
    if (sum != 0.0f && std::fabs(sum - 1.0f) > 0.001f)
        for (const Ptr<AnimState>& state : m_active)
            if (state->IsPlayModeBlend())
                state->m_effectiveWeight *= 1.0f / sum;
}

void AnimModifier::DuplicateAnimStates(AnimModifier* other) const
{
    if (!other || other == this)
        return;
    other->CloseAllAnimations();
    for (const Ptr<AnimState>& state : m_active)
        if (Ptr<AnimState> copy = other->playAnimation(state->GetAnimation(), state->m_speed, state->m_loopTotal, false))
            state->Duplicate(copy.Get(), 0);
    other->RecalculateWeights();
}

// --- Node animation -------------------------------------------------------------------------------

NodeAnimation::NodeAnimation() : m_position(new Vector3KeyControl()), m_rotation(new QuatKeyControl()) {}

void NodeAnimation::UpdateDuration()
{
    const float a = m_position->CalcDuration(), b = m_rotation->CalcDuration();
    SetDuration(a > b ? a : b);
}

void NodeAnimation::Apply(AnimState* state, AnimModifier* modifier)
{
    auto* target = DynamicCast<NodeAnimModifier>(modifier);
    if (!target || !state)
        return;
    Vector3 position;
    Quaternion rotation;
    const bool hasPosition = m_position->Sample(position, state->GetTime());
    const bool hasRotation = m_rotation->Sample(rotation, state->GetTime());
    target->Accumulate(*state, hasPosition ? &position : nullptr, hasRotation ? &rotation : nullptr);
}

Ptr<AnimState> NodeAnimModifier::InternalCreateAnimState() { return Ptr<AnimState>(new AnimState()); }

bool NodeAnimModifier::CanAttachTo(Modifiable* owner) const { return DynamicCast<Node>(owner) != nullptr; }

void NodeAnimModifier::Accumulate(const AnimState& state, const Vector3* position, const Quaternion* rotation)
{
    const float w = state.GetEffectiveWeight();
    if (!(w > 0.0f))
        return;
    if (state.IsPlayModeAdditive())
    {
        if (position)
            m_addPosition += *position * w;
        if (rotation)
        {
            Quaternion part;
            Quaternion::Slerp(part, Quaternion(), *rotation, w);
            m_addRotation = m_addRotation * part;
        }
        return;
    }
    if (position)
    {
        m_blendPosition += *position * w;
        m_positionWeight += w;
    }
    if (rotation)
    {
        // Summed in one hemisphere, then normalised: a weighted mean of rotations.
        const Quaternion q = m_blendRotation.Dot(*rotation) < 0.0f ? -*rotation : *rotation;
        m_blendRotation = m_blendRotation + q * w;
        m_rotationWeight += w;
    }
}

void NodeAnimModifier::OnTick(float dt)
{
    m_blendPosition = m_addPosition = Vector3();
    m_blendRotation = Quaternion(0, 0, 0, 0);
    m_addRotation = Quaternion();
    m_positionWeight = m_rotationWeight = 0.0f;
    AnimModifier::OnTick(dt);
    Node* node = DynamicCast<Node>(GetModifiable());
    if (!node)
        return;
    // Blend weights below 1 in all (a lone state fading in) blend from the
    // node's own pose.
    Vector3 position = node->GetLocalTrans();
    if (m_positionWeight > 0.0f)
        position = Vector3::Lerp(position, m_blendPosition * (1.0f / m_positionWeight),
                                 m_positionWeight < 1.0f ? m_positionWeight : 1.0f);
    position += m_addPosition;
    Quaternion rotation = Quaternion::FromMatrix(node->GetLocalRot());
    if (m_rotationWeight > 0.0f && m_blendRotation.Normalize() > 0.0f)
        Quaternion::Slerp(rotation, rotation, m_blendRotation, m_rotationWeight < 1.0f ? m_rotationWeight : 1.0f);
    rotation = rotation * m_addRotation;
    node->SetLocalTrans(position);
    node->SetLocalRot(rotation.ToMatrix());
}

} // namespace KovexEngine
