// Key-control sampling beside the floor: the same keys in plain arrays,
// found by a hand-written binary search and blended directly.

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "animation/KeyControl.h"
#include "math/MathUtil.h"

using namespace KovexEngine;

namespace {

constexpr unsigned kKeys = 64;
constexpr unsigned kTimes = 4096;

struct Keys
{
    std::vector<float> times, values;
    std::vector<Quaternion> rotations;
    std::vector<float> samples;
    Ptr<FloatKeyControl> floats{new FloatKeyControl()};
    Ptr<QuatKeyControl> quats{new QuatKeyControl()};

    Keys()
    {
        std::mt19937 rng(7);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f);
        float t = 0.0f;
        std::vector<FloatLinearKey> fk(kKeys);
        std::vector<QuatLinearKey> qk(kKeys);
        for (unsigned i = 0; i < kKeys; ++i)
        {
            t += 0.05f + unit(rng);
            times.push_back(t);
            values.push_back(unit(rng) * 10.0f);
            rotations.push_back(Quaternion::FromAxisAngle(Vector3(unit(rng), unit(rng), 1.0f), unit(rng) * 3.0f));
            rotations.back().Normalize();
            if (i && rotations[i].Dot(rotations[i - 1]) < 0)
                rotations[i] = -rotations[i];
            fk[i].time = qk[i].time = t;
            fk[i].value = values[i];
            qk[i].value = rotations[i];
        }
        floats->SetKeys(fk.data(), kKeys, KeyFrame::INTERP_LINEAR);
        quats->SetKeys(qk.data(), kKeys, KeyFrame::INTERP_LINEAR);
        quats->ProcessKeys();
        std::uniform_real_distribution<float> anywhere(-0.5f, t + 0.5f);
        for (unsigned i = 0; i < kTimes; ++i)
            samples.push_back(anywhere(rng));
    }

    // The first key later than `time`, clamped as the controls clamp.
    unsigned Upper(float time) const
    {
        unsigned lo = 0, hi = kKeys - 1;
        while (lo < hi)
        {
            const unsigned mid = (lo + hi) / 2;
            if (times[mid] > time)
                hi = mid;
            else
                lo = mid + 1;
        }
        return lo;
    }
    float Blend(float time, unsigned& i0, unsigned& i1) const
    {
        i1 = Upper(time);
        i0 = i1 ? i1 - 1 : 0;
        const float span = times[i1] - times[i0];
        return span > 0.0f ? Math::Clamp((time - times[i0]) / span, 0.0f, 1.0f) : 1.0f;
    }
};

const Keys& TheKeys()
{
    static Keys keys;
    return keys;
}

void BM_FloatLinear64_KeyControl(benchmark::State& state)
{
    const Keys& k = TheKeys();
    unsigned i = 0;
    float out = 0;
    for (auto _ : state)
    {
        k.floats->Sample(out, k.samples[i++ & (kTimes - 1)]);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FloatLinear64_KeyControl);

void BM_FloatLinear64_Baseline_ArraySearchLerp(benchmark::State& state)
{
    const Keys& k = TheKeys();
    unsigned i = 0;
    for (auto _ : state)
    {
        unsigned i0, i1;
        const float t = k.Blend(k.samples[i++ & (kTimes - 1)], i0, i1);
        float out = k.values[i0] + (k.values[i1] - k.values[i0]) * t;
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FloatLinear64_Baseline_ArraySearchLerp);

void BM_QuatSlerp64_KeyControl(benchmark::State& state)
{
    const Keys& k = TheKeys();
    unsigned i = 0;
    Quaternion out;
    for (auto _ : state)
    {
        k.quats->Sample(out, k.samples[i++ & (kTimes - 1)]);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QuatSlerp64_KeyControl);

void BM_QuatSlerp64_Baseline_ArraySearchSlerp(benchmark::State& state)
{
    const Keys& k = TheKeys();
    unsigned i = 0;
    Quaternion out;
    for (auto _ : state)
    {
        unsigned i0, i1;
        const float t = k.Blend(k.samples[i++ & (kTimes - 1)], i0, i1);
        Quaternion::Slerp(out, k.rotations[i0], k.rotations[i1], t);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QuatSlerp64_Baseline_ArraySearchSlerp);

} // namespace

// --- A scene of animated nodes ----------------------------------------------------------------

#include "animation/AnimModifier.h"
#include "scene/Node.h"

namespace {

constexpr int kNodes = 1000;

Ptr<NodeAnimation> LineClip(const Vector3& to, float turn)
{
    Ptr<NodeAnimation> clip(new NodeAnimation());
    std::vector<Vector3LinearKey> path(8);
    std::vector<QuatTCBKey> spin(8);
    for (int i = 0; i < 8; ++i)
    {
        path[size_t(i)].time = spin[size_t(i)].time = float(i) * 0.25f;
        path[size_t(i)].value = to * (float(i) / 7.0f);
        spin[size_t(i)].value = Quaternion::FromAxisAngle(Vector3(0, 1, 0), turn * float(i));
    }
    clip->GetPositionKeys()->SetKeys(path.data(), 8, KeyFrame::INTERP_LINEAR);
    clip->GetRotationKeys()->SetKeys(spin.data(), 8, KeyFrame::INTERP_TCB);
    clip->GetRotationKeys()->ProcessKeys();
    clip->UpdateDuration();
    return clip;
}

// A root with 1,000 children; with `animated` each plays a walk and
// cross-fades it into a run that loops, ticking every frame.
struct AnimatedScene
{
    Ptr<Node> root{new Node()};
    Ptr<NodeAnimation> walk = LineClip(Vector3(10, 0, 0), 0.3f);
    Ptr<NodeAnimation> run = LineClip(Vector3(0, 0, 10), -0.2f);
    std::vector<Ptr<NodeAnimModifier>> modifiers;

    explicit AnimatedScene(bool animated)
    {
        for (int i = 0; i < kNodes; ++i)
        {
            Ptr<Node> node(new Node());
            root->AttachChild(node);
            if (!animated)
                continue;
            Ptr<NodeAnimModifier> m(new NodeAnimModifier());
            node->AttachModifier(Ptr<Modifier>(m.Get()));
            m->EnableForceUpdate(true);
            modifiers.push_back(m);
        }
    }
    // Both states of every node are under way: the fades long enough that
    // every frame measured blends two.
    void StartCrossFades()
    {
        for (const Ptr<NodeAnimModifier>& m : modifiers)
        {
            m->CloseAllAnimations();
            m->playAnimation(walk.Get(), 1.0f, 0, false);
            m->UpdateAnimStates(0.3f);
            m->playTransitiOnAnimation(run.Get(), 1000.0f);
        }
    }
};

void BM_Scene1000Nodes_TwoCrossFadingStates_Frame(benchmark::State& state)
{
    AnimatedScene scene(true);
    scene.StartCrossFades();
    for (auto _ : state)
        scene.root->Update(1.0f / 60.0f);
    state.SetItemsProcessed(state.iterations() * kNodes);
    state.SetLabel("time per frame of 1,000 nodes");
}
BENCHMARK(BM_Scene1000Nodes_TwoCrossFadingStates_Frame)->Unit(benchmark::kMicrosecond);

void BM_Scene1000Nodes_Baseline_NoAnimation_Frame(benchmark::State& state)
{
    AnimatedScene scene(false);
    for (auto _ : state)
        scene.root->Update(1.0f / 60.0f);
    state.SetItemsProcessed(state.iterations() * kNodes);
}
BENCHMARK(BM_Scene1000Nodes_Baseline_NoAnimation_Frame)->Unit(benchmark::kMicrosecond);

} // namespace
