// Fuzz target: bytes offered to the image loaders' registry by content, as
// a BMP is recognised; loaded and converted when a loader takes them.
#include "fuzz/LoaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::RunLoader(data, size, nullptr);
}
