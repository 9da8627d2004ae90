#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <chrono>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "graphics/ConstantBuffer.h"
#include "graphics/IndexBuffer.h"
#include "graphics/RWBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using KovexTest::VulkanEngine;

namespace {

// --- The CPU side's encoding of a colour, channel by channel from bit 0 --------

enum Kind
{
    UN, // unsigned normalised
    SN, // signed normalised
    FL, // IEEE float of 16 or 32 bits
    UF, // unsigned small float (11 or 10 bits, 5-bit exponent)
    UI,
    SI,
};

struct Channel
{
    int component; // 0..3 = r, g, b, a; -1 = padding the comparison ignores
    int bits;
    Kind kind;
};

struct Encoding
{
    GraphicsFormat::TYPE format;
    std::vector<Channel> channels;
};

std::vector<Encoding> Encodings()
{
    auto c = [](int component, int bits, Kind kind) { return Channel{component, bits, kind}; };
    using F = GraphicsFormat;
    auto rgba = [&](int bits, Kind k) {
        return std::vector<Channel>{c(0, bits, k), c(1, bits, k), c(2, bits, k), c(3, bits, k)};
    };
    auto rg = [&](int bits, Kind k) { return std::vector<Channel>{c(0, bits, k), c(1, bits, k)}; };
    auto r = [&](int bits, Kind k) { return std::vector<Channel>{c(0, bits, k)}; };
    return {
        {F::R8_UNORM, r(8, UN)},
        {F::R10G10B10A2_UNORM, {c(0, 10, UN), c(1, 10, UN), c(2, 10, UN), c(3, 2, UN)}},
        {F::R8G8_SNORM, rg(8, SN)},
        {F::R8G8B8A8_UNORM, rgba(8, UN)},
        {F::R8G8B8A8_SNORM, rgba(8, SN)},
        {F::B8G8R8A8_UNORM, {c(2, 8, UN), c(1, 8, UN), c(0, 8, UN), c(3, 8, UN)}},
        {F::B8G8R8X8_UNORM, {c(2, 8, UN), c(1, 8, UN), c(0, 8, UN), c(-1, 8, UN)}},
        {F::R8G8B8X8_UNORM, {c(0, 8, UN), c(1, 8, UN), c(2, 8, UN), c(-1, 8, UN)}},
        {F::B8G8R8_UNORM, {c(2, 8, UN), c(1, 8, UN), c(0, 8, UN)}},
        {F::R8G8B8_UNORM, {c(0, 8, UN), c(1, 8, UN), c(2, 8, UN)}},
        {F::R16G16_UNORM, rg(16, UN)},
        {F::R16G16_SNORM, rg(16, SN)},
        {F::R16G16B16A16_UNORM, rgba(16, UN)},
        {F::R16G16B16A16_SNORM, rgba(16, SN)},
        {F::R16_FLOAT, r(16, FL)},
        {F::R16G16_FLOAT, rg(16, FL)},
        {F::R16G16B16A16_FLOAT, rgba(16, FL)},
        {F::R32_FLOAT, r(32, FL)},
        {F::R32G32_FLOAT, rg(32, FL)},
        {F::R32G32B32A32_FLOAT, rgba(32, FL)},
        {F::B5G6R5_UNORM, {c(2, 5, UN), c(1, 6, UN), c(0, 5, UN)}},
        {F::B5G5R5A1_UNORM, {c(2, 5, UN), c(1, 5, UN), c(0, 5, UN), c(3, 1, UN)}},
        {F::B5G5R5X1_UNORM, {c(2, 5, UN), c(1, 5, UN), c(0, 5, UN), c(-1, 1, UN)}},
        {F::R32G32B32A32_UINT, rgba(32, UI)},
        {F::R16G16B16A16_UINT, rgba(16, UI)},
        {F::R32G32_UINT, rg(32, UI)},
        {F::R10G10B10A2_UINT, {c(0, 10, UI), c(1, 10, UI), c(2, 10, UI), c(3, 2, UI)}},
        {F::R8G8B8A8_UINT, rgba(8, UI)},
        {F::R16G16_UINT, rg(16, UI)},
        {F::R32_UINT, r(32, UI)},
        {F::R8G8_UINT, rg(8, UI)},
        {F::R16_UINT, r(16, UI)},
        {F::R32G32B32A32_SINT, rgba(32, SI)},
        {F::R16G16B16A16_SINT, rgba(16, SI)},
        {F::R32G32_SINT, rg(32, SI)},
        {F::R8G8B8A8_SINT, rgba(8, SI)},
        {F::R16G16_SINT, rg(16, SI)},
        {F::R32_SINT, r(32, SI)},
        {F::R8G8_SINT, rg(8, SI)},
        {F::R16_SINT, r(16, SI)},
        {F::R11G11B10_FLOAT, {c(0, 11, UF), c(1, 11, UF), c(2, 10, UF)}},
        {F::R8G8_UNORM, rg(8, UN)},
        {F::R16_UNORM, r(16, UN)},
        {F::R16_SNORM, r(16, SN)},
    };
}

// A positive or zero float as a small float with a 5-bit exponent and
// `mantissa` bits, rounded to nearest even (normal numbers only).
uint32 SmallFloat(float v, int mantissa, bool sign)
{
    uint32 s = 0;
    if (sign && v < 0)
    {
        s = 1u << (mantissa + 5);
        v = -v;
    }
    if (v == 0)
        return s;
    int e = 0;
    double m = frexp(double(v), &e); // v = m * 2^e, 0.5 <= m < 1
    int biased = e - 1 + 15;
    double scaled = (2 * m - 1) * double(1u << mantissa);
    double whole = floor(scaled);
    double frac = scaled - whole;
    uint32 bits = uint32(whole);
    if (frac > 0.5 || (frac == 0.5 && (bits & 1)))
        ++bits;
    if (bits == (1u << mantissa))
    {
        bits = 0;
        ++biased;
    }
    return s | uint32(biased) << mantissa | bits;
}

uint64 EncodeChannel(float v, const Channel& channel)
{
    const int n = channel.bits;
    const uint64 mask = n == 64 ? ~uint64(0) : (uint64(1) << n) - 1;
    switch (channel.kind)
    {
    case UN: return uint64(llround(double(v) * double(mask))) & mask;
    case SN: return uint64(llround(double(v) * double((uint64(1) << (n - 1)) - 1))) & mask;
    case FL:
        if (n == 32)
        {
            uint32 bits;
            memcpy(&bits, &v, 4);
            return bits;
        }
        return SmallFloat(v, 10, true);
    case UF: return SmallFloat(v, n - 5, false);
    case UI: return uint64(uint32(v)) & mask;
    case SI: return uint64(int64(v)) & mask;
    }
    return 0;
}

// One pixel's bytes and the mask of the bits that count.
void EncodePixel(const Encoding& e, const float colour[4], std::vector<uint8>& bytes, std::vector<uint8>& mask)
{
    int total = 0;
    for (const Channel& c : e.channels)
        total += c.bits;
    bytes.assign(total / 8, 0);
    mask.assign(total / 8, 0);
    int at = 0;
    for (const Channel& c : e.channels)
    {
        uint64 value = c.component < 0 ? 0 : EncodeChannel(colour[c.component], c);
        for (int i = 0; i < c.bits; ++i, ++at)
        {
            if (value >> i & 1)
                bytes[at / 8] |= uint8(1u << (at % 8));
            if (c.component >= 0)
                mask[at / 8] |= uint8(1u << (at % 8));
        }
    }
}

const Encoding* FindEncoding(const std::vector<Encoding>& all, uint32 format)
{
    for (const Encoding& e : all)
        if (uint32(e.format) == format)
            return &e;
    return nullptr;
}

std::string FormatName(uint32 format)
{
    std::string name;
    for (const char16_t* c = GraphicsFormat(int(format)).GetName(); c && *c; ++c)
        name += char(*c);
    return name;
}

// The pixels of a texture as the clear should leave them; reports the first
// difference and writes both images when there is one.
void ExpectCleared(Texture* texture, const Encoding& encoding, const float colour[4])
{
    std::vector<uint8> pixel, mask;
    EncodePixel(encoding, colour, pixel, mask);
    Ptr<Image> actual = KovexTest::ReadBack(texture);
    ASSERT_TRUE(actual) << FormatName(texture->GetFormat());
    Ptr<Image> expected(new Image());
    ASSERT_TRUE(expected->Create(actual->GetDesc()));
    for (uint32 at = 0; at + pixel.size() <= expected->GetDataSize(); at += uint32(pixel.size()))
        memcpy(expected->GetData() + at, pixel.data(), pixel.size());
    for (uint32 at = 0; at < actual->GetDataSize(); ++at)
    {
        uint8 m = mask[at % mask.size()];
        if ((actual->GetData()[at] & m) != (expected->GetData()[at] & m))
        {
            std::string dir = KovexTest::WriteSideBySide(FormatName(texture->GetFormat()), actual, expected);
            ADD_FAILURE() << FormatName(texture->GetFormat()) << ": byte " << at << " is "
                          << int(actual->GetData()[at]) << ", expected " << int(expected->GetData()[at])
                          << "; images in " << dir;
            return;
        }
    }
}

void ClearTarget(const Ptr<Texture>& target, const float colour[4])
{
    Renderer& r = *g_ptrRenderer;
    RenderTargetGroup group;
    group.SetRenderTarget(0, target, 0);
    r.SetRTGroup(group);
    r.Clear(GraphicsClearMode::Target, Vector4(colour[0], colour[1], colour[2], colour[3]), 1.0f, 0);
    r.Present();
}

// 0.625 is exact in every float format (no rounding mode to agree on) and a
// clear non-tie in every normalised one; 0.2 rounds alike either way.
const float kFloatColour[4] = {1.0f, 0.0f, 0.625f, 0.2f};
const float kUintColour[4] = {7.0f, 0.0f, 3.0f, 1.0f};
const float kSintColour[4] = {-7.0f, 0.0f, 3.0f, 1.0f};

const float* ColourFor(uint32 format)
{
    if (!GraphicsFormat::IsInt(int(format)))
        return kFloatColour;
    return GraphicsFormat::IsSigned(int(format)) ? kSintColour : kUintColour;
}

bool IsDepth(uint32 format)
{
    return format == GraphicsFormat::D16_UNORM || format == GraphicsFormat::D32_FLOAT ||
           format == GraphicsFormat::D24_UNORM_S8_UINT;
}

} // namespace

