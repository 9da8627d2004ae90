#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "graphics/Renderer.h"
#include "graphics/TextureFactory.h"
#include "graphics/null/NullRenderer.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"
#include "reflection/Function.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;
using KovexTest::NullEngine;

namespace {

TextureDesc Desc2D(uint32 w, uint32 h, GraphicsFormat format = GraphicsFormat::R8G8B8A8_UNORM, uint32 views = 1)
{
    return TextureFactory::Make2DDesc(w, h, format, views);
}

} // namespace

TEST(Texture, FactorySlotCreatesTexturesWithTheirDescAndUsage)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(g_ptrRenderer->GetGraphicsFactory(FactoryType::TextureFactory), factory);

    TextureDesc desc = Desc2D(256, 64);
    desc.MipLevels = 0; // the whole chain
    std::atomic<int32> pending{0};
    Ptr<Texture> texture = factory->Create(desc, GraphicsResourceUsage::Dynamic, &pending);
    ASSERT_TRUE(texture);
    EXPECT_TRUE(texture->IsCreated());
    EXPECT_EQ(pending.load(), 0);
    EXPECT_EQ(texture->GetDesc().MipLevels, 9u);
    EXPECT_EQ(texture->GetWidth(), 256u);
    EXPECT_EQ(texture->GetFormat(), GraphicsFormat::R8G8B8A8_UNORM);
    EXPECT_TRUE(texture->IsShaderResource());
    EXPECT_FALSE(texture->IsRenderTarget());
    EXPECT_TRUE(texture->IsDynamicResource());
    EXPECT_EQ(texture->GetCpuAccessFlags(), uint32(GraphicsResourceCpuAccess::Write));

    Ptr<Texture> staging = factory->Create2DStaging(16, 16, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(staging);
    EXPECT_EQ(staging->GetCpuAccessFlags(),
              uint32(GraphicsResourceCpuAccess::Read) | uint32(GraphicsResourceCpuAccess::Write));
    // Render targets get the unordered-access view where geometry shaders exist.
    Ptr<Texture> rt = factory->Create2DRT(32, 32, GraphicsFormat::R16G16B16A16_FLOAT);
    ASSERT_TRUE(rt);
    EXPECT_EQ(rt->GetDesc().ViewFlags, 11u);
    EXPECT_TRUE(rt->IsUnorderedAccessView());
    Ptr<Texture> depth = factory->Create2DDepth(32, 32, GraphicsFormat::D24_UNORM_S8_UINT);
    ASSERT_TRUE(depth);
    EXPECT_TRUE(depth->IsDepthStencil());
    Ptr<Texture> cube = factory->CreateCubeRT(64, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(cube);
    EXPECT_EQ(cube->GetDesc().ArraySize, 6u);

    // Copies only between textures of one size and bit layout.
    Ptr<Texture> same = factory->Create2DStaging(16, 16, GraphicsFormat::R8G8B8A8_UNORM);
    Ptr<Texture> other = factory->Create2DStaging(16, 8, GraphicsFormat::R8G8B8A8_UNORM);
    EXPECT_TRUE(staging->CanCopyTo(same.Get()));
    EXPECT_FALSE(staging->CanCopyTo(other.Get()));
    MappedSubresource mapped;
    mapped.RowPitch = 80;
    EXPECT_EQ(staging->CalculateDataSize(0, mapped, nullptr), 15u * 80u + 64u);
    MappedBox box{2, 2, 0, 6, 4, 1};
    EXPECT_EQ(staging->CalculateDataSize(0, mapped, &box), 80u + 16u);

    TFunctionStack<4> stack(0, true);
    ASSERT_TRUE(rt->Invoke(WString(u"IsUnorderedAccessView"), stack.Get()));
    EXPECT_TRUE(stack->RetVar().GetBool());
    ASSERT_TRUE(depth->Invoke(WString(u"IsRenderTarget"), stack.Get()));
    EXPECT_FALSE(stack->RetVar().GetBool());
    ASSERT_TRUE(rt->Invoke(WString(u"GetWidth"), stack.Get()));
    EXPECT_EQ(stack->RetVar().GetInt(), 32);

    unsigned before = factory->GetNumObjects();
    rt = nullptr;
    EXPECT_EQ(factory->GetNumDisposing(), 1u);
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    EXPECT_EQ(factory->GetNumObjects(), before - 1);
}

TEST(Texture, AbsurdDescriptionsAreRefusedWithTheirLines)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    struct Case
    {
        TextureDesc desc;
        GraphicsResourceUsage usage;
        const char16_t* line;
    };
    TextureDesc zero = Desc2D(0, 16);
    TextureDesc huge = Desc2D(16, 0x80000000u);
    TextureDesc bigArray = Desc2D(16, 16);
    bigArray.ArraySize = 0xFFFFFFFFu;
    TextureDesc mips = Desc2D(16, 4);
    mips.MipLevels = 6;
    TextureDesc compressed = Desc2D(16, 16, GraphicsFormat::BC1_UNORM);
    TextureDesc rtDynamic = Desc2D(16, 16, GraphicsFormat::R8G8B8A8_UNORM, 2);
    TextureDesc typeless = Desc2D(16, 16, GraphicsFormat::R8G8B8A8_TYPELESS);
    TextureDesc cube = Desc2D(16, 8);
    cube.Dimension = uint32(TextureDimension::Cube);
    TextureDesc badDimension = Desc2D(16, 16);
    badDimension.Dimension = 77;
    const Case cases[] = {
        {zero, GraphicsResourceUsage::Default,
         u"Check texture size failed, width = 0, height = 16, depth = 1 and array size = 1 must not be 0.\n"},
        {huge, GraphicsResourceUsage::Default,
         u"Check texture size failed, 16 x 2147483648 x 1 with array size 1 is above the limit 16384 (array 2048).\n"},
        {bigArray, GraphicsResourceUsage::Default,
         u"Check texture size failed, 16 x 16 x 1 with array size 4294967295 is above the limit 16384 (array 2048).\n"},
        {mips, GraphicsResourceUsage::Default, u"Check texture size failed, mip levels = 6 above the 5 of the chain.\n"},
        {compressed, GraphicsResourceUsage::Default, u"Check texture desc failed, not support format[BC1_UNORM].\n"},
        {rtDynamic, GraphicsResourceUsage::Dynamic,
         u"Check texture desc failed, DS & RT must created by DEFAULT usage.\n"},
        {typeless, GraphicsResourceUsage::Default,
         u"Check texture desc failed, HW do NOT support typeless texture.\n"},
        {cube, GraphicsResourceUsage::Default,
         u"Check texture cube size failed, width = 16 must equal to height = 8.\n"},
        {badDimension, GraphicsResourceUsage::Default, nullptr},
    };
    for (const Case& c : cases)
    {
        KovexTest::LogCapture log;
        unsigned objects = factory->GetNumObjects();
        EXPECT_FALSE(factory->Create(c.desc, c.usage, nullptr));
        if (c.line)
            EXPECT_TRUE(log->Contains(c.line));
        EXPECT_EQ(factory->GetNumObjects(), objects) << "nothing made for a refused description";
    }
    // At the limits themselves it passes.
    TextureDesc edge = Desc2D(TextureFactory::kMaxTextureSize, 1);
    edge.MipLevels = 15;
    EXPECT_TRUE(factory->Create(edge, GraphicsResourceUsage::Default, nullptr));
}

