#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "graphics/Renderer.h"
#include "graphics/TextureFactory.h"
#include "graphics/null/NullRenderer.h"
#include "images/Image.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"
#include "serialization/SerializerTestSupport.h"

using namespace KovexEngine;
using KovexTest::NullEngine;

namespace {

// A 24-bit bottom-up BMP of 3x2 pixels, rows padded to 12 bytes.
std::string SmallBmp()
{
    std::string b(54, '\0');
    auto put = [&](size_t at, uint32 v, int n) {
        for (int i = 0; i < n; ++i)
            b[at + i] = char(v >> (8 * i));
    };
    b[0] = 'B';
    b[1] = 'M';
    put(2, 54 + 24, 4);
    put(10, 54, 4);
    put(14, 40, 4);
    put(18, 3, 4);
    put(22, 2, 4);
    put(26, 1, 2);
    put(28, 24, 2);
    put(34, 24, 4);
    return b + std::string(24, '\x42');
}

uint32 Uploaded(const Ptr<Texture>& texture) { return static_cast<NullTexture*>(texture.Get())->GetUploadedBytes(); }

} // namespace

TEST(ImageTexture, ImagesBecomeTexturesThroughTheInstalledSource)
{
    NullEngine engine(64, 64);
    TextureFactory* factory = TextureFactory::Get();
    ASSERT_TRUE(TextureFactory::GetImageSource().FromImage);
    TextureDesc desc = TextureFactory::Make2DDesc(8, 4, GraphicsFormat::R8G8B8A8_UNORM, 1);
    desc.MipLevels = 4;
    Ptr<Image> image(new Image());
    ASSERT_TRUE(image->Create(desc));
    Ptr<Texture> texture = factory->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable, nullptr);
    ASSERT_TRUE(texture);
    EXPECT_TRUE(texture->IsCreated());
    EXPECT_EQ(texture->GetDesc(), desc);
    EXPECT_EQ(Uploaded(texture), (32u + 8u + 2u + 1u) * 4u) << "the whole chain reaches the device side";
    EXPECT_EQ(texture->GetInitialDataSize(), 0u) << "the pixels are let go once uploaded";

    KovexTest::LogCapture log;
    Ptr<Image> empty(new Image());
    EXPECT_FALSE(factory->Create(Ptr<Object>(empty.Get()), GraphicsResourceUsage::Immutable, nullptr));
    EXPECT_TRUE(log->Contains(u"Load texture failed, image has no pixels, path = ''\n"));
    EXPECT_FALSE(factory->Create(Ptr<Object>(), GraphicsResourceUsage::Immutable, nullptr));
    EXPECT_TRUE(log->Contains(u"Load texture failed, not an image, path = ''\n"));
    // An image the device cannot take is refused by the description check.
    TextureDesc huge = TextureFactory::Make2DDesc(32768, 1, GraphicsFormat::R8G8B8A8_UNORM, 1);
    Ptr<Image> wide(new Image());
    ASSERT_TRUE(wide->Create(huge));
    EXPECT_FALSE(factory->Create(Ptr<Object>(wide.Get()), GraphicsResourceUsage::Immutable, nullptr));
    EXPECT_TRUE(log->Contains(u"Load texture failed, the device refuses its description, path = ''\n"));
}

TEST(ImageTexture, StreamsAndPathsWithOneTexturePerPath)
{
    NullEngine engine(64, 64);
    TextureFactory* factory = TextureFactory::Get();
    KovexTest::TempDir dir;
    const std::string file = SmallBmp();
    FILE* out = std::fopen((dir.path + "/small.bmp").c_str(), "wb");
    ASSERT_TRUE(out);
    std::fwrite(file.data(), 1, file.size(), out);
    std::fclose(out);

    Ptr<Texture> first = factory->Create(dir.W("small.bmp"), nullptr);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetWidth(), 3u);
    EXPECT_EQ(first->GetHeight(), 2u);
    EXPECT_EQ(first->GetPath(), dir.W("small.bmp"));
    EXPECT_GE(Uploaded(first), 3u * 2u * 3u);
    EXPECT_EQ(factory->Create(dir.W("small.bmp"), nullptr).Get(), first.Get());
    EXPECT_EQ(factory->FindTexture(dir.W("small.bmp")).Get(), first.Get());

    KovexTest::LogCapture log;
    EXPECT_FALSE(factory->Create(dir.W("missing.bmp"), nullptr));
    std::string missing = "Load texture failed, can not open it, path = '" + dir.path + "/missing.bmp'\n";
    EXPECT_TRUE(log->Contains(StringConvFuncs::ToWString(missing.c_str()).c_str()));
    std::string junk(64, 'x');
    Ptr<Stream> stream = KovexTest::ReadStream(junk);
    EXPECT_FALSE(factory->Create(stream, nullptr));
    EXPECT_TRUE(log->Contains(u"Load texture failed, no loader takes it, path = ''\n"));
    // A truncated picture: the header is taken, the pixels do not load.
    std::string cut = file.substr(0, 60);
    Ptr<Stream> truncated = KovexTest::ReadStream(cut);
    EXPECT_FALSE(factory->Create(truncated, nullptr));
    EXPECT_TRUE(log->Contains(u"Load texture failed, its pixels do not load, path = ''\n"));
}

TEST(ImageTextureThreads, OnePathLoadedFromSeveralThreadsIsOneTexture)
{
    NullEngine engine(64, 64);
    TextureFactory* factory = TextureFactory::Get();
    KovexTest::TempDir dir;
    const std::string file = SmallBmp();
    FILE* out = std::fopen((dir.path + "/shared.bmp").c_str(), "wb");
    ASSERT_TRUE(out);
    std::fwrite(file.data(), 1, file.size(), out);
    std::fclose(out);
    for (int round = 0; round < 5; ++round)
    {
        Ptr<Texture> got[4];
        std::vector<std::thread> workers;
        for (int i = 0; i < 4; ++i)
            workers.emplace_back([&, i] { got[i] = factory->Create(dir.W("shared.bmp"), nullptr); });
        for (std::thread& worker : workers)
            worker.join();
        for (int i = 0; i < 4; ++i)
        {
            ASSERT_TRUE(got[i]);
            EXPECT_EQ(got[i].Get(), got[0].Get());
        }
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        EXPECT_TRUE(got[0]->IsCreated());
    }
}