// --- Platform -------------------------------------------------------------------------

TEST(VulkanRenderer, IsListedChosenAndOpenedWithItsCapabilities)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    TArray<RendererPlatform> platforms;
    RendererPlatform preferred = RendererPlatform::D3D9;
    ASSERT_TRUE(Renderer::GetAvailablePlatforms(platforms, preferred));
    EXPECT_EQ(preferred, RendererPlatform::Vulkan);
    VulkanEngine engine(64, 32);
    ASSERT_TRUE(engine.IsOpen());
    EXPECT_TRUE(engine.IsValidating()) << "tests run under the Khronos validation layer";
    Renderer& r = *g_ptrRenderer;
    EXPECT_EQ(r.GetPlatform(), RendererPlatform::Vulkan);
    EXPECT_TRUE(r.AllowCacheShaders());
    EXPECT_EQ(r.GetHWCapability()->Profile, D3DShaderProfile::SM_5_0);
    EXPECT_TRUE(r.GetHWCapability()->GetMacroMap().Contains(AString("SUPPORT_TYPELESS_TEX")));
    ASSERT_TRUE(r.GetRenderTarget(0));
    EXPECT_TRUE(r.GetRenderTarget(0)->IsCreated());
    EXPECT_EQ(r.GetRenderTarget(0)->GetWidth(), 64u);
    ASSERT_TRUE(r.GetDepthBuffer());
    EXPECT_TRUE(r.GetDepthBuffer()->IsCreated());
    // What Vulkan has no format for answers false, and the compatible
    // format falls back.
    EXPECT_FALSE(
        r.CheckTextureFormat(GraphicsFormat::ATC_RGB, TextureDimension::_2D, 1, GraphicsResourceUsage::Default, 0));
    EXPECT_FALSE(r.CheckTextureFormat(GraphicsFormat::B4G4R4A4_UNORM, TextureDimension::_2D, 1,
                                      GraphicsResourceUsage::Default, 0));
    EXPECT_FALSE(r.CheckTextureFormat(GraphicsFormat::A8_UNORM, TextureDimension::_2D, 2,
                                      GraphicsResourceUsage::Default, 0))
        << "A8 is stored as R8: no render target";
    EXPECT_TRUE(r.CheckTextureFormat(GraphicsFormat::A8_UNORM, TextureDimension::_2D, 1,
                                     GraphicsResourceUsage::Default, 0));
    EXPECT_EQ(r.GetCompatibleTextureFormat(GraphicsFormat::GRAY_SCALE_UNORM), GraphicsFormat::R8G8B8A8_UNORM);
    // A second window needs a window to present into, and says so.
    KovexTest::LogCapture log;
    Ptr<GraphicsWindow> window = GraphicsWindowFactory::Get()->Create(GraphicsParameters());
    EXPECT_TRUE(window->IsFailed());
    EXPECT_TRUE(log->Contains(u"Vulkan: a window without a window handle.\n"));
}

