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
