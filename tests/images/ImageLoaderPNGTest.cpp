// PNGs written here by libpng's own writer load to the pixels they were
// written from, in every colour type the loader expands; hostile streams
// fail with a log line; the saver's output loads back.
#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderPNG.h"
#include "images/LoaderTestSupport.h"
#include "io/MemoryStream.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

using Bytes = std::string;

struct Spec
{
    uint32 width = 3, height = 2;
    int depth = 8, colour = PNG_COLOR_TYPE_RGBA;
    bool interlaced = false;
    std::vector<png_color> palette;
    std::vector<png_byte> alpha; // tRNS entries for a palette
    bool keyed = false;          // tRNS colour key for grey and RGB
    png_color_16 key = {};
};

void Append(png_structp png, png_bytep data, png_size_t length)
{
    static_cast<Bytes*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), length);
}

// `rows` holds the stored samples, packed as the file has them (16-bit
// big-endian, sub-byte depths packed high bit first).
Bytes Encode(const Spec& spec, const std::vector<uint8>& rows)
{
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(png, &out, &Append, nullptr);
    png_set_IHDR(png, info, spec.width, spec.height, spec.depth, spec.colour,
                 spec.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!spec.palette.empty())
        png_set_PLTE(png, info, spec.palette.data(), int(spec.palette.size()));
    if (!spec.alpha.empty())
        png_set_tRNS(png, info, spec.alpha.data(), int(spec.alpha.size()), nullptr);
    if (spec.keyed)
        png_set_tRNS(png, info, nullptr, 0, &spec.key);
    png_write_info(png, info);
    const size_t stride = rows.size() / spec.height;
    std::vector<png_bytep> pointers;
    for (uint32 y = 0; y < spec.height; ++y)
        pointers.push_back(const_cast<png_bytep>(rows.data() + y * stride));
    png_write_image(png, pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

std::vector<uint8> Pixels(const Ptr<ImageLoader>& loader)
{
    const uint8* p = loader->GetImage()->GetData();
    return std::vector<uint8>(p, p + loader->GetImage()->GetDataSize());
}

Ptr<ImageLoader> Load(const Bytes& file, bool& ok) { return KovexTest::LoadImageFile(file, ok); }

// Whether a logged line contains `fragment` (the lines carry sizes and
// library messages).
bool Logged(KovexTest::LogCapture& log, const char16_t* fragment)
{
    for (const auto& e : log->entries)
        if (std::u16string(e.text.c_str()).find(fragment) != std::u16string::npos)
            return true;
    return false;
}

// The saver's bytes; empty when it refuses.
Bytes Save(const Ptr<Image>& image)
{
    auto* data = new DataStream();
    Bytes file;
    {
        Ptr<Stream> out(new MemoryStream(data, false));
        out->SetWriteable(true);
        if (out->Open() && ImageLoaderPNG::StaticSave(image.Get(), out.Get()))
            file.assign(reinterpret_cast<const char*>(data->GetPointer()), data->GetLength());
    }
    delete data;
    return file;
}

} // namespace

TEST(ImageLoaderPNG, TrueColourAndGreyAt8And16Bits)
{
    Spec rgba;
    const std::vector<uint8> rgbaRows = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    bool ok = false;
    Ptr<ImageLoader> loader = Load(Encode(rgba, rgbaRows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::PNG));
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::R8G8B8A8_UNORM));
    EXPECT_EQ(loader->GetDesc().Width, 3u);
    EXPECT_EQ(loader->GetDesc().Height, 2u);
    EXPECT_EQ(Pixels(loader), rgbaRows);

    // RGB gains an opaque alpha.
    Spec rgb;
    rgb.colour = PNG_COLOR_TYPE_RGB;
    std::vector<uint8> rgbRows, expected;
    for (int i = 0; i < 6; ++i)
    {
        const uint8 px[3] = {uint8(10 * i), uint8(10 * i + 1), uint8(10 * i + 2)};
        rgbRows.insert(rgbRows.end(), px, px + 3);
        expected.insert(expected.end(), px, px + 3);
        expected.push_back(255);
    }
    loader = Load(Encode(rgb, rgbRows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), expected);

    // 16-bit RGBA keeps the high byte of each sample.
    Spec wide = rgba;
    wide.depth = 16;
    std::vector<uint8> wideRows;
    for (uint8 v : rgbaRows)
    {
        wideRows.push_back(v);
        wideRows.push_back(uint8(0xFF - v));
    }
    loader = Load(Encode(wide, wideRows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), rgbaRows);

    // 8-bit grey spreads to three channels; 2-bit grey scales to 8 bits.
    Spec grey;
    grey.colour = PNG_COLOR_TYPE_GRAY;
    loader = Load(Encode(grey, {0, 50, 100, 150, 200, 255}), ok);
    ASSERT_TRUE(ok);
    std::vector<uint8> greyExpected;
    for (uint8 g : {0, 50, 100, 150, 200, 255})
        greyExpected.insert(greyExpected.end(), {g, g, g, 255});
    EXPECT_EQ(Pixels(loader), greyExpected);

    grey.depth = 2;
    // Row samples 0,1,2 then 3,2,1, packed high bits first.
    loader = Load(Encode(grey, {0x18, 0xE4}), ok);
    ASSERT_TRUE(ok);
    greyExpected.clear();
    for (uint8 g : {0, 85, 170, 255, 170, 85})
        greyExpected.insert(greyExpected.end(), {g, g, g, 255});
    EXPECT_EQ(Pixels(loader), greyExpected);

    // 16-bit grey with alpha.
    Spec greyAlpha;
    greyAlpha.colour = PNG_COLOR_TYPE_GRAY_ALPHA;
    greyAlpha.depth = 16;
    greyAlpha.width = 1;
    greyAlpha.height = 1;
    loader = Load(Encode(greyAlpha, {0x80, 0x01, 0x40, 0xFF}), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), (std::vector<uint8>{0x80, 0x80, 0x80, 0x40}));
}

