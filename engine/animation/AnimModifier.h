#pragma once

// The modifier that plays animations on what it is attached to: it
// advances one AnimState per playing animation, combines their weights and
// lets each animation apply itself. NodeAnimModifier with NodeAnimation is
// the concrete pair that moves a Node by position and rotation keys.
//
// Threads: the thread that ticks the scene only; nothing here is locked.

#include "animation/AnimState.h"
#include "animation/KeyControl.h"
#include "scene/Modifier.h"

namespace KovexEngine {

class Node;

class KOVEX_API AnimModifier : public Modifier, public AnimationAccessInterface
{
    KOVEX_CLASS(AnimModifier)

public:
    // Below this much accumulated time an unchanged animation does not tick.
    static constexpr float kTickInterval = 0.025f;

    AnimModifier() = default;
    ~AnimModifier() override;

    bool IsForceUpdateEnabled() const { return m_forceUpdate; }
    void EnableForceUpdate(bool on) { m_forceUpdate = on; }
    const TArray<Ptr<AnimState>>& GetActiveStates() const { return m_active; }
    const TArray<Ptr<AnimState>>& GetFreeStates() const { return m_free; }

    // --- Playing (null for a null animation, an unknown name or index) ----------
    Ptr<AnimState> playAnimation(Animation* animation, const Ptr<AnimParam>& param);
    Ptr<AnimState> playAnimation(Animation* animation, float speed, unsigned loops, bool closeOthers);
    Ptr<AnimState> playAnimation(const WString& name, float speed, unsigned loops, bool closeOthers);
    Ptr<AnimState> playAnimation(unsigned index, float speed, unsigned loops, bool closeOthers);
    // Plays beside the others and fades the new state in over `duration`.
    Ptr<AnimState> playFadeInAnimation(Animation* animation, float duration, float speed = 1.0f, unsigned loops = 0);
    Ptr<AnimState> playFadeInAnimation(const WString& name, float duration, float speed = 1.0f, unsigned loops = 0);
    // Fades every active state out and the new one in over `duration`.
    Ptr<AnimState> playTransitiOnAnimation(Animation* animation, float duration, float speed = 1.0f,
                                           unsigned loops = 0);
    Ptr<AnimState> playTransitiOnAnimation(const WString& name, float duration, float speed = 1.0f,
                                           unsigned loops = 0);
    // The script names.
    Ptr<AnimState> PlayAnimation(const WString& name, float speed, unsigned loops, bool closeOthers)
    {
        return playAnimation(name, speed, loops, closeOthers);
    }
    Ptr<AnimState> PlayAnimationByIndex(unsigned index, float speed, unsigned loops, bool closeOthers)
    {
        return playAnimation(index, speed, loops, closeOthers);
    }
    Ptr<AnimState> PlayFadeInAnimation(const WString& name, float duration, float speed, unsigned loops)
    {
        return playFadeInAnimation(name, duration, speed, loops);
    }
    Ptr<AnimState> PlayFadeInAnimationByIndex(unsigned index, float duration, float speed, unsigned loops)
    {
        return playFadeInAnimation(getAnimationByIndex(index), duration, speed, loops);
    }
    Ptr<AnimState> PlayTransitiOnAnimation(const WString& name, float duration, float speed, unsigned loops)
    {
        return playTransitiOnAnimation(name, duration, speed, loops);
    }
    Ptr<AnimState> PlayTransitiOnAnimationByIndex(unsigned index, float duration, float speed, unsigned loops)
    {
        return playTransitiOnAnimation(getAnimationByIndex(index), duration, speed, loops);
    }

    // --- Fading and closing -------------------------------------------------------
    // Fails, logging "Fade in animation %s failed, the animation already has a
    // fade-ctrl.\n" at level 3, when the state fades already.
    bool FadeInAnimation(AnimState* state, float duration);
    // A state that fades already continues from the weight it had reached.
    bool FadeOutAnimation(AnimState* state, float duration);
    void FadeOutAllAnimation(float duration);
    // Moves the state to the free list. Called from an event handler while
    // the states are advanced, the state finishes that update first.
    void CloseAnimation(AnimState* state);
    void CloseAllAnimations();

    void UpdateAnimStates(float dt);

    bool NeedTick(float& dt) override;
    void OnTick(float dt) override;
    void OnAttached(Modifiable* owner) override;
    // Blend states share the weight of their group (steady, fading in,
    // fading out); additive ones keep theirs; fades scale both, and with a
    // fade running the blend weights are brought back to a sum of 1. A
    // group whose weights add up to 0 keeps its unweighted values.
    virtual void RecalculateWeights();
    virtual Ptr<AnimParam> InternalCreateAnimParam();
    virtual Ptr<AnimState> InternalCreateAnimState() = 0;
    virtual Ptr<AnimState> InternalPlay(Animation* animation, const Ptr<AnimParam>& param, bool closeOthers);
    virtual void OnActiveAnimation(AnimState* /*state*/, const Ptr<AnimParam>& /*param*/) {}
    virtual void OnCloseAnimation(AnimState* state);
    // Makes `other` play what this one plays, with the same clocks and weights.
    virtual void DuplicateAnimStates(AnimModifier* other) const;

protected:
    Ptr<AnimState> CreateAnimState(Animation* animation, const Ptr<AnimParam>& param);
    bool AdjustDeltaTime(float& dt);

private:
    void CloseNow(AnimState* state);

    float m_accumulated = 0.0f;
    bool m_forceUpdate = false;
    TArray<Ptr<AnimState>> m_free;
    TArray<Ptr<AnimState>> m_active;
    // While the states are advanced: closing waits until the walk is over.
    bool m_walking = false;
    bool m_closePending = false;
};

// Position and rotation keys applied to a node, weighted by its state.
class KOVEX_API NodeAnimation : public Animation
{
    KOVEX_CLASS(NodeAnimation)

public:
    NodeAnimation();
    const Ptr<Vector3KeyControl>& GetPositionKeys() const { return m_position; }
    const Ptr<QuatKeyControl>& GetRotationKeys() const { return m_rotation; }
    // Sets the duration to the later of the two controls' last keys.
    void UpdateDuration();
    void Apply(AnimState* state, AnimModifier* modifier) override;

private:
    Ptr<Vector3KeyControl> m_position;
    Ptr<QuatKeyControl> m_rotation;
};

// Blends what its NodeAnimations give into the owner node's local position
// and rotation after each update. Blend states average by their effective
// weights; additive states add their weighted offsets on top.
class KOVEX_API NodeAnimModifier : public AnimModifier
{
    KOVEX_CLASS(NodeAnimModifier)

public:
    Ptr<AnimState> InternalCreateAnimState() override;
    void OnTick(float dt) override;
    bool CanAttachTo(Modifiable* owner) const override;
    void Accumulate(const AnimState& state, const Vector3* position, const Quaternion* rotation);

private:
    Vector3 m_blendPosition, m_addPosition;
    Quaternion m_blendRotation = Quaternion(0, 0, 0, 0), m_addRotation;
    float m_positionWeight = 0.0f, m_rotationWeight = 0.0f;
};

} // namespace KovexEngine
