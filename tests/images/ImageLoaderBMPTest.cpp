// BMP files built byte by byte here: every depth, both row orders, padded
// rows, RLE, masks, and hostile variants of each.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderBMP.h"
#include "io/MemoryStream.h"
#include "serialization/Serializer.h"
#include "images/LoaderTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

using Bytes = std::string;

void Put16(Bytes& b, size_t at, uint32 v) { b[at] = char(v); b[at + 1] = char(v >> 8); }
void Put32(Bytes& b, size_t at, uint32 v) { for (int i = 0; i < 4; ++i) b[at + i] = char(v >> (8 * i)); }

// A file: header, then `extra` (palette or masks), then `pixels`.
Bytes Bmp(int32 width, int32 height, uint32 bits, uint32 compression, const Bytes& extra, const Bytes& pixels)
{
    Bytes b(54, '\0');
    b[0] = 'B';
    b[1] = 'M';
    Put32(b, 2, uint32(54 + extra.size() + pixels.size()));
    Put32(b, 10, uint32(54 + extra.size()));
    Put32(b, 14, 40);
    Put32(b, 18, uint32(width));
    Put32(b, 22, uint32(height));
    Put16(b, 26, 1);
    Put16(b, 28, bits);
    Put32(b, 30, compression);
    Put32(b, 34, uint32(pixels.size()));
    return b + extra + pixels;
}

Bytes Palette(const std::vector<uint32>& entries)
{
    Bytes b(entries.size() * 4, '\0');
    for (size_t i = 0; i < entries.size(); ++i)
        Put32(b, i * 4, entries[i]);
    return b;
}

Ptr<ImageLoader> Loaded(const Bytes& file, bool& ok) { return KovexTest::LoadImageFile(file, ok); }

uint16 As565(uint32 bgra)
{
    const uint32 b = bgra & 0xFF, g = (bgra >> 8) & 0xFF, r = (bgra >> 16) & 0xFF;
    return uint16((r >> 3) << 11 | (g >> 2) << 5 | (b >> 3));
}

uint16 Pixel16(const Image& image, uint32 x, uint32 y)
{
    uint16 v;
    std::memcpy(&v, image.GetData() + (size_t(y) * image.GetDesc().Width + x) * 2, 2);
    return v;
}

} // namespace

TEST(ImageLoaderBMP, DirectColourInBothRowOrdersWithPaddedRows)
{
    // 3x2 at 24 bits: rows of 9 bytes padded to 12, stored bottom row first.
    Bytes rows;
    rows += Bytes("\x01\x02\x03\x04\x05\x06\x07\x08\x09", 9) + Bytes(3, '\xEE'); // bottom
    rows += Bytes("\x11\x12\x13\x14\x15\x16\x17\x18\x19", 9) + Bytes(3, '\xEE'); // top
    bool ok = false;
    Ptr<ImageLoader> loader = Loaded(Bmp(3, 2, 24, 0, "", rows), ok);
    ASSERT_TRUE(ok);
    const Image& image = *loader->GetImage();
    EXPECT_EQ(image.GetDesc().Format, uint32(F::B8G8R8_UNORM));
    ASSERT_EQ(image.GetDataSize(), 18u);
    EXPECT_EQ(0, std::memcmp(image.GetData(), "\x11\x12\x13\x14\x15\x16\x17\x18\x19\x01\x02\x03\x04\x05\x06\x07\x08\x09", 18));

    // 2x2 at 32 bits, top-down (negative height): rows as stored.
    Bytes rows32("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10", 16);
    loader = Loaded(Bmp(2, -2, 32, 0, "", rows32), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), rows32.data(), 16));
}

