#include <gtest/gtest.h>

#include <cfloat>

#include "graphics/GraphicsFormat.h"
#include "graphics/HWCapability.h"
#include "graphics/StateDesc.h"
#include "graphics/VertexElement.h"
#include "reflection/EnumClass.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

TEST(GraphicsFormatTable, RowsKeepTheirOddities)
{
    using F = GraphicsFormat;
    EXPECT_EQ(F::GetNumEnumMembers(), F::COUNT);
    EXPECT_TRUE(WString(GraphicsFormat(F::GRAY_SCALE_UNORM).GetName()) == WString(u"GRAY_SCALE_UNORM"));
    EXPECT_TRUE(WString(GraphicsFormat(F::ATC_RGBA_Explicit).GetName()) == WString(u"ATC_RGBA_Explicit"));
    // Float and typeless rows are signed, D32_FLOAT is not.
    for (unsigned f = 0; f < F::COUNT; ++f)
        if ((F::IsFloat(f) || F::IsTypeless(f)) && f != F::D32_FLOAT)
            EXPECT_TRUE(F::IsSigned(f)) << f;
    EXPECT_FALSE(F::IsSigned(F::D32_FLOAT));
    EXPECT_EQ(F::GetLayout(F::B5G5R5X1_UNORM), GraphicsFormatLayout::BGRA);
    EXPECT_EQ(F::GetLayout(F::B4G4R4A4_UNORM), GraphicsFormatLayout::BGRX);
    EXPECT_TRUE(F::IsCompressed(F::GRAY_SCALE_UNORM));
    EXPECT_EQ(F::GetFormatBits(F::R32G32B32A32_UINT), 128u);
    EXPECT_EQ(F::GetType(F::R11G11B10_FLOAT), GraphicsFormatType::Float);
    EXPECT_TRUE(F::IsFormatBitsEqual(F::R8G8B8A8_UNORM, F::D24_UNORM_S8_UINT));
    // Out-of-range values answer as UNKNOWN instead of reading past the table.
    EXPECT_EQ(F::GetFormatBits(-1), 0u);
    EXPECT_EQ(F::GetLayout(1000), GraphicsFormatLayout::UNSUPPORTED);
    // Every compressed row is a block format of 8 or 16 bytes.
    for (unsigned f = 0; f < F::COUNT; ++f)
        if (F::IsCompressed(f))
            EXPECT_TRUE(F::GetFormatBits(f) == 8 || F::GetFormatBits(f) == 16) << f;
}

TEST(GraphicsFormatTable, SizesOfBlocksAndPixels)
{
    using F = GraphicsFormat;
    unsigned rowBytes = 0, rows = 0;
    F::GetFormatInfo(rowBytes, rows, 3, 3, F::BC1_UNORM);
    EXPECT_EQ(rowBytes, 8u);
    EXPECT_EQ(rows, 1u);
    F::GetFormatInfo(rowBytes, rows, 8, 8, F::BC1_UNORM);
    EXPECT_EQ(rowBytes, 16u);
    EXPECT_EQ(rows, 2u);
    EXPECT_EQ(F::GetFormatBytes(F::BC1_UNORM), 1u);
    F::GetFormatInfo(rowBytes, rows, 7, 5, F::R8G8B8_UNORM);
    EXPECT_EQ(rowBytes, 21u);
    EXPECT_EQ(rows, 5u);
    EXPECT_EQ(F::GetFormatSize(16, 16, F::BC3_UNORM), 16u * 16u);
    // Large sizes do not wrap.
    EXPECT_EQ(F::GetFormatSize(65536, 65536, F::R32G32B32A32_FLOAT), 65536ull * 65536ull * 16ull);
}

TEST(GraphicsFormatTable, CompatibleCandidates)
{
    using F = GraphicsFormat;
    GraphicsFormat out[8];
    ASSERT_EQ(GetCompatibleFormatCandidates(F::BC4_UNORM, out), 6u);
    EXPECT_EQ(out[0], F::R8_UNORM);
    EXPECT_EQ(out[1], F::R8G8_UNORM);
    EXPECT_EQ(GetCompatibleFormatCandidates(F::BC3_UNORM, out), 2u);
    ASSERT_EQ(GetCompatibleFormatCandidates(F::R8G8_SNORM, out), 1u);
    EXPECT_EQ(out[0], F::R8G8B8A8_SNORM);
    ASSERT_EQ(GetCompatibleFormatCandidates(F::B5G6R5_UNORM, out), 2u);
    EXPECT_EQ(out[0], F::B8G8R8_UNORM);
    EXPECT_EQ(GetCompatibleFormatCandidates(F::R32_FLOAT, out), 0u);
    EXPECT_EQ(GetCompatibleFormatCandidates(F::D16_UNORM, out), 0u);
}

