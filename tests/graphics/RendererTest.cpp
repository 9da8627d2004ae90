#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "graphics/GraphicsThread.h"
#include "graphics/Renderer.h"
#include "graphics/null/NullRenderer.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"
#include "reflection/Function.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

// The engine with the null renderer opened; torn down in order.
class NullRendererScope
{
public:
    explicit NullRendererScope(bool startThread = false)
    {
        g_IsNullRenderer = true;
        Kovex_Main_Initialize();
        ok = Renderer::SetupPlatformAuto();
        if (startThread)
            GraphicsThread::Ins()->Start();
        GraphicsParameters parameters;
        parameters.Width = 320;
        parameters.Height = 200;
        Kovex_InitRenderer(parameters);
    }
    ~NullRendererScope()
    {
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
        g_IsNullRenderer = false;
    }
    bool ok = false;
};

uint32 ThreadIdHere() { return Kovex_GetCurrentThreadId(); }

// A device object that records where its device side was made and released.
class ProbeObject : public GraphicsObject
{
public:
    static std::atomic<int> s_live;
    static std::atomic<uint32> s_expectedCreator; // 0: any thread
    static std::atomic<int> s_wrongCreator;
    std::atomic<uint32> createdOn{0};
    std::atomic<uint32>* releasedOn = nullptr;
    std::atomic<uint32>* destroyedOn = nullptr;
    ProbeObject() { ++s_live; }
    ~ProbeObject() override
    {
        if (destroyedOn)
            destroyedOn->store(ThreadIdHere());
        --s_live;
    }
    bool CreateDeviceHandle() override
    {
        createdOn = ThreadIdHere();
        uint32 expected = s_expectedCreator.load();
        if (expected && expected != createdOn.load())
            ++s_wrongCreator;
        return true;
    }
    void ReleaseDeviceHandle() override
    {
        if (releasedOn)
            releasedOn->store(ThreadIdHere());
    }
    const Class* GetNativeClass() const override { return GraphicsObject::StaticGetClass(); }
};
std::atomic<int> ProbeObject::s_live{0};
std::atomic<uint32> ProbeObject::s_expectedCreator{0};
std::atomic<int> ProbeObject::s_wrongCreator{0};

GraphicsFactory* ShaderSlot() { return g_ptrRenderer->GetGraphicsFactory(FactoryType::ShaderFactory); }

} // namespace

TEST(NullRenderer, InitTickDestroy)
{
    {
        NullRendererScope engine;
        ASSERT_TRUE(engine.ok);
        ASSERT_TRUE(g_ptrRenderer);
        Renderer& r = *g_ptrRenderer;
        for (unsigned i = 0; i < unsigned(FactoryType::COUNT); ++i)
            EXPECT_NE(r.GetGraphicsFactory(FactoryType(i)), nullptr) << i;
        EXPECT_EQ(r.GetGraphicsFactory(FactoryType::BlendStateFactory), BlendStateFactory::Get());
        EXPECT_EQ(r.GetGraphicsFactory(FactoryType::WindowFactory), GraphicsWindowFactory::Get());
        // The backend's default format replaced UNKNOWN.
        EXPECT_EQ(r.GetParamters().BackBufferFormat, GraphicsFormat::R8G8B8A8_UNORM);
        EXPECT_EQ(r.GetDefaultBackBufferFormatLayout(), GraphicsFormatLayout::RGBA);
        EXPECT_EQ(r.GetViewport().Width, 320u);
        EXPECT_EQ(r.GetViewport().MaxDepth, 1.0f);
        ASSERT_TRUE(r.GetRenderTarget(0));
        EXPECT_TRUE(r.GetDepthBuffer());
        EXPECT_EQ(r.GetNumActivedRenderTargets(), 1u);
        EXPECT_TRUE(r.GetHWCapability()->GetMacroMap().Contains(AString("SUPPORT_INSTANCE_RNEDERING")));
        // Defaults committed, sampler made but not committed.
        EXPECT_EQ(r.GetCurBlendState(), r.GetDefaultBlendState());
        EXPECT_EQ(r.GetCurDepthStencilState(), r.GetDefaultDepthStencilState());
        ASSERT_TRUE(r.GetDefaultSamplerState());
        EXPECT_EQ(r.GetDefaultSamplerState()->GetDesc().Filter, GraphicsFilter::MinMagMipLinear);
        EXPECT_TRUE(r.GetDefaultBlendState()->IsCreated());
        EXPECT_STREQ(Renderer::GetShaderFuncName(ShaderType::Compute), "CS");
        EXPECT_EQ(r.GetCompatibleTextureFormat(GraphicsFormat::BC1_UNORM), GraphicsFormat::R8G8B8_UNORM);
        r.SetMaxAnisotropy(64);
        EXPECT_EQ(r.GetMaxAnisotropy(), 16u);
        for (int i = 0; i < 10; ++i)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
        EXPECT_GE(r.GetTime().Total, 0.0f);
    }
    EXPECT_FALSE(g_ptrRenderer);
}