TEST(ImageLoaderBMP, PalettesWithPaddedRowsUseTheRowStride)
{
    const std::vector<uint32> colours = {0xFF000000, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFF808080};
    // 5x2 at 8 bits: 5 index bytes padded to 8 per row.
    Bytes rows = Bytes("\x00\x01\x02\x03\x04", 5) + Bytes(3, '\x03') + Bytes("\x04\x03\x02\x01\x00", 5) + Bytes(3, '\x01');
    bool ok = false;
    Ptr<ImageLoader> loader = Loaded(Bmp(5, 2, 8, 0, Palette(colours), rows), ok);
    ASSERT_TRUE(ok);
    const Image& image = *loader->GetImage();
    EXPECT_EQ(image.GetDesc().Format, uint32(F::B5G6R5_UNORM));
    for (uint32 x = 0; x < 5; ++x)
    {
        EXPECT_EQ(Pixel16(image, x, 1), As565(colours[x])) << x; // the bottom row, stored first
        EXPECT_EQ(Pixel16(image, x, 0), As565(colours[4 - x])) << x;
    }

    // 3x2 at 4 bits (high nibble first), 10x1 at 1 bit.
    Bytes nibbles = Bytes("\x12\x30\x00\x00", 4) + Bytes("\x43\x20\x00\x00", 4);
    loader = Loaded(Bmp(3, 2, 4, 0, Palette(colours), nibbles), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixel16(*loader->GetImage(), 0, 1), As565(colours[1]));
    EXPECT_EQ(Pixel16(*loader->GetImage(), 2, 1), As565(colours[3]));
    EXPECT_EQ(Pixel16(*loader->GetImage(), 0, 0), As565(colours[4]));
    Bytes bitsRow = Bytes("\xA5\x80\x00\x00", 4);
    loader = Loaded(Bmp(10, 1, 1, 0, Palette({0xFF000000, 0xFFFFFFFF}), bitsRow), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Dimension, uint32(TextureDimension::_1D));
    const int expected[10] = {1, 0, 1, 0, 0, 1, 0, 1, 1, 0};
    for (uint32 x = 0; x < 10; ++x)
        EXPECT_EQ(Pixel16(*loader->GetImage(), x, 0), expected[x] ? 0xFFFF : 0) << x;

    // A palette shorter than its indices: those read as black.
    loader = Loaded(Bmp(5, 2, 8, 0, Palette({0xFFFFFFFF}), rows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixel16(*loader->GetImage(), 0, 1), 0xFFFF);
    EXPECT_EQ(Pixel16(*loader->GetImage(), 1, 1), 0);
}

TEST(ImageLoaderBMP, RunLengthEncodedImages)
{
    const std::vector<uint32> colours = {0xFF000000, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF};
    // 4x3 RLE8: bottom row a run of 1s; middle row literal 2,3,2 then end of
    // line; a delta of (1, 0) then a run of 3s that runs past the row's end.
    Bytes rle8("\x04\x01\x00\x00\x00\x03\x02\x03\x02\x00\x00\x00\x00\x02\x01\x00\x09\x03\x00\x01", 20);
    bool ok = false;
    Ptr<ImageLoader> loader = Loaded(Bmp(4, 3, 8, 1, Palette(colours), rle8), ok);
    ASSERT_TRUE(ok);
    const Image& image = *loader->GetImage();
    for (uint32 x = 0; x < 4; ++x)
        EXPECT_EQ(Pixel16(image, x, 2), As565(colours[1])); // bottom row
    EXPECT_EQ(Pixel16(image, 1, 1), As565(colours[3]));
    EXPECT_EQ(Pixel16(image, 3, 1), 0); // never written: index 0
    EXPECT_EQ(Pixel16(image, 0, 0), 0); // skipped by the delta
    EXPECT_EQ(Pixel16(image, 1, 0), As565(colours[3]));
    EXPECT_EQ(Pixel16(image, 3, 0), As565(colours[3]));

    // 4x1 RLE4: a run of alternating 1,2 then end of bitmap.
    Bytes rle4("\x04\x12\x00\x01", 4);
    loader = Loaded(Bmp(4, 1, 4, 2, Palette(colours), rle4), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixel16(*loader->GetImage(), 0, 0), As565(colours[1]));
    EXPECT_EQ(Pixel16(*loader->GetImage(), 1, 0), As565(colours[2]));
    EXPECT_EQ(Pixel16(*loader->GetImage(), 3, 0), As565(colours[2]));

    // A literal run that claims more bytes than remain fails cleanly.
    KovexTest::LogCapture log;
    loader = Loaded(Bmp(4, 1, 8, 1, Palette(colours), Bytes("\x00\x40\x01\x02", 4)), ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log->Contains(u"Load bitmap failed.\n"));
}

TEST(ImageLoaderBMP, MasksChooseTheFormat)
{
    Bytes masks = Palette({31744, 992, 31, 32768});
    bool ok = false;
    Ptr<ImageLoader> loader = Loaded(Bmp(2, 1, 16, 3, masks, Bytes("\x1F\x80\xE0\x03", 4)), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B5G5R5A1_UNORM));
    loader = Loaded(Bmp(2, 1, 16, 3, Palette({63488, 2016, 31, 0}), Bytes(4, '\0')), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B5G6R5_UNORM));
    loader = Loaded(Bmp(2, 1, 16, 3, Palette({1, 2, 3, 4}), Bytes(4, '\0')), ok);
    EXPECT_FALSE(ok);
    // Without masks 16 bits are 5-5-5 and the top bit is unused, not alpha:
    // pixels with it clear still show, and convert to opaque colours.
    loader = Loaded(Bmp(2, 1, 16, 0, "", Bytes("\x1F\x00\xE0\x03", 4)), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B5G5R5X1_UNORM));
    ASSERT_TRUE(loader->GetImage()->Convert(F::R8G8B8A8_UNORM, true));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), "\x00\x00\xFF\xFF\x00\xFF\x00\xFF", 8));
    // Three masks only, after a 40-byte info header: alpha none.
    loader = Loaded(Bmp(2, 1, 16, 3, Palette({31744, 992, 31}), Bytes(4, '\0')), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B5G5R5X1_UNORM));
    // 32 bits with masks, as written with the larger info headers.
    loader = Loaded(Bmp(1, 1, 32, 3, Palette({0xFF0000, 0xFF00, 0xFF, 0xFF000000}), Bytes("\x01\x02\x03\x04", 4)), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), "\x01\x02\x03\x04", 4));
}

