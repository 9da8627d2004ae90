// TGA files built byte by byte: raw and run-length true colour in both row
// orders, palette and grey, the footer rule and hostile variants.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderTGA.h"
#include "images/LoaderTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

using Bytes = std::string;

const Bytes kFooter = Bytes(8, '\0') + "TRUEVISION-XFILE." + Bytes(1, '\0');

Bytes Tga(uint32 type, uint32 width, uint32 height, uint32 bits, uint32 descriptor, const Bytes& body,
          uint32 mapLength = 0, uint32 mapBits = 0, bool footer = true)
{
    Bytes h(18, '\0');
    h[1] = char(mapLength ? 1 : 0);
    h[2] = char(type);
    h[5] = char(mapLength);
    h[6] = char(mapLength >> 8);
    h[7] = char(mapBits);
    h[12] = char(width);
    h[13] = char(width >> 8);
    h[14] = char(height);
    h[15] = char(height >> 8);
    h[16] = char(bits);
    h[17] = char(descriptor);
    return h + body + (footer ? kFooter : Bytes());
}

Ptr<ImageLoader> Load(const Bytes& file, bool& ok) { return KovexTest::LoadImageFile(file, ok); }

} // namespace

TEST(ImageLoaderTGA, TrueColourRawAndPackedInBothRowOrders)
{
    // 2x2 at 24 bits, bottom row first (descriptor 0).
    const Bytes bottomFirst("\x01\x02\x03\x04\x05\x06\x11\x12\x13\x14\x15\x16", 12);
    bool ok = false;
    Ptr<ImageLoader> loader = Load(Tga(2, 2, 2, 24, 0, bottomFirst), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::TGA));
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), "\x11\x12\x13\x14\x15\x16\x01\x02\x03\x04\x05\x06", 12));
    // The same pixels top row first (descriptor bit 5).
    loader = Load(Tga(2, 2, 2, 24, 0x20, bottomFirst), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), bottomFirst.data(), 12));

    // 3x2 at 32 bits, packed: a run of three, then a literal of three.
    const Bytes packed("\x82\x0A\x0B\x0C\x0D\x02\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C", 18);
    loader = Load(Tga(10, 3, 2, 32, 0x28, packed), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    const uint8* p = loader->GetImage()->GetData();
    EXPECT_EQ(0, std::memcmp(p, "\x0A\x0B\x0C\x0D\x0A\x0B\x0C\x0D\x0A\x0B\x0C\x0D", 12));
    EXPECT_EQ(0, std::memcmp(p + 12, "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C", 12));
}

TEST(ImageLoaderTGA, PaletteAndGrey)
{
    Bytes map(256 * 3, '\0');
    map[3] = '\x10'; // entry 1: blue 0x10, green 0x20, red 0x30
    map[4] = '\x20';
    map[5] = '\x30';
    bool ok = false;
    Ptr<ImageLoader> loader = Load(Tga(1, 2, 1, 8, 0, map + Bytes("\x01\x00", 2), 256, 24), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::B8G8R8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), "\x10\x20\x30\x00\x00\x00", 6));

    loader = Load(Tga(11, 4, 1, 8, 0x20, Bytes("\x83\x7F", 2)), ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(loader->GetDesc().Format, uint32(F::R8_UNORM));
    EXPECT_EQ(0, std::memcmp(loader->GetImage()->GetData(), "\x7F\x7F\x7F\x7F", 4));

    KovexTest::LogCapture log;
    Load(Tga(1, 2, 1, 8, 0, Bytes(16 * 3 + 2, '\0'), 16, 24), ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log->Contains(u"Unsupported TGA format. PAL=16, PalBits = 24, BPP = 8.\n"));
}

TEST(ImageLoaderTGA, FooterRuleAndHostileFiles)
{
    const Bytes good = Tga(10, 4, 4, 24, 0, Bytes("\x8F\x01\x02\x03", 4));
    bool ok = false;
    Load(good, ok);
    EXPECT_TRUE(ok);
    // Without the footer the content is not recognised; the extension still is.
    EXPECT_FALSE(ImageLoader::CreateLoader(KovexTest::ReadStream(Tga(2, 1, 1, 24, 0, "abc", 0, 0, false)).Get()));
    EXPECT_TRUE(ImageLoader::CreateLoader(WString(u"a.TGA")));

    // A run past the image, a literal past the input, truncation anywhere,
    // and sizes the bytes cannot hold all fail cleanly.
    Load(Tga(10, 2, 2, 24, 0, Bytes("\x84\x01\x02\x03", 4)), ok);
    EXPECT_FALSE(ok);
    Load(Tga(10, 2, 2, 24, 0, Bytes("\x03\x01\x02\x03", 4)), ok);
    EXPECT_FALSE(ok);
    Load(Tga(2, 65535, 65535, 32, 0, Bytes(64, '\0')), ok);
    EXPECT_FALSE(ok);
    Load(Tga(10, 65535, 65535, 32, 0, Bytes(64, '\x80')), ok);
    EXPECT_FALSE(ok);
    Load(Tga(1, 2, 1, 8, 0, Bytes(10, '\0'), 256, 24), ok); // palette longer than the file
    EXPECT_FALSE(ok);
    for (size_t cut = 18; cut < good.size() - kFooter.size(); ++cut)
    {
        Ptr<Stream> stream = KovexTest::ReadStream(good.substr(0, cut) + kFooter.substr(0, 0));
        Ptr<ImageLoader> loader(ImageLoader::CreateLoader(WString(u"x.tga")));
        loader->SetStream(stream);
        EXPECT_FALSE(loader->Load()) << cut;
    }
}