TEST(VulkanRenderer, TheAutomaticChoiceIsVulkanUnlessTheNullRendererIsAskedFor)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    g_IsNullRenderer = false;
    ASSERT_TRUE(Renderer::SetupPlatformAuto());
    ASSERT_TRUE(g_ptrRenderer);
    EXPECT_EQ(g_ptrRenderer->GetPlatform(), RendererPlatform::Vulkan);
    Renderer::Destroy();
    g_IsNullRenderer = true;
    ASSERT_TRUE(Renderer::SetupPlatformAuto());
    EXPECT_NE(g_ptrRenderer->GetNativeClass(), VulkanRenderer::StaticGetClass());
    Renderer::Destroy();
    g_IsNullRenderer = false;
}

TEST(VulkanRenderer, ADeviceNameThatMatchesNothingLeavesNoPlatform)
{
    KovexTest::ScopedEnv hide("KOVEX_VULKAN_DEVICE", "no-such-device-anywhere");
    EXPECT_FALSE(VulkanDevice::Probe());
    g_IsNullRenderer = false;
    KovexTest::LogCapture log;
    EXPECT_FALSE(Renderer::SetupPlatform(RendererPlatform::Vulkan));
    EXPECT_FALSE(g_ptrRenderer);
    // A renderer made while a device existed fails to open, with its line.
    VulkanDevice device;
    EXPECT_FALSE(device.Open());
    EXPECT_FALSE(device.IsOpen());
    EXPECT_TRUE(log->Contains(u"Vulkan: no Vulkan 1.1 device with a graphics queue was found.\n") ||
                log->Contains(u"Vulkan: no Vulkan driver is installed.\n"));
}