TEST(NullRenderer, WithoutAPlatformThereIsNoRenderer)
{
    // A Vulkan device, where the machine has one, is hidden by naming a
    // device that does not exist: the path without any platform stays tested.
    struct HideVulkan
    {
        HideVulkan() { setenv("KOVEX_VULKAN_DEVICE", "no device is named like this", 1); }
        ~HideVulkan() { unsetenv("KOVEX_VULKAN_DEVICE"); }
    } hidden;
    g_IsNullRenderer = false;
    KovexTest::LogCapture log;
    TArray<RendererPlatform> platforms;
    RendererPlatform preferred = RendererPlatform::D3D9;
    EXPECT_FALSE(Renderer::GetAvailablePlatforms(platforms, preferred));
    EXPECT_FALSE(Renderer::SetupPlatformAuto());
    EXPECT_FALSE(g_ptrRenderer);
    EXPECT_TRUE(log->Contains(u"Renderer: no graphics platform is available.\n"));
    EXPECT_FALSE(Renderer::SetupPlatform(RendererPlatform::Vulkan));
    Kovex_InitRenderer(GraphicsParameters()); // nothing to open: no crash
}

TEST(NullRenderer, StatesAreUniquePerKeyAndPresetsMatchTheirTables)
{
    NullRendererScope engine;
    auto* blend = BlendStateFactory::Get();
    ASSERT_NE(blend, nullptr);
    BlendStateDesc a;
    a.RenderTarget0.BlendEnable = true;
    Ptr<BlendState> s1 = blend->Create(a);
    Ptr<BlendState> s2 = blend->Create(a);
    EXPECT_EQ(s1.Get(), s2.Get());
    a.RenderTarget3.SrcBlend = GraphicsBlend::DestColor;
    EXPECT_NE(blend->Create(a).Get(), s1.Get());
    // Two rasterizer descriptors whose floats print alike share an object.
    RasterizerStateDesc r1, r2;
    r1.SlopeScaledDepthBias = 1.0f;
    r2.SlopeScaledDepthBias = 1.0000001f;
    EXPECT_EQ(RasterizerStateFactory::Get()->Create(r1).Get(), RasterizerStateFactory::Get()->Create(r2).Get());

    const BlendStateDesc& add = blend->GetAdditiveMaxState()->GetDesc();
    EXPECT_TRUE(add.RenderTarget0.BlendEnable);
    EXPECT_EQ(add.RenderTarget0.SrcBlend, GraphicsBlend::SrcAlpha);
    EXPECT_EQ(add.RenderTarget0.DestBlend, GraphicsBlend::One);
    EXPECT_EQ(add.RenderTarget0.BlendOpAlpha, GraphicsBlendOp::Max);
    EXPECT_EQ(blend->GetColorDisableState()->GetDesc().RenderTarget7.RenderTargetWriteMask, 0);
    EXPECT_EQ(RasterizerStateFactory::Get()->GetBackFaceState()->GetDesc().CullMode, GraphicsCullMode::Front);
    auto* depth = DepthStencilStateFactory::Get();
    const DepthStencilStateDesc& cull2 = depth->GetLightStencilCullPass2State()->GetDesc();
    EXPECT_EQ(cull2.DepthFunc, GraphicsComparison::GreaterEqual);
    EXPECT_EQ(cull2.BackFace.StencilFailOp, GraphicsStencilOp::Zero);
    EXPECT_EQ(cull2.BackFace.StencilFunc, GraphicsComparison::Equal);
    EXPECT_EQ(depth->GetLightVolumePass1State()->StencilRef, 1u);
    EXPECT_EQ(depth->GetLightVolumePass3State()->GetDesc().StencilWriteMask, 0u);

    // CommitState: a change reaches the current state, a null does nothing.
    Renderer& r = *g_ptrRenderer;
    r.CommitState(depth->GetDepthTestState().Get());
    EXPECT_EQ(r.GetCurDepthStencilState(), depth->GetDepthTestState());
    r.CommitState(static_cast<DepthStencilState*>(nullptr));
    EXPECT_EQ(r.GetCurDepthStencilState(), depth->GetDepthTestState());
}

