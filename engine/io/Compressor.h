#pragma once

#include "reflection/Object.h"

namespace KovexEngine {

// Compression of blocks in memory. One instance per type, shared.
class KOVEX_API Compressor : public Object
{
    KOVEX_CLASS(Compressor)

public:
    enum TYPE : int
    {
        NONE = 0,
        ZLIB = 1,
    };

    // `destinationLength` holds the room on entry and the size written on exit.
    virtual bool Compress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                          unsigned int sourceLength, int level) = 0;
    virtual bool Uncompress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                            unsigned int sourceLength) = 0;
    virtual unsigned int CompressBound(unsigned int sourceLength) = 0;

    // The shared compressor of a type; null for NONE and unknown types.
    static Ptr<Compressor> CreateCompressor(TYPE type);
};

// zlib's deflate and inflate.
class KOVEX_API ZipCompressor : public Compressor
{
    KOVEX_CLASS(ZipCompressor)

public:
    // Level 0 is zlib's default; others are brought into 1..9.
    bool Compress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                  unsigned int sourceLength, int level) override;
    bool Uncompress(unsigned char* destination, unsigned int& destinationLength, const unsigned char* source,
                    unsigned int sourceLength) override;
    // n + n/4096 + n/16384 + n/2^25 + 13.
    unsigned int CompressBound(unsigned int sourceLength) override;
};

} // namespace KovexEngine