TEST(VulkanRenderer, WithoutADriverThereIsOneLineAndNoRenderer)
{
    // The loader finds no driver where the driver list names none that exists.
    KovexTest::ScopedEnv noDriver("VK_DRIVER_FILES", "/nonexistent/kovex_icd.json");
    KovexTest::ScopedEnv noDriverOld("VK_ICD_FILENAMES", "/nonexistent/kovex_icd.json");
    EXPECT_FALSE(VulkanDevice::Probe());
    g_IsNullRenderer = false;
    {
        KovexTest::LogCapture log;
        EXPECT_FALSE(Renderer::SetupPlatformAuto());
        EXPECT_FALSE(g_ptrRenderer);
        ASSERT_EQ(log->entries.Count(), 1u) << "one line, however often the platforms are asked";
        EXPECT_TRUE(log->Contains(u"Renderer: no graphics platform is available.\n"));
    }
    KovexTest::LogCapture log;
    VulkanDevice device;
    EXPECT_FALSE(device.Open());
    EXPECT_TRUE(log->Contains(u"Vulkan: no Vulkan driver is installed.\n"));
}

// --- Clears and read-back ----------------------------------------------------------------

TEST(VulkanClear, EveryColourTargetFormatReadsBackItsExactClear)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    Renderer& r = *g_ptrRenderer;
    const std::vector<Encoding> encodings = Encodings();
    int tested = 0;
    for (uint32 f = 1; f < GraphicsFormat::COUNT; ++f)
    {
        const uint32 views = TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET;
        if (GraphicsFormat::IsTypeless(int(f)) ||
            !r.CheckTextureFormat(GraphicsFormat(GraphicsFormat::TYPE(f)), TextureDimension::_2D, views,
                                  GraphicsResourceUsage::Default, 0))
            continue;
        const Encoding* encoding = FindEncoding(encodings, f);
        ASSERT_NE(encoding, nullptr) << FormatName(f) << " is a render target with no expected encoding here";
        Ptr<Texture> target =
            Texture::Create(TextureFactory::Make2DDesc(7, 5, GraphicsFormat(GraphicsFormat::TYPE(f)), views),
                            GraphicsResourceUsage::Default);
        ASSERT_TRUE(target && target->IsCreated()) << FormatName(f);
        ClearTarget(target, ColourFor(f));
        ExpectCleared(target.Get(), *encoding, ColourFor(f));
        ++tested;
    }
    // The formats every device has must be among them.
    for (auto f : {GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::B8G8R8A8_UNORM, GraphicsFormat::R16G16B16A16_FLOAT,
                   GraphicsFormat::R32_FLOAT, GraphicsFormat::R32G32B32A32_UINT, GraphicsFormat::R8G8_SINT})
        EXPECT_TRUE(r.CheckTextureFormat(f, TextureDimension::_2D, 3, GraphicsResourceUsage::Default, 0))
            << FormatName(f);
    EXPECT_GE(tested, 30) << "colour target formats tested";
    RecordProperty("colour_target_formats", tested);
}

