// Files written by other programs (Pillow, ImageMagick, cjpeg) load to the
// pixels those programs decode them to; tests/images/fixtures/make_fixtures.py
// writes both. The other direction, what the engine saves opening in those
// programs, runs them at test time and is skipped where they are missing.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "images/ImageConverter.h"
#include "images/ImageLoaderBMP.h"
#include "images/ImageLoaderDDS.h"
#include "images/ImageLoaderPNG.h"
#include "images/LoaderTestSupport.h"
#include "io/FileStream.h"
#include "io/MemoryStream.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

const std::string kDir = KOVEX_IMAGE_FIXTURES;

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// By content first, as Image::LoadImage does; by extension for files that
// carry no mark (a TGA without its footer). With `headerOnly`, Parse in
// place of Load.
Ptr<ImageLoader> Load(const std::string& name, bool headerOnly = false)
{
    const std::string bytes = ReadAll(kDir + "/" + name);
    if (bytes.empty())
        return nullptr;
    Ptr<Stream> stream = KovexTest::ReadStream(bytes);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (!loader)
        loader = ImageLoader::CreateLoader(StringConvFuncs::ToWString(name.c_str()));
    if (!loader)
        return nullptr;
    loader->SetStream(stream);
    return (headerOnly ? loader->Parse() : loader->Load()) ? loader : nullptr;
}

// One mip of array slice 0 as RGBA8 rows, top first; R8 (a grey TGA) as
// grey.
std::string Rgba(const Image& image, uint32 mip)
{
    const TextureDesc& desc = image.GetDesc();
    const uint8* data = image.GetData(0, mip, 0);
    const size_t pixels = size_t(desc.GetMipWidth(mip)) * desc.GetMipHeight(mip);
    if (data && desc.Format == F::R8_UNORM)
    {
        std::string out;
        for (size_t i = 0; i < pixels; ++i)
            out += {char(data[i]), char(data[i]), char(data[i]), char(255)};
        return out;
    }
    if (!data || desc.Format != F::R8G8B8A8_UNORM)
        return std::string();
    return std::string(reinterpret_cast<const char*>(data), pixels * 4);
}

// The largest difference of any channel, and where the first pixel over
// `tolerance` lies.
::testing::AssertionResult Near(const std::string& actual, const std::string& expected, int tolerance, uint32 width)
{
    if (actual.size() != expected.size())
        return ::testing::AssertionFailure() << "sizes differ: " << actual.size() << " and " << expected.size();
    int worst = 0;
    size_t firstBad = std::string::npos;
    for (size_t i = 0; i < actual.size(); ++i)
    {
        const int d = std::abs(int(uint8(actual[i])) - int(uint8(expected[i])));
        worst = std::max(worst, d);
        if (d > tolerance && firstBad == std::string::npos)
            firstBad = i;
    }
    if (firstBad == std::string::npos)
        return ::testing::AssertionSuccess();
    const size_t pixel = firstBad / 4;
    return ::testing::AssertionFailure() << "largest difference " << worst << " over " << tolerance << "; first at x "
                                         << pixel % width << " y " << pixel / width << " channel " << firstBad % 4
                                         << ": " << int(uint8(actual[firstBad])) << " against "
                                         << int(uint8(expected[firstBad]));
}

// An RGBA8 reference as the loader stores palette bitmaps: through
// B5G6R5_UNORM and back with the engine's converters, alpha opaque.
std::string Through565(const std::string& rgba, uint32 width, uint32 height)
{
    Ptr<Image> image(new Image());
    TextureDesc desc;
    desc.Width = width;
    desc.Height = height;
    desc.Format = F::R8G8B8A8_UNORM;
    if (!image->Create(desc) || image->GetDataSize() != rgba.size())
        return std::string();
    std::memcpy(image->GetData(), rgba.data(), rgba.size());
    if (!image->ConvertUncompressed(F::B5G6R5_UNORM, true) || !image->ConvertUncompressed(F::R8G8B8A8_UNORM, true))
        return std::string();
    return Rgba(*image, 0);
}