// The pool key: sizes beyond 16 bits keep their own stacks, and a key turns
// back into the description's keyed fields.
TEST(TexturePool, KeysAreWideEnoughAndRoundTrip)
{
    using Pool = TextureFactory::TexturePool;
    TextureDesc a = Desc2D(65536 + 16, 16);
    TextureDesc b = Desc2D(16, 16);
    EXPECT_FALSE(Pool::Compress(a) == Pool::Compress(b));
    TextureDesc c = Desc2D(16, 0x10010u);
    EXPECT_FALSE(Pool::Compress(c) == Pool::Compress(b));
    TextureDesc full;
    full.Width = 0xFFFFFFFFu;
    full.Height = 70000;
    full.Depth = 9;
    full.MipLevels = 3;
    full.ArraySize = 4;
    full.Format = 0xAB;
    full.TypelessRtvDsvFormat = 0xCD;
    full.TypelessSavUavFormat = 0xEF;
    full.ViewFlags = 0xF;
    full.Dimension = 5;
    TextureDesc back;
    back.Depth = 2;
    back.MipLevels = 7;
    back.ArraySize = 3;
    Pool::Decompress(Pool::Compress(full), back);
    TextureDesc expected = full;
    expected.Depth = 2;
    expected.MipLevels = 7;
    expected.ArraySize = 3;
    EXPECT_EQ(back, expected);
    // Unkeyed fields share a stack.
    TextureDesc deeper = b;
    deeper.MipLevels = 4;
    EXPECT_TRUE(Pool::Compress(deeper) == Pool::Compress(b));
}

