// The loaders' shared helpers (bit fields, device formats, rectangle
// conversion), the image's mapped records and uploads, and DDS streaming.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "graphics/GraphicsFormat.h"
#include "graphics/TextureFactory.h"
#include "graphics/null/NullRenderer.h"
#include "images/ImageLoaderDDS.h"
#include "images/LoaderTestSupport.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace KovexTest {

// A DDS file of `size` squared B8G8R8A8 texels with `mips` levels; each
// byte of level m is m * 16 + 1, so that a level is known by its bytes.
std::string StreamableDds(uint32 size, uint32 mips)
{
    DDS_HEADER h = {};
    h.dwSize = 124;
    h.dwFlags = 135175;
    h.dwWidth = h.dwHeight = size;
    h.dwMipMapCount = mips;
    h.dwCaps = 0x401008;
    h.ddspf.dwSize = 32;
    h.ddspf.dwFlags = 65;
    h.ddspf.dwRGBBitCount = 32;
    h.ddspf.dwRBitMask = 0xFF0000;
    h.ddspf.dwGBitMask = 0xFF00;
    h.ddspf.dwBBitMask = 0xFF;
    h.ddspf.dwABitMask = 0xFF000000;
    std::string file = std::string("DDS ", 4) + std::string(reinterpret_cast<const char*>(&h), sizeof(h));
    for (uint32 m = 0; m < mips; ++m)
    {
        const uint32 side = size >> m ? size >> m : 1;
        file += std::string(size_t(side) * side * 4, char(m * 16 + 1));
    }
    return file;
}

} // namespace KovexTest

namespace {

Ptr<Image> Filled(uint32 w, uint32 h, uint32 mips, uint32 format, uint32 array = 1)
{
    TextureDesc d = TextureFactory::Make2DDesc(w, h, GraphicsFormat(GraphicsFormat::TYPE(format)), 1);
    d.MipLevels = mips;
    d.ArraySize = array;
    Ptr<Image> image(new Image());
    image->Create(d);
    return image;
}

Ptr<ImageLoader> DdsLoader(const std::string& file)
{
    Ptr<Stream> stream = KovexTest::ReadStream(file);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (loader)
        loader->SetStream(stream);
    return loader;
}

} // namespace

TEST(ImageLoaderApi, BitFieldFormatsAndTheirMasks)
{
    uint32 m[4] = {3840, 240, 15, 0};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(m), uint32(ImageLoader::BIT_FIELD_X4R4G4B4));
    EXPECT_EQ(m[2], 15u) << "the 4-4-4 layouts keep the blue mask";
    uint32 a4[4] = {3840, 240, 15, 61440};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(a4), uint32(ImageLoader::BIT_FIELD_A4R4G4B4));
    uint32 r565[4] = {63488, 2016, 0, 0};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(r565), uint32(ImageLoader::BIT_FIELD_R5G6B5));
    EXPECT_EQ(r565[2], 31u) << "the blue mask is overwritten on purpose";
    uint32 x555[4] = {31744, 992, 7, 0};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(x555), uint32(ImageLoader::BIT_FIELD_X1R5G5B5));
    uint32 a555[4] = {31744, 992, 31, 32768};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(a555), uint32(ImageLoader::BIT_FIELD_A1R5G5B5));
    uint32 odd[4] = {31744, 992, 31, 1};
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(odd), uint32(ImageLoader::BIT_FIELD_UNKNOWN));
    uint32 a4Odd[4] = {3840, 240, 15, 1}; // neither 4-4-4 row: falls through to the 5-bit checks
    EXPECT_EQ(ImageLoader::ParseBitFieldFormat16(a4Odd), uint32(ImageLoader::BIT_FIELD_UNKNOWN));
    EXPECT_EQ(a4Odd[2], 31u);
}