TEST(NullRenderer, TargetsDelegatesAndMaps)
{
    NullRendererScope engine;
    Renderer& r = *g_ptrRenderer;
    r.SetRenderTarget(Ptr<Texture>(), 1, 3);
    EXPECT_EQ(r.GetRenderTargetArrayIndex(1), 0u);
    for (unsigned i = 0; i < 8; ++i)
        r.SetRenderTarget(NullRenderer::NewNullTexture(GraphicsFormat::R8G8B8A8_UNORM), i, 2);
    EXPECT_EQ(r.GetNumActivedRenderTargets(), 0u) << "a full set answers 0, as it always has";
    EXPECT_EQ(r.GetRenderTargetArrayIndex(5), 2u);

    int lost = 0, reset = 0;
    EXPECT_TRUE(r.RegisterDeviceLostDelegate(&lost, [&] { ++lost; }));
    EXPECT_FALSE(r.RegisterDeviceLostDelegate(&lost, [&] { ++lost; }));
    EXPECT_TRUE(r.RegisterDeviceResetDelegate(&reset, [&] { ++reset; }));
    GraphicsParameters p;
    p.Width = 64;
    p.Height = 32;
    EXPECT_TRUE(r.Reset(p));
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(reset, 1);
    EXPECT_EQ(r.GetViewport().Width, 64u);
    EXPECT_TRUE(r.UnregisterDeviceLostDelegate(&lost));
    EXPECT_FALSE(r.UnregisterDeviceLostDelegate(&lost));

    // Map checks, each with its own line.
    KovexTest::LogCapture log;
    Ptr<Texture> t = NullRenderer::NewNullTexture(GraphicsFormat::R8_UNORM);
    MappedSubresource m;
    EXPECT_FALSE(t->Map(m, MapType::Write, 0));
    EXPECT_TRUE(log->Contains(u"ERROR: Can't map a resource without CPU_ACCESS_WRITE flags.\n"));
    GraphicsFactory::SetCpuAccessFlags(t.Get(), unsigned(GraphicsResourceCpuAccess::Write));
    EXPECT_FALSE(t->Map(m, MapType::WriteDiscard, 0));
    EXPECT_TRUE(log->Contains(u"ERROR: can't map or write data to a non-dynamic resource.\n"));
    EXPECT_FALSE(t->Map(m, MapType::Read, 0));
    EXPECT_TRUE(log->Contains(u"ERROR: Can't read a resource without CPU_ACCESS_READ flags.\n"));
    GraphicsFactory::SetResourceUsage(t.Get(), GraphicsResourceUsage::Immutable);
    EXPECT_FALSE(t->Map(m, MapType::Write, 0));
    EXPECT_TRUE(log->Contains(u"ERROR: Can't map or write an immutable resource.\n"));
    EXPECT_FALSE(t->IsMapped());
    EXPECT_FALSE(t->CanCopyTo(t.Get()));
    EXPECT_FALSE(t->CanCopyTo(nullptr));
    Ptr<Texture> u = NullRenderer::NewNullTexture(GraphicsFormat::R8_UNORM);
    EXPECT_TRUE(t->CanCopyTo(u.Get()));
    EXPECT_TRUE(t->CanCopyToSubresourceRegion(t.Get(), 1, 0, 0, 0, 0, nullptr));
    EXPECT_FALSE(t->CanCopyToSubresourceRegion(t.Get(), 0, 0, 0, 0, 0, nullptr));

    Ptr<GraphicsWindow> window = GraphicsWindowFactory::Get()->Create(p);
    EXPECT_TRUE(window->IsCreated());
    window->BeginWindow();
    EXPECT_EQ(r.GetRenderTarget(0), window->GetGroup().RenderTargets[0]);
    EXPECT_EQ(r.GetViewport().Height, 32u);
    window->EndWindow();
}