TEST(ImageLoaderPNG, DecodesToTheDevicesOrderWhereItTakesBGRA)
{
    KovexTest::NullEngine engine(16, 16); // takes B8G8R8A8_UNORM
    Spec rgba;
    const std::vector<uint8> rows = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    bool ok = false;
    Ptr<ImageLoader> loader = Load(Encode(rgba, rows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    std::vector<uint8> swapped = rows;
    for (size_t i = 0; i < swapped.size(); i += 4)
        std::swap(swapped[i], swapped[i + 2]);
    EXPECT_EQ(Pixels(loader), swapped);

    // Grey needs no swap: each pixel's three channels are equal.
    Spec grey;
    grey.colour = PNG_COLOR_TYPE_GRAY;
    const std::vector<uint8> greyRows = {10, 20, 30, 40, 50, 60};
    loader = Load(Encode(grey, greyRows), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    std::vector<uint8> expected;
    for (uint8 g : greyRows)
        expected.insert(expected.end(), {g, g, g, 255});
    EXPECT_EQ(Pixels(loader), expected);
}

TEST(ImageLoaderPNG, PaletteWithTransparencyAndInterlacing)
{
    Spec pal;
    pal.colour = PNG_COLOR_TYPE_PALETTE;
    pal.palette = {{10, 20, 30}, {40, 50, 60}, {70, 80, 90}};
    pal.alpha = {0, 128}; // entry 2 has none: opaque
    bool ok = false;
    Ptr<ImageLoader> loader = Load(Encode(pal, {0, 1, 2, 2, 1, 0}), ok);
    ASSERT_TRUE(ok);
    const std::vector<uint8> expected = {10, 20, 30, 0,   40, 50, 60, 128, 70, 80, 90, 255,
                                         70, 80, 90, 255, 40, 50, 60, 128, 10, 20, 30, 0};
    EXPECT_EQ(Pixels(loader), expected);

    // 4-bit indices, packed two to a byte.
    pal.depth = 4;
    loader = Load(Encode(pal, {0x01, 0x20, 0x21, 0x00}), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), expected);

    // A colour key makes matching grey and RGB pixels transparent.
    Spec grey;
    grey.colour = PNG_COLOR_TYPE_GRAY;
    grey.width = 3;
    grey.height = 1;
    grey.keyed = true;
    grey.key.gray = 50;
    loader = Load(Encode(grey, {49, 50, 51}), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), (std::vector<uint8>{49, 49, 49, 255, 50, 50, 50, 0, 51, 51, 51, 255}));
    Spec rgb = grey;
    rgb.colour = PNG_COLOR_TYPE_RGB;
    rgb.key.red = 1;
    rgb.key.green = 2;
    rgb.key.blue = 3;
    loader = Load(Encode(rgb, {1, 2, 3, 1, 2, 4, 3, 2, 1}), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), (std::vector<uint8>{1, 2, 3, 0, 1, 2, 4, 255, 3, 2, 1, 255}));

    // An interlaced image larger than one Adam7 block decodes to the same
    // pixels as the plain one.
    Spec plain;
    plain.width = 19;
    plain.height = 11;
    std::vector<uint8> rows(19 * 11 * 4);
    for (size_t i = 0; i < rows.size(); ++i)
        rows[i] = uint8(i * 7 + i / 5);
    Spec interlaced = plain;
    interlaced.interlaced = true;
    const Bytes interlacedFile = Encode(interlaced, rows);
    EXPECT_NE(interlacedFile, Encode(plain, rows));
    loader = Load(interlacedFile, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(Pixels(loader), rows);
}

TEST(ImageLoaderPNG, ParseReadsTheHeaderAlone)
{
    Spec one;
    one.width = 5;
    one.height = 1;
    Ptr<Stream> stream = KovexTest::ReadStream(Encode(one, std::vector<uint8>(20, 9)));
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    ASSERT_TRUE(loader);
    loader->SetStream(stream);
    ASSERT_TRUE(loader->Parse());
    EXPECT_EQ(loader->GetDesc().Width, 5u);
    EXPECT_EQ(loader->GetDesc().Dimension, uint32(TextureDimension::_1D));
    EXPECT_EQ(loader->GetImage()->GetData(), nullptr);
    EXPECT_TRUE(ImageLoader::CreateLoader(WString(u"a.png")));
}

TEST(ImageLoaderPNG, TruncatedCorruptAndOversizedStreamsFail)
{
    Spec big;
    big.width = 40;
    big.height = 40;
    std::vector<uint8> rows(40 * 40 * 4);
    for (size_t i = 0; i < rows.size(); ++i)
        rows[i] = uint8(i * 31 % 251);
    const Bytes file = Encode(big, rows);
    bool ok = true;
    {
        KovexTest::LogCapture log;
        Load(file.substr(0, file.size() / 2), ok);
        EXPECT_FALSE(ok);
        EXPECT_TRUE(Logged(log, u"Loading PNG failed"));
    }
    {
        // A flipped bit in the pixel data: the chunk's CRC no longer holds.
        Bytes corrupt = file;
        const size_t idat = corrupt.find("IDAT");
        ASSERT_NE(idat, Bytes::npos);
        corrupt[idat + 10] = char(corrupt[idat + 10] ^ 0x10);
        KovexTest::LogCapture log;
        Load(corrupt, ok);
        EXPECT_FALSE(ok);
        EXPECT_TRUE(Logged(log, u"Loading PNG failed"));
    }
    {
        // A header claiming 60000 x 60000 over a few bytes of data is
        // refused before the pixels are allocated.
        Bytes huge = file;
        const size_t ihdr = huge.find("IHDR");
        const uint8 size[8] = {0, 0, 0xEA, 0x60, 0, 0, 0xEA, 0x60};
        std::memcpy(&huge[ihdr + 4], size, 8);
        const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(&huge[ihdr]), 17);
        for (int i = 0; i < 4; ++i)
            huge[ihdr + 17 + i] = char(crc >> (24 - 8 * i));
        KovexTest::LogCapture log;
        Ptr<ImageLoader> loader = Load(huge, ok);
        EXPECT_FALSE(ok);
        EXPECT_TRUE(Logged(log, u"larger than"));
        EXPECT_EQ(loader->GetImage()->GetData(), nullptr);
    }
    // Eight bytes of signature and nothing else; a damaged signature.
    KovexTest::LogCapture log;
    Load(file.substr(0, 8), ok);
    EXPECT_FALSE(ok);
    Ptr<Stream> stream = KovexTest::ReadStream("\x89PNX" + file.substr(4));
    Ptr<ImageLoader> byName = ImageLoader::CreateLoader(WString(u"x.png"));
    byName->SetStream(stream);
    EXPECT_FALSE(byName->Load());
    EXPECT_TRUE(Logged(log, u"no PNG signature"));
}

