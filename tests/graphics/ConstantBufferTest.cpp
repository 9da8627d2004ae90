#include <gtest/gtest.h>

#include <cstring>

#include "graphics/ConstantBuffer.h"
#include "graphics/null/NullRenderer.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

// A buffer with its stream, outside any factory.
class LooseConstantBuffer : public NullConstantBuffer
{
public:
    explicit LooseConstantBuffer(uint32 size, bool deviceWorks = true) : m_deviceWorks(deviceWorks)
    {
        Ptr<ConstantBuffer::Stream> stream(new ConstantBuffer::Stream());
        stream->ExtendTo(size, false);
        std::memset(stream->GetPointer(), 0, size);
        SetStream(Ptr<GraphicsStream>(stream.Get()));
        SetByteWidth(size);
    }
    const float* Floats() const { return reinterpret_cast<const float*>(GetStream()->GetPointer()); }

protected:
    bool DeviceCreateBuffer() override { return m_deviceWorks; }

private:
    bool m_deviceWorks;
};

// The auto-update constants a render-data layer would register.
bool Resolve(const WString& name, ShaderConstant::AutoUpdateId& id, uint32& kind)
{
    if (name == WString(u"WorldMatrix"))
        id.Parts = {2, 1, 0, 0}, kind = 0;
    else if (name == WString(u"Time"))
        id.Parts = {5, 0, 0, 0}, kind = 2;
    else if (name == WString(u"WorldInvScale"))
        id.Parts = {2, 0, 0, 0}, kind = 0;
    else
        return false;
    return true;
}

} // namespace

TEST(ConstantBuffer, SizesRoundUpToRegisters)
{
    EXPECT_EQ(ConstantBuffer::RoundSize(0), 0u);
    EXPECT_EQ(ConstantBuffer::RoundSize(1), 16u);
    EXPECT_EQ(ConstantBuffer::RoundSize(16), 16u);
    EXPECT_EQ(ConstantBuffer::RoundSize(17), 32u);
    EXPECT_EQ(ConstantBuffer::RoundSize(100), 112u);
}

TEST(ConstantBuffer, WritesByRowStrideAndCopiesBack)
{
    Ptr<LooseConstantBuffer> buffer(new LooseConstantBuffer(64));
    const float packed[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}; // a float3x3
    KovexTest::LogCapture log;

    // Rows of 12 bytes land in three registers of 16.
    ASSERT_TRUE(buffer->WriteConstant(0, packed, 48, 12));
    const float expected[12] = {1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0};
    EXPECT_EQ(std::memcmp(buffer->Floats(), expected, sizeof expected), 0);
    EXPECT_TRUE(buffer->GetStream()->IsDirty());

    float back[9] = {};
    ConstantBuffer::CopyConstant(back, buffer->Floats(), 48, 12);
    EXPECT_EQ(std::memcmp(back, packed, sizeof packed), 0);

    // Stride 16 is a straight copy, at an offset.
    buffer->GetStream()->MakeClean();
    ASSERT_TRUE(buffer->WriteConstant(48, packed, 16, 16));
    EXPECT_EQ(buffer->Floats()[12], 1.0f);
    EXPECT_EQ(buffer->Floats()[15], 4.0f);
    EXPECT_TRUE(buffer->GetStream()->IsDirty());

    // A size that is not a whole number of registers never writes past it:
    // the second row is cut to the 4 bytes left.
    float guard[16];
    std::memcpy(guard, buffer->Floats(), sizeof guard);
    ASSERT_TRUE(buffer->WriteConstant(16, packed, 20, 12));
    EXPECT_EQ(buffer->Floats()[4], 1.0f);
    EXPECT_EQ(buffer->Floats()[6], 3.0f);
    EXPECT_EQ(buffer->Floats()[7], guard[7]);
    EXPECT_EQ(buffer->Floats()[8], 4.0f);
    EXPECT_EQ(buffer->Floats()[9], guard[9]) << "past the 20 bytes";

    buffer->GetStream()->MakeClean();
    EXPECT_FALSE(buffer->WriteConstant(0, packed, 16, 20));
    EXPECT_TRUE(log->Contains(u"Write Constant failed, 'RowStride' must less equal to 16.\n"));
    EXPECT_FALSE(buffer->WriteConstant(56, packed, 16, 16));
    EXPECT_FALSE(buffer->WriteConstant(0, packed, 16, 0)) << "rows of nothing would copy nothing";
    EXPECT_FALSE(buffer->WriteConstant(0xFFFFFFF0u, packed, 32, 16)) << "an offset that wraps is out of bounds";
    EXPECT_TRUE(log->Contains(u"Write Constant failed.\n"));
    EXPECT_FALSE(buffer->GetStream()->IsDirty());
}

