#pragma once

// Playback vocabulary: the animation resource, how a caller asks for a
// playback (AnimParam), one playing animation (AnimState) with its fade and
// its events, and the triggers events run.
//
// Threads: everything here belongs to the thread that ticks the scene.

#include "kernel/Containers.h"
#include "reflection/Delegate.h"
#include "resources/Resource.h"

namespace KovexEngine {

class AnimModifier;
class AnimState;
class AnimationAccessInterface;

// What an animation applies is its derived classes' business.
class KOVEX_API Animation : public Resource
{
    KOVEX_CLASS(Animation)

public:
    float GetDuration() const { return m_duration; }
    void SetDuration(float duration) { m_duration = duration; }
    // Works the state's current time and effective weight into what the
    // modifier drives.
    virtual void Apply(AnimState* state, AnimModifier* modifier) = 0;

protected:
    friend class AnimationAccessInterface;
    virtual void OnAddTo(AnimationAccessInterface* /*holder*/) {}
    virtual void OnRemoveFrom(AnimationAccessInterface* /*holder*/) {}

private:
    float m_duration = 0.0f;
};

// What a holder of named animations offers.
class KOVEX_API AnimationAccessInterface
{
public:
    virtual ~AnimationAccessInterface();
    const TResNamedMap<Ptr<Animation>>& GetAllAnimations() const { return m_animations; }
    const TResNamedMap<Ptr<Animation>>& getAllAnimations() const { return m_animations; }
    void SetAnimations(const TResNamedMap<Ptr<Animation>>& animations);
    // Appends one; false for null or a name already held.
    bool AddAnimation(const Ptr<Animation>& animation);
    Animation* getAnimationByIndex(unsigned index) const;
    Animation* getAnimationByName(const WString& name) const;
    // kNotFound for an unknown name.
    unsigned getAnimationIndex(const WString& name) const;
    unsigned getNumAnimations() const { return m_animations.Count(); }

private:
    TResNamedMap<Ptr<Animation>> m_animations;
};

// How a playback is asked for. A null Ptr<AnimParam> means speed 1, loop
// count 0 (without end), weight 1, mode Blend.
class KOVEX_API AnimParam : public Object
{
    KOVEX_CLASS(AnimParam)

public:
    enum PlayMode : int
    {
        MODE_ADDITIVE = 0,
        MODE_BLEND = 1,
    };
    unsigned loopCount = 0;
    float speed = 1.0f;
    int playMode = MODE_BLEND;
    float weight = 1.0f;

    virtual void Clear();
};

class KOVEX_API AnimTrigger : public Object
{
    KOVEX_CLASS(AnimTrigger)

public:
    virtual void Execute(AnimState* state, AnimModifier* modifier) = 0;
};

class KOVEX_API DelegateTrigger : public AnimTrigger
{
    KOVEX_CLASS(DelegateTrigger)

public:
    using Handler = DelegateS<void(const Ptr<AnimState>&, const Ptr<AnimModifier>&)>;
    void SetDelegate(const Handler& handler) { m_handler = handler; }
    void Execute(AnimState* state, AnimModifier* modifier) override;

private:
    Handler m_handler;
};

// Triggers that run when a state's time passes `time`.
class KOVEX_API AnimEvent : public Object
{
    KOVEX_CLASS(AnimEvent)

public:
    float GetTime() const { return m_time; }
    void SetTime(float time) { m_time = time; }
    void AddTrigger(const Ptr<AnimTrigger>& trigger);
    bool RemoveTrigger(const Ptr<AnimTrigger>& trigger);
    void RemoveTriggerByIndex(unsigned index);
    void ClearTriggers() { m_triggers.Clear(); }
    AnimTrigger* GetTrigger(unsigned index) const;
    unsigned GetNumTriggers() const { return m_triggers.Count(); }
    const TArray<Ptr<AnimTrigger>>& GetTriggers() const { return m_triggers; }
    // Runs the triggers in order.
    virtual void Trigger(AnimState* state, AnimModifier* modifier);

private:
    float m_time = 0.0f;
    TArray<Ptr<AnimTrigger>> m_triggers;
};

// A fade of a state's weight, from pooled blocks.
struct KOVEX_API AnimFadeCtrl
{
    bool fadingIn = false;
    float progress = 0.0f, rate = 0.0f, current = 0.0f, from = 0.0f, to = 0.0f;