TEST(TexturePool, ClosestFitAndCleanup)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    TextureFactory::TexturePool& pool = factory->GetTexturePool(GraphicsResourceUsage::Default);
    Ptr<Texture> big = factory->Create(Desc2D(128, 128), GraphicsResourceUsage::Default, nullptr);
    Ptr<Texture> mid = factory->Create(Desc2D(64, 64), GraphicsResourceUsage::Default, nullptr);
    Ptr<Texture> narrow = factory->Create(Desc2D(16, 256), GraphicsResourceUsage::Default, nullptr);
    Texture* midRaw = mid.Get();
    factory->Recycle(big.Get());
    factory->Recycle(big.Get()); // a second recycle does not pool it twice
    factory->Recycle(mid.Get());
    factory->Recycle(narrow.Get());
    factory->Recycle(nullptr);
    EXPECT_EQ(pool.GetNumPooled(), 3u);
    big = mid = narrow = nullptr;
    EXPECT_FALSE(pool.Require(Desc2D(40, 40), false)) << "no exact stack";
    EXPECT_FALSE(pool.Require(Desc2D(40, 40, GraphicsFormat::R32_FLOAT), true)) << "other format";
    // In key order 64x64 fits first, then 128x128 is no smaller: the candidate
    // stays 64x64; 16x256 is too narrow.
    Ptr<Texture> got = pool.Require(Desc2D(40, 40), true);
    EXPECT_EQ(got.Get(), midRaw);
    EXPECT_EQ(pool.GetNumPooled(), 2u);
    // The narrowest fit wins even when it is taller; nothing else leaves.
    factory->Recycle(got.Get());
    got = nullptr;
    Ptr<Texture> w = pool.Require(Desc2D(10, 10), true);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->GetWidth(), 16u);
    EXPECT_EQ(pool.GetNumPooled(), 2u);
    factory->Recycle(w.Get());
    w = nullptr;
    pool.Cleanup([](Texture* t) { return t->GetWidth() >= 64; });
    EXPECT_EQ(pool.GetNumPooled(), 1u);
    pool.Cleanup();
    EXPECT_EQ(pool.GetNumPooled(), 0u);
    factory->Recycle(factory->Create2DRT(8, 8, GraphicsFormat::R8G8B8A8_UNORM).Get());
    EXPECT_EQ(pool.GetNumPooled(), 1u);
    pool.Cleanup(std::function<bool(Texture*)>());
    EXPECT_EQ(pool.GetNumPooled(), 1u) << "an empty selector drops nothing";
    // Require2DRT by a fraction of the 320x200 screen; a pooled one comes back.
    Ptr<Texture> quarter = factory->Require2DRT(GraphicsFormat::R8G8B8A8_UNORM, 2);
    ASSERT_TRUE(quarter);
    EXPECT_EQ(quarter->GetWidth(), 80u);
    EXPECT_EQ(quarter->GetHeight(), 50u);
    Texture* quarterRaw = quarter.Get();
    factory->Recycle(quarter.Get());
    quarter = nullptr;
    EXPECT_EQ(factory->Require2DRT(80, 50, GraphicsFormat::R8G8B8A8_UNORM).Get(), quarterRaw);
    uint32 sw = 0, sh = 0;
    factory->GetScreenSize(sw, sh, 9);
    EXPECT_EQ(sw, 20u);
    EXPECT_EQ(sh, 12u);
}

