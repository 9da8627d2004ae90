#include <gtest/gtest.h>

#include <cstring>

#include "graphics/Renderer.h"
#include "graphics/VertexBuffer.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {
VertexElement E(GraphicsSemantic::TYPE name, GraphicsLayoutFormat::TYPE format, uint32 offset, uint32 slot = 0)
{
    VertexElement e;
    e.Assign(name, 0, format, slot, offset, GraphicsInputClass::PerVertex, 0);
    return e;
}

// Position (12), a half texture coordinate (4), a colour (4), a packed
// normal (8): 28 bytes a vertex.
const VertexElement kLayout[] = {E(GraphicsSemantic::Position, GraphicsLayoutFormat::Float3, 0),
                                 E(GraphicsSemantic::TexCoord, GraphicsLayoutFormat::Half2, 12),
                                 E(GraphicsSemantic::Color, GraphicsLayoutFormat::UByte4N, 16),
                                 E(GraphicsSemantic::Normal, GraphicsLayoutFormat::Short4N, 20)};
} // namespace

TEST(VertexBuffer, StreamShapeAndLookUps)
{
    EXPECT_EQ(VertexBuffer::Stream::CalcVertexStride(kLayout, 4), 28u);
    EXPECT_EQ(VertexBuffer::Stream::CalcVertexStride(nullptr, 4), 0u);
    {
        KovexTest::LogCapture log;
        const VertexElement split[] = {kLayout[0], E(GraphicsSemantic::Color, GraphicsLayoutFormat::UByte4N, 0, 1)};
        EXPECT_EQ(VertexBuffer::Stream::CalcVertexStride(split, 2), 0u);
        EXPECT_TRUE(log->Contains(u"VertexBuffer: the elements of one stream must share one input slot.\n"));
        EXPECT_FALSE(VertexBuffer::Stream::Create(split, 2, 10, true));
    }
    EXPECT_FALSE(VertexBuffer::Stream::Create(kLayout, 4, 0, true));
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(kLayout, 4, 10, true);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->GetStride(), 28u);
    EXPECT_EQ(stream->GetTotalSize(), 280u);
    EXPECT_EQ(stream->GetLength(), 280u);
    EXPECT_TRUE(stream->HasSemantic(GraphicsSemantic::Color));
    EXPECT_FALSE(stream->HasSemantic(GraphicsSemantic::Tangent));
    EXPECT_EQ(stream->GetElementBySemantic(GraphicsSemantic::Normal)->AlignedByteOffset, 20u);
    stream->SetStreamSlot(2);
    EXPECT_EQ(stream->GetElements()[3].InputSlot, 2u);
    SerializeMemLayout layout(stream->GetStride());
    stream->GetMemLayout(layout);
    EXPECT_EQ(layout.GetFields().Count(), 3u + 2u + 4u + 4u);
    EXPECT_TRUE(VertexBuffer::DynamicStream::Create(kLayout, 4, 1, false)->IsDynamic());
}

