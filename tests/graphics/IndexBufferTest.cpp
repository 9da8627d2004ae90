#include <gtest/gtest.h>

#include <cstring>

#include "graphics/IndexBuffer.h"
#include "graphics/Renderer.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

TEST(IndexBuffer, StreamsByFormatAndTheirSerialForm)
{
    EXPECT_FALSE(IndexBuffer::Stream::Create(0, IndexBuffer::Index16, true));
    EXPECT_EQ(IndexBuffer::Stream::GetIndexFormat(65535), IndexBuffer::Index16);
    EXPECT_EQ(IndexBuffer::Stream::GetIndexFormat(65536), IndexBuffer::Index32);
    for (IndexBuffer::IndexFormat format : {IndexBuffer::Index16, IndexBuffer::Index32})
    {
        Ptr<IndexBuffer::Stream> stream = IndexBuffer::Stream::Create(9, format, true);
        ASSERT_TRUE(stream);
        ASSERT_EQ(stream->GetLength(), 9u * IndexBuffer::kIndexSize[format]);
        for (uint32 i = 0; i < 9; ++i)
        {
            uint32 value = format == IndexBuffer::Index16 ? i * 1000 : i * 100000;
            if (format == IndexBuffer::Index16)
                reinterpret_cast<uint16*>(stream->GetPointer())[i] = uint16(value);
            else
                reinterpret_cast<uint32*>(stream->GetPointer())[i] = value;
        }
        for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
        {
            KovexTest::Bytes bytes =
                KovexTest::WriteWith(form, [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
            Serializer* reader = KovexTest::OpenReader(bytes);
            ASSERT_NE(reader, nullptr);
            Ptr<IndexBuffer::Stream> loaded(new IndexBuffer::Stream());
            EXPECT_TRUE(loaded->Load(reader));
            delete reader;
            EXPECT_EQ(loaded->GetIndexCount(), 9u);
            EXPECT_EQ(loaded->GetFormat(), format);
            ASSERT_EQ(loaded->GetLength(), stream->GetLength());
            EXPECT_EQ(std::memcmp(loaded->GetPointer(), stream->GetPointer(), stream->GetLength()), 0);
        }
    }
}

TEST(IndexBuffer, ForgedCountsAndFormatsAreRefused)
{
    Ptr<IndexBuffer::Stream> stream = IndexBuffer::Stream::Create(4, IndexBuffer::Index16, true);
    KovexTest::Bytes bytes = KovexTest::WriteWith(XmlSerializer::StaticGetClass(),
                                                  [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
    auto loadFrom = [](const std::string& text) {
        Serializer* reader = KovexTest::OpenReader(text);
        if (!reader)
            return false;
        Ptr<IndexBuffer::Stream> target(new IndexBuffer::Stream());
        bool ok = target->Load(reader);
        delete reader;
        if (!ok)
            EXPECT_EQ(target->GetLength(), 0u) << "a refused load leaves the stream as it was";
        else
            EXPECT_EQ(target->GetLength(), 8u) << "a load that passes has all four indices";
        return ok;
    };
    KovexTest::LogCapture log;
    std::string forged = bytes;
    size_t at = forged.find("SIZE=\"4\"");
    ASSERT_NE(at, std::string::npos);
    forged.replace(at, 8, "SIZE=\"4000000000\"");
    EXPECT_FALSE(loadFrom(forged)) << "more indices claimed than stored";
    EXPECT_TRUE(log->Contains(u"IndexBuffer: bad IXSM section (count 4000000000, format 0, 4 stored).\n"));
    forged = bytes;
    at = forged.find("FMT=\"0\"");
    ASSERT_NE(at, std::string::npos);
    forged.replace(at, 7, "FMT=\"7\"");
    EXPECT_FALSE(loadFrom(forged)) << "no such index format";
    for (size_t cut = 0; cut < bytes.size(); cut += 2)
        loadFrom(bytes.substr(0, cut));
}

TEST(IndexBuffer, FactoryChecksTheStreamBeforeItPosts)
{
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    ASSERT_TRUE(Renderer::SetupPlatformAuto());
    Kovex_InitRenderer(GraphicsParameters());
    IndexBufferFactory* factory = IndexBufferFactory::Get();
    ASSERT_NE(factory, nullptr);
    {
        KovexTest::LogCapture log;
        EXPECT_FALSE(factory->Create(Ptr<IndexBuffer::Stream>(), 0, GraphicsResourceUsage::Default, nullptr));
        EXPECT_TRUE(log->Contains(u"Create index buffer failed, invalid stream or stream size is zero !\n"));
        Ptr<IndexBuffer::Stream> plain = IndexBuffer::Stream::Create(6, IndexBuffer::Index16, true);
        EXPECT_FALSE(factory->Create(plain, 0, GraphicsResourceUsage::Dynamic, nullptr));
        EXPECT_TRUE(log->Contains(u"Create index buffer failed, dynamic usage is not match.\n"));
        std::atomic<int32> pending{0};
        Ptr<IndexBuffer> buffer = factory->Create(plain, 0, GraphicsResourceUsage::Immutable, &pending);
        ASSERT_TRUE(buffer);
        EXPECT_TRUE(buffer->IsCreated());
        EXPECT_EQ(pending.load(), 0);
        EXPECT_EQ(buffer->GetByteWidth(), 12u);
        EXPECT_TRUE(buffer->AllowReleaseStream());
        Ptr<IndexBuffer::DynamicStream> dynamic = IndexBuffer::DynamicStream::Create(6, IndexBuffer::Index32, true);
        Ptr<IndexBuffer> moving = factory->Create(Ptr<IndexBuffer::Stream>(dynamic.Get()),
                                                  unsigned(GraphicsResourceCpuAccess::Write),
                                                  GraphicsResourceUsage::Dynamic, nullptr);
        ASSERT_TRUE(moving);
        EXPECT_FALSE(moving->AllowReleaseStream());
    }
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    g_IsNullRenderer = false;
}
