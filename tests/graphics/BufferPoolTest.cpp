#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "graphics/ConstantBuffer.h"
#include "graphics/GraphicsThread.h"
#include "graphics/IndexBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/VertexDecl.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

VertexElement Element(GraphicsSemantic name, GraphicsLayoutFormat format, uint32 offset)
{
    VertexElement e;
    e.Assign(name, 0, format, 0, offset, GraphicsInputClass::PerVertex, 0);
    return e;
}

// Position + normal as four floats each: 32 bytes a vertex.
Ptr<VertexDecl> Decl32()
{
    VertexElement e[2] = {Element(GraphicsSemantic::Position, GraphicsLayoutFormat::Float4, 0),
                          Element(GraphicsSemantic::Normal, GraphicsLayoutFormat::Float4, 16)};
    return VertexDeclManager::Ins()->Create(e, 2);
}

Ptr<VertexDecl> Decl12()
{
    VertexElement e = Element(GraphicsSemantic::Position, GraphicsLayoutFormat::Float3, 0);
    return VertexDeclManager::Ins()->Create(&e, 1);
}

} // namespace

TEST(BufferPool, AllocatedCountsAndSizes)
{
    KovexTest::NullEngine engine;
    VertexBufferFactory* vertices = VertexBufferFactory::Get();
    IndexBufferFactory* indices = IndexBufferFactory::Get();
    ASSERT_TRUE(vertices && indices);

    VertexBufferFactory::Pool& pool = vertices->GetPool(false);
    Ptr<VertexDecl> decl = Decl32();
    EXPECT_EQ(pool.GetRequiredSize(decl, 10), 320u);
    EXPECT_EQ(pool.GetAllocatedCount(decl, 10000, 131072), 12288u);
    EXPECT_EQ(pool.GetAllocatedCount(decl, 100, 131072), 4096u);
    EXPECT_EQ(pool.GetAllocatedCount(decl, 4097, 131072), 8192u);
    EXPECT_EQ(pool.GetAllocatedCount(decl, 3, 8), 3u) << "a buffer smaller than a vertex still holds one";
    EXPECT_EQ(pool.GetAllocatedCount(Ptr<VertexDecl>(), 3, 8), 0u);
    EXPECT_EQ(pool.GetRequiredSize(decl, 0x10000000u), 0u) << "past what a stream holds";
    EXPECT_EQ(indices->GetPool(true).GetRequiredSize(IndexBuffer::Index32, 5), 20u);

    EXPECT_EQ(VertexBufferFactory::GetBlockedBufferDefSize(), 131072u);
    EXPECT_EQ(IndexBufferFactory::GetBlockedBufferDefSize(), 16384u);
    EXPECT_EQ(vertices->M_GetBlockedBufferSize(true, 3), 131072u);
    vertices->M_SetBlockedBufferSize(true, 3, 4096);
    EXPECT_EQ(vertices->M_GetBlockedBufferSize(true, 3), 4096u);
    EXPECT_EQ(vertices->M_GetBlockedBufferSize(false, 3), 131072u) << "the plain pool has its own classes";
    vertices->M_SetBlockedBufferSize(true, 3, 0);
    EXPECT_EQ(vertices->M_GetBlockedBufferSize(true, 3), 131072u);
    IndexBufferFactory::SetBlockedBufferDefSize(2048);
    EXPECT_EQ(indices->M_GetBlockedBufferSize(false, 9), 2048u);
    IndexBufferFactory::SetBlockedBufferDefSize(16384);
}