TEST(VulkanClear, TypelessDepthAndStagingTargets)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    Renderer& r = *g_ptrRenderer;
    // A typeless target is cleared as its render-target view reads it.
    const uint32 targetViews = TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET;
    TextureDesc typeless = TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_TYPELESS, targetViews);
    typeless.TypelessRtvDsvFormat = GraphicsFormat::R8G8B8A8_UNORM;
    typeless.TypelessSavUavFormat = GraphicsFormat::R8G8B8A8_UNORM;
    Ptr<Texture> target = Texture::Create(typeless, GraphicsResourceUsage::Default);
    ASSERT_TRUE(target && target->IsCreated());
    ClearTarget(target, kFloatColour);
    std::vector<uint8> bytes;
    ASSERT_TRUE(engine.Renderer().ReadTexture(target.Get(), 0, 0, bytes));
    ASSERT_EQ(bytes.size(), 64u);
    EXPECT_EQ(bytes[0], 255);
    EXPECT_EQ(bytes[2], 159);
    EXPECT_EQ(bytes[63], 51);

    // Depth buffers: the depth clears, the colour clear leaves them.
    for (auto format : {GraphicsFormat::D32_FLOAT, GraphicsFormat::D24_UNORM_S8_UINT, GraphicsFormat::D16_UNORM})
    {
        if (!r.CheckTextureFormat(format, TextureDimension::_2D, 4, GraphicsResourceUsage::Default, 0))
            continue;
        Ptr<Texture> depth = Texture::Create2DDepth(8, 4, format);
        ASSERT_TRUE(depth && depth->IsCreated()) << FormatName(format);
        RenderTargetGroup group;
        group.SetRenderTarget(0, target, 0);
        group.SetDepthStencil(depth, 0);
        r.SetRTGroup(group);
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 0), 0.25f, 3);
        ASSERT_TRUE(engine.Renderer().ReadTexture(depth.Get(), 0, 0, bytes));
        uint32 first = 0;
        memcpy(&first, bytes.data(), format == GraphicsFormat::D16_UNORM ? 2 : 4);
        if (format == GraphicsFormat::D32_FLOAT)
            EXPECT_EQ(first, 0x3E800000u) << "0.25f";
        else if (format == GraphicsFormat::D24_UNORM_S8_UINT)
            EXPECT_EQ(first & 0xFFFFFFu, 4194304u);
        else
            EXPECT_EQ(first, 16384u);
    }

    // The staging path: copy a target into a staging texture and map it.
    Ptr<Texture> colour = Texture::Create2DRT(8, 4, GraphicsFormat::R8G8B8A8_UNORM);
    Ptr<Texture> staging = Texture::Create2DStaging(8, 4, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(colour && staging && staging->IsCreated());
    ClearTarget(colour, kFloatColour);
    ASSERT_TRUE(colour->CopyResource(staging.Get()));
    MappedSubresource mapped;
    ASSERT_TRUE(staging->Map(mapped, MapType::Read, 0));
    EXPECT_EQ(mapped.RowPitch, 32u);
    const uint8* p = static_cast<const uint8*>(mapped.pData);
    EXPECT_EQ(p[4 * 8 * 3 + 4 * 7 + 0], 255);
    EXPECT_EQ(p[4 * 8 * 3 + 4 * 7 + 2], 159);
    staging->Unmap(0);
}

TEST(VulkanUpload, EverySamplableFormatReadsBackAsUploaded)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    Renderer& r = *g_ptrRenderer;
    TextureFactory* factory = TextureFactory::Get();
    std::mt19937 random(99);
    int tested = 0, compressed = 0;
    for (uint32 f = 1; f < GraphicsFormat::COUNT; ++f)
    {
        if (GraphicsFormat::IsTypeless(int(f)) || IsDepth(f) ||
            !r.CheckTextureFormat(GraphicsFormat(GraphicsFormat::TYPE(f)), TextureDimension::_2D,
                                  TextureViewFlags::SHADER_RESOURCE, GraphicsResourceUsage::Immutable, 0))
            continue;
        // Two slices of a 12x8 chain of three mips (blocks 3x2, 2x1, 1x1).
        TextureDesc desc = TextureFactory::Make2DDesc(12, 8, GraphicsFormat(GraphicsFormat::TYPE(f)),
                                                      TextureViewFlags::SHADER_RESOURCE);
        desc.MipLevels = 3;
        desc.ArraySize = 2;
        Ptr<Image> image(new Image());
        ASSERT_TRUE(image->Create(desc)) << FormatName(f);
        for (uint32 i = 0; i < image->GetDataSize(); ++i)
            image->GetData()[i] = uint8(random());
        Ptr<Texture> texture = factory->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable, nullptr);
        ASSERT_TRUE(texture && texture->IsCreated()) << FormatName(f);
        for (uint32 slice = 0; slice < 2; ++slice)
            for (uint32 mip = 0; mip < 3; ++mip)
            {
                std::vector<uint8> bytes;
                ASSERT_TRUE(engine.Renderer().ReadTexture(texture.Get(), slice, mip, bytes));
                ASSERT_EQ(bytes.size(), desc.GetSlicePitch(mip, desc.Format)) << FormatName(f);
                ASSERT_EQ(memcmp(bytes.data(), image->GetData(slice, mip, 0), bytes.size()), 0)
                    << FormatName(f) << " slice " << slice << " mip " << mip;
            }
        ++tested;
        compressed += GraphicsFormat::IsCompressed(int(f));
    }
    EXPECT_GE(tested, 40);
    VkPhysicalDeviceFeatures features;
    vkGetPhysicalDeviceFeatures(engine.Renderer().GetDevice().GetPhysicalDevice(), &features);
    if (features.textureCompressionBC)
        EXPECT_EQ(compressed, 5) << "BC1 to BC5";
}

// --- Buffers -------------------------------------------------------------------------------

