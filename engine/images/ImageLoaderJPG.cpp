#include "images/ImageLoaderJPG.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
#include <jerror.h>

#include "graphics/GraphicsFormat.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(ImageLoaderJPG, u"Engine")
void ImageLoaderJPG::StaticConstructor(Class* cls)
{
    RegisterBases<ImageLoaderJPG, ImageLoader>(cls);
    cls->ProcessClass();
    ImageLoader::RegisterParser({cls, &ImageLoaderJPG::StaticCheckFormat, &ImageLoaderJPG::StaticCheckExtension});
}

namespace {

// Every entropy-coded block costs at least one bit of the first scan, so a
// frame of more than this many pixels per byte of file cannot be whole; it
// is refused before the decoder allocates for it.
constexpr uint64 kPixelsPerByte = 512;
constexpr uint64 kSlackPixels = 64 * 64;

enum Status
{
    kOk,
    kLibraryError,
    kTooLarge,
    kNoMemory,
};

// Plain data only: the error exit jumps out of libjpeg into DecodeC, and
// nothing on that path may own a destructor.
struct JpgError
{
    jpeg_error_mgr pub;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

struct JpgSource
{
    jpeg_source_mgr pub;
    Stream* stream;
    // The load path: the whole file, read before decoding.
    uint8* whole;
    size_t wholeSize;
    // The parse path: 64 bytes at a time, as far as the header goes.
    JOCTET chunk[64];
};

void OnErrorExit(j_common_ptr cinfo)
{
    auto* error = reinterpret_cast<JpgError*>(cinfo->err);
    cinfo->err->format_message(cinfo, error->message);
    std::longjmp(error->jump, 1);
}

void OnMessage(j_common_ptr cinfo)
{
    char text[JMSG_LENGTH_MAX];
    cinfo->err->format_message(cinfo, text);
    char16_t wide[JMSG_LENGTH_MAX];
    size_t i = 0;
    for (; text[i]; ++i)
        wide[i] = char16_t(uint8(text[i]));
    wide[i] = 0;
    Log::Format(LOG_INFO, u"%s\n", wide);
}

void InitSource(j_decompress_ptr) {}
void TermSource(j_decompress_ptr) {}

// The whole file is in memory: needing more means it was cut short.
boolean FillFromWhole(j_decompress_ptr cinfo)
{
    ERREXIT(cinfo, JERR_INPUT_EOF);
    return FALSE;
}

boolean FillChunk(j_decompress_ptr cinfo)
{
    auto* source = reinterpret_cast<JpgSource*>(cinfo->src);
    const int64 left = source->stream->GetSize() - source->stream->GetPosition();
    const int count = int(left < int64(sizeof(source->chunk)) ? left : int64(sizeof(source->chunk)));
    if (count <= 0 || !source->stream->Read(source->chunk, count))
        ERREXIT(cinfo, JERR_INPUT_EOF);
    source->pub.next_input_byte = source->chunk;
    source->pub.bytes_in_buffer = size_t(count);
    return TRUE;
}

void SkipWhole(j_decompress_ptr cinfo, long count)
{
    if (count <= 0)
        return;
    jpeg_source_mgr* src = cinfo->src;
    if (size_t(count) > src->bytes_in_buffer)
        ERREXIT(cinfo, JERR_INPUT_EOF);
    src->next_input_byte += count;
    src->bytes_in_buffer -= size_t(count);
}

void SkipChunk(j_decompress_ptr cinfo, long count)
{
    if (count <= 0)
        return;
    auto* source = reinterpret_cast<JpgSource*>(cinfo->src);
    if (size_t(count) <= source->pub.bytes_in_buffer)
    {
        source->pub.next_input_byte += count;
        source->pub.bytes_in_buffer -= size_t(count);
        return;
    }
    const int64 target = source->stream->GetPosition() + int64(size_t(count) - source->pub.bytes_in_buffer);
    if (target > source->stream->GetSize())
        ERREXIT(cinfo, JERR_INPUT_EOF);
    source->stream->SetPosition(target);
    source->pub.bytes_in_buffer = 0;
}

// The setjmp frame. With `image` null the header alone is read.
Status DecodeC(JpgSource* source, JpgError* error, Image* image, uint32* width, uint32* height)
{
    jpeg_decompress_struct cinfo;
    cinfo.err = jpeg_std_error(&error->pub);
    error->pub.error_exit = &OnErrorExit;
    error->pub.output_message = &OnMessage;
    if (setjmp(error->jump))
    {
        jpeg_destroy_decompress(&cinfo);
        return kLibraryError;
    }
    jpeg_create_decompress(&cinfo);
    cinfo.src = &source->pub;
    jpeg_read_header(&cinfo, TRUE);
    *width = cinfo.image_width;
    *height = cinfo.image_height;
    const uint64 pixels = uint64(cinfo.image_width) * cinfo.image_height;
    const uint64 bytes = uint64(source->stream->GetSize() > 0 ? source->stream->GetSize() : 0);
    if (cinfo.image_width > Image::kMaxDimension || cinfo.image_height > Image::kMaxDimension ||
        pixels > bytes * kPixelsPerByte + kSlackPixels || pixels * 3 > 0xFFFFFFFFull)
    {
        jpeg_destroy_decompress(&cinfo);
        return kTooLarge;
    }
    if (!image)
    {
        jpeg_destroy_decompress(&cinfo);
        return kOk;
    }
    // Coefficient buffers of a progressive frame, row buffers and tables:
    // bounded by the frame the bytes justified.
    cinfo.mem->max_memory_to_use = long(pixels * 4 * cinfo.num_components + (16 << 20));
    cinfo.out_color_space = JCS_RGB;
    cinfo.out_color_components = 3;
    cinfo.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&cinfo);
    if (cinfo.output_components != 3 || cinfo.output_width != *width || cinfo.output_height != *height ||
        !image->CreateData(false))
    {
        jpeg_destroy_decompress(&cinfo);
        return kNoMemory;
    }
    // jpeg_read_scanlines writes every row, a damaged stream included (it
    // pads with its own fill), so the buffer needs no zeroing first.
    const size_t stride = size_t(cinfo.output_width) * 3;
    while (cinfo.output_scanline < cinfo.output_height)
    {
        JSAMPROW row = image->GetData() + stride * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return kOk;
}

} // namespace

bool ImageLoaderJPG::StaticCheckFormat(Stream* stream)
{
    if (!stream)
        return false;
    if (stream->GetSize() - stream->GetPosition() > 6)
        stream->SetPosition(stream->GetPosition() + 6);
    char tag[4];
    return stream->Read(tag, 4) && (std::memcmp(tag, "JFIF", 4) == 0 || std::memcmp(tag, "FIFJ", 4) == 0);
}

bool ImageLoaderJPG::StaticCheckExtension(const AString& extension) { return extension == ".jpg"; }

bool ImageLoaderJPG::Run(bool pixels)
{
    JpgSource source = {};
    JpgError error = {};
    source.stream = m_stream.Get();
    source.pub.init_source = &InitSource;
    source.pub.term_source = &TermSource;
    source.pub.resync_to_restart = &jpeg_resync_to_restart;
    m_stream->SetPosition(0);
    if (pixels)
    {
        const int64 size = m_stream->GetSize();
        if (size <= 0 || size > 0x7FFFFFFF)
            return false;
        source.whole = static_cast<uint8*>(std::malloc(size_t(size)));
        if (!source.whole || !m_stream->Read(source.whole, int(size)))
        {
            std::free(source.whole);
            return false;
        }
        source.wholeSize = size_t(size);
        source.pub.next_input_byte = source.whole;
        source.pub.bytes_in_buffer = source.wholeSize;
        source.pub.fill_input_buffer = &FillFromWhole;
        source.pub.skip_input_data = &SkipWhole;
    }
    else
    {
        source.pub.fill_input_buffer = &FillChunk;
        source.pub.skip_input_data = &SkipChunk;
    }
    // The header first in both paths: the desc sizes the pixel buffer.
    uint32 width = 0, height = 0;
    Status status = DecodeC(&source, &error, nullptr, &width, &height);
    if (status == kOk)
    {
        TextureDesc desc;
        desc.Width = width;
        desc.Height = height;
        desc.Dimension = TextureDimension::_2D;
        desc.Format = GraphicsFormat::R8G8B8_UNORM;
        m_image->SetDesc(desc);
        if (pixels)
        {
            source.pub.next_input_byte = source.whole;
            source.pub.bytes_in_buffer = source.wholeSize;
            status = DecodeC(&source, &error, m_image.Get(), &width, &height);
        }
    }
    std::free(source.whole);
    switch (status)
    {
    case kOk:
        return true;
    case kLibraryError:
    {
        char16_t message[JMSG_LENGTH_MAX];
        size_t i = 0;
        for (; error.message[i]; ++i)
            message[i] = char16_t(uint8(error.message[i]));
        message[i] = 0;
        Log::Format(LOG_WARNING, u"Loading JPG failed, path = %s, error= %s\n", m_stream->GetPath().c_str(), message);
        break;
    }
    case kTooLarge:
        Log::Format(LOG_WARNING, u"JPG of %u x %u is larger than its %lld bytes can hold.\n", width, height,
                    static_cast<long long>(m_stream->GetSize()));
        break;
    case kNoMemory:
        Log::Format(LOG_WARNING, u"JPG of %u x %u: no RGB output or out of memory.\n", width, height);
        break;
    }
    m_image->DeleteData();
    return false;
}

bool ImageLoaderJPG::InternalParse() { return Run(false); }

bool ImageLoaderJPG::InternalLoad() { return Run(true); }

} // namespace KovexEngine