TEST(BufferPool, PlainAndDynamicPoolsMakeTheirKindOfBuffer)
{
    KovexTest::NullEngine engine;
    VertexBufferFactory* vertices = VertexBufferFactory::Get();
    IndexBufferFactory* indices = IndexBufferFactory::Get();

    GraphicsBufferBlock plain, dynamic, second;
    VertexElement e[2] = {Element(GraphicsSemantic::Position, GraphicsLayoutFormat::Float4, 0),
                          Element(GraphicsSemantic::Normal, GraphicsLayoutFormat::Float4, 16)};
    ASSERT_TRUE(vertices->M_RequireBlock(plain, e, 2, 100, false));
    ASSERT_TRUE(vertices->M_RequireBlock(dynamic, Decl32(), 100, true));
    ASSERT_TRUE(vertices->M_RequireBlock(second, Decl32(), 10, false));
    EXPECT_EQ(second.Owner.Get(), plain.Owner.Get()) << "the element form reaches the same layout";
    EXPECT_EQ(second.Offset, 3200u);
    EXPECT_NE(dynamic.Owner.Get(), plain.Owner.Get());

    const GraphicsBuffer* buffer = plain.Owner->GetBuffer().Get();
    EXPECT_TRUE(buffer->IsDefaultResource());
    EXPECT_EQ(buffer->GetCpuAccessFlags(), 0u);
    EXPECT_FALSE(buffer->GetStream()->IsDynamic());
    EXPECT_EQ(buffer->GetByteWidth(), 131072u);
    buffer = dynamic.Owner->GetBuffer().Get();
    EXPECT_TRUE(buffer->IsDynamicResource());
    EXPECT_EQ(buffer->GetCpuAccessFlags(), uint32(GraphicsResourceCpuAccess::Write));
    EXPECT_TRUE(buffer->GetStream()->IsDynamic());

    GraphicsBufferBlock big;
    ASSERT_TRUE(vertices->M_RequireBlock(big, Decl32(), 5000, false, 1));
    EXPECT_EQ(big.Owner->GetBuffer()->GetByteWidth(), 8192u * 32) << "a bigger request makes a bigger buffer";
    EXPECT_EQ(vertices->GetPool(false).GetNumBuffers(), 2u);
    EXPECT_FALSE(vertices->M_RequireBlock(big, Decl32(), 0, false)) << "nothing to require";

    GraphicsBufferBlock i32, i16;
    ASSERT_TRUE(indices->M_RequireBlock(i32, true, 10, false));
    ASSERT_TRUE(indices->M_RequireBlock(i16, IndexBuffer::Index16, 10, true));
    auto* stream32 = static_cast<const IndexBuffer::Stream*>(i32.Owner->GetBuffer()->GetStream().Get());
    EXPECT_EQ(stream32->GetFormat(), IndexBuffer::Index32);
    EXPECT_EQ(i32.Owner->GetBuffer()->GetByteWidth(), 16384u);
    EXPECT_EQ(i32.Size, 40u);
    EXPECT_EQ(i16.Size, 20u);

    // Exit forgets the pools' buffers; the last block holders keep theirs.
    unsigned before = BlockedGraphicsBuffer::GetNumInstances();
    vertices->OnExit();
    indices->OnExit();
    EXPECT_EQ(vertices->GetPool(false).GetNumBuffers(), 0u);
    EXPECT_EQ(indices->GetPool(true).GetNumBuffers(), 0u);
    plain = GraphicsBufferBlock();
    second = GraphicsBufferBlock();
    BlockedGraphicsBuffer::M_Tick();
    EXPECT_EQ(BlockedGraphicsBuffer::GetNumInstances(), before - 1);
}