TEST(VulkanBuffers, StaticAndDynamicBuffersHoldWhatWasWritten)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    VertexElement element;
    element.Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float4, 0, 0, GraphicsInputClass::PerVertex, 0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(&element, 1, 100, true);
    ASSERT_TRUE(stream);
    for (uint32 i = 0; i < stream->GetLength(); ++i)
        stream->GetPointer(0)[i] = uint8(i * 7);
    Ptr<VertexBuffer> vb = VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Default, nullptr);
    ASSERT_TRUE(vb && vb->IsCreated());
    std::vector<uint8> bytes;
    ASSERT_TRUE(engine.Renderer().ReadBuffer(vb.Get(), bytes));
    ASSERT_EQ(bytes.size(), 1600u);
    EXPECT_EQ(memcmp(bytes.data(), stream->GetPointer(0), 1600), 0);

    Ptr<IndexBuffer::Stream> indices = IndexBuffer::Stream::Create(9, IndexBuffer::Index32, true);
    for (uint32 i = 0; i < 9; ++i)
        reinterpret_cast<uint32*>(indices->GetPointer(0))[i] = 1000 + i;
    Ptr<IndexBuffer> ib = IndexBufferFactory::Get()->Create(indices, 0, GraphicsResourceUsage::Immutable, nullptr);
    ASSERT_TRUE(ib && ib->IsCreated());
    ASSERT_TRUE(engine.Renderer().ReadBuffer(ib.Get(), bytes));
    ASSERT_EQ(bytes.size(), 36u);
    EXPECT_EQ(reinterpret_cast<uint32*>(bytes.data())[8], 1008u);

    // A dynamic buffer: each discarding map is a fresh copy, and what the
    // last one wrote is what the device reads.
    Ptr<VertexBuffer::DynamicStream> dynamic = VertexBuffer::DynamicStream::Create(&element, 1, 4, true);
    Ptr<VertexBuffer> db = VertexBufferFactory::Get()->Create(
        Ptr<VertexBuffer::Stream>(dynamic.Get()), uint32(GraphicsResourceCpuAccess::Write),
        GraphicsResourceUsage::Dynamic, nullptr);
    ASSERT_TRUE(db && db->IsCreated());
    void* previous = nullptr;
    for (int round = 0; round < 5; ++round)
    {
        MappedSubresource mapped;
        ASSERT_TRUE(db->Map(mapped, MapType::WriteDiscard, 0));
        EXPECT_NE(mapped.pData, previous) << "a discard never hands out the copy just written";
        previous = mapped.pData;
        memset(mapped.pData, 0x10 + round, 64);
        db->Unmap(0);
        g_ptrRenderer->Present();
        ASSERT_TRUE(engine.Renderer().ReadBuffer(db.Get(), bytes));
        ASSERT_EQ(bytes.size(), 64u);
        EXPECT_EQ(bytes[63], 0x10 + round);
    }
    MappedSubresource mapped;
    KovexTest::LogCapture log;
    EXPECT_FALSE(vb->Map(mapped, MapType::WriteDiscard, 0));
}

// --- Frames ----------------------------------------------------------------------------------

TEST(VulkanFrames, FramesSubmitAndObjectsReleasedMidFrameOutliveTheirUse)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(32, 16);
    ASSERT_TRUE(engine.IsOpen());
    Renderer& r = *g_ptrRenderer;
    TextureFactory* factory = TextureFactory::Get();
    for (int frame = 0; frame < 12; ++frame)
    {
        Kovex_FrameBegin();
        r.BeginFrame();
        const float c = float(frame) / 11.0f;
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(c, 1.0f - c, 0.0f, 1.0f), 1.0f, 0);
        {
            // Used by this frame, then dropped before it is submitted.
            Ptr<Texture> scratch = factory->Create2DRT(16, 16, GraphicsFormat::R16G16B16A16_FLOAT);
            r.ClearSingle(scratch.Get(), Vector4(1, 2, 3, 4));
        }
        r.EndFrame();
        r.Present();
        Kovex_FrameEnd();
    }
    const float last[4] = {1.0f, 0.0f, 0.0f, 1.0f};
    const std::vector<Encoding> encodings = Encodings();
    ExpectCleared(r.GetRenderTarget(0).Get(), *FindEncoding(encodings, GraphicsFormat::R8G8B8A8_UNORM), last);
}

using KovexTest::FrameCommand;