namespace {
class FailingTexture : public NullTexture
{
public:
    static std::atomic<int> s_live;
    FailingTexture() { ++s_live; }
    ~FailingTexture() override { --s_live; }
    bool CreateDeviceHandle() override { return false; }
};
std::atomic<int> FailingTexture::s_live{0};
} // namespace

TEST(NullRenderer, TexturesViewportsAndReflectedCalls)
{
    NullRendererScope engine;
    Renderer& r = *g_ptrRenderer;
    EXPECT_FALSE(r.InitializeATexture(new FailingTexture()));
    EXPECT_EQ(FailingTexture::s_live.load(), 0) << "a failed texture is released";
    Ptr<Texture> made = r.InitializeATexture(new NullTexture());
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->IsCreated());

    r.SetRenderTarget(NullRenderer::NewNullTexture(GraphicsFormat::R8G8B8A8_UNORM, 96, 48), 0, 0);
    r.SetViewportByRT0();
    EXPECT_EQ(r.GetViewport().Width, 96u);
    EXPECT_EQ(r.GetViewport().Height, 48u);
    ASSERT_NE(r.GetDefaultCOLORtoDWORD(), nullptr);
    EXPECT_EQ(r.GetDefaultCOLORtoDWORD()(Vector4(1.0f, 0.0f, 0.0f, 1.0f)), 0xFF0000FFu) << "RGBA back buffer";

    TFunctionStack<4> stack(0, true);
    ASSERT_TRUE(r.Invoke(WString(u"GetMaxAnisotropy"), stack.Get()));
    EXPECT_EQ(stack->RetVar().GetInt(), 16);
    TFunctionStack<5> check(5, true);
    check->Var(0).SetEnumValue(GraphicsFormat::BC3_UNORM, GraphicsFormat::GetSelfEnumClass());
    check->Var(1).SetEnumValue(TextureDimension::_2D, TextureDimension::GetSelfEnumClass());
    check->Var(2) = uint32(1);
    check->Var(3).SetEnumValue(GraphicsResourceUsage::Default, GraphicsResourceUsage::GetSelfEnumClass());
    check->Var(4) = uint32(0);
    ASSERT_TRUE(r.Invoke(WString(u"CheckTextureFormat"), check.Get()));
    EXPECT_FALSE(check->RetVar().GetBool()) << "the null device has no compressed formats";
}

TEST(NullRenderer, ReleaseOnAWorkerIsDisposedAtTheNextTick)
{
    NullRendererScope engine;
    std::atomic<uint32> releasedOn{0}, destroyedOn{0};
    Ptr<ProbeObject> object(new ProbeObject());
    object->releasedOn = &releasedOn;
    object->destroyedOn = &destroyedOn;
    ShaderSlot()->M_PostObject(Ptr<GraphicsObject>(object.Get()), nullptr);
    EXPECT_TRUE(object->IsCreated());
    EXPECT_EQ(object->createdOn.load(), ThreadIdHere());
    EXPECT_EQ(ShaderSlot()->GetNumObjects(), 1u);
    std::thread worker([&] { object = nullptr; });
    worker.join();
    // Still alive, handle held, until the graphics side ticks.
    EXPECT_EQ(ProbeObject::s_live.load(), 1);
    EXPECT_EQ(releasedOn.load(), 0u);
    EXPECT_EQ(ShaderSlot()->GetNumDisposing(), 1u);
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    EXPECT_EQ(ProbeObject::s_live.load(), 0);
    EXPECT_EQ(releasedOn.load(), ThreadIdHere());
    EXPECT_EQ(destroyedOn.load(), ThreadIdHere());
    EXPECT_EQ(ShaderSlot()->GetNumObjects(), 0u);
}

TEST(NullRenderer, ObjectsOutlivingTheRendererDieAtTheirRelease)
{
    Ptr<ProbeObject> survivor;
    {
        NullRendererScope engine;
        survivor = new ProbeObject();
        ShaderSlot()->M_PostObject(Ptr<GraphicsObject>(survivor.Get()), nullptr);
    }
    EXPECT_EQ(survivor->GetFactory(), nullptr);
    EXPECT_EQ(ProbeObject::s_live.load(), 1);
    survivor = nullptr; // no factory left: deleted at once
    EXPECT_EQ(ProbeObject::s_live.load(), 0);
}