TEST(ConstantBuffer, WriterFormShrinksOrFails)
{
    Ptr<LooseConstantBuffer> buffer(new LooseConstantBuffer(32));
    KovexTest::LogCapture log;
    auto fill = [](void* destination, uint32* size, void* user) {
        *static_cast<uint32*>(destination) = *static_cast<uint32*>(user);
        *size = 4;
        return true;
    };
    uint32 value = 0xC0FFEEu;
    ASSERT_TRUE(buffer->WriteConstant(16, fill, &value, 16));
    EXPECT_EQ(*reinterpret_cast<const uint32*>(buffer->GetStream()->GetPointer(16)), value);
    EXPECT_TRUE(buffer->GetStream()->IsDirty());

    buffer->GetStream()->MakeClean();
    auto refuse = [](void*, uint32*, void*) { return false; };
    EXPECT_FALSE(buffer->WriteConstant(0, refuse, nullptr, 16));
    EXPECT_FALSE(buffer->WriteConstant(24, fill, &value, 16));
    EXPECT_EQ(log->entries.Count(), 2u);
    EXPECT_TRUE(log->Contains(u"Write Constant failed.\n"));
    EXPECT_FALSE(buffer->GetStream()->IsDirty());
}

TEST(ConstantBuffer, DeviceCreationFailureLogsAndStreamSpansTheWidth)
{
    KovexTest::LogCapture log;
    Ptr<LooseConstantBuffer> failing(new LooseConstantBuffer(32, false));
    EXPECT_FALSE(failing->CreateDeviceHandle());
    EXPECT_TRUE(log->Contains(u"Create constant buffer failed !\n"));

    Ptr<LooseConstantBuffer> working(new LooseConstantBuffer(32));
    working->GetStream()->SetPosition(20);
    working->SetByteWidth(48);
    EXPECT_TRUE(working->CreateDeviceHandle());
    EXPECT_EQ(working->GetStream()->GetPosition(), 0u);
    EXPECT_EQ(working->GetStream()->GetLength(), 48u);
}

TEST(ConstantBuffer, FactoryMakesDynamicBuffersAndFindsNamedOnes)
{
    KovexTest::NullEngine engine;
    ConstantBufferFactory* factory = ConstantBufferFactory::Get();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory, g_ptrRenderer->GetGraphicsFactory(FactoryType::ConstantBufferFactory));

    EXPECT_FALSE(factory->Create(0u));
    EXPECT_FALSE(factory->Create(0xFFFFFFFFu));
    Ptr<ConstantBuffer> plain = factory->Create(40u);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(plain->IsCreated());
    EXPECT_EQ(plain->GetByteWidth(), 48u);
    EXPECT_EQ(plain->GetStream()->GetLength(), 48u);
    EXPECT_TRUE(plain->IsDynamicResource());
    EXPECT_EQ(plain->GetCpuAccessFlags(), uint32(GraphicsResourceCpuAccess::Write));
    EXPECT_TRUE(plain->GetStream()->IsKindOf(ConstantBuffer::Stream::StaticGetClass()));
    EXPECT_FALSE(plain->IsNamedCBuffer());

    Ptr<ShaderCBuffer> named(new ShaderCBuffer());
    named->SetName(TSharedString<WString>(u"PerFrame"));
    Ptr<ShaderCBuffer> unnamed(new ShaderCBuffer());

    // Named buffers need the capability.
    g_ptrRenderer->GetHWCapability()->SupportNamedConstantBuffer = false;
    EXPECT_FALSE(factory->Create(named, 64));
    g_ptrRenderer->GetHWCapability()->SupportNamedConstantBuffer = true;
    EXPECT_FALSE(factory->Create(unnamed, 64));
    Ptr<ConstantBuffer> made = factory->Create(named, 64);
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->IsNamedCBuffer());
    EXPECT_EQ(factory->Find(named).Get(), made.Get());
    EXPECT_FALSE(factory->Find(unnamed));
    EXPECT_FALSE(factory->Find(Ptr<ShaderCBuffer>()));

    // The factory's map lets go at exit, so the buffer dies with its users.
    made = nullptr;
    factory->OnExit();
    EXPECT_FALSE(factory->Find(named));
}