struct Fixture
{
    const char* file;
    int loader;          // ImageLoader::FILE_FORMAT
    uint32 format;       // what the loader stores
    int tolerance = 0;   // per channel
    bool palette565 = false;
};

// Loads each fixture, checks the loader and format, converts to RGBA8 and
// compares every level the file holds with its reference.
void CheckAll(const std::vector<Fixture>& fixtures)
{
    for (const Fixture& f : fixtures)
    {
        SCOPED_TRACE(f.file);
        Ptr<ImageLoader> loader = Load(f.file);
        ASSERT_TRUE(loader) << "did not load";
        EXPECT_EQ(loader->GetFileFormat(), f.loader);
        Image& image = *loader->GetImage();
        EXPECT_EQ(image.GetDesc().Format, f.format);
        // The header alone tells the same.
        Ptr<ImageLoader> parsed = Load(f.file, true);
        ASSERT_TRUE(parsed) << "did not parse";
        EXPECT_TRUE(parsed->GetDesc() == image.GetDesc());
        EXPECT_EQ(parsed->GetImage()->GetData(), nullptr);
        if (f.format != F::R8_UNORM)
            ASSERT_TRUE(image.Convert(F::R8G8B8A8_UNORM, true));
        const std::string stem = kDir + "/" + std::string(f.file).substr(0, std::string(f.file).rfind('.'));
        for (uint32 mip = 0; mip < image.GetDesc().MipLevels; ++mip)
        {
            SCOPED_TRACE("mip " + std::to_string(mip));
            const std::string refPath = stem + (mip ? ".m" + std::to_string(mip) : "") + ".rgba";
            std::string expected = ReadAll(refPath);
            ASSERT_FALSE(expected.empty()) << refPath;
            const uint32 w = image.GetDesc().GetMipWidth(mip), h = image.GetDesc().GetMipHeight(mip);
            if (f.palette565)
                expected = Through565(expected, w, h);
            EXPECT_TRUE(Near(Rgba(image, mip), expected, f.tolerance, w));
        }
    }
}

constexpr uint32 kBGRA = F::B8G8R8A8_UNORM;

TEST(ExternalFixtures, PngEveryColourTypeAndDepthMatchesPillow)
{
    // Without a renderer the loader stores B8G8R8A8 when that is supported;
    // either way the pixels are compared as RGBA.
    std::vector<Fixture> fixtures = {
        {"pil_rgba8.png", ImageLoader::PNG, 0},          {"pil_rgb8.png", ImageLoader::PNG, 0},
        {"pil_grey8.png", ImageLoader::PNG, 0},          {"pil_greyalpha8.png", ImageLoader::PNG, 0},
        {"pil_grey1.png", ImageLoader::PNG, 0},          {"pil_palette_trns.png", ImageLoader::PNG, 0},
        {"pil_palette4.png", ImageLoader::PNG, 0},       {"pil_grey16.png", ImageLoader::PNG, 0},
        {"pil_palette2.png", ImageLoader::PNG, 0},       {"pil_rgb_trns.png", ImageLoader::PNG, 0},
        {"pil_grey_trns.png", ImageLoader::PNG, 0},      {"pil_row.png", ImageLoader::PNG, 0},
        {"im_greyalpha16.png", ImageLoader::PNG, 0},     {"im_rgba16.png", ImageLoader::PNG, 0},
        {"im_interlaced.png", ImageLoader::PNG, 0},
    };
    Ptr<ImageLoader> probe = Load("pil_rgba8.png");
    ASSERT_TRUE(probe);
    for (Fixture& f : fixtures)
        f.format = probe->GetDesc().Format;
    CheckAll(fixtures);
}