TEST(ImageLoaderBMP, RegistryParseAndHostileFiles)
{
    const Bytes good = Bmp(5, 2, 8, 0, Palette({0xFFFFFFFF, 0xFF000000}), Bytes(16, '\x01'));
    Ptr<Stream> stream = KovexTest::ReadStream(good);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    ASSERT_TRUE(loader);
    EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::BMP));
    EXPECT_EQ(stream->GetPosition(), 0); // the check leaves the position as it was
    loader->SetStream(stream);
    EXPECT_TRUE(loader->Parse());
    EXPECT_EQ(loader->GetDesc().Width, 5u);
    EXPECT_EQ(loader->GetImage()->GetData(), nullptr); // the header alone
    EXPECT_TRUE(ImageLoader::CreateLoader(WString(u"dir/Picture.BMP")));
    EXPECT_FALSE(ImageLoader::CreateLoader(WString(u"picture.txt")));
    EXPECT_FALSE(ImageLoader::CreateLoader(KovexTest::ReadStream("GIF89a").Get()));

    KovexTest::LogCapture log;
    bool ok = false;
    // Every truncation fails or loads, never reads past the end.
    for (size_t cut = 0; cut < good.size(); ++cut)
    {
        Loaded(good.substr(0, cut), ok);
        EXPECT_FALSE(ok) << cut;
    }
    // Sizes whose product overflows, or that the bytes cannot hold.
    Bytes huge = Bmp(0x7FFFFFFF, 0x7FFFFFFF, 32, 0, "", Bytes(64, '\0'));
    Loaded(huge, ok);
    EXPECT_FALSE(ok);
    Bytes big = Bmp(30000, 30000, 24, 0, "", Bytes(64, '\0'));
    Loaded(big, ok);
    EXPECT_FALSE(ok);
    Bytes bigRle = Bmp(30000, 30000, 8, 1, Palette({0}), Bytes(64, '\0'));
    Loaded(bigRle, ok);
    EXPECT_FALSE(ok);
    Bytes minHeight = Bmp(4, int32(0x80000000u), 24, 0, "", Bytes(64, '\0'));
    Loaded(minHeight, ok);
    EXPECT_FALSE(ok);
    Bytes badDepth = Bmp(4, 4, 7, 0, "", Bytes(64, '\0'));
    Loaded(badDepth, ok);
    EXPECT_FALSE(ok);
}

