#include "DemoAnimation.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
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

// Names and local transforms of two trees, node by node in the same order.
// The XML form writes floats as text, hence the tolerance.
bool SameTree(const Node* a, const Node* b, unsigned& nodes)
{
    std::vector<std::pair<const Node*, const Node*>> pending{{a, b}};
    while (!pending.empty())
    {
        auto [x, y] = pending.back();
        pending.pop_back();
        if (x->GetName() != y->GetName() || x->GetNumChildren() != y->GetNumChildren())
            return false;
        const Transform& p = x->GetLocalXM();
        const Transform& q = y->GetLocalXM();
        for (int i = 0; i < 3; ++i)
        {
            if (std::fabs(p.translation[i] - q.translation[i]) > 1e-5f || std::fabs(p.scale[i] - q.scale[i]) > 1e-5f)
                return false;
            for (int j = 0; j < 3; ++j)
                if (std::fabs(p.rotation.m[i][j] - q.rotation.m[i][j]) > 1e-5f)
                    return false;
        }
        ++nodes;
        for (unsigned i = 0; i < x->GetNumChildren(); ++i)
            pending.emplace_back(x->GetChild(i).Get(), y->GetChild(i).Get());
    }
    return true;
}

} // namespace

DemoAnimation::DemoAnimation() : m_root(new Node()), m_mover(new Node()), m_modifier(new NodeAnimModifier())
{
    m_root->SetName(WString(u"stage"));
    m_mover->SetName(WString(u"walker"));
    m_root->AttachChild(m_mover);
    // A little more tree for the round trip: a lamp above the stage, a hat
    // riding on the walker.
    Ptr<Node> lamp(new Node());
    lamp->SetName(WString(u"lamp"));
    lamp->SetLocalTRS(Vector3(0, 3, 0), Matrix3::RotateEuler(Vector3(0.3f, 0, 0)), Vector3(1, 1, 1));
    m_root->AttachChild(lamp);
    Ptr<Node> hat(new Node());
    hat->SetName(WString(u"hat"));
    hat->SetLocalTrans(Vector3(0, 1.8f, 0));
    hat->SetLocalScale(Vector3(0.5f, 0.25f, 0.5f));
    m_mover->AttachChild(hat);
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

bool DemoAnimation::RoundTrip(const std::string& dir) const
{
    bool ok = true;
    for (bool xml : {false, true})
    {
        std::string file = dir + (xml ? "/scene-xml.node" : "/scene-bin.node");
        WString path = StringConvFuncs::ToWString(file.c_str());
        Serializer::SetDefaultSerializer(xml);
        bool saved = ResourceManager::Ins()->Save(m_root.Get(), path, Ptr<SerializerState>());
        Ptr<Resource> loaded = saved ? ResourceManager::Ins()->Load(path, 0) : Ptr<Resource>();
        const Node* back = DynamicCast<Node>(loaded.Get());
        unsigned nodes = 0;
        bool same = back && SameTree(m_root.Get(), back, nodes);
        std::printf("Scene saved as %s .node (%ju bytes) and loaded back: %s (%u nodes)\n", xml ? "XML" : "binary",
                    std::uintmax_t(saved ? std::filesystem::file_size(file) : 0), same ? "same tree" : "DIFFERENT",
                    nodes);
        ok = ok && same;
    }
    Serializer::SetDefaultSerializer(false);
    return ok;
}
