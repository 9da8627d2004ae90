// Image work beside the plainest code that does the same job on the same
// buffer: a swizzle beside memcpy, the mip chain beside a 2x2 box-filter
// loop, block compression beside libsquish called directly, PNG and JPEG
// decoding through the loaders beside libpng's and libjpeg's simplest use.

#include <benchmark/benchmark.h>

#include <squish.h>

#include <png.h>
// jpeglib.h needs size_t and FILE declared first.
#include <cstdio>
#include <jpeglib.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "BenchEngine.h"
#include "graphics/GraphicsFormat.h"
#include "graphics/Renderer.h"
#include "graphics/TextureFactory.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "lifecycle/Engine.h"
#include "images/Image.h"
#include "images/ImageLoader.h"
#include "io/MemoryStream.h"
#include "images/PixelFormatConverter.h"

using namespace KovexEngine;

namespace {

Ptr<Image> Filled(uint32 format, uint32 size, uint32 mips)
{
    Ptr<Image> image(new Image());
    TextureDesc d;
    d.Width = d.Height = size;
    d.MipLevels = mips;
    d.Format = format;
    d.Dimension = TextureDimension::_2D;
    image->Create(d);
    std::mt19937 rng(5);
    for (uint32 i = 0; i < image->GetDataSize(); i += 4)
    {
        uint32 v = rng();
        std::memcpy(image->GetData() + i, &v, 4);
    }
    return image;
}

// A picture with some structure for the compressor: gradients and noise.
void Picture(uint8* p, uint32 size)
{
    std::mt19937 rng(9);
    for (uint32 y = 0; y < size; ++y)
        for (uint32 x = 0; x < size; ++x)
        {
            uint8* px = p + (size_t(y) * size + x) * 4;
            px[0] = uint8(x + (rng() & 7));
            px[1] = uint8(y + (rng() & 7));
            px[2] = uint8((x ^ y) & 0xF0);
            px[3] = uint8(255 - (x & 0x3F));
        }
}

constexpr uint32 kSwizzleSize = 4096;

void BM_Swizzle_BGRA_To_RGBA_4096(benchmark::State& state)
{
    Ptr<Image> image = Filled(GraphicsFormat::B8G8R8A8_UNORM, kSwizzleSize, 1);
    std::vector<uint8> out(image->GetDataSize());
    std::unique_ptr<ImageFormatConverter> c(
        ImageFormatConverter::Create(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::B8G8R8A8_UNORM));
    for (auto _ : state)
    {
        c->Execute(out.data(), image->GetData(), 0, 0, kSwizzleSize, kSwizzleSize);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * image->GetDataSize());
}
BENCHMARK(BM_Swizzle_BGRA_To_RGBA_4096)->Unit(benchmark::kMillisecond);

// In place, as Image::Convert does it when size and stride agree.
void BM_Swizzle_ImageConvertInPlace_4096(benchmark::State& state)
{
    Ptr<Image> image = Filled(GraphicsFormat::B8G8R8A8_UNORM, kSwizzleSize, 1);
    for (auto _ : state)
    {
        image->Convert(image->GetDesc().Format == GraphicsFormat::B8G8R8A8_UNORM ? GraphicsFormat::R8G8B8A8_UNORM
                                                                                 : GraphicsFormat::B8G8R8A8_UNORM,
                       true);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * image->GetDataSize());
}
BENCHMARK(BM_Swizzle_ImageConvertInPlace_4096)->Unit(benchmark::kMillisecond);

void BM_Memcpy_Baseline_4096(benchmark::State& state)
{
    const size_t bytes = size_t(kSwizzleSize) * kSwizzleSize * 4;
    std::vector<uint8> in(bytes, 1), out(bytes);
    for (auto _ : state)
    {
        std::memcpy(out.data(), in.data(), bytes);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
}
BENCHMARK(BM_Memcpy_Baseline_4096)->Unit(benchmark::kMillisecond);

constexpr uint32 kMipSize = 2048;
constexpr uint32 kMipLevels = 12;

void BM_GenerateMipmaps_2048(benchmark::State& state)
{
    Ptr<Image> image = Filled(GraphicsFormat::B8G8R8A8_UNORM, kMipSize, kMipLevels);
    for (auto _ : state)
    {
        image->GenerateMipmaps(true);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_GenerateMipmaps_2048)->Unit(benchmark::kMillisecond);

// The baseline: the same chain, one plain loop per level, in one buffer.
void BM_BoxFilterLoop_Baseline_2048(benchmark::State& state)
{
    Ptr<Image> image = Filled(GraphicsFormat::B8G8R8A8_UNORM, kMipSize, kMipLevels);
    std::vector<uint8*> levels;
    uint8* p = image->GetData();
    for (uint32 m = 0, s = kMipSize; m < kMipLevels; ++m, s = s > 1 ? s / 2 : 1)
    {
        levels.push_back(p);
        p += size_t(s) * s * 4;
    }
    for (auto _ : state)
    {
        for (uint32 m = 1, s = kMipSize / 2; m < kMipLevels; ++m, s = s > 1 ? s / 2 : 1)
        {
            const uint8* src = levels[m - 1];
            uint8* dst = levels[m];
            const uint32 sw = s * 2;
            for (uint32 y = 0; y < s; ++y)
                for (uint32 x = 0; x < s; ++x)
                    for (uint32 c = 0; c < 4; ++c)
                    {
                        const uint8* a = src + (size_t(2 * y) * sw + 2 * x) * 4 + c;
                        const uint8* b = a + size_t(sw) * 4;
                        dst[(size_t(y) * s + x) * 4 + c] = uint8((a[0] + a[4] + b[0] + b[4]) / 4);
                    }
        }
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_BoxFilterLoop_Baseline_2048)->Unit(benchmark::kMillisecond);

constexpr uint32 kBlockSize = 1024;

void CompressThroughImage(benchmark::State& state, uint32 format)
{
    Ptr<Image> source = Filled(GraphicsFormat::R8G8B8A8_UNORM, kBlockSize, 1);
    Picture(source->GetData(), kBlockSize);
    std::vector<uint8> pixels(source->GetData(), source->GetData() + source->GetDataSize());
    for (auto _ : state)
    {
        state.PauseTiming();
        Ptr<Image> image(new Image());
        image->Create(source->GetDesc());
        std::memcpy(image->GetData(), pixels.data(), pixels.size());
        state.ResumeTiming();
        image->Convert(format, true);
        benchmark::DoNotOptimize(image->GetData());
    }
}

void CompressDirect(benchmark::State& state, int flags)
{
    std::vector<uint8> pixels(size_t(kBlockSize) * kBlockSize * 4);
    Picture(pixels.data(), kBlockSize);
    std::vector<uint8> blocks(size_t(squish::GetStorageRequirements(kBlockSize, kBlockSize, flags)));
    for (auto _ : state)
    {
        squish::CompressImage(pixels.data(), kBlockSize, kBlockSize, blocks.data(), flags);
        benchmark::DoNotOptimize(blocks.data());
    }
}

void BM_CompressBC1_Image_1024(benchmark::State& state) { CompressThroughImage(state, GraphicsFormat::BC1_UNORM); }
void BM_CompressBC1_Squish_Baseline_1024(benchmark::State& state) { CompressDirect(state, squish::kDxt1); }
void BM_CompressBC3_Image_1024(benchmark::State& state) { CompressThroughImage(state, GraphicsFormat::BC3_UNORM); }
void BM_CompressBC3_Squish_Baseline_1024(benchmark::State& state) { CompressDirect(state, squish::kDxt5); }
BENCHMARK(BM_CompressBC1_Image_1024)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CompressBC1_Squish_Baseline_1024)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CompressBC3_Image_1024)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CompressBC3_Squish_Baseline_1024)->Unit(benchmark::kMillisecond)->Iterations(3);

// --- Decoding -------------------------------------------------------------------------

constexpr uint32 kDecodeSize = 2048;

// One 2048x2048 picture, encoded once per process.
const std::vector<uint8>& DecodePixels()
{
    static const std::vector<uint8> pixels = [] {
        std::vector<uint8> p(size_t(kDecodeSize) * kDecodeSize * 4);
        Picture(p.data(), kDecodeSize);
        return p;
    }();
    return pixels;
}

const std::vector<uint8>& PngFile()
{
    static const std::vector<uint8> file = [] {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        image.width = kDecodeSize;
        image.height = kDecodeSize;
        image.format = PNG_FORMAT_RGBA;
        png_alloc_size_t size = 0;
        png_image_write_to_memory(&image, nullptr, &size, 0, DecodePixels().data(), 0, nullptr);
        std::vector<uint8> out(size);
        png_image_write_to_memory(&image, out.data(), &size, 0, DecodePixels().data(), 0, nullptr);
        out.resize(size);
        return out;
    }();
    return file;
}

const std::vector<uint8>& JpgFile()
{
    static const std::vector<uint8> file = [] {
        jpeg_compress_struct c{};
        jpeg_error_mgr error{};
        c.err = jpeg_std_error(&error);
        jpeg_create_compress(&c);
        unsigned char* buffer = nullptr;
        unsigned long size = 0;
        jpeg_mem_dest(&c, &buffer, &size);
        c.image_width = kDecodeSize;
        c.image_height = kDecodeSize;
        c.input_components = 3;
        c.in_color_space = JCS_RGB;
        jpeg_set_defaults(&c);
        jpeg_set_quality(&c, 90, TRUE);
        jpeg_start_compress(&c, TRUE);
        std::vector<uint8> row(kDecodeSize * 3);
        const uint8* rgba = DecodePixels().data();
        while (c.next_scanline < c.image_height)
        {
            const uint8* src = rgba + size_t(c.next_scanline) * kDecodeSize * 4;
            for (uint32 x = 0; x < kDecodeSize; ++x)
                std::memcpy(&row[x * 3], src + x * 4, 3);
            JSAMPROW rows[1] = {row.data()};
            jpeg_write_scanlines(&c, rows, 1);
        }
        jpeg_finish_compress(&c);
        std::vector<uint8> out(buffer, buffer + size);
        jpeg_destroy_compress(&c);
        std::free(buffer);
        return out;
    }();
    return file;
}

// The engine's way: a stream over the file in memory, the loader the
// registry picks, Load.
void DecodeThroughLoader(benchmark::State& state, const std::vector<uint8>& file, const char16_t* path)
{
    DataStream data(unsigned(file.size()));
    std::memcpy(data.GetPointer(), file.data(), file.size());
    Ptr<MemoryStream> stream(new MemoryStream(&data, false));
    stream->SetPath(path);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (!loader)
    {
        state.SkipWithError("no loader takes the file");
        return;
    }
    loader->SetStream(Ptr<Stream>(stream.Get()));
    for (auto _ : state)
    {
        if (!loader->Load())
        {
            state.SkipWithError("load failed");
            return;
        }
        benchmark::DoNotOptimize(loader->GetImage()->GetData());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kDecodeSize * kDecodeSize);
}

void BM_DecodePNG_Loader_2048(benchmark::State& state) { DecodeThroughLoader(state, PngFile(), u"bench.png"); }

void BM_DecodePNG_LibpngSimplified_Baseline_2048(benchmark::State& state)
{
    const std::vector<uint8>& file = PngFile();
    for (auto _ : state)
    {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        if (!png_image_begin_read_from_memory(&image, file.data(), file.size()))
        {
            state.SkipWithError("libpng refused the file");
            return;
        }
        image.format = PNG_FORMAT_RGBA;
        // Allocated per decode, as the loader allocates its image's buffer.
        uint8* out = static_cast<uint8*>(std::malloc(PNG_IMAGE_SIZE(image)));
        png_image_finish_read(&image, nullptr, out, 0, nullptr);
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kDecodeSize * kDecodeSize);
}

void BM_DecodeJPG_Loader_2048(benchmark::State& state) { DecodeThroughLoader(state, JpgFile(), u"bench.jpg"); }

// `fancy` false asks libjpeg for the same plain upsampling the loader uses.
void DecodeJpegScanlines(benchmark::State& state, bool fancy)
{
    const std::vector<uint8>& file = JpgFile();
    for (auto _ : state)
    {
        jpeg_decompress_struct d{};
        jpeg_error_mgr error{};
        d.err = jpeg_std_error(&error);
        jpeg_create_decompress(&d);
        jpeg_mem_src(&d, file.data(), (unsigned long)file.size());
        jpeg_read_header(&d, TRUE);
        d.out_color_space = JCS_RGB;
        d.do_fancy_upsampling = fancy ? TRUE : FALSE;
        jpeg_start_decompress(&d);
        const size_t stride = size_t(d.output_width) * d.output_components;
        uint8* out = static_cast<uint8*>(std::malloc(stride * d.output_height));
        while (d.output_scanline < d.output_height)
        {
            JSAMPROW rows[1] = {out + stride * d.output_scanline};
            jpeg_read_scanlines(&d, rows, 1);
        }
        jpeg_finish_decompress(&d);
        jpeg_destroy_decompress(&d);
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kDecodeSize * kDecodeSize);
}

void BM_DecodeJPG_LibjpegScanlines_Baseline_2048(benchmark::State& state) { DecodeJpegScanlines(state, true); }
void BM_DecodeJPG_LibjpegPlainUpsampling_Baseline_2048(benchmark::State& state) { DecodeJpegScanlines(state, false); }

BENCHMARK(BM_DecodePNG_Loader_2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodePNG_LibpngSimplified_Baseline_2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeJPG_Loader_2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeJPG_LibjpegScanlines_Baseline_2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeJPG_LibjpegPlainUpsampling_Baseline_2048)->Unit(benchmark::kMillisecond);

// --- Texture streaming ----------------------------------------------------------------

// A 2048x2048 B8G8R8A8 DDS with its whole chain (21 MiB).
const std::vector<uint8>& LargeDds()
{
    static const std::vector<uint8> file = [] {
        constexpr uint32 size = 2048, mips = 12;
        uint32 h[31] = {124, 135175, size, size, 0, 0, mips};
        const uint32 pf[8] = {32, 65, 0, 32, 0xFF0000, 0xFF00, 0xFF, 0xFF000000};
        std::memcpy(&h[18], pf, sizeof(pf));
        h[26] = 0x401008;
        std::vector<uint8> out(4);
        std::memcpy(out.data(), "DDS ", 4);
        out.insert(out.end(), reinterpret_cast<uint8*>(h), reinterpret_cast<uint8*>(h) + sizeof(h));
        for (uint32 m = 0; m < mips; ++m)
            out.resize(out.size() + size_t(size >> m) * (size >> m) * 4, uint8(m * 16 + 1));
        return out;
    }();
    return file;
}

// The time until TextureFactory::Create(stream) hands the texture back, on
// the null renderer; a streamed load then finishes in the ticks, outside
// the timing.
void TextureFromLargeDds(benchmark::State& state, uint32 threshold)
{
    StartNullEngine();
    const uint32 saved = TextureFactory::GetStreamingThreshold();
    TextureFactory::SetStreamingThreshold(threshold);
    DataStream data(unsigned(LargeDds().size()));
    std::memcpy(data.GetPointer(), LargeDds().data(), LargeDds().size());
    TextureFactory* factory = TextureFactory::Get();
    for (auto _ : state)
    {
        Ptr<Texture> texture = factory->Create(Ptr<Stream>(new MemoryStream(&data, false)), nullptr);
        if (!texture)
        {
            state.SkipWithError("no texture");
            break;
        }
        state.PauseTiming();
        while (factory->GetNumStreaming() != 0)
        {
            Kovex_FrameBegin();
            Kovex_FrameEnd();
        }
        texture = nullptr;
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        state.ResumeTiming();
    }
    TextureFactory::SetStreamingThreshold(saved);
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    g_IsNullRenderer = false;
}

void BM_TextureFromLargeDds_Streamed_2048(benchmark::State& state) { TextureFromLargeDds(state, 4u << 20); }
void BM_TextureFromLargeDds_WholeLoad_Baseline_2048(benchmark::State& state) { TextureFromLargeDds(state, 0); }
BENCHMARK(BM_TextureFromLargeDds_Streamed_2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TextureFromLargeDds_WholeLoad_Baseline_2048)->Unit(benchmark::kMillisecond);

} // namespace