TEST(GraphicsEnums, ProfileTextsAndComponents)
{
    EXPECT_TRUE(D3DShaderProfile::ToD3DVerStr(D3DShaderProfile::SM_2_X) == WString(u"9_2"));
    EXPECT_TRUE(D3DShaderProfile::ToD3DVerStr(D3DShaderProfile::SM_5_0) == WString(u"11_0"));
    EXPECT_TRUE(D3DShaderProfile::ToD3DVerStr(1234).IsEmpty());
    EXPECT_EQ(GraphicsLayoutFormat::GetNumComponents(GraphicsLayoutFormat::UShort2N), 2u);
    EXPECT_EQ(GraphicsLayoutFormat::GetNumComponents(GraphicsLayoutFormat::UByte4N), 4u);
    EXPECT_EQ(GraphicsLayoutFormat::GetNumComponents(99), 0u);
}

// Key texts against hand-computed numbers; also run under a decimal-comma
// locale (decimal_comma_suites), where "%f" must still print a point.
TEST(GraphicsKeys, DefaultsAndPresetsGiveHandComputedTexts)
{
    AString text;
    BlendStateDesc blend;
    blend.Hash(text);
    // Each target: Add<<4 | Add<<8 | All<<12 | Zero<<16 | One<<20 | One<<24 | Zero<<28.
    EXPECT_STREQ(text(), "0-304214288-304214288-304214288-304214288-304214288-304214288-304214288-304214288");
    blend.IndependentBlendEnable = true;
    blend.AlphaToCoverageEnable = true;
    blend.RenderTarget0.BlendEnable = true;
    blend.RenderTarget0.SrcBlend = GraphicsBlend::SrcAlpha;
    blend.RenderTarget1.BlendEnable = true;
    blend.RenderTarget1.DestBlendAlpha = GraphicsBlend::InvDestAlpha; // top nibble 8: a negative word
    blend.Hash(text);
    EXPECT_STREQ(text(),
                 "17-304476433--2111704815-304214288-304214288-304214288-304214288-304214288-304214288");

    DepthStencilStateDesc depth;
    depth.Hash(text);
    EXPECT_STREQ(text(), "4294901829-2165408017");
    depth.StencilWriteMask = 0;
    depth.DepthEnable = false;
    depth.Hash(text);
    EXPECT_STREQ(text(), "16711748-2165408017"); // 0x00FF0044

    RasterizerStateDesc raster;
    raster.Hash(text);
    EXPECT_STREQ(text(), "79-0-0.000000-0.000000");
    raster.DepthBias = -3;
    raster.SlopeScaledDepthBias = 1.5f;
    raster.AntialiasedLineEnable = true;
    raster.Hash(text);
    EXPECT_STREQ(text(), "4175--3-0.000000-1.500000");

    SamplerStateDesc sampler;
    sampler.Hash(text);
    EXPECT_STREQ(text(), "4369-0-3.40282e+38-0-0-16");
    sampler.Filter = GraphicsFilter::Anisotropic;
    sampler.BorderColor = Vector4(1.0f, 0.0f, 0.0f, 1.0f); // BGRA 0xFFFF0000
    sampler.MipLODBias = 0.5f;
    sampler.Hash(text);
    EXPECT_STREQ(text(), "5574929-0-3.40282e+38-0.5--65536-16");
}

TEST(GraphicsKeys, WordsDecideEquality)
{
    StateKey a, b;
    RenderTargetBlendDesc rt;
    rt.BlendEnable = true;
    rt.DestBlendAlpha = GraphicsBlend::InvBlendFactor;
    RenderTargetBlendDesc back;
    back.Decompress(rt.Compress());
    EXPECT_TRUE(back == rt);
    EXPECT_TRUE(back.BlendEnable);
    EXPECT_EQ(back.DestBlendAlpha, GraphicsBlend::InvBlendFactor);

    SamplerStateDesc s1, s2;
    s1.MakeKey(a);
    s2.MakeKey(b);
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.HashValue(), b.HashValue());
    s2.AddressV = GraphicsAddress::Clamp;
    s2.MakeKey(b);
    EXPECT_FALSE(a == b);
    // Borders closer than 8 bits a channel share a key, by design.
    s2 = s1;
    s2.BorderColor.x = 0.0001f;
    s2.MakeKey(b);
    EXPECT_TRUE(a == b);
}