TEST(NullRenderer, LifecycleReinitialisesWithARenderer)
{
    for (int round = 0; round < 3; ++round)
    {
        NullRendererScope engine(round == 1);
        ASSERT_TRUE(g_ptrRenderer) << round;
        EXPECT_TRUE(BlendStateFactory::Get()->GetAdditiveReplaceState()) << round;
        for (int i = 0; i < 5; ++i)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
    }
    EXPECT_FALSE(g_ptrRenderer);
    EXPECT_EQ(BlendStateFactory::Get(), nullptr);
    EXPECT_FALSE(GraphicsThread::Exists());
}

// Workers post objects and drop them while the main thread runs frames
// through the started graphics thread: every object is created on the
// graphics thread, and every release is disposed at a tick.
TEST(GraphicsThreads, PostReleaseAndFramesUnderLoad)
{
    constexpr int kWorkers = 3, kPerWorker = 1500;
    std::atomic<int32> pending{0};
    {
        NullRendererScope engine(true);
        GraphicsThread* thread = GraphicsThread::Ins();
        ASSERT_TRUE(thread->IsStarted());
        ProbeObject::s_expectedCreator = thread->GetThreadID();
        std::atomic<bool> done{false};
        std::vector<std::thread> workers;
        for (int w = 0; w < kWorkers; ++w)
            workers.emplace_back([&] {
                std::vector<Ptr<ProbeObject>> held;
                for (int i = 0; i < kPerWorker; ++i)
                {
                    Ptr<ProbeObject> object(new ProbeObject());
                    ShaderSlot()->M_PostObject(Ptr<GraphicsObject>(object.Get()), &pending);
                    held.push_back(object);
                    if (held.size() > 16)
                        held.erase(held.begin()); // dropped on this worker
                    BlendStateDesc desc;
                    desc.RenderTarget0.SrcBlend = int(1 + i % 11);
                    BlendStateFactory::Get()->Create(desc);
                }
            });
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        std::thread joiner([&] {
            for (auto& t : workers)
                t.join();
            done = true;
        });
        while (!done && std::chrono::steady_clock::now() < deadline)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
        joiner.join();
        // Two frames: the last posts are created, the last releases disposed.
        for (int i = 0; i < 3; ++i)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
        EXPECT_EQ(pending.load(), 0);
        EXPECT_EQ(ProbeObject::s_live.load(), 0);
        EXPECT_EQ(ShaderSlot()->GetNumObjects(), 0u);
        // The default, 16 presets, colour-disable, and ten new SrcBlend values.
        EXPECT_EQ(BlendStateFactory::Get()->GetNumStates(), 28u);
        EXPECT_EQ(ProbeObject::s_wrongCreator.load(), 0) << "created off the graphics thread";
        ProbeObject::s_expectedCreator = 0;
    }
    EXPECT_EQ(ProbeObject::s_live.load(), 0);
}

namespace {
struct CountOnGraphicsThread : ThreadCommand
{
    std::atomic<int>* count = nullptr;
    uint32 expected = 0;
    void Process() override
    {
        if (ThreadIdHere() == expected)
            ++*count;
    }
};
} // namespace

// Frames far apart let the thread go back to its semaphore between them;
// each frame's commands must still run on it before EndRender returns.
TEST(GraphicsThreads, SleepingThreadIsWokenForEachFrame)
{
    NullRendererScope engine(true);
    GraphicsThread* thread = GraphicsThread::Ins();
    ASSERT_TRUE(thread->IsStarted());
    std::atomic<int> ran{0};
    for (int frame = 0; frame < 20; ++frame)
    {
        if (frame % 4 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        Ptr<CountOnGraphicsThread> command(new CountOnGraphicsThread());
        command->count = &ran;
        command->expected = thread->GetThreadID();
        thread->MT_PostCommand(command.Get());
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        EXPECT_EQ(ran.load(), frame + 1) << "frame " << frame;
        EXPECT_EQ(thread->GetFramesToRender(), 0u);
    }
}
