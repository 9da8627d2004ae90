#include <gtest/gtest.h>

#include "graphics/InputLayout.h"
#include "graphics/RWBuffer.h"
#include "graphics/BaseProgram.h"
#include "graphics/null/NullRenderer.h"
#include "reflection/Function.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

TEST(RWBuffer, FactoryChecksArgumentsAndMakesStreams)
{
    KovexTest::NullEngine engine;
    RWBufferFactory* factory = RWBufferFactory::Get();
    ASSERT_NE(factory, nullptr);
    const uint32 view = 8; // unordered access
    const uint32 write = uint32(GraphicsResourceCpuAccess::Write);
    {
        KovexTest::LogCapture log;
        EXPECT_FALSE(factory->Create(GraphicsFormat::R32_FLOAT, 0, view, 0, GraphicsResourceUsage::Default, true));
        EXPECT_FALSE(factory->Create(GraphicsFormat::R32_FLOAT, 10, 0, 0, GraphicsResourceUsage::Default, true));
        EXPECT_FALSE(factory->Create(GraphicsFormat::UNKNOWN, 10, view, 0, GraphicsResourceUsage::Default, true));
        EXPECT_FALSE(factory->Create(GraphicsFormat::R32_FLOAT, 10, view, 0, GraphicsResourceUsage::Immutable, true));
        EXPECT_FALSE(factory->Create(GraphicsFormat::R32G32B32A32_FLOAT, 0x10000000u, view, 0,
                                     GraphicsResourceUsage::Default, true))
            << "past what a stream holds";
        EXPECT_EQ(log->entries.Count(), 5u);
        EXPECT_TRUE(log->Contains(u"Create RW Buffer failed, invalid args.\n"));
    }

    Ptr<RWBuffer> dynamic =
        factory->Create(GraphicsFormat::R32G32_FLOAT, 100, view, write, GraphicsResourceUsage::Dynamic, true);
    ASSERT_TRUE(dynamic);
    EXPECT_TRUE(dynamic->IsCreated());
    EXPECT_EQ(dynamic->GetByteWidth(), 800u);
    EXPECT_EQ(dynamic->NumElements(), 100u);
    EXPECT_EQ(dynamic->GetView(), view);
    EXPECT_EQ(dynamic->GetFormat(), GraphicsFormat::R32G32_FLOAT);
    ASSERT_TRUE(dynamic->GetStream());
    EXPECT_TRUE(dynamic->GetStream()->IsKindOf(RWBuffer::DynamicStream::StaticGetClass()));
    EXPECT_EQ(dynamic->GetStream()->GetLength(), 800u);

    Ptr<RWBuffer> plain = factory->Create(GraphicsFormat::R32_UINT, 16, view, 0, GraphicsResourceUsage::Default, true);
    ASSERT_TRUE(plain && plain->GetStream());
    EXPECT_FALSE(plain->GetStream()->IsDynamic());
    EXPECT_TRUE(plain->GetStream()->IsKindOf(RWBuffer::Stream::StaticGetClass()));

    Ptr<RWBuffer> bare = factory->Create(GraphicsFormat::R32_UINT, 16, view, 0, GraphicsResourceUsage::Default, false);
    ASSERT_TRUE(bare);
    EXPECT_FALSE(bare->GetStream());
    EXPECT_EQ(bare->NumElements(), 16u);
}

TEST(NullRenderer, EveryFactorySlotHasItsFactory)
{
    KovexTest::NullEngine engine;
    EXPECT_EQ(static_cast<GraphicsFactory*>(InputLayoutFactory::Get()),
              g_ptrRenderer->GetGraphicsFactory(FactoryType::InputLayoutFactory));
    EXPECT_EQ(static_cast<GraphicsFactory*>(RWBufferFactory::Get()),
              g_ptrRenderer->GetGraphicsFactory(FactoryType::RWBufferFactory));
    EXPECT_NE(InputLayoutFactory::Get(), nullptr);

    // A layout posted through its factory lives and dies like any object.
    struct Layout : InputLayout
    {
        bool CreateDeviceHandle() override
        {
            SetDeviceHandle(this);
            return true;
        }
        void ReleaseDeviceHandle() override { SetDeviceHandle(nullptr); }
    };
    VertexElement e;
    Ptr<InputLayout> layout(new Layout());
    layout->SetInputs(VertexDeclManager::Ins()->Create(&e, 1));
    InputLayoutFactory::Get()->M_PostObject(Ptr<GraphicsObject>(layout.Get()), nullptr);
    EXPECT_TRUE(layout->IsCreated());
    EXPECT_EQ(layout->GetDeviceHandle(), layout.Get());
    EXPECT_EQ(layout->GetInputs()->ElementCount(), 1u);
}