// Random require/recycle runs against a model: a multiset of pooled sizes.
TEST(TexturePool, RandomRunsMatchAReferenceModel)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    TextureFactory::TexturePool& pool = factory->GetTexturePool(GraphicsResourceUsage::Staging);
    std::mt19937 random(1234);
    const uint32 sizes[] = {1, 7, 64, 65535, 65536 + 64, 70000};
    std::map<std::pair<uint32, uint32>, int> model;
    std::vector<Ptr<Texture>> held;
    for (int step = 0; step < 3000; ++step)
    {
        uint32 w = sizes[random() % 6], h = sizes[random() % 3];
        if (random() % 2 || held.empty())
        {
            TextureDesc d = Desc2D(w, h, GraphicsFormat::R8G8B8A8_UNORM, 0);
            Ptr<Texture> t = pool.Require(d, false);
            auto& count = model[{w, h}];
            if (count > 0)
            {
                ASSERT_TRUE(t);
                --count;
            }
            else
            {
                ASSERT_FALSE(t);
                t = Ptr<Texture>(new NullTexture());
                t->SetDesc(d);
            }
            EXPECT_EQ(t->GetWidth(), w);
            EXPECT_EQ(t->GetHeight(), h);
            held.push_back(t);
        }
        else
        {
            size_t at = random() % held.size();
            Ptr<Texture> t = held[at];
            held.erase(held.begin() + at);
            pool.Recycle(t.Get());
            ++model[{t->GetWidth(), t->GetHeight()}];
        }
        size_t total = 0;
        for (auto& entry : model)
            total += entry.second;
        ASSERT_EQ(pool.GetNumPooled(), total);
    }
    pool.Cleanup();
    EXPECT_EQ(pool.GetNumPooled(), 0u);
}

TEST(TextureThreads, ReleaseOnAWorkerIsDisposedAtTheNextTick)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    unsigned before = factory->GetNumObjects();
    std::vector<Ptr<Texture>> textures;
    for (int i = 0; i < 8; ++i)
        textures.push_back(factory->Create2DRT(8 + i, 8, GraphicsFormat::R8G8B8A8_UNORM));
    EXPECT_EQ(factory->GetNumObjects(), before + 8);
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i)
        workers.emplace_back([&, i] {
            textures[2 * i] = nullptr;
            textures[2 * i + 1] = nullptr;
            Ptr<Texture> own = factory->Create2DStaging(4, 4, GraphicsFormat::R8G8B8A8_UNORM);
            EXPECT_TRUE(own);
        });
    for (std::thread& worker : workers)
        worker.join();
    // The workers' own textures wait, as created-on-post commands, for the
    // graphics side; the dropped render targets wait on the dispose list.
    EXPECT_EQ(factory->GetNumDisposing(), 8u);
    EXPECT_EQ(factory->GetNumObjects(), before + 12) << "alive until the graphics side ticks";
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    EXPECT_EQ(factory->GetNumObjects(), before);
    EXPECT_EQ(factory->GetNumDisposing(), 0u);
}

TEST(Texture, RenderTargetGroupsBindAsOne)
{
    NullEngine engine;
    TextureFactory* factory = TextureFactory::Get();
    Ptr<Texture> a = factory->Require2DRT(64, 32, GraphicsFormat::R8G8B8A8_UNORM);
    Ptr<Texture> b = factory->Require2DRT(64, 32, GraphicsFormat::R16G16B16A16_FLOAT);
    Ptr<Texture> depth = factory->Require2DDepth(64, 32, GraphicsFormat::D24_UNORM_S8_UINT);
    RenderTargetGroup group;
    EXPECT_EQ(group.GetNumTargets(), 0u);
    EXPECT_TRUE(group.SetRenderTarget(0, a, 0));
    EXPECT_TRUE(group.SetRenderTarget(1, b, 3));
    EXPECT_FALSE(group.SetRenderTarget(8, a, 0));
    group.SetDepthStencil(depth, 1);
    group.ClearOnApply = true;
    EXPECT_EQ(group.GetNumTargets(), 2u);
    RenderTargetGroup copy = group;
    EXPECT_TRUE(copy == group);
    copy.ArrayIndices[1] = 2;
    EXPECT_TRUE(copy != group);

    g_ptrRenderer->SetRTGroup(group);
    EXPECT_EQ(g_ptrRenderer->GetRenderTarget(1).Get(), b.Get());
    EXPECT_EQ(g_ptrRenderer->GetRenderTargetArrayIndex(1), 3u);
    EXPECT_EQ(g_ptrRenderer->GetDepthBuffer().Get(), depth.Get());
    g_ptrRenderer->SetViewportByRT0();
    EXPECT_EQ(g_ptrRenderer->GetViewport().Width, 64u);

    group.Clear();
    EXPECT_EQ(group.GetNumTargets(), 0u);
    EXPECT_FALSE(group.DepthBuffer);
    EXPECT_FALSE(group.ClearOnApply);
    EXPECT_TRUE(group == RenderTargetGroup());
}

