#include "io/Compressor.h"

#include <zlib.h>

#include <mutex>

namespace KovexEngine {

KOVEX_REGISTER_CLASS(Compressor, u"Engine", Object)
KOVEX_REGISTER_CLASS(ZipCompressor, u"Engine", Compressor)

namespace {
std::mutex s_compressorLock;
Ptr<Compressor> s_zip;
} // namespace

Ptr<Compressor> Compressor::CreateCompressor(TYPE type)
{
    if (type != ZLIB)
        return Ptr<Compressor>();
    std::lock_guard<std::mutex> guard(s_compressorLock);
    if (!s_zip)
        s_zip = new ZipCompressor();
    return s_zip;
}

bool ZipCompressor::Compress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                             unsigned int sourceLength, int level)
{
    if (!destination || (!source && sourceLength))
        return false;
    int zlevel = level == 0 ? Z_DEFAULT_COMPRESSION : (level < 1 ? 1 : (level > 9 ? 9 : level));
    uLongf length = destinationLength;
    int result = compress2(destination, &length, source, sourceLength, zlevel);
    destinationLength = unsigned(length);
    return result == Z_OK;
}

bool ZipCompressor::Uncompress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                               unsigned int sourceLength)
{
    if (!destination || !source)
        return false;
    uLongf length = destinationLength;
    int result = uncompress(destination, &length, source, sourceLength);
    destinationLength = unsigned(length);
    return result == Z_OK;
}

unsigned int ZipCompressor::CompressBound(unsigned int n)
{
    uint64 bound = uint64(n) + (n >> 12) + (n >> 14) + (n >> 25) + 13;
    return bound > 0xFFFFFFFFu ? 0xFFFFFFFFu : unsigned(bound);
}

} // namespace KovexEngine