TEST(ExternalFixtures, JpegEveryCodingMatchesDjpegExactly)
{
    // The loader decodes with libjpeg's integer DCT and without fancy
    // upsampling; djpeg -dct int -nosmooth on the same library gives the
    // same samples, so no tolerance is needed.
    CheckAll({
        {"cjpeg_baseline.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_progressive.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_grey.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_444.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_422.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_arithmetic.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"cjpeg_restart.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"pil_optimized.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
        {"im_q75.jpg", ImageLoader::JPG, F::R8G8B8_UNORM},
    });
}

TEST(ExternalFixtures, TgaRawAndRunLengthMatchTheirWriters)
{
    CheckAll({
        {"pil_rgb24.tga", ImageLoader::TGA, F::B8G8R8_UNORM},
        {"pil_rgb24_rle.tga", ImageLoader::TGA, F::B8G8R8_UNORM},
        {"pil_rgba32.tga", ImageLoader::TGA, kBGRA},
        {"pil_rgba32_rle.tga", ImageLoader::TGA, kBGRA},
        {"pil_rgb24_id.tga", ImageLoader::TGA, F::B8G8R8_UNORM},
        {"pil_rgb24_topdown.tga", ImageLoader::TGA, F::B8G8R8_UNORM},
        {"pil_grey8.tga", ImageLoader::TGA, F::R8_UNORM},
        {"pil_grey8_rle.tga", ImageLoader::TGA, F::R8_UNORM},
        {"pil_pal8.tga", ImageLoader::TGA, F::B8G8R8_UNORM},
        // No attribute bits in the descriptor: the top bit is no alpha. 5-bit
        // channels widen as in the 16-bit bitmaps below, within 1.
        {"im_rgb16.tga", ImageLoader::TGA, F::B5G5R5X1_UNORM, 1},
        {"im_topdown_rle.tga", ImageLoader::TGA, kBGRA}, // top-down rows; no footer: found by extension
    });
}

TEST(ExternalFixtures, TgaPaletteShorterThan256IsRefusedWithItsLogLine)
{
    // ImageMagick writes only the entries it uses; the loader takes 256
    // entries of 24 bits alone and says so.
    KovexTest::LogCapture log;
    EXPECT_FALSE(Load("im_pal24.tga"));
    EXPECT_TRUE(log->Contains(u"Unsupported TGA format. PAL=24, PalBits = 24, BPP = 8.\n"));
}

TEST(ExternalFixtures, BmpPaletteAndTrueColourMatchTheirWriters)
{
    // Palette bitmaps are stored at 16 bits by design: their reference goes
    // through the same B5G6R5 quantisation, after which they match exactly.
    CheckAll({
        {"pil_pal1.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 0, true},
        {"im_pal4.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 0, true},
        {"pil_pal8.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 0, true},
        {"pil_grey8.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 0, true},
        {"im_pal8_rle.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 0, true},
        // 5- and 6-bit channels: the engine widens by repeating the high
        // bits, ImageMagick by rounding v * 255 / 31; they differ by 1 at most.
        {"im_rgb555.bmp", ImageLoader::BMP, F::B5G5R5X1_UNORM, 1},
        {"im_rgb565.bmp", ImageLoader::BMP, F::B5G6R5_UNORM, 1},
        {"pil_rgb24.bmp", ImageLoader::BMP, F::B8G8R8_UNORM},
        {"pil_column.bmp", ImageLoader::BMP, F::B8G8R8_UNORM},
        {"pil_rgbx32.bmp", ImageLoader::BMP, kBGRA},
        {"im_rgba32.bmp", ImageLoader::BMP, kBGRA},
    });
}

TEST(ExternalFixtures, DdsPlainMatchesImageMagickExactly)
{
    CheckAll({
        {"im_rgb.dds", ImageLoader::DDS, F::B8G8R8_UNORM},
        {"im_rgba.dds", ImageLoader::DDS, kBGRA},
        {"im_rgba_mips.dds", ImageLoader::DDS, kBGRA},
        {"pil_rgba.dds", ImageLoader::DDS, kBGRA},
    });
}

TEST(ExternalFixtures, DdsBlockCompressedMatchesTheirDecoders)
{
    // Decoders may round BC1's interpolated thirds and BC3's alpha sevenths
    // differently; libsquish and ImageMagick (and Pillow, for the lower
    // mips) agree exactly on these blocks.
    CheckAll({
        {"im_bc1.dds", ImageLoader::DDS, F::BC1_UNORM, 0},
        {"im_bc3.dds", ImageLoader::DDS, F::BC3_UNORM, 0},
        {"im_bc1_mips.dds", ImageLoader::DDS, F::BC1_UNORM, 0},
    });
}

TEST(ExternalFixtures, MipChainsKeepEveryLevelTheFileHolds)
{
    for (const char* name : {"im_rgba_mips.dds", "im_bc1_mips.dds"})
    {
        SCOPED_TRACE(name);
        Ptr<ImageLoader> loader = Load(name);
        ASSERT_TRUE(loader);
        EXPECT_EQ(loader->GetDesc().Width, 32u);
        EXPECT_EQ(loader->GetDesc().Height, 16u);
        EXPECT_EQ(loader->GetDesc().MipLevels, 6u);
    }
}

} // namespace

namespace {

// --- The other direction: what the engine saves, opened by those programs ---

// A shell word for a path.
std::string Shell(const std::string& text) { return "'" + text + "'"; }

bool Succeeds(const std::string& command) { return std::system((command + " > /dev/null 2>&1").c_str()) == 0; }

// The Python that has Pillow (Debian installs it for /usr/bin/python3, which
// need not be the first python3 on the path); empty when there is none.
std::string PillowPython()
{
    for (const char* python : {"/usr/bin/python3", "python3"})
        if (Succeeds(std::string(python) + " -c 'import PIL'"))
            return python;
    return std::string();
}

bool HaveImageMagick() { return Succeeds("convert -version | grep -q ImageMagick"); }

// The program's decode of `file` as RGBA8 rows, top first; empty on failure.
std::string DecodeWithPillow(const std::string& python, const std::string& file, const std::string& out)
{
    const std::string script = "import sys; from PIL import Image; "
                               "sys.stdout.buffer.write(Image.open(sys.argv[1]).convert(\"RGBA\").tobytes())";
    if (std::system((python + " -c " + Shell(script) + " " + Shell(file) + " > " + Shell(out)).c_str()) != 0)
        return std::string();
    return ReadAll(out);
}

std::string DecodeWithImageMagick(const std::string& file, const std::string& out)
{
    if (std::system(("convert " + Shell(file) + " -auto-orient -depth 8 " + Shell("rgba:" + out)).c_str()) != 0)
        return std::string();
    return ReadAll(out);
}

// Alpha forced to 255: for a file that carries none, or a reader that
// ignores it.
std::string Opaque(std::string rgba)
{
    for (size_t i = 3; i < rgba.size(); i += 4)
        rgba[i] = char(255);
    return rgba;
}

struct Saved
{
    std::string file;
    std::string expected;      // RGBA8 every program should see
    bool pillowDropsAlpha;     // Pillow reads a 32-bit BI_RGB bitmap's fourth byte as padding
    bool imageMagickReadsIt;   // ImageMagick 6 reads every 32-bit plain DDS as BGRA, whatever its masks
};

// Saves the fixture's pixels in the forms the engine writes; each with what
// a reader should decode. Block-compressed files are expected to decode to
// what the engine itself decodes them to.
std::vector<Saved> SaveEveryForm(const KovexTest::TempDir& dir, std::string& error)
{
    std::vector<Saved> out;
    Ptr<ImageLoader> loader = Load("pil_rgba8.png");
    if (!loader || !loader->GetImage()->Convert(F::R8G8B8A8_UNORM, true))
    {
        error = "the source did not load";
        return out;
    }
    const std::string source = Rgba(*loader->GetImage(), 0);
    const TextureDesc sourceDesc = loader->GetDesc();
    auto save = [&](const std::string& name, uint32 format, bool opaque, int saver) -> std::string {
        Ptr<Image> image(new Image());
        if (!image->Create(sourceDesc))
            return std::string();
        const std::string pixels = opaque ? Opaque(source) : source;
        std::memcpy(image->GetData(), pixels.data(), pixels.size());
        if (!image->Convert(format, true))
            return std::string();
        Ptr<Stream> stream(new FileStream(dir.W(name)));
        stream->SetWriteable(true);
        const bool ok = stream->Open() && (saver == ImageLoader::BMP   ? ImageLoaderBMP::StaticSave(image.Get(), stream.Get(), 0, 0, 0)
                                           : saver == ImageLoader::DDS ? ImageLoaderDDS::StaticSave(image.Get(), stream.Get(), 0)
                                                                       : ImageLoaderPNG::StaticSave(image.Get(), stream.Get()));
        stream->Close();
        if (!ok || !image->Convert(F::R8G8B8A8_UNORM, true))
            return std::string();
        return Rgba(*image, 0); // what the engine has after its own decode
    };
    struct Form
    {
        const char* name;
        uint32 format;
        bool opaque;
        int saver;
    };
    const Form forms[] = {
        {"engine_bgra32.bmp", F::B8G8R8A8_UNORM, false, ImageLoader::BMP},
        {"engine_bgr24.bmp", F::B8G8R8_UNORM, true, ImageLoader::BMP},
        {"engine_bgra.dds", F::B8G8R8A8_UNORM, false, ImageLoader::DDS},
        {"engine_rgba.dds", F::R8G8B8A8_UNORM, false, ImageLoader::DDS},
        {"engine_bc1.dds", F::BC1_UNORM, true, ImageLoader::DDS},
        {"engine_bc3.dds", F::BC3_UNORM, false, ImageLoader::DDS},
        {"engine_rgba.png", F::R8G8B8A8_UNORM, false, ImageLoader::PNG},
        {"engine_bgr.png", F::B8G8R8_UNORM, true, ImageLoader::PNG},
    };
    for (const Form& form : forms)
    {
        std::string expected = save(form.name, form.format, form.opaque, form.saver);
        if (expected.empty())
        {
            error = std::string("the engine did not save ") + form.name;
            return {};
        }
        out.push_back({dir.path + "/" + form.name, expected, form.saver == ImageLoader::BMP && !form.opaque,
                       form.format != F::R8G8B8A8_UNORM || form.saver != ImageLoader::DDS});
    }
    return out;
}

// Saves every form and has the program decode each file it reads.
template <class Decode>
void CheckProgramOpens(const char* program, bool pillow, Decode decode)
{
    KovexTest::TempDir dir;
    std::string error;
    const std::vector<Saved> saved = SaveEveryForm(dir, error);
    ASSERT_TRUE(error.empty()) << error;
    for (const Saved& s : saved)
    {
        if (!pillow && !s.imageMagickReadsIt)
            continue;
        SCOPED_TRACE(s.file);
        const std::string decoded = decode(s.file, dir.path + "/decoded.rgba");
        ASSERT_FALSE(decoded.empty()) << program << " did not open it";
        const uint32 width = 37;
        EXPECT_TRUE(Near(decoded, pillow && s.pillowDropsAlpha ? Opaque(s.expected) : s.expected, 0, width));
    }
}

TEST(ExternalTools, PillowOpensWhatTheEngineSavesWithTheSamePixels)
{
    const std::string python = PillowPython();
    if (python.empty())
        GTEST_SKIP() << "Pillow is not installed (Debian package python3-pil)";
    CheckProgramOpens("Pillow", true, [&](const std::string& file, const std::string& out) {
        return DecodeWithPillow(python, file, out);
    });
}

TEST(ExternalTools, ImageMagickOpensWhatTheEngineSavesWithTheSamePixels)
{
    if (!HaveImageMagick())
        GTEST_SKIP() << "ImageMagick is not installed (Debian package imagemagick)";
    CheckProgramOpens("ImageMagick", false, DecodeWithImageMagick);
}

} // namespace
