// Large DDS files stream into their textures on the Texture Thread while the
// main thread ticks; uploads happen only in the tick.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "graphics/TextureFactory.h"
#include "graphics/null/NullRenderer.h"
#include "lifecycle/Engine.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using KovexTest::NullEngine;
using KovexTest::TempDir;

namespace KovexTest {
std::string StreamableDds(uint32 size, uint32 mips);
}

namespace {

// Sets the streaming threshold for one test.
struct Threshold
{
    explicit Threshold(uint32 bytes) : saved(TextureFactory::GetStreamingThreshold())
    {
        TextureFactory::SetStreamingThreshold(bytes);
    }
    ~Threshold() { TextureFactory::SetStreamingThreshold(saved); }
    uint32 saved;
};

NullTexture* Null(const Ptr<Texture>& t) { return static_cast<NullTexture*>(t.Get()); }

// Ticks until every stream is done; false after `seconds`.
bool TickUntilStreamed(TextureFactory* factory, double seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        if (factory->GetNumStreaming() == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// Bytes of a B8G8R8A8 chain from `size` down, levels [first, mips).
uint32 ChainBytes(uint32 size, uint32 first, uint32 mips)
{
    uint32 bytes = 0;
    for (uint32 m = first; m < mips; ++m)
        bytes += (size >> m) * (size >> m) * 4;
    return bytes;
}

} // namespace

TEST(TextureStreaming, LargeDdsArrivesSmallestFirstAndCompletesInTheTick)
{
    NullEngine engine(64, 64);
    Threshold threshold(64 * 64 * 4);
    TextureFactory* factory = TextureFactory::Get();
    TempDir dir;
    dir.Write("big.dds", KovexTest::StreamableDds(512, 10));
    dir.Write("small.dds", KovexTest::StreamableDds(32, 6));

    Ptr<Texture> big = factory->Create(dir.W("big.dds"), nullptr);
    ASSERT_TRUE(big);
    EXPECT_EQ(big->GetDesc().MipLevels, 10u);
    EXPECT_EQ(big->GetResourceUsage(), GraphicsResourceUsage::Default) << "streamed textures take updates";
    // Levels of at most 64 KiB come with the texture: 128x128 and below.
    EXPECT_EQ(big->GetFirstResidentMip(), 2u);
    EXPECT_EQ(factory->Create(dir.W("big.dds"), nullptr).Get(), big.Get()) << "one texture per path, streaming or not";

    ASSERT_TRUE(TickUntilStreamed(factory, 20.0));
    EXPECT_EQ(big->GetFirstResidentMip(), 0u);
    EXPECT_EQ(Null(big)->GetUpdateCount(), 2u) << "the two large levels, uploaded in ticks";
    EXPECT_EQ(Null(big)->GetUpdatedBytes(), ChainBytes(512, 0, 2));

    // Below the threshold the file loads whole, as before.
    Ptr<Texture> small = factory->Create(dir.W("small.dds"), nullptr);
    ASSERT_TRUE(small);
    EXPECT_EQ(small->GetFirstResidentMip(), 0u);
    EXPECT_EQ(small->GetResourceUsage(), GraphicsResourceUsage::Immutable);
    EXPECT_EQ(factory->GetNumStreaming(), 0u);
    EXPECT_EQ(Null(small)->GetUpdateCount(), 0u);

    // A threshold of 0 streams nothing.
    TextureFactory::SetStreamingThreshold(0);
    dir.Write("again.dds", KovexTest::StreamableDds(512, 10));
    Ptr<Texture> whole = factory->Create(dir.W("again.dds"), nullptr);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->GetFirstResidentMip(), 0u);
    EXPECT_EQ(Null(whole)->GetUploadedBytes(), ChainBytes(512, 0, 10));
}

TEST(TextureStreaming, DamagedAndAbandonedStreams)
{
    NullEngine engine(64, 64);
    Threshold threshold(64 * 64 * 4);
    TextureFactory* factory = TextureFactory::Get();
    TempDir dir;
    // Cut inside level 0: neither streamed nor loaded whole.
    const std::string whole = KovexTest::StreamableDds(512, 10);
    dir.Write("cut.dds", whole.substr(0, whole.size() / 2));
    KovexTest::LogCapture log;
    EXPECT_FALSE(factory->Create(dir.W("cut.dds"), nullptr));
    EXPECT_EQ(factory->GetNumStreaming(), 0u);
    const std::string line = "Load texture failed, its pixels do not load, path = '" + dir.path + "/cut.dds'\n";
    EXPECT_TRUE(log->Contains(StringConvFuncs::ToWString(line.c_str()).c_str()));

    // A texture let go while it streams finishes and goes with its item.
    dir.Write("dropped.dds", whole);
    Ptr<Texture> texture = factory->Create(dir.W("dropped.dds"), nullptr);
    ASSERT_TRUE(texture);
    const unsigned before = factory->GetNumObjects();
    texture = nullptr;
    factory->OnExit(); // the shared table let go too, as at shutdown
    EXPECT_EQ(factory->GetNumStreaming(), 0u) << "stopping the thread drops its items";
    EXPECT_LT(factory->GetNumObjects(), before);
    // A new stream after the stop starts a new Texture Thread.
    dir.Write("after.dds", whole);
    Ptr<Texture> after = factory->Create(dir.W("after.dds"), nullptr);
    ASSERT_TRUE(after);
    ASSERT_TRUE(TickUntilStreamed(factory, 20.0));
    EXPECT_EQ(after->GetFirstResidentMip(), 0u);
}

TEST(TextureStreamingThreads, StreamsRequestedFromThreadsWhileTheMainThreadTicks)
{
    NullEngine engine(64, 64);
    Threshold threshold(64 * 64 * 4);
    TextureFactory* factory = TextureFactory::Get();
    TempDir dir;
    constexpr int kFiles = 8;
    for (int i = 0; i < kFiles; ++i)
        dir.Write("t" + std::to_string(i) + ".dds", KovexTest::StreamableDds(256, 9));

    std::vector<Ptr<Texture>> got(kFiles);
    std::atomic<int> done{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 2; ++w)
        workers.emplace_back([&, w] {
            for (int i = w; i < kFiles; i += 2)
                got[i] = factory->Create(dir.W("t" + std::to_string(i) + ".dds"), nullptr);
            done.fetch_add(1);
        });
    // The main thread ticks meanwhile, uploading whatever has arrived.
    while (done.load() < 2)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
    for (std::thread& worker : workers)
        worker.join();
    ASSERT_TRUE(TickUntilStreamed(factory, 30.0));
    for (int i = 0; i < kFiles; ++i)
    {
        ASSERT_TRUE(got[i]) << i;
        EXPECT_EQ(got[i]->GetFirstResidentMip(), 0u);
        EXPECT_EQ(Null(got[i])->GetUpdatedBytes(), ChainBytes(256, 0, 1)) << i;
    }
}

TEST(TextureStreamingThreads, EngineShutDownWithStreamsInFlight)
{
    TempDir dir;
    for (int i = 0; i < 4; ++i)
        dir.Write("s" + std::to_string(i) + ".dds", KovexTest::StreamableDds(1024, 11));
    for (int round = 0; round < 3; ++round)
    {
        NullEngine engine(64, 64);
        Threshold threshold(64 * 64 * 4);
        TextureFactory* factory = TextureFactory::Get();
        std::vector<Ptr<Texture>> textures;
        for (int i = 0; i < 4; ++i)
            textures.push_back(factory->Create(dir.W("s" + std::to_string(i) + ".dds"), nullptr));
        for (const Ptr<Texture>& t : textures)
            ASSERT_TRUE(t);
        EXPECT_GT(factory->GetNumStreaming(), 0u);
        if (round == 1)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
        // The engine goes down here with the thread mid-file; the textures
        // are dropped after it, as an application may hold them longer.
    }
}