// Random requires, recycles and ticks against a byte map of what the caller
// holds: blocks never overlap what is held or waiting for the tick, fit
// their buffer, and a new buffer is made only when no buffer of the key had
// a free run large enough.
TEST(BufferPool, RandomRequireRecycleMatchesAModel)
{
    KovexTest::NullEngine engine;
    VertexBufferFactory* factory = VertexBufferFactory::Get();
    constexpr uint32 kClass = 7;
    factory->M_SetBlockedBufferSize(false, kClass, 1536);
    factory->M_SetBlockedBufferSize(true, kClass, 1024);
    Ptr<VertexDecl> decls[2] = {Decl32(), Decl12()};
    const uint32 strides[2] = {32, 12};

    enum : uint8 { kFree, kHeld, kWaiting };
    struct Model
    {
        std::vector<uint8> bytes;
        int key;
    };
    std::map<const BlockedGraphicsBuffer*, Model> buffers;
    std::vector<GraphicsBufferBlock> held;
    std::mt19937 random(1234);
    unsigned made = 0, reused = 0;

    auto largestFreeRun = [](const BlockedGraphicsBuffer* b) {
        uint32 largest = 0;
        for (const auto& block : b->GetFreeBlocks())
            largest = block.size > largest ? block.size : largest;
        return largest;
    };

    for (int step = 0; step < 4000; ++step)
    {
        // Held blocks stay bounded, as a frame's are: steady state reuses.
        unsigned op = held.size() > 64 ? 6 : random() % 10;
        if (op < 6)
        {
            int key = int(random() % 2);
            bool dynamic = random() % 2;
            uint32 count = 1 + random() % (random() % 8 == 0 ? 200 : 12);
            uint32 required = strides[key] * count;
            bool fits = false;
            for (auto& [buffer, model] : buffers)
                if (model.key == key && buffer->GetBuffer()->IsDynamicResource() == dynamic &&
                    largestFreeRun(buffer) >= required)
                    fits = true;
            unsigned before = factory->GetPool(dynamic).GetNumBuffers();
            GraphicsBufferBlock block;
            ASSERT_TRUE(factory->M_RequireBlock(block, decls[key], count, dynamic, kClass));
            ASSERT_EQ(block.Size, required);
            EXPECT_EQ(factory->GetPool(dynamic).GetNumBuffers(), before + (fits ? 0 : 1)) << "step " << step;
            auto found = buffers.find(block.Owner.Get());
            if (found != buffers.end())
                ++reused;
            else
            {
                ASSERT_FALSE(fits);
                ++made;
                uint32 width = block.Owner->GetBuffer()->GetByteWidth();
                EXPECT_EQ(width % strides[key], 0u);
                EXPECT_GE(width, required);
                found = buffers.emplace(block.Owner.Get(), Model{std::vector<uint8>(width, kFree), key}).first;
            }
            Model& model = found->second;
            ASSERT_EQ(model.key, key);
            ASSERT_LE(block.Offset + block.Size, model.bytes.size());
            EXPECT_EQ(block.Offset % strides[key], 0u);
            for (uint32 i = block.Offset; i < block.Offset + block.Size; ++i)
            {
                ASSERT_EQ(model.bytes[i], kFree) << "step " << step << " byte " << i;
                model.bytes[i] = kHeld;
            }
            held.push_back(block);
        }
        else if (op < 9 && !held.empty())
        {
            size_t pick = random() % held.size();
            GraphicsBufferBlock block = held[pick];
            held.erase(held.begin() + long(pick));
            ASSERT_TRUE(block.Owner->M_Recycle(block.Offset, block.Size));
            for (uint32 i = block.Offset; i < block.Offset + block.Size; ++i)
                buffers[block.Owner.Get()].bytes[i] = kWaiting;
        }
        else
        {
            BlockedGraphicsBuffer::M_Tick();
            for (auto& [buffer, model] : buffers)
                for (uint8& byte : model.bytes)
                    if (byte == kWaiting)
                        byte = kFree;
        }
        // The buffer's own lists agree: what is held is in its used list.
        if (step % 97 == 0)
            for (const GraphicsBufferBlock& block : held)
            {
                bool listed = false;
                for (const auto& used : block.Owner->GetUsedBlocks())
                    listed |= used.offset == block.Offset && used.size == block.Size;
                ASSERT_TRUE(listed);
            }
    }
    EXPECT_GT(made, 2u);
    EXPECT_GT(reused, 20 * made) << "recycled space is reused";
}