TEST(VertexBuffer, SerialFormRoundTripsComponentByComponent)
{
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(kLayout, 4, 5, true);
    ASSERT_TRUE(stream);
    for (uint32 v = 0; v < 5; ++v)
    {
        uint8* at = stream->GetPointer(v * 28);
        float position[3] = {float(v), -1.5f * float(v), 0.25f};
        std::memcpy(at, position, 12);
        uint16 half[2] = {uint16(0x3C00 + v), 0xBC00};
        std::memcpy(at + 12, half, 4);
        uint8 colour[4] = {uint8(v), 200, 255, 7};
        std::memcpy(at + 16, colour, 4);
        int16 normal[4] = {int16(-32767 + int(v)), 0, 32767, -1};
        std::memcpy(at + 20, normal, 8);
    }
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        KovexTest::Bytes bytes = KovexTest::WriteWith(form, [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
        Serializer* reader = KovexTest::OpenReader(bytes);
        ASSERT_NE(reader, nullptr);
        Ptr<VertexBuffer::Stream> loaded(new VertexBuffer::Stream());
        EXPECT_TRUE(loaded->Load(reader));
        delete reader;
        EXPECT_EQ(loaded->GetVertexCount(), 5u);
        ASSERT_EQ(loaded->GetElements().Count(), 4u);
        EXPECT_TRUE(loaded->GetElements()[1] == kLayout[1]);
        ASSERT_EQ(loaded->GetLength(), 140u);
        EXPECT_EQ(std::memcmp(loaded->GetPointer(), stream->GetPointer(), 140), 0)
            << (form == XmlSerializer::StaticGetClass() ? "XML" : "binary");
    }
}

TEST(VertexBuffer, ForgedCountsAreRefused)
{
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(kLayout, 2, 3, true);
    KovexTest::Bytes bytes = KovexTest::WriteWith(XmlSerializer::StaticGetClass(),
                                                  [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
    auto loads = [](const std::string& text) {
        Serializer* reader = KovexTest::OpenReader(text);
        if (!reader)
            return false;
        Ptr<VertexBuffer::Stream> target(new VertexBuffer::Stream());
        bool ok = target->Load(reader);
        delete reader;
        if (!ok)
            EXPECT_EQ(target->GetLength(), 0u);
        return ok;
    };
    EXPECT_TRUE(loads(bytes));
    KovexTest::LogCapture log;
    for (auto [from, to] : {std::pair<const char*, const char*>{"VXSZ=\"3\"", "VXSZ=\"300000000\""},
                            {"VXSZ=\"3\"", "VXSZ=\"30\""},
                            {"EMSZ=\"2\"", "EMSZ=\"4000000000\""},
                            {"EMSZ=\"2\"", "EMSZ=\"3\""}})
    {
        std::string forged = bytes;
        size_t at = forged.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        forged.replace(at, std::strlen(from), to);
        EXPECT_FALSE(loads(forged)) << to;
    }
    EXPECT_TRUE(log->Contains(u"VertexBuffer: bad VXSM section (30 vertices, 2 elements, 3 stored).\n"));
    for (size_t cut = 0; cut < bytes.size(); cut += 3)
        loads(bytes.substr(0, cut));
}

TEST(VertexBuffer, FactoryChecksTheStreamBeforeItPosts)
{
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    ASSERT_TRUE(Renderer::SetupPlatformAuto());
    Kovex_InitRenderer(GraphicsParameters());
    VertexBufferFactory* factory = VertexBufferFactory::Get();
    ASSERT_NE(factory, nullptr);
    {
        KovexTest::LogCapture log;
        EXPECT_FALSE(factory->Create(Ptr<VertexBuffer::Stream>(), 0, GraphicsResourceUsage::Default, nullptr));
        EXPECT_TRUE(log->Contains(u"Create vertex buffer failed, invalid stream or stream size is zero !\n"));
        Ptr<VertexBuffer::Stream> unallocated = VertexBuffer::Stream::Create(kLayout, 4, 3, false);
        EXPECT_FALSE(factory->Create(unallocated, 0, GraphicsResourceUsage::Default, nullptr)) << "no data";
        Ptr<VertexBuffer::DynamicStream> dynamic = VertexBuffer::DynamicStream::Create(kLayout, 4, 3, true);
        EXPECT_FALSE(factory->Create(Ptr<VertexBuffer::Stream>(dynamic.Get()), 0, GraphicsResourceUsage::Default,
                                     nullptr));
        EXPECT_TRUE(log->Contains(u"Create vertex buffer failed, dynamic usage is not match.\n"));
        Ptr<VertexBuffer> buffer = factory->Create(Ptr<VertexBuffer::Stream>(dynamic.Get()),
                                                   unsigned(GraphicsResourceCpuAccess::Write),
                                                   GraphicsResourceUsage::Dynamic, nullptr);
        ASSERT_TRUE(buffer);
        EXPECT_TRUE(buffer->IsCreated());
        EXPECT_EQ(buffer->GetByteWidth(), 84u);
        EXPECT_EQ(buffer->GetVertexStream(), dynamic.Get());
        EXPECT_FALSE(buffer->AllowReleaseStream());
    }
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    g_IsNullRenderer = false;
}

namespace {
// Position (12), a half4 normal (8), half2 blend weights (4): 24 bytes.
const VertexElement kHalfLayout[] = {E(GraphicsSemantic::Position, GraphicsLayoutFormat::Float3, 0),
                                     E(GraphicsSemantic::Normal, GraphicsLayoutFormat::Half4, 12),
                                     E(GraphicsSemantic::BlendWeight, GraphicsLayoutFormat::Half2, 20)};

struct HalfVertex
{
    float position[3];
    uint16 normal[4];
    uint16 weights[2];
};
static_assert(sizeof(HalfVertex) == 24);

Ptr<VertexBuffer::Stream> HalfStream()
{
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(kHalfLayout, 3, 2, true);
    // 1, -1, 0.5, -0.5 | 0.25, 0.1 (0x2E66 = 0.0999755859375), a subnormal,
    // and 2.0, which saturates.
    const HalfVertex vertices[2] = {{{1.5f, -2.0f, 3.0f}, {0x3C00, 0xBC00, 0x3800, 0xB800}, {0x3400, 0x2E66}},
                                    {{4.0f, 5.0f, 6.0f}, {0x0001, 0x0000, 0x8000, 0x4000}, {0x3C00, 0x0000}}};
    std::memcpy(stream->GetPointer(), vertices, sizeof vertices);
    return stream;
}
} // namespace

TEST(VertexBuffer, HalfNormalsAndWeightsBecomeShortNorms)
{
    Ptr<VertexBuffer::Stream> stream = HalfStream();
    stream->MakeClean();
    stream->ConvertElementFp16();
    EXPECT_EQ(stream->GetStride(), 24u);
    EXPECT_EQ(stream->GetElements()[1].Format, GraphicsLayoutFormat::Short4N);
    EXPECT_EQ(stream->GetElements()[2].Format, GraphicsLayoutFormat::Short2N);
    EXPECT_EQ(stream->GetElements()[0].Format, GraphicsLayoutFormat::Float3);
    EXPECT_TRUE(stream->IsDirty());

    struct ShortVertex
    {
        float position[3];
        int16 normal[4];
        int16 weights[2];
    } out[2];
    std::memcpy(out, stream->GetPointer(), sizeof out);
    // round(v * 32767), halves away from zero.
    const int16 normal0[4] = {32767, -32767, 16384, -16384};
    const int16 weights0[2] = {8192, 3276};
    const int16 normal1[4] = {0, 0, 0, 32767};
    const int16 weights1[2] = {32767, 0};
    EXPECT_EQ(std::memcmp(out[0].normal, normal0, 8), 0);
    EXPECT_EQ(std::memcmp(out[0].weights, weights0, 4), 0);
    EXPECT_EQ(std::memcmp(out[1].normal, normal1, 8), 0);
    EXPECT_EQ(std::memcmp(out[1].weights, weights1, 4), 0);
    EXPECT_EQ(out[0].position[1], -2.0f);
    EXPECT_EQ(out[1].position[2], 6.0f);

    // A half element of any other semantic leaves the whole stream alone.
    VertexElement mixed[4] = {kHalfLayout[0], kHalfLayout[1], kHalfLayout[2],
                              E(GraphicsSemantic::TexCoord, GraphicsLayoutFormat::Half2, 24)};
    Ptr<VertexBuffer::Stream> withUV = VertexBuffer::Stream::Create(mixed, 4, 2, true);
    std::memset(withUV->GetPointer(), 0x3C, withUV->GetLength());
    withUV->ConvertElementFp16();
    EXPECT_EQ(withUV->GetElements()[1].Format, GraphicsLayoutFormat::Half4);
    EXPECT_EQ(withUV->GetPointer()[12], 0x3C);
}

TEST(VertexBuffer, HalfConversionFollowsTheCapability)
{
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    ASSERT_TRUE(Renderer::SetupPlatformAuto());
    Kovex_InitRenderer(GraphicsParameters());
    Ptr<VertexBuffer::Stream> stream = HalfStream();
    g_ptrRenderer->GetHWCapability()->SupportLayoutFormatHalfFloat = true;
    stream->ValidateElementFp16();
    EXPECT_EQ(stream->GetElements()[1].Format, GraphicsLayoutFormat::Half4);
    g_ptrRenderer->GetHWCapability()->SupportLayoutFormatHalfFloat = false;
    stream->ValidateElementFp16();
    EXPECT_EQ(stream->GetElements()[1].Format, GraphicsLayoutFormat::Short4N);
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    g_IsNullRenderer = false;
}
