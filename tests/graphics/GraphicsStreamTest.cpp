#include <gtest/gtest.h>

#include <cstring>

#include "graphics/GraphicsStream.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

TEST(GraphicsStream, WritesDirtyTheWholeStreamOnce)
{
    Ptr<GraphicsStream2> stream(new GraphicsStream2());
    ASSERT_TRUE(stream->ExtendTo(64, false));
    EXPECT_NE(stream->GetPointer(), nullptr);
    EXPECT_FALSE(stream->IsDirty());
    uint32 words[4] = {1, 2, 3, 4};
    ASSERT_TRUE(stream->SetPosition(16));
    ASSERT_TRUE(stream->InternalWrite(words, sizeof words));
    ASSERT_TRUE(stream->InternalWrite(words, sizeof words));
    ASSERT_EQ(stream->GetDirtyRegions().Count(), 1u);
    EXPECT_EQ(stream->GetDirtyRegions()[0].offset, 0u);
    EXPECT_EQ(stream->GetDirtyRegions()[0].size, 64u) << "the whole stream, not the written range";
    stream->MakeClean();
    EXPECT_FALSE(stream->IsDirty());

    // Reads stop at the length and take nothing.
    uint32 back[4] = {};
    ASSERT_TRUE(stream->SetPosition(56));
    EXPECT_FALSE(stream->InternalRead(back, sizeof back));
    EXPECT_EQ(stream->GetPosition(), 56u);
    ASSERT_TRUE(stream->SetPosition(16));
    ASSERT_TRUE(stream->InternalRead(back, sizeof back));
    EXPECT_EQ(std::memcmp(back, words, sizeof words), 0);

    Ptr<GraphicsStream3> flagged(new GraphicsStream3());
    EXPECT_EQ(flagged->GetPointer(), nullptr) << "no data, no pointer";
    flagged->MakeDirty(3, 4);
    Ptr<GraphicsStream3> copy(new GraphicsStream3());
    ASSERT_TRUE(flagged->Duplicate(copy.Get(), 0));
    EXPECT_TRUE(copy->IsDirty()) << "the flag travels with a copy";
    Ptr<GraphicsStream2> copy2(new GraphicsStream2());
    stream->MakeDirty(0, 1);
    ASSERT_TRUE(stream->Duplicate(copy2.Get(), 0));
    EXPECT_FALSE(copy2->IsDirty()) << "regions do not";
    EXPECT_EQ(copy2->GetLength(), 64u);
    EXPECT_FALSE(stream->Duplicate(copy.Get(), 0)) << "another class";
}

TEST(GraphicsStream, SerialFormRoundTripsAndRefusesBadBytes)
{
    Ptr<GraphicsStream2> stream(new GraphicsStream2());
    ASSERT_TRUE(stream->ExtendTo(37, false));
    for (uint32 i = 0; i < 37; ++i)
        stream->GetPointer()[i] = uint8(i * 7);
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        KovexTest::Bytes bytes = KovexTest::WriteWith(form, [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
        Serializer* reader = KovexTest::OpenReader(bytes);
        ASSERT_NE(reader, nullptr);
        Ptr<GraphicsStream2> loaded(new GraphicsStream2());
        EXPECT_TRUE(loaded->Load(reader));
        delete reader;
        ASSERT_EQ(loaded->GetLength(), 37u);
        EXPECT_EQ(std::memcmp(loaded->GetPointer(), stream->GetPointer(), 37), 0);
        EXPECT_TRUE(loaded->IsDirty()) << "loaded data is to be uploaded";
    }

    // A forged count larger than the section: refused, the stream untouched.
    KovexTest::Bytes bytes = KovexTest::WriteWith(BinSerializer::StaticGetClass(),
                                                  [&](Serializer& s) { ASSERT_TRUE(stream->Save(&s)); });
    size_t at = bytes.find(std::string("\x25\x00\x00\x00", 4)); // the count 37
    ASSERT_NE(at, std::string::npos);
    KovexTest::Bytes forged = bytes;
    forged[at + 3] = '\x7f';
    KovexTest::LogCapture log;
    Ptr<GraphicsStream3> target(new GraphicsStream3());
    ASSERT_TRUE(target->ExtendTo(5, false));
    Serializer* reader = KovexTest::OpenReader(forged);
    ASSERT_NE(reader, nullptr);
    EXPECT_FALSE(target->Load(reader));
    delete reader;
    EXPECT_EQ(target->GetLength(), 5u);
    EXPECT_FALSE(target->IsDirty());
    EXPECT_TRUE(log->Contains(u"GraphicsStream: missing or truncated DATA.\n"));
    for (size_t cut = 0; cut < bytes.size(); ++cut)
    {
        Serializer* r = KovexTest::OpenReader(bytes.substr(0, cut));
        if (!r)
            continue;
        Ptr<GraphicsStream2> t(new GraphicsStream2());
        t->Load(r);
        delete r;
    }
}