// Dynamic streams with a started graphics thread: each frame the graphics
// side reads exactly what the main thread finished, while the main thread
// already writes the next frame into the other copy.
TEST(GraphicsThreads, DynamicStreamsAreDoubleBuffered)
{
    KovexTest::NullEngine engine;
    VertexBufferFactory* factory = VertexBufferFactory::Get();
    VertexElement e = Element(GraphicsSemantic::Position, GraphicsLayoutFormat::Float4, 0);

    // Without a graphics thread nothing is double-buffered.
    Ptr<VertexBuffer> single = factory->Create(VertexBuffer::DynamicStream::Create(&e, 1, 64, true),
                                               uint32(GraphicsResourceCpuAccess::Write),
                                               GraphicsResourceUsage::Dynamic, nullptr);
    ASSERT_TRUE(single);
    EXPECT_FALSE(single->AllowPrecache());
    EXPECT_EQ(factory->GetNumPrecached(), 0u);
    EXPECT_EQ(single->GetDeviceStream(), single->GetStream().Get());

    GraphicsThread* thread = GraphicsThread::Ins();
    ASSERT_TRUE(thread->Start());
    Ptr<VertexBuffer> buffer = factory->Create(VertexBuffer::DynamicStream::Create(&e, 1, 64, true),
                                               uint32(GraphicsResourceCpuAccess::Write),
                                               GraphicsResourceUsage::Dynamic, nullptr);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(factory->GetNumPrecached(), 1u);

    auto fill = [&](float value) {
        GraphicsStream* stream = buffer->GetStream().Get();
        auto* floats = reinterpret_cast<float*>(stream->GetPointer());
        for (uint32 i = 0; i < stream->GetLength() / 4; ++i)
            floats[i] = value;
        stream->MakeDirty(0, stream->GetLength());
    };
    struct ReadOnGraphics : ThreadCommand
    {
        Ptr<VertexBuffer> buffer;
        float expected = 0;
        std::atomic<int>* good = nullptr;
        void Process() override
        {
            const GraphicsStream* stream = buffer->GetDeviceStream();
            if (stream == buffer->GetStream().Get() || stream->GetLength() != 64 * 16)
                return;
            auto* floats = reinterpret_cast<const float*>(stream->GetPointer());
            for (uint32 i = 0; i < stream->GetLength() / 4; ++i)
                if (floats[i] != expected)
                    return;
            ++*good;
        }
    };

    std::atomic<int> good{0};
    constexpr int kFrames = 200;
    fill(1);
    for (int frame = 1; frame <= kFrames; ++frame)
    {
        Ptr<ReadOnGraphics> read(new ReadOnGraphics());
        read->buffer = buffer;
        read->expected = float(frame);
        read->good = &good;
        thread->MT_PostCommand(read.Get());
        Kovex_FrameBegin(); // the swap, then the graphics side runs the read
        fill(float(frame + 1));
        Kovex_FrameEnd();
    }
    EXPECT_EQ(good.load(), kFrames);
    auto* layout = static_cast<const VertexBuffer::Stream*>(buffer->GetStream().Get());
    EXPECT_EQ(layout->GetStride(), 16u) << "the twin keeps the layout";

    // A clean stream is left in place.
    GraphicsStream* current = buffer->GetStream().Get();
    current->MakeClean();
    factory->M_Precache();
    EXPECT_EQ(buffer->GetStream().Get(), current);

    // Disposal takes the buffer off the list.
    buffer = nullptr;
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    EXPECT_EQ(factory->GetNumPrecached(), 0u);
}

// Workers make and drop dynamic vertex buffers (joining and leaving the
// precache list) and named constant buffers (the factory's map) while the
// main thread runs frames through the started graphics thread.
TEST(GraphicsThreads, BufferFactoriesUnderLoad)
{
    KovexTest::NullEngine engine;
    ASSERT_TRUE(GraphicsThread::Ins()->Start());
    g_ptrRenderer->GetHWCapability()->SupportNamedConstantBuffer = true;
    VertexBufferFactory* vertices = VertexBufferFactory::Get();
    ConstantBufferFactory* constants = ConstantBufferFactory::Get();
    VertexElement e = Element(GraphicsSemantic::Position, GraphicsLayoutFormat::Float4, 0);

    constexpr int kWorkers = 3, kPerWorker = 400;
    std::atomic<int> misses{0}, done{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w)
        workers.emplace_back([&] {
            std::vector<Ptr<VertexBuffer>> held;
            for (int i = 0; i < kPerWorker; ++i)
            {
                held.push_back(vertices->Create(VertexBuffer::DynamicStream::Create(&e, 1, 16, true),
                                                uint32(GraphicsResourceCpuAccess::Write),
                                                GraphicsResourceUsage::Dynamic, nullptr));
                if (held.size() > 8)
                    held.erase(held.begin());
                Ptr<ShaderCBuffer> cbuffer(new ShaderCBuffer());
                cbuffer->SetName(TSharedString<WString>(u"PerObject"));
                Ptr<ConstantBuffer> made = constants->Create(cbuffer, 64);
                if (!made || constants->Find(cbuffer).Get() != made.Get())
                    ++misses;
            }
            ++done;
        });
    for (int frames = 0; done.load() < kWorkers && frames < 100000; ++frames)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
    for (std::thread& t : workers)
        t.join();
    for (int i = 0; i < 2; ++i)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
    EXPECT_EQ(misses.load(), 0);
    EXPECT_EQ(vertices->GetNumPrecached(), 0u) << "every dropped buffer left the list";
}
