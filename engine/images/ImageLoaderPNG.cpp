#include "images/ImageLoaderPNG.h"

#include <png.h>

#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include "graphics/GraphicsFormat.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(ImageLoaderPNG, u"Engine")
void ImageLoaderPNG::StaticConstructor(Class* cls)
{
    RegisterBases<ImageLoaderPNG, ImageLoader>(cls);
    cls->ProcessClass();
    ImageLoader::RegisterParser({cls, &ImageLoaderPNG::StaticCheckFormat, &ImageLoaderPNG::StaticCheckExtension});
}

namespace {

// Deflate expands at most about 1032 to 1; a header whose rows need more
// than that from the bytes left is refused before anything is allocated.
constexpr uint64 kInflateRatio = 1032;

enum Status
{
    kOk,
    kBadSignature,
    kNoReadStruct,
    kNoInfoStruct,
    kLibraryError,
    kTooLarge,
    kNotRgba,
    kNoMemory,
};

// Everything the long-jumping code touches: plain data only, so that a
// jump out of libpng skips no destructor. Buffers it owns are freed by the
// caller from here.
struct PngState
{
    Stream* stream;
    Image* image;
    png_bytep* rows;
    char message[128];
    uint32 width, height;
};

void ReadBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* state = static_cast<PngState*>(png_get_io_ptr(png));
    if (length > 0x7FFFFFFF || !state->stream->Read(data, int(length)))
        png_error(png, "Read Error");
}

void OnError(png_structp png, png_const_charp message)
{
    auto* state = static_cast<PngState*>(png_get_error_ptr(png));
    std::strncpy(state->message, message ? message : "", sizeof(state->message) - 1);
    state->message[sizeof(state->message) - 1] = 0;
    png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

void Widen(const char* text, char16_t* out)
{
    while ((*out++ = char16_t(uint8(*text++))) != 0)
    {
    }
}

// The setjmp frame: nothing here has a destructor. With `pixels` false
// only the header is read into width and height.
Status DecodeC(PngState* state, bool pixels)
{
    png_byte signature[8];
    state->stream->SetPosition(0);
    if (!state->stream->Read(signature, 8) || png_sig_cmp(signature, 0, 8) != 0)
        return kBadSignature;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, state, &OnError, &OnWarning);
    if (!png)
        return kNoReadStruct;
    png_infop info = png_create_info_struct(png);
    if (!info)
    {
        png_destroy_read_struct(&png, nullptr, nullptr);
        return kNoInfoStruct;
    }
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kLibraryError;
    }
    png_set_read_fn(png, state, &ReadBytes);
    png_set_sig_bytes(png, 8);
    png_set_user_limits(png, Image::kMaxDimension, Image::kMaxDimension);
    png_read_info(png, info);
    png_uint_32 width = 0, height = 0;
    int depth = 0, colour = 0, interlace = 0;
    png_get_IHDR(png, info, &width, &height, &depth, &colour, &interlace, nullptr, nullptr);
    state->width = width;
    state->height = height;
    // Rows of the stored image as inflated (filter byte included) against
    // what the remaining bytes can inflate to, and the decoded RGBA size.
    const uint64 storedRow = (uint64(width) * png_get_channels(png, info) * uint32(depth) + 7) / 8 + 1;
    const int64 left = state->stream->GetSize() - state->stream->GetPosition();
    if (storedRow * height > uint64(left > 0 ? left : 0) * kInflateRatio + 1024 ||
        uint64(width) * height * 4 > 0xFFFFFFFFull)
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kTooLarge;
    }
    if (!pixels)
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kOk;
    }
    const bool grey = (colour & PNG_COLOR_MASK_COLOR) == 0;
    if (colour == PNG_COLOR_TYPE_PALETTE)
        png_set_palette_to_rgb(png);
    if (depth < 8)
    {
        if (grey)
            png_set_expand_gray_1_2_4_to_8(png);
        else
            png_set_packing(png);
    }
    if (png_get_valid(png, info, PNG_INFO_tRNS))
        png_set_tRNS_to_alpha(png);
    if (depth == 16)
        png_set_strip_16(png);
    if (grey)
        png_set_gray_to_rgb(png);
    if ((colour & PNG_COLOR_MASK_ALPHA) == 0)
        png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
    // Grey pixels read the same either way round.
    if (!grey && state->image->GetDesc().Format == GraphicsFormat::B8G8R8A8_UNORM)
        png_set_bgr(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    png_get_IHDR(png, info, &width, &height, &depth, &colour, &interlace, nullptr, nullptr);
    if (colour != PNG_COLOR_TYPE_RGBA || depth != 8 || png_get_rowbytes(png, info) != size_t(width) * 4)
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kNotRgba;
    }
    // png_read_image writes every row; a long jump frees the buffer.
    if (!state->image->CreateData(false))
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kNoMemory;
    }
    state->rows = static_cast<png_bytep*>(std::malloc(sizeof(png_bytep) * height));
    if (!state->rows)
    {
        png_destroy_read_struct(&png, &info, nullptr);
        return kNoMemory;
    }
    for (uint32 y = 0; y < height; ++y)
        state->rows[y] = state->image->GetData() + size_t(y) * width * 4;
    png_read_image(png, state->rows);
    png_destroy_read_struct(&png, &info, nullptr);
    return kOk;
}


void WriteBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* state = static_cast<PngState*>(png_get_io_ptr(png));
    if (length > 0x7FFFFFFF || !state->stream->Write(data, int(length)))
        png_error(png, "Write Error");
}

void FlushBytes(png_structp) {}

