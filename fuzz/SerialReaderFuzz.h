// The body shared by the fuzz targets of single serial readers: the bytes
// opened by the serializer their header names, then handed to one reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "io/MemoryStream.h"
#include "serialization/Serializer.h"

namespace KovexFuzz {

// Runs read(serializer) over the bytes; inputs no serializer opens are skipped.
template <typename READ>
int ReadSerialized(const uint8_t* data, size_t size, READ read)
{
    using namespace KovexEngine;
    QuietLog();
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    Serializer* reader = Serializer::OpenReadStream(stream);
    if (!reader)
        return 0;
    read(*reader);
    delete reader;
    return 0;
}

} // namespace KovexFuzz