    static AnimFadeCtrl* New();
    static void Delete(AnimFadeCtrl* ctrl);
    // A duration below 0.001 s counts as 0.001 s.
    void FadeIn(float duration) { Start(true, duration); }
    void FadeOut(float duration) { Start(false, duration); }
    void Start(bool fadeIn, float duration);
    // 0 while fading; when done 1 for a fade-in, -1 for a fade-out.
    int Update(float dt);
};

class KOVEX_API AnimState : public Object
{
    KOVEX_CLASS(AnimState)

public:
    enum : unsigned
    {
        FLAG_PAUSED = 0x1,
        FLAG_DIRTY = 0x1000,
    };

    AnimState();
    ~AnimState() override;
    AnimState(const AnimState&) = delete;
    AnimState& operator=(const AnimState&) = delete;

    virtual void Restart();
    // False when the state has ended (its fade-out finished).
    bool Update(float dt);

    void SetPaused(bool paused) { m_flags = paused ? (m_flags | FLAG_PAUSED) : (m_flags & ~FLAG_PAUSED); }
    bool IsPaused() const { return (m_flags & FLAG_PAUSED) != 0; }
    bool IsDirty() const { return (m_flags & FLAG_DIRTY) != 0; }
    void MakeDirty() { m_flags |= FLAG_DIRTY; }
    bool IsPlayModeBlend() const { return m_playMode == AnimParam::MODE_BLEND; }
    bool IsPlayModeAdditive() const { return m_playMode == AnimParam::MODE_ADDITIVE; }
    void SetPlayModeBlend() { m_playMode = AnimParam::MODE_BLEND; }
    void SetPlayModeAdditive() { m_playMode = AnimParam::MODE_ADDITIVE; }
    // Not paused, a finite loop total whose last loop has reached the end.
    bool IsStopped() const;

    float GetAnimDuration() const;
    const WString& GetAnimName() const;
    Animation* GetAnimation() const { return m_animation.Get(); }
    void SetAnimation(const Ptr<Animation>& animation) { m_animation = animation; }

    float GetSpeed() const { return m_speed; }
    void SetSpeed(float speed) { m_speed = speed; }
    float GetTime() const { return m_time; }
    void SetTime(float time) { m_time = time; }
    unsigned GetLoopCounter() const { return m_loopCounter; }
    void SetLoopCounter(unsigned counter) { m_loopCounter = counter; }
    unsigned GetLoopTotal() const { return m_loopTotal; }
    void SetLoopTotal(unsigned total) { m_loopTotal = total; }
    int GetPlayMode() const { return m_playMode; }
    void SetPlayMode(int mode) { m_playMode = mode; }
    float GetBlendWeight() const { return m_blendWeight; }
    void SetBlendWeight(float weight) { m_blendWeight = weight; }
    float GetEffectiveWeight() const { return m_effectiveWeight; }
    void SetEffectiveWeight(float weight) { m_effectiveWeight = weight; }
    AnimFadeCtrl* GetFadeCtrl() const { return m_fade; }
    // Takes ownership; the previous control goes back to the pool.
    void SetFadeCtrl(AnimFadeCtrl* fade);

    const TArray<Ptr<AnimEvent>>& GetEvents() const { return m_events; }
    // Keeps the events sorted by time; an event already present is ignored.
    void AddEvent(const Ptr<AnimEvent>& event);
    bool RemoveEvent(const Ptr<AnimEvent>& event);
    void RemoveEventByIndex(unsigned index);
    unsigned GetNextEventIndex() const { return m_nextEvent; }

    // Clock, loops, weights, mode, pause and events (shared); not the fade.
    bool Duplicate(Object* destination, unsigned int flags) const override;

private:
    friend class AnimModifier;

    float m_speed = 1.0f;
    float m_time = 0.0f;
    unsigned m_loopCounter = 0;
    unsigned m_loopTotal = 0;
    Ptr<Animation> m_animation;
    int m_playMode = AnimParam::MODE_BLEND;
    float m_blendWeight = 1.0f;
    float m_effectiveWeight = 1.0f;
    AnimFadeCtrl* m_fade = nullptr;
    unsigned m_flags = FLAG_DIRTY;
    TArray<Ptr<AnimEvent>> m_events{16};
    unsigned m_nextEvent = 0;
    // Asked to close while its modifier walked the states: closed after the walk.
    bool m_closePending = false;
};

} // namespace KovexEngine