// The graphics thread does the device work: textures are created there
// while workers ask for them, and frames are cleared and submitted there.
TEST(VulkanThreads, FramesRunOnTheGraphicsThread)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(32, 16, true);
    ASSERT_TRUE(engine.IsOpen());
    GraphicsThread* thread = GraphicsThread::Ins();
    ASSERT_TRUE(thread->IsStarted());
    Renderer& r = *g_ptrRenderer;
    std::atomic<bool> stop{false};
    std::atomic<int> made{0}, frames{0};
    std::thread worker([&] {
        std::vector<Ptr<Texture>> held;
        while (!stop.load())
        {
            // A few textures a frame: a worker that posts faster than the
            // graphics thread uploads would keep its frame from ending.
            if (made.load() >= 4 * (frames.load() + 1))
            {
                std::this_thread::yield();
                continue;
            }
            Ptr<Image> image(new Image());
            image->Create(TextureFactory::Make2DDesc(8, 8, GraphicsFormat::R8G8B8A8_UNORM, 1));
            image->FillData(uint8(made.load()));
            held.push_back(TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable,
                                                         nullptr));
            if (held.size() > 8)
                held.erase(held.begin()); // released on this thread, destroyed on the graphics side
            made.fetch_add(1);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int frame = 0; frame < 20; ++frame)
    {
        // Each frame carries the worker's textures of the frame before.
        while (made.load() < 4 * frame && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        Kovex_FrameBegin();
        Ptr<FrameCommand> command(new FrameCommand());
        const float c = frame == 19 ? 1.0f : 0.5f;
        command->work = [&r, c] {
            r.BeginFrame();
            r.Clear(GraphicsClearMode::Target, Vector4(0.0f, c, 0.0f, 1.0f), 1.0f, 0);
            r.EndFrame();
            r.Present();
        };
        thread->MT_PostCommand(command.Get());
        Kovex_FrameEnd();
        frames.fetch_add(1);
    }
    // What was posted during the last frame runs in the next one.
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    stop = true;
    worker.join();
    EXPECT_GE(made.load(), 4 * 19);
    const float last[4] = {0.0f, 1.0f, 0.0f, 1.0f};
    const std::vector<Encoding> encodings = Encodings();
    ExpectCleared(r.GetRenderTarget(0).Get(), *FindEncoding(encodings, GraphicsFormat::R8G8B8A8_UNORM), last);
}

TEST(VulkanClear, UnorderedAccessClearsWriteTheValueBits)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    const uint32 views = TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::UNORDERED_ACCESS;
    for (auto [format, value] : {std::pair<GraphicsFormat::TYPE, uint32>{GraphicsFormat::R32_UINT, 0xDEADBEEFu},
                                 {GraphicsFormat::R32_FLOAT, 0x3F800000u}})
    {
        Ptr<Texture> texture = Texture::Create(TextureFactory::Make2DDesc(4, 2, format, views),
                                               GraphicsResourceUsage::Default);
        ASSERT_TRUE(texture && texture->IsCreated()) << FormatName(format);
        g_ptrRenderer->ClearUAV(texture.Get(), 0, value);
        std::vector<uint8> bytes;
        ASSERT_TRUE(engine.Renderer().ReadTexture(texture.Get(), 0, 0, bytes));
        ASSERT_EQ(bytes.size(), 32u);
        uint32 last = 0;
        memcpy(&last, bytes.data() + 28, 4);
        EXPECT_EQ(last, value) << FormatName(format);
    }
    // A texture without the view is left alone.
    Ptr<Texture> plain = Texture::Create2DDepth(4, 2, GraphicsFormat::D32_FLOAT);
    g_ptrRenderer->ClearUAV(plain.Get(), 0, 1);
}

TEST(VulkanUpload, GeneratedMipsAreTheBoxAverageOfTheLevelAbove)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    // A 4x4 checkerboard of 2x2 blocks whose averages are exact: R 0 or 200,
    // G 40, B 20 or 60, A 255.
    TextureDesc desc =
        TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_UNORM, TextureViewFlags::SHADER_RESOURCE);
    desc.MipLevels = 3;
    Ptr<Image> image(new Image());
    ASSERT_TRUE(image->Create(desc));
    image->FillData(0);
    uint8* mip0 = image->GetData(0, 0, 0);
    for (uint32 i = 0; i < 16; ++i)
    {
        const bool odd = (i % 4 + i / 4) % 2;
        const uint8 texel[4] = {uint8(odd ? 200 : 0), 40, uint8(odd ? 60 : 20), 255};
        memcpy(mip0 + 4 * i, texel, 4);
    }
    Ptr<Texture> texture =
        TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Default, nullptr);
    ASSERT_TRUE(texture && texture->IsCreated());
    texture->GenerateMips();
    for (uint32 mip = 1; mip < 3; ++mip)
    {
        std::vector<uint8> bytes;
        ASSERT_TRUE(engine.Renderer().ReadTexture(texture.Get(), 0, mip, bytes));
        ASSERT_EQ(bytes.size(), mip == 1 ? 16u : 4u);
        for (size_t i = 0; i < bytes.size(); i += 4)
        {
            EXPECT_EQ(bytes[i], 100) << "mip " << mip;
            EXPECT_EQ(bytes[i + 1], 40) << "mip " << mip;
            EXPECT_EQ(bytes[i + 2], 40) << "mip " << mip;
            EXPECT_EQ(bytes[i + 3], 255) << "mip " << mip;
        }
    }
}

