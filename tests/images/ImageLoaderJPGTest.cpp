// JPEGs compressed here by libjpeg, baseline and progressive, colour and
// grey: the loader's pixels equal libjpeg's own decode of the same bytes
// with the same settings; cut and damaged streams fail with a log line.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderJPG.h"
#include "images/LoaderTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

using Bytes = std::string;

constexpr uint32 kWidth = 37, kHeight = 23;

// A smooth gradient with some edges, so that both colour and detail
// survive compression in a recognisable form.
std::vector<uint8> Source(int components)
{
    std::vector<uint8> pixels(size_t(kWidth) * kHeight * components);
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
            for (int c = 0; c < components; ++c)
                pixels[(size_t(y) * kWidth + x) * components + c] =
                    uint8((x * 6 + y * 3 + c * 70 + ((x / 8 + y / 8) % 2) * 40) % 256);
    return pixels;
}

Bytes Compress(const std::vector<uint8>& pixels, int components, bool progressive, size_t commentBytes = 0)
{
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&cinfo, &out, &size);
    cinfo.image_width = kWidth;
    cinfo.image_height = kHeight;
    cinfo.input_components = components;
    cinfo.in_color_space = components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 95, TRUE);
    if (progressive)
        jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    if (commentBytes)
    {
        const std::vector<JOCTET> comment(commentBytes, 'c');
        jpeg_write_marker(&cinfo, JPEG_COM, comment.data(), unsigned(commentBytes));
    }
    while (cinfo.next_scanline < cinfo.image_height)
    {
        JSAMPROW row = const_cast<JSAMPROW>(pixels.data() + size_t(cinfo.next_scanline) * kWidth * components);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    Bytes file(reinterpret_cast<const char*>(out), size);
    std::free(out);
    return file;
}

// libjpeg's own decode with the loader's settings.
std::vector<uint8> Reference(const Bytes& file)
{
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char*>(file.data()), file.size());
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = JCS_RGB;
    cinfo.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&cinfo);
    std::vector<uint8> pixels(size_t(cinfo.output_width) * cinfo.output_height * 3);
    while (cinfo.output_scanline < cinfo.output_height)
    {
        JSAMPROW row = pixels.data() + size_t(cinfo.output_scanline) * cinfo.output_width * 3;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return pixels;
}

bool Logged(KovexTest::LogCapture& log, const char16_t* fragment)
{
    for (const auto& e : log->entries)
        if (std::u16string(e.text.c_str()).find(fragment) != std::u16string::npos)
            return true;
    return false;
}

} // namespace

TEST(ImageLoaderJPG, BaselineAndProgressiveMatchLibjpegsDecode)
{
    for (int components : {3, 1})
        for (bool progressive : {false, true})
        {
            SCOPED_TRACE(components * 10 + progressive);
            const std::vector<uint8> source = Source(components);
            const Bytes file = Compress(source, components, progressive);
            bool ok = false;
            Ptr<ImageLoader> loader = KovexTest::LoadImageFile(file, ok);
            ASSERT_TRUE(loader);
            ASSERT_TRUE(ok);
            EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::JPG));
            const TextureDesc& desc = loader->GetDesc();
            EXPECT_EQ(desc.Width, kWidth);
            EXPECT_EQ(desc.Height, kHeight);
            EXPECT_EQ(desc.Format, uint32(GraphicsFormat::R8G8B8_UNORM));
            const std::vector<uint8> reference = Reference(file);
            ASSERT_EQ(loader->GetImage()->GetDataSize(), reference.size());
            const uint8* pixels = loader->GetImage()->GetData();
            EXPECT_EQ(0, std::memcmp(pixels, reference.data(), reference.size()));
            // And near what was compressed (chroma is subsampled, and the pattern
            // wraps sharply): grey spreads to three channels.
            uint64 error = 0;
            for (size_t p = 0; p < size_t(kWidth) * kHeight; ++p)
                for (int c = 0; c < 3; ++c)
                    error += uint64(std::abs(int(pixels[p * 3 + c]) - int(source[p * components + (components == 3 ? c : 0)])));
            EXPECT_LT(error / (size_t(kWidth) * kHeight * 3), 12u);
        }
}

TEST(ImageLoaderJPG, ParseReadsTheHeaderInSmallPieces)
{
    // A comment longer than the parse buffer is skipped by seeking.
    const Bytes file = Compress(Source(3), 3, false, 1000);
    Ptr<Stream> stream = KovexTest::ReadStream(file);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    ASSERT_TRUE(loader);
    EXPECT_EQ(loader->GetFileFormat(), int(ImageLoader::JPG));
    loader->SetStream(stream);
    ASSERT_TRUE(loader->Parse());
    EXPECT_EQ(loader->GetDesc().Width, kWidth);
    EXPECT_EQ(loader->GetDesc().Height, kHeight);
    EXPECT_EQ(loader->GetImage()->GetData(), nullptr);
    EXPECT_TRUE(loader->Load());
    EXPECT_TRUE(ImageLoader::CreateLoader(WString(u"x.jpg")));
}

TEST(ImageLoaderJPG, CutDamagedAndOversizedStreamsFail)
{
    for (bool progressive : {false, true})
    {
        const Bytes file = Compress(Source(3), 3, progressive);
        bool ok = true;
        {
            KovexTest::LogCapture log;
            Ptr<ImageLoader> loader = KovexTest::LoadImageFile(file.substr(0, file.size() * 2 / 3), ok);
            EXPECT_FALSE(ok);
            EXPECT_TRUE(Logged(log, u"Loading JPG failed"));
            EXPECT_EQ(loader->GetImage()->GetData(), nullptr);
        }
        const size_t sof = file.find(progressive ? "\xFF\xC2" : "\xFF\xC0");
        ASSERT_NE(sof, Bytes::npos);
        {
            // A frame header whose length covers none of its fields.
            Bytes bad = file;
            bad[sof + 2] = 0;
            bad[sof + 3] = 2;
            KovexTest::LogCapture log;
            KovexTest::LoadImageFile(bad, ok);
            EXPECT_FALSE(ok);
            EXPECT_TRUE(Logged(log, u"Loading JPG failed"));
        }
        {
            // 60000 x 60000 over a few kilobytes is refused before decoding.
            Bytes huge = file;
            const char size[4] = {char(0xEA), 0x60, char(0xEA), 0x60};
            std::memcpy(&huge[sof + 5], size, 4);
            KovexTest::LogCapture log;
            KovexTest::LoadImageFile(huge, ok);
            EXPECT_FALSE(ok);
            EXPECT_TRUE(Logged(log, u"larger than"));
        }
    }
}
