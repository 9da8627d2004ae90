#include "DemoAnimation.h"

#include <cstdio>
#include <vector>

using namespace KovexEngine;

namespace {

constexpr float kStep = 1.0f / 30.0f;
constexpr unsigned kTransitionFrame = 40;

Ptr<NodeAnimation> MakeClip(const char16_t* name, const std::vector<Vector3>& path, float turn)
{
    Ptr<NodeAnimation> clip(new NodeAnimation());
    clip->SetName(WString(name));
    std::vector<Vector3TCBKey> keys(path.size());
    std::vector<QuatLinearKey> spin(path.size());
    for (size_t i = 0; i < path.size(); ++i)
    {
        keys[i].time = spin[i].time = float(i) * 0.5f;
        keys[i].value = path[i];
        spin[i].value = Quaternion::FromAxisAngle(Vector3(0, 1, 0), turn * float(i));
    }
    clip->GetPositionKeys()->SetKeys(keys.data(), unsigned(keys.size()), KeyFrame::INTERP_TCB);
    clip->GetPositionKeys()->ProcessKeys();
    clip->GetRotationKeys()->SetKeys(spin.data(), unsigned(spin.size()), KeyFrame::INTERP_LINEAR);
    clip->GetRotationKeys()->ProcessKeys();
    clip->UpdateDuration();
    return clip;
}

} // namespace

DemoAnimation::DemoAnimation() : m_root(new Node()), m_mover(new Node()), m_modifier(new NodeAnimModifier())
{
    m_root->AttachChild(m_mover);
    m_mover->AttachModifier(Ptr<Modifier>(m_modifier.Get()));
    m_modifier->AddAnimation(Ptr<Animation>(MakeClip(u"walk", {Vector3(0, 0, 0), Vector3(1, 0, 0), Vector3(2, 0, 1)}, 0.0f).Get()));
    m_modifier->AddAnimation(Ptr<Animation>(MakeClip(u"turn", {Vector3(2, 0, 1), Vector3(2, 1, 2), Vector3(1, 2, 2)}, 0.8f).Get()));
    Ptr<AnimState> walk = m_modifier->playAnimation(u"walk", 1.0f, 0, true);
    Ptr<AnimEvent> step(new AnimEvent());
    step->SetTime(0.5f);
    Ptr<DelegateTrigger> print(new DelegateTrigger());
    print->SetDelegate(DelegateTrigger::Handler(this, &DemoAnimation::Heard));
    step->AddTrigger(Ptr<AnimTrigger>(print.Get()));
    walk->AddEvent(step);
}

void DemoAnimation::Heard(const Ptr<AnimState>& state, const Ptr<AnimModifier>&)
{
    ++m_events;
    std::printf("Animation event: \"%s\" reached %.2f s (frame %u)\n",
                StringConvFuncs::ToAString(state->GetAnimName()()).c_str(), state->GetTime(), m_frame);
}

void DemoAnimation::Frame(unsigned frame)
{
    m_frame = frame;
    if (frame == kTransitionFrame)
    {
        m_modifier->playTransitiOnAnimation(u"turn", 0.5f);
        std::printf("Animation: cross-fading \"walk\" into \"turn\" (frame %u)\n", frame);
    }
    m_root->Update(kStep);
}

void DemoAnimation::Report() const
{
    const Vector3& at = m_mover->GetLocalTrans();
    std::printf("Animated node at (%.3f, %.3f, %.3f) after %u frames, %u events, %u state(s) playing\n", at.x, at.y,
                at.z, m_frame + 1, m_events, m_modifier->GetActiveStates().Count());
}