// The writer's setjmp frame, as plain as the reader's.
Status EncodeC(PngState* state, const uint8* pixels, uint32 rowBytes, int colour, bool bgr)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state, &OnError, &OnWarning);
    if (!png)
        return kNoReadStruct;
    png_infop info = png_create_info_struct(png);
    if (!info)
    {
        png_destroy_write_struct(&png, nullptr);
        return kNoInfoStruct;
    }
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_write_struct(&png, &info);
        return kLibraryError;
    }
    png_set_write_fn(png, state, &WriteBytes, &FlushBytes);
    png_set_IHDR(png, info, state->width, state->height, 8, colour, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (bgr)
        png_set_bgr(png);
    for (uint32 y = 0; y < state->height; ++y)
        png_write_row(png, pixels + size_t(y) * rowBytes);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return kOk;
}

} // namespace

bool ImageLoaderPNG::StaticCheckFormat(Stream* stream)
{
    png_byte signature[8];
    return stream && stream->Read(signature, 8) && png_sig_cmp(signature, 0, 8) == 0;
}

bool ImageLoaderPNG::StaticCheckExtension(const AString& extension) { return extension == ".png"; }

bool ImageLoaderPNG::Run(bool pixels)
{
    PngState state = {m_stream.Get(), m_image.Get(), nullptr, {}, 0, 0};
    // The header alone first: the desc sizes the buffer the pixel pass fills.
    Status status = DecodeC(&state, false);
    if (status == kOk)
    {
        TextureDesc desc;
        desc.Width = state.width;
        desc.Height = state.height;
        desc.Dimension = desc.Height == 1 ? TextureDimension::_1D : TextureDimension::_2D;
        // The device's own order where it takes it, so that no swizzle follows.
        desc.Format = SupportB8G8R8A8() ? GraphicsFormat::B8G8R8A8_UNORM : GraphicsFormat::R8G8B8A8_UNORM;
        m_image->SetDesc(desc);
        if (pixels)
            status = DecodeC(&state, true);
    }
    std::free(state.rows);
    switch (status)
    {
    case kOk:
        break;
    case kBadSignature:
        Log::Format(LOG_WARNING, u"Loading PNG failed, path = %s, error= no PNG signature\n",
                    m_stream->GetPath().c_str());
        return false;
    case kNoReadStruct:
        Log::Format(LOG_WARNING, u"PNG create read struct failed.\n");
        return false;
    case kNoInfoStruct:
        Log::Format(LOG_WARNING, u"PNG create info struct failed.\n");
        return false;
    case kLibraryError:
    {
        char16_t message[sizeof(state.message)];
        Widen(state.message, message);
        Log::Format(LOG_WARNING, u"Loading PNG failed, path = %s, error= %s\n", m_stream->GetPath().c_str(), message);
        m_image->DeleteData();
        return false;
    }
    case kTooLarge:
        Log::Format(LOG_WARNING, u"PNG of %u x %u is larger than its %lld bytes can hold.\n", state.width,
                    state.height, static_cast<long long>(m_stream->GetSize()));
        return false;
    case kNotRgba:
        Log::Format(LOG_WARNING, u"PNG did not decode to 8-bit RGBA.\n");
        m_image->DeleteData();
        return false;
    case kNoMemory:
        Log::Format(LOG_WARNING, u"PNG of %u x %u: out of memory.\n", state.width, state.height);
        m_image->DeleteData();
        return false;
    }
    return true;
}

bool ImageLoaderPNG::StaticSave(const Image* image, Stream* stream, uint32 arrayIndex, uint32 mip)
{
    if (!image || !stream)
        return false;
    const TextureDesc& desc = image->GetDesc();
    const uint8* pixels = image->GetData(arrayIndex, mip, 0);
    if (!pixels)
        return false;
    struct Layout
    {
        uint32 format, bytes;
        int colour;
        bool bgr;
    };
    static const Layout kLayouts[] = {
        {GraphicsFormat::R8G8B8A8_UNORM, 4, PNG_COLOR_TYPE_RGBA, false},
        {GraphicsFormat::B8G8R8A8_UNORM, 4, PNG_COLOR_TYPE_RGBA, true},
        {GraphicsFormat::R8G8B8_UNORM, 3, PNG_COLOR_TYPE_RGB, false},
        {GraphicsFormat::B8G8R8_UNORM, 3, PNG_COLOR_TYPE_RGB, true},
        {GraphicsFormat::R8_UNORM, 1, PNG_COLOR_TYPE_GRAY, false},
    };
    const Layout* layout = nullptr;
    for (const Layout& l : kLayouts)
        if (l.format == desc.Format)
            layout = &l;
    if (!layout)
    {
        Log::Format(LOG_WARNING, u"PNG save: format %s is not written, convert it to 8-bit RGBA first.\n",
                    GraphicsFormat(GraphicsFormat::TYPE(desc.Format < GraphicsFormat::COUNT ? desc.Format : 0))
                        .GetName());
        return false;
    }
    PngState state = {stream, nullptr, nullptr, {}, desc.GetMipWidth(mip), desc.GetMipHeight(mip)};
    const Status status = EncodeC(&state, pixels, state.width * layout->bytes, layout->colour, layout->bgr);
    if (status == kOk)
        return true;
    char16_t message[sizeof(state.message)];
    Widen(state.message, message);
    Log::Format(LOG_WARNING, u"Saving PNG failed, path = %s, error= %s\n", stream->GetPath().c_str(), message);
    return false;
}

bool ImageLoaderPNG::InternalParse() { return Run(false); }

bool ImageLoaderPNG::InternalLoad() { return Run(true); }

} // namespace KovexEngine
