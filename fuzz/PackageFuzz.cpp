// Fuzz target: bytes from outside mounted as a package, and every member
// read. A hostile file may fail to mount, but never crash, hang or ask for
// memory out of proportion to its size.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "io/MemoryStream.h"
#include "io/Package.h"

using namespace KovexEngine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    KovexFuzz::QuietLog();
    if (size > (1u << 20))
        return 0;
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    Package package(stream, WString(u"fuzz.kpk"));
    if (!package.Mount(WString(u"mount/")))
        return 0;
    uint8_t buffer[4096];
    for (const auto& pair : package.GetFiles())
    {
        Ptr<Stream> member = package.CreateStream(pair.value->path);
        if (!member || !member->Open())
            continue;
        int64 remaining = member->GetSize();
        while (remaining > 0)
        {
            int chunk = remaining < int64(sizeof buffer) ? int(remaining) : int(sizeof buffer);
            if (!member->Read(buffer, chunk))
                break;
            remaining -= chunk;
        }
        member->Close();
        (void)package.GetFileDateTime(pair.value->path);
    }
    return 0;
}