TEST(ImageLoaderApi, DeviceFormatChoicesFollowTheRenderer)
{
    // Without a renderer nothing is supported: every choice ends at RGBA.
    EXPECT_FALSE(ImageLoader::SupportB8G8R8A8());
    EXPECT_EQ(ImageLoader::AutoGet24BitFormat(), uint32(F::R8G8B8A8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet32BitFormat(false), uint32(F::R8G8B8A8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_R5G6B5), uint32(F::R8G8B8A8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_UNKNOWN), 0u);

    KovexTest::NullEngine engine(16, 16);
    // The null device takes every plain format and no block-compressed one.
    EXPECT_TRUE(ImageLoader::SupportR8());
    EXPECT_TRUE(ImageLoader::SupportB5G6R5());
    EXPECT_TRUE(ImageLoader::SupportB5G5R5A1());
    EXPECT_TRUE(ImageLoader::SupportB8G8R8());
    EXPECT_TRUE(ImageLoader::SupportB8G8R8X8());
    EXPECT_TRUE(ImageLoader::SupportB8G8R8A8());
    EXPECT_TRUE(ImageLoader::SupportR8G8B8A8());
    EXPECT_FALSE(ImageLoader::SupportFormat(F::BC1_UNORM));
    EXPECT_FALSE(ImageLoader::SupportFormat(0));
    EXPECT_FALSE(ImageLoader::SupportFormat(100000));
    EXPECT_EQ(ImageLoader::AutoGet24BitFormat(), uint32(F::B8G8R8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet32BitFormat(false), uint32(F::B8G8R8X8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet32BitFormat(true), uint32(F::B8G8R8A8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_X1R5G5B5), uint32(F::B5G6R5_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_A1R5G5B5), uint32(F::B5G5R5A1_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_X4R4G4B4), uint32(F::B8G8R8X8_UNORM));
    EXPECT_EQ(ImageLoader::AutoGet16BitFormat(ImageLoader::BIT_FIELD_A4R4G4B4), uint32(F::B8G8R8A8_UNORM));
}

TEST(ImageLoaderApi, RectangleConversionsAndBitSwaps)
{
    // Two rows of two BGRA pixels, the source rows 12 bytes apart.
    const uint8 source[24] = {1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0};
    uint8 target[16] = {};
    ASSERT_TRUE(ImageLoader::XtoX(target, source, F::B8G8R8A8_UNORM, F::R8G8B8A8_UNORM, 12, 2, 2, false));
    const uint8 straight[16] = {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16};
    EXPECT_EQ(std::memcmp(target, straight, 16), 0);
    TextureDesc desc = TextureFactory::Make2DDesc(2, 2, F::R8G8B8A8_UNORM, 0);
    ASSERT_TRUE(ImageLoader::XtoX(target, desc, source, 12, F::B8G8R8A8_UNORM, true));
    const uint8 flipped[16] = {11, 10, 9, 12, 15, 14, 13, 16, 3, 2, 1, 4, 7, 6, 5, 8};
    EXPECT_EQ(std::memcmp(target, flipped, 16), 0);

    EXPECT_FALSE(ImageLoader::XtoX(nullptr, source, F::B8G8R8A8_UNORM, F::R8G8B8A8_UNORM, 0, 2, 2, false));
    KovexTest::LogCapture log;
    EXPECT_FALSE(ImageLoader::XtoX(target, source, F::R8_UNORM, F::R8G8B8A8_UNORM, 0, 2, 2, false));
    EXPECT_TRUE(log->Contains(u"ImageFormatConverter not suppoert converter format R8_UNORM to R8G8B8A8_UNORM.\n"));

    const uint32 words[2] = {0xC00003FFu | (0x155u << 10), 0x3FF00000u};
    uint32 swapped[2] = {};
    ImageLoader::B10G10R10A2toR10G10B10A2(swapped, words, 2);
    EXPECT_EQ(swapped[0], 0xC0000000u | (0x155u << 10) | 0x3FF00000u);
    EXPECT_EQ(swapped[1], 0x3FFu);
    EXPECT_FALSE(ImageLoader::Pal1toX(target, desc, source, 0, false));
}

TEST(ImageLoaderApi, MappedRecordsAndUploads)
{
    Ptr<Image> bare(new Image());
    TextureDesc d = TextureFactory::Make2DDesc(8, 4, F::R8G8B8A8_UNORM, 1);
    d.MipLevels = 3;
    bare->SetDesc(d);
    MappedSubresource mapped;
    ASSERT_TRUE(bare->GetMappedSubresource(mapped, 0, 1)) << "no data is still a layout";
    EXPECT_EQ(mapped.pData, nullptr);
    EXPECT_EQ(mapped.RowPitch, 16u);
    EXPECT_EQ(mapped.DepthPitch, 32u);
    EXPECT_FALSE(bare->GetMappedSubresource(mapped, 1, 0));
    EXPECT_FALSE(bare->GetMappedSubresource(mapped, 0, 3));

    KovexTest::NullEngine engine(16, 16);
    Ptr<Image> image = Filled(8, 4, 3, F::R8G8B8A8_UNORM, 2);
    ASSERT_TRUE(image->GetMappedSubresource(mapped, 1, 2));
    EXPECT_EQ(mapped.pData, image->GetData(1, 2, 0));
    TextureDesc td = image->GetDesc();
    td.ViewFlags = 1;
    Ptr<Texture> texture = TextureFactory::Get()->Create(td, GraphicsResourceUsage::Default, nullptr);
    ASSERT_TRUE(texture);
    auto* null = static_cast<NullTexture*>(texture.Get());
    EXPECT_FALSE(image->UploadData(nullptr));
    EXPECT_FALSE(image->UploadData(texture.Get(), 0, 0));
    EXPECT_FALSE(image->UploadData(texture.Get(), 2, 2)) << "beyond the chain";
    EXPECT_EQ(null->GetUpdateCount(), 0u);
    ASSERT_TRUE(image->UploadData(texture.Get(), 1, 2));
    EXPECT_EQ(null->GetUpdateCount(), 4u) << "two mips of two slices";
    EXPECT_EQ(null->GetUpdatedBytes(), 2u * (4 * 2 * 4 + 2 * 1 * 4));
    ASSERT_TRUE(image->UploadData(texture.Get()));
    EXPECT_EQ(null->GetUpdateCount(), 10u);

    Ptr<Image> other = Filled(8, 4, 3, F::B8G8R8A8_UNORM, 2);
    EXPECT_FALSE(other->UploadData(texture.Get())) << "another format writes nothing";
    EXPECT_EQ(null->GetUpdateCount(), 10u);
    MappedSubresource none;
    EXPECT_FALSE(texture->UpdateSubresource(0, none, nullptr));
    MappedBox outside{0, 0, 0, 9, 4, 1};
    EXPECT_FALSE(texture->UpdateSubresource(0, mapped, &outside));
    EXPECT_FALSE(texture->UpdateSubresource(6, mapped, nullptr));
}

TEST(ImageLoaderApi, DeviceCompatibleFormats)
{
    Ptr<Image> image = Filled(4, 4, 1, F::R8G8B8A8_UNORM);
    EXPECT_FALSE(image->ConvertToDeviceCompatibleFormat()) << "no renderer";

    KovexTest::NullEngine engine(16, 16);
    EXPECT_TRUE(image->ConvertToDeviceCompatibleFormat());
    EXPECT_EQ(image->GetDesc().Format, uint32(F::R8G8B8A8_UNORM));
    // Block-compressed pixels go to the first plain candidate the device takes.
    ASSERT_TRUE(image->Convert(F::BC3_UNORM, true));
    ASSERT_TRUE(image->ConvertToDeviceCompatibleFormat());
    EXPECT_FALSE(Image::IsBlockCompressed(image->GetDesc().Format));

    Ptr<Image> unknown = Filled(4, 4, 1, 0);
    KovexTest::LogCapture log;
    EXPECT_FALSE(unknown->ConvertToDeviceCompatibleFormat());
    EXPECT_TRUE(log->Contains(u"can't find compatible format for UNKNOWN.\n"));
}

TEST(ImageLoaderDDSStreaming, LevelsArriveSmallestFirst)
{
    Ptr<ImageLoader> loader = DdsLoader(KovexTest::StreamableDds(16, 5));
    ASSERT_TRUE(loader);
    EXPECT_TRUE(loader->SupportStreaming());
    ASSERT_TRUE(loader->Begin(3));
    const Ptr<Image>& image = loader->GetImage();
    EXPECT_EQ(image->GetFirstResidentMip(), 3u);
    EXPECT_FALSE(loader->IsCompleted());
    EXPECT_EQ(image->GetData(0, 4, 0)[0], 4 * 16 + 1);
    EXPECT_EQ(image->GetData(0, 3, 0)[0], 3 * 16 + 1);
    EXPECT_EQ(image->GetData(0, 2, 0)[0], 0) << "not read yet";
    for (int step = 2; step >= 0; --step)
    {
        const uint32 expected = uint32(step);
        ASSERT_TRUE(loader->Continue());
        EXPECT_EQ(image->GetFirstResidentMip(), expected);
        const uint32 side = 16 >> expected;
        const uint8* level = image->GetData(0, expected, 0);
        for (uint32 i = 0; i < side * side * 4; ++i)
            ASSERT_EQ(level[i], expected * 16 + 1) << expected;
    }
    EXPECT_TRUE(loader->IsCompleted());
    EXPECT_TRUE(loader->Continue()) << "a complete image continues as a no-op";
    loader->End();

    // A start beyond the chain is clamped to its last level.
    ASSERT_TRUE(loader->Begin(40));
    EXPECT_EQ(loader->GetImage()->GetFirstResidentMip(), 4u);
}

TEST(ImageLoaderDDSStreaming, RefusedWhereTheFileLacksTheChain)
{
    // A one-level file of 256 or more gets a generated chain: nothing to stream.
    Ptr<ImageLoader> generated = DdsLoader(KovexTest::StreamableDds(256, 1));
    ASSERT_TRUE(generated);
    EXPECT_FALSE(generated->Begin(2));
    EXPECT_EQ(generated->GetImage()->GetData(), nullptr);
    // A file cut inside its largest level passes its size check nowhere.
    const std::string whole = KovexTest::StreamableDds(16, 5);
    Ptr<ImageLoader> cut = DdsLoader(whole.substr(0, whole.size() - 100));
    ASSERT_TRUE(cut);
    EXPECT_FALSE(cut->Begin(2));
    EXPECT_EQ(cut->GetImage()->GetData(), nullptr);
    // Other loaders do not stream.
    bool ok = false;
    Ptr<ImageLoader> bmp = KovexTest::LoadImageFile(std::string("BM") + std::string(60, '\0'), ok);
    if (bmp)
    {
        EXPECT_FALSE(bmp->SupportStreaming());
        EXPECT_FALSE(bmp->Begin(0));
        EXPECT_FALSE(bmp->Continue());
    }
}

TEST(ImageLoaderDDSStreaming, MipReductionDropsTheSmallEnd)
{
    Ptr<ImageLoader> loader = DdsLoader(KovexTest::StreamableDds(16, 5));
    ASSERT_TRUE(loader);
    loader->SetMipReduction(2);
    ASSERT_TRUE(loader->Load());
    EXPECT_EQ(loader->GetDesc().MipLevels, 3u);
    EXPECT_EQ(loader->GetDesc().Width, 16u) << "the size stays";
    EXPECT_EQ(loader->GetImage()->GetData(0, 2, 0)[0], 2 * 16 + 1) << "kept levels come from the file";
    // A reduction that would leave nothing is not applied.
    loader->SetMipReduction(5);
    ASSERT_TRUE(loader->Parse());
    EXPECT_EQ(loader->GetDesc().MipLevels, 5u);
}
