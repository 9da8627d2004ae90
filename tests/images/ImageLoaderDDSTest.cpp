// DDS files built here: plain and masked formats, BC with a mip chain, cube
// maps, volumes, the mip count rule and hostile headers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderDDS.h"
#include "images/LoaderTestSupport.h"
#include "io/MemoryStream.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

using Bytes = std::string;

DDS_HEADER Header(uint32 w, uint32 h, uint32 mips)
{
    DDS_HEADER hd = {};
    hd.dwSize = 124;
    hd.dwFlags = 0x1007;
    hd.dwWidth = w;
    hd.dwHeight = h;
    hd.dwMipMapCount = mips;
    hd.ddspf.dwSize = 32;
    hd.dwCaps = 0x1000;
    return hd;
}

void Masks(DDS_HEADER& h, uint32 flags, uint32 bits, uint32 r, uint32 g, uint32 b, uint32 a)
{
    h.ddspf.dwFlags = flags;
    h.ddspf.dwRGBBitCount = bits;
    h.ddspf.dwRBitMask = r;
    h.ddspf.dwGBitMask = g;
    h.ddspf.dwBBitMask = b;
    h.ddspf.dwABitMask = a;
}

void SetCode(DDS_HEADER& h, const char* code)
{
    h.ddspf.dwFlags = 4;
    std::memcpy(&h.ddspf.dwFourCC, code, 4);
}

Bytes File(const DDS_HEADER& h, const Bytes& body)
{
    return Bytes("DDS ", 4) + Bytes(reinterpret_cast<const char*>(&h), sizeof(h)) + body;
}

Bytes Counting(size_t n)
{
    Bytes b(n, '\0');
    for (size_t i = 0; i < n; ++i)
        b[i] = char(i * 7 + 1);
    return b;
}

Ptr<ImageLoader> Load(const Bytes& file, bool& ok) { return KovexTest::LoadImageFile(file, ok); }

} // namespace

TEST(ImageLoaderDDS, PixelFormatsByMasksAndCodes)
{
    DDS_PIXELFORMAT pf = {};
    pf.dwFlags = 64;
    pf.dwRGBBitCount = 32;
    pf.dwRBitMask = 0xFF0000;
    pf.dwGBitMask = 0xFF00;
    pf.dwBBitMask = 0xFF;
    pf.dwABitMask = 0xFF000000;
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), uint32(F::B8G8R8A8_UNORM));
    pf.dwABitMask = 0;
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), uint32(F::B8G8R8X8_UNORM));
    pf.dwRBitMask = 0x3FF00000;
    pf.dwGBitMask = 0xFFC00;
    pf.dwBBitMask = 0x3FF;
    pf.dwABitMask = 0xC0000000;
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), 0u); // refused on purpose
    pf = {};
    pf.dwFlags = 4;
    std::memcpy(&pf.dwFourCC, "ATI2", 4);
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), uint32(F::BC5_UNORM));
    pf.dwFourCC = 113;
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), uint32(F::R16G16B16A16_FLOAT));
    pf = {};
    pf.dwFlags = 2;
    pf.dwRGBBitCount = 8;
    EXPECT_EQ(ImageLoaderDDS::GetTargetFormat(pf), uint32(F::A8_UNORM));
}

TEST(ImageLoaderDDS, MipChainsCubesAndVolumes)
{
    // 8x8 BC1 with 4 levels: 4 + 1 + 1 + 1 blocks of 8 bytes.
    DDS_HEADER h = Header(8, 8, 4);
    SetCode(h, "DXT1");
    const Bytes bc1 = Counting(7 * 8);
    bool ok = false;
    Ptr<ImageLoader> loader = Load(File(h, bc1), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::DDS));
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::BC1_UNORM));
    EXPECT_EQ(loader->GetDesc().MipLevels, 4u);
    ASSERT_EQ(loader->GetImage()->GetDataSize(), 56u);
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), bc1.data(), 56));

    // A cube of 4x4 B8G8R8A8 faces, each with 3 levels.
    DDS_HEADER cube = Header(4, 4, 3);
    Masks(cube, 65, 32, 0xFF0000, 0xFF00, 0xFF, 0xFF000000);
    cube.dwCaps2 = 0xFE00;
    const Bytes faces = Counting(6 * (16 + 4 + 1) * 4);
    loader = Load(File(cube, faces), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Dimension, uint32(TextureDimension::Cube));
    EXPECT_EQ(loader->GetDesc().ArraySize, 6u);
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(5, 2, 0), faces.data() + 5 * 84 + 80, 4));

    // A 4x4x4 volume of R8 (luminance) with 2 levels.
    DDS_HEADER volume = Header(4, 4, 2);
    volume.dwFlags |= 0x800000;
    volume.dwDepth = 4;
    volume.dwCaps2 = 0x200000;
    Masks(volume, 0x20000, 8, 0xFF, 0, 0, 0);
    const Bytes voxels = Counting(64 + 8);
    loader = Load(File(volume, voxels), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Dimension, uint32(TextureDimension::_3D));
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::R8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(0, 1, 1), voxels.data() + 64 + 4, 4));

    // One level of 256 on a side: the chain is computed and generated.
    DDS_HEADER big = Header(256, 256, 1);
    Masks(big, 65, 32, 0xFF0000, 0xFF00, 0xFF, 0xFF000000);
    loader = Load(File(big, Bytes(256 * 256 * 4, '\x40')), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().MipLevels, 7u); // 256 down to 4
    EXPECT_EQ(loader->GetImage()->GetData(0, 6, 0)[0], 0x40);
}