TEST(ImageLoaderBMP, SavedFilesReopen)
{
    for (uint32 format : {uint32(F::B8G8R8_UNORM), uint32(F::B8G8R8A8_UNORM), uint32(F::B4G4R4A4_UNORM)})
    {
        Ptr<Image> image(new Image());
        TextureDesc desc;
        desc.Width = 3; // rows need padding at 24 and 16 bits
        desc.Height = 2;
        desc.Format = format;
        desc.Dimension = TextureDimension::_2D;
        ASSERT_TRUE(image->Create(desc));
        for (uint32 i = 0; i < image->GetDataSize(); ++i)
            image->GetData()[i] = uint8(i * 11 + 3);
        Bytes file;
        auto* data = new DataStream();
        Ptr<Stream> out(new MemoryStream(data, false));
        out->SetWriteable(true);
        ASSERT_TRUE(out->Open());
        ASSERT_TRUE(ImageLoaderBMP::StaticSave(image.Get(), out.Get(), 0, 0, 0)) << format;
        file.assign(reinterpret_cast<const char*>(data->GetPointer()), data->GetLength());
        out = nullptr;
        delete data;
        EXPECT_EQ(file.size() % 4, 2u); // 54 or 70 bytes of header, then whole padded rows
        bool ok = false;
        Ptr<ImageLoader> loader = Loaded(file, ok);
        ASSERT_TRUE(ok) << format;
        EXPECT_EQ(loader->GetDesc().Format, format);
        ASSERT_EQ(loader->GetImage()->GetDataSize(), image->GetDataSize());
        EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), image->GetData(), image->GetDataSize())) << format;
    }
    // Formats outside the table, and a missing subresource, are refused.
    Ptr<Image> rgba(new Image());
    TextureDesc desc;
    desc.Width = desc.Height = 2;
    desc.Format = F::R8G8B8A8_UNORM;
    rgba->Create(desc);
    auto* data = new DataStream();
    Ptr<Stream> out(new MemoryStream(data, false));
    EXPECT_FALSE(ImageLoaderBMP::StaticSave(rgba.Get(), out.Get(), 0, 0, 0));
    EXPECT_FALSE(ImageLoaderBMP::StaticSave(rgba.Get(), out.Get(), 0, 1, 0));
    EXPECT_FALSE(ImageLoaderBMP::StaticSave(nullptr, out.Get(), 0, 0, 0));
    out = nullptr;
    delete data;
}

// The registry is read from several loader threads at once; each loads and
// converts its own image.
TEST(ImageThreads, LoadersOnSeveralThreads)
{
    const Bytes file = Bmp(5, 2, 8, 0, Palette({0xFFFF0000, 0xFF00FF00}), Bytes(16, '\x01'));
    std::vector<std::thread> threads;
    std::vector<int> loaded(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i)
            {
                bool ok = false;
                Ptr<ImageLoader> loader = Loaded(file, ok);
                if (ok && loader->GetImage()->Convert(F::R8G8B8A8_UNORM, true) &&
                    loader->GetImage()->GetData()[1] == 0xFF)
                    ++loaded[size_t(t)];
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int count : loaded)
        EXPECT_EQ(count, 50);
}

TEST(ImageLoaderBMP, LoadImageByPath)
{
    KovexTest::TempDir dir;
    const Bytes file = Bmp(3, 2, 24, 0, "", Bytes(24, '\x42'));
    FILE* out = std::fopen((dir.path + "/picture.bmp").c_str(), "wb");
    ASSERT_TRUE(out);
    std::fwrite(file.data(), 1, file.size(), out);
    std::fclose(out);
    Ptr<Image> image = Image::LoadImage(dir.W("picture.bmp"));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->GetDesc().Width, 3u);
    EXPECT_EQ(image->GetData()[17], 0x42);
    EXPECT_FALSE(Image::LoadImage(dir.W("missing.bmp")));
}