TEST(NullRenderer, DrawsAndTheCurrentProgram)
{
    KovexTest::NullEngine engine;
    Renderer& r = *g_ptrRenderer;
    r.Draw(nullptr);
    r.DrawInstanced(nullptr, 4);
    r.ClearSingle(nullptr, 2, Vector4());
    EXPECT_EQ(r.GetStageRecord(0), nullptr);

    Ptr<BaseProgram> program(new BaseProgram());
    r.SetCurrentProgram(program.Get());
    EXPECT_EQ(r.GetCurrentBaseProgram(), program.Get());
    EXPECT_EQ(r.GetCurrentProgram(), nullptr) << "a base program is no configured Program";
    EXPECT_EQ(program->GetRefCount(), 2) << "the renderer counts it";
    r.SetCurrentProgram(program.Get());
    EXPECT_EQ(program->GetRefCount(), 2) << "setting it again keeps one reference";
    r.EndFrame();
    EXPECT_EQ(r.GetCurrentBaseProgram(), nullptr);
    EXPECT_EQ(program->GetRefCount(), 1);
    r.SetCurrentProgram(program.Get());
    r.Cleanup();
    EXPECT_EQ(program->GetRefCount(), 1);
}

TEST(NullRenderer, ViewportRectsAndTheirReflectedCalls)
{
    KovexTest::NullEngine engine;
    Renderer& r = *g_ptrRenderer;
    r.SetViewportRect(Rect(10, 20, 110, 70));
    EXPECT_EQ(r.GetViewport().TopLeftX, 10u);
    EXPECT_EQ(r.GetViewport().TopLeftY, 20u);
    EXPECT_EQ(r.GetViewport().Width, 100u);
    EXPECT_EQ(r.GetViewport().Height, 50u);
    EXPECT_EQ(r.GetViewportRect(), Rect(10, 20, 110, 70));
    r.SetViewportRect(Rect(50, 50, 40, 10));
    EXPECT_EQ(r.GetViewportRect(), Rect(50, 50, 50, 50)) << "an inverted rectangle is empty";
    r.SetViewportRect(Rect(-5, -5, 15, 25));
    EXPECT_EQ(r.GetViewportRect(), Rect(0, 0, 15, 25));

    const Class* rect = Rect::StaticGetClass();
    ASSERT_NE(rect, nullptr);
    EXPECT_TRUE(rect->IsStruct());

    TFunctionStack<1> set(1, true);
    Rect wanted(1, 2, 33, 44);
    ASSERT_TRUE(set->Var(0).SetStructMem(&wanted, rect, true, true));
    ASSERT_TRUE(r.Invoke(WString(u"SetViewportRect"), set.Get()));
    TFunctionStack<1> get(0, true);
    ASSERT_TRUE(r.Invoke(WString(u"GetViewportRect"), get.Get()));
    ASSERT_EQ(get->RetVar().GetClass(), rect);
    EXPECT_EQ(*static_cast<const Rect*>(get->RetVar().GetStructMem()), wanted);

    for (const char16_t* name : {u"ClearSingle", u"ClearUAV", u"GetViewport", u"GetRenderTarget", u"SetRenderTarget",
                                 u"GetDepthBuffer", u"SetDepthBuffer", u"GetDefaultBlendState",
                                 u"GetDefaultSamplerState", u"GetDefaultRasterizerState",
                                 u"GetDefaultDepthStencilState", u"GetCurBlendState", u"GetCurRasterizerState",
                                 u"GetCurDepthStencilState"})
        EXPECT_NE(Renderer::StaticGetClass()->FindFunction(WString(name), true), nullptr);
    TFunctionStack<1> target(1, true);
    target->Var(0) = uint32(0);
    ASSERT_TRUE(r.Invoke(WString(u"GetRenderTarget"), target.Get()));
    EXPECT_EQ(target->RetVar().GetObject(), static_cast<Object*>(r.GetRenderTarget(0).Get()));

    // A group handed over by name binds its targets like a direct call.
    Ptr<Texture> colour = Texture::Create2DRT(64, 32, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_NE(colour, nullptr);
    RenderTargetGroup group;
    ASSERT_TRUE(group.SetRenderTarget(0, colour, 0));
    TFunctionStack<1> bind(1, true);
    ASSERT_TRUE(bind->Var(0).SetStructMem(&group, RenderTargetGroup::StaticGetClass(), true, true));
    ASSERT_TRUE(r.Invoke(WString(u"SetRTGroup"), bind.Get()));
    EXPECT_EQ(r.GetRenderTarget(0), colour);
    EXPECT_EQ(r.GetNumActivedRenderTargets(), 1u);
}