TEST(VulkanClear, AGroupClearsOnlyTheSlicesItNames)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    Renderer& r = *g_ptrRenderer;
    TextureDesc desc = TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    desc.ArraySize = 3;
    Ptr<Texture> array = Texture::Create(desc, GraphicsResourceUsage::Default);
    ASSERT_TRUE(array && array->IsCreated());
    r.ClearSingle(array.Get(), Vector4(0, 0, 0, 0));
    RenderTargetGroup group;
    group.SetRenderTarget(0, array, 1);
    r.SetRTGroup(group);
    r.Clear(GraphicsClearMode::Target, Vector4(1, 1, 1, 1), 1.0f, 0);
    for (uint32 slice = 0; slice < 3; ++slice)
    {
        std::vector<uint8> bytes;
        ASSERT_TRUE(engine.Renderer().ReadTexture(array.Get(), slice, 0, bytes));
        ASSERT_EQ(bytes.size(), 64u);
        EXPECT_EQ(bytes[0], slice == 1 ? 255 : 0) << "slice " << slice;
        EXPECT_EQ(bytes[63], slice == 1 ? 255 : 0) << "slice " << slice;
    }
}

TEST(VulkanBuffers, ConstantAndReadWriteBuffersLiveInDeviceMemory)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    Ptr<ConstantBuffer> constants = ConstantBufferFactory::Get()->Create(40);
    ASSERT_TRUE(constants && constants->IsCreated());
    EXPECT_EQ(constants->GetByteWidth(), 48u);
    std::vector<uint8> bytes;
    ASSERT_TRUE(engine.Renderer().ReadBuffer(constants.Get(), bytes));
    EXPECT_EQ(bytes.size(), 48u);
    Ptr<RWBuffer> rw = RWBufferFactory::Get()->Create(GraphicsFormat::R32_UINT, 16, 8, 0,
                                                      GraphicsResourceUsage::Default, true);
    ASSERT_TRUE(rw && rw->IsCreated());
    ASSERT_TRUE(engine.Renderer().ReadBuffer(rw.Get(), bytes));
    EXPECT_EQ(bytes.size(), 64u);

    // One slice of an array cleared alone; a draw without programs says so
    // once.
    TextureDesc desc = TextureFactory::Make2DDesc(2, 2, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    desc.ArraySize = 2;
    Ptr<Texture> array = Texture::Create(desc, GraphicsResourceUsage::Default);
    g_ptrRenderer->ClearSingle(array.Get(), Vector4(0, 0, 0, 0));
    g_ptrRenderer->ClearSingle(array.Get(), 1, Vector4(1, 1, 1, 1));
    ASSERT_TRUE(engine.Renderer().ReadTexture(array.Get(), 0, 0, bytes));
    EXPECT_EQ(bytes[0], 0);
    ASSERT_TRUE(engine.Renderer().ReadTexture(array.Get(), 1, 0, bytes));
    EXPECT_EQ(bytes[0], 255);
    KovexTest::LogCapture log;
    g_ptrRenderer->Draw(nullptr);
    g_ptrRenderer->DrawInstanced(nullptr, 2);
    EXPECT_EQ(log->entries.Count(), 1u);
    EXPECT_TRUE(log->Contains(u"Vulkan: Draw needs programs, which are not compiled for Vulkan yet.\n"));
}

TEST(VulkanUpload, ABoxOfOneSubresourceIsUpdatedInPlace)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    TextureDesc desc =
        TextureFactory::Make2DDesc(8, 4, GraphicsFormat::R8G8B8A8_UNORM, TextureViewFlags::SHADER_RESOURCE);
    desc.MipLevels = 2;
    Ptr<Image> image(new Image());
    ASSERT_TRUE(image->Create(desc));
    image->FillData(0);
    Ptr<Texture> texture =
        TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Default, nullptr);
    ASSERT_TRUE(texture && texture->IsCreated());
    // A 2x2 box at x 1, y 0 of mip 1 (4x2), from rows 12 bytes apart.
    uint8 source[24];
    for (uint32 i = 0; i < 24; ++i)
        source[i] = uint8(100 + i);
    MappedSubresource data;
    data.pData = source;
    data.RowPitch = 12;
    data.DepthPitch = 24;
    MappedBox box = {1, 0, 0, 3, 2, 1};
    ASSERT_TRUE(texture->UpdateSubresource(1, data, &box));
    std::vector<uint8> bytes;
    ASSERT_TRUE(engine.Renderer().ReadTexture(texture.Get(), 0, 1, bytes));
    ASSERT_EQ(bytes.size(), 32u);
    EXPECT_EQ(bytes[0], 0) << "left of the box";
    EXPECT_EQ(bytes[4], 100) << "row 0 of the box";
    EXPECT_EQ(bytes[11], 107);
    EXPECT_EQ(bytes[16 + 4], 112) << "row 1 starts a source row pitch later";
    EXPECT_EQ(bytes[16 + 12], 0) << "right of the box";
    ASSERT_TRUE(engine.Renderer().ReadTexture(texture.Get(), 0, 0, bytes));
    EXPECT_EQ(bytes[4], 0) << "mip 0 untouched";
}