TEST(ImageLoaderPNG, SavedImagesLoadBack)
{
    struct Case
    {
        uint32 format, bytes;
    };
    for (Case c : {Case{F::R8G8B8A8_UNORM, 4}, Case{F::B8G8R8A8_UNORM, 4}, Case{F::R8G8B8_UNORM, 3},
                   Case{F::B8G8R8_UNORM, 3}, Case{F::R8_UNORM, 1}})
    {
        SCOPED_TRACE(c.format);
        TextureDesc desc;
        desc.Width = 7;
        desc.Height = 5;
        desc.Dimension = TextureDimension::_2D;
        desc.Format = c.format;
        Ptr<Image> image(new Image());
        ASSERT_TRUE(image->Create(desc));
        for (uint32 i = 0; i < image->GetDataSize(); ++i)
            image->GetData()[i] = uint8(i * 13 + 5);
        const Bytes file = Save(image);
        ASSERT_FALSE(file.empty());
        bool ok = false;
        Ptr<ImageLoader> loader = Load(file, ok);
        ASSERT_TRUE(ok);
        const uint8* source = image->GetData();
        const uint8* loaded = loader->GetImage()->GetData();
        const bool bgr = c.format == F::B8G8R8A8_UNORM || c.format == F::B8G8R8_UNORM;
        for (uint32 p = 0; p < 35; ++p)
        {
            const uint8* s = source + p * c.bytes;
            uint8 want[4] = {s[0], s[0], s[0], 255};
            if (c.bytes > 1)
            {
                want[0] = bgr ? s[2] : s[0];
                want[1] = s[1];
                want[2] = bgr ? s[0] : s[2];
            }
            if (c.bytes == 4)
                want[3] = s[3];
            ASSERT_EQ(0, std::memcmp(loaded + p * 4, want, 4)) << "pixel " << p;
        }
    }
    TextureDesc desc;
    desc.Width = 2;
    desc.Height = 2;
    desc.Format = F::R16G16B16A16_UNORM;
    Ptr<Image> wide(new Image());
    ASSERT_TRUE(wide->Create(desc));
    KovexTest::LogCapture log;
    EXPECT_TRUE(Save(wide).empty());
    EXPECT_TRUE(Logged(log, u"convert it"));
}