TEST(Texture, StaticFrontReachesTheFactoryAndIsNullWithoutOne)
{
    EXPECT_FALSE(Texture::Create2DRT(8, 8, GraphicsFormat::R8G8B8A8_UNORM)) << "no renderer, no factory";
    Texture::Recycle(nullptr);
    Ptr<Texture> kept;
    {
        NullEngine engine;
        Ptr<Texture> rt = Texture::Require2DRT(8, 8, GraphicsFormat::R8G8B8A8_UNORM);
        ASSERT_TRUE(rt);
        Texture* raw = rt.Get();
        Texture::Recycle(rt.Get());
        rt = nullptr;
        EXPECT_EQ(Texture::Require2DRT(8, 8, GraphicsFormat::R8G8B8A8_UNORM).Get(), raw);
        EXPECT_TRUE(Texture::CreateCubeRT(16, GraphicsFormat::R8G8B8A8_UNORM));
        EXPECT_TRUE(Texture::Create2DStaging(4, 4, GraphicsFormat::R8G8B8A8_UNORM));
        EXPECT_FALSE(Texture::FindByPath(u"nowhere.bmp"));
        // A texture still held when the renderer goes is deleted at its
        // release; pooled ones go with the factory.
        kept = Texture::Create(Desc2D(4, 4), GraphicsResourceUsage::Default);
        ASSERT_TRUE(kept);
        TextureFactory::Get()->Recycle(Texture::Create2DRT(4, 4, GraphicsFormat::R8G8B8A8_UNORM).Get());
    }
    EXPECT_FALSE(Texture::Require2DDepth(8, 8, GraphicsFormat::D24_UNORM_S8_UINT));
    EXPECT_EQ(kept->GetFactory(), nullptr);
    kept = nullptr;
}

TEST(Texture, DepthBuffersSharedPathsAndTypelessTargets)
{
    NullEngine engine(64, 32);
    TextureFactory* factory = TextureFactory::Get();
    GraphicsParameters window;
    window.Width = 40;
    window.Height = 20;
    window.DepthStencilFormat = GraphicsFormat::D32_FLOAT;
    Ptr<Texture> depth = factory->CreateDepthBuffer(window);
    ASSERT_TRUE(depth);
    EXPECT_EQ(depth->GetWidth(), 40u);
    EXPECT_EQ(depth->GetHeight(), 20u);
    EXPECT_EQ(depth->GetFormat(), GraphicsFormat::D32_FLOAT);
    EXPECT_TRUE(depth->IsDepthStencil());

    // A texture shared by hand is what the path then loads.
    Ptr<Texture> shared = factory->Create(Desc2D(4, 4), GraphicsResourceUsage::Default, nullptr);
    factory->AddSharedResource(u"[core]textures/made.dds", shared);
    EXPECT_EQ(factory->LoadSharedResource(u"[core]textures/made.dds", nullptr).Get(), shared.Get());
    EXPECT_EQ(Texture::LoadFromPath(u"[core]textures/made.dds").Get(), shared.Get());
    factory->AddSharedResource(u"ignored", Ptr<Texture>());
    EXPECT_FALSE(factory->FindTexture(u"ignored"));

    // Typeless targets keep their view formats and pool by all three.
    Renderer::Get()->GetHWCapability()->SupportTypelessTex = true;
    Ptr<Texture> typeless = factory->Require2DTypelessRT(
        GraphicsFormat::R8G8B8A8_TYPELESS, GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::R8G8B8A8_UNORM,
        TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET, 1);
    ASSERT_TRUE(typeless);
    {
        EXPECT_EQ(typeless->GetWidth(), 32u);
        EXPECT_EQ(typeless->GetDesc().TypelessRtvDsvFormat, uint32(GraphicsFormat::R8G8B8A8_UNORM));
        Texture* raw = typeless.Get();
        factory->Recycle(raw);
        typeless = nullptr;
        EXPECT_EQ(Texture::Require2DTypelessRT(32, 16, GraphicsFormat::R8G8B8A8_TYPELESS,
                                               GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::R8G8B8A8_UNORM,
                                               TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET)
                      .Get(),
                  raw);
    }
    Ptr<Texture> cube = Texture::RequireCubeRT(8, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(cube);
    EXPECT_EQ(cube->GetDesc().ArraySize, 6u);
    Texture* rawCube = cube.Get();
    Texture::Recycle(rawCube);
    cube = nullptr;
    EXPECT_EQ(Texture::RequireCubeRT(8, GraphicsFormat::R8G8B8A8_UNORM).Get(), rawCube);
}