TEST(ConstantBuffer, CommitsConstantsByNameAndGroupsAutoUpdates)
{
    ShaderConstant::SetAutoUpdateResolver(&Resolve);
    Ptr<LooseConstantBuffer> buffer(new LooseConstantBuffer(64));
    ShaderConstant* world = buffer->NewConstant(TSharedString<WString>(u"WorldMatrix"));
    ShaderConstant* tint = buffer->NewConstant(TSharedString<WString>(u"Tint"));
    ShaderConstant* time = buffer->NewConstant(TSharedString<WString>(u"Time"));
    ShaderConstant* scale = buffer->NewConstant(TSharedString<WString>(u"WorldInvScale"));
    ShaderConstant::SetAutoUpdateResolver(nullptr);
    ASSERT_TRUE(world && tint && time && scale);
    EXPECT_EQ(buffer->NewConstant(TSharedString<WString>(u"Tint")), tint) << "a name makes one constant";
    EXPECT_EQ(buffer->GetNumConstants(), 4u);

    EXPECT_TRUE(world->IsAutoUpdata());
    EXPECT_FALSE(tint->IsAutoUpdata());
    EXPECT_EQ(tint->GetAutoUpdateId().Value, ShaderConstant::kInvalid);
    EXPECT_EQ(buffer->GetAutoUpdateConstants(0), nullptr);
    EXPECT_EQ(buffer->GetAutoUpdateConstants(99), nullptr);
    const CommitConstantInterface::GroupConstants* group2 = buffer->GetAutoUpdateConstants(2);
    ASSERT_NE(group2, nullptr);
    ASSERT_EQ(group2->ByKind[0].Count(), 2u);
    EXPECT_EQ(group2->ByKind[0][0], world);
    EXPECT_EQ(group2->ByKind[0][1], scale);
    ASSERT_NE(buffer->GetAutoUpdateConstants(5), nullptr);
    EXPECT_EQ(buffer->GetAutoUpdateConstants(5)->ByKind[2][0], time);

    tint->Location[0] = 16;
    const float red[4] = {1, 0, 0, 1};
    EXPECT_TRUE(buffer->CommitConstantByName(WString(u"Tint"), red, 16, 16));
    EXPECT_EQ(buffer->Floats()[4], 1.0f);
    EXPECT_EQ(buffer->Floats()[7], 1.0f);
    EXPECT_FALSE(buffer->CommitConstantByName(WString(u"Nope"), red, 16, 16));

    // Defaults go in as whole registers.
    time->Location[0] = 48;
    const float defaults[4] = {0.5f, 0.25f, 2, 3};
    ASSERT_TRUE(time->SetDefaultValue(defaults, 16));
    EXPECT_FALSE(time->SetDefaultValue(defaults, 0));
    buffer->ApplyConstantDefaultValue();
    EXPECT_EQ(std::memcmp(buffer->Floats() + 12, defaults, 16), 0);

    buffer->CleanupConstants();
    EXPECT_EQ(buffer->GetNumConstants(), 0u);
    EXPECT_EQ(buffer->GetAutoUpdateConstants(2), nullptr);
}

TEST(ShaderResource, SlotsPerStage)
{
    ShaderTexture texture;
    EXPECT_EQ(texture.GetSlotInShader(ShaderType::Pixel), -1);
    texture.SetSlotInShader(ShaderType::Pixel, 3);
    EXPECT_EQ(texture.GetSlotInShader(ShaderType::Pixel), 3);
    EXPECT_EQ(texture.GetSlotInShader(ShaderType::Vertex), -1);
    EXPECT_TRUE(texture.GetName().IsEmpty());
}