TEST(ImageLoaderDDS, HostileHeaders)
{
    KovexTest::LogCapture log;
    bool ok = false;
    DDS_HEADER dx10 = Header(4, 4, 1);
    SetCode(dx10, "DX10");
    Load(File(dx10, Bytes(64, '\0')), ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log->Contains(u"ImageLoaderDDS: not support 'DX10' DDS textures.\n"));

    DDS_HEADER deep = Header(8, 8, 9); // beyond the 4 levels of an 8x8 chain
    SetCode(deep, "DXT5");
    Load(File(deep, Bytes(4096, '\0')), ok);
    EXPECT_FALSE(ok);

    DDS_HEADER huge = Header(0xFFFFFFFF, 0xFFFFFFFF, 1);
    SetCode(huge, "DXT1");
    Load(File(huge, Bytes(64, '\0')), ok);
    EXPECT_FALSE(ok);
    DDS_HEADER large = Header(16384, 16384, 1);
    SetCode(large, "DXT1");
    Load(File(large, Bytes(64, '\0')), ok); // claims 128 MiB, holds 64 bytes
    EXPECT_FALSE(ok);
    DDS_HEADER unknown = Header(4, 4, 1);
    SetCode(unknown, "ABCD");
    Load(File(unknown, Bytes(64, '\0')), ok);
    EXPECT_FALSE(ok);

    DDS_HEADER h = Header(8, 8, 4);
    SetCode(h, "DXT1");
    const Bytes good = File(h, Counting(56));
    for (size_t cut = 0; cut < good.size(); ++cut)
    {
        Ptr<Stream> stream = KovexTest::ReadStream(good.substr(0, cut));
        Ptr<ImageLoader> loader(ImageLoader::CreateLoader(WString(u"x.dds")));
        loader->SetStream(stream);
        EXPECT_FALSE(loader->Load()) << cut;
    }
}

namespace {

Bytes Saved(const Image& image, uint32 flags, bool& ok)
{
    auto* data = new DataStream();
    Ptr<Stream> out(new MemoryStream(data, false));
    out->SetWriteable(true);
    out->Open();
    ok = ImageLoaderDDS::StaticSave(&image, out.Get(), flags);
    Bytes file(reinterpret_cast<const char*>(data->GetPointer()), data->GetLength());
    out = nullptr;
    delete data;
    return file;
}

} // namespace

TEST(ImageLoaderDDS, SavedFilesReopen)
{
    struct Case { uint32 format, w, h, mips, arraySize, dimension; };
    const Case cases[] = {{F::BC1_UNORM, 8, 8, 4, 1, TextureDimension::_2D},
                          {F::B8G8R8A8_UNORM, 4, 4, 3, 6, TextureDimension::Cube},
                          {F::R8G8B8A8_UNORM, 5, 3, 2, 1, TextureDimension::_2D}};
    for (const Case& c : cases)
    {
        Ptr<Image> image(new Image());
        TextureDesc desc;
        desc.Width = c.w;
        desc.Height = c.h;
        desc.MipLevels = c.mips;
        desc.ArraySize = c.arraySize;
        desc.Format = c.format;
        desc.Dimension = c.dimension;
        ASSERT_TRUE(image->Create(desc));
        const Bytes pixels = Counting(image->GetDataSize());
        std::memcpy(image->GetData(), pixels.data(), pixels.size());
        bool ok = false;
        const Bytes file = Saved(*image, 0, ok);
        ASSERT_TRUE(ok) << c.format;
        Ptr<ImageLoader> loader = Load(file, ok);
        ASSERT_TRUE(ok) << c.format;
        EXPECT_TRUE(loader->GetDesc() == desc) << c.format;
        EXPECT_EQ(Bytes(reinterpret_cast<const char*>(loader->GetImage()->GetData()), loader->GetImage()->GetDataSize()),
                  pixels);
    }
    // Level 0 alone: the reader computes the chain and fills it.
    Ptr<Image> image(new Image());
    TextureDesc desc;
    desc.Width = desc.Height = 16;
    desc.MipLevels = 5;
    desc.Format = F::B8G8R8A8_UNORM;
    desc.Dimension = TextureDimension::_2D;
    image->Create(desc);
    image->FillData(0x33);
    bool ok = false;
    const Bytes file = Saved(*image, 1, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(file.size(), 128u + 16u * 16u * 4u);
    Ptr<ImageLoader> loader = Load(file, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().MipLevels, 3u); // 16, 8, 4
    EXPECT_EQ(loader->GetImage()->GetData(0, 2, 0)[0], 0x33);
    // A format without a row is refused.
    TextureDesc ints = desc;
    ints.Format = F::R8G8B8A8_UINT;
    ints.MipLevels = 1;
    image->Create(ints);
    Saved(*image, 0, ok);
    EXPECT_FALSE(ok);
}