TEST(HWCapabilityMacros, UpdateRemovesLostCapabilities)
{
    Ptr<HWCapability> caps(new HWCapability());
    AString text;
    caps->GetMacroString(text);
    EXPECT_STREQ(text(), "[SM_2_0=2000];[SM_2_X=2500];[SM_3_0=3000];[SM_4_0=4000];[SM_4_1=4500];[SM_5_0=5000];"
                         "[SM_Unknown=0];");
    caps->SupportInstanceRendering = true;
    caps->NumSimultaneousRTs = 4;
    caps->Profile = D3DShaderProfile::SM_5_0;
    caps->UpdateMacros();
    EXPECT_TRUE(caps->GetMacroMap().Contains(AString("SUPPORT_INSTANCE_RNEDERING")));
    EXPECT_STREQ(caps->GetMacroMap().FindValue(AString("NUM_SIMULTANEOUS_RTS"))->operator()(), "4");
    EXPECT_STREQ(caps->GetMacroMap().FindValue(AString("SM_PROFILE"))->operator()(), "5000");
    caps->SupportInstanceRendering = false;
    caps->UpdateMacros();
    EXPECT_FALSE(caps->GetMacroMap().Contains(AString("SUPPORT_INSTANCE_RNEDERING")));

    Ptr<HWCapability> small(new HWCapability());
    small->UnmakeMacro(AString("SM_2_X"));
    for (const char* name : {"SM_2_0", "SM_3_0", "SM_4_0", "SM_4_1", "SM_5_0", "SM_Unknown"})
        small->UnmakeMacro(AString(name));
    small->MakeMacro(AString("A"), AString("1"));
    small->MakeMacro(AString("B"), AString());
    small->GetMacros(text);
    EXPECT_STREQ(text(), "\n#define A\t1\n#define B\n\n");
    small->GetMacroString(text);
    EXPECT_STREQ(text(), "[A=1];[B];");
    ShaderMacro pairs[1];
    unsigned count = 1;
    small->GetMacros(pairs, &count);
    EXPECT_EQ(count, 1u);
    EXPECT_STREQ(pairs[0].Name, "A");
}

TEST(HWCapabilityMacros, VendorFromAdapterName)
{
    Ptr<HWCapability> caps(new HWCapability());
    EXPECT_EQ(caps->DetectVendor("AMD Radeon HD"), GPUVendor::AMD);
    EXPECT_TRUE(caps->GetMacroMap().Contains(AString("AMD")));
    EXPECT_EQ(caps->DetectVendor("NVIDIA Quadro"), GPUVendor::Nvidia);
    EXPECT_FALSE(caps->GetMacroMap().Contains(AString("AMD")));
    EXPECT_TRUE(caps->GetMacroMap().Contains(AString("NVIDIA")));
    EXPECT_EQ(caps->DetectVendor("Qualcomm Adreno 640"), GPUVendor::Qualcomm);
    EXPECT_EQ(caps->DetectVendor("Intel HD"), GPUVendor::Unknown);
    EXPECT_FALSE(caps->GetMacroMap().Contains(AString("NVIDIA")));
    EXPECT_EQ(caps->DetectVendor(nullptr), GPUVendor::Unknown);
}

namespace {
KovexTest::Bytes SaveElements(const Class* form, std::initializer_list<VertexElement> elements)
{
    return KovexTest::WriteWith(form, [&](Serializer& s) {
        for (const VertexElement& e : elements)
            ASSERT_TRUE(e.Save(s));
    });
}
} // namespace

TEST(VertexElementSerial, RoundTripsInBothForms)
{
    VertexElement a, b;
    a.Assign(GraphicsSemantic::TexCoord, 2, GraphicsLayoutFormat::Half4, 1, 24, GraphicsInputClass::PerInstance, 3);
    b.Assign(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::UShort4N, 0, 12, GraphicsInputClass::PerVertex, 0);
    EXPECT_EQ(a.GetStride(), 8u);
    EXPECT_EQ(b.GetStride(), 0u);
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        KovexTest::Bytes bytes = SaveElements(form, {a, b});
        Serializer* reader = KovexTest::OpenReader(bytes);
        ASSERT_NE(reader, nullptr);
        VertexElement ra, rb, rc;
        EXPECT_TRUE(ra.Load(*reader));
        EXPECT_TRUE(rb.Load(*reader));
        EXPECT_FALSE(rc.Load(*reader)); // the run has ended
        delete reader;
        EXPECT_TRUE(ra == a);
        EXPECT_TRUE(rb == b);
        EXPECT_TRUE(rc == VertexElement());
    }
}

TEST(VertexElementSerial, ForgedValuesFailAndLeaveTheElement)
{
    VertexElement forged;
    forged.Format = 77; // no such layout format
    KovexTest::Bytes bytes = SaveElements(BinSerializer::StaticGetClass(), {forged});
    KovexTest::LogCapture log;
    Serializer* reader = KovexTest::OpenReader(bytes);
    ASSERT_NE(reader, nullptr);
    VertexElement e;
    e.SemanticIndex = 5;
    EXPECT_FALSE(e.Load(*reader));
    delete reader;
    EXPECT_EQ(e.SemanticIndex, 5u);
    EXPECT_TRUE(log->Contains(u"VertexElement: unknown semantic 0, format 77 or class 0.\n"));
    // Truncated bytes: a clean failure, never a crash.
    for (size_t cut = 0; cut < bytes.size(); cut += 3)
    {
        Serializer* r = KovexTest::OpenReader(bytes.substr(0, cut));
        if (!r)
            continue;
        VertexElement t;
        t.Load(*r);
        delete r;
    }
}
